// Vector search over a 100k x 768 namespace file in page cache, vector-only
// (full scan), top 10, repeated query: vectors scored per second as a ratio
// to a plain in-memory float dot-product scan of the same vectors, measured
// in the same run (counter "ratio").
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <vector>

#include "data/sqlite_vector_backend.h"

namespace {

namespace fs = std::filesystem;
constexpr int kRows = 100000;
constexpr int kDim = 768;

struct Namespace {
  fs::path dir;
  std::vector<float> vectors;  // the same values, in memory, for the baseline
  Namespace() {
    dir = fs::temp_directory_path() / ("ostrel-vec-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    vectors.resize(static_cast<std::size_t>(kRows) * kDim);
    std::mt19937 rng(1);
    std::normal_distribution<float> n;
    for (auto& x : vectors) x = n(rng);
    sqlite3* db = nullptr;
    sqlite3_open((dir / "bench_docs.db").c_str(), &db);
    sqlite3_exec(db,
                 "PRAGMA journal_mode=WAL; CREATE TABLE vectors (id TEXT, content TEXT, source "
                 "TEXT, namespace_id TEXT, metadata TEXT, embedding BLOB, created_at INTEGER, "
                 "updated_at INTEGER, chunk_index INTEGER, total_chunks INTEGER); BEGIN;",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO vectors VALUES (?, 'text', 'src', 'docs', '{}', ?, 0, 0, 0, 1)",
                       -1, &s, nullptr);
    for (int i = 0; i < kRows; ++i) {
      std::string id = "v" + std::to_string(i);
      sqlite3_bind_text(s, 1, id.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_blob(s, 2, vectors.data() + static_cast<std::size_t>(i) * kDim, kDim * 4,
                        SQLITE_STATIC);
      sqlite3_step(s);
      sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
  ~Namespace() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
};

// The bandwidth ceiling: one pass of float dot products, best score kept.
double plain_scan(const std::vector<float>& vectors, const std::vector<float>& q) {
  double best = -1e30;
  for (int r = 0; r < kRows; ++r) {
    const float* v = vectors.data() + static_cast<std::size_t>(r) * kDim;
    float s = 0;
    for (int i = 0; i < kDim; ++i) s += v[i] * q[i];
    if (s > best) best = s;
  }
  return best;
}

void BM_VectorSearchScan(benchmark::State& state) {
  static Namespace ns;
  ostrel::base::Logger log("bench");
  ostrel::obs::Logger::instance().set_threshold(ostrel::obs::LogLevel::warn);
  ostrel::modules_data::SqliteVectorBackend backend;
  backend.initialize(ns.dir.string(), log);
  std::vector<float> query(ns.vectors.begin() + 5 * kDim, ns.vectors.begin() + 6 * kDim);
  backend.search("bench", "docs", query, 10, -1.0, "");  // warm: page cache and decoded copy
  double search_s = 0, plain_s = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    auto hits = backend.search("bench", "docs", query, 10, -1.0, "");
    auto t1 = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(plain_scan(ns.vectors, query));
    auto t2 = std::chrono::steady_clock::now();
    if (hits.size() != 10 || hits[0].id != "v5") state.SkipWithError("wrong top hit");
    search_s += std::chrono::duration<double>(t1 - t0).count();
    plain_s += std::chrono::duration<double>(t2 - t1).count();
  }
  const double n = static_cast<double>(state.iterations()) * kRows;
  state.counters["search_vectors_per_s"] = n / search_s;
  state.counters["plain_vectors_per_s"] = n / plain_s;
  state.counters["ratio"] = plain_s / search_s;
}
BENCHMARK(BM_VectorSearchScan)->Iterations(20)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
