#include "identity/rbac.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <set>

#include "base/clock.h"
#include "base/journal.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/types.h"

namespace ostrel::identity {
namespace {

using Json = nlohmann::json;

Role role_from_json(const Json& j) {
  Role r;
  r.tenant = j.value("tenant", "");
  r.id = j.value("id", "");
  r.display_name = j.value("display_name", "");
  r.permissions = base::string_list(j, "permissions");
  r.created_at_ms = base::int_value(j, "created_at_ms", 0);
  return r;
}

User user_from_json(const Json& j) {
  User u;
  u.tenant = j.value("tenant", "");
  u.id = j.value("id", "");
  u.display_name = j.value("display_name", "");
  u.state = j.value("state", "active");
  u.created_at_ms = base::int_value(j, "created_at_ms", 0);
  u.role_ids = base::string_list(j, "role_ids");
  return u;
}

}  // namespace

void to_json(Json& j, const Role& r) {
  j = Json{{"tenant", r.tenant},
           {"id", r.id},
           {"display_name", r.display_name},
           {"permissions", r.permissions},
           {"created_at_ms", r.created_at_ms}};
}

void to_json(Json& j, const User& u) {
  j = Json{{"tenant", u.tenant},
           {"id", u.id},
           {"display_name", u.display_name},
           {"state", u.state},
           {"created_at_ms", u.created_at_ms},
           {"role_ids", u.role_ids}};
}

RBAC::RBAC(std::filesystem::path journal) : journal_(std::move(journal)) {}

bool RBAC::create_role(Role role, std::string& error) {
  if (role.tenant.empty() || role.id.empty()) {
    error = "missing tenant or id";
    return false;
  }
  std::lock_guard lock(mu_);
  Key key{role.tenant, role.id};
  if (roles_.count(key)) {
    error = "already_exists";
    return false;
  }
  if (!journal_.replaying()) role.created_at_ms = base::unix_ms();
  if (!journal_.append(Json{{"op", "role_create"}, {"role", role}})) {
    error = "journal_write_failed";
    return false;
  }
  roles_[key] = std::move(role);
  return true;
}

bool RBAC::set_role_permissions(const std::string& tenant, const std::string& role_id,
                                std::vector<std::string> permissions, std::string& error) {
  std::lock_guard lock(mu_);
  auto it = roles_.find({tenant, role_id});
  if (it == roles_.end()) {
    error = "unknown_role";
    return false;
  }
  if (!journal_.append(Json{{"op", "role_perms"},
                            {"tenant", tenant},
                            {"role_id", role_id},
                            {"permissions", permissions}})) {
    error = "journal_write_failed";
    return false;
  }
  it->second.permissions = std::move(permissions);
  return true;
}

bool RBAC::delete_role(const std::string& tenant, const std::string& role_id, std::string& error) {
  std::lock_guard lock(mu_);
  auto it = roles_.find({tenant, role_id});
  if (it == roles_.end()) {
    error = "unknown_role";
    return false;
  }
  for (const auto& [key, u] : users_) {
    if (key.first == tenant &&
        std::find(u.role_ids.begin(), u.role_ids.end(), role_id) != u.role_ids.end()) {
      error = "role in use by user " + u.id;
      return false;
    }
  }
  if (!journal_.append(Json{{"op", "role_delete"}, {"tenant", tenant}, {"role_id", role_id}})) {
    error = "journal_write_failed";
    return false;
  }
  roles_.erase(it);
  return true;
}

bool RBAC::create_user(User user, std::string& error) {
  if (user.tenant.empty() || user.id.empty()) {
    error = "missing tenant or id";
    return false;
  }
  if (user.state != "active" && user.state != "disabled") {
    error = "invalid_state";
    return false;
  }
  std::lock_guard lock(mu_);
  Key key{user.tenant, user.id};
  if (users_.count(key)) {
    error = "already_exists";
    return false;
  }
  for (const auto& r : user.role_ids) {
    if (!roles_.count({user.tenant, r})) {
      error = "unknown_role: " + r;
      return false;
    }
  }
  if (!journal_.replaying()) user.created_at_ms = base::unix_ms();
  if (!journal_.append(Json{{"op", "user_create"}, {"user", user}})) {
    error = "journal_write_failed";
    return false;
  }
  users_[key] = std::move(user);
  return true;
}

bool RBAC::set_user_state(const std::string& tenant, const std::string& user_id,
                          const std::string& state, std::string& error) {
  if (state != "active" && state != "disabled") {
    error = "invalid_state";
    return false;
  }
  std::lock_guard lock(mu_);
  auto it = users_.find({tenant, user_id});
  if (it == users_.end()) {
    error = "not_found";
    return false;
  }
  if (!journal_.append(
          Json{{"op", "user_state"}, {"tenant", tenant}, {"user_id", user_id}, {"state", state}})) {
    error = "journal_write_failed";
    return false;
  }
  it->second.state = state;
  return true;
}

bool RBAC::delete_user(const std::string& tenant, const std::string& user_id, std::string& error) {
  std::lock_guard lock(mu_);
  auto it = users_.find({tenant, user_id});
  if (it == users_.end()) {
    error = "not_found";
    return false;
  }
  if (!journal_.append(Json{{"op", "user_delete"}, {"tenant", tenant}, {"user_id", user_id}})) {
    error = "journal_write_failed";
    return false;
  }
  users_.erase(it);
  return true;
}

bool RBAC::assign_role(const std::string& tenant, const std::string& user_id,
                       const std::string& role_id, std::string& error) {
  std::lock_guard lock(mu_);
  if (!roles_.count({tenant, role_id})) {
    error = "unknown_role";
    return false;
  }
  auto it = users_.find({tenant, user_id});
  if (it == users_.end()) {
    error = "user_not_found";
    return false;
  }
  auto& held = it->second.role_ids;
  if (std::find(held.begin(), held.end(), role_id) != held.end()) return true;
  if (!journal_.append(Json{
          {"op", "assign_role"}, {"tenant", tenant}, {"user_id", user_id}, {"role_id", role_id}})) {
    error = "journal_write_failed";
    return false;
  }
  held.push_back(role_id);
  return true;
}

bool RBAC::unassign_role(const std::string& tenant, const std::string& user_id,
                         const std::string& role_id, std::string& error) {
  std::lock_guard lock(mu_);
  auto it = users_.find({tenant, user_id});
  if (it == users_.end()) {
    error = "user_not_found";
    return false;
  }
  auto& held = it->second.role_ids;
  auto pos = std::find(held.begin(), held.end(), role_id);
  if (pos == held.end()) return true;
  if (!journal_.append(Json{{"op", "unassign_role"},
                            {"tenant", tenant},
                            {"user_id", user_id},
                            {"role_id", role_id}})) {
    error = "journal_write_failed";
    return false;
  }
  held.erase(pos);
  return true;
}

bool RBAC::drop_tenant(const std::string& tenant) {
  std::lock_guard lock(mu_);
  if (!journal_.append(Json{{"op", "drop_tenant"}, {"tenant", tenant}})) return false;
  std::erase_if(roles_, [&](const auto& e) { return e.first.first == tenant; });
  std::erase_if(users_, [&](const auto& e) { return e.first.first == tenant; });
  return true;
}

bool RBAC::seed_default_roles(const std::string& tenant) {
  struct Seed {
    const char* id;
    const char* name;
    std::vector<std::string> perms;
  };
  const Seed seeds[] = {
      {"admin",
       "Tenant Admin",
       {"data.memory.store", "data.memory.recall", "audit.read", "inference.chat", "extension.load",
        "extension.unload", "agent.invoke", "tenant.users.manage", "tenant.roles.manage"}},
      {"developer",
       "Developer",
       {"data.memory.store", "data.memory.recall", "inference.chat", "agent.invoke", "audit.read"}},
      {"viewer", "Viewer", {"data.memory.recall", "audit.read"}},
  };
  if (tenant.empty()) return false;
  std::lock_guard lock(mu_);
  std::vector<Role> missing;
  for (const Seed& s : seeds) {
    if (!roles_.count({tenant, s.id})) {
      missing.push_back(Role{tenant, s.id, s.name, s.perms, base::unix_ms()});
    }
  }
  if (missing.empty()) return true;
  // One record for all of them: a crash cannot leave a tenant with some.
  Json roles = Json::array();
  for (const Role& r : missing) roles.push_back(r);
  if (!journal_.append(Json{{"op", "seed_defaults"}, {"tenant", tenant}, {"roles", roles}})) {
    return false;
  }
  for (Role& r : missing) roles_[{tenant, r.id}] = std::move(r);
  return true;
}

bool RBAC::has_roles(const std::string& tenant) const {
  std::lock_guard lock(mu_);
  auto it = roles_.lower_bound({tenant, ""});
  return it != roles_.end() && it->first.first == tenant;
}

bool RBAC::user(const std::string& tenant, const std::string& user_id, User& out) const {
  std::lock_guard lock(mu_);
  auto it = users_.find({tenant, user_id});
  if (it == users_.end()) return false;
  out = it->second;
  return true;
}

std::vector<User> RBAC::users(const std::string& tenant) const {
  std::lock_guard lock(mu_);
  std::vector<User> out;
  for (const auto& [key, u] : users_) {
    if (key.first == tenant) out.push_back(u);
  }
  return out;
}

std::vector<Role> RBAC::roles(const std::string& tenant) const {
  std::lock_guard lock(mu_);
  std::vector<Role> out;
  for (const auto& [key, r] : roles_) {
    if (key.first == tenant) out.push_back(r);
  }
  return out;
}

std::vector<std::string> RBAC::effective_permissions(const std::string& tenant,
                                                     const std::string& user_id) const {
  std::lock_guard lock(mu_);
  std::set<std::string> perms;
  auto it = users_.find({tenant, user_id});
  if (it == users_.end()) return {};
  for (const auto& role_id : it->second.role_ids) {
    auto r = roles_.find({tenant, role_id});
    if (r != roles_.end()) perms.insert(r->second.permissions.begin(), r->second.permissions.end());
  }
  return {perms.begin(), perms.end()};
}

std::size_t RBAC::replay_journal() {
  return journal_.replay([this](const Json& r) {
    if (!r.is_object()) return false;
    const std::string op = r.value("op", "");
    const std::string tenant = r.value("tenant", "");
    const std::string user_id = r.value("user_id", "");
    const std::string role_id = r.value("role_id", "");
    std::string error;
    if (op == "role_create" && r.contains("role"))
      return create_role(role_from_json(r["role"]), error);
    if (op == "role_perms")
      return set_role_permissions(tenant, role_id, base::string_list(r, "permissions"), error);
    if (op == "role_delete") return delete_role(tenant, role_id, error);
    if (op == "user_create" && r.contains("user"))
      return create_user(user_from_json(r["user"]), error);
    if (op == "user_state") return set_user_state(tenant, user_id, r.value("state", ""), error);
    if (op == "user_delete") return delete_user(tenant, user_id, error);
    if (op == "assign_role") return assign_role(tenant, user_id, role_id, error);
    if (op == "unassign_role") return unassign_role(tenant, user_id, role_id, error);
    if (op == "seed_defaults" && r.contains("roles") && r["roles"].is_array()) {
      for (const auto& role : r["roles"]) create_role(role_from_json(role), error);
      return true;
    }
    if (op == "drop_tenant" && !tenant.empty()) {
      drop_tenant(tenant);
      return true;
    }
    return false;
  });
}

bool RBAC::compact_journal(std::string& error) {
  std::vector<std::string> lines;
  std::lock_guard lock(mu_);
  for (const auto& [key, r] : roles_)
    lines.push_back(Json{{"op", "role_create"}, {"role", r}}.dump());
  for (const auto& [key, u] : users_) {
    // Roles are assigned by their own records so that the create never names
    // a role the replay has not seen yet.
    User bare = u;
    bare.role_ids.clear();
    bare.state = "active";
    lines.push_back(Json{{"op", "user_create"}, {"user", bare}}.dump());
    if (u.state != "active") {
      lines.push_back(
          Json{{"op", "user_state"}, {"tenant", u.tenant}, {"user_id", u.id}, {"state", u.state}}
              .dump());
    }
    for (const auto& role_id : u.role_ids) {
      lines.push_back(
          Json{{"op", "assign_role"}, {"tenant", u.tenant}, {"user_id", u.id}, {"role_id", role_id}}
              .dump());
    }
  }
  return base::rewrite_journal(journal_.path(), lines, error);
}

namespace rbac::reject {

Json RejectResponse::to_json() const {
  const char* code = "RBAC_UNKNOWN";
  std::string message = "Access denied.";
  switch (kind) {
    case Kind::insufficient_role:
      code = "RBAC_INSUFFICIENT_ROLE";
      message = "Your role does not grant '" + tool + "'.";
      break;
    case Kind::requires_approval:
      code = "RBAC_REQUIRES_APPROVAL";
      message = "'" + tool + "' requires admin approval; queued for review.";
      break;
    case Kind::unknown_tool:
      code = "RBAC_UNKNOWN_TOOL";
      message = "Unknown tool: '" + tool + "'.";
      break;
    case Kind::user_disabled:
      code = "RBAC_USER_DISABLED";
      message = "Your account is disabled. Contact support.";
      break;
    case Kind::tenant_boundary:
      code = "RBAC_TENANT_BOUNDARY";
      message = "Cross-tenant access is not permitted.";
      break;
    case Kind::no_roles:
      code = "RBAC_NO_ROLES";
      message = "Your account has no role assignments yet.";
      break;
    case Kind::other:
      break;
  }
  Json j = base::error_body(
      "forbidden", {{"code", code}, {"message", message}, {"tool", tool}, {"user_id", user_id}});
  if (!contact_url.empty()) j["contact_url"] = contact_url;
  if (!suggestion.empty()) j["suggestion"] = suggestion;
  return j;
}

}  // namespace rbac::reject

namespace tenant_guard {

bool deny_if_cross_tenant(const std::string& authenticated_tenant,
                          const std::string& requested_tenant, base::Response& response) {
  if (authenticated_tenant.empty() || authenticated_tenant == requested_tenant) return false;
  response.status = 403;
  response.content_type = "application/json";
  response.body = base::dump_json(base::error_body(
      "cross_tenant_access_denied",
      {{"authenticated_tenant", authenticated_tenant}, {"requested_tenant", requested_tenant}}));
  return true;
}

}  // namespace tenant_guard
}  // namespace ostrel::identity
