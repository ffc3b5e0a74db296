#include "base/upstream_http.h"

#include <curl/curl.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include "base/http_client.h"
#include "base/text.h"

namespace ostrel::base {
namespace {

constexpr long kConnectTimeoutMs = 5000;
constexpr std::size_t kMaxHeaderBytes = 64 * 1024;
constexpr std::size_t kReadBytes = 16 * 1024;
constexpr std::size_t kMaxIdle = 64;

// Waits until the socket is ready for `events`. Returns CURLE_OK,
// CURLE_OPERATION_TIMEDOUT when nothing happened for `timeout_ms`, or
// CURLE_ABORTED_BY_CALLBACK once `abort_fd` (may be -1) is readable.
int wait_for(curl_socket_t fd, short events, int timeout_ms, int abort_fd) {
  pollfd p[2] = {{fd, events, 0}, {abort_fd, POLLIN, 0}};
  int rc;
  do {
    rc = ::poll(p, 2, timeout_ms);
  } while (rc < 0 && errno == EINTR);
  if (rc == 0) return CURLE_OPERATION_TIMEDOUT;
  if (rc > 0 && p[1].revents != 0) return CURLE_ABORTED_BY_CALLBACK;
  return rc > 0 ? CURLE_OK : (events == POLLIN ? CURLE_RECV_ERROR : CURLE_SEND_ERROR);
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) {
    s.remove_suffix(1);
  }
  return s;
}

bool contains_token(std::string_view value, std::string_view token) {
  for (std::size_t i = 0; i + token.size() <= value.size(); ++i) {
    if (text::iequals(value.substr(i, token.size()), token)) return true;
  }
  return false;
}

}  // namespace

bool UpstreamHttp::Reply::shutting_down() const { return curl_code == CURLE_ABORTED_BY_CALLBACK; }

bool UpstreamHttp::Reply::failed_init() const { return curl_code == CURLE_FAILED_INIT; }

std::string UpstreamHttp::Reply::error() const {
  return curl_easy_strerror(static_cast<CURLcode>(curl_code));
}

struct UpstreamHttp::Connection {
  CURL* curl = nullptr;
  curl_socket_t fd = CURL_SOCKET_BAD;
  std::string in;            // bytes received and not yet consumed
  bool wait_first = true;    // nothing buffered: wait before the next read
  int idle_timeout_ms = -1;  // longest wait for the peer
  int abort_fd = -1;         // readable: give up at once
  ~Connection() {
    if (curl) curl_easy_cleanup(curl);
  }

  // Writes all of `data`. Returns a CURLcode.
  int send_all(std::string_view data) {
    std::size_t done = 0;
    while (done < data.size()) {
      std::size_t n = 0;
      CURLcode rc = curl_easy_send(curl, data.data() + done, data.size() - done, &n);
      if (rc == CURLE_AGAIN) {
        if (int w = wait_for(fd, POLLOUT, idle_timeout_ms, abort_fd); w != CURLE_OK) return w;
        continue;
      }
      if (rc != CURLE_OK) return rc;
      done += n;
    }
    wait_first = true;
    return CURLE_OK;
  }

  // Appends what arrives next to `in`. Returns a CURLcode; `eof` is set when
  // the peer closed the connection.
  int read_more(bool& eof) {
    char buf[kReadBytes];
    eof = false;
    while (true) {
      if (wait_first) {
        if (int w = wait_for(fd, POLLIN, idle_timeout_ms, abort_fd); w != CURLE_OK) return w;
      }
      std::size_t n = 0;
      CURLcode rc = curl_easy_recv(curl, buf, sizeof buf, &n);
      if (rc == CURLE_AGAIN) {
        wait_first = true;
        continue;
      }
      wait_first = false;
      if (rc != CURLE_OK) return rc;
      if (n == 0) eof = true;
      in.append(buf, n);
      return CURLE_OK;
    }
  }
};

UpstreamHttp::UpstreamHttp(std::string base_url, std::chrono::milliseconds idle_timeout)
    : base_(std::move(base_url)), idle_timeout_(idle_timeout) {
  detail::ensure_curl_global();
  while (!base_.empty() && base_.back() == '/') base_.pop_back();
  std::string_view rest = base_;
  if (auto scheme = rest.find("://"); scheme != std::string_view::npos) {
    rest.remove_prefix(scheme + 3);
  }
  const std::size_t slash = rest.find('/');
  std::string_view authority = rest.substr(0, slash);
  if (auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  host_ = std::string(authority);
  if (slash != std::string_view::npos) prefix_ = std::string(rest.substr(slash));
}

UpstreamHttp::~UpstreamHttp() = default;

std::size_t UpstreamHttp::idle_connections() const {
  std::lock_guard lock(mu_);
  return idle_.size();
}

std::unique_ptr<UpstreamHttp::Connection> UpstreamHttp::take_idle_() {
  while (true) {
    std::unique_ptr<Connection> c;
    {
      std::lock_guard lock(mu_);
      if (idle_.empty()) return nullptr;
      c = std::move(idle_.back());
      idle_.pop_back();
    }
    // An idle connection has nothing to say: if it is readable, the server
    // closed it (or broke the protocol) and it cannot carry a request.
    pollfd p{c->fd, POLLIN, 0};
    if (::poll(&p, 1, 0) == 0) return c;
  }
}

std::unique_ptr<UpstreamHttp::Connection> UpstreamHttp::connect_(int& code) const {
  auto c = std::make_unique<Connection>();
  c->idle_timeout_ms = static_cast<int>(idle_timeout_.count());
  c->abort_fd = abort_fd_.load();
  c->curl = curl_easy_init();
  if (!c->curl) {
    code = CURLE_FAILED_INIT;
    return nullptr;
  }
  curl_easy_setopt(c->curl, CURLOPT_URL, base_.c_str());
  curl_easy_setopt(c->curl, CURLOPT_CONNECT_ONLY, 1L);
  // Through a proxy (http_proxy and friends), tunnel: the bytes written on
  // the connection are meant for the model server itself.
  curl_easy_setopt(c->curl, CURLOPT_HTTPPROXYTUNNEL, 1L);
  curl_easy_setopt(c->curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c->curl, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(c->curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
  CURLcode rc = curl_easy_perform(c->curl);
  if (rc == CURLE_OK) rc = curl_easy_getinfo(c->curl, CURLINFO_ACTIVESOCKET, &c->fd);
  if (rc != CURLE_OK || c->fd == CURL_SOCKET_BAD) {
    code = rc != CURLE_OK ? rc : CURLE_COULDNT_CONNECT;
    return nullptr;
  }
  return c;
}

void UpstreamHttp::give_back_(std::unique_ptr<Connection> c) {
  std::lock_guard lock(mu_);
  if (idle_.size() < kMaxIdle) idle_.push_back(std::move(c));
}

UpstreamHttp::Reply UpstreamHttp::post(std::string_view path, std::string_view content_type,
                                       std::string_view accept, std::string_view body,
                                       const StatusSink& on_status, const BodySink& on_body) {
  char length[24];
  auto [length_end, ec] = std::to_chars(length, length + sizeof length, body.size());
  std::string request;
  request.reserve(160 + prefix_.size() + path.size() + body.size());
  request.append("POST ").append(prefix_).append(path).append(" HTTP/1.1\r\nHost: ");
  request.append(host_).append("\r\nContent-Type: ").append(content_type);
  request.append("\r\nAccept: ").append(accept).append("\r\nContent-Length: ");
  request.append(length, length_end).append("\r\n\r\n").append(body);

  Reply reply;
  // A kept-alive connection may have been closed by the server just as it
  // was taken; such a request is sent once more on a fresh connection.
  for (int attempt = 0;; ++attempt) {
    std::unique_ptr<Connection> c = attempt == 0 ? take_idle_() : nullptr;
    const bool reused = c != nullptr;
    if (!c) {
      int code = CURLE_OK;
      c = connect_(code);
      if (!c) {
        reply.curl_code = code;
        return reply;
      }
    }
    const int sent = c->send_all(request);
    if (sent != CURLE_OK) {
      if (reused) continue;
      reply.curl_code = sent;
      return reply;
    }
    const Outcome outcome = read_reply_(*c, on_status, on_body, reply);
    if (outcome == Outcome::retry && reused) {
      reply = Reply{};
      continue;
    }
    if (outcome == Outcome::keep) give_back_(std::move(c));
    return reply;
  }
}

UpstreamHttp::Outcome UpstreamHttp::read_reply_(Connection& c, const StatusSink& on_status,
                                                const BodySink& on_body, Reply& reply) const {
  // Body bytes decoded and not yet handed on. They go to the sink before any
  // wait for more, so that whatever arrived together is handed on together
  // (chunk framing does not split it) and nothing decoded waits on the network.
  std::string ready;
  auto fail = [&](int code) {
    if (!ready.empty() && on_body) on_body(ready);  // what arrived before the fault
    reply.curl_code = code;
    return Outcome::close;
  };
  bool eof = false;
  bool got_any = false;

  // Status line and headers, skipping interim (1xx) answers.
  long status = 0;
  bool chunked = false, keep_alive = true, has_length = false;
  std::uint64_t length = 0;
  while (true) {
    std::size_t end;
    while ((end = c.in.find("\r\n\r\n")) == std::string::npos) {
      if (c.in.size() > kMaxHeaderBytes) return fail(CURLE_WEIRD_SERVER_REPLY);
      const int rc = c.read_more(eof);
      if (rc != CURLE_OK || eof) {
        // Nothing at all on a reused connection: the server had closed it.
        // (A server that is merely slow is not asked twice.)
        if (!got_any && c.in.empty() && rc != CURLE_OPERATION_TIMEDOUT) {
          reply.curl_code = rc != CURLE_OK ? rc : CURLE_GOT_NOTHING;
          return Outcome::retry;
        }
        return fail(rc != CURLE_OK ? rc : CURLE_WEIRD_SERVER_REPLY);
      }
      got_any = true;
    }
    std::string_view head(c.in.data(), end);
    const std::size_t line_end = head.find("\r\n");
    std::string_view status_line = head.substr(0, line_end);
    if (status_line.size() < 12 || status_line.substr(0, 7) != "HTTP/1." || status_line[8] != ' ') {
      return fail(CURLE_WEIRD_SERVER_REPLY);
    }
    const bool http10 = status_line[7] == '0';
    auto [p, sec] = std::from_chars(status_line.data() + 9, status_line.data() + 12, status);
    if (sec != std::errc() || p != status_line.data() + 12 || status < 100) {
      return fail(CURLE_WEIRD_SERVER_REPLY);
    }
    if (status < 200) {
      c.in.erase(0, end + 4);
      continue;
    }
    keep_alive = !http10;
    std::string_view fields = line_end == std::string_view::npos ? "" : head.substr(line_end + 2);
    while (!fields.empty()) {
      const std::size_t nl = fields.find("\r\n");
      std::string_view line = fields.substr(0, nl);
      fields = nl == std::string_view::npos ? "" : fields.substr(nl + 2);
      const std::size_t colon = line.find(':');
      if (colon == std::string_view::npos) continue;
      std::string_view name = trim(line.substr(0, colon));
      std::string_view value = trim(line.substr(colon + 1));
      if (text::iequals(name, "content-length")) {
        auto [vp, vec] = std::from_chars(value.data(), value.data() + value.size(), length);
        if (vec != std::errc() || vp != value.data() + value.size()) {
          return fail(CURLE_WEIRD_SERVER_REPLY);
        }
        has_length = true;
      } else if (text::iequals(name, "transfer-encoding")) {
        chunked = contains_token(value, "chunked");
      } else if (text::iequals(name, "connection")) {
        if (contains_token(value, "close")) keep_alive = false;
        if (contains_token(value, "keep-alive")) keep_alive = true;
      }
    }
    c.in.erase(0, end + 4);
    break;
  }
  reply.status = status;
  if (on_status) on_status(status);

  constexpr int kAborted = -1;  // the body sink asked to stop
  auto flush = [&]() -> int {
    if (ready.empty()) return CURLE_OK;
    const bool go = !on_body || on_body(ready);
    ready.clear();
    return go ? CURLE_OK : kAborted;
  };
  // Reads more of the body; a close before its end is a partial transfer.
  auto more = [&]() -> int {
    if (const int rc = flush(); rc != CURLE_OK) return rc;
    const int rc = c.read_more(eof);
    if (rc != CURLE_OK) return rc;
    return eof ? CURLE_PARTIAL_FILE : CURLE_OK;
  };
  // Waits for the next CRLF (a line of at most `limit` bytes); sets `nl` to
  // its offset.
  auto next_line = [&](std::size_t limit, std::size_t& nl) -> int {
    while ((nl = c.in.find("\r\n")) == std::string::npos) {
      if (c.in.size() > limit) return CURLE_RECV_ERROR;
      if (const int rc = more(); rc != CURLE_OK) return rc;
    }
    return CURLE_OK;
  };
  // Hands the next `n` body bytes on as they arrive.
  auto pass_on = [&](std::uint64_t n) -> int {
    while (n > 0) {
      if (c.in.empty()) {
        if (const int rc = more(); rc != CURLE_OK) return rc;
        continue;
      }
      const std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(n, c.in.size()));
      ready.append(c.in, 0, take);
      c.in.erase(0, take);
      n -= take;
    }
    return CURLE_OK;
  };
  auto end_with = [&](int rc) {
    if (rc != kAborted) return fail(rc);
    reply.aborted = true;
    return Outcome::close;
  };

  if (chunked) {
    while (true) {
      std::size_t nl;
      if (const int rc = next_line(1024, nl); rc != CURLE_OK) return end_with(rc);
      std::string_view size_text(c.in.data(), nl);
      size_text = trim(size_text.substr(0, size_text.find(';')));
      std::uint64_t size = 0;
      auto [sp, sec] =
          std::from_chars(size_text.data(), size_text.data() + size_text.size(), size, 16);
      if (sec != std::errc() || sp != size_text.data() + size_text.size()) {
        return fail(CURLE_RECV_ERROR);
      }
      c.in.erase(0, nl + 2);
      if (size == 0) {
        // Trailer fields, then the empty line.
        do {
          if (const int rc = next_line(kMaxHeaderBytes, nl); rc != CURLE_OK) return end_with(rc);
          c.in.erase(0, nl + 2);
        } while (nl != 0);
        break;
      }
      if (const int rc = pass_on(size); rc != CURLE_OK) return end_with(rc);
      // The chunk's data ends with a CRLF of its own.
      if (const int rc = next_line(2, nl); rc != CURLE_OK) return end_with(rc);
      if (nl != 0) return fail(CURLE_RECV_ERROR);
      c.in.erase(0, 2);
    }
    if (const int rc = flush(); rc != CURLE_OK) return end_with(rc);
  } else if (has_length || status == 204 || status == 304) {
    if (const int rc = pass_on(has_length ? length : 0); rc != CURLE_OK) return end_with(rc);
    if (const int rc = flush(); rc != CURLE_OK) return end_with(rc);
  } else {
    // No length: the body runs to the end of the connection.
    keep_alive = false;
    while (true) {
      if (!c.in.empty()) {
        if (on_body && !on_body(c.in)) return end_with(kAborted);
        c.in.clear();
      }
      const int rc = c.read_more(eof);
      if (rc != CURLE_OK) return fail(rc);
      if (eof) break;
    }
  }
  // Bytes beyond the reply mean the server does not speak plain HTTP/1.1 to
  // us: do not reuse the connection.
  return keep_alive && c.in.empty() ? Outcome::keep : Outcome::close;
}

}  // namespace ostrel::base
