#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/types.h"
#include "identity/quota.h"
#include "identity/rbac.h"
#include "identity/tenant_registry.h"
#include "tests/support/test_support.h"

namespace ostrel::identity {
namespace {

using Json = nlohmann::json;

Json state_of(const TenantRegistry& r) {
  Json j = Json::array();
  for (const auto& t : r.list()) j.push_back(t);
  return j;
}

Json state_of(const RBAC& r, const std::string& tenant) {
  Json users = Json::array(), roles = Json::array();
  for (const auto& u : r.users(tenant)) users.push_back(u);
  for (const auto& ro : r.roles(tenant)) roles.push_back(ro);
  return {{"users", users}, {"roles", roles}};
}

TEST(TenantRegistry, LifecycleRulesAndJournalReplay) {
  testing::TempDir dir;
  TenantRegistry live(dir / "tenants.jsonl");
  std::string error;
  EXPECT_FALSE(live.create(Tenant{}, error));
  EXPECT_EQ(error, "missing id");
  Tenant bad;
  bad.id = "x";
  bad.state = "sleeping";
  EXPECT_FALSE(live.create(bad, error));
  EXPECT_EQ(error, "invalid_state");

  Tenant acme;
  acme.id = "acme";
  acme.display_name = "Acme";
  ASSERT_TRUE(live.create(acme, error));
  EXPECT_FALSE(live.create(acme, error));
  EXPECT_EQ(error, "already_exists");
  ASSERT_TRUE(live.update_metadata(
      "acme", Json{{"notes", "n"}, {"quotas", {{"tokens_per_day", 1000}}}, {"ignored", 1}}, error));
  EXPECT_FALSE(live.update_metadata("acme", Json{{"quotas", {{"ram_gb", "lots"}}}}, error));
  EXPECT_FALSE(live.update_metadata("nobody", Json::object(), error));
  EXPECT_EQ(error, "not_found");

  EXPECT_TRUE(live.transition("acme", "suspended", error));
  EXPECT_FALSE(live.is_active("acme"));
  EXPECT_TRUE(live.transition("acme", "active", error));
  EXPECT_TRUE(live.is_active("acme"));
  EXPECT_FALSE(live.transition("acme", "gone", error));
  EXPECT_EQ(error, "invalid_state");

  Tenant doomed;
  doomed.id = "doomed";
  ASSERT_TRUE(live.create(doomed, error));
  ASSERT_TRUE(live.transition("doomed", "terminating", error));
  EXPECT_FALSE(live.transition("doomed", "active", error));
  EXPECT_EQ(error, "terminating_terminal");
  EXPECT_FALSE(live.update_metadata("doomed", Json{{"notes", "x"}}, error));
  EXPECT_EQ(error, "terminating_immutable");

  // The journal holds exactly the acknowledged changes, in order.
  auto lines = testing::lines_with(testing::read_file(dir / "tenants.jsonl"), "\"op\"");
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(Json::parse(lines[0])["op"], "create");
  EXPECT_EQ(Json::parse(lines[1])["quotas"], (Json{{"tokens_per_day", 1000}}));
  EXPECT_EQ(Json::parse(lines[2])["new_state"], "suspended");

  // A crash mid-append leaves a torn line: it is skipped, everything before kept.
  {
    std::ofstream torn(dir / "tenants.jsonl", std::ios::app);
    torn << "{\"op\":\"transition\",\"id\":\"acme\",\"new_st";
  }
  TenantRegistry replayed(dir / "tenants.jsonl");
  EXPECT_EQ(replayed.replay_journal(), 6u);
  EXPECT_EQ(state_of(replayed), state_of(live));
  Tenant got;
  ASSERT_TRUE(replayed.get("acme", got));
  EXPECT_EQ(got.quotas.tokens_per_day, 1000);
  EXPECT_EQ(got.quotas.limit("tokens_per_day"), 1000);
  EXPECT_FALSE(got.quotas.limit("gpus").has_value());

  // Compaction keeps the state and shrinks the journal to one record per tenant.
  ASSERT_TRUE(replayed.compact_journal(error)) << error;
  TenantRegistry compacted(dir / "tenants.jsonl");
  EXPECT_EQ(compacted.replay_journal(), 2u);
  EXPECT_EQ(state_of(compacted), state_of(live));
}

TEST(RBAC, RolesUsersAndReplay) {
  testing::TempDir dir;
  RBAC live(dir / "rbac.jsonl");
  std::string error;
  live.seed_default_roles("acme");
  live.seed_default_roles("acme");  // idempotent
  EXPECT_EQ(live.roles("acme").size(), 3u);

  User alice{"acme", "alice", "Alice", "active", 0, {"developer", "ghost"}};
  EXPECT_FALSE(live.create_user(alice, error));
  EXPECT_EQ(error, "unknown_role: ghost");
  alice.role_ids = {"developer"};
  ASSERT_TRUE(live.create_user(alice, error));
  EXPECT_FALSE(live.create_user(User{"acme", "bob", "", "asleep", 0, {}}, error));
  EXPECT_EQ(error, "invalid_state");
  ASSERT_TRUE(live.create_user(User{"acme", "bob", "", "active", 0, {}}, error));

  EXPECT_TRUE(live.assign_role("acme", "alice", "viewer", error));
  EXPECT_TRUE(live.assign_role("acme", "alice", "viewer", error));  // no change
  EXPECT_FALSE(live.assign_role("acme", "alice", "root", error));
  EXPECT_EQ(error, "unknown_role");
  EXPECT_FALSE(live.assign_role("acme", "carol", "viewer", error));
  EXPECT_EQ(error, "user_not_found");
  EXPECT_EQ(live.effective_permissions("acme", "alice"),
            (std::vector<std::string>{"agent.invoke", "audit.read", "data.memory.recall",
                                      "data.memory.store", "inference.chat"}));
  EXPECT_TRUE(live.effective_permissions("acme", "bob").empty());
  EXPECT_FALSE(live.delete_role("acme", "viewer", error));
  EXPECT_EQ(error, "role in use by user alice");
  EXPECT_TRUE(live.unassign_role("acme", "alice", "viewer", error));
  EXPECT_TRUE(live.set_user_state("acme", "bob", "disabled", error));
  EXPECT_FALSE(live.set_user_state("acme", "nobody", "active", error));
  EXPECT_EQ(error, "not_found");
  live.seed_default_roles("other");
  ASSERT_TRUE(live.create_user(User{"other", "zed", "", "active", 0, {"admin"}}, error));
  live.drop_tenant("other");
  EXPECT_TRUE(live.roles("other").empty());

  RBAC replayed(dir / "rbac.jsonl");
  EXPECT_GT(replayed.replay_journal(), 0u);
  EXPECT_EQ(state_of(replayed, "acme"), state_of(live, "acme"));
  EXPECT_EQ(state_of(replayed, "other"), state_of(live, "other"));

  ASSERT_TRUE(replayed.compact_journal(error)) << error;
  RBAC compacted(dir / "rbac.jsonl");
  compacted.replay_journal();
  EXPECT_EQ(state_of(compacted, "acme"), state_of(live, "acme"));
  User bob;
  ASSERT_TRUE(compacted.user("acme", "bob", bob));
  EXPECT_EQ(bob.state, "disabled");
}

TEST(RBAC, ConcurrentChangesAllReachTheJournal) {
  testing::TempDir dir;
  RBAC live(dir / "rbac.jsonl");
  live.seed_default_roles("t");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < 25; ++j) {
        std::string error, id = "u" + std::to_string(i) + "-" + std::to_string(j);
        live.create_user(User{"t", id, "", "active", 0, {}}, error);
        live.assign_role("t", id, j % 2 ? "viewer" : "developer", error);
      }
    });
  }
  for (auto& t : threads) t.join();
  RBAC replayed(dir / "rbac.jsonl");
  EXPECT_EQ(replayed.replay_journal(), 1u + 200u);  // the default roles are one record
  EXPECT_EQ(state_of(replayed, "t"), state_of(live, "t"));
}

TEST(QuotaAndGuards, LimitsBucketsAndRejections) {
  QuotaAccountant q;
  EXPECT_FALSE(q.check("t", "tokens_per_day", 1, 0).ok);
  EXPECT_TRUE(q.check("t", "tokens_per_day", 1000000, -1).ok);
  q.consume("t", "tokens_per_day", 90);
  QuotaCheck c = q.check("t", "tokens_per_day", 11, 100);
  EXPECT_FALSE(c.ok);
  EXPECT_EQ(c.reason, "quota_exceeded");
  EXPECT_EQ(c.usage, 90);
  EXPECT_EQ(c.projected_usage, 101);
  EXPECT_TRUE(q.check("t", "tokens_per_day", 10, 100).ok);
  q.release("t", "tokens_per_day", 40);
  EXPECT_EQ(q.usage("t", "tokens_per_day"), 50);
  q.drop_tenant("t");
  EXPECT_EQ(q.usage("t", "tokens_per_day"), 0);

  RateLimiter limiter(2, 1);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_TRUE(limiter.try_consume_at("k", t0));
  EXPECT_TRUE(limiter.try_consume_at("k", t0));
  EXPECT_FALSE(limiter.try_consume_at("k", t0));
  EXPECT_TRUE(limiter.try_consume_at("other", t0));
  EXPECT_FALSE(limiter.try_consume_at("k", t0 + std::chrono::milliseconds(500)));
  EXPECT_TRUE(limiter.try_consume_at("k", t0 + std::chrono::milliseconds(1100)));
  EXPECT_TRUE(limiter.try_consume_at("k", t0 + std::chrono::seconds(100)));
  EXPECT_TRUE(limiter.try_consume_at("k", t0 + std::chrono::seconds(100)));
  EXPECT_FALSE(limiter.try_consume_at("k", t0 + std::chrono::seconds(100)));  // capped at 2

  base::Response res;
  EXPECT_FALSE(tenant_guard::deny_if_cross_tenant("", "acme", res));
  EXPECT_FALSE(tenant_guard::deny_if_cross_tenant("acme", "acme", res));
  EXPECT_TRUE(tenant_guard::deny_if_cross_tenant("acme", "beta", res));
  EXPECT_EQ(res.status, 403);
  EXPECT_EQ(Json::parse(res.body), (Json{{"error", "cross_tenant_access_denied"},
                                         {"authenticated_tenant", "acme"},
                                         {"requested_tenant", "beta"}}));

  rbac::reject::RejectResponse r{rbac::reject::Kind::insufficient_role, "shell", "u1", "", "ask"};
  Json j = r.to_json();
  EXPECT_EQ(j["code"], "RBAC_INSUFFICIENT_ROLE");
  EXPECT_EQ(j["message"], "Your role does not grant 'shell'.");
  EXPECT_EQ(j["suggestion"], "ask");
  EXPECT_FALSE(j.contains("contact_url"));
  EXPECT_EQ(rbac::reject::RejectResponse{}.to_json()["code"], "RBAC_UNKNOWN");
}

}  // namespace
}  // namespace ostrel::identity
