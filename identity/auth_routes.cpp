// Sign-up, login, API keys, password reset and the sign-up allowlist over
// the user store, as routes and as the "identity.users.*" syscalls.
#include <nlohmann/json.hpp>

#include "base/access.h"
#include "base/clock.h"
#include "base/encoding.h"
#include "base/json.h"
#include "base/reply.h"
#include "base/roles.h"
#include "base/text.h"
#include "identity/identity_routes.h"
#include "identity/user_store.h"

namespace ostrel::identity {
namespace {

using Json = nlohmann::json;
using base::reply;
using base::Request;
using base::Response;
using identity_registry::UserRecord;
using identity_registry::UserStore;

constexpr std::size_t kMaxUsername = 254;  // an e-mail address at most
constexpr std::size_t kMaxPassword = 1024;
constexpr std::int64_t kResetLifetime_s = 3600;

Json user_json(const UserRecord& u) {
  return {{"user_id", u.user_id},
          {"username", u.username},
          {"role", u.role},
          {"account_type", u.account_type},
          {"tenant_id", u.tenant_id},
          {"display_name", u.display_name},
          {"created_at", u.created_at},
          {"last_login", u.last_login}};
}

// The answer of registration and login: a session id, the user and the key.
Json session_json(const UserRecord& u) {
  Json j = user_json(u);
  j["api_key"] = u.api_key;
  j["session_id"] = "ses-" + base::to_hex(base::random_bytes(16));
  return j;
}

bool unavailable(const IdentityContext& ctx, Response& res) {
  if (ctx.users && ctx.users->is_open()) return false;
  base::fail(res, 503, "identity_store_unavailable", "database not open");
  return true;
}

// The status of a store error text.
int status_of(const std::string& error) {
  if (error == "username already exists") return 409;
  if (error == "database not open") return 503;
  if (error.rfind("insert failed", 0) == 0) return 500;
  return 400;
}

// A user name a person can type: not too long, no control characters.
bool check_username(const std::string& name, Response& res) {
  if (name.size() > kMaxUsername) {
    base::fail(res, 400, "username too long", {{"max_bytes", kMaxUsername}});
    return false;
  }
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f) {
      base::fail(res, 400, "username must not contain control characters");
      return false;
    }
  }
  if (!text::valid_utf8(name)) {
    base::fail(res, 400, "username must be valid UTF-8");
    return false;
  }
  return true;
}

using base::string_field;

// The request's API key: "X-API-Key", else a bearer credential that is one.
std::string api_key_of(const Request& req) {
  std::string key = req.header("X-API-Key");
  if (key.empty()) {
    const std::string& auth = req.header("Authorization");
    if (auth.rfind("Bearer ak-", 0) == 0) key = auth.substr(7);
  }
  return key;
}

// Who grants a registration made with a credential: the role it stands for
// and the tenant it is bound to. rank -1: the caller grants nothing (it is
// no administrator, or presented nothing).
struct Granter {
  int rank = -1;
  std::string tenant;
};

Granter granter_of(const IdentityContext& ctx, const Request& req) {
  Granter g;
  if (base::credential_checked(req)) {
    // Checked by the gateway: a user's key or a token, with its role.
    const int rank = base::roles::rank(base::role_from_scopes(req));
    g.rank = rank >= 2 ? rank : -1;
    g.tenant = req.tenant;
    return g;
  }
  // A node that does not enforce checked nothing: an administrator's key
  // still counts.
  const std::string key = api_key_of(req);
  if (key.empty()) return g;
  if (auto u = ctx.users->authenticate_key(key)) {
    g.rank = base::roles::rank(u->role) >= 2 ? base::roles::rank(u->role) : -1;
    g.tenant = u->tenant_id;
  }
  return g;
}

}  // namespace

void register_auth_routes(const IdentityContext& ctx, const AddRoute& add) {
  add("POST", "/api/v1/auth/register", [ctx](const Request& req, Response& res) {
    if (unavailable(ctx, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string password = string_field(body, "password");
    std::string username = string_field(body, "username");
    if (username.empty()) return base::fail(res, 400, "username required");
    if (password.empty()) return base::fail(res, 400, "password required");
    if (!check_username(username, res)) return;
    if (password.size() > kMaxPassword) return base::fail(res, 400, "password too long");
    {
      std::string normal, why;
      if (!UserStore::normalise_username(username, normal, why)) return base::fail(res, 400, why);
      username = normal;
    }
    std::string role = string_field(body, "role"),
                account_type = string_field(body, "account_type");
    std::string tenant = string_field(body, "tenant_id");
    if (role.empty()) role = "viewer";
    if (account_type.empty()) account_type = "human";
    const std::string display_name = string_field(body, "display_name");
    const bool enforcing = ctx.enforcing && ctx.enforcing();
    const Granter granter = granter_of(ctx, req);
    std::string via = "first_user";
    identity_registry::UserResult r;
    if (ctx.users->count_users() == 0) {
      // The first account administers the node. An open node lets whoever
      // comes first make it (the operator, on loopback); a node that
      // enforces credentials wants its administrator's for it.
      if (enforcing && granter.rank < 2 && !ctx.first_user_open) {
        return base::fail(res, 401, "admin_credential_required",
                          "this node enforces credentials: its first account needs an "
                          "administrator credential (the bootstrap token)");
      }
      if (!enforcing || granter.rank == 3 || (ctx.first_user_open && granter.rank < 2)) {
        // Two racing for it: one wins, the other goes on like everyone after.
        r = ctx.users->register_user(username, password, role, account_type, tenant, display_name,
                                     "{}", true);
      }
    }
    if (!r && (r.error.empty() || r.error == "store_not_empty")) {
      if (granter.rank >= 2) {
        via = "admin";
        // Nobody grants more than they hold, nor outside their own tenant.
        if (base::roles::rank(role) > granter.rank) {
          return base::fail(res, 403, "role_above_granter",
                            {{"message", "a registration may not grant a role above the granter's"},
                             {"role", role},
                             {"granter_role", base::roles::name_of(granter.rank)}});
        }
        if (!granter.tenant.empty()) {
          if (!tenant.empty() && tenant != granter.tenant) {
            return base::fail(
                res, 403, "cross_tenant_access_denied",
                {{"authenticated_tenant", granter.tenant}, {"requested_tenant", tenant}});
          }
          tenant = granter.tenant;
        }
      } else {
        // Self-registration: the user name is an e-mail address on the allowlist.
        const auto at = username.rfind('@');
        std::optional<std::string> t = ctx.users->email_tenant(username);
        via = "email_match";
        if (!t && at != std::string::npos) {
          t = ctx.users->domain_tenant(username.substr(at + 1));
          via = "domain_match";
        }
        if (!t) {
          base::fail(
              res, 403, "signup_not_permitted",
              {{"detail", "Domain not on the signup allowlist. Ask an admin to permit it."}});
          return;
        }
        tenant = *t;
        role = "viewer";
      }
      r = ctx.users->register_user(username, password, role, account_type, tenant, display_name);
    }
    if (!r) return base::fail(res, status_of(r.error), r.error);
    ctx.log.info("user registered: " + r.user->username + " (" + r.user->role + ", " + via + ")");
    if (ctx.audit) {
      ctx.audit(&req, {{"action", "user.register"},
                       {"resource", r.user->user_id},
                       {"tenant", r.user->tenant_id},
                       {"role", r.user->role},
                       {"via", via}});
    }
    if (ctx.users_changed) ctx.users_changed();
    Json out = session_json(*r.user);
    out["signup"] = via;
    reply(res, out);
  });

  add("POST", "/api/v1/auth/login", [ctx](const Request& req, Response& res) {
    if (unavailable(ctx, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string username = string_field(body, "username"),
                      password = string_field(body, "password");
    if (username.empty() || password.empty()) {
      return base::fail(res, 400, "username and password required");
    }
    std::string name, why;
    if (!UserStore::normalise_username(username.substr(0, kMaxUsername + 1), name, why))
      name = username.substr(0, kMaxUsername + 1);
    const std::string by_name = "user:" + name, by_addr = "addr:" + req.client_addr;
    if (ctx.throttle) {
      const std::int64_t wait =
          std::max(ctx.throttle->wait_seconds(by_name), ctx.throttle->wait_seconds(by_addr));
      if (wait > 0) {
        res.headers["Retry-After"] = std::to_string(wait);
        return base::fail(res, 429, "too_many_attempts", {{"retry_after_s", wait}});
      }
    }
    identity_registry::UserResult r =
        ctx.users->login(username, password.substr(0, kMaxPassword + 1));
    if (!r) {
      if (ctx.throttle) {
        ctx.throttle->failed(by_name);
        ctx.throttle->failed(by_addr);
      }
      return base::fail(res, r.error == "database not open" ? 503 : 401, r.error);
    }
    if (ctx.throttle) {
      ctx.throttle->succeeded(by_name);
      ctx.throttle->succeeded(by_addr);
    }
    reply(res, session_json(*r.user));
  });

  add("GET", "/api/v1/auth/me", [ctx](const Request& req, Response& res) {
    if (unavailable(ctx, res)) return;
    const std::string key = api_key_of(req);
    if (key.empty()) return base::fail(res, 401, "missing X-API-Key");
    auto u = ctx.users->authenticate_key(key);
    if (!u) return base::fail(res, 401, "invalid_api_key");
    reply(res, user_json(*u));
  });

  add("POST", "/api/v1/auth/reset-request", [ctx](const Request& req, Response& res) {
    if (unavailable(ctx, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string username = string_field(body, "username");
    if (username.empty()) return base::fail(res, 400, "username required");
    if (username.size() > kMaxUsername) return base::fail(res, 400, "username too long");
    if (ctx.reset_throttle) {
      // Each request voids the token mailed before it: counted per name
      // (known or not, so the answer tells nothing) and per address.
      std::string name, why;
      if (!UserStore::normalise_username(username, name, why)) name = username;
      const std::string by_name = "user:" + name, by_addr = "addr:" + req.client_addr;
      const std::int64_t wait = std::max(ctx.reset_throttle->wait_seconds(by_name),
                                         ctx.reset_throttle->wait_seconds(by_addr));
      if (wait > 0) {
        res.headers["Retry-After"] = std::to_string(wait);
        return base::fail(res, 429, "too_many_attempts", {{"retry_after_s", wait}});
      }
      ctx.reset_throttle->failed(by_name);
      ctx.reset_throttle->failed(by_addr);
    }
    if (auto u = ctx.users->find_by_username(username)) {
      Json settings = base::parse_json(ctx.users->get_settings(u->user_id).value_or("{}"));
      if (!settings.is_object()) settings = Json::object();
      const std::string token = "rst-" + base::to_hex(base::random_bytes(16));
      settings["reset_token"] = token;
      settings["reset_expires"] = base::unix_s() + kResetLifetime_s;
      ctx.users->save_settings(u->user_id, base::dump_json(settings));
      if (ctx.send_reset_mail) {
        ctx.send_reset_mail(
            u->username,
            "Your password reset token: " + token +
                "\n\nThis token expires in 1 hour.\nUse it at the login screen or POST to "
                "/api/v1/auth/reset-confirm.");
      }
    }
    reply(res,
          {{"status", "ok"}, {"message", "If the account exists, a reset email has been sent."}});
  });

  add("POST", "/api/v1/auth/reset-confirm", [ctx](const Request& req, Response& res) {
    if (unavailable(ctx, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string username = string_field(body, "username"),
                      token = string_field(body, "token"),
                      password = string_field(body, "password");
    if (username.empty() || token.empty() || password.empty()) {
      return base::fail(res, 400, "username, token, and password required");
    }
    if (password.size() < 8) return base::fail(res, 400, "password must be at least 8 characters");
    auto u = ctx.users->find_by_username(username);
    Json settings =
        u ? base::parse_json(ctx.users->get_settings(u->user_id).value_or("{}")) : Json();
    const std::string stored = settings.is_object() ? settings.value("reset_token", "") : "";
    if (stored.empty() || !base::constant_time_equal(stored, token)) {
      return base::fail(res, 400, "invalid token");
    }
    if (base::unix_s() > base::int_value(settings, "reset_expires", 0)) {
      return base::fail(res, 400, "token expired");
    }
    if (std::string e = ctx.users->update_user(u->user_id, "", password); !e.empty()) {
      return base::fail(res, status_of(e), e);
    }
    settings.erase("reset_token");
    settings.erase("reset_expires");
    ctx.users->save_settings(u->user_id, base::dump_json(settings));
    if (ctx.users_changed) ctx.users_changed();
    if (ctx.audit)
      ctx.audit(
          &req,
          {{"action", "user.password_reset"}, {"resource", u->user_id}, {"tenant", u->tenant_id}});
    reply(res, {{"status", "ok"}, {"message", "Password has been reset."}});
  });

  // The sign-up allowlist (administrators).
  struct List {
    const char* path;
    const char* key;
    bool email;
  };
  for (const List l : {List{"/api/v1/identity/signup-domains", "domains", false},
                       List{"/api/v1/identity/signup-emails", "emails", true}}) {
    add("GET", l.path, [ctx, l](const Request& req, Response& res) {
      if (!base::require_admin(req, res) || unavailable(ctx, res)) return;
      Json list = Json::array();
      if (l.email) {
        for (const auto& e : ctx.users->list_emails()) {
          list.push_back({{"email", e.email},
                          {"tenant_id", e.tenant_id},
                          {"created_at", e.created_at},
                          {"created_by", e.created_by}});
        }
      } else {
        for (const auto& d : ctx.users->list_domains()) {
          list.push_back({{"domain", d.domain},
                          {"tenant_id", d.tenant_id},
                          {"created_at", d.created_at},
                          {"created_by", d.created_by}});
        }
      }
      reply(res, {{l.key, list}});
    });
    add("POST", l.path, [ctx, l](const Request& req, Response& res) {
      if (!base::require_admin(req, res) || unavailable(ctx, res)) return;
      Json body;
      if (!base::parse_object_body(req, res, body)) return;
      std::string entry = string_field(body, l.email ? "email" : "domain");
      for (char& c : entry) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (entry.empty() || entry.size() > kMaxUsername) {
        return base::fail(res, 400, std::string(l.email ? "email" : "domain") + " required");
      }
      if (l.email && entry.find('@') == std::string::npos) {
        return base::fail(res, 400, "email must contain @");
      }
      if (!l.email && entry.find('@') != std::string::npos) {
        return base::fail(res, 400, "domain must be bare host (no @)");
      }
      const std::string tenant = string_field(body, "tenant_id");
      const std::string by = req.user_id.empty() ? req.token_id : req.user_id;
      const std::string e = l.email ? ctx.users->add_email(entry, tenant, by)
                                    : ctx.users->add_domain(entry, tenant, by);
      if (!e.empty()) return base::fail(res, 500, e);
      if (ctx.audit)
        ctx.audit(&req, {{"action",
                          std::string("admin.signup_") + (l.email ? "email" : "domain") + ".add"},
                         {"resource", entry},
                         {"tenant", tenant}});
      reply(res, {{"status", "ok"}, {l.email ? "email" : "domain", entry}, {"tenant_id", tenant}});
    });
    add("DELETE", std::string(l.path) + "/*", [ctx, l](const Request& req, Response& res) {
      if (!base::require_admin(req, res) || unavailable(ctx, res)) return;
      const std::string entry = req.path.substr(std::string(l.path).size() + 1);
      const bool removed =
          l.email ? ctx.users->delete_email(entry) : ctx.users->delete_domain(entry);
      if (!removed)
        return base::fail(res, 404, "not_found", {{l.email ? "email" : "domain", entry}});
      reply(res, {{"status", "deleted"}, {l.email ? "email" : "domain", entry}});
    });
  }

  add("PUT", "/api/v1/edge/session", [ctx](const Request& req, Response& res) {
    if (unavailable(ctx, res)) return;
    const std::string key = req.header("X-API-Key");
    if (key.empty()) return base::fail(res, 401, "missing X-API-Key header");
    auto u = ctx.users->authenticate_key(key);
    if (!u) return base::fail(res, 401, "invalid API key");
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    // The reset token, if one is pending, is not the browser's to overwrite.
    Json current = base::parse_json(ctx.users->get_settings(u->user_id).value_or("{}"));
    for (const char* kept : {"reset_token", "reset_expires"}) {
      body.erase(kept);
      if (current.is_object() && current.contains(kept)) body[kept] = current[kept];
    }
    if (std::string e = ctx.users->save_settings(u->user_id, base::dump_json(body)); !e.empty()) {
      return base::fail(res, status_of(e), e);
    }
    reply(res, {{"status", "saved"}, {"user_id", u->user_id}});
  });

  base::RouteOptions cluster_internal;
  cluster_internal.cluster_secret = true;
  add(
      "POST", "/api/v1/identity/_sync",
      [ctx](const Request& req, Response& res) {
        const std::string presented = req.header("X-Ostrel-Cluster-Secret");
        if (presented.empty()) return base::fail(res, 401, "cluster_secret_required");
        const std::string secret = ctx.cluster_secret ? ctx.cluster_secret() : "";
        if (secret.empty()) return base::fail(res, 503, "cluster_secret_not_initialized");
        if (!base::constant_time_equal(presented, secret)) return base::fail(res, 403, "forbidden");
        Json body;
        if (!base::parse_object_body(req, res, body)) return;
        if (string_field(body, "action") != "set_password")
          return base::fail(res, 400, "unknown_action");
        const std::string user_id = string_field(body, "user_id"),
                          password = string_field(body, "password");
        if (user_id.empty() || password.empty())
          return base::fail(res, 400, "user_id and password required");
        if (!ctx.users || !ctx.users->is_open())
          return base::fail(res, 503, "identity_store_unavailable");
        if (!ctx.users->update_user(user_id, "", password).empty())
          return base::fail(res, 400, "update_failed");
        if (ctx.users_changed) ctx.users_changed();
        reply(res, {{"status", "ok"}, {"user_id", user_id}});
      },
      cluster_internal);
}

void register_user_syscalls(const IdentityContext& ctx, const AddSyscall& add) {
  using base::json_syscall;
  auto store = [ctx]() -> UserStore* {
    return ctx.users && ctx.users->is_open() ? ctx.users : nullptr;
  };
  add("identity.authenticate_key", json_syscall([store](const Json& a) {
        if (!store()) return base::syscall_error("database not open");
        auto u = store()->authenticate_key(a.value("api_key", ""));
        if (!u) return base::syscall_error("invalid_api_key");
        return base::syscall_ok(user_json(*u));
      }));
  add("identity.users.list", json_syscall([store](const Json&) {
        if (!store()) return base::syscall_error("database not open");
        Json list = Json::array();
        for (const auto& u : store()->list_users()) list.push_back(user_json(u));
        return base::syscall_ok({{"users", list}, {"count", list.size()}});
      }));
  add("identity.users.create", json_syscall([store, ctx](const Json& a) {
        if (!store()) return base::syscall_error("database not open");
        auto r = store()->register_user(a.value("username", ""), a.value("password", ""),
                                        a.value("role", "viewer"), a.value("account_type", "human"),
                                        a.value("tenant_id", ""), a.value("display_name", ""));
        if (!r) return base::syscall_error(r.error);
        if (ctx.users_changed) ctx.users_changed();
        Json out = user_json(*r.user);
        out["api_key"] = r.user->api_key;
        return base::syscall_ok(out);
      }));
  add("identity.users.get", json_syscall([store](const Json& a) {
        if (!store()) return base::syscall_error("database not open");
        auto u = store()->get_user(a.value("user_id", ""));
        if (!u) return base::syscall_error("user not found");
        return base::syscall_ok(user_json(*u));
      }));
  add("identity.users.find_by_username", json_syscall([store](const Json& a) {
        if (!store()) return base::syscall_error("database not open");
        auto u = store()->find_by_username(a.value("username", ""));
        if (!u) return base::syscall_error("user not found");
        return base::syscall_ok(user_json(*u));
      }));
  add("identity.users.update", json_syscall([store, ctx](const Json& a) {
        if (!store()) return base::syscall_error("database not open");
        const std::string e = store()->update_user(a.value("user_id", ""), a.value("role", ""),
                                                   a.value("password", ""));
        if (!e.empty()) return base::syscall_error(e);
        if (ctx.users_changed) ctx.users_changed();
        return base::syscall_ok({{"ok", true}});
      }));
  add("identity.users.set_password", json_syscall([store, ctx](const Json& a) {
        if (!store()) return base::syscall_error("database not open");
        if (a.value("password", "").empty()) return base::syscall_error("password required");
        const std::string e =
            store()->update_user(a.value("user_id", ""), "", a.value("password", ""));
        if (!e.empty()) return base::syscall_error(e);
        if (ctx.users_changed) ctx.users_changed();
        return base::syscall_ok({{"ok", true}});
      }));
  add("identity.users.delete", json_syscall([store, ctx](const Json& a) {
        if (!store()) return base::syscall_error("database not open");
        if (!store()->delete_user(a.value("user_id", "")))
          return base::syscall_error("user not found");
        if (ctx.users_changed) ctx.users_changed();
        return base::syscall_ok({{"ok", true}});
      }));
}

}  // namespace ostrel::identity
