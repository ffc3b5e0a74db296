// The "router" module: the chat-completions front door (/v1/models,
// /v1/chat/completions, /v1/embeddings), the table of the cluster's model
// workers, the routing strategy, AI-mode settings and routing statistics.
// Requests are dispatched through "cloud.chat" / "cloud.embeddings" when a
// module serves them, else through this node's inference module.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/json_scanner.h"
#include "base/logger.h"
#include "base/reply.h"
#include "base/workers.h"
#include "inference/chat_json.h"
#include "kernel/event_bus.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"

namespace ostrel::inference {
namespace {

using Json = nlohmann::json;
using base::reply;
using kernel::Request;
using kernel::Response;
namespace fs = std::filesystem;

constexpr identity::SourceCode kRouterSource{0x09, 0x01};
const std::vector<std::string> kStrategies = {"random", "round_robin", "least_connections",
                                              "load_based", "least_latency"};

struct Worker {
  std::string id;
  std::string worker_type;
  std::string url;
  bool local = false;
  bool healthy = true;
  std::string state;
  std::vector<std::string> models;
};

Json worker_json(const Worker& w) {
  return {{"id", w.id},        {"worker_type", w.worker_type}, {"url", w.url},
          {"local", w.local},  {"healthy", w.healthy},         {"state", w.state},
          {"models", w.models}};
}

// "model" and "stream" of a request text, read without a JSON tree when the
// text allows it.
void peek_request(std::string_view body, std::string& model, bool& stream) {
  base::JsonScanner s(body);
  std::string m;
  std::optional<bool> st;
  const bool ok = s.object([&](std::string_view key) {
    if (key == "model") return s.string(m);
    if (key == "stream") return s.boolean(st);
    return s.skip_value(1);
  });
  if (ok) {
    model = m;
    stream = st.value_or(false);
    return;
  }
  Json j = base::parse_json(body);
  if (j.is_object()) {
    if (j.contains("model") && j["model"].is_string()) model = j["model"];
    if (j.contains("stream") && j["stream"].is_boolean()) stream = j["stream"];
  }
}

// The HTTP status an inference error body stands for.
int status_of(const Json& error_body) {
  static const std::map<std::string, int> kStatus = {{"invalid_request_error", 400},
                                                     {"authentication_error", 401},
                                                     {"not_found_error", 404},
                                                     {"conflict_error", 409},
                                                     {"cancelled", 499},
                                                     {"upstream_unreachable", 502},
                                                     {"upstream_timeout", 504},
                                                     {"quota_exceeded", 429}};
  if (!error_body.is_object() || !error_body.contains("error")) return 502;
  const Json& e = error_body["error"];
  const std::string type = e.is_object() ? e.value("type", "") : "";
  auto it = kStatus.find(type);
  return it == kStatus.end() ? 500 : it->second;
}

class RouterModule : public kernel::Module {
 public:
  ~RouterModule() override { stop(); }
  identity::SourceCode source_code() const override { return kRouterSource; }

  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override;
  kernel::HealthStatus health() override;
  void register_routes(kernel::ApiGateway& gw) override;
  void register_syscalls(kernel::SyscallTable& table) override;

 private:
  struct Dispatch {
    int status = 200;
    std::string body;  // JSON text
  };
  // One chat completion (not streamed) or one embeddings request.
  Dispatch chat_(std::string_view body);
  Dispatch embeddings_(const std::string& body);
  Json models_() const;
  void count_(const std::string& endpoint, std::chrono::steady_clock::time_point started,
              bool failed);
  // Replaces the backend table from the controller, else from this node.
  void sync_();
  std::vector<Worker> local_workers_() const;
  void resync_loop_();
  void autodetect_ai_mode_();

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  std::string controller_url_;
  fs::path admin_dir_;

  mutable std::mutex mu_;  // guards everything below up to the thread members
  std::vector<Worker> backends_;
  std::string strategy_ = "round_robin";
  std::size_t rr_cursor_ = 0;
  std::string ai_mode_ = "none";
  std::string ai_model_;
  std::string ai_url_;
  std::uint64_t routed_chat_ = 0;
  std::uint64_t routed_embeddings_ = 0;
  std::uint64_t failed_ = 0;
  double total_ms_ = 0;
  std::atomic<bool> skip_logged_{false};

  base::Workers workers_;  // the periodic resync; joined by stop()
};

bool RouterModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("router"));
  controller_url_ = ctx.config->get("controller_url", "");
  controller_url_ = base::normalise_base_url(controller_url_);
  admin_dir_ = fs::path(ctx.config->get("data_dir", ctx.data_dir)) / "admin";
  const std::string strategy = ctx.config->get("strategy", "round_robin");
  if (std::find(kStrategies.begin(), kStrategies.end(), strategy) != kStrategies.end()) {
    strategy_ = strategy;
  }
  return true;
}

bool RouterModule::start() {
  sync_();
  autodetect_ai_mode_();
  std::size_t n;
  {
    std::lock_guard lock(mu_);
    n = backends_.size();
  }
  log_->info("started — " + std::to_string(n) + " backend(s) tracked");
  workers_.spawn([this] { resync_loop_(); });
  return true;
}

void RouterModule::stop() { workers_.stop(); }

kernel::HealthStatus RouterModule::health() {
  std::size_t healthy = 0;
  {
    std::lock_guard lock(mu_);
    for (const auto& b : backends_) healthy += b.healthy;
  }
  return {kernel::HealthState::healthy,
          "router ok — " + std::to_string(healthy) + " backends healthy"};
}

// ---------------------------------------------------------------------------
// Backends

std::vector<Worker> RouterModule::local_workers_() const {
  std::vector<Worker> out;
  if (ctx_.syscalls->has("inference.models.list")) {
    Worker w{"local-inference", "inference", "local", true, true, "ready", {}};
    Json models =
        base::parse_json(ctx_.syscalls->call(kRouterSource, "inference.models.list", "{}").body);
    if (models.is_object() && models.contains("data") && models["data"].is_array()) {
      for (const auto& m : models["data"]) {
        if (m.is_object() && m.contains("id") && m["id"].is_string()) w.models.push_back(m["id"]);
      }
    }
    out.push_back(std::move(w));
  }
  return out;
}

void RouterModule::sync_() {
  std::vector<Worker> found;
  bool have_source = false;
  auto read_workers = [&found](const Json& j) {
    const Json* list = &j;
    if (j.is_object()) {
      for (const char* key : {"workers", "nodes", "data"}) {
        if (j.contains(key) && j[key].is_array()) {
          list = &j[key];
          break;
        }
      }
    }
    if (!list->is_array()) return false;
    for (const auto& w : *list) {
      if (!w.is_object()) continue;
      Worker x;
      x.id = w.contains("id") && w["id"].is_string() ? w["id"].get<std::string>() : "_adhoc";
      x.worker_type = w.value("worker_type", w.value("type", ""));
      x.url = w.value("url", "");
      x.local = w.value("local", false);
      x.healthy = w.value("healthy", true);
      x.state = w.value("state", "");
      if (w.contains("models") && w["models"].is_array()) {
        for (const auto& m : w["models"]) {
          if (m.is_string()) x.models.push_back(m);
        }
      }
      found.push_back(std::move(x));
    }
    return true;
  };
  if (ctx_.syscalls->has("controller.workers.list")) {
    have_source = true;
    kernel::SyscallResult r = ctx_.syscalls->call(kRouterSource, "controller.workers.list", "{}");
    if (r.status != 0) {
      log_->warn("controller.workers.list returned status=" + std::to_string(r.status));
      return;
    }
    if (!read_workers(base::parse_json(r.body))) {
      log_->warn("failed to parse controller.workers.list response");
      return;
    }
  } else if (!controller_url_.empty()) {
    have_source = true;
    base::HttpHeaders headers = {{"X-Ostrel-Node-Id", ctx_.node_id},
                                 {"X-Ostrel-Node-Token", ctx_.node_token}};
    base::HttpReply r =
        base::http_get(controller_url_, "/api/v1/workers", headers, std::chrono::seconds(5));
    const std::string first = r.transport_ok ? "http " + std::to_string(r.status) : r.error;
    if (!r.ok() || !read_workers(base::parse_json(r.body)) || found.empty()) {
      found.clear();
      log_->info("authed worker-list returned " + first +
                 " — using /api/v1/cluster/topology/public fallback");
      base::HttpReply t = base::http_get(controller_url_, "/api/v1/cluster/topology/public", {},
                                         std::chrono::seconds(5));
      if (!t.ok() || !read_workers(base::parse_json(t.body))) {
        log_->warn("headless worker-list fetch failed: " + first +
                   " AND public topology fallback failed: " +
                   (t.transport_ok ? "http " + std::to_string(t.status) : t.error) +
                   " (controller=" + controller_url_ + ")");
        return;
      }
    }
  } else if (!skip_logged_.exchange(true)) {
    log_->info(
        "no controller.workers.list syscall and no controller_url configured — skipping sync "
        "(harmless when running as part of ostrel-ulvo)");
  }
  (void)have_source;
  // This node's own inference module is always one of the backends.
  for (auto& w : local_workers_()) {
    if (std::none_of(found.begin(), found.end(), [&](const Worker& f) { return f.id == w.id; })) {
      found.push_back(std::move(w));
    }
  }
  std::size_t before;
  {
    std::lock_guard lock(mu_);
    before = backends_.size();
    backends_ = std::move(found);
    if (rr_cursor_ >= backends_.size()) rr_cursor_ = 0;
  }
  (void)before;
}

void RouterModule::resync_loop_() {
  const auto period = std::chrono::seconds(30);
  while (!workers_.wait_for(period)) {
    std::size_t before, after;
    std::string types;
    try {
      {
        std::lock_guard l(mu_);
        before = backends_.size();
      }
      sync_();
      std::lock_guard l(mu_);
      after = backends_.size();
      for (const auto& b : backends_) types += (types.empty() ? "" : ",") + b.worker_type;
    } catch (const std::exception& e) {
      log_->warn(std::string("periodic resync threw: ") + e.what());
      continue;
    } catch (...) {
      log_->warn("periodic resync threw unknown exception");
      continue;
    }
    if (before != after) {
      log_->info("periodic resync: backend count " + std::to_string(before) + " → " +
                 std::to_string(after) + " (" + types + ")");
      ctx_.bus->publish(kRouterSource, "router.backends.changed",
                        base::dump_json({{"before", before}, {"after", after}, {"types", types}}));
    }
  }
}

void RouterModule::autodetect_ai_mode_() {
  const std::string peers = ctx_.config->get("peers");
  if (peers.empty()) {
    log_->info("AI-mode autodetect: no peers in OSTREL_ULVO_PEERS env");
    return;
  }
  std::vector<std::string> list;
  std::string p = peers;
  for (std::size_t start = 0; start <= p.size();) {
    std::size_t comma = p.find(',', start);
    std::string item =
        p.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (!item.empty()) list.push_back(base::normalise_base_url(item));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  for (const auto& peer : list) {
    base::HttpReply r = base::http_get(peer, "/v1/models", {}, std::chrono::seconds(2));
    Json j = r.ok() ? base::parse_json(r.body) : Json();
    if (!j.is_object() || !j.contains("data") || !j["data"].is_array()) continue;
    for (const auto& m : j["data"]) {
      const std::string id = m.is_object() ? m.value("id", "") : "";
      if (id.find("ostrel-router") != std::string::npos) {
        {
          std::lock_guard lock(mu_);
          ai_url_ = peer;
          ai_model_ = id;
        }
        log_->info("AI-mode autodetect: found ostrel-router on " + peer + " (model=" + id +
                   ") — POST /api/v1/ai/configure {\"mode\":\"autonomous\"} to enable");
        return;
      }
    }
  }
  log_->info("AI-mode autodetect: scanned " + std::to_string(list.size()) +
             " peer(s), no ostrel-router model found");
}

// ---------------------------------------------------------------------------
// Dispatch

void RouterModule::count_(const std::string& endpoint,
                          std::chrono::steady_clock::time_point started, bool failed) {
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  std::string strategy;
  {
    std::lock_guard lock(mu_);
    strategy = strategy_;
    (endpoint == "chat" ? routed_chat_ : routed_embeddings_) += 1;
    failed_ += failed;
    total_ms_ += ms;
    if (strategy_ == "round_robin" && !backends_.empty())
      rr_cursor_ = (rr_cursor_ + 1) % backends_.size();
  }
  kernel::MetricRegistry& t = *ctx_.metrics;
  const kernel::MetricRegistry::Labels labels = {{"endpoint", endpoint}, {"strategy", strategy}};
  t.counter("ostrel.router.requests_routed_total", 1, labels);
  t.counter("ostrel.router.routing_decisions_total", 1, labels);
  t.histogram("ostrel.router.routing_duration_ms", ms, {{"endpoint", endpoint}});
}

RouterModule::Dispatch RouterModule::chat_(std::string_view body) {
  const auto started = std::chrono::steady_clock::now();
  const char* syscall = ctx_.syscalls->has("cloud.chat")       ? "cloud.chat"
                        : ctx_.syscalls->has("inference.chat") ? "inference.chat"
                                                               : nullptr;
  if (!syscall) {
    return {503, base::dump_json(base::openai_error_body(
                     "cloud dispatcher not loaded", "service_unavailable", "service_unavailable"))};
  }
  kernel::SyscallResult r = ctx_.syscalls->call(kRouterSource, syscall, body);
  Dispatch d;
  if (r.status == 0) {
    d.body = std::move(r.body);
  } else {
    Json e = base::parse_json(r.body);
    const int status = status_of(e);
    std::string model;
    bool stream = false;
    peek_request(body, model, stream);
    const std::string message = e.is_object() && e.contains("error") && e["error"].is_object()
                                    ? e["error"].value("message", "")
                                    : "";
    if (message.find("no_backend_for_model") != std::string::npos) {
      d = {404, base::dump_json(base::openai_error_body(message, "invalid_request_error",
                                                        "no_backend_for_model", "model"))};
    } else if (status == 404) {
      d = {404,
           base::dump_json(base::openai_error_body(
               "The model `" + model + "` does not exist or is not currently loaded on any worker.",
               "invalid_request_error", "model_not_found", "model"))};
    } else if (status == 400 || status == 401 || status == 429) {
      d = {status, r.body};
    } else {
      Json failed = base::openai_error_body("cloud dispatch failed", "bad_gateway", "bad_gateway");
      if (!message.empty()) failed["error"]["detail"] = message;
      d = {502, base::dump_json(failed)};
    }
  }
  count_("chat", started, d.status != 200);
  return d;
}

RouterModule::Dispatch RouterModule::embeddings_(const std::string& body) {
  const auto started = std::chrono::steady_clock::now();
  const char* syscall = ctx_.syscalls->has("cloud.embeddings")       ? "cloud.embeddings"
                        : ctx_.syscalls->has("inference.embeddings") ? "inference.embeddings"
                                                                     : nullptr;
  if (!syscall) {
    return {503,
            base::dump_json(base::openai_error_body("embeddings dispatcher not loaded",
                                                    "service_unavailable", "service_unavailable"))};
  }
  Json args = base::parse_json(body);
  if (!args.is_object()) {
    return {400, base::dump_json(base::openai_error_body("request body must be a JSON object",
                                                         "invalid_request_error", "invalid_json"))};
  }
  kernel::SyscallResult r = ctx_.syscalls->call(kRouterSource, syscall, body);
  Dispatch d;
  Json out = base::parse_json(r.body);
  if (r.status == 0 && out.is_object() && !out.contains("error")) {
    d.body = std::move(r.body);
  } else {
    const std::string model = args.value("model", "");
    const Json err = out.is_object() ? out.value("error", Json()) : Json();
    const std::string code = err.is_string() ? err.get<std::string>() : "";
    if (code == "missing_model") {
      d = {400, base::dump_json(base::openai_error_body("you must provide a model parameter",
                                                        "invalid_request_error", "missing_model",
                                                        "model"))};
    } else if (err.is_object() && err.value("type", "") == "invalid_request_error") {
      d = {400, r.body};
    } else if (err.is_object() && err.value("type", "") == "not_implemented") {
      d = {404, base::dump_json(base::openai_error_body(
                    "The embeddings model `" + model +
                        "` does not exist or is not currently loaded on any worker.",
                    "invalid_request_error", "model_not_found", "model"))};
    } else {
      d = {502, base::dump_json(base::openai_error_body("embeddings dispatch failed", "bad_gateway",
                                                        "bad_gateway"))};
    }
  }
  count_("embeddings", started, d.status != 200);
  return d;
}

Json RouterModule::models_() const {
  Json data = Json::array();
  std::set<std::string> seen;
  auto add = [&](const Json& m, const std::string& owner) {
    const std::string id = m.is_object()   ? m.value("id", "")
                           : m.is_string() ? m.get<std::string>()
                                           : "";
    if (id.empty() || !seen.insert(id).second) return;
    Json entry = m.is_object() ? m : Json::object();
    entry["id"] = id;
    entry["object"] = "model";
    if (!entry.contains("created")) entry["created"] = base::unix_s();
    if (!entry.contains("owned_by")) entry["owned_by"] = owner;
    data.push_back(entry);
  };
  if (ctx_.syscalls->has("cloud.models")) {
    Json j = base::parse_json(ctx_.syscalls->call(kRouterSource, "cloud.models", "{}").body);
    if (j.is_object() && j.contains("data") && j["data"].is_array()) {
      for (const auto& m : j["data"]) add(m, "cloud");
    }
  }
  std::vector<Worker> workers;
  {
    std::lock_guard lock(mu_);
    workers = backends_;
  }
  for (const auto& w : workers) {
    for (const auto& m : w.models) add(m, w.local ? "ostrel" : w.id);
  }
  return {{"object", "list"}, {"data", data}};
}

// ---------------------------------------------------------------------------
// Routes

void RouterModule::register_routes(kernel::ApiGateway& gw) {
  kernel::RouteOptions large;
  large.max_body = kernel::RouteOptions::kLargeBody;

  // The OpenAI-shaped routes, also under /api/v1/router/v1: the base URL of
  // plain model calls on a node whose /v1 goes through the tool loop, for
  // clients that run their own functions (tool calls come back to them).
  for (const std::string base : {"/v1", "/api/v1/router/v1"}) {
    gw.route("GET", base + "/models",
             [this](const Request&, Response& res) { reply(res, models_()); });
    gw.route("GET", base + "/models/*", [this, base](const Request& req, Response& res) {
      const std::string id = req.path.substr(base.size() + std::string_view("/models/").size());
      const Json models = models_();  // named: a range over a temporary's member dangles
      for (const auto& m : models["data"]) {
        if (m["id"] == id) {
          reply(res, m);
          return;
        }
      }
      reply(res,
            base::openai_error_body("The model `" + id + "` does not exist",
                                    "invalid_request_error", "model_not_found", "model"),
            404);
    });
    gw.route(
        "POST", base + "/chat/completions",
        [this](const Request& req, Response& res) {
          if (!base::require_model_access(req, res)) return;
          std::string model;
          bool stream = false;
          peek_request(req.body, model, stream);
          if (stream && !ctx_.syscalls->has("cloud.chat") &&
              ctx_.syscalls->has_streaming("inference.chat.stream")) {
            const std::string body = req.body;
            res.content_type = "text/event-stream";
            res.headers["Cache-Control"] = "no-cache";
            if (!model.empty() && ctx_.syscalls->has("inference.models.fallback")) {
              Json f = base::parse_json(ctx_.syscalls
                                            ->call(kRouterSource, "inference.models.fallback",
                                                   base::dump_json({{"model", model}}))
                                            .body);
              if (f.is_object() && !base::string_field(f, "instead").empty()) {
                res.headers[chat_json::kFallbackHeader] =
                    model + " -> " + base::string_field(f, "instead");
              }
            }
            res.stream = [this, body](const kernel::StreamWrite& write) {
              const auto started = std::chrono::steady_clock::now();
              const int rc = ctx_.syscalls->call_streaming(
                  kRouterSource, "inference.chat.stream", body,
                  [&write](std::string_view chunk) { return write(chunk); });
              count_("chat", started, rc != 0);
            };
            return;
          }
          Dispatch d = chat_(req.body);
          if (d.status == 200) {
            const std::string note =
                chat_json::fallback_note(model, chat_json::answer_model(d.body));
            if (!note.empty()) res.headers[chat_json::kFallbackHeader] = note;
          }
          res.status = d.status;
          res.body = std::move(d.body);
        },
        large);
    gw.route(
        "POST", base + "/embeddings",
        [this](const Request& req, Response& res) {
          if (!base::require_model_access(req, res)) return;
          Dispatch d = embeddings_(req.body);
          res.status = d.status;
          res.body = std::move(d.body);
        },
        large);
  }

  gw.route("GET", "/api/v1/workers", [this](const Request&, Response& res) {
    if (ctx_.syscalls->has("controller.workers.list")) {
      Json j = base::parse_json(
          ctx_.syscalls->call(kRouterSource, "controller.workers.list", "{}").body);
      reply(res, j.is_discarded() ? Json{{"workers", Json::array()}} : j);
      return;
    }
    Json list = Json::array();
    std::lock_guard lock(mu_);
    for (const auto& b : backends_) list.push_back(worker_json(b));
    reply(res, {{"workers", list}, {"count", list.size()}});
  });
  gw.route("GET", "/api/v1/router/backends", [this](const Request&, Response& res) {
    std::lock_guard lock(mu_);
    Json list = Json::array();
    for (const auto& b : backends_) list.push_back(worker_json(b));
    reply(res, {{"count", list.size()},
                {"strategy", strategy_},
                {"rr_cursor", rr_cursor_},
                {"backends", list}});
  });
  gw.route("PUT", "/api/v1/router/strategy", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string s = body.contains("strategy") && body["strategy"].is_string()
                              ? body["strategy"].get<std::string>()
                              : "";
    if (std::find(kStrategies.begin(), kStrategies.end(), s) == kStrategies.end()) {
      base::fail(res, 400, "invalid strategy: " + s, {{"valid", kStrategies}});
      return;
    }
    {
      std::lock_guard lock(mu_);
      strategy_ = s;
      rr_cursor_ = 0;
    }
    log_->info("strategy changed to: " + s);
    reply(res, {{"status", "ok"}, {"strategy", s}});
  });
  gw.route("PUT", "/api/v1/router/xlstm-model", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    if (!body.contains("path") || !body["path"].is_string() ||
        body["path"].get<std::string>().empty()) {
      base::fail(res, 400, "missing_path");
      return;
    }
    const fs::path file = admin_dir_ / "router-xlstm.json";
    std::string error;
    if (!base::write_file_atomically(
            file,
            base::dump_json({{"path", body["path"]}, {"persisted_at", base::unix_s()}}) + "\n",
            error)) {
      base::fail(res, 500, "persist_failed");
      return;
    }
    const std::string path = body["path"];
    const std::string note = "xLSTM model path persisted to " + file.string() +
                             " — set OSTREL_ROUTER_XLSTM_MODEL=" + path +
                             " in service env + restart to activate";
    log_->info(note);
    reply(res, {{"status", "persisted"}, {"path", path}, {"note", note}});
  });
  gw.route("GET", "/api/v1/router/stats", [this](const Request&, Response& res) {
    std::lock_guard lock(mu_);
    const std::uint64_t total = routed_chat_ + routed_embeddings_;
    std::size_t healthy = 0;
    for (const auto& b : backends_) healthy += b.healthy;
    reply(res, {{"strategy", strategy_},
                {"rr_cursor", rr_cursor_},
                {"backends", backends_.size()},
                {"healthy_backends", healthy},
                {"requests_routed",
                 {{"chat", routed_chat_}, {"embeddings", routed_embeddings_}, {"total", total}}},
                {"failed", failed_},
                {"avg_routing_ms", total ? total_ms_ / static_cast<double>(total) : 0.0},
                {"ai_mode", ai_mode_}});
  });
  auto ai_settings = [this] {
    std::lock_guard lock(mu_);
    return Json{{"mode", ai_mode_}, {"llm_model", ai_model_}, {"inference_url", ai_url_}};
  };
  gw.route("GET", "/api/v1/ai/configure",
           [ai_settings](const Request&, Response& res) { reply(res, ai_settings()); });
  gw.route("POST", "/api/v1/ai/configure", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string mode =
        body.contains("mode") && body["mode"].is_string() ? body["mode"].get<std::string>() : "";
    if (mode != "autonomous" && mode != "advisory") {
      base::fail(res, 400, "invalid_mode", {{"valid", {"autonomous", "advisory"}}});
      return;
    }
    std::string model, url;
    if (!base::read_string(body, "llm_model", model, res) ||
        !base::read_string(body, "inference_url", url, res))
      return;
    {
      std::lock_guard lock(mu_);
      ai_mode_ = mode;
      if (!model.empty()) ai_model_ = model;
      if (!url.empty()) ai_url_ = url;
      model = ai_model_;
      url = ai_url_;
    }
    log_->info("AI-mode configured: mode=" + mode + " url=" + url + " model=" + model);
    reply(
        res,
        {{"status", "configured"},
         {"mode", mode},
         {"llm_model", model},
         {"inference_url", url},
         {"note",
          "alpha66 ships the API + autodetect; actual AI-controlled dispatch lands in alpha67."}});
  });
}

void RouterModule::register_syscalls(kernel::SyscallTable& table) {
  table.register_syscall(kRouterSource, "router.sync", [this](std::string_view) {
    sync_();
    std::lock_guard lock(mu_);
    return base::syscall_ok({{"ok", true}, {"backends", backends_.size()}});
  });
  // The front door's dispatch for modules of this node (the edge module's
  // tool loop reaches the router here when no router address is set).
  // Answers {"status": HTTP status, "body": the answer's JSON}.
  // The body is JSON this node made: it is wrapped as it is, not parsed and
  // written again (a long answer would otherwise be held three times).
  auto wrap = [](Dispatch d) {
    std::string out;
    out.reserve(32 + d.body.size());
    out += "{\"status\":";
    out += std::to_string(d.status);
    out += ",\"body\":";
    out += d.body.empty() ? std::string_view("null") : std::string_view(d.body);
    out += '}';
    d.body = std::string();
    return kernel::SyscallResult{d.status == 200 ? 0 : -1, std::move(out)};
  };
  table.register_syscall(kRouterSource, "router.chat",
                         [this, wrap](std::string_view args) { return wrap(chat_(args)); });
  table.register_syscall(kRouterSource, "router.embeddings", [this, wrap](std::string_view args) {
    return wrap(embeddings_(std::string(args)));
  });
  table.register_syscall(kRouterSource, "router.models",
                         [this](std::string_view) { return base::syscall_ok(models_()); });
}

}  // namespace
}  // namespace ostrel::inference

static ostrel::kernel::ModuleRegistrar<ostrel::inference::RouterModule> RouterModule_registrar(
    "router");
