#include "inference/session_store.h"

#include <algorithm>

namespace ostrel::inference {

void SessionStore::append(const std::string& id, const std::vector<Message>& messages,
                          Clock::time_point now) {
  std::lock_guard lock(mu_);
  if (sessions_.size() >= max_sessions_ && !sessions_.count(id)) evict_locked_(now);
  auto& slot = sessions_[id];
  if (!slot || now - slot->last_use > ttl_) {
    slot = std::make_shared<Session>();
    slot->id = id;
  }
  slot->last_use = now;
  slot->history.insert(slot->history.end(), messages.begin(), messages.end());
  if (slot->history.size() > max_history_) {
    slot->history.erase(
        slot->history.begin(),
        slot->history.begin() + static_cast<std::ptrdiff_t>(slot->history.size() - max_history_));
  }
}

std::shared_ptr<const Session> SessionStore::get(const std::string& id, Clock::time_point now) {
  std::lock_guard lock(mu_);
  auto it = sessions_.find(id);
  if (it == sessions_.end()) return nullptr;
  if (now - it->second->last_use > ttl_) {
    sessions_.erase(it);
    return nullptr;
  }
  return std::make_shared<const Session>(*it->second);
}

std::size_t SessionStore::sweep(Clock::time_point now) {
  std::lock_guard lock(mu_);
  return std::erase_if(sessions_, [&](const auto& e) { return now - e.second->last_use > ttl_; });
}

void SessionStore::evict_locked_(Clock::time_point now) {
  std::erase_if(sessions_, [&](const auto& e) { return now - e.second->last_use > ttl_; });
  if (sessions_.size() < max_sessions_) return;
  // Still full: drop the least recently used tenth in one pass.
  std::vector<Clock::time_point> uses;
  uses.reserve(sessions_.size());
  for (const auto& [id, s] : sessions_) uses.push_back(s->last_use);
  auto cut = uses.begin() + static_cast<std::ptrdiff_t>(uses.size() / 10);
  std::nth_element(uses.begin(), cut, uses.end());
  const Clock::time_point threshold = *cut;
  std::erase_if(sessions_, [&](const auto& e) { return e.second->last_use <= threshold; });
}

std::size_t SessionStore::size() const {
  std::lock_guard lock(mu_);
  return sessions_.size();
}

}  // namespace ostrel::inference
