#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A loopback server that plays scripted HTTP answers byte by byte, for
// clients whose framing is under test.
namespace ostrel::testing {

using namespace std::chrono_literals;

inline sockaddr_in loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return addr;
}

// A listening socket on a free loopback port; sets `port`.
inline int listen_loopback(int& port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in addr = loopback(0);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  ::listen(fd, 16);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  port = ntohs(addr.sin_port);
  return fd;
}

// A loopback server that answers the n-th request (counted over all
// connections) with answers[n]: its pieces are written one by one with a
// pause between them, so the client sees them in separate reads. After an
// answer marked `close`, the connection is closed. Records every request.
class ScriptedServer {
 public:
  struct Answer {
    std::vector<std::string> pieces;
    bool close = false;
    // Before the last piece, wait until `pieces_read` reaches this count, so
    // that a test can see the earlier pieces delivered on their own.
    int await_reads = 0;
  };
  std::vector<Answer> answers;
  // Called by the test's body sink for each piece it reads; an answer with
  // `await_reads` waits for these before sending its last piece.
  void piece_read() {
    {
      std::lock_guard lock(reads_mu_);
      ++pieces_read_;
    }
    reads_cv_.notify_all();
  }

  ScriptedServer() { listen_fd_ = listen_loopback(port_); }
  ~ScriptedServer() {
    ::shutdown(listen_fd_, SHUT_RDWR);
    ::close(listen_fd_);
    if (thread_.joinable()) thread_.join();
  }
  void start() {
    thread_ = std::thread([this] {
      while (true) {
        int fd = ::accept(listen_fd_, nullptr, nullptr);
        if (fd < 0) return;
        ++connections_;
        serve(fd);
        ::close(fd);
        ++closed_;
      }
    });
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int connections() const { return connections_; }
  // Connections the server has closed.
  int closed() const { return closed_; }
  std::vector<std::string> requests() {
    std::lock_guard lock(mu_);
    return requests_;
  }

 private:
  void serve(int fd) {
    std::string in;
    char buf[4096];
    while (true) {
      std::size_t end;
      while ((end = in.find("\r\n\r\n")) == std::string::npos) {
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return;
        in.append(buf, static_cast<std::size_t>(n));
      }
      std::size_t length = 0;
      if (auto at = in.find("Content-Length: "); at != std::string::npos && at < end) {
        length = std::stoul(in.substr(at + 16));
      }
      while (in.size() < end + 4 + length) {
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return;
        in.append(buf, static_cast<std::size_t>(n));
      }
      std::size_t index;
      {
        std::lock_guard lock(mu_);
        requests_.push_back(in.substr(0, end + 4 + length));
        index = requests_.size() - 1;
      }
      in.erase(0, end + 4 + length);
      if (index >= answers.size()) return;
      const Answer& answer = answers[index];
      for (std::size_t i = 0; i < answer.pieces.size(); ++i) {
        if (i + 1 == answer.pieces.size()) {
          std::unique_lock lock(reads_mu_);
          reads_cv_.wait_for(lock, std::chrono::seconds(5),
                             [&] { return pieces_read_ >= answer.await_reads; });
        }
        ::send(fd, answer.pieces[i].data(), answer.pieces[i].size(), MSG_NOSIGNAL);
      }
      if (answers[index].close) return;
    }
  }

  int listen_fd_ = -1;
  int port_ = 0;
  std::thread thread_;
  std::atomic<int> connections_{0};
  std::atomic<int> closed_{0};
  std::mutex mu_;        // guards requests_
  std::mutex reads_mu_;  // guards pieces_read_
  std::condition_variable reads_cv_;
  int pieces_read_ = 0;
  std::vector<std::string> requests_;
};

}  // namespace ostrel::testing
