// A minimal Ollama-protocol model server for benchmarks: answers /api/chat at
// once (whole, or as NDJSON pieces when "stream" is true) and /api/tags.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <httplib.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

// The listening socket is protected in httplib::Server; raising its backlog
// keeps a burst of new connections from overflowing the default of 5 (the
// dropped SYNs would come back a second later as latency outliers).
class Server : public httplib::Server {
 public:
  void raise_backlog(int backlog) {
    if (svr_sock_ != INVALID_SOCKET) ::listen(svr_sock_, backlog);
  }
};

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <port> [pieces]\n", argv[0]);
    return 2;
  }
  const int port = std::atoi(argv[1]);
  const int pieces = argc > 2 ? std::atoi(argv[2]) : 8;
  Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(64); };
  server.set_tcp_nodelay(true);
  server.set_socket_options([](socket_t fd) {
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  });
  server.set_keep_alive_max_count(100000);
  // Model servers keep idle connections open for long (Ollama has no idle
  // timeout): so does this one, so that a client's pooled connections last.
  server.set_keep_alive_timeout(300);
  server.Get("/api/tags", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(R"({"models":[{"name":"bench"}]})", "application/json");
  });
  server.Post("/api/chat", [pieces](const httplib::Request& req, httplib::Response& res) {
    if (req.body.find("\"stream\":true") == std::string::npos) {
      res.set_content(
          R"({"model":"bench","message":{"role":"assistant","content":"the quick brown fox jumps over the lazy dog"},"done":true,"done_reason":"stop","prompt_eval_count":5,"eval_count":9})",
          "application/json");
      return;
    }
    res.set_chunked_content_provider(
        "application/x-ndjson", [pieces](size_t, httplib::DataSink& sink) {
          for (int i = 0; i < pieces; ++i) {
            std::string line =
                R"({"model":"bench","message":{"role":"assistant","content":"word "},"done":false})"
                "\n";
            if (!sink.write(line.data(), line.size())) return false;
          }
          std::string last = R"({"model":"bench","done":true,"done_reason":"stop"})"
                             "\n";
          sink.write(last.data(), last.size());
          sink.done();
          return true;
        });
  });
  static Server* instance = &server;
  std::signal(SIGTERM, [](int) { instance->stop(); });
  std::signal(SIGINT, [](int) { instance->stop(); });
  if (!server.bind_to_port("127.0.0.1", port)) return 1;
  server.raise_backlog(1024);
  return server.listen_after_bind() ? 0 : 1;
}
