#include "identity/user_store.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <mutex>

#include "base/encoding.h"
#include "base/roles.h"
#include "base/sqlite.h"

namespace ostrel::identity_registry {

namespace {

// Host names compare without regard to case: "Example.COM" is "example.com".
std::string lower_domain(std::string d) {
  for (char& c : d) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return d;
}

using base::sqlite::Statement;

constexpr const char* kNotOpen = "database not open";
constexpr const char* kColumns =
    "user_id, username, password_hash, api_key, role, account_type, tenant_id, display_name, "
    "settings_json, created_at, last_login";

UserRecord record_of(const Statement& s) {
  return {s.text(0), s.text(1), s.text(2), s.text(3), s.text(4), s.text(5),
          s.text(6), s.text(7), s.text(8), s.text(9), s.text(10)};
}

std::string random_hex(std::size_t bytes) { return base::to_hex(base::random_bytes(bytes)); }

bool domain_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.';
}

}  // namespace

struct UserStore::Impl {
  std::mutex mu;  // serialises every use of db
  base::sqlite::Connection db;

  std::optional<UserRecord> one(const std::string& sql, const std::string& arg) {
    std::string error;
    Statement s = db.prepare(sql, error);
    if (!s) return std::nullopt;
    s.bind(1, arg);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return record_of(s);
  }
  bool run(const std::string& sql, std::initializer_list<std::string> args, std::string& error) {
    Statement s = db.prepare(sql, error);
    if (!s) return false;
    int i = 1;
    for (const auto& a : args) s.bind(i++, a);
    if (s.step() != SQLITE_DONE) {
      error = db.message();
      return false;
    }
    return true;
  }
  std::optional<std::string> scalar_text(const std::string& sql, const std::string& arg) {
    std::string error;
    Statement s = db.prepare(sql, error);
    if (!s) return std::nullopt;
    s.bind(1, arg);
    if (s.step() != SQLITE_ROW) return std::nullopt;
    return s.text(0);
  }
};

UserStore::UserStore() : impl_(std::make_unique<Impl>()) {}
UserStore::~UserStore() = default;

std::string UserStore::hash_password(const std::string& password) {
  return base::to_hex(base::sha256(password));
}

bool UserStore::normalise_username(const std::string& name, std::string& out, std::string& error) {
  const auto first = name.find_first_not_of(" \t\r\n");
  const auto last = name.find_last_not_of(" \t\r\n");
  out = first == std::string::npos ? "" : name.substr(first, last - first + 1);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (out.empty()) {
    error = "username required";
    return false;
  }
  const auto at = out.find('@');
  if (at == std::string::npos) return true;
  if (out.find('@', at + 1) != std::string::npos) {
    error = "username must be one e-mail address (one @)";
    return false;
  }
  const std::string domain = out.substr(at + 1);
  if (at == 0 || domain.empty() || domain.front() == '.' || domain.back() == '.' ||
      domain.find("..") != std::string::npos ||
      !std::all_of(domain.begin(), domain.end(), domain_char)) {
    error = "username must be an e-mail address with a valid domain";
    return false;
  }
  for (char c : out.substr(0, at)) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
      error = "username must not contain spaces or control characters";
      return false;
    }
  }
  return true;
}

bool UserStore::valid_role(const std::string& role) { return base::roles::known(role); }

std::string UserStore::now_text() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

bool UserStore::open(const std::filesystem::path& path, std::string& error) {
  std::lock_guard lock(impl_->mu);
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  base::sqlite::Connection db;
  if (!db.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, error)) {
    return false;
  }
  if (!db.exec("PRAGMA journal_mode=WAL;", error) ||
      !db.exec(
          "CREATE TABLE IF NOT EXISTS users ( user_id TEXT PRIMARY KEY, username TEXT NOT NULL "
          "UNIQUE, password_hash TEXT NOT NULL, api_key TEXT NOT NULL UNIQUE, role TEXT NOT "
          "NULL DEFAULT 'viewer', account_type TEXT NOT NULL DEFAULT 'human', tenant_id TEXT "
          "NOT NULL DEFAULT '', display_name TEXT NOT NULL DEFAULT '', settings_json TEXT NOT "
          "NULL DEFAULT '{}', created_at TEXT NOT NULL, last_login TEXT NOT NULL DEFAULT '');",
          error) ||
      !db.exec("CREATE TABLE IF NOT EXISTS signup_domains ( domain TEXT PRIMARY KEY, tenant_id "
               "TEXT NOT NULL DEFAULT '', created_at TEXT NOT NULL, created_by TEXT NOT NULL "
               "DEFAULT '');",
               error) ||
      !db.exec(
          "CREATE TABLE IF NOT EXISTS signup_emails ( email TEXT PRIMARY KEY, tenant_id TEXT "
          "NOT NULL DEFAULT '', created_at TEXT NOT NULL, created_by TEXT NOT NULL DEFAULT '');",
          error)) {
    return false;
  }
  impl_->db = std::move(db);
  return true;
}

bool UserStore::is_open() const {
  std::lock_guard lock(impl_->mu);
  return static_cast<bool>(impl_->db);
}

UserResult UserStore::register_user(const std::string& name, const std::string& password,
                                    const std::string& role, const std::string& account_type,
                                    const std::string& tenant_id, const std::string& display_name,
                                    const std::string& settings_json, bool first_user) {
  if (name.empty()) return {std::nullopt, "username required"};
  if (password.empty()) return {std::nullopt, "password required"};
  if (password.size() < 8) return {std::nullopt, "password must be at least 8 characters"};
  std::string username, why;
  if (!normalise_username(name, username, why)) return {std::nullopt, why};
  if (account_type != "human" && account_type != "system" && account_type != "service" &&
      account_type != "device") {
    return {std::nullopt, "invalid account_type: must be human, system, service, or device"};
  }
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return {std::nullopt, kNotOpen};
  std::string error;
  // One transaction: the "first account" check and the insert cannot be
  // split by another registration (BEGIN IMMEDIATE takes the write lock).
  base::sqlite::Transaction tx(impl_->db, error);
  if (!tx.ok()) return {std::nullopt, "insert failed: " + error};
  if (first_user && impl_->db.scalar("SELECT COUNT(*) FROM users", 0) > 0) {
    return {std::nullopt, "store_not_empty"};
  }
  if (impl_->scalar_text("SELECT user_id FROM users WHERE username=?", username)) {
    return {std::nullopt, "username already exists"};
  }
  UserRecord r;
  r.role = first_user ? "superadmin" : role;
  if (!valid_role(r.role)) {
    return {std::nullopt, "invalid role: must be viewer, developer, admin, or superadmin"};
  }
  r.user_id = "usr-" + random_hex(8);
  r.username = username;
  r.password_hash = hash_password(password);
  r.api_key = "ak-" + random_hex(16);
  r.account_type = account_type;
  r.tenant_id = tenant_id;
  r.display_name = display_name;
  r.settings_json = settings_json.empty() ? "{}" : settings_json;
  r.created_at = now_text();
  if (!impl_->run("INSERT INTO users (user_id, username, password_hash, api_key, role, "
                  "account_type, tenant_id, display_name, settings_json, created_at, last_login) "
                  "VALUES (?,?,?,?,?,?,?,?,?,?,'')",
                  {r.user_id, r.username, r.password_hash, r.api_key, r.role, r.account_type,
                   r.tenant_id, r.display_name, r.settings_json, r.created_at},
                  error) ||
      !tx.commit(error)) {
    return {std::nullopt, "insert failed: " + error};
  }
  return {r, ""};
}

UserResult UserStore::login(const std::string& username, const std::string& password) {
  const std::string hash = hash_password(password);
  std::string name, why;
  if (!normalise_username(username, name, why)) name = username;
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return {std::nullopt, kNotOpen};
  auto r = impl_->one(std::string("SELECT ") + kColumns + " FROM users WHERE username=?", name);
  // The same work and the same answer for an unknown name and a wrong password.
  const std::string stored = r ? r->password_hash : std::string(64, '0');
  const bool match = base::constant_time_equal(stored, hash);
  if (!r || !match) return {std::nullopt, "invalid username or password"};
  r->last_login = now_text();
  std::string error;
  impl_->run("UPDATE users SET last_login=? WHERE user_id=?", {r->last_login, r->user_id}, error);
  return {r, ""};
}

std::optional<UserRecord> UserStore::authenticate_key(const std::string& api_key) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db || api_key.empty()) return std::nullopt;
  auto r = impl_->one(std::string("SELECT ") + kColumns + " FROM users WHERE api_key=?", api_key);
  if (!r || !base::constant_time_equal(r->api_key, api_key)) return std::nullopt;
  return r;
}

std::optional<UserRecord> UserStore::get_user(const std::string& user_id) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return std::nullopt;
  return impl_->one(std::string("SELECT ") + kColumns + " FROM users WHERE user_id=?", user_id);
}

std::optional<UserRecord> UserStore::find_by_username(const std::string& username) {
  std::string name, why;
  if (!normalise_username(username, name, why)) name = username;
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return std::nullopt;
  auto id = impl_->scalar_text("SELECT user_id FROM users WHERE username=?", name);
  if (!id) return std::nullopt;
  return impl_->one(std::string("SELECT ") + kColumns + " FROM users WHERE user_id=?", *id);
}

std::string UserStore::update_user(const std::string& user_id, const std::string& role,
                                   const std::string& password, std::string* new_api_key) {
  if (!role.empty() && !valid_role(role)) return "invalid role";
  if (!password.empty() && password.size() < 8) return "password must be at least 8 characters";
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return kNotOpen;
  if (!impl_->scalar_text("SELECT user_id FROM users WHERE user_id=?", user_id)) {
    return "user not found";
  }
  std::string error;
  base::sqlite::Transaction tx(impl_->db, error);
  if (!tx.ok()) return error;
  if (!role.empty() &&
      !impl_->run("UPDATE users SET role=? WHERE user_id=?", {role, user_id}, error)) {
    return error;
  }
  // Whoever knew the old password may have copied the key too.
  const std::string key = password.empty() ? "" : "ak-" + random_hex(16);
  if (!password.empty() &&
      !impl_->run("UPDATE users SET password_hash=?, api_key=? WHERE user_id=?",
                  {hash_password(password), key, user_id}, error)) {
    return error;
  }
  if (!tx.commit(error)) return error;
  if (new_api_key) *new_api_key = key;
  return "";
}

std::string UserStore::save_settings(const std::string& user_id, const std::string& json) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return kNotOpen;
  if (!impl_->scalar_text("SELECT user_id FROM users WHERE user_id=?", user_id)) {
    return "user not found";
  }
  std::string error;
  if (!impl_->run("UPDATE users SET settings_json=? WHERE user_id=?", {json, user_id}, error)) {
    return error;
  }
  return "";
}

std::optional<std::string> UserStore::get_settings(const std::string& user_id) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return std::nullopt;
  return impl_->scalar_text("SELECT settings_json FROM users WHERE user_id=?", user_id);
}

std::vector<UserRecord> UserStore::list_users() {
  std::vector<UserRecord> out;
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return out;
  std::string error;
  Statement s = impl_->db.prepare(
      std::string("SELECT ") + kColumns + " FROM users ORDER BY created_at, username", error);
  while (s && s.step() == SQLITE_ROW) out.push_back(record_of(s));
  return out;
}

bool UserStore::delete_user(const std::string& user_id) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return false;
  std::string error;
  if (!impl_->run("DELETE FROM users WHERE user_id=?", {user_id}, error)) return false;
  return impl_->db.changes() > 0;
}

std::int64_t UserStore::count_users() {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return 0;
  return impl_->db.scalar("SELECT COUNT(*) FROM users", 0);
}

std::string UserStore::add_domain(const std::string& name, const std::string& tenant_id,
                                  const std::string& created_by) {
  const std::string domain = lower_domain(name);
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return kNotOpen;
  std::string error;
  impl_->run(
      "INSERT OR REPLACE INTO signup_domains (domain,tenant_id,created_at,created_by) VALUES "
      "(?,?,?,?)",
      {domain, tenant_id, now_text(), created_by}, error);
  return error;
}

std::string UserStore::add_email(const std::string& email, const std::string& tenant_id,
                                 const std::string& created_by) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return kNotOpen;
  std::string error;
  impl_->run(
      "INSERT OR REPLACE INTO signup_emails (email,tenant_id,created_at,created_by) VALUES "
      "(?,?,?,?)",
      {email, tenant_id, now_text(), created_by}, error);
  return error;
}

std::vector<SignupDomainEntry> UserStore::list_domains() {
  std::vector<SignupDomainEntry> out;
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return out;
  std::string error;
  Statement s = impl_->db.prepare(
      "SELECT domain, tenant_id, created_at, created_by FROM signup_domains ORDER BY domain",
      error);
  while (s && s.step() == SQLITE_ROW) out.push_back({s.text(0), s.text(1), s.text(2), s.text(3)});
  return out;
}

std::vector<SignupEmailEntry> UserStore::list_emails() {
  std::vector<SignupEmailEntry> out;
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return out;
  std::string error;
  Statement s = impl_->db.prepare(
      "SELECT email, tenant_id, created_at, created_by FROM signup_emails ORDER BY email", error);
  while (s && s.step() == SQLITE_ROW) out.push_back({s.text(0), s.text(1), s.text(2), s.text(3)});
  return out;
}

bool UserStore::delete_domain(const std::string& domain) {
  std::lock_guard lock(impl_->mu);
  std::string error;
  return impl_->db &&
         impl_->run("DELETE FROM signup_domains WHERE domain=?", {lower_domain(domain)}, error) &&
         impl_->db.changes() > 0;
}

bool UserStore::delete_email(const std::string& email) {
  std::lock_guard lock(impl_->mu);
  std::string error;
  return impl_->db && impl_->run("DELETE FROM signup_emails WHERE email=?", {email}, error) &&
         impl_->db.changes() > 0;
}

std::optional<std::string> UserStore::domain_tenant(const std::string& domain) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return std::nullopt;
  return impl_->scalar_text("SELECT tenant_id FROM signup_domains WHERE domain=?",
                            lower_domain(domain));
}

std::optional<std::string> UserStore::email_tenant(const std::string& email) {
  std::lock_guard lock(impl_->mu);
  if (!impl_->db) return std::nullopt;
  return impl_->scalar_text("SELECT tenant_id FROM signup_emails WHERE email=?", email);
}

}  // namespace ostrel::identity_registry
