#include "reference/server/store/postgres/PgSchema.h"

#include <spdlog/spdlog.h>

#include <vector>

#include "reference/server/store/postgres/PgPool.h"

namespace zolvani::refserver {

namespace {

// Every migration ever released, in order; a released one is never edited, a
// change is a new one. Identifiers and keys sort bytewise (COLLATE "C") as they
// do in the embedded store, whatever the cluster's locale.
const std::vector<const char*>& Migrations() {
  static const std::vector<const char*> migrations = {
      // 1: the content tables, with the indexes the request paths need.
      R"sql(
CREATE TABLE accounts (
  user_id text COLLATE "C" PRIMARY KEY, public_key text NOT NULL, secret text NOT NULL);
CREATE TABLE devices (
  user_id text COLLATE "C" NOT NULL, device text COLLATE "C" NOT NULL,
  first_seen_ms bigint NOT NULL, last_seen_ms bigint NOT NULL, PRIMARY KEY (user_id, device));
CREATE TABLE push_registrations (
  user_id text COLLATE "C" NOT NULL, device text COLLATE "C" NOT NULL, service text NOT NULL,
  token text NOT NULL, updated_ms bigint NOT NULL, PRIMARY KEY (user_id, device));
CREATE TABLE feeds (
  id text COLLATE "C" PRIMARY KEY, title text NOT NULL, subscribable boolean NOT NULL,
  max_assets integer NOT NULL, auto_delete boolean NOT NULL, max_bitrate integer NOT NULL);
CREATE TABLE items (
  uuid text COLLATE "C" PRIMARY KEY, feed text COLLATE "C", user_id text COLLATE "C",
  created_ms bigint NOT NULL, media_path text NOT NULL, metadata text NOT NULL);
CREATE INDEX items_by_feed ON items (feed, created_ms, uuid);
CREATE INDEX items_direct ON items (user_id, created_ms, uuid) WHERE feed IS NULL;
CREATE INDEX items_by_user ON items (user_id, created_ms);
CREATE INDEX items_by_created ON items (created_ms);
CREATE TABLE subscriptions (
  user_id text COLLATE "C" NOT NULL, device text COLLATE "C" NOT NULL,
  feed text COLLATE "C" NOT NULL, PRIMARY KEY (user_id, device, feed));
CREATE INDEX subscriptions_by_feed ON subscriptions (feed);
CREATE TABLE rules (
  user_id text COLLATE "C" NOT NULL, device text COLLATE "C" NOT NULL,
  feed text COLLATE "C" NOT NULL, max_assets integer NOT NULL, auto_delete boolean NOT NULL,
  max_bitrate integer NOT NULL, PRIMARY KEY (user_id, device, feed));
CREATE TABLE pushes (
  id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY, user_id text COLLATE "C" NOT NULL,
  device text COLLATE "C" NOT NULL, service text NOT NULL, token text NOT NULL,
  item_uuid text COLLATE "C" NOT NULL, feed text COLLATE "C" NOT NULL,
  created_ms bigint NOT NULL, delivered boolean NOT NULL DEFAULT false);
CREATE INDEX pushes_pending ON pushes (user_id, device, id) WHERE NOT delivered;
CREATE INDEX pushes_by_item ON pushes (item_uuid);
-- Accounts that may publish into a feed through the protocol; feed '' (never a
-- feed's identifier) grants every feed.
CREATE TABLE publishers (
  feed text COLLATE "C" NOT NULL, user_id text COLLATE "C" NOT NULL, PRIMARY KEY (feed, user_id));
-- Signatures of accepted changes, kept until their timestamp leaves the freshness
-- window, so that no replica accepts one twice.
CREATE TABLE replay_guard (signature text PRIMARY KEY, keep_until_s bigint NOT NULL);
CREATE INDEX replay_guard_by_expiry ON replay_guard (keep_until_s);
-- The console's figures: what each server answered, per minute and endpoint.
CREATE TABLE traffic_minutes (
  minute bigint NOT NULL, node text COLLATE "C" NOT NULL, endpoint text COLLATE "C" NOT NULL,
  requests bigint NOT NULL, errors bigint NOT NULL, signature_refusals bigint NOT NULL,
  PRIMARY KEY (minute, node, endpoint));
)sql",
      // 2: the operator's console, shared by every replica: its one password, the
      // named operators, the signed-in sessions (found by the SHA-256 of the
      // cookie, never the cookie itself), sign-in failures per key and the audit log.
      R"sql(
CREATE TABLE console_password (
  only_row integer PRIMARY KEY CHECK (only_row = 1), hash text NOT NULL, set_ms bigint NOT NULL);
CREATE TABLE console_operators (
  name text COLLATE "C" PRIMARY KEY, role integer NOT NULL, hash text NOT NULL,
  created_ms bigint NOT NULL, changed_ms bigint NOT NULL);
CREATE TABLE console_sessions (
  id_sha256 text PRIMARY KEY, csrf_token text NOT NULL, operator text COLLATE "C" NOT NULL,
  created_ms bigint NOT NULL, last_used_ms bigint NOT NULL);
CREATE INDEX console_sessions_by_operator ON console_sessions (operator);
CREATE TABLE console_login_failures (
  key text COLLATE "C" PRIMARY KEY, failures bigint NOT NULL, last_ms bigint NOT NULL);
CREATE TABLE console_audit (
  id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY, at_ms bigint NOT NULL,
  operator text COLLATE "C" NOT NULL, peer text NOT NULL, action text COLLATE "C" NOT NULL,
  target text NOT NULL, details text NOT NULL);
CREATE INDEX console_audit_by_operator ON console_audit (operator, id);
CREATE INDEX console_audit_by_time ON console_audit (at_ms);
)sql",
  };
  return migrations;
}

// Taken by every applier for the whole of its transaction.
constexpr int64_t kMigrationLock = 7310001;

}  // namespace

int PgSchema::CompiledVersion() { return static_cast<int>(Migrations().size()); }

Status PgSchema::Version(PgLease& lease, int* version) {
  PgResult r;
  Status s = lease.Exec("read schema version",
                        "SELECT COALESCE(MAX(version), 0) FROM schema_migrations", {}, &r);
  if (!s.ok()) {
    if (lease.sqlState() == "42P01") {  // undefined_table: nothing was ever applied
      *version = 0;
      return Status::OK();
    }
    return s;
  }
  *version = static_cast<int>(r.Int(0, 0));
  return Status::OK();
}

Status PgSchema::Check(PgLease& lease) {
  int version = 0;
  Status s = Version(lease, &version);
  if (!s.ok()) return s;
  const int compiled = CompiledVersion();
  if (version == compiled) return Status::OK();
  if (version < compiled) {
    return Status::FailedPrecondition(
        "the database's schema is at version " + std::to_string(version) +
        " and this zsm-server needs version " + std::to_string(compiled) +
        ": run `zsm-server migrate --database URL` first");
  }
  return Status::FailedPrecondition(
      "the database's schema is at version " + std::to_string(version) + ", newer than version " +
      std::to_string(compiled) + " of this zsm-server: run a zsm-server of that version");
}

Status PgSchema::Migrate(const std::string& url, int* from, int* to) {
  PgPool pool(url, PgPoolOptions{1, std::chrono::milliseconds(2000), 5});
  int found = 0;
  int left = 0;
  // READ COMMITTED: a second applier's statements after the lock must see what
  // the first committed (a serializable snapshot would be taken before the wait).
  Status s = pool.Transact(PgIsolation::kReadCommitted, [&](PgLease& lease) -> Status {
    // The lock comes first: even creating the version table must not race.
    Status st = lease.Exec("lock migrations", "SELECT pg_advisory_xact_lock($1)",
                           {PgParam(kMigrationLock)});
    if (!st.ok()) return st;
    st = lease.Simple("create schema_migrations",
                      "CREATE TABLE IF NOT EXISTS schema_migrations ("
                      "version integer PRIMARY KEY, applied_at timestamptz NOT NULL "
                      "DEFAULT now())");
    if (!st.ok()) return st;
    st = Version(lease, &found);
    if (!st.ok()) return st;
    const int compiled = CompiledVersion();
    if (found > compiled) return Check(lease);
    for (int v = found + 1; v <= compiled; ++v) {
      st = lease.Simple("apply migration " + std::to_string(v), Migrations()[v - 1]);
      if (!st.ok()) return st;
      st = lease.Exec("record migration", "INSERT INTO schema_migrations (version) VALUES ($1)",
                      {PgParam(int64_t{v})});
      if (!st.ok()) return st;
    }
    left = compiled;
    return Status::OK();
  });
  if (!s.ok()) return s;
  if (from != nullptr) *from = found;
  if (to != nullptr) *to = left;
  return Status::OK();
}

}  // namespace zolvani::refserver
