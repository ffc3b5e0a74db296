#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/logger.h"

// The tools the chat-completions tool loop offers a model, and the loop.
namespace ostrel::edge {

// Who is calling and where work goes.
struct ToolCallContext {
  std::string user_id;
  std::string tenant;
  std::vector<std::string> roles;
  std::string api_key;                                            // the request's "X-API-Key"
  std::vector<std::pair<std::string, std::string>> auth_headers;  // copied onto upstream calls
  std::string controller_url;
  std::string router_url;
  std::string conversation_id;
  // The highest role of `roles` on the ladder viewer < developer < admin <
  // superadmin ("viewer" when none is on it).
  std::string highest_role() const;
};

struct ToolDispatchResult {
  nlohmann::json result;  // an error object on failure
};

struct ToolDefinition {
  std::string name;
  std::string description;
  nlohmann::json parameters;
  std::string min_role;  // empty: everyone
  std::function<ToolDispatchResult(const nlohmann::json& args, const ToolCallContext& ctx)> handler;
};

// An ordered table of tool definitions keyed by name (a name registered
// again replaces its entry in place).
// Thread-safe: mu_ guards the table; handlers run without it.
class ToolRegistry {
 public:
  void register_tool(ToolDefinition def);
  std::vector<ToolDefinition> list_visible(
      const ToolCallContext& ctx,
      const std::function<bool(const std::string&)>& filter = nullptr) const;
  static nlohmann::json to_openai_tool_def(const ToolDefinition& def);
  // The handler's result, or nullopt when no tool has the name.
  std::optional<ToolDispatchResult> dispatch(const std::string& name, const nlohmann::json& args,
                                             const ToolCallContext& ctx) const;
  std::vector<std::string> names() const;
  std::size_t size() const;

 private:
  mutable std::mutex mu_;
  std::vector<ToolDefinition> tools_;
};

// The seventeen built-in tools, each a call to the controller's API with
// the caller's credentials ({"error":"no_controller"} without one).
void register_builtin_tools(ToolRegistry& registry);

// The tool-surface instructions and their marker.
extern const char* const kToolSurfacePrompt;
extern const char* const kPromptMarker;

// Puts the instructions in front of the conversation once: into the first
// system message (before its text, separated by a blank line) or as a new
// first message; a conversation that already carries the marker is left
// alone. `messages` must be an array.
void inject_tool_surface(nlohmann::json& messages);

// One model call: the request text in, the status and the answer text out;
// false when no answer came (unreachable, timed out).
using Upstream = std::function<bool(const std::string& request, int& status, std::string& answer)>;
// Whether the caller may run a tool: nullopt to go ahead, else the error
// object fed back to the model.
using PolicyCheck = std::function<std::optional<nlohmann::json>(const std::string& tool,
                                                                const ToolCallContext& ctx)>;

struct LoopOutcome {
  int status = 200;
  nlohmann::json body;  // the final completion, the capped answer, or an error
  // The final completion as the model sent it, when it needed no reading
  // beyond its finish reason (then `body` is null): a long answer is not
  // turned into a tree and back.
  std::string text;
  int iterations = 0;
  bool capped = false;
};

constexpr int kMaxIterations = 8;

// The finish reason of a chat-completions answer's first choice, read
// without building a tree; false when the text is not a well-formed JSON
// object of the plain shape (the caller then parses it).
bool peek_finish_reason(std::string_view answer, std::string& finish, std::string* model = nullptr);
// Tool calls run in one round; the model's further calls of that round are
// answered "tool_call_limit" without running (nor a policy check, nor an
// audit line).
constexpr std::size_t kMaxToolCallsPerRound = 8;

// The loop: the request (with "tools" set and the instructions injected) goes
// upstream; tool calls in the answer are run in order and fed back as tool
// messages; repeated until the model answers in words or kMaxIterations
// rounds have passed. `upstream_name` names the router in error answers.
LoopOutcome run_tool_loop(nlohmann::json request, const ToolCallContext& ctx,
                          const ToolRegistry& tools, const Upstream& upstream,
                          const std::string& upstream_name, const PolicyCheck& policy,
                          const base::Logger& log);

// One round of the loop after the model asked for tools: appends the
// assistant message and one tool message per call to `messages`.
void run_tool_calls(nlohmann::json& messages, const nlohmann::json& assistant_message,
                    const ToolCallContext& ctx, const ToolRegistry& tools,
                    const PolicyCheck& policy);

}  // namespace ostrel::edge
