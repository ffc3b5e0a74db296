#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ostrel::identity {

// Slows password guessing: once a key (a user name, or a client address) has
// failed `free_attempts` times with no quiet window between them, each
// further attempt must wait twice as long as the one before (1 s, 2 s, 4 s,
// … up to `max_wait`); a success clears the key. Checked before the password
// is. The same class limits other things a stranger may repeat cheaply
// (password-reset requests): each try counts as a failure.
// Thread-safe: mu_ guards the table. The table is bounded: a new key evicts
// the key whose last failure is the oldest, in constant time, so a flood of
// junk keys costs the same per attempt as a quiet node.
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
  std::size_t size() const;

 private:
  struct Entry {
    std::string key;
    int failures = 0;
    std::int64_t last_ms = 0;  // of the latest failure
    std::int64_t next_allowed_ms = 0;
  };
  using Order = std::list<Entry>;  // oldest failure first
  static std::int64_t quiet_since(const Entry& e);

  Settings s_;
  mutable std::mutex mu_;  // guards order_ and index_
  Order order_;
  std::unordered_map<std::string, Order::iterator> index_;
};

}  // namespace ostrel::identity
