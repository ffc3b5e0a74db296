#pragma once

#include <functional>
#include <string>
#include <vector>

namespace ostrel::kernel {

// Ordered start phases with their stop actions. run() starts them in
// registration order and stops at the first failure; shutdown() stops the
// phases that started, in reverse. Used from the boot thread only.
class BootSequencer {
 public:
  struct Phase {
    std::string name;
    std::function<bool()> start;
    std::function<void()> stop;
  };
  enum class State { pending, started, failed, stopped };
  struct Status {
    std::string name;
    State state = State::pending;
  };

  // False with a reason for an empty or duplicate name.
  bool register_phase(Phase phase, std::string& error);
  std::size_t size() const { return phases_.size(); }

  // True when every phase started; otherwise `failed_phase` names the one that did not.
  bool run(std::string& failed_phase);
  // Problems met while stopping (a stop action that threw), one text each.
  std::vector<std::string> shutdown();
  std::vector<Status> statuses() const;

 private:
  std::vector<Phase> phases_;
  std::vector<State> states_;
};

const char* boot_state_name(BootSequencer::State state);

}  // namespace ostrel::kernel
