#include "kernel/obs/telemetry.h"

#include "kernel/obs/logger.h"
#include "kernel/obs/metrics.h"

namespace ostrel::kernel::telemetry {
namespace {

std::string prometheus_name(const std::string& name) {
  std::string out = name;
  for (char& c : out) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == ':';
    if (!ok) c = '_';
  }
  if (!out.empty() && out[0] >= '0' && out[0] <= '9') out.insert(out.begin(), '_');
  return out;
}

std::string render_labels(const Labels& labels) {
  if (labels.empty()) return "";
  std::string out = "{";
  bool first = true;
  for (const auto& [k, v] : labels) {
    if (!first) out += ',';
    first = false;
    out += prometheus_name(k) + "=\"" + escape_label_value(v) + "\"";
  }
  return out + "}";
}

}  // namespace

std::string escape_label_value(const std::string& v) {
  std::string out;
  out.reserve(v.size());
  for (char c : v) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out;
}

Telemetry& Telemetry::instance() {
  static Telemetry t;
  return t;
}

void Telemetry::counter(const std::string& name, double value, const Labels& labels) {
  counter_series(name, labels).add(value);
}

obs::Counter& Telemetry::counter_series(const std::string& name, const Labels& labels) {
  std::lock_guard lock(mu_);
  auto& slot = counters_[name][labels];
  if (!slot) slot = std::make_unique<obs::Counter>();
  return *slot;
}

void Telemetry::histogram(const std::string& name, double value, const Labels& labels) {
  std::lock_guard lock(mu_);
  Summary& s = histograms_[name][labels];
  s.count += 1;
  s.sum += value;
}

std::unique_ptr<obs::ScopedSpan> Telemetry::begin_span(const std::string& name,
                                                       obs::SpanKind kind) {
  return std::make_unique<obs::ScopedSpan>(name, kind);
}

void Telemetry::configure(const Config& config) {
  if (config.enabled && !config.endpoint.empty()) {
    Logger("kernel/telemetry")
        .warn("export to " + config.endpoint +
              " requested, but collector export is not built yet — "
              "metrics stay on /metrics");
  }
}

double Telemetry::counter_value(const std::string& name, const Labels& labels) const {
  std::lock_guard lock(mu_);
  auto family = counters_.find(name);
  if (family == counters_.end()) return 0.0;
  auto series = family->second.find(labels);
  return series == family->second.end() ? 0.0 : series->second->value();
}

std::string Telemetry::to_prometheus() const {
  std::string out;
  std::lock_guard lock(mu_);
  for (const auto& [name, series] : counters_) {
    std::string pname = prometheus_name(name);
    out += "# TYPE " + pname + " counter\n";
    for (const auto& [labels, counter] : series) {
      out +=
          pname + render_labels(labels) + " " + obs::format_metric_value(counter->value()) + "\n";
    }
  }
  for (const auto& [name, series] : histograms_) {
    std::string pname = prometheus_name(name);
    out += "# TYPE " + pname + " summary\n";
    for (const auto& [labels, s] : series) {
      std::string l = render_labels(labels);
      out += pname + "_sum" + l + " " + obs::format_metric_value(s.sum) + "\n";
      out += pname + "_count" + l + " " + std::to_string(s.count) + "\n";
    }
  }
  return out;
}

}  // namespace ostrel::kernel::telemetry
