#pragma once

#include "kernel/types.h"

namespace ostrel::kernel {

// Whether the caller may use administrative routes: with auth off (no
// credential was checked) and for peers with node tokens, yes; a capability
// must carry "admin.*", "kernel.*" or "*".
inline bool is_admin(const Request& req) {
  if (req.auth_source != "capability") return true;
  for (const auto& s : req.scopes) {
    if (s == "*" || s == "admin.*" || s == "kernel.*") return true;
  }
  return false;
}

}  // namespace ostrel::kernel
