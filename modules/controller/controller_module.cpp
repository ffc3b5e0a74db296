// The controller: the cluster's registry. Workers register and send
// heartbeats; nodes join (receiving the cluster secret) and register with
// node tokens; configured and registered peers are synchronised into one
// topology; every change is announced as "cluster.topology.changed" and
// delivered to webhook subscribers; a watchdog promotes a data replica when
// the primary stays down.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <thread>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/logger.h"
#include "base/names.h"
#include "base/reply.h"
#include "base/sqlite.h"
#include "base/text.h"
#include "base/workers.h"
#include "identity/login_throttle.h"
#include "identity/node_token.h"
#include "kernel/event_bus.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"
#include "modules/controller/web_tools.h"
#include "modules/controller/webhooks.h"
#include "modules/controller/worker_registry.h"

namespace ostrel::controller {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;
using base::reply;
using kernel::Request;
using kernel::Response;

constexpr identity::SourceCode kControllerSource{0x0a, 0x01};

// The host of "http(s)://host[:port][/…]", or "".
std::string host_of(const std::string& url) {
  static const std::regex re(R"(^https?://([^:/]+)(?::\d+)?(?:/.*)?$)");
  std::smatch m;
  return std::regex_match(url, m, re) ? m[1].str() : "";
}

bool loopback_host(const std::string& host) {
  return host == "localhost" || host == "0.0.0.0" || host.rfind("127.", 0) == 0;
}

// The issue second inside a node token ("nt-" + 16 hex digits + MAC).
std::int64_t token_issued_s(const std::string& token) {
  if (token.size() < 19 || token.rfind("nt-", 0) != 0) return -1;
  try {
    return static_cast<std::int64_t>(std::stoull(token.substr(3, 16), nullptr, 16));
  } catch (...) {
    return -1;
  }
}

struct PeerNode {
  std::string node_id, url, cluster_id;
  Json roles = Json::array(), modules = Json::array(), capabilities = Json::array();
  std::int64_t registered_at_ms = 0, last_seen_ms = 0, token_issued_s = 0;
};

class ControllerModule : public kernel::Module {
 public:
  identity::SourceCode source_code() const override { return kControllerSource; }
  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override;
  kernel::HealthStatus health() override;
  void register_routes(kernel::ApiGateway& gw) override;
  void register_syscalls(kernel::SyscallTable& table) override;

 private:
  // Cluster joins and peer registration.
  void handle_join_(const Request& req, Response& res);
  void handle_register_(const Request& req, Response& res);
  // Peers and their synchronisation.
  std::vector<std::pair<std::string, std::string>> sync_targets_();  // (peer key, url)
  void run_peer_sync_pass_();
  void save_peers_locked_();
  Json topology_(bool is_public);
  Json gossip_members_();
  std::string local_url_() const;
  void publish_topology_change_(const std::string& reason, const std::string& subject,
                                Json detail = Json::object());
  // Failover.
  void watchdog_pass_();
  void trigger_auto_failover_(const std::string& primary, const std::string& replica,
                              std::int64_t downtime_s, const std::string& reason);
  std::pair<int, std::string> run_failover_swap_(const std::string& actor);
  // The tool policy's decision for the caller, as the tool loop asks it;
  // false when it answered the refusal.
  bool tool_allowed_(const Request& req, Response& res, const std::string& tool);
  // Background loop: sleeps `period`, false once stopping.
  bool pause_(std::chrono::milliseconds period);

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  fs::path data_dir_, dir_;
  std::unique_ptr<WorkerRegistry> workers_;
  std::unique_ptr<Webhooks> webhooks_;
  WebTools web_;
  std::string join_token_;
  bool open_join_ = false;
  std::size_t max_nodes_ = 1024;
  int joins_per_minute_ = 60;
  // Wrong join tokens, per client address: a few, then growing waits.
  identity::LoginThrottle join_guesses_;
  std::mutex join_rate_mu_;              // guards join_times_
  std::deque<std::int64_t> join_times_;  // ms of the joins answered in the last minute
  int sync_interval_s_ = 10;
  int stale_after_s_ = 90;
  int failover_after_s_ = 120;
  std::string data_primary_, data_replica_;

  std::mutex mu_;  // guards peers_, peer_urls_, registered_, modules_ready_, failover state
  std::vector<std::string> peer_urls_;          // configured peers, persisted
  std::map<std::string, PeerNode> registered_;  // node id → registration
  std::vector<Json> modules_ready_;             // this node's modules, from "module.ready"
  std::map<std::string, std::int64_t> primary_down_since_ms_;
  std::set<std::string> unreachable_;  // peer URLs whose last sync found nothing
  bool failover_done_ = false;
  // Watchdog passes so far, reported with the failovers: a reader can wait
  // for the watchdog to have looked again.
  std::atomic<std::uint64_t> watchdog_passes_{0};

  std::mutex join_mu_;  // serialises read-modify-write of cluster.json by joins
  std::mutex db_mu_;    // guards failover_db_
  base::sqlite::Connection failover_db_;

  base::Workers threads_;  // peer sync and the failover watchdog; joined by stop()
  std::vector<std::uint64_t> subscriptions_;
};

bool ControllerModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("controller"));
  data_dir_ = ctx.config->get("data_dir", ctx.data_dir);
  dir_ = data_dir_ / "controller";
  std::error_code ec;
  fs::create_directories(dir_, ec);
  sync_interval_s_ = std::max(1, static_cast<int>(ctx.config->get_int("sync_interval_s", 10)));
  stale_after_s_ = std::max(1, static_cast<int>(ctx.config->get_int("stale_after_s", 90)));
  failover_after_s_ = std::max(1, static_cast<int>(ctx.config->get_int("failover_after_s", 120)));
  data_primary_ = ctx.config->get("data_primary", "");
  data_replica_ = ctx.config->get("data_replica", "");
  join_token_ = ctx.config->get("join_token", "");
  open_join_ = ctx.config->get_bool("open_join", false);
  max_nodes_ =
      static_cast<std::size_t>(std::max<std::int64_t>(1, ctx.config->get_int("max_nodes", 1024)));
  joins_per_minute_ = std::max(1, static_cast<int>(ctx.config->get_int("joins_per_minute", 60)));
  if (!join_token_.empty()) {
    log_->info("cluster joins need the join token");
  } else if (open_join_) {
    log_->warn(
        "controller.open_join=true: any node that reaches this one may join the cluster "
        "and receive its secret; set controller.join_token instead on shared networks");
  } else {
    log_->info(
        "cluster joins are refused until a join token is set: set controller.join_token "
        "(or OSTREL_CLUSTER_JOIN_TOKEN) here and OSTREL_CLUSTER_JOIN_TOKEN on each joining "
        "node");
  }
  web_.configure(ctx.config->get("web_search_url", ""),
                 ctx.config->get_bool("allow_private_fetch", false));

  workers_ = std::make_unique<WorkerRegistry>(dir_ / "workers.json", *log_);
  Webhooks::Options wo;
  wo.retry_pause_ms = static_cast<int>(ctx.config->get_int("webhook_retry_pause_ms", 500));
  wo.guard.configure(false, text::split_list(ctx.config->get("webhook_private_hosts", "")));
  webhooks_ = std::make_unique<Webhooks>(wo, *log_);
  webhooks_->open(dir_ / "webhooks.db");

  std::string error;
  if (!failover_db_.open(dir_ / "controller.db",
                         SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                         error) ||
      !failover_db_.exec(
          "PRAGMA journal_mode=WAL;"
          "CREATE TABLE IF NOT EXISTS replication_failovers ( failover_id TEXT PRIMARY KEY, "
          "triggered_at TEXT NOT NULL, trigger_reason TEXT NOT NULL, primary_was TEXT NOT NULL, "
          "replica_promoted TEXT NOT NULL, primary_downtime_seconds INTEGER NOT NULL, "
          "notification_sent_count INTEGER NOT NULL DEFAULT 0 );",
          error)) {
    log_->warn("failover log unavailable: " + error);
    failover_db_ = base::sqlite::Connection();
  }

  // Configured peers: the setting, then what administrators added.
  bool opened = false;
  Json saved = base::read_json_file(dir_ / "peers.json", opened);
  for (const auto& item : text::split_list(ctx.config->get("peers", ""))) {
    const std::string one = base::normalise_base_url(item);
    if (!host_of(one).empty()) peer_urls_.push_back(one);
  }
  if (saved.is_array()) {
    for (const auto& p : saved) {
      if (p.is_string() && std::find(peer_urls_.begin(), peer_urls_.end(), p) == peer_urls_.end())
        peer_urls_.push_back(p);
    }
  }

  // Every module that starts on this node; its workers are listed as local.
  subscriptions_.push_back(ctx.bus->subscribe(kControllerSource, "module.ready",
                                              [this](std::string_view, std::string_view payload) {
                                                Json j = base::parse_json(payload);
                                                if (!j.is_object()) return;
                                                std::lock_guard lock(mu_);
                                                modules_ready_.push_back(j);
                                              }));
  // Topology and failover events reach webhook subscribers.
  for (const char* topic : {"cluster.topology.changed", "cluster.failover_auto_promote"}) {
    subscriptions_.push_back(ctx.bus->subscribe(
        kControllerSource, topic, [this](std::string_view t, std::string_view payload) {
          webhooks_->enqueue_event(std::string(t), base::parse_json(payload));
        }));
  }
  return true;
}

bool ControllerModule::start() {
  workers_->restore();
  webhooks_->start();
  threads_.spawn([this] {
    do {
      try {
        run_peer_sync_pass_();
        workers_->mark_stale(base::unix_ms(), stale_after_s_ * 1000LL);
      } catch (const std::exception& e) {
        log_->warn(std::string("peer sync pass threw: ") + e.what());
      }
    } while (pause_(std::chrono::seconds(sync_interval_s_)));
  });
  threads_.spawn([this] {
    const auto period = std::chrono::seconds(std::clamp(failover_after_s_ / 2, 1, 5));
    while (pause_(period)) {
      watchdog_pass_();
      ++watchdog_passes_;
    }
  });
  bool peers;
  {
    std::lock_guard lock(mu_);
    peers = !peer_urls_.empty();
  }
  log_->info(std::string("started — cluster registry ready") + (peers ? ", peer sync active" : ""));
  return true;
}

void ControllerModule::stop() {
  threads_.stop();
  webhooks_->stop();
  for (auto id : subscriptions_) ctx_.bus->unsubscribe(id);
  subscriptions_.clear();
}

bool ControllerModule::pause_(std::chrono::milliseconds period) {
  return !threads_.wait_for(period);
}

kernel::HealthStatus ControllerModule::health() {
  std::lock_guard lock(mu_);
  return {kernel::HealthState::healthy, std::to_string(workers_->size()) + " worker(s), " +
                                            std::to_string(registered_.size()) +
                                            " registered node(s)"};
}

std::string ControllerModule::local_url_() const {
  return "http://127.0.0.1:" + std::to_string(ctx_.gateway ? ctx_.gateway->port() : 0);
}

void ControllerModule::publish_topology_change_(const std::string& reason,
                                                const std::string& subject, Json detail) {
  detail["event"] = reason;
  if (!subject.empty()) detail["subject"] = subject;
  detail["node_id"] = ctx_.node_id;
  detail["ts"] = base::utc_text();
  ctx_.bus->publish(kControllerSource, "cluster.topology.changed", base::dump_json(detail));
}

void ControllerModule::handle_join_(const Request& req, Response& res) {
  Json body = base::parse_json(req.body);
  const std::string node_id = body.is_object() ? base::string_field(body, "node_id") : "";
  if (node_id.empty()) return base::fail(res, 400, "missing node_id");
  std::string why;
  if (!base::safe_name(node_id, why, 128)) return base::fail(res, 400, "invalid node_id", why);
  if (node_id == ctx_.node_id) {
    log_->error("duplicate node id '" + node_id + "': a node at " + req.client_addr +
                " asks to join with this controller's own id — refused");
    return base::fail(res, 409, "duplicate_node_id", {{"node_id", node_id}});
  }
  if (join_token_.empty() && !open_join_) {
    return base::fail(res, 403, "join_token_not_configured",
                      "this controller takes no joins until a join token is set "
                      "(controller.join_token or OSTREL_CLUSTER_JOIN_TOKEN)");
  }
  const std::string guesser = "addr:" + req.client_addr;
  if (!join_token_.empty()) {
    if (const std::int64_t wait = join_guesses_.wait_seconds(guesser); wait > 0) {
      res.headers["Retry-After"] = std::to_string(wait);
      return base::fail(res, 429, "too_many_attempts", {{"retry_after_s", wait}});
    }
    std::string presented = req.header("X-Ostrel-Join-Token");
    if (presented.empty()) presented = base::string_field(body, "join_token");
    if (!base::constant_time_equal(presented, join_token_)) {
      join_guesses_.failed(guesser);
      log_->warn("cluster join refused: wrong or missing join token from " + node_id + " at " +
                 req.client_addr);
      return base::fail(res, 403, "join_token_required");
    }
    join_guesses_.succeeded(guesser);
  }
  {
    // Each join rewrites cluster.json whole: their rate is bounded.
    std::lock_guard lock(join_rate_mu_);
    const std::int64_t now = base::unix_ms();
    while (!join_times_.empty() && now - join_times_.front() > 60000) join_times_.pop_front();
    if (join_times_.size() >= static_cast<std::size_t>(joins_per_minute_)) {
      res.headers["Retry-After"] = "60";
      return base::fail(res, 429, "too_many_joins", {{"retry_after_s", 60}});
    }
    join_times_.push_back(now);
  }
  const fs::path file = data_dir_ / "state" / "cluster.json";
  Json state;
  {
    std::lock_guard lock(join_mu_);
    bool opened = false;
    state = base::read_json_file(file, opened);
    const std::string secret = state.is_object() ? base::string_field(state, "cluster_secret") : "";
    if (secret.empty()) return base::fail(res, 503, "cluster_secret_not_initialized");
    if (!state.contains("registered_nodes") || !state["registered_nodes"].is_object())
      state["registered_nodes"] = Json::object();
    if (!state["registered_nodes"].contains(node_id) &&
        state["registered_nodes"].size() >= max_nodes_) {
      log_->warn("cluster join refused: " + node_id + " would exceed controller.max_nodes (" +
                 std::to_string(max_nodes_) + ")");
      return base::fail(res, 503, "cluster_full", {{"max_nodes", max_nodes_}});
    }
    const std::string now = base::utc_text();
    Json& entry = state["registered_nodes"][node_id];
    const std::string first = entry.is_object() ? base::string_field(entry, "joined_at") : "";
    entry = {{"node_id", node_id}, {"joined_at", first.empty() ? now : first}, {"last_seen", now}};
    std::string error;
    if (!base::write_file_atomically(file, state.dump(2) + "\n", error)) {
      log_->error("cluster join: could not save " + file.string() + ": " + error);
      return base::fail(res, 500, "persist_failed");
    }
  }
  const std::string secret = state["cluster_secret"];
  log_->info("cluster join: node " + node_id + " joined");
  reply(res, {{"cluster_secret", secret},
              {"cluster_id", identity::cluster_id_from_secret(secret)},
              {"node_token", identity::generate_node_token(secret, node_id)},
              {"controller_node_id", ctx_.node_id}});
}

void ControllerModule::handle_register_(const Request& req, Response& res) {
  kernel::MetricRegistry& t = *ctx_.metrics;
  Json body = base::parse_json(req.body);
  if (!body.is_object()) body = Json::object();
  const std::string node = base::string_field(body, "node_id"),
                    token = base::string_field(body, "token");
  if (node.empty() || token.empty()) {
    t.counter("ostrel.controller.peer_register_total", 1, {{"role", "rejected"}});
    return base::fail(res, 400, "missing node_id or token");
  }
  const std::string theirs = base::string_field(body, "cluster_id");
  if (theirs != ctx_.cluster_id) {
    log_->warn("cluster register rejected: cluster_id mismatch from " + node.substr(0, 128) +
               " (theirs=" + theirs.substr(0, 64) + ", ours=" + ctx_.cluster_id + ")");
    t.counter("ostrel.controller.peer_register_total", 1, {{"role", "rejected"}});
    return base::fail(res, 403, "cluster_id_mismatch");
  }
  const std::int64_t issued = token_issued_s(token);
  bool valid = identity::verify_node_token(ctx_.cluster_secret, node, token);
  bool replayed = false;
  if (valid) {
    // A token older than one already accepted from this node is a replay.
    std::lock_guard lock(mu_);
    auto it = registered_.find(node);
    replayed = it != registered_.end() && issued < it->second.token_issued_s;
  }
  if (!valid || replayed) {
    log_->warn("cluster register rejected: invalid token from " + node.substr(0, 128) +
               (replayed ? " (older than one already accepted)" : ""));
    t.counter("ostrel.controller.peer_register_total", 1, {{"role", "rejected"}});
    return base::fail(res, 401, "invalid_node_token");
  }
  log_->info("cluster register: node " + node + " authenticated");
  std::string url = base::string_field(body, "url");
  const std::string host = host_of(url);
  if (host.empty() || loopback_host(host)) {
    // Reachable at the address it called from.
    static const std::regex port_re(R"(:(\d+)(?:/.*)?$)");
    std::smatch m;
    const std::string port = std::regex_search(url, m, port_re) ? m[1].str() : "8880";
    url = "http://" + req.client_addr + ":" + port;
  }
  // Two nodes with one id would overwrite each other here and everywhere
  // else: the second is refused while the first is alive.
  if (node == ctx_.node_id) {
    log_->error("duplicate node id '" + node + "': this controller's own id, registered from " +
                url + " — refused; give every node its own --node-id");
    return base::fail(res, 409, "duplicate_node_id", {{"node_id", node}});
  }
  {
    std::lock_guard lock(mu_);
    auto it = registered_.find(node);
    if (it != registered_.end() && it->second.url != url &&
        base::unix_ms() - it->second.last_seen_ms <= stale_after_s_ * 1000LL) {
      log_->error("duplicate node id '" + node + "': registered from " + it->second.url +
                  " and now from " + url +
                  " — the second is refused; give every node its own --node-id");
      t.counter("ostrel.controller.peer_register_total", 1, {{"role", "rejected"}});
      return base::fail(res, 409, "duplicate_node_id",
                        {{"node_id", node}, {"registered_url", it->second.url}});
    }
  }
  PeerNode p;
  p.node_id = node;
  p.url = url;
  p.cluster_id = theirs;
  if (body.contains("roles") && body["roles"].is_array()) p.roles = body["roles"];
  if (body.contains("modules") && body["modules"].is_array()) p.modules = body["modules"];
  if (body.contains("capabilities") && body["capabilities"].is_array())
    p.capabilities = body["capabilities"];
  p.last_seen_ms = base::unix_ms();
  p.token_issued_s = issued;
  bool is_new = false;
  {
    std::lock_guard lock(mu_);
    auto it = registered_.find(node);
    is_new = it == registered_.end() || it->second.url != url;
    p.registered_at_ms = it == registered_.end() ? p.last_seen_ms : it->second.registered_at_ms;
    registered_[node] = p;
  }
  // What it runs, as this controller sees it until the next sync pass.
  Json mods = Json::array();
  std::vector<WorkerInfo> learned;
  for (const auto& m : p.modules) {
    if (!m.is_string()) continue;
    mods.push_back({{"name", m}, {"state", "running"}, {"url", url}});
    WorkerInfo w;
    w.id = "peer:" + node + "/" + m.get<std::string>();
    w.worker_type = m;
    w.url = url;
    w.node_id = node;
    w.local = false;
    w.last_heartbeat_ms = p.last_seen_ms;
    learned.push_back(std::move(w));
  }
  workers_->replace_peer_modules(node, mods);
  workers_->replace_peer_workers(node, std::move(learned));
  const std::string role = p.roles.empty()          ? "all"
                           : p.roles[0].is_string() ? p.roles[0].get<std::string>()
                                                    : "all";
  t.counter("ostrel.controller.peer_register_total", 1, {{"role", role}});
  if (is_new) publish_topology_change_("peer_registered", node, {{"url", url}});
  reply(res, {{"status", "registered"},
              {"id", node},
              {"url", url},
              {"node_id", node},
              {"cluster_id", ctx_.cluster_id},
              {"node_token", identity::generate_node_token(ctx_.cluster_secret, node)},
              {"topology", topology_(true)}});
}

std::vector<std::pair<std::string, std::string>> ControllerModule::sync_targets_() {
  std::lock_guard lock(mu_);
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& u : peer_urls_) out.push_back({u, u});
  for (const auto& [id, p] : registered_) {
    const std::string& url = p.url;
    if (std::none_of(out.begin(), out.end(), [&](const auto& t) { return t.second == url; }))
      out.push_back({id, url});
  }
  return out;
}

void ControllerModule::run_peer_sync_pass_() {
  const auto targets = sync_targets_();
  if (targets.empty()) return;
  const base::HttpHeaders headers = {
      {"X-Ostrel-Node-Id", ctx_.node_id},
      {"X-Ostrel-Node-Token", identity::generate_node_token(ctx_.cluster_secret, ctx_.node_id)}};
  const auto timeout = std::chrono::seconds(5);
  for (const auto& target : targets) {
    const std::string& key = target.first;
    const std::string& url = target.second;
    if (!pause_(std::chrono::milliseconds(0))) return;
    // 0: unreachable; else the HTTP status (the body parsed into `out`).
    auto fetch = [&](const char* path, Json& out) {
      base::HttpReply r = base::http_get(url, path, headers, timeout);
      if (!r.transport_ok) return 0;
      if (r.status >= 200 && r.status < 300) out = base::parse_json(r.body);
      return r.status;
    };
    Json info, workers, modules, backends;
    const int reached = fetch("/api/v1/kernel/modules", modules);
    {
      // One line when a peer goes away and one when it is back.
      std::lock_guard lock(mu_);
      const bool was_down = unreachable_.count(url) != 0;
      if (reached == 0 && !was_down) {
        unreachable_.insert(url);
        log_->warn("peer sync " + url + ": unreachable — dropping what was learned from it");
      } else if (reached != 0 && was_down) {
        unreachable_.erase(url);
        log_->info("peer sync " + url + ": reachable again");
      }
    }
    if (reached == 0) {
      // What was learned from it is no longer true.
      workers_->drop_peer(key);
      continue;
    }
    fetch("/api/v1/cluster/node-info", info);  // served only where a controller runs
    const std::string peer = info.is_object() && !base::string_field(info, "node_id").empty()
                                 ? base::string_field(info, "node_id")
                                 : key;
    if (peer == ctx_.node_id) continue;
    std::vector<WorkerInfo> learned;
    const bool has_workers = fetch("/api/v1/workers", workers) == 200;
    if (has_workers) {
      const Json& list =
          workers.is_object() && workers.contains("workers") ? workers["workers"] : workers;
      if (list.is_array()) {
        for (const auto& w : list) {
          if (!w.is_object()) continue;
          const std::string wid = base::string_field(w, "id");
          if (wid.empty() || wid.rfind("peer:", 0) == 0) continue;  // not theirs to tell
          WorkerInfo x;
          x.id = "peer:" + peer + "/" + wid;
          x.worker_type = base::string_field(w, "worker_type");
          x.url = base::string_field(w, "url");
          x.node_id = peer;
          x.local = false;
          x.state =
              base::string_field(w, "state").empty() ? "healthy" : base::string_field(w, "state");
          x.last_heartbeat_ms = base::unix_ms();
          learned.push_back(std::move(x));
        }
      }
    }
    if (reached == 200) {
      Json mods = Json::array();
      const Json& list =
          modules.is_object() && modules.contains("modules") ? modules["modules"] : modules;
      if (list.is_array()) {
        for (const auto& m : list) {
          if (!m.is_object()) continue;
          Json one = {
              {"name", base::string_field(m, "name")},
              {"version", base::string_field(m, "version")},
              {"state",
               base::string_field(m, "state").empty() ? "running" : base::string_field(m, "state")},
              {"url", url}};
          one["id"] = base::string_field(m, "id").empty()
                          ? "synth-" + peer + "-" + base::string_field(m, "name")
                          : base::string_field(m, "id");
          mods.push_back(one);
        }
      }
      workers_->replace_peer_modules(peer, mods);
    }
    fetch("/api/v1/cloud/backends", backends);  // imported when a cloud module serves it
    // A peer without a worker registry keeps the workers its registration named.
    if (has_workers) workers_->replace_peer_workers(peer, std::move(learned));
    std::lock_guard lock(mu_);
    if (auto it = registered_.find(peer); it != registered_.end())
      it->second.last_seen_ms = base::unix_ms();
  }
  publish_topology_change_("peer_sync", "", {{"source", "peer"}, {"peers", targets.size()}});
}

void ControllerModule::save_peers_locked_() {
  std::string error;
  if (!base::write_file_atomically(dir_ / "peers.json", Json(peer_urls_).dump(2) + "\n", error)) {
    log_->warn("could not save peers.json: " + error);
  }
}

Json ControllerModule::gossip_members_() {
  if (!ctx_.syscalls->has("cluster.members")) return Json::array();
  Json j = base::parse_json(ctx_.syscalls->call(kControllerSource, "cluster.members", "{}").body);
  return j.is_object() && j.contains("members") ? j["members"] : Json::array();
}

Json ControllerModule::topology_(bool is_public) {
  Json nodes = Json::array();
  Json self_modules = Json::array();
  {
    std::lock_guard lock(mu_);
    for (const auto& m : modules_ready_) self_modules.push_back(base::string_field(m, "id"));
    nodes.push_back({{"node_id", ctx_.node_id},
                     {"url", local_url_()},
                     {"role", "controller"},
                     {"modules", self_modules},
                     {"state", "alive"}});
    const std::int64_t now = base::unix_ms();
    for (const auto& [id, p] : registered_) {
      const bool fresh = now - p.last_seen_ms <= stale_after_s_ * 1000LL;
      Json n = {{"node_id", id},
                {"url", p.url},
                {"roles", p.roles},
                {"modules", p.modules},
                {"state", fresh ? "alive" : "stale"},
                {"last_seen_ms", p.last_seen_ms},
                {"registered_at_ms", p.registered_at_ms}};
      if (!is_public) n["capabilities"] = p.capabilities;
      nodes.push_back(n);
    }
  }
  Json workers = workers_->list();
  for (auto& w : workers) {
    if (w.value("url", "").empty() && w.value("local", false)) w["url"] = local_url_();
  }
  Json out = {{"node_id", ctx_.node_id},
              {"cluster_id", ctx_.cluster_id},
              {"controller_node_id", ctx_.node_id},
              {"nodes", nodes},
              {"workers", workers},
              {"members", gossip_members_()},
              {"generated_at", base::utc_text()}};
  if (!is_public) out["peer_modules"] = workers_->peer_modules();
  return out;
}

void ControllerModule::watchdog_pass_() {
  if (data_primary_.empty() || data_replica_.empty()) return;
  // The primary is up when it registered recently or gossip calls it alive.
  std::int64_t last = 0;
  {
    std::lock_guard lock(mu_);
    if (auto it = registered_.find(data_primary_); it != registered_.end())
      last = it->second.last_seen_ms;
  }
  bool gossip_alive = false;
  for (const auto& m : gossip_members_()) {
    if (base::string_field(m, "id") == data_primary_ && base::string_field(m, "state") == "alive")
      gossip_alive = true;
  }
  const std::int64_t now = base::unix_ms();
  const bool up = gossip_alive || (last > 0 && now - last <= stale_after_s_ * 1000LL);
  std::int64_t since = 0;
  {
    std::lock_guard lock(mu_);
    if (up) {
      primary_down_since_ms_.erase(data_primary_);
      failover_done_ = false;
      return;
    }
    if (last == 0 && !primary_down_since_ms_.count(data_primary_)) {
      primary_down_since_ms_[data_primary_] = now;  // never seen: count from now
    }
    if (!primary_down_since_ms_.count(data_primary_)) primary_down_since_ms_[data_primary_] = last;
    since = primary_down_since_ms_[data_primary_];
    if (failover_done_ || now - since < failover_after_s_ * 1000LL) return;
    failover_done_ = true;
  }
  trigger_auto_failover_(data_primary_, data_replica_, (now - since) / 1000, "primary_unreachable");
}

std::pair<int, std::string> ControllerModule::run_failover_swap_(const std::string& actor) {
  // The promotion is the data-replication family's; until a module serves it
  // through "data.replication.promote", the swap is reported as not done.
  if (ctx_.syscalls->has("data.replication.promote")) {
    kernel::SyscallResult r = ctx_.syscalls->call(
        kControllerSource, "data.replication.promote",
        base::dump_json({{"confirm", true}, {"force", true}, {"actor", actor}}));
    return {r.status == 0 ? 200 : 500, r.body};
  }
  return {501,
          base::dump_json(base::error_body(
              "not_implemented", {{"message", "data replication is not part of this build"}}))};
}

void ControllerModule::trigger_auto_failover_(const std::string& primary,
                                              const std::string& replica, std::int64_t downtime_s,
                                              const std::string& reason) {
  log_->warn("watchdog: auto-promoting " + replica + " (primary " + primary + " down for " +
             std::to_string(downtime_s) + "s)");
  auto [status, body] = run_failover_swap_("watchdog");
  if (status < 200 || status >= 300) {
    log_->warn("watchdog: run_failover_swap_ returned status=" + std::to_string(status) +
               " body=" + body);
  }
  const std::string id = "wfo-" + base::random_alnum(12);
  const std::string at = base::utc_text();
  const int notified = 0;
  {
    std::lock_guard lock(db_mu_);
    std::string error;
    if (failover_db_) {
      auto st = failover_db_.prepare(
          "INSERT INTO replication_failovers(failover_id,triggered_at,trigger_reason,primary_was,"
          "replica_promoted,primary_downtime_seconds,notification_sent_count) VALUES "
          "(?,?,?,?,?,?,?);",
          error);
      if (st) {
        st.bind(1, id).bind(2, at).bind(3, reason).bind(4, primary).bind(5, replica);
        st.bind(6, downtime_s).bind(7, static_cast<std::int64_t>(notified));
        st.step();
      }
    }
  }
  ctx_.bus->publish(kControllerSource, "cluster.failover_auto_promote",
                    base::dump_json({{"failover_id", id},
                                     {"triggered_at", at},
                                     {"trigger_reason", reason},
                                     {"primary_was", primary},
                                     {"replica_promoted", replica},
                                     {"primary_downtime_seconds", downtime_s},
                                     {"promotion_status", status},
                                     {"peers_notified", notified}}));
}

bool ControllerModule::tool_allowed_(const Request& req, Response& res, const std::string& tool) {
  if (!base::credential_checked(req) && !base::anonymous(req)) return true;  // open node, peer
  if (!ctx_.syscalls->has("security.role.check")) {
    // Without the policy, the web tools are for developers and up.
    if (base::role_from_scopes(req) != "viewer") return true;
    base::fail(res, 403, "forbidden", {{"reason", "tool '" + tool + "' needs a developer role"}});
    return false;
  }
  const Json check = {{"tool", tool},
                      {"context",
                       {{"user_id", !req.user_id.empty() ? req.user_id : "token:" + req.token_id},
                        {"role", base::role_from_scopes(req)},
                        {"tenant_id", req.tenant.empty() ? "default" : req.tenant}}}};
  Json d = base::parse_json(
      ctx_.syscalls->call(kControllerSource, "security.role.check", base::dump_json(check)).body);
  if (d.is_object() && d.value("decision", "") == "allowed") return true;
  Json out = d.is_object() && d.contains("reject") ? d["reject"] : Json::object();
  out["error"] = "forbidden";
  out["reason"] =
      "the tool policy does not grant '" + tool + "' to role " + base::role_from_scopes(req);
  reply(res, out, 403);
  return false;
}

void ControllerModule::register_routes(kernel::ApiGateway& gw) {
  gw.route("POST", "/api/v1/workers", [this](const Request& req, Response& res) {
    // What is listed here is served to everyone in /v1/models.
    if (!base::require_admin(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    WorkerInfo w;
    bool is_new = false;
    if (std::string e = workers_->register_worker(body, ctx_.node_id, w, is_new); !e.empty())
      return base::fail(res, 400, "invalid_worker", e);
    log_->info("registered worker " + w.id + " (" + w.worker_type +
               (w.local ? ", local" : ", remote") + ")");
    publish_topology_change_("worker_online", w.id, {{"worker", worker_json(w)}});
    reply(res, {{"status", "registered"}, {"worker", worker_json(w)}});
  });
  gw.route("POST", "/api/v1/workers/*", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    std::string id = req.path.substr(std::string("/api/v1/workers/").size());
    if (id.size() > 10 && id.compare(id.size() - 10, 10, "/heartbeat") == 0)
      id = id.substr(0, id.size() - 10);
    const bool known = workers_->heartbeat(id);
    ctx_.metrics->counter("ostrel.controller.peer_heartbeats_total", 1,
                          {{"result", known ? "ack" : "unknown"}});
    if (!known) return base::fail(res, 404, "unknown_worker");
    reply(res, {{"status", "ack"}});
  });
  gw.route("GET", "/api/v1/workers", [this](const Request&, Response& res) {
    Json list = workers_->list();
    for (auto& w : list) {
      if (w.value("url", "").empty() && w.value("local", false)) w["url"] = local_url_();
    }
    reply(res, {{"workers", list}, {"count", list.size()}});
  });
  gw.route("POST", "/api/v1/cluster/join",
           [this](const Request& req, Response& res) { handle_join_(req, res); });
  gw.route("POST", "/api/v1/cluster/register",
           [this](const Request& req, Response& res) { handle_register_(req, res); });
  gw.route("GET", "/api/v1/cluster/topology",
           [this](const Request&, Response& res) { reply(res, topology_(false)); });
  gw.route("GET", "/api/v1/cluster/topology/public",
           [this](const Request&, Response& res) { reply(res, topology_(true)); });
  gw.route("GET", "/api/v1/cluster/node-info", [this](const Request&, Response& res) {
    Json mods = Json::array();
    {
      std::lock_guard lock(mu_);
      for (const auto& m : modules_ready_) mods.push_back(base::string_field(m, "id"));
    }
    reply(res, {{"node_id", ctx_.node_id},
                {"cluster_id", ctx_.cluster_id},
                {"version", "5.0.0"},
                {"url", local_url_()},
                {"role", "controller"},
                {"roles", mods},
                {"modules", mods}});
  });
  gw.route("GET", "/api/v1/cluster/discover", [this](const Request&, Response& res) {
    Json nodes = Json::array();
    std::set<std::string> seen;
    for (const auto& m : gossip_members_()) {
      if (m.value("self", false)) continue;
      seen.insert(base::string_field(m, "id"));
      nodes.push_back({{"node_id", base::string_field(m, "id")},
                       {"url", base::string_field(m, "url")},
                       {"state", base::string_field(m, "state")},
                       {"source", "gossip"}});
    }
    std::lock_guard lock(mu_);
    for (const auto& [id, p] : registered_) {
      if (seen.insert(id).second)
        nodes.push_back({{"node_id", id}, {"url", p.url}, {"source", "registered"}});
    }
    for (const auto& u : peer_urls_) nodes.push_back({{"url", u}, {"source", "configured"}});
    reply(res, {{"nodes", nodes}, {"count", nodes.size()}});
  });
  gw.route("GET", "/api/v1/cluster/peers", [this](const Request&, Response& res) {
    std::lock_guard lock(mu_);
    Json registered = Json::array();
    for (const auto& [id, p] : registered_)
      registered.push_back({{"node_id", id}, {"url", p.url}, {"last_seen_ms", p.last_seen_ms}});
    reply(res, {{"peers", peer_urls_}, {"registered", registered}});
  });
  gw.route("POST", "/api/v1/cluster/peers", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string url = base::normalise_base_url(base::string_field(body, "url"));
    if (host_of(url).empty())
      return base::fail(res, 400, "invalid_url", "url must be http(s)://host[:port]");
    std::lock_guard lock(mu_);
    if (std::find(peer_urls_.begin(), peer_urls_.end(), url) == peer_urls_.end()) {
      peer_urls_.push_back(url);
      save_peers_locked_();
    }
    reply(res, {{"status", "added"}, {"url", url}, {"peers", peer_urls_}});
  });
  gw.route("DELETE", "/api/v1/cluster/peers/*", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    std::string which = req.path.substr(std::string("/api/v1/cluster/peers/").size());
    // The server has already decoded the path ("http%3A%2F%2F…" arrives as a URL).
    const std::string url = base::normalise_base_url(which);
    bool removed = false;
    {
      std::lock_guard lock(mu_);
      auto it = std::find(peer_urls_.begin(), peer_urls_.end(), url);
      if (it != peer_urls_.end()) {
        peer_urls_.erase(it);
        save_peers_locked_();
        removed = true;
      }
      if (registered_.erase(which) > 0) removed = true;
    }
    if (!removed) return base::fail(res, 404, "not_found", {{"peer", which}});
    // Forget what was learned from it.
    workers_->drop_peer(which);
    workers_->drop_peer(url);
    publish_topology_change_("peer_removed", which);
    reply(res, {{"status", "removed"}, {"peer", which}});
  });

  gw.route("POST", "/api/v1/tools/web_fetch", [this](const Request& req, Response& res) {
    if (!tool_allowed_(req, res, "web_fetch")) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    auto a = web_.fetch(base::string_field(body, "url"));
    reply(res, a.body, a.status);
  });
  gw.route("POST", "/api/v1/tools/web_search", [this](const Request& req, Response& res) {
    if (!tool_allowed_(req, res, "web_search")) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const int n = body.contains("max_results") && body["max_results"].is_number_integer()
                      ? body["max_results"].get<int>()
                      : 5;
    auto a = web_.search(base::string_field(body, "query"), n);
    reply(res, a.body, a.status);
  });

  // Webhooks (administrators).
  auto answer = [](Response& res, const Webhooks::Answer& a) { reply(res, a.body, a.status); };
  gw.route("GET", "/api/v1/webhooks/subscriptions",
           [this, answer](const Request& req, Response& res) {
             if (base::require_admin(req, res)) answer(res, webhooks_->list());
           });
  gw.route("POST", "/api/v1/webhooks/subscriptions",
           [this, answer](const Request& req, Response& res) {
             if (!base::require_admin(req, res)) return;
             Json body;
             if (!base::parse_object_body(req, res, body)) return;
             answer(res, webhooks_->create(body));
           });
  gw.route("DELETE", "/api/v1/webhooks/subscriptions/*",
           [this, answer](const Request& req, Response& res) {
             if (!base::require_admin(req, res)) return;
             answer(res, webhooks_->remove(req.path.substr(
                             std::string("/api/v1/webhooks/subscriptions/").size())));
           });
  gw.route("POST", "/api/v1/webhooks/subscriptions/*",
           [this, answer](const Request& req, Response& res) {
             if (!base::require_admin(req, res)) return;
             std::string rest =
                 req.path.substr(std::string("/api/v1/webhooks/subscriptions/").size());
             if (rest.size() <= 5 || rest.compare(rest.size() - 5, 5, "/test") != 0)
               return base::fail(res, 404, "not_found", {{"path", req.path}});
             answer(res, webhooks_->test(rest.substr(0, rest.size() - 5)));
           });
  gw.route("GET", "/api/v1/webhooks/deliveries", [this, answer](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    int limit = 100;
    try {
      limit = std::clamp(std::stoi(req.param("limit", "100")), 1, 1000);
    } catch (...) {
    }
    answer(res, webhooks_->deliveries(req.param("subscription_id"), limit));
  });
  gw.route("GET", "/api/v1/cluster/failovers", [this](const Request&, Response& res) {
    Json rows = Json::array();
    std::lock_guard lock(db_mu_);
    std::string error;
    if (failover_db_) {
      auto st = failover_db_.prepare(
          "SELECT failover_id,triggered_at,trigger_reason,primary_was,replica_promoted,"
          "primary_downtime_seconds,notification_sent_count FROM replication_failovers ORDER BY "
          "triggered_at DESC LIMIT 100;",
          error);
      while (st && st.step() == SQLITE_ROW) {
        rows.push_back({{"failover_id", st.text(0)},
                        {"triggered_at", st.text(1)},
                        {"trigger_reason", st.text(2)},
                        {"primary_was", st.text(3)},
                        {"replica_promoted", st.text(4)},
                        {"primary_downtime_seconds", st.int64(5)},
                        {"notification_sent_count", st.int64(6)}});
      }
    }
    reply(res, {{"failovers", rows}, {"watchdog_passes", watchdog_passes_.load()}});
  });
}

void ControllerModule::register_syscalls(kernel::SyscallTable& table) {
  table.register_syscall(kControllerSource, "controller.workers.list", [this](std::string_view) {
    Json list = workers_->list();
    for (auto& w : list) {
      if (w.value("url", "").empty() && w.value("local", false)) w["url"] = local_url_();
    }
    return base::syscall_ok({{"workers", list}});
  });
  table.register_syscall(kControllerSource, "controller.topology",
                         [this](std::string_view) { return base::syscall_ok(topology_(false)); });
  table.register_syscall(
      kControllerSource, "controller.webhooks.enqueue", [this](std::string_view args) {
        Json a = base::parse_json(args);
        const std::string event = a.is_object() ? base::string_field(a, "event") : "";
        if (event.empty()) return base::syscall_error("missing event");
        webhooks_->enqueue_event(event, a.value("payload", Json::object()));
        return base::syscall_ok({{"status", "queued"}});
      });
}

}  // namespace
}  // namespace ostrel::controller

static ostrel::kernel::ModuleRegistrar<ostrel::controller::ControllerModule>
    ControllerModule_registrar("controller");
