// Aggregation of one million metering events into day buckets against the
// sqlite3 shell running the equivalent GROUP BY on the same file, in one run.
// The counter "ratio" is the engine's time over the shell's (lower is better).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "modules/metering/metering_engine.h"

namespace {

namespace fs = std::filesystem;
constexpr std::int64_t kStart = 1775001540000;  // 2026-03-31T23:59Z
constexpr std::int64_t kSpan = 60LL * 86400 * 1000;
constexpr int kEvents = 1000000;

fs::path build_db() {
  fs::path p =
      fs::temp_directory_path() / ("ostrel-metering-" + std::to_string(::getpid()) + ".db");
  fs::remove(p);
  ostrel::metering::MeteringEngine m(p);
  std::vector<ostrel::metering::MeteringEngine::Event> batch;
  batch.reserve(100000);
  std::string error;
  for (int i = 0; i < kEvents; ++i) {
    batch.push_back({kStart + (kSpan / kEvents) * i, "acme", "", "", "tokens", i % 7, "{}"});
    if (batch.size() == 100000) {
      m.record_batch(batch, error);
      batch.clear();
    }
  }
  m.record_batch({{kStart, "beta", "", "", "tokens", 1, "{}"}}, error);
  return p;
}

double shell_seconds(const fs::path& db) {
  std::string cmd = "sqlite3 " + db.string() +
                    " \"SELECT strftime('%Y-%m-%d', ts_ms/1000, 'unixepoch') AS d, SUM(value) "
                    "FROM events WHERE tenant_id='acme' AND dimension='tokens' AND ts_ms >= " +
                    std::to_string(kStart) + " AND ts_ms < " + std::to_string(kStart + kSpan) +
                    " GROUP BY d ORDER BY d\" > /dev/null";
  auto t0 = std::chrono::steady_clock::now();
  if (std::system(cmd.c_str()) != 0) return -1;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// The benchmark database, removed when the program ends.
struct Database {
  fs::path path = build_db();
  ~Database() {
    std::error_code ec;
    fs::remove(path, ec);
    fs::remove(fs::path(path.string() + "-wal"), ec);
    fs::remove(fs::path(path.string() + "-shm"), ec);
  }
};

void BM_MeteringAggregateDay(benchmark::State& state) {
  static const Database database;
  const fs::path& db = database.path;
  ostrel::metering::MeteringEngine m(db);
  double engine_s = 0, shell_s = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    ostrel::metering::AggregateResult r;
    std::string error;
    if (!m.aggregate("acme", "tokens", kStart, kStart + kSpan, "day", r, error)) {
      state.SkipWithError(error.c_str());
    }
    engine_s += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (r.buckets.size() != 61) state.SkipWithError("unexpected bucket count");
    double s = shell_seconds(db);
    if (s < 0) state.SkipWithError("sqlite3 shell failed");
    shell_s += s;
  }
  state.counters["engine_ms"] = 1000 * engine_s / state.iterations();
  state.counters["shell_ms"] = 1000 * shell_s / state.iterations();
  state.counters["ratio"] = engine_s / shell_s;
}
BENCHMARK(BM_MeteringAggregateDay)->Iterations(5)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
