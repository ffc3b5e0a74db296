// The role service: the rule lookup, the three modes and their counters,
// unknown tools, the decision audit log's chain, and what survives a
// restart (mode and counters).
#include "identity/role_service.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "tests/support/test_support.h"

namespace ostrel::identity::tool_policy {
namespace {

using Json = nlohmann::json;
using testing::TempDir;

CheckContext as(const std::string& role, const std::string& user = "u1") {
  CheckContext c;
  c.role = role;
  c.user_id = user;
  return c;
}

// Exact rules, "*" and "prefix*"; an unknown role is a viewer; catalogue
// names reach the table through their policy names ("RAGSearch" is
// "rag_search").
TEST(RoleService, LookupRules) {
  RoleService rs;
  EXPECT_EQ(rs.lookup("viewer", "rag_search"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("viewer", "RAGSearch"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("viewer", "bash"), ToolDecision::denied);
  EXPECT_EQ(rs.lookup("guest", "rag_search"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("guest", "bash"), ToolDecision::denied);
  EXPECT_EQ(rs.lookup("developer", "bash"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("developer", "Bash"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("developer", "WebFetch"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("developer", "DBQuery"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("developer", "Read"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("developer", "ssh"), ToolDecision::denied);
  EXPECT_EQ(rs.lookup("admin", "ssh"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("admin", "SSH"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("admin", "WorkerDeploy"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("admin", "bash"), ToolDecision::denied);
  EXPECT_EQ(rs.lookup("superadmin", "anything"), ToolDecision::allowed);

  EXPECT_EQ(rs.allowed_tools("viewer"), (std::vector<std::string>{"rag_search"}));
  rs.add_known_tool("RAGSearch");
  rs.add_known_tool("Bash");
  EXPECT_EQ(rs.allowed_tools("viewer"), (std::vector<std::string>{"RAGSearch", "rag_search"}));
  auto dev = rs.allowed_tools("developer");
  EXPECT_NE(std::find(dev.begin(), dev.end(), "Bash"), dev.end());
  EXPECT_EQ(std::find(dev.begin(), dev.end(), "ssh"), dev.end());
}

// Pattern semantics in a table of its own: "train_*" allows "train_create"
// but not "train"; an exact rule wins over a wildcard earlier in the list; a
// role without rules denies; a table without "viewer" denies unknown roles.
TEST(RoleService, PatternSemantics) {
  RoleService rs({{"ops",
                   "Ops",
                   {{"*", ToolDecision::denied, "nothing else"},
                    {"train_*", ToolDecision::allowed, "training"},
                    {"bash", ToolDecision::requires_approval, "shell"}}},
                  {"trainer", "Trainer", {{"train_*", ToolDecision::allowed, "training"}}},
                  {"empty", "No rules", {}}});
  EXPECT_EQ(rs.lookup("trainer", "train_create"), ToolDecision::allowed);
  EXPECT_EQ(rs.lookup("trainer", "train"), ToolDecision::denied);
  EXPECT_EQ(rs.lookup("trainer", "xtrain_create"), ToolDecision::denied);
  EXPECT_EQ(rs.lookup("ops", "bash"), ToolDecision::requires_approval);
  EXPECT_EQ(rs.lookup("ops", "train_create"), ToolDecision::denied);  // "*" comes first
  EXPECT_EQ(rs.lookup("empty", "bash"), ToolDecision::denied);
  EXPECT_EQ(rs.lookup("stranger", "train_create"), ToolDecision::denied);

  TempDir dir;
  rs.attach(dir.path());
  std::string error;
  ASSERT_TRUE(rs.set_mode(RoleService::Mode::enforce, error));
  CheckOutcome o = rs.check("bash", as("ops"));
  EXPECT_EQ(o.decision, ToolDecision::requires_approval);
  RejectResponse r = RoleService::build_reject("bash", o, as("ops"), "");
  EXPECT_EQ(r.body["code"], "RBAC_REQUIRES_APPROVAL");
  EXPECT_EQ(r.body["message"], "'bash' requires admin approval; queued for review.");
}

// stub_allow lets everything through and counts nothing as would-have-
// denied; audit lets it through and counts it; enforce refuses with the
// role's decision; unknown tools are refused in enforce mode only.
TEST(RoleService, ModesDecideAndCount) {
  TempDir dir;
  RoleService rs;
  rs.attach(dir.path());
  std::string error;

  CheckOutcome o = rs.check("bash", as("viewer"));
  EXPECT_EQ(o.decision, ToolDecision::allowed);
  EXPECT_FALSE(o.was_audited);
  EXPECT_EQ(rs.counters().would_have_denied, 0);
  EXPECT_EQ(rs.counters().allowed, 1);

  ASSERT_TRUE(rs.set_mode(RoleService::Mode::audit, error));
  o = rs.check("bash", as("viewer"));
  EXPECT_EQ(o.decision, ToolDecision::allowed);
  EXPECT_TRUE(o.was_audited);
  EXPECT_EQ(o.reason, "policy.deny");
  EXPECT_EQ(rs.counters().would_have_denied, 1);

  ASSERT_TRUE(rs.set_mode(RoleService::Mode::enforce, error));
  o = rs.check("bash", as("viewer"));
  EXPECT_EQ(o.decision, ToolDecision::denied);
  RejectResponse r = RoleService::build_reject("bash", o, as("viewer", "bob"), "/help");
  EXPECT_EQ(r.http_status, 403);
  EXPECT_EQ(r.body["code"], "RBAC_INSUFFICIENT_ROLE");
  EXPECT_EQ(r.body["message"], "Your role does not grant 'bash'.");
  EXPECT_EQ(r.body["user_id"], "bob");
  EXPECT_EQ(rs.check("rag_search", as("viewer")).decision, ToolDecision::allowed);
  o = rs.check("no_such_tool", as("superadmin"));
  EXPECT_EQ(o.decision, ToolDecision::denied);
  EXPECT_FALSE(o.known_tool);
  EXPECT_EQ(RoleService::build_reject("no_such_tool", o, as("x"), "").body["code"],
            "RBAC_UNKNOWN_TOOL");
  rs.add_known_tool("no_such_tool");
  o = rs.check("no_such_tool", as("superadmin"));
  EXPECT_EQ(o.decision, ToolDecision::allowed);
  EXPECT_EQ(o.reason, "admin.override");

  const Counters c = rs.counters();
  EXPECT_EQ(c.allowed, 2);
  EXPECT_EQ(c.denied, 2);
  EXPECT_EQ(c.would_have_denied, 1);
  EXPECT_EQ(c.admin_overrides, 1);

  RoleService::Mode m;
  EXPECT_FALSE(RoleService::parse_mode("strict", m));
  EXPECT_EQ(RoleService::mode_description(RoleService::Mode::stub_allow),
            "stub-allow (alpha109 default)");
}

// The mode and the counters come back after a restart; the files are
// written whole (no temporaries left).
TEST(RoleService, ModeAndCountersSurviveRestart) {
  TempDir dir;
  std::string error;
  {
    RoleService rs;
    rs.attach(dir.path());
    ASSERT_TRUE(rs.set_mode(RoleService::Mode::enforce, error));
    rs.check("bash", as("viewer"));
    rs.check("rag_search", as("viewer"));
    ASSERT_TRUE(rs.save_counters(error));
  }
  RoleService rs;
  EXPECT_EQ(rs.mode(), RoleService::Mode::stub_allow);
  rs.attach(dir.path());
  EXPECT_EQ(rs.mode(), RoleService::Mode::enforce);
  EXPECT_EQ(rs.counters().denied, 1);
  EXPECT_EQ(rs.counters().allowed, 1);
  Json mode = Json::parse(testing::read_file(dir / "mode.json"));
  EXPECT_EQ(mode["mode"], "enforce");
  EXPECT_GT(mode["updated_at_ms"].get<std::int64_t>(), 0);
  for (const auto& e : std::filesystem::directory_iterator(dir.path())) {
    const std::string name = e.path().filename();
    EXPECT_TRUE(name == "mode.json" || name == "audit-counters.json" || name == "audit.log")
        << name;
  }
  // A mode that cannot be saved is not taken.
  testing::write_file(dir / "blocker", "x");
  RoleService blocked;
  blocked.attach(dir / "blocker" / "sub");
  EXPECT_FALSE(blocked.set_mode(RoleService::Mode::audit, error));
  EXPECT_EQ(blocked.mode(), RoleService::Mode::stub_allow);
}

// Every decision is one audit line whose hash covers the line and the one
// before it; concurrent checks never interleave lines; an edited or deleted
// line is found; a restart continues the chain.
TEST(RoleService, AuditLogChainsAndDetectsEdits) {
  TempDir dir;
  {
    RoleService rs;
    rs.attach(dir.path());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&rs, t] {
        for (int i = 0; i < 50; ++i) {
          CheckContext c = as(t % 2 ? "viewer" : "developer", "user" + std::to_string(t));
          c.args = {{"i", i}, {"text", "quote \" and | bar"}};
          rs.check("bash", c);
        }
      });
    }
    for (auto& th : threads) th.join();
    RoleService::AuditVerification v = rs.verify_audit();
    EXPECT_TRUE(v.ok) << v.problem;
    EXPECT_EQ(v.checked, 200u);
  }
  {
    RoleService rs;
    rs.attach(dir.path());
    rs.check("rag_search", as("viewer"));
    EXPECT_TRUE(rs.verify_audit().ok);
    auto entries = rs.audit_entries(2);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1]["tool"], "rag_search");
    EXPECT_EQ(entries[1]["prev_hash"], entries[0]["hash"]);
  }
  const auto path = dir / "audit.log";
  const std::string original = testing::read_file(path);
  std::string edited = original;
  const std::size_t at = edited.find("\"decision\":\"allowed\"", edited.size() / 2);
  ASSERT_NE(at, std::string::npos);
  edited.replace(at, 20, "\"decision\":\"denied\"");
  testing::write_file(path, edited);
  {
    RoleService rs;
    rs.attach(dir.path());
    RoleService::AuditVerification v = rs.verify_audit();
    EXPECT_FALSE(v.ok);
    EXPECT_GT(v.first_bad_line, 100u);
  }
  // Dropping the first line breaks the chain at the new first line.
  testing::write_file(path, original.substr(original.find('\n') + 1));
  RoleService rs;
  rs.attach(dir.path());
  RoleService::AuditVerification v = rs.verify_audit();
  EXPECT_FALSE(v.ok);
  EXPECT_EQ(v.first_bad_line, 1u);
  EXPECT_NE(v.problem.find("chain"), std::string::npos);
}

}  // namespace
}  // namespace ostrel::identity::tool_policy
