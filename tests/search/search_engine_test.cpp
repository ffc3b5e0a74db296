// The search engine on its own: ranking, de-duplication, limits, scopes and
// the per-query deadline against sources that are slow, late or broken.
#include "search/search_engine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/support/test_support.h"

namespace ostrel::search {
namespace {

using namespace std::chrono_literals;

// A source that answers fixed hits after an optional delay, or throws.
class ScriptedSource : public SearchSource {
 public:
  ScriptedSource(std::string kind, std::vector<Hit> hits, std::chrono::milliseconds delay = 0ms,
                 Scope own = Scope::Knowledge, bool throws = false)
      : kind_(std::move(kind)), hits_(std::move(hits)), delay_(delay), own_(own), throws_(throws) {}
  std::string source_kind() const override { return kind_; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == own_; }
  std::vector<Hit> search(const Query&, std::size_t limit) override {
    ++calls;
    std::this_thread::sleep_for(delay_);
    if (throws_) throw std::runtime_error("source broke");
    std::vector<Hit> out = hits_;
    if (out.size() > limit) out.resize(limit);
    finished = true;
    return out;
  }
  std::atomic<int> calls{0};
  std::atomic<bool> finished{false};

 private:
  std::string kind_;
  std::vector<Hit> hits_;
  std::chrono::milliseconds delay_;
  Scope own_;
  bool throws_;
};

Hit hit(const std::string& kind, const std::string& id, double score) {
  Hit h;
  h.source_kind = kind;
  h.id = id;
  h.score = score;
  h.title = kind + ":" + id;
  return h;
}

std::vector<std::string> ids(const std::vector<Hit>& hits) {
  std::vector<std::string> out;
  for (const auto& h : hits) out.push_back(h.source_kind + "/" + h.id);
  return out;
}

// Higher scores first; equal scores keep registration order and then each
// source's own order; the same (kind, id) twice keeps the better copy while
// the same id under another kind stays; the limit cuts after de-duplication;
// limit 0 answers no hits but still lists who was asked.
TEST(SearchEngine, RanksDeduplicatesAndCuts) {
  SearchEngine engine(2000ms);
  engine.register_source(std::make_shared<ScriptedSource>(
      "vector", std::vector<Hit>{hit("vector", "a", 0.5), hit("vector", "b", 0.9),
                                 hit("vector", "a", 0.7), hit("vector", "t1", 0.4)}));
  engine.register_source(std::make_shared<ScriptedSource>(
      "qmm", std::vector<Hit>{hit("qmm", "a", 0.6), hit("qmm", "t2", 0.4), hit("qmm", "t3", 0.4)}));

  Query q;
  q.text = "x";
  q.limit = 20;
  SearchResult r = engine.search(q);
  EXPECT_EQ(ids(r.hits), (std::vector<std::string>{"vector/b", "vector/a", "qmm/a", "vector/t1",
                                                   "qmm/t2", "qmm/t3"}));
  EXPECT_DOUBLE_EQ(r.hits[1].score, 0.7);  // the better copy of vector/a
  EXPECT_EQ(r.sources_queried, (std::vector<std::string>{"vector", "qmm"}));
  EXPECT_TRUE(r.sources_failed.empty());

  q.limit = 3;
  EXPECT_EQ(ids(engine.search(q).hits),
            (std::vector<std::string>{"vector/b", "vector/a", "qmm/a"}));

  q.limit = 0;
  r = engine.search(q);
  EXPECT_TRUE(r.hits.empty());
  EXPECT_EQ(r.sources_queried.size(), 2u);

  // merge_hits is the same ranking for callers that merge their own hits.
  std::vector<Hit> mixed = {hit("k", "1", 0.1), hit("k", "2", 0.3), hit("k", "1", 0.3),
                            hit("j", "1", 0.3)};
  EXPECT_EQ(ids(merge_hits(mixed, 10)), (std::vector<std::string>{"k/2", "k/1", "j/1"}));
}

// Only sources in the query's scope are asked.
TEST(SearchEngine, ScopeSelectsSources) {
  SearchEngine engine(2000ms);
  auto vector = std::make_shared<ScriptedSource>("vector", std::vector<Hit>{hit("vector", "v", 1)},
                                                 0ms, Scope::Knowledge);
  auto comm = std::make_shared<ScriptedSource>("comm", std::vector<Hit>{hit("comm", "c", 1)}, 0ms,
                                               Scope::Comms);
  engine.register_source(vector);
  engine.register_source(comm);
  Query q;
  q.text = "x";
  q.scope = Scope::Comms;
  SearchResult r = engine.search(q);
  EXPECT_EQ(r.sources_queried, std::vector<std::string>{"comm"});
  EXPECT_EQ(ids(r.hits), std::vector<std::string>{"comm/c"});
  EXPECT_EQ(vector->calls.load(), 0);

  Scope s;
  EXPECT_TRUE(parse_scope("knowledge", s));
  EXPECT_EQ(s, Scope::Knowledge);
  EXPECT_FALSE(parse_scope("Knowledge", s));
  EXPECT_EQ(s, Scope::All);
  for (int i = 0; i <= 7; ++i) {
    Scope back;
    EXPECT_TRUE(parse_scope(scope_name(static_cast<Scope>(i)), back));
    EXPECT_EQ(static_cast<int>(back), i);
  }
}

// A source that misses the deadline or throws is reported failed and counted;
// the query returns at the deadline with the others' hits, and the late
// source's hits never show up, not even in a later query's answer.
TEST(SearchEngine, DeadlineDropsLateAndBrokenSources) {
  std::vector<std::string> failures;
  std::mutex failures_mu;
  auto slow = std::make_shared<ScriptedSource>("slow", std::vector<Hit>{hit("slow", "late", 99)},
                                               600ms, Scope::Knowledge);
  auto broken =
      std::make_shared<ScriptedSource>("broken", std::vector<Hit>{}, 0ms, Scope::Knowledge, true);
  auto fast = std::make_shared<ScriptedSource>("fast", std::vector<Hit>{hit("fast", "f", 1)});
  {
    SearchEngine engine(150ms, [&](const std::string& kind) {
      std::lock_guard lock(failures_mu);
      failures.push_back(kind);
    });
    engine.register_source(slow);
    engine.register_source(broken);
    engine.register_source(fast);

    Query q;
    q.text = "x";
    const auto t0 = std::chrono::steady_clock::now();
    SearchResult r = engine.search(q);
    const auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(took, 140ms);
    EXPECT_LT(took, 550ms) << "waited for the slow source";
    EXPECT_EQ(ids(r.hits), std::vector<std::string>{"fast/f"});
    EXPECT_EQ(r.sources_failed, (std::vector<std::string>{"slow", "broken"}));
    EXPECT_EQ(r.sources_queried.size(), 3u);

    // Once the first call's late result has come, a second query (whose own
    // call is late again) must not pick it up.
    ASSERT_TRUE(testing::eventually([&] { return slow->finished.load(); }, 2000ms));
    r = engine.search(q);
    EXPECT_EQ(ids(r.hits), std::vector<std::string>{"fast/f"});
    {
      std::lock_guard lock(failures_mu);
      EXPECT_EQ(failures.size(), 4u);
    }
  }  // the engine joins its threads after the slow calls return
  EXPECT_EQ(slow->calls.load(), 2);
}

// Many queries at once, with a source that hangs past every deadline: no
// query waits behind another's hung source, and each sees only its own hits.
TEST(SearchEngine, ConcurrentQueriesDoNotWaitBehindAHungSource) {
  auto hung =
      std::make_shared<ScriptedSource>("hung", std::vector<Hit>{hit("hung", "h", 5)}, 400ms);
  auto fast = std::make_shared<ScriptedSource>(
      "fast", std::vector<Hit>{hit("fast", "1", 3), hit("fast", "2", 2)});
  SearchEngine engine(100ms);
  engine.register_source(hung);
  engine.register_source(fast);
  std::vector<std::thread> threads;
  std::atomic<int> good{0};
  const auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] {
      Query q;
      q.text = "x";
      q.limit = 1;
      SearchResult r = engine.search(q);
      if (ids(r.hits) == std::vector<std::string>{"fast/1"} &&
          r.sources_failed == std::vector<std::string>{"hung"}) {
        ++good;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(good.load(), 16);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 380ms);
}

}  // namespace
}  // namespace ostrel::search
