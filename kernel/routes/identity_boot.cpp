// The kernel's identity stores at boot: journals replayed, the capability
// verifier installed, and the bootstrap administrator token in enforce mode.
#include <cstdio>
#include <filesystem>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/env.h"
#include "base/roles.h"
#include "identity/chain_checkpoints.h"
#include "identity/source_header.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
using base::unix_s;
namespace {

constexpr std::int64_t kBootstrapLifetimeS = 365LL * 24 * 3600;

}  // namespace

void Kernel::open_identity_stores_() {
  if (base::env::text("OSTREL_FIRST_USER_OPEN") == "1") {
    first_user_open_ = true;
    logger_.warn(
        "OSTREL_FIRST_USER_OPEN=1: while no account exists, anyone who reaches this node "
        "may register the first one and become its superadmin, even with auth enforced");
  }
  const std::filesystem::path state = std::filesystem::path(config_.data_dir) / "state";
  std::error_code ec;
  std::filesystem::create_directories(state, ec);
  // Whole-file writes that a crash cut short leave temporaries behind.
  if (std::size_t stale = base::remove_stale_temporaries(state); stale > 0) {
    logger_.info("removed " + std::to_string(stale) + " unfinished temporary file(s) from " +
                 state.string());
  }

  std::size_t n = tenants_.replay_journal();
  logger_.info("tenant registry replayed " + std::to_string(n) + " records from " +
               tenants_.journal_path().string());
  n = rbac_.replay_journal();
  logger_.info("RBAC replayed " + std::to_string(n) + " records from " +
               rbac_.journal_path().string());
  n = audit_.replay_journal();
  logger_.info("audit log replayed " + std::to_string(n) + " records from " +
               audit_.journal_path().string());

  std::string error;
  if (issuer_.open(state, error)) {
    n = issuer_.load_keys();
    logger_.info("tenant signing keys loaded: " + std::to_string(n) + " records");
    if (!issuer_.identity_key_problem().empty()) {
      logger_.error("node identity key: " + issuer_.identity_key_problem());
    }
  } else {
    // Tokens still work with the node key; tenant keys stay unavailable.
    logger_.error("capability key store unavailable: " + error);
  }
  open_audit_checkpoints_();
  n = issuer_.load_revocations();
  logger_.info("capability revocation list replayed " + std::to_string(n) + " records from " +
               (state / "caps.jsonl").string());
  if (std::size_t repaired = identity::repair_tenants(identity_context_()); repaired > 0) {
    logger_.warn("repaired " + std::to_string(repaired) +
                 " tenant(s) left half-made by an interrupted creation");
  }
  // A new node starts with one tenant, "default": what requests without a
  // tenant act for. Once any tenant exists nothing is added, so an operator
  // who suspends or removes it keeps it that way.
  if (tenants_.list().empty()) {
    identity::Tenant created;
    std::string error;
    if (identity::create_tenant(identity_context_(),
                                {{"id", "default"}, {"display_name", "Default"}}, created, error)) {
      logger_.info("first start: created the tenant 'default'");
    } else {
      logger_.warn("first start: the tenant 'default' was not created: " + error);
    }
  }
  if (std::size_t n = identity::audit_unrecorded_tenants(identity_context_()); n > 0) {
    logger_.warn("audit: recorded the creation of " + std::to_string(n) +
                 " tenant(s) whose event an interrupted creation had not written");
  }
  const std::filesystem::path db = state / "identity.db";
  if (users_.open(db, error)) {
    logger_.info("user store initialized at " + db.string());
  } else {
    std::fprintf(stderr, "[identity] UserStore init failed: %s\n", error.c_str());
  }
}

void Kernel::open_audit_checkpoints_() {
  const std::filesystem::path state = std::filesystem::path(config_.data_dir) / "state";
  std::shared_ptr<identity::KeyPair> key = issuer_.identity_key();
  audit_checkpoints_ = std::make_unique<identity::ChainCheckpoints>(
      state / "audit.checkpoints.jsonl", "audit", key->public_key(),
      [key](std::string_view message) { return key->sign(message); });
  const std::size_t n = audit_checkpoints_->load();
  std::vector<std::uint64_t> counts;
  for (const auto& [count, head] : audit_checkpoints_->signed_heads()) counts.push_back(count);
  identity::ChainCheckpoints::Verdict v =
      audit_checkpoints_->judge(audit_.size(), audit_.heads_after(counts));
  // A node that has kept its key has signed its log before: a log with
  // records and no checkpoint file lost the file.
  if (v.ok && !audit_checkpoints_->existed() && audit_.size() > 0 &&
      !issuer_.identity_key_created()) {
    v.ok = false;
    v.problem = "the log holds " + std::to_string(audit_.size()) +
                " records but its checkpoint file is gone";
  }
  if (v.ok) {
    logger_.info("audit checkpoints: " + std::to_string(n) + " read, the log matches them (" +
                 std::to_string(v.unsigned_records) + " record(s) after the last)");
  } else {
    // The finding goes into the chain itself, which the next checkpoint signs.
    logger_.error("audit log integrity: " + v.problem);
    audit_event_(nullptr, {{"action", "audit.integrity_failed"},
                           {"outcome", "failed"},
                           {"problem", v.problem},
                           {"first_bad_count", v.first_bad}});
  }
  checkpoint_audit_();
}

void Kernel::checkpoint_audit_() {
  if (!audit_checkpoints_) return;
  const auto [count, head] = audit_.head();
  std::string error;
  if (!audit_checkpoints_->record(count, head, error)) {
    logger_.error("audit checkpoint not written: " + error);
  }
}

AuthResult Kernel::verify_credential_(const std::string& credential) {
  AuthResult result;
  const std::int64_t now = unix_s();
  if (auto hit = auth_cache_.find(credential)) {
    // Expiry and revocation are checked on every hit, so a cached grant ends
    // exactly when the token does.
    if (hit->expires_at_s >= now && !issuer_.is_revoked(hit->result.token_id)) {
      result = std::move(hit->result);
    } else {
      auth_cache_.erase(credential);
    }
  }
  if (!result.valid) {
    // API keys are the user store's; the cache holds them for a minute (a
    // user's change or deletion clears it at once).
    if (credential.rfind("ak-", 0) == 0 && users_.is_open()) {
      if (auto u = users_.authenticate_key(credential)) {
        result.valid = true;
        result.tenant = u->tenant_id;
        result.token_id = "key:" + u->user_id;
        result.user_id = u->user_id;
        result.scopes = base::roles::key_scopes(u->role);
        result.role = u->role;
        auth_cache_.put(credential, {result, now + 60});
        return result;
      }
      result.reason = "invalid_api_key";
      return result;
    }
    identity::CapabilityToken token;
    std::string error;
    if (!issuer_.verify(credential, token, error)) {
      result.valid = false;
      result.reason = error;
      return result;
    }
    result.valid = true;
    result.tenant = token.tenant;
    result.token_id = token.id;
    result.scopes = token.scopes;
    result.role = base::roles::for_scopes(token.scopes);
    auth_cache_.put(credential, {result, token.expires_at_s});
  }
  // A suspended or terminating tenant is locked out at once, cached or not.
  if (!result.tenant.empty() && tenants_.exists(result.tenant) &&
      !tenants_.is_active(result.tenant)) {
    return AuthResult{false, "tenant_unknown_or_inactive", result.tenant, result.token_id, {}, "",
                      ""};
  }
  return result;
}

void Kernel::install_auth_policy_() {
  gateway_.set_source_policy([](const Request& req) {
    return source_header::admit(req.client_addr, req.header("X-Ostrel-Source"));
  });
  gateway_.set_auth_verifier(
      [this](const std::string& credential) { return verify_credential_(credential); });
  if (config_.auth_mode != AuthMode::enforce && users_.is_open() && users_.count_users() > 0) {
    config_.auth_mode = AuthMode::enforce;
    gateway_.set_auth_mode(AuthMode::enforce);
    logger_.info("auth auto-enforce — users exist in identity store");
  }
  if (config_.auth_mode != AuthMode::enforce) {
    logger_.info("auth policy = off — open access (first user registration will auto-enable auth)");
    return;
  }
  std::string token = issuer_.issue(identity::kKernelSource, {"admin.*", "kernel.*", "tenant.*"},
                                    "", kBootstrapLifetimeS);
  std::printf(
      "\n"
      "  Ostrel ULVO \xe2\x80\x94 auth is ENFORCED.\n"
      "  Bootstrap admin token (1-year lifetime):\n"
      "    %s\n"
      "  Store it somewhere safe; use in:\n"
      "    X-Ostrel-Capability: %s\n"
      "    Authorization: Bearer %s\n"
      "  Public paths (/health, /metrics, /dashboard/*)\n"
      "  remain open.\n"
      "\n",
      token.c_str(), token.c_str(), token.c_str());
  std::fflush(stdout);
  logger_.info("auth policy = enforce — bootstrap token issued");
}

}  // namespace ostrel::kernel
