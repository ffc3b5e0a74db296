#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::base {

// POSTs to one model server over kept-alive HTTP/1.1 connections, for the
// calls every chat request makes. libcurl makes each connection (name
// resolution, connect timeout, TLS for https) and carries the bytes; the
// request goes out in one write and the reply is read as it arrives, with no
// event loop or header bookkeeping between the socket and the caller.
//
// Thread-safe: each call takes a connection of its own from the idle list
// (mu_ guards only that list; no lock is held during a transfer).
class UpstreamHttp : private base::NoCopy {
 public:
  struct Reply {
    int curl_code = 0;     // CURLE_OK (0), or the libcurl failure
    long status = 0;       // HTTP status; 0 when none arrived
    bool aborted = false;  // the body sink returned false

    bool transport_ok() const { return curl_code == 0; }
    // The abort descriptor fired: the node is shutting down.
    bool shutting_down() const;
    // No handle could be made (out of memory).
    bool failed_init() const;
    // libcurl's text for curl_code.
    std::string error() const;
  };
  // Sees the status once, before any body byte.
  using StatusSink = std::function<void(long status)>;
  // Receives the body (chunked transfer decoded) piece by piece as it
  // arrives; returning false ends the transfer and drops the connection.
  using BodySink = std::function<bool(std::string_view piece)>;

  // base_url: scheme://host[:port][/prefix]; paths are appended to it.
  // A reply that stays silent for `idle_timeout` (between any two bytes)
  // fails with CURLE_OPERATION_TIMEDOUT: generous, since a model server may
  // load a model before its first byte, but a hung server cannot hold a
  // scheduler worker forever.
  explicit UpstreamHttp(std::string base_url,
                        std::chrono::milliseconds idle_timeout = std::chrono::minutes(10));
  ~UpstreamHttp();

  Reply post(std::string_view path, std::string_view content_type, std::string_view accept,
             std::string_view body, const StatusSink& on_status, const BodySink& on_body);

  // Once `fd` (borrowed, may be -1) is readable, transfers in progress and
  // later ones fail at once with CURLE_ABORTED_BY_CALLBACK: the node is
  // shutting down.
  void set_abort_fd(int fd) { abort_fd_ = fd; }

  // Idle connections kept for reuse (for tests).
  std::size_t idle_connections() const;

 private:
  struct Connection;
  enum class Outcome { keep, close, retry };

  std::unique_ptr<Connection> take_idle_();
  std::unique_ptr<Connection> connect_(int& code) const;
  void give_back_(std::unique_ptr<Connection> c);
  Outcome read_reply_(Connection& c, const StatusSink& on_status, const BodySink& on_body,
                      Reply& reply) const;

  std::string base_;
  std::string host_;    // the Host header
  std::string prefix_;  // path of the base URL, without a trailing slash
  std::chrono::milliseconds idle_timeout_;
  std::atomic<int> abort_fd_{-1};
  mutable std::mutex mu_;  // guards idle_
  std::vector<std::unique_ptr<Connection>> idle_;
};

}  // namespace ostrel::base
