// SqliteConsoleState: the console's shared state in its own SQLite database beside
// the content (`<data>/console.sqlite`), so that every process on one data folder
// (several servers, an admin command) shares sessions, operators, sign-in
// failures and the audit log.
//
// Thread-safe: one connection guarded by a mutex. Other processes may open the
// same folder at once (WAL with a busy time-out).
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>

#include "reference/server/store/ConsoleState.h"

struct sqlite3;

namespace zolvani::refserver {

class SqliteConsoleState final : public ConsoleState {
 public:
  // Opens (creating or upgrading when needed) `dataDir`/console.sqlite.
  static Status Open(const std::filesystem::path& dataDir,
                     std::unique_ptr<SqliteConsoleState>* state);
  ~SqliteConsoleState() override;
  SqliteConsoleState(const SqliteConsoleState&) = delete;
  SqliteConsoleState& operator=(const SqliteConsoleState&) = delete;

  Status PasswordHash(std::string* encoded) override;
  Status SetPasswordHash(const std::string& encoded, int64_t nowMs) override;
  Status PasswordSetMs(int64_t* setMs) override;

  Status AddOperator(const Operator& op) override;
  Status UpdateOperator(const std::string& name, const Operator* expected, OperatorRole role,
                        const std::string& passwordHash, int64_t nowMs) override;
  Status RemoveOperator(const std::string& name) override;
  Status FindOperator(const std::string& name, Operator* op) override;
  Status ListOperators(std::vector<Operator>* operators) override;
  Status CountOperators(int64_t* count) override;

  Status CreateSession(const ConsoleSession& session, const SessionLimits& limits) override;
  Status FindSession(std::string_view id, int64_t nowMs, const SessionLimits& limits,
                     ConsoleSession* session) override;
  Status EndSession(std::string_view id) override;
  Status EndSessionsOf(const std::string& operatorName) override;

  Status RecordLoginFailure(const std::string& key, int64_t nowMs, int64_t forgetMs,
                            LoginFailures* after) override;
  Status ReadLoginFailures(const std::string& key, LoginFailures* failures) override;
  Status ClearLoginFailures(const std::string& key) override;

  Status Record(AuditEntry entry) override;
  Status ListAudit(const AuditQuery& query, std::vector<AuditEntry>* entries) override;

 private:
  explicit SqliteConsoleState(sqlite3* db) : db_(db) {}
  Status InitSchema();
  // Whether another administrator than `name` remains; call with mutex_ held.
  Status OtherAdministrators(const std::string& name, int64_t* others);

  std::mutex mutex_;
  sqlite3* db_;
};

}  // namespace zolvani::refserver
