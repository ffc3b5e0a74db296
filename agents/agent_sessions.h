#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/logger.h"

namespace ostrel::agents {

struct Message {
  std::string role;  // "user", "assistant" or "system"
  std::string content;
  std::int64_t ts = 0;  // Unix ms
};

// One conversation. The identity fields never change; mu guards the rest
// and serialises the session's journal appends, so the journal holds the
// turns in the order of `messages`.
struct Session {
  std::string session_id;
  std::string tenant;
  std::string owner;
  std::int64_t created_ms = 0;

  mutable std::mutex mu;
  std::string agent_type;
  std::string domain;
  std::vector<Message> messages;
  std::string delegation_msg;
  std::string original_owner;
};

// The live sessions and their journals, "<dir>/<session_id>.jsonl": a
// header line, then one line per turn, appended and never rewritten. Every
// journal is read back at start, so sessions outlive the process.
// Thread-safe: mu_ guards the map; each session's own mutex its turns.
class AgentSessions {
 public:
  AgentSessions(std::filesystem::path dir, base::Logger log);

  // Reads every journal in the directory; returns the number of sessions.
  // A journal whose last line was torn by a crash keeps every complete turn.
  std::size_t load();

  // A new session with a fresh id; its header is written at once.
  std::shared_ptr<Session> create(const std::string& agent_type, const std::string& domain,
                                  const std::string& tenant, const std::string& owner);
  std::shared_ptr<Session> find(const std::string& id) const;
  // Forgets the session and deletes its journal; false when unknown.
  bool remove(const std::string& id);
  // Sessions of `tenant` (every session when empty), oldest first.
  std::vector<std::shared_ptr<Session>> list(const std::string& tenant) const;
  std::size_t size() const;

  // Appends a turn to the session's journal (one line) and then to the
  // session, under the session's mutex, and returns the last `window`
  // messages (all when 0) as they stand after the append. Nothing when the
  // journal could not take the line: the turn is then not kept at all.
  std::optional<std::vector<Message>> append(Session& s, const std::string& role,
                                             const std::string& content, std::size_t window);
  // The same without handing turns back; false when the turn was not kept.
  bool record(Session& s, const std::string& role, const std::string& content);
  // Records that the session now talks to another agent type.
  void switch_agent(Session& s, const std::string& agent_type);

  const std::filesystem::path& dir() const { return dir_; }
  std::filesystem::path path_of(const std::string& id) const { return dir_ / (id + ".jsonl"); }

  // prefix + 16 hexadecimal digits from one generator seeded once.
  static std::string new_id(const std::string& prefix);

 private:
  bool write_line_(const std::string& id, const std::string& line, bool create);

  std::filesystem::path dir_;
  base::Logger log_;
  mutable std::mutex mu_;  // guards sessions_ and order_
  std::unordered_map<std::string, std::shared_ptr<Session>> sessions_;
  std::vector<std::string> order_;  // ids in creation order
};

}  // namespace ostrel::agents
