#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// One blocking HTTP call with a deadline on connect, send and receive: the
// way modules reach peers, model servers and webhooks.
namespace ostrel::base {

struct HttpReply {
  bool transport_ok = false;  // false: no answer (refused, timed out, bad URL)
  int status = 0;
  std::string body;
  std::string error;  // when !transport_ok
  bool ok() const { return transport_ok && status >= 200 && status < 300; }
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// `base_url` is "http://host:port" (or https); `path` starts with '/'.
// `timeout` bounds connecting, sending and each wait for the answer;
// `connect_timeout`, when given, bounds connecting alone.
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

}  // namespace ostrel::base
