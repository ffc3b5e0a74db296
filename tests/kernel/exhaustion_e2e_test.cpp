// The real binary under connection exhaustion: silent and dripping clients
// must not take the workers, so that /health and other clients are served.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "kernel/self_health.h"
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

}  // namespace
}  // namespace ostrel::testing
