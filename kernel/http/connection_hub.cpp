#include "kernel/http/connection_hub.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace ostrel::kernel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kSweepPeriod = std::chrono::milliseconds(100);

constexpr const char* kTimeout =
    "HTTP/1.1 408 Request Timeout\r\nContent-Type: application/json\r\nContent-Length: "
    "28\r\nConnection: close\r\n\r\n{\"error\":\"request_timeout\"}\n";
constexpr const char* kUriTooLong =
    "HTTP/1.1 414 URI Too Long\r\nContent-Type: application/json\r\nContent-Length: "
    "25\r\nConnection: close\r\n\r\n{\"error\":\"uri_too_long\"}\n";
constexpr const char* kHeadTooLarge =
    "HTTP/1.1 431 Request Header Fields Too Large\r\nContent-Type: "
    "application/json\r\nContent-Length: 30\r\nConnection: close\r\n\r\n{\"error\":\"headers_too_"
    "large\"}\n";
constexpr const char* kTooMany =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nContent-Length: "
    "33\r\nConnection: close\r\n\r\n{\"error\":\"too_many_connections\"}\n";

bool head_complete(std::string_view b) {
  return b.find("\n\r\n") != std::string_view::npos || b.find("\n\n") != std::string_view::npos;
}

// "GET /health", "HEAD /health" or "GET /metrics", with or without a query.
bool is_probe(std::string_view head) {
  for (std::string_view m : {std::string_view("GET /health"), std::string_view("HEAD /health"),
                             std::string_view("GET /metrics")}) {
    if (head.substr(0, m.size()) == m && head.size() > m.size() &&
        (head[m.size()] == ' ' || head[m.size()] == '?')) {
      return true;
    }
  }
  return false;
}

// The value of header `name` (lower case, with its colon) in a request
// head, or "" when absent; header names compare without regard to case.
std::string_view header_value(std::string_view head, std::string_view name) {
  std::size_t at = head.find('\n');
  while (at != std::string_view::npos && at + 1 < head.size()) {
    const std::size_t line = at + 1;
    const std::size_t end = head.find('\n', line);
    std::string_view text = head.substr(line, end == std::string_view::npos ? head.npos : end - line);
    if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
    if (text.empty()) break;  // the blank line ending the head
    if (text.size() > name.size()) {
      bool same = true;
      for (std::size_t i = 0; i < name.size() && same; ++i) {
        same = std::tolower(static_cast<unsigned char>(text[i])) == name[i];
      }
      if (same) {
        std::string_view v = text.substr(name.size());
        while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
        return v;
      }
    }
    at = end;
  }
  return {};
}

std::size_t head_length(std::string_view b) {
  const std::size_t crlf = b.find("\r\n\r\n");
  const std::size_t lf = b.find("\n\n");
  if (crlf == std::string_view::npos && lf == std::string_view::npos) return 0;
  if (lf == std::string_view::npos || (crlf != std::string_view::npos && crlf + 2 < lf)) {
    return crlf + 4;
  }
  return lf + 2;
}

std::string peer_address(const sockaddr_storage& addr) {
  char buf[INET6_ADDRSTRLEN] = {0};
  if (addr.ss_family == AF_INET) {
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(addr).sin_addr, buf, sizeof buf);
  } else if (addr.ss_family == AF_INET6) {
    ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(addr).sin6_addr, buf, sizeof buf);
  }
  return buf;
}

void signal_fd(int fd) {
  std::uint64_t one = 1;
  [[maybe_unused]] ssize_t n = ::write(fd, &one, sizeof one);
}

void drain_fd(int fd) {
  std::uint64_t v;
  while (::read(fd, &v, sizeof v) > 0) {
  }
}

}  // namespace

ConnectionHub::ConnectionHub(Limits limits, Serve serve)
    : limits_(limits),
      serve_(std::move(serve)),
      wake_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      busy_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      stop_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ConnectionHub::~ConnectionHub() {
  stop(std::chrono::milliseconds(0), nullptr, std::chrono::milliseconds(0));
  for (int fd : {wake_fd_, busy_fd_, stop_fd_, epoll_fd_}) {
    if (fd >= 0) ::close(fd);
  }
}

bool ConnectionHub::start(int listen_fd) {
  listen_fd_ = listen_fd;
  epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0 || wake_fd_ < 0 || busy_fd_ < 0 || stop_fd_ < 0) return false;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = listen_fd_;
  if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &ev) != 0) return false;
  ev.data.fd = wake_fd_;
  if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &ev) != 0) return false;
  for (std::size_t i = 0; i < limits_.workers; ++i) {
    workers_.emplace_back([this] { worker_loop_(false); });
  }
  workers_.emplace_back([this] { worker_loop_(true); });
  acceptor_ = std::thread([this] { accept_loop_(); });
  return true;
}

std::size_t ConnectionHub::open_connections() const {
  std::lock_guard lock(mu_);
  return open_;
}

void ConnectionHub::accept_loop_() {
  epoll_event events[64];
  auto next_sweep = Clock::now() + kSweepPeriod;
  while (!stopping_.load()) {
    int timeout = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       next_sweep - Clock::now())
                                       .count());
    int n = ::epoll_wait(epoll_fd_, events, 64, timeout > 0 ? timeout : 0);
    if (n < 0 && errno != EINTR) break;
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (fd == listen_fd_) {
        accept_new_();
      } else if (fd == wake_fd_) {
        drain_fd(wake_fd_);
        take_parked_();
      } else {
        on_readable_(fd);
      }
    }
    auto now = Clock::now();
    if (now >= next_sweep) {
      sweep_(now);
      next_sweep = now + kSweepPeriod;
    }
  }
  // Stopping: nobody will serve what waits, so it is closed now.
  take_parked_();
  for (auto& [fd, w] : waiting_) close_(fd, w.client_addr);
  waiting_.clear();
  waiting_bytes_ = 0;
  ::close(listen_fd_);
  listen_fd_ = -1;
}

void ConnectionHub::accept_new_() {
  for (;;) {
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    int fd = ::accept4(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len,
                       SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;  // EAGAIN, or out of descriptors: try again on the next event
    }
    int yes = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    std::string client = peer_address(addr);
    bool full = false;
    {
      std::lock_guard lock(mu_);
      full = open_ >= limits_.max_connections;
    }
    // At the cap, the connection silent for longest makes room.
    if (full) evict_silent_();
    bool admitted = false, probe_only = false;
    {
      std::lock_guard lock(mu_);
      std::size_t& mine = per_client_[client];
      if (mine < limits_.max_per_client) {
        if (open_ < limits_.max_connections) {
          admitted = true;
        } else if (open_ < limits_.max_connections + limits_.probe_reserve) {
          admitted = probe_only = true;
        }
      }
      if (admitted) {
        ++open_;
        ++mine;
      } else if (mine == 0) {
        per_client_.erase(client);
      }
    }
    if (!admitted) {
      refuse_(fd, kTooMany);
      ::close(fd);
      continue;
    }
    const auto now = Clock::now();
    Waiting w{std::move(client), {}, now + limits_.head_timeout, now, probe_only};
    // A reserved place is for a probe that asks at once.
    if (probe_only) w.deadline = now + std::min<Clock::duration>(limits_.head_timeout, std::chrono::seconds(2));
    watch_(fd, std::move(w));
  }
}

bool ConnectionHub::evict_silent_() {
  auto oldest = waiting_.end();
  for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
    if (!it->second.buffered.empty()) continue;
    if (oldest == waiting_.end() || it->second.since < oldest->second.since) oldest = it;
  }
  if (oldest == waiting_.end()) return false;
  const int fd = oldest->first;
  Waiting w = unwatch_(oldest);
  close_(fd, w.client_addr);
  return true;
}

ConnectionHub::Waiting ConnectionHub::unwatch_(std::unordered_map<int, Waiting>::iterator it) {
  ::epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, it->first, nullptr);
  waiting_bytes_ -= std::min(waiting_bytes_, it->second.buffered.size());
  Waiting w = std::move(it->second);
  waiting_.erase(it);
  return w;
}

std::size_t ConnectionHub::wanted_bytes_(std::string_view b) const {
  const std::size_t head = head_length(b);
  if (head == 0) return 0;
  const std::string_view h = b.substr(0, head);
  // A client that asked to be told to go on waits for that before its body.
  if (header_value(h, "expect:").find("100") != std::string_view::npos) return head;
  if (waiting_bytes_ > limits_.preread_budget) return head;
  const std::string_view te = header_value(h, "transfer-encoding:");
  if (te.find("chunked") != std::string_view::npos) {
    // Until the last chunk has come, or the pre-read is full.
    const std::string_view body = b.substr(head);
    if (body.find("0\r\n\r\n") != std::string_view::npos) return b.size();
    return head + limits_.preread;
  }
  // A body that fits the pre-read comes whole; a larger one is left to the
  // worker, so that a refusal (401, 413) can come before it is sent.
  const std::string_view cl = header_value(h, "content-length:");
  std::size_t length = 0;
  for (char c : cl) {
    if (c < '0' || c > '9') break;
    if (length > limits_.preread) return head;
    length = length * 10 + static_cast<std::size_t>(c - '0');
  }
  return length > limits_.preread ? head : head + length;
}

void ConnectionHub::watch_(int fd, Waiting w) {
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP;
  ev.data.fd = fd;
  if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
    close_(fd, w.client_addr);
    return;
  }
  bool ready = head_complete(w.buffered);
  waiting_bytes_ += w.buffered.size();
  waiting_.insert_or_assign(fd, std::move(w));
  // A parked connection may already hold the next head (pipelining).
  if (ready) on_readable_(fd);
}

void ConnectionHub::on_readable_(int fd) {
  auto it = waiting_.find(fd);
  if (it == waiting_.end()) return;
  Waiting& w = it->second;
  const bool was_empty = w.buffered.empty();
  const std::size_t before = w.buffered.size();
  char buf[16 * 1024];
  bool closed = false;
  // The head (one byte past its bound tells it is too long), then as much
  // of a body as is wanted before a worker.
  for (;;) {
    const std::size_t wanted = wanted_bytes_(w.buffered);
    const std::size_t limit = wanted != 0 ? wanted : limits_.max_head + 1;
    if (w.buffered.size() >= limit) break;
    ssize_t n = ::recv(fd, buf, std::min(sizeof buf, limit - w.buffered.size()), MSG_DONTWAIT);
    if (n > 0) {
      w.buffered.append(buf, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    closed = n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    break;
  }
  waiting_bytes_ += w.buffered.size() - before;
  const std::string_view seen(w.buffered);
  if (head_complete(seen.substr(0, limits_.max_head + 4))) {
    const std::size_t wanted = wanted_bytes_(seen);
    if (w.probe_only && !is_probe(seen)) {
      // A reserved place asked for something else.
      Waiting gone = unwatch_(it);
      refuse_(fd, kTooMany);
      close_(fd, gone.client_addr);
      return;
    }
    if (w.buffered.size() < wanted && !closed) return;  // the body is still coming
    Waiting ready = unwatch_(it);
    Job job{fd, std::move(ready.client_addr), std::move(ready.buffered), false};
    std::lock_guard lock(mu_);
    enqueue_locked_(std::move(job));
    return;
  }
  if (w.buffered.size() > limits_.max_head) {
    // A request line with no end in sight is an overlong URI; otherwise the
    // headers are too many.
    const bool in_request_line = w.buffered.find('\n') == std::string::npos;
    Waiting gone = unwatch_(it);
    refuse_(fd, in_request_line ? kUriTooLong : kHeadTooLarge);
    close_(fd, gone.client_addr);
    return;
  }
  if (closed) {
    Waiting gone = unwatch_(it);
    close_(fd, gone.client_addr);
    return;
  }
  // The first bytes of a head after an idle keep-alive wait start its clock.
  if (was_empty && !w.buffered.empty()) w.deadline = Clock::now() + limits_.head_timeout;
}

void ConnectionHub::sweep_(Clock::time_point now) {
  for (auto it = waiting_.begin(); it != waiting_.end();) {
    if (it->second.deadline > now) {
      ++it;
      continue;
    }
    const int fd = it->first;
    auto next = std::next(it);
    // A head (or the body read with it) that started and did not finish is
    // answered; a silent connection just ends.
    Waiting gone = unwatch_(it);
    if (!gone.buffered.empty()) refuse_(fd, kTimeout);
    close_(fd, gone.client_addr);
    it = next;
  }
}

void ConnectionHub::take_parked_() {
  std::vector<Job> parked;
  {
    std::lock_guard lock(mu_);
    parked.swap(parked_);
  }
  for (Job& job : parked) {
    if (stopping_.load()) {
      close_(job.fd, job.client_addr);
      continue;
    }
    const auto now = Clock::now();
    auto deadline = now + (job.buffered.empty() ? limits_.idle_timeout : limits_.head_timeout);
    watch_(job.fd, Waiting{std::move(job.client_addr), std::move(job.buffered), deadline, now});
  }
}

void ConnectionHub::enqueue_locked_(Job job) {
  if (idle_workers_ == 0 && is_probe(job.buffered)) {
    job.probe_lane = true;
    probe_jobs_.push_back(std::move(job));
  } else {
    jobs_.push_back(std::move(job));
  }
  update_busy_locked_();
  work_cv_.notify_all();
}

void ConnectionHub::update_busy_locked_() {
  bool busy = !jobs_.empty() && idle_workers_ == 0;
  if (busy && !busy_signalled_) {
    signal_fd(busy_fd_);
    busy_signalled_ = true;
  } else if (!busy && busy_signalled_) {
    drain_fd(busy_fd_);
    busy_signalled_ = false;
  }
}

void ConnectionHub::worker_loop_(bool probe_lane) {
  std::deque<Job>& queue = probe_lane ? probe_jobs_ : jobs_;
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mu_);
      if (!probe_lane) ++idle_workers_;
      update_busy_locked_();
      work_cv_.wait(lock, [&] { return workers_exit_ || !queue.empty(); });
      if (!probe_lane) --idle_workers_;
      if (queue.empty()) return;  // exiting
      job = std::move(queue.front());
      queue.pop_front();
      update_busy_locked_();
      if (stopping_.load()) {
        lock.unlock();
        close_(job.fd, job.client_addr);
        continue;
      }
      active_.insert(job.fd);
    }
    Outcome outcome = Outcome::close;
    try {
      outcome = serve_(job);
    } catch (...) {
      // The serve function answers what it can; a connection it could not
      // finish is closed rather than taking the worker down.
    }
    bool park = outcome == Outcome::park && !stopping_.load();
    {
      std::lock_guard lock(mu_);
      active_.erase(job.fd);
      if (park) parked_.push_back(std::move(job));
      done_cv_.notify_all();
    }
    if (park) {
      signal_fd(wake_fd_);
    } else {
      close_(job.fd, job.client_addr);
    }
  }
}

void ConnectionHub::refuse_(int fd, const char* response) {
  // Best effort: the socket's buffer takes a few hundred bytes at once.
  [[maybe_unused]] ssize_t n = ::send(fd, response, std::strlen(response), MSG_NOSIGNAL | MSG_DONTWAIT);
  ::shutdown(fd, SHUT_WR);
}

void ConnectionHub::close_(int fd, const std::string& client_addr) {
  ::close(fd);
  std::lock_guard lock(mu_);
  if (open_ > 0) --open_;
  auto it = per_client_.find(client_addr);
  if (it != per_client_.end() && --it->second == 0) per_client_.erase(it);
}

void ConnectionHub::stop(std::chrono::milliseconds drain, const std::function<void()>& on_deadline,
                         std::chrono::milliseconds grace) {
  if (stopping_.exchange(true)) return;
  signal_fd(stop_fd_);
  signal_fd(wake_fd_);
  if (acceptor_.joinable()) acceptor_.join();
  {
    std::unique_lock lock(mu_);
    // Queued connections are closed by the workers that take them.
    work_cv_.notify_all();
    auto deadline = Clock::now() + drain;
    done_cv_.wait_until(lock, deadline, [&] { return active_.empty(); });
  }
  bool late = false;
  {
    std::lock_guard lock(mu_);
    late = !active_.empty();
  }
  if (late && on_deadline) on_deadline();
  {
    std::unique_lock lock(mu_);
    done_cv_.wait_for(lock, grace, [&] { return active_.empty(); });
    // Whatever still runs is cut: its reads and writes fail at once.
    for (int fd : active_) ::shutdown(fd, SHUT_RDWR);
    workers_exit_ = true;
    work_cv_.notify_all();
  }
  for (auto& t : workers_) {
    if (t.joinable()) t.join();
  }
  workers_.clear();
  // Connections parked after the acceptor left.
  std::vector<Job> parked;
  {
    std::lock_guard lock(mu_);
    parked.swap(parked_);
  }
  for (Job& job : parked) close_(job.fd, job.client_addr);
}

}  // namespace ostrel::kernel
