#pragma once

#include <string>
#include <string_view>

#include "base/types.h"

// Route-level access rules over the caller's credential. With auth off, and
// for peers that came in with a node token, no credential was checked and
// every rule passes; a capability or API key must carry the scope.
namespace ostrel::base {

// True when a credential was checked for this request.
bool credential_checked(const Request& req);
// True for a caller without a credential on a public path of a node that
// enforces auth: it passes no rule.
bool anonymous(const Request& req);

// "admin.*", "kernel.*" or "*": the scopes that pass every check.
bool is_admin(const Request& req);

// True when the caller may use `required` ("inference.chat"): an equal scope,
// an administrator's scope, a wildcard "inference.*", or a scope that is a
// prefix of `required` ending where it has ':' ("audit.read" grants
// "audit.read:tenant-a").
bool has_scope(const Request& req, std::string_view required);

// The caller's tool-policy role: the checked credential's (Request::role, or
// its scopes'), "admin" when nothing was checked (an open node, a peer).
std::string role_from_scopes(const Request& req);
// True for a peer node that came in with a node token.
bool is_peer(const Request& req);

// The tenant a request acts for, into `out`, when it names `requested`
// ("" names none). A credential bound to a tenant acts for that tenant
// alone; one bound to none acts for "default" and may name another only when
// it administers the node; a caller whose credential was not checked (an open
// node, a peer node) names any. Otherwise answers 403
// {"error":"cross_tenant_access_denied", "authenticated_tenant",
// "requested_tenant"} and returns false.
bool acting_tenant(const Request& req, const std::string& requested, std::string& out,
                   Response& res);

// Each answers 403 {"error":"forbidden","reason":…} and returns false when
// the caller lacks the right.
bool require_admin(const Request& req, Response& res);
bool require_scope(const Request& req, Response& res, std::string_view required);

// The OpenAI-shaped routes' check that a caller may use models (scope
// inference.chat): 401 authentication_error without a credential, 403
// permission_error with one that lacks the scope.
bool require_model_access(const Request& req, Response& res);

}  // namespace ostrel::base
