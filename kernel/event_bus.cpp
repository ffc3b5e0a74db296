#include "kernel/event_bus.h"

#include <mutex>

namespace ostrel::kernel {

std::uint64_t EventBus::subscribe(identity::SourceCode owner, std::string topic,
                                  EventHandler handler) {
  std::unique_lock lock(mu_);
  std::uint64_t id = next_id_++;
  entries_.push_back(
      {id, owner, std::move(topic), std::make_shared<const EventHandler>(std::move(handler))});
  return id;
}

bool EventBus::unsubscribe(std::uint64_t id) {
  std::unique_lock lock(mu_);
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->id == id) {
      entries_.erase(it);
      return true;
    }
  }
  return false;
}

std::size_t EventBus::publish(identity::SourceCode, std::string_view topic,
                              std::string_view payload) const {
  std::vector<std::shared_ptr<const EventHandler>> handlers;
  {
    std::shared_lock lock(mu_);
    for (const auto& e : entries_) {
      if (e.topic == topic) handlers.push_back(e.handler);
    }
  }
  for (const auto& h : handlers) {
    try {
      (*h)(topic, payload);
    } catch (...) {
      // A subscriber's failure is its own; the others still get the event.
    }
  }
  return handlers.size();
}

std::vector<EventBus::Subscription> EventBus::subscriptions() const {
  std::shared_lock lock(mu_);
  std::vector<Subscription> out;
  out.reserve(entries_.size());
  for (const auto& e : entries_) out.push_back({e.id, e.owner, e.topic});
  return out;
}

}  // namespace ostrel::kernel
