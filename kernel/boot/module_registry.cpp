#include <mutex>
#include <unordered_map>

#include "kernel/module.h"

#include "base/text.h"
#include "kernel/boot/manifest.h"

namespace ostrel::kernel {
namespace {

// Created on first use, so registrars in any translation unit may run first.
struct FactoryRegistry {
  std::mutex mu;  // guards factories
  std::unordered_map<std::string, ModuleFactory> factories;
};

FactoryRegistry& registry() {
  static FactoryRegistry r;
  return r;
}

}  // namespace

const char* health_state_name(HealthState state) {
  static constexpr const char* kNames[] = {"starting", "healthy", "degraded", "unhealthy",
                                           "stopping", "stopped", "unknown"};
  return text::enum_name(state, kNames, "unknown");
}

namespace detail {
void register_module_factory(const std::string& name, ModuleFactory factory) {
  FactoryRegistry& r = registry();
  std::lock_guard lock(r.mu);
  r.factories[name] = std::move(factory);
}
}  // namespace detail

std::vector<std::string> registered_module_names() {
  FactoryRegistry& r = registry();
  std::lock_guard lock(r.mu);
  std::vector<std::string> names;
  names.reserve(r.factories.size());
  for (const auto& [name, factory] : r.factories) names.push_back(name);
  return names;
}

std::unique_ptr<ModuleBase> create_module(const std::string& name, bool& found) {
  ModuleFactory factory;
  {
    FactoryRegistry& r = registry();
    std::lock_guard lock(r.mu);
    auto it = r.factories.find(name);
    found = it != r.factories.end();
    if (!found) return nullptr;
    factory = it->second;
  }
  return factory ? factory() : nullptr;
}

void Module::bind_manifest(const ModuleDefinition& def) {
  name_ = def.name;
  display_name_ = def.display_name.empty() ? def.name : def.display_name;
  version_ = def.version;
}

}  // namespace ostrel::kernel
