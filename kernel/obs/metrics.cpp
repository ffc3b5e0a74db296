#include "kernel/obs/metrics.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace ostrel::obs {

std::string format_metric_value(double v) {
  if (std::isnan(v)) return "NaN";
  if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

void append_metric_value(std::string& out, double v) {
  // "%.17g" prints a whole number below 1e15 as its plain digits.
  if (v == std::floor(v) && std::fabs(v) < 1e15) {
    char buf[24];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, static_cast<std::int64_t>(v));
    if (v == 0 && std::signbit(v)) out += '-';
    out.append(buf, end);
    return;
  }
  out += format_metric_value(v);
}

Histogram::Histogram(std::vector<double> bounds) : bounds_(std::move(bounds)) {
  std::sort(bounds_.begin(), bounds_.end());
  counts_ = std::make_unique<std::atomic<std::uint64_t>[]>(bounds_.size() + 1);
  for (size_t i = 0; i <= bounds_.size(); ++i) counts_[i].store(0);
}

void Histogram::observe(double v) {
  // First bound >= v; values above every bound land in the overflow slot.
  size_t i = std::lower_bound(bounds_.begin(), bounds_.end(), v) - bounds_.begin();
  if (std::isnan(v)) i = bounds_.size();
  counts_[i].fetch_add(1, std::memory_order_relaxed);
  count_.fetch_add(1, std::memory_order_relaxed);
  sum_.fetch_add(v, std::memory_order_relaxed);
}

Histogram::Snapshot Histogram::snapshot() const {
  Snapshot s;
  s.bounds = bounds_;
  s.cumulative.resize(bounds_.size());
  std::uint64_t running = 0;
  for (size_t i = 0; i < bounds_.size(); ++i) {
    running += counts_[i].load(std::memory_order_relaxed);
    s.cumulative[i] = running;
  }
  running += counts_[bounds_.size()].load(std::memory_order_relaxed);
  // The total is derived from the buckets so that "+Inf" and "_count" always
  // agree with the bucket lines, even while observations race the scrape.
  s.count = running;
  s.sum = sum_.load(std::memory_order_relaxed);
  return s;
}

MetricsRegistry& MetricsRegistry::instance() {
  static MetricsRegistry registry;
  return registry;
}

Counter& MetricsRegistry::counter(const std::string& name, const std::string& help) {
  std::lock_guard lock(mu_);
  auto& e = counters_[name];
  if (!e.metric) {
    e.metric = std::make_unique<Counter>();
    e.help = help;
  }
  return *e.metric;
}

Gauge& MetricsRegistry::gauge(const std::string& name, const std::string& help) {
  std::lock_guard lock(mu_);
  auto& e = gauges_[name];
  if (!e.metric) {
    e.metric = std::make_unique<Gauge>();
    e.help = help;
  }
  return *e.metric;
}

Histogram& MetricsRegistry::histogram(const std::string& name, const std::vector<double>& bounds,
                                      const std::string& help) {
  std::lock_guard lock(mu_);
  auto& e = histograms_[name];
  if (!e.metric) {
    e.metric = std::make_unique<Histogram>(bounds);
    e.help = help;
  }
  return *e.metric;
}

std::string MetricsRegistry::to_prometheus() const {
  std::string out;
  std::lock_guard lock(mu_);
  auto header = [&](const std::string& name, const std::string& help, const char* type) {
    out += "# HELP " + name + " " + help + "\n";
    out += "# TYPE " + name + " " + type + "\n";
  };
  for (const auto& [name, e] : counters_) {
    header(name, e.help, "counter");
    out += name + " " + format_metric_value(e.metric->value()) + "\n";
  }
  for (const auto& [name, e] : gauges_) {
    header(name, e.help, "gauge");
    out += name + " " + format_metric_value(e.metric->value()) + "\n";
  }
  for (const auto& [name, e] : histograms_) {
    header(name, e.help, "histogram");
    Histogram::Snapshot s = e.metric->snapshot();
    for (size_t i = 0; i < s.bounds.size(); ++i) {
      out += name + "_bucket{le=\"" + format_metric_value(s.bounds[i]) + "\"} " +
             std::to_string(s.cumulative[i]) + "\n";
    }
    out += name + "_bucket{le=\"+Inf\"} " + std::to_string(s.count) + "\n";
    out += name + "_sum " + format_metric_value(s.sum) + "\n";
    out += name + "_count " + std::to_string(s.count) + "\n";
  }
  return out;
}

}  // namespace ostrel::obs
