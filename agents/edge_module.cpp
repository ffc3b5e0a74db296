// The "edge" module: chat completions with the built-in tool loop — the
// model is offered the tools its caller may use, the node runs the ones it
// asks for and feeds the results back until the model answers in words.
#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

#include "agents/edge_tools.h"
#include "base/access.h"
#include "base/clock.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/json_scanner.h"
#include "base/logger.h"
#include "base/reply.h"
#include "base/text.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"

namespace ostrel::edge {
namespace {

using Json = nlohmann::json;
using base::reply;
using kernel::Request;
using kernel::Response;

constexpr identity::SourceCode kEdgeSource{0x0b, 0x01};

// Per-tenant token buckets.
// Thread-safe: mu_ guards the buckets.
class RateGate {
 public:
  void configure(bool enabled, double capacity, double refill_per_sec) {
    std::lock_guard lock(mu_);
    enabled_ = enabled;
    capacity_ = capacity;
    refill_ = refill_per_sec;
  }
  bool allow(const std::string& tenant) {
    std::lock_guard lock(mu_);
    if (!enabled_) return true;
    const double now = static_cast<double>(base::unix_ms()) / 1000.0;
    Bucket& b = buckets_[tenant];
    if (b.last == 0) b = {capacity_, now};
    b.tokens = std::min(capacity_, b.tokens + (now - b.last) * refill_);
    b.last = now;
    if (b.tokens < 1.0) return false;
    b.tokens -= 1.0;
    return true;
  }

 private:
  struct Bucket {
    double tokens = 0;
    double last = 0;
  };
  std::mutex mu_;
  bool enabled_ = false;
  double capacity_ = 100.0;
  double refill_ = 10.0;
  std::map<std::string, Bucket> buckets_;
};

// A final completion as server-sent events in the chunk shape: the role and
// content, the finish, the usage when asked for, and the end marker. Written
// directly, reading the completion in place: a long answer is copied once.
std::string completion_events(const Json& completion, bool include_usage) {
  const std::string id = completion.value("id", "chatcmpl-edge");
  const std::string model = completion.value("model", "");
  const std::int64_t created = completion.value("created", base::unix_s());
  const std::string* content = nullptr;
  std::string finish = "stop";
  if (completion.contains("choices") && completion["choices"].is_array() &&
      !completion["choices"].empty() && completion["choices"][0].is_object()) {
    const Json& c = completion["choices"][0];
    if (c.contains("message") && c["message"].is_object()) {
      const Json& m = c["message"];
      if (m.contains("content") && m["content"].is_string())
        content = &m["content"].get_ref<const std::string&>();
    }
    if (c.contains("finish_reason") && c["finish_reason"].is_string()) finish = c["finish_reason"];
  }
  std::string out;
  out.reserve(768 + (content ? content->size() : 0));
  auto head = [&] {
    out += "data: {\"id\":";
    text::append_json_string(out, id);
    out += ",\"object\":\"chat.completion.chunk\",\"created\":" + std::to_string(created) +
           ",\"model\":";
    text::append_json_string(out, model);
    out += ",\"choices\":";
  };
  head();
  out += "[{\"index\":0,\"delta\":{\"role\":\"assistant\",\"content\":";
  text::append_json_string(out, content ? std::string_view(*content) : std::string_view());
  out += "},\"finish_reason\":null}]}\n\n";
  head();
  out += "[{\"index\":0,\"delta\":{},\"finish_reason\":";
  text::append_json_string(out, finish);
  out += "}]}\n\n";
  if (include_usage && completion.contains("usage")) {
    head();
    out += "[],\"usage\":" + base::dump_json(completion["usage"]) + "}\n\n";
  }
  out += "data: [DONE]\n\n";
  return out;
}

class EdgeModule : public kernel::Module {
 public:
  identity::SourceCode source_code() const override { return kEdgeSource; }

  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override {}
  kernel::HealthStatus health() override {
    return {kernel::HealthState::healthy, "edge ok — " + std::to_string(tools_.size()) +
                                              " tools, router " +
                                              (router_url_.empty() ? "local" : router_url_)};
  }
  void register_routes(kernel::ApiGateway& gw) override;

 private:
  ToolCallContext context_(const Request& req) const;
  std::vector<std::string> roles_of_(const Request& req) const;
  // One model call through the router.
  bool upstream_(const ToolCallContext& ctx, const std::string& request, int& status,
                 std::string& answer) const;
  std::optional<Json> policy_(const std::string& tool, const ToolCallContext& ctx) const;
  void chat_(const Request& req, Response& res);

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  std::string router_url_;
  std::string controller_url_;
  std::chrono::milliseconds upstream_timeout_{120000};
  std::chrono::milliseconds connect_timeout_{3000};
  ToolRegistry tools_;
  RateGate rate_;
};

bool EdgeModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("edge"));
  router_url_ = base::normalise_base_url(ctx.config->get("router_url", ""));
  controller_url_ = base::normalise_base_url(ctx.config->get("controller_url", ""));
  auto number = [&](const char* key, double fallback) {
    const std::string v = ctx.config->get(key, "");
    char* end = nullptr;
    const double d = std::strtod(v.c_str(), &end);
    return v.empty() || *end ? fallback : d;
  };
  upstream_timeout_ =
      std::chrono::milliseconds(static_cast<std::int64_t>(number("upstream_timeout_ms", 120000)));
  connect_timeout_ =
      std::chrono::milliseconds(static_cast<std::int64_t>(number("connect_timeout_ms", 3000)));
  const std::string enabled = ctx.config->get("rate_limit.enabled", "false");
  rate_.configure(enabled == "true" || enabled == "1", number("rate_limit.capacity", 100.0),
                  number("rate_limit.refill_per_sec", 10.0));
  register_builtin_tools(tools_);
  log_->info("tool_registry: " + std::to_string(tools_.size()) + " builtin tools registered");
  return true;
}

bool EdgeModule::start() {
  // The policy module learns the tool names, so that refusals name the role.
  if (ctx_.syscalls->has("security.role.register_tool")) {
    for (const auto& name : tools_.names()) {
      ctx_.syscalls->call(kEdgeSource, "security.role.register_tool",
                          base::dump_json(Json{{"tool", name}}));
    }
  }
  return true;
}

std::vector<std::string> EdgeModule::roles_of_(const Request& req) const {
  // A node that checks no credential trusts its callers (as every
  // administrative route does then).
  if (!base::credential_checked(req) || base::is_admin(req)) return {"admin"};
  std::vector<std::string> roles;
  if (!req.user_id.empty() && ctx_.syscalls->has("identity.users.roles")) {
    Json j = base::parse_json(
        ctx_.syscalls
            ->call(kEdgeSource, "identity.users.roles",
                   base::dump_json(Json{{"tenant", req.tenant}, {"user_id", req.user_id}}))
            .body);
    if (j.is_object() && j.contains("roles") && j["roles"].is_array()) {
      for (const auto& r : j["roles"]) {
        if (r.is_string()) roles.push_back(r);
      }
    }
  }
  if (roles.empty()) roles.push_back(base::role_from_scopes(req));
  return roles;
}

ToolCallContext EdgeModule::context_(const Request& req) const {
  ToolCallContext c;
  c.user_id = req.user_id;
  c.tenant = req.tenant.empty() ? "default" : req.tenant;
  c.roles = roles_of_(req);
  c.api_key = req.header("X-API-Key");
  for (const char* h : {"X-Ostrel-Capability", "Authorization"}) {
    if (const std::string& v = req.header(h); !v.empty()) c.auth_headers.emplace_back(h, v);
  }
  c.controller_url = controller_url_;
  c.router_url = router_url_;
  return c;
}

bool EdgeModule::upstream_(const ToolCallContext& ctx, const std::string& request, int& status,
                           std::string& answer) const {
  if (router_url_.empty()) {
    // This node's own router module: {"status", "body"}, the body taken out
    // as text without building a tree of it.
    if (!ctx_.syscalls->has("router.chat")) return false;
    kernel::SyscallResult r = ctx_.syscalls->call(kEdgeSource, "router.chat", request);
    base::JsonScanner scan(r.body);
    std::optional<std::int64_t> code;
    std::string_view body;
    const bool ok = scan.object([&](std::string_view key) {
      if (key == "status") return scan.integer(code);
      if (key == "body") return scan.raw_value(body);
      return scan.skip_value(0);
    });
    if (!ok || !code) {
      Json j = base::parse_json(r.body);
      if (!j.is_object() || !j.contains("status") || !j["status"].is_number_integer()) return false;
      status = j["status"].get<int>();
      answer = base::dump_json(j["body"]);
      return true;
    }
    status = static_cast<int>(*code);
    answer.assign(body);
    return true;
  }
  base::HttpHeaders headers(ctx.auth_headers.begin(), ctx.auth_headers.end());
  if (!ctx.api_key.empty()) headers.emplace_back("X-API-Key", ctx.api_key);
  base::HttpReply r = base::http_post(router_url_, "/v1/chat/completions", request, headers,
                                      upstream_timeout_, "application/json", connect_timeout_);
  if (!r.transport_ok) return false;
  status = r.status;
  answer = std::move(r.body);
  return true;
}

std::optional<Json> EdgeModule::policy_(const std::string& tool, const ToolCallContext& ctx) const {
  if (!ctx_.syscalls->has("security.role.check")) return std::nullopt;
  const std::string role = ctx.highest_role();
  Json check = {{"tool", tool},
                {"context",
                 {{"user_id", ctx.user_id.empty() ? "anon" : ctx.user_id},
                  {"role", role},
                  {"tenant_id", ctx.tenant}}}};
  Json d = base::parse_json(
      ctx_.syscalls->call(kEdgeSource, "security.role.check", base::dump_json(check)).body);
  const std::string decision = d.is_object() ? d.value("decision", "") : "";
  if (decision == "allowed") return std::nullopt;
  if (decision == "requires_approval") {
    return base::error_body("requires_approval",
                            {{"reason", "tool requires admin approval"}, {"tool", tool}});
  }
  return base::error_body(
      "forbidden",
      {{"reason", "RBAC denied tool '" + tool + "' for role " + role}, {"tool", tool}});
}

void EdgeModule::chat_(const Request& req, Response& res) {
  const ToolCallContext ctx = context_(req);
  if (!rate_.allow(ctx.tenant)) {
    reply(res,
          base::openai_error_body("rate limit exceeded for tenant " + ctx.tenant,
                                  "rate_limit_error", "rate_limit_exceeded"),
          429);
    return;
  }
  Json body = req.body.empty() ? Json::object() : base::parse_json_lean(req.body);
  if (!body.is_object()) {
    reply(res,
          base::openai_error_body("request body must be a JSON object", "invalid_request_error",
                                  "invalid_json"),
          400);
    return;
  }
  if (!body.contains("messages") || !body["messages"].is_array()) {
    reply(res,
          base::openai_error_body("messages must be an array", "invalid_request_error",
                                  "invalid_messages"),
          400);
    return;
  }
  const bool stream =
      body.contains("stream") && body["stream"].is_boolean() && body["stream"].get<bool>();
  const bool include_usage = body.contains("stream_options") &&
                             body["stream_options"].is_object() &&
                             body["stream_options"].value("include_usage", false);
  // The loop asks for whole answers; a stream is made from the final one.
  body.erase("stream");
  body.erase("stream_options");
  std::vector<ToolDefinition> visible = tools_.list_visible(ctx);
  Json defs = body.contains("tools") && body["tools"].is_array() ? body["tools"] : Json::array();
  for (const auto& t : visible) defs.push_back(ToolRegistry::to_openai_tool_def(t));
  if (!defs.empty()) body["tools"] = defs;
  log_->info("tool_loop: model=" +
             (body.contains("model") && body["model"].is_string() ? body["model"].get<std::string>()
                                                                  : "?") +
             " tools=" + std::to_string(tools_.size()) +
             " (visible=" + std::to_string(visible.size()) + ")");
  inject_tool_surface(body["messages"]);
  const std::string requested_model = base::string_field(body, "model");

  LoopOutcome out = run_tool_loop(
      std::move(body), ctx, tools_,
      [this, &ctx](const std::string& request, int& status, std::string& answer) {
        return upstream_(ctx, request, status, answer);
      },
      router_url_.empty() ? "local router" : router_url_,
      [this](const std::string& tool, const ToolCallContext& c) { return policy_(tool, c); },
      *log_);
  if (out.status == 200 && stream) {
    if (!out.text.empty()) {
      out.body = base::parse_json_lean(out.text);
      out.text = std::string();
    }
    std::string events = completion_events(out.body, include_usage);
    out.body = nullptr;
    res.content_type = "text/event-stream";
    res.headers["Cache-Control"] = "no-cache";
    res.stream = [events = std::move(events)](const kernel::StreamWrite& write) { write(events); };
    return;
  }
  if (!out.text.empty()) {
    // A model no backend serves was answered by another: the answer names
    // it, and this header says so (as the router's route does).
    std::string finish, answered;
    peek_finish_reason(out.text, finish, &answered);
    if (!requested_model.empty() && !answered.empty() && answered != requested_model &&
        answered != requested_model + ":latest") {
      res.headers["X-Ostrel-Model-Fallback"] = requested_model + " -> " + answered;
    }
    res.status = out.status;
    res.body = std::move(out.text);
    return;
  }
  reply(res, out.body, out.status);
}

void EdgeModule::register_routes(kernel::ApiGateway& gw) {
  kernel::RouteOptions large;
  large.max_body = kernel::RouteOptions::kLargeBody;
  gw.route(
      "POST", "/v1/chat/completions",
      [this](const Request& req, Response& res) {
        if (base::require_model_access(req, res)) chat_(req, res);
      },
      large);
  // Models and embeddings go to the router as they are.
  gw.route("GET", "/v1/models", [this](const Request& req, Response& res) {
    if (router_url_.empty()) {
      if (!ctx_.syscalls->has("router.models")) {
        reply(res,
              base::openai_error_body("no router on this node", "service_unavailable",
                                      "service_unavailable"),
              503);
        return;
      }
      res.body = ctx_.syscalls->call(kEdgeSource, "router.models", "{}").body;
      return;
    }
    base::HttpReply r = base::http_get(router_url_, "/v1/models", context_(req).auth_headers,
                                       std::chrono::seconds(10));
    if (!r.transport_ok) {
      base::fail(res, 502, "upstream_unreachable", {{"upstream", router_url_}});
      return;
    }
    res.status = r.status;
    res.body = std::move(r.body);
  });
  gw.route(
      "POST", "/v1/embeddings",
      [this](const Request& req, Response& res) {
        if (!base::require_model_access(req, res)) return;
        if (router_url_.empty()) {
          if (!ctx_.syscalls->has("router.embeddings")) {
            reply(res,
                  base::openai_error_body("no router on this node", "service_unavailable",
                                          "service_unavailable"),
                  503);
            return;
          }
          Json j = base::parse_json(
              ctx_.syscalls->call(kEdgeSource, "router.embeddings", req.body).body);
          res.status = j.is_object() ? j.value("status", 502) : 502;
          res.body = j.is_object() ? base::dump_json(j["body"]) : "{}";
          return;
        }
        base::HttpReply r = base::http_post(router_url_, "/v1/embeddings", req.body,
                                            context_(req).auth_headers, std::chrono::seconds(60));
        if (!r.transport_ok) {
          base::fail(res, 502, "upstream_unreachable", {{"upstream", router_url_}});
          return;
        }
        res.status = r.status;
        res.body = std::move(r.body);
      },
      large);
}

}  // namespace
}  // namespace ostrel::edge

static ostrel::kernel::ModuleRegistrar<ostrel::edge::EdgeModule> EdgeModule_registrar("edge");
