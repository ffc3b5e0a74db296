// Baseline for the gateway benchmark: cpp-httplib on its own, tuned the same
// way the node tunes it (TCP_NODELAY, same worker pool and keep-alive limits),
// answering GET /health with a body of the same size class.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <httplib.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <port> [threads]\n", argv[0]);
    return 2;
  }
  int port = std::atoi(argv[1]);
  int threads = argc > 2 ? std::atoi(argv[2]) : 64;
  httplib::Server server;
  server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  server.set_tcp_nodelay(true);
  server.set_socket_options([](socket_t fd) {
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  });
  server.set_keep_alive_max_count(10000);
  server.Get("/health", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(
        "{\"auth\":\"off\",\"module_count\":0,\"modules\":[],\"node_id\":\"node-1\","
        "\"status\":\"ok\",\"uptime_s\":1,\"version\":\"5.0.0\"}",
        "application/json");
  });
  static httplib::Server* instance = &server;
  std::signal(SIGTERM, [](int) { instance->stop(); });
  std::signal(SIGINT, [](int) { instance->stop(); });
  return server.listen("127.0.0.1", port) ? 0 : 1;
}
