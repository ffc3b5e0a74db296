// The agent module's pieces on their own: intent patterns in their order,
// the knowledge block and the model request, session journals on disk
// (concurrent turns, torn lines, deletion) and the dynamic tool table.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "agents/agent_sessions.h"
#include "agents/dynamic_tools.h"
#include "agents/edge_tools.h"
#include "agents/intents.h"
#include "agents/prompt.h"
#include "tests/support/test_support.h"

namespace ostrel::agents {
namespace {

using Json = nlohmann::json;
using testing::TempDir;

base::Logger quiet() { return base::Logger("test"); }

TEST(Intents, PatternsInOrderWithCaptures) {
  struct Case {
    const char* message;
    std::optional<IntentKind> kind;
    const char* capture;
  };
  for (const Case& c : std::vector<Case>{
           {"What is the BUILD STATUS?", IntentKind::build_status, ""},
           {"agent build progress please", IntentKind::build_status, ""},
           {"show my available agents", IntentKind::list_agents, ""},
           {"Which agents", IntentKind::list_agents, ""},
           {"@helper summarise this", IntentKind::mention, "helper"},
           {"@helper", IntentKind::mention, "helper"},
           {"I need an assistant for tax returns", IntentKind::request_agent, "tax returns"},
           {"i want a bot to use the calendar", IntentKind::request_agent, "use the calendar"},
           {"Switch to the coder agent", IntentKind::switch_agent, "coder"},
           {"use research", IntentKind::switch_agent, "research"},
           {"Build me a new agent that sorts mail", IntentKind::build_agent, "sorts mail"},
           // Not commands.
           {"hello @helper", std::nullopt, ""},
           {"because it rains", std::nullopt, ""},
           {"Where does the Rhine flow?", std::nullopt, ""},
           {"rebuild status", std::nullopt, ""},
       }) {
    auto got = detect_intent(c.message);
    ASSERT_EQ(got.has_value(), c.kind.has_value()) << c.message;
    if (!got) continue;
    EXPECT_EQ(got->kind, *c.kind) << c.message;
    EXPECT_EQ(got->capture, c.capture) << c.message;
  }
}

// The knowledge block's exact text, citation numbers on the hits, and the
// request's messages in order with everything escaped.
TEST(Prompt, KnowledgeBlockAndRequest) {
  Json hits =
      Json::array({{{"text", "The Rhine flows north."}, {"source", "rivers.txt"}, {"score", 0.5}},
                   {{"content", "Second."}}});
  const std::string block = knowledge_block(hits);
  EXPECT_EQ(block,
            "[KNOWLEDGE BASE CONTEXT]\n"
            "The following passages were retrieved from the knowledge base for this query. Each "
            "is numbered [1], [2], etc. — these are the citation indices.\n\n"
            "[1] The Rhine flows north.\n(source: rivers.txt) (score: 0.5)\n"
            "[2] Second.\n"
            "[END KNOWLEDGE BASE CONTEXT]\n\n"
            "When citing information from these sources, use inline citations like [1] or [2] "
            "matching the source numbers above. Do NOT cite if the answer is general knowledge.");
  EXPECT_EQ(hits[0]["citation_idx"], 1);
  EXPECT_EQ(hits[1]["citation_idx"], 2);

  Json req =
      Json::parse(chat_request("m\"1", {"sys \"one\"", "", "two"},
                               {{"user", "q1 \n", 1}, {"assistant", "a1", 2}, {"user", "q2", 3}}));
  EXPECT_EQ(req["model"], "m\"1");
  ASSERT_EQ(req["messages"].size(), 5u);
  EXPECT_EQ(req["messages"][0], Json({{"role", "system"}, {"content", "sys \"one\""}}));
  EXPECT_EQ(req["messages"][1]["content"], "two");
  EXPECT_EQ(req["messages"][2]["content"], "q1 \n");
  EXPECT_EQ(req["messages"][3]["role"], "assistant");
  EXPECT_EQ(req["messages"][4]["content"], "q2");
}

// Journals: a header, then one line per turn in the order of the in-memory
// list even with many threads; the window returns the newest turns; a
// restart restores every complete turn of a journal whose last line was
// torn, and the next turn starts on its own line; a deleted session's file
// is gone and a late turn does not bring it back.
TEST(AgentSessions, JournalsOrderTornLinesAndDeletion) {
  TempDir dir;
  std::string id;
  {
    AgentSessions store(dir.path(), quiet());
    auto s = store.create("General", "general", "acme", "alice");
    id = s->session_id;
    EXPECT_EQ(id.rfind("sess", 0), 0u);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&store, s, t] {
        for (int i = 0; i < 125; ++i)
          store.record(*s, "user", "t" + std::to_string(t) + "-" + std::to_string(i));
      });
    }
    for (auto& th : threads) th.join();
    auto window = store.append(*s, "assistant", "last", 3);
    ASSERT_TRUE(window);
    ASSERT_EQ(window->size(), 3u);
    EXPECT_EQ((*window)[2].content, "last");
    const auto lines = testing::file_lines(store.path_of(id));
    ASSERT_EQ(lines.size(), 1002u);
    Json header = Json::parse(lines[0]);
    EXPECT_EQ(header["_type"], "header");
    EXPECT_EQ(header["tenant"], "acme");
    EXPECT_EQ(header["owner"], "alice");
    std::lock_guard lock(s->mu);
    for (std::size_t i = 0; i < s->messages.size(); ++i) {
      EXPECT_EQ(Json::parse(lines[i + 1])["content"], s->messages[i].content) << i;
    }
  }
  // A crash in the middle of the last line.
  const auto path = dir / (id + ".jsonl");
  std::string text = testing::read_file(path);
  text += "{\"role\":\"user\",\"content\":\"cut";
  testing::write_file(path, text);
  testing::write_file(dir / "garbage.jsonl", "not a journal\n");
  {
    AgentSessions store(dir.path(), quiet());
    EXPECT_EQ(store.load(), 1u);
    auto s = store.find(id);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->messages.size(), 1001u);
    EXPECT_EQ(s->owner, "alice");
    store.record(*s, "user", "after");
  }
  {
    AgentSessions store(dir.path(), quiet());
    store.load();
    auto s = store.find(id);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->messages.size(), 1002u);
    EXPECT_EQ(s->messages.back().content, "after");
    EXPECT_TRUE(store.remove(id));
    EXPECT_FALSE(std::filesystem::exists(path));
    // The journal is gone, so the turn is refused and not kept in memory.
    EXPECT_FALSE(store.record(*s, "user", "too late"));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(s->messages.size(), 1002u);
    EXPECT_FALSE(store.remove(id));
    EXPECT_EQ(store.find(id), nullptr);
  }
}

// Registering, unregistering a plugin's three tools, and the file that
// carries the table across restarts.
TEST(DynamicTools, TableSurvivesRestartAndRemovesByPlugin) {
  TempDir dir;
  const auto file = dir / "tools.json";
  std::string error;
  {
    DynamicTools t(file);
    ASSERT_TRUE(t.load(error));
    for (const char* name : {"a", "b", "c"}) {
      ASSERT_TRUE(t.add({"p1", name, "", {{"type", "object"}}}, error));
    }
    ASSERT_TRUE(t.add({"p2", "d", "wasm", nullptr}, error));
    ASSERT_TRUE(t.add({"p2", "a", "wasm", nullptr}, error));  // "a" now belongs to p2
    EXPECT_EQ(t.list().size(), 4u);
  }
  DynamicTools t(file);
  ASSERT_TRUE(t.load(error));
  EXPECT_EQ(t.find("a")->plugin_id, "p2");
  EXPECT_EQ(t.find("b")->schema, Json({{"type", "object"}}));
  EXPECT_EQ(t.remove_plugin("p1", error), 2);
  EXPECT_EQ(t.remove_plugin("p1", error), 0);
  const std::string saved = testing::read_file(file);
  EXPECT_EQ(saved.find("\"p1\""), std::string::npos);
  EXPECT_NE(saved.find("\"wasm\""), std::string::npos);
  testing::write_file(file, "[]");
  DynamicTools broken(file);
  EXPECT_FALSE(broken.load(error));
}

}  // namespace
}  // namespace ostrel::agents

// The tool loop's registry: the role ladder decides what is offered; a name
// registered again is replaced in place; the instructions are injected once.
namespace ostrel::edge {
namespace {

TEST(EdgeTools, VisibilityReplacementAndInstructions) {
  ToolRegistry r;
  register_builtin_tools(r);
  ASSERT_EQ(r.size(), 17u);
  ToolCallContext viewer;
  viewer.roles = {"viewer"};
  ToolCallContext dev;
  dev.roles = {"nobody", "developer"};
  EXPECT_EQ(dev.highest_role(), "developer");
  EXPECT_EQ(r.list_visible(viewer).size(), 10u);
  EXPECT_EQ(r.list_visible(dev).size(), 17u);
  EXPECT_EQ(r.list_visible(dev, [](const std::string& n) { return n != "search"; }).size(), 16u);
  EXPECT_EQ(r.names().front(), "search");

  nlohmann::json def = ToolRegistry::to_openai_tool_def(r.list_visible(viewer)[0]);
  EXPECT_EQ(def["type"], "function");
  EXPECT_EQ(def["function"]["parameters"]["required"], nlohmann::json({"query"}));

  // Without a controller every built-in answers no_controller.
  EXPECT_EQ(r.dispatch("recall", {{"query", "x"}}, viewer)->result,
            nlohmann::json({{"error", "no_controller"}}));
  EXPECT_FALSE(r.dispatch("teleport", nlohmann::json::object(), viewer));
  r.register_tool({"search", "mine", nlohmann::json::object(), "admin",
                   [](const nlohmann::json&, const ToolCallContext&) -> ToolDispatchResult {
                     throw std::runtime_error("broken tool");
                   }});
  EXPECT_EQ(r.size(), 17u);
  EXPECT_EQ(r.names().front(), "search");
  EXPECT_EQ(r.list_visible(viewer).size(), 9u);
  EXPECT_EQ(r.dispatch("search", {}, dev)->result["error"], "tool_failed");

  nlohmann::json msgs = nlohmann::json::array(
      {{{"role", "system"}, {"content", ""}}, {{"role", "user"}, {"content", "q"}}});
  inject_tool_surface(msgs);
  EXPECT_EQ(msgs[0]["content"], kToolSurfacePrompt);
  inject_tool_surface(msgs);
  EXPECT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[0]["content"], kToolSurfacePrompt);
}

}  // namespace
}  // namespace ostrel::edge
