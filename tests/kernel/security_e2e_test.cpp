// Attacks on the real binary: what callers of every role, malformed bodies,
// floods, crashes and shutdowns must not be able to do to a node.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "tests/support/fake_ollama.h"
#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

// A raw connection, for bodies and heads no HTTP client would send.
class Raw {
 public:
  explicit Raw(int port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ok_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~Raw() { ::close(fd_); }
  bool send(std::string_view bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // Everything until the peer closes or `timeout` passes.
  std::string read_all(std::chrono::milliseconds timeout) {
    std::string out;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{fd_, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      char buf[4096];
      ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) {
        closed = true;
        break;
      }
      out.append(buf, static_cast<size_t>(n));
    }
    return out;
  }
  bool ok() const { return ok_; }
  bool closed = false;

 private:
  int fd_;
  bool ok_ = false;
};

class AttackedNode : public ::testing::Test {
 protected:
  void start(std::vector<std::string> extra = {}, std::map<std::string, std::string> env = {}) {
    fs::create_directories(dir_ / "modules.d");
    fs::copy_file(fs::path(OSTREL_SOURCE_DIR) / "modules.d" / "inference.module.yaml",
                  dir_ / "modules.d" / "inference.module.yaml",
                  fs::copy_options::overwrite_existing);
    Process::Options o;
    o.args = {"--port=0",
              "--bind=127.0.0.1",
              "--data-dir=" + (dir_ / "data").string(),
              "--modules-d=" + (dir_ / "modules.d").string(),
              "--config-set",
              "inference.ollama_url=" + ollama_.url(),
              "--config-set",
              "inference.api_key_env_allowlist=MODEL_KEY"};
    o.args.insert(o.args.end(), extra.begin(), extra.end());
    o.unset_env = {"OSTREL_AUTH", "OSTREL_DATA_DIR", "OSTREL_GOSSIP_ENABLED",
                   "OSTREL_CLUSTER_SECRET", "OSTREL_ULVO_PEERS"};
    o.set_env = {{"OSTREL_CONFIG_DIR", (dir_ / "config").string()},
                 {"OSTREL_INFERENCE_MODEL_DIR", (dir_ / "models").string()}};
    for (auto& [k, v] : env) o.set_env[k] = v;
    node_ = std::make_unique<Process>(OSTREL_BINARY, o, dir_ / "logs");
    port_ = wait_for_ready_port(*node_, 15s);
    ASSERT_GT(port_, 0) << node_->err();
    admin_ = bootstrap_token(*node_);
  }

  Answer call(const std::string& method, const std::string& path, const Json& body,
              const std::string& token = "", const std::string& raw_body = "") {
    return call_port(port_, method, path, body, token, raw_body);
  }

  Answer syscall(const std::string& name, const Json& args, const std::string& token) {
    return call("POST", "/api/v1/kernel/syscall", {{"name", name}, {"args", args}}, token);
  }

  bool alive() {
    httplib::Client c("127.0.0.1", port_);
    auto r = c.Get("/health");
    return r && r->status == 200;
  }

  // A user of tenant `tenant` with `role`, and a token for them.
  std::string user_token(const std::string& tenant, const std::string& user,
                         const std::string& role) {
    call("POST", "/api/v1/tenants", {{"id", tenant}}, admin_);
    call("POST", "/api/v1/tenants/" + tenant + "/users", {{"id", user}, {"role_ids", {role}}},
         admin_);
    Answer t = call("POST", "/api/v1/capabilities/issue-for-user",
                    {{"tenant", tenant}, {"user_id", user}}, admin_);
    EXPECT_EQ(t.status, 200) << t.text;
    return t.body.value("token", "");
  }

  TempDir dir_;
  FakeOllama ollama_;
  std::unique_ptr<Process> node_;
  int port_ = 0;
  std::string admin_;
};

// The generic syscall and event routes apply the rules of the routes they
// mirror: a viewer can neither manage tenants nor quotas nor backends, nor
// reach another tenant; only an administrator publishes node topics; a
// backend's key variable must be on the allowlist, also for administrators.
TEST_F(AttackedNode, ViewersCannotRunAdministrativeSyscalls) {
  start({"--auth=enforce"});
  ASSERT_FALSE(admin_.empty()) << node_->out();
  std::string viewer = user_token("acme", "val", "viewer");
  user_token("other", "oscar", "viewer");
  ASSERT_FALSE(viewer.empty());

  for (const auto& [name, args] : std::vector<std::pair<std::string, Json>>{
           {"identity.tenants.create", {{"id", "evil"}}},
           {"identity.tenants.delete", {{"id", "other"}}},
           {"identity.tenants.list", Json::object()},
           {"kernel.quota.release",
            {{"tenant", "acme"}, {"resource", "tokens_per_day"}, {"amount", 1000}}},
           {"kernel.quota.consume", {{"tenant", "other"}, {"resource", "x"}}},
           {"inference.local_backends.register",
            {{"id", "evil"}, {"provider", "ollama"}, {"api_base", "http://127.0.0.1:9"}}},
           {"no.such.module.call", Json::object()}}) {
    Answer a = syscall(name, args, viewer);
    if (name == "no.such.module.call") {
      EXPECT_EQ(a.status, 404) << name;
      continue;
    }
    EXPECT_EQ(a.status, 403) << name << " " << a.text;
    EXPECT_EQ(a.body["error"], "forbidden") << name;
  }
  Answer cross = syscall("kernel.quota.check", {{"tenant", "other"}, {"resource", "x"}}, viewer);
  EXPECT_EQ(cross.status, 403);
  EXPECT_EQ(cross.body["error"], "cross_tenant_access_denied");
  Answer own = syscall("kernel.quota.check", {{"resource", "x"}}, viewer);
  EXPECT_EQ(own.status, 200) << own.text;
  EXPECT_EQ(own.body["status"], 0);
  EXPECT_EQ(syscall("inference.models.list", Json::object(), viewer).status, 200);
  // Nothing changed: both tenants (and the node's "default") are there and
  // no backend was registered.
  Answer tenants = syscall("identity.tenants.list", Json::object(), admin_);
  EXPECT_EQ(tenants.body["body"]["tenants"].size(), 3u);
  EXPECT_EQ(call("GET", "/api/v1/inference/local-backends", {}, admin_).body["backends"].size(),
            0u);

  EXPECT_EQ(
      call("POST", "/api/v1/kernel/events/publish", {{"topic", "kernel.draining"}}, viewer).status,
      403);
  EXPECT_EQ(call("POST", "/api/v1/kernel/events/publish", {{"topic", "app.note"}}, viewer).status,
            403);
  EXPECT_EQ(call("POST", "/api/v1/kernel/events/publish", {{"topic", "app.note"}}, admin_).status,
            200);
  EXPECT_EQ(call("GET", "/api/v1/kernel/config?module=inference", {}, viewer).status, 403);

  Answer leak = syscall("inference.local_backends.register",
                        {{"id", "leak"},
                         {"provider", "openai"},
                         {"api_base", "http://127.0.0.1:9"},
                         {"api_key_env", "OSTREL_CLUSTER_SECRET"},
                         {"models", {"m"}}},
                        admin_);
  EXPECT_EQ(leak.status, 200);
  EXPECT_EQ(leak.body["status"], -1);
  EXPECT_EQ(leak.body["body"]["error"].get<std::string>().rfind("api_key_env_not_allowed", 0), 0u);

  // Chat needs the inference.chat scope, which a viewer lacks.
  Json chat = {{"model", "echo"}, {"messages", {{{"role", "user"}, {"content", "hi"}}}}};
  EXPECT_EQ(call("POST", "/v1/inference/chat", chat, viewer).status, 403);
  EXPECT_EQ(call("POST", "/v1/inference/chat", chat, admin_).status, 200);
}

// Revoking a token revokes every token attenuated from it; revoking an id
// the node never issued says so; issue answers name the token's id.
TEST_F(AttackedNode, RevocationCoversDescendants) {
  start({"--auth=enforce"});
  std::string dev = user_token("acme", "dora", "developer");
  Answer verified = call("POST", "/api/v1/capabilities/verify", {{"token", dev}}, admin_);
  const std::string parent_id = verified.body.value("id", "");
  ASSERT_FALSE(parent_id.empty());
  Answer child = call("POST", "/api/v1/capabilities/attenuate",
                      {{"token", dev}, {"scopes", {"inference.chat"}}}, dev);
  ASSERT_EQ(child.status, 200) << child.text;
  Answer grandchild = call("POST", "/api/v1/capabilities/attenuate",
                           {{"token", child.body["token"]}, {"scopes", {"inference.chat"}}}, dev);
  ASSERT_EQ(grandchild.status, 200);
  const std::string g = grandchild.body["token"];
  EXPECT_EQ(call("GET", "/api/v1/kernel/stats", {}, g).status, 200);

  Answer revoke = call("POST", "/api/v1/capabilities/revoke", {{"id", parent_id}}, admin_);
  EXPECT_EQ(revoke.status, 200) << revoke.text;
  Answer refused = call("GET", "/api/v1/kernel/stats", {}, g);
  EXPECT_EQ(refused.status, 403);
  EXPECT_EQ(refused.body["reason"], "revoked");
  Answer unknown =
      call("POST", "/api/v1/capabilities/revoke", {{"id", "0123456789abcdef0123"}}, admin_);
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.body["error"], "unknown_token");
  Answer issued = call("POST", "/api/v1/capabilities/issue", {{"scopes", {"x"}}}, admin_);
  EXPECT_EQ(issued.body["id"].get<std::string>().size(), 20u);
  EXPECT_GT(issued.body["exp_unix_s"].get<std::int64_t>(), 0);
}

// No body can crash the node: 100,000 levels of nesting in every body that
// is parsed, and in a token, are refused before any parse.
TEST_F(AttackedNode, DeeplyNestedJsonIsRefusedEverywhere) {
  start();
  const std::string deep(100000, '[');
  const std::string deep_object = "{\"a\":" + std::string(100000, '[');
  for (const char* path :
       {"/v1/inference/embeddings", "/api/v1/kernel/syscall", "/api/v1/kernel/events/publish",
        "/api/v1/tenants", "/v1/inference/chat"}) {
    Answer a = call("POST", path, {}, "", deep);
    EXPECT_EQ(a.status, 400) << path << " " << a.text;
    EXPECT_EQ(a.body["error"], "json_too_deep") << path;
    Answer b = call("POST", path, {}, "", deep_object);
    EXPECT_EQ(b.status, 400) << path;
  }
  Answer put = call("PUT", "/api/v1/inference/config", {}, "", deep);
  EXPECT_EQ(put.status, 400);
  // Nested values inside the accepted depth still work.
  std::string ok = "{\"name\":\"inference.models.list\",\"args\":{\"x\":" + std::string(30, '[') +
                   std::string(30, ']') + "}}";
  EXPECT_EQ(call("POST", "/api/v1/kernel/syscall", {}, "", ok).status, 200);
  // A tenant half-made by a crashed parse would block its id: only the
  // node's own "default" exists.
  Json tenants = call("GET", "/api/v1/tenants", {}).body["tenants"];
  ASSERT_EQ(tenants.size(), 1u) << tenants.dump();
  EXPECT_EQ(tenants[0]["id"], "default");
  ASSERT_TRUE(alive());
}

TEST_F(AttackedNode, DeeplyNestedTokensAreRefused) {
  start({"--auth=enforce"});
  // A token that decodes to deeply nested JSON.
  std::string envelope(5700, '[');  // the most an 8 KiB header line holds
  std::string token;
  static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  for (size_t i = 0; i + 2 < envelope.size(); i += 3) {
    std::uint32_t v = (static_cast<unsigned char>(envelope[i]) << 16) |
                      (static_cast<unsigned char>(envelope[i + 1]) << 8) |
                      static_cast<unsigned char>(envelope[i + 2]);
    for (int k = 3; k >= 0; --k) token += kAlphabet[(v >> (6 * k)) & 63];
  }
  Answer a = call("GET", "/api/v1/kernel/stats", {}, token);
  EXPECT_EQ(a.status, 403);
  EXPECT_EQ(a.body["reason"], "bad_encoding");
  ASSERT_TRUE(alive());
}

// Bodies are not read before the caller is admitted, and never past the
// route's limit; a flood of large chats leaves memory bounded.
TEST_F(AttackedNode, BodiesAreBoundedAndReadOnlyAfterAdmission) {
  start({"--auth=enforce"});
  // An anonymous 200 MB post is refused before its body is read.
  for (int i = 0; i < 8; ++i) {
    Raw r(port_);
    ASSERT_TRUE(r.ok());
    r.send(
        "POST /api/v1/tenants HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        "Content-Length: 209715200\r\n\r\n");
    r.send(std::string(64 * 1024, ' '));
    std::string answer = r.read_all(3s);
    EXPECT_NE(answer.find("HTTP/1.1 401"), std::string::npos) << answer.substr(0, 200);
    EXPECT_TRUE(r.closed);
  }
  // An administrator's body over a control route's limit: 413 at once.
  Raw big(port_);
  big.send("POST /api/v1/tenants HTTP/1.1\r\nHost: x\r\nX-Ostrel-Capability: " + admin_ +
           "\r\nContent-Length: 209715200\r\n\r\n");
  std::string answer = big.read_all(3s);
  EXPECT_NE(answer.find("HTTP/1.1 413"), std::string::npos) << answer.substr(0, 300);
  EXPECT_NE(answer.find("payload_too_large"), std::string::npos);
  // Chunked, with no length to check up front: cut off at the limit.
  Raw chunked(port_);
  chunked.send("POST /api/v1/tenants HTTP/1.1\r\nHost: x\r\nX-Ostrel-Capability: " + admin_ +
               "\r\nTransfer-Encoding: chunked\r\n\r\n");
  for (int i = 0; i < 40; ++i) chunked.send("10000\r\n" + std::string(65536, ' ') + "\r\n");
  answer = chunked.read_all(3s);
  EXPECT_NE(answer.find("HTTP/1.1 413"), std::string::npos) << answer.substr(0, 300);

  // 10 MB echo chats: nothing of them stays, so memory does not grow with
  // their number.
  Json chat = {{"model", "echo"},
               {"messages", {{{"role", "user"}, {"content", std::string(10 << 20, 'x')}}}}};
  const std::string text = chat.dump();
  auto chats = [&](int n) {
    for (int i = 0; i < n; ++i) {
      Answer a = call("POST", "/v1/inference/chat", {}, admin_, text);
      ASSERT_EQ(a.status, 200) << a.text.substr(0, 200);
    }
  };
  chats(2);
  const std::size_t before = resident_bytes(node_->pid());
  chats(6);
  const std::size_t after = resident_bytes(node_->pid());
  if (testing::kMemoryBoundsHold) {
    EXPECT_LT(after, before + (40u << 20)) << before << " → " << after;
    EXPECT_LT(after, 200u << 20);
  }
  ASSERT_TRUE(alive());
}

// A crash in the middle of creating tenants never leaves one that can be
// neither used nor created again: at the next boot each has its roles and
// signing key.
TEST_F(AttackedNode, TenantCreationSurvivesKills) {
  std::mt19937 rng(7);
  int created = 0;
  for (int round = 0; round < 8; ++round) {
    start();
    std::atomic<bool> stop{false};
    std::thread creator([&] {
      httplib::Client c("127.0.0.1", port_);
      for (int i = 0; !stop; ++i) {
        c.Post("/api/v1/tenants",
               Json{{"id", "t" + std::to_string(round) + "-" + std::to_string(i)}}.dump(),
               "application/json");
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 60));
    node_->signal(SIGKILL);
    node_->wait_exit(5s);
    stop = true;
    creator.join();
  }
  start();
  Answer list = call("GET", "/api/v1/tenants", {});
  ASSERT_EQ(list.status, 200);
  for (const auto& t : list.body["tenants"]) {
    const std::string id = t["id"];
    ++created;
    Answer detail = call("GET", "/api/v1/tenants/" + id, {});
    EXPECT_EQ(detail.body["roles"].size(), 3u) << id;
    EXPECT_EQ(call("GET", "/api/v1/capabilities/public-key?tenant=" + id, {}).status, 200) << id;
  }
  EXPECT_GT(created, 0);
}

// Temporaries left by killed writes are removed at start and never listed;
// names that are not valid UTF-8 are refused with 400, library texts and
// host paths never reach an answer, a 100 KB URI gets 414, quota counters
// saturate, and a POST without a body is an empty object.
TEST_F(AttackedNode, AnswersStayWellFormed) {
  write_file(dir_ / "models" / ".m.gguf.tmp.4242.0", "GGUF partial");
  write_file(dir_ / "models" / "m.gguf.part", "GGUF partial");
  write_file(dir_ / "data" / "state" / ".tenants.jsonl.tmp.4242.1", "{}");
  write_file(dir_ / "models" / "real.gguf", "GGUF");
  start();
  EXPECT_FALSE(fs::exists(dir_ / "models" / ".m.gguf.tmp.4242.0"));
  EXPECT_FALSE(fs::exists(dir_ / "models" / "m.gguf.part"));
  EXPECT_FALSE(fs::exists(dir_ / "data" / "state" / ".tenants.jsonl.tmp.4242.1"));
  Answer files = call("GET", "/api/v1/inference/files", {});
  ASSERT_EQ(files.body["files"].size(), 1u) << files.text;
  EXPECT_EQ(files.body["files"][0]["filename"], "real.gguf");
  EXPECT_EQ(files.text.find(dir_.path().string()), std::string::npos) << files.text;

  Answer upload =
      call("POST", "/api/v1/inference/models/upload?filename=%FF%FE.gguf", {}, "", "GGUF....");
  EXPECT_EQ(upload.status, 400) << upload.text;
  EXPECT_EQ(call("GET", "/api/v1/inference/models", {}).status, 200);
  Answer not_gguf =
      call("POST", "/api/v1/inference/models/upload?filename=x.gguf", {}, "", "<html>");
  EXPECT_EQ(not_gguf.status, 400);
  EXPECT_EQ(not_gguf.body["error"], "not_gguf");
  Answer uploaded =
      call("POST", "/api/v1/inference/models/upload?filename=u.gguf", {}, "", "GGUF body");
  EXPECT_EQ(uploaded.status, 200) << uploaded.text;
  EXPECT_EQ(uploaded.body["path"], "models/u.gguf");

  Answer bad_path = call("GET", "/api/v1/inference/models/%FF", {});
  EXPECT_EQ(bad_path.status, 400);
  EXPECT_EQ(bad_path.body["error"], "invalid_utf8");
  Answer typed = call("POST", "/api/v1/tenants", {{"id", "acme"}, {"display_name", 5}});
  EXPECT_EQ(typed.status, 400);
  EXPECT_EQ(typed.text.find("json.exception"), std::string::npos) << typed.text;
  Answer bad_id = call("POST", "/api/v1/tenants", {{"id", "../x"}});
  EXPECT_EQ(bad_id.status, 400);
  Answer long_id = call("POST", "/api/v1/tenants", {{"id", std::string(200, 'a')}});
  EXPECT_EQ(long_id.status, 400);

  Raw uri(port_);
  uri.send("GET /" + std::string(100 * 1024, 'u') + " HTTP/1.1\r\n");
  EXPECT_NE(uri.read_all(3s).find("HTTP/1.1 414"), std::string::npos);

  Json huge = {{"tenant", "t"}, {"resource", "r"}, {"amount", INT64_MAX}};
  syscall("kernel.quota.consume", huge, "");
  Answer sat = syscall("kernel.quota.consume", huge, "");
  EXPECT_EQ(sat.body["body"]["usage"], INT64_MAX);

  httplib::Client c("127.0.0.1", port_);
  Raw empty(port_);
  empty.send("POST /api/v1/kernel/compact HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_NE(empty.read_all(2s).find("HTTP/1.1 200"), std::string::npos);
  Answer stats = call("GET", "/api/v1/kernel/stats", {});
  EXPECT_TRUE(stats.body["requests_total"].is_number_integer()) << stats.text;
  ASSERT_TRUE(alive());
}

// SIGTERM does not wait for a stalled model stream or a slow upload: after
// the drain time the stream ends with an error chunk and "[DONE]", and the
// node exits.
TEST_F(AttackedNode, ShutdownBoundsSlowStreamsAndUploads) {
  ollama_.piece_delay = 60s;
  start({}, {{"OSTREL_ULVO_DRAIN_TIMEOUT_S", "1"}});
  std::string streamed;
  std::thread streamer([&] {
    Raw r(port_);
    std::string body = Json{{"model", "llama3"},
                            {"stream", true},
                            {"messages", {{{"role", "user"}, {"content", "hi"}}}}}
                           .dump();
    r.send(
        "POST /v1/inference/chat HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        "Content-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body);
    streamed = r.read_all(15s);
  });
  Raw upload(port_);
  upload.send(
      "POST /api/v1/inference/models/upload?filename=slow.gguf HTTP/1.1\r\nHost: x\r\n"
      "Content-Length: 104857600\r\n\r\nGGUF");
  ASSERT_TRUE(eventually([&] { return ollama_.pieces_sent() > 0; }))
      << "the model server never started the stream";
  auto before = std::chrono::steady_clock::now();
  node_->signal(SIGTERM);
  auto status = node_->wait_exit(10s);
  auto took = std::chrono::steady_clock::now() - before;
  streamer.join();
  ASSERT_TRUE(status.has_value()) << node_->err();
  EXPECT_EQ(*status, 0);
  EXPECT_LT(took, 5s);
  EXPECT_NE(streamed.find("\"finish_reason\":\"error\""), std::string::npos) << streamed;
  EXPECT_NE(streamed.find("data: [DONE]"), std::string::npos) << streamed;
  EXPECT_FALSE(fs::exists(dir_ / "models" / "slow.gguf"));
}

}  // namespace
}  // namespace ostrel::testing
