#include "agents/edge_tools.h"

#include <algorithm>
#include <chrono>

#include "base/http_client.h"
#include "base/json.h"
#include "base/json_scanner.h"
#include "base/reply.h"
#include "base/roles.h"

namespace ostrel::edge {

using Json = nlohmann::json;

const char* const kPromptMarker = "NEVER fabricate URLs, DOIs";
const char* const kToolSurfacePrompt =
    "You are Ostrel, a distributed AI operating system with access to a tool surface. When the "
    "user asks for anything that one of your tools can do — searching the knowledge base, the "
    "web, or matrix memory; storing or recalling facts; sending messages; spawning a swarm of "
    "agents; delegating to a sub-agent; transcribing audio; etc. — CALL THE TOOL. Do not answer "
    "from prior knowledge when a tool can give you the current truth. After a tool returns, "
    "summarise the result in plain language for the user. If no tool fits, say so plainly. NEVER "
    "fabricate URLs, DOIs, ORCID IDs, LinkedIn profiles, patent numbers, citations, or other "
    "specific identifiers — invented details are worse than \"I don't know\".";

std::string ToolCallContext::highest_role() const {
  std::string best = "viewer";
  for (const auto& r : roles) {
    if (base::roles::rank(r) > base::roles::rank(best)) best = r;
  }
  return best;
}

void ToolRegistry::register_tool(ToolDefinition def) {
  std::lock_guard lock(mu_);
  for (auto& t : tools_) {
    if (t.name == def.name) {
      t = std::move(def);
      return;
    }
  }
  tools_.push_back(std::move(def));
}

std::vector<ToolDefinition> ToolRegistry::list_visible(
    const ToolCallContext& ctx, const std::function<bool(const std::string&)>& filter) const {
  const int rank = base::roles::rank(ctx.highest_role());
  std::vector<ToolDefinition> out;
  std::lock_guard lock(mu_);
  for (const auto& t : tools_) {
    if (!t.min_role.empty() && base::roles::rank(t.min_role) > rank) continue;
    if (filter && !filter(t.name)) continue;
    out.push_back(t);
  }
  return out;
}

Json ToolRegistry::to_openai_tool_def(const ToolDefinition& def) {
  return {{"type", "function"},
          {"function",
           {{"name", def.name}, {"description", def.description}, {"parameters", def.parameters}}}};
}

std::optional<ToolDispatchResult> ToolRegistry::dispatch(const std::string& name, const Json& args,
                                                         const ToolCallContext& ctx) const {
  std::function<ToolDispatchResult(const Json&, const ToolCallContext&)> handler;
  {
    std::lock_guard lock(mu_);
    for (const auto& t : tools_) {
      if (t.name == name) handler = t.handler;
    }
  }
  if (!handler) return std::nullopt;
  try {
    return handler(args, ctx);
  } catch (const std::exception& e) {
    return ToolDispatchResult{base::error_body("tool_failed", {{"message", e.what()}})};
  }
}

std::vector<std::string> ToolRegistry::names() const {
  std::lock_guard lock(mu_);
  std::vector<std::string> out;
  for (const auto& t : tools_) out.push_back(t.name);
  return out;
}

std::size_t ToolRegistry::size() const {
  std::lock_guard lock(mu_);
  return tools_.size();
}

// ---------------------------------------------------------------------------
// Built-in tools

namespace {

Json str(const char* description) { return {{"type", "string"}, {"description", description}}; }
Json str() { return {{"type", "string"}}; }
Json enum_of(std::vector<std::string> values, const char* def) {
  return {{"type", "string"}, {"enum", values}, {"default", def}};
}
Json object(Json properties, std::vector<std::string> required = {}) {
  Json o = {{"type", "object"}, {"properties", properties}};
  if (!required.empty()) o["required"] = required;
  return o;
}

using Handler = std::function<ToolDispatchResult(const Json&, const ToolCallContext&)>;

// The controller's answer as the tool's result: its JSON, or an error object.
ToolDispatchResult controller_call(const ToolCallContext& ctx, const std::string& method,
                                   const std::string& path, const Json& body) {
  if (ctx.controller_url.empty()) return {base::error_body("no_controller")};
  base::HttpHeaders headers;
  if (!ctx.api_key.empty()) headers.emplace_back("X-API-Key", ctx.api_key);
  for (const auto& h : ctx.auth_headers) {
    if (h.first != "X-API-Key") headers.push_back(h);
  }
  const auto timeout = std::chrono::seconds(30);
  base::HttpReply r = method == "GET" ? base::http_get(ctx.controller_url, path, headers, timeout)
                                      : base::http_post(ctx.controller_url, path,
                                                        base::dump_json(body), headers, timeout);
  if (!r.transport_ok) {
    return {base::error_body("controller_unreachable",
                             {{"controller", ctx.controller_url}, {"detail", r.error}})};
  }
  Json answer = base::parse_json(r.body);
  if (answer.is_discarded()) answer = r.body;
  if (!r.ok())
    return {base::error_body("controller_error", {{"status", r.status}, {"body", answer}})};
  return {answer};
}

Handler post_to(std::string path, std::function<void(Json&)> prepare = nullptr) {
  return [path = std::move(path), prepare = std::move(prepare)](const Json& args,
                                                                const ToolCallContext& ctx) {
    Json body = args.is_object() ? args : Json::object();
    if (prepare) prepare(body);
    return controller_call(ctx, "POST", path, body);
  };
}

Handler get_from(std::string path) {
  return [path = std::move(path)](const Json&, const ToolCallContext& ctx) {
    return controller_call(ctx, "GET", path, Json::object());
  };
}

// POST to "<prefix><args[id_key]><suffix>" with {"user_id", "role"}.
Handler invite(std::string prefix, std::string id_key, std::string suffix) {
  return [=](const Json& args, const ToolCallContext& ctx) {
    const std::string id = args.is_object() ? args.value(id_key, "") : "";
    if (id.empty() || id.find('/') != std::string::npos) {
      return ToolDispatchResult{base::error_body("missing " + id_key)};
    }
    Json body = {{"user_id", args.value("user_id", "")}, {"role", args.value("role", "member")}};
    return controller_call(ctx, "POST", prefix + id + suffix, body);
  };
}

}  // namespace

void register_builtin_tools(ToolRegistry& r) {
  const std::vector<std::string> scopes = {"all",     "knowledge", "artifacts", "comms",
                                           "science", "swarms",    "training",  "files"};
  r.register_tool(
      {"search",
       "Search the cluster for information. Hits all 8 registered sources by default (vector "
       "embeddings, matrix memory, comms, artifacts, science data, swarms, training, files). Set "
       "scope to limit to one source. This is your primary retrieval tool — call it before "
       "answering any factual question that isn't already in the conversation. NOTE: this does "
       "NOT search the public web; the cluster has no web-search source registered yet.",
       object({{"query", str("What to search for")},
               {"scope", enum_of(scopes, "all")},
               {"limit", {{"type", "integer"}, {"default", 10}, {"minimum", 1}, {"maximum", 100}}}},
              {"query"}),
       "", post_to("/api/v1/search")});
  r.register_tool(
      {"recall",
       "Recall stored facts / preferences / context from matrix memory by topic. Use this when "
       "the user asks 'what do you remember about X' or references something they told you in a "
       "previous session.",
       object({{"query", str("Topic to recall")},
               {"namespace", {{"type", "string"}, {"default", "default"}}}},
              {"query"}),
       "", post_to("/api/v1/memory/recall")});
  r.register_tool(
      {"store",
       "Persist a fact in matrix memory. The LLM picks the key — make it short and topical (e.g. "
       "'favorite_color', 'user.timezone', 'project.deadline'). The value is the actual content. "
       "Use whenever the user shares persistent context worth keeping across sessions.",
       object({{"key", str("Short topical identifier")},
               {"value", str("The fact / note to store")},
               {"namespace", {{"type", "string"}, {"default", "default"}}}},
              {"key", "value"}),
       "", post_to("/api/v1/memory/store")});
  r.register_tool(
      {"forget",
       "Remove a stored memory by key. Use when the user says 'forget X' or 'I changed "
       "my mind about Y'.",
       object({{"key", str()}, {"namespace", {{"type", "string"}, {"default", "default"}}}},
              {"key"}),
       "", post_to("/api/v1/memory/forget")});
  r.register_tool(
      {"send_message",
       "Send a message via email / SMS / WhatsApp / Signal / Teams / XMPP. Requires either "
       "account_id (preferred — the user's configured account) or `from` (a specific "
       "from-address). If neither is known, ask the user.",
       object({{"account_id", str()},
               {"from", str()},
               {"to", str()},
               {"subject", str()},
               {"body", str()},
               {"protocol",
                enum_of({"email", "sms", "whatsapp", "signal", "teams", "xmpp", "auto"}, "auto")}},
              {"to", "body"}),
       "developer", post_to("/api/v1/comm/send")});
  r.register_tool(
      {"transcribe",
       "Transcribe an audio URL to text via the media worker (Whisper or compatible STT).",
       object({{"audio_url", str()}, {"language", {{"type", "string"}, {"default", "auto"}}}},
              {"audio_url"}),
       "", post_to("/api/v1/stt/transcribe")});
  r.register_tool(
      {"speak", "Synthesise speech from text via the media worker (Piper, ElevenLabs, OpenAI TTS).",
       object({{"text", str()}, {"voice", str()}}, {"text"}), "",
       post_to("/api/v1/tts/synthesize")});
  r.register_tool(
      {"delegate_task",
       "Delegate a task to a specialised agent (researcher, coder, validator, planner, etc.). The "
       "agent runs autonomously with its own tool set and returns its result. Use for multi-step "
       "work that benefits from focused tool use.",
       object({{"agent", str("Agent type or registered agent id")},
               {"input", str("Task description for the agent")}},
              {"agent", "input"}),
       "developer", [](const Json& args, const ToolCallContext& ctx) {
         const Json a = args.is_object() ? args : Json::object();
         return controller_call(
             ctx, "POST", "/api/v1/agent/chat",
             {{"message", a.value("input", "")}, {"agent_type", a.value("agent", "general")}});
       }});
  r.register_tool(
      {"create_swarm",
       "Run a swarm of cooperating agents to tackle a complex goal end-to-end. Pick this tool "
       "whenever the user says 'use swarm', 'use a swarm', 'use multiple agents', 'parallel "
       "agents', or 'orchestrate' — even when the underlying request looks like a search, "
       "summary, or research task. The swarm seeds Controller + Researcher + Executor + "
       "Validator agents (or N agents you specify), dispatches sub-tasks across topology (mesh / "
       "star / hierarchical / ring / p2p), and returns each agent's output. The web is "
       "searchable through the Researcher agent's tools — DON'T pick `search_web` when the user "
       "explicitly asked for a swarm.",
       object(
           {{"goal", str("The high-level task or question for the swarm to solve.")},
            {"input", str("Concrete input the swarm should act on. Defaults to goal if omitted.")},
            {"topology", enum_of({"mesh", "star", "hierarchical", "ring", "peer"}, "peer")},
            {"agent_count", {{"type", "integer"}, {"default", 4}}}},
           {"goal"}),
       "developer", post_to("/api/v1/swarm/execute", [](Json& body) {
         if (!body.contains("input") || !body["input"].is_string() ||
             body["input"].get<std::string>().empty()) {
           body["input"] = body.value("goal", "");
         }
       })});
  r.register_tool({"read_url",
                   "Fetch and read the contents of a URL. Use when the user shares a link, or when "
                   "search results need elaboration. Returns the page's main text content.",
                   object({{"url", str()}}, {"url"}), "", post_to("/api/v1/tools/web_fetch")});
  r.register_tool(
      {"search_web",
       "Search the public web (DuckDuckGo / SearXNG). Returns titles + snippets + URLs. "
       "Follow up with read_url for the full page content of any interesting hit.",
       object({{"query", str()}, {"limit", {{"type", "integer"}, {"default", 10}}}}, {"query"}), "",
       post_to("/api/v1/tools/web_search")});
  r.register_tool({"list_projects",
                   "List the user's projects (id, name, description, visibility, member count).",
                   object(Json::object()), "", get_from("/api/v1/projects")});
  r.register_tool(
      {"create_project", "Create a new project. Owner is the calling user.",
       object({{"name", str()},
               {"description", str()},
               {"visibility", enum_of({"private", "project", "workgroup", "public"}, "private")}},
              {"name"}),
       "developer", post_to("/api/v1/projects")});
  r.register_tool({"invite_to_project",
                   "Add a user to a project with a given role (viewer, member, admin).",
                   object({{"project_id", str()},
                           {"user_id", str()},
                           {"role", enum_of({"viewer", "member", "admin"}, "member")}},
                          {"project_id", "user_id"}),
                   "developer", invite("/api/v1/projects/", "project_id", "/members")});
  r.register_tool({"list_workgroups", "List the user's workgroups (id, name, member count).",
                   object(Json::object()), "", get_from("/api/v1/workgroups")});
  r.register_tool({"create_workgroup", "Create a new workgroup. Owner is the calling user.",
                   object({{"name", str()}, {"description", str()}}, {"name"}), "developer",
                   post_to("/api/v1/workgroups")});
  r.register_tool({"invite_to_workgroup", "Add a user to a workgroup with a given role.",
                   object({{"workgroup_id", str()},
                           {"user_id", str()},
                           {"role", enum_of({"viewer", "member", "admin"}, "member")}},
                          {"workgroup_id", "user_id"}),
                   "developer", invite("/api/v1/workgroups/", "workgroup_id", "/members")});
}

// ---------------------------------------------------------------------------
// The loop

void inject_tool_surface(Json& messages) {
  if (!messages.is_array()) return;
  if (!messages.empty() && messages[0].is_object() && messages[0].value("role", "") == "system") {
    Json& first = messages[0];
    std::string content = first.contains("content") && first["content"].is_string()
                              ? first["content"].get<std::string>()
                              : "";
    if (content.find(kPromptMarker) != std::string::npos) return;
    first["content"] = content.empty() ? std::string(kToolSurfacePrompt)
                                       : std::string(kToolSurfacePrompt) + "\n\n" + content;
    return;
  }
  messages.insert(messages.begin(), Json{{"role", "system"}, {"content", kToolSurfacePrompt}});
}

void run_tool_calls(Json& messages, const Json& assistant, const ToolCallContext& ctx,
                    const ToolRegistry& tools, const PolicyCheck& policy) {
  messages.push_back(assistant);
  const Json calls = assistant.contains("tool_calls") && assistant["tool_calls"].is_array()
                         ? assistant["tool_calls"]
                         : Json::array();
  std::size_t ran = 0;
  for (const auto& call : calls) {
    if (!call.is_object()) continue;
    const std::string id =
        call.contains("id") && call["id"].is_string() ? call["id"].get<std::string>() : "";
    if (ran == kMaxToolCallsPerRound) {
      // Every call still gets its answer, so the conversation stays well formed.
      messages.push_back(
          {{"role", "tool"},
           {"tool_call_id", id},
           {"content",
            base::dump_json(base::error_body(
                "tool_call_limit",
                {{"message", "at most " + std::to_string(kMaxToolCallsPerRound) +
                                 " tool calls run per round; ask again for the rest"}}))}});
      continue;
    }
    ++ran;
    const Json fn = call.contains("function") && call["function"].is_object() ? call["function"]
                                                                              : Json::object();
    const std::string name =
        fn.contains("name") && fn["name"].is_string() ? fn["name"].get<std::string>() : "";
    Json args = Json::object();
    if (fn.contains("arguments")) {
      if (fn["arguments"].is_string()) {
        Json parsed = base::parse_json(fn["arguments"].get<std::string>());
        if (parsed.is_object()) args = parsed;  // anything else counts as {}
      } else if (fn["arguments"].is_object()) {
        args = fn["arguments"];
      }
    }
    Json content;
    std::optional<ToolDispatchResult> result;
    if (std::optional<Json> refused = policy ? policy(name, ctx) : std::nullopt) {
      content = *refused;
    } else if ((result = tools.dispatch(name, args, ctx))) {
      content = result->result;
    } else {
      content = base::error_body("unknown_tool", {{"name", name}});
    }
    messages.push_back({{"role", "tool"},
                        {"tool_call_id", id},
                        {"name", name},
                        {"content", base::dump_json(content)}});
  }
}

bool peek_finish_reason(std::string_view answer, std::string& finish, std::string* model) {
  base::JsonScanner scan(answer);
  bool seen = false;
  const bool ok = scan.object([&](std::string_view key) {
    if (key == "model" && model) {
      std::string_view m;
      if (!scan.plain_string(m)) return scan.skip_value(0);
      model->assign(m);
      return true;
    }
    if (key != "choices") return scan.skip_value(0);
    bool first = true;
    return scan.array([&] {
      if (!first) return scan.skip_value(1);
      first = false;
      return scan.object([&](std::string_view k) {
        if (k != "finish_reason") return scan.skip_value(2);
        std::string_view f;
        if (scan.peek() == 'n') return scan.skip_value(2);  // null: still running
        if (!scan.plain_string(f)) return false;
        finish.assign(f);
        seen = true;
        return true;
      });
    });
  });
  return ok && scan.at_end() && seen;
}

LoopOutcome run_tool_loop(Json request, const ToolCallContext& ctx, const ToolRegistry& tools,
                          const Upstream& upstream, const std::string& upstream_name,
                          const PolicyCheck& policy, const base::Logger& log) {
  LoopOutcome out;
  Json& messages = request["messages"];
  for (int i = 1; i <= kMaxIterations; ++i) {
    out.iterations = i;
    int status = 0;
    std::string answer;
    if (!upstream(base::dump_json(request), status, answer) || status < 200 || status >= 300) {
      out.status = 502;
      out.body = base::error_body("upstream_unreachable", {{"upstream", upstream_name}});
      if (status != 0) out.body["upstream_status"] = status;
      return out;
    }
    // An answer in words goes back as it came.
    if (std::string f; peek_finish_reason(answer, f) && f != "tool_calls") {
      log.debug("tool_loop: iter=" + std::to_string(i) + " finish=" + f);
      out.body = nullptr;
      out.text = std::move(answer);
      return out;
    }
    Json reply = base::parse_json(answer);
    answer = std::string();
    // Read in place: a long answer is not copied to be looked at.
    const Json* choice = nullptr;
    if (reply.is_object()) {
      auto c = reply.find("choices");
      if (c != reply.end() && c->is_array() && !c->empty()) choice = &(*c)[0];
    }
    std::string finish;
    if (choice && choice->is_object()) {
      auto f = choice->find("finish_reason");
      if (f != choice->end() && f->is_string()) finish = f->get<std::string>();
    }
    log.debug("tool_loop: iter=" + std::to_string(i) + " finish=" + finish);
    if (finish != "tool_calls") {
      if (!reply.is_object()) {
        out.status = 502;
        out.body = base::error_body("upstream_unreachable", {{"upstream", upstream_name},
                                                             {"detail", "answer is not JSON"}});
        return out;
      }
      out.body = std::move(reply);
      return out;
    }
    const Json assistant = choice->contains("message") && (*choice)["message"].is_object()
                               ? (*choice)["message"]
                               : Json{{"role", "assistant"}, {"content", nullptr}};
    run_tool_calls(messages, assistant, ctx, tools, policy);
  }
  out.capped = true;
  out.body = {
      {"id", "edge-tool-loop-cap"},
      {"object", "chat.completion"},
      {"choices",
       {{{"index", 0},
         {"message",
          {{"role", "assistant"}, {"content", "(tool loop hit max iterations — please retry)"}}},
         {"finish_reason", "stop"}}}},
      {"_ostrel_tool_loop_capped", true}};
  return out;
}

}  // namespace ostrel::edge
