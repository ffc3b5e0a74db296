// Two costs an operator pays on every request or scrape, each against a
// baseline measured in the same run (counter "ratio"):
//  BM_ApiKeyAuth     a request carrying a user's API key through the gateway
//                    of an enforcing node / the same request carrying a
//                    (cached) capability token; target <= 1.5.
//  BM_MetricsScrape  rendering 1,000 labelled series in the Prometheus text
//                    format / writing the same text with a plain loop;
//                    target <= 2.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "kernel/kernel.h"
#include "kernel/obs/telemetry.h"

namespace {

namespace fs = std::filesystem;
using namespace ostrel::kernel;
using Clock = std::chrono::steady_clock;

struct Node {
  fs::path dir;
  std::unique_ptr<Kernel> kernel;
  std::string token, key;
  Node() {
    dir = fs::temp_directory_path() / ("ostrel-auth-bench-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "modules.d");
    ::setenv("OSTREL_CONFIG_DIR", (dir / "config").c_str(), 1);
    ostrel::obs::Logger::instance().set_threshold(ostrel::obs::LogLevel::error);
    KernelConfig cfg;
    cfg.data_dir = (dir / "data").string();
    cfg.modules_d = (dir / "modules.d").string();
    cfg.bind = "127.0.0.1";
    cfg.port = 0;
    cfg.auth_mode = AuthMode::enforce;
    kernel = std::make_unique<Kernel>(cfg);
    if (!kernel->boot()) std::abort();
    token = kernel->capabilities().issue(ostrel::identity::kKernelSource, {"admin.*"}, "", 3600);
    SyscallResult r = kernel->syscalls().call(
        ostrel::identity::kKernelSource, "identity.users.create",
        R"({"username":"bench","password":"bench password","role":"admin"})");
    auto body = nlohmann::json::parse(r.body, nullptr, false);
    if (r.status != 0 || !body.contains("api_key")) std::abort();
    key = body["api_key"];
  }
  ~Node() {
    kernel.reset();
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
};

// Microseconds per request of `n` stats requests with one credential header.
double per_request_us(Node& node, const std::string& header, const std::string& value, int n) {
  Request base;
  base.method = "GET";
  base.path = "/api/v1/kernel/stats";
  base.client_addr = "127.0.0.1";
  base.headers[header] = value;
  const auto t0 = Clock::now();
  for (int i = 0; i < n; ++i) {
    Request req = base;
    Response res;
    node.kernel->gateway().handle(req, res);
    if (res.status != 200) std::abort();
    benchmark::DoNotOptimize(res.body);
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / n;
}

void BM_ApiKeyAuth(benchmark::State& state) {
  Node node;
  double key_us = 0, token_us = 0;
  constexpr int kBatch = 2000;
  per_request_us(node, "X-API-Key", node.key, 100);  // warm both caches
  per_request_us(node, "X-Ostrel-Capability", node.token, 100);
  for (auto _ : state) {
    key_us += per_request_us(node, "X-API-Key", node.key, kBatch);
    token_us += per_request_us(node, "X-Ostrel-Capability", node.token, kBatch);
  }
  state.counters["key_us"] = key_us / state.iterations();
  state.counters["token_us"] = token_us / state.iterations();
  state.counters["ratio"] = key_us / token_us;
}
BENCHMARK(BM_ApiKeyAuth)->Iterations(20)->Unit(benchmark::kMillisecond);

constexpr int kSeries = 1000;
const char* kName = "ostrel.bench.requests_total";

std::string route_of(int i) { return "/api/v1/route/" + std::to_string(i); }

// The text /metrics serves for the family, written directly from a vector
// of (route, value) pairs.
std::string plain_render(const std::vector<std::pair<std::string, double>>& series) {
  std::string out =
      "# HELP ostrel_bench_requests_total Requests by route and code\n"
      "# TYPE ostrel_bench_requests_total counter\n";
  for (const auto& [route, v] : series) {
    out += "ostrel_bench_requests_total{code=\"200\",route=\"";
    out += route;
    out += "\"} ";
    char buf[32];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, end);
    out += '\n';
  }
  return out;
}

void BM_MetricsScrape(benchmark::State& state) {
  auto& t = telemetry::Telemetry::instance();
  t.describe(kName, "Requests by route and code");
  for (int i = 0; i < kSeries; ++i)
    t.counter(kName, i + 1, {{"code", "200"}, {"route", route_of(i)}});
  if (t.to_prometheus().find("_other") != std::string::npos) std::abort();
  std::vector<std::pair<std::string, double>> series;
  for (int i = 0; i < kSeries; ++i) series.push_back({route_of(i), i + 1.0});
  double render_us = 0, plain_us = 0;
  constexpr int kBatch = 50;
  for (auto _ : state) {
    auto t0 = Clock::now();
    for (int i = 0; i < kBatch; ++i) benchmark::DoNotOptimize(t.to_prometheus());
    render_us += std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / kBatch;
    t0 = Clock::now();
    for (int i = 0; i < kBatch; ++i) benchmark::DoNotOptimize(plain_render(series));
    plain_us += std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / kBatch;
  }
  state.counters["render_us"] = render_us / state.iterations();
  state.counters["plain_us"] = plain_us / state.iterations();
  state.counters["ratio"] = render_us / plain_us;
}
BENCHMARK(BM_MetricsScrape)->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
