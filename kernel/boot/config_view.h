#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace ostrel::kernel {

// The resolved configuration of one module: text keys to text values. Modules
// convert numbers and booleans themselves.
class ConfigView {
 public:
  ConfigView() = default;
  explicit ConfigView(std::unordered_map<std::string, std::string> values)
      : values_(std::move(values)) {}

  // The stored value (possibly empty), or `fallback` when the key is absent.
  std::string get(const std::string& key, const std::string& fallback = "") const;
  // A whole number, or `fallback` when the key is absent, empty or not one.
  std::int64_t get_int(const std::string& key, std::int64_t fallback) const;
  // "1", "true" or "yes" (any case) → true; absent or empty → `fallback`.
  bool get_bool(const std::string& key, bool fallback) const;
  bool has(const std::string& key) const { return values_.count(key) != 0; }
  void set(const std::string& key, std::string value) { values_[key] = std::move(value); }
  const std::unordered_map<std::string, std::string>& values() const { return values_; }

 private:
  std::unordered_map<std::string, std::string> values_;
};

struct ModuleDefinition;

namespace config_overlay {

// Upper-cases a..z and turns "-" and "." into "_".
std::string sanitize_env_piece(const std::string& piece);

// Applies "module.key=value" strings addressed to `module_name`, in order.
// Returns how many were applied.
unsigned apply_cli(const std::string& module_name, const std::vector<std::string>& overrides,
                   ConfigView& config);

// Manifest defaults (or the cluster-wide variable a key's `env` names, when
// set), then OSTREL_<MODULE>_<KEY> for declared keys, then the command line.
// `overrides_applied` receives the count from the last two.
using EnvLookup = const char* (*)(const char*);
ConfigView resolve(const ModuleDefinition& def, const std::vector<std::string>& cli_overrides,
                   unsigned& overrides_applied, EnvLookup env = nullptr);

}  // namespace config_overlay
}  // namespace ostrel::kernel
