#include "base/paths.h"

#include <cstdlib>

namespace ostrel::base {

std::string base_config_dir() {
  if (const char* dir = std::getenv("OSTREL_CONFIG_DIR"); dir && *dir) return dir;
  if (const char* home = std::getenv("HOME"); home && *home) {
    return std::string(home) + "/.config/ostrel";
  }
  return "/etc/ostrel";
}

}  // namespace ostrel::base
