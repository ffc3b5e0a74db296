// The kernel's own routes: health, metrics and introspection of modules,
// routes, syscalls and event subscriptions, plus generic syscall and event
// entry points.
#include <nlohmann/json.hpp>

#include "base/access.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/text.h"
#include "identity/identity_registry.h"
#include "kernel/kernel.h"
#include "kernel/obs/metrics.h"
#include "kernel/obs/process_metrics.h"
#include "kernel/obs/telemetry.h"
#include "kernel/syscall_access.h"

namespace ostrel::kernel {
using base::parse_object_body;
namespace {

using Json = nlohmann::json;

using base::reply;

HealthStatus safe_health(ModuleBase& module) {
  try {
    return module.health();
  } catch (const std::exception& e) {
    return {HealthState::unknown, std::string("health() threw: ") + e.what()};
  } catch (...) {
    return {HealthState::unknown, "health() threw"};
  }
}

}  // namespace

void Kernel::register_builtin_routes() {
  const identity::SourceCode self = identity::kKernelSource;

  // Polled constantly by load balancers and the self-health watchdog, so the
  // body is written directly rather than through a JSON tree.
  gateway_.route("GET", "/health", [this](const Request&, Response& res) {
    auto uptime = std::chrono::duration_cast<std::chrono::seconds>(
                      std::chrono::steady_clock::now() - boot_started_)
                      .count();
    std::string& b = res.body;
    b.reserve(160 + modules_.size() * 48);
    b += "{\"status\":\"ok\",\"node_id\":";
    text::append_json_string(b, config_.node_id);
    b += ",\"version\":\"5.0.0\",\"uptime_s\":" + std::to_string(uptime);
    b += gateway_.auth_mode() == AuthMode::enforce ? ",\"auth\":\"enforce\"" : ",\"auth\":\"off\"";
    b += ",\"modules\":[";
    for (size_t i = 0; i < modules_.size(); ++i) {
      HealthStatus h = safe_health(*modules_[i].instance);
      b += i ? ",{\"name\":" : "{\"name\":";
      text::append_json_string(b, modules_[i].definition.name);
      b += ",\"state\":\"";
      b += health_state_name(h.state);
      b += "\"}";
    }
    b += "],\"module_count\":" + std::to_string(modules_.size()) + "}";
  });

  gateway_.route("GET", "/metrics", [this](const Request&, Response& res) {
    res.content_type = "text/plain; version=0.0.4";
    res.body = obs::MetricsRegistry::instance().to_prometheus() +
               telemetry::Telemetry::instance().to_prometheus() + metrics_.to_prometheus() +
               obs::process_metrics_text();
  });

  gateway_.route("GET", "/api/v1/kernel/modules", [this](const Request&, Response& res) {
    Json out = Json::array();
    for (const auto& m : modules_) {
      HealthStatus h = safe_health(*m.instance);
      identity::SourceCode code = m.instance->source_code();
      out.push_back({{"name", m.definition.name},
                     {"display_name", m.instance->display_name()},
                     {"version", m.instance->version()},
                     {"source_code", code.hex()},
                     {"source_path", identity_registry::path_name(code)},
                     {"state", health_state_name(h.state)},
                     {"summary", h.summary}});
    }
    reply(res, out);
  });

  gateway_.route("GET", "/api/v1/kernel/routes", [this](const Request&, Response& res) {
    Json out = Json::array();
    for (const auto& r : gateway_.routes()) out.push_back({{"method", r.method}, {"path", r.path}});
    reply(res, out);
  });

  gateway_.route("GET", "/api/v1/kernel/stats", [this](const Request&, Response& res) {
    auto& registry = obs::MetricsRegistry::instance();
    auto count = [&](const char* name) {
      return static_cast<std::uint64_t>(registry.counter(name).value());
    };
    reply(res, {{"requests_total", count("ostrel_requests_total")},
                {"errors_total", count("ostrel_requests_failed_total")},
                {"modules", modules_.size()},
                {"node_id", config_.node_id}});
  });

  gateway_.route("GET", "/api/v1/kernel/config", [this](const Request& req, Response& res) {
    // Module settings may hold credentials.
    if (!require_admin(req, res)) return;
    std::string name = req.param("module");
    for (const auto& m : modules_) {
      if (m.definition.name != name) continue;
      Json out = Json::object();
      for (const auto& [k, v] : m.config.values()) out[k] = v;
      reply(res, out);
      return;
    }
    base::fail(res, 404, "module_not_loaded");
  });

  gateway_.route("GET", "/api/v1/kernel/syscalls", [this](const Request&, Response& res) {
    Json out = Json::array();
    for (const auto& e : syscalls_.list()) {
      out.push_back({{"name", e.name},
                     {"owner", e.owner.hex()},
                     {"owner_path", identity_registry::path_name(e.owner)},
                     {"streaming", e.streaming}});
    }
    reply(res, out);
  });

  gateway_.route("POST", "/api/v1/kernel/syscall", [this, self](const Request& req, Response& res) {
    Json body;
    if (!parse_object_body(req, res, body)) return;
    auto name = body.find("name");
    if (name == body.end() || !name->is_string() || name->get<std::string>().empty()) {
      base::fail(res, 400, "missing_name");
      return;
    }
    const std::string syscall = name->get<std::string>();
    if (!syscalls_.has(syscall)) {
      base::fail(res, 404, "not_found");
      return;
    }
    Json args = body.value("args", Json::object());
    if (!authorize_syscall(syscalls_, req, syscall, args, res)) return;
    // An audit record made over HTTP names who asked for it.
    if (syscall == "audit.append" && args.is_object() && !args.contains("actor")) {
      args["actor"] = actor_of_(&req);
    }
    SyscallResult r;
    try {
      r = syscalls_.call(self, syscall, base::dump_json(args));
    } catch (const std::exception& e) {
      r = base::syscall_error("internal", base::client_safe_what(e));
    }
    // The result body is JSON text; a handler that returned something else
    // still gets a well-formed answer, with its text as a string.
    Json result = base::parse_json(r.body);
    if (result.is_discarded()) result = r.body;
    reply(res, {{"name", syscall}, {"status", r.status}, {"body", result}});
  });

  gateway_.route("GET", "/api/v1/kernel/events/subscriptions",
                 [this](const Request&, Response& res) {
                   Json out = Json::array();
                   for (const auto& s : bus_.subscriptions()) {
                     out.push_back({{"id", s.id},
                                    {"subscriber", s.owner.hex()},
                                    {"subscriber_path", identity_registry::path_name(s.owner)},
                                    {"topic", s.topic}});
                   }
                   reply(res, out);
                 });

  gateway_.route(
      "POST", "/api/v1/kernel/events/publish", [this, self](const Request& req, Response& res) {
        Json body;
        if (!parse_object_body(req, res, body)) return;
        auto topic = body.find("topic");
        if (topic == body.end() || !topic->is_string() || topic->get<std::string>().empty()) {
          base::fail(res, 400, "missing_topic");
          return;
        }
        if (!authorize_publish(req, topic->get<std::string>(), res)) return;
        Json payload = body.value("payload", Json::object());
        std::size_t notified =
            bus_.publish(self, topic->get<std::string>(), base::dump_json(payload));
        reply(res, {{"topic", *topic}, {"subscribers_notified", notified}});
      });
}

}  // namespace ostrel::kernel
