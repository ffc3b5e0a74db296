// Tenant routes and syscalls: listing, creation, metadata, lifecycle, roles,
// users and quota checks.
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "base/access.h"
#include "base/json.h"
#include "base/names.h"
#include "base/reply.h"
#include "identity/identity_routes.h"

namespace ostrel::identity {
namespace {

using base::reply;
using base::Request;
using base::Response;
using Json = nlohmann::json;

// "/api/v1/tenants/<id>[/<rest>]".
bool split_tenant_path(const std::string& path, std::string& id, std::string& rest) {
  constexpr std::string_view prefix = "/api/v1/tenants/";
  if (path.size() <= prefix.size()) return false;
  std::string tail = path.substr(prefix.size());
  size_t slash = tail.find('/');
  id = tail.substr(0, slash);
  rest = slash == std::string::npos ? "" : tail.substr(slash + 1);
  return !id.empty();
}

int status_for(const std::string& error) {
  if (error == "not_found" || error == "user_not_found") return 404;
  if (error == "already_exists") return 409;
  if (error == "journal_write_failed" || error == "key_store_unavailable") return 503;
  return 400;
}

void audit(const IdentityContext& ctx, const Request& req, Json event) {
  if (ctx.audit) ctx.audit(&req, event);
}

Json tenant_detail(const IdentityContext& ctx, const Tenant& t) {
  Json users = Json::array(), roles = Json::array(), usage = Json::object();
  for (const auto& u : ctx.rbac->users(t.id)) users.push_back(u);
  for (const auto& r : ctx.rbac->roles(t.id)) roles.push_back(r);
  for (const auto& [resource, v] : ctx.quotas->usage_of(t.id)) usage[resource] = v;
  return {{"tenant", t},
          {"users", users},
          {"roles", roles},
          {"usage", usage},
          {"limits",
           {{"cpu_cores", t.quotas.cpu_cores},
            {"ram_gb", t.quotas.ram_gb},
            {"disk_gb", t.quotas.disk_gb},
            {"tokens_per_day", t.quotas.tokens_per_day},
            {"extensions_count", t.quotas.extensions_count}}}};
}

// POST /api/v1/tenants/<id>/{state,roles,users,users/<user>/roles}.
bool change_tenant(const IdentityContext& ctx, const std::string& id, const std::string& rest,
                   const Json& body, Response& res, std::string& error, Json& event) {
  if (rest == "state") {
    std::string state = body.value("state", "");
    if (!ctx.tenants->transition(id, state, error)) return false;
    if (ctx.credentials_changed) ctx.credentials_changed();
    event = {{"action", "tenant.state"}, {"tenant", id}, {"state", state}};
    return true;
  }
  if (rest == "roles") {
    Role role;
    role.tenant = id;
    role.id = body.value("id", "");
    role.display_name = body.value("display_name", role.id);
    if (body.contains("permissions") &&
        !base::string_list_member(body, "permissions", role.permissions)) {
      error = "permissions must be an array of strings";
      return false;
    }
    if (std::string why; !role.id.empty() && !base::safe_name(role.id, why)) {
      error = "invalid role id: " + why;
      return false;
    }
    event = {{"action", "role.create"},
             {"tenant", id},
             {"role_id", role.id},
             {"permissions", role.permissions}};
    return ctx.rbac->create_role(role, error);
  }
  if (rest == "users") {
    User user;
    user.tenant = id;
    user.id = body.value("id", "");
    user.display_name = body.value("display_name", user.id);
    user.state = body.value("state", "active");
    if (body.contains("role_ids") && !base::string_list_member(body, "role_ids", user.role_ids)) {
      error = "role_ids must be an array of strings";
      return false;
    }
    if (std::string why; !user.id.empty() && !base::safe_name(user.id, why)) {
      error = "invalid user id: " + why;
      return false;
    }
    event = {{"action", "user.create"},
             {"tenant", id},
             {"subject", user.id},
             {"role_ids", user.role_ids}};
    if (!ctx.rbac->create_user(user, error)) return false;
    if (ctx.credentials_changed) ctx.credentials_changed();
    return true;
  }
  if (rest.rfind("users/", 0) == 0 && rest.size() > 12 &&
      rest.compare(rest.size() - 6, 6, "/roles") == 0) {
    std::string user_id = rest.substr(6, rest.size() - 12);
    std::string role_id = body.value("role_id", "");
    bool unassign = body.value("action", "assign") == "unassign";
    bool ok = unassign ? ctx.rbac->unassign_role(id, user_id, role_id, error)
                       : ctx.rbac->assign_role(id, user_id, role_id, error);
    if (ok && ctx.credentials_changed) ctx.credentials_changed();
    event = {{"action", unassign ? "user.role.unassign" : "user.role.assign"},
             {"tenant", id},
             {"subject", user_id},
             {"role_id", role_id}};
    return ok;
  }
  base::fail(res, 404, "not_found", {{"path", "/api/v1/tenants/" + id + "/" + rest}});
  error.clear();
  return false;
}

}  // namespace

bool create_tenant(const IdentityContext& ctx, const Json& spec, Tenant& out, std::string& error) {
  Tenant t;
  auto id = spec.find("id");
  if (id == spec.end() || !id->is_string() || id->get<std::string>().empty()) {
    error = "missing id";
    return false;
  }
  t.id = *id;
  if (std::string why; !base::safe_tenant_id(t.id, why)) {
    error = "invalid_tenant_id: " + why;
    return false;
  }
  t.display_name = spec.value("display_name", t.id);
  t.state = spec.value("state", "active");
  t.notes = spec.value("notes", "");
  if (ctx.tenants->exists(t.id)) {
    error = "already_exists";
    return false;
  }
  // Metadata goes into the one create record; applied to a scratch registry
  // first, so that bad fields refuse the whole creation.
  Json meta = Json::object();
  for (const char* key : {"admin_contacts", "quotas"}) {
    if (spec.contains(key)) meta[key] = spec[key];
  }
  if (!meta.empty()) {
    TenantRegistry scratch;
    Tenant probe = t;
    probe.state = "active";
    if (!scratch.create(probe, error) || !scratch.update_metadata(t.id, meta, error)) return false;
    scratch.get(t.id, probe);
    t.admin_contacts = probe.admin_contacts;
    t.quotas = probe.quotas;
  }
  // The key first: a tenant that exists always has one (or gets one at boot).
  if (!ctx.issuer->add_tenant_key(t.id, error)) {
    error = "key_store_unavailable";
    return false;
  }
  if (!ctx.tenants->create(t, error)) return false;
  if (!ctx.rbac->seed_default_roles(t.id)) {
    // The tenant exists; its roles are completed at the next boot.
    error = "journal_write_failed";
    return false;
  }
  ctx.tenants->get(t.id, out);
  return true;
}

std::size_t repair_tenants(const IdentityContext& ctx) {
  std::size_t repaired = 0;
  for (const Tenant& t : ctx.tenants->list()) {
    if (t.state == "terminating") continue;
    bool fixed = false;
    if (!ctx.rbac->has_roles(t.id)) fixed = ctx.rbac->seed_default_roles(t.id) || fixed;
    if (!ctx.issuer->has_tenant_key(t.id)) {
      std::string error;
      fixed = ctx.issuer->add_tenant_key(t.id, error) || fixed;
    }
    if (fixed) {
      ++repaired;
      ctx.log.info("tenant repaired after an interrupted creation: " + t.id);
    }
  }
  return repaired;
}

std::size_t audit_unrecorded_tenants(const IdentityContext& ctx) {
  if (!ctx.audit_log || !ctx.audit) return 0;
  AuditLog::Filter f;
  f.limit = std::numeric_limits<std::size_t>::max();
  f.action = "tenant.create";
  std::size_t total = 0;
  std::set<std::string> recorded;
  for (const AuditEvent& e : ctx.audit_log->query(f, total)) recorded.insert(e.tenant);
  std::size_t n = 0;
  for (const Tenant& t : ctx.tenants->list()) {
    // "default" is made by the node itself at its first start, not by anyone
    // whose change the log records.
    if (t.id == "default" || recorded.count(t.id)) continue;
    ctx.audit(nullptr, {{"action", "tenant.create"}, {"tenant", t.id}, {"recovered", true}});
    ++n;
  }
  return n;
}

void register_tenant_routes(const IdentityContext& ctx, const AddRoute& add) {
  add("GET", "/api/v1/tenants", [ctx](const Request& req, Response& res) {
    Json list = Json::array();
    for (const Tenant& t : ctx.tenants->list()) {
      // A tenant-bound caller sees only its own tenant.
      if (!req.tenant.empty() && req.tenant != t.id) continue;
      list.push_back(t);
    }
    reply(res, {{"tenants", list}});
  });

  add("POST", "/api/v1/tenants", [ctx](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body) || !base::require_admin(req, res)) return;
    Tenant created;
    std::string error;
    bool ok = false;
    try {
      ok = create_tenant(ctx, body, created, error);
    } catch (const Json::type_error&) {
      base::fail(res, 400, "invalid_field", "a field has the wrong type");
      return;
    }
    if (!ok) {
      base::fail(res, status_for(error), error);
      return;
    }
    ctx.log.info("tenant created: " + created.id);
    audit(ctx, req, {{"action", "tenant.create"}, {"tenant", created.id}});
    reply(res, {{"tenant", created}}, 201);
  });

  add("GET", "/api/v1/tenants/*", [ctx](const Request& req, Response& res) {
    std::string id, rest;
    if (!split_tenant_path(req.path, id, rest) || !rest.empty()) {
      base::fail(res, 404, "not_found", {{"path", req.path}});
      return;
    }
    if (tenant_guard::deny_if_cross_tenant(req.tenant, id, res)) return;
    Tenant t;
    if (!ctx.tenants->get(id, t)) {
      base::fail(res, 404, "not_found");
      return;
    }
    reply(res, tenant_detail(ctx, t));
  });

  add("PUT", "/api/v1/tenants/*", [ctx](const Request& req, Response& res) {
    std::string id, rest;
    Json body;
    if (!split_tenant_path(req.path, id, rest) || !rest.empty()) {
      base::fail(res, 404, "not_found", {{"path", req.path}});
      return;
    }
    if (!base::parse_object_body(req, res, body) || !base::require_admin(req, res)) return;
    std::string error;
    if (!ctx.tenants->update_metadata(id, body, error)) {
      base::fail(res, error == "not_found" ? 404 : status_for(error), error);
      return;
    }
    ctx.log.info("tenant updated: " + id);
    Tenant t;
    ctx.tenants->get(id, t);
    reply(res, {{"tenant", t}});
  });

  add("POST", "/api/v1/tenants/*", [ctx](const Request& req, Response& res) {
    std::string id, rest;
    Json body;
    if (!split_tenant_path(req.path, id, rest)) {
      base::fail(res, 404, "not_found", {{"path", req.path}});
      return;
    }
    if (!base::parse_object_body(req, res, body)) return;
    if (tenant_guard::deny_if_cross_tenant(req.tenant, id, res)) return;
    Tenant t;
    if (!ctx.tenants->get(id, t)) {
      base::fail(res, 404, "not_found");
      return;
    }
    if (rest == "quota/check") {
      auto resource = body.value("resource", Json(""));
      std::int64_t increment = 0;
      std::optional<std::int64_t> limit;
      if (resource.is_string()) limit = t.quotas.limit(resource);
      if (!limit || !base::int_member(body, "increment", 1, increment)) {
        base::fail(res, 400, "unknown_resource");
        return;
      }
      QuotaCheck c = ctx.quotas->check(id, resource, increment, *limit);
      reply(res, {{"ok", c.ok},
                  {"usage", c.usage},
                  {"limit", c.limit},
                  {"projected_usage", c.projected_usage},
                  {"reason", c.reason}});
      return;
    }
    if (!base::require_admin(req, res)) return;
    std::string error;
    Json event;
    bool ok = false;
    try {
      ok = change_tenant(ctx, id, rest, body, res, error, event);
    } catch (const Json::type_error&) {
      base::fail(res, 400, "invalid_field", "a field has the wrong type");
      return;
    }
    if (!ok) {
      if (!error.empty()) base::fail(res, status_for(error), error);
      return;
    }
    audit(ctx, req, event);
    ctx.tenants->get(id, t);
    reply(res, {{"status", "ok"}, {"tenant", t}});
  });
}

void register_tenant_syscalls(const IdentityContext& ctx, const AddSyscall& add) {
  using base::json_syscall;
  using base::syscall_error;
  using base::syscall_ok;

  add("kernel.tenant.is_active", json_syscall([ctx](const Json& a) {
        std::string tenant = a.value("tenant", "");
        return syscall_ok({{"tenant", tenant}, {"active", ctx.tenants->is_active(tenant)}});
      }),
      base::SyscallAccess::tenant());

  // The roles of one user of a tenant (for modules deciding what a caller
  // may do); an unknown or disabled user holds none.
  add("identity.users.roles", json_syscall([ctx](const Json& a) {
        const std::string tenant = a.value("tenant", ""), user_id = a.value("user_id", "");
        User u;
        Json roles = Json::array();
        if (ctx.rbac->user(tenant, user_id, u) && u.state == "active") roles = u.role_ids;
        return syscall_ok({{"tenant", tenant}, {"user_id", user_id}, {"roles", roles}});
      }));

  add("kernel.quota.check", json_syscall([ctx](const Json& a) {
        std::string tenant = a.value("tenant", ""), resource = a.value("resource", "");
        std::int64_t increment = base::int_value(a, "increment", 1);
        Tenant t;
        std::int64_t limit = -1;
        if (ctx.tenants->get(tenant, t)) limit = t.quotas.limit(resource).value_or(-1);
        if (a.contains("limit") && a["limit"].is_number_integer()) limit = a["limit"];
        QuotaCheck c = ctx.quotas->check(tenant, resource, increment, limit);
        return syscall_ok({{"ok", c.ok},
                           {"usage", c.usage},
                           {"limit", c.limit},
                           {"projected_usage", c.projected_usage},
                           {"reason", c.reason}});
      }),
      base::SyscallAccess::tenant());

  for (const char* op : {"consume", "release"}) {
    const bool consume = std::string_view(op) == "consume";
    add(std::string("kernel.quota.") + op, json_syscall([ctx, consume](const Json& a) {
          std::string tenant = a.value("tenant", ""), resource = a.value("resource", "");
          if (tenant.empty() || resource.empty()) {
            return syscall_error("missing tenant or resource");
          }
          std::int64_t amount = base::int_value(a, "amount", 1);
          std::int64_t usage = consume ? ctx.quotas->consume(tenant, resource, amount)
                                       : ctx.quotas->release(tenant, resource, amount);
          return syscall_ok({{"tenant", tenant}, {"resource", resource}, {"usage", usage}});
        }));
  }

  add("identity.tenants.list", json_syscall([ctx](const Json&) {
        Json list = Json::array();
        for (const Tenant& t : ctx.tenants->list()) list.push_back(t);
        return syscall_ok({{"tenants", list}});
      }));

  add("identity.tenants.create", json_syscall([ctx](const Json& a) {
        Tenant created;
        std::string error;
        if (!create_tenant(ctx, a, created, error)) return syscall_error(error);
        ctx.log.info("tenant created: " + created.id);
        if (ctx.audit) ctx.audit(nullptr, {{"action", "tenant.create"}, {"tenant", created.id}});
        return syscall_ok({{"tenant", created}});
      }));

  // Tenants are never erased: deleting one moves it to "terminating" for
  // good and drops its roles, users, usage counters and signing key.
  add("identity.tenants.delete", json_syscall([ctx](const Json& a) {
        std::string id = a.value("id", a.value("tenant", ""));
        std::string error;
        if (!ctx.tenants->transition(id, "terminating", error)) return syscall_error(error);
        if (ctx.credentials_changed) ctx.credentials_changed();
        // A failed drop leaves roles behind for a tenant that is already
        // locked out; compaction and the next delete try again.
        ctx.rbac->drop_tenant(id);
        ctx.quotas->drop_tenant(id);
        ctx.issuer->drop_tenant_key(id);
        if (ctx.audit)
          ctx.audit(nullptr,
                    {{"action", "tenant.state"}, {"tenant", id}, {"state", "terminating"}});
        return syscall_ok({{"id", id}, {"state", "terminating"}});
      }));
}

}  // namespace ostrel::identity
