#include "kernel/event_bus.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace ostrel::kernel {
namespace {

const identity::SourceCode kOwner{0x25, 0x01};

TEST(EventBus, IdsAreNeverReusedAndUnsubscribeKeepsOrder) {
  EventBus bus;
  std::vector<std::string> seen;
  auto h = [&](const char* tag) {
    return [&seen, tag](std::string_view, std::string_view) { seen.push_back(tag); };
  };
  EXPECT_EQ(bus.subscribe(kOwner, "t", h("a")), 1u);
  EXPECT_EQ(bus.subscribe(kOwner, "t", h("b")), 2u);
  EXPECT_TRUE(bus.unsubscribe(1));
  EXPECT_EQ(bus.subscribe(kOwner, "t", h("c")), 3u);
  EXPECT_FALSE(bus.unsubscribe(1));
  EXPECT_FALSE(bus.unsubscribe(99));
  EXPECT_EQ(bus.publish(kOwner, "t", "{}"), 2u);
  EXPECT_EQ(seen, (std::vector<std::string>{"b", "c"}));
  auto subs = bus.subscriptions();
  ASSERT_EQ(subs.size(), 2u);
  EXPECT_EQ(subs[0].id, 2u);
  EXPECT_EQ(subs[1].id, 3u);
}

TEST(EventBus, ExactTopicsThrowingHandlersAndSelfUnsubscribe) {
  EventBus bus;
  std::vector<std::string> seen;
  bus.subscribe(kOwner, "a.b", [&](std::string_view topic, std::string_view payload) {
    seen.push_back(std::string(topic) + "=" + std::string(payload));
  });
  bus.subscribe(kOwner, "a.b.c", [&](std::string_view, std::string_view) { seen.push_back("c"); });
  bus.subscribe(kOwner, "A.B",
                [&](std::string_view, std::string_view) { seen.push_back("upper"); });
  bus.subscribe(kOwner, "a.b", [](std::string_view, std::string_view) {
    throw std::runtime_error("subscriber failure");
  });
  std::uint64_t self_id = 0;
  int self_calls = 0;
  self_id = bus.subscribe(kOwner, "a.b", [&](std::string_view, std::string_view) {
    ++self_calls;
    bus.unsubscribe(self_id);  // must not deadlock; takes effect for later publishes
  });
  bus.subscribe(kOwner, "a.b", [&](std::string_view, std::string_view) { seen.push_back("last"); });

  EXPECT_EQ(bus.publish(kOwner, "a.b", "1"), 4u);
  EXPECT_EQ(bus.publish(kOwner, "a.b", "2"), 3u);
  EXPECT_EQ(self_calls, 1);
  EXPECT_EQ(seen, (std::vector<std::string>{"a.b=1", "last", "a.b=2", "last"}));
  EXPECT_EQ(bus.publish(kOwner, "nobody", "x"), 0u);
}

TEST(EventBus, DeliveryWhileSubscribersComeAndGo) {
  EventBus bus;
  std::atomic<long> stable_hits{0};
  bus.subscribe(kOwner, "tick", [&](std::string_view, std::string_view) { ++stable_hits; });

  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop) {
      std::uint64_t id = bus.subscribe(kOwner, "tick", [&](std::string_view, std::string_view) {
        // A handler that itself subscribes and unsubscribes during delivery.
        bus.unsubscribe(bus.subscribe(kOwner, "other", [](std::string_view, std::string_view) {}));
      });
      bus.unsubscribe(id);
    }
  });
  std::vector<std::thread> publishers;
  for (int i = 0; i < 3; ++i) {
    publishers.emplace_back([&] {
      for (int j = 0; j < 2000; ++j) bus.publish(kOwner, "tick", "{}");
    });
  }
  for (auto& p : publishers) p.join();
  stop = true;
  churn.join();
  // The one permanent subscriber saw every publish exactly once.
  EXPECT_EQ(stable_hits.load(), 3 * 2000);
  EXPECT_EQ(bus.subscriptions().size(), 1u);
}

}  // namespace
}  // namespace ostrel::kernel
