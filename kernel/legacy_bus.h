#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "identity/source_code.h"

namespace ostrel {

// A message on the legacy in-process bus. A member that answers a question
// (OstrelBus::ask) writes its answer into `reply`.
struct BusMessage {
  identity::SourceCode from;
  std::string topic;
  std::string payload;  // JSON text
  mutable std::string reply;
};

class OstrelBus;

// The older module interface, still implemented beside kernel::ModuleBase by
// modules that take part in the legacy bus.
class IModule {
 public:
  virtual ~IModule() = default;
  virtual identity::SourceCode getSourceCode() const = 0;
  virtual bool isReady() const = 0;
  virtual void onBusMessage(const BusMessage&) {}

  // The bus the kernel attached the module to; null before that.
  OstrelBus* legacyBus() const { return bus_; }

 private:
  friend class OstrelBus;
  OstrelBus* bus_ = nullptr;
};

// The legacy bus: delivers every message to every attached module except its
// sender, synchronously on the sender's thread.
// Thread-safe: mu_ guards members_; delivery runs after the lock is released.
class OstrelBus {
 public:
  // `module` is borrowed: the kernel detaches nothing, and modules outlive the bus's use.
  void attach(IModule* module);
  std::size_t send(const BusMessage& message) const;
  // Delivers `message` to the members in order until one answers; the
  // answer, or "" when none did.
  std::string ask(const BusMessage& message) const;
  std::size_t size() const;

 private:
  mutable std::mutex mu_;  // guards members_
  std::vector<IModule*> members_;
};

}  // namespace ostrel
