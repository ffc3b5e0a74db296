#include "inference/session_store.h"

namespace ostrel::inference {

std::size_t SessionStore::message_bytes(const Message& m) {
  return 64 + m.role.size() + m.content.size() + m.name.size() + m.tool_call_id.size();
}

void SessionStore::trim_locked_(Entry& e) {
  std::size_t drop = 0, freed = 0;
  const std::size_t n = e.history.size();
  while (drop < n && (n - drop > max_history_ || e.bytes - freed > max_session_bytes_)) {
    freed += message_bytes(e.history[drop]);
    ++drop;
  }
  if (drop == 0) return;
  e.history.erase(e.history.begin(), e.history.begin() + static_cast<std::ptrdiff_t>(drop));
  e.bytes -= freed;
  total_bytes_ -= freed;
}

void SessionStore::append(const std::string& id, std::vector<Message> messages,
                          Clock::time_point now) {
  std::lock_guard lock(mu_);
  auto it = sessions_.find(id);
  if (it == sessions_.end()) {
    drop_expired_locked_(now);
    if (sessions_.size() >= max_sessions_ && !by_use_.empty()) {
      erase_locked_(sessions_.find(*by_use_.front()));
    }
    it = sessions_.try_emplace(id).first;
    by_use_.push_back(&it->first);
    it->second.use = std::prev(by_use_.end());
  } else {
    by_use_.splice(by_use_.end(), by_use_, it->second.use);
    // Idle for too long: the same id starts a new history.
    if (now - it->second.last_use > ttl_) {
      total_bytes_ -= it->second.bytes;
      it->second.bytes = 0;
      it->second.history.clear();
    }
  }
  Entry& e = it->second;
  e.last_use = now;
  for (Message& m : messages) {
    const std::size_t b = message_bytes(m);
    e.history.push_back(std::move(m));
    e.bytes += b;
    total_bytes_ += b;
  }
  trim_locked_(e);
  // Over the store's bound: the least recently used sessions go (never the
  // one just written, which is the most recent).
  while (total_bytes_ > max_bytes_ && by_use_.size() > 1) {
    erase_locked_(sessions_.find(*by_use_.front()));
  }
}

std::size_t SessionStore::bytes() const {
  std::lock_guard lock(mu_);
  return total_bytes_;
}

std::shared_ptr<const Session> SessionStore::get(const std::string& id, Clock::time_point now) {
  std::lock_guard lock(mu_);
  auto it = sessions_.find(id);
  if (it == sessions_.end()) return nullptr;
  if (now - it->second.last_use > ttl_) {
    erase_locked_(it);
    return nullptr;
  }
  return std::make_shared<const Session>(Session{id, it->second.history, it->second.last_use});
}

std::size_t SessionStore::sweep(Clock::time_point now) {
  std::lock_guard lock(mu_);
  return drop_expired_locked_(now);
}

void SessionStore::erase_locked_(std::unordered_map<std::string, Entry>::iterator it) {
  if (it == sessions_.end()) return;
  total_bytes_ -= it->second.bytes;
  by_use_.erase(it->second.use);
  sessions_.erase(it);
}

// The least recently used sessions come first: expired ones are a prefix.
std::size_t SessionStore::drop_expired_locked_(Clock::time_point now) {
  std::size_t dropped = 0;
  while (!by_use_.empty()) {
    auto it = sessions_.find(*by_use_.front());
    if (it != sessions_.end() && now - it->second.last_use <= ttl_) break;
    if (it == sessions_.end()) by_use_.pop_front();  // cannot happen: keys leave together
    erase_locked_(it);
    ++dropped;
  }
  return dropped;
}

std::size_t SessionStore::size() const {
  std::lock_guard lock(mu_);
  return sessions_.size();
}

}  // namespace ostrel::inference
