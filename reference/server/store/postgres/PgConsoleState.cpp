#include "reference/server/store/postgres/PgConsoleState.h"

#include <openssl/sha.h>

#include <algorithm>

#include "reference/server/store/postgres/PgSchema.h"

namespace zolvani::refserver {

namespace {

// Held by the transactions that count rows before they change them (sessions
// against the limit, administrators against the last one), across replicas.
constexpr int64_t kSessionsLock = 7310101;
constexpr int64_t kOperatorsLock = 7310102;

constexpr const char* kOperatorColumns = "name, role, hash, created_ms, changed_ms";

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

Operator ReadOperator(const PgResult& r, int row) {
  Operator op;
  op.name = r.Text(row, 0);
  op.role = static_cast<OperatorRole>(std::clamp<int64_t>(r.Int(row, 1), 0, 2));
  op.passwordHash = r.Text(row, 2);
  op.createdMs = r.Int(row, 3);
  op.changedMs = r.Int(row, 4);
  return op;
}

Status Lock(PgLease& lease, int64_t key) {
  return lease.Exec("lock console state", "SELECT pg_advisory_xact_lock($1)", {PgParam(key)});
}

// Whether another administrator than `name` remains.
Status OtherAdministrators(PgLease& lease, const std::string& name, int64_t* others) {
  PgResult r;
  Status s = lease.Exec("count administrators",
                        "SELECT COUNT(*) FROM console_operators WHERE role = $1 AND name <> $2",
                        {PgParam(static_cast<int64_t>(OperatorRole::kAdministrator)), name}, &r);
  if (!s.ok()) return s;
  *others = r.Int(0, 0);
  return Status::OK();
}

}  // namespace

Status PgConsoleState::Open(const std::string& url, int poolSize,
                            std::unique_ptr<PgConsoleState>* state) {
  auto pool = std::make_unique<PgPool>(url, PgPoolOptions{std::max(poolSize, 1)});
  PgLease lease;
  Status s = pool->Borrow(&lease);
  if (!s.ok()) return s;
  s = PgSchema::Check(lease);
  if (!s.ok()) return s;
  lease = PgLease();
  state->reset(new PgConsoleState(std::move(pool)));
  return Status::OK();
}

Status PgConsoleState::PasswordHash(std::string* encoded) {
  PgResult r;
  Status s = pool_->Run("read console password",
                        "SELECT hash FROM console_password WHERE only_row = 1", {}, &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::NotFound("no console password is set");
  *encoded = r.Text(0, 0);
  return Status::OK();
}

Status PgConsoleState::SetPasswordHash(const std::string& encoded, int64_t nowMs) {
  return pool_->Run("set console password",
                    "INSERT INTO console_password (only_row, hash, set_ms) VALUES (1, $1, $2) "
                    "ON CONFLICT (only_row) DO UPDATE SET hash = $1, set_ms = $2",
                    {encoded, PgParam(nowMs)});
}

Status PgConsoleState::PasswordSetMs(int64_t* setMs) {
  PgResult r;
  Status s = pool_->Run("read console password",
                        "SELECT set_ms FROM console_password WHERE only_row = 1", {}, &r);
  if (!s.ok()) return s;
  *setMs = r.rows() > 0 ? r.Int(0, 0) : 0;
  return Status::OK();
}

Status PgConsoleState::AddOperator(const Operator& op) {
  if (op.name.empty()) return Status::InvalidArgument("an operator needs a name");
  PgResult r;
  Status s = pool_->Run(
      "add operator",
      "INSERT INTO console_operators (name, role, hash, created_ms, changed_ms) "
      "VALUES ($1, $2, $3, $4, $4) ON CONFLICT (name) DO NOTHING",
      {op.name, PgParam(static_cast<int64_t>(op.role)), op.passwordHash, PgParam(op.createdMs)},
      &r);
  if (!s.ok()) return s;
  if (r.affected() == 0) return Status::AlreadyExists("operator " + op.name + " exists");
  return Status::OK();
}

Status PgConsoleState::UpdateOperator(const std::string& name, const Operator* expected,
                                      OperatorRole role, const std::string& passwordHash,
                                      int64_t nowMs) {
  return pool_->Transact(PgIsolation::kReadCommitted, [&](PgLease& lease) -> Status {
    Status s = Lock(lease, kOperatorsLock);
    if (!s.ok()) return s;
    PgResult r;
    s = lease.Exec(
        "find operator",
        std::string("SELECT ") + kOperatorColumns + " FROM console_operators WHERE name = $1",
        {name}, &r);
    if (!s.ok()) return s;
    if (r.rows() == 0) return Status::NotFound("unknown operator " + name);
    const Operator op = ReadOperator(r, 0);
    if (expected && (op.role != expected->role || op.passwordHash != expected->passwordHash ||
                     op.changedMs != expected->changedMs)) {
      return Status::FailedPrecondition("operator " + name + " changed since it was read");
    }
    if (op.role == OperatorRole::kAdministrator && role != OperatorRole::kAdministrator) {
      int64_t others = 0;
      s = OtherAdministrators(lease, name, &others);
      if (!s.ok()) return s;
      if (others == 0) return Status::FailedPrecondition(name + " is the last administrator");
    }
    return lease.Exec("update operator",
                      "UPDATE console_operators SET role = $2, "
                      "hash = CASE WHEN $3 = '' THEN hash ELSE $3 END, changed_ms = $4 "
                      "WHERE name = $1",
                      {name, PgParam(static_cast<int64_t>(role)), passwordHash, PgParam(nowMs)});
  });
}

Status PgConsoleState::RemoveOperator(const std::string& name) {
  return pool_->Transact(PgIsolation::kReadCommitted, [&](PgLease& lease) -> Status {
    Status s = Lock(lease, kOperatorsLock);
    if (!s.ok()) return s;
    PgResult r;
    s = lease.Exec("find operator", "SELECT role FROM console_operators WHERE name = $1", {name},
                   &r);
    if (!s.ok()) return s;
    if (r.rows() == 0) return Status::NotFound("unknown operator " + name);
    if (r.Int(0, 0) == static_cast<int64_t>(OperatorRole::kAdministrator)) {
      int64_t others = 0;
      s = OtherAdministrators(lease, name, &others);
      if (!s.ok()) return s;
      PgResult count;
      s = lease.Exec("count operators", "SELECT COUNT(*) FROM console_operators WHERE name <> $1",
                     {name}, &count);
      if (!s.ok()) return s;
      if (others == 0 && count.Int(0, 0) > 0) {
        return Status::FailedPrecondition(name + " is the last administrator");
      }
    }
    s = lease.Exec("remove operator", "DELETE FROM console_operators WHERE name = $1", {name});
    if (!s.ok()) return s;
    return lease.Exec("end sessions", "DELETE FROM console_sessions WHERE operator = $1", {name});
  });
}

Status PgConsoleState::FindOperator(const std::string& name, Operator* op) {
  PgResult r;
  Status s = pool_->Run(
      "find operator",
      std::string("SELECT ") + kOperatorColumns + " FROM console_operators WHERE name = $1", {name},
      &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::NotFound("unknown operator " + name);
  *op = ReadOperator(r, 0);
  return Status::OK();
}

Status PgConsoleState::ListOperators(std::vector<Operator>* operators) {
  PgResult r;
  Status s = pool_->Run(
      "list operators",
      std::string("SELECT ") + kOperatorColumns + " FROM console_operators ORDER BY name", {}, &r);
  if (!s.ok()) return s;
  operators->clear();
  for (int i = 0; i < r.rows(); ++i) operators->push_back(ReadOperator(r, i));
  return Status::OK();
}

Status PgConsoleState::CountOperators(int64_t* count) {
  PgResult r;
  Status s = pool_->Run("count operators", "SELECT COUNT(*) FROM console_operators", {}, &r);
  if (!s.ok()) return s;
  *count = r.Int(0, 0);
  return Status::OK();
}

Status PgConsoleState::CreateSession(const ConsoleSession& session, const SessionLimits& limits) {
  const int64_t now = session.createdMs;
  // Two replicas signing in at once must not both make room for one session and
  // leave one more than the limit: the lock puts them one after the other.
  return pool_->Transact(PgIsolation::kReadCommitted, [&](PgLease& lease) -> Status {
    Status s = Lock(lease, kSessionsLock);
    if (!s.ok()) return s;
    s = lease.Exec("drop expired sessions",
                   "DELETE FROM console_sessions WHERE $1::bigint - last_used_ms > $2 OR "
                   "$1::bigint - created_ms > $3",
                   {PgParam(now), PgParam(static_cast<int64_t>(limits.idle.count())),
                    PgParam(static_cast<int64_t>(limits.lifetime.count()))});
    if (!s.ok()) return s;
    // Room for the new one: keep the most recently used maxSessions - 1.
    s = lease.Exec(
        "drop old sessions",
        "DELETE FROM console_sessions WHERE id_sha256 NOT IN (SELECT id_sha256 FROM "
        "console_sessions ORDER BY last_used_ms DESC, created_ms DESC LIMIT $1)",
        {PgParam(static_cast<int64_t>(limits.maxSessions > 0 ? limits.maxSessions - 1 : 0))});
    if (!s.ok()) return s;
    return lease.Exec("create session",
                      "INSERT INTO console_sessions (id_sha256, csrf_token, operator, created_ms, "
                      "last_used_ms) VALUES ($1, $2, $3, $4, $5) ON CONFLICT (id_sha256) DO "
                      "UPDATE SET csrf_token = $2, operator = $3, created_ms = $4, "
                      "last_used_ms = $5",
                      {Digest(session.id), session.csrfToken, session.operatorName,
                       PgParam(session.createdMs), PgParam(session.lastUsedMs)});
  });
}

Status PgConsoleState::FindSession(std::string_view id, int64_t nowMs, const SessionLimits& limits,
                                   ConsoleSession* session) {
  if (id.size() != 64) return Status::NotFound("no such session");
  PgResult r;
  Status s = pool_->Run(
      "find session",
      "UPDATE console_sessions SET last_used_ms = GREATEST(last_used_ms, $2) "
      "WHERE id_sha256 = $1 AND $2::bigint - last_used_ms <= $3 AND "
      "$2::bigint - created_ms <= $4 RETURNING csrf_token, operator, created_ms, last_used_ms",
      {Digest(id), PgParam(nowMs), PgParam(static_cast<int64_t>(limits.idle.count())),
       PgParam(static_cast<int64_t>(limits.lifetime.count()))},
      &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::NotFound("no such session");
  session->id = std::string(id);
  session->csrfToken = r.Text(0, 0);
  session->operatorName = r.Text(0, 1);
  session->createdMs = r.Int(0, 2);
  session->lastUsedMs = r.Int(0, 3);
  return Status::OK();
}

Status PgConsoleState::EndSession(std::string_view id) {
  return pool_->Run("end session", "DELETE FROM console_sessions WHERE id_sha256 = $1",
                    {Digest(id)});
}

Status PgConsoleState::EndSessionsOf(const std::string& operatorName) {
  return pool_->Run("end sessions", "DELETE FROM console_sessions WHERE operator = $1",
                    {operatorName});
}

Status PgConsoleState::RecordLoginFailure(const std::string& key, int64_t nowMs, int64_t forgetMs,
                                          LoginFailures* after) {
  // One upsert counts the failure, or starts again from one when the last is
  // forgotten: the row lock it takes makes failures from replicas at once add up.
  PgResult r;
  Status s = pool_->Run(
      "count sign-in failure",
      "INSERT INTO console_login_failures AS f (key, failures, last_ms) VALUES ($1, 1, $2) "
      "ON CONFLICT (key) DO UPDATE SET "
      "failures = CASE WHEN $2::bigint - f.last_ms > $3 THEN 1 ELSE f.failures + 1 END, "
      "last_ms = GREATEST(f.last_ms, $2) RETURNING failures, last_ms",
      {key, PgParam(nowMs), PgParam(forgetMs)}, &r);
  if (!s.ok()) return s;
  after->failures = r.Int(0, 0);
  after->lastFailureMs = r.Int(0, 1);
  // Forgotten keys of others go in a statement of their own, so that it never
  // holds up a count.
  return pool_->Run("forget sign-in failures",
                    "DELETE FROM console_login_failures WHERE $1::bigint - last_ms > $2",
                    {PgParam(nowMs), PgParam(forgetMs)});
}

Status PgConsoleState::ReadLoginFailures(const std::string& key, LoginFailures* failures) {
  PgResult r;
  Status s =
      pool_->Run("read sign-in failures",
                 "SELECT failures, last_ms FROM console_login_failures WHERE key = $1", {key}, &r);
  if (!s.ok()) return s;
  *failures = r.rows() > 0 ? LoginFailures{r.Int(0, 0), r.Int(0, 1)} : LoginFailures{};
  return Status::OK();
}

Status PgConsoleState::ClearLoginFailures(const std::string& key) {
  return pool_->Run("clear sign-in failures", "DELETE FROM console_login_failures WHERE key = $1",
                    {key});
}

Status PgConsoleState::Record(AuditEntry entry) {
  return pool_->Run("record audit entry",
                    "INSERT INTO console_audit (at_ms, peer, action, target, details, operator) "
                    "VALUES ($1, $2, $3, $4, $5, $6)",
                    {PgParam(entry.atMs), entry.peer, entry.action, entry.target,
                     entry.details.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                     entry.operatorName});
}

Status PgConsoleState::ListAudit(const AuditQuery& query, std::vector<AuditEntry>* entries) {
  // An action ending in a dot names a kind of change: every action it begins.
  const bool kind = !query.action.empty() && query.action.back() == '.';
  PgResult r;
  Status s =
      pool_->Run("list audit log",
                 "SELECT id, at_ms, peer, action, target, details, operator FROM console_audit "
                 "WHERE ($1::bigint = 0 OR id < $1) AND ($2::text = '' OR operator = $2) "
                 "AND ($3::text = '' OR (NOT $4::boolean AND action = $3) OR "
                 "($4::boolean AND left(action, length($3)) = $3)) "
                 "AND ($5::bigint = 0 OR at_ms >= $5) AND ($6::bigint = 0 OR at_ms < $6) "
                 "ORDER BY id DESC LIMIT $7",
                 {PgParam(query.beforeId), query.operatorName, query.action, PgParam(kind),
                  PgParam(query.fromMs), PgParam(query.toMs),
                  PgParam(int64_t{std::clamp(query.limit, 0, 1000)})},
                 &r);
  if (!s.ok()) return s;
  entries->clear();
  for (int i = 0; i < r.rows(); ++i) {
    AuditEntry e;
    e.id = r.Int(i, 0);
    e.atMs = r.Int(i, 1);
    e.peer = r.Text(i, 2);
    e.action = r.Text(i, 3);
    e.target = r.Text(i, 4);
    e.details = nlohmann::json::parse(r.Text(i, 5), nullptr, false);
    if (e.details.is_discarded()) e.details = nlohmann::json::object();
    e.operatorName = r.Text(i, 6);
    entries->push_back(std::move(e));
  }
  return Status::OK();
}

}  // namespace zolvani::refserver
