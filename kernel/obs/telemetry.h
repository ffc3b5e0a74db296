#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kernel/obs/metrics.h"
#include "kernel/obs/trace.h"

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

  // A span that is current on this thread until it goes out of scope.
  std::unique_ptr<obs::ScopedSpan> begin_span(const std::string& name,
                                              obs::SpanKind kind = obs::SpanKind::internal);

  // Records the configuration. Exporting to a collector is not built yet: a
  // configured endpoint is logged once and otherwise ignored.
  void configure(const Config& config);

  double counter_value(const std::string& name, const Labels& labels) const;

  // The labelled series in Prometheus text form: names with "." turned into
  // "_", counters as counters, histograms as summaries (_sum and _count).
  std::string to_prometheus() const;

 private:
  struct Summary {
    std::uint64_t count = 0;
    double sum = 0.0;
  };
  mutable std::mutex mu_;  // guards counters_ and histograms_
  std::map<std::string, std::map<Labels, std::unique_ptr<obs::Counter>>> counters_;
  std::map<std::string, std::map<Labels, Summary>> histograms_;
};

// Label value escaping shared with the kernel gauge registry: a backslash or a
// double quote gets a backslash in front; everything else is kept.
std::string escape_label_value(const std::string& v);

}  // namespace ostrel::kernel::telemetry
