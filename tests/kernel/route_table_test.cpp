#include "kernel/http/route_table.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace ostrel::kernel {
namespace {

// Registers `pattern` with a handler that writes the pattern into the body, so
// a lookup reveals which route it chose.
void add(RouteTable& t, const std::string& method, const std::string& pattern) {
  ASSERT_TRUE(
      t.add(method, pattern, [pattern](const Request&, Response& res) { res.body = pattern; }));
}

std::string chosen(const RouteTable& t, const std::string& method, const std::string& path) {
  RouteTable::Match m = t.find(method, path);
  if (!m) return "<none>";
  Response res;
  (*m.handler)(Request{}, res);
  EXPECT_EQ(res.body, *m.pattern);
  return res.body;
}

TEST(RouteTable, ExactBeatsWildcardAndLongestLiteralWins) {
  RouteTable t;
  add(t, "GET", "/api/v1/files/*");
  add(t, "GET", "/api/v1/files/list");
  add(t, "GET", "/a/b/*");  // registered before the shorter one on purpose
  add(t, "GET", "/a/*");
  add(t, "GET", "/api/v1/jobs/*");
  add(t, "GET", "/api/v1/jobs/*/log");

  EXPECT_EQ(chosen(t, "GET", "/api/v1/files/list"), "/api/v1/files/list");
  EXPECT_EQ(chosen(t, "GET", "/api/v1/files/a/b"), "/api/v1/files/*");
  EXPECT_EQ(chosen(t, "GET", "/a/b/c"), "/a/b/*");
  EXPECT_EQ(chosen(t, "GET", "/a/x"), "/a/*");
  EXPECT_EQ(chosen(t, "GET", "/api/v1/jobs/42/log"), "/api/v1/jobs/*/log");
  EXPECT_EQ(chosen(t, "GET", "/api/v1/jobs/42"), "/api/v1/jobs/*");
  // The mid-wildcard stands for exactly one non-empty segment.
  EXPECT_EQ(chosen(t, "GET", "/api/v1/jobs//log"), "/api/v1/jobs/*");
  EXPECT_EQ(chosen(t, "GET", "/api/v1/jobs/4/2/log"), "/api/v1/jobs/*");
  EXPECT_EQ(chosen(t, "POST", "/api/v1/jobs/42"), "<none>");
  EXPECT_EQ(chosen(t, "GET", "/api/v2/x"), "<none>");
}

TEST(RouteTable, RegistrationOrderAndLiteralPatterns) {
  RouteTable t;
  add(t, "GET", "/x/*/tail");
  add(t, "GET", "/x/mid*tail");  // same literal length, registered later: loses ties
  EXPECT_EQ(chosen(t, "GET", "/x/abc/tail"), "/x/*/tail");

  // Equal literal length between a mid-wildcard and a prefix: the mid-wildcard
  // is considered first and keeps the tie.
  RouteTable u;
  add(u, "GET", "/ab*");  // prefix, literal "/ab" (3)
  add(u, "GET", "/a*/");  // mid, literal "/a" + "/" (3)
  EXPECT_EQ(chosen(u, "GET", "/abc/"), "/a*/");

  // More than one "*" is an exact, literal route.
  RouteTable v;
  add(v, "GET", "/a/*/b/*");
  EXPECT_EQ(chosen(v, "GET", "/a/*/b/*"), "/a/*/b/*");
  EXPECT_EQ(chosen(v, "GET", "/a/1/b/2"), "<none>");

  // A second registration of the same method and pattern is refused and the
  // first handler stays.
  EXPECT_FALSE(t.add("GET", "/x/*/tail", [](const Request&, Response& r) { r.body = "second"; }));
  EXPECT_EQ(chosen(t, "GET", "/x/abc/tail"), "/x/*/tail");
  EXPECT_TRUE(t.add("POST", "/x/*/tail", [](const Request&, Response&) {}));
  EXPECT_EQ(t.routes().size(), 3u);
  EXPECT_EQ(t.methods_matching("/x/abc/tail"), (std::vector<std::string>{"GET", "POST"}));
}

TEST(RouteTable, LookupsRaceRegistrationsSafely) {
  RouteTable t;
  add(t, "GET", "/stable");
  std::atomic<bool> stop{false};
  std::atomic<long> hits{0}, misses{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        RouteTable::Match m = t.find("GET", "/stable");
        ++(m && *m.pattern == "/stable" ? hits : misses);
        std::this_thread::yield();
      }
    });
  }
  // Registrations start once the readers are looking up (on a loaded machine
  // they might otherwise only be scheduled after the last one).
  while (hits == 0) std::this_thread::yield();
  for (int i = 0; i < 2000; ++i) {
    t.add("GET", "/r/" + std::to_string(i), [](const Request&, Response&) {});
    t.add("GET", "/p/" + std::to_string(i) + "/*", [](const Request&, Response&) {});
  }
  stop = true;
  for (auto& r : readers) r.join();
  EXPECT_EQ(misses.load(), 0);
  EXPECT_EQ(t.routes().size(), 4001u);
  RouteTable::Match m = t.find("GET", "/p/1999/z");
  ASSERT_TRUE(m);
  EXPECT_EQ(*m.pattern, "/p/1999/*");
}

}  // namespace
}  // namespace ostrel::kernel
