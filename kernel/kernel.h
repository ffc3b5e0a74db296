#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "base/logger.h"
#include "base/no_copy.h"
#include "base/workers.h"
#include "cluster/gossip_mesh.h"
#include "identity/audit_log.h"
#include "identity/capability_issuer.h"
#include "identity/identity_routes.h"
#include "identity/quota.h"
#include "identity/rbac.h"
#include "identity/tenant_registry.h"
#include "kernel/boot/boot_sequencer.h"
#include "kernel/boot/config_view.h"
#include "kernel/boot/manifest.h"
#include "kernel/cluster/hybrid_clock.h"
#include "kernel/event_bus.h"
#include "kernel/http/api_gateway.h"
#include "kernel/kernel_config.h"
#include "kernel/legacy_bus.h"
#include "kernel/module.h"
#include "kernel/obs/metric_registry.h"
#include "kernel/routes/auth_cache.h"
#include "kernel/syscall_table.h"
#include "search/search_engine.h"

namespace ostrel::kernel {

// Who this node is in its cluster.
struct NodeIdentity {
  std::string node_id;
  std::string cluster_id;
  std::string node_token;
  std::string issuer = "kernel/core";
  std::int64_t issued_at_ms = 0;
  std::int64_t expires_at_ms = 0;
};

// The one object that owns everything a node runs: configuration, logger,
// gateway, syscall table, metric registry, event bus, the loaded modules and
// the kernel's background threads. The entry point calls boot(), sets the
// running flag, waits for a stop request and calls drain_and_stop().
// Thread-safety: boot() and drain_and_stop() run on the entry thread; the
// stop flag may be set from a signal handler; route handlers read the module
// list, which does not change after boot.
class Kernel : private base::NoCopy {
 public:
  struct LoadedModule {
    ModuleDefinition definition;
    std::unique_ptr<ModuleBase> instance;
    ConfigView config;
  };

  explicit Kernel(KernelConfig config);
  ~Kernel();

  bool boot();
  void drain_and_stop();

  // Async-signal-safe: only an atomic exchange.
  void request_stop() { stop_requested_.exchange(true); }
  bool stop_requested() const { return stop_requested_.load(); }
  void set_running() { running_.store(true); }
  bool running() const { return running_.load(); }

  const KernelConfig& config() const { return config_; }
  const NodeIdentity& node_identity() const { return identity_; }
  Logger& logger() { return logger_; }
  ApiGateway& gateway() { return gateway_; }
  SyscallTable& syscalls() { return syscalls_; }
  MetricRegistry& metrics() { return metrics_; }
  EventBus& bus() { return bus_; }
  identity::CapabilityIssuer& capabilities() { return issuer_; }
  identity::TenantRegistry& tenants() { return tenants_; }
  identity::RBAC& rbac() { return rbac_; }
  identity::QuotaAccountant& quotas() { return quotas_; }
  identity::AuditLog& audit_log() { return audit_; }
  const std::vector<LoadedModule>& modules() const { return modules_; }

 private:
  bool load_and_instantiate_modules();
  // WARN lines for --role names and --config-set texts that match nothing.
  void warn_about_unknown_options_(const std::vector<ModuleDefinition>& defs);
  bool init_and_start_modules();
  void register_builtin_routes();
  // The login, landing and dashboard pages.
  void register_page_routes_();
  // Feature flags, message catalogues, the logical clock, extension stubs.
  void register_node_routes_();
  // Help topics: the catalogue, one topic, free questions.
  void register_help_routes_();
  std::filesystem::path help_dir_() const;
  std::vector<help::Topic> help_catalogue_() const;
  void establish_cluster_identity_();
  // Joining through the first of `peers`; true once the secret is adopted and saved.
  bool join_cluster_(const std::string& peers);
  bool send_peer_register_once_(const std::string& controller);
  void run_peer_register_(const std::string& controller);
  // Gossip membership (when switched on), its routes and "cluster.members".
  void start_gossip_();
  void announce_gossip_url_();
  nlohmann::json members_json_() const;
  std::filesystem::path cluster_state_path_() const;
  bool load_cluster_state_();
  void persist_cluster_state_();
  void open_identity_stores_();
  identity::IdentityContext identity_context_();
  void register_identity_routes_();
  void register_identity_syscalls_();
  void register_compaction_route_();
  // Appends one security-relevant action ({"action", "tenant", …}) to the audit log.
  void audit_event_(const Request* caller, const nlohmann::json& event);
  // "user:<id>", "token:<id>", "node:<id>", "anonymous@<addr>", or "kernel".
  static std::string actor_of_(const Request* caller);
  void install_auth_policy_();
  // Opens the audit checkpoints, judges the replayed log against them (a
  // finding is logged and recorded as an audit event) and signs the head.
  void open_audit_checkpoints_();
  // Signs the audit chain's head when it grew since the last checkpoint.
  void checkpoint_audit_();
  // Turns a credential into an AuthResult, through the auth cache.
  AuthResult verify_credential_(const std::string& credential);
  // The password-reset message through messaging, else the controller.
  void send_reset_mail_(const std::string& to, const std::string& body);
  // The unified search engine, its sources and its routes.
  void start_search_();
  void start_background_threads_();
  void run_self_health_();
  // Waits on the kernel's condition variable; false once shutdown began.
  bool sleep_unless_stopping_(std::chrono::milliseconds period);

  KernelConfig config_;
  Logger logger_;
  ApiGateway gateway_;
  SyscallTable syscalls_;
  MetricRegistry metrics_;
  EventBus bus_;
  OstrelBus legacy_bus_;
  identity::CapabilityIssuer issuer_;
  identity::TenantRegistry tenants_;
  identity::RBAC rbac_;
  identity::QuotaAccountant quotas_;
  identity::AuditLog audit_;
  // Signed checkpoints of audit_'s chain, in "state/audit.checkpoints.jsonl";
  // made at boot, every checkpoint period while the chain grows, and on
  // shutdown.
  std::unique_ptr<identity::ChainCheckpoints> audit_checkpoints_;
  identity_registry::UserStore users_;
  identity::LoginThrottle login_throttle_;
  // OSTREL_FIRST_USER_OPEN=1: the first account needs no credential even
  // while the node enforces them.
  bool first_user_open_ = false;
  // Password-reset requests: three per name or address, then waits.
  identity::LoginThrottle reset_throttle_{identity::LoginThrottle::Settings{3}};
  HybridClock hlc_;
  std::mutex flags_mu_;  // guards flags_ and serialises writes of flags.json
  nlohmann::json flags_;
  std::mutex i18n_mu_;  // guards catalogs_
  std::map<std::string, nlohmann::json> catalogs_;
  std::unique_ptr<cluster::gossip::GossipMesh> gossip_;
  int heartbeat_period_s_ = 30;  // seconds between registrations with the controller
  std::atomic<bool> duplicate_reported_{false};  // the controller refused this node's id
  std::string cluster_secret_;
  std::string controller_node_id_;
  NodeIdentity identity_;
  AuthCache auth_cache_;
  std::vector<LoadedModule> modules_;  // load order; not resized after boot step 4
  // Destroyed before the modules: its threads may be calling their syscalls.
  std::unique_ptr<ostrel::search::SearchEngine> search_;
  std::atomic<bool> running_{false};
  bool exporting_ = false;  // telemetry export was configured at boot
  std::atomic<bool> stop_requested_{false};

  // Self-health, the periodic snapshot and the peer heartbeat; joined by
  // drain_and_stop().
  base::Workers bg_threads_;

  BootSequencer sequencer_;
  std::chrono::steady_clock::time_point boot_started_ = std::chrono::steady_clock::now();
};

}  // namespace ostrel::kernel
