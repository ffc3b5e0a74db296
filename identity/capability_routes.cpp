// Capability routes: issue, issue for a user, verify, attenuate, revoke, the
// revocation list and public keys.
#include <nlohmann/json.hpp>

#include "base/access.h"
#include "base/encoding.h"
#include "base/json.h"
#include "base/names.h"
#include "base/reply.h"
#include "identity/identity_routes.h"

namespace ostrel::identity {
namespace {

using base::fail;
using base::reply;
using base::Request;
using base::Response;
using Json = nlohmann::json;

const SourceCode kUserHolder{0xfe, 0x01};

// The longest a token may be asked to live: ten years.
constexpr std::int64_t kMaxLifetimeS = 10LL * 365 * 24 * 3600;

bool read_lifetime(const Json& body, std::int64_t fallback, std::int64_t& out, Response& res) {
  if (!base::int_member(body, "lifetime_seconds", fallback, out) || out < 0 ||
      out > kMaxLifetimeS) {
    base::fail(res, 400, "lifetime_seconds must be an integer between 0 and 315360000");
    return false;
  }
  return true;
}

Json minted_json(const std::string& token, const CapabilityToken& t) {
  return {{"token", token}, {"id", t.id}, {"scopes", t.scopes}, {"exp_unix_s", t.expires_at_s}};
}

void audit(const IdentityContext& ctx, const Request& req, Json event) {
  if (ctx.audit) ctx.audit(&req, event);
}

}  // namespace

void register_capability_routes(const IdentityContext& ctx, const AddRoute& add) {
  add("GET", "/api/v1/capabilities/public-key", [ctx](const Request& req, Response& res) {
    std::string tenant = req.param("tenant");
    std::string pub;
    if (!ctx.issuer->public_key(tenant, pub)) {
      base::fail(res, 404, "no_key_for_tenant", {{"tenant", tenant}});
      return;
    }
    reply(res, {{"algorithm", "Ed25519"},
                {"tenant", tenant},
                {"public_key_hex", base::to_hex(pub)},
                {"length_bytes", pub.size()}});
  });

  add("POST", "/api/v1/capabilities/issue", [ctx](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body) || !base::require_admin(req, res)) return;
    std::vector<std::string> scopes;
    if (!base::string_list_member(body, "scopes", scopes) || scopes.empty()) {
      base::fail(res, 400, "scopes must be a non-empty array");
      return;
    }
    std::int64_t holder = 0, lifetime = 0;
    if (!base::int_member(body, "holder", 0xfe01, holder) || holder < 0 || holder > 0xffff) {
      base::fail(res, 400, "holder must be a number between 0 and 65535");
      return;
    }
    if (!read_lifetime(body, 3600, lifetime, res)) return;
    std::string tenant;
    if (!base::read_string(body, "tenant", tenant, res)) return;
    CapabilityToken minted;
    std::string token =
        ctx.issuer->issue(SourceCode::from_value(static_cast<std::uint16_t>(holder)), scopes,
                          tenant, lifetime, "", &minted);
    if (token.empty()) {
      base::fail(res, 500, "signing_failed");
      return;
    }
    audit(ctx, req,
          {{"action", "capability.issue"},
           {"tenant", tenant},
           {"token_id", minted.id},
           {"scopes", scopes}});
    reply(res, minted_json(token, minted));
  });

  add("POST", "/api/v1/capabilities/issue-for-user", [ctx](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body) || !base::require_admin(req, res)) return;
    std::string tenant, user_id;
    if (!base::read_string(body, "tenant", tenant, res) ||
        !base::read_string(body, "user_id", user_id, res)) {
      return;
    }
    if (tenant.empty() || user_id.empty()) {
      base::fail(res, 400, "missing tenant or user_id");
      return;
    }
    std::int64_t lifetime = 0;
    if (!read_lifetime(body, 3600, lifetime, res)) return;
    if (!ctx.tenants->is_active(tenant)) {
      base::fail(res, 400, "tenant_unknown_or_inactive", {{"tenant", tenant}});
      return;
    }
    User user;
    if (!ctx.rbac->user(tenant, user_id, user) || user.state != "active") {
      base::fail(res, 400, "user_not_found_or_disabled", {{"user_id", user_id}});
      return;
    }
    std::vector<std::string> scopes = ctx.rbac->effective_permissions(tenant, user_id);
    if (scopes.empty()) {
      base::fail(res, 400, "no_effective_permissions");
      return;
    }
    CapabilityToken minted;
    std::string token = ctx.issuer->issue(kUserHolder, scopes, tenant, lifetime, "", &minted);
    if (token.empty()) {
      base::fail(res, 500, "signing_failed");
      return;
    }
    audit(ctx, req,
          {{"action", "capability.issue"},
           {"tenant", tenant},
           {"subject", user_id},
           {"token_id", minted.id},
           {"scopes", scopes}});
    Json out = minted_json(token, minted);
    out["tenant"] = tenant;
    out["user_id"] = user_id;
    out["role_ids"] = user.role_ids;
    reply(res, out);
  });

  add("POST", "/api/v1/capabilities/verify", [ctx](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    auto token = body.find("token");
    if (token == body.end() || !token->is_string() || token->get<std::string>().empty()) {
      base::fail(res, 400, "missing token");
      return;
    }
    CapabilityToken t;
    std::string error;
    if (!ctx.issuer->verify(*token, t, error)) {
      reply(res, {{"valid", false}, {"reason", error}});
      return;
    }
    if (!t.tenant.empty() && !ctx.tenants->is_active(t.tenant)) {
      reply(res,
            {{"valid", false}, {"reason", "tenant_unknown_or_inactive"}, {"tenant", t.tenant}});
      return;
    }
    reply(res, {{"valid", true},
                {"id", t.id},
                {"holder", t.holder.hex()},
                {"scopes", t.scopes},
                {"tenant", t.tenant},
                {"iat_unix_s", t.issued_at_s},
                {"exp_unix_s", t.expires_at_s}});
  });

  add("POST", "/api/v1/capabilities/attenuate", [ctx](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    CapabilityToken parent;
    std::string error;
    auto token = body.value("token", Json(""));
    if (!token.is_string() || !ctx.issuer->verify(token, parent, error)) {
      base::fail(res, 400, error.empty() ? "missing token" : error);
      return;
    }
    std::vector<std::string> scopes;
    std::int64_t lifetime = 0;
    if (!base::string_list_member(body, "scopes", scopes)) {
      base::fail(res, 400, "scopes must be an array of strings");
      return;
    }
    if (!read_lifetime(body, 600, lifetime, res)) return;
    std::string child;
    CapabilityToken minted;
    if (!ctx.issuer->attenuate(parent, scopes, lifetime, child, error, &minted)) {
      base::fail(res, error == "signing_failed" ? 500 : 400, error);
      return;
    }
    Json out = minted_json(child, minted);
    out["parent_id"] = parent.id;
    reply(res, out);
  });

  add("POST", "/api/v1/capabilities/revoke", [ctx](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body) || !base::require_admin(req, res)) return;
    auto id_field = body.value("id", Json(""));
    if (!id_field.is_string() || id_field.get<std::string>().empty()) {
      base::fail(res, 400, "missing id");
      return;
    }
    const std::string id = id_field;
    std::string why;
    if (!base::safe_id(id, why, 64)) {
      base::fail(res, 400, "invalid id", "id " + why);
      return;
    }
    switch (ctx.issuer->revoke(id)) {
      case CapabilityIssuer::RevokeResult::unknown:
        base::fail(
            res, 404, "unknown_token",
            {{"id", id}, {"message", "no unexpired token with this id was issued by this node"}});
        return;
      case CapabilityIssuer::RevokeResult::already_revoked:
        reply(res, {{"status", "already_revoked"}, {"id", id}});
        return;
      case CapabilityIssuer::RevokeResult::journal_failed:
        base::fail(res, 500, "journal_write_failed",
                   {{"id", id},
                    {"message", "revoked until the node restarts; the revocation is not on disk"}});
        return;
      case CapabilityIssuer::RevokeResult::revoked:
        break;
    }
    if (ctx.credentials_changed) ctx.credentials_changed();
    audit(ctx, req, {{"action", "capability.revoke"}, {"token_id", id}});
    reply(res, {{"status", "revoked"}, {"id", id}});
  });

  add("GET", "/api/v1/capabilities/revocations", [ctx](const Request&, Response& res) {
    std::vector<std::string> ids = ctx.issuer->revocations();
    reply(res, {{"revoked", ids}, {"count", ids.size()}});
  });
}

}  // namespace ostrel::identity
