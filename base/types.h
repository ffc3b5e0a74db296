#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ostrel::base {

// Case-insensitive hashing and equality for header maps: HTTP header names
// are case-insensitive, so handlers find "authorization" however it was sent.
struct HeaderHash {
  std::size_t operator()(std::string_view s) const;
  using is_transparent = void;
};
struct HeaderEqual {
  bool operator()(std::string_view a, std::string_view b) const;
  using is_transparent = void;
};
using HeaderMap = std::unordered_map<std::string, std::string, HeaderHash, HeaderEqual>;

// Reads a streamed request body piece by piece, for routes that take their
// body themselves (uploads to disk). `sink` returns false to stop; the reader
// returns false when the client failed or the sink stopped.
using BodyReader = std::function<bool(const std::function<bool(std::string_view)>& sink)>;

// The gateway's view of one HTTP request, handed to route handlers by const
// reference. A plain copyable value: handlers that pass work to another thread
// copy it.
struct Request {
  std::string method;  // upper case
  std::string path;    // without the query string
  std::string body;
  HeaderMap headers;
  std::unordered_map<std::string, std::string> params;  // decoded query parameters

  // Authentication context, filled by the gateway before the handler runs.
  std::string client_addr;
  std::string tenant;
  std::string token_id;
  std::vector<std::string> scopes;
  std::string peer_node_id;  // set when a node token was accepted
  std::string user_id;
  // The tool-policy role the checked credential stands for: a user's own
  // role for an API key, else the one its scopes add up to.
  std::string role;
  // "capability" (any checked credential), "node" (a peer's node token),
  // "cluster_secret" (on cluster-internal routes), "anonymous" (nothing, on a
  // public path of an enforcing node) or empty (nothing checked).
  std::string auth_source;

  // Set only for routes registered to stream their body; valid while the
  // handler runs.
  BodyReader body_reader;

  // The header's value, or "" when absent.
  const std::string& header(std::string_view name) const;
  // The query parameter's value, or `fallback` when absent.
  std::string param(const std::string& name, const std::string& fallback = "") const;
  bool has_param(const std::string& name) const { return params.count(name) > 0; }
};

// Writes one piece of a streamed body; returns false once the client is gone.
using StreamWrite = std::function<bool(std::string_view)>;
// Produces a streamed body by calling `write` for every piece, in order, on the
// HTTP worker thread, and returns when done or when `write` returned false.
using StreamProducer = std::function<void(const StreamWrite& write)>;

// What a route handler fills. A new Response answers 200 with an empty
// "application/json" body.
struct Response {
  int status = 200;
  std::string body;
  HeaderMap headers;
  std::string content_type = "application/json";
  StreamProducer stream;
};

// One server-sent event: "data: <payload>\n\n" (one "data: " line per payload line).
std::string sse_event(std::string_view payload);

// How the gateway takes a route's request, declared by whoever registers
// it. Bodies are read only after the request was admitted (node token, source
// policy, credential) and its route found, and never past the route's limit.
struct RouteOptions {
  // The largest body kept in memory for the handler (Request::body).
  static constexpr std::size_t kDefaultMaxBody = 1 << 20;  // JSON control routes
  static constexpr std::size_t kLargeBody = 16 << 20;      // chat, embeddings, ingest
  std::size_t max_body = kDefaultMaxBody;
  // The handler reads the body itself through Request::body_reader (uploads
  // that go straight to disk); max_body then bounds nothing.
  bool stream_body = false;
  // A cluster-internal route: the cluster secret in "X-Ostrel-Cluster-Secret"
  // stands in for a credential here, and nowhere else.
  bool cluster_secret = false;
  // Reachable without a credential on a node that enforces them (a
  // presented credential still counts). The gateway's own public paths are
  // its table; a module declares its own here.
  bool public_path = false;
};

// Who may run a syscall from outside the node's modules (the generic
// syscall route, a tool call), declared by whoever registers it; a syscall
// registered without one needs an administrator. Modules calling each other
// in process are not checked.
struct SyscallAccess {
  enum class Kind : std::uint8_t {
    admin,          // an "admin.*", "kernel.*" or "*" scope
    scoped,         // the named scope
    tenant,         // the caller's own tenant only
    scoped_tenant,  // both
    open,           // any caller the gateway admitted
  };
  Kind kind = Kind::admin;
  std::string scope;

  static SyscallAccess admin() { return {}; }
  static SyscallAccess open() { return {Kind::open, {}}; }
  static SyscallAccess scoped(std::string scope) { return {Kind::scoped, std::move(scope)}; }
  // The caller's tenant only; with a scope, that scope too.
  static SyscallAccess tenant(std::string scope = {}) {
    return {scope.empty() ? Kind::tenant : Kind::scoped_tenant, std::move(scope)};
  }
};

// Result of a syscall: status 0 on success, negative on failure; body is JSON
// text (the result object, or {"error": …} on failure).
struct SyscallResult {
  std::int32_t status = 0;
  std::string body;
};

// Outcome of a credential check by the gateway's verifier.
struct AuthResult {
  bool valid = false;
  std::string reason;
  std::string tenant;
  std::string token_id;
  std::vector<std::string> scopes;
  std::string user_id;
  std::string role;  // see Request::role
};

}  // namespace ostrel::base
