// The cheapest relay of a whole-answer chat request this machine can run with
// one thread per client connection, for comparison with the node: raw
// sockets, blocking reads, one kept-alive upstream connection per client, the
// client's body passed on unread, no JSON, no sessions, no logging, nothing
// but Content-Length framing. What it costs per request is the floor of any
// gateway built the same way (the node serves HTTP with cpp-httplib, which
// takes one thread per connection).
//   min_relay <listen port> <model server port>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

int upstream_port = 0;

void no_delay(int fd) {
  int yes = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
}

int connect_upstream() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  no_delay(fd);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(upstream_port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool send_all(int fd, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

// One message (head and Content-Length body) from `fd`, read through `buf`
// (which keeps what follows it): head and body apart. False at the end.
bool read_message(int fd, std::string& buf, std::string& head, std::string& body) {
  for (;;) {
    size_t end = buf.find("\r\n\r\n");
    if (end != std::string::npos) {
      size_t length = 0;
      for (size_t at = buf.find("\r\n"); at < end; at = buf.find("\r\n", at + 2)) {
        if (::strncasecmp(buf.c_str() + at + 2, "content-length:", 15) == 0) {
          length = std::strtoul(buf.c_str() + at + 17, nullptr, 10);
        }
      }
      if (buf.size() >= end + 4 + length) {
        head.assign(buf, 0, end + 4);
        body.assign(buf, end + 4, length);
        buf.erase(0, end + 4 + length);
        return true;
      }
    }
    char chunk[16384];
    ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    buf.append(chunk, static_cast<size_t>(n));
  }
}

void relay(int client) {
  int upstream = connect_upstream();
  std::string from_client, from_upstream, head, body;
  while (upstream >= 0 && read_message(client, from_client, head, body)) {
    std::string request =
        "POST /api/chat HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
        "Content-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body;
    if (!send_all(upstream, request) || !read_message(upstream, from_upstream, head, body)) break;
    std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                         std::to_string(body.size()) + "\r\n\r\n" + body;
    if (!send_all(client, answer)) break;
  }
  if (upstream >= 0) ::close(upstream);
  ::close(client);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <listen port> <model server port>\n", argv[0]);
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  upstream_port = std::atoi(argv[2]);
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  int yes = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listener, 1024) != 0) {
    std::perror("min_relay: listen");
    return 1;
  }
  for (;;) {
    int client = ::accept(listener, nullptr, nullptr);
    if (client < 0) continue;
    no_delay(client);
    std::thread(relay, client).detach();  // ends with its connection
  }
}
