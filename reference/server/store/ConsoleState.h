// ConsoleState: what the operator's console keeps that every server process on the
// same data must share: the one console password of a server without operators,
// the named operators with their roles and password hashes, the signed-in
// sessions, the sign-in failures the throttle counts, and the audit log of every
// change. Two processes on one store see one another's sessions at once, so a
// browser may be answered by either, and a stranger's guesses count against the
// same limits wherever they land.
//
// The state holds values; the rules (who may do what, how long a client waits
// after failing) are the admin API's. Each call is one transaction.
// Implementations are thread-safe: the server calls them from many requests at
// once.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/Status.h"

namespace zolvani::refserver {

// What an operator may do; each role may do everything of the roles below it.
enum class OperatorRole {
  kViewer = 0,         // reads every page, changes nothing
  kEditor = 1,         // also feeds, publishers, items and devices
  kAdministrator = 2,  // also accounts and operators
};

// "viewer", "editor", "administrator".
inline const char* RoleName(OperatorRole role) {
  switch (role) {
    case OperatorRole::kViewer:
      return "viewer";
    case OperatorRole::kEditor:
      return "editor";
    case OperatorRole::kAdministrator:
      return "administrator";
  }
  return "viewer";
}

// False when `name` is none of the names above.
inline bool ParseRole(std::string_view name, OperatorRole* role) {
  for (OperatorRole r :
       {OperatorRole::kViewer, OperatorRole::kEditor, OperatorRole::kAdministrator}) {
    if (name == RoleName(r)) {
      *role = r;
      return true;
    }
  }
  return false;
}

struct Operator {
  std::string name;
  OperatorRole role = OperatorRole::kViewer;
  std::string passwordHash;  // Argon2id, PHC string form
  int64_t createdMs = 0;
  // When the password or the role last changed: sessions signed in before then end.
  int64_t changedMs = 0;
};

struct ConsoleSession {
  std::string id;         // the cookie's value; 64 hex digits; stored only as its SHA-256
  std::string csrfToken;  // 64 hex digits
  // The operator signed in; empty for a session of the one console password.
  std::string operatorName;
  int64_t createdMs = 0;
  int64_t lastUsedMs = 0;
};

struct SessionLimits {
  std::chrono::milliseconds idle = std::chrono::minutes(30);
  std::chrono::milliseconds lifetime = std::chrono::hours(12);
  size_t maxSessions = 64;
};

struct AuditEntry {
  int64_t id = 0;  // assigned by Record(); increasing
  int64_t atMs = 0;
  // Who made the change: an operator's name, "console" for the one console
  // password, "command line" for an admin command; for a refused sign-in, the
  // name that was tried (possibly empty).
  std::string operatorName;
  std::string peer;    // the client's address, or "command line"
  std::string action;  // "feed.create", "item.remove", "login.refused", ...
  std::string target;  // what the change concerns (a feed, an item, "user/device")
  nlohmann::json details = nlohmann::json::object();
};

// Which audit entries to list, newest first. Empty or zero members do not filter.
struct AuditQuery {
  std::string operatorName;  // exactly this operator
  // An action ("feed.update"), or a kind of change ending in a dot ("feed.")
  // that matches every action beginning with it.
  std::string action;
  int64_t fromMs = 0;  // at or after
  int64_t toMs = 0;    // before
  int64_t beforeId = 0;
  int limit = 100;  // at most 1000
};

// Sign-in failures counted for one key (a client address, a name tried from it).
struct LoginFailures {
  int64_t failures = 0;
  int64_t lastFailureMs = 0;
};

class ConsoleState {
 public:
  virtual ~ConsoleState() = default;

  // The one console password of a server without operators. PasswordHash is
  // NotFound when none was set; PasswordSetMs is 0 then.
  virtual Status PasswordHash(std::string* encoded) = 0;
  virtual Status SetPasswordHash(const std::string& encoded, int64_t nowMs) = 0;
  virtual Status PasswordSetMs(int64_t* setMs) = 0;

  // Operators. AddOperator fails with AlreadyExists for a name in use.
  // UpdateOperator replaces the role, and the password hash when not empty, and
  // sets changedMs; NotFound for an unknown name. Given `expected` (the
  // operator as the editor read them), it writes only while role, hash and
  // changedMs are still those, and fails with FailedPrecondition otherwise.
  // Removing the last
  // administrator, or taking the role from them, fails with FailedPrecondition
  // while other operators remain, so that someone can always manage operators.
  virtual Status AddOperator(const Operator& op) = 0;
  virtual Status UpdateOperator(const std::string& name, const Operator* expected,
                                OperatorRole role, const std::string& passwordHash,
                                int64_t nowMs) = 0;
  virtual Status RemoveOperator(const std::string& name) = 0;
  virtual Status FindOperator(const std::string& name, Operator* op) = 0;
  // Sorted by name.
  virtual Status ListOperators(std::vector<Operator>* operators) = 0;
  virtual Status CountOperators(int64_t* count) = 0;

  // Sessions. CreateSession stores `session` (its id as a digest), dropping
  // expired sessions and, beyond `limits.maxSessions`, the least recently used.
  // FindSession gives the live session named `id` and marks it used at `nowMs`;
  // NotFound when unknown, idle past `limits.idle` or older than
  // `limits.lifetime`.
  virtual Status CreateSession(const ConsoleSession& session, const SessionLimits& limits) = 0;
  virtual Status FindSession(std::string_view id, int64_t nowMs, const SessionLimits& limits,
                             ConsoleSession* session) = 0;
  virtual Status EndSession(std::string_view id) = 0;
  // Ends every session of `operatorName` (of the console password when empty).
  virtual Status EndSessionsOf(const std::string& operatorName) = 0;

  // Sign-in failures per key. RecordLoginFailure counts one more failure at
  // `nowMs`, starting again from one when the last is older than `forgetMs`, and
  // gives the count; keys forgotten that way may be dropped.
  virtual Status RecordLoginFailure(const std::string& key, int64_t nowMs, int64_t forgetMs,
                                    LoginFailures* after) = 0;
  // Zero failures for an unknown key.
  virtual Status ReadLoginFailures(const std::string& key, LoginFailures* failures) = 0;
  virtual Status ClearLoginFailures(const std::string& key) = 0;

  // The audit log.
  virtual Status Record(AuditEntry entry) = 0;
  virtual Status ListAudit(const AuditQuery& query, std::vector<AuditEntry>* entries) = 0;
};

}  // namespace zolvani::refserver
