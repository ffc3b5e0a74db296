#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::kernel {

// Where the HTTP server's connections live between requests.
//
// One acceptor thread holds every connection that is not being served — new
// ones and keep-alive ones between requests — in an epoll set, reads their
// request heads as the bytes arrive and hands a connection to a worker only
// when a whole head is there. A client that connects and sends nothing, or
// drips its head a byte at a time, costs a file descriptor and a few bytes,
// never a thread; one that does not finish its head in time is answered 408
// and closed. Workers serve requests back to back while a client keeps
// sending, and hand the connection back (park it) once it goes quiet or
// another connection waits for a worker.
//
// When every worker is busy, a request for /health goes to a probe lane of
// its own, so that liveness checks are answered while the node is saturated.
//
// Caps: connections in all and per client address; over either, a newcomer
// is answered 503 and closed, except that at the overall cap the connection
// that has waited longest without sending anything is closed to make room,
// and a few reserved places take probes (/health, /metrics) only.
//
// Thread-safe. mu_ guards the queues, the counts, the parked list and the
// set of connections being served; the acceptor alone owns the waiting set.
class ConnectionHub : private base::NoCopy {
 public:
  struct Limits {
    std::size_t workers = 64;
    std::size_t max_connections = 8192;
    std::size_t max_per_client = 512;
    // A request head must be complete this long after its first byte (and a
    // new connection must send one this long after it was accepted).
    std::chrono::milliseconds head_timeout{10000};
    // A keep-alive connection may stay silent this long between requests.
    std::chrono::milliseconds idle_timeout{5000};
    // A worker keeps an answered connection this long for its next request
    // when no other connection waits for a worker.
    std::chrono::milliseconds linger{100};
    std::size_t max_head = 64 * 1024;
    // A request's body, up to this much, is read here with its head before
    // a worker is asked for (a client that drips a small body costs no
    // thread); within `preread_budget` bytes held for all connections.
    std::size_t preread = 64 * 1024;
    std::size_t preread_budget = 64u << 20;
    // Connections beyond max_connections kept for GET /health and GET
    // /metrics alone (anything else on them is refused).
    std::size_t probe_reserve = 16;
  };

  // A connection handed to a worker: its socket, the peer address and the
  // bytes read so far (at least one whole request head).
  struct Job {
    int fd = -1;
    std::string client_addr;
    std::string buffered;
    bool probe_lane = false;
  };

  enum class Outcome { park, close };
  // Serves the job's requests on a worker thread. On park, `job.buffered`
  // holds the bytes read and not consumed (a partial next head, or nothing).
  using Serve = std::function<Outcome(Job& job)>;

  ConnectionHub(Limits limits, Serve serve);
  ~ConnectionHub();

  // Takes ownership of a listening socket and starts the threads.
  bool start(int listen_fd);

  // Stops accepting and closes idle connections at once; waits up to `drain`
  // for the requests in progress, then calls `on_deadline` (which should make
  // long work end: streams, upstream calls), waits up to `grace` more and
  // finally shuts the remaining sockets down so that every worker returns.
  void stop(std::chrono::milliseconds drain, const std::function<void()>& on_deadline,
            std::chrono::milliseconds grace = std::chrono::seconds(1));

  // For a worker deciding whether to keep lingering: readable while a
  // connection waits for a worker and none is idle.
  int busy_fd() const { return busy_fd_; }
  // Readable once stop() began.
  int stop_fd() const { return stop_fd_; }
  bool stopping() const { return stopping_.load(); }
  const Limits& limits() const { return limits_; }

  // Counted by the serve function after every request; the watchdog reads it
  // to tell a busy node (requests finish) from a hung one.
  void request_finished() { finished_.fetch_add(1, std::memory_order_relaxed); }
  std::uint64_t requests_finished() const { return finished_.load(std::memory_order_relaxed); }
  std::size_t open_connections() const;

 private:
  struct Waiting {
    std::string client_addr;
    std::string buffered;
    std::chrono::steady_clock::time_point deadline;
    std::chrono::steady_clock::time_point since;  // when it began to wait
    bool probe_only = false;                      // admitted into the probe reserve
  };

  void accept_loop_();
  void worker_loop_(bool probe_lane);
  void accept_new_();
  // Removes a waiting connection from the set (and from epoll).
  Waiting unwatch_(std::unordered_map<int, Waiting>::iterator it);
  void watch_(int fd, Waiting w);
  void on_readable_(int fd);
  void sweep_(std::chrono::steady_clock::time_point now);
  void take_parked_();
  void enqueue_locked_(Job job);
  // Sends a canned answer and ends the sending side; the caller closes.
  void refuse_(int fd, const char* response);
  void close_(int fd, const std::string& client_addr);
  // Closes the waiting connection silent for longest; false when none is.
  bool evict_silent_();
  // Bytes of the request at the front of `buffered` (head and body) that
  // should be here before a worker takes it.
  std::size_t wanted_bytes_(std::string_view buffered) const;
  void update_busy_locked_();

  const Limits limits_;
  const Serve serve_;
  int listen_fd_ = -1;
  int epoll_fd_ = -1;
  const int wake_fd_;  // eventfd: wakes the acceptor (parked connections, stop)
  const int busy_fd_;  // eventfd: readable while jobs wait and no worker is idle
  const int stop_fd_;  // eventfd: readable once stopping
  std::atomic<bool> stopping_{false};
  std::atomic<std::uint64_t> finished_{0};

  // Owned by the acceptor thread alone.
  std::unordered_map<int, Waiting> waiting_;
  std::size_t waiting_bytes_ = 0;  // buffered bytes of waiting_, for the pre-read budget

  mutable std::mutex mu_;            // guards everything below
  std::condition_variable work_cv_;  // workers wait for jobs
  std::condition_variable done_cv_;  // stop() waits for active_ to empty
  std::deque<Job> jobs_;
  std::deque<Job> probe_jobs_;
  std::vector<Job> parked_;         // handed back, not yet watched
  std::unordered_set<int> active_;  // being served by a worker
  std::unordered_map<std::string, std::size_t> per_client_;
  std::size_t open_ = 0;
  std::size_t idle_workers_ = 0;
  bool busy_signalled_ = false;
  bool workers_exit_ = false;

  std::thread acceptor_;              // joined in stop()
  std::vector<std::thread> workers_;  // joined in stop(); the last one is the probe lane
};

}  // namespace ostrel::kernel
