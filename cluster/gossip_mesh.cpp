#include "cluster/gossip_mesh.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>
#include <unordered_map>

#include "base/encoding.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/text.h"

namespace ostrel::cluster::gossip {
namespace {

using Json = nlohmann::json;

double now_ms() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

bool split_host_port(const std::string& text, std::string& host, int& port) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 >= text.size()) return false;
  host = text.substr(0, colon);
  try {
    std::size_t used = 0;
    port = std::stoi(text.substr(colon + 1), &used);
    if (used != text.size() - colon - 1) return false;
  } catch (...) {
    return false;
  }
  return port >= 0 && port <= 65535;
}

bool unroutable_host(const std::string& host) {
  return host == "0.0.0.0" || host == "localhost" || host.rfind("127.", 0) == 0 || host == "::";
}

// Which of two records of one member to keep: the higher incarnation, then
// the later announcement.
bool fresher(const NodeMember& a, const NodeMember& b) {
  if (a.incarnation != b.incarnation) return a.incarnation > b.incarnation;
  return a.last_seen_ms > b.last_seen_ms;
}

}  // namespace

const char* status_name(NodeStatus s) {
  static constexpr const char* kNames[] = {"alive", "suspect", "dead"};
  return text::enum_name(s, kNames, "unknown");
}

Json member_to_json(const NodeMember& m) {
  Json tags = Json::object();
  for (const auto& [k, v] : m.tags) tags[k] = v;
  Json j = {{"id", m.id},
            {"address", m.address},
            {"status", static_cast<int>(m.status)},
            {"incarnation", m.incarnation},
            {"last_seen_ms", static_cast<std::int64_t>(m.last_seen_ms)},
            {"tags", tags}};
  if (!m.sig.empty()) {
    j["key"] = base::to_hex(m.key);
    j["token"] = m.token;
    j["sig"] = base::base64url_encode(m.sig);
  }
  return j;
}

std::string signed_bytes(const NodeMember& m) {
  Json tags = Json::object();
  for (const auto& [k, v] : m.tags) tags[k] = v;
  return Json::array({"ostrel-gossip-1", m.id, m.address, m.incarnation,
                      static_cast<std::int64_t>(m.last_seen_ms), tags, base::to_hex(m.key),
                      m.token})
      .dump();
}

bool member_from_json(const Json& j, NodeMember& out) {
  if (!j.is_object()) return false;
  auto id = j.find("id"), addr = j.find("address"), st = j.find("status"),
       inc = j.find("incarnation"), seen = j.find("last_seen_ms");
  if (id == j.end() || !id->is_string() || id->get<std::string>().empty() ||
      id->get<std::string>().size() > 256 || addr == j.end() || !addr->is_string() ||
      st == j.end() || !st->is_number_integer() || inc == j.end() || !inc->is_number_unsigned() ||
      seen == j.end() || !seen->is_number()) {
    return false;
  }
  const int status = st->get<int>();
  if (status < 0 || status > 2) return false;
  out.id = *id;
  out.address = *addr;
  out.status = static_cast<NodeStatus>(status);
  out.incarnation = inc->get<std::uint64_t>();
  out.last_seen_ms = seen->get<double>();
  out.tags.clear();
  if (auto t = j.find("tags"); t != j.end()) {
    if (!t->is_object()) return false;
    for (auto it = t->begin(); it != t->end(); ++it) {
      if (!it.value().is_string()) return false;
      out.tags[it.key()] = it.value().get<std::string>();
    }
  }
  out.key.clear();
  out.token.clear();
  out.sig.clear();
  out.dial.clear();
  auto key = j.find("key"), token = j.find("token"), sig = j.find("sig");
  if (key != j.end() || token != j.end() || sig != j.end()) {
    if (key == j.end() || !key->is_string() || token == j.end() || !token->is_string() ||
        sig == j.end() || !sig->is_string() || token->get<std::string>().size() > 128 ||
        !base::from_hex(key->get<std::string>(), out.key) || out.key.size() != 32 ||
        !base::base64url_decode(sig->get<std::string>(), out.sig) || out.sig.size() != 64) {
      return false;
    }
    out.token = *token;
  }
  return true;
}

std::vector<std::string> split_seeds(const std::string& list) { return text::split_list(list); }

struct GossipMesh::Impl {
  Config cfg;
  MemberFn joined, left;
  StatusFn changed;
  base::Logger log{"kernel/gossip"};

  mutable std::mutex mu;  // guards table, self and the counters below
  std::unordered_map<std::string, NodeMember> table;
  std::uint64_t rounds = 0, sent = 0, received = 0, rejected = 0, records_rejected = 0;
  // Signed meshes: the key each known member signs with, and the last record
  // of each whose signature was checked (so an unchanged record relayed
  // again costs a comparison, not a verification).
  struct Pin {
    std::string key;
    std::string address;
  };
  std::unordered_map<std::string, Pin> pins;
  std::unordered_map<std::string, std::pair<std::string, std::string>>
      verified;                                              // id → (bytes, sig)
  std::unordered_map<std::string, double> conflicts_logged;  // "id|address" → when, to limit lines
  bool self_dirty = true;  // the local record changed since it was last signed

  std::mutex wake_mu;  // guards stopping; wake waits on it
  std::condition_variable wake;
  bool stopping = false;
  bool started = false;

  httplib::Server server;
  int bound_port = 0;
  std::atomic<bool> listener_done{false};
  std::thread listener, gossiper, detector;
  std::mt19937_64 rng{std::random_device{}()};   // used by the gossip thread only
  std::unordered_map<std::string, int> failing;  // target → failed rounds in a row (gossip thread)

  struct Pending {
    enum Kind { join, leave, status } kind;
    NodeMember member;
  };
  void fire(const std::vector<Pending>& events) {
    for (const auto& e : events) {
      if (e.kind == Pending::join && joined) joined(e.member);
      if (e.kind == Pending::leave && left) left(e.member);
      if (e.kind == Pending::status && changed) changed(e.member, e.member.status);
    }
  }

  double now() const { return cfg.clock ? cfg.clock() : now_ms(); }

  // The local member, announced now (and signed, in a signed mesh).
  void refresh_self_locked() {
    NodeMember& self = table[cfg.self_id];
    self.status = NodeStatus::alive;
    // Whole milliseconds (what travels is what was signed); within one
    // millisecond the record, and its signature, stay as they are.
    const double t = std::floor(now());
    const bool changed = t > self.last_seen_ms || self.sig.empty() || self_dirty;
    if (!changed) return;
    self.last_seen_ms = std::max(t, self.last_seen_ms);
    self_dirty = false;
    if (cfg.sign) {
      self.key = cfg.public_key;
      self.token = cfg.record_token ? cfg.record_token() : "";
      self.sig = cfg.sign(signed_bytes(self));
    }
  }

  // A conflict an operator must fix, reported at most once a minute per
  // (id, address).
  void report_conflict_locked(const std::string& id, const std::string& other_address,
                              const std::string& line) {
    const double t = now();
    double& last = conflicts_logged[id + "|" + other_address];
    if (last != 0 && t - last < 60000) return;
    last = t;
    if (conflicts_logged.size() > 1024) conflicts_logged.clear();
    log.error(line);
  }

  // True when the record is its member's own (or the mesh does not sign).
  bool proven_locked(const NodeMember& in) {
    if (!cfg.sign) return true;
    if (in.sig.empty()) return false;
    const std::string bytes = signed_bytes(in);
    if (auto v = verified.find(in.id);
        v != verified.end() && v->second.first == bytes && v->second.second == in.sig) {
      return true;
    }
    if (cfg.admit && !cfg.admit(in.id, in.token)) return false;
    if (!base::ed25519_verify(in.key, bytes, in.sig)) return false;
    verified[in.id] = {bytes, in.sig};
    return true;
  }

  Json table_json_locked() {
    refresh_self_locked();
    Json list = Json::array();
    for (const auto& [id, m] : table) list.push_back(member_to_json(m));
    return list;
  }

  void merge_one_locked(NodeMember in, const std::string& sender_id, const std::string& sender_host,
                        std::vector<Pending>& events) {
    if (in.id == cfg.self_id) {
      NodeMember& self = table[cfg.self_id];
      if (cfg.sign && in.key != cfg.public_key) {
        // Another node calls itself by this node's id.
        if (proven_locked(in)) {
          report_conflict_locked(in.id, in.address,
                                 "duplicate node id '" + in.id +
                                     "': another node announces it from " + in.address +
                                     " (this node is " + self.address +
                                     "); its records are refused — give every node its own "
                                     "--node-id");
        }
        return;
      }
      // Someone holds a newer incarnation of this node (a previous run):
      // outbid it so our own record wins everywhere.
      if (in.incarnation >= self.incarnation) {
        self.incarnation = in.incarnation + 1;
        self_dirty = true;
      }
      return;
    }
    const double age = now() - in.last_seen_ms;
    auto it = table.find(in.id);
    if (it == table.end()) {
      // Only news that is still fresh makes a member: a record of a member
      // that others have already given up on must not bring it back.
      if (age > cfg.suspect_after_ms || in.status != NodeStatus::alive) return;
      if (table.size() >= cfg.max_members) return;
    } else if (!fresher(in, it->second)) {
      return;
    }
    if (cfg.sign) {
      auto pin = pins.find(in.id);
      if (pin != pins.end() && pin->second.key != in.key) {
        if (proven_locked(in)) {
          report_conflict_locked(in.id, in.address,
                                 "duplicate node id '" + in.id + "': announced from " +
                                     pin->second.address + " and from " + in.address +
                                     " by two different nodes; the second is refused — give "
                                     "every node its own --node-id");
        }
        return;
      }
      if (!proven_locked(in)) {
        ++records_rejected;
        return;
      }
      pins[in.id] = {in.key, in.address};
    }
    // The sender's own address as seen from here when it advertised none usable.
    if (in.id == sender_id && !sender_host.empty()) {
      std::string host;
      int port = 0;
      if (split_host_port(in.address, host, port) && unroutable_host(host) &&
          !unroutable_host(sender_host)) {
        in.dial = sender_host + ":" + std::to_string(port);
      }
    }
    if (it == table.end()) {
      in.status = NodeStatus::alive;
      table[in.id] = in;
      events.push_back({Pending::join, in});
      return;
    }
    NodeMember& have = it->second;
    const NodeStatus before = have.status;
    const std::string dial = in.dial.empty() && in.address == have.address ? have.dial : in.dial;
    have.address = in.address;
    have.dial = dial;
    have.incarnation = in.incarnation;
    have.last_seen_ms = in.last_seen_ms;
    have.tags = in.tags;
    have.key = in.key;
    have.token = in.token;
    have.sig = in.sig;
    // Status is judged here from the announcement's age; fresh news revives.
    have.status = age <= cfg.suspect_after_ms ? NodeStatus::alive : std::max(before, in.status);
    if (have.status != before) events.push_back({Pending::status, have});
  }

  Json merge(const Json& members, const std::string& sender_id, const std::string& sender_host) {
    std::vector<Pending> events;
    Json out;
    {
      std::lock_guard lock(mu);
      for (const auto& j : members) {
        NodeMember m;
        if (member_from_json(j, m)) merge_one_locked(std::move(m), sender_id, sender_host, events);
      }
      out = table_json_locked();
    }
    fire(events);
    return out;
  }

  void log_warn(const std::string& line) { log.warn(line); }

  void handle_sync(const httplib::Request& req, httplib::Response& res) {
    res.set_header("Connection", "close");
    Json body = base::parse_json(req.body);
    if (!body.is_object() || !body.contains("from_node") || !body["from_node"].is_string() ||
        !body.contains("members") || !body["members"].is_array()) {
      std::lock_guard lock(mu);
      ++rejected;
      res.status = 400;
      res.set_content(base::dump_json(base::error_body(
                          "malformed_sync", {{"message", "expected {from_node, members[]}"}})),
                      "application/json");
      return;
    }
    const std::string from = body["from_node"];
    if (cfg.admit) {
      const std::string claimed = req.get_header_value("X-Ostrel-Node-Id");
      const std::string token = req.get_header_value("X-Ostrel-Node-Token");
      if (claimed != from || !cfg.admit(from, token)) {
        {
          std::lock_guard lock(mu);
          ++rejected;
        }
        log_warn("[gossip] rejected sync from '" + from.substr(0, 64) + "' at " + req.remote_addr +
                 ": not a member of this cluster");
        res.status = 403;
        res.set_content(base::dump_json(base::error_body("not_a_cluster_member")),
                        "application/json");
        return;
      }
    }
    {
      std::lock_guard lock(mu);
      ++received;
    }
    Json table_now = merge(body["members"], from, req.remote_addr);
    res.set_content(base::dump_json({{"members", table_now}}), "application/json");
  }

  // One exchange with one target; false with the reason.
  bool exchange(const std::string& target, const std::string& body, std::string& why) {
    std::string host;
    int port = 0;
    if (!split_host_port(target, host, port)) {
      why = "bad address '" + target + "'";
      return false;
    }
    base::HttpHeaders headers;
    if (cfg.credentials) {
      for (auto& [k, v] : cfg.credentials()) headers.emplace_back(k, v);
    }
    {
      std::lock_guard lock(mu);
      ++sent;
    }
    const auto timeout = std::chrono::milliseconds(cfg.request_timeout_ms);
    base::HttpReply r = base::http_post(
        "http://" + (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
            std::to_string(port),
        "/api/v1/cluster/gossip/sync", body, headers, timeout * 2, "application/json", timeout);
    if (!r.transport_ok) {
      why = target + ": " + r.error;
      return false;
    }
    if (r.status != 200) {
      why = target + ": HTTP " + std::to_string(r.status);
      return false;
    }
    Json answer = base::parse_json(r.body);
    if (!answer.is_object() || !answer.contains("members") || !answer["members"].is_array()) {
      why = target + ": malformed answer";
      return false;
    }
    merge(answer["members"], "", "");
    return true;
  }

  void round() {
    std::vector<std::string> targets;
    std::string body;
    {
      std::lock_guard lock(mu);
      for (const auto& [id, m] : table) {
        if (id != cfg.self_id && m.status != NodeStatus::dead)
          targets.push_back(m.dial.empty() ? m.address : m.dial);
      }
      body = base::dump_json({{"from_node", cfg.self_id}, {"members", table_json_locked()}});
    }
    // Seeds until they show up as members.
    for (const auto& s : cfg.seeds) {
      if (std::find(targets.begin(), targets.end(), s) == targets.end()) targets.push_back(s);
    }
    std::shuffle(targets.begin(), targets.end(), rng);
    if (targets.size() > static_cast<std::size_t>(std::max(0, cfg.fanout)))
      targets.resize(static_cast<std::size_t>(std::max(0, cfg.fanout)));
    for (const auto& t : targets) {
      if (stopped()) break;
      std::string why;
      // A silent target is reported on its first failure and every 20th,
      // so a dead member does not fill the log.
      if (!exchange(t, body, why)) {
        const int n = ++failing[t];
        if (n == 1 || n % 20 == 0) {
          log_warn(why.empty() ? "[gossip] round failed (unknown)"
                               : "[gossip] round failed: " + why +
                                     (n > 1 ? " (" + std::to_string(n) + " in a row)" : ""));
        }
      } else {
        failing.erase(t);
      }
    }
    std::lock_guard lock(mu);
    ++rounds;
  }

  void detect(double at) {
    std::vector<Pending> events;
    {
      std::lock_guard lock(mu);
      for (auto it = table.begin(); it != table.end();) {
        NodeMember& m = it->second;
        if (m.id == cfg.self_id) {
          ++it;
          continue;
        }
        const double age = at - m.last_seen_ms;
        if (m.status == NodeStatus::alive && age > cfg.suspect_after_ms) {
          m.status = NodeStatus::suspect;
          events.push_back({Pending::status, m});
        } else if (m.status == NodeStatus::suspect && age > 2.0 * cfg.suspect_after_ms) {
          m.status = NodeStatus::dead;
          events.push_back({Pending::status, m});
        } else if (m.status == NodeStatus::dead && age > cfg.remove_after_ms) {
          events.push_back({Pending::leave, m});
          pins.erase(m.id);
          verified.erase(m.id);
          it = table.erase(it);
          continue;
        }
        ++it;
      }
    }
    fire(events);
  }

  bool stopped() {
    std::lock_guard lock(wake_mu);
    return stopping;
  }
  // Sleeps `ms`, waking early on stop; false once stopping.
  bool pause(int ms) {
    std::unique_lock lock(wake_mu);
    wake.wait_for(lock, std::chrono::milliseconds(ms), [&] { return stopping; });
    return !stopping;
  }
};

GossipMesh::GossipMesh(Config config) : impl_(std::make_unique<Impl>()) {
  impl_->cfg = std::move(config);
  NodeMember self;
  self.id = impl_->cfg.self_id;
  self.address = impl_->cfg.self_address;
  // A restarted node outbids every record of its previous run.
  self.incarnation = static_cast<std::uint64_t>(impl_->now());
  self.last_seen_ms = std::floor(impl_->now());
  impl_->table[self.id] = self;
}

GossipMesh::~GossipMesh() { stop(); }

void GossipMesh::on_join(MemberFn fn) { impl_->joined = std::move(fn); }
void GossipMesh::on_leave(MemberFn fn) { impl_->left = std::move(fn); }
void GossipMesh::on_status_change(StatusFn fn) { impl_->changed = std::move(fn); }
void GossipMesh::set_log(base::Logger log) { impl_->log = std::move(log); }

bool GossipMesh::start() {
  Impl& d = *impl_;
  std::string host, self_host;
  int port = 0, self_port = 0;
  if (!split_host_port(d.cfg.self_address, self_host, self_port)) {
    d.log_warn("[gossip] invalid self_address '" + d.cfg.self_address + "'");
    return false;
  }
  if (!split_host_port(d.cfg.bind, host, port)) return false;
  d.server.set_payload_max_length(d.cfg.max_body_bytes);
  d.server.set_keep_alive_max_count(1);
  d.server.set_read_timeout(std::chrono::milliseconds(d.cfg.request_timeout_ms * 2));
  d.server.new_task_queue = [] { return new httplib::ThreadPool(2); };
  d.server.Post(
      "/api/v1/cluster/gossip/sync",
      [&d](const httplib::Request& req, httplib::Response& res) { d.handle_sync(req, res); });
  d.server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
    res.set_header("Connection", "close");
    if (res.body.empty()) {
      res.set_content(base::dump_json(base::error_body(
                          "not_found", {{"message", "only POST /api/v1/cluster/gossip/sync"}})),
                      "application/json");
    }
  });
  if (port == 0) {
    d.bound_port = d.server.bind_to_any_port(host);
  } else {
    d.bound_port = d.server.bind_to_port(host, port) ? port : -1;
  }
  if (d.bound_port <= 0) return false;
  {
    std::lock_guard lock(d.mu);
    if (self_port == 0) {
      d.table[d.cfg.self_id].address = self_host + ":" + std::to_string(d.bound_port);
      d.self_dirty = true;
    }
  }
  d.started = true;
  d.listener = std::thread([&d] {
    d.server.listen_after_bind();
    d.listener_done = true;
  });
  // The server's stop() only reaches a listener that is already serving;
  // one stopped before it got there would serve on and never be joined.
  while (!d.server.is_running() && !d.listener_done) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  d.gossiper = std::thread([&d] {
    do {
      d.round();
    } while (d.pause(d.cfg.interval_ms));
  });
  d.detector = std::thread([&d] {
    const int tick = std::max(200, d.cfg.suspect_after_ms / 2);
    while (d.pause(tick)) d.detect(d.now());
  });
  return true;
}

void GossipMesh::stop() {
  Impl& d = *impl_;
  {
    std::lock_guard lock(d.wake_mu);
    if (d.stopping) return;
    d.stopping = true;
  }
  d.wake.notify_all();
  if (!d.started) return;
  d.server.stop();
  if (d.listener.joinable()) d.listener.join();
  if (d.gossiper.joinable()) d.gossiper.join();
  if (d.detector.joinable()) d.detector.join();
}

void GossipMesh::set_self_tag(const std::string& key, const std::string& value) {
  std::lock_guard lock(impl_->mu);
  impl_->table[impl_->cfg.self_id].tags[key] = value;
  impl_->self_dirty = true;
}

std::vector<NodeMember> GossipMesh::members() const {
  std::lock_guard lock(impl_->mu);
  std::vector<NodeMember> out;
  for (const auto& [id, m] : impl_->table) out.push_back(m);
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
  return out;
}

GossipStats GossipMesh::stats() const {
  std::lock_guard lock(impl_->mu);
  GossipStats s;
  s.gossip_rounds = impl_->rounds;
  s.messages_sent = impl_->sent;
  s.messages_received = impl_->received;
  s.messages_rejected = impl_->rejected;
  s.records_rejected = impl_->records_rejected;
  for (const auto& [id, m] : impl_->table) {
    s.members_alive += m.status == NodeStatus::alive;
    s.members_suspect += m.status == NodeStatus::suspect;
    s.members_dead += m.status == NodeStatus::dead;
  }
  return s;
}

int GossipMesh::port() const { return impl_->bound_port; }

void GossipMesh::run_round() { impl_->round(); }
void GossipMesh::detect_failures() { impl_->detect(impl_->now()); }
nlohmann::json GossipMesh::merge_json(const nlohmann::json& members,
                                      const std::string& sender_host) {
  return impl_->merge(members, "", sender_host);
}

}  // namespace ostrel::cluster::gossip
