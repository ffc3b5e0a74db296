#include "base/logger.h"

#include "base/trace.h"

namespace ostrel::base {

void Logger::log(obs::LogLevel level, const std::string& message) const {
  obs::Logger& facility = obs::Logger::instance();
  if (!facility.enabled(level)) return;
  obs::LogRecord record;
  record.ts_us = obs::now_us();
  record.level = level;
  record.source = tag_;
  record.message = message;
  if (const obs::SpanContext* ctx = obs::current_context()) {
    record.trace_id = ctx->trace_id;
    record.span_id = ctx->span_id;
  }
  facility.emit(std::move(record));
}

}  // namespace ostrel::base
