#include "base/paths.h"
#include "base/env.h"

#include <cstdlib>

namespace ostrel::base {

std::string base_config_dir() {
  if (std::string dir = env::text("OSTREL_CONFIG_DIR"); !dir.empty()) return dir;
  if (std::string home = env::text("HOME"); !home.empty()) return home + "/.config/ostrel";
  return "/etc/ostrel";
}

}  // namespace ostrel::base
