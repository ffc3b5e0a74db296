#include "kernel/boot/self_health.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace ostrel::kernel {
namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline) {
  auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

bool wait_for(int fd, short events, Clock::time_point deadline) {
  pollfd p{fd, events, 0};
  int rc;
  do {
    rc = ::poll(&p, 1, remaining_ms(deadline));
  } while (rc < 0 && errno == EINTR);
  return rc > 0 && (p.revents & (events | POLLHUP));
}

bool connect_with_deadline(int fd, const addrinfo* ai, Clock::time_point deadline) {
  if (::connect(fd, ai->ai_addr, ai->ai_addrlen) == 0) return true;
  if (errno != EINPROGRESS) return false;
  if (!wait_for(fd, POLLOUT, deadline)) return false;
  int err = 0;
  socklen_t len = sizeof err;
  return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0;
}

}  // namespace

std::string probe_host_for(const std::string& bind) {
  if (bind.empty() || bind == "0.0.0.0") return "127.0.0.1";
  if (bind == "::" || bind == "[::]") return "::1";
  return bind;
}

bool probe_health(const std::string& host, std::uint16_t port, int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &res) != 0 || !res) {
    return false;
  }
  int fd = ::socket(res->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  bool ok = false;
  if (fd >= 0 && connect_with_deadline(fd, res, deadline)) {
    std::string request = "GET /health HTTP/1.1\r\nHost: " + host +
                          "\r\nConnection: close\r\nUser-Agent: ostrel-self-health\r\n\r\n";
    size_t sent = 0;
    while (sent < request.size() && wait_for(fd, POLLOUT, deadline)) {
      ssize_t n = ::send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    std::string head;
    char buf[256];
    while (sent == request.size() && head.size() < 12 && wait_for(fd, POLLIN, deadline)) {
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n <= 0) break;
      head.append(buf, static_cast<size_t>(n));
    }
    ok = head.size() >= 12 && head.compare(0, 5, "HTTP/") == 0 && head.compare(9, 3, "200") == 0;
  }
  if (fd >= 0) ::close(fd);
  ::freeaddrinfo(res);
  return ok;
}

}  // namespace ostrel::kernel
