#include "kernel/syscall_access.h"

#include <nlohmann/json.hpp>
#include <string>

#include "base/access.h"
#include "base/reply.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;

void forbid(Response& res, const std::string& reason) {
  base::fail(res, 403, "forbidden", {{"reason", reason}});
}

bool same_tenant(const Request& req, Json& args, Response& res) {
  if (req.tenant.empty()) return true;  // not bound to a tenant
  for (const char* key : {"tenant", "tenant_id"}) {
    auto it = args.find(key);
    if (it == args.end() || it->is_null()) continue;
    if (!it->is_string() || it->get<std::string>() != req.tenant) {
      base::fail(res, 403, "cross_tenant_access_denied",
                 {{"authenticated_tenant", req.tenant},
                  {"requested_tenant", it->is_string() ? it->get<std::string>() : it->dump()}});
      return false;
    }
  }
  args["tenant"] = req.tenant;
  return true;
}

}  // namespace

bool authorize_syscall(const SyscallTable& table, const Request& req, std::string_view name,
                       Json& args, Response& res) {
  using Kind = SyscallAccess::Kind;
  const SyscallAccess rule = table.access(name);
  if (!args.is_object()) args = Json::object();
  switch (rule.kind) {
    case Kind::open:
      return true;
    case Kind::admin:
      if (is_admin(req)) return true;
      forbid(res, "syscall " + std::string(name) + " needs an administrator");
      return false;
    case Kind::scoped:
      if (has_scope(req, rule.scope)) return true;
      forbid(res, "scope " + rule.scope + " required");
      return false;
    case Kind::scoped_tenant:
      if (!has_scope(req, rule.scope)) {
        forbid(res, "scope " + rule.scope + " required");
        return false;
      }
      return same_tenant(req, args, res);
    case Kind::tenant:
      return same_tenant(req, args, res);
  }
  return false;
}

bool authorize_publish(const Request& req, std::string_view topic, Response& res) {
  if (is_admin(req)) return true;
  static constexpr std::string_view kReserved[] = {"module.",   "kernel.", "cluster.",
                                                   "identity.", "audit.",  "security.",
                                                   "tenant.",   "comm.",   "swarm."};
  for (std::string_view r : kReserved) {
    if (topic.substr(0, r.size()) == r) {
      forbid(res, "topic " + std::string(topic) + " is reserved for the node");
      return false;
    }
  }
  if (has_scope(req, "events.publish")) return true;
  forbid(res, "scope events.publish required");
  return false;
}

}  // namespace ostrel::kernel
