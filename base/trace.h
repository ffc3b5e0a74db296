#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/no_copy.h"

namespace ostrel::obs {

// W3C trace context of one span: ids in lower-case hex (32 and 16 digits).
struct SpanContext {
  std::string trace_id;
  std::string span_id;
  std::string parent_span_id;
  std::uint8_t flags = 1;  // sampled

  bool valid() const { return trace_id.size() == 32 && span_id.size() == 16; }
};

enum class SpanKind { internal, server, client, producer, consumer };

struct Span {
  std::string name;
  SpanKind kind = SpanKind::internal;
  SpanContext context;
  std::int64_t start_us = 0;
  std::int64_t end_us = 0;
  std::string status = "unset";  // "ok", "error" or "unset"
  std::map<std::string, std::string> attributes;
};

// Parses "00-<32 hex>-<16 hex>-<2 hex>"; the result's span_id is the caller's
// span (the parent of whatever span is started from it).
std::optional<SpanContext> parse_traceparent(std::string_view header);
std::string format_traceparent(const SpanContext& ctx);

// Random non-zero ids from a per-thread generator.
std::string new_trace_id();
std::string new_span_id();

// The calling thread's current trace context, or nullptr.
const SpanContext* current_context();

// Makes a context current on this thread for the life of the scope and
// restores the previous one afterwards.
class ScopedTraceContext : private base::NoCopy {
 public:
  explicit ScopedTraceContext(const SpanContext* ctx);
  ~ScopedTraceContext();

 private:
  const SpanContext* previous_;
};

// A span that is current on its thread while it lives and is finished (and
// handed to the tracer's sinks) when it ends. Not shared between threads.
class ScopedSpan : private base::NoCopy {
 public:
  // Child of `parent` when given and valid, else of the thread's current
  // context, else the root of a new trace.
  ScopedSpan(std::string name, SpanKind kind, const SpanContext* parent = nullptr);
  ~ScopedSpan();

  // Kept only when spans_recorded().
  void set_attribute(const std::string& key, std::string value);
  void set_status(std::string status) { span_.status = std::move(status); }
  const SpanContext& context() const { return span_.context; }
  void end();

 private:
  Span span_;
  const SpanContext* previous_;
  bool ended_ = false;
};

// JSON line written by the OSTREL_TRACE_TO_STDERR sink.
std::string span_json(const Span& span);

// Whether finished spans go anywhere (OSTREL_TRACE_TO_STDERR, or an
// exporter). When they do not, a span keeps only its context (ids for
// propagation) and drops its attributes, which nothing would read.
bool spans_recorded();

// Hands every finished span to `exporter` from now on (null: no longer).
// Set before requests start, cleared after they end.
void set_span_exporter(std::function<void(const Span&)> exporter);

}  // namespace ostrel::obs
