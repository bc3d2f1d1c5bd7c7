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
    return lease.Exec("move the notice sequence",
                      "SELECT setval(pg_get_serial_sequence('pushes', 'id'), "
                      "GREATEST((SELECT COALESCE(MAX(id), 0) FROM pushes), 1), "
                      "(SELECT COUNT(*) > 0 FROM pushes))",
                      {});
  });
  if (!s.ok()) return s;
  *summary = std::move(made);
  return Status::OK();
}

}  // namespace zolvani::refserver
