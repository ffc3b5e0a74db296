// The "agent" module: retrieval-augmented chat sessions with journals that
// outlive the process, intent handling, the dynamic tool table and
// policy-checked tool execution.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "agents/agent_sessions.h"
#include "agents/dynamic_tools.h"
#include "agents/intents.h"
#include "agents/prompt.h"
#include "base/access.h"
#include "base/clock.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/logger.h"
#include "base/names.h"
#include "base/reply.h"
#include "base/trace.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_access.h"
#include "kernel/syscall_table.h"
#include "praxis/runtime_seam.h"
#include "tools/tool_result.h"

namespace ostrel::agents {
namespace {

using Json = nlohmann::json;
using base::reply;
using kernel::Request;
using kernel::Response;
namespace fs = std::filesystem;

constexpr identity::SourceCode kAgentSource{0x06, 0x02};
constexpr const char* kUnavailable = "(inference unavailable)";

// A domain-matrix cell: what a (agent type, domain) pair adds to a turn.
struct DomainOverride {
  std::string model;
  std::string system;
  std::string route;
};

// One chat turn as asked for.
struct ChatRequest {
  std::string session_id;
  std::string message;
  std::string agent_type = "General";
  std::string domain = "general";
  std::string tenant = "default";
  std::string owner = "anon";
  std::string knowledge_base_id;
  std::string model;
  std::int64_t top_k = 5;
  bool intent_detect = true;
  bool stream = false;
};

struct ChatAnswer {
  int status = 200;
  Json body;
};

// Who runs a tool: the context the policy check sees.
struct ToolContext {
  std::string user_id = "anon";
  std::string role = "viewer";
  std::string tenant_id = "default";
  std::string project_id;
  std::string trace_id;
};

bool is_off(const std::string& v) { return v == "off" || v == "false" || v == "0" || v == "no"; }

std::string trace_id_now() {
  const auto* c = obs::current_context();
  return c && c->valid() ? c->trace_id : std::string();
}

// The server-sent events of a whole reply: the content chunk, the closing
// chunk and the end marker.
std::string reply_events(const std::string& session_id, const std::string& reply_text) {
  const std::string id = "chatcmpl-agent-" + session_id.substr(0, 8);
  Json chunk = {
      {"id", id},
      {"object", "chat.completion.chunk"},
      {"model", "agent"},
      {"choices",
       {{{"index", 0}, {"delta", {{"content", reply_text}}}, {"finish_reason", nullptr}}}}};
  Json done = {{"id", id},
               {"object", "chat.completion.chunk"},
               {"model", "agent"},
               {"choices", {{{"index", 0}, {"delta", Json::object()}, {"finish_reason", "stop"}}}},
               {"session_id", session_id}};
  return "data: " + base::dump_json(chunk) + "\n\ndata: " + base::dump_json(done) +
         "\n\ndata: [DONE]\n\n";
}

std::string error_events(const std::string& message) {
  return "data: " + base::dump_json(base::error_body(message)) + "\n\ndata: [DONE]\n\n";
}

class AgentModule : public kernel::Module {
 public:
  ~AgentModule() override { stop(); }
  identity::SourceCode source_code() const override { return kAgentSource; }

  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override;
  kernel::HealthStatus health() override;
  void register_routes(kernel::ApiGateway& gw) override;
  void register_syscalls(kernel::SyscallTable& table) override;

 private:
  // Reads a chat body; false with the error answer filled.
  bool parse_chat_(const Json& body, ChatRequest& r, ChatAnswer& error) const;
  ChatAnswer chat_(ChatRequest r);
  std::string handle_intent_(const Intent& intent, const ChatRequest& r);
  std::optional<DomainOverride> cell_(const std::string& agent_type,
                                      const std::string& domain) const;
  Json rag_search_(const std::string& tenant, const std::string& kb, const std::string& query,
                   std::int64_t top_k);
  Json rag_search_remote_(const Json& request);
  // The model's reply text, or "" when no model answered.
  // The answer's text, and in `answered_by` the model that gave it (as the
  // model list names it).
  std::string model_call_(const std::string& request, std::string* answered_by = nullptr);
  Json exec_tool_call_(const Json& call, const ToolContext& tc, const Request* http);
  ToolContext tool_context_(const Request& req, const Json& body) const;
  std::string role_of_(const Request& req) const;
  // The session named in a route path, or an error answered.
  std::shared_ptr<Session> session_for_route_(const Request& req, Response& res,
                                              const std::string& prefix);
  Json session_json_(const Session& s, bool with_all_fields) const;
  void register_later_families_(kernel::ApiGateway& gw);

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  std::unique_ptr<AgentSessions> sessions_;
  std::unique_ptr<DynamicTools> tools_;
  std::string controller_url_;
  std::string api_key_;
  std::string default_model_ = "ostrel-echo";
  std::size_t history_window_ = 40;
  std::size_t max_message_bytes_ = 1 << 20;
  std::unique_ptr<praxis::Runtime> runtime_;
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();

  mutable std::mutex matrix_mu_;  // guards matrix_
  std::map<std::pair<std::string, std::string>, DomainOverride> matrix_;
};

// ---------------------------------------------------------------------------
// Lifecycle

bool AgentModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("agent"));
  const kernel::ConfigView& cfg = *ctx.config;
  const fs::path data_dir = cfg.get("data_dir", ctx.data_dir);
  const fs::path dir = data_dir / "agent" / "sessions";
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) log_->warn("could not create sessions dir " + dir.string() + ": " + ec.message());

  controller_url_ = base::normalise_base_url(cfg.get("controller_url"));
  api_key_ = cfg.get("api_key");
  default_model_ = cfg.get("default_model", "ostrel-echo");
  const std::string window = cfg.get("history_messages", "40");
  history_window_ =
      static_cast<std::size_t>(std::max(0L, std::strtol(window.c_str(), nullptr, 10)));
  max_message_bytes_ = static_cast<std::size_t>(
      std::max<std::int64_t>(1, cfg.get_int("max_message_bytes", 1 << 20)));

  {
    std::lock_guard lock(matrix_mu_);
    matrix_[{"Researcher", "medicine"}] = {
        "meditron:70b",
        "You are specialized in clinical medicine. Cite DOIs when referencing peer-reviewed "
        "sources.",
        "agent/medicine"};
  }

  sessions_ = std::make_unique<AgentSessions>(dir, *log_);
  const std::size_t loaded = sessions_->load();
  tools_ = std::make_unique<DynamicTools>(data_dir / "agent" / "dynamic_tools.json");
  std::string error;
  if (!tools_->load(error)) log_->warn("dynamic tools: " + error + " — starting with none");

  bool praxis = !is_off(cfg.get("praxis.enabled", "true"));
  if (praxis) {
    praxis::RuntimeOptions o;
    o.worker_threads = std::atoi(cfg.get("praxis.worker_threads", "8").c_str());
    o.tick_interval_ms = std::atoi(cfg.get("praxis.tick_interval_ms", "50").c_str());
    runtime_ = praxis::make_runtime(o);
    praxis = runtime_ != nullptr;
  }
  log_->info("initialize — 1 domain matrix cell(s) seeded, sessions_dir=" + dir.string() +
             ", controller=" + (controller_url_.empty() ? "node-local" : controller_url_) +
             ", praxis=" + (praxis ? "on" : "off"));
  if (loaded > 0) log_->info("sessions restored from journals: " + std::to_string(loaded));
  return true;
}

bool AgentModule::start() {
  if (runtime_) runtime_->start();
  return true;
}

void AgentModule::stop() {
  if (runtime_) {
    runtime_->stop();
    runtime_.reset();
  }
}

kernel::HealthStatus AgentModule::health() {
  return {kernel::HealthState::healthy,
          "agent ok — sessions=" + std::to_string(sessions_ ? sessions_->size() : 0) +
              ", dynamic tools=" + std::to_string(tools_ ? tools_->list().size() : 0)};
}

// ---------------------------------------------------------------------------
// Chat

bool AgentModule::parse_chat_(const Json& body, ChatRequest& r, ChatAnswer& error) const {
  auto text = [&](const char* key, std::string& out) {
    auto it = body.find(key);
    if (it == body.end() || it->is_null()) return true;
    if (!it->is_string()) {
      error = {400, base::error_body(
                        "invalid_field",
                        {{"field", key}, {"message", std::string(key) + " must be a string"}})};
      return false;
    }
    out = it->get<std::string>();
    return true;
  };
  std::string tenant;
  if (!text("session_id", r.session_id) || !text("agent_type", r.agent_type) ||
      !text("domain", r.domain) || !text("tenant", tenant) ||
      !text("knowledge_base_id", r.knowledge_base_id) || !text("model", r.model)) {
    return false;
  }
  auto message = body.find("message");
  if (message == body.end() || !message->is_string() || message->get<std::string>().empty()) {
    error = {400, base::error_body("missing_message")};
    return false;
  }
  // Every turn is kept in the session (memory and journal) and sent again
  // with the next ones: a turn has a size.
  if (message->get_ref<const std::string&>().size() > max_message_bytes_) {
    error = {
        413,
        base::error_body(
            "message_too_large",
            {{"message", "a chat message may have at most " + std::to_string(max_message_bytes_) +
                             " bytes; ingest long texts into a namespace instead"},
             {"max_bytes", max_message_bytes_}})};
    return false;
  }
  r.message = *message;
  if (!tenant.empty()) r.tenant = tenant;
  if (r.agent_type.empty()) r.agent_type = "General";
  if (r.domain.empty()) r.domain = "general";
  if (auto k = body.find("top_k"); k != body.end() && !k->is_null()) {
    if (!k->is_number_integer() || k->get<std::int64_t>() < 1 || k->get<std::int64_t>() > 100) {
      error = {400, base::error_body("invalid_field",
                                     {{"field", "top_k"},
                                      {"message", "top_k must be a whole number from 1 to 100"}})};
      return false;
    }
    r.top_k = *k;
  }
  for (auto [key, slot] : {std::pair{"intent_detect", &r.intent_detect}, {"stream", &r.stream}}) {
    auto it = body.find(key);
    if (it == body.end() || it->is_null()) continue;
    if (!it->is_boolean()) {
      error = {400, base::error_body("invalid_field",
                                     {{"field", key},
                                      {"message", std::string(key) + " must be true or false"}})};
      return false;
    }
    *slot = *it;
  }
  std::string why;
  if (!r.session_id.empty() && !base::safe_name(r.session_id, why)) {
    error = {400, base::error_body("invalid_session_id", {{"message", why}})};
    return false;
  }
  return true;
}

std::optional<DomainOverride> AgentModule::cell_(const std::string& agent_type,
                                                 const std::string& domain) const {
  std::lock_guard lock(matrix_mu_);
  auto it = matrix_.find({agent_type, domain});
  if (it == matrix_.end()) return std::nullopt;
  return it->second;
}

std::string AgentModule::handle_intent_(const Intent& intent, const ChatRequest& r) {
  switch (intent.kind) {
    case IntentKind::build_status:
      return "No agent builds are running on this node.";
    case IntentKind::list_agents:
      return "No custom agents are registered on this node yet. Sessions can use the built-in "
             "agent types (General, Researcher); send \"intent_detect\": false to talk to the "
             "model directly.";
    case IntentKind::mention:
      return "Agent '" + intent.capture +
             "' is not available on this node. Your message was not sent to a model; send it "
             "without the @ mention to ask the default agent.";
    case IntentKind::request_agent:
    case IntentKind::build_agent:
      return "Building agents is not available on this node yet. Requested purpose: " +
             intent.capture;
    case IntentKind::switch_agent: {
      auto s = r.session_id.empty() ? nullptr : sessions_->find(r.session_id);
      if (s && s->tenant == r.tenant) {
        sessions_->switch_agent(*s, intent.capture);
        return "This session now uses the agent type '" + intent.capture + "'.";
      }
      return "Agent type '" + intent.capture +
             "' noted; open or name a session to switch it. Send \"intent_detect\": false to "
             "talk to the model directly.";
    }
  }
  return "";
}

Json AgentModule::rag_search_remote_(const Json& request) {
  base::HttpHeaders headers = {{"X-Ostrel-Node-Token", ctx_.node_token},
                               {"X-Ostrel-Node-Id", ctx_.node_id}};
  if (!api_key_.empty()) headers.emplace_back("X-API-Key", api_key_);
  base::HttpReply r = base::http_post(controller_url_, "/api/v1/vector/search",
                                      base::dump_json(request), headers, std::chrono::seconds(10));
  if (!r.transport_ok) {
    log_->warn("rag_search_remote_: connect failed to " + controller_url_);
    return Json::array();
  }
  if (!r.ok()) {
    log_->warn("rag_search_remote_: http " + std::to_string(r.status) +
               " body=" + r.body.substr(0, 300));
    return Json::array();
  }
  Json j = base::parse_json(r.body);
  if (j.is_object() && j.contains("hits") && j["hits"].is_array()) return j["hits"];
  if (j.is_object() && j.contains("results") && j["results"].is_array()) return j["results"];
  return Json::array();
}

Json AgentModule::rag_search_(const std::string& tenant, const std::string& kb,
                              const std::string& query, std::int64_t top_k) {
  Json request = {{"tenant_id", tenant}, {"namespace_id", kb}, {"query", query}, {"top_k", top_k}};
  if (ctx_.syscalls->has("data.vector.search")) {
    kernel::SyscallResult r =
        ctx_.syscalls->call(kAgentSource, "data.vector.search", base::dump_json(request));
    Json j = base::parse_json(r.body);
    if (r.status == 0 && j.is_object()) {
      if (j.contains("hits") && j["hits"].is_array()) return j["hits"];
      if (j.contains("results") && j["results"].is_array()) return j["results"];
    }
    log_->warn("rag_search_: data.vector.search failed: " + r.body.substr(0, 300));
    return Json::array();
  }
  if (!controller_url_.empty()) return rag_search_remote_(request);
  return Json::array();
}

std::string AgentModule::model_call_(const std::string& request, std::string* answered_by) {
  for (const char* syscall : {"inference.chat", "cloud.chat"}) {
    if (!ctx_.syscalls->has(syscall)) continue;
    kernel::SyscallResult r = ctx_.syscalls->call(kAgentSource, syscall, request);
    if (r.status != 0) continue;
    Json j = base::parse_json(r.body);
    if (!j.is_object() || !j.contains("choices") || !j["choices"].is_array() ||
        j["choices"].empty()) {
      continue;
    }
    const Json& first = j["choices"][0];
    if (first.is_object() && first.contains("message") && first["message"].is_object() &&
        first["message"].contains("content") && first["message"]["content"].is_string() &&
        !first["message"]["content"].get<std::string>().empty()) {
      if (answered_by) *answered_by = base::string_field(j, "model");
      return first["message"]["content"];
    }
  }
  return "";
}

ChatAnswer AgentModule::chat_(ChatRequest r) {
  // 2. Questions to the agent system itself.
  if (r.intent_detect) {
    if (auto intent = detect_intent(r.message)) {
      return {200,
              {{"reply", handle_intent_(*intent, r)},
               {"intent", intent_name(intent->kind)},
               {"session_id", r.session_id},
               {"agent_type", r.agent_type},
               {"domain", r.domain},
               {"tenant", r.tenant}}};
    }
  }
  // 3. Counted once per request.
  const auto cell = cell_(r.agent_type, r.domain);
  const std::string model = !r.model.empty()               ? r.model
                            : cell && !cell->model.empty() ? cell->model
                                                           : default_model_;
  ctx_.metrics->counter("ostrel.agent.chat_requests_total", 1,
                        {{"model", model},
                         {"rag", r.knowledge_base_id.empty() ? "off" : "on"},
                         {"stream", r.stream ? "true" : "false"}});
  // 4. The tenant gate.
  if (ctx_.syscalls->has("kernel.tenant.is_active")) {
    kernel::SyscallResult g = ctx_.syscalls->call(kAgentSource, "kernel.tenant.is_active",
                                                  base::dump_json(Json{{"tenant", r.tenant}}));
    Json j = base::parse_json(g.body);
    if (g.status != 0 || !j.is_object() || !j.contains("active")) {
      return {503, base::error_body("tenant_gate_failed")};
    }
    if (j["active"] != true)
      return {403, base::error_body("tenant_unknown_or_inactive", {{"tenant", r.tenant}})};
  }
  // 5. The session.
  std::shared_ptr<Session> s = r.session_id.empty() ? nullptr : sessions_->find(r.session_id);
  if (s && s->tenant != r.tenant) {
    return {403, base::error_body("session_tenant_mismatch",
                                  {{"session_tenant", s->tenant}, {"request_tenant", r.tenant}})};
  }
  if (!s) s = sessions_->create(r.agent_type, r.domain, r.tenant, r.owner);
  std::string agent_type, domain;
  {
    std::lock_guard lock(s->mu);
    agent_type = s->agent_type;
    domain = s->domain;
  }
  // 6. The user's turn, and the turns the model sees.
  std::optional<std::vector<Message>> kept =
      sessions_->append(*s, "user", r.message, history_window_);
  if (!kept) return {500, base::error_body("session_not_saved", {{"session_id", s->session_id}})};
  std::vector<Message> turns = std::move(*kept);
  // 7. Retrieval.
  Json hits = Json::array();
  if (!r.knowledge_base_id.empty()) {
    hits = rag_search_(r.tenant, r.knowledge_base_id, r.message, r.top_k);
  }
  // 8. The prompt.
  const auto session_cell = cell_(agent_type, domain);
  std::vector<std::string> system;
  if (session_cell) system.push_back(session_cell->system);
  if (!hits.empty()) system.push_back(knowledge_block(hits));
  const std::string session_model = !r.model.empty() ? r.model
                                    : session_cell && !session_cell->model.empty()
                                        ? session_cell->model
                                        : default_model_;
  // 9. The model.
  std::string answered_by;
  std::string reply_text = model_call_(chat_request(session_model, system, turns), &answered_by);
  if (reply_text.empty()) reply_text = kUnavailable;
  // 10. The assistant's turn.
  if (!sessions_->record(*s, "assistant", reply_text)) {
    return {500, base::error_body("session_not_saved", {{"session_id", s->session_id}})};
  }
  return {200,
          {{"reply", reply_text},
           {"session_id", s->session_id},
           {"agent_type", agent_type},
           {"domain", domain},
           {"tenant", s->tenant},
           {"model", answered_by.empty() ? session_model : answered_by},
           {"requested_model", session_model},
           {"knowledge_base_id", r.knowledge_base_id},
           {"retrieved", hits}}};
}

// ---------------------------------------------------------------------------
// Tools

std::string AgentModule::role_of_(const Request& req) const {
  if (!base::credential_checked(req)) return "";
  if (base::is_admin(req)) return "admin";
  if (!req.user_id.empty() && ctx_.syscalls->has("identity.users.roles")) {
    kernel::SyscallResult r = ctx_.syscalls->call(
        kAgentSource, "identity.users.roles",
        base::dump_json(Json{{"tenant", req.tenant}, {"user_id", req.user_id}}));
    Json j = base::parse_json(r.body);
    if (r.status == 0 && j.is_object() && j.contains("roles") && j["roles"].is_array()) {
      for (const char* best : {"superadmin", "admin", "developer"}) {
        if (std::find(j["roles"].begin(), j["roles"].end(), best) != j["roles"].end()) return best;
      }
    }
  }
  return base::role_from_scopes(req);
}

ToolContext AgentModule::tool_context_(const Request& req, const Json& body) const {
  ToolContext tc;
  const Json context =
      body.contains("context") && body["context"].is_object() ? body["context"] : Json::object();
  auto text = [&](const char* key, std::string& out) {
    if (context.contains(key) && context[key].is_string()) out = context[key];
  };
  text("user_id", tc.user_id);
  text("role", tc.role);
  text("tenant_id", tc.tenant_id);
  text("project_id", tc.project_id);
  text("trace_id", tc.trace_id);
  // A checked credential speaks for itself: the body cannot raise its role
  // or move it to another tenant.
  if (base::credential_checked(req)) {
    tc.role = role_of_(req);
    if (!req.user_id.empty()) tc.user_id = req.user_id;
    if (!req.tenant.empty()) tc.tenant_id = req.tenant;
  }
  if (tc.trace_id.empty()) tc.trace_id = trace_id_now();
  return tc;
}

Json AgentModule::exec_tool_call_(const Json& call, const ToolContext& tc, const Request* http) {
  const std::string id =
      call.contains("id") && call["id"].is_string() ? call["id"].get<std::string>() : "";
  const std::string name =
      call.contains("name") && call["name"].is_string() ? call["name"].get<std::string>() : "";
  Json params = call.contains("parameters") ? call["parameters"] : Json::object();
  if (params.is_null()) params = Json::object();
  auto answer = [&id](Json out) {
    out["tool_call_id"] = id;
    return out;
  };
  // A call that did not run: the error body, marked unsuccessful.
  auto failed = [&answer](std::string_view code,
                          std::initializer_list<base::ErrorMember> extra = {}) {
    Json out = base::error_body(code, extra);
    out["success"] = false;
    return answer(std::move(out));
  };
  if (name.empty()) return failed("missing tool name");
  // 1. Counted.
  ctx_.metrics->counter("ostrel.agent.tool_invocations_total", 1, {{"tool", name}});
  // 2. Policy first.
  if (ctx_.syscalls->has("security.role.check")) {
    Json check = {{"tool", name},
                  {"context",
                   {{"user_id", tc.user_id},
                    {"role", tc.role},
                    {"tenant_id", tc.tenant_id},
                    {"project_id", tc.project_id}}},
                  {"args", params.is_object() ? params : Json{{"value", params}}}};
    kernel::SyscallResult r =
        ctx_.syscalls->call(kAgentSource, "security.role.check", base::dump_json(check));
    Json d = base::parse_json(r.body);
    const std::string decision = d.is_object() ? d.value("decision", "") : "";
    if (decision == "denied") {
      return failed("forbidden",
                    {{"reason", "RBAC denied tool '" + name + "' for role"}, {"tool", name}});
    }
    if (decision == "requires_approval") {
      return failed("requires_approval",
                    {{"reason", "tool requires admin approval"}, {"tool", name}});
    }
    if (decision != "allowed") {
      return failed("policy_check_failed", {{"tool", name}});
    }
  }
  // 3. A plugin's tool.
  if (auto dyn = tools_->find(name)) {
    if (!ctx_.syscalls->has("edge.plugin.tool.call")) {
      return failed("plugin_executor_not_wired",
                    {{"tool", name},
                     {"plugin_id", dyn->plugin_id},
                     {"executor", dyn->executor.empty() ? "<unset>" : dyn->executor}});
    }
    kernel::SyscallResult r = ctx_.syscalls->call(kAgentSource, "edge.plugin.tool.call",
                                                  base::dump_json({{"plugin_id", dyn->plugin_id},
                                                                   {"tool_name", dyn->tool_name},
                                                                   {"executor", dyn->executor},
                                                                   {"params", params}}));
    Json out = base::parse_json(r.body);
    if (out.is_discarded()) out = r.body;
    if (r.status != 0) return failed("plugin_failed", {{"output", out}, {"tool", name}});
    return answer(
        {{"success", true}, {"output", out}, {"tool", name}, {"plugin_id", dyn->plugin_id}});
  }
  // 4. Built-in retrieval.
  if (name == "RAGSearch" || name == "rag_search") {
    tools::result::ToolResult tr;
    tr.tool = name;
    tr.trace_id = tc.trace_id;
    tr.user_id = tc.user_id;
    tr.started_ms = base::unix_ms();
    std::string kb, query;
    if (params.is_object()) {
      kb = params.value("kb_id", params.value("knowledge_base_id", ""));
      query = params.value("query", "");
    }
    std::int64_t top_k = 5;
    if (params.is_object() && params.contains("top_k") && params["top_k"].is_number_integer()) {
      top_k = std::clamp<std::int64_t>(params["top_k"], 1, 100);
    }
    if (kb.empty() || query.empty()) {
      return failed("kb_id and query required", {{"tool", name}});
    }
    tr.output = {{"hits", rag_search_(tc.tenant_id, kb, query, top_k)}};
    tr.finished_ms = base::unix_ms();
    return answer({{"success", true}, {"output", Json::parse(tr.to_json().dump())}});
  }
  // 5. A syscall of that name.
  if (!ctx_.syscalls->has(name)) {
    if (name.find('.') == std::string::npos) {
      return failed("unknown_tool", {{"tool", name}});
    }
    return failed("syscall_not_registered", {{"syscall", name}});
  }
  if (http) {
    // From outside, a syscall is allowed only as the generic syscall route
    // would allow it.
    Response refusal;
    if (!params.is_object()) params = Json::object();
    if (!kernel::authorize_syscall(*ctx_.syscalls, *http, name, params, refusal)) {
      Json why = base::parse_json(refusal.body);
      return failed("forbidden", {{"reason", why.is_object() ? why.value("reason", "") : ""},
                                  {"syscall", name}});
    }
  }
  tools::result::ToolResult tr;
  tr.tool = name;
  tr.started_ms = base::unix_ms();
  kernel::SyscallResult r = ctx_.syscalls->call(kAgentSource, name, base::dump_json(params));
  tr.finished_ms = base::unix_ms();
  Json out = base::parse_json(r.body);
  if (out.is_discarded()) out = r.body;
  Json timing = {{"started_ms", tr.started_ms},
                 {"finished_ms", tr.finished_ms},
                 {"duration_ms", tr.finished_ms - tr.started_ms}};
  if (r.status != 0) {
    return failed("syscall_failed", {{"status", r.status}, {"output", out}, {"timing", timing}});
  }
  return answer({{"success", true}, {"output", out}, {"timing", timing}});
}

// ---------------------------------------------------------------------------
// Routes

Json AgentModule::session_json_(const Session& s, bool with_all_fields) const {
  std::lock_guard lock(s.mu);
  Json messages = Json::array();
  for (const auto& m : s.messages) messages.push_back({{"role", m.role}, {"content", m.content}});
  Json out = {{"session_id", s.session_id}, {"agent_type", s.agent_type}, {"domain", s.domain},
              {"tenant", s.tenant},         {"owner", s.owner},           {"messages", messages}};
  if (with_all_fields) {
    out["delegation_msg"] = s.delegation_msg;
    out["original_owner"] = s.original_owner;
  }
  return out;
}

std::shared_ptr<Session> AgentModule::session_for_route_(const Request& req, Response& res,
                                                         const std::string& prefix) {
  const std::string id = req.path.substr(prefix.size());
  if (id.empty()) {
    base::fail(res, 400, "missing_session_id");
    return nullptr;
  }
  std::string why;
  if (!base::safe_name(id, why)) {
    base::fail(res, 400, "invalid_session_id");
    return nullptr;
  }
  auto s = sessions_->find(id);
  if (!s) {
    base::fail(res, 404, "not_found", {{"session_id", id}});
    return nullptr;
  }
  const std::string caller = req.tenant.empty() ? req.param("tenant", s->tenant) : req.tenant;
  if (caller != s->tenant) {
    base::fail(res, 403, "cross_tenant_access_denied",
               {{"authenticated_tenant", caller}, {"requested_tenant", s->tenant}});
    return nullptr;
  }
  return s;
}

void AgentModule::register_routes(kernel::ApiGateway& gw) {
  // A body that is not JSON answers "bad_json".
  auto body_of = [](const Request& req, Response& res, Json& out) {
    out = req.body.empty() ? Json::object() : base::parse_json_lean(req.body);
    if (!out.is_object()) {
      base::fail(res, 400, "bad_json");
      return false;
    }
    return true;
  };
  auto chat_route = [this, body_of](bool force_stream) {
    return [this, body_of, force_stream](const Request& req, Response& res) {
      if (!base::require_scope(req, res, "agent.invoke")) return;
      Json body;
      if (!body_of(req, res, body)) return;
      ChatRequest r;
      ChatAnswer error;
      if (!parse_chat_(body, r, error)) {
        reply(res, error.body, error.status);
        return;
      }
      if (!req.tenant.empty()) r.tenant = req.tenant;
      if (!req.user_id.empty()) r.owner = req.user_id;
      if (force_stream) r.stream = true;
      ChatAnswer a = chat_(r);
      if (!r.stream) {
        reply(res, a.body, a.status);
        return;
      }
      // The whole reply first, then its events.
      std::string events =
          a.status == 200 ? reply_events(a.body.value("session_id", ""), a.body.value("reply", ""))
                          : error_events(a.body.value("error", "failed"));
      res.content_type = "text/event-stream";
      res.headers["Cache-Control"] = "no-cache";
      res.stream = [events = std::move(events)](const kernel::StreamWrite& write) {
        write(events);
      };
    };
  };
  gw.route("POST", "/api/v1/agent/chat", chat_route(false), {kernel::RouteOptions::kLargeBody});
  gw.route("POST", "/api/v1/agent/chat/stream", chat_route(true),
           {kernel::RouteOptions::kLargeBody});

  gw.route("POST", "/api/v1/agent/sessions", [this, body_of](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "agent.invoke")) return;
    Json body;
    if (!body_of(req, res, body)) return;
    ChatRequest defaults;
    std::string agent_type = defaults.agent_type, domain = defaults.domain, tenant = "default";
    if (!base::read_string(body, "agent_type", agent_type, res) ||
        !base::read_string(body, "domain", domain, res) ||
        !base::read_string(body, "tenant", tenant, res)) {
      return;
    }
    if (!req.tenant.empty()) tenant = req.tenant;
    auto s = sessions_->create(agent_type.empty() ? "General" : agent_type,
                               domain.empty() ? "general" : domain, tenant,
                               req.user_id.empty() ? "anon" : req.user_id);
    reply(res, {{"session_id", s->session_id},
                {"agent_type", s->agent_type},
                {"domain", s->domain},
                {"tenant", s->tenant}});
  });
  gw.route("GET", "/api/v1/agent/sessions", [this](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "agent.invoke")) return;
    const std::string tenant = req.tenant.empty() ? req.param("tenant", "default") : req.tenant;
    Json list = Json::array();
    for (const auto& s : sessions_->list(tenant)) list.push_back(session_json_(*s, true));
    reply(res, {{"sessions", list}});
  });
  const std::string prefix = "/api/v1/agent/sessions/";
  gw.route("GET", "/api/v1/agent/sessions/*", [this, prefix](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "agent.invoke")) return;
    if (auto s = session_for_route_(req, res, prefix)) reply(res, session_json_(*s, false));
  });
  gw.route("DELETE", "/api/v1/agent/sessions/*", [this, prefix](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "agent.invoke")) return;
    if (auto s = session_for_route_(req, res, prefix)) {
      sessions_->remove(s->session_id);
      reply(res, {{"ok", true}, {"session_id", s->session_id}});
    }
  });

  gw.route("GET", "/api/v1/agent/info", [](const Request&, Response& res) {
    reply(res, {{"name", "Ostrel Agent (5.0)"},
                {"version", "5.0.0"},
                {"features",
                 {"agentic_rag", "multi_agent", "parallel_agents", "distributed_rag",
                  "workflow_builder", "training_generation"}}});
  });
  gw.route("GET", "/api/v1/agent/stats", [this](const Request&, Response& res) {
    std::size_t cells;
    {
      std::lock_guard lock(matrix_mu_);
      cells = matrix_.size();
    }
    reply(res, {{"health", "healthy"},
                {"status", "ok"},
                {"uptime_seconds", std::chrono::duration_cast<std::chrono::seconds>(
                                       std::chrono::steady_clock::now() - started_)
                                       .count()},
                {"sessions", sessions_->size()},
                {"matrix_cells", cells},
                {"workflows", 0},
                {"schedules", 0}});
  });
  gw.route("GET", "/api/v1/agent/quotas", [this](const Request& req, Response& res) {
    const std::string only = req.tenant.empty() ? req.param("tenant_id") : req.tenant;
    Json tenants = Json::object();
    for (const auto& s : sessions_->list(only)) {
      Json& t = tenants[s->tenant];
      if (t.is_null())
        t = {{"sessions", 0}, {"agents", 0}, {"knowledge_bases", 0}, {"executions", 0}};
      t["sessions"] = t["sessions"].get<int>() + 1;
    }
    reply(res,
          {{"tenants", tenants},
           {"defaults",
            {{"max_sessions", nullptr}, {"max_agents", nullptr}, {"max_knowledge_bases", nullptr}}},
           {"note",
            "5.0 alpha ships with no default limits; configure per-tenant on the controller."}});
  });

  gw.route("POST", "/api/v1/swarm/tools", [this, body_of](const Request& req, Response& res) {
    if (!base::require_scope(req, res, "agent.invoke")) return;
    Json body;
    if (!body_of(req, res, body)) return;
    reply(res, exec_tool_call_(body, tool_context_(req, body), &req));
  });
  register_later_families_(gw);
}

void AgentModule::register_later_families_(kernel::ApiGateway& gw) {
  struct Later {
    const char* method;
    const char* path;
  };
  static const Later kLater[] = {
      {"POST", "/api/v1/agent/multi"},
      {"GET", "/api/v1/agent/domain-matrix"},
      {"PUT", "/api/v1/agent/domain-matrix"},
      {"POST", "/api/v1/agent/sessions/*/delegate"},
      {"GET", "/api/v1/agent/sessions/delegated"},
      {"POST", "/api/v1/agent/sessions/*/accept"},
      {"POST", "/api/v1/agent/sessions/*"},
      {"POST", "/api/v1/agent/decompose"},
      {"GET", "/api/v1/agent/knowledge-bases"},
      {"POST", "/api/v1/agent/knowledge-bases"},
      {"GET", "/api/v1/agent/knowledge-bases/*"},
      {"POST", "/api/v1/agent/generate-training"},
      {"GET", "/api/v1/agent/workflows"},
      {"POST", "/api/v1/agent/workflows"},
      {"POST", "/api/v1/agent/workflows/*"},
      {"DELETE", "/api/v1/agent/workflows/*"},
      {"GET", "/api/v1/agent/workflows/executions/*"},
      {"GET", "/api/v1/agent/schedules"},
      {"POST", "/api/v1/agent/schedules"},
      {"GET", "/api/v1/agent/schedules/*"},
      {"DELETE", "/api/v1/agent/schedules/*"},
      {"POST", "/api/v1/agent/schedules/*"},
      {"GET", "/api/v1/agent/executions"},
      {"GET", "/api/v1/agent/executions/*"},
      {"POST", "/api/v1/agent/executions/*"},
      {"GET", "/api/v1/agent/remote-targets"},
      {"POST", "/api/v1/agent/remote-targets"},
      {"DELETE", "/api/v1/agent/remote-targets/*"},
      {"POST", "/api/v1/agent/remote-targets/*"},
      {"POST", "/api/v1/peer/status"},
      {"GET", "/api/v1/peer/status"},
      {"GET", "/api/v1/peer/capabilities"},
      {"GET", "/api/v1/brain/status"},
      {"POST", "/api/v1/brain/configure"},
      {"POST", "/api/v1/brain/chat"},
      {"POST", "/api/v1/router-xlstm/train"},
      {"POST", "/api/v1/router-xlstm/classify"},
      {"GET", "/api/v1/router-xlstm/status"},
      {"POST", "/api/v1/enrn/distill"},
      {"POST", "/api/v1/enrn/distill-knowledge"},
      {"POST", "/api/v1/enrn/merge"},
      {"POST", "/api/v1/enrn/analyze"},
  };
  for (const Later& l : kLater) {
    gw.route(l.method, l.path, [path = std::string(l.path)](const Request&, Response& res) {
      base::fail(res, 501, "not_implemented",
                 {{"message", "this agent family is not part of this build yet"}, {"path", path}});
    });
  }
}

// ---------------------------------------------------------------------------
// Syscalls

void AgentModule::register_syscalls(kernel::SyscallTable& table) {
  using base::json_syscall;
  table.register_syscall(kAgentSource, "agent.invoke", json_syscall([this](const Json& a) {
                           auto m = a.find("message");
                           if (m == a.end() || !m->is_string() || m->get<std::string>().empty()) {
                             return base::syscall_error("missing message");
                           }
                           ChatRequest r;
                           ChatAnswer error;
                           if (!parse_chat_(a, r, error))
                             return base::syscall_error_body(error.body);
                           r.stream = false;
                           ChatAnswer out = chat_(r);
                           return out.status == 200 ? base::syscall_ok(out.body)
                                                    : base::syscall_error_body(out.body);
                         }),
                         kernel::SyscallAccess::tenant("agent.invoke"));
  table.register_syscall(kAgentSource, "agent.sessions.create", json_syscall([this](const Json& a) {
                           auto s = sessions_->create(a.value("agent_type", "General"),
                                                      a.value("domain", "general"),
                                                      a.value("tenant", "default"), "anon");
                           return base::syscall_ok({{"session_id", s->session_id},
                                                    {"agent_type", s->agent_type},
                                                    {"domain", s->domain},
                                                    {"tenant", s->tenant},
                                                    {"owner", s->owner}});
                         }),
                         kernel::SyscallAccess::tenant("agent.invoke"));
  table.register_syscall(
      kAgentSource, "agent.domain-matrix.get", json_syscall([this](const Json& a) {
        auto c = cell_(a.value("agent_type", ""), a.value("domain", ""));
        if (!c) return base::syscall_ok({{"override", nullptr}});
        return base::syscall_ok(
            {{"override", {{"model", c->model}, {"system", c->system}, {"route", c->route}}}});
      }),
      kernel::SyscallAccess::open());
  table.register_syscall(kAgentSource, "agent.decompose", json_syscall([](const Json& a) {
                           if (!a.contains("query") || !a["query"].is_string()) {
                             return base::syscall_error("missing query");
                           }
                           return base::syscall_error("not_implemented");
                         }));
  table.register_syscall(kAgentSource, "agent.workflows.execute", json_syscall([](const Json& a) {
                           if (!a.contains("workflow_id") || !a["workflow_id"].is_string()) {
                             return base::syscall_error("missing workflow_id");
                           }
                           return base::syscall_error("not_implemented");
                         }));
  table.register_syscall(kAgentSource, "agent.run", json_syscall([](const Json& a) {
                           if (!a.contains("agent_id") || !a["agent_id"].is_string()) {
                             return base::syscall_error("missing agent_id");
                           }
                           return base::syscall_ok({{"execution_id", AgentSessions::new_id("exec")},
                                                    {"agent_id", a["agent_id"]},
                                                    {"status", "queued"}});
                         }));
  table.register_syscall(kAgentSource, "agent.tool.register", json_syscall([this](const Json& a) {
                           DynamicTool t;
                           t.plugin_id = a.value("plugin_id", "");
                           t.tool_name = a.value("name", a.value("tool_name", ""));
                           t.executor = a.value("executor", "");
                           t.schema = a.value("schema", Json());
                           if (t.plugin_id.empty() || t.tool_name.empty()) {
                             return base::syscall_error("plugin_id and tool_name required");
                           }
                           std::string error;
                           if (!tools_->add(t, error)) {
                             log_->warn("dynamic tools not saved: " + error);
                             return base::syscall_error("persist_failed");
                           }
                           if (ctx_.syscalls->has("security.role.register_tool")) {
                             ctx_.syscalls->call(kAgentSource, "security.role.register_tool",
                                                 base::dump_json(Json{{"tool", t.tool_name}}));
                           }
                           return base::syscall_ok({{"ok", true},
                                                    {"plugin_id", t.plugin_id},
                                                    {"tool_name", t.tool_name},
                                                    {"executor", t.executor}});
                         }));
  table.register_syscall(
      kAgentSource, "agent.tool.unregister", json_syscall([this](const Json& a) {
        const std::string plugin = a.value("plugin_id", "");
        if (plugin.empty()) return base::syscall_error("plugin_id required");
        std::string error;
        const int removed = tools_->remove_plugin(plugin, error);
        if (removed < 0) return base::syscall_error("persist_failed");
        return base::syscall_ok({{"ok", true}, {"plugin_id", plugin}, {"removed", removed}});
      }));
  table.register_syscall(kAgentSource, "agent.tool.list", json_syscall([this](const Json&) {
                           Json list = Json::array();
                           for (const auto& t : tools_->list()) list.push_back(to_json(t));
                           return base::syscall_ok({{"tools", list}, {"count", list.size()}});
                         }),
                         kernel::SyscallAccess::open());
  // Tool execution for agents and swarms in this process.
  table.register_syscall(kAgentSource, "agent.tool.call", json_syscall([this](const Json& a) {
                           ToolContext tc;
                           if (a.contains("context") && a["context"].is_object()) {
                             const Json& c = a["context"];
                             tc.user_id = c.value("user_id", tc.user_id);
                             tc.role = c.value("role", tc.role);
                             tc.tenant_id = c.value("tenant_id", tc.tenant_id);
                             tc.project_id = c.value("project_id", "");
                             tc.trace_id = c.value("trace_id", "");
                           }
                           return base::syscall_ok(exec_tool_call_(a, tc, nullptr));
                         }));
}

}  // namespace
}  // namespace ostrel::agents

static ostrel::kernel::ModuleRegistrar<ostrel::agents::AgentModule> AgentModule_registrar("agent");
