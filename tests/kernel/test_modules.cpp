#include "tests/kernel/test_modules.h"

#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "base/logger.h"
#include "kernel/event_bus.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"

namespace ostrel::testing {
namespace {

using Json = nlohmann::json;

std::mutex log_mu;  // guards log_entries
std::vector<std::string> log_entries;

void record(const std::string& entry) {
  std::lock_guard lock(log_mu);
  log_entries.push_back(entry);
}

// One configurable module class behind three names. Config keys:
//   fail_init / fail_start = "true"  make that step return false;
//   health = "degraded"              reports degraded;
//   relay_to = <module>              target of "<name>.relay".
class ContractModule : public kernel::ModuleBase {
 public:
  ContractModule(std::string name, identity::SourceCode code)
      : name_(std::move(name)), code_(code) {}

  std::string name() const override { return name_; }
  std::string display_name() const override { return "Contract test module " + name_; }
  std::string version() const override { return "5.0.0"; }
  identity::SourceCode source_code() const override { return code_; }

  bool initialize(const kernel::ModuleContext& ctx) override {
    ctx_ = ctx;
    record(name_ + ":initialize");
    if (ctx_.config->get("fail_init") == "true") return false;
    ctx_.bus->subscribe(code_, "module.ready", [this](std::string_view, std::string_view payload) {
      auto j = Json::parse(payload, nullptr, false);
      record(name_ + ":saw-ready:" + (j.is_object() ? j.value("id", "?") : std::string("?")));
    });
    return true;
  }

  void register_routes(kernel::ApiGateway& gw) override {
    record(name_ + ":register_routes");
    gw.route("GET", "/api/v1/" + name_ + "/info",
             [this](const kernel::Request& req, kernel::Response& res) {
               res.body = Json{{"module", name_},
                               {"greeting", ctx_.config->get("greeting", "none")},
                               {"data_dir", ctx_.config->get("data_dir")},
                               {"tenant", req.tenant}}
                              .dump();
             });
    gw.route("GET", "/api/v1/" + name_ + "/boom",
             [](const kernel::Request&, kernel::Response&) { throw std::runtime_error("boom"); });
  }

  void register_syscalls(kernel::SyscallTable& table) override {
    record(name_ + ":register_syscalls");
    table.register_syscall(code_, name_ + ".ping", [this](std::string_view args) {
      return kernel::SyscallResult{
          0, Json{{"pong", name_}, {"args", Json::parse(args, nullptr, false)}}.dump()};
    });
    table.register_syscall(code_, name_ + ".relay", [this](std::string_view args) {
      std::string target = ctx_.config->get("relay_to", name_);
      return ctx_.syscalls->call(code_, target + ".ping", args);
    });
  }

  bool start() override {
    record(name_ + ":start");
    if (ctx_.config->get("fail_start") == "true") return false;
    started_ = true;
    return true;
  }

  void stop() override {
    record(name_ + ":stop");
    ctx_.logger->with_tag(name_).info("stopped");
    started_ = false;
  }

  bool reload(const kernel::ConfigView&) override { return true; }

  // Every module answers unified search with one note of its own.
  std::vector<std::shared_ptr<search::SearchSource>> search_sources() override {
    class Notes : public search::SearchSource {
     public:
      explicit Notes(std::string owner) : owner_(std::move(owner)) {}
      std::string source_kind() const override { return owner_ + "-notes"; }
      bool in_scope(search::Scope s) const override { return s == search::Scope::All; }
      std::vector<search::Hit> search(const search::Query& q, std::size_t) override {
        search::Hit hit;
        hit.source_kind = source_kind();
        hit.id = owner_ + "-1";
        hit.title = "a note of " + owner_ + " on " + q.text;
        hit.score = 0.9;
        return {hit};
      }

     private:
      std::string owner_;
    };
    return {std::make_shared<Notes>(name_)};
  }

  kernel::HealthStatus health() override {
    if (!started_) return {kernel::HealthState::stopped, "not started"};
    if (ctx_.config->get("health") == "degraded") {
      return {kernel::HealthState::degraded, "asked to report degraded"};
    }
    return {kernel::HealthState::healthy, "ok"};
  }

 private:
  std::string name_;
  identity::SourceCode code_;
  kernel::ModuleContext ctx_;
  bool started_ = false;
};

template <std::uint8_t Sub>
struct Named;
template <>
struct Named<0x11> : ContractModule {
  Named() : ContractModule("alpha", {0x25, 0x11}) {}
};
template <>
struct Named<0x12> : ContractModule {
  Named() : ContractModule("beta", {0x25, 0x12}) {}
};
template <>
struct Named<0x13> : ContractModule {
  Named() : ContractModule("gamma", {0x25, 0x13}) {}
};

// A module as the node's own are written: its name, display name and
// version come from the manifest alone.
class ManifestNamed : public kernel::Module {
 public:
  identity::SourceCode source_code() const override { return {0x25, 0x14}; }
  bool initialize(const kernel::ModuleContext&) override { return true; }
  bool start() override { return true; }
  kernel::HealthStatus health() override { return {kernel::HealthState::healthy, "ok"}; }
};

kernel::ModuleRegistrar<ManifestNamed> DeltaModule_registrar("delta");
kernel::ModuleRegistrar<Named<0x11>> AlphaModule_registrar("alpha");
kernel::ModuleRegistrar<Named<0x12>> BetaModule_registrar("beta");
kernel::ModuleRegistrar<Named<0x13>> GammaModule_registrar("gamma");

}  // namespace

std::vector<std::string> contract_log() {
  std::lock_guard lock(log_mu);
  return log_entries;
}

void clear_contract_log() {
  std::lock_guard lock(log_mu);
  log_entries.clear();
}

}  // namespace ostrel::testing
