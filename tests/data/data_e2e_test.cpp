// The data module on real node processes: fan-out search and replication
// across three nodes on loopback, durability under SIGKILL, bad input, and
// the embedding chain against a loopback OpenAI-shaped embeddings server.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <thread>

#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

struct Node {
  std::unique_ptr<Process> process;
  int port = 0;
  fs::path data;
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port); }

  Json call(const std::string& method, const std::string& path, const Json& body, int expect,
            const std::string& raw = "") {
    httplib::Client c("127.0.0.1", port);
    c.set_read_timeout(20, 0);
    const std::string text = raw.empty() ? body.dump() : raw;
    auto r = method == "GET"      ? c.Get(path)
             : method == "DELETE" ? c.Delete(path)
             : method == "PUT"    ? c.Put(path, text, "application/json")
                                  : c.Post(path, text, "application/json");
    EXPECT_TRUE(r) << method << " " << path;
    if (!r) return Json();
    EXPECT_EQ(r->status, expect) << method << " " << path << " " << r->body;
    return Json::parse(r->body, nullptr, false);
  }
  std::string metrics() {
    httplib::Client c("127.0.0.1", port);
    auto r = c.Get("/metrics");
    return r ? r->body : "";
  }
};

class DataNodes : public ::testing::Test {
 protected:
  Node start(const std::string& name, std::vector<std::string> extra = {}) {
    fs::create_directories(dir_ / "modules.d");
    for (const char* m : {"inference.module.yaml", "data.module.yaml"}) {
      fs::copy_file(fs::path(OSTREL_SOURCE_DIR) / "modules.d" / m, dir_ / "modules.d" / m,
                    fs::copy_options::overwrite_existing);
    }
    Node n;
    n.data = dir_ / name;
    Process::Options o;
    o.args = {"--port=0",
              "--bind=127.0.0.1",
              "--node-id=" + name,
              "--data-dir=" + n.data.string(),
              "--modules-d=" + (dir_ / "modules.d").string(),
              "--config-set",
              "data.embedding_model=ulvo-hash-embed-v1",
              "--config-set",
              "inference.ollama_url=http://127.0.0.1:9"};
    o.args.insert(o.args.end(), extra.begin(), extra.end());
    o.unset_env = {"OSTREL_AUTH", "OSTREL_DATA_DIR", "OSTREL_ULVO_PEERS"};
    o.set_env = {{"OSTREL_CONFIG_DIR", (n.data / "config").string()},
                 {"OSTREL_CLUSTER_SECRET", "data-e2e-secret"}};
    n.process = std::make_unique<Process>(OSTREL_BINARY, o, dir_ / ("logs-" + name));
    n.port = wait_for_ready_port(*n.process, 15s);
    EXPECT_GT(n.port, 0) << n.process->err();
    return n;
  }
  Node restart(Node& n, const std::string& name, std::vector<std::string> extra = {}) {
    n.process->signal(SIGKILL);
    n.process->wait_exit(5s);
    return start(name, std::move(extra));
  }
  TempDir dir_;
};

// The sum of a labelled counter's series in a /metrics text.
double counter_sum(const std::string& metrics, const std::string& name) {
  double sum = 0;
  for (const auto& line : lines_with(metrics, name)) {
    if (line.rfind(name, 0) != 0) continue;
    sum += std::stod(line.substr(line.rfind(' ') + 1));
  }
  return sum;
}

// A search on one node merges the hits of its peers (each tagged with its
// peer), reports a dead peer with its error while its own hits still come
// back, and peers do not fan the forwarded search out again.
TEST_F(DataNodes, SearchFansOutAcrossThreeNodes) {
  Node c = start("c");
  Node b = start("b", {"--config-set", "data.peers=" + c.url()});
  const std::string dead = "http://127.0.0.1:" + std::to_string(free_port());
  Node a = start("a", {"--config-set", "data.peers=" + b.url() + "," + c.url() + "," + dead});

  a.call("POST", "/api/v1/vector/ingest",
         {{"namespace", "docs"}, {"text", "apples and pears grow in the orchard"}, {"source", "a"}},
         200);
  b.call("POST", "/api/v1/vector/ingest",
         {{"namespace", "docs"}, {"text", "orchard apples ripen in autumn"}, {"source", "b"}}, 200);
  c.call("POST", "/api/v1/vector/ingest",
         {{"namespace", "docs"}, {"text", "apple orchards need bees"}, {"source", "c"}}, 200);

  Json found = a.call(
      "POST", "/api/v1/vector/search",
      {{"namespace", "docs"}, {"query", "apple orchard"}, {"top_k", 5}, {"min_score", 0}}, 200);
  ASSERT_EQ(found["hits"].size(), 3u) << found.dump(2);
  std::map<std::string, std::string> peer_of;
  for (const auto& h : found["hits"]) peer_of[h["source"]] = h["peer"];
  EXPECT_EQ(peer_of["a"], "");
  EXPECT_EQ(peer_of["b"], b.url());
  EXPECT_EQ(peer_of["c"], c.url());
  ASSERT_EQ(found["peers"].size(), 3u);
  for (const auto& p : found["peers"]) {
    if (p["peer"] == dead) {
      EXPECT_TRUE(p.contains("error")) << p.dump();
      EXPECT_EQ(p["hits"], 0);
    } else {
      EXPECT_FALSE(p.contains("error")) << p.dump();
      EXPECT_EQ(p["hits"], 1);
    }
  }
  // b received the search with "_no_fanout": c saw exactly one search (a's).
  EXPECT_EQ(counter_sum(c.metrics(), "ostrel_data_vector_searches_total"), 1.0) << c.metrics();
  // The same search on b does fan out to c.
  Json from_b = b.call("POST", "/api/v1/vector/search",
                       {{"namespace", "docs"}, {"query", "apple orchard"}, {"min_score", 0}}, 200);
  EXPECT_EQ(from_b["hits"].size(), 2u);
  Json no_fanout = b.call(
      "POST", "/api/v1/vector/search",
      {{"namespace", "docs"}, {"query", "apple"}, {"_no_fanout", true}, {"min_score", 0}}, 200);
  EXPECT_EQ(no_fanout["peers"].size(), 0u);
}

// Quorum replication counts its acknowledgements; the replicas can recall
// the memory, and a replica write is never forwarded again.
TEST_F(DataNodes, MemoryStoresReplicateWithQuorum) {
  Node c = start("c");
  Node b = start(
      "b", {"--config-set", "data.peers=" + c.url(), "--config-set", "data.replication_mode=sync"});
  Node a = start("a", {"--config-set", "data.peers=" + b.url() + "," + c.url(), "--config-set",
                       "data.replication_mode=quorum"});
  Json stored = a.call("POST", "/api/v1/memory/store",
                       {{"key", "launch"}, {"value", "the rocket flies friday"}}, 200);
  EXPECT_EQ(stored["replication_mode"], "quorum");
  EXPECT_EQ(stored["replicated_acks"], 2);
  EXPECT_EQ(stored["quorum_needed"], 1);
  EXPECT_EQ(stored["quorum_met"], true);
  for (Node* n : {&b, &c}) {
    Json r = n->call("POST", "/api/v1/memory/recall", {{"query", "launch"}}, 200);
    ASSERT_FALSE(r["hits"].empty()) << r.dump();
    EXPECT_EQ(r["hits"][0]["value"], "the rocket flies friday");
  }
  // c got the write once: from a. b, holding a replica, did not pass it on.
  EXPECT_EQ(lines_with(c.process->err(), "key='launch'").size(), 1u) << c.process->err();
  EXPECT_NE(c.process->err().find("replica=true"), std::string::npos);
}

// What was acknowledged survives SIGKILL right after the answer; what was
// forgotten stays forgotten after it.
TEST_F(DataNodes, AcknowledgedWritesSurviveSigkill) {
  Node n = start("solo");
  n.call("POST", "/api/v1/vector/ingest",
         {{"namespace", "k"}, {"text", "durable text about submarines"}}, 200);
  n.call("POST", "/api/v1/memory/store", {{"key", "door code"}, {"value", "4711"}}, 200);
  n.call("POST", "/api/v1/memory/store", {{"key", "old code"}, {"value", "1234"}}, 200);
  n.call("POST", "/api/v1/memory/forget", {{"key", "old code"}, {"mode", "hard"}}, 200);
  // Each chunk carries the document's metadata with its own place in it (a
  // "chunk_index" sent along is the chunk's, not the caller's), the same
  // from memory and after a reload from the journal.
  n.call("POST", "/api/v1/vector/ingest",
         {{"namespace", "m"},
          {"text", "kites fly high over the windy hills. submarines dive below the waves."},
          {"source", "notes.txt"},
          {"chunk_size", 36},
          {"chunk_overlap", 0},
          {"metadata", {{"lang", "en"}, {"chunk_index", 99}, {"tags", {"a", "b"}}}}},
         200);
  auto check_chunks = [](Node& node) {
    Json r = node.call("POST", "/api/v1/vector/search",
                       {{"namespace", "m"}, {"query", "kites"}, {"min_score", -1}}, 200);
    ASSERT_EQ(r["hits"].size(), 2u);
    std::set<int> places;
    for (const auto& h : r["hits"]) {
      EXPECT_EQ(h["source"], "notes.txt");
      EXPECT_EQ(h["metadata"]["lang"], "en");
      EXPECT_EQ(h["metadata"]["tags"], Json::array({"a", "b"}));
      EXPECT_EQ(h["metadata"]["chunk_count"], 2);
      EXPECT_EQ(h["total_chunks"], 2);
      EXPECT_EQ(h["chunk_index"], h["metadata"]["chunk_index"]);
      places.insert(h["chunk_index"].get<int>());
    }
    EXPECT_EQ(places, (std::set<int>{0, 1}));
    EXPECT_NE(r["hits"][0]["text"].get<std::string>().find("kites"), std::string::npos);
  };
  check_chunks(n);
  n = restart(n, "solo");
  check_chunks(n);
  Json found = n.call("POST", "/api/v1/vector/search",
                      {{"namespace", "k"}, {"query", "submarines"}, {"min_score", 0}}, 200);
  ASSERT_EQ(found["hits"].size(), 1u);
  EXPECT_EQ(found["hits"][0]["text"], "durable text about submarines");
  Json code = n.call("POST", "/api/v1/memory/recall", {{"query", "door code"}}, 200);
  ASSERT_FALSE(code["hits"].empty());
  EXPECT_EQ(code["hits"][0]["value"], "4711");
  Json old = n.call("POST", "/api/v1/memory/recall", {{"query", "old code"}}, 200);
  for (const auto& h : old["hits"]) EXPECT_NE(h["key"], "old code");
  Json tomb = n.call("POST", "/api/v1/kernel/syscall",
                     {{"name", "data.memory.is_tombstoned"}, {"args", {{"key", "old code"}}}}, 200);
  EXPECT_EQ(tomb["body"]["tombstoned"], true);
}

// Bad input gets a clear answer and writes nothing; no name leaves the data
// directory.
TEST_F(DataNodes, BadInputIsRefusedCleanly) {
  Node n = start("bad");
  EXPECT_EQ(n.call("POST", "/api/v1/vector/ingest", {}, 400, "not json")["error"], "missing text");
  EXPECT_EQ(n.call("POST", "/api/v1/vector/search", {{"namespace", "x"}}, 400)["error"],
            "missing_query");
  for (const Json& k : {Json(0), Json(-1), Json(1000000000), Json("5"), Json(2.5)}) {
    EXPECT_EQ(n.call("POST", "/api/v1/vector/search", {{"query", "q"}, {"top_k", k}}, 400)["error"],
              "invalid_request")
        << k;
  }
  Json one = n.call("POST", "/api/v1/vector/ingest",
                    {{"text", std::string(3000, 'z')}, {"chunk_size", 0}}, 200);
  EXPECT_EQ(one["chunks"], 1);
  EXPECT_TRUE(
      std::regex_match(one["ids"][0].get<std::string>(),
                       std::regex("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}")))
      << one;
  Json wide = n.call(
      "POST", "/api/v1/vector/ingest",
      {{"text", std::string(3000, 'y')}, {"chunk_size", 1200}, {"chunk_overlap", 1500}}, 200);
  EXPECT_EQ(wide["chunks"], 3);  // overlap 300: 0, 900, 1800
  // Chunking settings apply from the next request, whether set through the
  // route or by editing vector.json in place.
  EXPECT_EQ(n.call("PUT", "/api/v1/vector/config", {{"chunk_size", "big"}}, 400)["error"],
            "invalid_value");
  n.call("PUT", "/api/v1/vector/config", {{"chunk_size", 500}, {"chunk_overlap", 0}}, 200);
  EXPECT_EQ(
      n.call("POST", "/api/v1/vector/ingest", {{"text", std::string(1200, 'v')}}, 200)["chunks"],
      3);
  {
    std::fstream f(n.data / "config" / "data" / "vector.json",
                   std::ios::in | std::ios::out | std::ios::trunc | std::ios::binary);
    ASSERT_TRUE(f.good());  // the same file, rewritten in place
    f << "{\"chunking_size\": 300, \"chunking_overlap\": 0}";
  }
  EXPECT_EQ(
      n.call("POST", "/api/v1/vector/ingest", {{"text", std::string(1200, 'v')}}, 200)["chunks"],
      4);
  EXPECT_EQ(n.call("GET", "/api/v1/vector/config", {}, 200)["chunking_size"], 300);
  for (const std::string& bad :
       std::vector<std::string>{"../x", "a/b", "/etc", "..", std::string("a\0b", 3)}) {
    EXPECT_EQ(
        n.call("POST", "/api/v1/vector/ingest", {{"namespace", bad}, {"text", "t"}}, 400)["error"],
        "invalid_request")
        << bad;
    EXPECT_EQ(
        n.call("POST", "/api/v1/vector/ingest", {{"tenant", bad}, {"text", "t"}}, 400)["error"],
        "invalid_request");
    n.call("POST", "/api/v1/memory/store", {{"namespace", bad}, {"key", "k"}, {"value", "v"}}, 400);
  }
  EXPECT_EQ(n.call("POST", "/api/v1/memory/store", {{"value", "v"}}, 400)["error"], "missing key");
  EXPECT_EQ(n.call("DELETE", "/api/v1/vector/documents/a/b", {}, 400)["error"],
            "expected /tenant/namespace/id");
  EXPECT_EQ(n.call("DELETE", "/api/v1/vector/documents/default/none/x", {}, 404)["error"],
            "namespace_not_found");
  EXPECT_EQ(n.call("POST", "/api/v1/memory/forget", {{"mode", "bulk"}, {"tenant", "default"}},
                   400)["error"],
            "must specify namespace_prefix or older_than_seconds");
  // Nothing landed outside the data directory.
  for (const char* escaped : {"x_default.jsonl", "etc", "x"}) {
    EXPECT_FALSE(fs::exists(dir_ / escaped)) << escaped;
  }
  EXPECT_TRUE(fs::exists(n.data / "vectors" / "default_default.jsonl"));
}

// A model served by an OpenAI-shaped server registered as a local backend
// embeds through inference.embeddings; when the server fails, ingest answers
// embedding_failed with the chunk and stores nothing; a model nobody serves
// ends the chain with its final error.
TEST_F(DataNodes, EmbeddingChainThroughALocalBackend) {
  httplib::Server server;
  std::atomic<int> fail{0};
  server.Post("/v1/embeddings", [&](const httplib::Request&, httplib::Response& res) {
    if (fail) {
      res.status = 500;
      res.set_content("{\"error\":\"boom\"}", "application/json");
      return;
    }
    res.set_content(R"({"data":[{"embedding":[0.6,0.8,0.0]}],"model":"e5"})", "application/json");
  });
  int port = 0;
  std::thread t = serve_on_loopback(server, port);

  Node n = start("emb", {"--config-set", "data.embedding_model=e5"});
  n.call("POST", "/api/v1/inference/local-backends",
         {{"id", "lan"},
          {"provider", "openai"},
          {"api_base", "http://127.0.0.1:" + std::to_string(port) + "/v1"},
          {"models", {"e5"}}},
         200);
  Json ok = n.call("POST", "/api/v1/vector/ingest", {{"namespace", "e"}, {"text", "hello"}}, 200);
  EXPECT_EQ(ok["embedding_dim"], 3);
  fail = 1;
  Json failed = n.call("POST", "/api/v1/vector/ingest",
                       {{"namespace", "e"}, {"text", std::string(2500, 'w')}}, 502);
  EXPECT_EQ(failed["error"], "embedding_failed");
  EXPECT_EQ(failed["chunk_index"], 0);
  EXPECT_NE(failed["detail"].get<std::string>().find("no cloud peer"), std::string::npos);
  fail = 0;
  Json listed = n.call("GET", "/api/v1/vector/namespaces/default", {}, 200);
  ASSERT_EQ(listed["namespaces"].size(), 1u);
  EXPECT_EQ(listed["namespaces"][0]["document_count"], 1);  // the failed document left nothing
  Json nobody = n.call("POST", "/api/v1/vector/embed", {{"text", "x"}, {"model", "nope"}}, 502);
  EXPECT_EQ(nobody["error"], "embedding_unavailable");
  server.stop();
  t.join();
}

}  // namespace
}  // namespace ostrel::testing
