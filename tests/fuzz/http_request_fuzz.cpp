// Bytes a client sends, through the node's real front door: the HTTP
// server's connection reader and request-head parser, the gateway's dispatch
// (credential and source headers included) and a route that reads a JSON
// body, over a loopback connection. The client half-closes after its bytes;
// the server must answer or close, never crash or hang.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "base/reply.h"
#include "kernel/http/api_gateway.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ostrel::kernel::ApiGateway;

ApiGateway& gateway() {
  static ApiGateway* gw = [] {
    auto* g = new ApiGateway();
    g->set_worker_threads(4);
    g->set_auth_mode(ostrel::kernel::AuthMode::enforce);
    // One credential is good, so bodies get past the credential check.
    g->set_auth_verifier([](const std::string& token) {
      ostrel::kernel::AuthResult r;
      r.valid = token == "fuzz-token";
      if (r.valid) r.scopes = {"*"};
      return r;
    });
    g->route("POST", "/echo",
             [](const ostrel::kernel::Request& req, ostrel::kernel::Response& res) {
               nlohmann::json body;
               if (!ostrel::base::parse_object_body(req, res, body)) return;
               ostrel::base::reply(res, {{"keys", body.size()}, {"query", req.param("q")}});
             });
    ostrel::kernel::RouteOptions open;
    open.public_path = true;
    g->route(
        "GET", "/open/*",
        [](const ostrel::kernel::Request& req, ostrel::kernel::Response& res) {
          ostrel::base::reply(res, {{"path", req.path}});
        },
        open);
    if (!g->start("127.0.0.1", 0)) std::abort();
    return g;
  }();
  return *gw;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ApiGateway& gw = gateway();
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(gw.port());
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) std::abort();
  std::size_t sent = 0;
  while (sent < size) {
    const ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
    if (n <= 0) break;  // the server closed early: fine
    sent += static_cast<std::size_t>(n);
  }
  ::shutdown(fd, SHUT_WR);
  // The server answers and closes; it must not keep a half-closed client
  // waiting past its own request-head limit.
  char buf[4096];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 40000) <= 0) std::abort();
    if (::recv(fd, buf, sizeof buf, 0) <= 0) break;
  }
  ::close(fd);
  return 0;
}
