// The real binaries, booted as child processes on free loopback ports.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

class NodeProcess : public ::testing::Test {
 protected:
  Process::Options node_options(int port, std::vector<std::string> extra = {}) {
    Process::Options o;
    o.args = {"--port=" + std::to_string(port), "--bind=127.0.0.1",
              "--data-dir=" + (dir_ / "data").string(),
              "--modules-d=" + (dir_ / "modules.d").string()};
    o.args.insert(o.args.end(), extra.begin(), extra.end());
    o.unset_env = {"OSTREL_AUTH", "OSTREL_DATA_DIR", "OSTREL_GOSSIP_ENABLED",
                   "OSTREL_CLUSTER_SECRET", "OSTREL_ULVO_PEERS"};
    o.set_env = {{"OSTREL_CONFIG_DIR", (dir_ / "config").string()}};
    return o;
  }
  TempDir dir_;
};

TEST_F(NodeProcess, ServesHealthAndStopsCleanlyOnSigint) {
  std::filesystem::create_directories(dir_ / "modules.d");
  Process node(OSTREL_BINARY, node_options(0), dir_ / "logs");
  const int port = wait_for_ready_port(node, 10s);
  ASSERT_GT(port, 0) << node.err();
  EXPECT_NE(node.err().find("[INFO][kernel] ready — serving on 127.0.0.1:" + std::to_string(port)),
            std::string::npos);

  httplib::Client client("127.0.0.1", port);
  auto health = client.Get("/health");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200);
  Json h = Json::parse(health->body);
  EXPECT_EQ(h["status"], "ok");
  EXPECT_EQ(h["version"], "5.0.0");
  EXPECT_EQ(h["auth"], "off");
  auto missing = client.Get("/api/v1/nothing");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->status, 404);
  EXPECT_EQ(missing->body, "{\"error\":\"not_found\",\"path\":\"/api/v1/nothing\"}");
  // Garbage on the wire does not take the node down.
  auto bad = client.Post("/api/v1/kernel/syscall", "{not json", "application/json");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);

  node.signal(SIGINT);
  auto status = node.wait_exit(10s);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
  std::string err = node.err();
  EXPECT_NE(err.find("[INFO][kernel] shutting down"), std::string::npos);
  EXPECT_NE(err.find("[INFO][kernel] clean shutdown"), std::string::npos);
  EXPECT_TRUE(node.out().empty());
}

// A caller's trace context flows into the answer whether or not spans are
// recorded; with OSTREL_TRACE_TO_STDERR each request's span, child of the
// caller's, is one JSON line on stderr with its attributes.
TEST_F(NodeProcess, TraceContextFlowsAndSpansAreWrittenWhenAsked) {
  std::filesystem::create_directories(dir_ / "modules.d");
  const std::string trace = "4bf92f3577b34da6a3ce929d0e0e4736";
  const std::string parent = "00f067aa0ba902b7";
  for (bool recorded : {false, true}) {
    Process::Options o = node_options(0);
    if (recorded) {
      o.set_env["OSTREL_TRACE_TO_STDERR"] = "1";
    } else {
      o.unset_env.push_back("OSTREL_TRACE_TO_STDERR");
    }
    Process node(OSTREL_BINARY, o, dir_ / ("logs-" + std::to_string(recorded)));
    const int port = wait_for_ready_port(node, 10s);
    ASSERT_GT(port, 0) << node.err();
    httplib::Client client("127.0.0.1", port);
    auto res =
        client.Get("/api/v1/kernel/stats", {{"traceparent", "00-" + trace + "-" + parent + "-01"}});
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    const std::string answered = res->get_header_value("traceparent");
    ASSERT_EQ(answered.size(), 55u) << answered;
    EXPECT_EQ(answered.substr(3, 32), trace);
    EXPECT_NE(answered.substr(36, 16), parent);  // the node's own span

    auto spans = lines_with(node.err(), "\"trace_id\":\"" + trace + "\"");
    if (!recorded) {
      EXPECT_TRUE(spans.empty()) << node.err();
      continue;
    }
    ASSERT_EQ(spans.size(), 1u) << node.err();
    Json span = Json::parse(spans[0]);
    EXPECT_EQ(span["parent_span_id"], parent);
    EXPECT_EQ(span["span_id"], answered.substr(36, 16));
    EXPECT_EQ(span["name"], "GET /api/v1/kernel/stats");
    EXPECT_EQ(span["status"], "ok");
    EXPECT_EQ(span["attributes"]["http.method"], "GET");
    EXPECT_EQ(span["attributes"]["http.path"], "/api/v1/kernel/stats");
    EXPECT_EQ(span["attributes"]["http.status"], "200");
    EXPECT_EQ(span["attributes"]["http.status_class"], "2xx");
    EXPECT_EQ(span["attributes"]["client.ip"], "127.0.0.1");
  }
}

TEST_F(NodeProcess, ModulesStopInReverseOrderOnSigterm) {
  write_file(dir_ / "modules.d" / "alpha.module.yaml",
             "module:\n  name: alpha\n  version: 5.0.0\n"
             "  source_code: {domain: lab, subdomain: \"0x11\"}\n"
             "  help: [{id: alpha.intro}]\n");
  write_file(dir_ / "modules.d" / "beta.module.yaml",
             "module:\n  name: beta\n  version: 5.0.0\n"
             "  source_code: {domain: lab, subdomain: \"0x12\"}\n"
             "  help: [{id: beta.intro}]\n");
  Process node(OSTREL_TESTMODS_BINARY, node_options(0), dir_ / "logs");
  const int port = wait_for_ready_port(node, 10s);
  ASSERT_GT(port, 0) << node.err();
  httplib::Client client("127.0.0.1", port);
  auto health = client.Get("/health");
  ASSERT_TRUE(health);
  EXPECT_EQ(Json::parse(health->body)["module_count"], 2);

  node.signal(SIGTERM);
  ASSERT_EQ(node.wait_exit(10s), std::optional<int>(0));
  std::string err = node.err();
  auto starts = lines_with(err, "[INFO][kernel] start ");
  auto stops = lines_with(err, "[INFO][kernel] stop ");
  ASSERT_EQ(starts.size(), 2u) << err;
  ASSERT_EQ(stops.size(), 2u) << err;
  // Stopped in the reverse of the start order.
  EXPECT_EQ(stops[0].substr(stops[0].rfind(' ')), starts[1].substr(starts[1].rfind(' ')));
  EXPECT_EQ(stops[1].substr(stops[1].rfind(' ')), starts[0].substr(starts[0].rfind(' ')));
  EXPECT_LT(err.find("[INFO][kernel] stop "), err.find("[INFO][kernel] clean shutdown"));
}

// Every module loaded, so their threads run when the bind fails: they are
// stopped and joined, and the process exits 1 (not an abort).
TEST_F(NodeProcess, TakenPortExitsOneWithBootFailed) {
  std::filesystem::create_directories(dir_ / "modules.d");
  for (const auto& m :
       std::filesystem::directory_iterator(std::filesystem::path(OSTREL_SOURCE_DIR) / "modules.d")) {
    if (m.path().extension() == ".yaml") {
      std::filesystem::copy_file(m.path(), dir_ / "modules.d" / m.path().filename());
    }
  }
  Process first(OSTREL_BINARY, node_options(0), dir_ / "logs");
  const int port = wait_for_ready_port(first, 10s);
  ASSERT_GT(port, 0) << first.err();

  Process second(OSTREL_BINARY, node_options(port), dir_ / "logs");
  ASSERT_EQ(second.wait_exit(10s), std::optional<int>(1));
  std::string err = second.err();
  EXPECT_NE(err.find("[ERROR][kernel] gateway failed to bind 127.0.0.1:" + std::to_string(port)),
            std::string::npos);
  EXPECT_NE(err.find("boot failed\n"), std::string::npos);
  EXPECT_EQ(err.find("terminate called"), std::string::npos) << err;
  EXPECT_NE(err.find("[INFO][kernel] stop controller"), std::string::npos) << err;
  // The first node is unaffected.
  EXPECT_TRUE(wait_for_health(port, 2s));
}

TEST_F(NodeProcess, InformationalExitsAndBadOptions) {
  Process::Options help;
  help.args = {"--help"};
  Process h(OSTREL_BINARY, help, dir_ / "logs");
  ASSERT_EQ(h.wait_exit(5s), std::optional<int>(0));
  EXPECT_EQ(h.err().rfind("Ostrel ULVO \xe2\x80\x94 v5.0\n\nUsage: ", 0), 0u);

  Process::Options list;
  list.args = {"--list-modules"};
  Process l(OSTREL_TESTMODS_BINARY, list, dir_ / "logs");
  ASSERT_EQ(l.wait_exit(5s), std::optional<int>(0));
  std::string out = l.out();
  // The header counts the lines that follow.
  const std::size_t listed = lines_with(out, "  ").size();
  EXPECT_EQ(out.rfind("Registered module factories (" + std::to_string(listed) + "):\n", 0), 0u)
      << out;
  for (const char* name : {"  alpha\n", "  beta\n", "  gamma\n", "  inference\n", "  data\n"}) {
    EXPECT_NE(out.find(name), std::string::npos);
  }
  // The node binary itself ships no test modules.
  Process plain(OSTREL_BINARY, list, dir_ / "logs");
  ASSERT_EQ(plain.wait_exit(5s), std::optional<int>(0));
  EXPECT_EQ(plain.out().find("alpha"), std::string::npos);
  EXPECT_NE(plain.out().find("  inference\n"), std::string::npos);

  Process::Options unknown;
  unknown.args = {"--list-modules", "--bogus"};
  Process u(OSTREL_BINARY, unknown, dir_ / "logs");
  ASSERT_EQ(u.wait_exit(5s), std::optional<int>(2));
  EXPECT_EQ(u.err().rfind("unknown option: --bogus\n\n", 0), 0u);
  EXPECT_TRUE(u.out().empty());

  Process::Options auth;
  auth.args = {"--auth=maybe"};
  Process a(OSTREL_BINARY, auth, dir_ / "logs");
  ASSERT_EQ(a.wait_exit(5s), std::optional<int>(2));
  EXPECT_EQ(a.err(), "--auth must be off|enforce, got maybe\n");
}

// The token between "Bootstrap admin token (1-year lifetime):\n    " and the next newline.
std::string bootstrap_token(const std::string& out) {
  const std::string marker = "Bootstrap admin token (1-year lifetime):\n    ";
  size_t at = out.find(marker);
  if (at == std::string::npos) return "";
  at += marker.size();
  return out.substr(at, out.find('\n', at) - at);
}

TEST_F(NodeProcess, EnforceModeNeedsCapabilitiesAndKeepsProbesOpen) {
  std::filesystem::create_directories(dir_ / "modules.d");
  Process node(OSTREL_BINARY, node_options(0, {"--auth=enforce"}), dir_ / "logs");
  const int port = wait_for_ready_port(node, 10s);
  ASSERT_GT(port, 0) << node.err();
  std::string out = node.out();
  std::string token = bootstrap_token(out);
  ASSERT_FALSE(token.empty()) << out;
  EXPECT_EQ(out,
            "\n  Ostrel ULVO \xe2\x80\x94 auth is ENFORCED.\n"
            "  Bootstrap admin token (1-year lifetime):\n    " +
                token +
                "\n"
                "  Store it somewhere safe; use in:\n"
                "    X-Ostrel-Capability: " +
                token +
                "\n"
                "    Authorization: Bearer " +
                token +
                "\n"
                "  Public paths (/health, /metrics, /dashboard/*)\n"
                "  remain open.\n\n");
  EXPECT_NE(node.err().find("[INFO][kernel] auth policy = enforce — bootstrap token issued"),
            std::string::npos);

  httplib::Client client("127.0.0.1", port);
  auto open = client.Get("/health");
  ASSERT_TRUE(open);
  EXPECT_EQ(open->status, 200);
  EXPECT_EQ(Json::parse(open->body)["auth"], "enforce");
  auto anonymous = client.Get("/api/v1/kernel/modules");
  ASSERT_TRUE(anonymous);
  EXPECT_EQ(anonymous->status, 401);
  EXPECT_EQ(anonymous->body,
            "{\"error\":\"unauthenticated\",\"message\":\"missing X-Ostrel-Capability\"}");
  auto forged = client.Get("/api/v1/kernel/modules", {{"X-Ostrel-Capability", "forged"}});
  ASSERT_TRUE(forged);
  EXPECT_EQ(forged->status, 403);
  EXPECT_EQ(forged->body, "{\"error\":\"forbidden\",\"reason\":\"bad_encoding\"}");
  auto admin = client.Get("/api/v1/kernel/modules", {{"Authorization", "Bearer " + token}});
  ASSERT_TRUE(admin);
  EXPECT_EQ(admin->status, 200);

  // A narrower token issued by the administrator works until it is revoked.
  auto issued = client.Post("/api/v1/capabilities/issue", {{"X-Ostrel-Capability", token}},
                            R"({"scopes":["read.*"],"lifetime_seconds":60})", "application/json");
  ASSERT_TRUE(issued);
  ASSERT_EQ(issued->status, 200) << issued->body;
  std::string reader = Json::parse(issued->body)["token"];
  auto read = client.Get("/api/v1/kernel/stats", {{"X-Ostrel-Capability", reader}});
  ASSERT_TRUE(read);
  EXPECT_EQ(read->status, 200);
  // It cannot mint tokens of its own.
  auto escalate = client.Post("/api/v1/capabilities/issue", {{"X-Ostrel-Capability", reader}},
                              R"({"scopes":["admin.*"]})", "application/json");
  ASSERT_TRUE(escalate);
  EXPECT_EQ(escalate->status, 403);
  auto checked = client.Post("/api/v1/capabilities/verify", {{"X-Ostrel-Capability", token}},
                             Json{{"token", reader}}.dump(), "application/json");
  ASSERT_TRUE(checked);
  std::string id = Json::parse(checked->body)["id"];
  auto revoked = client.Post("/api/v1/capabilities/revoke", {{"X-Ostrel-Capability", token}},
                             Json{{"id", id}}.dump(), "application/json");
  ASSERT_TRUE(revoked);
  EXPECT_EQ(revoked->status, 200);
  auto after = client.Get("/api/v1/kernel/stats", {{"X-Ostrel-Capability", reader}});
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 403);
  EXPECT_EQ(after->body, "{\"error\":\"forbidden\",\"reason\":\"revoked\"}");
}

}  // namespace
}  // namespace ostrel::testing
