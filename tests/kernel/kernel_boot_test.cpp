#include "kernel/kernel.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/clock.h"
#include "identity/node_token.h"
#include "tests/kernel/test_modules.h"
#include "tests/support/test_support.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;
using testing::contract_log;

std::string manifest(const std::string& name, const std::string& sub,
                     const std::string& extra_config = "") {
  std::string source =
      sub.empty() ? "" : "  source_code: {domain: lab, subdomain: \"" + sub + "\"}\n";
  return "module:\n  name: " + name + "\n  version: 5.0.0\n" + source + "  help: [{id: " + name +
         ".intro, title: " + name +
         "}]\n"
         "  config:\n    greeting: {default: hello}\n    relay_to: {default: beta}\n" +
         extra_config;
}

class KernelBoot : public ::testing::Test {
 protected:
  void SetUp() override { testing::clear_contract_log(); }
  KernelConfig config() {
    KernelConfig c;
    c.node_id = "test-node";
    c.data_dir = (dir_ / "data").string();
    c.modules_d = (dir_ / "modules.d").string();
    c.bind = "127.0.0.1";
    c.port = 0;  // the system picks; tests read the port from the gateway
    return c;
  }
  void add_manifest(const std::string& file, const std::string& text) {
    testing::write_file(dir_ / "modules.d" / file, text);
  }
  Json get_json(std::uint16_t port, const std::string& path, int expect_status = 200) {
    httplib::Client c("127.0.0.1", port);
    auto res = c.Get(path);
    EXPECT_TRUE(res);
    if (!res) return {};
    EXPECT_EQ(res->status, expect_status) << path << " " << res->body;
    return Json::parse(res->body, nullptr, false);
  }

  testing::TempDir dir_;
  testing::LogCapture log_;
};

TEST_F(KernelBoot, ModuleContractEndToEnd) {
  add_manifest("alpha.module.yaml", manifest("alpha", "0x11"));
  add_manifest("beta.module.yaml", manifest("beta", "0x12", "    health: {default: degraded}\n"));
  // Directory order is unspecified; the test only relies on the recorded order.
  KernelConfig cfg = config();
  auto kernel = std::make_unique<Kernel>(cfg);
  ASSERT_TRUE(kernel->boot());
  cfg.port = kernel->gateway().port();
  kernel->set_running();
  ASSERT_EQ(kernel->modules().size(), 2u);
  std::string first = kernel->modules()[0].definition.name;
  std::string second = kernel->modules()[1].definition.name;

  std::vector<std::string> expected = {
      first + ":initialize", first + ":register_routes", first + ":register_syscalls",
      second + ":initialize", second + ":register_routes", second + ":register_syscalls",
      // Subscribers are called in subscription order, i.e. initialization order.
      first + ":start", first + ":saw-ready:" + first, second + ":saw-ready:" + first,
      second + ":start", first + ":saw-ready:" + second, second + ":saw-ready:" + second};
  EXPECT_EQ(contract_log(), expected);
  EXPECT_TRUE(log_.has("[INFO][kernel] registered alpha as lab/alpha"));

  // Routes, configuration and syscalls through the real HTTP port.
  Json info = get_json(cfg.port, "/api/v1/alpha/info");
  EXPECT_EQ(info["greeting"], "hello");
  EXPECT_EQ(info["data_dir"], cfg.data_dir);

  httplib::Client c("127.0.0.1", cfg.port);
  auto relay = c.Post("/api/v1/kernel/syscall", R"({"name":"alpha.relay","args":{"n":1}})",
                      "application/json");
  ASSERT_TRUE(relay);
  Json r = Json::parse(relay->body);
  EXPECT_EQ(r["status"], 0);
  EXPECT_EQ(r["body"]["pong"], "beta");
  EXPECT_EQ(r["body"]["args"]["n"], 1);

  Json health = get_json(cfg.port, "/health");
  EXPECT_EQ(health["status"], "ok");
  EXPECT_EQ(health["module_count"], 2);
  EXPECT_EQ(health["node_id"], "test-node");
  for (const auto& m : health["modules"]) {
    EXPECT_EQ(m["state"], m["name"] == "beta" ? "degraded" : "healthy");
  }

  Json modules = get_json(cfg.port, "/api/v1/kernel/modules");
  ASSERT_EQ(modules.size(), 2u);
  for (const auto& m : modules) {
    if (m["name"] == "alpha") {
      EXPECT_EQ(m["source_code"], "0x2511");
      EXPECT_EQ(m["source_path"], "lab/alpha");
      EXPECT_EQ(m["version"], "5.0.0");
    }
  }
  // Each module's declared search source joins the kernel's own.
  auto found = c.Post("/api/v1/search", R"({"query":"rivers","scope":"all"})", "application/json");
  ASSERT_TRUE(found);
  Json search = Json::parse(found->body);
  for (const std::string kind : {"alpha-notes", "beta-notes", "vector"}) {
    EXPECT_NE(std::find(search["sources_queried"].begin(), search["sources_queried"].end(), kind),
              search["sources_queried"].end())
        << kind << " in " << search.dump();
  }
  EXPECT_EQ(search["hits"][0]["title"], "a note of " + first + " on rivers");

  Json subs = get_json(cfg.port, "/api/v1/kernel/events/subscriptions");
  EXPECT_EQ(subs.size(), 2u);
  EXPECT_EQ(subs[0]["topic"], "module.ready");

  auto metrics = c.Get("/metrics");
  ASSERT_TRUE(metrics);
  EXPECT_EQ(metrics->get_header_value("Content-Type"), "text/plain; version=0.0.4");
  EXPECT_NE(metrics->body.find("ostrel_modules_started_total 2\n"), std::string::npos);

  testing::clear_contract_log();
  kernel->drain_and_stop();
  EXPECT_EQ(contract_log(), (std::vector<std::string>{second + ":stop", first + ":stop"}));
  int stop_second = log_.index_of("[INFO][kernel] stop " + second);
  int stop_first = log_.index_of("[INFO][kernel] stop " + first);
  EXPECT_GE(stop_second, 0);
  EXPECT_LT(stop_second, stop_first);
  EXPECT_TRUE(log_.has("[INFO][kernel/" + first + "] stopped"));
  EXPECT_GT(log_.index_of("[INFO][kernel] clean shutdown"), stop_first);
  kernel->drain_and_stop();  // a second drain does nothing
  EXPECT_EQ(contract_log().size(), 2u);
}

TEST_F(KernelBoot, IdentityChecksRejectModulesAndStrictnessMatters) {
  add_manifest("gamma.module.yaml", manifest("gamma", "0x14"));  // compiled code is 0x13
  add_manifest("beta.module.yaml", manifest("beta", ""));        // declares no identity
  add_manifest("ghost.module.yaml", manifest("ghost", "0x20"));  // no factory compiled in
  {
    Kernel strict(config());
    ASSERT_TRUE(strict.boot());
    EXPECT_TRUE(strict.modules().empty());
  }
  EXPECT_TRUE(log_.has(
      "[ERROR][kernel] rejecting module 'gamma': manifest/code identity drift. manifest says "
      "lab/gamma (0x2514), compiled source_code() returns lab/0x13 (0x2513)"));
  EXPECT_TRUE(
      log_.has("[ERROR][kernel] strict identity: rejecting 'beta': module 'beta' did not declare "
               "source_code.domain (use --lax-identity to permit)"));
  EXPECT_TRUE(log_.has("[ERROR][kernel] rejecting module 'ghost': no factory registered"));
  EXPECT_TRUE(log_.has("[WARN][kernel] rejected 3 module(s) during boot — see preceding errors"));
  EXPECT_TRUE(
      log_.has("[WARN][kernel] no modules loaded — kernel will serve only built-in routes"));

  KernelConfig lax = config();
  lax.strict_identity = false;
  Kernel k(lax);
  ASSERT_TRUE(k.boot());
  ASSERT_EQ(k.modules().size(), 1u);
  EXPECT_EQ(k.modules()[0].definition.name, "beta");
  EXPECT_TRUE(
      log_.has("[WARN][kernel] module 'beta' identity: module 'beta' did not declare "
               "source_code.domain"));
  EXPECT_TRUE(log_.has("[INFO][kernel] module 'beta' identity from compiled code: lab/beta"));
}

TEST_F(KernelBoot, RoleFilterAndConfigurationPrecedence) {
  add_manifest("alpha.module.yaml", manifest("alpha", "0x11"));
  add_manifest("beta.module.yaml", manifest("beta", "0x12"));
  add_manifest("broken.module.yaml", "module: {name: [\n");
  KernelConfig cfg = config();
  cfg.roles = {"alpha"};
  cfg.config_overrides = {"alpha.greeting=cli", "alpha.data_dir=/elsewhere", "beta.greeting=x"};
  ::setenv("OSTREL_ALPHA_GREETING", "env", 1);
  ::setenv("OSTREL_ALPHA_RELAY_TO", "alpha", 1);
  Kernel k(cfg);
  ASSERT_TRUE(k.boot());
  cfg.port = k.gateway().port();
  ::unsetenv("OSTREL_ALPHA_GREETING");
  ::unsetenv("OSTREL_ALPHA_RELAY_TO");
  k.set_running();

  EXPECT_TRUE(log_.has("[INFO][kernel] skipping module 'beta' (not in --role list)"));
  EXPECT_TRUE(log_.has("[INFO][kernel] loaded 1 module(s)"));
  EXPECT_TRUE(log_.has("[ERROR][kernel] manifest failed: "));
  EXPECT_TRUE(log_.has("[INFO][kernel] module 'alpha' config: 4 override(s) applied"));

  Json conf = get_json(cfg.port, "/api/v1/kernel/config?module=alpha");
  EXPECT_EQ(conf["greeting"], "cli");
  EXPECT_EQ(conf["relay_to"], "alpha");
  EXPECT_EQ(conf["data_dir"], cfg.data_dir);  // the kernel's own keys cannot be overridden
  EXPECT_EQ(conf["modules_dir"], cfg.modules_d);
  EXPECT_EQ(conf["extensions_overlay_dir"], "");
  Json missing = get_json(cfg.port, "/api/v1/kernel/config?module=beta", 404);
  EXPECT_EQ(missing["error"], "module_not_loaded");
}

TEST_F(KernelBoot, StartFailureFailsTheBootWithoutStoppingModules) {
  add_manifest("alpha.module.yaml", manifest("alpha", "0x11"));
  add_manifest("beta.module.yaml", manifest("beta", "0x12"));
  KernelConfig cfg = config();
  cfg.config_overrides = {"alpha.fail_start=true", "beta.fail_start=true"};
  {
    Kernel k(cfg);
    EXPECT_FALSE(k.boot());
    std::string first = k.modules()[0].definition.name;
    EXPECT_TRUE(log_.has("[ERROR][kernel] module " + first + " start() returned false"));
    EXPECT_TRUE(log_.has("[ERROR][kernel] boot sequence failed after start " + first));
    EXPECT_TRUE(log_.has("[ERROR][kernel] module init/start failed"));
  }
  // Exactly one start was attempted and nothing was stopped.
  auto entries_with = [](const std::string& suffix) {
    auto log = contract_log();
    return std::count_if(log.begin(), log.end(),
                         [&](const std::string& e) { return e.find(suffix) != std::string::npos; });
  };
  EXPECT_EQ(entries_with(":start"), 1);
  EXPECT_EQ(entries_with(":stop"), 0);
}

TEST_F(KernelBoot, InitFailureFailsTheBootBeforeAnyStart) {
  add_manifest("beta.module.yaml", manifest("beta", "0x12"));
  KernelConfig cfg = config();
  cfg.config_overrides = {"beta.fail_init=true"};
  Kernel k(cfg);
  EXPECT_FALSE(k.boot());
  EXPECT_TRUE(log_.has("[ERROR][kernel] module beta initialize() returned false"));
  EXPECT_EQ(contract_log(), std::vector<std::string>{"beta:initialize"});
  // The gateway never started.
  EXPECT_FALSE(k.gateway().running());
}

// A module's name, display name and version are its manifest's.
TEST_F(KernelBoot, ModuleNamesAndVersionsComeFromTheManifest) {
  add_manifest("delta.module.yaml",
               "module:\n  name: delta\n  display_name: Delta from its manifest\n"
               "  version: 7.1.2\n  source_code: {domain: lab, subdomain: \"0x14\"}\n");
  KernelConfig cfg = config();
  Kernel k(cfg);
  ASSERT_TRUE(k.boot());
  ASSERT_EQ(k.modules().size(), 1u);
  EXPECT_EQ(k.modules()[0].instance->name(), "delta");
  Json modules = get_json(k.gateway().port(), "/api/v1/kernel/modules");
  ASSERT_EQ(modules.size(), 1u);
  EXPECT_EQ(modules[0]["display_name"], "Delta from its manifest");
  EXPECT_EQ(modules[0]["version"], "7.1.2");
}

TEST_F(KernelBoot, RoleWithoutManifestStillServesBuiltins) {
  add_manifest("alpha.module.yaml", manifest("alpha", "0x11"));
  KernelConfig cfg = config();
  cfg.roles = {"data"};
  Kernel k(cfg);
  ASSERT_TRUE(k.boot());
  cfg.port = k.gateway().port();
  EXPECT_TRUE(log_.has("[INFO][kernel] loaded 0 module(s)"));
  EXPECT_TRUE(
      log_.has("[WARN][kernel] no modules loaded — kernel will serve only built-in routes"));
  Json health = get_json(cfg.port, "/health");
  EXPECT_EQ(health["module_count"], 0);
  Json routes = get_json(cfg.port, "/api/v1/kernel/routes");
  EXPECT_TRUE(std::any_of(routes.begin(), routes.end(),
                          [](const Json& r) { return r["path"] == "/metrics"; }));
}

TEST_F(KernelBoot, TakenPortFailsTheBoot) {
  ApiGateway squatter;
  ASSERT_TRUE(squatter.start("127.0.0.1", 0));
  KernelConfig cfg = config();
  cfg.port = squatter.port();
  Kernel k(cfg);
  EXPECT_FALSE(k.boot());
  EXPECT_TRUE(
      log_.has("[ERROR][kernel] gateway failed to bind 127.0.0.1:" + std::to_string(cfg.port)));
}

TEST_F(KernelBoot, ClusterSecretIsGeneratedPersistedAndReloaded) {
  KernelConfig cfg = config();
  ::unsetenv("OSTREL_CLUSTER_SECRET");
  ::unsetenv("OSTREL_ULVO_PEERS");
  std::string cluster_id;
  {
    Kernel first(cfg);
    ASSERT_TRUE(first.boot());
    cfg.port = first.gateway().port();
    cluster_id = first.node_identity().cluster_id;
    EXPECT_TRUE(log_.has("[INFO][kernel] controller: generated cluster secret"));
    EXPECT_TRUE(log_.has("[INFO][kernel] cluster state persisted to "));
    EXPECT_TRUE(log_.has("[INFO][kernel] node identity: id=test-node, cluster=" + cluster_id));
  }
  std::filesystem::path file = std::filesystem::path(cfg.data_dir) / "state" / "cluster.json";
  Json state = Json::parse(testing::read_file(file));
  std::string secret = state["cluster_secret"];
  EXPECT_EQ(secret.size(), 64u);
  EXPECT_EQ(state["cluster_id"], identity::cluster_id_from_secret(secret));
  EXPECT_EQ(state["cluster_id"], cluster_id);
  EXPECT_EQ(state["controller_node_id"], "test-node");
  EXPECT_TRUE(state["registered_nodes"].is_object());
  // No temporary file is left beside it.
  for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
    EXPECT_EQ(entry.path().string().find(".tmp"), std::string::npos) << entry.path();
  }

  cfg.port = 0;
  Kernel second(cfg);
  ASSERT_TRUE(second.boot());
  cfg.port = second.gateway().port();
  EXPECT_TRUE(log_.has("[INFO][kernel] cluster secret loaded from cluster.json"));
  EXPECT_EQ(second.node_identity().cluster_id, cluster_id);
  EXPECT_TRUE(identity::verify_node_token(secret, "test-node", second.node_identity().node_token));
}

TEST_F(KernelBoot, ClusterSecretSourcesAndKeptRegistrations) {
  KernelConfig cfg = config();
  std::filesystem::path file = std::filesystem::path(cfg.data_dir) / "state" / "cluster.json";
  // A state file without a secret keeps its registrations when the new secret is saved.
  testing::write_file(file, R"({"registered_nodes":{"n2":{"node_id":"n2"}}})");
  {
    Kernel k(cfg);
    ASSERT_TRUE(k.boot());
    cfg.port = k.gateway().port();
  }
  Json state = Json::parse(testing::read_file(file));
  EXPECT_EQ(state["registered_nodes"]["n2"]["node_id"], "n2");
  EXPECT_EQ(state["cluster_secret"].get<std::string>().size(), 64u);

  // The environment wins over the file, and the file is left as it was.
  std::string before = testing::read_file(file);
  ::setenv("OSTREL_CLUSTER_SECRET", "shared-secret", 1);
  cfg.port = 0;
  {
    Kernel k(cfg);
    ASSERT_TRUE(k.boot());
    cfg.port = k.gateway().port();
    EXPECT_EQ(k.node_identity().cluster_id, identity::cluster_id_from_secret("shared-secret"));
    k.set_running();
    // A peer holding the same secret is admitted in enforce mode by its node token.
    k.gateway().set_auth_mode(AuthMode::enforce);
    httplib::Client c("127.0.0.1", cfg.port);
    std::string token = identity::generate_node_token("shared-secret", "peer-1");
    auto ok = c.Get("/api/v1/kernel/stats",
                    {{"X-Ostrel-Node-Id", "peer-1"}, {"X-Ostrel-Node-Token", token}});
    ASSERT_TRUE(ok);
    EXPECT_EQ(ok->status, 200);
    auto wrong = c.Get("/api/v1/kernel/stats",
                       {{"X-Ostrel-Node-Id", "peer-2"}, {"X-Ostrel-Node-Token", token}});
    ASSERT_TRUE(wrong);
    EXPECT_EQ(wrong->status, 401);
  }
  ::unsetenv("OSTREL_CLUSTER_SECRET");
  EXPECT_TRUE(log_.has("[INFO][kernel] cluster secret loaded from OSTREL_CLUSTER_SECRET"));
  EXPECT_EQ(testing::read_file(file), before);

  // A corrupt file is reported and replaced by a fresh secret.
  testing::write_file(file, "{torn");
  cfg.port = 0;
  Kernel k(cfg);
  ASSERT_TRUE(k.boot());
  cfg.port = k.gateway().port();
  EXPECT_TRUE(log_.has("is not a JSON object — ignoring it"));
  EXPECT_TRUE(Json::parse(testing::read_file(file))["cluster_secret"].is_string());
}

Json post(std::uint16_t port, const std::string& path, const Json& body, int expect_status,
          const std::string& token = "") {
  httplib::Client c("127.0.0.1", port);
  httplib::Headers h;
  if (!token.empty()) h.emplace("X-Ostrel-Capability", token);
  auto res = c.Post(path, h, body.dump(), "application/json");
  EXPECT_TRUE(res);
  if (!res) return {};
  EXPECT_EQ(res->status, expect_status) << path << " " << res->body;
  return Json::parse(res->body, nullptr, false);
}

TEST_F(KernelBoot, CapabilityAndTenantRoutes) {
  KernelConfig cfg = config();
  Kernel k(cfg);
  ASSERT_TRUE(k.boot());
  cfg.port = k.gateway().port();
  k.set_running();
  auto port = cfg.port;

  EXPECT_EQ(post(port, "/api/v1/capabilities/issue", {{"scopes", Json::array()}}, 400)["error"],
            "scopes must be a non-empty array");
  Json issued =
      post(port, "/api/v1/capabilities/issue",
           {{"scopes", {"audit.read", "data.memory.recall"}}, {"lifetime_seconds", 120}}, 200);
  std::string token = issued["token"];
  Json v = post(port, "/api/v1/capabilities/verify", {{"token", token}}, 200);
  EXPECT_EQ(v["valid"], true);
  EXPECT_EQ(v["holder"], "0xfe01");
  EXPECT_EQ(v["exp_unix_s"].get<std::int64_t>() - v["iat_unix_s"].get<std::int64_t>(), 120);
  EXPECT_EQ(post(port, "/api/v1/capabilities/verify", Json::object(), 400)["error"],
            "missing token");
  EXPECT_EQ(post(port, "/api/v1/capabilities/verify", {{"token", "zzz"}}, 200)["reason"],
            "bad_encoding");

  // Attenuation wants exact members and caps the lifetime at what is left.
  EXPECT_EQ(post(port, "/api/v1/capabilities/attenuate",
                 {{"token", token}, {"scopes", {"audit.read:x"}}}, 400)["error"],
            "scope_not_subset");
  Json child =
      post(port, "/api/v1/capabilities/attenuate",
           {{"token", token}, {"scopes", {"audit.read"}}, {"lifetime_seconds", 100000}}, 200);
  Json cv = post(port, "/api/v1/capabilities/verify", {{"token", child["token"]}}, 200);
  EXPECT_EQ(cv["scopes"], Json({"audit.read"}));
  EXPECT_LE(cv["exp_unix_s"].get<std::int64_t>(), v["exp_unix_s"].get<std::int64_t>());

  // Tenants, their default roles and users, and tokens for users.
  Json created =
      post(port, "/api/v1/tenants", {{"id", "acme"}, {"quotas", {{"tokens_per_day", 100}}}}, 201);
  EXPECT_EQ(created["tenant"]["tokens_per_day"], 100);
  post(port, "/api/v1/tenants", {{"id", "acme"}}, 409);
  // Members of the wrong type are refused with 400, not a server error.
  EXPECT_EQ(post(port, "/api/v1/tenants", {{"id", "typo"}, {"display_name", 5}}, 400)["error"],
            "invalid_field");
  EXPECT_EQ(post(port, "/api/v1/tenants/acme/users", {{"id", 7}}, 400)["error"], "invalid_field");
  EXPECT_EQ(post(port, "/api/v1/tenants", {{"id", 42}}, 400)["error"], "missing id");
  post(port, "/api/v1/tenants/acme/users", {{"id", "alice"}, {"role_ids", {"viewer"}}}, 200);
  EXPECT_EQ(post(port, "/api/v1/tenants/acme/users", {{"id", "bob"}, {"role_ids", {"nope"}}},
                 400)["error"],
            "unknown_role: nope");
  post(port, "/api/v1/tenants/acme/users",
       {{"id", "carol"}, {"state", "disabled"}, {"role_ids", {"admin"}}}, 200);
  Json user_token = post(port, "/api/v1/capabilities/issue-for-user",
                         {{"tenant", "acme"}, {"user_id", "alice"}}, 200);
  EXPECT_EQ(user_token["scopes"], Json({"audit.read", "data.memory.recall"}));
  EXPECT_EQ(user_token["role_ids"], Json({"viewer"}));
  EXPECT_EQ(post(port, "/api/v1/capabilities/issue-for-user",
                 {{"tenant", "acme"}, {"user_id", "carol"}}, 400)["error"],
            "user_not_found_or_disabled");
  EXPECT_EQ(post(port, "/api/v1/capabilities/issue-for-user",
                 {{"tenant", "nope"}, {"user_id", "alice"}}, 400)["error"],
            "tenant_unknown_or_inactive");
  EXPECT_EQ(post(port, "/api/v1/capabilities/issue-for-user", {{"tenant", "acme"}}, 400)["error"],
            "missing tenant or user_id");
  // The user's token is signed with the tenant's own key.
  Json pk = get_json(port, "/api/v1/capabilities/public-key?tenant=acme");
  EXPECT_EQ(pk["public_key_hex"].get<std::string>().size(), 64u);
  EXPECT_EQ(get_json(port, "/api/v1/capabilities/public-key?tenant=ghost", 404)["error"],
            "no_key_for_tenant");

  Json quota = post(port, "/api/v1/tenants/acme/quota/check",
                    {{"resource", "tokens_per_day"}, {"increment", 101}}, 200);
  EXPECT_EQ(quota["ok"], false);
  EXPECT_EQ(quota["reason"], "quota_exceeded");
  Json detail = get_json(port, "/api/v1/tenants/acme");
  EXPECT_EQ(detail["roles"].size(), 3u);
  EXPECT_EQ(detail["users"].size(), 2u);
  EXPECT_EQ(detail["limits"]["tokens_per_day"], 100);
  get_json(port, "/api/v1/tenants/ghost", 404);

  // Suspending the tenant makes its tokens invalid at once.
  post(port, "/api/v1/tenants/acme/state", {{"state", "suspended"}}, 200);
  Json suspended = post(port, "/api/v1/capabilities/verify", {{"token", user_token["token"]}}, 200);
  EXPECT_EQ(suspended["valid"], false);
  EXPECT_EQ(suspended["reason"], "tenant_unknown_or_inactive");

  // Kernel syscalls over the same stores.
  SyscallResult r =
      k.syscalls().call(identity::kKernelSource, "kernel.tenant.is_active", R"({"tenant":"acme"})");
  EXPECT_EQ(Json::parse(r.body)["active"], false);
  k.syscalls().call(identity::kKernelSource, "kernel.quota.consume",
                    R"({"tenant":"acme","resource":"tokens_per_day","amount":60})");
  r = k.syscalls().call(identity::kKernelSource, "kernel.quota.check",
                        R"({"tenant":"acme","resource":"tokens_per_day","increment":50})");
  EXPECT_EQ(Json::parse(r.body)["ok"], false);
  EXPECT_EQ(Json::parse(r.body)["usage"], 60);
  r = k.syscalls().call(identity::kKernelSource, "identity.tenants.create", R"({"id":"beta"})");
  EXPECT_EQ(r.status, 0) << r.body;
  r = k.syscalls().call(identity::kKernelSource, "identity.tenants.create", "not json");
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(Json::parse(r.body)["error"], "invalid_json");
  r = k.syscalls().call(identity::kKernelSource, "identity.tenants.delete", R"({"id":"beta"})");
  EXPECT_EQ(Json::parse(r.body)["state"], "terminating");
  r = k.syscalls().call(identity::kKernelSource, "identity.tenants.list", "{}");
  EXPECT_EQ(Json::parse(r.body)["tenants"].size(), 3u);  // with the node's "default"
}

TEST_F(KernelBoot, IdentityStateSurvivesARestart) {
  KernelConfig cfg = config();
  std::string node_token, tenant_token, revoked_token;
  {
    Kernel k(cfg);
    ASSERT_TRUE(k.boot());
    cfg.port = k.gateway().port();
    k.set_running();
    post(cfg.port, "/api/v1/tenants", {{"id", "acme"}}, 201);
    post(cfg.port, "/api/v1/tenants/acme/users", {{"id", "alice"}, {"role_ids", {"admin"}}}, 200);
    node_token = post(cfg.port, "/api/v1/capabilities/issue", {{"scopes", {"x"}}}, 200)["token"];
    tenant_token = post(cfg.port, "/api/v1/capabilities/issue-for-user",
                        {{"tenant", "acme"}, {"user_id", "alice"}}, 200)["token"];
    revoked_token = post(cfg.port, "/api/v1/capabilities/issue",
                         {{"scopes", {"x"}}, {"tenant", "acme"}}, 200)["token"];
    std::string id =
        post(cfg.port, "/api/v1/capabilities/verify", {{"token", revoked_token}}, 200)["id"];
    post(cfg.port, "/api/v1/capabilities/revoke", {{"id", id}}, 200);
    // Churn, then compaction: the journals shrink to the current state.
    for (int i = 0; i < 5; ++i) {
      httplib::Client c("127.0.0.1", cfg.port);
      c.Put("/api/v1/tenants/acme", Json{{"notes", "n" + std::to_string(i)}}.dump(),
            "application/json");
    }
    Json compacted = post(cfg.port, "/api/v1/kernel/compact", Json::object(), 200);
    EXPECT_EQ(compacted["status"], "compacted");
    // The audit log only grows: compaction reports it and leaves it whole.
    ASSERT_TRUE(compacted["bytes"]["audit"].is_number());
    EXPECT_GT(compacted["bytes"]["audit"].get<std::int64_t>(), 0);
    EXPECT_TRUE(compacted["bytes"]["extensions"].is_null());
    EXPECT_TRUE(log_.has("[INFO][kernel] journal compaction: tenants="));
    std::string tenants =
        testing::read_file(std::filesystem::path(cfg.data_dir) / "state" / "tenants.jsonl");
    // acme and the node's own "default", one record each.
    EXPECT_EQ(testing::lines_with(tenants, "\"op\"").size(), 2u);
    EXPECT_NE(tenants.find("\"notes\":\"n4\""), std::string::npos);
  }
  cfg.port = 0;
  Kernel k(cfg);
  ASSERT_TRUE(k.boot());
  cfg.port = k.gateway().port();
  k.set_running();
  EXPECT_TRUE(log_.has("[INFO][kernel] tenant registry replayed 2 records from "));
  EXPECT_TRUE(log_.has("[INFO][kernel] RBAC replayed 8 records from "));
  EXPECT_TRUE(log_.has("[INFO][kernel] tenant signing keys loaded: 2 records"));
  EXPECT_TRUE(log_.has("[INFO][kernel] capability revocation list replayed 1 records from "));
  EXPECT_EQ(post(cfg.port, "/api/v1/capabilities/verify", {{"token", node_token}}, 200)["reason"],
            "bad_signature");
  EXPECT_EQ(post(cfg.port, "/api/v1/capabilities/verify", {{"token", tenant_token}}, 200)["valid"],
            true);
  EXPECT_EQ(
      post(cfg.port, "/api/v1/capabilities/verify", {{"token", revoked_token}}, 200)["reason"],
      "revoked");
  Json detail = get_json(cfg.port, "/api/v1/tenants/acme");
  EXPECT_EQ(detail["users"][0]["role_ids"], Json({"admin"}));
  EXPECT_EQ(detail["tenant"]["notes"], "n4");
}

TEST_F(KernelBoot, CachedTokensStillExpireAndRevokeOnTime) {
  KernelConfig cfg = config();
  cfg.auth_mode = AuthMode::enforce;
  Kernel k(cfg);
  ASSERT_TRUE(k.boot());
  cfg.port = k.gateway().port();
  k.set_running();
  std::string brief = k.capabilities().issue(identity::kKernelSource, {"read.*"}, "", 0);
  std::string other = k.capabilities().issue(identity::kKernelSource, {"read.*"}, "", 600);
  httplib::Client c("127.0.0.1", cfg.port);
  auto get = [&](const std::string& token) {
    auto res = c.Get("/api/v1/kernel/stats", {{"X-Ostrel-Capability", token}});
    EXPECT_TRUE(res);
    return res ? std::make_pair(res->status, res->body) : std::make_pair(0, std::string());
  };
  // A zero-lifetime token is good within its second (and now cached) …
  get(brief);
  base::advance_clock_for_tests(std::chrono::milliseconds(2100));
  // … and refused once that second is over, cache or not.
  auto later = get(brief);
  EXPECT_EQ(later.first, 403);
  EXPECT_EQ(later.second, "{\"error\":\"forbidden\",\"reason\":\"expired\"}");

  EXPECT_EQ(get(other).first, 200);  // cached now
  identity::CapabilityToken t;
  std::string error;
  ASSERT_TRUE(k.capabilities().verify(other, t, error));
  k.capabilities().revoke(t.id);
  auto revoked = get(other);
  EXPECT_EQ(revoked.first, 403);
  EXPECT_EQ(revoked.second, "{\"error\":\"forbidden\",\"reason\":\"revoked\"}");
}

}  // namespace
}  // namespace ostrel::kernel
