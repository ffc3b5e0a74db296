#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "inference/types.h"

namespace ostrel::inference {

// One conversation's history, appended under the store's mutex.
struct Session {
  std::string id;
  std::vector<Message> history;
  std::chrono::steady_clock::time_point last_use;
};

// Conversation histories by session id. A session idle for longer than the
// TTL is dropped; the same id later starts a new, empty history. Histories
// keep their newest `max_history` messages and at most `max_session_bytes`
// of text; at most `max_sessions` sessions and `max_bytes` of text in all
// are kept: beyond that the least recently used sessions go. Sessions
// are kept in order of use, so expiry and eviction take constant time per
// session dropped and never pause the requests behind the mutex.
// Thread-safe: mu_ guards the map, the use order and every session's contents.
class SessionStore {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kDefaultMaxBytes = 128u << 20;
  static constexpr std::size_t kDefaultMaxSessionBytes = 4u << 20;

  explicit SessionStore(std::chrono::seconds idle_ttl = std::chrono::seconds(3600),
                        std::size_t max_history = 1000, std::size_t max_sessions = 100000,
                        std::size_t max_bytes = kDefaultMaxBytes,
                        std::size_t max_session_bytes = kDefaultMaxSessionBytes)
      : ttl_(idle_ttl),
        max_history_(max_history),
        max_sessions_(max_sessions),
        max_bytes_(max_bytes),
        max_session_bytes_(max_session_bytes) {}

  // Touches (creating when absent or expired) and appends the messages.
  void append(const std::string& id, std::vector<Message> messages,
              Clock::time_point now = Clock::now());
  // A copy of the session, or nullptr when absent or expired.
  std::shared_ptr<const Session> get(const std::string& id, Clock::time_point now = Clock::now());
  // Drops every expired session; returns how many.
  std::size_t sweep(Clock::time_point now = Clock::now());
  std::size_t size() const;
  // Bytes of message text held in all sessions.
  std::size_t bytes() const;

  // The most message text one session keeps.
  std::size_t max_session_bytes() const { return max_session_bytes_; }
  // What one message costs in the byte bounds.
  static std::size_t message_bytes(const Message& m);

 private:
  std::chrono::seconds ttl_;
  std::size_t max_history_;
  std::size_t max_sessions_;
  std::size_t max_bytes_;
  std::size_t max_session_bytes_;
  // A session's history and last use; its id is the map's key.
  struct Entry {
    std::vector<Message> history;
    std::size_t bytes = 0;  // message_bytes() of the history
    Clock::time_point last_use;
    std::list<const std::string*>::iterator use;  // its place in by_use_
  };
  void erase_locked_(std::unordered_map<std::string, Entry>::iterator it);
  std::size_t drop_expired_locked_(Clock::time_point now);

  void trim_locked_(Entry& e);

  mutable std::mutex mu_;  // guards sessions_, by_use_, total_bytes_ and the sessions' contents
  std::size_t total_bytes_ = 0;
  std::unordered_map<std::string, Entry> sessions_;
  // The keys of sessions_ (stable: map nodes never move), least recently used
  // first.
  std::list<const std::string*> by_use_;
};

}  // namespace ostrel::inference
