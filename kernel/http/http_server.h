#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/no_copy.h"
#include "kernel/types.h"

namespace ostrel::kernel {

// A request body still on the connection. The gateway reads it only after
// the request was admitted and its route found, and never past the route's
// limit.
struct BodySource {
  bool present = false;                 // the request carries a body
  bool chunked = false;                 // Transfer-Encoding: chunked
  bool multipart = false;               // multipart/form-data
  std::optional<std::uint64_t> length;  // Content-Length, when given and valid
  // Hands the body to `sink` piece by piece; false when the client failed,
  // the framing was bad or the sink returned false.
  std::function<bool(const std::function<bool(const char*, std::size_t)>& sink)> read;
  // Why the last read failed: "too_slow" (the body fell below the minimum
  // rate), "busy" (too many workers already wait on bodies), or "" (the
  // client failed or the framing was bad).
  std::function<std::string()> failure;
};

// The embedded HTTP server behind the gateway. cpp-httplib parses requests
// and writes responses; the connections themselves live in a ConnectionHub
// (one acceptor holding waiting connections in epoll, workers serving
// complete requests), so idle and slow clients cost no threads. Sockets get
// TCP_NODELAY. Owns the hub and joins its threads in stop().
class HttpServer : private base::NoCopy {
 public:
  using Dispatch = std::function<void(Request&, Response&, BodySource*)>;

  explicit HttpServer(Dispatch dispatch);
  ~HttpServer();

  void set_worker_threads(int threads);
  // How stop() drains: requests in progress get `drain`; then `on_deadline`
  // runs (it should end long work) and what remains is cut a second later.
  void set_drain(std::chrono::milliseconds drain, std::function<void()> on_deadline);
  bool start(const std::string& bind, std::uint16_t port);
  void stop();
  std::uint16_t port() const;
  bool running() const;
  // Requests answered so far (any status): progress, for the watchdog.
  std::uint64_t requests_finished() const;
  // Client connections open now.
  std::size_t open_connections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel::kernel
