#include "inference/session_store.h"

namespace ostrel::inference {

void SessionStore::append(const std::string& id, const std::vector<Message>& messages,
                          Clock::time_point now) {
  std::lock_guard lock(mu_);
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

std::size_t SessionStore::size() const {
  std::lock_guard lock(mu_);
  return sessions_.size();
}

}  // namespace ostrel::inference
