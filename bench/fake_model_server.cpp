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

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <port> [pieces]\n", argv[0]);
    return 2;
  }
  const int port = std::atoi(argv[1]);
  const int pieces = argc > 2 ? std::atoi(argv[2]) : 8;
  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(64); };
  server.set_tcp_nodelay(true);
  server.set_socket_options([](socket_t fd) {
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  });
  server.set_keep_alive_max_count(100000);
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
  static httplib::Server* instance = &server;
  std::signal(SIGTERM, [](int) { instance->stop(); });
  std::signal(SIGINT, [](int) { instance->stop(); });
  return server.listen("127.0.0.1", port) ? 0 : 1;
}
