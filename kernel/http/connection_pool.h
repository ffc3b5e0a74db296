#pragma once

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ostrel::kernel {

// The HTTP server's worker threads. Each accepted connection is one job that
// keeps its thread until the connection ends, so more open connections than
// threads means waiting. For every job that waits without a thread coming for
// it, the pool asks one connection idling between requests to hand its thread
// over: it keeps an eventfd (`yield_fd()`) readable while such requests are
// open, and a connection that sees it calls claim_yield() and, when that
// succeeds, ends. A node with more keep-alive clients than threads thus
// answers a newcomer at once rather than after an idle timeout.
//
// Thread-safe. shutdown() runs the jobs still queued, then joins the threads.
class ConnectionPool final : public httplib::TaskQueue {
 public:
  explicit ConnectionPool(std::size_t threads);
  ~ConnectionPool() override;
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  void enqueue(std::function<void()> job) override;
  void shutdown() override;

  // Readable while a waiting job needs an idle connection to yield; -1 when
  // the eventfd could not be made (then nobody is asked).
  int yield_fd() const { return yield_fd_; }
  // Called on a job's thread by a connection that saw yield_fd() readable:
  // true when it is the one to end, its thread going to a waiting job.
  bool claim_yield();

 private:
  void run_();
  void rebalance_locked_();

  const int yield_fd_;  // eventfd whose count equals asked_
  std::mutex mu_;       // guards everything below, and the eventfd's count
  std::condition_variable cv_;
  std::deque<std::function<void()>> jobs_;
  std::size_t idle_;          // threads not running a job
  std::size_t yielding_ = 0;  // threads whose connection claimed a yield, on their way back
  std::size_t asked_ = 0;     // yields asked for and not yet claimed
  bool stopping_ = false;
  std::vector<std::thread> threads_;  // joined in shutdown()
};

}  // namespace ostrel::kernel
