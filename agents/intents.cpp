#include "agents/intents.h"
#include "base/text.h"

#include <regex>

namespace ostrel::agents {

namespace {

struct Pattern {
  IntentKind kind;
  std::regex re;
  int group;  // the capture that names the agent or the purpose; 0: none
};

const std::vector<Pattern>& patterns() {
  // Word boundaries in front keep words that merely end like a keyword
  // ("because it" is not "use it") from being taken for a command.
  constexpr auto flags = std::regex::ECMAScript | std::regex::icase | std::regex::optimize;
  static const std::vector<Pattern> kPatterns = {
      {IntentKind::build_status,
       std::regex(R"(\b(?:build|agent\s+build|creation)\s+(?:status|progress))", flags), 0},
      {IntentKind::list_agents,
       std::regex(R"(\b(?:list|show|what|which)\s+(?:my\s+)?(?:available\s+)?agents)", flags), 0},
      {IntentKind::mention, std::regex(R"(^@([a-zA-Z0-9_-]+)(?:\s|$))", flags), 1},
      {IntentKind::request_agent,
       std::regex(
           R"(\bi\s+(?:need|want)\s+(?:an?\s+)?(?:agent|assistant|bot|worker)\s+(?:for|that|which|to)\s+(.+))",
           flags),
       1},
      {IntentKind::switch_agent,
       std::regex(
           R"(\b(?:use|switch\s+to|activate|load|select)\s+(?:the\s+)?(?:agent\s+)?([a-zA-Z0-9_-]+)(?:\s+agent)?)",
           flags),
       1},
      {IntentKind::build_agent,
       std::regex(
           R"(\b(build|create|make|design|generate|develop)\s+(?:me\s+)?(?:an?\s+)?(?:new\s+)?(?:agent|assistant|bot|worker)\s+(?:for|that|which|to)\s+(.+))",
           flags),
       2},
  };
  return kPatterns;
}

}  // namespace

std::optional<Intent> detect_intent(const std::string& message) {
  for (const Pattern& p : patterns()) {
    std::smatch m;
    if (std::regex_search(message, m, p.re)) {
      return Intent{p.kind, p.group > 0 ? m[p.group].str() : std::string()};
    }
  }
  return std::nullopt;
}

const char* intent_name(IntentKind kind) {
  static constexpr const char* kNames[] = {"build_status",  "list_agents",  "mention",
                                           "request_agent", "switch_agent", "build_agent"};
  return text::enum_name(kind, kNames, "unknown");
}

}  // namespace ostrel::agents
