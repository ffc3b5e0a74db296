#include "identity/role_service.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/text.h"

namespace ostrel::identity::tool_policy {

using Json = nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char* kHashKey = ",\"hash\":\"";

// The policy name of a catalogue tool: "RAGSearch" → "rag_search",
// "WebFetch" → "web_fetch"; a few catalogue names map onto the role table's
// own words.
std::string policy_name(const std::string& tool) {
  static const std::map<std::string, std::string> kAliases = {
      {"Read", "read_file"},
      {"Write", "write_file"},
      {"Edit", "write_file"},
      {"Forget", "qmm_forget"},
      // The chat-completions tool loop's built-in tools.
      {"search", "rag_search"},
      {"recall", "remember"},
      {"store", "qmm_store"},
      {"forget", "qmm_forget"},
      {"send_message", "send_email"},
      {"read_url", "web_fetch"},
      {"search_web", "web_search"}};
  if (auto it = kAliases.find(tool); it != kAliases.end()) return it->second;
  std::string out;
  for (std::size_t i = 0; i < tool.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(tool[i]);
    if (std::isupper(c) && i > 0) {
      const unsigned char prev = static_cast<unsigned char>(tool[i - 1]);
      const bool next_lower =
          i + 1 < tool.size() && std::islower(static_cast<unsigned char>(tool[i + 1]));
      if (std::islower(prev) || std::isdigit(prev) || (std::isupper(prev) && next_lower))
        out += '_';
    }
    out += static_cast<char>(std::tolower(c));
  }
  return out;
}

std::string iso_time(std::int64_t ms) {
  // One formatting per second per thread: every decision asks for it.
  thread_local std::time_t last = -1;
  thread_local char text[32];
  const std::time_t t = static_cast<std::time_t>(ms / 1000);
  if (t != last) {
    std::tm tm{};
    gmtime_r(&t, &tm);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    last = t;
  }
  return text;
}

void add_field(std::string& out, const char* key, std::string_view value) {
  out += ",\"";
  out += key;
  out += "\":";
  text::append_json_string(out, value);
}

}  // namespace

const char* decision_name(ToolDecision d) {
  static constexpr const char* kNames[] = {"allowed", "denied", "requires_approval"};
  return text::enum_name(d, kNames, "denied");
}

RoleService::RoleService() {
  auto allow = [](const char* pattern, const char* description) {
    return PermissionRule{pattern, ToolDecision::allowed, description};
  };
  roles_ = {
      {"viewer", "Viewer: read-only access", {allow("rag_search", "Read-only KB search")}},
      {"developer",
       "Developer: scoped tool set",
       {allow("rag_search", "KB search"), allow("web_search", "Web search"),
        allow("web_fetch", "Fetch web pages"), allow("read_file", "Read files"),
        allow("write_file", "Write files"), allow("bash", "Shell command"),
        allow("glob", "File pattern search"), allow("grep", "Content search"),
        allow("db_query", "Read-only SQL"), allow("qmm_store", "Matrix memory store"),
        allow("create_file", "Create artifact"), allow("science_search", "Science API"),
        allow("learn", "Memory store"), allow("remember", "Memory recall"),
        allow("send_email", "Send email"), allow("check_email", "Check inbox"),
        allow("search_messages", "Message search")}},
      {"admin",
       "Admin: full tenant access",
       {allow("ssh", "Admin remote shell"), allow("scp", "Admin remote copy"),
        allow("db_execute", "Admin SQL writes"), allow("qmm_forget", "Admin memory delete"),
        allow("train_create", "Training admin"), allow("train_status", "Training admin"),
        allow("train_stop", "Training admin"), allow("cluster_status", "Cluster admin"),
        allow("worker_deploy", "Cluster admin"), allow("router_config", "Cluster admin")}},
      // Cross-tenant operators may run every known tool.
      {"superadmin", "SuperAdmin: cross-tenant", {allow("*", "Every tool")}},
  };
  index_roles_();
}

RoleService::RoleService(std::vector<Role> table) : roles_(std::move(table)) { index_roles_(); }

void RoleService::index_roles_() {
  for (std::size_t i = 0; i < roles_.size(); ++i) {
    role_index_[roles_[i].name] = i;
    for (const auto& r : roles_[i].rules) {
      if (r.pattern.find('*') == std::string::npos) known_tools_.insert(r.pattern);
    }
  }
}

RoleService::~RoleService() = default;

RoleService& RoleService::getInstance() {
  static RoleService instance;
  return instance;
}

bool RoleService::parse_mode(const std::string& text, Mode& out) {
  if (text == "stub_allow") {
    out = Mode::stub_allow;
  } else if (text == "audit") {
    out = Mode::audit;
  } else if (text == "enforce") {
    out = Mode::enforce;
  } else {
    return false;
  }
  return true;
}

const char* RoleService::mode_name(Mode m) {
  switch (m) {
    case Mode::stub_allow:
      return "stub_allow";
    case Mode::audit:
      return "audit";
    case Mode::enforce:
      return "enforce";
  }
  return "stub_allow";
}

std::string RoleService::mode_description(Mode m) {
  switch (m) {
    case Mode::stub_allow:
      return "stub-allow (alpha109 default)";
    case Mode::audit:
      return "audit (denials are logged and counted, calls go through)";
    case Mode::enforce:
      return "enforce (denials refuse the call)";
  }
  return "";
}

void RoleService::attach(const fs::path& dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  bool opened = false;
  Json mode = base::read_json_file(dir / "mode.json", opened);
  Mode m;
  if (mode.is_object() && mode.contains("mode") && mode["mode"].is_string() &&
      parse_mode(mode["mode"], m)) {
    std::lock_guard lock(mu_);
    mode_ = m;
  }
  Json c = base::read_json_file(dir / "audit-counters.json", opened);
  if (c.is_object()) {
    std::lock_guard lock(counters_mu_);
    auto get = [&](const char* k) {
      return c.contains(k) && c[k].is_number_integer() ? c[k].get<std::int64_t>() : 0;
    };
    counters_ = {get("allowed"), get("denied"), get("would_have_denied"), get("admin_overrides")};
  }
  std::lock_guard lock(audit_mu_);
  dir_ = dir;
  // The chain continues from the last complete line; a line torn by a
  // crash is cut off, so the next entry starts on a line of its own.
  chain_.reset();
  base::replay_journal_lines(dir / "audit.log", [this](std::string_view line) {
    const std::size_t at = line.rfind(kHashKey);
    base::HashChain::Hash hash;
    if (at == std::string_view::npos ||
        !base::HashChain::from_hex(line.substr(at + std::strlen(kHashKey), 64), hash)) {
      return false;
    }
    chain_.advance(hash);
    return true;
  });
  audit_log_ = std::make_unique<base::AppendLog>(dir / "audit.log");
}

fs::path RoleService::audit_path() const {
  std::lock_guard lock(audit_mu_);
  return dir_.empty() ? fs::path() : dir_ / "audit.log";
}

ToolDecision RoleService::lookup_locked_(const std::string& role, const std::string& tool,
                                         bool& via_wildcard) const {
  via_wildcard = false;
  auto it = role_index_.find(role);
  if (it == role_index_.end()) it = role_index_.find("viewer");
  if (it == role_index_.end()) return ToolDecision::denied;
  const Role& r = roles_[it->second];
  if (r.rules.empty()) return ToolDecision::denied;
  std::string alias;  // made only when the name itself matches nothing
  for (const std::string* name : std::initializer_list<const std::string*>{&tool, &alias}) {
    if (name == &alias) {
      alias = policy_name(tool);
      if (alias == tool) break;
    }
    for (const auto& rule : r.rules) {
      if (rule.pattern == *name) return rule.decision;
    }
    for (const auto& rule : r.rules) {
      if (rule.pattern == "*") {
        via_wildcard = true;
        return rule.decision;
      }
      if (rule.pattern.size() > 1 && rule.pattern.back() == '*' &&
          name->compare(0, rule.pattern.size() - 1, rule.pattern, 0, rule.pattern.size() - 1) ==
              0) {
        return rule.decision;
      }
    }
  }
  return ToolDecision::denied;
}

ToolDecision RoleService::lookup(const std::string& role, const std::string& tool) const {
  bool wildcard = false;
  return lookup_locked_(role, tool, wildcard);
}

CheckOutcome RoleService::check(const std::string& tool, const CheckContext& ctx) {
  CheckOutcome o;
  Mode mode;
  bool via_wildcard = false;
  {
    std::lock_guard lock(mu_);
    mode = mode_;
    o.known_tool = known_tools_.count(tool) > 0;
    o.policy = o.known_tool ? lookup_locked_(ctx.role, tool, via_wildcard) : ToolDecision::denied;
  }
  switch (mode) {
    case Mode::stub_allow:
      o.decision = ToolDecision::allowed;
      break;
    case Mode::audit:
      o.decision = ToolDecision::allowed;
      o.was_audited = o.policy != ToolDecision::allowed;
      break;
    case Mode::enforce:
      o.decision = o.policy;
      break;
  }
  if (!o.known_tool) {
    o.reason = "policy.unknown_tool";
  } else if (o.policy == ToolDecision::denied) {
    o.reason = "policy.deny";
  } else if (o.policy == ToolDecision::requires_approval) {
    o.reason = "policy.approval";
  } else if (via_wildcard && (ctx.role == "superadmin" || ctx.role == "admin")) {
    o.reason = "admin.override";
  }
  write_audit_(tool, ctx, o, mode);
  std::lock_guard lock(counters_mu_);
  if (o.decision != ToolDecision::allowed) {
    ++counters_.denied;
  } else if (o.was_audited) {
    ++counters_.would_have_denied;
  } else if (o.reason == "admin.override") {
    ++counters_.admin_overrides;
  } else {
    ++counters_.allowed;
  }
  counters_dirty_ = true;
  return o;
}

void RoleService::write_audit_(const std::string& tool, const CheckContext& ctx,
                               const CheckOutcome& o, Mode mode) {
  const std::int64_t now = base::unix_ms();
  // The entry's text without its hash; the hash is then spliced in as the
  // last member, so the hashed bytes are exactly the line minus that member.
  std::string body = "{\"ts_ms\":" + std::to_string(now);
  add_field(body, "time", iso_time(now));
  add_field(body, "user_id", ctx.user_id);
  add_field(body, "role", ctx.role);
  add_field(body, "tool", tool);
  add_field(body, "tenant_id", ctx.tenant_id);
  add_field(body, "project_id", ctx.project_id);
  body += ",\"args\":";
  body += ctx.args_text.empty() ? base::dump_json(ctx.args) : ctx.args_text;
  add_field(body, "decision", decision_name(o.decision));
  add_field(body, "policy", decision_name(o.policy));
  add_field(body, "reason", o.reason);
  body += o.was_audited ? ",\"was_audited\":true" : ",\"was_audited\":false";
  add_field(body, "mode", mode_name(mode));
  add_field(body, "trace_id", ctx.trace_id);
  std::lock_guard lock(audit_mu_);
  if (!audit_log_) return;
  add_field(body, "prev_hash", chain_.length() ? base::HashChain::hex(chain_.head()) : "");
  body += '}';
  const base::HashChain::Hash hash = chain_.digest(body);
  body.pop_back();
  body += kHashKey;
  body += base::HashChain::hex(hash);
  body += "\"}\n";
  // A failed write does not change the decision; the chain goes on from the
  // last line that is in the file.
  std::string error;
  if (audit_log_->append(body, false, error)) chain_.advance(hash);
}

std::pair<std::uint64_t, std::string> RoleService::audit_head() const {
  std::lock_guard lock(audit_mu_);
  return {chain_.length(), chain_.length() ? base::HashChain::hex(chain_.head()) : ""};
}

RoleService::AuditVerification RoleService::verify_audit(
    const std::vector<std::uint64_t>& heads_at) const {
  AuditVerification v;
  const std::set<std::uint64_t> wanted(heads_at.begin(), heads_at.end());
  if (wanted.count(0)) v.heads[0] = "";
  const fs::path path = audit_path();
  if (path.empty()) return v;
  std::ifstream in(path, std::ios::binary);
  std::string line, prev;
  std::size_t n = 0;
  base::HashChain sha;
  while (std::getline(in, line)) {
    ++n;
    if (line.empty()) continue;
    const std::size_t at = line.rfind(kHashKey);
    const std::size_t hash_at = at + std::strlen(kHashKey);
    Json parsed = base::parse_json(line);
    if (at == std::string::npos || line.size() != hash_at + 66 ||
        line.compare(hash_at + 64, 2, "\"}") != 0 || !parsed.is_object()) {
      v.ok = false;
      v.first_bad_line = n;
      v.problem = "not a complete audit entry";
      return v;
    }
    const std::string stored = line.substr(hash_at, 64);
    std::string body = line.substr(0, at) + "}";
    if (base::HashChain::hex(sha.digest(body)) != stored) {
      v.ok = false;
      v.first_bad_line = n;
      v.problem = "hash does not match the entry";
      return v;
    }
    if (parsed.value("prev_hash", "") != prev) {
      v.ok = false;
      v.first_bad_line = n;
      v.problem = "chain broken: prev_hash is not the previous entry's hash";
      return v;
    }
    prev = stored;
    ++v.checked;
    if (wanted.count(v.checked)) v.heads[v.checked] = stored;
  }
  return v;
}

std::vector<Json> RoleService::audit_entries(std::size_t limit) const {
  std::vector<Json> out;
  const fs::path path = audit_path();
  if (path.empty()) return out;
  std::ifstream in(path, std::ios::binary);
  std::deque<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) continue;
    lines.push_back(std::move(line));
    if (lines.size() > limit) lines.pop_front();
  }
  for (const auto& l : lines) {
    Json j = base::parse_json(l);
    out.push_back(j.is_discarded() ? Json{{"unreadable", l.substr(0, 200)}} : j);
  }
  return out;
}

std::vector<std::string> RoleService::allowed_tools(const std::string& role) const {
  std::vector<std::string> out;
  std::lock_guard lock(mu_);
  for (const auto& tool : known_tools_) {
    bool wildcard = false;
    if (lookup_locked_(role, tool, wildcard) == ToolDecision::allowed) out.push_back(tool);
  }
  return out;  // sorted: the set is
}

void RoleService::add_known_tool(const std::string& name) {
  std::lock_guard lock(mu_);
  known_tools_.insert(name);
}

std::vector<std::string> RoleService::known_tools() const {
  std::lock_guard lock(mu_);
  return {known_tools_.begin(), known_tools_.end()};
}

bool RoleService::is_known(const std::string& name) const {
  std::lock_guard lock(mu_);
  return known_tools_.count(name) > 0;
}

RoleService::Mode RoleService::mode() const {
  std::lock_guard lock(mu_);
  return mode_;
}

bool RoleService::set_mode(Mode mode, std::string& error) {
  fs::path dir;
  {
    std::lock_guard lock(audit_mu_);
    dir = dir_;
  }
  if (!dir.empty() &&
      !base::write_file_atomically(
          dir / "mode.json",
          base::dump_json(Json{{"mode", mode_name(mode)}, {"updated_at_ms", base::unix_ms()}}) +
              "\n",
          error)) {
    return false;
  }
  std::lock_guard lock(mu_);
  mode_ = mode;
  return true;
}

Counters RoleService::counters() const {
  std::lock_guard lock(counters_mu_);
  return counters_;
}

bool RoleService::save_counters(std::string& error) {
  Counters c;
  {
    std::lock_guard lock(counters_mu_);
    if (!counters_dirty_) return true;
    c = counters_;
    counters_dirty_ = false;
  }
  fs::path dir;
  {
    std::lock_guard lock(audit_mu_);
    dir = dir_;
  }
  if (dir.empty()) return true;
  const bool ok =
      base::write_file_atomically(dir / "audit-counters.json",
                                  base::dump_json(Json{{"allowed", c.allowed},
                                                       {"denied", c.denied},
                                                       {"would_have_denied", c.would_have_denied},
                                                       {"admin_overrides", c.admin_overrides},
                                                       {"updated_at_ms", base::unix_ms()}}) +
                                      "\n",
                                  error);
  if (!ok) {
    std::lock_guard lock(counters_mu_);
    counters_dirty_ = true;  // try again next time
  }
  return ok;
}

Json RoleService::roles_json() const {
  Json out = Json::array();
  for (const auto& r : roles_) {
    Json rules = Json::array();
    for (const auto& rule : r.rules) {
      rules.push_back({{"tool", rule.pattern},
                       {"decision", decision_name(rule.decision)},
                       {"description", rule.description}});
    }
    out.push_back({{"role", r.name}, {"description", r.description}, {"rules", rules}});
  }
  return out;
}

RejectResponse RoleService::build_reject(const std::string& tool, const CheckOutcome& o,
                                         const CheckContext& ctx, const std::string& contact_url) {
  std::string code = "RBAC_UNKNOWN", message = "Access denied.", suggestion;
  int status = 403;
  if (!o.known_tool) {
    code = "RBAC_UNKNOWN_TOOL";
    message = "Unknown tool: '" + tool + "'.";
    suggestion = "See GET /api/v1/security/tools for the tools this node knows.";
    status = 404;
  } else if (o.policy == ToolDecision::requires_approval) {
    code = "RBAC_REQUIRES_APPROVAL";
    message = "'" + tool + "' requires admin approval; queued for review.";
    suggestion = "An admin will review your request shortly.";
    status = 202;
  } else if (o.policy == ToolDecision::denied) {
    code = "RBAC_INSUFFICIENT_ROLE";
    message = "Your role does not grant '" + tool + "'.";
    suggestion = "Ask an admin to grant your role access to this tool.";
  }
  RejectResponse r;
  r.http_status = status;
  r.body = base::error_body(code, {{"code", code},
                                   {"message", message},
                                   {"tool", tool},
                                   {"user_id", ctx.user_id},
                                   {"suggestion", suggestion},
                                   {"contact_url", contact_url},
                                   {"trace_id", ctx.trace_id},
                                   {"timestamp", iso_time(base::unix_ms())}});
  return r;
}

}  // namespace ostrel::identity::tool_policy
