// Crash sweeps: for every store that takes writes, several clients write
// through the node's routes, the node is killed with SIGKILL while writes
// are in flight (after a random number of acknowledged ones), started again
// on the same data, and every acknowledged write must be there. A few rounds
// here; OSTREL_CRASH_ROUNDS=40 (make crash-sweep ROUNDS=40) for the long run.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "base/env.h"
#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

// One store under test. `write` sends the write named by `key` to the node
// on `port` and returns what the check needs when the node acknowledged it
// (nothing otherwise); `present` tells whether an acknowledged write is
// there after the restart.
struct Store {
  std::string name;
  std::vector<std::string> modules;
  std::function<std::optional<std::string>(int port, const std::string& key, int writer)> write;
  std::function<bool(const TestNode& node, const std::string& key, const std::string& proof)>
      present;
  std::function<void(const TestNode& node)> prepare = nullptr;
};

void PrintTo(const Store& store, std::ostream* os) { *os << store.name; }

bool ok(const Answer& a) { return a.status >= 200 && a.status < 300; }

std::optional<std::string> acked(const Answer& a, std::string proof = "") {
  if (!ok(a)) return std::nullopt;
  return proof;
}

Answer syscall(int port, const std::string& name, const Json& args) {
  return call_port(port, "POST", "/api/v1/kernel/syscall", {{"name", name}, {"args", args}});
}

// The first account's key, for the stores written after it enabled credentials.
std::string admin_key;

// One agent session a writer, made when the node first starts.
std::array<std::string, 4> agent_sessions;

std::vector<Store> stores() {
  std::vector<Store> all;
  all.push_back({"tenants",
                 {},
                 [](int port, const std::string& key, int) {
                   return acked(call_port(port, "POST", "/api/v1/tenants", {{"id", "t" + key}}));
                 },
                 [](const TestNode& node, const std::string& key, const std::string&) {
                   // The tenant, and the audit event of its creation.
                   return node.call("GET", "/api/v1/tenants/t" + key).status == 200 &&
                          node.call("GET", "/api/v1/audit?action=tenant.create&tenant=t" + key)
                                  .body["returned"] == 1;
                 }});
  all.push_back({"users",
                 {},
                 [](int port, const std::string& key, int) {
                   return acked(call_port(port, "POST", "/api/v1/auth/register",
                                          {{"username", "u" + key + "@sweep.test"},
                                           {"password", "password of " + key}},
                                          admin_key));
                 },
                 [](const TestNode& node, const std::string& key, const std::string&) {
                   return node.call("POST", "/api/v1/auth/login",
                                    {{"username", "u" + key + "@sweep.test"},
                                     {"password", "password of " + key}})
                              .status == 200;
                 },
                 [](const TestNode& node) {
                   // The first account turns credentials on; it registers the others.
                   admin_key =
                       node.call("POST", "/api/v1/auth/register",
                                 {{"username", "admin@sweep.test"}, {"password", "admin password"}})
                           .body.value("api_key", "");
                 }});
  all.push_back(
      {"revocations",
       {},
       [](int port, const std::string&, int) -> std::optional<std::string> {
         Answer issued = call_port(port, "POST", "/api/v1/capabilities/issue",
                                   {{"scopes", {"data.read"}}, {"tenant", "default"}});
         if (!ok(issued)) return std::nullopt;
         const std::string token = issued.body.value("token", "");
         const std::string id = issued.body.value("id", "");
         return acked(call_port(port, "POST", "/api/v1/capabilities/revoke", {{"id", id}}), token);
       },
       [](const TestNode& node, const std::string&, const std::string& token) {
         Answer v = node.call("POST", "/api/v1/capabilities/verify", {{"token", token}});
         return v.body["valid"] == false && v.body["reason"] == "revoked";
       }});
  all.push_back({"vectors",
                 {"inference", "data"},
                 [](int port, const std::string& key, int) {
                   return acked(call_port(
                       port, "POST", "/api/v1/vector/ingest",
                       {{"namespace", "sweep"},
                        {"source", key},
                        {"text", "Record " + key + " of the sweep, kept word for word."}}));
                 },
                 [](const TestNode& node, const std::string& key, const std::string&) {
                   Answer s =
                       node.call("POST", "/api/v1/vector/search",
                                 {{"namespace", "sweep"},
                                  {"query", "Record " + key + " of the sweep, kept word for word."},
                                  {"top_k", 1}});
                   return s.text.find("Record " + key + " ") != std::string::npos;
                 }});
  all.push_back({"memory",
                 {"inference", "data"},
                 [](int port, const std::string& key, int) {
                   return acked(
                       call_port(port, "POST", "/api/v1/memory/store",
                                 {{"key", "sweep key " + key}, {"value", "value of " + key}}));
                 },
                 [](const TestNode& node, const std::string& key, const std::string&) {
                   Answer r = node.call("POST", "/api/v1/memory/recall",
                                        {{"query", "sweep key " + key}, {"top_k", 5}});
                   return r.text.find("\"value of " + key + "\"") != std::string::npos;
                 }});
  all.push_back(
      {"agent turns",
       {"inference", "data", "agent"},
       [](int port, const std::string& key, int writer) {
         const std::string session = agent_sessions[writer];
         return acked(
             call_port(port, "POST", "/api/v1/agent/chat",
                       {{"session_id", session}, {"message", "turn " + key}, {"model", "echo"}}),
             session);
       },
       [](const TestNode& node, const std::string& key, const std::string& session) {
         Answer s = node.call("GET", "/api/v1/agent/sessions/" + session);
         return s.text.find("\"turn " + key + "\"") != std::string::npos;
       },
       [](const TestNode& node) {
         for (auto& id : agent_sessions) {
           id = node.call("POST", "/api/v1/agent/sessions", Json::object())
                    .body.value("session_id", "");
         }
       }});
  all.push_back({"dynamic tools",
                 {"inference", "data", "agent"},
                 [](int port, const std::string& key, int) {
                   return acked(syscall(port, "agent.tool.register",
                                        {{"plugin_id", "sweep"}, {"name", "tool_" + key}}));
                 },
                 [](const TestNode& node, const std::string& key, const std::string&) {
                   Answer l = node.call("POST", "/api/v1/kernel/syscall",
                                        {{"name", "agent.tool.list"}, {"args", Json::object()}});
                   return l.text.find("\"tool_" + key + "\"") != std::string::npos;
                 }});
  all.push_back({"audit",
                 {},
                 [](int port, const std::string& key, int) {
                   return acked(syscall(port, "audit.append", {{"action", "sweep." + key}}));
                 },
                 [](const TestNode& node, const std::string& key, const std::string&) {
                   return node.call("GET", "/api/v1/audit?action=sweep." + key).body["returned"] ==
                          1;
                 }});
  all.push_back(
      {"workers",
       {"controller"},
       [](int port, const std::string& key, int) {
         return acked(call_port(
             port, "POST", "/api/v1/workers",
             {{"id", "w" + key}, {"worker_type", "inference"}, {"url", "http://10.0.0.7:8880"}}));
       },
       [](const TestNode& node, const std::string& key, const std::string&) {
         return node.call("GET", "/api/v1/workers").text.find("\"w" + key + "\"") !=
                std::string::npos;
       }});
  all.push_back({"webhooks",
                 {"controller"},
                 [](int port, const std::string& key, int) {
                   return acked(call_port(port, "POST", "/api/v1/webhooks/subscriptions",
                                          {{"url", "https://hooks.example.com/" + key},
                                           {"events", {"cluster.topology.changed"}},
                                           {"description", key}}));
                 },
                 [](const TestNode& node, const std::string& key, const std::string&) {
                   return node.call("GET", "/api/v1/webhooks/subscriptions")
                              .text.find("hooks.example.com/" + key + "\"") != std::string::npos;
                 }});
  return all;
}

class CrashSweep : public ::testing::TestWithParam<Store> {};

TEST_P(CrashSweep, EveryAcknowledgedWriteSurvivesAKill) {
  const Store& store = GetParam();
  const int rounds = static_cast<int>(base::env::integer("OSTREL_CRASH_ROUNDS", 2, 1, 10000));
  constexpr int kWriters = 4;
  TempDir dir;
  TestNode node(dir.path(), "n1", TestNode::Options{.modules = store.modules});
  ASSERT_TRUE(node.started()) << node.process().err();
  if (store.prepare) store.prepare(node);
  std::mt19937 rng(std::random_device{}());
  std::map<std::string, std::string> kept;  // key → proof, every acknowledged write
  for (int round = 0; round < rounds; ++round) {
    const int port = node.port();
    std::mutex mu;  // guards done, kept (during the round) and stop
    std::condition_variable cv;
    std::size_t done = 0;
    bool stop = false;
    const std::size_t kill_after = std::uniform_int_distribution<std::size_t>(1, 40)(rng);
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
      writers.emplace_back([&, w] {
        for (int i = 0;; ++i) {
          {
            std::lock_guard lock(mu);
            if (stop) return;
          }
          const std::string key =
              "r" + std::to_string(round) + "w" + std::to_string(w) + "n" + std::to_string(i);
          std::optional<std::string> proof = store.write(port, key, w);
          std::lock_guard lock(mu);
          if (proof) {
            kept[key] = *proof;
            ++done;
            cv.notify_all();
          }
        }
      });
    }
    bool reached;
    std::size_t acknowledged;
    {
      std::unique_lock lock(mu);
      reached = cv.wait_for(lock, 60s, [&] { return done >= kill_after; });
      acknowledged = done;
      stop = true;  // writes already sent stay in flight through the kill
    }
    node.restart_hard();
    for (auto& t : writers) t.join();  // before any assertion can leave the test
    ASSERT_TRUE(reached) << store.name << ": only " << acknowledged << " writes acknowledged\n"
                         << node.process().err();
    ASSERT_TRUE(node.started()) << store.name << " round " << round << ": no boot after the kill\n"
                                << node.process().err();
    std::size_t missing = 0;
    for (const auto& [key, proof] : kept) {
      if (!store.present(node, key, proof)) {
        ++missing;
        ADD_FAILURE() << store.name << ": acknowledged write " << key << " lost in round " << round;
        if (missing > 5) break;
      }
    }
    ASSERT_EQ(missing, 0u);
  }
  // The check itself can fail: a write never sent is not found.
  ASSERT_FALSE(kept.empty());
  EXPECT_FALSE(store.present(node, "r9999w9n9999", "")) << store.name;
  RecordProperty("acknowledged_writes", static_cast<int>(kept.size()));
}

INSTANTIATE_TEST_SUITE_P(Stores, CrashSweep, ::testing::ValuesIn(stores()),
                         [](const ::testing::TestParamInfo<Store>& info) {
                           std::string n;
                           for (char c : info.param.name) n += std::isalnum(c) ? c : '_';
                           return n;
                         });

}  // namespace
}  // namespace ostrel::testing
