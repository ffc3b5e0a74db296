// The tool loop of /v1/chat/completions on the real binary, against a
// scripted router that decides per model when to ask for tools: the
// instructions injected once, tools offered by role, results fed back in
// order, unknown tools and broken arguments, policy refusals, the iteration
// cap, upstream failures and hangs, streaming and the rate gate.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

Json completion(const Json& message, const std::string& finish) {
  return {{"id", "chatcmpl-scripted"},
          {"object", "chat.completion"},
          {"created", 1},
          {"model", "scripted"},
          {"choices", {{{"index", 0}, {"message", message}, {"finish_reason", finish}}}},
          {"usage", {{"prompt_tokens", 3}, {"completion_tokens", 2}, {"total_tokens", 5}}}};
}

Json tool_call(const std::string& id, const std::string& name, const std::string& arguments) {
  return {
      {"id", id}, {"type", "function"}, {"function", {{"name", name}, {"arguments", arguments}}}};
}

// A router speaking chat completions whose answer depends on the model.
class ScriptedRouter {
 public:
  ScriptedRouter() {
    server_.Post(
        "/v1/chat/completions", [this](const httplib::Request& req, httplib::Response& res) {
          Json body = Json::parse(req.body);
          {
            std::lock_guard lock(mu_);
            bodies_.push_back(body);
          }
          const std::string model = body.value("model", "");
          int tool_messages = 0;
          for (const auto& m : body["messages"]) tool_messages += m.value("role", "") == "tool";
          if (model == "broken") {
            res.status = 500;
            res.set_content("{\"error\":\"boom\"}", "application/json");
            return;
          }
          if (model == "hang") {
            for (int i = 0; i < 300 && !stopping_; ++i) std::this_thread::sleep_for(10ms);
          }
          Json answer;
          if (model == "loop") {
            answer = completion(
                {{"role", "assistant"},
                 {"content", nullptr},
                 {"tool_calls",
                  {tool_call("c" + std::to_string(tool_messages), "search", "{\"query\":\"x\"}")}}},
                "tool_calls");
          } else if (model == "flood" && tool_messages == 0) {
            Json calls = Json::array();
            for (int i = 0; i < 200; ++i) {
              calls.push_back(tool_call("f" + std::to_string(i), "forget", "{\"key\":\"k\"}"));
            }
            answer = completion({{"role", "assistant"}, {"content", nullptr}, {"tool_calls", calls}},
                                "tool_calls");
          } else if (model == "mixed" && tool_messages == 0) {
            answer = completion(
                {{"role", "assistant"},
                 {"content", nullptr},
                 {"tool_calls",
                  {tool_call("c1", "teleport", "{}"), tool_call("c2", "search", "{not json"),
                   tool_call("c3", "forget", "{\"key\":\"k\"}")}}},
                "tool_calls");
          } else {
            answer = completion(
                {{"role", "assistant"},
                 {"content", "final after " + std::to_string(tool_messages) + " tool result(s)"}},
                "stop");
          }
          res.set_content(answer.dump(), "application/json");
        });
    thread_ = serve_on_loopback(server_, port_);
  }
  ~ScriptedRouter() {
    stopping_ = true;
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::vector<Json> bodies() {
    std::lock_guard lock(mu_);
    return bodies_;
  }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::mutex mu_;  // guards bodies_
  std::vector<Json> bodies_;
};

class ToolLoop : public ::testing::Test {
 protected:
  void start(std::vector<std::string> extra = {}, bool enforce = false) {
    TestNode::Options o;
    o.modules = {"edge", "security"};
    o.enforce = enforce;
    o.args = {"--config-set", "edge.router_url=" + router_.url(), "--config-set",
              "edge.upstream_timeout_ms=700"};
    o.args.insert(o.args.end(), extra.begin(), extra.end());
    node_ = std::make_unique<TestNode>(dir_.path(), "n1", o);
    ASSERT_TRUE(node_->started()) << node_->process().err();
  }
  Answer chat(const Json& body, const std::string& token = "") {
    return node_->call("POST", "/v1/chat/completions", body, token);
  }
  static Json user(const std::string& text) { return {{"role", "user"}, {"content", text}}; }

  TempDir dir_;
  ScriptedRouter router_;
  std::unique_ptr<TestNode> node_;
};

// The instructions go in once: into an existing system message, as a new
// first message, or not at all when the marker is there; every tool is
// offered to an unrestricted caller; a final answer passes through.
TEST_F(ToolLoop, InstructionsOnceAndToolsOffered) {
  start();
  Answer a = chat({{"model", "plain"},
                   {"messages", {{{"role", "system"}, {"content", "Be terse."}}, user("hi")}}});
  ASSERT_EQ(a.status, 200) << a.text;
  EXPECT_EQ(a.body["choices"][0]["message"]["content"], "final after 0 tool result(s)");
  Json sent = router_.bodies().back();
  const std::string system = sent["messages"][0]["content"];
  EXPECT_EQ(system.rfind("You are Ostrel, a distributed AI operating system", 0), 0u);
  EXPECT_EQ(system.substr(system.size() - 11), "\n\nBe terse.");
  EXPECT_EQ(sent["tools"].size(), 17u);
  EXPECT_EQ(sent["tools"][0]["function"]["name"], "search");

  chat({{"model", "plain"}, {"messages", {user("hi")}}});
  sent = router_.bodies().back();
  EXPECT_EQ(sent["messages"][0]["role"], "system");
  EXPECT_EQ(sent["messages"].size(), 2u);

  const Json carried = {{"role", "system"},
                        {"content", "Mine. NEVER fabricate URLs, DOIs — or else."}};
  chat({{"model", "plain"}, {"messages", {carried, user("hi")}}});
  sent = router_.bodies().back();
  EXPECT_EQ(sent["messages"][0], carried);
  EXPECT_EQ(sent["messages"].size(), 2u);

  Answer bad = node_->call("POST", "/v1/chat/completions", Json(), "", "{nope");
  EXPECT_EQ(bad.status, 400);
  EXPECT_EQ(bad.body["error"]["type"], "invalid_request_error");
  EXPECT_EQ(chat({{"model", "plain"}, {"messages", "hi"}}).status, 400);
}

// Unknown tools and arguments that are not JSON are reported to the model
// and the loop goes on; results come back in the order of the calls; a model
// that never stops asking is capped after eight rounds.
TEST_F(ToolLoop, ResultsFedBackAndTheCap) {
  start();
  Answer a = chat({{"model", "mixed"}, {"messages", {user("do things")}}});
  ASSERT_EQ(a.status, 200) << a.text;
  EXPECT_EQ(a.body["choices"][0]["message"]["content"], "final after 3 tool result(s)");
  auto bodies = router_.bodies();
  ASSERT_EQ(bodies.size(), 2u);
  const Json& msgs = bodies[1]["messages"];
  ASSERT_EQ(msgs.size(), 6u) << msgs.dump(2);
  EXPECT_EQ(msgs[2]["role"], "assistant");
  EXPECT_EQ(msgs[2]["tool_calls"].size(), 3u);
  EXPECT_EQ(msgs[3]["tool_call_id"], "c1");
  EXPECT_EQ(Json::parse(msgs[3]["content"].get<std::string>()),
            Json({{"error", "unknown_tool"}, {"name", "teleport"}}));
  EXPECT_EQ(msgs[4]["tool_call_id"], "c2");
  EXPECT_EQ(Json::parse(msgs[4]["content"].get<std::string>()), Json({{"error", "no_controller"}}));
  EXPECT_EQ(msgs[5]["tool_call_id"], "c3");

  Answer capped = chat({{"model", "loop"}, {"messages", {user("forever")}}});
  ASSERT_EQ(capped.status, 200);
  EXPECT_EQ(capped.body["_ostrel_tool_loop_capped"], true);
  EXPECT_EQ(capped.body["choices"][0]["message"]["content"],
            "(tool loop hit max iterations — please retry)");
  EXPECT_EQ(router_.bodies().size(), 2u + 8u);
  // Eight rounds: the last request carries seven tool results.
  int results = 0;
  const Json last = router_.bodies().back();
  for (const auto& m : last["messages"]) results += m["role"] == "tool";
  EXPECT_EQ(results, 7);
}

// A model that asks for two hundred tools at once gets eight run (each with
// its policy check and decision line); the others are answered
// "tool_call_limit" without running, so the conversation stays well formed.
TEST_F(ToolLoop, ToolCallsPerRoundAreCapped) {
  start();
  auto decisions = [&] {
    Json c = node_->call("GET", "/api/v1/security/counters").body;
    return c["allowed"].get<int>() + c["denied"].get<int>() + c["would_have_denied"].get<int>() +
           c["admin_overrides"].get<int>();
  };
  const int before = decisions();
  Answer a = chat({{"model", "flood"}, {"messages", {user("forget everything")}}});
  ASSERT_EQ(a.status, 200) << a.text;
  EXPECT_EQ(decisions() - before, 8);
  const Json msgs = router_.bodies().back()["messages"];
  int ran = 0, limited = 0;
  for (const auto& m : msgs) {
    if (m["role"] != "tool") continue;
    const Json result = Json::parse(m["content"].get<std::string>());
    (result.value("error", "") == "tool_call_limit" ? limited : ran) += 1;
  }
  EXPECT_EQ(ran, 8);
  EXPECT_EQ(limited, 192);
}

// A router that fails or hangs ends in 502 upstream_unreachable within the
// timeout, and the node keeps serving; a streamed final answer ends with its
// marker.
TEST_F(ToolLoop, UpstreamFailuresAndStreaming) {
  start();
  Answer broken = chat({{"model", "broken"}, {"messages", {user("x")}}});
  EXPECT_EQ(broken.status, 502);
  EXPECT_EQ(broken.body["error"], "upstream_unreachable");
  EXPECT_EQ(broken.body["upstream"], router_.url());
  const auto t0 = std::chrono::steady_clock::now();
  Answer hung = chat({{"model", "hang"}, {"messages", {user("x")}}});
  EXPECT_EQ(hung.status, 502);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 2500ms);
  EXPECT_EQ(node_->call("GET", "/health").status, 200);

  Answer s = chat({{"model", "mixed"},
                   {"stream", true},
                   {"stream_options", {{"include_usage", true}}},
                   {"messages", {user("go")}}});
  ASSERT_EQ(s.status, 200);
  auto events = lines_with(s.text, "data: ");
  ASSERT_EQ(events.size(), 4u) << s.text;
  EXPECT_EQ(Json::parse(events[0].substr(6))["choices"][0]["delta"]["content"],
            "final after 3 tool result(s)");
  EXPECT_EQ(Json::parse(events[1].substr(6))["choices"][0]["finish_reason"], "stop");
  EXPECT_EQ(Json::parse(events[2].substr(6))["usage"]["total_tokens"], 5);
  EXPECT_EQ(events[3], "data: [DONE]");
  // The router was asked for whole answers.
  EXPECT_FALSE(router_.bodies().back().contains("stream"));
}

// With auth enforced: a caller without a user role sees only the tools
// everyone may use; in enforce mode a tool the caller's role may not run is
// refused by the policy and the refusal is fed back to the model.
TEST_F(ToolLoop, RolesDecideToolsAndPolicy) {
  start({}, true);
  const std::string admin = node_->admin_token();
  ASSERT_EQ(node_->call("PUT", "/api/v1/security/mode", {{"mode", "enforce"}}, admin).status, 200);
  node_->call("POST", "/api/v1/tenants", {{"id", "acme"}}, admin);
  Answer t = node_->call("POST", "/api/v1/capabilities/issue",
                         {{"scopes", {"inference.chat"}}, {"tenant", "acme"}}, admin);
  const std::string plain = t.body["token"];
  node_->call("POST", "/api/v1/tenants/acme/users", {{"id", "dev"}, {"role_ids", {"developer"}}},
              admin);
  const std::string dev = node_
                              ->call("POST", "/api/v1/capabilities/issue-for-user",
                                     {{"tenant", "acme"}, {"user_id", "dev"}}, admin)
                              .body["token"];

  ASSERT_EQ(chat({{"model", "plain"}, {"messages", {user("hi")}}}, plain).status, 200);
  std::set<std::string> offered;
  const Json sent = router_.bodies().back();
  for (const auto& tool : sent["tools"]) offered.insert(tool["function"]["name"]);
  EXPECT_EQ(offered.size(), 10u);
  for (const char* hidden : {"send_message", "delegate_task", "create_swarm", "create_project",
                             "invite_to_project", "create_workgroup", "invite_to_workgroup"}) {
    EXPECT_FALSE(offered.count(hidden)) << hidden;
  }

  Answer a = chat({{"model", "mixed"}, {"messages", {user("forget k")}}}, dev);
  ASSERT_EQ(a.status, 200) << a.text;
  const Json msgs = router_.bodies().back()["messages"];
  Json refused = Json::parse(msgs[5]["content"].get<std::string>());
  EXPECT_EQ(refused["error"], "forbidden");
  EXPECT_EQ(refused["tool"], "forget");
  EXPECT_EQ(Json::parse(msgs[4]["content"].get<std::string>())["error"], "no_controller")
      << msgs.dump(2);  // search is allowed
  EXPECT_EQ(
      node_->call("POST", "/v1/chat/completions", {{"model", "plain"}, {"messages", {user("x")}}})
          .status,
      401);
}

TEST_F(ToolLoop, RateGateAnswers429) {
  start({"--config-set", "edge.rate_limit.enabled=true", "--config-set",
         "edge.rate_limit.capacity=2", "--config-set", "edge.rate_limit.refill_per_sec=0.001"});
  EXPECT_EQ(chat({{"model", "plain"}, {"messages", {user("1")}}}).status, 200);
  EXPECT_EQ(chat({{"model", "plain"}, {"messages", {user("2")}}}).status, 200);
  Answer limited = chat({{"model", "plain"}, {"messages", {user("3")}}});
  EXPECT_EQ(limited.status, 429);
  EXPECT_EQ(limited.body["error"]["code"], "rate_limit_exceeded");
  EXPECT_EQ(router_.bodies().size(), 2u);
}

}  // namespace
}  // namespace ostrel::testing
