#include "reference/server/store/sqlite/SqliteConsoleState.h"

#include <openssl/sha.h>

#include <algorithm>

#include "reference/server/store/sqlite/SqliteStatement.h"

namespace zolvani::refserver {

namespace {

constexpr const char* kSchema = R"sql(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
CREATE TABLE IF NOT EXISTS console_password (
  only_row INTEGER PRIMARY KEY CHECK (only_row = 1), hash TEXT NOT NULL,
  set_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS audit_log (
  id INTEGER PRIMARY KEY AUTOINCREMENT, at_ms INTEGER NOT NULL, peer TEXT NOT NULL,
  action TEXT NOT NULL, target TEXT NOT NULL, details TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS operators (
  name TEXT PRIMARY KEY, role INTEGER NOT NULL, hash TEXT NOT NULL,
  created_ms INTEGER NOT NULL, changed_ms INTEGER NOT NULL);
-- A session is found by the SHA-256 of its cookie, never by the cookie itself.
CREATE TABLE IF NOT EXISTS console_sessions (
  id_sha256 TEXT PRIMARY KEY, csrf_token TEXT NOT NULL, operator TEXT NOT NULL,
  created_ms INTEGER NOT NULL, last_used_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS login_failures (
  key TEXT PRIMARY KEY, failures INTEGER NOT NULL, last_ms INTEGER NOT NULL);
)sql";

std::string Digest(std::string_view id) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(id.data()), id.size(), digest);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : digest) {
    out += kHex[b >> 4];
    out += kHex[b & 0x0f];
  }
  return out;
}

Operator ReadOperator(const Statement& st) {
  // Columns: name, role, hash, created_ms, changed_ms.
  Operator op;
  op.name = st.Text(0);
  op.role = static_cast<OperatorRole>(std::clamp<int64_t>(st.Int(1), 0, 2));
  op.passwordHash = st.Text(2);
  op.createdMs = st.Int(3);
  op.changedMs = st.Int(4);
  return op;
}

}  // namespace

Status SqliteConsoleState::Open(const std::filesystem::path& dataDir,
                                std::unique_ptr<SqliteConsoleState>* state) {
  sqlite3* db = nullptr;
  if (Status status = OpenDatabase(dataDir, "console.sqlite", &db); !status.ok()) return status;
  std::unique_ptr<SqliteConsoleState> opened(new SqliteConsoleState(db));
  if (Status s = opened->InitSchema(); !s.ok()) {
    return Status::IOError("cannot prepare " + (dataDir / "console.sqlite").string() + ": " +
                           s.message());
  }
  *state = std::move(opened);
  return Status::OK();
}

SqliteConsoleState::~SqliteConsoleState() { sqlite3_close(db_); }

Status SqliteConsoleState::InitSchema() {
  Status s = Exec(db_, kSchema);
  if (!s.ok()) return s;
  // Folders from before named operators keep their audit log; its entries name
  // no operator.
  Statement info(db_, "SELECT 1 FROM pragma_table_info('audit_log') WHERE name = 'operator'");
  if (!info.prepared()) return info.Error("read the audit log's columns");
  if (info.Step() == SQLITE_ROW) return Status::OK();
  s = Exec(db_, "ALTER TABLE audit_log ADD COLUMN operator TEXT NOT NULL DEFAULT ''");
  if (!s.ok()) return s;
  return Exec(db_, "CREATE INDEX IF NOT EXISTS audit_by_operator ON audit_log (operator, id)");
}

Status SqliteConsoleState::PasswordHash(std::string* encoded) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "SELECT hash FROM console_password WHERE only_row = 1");
  if (!st.prepared()) return st.Error("read console password");
  const int rc = st.Step();
  if (rc == SQLITE_DONE) return Status::NotFound("no console password is set");
  if (rc != SQLITE_ROW) return st.Error("read console password");
  *encoded = st.Text(0);
  return Status::OK();
}

Status SqliteConsoleState::SetPasswordHash(const std::string& encoded, int64_t nowMs) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO console_password (only_row, hash, set_ms) VALUES (1, ?1, ?2) "
               "ON CONFLICT(only_row) DO UPDATE SET hash = ?1, set_ms = ?2");
  st.Bind(1, encoded).Bind(2, nowMs);
  return Run(st, "set console password");
}

Status SqliteConsoleState::PasswordSetMs(int64_t* setMs) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "SELECT set_ms FROM console_password WHERE only_row = 1");
  if (!st.prepared()) return st.Error("read console password");
  const int rc = st.Step();
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) return st.Error("read console password");
  *setMs = rc == SQLITE_ROW ? st.Int(0) : 0;
  return Status::OK();
}

Status SqliteConsoleState::AddOperator(const Operator& op) {
  if (op.name.empty()) return Status::InvalidArgument("an operator needs a name");
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO operators (name, role, hash, created_ms, changed_ms) "
               "VALUES (?1, ?2, ?3, ?4, ?4) ON CONFLICT(name) DO NOTHING");
  st.Bind(1, op.name)
      .Bind(2, static_cast<int64_t>(op.role))
      .Bind(3, op.passwordHash)
      .Bind(4, op.createdMs);
  if (Status s = Run(st, "add operator"); !s.ok()) return s;
  if (sqlite3_changes(db_) == 0) return Status::AlreadyExists("operator " + op.name + " exists");
  return Status::OK();
}

Status SqliteConsoleState::OtherAdministrators(const std::string& name, int64_t* others) {
  Statement st(db_, "SELECT COUNT(*) FROM operators WHERE role = ?1 AND name <> ?2");
  if (!st.prepared()) return st.Error("count administrators");
  st.Bind(1, static_cast<int64_t>(OperatorRole::kAdministrator)).Bind(2, name);
  if (st.Step() != SQLITE_ROW) return st.Error("count administrators");
  *others = st.Int(0);
  return Status::OK();
}

Status SqliteConsoleState::UpdateOperator(const std::string& name, const Operator* expected,
                                          OperatorRole role, const std::string& passwordHash,
                                          int64_t nowMs) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Operator op;
  {
    Statement st(db_,
                 "SELECT name, role, hash, created_ms, changed_ms FROM operators WHERE name = ?1");
    if (!st.prepared()) return st.Error("find operator");
    st.Bind(1, name);
    const int rc = st.Step();
    if (rc == SQLITE_DONE) return Status::NotFound("unknown operator " + name);
    if (rc != SQLITE_ROW) return st.Error("find operator");
    op = ReadOperator(st);
  }
  if (expected && (op.role != expected->role || op.passwordHash != expected->passwordHash ||
                   op.changedMs != expected->changedMs)) {
    return Status::FailedPrecondition("operator " + name + " changed since it was read");
  }
  if (op.role == OperatorRole::kAdministrator && role != OperatorRole::kAdministrator) {
    int64_t others = 0;
    if (Status s = OtherAdministrators(name, &others); !s.ok()) return s;
    if (others == 0) {
      return Status::FailedPrecondition(name + " is the last administrator");
    }
  }
  Statement st(db_,
               "UPDATE operators SET role = ?2, hash = CASE WHEN ?3 = '' THEN hash ELSE ?3 END, "
               "changed_ms = ?4 WHERE name = ?1");
  st.Bind(1, name).Bind(2, static_cast<int64_t>(role)).Bind(3, passwordHash).Bind(4, nowMs);
  if (Status s = Run(st, "update operator"); !s.ok()) return s;
  return tx.Commit();
}

Status SqliteConsoleState::RemoveOperator(const std::string& name) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Statement find(db_, "SELECT role FROM operators WHERE name = ?1");
  if (!find.prepared()) return find.Error("find operator");
  find.Bind(1, name);
  const int rc = find.Step();
  if (rc == SQLITE_DONE) return Status::NotFound("unknown operator " + name);
  if (rc != SQLITE_ROW) return find.Error("find operator");
  if (find.Int(0) == static_cast<int64_t>(OperatorRole::kAdministrator)) {
    int64_t others = 0;
    if (Status s = OtherAdministrators(name, &others); !s.ok()) return s;
    Statement count(db_, "SELECT COUNT(*) FROM operators WHERE name <> ?1");
    if (!count.prepared()) return count.Error("count operators");
    count.Bind(1, name);
    if (count.Step() != SQLITE_ROW) return count.Error("count operators");
    if (others == 0 && count.Int(0) > 0) {
      return Status::FailedPrecondition(name + " is the last administrator");
    }
  }
  Statement st(db_, "DELETE FROM operators WHERE name = ?1");
  st.Bind(1, name);
  if (Status s = Run(st, "remove operator"); !s.ok()) return s;
  Statement sessions(db_, "DELETE FROM console_sessions WHERE operator = ?1");
  sessions.Bind(1, name);
  if (Status s = Run(sessions, "end sessions"); !s.ok()) return s;
  return tx.Commit();
}

Status SqliteConsoleState::FindOperator(const std::string& name, Operator* op) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "SELECT name, role, hash, created_ms, changed_ms FROM operators WHERE name = ?1");
  if (!st.prepared()) return st.Error("find operator");
  st.Bind(1, name);
  const int rc = st.Step();
  if (rc == SQLITE_DONE) return Status::NotFound("unknown operator " + name);
  if (rc != SQLITE_ROW) return st.Error("find operator");
  *op = ReadOperator(st);
  return Status::OK();
}

Status SqliteConsoleState::ListOperators(std::vector<Operator>* operators) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "SELECT name, role, hash, created_ms, changed_ms FROM operators ORDER BY name");
  if (!st.prepared()) return st.Error("list operators");
  operators->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) operators->push_back(ReadOperator(st));
  if (rc != SQLITE_DONE) return st.Error("list operators");
  return Status::OK();
}

Status SqliteConsoleState::CountOperators(int64_t* count) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "SELECT COUNT(*) FROM operators");
  if (!st.prepared() || st.Step() != SQLITE_ROW) return st.Error("count operators");
  *count = st.Int(0);
  return Status::OK();
}

Status SqliteConsoleState::CreateSession(const ConsoleSession& session,
                                         const SessionLimits& limits) {
  const int64_t now = session.createdMs;
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Statement expired(db_,
                    "DELETE FROM console_sessions WHERE ?1 - last_used_ms > ?2 OR "
                    "?1 - created_ms > ?3");
  expired.Bind(1, now)
      .Bind(2, static_cast<int64_t>(limits.idle.count()))
      .Bind(3, static_cast<int64_t>(limits.lifetime.count()));
  if (Status s = Run(expired, "drop expired sessions"); !s.ok()) return s;
  // Room for the new one: keep the most recently used maxSessions - 1.
  Statement trim(db_,
                 "DELETE FROM console_sessions WHERE id_sha256 NOT IN (SELECT id_sha256 FROM "
                 "console_sessions ORDER BY last_used_ms DESC, created_ms DESC LIMIT ?1)");
  trim.Bind(1, static_cast<int64_t>(limits.maxSessions > 0 ? limits.maxSessions - 1 : 0));
  if (Status s = Run(trim, "drop old sessions"); !s.ok()) return s;
  Statement st(db_,
               "INSERT OR REPLACE INTO console_sessions (id_sha256, csrf_token, operator, "
               "created_ms, last_used_ms) VALUES (?1, ?2, ?3, ?4, ?5)");
  st.Bind(1, Digest(session.id))
      .Bind(2, session.csrfToken)
      .Bind(3, session.operatorName)
      .Bind(4, session.createdMs)
      .Bind(5, session.lastUsedMs);
  if (Status s = Run(st, "create session"); !s.ok()) return s;
  return tx.Commit();
}

Status SqliteConsoleState::FindSession(std::string_view id, int64_t nowMs,
                                       const SessionLimits& limits, ConsoleSession* session) {
  if (id.size() != 64) return Status::NotFound("no such session");
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "UPDATE console_sessions SET last_used_ms = MAX(last_used_ms, ?2) "
               "WHERE id_sha256 = ?1 AND ?2 - last_used_ms <= ?3 AND ?2 - created_ms <= ?4 "
               "RETURNING csrf_token, operator, created_ms, last_used_ms");
  if (!st.prepared()) return st.Error("find session");
  st.Bind(1, Digest(id))
      .Bind(2, nowMs)
      .Bind(3, static_cast<int64_t>(limits.idle.count()))
      .Bind(4, static_cast<int64_t>(limits.lifetime.count()));
  const int rc = st.Step();
  if (rc == SQLITE_DONE) return Status::NotFound("no such session");
  if (rc != SQLITE_ROW) return st.Error("find session");
  session->id = std::string(id);
  session->csrfToken = st.Text(0);
  session->operatorName = st.Text(1);
  session->createdMs = st.Int(2);
  session->lastUsedMs = st.Int(3);
  st.Step();  // runs the update to its end
  return Status::OK();
}

Status SqliteConsoleState::EndSession(std::string_view id) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "DELETE FROM console_sessions WHERE id_sha256 = ?1");
  st.Bind(1, Digest(id));
  return Run(st, "end session");
}

Status SqliteConsoleState::EndSessionsOf(const std::string& operatorName) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "DELETE FROM console_sessions WHERE operator = ?1");
  st.Bind(1, operatorName);
  return Run(st, "end sessions");
}

Status SqliteConsoleState::RecordLoginFailure(const std::string& key, int64_t nowMs,
                                              int64_t forgetMs, LoginFailures* after) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Statement forget(db_, "DELETE FROM login_failures WHERE ?1 - last_ms > ?2");
  forget.Bind(1, nowMs).Bind(2, forgetMs);
  if (Status s = Run(forget, "forget sign-in failures"); !s.ok()) return s;
  Statement st(db_,
               "INSERT INTO login_failures (key, failures, last_ms) VALUES (?1, 1, ?2) "
               "ON CONFLICT(key) DO UPDATE SET failures = failures + 1, "
               "last_ms = MAX(last_ms, ?2) RETURNING failures, last_ms");
  if (!st.prepared()) return st.Error("count sign-in failure");
  st.Bind(1, key).Bind(2, nowMs);
  if (st.Step() != SQLITE_ROW) return st.Error("count sign-in failure");
  after->failures = st.Int(0);
  after->lastFailureMs = st.Int(1);
  st.Step();
  return tx.Commit();
}

Status SqliteConsoleState::ReadLoginFailures(const std::string& key, LoginFailures* failures) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "SELECT failures, last_ms FROM login_failures WHERE key = ?1");
  if (!st.prepared()) return st.Error("read sign-in failures");
  st.Bind(1, key);
  const int rc = st.Step();
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) return st.Error("read sign-in failures");
  *failures = rc == SQLITE_ROW ? LoginFailures{st.Int(0), st.Int(1)} : LoginFailures{};
  return Status::OK();
}

Status SqliteConsoleState::ClearLoginFailures(const std::string& key) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "DELETE FROM login_failures WHERE key = ?1");
  st.Bind(1, key);
  return Run(st, "clear sign-in failures");
}

Status SqliteConsoleState::Record(AuditEntry entry) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO audit_log (at_ms, peer, action, target, details, operator) "
               "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  st.Bind(1, entry.atMs)
      .Bind(2, entry.peer)
      .Bind(3, entry.action)
      .Bind(4, entry.target)
      .Bind(5, entry.details.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
      .Bind(6, entry.operatorName);
  return Run(st, "record audit entry");
}

Status SqliteConsoleState::ListAudit(const AuditQuery& query, std::vector<AuditEntry>* entries) {
  std::lock_guard lock(mutex_);
  // An action ending in a dot names a kind of change: every action it begins.
  const bool kind = !query.action.empty() && query.action.back() == '.';
  Statement st(db_,
               "SELECT id, at_ms, peer, action, target, details, operator FROM audit_log "
               "WHERE (?1 = 0 OR id < ?1) AND (?2 = '' OR operator = ?2) "
               "AND (?3 = '' OR (?4 = 0 AND action = ?3) OR "
               "(?4 = 1 AND substr(action, 1, length(?3)) = ?3)) "
               "AND (?5 = 0 OR at_ms >= ?5) AND (?6 = 0 OR at_ms < ?6) "
               "ORDER BY id DESC LIMIT ?7");
  if (!st.prepared()) return st.Error("list audit log");
  st.Bind(1, query.beforeId)
      .Bind(2, query.operatorName)
      .Bind(3, query.action)
      .Bind(4, int64_t{kind})
      .Bind(5, query.fromMs)
      .Bind(6, query.toMs)
      .Bind(7, int64_t{std::clamp(query.limit, 0, 1000)});
  entries->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    AuditEntry e;
    e.id = st.Int(0);
    e.atMs = st.Int(1);
    e.peer = st.Text(2);
    e.action = st.Text(3);
    e.target = st.Text(4);
    e.details = nlohmann::json::parse(st.Text(5), nullptr, false);
    if (e.details.is_discarded()) e.details = nlohmann::json::object();
    e.operatorName = st.Text(6);
    entries->push_back(std::move(e));
  }
  if (rc != SQLITE_DONE) return st.Error("list audit log");
  return Status::OK();
}

}  // namespace zolvani::refserver
