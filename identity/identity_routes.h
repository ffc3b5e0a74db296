#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "base/logger.h"
#include "base/types.h"
#include "identity/audit_log.h"
#include "identity/capability_issuer.h"
#include "identity/chain_checkpoints.h"
#include "identity/login_throttle.h"
#include "identity/quota.h"
#include "identity/rbac.h"
#include "identity/tenant_registry.h"
#include "identity/user_store.h"

// The HTTP faces and syscalls of the identity stores: capability tokens,
// tenants, roles, users and quotas. They speak only the shared request,
// response and syscall-result types; the kernel adds them to its gateway and
// syscall table through the two callbacks below.
namespace ostrel::identity {

using RouteFn = std::function<void(const base::Request&, base::Response&)>;
// Adds one route to the gateway: method, pattern, handler and, where they
// differ from the defaults, the route's options.
struct AddRoute {
  std::function<void(const std::string& method, const std::string& path, RouteFn,
                     base::RouteOptions)>
      add;
  void operator()(const std::string& method, const std::string& path, RouteFn fn,
                  base::RouteOptions options = {}) const {
    add(method, path, std::move(fn), options);
  }
};
using SyscallFn = std::function<base::SyscallResult(std::string_view)>;
// Adds one syscall to the table, with who may run it from outside (an
// administrator unless said otherwise).
struct AddSyscall {
  std::function<void(const std::string& name, SyscallFn, base::SyscallAccess)> add;
  void operator()(const std::string& name, SyscallFn fn,
                  base::SyscallAccess access = base::SyscallAccess::admin()) const {
    add(name, std::move(fn), std::move(access));
  }
};

// The stores the routes work on and the kernel's hooks they call. The
// pointers are borrowed from the kernel, which outlives every route.
struct IdentityContext {
  CapabilityIssuer* issuer = nullptr;
  TenantRegistry* tenants = nullptr;
  RBAC* rbac = nullptr;
  QuotaAccountant* quotas = nullptr;
  // Drops every cached credential check (a tenant changed state, …).
  std::function<void()> credentials_changed;
  base::Logger log{"kernel"};
  // Records a security-relevant action: {"action", "tenant", "subject", …}.
  std::function<void(const base::Request* caller, const nlohmann::json& event)> audit;
  // The audit log itself, for its routes and syscalls, and its signed
  // checkpoints (null until they are opened).
  AuditLog* audit_log = nullptr;
  ChainCheckpoints* audit_checkpoints = nullptr;
  // Checks a token presented where auth is not enforced (the audit routes).
  std::function<base::AuthResult(const std::string& token)> verify_token;
  // The source code of the caller of the syscall running on this thread.
  std::function<SourceCode()> syscall_caller;
  // The user store (null when it could not be opened) and the login throttle.
  identity_registry::UserStore* users = nullptr;
  LoginThrottle* throttle = nullptr;
  // Limits password-reset requests per user name and per client address.
  LoginThrottle* reset_throttle = nullptr;
  // True while the node enforces credentials (it may start doing so while
  // it runs, when its first user registers).
  std::function<bool()> enforcing;
  // The operator let anyone make the first account even while the node
  // enforces credentials (OSTREL_FIRST_USER_OPEN=1; warned about at boot).
  bool first_user_open = false;
  // Sends a password-reset message to a user name (an e-mail address).
  std::function<void(const std::string& to, const std::string& body)> send_reset_mail;
  // This node's cluster secret.
  std::function<std::string()> cluster_secret;
  // Users were added, changed or removed: cached credentials are dropped.
  std::function<void()> users_changed;
};

void register_capability_routes(const IdentityContext& ctx, const AddRoute& add);
void register_tenant_routes(const IdentityContext& ctx, const AddRoute& add);
void register_tenant_syscalls(const IdentityContext& ctx, const AddSyscall& add);
void register_audit_routes(const IdentityContext& ctx, const AddRoute& add);
void register_auth_routes(const IdentityContext& ctx, const AddRoute& add);
void register_user_syscalls(const IdentityContext& ctx, const AddSyscall& add);
void register_audit_syscalls(const IdentityContext& ctx, const AddSyscall& add);

// Creates a tenant with its signing key and default roles, in an order that a
// crash cannot leave unusable: key, then the tenant (metadata included in its
// one journal record), then roles, which repair_tenants() completes at boot.
bool create_tenant(const IdentityContext& ctx, const nlohmann::json& spec, Tenant& out,
                   std::string& error);

// Completes tenants that a crash left half-made (no roles, no key); returns
// how many were repaired.
std::size_t repair_tenants(const IdentityContext& ctx);

// Gives every tenant whose creation has no "tenant.create" event in the audit
// log (a crash between the tenant's journal and the audit append) that event
// now, marked recovered; "default", which the node makes at its first start,
// has none. Returns how many were recorded.
std::size_t audit_unrecorded_tenants(const IdentityContext& ctx);

}  // namespace ostrel::identity
