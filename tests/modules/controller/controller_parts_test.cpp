// The controller's parts on their own: webhook signatures checked against
// values computed by another implementation, deliveries to a real loopback
// receiver (retries, permanent failures, disabling, signatures on the wire),
// the address guard's classification, and the worker registry's file.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "base/clock.h"
#include "modules/controller/address_guard.h"
#include "modules/controller/web_tools.h"
#include "modules/controller/webhooks.h"
#include "modules/controller/worker_registry.h"
#include "tests/support/test_support.h"

namespace ostrel::controller {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

// Values from Python's hmac module, not from this code.
TEST(Webhooks, SignaturesMatchAnIndependentImplementation) {
  EXPECT_EQ(ostrel_signature("s3cret", R"({"event":"x"})"),
            "474d9c54253f9ebd95cf3904ce830fcb6bbd65180b2530ca40371a177bb6e02b");
  // "whsec_" secrets carry their key in base64; others are the key.
  EXPECT_EQ(standard_signature("whsec_c2VjcmV0LWtleS0xMjM0NQ==", "msg_1", 1700000000, "{}"),
            "v1,5liJ4iU2lGK+B4kfTh+H93lw1g0MxuzN5wbaxnJb3/w=");
  EXPECT_EQ(standard_signature("plain", "msg_2", 1700000001, "body"),
            "v1,qThbeQbRsE4y298qw4nHMdawgbdRM8RzpamiE3FcvqM=");
}

// A receiver that answers from a script and records what arrived.
struct Receiver {
  httplib::Server server;
  std::mutex mu;  // guards the fields below
  std::vector<int> script;
  std::vector<httplib::Request> seen;
  int port = 0;
  std::thread thread;

  Receiver() {
    server.Post("/hook", [this](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard lock(mu);
      seen.push_back(req);
      res.status = seen.size() <= script.size() ? script[seen.size() - 1] : 200;
      res.set_content("got it", "text/plain");
    });
    thread = testing::serve_on_loopback(server, port);
  }
  ~Receiver() {
    server.stop();
    thread.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port) + "/hook"; }
  // The statuses of the next answers (200 after them); the server thread reads them.
  void answer_with(std::vector<int> statuses) {
    std::lock_guard lock(mu);
    script = std::move(statuses);
  }
  std::size_t count() {
    std::lock_guard lock(mu);
    return seen.size();
  }
};

Webhooks::Options options(int disable_after = 10) {
  Webhooks::Options o;
  o.retry_pause_ms = 1;
  o.disable_after_failures = disable_after;
  o.guard.configure(false, {"127.0.0.1"});  // the receiver is named
  return o;
}

TEST(Webhooks, DeliveriesRetrySignAndStopOnPermanentFailures) {
  testing::TempDir dir;
  Receiver rx;
  rx.answer_with({500, 200, 410});
  Webhooks hooks(options(), base::Logger("test/webhooks"));
  ASSERT_TRUE(hooks.open(dir / "webhooks.db"));
  hooks.start();
  Webhooks::Answer made =
      hooks.create({{"url", rx.url()}, {"events", {"job.done"}}, {"secret", "s3cret"}});
  ASSERT_EQ(made.status, 200) << made.body;
  const std::string id = made.body["subscription_id"];

  hooks.enqueue_event("other.event", {{"n", 0}});  // not subscribed: nothing goes out
  hooks.enqueue_event("job.done", {{"n", 1}});
  auto delivered = [&](std::size_t n) {
    return testing::eventually(
        [&] { return hooks.deliveries(id, 10).body["count"].get<std::size_t>() == n; }, 5s);
  };
  ASSERT_TRUE(delivered(1));
  Json rows = hooks.deliveries(id, 10).body["deliveries"];
  EXPECT_EQ(rows[0]["http_status"], 200);
  EXPECT_EQ(rows[0]["retry_count"], 1);  // the 500 was tried again
  ASSERT_EQ(rx.count(), 2u);
  {
    std::lock_guard lock(rx.mu);
    const httplib::Request& req = rx.seen[1];
    EXPECT_EQ(Json::parse(req.body)["payload"]["n"], 1);
    EXPECT_EQ(req.get_header_value("X-Ostrel-Event"), "job.done");
    EXPECT_EQ(req.get_header_value("X-Ostrel-Signature"),
              "sha256=" + ostrel_signature("s3cret", req.body));
    const std::string msg = req.get_header_value("webhook-id");
    const std::int64_t ts = std::stoll(req.get_header_value("webhook-timestamp"));
    EXPECT_EQ(req.get_header_value("webhook-signature"),
              standard_signature("s3cret", msg, ts, req.body));
    // Both attempts are one message: the same id.
    EXPECT_EQ(rx.seen[0].get_header_value("webhook-id"), msg);
  }

  // 410 Gone is final: one attempt, no retries.
  hooks.enqueue_event("job.done", {{"n", 2}});
  ASSERT_TRUE(delivered(2));
  rows = hooks.deliveries(id, 10).body["deliveries"];
  EXPECT_EQ(rows[0]["http_status"], 410);
  EXPECT_EQ(rows[0]["retry_count"], 0);
  EXPECT_EQ(rx.count(), 3u);
  hooks.stop();
}

TEST(Webhooks, SubscriptionsAreCheckedKeptAndDisabledAfterFailures) {
  testing::TempDir dir;
  Receiver rx;
  rx.answer_with({500, 500, 500, 500, 500, 500});
  {
    Webhooks hooks(options(/*disable_after=*/2), base::Logger("test/webhooks"));
    ASSERT_TRUE(hooks.open(dir / "webhooks.db"));
    // Bad targets are refused before anything is stored.
    EXPECT_EQ(hooks.create({{"url", "ftp://x"}}).status, 400);
    EXPECT_EQ(hooks.create({{"url", "http://10.0.0.8/hook"}}).body["error"],
              "private_target_refused");
    EXPECT_EQ(hooks.create({{"url", "http://[::1]:9/hook"}}).body["error"],
              "private_target_refused");
    EXPECT_EQ(hooks.create({{"url", rx.url()}, {"events", {1, 2}}}).body["error"],
              "invalid_events");
    ASSERT_EQ(hooks.create({{"url", rx.url()}}).status, 200);  // every event
    EXPECT_EQ(hooks.list().body["count"], 1);
  }
  // The subscription outlives the process's Webhooks.
  Webhooks hooks(options(2), base::Logger("test/webhooks"));
  ASSERT_TRUE(hooks.open(dir / "webhooks.db"));
  hooks.start();
  Json subs = hooks.list().body["subscriptions"];
  ASSERT_EQ(subs.size(), 1u);
  const std::string id = subs[0]["id"];
  for (int i = 0; i < 2; ++i) {
    hooks.enqueue_event("any.event", {{"i", i}});
    ASSERT_TRUE(
        testing::eventually([&] { return hooks.deliveries(id, 10).body["count"] == i + 1; }, 5s));
  }
  // Two failed deliveries in a row: disabled, and nothing more goes out.
  ASSERT_TRUE(testing::eventually(
      [&] { return hooks.list().body["subscriptions"][0]["disabled"] == true; }, 5s));
  const std::size_t before = rx.count();
  hooks.enqueue_event("any.event", {{"i", 9}});
  EXPECT_EQ(hooks.test(id).status, 404);  // a disabled subscription is not tested either
  hooks.stop();
  EXPECT_EQ(rx.count(), before);
  EXPECT_EQ(hooks.remove(id).status, 200);
  EXPECT_EQ(hooks.remove(id).status, 404);
}

// Where outbound calls may go: inside addresses (the cloud metadata service
// among them) only for named hosts.
TEST(AddressGuard, InsideAddressesAndNamedHosts) {
  auto v4 = [](const char* text) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    EXPECT_EQ(::inet_pton(AF_INET, text, &a.sin_addr), 1) << text;
    return inside_address(reinterpret_cast<const sockaddr*>(&a));
  };
  auto v6 = [](const char* text) {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    EXPECT_EQ(::inet_pton(AF_INET6, text, &a.sin6_addr), 1) << text;
    return inside_address(reinterpret_cast<const sockaddr*>(&a));
  };
  for (const char* inside : {"127.0.0.1", "10.1.2.3", "172.16.0.1", "172.31.255.255", "192.168.1.1",
                             "169.254.169.254", "100.64.0.1", "0.0.0.0"}) {
    EXPECT_TRUE(v4(inside)) << inside;
  }
  for (const char* outside : {"8.8.8.8", "172.32.0.1", "192.169.0.1", "100.128.0.1"}) {
    EXPECT_FALSE(v4(outside)) << outside;
  }
  for (const char* inside : {"::1", "fe80::1", "fd00::5", "::ffff:127.0.0.1", "::"}) {
    EXPECT_TRUE(v6(inside)) << inside;
  }
  EXPECT_FALSE(v6("2001:4860:4860::8888"));

  EXPECT_EQ(url_authority("https://User:pw@Hooks.Example:8443/x?y"), "hooks.example:8443");
  EXPECT_EQ(url_authority("no scheme"), "");
  AddressGuard guard;
  guard.configure(false, {"Hooks.Internal", "10.0.0.5:9000"});
  EXPECT_TRUE(guard.named("http://hooks.internal/a"));
  EXPECT_TRUE(guard.named("http://hooks.internal:81/a"));
  EXPECT_TRUE(guard.named("http://10.0.0.5:9000/a"));
  EXPECT_FALSE(guard.named("http://10.0.0.5:9001/a"));
  EXPECT_FALSE(guard.named("http://evil.example/hooks.internal"));
  EXPECT_FALSE(static_cast<bool>(guard.check_for("http://hooks.internal/")));  // no check
  base::ConnectCheck check = guard.check_for("http://elsewhere.example/");
  ASSERT_TRUE(static_cast<bool>(check));
  sockaddr_in metadata{};
  metadata.sin_family = AF_INET;
  ::inet_pton(AF_INET, "169.254.169.254", &metadata.sin_addr);
  EXPECT_FALSE(check(reinterpret_cast<const sockaddr*>(&metadata)));
}

TEST(WebTools, PagesBecomeTextAndInsideAddressesAreRefused) {
  std::string title;
  EXPECT_EQ(html_to_text("<html><head><title>T &amp; U</title><style>p{}</style></head>"
                         "<body><header>Top</header><script>x()</script><p>a&lt;b&nbsp;"
                         "c</p>\n\n<p>d</p></body></html>",
                         &title),
            "Top a<b c d");
  EXPECT_EQ(title, "T & U");
  WebTools tools;
  tools.configure("", false);
  EXPECT_EQ(tools.fetch("http://127.0.0.1:9/").body["error"], "address_not_allowed");
  EXPECT_EQ(tools.fetch("gopher://x").status, 400);
  EXPECT_EQ(tools.search("q", 3).status, 501);
}

// The registry's file: local workers come back as they were, remote ones
// as stale, and a worker not heard of in time turns stale.
TEST(WorkerRegistry, SurvivesARestartAndMarksSilentWorkersStale) {
  testing::TempDir dir;
  const auto file = dir / "controller" / "workers.json";
  {
    WorkerRegistry r(file, base::Logger("test/workers"));
    WorkerInfo out;
    bool is_new = false;
    EXPECT_EQ(r.register_worker({{"id", "w1"},
                                 {"worker_type", "inference"},
                                 {"url", "http://10.0.0.2:8880"},
                                 {"models", {"llama3"}}},
                                "ctl", out, is_new),
              "");
    EXPECT_TRUE(is_new);
    EXPECT_NE(r.register_worker({{"worker_type", "inference"}}, "ctl", out, is_new), "");
    EXPECT_EQ(r.register_worker({{"id", "w1"}, {"worker_type", "inference"}}, "ctl", out, is_new),
              "");
    EXPECT_FALSE(is_new);
    EXPECT_TRUE(r.heartbeat("w1"));
    EXPECT_FALSE(r.heartbeat("nobody"));
  }
  ASSERT_TRUE(std::filesystem::exists(file));
  WorkerRegistry again(file, base::Logger("test/workers"));
  again.restore();
  ASSERT_EQ(again.size(), 1u);
  Json listed = again.list();
  EXPECT_EQ(listed[0]["id"], "w1");
  again.mark_stale(base::unix_ms() + 3'600'000, 60'000);
  EXPECT_EQ(again.list()[0]["state"], "stale");
}

}  // namespace
}  // namespace ostrel::controller
