// The "security" module: the tool registry, the role service's decisions
// over HTTP and syscalls, its audit log, and compliance reports.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/json.h"
#include "base/json_scanner.h"
#include "base/logger.h"
#include "base/names.h"
#include "base/reply.h"
#include "base/text.h"
#include "base/trace.h"
#include "base/workers.h"
#include "identity/chain_checkpoints.h"
#include "identity/role_service.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"
#include "tools/registry.h"

namespace ostrel::security {
namespace {

using Json = nlohmann::json;
using base::reply;
using identity::ChainCheckpoints;
// The policy library this module serves: the role table, the decisions and
// the decision log.
using namespace identity::tool_policy;
using kernel::Request;
using kernel::Response;
namespace fs = std::filesystem;

constexpr identity::SourceCode kSecuritySource{0x0e, 0x06};
const std::vector<std::string> kRegimes = {"hipaa", "gdpr", "21cfr-part-11", "glp"};
constexpr const char* kModeError = "mode must be stub_allow, audit, or enforce";

// The compliance category of an audited action name.
std::string compliance_category(const std::string& a) {
  auto starts = [&](const char* p) { return a.rfind(p, 0) == 0; };
  if (starts("auth.") || a == "login" || a == "logout" || starts("session.")) return "auth";
  if (starts("data.read") || starts("data.write") || starts("data.access") || starts("rag.") ||
      starts("vector.") || starts("kb.read")) {
    return "data-access";
  }
  if (starts("data.delete") || starts("forget") || a == "right-to-be-forgotten" ||
      a.find(".delete") != std::string::npos) {
    return "deletion";
  }
  if (starts("admin.") || starts("role.") || starts("tenant.") || starts("policy.")) return "admin";
  return "other";
}

std::string html_escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The context of a check request: {"user_id", "role", "tenant_id", "project_id", "args"}.
bool read_context(const Json& body, CheckContext& ctx, std::string& error) {
  auto it = body.find("context");
  if (it == body.end() || it->is_null()) return true;
  if (!it->is_object()) {
    error = "context must be an object";
    return false;
  }
  for (auto [key, slot] : {std::pair{"user_id", &ctx.user_id},
                           {"role", &ctx.role},
                           {"tenant_id", &ctx.tenant_id},
                           {"project_id", &ctx.project_id}}) {
    auto v = it->find(key);
    if (v == it->end() || v->is_null()) continue;
    if (!v->is_string()) {
      error = std::string("context.") + key + " must be a string";
      return false;
    }
    *slot = v->get<std::string>();
  }
  if (auto a = it->find("args"); a != it->end() && !a->is_null()) ctx.args = *a;
  return true;
}

// The tool's arguments given beside the context rather than inside it.
void read_top_level_args(const Json& body, CheckContext& ctx) {
  auto a = body.find("args");
  if (a != body.end() && !a->is_null() &&
      (!body.contains("context") || !body["context"].is_object() ||
       !body["context"].contains("args"))) {
    ctx.args = *a;
  }
}

// {"tool", "context": {…}} of the usual shape, read without a JSON tree;
// false sends the text to the JSON parser.
bool read_check_fast(std::string_view text, std::string& tool, CheckContext& ctx) {
  base::JsonScanner s(text);
  const bool ok = s.object([&](std::string_view key) {
    if (key == "tool") return s.string(tool);
    if (key == "args") {  // the tool's arguments beside the context
      std::string_view raw;
      if (s.peek() != '{' || !s.raw_value(raw) || !text::json_compact(raw)) return false;
      ctx.args_text.assign(raw);
      return true;
    }
    if (key != "context") return false;
    return s.object([&](std::string_view k) {
      std::string* slot = k == "user_id"      ? &ctx.user_id
                          : k == "role"       ? &ctx.role
                          : k == "tenant_id"  ? &ctx.tenant_id
                          : k == "project_id" ? &ctx.project_id
                                              : nullptr;
      if (slot) return s.string(*slot);
      if (k != "args") return false;
      std::string_view raw;
      if (s.peek() != '{' || !s.raw_value(raw) || !text::json_compact(raw)) return false;
      ctx.args_text.assign(raw);
      return true;
    });
  });
  return ok && s.at_end();
}

class SecurityModule : public kernel::Module {
 public:
  ~SecurityModule() override { stop(); }
  identity::SourceCode source_code() const override { return kSecuritySource; }

  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override;
  kernel::HealthStatus health() override;
  void register_routes(kernel::ApiGateway& gw) override;
  void register_syscalls(kernel::SyscallTable& table) override;

 private:
  // The decision for a {"tool", "context"} request text as routes and
  // syscalls answer it; `status` is the HTTP status (the rejection's when
  // refused).
  // `caller`: the HTTP request the check came in on, whose checked
  // credential decides role, user and tenant; null for syscalls.
  std::string check_text_(std::string_view text, int& status, const Request* caller = nullptr);
  std::string decide_(const std::string& tool, CheckContext& ctx, int& status);
  Json set_mode_(const Json& body, int& status);
  // Gives the mode in force its "policy.mode.set" event when the audit log's
  // last one names another (a crash between mode.json and the append, or a
  // mode applied from the settings at this start).
  void record_mode_in_audit_();
  Json export_report_(const Json& body, int& status);
  void serve_report_(const Request& req, Response& res, const std::string& id);
  void counters_loop_();
  // The decision log's signed checkpoints (the node's key, through the
  // kernel's "audit.checkpoint.*" syscalls): opened and judged at start,
  // written while the log grows and at stop.
  void open_checkpoints_();
  void checkpoint_();
  ChainCheckpoints::Verdict judge_checkpoints_(const RoleService::AuditVerification& v) const;

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  RoleService* roles_ = &RoleService::getInstance();
  tools::Registry registry_;
  fs::path dir_;
  fs::path reports_dir_;
  std::string contact_url_;

  bool mode_from_settings_ = false;                // security.mode changed the mode at this start
  base::Workers workers_;                          // the counters loop; joined by stop()
  std::unique_ptr<ChainCheckpoints> checkpoints_;  // null when the kernel cannot sign
};

bool SecurityModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("security"));
  const fs::path data_dir = ctx.config->get("data_dir", ctx.data_dir);
  dir_ = data_dir / "security";
  reports_dir_ = data_dir / "compliance" / "reports";
  contact_url_ = ctx.config->get("contact_url", "/help/security");
  std::error_code ec;
  fs::create_directories(dir_, ec);
  if (ec) log_->error("security dir " + dir_.string() + " not created: " + ec.message());
  base::remove_stale_temporaries(dir_);

  registry_.seed_defaults();
  // Names are copied out of the registry before the role service's lock is
  // taken: the two locks never nest.
  for (const std::string& name : registry_.names()) roles_->add_known_tool(name);
  roles_->attach(dir_);
  // An operator's mode setting wins over the saved one at every start.
  if (const std::string wanted = ctx.config->get("mode", ""); !wanted.empty()) {
    RoleService::Mode m;
    std::string error;
    if (!RoleService::parse_mode(wanted, m)) {
      log_->warn("security.mode '" + wanted + "' is not stub_allow, audit or enforce — ignored");
    } else if (m != roles_->mode()) {
      if (roles_->set_mode(m, error)) {
        mode_from_settings_ = true;
      } else {
        log_->warn("security.mode not applied: " + error);
      }
    }
  }
  log_->info(std::string("initialize — mode=") + RoleService::mode_name(roles_->mode()) +
             ", tools=" + std::to_string(roles_->known_tools().size()) +
             ", audit=" + roles_->audit_path().string());
  if (roles_->mode() == RoleService::Mode::stub_allow) {
    log_->warn(
        "tool policy mode is stub_allow: every tool runs whatever the caller's role "
        "(the tool loop included); on a node others use, set enforce "
        "(--config-set security.mode=enforce, or PUT /api/v1/security/mode)");
  }
  open_checkpoints_();
  return true;
}

void SecurityModule::open_checkpoints_() {
  if (!ctx_.syscalls->has("audit.checkpoint.sign")) {
    log_->warn("decision log checkpoints off: the kernel offers no checkpoint signing");
    return;
  }
  Json key =
      base::parse_json(ctx_.syscalls->call(kSecuritySource, "audit.checkpoint.key", "{}").body);
  std::string public_key;
  if (!key.is_object() || !base::from_hex(base::string_field(key, "public_key"), public_key)) {
    log_->warn("decision log checkpoints off: no node key");
    return;
  }
  kernel::SyscallTable* syscalls = ctx_.syscalls;
  checkpoints_ = std::make_unique<ChainCheckpoints>(
      dir_ / "audit.checkpoints.jsonl", "security", public_key,
      [syscalls](std::string_view message) -> std::string {
        // The kernel signs checkpoint messages only: the fields go across,
        // and it builds the message itself.
        const std::string m(message);
        std::vector<std::string> parts;
        for (std::size_t at = 0;;) {
          const std::size_t bar = m.find('|', at);
          parts.push_back(m.substr(at, bar == std::string::npos ? bar : bar - at));
          if (bar == std::string::npos) break;
          at = bar + 1;
        }
        if (parts.size() != 5) return "";
        Json args = {{"chain", parts[1]},
                     {"count", std::stoull(parts[2])},
                     {"head", parts[3]},
                     {"ts_ms", std::stoll(parts[4])}};
        Json r = base::parse_json(
            syscalls->call(kSecuritySource, "audit.checkpoint.sign", base::dump_json(args)).body);
        std::string sig;
        if (!r.is_object() || !base::base64url_decode(base::string_field(r, "signature"), sig)) {
          return "";
        }
        return sig;
      });
  const std::size_t n = checkpoints_->load();
  std::vector<std::uint64_t> counts;
  for (const auto& [count, head] : checkpoints_->signed_heads()) counts.push_back(count);
  ChainCheckpoints::Verdict v = judge_checkpoints_(roles_->verify_audit(counts));
  const std::uint64_t entries = roles_->audit_head().first;
  if (v.ok && !checkpoints_->existed() && entries > 0 && n == 0 && fs::exists(dir_ / "mode.json")) {
    // Not a first start: a log with entries and no checkpoint file lost it.
    v.ok = false;
    v.problem = "the decision log holds " + std::to_string(entries) +
                " entries but its checkpoint file is gone";
  }
  if (!v.ok) {
    log_->error("decision log integrity: " + v.problem);
    if (ctx_.syscalls->has("audit.append")) {
      ctx_.syscalls->call(kSecuritySource, "audit.append",
                          base::dump_json({{"action", "security.audit.integrity_failed"},
                                           {"outcome", "failed"},
                                           {"metadata", {{"problem", v.problem}}}}));
    }
  }
  checkpoint_();
}

ChainCheckpoints::Verdict SecurityModule::judge_checkpoints_(
    const RoleService::AuditVerification& v) const {
  // The entries the chain verified are the log's length for the checkpoints.
  return checkpoints_->judge(v.ok ? v.checked : roles_->audit_head().first, v.heads);
}

void SecurityModule::checkpoint_() {
  if (!checkpoints_) return;
  const auto [count, head] = roles_->audit_head();
  std::string error;
  if (!checkpoints_->record(count, head, error)) {
    log_->warn("decision log checkpoint not written: " + error);
  }
}

bool SecurityModule::start() {
  record_mode_in_audit_();
  workers_.spawn([this] { counters_loop_(); });
  return true;
}

void SecurityModule::stop() { workers_.stop(); }

void SecurityModule::counters_loop_() {
  std::uint64_t rounds = 0;
  for (;;) {
    const bool stopping = workers_.wait_for(std::chrono::seconds(5));
    std::string error;
    if (!roles_->save_counters(error)) log_->warn("audit-counters.json not saved: " + error);
    // The log's head, signed now and then (and last at stop).
    if (stopping || ++rounds % 12 == 0) checkpoint_();
    if (stopping) return;
  }
}

kernel::HealthStatus SecurityModule::health() {
  const Counters c = roles_->counters();
  return {kernel::HealthState::healthy,
          std::string("security ok — mode=") + RoleService::mode_name(roles_->mode()) +
              ", allowed=" + std::to_string(c.allowed) + ", denied=" + std::to_string(c.denied)};
}

// ---------------------------------------------------------------------------

std::string SecurityModule::check_text_(std::string_view text, int& status, const Request* caller) {
  std::string tool;
  CheckContext ctx;
  if (!read_check_fast(text, tool, ctx)) {
    tool.clear();
    ctx = CheckContext{};
    Json body = text.empty() ? Json::object() : base::parse_json(text);
    if (!body.is_object()) {
      status = 400;
      return base::dump_json(base::error_body("invalid_json"));
    }
    auto t = body.find("tool");
    if (t != body.end() && t->is_string()) tool = *t;
    std::string error;
    if (!read_context(body, ctx, error)) {
      status = 400;
      return base::dump_json(base::error_body("invalid_context", {{"message", error}}));
    }
    read_top_level_args(body, ctx);
  }
  if (tool.empty()) {
    status = 400;
    return base::dump_json(base::error_body("missing tool"));
  }
  // A checked credential speaks for itself: the body cannot name another
  // role, user or tenant for the decision it records.
  if (caller && base::credential_checked(*caller)) {
    ctx.role = base::role_from_scopes(*caller);
    ctx.user_id = !caller->user_id.empty()    ? caller->user_id
                  : !caller->token_id.empty() ? "token:" + caller->token_id
                                              : "anon";
    if (!caller->tenant.empty()) ctx.tenant_id = caller->tenant;
  } else if (caller && base::anonymous(*caller)) {
    ctx.role = "viewer";
    ctx.user_id = "anon";
  }
  return decide_(tool, ctx, status);
}

std::string SecurityModule::decide_(const std::string& tool, CheckContext& ctx, int& status) {
  status = 200;
  if (const auto* trace = obs::current_context(); trace && trace->valid()) {
    ctx.trace_id = trace->trace_id;
  }
  CheckOutcome o = roles_->check(tool, ctx);
  const char* mode = RoleService::mode_name(roles_->mode());
  if (o.decision == ToolDecision::allowed) {
    // The usual answer, written directly (keys in the order a JSON object
    // would print them).
    std::string out = R"({"decision":"allowed","mode":")";
    out += mode;
    out += R"(","reason":)";
    text::append_json_string(out, o.reason);
    out += R"(,"role":)";
    text::append_json_string(out, ctx.role);
    out += R"(,"tool":)";
    text::append_json_string(out, tool);
    out += o.was_audited ? R"(,"was_audited":true})" : R"(,"was_audited":false})";
    return out;
  }
  RejectResponse r = RoleService::build_reject(tool, o, ctx, contact_url_);
  status = r.http_status;
  return base::dump_json({{"decision", decision_name(o.decision)},
                          {"mode", mode},
                          {"tool", tool},
                          {"role", ctx.role},
                          {"was_audited", o.was_audited},
                          {"reason", o.reason},
                          {"error", r.body["code"]},
                          {"reject", r.body},
                          {"http_status", r.http_status}});
}

Json SecurityModule::set_mode_(const Json& body, int& status) {
  status = 200;
  RoleService::Mode m;
  auto mode = body.find("mode");
  if (mode == body.end() || !mode->is_string() || !RoleService::parse_mode(*mode, m)) {
    status = 400;
    return base::error_body(kModeError);
  }
  std::string error;
  if (!roles_->set_mode(m, error)) {
    log_->warn("mode.json not written: " + error);
    status = 500;
    return base::error_body("persist_failed");
  }
  log_->info(std::string("policy mode set to ") + RoleService::mode_name(m));
  if (ctx_.syscalls->has("audit.append")) {
    ctx_.syscalls->call(kSecuritySource, "audit.append",
                        base::dump_json({{"action", "policy.mode.set"},
                                         {"resource", "security.mode"},
                                         {"metadata", {{"mode", RoleService::mode_name(m)}}}}));
  }
  return {{"mode", RoleService::mode_name(m)}, {"description", RoleService::mode_description(m)}};
}

void SecurityModule::record_mode_in_audit_() {
  if (!ctx_.syscalls->has("audit.query") || !ctx_.syscalls->has("audit.append")) return;
  const char* mode = RoleService::mode_name(roles_->mode());
  kernel::SyscallResult r =
      ctx_.syscalls->call(kSecuritySource, "audit.query",
                          base::dump_json({{"action", "policy.mode.set"}, {"limit", 1}}));
  const Json found = base::parse_json(r.body);
  if (r.status != 0 || !found.is_object() || !found["entries"].is_array()) {
    log_->warn("the audit log could not be asked for the last mode change");
    return;
  }
  std::string recorded = "stub_allow";  // a new node's mode, which needs no event
  if (!found["entries"].empty()) {
    const Json& meta = found["entries"].back()["metadata"];
    recorded = meta.is_object() ? meta.value("mode", "") : "";
  }
  if (recorded == mode) return;
  Json metadata = {{"mode", mode}};
  metadata[mode_from_settings_ ? "from_settings" : "recovered"] = true;
  ctx_.syscalls->call(
      kSecuritySource, "audit.append",
      base::dump_json(
          {{"action", "policy.mode.set"}, {"resource", "security.mode"}, {"metadata", metadata}}));
  log_->info(std::string("audit: recorded the mode in force (") + mode + ")");
}

Json SecurityModule::export_report_(const Json& body, int& status) {
  status = 200;
  std::string regime = "gdpr";
  if (auto r = body.find("regime"); r != body.end() && !r->is_null()) {
    if (!r->is_string() ||
        std::find(kRegimes.begin(), kRegimes.end(), r->get<std::string>()) == kRegimes.end()) {
      status = 400;
      return base::error_body("unknown_regime", {{"regimes", kRegimes}});
    }
    regime = *r;
  }
  std::string tenant;
  if (auto t = body.find("tenant"); t != body.end() && t->is_string()) tenant = *t;

  // The tool decisions of the security audit log…
  Json by_category = {{"auth", 0}, {"data-access", 0}, {"deletion", 0}, {"admin", 0}, {"other", 0}};
  std::int64_t checks = 0, allowed = 0, denied = 0, audited = 0;
  Json decisions = Json::array();
  for (const Json& e : roles_->audit_entries(100000)) {
    if (!e.is_object() || !e.contains("tool")) continue;
    if (!tenant.empty() && e.value("tenant_id", "") != tenant) continue;
    ++checks;
    const std::string decision = e.value("decision", "");
    decision == "allowed" ? ++allowed : ++denied;
    if (e.value("was_audited", false)) ++audited;
    by_category[compliance_category(e.value("tool", ""))] =
        by_category[compliance_category(e.value("tool", ""))].get<int>() + 1;
    decisions.push_back(e);
    if (decisions.size() > 1000) decisions.erase(decisions.begin());
  }
  // …and the node's audit chain.
  Json kernel_events = {{"available", false}};
  if (ctx_.syscalls->has("audit.query")) {
    Json args = {{"limit", 1000000}};
    if (!tenant.empty()) args["tenant"] = tenant;
    Json q = base::parse_json(
        ctx_.syscalls->call(kSecuritySource, "audit.query", base::dump_json(args)).body);
    Json v = base::parse_json(ctx_.syscalls->call(kSecuritySource, "audit.verify", "{}").body);
    Json cats = {{"auth", 0}, {"data-access", 0}, {"deletion", 0}, {"admin", 0}, {"other", 0}};
    if (q.is_object() && q.contains("entries")) {
      for (const auto& e : q["entries"]) {
        const std::string c = compliance_category(e.value("action", ""));
        cats[c] = cats[c].get<int>() + 1;
      }
    }
    kernel_events = {{"available", true},
                     {"events", q.is_object() ? q.value("returned", 0) : 0},
                     {"by_category", cats},
                     {"chain_ok", v.is_object() && v.value("ok", false)}};
  }

  static std::mt19937 rng(std::random_device{}());
  static std::mutex rng_mu;  // guards rng
  char id[48];
  {
    std::lock_guard lock(rng_mu);
    std::time_t t = static_cast<std::time_t>(base::unix_s());
    std::tm tm{};
    gmtime_r(&t, &tm);
    char when[20];
    std::strftime(when, sizeof when, "%Y%m%d%H%M%S", &tm);
    std::snprintf(id, sizeof id, "rpt-%s-%06x", when, static_cast<unsigned>(rng() & 0xffffff));
  }
  const std::string generated = [] {
    std::time_t t = static_cast<std::time_t>(base::unix_s());
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return std::string(buf);
  }();
  Json report = {{"report_id", id},
                 {"regime", regime},
                 {"tenant", tenant.empty() ? "(all tenants)" : tenant},
                 {"generated_at", generated},
                 {"mode", RoleService::mode_name(roles_->mode())},
                 {"tool_checks",
                  {{"total", checks},
                   {"allowed", allowed},
                   {"denied", denied},
                   {"would_have_denied", audited},
                   {"by_category", by_category}}},
                 {"audit_log", kernel_events},
                 {"decisions", decisions}};
  std::string html =
      "<!doctype html><html><head><meta charset=\"utf-8\"><title>Compliance Report — " +
      html_escape(regime) + "</title></head><body><h1>Compliance Report — " + html_escape(regime) +
      "</h1><table>";
  auto row = [&html](const std::string& k, const std::string& v) {
    html += "<tr><th>" + html_escape(k) + "</th><td>" + html_escape(v) + "</td></tr>";
  };
  row("Report ID", id);
  row("Regime", regime);
  row("Tenant", tenant.empty() ? "(all tenants)" : tenant);
  row("Generated", generated);
  row("Policy mode", RoleService::mode_name(roles_->mode()));
  row("Tool checks", std::to_string(checks));
  row("Allowed", std::to_string(allowed));
  row("Denied", std::to_string(denied));
  row("Would have been denied", std::to_string(audited));
  for (const auto& [cat, n] : by_category.items())
    row("Category " + cat, std::to_string(n.get<int>()));
  if (kernel_events.value("available", false)) {
    row("Audit events", std::to_string(kernel_events["events"].get<int>()));
    row("Audit chain", kernel_events["chain_ok"].get<bool>() ? "verified" : "BROKEN");
  }
  html += "</table></body></html>\n";

  std::string error;
  if (!base::write_file_atomically(reports_dir_ / (std::string(id) + ".json"),
                                   base::dump_json(report) + "\n", error) ||
      !base::write_file_atomically(reports_dir_ / (std::string(id) + ".html"), html, error)) {
    log_->warn("compliance report not written: " + error);
    status = 500;
    return base::error_body("persist_failed");
  }
  log_->info(std::string("compliance report ") + id + " (" + regime + ") written");
  Json out = report;
  out.erase("decisions");
  out["files"] = {{"json", std::string(id) + ".json"}, {"html", std::string(id) + ".html"}};
  return out;
}

void SecurityModule::serve_report_(const Request& req, Response& res, const std::string& id) {
  if (id.empty()) {
    base::fail(res, 400, "missing report id");
    return;
  }
  std::string why;
  if (id.find("..") != std::string::npos || !base::safe_name(id, why)) {
    base::fail(res, 400, "invalid report id");
    return;
  }
  const std::string format = req.param("format", "json");
  if (format != "json" && format != "html") {
    base::fail(res, 400, "format must be json or html");
    return;
  }
  std::ifstream in(reports_dir_ / (id + "." + format), std::ios::binary);
  if (!in) {
    base::fail(res, 404, "not_found", {{"report_id", id}});
    return;
  }
  res.body.assign(std::istreambuf_iterator<char>(in), {});
  res.content_type = format == "html" ? "text/html; charset=utf-8" : "application/json";
  res.headers["Content-Disposition"] = "attachment; filename=\"" + id + "." + format + "\"";
}

// ---------------------------------------------------------------------------

void SecurityModule::register_routes(kernel::ApiGateway& gw) {
  gw.route("GET", "/api/v1/security/roles", [this](const Request&, Response& res) {
    reply(res, {{"roles", roles_->roles_json()}});
  });
  gw.route("GET", "/api/v1/security/tools", [this](const Request&, Response& res) {
    reply(res, {{"tools", roles_->known_tools()}});
  });
  gw.route("GET", "/api/v1/security/allowed-tools", [this](const Request& req, Response& res) {
    const std::string role = req.param("role", "viewer");
    reply(res, {{"role", role}, {"tools", roles_->allowed_tools(role)}});
  });
  gw.route("POST", "/api/v1/security/check", [this](const Request& req, Response& res) {
    int status = 200;
    res.body = check_text_(req.body, status, &req);
    res.status = status;
  });
  gw.route("GET", "/api/v1/security/policy", [this](const Request&, Response& res) {
    const auto m = roles_->mode();
    reply(res, {{"mode", RoleService::mode_name(m)},
                {"description", RoleService::mode_description(m)},
                {"roles", roles_->roles_json()}});
  });
  gw.route("GET", "/api/v1/security/mode", [this](const Request&, Response& res) {
    const auto m = roles_->mode();
    reply(res,
          {{"mode", RoleService::mode_name(m)}, {"description", RoleService::mode_description(m)}});
  });
  gw.route("PUT", "/api/v1/security/mode", [this](const Request& req, Response& res) {
    if (!base::require_admin(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    int status = 200;
    Json out = set_mode_(body, status);
    reply(res, out, status);
  });
  gw.route("GET", "/api/v1/security/counters", [this](const Request&, Response& res) {
    const Counters c = roles_->counters();
    reply(res, {{"allowed", c.allowed},
                {"denied", c.denied},
                {"would_have_denied", c.would_have_denied},
                {"admin_overrides", c.admin_overrides}});
  });
  gw.route("GET", "/api/v1/security/catalog", [this](const Request& req, Response& res) {
    const std::string category = req.param("category");
    Json tools = Json::array();
    for (const auto& t : category.empty() ? registry_.all() : registry_.by_category(category)) {
      tools.push_back(tools::to_json(t));
    }
    reply(res, {{"count", tools.size()}, {"tools", tools}});
  });
  gw.route("POST", "/api/v1/security/catalog/openai-tools",
           [this](const Request& req, Response& res) {
             Json body;
             if (!base::parse_object_body(req, res, body)) return;
             std::string role = "viewer";
             if (!base::read_string(body, "role", role, res)) return;
             auto names = body.find("names");
             if (names != body.end() && !names->is_null() && !names->is_array()) {
               base::fail(res, 400, "invalid_field", "names must be a list of tool names");
               return;
             }
             Json out = Json::array();
             for (const std::string& name : roles_->allowed_tools(role)) {
               if (names != body.end() && names->is_array() &&
                   std::find(names->begin(), names->end(), name) == names->end()) {
                 continue;
               }
               if (auto spec = registry_.find(name))
                 out.push_back(tools::function_definition(*spec));
             }
             reply(res, {{"tools", out}});
           });
  gw.route("GET", "/api/v1/security/audit", [this](const Request& req, Response& res) {
    if (!base::has_scope(req, "audit.read")) {
      base::fail(res, 403, "missing_scope", {{"required", "audit.read"}});
      return;
    }
    std::size_t limit = 100;
    const std::string l = req.param("limit");
    if (!l.empty()) {
      char* end = nullptr;
      long n = std::strtol(l.c_str(), &end, 10);
      if (*end != '\0' || n < 1 || n > 100000) {
        base::fail(res, 400, "invalid_limit", "limit must be between 1 and 100000");
        return;
      }
      limit = static_cast<std::size_t>(n);
    }
    Json entries = Json::array();
    for (auto& e : roles_->audit_entries(limit)) entries.push_back(std::move(e));
    reply(res, {{"entries", entries}, {"count", entries.size()}});
  });
  gw.route("POST", "/api/v1/security/audit/verify", [this](const Request& req, Response& res) {
    if (!base::has_scope(req, "audit.read")) {
      base::fail(res, 403, "missing_scope", {{"required", "audit.read"}});
      return;
    }
    std::vector<std::uint64_t> counts;
    if (checkpoints_) {
      for (const auto& [count, head] : checkpoints_->signed_heads()) counts.push_back(count);
    }
    RoleService::AuditVerification v = roles_->verify_audit(counts);
    Json out = {{"ok", v.ok}, {"checked", v.checked}};
    if (!v.ok) {
      out["first_bad_line"] = v.first_bad_line;
      out["problem"] = v.problem;
    }
    // Against the signed checkpoints: a cut tail, or a rewritten log whose
    // hashes were recomputed, passes the line checks and not these.
    if (checkpoints_) {
      const ChainCheckpoints::Verdict c = judge_checkpoints_(v);
      out["checkpoints"] = ChainCheckpoints::to_json(c);
      if (!c.ok) out["ok"] = false;
    }
    reply(res, out);
  });
  gw.route("POST", "/api/v1/security/audit/export", [this](const Request& req, Response& res) {
    if (!base::has_scope(req, "audit.read")) {
      base::fail(res, 403, "missing_scope", {{"required", "audit.read"}});
      return;
    }
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    int status = 200;
    Json out = export_report_(body, status);
    reply(res, out, status);
  });
  gw.route("GET", "/api/v1/security/audit/export", [this](const Request& req, Response& res) {
    if (!base::has_scope(req, "audit.read")) {
      base::fail(res, 403, "missing_scope", {{"required", "audit.read"}});
      return;
    }
    serve_report_(req, res, req.param("report_id", req.param("id")));
  });
  gw.route("GET", "/api/v1/compliance/reports/*", [this](const Request& req, Response& res) {
    if (!base::has_scope(req, "audit.read")) {
      base::fail(res, 403, "missing_scope", {{"required", "audit.read"}});
      return;
    }
    serve_report_(req, res,
                  req.path.substr(std::string_view("/api/v1/compliance/reports/").size()));
  });
  gw.route("GET", "/api/v1/compliance/regimes", [](const Request&, Response& res) {
    reply(res, {{"regimes", kRegimes}});
  });
}

void SecurityModule::register_syscalls(kernel::SyscallTable& table) {
  using base::json_syscall;
  auto answer = [](Json out, int status) {
    return status == 200 ? base::syscall_ok(out) : base::syscall_error_body(out);
  };
  table.register_syscall(
      kSecuritySource, "security.role.check",
      [this](std::string_view args) -> kernel::SyscallResult {
        try {
          int status = 200;
          std::string out = check_text_(args, status);
          // A refusal is an answer, not a failed call.
          return {status == 400 ? -1 : 0, std::move(out)};
        } catch (const std::exception& e) {
          return base::syscall_error("internal", base::client_safe_what(e));
        }
      },
      kernel::SyscallAccess::open());
  table.register_syscall(
      kSecuritySource, "security.role.allowed_tools", json_syscall([this](const Json& a) {
        const std::string role = a.contains("role") && a["role"].is_string() ? a["role"] : "viewer";
        return base::syscall_ok({{"role", role}, {"tools", roles_->allowed_tools(role)}});
      }));
  table.register_syscall(kSecuritySource, "security.role.set_mode",
                         json_syscall([this, answer](const Json& a) {
                           int status = 200;
                           Json out = set_mode_(a, status);
                           return answer(out, status);
                         }));
  table.register_syscall(
      kSecuritySource, "security.role.register_tool", json_syscall([this](const Json& a) {
        auto tool = a.find("tool");
        if (tool == a.end() || !tool->is_string() || tool->get<std::string>().empty()) {
          return base::syscall_error("missing tool");
        }
        roles_->add_known_tool(*tool);
        return base::syscall_ok({{"ok", true}});
      }));
  // The function-calling definitions a role may use (for agents' tool lists).
  table.register_syscall(
      kSecuritySource, "security.catalog.openai_tools", json_syscall([this](const Json& a) {
        const std::string role = a.contains("role") && a["role"].is_string() ? a["role"] : "viewer";
        Json out = Json::array();
        for (const std::string& name : roles_->allowed_tools(role)) {
          if (auto spec = registry_.find(name)) {
            out.push_back(tools::function_definition(*spec));
          }
        }
        return base::syscall_ok({{"tools", out}});
      }));
}

}  // namespace
}  // namespace ostrel::security

static ostrel::kernel::ModuleRegistrar<ostrel::security::SecurityModule> SecurityModule_registrar(
    "security");
