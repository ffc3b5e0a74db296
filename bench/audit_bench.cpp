// The audit log and the tool policy, each against a baseline measured in the
// same run (counter "ratio"):
//  BM_AuditAppend  audit.append of a typical event through a booted node's
//                  syscall table / SHA-256 over the same canonical body and a
//                  write() of its JSON line in a plain loop; target <= 2.
//  BM_RoleCheck    a security.role.check decision in enforce mode, with its
//                  audit line, through the syscall table / the same baseline;
//                  target <= 3.
//  BM_AuditVerify  verifying a 1-million-event log / hashing the same
//                  canonical bodies in a plain loop; target <= 1.3.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "bench/bench_node.h"
#include "identity/audit_log.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;
const ostrel::identity::SourceCode kBench{0x06, 0x02};

const char* kEventArgs =
    R"({"action":"agent.tool.run","resource":"rag_search","outcome":"ok","tenant":"acme",)"
    R"("actor":"user:alice","metadata":{"session":"s-1234","role":"viewer","latency_ms":12}})";

// A node with the security module in a directory of its own.
struct Node : ostrel::bench::BenchNode {
  Node() : BenchNode("audit", {"security.module.yaml"}) {}
};

// The plain loop: SHA-256 over (prev ‖ canonical body) and one write() of a
// JSON line carrying the event, per event.
struct Baseline {
  int fd;
  unsigned char prev[32] = {};
  ostrel::base::Sha256 sha;  // the digest fetched once, as the log does
  explicit Baseline(const fs::path& file)
      : fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}
  ~Baseline() { ::close(fd); }
  void run(std::uint64_t seq) {
    ostrel::identity::AuditEvent e;
    e.seq = seq;
    e.ts_ms = 1795000000000;
    e.actor = "user:alice";
    e.action = "agent.tool.run";
    e.resource = "rag_search";
    e.outcome = "ok";
    e.tenant = "acme";
    e.metadata = R"({"latency_ms":12,"role":"viewer","session":"s-1234"})";
    const std::string body = ostrel::identity::AuditLog::canonical_body(e);
    sha.digest(std::string_view(reinterpret_cast<const char*>(prev), 32), body, prev);
    std::copy(prev, prev + 32, e.hash.begin());
    const std::string line = ostrel::identity::AuditLog::journal_line(e) + "\n";
    if (::write(fd, line.data(), line.size()) < 0) std::abort();
  }
};

double baseline_us(const fs::path& dir, int n) {
  Baseline b(dir / "baseline.jsonl");
  const auto t0 = Clock::now();
  for (int i = 1; i <= n; ++i) b.run(static_cast<std::uint64_t>(i));
  return std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / n;
}

void BM_AuditAppend(benchmark::State& state) {
  Node node;
  auto& sys = node.kernel->syscalls();
  double node_us = 0, base_us = 0;
  constexpr int kBatch = 2000;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      if (sys.call(kBench, "audit.append", kEventArgs).status != 0) std::abort();
    }
    node_us += std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / kBatch;
    base_us += baseline_us(node.dir, kBatch);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["append_us"] = node_us / n;
  state.counters["baseline_us"] = base_us / n;
  state.counters["ratio"] = node_us / base_us;
}
BENCHMARK(BM_AuditAppend)->Iterations(10)->Unit(benchmark::kMillisecond);

void BM_RoleCheck(benchmark::State& state) {
  Node node;
  auto& sys = node.kernel->syscalls();
  if (sys.call(kBench, "security.role.set_mode", R"({"mode":"enforce"})").status != 0) std::abort();
  const char* args =
      R"({"tool":"rag_search","context":{"user_id":"alice","role":"viewer","tenant_id":"acme",)"
      R"("project_id":"p1","args":{"query":"quarterly report","top_k":5}}})";
  double check_us = 0, base_us = 0;
  constexpr int kBatch = 2000;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      if (sys.call(kBench, "security.role.check", args).status != 0) std::abort();
    }
    check_us += std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / kBatch;
    base_us += baseline_us(node.dir, kBatch);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["check_us"] = check_us / n;
  state.counters["baseline_us"] = base_us / n;
  state.counters["ratio"] = check_us / base_us;
}
BENCHMARK(BM_RoleCheck)->Iterations(10)->Unit(benchmark::kMillisecond);

void BM_AuditVerify(benchmark::State& state) {
  constexpr int kEvents = 1000000;
  ostrel::identity::AuditLog log("/dev/null");
  log.replay_journal();
  for (int i = 0; i < kEvents; ++i) {
    log.append(kBench, "user:u" + std::to_string(i % 100), "agent.tool.run", "rag_search", "ok",
               "acme", R"({"latency_ms":12,"role":"viewer"})");
  }
  // The baseline hashes the same bodies, built beforehand.
  std::vector<std::string> bodies;
  bodies.reserve(kEvents);
  std::size_t total = 0;
  ostrel::identity::AuditLog::Filter all;
  all.limit = kEvents;
  for (const auto& e : log.query(all, total))
    bodies.push_back(ostrel::identity::AuditLog::canonical_body(e));
  double verify_s = 0, hash_s = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    auto v = log.verify();
    const auto t1 = Clock::now();
    if (!v.ok) std::abort();
    unsigned char prev[32] = {};
    ostrel::base::Sha256 sha;
    for (const auto& b : bodies)
      sha.digest(std::string_view(reinterpret_cast<const char*>(prev), 32), b, prev);
    const auto t2 = Clock::now();
    benchmark::DoNotOptimize(prev);
    verify_s += std::chrono::duration<double>(t1 - t0).count();
    hash_s += std::chrono::duration<double>(t2 - t1).count();
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["verify_ms"] = verify_s * 1000 / n;
  state.counters["hash_ms"] = hash_s * 1000 / n;
  state.counters["ratio"] = verify_s / hash_s;
}
BENCHMARK(BM_AuditVerify)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
