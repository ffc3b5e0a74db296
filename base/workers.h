#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "base/no_copy.h"

namespace ostrel::base {

// The background threads of one owner and the stop signal they wait on.
// The owner starts loops with spawn(); stop() — or the destructor — raises
// the signal, wakes every wait and joins every thread, so no thread outlives
// its owner. A spawn after stop() arms the signal afresh.
//
// The loops sleep in wait_for()/wait(), which return true once stopping.
// State that a wait's predicate reads (a queue, a generation counter) is
// changed under lock() and followed by wake(), so no wake-up is lost; the
// owner says so where it declares that state.
class Workers : NoCopy {
 public:
  ~Workers() { stop(); }

  void spawn(std::function<void()> loop) {
    std::lock_guard lock(mu_);
    if (threads_.empty()) stopping_ = false;
    threads_.emplace_back(std::move(loop));
  }

  // Raises the stop signal and joins every thread. Called from the owner's
  // thread only, never from one of the loops.
  void stop() {
    std::vector<std::thread> threads;
    {
      std::lock_guard lock(mu_);
      stopping_ = true;
      threads.swap(threads_);
    }
    cv_.notify_all();
    for (auto& t : threads) {
      if (t.joinable()) t.join();
    }
  }

  bool running() const {
    std::lock_guard lock(mu_);
    return !threads_.empty() && !stopping_;
  }

  std::unique_lock<std::mutex> lock() const { return std::unique_lock(mu_); }
  // With lock() held: true from stop() until the next spawn().
  bool stopping(const std::unique_lock<std::mutex>&) const { return stopping_; }
  void wake() { cv_.notify_all(); }

  // Sleeps for `period` or until stop; true when stopping.
  template <typename Rep, typename Period>
  bool wait_for(std::chrono::duration<Rep, Period> period) {
    auto held = lock();
    return wait_for(held, period, [] { return false; });
  }

  // With lock() held: sleeps until `ready()`, stop or `period`; true when
  // stopping. The lock is held again on return.
  template <typename Rep, typename Period, typename Ready>
  bool wait_for(std::unique_lock<std::mutex>& held, std::chrono::duration<Rep, Period> period,
                Ready ready) {
    cv_.wait_for(held, period, [&] { return stopping_ || ready(); });
    return stopping_;
  }

  // With lock() held: sleeps until `ready()` or stop; true when stopping.
  template <typename Ready>
  bool wait(std::unique_lock<std::mutex>& held, Ready ready) {
    cv_.wait(held, [&] { return stopping_ || ready(); });
    return stopping_;
  }

 private:
  mutable std::mutex mu_;  // guards stopping_, threads_ and what the owner's waits read
  std::condition_variable cv_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace ostrel::base
