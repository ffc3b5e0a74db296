// Agent chat on the real binary: the offline retrieval flow, the exact
// messages a model server receives, sessions across restarts, streaming,
// intents, bad input, tenant isolation, concurrent turns, and tool
// execution with its policy check.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "tests/support/fake_ollama.h"
#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

std::vector<std::string> journal(const TestNode& node, const std::string& session) {
  std::ifstream in(node.data_dir() / "agent" / "sessions" / (session + ".jsonl"));
  std::vector<std::string> out;
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

TestNode::Options agent_node(std::vector<std::string> args = {}) {
  TestNode::Options o;
  o.modules = {"inference", "data", "agent", "security"};
  o.args = std::move(args);
  return o;
}

// Offline retrieval with the built-in embedder and the echo model: the right
// passage comes back in "retrieved" with its citation number; the session
// and its turns survive a hard restart and the next turn continues it.
TEST(AgentNode, RetrievalAugmentedChatOfflineAndAcrossRestarts) {
  TempDir dir;
  TestNode node(dir.path(), "n1", agent_node());
  ASSERT_TRUE(node.started()) << node.process().err();
  for (const auto& [source, text] : std::vector<std::pair<std::string, std::string>>{
           {"rivers.txt",
            "The Rhine flows from the Swiss Alps through Germany and the Netherlands into the "
            "North Sea."},
           {"plants.txt",
            "Photosynthesis turns sunlight, water and carbon dioxide into sugar and oxygen."}}) {
    ASSERT_EQ(node.call("POST", "/api/v1/vector/ingest",
                        {{"namespace", "notes"}, {"source", source}, {"text", text}})
                  .status,
              200);
  }
  Answer opened = node.call("POST", "/api/v1/agent/sessions", Json::object());
  ASSERT_EQ(opened.status, 200) << opened.text;
  const std::string id = opened.body["session_id"];
  EXPECT_EQ(id.rfind("sess", 0), 0u);
  EXPECT_EQ(opened.body["tenant"], "default");

  Answer a = node.call("POST", "/api/v1/agent/chat",
                       {{"session_id", id},
                        {"message", "Where does the Rhine flow?"},
                        {"knowledge_base_id", "notes"}});
  ASSERT_EQ(a.status, 200) << a.text;
  ASSERT_FALSE(a.body["retrieved"].empty()) << a.text;
  EXPECT_EQ(a.body["retrieved"][0]["source"], "rivers.txt");
  EXPECT_EQ(a.body["retrieved"][0]["citation_idx"], 1);
  EXPECT_EQ(a.body["reply"], "Echo: Where does the Rhine flow?");
  // The reply names the model that answered, as /v1/models names it, and
  // the one asked for (the default, which no backend serves).
  EXPECT_EQ(a.body["model"], "echo");
  EXPECT_EQ(a.body["requested_model"], "ostrel-echo");
  EXPECT_EQ(a.body["session_id"], id);

  // No session id: a new one.
  Answer fresh = node.call("POST", "/api/v1/agent/chat", {{"message", "hello"}});
  EXPECT_NE(fresh.body["session_id"], id);
  EXPECT_EQ(fresh.body["session_id"].get<std::string>().rfind("sess", 0), 0u);

  node.restart_hard();
  ASSERT_TRUE(node.started());
  Answer got = node.call("GET", "/api/v1/agent/sessions/" + id);
  ASSERT_EQ(got.status, 200) << got.text;
  ASSERT_EQ(got.body["messages"].size(), 2u);
  EXPECT_EQ(got.body["messages"][0],
            Json({{"role", "user"}, {"content", "Where does the Rhine flow?"}}));
  Answer again =
      node.call("POST", "/api/v1/agent/chat", {{"session_id", id}, {"message", "and then?"}});
  EXPECT_EQ(again.body["session_id"], id);
  EXPECT_EQ(journal(node, id).size(), 5u);
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions").body["sessions"].size(), 2u);

  Answer deleted = node.call("DELETE", "/api/v1/agent/sessions/" + id);
  EXPECT_EQ(deleted.body, Json({{"ok", true}, {"session_id", id}}));
  EXPECT_FALSE(fs::exists(node.data_dir() / "agent" / "sessions" / (id + ".jsonl")));
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions/" + id).status, 404);
}

// A model server speaking the Ollama protocol sees the domain-matrix cell's
// system text, then the knowledge block, then every turn in order with the
// current message last; streaming gives exactly three events.
TEST(AgentNode, TheModelSeesCellKnowledgeAndTurnsInOrder) {
  TempDir dir;
  FakeOllama ollama;
  ollama.models = {"meditron:70b", "llama3"};
  ollama.reply = "Take two.";
  TestNode node(dir.path(), "n1",
                agent_node({"--config-set", "inference.ollama_url=" + ollama.url()}));
  ASSERT_TRUE(node.started()) << node.process().err();
  ASSERT_EQ(node.call("POST", "/api/v1/vector/ingest",
                      {{"namespace", "med"},
                       {"source", "dose.txt"},
                       {"text", "Aspirin dose for adults is 300 mg."}})
                .status,
            200);
  Answer opened = node.call("POST", "/api/v1/agent/sessions",
                            {{"agent_type", "Researcher"}, {"domain", "medicine"}});
  const std::string id = opened.body["session_id"];
  for (const char* m : {"first question", "second question"}) {
    Answer a = node.call("POST", "/api/v1/agent/chat", {{"session_id", id}, {"message", m}});
    ASSERT_EQ(a.status, 200) << a.text;
    EXPECT_EQ(a.body["reply"], "Take two.");
    EXPECT_EQ(a.body["model"], "meditron:70b");
  }
  Answer a = node.call("POST", "/api/v1/agent/chat",
                       {{"session_id", id},
                        {"message", "What is the aspirin dose?"},
                        {"knowledge_base_id", "med"},
                        {"top_k", 1}});
  ASSERT_EQ(a.status, 200) << a.text;
  auto bodies = ollama.bodies();
  ASSERT_EQ(bodies.size(), 3u);
  const Json& msgs = bodies.back()["messages"];
  EXPECT_EQ(bodies.back()["model"], "meditron:70b");
  ASSERT_EQ(msgs.size(), 7u) << msgs.dump(2);
  EXPECT_EQ(msgs[0]["role"], "system");
  EXPECT_EQ(msgs[0]["content"],
            "You are specialized in clinical medicine. Cite DOIs when referencing peer-reviewed "
            "sources.");
  EXPECT_EQ(msgs[1]["role"], "system");
  EXPECT_EQ(msgs[1]["content"].get<std::string>().rfind("[KNOWLEDGE BASE CONTEXT]\n", 0), 0u);
  EXPECT_NE(msgs[1]["content"].get<std::string>().find(
                "[1] Aspirin dose for adults is 300 mg.\n(source: dose.txt)"),
            std::string::npos);
  const std::vector<std::pair<std::string, std::string>> turns = {
      {"user", "first question"},
      {"assistant", "Take two."},
      {"user", "second question"},
      {"assistant", "Take two."},
      {"user", "What is the aspirin dose?"}};
  for (std::size_t i = 0; i < turns.size(); ++i) {
    EXPECT_EQ(msgs[i + 2]["role"], turns[i].first) << i;
    EXPECT_EQ(msgs[i + 2]["content"], turns[i].second) << i;
  }

  for (const char* path : {"/api/v1/agent/chat/stream", "/api/v1/agent/chat"}) {
    Json body = {{"session_id", id}, {"message", "again"}};
    if (std::string(path) == "/api/v1/agent/chat") body["stream"] = true;
    Answer s = node.call("POST", path, body);
    ASSERT_EQ(s.status, 200);
    EXPECT_EQ(s.headers["Content-Type"].rfind("text/event-stream", 0), 0u);
    auto events = lines_with(s.text, "data: ");
    ASSERT_EQ(events.size(), 3u) << s.text;
    Json first = Json::parse(events[0].substr(6));
    EXPECT_EQ(first["id"], "chatcmpl-agent-" + id.substr(0, 8));
    EXPECT_EQ(first["choices"][0]["delta"]["content"], "Take two.");
    Json closing = Json::parse(events[1].substr(6));
    EXPECT_EQ(closing["choices"][0]["finish_reason"], "stop");
    EXPECT_EQ(closing["session_id"], id);
    EXPECT_EQ(events[2], "data: [DONE]");
  }
}

// Intents answer without the model unless detection is off; without any
// inference the reply is exactly "(inference unavailable)".
TEST(AgentNode, IntentsAndNoInference) {
  TempDir dir;
  TestNode node(dir.path(), "n1", TestNode::Options{.modules = {"agent"}});
  ASSERT_TRUE(node.started()) << node.process().err();
  Answer intent = node.call("POST", "/api/v1/agent/chat", {{"message", "@helper summarise this"}});
  EXPECT_EQ(intent.body["intent"], "mention");
  EXPECT_NE(intent.body["reply"].get<std::string>().find("helper"), std::string::npos);
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions").body["sessions"].size(), 0u);
  Answer direct = node.call("POST", "/api/v1/agent/chat",
                            {{"message", "@helper summarise this"}, {"intent_detect", false}});
  EXPECT_EQ(direct.body["reply"], "(inference unavailable)");
  EXPECT_FALSE(direct.body.contains("intent"));
  EXPECT_EQ(node.call("GET", "/api/v1/agent/info").body["name"], "Ostrel Agent (5.0)");
  EXPECT_EQ(node.call("GET", "/api/v1/agent/workflows").status, 501);
}

// Bad bodies, bad ids that would become file names, and 1,000 concurrent
// turns on one session whose journal must hold each turn once, in order.
TEST(AgentNode, BadInputAndConcurrentTurns) {
  TempDir dir;
  TestNode node(dir.path(), "n1", agent_node());
  ASSERT_TRUE(node.started());
  EXPECT_EQ(node.call("POST", "/api/v1/agent/chat", Json(), "", "{not json").body,
            Json({{"error", "bad_json"}}));
  EXPECT_EQ(node.call("POST", "/api/v1/agent/chat", Json::object()).body,
            Json({{"error", "missing_message"}}));
  EXPECT_EQ(node.call("POST", "/api/v1/agent/chat", {{"message", ""}}).status, 400);
  EXPECT_EQ(node.call("POST", "/api/v1/agent/chat", {{"message", 5}}).status, 400);
  for (const std::string& bad :
       {std::string("../../etc/passwd"), std::string("a/b"), std::string("x\0y", 3),
        std::string(".."), std::string(300, 'a')}) {
    Answer a = node.call("POST", "/api/v1/agent/chat", {{"session_id", bad}, {"message", "hi"}});
    EXPECT_EQ(a.status, 400) << a.text;
    EXPECT_EQ(a.body["error"], "invalid_session_id");
  }
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions/..").body["error"], "invalid_session_id");
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions/a%2Fb").body["error"], "invalid_session_id");
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions/").body["error"], "missing_session_id");
  EXPECT_EQ(node.call("DELETE", "/api/v1/agent/sessions/sess-nobody").status, 404);
  // Nothing was written outside the sessions directory.
  for (const auto& e : fs::recursive_directory_iterator(node.data_dir() / "agent")) {
    if (e.is_regular_file()) {
      EXPECT_EQ(e.path().extension(), ".jsonl") << e.path();
    }
  }

  const std::string id =
      node.call("POST", "/api/v1/agent/sessions", Json::object()).body["session_id"];
  std::vector<std::thread> threads;
  std::atomic<int> ok{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 63; ++i) {
        Answer a = node.call("POST", "/api/v1/agent/chat",
                             {{"session_id", id},
                              {"message", "t" + std::to_string(t) + "-" + std::to_string(i)},
                              {"intent_detect", false}});
        if (a.status == 200) ++ok;
      }
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_EQ(ok.load(), 504);
  Json messages = node.call("GET", "/api/v1/agent/sessions/" + id).body["messages"];
  const auto lines = journal(node, id);
  ASSERT_EQ(messages.size(), 1008u);
  ASSERT_EQ(lines.size(), 1009u);
  std::set<std::string> seen;
  for (std::size_t i = 0; i < messages.size(); ++i) {
    Json line = Json::parse(lines[i + 1]);
    EXPECT_EQ(line["content"], messages[i]["content"]) << i;
    EXPECT_EQ(line["role"], messages[i]["role"]) << i;
    if (line["role"] == "user") {
      EXPECT_TRUE(seen.insert(line["content"]).second) << "twice: " << line;
    }
  }
  EXPECT_EQ(seen.size(), 504u);
}

// Sessions of another tenant cannot be read, continued or deleted, and a
// refused turn appends nothing.
TEST(AgentNode, TenantsStayApart) {
  TempDir dir;
  TestNode::Options o = agent_node();
  o.enforce = true;
  TestNode node(dir.path(), "n1", o);
  ASSERT_TRUE(node.started());
  const std::string admin = node.admin_token();
  auto token_for = [&](const std::string& tenant, const std::string& user) {
    node.call("POST", "/api/v1/tenants", {{"id", tenant}}, admin);
    node.call("POST", "/api/v1/tenants/" + tenant + "/users",
              {{"id", user}, {"role_ids", {"developer"}}}, admin);
    return node
        .call("POST", "/api/v1/capabilities/issue-for-user",
              {{"tenant", tenant}, {"user_id", user}}, admin)
        .body.value("token", "");
  };
  const std::string alice = token_for("acme", "alice");
  const std::string gus = token_for("globex", "gus");
  Answer a = node.call("POST", "/api/v1/agent/chat",
                       {{"message", "secret plans"}, {"tenant", "globex"}}, alice);
  ASSERT_EQ(a.status, 200) << a.text;
  EXPECT_EQ(a.body["tenant"], "acme");  // the credential's tenant wins
  const std::string id = a.body["session_id"];
  const auto before = journal(node, id);

  Answer read = node.call("GET", "/api/v1/agent/sessions/" + id, Json(), gus);
  EXPECT_EQ(read.status, 403);
  EXPECT_EQ(read.body, Json({{"error", "cross_tenant_access_denied"},
                             {"authenticated_tenant", "globex"},
                             {"requested_tenant", "acme"}}));
  Answer chat =
      node.call("POST", "/api/v1/agent/chat", {{"session_id", id}, {"message", "tell me"}}, gus);
  EXPECT_EQ(chat.status, 403);
  EXPECT_EQ(chat.body, Json({{"error", "session_tenant_mismatch"},
                             {"session_tenant", "acme"},
                             {"request_tenant", "globex"}}));
  EXPECT_EQ(node.call("DELETE", "/api/v1/agent/sessions/" + id, Json(), gus).status, 403);
  EXPECT_EQ(journal(node, id), before);
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions", Json(), gus).body["sessions"].size(), 0u);
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions", Json(), alice).body["sessions"].size(), 1u);
  EXPECT_EQ(node.call("GET", "/api/v1/agent/sessions/" + id, Json(), alice).status, 200);
  // A suspended tenant's turns stop at the gate.
  ASSERT_EQ(node.call("POST", "/api/v1/tenants/acme/state", {{"state", "suspended"}}, admin).status,
            200);
  Answer gated =
      node.call("POST", "/api/v1/agent/chat", {{"session_id", id}, {"message", "x"}}, admin);
  EXPECT_EQ(gated.status, 403);
}

// Tool calls: the policy decides first (forbidden, with the reason ending at
// "role"); then plugin tools (not wired here), built-in retrieval, syscalls
// of the same name (as the caller may run them), and unknown names. The
// dynamic tool table survives a restart; unregistering a plugin removes all
// of its tools.
TEST(AgentNode, ToolCallsArePolicyCheckedAndDispatched) {
  TempDir dir;
  TestNode node(dir.path(), "n1", agent_node());
  ASSERT_TRUE(node.started());
  auto syscall = [&](const std::string& name, const Json& args) {
    return node.call("POST", "/api/v1/kernel/syscall", {{"name", name}, {"args", args}})
        .body["body"];
  };
  auto tool = [&](const Json& call) { return node.call("POST", "/api/v1/swarm/tools", call).body; };
  node.call("POST", "/api/v1/vector/ingest",
            {{"namespace", "kb"}, {"text", "Bees make honey from nectar."}});

  for (const char* name : {"alpha", "beta", "gamma"}) {
    Json r = syscall("agent.tool.register", {{"plugin_id", "p1"}, {"name", name}});
    EXPECT_EQ(r["ok"], true) << r;
  }
  EXPECT_EQ(syscall("agent.tool.register", {{"name", "x"}}),
            Json({{"error", "plugin_id and tool_name required"}}));
  Json r = tool({{"id", "c1"}, {"name", "alpha"}, {"parameters", {{"q", 1}}}});
  EXPECT_EQ(r, Json({{"success", false},
                     {"error", "plugin_executor_not_wired"},
                     {"tool", "alpha"},
                     {"plugin_id", "p1"},
                     {"executor", "<unset>"},
                     {"tool_call_id", "c1"}}));
  r = tool({{"id", "c2"},
            {"name", "rag_search"},
            {"parameters", {{"kb_id", "kb"}, {"query", "honey bees"}}}});
  ASSERT_EQ(r["success"], true) << r;
  EXPECT_EQ(r["output"]["tool"], "rag_search");
  EXPECT_NE(r["output"]["output"]["hits"][0]["text"].get<std::string>().find("honey"),
            std::string::npos);
  EXPECT_TRUE(r["output"].contains("timing"));
  r = tool({{"id", "c3"}, {"name", "inference.models.list"}, {"parameters", Json::object()}});
  EXPECT_EQ(r["success"], true) << r;
  EXPECT_TRUE(r["timing"].contains("duration_ms"));
  EXPECT_EQ(tool({{"id", "c4"}, {"name", "no.such.call"}})["error"], "syscall_not_registered");
  EXPECT_EQ(tool({{"id", "c5"}, {"name", "teleport"}})["error"], "unknown_tool");

  // Enforce: a viewer may not run the shell.
  ASSERT_EQ(node.call("PUT", "/api/v1/security/mode", {{"mode", "enforce"}}).status, 200);
  r = tool({{"id", "c6"},
            {"name", "bash"},
            {"parameters", {{"cmd", "ls"}}},
            {"context", {{"role", "viewer"}}}});
  EXPECT_EQ(r, Json({{"success", false},
                     {"error", "forbidden"},
                     {"reason", "RBAC denied tool 'bash' for role"},
                     {"tool", "bash"},
                     {"tool_call_id", "c6"}}));
  EXPECT_EQ(tool({{"id", "c7"},
                  {"name", "rag_search"},
                  {"parameters", {{"kb_id", "kb"}, {"query", "bees"}}},
                  {"context", {{"role", "viewer"}}}})["success"],
            true);

  node.restart_hard();
  ASSERT_TRUE(node.started());
  EXPECT_EQ(syscall("agent.tool.list", Json::object())["count"], 3);
  EXPECT_EQ(syscall("agent.tool.unregister", {{"plugin_id", "p1"}}),
            Json({{"ok", true}, {"plugin_id", "p1"}, {"removed", 3}}));
  EXPECT_EQ(read_file(node.data_dir() / "agent" / "dynamic_tools.json").find("p1"),
            std::string::npos);
  EXPECT_EQ(syscall("agent.tool.unregister", Json::object()),
            Json({{"error", "plugin_id required"}}));
}

}  // namespace
}  // namespace ostrel::testing
