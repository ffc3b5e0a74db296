#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ostrel::obs {

enum class LogLevel : int { trace = 0, debug = 1, info = 2, warn = 3, error = 4, fatal = 5 };

const char* level_name(LogLevel level);  // "TRACE", "DEBUG", …

struct LogRecord {
  std::int64_t ts_us = 0;
  LogLevel level = LogLevel::info;
  std::string source;
  std::string message;
  std::string trace_id;
  std::string span_id;
  std::map<std::string, std::string> attrs;
};

using LogSink = std::function<void(const LogRecord&)>;

// The process-wide structured log facility: records below the threshold are
// dropped, the rest go to every sink in order. It starts with the human-readable
// stderr sink (and the JSON-lines sink when OSTREL_LOG_TO_STDERR starts with "1");
// the entry point replaces them with the kernel's stamping dispatcher.
// Thread-safe: sinks_mu_ guards the sink list; sinks run after it is released.
class Logger {
 public:
  static Logger& instance();

  void clear_sinks();
  // Returns an id for remove_sink().
  std::uint64_t add_sink(LogSink sink);
  void remove_sink(std::uint64_t id);
  void set_threshold(LogLevel level);
  LogLevel threshold() const;
  bool enabled(LogLevel level) const;
  void emit(LogRecord record);

 private:
  Logger();
  mutable std::mutex sinks_mu_;  // guards sinks_ and next_sink_id_
  std::vector<std::pair<std::uint64_t, std::shared_ptr<const LogSink>>> sinks_;
  std::uint64_t next_sink_id_ = 1;
  std::atomic<int> threshold_{static_cast<int>(LogLevel::info)};
};

// The one mutex every line written to standard error goes under.
std::mutex& stderr_mutex();

// "[LEVEL][source] message", plus " trace_id=<id> span_id=<id>" when the record
// carries a trace. Writes one line to stderr under stderr_mutex().
void stamping_dispatcher(const LogRecord& record);

// One JSON object per line: ts_us, level, source, message, trace_id, span_id, attrs.
void json_stderr_sink(const LogRecord& record);
std::string log_record_json(const LogRecord& record);

std::int64_t now_us();

}  // namespace ostrel::obs
