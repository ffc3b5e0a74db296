#include "kernel/boot/config_view.h"
#include <cctype>
#include <cerrno>

#include <cstdlib>

#include "base/env.h"
#include "kernel/boot/manifest.h"

namespace ostrel::kernel {

std::string ConfigView::get(const std::string& key, const std::string& fallback) const {
  auto it = values_.find(key);
  return it == values_.end() ? fallback : it->second;
}

std::int64_t ConfigView::get_int(const std::string& key, std::int64_t fallback) const {
  const std::string v = get(key, "");
  char* end = nullptr;
  errno = 0;
  const long long n = std::strtoll(v.c_str(), &end, 10);
  return v.empty() || *end != '\0' || errno == ERANGE ? fallback : n;
}

bool ConfigView::get_bool(const std::string& key, bool fallback) const {
  std::string v = get(key, "");
  if (v.empty()) return fallback;
  for (char& c : v) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return v == "1" || v == "true" || v == "yes";
}

namespace config_overlay {

std::string sanitize_env_piece(const std::string& piece) {
  std::string out = piece;
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') {
      c = static_cast<char>(c - 'a' + 'A');
    } else if (c == '-' || c == '.') {
      c = '_';
    }
  }
  return out;
}

unsigned apply_cli(const std::string& module_name, const std::vector<std::string>& overrides,
                   ConfigView& config) {
  unsigned applied = 0;
  for (const std::string& o : overrides) {
    size_t eq = o.find('=');
    if (eq == std::string::npos) continue;
    std::string lhs = o.substr(0, eq);
    size_t dot = lhs.find('.');
    if (dot == std::string::npos) continue;
    if (lhs.substr(0, dot) != module_name) continue;
    config.set(lhs.substr(dot + 1), o.substr(eq + 1));
    ++applied;
  }
  return applied;
}

ConfigView resolve(const ModuleDefinition& def, const std::vector<std::string>& cli_overrides,
                   unsigned& overrides_applied, EnvLookup env) {
  auto lookup = [env](const std::string& name) {
    if (env) {
      const char* v = env(name.c_str());
      return std::string(v ? v : "");
    }
    return base::env::text(name);
  };
  ConfigView view;
  overrides_applied = 0;
  const std::string prefix = "OSTREL_" + sanitize_env_piece(def.name) + "_";
  for (const ConfigField& field : def.config) {
    view.set(field.key, field.default_value);
    // A cluster-wide variable the manifest names stands in for the default.
    for (const std::string& alias : field.env) {
      if (std::string v = lookup(alias); !v.empty()) {
        view.set(field.key, v);
        break;
      }
    }
    if (std::string v = lookup(prefix + sanitize_env_piece(field.key)); !v.empty()) {
      view.set(field.key, v);
      ++overrides_applied;
    }
  }
  overrides_applied += apply_cli(def.name, cli_overrides, view);
  return view;
}

}  // namespace config_overlay
}  // namespace ostrel::kernel
