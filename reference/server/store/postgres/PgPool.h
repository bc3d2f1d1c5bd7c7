// PgPool: a fixed number of libpq connections to one PostgreSQL database that the
// store's calls borrow one at a time, with the helpers every PostgreSQL statement
// of the server goes through: parameters as text, results read by row and column,
// statements prepared once per connection, and transactions retried when
// PostgreSQL reports a serialization failure or a deadlock.
//
// Thread-safe: any number of threads borrow at once; a borrowed connection
// (PgLease) belongs to the thread that holds it until it is returned.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "reference/server/Status.h"

struct pg_conn;
struct pg_result;

namespace zolvani::refserver {

// One statement parameter, sent as text; nullopt is SQL NULL.
class PgParam {
 public:
  PgParam(std::string text) : value_(std::move(text)) {}  // NOLINT: implicit by design
  PgParam(const char* text) : value_(std::string(text)) {}
  PgParam(int64_t v) : value_(std::to_string(v)) {}
  PgParam(int32_t v) : value_(std::to_string(v)) {}
  PgParam(bool v) : value_(v ? "t" : "f") {}
  static PgParam Null() { return PgParam(); }
  // An empty string stands for NULL, as the store keeps "no feed" and "no user".
  static PgParam NullIfEmpty(const std::string& text) {
    return text.empty() ? PgParam() : PgParam(text);
  }
  // A text[] literal of `values`.
  static PgParam TextArray(const std::vector<std::string>& values);

  const std::optional<std::string>& value() const { return value_; }

 private:
  PgParam() = default;
  std::optional<std::string> value_;
};

// A statement's result rows; text format.
class PgResult {
 public:
  PgResult() = default;
  explicit PgResult(pg_result* result) : result_(result) {}
  ~PgResult();
  PgResult(PgResult&& other) noexcept : result_(other.result_) { other.result_ = nullptr; }
  PgResult& operator=(PgResult&& other) noexcept;
  PgResult(const PgResult&) = delete;
  PgResult& operator=(const PgResult&) = delete;

  int rows() const;
  // Rows changed by an INSERT, UPDATE or DELETE.
  int64_t affected() const;
  bool IsNull(int row, int column) const;
  // Empty for NULL.
  std::string Text(int row, int column) const;
  int64_t Int(int row, int column) const;
  bool Bool(int row, int column) const;

 private:
  pg_result* result_ = nullptr;
};

// How a transaction reads and writes.
enum class PgIsolation {
  kReadCommitted,     // each statement sees what committed before it (after a lock)
  kSerializable,      // a write that reads first: equivalent to running alone
  kRepeatableReadRO,  // a read of several statements: one snapshot
};

class PgPool;

// One borrowed connection; returns itself to its pool when destroyed.
class PgLease {
 public:
  PgLease();
  ~PgLease();
  PgLease(PgLease&& other) noexcept;
  PgLease& operator=(PgLease&& other) noexcept;
  PgLease(const PgLease&) = delete;
  PgLease& operator=(const PgLease&) = delete;

  bool held() const { return conn_ != nullptr; }

  // Runs one statement (prepared on this connection the first time its text is
  // seen). A failure is an IOError naming `what`; sqlState() then holds its code.
  Status Exec(std::string_view what, const std::string& sql, const std::vector<PgParam>& params,
              PgResult* result = nullptr);
  // Runs text without parameters through the simple protocol (BEGIN, COMMIT, DDL).
  Status Simple(std::string_view what, const std::string& sql);

  // SQLSTATE of the last failure ("" when it was not the server's).
  const std::string& sqlState() const { return sqlState_; }
  // Whether the connection is gone (the server closed it, or the network broke).
  bool Broken() const;
  // Whether a transaction is open (also when it failed and awaits ROLLBACK).
  bool InTransaction() const;

 private:
  friend class PgPool;
  struct Connection;
  PgLease(PgPool* pool, std::unique_ptr<Connection> conn);
  void Release();

  PgPool* pool_ = nullptr;
  std::unique_ptr<Connection> conn_;
  std::string sqlState_;
};

struct PgPoolOptions {
  int size = 8;  // connections at most
  // How long a call waits for a connection before it fails with Unavailable.
  std::chrono::milliseconds borrowTimeout{2000};
  // Seconds libpq waits for a new connection to open.
  int connectTimeoutSeconds = 2;
};

class PgPool {
 public:
  // Checks nothing yet: connections open when first borrowed.
  PgPool(std::string url, PgPoolOptions options);
  ~PgPool();
  PgPool(const PgPool&) = delete;
  PgPool& operator=(const PgPool&) = delete;

  // A connection, opened when none is idle and fewer than `size` are open. Fails
  // with Unavailable when none is free within the borrow time-out or the database
  // cannot be reached.
  Status Borrow(PgLease* lease);

  // One statement outside any explicit transaction (its own, at READ COMMITTED).
  // A connection found broken is replaced once before the statement is sent.
  Status Run(std::string_view what, const std::string& sql, const std::vector<PgParam>& params,
             PgResult* result = nullptr);

  // Runs `body` inside BEGIN … COMMIT at `isolation`. A serialization failure or a
  // deadlock, from any statement or the commit, rolls back and runs `body` again
  // (up to 5 times, after 1–20 ms); so `body` must start from scratch every time.
  // A non-OK status from `body` rolls back and is returned as it is.
  Status Transact(PgIsolation isolation, const std::function<Status(PgLease&)>& body);

  const std::string& url() const { return url_; }
  int size() const { return options_.size; }
  // Connections open now (borrowed or idle).
  int open();

 private:
  friend class PgLease;
  Status Connect(std::unique_ptr<PgLease::Connection>* conn);
  void Return(std::unique_ptr<PgLease::Connection> conn);

  const std::string url_;
  const PgPoolOptions options_;
  std::mutex mutex_;
  std::condition_variable freed_;
  std::vector<std::unique_ptr<PgLease::Connection>> idle_;
  int open_ = 0;
};

// True for the SQLSTATEs after which a transaction may simply be run again.
bool IsRetryableSqlState(std::string_view state);

}  // namespace zolvani::refserver
