// Database: a thin wrapper over one SQLite connection.
//
// The engine keeps one connection in WAL mode. Statement binds values by
// position and steps rows; Database runs plain SQL and transactions, and keeps
// the statements the engine runs over and over prepared for the connection's
// life. Errors come back as strings (the message of the failing call), never
// as exceptions.
//
// Thread-safety: a Database is not thread-safe by itself; the engine serialises
// every use through Database::mutex().
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "store/SpinningMutex.h"

struct sqlite3;
struct sqlite3_stmt;

namespace zolvani::reference {

class Database;

class Statement {
 public:
  Statement(Database& db, std::string_view sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool ok() const { return stmt_ != nullptr; }
  Statement& bind(int index, std::int64_t value);
  Statement& bind(int index, double value);
  Statement& bind(int index, std::string_view value);
  Statement& bind(int index, std::optional<double> value);
  Statement& bindNull(int index);
  // Steps once: true when a row is available.
  bool step();
  // Runs to completion; false on error.
  bool run();
  void reset();

  std::int64_t int64(int column) const;
  double real(int column) const;
  std::optional<double> optionalReal(int column) const;
  std::string text(int column) const;

 private:
  Database& db_;
  sqlite3_stmt* stmt_ = nullptr;
};

class Database {
 public:
  Database() = default;
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Opens (creating) the file in WAL mode; an error message on failure.
  std::optional<std::string> open(const std::filesystem::path& file);
  void close();
  // Runs one or more statements; an error message on failure.
  std::optional<std::string> exec(std::string_view sql);
  std::string lastError() const;
  // A statement prepared on first use and kept until close(), handed out reset
  // and with its bindings cleared. Check ok() before use.
  Statement& prepared(std::string_view sql);
  // Rows changed by the last INSERT, UPDATE or DELETE.
  std::int64_t changes() const;
  std::int64_t lastInsertRowId() const;
  // True while a transaction is open on the connection.
  bool inTransaction() const;
  SpinningMutex<std::recursive_mutex>& mutex() { return mutex_; }
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
  SpinningMutex<std::recursive_mutex> mutex_;
  // Found by the statement's text without building a string: a commit looks
  // a statement up for every row it writes.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  std::unordered_map<std::string, std::unique_ptr<Statement>, TextHash, std::equal_to<>> prepared_;
};

}  // namespace zolvani::reference
