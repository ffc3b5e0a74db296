#include "base/http_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/support/scripted_server.h"

namespace ostrel::base {
namespace {

using testing::ScriptedServer;

// A thread's requests to one server share a kept-alive connection, but a
// request that checks the address it connects to never rides on a connection
// opened without that check: it opens a socket of its own, and its check runs.
// (The scripted server serves one connection at a time, so that fresh
// connection is never answered and the request times out.)
TEST(HttpClient, ReusesAThreadsConnectionButNeverForACheckedRequest) {
  ScriptedServer server;
  server.answers = {
      {{"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\na"}},
      {{"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nb"}},
      {{"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nc"}},
  };
  server.start();
  auto get = [&](ConnectCheck check, std::chrono::milliseconds timeout) {
    HttpRequest r;
    r.method = "GET";
    r.url = server.url() + "/x";
    r.timeout = timeout;
    r.check_connect = std::move(check);
    return http_request(r);
  };
  std::atomic<int> checks{0};
  HttpReply a, b, c;
  int after_two = 0;
  // On a thread of its own, whose kept connection closes when it ends.
  std::thread([&] {
    a = get(nullptr, std::chrono::seconds(5));
    b = get(nullptr, std::chrono::seconds(5));
    after_two = server.connections();
    c = get(
        [&](const sockaddr*) {
          ++checks;
          return true;
        },
        std::chrono::milliseconds(500));
  }).join();
  EXPECT_EQ(a.body, "a");
  EXPECT_EQ(b.body, "b");
  EXPECT_EQ(after_two, 1);
  EXPECT_EQ(checks, 1);
  EXPECT_FALSE(c.transport_ok) << "answered on the unchecked connection: " << c.body;
}

}  // namespace
}  // namespace ostrel::base
