// The unified search engine, each figure against a baseline measured in the
// same run (counter "ratio"):
//  BM_UnifiedSearchFanout  a query over eight sources that each block 2 ms
//                          (as a syscall to a peer would) and return 20 hits
//                          / one such source called directly; target <= 1.5.
//  BM_UnifiedSearchMerge   ranking and de-duplicating 8 x 1,000 hits
//                          / a plain std::stable_sort of the same hits by
//                          score; target <= 2.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "search/search_engine.h"

namespace {

using ostrel::search::Hit;
using ostrel::search::Query;
using ostrel::search::Scope;
using Clock = std::chrono::steady_clock;

std::vector<Hit> make_hits(const std::string& kind, std::size_t n, std::mt19937& rng) {
  std::uniform_real_distribution<double> score(0, 1);
  std::uniform_int_distribution<int> id(0, static_cast<int>(n) * 3);  // some duplicates
  std::vector<Hit> out(n);
  for (auto& h : out) {
    h.source_kind = kind;
    h.id = "doc-" + std::to_string(id(rng));
    h.title = "A title of a document about " + h.id;
    h.snippet = "A snippet of text long enough to be realistic for a hit in a result list.";
    h.uri = kind + ":///default/" + h.id;
    h.score = score(rng);
    h.metadata = {{"source", "bench"}, {"backend", "jsonl"}};
  }
  return out;
}

class BlockingSource : public ostrel::search::SearchSource {
 public:
  BlockingSource(std::string kind, std::vector<Hit> hits)
      : kind_(std::move(kind)), hits_(std::move(hits)) {}
  std::string source_kind() const override { return kind_; }
  bool in_scope(Scope) const override { return true; }
  std::vector<Hit> search(const Query&, std::size_t limit) override {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::vector<Hit> out = hits_;
    if (out.size() > limit) out.resize(limit);
    return out;
  }

 private:
  std::string kind_;
  std::vector<Hit> hits_;
};

void BM_UnifiedSearchFanout(benchmark::State& state) {
  std::mt19937 rng(7);
  ostrel::search::SearchEngine engine;
  std::vector<std::shared_ptr<BlockingSource>> sources;
  for (int i = 0; i < 8; ++i) {
    auto s = std::make_shared<BlockingSource>("kind" + std::to_string(i),
                                              make_hits("kind" + std::to_string(i), 20, rng));
    sources.push_back(s);
    engine.register_source(s);
  }
  Query q;
  q.text = "query";
  q.limit = 20;
  engine.search(q);  // the engine's threads exist after the first query
  double engine_s = 0, one_s = 0;
  std::size_t hits = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    auto r = engine.search(q);
    const auto t1 = Clock::now();
    auto direct = sources[0]->search(q, q.limit);
    const auto t2 = Clock::now();
    hits += r.hits.size();
    benchmark::DoNotOptimize(direct);
    engine_s += std::chrono::duration<double>(t1 - t0).count();
    one_s += std::chrono::duration<double>(t2 - t1).count();
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["query_ms"] = engine_s * 1000 / n;
  state.counters["one_source_ms"] = one_s * 1000 / n;
  state.counters["hits"] = static_cast<double>(hits) / n;
  state.counters["ratio"] = engine_s / one_s;
}
BENCHMARK(BM_UnifiedSearchFanout)->Iterations(300)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_UnifiedSearchMerge(benchmark::State& state) {
  std::mt19937 rng(11);
  std::vector<Hit> all;
  for (int i = 0; i < 8; ++i) {
    auto part = make_hits("kind" + std::to_string(i), 1000, rng);
    all.insert(all.end(), part.begin(), part.end());
  }
  double merge_s = 0, sort_s = 0;
  std::size_t kept = 0;
  for (auto _ : state) {
    std::vector<Hit> a = all, b = all;  // copies are not timed
    const auto t0 = Clock::now();
    auto merged = ostrel::search::merge_hits(std::move(a), all.size());
    const auto t1 = Clock::now();
    std::stable_sort(b.begin(), b.end(),
                     [](const Hit& x, const Hit& y) { return x.score > y.score; });
    const auto t2 = Clock::now();
    kept += merged.size();
    benchmark::DoNotOptimize(b);
    merge_s += std::chrono::duration<double>(t1 - t0).count();
    sort_s += std::chrono::duration<double>(t2 - t1).count();
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["merge_us"] = merge_s * 1e6 / n;
  state.counters["stable_sort_us"] = sort_s * 1e6 / n;
  state.counters["kept"] = static_cast<double>(kept) / n;
  state.counters["ratio"] = merge_s / sort_s;
}
BENCHMARK(BM_UnifiedSearchMerge)->Iterations(200)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
