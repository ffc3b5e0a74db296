#include "base/access.h"

#include <string>

#include "base/reply.h"
#include "base/roles.h"
#include "base/text.h"

namespace ostrel::base {

bool credential_checked(const Request& req) {
  return req.auth_source == "capability" || req.auth_source == "api_key";
}

bool anonymous(const Request& req) { return req.auth_source == "anonymous"; }

std::string role_from_scopes(const Request& req) {
  if (!credential_checked(req)) return anonymous(req) ? "viewer" : "admin";
  return req.role.empty() ? roles::for_scopes(req.scopes) : req.role;
}

bool is_peer(const Request& req) { return req.auth_source == "node"; }

bool is_admin(const Request& req) {
  if (anonymous(req)) return false;
  if (!credential_checked(req)) return true;
  for (const auto& s : req.scopes) {
    if (s == "*" || s == "admin.*" || s == "kernel.*") return true;
  }
  return false;
}

bool has_scope(const Request& req, std::string_view required) {
  if (is_admin(req)) return true;
  for (const std::string& s : req.scopes) {
    std::string_view scope = s;
    if (scope == required) return true;
    if (scope.size() >= 2 && scope.ends_with(".*") &&
        required.substr(0, scope.size() - 1) == scope.substr(0, scope.size() - 1)) {
      return true;
    }
    if (required.size() > scope.size() + 1 && required.substr(0, scope.size()) == scope &&
        required[scope.size()] == ':') {
      return true;
    }
  }
  return false;
}

bool acting_tenant(const Request& req, const std::string& requested, std::string& out,
                   Response& res) {
  const std::string own = req.tenant.empty() ? "default" : req.tenant;
  if (!credential_checked(req) && !anonymous(req)) {
    out = requested.empty() ? own : requested;
    return true;
  }
  if (requested.empty() || requested == own || (req.tenant.empty() && is_admin(req))) {
    out = requested.empty() ? own : requested;
    return true;
  }
  fail(res, 403, "cross_tenant_access_denied",
       {{"authenticated_tenant", req.tenant}, {"requested_tenant", requested}});
  return false;
}

bool require_admin(const Request& req, Response& res) {
  if (is_admin(req)) return true;
  fail(res, 403, "forbidden", {{"reason", "admin scope required"}});
  return false;
}

bool require_scope(const Request& req, Response& res, std::string_view required) {
  if (has_scope(req, required)) return true;
  fail(res, 403, "forbidden", {{"reason", "scope " + std::string(required) + " required"}});
  return false;
}

bool require_model_access(const Request& req, Response& res) {
  if (has_scope(req, "inference.chat")) return true;
  if (anonymous(req)) {
    openai_fail(res, 401, "a credential is required (Authorization: Bearer <token>)",
                "authentication_error", "unauthenticated");
    return false;
  }
  openai_fail(res, 403, "this credential may not use models (scope inference.chat)",
              "permission_error", "forbidden");
  return false;
}

}  // namespace ostrel::base
