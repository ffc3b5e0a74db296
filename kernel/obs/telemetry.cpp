#include "kernel/obs/telemetry.h"

#include <chrono>

#include "base/text.h"

#include "base/http_client.h"

#include "base/logger.h"
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

// Label values here come from requests: quotes, backslashes and newlines are
// escaped, so no value can break a line of the exposition.
void append_labels(std::string& out, const Labels& labels) {
  if (labels.empty()) return;
  out += '{';
  bool first = true;
  for (const auto& [k, v] : labels) {
    if (!first) out += ',';
    first = false;
    const std::size_t at = out.size();
    out += k;
    for (std::size_t i = at; i < out.size(); ++i) {
      const char c = out[i];
      if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            c == '_' || c == ':')) {
        out[i] = '_';
      }
    }
    if (at < out.size() && out[at] >= '0' && out[at] <= '9') out.insert(out.begin() + at, '_');
    out += "=\"";
    bool plain = true;
    for (char c : v) plain &= c != '\\' && c != '"' && c != '\n';
    if (plain) {
      out += v;  // the usual case: nothing to escape
    } else {
      for (char c : v) {
        if (c == '\\' || c == '"') {
          out += '\\';
          out += c;
        } else if (c == '\n') {
          out += "\\n";
        } else {
          out += c;
        }
      }
    }
    out += '"';
  }
  out += '}';
}

void append_series(std::string& out, const std::string& pname, const char* suffix,
                   const std::string& label_text, double value) {
  out += pname;
  out += suffix;
  out += label_text;
  out += ' ';
  obs::append_metric_value(out, value);
  out += '\n';
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

namespace {

// Label values come from requests (model names, namespaces): past this many
// series a family folds new label sets into one, so that a client cannot
// grow the registry without bound.
constexpr std::size_t kMaxSeriesPerFamily = 1000;

template <typename Map>
const Labels& bounded(Map& family, const Labels& labels, Labels& folded) {
  if (family.size() < kMaxSeriesPerFamily || family.count(labels)) return labels;
  folded = labels;
  for (auto& [k, v] : folded) v = "_other";
  return folded;
}

}  // namespace

obs::Counter& Telemetry::counter_series(const std::string& name, const Labels& labels) {
  std::lock_guard lock(mu_);
  auto& family = counters_[name];
  Labels folded;
  auto& slot = family[bounded(family, labels, folded)];
  if (!slot) slot = std::make_unique<obs::Counter>();
  return *slot;
}

void Telemetry::histogram(const std::string& name, double value, const Labels& labels) {
  std::lock_guard lock(mu_);
  auto& family = histograms_[name];
  Labels folded;
  Summary& s = family[bounded(family, labels, folded)];
  s.count += 1;
  s.sum += value;
}

std::unique_ptr<obs::ScopedSpan> Telemetry::begin_span(const std::string& name,
                                                       obs::SpanKind kind) {
  return std::make_unique<obs::ScopedSpan>(name, kind);
}

void Telemetry::configure(const Config& config) {
  shutdown();
  if (!config.enabled || config.endpoint.empty()) return;
  {
    std::lock_guard lock(cfg_mu_);
    cfg_ = config;
    while (!cfg_.endpoint.empty() && cfg_.endpoint.back() == '/') cfg_.endpoint.pop_back();
    export_stop_ = false;
    pending_spans_.clear();
  }
  obs::set_span_exporter([this](const obs::Span& span) {
    std::lock_guard lock(cfg_mu_);
    if (pending_spans_.size() >= 10000) {
      ++dropped_spans_;  // the collector is not keeping up: the oldest stay
      return;
    }
    pending_spans_.push_back(span);
  });
  export_thread_ = std::thread([this] { export_loop_(); });
  base::Logger("kernel/telemetry")
      .info("telemetry export → " + config.endpoint + " every " +
            std::to_string(config.export_interval_ms) + " ms (OTLP/HTTP JSON)");
}

void Telemetry::shutdown() {
  {
    std::lock_guard lock(cfg_mu_);
    export_stop_ = true;
  }
  export_cv_.notify_all();
  if (export_thread_.joinable()) export_thread_.join();
  obs::set_span_exporter(nullptr);
}

void Telemetry::export_loop_() {
  std::unique_lock lock(cfg_mu_);
  for (;;) {
    const bool stop =
        export_cv_.wait_for(lock, std::chrono::milliseconds(std::max(50, cfg_.export_interval_ms)),
                            [this] { return export_stop_; });
    lock.unlock();
    export_once_();  // also once more on the way out
    lock.lock();
    if (stop) return;
  }
}

namespace {

std::string now_nanos() {
  return std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count());
}

void append_attributes(std::string& out, const Labels& labels) {
  out += "\"attributes\":[";
  bool first = true;
  for (const auto& [k, v] : labels) {
    if (!first) out += ',';
    first = false;
    out += "{\"key\":";
    text::append_json_string(out, k);
    out += ",\"value\":{\"stringValue\":";
    text::append_json_string(out, v);
    out += "}}";
  }
  out += ']';
}

}  // namespace

std::string Telemetry::resource_json_() const {
  std::string out = "\"resource\":{";
  append_attributes(
      out, {{"service.name", cfg_.service_name.empty() ? "ostrel-ulvo" : cfg_.service_name},
            {"service.version", "5.0.0"}});
  return out + "}";
}

std::string Telemetry::metrics_payload() const {
  const std::string now = now_nanos();
  std::string metrics;
  auto point_begin = [&](const Labels& labels) {
    metrics += "{";
    append_attributes(metrics, labels);
    metrics += ",\"timeUnixNano\":\"" + now + "\"";
  };
  auto family_begin = [&](const std::string& name) {
    if (metrics.size() > 0) metrics += ',';
    metrics += "{\"name\":";
    text::append_json_string(metrics, name);
    auto it = help_.find(name);
    if (it != help_.end()) {
      metrics += ",\"description\":";
      text::append_json_string(metrics, it->second);
    }
  };
  {
    std::lock_guard lock(mu_);
    for (const auto& [name, series] : counters_) {
      family_begin(name);
      metrics += ",\"sum\":{\"aggregationTemporality\":2,\"isMonotonic\":true,\"dataPoints\":[";
      bool first = true;
      for (const auto& [labels, c] : series) {
        if (!first) metrics += ',';
        first = false;
        point_begin(labels);
        metrics += ",\"asDouble\":" + obs::format_metric_value(c->value()) + "}";
      }
      metrics += "]}}";
    }
    for (const auto& [name, series] : gauges_) {
      family_begin(name);
      metrics += ",\"gauge\":{\"dataPoints\":[";
      bool first = true;
      for (const auto& [labels, v] : series) {
        if (!first) metrics += ',';
        first = false;
        point_begin(labels);
        metrics += ",\"asDouble\":" + obs::format_metric_value(v) + "}";
      }
      metrics += "]}}";
    }
    for (const auto& [name, series] : histograms_) {
      family_begin(name);
      metrics += ",\"summary\":{\"dataPoints\":[";
      bool first = true;
      for (const auto& [labels, sm] : series) {
        if (!first) metrics += ',';
        first = false;
        point_begin(labels);
        metrics += ",\"count\":\"" + std::to_string(sm.count) +
                   "\",\"sum\":" + obs::format_metric_value(sm.sum) + "}";
      }
      metrics += "]}}";
    }
  }
  std::string out = "{\"resourceMetrics\":[{";
  {
    std::lock_guard lock(cfg_mu_);
    out += resource_json_();
  }
  return out +
         ",\"scopeMetrics\":[{\"scope\":{\"name\":\"ostrel.kernel.telemetry\"},\"metrics\":[" +
         metrics + "]}]}]}";
}

void Telemetry::export_once_() {
  std::vector<obs::Span> spans;
  Config cfg;
  std::string resource;
  {
    std::lock_guard lock(cfg_mu_);
    spans.swap(pending_spans_);
    cfg = cfg_;
    resource = resource_json_();
  }
  base::HttpHeaders headers = {{"Accept", "application/json"}};
  if (!cfg.token.empty()) {
    headers.emplace_back(cfg.endpoint.find("honeycomb.io") != std::string::npos ? "x-honeycomb-team"
                                                                                : "x-otlp-token",
                         cfg.token);
  }
  std::string base, prefix;
  if (!base::split_url(cfg.endpoint, base, prefix)) return;
  if (prefix == "/") prefix.clear();
  base::HttpReply m = base::http_post(base, prefix + "/v1/metrics", metrics_payload(), headers,
                                      std::chrono::seconds(5));
  if (!m.ok()) {
    base::Logger("kernel/telemetry")
        .debug("metrics export failed: " +
               (m.transport_ok ? "http " + std::to_string(m.status) : m.error));
  }
  if (spans.empty()) return;
  static const char* kKinds[] = {"1", "2", "3", "4",
                                 "5"};  // internal, server, client, producer, consumer
  std::string list;
  for (const auto& sp : spans) {
    if (!list.empty()) list += ',';
    list +=
        "{\"traceId\":\"" + sp.context.trace_id + "\",\"spanId\":\"" + sp.context.span_id + "\"";
    if (!sp.context.parent_span_id.empty())
      list += ",\"parentSpanId\":\"" + sp.context.parent_span_id + "\"";
    list += ",\"name\":";
    text::append_json_string(list, sp.name);
    list += ",\"kind\":" + std::string(kKinds[static_cast<int>(sp.kind)]);
    list += ",\"startTimeUnixNano\":\"" + std::to_string(sp.start_us * 1000) +
            "\",\"endTimeUnixNano\":\"" + std::to_string(sp.end_us * 1000) + "\",";
    append_attributes(list, Labels(sp.attributes.begin(), sp.attributes.end()));
    list += ",\"status\":{\"code\":" +
            std::string(sp.status == "ok"      ? "1"
                        : sp.status == "error" ? "2"
                                               : "0") +
            "}}";
  }
  const std::string traces =
      "{\"resourceSpans\":[{" + resource +
      ",\"scopeSpans\":[{\"scope\":{\"name\":\"ostrel.kernel.telemetry\"},\"spans\":[" + list +
      "]}]}]}";
  base::HttpReply t =
      base::http_post(base, prefix + "/v1/traces", traces, headers, std::chrono::seconds(5));
  if (!t.ok()) {
    base::Logger("kernel/telemetry")
        .debug("span export failed: " +
               (t.transport_ok ? "http " + std::to_string(t.status) : t.error));
  }
}

double Telemetry::counter_value(const std::string& name, const Labels& labels) const {
  std::lock_guard lock(mu_);
  auto family = counters_.find(name);
  if (family == counters_.end()) return 0.0;
  auto series = family->second.find(labels);
  return series == family->second.end() ? 0.0 : series->second->value();
}

void Telemetry::gauge(const std::string& name, double value, const Labels& labels) {
  std::lock_guard lock(mu_);
  auto& family = gauges_[name];
  Labels folded;
  family[bounded(family, labels, folded)] = value;
}

void Telemetry::describe(const std::string& name, const std::string& help) {
  std::lock_guard lock(mu_);
  help_[name] = help;
}

std::string Telemetry::to_prometheus() const {
  std::string out;
  std::lock_guard lock(mu_);
  out.reserve(last_render_size_ + last_render_size_ / 8);
  auto header = [&](const std::string& name, const std::string& pname, const char* type) {
    auto it = help_.find(name);
    out += "# HELP ";
    out += pname;
    out += ' ';
    out += it == help_.end() ? "Series " + name + " recorded by the node" : it->second;
    out += "\n# TYPE ";
    out += pname;
    out += type;
  };
  for (const auto& [name, series] : counters_) {
    const std::string pname = prometheus_name(name);
    header(name, pname, " counter\n");
    for (const auto& [labels, counter] : series)
      append_series(out, pname, "", label_text_locked_(labels), counter->value());
  }
  for (const auto& [name, series] : gauges_) {
    const std::string pname = prometheus_name(name);
    header(name, pname, " gauge\n");
    for (const auto& [labels, value] : series)
      append_series(out, pname, "", label_text_locked_(labels), value);
  }
  for (const auto& [name, series] : histograms_) {
    const std::string pname = prometheus_name(name);
    header(name, pname, " summary\n");
    for (const auto& [labels, s] : series) {
      append_series(out, pname, "_sum", label_text_locked_(labels), s.sum);
      append_series(out, pname, "_count", label_text_locked_(labels), static_cast<double>(s.count));
    }
  }
  last_render_size_ = out.size();
  return out;
}

// Series are never removed, so the text of a label set is rendered once and
// kept by the address of its key in the series map.
const std::string& Telemetry::label_text_locked_(const Labels& labels) const {
  auto [it, fresh] = label_text_.try_emplace(&labels);
  if (fresh) append_labels(it->second, labels);
  return it->second;
}

}  // namespace ostrel::kernel::telemetry
