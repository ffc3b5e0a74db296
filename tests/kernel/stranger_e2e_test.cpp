// A stranger against an enforcing node on the real binary: joining without
// the join token, using a leaked cluster secret as a credential, and the
// routes that used to take their caller's identity from the body.
#include <gtest/gtest.h>
#include <httplib.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

std::string secret_of(const TestNode& node) {
  return Json::parse(read_file(node.data_dir() / "state" / "cluster.json"))["cluster_secret"];
}

Answer join(const TestNode& node, const std::string& id, const std::string& token = "") {
  httplib::Headers h;
  if (!token.empty()) h.emplace("X-Ostrel-Join-Token", token);
  return node.call("POST", "/api/v1/cluster/join", {{"node_id", id}}, "", "", h);
}

// With no join token configured the controller hands its secret to nobody
// and says how to set one; the secret, should it leak, opens only the
// cluster-internal routes, never the administrative ones.
TEST(Stranger, NoJoinWithoutATokenAndTheSecretIsNoAdministrator) {
  TempDir dir;
  TestNode node(dir.path(), "ctl",
                TestNode::Options{.modules = {"controller", "security", "data"}, .enforce = true});
  ASSERT_TRUE(node.started()) << node.process().err();
  EXPECT_TRUE(node.process().wait_for_err(
      "cluster joins are refused until a join token is set: set controller.join_token", 1s));

  Answer refused = join(node, "intruder");
  EXPECT_EQ(refused.status, 403) << refused.text;
  EXPECT_EQ(refused.body["error"], "join_token_not_configured");
  EXPECT_EQ(refused.text.find("cluster_secret\":"), std::string::npos);
  const Json state = Json::parse(read_file(node.data_dir() / "state" / "cluster.json"));
  EXPECT_FALSE(state["registered_nodes"].contains("intruder"));

  // The leaked secret as a header: refused everywhere but the internal routes.
  const httplib::Headers leaked = {{"X-Ostrel-Cluster-Secret", secret_of(node)}};
  EXPECT_EQ(
      node.call("POST", "/api/v1/capabilities/issue", {{"scopes", {"*"}}}, "", "", leaked).status,
      401);
  EXPECT_EQ(
      node.call("PUT", "/api/v1/security/mode", {{"mode", "stub_allow"}}, "", "", leaked).status,
      401);
  EXPECT_EQ(
      node.call("POST", "/api/v1/cluster/peers", {{"url", "http://127.0.0.1:9"}}, "", "", leaked)
          .status,
      401);
  EXPECT_EQ(node.call("GET", "/api/v1/tenants", {}, "", "", leaked).status, 401);
  // The internal route itself takes it, and a password it sets there also
  // replaces the user's key.
  Answer root =
      node.call("POST", "/api/v1/auth/register",
                {{"username", "root@lab.test"}, {"password", "root password"}}, node.admin_token());
  ASSERT_EQ(root.status, 200) << root.text;
  const std::string old_key = root.body["api_key"];
  Answer synced = node.call("POST", "/api/v1/identity/_sync",
                            {{"action", "set_password"},
                             {"user_id", root.body["user_id"]},
                             {"password", "synced password"}},
                            "", "", leaked);
  EXPECT_EQ(synced.status, 200) << synced.text;
  EXPECT_EQ(node.call("GET", "/api/v1/auth/me", {}, "", "", {{"X-API-Key", old_key}}).status, 403);
  EXPECT_EQ(node.call("POST", "/api/v1/identity/_sync", {{"action", "set_password"}}, "", "",
                      {{"X-Ostrel-Cluster-Secret", std::string(64, '0')}})
                .status,
            401);  // a wrong secret is no credential at all
}

// A join token: missing or wrong is refused and repeated guessing waits;
// the right one joins. Joins are rate-limited and the cluster has a size.
// controller.open_join restores the open join, with a warning at boot.
TEST(Stranger, JoinTokenRateAndSize) {
  TempDir dir;
  TestNode::Options o;
  o.modules = {"controller"};
  o.enforce = true;
  o.env = {{"OSTREL_CLUSTER_JOIN_TOKEN", "s3cret-join"}};
  o.args = {"--config-set", "controller.joins_per_minute=4", "--config-set",
            "controller.max_nodes=2"};
  TestNode node(dir.path(), "ctl", o);
  ASSERT_TRUE(node.started()) << node.process().err();

  EXPECT_EQ(join(node, "n1").body["error"], "join_token_required");
  for (int i = 0; i < 4; ++i) EXPECT_EQ(join(node, "n1", "guess" + std::to_string(i)).status, 403);
  Answer waiting = join(node, "n1", "s3cret-join");  // right, but after five wrong guesses
  EXPECT_EQ(waiting.status, 429) << waiting.text;
  EXPECT_TRUE(node.process().wait_for_err("cluster join refused: wrong or missing join token", 1s));

  TempDir other;
  TestNode::Options o2 = o;
  TestNode fresh(other.path(), "ctl2", o2);
  ASSERT_TRUE(fresh.started());
  Answer ok = join(fresh, "n1", "s3cret-join");
  ASSERT_EQ(ok.status, 200) << ok.text;
  EXPECT_EQ(ok.body["cluster_secret"], secret_of(fresh));
  EXPECT_EQ(join(fresh, "n2", "s3cret-join").status, 200);
  Answer full = join(fresh, "n3", "s3cret-join");
  EXPECT_EQ(full.status, 503) << full.text;
  EXPECT_EQ(full.body["error"], "cluster_full");
  EXPECT_EQ(join(fresh, "n1", "s3cret-join").status, 200);  // a rejoin is no new node
  Answer busy = join(fresh, "n2", "s3cret-join");           // the fifth within the minute
  EXPECT_EQ(busy.status, 429) << busy.text;
  EXPECT_EQ(busy.body["error"], "too_many_joins");
  const Json state = Json::parse(read_file(fresh.data_dir() / "state" / "cluster.json"));
  EXPECT_EQ(state["registered_nodes"].size(), 2u);

  TempDir third;
  TestNode::Options open;
  open.modules = {"controller"};
  open.args = {"--config-set", "controller.open_join=true"};
  TestNode opened(third.path(), "ctl3", open);
  ASSERT_TRUE(opened.started());
  EXPECT_TRUE(opened.process().wait_for_err("controller.open_join=true: any node", 1s));
  EXPECT_EQ(join(opened, "anyone").status, 200);
}

// Routes that trusted their body or any credential: worker registration
// (what /v1/models shows everyone), the clock and the web tools.
TEST(Stranger, WorkersClockAndWebToolsFollowTheCredential) {
  TempDir dir;
  TestNode node(dir.path(), "n1",
                TestNode::Options{.modules = {"controller", "security", "router", "inference"},
                                  .enforce = true});
  ASSERT_TRUE(node.started()) << node.process().err();
  const std::string admin = node.admin_token();
  auto token = [&](const std::vector<std::string>& scopes) {
    Answer t = node.call("POST", "/api/v1/capabilities/issue", {{"scopes", scopes}}, admin);
    EXPECT_EQ(t.status, 200) << t.text;
    return t.body.value("token", "");
  };
  const std::string viewer = token({"data.memory.recall"});
  const std::string developer = token({"agent.invoke", "inference.chat"});

  const Json fake = {{"id", "fake-gpu"},
                     {"worker_type", "inference"},
                     {"url", "http://10.0.0.9:8880"},
                     {"models", {"gpt-fake"}}};
  EXPECT_EQ(node.call("POST", "/api/v1/workers", fake, viewer).status, 403);
  EXPECT_EQ(node.call("GET", "/v1/models", {}, viewer).text.find("gpt-fake"), std::string::npos);
  EXPECT_EQ(node.call("POST", "/api/v1/workers", fake, admin).status, 200);

  // The clock: peers (and administrators) only, and the counter saturates.
  const Json top = {{"physical_ms", 1000}, {"logical", std::numeric_limits<std::int64_t>::max()}};
  EXPECT_EQ(node.call("POST", "/api/v1/hlc/update", top, viewer).status, 403);
  Answer now = node.call("GET", "/api/v1/hlc", {}, viewer);
  ASSERT_EQ(now.status, 200) << now.text;
  const Json at_top = {{"physical_ms", now.body["physical_ms"].get<std::int64_t>() + 30000},
                       {"logical", std::numeric_limits<std::int64_t>::max()}};
  Answer merged = node.call("POST", "/api/v1/hlc/update", at_top, admin);
  ASSERT_EQ(merged.status, 200) << merged.text;
  EXPECT_EQ(merged.body["logical"], std::numeric_limits<std::int64_t>::max());
  Answer again = node.call("POST", "/api/v1/hlc/update", at_top, admin);
  EXPECT_EQ(again.body["logical"], std::numeric_limits<std::int64_t>::max()) << again.text;
  EXPECT_GE(node.call("GET", "/api/v1/hlc", {}, viewer).body["logical"].get<std::int64_t>(), 0);

  // The web tools ask the tool policy what the tool loop asks it.
  ASSERT_EQ(node.call("PUT", "/api/v1/security/mode", {{"mode", "enforce"}}, admin).status, 200);
  Answer denied =
      node.call("POST", "/api/v1/tools/web_fetch", {{"url", "http://example.org/"}}, viewer);
  EXPECT_EQ(denied.status, 403) << denied.text;
  EXPECT_EQ(denied.body["code"], "RBAC_INSUFFICIENT_ROLE") << denied.text;
  // A developer passes the policy; the address guard then refuses loopback.
  Answer guarded =
      node.call("POST", "/api/v1/tools/web_fetch", {{"url", "http://127.0.0.1:1/"}}, developer);
  EXPECT_NE(guarded.body.value("code", ""), "RBAC_INSUFFICIENT_ROLE") << guarded.text;
  EXPECT_NE(guarded.status, 200) << guarded.text;
}

// Unified search reads each store as that store's own route would: with
// the route's scope, for the caller's tenant. A credential bound to a
// tenant, or to none, never names another; an administrator of the node may.
TEST(Stranger, UnifiedSearchKeepsEachSourcesScopeAndTenant) {
  TempDir dir;
  TestNode node(dir.path(), "n1",
                TestNode::Options{.modules = {"data", "inference"}, .enforce = true});
  ASSERT_TRUE(node.started()) << node.process().err();
  const std::string admin = node.admin_token();
  ASSERT_EQ(node.call("POST", "/api/v1/tenants", {{"id", "beta"}}, admin).status, 201);
  for (const std::string tenant : {"default", "beta"}) {
    Answer in = node.call("POST", "/api/v1/vector/ingest",
                          {{"tenant", tenant},
                           {"namespace", "default"},
                           {"source", tenant + ".txt"},
                           {"text", "The secret plan of " + tenant + " is to grow kelp."}},
                          admin);
    ASSERT_EQ(in.status, 200) << in.text;
    ASSERT_EQ(
        node.call("POST", "/api/v1/memory/store",
                  {{"tenant", tenant}, {"key", "plan"}, {"value", tenant + " grows kelp"}}, admin)
            .status,
        200);
  }
  auto token = [&](const std::vector<std::string>& scopes, const std::string& tenant = "") {
    Json body = {{"scopes", scopes}};
    if (!tenant.empty()) body["tenant"] = tenant;
    Answer t = node.call("POST", "/api/v1/capabilities/issue", body, admin);
    EXPECT_EQ(t.status, 200) << t.text;
    return t.body.value("token", "");
  };
  const Json query = {{"query", "secret plan kelp"}, {"filters", {{"min_score", "0"}}}};

  // Chat only: neither the vector nor the memory route lets it read, so
  // the search does not ask those sources for it.
  const std::string chat = token({"inference.chat"});
  EXPECT_EQ(node.call("POST", "/api/v1/vector/search", {{"query", "kelp"}}, chat).status, 403);
  EXPECT_EQ(node.call("POST", "/api/v1/memory/recall", {{"query", "kelp"}}, chat).status, 403);
  Answer blind = node.call("POST", "/api/v1/search", query, chat);
  ASSERT_EQ(blind.status, 200) << blind.text;
  EXPECT_TRUE(blind.body["hits"].empty()) << blind.text;
  EXPECT_NE(blind.body["sources_denied"].dump().find("vector"), std::string::npos);
  EXPECT_NE(blind.body["sources_denied"].dump().find("qmm"), std::string::npos);

  // A reader bound to no tenant reads "default" and may not name beta.
  const std::string reader = token({"data.vector.search", "data.memory.recall"});
  Answer own = node.call("POST", "/api/v1/search", query, reader);
  ASSERT_EQ(own.status, 200) << own.text;
  ASSERT_FALSE(own.body["hits"].empty()) << own.text;
  EXPECT_EQ(own.text.find("beta"), std::string::npos) << own.text;
  Json to_beta = query;
  to_beta["tenant_id"] = "beta";
  Answer crossed = node.call("POST", "/api/v1/search", to_beta, reader);
  EXPECT_EQ(crossed.status, 403) << crossed.text;
  EXPECT_EQ(crossed.body["error"], "cross_tenant_access_denied");
  EXPECT_EQ(
      node.call("POST", "/api/v1/vector/search", {{"query", "kelp"}, {"tenant", "beta"}}, reader)
          .status,
      403);
  // Bound to beta: beta only.
  const std::string beta_reader = token({"data.vector.search", "data.memory.recall"}, "beta");
  Answer theirs = node.call("POST", "/api/v1/search", query, beta_reader);
  ASSERT_EQ(theirs.status, 200);
  EXPECT_EQ(theirs.text.find("default.txt"), std::string::npos) << theirs.text;
  Json to_default = query;
  to_default["tenant_id"] = "default";
  EXPECT_EQ(node.call("POST", "/api/v1/search", to_default, beta_reader).status, 403);
  // The node's administrator names any tenant.
  Answer admin_view = node.call("POST", "/api/v1/search", to_beta, admin);
  ASSERT_EQ(admin_view.status, 200);
  EXPECT_NE(admin_view.text.find("beta.txt"), std::string::npos) << admin_view.text;
}

}  // namespace
}  // namespace ostrel::testing
