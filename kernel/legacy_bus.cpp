#include "kernel/legacy_bus.h"

namespace ostrel {

void OstrelBus::attach(IModule* module) {
  std::lock_guard lock(mu_);
  module->bus_ = this;
  members_.push_back(module);
}

std::string OstrelBus::ask(const BusMessage& message) const {
  std::vector<IModule*> members;
  {
    std::lock_guard lock(mu_);
    members = members_;
  }
  message.reply.clear();
  for (IModule* m : members) {
    if (m->getSourceCode() == message.from) continue;
    try {
      m->onBusMessage(message);
    } catch (...) {
      message.reply.clear();  // a failing member answers nothing
    }
    if (!message.reply.empty()) return message.reply;
  }
  return "";
}

std::size_t OstrelBus::send(const BusMessage& message) const {
  std::vector<IModule*> members;
  {
    std::lock_guard lock(mu_);
    members = members_;
  }
  std::size_t delivered = 0;
  for (IModule* m : members) {
    if (m->getSourceCode() == message.from) continue;
    try {
      m->onBusMessage(message);
      ++delivered;
    } catch (...) {
      // One member's failure does not stop delivery to the others.
    }
  }
  return delivered;
}

std::size_t OstrelBus::size() const {
  std::lock_guard lock(mu_);
  return members_.size();
}

}  // namespace ostrel
