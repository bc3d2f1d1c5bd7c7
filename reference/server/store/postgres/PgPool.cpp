#include "reference/server/store/postgres/PgPool.h"

#include <libpq-fe.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <random>
#include <thread>

namespace zolvani::refserver {

struct PgLease::Connection {
  PGconn* conn = nullptr;
  // Statement text -> name of its prepared statement on this connection.
  std::unordered_map<std::string, std::string> prepared;

  ~Connection() {
    if (conn != nullptr) PQfinish(conn);
  }
};

bool IsRetryableSqlState(std::string_view state) { return state == "40001" || state == "40P01"; }

PgParam PgParam::TextArray(const std::vector<std::string>& values) {
  std::string text = "{";
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) text += ',';
    text += '"';
    for (char c : values[i]) {
      if (c == '"' || c == '\\') text += '\\';
      text += c;
    }
    text += '"';
  }
  text += '}';
  return PgParam(std::move(text));
}

PgResult::~PgResult() {
  if (result_ != nullptr) PQclear(result_);
}

PgResult& PgResult::operator=(PgResult&& other) noexcept {
  if (this != &other) {
    if (result_ != nullptr) PQclear(result_);
    result_ = other.result_;
    other.result_ = nullptr;
  }
  return *this;
}

int PgResult::rows() const { return result_ == nullptr ? 0 : PQntuples(result_); }

int64_t PgResult::affected() const {
  if (result_ == nullptr) return 0;
  const char* text = PQcmdTuples(result_);
  return text == nullptr || *text == '\0' ? 0 : std::strtoll(text, nullptr, 10);
}

bool PgResult::IsNull(int row, int column) const { return PQgetisnull(result_, row, column) != 0; }

std::string PgResult::Text(int row, int column) const {
  if (PQgetisnull(result_, row, column)) return std::string();
  return std::string(PQgetvalue(result_, row, column),
                     static_cast<size_t>(PQgetlength(result_, row, column)));
}

int64_t PgResult::Int(int row, int column) const {
  if (PQgetisnull(result_, row, column)) return 0;
  return std::strtoll(PQgetvalue(result_, row, column), nullptr, 10);
}

bool PgResult::Bool(int row, int column) const {
  if (PQgetisnull(result_, row, column)) return false;
  return PQgetvalue(result_, row, column)[0] == 't';
}

PgLease::PgLease(PgPool* pool, std::unique_ptr<Connection> conn)
    : pool_(pool), conn_(std::move(conn)) {}

PgLease::PgLease() = default;

PgLease::~PgLease() { Release(); }

PgLease::PgLease(PgLease&& other) noexcept
    : pool_(other.pool_), conn_(std::move(other.conn_)), sqlState_(std::move(other.sqlState_)) {
  other.pool_ = nullptr;
}

PgLease& PgLease::operator=(PgLease&& other) noexcept {
  if (this != &other) {
    Release();
    pool_ = other.pool_;
    conn_ = std::move(other.conn_);
    sqlState_ = std::move(other.sqlState_);
    other.pool_ = nullptr;
  }
  return *this;
}

void PgLease::Release() {
  if (conn_ != nullptr && pool_ != nullptr) pool_->Return(std::move(conn_));
  conn_.reset();
  pool_ = nullptr;
}

bool PgLease::InTransaction() const {
  return conn_ != nullptr && PQtransactionStatus(conn_->conn) != PQTRANS_IDLE;
}

bool PgLease::Broken() const { return conn_ == nullptr || PQstatus(conn_->conn) != CONNECTION_OK; }

namespace {

// The failure of `result` (null: the connection's) as a status naming `what`.
Status Failure(std::string_view what, PGconn* conn, PGresult* result, std::string* sqlState) {
  const char* state = result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_SQLSTATE);
  *sqlState = state == nullptr ? "" : state;
  std::string message = result != nullptr ? PQresultErrorMessage(result) : PQerrorMessage(conn);
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
  if (message.empty()) message = PQerrorMessage(conn);
  if (PQstatus(conn) != CONNECTION_OK) {
    return Status::Unavailable(std::string(what) + ": lost the database connection: " + message);
  }
  return Status::IOError(std::string(what) + ": " + message);
}

}  // namespace

Status PgLease::Exec(std::string_view what, const std::string& sql,
                     const std::vector<PgParam>& params, PgResult* result) {
  sqlState_.clear();
  if (conn_ == nullptr) return Status::IOError(std::string(what) + ": no connection");
  PGconn* conn = conn_->conn;
  auto found = conn_->prepared.find(sql);
  if (found == conn_->prepared.end()) {
    std::string name = "zsm" + std::to_string(conn_->prepared.size() + 1);
    PGresult* prepared = PQprepare(conn, name.c_str(), sql.c_str(), 0, nullptr);
    if (prepared == nullptr || PQresultStatus(prepared) != PGRES_COMMAND_OK) {
      Status s = Failure(what, conn, prepared, &sqlState_);
      if (prepared != nullptr) PQclear(prepared);
      return s;
    }
    PQclear(prepared);
    found = conn_->prepared.emplace(sql, std::move(name)).first;
  }
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const auto& p : params) values.push_back(p.value() ? p.value()->c_str() : nullptr);
  PGresult* r = PQexecPrepared(conn, found->second.c_str(), static_cast<int>(values.size()),
                               values.data(), nullptr, nullptr, 0);
  const ExecStatusType st = r == nullptr ? PGRES_FATAL_ERROR : PQresultStatus(r);
  if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) {
    Status s = Failure(what, conn, r, &sqlState_);
    if (r != nullptr) PQclear(r);
    return s;
  }
  if (result != nullptr) {
    *result = PgResult(r);
  } else {
    PQclear(r);
  }
  return Status::OK();
}

Status PgLease::Simple(std::string_view what, const std::string& sql) {
  sqlState_.clear();
  if (conn_ == nullptr) return Status::IOError(std::string(what) + ": no connection");
  PGresult* r = PQexec(conn_->conn, sql.c_str());
  const ExecStatusType st = r == nullptr ? PGRES_FATAL_ERROR : PQresultStatus(r);
  if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) {
    Status s = Failure(what, conn_->conn, r, &sqlState_);
    if (r != nullptr) PQclear(r);
    return s;
  }
  PQclear(r);
  return Status::OK();
}

PgPool::PgPool(std::string url, PgPoolOptions options) : url_(std::move(url)), options_(options) {}

PgPool::~PgPool() = default;

int PgPool::open() {
  std::lock_guard lock(mutex_);
  return open_;
}

Status PgPool::Connect(std::unique_ptr<PgLease::Connection>* out) {
  const std::string timeout = std::to_string(options_.connectTimeoutSeconds);
  // Keywords first, the URL last: what the URL says wins, except that a time-out
  // is always set, so that an unreachable database fails a call instead of
  // holding its thread.
  const char* keys[] = {"connect_timeout", "application_name", "dbname", nullptr};
  const char* values[] = {timeout.c_str(), "zsm-server", url_.c_str(), nullptr};
  auto conn = std::make_unique<PgLease::Connection>();
  conn->conn = PQconnectdbParams(keys, values, /*expand_dbname=*/1);
  if (conn->conn == nullptr || PQstatus(conn->conn) != CONNECTION_OK) {
    std::string message = conn->conn == nullptr ? "out of memory" : PQerrorMessage(conn->conn);
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
      message.pop_back();
    return Status::Unavailable("cannot reach the database: " + message);
  }
  // The server's notices ("relation already exists, skipping") go to the debug
  // log, not to standard error.
  PQsetNoticeProcessor(
      conn->conn,
      [](void*, const char* message) {
        std::string text = message;
        while (!text.empty() && text.back() == '\n') text.pop_back();
        spdlog::debug("database: {}", text);
      },
      nullptr);
  *out = std::move(conn);
  return Status::OK();
}

Status PgPool::Borrow(PgLease* lease) {
  const auto deadline = std::chrono::steady_clock::now() + options_.borrowTimeout;
  std::unique_ptr<PgLease::Connection> conn;
  {
    std::unique_lock lock(mutex_);
    while (idle_.empty() && open_ >= options_.size) {
      if (freed_.wait_until(lock, deadline) == std::cv_status::timeout && idle_.empty() &&
          open_ >= options_.size) {
        return Status::Unavailable("no database connection free within " +
                                   std::to_string(options_.borrowTimeout.count()) + " ms (" +
                                   std::to_string(options_.size) + " in the pool)");
      }
    }
    if (!idle_.empty()) {
      conn = std::move(idle_.back());
      idle_.pop_back();
    } else {
      ++open_;  // reserved while connecting outside the lock
    }
  }
  if (conn != nullptr && PQstatus(conn->conn) != CONNECTION_OK) {
    // The server closed it while it was idle (a restart, an idle time-out):
    // replace it now rather than fail the call that found it.
    conn.reset();
  }
  if (conn == nullptr) {
    Status s = Connect(&conn);
    if (!s.ok()) {
      std::lock_guard lock(mutex_);
      --open_;
      freed_.notify_one();
      return s;
    }
  }
  *lease = PgLease(this, std::move(conn));
  return Status::OK();
}

void PgPool::Return(std::unique_ptr<PgLease::Connection> conn) {
  if (conn != nullptr && PQstatus(conn->conn) == CONNECTION_OK &&
      PQtransactionStatus(conn->conn) != PQTRANS_IDLE) {
    // A call that returned in the middle of a transaction: never hand its state on.
    PGresult* r = PQexec(conn->conn, "ROLLBACK");
    if (r != nullptr) PQclear(r);
    if (PQtransactionStatus(conn->conn) != PQTRANS_IDLE) conn.reset();
  }
  if (conn != nullptr && PQstatus(conn->conn) != CONNECTION_OK) conn.reset();
  std::lock_guard lock(mutex_);
  if (conn != nullptr) {
    idle_.push_back(std::move(conn));
  } else {
    --open_;
  }
  freed_.notify_one();
}

Status PgPool::Run(std::string_view what, const std::string& sql,
                   const std::vector<PgParam>& params, PgResult* result) {
  for (int attempt = 0;; ++attempt) {
    PgLease lease;
    Status s = Borrow(&lease);
    if (!s.ok()) return s;
    s = lease.Exec(what, sql, params, result);
    // A connection that broke before the statement reached the server (it was
    // closed while idle) is replaced once; the statement did not run.
    if (!s.ok() && attempt == 0 && lease.Broken() && lease.sqlState().empty()) continue;
    if (!s.ok() && IsRetryableSqlState(lease.sqlState()) && attempt < 4) continue;
    return s;
  }
}

Status PgPool::Transact(PgIsolation isolation, const std::function<Status(PgLease&)>& body) {
  static thread_local std::minstd_rand jitter(std::random_device{}());
  const char* begin = "BEGIN ISOLATION LEVEL READ COMMITTED";
  if (isolation == PgIsolation::kSerializable) begin = "BEGIN ISOLATION LEVEL SERIALIZABLE";
  if (isolation == PgIsolation::kRepeatableReadRO) {
    begin = "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY";
  }
  constexpr int kAttempts = 5;
  for (int attempt = 1;; ++attempt) {
    PgLease lease;
    Status s = Borrow(&lease);
    if (!s.ok()) return s;
    s = lease.Simple("begin", begin);
    if (!s.ok()) {
      if (attempt == 1 && lease.Broken()) continue;  // closed while idle: nothing ran
      return s;
    }
    s = body(lease);
    if (s.ok()) s = lease.Simple("commit", "COMMIT");
    if (s.ok()) return s;
    const std::string state = lease.sqlState();
    if (!lease.Broken() && lease.InTransaction()) lease.Simple("rollback", "ROLLBACK");
    if (!IsRetryableSqlState(state) || attempt == kAttempts) {
      if (IsRetryableSqlState(state)) {
        spdlog::warn("gave up after {} serialization failures: {}", attempt, s.message());
      }
      return s;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1 + jitter() % 20));
  }
}

}  // namespace zolvani::refserver
