#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

// Owning wrappers over SQLite handles: a statement is finalized and a
// connection closed with its object on every path, and every call that can
// fail reports SQLite's text. Not thread-safe: their owners serialise use.
namespace ostrel::base::sqlite {

class Statement {
 public:
  Statement() = default;
  Statement(Statement&& other) noexcept : s_(other.s_) { other.s_ = nullptr; }
  Statement& operator=(Statement&& other) noexcept;
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  explicit operator bool() const { return s_ != nullptr; }
  sqlite3_stmt* get() const { return s_; }

  // Ready for another run: reset, bindings cleared.
  Statement& reset();
  Statement& bind(int index, std::int64_t value);
  Statement& bind(int index, std::string_view text);  // copied
  Statement& bind_double(int index, double value);
  Statement& bind_blob(int index, const void* data, std::size_t size);  // copied
  Statement& bind_null(int index);
  // SQLITE_ROW, SQLITE_DONE or an error code.
  int step();

  std::string text(int column) const;
  std::int64_t int64(int column) const { return sqlite3_column_int64(s_, column); }
  double real(int column) const { return sqlite3_column_double(s_, column); }
  const void* blob(int column) const { return sqlite3_column_blob(s_, column); }
  int bytes(int column) const { return sqlite3_column_bytes(s_, column); }
  bool is_null(int column) const { return sqlite3_column_type(s_, column) == SQLITE_NULL; }

 private:
  friend class Connection;
  explicit Statement(sqlite3_stmt* s) : s_(s) {}
  sqlite3_stmt* s_ = nullptr;
};

class Connection {
 public:
  Connection() = default;
  Connection(Connection&& other) noexcept : db_(other.db_) { other.db_ = nullptr; }
  Connection& operator=(Connection&& other) noexcept;
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Opens (SQLITE_OPEN_* flags) with a busy timeout, so that a writer
  // waits for another instead of failing with SQLITE_BUSY; false with
  // SQLite's text.
  static constexpr int kBusyTimeoutMs = 5000;
  bool open(const std::filesystem::path& path, int flags, std::string& error,
            int busy_timeout_ms = kBusyTimeoutMs);
  explicit operator bool() const { return db_ != nullptr; }
  sqlite3* get() const { return db_; }
  std::string message() const;

  // Runs SQL without results; false with SQLite's text.
  bool exec(std::string_view sql, std::string& error);
  // An empty statement (false) with SQLite's text in `error` on failure.
  Statement prepare(std::string_view sql, std::string& error);
  // The first column of the first row as an integer, or `fallback`.
  std::int64_t scalar(std::string_view sql, std::int64_t fallback = -1);
  // Rows the last INSERT, UPDATE or DELETE changed.
  int changes() const { return sqlite3_changes(db_); }

 private:
  sqlite3* db_ = nullptr;
};

// BEGIN IMMEDIATE at construction; rolled back unless commit() succeeded.
class Transaction {
 public:
  Transaction(Connection& db, std::string& error);
  ~Transaction();
  bool ok() const { return begun_; }
  bool commit(std::string& error);

 private:
  Connection& db_;
  bool begun_ = false;
  bool done_ = false;
};

}  // namespace ostrel::base::sqlite
