#include "kernel/kernel.h"
#include "base/env.h"
#include "base/http_client.h"
#include "kernel/obs/telemetry.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "identity/identity_registry.h"
#include "kernel/boot/self_health.h"
#include "kernel/obs/metrics.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;
namespace idreg = identity_registry;

std::string hex_code(identity::SourceCode code) { return code.hex(); }

}  // namespace

Kernel::Kernel(KernelConfig config)
    : config_(std::move(config)),
      logger_("kernel"),
      tenants_(std::filesystem::path(config_.data_dir) / "state" / "tenants.jsonl"),
      rbac_(std::filesystem::path(config_.data_dir) / "state" / "rbac.jsonl"),
      audit_(std::filesystem::path(config_.data_dir) / "state" / "audit.jsonl") {
  gateway_.set_auth_mode(config_.auth_mode);
  obs::MetricsRegistry::instance().counter("ostrel_modules_started_total",
                                           "Modules whose start() succeeded");
  obs::MetricsRegistry::instance().counter("ostrel_audit_verify_failures_total",
                                           "Audit chain verifications that failed");
  obs::Counter& audited = obs::MetricsRegistry::instance().counter(
      "ostrel_audit_records_total", "Audit records appended since boot");
  audit_.set_on_append([&audited] { audited.add(); });
  telemetry::Telemetry::instance().describe("ostrel.eis.requests_total",
                                            "Requests on /api/v1/ by source-header decision");
}

Kernel::~Kernel() { drain_and_stop(); }

bool Kernel::boot() {
  boot_started_ = std::chrono::steady_clock::now();
  idreg::register_subdomain(identity::kKernelSource.domain, identity::kKernelSource.subdomain,
                            "core");
  logger_.info("booting: node=" + config_.node_id + ", data_dir=" + config_.data_dir +
               ", modules=" + config_.modules_d + ", port=" + std::to_string(config_.port));

  establish_cluster_identity_();
  load_and_instantiate_modules();

  open_identity_stores_();
  logger_.info("extensions: not available in this build — no extension packages scanned");

  register_builtin_routes();
  register_page_routes_();
  register_node_routes_();
  register_help_routes_();
  register_identity_routes_();
  register_identity_syscalls_();
  register_compaction_route_();

  if (!init_and_start_modules()) {
    logger_.error("module init/start failed");
    return false;
  }

  start_search_();

  install_auth_policy_();

  start_gossip_();

  // Export to an OpenTelemetry collector, when one is named.
  if (std::string endpoint = base::env::text("OSTREL_OTLP_ENDPOINT"); !endpoint.empty()) {
    telemetry::Telemetry::Config t;
    t.enabled = true;
    t.endpoint = endpoint;
    t.token = base::env::text("OSTREL_OTLP_TOKEN");
    t.export_interval_ms =
        static_cast<int>(base::env::integer("OSTREL_OTLP_INTERVAL_MS", 10000, 50, 86400000));
    t.service_name = base::env::text("OSTREL_OTLP_SERVICE_NAME", "ostrel-ulvo");
    telemetry::Telemetry::instance().configure(t);
    exporting_ = true;
  }

  if (base::env::is_set("OSTREL_ULVO_HTTP_THREADS")) {
    gateway_.set_worker_threads(
        static_cast<int>(base::env::integer("OSTREL_ULVO_HTTP_THREADS", 64, 1, 4096)));
  }
  // At stop, requests in progress get a few seconds; then the modules are
  // told to end long work (upstream calls, streams) before the rest is cut.
  const int drain_s =
      static_cast<int>(base::env::integer("OSTREL_ULVO_DRAIN_TIMEOUT_S", 5, 0, 3600));
  gateway_.set_drain(std::chrono::seconds(drain_s), [this, drain_s] {
    logger_.warn("drain: requests still running after " + std::to_string(drain_s) +
                 "s — ending them");
    bus_.publish(identity::kKernelSource, "kernel.draining", "{}");
  });
  if (!gateway_.start(config_.bind, config_.port)) {
    logger_.error("gateway failed to bind " + config_.bind + ":" + std::to_string(config_.port));
    return false;
  }
  announce_gossip_url_();

  start_background_threads_();

  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  boot_started_)
                .count();
  logger_.info("boot complete in " + std::to_string(ms) + "ms — " +
               std::to_string(modules_.size()) + " module(s), " +
               std::to_string(gateway_.routes().size()) + " route(s)");
  return true;
}

bool Kernel::load_and_instantiate_modules() {
  module_loader::BulkResult bulk = module_loader::load_directory(config_.modules_d);
  for (const auto& m : bulk.messages) logger_.warn("loader: " + m);
  for (const auto& f : bulk.failures) {
    logger_.error("manifest failed: " + f.definition.source_path.string());
    for (const auto& e : f.errors) logger_.error("  " + e);
  }
  if (bulk.definitions.empty() && bulk.failures.empty()) {
    std::error_code ec;
    std::filesystem::path where = std::filesystem::absolute(config_.modules_d, ec);
    logger_.warn("no module manifests (*.module.yaml) found in " + where.string() +
                 " — only the kernel's routes will be served; pass --modules-d=<dir> (the "
                 "repository's modules.d) to load modules");
  }
  warn_about_unknown_options_(bulk.definitions);

  std::vector<ModuleDefinition> selected;
  for (auto& def : bulk.definitions) {
    if (!config_.roles.empty() &&
        std::find(config_.roles.begin(), config_.roles.end(), def.name) == config_.roles.end()) {
      logger_.info("skipping module '" + def.name + "' (not in --role list)");
      continue;
    }
    selected.push_back(std::move(def));
  }
  logger_.info("loaded " + std::to_string(selected.size()) + " module(s)");

  size_t rejected = 0;
  for (auto& def : selected) {
    const std::string& name = def.name;
    idreg::IdentityResult id = idreg::register_source_code(
        {name, def.source_code.domain, def.source_code.subdomain_name, def.source_code.subdomain});
    if (!id.info_line.empty()) logger_.info(id.info_line);
    if (!id.warn_line.empty()) logger_.warn(id.warn_line);
    if (id.status == idreg::IdentityStatus::error) {
      logger_.error("rejecting module '" + name + "': " + id.message);
      ++rejected;
      continue;
    }
    if (id.status == idreg::IdentityStatus::warning) {
      if (config_.strict_identity) {
        logger_.error("strict identity: rejecting '" + name + "': " + id.message +
                      " (use --lax-identity to permit)");
        ++rejected;
        continue;
      }
      logger_.warn("module '" + name + "' identity: " + id.message);
    }
    // The manifest produced an identity when the registry bound a subdomain.
    bool manifest_identity = id.subdomain != 0;
    identity::SourceCode declared{id.domain, id.subdomain};

    bool found = false;
    std::unique_ptr<ModuleBase> instance = create_module(name, found);
    if (!found) {
      logger_.error("rejecting module '" + name +
                    "': no factory registered — is its source file linked into ostrel-ulvo?");
      ++rejected;
      continue;
    }
    if (!instance) {
      logger_.error("rejecting module '" + name + "': factory returned null");
      ++rejected;
      continue;
    }
    instance->bind_manifest(def);

    identity::SourceCode compiled = instance->source_code();
    if (manifest_identity && !(compiled == declared)) {
      logger_.error("rejecting module '" + name +
                    "': manifest/code identity drift. manifest says " + idreg::path_name(declared) +
                    " (" + hex_code(declared) + "), compiled source_code() returns " +
                    idreg::path_name(compiled) + " (" + hex_code(compiled) + ")");
      ++rejected;
      continue;
    }
    if (!manifest_identity) {
      idreg::SubdomainResult r =
          idreg::register_subdomain(compiled.domain, compiled.subdomain, name);
      if (r.ok) {
        logger_.info("module '" + name +
                     "' identity from compiled code: " + idreg::path_name(compiled));
      } else {
        logger_.warn("module '" + name + "' compiled identity collides: " + r.error);
      }
    }

    if (auto* legacy = dynamic_cast<IModule*>(instance.get())) {
      legacy_bus_.attach(legacy);
      logger_.info("module '" + name + "' registered on OstrelBus as " +
                   idreg::path_name(compiled));
    } else {
      logger_.debug("module '" + name +
                    "' does not implement ostrel::IModule — skipping OstrelBus registration");
    }

    unsigned overrides = 0;
    ConfigView view = config_overlay::resolve(def, config_.config_overrides, overrides);
    if (overrides > 0) {
      logger_.info("module '" + name + "' config: " + std::to_string(overrides) +
                   " override(s) applied");
    }
    // The metrics the manifest declares are described on /metrics before
    // the module records any.
    for (const MetricDef& m : def.metrics) {
      if (m.type == "gauge") {
        metrics_.register_gauge(m.name, m.description);
      } else {
        metrics_.describe(m.name, m.description);
      }
    }
    modules_.push_back({std::move(def), std::move(instance), std::move(view)});
  }

  if (rejected > 0) {
    logger_.warn("rejected " + std::to_string(rejected) +
                 " module(s) during boot — see preceding errors");
  }
  if (modules_.empty()) logger_.warn("no modules loaded — kernel will serve only built-in routes");
  return true;
}

void Kernel::warn_about_unknown_options_(const std::vector<ModuleDefinition>& defs) {
  auto manifest = [&](const std::string& name) -> const ModuleDefinition* {
    for (const auto& d : defs) {
      if (d.name == name) return &d;
    }
    return nullptr;
  };
  for (const auto& role : config_.roles) {
    if (!manifest(role)) {
      logger_.warn("--role names '" + role + "', but no manifest in " + config_.modules_d +
                   " declares that module");
    }
  }
  for (const auto& text : config_.config_overrides) {
    const std::size_t eq = text.find('=');
    const std::size_t dot = text.find('.');
    if (eq == std::string::npos || dot == std::string::npos || dot > eq || dot == 0 ||
        dot + 1 == eq) {
      logger_.warn("--config-set '" + text +
                   "' is malformed (expected module.key=value) — ignored");
      continue;
    }
    const std::string module = text.substr(0, dot), key = text.substr(dot + 1, eq - dot - 1);
    const ModuleDefinition* def = manifest(module);
    if (!def) {
      logger_.warn("--config-set '" + text + "' names module '" + module +
                   "', which has no manifest — ignored");
      continue;
    }
    bool declared = false;
    for (const auto& f : def->config) declared = declared || f.key == key;
    if (!declared) {
      logger_.warn("--config-set '" + text + "': module '" + module + "' declares no key '" + key +
                   "' (set anyway)");
    }
  }
}

bool Kernel::init_and_start_modules() {
  for (auto& m : modules_) {
    const std::string name = m.instance->name();
    m.config.set("modules_dir", config_.modules_d);
    m.config.set("data_dir", config_.data_dir);
    m.config.set("extensions_overlay_dir", config_.extensions_d);

    ModuleContext ctx;
    ctx.gateway = &gateway_;
    ctx.syscalls = &syscalls_;
    ctx.metrics = &metrics_;
    ctx.bus = &bus_;
    ctx.config = &m.config;
    ctx.logger = &logger_;
    ctx.node_id = config_.node_id;
    ctx.data_dir = config_.data_dir;
    ctx.module_dir = m.definition.source_path.empty()
                         ? std::string()
                         : m.definition.source_path.parent_path().string();
    ctx.cluster_secret = cluster_secret_;
    ctx.node_token = identity_.node_token;
    ctx.cluster_id = identity_.cluster_id;

    bool ok = false;
    try {
      ok = m.instance->initialize(ctx);
      if (ok) {
        m.instance->register_routes(gateway_);
        m.instance->register_syscalls(syscalls_);
      }
    } catch (const std::exception& e) {
      logger_.error("module " + name + " initialize() threw: " + e.what());
      ok = false;
    } catch (...) {
      logger_.error("module " + name + " initialize() threw");
      ok = false;
    }
    if (!ok) {
      logger_.error("module " + name + " initialize() returned false");
      return false;
    }
  }

  for (auto& m : modules_) {
    ModuleBase* module = m.instance.get();
    const std::string name = module->name();
    BootSequencer::Phase phase;
    phase.name = "start " + name;
    phase.start = [this, module, name] {
      logger_.info("start " + name);
      bool started = false;
      try {
        started = module->start();
      } catch (const std::exception& e) {
        logger_.error("module " + name + " start() threw: " + e.what());
      } catch (...) {
        logger_.error("module " + name + " start() threw");
      }
      if (!started) {
        logger_.error("module " + name + " start() returned false");
        return false;
      }
      obs::MetricsRegistry::instance().counter("ostrel_modules_started_total").add();
      Json payload = {{"id", name},
                      {"worker_type", "module"},
                      {"node_id", config_.node_id},
                      {"source_code", hex_code(module->source_code())}};
      bus_.publish(identity::kKernelSource, "module.ready", payload.dump());
      return true;
    };
    phase.stop = [this, module, name] {
      logger_.info("stop " + name);
      module->stop();
    };
    std::string error;
    if (!sequencer_.register_phase(std::move(phase), error)) {
      logger_.error("BootSequencer::register_phase(start " + name + ") failed: " + error);
      return false;
    }
  }
  logger_.info("BootSequencer: " + std::to_string(sequencer_.size()) +
               " phase(s) registered, starting boot");

  auto started = std::chrono::steady_clock::now();
  std::string failed;
  if (!sequencer_.run(failed)) {
    logger_.error("boot sequence failed after " + failed);
    return false;
  }
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  started)
                .count();
  logger_.info("boot sequence completed in " + std::to_string(ms));
  return true;
}

void Kernel::start_background_threads_() {
  logger_.info(
      "otp audit verifier: not available in this build — no extension audit log to verify");
  bg_threads_.spawn([this] { run_self_health_(); });
  const std::int64_t every_s = base::env::integer("OSTREL_AUDIT_CHECKPOINT_S", 60, 1);
  bg_threads_.spawn([this, every_s] {
    while (sleep_unless_stopping_(std::chrono::seconds(every_s))) checkpoint_audit_();
  });
  logger_.info("self-health watchdog started (30s probe, 2-strike _exit)");
  if (std::string controller = base::env::text("OSTREL_ULVO_CONTROLLER_URL"); !controller.empty()) {
    const std::string url = base::normalise_base_url(controller);
    heartbeat_period_s_ = static_cast<int>(
        base::env::integer("OSTREL_ULVO_HEARTBEAT_S", heartbeat_period_s_, 1, 86400));
    bg_threads_.spawn([this, url] { run_peer_register_(url); });
    logger_.info("peer auto-register heartbeat thread started → " + url + " (" +
                 std::to_string(heartbeat_period_s_) + "s interval)");
  }
}

bool Kernel::sleep_unless_stopping_(std::chrono::milliseconds period) {
  return !bg_threads_.wait_for(period);
}

void Kernel::run_self_health_() {
  constexpr auto kPeriod = std::chrono::seconds(30);
  constexpr int kStrikes = 2;
  int failures = 0;
  std::string host = probe_host_for(config_.bind);
  std::uint64_t finished = gateway_.requests_finished();
  while (sleep_unless_stopping_(kPeriod)) {
    if (!running_.load()) continue;  // still booting or already draining
    const std::uint64_t before = finished;
    const bool answered = probe_health(host, gateway_.port(), 5000);
    finished = gateway_.requests_finished();
    if (answered) {
      failures = 0;
      continue;
    }
    // A gateway that keeps finishing requests is busy, not hung: restarting
    // it would only drop the work in progress.
    if (finished > before) {
      logger_.warn("self-health: GET /health did not answer, but " +
                   std::to_string(finished - before) +
                   " request(s) finished since the last probe — busy, not hung");
      failures = 0;
      continue;
    }
    ++failures;
    logger_.warn("self-health: probe " + std::to_string(failures) + "/" + std::to_string(kStrikes) +
                 " of GET /health failed");
    if (failures >= kStrikes) {
      logger_.error(
          "self-health: gateway unresponsive — exiting so the service manager restarts the node");
      std::_Exit(1);
    }
  }
}

void Kernel::drain_and_stop() {
  bg_threads_.stop();

  // A boot that failed half-way stops what it started too: module threads
  // are joined either way.
  const bool was_running = running_.exchange(false);
  if (was_running) logger_.info("shutting down");
  if (gossip_) {
    if (was_running) logger_.info("gossip mesh: graceful leave");
    gossip_->stop();
  }
  gateway_.stop();
  if (exporting_) {
    telemetry::Telemetry::instance().shutdown();  // one last pass
    exporting_ = false;
  }
  for (const std::string& problem : sequencer_.shutdown()) {
    logger_.warn("BootSequencer shutdown reported: " + problem);
  }
  // The last word of the run: the audit chain's head, signed.
  checkpoint_audit_();
  if (was_running) logger_.info("clean shutdown");
}

}  // namespace ostrel::kernel
