#include "kernel/syscall_access.h"

#include <nlohmann/json.hpp>
#include <string>

#include "base/access.h"
#include "base/reply.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;

// Every syscall reachable from outside, by the rule of the route it mirrors.
// Names not listed need an administrator.
constexpr SyscallRule kRules[] = {
    // Tenants and quotas.
    {"kernel.tenant.is_active", SyscallAccess::tenant, {}},
    {"kernel.quota.check", SyscallAccess::tenant, {}},
    {"kernel.quota.*", SyscallAccess::admin, {}},
    {"identity.*", SyscallAccess::admin, {}},
    // Inference: using models needs the chat scope; the catalogue is public
    // as on its routes; backends and model files are administration.
    {"inference.chat", SyscallAccess::scoped_tenant, "inference.chat"},
    {"inference.chat.stream", SyscallAccess::scoped_tenant, "inference.chat"},
    {"inference.embeddings", SyscallAccess::scoped, "inference.chat"},
    {"inference.models.list", SyscallAccess::open, {}},
    {"inference.local_backends.list", SyscallAccess::open, {}},
    {"inference.*", SyscallAccess::admin, {}},
    // Data and memory: per tenant, with the scopes of their routes.
    {"data.vector.search", SyscallAccess::scoped_tenant, "data.vector.search"},
    {"data.vector.*", SyscallAccess::scoped_tenant, "data.vector.write"},
    {"data.memory.recall", SyscallAccess::scoped_tenant, "data.memory.recall"},
    {"data.memory.is_tombstoned", SyscallAccess::scoped_tenant, "data.memory.recall"},
    {"data.memory.store", SyscallAccess::scoped_tenant, "data.memory.store"},
    {"data.memory.forget", SyscallAccess::scoped_tenant, "data.memory.store"},
    {"data.objects.list", SyscallAccess::scoped_tenant, "data.storage.read"},
    {"data.*", SyscallAccess::admin, {}},
    // Search, tools and policy questions.
    {"search.query", SyscallAccess::scoped_tenant, "search.query"},
    {"security.role.check", SyscallAccess::open, {}},
    {"security.*", SyscallAccess::admin, {}},
    {"tools.list", SyscallAccess::open, {}},
    {"audit.query", SyscallAccess::scoped_tenant, "audit.read"},
    {"audit.*", SyscallAccess::admin, {}},
    {"agent.chat", SyscallAccess::scoped_tenant, "agent.invoke"},
    {"agent.invoke", SyscallAccess::scoped_tenant, "agent.invoke"},
    {"agent.sessions.create", SyscallAccess::scoped_tenant, "agent.invoke"},
    {"agent.domain-matrix.get", SyscallAccess::open, {}},
    {"agent.tool.list", SyscallAccess::open, {}},
    {"agent.*", SyscallAccess::admin, {}},
    // Dreaming: reading the current cycle, or running cycles and profiles.
    {"dream.current", SyscallAccess::scoped, "dream.read"},
    {"dream.*", SyscallAccess::scoped, "dream.run"},
};

bool matches(std::string_view pattern, std::string_view name, std::size_t& literal) {
  if (!pattern.empty() && pattern.back() == '*') {
    std::string_view prefix = pattern.substr(0, pattern.size() - 1);
    literal = prefix.size();
    return name.substr(0, prefix.size()) == prefix;
  }
  literal = pattern.size() + 1;  // an exact entry beats any prefix
  return pattern == name;
}

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

SyscallRule syscall_rule(std::string_view name) {
  const SyscallRule* best = nullptr;
  std::size_t best_len = 0;
  for (const SyscallRule& r : kRules) {
    std::size_t literal = 0;
    if (matches(r.pattern, name, literal) && (!best || literal > best_len)) {
      best = &r;
      best_len = literal;
    }
  }
  return best ? *best : SyscallRule{name, SyscallAccess::admin, {}};
}

bool authorize_syscall(const Request& req, std::string_view name, Json& args, Response& res) {
  const SyscallRule rule = syscall_rule(name);
  if (!args.is_object()) args = Json::object();
  switch (rule.access) {
    case SyscallAccess::open:
      return true;
    case SyscallAccess::admin:
      if (is_admin(req)) return true;
      forbid(res, "syscall " + std::string(name) + " needs an administrator");
      return false;
    case SyscallAccess::scoped:
      if (has_scope(req, rule.scope)) return true;
      forbid(res, "scope " + std::string(rule.scope) + " required");
      return false;
    case SyscallAccess::scoped_tenant:
      if (!has_scope(req, rule.scope)) {
        forbid(res, "scope " + std::string(rule.scope) + " required");
        return false;
      }
      return same_tenant(req, args, res);
    case SyscallAccess::tenant:
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
