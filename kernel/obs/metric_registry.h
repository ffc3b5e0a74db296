#pragma once

#include <map>
#include <mutex>
#include <string>
#include <unordered_map>

#include "kernel/obs/metrics.h"

namespace ostrel::kernel {

// What a module records metrics through, handed to it in its context: the
// kernel's labelled gauges (values set, not accumulated, rendered here in the
// Prometheus text format), and the node's counters and histograms
// ("ostrel.<module>.<name>_total", kept by the process-wide telemetry, which
// renders and exports them). Nothing else in a module touches a metrics
// singleton.
// Thread-safe: mu_ guards both gauge maps, so a scrape never sees a
// half-written series; the counters and histograms guard themselves.
class MetricRegistry {
 public:
  using Labels = std::map<std::string, std::string>;

  void register_gauge(const std::string& name, std::string help);
  void gauge_set(const std::string& name, double value, const Labels& labels = {});
  std::string to_prometheus() const;

  // Adds `value` to the counter of (name, labels).
  void counter(const std::string& name, double value, const Labels& labels = {});
  // The counter of one series, for hot paths that look it up once.
  obs::Counter& counter_series(const std::string& name, const Labels& labels);
  // Observes `value` in the histogram of (name, labels).
  void histogram(const std::string& name, double value, const Labels& labels = {});
  // The HELP text of a counter or histogram family.
  void describe(const std::string& name, const std::string& help);

 private:
  struct Meta {
    std::string type = "gauge";
    std::string help;
  };
  mutable std::mutex mu_;  // guards meta_ and series_
  std::unordered_map<std::string, Meta> meta_;
  std::unordered_map<std::string, std::map<Labels, double>> series_;
};

}  // namespace ostrel::kernel
