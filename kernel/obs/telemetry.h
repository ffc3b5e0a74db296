#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "base/trace.h"
#include "kernel/obs/metrics.h"

namespace ostrel::kernel::telemetry {

using Labels = std::map<std::string, std::string>;

// The labelled front end that modules record their "ostrel.<module>.<name>"
// series through, and the entry point for spans. Counters accumulate per
// (name, labels); histograms keep count and sum per series.
// Thread-safe: mu_ guards the series.
class Telemetry {
 public:
  struct Config {
    bool enabled = false;
    std::string endpoint;  // collector base URL
    int export_interval_ms = 10000;
    std::string service_name = "ostrel-ulvo";
    std::string token;
  };

  static Telemetry& instance();

  void counter(const std::string& name, double value, const Labels& labels = {});
  // The counter of one series, created on first use and valid for the life of
  // the process: hot paths look it up once and then only add to it.
  obs::Counter& counter_series(const std::string& name, const Labels& labels);
  void histogram(const std::string& name, double value, const Labels& labels = {});
  // A labelled gauge: the value is set, not added.
  void gauge(const std::string& name, double value, const Labels& labels = {});

  // A span that is current on this thread until it goes out of scope.
  std::unique_ptr<obs::ScopedSpan> begin_span(const std::string& name,
                                              obs::SpanKind kind = obs::SpanKind::internal);

  // With `enabled` and an endpoint: every export_interval_ms a thread of the
  // telemetry's own sends the series (OTLP/HTTP JSON, "<endpoint>/v1/metrics")
  // and the spans finished since the last pass ("<endpoint>/v1/traces").
  void configure(const Config& config);
  // Ends the export thread after one last pass; nothing is sent afterwards.
  void shutdown();
  // The two payloads as they would be sent now (for tests).
  std::string metrics_payload() const;

  double counter_value(const std::string& name, const Labels& labels) const;

  // The HELP text of a labelled family on /metrics (a family without one is
  // described by its dotted name).
  void describe(const std::string& name, const std::string& help);

  // The labelled series in Prometheus text form: names with "." turned into
  // "_", counters as counters, histograms as summaries (_sum and _count).
  std::string to_prometheus() const;

 private:
  struct Summary {
    std::uint64_t count = 0;
    double sum = 0.0;
  };
  void export_loop_();
  void export_once_();
  std::string resource_json_() const;

  // Export: cfg_mu_ guards cfg_, the pending spans and the stop flag;
  // export_cv_ waits on it. The thread is joined by shutdown().
  mutable std::mutex cfg_mu_;
  std::condition_variable export_cv_;
  Config cfg_;
  bool export_stop_ = false;
  std::vector<obs::Span> pending_spans_;
  std::uint64_t dropped_spans_ = 0;
  std::thread export_thread_;
  mutable std::mutex mu_;  // guards counters_ and histograms_
  std::map<std::string, std::map<Labels, std::unique_ptr<obs::Counter>>> counters_;
  std::map<std::string, std::map<Labels, Summary>> histograms_;
  std::map<std::string, std::string> help_;
  mutable std::size_t last_render_size_ = 0;  // guarded by mu_; sizes the next render
  // Guarded by mu_: the exposition text of each series' label set.
  mutable std::unordered_map<const Labels*, std::string> label_text_;
  const std::string& label_text_locked_(const Labels& labels) const;
  std::map<std::string, std::map<Labels, double>> gauges_;
};

// Label value escaping shared with the kernel gauge registry: a backslash or a
// double quote gets a backslash in front; everything else is kept.
std::string escape_label_value(const std::string& v);

}  // namespace ostrel::kernel::telemetry
