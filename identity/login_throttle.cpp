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
  auto it = index_.find(key);
  if (it == index_.end()) return 0;
  const Entry& e = *it->second;
  if (now - quiet_since(e) > std::chrono::milliseconds(s_.window).count()) {
    order_.erase(it->second);
    index_.erase(it);
    return 0;
  }
  const std::int64_t wait = e.next_allowed_ms - now;
  return wait > 0 ? (wait + 999) / 1000 : 0;
}

void LoginThrottle::failed(const std::string& key) {
  const std::int64_t now = base::unix_ms();
  std::lock_guard lock(mu_);
  auto it = index_.find(key);
  if (it == index_.end()) {
    // Room is made only for a new key, never by dropping the one being
    // counted: the key failed longest ago goes.
    while (!order_.empty() && order_.size() >= s_.max_keys) {
      index_.erase(order_.front().key);
      order_.pop_front();
    }
    order_.push_back(Entry{key, 0, now, 0});
    it = index_.emplace(key, std::prev(order_.end())).first;
  } else {
    order_.splice(order_.end(), order_, it->second);  // now the newest
  }
  Entry& e = *it->second;
  if (e.failures == 0 || now - quiet_since(e) > std::chrono::milliseconds(s_.window).count()) {
    e.failures = 0;
    e.next_allowed_ms = 0;
  }
  e.last_ms = now;
  ++e.failures;
  // The attempt after the last free one already waits.
  const int over = e.failures - s_.free_attempts;
  if (over >= 0) {
    const std::int64_t wait_ms = std::min<std::int64_t>(
        1000LL << std::min(over, 20), std::chrono::milliseconds(s_.max_wait).count());
    e.next_allowed_ms = now + wait_ms;
  }
}

void LoginThrottle::succeeded(const std::string& key) {
  std::lock_guard lock(mu_);
  auto it = index_.find(key);
  if (it == index_.end()) return;
  order_.erase(it->second);
  index_.erase(it);
}

std::size_t LoginThrottle::size() const {
  std::lock_guard lock(mu_);
  return index_.size();
}

}  // namespace ostrel::identity
