#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/types.h"

namespace ostrel::kernel {

// The embedded HTTP server (cpp-httplib) behind the gateway: one catch-all
// route per method that turns the library's request into a `Request`, calls the
// dispatch function and writes the `Response` back (streamed bodies through a
// chunked provider). Sockets get TCP_NODELAY. Each open connection holds one
// worker thread; when all are taken, a connection idling between requests
// gives its thread to the newcomer. Owns the listen thread and joins it in
// stop().
class HttpServer {
 public:
  using Dispatch = std::function<void(Request&, Response&)>;

  explicit HttpServer(Dispatch dispatch);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  void set_worker_threads(int threads);
  bool start(const std::string& bind, std::uint16_t port);
  void stop();
  std::uint16_t port() const;
  bool running() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel::kernel
