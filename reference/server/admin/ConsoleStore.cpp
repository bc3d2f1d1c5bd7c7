#include "reference/server/admin/ConsoleStore.h"

#include <algorithm>
#include <system_error>

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
)sql";

}  // namespace

Status ConsoleStore::Open(const std::filesystem::path& dataDir,
                          std::unique_ptr<ConsoleStore>* store) {
  sqlite3* db = nullptr;
  if (Status status = OpenDatabase(dataDir, "console.sqlite", &db); !status.ok()) return status;
  std::unique_ptr<ConsoleStore> opened(new ConsoleStore(db));
  Status s = Exec(db, kSchema);
  if (!s.ok())
    return Status::IOError("cannot prepare " + (dataDir / "console.sqlite").string() + ": " +
                           s.message());
  *store = std::move(opened);
  return Status::OK();
}

ConsoleStore::~ConsoleStore() { sqlite3_close(db_); }

Status ConsoleStore::PasswordHash(std::string* encoded) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "SELECT hash FROM console_password WHERE only_row = 1");
  if (!st.prepared()) return st.Error("read console password");
  const int rc = st.Step();
  if (rc == SQLITE_DONE) return Status::NotFound("no console password is set");
  if (rc != SQLITE_ROW) return st.Error("read console password");
  *encoded = st.Text(0);
  return Status::OK();
}

Status ConsoleStore::SetPasswordHash(const std::string& encoded, int64_t nowMs) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO console_password (only_row, hash, set_ms) VALUES (1, ?1, ?2) "
               "ON CONFLICT(only_row) DO UPDATE SET hash = ?1, set_ms = ?2");
  st.Bind(1, encoded).Bind(2, nowMs);
  return Run(st, "set console password");
}

Status ConsoleStore::PasswordSetMs(int64_t* setMs) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "SELECT set_ms FROM console_password WHERE only_row = 1");
  if (!st.prepared()) return st.Error("read console password");
  const int rc = st.Step();
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) return st.Error("read console password");
  *setMs = rc == SQLITE_ROW ? st.Int(0) : 0;
  return Status::OK();
}

Status ConsoleStore::Record(AuditEntry entry) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO audit_log (at_ms, peer, action, target, details) "
               "VALUES (?1, ?2, ?3, ?4, ?5)");
  st.Bind(1, entry.atMs)
      .Bind(2, entry.peer)
      .Bind(3, entry.action)
      .Bind(4, entry.target)
      .Bind(5, entry.details.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  return Run(st, "record audit entry");
}

Status ConsoleStore::ListAudit(int limit, int64_t beforeId, std::vector<AuditEntry>* entries) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "SELECT id, at_ms, peer, action, target, details FROM audit_log "
               "WHERE ?1 = 0 OR id < ?1 ORDER BY id DESC LIMIT ?2");
  if (!st.prepared()) return st.Error("list audit log");
  st.Bind(1, beforeId).Bind(2, int64_t{std::clamp(limit, 0, 1000)});
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
    entries->push_back(std::move(e));
  }
  if (rc != SQLITE_DONE) return st.Error("list audit log");
  return Status::OK();
}

}  // namespace zolvani::refserver
