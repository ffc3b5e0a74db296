// The identity stores' routes and syscalls wired into the kernel's gateway
// and syscall table, and journal compaction.
#include <filesystem>
#include <nlohmann/json.hpp>

#include "base/access.h"
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
  ctx.log_info = [this](const std::string& line) { logger_.info(line); };
  return ctx;
}

void Kernel::register_identity_routes_() {
  identity::AddRoute add = [this](const std::string& method, const std::string& path,
                                  identity::RouteFn fn) {
    gateway_.route(method, path, std::move(fn));
  };
  identity::register_capability_routes(identity_context_(), add);
  identity::register_tenant_routes(identity_context_(), add);
}

void Kernel::register_identity_syscalls_() {
  identity::register_tenant_syscalls(
      identity_context_(), [this](const std::string& name, identity::SyscallFn fn) {
        syscalls_.register_syscall(identity::kKernelSource, name, std::move(fn));
      });
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
    for (const char* name : {"tenants", "rbac", "audit", "caps", "extensions"}) {
      std::error_code ec;
      auto size = std::filesystem::file_size(state / (std::string(name) + ".jsonl"), ec);
      sizes[name] = ec ? Json(nullptr) : Json(size);
      line += std::string(" ") + name + "=" + (ec ? std::string("absent") : std::to_string(size));
    }
    logger_.info(line);
    base::reply(res,
                {{"status", failures.empty() ? "compacted" : "partial"},
                 {"bytes", sizes},
                 {"failures", failures}},
                failures.empty() ? 200 : 500);
  });
}

}  // namespace ostrel::kernel
