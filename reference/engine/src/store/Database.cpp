#include "store/Database.h"

#include <sqlite3.h>

namespace zolvani::reference {

Statement::Statement(Database& db, std::string_view sql) : db_(db) {
  if (sqlite3_prepare_v2(db.handle(), sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr) !=
      SQLITE_OK) {
    stmt_ = nullptr;
  }
}

Statement::~Statement() {
  if (stmt_) sqlite3_finalize(stmt_);
}

Statement& Statement::bind(int index, std::int64_t value) {
  if (stmt_) sqlite3_bind_int64(stmt_, index, value);
  return *this;
}

Statement& Statement::bind(int index, double value) {
  if (stmt_) sqlite3_bind_double(stmt_, index, value);
  return *this;
}

Statement& Statement::bind(int index, std::string_view value) {
  if (stmt_)
    sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
  return *this;
}

Statement& Statement::bind(int index, std::optional<double> value) {
  return value ? bind(index, *value) : bindNull(index);
}

Statement& Statement::bindNull(int index) {
  if (stmt_) sqlite3_bind_null(stmt_, index);
  return *this;
}

bool Statement::step() { return stmt_ && sqlite3_step(stmt_) == SQLITE_ROW; }

bool Statement::run() {
  if (!stmt_) return false;
  int rc;
  while ((rc = sqlite3_step(stmt_)) == SQLITE_ROW) {
  }
  return rc == SQLITE_DONE;
}

void Statement::reset() {
  if (stmt_) {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
}

std::int64_t Statement::int64(int column) const { return sqlite3_column_int64(stmt_, column); }

double Statement::real(int column) const { return sqlite3_column_double(stmt_, column); }

std::optional<double> Statement::optionalReal(int column) const {
  if (sqlite3_column_type(stmt_, column) == SQLITE_NULL) return std::nullopt;
  return sqlite3_column_double(stmt_, column);
}

std::string Statement::text(int column) const {
  const auto* p = sqlite3_column_text(stmt_, column);
  if (!p) return {};
  return std::string(reinterpret_cast<const char*>(p),
                     static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

Database::~Database() { close(); }

std::optional<std::string> Database::open(const std::filesystem::path& file) {
  close();
  if (sqlite3_open_v2(file.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    close();
    return message;
  }
  sqlite3_busy_timeout(db_, 5000);
  // WAL with NORMAL sync survives a killed process: a committed transaction is
  // in the log before the commit returns.
  if (auto e = exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;"))
    return e;
  return std::nullopt;
}

void Database::close() {
  prepared_.clear();  // statements are finalised before their connection
  if (db_) sqlite3_close_v2(db_);
  db_ = nullptr;
}

Statement& Database::prepared(std::string_view sql) {
  auto it = prepared_.find(sql);
  if (it == prepared_.end())
    it = prepared_.emplace(std::string(sql), std::make_unique<Statement>(*this, sql)).first;
  it->second->reset();
  return *it->second;
}

std::int64_t Database::changes() const { return db_ ? sqlite3_changes64(db_) : 0; }

bool Database::inTransaction() const { return db_ && !sqlite3_get_autocommit(db_); }

std::int64_t Database::lastInsertRowId() const { return db_ ? sqlite3_last_insert_rowid(db_) : 0; }

std::optional<std::string> Database::exec(std::string_view sql) {
  if (!db_) return std::string("database not open");
  char* message = nullptr;
  std::string text(sql);
  if (sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    std::string out = message ? message : "unknown error";
    sqlite3_free(message);
    return out;
  }
  return std::nullopt;
}

std::string Database::lastError() const { return db_ ? sqlite3_errmsg(db_) : "database not open"; }

}  // namespace zolvani::reference
