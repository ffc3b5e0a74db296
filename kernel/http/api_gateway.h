#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/no_copy.h"
#include "identity/source_header.h"
#include "kernel/http/http_server.h"
#include "kernel/http/route_table.h"
#include "kernel/types.h"

namespace ostrel::kernel {

enum class AuthMode : std::uint8_t { off = 0, enforce = 1 };

using SourceDecision = source_header::SourceDecision;

using AuthVerifier = std::function<AuthResult(const std::string& token)>;
using NodeTokenVerifier = std::function<bool(const std::string& node_id, const std::string& token)>;
// True when the presented text is this cluster's secret (compared in constant time).
using ClusterSecretVerifier = std::function<bool(const std::string& secret)>;
using SourcePolicy = std::function<SourceDecision(const Request&)>;

// "/health", "/metrics", the UI pages and the other paths that need no
// capability in enforce mode.
bool is_public_path(std::string_view method, std::string_view path);

// The node's HTTP front door: owns the embedded HTTP server and the route
// table, and runs every request through one dispatch path (node token,
// source policy, capability check, tracing and metrics, route lookup, handler,
// response shaping). Handlers run concurrently on the server's worker threads.
// Thread-safe: routes may be added from any thread; the verifier and policy
// hooks are installed during boot, before start().
class ApiGateway : private base::NoCopy {
 public:
  ApiGateway();
  ~ApiGateway();

  bool route(const std::string& method, const std::string& path, RouteHandler handler,
             RouteOptions options = {});
  std::vector<RouteInfo> routes() const;

  void set_auth_mode(AuthMode mode);
  AuthMode auth_mode() const;
  void set_auth_verifier(AuthVerifier verifier);
  bool has_auth_verifier() const;
  void set_node_token_verifier(NodeTokenVerifier verifier);
  // Cluster-internal callers may present the cluster secret itself
  // ("X-Ostrel-Cluster-Secret") in place of a node token.
  void set_cluster_secret_verifier(ClusterSecretVerifier verifier);
  void set_source_policy(SourcePolicy policy);

  // Worker threads of the HTTP server; 0 keeps the default (64).
  void set_worker_threads(int threads);
  // How stop() drains requests in progress (see HttpServer::set_drain).
  void set_drain(std::chrono::milliseconds drain, std::function<void()> on_deadline);
  // Requests answered so far: progress, for the watchdog.
  std::uint64_t requests_finished() const;
  // The largest body any route buffers in memory (OSTREL_ULVO_HTTP_MAX_BODY_MB).
  std::size_t max_body_bytes() const;

  // Binds and starts the listen loop on its own thread. Port 0 picks a free
  // port (see port()). False when the address cannot be bound.
  bool start(const std::string& bind, std::uint16_t port);
  // Stops the listen loop and joins its thread. Safe to call twice.
  void stop();
  std::uint16_t port() const;
  bool running() const;

  // The whole dispatch path for one request, without a socket: what start()
  // serves, and what tests and benchmarks can call directly. On return the
  // response is final (status, content type, SSE wrapping done).
  // `body`: the request body still on the connection (null when
  // request.body already holds it, as in tests).
  void handle(Request& request, Response& response, BodySource* body = nullptr) const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel::kernel
