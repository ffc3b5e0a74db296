// The inference module booted in a real kernel, against loopback model servers.
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <thread>

#include "kernel/kernel.h"
#include "tests/support/fake_ollama.h"
#include "tests/support/test_support.h"

namespace ostrel::inference {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

class InferenceNode : public ::testing::Test {
 protected:
  void boot(std::vector<std::string> overrides = {}) {
    fs::create_directories(dir_ / "modules.d");
    fs::copy_file(fs::path(OSTREL_SOURCE_DIR) / "modules.d" / "inference.module.yaml",
                  dir_ / "modules.d" / "inference.module.yaml",
                  fs::copy_options::overwrite_existing);
    ::setenv("OSTREL_CONFIG_DIR", (dir_ / "config").c_str(), 1);
    ::setenv("OSTREL_INFERENCE_MODEL_DIR", (dir_ / "models").c_str(), 1);
    // Set before the node's threads start: they read the environment.
    ::setenv("TEST_EMBED_KEY", "sekret", 1);
    kernel::KernelConfig cfg;
    cfg.data_dir = (dir_ / "data").string();
    cfg.modules_d = (dir_ / "modules.d").string();
    cfg.bind = "127.0.0.1";
    cfg.port = 0;
    cfg.config_overrides = {"inference.ollama_url=" + ollama_.url(),
                            "inference.health_poll_interval_seconds=3600",
                            "inference.api_key_env_allowlist=OTHER_KEY, TEST_EMBED_KEY"};
    cfg.config_overrides.insert(cfg.config_overrides.end(), overrides.begin(), overrides.end());
    kernel_ = std::make_unique<kernel::Kernel>(cfg);
    ASSERT_TRUE(kernel_->boot());
    port_ = kernel_->gateway().port();
    kernel_->set_running();
    ASSERT_EQ(kernel_->modules().size(), 1u);
  }
  httplib::Client client() { return httplib::Client("127.0.0.1", port_); }
  Json post(const std::string& path, const Json& body, int expect) {
    auto res = client().Post(path, body.dump(), "application/json");
    EXPECT_TRUE(res);
    if (!res) return {};
    EXPECT_EQ(res->status, expect) << path << " " << res->body;
    return Json::parse(res->body, nullptr, false);
  }

  testing::TempDir dir_;
  testing::FakeOllama ollama_;
  std::uint16_t port_ = 0;
  std::unique_ptr<kernel::Kernel> kernel_;
};

// A POST whose answer is read piece by piece as it arrives; `on_data`
// returning false hangs up.
httplib::Result post_streaming(httplib::Client& c, const std::string& path, const std::string& body,
                               std::function<bool(const char*, size_t)> on_data) {
  httplib::Request req;
  req.method = "POST";
  req.path = path;
  req.body = body;
  req.set_header("Content-Type", "application/json");
  req.content_receiver = [on_data](const char* data, size_t n, uint64_t, uint64_t) {
    return on_data(data, n);
  };
  return c.send(req);
}

Json chat_body(bool stream, const std::string& model = "llama3") {
  return {{"model", model},
          {"messages", {{{"role", "user"}, {"content", "hi"}}}},
          {"stream", stream},
          {"stop", "\n"}};
}

TEST_F(InferenceNode, ChatCompletionAndModels) {
  boot();
  auto res = client().Post("/v1/inference/chat", chat_body(false).dump(), "application/json");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  EXPECT_EQ(res->get_header_value("X-Session-Id").rfind("sess-", 0), 0u);
  Json c = Json::parse(res->body);
  EXPECT_EQ(c["object"], "chat.completion");
  EXPECT_EQ(c["id"].get<std::string>().rfind("chatcmpl-ulvo-req-", 0), 0u);
  EXPECT_EQ(c["choices"][0]["message"]["content"], "hello from the model");
  EXPECT_EQ(c["choices"][0]["finish_reason"], "stop");
  EXPECT_EQ(c["usage"]["total_tokens"], 11);
  EXPECT_EQ(ollama_.bodies().back()["stop"], Json({"\n"}));  // a single string became a list

  // Without messages the request still reaches the backend.
  post("/v1/inference/chat", {{"model", "llama3"}}, 200);
  EXPECT_EQ(ollama_.bodies().back()["messages"], Json::array());
  // Bad input gets an OpenAI-shaped error.
  Json bad = post("/v1/inference/chat", {{"messages", "nope"}}, 400);
  EXPECT_EQ(bad["error"]["type"], "invalid_request_error");

  Json models = Json::parse(client().Get("/v1/inference/models")->body);
  std::set<std::string> ids;
  for (const auto& m : models["data"]) ids.insert(m["id"]);
  EXPECT_TRUE(ids.count("echo") && ids.count("llama3") && ids.count("ulvo-hash-embed-v1"));

  Json gpu = Json::parse(client().Get("/api/v1/inference/gpu")->body);
  EXPECT_TRUE(gpu["devices"].is_array());
  EXPECT_EQ(gpu["device_count"], gpu["devices"].size());
  auto native = client().Post("/api/v1/inference/models/preload", "{}", "application/json");
  EXPECT_EQ(native->body, "{\"error\":\"native_inference_not_compiled_in\"}");

  // The same through the syscall.
  kernel::SyscallResult r = kernel_->syscalls().call(identity::kKernelSource, "inference.chat",
                                                     chat_body(false, "echo").dump());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(Json::parse(r.body)["choices"][0]["message"]["content"], "Echo: hi");

  std::vector<std::string> events;
  int status =
      kernel_->syscalls().call_streaming(identity::kKernelSource, "inference.chat.stream",
                                         chat_body(true, "echo").dump(), [&](std::string_view e) {
                                           events.emplace_back(e);
                                           return true;
                                         });
  EXPECT_EQ(status, 0);
  ASSERT_GE(events.size(), 3u);
  EXPECT_EQ(Json::parse(events.front().substr(6))["choices"][0]["delta"]["role"], "assistant");
  EXPECT_EQ(events.back(), "data: [DONE]\n\n");
  std::string text;
  for (size_t i = 1; i + 1 < events.size(); ++i) {
    text += Json::parse(events[i].substr(6))["choices"][0]["delta"]["content"].get<std::string>();
  }
  EXPECT_EQ(text, "Echo: hi");
  // A reader that leaves after the first event ends the stream with -1.
  EXPECT_EQ(kernel_->syscalls().call_streaming(identity::kKernelSource, "inference.chat.stream",
                                               chat_body(true, "echo").dump(),
                                               [](std::string_view) { return false; }),
            -1);
}

TEST_F(InferenceNode, StreamsIncrementallyAndStopsUpstreamWhenTheClientLeaves) {
  boot({"inference.scheduler.worker_threads=1"});
  ollama_.reply = "one two three four five";
  ollama_.piece_delay = 150ms;

  std::vector<std::pair<std::chrono::steady_clock::time_point, std::string>> pieces;
  auto start = std::chrono::steady_clock::now();
  httplib::Client c = client();
  auto res = post_streaming(
      c, "/v1/inference/chat", chat_body(true).dump(), [&](const char* data, size_t n) {
        pieces.emplace_back(std::chrono::steady_clock::now(), std::string(data, n));
        return true;
      });
  ASSERT_TRUE(res);
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/event-stream");
  std::string all;
  for (const auto& p : pieces) all += p.second;
  // Framing: every event is "data: <json>\n\n"; the first carries the role,
  // the last JSON event the finish reason, then [DONE].
  std::vector<Json> events;
  size_t pos = 0;
  while (pos < all.size()) {
    size_t end = all.find("\n\n", pos);
    ASSERT_NE(end, std::string::npos);
    std::string event = all.substr(pos, end - pos);
    ASSERT_EQ(event.rfind("data: ", 0), 0u) << event;
    if (event != "data: [DONE]") events.push_back(Json::parse(event.substr(6)));
    pos = end + 2;
  }
  EXPECT_EQ(all.substr(all.size() - 14), "data: [DONE]\n\n");
  ASSERT_GE(events.size(), 6u);
  EXPECT_EQ(events.front()["choices"][0]["delta"]["role"], "assistant");
  EXPECT_FALSE(events[1]["choices"][0]["delta"].contains("role"));
  std::string text;
  for (const auto& e : events) text += e["choices"][0]["delta"]["content"].get<std::string>();
  EXPECT_EQ(text, "one two three four five");
  EXPECT_EQ(events.back()["choices"][0]["finish_reason"], "length");
  // Pieces arrived as the upstream produced them, not all at the end.
  ASSERT_GE(pieces.size(), 3u);
  EXPECT_LT(pieces[1].first - start, pieces.back().first - start - 300ms);

  // A client that hangs up after the first pieces: the upstream transfer is
  // cut and the single worker is free for the next request.
  ollama_.reply = std::string("w ") + std::string(40, 'x') + " a b c d e f g h i j k l m n o p";
  {
    httplib::Client quitter = client();
    int got = 0;
    post_streaming(quitter, "/v1/inference/chat", chat_body(true).dump(),
                   [&](const char*, size_t) { return ++got < 3; });
  }
  testing::eventually([&] { return ollama_.client_gone(); }, 2000ms);
  EXPECT_TRUE(ollama_.client_gone());
  ollama_.piece_delay = 0ms;
  auto after = client().Post("/v1/inference/chat", chat_body(false).dump(), "application/json");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 200);
}

TEST_F(InferenceNode, QueueOverflowReachesClientsAs507) {
  boot({"inference.scheduler.worker_threads=1", "inference.scheduler.max_queue_depth=1"});
  ollama_.reply_delay = 400ms;
  std::vector<int> statuses(3, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      std::this_thread::sleep_for(std::chrono::milliseconds(60 * i));
      auto res = client().Post("/v1/inference/chat", chat_body(false).dump(), "application/json");
      statuses[i] = res ? res->status : -1;
      if (res && res->status == 507) {
        EXPECT_EQ(Json::parse(res->body)["error"]["type"], "quota_exceeded");
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(statuses[0], 200);
  EXPECT_EQ(statuses[1], 200);
  EXPECT_EQ(statuses[2], 507);
}

TEST_F(InferenceNode, EmbeddingsOfflineAndThroughLocalBackends) {
  // An OpenAI-compatible embeddings server on loopback.
  httplib::Server openai;
  std::mutex seen_mu;  // the server's thread writes, the test reads
  std::string seen_auth, seen_source;
  openai.Post("/v1/embeddings", [&](const httplib::Request& req, httplib::Response& res) {
    std::lock_guard lock(seen_mu);
    seen_auth = req.get_header_value("Authorization");
    seen_source = req.get_header_value("X-Ostrel-Source");
    res.set_content(R"({"object":"list","data":[{"embedding":[0.5,0.5]}],"model":"e5"})",
                    "application/json");
  });
  int port = 0;
  std::thread t = testing::serve_on_loopback(openai, port);
  boot();

  Json a = post("/v1/inference/embeddings",
                {{"model", "ulvo-hash-embed-v1"}, {"input", "the cat sat on the mat"}}, 200);
  Json b = post("/v1/inference/embeddings",
                {{"model", "ulvo-hash-embed-v1"},
                 {"input", {"the cat sat on the mat", "a cat on a mat", "quarterly tax filing"}}},
                200);
  auto vec = [](const Json& j, int i) {
    return j["data"][i]["embedding"].get<std::vector<float>>();
  };
  std::vector<float> v0 = vec(a, 0);
  ASSERT_EQ(v0.size(), 384u);
  EXPECT_EQ(v0, vec(b, 0));  // deterministic
  double norm = 0, near = 0, far = 0;
  for (size_t i = 0; i < v0.size(); ++i) {
    norm += v0[i] * v0[i];
    near += v0[i] * vec(b, 1)[i];
    far += v0[i] * vec(b, 2)[i];
  }
  EXPECT_NEAR(norm, 1.0, 1e-5);
  EXPECT_GT(near, far + 0.2);
  EXPECT_EQ(post("/v1/inference/embeddings", {{"input", "x"}}, 400)["error"], "missing_model");
  EXPECT_EQ(
      post("/v1/inference/embeddings", {{"model", "e5"}, {"input", "x"}}, 404)["error"]["type"],
      "not_implemented");

  // A backend may only name a key variable the administrator allowed: no
  // client can make the node send the cluster secret to a server of its own.
  EXPECT_EQ(post("/api/v1/inference/local-backends",
                 {{"id", "evil"},
                  {"provider", "openai"},
                  {"api_base", "http://127.0.0.1:9/"},
                  {"api_key_env", "OSTREL_CLUSTER_SECRET"},
                  {"models", {"e6"}}},
                 400)["error"]
                .get<std::string>()
                .rfind("api_key_env_not_allowed", 0),
            0u);
  // A local backend whose base ends in "/v1/" and one without a suffix reach the same URL.
  Json reg = post("/api/v1/inference/local-backends",
                  {{"id", "lan"},
                   {"provider", "openai"},
                   {"api_base", "http://127.0.0.1:" + std::to_string(port) + "/v1/"},
                   {"api_key_env", "TEST_EMBED_KEY"},
                   {"models", {"e5"}}},
                  200);
  EXPECT_EQ(reg["status"], "registered");
  Json out = post("/v1/inference/embeddings", {{"model", "e5"}, {"input", "x"}}, 200);
  EXPECT_EQ(out["data"][0]["embedding"], Json({0.5, 0.5}));
  {
    std::lock_guard lock(seen_mu);
    EXPECT_EQ(seen_auth, "Bearer sekret");
    EXPECT_EQ(seen_source.rfind("eis=", 0), 0u);
  }
  reg = post("/api/v1/inference/local-backends",
             {{"id", "lan"},
              {"provider", "openai"},
              {"api_base", "http://127.0.0.1:" + std::to_string(port)},
              {"models", {"e5"}}},
             200);
  EXPECT_EQ(reg["status"], "updated");
  post("/v1/inference/embeddings", {{"model", "e5"}, {"input", "x"}}, 200);
  Json pub = Json::parse(client().Get("/api/v1/inference/local-backends/public")->body);
  EXPECT_FALSE(pub["backends"][0].contains("api_key"));
  EXPECT_EQ(post("/api/v1/inference/local-backends", {{"id", "x"}}, 400)["error"],
            "missing id / provider / api_base");

  // The journal holds both "set" lines; a restart replays the second.
  std::string journal = testing::read_file(dir_ / "config" / "inference-local-backends.jsonl");
  EXPECT_EQ(testing::lines_with(journal, "\"op\":\"set\"").size(), 2u);
  kernel_.reset();
  boot();
  Json listed = Json::parse(client().Get("/api/v1/inference/local-backends")->body);
  ASSERT_EQ(listed["backends"].size(), 1u);
  EXPECT_EQ(listed["backends"][0]["api_base"], "http://127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(listed["backends"][0]["source"], "journal");
  auto del = client().Delete("/api/v1/inference/local-backends/lan");
  EXPECT_EQ(del->status, 200);
  EXPECT_EQ(client().Delete("/api/v1/inference/local-backends/lan")->status, 404);
  openai.stop();
  t.join();
}

TEST_F(InferenceNode, ModelFilesUploadInspectDelete) {
  boot();
  // A minimal GGUF v3 file: no tensors, one key.
  std::string gguf = "GGUF";
  auto put = [&](auto v) { gguf.append(reinterpret_cast<const char*>(&v), sizeof v); };
  put(std::uint32_t{3});
  put(std::uint64_t{0});
  put(std::uint64_t{1});
  put(std::uint64_t{20});
  gguf += "general.architecture";
  put(std::uint32_t{8});
  put(std::uint64_t{5});
  gguf += "llama";

  auto c = client();
  EXPECT_EQ(Json::parse(c.Post("/api/v1/inference/models/upload", gguf, "application/octet-stream")
                            ->body)["error"],
            "missing_filename_query");
  for (const char* bad : {"..%2Fescape.gguf", "%2Fabs.gguf", "x.bin", ".hidden.gguf"}) {
    auto r = c.Post((std::string("/api/v1/inference/models/upload?filename=") + bad).c_str(), gguf,
                    "application/octet-stream");
    EXPECT_EQ(Json::parse(r->body)["error"], "invalid_path") << bad;
  }
  auto up = c.Post("/api/v1/inference/models/upload?filename=tiny.gguf", gguf,
                   "application/octet-stream");
  ASSERT_EQ(up->status, 200) << up->body;
  EXPECT_EQ(testing::read_file(dir_ / "models" / "tiny.gguf"), gguf);

  Json files = Json::parse(c.Get("/api/v1/inference/files")->body);
  ASSERT_EQ(files["files"].size(), 1u);
  EXPECT_EQ(files["files"][0]["type"], "gguf");
  Json info = Json::parse(c.Get("/api/v1/inference/models/tiny.gguf?action=inspect")->body);
  EXPECT_EQ(info["architecture"], "llama");
  EXPECT_EQ(info["gguf_version"], 3);
  EXPECT_EQ(info["alignment"], 32);
  EXPECT_EQ(Json::parse(c.Get("/api/v1/inference/models/tiny?action=weigh")->body)["error"],
            "unknown_action");
  EXPECT_EQ(c.Get("/api/v1/inference/models/ghost?action=inspect")->status, 404);
  testing::write_file(dir_ / "models" / "broken.gguf", "GGUF but not really a model file");
  Json broken = Json::parse(c.Get("/api/v1/inference/models/broken.gguf?action=inspect")->body);
  EXPECT_EQ(broken["error"], "gguf_parse_failed");

  EXPECT_EQ(Json::parse(c.Post("/api/v1/inference/models/pull", R"({"url":"ftp://x/y.gguf"})",
                               "application/json")
                            ->body)["error"],
            "invalid_scheme");
  EXPECT_EQ(c.Delete("/api/v1/inference/files/tiny.gguf")->status, 200);
  EXPECT_FALSE(fs::exists(dir_ / "models" / "tiny.gguf"));
  EXPECT_EQ(c.Delete("/api/v1/inference/files/tiny.gguf")->status, 404);
}

}  // namespace
}  // namespace ostrel::inference
