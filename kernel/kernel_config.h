#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kernel/http/api_gateway.h"

namespace ostrel::kernel {

// What the command line and the environment decide about a node. A plain
// value, copied into the Kernel.
struct KernelConfig {
  std::string node_id = "node-1";
  std::string data_dir;
  std::string modules_d = "modules.d";
  std::vector<std::string> roles;  // empty: every loaded module
  std::string bind = "0.0.0.0";
  std::uint16_t port = 8880;
  bool strict_identity = true;
  std::vector<std::string> config_overrides;  // raw "module.key=value" texts, in order
  std::string extensions_d;
  AuthMode auth_mode = AuthMode::off;
};

}  // namespace ostrel::kernel
