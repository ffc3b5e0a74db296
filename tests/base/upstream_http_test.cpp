#include "base/upstream_http.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/scripted_server.h"
#include "tests/support/test_support.h"

namespace ostrel::base {
namespace {

using testing::listen_loopback;
using testing::loopback;
using testing::ScriptedServer;

using namespace std::chrono_literals;

// A CONNECT proxy: reads the CONNECT request, answers 200 and then copies
// bytes both ways between the client and the target it named.
class TunnelProxy {
 public:
  std::atomic<int> tunnels{0};
  std::string last_connect;

  TunnelProxy() {
    listen_fd_ = listen_loopback(port_);
    thread_ = std::thread([this] { run(); });
  }
  ~TunnelProxy() {
    ::shutdown(listen_fd_, SHUT_RDWR);
    ::close(listen_fd_);
    thread_.join();
    for (auto& t : pumps_) t.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  static void pump(int from, int to) {
    char buf[4096];
    ssize_t n;
    while ((n = ::recv(from, buf, sizeof buf, 0)) > 0) ::send(to, buf, n, MSG_NOSIGNAL);
    ::shutdown(to, SHUT_WR);
  }
  void run() {
    while (true) {
      int client = ::accept(listen_fd_, nullptr, nullptr);
      if (client < 0) return;
      std::string head;
      char c;
      while (head.find("\r\n\r\n") == std::string::npos && ::recv(client, &c, 1, 0) == 1) {
        head += c;
      }
      last_connect = head.substr(0, head.find("\r\n"));
      const std::size_t colon = head.find(':', 8);
      const int port = std::atoi(head.c_str() + colon + 1);
      int target = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in addr = loopback(port);
      ::connect(target, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
      const std::string ok = "HTTP/1.1 200 Connection established\r\n\r\n";
      ::send(client, ok.data(), ok.size(), MSG_NOSIGNAL);
      ++tunnels;
      pumps_.emplace_back([client, target] {
        std::thread back(pump, target, client);
        pump(client, target);
        back.join();
        ::close(client);
        ::close(target);
      });
    }
  }
  int listen_fd_ = -1;
  int port_ = 0;
  std::thread thread_;
  std::vector<std::thread> pumps_;  // joined by the destructor
};

struct Collected {
  long status = 0;
  std::vector<std::string> pieces;
  std::string body() const {
    std::string all;
    for (const auto& p : pieces) all += p;
    return all;
  }
};

UpstreamHttp::Reply post(UpstreamHttp& client, Collected& out, std::string_view body = "{}") {
  return client.post(
      "/api/chat", "application/json", "application/x-ndjson", body,
      [&out](long status) { out.status = status; },
      [&out](std::string_view piece) {
        out.pieces.emplace_back(piece);
        return true;
      });
}

TEST(UpstreamHttp, FramesRequestsAndDecodesEveryBodyShape) {
  ScriptedServer server;
  server.answers = {
      // Content-Length body split across reads, after an interim 100 answer.
      // The last piece waits until "hello" was delivered on its own.
      {{"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Len", "gth: 11\r\n\r\nhello",
        " world"},
       false,
       1},
      // Chunked: a size line split, an extension, a chunk across reads, trailers.
      {{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nline1\r\nA;e",
        "xt=1\r\n0123456789\r\n4\r\nab", "cd\r\n0\r\nX-Trailer: t\r\n\r\n"}},
      // An error status keeps its body.
      {{"HTTP/1.1 404 Not Found\r\nContent-Length: 5\r\n\r\nnope!"}},
      // No length: the body runs to the close.
      {{"HTTP/1.1 200 OK\r\n\r\nuntil", " the end"}, true},
  };
  server.start();
  UpstreamHttp client(server.url() + "/prefix/");

  Collected a;
  auto r = client.post(
      "/api/chat", "application/json", "application/x-ndjson", "{\"x\":1}",
      [&a](long status) { a.status = status; },
      [&](std::string_view piece) {
        a.pieces.emplace_back(piece);
        server.piece_read();
        return true;
      });
  EXPECT_EQ(r.curl_code, CURLE_OK);
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(a.status, 200);
  EXPECT_EQ(a.body(), "hello world");
  EXPECT_EQ(a.pieces, (std::vector<std::string>{"hello", " world"}));  // as it arrived
  const std::string first = server.requests().at(0);
  EXPECT_EQ(first.rfind("POST /prefix/api/chat HTTP/1.1\r\n", 0), 0u) << first;
  EXPECT_NE(first.find("\r\nHost: 127.0.0.1:"), std::string::npos);
  EXPECT_NE(first.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
  EXPECT_NE(first.find("\r\nAccept: application/x-ndjson\r\n"), std::string::npos);
  const std::string tail = "\r\nContent-Length: 7\r\n\r\n{\"x\":1}";
  EXPECT_EQ(first.substr(first.size() - tail.size()), tail);

  Collected b;
  r = post(client, b);
  EXPECT_EQ(r.curl_code, CURLE_OK);
  EXPECT_EQ(b.body(), "line10123456789abcd");

  Collected c;
  r = post(client, c);
  EXPECT_EQ(r.curl_code, CURLE_OK);
  EXPECT_EQ(r.status, 404);
  EXPECT_EQ(c.body(), "nope!");

  Collected d;
  r = post(client, d);
  EXPECT_EQ(r.curl_code, CURLE_OK);
  EXPECT_EQ(d.body(), "until the end");
  // Four requests, one connection: kept alive until the server closed it.
  EXPECT_EQ(server.connections(), 1);
  EXPECT_EQ(client.idle_connections(), 0u);
}

TEST(UpstreamHttp, ReusesConnectionsAndRetriesOnesTheServerClosed) {
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  ScriptedServer server;
  server.answers = {
      {{ok}},       {{}, true},  // takes the request on the kept-alive connection, then hangs up
      {{ok}},                    // ... so it comes again on a fresh connection
      {{ok}, true},              // answers, then closes while the connection is idle
      {{ok}},
  };
  server.start();
  UpstreamHttp client(server.url());
  for (int i = 0; i < 4; ++i) {
    Collected out;
    auto r = post(client, out);
    ASSERT_EQ(r.curl_code, CURLE_OK) << i;
    EXPECT_EQ(out.status, 200) << i;
    EXPECT_EQ(out.body(), "ok") << i;
    // The next call starts after every close the server made so far: the
    // hang-up of the second answer, and the close after the fourth.
    const int closes = i < 2 ? i : 2;
    ASSERT_TRUE(testing::eventually([&] { return server.closed() == closes; }, 3s)) << i;
  }
  // Four calls: one sent twice (the first try found the connection dead), the
  // close seen while idle cost no request.
  EXPECT_EQ(server.requests().size(), 5u);
  EXPECT_EQ(server.connections(), 3);
  EXPECT_EQ(client.idle_connections(), 1u);
}

TEST(UpstreamHttp, FailuresCarryLibcurlCodes) {
  // Nothing listens.
  {
    UpstreamHttp client("http://127.0.0.1:" + std::to_string(testing::free_port()));
    Collected out;
    auto r = post(client, out);
    EXPECT_EQ(r.curl_code, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(r.status, 0);
  }
  ScriptedServer server;
  server.answers = {
      {{"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nshort"}, true},  // truncated
      {{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}, true},
      {{"SSH-2.0-OpenSSH\r\n\r\n"}, true},                           // not HTTP
      {{}, true},                                                    // nothing at all
      {{"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nabc", "def"}},  // aborted by the sink
  };
  server.start();
  UpstreamHttp client(server.url());
  // A server that takes the request and says nothing: the silence times out.
  {
    ScriptedServer silent;
    silent.answers = {{{}}};
    silent.start();
    UpstreamHttp patient(silent.url(), 200ms);
    Collected out;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(post(patient, out).curl_code, CURLE_OPERATION_TIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 200ms);
    EXPECT_EQ(silent.requests().size(), 1u);  // not sent twice
  }
  Collected a, b, c, d;
  EXPECT_EQ(post(client, a).curl_code, CURLE_PARTIAL_FILE);
  EXPECT_EQ(a.body(), "short");
  EXPECT_EQ(post(client, b).curl_code, CURLE_RECV_ERROR);
  EXPECT_EQ(post(client, c).curl_code, CURLE_WEIRD_SERVER_REPLY);
  EXPECT_EQ(post(client, d).curl_code, CURLE_GOT_NOTHING);
  int seen = 0;
  auto r = client.post("/x", "a/b", "c/d", "", nullptr, [&seen](std::string_view) {
    ++seen;
    return false;
  });
  EXPECT_TRUE(r.aborted);
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(client.idle_connections(), 0u);  // an aborted reply is not reused
}

// With a proxy configured, the connection is a tunnel through it and the
// request still reaches the model server as written.
TEST(UpstreamHttp, TunnelsThroughAConfiguredProxy) {
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  ScriptedServer server;
  server.answers = {{{ok}}, {{ok}}};
  server.start();
  TunnelProxy proxy;
  for (const char* name : {"no_proxy", "NO_PROXY", "all_proxy", "ALL_PROXY"}) ::unsetenv(name);
  ::setenv("http_proxy", proxy.url().c_str(), 1);
  {
    UpstreamHttp client(server.url());
    for (int i = 0; i < 2; ++i) {
      Collected out;
      auto r = post(client, out);
      ::unsetenv("http_proxy");  // read when connecting; the second call reuses
      ASSERT_EQ(r.curl_code, CURLE_OK) << i;
      EXPECT_EQ(out.body(), "ok");
    }
  }
  ::unsetenv("http_proxy");
  EXPECT_EQ(proxy.tunnels, 1);
  EXPECT_EQ(proxy.last_connect.rfind("CONNECT 127.0.0.1:", 0), 0u) << proxy.last_connect;
  ASSERT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(server.requests()[1].rfind("POST /api/chat HTTP/1.1\r\n", 0), 0u);
}

}  // namespace
}  // namespace ostrel::base
