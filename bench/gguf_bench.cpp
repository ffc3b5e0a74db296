// GGUF inspection of a multi-gigabyte (sparse) model file: how long an open
// takes and how many pages it touches, against a small file with the same
// header. Inspection must read the header pages only.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "inference/gguf.h"

namespace {

namespace fs = std::filesystem;

std::string header_bytes() {
  std::string b = "GGUF";
  auto put = [&](auto v) { b.append(reinterpret_cast<const char*>(&v), sizeof v); };
  auto str = [&](const std::string& s) {
    put(static_cast<std::uint64_t>(s.size()));
    b += s;
  };
  put(std::uint32_t{3});
  put(std::uint64_t{64});  // tensors
  put(std::uint64_t{2});   // keys
  str("general.architecture");
  put(std::uint32_t{8});
  str("llama");
  str("llama.context_length");
  put(std::uint32_t{4});
  put(std::uint32_t{4096});
  for (int i = 0; i < 64; ++i) {
    str("blk." + std::to_string(i) + ".weight");
    put(std::uint32_t{2});
    put(std::uint64_t{4096});
    put(std::uint64_t{4096});
    put(std::uint32_t{1});  // F16: 32 MiB each, 2 GiB in all
    put(static_cast<std::uint64_t>(i) * 4096 * 4096 * 2);
  }
  return b;
}

fs::path make_file(const std::string& name, std::uint64_t size) {
  fs::path p = fs::temp_directory_path() / (name + "-" + std::to_string(::getpid()) + ".gguf");
  std::ofstream(p, std::ios::binary) << header_bytes();
  fs::resize_file(p, size);  // sparse: the tensor data is a hole
  return p;
}

long minor_faults() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_minflt + u.ru_majflt;
}

void inspect(benchmark::State& state, std::uint64_t size) {
  fs::path file = make_file(size > (1u << 20) ? "big" : "small", size);
  long faults = 0;
  for (auto _ : state) {
    long before = minor_faults();
    ostrel::inference::gguf::GGUFFile f;
    std::string error;
    if (!f.open(file.string(), error)) state.SkipWithError(error.c_str());
    benchmark::DoNotOptimize(f.parameter_count);
    faults += minor_faults() - before;
  }
  state.counters["file_gib"] = static_cast<double>(size) / (1ull << 30);
  state.counters["page_faults_per_open"] = static_cast<double>(faults) / state.iterations();
  fs::remove(file);
}

void BM_GGUFInspectSparse4GiB(benchmark::State& s) { inspect(s, 4ull << 30); }
void BM_GGUFInspectSmall(benchmark::State& s) { inspect(s, 64 * 1024); }
BENCHMARK(BM_GGUFInspectSparse4GiB);
BENCHMARK(BM_GGUFInspectSmall);

}  // namespace

BENCHMARK_MAIN();
