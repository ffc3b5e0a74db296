// Users on the real binary: the first user racing for superadmin, the sign-up
// allowlist, API keys at the gateway, hostile user names, login throttling,
// password reset through a loopback controller, and auth that stays enforced
// after a restart.
#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

httplib::Headers key_header(const std::string& key) { return {{"X-API-Key", key}}; }

Answer reg(const TestNode& node, const std::string& user, const std::string& password,
           const std::string& key = "", Json extra = Json::object()) {
  extra["username"] = user;
  extra["password"] = password;
  return node.call("POST", "/api/v1/auth/register", extra, "", "",
                   key.empty() ? httplib::Headers{} : key_header(key));
}

Answer login(const TestNode& node, const std::string& user, const std::string& password) {
  return node.call("POST", "/api/v1/auth/login", {{"username", user}, {"password", password}});
}

Answer syscall(const TestNode& node, const std::string& key, const std::string& name,
               const Json& args) {
  return node.call("POST", "/api/v1/kernel/syscall", {{"name", name}, {"args", args}}, "", "",
                   key_header(key));
}

// A loopback controller that takes the node's outgoing mail.
class MailCatcher {
 public:
  MailCatcher() {
    server_.Post("/api/v1/comm/send", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard lock(mu_);
      mails_.push_back(Json::parse(req.body, nullptr, false));
      node_headers_ = req.has_header("X-Ostrel-Node-Token");
      res.set_content(R"({"status":"sent"})", "application/json");
    });
    thread_ = serve_on_loopback(server_, port_);
  }
  ~MailCatcher() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::vector<Json> mails() {
    std::lock_guard lock(mu_);
    return mails_;
  }
  bool node_headers() {
    std::lock_guard lock(mu_);
    return node_headers_;
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mu_;
  std::vector<Json> mails_;
  bool node_headers_ = false;
};

// The reset token inside a mail's body.
std::string token_in(const Json& mail) {
  const std::string body = mail.value("body", "");
  const auto at = body.find("rst-");
  return at == std::string::npos ? "" : body.substr(at, 4 + 32);
}

// Eight clients race to be the first user: exactly one becomes superadmin,
// the rest are turned away by the (empty) allowlist. The node then demands
// credentials; the allowlist, hostile names and API keys behave as written,
// and all of it holds after a restart.
TEST(UsersNode, FirstUserAllowlistKeysAndRestart) {
  TempDir dir;
  auto node = std::make_unique<TestNode>(dir.path(), "n1", TestNode::Options{.modules = {}});
  ASSERT_TRUE(node->started()) << node->process().err();
  EXPECT_EQ(node->call("GET", "/api/v1/tenants").status, 200);  // open until a user exists

  std::vector<Answer> answers(8);
  std::vector<std::thread> racers;
  for (int i = 0; i < 8; ++i) {
    racers.emplace_back([&, i] {
      answers[i] = reg(*node, "racer" + std::to_string(i) + "@corp.test", "correct horse");
    });
  }
  for (auto& t : racers) t.join();
  int winners = 0;
  std::string root_key, root_name;
  for (const auto& a : answers) {
    if (a.status == 200) {
      ++winners;
      EXPECT_EQ(a.body["role"], "superadmin");
      EXPECT_EQ(a.body["signup"], "first_user");
      root_key = a.body["api_key"];
      root_name = a.body["username"];
    } else {
      EXPECT_EQ(a.status, 403) << a.text;
      EXPECT_EQ(a.body["error"], "signup_not_permitted");
    }
  }
  ASSERT_EQ(winners, 1);
  EXPECT_EQ(root_key.rfind("ak-", 0), 0u);
  EXPECT_TRUE(node->process().wait_for_err("auth auto-enforce", 5s));

  // Closed now: no credential, a wrong key, then the right one.
  EXPECT_EQ(node->call("GET", "/api/v1/tenants").status, 401);
  Answer wrong = node->call("GET", "/api/v1/tenants", {}, "", "", key_header("ak-nope"));
  EXPECT_EQ(wrong.status, 403);
  EXPECT_EQ(wrong.body["reason"], "invalid_api_key");
  EXPECT_EQ(node->call("GET", "/api/v1/tenants", {}, "", "", key_header(root_key)).status, 200);
  Answer me = node->call("GET", "/api/v1/auth/me", {}, "", "", key_header(root_key));
  EXPECT_EQ(me.body["username"], root_name) << me.text;
  EXPECT_FALSE(me.body.contains("password_hash"));
  EXPECT_EQ(node->call("GET", "/api/v1/auth/me").body["error"], "missing X-API-Key");

  // The allowlist: a domain admits its addresses as viewers of its tenant.
  Answer added = node->call("POST", "/api/v1/identity/signup-domains",
                            {{"domain", "example.com"}, {"tenant_id", "default"}}, "", "",
                            key_header(root_key));
  ASSERT_EQ(added.status, 200) << added.text;
  Answer bob = reg(*node, "bob@example.com", "bobs password", "", {{"role", "superadmin"}});
  ASSERT_EQ(bob.status, 200) << bob.text;
  EXPECT_EQ(bob.body["role"], "viewer");
  EXPECT_EQ(bob.body["tenant_id"], "default");
  EXPECT_EQ(bob.body["signup"], "domain_match");
  const std::string bob_key = bob.body["api_key"];
  EXPECT_EQ(reg(*node, "eve@evil.test", "eves password").status, 403);
  EXPECT_EQ(reg(*node, "bob@example.com", "another one").status, 409);
  // A viewer may neither change the allowlist nor reach administration.
  EXPECT_EQ(node->call("POST", "/api/v1/identity/signup-domains", {{"domain", "evil.test"}}, "", "",
                       key_header(bob_key))
                .status,
            403);
  EXPECT_EQ(
      node->call("POST", "/api/v1/tenants", {{"id", "bobs"}}, "", "", key_header(bob_key)).status,
      403);

  // Hostile names and passwords: each refused with its reason, nothing stored.
  EXPECT_EQ(reg(*node, "", "whatever long").body["error"], "username required");
  EXPECT_EQ(reg(*node, "x@example.com", "").body["error"], "password required");
  EXPECT_EQ(reg(*node, "x@example.com", "short").body["error"],
            "password must be at least 8 characters");
  EXPECT_EQ(reg(*node, std::string(100000, 'a') + "@example.com", "long enough").status, 400);
  Answer bad_utf8 = node->call(
      "POST", "/api/v1/auth/register", {}, "",
      R"({"username":")" + std::string("\xff\xfe@example.com") + R"(","password":"long enough"})");
  EXPECT_EQ(bad_utf8.status, 400) << bad_utf8.text;
  EXPECT_EQ(reg(*node, "tab\t@example.com", "long enough").status, 400);
  EXPECT_EQ(node->call("POST", "/api/v1/auth/register", {}, "", "[[[[").status, 400);
  // SQL metacharacters are only text.
  const std::string sneaky = "o'brien\"; DROP TABLE users;--";
  Answer odd = reg(*node, sneaky, "pa'ss\"word;--", root_key,
                   {{"display_name", "'); DELETE FROM users; --"}, {"role", "developer"}});
  ASSERT_EQ(odd.status, 200) << odd.text;
  EXPECT_EQ(odd.body["username"], "o'brien\"; drop table users;--");  // one spelling: lower case
  EXPECT_EQ(login(*node, sneaky, "pa'ss\"word;--").status, 200);
  EXPECT_EQ(login(*node, "' OR '1'='1", "' OR '1'='1").status, 401);
  Answer listed = syscall(*node, root_key, "identity.users.list", {});
  ASSERT_EQ(listed.status, 200) << listed.text;
  EXPECT_EQ(listed.body["body"]["count"], 3) << listed.text;

  // Bob's key works until he is deleted, then fails on the very next request.
  EXPECT_EQ(node->call("GET", "/api/v1/auth/me", {}, "", "", key_header(bob_key)).status, 200);
  EXPECT_EQ(node->call("GET", "/api/v1/flags", {}, "", "", key_header(bob_key)).status, 200);
  EXPECT_EQ(
      node->call("POST", "/api/v1/flags/beta", {{"enabled", true}}, "", "", key_header(bob_key))
          .status,
      403);
  const std::string bob_id = bob.body["user_id"];
  ASSERT_EQ(syscall(*node, root_key, "identity.users.delete", {{"user_id", bob_id}}).status, 200);
  Answer gone = node->call("GET", "/api/v1/auth/me", {}, "", "", key_header(bob_key));
  EXPECT_EQ(gone.status, 403) << gone.text;
  EXPECT_EQ(gone.body["reason"], "invalid_api_key");
  // A viewer promoted to admin is an admin on the next request.
  const std::string odd_key = odd.body["api_key"];
  auto flag_by_odd = [&] {
    return node->call("POST", "/api/v1/flags/beta", {{"enabled", true}}, "", "",
                      key_header(odd_key));
  };
  EXPECT_EQ(flag_by_odd().status, 403);
  ASSERT_EQ(syscall(*node, root_key, "identity.users.update",
                    {{"user_id", odd.body["user_id"]}, {"role", "admin"}})
                .status,
            200);
  EXPECT_EQ(flag_by_odd().status, 200);

  // After a restart the node is closed from the first request, and the
  // same keys still open it.
  node->restart_hard();
  ASSERT_TRUE(node->started()) << node->process().err();
  EXPECT_TRUE(node->process().wait_for_err("auth auto-enforce", 5s));
  EXPECT_EQ(node->call("GET", "/api/v1/tenants").status, 401);
  EXPECT_EQ(node->call("GET", "/api/v1/tenants", {}, "", "", key_header(root_key)).status, 200);
  EXPECT_EQ(node->call("GET", "/api/v1/flags/beta", {}, "", "", key_header(root_key))
                .body.value("enabled", false),
            true);
  EXPECT_EQ(login(*node, root_name, "correct horse").status, 200);
  Answer domains =
      node->call("GET", "/api/v1/identity/signup-domains", {}, "", "", key_header(root_key));
  ASSERT_EQ(domains.body["domains"].size(), 1u) << domains.text;
  EXPECT_EQ(domains.body["domains"][0]["domain"], "example.com");
}

// Guessing is slowed per user name and per address; a good login clears it.
// Reset tokens go out through the controller, work once, only for their own
// user, and not after they expire.
TEST(UsersNode, LoginThrottleHoldsNamesAndAddresses) {
  TempDir dir;
  TestNode node(dir.path(), "n1", TestNode::Options{.modules = {}});
  ASSERT_TRUE(node.started()) << node.process().err();
  Answer alice = reg(node, "alice", "alice password");
  ASSERT_EQ(alice.status, 200) << alice.text;
  const std::string admin_key = alice.body["api_key"];
  ASSERT_EQ(reg(node, "bob", "bobs password", admin_key).status, 200);

  // Five guesses, as README says; the sixth attempt already waits.
  for (int i = 0; i < 5; ++i) {
    Answer a = login(node, "alice", "guess " + std::to_string(i));
    ASSERT_EQ(a.status, 401) << i << a.text;
    EXPECT_EQ(a.body["error"], "invalid username or password");
  }
  Answer held = login(node, "alice", "alice password");  // right, but too soon
  EXPECT_EQ(held.status, 429) << held.text;
  EXPECT_EQ(held.body["error"], "too_many_attempts");
  EXPECT_GE(std::stoi(held.headers["Retry-After"]), 1);
  // The same address guessing another name waits too. (That the wait ends
  // on time is the throttle's own test, on a clock it can move.)
  EXPECT_EQ(login(node, "bob", "bobs password").status, 429);
}

// Password reset by mail: the same answer for unknown names, the token in
// the mail, used once, for its own user only, and not after its hour.
TEST(UsersNode, PasswordResetByMail) {
  TempDir dir;
  MailCatcher controller;
  TestNode node(
      dir.path(), "n1",
      TestNode::Options{.modules = {}, .env = {{"OSTREL_ULVO_CONTROLLER_URL", controller.url()}}});
  ASSERT_TRUE(node.started()) << node.process().err();
  Answer alice = reg(node, "alice", "alice password");
  ASSERT_EQ(alice.status, 200) << alice.text;
  ASSERT_EQ(reg(node, "bob", "bobs password", alice.body["api_key"]).status, 200);

  // Reset: same answer for unknown names; the mail carries the token.
  Answer unknown = node.call("POST", "/api/v1/auth/reset-request", {{"username", "nobody"}});
  EXPECT_EQ(unknown.status, 200);
  Answer asked = node.call("POST", "/api/v1/auth/reset-request", {{"username", "alice"}});
  EXPECT_EQ(asked.body["message"], unknown.body["message"]);
  ASSERT_TRUE(eventually([&] { return controller.mails().size() == 1; }));
  const Json mail = controller.mails()[0];
  EXPECT_EQ(mail["to"], "alice");
  EXPECT_EQ(mail["subject"], "Ostrel Password Reset");
  EXPECT_TRUE(controller.node_headers());
  const std::string alice_token = token_in(mail);
  ASSERT_EQ(alice_token.size(), 36u) << mail.dump();
  ASSERT_EQ(node.call("POST", "/api/v1/auth/reset-request", {{"username", "bob"}}).status, 200);
  ASSERT_TRUE(eventually([&] { return controller.mails().size() == 2; }));
  const std::string bob_token = token_in(controller.mails()[1]);

  auto confirm = [&](const std::string& user, const std::string& token, const std::string& pw) {
    return node.call("POST", "/api/v1/auth/reset-confirm",
                     {{"username", user}, {"token", token}, {"password", pw}});
  };
  EXPECT_EQ(confirm("alice", bob_token, "stolen password").body["error"], "invalid token");
  EXPECT_EQ(confirm("alice", "rst-0000", "stolen password").body["error"], "invalid token");
  EXPECT_EQ(confirm("alice", alice_token, "short").body["error"],
            "password must be at least 8 characters");
  EXPECT_EQ(confirm("alice", "", "new alice password").status, 400);
  Answer done = confirm("alice", alice_token, "new alice password");
  ASSERT_EQ(done.status, 200) << done.text;
  EXPECT_EQ(confirm("alice", alice_token, "third password").body["error"], "invalid token");
  EXPECT_EQ(login(node, "alice", "alice password").status, 401);
  EXPECT_EQ(login(node, "alice", "new alice password").status, 200);

  // Bob's token, aged past its hour in the database itself.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((node.data_dir() / "state" / "identity.db").c_str(), &db), SQLITE_OK);
  sqlite3_busy_timeout(db, 5000);
  ASSERT_EQ(sqlite3_exec(db,
                         "UPDATE users SET settings_json = json_set(settings_json, "
                         "'$.reset_expires', 1000) WHERE username = 'bob'",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  EXPECT_EQ(confirm("bob", bob_token, "new bobs password").body["error"], "token expired");
  EXPECT_EQ(login(node, "bob", "bobs password").status, 200);
}

// Without messaging or a controller the token is still stored and the node
// says why no mail went out.
TEST(UsersNode, ResetWithoutMailStillStoresTheToken) {
  TempDir dir;
  TestNode node(dir.path(), "n1", TestNode::Options{.modules = {}});
  ASSERT_TRUE(node.started()) << node.process().err();
  ASSERT_EQ(reg(node, "carol", "carols password").status, 200);
  ASSERT_EQ(node.call("POST", "/api/v1/auth/reset-request", {{"username", "carol"}}).status, 200);
  EXPECT_TRUE(node.process().wait_for_err(
      "password reset email dispatch failed (no controller_url): carol", 5s));
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((node.data_dir() / "state" / "identity.db").c_str(), &db), SQLITE_OK);
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db,
                               "SELECT json_extract(settings_json, '$.reset_token'), password_hash "
                               "FROM users WHERE username = 'carol'",
                               -1, &st, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(st), SQLITE_ROW);
  const std::string token = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
  const std::string hash = reinterpret_cast<const char*>(sqlite3_column_text(st, 1));
  sqlite3_finalize(st);
  sqlite3_close(db);
  EXPECT_EQ(token.rfind("rst-", 0), 0u);
  // Stored as other nodes read it: lower-case hex SHA-256 of the password.
  EXPECT_EQ(hash, "f54e89c558d985651dfa95c90d46993b39dc12b95a0400a5267bc1e9f5b24d1c");
  Answer ok = node.call("POST", "/api/v1/auth/reset-confirm",
                        {{"username", "carol"}, {"token", token}, {"password", "carols new one"}});
  EXPECT_EQ(ok.status, 200) << ok.text;
}

}  // namespace

// On a node that enforces credentials a stranger cannot make the first
// account (it needs the bootstrap token); nobody grants a role above their
// own or a tenant other than their own; user names have one spelling.
TEST(UsersNode, EnforcingNodeFirstAccountAndGrantLimits) {
  TempDir dir;
  TestNode node(dir.path(), "n1", TestNode::Options{.modules = {}, .enforce = true});
  ASSERT_TRUE(node.started()) << node.process().err();
  const std::string boot = node.admin_token();

  Answer stranger = reg(node, "mallory@evil.test", "take over the node");
  EXPECT_EQ(stranger.status, 401) << stranger.text;
  EXPECT_EQ(stranger.body["error"], "admin_credential_required");
  EXPECT_EQ(node.call("GET", "/api/v1/auth/me", {}, "", "", key_header("ak-none")).status, 403);
  Answer root = node.call("POST", "/api/v1/auth/register",
                          {{"username", "Root@Lab.test"}, {"password", "root password"}}, boot);
  ASSERT_EQ(root.status, 200) << root.text;
  EXPECT_EQ(root.body["role"], "superadmin");
  EXPECT_EQ(root.body["username"], "root@lab.test");
  const std::string root_key = root.body["api_key"];

  // A tenant administrator of acme, made by the superadmin.
  ASSERT_EQ(node.call("POST", "/api/v1/tenants", {{"id", "acme"}}, boot).status, 201);
  Answer acme_admin = reg(node, "boss@acme.test", "boss password", root_key,
                          {{"role", "admin"}, {"tenant_id", "acme"}});
  ASSERT_EQ(acme_admin.status, 200) << acme_admin.text;
  const std::string boss = acme_admin.body["api_key"];
  Answer above = reg(node, "king@acme.test", "king password", boss, {{"role", "superadmin"}});
  EXPECT_EQ(above.status, 403) << above.text;
  EXPECT_EQ(above.body["error"], "role_above_granter");
  Answer elsewhere = reg(node, "spy@acme.test", "spy password", boss,
                         {{"role", "developer"}, {"tenant_id", "beta"}});
  EXPECT_EQ(elsewhere.status, 403) << elsewhere.text;
  EXPECT_EQ(elsewhere.body["error"], "cross_tenant_access_denied");
  Answer dev = reg(node, "DEV@acme.test", "dev password", boss, {{"role", "developer"}});
  ASSERT_EQ(dev.status, 200) << dev.text;
  EXPECT_EQ(dev.body["tenant_id"], "acme");
  EXPECT_EQ(dev.body["role"], "developer");
  EXPECT_EQ(dev.body["username"], "dev@acme.test");
  // A developer grants nothing: it is a self-registration, refused here.
  EXPECT_EQ(reg(node, "x@acme.test", "x password", dev.body["api_key"], {{"role", "admin"}})
                .body["error"],
            "signup_not_permitted");

  // One spelling per name: case and blanks do not make a second account,
  // and a name with two "@" is no address.
  EXPECT_EQ(reg(node, " dev@ACME.test", "dev password", boss).status, 409);
  EXPECT_EQ(reg(node, "y@evil.test@acme.test", "long enough", boss).status, 400);
  EXPECT_EQ(reg(node, "y@", "long enough", boss).status, 400);
  EXPECT_EQ(login(node, " Dev@Acme.Test ", "dev password").status, 200);
  Answer listed = syscall(node, root_key, "identity.users.list", {});
  EXPECT_EQ(listed.body["body"]["count"], 3) << listed.text;

  // The operator's way back to an open first registration, said at boot.
  TempDir other;
  TestNode open_node(
      other.path(), "n2",
      TestNode::Options{.modules = {}, .env = {{"OSTREL_FIRST_USER_OPEN", "1"}}, .enforce = true});
  ASSERT_TRUE(open_node.started());
  EXPECT_TRUE(open_node.process().wait_for_err("[WARN][kernel] OSTREL_FIRST_USER_OPEN=1", 1s));
  Answer first = reg(open_node, "ops@lab.test", "operators pass");
  EXPECT_EQ(first.status, 200) << first.text;
  EXPECT_EQ(first.body["role"], "superadmin");
  EXPECT_EQ(reg(open_node, "late@lab.test", "late comer pass").status, 403);
}

// The first-user rule is decided once, by the first account: a first
// service account does not leave the superadmin seat open for the next
// human. After a password reset the old API key is dead; reset requests
// are throttled like logins, whether the name exists or not.
TEST(UsersNode, FirstAccountOnceKeyRotationAndResetThrottle) {
  TempDir dir;
  TestNode node(dir.path(), "n1", TestNode::Options{.modules = {}});
  ASSERT_TRUE(node.started()) << node.process().err();
  Answer svc = reg(node, "ingest-bot", "service password", "", {{"account_type", "service"}});
  ASSERT_EQ(svc.status, 200) << svc.text;
  EXPECT_EQ(svc.body["role"], "superadmin");
  const std::string svc_key = svc.body["api_key"];
  ASSERT_EQ(
      node.call("POST", "/api/v1/identity/signup-domains",
                {{"domain", "lab.test"}, {"tenant_id", "default"}}, "", "", key_header(svc_key))
          .status,
      200);
  Answer human = reg(node, "ada@lab.test", "analytical engine");
  ASSERT_EQ(human.status, 200) << human.text;
  EXPECT_EQ(human.body["role"], "viewer");
  EXPECT_EQ(human.body["signup"], "domain_match");

  // Reset: the old key stops working at once; the next login hands out the new one.
  const std::string old_key = human.body["api_key"];
  ASSERT_EQ(node.call("GET", "/api/v1/auth/me", {}, "", "", key_header(old_key)).status, 200);
  ASSERT_EQ(node.call("POST", "/api/v1/auth/reset-request", {{"username", "ada@lab.test"}}).status,
            200);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((node.data_dir() / "state" / "identity.db").c_str(), &db), SQLITE_OK);
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db,
                               "SELECT json_extract(settings_json, '$.reset_token') FROM users "
                               "WHERE username = 'ada@lab.test'",
                               -1, &st, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(st), SQLITE_ROW);
  const std::string token = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
  sqlite3_finalize(st);
  sqlite3_close(db);
  ASSERT_EQ(
      node.call("POST", "/api/v1/auth/reset-confirm",
                {{"username", "ada@lab.test"}, {"token", token}, {"password", "difference engine"}})
          .status,
      200);
  Answer dead = node.call("GET", "/api/v1/auth/me", {}, "", "", key_header(old_key));
  EXPECT_EQ(dead.status, 403) << dead.text;
  EXPECT_EQ(node.call("GET", "/api/v1/flags", {}, "", "", key_header(old_key)).status, 403);
  Answer again = login(node, "ada@lab.test", "difference engine");
  ASSERT_EQ(again.status, 200);
  EXPECT_NE(again.body["api_key"], old_key);
  EXPECT_EQ(node.call("GET", "/api/v1/auth/me", {}, "", "",
                      key_header(again.body["api_key"].get<std::string>()))
                .status,
            200);

  // Three requests per name, known or not; the fourth waits, and says how long.
  for (const std::string name : {"ada@lab.test", "nobody@lab.test"}) {
    int ok = 0;
    Answer last;
    for (int i = 0; i < 5; ++i) {
      last = node.call("POST", "/api/v1/auth/reset-request", {{"username", name}});
      if (last.status == 200) ++ok;
    }
    EXPECT_LE(ok, 3) << name;
    EXPECT_EQ(last.status, 429) << name << last.text;
    EXPECT_EQ(last.body["error"], "too_many_attempts");
    EXPECT_GE(std::stoi(last.headers["Retry-After"]), 1);
  }
}

}  // namespace ostrel::testing
