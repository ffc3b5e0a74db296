#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "identity/source_code.h"
#include "kernel/boot/config_view.h"
#include "kernel/routes/help_types.h"
#include "kernel/obs/metric_registry.h"
#include "kernel/types.h"
#include "search/search_engine.h"

namespace ostrel::kernel {

class ApiGateway;
class SyscallTable;
class EventBus;
struct ModuleDefinition;

enum class HealthState { starting, healthy, degraded, unhealthy, stopping, stopped, unknown };

const char* health_state_name(HealthState state);

struct HealthStatus {
  HealthState state = HealthState::unknown;
  std::string summary;
};

// What the kernel hands every module at initialize(). The pointers are
// borrowed: they point into the Kernel, which outlives every module.
struct ModuleContext {
  ApiGateway* gateway = nullptr;
  SyscallTable* syscalls = nullptr;
  MetricRegistry* metrics = nullptr;
  EventBus* bus = nullptr;
  const ConfigView* config = nullptr;
  Logger* logger = nullptr;
  std::string node_id;
  std::string data_dir;
  std::string module_dir;
  std::string cluster_secret;
  std::string node_token;
  std::string cluster_id;
};

// The contract between the kernel and a module. The kernel calls, in order:
// construct → initialize → register_routes → register_syscalls → start → …
// (health, reload and help at any time, from HTTP worker threads) … → stop →
// destroy. initialize and start are called once; false from either fails the
// boot. A module guards its own state against concurrent calls.
class ModuleBase {
 public:
  virtual ~ModuleBase() = default;
  virtual std::string name() const = 0;
  virtual std::string display_name() const = 0;
  virtual std::string version() const = 0;
  virtual identity::SourceCode source_code() const = 0;
  virtual bool initialize(const ModuleContext& ctx) = 0;
  virtual bool start() = 0;
  virtual void stop() = 0;
  virtual bool reload(const ConfigView& config) = 0;
  virtual HealthStatus health() = 0;
  virtual void register_routes(ApiGateway& gateway) = 0;
  virtual void register_syscalls(SyscallTable&) {}
  virtual std::vector<help::Topic> help_topics() const { return {}; }
  virtual help::TopicContent help_topic_content(const std::string&) const { return {}; }
  virtual help::DynamicAnswer answer_dynamic_help(const help::DynamicQuery&) { return {}; }

  // Called by the kernel right after construction, before initialize, with
  // the manifest that asked for the module.
  virtual void bind_manifest(const ModuleDefinition&) {}
  // Sources the module adds to the node's unified search, asked for once
  // after every module has started (the kernel's own sources come first).
  virtual std::vector<std::shared_ptr<search::SearchSource>> search_sources() { return {}; }
};

// The base the node's modules derive from: their name, display name and
// version are their manifest's, bound by the kernel before initialize, so
// C++ does not repeat them. Settings are read at initialize; reload keeps
// nothing of its own, and stop and route registration do nothing unless a
// module has something to do there.
class Module : public ModuleBase {
 public:
  std::string name() const final { return name_; }
  std::string display_name() const final { return display_name_; }
  std::string version() const final { return version_; }
  void bind_manifest(const ModuleDefinition& def) override;
  bool reload(const ConfigView&) override { return true; }
  void stop() override {}
  void register_routes(ApiGateway&) override {}

 private:
  std::string name_;
  std::string display_name_;
  std::string version_;
};

using ModuleFactory = std::function<std::unique_ptr<ModuleBase>()>;

namespace detail {
// Under the registry mutex, map[name] = factory; a later registration under
// the same name replaces the earlier one.
void register_module_factory(const std::string& name, ModuleFactory factory);
}  // namespace detail

// Names of every registered factory, in the registry's own order.
std::vector<std::string> registered_module_names();
// A new instance, or nullptr when no factory has the name (or it returned none).
// `found` tells the two apart.
std::unique_ptr<ModuleBase> create_module(const std::string& name, bool& found);

// A static registrar object at the bottom of each module's source file:
//   static ostrel::kernel::ModuleRegistrar<DataModule> DataModule_registrar("data");
template <typename T>
struct ModuleRegistrar {
  explicit ModuleRegistrar(const std::string& name) {
    detail::register_module_factory(name, [] { return std::unique_ptr<ModuleBase>(new T()); });
  }
};

}  // namespace ostrel::kernel
