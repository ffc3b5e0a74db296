#include "base/roles.h"

#include <algorithm>

namespace ostrel::base::roles {

const std::vector<Role>& table() {
  static const std::vector<Role> kRoles = {
      {"viewer", {"read.*"}},
      // Developers also use models (the chat routes ask for inference.chat).
      {"developer", {"agent.*", "data.*", "comm.*", "inference.chat"}},
      {"admin", {"admin.*", "tenant.*"}},
      {"superadmin", {"admin.*", "kernel.*", "tenant.*"}},
  };
  return kRoles;
}

int rank(std::string_view role) {
  const auto& t = table();
  auto it = std::find_if(t.begin(), t.end(), [role](const Role& r) { return r.name == role; });
  return it == t.end() ? -1 : static_cast<int>(it - t.begin());
}

std::string_view name_of(int rank) {
  const auto& t = table();
  return rank >= 0 && rank < static_cast<int>(t.size()) ? t[rank].name : "none";
}

bool known(std::string_view role) { return rank(role) >= 0; }

std::vector<std::string> key_scopes(std::string_view role) {
  const int r = rank(role);
  return r < 0 ? std::vector<std::string>{"read.*"} : table()[r].key_scopes;
}

std::string for_scopes(const std::vector<std::string>& scopes) {
  int best = rank("viewer");
  for (const auto& s : scopes) {
    if (s == "*" || s == "kernel.*") return "superadmin";
    if (s == "admin.*" || s == "tenant.users.manage" || s == "tenant.roles.manage" ||
        s == "tenant.*") {
      best = std::max(best, rank("admin"));
    } else if (s == "agent.invoke" || s == "agent.*") {
      best = std::max(best, rank("developer"));
    }
  }
  return std::string(name_of(best));
}

}  // namespace ostrel::base::roles
