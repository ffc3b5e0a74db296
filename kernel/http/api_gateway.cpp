#include "kernel/http/api_gateway.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>

#include "base/env.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/text.h"
#include "base/trace.h"
#include "kernel/http/http_server.h"
#include "kernel/obs/metrics.h"
#include "kernel/obs/telemetry.h"

namespace ostrel::kernel {
namespace {

// Handles to the request metrics, created once.
struct GatewayMetrics {
  obs::Counter& requests;
  obs::Counter& failed;
  obs::Histogram& duration_ms;
};

const GatewayMetrics& gateway_metrics() {
  static const GatewayMetrics m{
      obs::MetricsRegistry::instance().counter("ostrel_requests_total",
                                               "HTTP requests received by the API gateway"),
      obs::MetricsRegistry::instance().counter("ostrel_requests_failed_total",
                                               "HTTP requests that ended in a 4xx/5xx response"),
      obs::MetricsRegistry::instance().histogram(
          "ostrel_requests_duration_ms", {1, 5, 10, 25, 50, 100, 250, 500, 1000, 2500, 5000, 10000},
          "End-to-end HTTP request duration (ms)"),
  };
  return m;
}

// The source-policy counter "ostrel.eis.requests_total", one handle per
// (eis_known, action) pair, looked up once.
obs::Counter& eis_counter(bool eis_known, const std::string& action) {
  static constexpr std::array<const char*, 7> kActions = {
      "allowed",       "loopback",      "denied_shape", "denied_unknown",
      "denied_module", "denied_domain", "denied_eis_id"};
  static std::array<std::array<obs::Counter*, kActions.size()>, 2> handles = [] {
    std::array<std::array<obs::Counter*, kActions.size()>, 2> h{};
    for (int known = 0; known < 2; ++known) {
      for (size_t a = 0; a < kActions.size(); ++a) {
        h[known][a] = &telemetry::Telemetry::instance().counter_series(
            "ostrel.eis.requests_total",
            {{"eis_known", known ? "true" : "false"}, {"action", kActions[a]}});
      }
    }
    return h;
  }();
  for (size_t a = 0; a < kActions.size(); ++a) {
    if (action == kActions[a]) return *handles[eis_known ? 1 : 0][a];
  }
  return telemetry::Telemetry::instance().counter_series(
      "ostrel.eis.requests_total",
      {{"eis_known", eis_known ? "true" : "false"}, {"action", action}});
}

bool starts_with(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }

// Probes and user-interface pages get no trace span.
bool is_untraced(std::string_view path) {
  return path == "/health" || path == "/metrics" || path == "/favicon.ico" || path == "/chat" ||
         path == "/" || path == "/login" || path == "/admin" || path == "/graph" ||
         path == "/dashboard" || starts_with(path, "/dashboard/");
}

bool is_loopback(std::string_view addr) {
  return starts_with(addr, "127.") || addr == "::1" || addr == "0:0:0:0:0:0:0:1" ||
         starts_with(addr, "::ffff:127.");
}

std::string kernel_module_of(std::string_view path) {
  constexpr std::string_view api = "/api/v1/";
  if (!starts_with(path, api)) return "kernel";
  std::string_view rest = path.substr(api.size());
  std::string_view segment = rest.substr(0, rest.find('/'));
  return segment.empty() ? "kernel" : std::string(segment);
}

const char* status_class(int status) {
  if (status >= 500) return "5xx";
  if (status >= 400) return "4xx";
  if (status >= 300) return "3xx";
  if (status >= 200) return "2xx";
  return "1xx";
}

// Records the request on every exit path: failed counter, duration histogram
// and the span's closing attributes.
struct ObsScope {
  const GatewayMetrics& metrics;
  const Response& response;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  std::optional<obs::ScopedSpan> span;
  const std::string* route = nullptr;

  ObsScope(const GatewayMetrics& m, const Response& r) : metrics(m), response(r) {
    metrics.requests.add();
  }
  ~ObsScope() {
    if (response.status >= 400) metrics.failed.add();
    double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    metrics.duration_ms.observe(ms);
    if (span) {
      if (obs::spans_recorded()) {
        span->set_attribute("http.status", std::to_string(response.status));
        if (route) span->set_attribute("http.route", *route);
        span->set_attribute("http.status_class", status_class(response.status));
        span->set_status(response.status >= 500 ? "error" : "ok");
      }
      span->end();
    }
  }
};

std::string bearer_token(const std::string& authorization) {
  constexpr std::string_view kBearer = "bearer ";
  if (authorization.size() <= kBearer.size()) return "";
  if (!text::iequals(std::string_view(authorization).substr(0, kBearer.size()), kBearer)) {
    return "";
  }
  size_t start = authorization.find_first_not_of(' ', kBearer.size());
  return start == std::string::npos ? "" : authorization.substr(start);
}

std::size_t env_mb(const char* name, std::size_t fallback_mb) {
  const auto mb = base::env::integer(name, static_cast<std::int64_t>(fallback_mb), 1, 1 << 30);
  return static_cast<std::size_t>(mb) * 1024 * 1024;
}

// Bytes of request bodies held in memory across all requests at once, so
// that many large bodies together cannot exhaust the node's memory.
class BodyBudget {
 public:
  explicit BodyBudget(std::size_t limit) : limit_(limit) {}
  bool reserve(std::size_t n) {
    std::size_t cur = used_.load(std::memory_order_relaxed);
    do {
      if (cur + n > limit_) return false;
    } while (!used_.compare_exchange_weak(cur, cur + n, std::memory_order_relaxed));
    return true;
  }
  void release(std::size_t n) { used_.fetch_sub(n, std::memory_order_relaxed); }

 private:
  const std::size_t limit_;
  std::atomic<std::size_t> used_{0};
};

// Reservations of one request, released when it is answered.
struct Reservation {
  BodyBudget& budget;
  std::size_t bytes = 0;
  ~Reservation() { budget.release(bytes); }
  bool add(std::size_t n) {
    if (!budget.reserve(n)) return false;
    bytes += n;
    return true;
  }
};

bool valid_request_text(const Request& req) {
  if (!text::valid_utf8(req.path)) return false;
  for (const auto& [k, v] : req.params) {
    if (!text::valid_utf8(k) || !text::valid_utf8(v)) return false;
  }
  return true;
}

// The first byte that is not white space opens an array or object.
bool looks_like_json(std::string_view body) {
  for (char c : body) {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
    return c == '{' || c == '[';
  }
  return false;
}

// The OpenAI-shaped paths answer errors in the shape OpenAI clients read.
bool openai_path(std::string_view path) { return starts_with(path, "/v1/"); }

// A refused credential: {"error":"<code>", "reason"|"message"} on the node's
// own routes, {"error":{"message","type","code"}} on the OpenAI-shaped ones.
void credential_error(Response& res, int status, std::string_view code, const std::string& detail,
                      bool openai) {
  if (openai) {
    base::openai_fail(
        res, status,
        (status == 401 ? "a credential is required: " : "the credential was refused: ") + detail,
        status == 401 ? "authentication_error" : "permission_error", code);
  } else if (status == 401) {
    base::fail(res, status, code, detail);
  } else {
    base::fail(res, status, code, {{"reason", detail}});
  }
}

bool wants_event_stream(const Request& req) {
  if (req.method != "POST" && req.method != "PUT") return false;
  if (req.header("Accept").find("text/event-stream") == std::string::npos) return false;
  auto body = base::parse_json(req.body);
  if (!body.is_object()) return false;
  auto it = body.find("stream");
  return it != body.end() && it->is_boolean() && it->get<bool>();
}

}  // namespace

bool is_public_path(std::string_view method, std::string_view path) {
  static constexpr std::string_view kExact[] = {"/health",
                                                "/metrics",
                                                "/favicon.ico",
                                                "/",
                                                "/chat",
                                                "/login",
                                                "/admin",
                                                "/graph",
                                                "/dashboard",
                                                "/theme",
                                                "/branding/logo",
                                                "/v1/models",
                                                "/v1/embeddings",
                                                "/v1/chat/completions",
                                                "/v1/completions",
                                                "/v1/cloud/embeddings",
                                                "/api/v1/auth/whoami",
                                                "/api/v1/cluster/join",
                                                "/api/v1/cluster/register",
                                                "/api/v1/cloud/backends/public",
                                                "/api/v1/inference/local-backends/public",
                                                "/api/v1/cluster/topology/public",
                                                "/api/v1/vector/search/peer"};
  static constexpr std::string_view kPrefixes[] = {"/dashboard/", "/api/v1/auth/",
                                                   "/api/v1/artifacts/share/"};
  for (auto p : kExact) {
    if (path == p) return true;
  }
  for (auto p : kPrefixes) {
    if (starts_with(path, p)) return true;
  }
  return false;
}

struct ApiGateway::Impl {
  RouteTable routes;
  const std::size_t max_body = env_mb("OSTREL_ULVO_HTTP_MAX_BODY_MB", 256);
  mutable BodyBudget body_budget{env_mb("OSTREL_ULVO_HTTP_BODY_BUDGET_MB", 512)};
  // Switched at run time when the node starts enforcing (first user registered).
  std::atomic<AuthMode> auth_mode{AuthMode::off};
  // Hooks installed during boot, before the server starts; read-only afterwards.
  AuthVerifier verifier;
  NodeTokenVerifier node_verifier;
  ClusterSecretVerifier secret_verifier;
  SourcePolicy source_policy;
  std::unique_ptr<HttpServer> server;

  void dispatch(Request& req, Response& res, ObsScope& scope, BodySource* body) const;
  // Reads the body the route takes into req.body (or wires req.body_reader);
  // false when it answered instead.
  bool take_body(Request& req, Response& res, const RouteOptions& options, BodySource* body,
                 Reservation& reservation, bool& consumed) const;
  SourceDecision decide_source(const Request& req) const;
};

ApiGateway::ApiGateway() : impl_(std::make_unique<Impl>()) {
  impl_->server = std::make_unique<HttpServer>(
      [this](Request& req, Response& res, BodySource* body) { handle(req, res, body); });
  gateway_metrics();  // the request metrics exist (at zero) before the first request
}

ApiGateway::~ApiGateway() { stop(); }

bool ApiGateway::route(const std::string& method, const std::string& path, RouteHandler handler,
                       RouteOptions options) {
  return impl_->routes.add(method, path, std::move(handler), options);
}

std::vector<RouteInfo> ApiGateway::routes() const { return impl_->routes.routes(); }

void ApiGateway::set_auth_mode(AuthMode mode) { impl_->auth_mode = mode; }
AuthMode ApiGateway::auth_mode() const { return impl_->auth_mode; }
void ApiGateway::set_auth_verifier(AuthVerifier v) { impl_->verifier = std::move(v); }
bool ApiGateway::has_auth_verifier() const { return static_cast<bool>(impl_->verifier); }
void ApiGateway::set_node_token_verifier(NodeTokenVerifier v) {
  impl_->node_verifier = std::move(v);
}
void ApiGateway::set_cluster_secret_verifier(ClusterSecretVerifier v) {
  impl_->secret_verifier = std::move(v);
}
void ApiGateway::set_source_policy(SourcePolicy p) { impl_->source_policy = std::move(p); }
void ApiGateway::set_worker_threads(int threads) { impl_->server->set_worker_threads(threads); }
void ApiGateway::set_drain(std::chrono::milliseconds drain, std::function<void()> on_deadline) {
  impl_->server->set_drain(drain, std::move(on_deadline));
}
std::uint64_t ApiGateway::requests_finished() const { return impl_->server->requests_finished(); }
std::size_t ApiGateway::max_body_bytes() const { return impl_->max_body; }

bool ApiGateway::start(const std::string& bind, std::uint16_t port) {
  return impl_->server->start(bind, port);
}
void ApiGateway::stop() {
  if (impl_ && impl_->server) impl_->server->stop();
}
std::uint16_t ApiGateway::port() const { return impl_->server->port(); }
bool ApiGateway::running() const { return impl_->server->running(); }

SourceDecision ApiGateway::Impl::decide_source(const Request& req) const {
  if (source_policy) return source_policy(req);
  SourceDecision d;
  d.action = is_loopback(req.client_addr) ? "loopback" : "allowed";
  return d;
}

void ApiGateway::handle(Request& req, Response& res, BodySource* body) const {
  ObsScope scope(gateway_metrics(), res);
  if (!is_untraced(req.path)) {
    std::optional<obs::SpanContext> parent = obs::parse_traceparent(req.header("traceparent"));
    // Names and attributes are built only for spans that go somewhere.
    const bool recorded = obs::spans_recorded();
    scope.span.emplace(recorded ? req.method + " " + req.path : std::string(),
                       obs::SpanKind::server, parent ? &*parent : nullptr);
    if (recorded) {
      scope.span->set_attribute("http.method", req.method);
      scope.span->set_attribute("http.path", req.path);
      scope.span->set_attribute("client.ip", req.client_addr);
      scope.span->set_attribute("kernel.module", kernel_module_of(req.path));
    }
  }

  try {
    impl_->dispatch(req, res, scope, body);
  } catch (const nlohmann::json::exception&) {
    // A member of the wrong type in a body the handler read: bad input.
    res = Response{};
    base::fail(res, 400, "invalid_field", "a JSON value has an unexpected type");
  } catch (const std::exception& e) {
    res = Response{};
    res.status = 500;
    // The exception text goes in as it is, unescaped: clients of this
    // gateway rely on that body byte for byte. Library texts that would name
    // host paths are replaced by their kind.
    res.body =
        std::string("{\"error\":\"internal\",\"message\":\"") + base::client_safe_what(e) + "\"}";
  } catch (...) {
    res = Response{};
    base::fail(res, 500, "internal", "unknown exception");
  }

  if (res.stream) {
    if (res.content_type == "application/json") res.content_type = "text/event-stream";
  } else if (wants_event_stream(req)) {
    res.body = "data: " + res.body + "\n\ndata: [DONE]\n\n";
    res.content_type = "text/event-stream";
  }
  if (scope.span) res.headers["traceparent"] = obs::format_traceparent(scope.span->context());
}

void ApiGateway::Impl::dispatch(Request& req, Response& res, ObsScope& scope,
                                BodySource* body) const {
  // Whatever the answer, a body left unread on the connection means the
  // connection cannot carry another request.
  bool consumed = body == nullptr || !body->present;
  struct CloseUnlessConsumed {
    Response& res;
    const bool& consumed;
    ~CloseUnlessConsumed() {
      if (!consumed) res.headers["Connection"] = "close";
    }
  } close_guard{res, consumed};

  if (!valid_request_text(req)) {
    base::fail(res, 400, "invalid_utf8", "the path or a query value is not valid UTF-8");
    return;
  }

  // Node-to-node calls: an accepted node token records the peer.
  const std::string& node_token = req.header("X-Ostrel-Node-Token");
  const std::string& node_id = req.header("X-Ostrel-Node-Id");
  if (!node_token.empty() && !node_id.empty() && node_verifier &&
      node_verifier(node_id, node_token)) {
    req.peer_node_id = node_id;
    req.auth_source = "node";
    if (scope.span) scope.span->set_attribute("auth.node_id", node_id);
  }

  if (starts_with(req.path, "/api/v1/")) {
    SourceDecision d = decide_source(req);
    eis_counter(d.eis_known, d.action).add();
    if (scope.span && d.action != "loopback") {
      scope.span->set_attribute("eis.id", d.eis_id);
      scope.span->set_attribute("eis.module", d.module);
      scope.span->set_attribute("eis.domain", d.domain);
      if (d.action.rfind("denied", 0) == 0) scope.span->set_attribute("eis.action", d.action);
    }
    if (d.status != 0) {
      res.status = d.status;
      res.body = d.body;
      return;
    }
  }

  std::string_view lookup_method = req.method == "HEAD" ? std::string_view("GET") : req.method;
  RouteTable::Match match = routes.find(lookup_method, req.path);

  // The cluster secret stands in for a credential only on the routes that
  // declare themselves cluster-internal.
  if (match && match.options->cluster_secret && req.peer_node_id.empty()) {
    const std::string& secret = req.header("X-Ostrel-Cluster-Secret");
    if (!secret.empty() && secret_verifier && secret_verifier(secret)) {
      req.peer_node_id = node_id.empty() ? "cluster" : node_id;
      req.auth_source = "cluster_secret";
    }
  }

  // Public paths need no credential, but one that is presented still counts
  // (the chat-completions routes decide for themselves what an anonymous
  // caller may do).
  if (auth_mode == AuthMode::enforce && req.peer_node_id.empty()) {
    const bool is_public =
        is_public_path(req.method, req.path) || (match && match.options->public_path);
    std::string token = req.header("X-Ostrel-Capability");
    if (token.empty()) token = bearer_token(req.header("Authorization"));
    if (token.empty()) token = req.header("X-API-Key");
    if (token.empty() && !is_public) {
      credential_error(res, 401, "unauthenticated", "missing X-Ostrel-Capability",
                       openai_path(req.path));
      return;
    }
    if (!token.empty()) {
      if (!verifier) {
        base::fail(res, 503, "auth_misconfigured", "enforce without verifier");
        return;
      }
      AuthResult auth = verifier(token);
      if (!auth.valid) {
        credential_error(res, 403, "forbidden", auth.reason, openai_path(req.path));
        return;
      }
      req.tenant = std::move(auth.tenant);
      req.token_id = std::move(auth.token_id);
      req.scopes = std::move(auth.scopes);
      req.user_id = std::move(auth.user_id);
      req.role = std::move(auth.role);
      req.auth_source = "capability";
      if (scope.span) {
        scope.span->set_attribute("auth.tenant", req.tenant);
        scope.span->set_attribute("auth.token_id", req.token_id);
      }
    } else {
      req.auth_source = "anonymous";
    }
  }

  if (!match) {
    std::vector<std::string> allowed = routes.methods_matching(req.path);
    if (!allowed.empty()) {
      std::string allow;
      for (const auto& m : allowed) allow += (allow.empty() ? "" : ", ") + m;
      res.headers["Allow"] = allow;
      base::fail(res, 405, "method_not_allowed");
      return;
    }
    base::fail(res, 404, "not_found", {{"path", req.path}});
    return;
  }
  scope.route = match.pattern;
  Reservation reservation{body_budget};
  if (!take_body(req, res, *match.options, body, reservation, consumed)) return;
  (*match.handler)(req, res);
}

bool ApiGateway::Impl::take_body(Request& req, Response& res, const RouteOptions& options,
                                 BodySource* body, Reservation& reservation, bool& consumed) const {
  const std::size_t limit = std::min(options.max_body, max_body);
  auto too_large = [&] {
    base::fail(res, 413, "payload_too_large",
               {{"message", "the request body may not exceed " + std::to_string(limit) +
                                " bytes on this route"},
                {"limit_bytes", limit}});
    return false;
  };
  if (body && body->present) {
    if (body->multipart) {
      base::fail(res, 415, "unsupported_media_type",
                 "multipart bodies are not accepted; send the content as the request body");
      return false;
    }
    if (!body->chunked && !body->length) {
      base::fail(res, 400, "invalid_content_length");
      return false;
    }
    if (options.stream_body) {
      // The handler reads it; whether it read all of it decides whether the
      // connection can go on.
      req.body_reader = [body, &consumed](const std::function<bool(std::string_view)>& sink) {
        bool ok = body->read(
            [&sink](const char* data, std::size_t n) { return sink(std::string_view(data, n)); });
        consumed = ok;
        return ok;
      };
      return true;
    }
    if (body->length && *body->length > limit) return too_large();
    if (body->length && !reservation.add(*body->length)) {
      base::fail(res, 503, "server_busy",
                 "too many large request bodies in progress; retry shortly");
      return false;
    }
    if (body->length) req.body.reserve(*body->length);
    bool over = false, busy = false;
    bool ok = body->read([&](const char* data, std::size_t n) {
      if (req.body.size() + n > limit) return !(over = true);
      if (!body->length && !reservation.add(n)) return !(busy = true);
      req.body.append(data, n);
      return true;
    });
    if (over) return too_large();
    if (busy) {
      base::fail(res, 503, "server_busy",
                 "too many large request bodies in progress; retry shortly");
      return false;
    }
    if (!ok) {
      const std::string why = body->failure ? body->failure() : "";
      if (why == "too_slow") {
        base::fail(res, 408, "request_timeout", "the request body came too slowly");
      } else if (why == "busy") {
        base::fail(res, 503, "server_busy", "too many request bodies in progress; retry shortly");
      } else {
        base::fail(res, 400, "bad_request", "the request body could not be read");
      }
      return false;
    }
    consumed = true;
  } else if (options.stream_body) {
    // Nothing on the connection (an in-process call): the body is what the
    // request already holds.
    req.body_reader = [&req](const std::function<bool(std::string_view)>& sink) {
      return req.body.empty() || sink(req.body);
    };
    return true;
  } else if (req.body.size() > limit) {
    return too_large();
  }
  if (looks_like_json(req.body) && !base::json_depth_ok(req.body)) {
    base::fail(res, 400, "json_too_deep",
               "the body nests arrays or objects deeper than " +
                   std::to_string(base::kMaxJsonDepth) + " levels");
    return false;
  }
  return true;
}

}  // namespace ostrel::kernel
