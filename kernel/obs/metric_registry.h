#pragma once

#include <map>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ostrel::kernel {

// The kernel's labelled gauge registry, handed to every module. Values are set,
// not accumulated, and rendered in the Prometheus text format.
// Thread-safe: mu_ guards both maps, so a scrape never sees a half-written series.
class MetricRegistry {
 public:
  using Labels = std::map<std::string, std::string>;

  void register_gauge(const std::string& name, std::string help);
  void gauge_set(const std::string& name, double value, const Labels& labels = {});
  std::string to_prometheus() const;

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
