#include "kernel/boot/boot_sequencer.h"

#include <exception>

namespace ostrel::kernel {

const char* boot_state_name(BootSequencer::State state) {
  switch (state) {
    case BootSequencer::State::pending:
      return "pending";
    case BootSequencer::State::started:
      return "started";
    case BootSequencer::State::failed:
      return "failed";
    case BootSequencer::State::stopped:
      return "stopped";
  }
  return "pending";
}

bool BootSequencer::register_phase(Phase phase, std::string& error) {
  if (phase.name.empty()) {
    error = "phase name must be non-empty";
    return false;
  }
  for (const auto& p : phases_) {
    if (p.name == phase.name) {
      error = "phase '" + phase.name + "' already registered";
      return false;
    }
  }
  phases_.push_back(std::move(phase));
  states_.push_back(State::pending);
  return true;
}

bool BootSequencer::run(std::string& failed_phase) {
  for (size_t i = 0; i < phases_.size(); ++i) {
    if (states_[i] != State::pending) continue;
    bool ok = false;
    try {
      ok = phases_[i].start ? phases_[i].start() : true;
    } catch (...) {
      ok = false;
    }
    if (!ok) {
      states_[i] = State::failed;
      failed_phase = phases_[i].name;
      return false;
    }
    states_[i] = State::started;
  }
  return true;
}

std::vector<std::string> BootSequencer::shutdown() {
  std::vector<std::string> problems;
  for (size_t i = phases_.size(); i-- > 0;) {
    if (states_[i] != State::started) continue;
    try {
      if (phases_[i].stop) phases_[i].stop();
    } catch (const std::exception& e) {
      problems.push_back(phases_[i].name + ": " + e.what());
    } catch (...) {
      problems.push_back(phases_[i].name + ": unknown exception");
    }
    states_[i] = State::stopped;
  }
  return problems;
}

std::vector<BootSequencer::Status> BootSequencer::statuses() const {
  std::vector<Status> out;
  for (size_t i = 0; i < phases_.size(); ++i) out.push_back({phases_[i].name, states_[i]});
  return out;
}

}  // namespace ostrel::kernel
