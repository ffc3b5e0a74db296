// The dream engine, its conversation sources and sink, the profile store and
// the skill catalogue, on real files.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

#include "dreams/dream_engine.h"
#include "dreams/memory_sink.h"
#include "dreams/profile_store.h"
#include "dreams/skill_catalog.h"
#include "tests/support/test_support.h"

namespace ostrel::dreams {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::TempDir;

std::string completion(const std::string& content) {
  return Json{{"choices", {{{"message", {{"role", "assistant"}, {"content", content}}}}}}}.dump();
}

SessionRecord session(const std::string& id, std::int64_t ended_ago_s = 7200) {
  SessionRecord s;
  s.id = id;
  s.tenant_id = "acme";
  s.user_id = "u-" + id;
  s.ended_at = std::time(nullptr) - ended_ago_s;
  s.started_at = s.ended_at - 60;
  s.messages = {{"user", "tell me about " + id}, {"assistant", "here is " + id}};
  return s;
}

// Records stored themes; fails the keys it is told to.
class RecordingSink : public IDreamSink {
 public:
  bool store_theme(const ThemeRecord& t, const SessionRecord& s, const DreamConfig&) override {
    std::lock_guard lock(mu);
    if (fail_keys.count(t.theme)) return false;
    stored.push_back({s.id, t});
    return true;
  }
  std::mutex mu;
  std::set<std::string> fail_keys;
  std::vector<std::pair<std::string, ThemeRecord>> stored;
};

base::Logger quiet() { return base::Logger("test"); }

DreamConfig config_now() {
  DreamConfig c;
  c.min_session_age_hours = 0;
  c.auto_cycle = false;
  return c;
}

// What the model sees and what comes back: the exact prompt, a transcript cut
// to 6000 characters, themes read from an array with prose around it,
// importance clamped (1.7 → 1, negative → 0, a text parsed), elements without
// a theme skipped, at most three themes; an answer without "[" yields none.
TEST(DreamEngine, ParsesModelAnswersAndBuildsRequests) {
  std::vector<ThemeRecord> themes;
  ASSERT_TRUE(DreamEngine::parse_themes(
      completion("Here you go:\n[{\"theme\":\"bikes\",\"abstract\":\"a\",\"importance\":1.7},"
                 "{\"abstract\":\"no theme\"},{\"theme\":\"rain\",\"importance\":-3},"
                 "{\"theme\":\"gears\",\"importance\":\"0.25\"},{\"theme\":\"fourth\"}]\nBye."),
      "s1", themes));
  ASSERT_EQ(themes.size(), 3u);
  EXPECT_EQ(themes[0].theme, "bikes");
  EXPECT_FLOAT_EQ(themes[0].importance, 1.0f);
  EXPECT_FLOAT_EQ(themes[1].importance, 0.0f);
  EXPECT_FLOAT_EQ(themes[2].importance, 0.25f);
  EXPECT_EQ(themes[2].source_session, "s1");

  themes.clear();
  EXPECT_FALSE(DreamEngine::parse_themes(completion("I cannot help with that."), "s", themes));
  EXPECT_FALSE(DreamEngine::parse_themes("not json", "s", themes));
  EXPECT_FALSE(DreamEngine::parse_themes(completion("[not an array"), "s", themes));
  EXPECT_FALSE(DreamEngine::parse_themes(R"({"choices":[]})", "s", themes));
  EXPECT_TRUE(themes.empty());

  SessionRecord s = session("long");
  s.messages = {{"user", std::string(10000, 'x')}};
  Json request = Json::parse(DreamEngine::request_for(s, "m1"));
  EXPECT_EQ(request["model"], "m1");
  EXPECT_LT(request["temperature"].get<double>(), 0.5);
  EXPECT_EQ(request["messages"][0]["role"], "system");
  EXPECT_EQ(request["messages"][0]["content"].get<std::string>().rfind(
                "You are an offline consolidation engine. Extract up to 3 key themes", 0),
            0u);
  const std::string user = request["messages"][1]["content"];
  ASSERT_EQ(user.rfind("Transcript:\n", 0), 0u);
  EXPECT_EQ(user.size(), std::string("Transcript:\n").size() + 6000);

  EXPECT_EQ(parse_iso8601("2026-01-02T03:04:05"), 1767323045);
  EXPECT_EQ(parse_iso8601("2026-01-02T03:04:05Z"), 1767323045);
  EXPECT_FALSE(parse_iso8601("yesterday"));
  EXPECT_FALSE(parse_iso8601("2026-13-02T03:04:05"));
  EXPECT_FALSE(parse_iso8601("2026-01-02"));
}

// A cycle stores every theme and consumes each conversation once; a model
// failure or an unparsable answer counts an LLM failure and leaves the
// conversation for later; a theme the sink refuses keeps its conversation
// unconsumed, and the next cycle takes it up again.
TEST(DreamEngine, CyclesConsumeOnceAndOnlyWhenStored) {
  auto sessions = std::make_shared<InMemorySessionSource>();
  for (const char* id : {"a", "b", "c", "fresh"}) {
    sessions->add(session(id, std::string(id) == "fresh" ? 10 : 7200));
  }
  auto sink = std::make_shared<RecordingSink>();
  sink->fail_keys = {"theme of c"};
  std::atomic<int> calls{0};
  std::atomic<bool> c_fixed{false};
  DreamConfig cfg = config_now();
  cfg.min_session_age_hours = 1;
  DreamEngine engine(
      cfg, sessions, sink,
      [&](const std::string& request, std::string& answer, std::string& error) {
        ++calls;
        const std::string transcript = Json::parse(request)["messages"][1]["content"];
        if (transcript.find("about b") != std::string::npos) {
          error = "timeout";
          return false;
        }
        const std::string id = transcript.find("about a") != std::string::npos ? "a" : "c";
        answer = completion("[{\"theme\":\"theme of " + id + "\",\"abstract\":\"x\"}]");
        return true;
      },
      quiet());

  DreamReport r = engine.run_once("manual");
  EXPECT_EQ(calls.load(), 3);  // "fresh" ended too recently to be offered
  EXPECT_EQ(r.sessions_consumed, 1);
  EXPECT_EQ(r.llm_failures, 1);
  EXPECT_EQ(r.sessions_skipped, 1);
  EXPECT_EQ(r.themes_extracted, 2);
  EXPECT_EQ(r.matrix_updates, 1);
  EXPECT_EQ(r.store_failures, 1);
  ASSERT_EQ(r.sessions_used.size(), 1u);
  EXPECT_EQ(r.sessions_used[0].session_id, "a");
  EXPECT_EQ(r.sessions_used[0].themes, std::vector<std::string>{"theme of a"});
  EXPECT_TRUE(sessions->dreamed("a"));
  EXPECT_FALSE(sessions->dreamed("b"));
  EXPECT_FALSE(sessions->dreamed("c"));

  sink->fail_keys.clear();
  r = engine.run_once("manual");
  EXPECT_EQ(r.sessions_consumed, 1);  // c now; b fails again; a never again
  EXPECT_TRUE(sessions->dreamed("c"));
  EXPECT_EQ(calls.load(), 5);
  {
    std::lock_guard lock(sink->mu);
    ASSERT_EQ(sink->stored.size(), 2u);
    EXPECT_EQ(sink->stored[0].first, "a");
    EXPECT_EQ(sink->stored[1].first, "c");
  }
  auto history = engine.history();
  ASSERT_EQ(history.size(), 2u);
  EXPECT_EQ(history[0].sessions_used[0].session_id, "c");  // newest first
  EXPECT_EQ(to_json(history[1])["trigger"], "manual");
}

// Manual cycles from several threads run one at a time and never consume a
// conversation twice.
TEST(DreamEngine, ConcurrentCyclesAreExclusive) {
  auto sessions = std::make_shared<InMemorySessionSource>();
  for (int i = 0; i < 8; ++i) sessions->add(session("s" + std::to_string(i)));
  auto sink = std::make_shared<RecordingSink>();
  std::atomic<int> inside{0}, overlap{0};
  DreamEngine engine(
      config_now(), sessions, sink,
      [&](const std::string& request, std::string& answer, std::string&) {
        if (++inside > 1) ++overlap;
        std::this_thread::sleep_for(2ms);
        const std::string t = Json::parse(request)["messages"][1]["content"];
        answer = completion("[{\"theme\":\"" + t.substr(t.find("about ") + 6, 2) + "\"}]");
        --inside;
        return true;
      },
      quiet());
  std::vector<std::thread> threads;
  std::atomic<int> consumed{0};
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] { consumed += engine.run_once("manual").sessions_consumed; });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(overlap.load(), 0);
  EXPECT_EQ(consumed.load(), 8);
  std::lock_guard lock(sink->mu);
  EXPECT_EQ(sink->stored.size(), 8u);
}

// The periodic thread runs cycles on its interval when auto_cycle is on, and
// stop_periodic() returns promptly even with a long interval.
TEST(DreamEngine, PeriodicCyclesFollowTheConfiguration) {
  auto sessions = std::make_shared<InMemorySessionSource>();
  sessions->add(session("p"));
  DreamConfig cfg = config_now();
  cfg.auto_cycle = false;
  cfg.idle_only = false;
  cfg.cycle_interval_seconds = 1;
  std::atomic<int> calls{0};
  DreamEngine engine(
      cfg, sessions, std::make_shared<RecordingSink>(),
      [&](const std::string&, std::string& answer, std::string&) {
        ++calls;
        answer = completion("[{\"theme\":\"t\"}]");
        return true;
      },
      quiet());
  engine.start_periodic();
  ASSERT_TRUE(testing::eventually([&] { return engine.periodic_decisions() >= 1; }, 3000ms));
  EXPECT_EQ(engine.history().size(), 0u);  // auto_cycle off: nothing ran
  cfg.auto_cycle = true;
  engine.set_config(cfg);
  ASSERT_TRUE(testing::eventually([&] { return !engine.history().empty(); }, 3000ms));
  EXPECT_EQ(engine.history()[0].trigger, "periodic");
  EXPECT_TRUE(sessions->dreamed("p"));
  cfg.cycle_interval_seconds = 3600;
  engine.set_config(cfg);
  const auto t0 = std::chrono::steady_clock::now();
  engine.stop_periodic();
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 500ms);
  EXPECT_EQ(calls.load(), 1);
}

// The conversation store on disk: broken files (not JSON, no messages, a
// date that does not parse) are skipped with a log line, "_index.json" and
// too-recent conversations are not offered, and a ".dreamed" marker keeps a
// conversation from ever being offered again.
TEST(FilesystemSessionSource, OffersFinishedConversationsOnce) {
  TempDir dir;
  const fs::path conv = dir / "conversations";
  auto write = [&](const std::string& name, const Json& j) {
    testing::write_file(conv / name, j.dump());
  };
  Json good = {{"id", "g1"},
               {"tenant_id", "acme"},
               {"user_id", "u1"},
               {"started_at", "2026-01-01T10:00:00"},
               {"ended_at", "2026-01-01T10:30:00"},
               {"summary", "s"},
               {"messages", {{{"role", "user"}, {"content", "hi"}}}}};
  write("g1.json", good);
  Json renamed = good;
  renamed["id"] = "other-id";  // the id inside differs from the file name
  write("file-two.json", renamed);
  Json recent = good;
  recent["id"] = "recent";
  recent.erase("ended_at");
  recent.erase("started_at");
  recent["ended_at"] = "2999-01-01T00:00:00";
  write("recent.json", recent);
  Json no_messages = good;
  no_messages["messages"] = Json::array();
  write("empty.json", no_messages);
  Json bad_date = good;
  bad_date["ended_at"] = "last tuesday";
  write("bad-date.json", bad_date);
  testing::write_file(conv / "broken.json", "{not json");
  write("_index.json", Json{{"ids", {"g1"}}});

  testing::LogCapture logs;
  auto warnings = [&logs] {
    std::vector<std::string> out;
    for (const auto& l : logs.lines()) {
      if (l.rfind("[WARN][test/sessions]", 0) == 0) out.push_back(l);
    }
    return out;
  };
  FilesystemSessionSource source(dir.path(), base::Logger("test/sessions"));
  EXPECT_EQ(source.resolved_root(), conv);
  auto list = source.list_completed(10, 3600);
  std::vector<std::string> ids;
  for (const auto& s : list) ids.push_back(s.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"other-id", "g1"}));  // by file name
  EXPECT_EQ(list[1].ended_at, 1767263400);
  EXPECT_EQ(list[1].messages.size(), 1u);
  EXPECT_EQ(warnings().size(), 3u);

  EXPECT_TRUE(source.mark_dreamed("other-id"));
  EXPECT_TRUE(fs::exists(conv / "file-two.json.dreamed"));
  Json marker = Json::parse(testing::read_file(conv / "file-two.json.dreamed"));
  EXPECT_GT(marker["dreamed_at_unix"].get<std::int64_t>(), 1767263400);
  EXPECT_FALSE(source.mark_dreamed("../escape"));
  EXPECT_FALSE(source.mark_dreamed("never-listed"));

  list = source.list_completed(10, 3600);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0].id, "g1");
  EXPECT_EQ(warnings().size(), 3u);  // each broken file is logged once
  EXPECT_EQ(source.list_completed(0, 0).size(), 0u);

  // A fresh source (another process) sees the marker too.
  FilesystemSessionSource again(dir.path(), quiet());
  EXPECT_EQ(again.list_completed(10, 3600).size(), 1u);
  EXPECT_FALSE(fs::exists(dir / "conversations" / "broken.json.dreamed"));
}

// The HTTP path of the sink: the store request reaches the data node's
// route with the cluster secret, the theme as key and the abstract as value;
// a refusal or an unreachable node counts as a failed store; a local store,
// when there is one, is used instead.
TEST(MatrixMemorySink, StoresLocallyOrOverHttpWithTheSecret) {
  httplib::Server server;
  std::mutex mu;
  std::vector<std::pair<std::string, Json>> seen;
  std::atomic<int> status{200};
  server.Post("/api/v1/memory/store", [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard lock(mu);
    seen.push_back({req.get_header_value("X-Ostrel-Cluster-Secret"), Json::parse(req.body)});
    res.status = status.load();
    res.set_content("{}", "application/json");
  });
  int port = 0;
  std::thread t = testing::serve_on_loopback(server, port);

  testing::LogCapture logs;
  base::Logger log("test/sink");
  ThemeRecord theme{"cycling", "Bikes need care.", 0.9f, "c1"};
  SessionRecord s = session("c1");
  DreamConfig cfg;
  MatrixMemorySink remote("127.0.0.1:" + std::to_string(port), "s3cret", nullptr, log);
  EXPECT_TRUE(remote.store_theme(theme, s, cfg));
  status = 503;
  EXPECT_FALSE(remote.store_theme(theme, s, cfg));
  {
    std::lock_guard lock(mu);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].first, "s3cret");
    const Json& body = seen[0].second;
    EXPECT_EQ(body["tenant"], "_system");
    EXPECT_EQ(body["key"], "cycling");
    EXPECT_EQ(body["value"], "Bikes need care.");
    EXPECT_EQ(body["source"], "dream_engine");
    EXPECT_EQ(body["source_session"], "c1");
    EXPECT_NEAR(body["importance"].get<double>(), 0.9, 1e-6);
  }
  EXPECT_TRUE(
      logs.has("[WARN][test/sink] [dream-engine] memory_store http 503 url=http://127.0.0.1:"));
  server.stop();
  t.join();

  EXPECT_FALSE(remote.store_theme(theme, s, cfg));
  EXPECT_TRUE(logs.has("[dream-engine] memory_store transport error: "));

  std::string local_args;
  MatrixMemorySink local(
      "", "",
      [&](const std::string& args) -> std::optional<MatrixMemorySink::LocalAnswer> {
        local_args = args;
        return MatrixMemorySink::LocalAnswer{Json::parse(args)["key"] == "bad" ? -1 : 0, "{}"};
      },
      log);
  EXPECT_TRUE(local.store_theme(theme, s, cfg));
  EXPECT_EQ(Json::parse(local_args)["namespace"], "dreams");
  theme.theme = "bad";
  EXPECT_FALSE(local.store_theme(theme, s, cfg));
  EXPECT_TRUE(logs.has("[dream-engine] memory_store syscall status=-1"));
}

// Profiles: merged per session, read back, cleared with a count; bad ids and
// arguments answer their codes; a profile file that is not JSON is reported
// corrupt rather than overwritten; nothing temporary is left behind.
TEST(ProfileStore, UpdatesGetsClearsAndReportsErrors) {
  TempDir dir;
  ProfileStore store(dir / "profiles");
  EXPECT_EQ(store.update({{"session_ids", {"s1", "s2"}}, {"profile", {{"tone", "calm"}}}})["count"],
            2);
  EXPECT_EQ(store.update({{"session_id", "s1"}, {"profile", {{"dream", false}}}})["count"], 1);
  Json got = store.get({{"session_ids", {"s1", "s2", "s3"}}});
  EXPECT_EQ(got["profiles"]["s1"]["tone"], "calm");
  EXPECT_EQ(got["profiles"]["s1"]["dream"], false);
  EXPECT_TRUE(got["profiles"]["s3"].is_null());
  EXPECT_FALSE(store.dreamable("s1"));
  EXPECT_TRUE(store.dreamable("s2"));
  EXPECT_EQ(store.list()["count"], 2);

  EXPECT_EQ(store.update({{"profile", Json::object()}})["error"], "missing_session_id");
  EXPECT_EQ(store.get({{"session_ids", Json::array()}})["error"], "missing_session_id");
  EXPECT_EQ(store.get({{"session_ids", {"../x"}}})["error"], "bad_args");
  EXPECT_EQ(store.get({{"session_ids", {1}}})["error"], "bad_args");
  EXPECT_EQ(store.update({{"session_ids", {"s1"}}, {"profile", "x"}})["error"], "bad_args");

  testing::write_file(dir / "profiles" / "s9.json", "{torn");
  EXPECT_EQ(store.get({{"session_ids", {"s9"}}})["error"], "corrupt_profile");
  EXPECT_EQ(store.update({{"session_ids", {"s9"}}, {"profile", {{"a", 1}}}})["error"],
            "corrupt_profile");
  EXPECT_EQ(testing::read_file(dir / "profiles" / "s9.json"), "{torn");

  EXPECT_EQ(store.clear({{"session_ids", {"s1", "s2", "nobody"}}})["removed"], 2);
  for (const auto& e : fs::directory_iterator(dir / "profiles")) {
    EXPECT_EQ(e.path().filename(), "s9.json");
  }

  // A directory that cannot be written answers write_failed.
  testing::write_file(dir / "blocker", "file, not a directory");
  ProfileStore blocked(dir / "blocker" / "profiles");
  EXPECT_EQ(blocked.update({{"session_ids", {"s1"}}, {"profile", {{"a", 1}}}})["error"],
            "write_failed");
}

// Skills: ids "skill-" + 8 hex digits; create needs a name; unknown ids are
// not_found; an inactive skill refuses to apply until activated; every change
// survives a reload; distillation proposes inactive skills once per name.
TEST(SkillCatalog, CrudApplyDistillAndReload) {
  TempDir dir;
  const fs::path file = dir / "skills.json";
  SkillCatalog skills(file);
  std::string error;
  ASSERT_TRUE(skills.load(error));
  int status = 0;
  EXPECT_EQ(skills.create({{"description", "x"}}, status)["error"], "missing name");
  EXPECT_EQ(status, 400);
  EXPECT_EQ(skills.create({{"name", "  "}}, status)["error"], "missing name");
  EXPECT_EQ(skills.create({{"name", "n"}, {"active", "yes"}}, status)["field"], "active");
  Json created = skills.create({{"name", "Summarise"}, {"instructions", "Summarise it."}}, status);
  EXPECT_EQ(status, 201);
  const std::string id = created["id"];
  ASSERT_EQ(id.size(), 14u);
  EXPECT_EQ(id.rfind("skill-", 0), 0u);
  EXPECT_EQ(id.find_first_not_of("0123456789abcdef", 6), std::string::npos);

  EXPECT_EQ(skills.get("skill-00000000", status)["error"], "not_found");
  EXPECT_EQ(status, 404);
  Json applied = skills.apply(id, {{"input", "the text"}}, status);
  EXPECT_EQ(status, 200);
  EXPECT_EQ(applied["prompt"], "Summarise it.\n\nthe text");
  EXPECT_EQ(skills.update(id, {{"active", false}}, status)["active"], false);
  EXPECT_EQ(skills.apply(id, Json::object(), status)["error"], "skill_inactive");
  EXPECT_EQ(status, 409);

  std::vector<ThemeRecord> themes = {{"Bike care", "Oil the chain.", 0.9f, "c1"},
                                     {"minor", "m", 0.2f, "c1"},
                                     {"summarise", "dup of an existing name", 0.95f, "c2"}};
  std::vector<std::string> distilled = skills.distill(themes, 0.8);
  ASSERT_EQ(distilled.size(), 1u);
  EXPECT_TRUE(skills.distill(themes, 0.8).empty());  // once per name
  Json d = skills.get(distilled[0], status);
  EXPECT_EQ(d["origin"], "dream");
  EXPECT_EQ(d["active"], false);

  SkillCatalog reloaded(file);
  ASSERT_TRUE(reloaded.load(error));
  EXPECT_EQ(reloaded.size(), 2u);
  EXPECT_EQ(reloaded.get(id, status)["applied_count"], 1);
  EXPECT_EQ(reloaded.remove(id, status)["deleted"], id);
  EXPECT_EQ(reloaded.remove(id, status)["error"], "not_found");
  SkillCatalog third(file);
  ASSERT_TRUE(third.load(error));
  EXPECT_EQ(third.size(), 1u);

  testing::write_file(file, "[1,2]");
  SkillCatalog corrupt(file);
  EXPECT_FALSE(corrupt.load(error));
  EXPECT_EQ(corrupt.size(), 0u);
}

}  // namespace
}  // namespace ostrel::dreams
