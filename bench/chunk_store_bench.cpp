// Chunk store put of 1 MiB chunks against a plain durable write loop (write,
// fdatasync, rename) of the same bytes, measured in one run. The figure is
// the counter "ratio": store MB/s over baseline MB/s.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "clusterfs/chunk_store.h"

namespace {

namespace fs = std::filesystem;
constexpr std::size_t kChunk = 1 << 20;

fs::path scratch(const char* name) {
  fs::path p = fs::temp_directory_path() / (std::string(name) + "-" + std::to_string(::getpid()));
  fs::remove_all(p);
  fs::create_directories(p);
  return p;
}

// Distinct chunks: the store would deduplicate repeated ones.
std::string chunk_bytes(std::uint64_t i) {
  std::string data(kChunk, '\0');
  std::mt19937_64 rng(i);
  for (std::size_t k = 0; k < kChunk; k += 8) {
    std::uint64_t v = rng();
    std::memcpy(data.data() + k, &v, 8);
  }
  return data;
}

// Runs the baseline and the store back to back (interleaved rounds) and
// reports the throughput ratio.
void BM_ChunkStorePut(benchmark::State& state) {
  fs::path plain_dir = scratch("ostrel-bench-plain-r");
  fs::path store_dir = scratch("ostrel-bench-store-r");
  ostrel::clusterfs::ChunkStore store(store_dir);
  std::string data = chunk_bytes(1);
  double plain_s = 0, store_s = 0;
  std::uint64_t i = 0;
  for (auto _ : state) {
    std::memcpy(data.data(), &i, sizeof i);
    auto t0 = std::chrono::steady_clock::now();
    fs::path tmp = plain_dir / (std::to_string(i) + ".tmp");
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (::write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
      state.SkipWithError("write failed");
    }
    ::fdatasync(fd);
    ::close(fd);
    ::rename(tmp.c_str(), (plain_dir / std::to_string(i)).c_str());
    auto t1 = std::chrono::steady_clock::now();
    std::string id, error;
    if (!store.put(data.data(), data.size(), id, error)) state.SkipWithError(error.c_str());
    auto t2 = std::chrono::steady_clock::now();
    plain_s += std::chrono::duration<double>(t1 - t0).count();
    store_s += std::chrono::duration<double>(t2 - t1).count();
    ++i;
  }
  const double mb = static_cast<double>(state.iterations() * kChunk) / 1e6;
  state.counters["store_MBps"] = mb / store_s;
  state.counters["plain_MBps"] = mb / plain_s;
  state.counters["ratio"] = plain_s / store_s;
  fs::remove_all(plain_dir);
  fs::remove_all(store_dir);
}

BENCHMARK(BM_ChunkStorePut)->Iterations(1000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
