#include "base/workers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>

namespace ostrel::base {
namespace {

using namespace std::chrono_literals;

// A loop sleeping for an hour ends at stop(), and a queue filled under the
// lock wakes its consumer; after stop() the signal re-arms for a new spawn.
TEST(Workers, StopWakesEveryWaitAndJoinsAndASpawnRearms) {
  Workers workers;
  std::deque<int> queue;  // guarded by workers' lock
  std::atomic<int> consumed{0};
  std::atomic<bool> sleeper_saw_stop{false};
  workers.spawn([&] { sleeper_saw_stop = workers.wait_for(1h); });
  workers.spawn([&] {
    auto lock = workers.lock();
    for (;;) {
      if (workers.wait(lock, [&] { return !queue.empty(); })) return;
      queue.pop_front();
      ++consumed;
    }
  });
  for (int i = 0; i < 3; ++i) {
    {
      auto lock = workers.lock();
      queue.push_back(i);
    }
    workers.wake();
  }
  for (;;) {
    auto lock = workers.lock();
    if (queue.empty()) break;
    lock.unlock();
    std::this_thread::yield();
  }
  EXPECT_TRUE(workers.running());
  const auto before = std::chrono::steady_clock::now();
  workers.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 30s);  // an hour's wait did not hold it
  EXPECT_TRUE(sleeper_saw_stop);
  EXPECT_EQ(consumed, 3);
  EXPECT_FALSE(workers.running());
  {
    auto lock = workers.lock();
    EXPECT_TRUE(workers.stopping(lock));
  }

  // The new loop sees its predicate, not a stop signal left over.
  bool go = false;  // guarded by workers' lock
  std::atomic<int> second{-1};
  workers.spawn([&] {
    auto lock = workers.lock();
    second = workers.wait(lock, [&] { return go; }) ? 1 : 0;
  });
  {
    auto lock = workers.lock();
    go = true;
  }
  workers.wake();
  while (second == -1) std::this_thread::yield();
  workers.stop();
  EXPECT_EQ(second, 0) << "a spawn after stop() must start with the signal lowered";
}

}  // namespace
}  // namespace ostrel::base
