// The audit log and the security policy module on the real binary: tamper
// evidence across restarts, concurrent appends over HTTP, who may read the
// log, per-role tool decisions in the three modes, and compliance reports.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/encoding.h"
#include "identity/audit_log.h"
#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

std::vector<std::string> journal_lines(const fs::path& p) { return file_lines(p); }

void write_journal(const fs::path& p, const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& l : lines) text += l + "\n";
  write_file(p, text);
}

Answer append(const TestNode& node, const std::string& action, const std::string& token = "") {
  return node.call(
      "POST", "/api/v1/kernel/syscall",
      {{"name", "audit.append"},
       {"args", {{"action", action}, {"resource", "r"}, {"metadata", {{"k", "v|w"}}}}}},
      token);
}

// Appended events survive restarts and verify; an edited field or a deleted
// line is reported at its seq after a restart; a torn last line is reported
// and the node still boots and keeps appending.
TEST(AuditLogNode, TamperingIsFoundAfterRestart) {
  TempDir dir;
  TestNode::Options o;
  o.modules = {"security"};
  auto node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started()) << node->process().err();
  ASSERT_EQ(node->call("POST", "/api/v1/tenants", {{"id", "acme"}}).status, 201);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(append(*node, "data.write").status, 200);
  Answer listed = node->call("GET", "/api/v1/audit?limit=100");
  ASSERT_EQ(listed.body["total_in_log"], 5) << listed.text;
  EXPECT_EQ(listed.body["entries"][0]["action"], "tenant.create");
  EXPECT_EQ(listed.body["entries"][0]["prev_hash"], std::string(64, '0'));
  EXPECT_EQ(listed.body["entries"][1]["metadata"]["k"], "v|w");
  EXPECT_EQ(listed.body["entries"][1]["source"], "0x0e01");

  const fs::path journal = node->data_dir() / "state" / "audit.jsonl";
  for (int restart = 0; restart < 3; ++restart) {
    node->stop();
    node = std::make_unique<TestNode>(dir.path(), "n1", o);
    ASSERT_TRUE(node->started());
    Answer v = node->call("GET", "/api/v1/audit/verify");
    EXPECT_EQ(v.body["ok"], true) << v.text;
    EXPECT_EQ(v.body["checked"], 5);
    EXPECT_EQ(v.body["total_in_log"], 5);
    EXPECT_EQ(v.body["checkpoints"]["unsigned_records"], 0) << v.text;
  }
  EXPECT_NE(node->process().err().find("audit log replayed 5 records from " + journal.string()),
            std::string::npos);

  node->stop();
  const std::vector<std::string> original = journal_lines(journal);
  std::vector<std::string> lines = original;
  Json third = Json::parse(lines[2]);
  third["outcome"] = "denied";
  lines[2] = third.dump();
  write_journal(journal, lines);
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  Answer v = node->call("GET", "/api/v1/audit/verify");
  EXPECT_EQ(v.body["ok"], false);
  EXPECT_EQ(v.body["first_bad_seq"], 3);
  EXPECT_EQ(v.body["checked"], 2);

  node->stop();
  lines = original;
  lines.erase(lines.begin() + 1);
  write_journal(journal, lines);
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  EXPECT_EQ(node->call("GET", "/api/v1/audit/verify").body["first_bad_seq"], 3);

  // Killed in the middle of an append: the last line is cut short. (The
  // edits above were signed over by the boots that found them, so this boot
  // finds the log differs from those checkpoints and records that first.)
  node->stop();
  std::string text;
  for (const auto& l : original) text += l + "\n";
  text += original.back().substr(0, 40);
  write_file(journal, text);
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started()) << node->process().err();
  v = node->call("GET", "/api/v1/audit/verify");
  EXPECT_EQ(v.body["ok"], false);
  EXPECT_EQ(v.body["first_bad_seq"], 6);
  Answer next = append(*node, "after.crash");
  EXPECT_EQ(next.body["body"]["seq"], 8);
  lines = journal_lines(journal);
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(Json::parse(lines[6])["action"], "audit.integrity_failed");
  EXPECT_TRUE(Json::parse(lines.back(), nullptr, false).is_object());
}

// A crash after a change's own journal write and before its audit append
// (the tenant's record written, mode.json replaced) leaves the change without
// its event; the next boot records it, marked recovered, and only once. A
// mode applied from the settings is recorded as such.
TEST(AuditLogNode, ChangesInterruptedBeforeTheirEventAreRecordedAtBoot) {
  TempDir dir;
  TestNode::Options o;
  o.modules = {"security"};
  auto node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started()) << node->process().err();
  ASSERT_EQ(node->call("POST", "/api/v1/tenants", {{"id", "acme"}}).status, 201);
  node->stop();

  // What a crash leaves: globex's create record (written like acme's), and
  // the mode switched on disk, with neither event appended.
  const fs::path tenants = node->data_dir() / "state" / "tenants.jsonl";
  std::vector<std::string> lines = journal_lines(tenants);
  std::string copied;
  for (const auto& l : lines) {
    if (l.find("\"acme\"") != std::string::npos) copied = l;
  }
  ASSERT_FALSE(copied.empty());
  for (std::size_t at; (at = copied.find("acme")) != std::string::npos;) {
    copied.replace(at, 4, "globex");
  }
  lines.push_back(copied);
  write_journal(tenants, lines);
  write_file(node->data_dir() / "security" / "mode.json", R"({"mode":"audit"})"
                                                          "\n");

  for (int boot = 0; boot < 2; ++boot) {
    node = std::make_unique<TestNode>(dir.path(), "n1", o);
    ASSERT_TRUE(node->started()) << node->process().err();
    Answer created = node->call("GET", "/api/v1/audit?action=tenant.create");
    ASSERT_EQ(created.body["returned"], 2) << created.text;
    EXPECT_EQ(created.body["entries"][0]["tenant"], "acme");
    EXPECT_FALSE(created.body["entries"][0]["metadata"].contains("recovered"));
    EXPECT_EQ(created.body["entries"][1]["tenant"], "globex");
    EXPECT_EQ(created.body["entries"][1]["metadata"]["recovered"], true);
    Answer modes = node->call("GET", "/api/v1/audit?action=policy.mode.set");
    ASSERT_EQ(modes.body["returned"], 1) << modes.text;
    EXPECT_EQ(modes.body["entries"][0]["metadata"]["mode"], "audit");
    EXPECT_EQ(modes.body["entries"][0]["metadata"]["recovered"], true);
    EXPECT_EQ(node->call("GET", "/api/v1/audit/verify").body["ok"], true);
    EXPECT_EQ(node->call("GET", "/api/v1/tenants/globex").status, 200);
    node->stop();
  }

  o.args = {"--config-set", "security.mode=enforce"};
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started()) << node->process().err();
  Answer modes = node->call("GET", "/api/v1/audit?action=policy.mode.set");
  ASSERT_EQ(modes.body["returned"], 2) << modes.text;
  EXPECT_EQ(modes.body["entries"][1]["metadata"]["mode"], "enforce");
  EXPECT_EQ(modes.body["entries"][1]["metadata"]["from_settings"], true);
}

// The node's audit journal rewritten from `lines` with one field changed and
// every hash after it recomputed, as someone who knows the chain rule would.
std::vector<std::string> forge_kernel_chain(const std::vector<std::string>& lines, std::size_t at,
                                            const std::string& field, const std::string& value) {
  std::vector<std::string> out;
  identity::Hash prev{};
  for (std::size_t i = 0; i < lines.size(); ++i) {
    Json j = Json::parse(lines[i]);
    if (i == at) j[field] = value;
    identity::AuditEvent e;
    e.seq = j["seq"];
    e.ts_ms = j["ts_ms"];
    const unsigned code = std::stoul(j["source"].get<std::string>().substr(2), nullptr, 16);
    e.source = identity::SourceCode{static_cast<std::uint8_t>(code >> 8),
                                    static_cast<std::uint8_t>(code & 0xff)};
    e.actor = j["actor"];
    e.action = j["action"];
    e.resource = j["resource"];
    e.outcome = j["outcome"];
    e.tenant = j["tenant"];
    e.metadata = j["metadata"];
    e.prev_hash = prev;
    const std::string raw(reinterpret_cast<const char*>(prev.data()), prev.size());
    const std::string digest = base::sha256(raw + identity::AuditLog::canonical_body(e));
    std::copy(digest.begin(), digest.end(), e.hash.begin());
    prev = e.hash;
    out.push_back(identity::AuditLog::journal_line(e));
  }
  return out;
}

// The same for the security module's decision log: each line hashed without
// its "hash" member, each carrying the previous line's hash.
std::vector<std::string> forge_decision_log(const std::vector<std::string>& lines, std::size_t at,
                                            const std::string& tool) {
  std::vector<std::string> out;
  std::string prev;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    // The module writes its members in its own order: the line is edited in
    // place, its "hash" member (always last) taken off first.
    std::string text = lines[i].substr(0, lines[i].rfind(",\"hash\":\"")) + "}";
    const Json original = Json::parse(text);
    auto replace_member = [&](const std::string& key, const std::string& old_value,
                              const std::string& new_value) {
      const std::string from = "\"" + key + "\":" + Json(old_value).dump();
      const std::string to = "\"" + key + "\":" + Json(new_value).dump();
      const auto pos = text.find(from);
      if (pos != std::string::npos) text.replace(pos, from.size(), to);
    };
    replace_member("prev_hash", original.value("prev_hash", ""), prev);
    if (i == at) replace_member("tool", original.value("tool", ""), tool);
    const std::string hash = base::to_hex(base::sha256(text));
    text.pop_back();
    out.push_back(text + ",\"hash\":\"" + hash + "\"}");
    prev = hash;
  }
  return out;
}

// Signed checkpoints catch what the chain alone cannot: the last lines cut
// off, or one entry rewritten and every later hash recomputed. Both logs,
// the kernel's and the security module's, after a restart; the finding is
// logged and recorded; an honest restart, and a kill -9, raise nothing.
TEST(AuditLogNode, CheckpointsCatchCutTailsAndRecomputedChains) {
  TempDir dir;
  TestNode::Options o;
  o.modules = {"security"};
  auto node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started()) << node->process().err();
  for (int i = 0; i < 6; ++i) ASSERT_EQ(append(*node, "data.write").status, 200);
  for (int i = 0; i < 6; ++i) {
    ASSERT_EQ(node->call("POST", "/api/v1/security/check", {{"tool", "rag_search"}}).status, 200);
  }
  const fs::path journal = node->data_dir() / "state" / "audit.jsonl";
  const fs::path decisions = node->data_dir() / "security" / "audit.log";
  // Honest restarts, a kill -9 among them: everything verifies.
  node->restart_hard();
  ASSERT_TRUE(node->started());
  node->stop();
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started());
  Answer fine = node->call("GET", "/api/v1/audit/verify");
  EXPECT_EQ(fine.body["ok"], true) << fine.text;
  EXPECT_GE(fine.body["checkpoints"]["count"].get<int>(), 1);
  EXPECT_EQ(node->call("POST", "/api/v1/security/audit/verify").body["ok"], true);
  EXPECT_EQ(node->process().err().find("integrity"), std::string::npos);
  node->stop();
  const std::vector<std::string> kernel_lines = journal_lines(journal);
  const std::vector<std::string> decision_lines = journal_lines(decisions);
  ASSERT_EQ(kernel_lines.size(), 6u);
  ASSERT_EQ(decision_lines.size(), 6u);

  // The last two lines of each log deleted: each chain is still whole.
  write_journal(journal, {kernel_lines.begin(), kernel_lines.end() - 2});
  write_journal(decisions, {decision_lines.begin(), decision_lines.end() - 2});
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started());
  // At boot the node finds the cut, logs it and records it in the chain
  // (so the log is longer again, and no longer matches what was signed).
  EXPECT_TRUE(node->process().wait_for_err(
      "[ERROR][kernel] audit log integrity: the log holds 4 records, fewer than the 6", 1s));
  EXPECT_TRUE(node->process().wait_for_err(
      "decision log integrity: the log holds 4 records, fewer than the 6", 1s));
  Answer recorded = node->call("GET", "/api/v1/audit?action=audit.integrity_failed");
  EXPECT_EQ(recorded.body["returned"], 1) << recorded.text;
  Answer cut = node->call("GET", "/api/v1/audit/verify");
  EXPECT_EQ(cut.body["ok"], false) << cut.text;
  EXPECT_EQ(cut.body.value("first_bad_seq", 0), 0);  // the links themselves hold
  EXPECT_FALSE(cut.body["checkpoints"]["ok"].get<bool>()) << cut.text;
  Answer cut_decisions = node->call("POST", "/api/v1/security/audit/verify");
  EXPECT_EQ(cut_decisions.body["ok"], false) << cut_decisions.text;
  EXPECT_NE(cut_decisions.text.find("records were removed"), std::string::npos)
      << cut_decisions.text;

  // Rewritten, hashes recomputed: the links verify, the checkpoints do not.
  node->stop();
  write_journal(journal, forge_kernel_chain(kernel_lines, 2, "resource", "nothing-to-see"));
  write_journal(decisions, forge_decision_log(decision_lines, 1, "ssh"));
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started());
  Answer forged = node->call("GET", "/api/v1/audit/verify");
  EXPECT_EQ(forged.body["ok"], false) << forged.text;
  EXPECT_EQ(forged.body.value("first_bad_seq", 0), 0);
  EXPECT_NE(forged.text.find("records were rewritten"), std::string::npos) << forged.text;
  Answer forged_decisions = node->call("POST", "/api/v1/security/audit/verify");
  EXPECT_EQ(forged_decisions.body["ok"], false) << forged_decisions.text;
  EXPECT_EQ(forged_decisions.body.value("first_bad_line", 0), 0);
  EXPECT_NE(forged_decisions.text.find("records were rewritten"), std::string::npos);

  // A checkpoint line made up without the node's key is refused as such.
  node->stop();
  const fs::path points = node->data_dir() / "state" / "audit.checkpoints.jsonl";
  std::vector<std::string> cps = journal_lines(points);
  Json fake = Json::parse(cps.back());
  fake["count"] = 3;
  cps.push_back(fake.dump());
  write_journal(points, cps);
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started());
  EXPECT_NE(node->call("GET", "/api/v1/audit/verify").text.find("not signed by this node's key"),
            std::string::npos);
}

// Eight clients appending at once get consecutive seq values and one valid
// chain; the records counter counts them.
TEST(AuditLogNode, ConcurrentAppendsOverHttp) {
  TempDir dir;
  TestNode::Options o;
  o.modules = {};
  TestNode node(dir.path(), "n1", o);
  ASSERT_TRUE(node.started());
  std::vector<std::thread> threads;
  std::mutex seqs_mu;
  std::vector<int> seqs;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        Answer a = append(node, "concurrent");
        std::lock_guard lock(seqs_mu);
        seqs.push_back(a.body["body"].value("seq", 0));
      }
    });
  }
  for (auto& t : threads) t.join();
  std::sort(seqs.begin(), seqs.end());
  ASSERT_EQ(seqs.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(seqs[i], i + 1);
  EXPECT_EQ(node.call("GET", "/api/v1/audit/verify").body["ok"], true);
  bool counted = false;
  for (const auto& line :
       lines_with(node.call("GET", "/metrics").text, "ostrel_audit_records_total")) {
    if (line[0] != '#' && std::stod(line.substr(line.rfind(' ') + 1)) >= 200) counted = true;
  }
  EXPECT_TRUE(counted);
}

class EnforcingNode : public ::testing::Test {
 protected:
  void SetUp() override {
    TestNode::Options o;
    o.modules = {"security"};
    o.enforce = true;
    node_ = std::make_unique<TestNode>(dir_.path(), "n1", o);
    ASSERT_TRUE(node_->started()) << node_->process().err();
    admin_ = node_->admin_token();
    ASSERT_FALSE(admin_.empty());
  }
  std::string user_token(const std::string& tenant, const std::string& user,
                         const std::string& role) {
    node_->call("POST", "/api/v1/tenants", {{"id", tenant}}, admin_);
    node_->call("POST", "/api/v1/tenants/" + tenant + "/users",
                {{"id", user}, {"role_ids", {role}}}, admin_);
    Answer t = node_->call("POST", "/api/v1/capabilities/issue-for-user",
                           {{"tenant", tenant}, {"user_id", user}}, admin_);
    EXPECT_EQ(t.status, 200) << t.text;
    return t.body.value("token", "");
  }
  std::string scoped_token(const std::vector<std::string>& scopes, const std::string& tenant = "") {
    Json body = {{"scopes", scopes}};
    if (!tenant.empty()) body["tenant"] = tenant;
    Answer t = node_->call("POST", "/api/v1/capabilities/issue", body, admin_);
    EXPECT_EQ(t.status, 200) << t.text;
    return t.body.value("token", "");
  }
  // A token that stands for `role` (the credential decides the role a check
  // is made for, not the body).
  const std::string& role_token(const std::string& role) {
    static const std::map<std::string, std::vector<std::string>> kScopes = {
        {"viewer", {"data.memory.recall"}},
        {"developer", {"agent.invoke"}},
        {"admin", {"admin.*"}},
        {"superadmin", {"kernel.*"}}};
    std::string& t = role_tokens_[role];
    if (t.empty()) t = scoped_token(kScopes.at(role));
    return t;
  }
  Json check(const std::string& tool, const std::string& role, int expect) {
    Answer a =
        node_->call("POST", "/api/v1/security/check",
                    {{"tool", tool}, {"context", {{"user_id", "u-" + role}}}}, role_token(role));
    EXPECT_EQ(a.status, expect) << tool << " as " << role << ": " << a.text;
    return a.body;
  }
  TempDir dir_;
  std::unique_ptr<TestNode> node_;
  std::string admin_;
  std::map<std::string, std::string> role_tokens_;
};

// Reading the log needs audit.read; a tenant-bound reader sees only its own
// tenant; the administrator sees everything, and the security-relevant acts
// of the identity routes are in it.
TEST_F(EnforcingNode, AuditReadersNeedTheScopeAndStayInTheirTenant) {
  std::string acme_viewer = user_token("acme", "val", "viewer");  // viewers hold audit.read
  user_token("globex", "gus", "viewer");
  std::string chat_only = scoped_token({"inference.chat"});
  std::string acme_reader = scoped_token({"audit.read"}, "acme");

  Answer refused = node_->call("GET", "/api/v1/audit", Json(), chat_only);
  EXPECT_EQ(refused.status, 403);
  EXPECT_EQ(refused.body, Json({{"error", "missing_scope"}, {"required", "audit.read"}}));
  EXPECT_EQ(node_->call("GET", "/api/v1/audit/verify", Json(), chat_only).status, 403);

  Answer cross = node_->call("GET", "/api/v1/audit?tenant=globex", Json(), acme_viewer);
  EXPECT_EQ(cross.status, 403);
  EXPECT_EQ(cross.body["error"], "cross_tenant_read_denied");
  EXPECT_EQ(cross.body["token_tenant"], "acme");
  EXPECT_EQ(cross.body["requested_tenant"], "globex");

  for (const std::string& token : {acme_viewer, acme_reader}) {
    Answer own = node_->call("GET", "/api/v1/audit", Json(), token);
    ASSERT_EQ(own.status, 200) << own.text;
    ASSERT_FALSE(own.body["entries"].empty());
    for (const auto& e : own.body["entries"]) EXPECT_EQ(e["tenant"], "acme") << e.dump();
  }
  Answer all = node_->call("GET", "/api/v1/audit?action=tenant.create", Json(), admin_);
  ASSERT_EQ(all.status, 200);
  EXPECT_EQ(all.body["returned"], 2);
  EXPECT_EQ(node_->call("GET", "/api/v1/audit?tenant=nobody", Json(), admin_).body["error"],
            "tenant_unknown_or_inactive");
  Answer issued =
      node_->call("GET", "/api/v1/audit?action=capability.issue&limit=1", Json(), admin_);
  ASSERT_EQ(issued.body["returned"], 1);
  EXPECT_EQ(issued.body["entries"][0]["actor"].get<std::string>().rfind("token:", 0), 0u);
  EXPECT_EQ(node_->call("GET", "/api/v1/audit?limit=0", Json(), admin_).status, 400);
  EXPECT_EQ(node_->call("GET", "/api/v1/audit?since=yesterday", Json(), admin_).status, 400);
}

// Enforce: a viewer runs rag_search and nothing else, a developer its listed
// tools, an admin the admin tools. Audit mode lets a denied call through and
// counts it. Switching the mode needs an administrator, a bad mode changes
// nothing, and the mode survives a restart.
TEST_F(EnforcingNode, ToolDecisionsPerRoleAndMode) {
  std::string viewer = user_token("acme", "val", "viewer");
  Answer denied_switch = node_->call("PUT", "/api/v1/security/mode", {{"mode", "enforce"}}, viewer);
  EXPECT_EQ(denied_switch.status, 403);
  EXPECT_EQ(node_->call("GET", "/api/v1/security/mode", Json(), viewer).body["description"],
            "stub-allow (alpha109 default)");
  EXPECT_EQ(check("bash", "viewer", 200)["decision"], "allowed");  // stub_allow

  ASSERT_EQ(node_->call("PUT", "/api/v1/security/mode", {{"mode", "audit"}}, admin_).status, 200);
  Json audited = check("bash", "viewer", 200);
  EXPECT_EQ(audited["decision"], "allowed");
  EXPECT_EQ(audited["was_audited"], true);
  EXPECT_EQ(
      node_->call("GET", "/api/v1/security/counters", Json(), admin_).body["would_have_denied"], 1);

  ASSERT_EQ(node_->call("PUT", "/api/v1/security/mode", {{"mode", "enforce"}}, admin_).status, 200);
  Answer strict = node_->call("PUT", "/api/v1/security/mode", {{"mode", "strict"}}, admin_);
  EXPECT_EQ(strict.status, 400);
  EXPECT_EQ(strict.body, Json({{"error", "mode must be stub_allow, audit, or enforce"}}));

  Json tools = node_->call("GET", "/api/v1/security/tools", Json(), viewer).body["tools"];
  std::map<std::string, std::set<std::string>> allowed;
  for (const char* role : {"viewer", "developer", "admin"}) {
    for (const auto& t : tools) {
      Json d = node_->call("POST", "/api/v1/security/check", {{"tool", t}}, role_token(role)).body;
      if (d["decision"] == "allowed") allowed[role].insert(t);
    }
  }
  EXPECT_EQ(allowed["viewer"], (std::set<std::string>{"RAGSearch", "rag_search"}));
  for (const char* t : {"bash", "Bash", "web_fetch", "WebSearch", "read_file", "Read", "write_file",
                        "db_query", "DBQuery", "learn", "send_email", "rag_search"}) {
    EXPECT_TRUE(allowed["developer"].count(t)) << t;
  }
  for (const char* t : {"ssh", "SSH", "db_execute", "scp", "qmm_forget", "Forget", "cluster_status",
                        "router_config", "WorkerDeploy"}) {
    EXPECT_FALSE(allowed["developer"].count(t)) << t;
    EXPECT_TRUE(allowed["admin"].count(t)) << t;
  }
  // A body that names another role and user changes nothing: the viewer's
  // credential decides, and the decision log names the token, not the forgery.
  Answer forged = node_->call(
      "POST", "/api/v1/security/check",
      {{"tool", "bash"}, {"context", {{"role", "superadmin"}, {"user_id", "usr-FORGED"}}}},
      role_token("viewer"));
  EXPECT_EQ(forged.status, 403) << forged.text;
  EXPECT_EQ(forged.body["decision"], "denied");
  Json log = node_->call("GET", "/api/v1/security/audit?limit=1", Json(), admin_).body;
  const std::string log_text = log.dump();
  EXPECT_EQ(log_text.find("usr-FORGED"), std::string::npos) << log_text;
  EXPECT_NE(log_text.find("token:"), std::string::npos) << log_text;
  Json refused = check("bash", "viewer", 403);
  EXPECT_EQ(refused["error"], "RBAC_INSUFFICIENT_ROLE");
  EXPECT_EQ(refused["reject"]["message"], "Your role does not grant 'bash'.");
  EXPECT_EQ(refused["http_status"], 403);
  EXPECT_EQ(check("made_up", "superadmin", 404)["error"], "RBAC_UNKNOWN_TOOL");

  // The function-calling export follows the role.
  Answer exported = node_->call("POST", "/api/v1/security/catalog/openai-tools", Json(), viewer);
  ASSERT_EQ(exported.body["tools"].size(), 1u) << exported.text;
  EXPECT_EQ(exported.body["tools"][0]["function"]["name"], "RAGSearch");
  EXPECT_EQ(exported.body["tools"][0]["function"]["parameters"], Json({{"type", "object"}}));
  Json dev = node_
                 ->call("POST", "/api/v1/security/catalog/openai-tools",
                        {{"role", "developer"}, {"names", {"Bash", "SSH"}}}, viewer)
                 .body;
  ASSERT_EQ(dev["tools"].size(), 1u);
  EXPECT_EQ(dev["tools"][0]["function"]["name"], "Bash");
  EXPECT_EQ(node_->call("GET", "/api/v1/security/catalog?category=filesystem", Json(), viewer)
                .body["count"],
            5);

  // The decision log verifies; the mode and counters outlive a restart.
  EXPECT_EQ(node_->call("POST", "/api/v1/security/audit/verify", Json(), admin_).body["ok"], true);
  const std::int64_t denied =
      node_->call("GET", "/api/v1/security/counters", Json(), admin_).body["denied"];
  EXPECT_GT(denied, 0);
  node_->stop();
  TestNode::Options o;
  o.modules = {"security"};
  o.enforce = true;
  node_ = std::make_unique<TestNode>(dir_.path(), "n1", o);
  ASSERT_TRUE(node_->started());
  admin_ = node_->admin_token();
  role_tokens_.clear();  // signed with the previous run's node key
  EXPECT_EQ(node_->call("GET", "/api/v1/security/mode", Json(), admin_).body["mode"], "enforce");
  EXPECT_EQ(node_->call("GET", "/api/v1/security/counters", Json(), admin_).body["denied"], denied);
  EXPECT_EQ(check("bash", "viewer", 403)["decision"], "denied");
  EXPECT_EQ(node_->call("POST", "/api/v1/security/audit/verify", Json(), admin_).body["ok"], true);

  // The mode switches are in the node's audit log.
  Answer switched = node_->call("GET", "/api/v1/audit?action=policy.mode.set", Json(), admin_);
  EXPECT_EQ(switched.body["returned"], 2);
}

// The default mode lets every tool run for every caller: the boot log says
// so. An operator's security.mode setting is applied (and kept) at start.
TEST(SecurityModeNode, StubAllowIsWarnedAndTheSettingApplies) {
  TempDir dir;
  TestNode::Options o;
  o.modules = {"security"};
  auto node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started());
  EXPECT_TRUE(node->process().wait_for_err(
      "[WARN][kernel/security] tool policy mode is stub_allow: every tool runs", 1s));
  node->stop();
  o.args = {"--config-set", "security.mode=enforce"};
  node = std::make_unique<TestNode>(dir.path(), "n1", o);
  ASSERT_TRUE(node->started());
  EXPECT_EQ(node->call("GET", "/api/v1/security/mode").body["mode"], "enforce");
  EXPECT_EQ(node->process().err().find("tool policy mode is stub_allow"), std::string::npos);
  // A viewer's tool decision in the tool loop's terms is refused now.
  EXPECT_EQ(node->call("POST", "/api/v1/security/check",
                       {{"tool", "bash"}, {"context", {{"role", "viewer"}}}})
                .status,
            403);
}

// Compliance reports: built from the decision log and the audit chain, kept
// as JSON and HTML, downloaded as attachments; bad ids and formats refused.
TEST_F(EnforcingNode, ComplianceReports) {
  check("rag_search", "viewer", 200);
  EXPECT_EQ(node_->call("GET", "/api/v1/compliance/regimes", Json(), admin_).body["regimes"],
            Json({"hipaa", "gdpr", "21cfr-part-11", "glp"}));
  EXPECT_EQ(
      node_->call("POST", "/api/v1/security/audit/export", {{"regime", "sox"}}, admin_).status,
      400);
  Answer made = node_->call("POST", "/api/v1/security/audit/export", {{"regime", "hipaa"}}, admin_);
  ASSERT_EQ(made.status, 200) << made.text;
  const std::string id = made.body["report_id"];
  EXPECT_EQ(made.body["tool_checks"]["total"], 1);
  EXPECT_EQ(made.body["audit_log"]["chain_ok"], true);
  EXPECT_TRUE(fs::exists(node_->data_dir() / "compliance" / "reports" / (id + ".html")));

  Answer html = node_->call("GET", "/api/v1/security/audit/export?report_id=" + id + "&format=html",
                            Json(), admin_);
  ASSERT_EQ(html.status, 200);
  EXPECT_EQ(html.headers["Content-Type"], "text/html; charset=utf-8");
  EXPECT_EQ(html.headers["Content-Disposition"], "attachment; filename=\"" + id + ".html\"");
  EXPECT_NE(html.text.find("<title>Compliance Report — hipaa</title>"), std::string::npos);
  EXPECT_NE(html.text.find("(all tenants)"), std::string::npos);
  Answer json = node_->call("GET", "/api/v1/compliance/reports/" + id, Json(), admin_);
  EXPECT_EQ(json.body["report_id"], id);

  EXPECT_EQ(node_->call("GET", "/api/v1/security/audit/export", Json(), admin_).body,
            Json({{"error", "missing report id"}}));
  EXPECT_EQ(node_->call("GET", "/api/v1/security/audit/export?report_id=../x", Json(), admin_).body,
            Json({{"error", "invalid report id"}}));
  EXPECT_EQ(node_
                ->call("GET", "/api/v1/security/audit/export?report_id=" + id + "&format=pdf",
                       Json(), admin_)
                .body,
            Json({{"error", "format must be json or html"}}));
  Answer missing =
      node_->call("GET", "/api/v1/security/audit/export?report_id=rpt-nope", Json(), admin_);
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.body, Json({{"error", "not_found"}, {"report_id", "rpt-nope"}}));
}

}  // namespace
}  // namespace ostrel::testing
