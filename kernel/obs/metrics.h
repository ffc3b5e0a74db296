#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ostrel::obs {

// A monotonically increasing value. Lock-free.
class Counter {
 public:
  void add(double v = 1.0) { value_.fetch_add(v, std::memory_order_relaxed); }
  double value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<double> value_{0.0};
};

// A value that is set. Lock-free.
class Gauge {
 public:
  void set(double v) { value_.store(v, std::memory_order_relaxed); }
  void add(double v) { value_.fetch_add(v, std::memory_order_relaxed); }
  double value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<double> value_{0.0};
};

// Fixed ascending upper bounds with one count each (non-cumulative: a value is
// counted at the first bound that holds it), plus total count and sum. Lock-free.
class Histogram {
 public:
  explicit Histogram(std::vector<double> bounds);

  void observe(double v);

  struct Snapshot {
    std::vector<double> bounds;
    std::vector<std::uint64_t> cumulative;  // one per bound
    std::uint64_t count = 0;
    double sum = 0.0;
  };
  Snapshot snapshot() const;

 private:
  std::vector<double> bounds_;
  std::unique_ptr<std::atomic<std::uint64_t>[]> counts_;  // bounds_.size() + 1 (overflow)
  std::atomic<std::uint64_t> count_{0};
  std::atomic<double> sum_{0.0};
};

// The process-wide registry of counters, gauges and histograms. A metric is
// created on first use; the same object is returned afterwards and lives for
// the rest of the process, so callers keep the reference.
// Thread-safe: mu_ guards the three maps; the metrics themselves are atomic.
class MetricsRegistry {
 public:
  static MetricsRegistry& instance();

  Counter& counter(const std::string& name, const std::string& help = "");
  Gauge& gauge(const std::string& name, const std::string& help = "");
  // Bounds are used only when the histogram is created by this call.
  Histogram& histogram(const std::string& name, const std::vector<double>& bounds,
                       const std::string& help = "");

  // Counters, then gauges, then histograms, each sorted by name.
  std::string to_prometheus() const;

 private:
  template <typename T>
  struct Entry {
    std::string help;
    std::unique_ptr<T> metric;
  };
  mutable std::mutex mu_;  // guards the maps (not the metric values)
  std::map<std::string, Entry<Counter>> counters_;
  std::map<std::string, Entry<Gauge>> gauges_;
  std::map<std::string, Entry<Histogram>> histograms_;
};

// "%.17g", with "+Inf"/"-Inf"/"NaN" for the special values.
std::string format_metric_value(double v);
// The same text appended to `out`; whole numbers take a fast path.
void append_metric_value(std::string& out, double v);

}  // namespace ostrel::obs
