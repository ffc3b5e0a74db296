// HTTP faces and syscalls of the identity stores: capability tokens, tenants,
// quotas.
#include <chrono>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "identity/encoding.h"
#include "kernel/access.h"
#include "kernel/json_body.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;
using identity::Tenant;

const identity::SourceCode kUserHolder{0xfe, 0x01};

void reply(Response& res, const Json& body, int status = 200) {
  res.status = status;
  res.body = body.dump();
}

void fail(Response& res, int status, Json body) { reply(res, body, status); }

bool require_admin(const Request& req, Response& res) {
  if (is_admin(req)) return true;
  fail(res, 403, {{"error", "forbidden"}, {"reason", "admin scope required"}});
  return false;
}

bool read_int(const Json& body, const char* key, std::int64_t fallback, std::int64_t& out) {
  auto it = body.find(key);
  if (it == body.end() || it->is_null()) {
    out = fallback;
    return true;
  }
  if (!it->is_number_integer()) return false;
  out = it->get<std::int64_t>();
  return true;
}

bool read_string_list(const Json& body, const char* key, std::vector<std::string>& out) {
  auto it = body.find(key);
  if (it == body.end() || !it->is_array()) return false;
  out.clear();
  for (const auto& e : *it) {
    if (!e.is_string()) return false;
    out.push_back(e.get<std::string>());
  }
  return true;
}

// Tenant path segments: "/api/v1/tenants/<id>[/<rest>]".
bool split_tenant_path(const std::string& path, std::string& id, std::string& rest) {
  constexpr std::string_view prefix = "/api/v1/tenants/";
  if (path.size() <= prefix.size()) return false;
  std::string tail = path.substr(prefix.size());
  size_t slash = tail.find('/');
  id = tail.substr(0, slash);
  rest = slash == std::string::npos ? "" : tail.substr(slash + 1);
  return !id.empty();
}

// Creates a tenant from its JSON description, with the default roles and a
// signing key of its own. Shared by the route and the syscall.
bool create_tenant(identity::TenantRegistry& tenants, identity::RBAC& rbac,
                   identity::CapabilityIssuer& issuer, const Json& spec, Tenant& out,
                   std::string& error) {
  Tenant t;
  auto id = spec.find("id");
  if (id == spec.end() || !id->is_string() || id->get<std::string>().empty()) {
    error = "missing id";
    return false;
  }
  t.id = *id;
  t.display_name = spec.value("display_name", t.id);
  t.state = spec.value("state", "active");
  t.notes = spec.value("notes", "");
  if (!tenants.create(t, error)) return false;
  Json meta = Json::object();
  for (const char* key : {"admin_contacts", "quotas"}) {
    if (spec.contains(key)) meta[key] = spec[key];
  }
  if (!meta.empty() && !tenants.update_metadata(t.id, meta, error)) return false;
  rbac.seed_default_roles(t.id);
  std::string key_error;
  issuer.add_tenant_key(t.id, key_error);
  tenants.get(t.id, out);
  return true;
}

SyscallResult syscall_error(const std::string& code, const std::string& message = "") {
  Json body = {{"error", code}};
  if (!message.empty()) body["message"] = message;
  return {-1, body.dump()};
}

// Runs a syscall body that works on parsed arguments, turning bad JSON and
// exceptions into error results (exceptions never leave a syscall handler).
template <typename F>
SyscallHandler json_syscall(F body) {
  return [body](std::string_view args) -> SyscallResult {
    Json a = args.empty() ? Json::object() : Json::parse(args, nullptr, false);
    if (!a.is_object()) return syscall_error("invalid_json");
    try {
      return body(a);
    } catch (const std::exception& e) {
      return syscall_error("internal", e.what());
    }
  };
}

}  // namespace

void Kernel::register_identity_routes_() {
  gateway_.route("GET", "/api/v1/capabilities/public-key",
                 [this](const Request& req, Response& res) {
                   std::string tenant = req.param("tenant");
                   std::string pub;
                   if (!issuer_.public_key(tenant, pub)) {
                     fail(res, 404, {{"error", "no_key_for_tenant"}, {"tenant", tenant}});
                     return;
                   }
                   reply(res, {{"algorithm", "Ed25519"},
                               {"tenant", tenant},
                               {"public_key_hex", identity::to_hex(pub)},
                               {"length_bytes", pub.size()}});
                 });

  gateway_.route("POST", "/api/v1/capabilities/issue", [this](const Request& req, Response& res) {
    Json body;
    if (!parse_object_body(req, res, body) || !require_admin(req, res)) return;
    std::vector<std::string> scopes;
    if (!read_string_list(body, "scopes", scopes) || scopes.empty()) {
      fail(res, 400, {{"error", "scopes must be a non-empty array"}});
      return;
    }
    std::int64_t holder = 0, lifetime = 0;
    if (!read_int(body, "holder", 0xfe01, holder) || holder < 0 || holder > 0xffff) {
      fail(res, 400, {{"error", "holder must be a number between 0 and 65535"}});
      return;
    }
    if (!read_int(body, "lifetime_seconds", 3600, lifetime) || lifetime < 0) {
      fail(res, 400, {{"error", "lifetime_seconds must be a non-negative integer"}});
      return;
    }
    auto tenant = body.value("tenant", Json(""));
    if (!tenant.is_string()) {
      fail(res, 400, {{"error", "tenant must be a string"}});
      return;
    }
    std::string token =
        issuer_.issue(identity::SourceCode::from_value(static_cast<std::uint16_t>(holder)), scopes,
                      tenant.get<std::string>(), lifetime);
    if (token.empty()) {
      fail(res, 500, {{"error", "signing_failed"}});
      return;
    }
    reply(res, {{"token", token}, {"scopes", scopes}});
  });

  gateway_.route(
      "POST", "/api/v1/capabilities/issue-for-user", [this](const Request& req, Response& res) {
        Json body;
        if (!parse_object_body(req, res, body) || !require_admin(req, res)) return;
        auto tenant = body.value("tenant", Json(""));
        auto user_id = body.value("user_id", Json(""));
        if (!tenant.is_string() || !user_id.is_string() || tenant.get<std::string>().empty() ||
            user_id.get<std::string>().empty()) {
          fail(res, 400, {{"error", "missing tenant or user_id"}});
          return;
        }
        std::int64_t lifetime = 0;
        if (!read_int(body, "lifetime_seconds", 3600, lifetime) || lifetime < 0) {
          fail(res, 400, {{"error", "lifetime_seconds must be a non-negative integer"}});
          return;
        }
        if (!tenants_.is_active(tenant)) {
          fail(res, 400, {{"error", "tenant_unknown_or_inactive"}, {"tenant", tenant}});
          return;
        }
        identity::User user;
        if (!rbac_.user(tenant, user_id, user) || user.state != "active") {
          fail(res, 400, {{"error", "user_not_found_or_disabled"}, {"user_id", user_id}});
          return;
        }
        std::vector<std::string> scopes = rbac_.effective_permissions(tenant, user_id);
        if (scopes.empty()) {
          fail(res, 400, {{"error", "no_effective_permissions"}});
          return;
        }
        std::string token = issuer_.issue(kUserHolder, scopes, tenant, lifetime);
        if (token.empty()) {
          fail(res, 500, {{"error", "signing_failed"}});
          return;
        }
        reply(res, {{"token", token},
                    {"tenant", tenant},
                    {"user_id", user_id},
                    {"scopes", scopes},
                    {"role_ids", user.role_ids}});
      });

  gateway_.route("POST", "/api/v1/capabilities/verify", [this](const Request& req, Response& res) {
    Json body;
    if (!parse_object_body(req, res, body)) return;
    auto token = body.find("token");
    if (token == body.end() || !token->is_string() || token->get<std::string>().empty()) {
      fail(res, 400, {{"error", "missing token"}});
      return;
    }
    identity::CapabilityToken t;
    std::string error;
    if (!issuer_.verify(*token, t, error)) {
      reply(res, {{"valid", false}, {"reason", error}});
      return;
    }
    if (!t.tenant.empty() && !tenants_.is_active(t.tenant)) {
      reply(res,
            {{"valid", false}, {"reason", "tenant_unknown_or_inactive"}, {"tenant", t.tenant}});
      return;
    }
    reply(res, {{"valid", true},
                {"id", t.id},
                {"holder", t.holder.hex()},
                {"scopes", t.scopes},
                {"tenant", t.tenant},
                {"iat_unix_s", t.issued_at_s},
                {"exp_unix_s", t.expires_at_s}});
  });

  gateway_.route(
      "POST", "/api/v1/capabilities/attenuate", [this](const Request& req, Response& res) {
        Json body;
        if (!parse_object_body(req, res, body)) return;
        identity::CapabilityToken parent;
        std::string error;
        auto token = body.value("token", Json(""));
        if (!token.is_string() || !issuer_.verify(token, parent, error)) {
          fail(res, 400, {{"error", error.empty() ? "missing token" : error}});
          return;
        }
        std::vector<std::string> scopes;
        std::int64_t lifetime = 0;
        if (!read_string_list(body, "scopes", scopes)) {
          fail(res, 400, {{"error", "scopes must be an array of strings"}});
          return;
        }
        if (!read_int(body, "lifetime_seconds", 600, lifetime) || lifetime < 0) {
          fail(res, 400, {{"error", "lifetime_seconds must be a non-negative integer"}});
          return;
        }
        for (const auto& s : scopes) {
          if (std::find(parent.scopes.begin(), parent.scopes.end(), s) == parent.scopes.end()) {
            fail(res, 400, {{"error", "scope_not_subset"}});
            return;
          }
        }
        double now =
            std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        double remaining = static_cast<double>(parent.expires_at_s) - now;
        if (remaining < 1.0) {
          fail(res, 400, {{"error", "expired"}});
          return;
        }
        lifetime = std::min(lifetime, static_cast<std::int64_t>(std::floor(remaining)));
        std::string child = issuer_.issue(parent.holder, scopes, parent.tenant, lifetime);
        if (child.empty()) {
          fail(res, 500, {{"error", "signing_failed"}});
          return;
        }
        reply(res, {{"token", child}, {"scopes", scopes}});
      });

  gateway_.route("POST", "/api/v1/capabilities/revoke", [this](const Request& req, Response& res) {
    Json body;
    if (!parse_object_body(req, res, body) || !require_admin(req, res)) return;
    auto id = body.value("id", Json(""));
    if (!id.is_string() || id.get<std::string>().empty()) {
      fail(res, 400, {{"error", "missing id"}});
      return;
    }
    issuer_.revoke(id);
    reply(res, {{"status", "revoked"}, {"id", id}});
  });

  gateway_.route("GET", "/api/v1/capabilities/revocations", [this](const Request&, Response& res) {
    std::vector<std::string> ids = issuer_.revocations();
    reply(res, {{"revoked", ids}, {"count", ids.size()}});
  });

  gateway_.route("GET", "/api/v1/tenants", [this](const Request& req, Response& res) {
    Json list = Json::array();
    for (const Tenant& t : tenants_.list()) {
      // A tenant-bound caller sees only its own tenant.
      if (!req.tenant.empty() && req.tenant != t.id) continue;
      list.push_back(t);
    }
    reply(res, {{"tenants", list}});
  });

  gateway_.route("POST", "/api/v1/tenants", [this](const Request& req, Response& res) {
    Json body;
    if (!parse_object_body(req, res, body) || !require_admin(req, res)) return;
    Tenant created;
    std::string error;
    bool ok = false;
    try {
      ok = create_tenant(tenants_, rbac_, issuer_, body, created, error);
    } catch (const Json::type_error& e) {
      fail(res, 400, {{"error", "invalid_field"}, {"message", e.what()}});
      return;
    }
    if (!ok) {
      fail(res, error == "already_exists" ? 409 : 400, {{"error", error}});
      return;
    }
    logger_.info("tenant created: " + created.id);
    reply(res, {{"tenant", created}}, 201);
  });

  gateway_.route("GET", "/api/v1/tenants/*", [this](const Request& req, Response& res) {
    std::string id, rest;
    if (!split_tenant_path(req.path, id, rest) || !rest.empty()) {
      fail(res, 404, {{"error", "not_found"}, {"path", req.path}});
      return;
    }
    if (identity::tenant_guard::deny_if_cross_tenant(req.tenant, id, res)) return;
    Tenant t;
    if (!tenants_.get(id, t)) {
      fail(res, 404, {{"error", "not_found"}});
      return;
    }
    Json users = Json::array(), roles = Json::array(), usage = Json::object();
    for (const auto& u : rbac_.users(id)) users.push_back(u);
    for (const auto& r : rbac_.roles(id)) roles.push_back(r);
    for (const auto& [resource, v] : quotas_.usage_of(id)) usage[resource] = v;
    reply(res, {{"tenant", t},
                {"users", users},
                {"roles", roles},
                {"usage", usage},
                {"limits",
                 {{"cpu_cores", t.quotas.cpu_cores},
                  {"ram_gb", t.quotas.ram_gb},
                  {"disk_gb", t.quotas.disk_gb},
                  {"tokens_per_day", t.quotas.tokens_per_day},
                  {"extensions_count", t.quotas.extensions_count}}}});
  });

  gateway_.route("PUT", "/api/v1/tenants/*", [this](const Request& req, Response& res) {
    std::string id, rest;
    Json body;
    if (!split_tenant_path(req.path, id, rest) || !rest.empty()) {
      fail(res, 404, {{"error", "not_found"}, {"path", req.path}});
      return;
    }
    if (!parse_object_body(req, res, body) || !require_admin(req, res)) return;
    std::string error;
    if (!tenants_.update_metadata(id, body, error)) {
      fail(res, error == "not_found" ? 404 : 400, {{"error", error}});
      return;
    }
    logger_.info("tenant updated: " + id);
    Tenant t;
    tenants_.get(id, t);
    reply(res, {{"tenant", t}});
  });

  // POST /api/v1/tenants/<id>/quota/check, /state, /users, /roles and
  // /users/<user>/roles.
  gateway_.route("POST", "/api/v1/tenants/*", [this](const Request& req, Response& res) {
    std::string id, rest;
    Json body;
    if (!split_tenant_path(req.path, id, rest)) {
      fail(res, 404, {{"error", "not_found"}, {"path", req.path}});
      return;
    }
    if (!parse_object_body(req, res, body)) return;
    if (identity::tenant_guard::deny_if_cross_tenant(req.tenant, id, res)) return;
    Tenant t;
    if (!tenants_.get(id, t)) {
      fail(res, 404, {{"error", "not_found"}});
      return;
    }
    std::string error;
    if (rest == "quota/check") {
      auto resource = body.value("resource", Json(""));
      std::int64_t increment = 0;
      std::optional<std::int64_t> limit;
      if (resource.is_string()) limit = t.quotas.limit(resource);
      if (!limit || !read_int(body, "increment", 1, increment)) {
        fail(res, 400, {{"error", "unknown_resource"}});
        return;
      }
      identity::QuotaCheck c = quotas_.check(id, resource, increment, *limit);
      reply(res, {{"ok", c.ok},
                  {"usage", c.usage},
                  {"limit", c.limit},
                  {"projected_usage", c.projected_usage},
                  {"reason", c.reason}});
      return;
    }
    if (!require_admin(req, res)) return;
    bool ok = false;
    try {
      if (rest == "state") {
        ok = tenants_.transition(id, body.value("state", ""), error);
        if (ok) auth_cache_.clear();
      } else if (rest == "roles") {
        identity::Role role;
        role.tenant = id;
        role.id = body.value("id", "");
        role.display_name = body.value("display_name", role.id);
        if (body.contains("permissions") &&
            !read_string_list(body, "permissions", role.permissions)) {
          fail(res, 400, {{"error", "permissions must be an array of strings"}});
          return;
        }
        ok = rbac_.create_role(role, error);
      } else if (rest == "users") {
        identity::User user;
        user.tenant = id;
        user.id = body.value("id", "");
        user.display_name = body.value("display_name", user.id);
        user.state = body.value("state", "active");
        if (body.contains("role_ids") && !read_string_list(body, "role_ids", user.role_ids)) {
          fail(res, 400, {{"error", "role_ids must be an array of strings"}});
          return;
        }
        ok = rbac_.create_user(user, error);
      } else if (rest.rfind("users/", 0) == 0 && rest.size() > 12 &&
                 rest.compare(rest.size() - 6, 6, "/roles") == 0) {
        std::string user_id = rest.substr(6, rest.size() - 12);
        std::string role_id = body.value("role_id", "");
        ok = body.value("action", "assign") == "unassign"
                 ? rbac_.unassign_role(id, user_id, role_id, error)
                 : rbac_.assign_role(id, user_id, role_id, error);
      } else {
        fail(res, 404, {{"error", "not_found"}, {"path", req.path}});
        return;
      }
    } catch (const Json::type_error& e) {
      // A member of the wrong type (a number where a name belongs, …).
      fail(res, 400, {{"error", "invalid_field"}, {"message", e.what()}});
      return;
    }
    if (!ok) {
      fail(res, error == "not_found" || error == "user_not_found" ? 404 : 400, {{"error", error}});
      return;
    }
    tenants_.get(id, t);
    reply(res, {{"status", "ok"}, {"tenant", t}});
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
    reply(res,
          {{"status", failures.empty() ? "compacted" : "partial"},
           {"bytes", sizes},
           {"failures", failures}},
          failures.empty() ? 200 : 500);
  });
}

void Kernel::register_identity_syscalls_() {
  const identity::SourceCode self = identity::kKernelSource;

  syscalls_.register_syscall(
      self, "kernel.tenant.is_active", json_syscall([this](const Json& a) {
        std::string tenant = a.value("tenant", "");
        return SyscallResult::ok(
            Json{{"tenant", tenant}, {"active", tenants_.is_active(tenant)}}.dump());
      }));

  syscalls_.register_syscall(
      self, "kernel.quota.check", json_syscall([this](const Json& a) {
        std::string tenant = a.value("tenant", ""), resource = a.value("resource", "");
        std::int64_t increment = a.value("increment", std::int64_t{1});
        Tenant t;
        std::int64_t limit = -1;
        if (tenants_.get(tenant, t)) limit = t.quotas.limit(resource).value_or(-1);
        if (a.contains("limit") && a["limit"].is_number_integer()) limit = a["limit"];
        identity::QuotaCheck c = quotas_.check(tenant, resource, increment, limit);
        return SyscallResult::ok(Json{
            {"ok", c.ok},
            {"usage", c.usage},
            {"limit", c.limit},
            {"projected_usage", c.projected_usage},
            {"reason", c.reason}}.dump());
      }));

  for (const char* op : {"consume", "release"}) {
    const bool consume = std::string_view(op) == "consume";
    syscalls_.register_syscall(
        self, std::string("kernel.quota.") + op, json_syscall([this, consume](const Json& a) {
          std::string tenant = a.value("tenant", ""), resource = a.value("resource", "");
          if (tenant.empty() || resource.empty())
            return syscall_error("missing tenant or resource");
          std::int64_t amount = a.value("amount", std::int64_t{1});
          std::int64_t usage = consume ? quotas_.consume(tenant, resource, amount)
                                       : quotas_.release(tenant, resource, amount);
          return SyscallResult::ok(
              Json{{"tenant", tenant}, {"resource", resource}, {"usage", usage}}.dump());
        }));
  }

  syscalls_.register_syscall(self, "identity.tenants.list", json_syscall([this](const Json&) {
                               Json list = Json::array();
                               for (const Tenant& t : tenants_.list()) list.push_back(t);
                               return SyscallResult::ok(Json{{"tenants", list}}.dump());
                             }));

  syscalls_.register_syscall(self, "identity.tenants.create", json_syscall([this](const Json& a) {
                               Tenant created;
                               std::string error;
                               if (!create_tenant(tenants_, rbac_, issuer_, a, created, error))
                                 return syscall_error(error);
                               return SyscallResult::ok(Json{{"tenant", created}}.dump());
                             }));

  // Tenants are never erased: deleting one moves it to "terminating" for
  // good and drops its roles, users, usage counters and signing key.
  syscalls_.register_syscall(
      self, "identity.tenants.delete", json_syscall([this](const Json& a) {
        std::string id = a.value("id", a.value("tenant", ""));
        std::string error;
        if (!tenants_.transition(id, "terminating", error)) return syscall_error(error);
        rbac_.drop_tenant(id);
        quotas_.drop_tenant(id);
        issuer_.drop_tenant_key(id);
        auth_cache_.clear();
        return SyscallResult::ok(Json{{"id", id}, {"state", "terminating"}}.dump());
      }));
}

}  // namespace ostrel::kernel
