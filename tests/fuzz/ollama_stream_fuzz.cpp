// What a model server answers, byte for byte (status line, headers, chunked
// or sized body, NDJSON lines), read by the Ollama backend's client: the
// upstream HTTP reader and the stream parser, streamed and whole. A loopback
// server thread plays the model server and sends the input as its answer.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "inference/ollama_backend.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// Accepts one connection per input, reads the request head and answers with
// the current input, then closes.
class FakeServer {
 public:
  FakeServer() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd_, 16) != 0)
      std::abort();
    socklen_t len = sizeof addr;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve_(); });
    thread_.detach();  // lives as long as the fuzzing process
  }
  int port() const { return port_; }
  void set_answer(std::string_view bytes) {
    std::lock_guard lock(mu_);
    answer_.assign(bytes);
  }

 private:
  void serve_() {
    for (;;) {
      const int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      std::string head;
      char buf[4096];
      while (head.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = ::recv(c, buf, sizeof buf, 0);
        if (n <= 0) break;
        head.append(buf, static_cast<std::size_t>(n));
      }
      std::string answer;
      {
        std::lock_guard lock(mu_);
        answer = answer_;
      }
      ::send(c, answer.data(), answer.size(), MSG_NOSIGNAL);
      ::shutdown(c, SHUT_RDWR);
      ::close(c);
    }
  }

  int fd_ = -1;
  int port_ = 0;
  std::mutex mu_;  // guards answer_
  std::string answer_;
  std::thread thread_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FakeServer server;
  static ostrel::inference::OllamaBackend backend(
      "fuzz", "http://127.0.0.1:" + std::to_string(server.port()));
  if (size == 0) return 0;
  const bool stream = data[0] & 1;
  server.set_answer(ostrel::fuzz::as_text(data + 1, size - 1));
  ostrel::inference::ChatRequest req;
  req.model = "m";
  ostrel::inference::Message m;
  m.content = "hi";
  req.messages.push_back(m);
  if (stream) {
    backend.stream(req, [](const ostrel::inference::ChatChunk&) { return true; });
  } else {
    ostrel::inference::ChatResponse resp;
    backend.complete(req, resp);
  }
  return 0;
}
