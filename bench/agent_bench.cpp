// BM_AgentTurn: one non-streamed chat turn through the agent module's chat
// function (the syscall "agent.invoke") with the echo model and no
// retrieval, on a session that already holds 1,000 turns, as a ratio
// (counter "ratio") to the same turn on a new session measured in the same
// run; target <= 1.5. A turn appends one journal line and sends the model
// the newest turns only, so the history is never rewritten or re-read.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "bench/bench_node.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;
const ostrel::identity::SourceCode kBench{0xfe, 0x0a};

struct Node : ostrel::bench::BenchNode {
  Node()
      : BenchNode("agent", {"inference.module.yaml", "agent.module.yaml"},
                  {"inference.ollama_url=http://127.0.0.1:9",
                   "inference.health_poll_interval_seconds=3600"}) {}
  std::string new_session() {
    auto r = kernel->syscalls().call(kBench, "agent.sessions.create", "{}");
    return Json::parse(r.body)["session_id"];
  }
  void turn(const std::string& args) {
    if (kernel->syscalls().call(kBench, "agent.invoke", args).status != 0) std::abort();
  }
};

std::string turn_args(const std::string& session) {
  return Json{{"session_id", session},
              {"message", "What did we decide about the quarterly report?"},
              {"model", "echo"}}
      .dump();
}

void BM_AgentTurn(benchmark::State& state) {
  Node node;
  const std::string big = node.new_session();
  for (int i = 0; i < 500; ++i) node.turn(turn_args(big));  // 1,000 turns: question and reply
  constexpr int kBatch = 200;
  double big_us = 0, fresh_us = 0;
  for (auto _ : state) {
    std::vector<std::string> fresh(kBatch);
    for (auto& s : fresh) s = node.new_session();  // made outside the timing
    const std::string big_args = turn_args(big);
    std::vector<std::string> fresh_args;
    for (const auto& s : fresh) fresh_args.push_back(turn_args(s));
    auto t0 = Clock::now();
    for (const auto& a : fresh_args) node.turn(a);
    auto t1 = Clock::now();
    for (int i = 0; i < kBatch; ++i) node.turn(big_args);
    auto t2 = Clock::now();
    fresh_us += std::chrono::duration<double, std::micro>(t1 - t0).count() / kBatch;
    big_us += std::chrono::duration<double, std::micro>(t2 - t1).count() / kBatch;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["long_session_us"] = big_us / n;
  state.counters["new_session_us"] = fresh_us / n;
  state.counters["ratio"] = big_us / fresh_us;
}
BENCHMARK(BM_AgentTurn)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
