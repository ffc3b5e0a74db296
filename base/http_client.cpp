#include "base/http_client.h"

#include <httplib.h>

namespace ostrel::base {
namespace {

void apply_timeouts(httplib::Client& c, std::chrono::milliseconds timeout) {
  const auto s = static_cast<time_t>(timeout.count() / 1000);
  const auto us = static_cast<time_t>((timeout.count() % 1000) * 1000);
  c.set_connection_timeout(s, us);
  c.set_read_timeout(s, us);
  c.set_write_timeout(s, us);
}

httplib::Headers to_headers(const HttpHeaders& headers) {
  httplib::Headers h;
  for (const auto& [k, v] : headers) h.emplace(k, v);
  return h;
}

HttpReply to_reply(const httplib::Result& r) {
  HttpReply out;
  if (!r) {
    out.error = httplib::to_string(r.error());
    return out;
  }
  out.transport_ok = true;
  out.status = r->status;
  out.body = r->body;
  return out;
}

bool valid_base(const std::string& base_url) {
  return base_url.rfind("http://", 0) == 0 || base_url.rfind("https://", 0) == 0;
}

HttpReply bad_url(const std::string& base_url) {
  HttpReply out;
  out.error = "not an http(s) URL: " + base_url;
  return out;
}

}  // namespace

HttpReply http_post(const std::string& base_url, const std::string& path, std::string_view body,
                    const HttpHeaders& headers, std::chrono::milliseconds timeout,
                    const std::string& content_type, std::chrono::milliseconds connect_timeout) {
  if (!valid_base(base_url)) return bad_url(base_url);
  try {
    httplib::Client c(base_url);
    apply_timeouts(c, timeout);
    if (connect_timeout.count() > 0) {
      c.set_connection_timeout(static_cast<time_t>(connect_timeout.count() / 1000),
                               static_cast<time_t>((connect_timeout.count() % 1000) * 1000));
    }
    return to_reply(c.Post(path, to_headers(headers), body.data(), body.size(), content_type));
  } catch (const std::exception& e) {
    HttpReply out;
    out.error = e.what();
    return out;
  }
}

HttpReply http_get(const std::string& base_url, const std::string& path, const HttpHeaders& headers,
                   std::chrono::milliseconds timeout) {
  if (!valid_base(base_url)) return bad_url(base_url);
  try {
    httplib::Client c(base_url);
    apply_timeouts(c, timeout);
    return to_reply(c.Get(path, to_headers(headers)));
  } catch (const std::exception& e) {
    HttpReply out;
    out.error = e.what();
    return out;
  }
}

bool split_url(std::string_view url, std::string& base, std::string& path) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string_view::npos || scheme == 0) return false;
  const std::size_t slash = url.find('/', scheme + 3);
  const std::size_t host_end = slash == std::string_view::npos ? url.size() : slash;
  if (host_end == scheme + 3) return false;
  base = std::string(url.substr(0, host_end));
  path = slash == std::string_view::npos ? "/" : std::string(url.substr(slash));
  return true;
}

std::string normalise_base_url(std::string url) {
  if (url.empty()) return url;
  if (url.find("://") == std::string::npos) url = "http://" + url;
  while (!url.empty() && url.back() == '/') url.pop_back();
  return url;
}

}  // namespace ostrel::base
