#pragma once

#include <ctime>
#include <string>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace ostrel::base {

namespace detail {
// Added to the system clock; moved only by tests (advance_clock_for_tests).
inline std::atomic<std::int64_t> clock_offset_ms{0};
}  // namespace detail

// The wall clock the node reads for token lifetimes, journal stamps and
// expiry. It is the system clock, shifted by what tests added, so that a
// test of an expiry moves the clock instead of sleeping.
inline std::chrono::system_clock::time_point now() {
  return std::chrono::system_clock::now() +
         std::chrono::milliseconds(detail::clock_offset_ms.load(std::memory_order_relaxed));
}

// For tests only: moves the node's clock forward.
inline void advance_clock_for_tests(std::chrono::milliseconds by) {
  detail::clock_offset_ms.fetch_add(by.count());
}

// Wall-clock time since the Unix epoch.
inline std::int64_t unix_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(now().time_since_epoch()).count();
}

inline std::int64_t unix_s(std::chrono::system_clock::time_point t = now()) {
  return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
}

// "%Y-%m-%dT%H:%M:%SZ" (UTC) of a Unix second, now by default.
inline std::string utc_text(std::int64_t unix_seconds = unix_s()) {
  std::time_t t = static_cast<std::time_t>(unix_seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

}  // namespace ostrel::base
