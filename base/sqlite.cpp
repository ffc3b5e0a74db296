#include "base/sqlite.h"

namespace ostrel::base::sqlite {

Statement& Statement::operator=(Statement&& other) noexcept {
  if (this != &other) {
    sqlite3_finalize(s_);
    s_ = other.s_;
    other.s_ = nullptr;
  }
  return *this;
}

Statement::~Statement() { sqlite3_finalize(s_); }

Statement& Statement::reset() {
  sqlite3_reset(s_);
  sqlite3_clear_bindings(s_);
  return *this;
}

Statement& Statement::bind(int index, std::int64_t value) {
  sqlite3_bind_int64(s_, index, value);
  return *this;
}

Statement& Statement::bind(int index, std::string_view text) {
  sqlite3_bind_text64(s_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  return *this;
}

Statement& Statement::bind_double(int index, double value) {
  sqlite3_bind_double(s_, index, value);
  return *this;
}

Statement& Statement::bind_blob(int index, const void* data, std::size_t size) {
  sqlite3_bind_blob64(s_, index, data, size, SQLITE_TRANSIENT);
  return *this;
}

Statement& Statement::bind_null(int index) {
  sqlite3_bind_null(s_, index);
  return *this;
}

int Statement::step() { return sqlite3_step(s_); }

std::string Statement::text(int column) const {
  const unsigned char* t = sqlite3_column_text(s_, column);
  return t ? std::string(reinterpret_cast<const char*>(t),
                         static_cast<std::size_t>(sqlite3_column_bytes(s_, column)))
           : std::string();
}

Connection& Connection::operator=(Connection&& other) noexcept {
  if (this != &other) {
    if (db_) sqlite3_close_v2(db_);
    db_ = other.db_;
    other.db_ = nullptr;
  }
  return *this;
}

Connection::~Connection() {
  if (db_) sqlite3_close_v2(db_);
}

bool Connection::open(const std::filesystem::path& path, int flags, std::string& error,
                      int busy_timeout_ms) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    error = db ? sqlite3_errmsg(db) : "out of memory";
    sqlite3_close_v2(db);
    return false;
  }
  sqlite3_busy_timeout(db, busy_timeout_ms);
  if (db_) sqlite3_close_v2(db_);
  db_ = db;
  return true;
}

std::string Connection::message() const { return db_ ? sqlite3_errmsg(db_) : "no database"; }

bool Connection::exec(std::string_view sql, std::string& error) {
  std::string text(sql);
  char* msg = nullptr;
  if (sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &msg) == SQLITE_OK) return true;
  error = msg ? msg : message();
  sqlite3_free(msg);
  return false;
}

Statement Connection::prepare(std::string_view sql, std::string& error) {
  sqlite3_stmt* s = nullptr;
  if (sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &s, nullptr) !=
      SQLITE_OK) {
    error = message();
    sqlite3_finalize(s);
    return Statement();
  }
  return Statement(s);
}

std::int64_t Connection::scalar(std::string_view sql, std::int64_t fallback) {
  std::string error;
  Statement s = prepare(sql, error);
  if (!s || s.step() != SQLITE_ROW) return fallback;
  return s.int64(0);
}

Transaction::Transaction(Connection& db, std::string& error) : db_(db) {
  begun_ = db_.exec("BEGIN IMMEDIATE", error);
}

Transaction::~Transaction() {
  if (begun_ && !done_) {
    std::string ignored;
    db_.exec("ROLLBACK", ignored);
  }
}

bool Transaction::commit(std::string& error) {
  if (!begun_ || done_) return false;
  done_ = db_.exec("COMMIT", error);
  return done_;
}

}  // namespace ostrel::base::sqlite
