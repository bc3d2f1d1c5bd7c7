// PgConsoleState: the console's shared state in the PostgreSQL database the
// replicas serve from, so that a browser signed in on one replica is signed in on
// every one, a stranger's failed sign-ins count together wherever they land, and
// every replica writes to one audit log. Behaves as SqliteConsoleState does (same
// results, same error kinds) and adds Unavailable when no pooled connection is
// free or the database cannot be reached.
//
// Counting a failure is one atomic upsert; the changes that count before they
// write (trimming sessions to the limit, keeping the last administrator) take a
// transaction-scoped advisory lock, so two replicas at once act as one after the
// other.
//
// Thread-safe: calls borrow a pooled connection each.
#pragma once

#include <memory>
#include <string>

#include "reference/server/store/ConsoleState.h"
#include "reference/server/store/postgres/PgPool.h"

namespace zolvani::refserver {

class PgConsoleState final : public ConsoleState {
 public:
  // On the connections of `pool` (typically the PgStore's), which must outlive
  // the state. The schema is checked by whoever opened the pool's store.
  explicit PgConsoleState(PgPool* pool) : pool_(pool) {}

  // With a pool of its own (`poolSize` connections) on `url`, after checking that
  // the schema is the version this program needs (FailedPrecondition otherwise).
  static Status Open(const std::string& url, int poolSize, std::unique_ptr<PgConsoleState>* state);

  PgConsoleState(const PgConsoleState&) = delete;
  PgConsoleState& operator=(const PgConsoleState&) = delete;

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
  explicit PgConsoleState(std::unique_ptr<PgPool> owned)
      : owned_(std::move(owned)), pool_(owned_.get()) {}

  std::unique_ptr<PgPool> owned_;
  PgPool* pool_;
};

}  // namespace zolvani::refserver
