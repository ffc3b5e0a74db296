// Matrix memory at d = 768, r = 64: recall and store (delta rule, WAL append)
// latency, each as a ratio to one plain pass over the d x r matrix (a
// matrix-vector product written as a simple loop), measured in the same run.
// The counter "ratio" is the operation's time over the plain pass's.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <vector>

#include "data/matrix_memory.h"

namespace {

namespace fs = std::filesystem;
constexpr int kDim = 768;
constexpr int kRank = 64;

std::vector<float> random_vector(std::mt19937& rng) {
  std::normal_distribution<float> n;
  std::vector<float> v(kDim);
  for (auto& x : v) x = n(rng);
  return v;
}

// The baseline: y = M k over a d x r matrix, the simplest loop.
void plain_pass(const std::vector<float>& m, const std::vector<float>& k, std::vector<float>& y) {
  for (int i = 0; i < kDim; ++i) {
    float s = 0;
    for (int j = 0; j < kRank; ++j) s += m[i * kRank + j] * k[j];
    y[i] = s;
  }
}

struct Fixture {
  fs::path dir = fs::temp_directory_path() / ("ostrel-qmm-" + std::to_string(::getpid()));
  ostrel::data::MatrixMemory memory;
  std::mt19937 rng{17};
  std::vector<float> plain_matrix;
  Fixture() {
    ostrel::data::MatrixMemoryConfig c;
    c.tenant_id = "bench";
    c.user_id = "u";
    c.domain = "d";
    c.dimension = kDim;
    c.rank = kRank;
    memory.create(c, dir.string());
    for (int i = 0; i < 100; ++i) memory.store(random_vector(rng), random_vector(rng), 1.0f);
    plain_matrix.resize(kDim * kRank);
    for (auto& x : plain_matrix) x = std::normal_distribution<float>()(rng);
  }
  ~Fixture() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
};

template <typename Op>
void ratio_run(benchmark::State& state, Op op) {
  static Fixture f;
  std::vector<float> key = random_vector(f.rng), value = random_vector(f.rng), y(kDim);
  double op_s = 0, plain_s = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    op(f.memory, key, value);
    auto t1 = std::chrono::steady_clock::now();
    plain_pass(f.plain_matrix, key, y);
    benchmark::DoNotOptimize(y.data());
    auto t2 = std::chrono::steady_clock::now();
    op_s += std::chrono::duration<double>(t1 - t0).count();
    plain_s += std::chrono::duration<double>(t2 - t1).count();
  }
  state.counters["op_us"] = 1e6 * op_s / state.iterations();
  state.counters["plain_pass_us"] = 1e6 * plain_s / state.iterations();
  state.counters["ratio"] = op_s / plain_s;
}

void BM_MatrixMemoryRecall(benchmark::State& state) {
  ratio_run(state, [](ostrel::data::MatrixMemory& m, const std::vector<float>& k,
                      const std::vector<float>&) { benchmark::DoNotOptimize(m.recall(k)); });
}
void BM_MatrixMemoryStore(benchmark::State& state) {
  ratio_run(state, [](ostrel::data::MatrixMemory& m, const std::vector<float>& k,
                      const std::vector<float>& v) { m.store(k, v, 1.0f); });
}
BENCHMARK(BM_MatrixMemoryRecall)->Iterations(20000)->UseRealTime();
BENCHMARK(BM_MatrixMemoryStore)->Iterations(5000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
