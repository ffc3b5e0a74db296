#include "base/log.h"

#include "base/env.h"
#include "base/text.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ostrel::obs {

const char* level_name(LogLevel level) {
  static constexpr const char* kNames[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  return text::enum_name(level, kNames, "INFO");
}

std::int64_t now_us() {
  using namespace std::chrono;
  return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

std::mutex& stderr_mutex() {
  static std::mutex mu;
  return mu;
}

Logger& Logger::instance() {
  static Logger logger;
  return logger;
}

Logger::Logger() {
  add_sink(stamping_dispatcher);
  if (base::env::text("OSTREL_LOG_TO_STDERR").rfind('1', 0) == 0) add_sink(json_stderr_sink);
}

void Logger::clear_sinks() {
  std::lock_guard lock(sinks_mu_);
  sinks_.clear();
}

std::uint64_t Logger::add_sink(LogSink sink) {
  std::lock_guard lock(sinks_mu_);
  std::uint64_t id = next_sink_id_++;
  sinks_.emplace_back(id, std::make_shared<const LogSink>(std::move(sink)));
  return id;
}

void Logger::remove_sink(std::uint64_t id) {
  std::lock_guard lock(sinks_mu_);
  std::erase_if(sinks_, [id](const auto& entry) { return entry.first == id; });
}

void Logger::set_threshold(LogLevel level) {
  threshold_.store(static_cast<int>(level), std::memory_order_relaxed);
}

LogLevel Logger::threshold() const {
  return static_cast<LogLevel>(threshold_.load(std::memory_order_relaxed));
}

bool Logger::enabled(LogLevel level) const {
  return static_cast<int>(level) >= threshold_.load(std::memory_order_relaxed);
}

void Logger::emit(LogRecord record) {
  if (!enabled(record.level)) return;
  std::vector<std::shared_ptr<const LogSink>> sinks;
  {
    std::lock_guard lock(sinks_mu_);
    sinks.reserve(sinks_.size());
    for (const auto& entry : sinks_) sinks.push_back(entry.second);
  }
  for (const auto& sink : sinks) (*sink)(record);
}

void stamping_dispatcher(const LogRecord& r) {
  std::string line;
  line.reserve(r.message.size() + r.source.size() + 80);
  line += '[';
  line += level_name(r.level);
  line += "][";
  line += r.source;
  line += "] ";
  line += r.message;
  if (!r.trace_id.empty()) {
    line += " trace_id=";
    line += r.trace_id;
    line += " span_id=";
    line += r.span_id;
  }
  line += '\n';
  std::lock_guard lock(stderr_mutex());
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

std::string log_record_json(const LogRecord& r) {
  std::string out = "{\"ts_us\":" + std::to_string(r.ts_us) + ",\"level\":";
  text::append_json_string(out, level_name(r.level));
  out += ",\"source\":";
  text::append_json_string(out, r.source);
  out += ",\"message\":";
  text::append_json_string(out, r.message);
  out += ",\"trace_id\":";
  text::append_json_string(out, r.trace_id);
  out += ",\"span_id\":";
  text::append_json_string(out, r.span_id);
  out += ",\"attrs\":";
  text::append_json_string_map(out, r.attrs);
  out += '}';
  return out;
}

void json_stderr_sink(const LogRecord& r) {
  std::string line = log_record_json(r) + "\n";
  std::lock_guard lock(stderr_mutex());
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace ostrel::obs
