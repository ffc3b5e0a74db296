// In-process cost of the gateway's dispatch path on an authenticated route:
// enforce mode with a valid (cached) token against auth off, same request.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>

#include "kernel/kernel.h"

namespace {

using namespace ostrel::kernel;

struct Node {
  std::filesystem::path dir;
  std::unique_ptr<Kernel> kernel;
  std::string token;

  explicit Node(AuthMode mode) {
    dir = std::filesystem::temp_directory_path() / ("ostrel-bench-" + std::to_string(::getpid()) +
                                                    (mode == AuthMode::enforce ? "-e" : "-o"));
    std::filesystem::create_directories(dir / "modules.d");
    KernelConfig cfg;
    cfg.data_dir = (dir / "data").string();
    cfg.modules_d = (dir / "modules.d").string();
    cfg.bind = "127.0.0.1";
    cfg.port = 0;
    cfg.auth_mode = mode;
    ostrel::obs::Logger::instance().set_threshold(ostrel::obs::LogLevel::error);
    kernel = std::make_unique<Kernel>(cfg);
    kernel->boot();
    token = kernel->capabilities().issue(ostrel::identity::kKernelSource, {"admin.*"}, "", 3600);
  }
  ~Node() {
    kernel.reset();
    std::filesystem::remove_all(dir);
  }
};

void run(benchmark::State& state, AuthMode mode) {
  static Node open(AuthMode::off), enforcing(AuthMode::enforce);
  Node& node = mode == AuthMode::enforce ? enforcing : open;
  Request base;
  base.method = "GET";
  base.path = "/api/v1/kernel/stats";
  base.client_addr = "127.0.0.1";
  base.headers["X-Ostrel-Capability"] = enforcing.token;
  for (auto _ : state) {
    Request req = base;
    Response res;
    node.kernel->gateway().handle(req, res);
    if (res.status != 200) state.SkipWithError("unexpected status");
    benchmark::DoNotOptimize(res.body);
  }
}

void BM_StatsAuthOff(benchmark::State& s) { run(s, AuthMode::off); }
void BM_StatsEnforce(benchmark::State& s) { run(s, AuthMode::enforce); }
BENCHMARK(BM_StatsAuthOff);
BENCHMARK(BM_StatsEnforce);

}  // namespace

BENCHMARK_MAIN();
