#include "kernel/http/connection_pool.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace ostrel::kernel {
namespace {

// Set on a pool thread whose connection claimed a yield, until the thread is
// back in the pool.
thread_local bool t_yielded = false;

}  // namespace

// A thread counts as idle from the start, so that connections arriving before
// it first waits do not ask anyone to yield.
ConnectionPool::ConnectionPool(std::size_t threads)
    : yield_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)), idle_(threads) {
  threads_.reserve(threads);
  for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { run_(); });
}

ConnectionPool::~ConnectionPool() {
  shutdown();
  if (yield_fd_ >= 0) ::close(yield_fd_);
}

// Jobs without a thread, less the threads already on their way to them, is
// how many idle connections must yield. The eventfd's count follows.
void ConnectionPool::rebalance_locked_() {
  if (yield_fd_ < 0) return;
  std::size_t covered = idle_ + yielding_;
  std::size_t wanted = jobs_.size() > covered ? jobs_.size() - covered : 0;
  for (; asked_ < wanted; ++asked_) {
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(yield_fd_, &one, sizeof one);
  }
  for (; asked_ > wanted; --asked_) {
    std::uint64_t v;
    [[maybe_unused]] ssize_t n = ::read(yield_fd_, &v, sizeof v);
  }
}

bool ConnectionPool::claim_yield() {
  std::lock_guard lock(mu_);
  if (asked_ == 0 || stopping_) return false;
  std::uint64_t v;
  if (::read(yield_fd_, &v, sizeof v) != sizeof v) return false;
  --asked_;
  ++yielding_;
  t_yielded = true;
  return true;
}

void ConnectionPool::enqueue(std::function<void()> job) {
  {
    std::lock_guard lock(mu_);
    jobs_.push_back(std::move(job));
    rebalance_locked_();
  }
  cv_.notify_one();
}

void ConnectionPool::shutdown() {
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
  }
  cv_.notify_all();
  for (auto& t : threads_) {
    if (t.joinable()) t.join();
  }
  threads_.clear();
}

void ConnectionPool::run_() {
  std::unique_lock lock(mu_);
  for (;;) {
    cv_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) return;  // stopping, nothing left to run
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    --idle_;
    lock.unlock();
    job();
    job = nullptr;
    lock.lock();
    if (t_yielded) {
      t_yielded = false;
      --yielding_;
    }
    ++idle_;
    rebalance_locked_();
  }
}

}  // namespace ostrel::kernel
