#pragma once

#include <string>
#include <string_view>
#include <vector>

// The node's user roles, in one table: their order of power, the scopes an
// API key of a user in that role holds, and which scopes make a credential
// count as that role. Everything that asks "which role?" or "may this role
// grant that one?" reads it here.
namespace ostrel::base::roles {

struct Role {
  std::string_view name;
  std::vector<std::string> key_scopes;  // what an API key of the role holds
};

// Lowest first: viewer, developer, admin, superadmin.
const std::vector<Role>& table();

// The role's place in the table (0 viewer … 3 superadmin), -1 for none.
int rank(std::string_view role);
// The role at `rank`, "none" outside the table.
std::string_view name_of(int rank);
bool known(std::string_view role);
// The scopes an API key of a user in `role` holds ("read.*" for a role
// outside the table).
std::vector<std::string> key_scopes(std::string_view role);
// The role a list of scopes stands for: "superadmin" for "*" or
// "kernel.*", "admin" for "admin.*" and the tenant-management scopes,
// "developer" for "agent.invoke" or "agent.*", else "viewer".
std::string for_scopes(const std::vector<std::string>& scopes);

}  // namespace ostrel::base::roles
