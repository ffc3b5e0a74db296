#include "identity/login_throttle.h"

#include <algorithm>

#include "base/clock.h"

namespace ostrel::identity {

// A key is forgotten only after a whole window without failures that began
// once its last wait was over, so waiting out the longest wait never resets
// the count by itself.
std::int64_t LoginThrottle::quiet_since(const Entry& e) {
  return std::max(e.last_ms, e.next_allowed_ms);
}

std::int64_t LoginThrottle::wait_seconds(const std::string& key) {
  const std::int64_t now = base::unix_ms();
  std::lock_guard lock(mu_);
  auto it = entries_.find(key);
  if (it == entries_.end()) return 0;
  if (now - quiet_since(it->second) > std::chrono::milliseconds(s_.window).count()) {
    entries_.erase(it);
    return 0;
  }
  const std::int64_t wait = it->second.next_allowed_ms - now;
  return wait > 0 ? (wait + 999) / 1000 : 0;
}

void LoginThrottle::failed(const std::string& key) {
  const std::int64_t now = base::unix_ms();
  std::lock_guard lock(mu_);
  // Room is made only for a new key, never by dropping the one being counted.
  if (entries_.size() >= s_.max_keys && !entries_.count(key)) prune_locked_(now);
  Entry& e = entries_[key];
  if (e.failures == 0 || now - quiet_since(e) > std::chrono::milliseconds(s_.window).count()) {
    e = {0, now, 0};
  }
  e.last_ms = now;
  ++e.failures;
  const int over = e.failures - s_.free_attempts;
  if (over > 0) {
    const std::int64_t wait_ms = std::min<std::int64_t>(
        1000LL << std::min(over - 1, 20), std::chrono::milliseconds(s_.max_wait).count());
    e.next_allowed_ms = now + wait_ms;
  }
}

void LoginThrottle::succeeded(const std::string& key) {
  std::lock_guard lock(mu_);
  entries_.erase(key);
}

void LoginThrottle::prune_locked_(std::int64_t now_ms) {
  const std::int64_t window = std::chrono::milliseconds(s_.window).count();
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (now_ms - quiet_since(it->second) > window) {
      it = entries_.erase(it);
    } else {
      ++it;
    }
  }
  while (entries_.size() >= s_.max_keys) {
    auto oldest = std::min_element(
        entries_.begin(), entries_.end(),
        [](const auto& a, const auto& b) { return a.second.last_ms < b.second.last_ms; });
    entries_.erase(oldest);
  }
}

}  // namespace ostrel::identity
