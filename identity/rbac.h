#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

#include "base/journal.h"
#include "base/types.h"

namespace ostrel::identity {

struct Role {
  std::string tenant;
  std::string id;
  std::string display_name;
  std::vector<std::string> permissions;
  std::int64_t created_at_ms = 0;
};

struct User {
  std::string tenant;
  std::string id;
  std::string display_name;
  std::string state = "active";  // "active" or "disabled"
  std::int64_t created_at_ms = 0;
  std::vector<std::string> role_ids;
};

void to_json(nlohmann::json& j, const Role& r);
void to_json(nlohmann::json& j, const User& u);

// Per-tenant roles (sets of permission strings) and users (holding roles),
// journalled in "rbac.jsonl".
// Thread-safe: mu_ guards both tables and every journal append; the synced journal append happens
// under it on purpose, so that the journal's order is the order of the changes in memory and a
// replay rebuilds exactly this state; changes are rare administrative acts, so one fdatasync under
// the mutex costs little.
class RBAC {
 public:
  explicit RBAC(std::filesystem::path journal = {});

  bool create_role(Role role, std::string& error);
  bool set_role_permissions(const std::string& tenant, const std::string& role_id,
                            std::vector<std::string> permissions, std::string& error);
  bool delete_role(const std::string& tenant, const std::string& role_id, std::string& error);
  bool create_user(User user, std::string& error);
  bool set_user_state(const std::string& tenant, const std::string& user_id,
                      const std::string& state, std::string& error);
  bool delete_user(const std::string& tenant, const std::string& user_id, std::string& error);
  bool assign_role(const std::string& tenant, const std::string& user_id,
                   const std::string& role_id, std::string& error);
  bool unassign_role(const std::string& tenant, const std::string& user_id,
                     const std::string& role_id, std::string& error);
  // False (and nothing dropped) when the journal cannot be written.
  bool drop_tenant(const std::string& tenant);
  // The "admin", "developer" and "viewer" roles; existing ones are kept.
  // False when one of them could not be journalled.
  bool seed_default_roles(const std::string& tenant);
  bool has_roles(const std::string& tenant) const;

  bool user(const std::string& tenant, const std::string& user_id, User& out) const;
  std::vector<User> users(const std::string& tenant) const;
  std::vector<Role> roles(const std::string& tenant) const;
  // The union of the permissions of the user's roles, sorted; empty when unknown.
  std::vector<std::string> effective_permissions(const std::string& tenant,
                                                 const std::string& user_id) const;

  std::size_t replay_journal();
  bool compact_journal(std::string& error);
  const std::filesystem::path& journal_path() const { return journal_.path(); }

 private:
  using Key = std::pair<std::string, std::string>;  // (tenant, id)

  base::RegistryJournal journal_;
  mutable std::mutex mu_;  // guards roles_, users_ and journal appends
  std::map<Key, Role> roles_;
  std::map<Key, User> users_;
};

// Why a request was refused, rendered for clients.
namespace rbac::reject {

enum class Kind {
  insufficient_role,
  requires_approval,
  unknown_tool,
  user_disabled,
  tenant_boundary,
  no_roles,
  other
};

struct RejectResponse {
  Kind kind = Kind::other;
  std::string tool;
  std::string user_id;
  std::string contact_url;
  std::string suggestion;
  // {"error", "code", "message", "tool", "user_id"[, "contact_url"][, "suggestion"]}
  nlohmann::json to_json() const;
};

}  // namespace rbac::reject

namespace tenant_guard {
// True, with 403 {"error":"cross_tenant_access_denied",…} in `response`, when
// the caller is bound to a tenant other than the one it asks for.
bool deny_if_cross_tenant(const std::string& authenticated_tenant,
                          const std::string& requested_tenant, base::Response& response);
}  // namespace tenant_guard

}  // namespace ostrel::identity
