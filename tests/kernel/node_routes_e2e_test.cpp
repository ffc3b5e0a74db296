// The kernel's smaller routes on the real binary (feature flags, message
// catalogues, the logical clock, help topics, journal compaction), /metrics
// as Prometheus's own checker sees it after traffic through every module,
// and export to a loopback OpenTelemetry collector.
#include <gtest/gtest.h>
#include <httplib.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support/fake_ollama.h"
#include "tests/support/test_node.h"
#include "tests/support/test_support.h"

namespace ostrel::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
namespace fs = std::filesystem;

std::string viewer_token(const TestNode& node) {
  Answer a = node.call("POST", "/api/v1/capabilities/issue",
                       {{"scopes", {"data.read"}}, {"tenant", "default"}}, node.admin_token());
  return a.body.value("token", "");
}

std::int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Flags and message catalogues: admins write, everyone reads, bad names and
// values are refused, and both survive a hard restart whole.
TEST(NodeRoutes, FlagsAndMessagesPersistAndRefuseBadInput) {
  TempDir dir;
  TestNode node(dir.path(), "n1", TestNode::Options{.modules = {}, .enforce = true});
  ASSERT_TRUE(node.started()) << node.process().err();
  const std::string admin = node.admin_token(), viewer = viewer_token(node);
  ASSERT_FALSE(viewer.empty());

  EXPECT_EQ(node.call("GET", "/api/v1/flags", {}, viewer).body["count"], 0);
  Answer set =
      node.call("POST", "/api/v1/flags/new-ui",
                {{"enabled", true}, {"value", 3}, {"description", "the new pages"}}, admin);
  ASSERT_EQ(set.status, 200) << set.text;
  EXPECT_EQ(set.body["name"], "new-ui");
  EXPECT_EQ(node.call("POST", "/api/v1/flags/new-ui", {{"enabled", false}}, viewer).status, 403);
  EXPECT_EQ(node.call("POST", "/api/v1/flags/other", {{"enabled", "yes"}}, admin).body["error"],
            "invalid_field");
  EXPECT_EQ(node.call("POST", "/api/v1/flags/other", {}, admin, "{").status, 400);
  EXPECT_EQ(node.call("POST", "/api/v1/flags/" + std::string(300, 'f'), {{"enabled", true}}, admin)
                .body["error"],
            "invalid_flag_name");
  EXPECT_EQ(node.call("POST", "/api/v1/flags/a$b", {{"enabled", true}}, admin).status, 400);
  ASSERT_EQ(node.call("POST", "/api/v1/flags/doomed", {{"enabled", true}}, admin).status, 200);
  EXPECT_EQ(node.call("DELETE", "/api/v1/flags/doomed", {}, viewer).status, 403);
  EXPECT_EQ(node.call("DELETE", "/api/v1/flags/doomed", {}, admin).body["status"], "deleted");
  Answer missing = node.call("DELETE", "/api/v1/flags/doomed", {}, admin);
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.body["error"], "flag_not_found");
  EXPECT_EQ(node.call("GET", "/api/v1/flags/doomed", {}, viewer).status, 404);

  Answer de =
      node.call("POST", "/api/v1/i18n",
                {{"locale", "de"}, {"messages", {{"hello", "Hallo"}, {"bye", "Tschüss"}}}}, admin);
  ASSERT_EQ(de.status, 200) << de.text;
  EXPECT_EQ(de.body["messages"], 2);
  EXPECT_EQ(
      node.call("POST", "/api/v1/i18n", {{"locale", "de"}, {"messages", {{"hi", "Hi"}}}}, admin)
          .body["messages"],
      3);
  EXPECT_EQ(
      node.call("POST", "/api/v1/i18n", {{"locale", "fr"}, {"messages", {{"x", "y"}}}}, viewer)
          .status,
      403);
  EXPECT_EQ(node.call("POST", "/api/v1/i18n",
                      {{"locale", "../../escape"}, {"messages", {{"x", "y"}}}}, admin)
                .body["error"],
            "invalid_locale");
  EXPECT_EQ(
      node.call("POST", "/api/v1/i18n", {{"locale", "fr"}, {"messages", {{"n", 1}}}}, admin).status,
      400);
  EXPECT_FALSE(fs::exists(node.data_dir() / "escape.json"));
  EXPECT_FALSE(fs::exists(node.data_dir() / "i18n" / "fr.json"));
  Answer fr = node.call("GET", "/api/v1/i18n?locale=fr", {}, viewer);
  EXPECT_EQ(fr.status, 404);
  EXPECT_EQ(fr.body["error"], "locale_not_found");

  node.restart_hard();
  ASSERT_TRUE(node.started()) << node.process().err();
  EXPECT_TRUE(node.process().wait_for_err("i18n: loaded 1 catalog(s), 3 message(s)", 5s));
  const std::string admin2 = bootstrap_token(node.process());
  Answer flag = node.call("GET", "/api/v1/flags/new-ui", {}, admin2);
  EXPECT_EQ(flag.body["enabled"], true) << flag.text;
  EXPECT_EQ(flag.body["value"], 3);
  EXPECT_EQ(flag.body["description"], "the new pages");
  EXPECT_EQ(node.call("GET", "/api/v1/flags", {}, admin2).body["count"], 1);
  Json on_disk = Json::parse(read_file(node.data_dir() / "state" / "flags.json"));
  EXPECT_EQ(on_disk["flags"]["new-ui"]["enabled"], true);
  Answer msgs = node.call("GET", "/api/v1/i18n?locale=de", {}, admin2);
  EXPECT_EQ(msgs.body["messages"]["bye"], "Tschüss") << msgs.text;
  EXPECT_EQ(node.call("GET", "/api/v1/i18n", {}, admin2).body["locales"][0]["locale"], "de");
}

// The logical clock only moves forward, orders after a peer's stamp, and
// refuses stamps from far in the future; help topics are listed, read and
// asked about, with their errors; compaction shrinks the journals it
// rewrites and keeps their contents.
TEST(NodeRoutes, ClockHelpAndCompaction) {
  TempDir dir;
  TestNode node(
      dir.path(), "n1",
      TestNode::Options{.modules = {"inference", "data", "security", "agent"},
                        .env = {{"OSTREL_HELP_DIR", std::string(OSTREL_SOURCE_DIR) + "/help"}}});
  ASSERT_TRUE(node.started()) << node.process().err();

  auto stamp = [](const Json& j) {
    return std::make_pair(j["physical_ms"].get<std::int64_t>(), j["logical"].get<std::int64_t>());
  };
  auto last = stamp(node.call("GET", "/api/v1/hlc").body);
  for (int i = 0; i < 20; ++i) {
    auto next = stamp(node.call("GET", "/api/v1/hlc").body);
    EXPECT_LT(last, next);
    last = next;
  }
  const std::int64_t ahead = now_ms() + 30000;
  Answer merged = node.call("POST", "/api/v1/hlc/update", {{"physical_ms", ahead}, {"logical", 7}});
  ASSERT_EQ(merged.status, 200) << merged.text;
  EXPECT_LT(std::make_pair(ahead, std::int64_t{7}), stamp(merged.body));
  EXPECT_EQ(merged.body["node_id"], "n1");
  EXPECT_LT(stamp(merged.body), stamp(node.call("GET", "/api/v1/hlc").body));
  EXPECT_EQ(
      node.call("POST", "/api/v1/hlc/update", {{"physical_ms", now_ms() + 600000}}).body["error"],
      "clock_skew");
  EXPECT_EQ(node.call("POST", "/api/v1/hlc/update", {{"physical_ms", "soon"}}).status, 400);
  EXPECT_EQ(node.call("POST", "/api/v1/hlc/update", {}, "", "nope").status, 400);

  // Help: the kernel's topics and the modules' own.
  Answer topics = node.call("GET", "/api/v1/help/topics");
  ASSERT_EQ(topics.status, 200);
  std::set<std::string> ids, modules;
  for (const auto& t : topics.body["topics"]) {
    ids.insert(t["id"].get<std::string>());
    modules.insert(t.value("module", ""));
  }
  EXPECT_TRUE(ids.count("kernel.tenants")) << topics.text;
  for (const char* m : {"kernel", "inference", "data", "security", "agent"})
    EXPECT_TRUE(modules.count(m)) << m << " " << topics.text;
  for (const auto& t : topics.body["topics"]) {
    Answer one = node.call("GET", "/api/v1/help/topic?id=" + t["id"].get<std::string>());
    EXPECT_EQ(one.status, 200) << t.dump() << one.text;
    EXPECT_FALSE(one.body.value("markdown", "").empty()) << t.dump();
  }
  EXPECT_EQ(node.call("GET", "/api/v1/help/topic").body["error"], "missing ?id=");
  for (const char* id : {"no-such-topic", "..%2F..%2Fetc%2Fpasswd", "../kernel/tenants.help.md",
                         "kernel.tenants/../../x"}) {
    Answer none = node.call("GET", std::string("/api/v1/help/topic?id=") + id);
    EXPECT_EQ(none.status, 404) << id;
    EXPECT_EQ(none.body["error"], "topic_not_found");
  }
  Answer asked = node.call("POST", "/api/v1/help/ask", {{"question", "how do tenants work"}});
  ASSERT_EQ(asked.status, 200);
  ASSERT_FALSE(asked.body["answers"].empty()) << asked.text;
  EXPECT_EQ(asked.body["answers"][0]["module"], "kernel");
  EXPECT_EQ(asked.body["answers"][0]["related"][0], "kernel.tenants");
  EXPECT_TRUE(
      node.call("POST", "/api/v1/help/ask", {{"question", "zzqx wvvy"}}).body["answers"].empty());
  EXPECT_EQ(node.call("POST", "/api/v1/help/ask", {{"question", ""}}).body["error"],
            "missing question");

  // Compaction: many edits of one tenant, many registrations of one backend.
  ASSERT_EQ(node.call("POST", "/api/v1/tenants", {{"id", "acme"}}).status, 201);
  for (int i = 0; i < 30; ++i) {
    ASSERT_EQ(
        node.call("PUT", "/api/v1/tenants/acme", {{"display_name", "Acme " + std::to_string(i)}})
            .status,
        200);
    ASSERT_EQ(node.call("POST", "/api/v1/inference/local-backends",
                        {{"id", "gpu-box"},
                         {"provider", "openai"},
                         {"api_base", "http://127.0.0.1:9/v1"},
                         {"models", {"m" + std::to_string(i)}}})
                  .status,
              200);
  }
  const fs::path state = node.data_dir() / "state";
  const auto tenants_before = fs::file_size(state / "tenants.jsonl");
  const std::string audit_before = read_file(state / "audit.jsonl");
  Answer compacted = node.call("POST", "/api/v1/kernel/compact");
  ASSERT_EQ(compacted.status, 200) << compacted.text;
  EXPECT_EQ(compacted.body["status"], "compacted");
  EXPECT_EQ(compacted.body["bytes"]["tenants"], fs::file_size(state / "tenants.jsonl"));
  EXPECT_LT(fs::file_size(state / "tenants.jsonl"), tenants_before / 4);
  EXPECT_TRUE(compacted.body["bytes"]["modules"].contains("inference.journal.compact"))
      << compacted.text;
  EXPECT_TRUE(node.process().wait_for_err("journal compaction: tenants=", 5s));
  // The audit log keeps every line it had (and records the compaction).
  EXPECT_EQ(read_file(state / "audit.jsonl").rfind(audit_before, 0), 0u);
  node.restart_hard();
  ASSERT_TRUE(node.started()) << node.process().err();
  Answer acme = node.call("GET", "/api/v1/tenants/acme");
  EXPECT_EQ(acme.body["tenant"]["display_name"], "Acme 29") << acme.text;
  Answer backends = node.call("GET", "/api/v1/inference/local-backends");
  EXPECT_NE(backends.text.find("m29"), std::string::npos) << backends.text;
  EXPECT_EQ(node.call("GET", "/api/v1/audit/verify").body["ok"], true);
}

// Lines promtool reports, without the unit lint on the names the API fixes.
std::vector<std::string> promtool_findings(const std::string& exposition, const fs::path& dir) {
  const fs::path file = dir / "scrape.txt";
  write_file(file, exposition);
  const std::string cmd = "promtool check metrics < " + file.string() + " 2>&1";
  std::vector<std::string> out;
  FILE* p = ::popen(cmd.c_str(), "r");
  if (!p) return {"popen failed"};
  char buf[4096];
  std::string text;
  while (std::fgets(buf, sizeof buf, p)) text += buf;
  ::pclose(p);
  std::istringstream lines(text);
  for (std::string l; std::getline(lines, l);) {
    if (l.empty()) continue;
    if (l.find("abbreviated units") != std::string::npos &&
        (l.find("ostrel_requests_duration_ms") != std::string::npos ||
         l.find("ostrel_data_vector_search_duration_ms") != std::string::npos ||
         l.find("ostrel_router_routing_duration_ms") != std::string::npos)) {
      continue;
    }
    out.push_back(l);
  }
  return out;
}

// After traffic through every module, promtool finds nothing but the fixed
// names, and the series an operator looks for are there.
TEST(Observability, PromtoolAcceptsTheScrapeAfterTrafficEverywhere) {
  TempDir dir;
  FakeOllama model;
  model.models = {"llama3"};
  TestNode node(dir.path(), "n1",
                TestNode::Options{.modules = {"inference", "data", "security", "agent", "router",
                                              "edge", "dream"},
                                  .args = {"--config-set", "inference.ollama_url=" + model.url()}});
  ASSERT_TRUE(node.started()) << node.process().err();

  EXPECT_EQ(
      node.call("POST", "/api/v1/vector/ingest", {{"namespace", "kb"}, {"text", "alpha beta"}})
          .status,
      200);
  node.call("POST", "/api/v1/vector/search", {{"namespace", "kb"}, {"query", "alpha"}});
  node.call("POST", "/api/v1/memory/store", {{"key", "k"}, {"value", "v\nwith \"quotes\""}});
  node.call("POST", "/api/v1/memory/recall", {{"query", "k"}});
  node.call("POST", "/api/v1/search", {{"query", "alpha"}});
  node.call("POST", "/api/v1/security/check", {{"role", "viewer"}, {"tool", "rag_search"}});
  node.call("POST", "/api/v1/agent/chat", {{"message", "hello"}});
  Answer chat =
      node.call("POST", "/v1/chat/completions",
                {{"model", "llama3"}, {"messages", {{{"role", "user"}, {"content", "hi"}}}}});
  EXPECT_EQ(chat.status, 200) << chat.text;
  node.call("POST", "/v1/chat/completions",
            {{"model", "missing-model"}, {"messages", {{{"role", "user"}, {"content", "hi"}}}}});
  node.call("POST", "/api/v1/dream/cycle", Json::object());
  node.call("GET", "/api/v1/no/such/route");

  Answer scrape = node.call("GET", "/metrics");
  ASSERT_EQ(scrape.status, 200);
  const std::vector<std::string> findings = promtool_findings(scrape.text, dir.path());
  std::string all;
  for (const auto& f : findings) all += f + "\n";
  EXPECT_TRUE(findings.empty()) << all;
  for (const char* series :
       {"process_resident_memory_bytes ", "process_cpu_seconds_total ", "process_open_fds ",
        "process_start_time_seconds ", "ostrel_inference_requests_total{",
        "ostrel_inference_request_duration_seconds_count{", "ostrel_inference_backend_up{",
        "ostrel_inference_queue_depth", "# HELP ostrel_requests_total "}) {
    EXPECT_NE(scrape.text.find(series), std::string::npos) << series;
  }
  EXPECT_NE(scrape.text.find("model=\"llama3\""), std::string::npos);
}

// A loopback collector receives metrics and spans in OTLP/HTTP JSON with the
// service's resource and the token header.
TEST(Observability, OtlpExportReachesACollector) {
  struct Received {
    std::mutex mu;
    std::vector<Json> metrics, traces;
    std::string token;
  } got;
  httplib::Server collector;
  for (const char* path : {"/otel/v1/metrics", "/otel/v1/traces"}) {
    collector.Post(path, [&got, path](const httplib::Request& req, httplib::Response& res) {
      std::lock_guard lock(got.mu);
      Json body = Json::parse(req.body, nullptr, false);
      (std::string(path).find("metrics") != std::string::npos ? got.metrics : got.traces)
          .push_back(body);
      got.token = req.get_header_value("x-otlp-token");
      res.set_content("{}", "application/json");
    });
  }
  int port = 0;
  std::thread serving = serve_on_loopback(collector, port);

  TempDir dir;
  TestNode::Options o;
  o.modules = {"data"};
  o.env = {{"OSTREL_OTLP_ENDPOINT", "http://127.0.0.1:" + std::to_string(port) + "/otel"},
           {"OSTREL_OTLP_TOKEN", "t0ken"},
           {"OSTREL_OTLP_INTERVAL_MS", "100"},
           {"OSTREL_OTLP_SERVICE_NAME", "ulvo-test"}};
  {
    TestNode node(dir.path(), "n1", o);
    ASSERT_TRUE(node.started()) << node.process().err();
    for (int i = 0; i < 3; ++i) node.call("GET", "/api/v1/hlc");
    node.call("POST", "/api/v1/vector/ingest", {{"namespace", "kb"}, {"text", "alpha"}});
    auto has = [&](const std::string& needle, bool traces) {
      std::lock_guard lock(got.mu);
      for (const auto& b : traces ? got.traces : got.metrics)
        if (b.dump().find(needle) != std::string::npos) return true;
      return false;
    };
    EXPECT_TRUE(
        eventually([&] { return has("ostrel.data.vector.documents_ingested_total", false); }, 10s));
    EXPECT_TRUE(eventually([&] { return has("/api/v1/hlc", true); }, 10s));
    node.stop();
  }
  collector.stop();
  serving.join();

  std::lock_guard lock(got.mu);
  ASSERT_FALSE(got.metrics.empty());
  EXPECT_EQ(got.token, "t0ken");
  const Json& rm = got.metrics.back()["resourceMetrics"][0];
  std::map<std::string, std::string> attrs;
  for (const auto& a : rm["resource"]["attributes"])
    attrs[a["key"]] = a["value"].value("stringValue", "");
  EXPECT_EQ(attrs["service.name"], "ulvo-test");
  EXPECT_FALSE(attrs["service.version"].empty());
  EXPECT_EQ(rm["scopeMetrics"][0]["scope"]["name"], "ostrel.kernel.telemetry");
  ASSERT_FALSE(got.traces.empty());
  const Json& span = got.traces.back()["resourceSpans"][0]["scopeSpans"][0]["spans"][0];
  EXPECT_EQ(span["traceId"].get<std::string>().size(), 32u);
  EXPECT_EQ(span["spanId"].get<std::string>().size(), 16u);
}

}  // namespace
}  // namespace ostrel::testing
