#pragma once

#include <optional>
#include <string>

// Messages that ask the agent system itself something ("build status",
// "list my agents", "@name …", "I need an agent for …", "use the X agent",
// "build me an agent that …") rather than the model.
namespace ostrel::agents {

enum class IntentKind {
  build_status,
  list_agents,
  mention,
  request_agent,
  switch_agent,
  build_agent
};

struct Intent {
  IntentKind kind;
  std::string capture;  // the agent name or the purpose, when the pattern has one
};

// The first pattern, in the fixed order, that the message matches
// (case-insensitively, anywhere in it unless the pattern is anchored).
std::optional<Intent> detect_intent(const std::string& message);
const char* intent_name(IntentKind kind);

}  // namespace ostrel::agents
