// SqliteStatement: small RAII helpers over SQLite's C interface that the server's
// stores share: opening a database file, a prepared statement that finalises
// itself, a statement run for its effect, and a transaction rolled back unless
// committed.
//
// Not thread-safe: a statement and a transaction belong to the thread that holds
// their store's lock.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

#include "reference/server/Status.h"

namespace zolvani::refserver {

// A prepared statement that finalises itself; binds are 1-based like SQLite's.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    prepared_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) == SQLITE_OK;
  }
  // Borrows a statement prepared once and kept by its owner (null: failed to
  // prepare): reset, not finalised, when this ends.
  Statement(sqlite3* db, sqlite3_stmt* borrowed)
      : db_(db), stmt_(borrowed), prepared_(borrowed != nullptr), owned_(false) {}
  ~Statement() {
    if (owned_) {
      sqlite3_finalize(stmt_);
    } else if (stmt_ != nullptr) {
      sqlite3_reset(stmt_);
      sqlite3_clear_bindings(stmt_);
    }
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool prepared() const { return prepared_; }
  Statement& Bind(int index, const std::string& text) {
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Statement& Bind(int index, int64_t value) {
    sqlite3_bind_int64(stmt_, index, value);
    return *this;
  }
  Statement& BindNull(int index) {
    sqlite3_bind_null(stmt_, index);
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE or an error code.
  int Step() { return sqlite3_step(stmt_); }
  void Reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  std::string Text(int column) const {
    const auto* text = sqlite3_column_text(stmt_, column);
    return text == nullptr ? std::string()
                           : std::string(reinterpret_cast<const char*>(text),
                                         static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
  }
  int64_t Int(int column) const { return sqlite3_column_int64(stmt_, column); }
  sqlite3* db() const { return db_; }
  sqlite3_stmt* handle() const { return stmt_; }
  Status Error(const char* what) const {
    return Status::IOError(std::string(what) + ": " + sqlite3_errmsg(db_));
  }

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
  bool prepared_ = false;
  bool owned_ = true;
};

inline Status Exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message != nullptr ? message : "unknown error";
    sqlite3_free(message);
    return Status::IOError(text);
  }
  return Status::OK();
}

// Opens (creating it and its folder when missing) the database file `name` in
// `dataDir`, with the busy time-out the admin commands rely on to run beside a
// serving server. On failure nothing stays open.
inline Status OpenDatabase(const std::filesystem::path& dataDir, const char* name, sqlite3** out) {
  *out = nullptr;
  std::error_code ec;
  std::filesystem::create_directories(dataDir, ec);
  if (ec) return Status::IOError("cannot create " + dataDir.string() + ": " + ec.message());
  const std::string file = (dataDir / name).string();
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    std::string message = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
    sqlite3_close(db);
    return Status::IOError("cannot open " + file + ": " + message);
  }
  sqlite3_busy_timeout(db, 5000);
  *out = db;
  return Status::OK();
}

// Runs a statement that returns no rows.
inline Status Run(Statement& statement, const char* what) {
  if (!statement.prepared()) return statement.Error(what);
  const int rc = statement.Step();
  if (rc != SQLITE_DONE && rc != SQLITE_ROW) return statement.Error(what);
  return Status::OK();
}

// BEGIN IMMEDIATE ... COMMIT, rolled back when the scope ends without Commit().
class Transaction {
 public:
  Transaction(sqlite3* db, bool write) : db_(db) {
    status_ = Exec(db, write ? "BEGIN IMMEDIATE" : "BEGIN");
  }
  ~Transaction() {
    if (status_.ok() && !done_) Exec(db_, "ROLLBACK");
  }
  const Status& status() const { return status_; }
  Status Commit() {
    done_ = true;
    return Exec(db_, "COMMIT");
  }

 private:
  sqlite3* db_;
  Status status_;
  bool done_ = false;
};

}  // namespace zolvani::refserver
