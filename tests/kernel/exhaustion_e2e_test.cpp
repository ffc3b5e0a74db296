// The real binary under connection exhaustion: silent and dripping clients
// must not take the workers, so that /health and other clients are served.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include <fstream>
#include <nlohmann/json.hpp>

#include "kernel/boot/self_health.h"
#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;

int connect_to(int port, const char* from = nullptr) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (from) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    ::inet_pton(AF_INET, from, &local.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local);
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// 200 connections that never send a byte and 70 that drip a header byte a
// second: the node stays up, /health answers within a second all along, and
// a client from another address gets its requests served. The run lasts 6 s
// here; OSTREL_SOAK_SECONDS makes it longer (90 for the full soak).
TEST(Exhaustion, IdleAndDrippingClientsLeaveTheNodeServing) {
  TempDir dir;
  std::filesystem::create_directories(dir / "modules.d");
  Process::Options o;
  o.args = {"--port=0", "--bind=127.0.0.1", "--data-dir=" + (dir / "data").string(),
            "--modules-d=" + (dir / "modules.d").string()};
  o.unset_env = {"OSTREL_AUTH", "OSTREL_DATA_DIR", "OSTREL_CLUSTER_SECRET", "OSTREL_ULVO_PEERS"};
  o.set_env = {{"OSTREL_CONFIG_DIR", (dir / "config").string()}};
  Process node(OSTREL_BINARY, o, dir / "logs");
  const int port = wait_for_ready_port(node, 15s);
  ASSERT_GT(port, 0) << node.err();

  const char* soak = std::getenv("OSTREL_SOAK_SECONDS");
  const auto duration = std::chrono::seconds(soak ? std::atoi(soak) : 6);

  std::vector<int> idle, drippers;
  for (int i = 0; i < 200; ++i) idle.push_back(connect_to(port));
  for (int i = 0; i < 70; ++i) {
    int fd = connect_to(port);
    drippers.push_back(fd);
  }
  for (int fd : idle) ASSERT_GE(fd, 0);
  std::atomic<bool> stop{false};
  std::thread drip([&] {
    const std::string head = "GET /slow HTTP/1.1\r\nX-Drip: ";
    for (std::size_t i = 0; !stop; ++i) {
      for (int& fd : drippers) {
        if (fd < 0) continue;
        char c = i < head.size() ? head[i] : 'a';
        if (::send(fd, &c, 1, MSG_NOSIGNAL) != 1) {
          // Cut off after the head's time: come back, as an attacker would.
          ::close(fd);
          fd = connect_to(port);
        }
      }
      for (int t = 0; t < 10 && !stop; ++t) std::this_thread::sleep_for(100ms);
    }
  });

  // Another client, from another loopback address, over one kept-alive
  // connection.
  int other = connect_to(port, "127.0.0.2");
  ASSERT_GE(other, 0);
  auto other_request = [&] {
    const std::string req = "GET /api/v1/kernel/stats HTTP/1.1\r\nHost: x\r\n\r\n";
    if (::send(other, req.data(), req.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(req.size())) {
      return false;
    }
    std::string got;
    const auto deadline = std::chrono::steady_clock::now() + 2s;
    char buf[4096];
    while (got.find("\"node_id\"") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
      timeval tv{0, 200000};
      ::setsockopt(other, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
      ssize_t n = ::recv(other, buf, sizeof buf, 0);
      if (n == 0) return false;
      if (n > 0) got.append(buf, static_cast<std::size_t>(n));
    }
    return got.rfind("HTTP/1.1 200", 0) == 0 && got.find("\"node_id\"") != std::string::npos;
  };
  int probes = 0, slow = 0, served = 0;
  const auto end = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < end) {
    auto t0 = std::chrono::steady_clock::now();
    bool ok = kernel::probe_health("127.0.0.1", static_cast<std::uint16_t>(port), 1000);
    auto took = std::chrono::steady_clock::now() - t0;
    ++probes;
    if (!ok || took > 1s) ++slow;
    if (other_request()) ++served;
    std::this_thread::sleep_for(200ms);
  }
  stop = true;
  drip.join();
  EXPECT_EQ(slow, 0) << "of " << probes << " probes";
  EXPECT_EQ(served, probes);
  EXPECT_FALSE(node.wait_exit(0ms).has_value()) << "the node exited:\n" << node.err();
  ::close(other);
  for (int fd : idle) ::close(fd);
  for (int fd : drippers) {
    if (fd >= 0) ::close(fd);
  }
}

// Sends a request head and nothing more; the connection stays open.
int send_head(int port, const std::string& head, const char* from = nullptr) {
  int fd = connect_to(port, from);
  if (fd >= 0) ::send(fd, head.data(), head.size(), MSG_NOSIGNAL);
  return fd;
}

// Everything the server sends on `fd` until it closes or `timeout` passes.
std::string read_answer(int fd, std::chrono::milliseconds timeout) {
  std::string got;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buf[4096];
  while (std::chrono::steady_clock::now() < deadline) {
    timeval tv{0, 100000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n == 0) break;
    if (n > 0) got.append(buf, static_cast<std::size_t>(n));
  }
  return got;
}

// Bodies that come a byte at a time: small ones are read with their head
// and never reach a worker; large ones hold at most part of the workers,
// and only while they keep a minimum pace (then 408). Meanwhile an
// administrator's requests are served. A full connection table makes room
// for /health by closing the connection silent longest.
TEST(Exhaustion, SlowBodiesAndAFullConnectionTableLeaveTheNodeServing) {
  TempDir dir;
  TestNode::Options o;
  o.modules = {};
  o.enforce = true;
  o.env = {{"OSTREL_ULVO_HTTP_THREADS", "8"},
           {"OSTREL_ULVO_HTTP_BODY_GRACE_S", "1"},
           {"OSTREL_ULVO_HTTP_HEAD_TIMEOUT_S", "3"},
           {"OSTREL_ULVO_HTTP_MAX_CONNECTIONS", "120"}};
  TestNode node(dir.path(), "n1", o);
  ASSERT_TRUE(node.started()) << node.process().err();
  const std::string admin = node.admin_token();

  // Twenty large and twenty small login bodies, each dripping.
  std::vector<int> large, small;
  for (int i = 0; i < 20; ++i) {
    large.push_back(send_head(node.port(),
                              "POST /api/v1/auth/login HTTP/1.1\r\nHost: x\r\nContent-Type: "
                              "application/json\r\nContent-Length: 100000\r\n\r\n{"));
    small.push_back(send_head(node.port(),
                              "POST /api/v1/auth/login HTTP/1.1\r\nHost: x\r\nContent-Type: "
                              "application/json\r\nContent-Length: 60\r\n\r\n{"));
  }
  std::atomic<bool> stop{false};
  std::thread drip([&] {
    while (!stop) {
      for (int fd : large) ::send(fd, " ", 1, MSG_NOSIGNAL);
      for (int fd : small) ::send(fd, " ", 1, MSG_NOSIGNAL);
      for (int t = 0; t < 5 && !stop; ++t) std::this_thread::sleep_for(100ms);
    }
  });
  int served = 0;
  for (int i = 0; i < 10; ++i) {
    httplib::Client c("127.0.0.1", node.port());
    c.set_read_timeout(2, 0);
    auto r = c.Get("/api/v1/kernel/modules", {{"X-Ostrel-Capability", admin}});
    served += r && r->status == 200;
    std::this_thread::sleep_for(200ms);
  }
  stop = true;
  drip.join();
  EXPECT_EQ(served, 10);
  // The large ones were cut for their pace (or never given a worker); the
  // small ones for their head's time; none was answered as a login.
  int timed_out = 0, busy = 0;
  for (int fd : large) {
    const std::string a = read_answer(fd, 3s);
    timed_out += a.find("HTTP/1.1 408") == 0;
    busy += a.find("HTTP/1.1 503") == 0;
    EXPECT_EQ(a.find("invalid username"), std::string::npos);
    ::close(fd);
  }
  EXPECT_EQ(timed_out + busy, 20);
  EXPECT_GT(timed_out, 0);
  for (int fd : small) {
    EXPECT_EQ(read_answer(fd, 4s).find("HTTP/1.1 408"), 0u);
    ::close(fd);
  }

  // 120 silent connections fill the table; a probe still gets in.
  std::vector<int> silent;
  for (int i = 0; i < 120; ++i) silent.push_back(connect_to(node.port()));
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(kernel::probe_health("127.0.0.1", static_cast<std::uint16_t>(node.port()), 1000))
        << i;
    httplib::Client c("127.0.0.1", node.port());
    auto m = c.Get("/metrics");
    EXPECT_TRUE(m && m->status == 200) << i;
  }
  for (int fd : silent) ::close(fd);
}

// The peak resident memory of the node while it answers one request, above
// what it held before (the high-water mark is reset first).
std::size_t peak_growth(pid_t pid, const std::function<void()>& request) {
  const std::string path = "/proc/" + std::to_string(pid);
  std::ofstream(path + "/clear_refs") << "5";
  const std::size_t before = resident_bytes(pid);
  request();
  std::ifstream status(path + "/status");
  std::string line;
  std::size_t hwm = 0;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) hwm = std::stoull(line.substr(6)) * 1024;
  }
  return hwm > before ? hwm - before : 0;
}

// Requests whose size is their danger: a long chat holds a few times its
// body at most; embeddings, ingest and agent messages have bounds that are
// checked before the work starts.
TEST(Exhaustion, RequestWorkIsBoundedBeforeItStarts) {
  TempDir dir;
  TestNode node(dir.path(), "n1",
                TestNode::Options{.modules = {"inference", "router", "edge", "data", "agent"}});
  ASSERT_TRUE(node.started()) << node.process().err();
  using Json = nlohmann::json;
  const pid_t pid = node.process().pid();

  // Eight megabytes of text to the echo model, whole and streamed, one word
  // or many: the node's peak stays within six times the body.
  const std::size_t body = 8u << 20;
  for (const bool words : {false, true}) {
    for (const char* path : {"/v1/chat/completions", "/v1/inference/chat"}) {
      for (const bool stream : {false, true}) {
        const std::string text = words ? [] {
          std::string t;
          for (std::size_t i = 0; i < (4u << 20); ++i) t += "a ";
          return t;
        }()
                                       : std::string(body, 'a');
        const std::string request = Json{{"model", "echo"},
                                         {"stream", stream},
                                         {"messages", {{{"role", "user"}, {"content", text}}}}}
                                        .dump();
        int status = 0;
        std::size_t answered = 0;
        const std::size_t grew = peak_growth(pid, [&] {
          httplib::Client c("127.0.0.1", node.port());
          c.set_read_timeout(60, 0);
          auto r = c.Post(path, request, "application/json");
          status = r ? r->status : 0;
          answered = r ? r->body.size() : 0;
        });
        EXPECT_EQ(status, 200) << path;
        EXPECT_GE(answered, body) << path;
        if (testing::kMemoryBoundsHold)
          EXPECT_LE(grew, 6 * body)
              << path << (stream ? " streamed" : "") << (words ? " words" : "");
      }
    }
  }

  // Embeddings: at most 2048 inputs, 8192 tokens each, 300,000 in all.
  Json many = Json::array();
  for (int i = 0; i < 100000; ++i) many.push_back("a");
  Answer too_many =
      node.call("POST", "/v1/embeddings", {{"model", "ulvo-hash-embed-v1"}, {"input", many}});
  EXPECT_EQ(too_many.status, 400) << too_many.text.substr(0, 200);
  EXPECT_EQ(too_many.body["error"]["code"], "too_many_inputs");
  std::string long_input;
  for (int i = 0; i < 9000; ++i) long_input += "word ";
  EXPECT_EQ(
      node.call("POST", "/v1/embeddings", {{"model", "ulvo-hash-embed-v1"}, {"input", long_input}})
          .body["error"]["code"],
      "input_too_long");
  Answer fine = node.call("POST", "/v1/embeddings",
                          {{"model", "ulvo-hash-embed-v1"}, {"input", Json(2048, "a b c")}});
  EXPECT_EQ(fine.status, 200);
  EXPECT_EQ(fine.body["data"].size(), 2048u);

  // Ingest: a chunk size too small, or too many chunks, is refused at once
  // and nothing is stored.
  const std::string doc(50000, 'x');
  Answer tiny = node.call("POST", "/api/v1/vector/ingest",
                          {{"namespace", "n"}, {"text", doc}, {"chunk_size", 1}});
  EXPECT_EQ(tiny.status, 400) << tiny.text;
  Answer crowded =
      node.call("POST", "/api/v1/vector/ingest",
                {{"namespace", "n"}, {"text", doc}, {"chunk_size", 64}, {"chunk_overlap", 63}});
  EXPECT_EQ(crowded.status, 413) << crowded.text;
  EXPECT_EQ(crowded.body["error"], "too_many_chunks");
  EXPECT_FALSE(std::filesystem::exists(node.data_dir() / "vectors" / "default_n.jsonl"));

  // An agent message is kept and sent again: it has a size.
  Answer huge_turn = node.call("POST", "/api/v1/agent/chat",
                               {{"message", std::string(2u << 20, 'm')}, {"model", "echo"}});
  EXPECT_EQ(huge_turn.status, 413) << huge_turn.text.substr(0, 200);
  EXPECT_EQ(huge_turn.body["error"], "message_too_large");
}

}  // namespace
}  // namespace ostrel::testing
