#include "kernel/http/http_server.h"

#include "kernel/http/http_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"

namespace ostrel::kernel {
namespace {

using namespace std::chrono_literals;

// A client that speaks raw bytes, to control exactly what the server sees.
class RawClient {
 public:
  explicit RawClient(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~RawClient() { ::close(fd_); }
  bool connected() const { return connected_; }

  void send(const std::string& bytes) {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }

  // Reads until `received` contains `needle` (true), or the peer closes or
  // the time passes (false).
  bool read_until(const std::string& needle, std::chrono::milliseconds timeout = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (received.find(needle) == std::string::npos) {
      if (!read_some(deadline)) return false;
    }
    return true;
  }

  // True when the peer closes the connection within the time.
  bool closes(std::chrono::milliseconds timeout = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (read_some(deadline)) {
    }
    return eof_;
  }

  std::string received;

 private:
  bool read_some(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
    char buf[4096];
    ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    if (n <= 0) {
      eof_ = true;
      return false;
    }
    received.append(buf, static_cast<size_t>(n));
    return true;
  }

  int fd_;
  bool connected_ = false;
  bool eof_ = false;
};

size_t count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

// Echoes method, path, body and client address; "/stream" answers a stream
// whose first piece waits until the test opens the gate.
struct EchoServer {
  std::atomic<bool> gate{false};
  std::atomic<int> piece_results{0};  // pieces the producer could write
  HttpServer server{[this](Request& req, Response& res, BodySource* body) {
    if (body && body->present) {
      body->read([&](const char* d, size_t n) {
        req.body.append(d, n);
        return true;
      });
    }
    if (req.path == "/stream") {
      res.content_type = "text/event-stream";
      res.stream = [this](const StreamWrite& write) {
        for (int i = 0; i < 200 && !gate; ++i) std::this_thread::sleep_for(10ms);
        if (write("data: one\n\n")) ++piece_results;
        if (write("data: [DONE]\n\n")) ++piece_results;  // held for the end of the body
      };
      return;
    }
    res.content_type = "text/plain";
    res.body = req.method + " " + req.path + " " + req.body + " from " + req.client_addr;
  }};
};

// Requests sent back to back in one packet are all answered, in order, on
// the same connection; a request that expects "100 Continue" gets it before
// it sends its body.
TEST(HttpServer, PipelinedRequestsAndInterimContinue) {
  EchoServer echo;
  ASSERT_TRUE(echo.server.start("127.0.0.1", 0));
  RawClient c(echo.server.port());
  ASSERT_TRUE(c.connected());

  c.send(
      "GET /a HTTP/1.1\r\nHost: x\r\n\r\n"
      "POST /b HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello"
      "GET /c HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(c.read_until("GET /c  from 127.0.0.1")) << c.received;
  EXPECT_EQ(count(c.received, "HTTP/1.1 200 OK\r\n"), 3u);
  size_t a = c.received.find("GET /a  from 127.0.0.1");
  size_t b = c.received.find("POST /b hello from 127.0.0.1");
  size_t last = c.received.find("GET /c  from 127.0.0.1");
  EXPECT_LT(a, b);
  EXPECT_LT(b, last);

  c.received.clear();
  c.send("POST /d HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
  ASSERT_TRUE(c.read_until("HTTP/1.1 100 Continue\r\n\r\n")) << c.received;
  c.send("body");
  ASSERT_TRUE(c.read_until("POST /d body from 127.0.0.1")) << c.received;
  EXPECT_EQ(count(c.received, "HTTP/1.1 200 OK\r\n"), 1u);
  echo.server.stop();
}

// A streamed answer sends its head at once, before the first piece exists;
// the pieces follow as they are written, the closing event with the end of
// the body.
TEST(HttpServer, StreamHeadLeavesBeforeTheFirstPiece) {
  EchoServer echo;
  ASSERT_TRUE(echo.server.start("127.0.0.1", 0));
  RawClient c(echo.server.port());
  c.send("GET /stream HTTP/1.1\r\nHost: x\r\n\r\n");
  bool head = c.read_until("\r\n\r\n", 3s);
  bool early = echo.piece_results == 0 && c.received.find("data:") == std::string::npos;
  echo.gate = true;
  EXPECT_TRUE(head) << c.received;
  EXPECT_TRUE(early) << c.received;
  EXPECT_NE(c.received.find("Transfer-Encoding: chunked"), std::string::npos);
  ASSERT_TRUE(c.read_until("0\r\n\r\n")) << c.received;
  EXPECT_NE(c.received.find("data: one\n\n"), std::string::npos);
  EXPECT_NE(c.received.find("data: [DONE]\n\n\r\n0\r\n\r\n"), std::string::npos);
  EXPECT_EQ(echo.piece_results, 2);
  echo.server.stop();
}

// Connections end when they should: after an HTTP/1.0 answer, after a
// malformed request (answered 400 in JSON), and when the server stops while
// they wait between requests — without waiting out the keep-alive time.
TEST(HttpServer, ConnectionsCloseOnRequestAndOnStop) {
  EchoServer echo;
  ASSERT_TRUE(echo.server.start("127.0.0.1", 0));

  RawClient old(echo.server.port());
  old.send("GET /old HTTP/1.0\r\n\r\n");
  EXPECT_TRUE(old.closes());
  EXPECT_NE(old.received.find("GET /old  from 127.0.0.1"), std::string::npos) << old.received;

  RawClient bad(echo.server.port());
  bad.send("NONSENSE\r\n\r\n");
  EXPECT_TRUE(bad.closes());
  EXPECT_NE(bad.received.find("HTTP/1.1 400"), std::string::npos) << bad.received;
  EXPECT_NE(bad.received.find("{\"error\":\"bad_request\"}"), std::string::npos) << bad.received;

  RawClient idle(echo.server.port());
  idle.send("GET /idle HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(idle.read_until("GET /idle  from 127.0.0.1"));
  RawClient silent(echo.server.port());  // connected, never sends a byte
  ASSERT_TRUE(silent.connected());
  // Both now wait in the server for a request.
  ASSERT_TRUE(ostrel::testing::eventually([&] { return echo.server.open_connections() == 2; }, 3s));

  auto before = std::chrono::steady_clock::now();
  echo.server.stop();
  auto took = std::chrono::steady_clock::now() - before;
  EXPECT_LT(took, 3s);  // the keep-alive timeout is 5 s
  EXPECT_TRUE(idle.closes(1s));
  EXPECT_TRUE(silent.closes(1s));
  EXPECT_FALSE(echo.server.running());
}

// A request head is bounded as a whole, not only line by line: endless
// headers are refused (431, connection closed) and an endless request line
// is an overlong URI (414) instead of piling up in memory, while a large but
// reasonable head is served.
TEST(HttpServer, RequestHeadsAreBounded) {
  EchoServer echo;
  ASSERT_TRUE(echo.server.start("127.0.0.1", 0));
  std::string headers;
  for (int i = 0; headers.size() < 40 * 1024; ++i) headers += "X-H" + std::to_string(i) + ": v\r\n";
  RawClient fine(echo.server.port());
  fine.send("POST /big HTTP/1.1\r\nHost: x\r\n" + headers + "Content-Length: 4\r\n\r\nbody");
  EXPECT_TRUE(fine.read_until("POST /big body from 127.0.0.1")) << fine.received.substr(0, 200);

  RawClient endless(echo.server.port());
  endless.send("GET /endless HTTP/1.1\r\nHost: x\r\n" + headers + headers);
  EXPECT_TRUE(endless.closes());
  EXPECT_NE(endless.received.find("HTTP/1.1 431"), std::string::npos) << endless.received;
  EXPECT_NE(endless.received.find("{\"error\":\"headers_too_large\"}"), std::string::npos);
  EXPECT_EQ(endless.received.find("/endless"), std::string::npos);

  RawClient long_uri(echo.server.port());
  long_uri.send("GET /" + std::string(100 * 1024, 'u'));
  EXPECT_TRUE(long_uri.closes());
  EXPECT_NE(long_uri.received.find("HTTP/1.1 414"), std::string::npos) << long_uri.received;
  EXPECT_NE(long_uri.received.find("{\"error\":\"uri_too_long\"}"), std::string::npos);
  echo.server.stop();
}

// A client that drips its request head is cut off when the head's time is
// up, however steadily the bytes come; the next request starts afresh.
TEST(HttpConnection, ASlowRequestHeadIsCutOff) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  HttpConnection conn(fds[0], {1s, 1s, 300ms});
  const std::string head = "GET /slow HTTP/1.1\r\nHost: x\r\nX-Long: " + std::string(80, 'a');
  std::atomic<bool> done{false};
  std::thread dripper([&] {
    for (char c : head) {
      if (done || ::send(fds[1], &c, 1, MSG_NOSIGNAL) != 1) return;
      std::this_thread::sleep_for(20ms);
    }
  });
  conn.begin_request();
  size_t got = 0;
  char c;
  while (conn.read(&c, 1) == 1) ++got;
  done = true;
  dripper.join();
  EXPECT_GT(got, 0u);
  EXPECT_LT(got, head.size() / 2);  // ~15 bytes in 300 ms, not the 110 sent over 2 s

  // Whatever was left over is read as it comes; a whole head passes.
  char drain[256];
  while (::recv(fds[0], drain, sizeof drain, MSG_DONTWAIT) > 0) {
  }
  conn.begin_request();
  const std::string next = "GET /next HTTP/1.1\r\nHost: x\r\n\r\n";
  ASSERT_EQ(::send(fds[1], next.data(), next.size(), 0), static_cast<ssize_t>(next.size()));
  std::string read_back;
  while (read_back.size() < next.size() && conn.read(&c, 1) == 1) read_back += c;
  EXPECT_EQ(read_back, next);
  ::close(fds[0]);
  ::close(fds[1]);
}

// More connections than worker threads: connections idle between requests
// hold no thread, so a newcomer is answered at once, and the idle ones are
// still there for their next request.
TEST(HttpServer, IdleConnectionsHoldNoThread) {
  EchoServer echo;
  echo.server.set_worker_threads(2);
  ASSERT_TRUE(echo.server.start("127.0.0.1", 0));
  std::vector<std::unique_ptr<RawClient>> idle;
  for (int i = 0; i < 6; ++i) {
    idle.push_back(std::make_unique<RawClient>(echo.server.port()));
    idle.back()->send("GET /" + std::to_string(i) + " HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_TRUE(idle.back()->read_until("GET /" + std::to_string(i) + "  from", 2s));
  }
  RawClient newcomer(echo.server.port());
  newcomer.send("GET /new HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(newcomer.read_until("GET /new  from", 1s)) << newcomer.received;
  for (int i = 0; i < 6; ++i) {
    idle[i]->received.clear();
    idle[i]->send("GET /again" + std::to_string(i) + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(idle[i]->read_until("GET /again" + std::to_string(i) + "  from", 2s)) << i;
  }
  echo.server.stop();
}

// Clients that connect and say nothing, or drip their heads, cost no
// thread: with one worker, twenty of each leave room for a real request.
// A head that does not finish in time is answered 408 and closed; a silent
// connection is closed after the idle time. /health is answered on its own
// lane while the only worker is busy with a stream.
TEST(HttpServer, SlowAndSilentClientsDoNotStarveWorkers) {
  ::setenv("OSTREL_ULVO_HTTP_HEAD_TIMEOUT_S", "1", 1);
  EchoServer echo;
  echo.server.set_worker_threads(1);
  ASSERT_TRUE(echo.server.start("127.0.0.1", 0));
  ::unsetenv("OSTREL_ULVO_HTTP_HEAD_TIMEOUT_S");
  std::vector<std::unique_ptr<RawClient>> silent, drippers;
  for (int i = 0; i < 20; ++i) {
    silent.push_back(std::make_unique<RawClient>(echo.server.port()));
    drippers.push_back(std::make_unique<RawClient>(echo.server.port()));
    drippers.back()->send("GET /drip HTTP/1.1\r\nX-Slow: ");
  }
  RawClient real(echo.server.port());
  real.send("GET /real HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(real.read_until("GET /real  from", 1s)) << real.received;

  for (auto& d : drippers) EXPECT_TRUE(d->closes(3s));
  EXPECT_NE(drippers[0]->received.find("HTTP/1.1 408"), std::string::npos) << drippers[0]->received;

  // The one worker streams; /health still gets through.
  RawClient streaming(echo.server.port());
  streaming.send("GET /stream HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(streaming.read_until("\r\n\r\n", 2s));
  RawClient probe(echo.server.port());
  probe.send("GET /health HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(probe.read_until("GET /health  from", 1s)) << probe.received;
  echo.gate = true;
  EXPECT_TRUE(streaming.read_until("0\r\n\r\n", 3s));
  echo.server.stop();
}

// Stopping waits for a request in progress only so long: then the deadline
// hook runs (it ends the stream's work) and the stream still ends properly.
TEST(HttpServer, StopBoundsTheDrainOfALongStream) {
  EchoServer echo;
  std::atomic<bool> hook_ran{false};
  echo.server.set_drain(300ms, [&] {
    hook_ran = true;
    echo.gate = true;
  });
  ASSERT_TRUE(echo.server.start("127.0.0.1", 0));
  RawClient streaming(echo.server.port());
  streaming.send("GET /stream HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_TRUE(streaming.read_until("\r\n\r\n", 2s));
  auto before = std::chrono::steady_clock::now();
  echo.server.stop();
  auto took = std::chrono::steady_clock::now() - before;
  EXPECT_TRUE(hook_ran);
  EXPECT_LT(took, 1500ms);
  EXPECT_TRUE(streaming.read_until("data: [DONE]\n\n\r\n0\r\n\r\n", 1s)) << streaming.received;
}

}  // namespace
}  // namespace ostrel::kernel
