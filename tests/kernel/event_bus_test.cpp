#include "kernel/event_bus.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "kernel/legacy_bus.h"

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

// The legacy bus: a message reaches every member but its sender; a question
// is answered by the first member that writes a reply, and a member that
// throws answers nothing without stopping the others.
TEST(LegacyBus, SendSkipsTheSenderAndAskTakesTheFirstAnswer) {
  struct Member : IModule {
    Member(identity::SourceCode c, std::string a, bool t = false)
        : code(c), answer(std::move(a)), throws(t) {}
    identity::SourceCode getSourceCode() const override { return code; }
    bool isReady() const override { return true; }
    void onBusMessage(const BusMessage& m) override {
      ++seen;
      if (throws) throw std::runtime_error("member failed");
      if (m.topic == "cloud.peer_url") m.reply = answer;
    }
    identity::SourceCode code;
    std::string answer;
    bool throws;
    int seen = 0;
  };
  OstrelBus bus;
  Member asker({0x25, 0x01}, "self"), failing({0x25, 0x02}, "x", true), silent({0x25, 0x03}, ""),
      knows({0x25, 0x04}, "http://cloud-1:8880/v1"), later({0x25, 0x05}, "http://other");
  for (IModule* m : std::initializer_list<IModule*>{&asker, &failing, &silent, &knows, &later}) {
    EXPECT_EQ(m->legacyBus(), nullptr);
    bus.attach(m);
    EXPECT_EQ(m->legacyBus(), &bus);
  }
  EXPECT_EQ(bus.send({asker.code, "note", "{}"}), 3u);  // the throwing member is not counted
  EXPECT_EQ(asker.seen, 0);
  EXPECT_EQ(later.seen, 1);
  EXPECT_EQ(asker.legacyBus()->ask({asker.code, "cloud.peer_url", "{}"}), "http://cloud-1:8880/v1");
  EXPECT_EQ(later.seen, 1);  // asked no further once answered
  EXPECT_EQ(bus.ask({knows.code, "nobody.knows", "{}"}), "");
}

}  // namespace
}  // namespace ostrel::kernel
