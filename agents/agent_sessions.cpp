#include "agents/agent_sessions.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "base/clock.h"
#include "base/json.h"
#include "base/names.h"
#include "base/text.h"

namespace ostrel::agents {

using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

std::string turn_line(const Message& m) {
  std::string line = "{\"role\":";
  text::append_json_string(line, m.role);
  line += ",\"content\":";
  text::append_json_string(line, m.content);
  line += ",\"ts\":" + std::to_string(m.ts) + "}\n";
  return line;
}

}  // namespace

AgentSessions::AgentSessions(fs::path dir, base::Logger log)
    : dir_(std::move(dir)), log_(std::move(log)) {}

std::string AgentSessions::new_id(const std::string& prefix) {
  static std::mutex mu;  // guards rng
  static std::mt19937_64 rng(std::random_device{}());
  std::uint64_t v;
  {
    std::lock_guard lock(mu);
    v = rng();
  }
  char buf[24];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(v));
  return prefix + buf;
}

bool AgentSessions::write_line_(const std::string& id, const std::string& line, bool create) {
  const fs::path path = path_of(id);
  // A deleted session's journal is not brought back by a late turn.
  const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | (create ? O_CREAT | O_EXCL : 0);
  const int fd = ::open(path.c_str(), flags, 0600);
  if (fd < 0) return false;
  const ssize_t w = ::write(fd, line.data(), line.size());
  ::close(fd);
  return w == static_cast<ssize_t>(line.size());
}

std::size_t AgentSessions::load() {
  std::error_code ec;
  std::vector<fs::path> files;
  for (fs::directory_iterator it(dir_, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().extension() == ".jsonl") files.push_back(it->path());
  }
  std::vector<std::shared_ptr<Session>> loaded;
  for (const auto& f : files) {
    std::ifstream in(f, std::ios::binary);
    std::string line;
    if (!std::getline(in, line)) continue;
    Json header = base::parse_json(line);
    std::string why;
    if (!header.is_object() || header.value("_type", "") != "header" ||
        !header.contains("session_id") || !header["session_id"].is_string() ||
        header["session_id"] != f.stem().string() || !base::safe_name(f.stem().string(), why)) {
      log_.warn("skipping session journal " + f.filename().string() + ": no valid header");
      continue;
    }
    auto s = std::make_shared<Session>();
    s->session_id = header["session_id"];
    s->agent_type = header.value("agent_type", "General");
    s->domain = header.value("domain", "general");
    s->tenant = header.value("tenant", "default");
    s->owner = header.value("owner", "anon");
    s->created_ms = base::int_value(header, "created_ms", 0);
    bool torn = false;
    while (std::getline(in, line)) {
      if (line.empty()) continue;
      Json t = base::parse_json(line);
      if (!t.is_object()) {
        torn = true;  // a turn cut short by a crash; the lines after it still count
        continue;
      }
      if (t.value("_type", "") == "switch") {
        s->agent_type = t.value("agent_type", s->agent_type);
        continue;
      }
      if (!t.contains("role") || !t["role"].is_string() || !t.contains("content") ||
          !t["content"].is_string()) {
        continue;
      }
      s->messages.push_back({t["role"], t["content"], base::int_value(t, "ts", 0)});
    }
    if (torn) log_.warn("session journal " + f.filename().string() + " had a torn line (skipped)");
    // The next turn must start on a line of its own.
    in.close();
    std::ifstream tail(f, std::ios::binary | std::ios::ate);
    if (tail.tellg() > 0) {
      tail.seekg(-1, std::ios::end);
      if (tail.get() != '\n') write_line_(s->session_id, "\n", false);
    }
    loaded.push_back(std::move(s));
  }
  std::sort(loaded.begin(), loaded.end(),
            [](const auto& a, const auto& b) { return a->created_ms < b->created_ms; });
  std::lock_guard lock(mu_);
  for (auto& s : loaded) {
    order_.push_back(s->session_id);
    sessions_[s->session_id] = std::move(s);
  }
  return sessions_.size();
}

std::shared_ptr<Session> AgentSessions::create(const std::string& agent_type,
                                               const std::string& domain, const std::string& tenant,
                                               const std::string& owner) {
  auto s = std::make_shared<Session>();
  s->agent_type = agent_type;
  s->domain = domain;
  s->tenant = tenant;
  s->owner = owner;
  s->created_ms = base::unix_ms();
  {
    std::lock_guard lock(mu_);
    do {
      s->session_id = new_id("sess");
    } while (sessions_.count(s->session_id));
    sessions_[s->session_id] = s;
    order_.push_back(s->session_id);
  }
  Json header = {{"_type", "header"},          {"session_id", s->session_id},
                 {"agent_type", agent_type},   {"domain", domain},
                 {"tenant", tenant},           {"owner", owner},
                 {"created_ms", s->created_ms}};
  // Under the session's mutex so that no turn reaches the file first.
  std::lock_guard lock(s->mu);
  if (!write_line_(s->session_id, base::dump_json(header) + "\n", true)) {
    log_.warn("could not write session header to " + path_of(s->session_id).string() + ": " +
              std::strerror(errno));
  }
  return s;
}

std::shared_ptr<Session> AgentSessions::find(const std::string& id) const {
  std::lock_guard lock(mu_);
  auto it = sessions_.find(id);
  return it == sessions_.end() ? nullptr : it->second;
}

bool AgentSessions::remove(const std::string& id) {
  std::shared_ptr<Session> s;
  {
    std::lock_guard lock(mu_);
    auto it = sessions_.find(id);
    if (it == sessions_.end()) return false;
    s = it->second;
    sessions_.erase(it);
    order_.erase(std::remove(order_.begin(), order_.end(), id), order_.end());
  }
  std::lock_guard lock(s->mu);  // waits for a turn being written
  std::error_code ec;
  fs::remove(path_of(id), ec);
  return true;
}

std::vector<std::shared_ptr<Session>> AgentSessions::list(const std::string& tenant) const {
  std::vector<std::shared_ptr<Session>> out;
  std::lock_guard lock(mu_);
  for (const auto& id : order_) {
    auto it = sessions_.find(id);
    if (it != sessions_.end() && (tenant.empty() || it->second->tenant == tenant)) {
      out.push_back(it->second);
    }
  }
  return out;
}

std::size_t AgentSessions::size() const {
  std::lock_guard lock(mu_);
  return sessions_.size();
}

bool AgentSessions::record(Session& s, const std::string& role, const std::string& content) {
  return append(s, role, content, 1).has_value();
}

std::optional<std::vector<Message>> AgentSessions::append(Session& s, const std::string& role,
                                                          const std::string& content,
                                                          std::size_t window) {
  Message m{role, content, base::unix_ms()};
  const std::string line = turn_line(m);
  std::lock_guard lock(s.mu);
  if (!write_line_(s.session_id, line, false)) {
    log_.warn("turn not kept: could not append it to " + path_of(s.session_id).string() + ": " +
              std::strerror(errno));
    return std::nullopt;
  }
  s.messages.push_back(std::move(m));
  const std::size_t n = s.messages.size();
  const std::size_t first = window == 0 || n <= window ? 0 : n - window;
  return std::vector<Message>(s.messages.begin() + static_cast<std::ptrdiff_t>(first),
                              s.messages.end());
}

void AgentSessions::switch_agent(Session& s, const std::string& agent_type) {
  Json line = {{"_type", "switch"}, {"agent_type", agent_type}, {"ts", base::unix_ms()}};
  std::lock_guard lock(s.mu);
  s.agent_type = agent_type;
  write_line_(s.session_id, base::dump_json(line) + "\n", false);
}

}  // namespace ostrel::agents
