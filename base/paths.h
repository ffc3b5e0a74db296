#pragma once

#include <string>

namespace ostrel::base {

// The node's configuration directory: OSTREL_CONFIG_DIR when set and not
// empty, else "$HOME/.config/ostrel", else "/etc/ostrel".
std::string base_config_dir();

}  // namespace ostrel::base
