// Unified search and dreaming on the real node binary: one query across the
// vector and memory stores, scopes, a source that hangs past the deadline,
// and dream cycles over conversation files against a scripted loopback model
// server, with the skill catalogue and settings surviving a restart.
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

std::vector<std::string> kinds_of(const Json& hits) {
  std::vector<std::string> out;
  for (const auto& h : hits) out.push_back(h["source_kind"]);
  return out;
}

const Json* find_hit(const Json& hits, const std::string& kind) {
  for (const auto& h : hits) {
    if (h["source_kind"] == kind) return &h;
  }
  return nullptr;
}

const std::vector<std::string> kAllKinds = {"vector",  "qmm",   "comm",     "artifact",
                                            "science", "swarm", "training", "file"};

// A listening socket that never accepts or answers: a peer that hangs.
class HangingPeer {
 public:
  HangingPeer() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::listen(fd_, 64);
    socklen_t len = sizeof a;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
  }
  ~HangingPeer() { ::close(fd_); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  int fd_ = -1;
  int port_ = 0;
};

// An OpenAI-shaped chat server whose answer is scripted per test step:
// themes named after the conversation, garbage, or an answer too late.
class ScriptedModel {
 public:
  enum class Mode { themes, garbage, slow, error };
  std::atomic<Mode> mode{Mode::themes};
  std::atomic<int> requests{0};

  ScriptedModel() {
    server_.Post("/v1/chat/completions", [this](const httplib::Request& req,
                                                httplib::Response& res) {
      ++requests;
      Json body = Json::parse(req.body, nullptr, false);
      std::string transcript;
      if (body.is_object() && body["messages"].is_array() && body["messages"].size() == 2) {
        transcript = body["messages"][1].value("content", "");
      }
      {
        std::lock_guard lock(mu_);
        transcripts_.push_back(transcript);
      }
      std::string content;
      switch (mode.load()) {
        case Mode::garbage:
          content = "I would rather talk about the weather.";
          break;
        case Mode::slow:
          std::this_thread::sleep_for(1500ms);
          content = "[]";
          break;
        case Mode::error:
          res.status = 500;
          res.set_content("{\"error\":\"overloaded\"}", "application/json");
          return;
        case Mode::themes: {
          // The theme is the conversation's marker word ("topic-…").
          const auto at = transcript.find("topic-");
          const std::string topic = at == std::string::npos
                                        ? "none"
                                        : transcript.substr(at, transcript.find(' ', at) - at);
          content = "Themes follow.\n[{\"theme\":\"" + topic + " planning\",\"abstract\":\"" +
                    "The user planned " + topic + " in detail.\",\"importance\":0.9}]";
        }
      }
      res.set_content(
          Json{{"choices", {{{"message", {{"role", "assistant"}, {"content", content}}}}}}}.dump(),
          "application/json");
    });
    thread_ = serve_on_loopback(server_, port_);
  }
  ~ScriptedModel() {
    server_.stop();
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::mutex mu_;  // guards transcripts_
  std::vector<std::string> transcripts_;
};

// One query finds documents and memories with their uris; scopes choose the
// sources; sources whose modules are not on the node are still listed and
// warn once; every malformed request gets its error.
TEST(UnifiedSearch, FindsEveryKindAndValidatesRequests) {
  TempDir dir;
  TestNode node(dir.path(), "n1");
  ASSERT_TRUE(node.started()) << node.process().err();
  EXPECT_NE(node.process().err().find("search engine ready: 8 source(s) registered"),
            std::string::npos);

  for (const char* text : {"The espresso machine needs descaling every month.",
                           "Grinding espresso beans finer slows the shot."}) {
    ASSERT_EQ(
        node.call("POST", "/api/v1/vector/ingest", {{"text", text}, {"source", "manual"}}).status,
        200);
  }
  ASSERT_EQ(node.call("POST", "/api/v1/memory/store",
                      {{"key", "espresso ratio"}, {"value", "one to two, in 28 seconds"}})
                .status,
            200);

  for (const char* path : {"/api/v1/search", "/v1/search"}) {
    Answer a = node.call("POST", path, {{"query", "espresso"}, {"filters", {{"min_score", "0"}}}});
    ASSERT_EQ(a.status, 200) << a.text;
    EXPECT_EQ(a.body["sources_queried"], kAllKinds);
    EXPECT_TRUE(a.body["sources_failed"].empty()) << a.text;
    EXPECT_EQ(a.body["scope"], "all");
    const Json* vector = find_hit(a.body["hits"], "vector");
    const Json* memory = find_hit(a.body["hits"], "qmm");
    ASSERT_TRUE(vector && memory) << a.text;
    EXPECT_EQ(vector->at("uri").get<std::string>().rfind("vector:///default/", 0), 0u);
    EXPECT_NE(vector->at("snippet").get<std::string>().find("espresso"), std::string::npos);
    EXPECT_EQ(memory->at("uri"), "qmm:///default/espresso ratio");
    EXPECT_EQ(memory->at("snippet"), "one to two, in 28 seconds");
    // Ranked best first.
    double last = 1e9;
    for (const auto& h : a.body["hits"]) {
      EXPECT_LE(h["score"].get<double>(), last);
      last = h["score"];
    }
  }

  Answer knowledge =
      node.call("POST", "/api/v1/search", {{"q", "espresso"}, {"scope", "knowledge"}});
  EXPECT_EQ(knowledge.body["sources_queried"], (std::vector<std::string>{"vector", "qmm"}));
  Answer comms = node.call("POST", "/api/v1/search", {{"query", "espresso"}, {"scope", "comms"}});
  EXPECT_EQ(comms.body["sources_queried"], std::vector<std::string>{"comm"});
  EXPECT_TRUE(comms.body["hits"].empty());
  Answer unknown =
      node.call("POST", "/api/v1/search", {{"query", "espresso"}, {"scope", "everything"}});
  EXPECT_EQ(unknown.body["scope"], "unknown");
  EXPECT_EQ(unknown.body["sources_queried"], kAllKinds);
  Answer none = node.call("POST", "/api/v1/search", {{"query", "espresso"}, {"limit", 0}});
  EXPECT_TRUE(none.body["hits"].empty());
  EXPECT_EQ(none.body["sources_queried"].size(), 8u);
  Answer one = node.call("POST", "/api/v1/search", {{"query", "espresso"}, {"limit", 1}});
  EXPECT_EQ(one.body["hits"].size(), 1u);

  struct Bad {
    Json body;
    const char* raw;
    const char* error;
  };
  for (const Bad& b : std::vector<Bad>{
           {Json::object(), "", "missing_query"},
           {{{"query", ""}}, "", "missing_query"},
           {{{"query", 7}}, "", "missing_query"},
           {{{"query", "x"}, {"limit", -1}}, "", "invalid_limit"},
           {{{"query", "x"}, {"limit", 1001}}, "", "invalid_limit"},
           {{{"query", "x"}, {"limit", 1e12}}, "", "invalid_limit"},
           {{{"query", "x"}, {"limit", "5"}}, "", "invalid_limit"},
           {{{"query", "x"}, {"scope", 3}}, "", "invalid_scope"},
           {{{"query", "x"}, {"filters", {{"namespace", {1, 2}}}}}, "", "invalid_filters"},
           {{{"query", "x"}, {"filters", "namespace=a"}}, "", "invalid_filters"},
           {Json(), "[\"query\"]", "invalid_json"},
           {Json(), "{\"query\":", "invalid_json"}}) {
    Answer a = node.call("POST", "/api/v1/search", b.body, "", b.raw);
    EXPECT_EQ(a.status, 400) << b.body.dump() << b.raw;
    EXPECT_EQ(a.body.value("error", ""), b.error) << a.text;
  }

  // The sources without a module on this node warned once each, not per query.
  const std::string err = node.process().err();
  EXPECT_EQ(lines_with(err,
                       "search source 'search.comm' degraded: optional syscall "
                       "'data.comm.search' is not registered (returns empty results)")
                .size(),
            1u);
  EXPECT_EQ(lines_with(err, "search source 'search.swarm' degraded").size(), 1u);
  EXPECT_TRUE(node.call("GET", "/health").status == 200);
}

// A data peer that never answers holds the vector source past the deadline:
// the query returns at the deadline with "vector" failed and the memory hits
// still there, and the failure is counted.
TEST(UnifiedSearch, HangingSourceIsDroppedAtTheDeadline) {
  TempDir dir;
  HangingPeer peer;
  TestNode node(dir.path(), "n1",
                TestNode::Options{.args = {"--config-set", "data.peers=" + peer.url()},
                                  .env = {{"OSTREL_SEARCH_DEADLINE_MS", "600"}}});
  ASSERT_TRUE(node.started()) << node.process().err();
  ASSERT_EQ(node.call("POST", "/api/v1/memory/store",
                      {{"key", "kiln temperature"}, {"value", "1200 degrees for stoneware"}})
                .status,
            200);

  const auto t0 = std::chrono::steady_clock::now();
  Answer a =
      node.call("POST", "/api/v1/search", {{"query", "kiln temperature"}, {"scope", "knowledge"}});
  const auto took = std::chrono::steady_clock::now() - t0;
  ASSERT_EQ(a.status, 200) << a.text;
  EXPECT_EQ(a.body["sources_failed"], std::vector<std::string>{"vector"});
  EXPECT_EQ(kinds_of(a.body["hits"]), std::vector<std::string>{"qmm"});
  EXPECT_GE(a.body["duration_ms"].get<int>(), 550);
  EXPECT_LT(took, 2500ms) << "waited for the hanging peer";

  Answer metrics = node.call("GET", "/metrics");
  bool counted = false;
  for (const auto& line : lines_with(metrics.text, "ostrel_search_source_failures_total")) {
    if (line[0] != '#' && std::stod(line.substr(line.rfind(' ') + 1)) >= 1) counted = true;
  }
  EXPECT_TRUE(counted) << metrics.text;
}

class Dreaming : public ::testing::Test {
 protected:
  void SetUp() override {
    TestNode::Options o;
    o.modules = {"inference", "data", "dream"};
    o.args = {"--config-set", "dream.llm_url=" + model_.url(),
              "--config-set", "dream.min_session_age_hours=0",
              "--config-set", "dream.auto_cycle=false"};
    node_ = std::make_unique<TestNode>(dir_.path(), "n1", o);
    ASSERT_TRUE(node_->started()) << node_->process().err();
    conversations_ = node_->data_dir() / "conversations";
  }

  void conversation(const std::string& name, const std::string& topic,
                    const std::string& ended_at = "2026-01-05T09:30:00") {
    write_file(conversations_ / (name + ".json"),
               Json{{"id", name},
                    {"tenant_id", "acme"},
                    {"user_id", "u-" + name},
                    {"started_at", "2026-01-05T09:00:00"},
                    {"ended_at", ended_at},
                    {"messages",
                     {{{"role", "user"}, {"content", "Help me with " + topic + " please"}},
                      {{"role", "assistant"}, {"content", "Of course."}}}}}
                   .dump());
  }

  Json cycle() {
    Answer a = node_->call("POST", "/api/v1/dream/cycle");
    EXPECT_EQ(a.status, 200) << a.text;
    return a.body;
  }

  Json recall(const std::string& query) {
    return node_
        ->call("POST", "/api/v1/memory/recall",
               {{"tenant", "_system"}, {"namespace", "dreams"}, {"query", query}})
        .body;
  }

  TempDir dir_;
  ScriptedModel model_;
  std::unique_ptr<TestNode> node_;
  fs::path conversations_;
};

// Two finished conversations become themes in matrix memory that recall and
// unified search find; broken files are skipped and never marked; a second
// cycle consumes nothing; a model that answers garbage, fails or is too
// slow counts an LLM failure and marks nothing, and the conversation is
// taken up once the model answers again.
TEST_F(Dreaming, CyclesConsolidateConversationsOnce) {
  conversation("c1", "topic-garden");
  conversation("c2", "topic-taxes");
  write_file(conversations_ / "broken.json", "{\"id\": \"broken\", \"messages\": [");
  write_file(conversations_ / "silent.json",
             Json{{"id", "silent"}, {"messages", Json::array()}}.dump());
  conversation("baddate", "topic-never", "the fifth of January");

  Json r = cycle();
  EXPECT_EQ(r["report"]["sessions_consumed"], 2) << r.dump();
  EXPECT_EQ(r["report"]["themes_extracted"], 2);
  EXPECT_EQ(r["report"]["matrix_updates"], 2);
  EXPECT_EQ(r["report"]["llm_failures"], 0);
  EXPECT_EQ(r["cycle"]["state"], "completed");
  EXPECT_EQ(r["cycle"]["distilled_count"], 2);
  EXPECT_EQ(model_.requests.load(), 2);
  for (const char* f : {"c1.json.dreamed", "c2.json.dreamed"}) {
    EXPECT_TRUE(fs::exists(conversations_ / f)) << f;
  }
  for (const char* f : {"broken.json.dreamed", "silent.json.dreamed", "baddate.json.dreamed"}) {
    EXPECT_FALSE(fs::exists(conversations_ / f)) << f;
  }
  const std::string err = node_->process().err();
  EXPECT_EQ(lines_with(err, "skipping conversation broken.json").size(), 1u);
  EXPECT_EQ(lines_with(err, "skipping conversation baddate.json").size(), 1u);

  Json recalled = recall("topic-garden planning");
  ASSERT_FALSE(recalled["hits"].empty()) << recalled.dump();
  EXPECT_EQ(recalled["hits"][0]["key"], "topic-garden planning");
  EXPECT_EQ(recalled["hits"][0]["value"], "The user planned topic-garden in detail.");
  Answer found = node_->call("POST", "/api/v1/search",
                             {{"query", "topic-taxes planning"},
                              {"tenant_id", "_system"},
                              {"scope", "knowledge"},
                              {"filters", {{"namespace", "dreams"}}}});
  const Json* theme = find_hit(found.body["hits"], "qmm");
  ASSERT_TRUE(theme) << found.text;
  EXPECT_EQ(theme->at("uri"), "qmm:///dreams/topic-taxes planning");

  // Nothing left: no model call at all.
  r = cycle();
  EXPECT_EQ(r["report"]["sessions_consumed"], 0);
  EXPECT_EQ(model_.requests.load(), 2);

  conversation("c3", "topic-chess");
  for (auto mode : {ScriptedModel::Mode::garbage, ScriptedModel::Mode::error}) {
    model_.mode = mode;
    r = cycle();
    EXPECT_EQ(r["report"]["llm_failures"], 1) << r.dump();
    EXPECT_EQ(r["report"]["sessions_consumed"], 0);
    EXPECT_EQ(r["report"]["sessions_skipped"], 1);
    EXPECT_FALSE(fs::exists(conversations_ / "c3.json.dreamed"));
  }
  ASSERT_EQ(node_->call("PUT", "/api/v1/dream/config", {{"llm_timeout_ms", 300}}).status, 200);
  model_.mode = ScriptedModel::Mode::slow;
  r = cycle();
  EXPECT_EQ(r["report"]["llm_failures"], 1);
  EXPECT_FALSE(fs::exists(conversations_ / "c3.json.dreamed"));

  model_.mode = ScriptedModel::Mode::themes;
  r = cycle();
  EXPECT_EQ(r["report"]["sessions_consumed"], 1);
  EXPECT_EQ(r["report"]["sessions_used"][0]["session_id"], "c3");
  EXPECT_TRUE(fs::exists(conversations_ / "c3.json.dreamed"));
  EXPECT_FALSE(recall("topic-chess planning")["hits"].empty());

  Answer history = node_->call("GET", "/api/v1/dream/history?limit=2");
  ASSERT_EQ(history.body["count"], 2);
  EXPECT_EQ(history.body["history"][0]["sessions_consumed"], 1);  // newest first
  EXPECT_EQ(node_->call("GET", "/api/v1/dream/history?limit=0").status, 400);
  EXPECT_EQ(node_->call("GET", "/api/v1/dream/current").body["state"], "completed");
  EXPECT_EQ(node_->call("GET", "/api/v1/dream/phases").body["phases"].size(), 4u);
}

// Distilled skills start inactive and refuse to apply until activated; the
// catalogue's errors; settings and skills survive a hard restart, bad
// settings change nothing.
TEST_F(Dreaming, SkillsAndSettingsSurviveRestart) {
  conversation("c1", "topic-pottery");
  ASSERT_EQ(cycle()["cycle"]["distilled_count"], 1);
  Json list = node_->call("GET", "/api/v1/skills").body;
  ASSERT_EQ(list["count"], 1);
  const std::string distilled = list["skills"][0]["id"];
  EXPECT_EQ(list["skills"][0]["name"], "topic-pottery planning");
  Answer refused = node_->call("POST", "/api/v1/skills/" + distilled + "/apply", Json::object());
  EXPECT_EQ(refused.status, 409);
  EXPECT_EQ(refused.body, Json({{"error", "skill_inactive"}}));
  EXPECT_EQ(node_->call("PUT", "/api/v1/skills/" + distilled, {{"active", true}}).status, 200);
  EXPECT_EQ(node_->call("POST", "/api/v1/skills/" + distilled + "/apply", {{"input", "a vase"}})
                .body["applied_count"],
            1);

  Answer missing = node_->call("POST", "/api/v1/skills", {{"description", "no name"}});
  EXPECT_EQ(missing.status, 400);
  EXPECT_EQ(missing.body, Json({{"error", "missing name"}}));
  Answer made =
      node_->call("POST", "/api/v1/skills", {{"name", "Tidy"}, {"instructions", "Tidy up."}});
  ASSERT_EQ(made.status, 201);
  EXPECT_EQ(node_->call("GET", "/api/v1/skills/skill-00000000").body,
            Json({{"error", "not_found"}}));
  EXPECT_EQ(node_->call("DELETE", "/api/v1/skills/skill-00000000").status, 404);
  EXPECT_EQ(node_->call("POST", "/api/v1/skills/" + distilled).status, 405);

  Answer put = node_->call("PUT", "/api/v1/dream/config",
                           {{"auto_cycle", false}, {"cycle_interval", 120}, {"min_sessions", 3}});
  ASSERT_EQ(put.status, 200) << put.text;
  for (const Json& bad :
       {Json{{"cycle_interval", 0}}, Json{{"auto_cycle", "yes"}}, Json{{"min_sessions", -1}},
        Json{{"cycle_intervall", 60}}, Json{{"llm_url", "ftp://x"}}}) {
    Answer a = node_->call("PUT", "/api/v1/dream/config", bad);
    EXPECT_EQ(a.status, 400) << bad.dump();
    EXPECT_EQ(a.body["error"], "invalid_field");
  }

  node_->restart_hard();
  ASSERT_TRUE(node_->started()) << node_->process().err();
  Json cfg = node_->call("GET", "/api/v1/dream/config").body;
  EXPECT_EQ(cfg["cycle_interval"], 120);
  EXPECT_EQ(cfg["min_sessions"], 3);
  EXPECT_EQ(cfg["auto_cycle"], false);
  EXPECT_EQ(node_->call("GET", "/api/v1/skills").body["count"], 2);
  EXPECT_EQ(node_->call("GET", "/api/v1/skills/" + distilled).body["applied_count"], 1);
  EXPECT_NE(node_->process().err().find("started — auto_cycle=off interval=120"),
            std::string::npos);
}

// Dream profiles through the syscall route: merged, read, listed and cleared;
// a conversation whose profile says not to dream is left alone.
TEST_F(Dreaming, ProfilesKeepConversationsOut) {
  // The syscall's own answer, from the route's {"name", "status", "body"}.
  auto syscall = [&](const std::string& name, const Json& args) {
    Answer a = node_->call("POST", "/api/v1/kernel/syscall", {{"name", name}, {"args", args}});
    EXPECT_EQ(a.status, 200) << a.text;
    a.body = a.body["body"];
    return a;
  };
  syscall("dream.profile.update", {{"session_ids", {"private"}}, {"profile", {{"dream", false}}}});
  EXPECT_EQ(syscall("dream.profile.get", {{"session_ids", {"private"}}})
                .body["profiles"]["private"]["dream"],
            false);
  EXPECT_EQ(syscall("dream.profile.get", Json::object()).body["error"], "missing_session_id");
  EXPECT_EQ(
      syscall("dream.profile.update", {{"session_ids", {"../up"}}, {"profile", Json::object()}})
          .body["error"],
      "bad_args");
  EXPECT_EQ(syscall("dream.profiles.list", Json::object()).body["count"], 1);

  conversation("private", "topic-secret");
  conversation("public", "topic-open");
  Json r = cycle();
  EXPECT_EQ(r["report"]["sessions_consumed"], 1);
  EXPECT_EQ(r["report"]["sessions_used"][0]["session_id"], "public");
  EXPECT_FALSE(fs::exists(conversations_ / "private.json.dreamed"));

  EXPECT_EQ(syscall("dream.profile.clear", {{"session_ids", {"private", "none"}}}).body["removed"],
            1);
  EXPECT_EQ(cycle()["report"]["sessions_consumed"], 1);
  EXPECT_TRUE(fs::exists(conversations_ / "private.json.dreamed"));
  EXPECT_EQ(syscall("dream.current", Json::object()).body["state"], "completed");
}

// A node without the data module stores themes on a data node that enforces
// auth, over HTTP with the cluster secret.
TEST(DreamingAcrossNodes, ThemesReachTheDataNodeWithTheClusterSecret) {
  TempDir dir;
  ScriptedModel model;
  TestNode::Options data_opts;
  data_opts.enforce = true;
  data_opts.env = {{"OSTREL_CLUSTER_SECRET", std::string(64, 'a')}};
  TestNode data(dir.path(), "data", data_opts);
  ASSERT_TRUE(data.started()) << data.process().err();

  TestNode::Options dream_opts;
  dream_opts.modules = {"dream"};
  dream_opts.env = {{"OSTREL_CLUSTER_SECRET", std::string(64, 'a')}};
  dream_opts.args = {"--config-set", "dream.llm_url=" + model.url(),
                     "--config-set", "dream.min_session_age_hours=0",
                     "--config-set", "dream.data_node_url=" + data.url()};
  TestNode dreamer(dir.path(), "dreamer", dream_opts);
  ASSERT_TRUE(dreamer.started()) << dreamer.process().err();
  write_file(dreamer.data_dir() / "conversations" / "c1.json",
             Json{{"id", "c1"},
                  {"ended_at", "2026-01-05T09:30:00"},
                  {"messages", {{{"role", "user"}, {"content", "about topic-bees today"}}}}}
                 .dump());

  // A wrong secret is refused like no credential at all.
  Answer wrong = data.call("POST", "/api/v1/memory/store", {{"key", "k"}, {"value", "v"}}, "", "",
                           {{"X-Ostrel-Cluster-Secret", std::string(64, 'b')}});
  EXPECT_EQ(wrong.status, 401);

  Answer r = dreamer.call("POST", "/api/v1/dream/cycle");
  ASSERT_EQ(r.status, 200) << r.text;
  EXPECT_EQ(r.body["report"]["matrix_updates"], 1) << r.text << dreamer.process().err();
  EXPECT_EQ(r.body["report"]["sessions_consumed"], 1);
  Answer recalled =
      data.call("POST", "/api/v1/memory/recall",
                {{"tenant", "_system"}, {"namespace", "dreams"}, {"query", "topic-bees planning"}},
                data.admin_token());
  ASSERT_FALSE(recalled.body["hits"].empty()) << recalled.text;
  EXPECT_EQ(recalled.body["hits"][0]["key"], "topic-bees planning");
}

}  // namespace
}  // namespace ostrel::testing
