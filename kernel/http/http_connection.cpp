#include "kernel/http/http_connection.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace ostrel::kernel {
namespace {

int to_poll_ms(std::chrono::microseconds t) {
  auto ms = (t.count() + 999) / 1000;  // never round a short wait down to a busy poll
  return ms > 0x7fffffff ? 0x7fffffff : static_cast<int>(ms);
}

void numeric_address(const sockaddr_storage& addr, socklen_t len, std::string& ip, int& port) {
  char host[NI_MAXHOST];
  char serv[NI_MAXSERV];
  if (::getnameinfo(reinterpret_cast<const sockaddr*>(&addr), len, host, sizeof host, serv,
                    sizeof serv, NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
    ip = host;
    port = std::atoi(serv);
  }
}

}  // namespace

HttpConnection::HttpConnection(int fd, Timeouts timeouts, std::string buffered)
    : fd_(fd), timeouts_(timeouts), in_(new char[kReadBuffer]), preread_(std::move(buffered)) {}

HttpConnection::Wait HttpConnection::wait_for_request(
    std::chrono::steady_clock::time_point deadline, int wake_fd, int yield_fd) {
  if (in_begin_ < in_end_ || preread_pos_ < preread_.size()) return Wait::request;
  return wait_readable(deadline, wake_fd, yield_fd);
}

HttpConnection::Wait HttpConnection::wait_readable(std::chrono::steady_clock::time_point deadline,
                                                   int wake_fd, int yield_fd) {
  // poll ignores the entries whose fd is negative.
  pollfd fds[3] = {{fd_, POLLIN, 0}, {wake_fd, POLLIN, 0}, {yield_fd, POLLIN, 0}};
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return Wait::ended;
    int n = ::poll(fds, 3, to_poll_ms(left));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return Wait::ended;
    // Readable, or closed / failed: the read that follows tells which.
    if (fds[0].revents != 0) return Wait::request;
    if (fds[1].revents != 0) return Wait::woken;
    return Wait::yield_fd;
  }
}

bool HttpConnection::wait_(short events, std::chrono::microseconds timeout) const {
  pollfd p{fd_, events, 0};
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline - std::chrono::steady_clock::now());
    int n = ::poll(&p, 1, left.count() > 0 ? to_poll_ms(left) : 0);
    if (n < 0 && errno == EINTR) continue;
    return n > 0;
  }
}

bool HttpConnection::is_readable() const {
  return in_begin_ < in_end_ || preread_pos_ < preread_.size() || wait_(POLLIN, timeouts_.read);
}

bool HttpConnection::fill_available() {
  // Move what was handed over into the read buffer first, so that one
  // buffer holds everything unconsumed.
  if (preread_pos_ < preread_.size()) {
    std::string rest = take_unread();
    if (rest.size() > kReadBuffer) return false;  // cannot happen: heads are bounded
    std::memcpy(in_.get(), rest.data(), rest.size());
    in_begin_ = 0;
    in_end_ = rest.size();
  } else if (in_begin_ > 0) {
    std::memmove(in_.get(), in_.get() + in_begin_, in_end_ - in_begin_);
    in_end_ -= in_begin_;
    in_begin_ = 0;
  }
  while (in_end_ < kReadBuffer) {
    ssize_t n = ::recv(fd_, in_.get() + in_end_, kReadBuffer - in_end_, MSG_DONTWAIT);
    if (n > 0) {
      in_end_ += static_cast<size_t>(n);
      continue;
    }
    if (n == 0) return false;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK;
  }
  return true;
}

bool HttpConnection::head_buffered() const {
  auto has_end = [](std::string_view b) {
    return b.find("\n\r\n") != std::string_view::npos || b.find("\n\n") != std::string_view::npos;
  };
  if (preread_pos_ < preread_.size()) {
    return has_end(std::string_view(preread_).substr(preread_pos_));
  }
  return has_end(std::string_view(in_.get() + in_begin_, in_end_ - in_begin_));
}

std::string HttpConnection::take_unread() {
  std::string out;
  if (preread_pos_ < preread_.size()) out.assign(preread_, preread_pos_);
  preread_.clear();
  preread_pos_ = 0;
  out.append(in_.get() + in_begin_, in_end_ - in_begin_);
  in_begin_ = in_end_ = 0;
  return out;
}

bool HttpConnection::is_writable() const {
  return flush() && wait_(POLLOUT, timeouts_.write) && !peer_closed_();
}

// A client that went away shows as end-of-stream or an error on a peek. Bytes
// it sent ahead (a pipelined request) mean it is still there.
bool HttpConnection::peer_closed_() const {
  char c;
  for (;;) {
    ssize_t n = ::recv(fd_, &c, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0) return false;
    if (n == 0) return true;
    if (errno == EINTR) continue;
    return errno != EAGAIN && errno != EWOULDBLOCK;
  }
}

ssize_t HttpConnection::recv_(char* ptr, size_t size) {
  for (;;) {
    ssize_t n = ::recv(fd_, ptr, size, MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    auto timeout = timeouts_.read;
    if (in_request_head_ && head_bytes_ > 0) {
      auto left = std::chrono::duration_cast<std::chrono::microseconds>(
          head_deadline_ - std::chrono::steady_clock::now());
      if (left.count() <= 0) return -1;
      timeout = std::min(timeout, left);
    }
    if (in_body_ && timeouts_.body_min_rate > 0) {
      // The next byte is due by the time the body's pace allows.
      const auto due = body_start_ + timeouts_.body_grace +
                       std::chrono::microseconds(body_bytes_ * 1000000 / timeouts_.body_min_rate);
      auto left = std::chrono::duration_cast<std::chrono::microseconds>(
          due - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        body_too_slow_ = true;
        return -1;
      }
      timeout = std::min(timeout, left);
    }
    if (!wait_(POLLIN, timeout)) {
      if (in_body_ && timeouts_.body_min_rate > 0 && timeout < timeouts_.read) {
        body_too_slow_ = true;
      }
      return -1;
    }
  }
}

ssize_t HttpConnection::read(char* ptr, size_t size) {
  if (in_body_) {
    const ssize_t n = read_bytes_(ptr, size);
    if (n > 0) body_bytes_ += static_cast<std::uint64_t>(n);
    return n;
  }
  return read_bytes_(ptr, size);
}

ssize_t HttpConnection::read_bytes_(char* ptr, size_t size) {
  if (preread_pos_ < preread_.size()) {
    size_t n = std::min(size, preread_.size() - preread_pos_);
    if (in_request_head_ && !count_head_(preread_.data() + preread_pos_, n)) return -1;
    std::memcpy(ptr, preread_.data() + preread_pos_, n);
    preread_pos_ += n;
    if (preread_pos_ == preread_.size()) {
      preread_.clear();
      preread_pos_ = 0;
    }
    return static_cast<ssize_t>(n);
  }
  if (in_begin_ == in_end_) {
    // The client may be waiting for what is held (an interim "100 Continue").
    if (!flush()) return -1;
    if (size >= kReadBuffer && !in_request_head_) return recv_(ptr, size);
    ssize_t n = recv_(in_.get(), kReadBuffer);
    if (n <= 0) return n;
    in_begin_ = 0;
    in_end_ = static_cast<size_t>(n);
  }
  size_t n = std::min(size, in_end_ - in_begin_);
  if (in_request_head_ && !count_head_(in_.get() + in_begin_, n)) return -1;
  std::memcpy(ptr, in_.get() + in_begin_, n);
  in_begin_ += n;
  if (in_begin_ == in_end_) in_begin_ = in_end_ = 0;
  return static_cast<ssize_t>(n);
}

// Counts bytes handed out as the request head until the blank line that ends
// it; false when the head grows past its bound.
bool HttpConnection::count_head_(const char* ptr, size_t n) {
  constexpr std::uint32_t kEnd = 0x0d0a0d0a;  // "\r\n\r\n"
  if (head_bytes_ == 0 && n > 0) {
    head_deadline_ = std::chrono::steady_clock::now() + timeouts_.request_head;
  }
  for (size_t i = 0; i < n; ++i) {
    head_tail_ = (head_tail_ << 8) | static_cast<unsigned char>(ptr[i]);
    if (head_tail_ == kEnd) {
      in_request_head_ = false;
      in_body_ = true;
      body_start_ = std::chrono::steady_clock::now();
      body_bytes_ = 0;
      body_too_slow_ = false;
      return true;
    }
  }
  head_bytes_ += n;
  return head_bytes_ <= kMaxRequestHead;
}

ssize_t HttpConnection::write(const char* ptr, size_t size) {
  if (failed_) return -1;
  // An interim answer ("100 Continue") leaves at once: the client waits for
  // it before it sends the body. It is not the response head.
  if (next_write_is_head_ && size >= 10 && std::string_view(ptr, 10) == "HTTP/1.1 1") {
    return send_all_(ptr, size, nullptr, 0) ? static_cast<ssize_t>(size) : -1;
  }
  if (next_write_is_head_) {
    next_write_is_head_ = false;
    closing_ = std::string_view(ptr, size).find("\r\nConnection: close\r\n") != std::string::npos;
  }
  if (hold_next_write_ && pending_.empty()) {
    hold_next_write_ = false;
    pending_.assign(ptr, size);
    return static_cast<ssize_t>(size);
  }
  // Writes after the head belong to a streamed body: stop as soon as the
  // client has gone rather than one write later, when the kernel says so.
  if (pending_.empty() && peer_closed_()) {
    failed_ = true;
    return -1;
  }
  bool ok = send_all_(pending_.data(), pending_.size(), ptr, size);
  pending_.clear();
  return ok ? static_cast<ssize_t>(size) : -1;
}

bool HttpConnection::flush() const {
  if (failed_) return false;
  if (pending_.empty()) return true;
  bool ok = send_all_(pending_.data(), pending_.size(), nullptr, 0);
  pending_.clear();
  return ok;
}

bool HttpConnection::send_all_(const char* a, size_t a_len, const char* b, size_t b_len) const {
  iovec iov[2] = {{const_cast<char*>(a), a_len}, {const_cast<char*>(b), b_len}};
  iovec* next = iov;
  size_t count = 2;
  while (count > 0 && next->iov_len == 0) ++next, --count;
  while (count > 0) {
    msghdr msg{};
    msg.msg_iov = next;
    msg.msg_iovlen = count;
    ssize_t n = ::sendmsg(fd_, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if ((errno == EAGAIN || errno == EWOULDBLOCK) && wait_(POLLOUT, timeouts_.write)) continue;
      failed_ = true;
      return false;
    }
    size_t sent = static_cast<size_t>(n);
    while (count > 0 && sent >= next->iov_len) {
      sent -= next->iov_len;
      ++next, --count;
    }
    if (count > 0) {
      next->iov_base = static_cast<char*>(next->iov_base) + sent;
      next->iov_len -= sent;
    }
  }
  return true;
}

void HttpConnection::resolve_addresses_() const {
  if (addresses_known_) return;
  addresses_known_ = true;
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  if (::getpeername(fd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    numeric_address(addr, len, remote_ip_, remote_port_);
  }
  len = sizeof addr;
  if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    numeric_address(addr, len, local_ip_, local_port_);
  }
}

void HttpConnection::get_remote_ip_and_port(std::string& ip, int& port) const {
  resolve_addresses_();
  ip = remote_ip_;
  port = remote_port_;
}

void HttpConnection::get_local_ip_and_port(std::string& ip, int& port) const {
  resolve_addresses_();
  ip = local_ip_;
  port = local_port_;
}

}  // namespace ostrel::kernel
