#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ostrel::identity {

// Slows password guessing: after `free_attempts` failed logins of one key
// (a user name, or a client address) with no quiet window between them, each further attempt
// must wait twice as long as the one before (1 s, 2 s, 4 s, … up to
// `max_wait`); a success clears the key. Checked before the password is.
// Thread-safe: mu_ guards the table, which is bounded (stale entries are
// dropped first, then the oldest).
class LoginThrottle {
 public:
  struct Settings {
    int free_attempts = 5;
    std::chrono::seconds window{900};
    std::chrono::seconds max_wait{900};
    std::size_t max_keys = 100000;
  };
  LoginThrottle() = default;
  explicit LoginThrottle(Settings s) : s_(s) {}

  // Seconds the key must still wait before another attempt (0: go ahead).
  std::int64_t wait_seconds(const std::string& key);
  void failed(const std::string& key);
  void succeeded(const std::string& key);

 private:
  struct Entry {
    int failures = 0;
    std::int64_t last_ms = 0;  // of the latest failure
    std::int64_t next_allowed_ms = 0;
  };
  static std::int64_t quiet_since(const Entry& e);
  void prune_locked_(std::int64_t now_ms);

  Settings s_;
  std::mutex mu_;
  std::unordered_map<std::string, Entry> entries_;
};

}  // namespace ostrel::identity
