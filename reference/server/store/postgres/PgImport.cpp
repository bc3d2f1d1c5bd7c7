#include "reference/server/store/postgres/PgImport.h"

#include <sqlite3.h>

#include <vector>

#include "reference/server/store/postgres/PgPool.h"
#include "reference/server/store/postgres/PgSchema.h"

namespace zolvani::refserver {

namespace {

enum class Column { kText, kNullableText, kInt, kBool };

struct TableCopy {
  const char* table;
  const char* select;  // from SQLite
  const char* insert;  // into PostgreSQL, $1.. in the same order
  std::vector<Column> columns;
};

const std::vector<TableCopy>& Tables() {
  using C = Column;
  static const std::vector<TableCopy> tables = {
      {"accounts",
       "SELECT user, public_key, secret FROM accounts",
       "INSERT INTO accounts (user_id, public_key, secret) VALUES ($1, $2, $3)",
       {C::kText, C::kText, C::kText}},
      {"devices",
       "SELECT user, device, first_seen_ms, last_seen_ms FROM devices",
       "INSERT INTO devices (user_id, device, first_seen_ms, last_seen_ms) VALUES ($1, $2, $3, $4)",
       {C::kText, C::kText, C::kInt, C::kInt}},
      {"push_registrations",
       "SELECT user, device, service, token, updated_ms FROM push_registrations",
       "INSERT INTO push_registrations (user_id, device, service, token, updated_ms) "
       "VALUES ($1, $2, $3, $4, $5)",
       {C::kText, C::kText, C::kText, C::kText, C::kInt}},
      {"feeds",
       "SELECT id, title, subscribable, max_assets, auto_delete, max_bitrate FROM feeds",
       "INSERT INTO feeds (id, title, subscribable, max_assets, auto_delete, max_bitrate) "
       "VALUES ($1, $2, $3, $4, $5, $6)",
       {C::kText, C::kText, C::kBool, C::kInt, C::kBool, C::kInt}},
      {"items",
       "SELECT uuid, feed, user, created_ms, media_path, metadata FROM items",
       "INSERT INTO items (uuid, feed, user_id, created_ms, media_path, metadata) "
       "VALUES ($1, $2, $3, $4, $5, $6)",
       {C::kText, C::kNullableText, C::kNullableText, C::kInt, C::kText, C::kText}},
      {"subscriptions",
       "SELECT user, device, feed FROM subscriptions",
       "INSERT INTO subscriptions (user_id, device, feed) VALUES ($1, $2, $3)",
       {C::kText, C::kText, C::kText}},
      {"rules",
       "SELECT user, device, feed, max_assets, auto_delete, max_bitrate FROM rules",
       "INSERT INTO rules (user_id, device, feed, max_assets, auto_delete, max_bitrate) "
       "VALUES ($1, $2, $3, $4, $5, $6)",
       {C::kText, C::kText, C::kText, C::kInt, C::kBool, C::kInt}},
      {"pushes",
       "SELECT id, user, device, service, token, item_uuid, feed, created_ms, delivered "
       "FROM pushes ORDER BY id",
       "INSERT INTO pushes (id, user_id, device, service, token, item_uuid, feed, created_ms, "
       "delivered) OVERRIDING SYSTEM VALUE VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9)",
       {C::kInt, C::kText, C::kText, C::kText, C::kText, C::kText, C::kText, C::kInt, C::kBool}},
      {"publishers",
       "SELECT feed, user FROM publishers",
       "INSERT INTO publishers (feed, user_id) VALUES ($1, $2)",
       {C::kText, C::kText}},
  };
  return tables;
}

// The console's state (console.sqlite beside the store), copied when the
// database's console holds nothing yet. Audit ids are kept so that paging links
// stay valid; sessions are kept so that nobody signed in has to sign in again.
// Sign-in failures are left behind: they are forgotten within the hour anyway.
const std::vector<TableCopy>& ConsoleTables(bool auditHasOperator) {
  using C = Column;
  static const auto make = [](const char* auditSelect) {
    return std::vector<TableCopy>{
        {"console password",
         "SELECT only_row, hash, set_ms FROM console_password",
         "INSERT INTO console_password (only_row, hash, set_ms) VALUES ($1, $2, $3)",
         {C::kInt, C::kText, C::kInt}},
        {"operators",
         "SELECT name, role, hash, created_ms, changed_ms FROM operators",
         "INSERT INTO console_operators (name, role, hash, created_ms, changed_ms) "
         "VALUES ($1, $2, $3, $4, $5)",
         {C::kText, C::kInt, C::kText, C::kInt, C::kInt}},
        {"console sessions",
         "SELECT id_sha256, csrf_token, operator, created_ms, last_used_ms FROM console_sessions",
         "INSERT INTO console_sessions (id_sha256, csrf_token, operator, created_ms, "
         "last_used_ms) VALUES ($1, $2, $3, $4, $5)",
         {C::kText, C::kText, C::kText, C::kInt, C::kInt}},
        {"audit entries",
         auditSelect,
         "INSERT INTO console_audit (id, at_ms, operator, peer, action, target, details) "
         "OVERRIDING SYSTEM VALUE VALUES ($1, $2, $3, $4, $5, $6, $7)",
         {C::kInt, C::kInt, C::kText, C::kText, C::kText, C::kText, C::kText}},
    };
  };
  // Folders from before named operators have no operator column in the log.
  static const std::vector<TableCopy> withOperator =
      make("SELECT id, at_ms, operator, peer, action, target, details FROM audit_log ORDER BY id");
  static const std::vector<TableCopy> withoutOperator =
      make("SELECT id, at_ms, '', peer, action, target, details FROM audit_log ORDER BY id");
  return auditHasOperator ? withOperator : withoutOperator;
}

// Closes the SQLite file however the import ends.
struct SqliteFile {
  sqlite3* db = nullptr;
  ~SqliteFile() { sqlite3_close(db); }
};

std::string SqliteText(sqlite3_stmt* st, int column) {
  const auto* text = sqlite3_column_text(st, column);
  return text == nullptr ? std::string()
                         : std::string(reinterpret_cast<const char*>(text),
                                       static_cast<size_t>(sqlite3_column_bytes(st, column)));
}

Status CopyTable(sqlite3* db, PgLease& lease, const TableCopy& table, int64_t* copied) {
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db, table.select, -1, &st, nullptr) != SQLITE_OK) {
    const std::string message = sqlite3_errmsg(db);
    sqlite3_finalize(st);
    return Status::Corruption(std::string("read ") + table.table + ": " + message);
  }
  Status s;
  int rc;
  std::vector<PgParam> params;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
    params.clear();
    for (size_t i = 0; i < table.columns.size(); ++i) {
      const int c = static_cast<int>(i);
      switch (table.columns[i]) {
        case Column::kText:
          params.emplace_back(SqliteText(st, c));
          break;
        case Column::kNullableText:
          params.push_back(sqlite3_column_type(st, c) == SQLITE_NULL ? PgParam::Null()
                                                                     : PgParam(SqliteText(st, c)));
          break;
        case Column::kInt:
          params.emplace_back(static_cast<int64_t>(sqlite3_column_int64(st, c)));
          break;
        case Column::kBool:
          params.emplace_back(sqlite3_column_int64(st, c) != 0);
          break;
      }
    }
    s = lease.Exec(std::string("copy ") + table.table, table.insert, params);
    if (!s.ok()) break;
    ++*copied;
  }
  if (s.ok() && rc != SQLITE_DONE) {
    s = Status::Corruption(std::string("read ") + table.table + ": " + sqlite3_errmsg(db));
  }
  sqlite3_finalize(st);
  return s;
}

}  // namespace

std::string ImportSummary::ToString() const {
  std::string text = "imported";
  bool first = true;
  for (const auto& [table, n] : rows) {
    text += (first ? " " : ", ") + std::to_string(n) + " " + table;
    first = false;
  }
  if (consoleKept) text += "; the database's console state was kept, console.sqlite not copied";
  return text;
}

Status ImportSqlite(const std::filesystem::path& dataDir, const std::string& url,
                    ImportSummary* summary) {
  const auto file = dataDir / "server.sqlite";
  if (!std::filesystem::is_regular_file(file)) {
    return Status::NotFound("no store to import: " + file.string() + " does not exist");
  }
  SqliteFile sqlite;
  if (sqlite3_open_v2(file.c_str(), &sqlite.db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    return Status::IOError("cannot open " + file.string() + ": " + sqlite3_errmsg(sqlite.db));
  }
  sqlite3_busy_timeout(sqlite.db, 5000);
  // One read transaction: a server still running beside the import cannot tear it.
  char* error = nullptr;
  if (sqlite3_exec(sqlite.db, "BEGIN", nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error != nullptr ? error : "";
    sqlite3_free(error);
    return Status::IOError("read " + file.string() + ": " + message);
  }

  // The console's state, when the folder has one, read in a transaction of its own.
  SqliteFile console;
  bool auditHasOperator = true;
  const auto consoleFile = dataDir / "console.sqlite";
  if (std::filesystem::is_regular_file(consoleFile)) {
    if (sqlite3_open_v2(consoleFile.c_str(), &console.db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
      return Status::IOError("cannot open " + consoleFile.string() + ": " +
                             sqlite3_errmsg(console.db));
    }
    sqlite3_busy_timeout(console.db, 5000);
    if (sqlite3_exec(console.db, "BEGIN", nullptr, nullptr, &error) != SQLITE_OK) {
      const std::string message = error != nullptr ? error : "";
      sqlite3_free(error);
      return Status::IOError("read " + consoleFile.string() + ": " + message);
    }
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(console.db,
                           "SELECT 1 FROM pragma_table_info('audit_log') WHERE name = 'operator'",
                           -1, &st, nullptr) != SQLITE_OK) {
      sqlite3_finalize(st);
      return Status::Corruption("read " + consoleFile.string() + ": " + sqlite3_errmsg(console.db));
    }
    auditHasOperator = sqlite3_step(st) == SQLITE_ROW;
    sqlite3_finalize(st);
  }

  PgPool pool(url, PgPoolOptions{1, std::chrono::milliseconds(5000), 5});
  ImportSummary made;
  Status s = pool.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    made = ImportSummary();
    Status st = PgSchema::Check(lease);
    if (!st.ok()) return st;
    PgResult r;
    st = lease.Exec("check the database is empty",
                    "SELECT (SELECT COUNT(*) FROM accounts) + (SELECT COUNT(*) FROM feeds) + "
                    "(SELECT COUNT(*) FROM items) + (SELECT COUNT(*) FROM devices)",
                    {}, &r);
    if (!st.ok()) return st;
    if (r.Int(0, 0) != 0) {
      return Status::FailedPrecondition(
          "the database already holds content; an import goes into an empty database only");
    }
    for (const auto& table : Tables()) {
      int64_t copied = 0;
      st = CopyTable(sqlite.db, lease, table, &copied);
      if (!st.ok()) return st;
      made.rows[table.table] = copied;
    }
    // New notices continue after the copied ids.
    st = lease.Exec("move the notice sequence",
                    "SELECT setval(pg_get_serial_sequence('pushes', 'id'), "
                    "GREATEST((SELECT COALESCE(MAX(id), 0) FROM pushes), 1), "
                    "(SELECT COUNT(*) > 0 FROM pushes))",
                    {});
    if (!st.ok() || console.db == nullptr) return st;
    // A console already set up in the database (set-console-password --database
    // run before the import) is kept as it is, never merged.
    st = lease.Exec("check the console is empty",
                    "SELECT (SELECT COUNT(*) FROM console_password) + "
                    "(SELECT COUNT(*) FROM console_operators) + "
                    "(SELECT COUNT(*) FROM console_audit)",
                    {}, &r);
    if (!st.ok()) return st;
    if (r.Int(0, 0) != 0) {
      made.consoleKept = true;
      return Status::OK();
    }
    for (const auto& table : ConsoleTables(auditHasOperator)) {
      int64_t copied = 0;
      st = CopyTable(console.db, lease, table, &copied);
      if (!st.ok()) return st;
      made.rows[table.table] = copied;
    }
    return lease.Exec("move the audit sequence",
                      "SELECT setval(pg_get_serial_sequence('console_audit', 'id'), "
                      "GREATEST((SELECT COALESCE(MAX(id), 0) FROM console_audit), 1), "
                      "(SELECT COUNT(*) > 0 FROM console_audit))",
                      {});
  });
  if (!s.ok()) return s;
  *summary = std::move(made);
  return Status::OK();
}

}  // namespace zolvani::refserver
