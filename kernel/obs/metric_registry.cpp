#include "kernel/obs/metric_registry.h"

#include <sstream>

#include "kernel/obs/telemetry.h"

namespace ostrel::kernel {

void MetricRegistry::register_gauge(const std::string& name, std::string help) {
  std::lock_guard lock(mu_);
  Meta& m = meta_[name];
  m.type = "gauge";
  m.help = std::move(help);
}

void MetricRegistry::gauge_set(const std::string& name, double value, const Labels& labels) {
  std::lock_guard lock(mu_);
  meta_.try_emplace(name);
  series_[name][labels] = value;
}

void MetricRegistry::counter(const std::string& name, double value, const Labels& labels) {
  telemetry::Telemetry::instance().counter(name, value, labels);
}

obs::Counter& MetricRegistry::counter_series(const std::string& name, const Labels& labels) {
  return telemetry::Telemetry::instance().counter_series(name, labels);
}

void MetricRegistry::histogram(const std::string& name, double value, const Labels& labels) {
  telemetry::Telemetry::instance().histogram(name, value, labels);
}

void MetricRegistry::describe(const std::string& name, const std::string& help) {
  telemetry::Telemetry::instance().describe(name, help);
}

std::string MetricRegistry::to_prometheus() const {
  std::ostringstream out;  // default stream formatting of a double: 3, 0.5, 1.23457e+06
  std::lock_guard lock(mu_);
  for (const auto& [name, series] : series_) {
    const Meta& meta = meta_.at(name);
    if (!meta.help.empty()) out << "# HELP " << name << " " << meta.help << "\n";
    out << "# TYPE " << name << " " << meta.type << "\n";
    for (const auto& [labels, value] : series) {
      out << name;
      if (!labels.empty()) {
        out << '{';
        bool first = true;
        for (const auto& [k, v] : labels) {
          if (!first) out << ',';
          first = false;
          out << k << "=\"" << telemetry::escape_label_value(v) << '"';
        }
        out << '}';
      }
      out << ' ' << value << '\n';
    }
  }
  return out.str();
}

}  // namespace ostrel::kernel
