// The "dream" module: runs the dream engine on a timer and on request, keeps
// per-conversation dream profiles and the skill catalogue that cycles feed.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/logger.h"
#include "base/reply.h"
#include "dreams/dream_engine.h"
#include "dreams/memory_sink.h"
#include "dreams/profile_store.h"
#include "dreams/skill_catalog.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"

namespace ostrel::dreams {
namespace {

using Json = nlohmann::json;
using base::reply;
using kernel::Request;
using kernel::Response;
namespace fs = std::filesystem;

constexpr identity::SourceCode kDreamSource{0x0c, 0x01};
constexpr const char* kSkillsPrefix = "/api/v1/skills/";

bool config_bool(const kernel::ConfigView& cfg, const std::string& key, bool fallback) {
  const std::string v = cfg.get(key, "");
  if (v == "true" || v == "1" || v == "yes" || v == "on") return true;
  if (v == "false" || v == "0" || v == "no" || v == "off") return false;
  return fallback;
}

double config_number(const kernel::ConfigView& cfg, const std::string& key, double fallback) {
  const std::string v = cfg.get(key, "");
  char* end = nullptr;
  const double d = std::strtod(v.c_str(), &end);
  return v.empty() || *end != '\0' ? fallback : d;
}

// The configuration a client sees and may change.
Json config_json(const DreamConfig& c) {
  return {{"enabled", c.enabled},
          {"auto_cycle", c.auto_cycle},
          {"cycle_interval", c.cycle_interval_seconds},
          {"cycle_interval_seconds", c.cycle_interval_seconds},
          {"min_sessions", c.min_sessions},
          {"idle_only", c.idle_only},
          {"idle_threshold_load", c.idle_threshold_load},
          {"max_sessions_per_run", c.max_sessions_per_run},
          {"min_session_age_hours", c.min_session_age_hours},
          {"llm_url", c.llm_url},
          {"llm_model", c.llm_model},
          {"llm_timeout_ms", c.llm_timeout_ms},
          {"embedding_url", c.embedding_url},
          {"embedding_model", c.embedding_model},
          {"tenant", c.tenant},
          {"namespace", c.ns}};
}

// Applies the members of `changes` to `c`: false with the offending field
// in `field` and the reason in `why` on an unknown member or a bad value.
bool apply_config(const Json& changes, DreamConfig& c, std::string& field, std::string& why) {
  for (const auto& item : changes.items()) {
    const std::string& key = item.key();
    const Json& v = item.value();  // named, not bound: the lambdas below use it
    field = key;
    auto whole = [&](std::int64_t lo, std::int64_t hi, std::int64_t& out) {
      if (!v.is_number_integer() || v.get<std::int64_t>() < lo || v.get<std::int64_t>() > hi) {
        why = "a whole number from " + std::to_string(lo) + " to " + std::to_string(hi);
        return false;
      }
      out = v.get<std::int64_t>();
      return true;
    };
    auto flag = [&](bool& out) {
      if (!v.is_boolean()) {
        why = "true or false";
        return false;
      }
      out = v.get<bool>();
      return true;
    };
    auto text = [&](std::string& out) {
      if (!v.is_string() || v.get_ref<const std::string&>().size() > 2048) {
        why = "a string";
        return false;
      }
      out = v.get<std::string>();
      return true;
    };
    bool ok = true;
    if (key == "enabled") {
      ok = flag(c.enabled);
    } else if (key == "auto_cycle") {
      ok = flag(c.auto_cycle);
    } else if (key == "idle_only") {
      ok = flag(c.idle_only);
    } else if (key == "cycle_interval" || key == "cycle_interval_seconds") {
      ok = whole(1, 7 * 86400, c.cycle_interval_seconds);
    } else if (key == "min_sessions") {
      ok = whole(1, 100000, c.min_sessions);
    } else if (key == "max_sessions_per_run") {
      ok = whole(1, 10000, c.max_sessions_per_run);
    } else if (key == "llm_timeout_ms") {
      ok = whole(100, 600000, c.llm_timeout_ms);
    } else if (key == "min_session_age_hours" || key == "idle_threshold_load") {
      if (!v.is_number() || v.get<double>() < 0 || v.get<double>() > 1e6) {
        why = "a number of at least 0";
        ok = false;
      } else {
        (key == "min_session_age_hours" ? c.min_session_age_hours : c.idle_threshold_load) =
            v.get<double>();
      }
    } else if (key == "llm_url") {
      ok = text(c.llm_url);
      if (ok && !c.llm_url.empty() && c.llm_url.rfind("http://", 0) != 0 &&
          c.llm_url.rfind("https://", 0) != 0) {
        why = "an http(s) URL or empty";
        ok = false;
      }
    } else if (key == "llm_model") {
      ok = text(c.llm_model);
    } else if (key == "embedding_url") {
      ok = text(c.embedding_url);
    } else if (key == "embedding_model") {
      ok = text(c.embedding_model);
    } else {
      why = "unknown setting";
      ok = false;
    }
    if (!ok) return false;
  }
  return true;
}

// Conversations whose profile says "dream": false stay out of cycles.
class ProfileFilteredSource : public ISessionSource {
 public:
  ProfileFilteredSource(std::shared_ptr<ISessionSource> inner, std::shared_ptr<ProfileStore> p)
      : inner_(std::move(inner)), profiles_(std::move(p)) {}
  std::vector<SessionRecord> list_completed(std::size_t limit,
                                            std::int64_t min_age_seconds) override {
    std::vector<SessionRecord> out = inner_->list_completed(limit, min_age_seconds);
    std::erase_if(out, [&](const SessionRecord& s) { return !profiles_->dreamable(s.id); });
    return out;
  }
  bool mark_dreamed(const std::string& id) override { return inner_->mark_dreamed(id); }

 private:
  std::shared_ptr<ISessionSource> inner_;
  std::shared_ptr<ProfileStore> profiles_;
};

// What one cycle did, as the routes show it.
struct CycleState {
  std::string state = "idle";  // idle | running | completed | failed
  std::string trigger;
  std::string reason;
  std::string source;
  std::int64_t started_at_ms = 0;
  std::int64_t finished_at_ms = 0;
  Json scopes = Json::array();
  std::int64_t candidates_count = 0;
  std::vector<std::string> distilled_skill_ids;
};

Json cycle_json(const CycleState& c) {
  return {{"state", c.state},
          {"trigger", c.trigger},
          {"reason", c.reason},
          {"source", c.source},
          {"started_at_ms", c.started_at_ms},
          {"finished_at_ms", c.finished_at_ms},
          {"scopes", c.scopes},
          {"scope_count", c.scopes.size()},
          {"candidates_count", c.candidates_count},
          {"distilled_count", c.distilled_skill_ids.size()},
          {"distilled_skill_ids", c.distilled_skill_ids}};
}

class DreamModule : public kernel::Module {
 public:
  ~DreamModule() override { stop(); }
  identity::SourceCode source_code() const override { return kDreamSource; }

  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override;
  kernel::HealthStatus health() override;
  void register_routes(kernel::ApiGateway& gw) override;
  void register_syscalls(kernel::SyscallTable& table) override;

 private:
  // One cycle with its bookkeeping: the engine's report, the skills it
  // distilled and the cycle state the routes show.
  Json run_cycle_(const std::string& trigger, const std::string& reason, const std::string& source);
  bool model_call_(const std::string& request, std::string& answer, std::string& error);
  bool save_config_(const DreamConfig& c, std::string& error);
  void register_skill_routes_(kernel::ApiGateway& gw);

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  fs::path root_;
  fs::path config_path_;
  std::string controller_url_;
  double distill_threshold_ = 0.8;
  std::shared_ptr<ProfileStore> profiles_;
  std::unique_ptr<SkillCatalog> skills_;
  std::unique_ptr<DreamEngine> engine_;

  std::mutex config_write_mu_;   // serialises read-modify-write of the saved config
  mutable std::mutex state_mu_;  // guards current_
  CycleState current_;

  std::mutex async_mu_;  // guards async_; the thread is joined by stop()
  std::thread async_;
  std::atomic<bool> async_busy_{false};
};

// ---------------------------------------------------------------------------
// Lifecycle

bool DreamModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("dream"));
  const kernel::ConfigView& cfg = *ctx.config;
  const fs::path data_dir = cfg.get("data_dir", ctx.data_dir);
  root_ = data_dir / "dream";
  config_path_ = root_ / "config.json";

  const fs::path profiles_dir = root_ / "profiles";
  std::error_code ec;
  fs::create_directories(profiles_dir, ec);
  if (ec) {
    log_->error("profiles_dir mkdir failed: " + ec.message());
  } else {
    log_->info("initialize — profiles_dir=" + profiles_dir.string());
  }
  base::remove_stale_temporaries(root_, true);
  profiles_ = std::make_shared<ProfileStore>(profiles_dir);

  controller_url_ = cfg.get("controller_url");

  DreamConfig c;
  c.enabled = config_bool(cfg, "enabled", c.enabled);
  c.auto_cycle = config_bool(cfg, "auto_cycle", c.auto_cycle);
  c.cycle_interval_seconds = static_cast<std::int64_t>(
      config_number(cfg, "cycle_interval_seconds", static_cast<double>(c.cycle_interval_seconds)));
  c.idle_only = config_bool(cfg, "idle_only", c.idle_only);
  c.idle_threshold_load = config_number(cfg, "idle_threshold_load", c.idle_threshold_load);
  c.max_sessions_per_run = static_cast<std::int64_t>(
      config_number(cfg, "max_sessions_per_run", static_cast<double>(c.max_sessions_per_run)));
  c.min_session_age_hours = config_number(cfg, "min_session_age_hours", c.min_session_age_hours);
  c.min_sessions = static_cast<std::int64_t>(
      config_number(cfg, "min_sessions", static_cast<double>(c.min_sessions)));
  c.llm_url = cfg.get("llm_url", c.llm_url);
  c.llm_model = cfg.get("llm_model", c.llm_model);
  c.llm_timeout_ms = static_cast<std::int64_t>(
      config_number(cfg, "llm_timeout_ms", static_cast<double>(c.llm_timeout_ms)));
  c.embedding_url = cfg.get("embedding_url", c.embedding_url);
  c.embedding_model = cfg.get("embedding_model", c.embedding_model);
  c.tenant = cfg.get("tenant", c.tenant);
  c.ns = cfg.get("namespace", c.ns);
  distill_threshold_ = config_number(cfg, "distill_threshold", distill_threshold_);

  // Changes made through the API outlive restarts.
  bool opened = false;
  Json saved = base::read_json_file(config_path_, opened);
  if (opened) {
    std::string field, why;
    DreamConfig merged = c;
    if (saved.is_object() && apply_config(saved, merged, field, why)) {
      c = merged;
    } else {
      log_->warn("saved settings in " + config_path_.string() + " ignored (" +
                 (saved.is_object() ? field + ": " + why : "not JSON") + ")");
    }
  }

  skills_ = std::make_unique<SkillCatalog>(root_ / "skills.json");
  std::string error;
  if (!skills_->load(error)) log_->warn("skill catalogue: " + error + " — starting empty");

  std::string conversations_root = cfg.get("conversations_root", "");
  if (conversations_root.empty()) conversations_root = data_dir.string();
  auto sessions = std::make_shared<ProfileFilteredSource>(
      std::make_shared<FilesystemSessionSource>(conversations_root, *log_), profiles_);
  std::string data_node = cfg.get("data_node_url", "");
  if (data_node.empty()) data_node = controller_url_;
  kernel::SyscallTable* syscalls = ctx.syscalls;
  auto sink = std::make_shared<MatrixMemorySink>(
      data_node, ctx.cluster_secret,
      [syscalls](const std::string& args) -> std::optional<MatrixMemorySink::LocalAnswer> {
        if (!syscalls->has("data.memory.store")) return std::nullopt;
        kernel::SyscallResult r = syscalls->call(kDreamSource, "data.memory.store", args);
        return MatrixMemorySink::LocalAnswer{r.status, r.body};
      },
      *log_);
  engine_ = std::make_unique<DreamEngine>(
      c, sessions, sink,
      [this](const std::string& request, std::string& answer, std::string& error) {
        return model_call_(request, answer, error);
      },
      *log_);
  return true;
}

bool DreamModule::start() {
  const DreamConfig c = engine_->config();
  log_->info(std::string("started — auto_cycle=") + (c.auto_cycle ? "on" : "off") +
             " interval=" + std::to_string(c.cycle_interval_seconds));
  engine_->start_periodic();
  return true;
}

void DreamModule::stop() {
  if (engine_) engine_->stop_periodic();
  std::lock_guard lock(async_mu_);
  if (async_.joinable()) async_.join();
}

kernel::HealthStatus DreamModule::health() {
  std::string state;
  {
    std::lock_guard lock(state_mu_);
    state = current_.state;
  }
  return {kernel::HealthState::healthy,
          "dream ok — current=" + state +
              ", history=" + std::to_string(engine_ ? engine_->history().size() : 0)};
}

bool DreamModule::save_config_(const DreamConfig& c, std::string& error) {
  Json saved = config_json(c);
  saved.erase("cycle_interval_seconds");  // one name for one setting on disk
  saved.erase("tenant");
  saved.erase("namespace");
  return base::write_file_atomically(config_path_, base::dump_json(saved) + "\n", error);
}

// ---------------------------------------------------------------------------
// Cycles

bool DreamModule::model_call_(const std::string& request, std::string& answer, std::string& error) {
  const DreamConfig c = engine_->config();
  if (c.llm_url.empty()) {
    // This node's own inference module.
    if (!ctx_.syscalls->has("inference.chat")) {
      error = "no llm_url configured and no inference module on this node";
      return false;
    }
    kernel::SyscallResult r = ctx_.syscalls->call(kDreamSource, "inference.chat", request);
    if (r.status != 0) {
      error = "inference.chat status=" + std::to_string(r.status) + " " + r.body.substr(0, 200);
      return false;
    }
    answer = std::move(r.body);
    return true;
  }
  std::string base, prefix;
  if (!base::split_url(c.llm_url, base, prefix)) {
    error = "llm_url is not a URL: " + c.llm_url;
    return false;
  }
  while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
  base::HttpReply r = base::http_post(base, prefix + "/v1/chat/completions", request, {},
                                      std::chrono::milliseconds(c.llm_timeout_ms));
  if (!r.transport_ok) {
    error = "transport: " + r.error;
    return false;
  }
  if (!r.ok()) {
    error = "http " + std::to_string(r.status) + " " + r.body.substr(0, 200);
    return false;
  }
  answer = std::move(r.body);
  return true;
}

Json DreamModule::run_cycle_(const std::string& trigger, const std::string& reason,
                             const std::string& source) {
  {
    std::lock_guard lock(state_mu_);
    current_ = CycleState{};
    current_.state = "running";
    current_.trigger = trigger;
    current_.reason = reason;
    current_.source = source;
    current_.started_at_ms = base::unix_ms();
  }
  DreamReport report = engine_->run_once(trigger);
  std::vector<std::string> distilled = skills_->distill(report.themes, distill_threshold_);

  Json scopes = Json::array();
  std::set<std::pair<std::string, std::string>> seen;
  auto add_scope = [&](const char* kind, const std::string& id) {
    if (!id.empty() && seen.insert({kind, id}).second)
      scopes.push_back({{"kind", kind}, {"id", id}});
  };
  for (const auto& used : report.sessions_used) {
    add_scope("tenant", used.tenant_id);
    add_scope("user", used.user_id);
  }
  Json cycle;
  {
    std::lock_guard lock(state_mu_);
    current_.state = report.error.empty() ? "completed" : "failed";
    current_.finished_at_ms = base::unix_ms();
    current_.scopes = scopes;
    current_.candidates_count = report.themes_extracted;
    current_.distilled_skill_ids = distilled;
    cycle = cycle_json(current_);
  }
  return {{"ok", report.error.empty()}, {"cycle", cycle}, {"report", to_json(report)}};
}

// ---------------------------------------------------------------------------
// Routes

void DreamModule::register_routes(kernel::ApiGateway& gw) {
  gw.route("POST", "/api/v1/dream/cycle", [this](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.run")) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    std::string reason = "manual request";
    if (!base::read_string(body, "reason", reason, res)) return;
    auto async = body.find("async");
    if (async != body.end() && !async->is_boolean()) {
      base::fail(res, 400, "invalid_field", "async must be true or false");
      return;
    }
    if (async != body.end() && async->get<bool>()) {
      std::lock_guard lock(async_mu_);
      if (async_busy_.exchange(true)) {
        base::fail(res, 409, "cycle_running", "a cycle started earlier is still running");
        return;
      }
      if (async_.joinable()) async_.join();
      {
        std::lock_guard state(state_mu_);
        current_ = CycleState{};
        current_.state = "running";
        current_.trigger = "manual";
        current_.reason = reason;
        current_.source = "api";
        current_.started_at_ms = base::unix_ms();
      }
      async_ = std::thread([this, reason] {
        run_cycle_("manual", reason, "api");
        async_busy_ = false;
      });
      Json started;
      {
        std::lock_guard state(state_mu_);
        started = cycle_json(current_);
      }
      reply(res, {{"ok", true}, {"accepted", true}, {"cycle", started}}, 202);
      return;
    }
    reply(res, run_cycle_("manual", reason, "api"));
  });

  gw.route("GET", "/api/v1/dream/config", [this](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.read")) return;
    reply(res, config_json(engine_->config()));
  });
  gw.route("PUT", "/api/v1/dream/config", [this](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.run")) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    std::lock_guard lock(config_write_mu_);
    DreamConfig c = engine_->config();
    std::string field, why, error;
    if (!apply_config(body, c, field, why)) {
      base::fail(res, 400, "invalid_field", {{"field", field}, {"message", field + ": " + why}});
      return;
    }
    if (!save_config_(c, error)) {
      log_->warn("dream settings not saved: " + error);
      base::fail(res, 500, "persist_failed");
      return;
    }
    engine_->set_config(c);
    log_->info(std::string("settings changed — auto_cycle=") + (c.auto_cycle ? "on" : "off") +
               " interval=" + std::to_string(c.cycle_interval_seconds));
    reply(res, config_json(c));
  });
  gw.route("GET", "/api/v1/dream/current", [this](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.read")) return;
    std::lock_guard lock(state_mu_);
    reply(res, cycle_json(current_));
  });
  gw.route("GET", "/api/v1/dream/history", [this](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.read")) return;
    std::size_t limit = DreamEngine::kHistory;
    const std::string l = req.param("limit");
    if (!l.empty()) {
      char* end = nullptr;
      const long n = std::strtol(l.c_str(), &end, 10);
      if (*end != '\0' || n < 1 || n > static_cast<long>(DreamEngine::kHistory)) {
        base::fail(res, 400, "invalid_limit", "limit must be between 1 and 50");
        return;
      }
      limit = static_cast<std::size_t>(n);
    }
    Json list = Json::array();
    for (const auto& r : engine_->history()) {
      if (list.size() >= limit) break;
      list.push_back(to_json(r));
    }
    reply(res, {{"history", list}, {"count", list.size()}});
  });
  gw.route("GET", "/api/v1/dream/phases", [this](const Request&, Response& res) {
    std::string state;
    {
      std::lock_guard lock(state_mu_);
      state = current_.state;
    }
    Json phases = Json::array(
        {{{"name", "collect"},
          {"description", "Finished conversations not yet dreamed, oldest first"}},
         {{"name", "extract"},
          {"description", "Up to three themes per conversation from the language model"}},
         {{"name", "consolidate"},
          {"description", "Each theme stored in matrix memory; the conversation marked dreamed"}},
         {{"name", "distill"},
          {"description", "Important themes proposed as inactive skills for review"}}});
    reply(res, {{"phases", phases}, {"current", state}});
  });
  register_skill_routes_(gw);
}

void DreamModule::register_skill_routes_(kernel::ApiGateway& gw) {
  auto id_of = [](const Request& req, std::string_view suffix = {}) {
    std::string id = req.path.substr(std::string_view(kSkillsPrefix).size());
    if (!suffix.empty() && id.size() > suffix.size()) id.resize(id.size() - suffix.size());
    return id;
  };
  gw.route("GET", "/api/v1/skills", [this](const Request& req, Response& res) {
    reply(res, skills_->list(req.param("active") == "true"));
  });
  gw.route("POST", "/api/v1/skills", [this](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.skills")) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    int status = 200;
    Json out = skills_->create(body, status);
    reply(res, out, status);
  });
  gw.route("GET", "/api/v1/skills/*", [this, id_of](const Request& req, Response& res) {
    int status = 200;
    Json out = skills_->get(id_of(req), status);
    reply(res, out, status);
  });
  gw.route("PUT", "/api/v1/skills/*", [this, id_of](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.skills")) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    int status = 200;
    Json out = skills_->update(id_of(req), body, status);
    reply(res, out, status);
  });
  gw.route("DELETE", "/api/v1/skills/*", [this, id_of](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "dream.skills")) return;
    int status = 200;
    Json out = skills_->remove(id_of(req), status);
    reply(res, out, status);
  });
  gw.route("POST", "/api/v1/skills/*/apply", [this, id_of](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    int status = 200;
    Json out = skills_->apply(id_of(req, "/apply"), body, status);
    reply(res, out, status);
  });
}

// ---------------------------------------------------------------------------
// Syscalls

void DreamModule::register_syscalls(kernel::SyscallTable& table) {
  using base::json_syscall;
  auto answer = [](Json out) {
    if (out.contains("error")) return base::syscall_error_body(out);
    return base::syscall_ok(out);
  };
  table.register_syscall(kDreamSource, "dream.cycle.trigger", json_syscall([this](const Json& a) {
                           std::string reason = "syscall";
                           if (auto r = a.find("reason"); r != a.end() && r->is_string()) {
                             reason = *r;
                           }
                           return base::syscall_ok(run_cycle_("manual", reason, "syscall"));
                         }),
                         kernel::SyscallAccess::scoped("dream.run"));
  table.register_syscall(kDreamSource, "dream.current", json_syscall([this](const Json&) {
                           std::lock_guard lock(state_mu_);
                           return base::syscall_ok(cycle_json(current_));
                         }),
                         kernel::SyscallAccess::scoped("dream.read"));
  table.register_syscall(
      kDreamSource, "dream.profile.update",
      json_syscall([this, answer](const Json& a) { return answer(profiles_->update(a)); }),
      kernel::SyscallAccess::scoped("dream.run"));
  table.register_syscall(
      kDreamSource, "dream.profile.get",
      json_syscall([this, answer](const Json& a) { return answer(profiles_->get(a)); }),
      kernel::SyscallAccess::scoped("dream.run"));
  table.register_syscall(
      kDreamSource, "dream.profile.clear",
      json_syscall([this, answer](const Json& a) { return answer(profiles_->clear(a)); }),
      kernel::SyscallAccess::scoped("dream.run"));
  table.register_syscall(kDreamSource, "dream.profiles.list", json_syscall([this](const Json&) {
                           return base::syscall_ok(profiles_->list());
                         }),
                         kernel::SyscallAccess::scoped("dream.run"));
}

}  // namespace
}  // namespace ostrel::dreams

static ostrel::kernel::ModuleRegistrar<ostrel::dreams::DreamModule> DreamModule_registrar("dream");
