// Joining a cluster through a peer, the registration heartbeat to the
// controller, and the gossip membership with its routes and syscall.
#include <nlohmann/json.hpp>
#include <thread>

#include "base/clock.h"
#include "base/env.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/text.h"
#include "cluster/gossip_mesh.h"
#include "identity/node_token.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;
namespace gossip = cluster::gossip;

std::string join_names(const std::vector<std::string>& names, const std::string& none) {
  std::string out;
  for (const auto& n : names) out += (out.empty() ? "" : ",") + n;
  return out.empty() ? none : out;
}

}  // namespace

bool Kernel::join_cluster_(const std::string& peers) {
  const std::string list = peers.substr(0, peers.find(','));
  const auto items = text::split_list(list);
  std::string first = items.empty() ? "" : items[0];
  while (!first.empty() && first.back() == '/') first.pop_back();
  if (first.empty()) {
    logger_.error("join_cluster: no valid peer URL in OSTREL_ULVO_PEERS");
    return false;
  }
  logger_.info("joining cluster via " + first);
  base::HttpHeaders headers;
  if (std::string t = base::env::text("OSTREL_CLUSTER_JOIN_TOKEN"); !t.empty()) {
    headers.emplace_back("X-Ostrel-Join-Token", t);
  } else {
    logger_.warn(
        "joining without a join token (OSTREL_CLUSTER_JOIN_TOKEN): a controller that "
        "requires one refuses the join");
  }
  base::HttpReply r = base::http_post(
      first, "/api/v1/cluster/join",
      base::dump_json({{"node_id", config_.node_id}, {"capabilities", ""}}), headers,
      std::chrono::seconds(10), "application/json", std::chrono::seconds(5));
  if (!r.transport_ok) {
    logger_.error("join_cluster: " + r.error);
    return false;
  }
  if (r.status != 200) {
    logger_.error("join_cluster: HTTP " + std::to_string(r.status) + ": " + r.body.substr(0, 512));
    return false;
  }
  Json answer = base::parse_json(r.body);
  const std::string secret = answer.is_object() && answer.contains("cluster_secret") &&
                                     answer["cluster_secret"].is_string()
                                 ? answer["cluster_secret"].get<std::string>()
                                 : "";
  if (secret.empty()) {
    logger_.error("join_cluster: response missing cluster_secret");
    return false;
  }
  cluster_secret_ = secret;
  const std::string cluster_id =
      answer.value("cluster_id", identity::cluster_id_from_secret(secret));
  controller_node_id_ = answer.value("controller_node_id", "");
  persist_cluster_state_();
  logger_.info("cluster join successful: cluster_id=" + cluster_id +
               ", controller=" + controller_node_id_);
  return true;
}

bool Kernel::send_peer_register_once_(const std::string& controller) {
  Json capabilities = Json::array(), modules = Json::array();
  for (const auto& m : modules_) {
    capabilities.push_back({{"name", m.definition.name}, {"version", m.definition.version}});
    modules.push_back(m.definition.name);
  }
  const std::string host = config_.bind.empty() ? "0.0.0.0" : config_.bind;
  const Json body = {{"node_id", config_.node_id},
                     {"cluster_id", identity_.cluster_id},
                     {"token", identity::generate_node_token(cluster_secret_, config_.node_id)},
                     {"url", "http://" + host + ":" + std::to_string(gateway_.port())},
                     {"capabilities", capabilities},
                     {"modules", modules},
                     {"roles", config_.roles}};
  base::HttpReply r =
      base::http_post(controller, "/api/v1/cluster/register", base::dump_json(body), {},
                      std::chrono::seconds(5), "application/json", std::chrono::seconds(2));
  if (r.transport_ok && r.status == 409 && !duplicate_reported_.exchange(true)) {
    const Json why = base::parse_json(r.body);
    logger_.error("the controller refuses this node's id '" + config_.node_id +
                  "': another node registered it" +
                  (why.is_object() && why.contains("registered_url")
                       ? " from " + base::string_field(why, "registered_url")
                       : std::string()) +
                  " — give every node its own --node-id (or OSTREL_NODE_ID)");
  }
  return r.transport_ok && r.status >= 200 && r.status < 300;
}

void Kernel::run_peer_register_(const std::string& controller) {
  int streak = 0;
  while (true) {
    if (send_peer_register_once_(controller)) {
      if (streak > 0) {
        logger_.info("peer register: heartbeat recovered after " + std::to_string(streak) +
                     " failures");
      }
      streak = 0;
    } else {
      ++streak;
      if (streak == 1 || streak % 10 == 0) {
        logger_.warn("peer register: heartbeat failed (streak=" + std::to_string(streak) + ")");
      }
    }
    // Thirty one-second sleeps, so that shutdown never waits long.
    for (int i = 0; i < heartbeat_period_s_; ++i) {
      if (!sleep_unless_stopping_(std::chrono::seconds(1)) || stop_requested_.load()) return;
    }
  }
}

void Kernel::start_gossip_() {
  if (!base::env::flag("OSTREL_GOSSIP_ENABLED")) {
    logger_.info("gossip mesh disabled (set OSTREL_GOSSIP_ENABLED=1 to opt in)");
  } else {
    gossip::GossipMesh::Config c;
    c.self_id = config_.node_id;
    c.bind = base::env::text("OSTREL_GOSSIP_BIND", "0.0.0.0:7946");
    c.self_address = base::env::text("OSTREL_GOSSIP_ADVERTISE", c.bind);
    c.seeds = gossip::split_seeds(base::env::text("OSTREL_GOSSIP_SEEDS"));
    auto number = [](const char* name, int fallback) {
      return static_cast<int>(base::env::integer(name, fallback, 1, 1 << 30));
    };
    c.interval_ms = number("OSTREL_GOSSIP_INTERVAL_MS", c.interval_ms);
    c.fanout = number("OSTREL_GOSSIP_FANOUT", c.fanout);
    // Every exchange carries a fresh node token; a sender outside the
    // cluster (another secret) is refused.
    c.credentials = [this] {
      return std::vector<std::pair<std::string, std::string>>{
          {"X-Ostrel-Node-Id", config_.node_id},
          {"X-Ostrel-Node-Token", identity::generate_node_token(cluster_secret_, config_.node_id)}};
    };
    c.admit = [secret = cluster_secret_](const std::string& id, const std::string& token) {
      return identity::verify_node_token(secret, id, token);
    };
    // Every record is signed with this node's identity key, which outlives
    // restarts; a peer relays records but cannot make or change one.
    std::shared_ptr<identity::KeyPair> key = issuer_.identity_key();
    c.public_key = key->public_key();
    c.sign = [key](std::string_view message) { return key->sign(message); };
    c.record_token = [this] {
      return identity::generate_node_token(cluster_secret_, config_.node_id);
    };
    gossip_ = std::make_unique<gossip::GossipMesh>(c);
    gossip_->set_log(logger_);
    gossip_->on_join(
        [this](const gossip::NodeMember& m) { logger_.info("gossip: peer joined " + m.id); });
    gossip_->on_leave(
        [this](const gossip::NodeMember& m) { logger_.info("gossip: peer left " + m.id); });
    gossip_->on_status_change([this](const gossip::NodeMember& m, gossip::NodeStatus s) {
      logger_.info("gossip: " + m.id + " is now " + gossip::status_name(s));
    });
    std::vector<std::string> names;
    for (const auto& m : modules_) names.push_back(m.definition.name);
    const std::string roles = join_names(config_.roles, "all");
    gossip_->set_self_tag("role", roles);
    gossip_->set_self_tag("modules", join_names(names, ""));
    gossip_->set_self_tag("cluster", identity_.cluster_id);
    if (gossip_->start()) {
      std::string bound = c.bind;
      if (bound.size() > 2 && bound.compare(bound.size() - 2, 2, ":0") == 0) {
        bound = bound.substr(0, bound.size() - 1) + std::to_string(gossip_->port());
      }
      logger_.info("gossip mesh started on " + bound + " — role=" + roles +
                   ", modules=" + join_names(names, ""));
    } else {
      logger_.warn("gossip mesh failed to bind " + c.bind +
                   " — continuing without cluster membership");
      gossip_.reset();
    }
  }

  gateway_.route("GET", "/api/v1/cluster/gossip/stats", [this](const Request&, Response& res) {
    if (!gossip_) return base::reply(res, {{"enabled", false}});
    const gossip::GossipStats s = gossip_->stats();
    base::reply(res, {{"enabled", true},
                      {"gossip_rounds", s.gossip_rounds},
                      {"members_alive", s.members_alive},
                      {"members_suspect", s.members_suspect},
                      {"members_dead", s.members_dead},
                      {"messages_sent", s.messages_sent},
                      {"messages_received", s.messages_received},
                      {"messages_rejected", s.messages_rejected},
                      {"records_rejected", s.records_rejected}});
  });
  gateway_.route("GET", "/api/v1/cluster/members",
                 [this](const Request&, Response& res) { base::reply(res, members_json_()); });
  // The "known peers" of every module: the live members, with their API
  // URLs. Without gossip there is no such syscall and modules fall back to
  // their configured peers.
  if (gossip_) {
    syscalls_.register_syscall(identity::kKernelSource, "cluster.members",
                               [this](std::string_view) {
                                 return SyscallResult{0, base::dump_json(members_json_())};
                               });
  }
}

nlohmann::json Kernel::members_json_() const {
  Json list = Json::array();
  if (!gossip_) return {{"enabled", false}, {"members", list}, {"count", 0}};
  for (const auto& m : gossip_->members()) {
    const auto modules = m.tags.find("modules");
    const Json mods =
        modules == m.tags.end() ? Json::array() : Json(text::split_list(modules->second));
    Json tags = Json::object();
    for (const auto& [k, v] : m.tags) tags[k] = v;
    list.push_back({{"id", m.id},
                    {"address", m.dial.empty() ? m.address : m.dial},
                    {"state", gossip::status_name(m.status)},
                    {"status", static_cast<int>(m.status)},
                    {"incarnation", m.incarnation},
                    {"last_seen_ms", static_cast<std::int64_t>(m.last_seen_ms)},
                    {"url", m.tags.count("url") ? m.tags.at("url") : ""},
                    {"modules", mods},
                    {"tags", tags},
                    {"self", m.id == config_.node_id}});
  }
  return {{"enabled", true}, {"members", list}, {"count", list.size()}};
}

void Kernel::announce_gossip_url_() {
  if (!gossip_) return;
  // The API address peers should call; a bind-all or loopback host is
  // replaced by the gossip address's host when that one is routable.
  std::string host = config_.bind.empty() ? "127.0.0.1" : config_.bind;
  if (host == "0.0.0.0" || host == "::") {
    // The address gossip advertises, else the one it binds, when either
    // names a host others can dial.
    std::string from;
    for (const char* name : {"OSTREL_GOSSIP_ADVERTISE", "OSTREL_GOSSIP_BIND"}) {
      const std::string a = base::env::text(name);
      const std::string h = a.substr(0, a.rfind(':'));
      if (!h.empty() && h != "0.0.0.0" && h != "::" && a.find(':') != std::string::npos) {
        from = h;
        break;
      }
    }
    host = from.empty() ? "127.0.0.1" : from;
  }
  gossip_->set_self_tag("url", "http://" + host + ":" + std::to_string(gateway_.port()));
}

}  // namespace ostrel::kernel
