#include "base/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

#include "base/durable_file.h"

namespace ostrel::base {
namespace {

struct Transfer {
  const HttpRequest* request;
  HttpReply* reply;
  bool sink_stopped = false;
};

size_t on_data(char* data, size_t size, size_t n, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const size_t bytes = size * n;
  if (t->request->on_body) {
    if (!t->request->on_body(std::string_view(data, bytes))) {
      t->sink_stopped = true;
      return 0;
    }
    return bytes;
  }
  std::string& body = t->reply->body;
  const std::size_t room = t->request->max_body - std::min(t->request->max_body, body.size());
  if (bytes > room) {
    body.append(data, room);
    t->reply->truncated = true;
    return 0;  // ends the transfer
  }
  body.append(data, bytes);
  return bytes;
}

curl_socket_t open_checked(void* user, curlsocktype, curl_sockaddr* address) {
  auto* t = static_cast<Transfer*>(user);
  if (!t->request->check_connect(&address->addr)) {
    t->reply->blocked = true;
    return CURL_SOCKET_BAD;
  }
  return ::socket(address->family, address->socktype, address->protocol);
}

bool http_scheme(std::string_view url) {
  return url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
}

struct CurlDeleter {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct ListDeleter {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

}  // namespace

void detail::ensure_curl_global() {
  static const bool once = [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return true;
  }();
  (void)once;
}

HttpReply http_request(const HttpRequest& request) {
  HttpReply reply;
  if (!http_scheme(request.url)) {
    reply.error = "not an http(s) URL: " + request.url.substr(0, 200);
    return reply;
  }
  detail::ensure_curl_global();
  // Each thread keeps one handle between requests, so that its next request
  // to the same server reuses the connection (a node calling itself or its
  // router pays no connect, and the server no new connection) — unless the
  // request checks the address it connects to: a reused connection was not
  // checked, so those always connect afresh, on a handle of their own.
  static thread_local std::unique_ptr<CURL, CurlDeleter> kept;
  static thread_local bool kept_busy = false;
  std::unique_ptr<CURL, CurlDeleter> own;
  const bool reuse = !request.check_connect && !kept_busy;
  if (reuse) {
    if (kept) {
      curl_easy_reset(kept.get());
    } else {
      kept.reset(curl_easy_init());
    }
  } else {
    own.reset(curl_easy_init());
  }
  CURL* c = reuse ? kept.get() : own.get();
  if (!c) {
    reply.error = "curl_easy_init failed";
    return reply;
  }
  // A request made from inside another's callback gets a handle of its own.
  struct Busy {
    bool on;
    explicit Busy(bool reuse) : on(reuse) {
      if (on) kept_busy = true;
    }
    ~Busy() {
      if (on) kept_busy = false;
    }
  } busy(reuse);
  Transfer t{&request, &reply};
  char error[CURL_ERROR_SIZE] = {0};

  std::unique_ptr<curl_slist, ListDeleter> headers;
  auto add_header = [&headers](const std::string& line) {
    headers.reset(curl_slist_append(headers.release(), line.c_str()));
  };
  for (const auto& [k, v] : request.headers) add_header(k + ": " + v);
  const bool has_body =
      !request.body.empty() || request.method == "POST" || request.method == "PUT";
  if (has_body) add_header("Content-Type: " + request.content_type);
  add_header("Expect:");  // no 100-continue round trip

  curl_easy_setopt(c, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(c, CURLOPT_USERAGENT, request.user_agent.c_str());
  curl_easy_setopt(c, CURLOPT_MAXCONNECTS, 2L);  // idle connections a thread keeps
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, on_data);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &t);
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count()));
  const auto connect =
      request.connect_timeout.count() > 0 ? request.connect_timeout : request.timeout;
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connect.count()));
  if (request.follow_redirects) {
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, request.max_redirects);
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  }
  if (request.decompress) curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, "");
  if (request.fail_on_http_error) curl_easy_setopt(c, CURLOPT_FAILONERROR, 1L);
  if (request.check_connect) {
    curl_easy_setopt(c, CURLOPT_OPENSOCKETFUNCTION, open_checked);
    curl_easy_setopt(c, CURLOPT_OPENSOCKETDATA, &t);
  }
  if (request.method == "GET") {
    curl_easy_setopt(c, CURLOPT_HTTPGET, 1L);
  } else if (request.method == "HEAD") {
    curl_easy_setopt(c, CURLOPT_NOBODY, 1L);
  } else {
    if (request.method != "POST") {
      curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    curl_easy_setopt(c, CURLOPT_POST, 1L);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());

  const CURLcode rc = curl_easy_perform(c);
  long status = 0;
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
  reply.status = static_cast<int>(status);
  char* type = nullptr;
  if (curl_easy_getinfo(c, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type) {
    reply.content_type = type;
  }
  char* effective = nullptr;
  if (curl_easy_getinfo(c, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective) {
    reply.final_url = effective;
  }
  const bool cut_by_us = rc == CURLE_WRITE_ERROR && (reply.truncated || t.sink_stopped);
  if (rc == CURLE_OK || (cut_by_us && status > 0)) {
    reply.transport_ok = true;
  } else if (rc == CURLE_HTTP_RETURNED_ERROR) {
    reply.transport_ok = true;
    reply.error = "http " + std::to_string(status);
  } else {
    reply.error = error[0] ? error : curl_easy_strerror(rc);
  }
  return reply;
}

HttpReply http_download(
    HttpRequest request, const std::filesystem::path& target, std::uint64_t max_bytes,
    const std::function<bool(const std::filesystem::path& file, std::string& why)>& accept) {
  HttpReply reply;
  AtomicFileWriter file(target);
  if (!file.open(reply.error)) {
    reply.error = "open_failed: " + reply.error;
    return reply;
  }
  bool too_large = false;
  std::string write_error;
  request.fail_on_http_error = true;
  request.on_body = [&](std::string_view piece) {
    if (max_bytes && file.size() + piece.size() > max_bytes) {
      too_large = true;
      return false;
    }
    return file.write(piece, write_error);
  };
  reply = http_request(request);
  if (too_large) {
    reply.error = "too_large";
  } else if (!write_error.empty()) {
    reply.error = "write_failed: " + write_error;
  } else if (reply.error.empty() && accept) {
    std::string why;
    if (!accept(file.temporary(), why)) reply.error = "rejected: " + why;
  }
  if (!reply.error.empty()) return reply;  // the writer removes its temporary
  if (!file.commit(reply.error, /*replace=*/false) && reply.error != "file_exists") {
    reply.error = "write_failed: " + reply.error;
  }
  return reply;
}

HttpReply http_post(const std::string& base_url, const std::string& path, std::string_view body,
                    const HttpHeaders& headers, std::chrono::milliseconds timeout,
                    const std::string& content_type, std::chrono::milliseconds connect_timeout) {
  HttpRequest r;
  r.method = "POST";
  r.url = base_url + path;
  r.headers = headers;
  r.body = body;
  r.content_type = content_type;
  r.timeout = timeout;
  r.connect_timeout = connect_timeout;
  return http_request(r);
}

HttpReply http_get(const std::string& base_url, const std::string& path, const HttpHeaders& headers,
                   std::chrono::milliseconds timeout) {
  HttpRequest r;
  r.url = base_url + path;
  r.headers = headers;
  r.timeout = timeout;
  return http_request(r);
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

std::string escape_query(std::string_view text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

}  // namespace ostrel::base
