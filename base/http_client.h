#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The one way the node makes outbound HTTP calls: peers, model servers,
// controllers, collectors, webhooks and web pages. Every call goes through
// libcurl with deadlines on connecting and on the whole transfer, a cap on
// the answer kept, no redirects unless asked for, and an optional check of
// every address a transfer connects to. Calls that a chat request makes to a
// model server over kept-alive connections use UpstreamHttp
// (base/upstream_http.h), which rides on the same library.
// Thread-safe: every call has a handle of its own.
namespace ostrel::base {

struct HttpReply {
  bool transport_ok = false;  // false: no answer (refused, timed out, bad URL)
  int status = 0;
  std::string body;
  std::string error;  // when !transport_ok
  std::string content_type;
  std::string final_url;   // after redirects, when they were followed
  bool truncated = false;  // the answer was longer than max_body and was cut
  bool blocked = false;    // a connect was refused by check_connect
  bool ok() const { return transport_ok && status >= 200 && status < 300; }
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// Decides, at every connect of a transfer (redirects included), whether the
// address may be reached; false refuses the connect.
using ConnectCheck = std::function<bool(const sockaddr* address)>;

struct HttpRequest {
  std::string method = "GET";
  std::string url;  // http:// or https://; nothing else is fetched
  HttpHeaders headers;
  std::string_view body;
  std::string content_type = "application/json";  // sent with a body
  // The whole transfer; zero: no limit.
  std::chrono::milliseconds timeout{10000};
  // Connecting alone; zero: the transfer's limit.
  std::chrono::milliseconds connect_timeout{0};
  // The longest answer kept; a longer one is cut there (truncated).
  std::size_t max_body = std::size_t{64} << 20;
  bool follow_redirects = false;
  long max_redirects = 5;
  bool decompress = false;  // ask for and decode gzip and deflate
  std::string user_agent = "Ostrel/5.0.0";
  ConnectCheck check_connect;
  // When set, the answer's body goes here piece by piece instead of into
  // HttpReply::body; false ends the transfer (transport_ok stays true when
  // the status had arrived).
  std::function<bool(std::string_view piece)> on_body;
  // A status of 400 or more ends the transfer before its body is read.
  bool fail_on_http_error = false;
};

HttpReply http_request(const HttpRequest& request);

// Downloads the 2xx answer to `request` into `target` through a temporary
// file of its own, which takes the target's place only if no file has that
// name yet (error "file_exists") and `accept` (when given) passes it;
// nothing is left behind otherwise. Errors: "too_large" past `max_bytes`
// (0: no limit), "rejected: <why>", "http <status>", "write_failed: …",
// libcurl's text.
HttpReply http_download(
    HttpRequest request, const std::filesystem::path& target, std::uint64_t max_bytes,
    const std::function<bool(const std::filesystem::path& file, std::string& why)>& accept = {});

// `base_url` is "http://host:port" (or https); `path` starts with '/'.
// `timeout` bounds the whole call; `connect_timeout`, when given, connecting.
HttpReply http_post(const std::string& base_url, const std::string& path, std::string_view body,
                    const HttpHeaders& headers, std::chrono::milliseconds timeout,
                    const std::string& content_type = "application/json",
                    std::chrono::milliseconds connect_timeout = std::chrono::milliseconds(0));
HttpReply http_get(const std::string& base_url, const std::string& path, const HttpHeaders& headers,
                   std::chrono::milliseconds timeout);

// "http://host:port/a/b?q" → base "http://host:port", path "/a/b?q" (path
// "/" when there is none). False when the text has no scheme and host.
bool split_url(std::string_view url, std::string& base, std::string& path);

// "http://host:port" from "host:port", "http://host:port/" and the like.
std::string normalise_base_url(std::string url);

// Query-string escaping: unreserved bytes as they are, the rest as %XX.
std::string escape_query(std::string_view text);

namespace detail {
// libcurl's global set-up, done once before the first handle is made.
void ensure_curl_global();
}  // namespace detail

}  // namespace ostrel::base
