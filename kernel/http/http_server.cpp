#include "kernel/http/http_server.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <mutex>

#include "base/env.h"
#include "base/json.h"
#include "base/reply.h"
#include "kernel/http/connection_hub.h"
#include "kernel/http/http_connection.h"

namespace ostrel::kernel {
namespace {

constexpr int kDefaultWorkerThreads = 64;
constexpr int kListenBacklog = 1024;
constexpr size_t kKeepAliveMaxCount = 10000;
constexpr auto kDefaultDrain = std::chrono::seconds(5);

// The connection the current worker is answering: a streamed body flushes the
// held response head through it before its producer starts, so a client sees
// the head even while the first piece is slow to come.
thread_local HttpConnection* t_connection = nullptr;

std::size_t env_size(const char* name, std::size_t fallback) {
  return static_cast<std::size_t>(base::env::integer(name, static_cast<std::int64_t>(fallback), 1));
}

// The library's server, used only to parse requests and write responses on
// connections that the hub hands over.
class ParsingServer : public httplib::Server {
 public:
  ParsingServer() {
    set_keep_alive_max_count(kKeepAliveMaxCount);
    set_keep_alive_timeout(5);
  }
  bool serve_request(HttpConnection& conn, bool close, bool& closed) {
    return process_request(conn, close, closed, nullptr);
  }
  // The library ends streamed bodies when its listening socket is gone; the
  // hub owns the real one, so this only marks the server as live.
  void set_live(bool live) { svr_sock_ = live ? 0 : INVALID_SOCKET; }
};

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

std::optional<std::uint64_t> content_length(const httplib::Request& in) {
  if (!in.has_header("Content-Length")) return std::nullopt;
  const std::string v = in.get_header_value("Content-Length");
  if (v.empty() || v.size() > 19 || !std::all_of(v.begin(), v.end(), ::isdigit)) {
    return std::nullopt;
  }
  return std::strtoull(v.c_str(), nullptr, 10);
}

// Workers waiting on request bodies that have not arrived yet; beyond the
// limit a request is answered 503 at once, so slow bodies never hold every
// worker.
struct BodyReaders {
  std::atomic<std::size_t> active{0};
  std::size_t limit = 48;
};

BodySource body_source(const httplib::Request& in, const httplib::ContentReader& reader,
                       BodyReaders& readers) {
  BodySource body;
  body.length = content_length(in);
  const std::string te = in.get_header_value("Transfer-Encoding");
  body.chunked = te.find("chunked") != std::string::npos;
  body.multipart = in.is_multipart_form_data();
  // A request without Content-Length or chunked framing has no body: it is
  // not read to the end of the connection.
  body.present = body.chunked || in.has_header("Content-Length");
  if (body.length && *body.length == 0 && !body.chunked) body.present = false;
  auto failure = std::make_shared<std::string>();
  body.read = [&reader, &readers, length = body.length,
               failure](const std::function<bool(const char*, std::size_t)>& sink) {
    failure->clear();
    // A body already read in with its head needs no waiting worker.
    const bool waits = t_connection && !(length && t_connection->buffered_bytes() >= *length);
    if (waits && readers.active.fetch_add(1) >= readers.limit) {
      readers.active.fetch_sub(1);
      *failure = "busy";
      return false;
    }
    const bool ok = reader([&sink](const char* data, std::size_t n) { return sink(data, n); });
    if (waits) readers.active.fetch_sub(1);
    if (!ok && t_connection && t_connection->body_too_slow()) *failure = "too_slow";
    return ok;
  };
  body.failure = [failure] { return *failure; };
  return body;
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
        // The library frames each write as a chunk through copies of it: a
        // long piece goes out in slices, so those copies stay small.
        constexpr std::size_t kSlice = 256 * 1024;
        for (std::size_t at = 0; open && at < piece.size(); at += kSlice) {
          open = sink.write(piece.data() + at, std::min(kSlice, piece.size() - at));
        }
        return open;
      });
    } catch (...) {
      // A producer that throws ends its stream; the connection stays usable.
    }
    if (open) sink.done();
    return open;
  });
}

int open_listener(const std::string& bind, std::uint16_t port, std::uint16_t& bound) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* res = nullptr;
  const std::string service = std::to_string(port);
  if (::getaddrinfo(bind.empty() ? nullptr : bind.c_str(), service.c_str(), &hints, &res) != 0) {
    return -1;
  }
  int fd = -1;
  for (addrinfo* ai = res; ai && fd < 0; ai = ai->ai_next) {
    fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
    if (fd < 0) continue;
    int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (::bind(fd, ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(fd, kListenBacklog) != 0) {
      ::close(fd);
      fd = -1;
    }
  }
  ::freeaddrinfo(res);
  if (fd < 0) return -1;
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  bound = ntohs(addr.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(addr).sin6_port
                                           : reinterpret_cast<sockaddr_in&>(addr).sin_port);
  return fd;
}

// Room for every connection the node may hold, below the descriptor limit.
std::size_t default_max_connections() {
  rlimit lim{};
  std::size_t fds = 1024;
  if (::getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur != RLIM_INFINITY) fds = lim.rlim_cur;
  return std::clamp<std::size_t>(fds > 256 ? fds - 128 : fds / 2, 16, 8192);
}

}  // namespace

struct HttpServer::Impl {
  Dispatch dispatch;
  BodyReaders body_readers;
  HttpConnection::Timeouts timeouts;
  int worker_threads = kDefaultWorkerThreads;
  std::chrono::milliseconds drain = kDefaultDrain;
  std::function<void()> on_deadline;
  std::unique_ptr<ParsingServer> parser;
  std::unique_ptr<ConnectionHub> hub;
  std::atomic<std::uint16_t> port{0};
  mutable std::mutex lifecycle_mu;  // serialises start() and stop(); guards hub

  ConnectionHub::Outcome serve(ConnectionHub::Job& job);
  void install_handlers();
};

ConnectionHub::Outcome HttpServer::Impl::serve(ConnectionHub::Job& job) {
  using Outcome = ConnectionHub::Outcome;
  using Wait = HttpConnection::Wait;
  HttpConnection conn(job.fd, timeouts, std::move(job.buffered));
  struct Current {
    explicit Current(HttpConnection* c) { t_connection = c; }
    ~Current() { t_connection = nullptr; }
  } current(&conn);
  for (size_t left = kKeepAliveMaxCount; left > 0; --left) {
    bool closed = false;
    conn.begin_request();
    bool ok = parser->serve_request(conn, left == 1 || hub->stopping(), closed);
    ok = conn.flush() && ok;
    hub->request_finished();
    if (!ok || closed || conn.closing() || hub->stopping()) return Outcome::close;
    if (conn.head_buffered()) continue;  // pipelined
    if (job.probe_lane) {
      job.buffered = conn.take_unread();
      return Outcome::park;
    }
    // Keep the thread for a client that sends its next request at once,
    // unless a connection waits for a worker.
    const auto deadline = std::chrono::steady_clock::now() + hub->limits().linger;
    for (;;) {
      Wait w = conn.wait_readable(deadline, hub->stop_fd(), hub->busy_fd());
      if (w == Wait::woken) return Outcome::close;
      if (w != Wait::request) {
        job.buffered = conn.take_unread();
        return Outcome::park;
      }
      if (!conn.fill_available()) return Outcome::close;
      if (conn.head_buffered()) break;
    }
  }
  return Outcome::close;
}

void HttpServer::Impl::install_handlers() {
  Dispatch* d = &dispatch;
  auto handler = [d](const httplib::Request& in, httplib::Response& out) {
    Request req = to_request(in);
    Response res;
    (*d)(req, res, nullptr);
    write_response(res, out);
  };
  // Methods that may carry a body take it through a reader, so the gateway
  // decides whether and how much of it to read.
  BodyReaders* readers = &body_readers;
  auto with_body = [d, readers](const httplib::Request& in, httplib::Response& out,
                                const httplib::ContentReader& reader) {
    Request req = to_request(in);
    BodySource body = body_source(in, reader, *readers);
    Response res;
    (*d)(req, res, &body);
    write_response(res, out);
  };
  const char* kAll = ".*";
  parser->Get(kAll, handler);
  parser->Options(kAll, handler);
  parser->Post(kAll, with_body);
  parser->Put(kAll, with_body);
  parser->Patch(kAll, with_body);
  parser->Delete(kAll, with_body);
  // Bodies are bounded per route by the gateway.
  parser->set_payload_max_length(std::numeric_limits<std::size_t>::max());

  // Errors the library answers itself (a malformed request line) still get a
  // JSON body, and the connection is closed: what follows cannot be trusted
  // to start a request.
  parser->set_error_handler([](const httplib::Request&, httplib::Response& out) {
    if (!out.body.empty()) return;  // the gateway's own answer
    if (out.status == 400 || out.status == 413 || out.status == 414) {
      out.set_header("Connection", "close");
    }
    const char* code = out.status == 413   ? "payload_too_large"
                       : out.status == 414 ? "uri_too_long"
                       : out.status == 404 ? "not_found"
                                           : "bad_request";
    out.set_content(base::dump_json(base::error_body(code)), "application/json");
  });
  parser->set_exception_handler(
      [](const httplib::Request&, httplib::Response& out, std::exception_ptr) {
        out.status = 500;
        out.set_content(base::dump_json(base::error_body("internal")), "application/json");
      });
}

HttpServer::HttpServer(Dispatch dispatch) : impl_(std::make_unique<Impl>()) {
  impl_->dispatch = std::move(dispatch);
}

HttpServer::~HttpServer() { stop(); }

void HttpServer::set_worker_threads(int threads) {
  impl_->worker_threads = threads > 0 ? threads : kDefaultWorkerThreads;
}

void HttpServer::set_drain(std::chrono::milliseconds drain, std::function<void()> on_deadline) {
  std::lock_guard lock(impl_->lifecycle_mu);
  impl_->drain = drain;
  impl_->on_deadline = std::move(on_deadline);
}

bool HttpServer::start(const std::string& bind, std::uint16_t port) {
  std::lock_guard lock(impl_->lifecycle_mu);
  if (impl_->hub) return false;
  std::uint16_t bound = 0;
  int fd = open_listener(bind, port, bound);
  if (fd < 0) return false;
  if (!impl_->parser) {
    impl_->parser = std::make_unique<ParsingServer>();
    impl_->install_handlers();
  }
  ConnectionHub::Limits limits;
  limits.workers = static_cast<std::size_t>(impl_->worker_threads);
  limits.max_connections = env_size("OSTREL_ULVO_HTTP_MAX_CONNECTIONS", default_max_connections());
  limits.max_per_client = env_size("OSTREL_ULVO_HTTP_MAX_CONN_PER_CLIENT", 512);
  limits.head_timeout = std::chrono::seconds(env_size("OSTREL_ULVO_HTTP_HEAD_TIMEOUT_S", 10));
  // Bodies: a pace they must keep, and a share of the workers they may hold
  // while they come (the rest stay for requests that are ready).
  impl_->timeouts.body_grace = std::chrono::seconds(env_size("OSTREL_ULVO_HTTP_BODY_GRACE_S", 10));
  impl_->timeouts.body_min_rate = env_size("OSTREL_ULVO_HTTP_BODY_MIN_RATE", 16 * 1024);
  impl_->body_readers.limit = std::max<std::size_t>(1, limits.workers * 3 / 4);
  Impl* impl = impl_.get();
  auto hub = std::make_unique<ConnectionHub>(
      limits, [impl](ConnectionHub::Job& job) { return impl->serve(job); });
  impl_->hub = std::move(hub);
  if (!impl_->hub->start(fd)) {
    impl_->hub.reset();
    ::close(fd);
    return false;
  }
  impl_->parser->set_live(true);
  impl_->port = bound;
  return true;
}

void HttpServer::stop() {
  std::unique_ptr<ConnectionHub> hub;
  std::chrono::milliseconds drain;
  std::function<void()> on_deadline;
  {
    std::lock_guard lock(impl_->lifecycle_mu);
    if (!impl_->hub) return;
    drain = impl_->drain;
    on_deadline = impl_->on_deadline;
  }
  // Not under lifecycle_mu: the workers finishing their requests may ask
  // running() meanwhile.
  impl_->hub->stop(drain, on_deadline);
  std::lock_guard lock(impl_->lifecycle_mu);
  hub = std::move(impl_->hub);
}

std::uint16_t HttpServer::port() const { return impl_->port; }

bool HttpServer::running() const {
  std::lock_guard lock(impl_->lifecycle_mu);
  return impl_->hub != nullptr && !impl_->hub->stopping();
}

std::uint64_t HttpServer::requests_finished() const {
  std::lock_guard lock(impl_->lifecycle_mu);
  return impl_->hub ? impl_->hub->requests_finished() : 0;
}

std::size_t HttpServer::open_connections() const {
  std::lock_guard lock(impl_->lifecycle_mu);
  return impl_->hub ? impl_->hub->open_connections() : 0;
}

}  // namespace ostrel::kernel
