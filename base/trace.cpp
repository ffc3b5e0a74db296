#include "base/trace.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "base/env.h"
#include "base/log.h"
#include "base/text.h"

namespace ostrel::obs {
namespace {

thread_local const SpanContext* t_current = nullptr;

// splitmix64: fast, good enough for trace ids, seeded once per thread.
std::uint64_t next_random() {
  thread_local std::uint64_t state = [] {
    std::random_device rd;
    return (static_cast<std::uint64_t>(rd()) << 32) ^ rd();
  }();
  std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

void append_hex64(std::string& out, std::uint64_t v) {
  static const char* digits = "0123456789abcdef";
  for (int shift = 60; shift >= 0; shift -= 4) out += digits[(v >> shift) & 0xf];
}

bool is_lower_hex(std::string_view s) {
  for (char c : s) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

bool all_zero(std::string_view s) { return s.find_first_not_of('0') == std::string_view::npos; }

}  // namespace

namespace {
bool stderr_spans() {
  static const bool on = [] {
    return base::env::is_set("OSTREL_TRACE_TO_STDERR") &&
           base::env::text("OSTREL_TRACE_TO_STDERR") != "0";
  }();
  return on;
}
std::atomic<bool> g_exporting{false};
std::function<void(const Span&)>& exporter_slot() {
  static std::function<void(const Span&)> f;  // written only while no request runs
  return f;
}
}  // namespace

bool spans_recorded() { return stderr_spans() || g_exporting.load(std::memory_order_relaxed); }

void set_span_exporter(std::function<void(const Span&)> exporter) {
  g_exporting = false;
  exporter_slot() = std::move(exporter);
  g_exporting = static_cast<bool>(exporter_slot());
}

std::optional<SpanContext> parse_traceparent(std::string_view h) {
  // version(2) - trace id(32) - parent id(16) - flags(2)
  if (h.size() < 55 || h[2] != '-' || h[35] != '-' || h[52] != '-') return std::nullopt;
  std::string_view version = h.substr(0, 2), trace = h.substr(3, 32), span = h.substr(36, 16),
                   flags = h.substr(53, 2);
  if (!is_lower_hex(version) || version == "ff" || !is_lower_hex(trace) || !is_lower_hex(span) ||
      !is_lower_hex(flags) || all_zero(trace) || all_zero(span)) {
    return std::nullopt;
  }
  if (version == "00" && h.size() != 55) return std::nullopt;
  SpanContext ctx;
  ctx.trace_id = std::string(trace);
  ctx.span_id = std::string(span);
  ctx.flags = static_cast<std::uint8_t>(std::strtoul(std::string(flags).c_str(), nullptr, 16));
  return ctx;
}

std::string format_traceparent(const SpanContext& ctx) {
  char flags[3];
  std::snprintf(flags, sizeof flags, "%02x", ctx.flags);
  return "00-" + ctx.trace_id + "-" + ctx.span_id + "-" + flags;
}

std::string new_trace_id() {
  std::string id;
  id.reserve(32);
  std::uint64_t hi = next_random(), lo = next_random();
  if (hi == 0 && lo == 0) lo = 1;
  append_hex64(id, hi);
  append_hex64(id, lo);
  return id;
}

std::string new_span_id() {
  std::string id;
  id.reserve(16);
  std::uint64_t v = next_random();
  append_hex64(id, v ? v : 1);
  return id;
}

const SpanContext* current_context() { return t_current; }

ScopedTraceContext::ScopedTraceContext(const SpanContext* ctx) : previous_(t_current) {
  t_current = ctx;
}

ScopedTraceContext::~ScopedTraceContext() { t_current = previous_; }

ScopedSpan::ScopedSpan(std::string name, SpanKind kind, const SpanContext* parent)
    : previous_(t_current) {
  span_.name = std::move(name);
  span_.kind = kind;
  if (!parent || !parent->valid()) parent = t_current;
  if (parent && parent->valid()) {
    span_.context.trace_id = parent->trace_id;
    span_.context.parent_span_id = parent->span_id;
    span_.context.flags = parent->flags;
  } else {
    span_.context.trace_id = new_trace_id();
  }
  span_.context.span_id = new_span_id();
  span_.start_us = now_us();
  t_current = &span_.context;
}

ScopedSpan::~ScopedSpan() { end(); }

void ScopedSpan::set_attribute(const std::string& key, std::string value) {
  if (spans_recorded()) span_.attributes[key] = std::move(value);
}

void ScopedSpan::end() {
  if (ended_) return;
  ended_ = true;
  span_.end_us = now_us();
  if (t_current == &span_.context) t_current = previous_;
  if (stderr_spans()) {
    std::string line = span_json(span_) + "\n";
    std::lock_guard lock(stderr_mutex());
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
  }
  if (g_exporting.load(std::memory_order_relaxed)) exporter_slot()(span_);
}

std::string span_json(const Span& s) {
  std::string out = "{\"trace_id\":";
  text::append_json_string(out, s.context.trace_id);
  out += ",\"span_id\":";
  text::append_json_string(out, s.context.span_id);
  out += ",\"parent_span_id\":";
  text::append_json_string(out, s.context.parent_span_id);
  out += ",\"name\":";
  text::append_json_string(out, s.name);
  out += ",\"start_us\":" + std::to_string(s.start_us);
  out += ",\"end_us\":" + std::to_string(s.end_us);
  out += ",\"duration_us\":" + std::to_string(s.end_us - s.start_us);
  out += ",\"status\":";
  text::append_json_string(out, s.status);
  out += ",\"attributes\":";
  text::append_json_string_map(out, s.attributes);
  out += '}';
  return out;
}

}  // namespace ostrel::obs
