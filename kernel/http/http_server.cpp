#include "kernel/http/http_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "kernel/http/connection_pool.h"
#include "kernel/http/http_connection.h"

namespace ostrel::kernel {
namespace {

constexpr int kDefaultWorkerThreads = 64;
constexpr int kListenBacklog = 1024;
constexpr size_t kKeepAliveMaxCount = 10000;
constexpr time_t kKeepAliveTimeoutSec = 5;
constexpr size_t kDefaultMaxBodyMb = 256;
// How long an answered connection must stay quiet before it may give its
// thread to a connection that waits for one.
constexpr std::chrono::milliseconds kIdleBeforeYield{100};

// The connection the current server thread is answering: a streamed body
// flushes the held response head through it before its producer starts, so a
// client sees the head even while the first piece is slow to come.
thread_local HttpConnection* t_connection = nullptr;

// The library's server with its connection loop replaced: one HttpConnection
// per connection for its whole life (pipelined bytes survive, the response head
// leaves with the body, the peer address is looked up once), and idle
// keep-alive connections sleep in one poll that stop() can interrupt instead of
// waking every few milliseconds, and that ends when a new connection needs
// their thread (ConnectionPool).
class ListeningServer : public httplib::Server {
 public:
  explicit ListeningServer(std::size_t threads)
      : wake_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    new_task_queue = [this, threads] {
      auto* pool = new ConnectionPool(threads);
      pool_ = pool;
      return pool;
    };
  }
  ~ListeningServer() override {
    if (wake_fd_ >= 0) ::close(wake_fd_);
  }

  // The listening socket is a protected member of the library's server.
  void raise_backlog(int backlog) {
    socket_t fd = svr_sock_;
    if (fd != INVALID_SOCKET) ::listen(fd, backlog);
  }

  // Ends every connection that is waiting for its next request (the eventfd
  // stays readable), so that stopping does not wait out keep-alive timeouts.
  void wake_idle_connections() {
    if (wake_fd_ < 0) return;
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
  }

 private:
  bool process_and_close_socket(socket_t sock) override {
    using std::chrono::microseconds;
    HttpConnection conn(sock, {microseconds(read_timeout_sec_ * 1000000 + read_timeout_usec_),
                               microseconds(write_timeout_sec_ * 1000000 + write_timeout_usec_)});
    struct Current {
      explicit Current(HttpConnection* c) { t_connection = c; }
      ~Current() { t_connection = nullptr; }
    } current(&conn);
    bool ok = false;
    // Jobs run only while the listen loop owns the pool.
    ConnectionPool* pool = pool_;
    for (size_t left = keep_alive_max_count_; left > 0 && svr_sock_ != INVALID_SOCKET; --left) {
      if (!wait_for_request_(conn, pool, left < keep_alive_max_count_)) break;
      bool closed = false;
      conn.begin_request();
      ok = process_request(conn, left == 1, closed, nullptr);
      ok = conn.flush() && ok;
      if (!ok || closed || conn.closing()) break;
    }
    ::shutdown(sock, SHUT_RDWR);
    ::close(sock);
    return ok;
  }

  // Waits for the connection's next request. One that has been answered and
  // then stayed quiet for kIdleBeforeYield may hand its thread to a waiting
  // connection; a busy client (requests back to back) keeps its thread, and a
  // new connection keeps it until its first request is served.
  bool wait_for_request_(HttpConnection& conn, ConnectionPool* pool, bool may_yield) {
    using Wait = HttpConnection::Wait;
    const auto now = std::chrono::steady_clock::now();
    const auto deadline = now + std::chrono::seconds(keep_alive_timeout_sec_);
    if (may_yield && pool && pool->yield_fd() >= 0) {
      auto quiet_until = std::min(deadline, now + kIdleBeforeYield);
      switch (conn.wait_for_request(quiet_until, wake_fd_, -1)) {
        case Wait::request:
          return true;
        case Wait::woken:
          return false;
        default:
          break;  // quiet so far
      }
      for (;;) {
        switch (conn.wait_for_request(deadline, wake_fd_, pool->yield_fd())) {
          case Wait::request:
            return true;
          case Wait::ended:
          case Wait::woken:
            return false;
          case Wait::yield_fd:
            if (pool->claim_yield()) return false;
            break;  // another connection yielded: keep waiting
        }
      }
    }
    return conn.wait_for_request(deadline, wake_fd_, -1) == Wait::request;
  }

  const int wake_fd_;
  std::atomic<ConnectionPool*> pool_{nullptr};  // set when the listen loop makes its pool
};

void socket_options(socket_t fd) {
  int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
}

size_t max_body_bytes() {
  const char* v = std::getenv("OSTREL_ULVO_HTTP_MAX_BODY_MB");
  size_t mb = kDefaultMaxBodyMb;
  if (v && *v) {
    char* end = nullptr;
    unsigned long n = std::strtoul(v, &end, 10);
    if (end != v && n > 0) mb = n;
  }
  return mb * 1024 * 1024;
}

Request to_request(const httplib::Request& in) {
  Request req;
  req.method = in.method;
  req.path = in.path;
  req.body = in.body;
  req.client_addr = in.remote_addr;
  for (const auto& [name, value] : in.headers) {
    // The library adds the peer and local addresses as pseudo-headers.
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
        name == "LOCAL_PORT") {
      continue;
    }
    auto [it, inserted] = req.headers.try_emplace(name, value);
    if (!inserted) it->second += ", " + value;
  }
  for (const auto& [name, value] : in.params) req.params.try_emplace(name, value);
  return req;
}

constexpr std::string_view kLastEvent = "data: [DONE]\n\n";

void write_response(Response& res, httplib::Response& out) {
  out.status = res.status;
  for (const auto& [name, value] : res.headers) out.set_header(name, value);
  if (!res.stream) {
    out.set_content(std::move(res.body), res.content_type);
    return;
  }
  auto producer = std::make_shared<StreamProducer>(std::move(res.stream));
  out.set_chunked_content_provider(res.content_type, [producer](size_t, httplib::DataSink& sink) {
    bool open = t_connection == nullptr || t_connection->flush();
    try {
      (*producer)([&](std::string_view piece) {
        if (!open) return false;
        if (piece.empty()) return true;
        // An event stream's closing event is its last piece: it leaves with
        // the end of the chunked body instead of a write of its own. (Were
        // the producer to write more, it would simply leave with that.)
        if (t_connection && piece.ends_with(kLastEvent)) t_connection->hold_next_write();
        open = sink.write(piece.data(), piece.size());
        return open;
      });
    } catch (...) {
      // A producer that throws ends its stream; the connection stays usable.
    }
    if (open) sink.done();
    return open;
  });
}

}  // namespace

struct HttpServer::Impl {
  Dispatch dispatch;
  int worker_threads = kDefaultWorkerThreads;
  std::unique_ptr<ListeningServer> server;
  std::thread listen_thread;
  std::atomic<std::uint16_t> port{0};
  std::atomic<bool> loop_done{false};  // set when the listen loop has returned
  std::mutex lifecycle_mu;             // serialises start() and stop()
};

HttpServer::HttpServer(Dispatch dispatch) : impl_(std::make_unique<Impl>()) {
  impl_->dispatch = std::move(dispatch);
}

HttpServer::~HttpServer() { stop(); }

void HttpServer::set_worker_threads(int threads) {
  impl_->worker_threads = threads > 0 ? threads : kDefaultWorkerThreads;
}

bool HttpServer::start(const std::string& bind, std::uint16_t port) {
  std::lock_guard lock(impl_->lifecycle_mu);
  if (impl_->server) return false;
  auto server = std::make_unique<ListeningServer>(static_cast<std::size_t>(impl_->worker_threads));
  server->set_tcp_nodelay(true);
  server->set_socket_options(socket_options);
  server->set_keep_alive_max_count(kKeepAliveMaxCount);
  server->set_keep_alive_timeout(kKeepAliveTimeoutSec);
  server->set_payload_max_length(max_body_bytes());

  Dispatch* dispatch = &impl_->dispatch;
  auto handler = [dispatch](const httplib::Request& in, httplib::Response& out) {
    Request req = to_request(in);
    Response res;
    (*dispatch)(req, res);
    write_response(res, out);
  };
  const char* kAll = ".*";
  server->Get(kAll, handler);
  server->Post(kAll, handler);
  server->Put(kAll, handler);
  server->Patch(kAll, handler);
  server->Delete(kAll, handler);
  server->Options(kAll, handler);

  // Errors the library answers itself (malformed request, body too large)
  // still get a JSON body. After those the bytes on the connection cannot be
  // trusted to start a request (an unread body), so it is closed.
  server->set_error_handler([](const httplib::Request&, httplib::Response& out) {
    if (!out.body.empty()) return;  // the gateway's own answer
    if (out.status == 400 || out.status == 413 || out.status == 414) {
      out.set_header("Connection", "close");
    }
    const char* code = out.status == 413   ? "payload_too_large"
                       : out.status == 414 ? "uri_too_long"
                       : out.status == 404 ? "not_found"
                                           : "bad_request";
    out.set_content(std::string("{\"error\":\"") + code + "\"}", "application/json");
  });
  server->set_exception_handler(
      [](const httplib::Request&, httplib::Response& out, std::exception_ptr) {
        out.status = 500;
        out.set_content("{\"error\":\"internal\"}", "application/json");
      });

  int bound = 0;
  if (port == 0) {
    bound = server->bind_to_any_port(bind);
    if (bound <= 0) return false;
  } else {
    if (!server->bind_to_port(bind, port)) return false;
    bound = port;
  }
  server->raise_backlog(kListenBacklog);
  impl_->port = static_cast<std::uint16_t>(bound);
  ListeningServer* raw = server.get();
  impl_->server = std::move(server);
  impl_->loop_done = false;
  impl_->listen_thread = std::thread([this, raw] {
    raw->listen_after_bind();
    impl_->loop_done = true;
  });
  // stop() only interrupts a loop that is already running; wait for it so that
  // a stop right after start cannot miss it and leave the join hanging.
  while (!raw->is_running() && !impl_->loop_done) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  if (impl_->loop_done) {
    impl_->listen_thread.join();
    impl_->server.reset();
    return false;
  }
  return true;
}

void HttpServer::stop() {
  std::lock_guard lock(impl_->lifecycle_mu);
  if (!impl_->server) return;
  impl_->server->wake_idle_connections();
  impl_->server->stop();
  if (impl_->listen_thread.joinable()) impl_->listen_thread.join();
  impl_->server.reset();
}

std::uint16_t HttpServer::port() const { return impl_->port; }

bool HttpServer::running() const {
  std::lock_guard lock(impl_->lifecycle_mu);
  return impl_->server != nullptr;
}

}  // namespace ostrel::kernel
