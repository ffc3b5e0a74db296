// The data module through its own syscalls (not HTTP), on a booted node,
// each against a baseline measured in the same run (counter "ratio"):
//  BM_DataSearch        a search of a 100k-record, 384-d namespace / the raw
//                       scan of the same vectors (same scoring, same top-k);
//                       target <= 1.3.
//  BM_DataIngest        ingesting 1,000 documents of 3,000 bytes with the
//                       built-in embedder / embedding the same chunks alone;
//                       target <= 1.5.
//  BM_MemoryStoreGrowth one memory store when the matrix holds 10,000 entries
//                       / the same store at 100 entries; target <= 2.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "base/hash_embedder.h"
#include "bench/bench_node.h"
#include "data/chunking.h"
#include "data/top_k.h"
#include "data/vector_math.h"
#include "data/vector_store.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using ostrel::kernel::SyscallResult;
constexpr int kRows = 100000;
constexpr std::size_t kDim = ostrel::base::HashEmbedder::kDimensions;
const ostrel::identity::SourceCode kBench{0xfe, 0x09};

// A node with the inference and data modules in a directory of its own.
struct Node : ostrel::bench::BenchNode {
  explicit Node(const std::string& name,
                const std::function<void(const fs::path& data)>& prepare = nullptr)
      : BenchNode(
            "data-" + name, {"inference.module.yaml", "data.module.yaml"},
            {"data.embedding_model=ulvo-hash-embed-v1", "inference.ollama_url=http://127.0.0.1:9",
             "inference.health_poll_interval_seconds=3600"},
            prepare) {}
  SyscallResult call(const std::string& name, const Json& args) {
    return kernel->syscalls().call(kBench, name, args.dump());
  }
  SyscallResult call_text(const std::string& name, const std::string& args) {
    return kernel->syscalls().call(kBench, name, args);
  }
};

std::vector<float> random_unit(std::mt19937& rng) {
  std::normal_distribution<float> n;
  std::vector<float> v(kDim);
  double s = 0;
  for (auto& x : v) {
    x = n(rng);
    s += x * x;
  }
  for (auto& x : v) x = static_cast<float>(x / std::sqrt(s));
  return v;
}

void BM_DataSearch(benchmark::State& state) {
  std::vector<float> flat;
  flat.reserve(static_cast<std::size_t>(kRows) * kDim);
  Node node("search", [&](const fs::path& data) {
    fs::create_directories(data / "vectors");
    std::ofstream out(data / "vectors" / "bench_docs.jsonl", std::ios::binary);
    std::mt19937 rng(3);
    for (int i = 0; i < kRows; ++i) {
      ostrel::data::VectorRecord r;
      r.id = "v" + std::to_string(i);
      r.text = "chunk " + std::to_string(i);
      r.embedding = random_unit(rng);
      flat.insert(flat.end(), r.embedding.begin(), r.embedding.end());
      out << ostrel::data::vector_record_line(r);
    }
  });
  const std::string query_text = "what the bench looks for";
  const std::vector<float> q = ostrel::base::HashEmbedder::embed(query_text);
  const Json args = {{"tenant", "bench"}, {"namespace", "docs"}, {"query", query_text},
                     {"top_k", 10},       {"min_score", -1.0},   {"_no_fanout", true}};
  node.call("data.vector.search", args);  // loads the namespace
  // The raw scan: the same scoring over the same vectors, best 10 kept.
  std::vector<double> sumsq(kRows);
  for (int r = 0; r < kRows; ++r) {
    const float* v = flat.data() + static_cast<std::size_t>(r) * kDim;
    sumsq[r] = ostrel::data::dot(v, v, kDim);
  }
  const double qsq = ostrel::data::dot(q.data(), q.data(), kDim);
  double module_s = 0, raw_s = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    SyscallResult res = node.call("data.vector.search", args);
    auto t1 = std::chrono::steady_clock::now();
    ostrel::data::TopK<std::size_t> best(10);
    for (std::size_t r = 0; r < static_cast<std::size_t>(kRows); ++r) {
      double s = ostrel::data::cosine(ostrel::data::dot(q.data(), flat.data() + r * kDim, kDim),
                                      qsq, sumsq[r]);
      std::size_t row = r;
      best.offer(s, std::move(row));
    }
    auto top = best.take();
    auto t2 = std::chrono::steady_clock::now();
    Json answer = Json::parse(res.body);
    if (res.status != 0 || answer["hits"].size() != 10 ||
        answer["hits"][0]["id"] != "v" + std::to_string(top[0])) {
      state.SkipWithError("the module and the raw scan disagree");
      break;
    }
    module_s += std::chrono::duration<double>(t1 - t0).count();
    raw_s += std::chrono::duration<double>(t2 - t1).count();
  }
  state.counters["module_ms"] = module_s * 1000 / static_cast<double>(state.iterations());
  state.counters["raw_scan_ms"] = raw_s * 1000 / static_cast<double>(state.iterations());
  state.counters["ratio"] = module_s / raw_s;
}
BENCHMARK(BM_DataSearch)->Iterations(30)->UseRealTime()->Unit(benchmark::kMillisecond);

std::string document(std::mt19937& rng) {
  static const char* kWords[] = {"river",  "stone",  "market", "signal", "garden", "engine",
                                 "winter", "copper", "letter", "harbor", "planet", "silver"};
  std::string doc;
  while (doc.size() < 3000) {
    doc += kWords[rng() % 12];
    doc += ' ';
  }
  doc.resize(3000);
  return doc;
}

void BM_DataIngest(benchmark::State& state) {
  Node node("ingest");
  std::mt19937 rng(9);
  std::vector<std::string> docs;
  for (int i = 0; i < 1000; ++i) docs.push_back(document(rng));
  double ingest_s = 0, embed_s = 0;
  int round = 0;
  for (auto _ : state) {
    // The callers' requests, written before the clock starts.
    const std::string ns = "r" + std::to_string(round++);
    std::vector<std::string> requests;
    for (const auto& d : docs) requests.push_back(Json{{"namespace", ns}, {"text", d}}.dump());
    auto t0 = std::chrono::steady_clock::now();
    for (const auto& request : requests) {
      SyscallResult r = node.call_text("data.vector.ingest", request);
      if (r.status != 0) state.SkipWithError("ingest failed");
    }
    auto t1 = std::chrono::steady_clock::now();
    for (const auto& d : docs) {
      for (auto [off, len] : ostrel::data::chunk_text(d, 1200, 150)) {
        benchmark::DoNotOptimize(
            ostrel::base::HashEmbedder::embed(std::string_view(d).substr(off, len)));
      }
    }
    auto t2 = std::chrono::steady_clock::now();
    ingest_s += std::chrono::duration<double>(t1 - t0).count();
    embed_s += std::chrono::duration<double>(t2 - t1).count();
  }
  state.counters["ingest_us_per_doc"] = ingest_s * 1e6 / (1000.0 * state.iterations());
  state.counters["embed_us_per_doc"] = embed_s * 1e6 / (1000.0 * state.iterations());
  state.counters["ratio"] = ingest_s / embed_s;
}
BENCHMARK(BM_DataIngest)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_MemoryStoreGrowth(benchmark::State& state) {
  Node node("memory");
  auto store = [&](const std::string& ns, int i) {
    SyscallResult r =
        node.call("data.memory.store", {{"namespace", ns},
                                        {"key", "key " + std::to_string(i)},
                                        {"value", "remembered value number " + std::to_string(i)}});
    if (r.status != 0) std::abort();
  };
  // Time of `n` stores once the matrix holds `held` entries.
  auto timed = [&](const std::string& ns, int held, int n) {
    for (int i = 0; i < held; ++i) store(ns, i);
    auto t0 = std::chrono::steady_clock::now();
    for (int i = held; i < held + n; ++i) store(ns, i);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  };
  double small_s = 0, large_s = 0;
  for (auto _ : state) {
    // Separate tenants-worth of namespaces share the one matrix of the
    // tenant: the large case runs second, on top of the small one.
    small_s += timed("small", 100, 200);
    large_s += timed("large", 10000 - 300, 200);
  }
  state.counters["store_us_at_100"] = small_s * 1e6 / (200.0 * state.iterations());
  state.counters["store_us_at_10000"] = large_s * 1e6 / (200.0 * state.iterations());
  state.counters["ratio"] = large_s / small_s;
}
BENCHMARK(BM_MemoryStoreGrowth)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
