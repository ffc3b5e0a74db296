#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "identity/source_code.h"

namespace ostrel::kernel {

using EventHandler = std::function<void(std::string_view topic, std::string_view payload)>;

// In-process publish/subscribe on exact topic names. Delivery is synchronous on
// the publisher's thread, in subscription order; a subscriber's exception is
// swallowed and delivery goes on.
// Thread-safe: mu_ guards next_id_ and entries_; handlers run after the lock is
// released, so they may publish, subscribe or unsubscribe (affecting later
// publishes only).
class EventBus {
 public:
  struct Subscription {
    std::uint64_t id = 0;
    identity::SourceCode owner;
    std::string topic;
  };

  std::uint64_t subscribe(identity::SourceCode owner, std::string topic, EventHandler handler);
  bool unsubscribe(std::uint64_t id);
  // Returns how many handlers were called.
  std::size_t publish(identity::SourceCode publisher, std::string_view topic,
                      std::string_view payload) const;
  std::vector<Subscription> subscriptions() const;

 private:
  struct Entry {
    std::uint64_t id;
    identity::SourceCode owner;
    std::string topic;
    std::shared_ptr<const EventHandler> handler;
  };
  mutable std::shared_mutex mu_;  // guards next_id_ and entries_
  std::uint64_t next_id_ = 1;
  std::vector<Entry> entries_;
};

}  // namespace ostrel::kernel
