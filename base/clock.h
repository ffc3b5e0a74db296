#pragma once

#include <chrono>
#include <cstdint>

namespace ostrel::base {

// Wall-clock time since the Unix epoch.
inline std::int64_t unix_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

inline std::int64_t unix_s(
    std::chrono::system_clock::time_point t = std::chrono::system_clock::now()) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

}  // namespace ostrel::base
