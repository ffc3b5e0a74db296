// The audit log's HTTP faces (GET /api/v1/audit, GET /api/v1/audit/verify)
// and its syscalls ("audit.append", "audit.query").
#include <charconv>
#include <nlohmann/json.hpp>

#include "base/access.h"
#include "base/json.h"
#include "base/json_scanner.h"
#include "base/reply.h"
#include "base/text.h"
#include "identity/audit_log.h"
#include "identity/identity_registry.h"
#include "identity/identity_routes.h"

namespace ostrel::identity {
namespace {

using Json = nlohmann::json;
using base::reply;
using base::Request;
using base::Response;

constexpr std::size_t kMaxLimit = 10000;

// Who reads: the scopes and tenant of the checked credential, of a token
// presented to a node that does not enforce auth, or (no token, auth off)
// an operator on the node itself.
struct Reader {
  std::vector<std::string> scopes;
  std::string tenant;
};

bool reader_of(const IdentityContext& ctx, const Request& req, Reader& out, Response& res) {
  if (base::credential_checked(req)) {
    out.scopes = req.scopes;
    out.tenant = req.tenant;
    return true;
  }
  if (!req.peer_node_id.empty()) {
    out.scopes = {"*"};
    return true;
  }
  std::string token = req.header("X-Ostrel-Capability");
  if (token.empty()) {
    const std::string& auth = req.header("Authorization");
    if (auth.rfind("Bearer ", 0) == 0) token = auth.substr(7);
  }
  if (token.empty()) {
    out.scopes = {"*"};
    return true;
  }
  base::AuthResult a = ctx.verify_token ? ctx.verify_token(token) : base::AuthResult{};
  if (!a.valid) {
    base::fail(res, 401, "invalid_token",
               {{"reason", a.reason.empty() ? "unverifiable" : a.reason}});
    return false;
  }
  out.scopes = std::move(a.scopes);
  out.tenant = std::move(a.tenant);
  return true;
}

// "audit.read" (or "audit.read:*", or an administrator's scope) reads every
// tenant the credential may see; "audit.read:<tenant>" reads that tenant.
// False (403 answered) when neither is held.
bool audit_scope(const Reader& r, std::string& only_tenant, Response& res) {
  only_tenant.clear();
  for (const auto& s : r.scopes) {
    if (s == "*" || s == "admin.*" || s == "kernel.*" || s == "audit.*" || s == "audit.read" ||
        s == "audit.read:*") {
      return true;
    }
  }
  for (const auto& s : r.scopes) {
    if (s.rfind("audit.read:", 0) == 0) {
      only_tenant = s.substr(11);
      return true;
    }
  }
  base::fail(res, 403, "missing_scope", {{"required", "audit.read"}});
  return false;
}

bool admin_reader(const Reader& r) {
  for (const auto& s : r.scopes) {
    if (s == "*" || s == "admin.*" || s == "kernel.*") return true;
  }
  return false;
}

bool read_ms(const std::string& text, std::int64_t& out) {
  if (text.empty()) return true;
  auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && p == text.data() + text.size() && out >= 0;
}

Json entries_json(const std::vector<AuditEvent>& events) {
  Json out = Json::array();
  for (const auto& e : events) out.push_back(AuditLog::to_json(e));
  return out;
}

// The arguments of "audit.append".
struct AppendArgs {
  std::string action;
  std::string resource;
  std::string outcome = "ok";
  std::string tenant;
  std::string actor;
  bool has_actor = false;
  std::string metadata = "{}";
};

bool read_append_args_fast(std::string_view text, AppendArgs& a) {
  base::JsonScanner s(text);
  bool ok = s.object([&](std::string_view key) {
    std::string* slot = key == "action"     ? &a.action
                        : key == "resource" ? &a.resource
                        : key == "outcome"  ? &a.outcome
                        : key == "tenant"   ? &a.tenant
                        : key == "actor"    ? &a.actor
                                            : nullptr;
    if (slot) {
      if (key == "actor") a.has_actor = true;
      return s.string(*slot);
    }
    if (key == "metadata") {
      std::string_view raw;
      if (s.peek() != '{' || !s.raw_value(raw) || !text::json_compact(raw)) return false;
      a.metadata.assign(raw);
      return true;
    }
    return false;  // trace_id, nulls and the unexpected: the parser's path
  });
  return ok && s.at_end();
}

bool read_append_args(const Json& j, AppendArgs& a, std::string& error) {
  auto action = j.find("action");
  if (action == j.end() || !action->is_string() || action->get<std::string>().empty()) {
    error = "missing action";
    return false;
  }
  a.action = *action;
  for (auto [key, slot] : {std::pair{"resource", &a.resource},
                           {"outcome", &a.outcome},
                           {"tenant", &a.tenant},
                           {"actor", &a.actor}}) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) continue;
    if (!it->is_string()) {
      error = "actor, resource, outcome and tenant are strings";
      return false;
    }
    *slot = it->get<std::string>();
    if (slot == &a.actor) a.has_actor = true;
  }
  Json metadata = j.value("metadata", Json::object());
  if (metadata.is_null()) metadata = Json::object();
  if (!metadata.is_object()) {
    error = "metadata must be an object";
    return false;
  }
  if (auto trace = j.find("trace_id"); trace != j.end() && trace->is_string()) {
    metadata["trace_id"] = *trace;
  }
  a.metadata = base::dump_json(metadata);
  return true;
}

}  // namespace

void register_audit_routes(const IdentityContext& ctx, const AddRoute& add) {
  add("GET", "/api/v1/audit", [ctx](const Request& req, Response& res) {
    Reader reader;
    if (!reader_of(ctx, req, reader, res)) return;
    std::string scope_tenant;
    if (!audit_scope(reader, scope_tenant, res)) return;

    AuditLog::Filter f;
    const std::string limit = req.param("limit");
    std::int64_t n = 100;
    if (!limit.empty() &&
        (!read_ms(limit, n) || n < 1 || n > static_cast<std::int64_t>(kMaxLimit))) {
      base::fail(res, 400, "invalid_limit", "limit must be between 1 and 10000");
      return;
    }
    f.limit = static_cast<std::size_t>(n);
    if (!read_ms(req.param("since"), f.since_ms) || !read_ms(req.param("until"), f.until_ms)) {
      base::fail(res, 400, "invalid_time", "since and until are Unix milliseconds");
      return;
    }
    if (req.has_param("actor")) f.actor = req.param("actor");
    if (req.has_param("action")) f.action = req.param("action");

    // The tenant read: the one asked for, limited to the one the credential
    // is bound to (by its tenant, or by an "audit.read:<tenant>" scope).
    std::string bound = scope_tenant;
    if (bound.empty() && !admin_reader(reader)) bound = reader.tenant;
    const std::string requested = req.param("tenant");
    if (!bound.empty() && !requested.empty() && requested != bound) {
      base::fail(res, 403, "cross_tenant_read_denied",
                 {{"token_tenant", bound}, {"requested_tenant", requested}});
      return;
    }
    const std::string tenant = requested.empty() ? bound : requested;
    if (!tenant.empty()) {
      if (ctx.tenants && !ctx.tenants->is_active(tenant)) {
        base::fail(res, 404, "tenant_unknown_or_inactive", {{"tenant", tenant}});
        return;
      }
      f.tenant = tenant;
    }
    std::size_t total = 0;
    std::vector<AuditEvent> events = ctx.audit_log->query(f, total);
    reply(
        res,
        {{"entries", entries_json(events)}, {"total_in_log", total}, {"returned", events.size()}});
  });

  add("GET", "/api/v1/audit/verify", [ctx](const Request& req, Response& res) {
    Reader reader;
    if (!reader_of(ctx, req, reader, res)) return;
    std::string scope_tenant;
    if (!audit_scope(reader, scope_tenant, res)) return;
    AuditLog::Verification v = ctx.audit_log->verify();
    Json out = {{"ok", v.ok}, {"checked", v.checked}, {"total_in_log", v.total}};
    if (!v.ok) out["first_bad_seq"] = v.first_bad_seq;
    // The chain as a whole against what the node signed: a cut tail or a
    // rewritten chain with recomputed hashes passes the links, not these.
    if (ctx.audit_checkpoints) {
      std::vector<std::uint64_t> counts;
      for (const auto& [n, head] : ctx.audit_checkpoints->signed_heads()) counts.push_back(n);
      const auto verdict =
          ctx.audit_checkpoints->judge(ctx.audit_log->size(), ctx.audit_log->heads_after(counts));
      out["checkpoints"] = ChainCheckpoints::to_json(verdict);
      if (!verdict.ok) out["ok"] = false;
    }
    reply(res, out);
  });
}

void register_audit_syscalls(const IdentityContext& ctx, const AddSyscall& add) {
  using base::json_syscall;
  // The usual argument shape (string members and a metadata object written
  // compactly) is read without a JSON tree; anything else takes the parser.
  add("audit.append", [ctx](std::string_view args) -> base::SyscallResult {
    AppendArgs a;
    const bool fast = read_append_args_fast(args, a);
    if (!fast) {
      Json j = args.empty() ? Json::object() : base::parse_json(args);
      if (!j.is_object()) return base::syscall_error("invalid_json");
      std::string error;
      if (!read_append_args(j, a, error)) {
        return error == "missing action" ? base::syscall_error(error)
                                         : base::syscall_error("invalid_field", error);
      }
    }
    if (a.action.empty()) return base::syscall_error("missing action");
    const SourceCode caller = ctx.syscall_caller ? ctx.syscall_caller() : SourceCode{};
    if (!a.has_actor) a.actor = "module:" + identity_registry::path_name(caller);
    AuditEvent e = ctx.audit_log->append(caller, std::move(a.actor), std::move(a.action),
                                         std::move(a.resource), std::move(a.outcome),
                                         std::move(a.tenant), std::move(a.metadata));
    std::string out = "{\"seq\":" + std::to_string(e.seq) +
                      ",\"ts_unix_ms\":" + std::to_string(e.ts_ms) + ",\"hash\":\"" +
                      AuditLog::to_hex(e.hash) + "\",\"prev_hash\":\"" +
                      AuditLog::to_hex(e.prev_hash) + "\"}";
    return base::SyscallResult{0, std::move(out)};
  });
  add("audit.verify", json_syscall([ctx](const Json&) {
        AuditLog::Verification v = ctx.audit_log->verify();
        Json out = {{"ok", v.ok}, {"checked", v.checked}, {"total_in_log", v.total}};
        if (!v.ok) out["first_bad_seq"] = v.first_bad_seq;
        return base::syscall_ok(out);
      }));
  add("audit.query", json_syscall([ctx](const Json& a) {
        AuditLog::Filter f;
        f.limit = static_cast<std::size_t>(
            std::clamp<std::int64_t>(base::int_value(a, "limit", 100), 1, 1000000));
        for (auto [key, slot] :
             {std::pair{"actor", &f.actor}, {"action", &f.action}, {"tenant", &f.tenant}}) {
          if (auto it = a.find(key); it != a.end() && it->is_string())
            *slot = it->get<std::string>();
        }
        f.since_ms = base::int_value(a, "since", 0);
        f.until_ms = base::int_value(a, "until", 0);
        std::size_t total = 0;
        std::vector<AuditEvent> events = ctx.audit_log->query(f, total);
        return base::syscall_ok({{"entries", entries_json(events)},
                                 {"total_in_log", total},
                                 {"returned", events.size()}});
      }),
      base::SyscallAccess::tenant("audit.read"));
}

}  // namespace ostrel::identity
