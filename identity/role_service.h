#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "base/encoding.h"
#include "base/hash_chain.h"
#include "base/journal.h"
#include "base/no_copy.h"

// Which role may run which tool: a fixed role table with exact, "*" and
// "prefix*" rules; a mode (stub_allow, audit, enforce) deciding how the
// table's answer is applied; four counters; and an append-only audit log of
// every decision, each line hash-stamped and chained to the one before.
namespace ostrel::identity::tool_policy {

enum class ToolDecision : std::uint8_t { allowed = 0, denied = 1, requires_approval = 2 };
const char* decision_name(ToolDecision d);

struct PermissionRule {
  std::string pattern;
  ToolDecision decision = ToolDecision::allowed;
  std::string description;
};

struct Role {
  std::string name;
  std::string description;
  std::vector<PermissionRule> rules;
};

struct CheckContext {
  std::string user_id = "anon";
  std::string role = "viewer";
  std::string tenant_id = "default";
  std::string project_id;
  nlohmann::json args = nlohmann::json::object();
  // The arguments as compact JSON text, when the caller has them so
  // (recorded instead of `args`).
  std::string args_text;
  std::string trace_id;
};

struct Counters {
  std::int64_t allowed = 0;
  std::int64_t denied = 0;
  std::int64_t would_have_denied = 0;
  std::int64_t admin_overrides = 0;
};

// The outcome of one check.
struct CheckOutcome {
  ToolDecision decision = ToolDecision::denied;  // after the mode
  ToolDecision policy = ToolDecision::denied;    // what the role table says
  bool known_tool = true;
  bool was_audited = false;  // audit mode let through what enforce would refuse
  std::string
      reason;  // "policy.deny", "policy.approval", "policy.unknown_tool", "admin.override" or ""
};

// A refusal as clients see it, with the HTTP status that goes with it.
struct RejectResponse {
  int http_status = 403;
  nlohmann::json body;
};

class RoleService : private base::NoCopy {
 public:
  enum class Mode : std::uint8_t { stub_allow = 0, audit = 1, enforce = 2 };

  RoleService();  // the built-in role table
  explicit RoleService(std::vector<Role> table);
  ~RoleService();
  // The process-wide instance, created on first use.
  static RoleService& getInstance();

  // Restores the mode and counters from `dir` ("mode.json",
  // "audit-counters.json") and appends decisions to "<dir>/audit.log" from
  // now on (continuing its chain). Without it nothing is written.
  void attach(const std::filesystem::path& dir);

  // The table's answer for (role, tool), the mode not applied. An unknown
  // role is looked up as "viewer".
  ToolDecision lookup(const std::string& role, const std::string& tool) const;
  // Applies the mode, writes the audit entry and counts.
  CheckOutcome check(const std::string& tool, const CheckContext& ctx);
  // Known tool names that the table allows for `role`, sorted.
  std::vector<std::string> allowed_tools(const std::string& role) const;

  void add_known_tool(const std::string& name);
  std::vector<std::string> known_tools() const;
  bool is_known(const std::string& name) const;

  Mode mode() const;
  // Saves "mode.json" first; false (mode unchanged) when it cannot be written.
  bool set_mode(Mode mode, std::string& error);
  static bool parse_mode(const std::string& text, Mode& out);
  static const char* mode_name(Mode m);
  // "stub-allow (alpha109 default)", "audit (…)", "enforce (…)".
  static std::string mode_description(Mode m);

  Counters counters() const;
  // Writes "audit-counters.json" when something was counted since the last
  // save (the module's background thread calls it).
  bool save_counters(std::string& error);

  const std::vector<Role>& roles() const { return roles_; }
  nlohmann::json roles_json() const;
  std::filesystem::path audit_path() const;

  // The refusal of `tool` for `outcome`.
  static RejectResponse build_reject(const std::string& tool, const CheckOutcome& outcome,
                                     const CheckContext& ctx, const std::string& contact_url);

  // Recomputes every audit line's hash and the chain between them, and
  // notes the chain's head after each of `heads_at` entries (its checkpoints).
  struct AuditVerification {
    bool ok = true;
    std::size_t checked = 0;
    std::size_t first_bad_line = 0;  // 1-based, when !ok
    std::string problem;
    std::map<std::uint64_t, std::string> heads;  // entries → hash of the last one
  };
  AuditVerification verify_audit(const std::vector<std::uint64_t>& heads_at = {}) const;
  // The number of entries in the log and the hash of the last one ("" for
  // none), read together.
  std::pair<std::uint64_t, std::string> audit_head() const;
  // Audit entries (parsed lines), newest last, at most `limit` of the newest.
  std::vector<nlohmann::json> audit_entries(std::size_t limit) const;

 private:
  void index_roles_();  // role_index_ and the table's exact names as known tools
  ToolDecision lookup_locked_(const std::string& role, const std::string& tool,
                              bool& via_wildcard) const;
  void write_audit_(const std::string& tool, const CheckContext& ctx, const CheckOutcome& o,
                    Mode mode);

  std::vector<Role> roles_;  // fixed after construction
  std::map<std::string, std::size_t> role_index_;

  mutable std::mutex mu_;  // guards known_tools_ and mode_
  std::set<std::string> known_tools_;
  Mode mode_ = Mode::stub_allow;

  mutable std::mutex counters_mu_;  // guards counters_ and counters_dirty_
  Counters counters_;
  bool counters_dirty_ = false;

  mutable std::mutex audit_mu_;  // guards the audit file, its chain and dir_
  std::filesystem::path dir_;
  std::unique_ptr<base::AppendLog> audit_log_;  // "<dir>/audit.log" once attached
  // The newest complete entry's hash and how many there are; a first entry
  // names "" as its prev_hash.
  base::HashChain chain_;
};

}  // namespace ostrel::identity::tool_policy
