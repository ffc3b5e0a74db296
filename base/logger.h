#pragma once

#include <string>

#include "base/log.h"

namespace ostrel::base {

// A tagged logger: every line reads "[LEVEL][tag] message". The kernel's tag is
// "kernel"; with_tag("data") gives "kernel/data". Lines go through the
// process-wide structured log facility, so the current trace is stamped on them.
// Thread-safe: it holds only its tag.
class Logger {
 public:
  explicit Logger(std::string tag) : tag_(std::move(tag)) {}

  Logger with_tag(const std::string& child) const { return Logger(tag_ + "/" + child); }
  const std::string& tag() const { return tag_; }

  void log(obs::LogLevel level, const std::string& message) const;
  void debug(const std::string& m) const { log(obs::LogLevel::debug, m); }
  void info(const std::string& m) const { log(obs::LogLevel::info, m); }
  void warn(const std::string& m) const { log(obs::LogLevel::warn, m); }
  void error(const std::string& m) const { log(obs::LogLevel::error, m); }

 private:
  std::string tag_;
};

}  // namespace ostrel::base
