#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/no_copy.h"

// The node's users and its sign-up allowlist, in "identity.db" (SQLite).
namespace ostrel::identity_registry {

struct UserRecord {
  std::string user_id;
  std::string username;
  std::string password_hash;
  std::string api_key;
  std::string role;
  std::string account_type;
  std::string tenant_id;
  std::string display_name;
  std::string settings_json = "{}";
  std::string created_at;
  std::string last_login;
};

struct SignupDomainEntry {
  std::string domain;
  std::string tenant_id;
  std::string created_at;
  std::string created_by;
};

struct SignupEmailEntry {
  std::string email;
  std::string tenant_id;
  std::string created_at;
  std::string created_by;
};

// A user or an error text.
struct UserResult {
  std::optional<UserRecord> user;
  std::string error;
  explicit operator bool() const { return user.has_value(); }
};

// Passwords are kept as the lower-case hex SHA-256 of their text, without
// salt: the format other nodes of a cluster read. Comparisons run in
// constant time.
// Thread-safe: one mutex serialises every operation on the one connection
// (WAL mode).
class UserStore : private base::NoCopy {
 public:
  UserStore();
  ~UserStore();

  // Opens (creating the tables); false with the reason. Every operation of a
  // store that is not open answers "database not open".
  bool open(const std::filesystem::path& path, std::string& error);
  bool is_open() const;

  // Checks in order: "username required", "password required", "password
  // must be at least 8 characters", the user name's form (see
  // normalise_username; the name is stored normalised), the account type,
  // "username already exists", the role (one of the four).
  // With `first_user` the registration succeeds only while the store has no
  // users at all ("store_not_empty" otherwise) and the account becomes
  // "superadmin": the first account administers the node. The check and the
  // insert are one transaction, so two first registrations racing make one
  // superadmin, and the rule is decided once, by the first account alone.
  UserResult register_user(const std::string& username, const std::string& password,
                           const std::string& role, const std::string& account_type,
                           const std::string& tenant_id, const std::string& display_name,
                           const std::string& settings_json = "{}", bool first_user = false);
  // "invalid username or password" for either mistake.
  UserResult login(const std::string& username, const std::string& password);
  std::optional<UserRecord> authenticate_key(const std::string& api_key);
  std::optional<UserRecord> get_user(const std::string& user_id);
  std::optional<UserRecord> find_by_username(const std::string& username);
  // Empty role or password leaves that part as it is; "" on success, else
  // "user not found", "invalid role", "password must be at least 8
  // characters" or a database error. A new password also replaces the API
  // key (the old one stops working); the new key goes to `new_api_key`.
  std::string update_user(const std::string& user_id, const std::string& role,
                          const std::string& password, std::string* new_api_key = nullptr);
  std::string save_settings(const std::string& user_id, const std::string& json);
  std::optional<std::string> get_settings(const std::string& user_id);
  std::vector<UserRecord> list_users();
  bool delete_user(const std::string& user_id);
  std::int64_t count_users();

  std::string add_domain(const std::string& domain, const std::string& tenant_id,
                         const std::string& created_by);
  std::string add_email(const std::string& email, const std::string& tenant_id,
                        const std::string& created_by);
  std::vector<SignupDomainEntry> list_domains();
  std::vector<SignupEmailEntry> list_emails();
  bool delete_domain(const std::string& domain);
  bool delete_email(const std::string& email);
  std::optional<std::string> domain_tenant(const std::string& domain);
  std::optional<std::string> email_tenant(const std::string& email);

  // The one spelling of a user name: white space at both ends removed and
  // ASCII letters in lower case, so "DEV@acme.test" and " dev@acme.test" are
  // "dev@acme.test". A name with "@" must be one e-mail address: one "@",
  // text on both sides, a domain of letters, digits, '-' and '.'. False with
  // the reason otherwise.
  static bool normalise_username(const std::string& name, std::string& out, std::string& error);
  // SHA-256 of the text, lower-case hex.
  static std::string hash_password(const std::string& password);
  static bool valid_role(const std::string& role);
  // "%Y-%m-%dT%H:%M:%SZ" of now.
  static std::string now_text();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ostrel::identity_registry
