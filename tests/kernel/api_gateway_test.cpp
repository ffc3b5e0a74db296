#include "kernel/http/api_gateway.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <thread>

#include "kernel/obs/metrics.h"
#include "kernel/obs/telemetry.h"
#include "tests/support/test_support.h"

namespace ostrel::kernel {
namespace {

Request make(const std::string& method, const std::string& path, const std::string& body = "",
             const std::string& client = "127.0.0.1") {
  Request r;
  r.method = method;
  r.path = path;
  r.body = body;
  r.client_addr = client;
  return r;
}

Response serve(const ApiGateway& gw, Request req) {
  Response res;
  gw.handle(req, res);
  return res;
}

double counter(const char* name) { return obs::MetricsRegistry::instance().counter(name).value(); }

TEST(ApiGateway, NotFoundMethodNotAllowedAndThrowingHandlers) {
  ApiGateway gw;
  gw.route("GET", "/api/v1/x", [](const Request&, Response& r) { r.body = "{\"ok\":true}"; });
  gw.route("GET", "/api/v1/boom", [](const Request&, Response& r) {
    r.headers["X-Partial"] = "1";
    throw std::runtime_error("went \"wrong\"");
  });
  gw.route("GET", "/api/v1/odd", [](const Request&, Response&) { throw 42; });

  double failed_before = counter("ostrel_requests_failed_total");
  Response nf = serve(gw, make("GET", "/api/v1/nope\"x"));
  EXPECT_EQ(nf.status, 404);
  EXPECT_EQ(nf.content_type, "application/json");
  EXPECT_EQ(nf.body, "{\"error\":\"not_found\",\"path\":\"/api/v1/nope\\\"x\"}");

  Response wrong = serve(gw, make("DELETE", "/api/v1/x"));
  EXPECT_EQ(wrong.status, 405);
  EXPECT_EQ(wrong.body, "{\"error\":\"method_not_allowed\"}");
  EXPECT_EQ(wrong.headers["Allow"], "GET");

  Response boom = serve(gw, make("GET", "/api/v1/boom"));
  EXPECT_EQ(boom.status, 500);
  // The exception text goes in unescaped.
  EXPECT_EQ(boom.body, "{\"error\":\"internal\",\"message\":\"went \"wrong\"\"}");
  EXPECT_EQ(boom.headers.count("X-Partial"), 0u);
  EXPECT_EQ(serve(gw, make("GET", "/api/v1/odd")).status, 500);

  Response ok = serve(gw, make("GET", "/api/v1/x"));
  EXPECT_EQ(ok.status, 200);
  EXPECT_EQ(ok.body, "{\"ok\":true}");
  EXPECT_EQ(serve(gw, make("HEAD", "/api/v1/x")).status, 200);
  EXPECT_EQ(counter("ostrel_requests_failed_total") - failed_before, 4);
}

TEST(ApiGateway, EnforceModeChecksCredentials) {
  ApiGateway gw;
  gw.set_auth_mode(AuthMode::enforce);
  gw.route("GET", "/api/v1/who", [](const Request& req, Response& r) {
    r.body = req.tenant + "|" + req.token_id + "|" + std::to_string(req.scopes.size());
  });
  gw.route("GET", "/health", [](const Request&, Response& r) { r.body = "{}"; });
  // A module declares its own public routes; the declaration covers that
  // route alone.
  RouteOptions open;
  open.public_path = true;
  gw.route(
      "GET", "/api/v1/mod/open", [](const Request&, Response& r) { r.body = "{}"; }, open);
  gw.route("POST", "/api/v1/mod/open", [](const Request&, Response& r) { r.body = "{}"; });
  EXPECT_EQ(serve(gw, make("GET", "/api/v1/mod/open")).status, 200);
  EXPECT_EQ(serve(gw, make("POST", "/api/v1/mod/open")).status, 401);

  Response none = serve(gw, make("GET", "/api/v1/who"));
  EXPECT_EQ(none.status, 401);
  EXPECT_EQ(none.body,
            "{\"error\":\"unauthenticated\",\"message\":\"missing X-Ostrel-Capability\"}");
  EXPECT_EQ(serve(gw, make("GET", "/health")).status, 200);
  EXPECT_EQ(serve(gw, make("GET", "/dashboard/x")).status, 404);  // public, then not found

  Request with_token = make("GET", "/api/v1/who");
  with_token.headers["authorization"] = "Bearer tok-1";
  EXPECT_EQ(serve(gw, with_token).status, 503);
  EXPECT_EQ(serve(gw, with_token).body,
            "{\"error\":\"auth_misconfigured\",\"message\":\"enforce without verifier\"}");

  gw.set_auth_verifier([](const std::string& token) {
    AuthResult r;
    r.valid = token == "tok-1" || token == "key-9";
    r.reason = r.valid ? "" : "bad \"token\"";
    r.tenant = "t1";
    r.token_id = token;
    r.scopes = {"read", "write"};
    return r;
  });
  Response accepted = serve(gw, with_token);
  EXPECT_EQ(accepted.status, 200);
  EXPECT_EQ(accepted.body, "t1|tok-1|2");

  Request api_key = make("GET", "/api/v1/who");
  api_key.headers["X-API-KEY"] = "key-9";
  EXPECT_EQ(serve(gw, api_key).body, "t1|key-9|2");

  Request bad = make("GET", "/api/v1/who");
  bad.headers["X-Ostrel-Capability"] = "forged";
  bad.headers["Authorization"] = "Bearer tok-1";  // the capability header comes first
  Response refused = serve(gw, bad);
  EXPECT_EQ(refused.status, 403);
  EXPECT_EQ(refused.body, "{\"error\":\"forbidden\",\"reason\":\"bad \\\"token\\\"\"}");

  // An accepted node token stands in for a capability between peers.
  gw.set_node_token_verifier(
      [](const std::string& id, const std::string& tok) { return id == "n2" && tok == "nt"; });
  Request peer = make("GET", "/api/v1/who");
  peer.headers["X-Ostrel-Node-Id"] = "n2";
  peer.headers["X-Ostrel-Node-Token"] = "nt";
  EXPECT_EQ(serve(gw, peer).status, 200);
  peer.headers["X-Ostrel-Node-Token"] = "wrong";
  EXPECT_EQ(serve(gw, peer).status, 401);
}

TEST(ApiGateway, SourcePolicyVerdictsAreCountedAndEnforced) {
  ApiGateway gw;
  gw.route("GET", "/api/v1/x", [](const Request&, Response& r) { r.body = "{}"; });
  auto& t = telemetry::Telemetry::instance();
  double loop_before = t.counter_value("ostrel.eis.requests_total",
                                       {{"action", "loopback"}, {"eis_known", "false"}});
  EXPECT_EQ(serve(gw, make("GET", "/api/v1/x")).status, 200);
  EXPECT_EQ(serve(gw, make("GET", "/health")).status, 404);  // not an /api/v1 path: not counted
  EXPECT_EQ(t.counter_value("ostrel.eis.requests_total",
                            {{"action", "loopback"}, {"eis_known", "false"}}) -
                loop_before,
            1);

  gw.set_source_policy([](const Request& req) {
    SourceDecision d;
    if (req.header("X-Ostrel-Source") == "junk") {
      d.action = "denied_shape";
      d.status = 400;
      d.body = "{\"error\":\"invalid_eis_source_header\"}";
    }
    return d;
  });
  Request junk = make("GET", "/api/v1/x", "", "10.1.2.3");
  junk.headers["x-ostrel-source"] = "junk";
  Response r = serve(gw, junk);
  EXPECT_EQ(r.status, 400);
  EXPECT_EQ(r.body, "{\"error\":\"invalid_eis_source_header\"}");
  EXPECT_EQ(t.counter_value("ostrel.eis.requests_total",
                            {{"action", "denied_shape"}, {"eis_known", "false"}}),
            1);
}

TEST(ApiGateway, EventStreamShapingAndTraceContext) {
  ApiGateway gw;
  gw.route("POST", "/api/v1/chat", [](const Request&, Response& r) { r.body = "{\"a\":1}"; });
  Request sse = make("POST", "/api/v1/chat", "{\"stream\":true}");
  sse.headers["Accept"] = "text/event-stream";
  Response wrapped = serve(gw, sse);
  EXPECT_EQ(wrapped.content_type, "text/event-stream");
  EXPECT_EQ(wrapped.body, "data: {\"a\":1}\n\ndata: [DONE]\n\n");

  Request not_streaming = sse;
  not_streaming.body = "{\"stream\":false}";
  EXPECT_EQ(serve(gw, not_streaming).body, "{\"a\":1}");
  Request not_json = sse;
  not_json.body = "stream";
  EXPECT_EQ(serve(gw, not_json).content_type, "application/json");

  EXPECT_EQ(sse_event("a\nb"), "data: a\ndata: b\n\n");

  // The server span continues the caller's trace and answers with its own id.
  Request traced = make("POST", "/api/v1/chat", "{}");
  traced.headers["TRACEPARENT"] = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01";
  Response tr = serve(gw, traced);
  const std::string& tp = tr.headers["traceparent"];
  ASSERT_EQ(tp.size(), 55u);
  EXPECT_EQ(tp.substr(0, 36), "00-0af7651916cd43dd8448eb211c80319c-");
  EXPECT_NE(tp.substr(36, 16), "b7ad6b7169203331");
  // Probes get no span.
  gw.route("GET", "/health", [](const Request&, Response& r) { r.body = "{}"; });
  EXPECT_EQ(serve(gw, make("GET", "/health")).headers.count("traceparent"), 0u);
}

TEST(ApiGateway, RequestDurationsLandInTheRightBuckets) {
  ApiGateway gw;
  gw.route("GET", "/api/v1/slow", [](const Request&, Response& r) {
    std::this_thread::sleep_for(std::chrono::milliseconds(7));
    r.body = "{}";
  });
  auto& h = obs::MetricsRegistry::instance().histogram("ostrel_requests_duration_ms", {});
  auto before = h.snapshot();
  serve(gw, make("GET", "/api/v1/slow"));
  auto after = h.snapshot();
  ASSERT_EQ(after.bounds.size(), 12u);
  EXPECT_EQ(after.cumulative[0] - before.cumulative[0], 0u);  // le=1
  EXPECT_EQ(after.cumulative[1] - before.cumulative[1], 0u);  // le=5
  EXPECT_EQ(after.cumulative[3] - before.cumulative[3], 1u);  // le=25 (7 ms plus overhead)
  EXPECT_EQ(after.count - before.count, 1u);
}

// Over a real socket: streamed bodies arrive in pieces, a client that goes away
// stops the producer, and the server keeps serving.
TEST(ApiGateway, ServesStreamsOverHttpAndSurvivesDisconnects) {
  ApiGateway gw;
  std::atomic<int> produced{0};
  std::atomic<bool> producer_saw_close{false};
  gw.route("GET", "/api/v1/stream", [&](const Request&, Response& res) {
    res.stream = [&](const StreamWrite& write) {
      for (int i = 0; i < 3; ++i) {
        if (!write(sse_event("{\"i\":" + std::to_string(i) + "}"))) return;
      }
      write("data: [DONE]\n\n");
    };
  });
  gw.route("GET", "/api/v1/endless", [&](const Request&, Response& res) {
    res.stream = [&](const StreamWrite& write) {
      for (int i = 0; i < 100000; ++i) {
        ++produced;
        if (!write(std::string(4096, 'x'))) {
          producer_saw_close = true;
          return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    };
  });
  gw.route("GET", "/api/v1/boom",
           [](const Request&, Response&) { throw std::runtime_error("boom"); });
  ASSERT_TRUE(gw.start("127.0.0.1", 0));
  ASSERT_NE(gw.port(), 0);

  httplib::Client client("127.0.0.1", gw.port());
  auto res = client.Get("/api/v1/stream");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->get_header_value("Content-Type"), "text/event-stream");
  EXPECT_EQ(res->body, "data: {\"i\":0}\n\ndata: {\"i\":1}\n\ndata: {\"i\":2}\n\ndata: [DONE]\n\n");

  auto boom = client.Get("/api/v1/boom");
  ASSERT_TRUE(boom);
  EXPECT_EQ(boom->status, 500);
  auto again = client.Get("/api/v1/stream");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->status, 200);

  {
    httplib::Client quitter("127.0.0.1", gw.port());
    size_t received = 0;
    quitter.Get("/api/v1/endless", [&](const char*, size_t n) {
      received += n;
      return received < 64 * 1024;  // hang up after a few pieces
    });
  }
  testing::eventually([&] { return producer_saw_close.load(); }, std::chrono::milliseconds(2000));
  EXPECT_TRUE(producer_saw_close.load());
  EXPECT_LT(produced.load(), 100000);
  auto after = client.Get("/api/v1/stream");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->status, 200);
  gw.stop();
  gw.stop();  // safe twice
}

TEST(ApiGateway, BindFailureIsReported) {
  ApiGateway first;
  ASSERT_TRUE(first.start("127.0.0.1", 0));
  ApiGateway second;
  EXPECT_FALSE(second.start("127.0.0.1", first.port()));
  EXPECT_FALSE(second.start("256.1.1.1", 0));
}

TEST(PublicPaths, MatchTheOpenSurface) {
  for (const char* p :
       {"/health", "/metrics", "/", "/dashboard", "/dashboard/x/y", "/v1/models",
        "/api/v1/auth/login", "/api/v1/artifacts/share/abc", "/api/v1/cluster/join"}) {
    EXPECT_TRUE(is_public_path("GET", p)) << p;
  }
  for (const char* p : {"/api/v1/kernel/modules", "/healthz", "/dashboardx", "/api/v1/authx"}) {
    EXPECT_FALSE(is_public_path("GET", p)) << p;
  }
}

}  // namespace
}  // namespace ostrel::kernel
