// The identity stores' routes and syscalls wired into the kernel's gateway
// and syscall table, and journal compaction.
#include <filesystem>
#include <nlohmann/json.hpp>

#include "base/access.h"
#include "base/encoding.h"
#include "base/env.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/reply.h"
#include "identity/identity_routes.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;

}  // namespace

identity::IdentityContext Kernel::identity_context_() {
  identity::IdentityContext ctx;
  ctx.issuer = &issuer_;
  ctx.tenants = &tenants_;
  ctx.rbac = &rbac_;
  ctx.quotas = &quotas_;
  ctx.credentials_changed = [this] { auth_cache_.clear(); };
  ctx.log = logger_;
  ctx.audit_log = &audit_;
  ctx.audit_checkpoints = audit_checkpoints_.get();
  ctx.audit = [this](const Request* caller, const Json& event) { audit_event_(caller, event); };
  ctx.verify_token = [this](const std::string& token) { return verify_credential_(token); };
  ctx.syscall_caller = [] { return SyscallTable::current_caller(); };
  ctx.users = &users_;
  ctx.throttle = &login_throttle_;
  ctx.reset_throttle = &reset_throttle_;
  ctx.enforcing = [this] { return gateway_.auth_mode() == AuthMode::enforce; };
  ctx.first_user_open = first_user_open_;
  ctx.send_reset_mail = [this](const std::string& to, const std::string& body) {
    send_reset_mail_(to, body);
  };
  ctx.cluster_secret = [this] { return cluster_secret_; };
  ctx.users_changed = [this] {
    auth_cache_.clear();
    // The first user closes an open node at once, not only at the next boot.
    if (gateway_.auth_mode() != AuthMode::enforce && users_.count_users() > 0) {
      gateway_.set_auth_mode(AuthMode::enforce);
      logger_.info("auth auto-enforce — users exist in identity store");
    }
  };
  return ctx;
}

void Kernel::register_identity_routes_() {
  identity::AddRoute add{
      [this](const std::string& method, const std::string& path, identity::RouteFn fn,
             RouteOptions options) { gateway_.route(method, path, std::move(fn), options); }};
  identity::register_capability_routes(identity_context_(), add);
  identity::register_tenant_routes(identity_context_(), add);
  identity::register_audit_routes(identity_context_(), add);
  identity::register_auth_routes(identity_context_(), add);
}

void Kernel::send_reset_mail_(const std::string& to, const std::string& body) {
  const Json mail = {{"protocol", "email"},
                     {"from", "noreply@ostrel.local"},
                     {"to", to},
                     {"subject", "Ostrel Password Reset"},
                     {"body", body}};
  if (syscalls_.has("comm.send")) {
    syscalls_.call(identity::kKernelSource, "comm.send", base::dump_json(mail));
    return;
  }
  const std::string controller = base::env::text("OSTREL_ULVO_CONTROLLER_URL");
  if (controller.empty()) {
    logger_.warn("password reset email dispatch failed (no controller_url): " + to);
    return;
  }
  base::HttpReply r = base::http_post(
      base::normalise_base_url(controller), "/api/v1/comm/send", base::dump_json(mail),
      {{"X-Ostrel-Node-Id", identity_.node_id}, {"X-Ostrel-Node-Token", identity_.node_token}},
      std::chrono::seconds(10));
  if (r.ok()) {
    logger_.info("password reset email dispatched via controller proxy");
  } else {
    logger_.warn("password reset email http-fallback failed: " +
                 (r.transport_ok ? "http " + std::to_string(r.status) : r.error));
  }
}

// One security-relevant action into the audit log. The actor is who made the
// request (user, token or peer node), "kernel" for the kernel's own acts.
std::string Kernel::actor_of_(const Request* caller) {
  if (!caller) return "kernel";
  return !caller->user_id.empty()        ? "user:" + caller->user_id
         : !caller->token_id.empty()     ? "token:" + caller->token_id
         : !caller->peer_node_id.empty() ? "node:" + caller->peer_node_id
                                         : "anonymous@" + caller->client_addr;
}

void Kernel::audit_event_(const Request* caller, const Json& event) {
  std::string actor = actor_of_(caller);
  auto text = [&](const char* key) {
    auto it = event.find(key);
    return it != event.end() && it->is_string() ? it->get<std::string>() : std::string();
  };
  Json metadata = Json::object();
  for (auto it = event.begin(); it != event.end(); ++it) {
    const std::string& k = it.key();
    if (k != "action" && k != "tenant" && k != "resource" && k != "outcome") metadata[k] = *it;
  }
  std::string resource = text("resource");
  if (resource.empty()) resource = text("token_id");
  if (resource.empty()) resource = text("subject");
  if (resource.empty()) resource = text("user_id");
  std::string outcome = text("outcome");
  audit_.append(identity::kKernelSource, std::move(actor), text("action"), std::move(resource),
                outcome.empty() ? "ok" : outcome, text("tenant"), base::dump_json(metadata));
}

void Kernel::register_identity_syscalls_() {
  identity::AddSyscall add{
      [this](const std::string& name, identity::SyscallFn fn, SyscallAccess access) {
        syscalls_.register_syscall(identity::kKernelSource, name, std::move(fn), std::move(access));
      }};
  identity::register_tenant_syscalls(identity_context_(), add);
  identity::register_audit_syscalls(identity_context_(), add);
  identity::register_user_syscalls(identity_context_(), add);
  // Other logs' checkpoints signed with the node's key (the security
  // module's decision log): only checkpoint messages, so the key signs
  // nothing else through here.
  add("audit.checkpoint.key", [this](std::string_view) {
    return base::syscall_ok({{"public_key", base::to_hex(issuer_.identity_key()->public_key())}});
  });
  add("audit.checkpoint.sign", base::json_syscall([this](const Json& a) {
        const Json count = a.value("count", Json()), ts = a.value("ts_ms", Json());
        const std::string chain = base::string_field(a, "chain"),
                          head = base::string_field(a, "head");
        if (chain.empty() || chain == "audit" || head.empty() || !count.is_number_unsigned() ||
            !ts.is_number_integer()) {
          return base::syscall_error("chain (not \"audit\"), count, head and ts_ms required");
        }
        const std::string sig = issuer_.identity_key()->sign(identity::ChainCheckpoints::message(
            chain, count.get<std::uint64_t>(), head, ts.get<std::int64_t>()));
        if (sig.empty()) return base::syscall_error("signing_failed");
        return base::syscall_ok(
            {{"signature", base::base64url_encode(sig)},
             {"public_key", base::to_hex(issuer_.identity_key()->public_key())}});
      }));
}

void Kernel::register_compaction_route_() {
  // Rewrites the state journals to their current contents. Journals whose
  // stores are not part of this build are reported as absent.
  gateway_.route("POST", "/api/v1/kernel/compact", [this](const Request& req, Response& res) {
    if (!require_admin(req, res)) return;
    const std::filesystem::path state = std::filesystem::path(config_.data_dir) / "state";
    std::string error;
    Json failures = Json::object();
    if (!tenants_.compact_journal(error)) failures["tenants"] = error;
    if (!rbac_.compact_journal(error)) failures["rbac"] = error;
    if (!issuer_.compact_revocations(error)) failures["caps"] = error;
    Json sizes = Json::object();
    std::string line = "journal compaction:";
    // The audit log is never rewritten: its chain is the record.
    for (const char* name : {"tenants", "rbac", "audit", "caps", "keys", "extensions"}) {
      std::error_code ec;
      auto size = std::filesystem::file_size(state / (std::string(name) + ".jsonl"), ec);
      sizes[name] = ec ? Json(nullptr) : Json(size);
      line += std::string(" ") + name + "=" + (ec ? std::string("absent") : std::to_string(size));
    }
    // Modules compact their own journals through "<module>.journal.compact".
    Json modules = Json::object();
    for (const auto& entry : syscalls_.list()) {
      const std::string suffix = ".journal.compact";
      if (entry.name.size() <= suffix.size() ||
          entry.name.compare(entry.name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        continue;
      }
      SyscallResult r = syscalls_.call(identity::kKernelSource, entry.name, "{}");
      Json body = base::parse_json(r.body);
      modules[entry.name] = body.is_discarded() ? Json(r.body) : body;
      if (r.status != 0) failures[entry.name] = modules[entry.name];
      line += " " + entry.name.substr(0, entry.name.size() - suffix.size()) + "=" +
              (r.status == 0 && body.is_object() ? std::to_string(body.value("bytes", 0))
                                                 : std::string("failed"));
    }
    sizes["modules"] = modules;
    logger_.info(line);
    audit_event_(&req, {{"action", "kernel.compact"},
                        {"outcome", failures.empty() ? "ok" : "partial"},
                        {"failures", failures}});
    base::reply(res,
                {{"status", failures.empty() ? "compacted" : "partial"},
                 {"bytes", sizes},
                 {"failures", failures}},
                failures.empty() ? 200 : 500);
  });
}

}  // namespace ostrel::kernel
