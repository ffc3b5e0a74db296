#include "inference/engine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <thread>

#include "inference/chat_json.h"
#include "inference/echo_backend.h"
#include "inference/ollama_backend.h"
#include "tests/support/fake_ollama.h"
#include "tests/support/test_support.h"

namespace ostrel::inference {
namespace {

using namespace std::chrono_literals;

ChatRequest ask(const std::string& model, const std::string& text, const std::string& tenant = "") {
  ChatRequest r;
  r.model = model;
  r.tenant_id = tenant;
  r.messages.push_back(Message{"user", text, "", "", ""});
  return r;
}

// A backend whose load, health and models a test sets, and which can hold
// its requests until released.
class FakeBackend : public Backend {
 public:
  FakeBackend(std::string id, std::vector<std::string> models, std::uint64_t in_flight = 0)
      : id_(std::move(id)), models_(std::move(models)), in_flight_(in_flight) {}
  std::string id() const override { return id_; }
  std::string kind() const override { return "fake"; }
  std::vector<std::string> list_models() override { return models_; }
  bool is_healthy() const override { return healthy; }
  bool poll_health() override { return healthy; }
  std::optional<InferenceError> complete(const ChatRequest& req, ChatResponse& resp) override {
    {
      std::unique_lock lock(mu_);
      served.push_back(req.tenant_id + ":" + req.messages.back().content);
      cv_.wait(lock, [this] { return !hold; });
    }
    if (throw_on_call) throw std::runtime_error("kaput");
    resp.message.content = id_;
    return std::nullopt;
  }
  std::optional<InferenceError> stream(const ChatRequest&, const ChunkSink&) override {
    return std::nullopt;
  }
  BackendStats stats() const override {
    BackendStats s;
    s.id = id_;
    s.healthy = healthy;
    s.in_flight = in_flight_;
    s.models = models_;
    return s;
  }
  void release() {
    {
      std::lock_guard lock(mu_);
      hold = false;
    }
    cv_.notify_all();
  }
  std::vector<std::string> served_snapshot() {
    std::lock_guard lock(mu_);
    return served;
  }

  std::atomic<bool> healthy{true};
  bool hold = false;
  bool throw_on_call = false;
  std::vector<std::string> served;

 private:
  std::string id_;
  std::vector<std::string> models_;
  std::uint64_t in_flight_;
  std::mutex mu_;
  std::condition_variable cv_;
};

TEST(Selector, PrefersLeastLoadedBackendThatListsTheModel) {
  auto a = std::make_shared<FakeBackend>("a", std::vector<std::string>{"m1"}, 3);
  auto b = std::make_shared<FakeBackend>("b", std::vector<std::string>{"m1", "m2"}, 1);
  auto c = std::make_shared<FakeBackend>("c", std::vector<std::string>{"m2"}, 0);
  auto d = std::make_shared<FakeBackend>("d", std::vector<std::string>{"m1"}, 1);
  BackendList all = {a, b, c, d};
  EXPECT_EQ(default_selector(ask("m1", "x"), all)->id(), "b");  // tie with d: earlier wins
  EXPECT_EQ(default_selector(ask("m2", "x"), all)->id(), "c");
  EXPECT_EQ(default_selector(ask("unknown", "x"), all)->id(), "c");  // least loaded overall
  EXPECT_EQ(default_selector(ask("m1", "x"), {}), nullptr);
}

TEST(Engine, RoutesSkipsUnhealthyAndReportsFailures) {
  Engine engine({2, 16, std::chrono::seconds(3600), std::chrono::seconds(3600)});
  auto healthy = std::make_shared<FakeBackend>("up", std::vector<std::string>{"m1"}, 5);
  auto down = std::make_shared<FakeBackend>("down", std::vector<std::string>{"m1"}, 0);
  down->healthy = false;
  engine.register_backend(down);
  engine.register_backend(healthy);
  engine.start();

  ChatResponse resp;
  ASSERT_FALSE(engine.complete(ask("m1", "hi"), resp));
  EXPECT_EQ(resp.message.content, "up");
  EXPECT_EQ(resp.backend_id, "up");
  EXPECT_EQ(resp.request_id.rfind("req-", 0), 0u);
  EXPECT_EQ(engine.available_models(), std::vector<std::string>{"m1"});

  healthy->healthy = false;
  auto err = engine.complete(ask("m1", "hi"), resp);
  ASSERT_TRUE(err);
  EXPECT_EQ(err->code, 502);
  EXPECT_EQ(err->message, "scheduler: no healthy backend can serve model 'm1'");

  // Re-registering an id replaces the backend.
  auto replacement = std::make_shared<FakeBackend>("up", std::vector<std::string>{"m9"});
  replacement->throw_on_call = true;
  engine.register_backend(replacement);
  EXPECT_EQ(engine.backends().size(), 2u);
  err = engine.complete(ask("m9", "hi"), resp);
  ASSERT_TRUE(err);
  EXPECT_EQ(err->code, 500);
  EXPECT_EQ(err->message, "backend: kaput");

  EXPECT_EQ(engine.stream(ask("m9", "x"), nullptr)->message, "scheduler: stream sink is null");
  engine.stop();
  EXPECT_EQ(engine.stream(ask("m9", "x"), [](const ChatChunk&) { return true; })->message,
            "scheduler: not running");
}

TEST(Scheduler, QueueBoundShutdownAndTenantFairness) {
  auto backend = std::make_shared<FakeBackend>("b", std::vector<std::string>{"m"});
  BackendList list = {backend};
  {
    // Not started: requests wait; the third one finds the queue full.
    Scheduler s([&] { return list; }, 1, 2);
    std::vector<std::future<ChatResponse>> futures;
    for (int i = 0; i < 2; ++i) {
      auto q = std::make_shared<QueuedRequest>();
      q->request = ask("m", "x");
      futures.push_back(q->promise.get_future());
      EXPECT_TRUE(s.enqueue(q));
    }
    EXPECT_FALSE(s.enqueue(std::make_shared<QueuedRequest>()));
    EXPECT_EQ(s.rejected(), 1u);
    s.stop();
    for (auto& f : futures) {
      try {
        f.get();
        ADD_FAILURE() << "expected a shutdown error";
      } catch (const InferenceFailure& e) {
        EXPECT_EQ(e.error.code, 499);
        EXPECT_EQ(e.error.message, "scheduler: shutting down");
      }
    }
  }

  // One worker held on tenant a's first request while more queue up: the
  // next picks alternate between tenants instead of draining a first.
  backend->hold = true;
  Scheduler s([&] { return list; }, 1, 64);
  s.start();
  std::vector<std::future<ChatResponse>> futures;
  auto submit = [&](const std::string& tenant, const std::string& text) {
    auto q = std::make_shared<QueuedRequest>();
    q->request = ask("m", text, tenant);
    futures.push_back(q->promise.get_future());
    ASSERT_TRUE(s.enqueue(q));
  };
  submit("a", "a1");
  ASSERT_TRUE(testing::eventually([&] { return !backend->served_snapshot().empty(); }))
      << "the first request never reached the backend";
  submit("a", "a2");
  submit("a", "a3");
  submit("b", "b1");
  submit("b", "b2");
  backend->release();
  for (auto& f : futures) f.get();
  EXPECT_EQ(backend->served_snapshot(),
            (std::vector<std::string>{"a:a1", "b:b1", "a:a2", "b:b2", "a:a3"}));
}

TEST(Engine, EngineQueueOverflowIs507) {
  Engine engine({1, 1, std::chrono::seconds(3600), std::chrono::seconds(3600)});
  auto backend = std::make_shared<FakeBackend>("b", std::vector<std::string>{"m"});
  backend->hold = true;
  engine.register_backend(backend);
  engine.start();
  ChatResponse r1, r2;
  std::thread first([&] { engine.complete(ask("m", "1"), r1); });
  ASSERT_TRUE(testing::eventually([&] { return !backend->served_snapshot().empty(); }))
      << "the first request never reached the backend";
  std::thread second([&] { engine.complete(ask("m", "2"), r2); });  // waits in the queue
  ASSERT_TRUE(testing::eventually([&] { return engine.scheduler().queued() > 0; }))
      << "the second request was never queued";
  ChatResponse r3;
  auto err = engine.complete(ask("m", "3"), r3);
  ASSERT_TRUE(err);
  EXPECT_EQ(err->code, 507);
  EXPECT_EQ(err->message, "scheduler: queue full");
  EXPECT_STREQ(error_type(err->code), "quota_exceeded");
  backend->release();
  first.join();
  second.join();
}

TEST(Engine, SessionsKeepAnsweredTurnsOnly) {
  Engine engine;
  engine.register_backend(std::make_shared<EchoBackend>());
  engine.start();
  ChatRequest req = ask("echo", "one two three");
  req.session_id = "s1";
  ChatResponse resp;
  ASSERT_FALSE(engine.complete(req, resp));
  EXPECT_EQ(resp.message.content, "Echo: one two three");

  req.messages = {Message{"user", "four five", "", "", ""}};
  int chunks = 0;
  auto err = engine.stream(req, [&](const ChatChunk&) { return ++chunks < 2; });
  ASSERT_TRUE(err);
  EXPECT_EQ(err->message, "echo: stream aborted by sink");
  // The stream failed: its turn leaves nothing behind.
  auto session = engine.sessions().get("s1");
  ASSERT_TRUE(session);
  ASSERT_EQ(session->history.size(), 2u);
  EXPECT_EQ(session->history[1].content, "Echo: one two three");
  EXPECT_EQ(session->history[1].role, "assistant");
  ASSERT_FALSE(engine.stream(req, [](const ChatChunk&) { return true; }));
  session = engine.sessions().get("s1");
  ASSERT_EQ(session->history.size(), 4u);
  EXPECT_EQ(session->history[3].content, "Echo: four five");

  SessionStore store(std::chrono::seconds(10));
  auto t0 = SessionStore::Clock::now();
  store.append("x", {Message{}}, t0);
  EXPECT_TRUE(store.get("x", t0 + 5s));
  EXPECT_FALSE(store.get("x", t0 + 16s));  // idle past the TTL
  store.append("x", {Message{}}, t0 + 20s);
  EXPECT_EQ(store.get("x", t0 + 20s)->history.size(), 1u);  // a fresh history

  EXPECT_EQ(store.sweep(t0 + 60s), 1u);

  // A bounded store drops the least recently used sessions when full.
  SessionStore small(std::chrono::seconds(3600), 3, 20);
  for (int i = 0; i < 20; ++i) {
    small.append("s" + std::to_string(i), {Message{}}, t0 + std::chrono::seconds(i));
  }
  small.append("s0", {Message{}, Message{}, Message{}}, t0 + 30s);  // s0 is fresh again
  small.append("new", {Message{}}, t0 + 31s);
  EXPECT_EQ(small.size(), 20u);
  EXPECT_TRUE(small.get("s0", t0 + 32s));
  EXPECT_EQ(small.get("s0", t0 + 32s)->history.size(), 3u);  // capped history
  EXPECT_FALSE(small.get("s1", t0 + 32s));                   // the least recently used went
  EXPECT_TRUE(small.get("s2", t0 + 32s));                    // ... and only it
  EXPECT_TRUE(small.get("new", t0 + 32s));
  // Sessions idle past the TTL go first, before any live one is evicted.
  SessionStore ttl(std::chrono::seconds(10), 10, 3);
  ttl.append("a", {Message{}}, t0);
  ttl.append("b", {Message{}}, t0 + 1s);
  ttl.append("c", {Message{}}, t0 + 8s);
  ttl.append("d", {Message{}}, t0 + 12s);  // a and b have expired: both dropped
  EXPECT_EQ(ttl.size(), 2u);
  EXPECT_TRUE(ttl.get("c", t0 + 12s));
  EXPECT_EQ(ttl.sweep(t0 + 19s), 1u);  // c expires, d stays
  EXPECT_TRUE(ttl.get("d", t0 + 19s));
  // Memory is bounded by bytes: a session keeps its newest text within its
  // bound (a message larger than the bound is not kept), and the store drops
  // its least recently used sessions to stay within its own.
  SessionStore by_bytes(std::chrono::seconds(60), 1000, 1000, 10000, 1000);
  const Message big{"user", std::string(2000, 'x'), "", "", ""};
  const Message mid{"user", std::string(600, 'y'), "", "", ""};
  by_bytes.append("a", {big}, t0);
  EXPECT_EQ(by_bytes.get("a", t0)->history.size(), 0u);
  EXPECT_EQ(by_bytes.bytes(), 0u);
  by_bytes.append("a", {mid, mid}, t0);
  EXPECT_EQ(by_bytes.get("a", t0)->history.size(), 1u);  // the newest one fits
  for (int i = 0; i < 30; ++i) by_bytes.append("s" + std::to_string(i), {mid}, t0 + 1s * i);
  EXPECT_LE(by_bytes.bytes(), 10000u);
  EXPECT_FALSE(by_bytes.get("a", t0 + 30s));  // the oldest went first
  EXPECT_TRUE(by_bytes.get("s29", t0 + 30s));
}

TEST(OllamaBackend, SpeaksTheChatProtocol) {
  testing::FakeOllama server;
  OllamaBackend backend("ollama-test", server.url() + "/");
  EXPECT_TRUE(backend.poll_health());
  EXPECT_TRUE(backend.is_healthy());
  EXPECT_EQ(backend.stats().models, std::vector<std::string>{"llama3"});

  ChatRequest req = ask("llama3", "hi");
  req.messages.insert(req.messages.begin(), Message{"system", "be brief", "sys", "", ""});
  req.temperature = 0.5f;
  req.max_tokens = 12;
  ChatResponse resp;
  ASSERT_FALSE(backend.complete(req, resp));
  EXPECT_EQ(resp.message.content, "hello from the model");
  EXPECT_EQ(resp.prompt_tokens, 7);
  EXPECT_EQ(resp.completion_tokens, 4);
  auto body = server.bodies().back();
  EXPECT_EQ(body["model"], "llama3");
  EXPECT_EQ(body["stream"], false);
  EXPECT_EQ(body["messages"][0]["name"], "sys");
  EXPECT_FALSE(body["messages"][1].contains("name"));
  EXPECT_EQ(body["options"], (nlohmann::json{{"temperature", 0.5}, {"num_predict", 12}}));
  EXPECT_FALSE(body.contains("stop"));
  req.stop = {"\n"};
  backend.complete(req, resp);
  EXPECT_EQ(server.bodies().back()["stop"], nlohmann::json({"\n"}));

  // Streaming: pieces arrive one by one, the last carries the reason.
  std::string text;
  std::string reason;
  ASSERT_FALSE(backend.stream(req, [&](const ChatChunk& c) {
    text += c.delta;
    if (c.finish_reason) reason = *c.finish_reason;
    return true;
  }));
  EXPECT_EQ(text, "hello from the model");
  EXPECT_EQ(reason, "length");
  EXPECT_EQ(backend.stats().completed, 3u);
}

TEST(OllamaBackend, AbortsTransfersAndMapsErrors) {
  testing::FakeOllama server;
  server.reply = std::string(200, 'w').insert(0, "a b c d e f g h i j k l m n o p ");
  server.piece_delay = 20ms;
  OllamaBackend backend("o", server.url());
  int seen = 0;
  auto err = backend.stream(ask("llama3", "x"), [&](const ChatChunk&) { return ++seen < 2; });
  ASSERT_TRUE(err);
  EXPECT_EQ(err->message, "ollama: stream aborted by sink");
  testing::eventually([&] { return server.client_gone(); }, 1000ms);
  EXPECT_TRUE(server.client_gone());
  EXPECT_LT(server.pieces_sent(), 6);
  EXPECT_EQ(backend.stream(ask("llama3", "x"), nullptr)->message, "ollama: sink callback is null");

  ChatResponse resp;
  server.fail_status = 403;
  err = backend.complete(ask("llama3", "x"), resp);
  EXPECT_EQ(err->code, 500);
  EXPECT_EQ(err->message, "ollama: http 403: {\"error\":\"nope\"}");
  server.fail_status = 503;
  err = backend.complete(ask("llama3", "x"), resp);
  EXPECT_EQ(err->code, 502);
  EXPECT_EQ(err->message, "ollama: upstream 503 {\"error\":\"nope\"}");
  server.fail_status = 404;
  EXPECT_EQ(backend.complete(ask("llama3", "x"), resp)->code, 404);
  EXPECT_EQ(backend.stream(ask("llama3", "x"), [](const ChatChunk&) { return true; })->code, 404);
  server.fail_status = 0;
  server.pieces_before_dying = 2;  // the upstream dies mid-stream
  server.piece_delay = 0ms;
  err = backend.stream(ask("llama3", "x"), [](const ChatChunk&) { return true; });
  ASSERT_TRUE(err);
  EXPECT_EQ(err->code, 502);

  OllamaBackend nowhere("gone", "http://127.0.0.1:1");
  EXPECT_FALSE(nowhere.poll_health());
  err = nowhere.complete(ask("m", "x"), resp);
  EXPECT_EQ(err->code, 502);
  EXPECT_EQ(err->message.rfind("ollama: curl ", 0), 0u);
  EXPECT_EQ(nowhere.stats().errors, 1u);
}

}  // namespace
}  // namespace ostrel::inference

namespace ostrel::inference {
namespace {

TEST(ChatJson, HandWrittenTextsAreValidJsonForAnyContent) {
  ChatResponse resp;
  resp.request_id = "req-1";
  resp.model = "m\"odel";
  resp.message.content = "line one\nline \"two\"\t\\ \x01 caf\xc3\xa9";
  resp.prompt_tokens = 3;
  resp.completion_tokens = 4;
  nlohmann::json c = nlohmann::json::parse(chat_json::render_completion(resp, 42));
  EXPECT_EQ(c["choices"][0]["message"]["content"], resp.message.content);
  EXPECT_EQ(c["model"], resp.model);
  EXPECT_EQ(c["usage"]["total_tokens"], 7);
  EXPECT_EQ(c["created"], 42);

  std::string reason = "stop";
  InferenceError err{502, "upstream \"down\""};
  nlohmann::json k =
      nlohmann::json::parse(chat_json::render_chunk("id", "m", 1, "a\"b", true, &reason, &err));
  EXPECT_EQ(k["choices"][0]["delta"]["role"], "assistant");
  EXPECT_EQ(k["choices"][0]["delta"]["content"], "a\"b");
  EXPECT_EQ(k["choices"][0]["finish_reason"], "stop");
  EXPECT_EQ(k["error"]["type"], "upstream_unreachable");
  nlohmann::json plain =
      nlohmann::json::parse(chat_json::render_chunk("id", "m", 1, "", false, nullptr));
  EXPECT_TRUE(plain["choices"][0]["finish_reason"].is_null());
  EXPECT_FALSE(plain.contains("error"));

  ChatRequest req;
  req.model = "x\"y";
  req.messages = {Message{"user", "q\n\"uoted\"", "n\"m", "", ""}};
  req.temperature = 0.25f;
  req.max_tokens = 7;
  req.stop = {"\n", "END"};
  nlohmann::json body = nlohmann::json::parse(OllamaBackend::build_chat_body(req, true));
  EXPECT_EQ(body["model"], "x\"y");
  EXPECT_EQ(body["messages"][0]["content"], "q\n\"uoted\"");
  EXPECT_EQ(body["messages"][0]["name"], "n\"m");
  EXPECT_EQ(body["stream"], true);
  EXPECT_EQ(body["options"], (nlohmann::json{{"temperature", 0.25}, {"num_predict", 7}}));
  EXPECT_EQ(body["stop"], nlohmann::json({"\n", "END"}));
}

}  // namespace
}  // namespace ostrel::inference
