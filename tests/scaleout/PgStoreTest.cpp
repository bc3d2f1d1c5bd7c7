// The PostgreSQL store's own machinery: versioned migrations (two appliers at
// once, a replica refusing a schema it does not know), and the connection pool
// (a busy pool answers Unavailable, a broken or unreachable database neither
// hangs a call nor poisons the pool).
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <chrono>
#include <thread>
#include <vector>

#include "reference/server/store/postgres/PgSchema.h"
#include "tests/scaleout/PgTestSupport.h"

namespace zolvani::refserver::testing {
namespace {

using namespace std::chrono_literals;

// Runs one SQL text on `url` outside the store; its first value, or "" on error.
std::string Query(const std::string& url, const std::string& sql) {
  PGconn* conn = PQconnectdb(url.c_str());
  PGresult* r = PQexec(conn, sql.c_str());
  std::string value;
  if (PQresultStatus(r) == PGRES_TUPLES_OK && PQntuples(r) > 0) value = PQgetvalue(r, 0, 0);
  if (PQresultStatus(r) != PGRES_TUPLES_OK && PQresultStatus(r) != PGRES_COMMAND_OK) {
    ADD_FAILURE() << sql << ": " << PQresultErrorMessage(r);
  }
  PQclear(r);
  PQfinish(conn);
  return value;
}

class PgMigrationTest : public PgTest {};

TEST_F(PgMigrationTest, ConcurrentAppliersApplyEachVersionOnce) {
  std::string url;
  ASSERT_TRUE(cluster_->CreateDatabase("fresh_for_appliers", &url).ok());
  constexpr int kAppliers = 4;
  std::vector<Status> results(kAppliers);
  std::vector<int> from(kAppliers, -1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kAppliers; ++i) {
    threads.emplace_back([&, i] { results[i] = PgSchema::Migrate(url, &from[i]); });
  }
  for (auto& t : threads) t.join();
  int appliedFromScratch = 0;
  for (int i = 0; i < kAppliers; ++i) {
    EXPECT_TRUE(results[i].ok()) << results[i].ToString();
    if (from[i] == 0) ++appliedFromScratch;
  }
  EXPECT_EQ(appliedFromScratch, 1) << "exactly one applier finds the database empty";
  EXPECT_EQ(Query(url, "SELECT COUNT(*) FROM schema_migrations"),
            std::to_string(PgSchema::CompiledVersion()));
  EXPECT_EQ(Query(url, "SELECT MAX(version) FROM schema_migrations"),
            std::to_string(PgSchema::CompiledVersion()));
  // Again: nothing to do.
  int again = -1, to = -1;
  ASSERT_TRUE(PgSchema::Migrate(url, &again, &to).ok());
  EXPECT_EQ(again, PgSchema::CompiledVersion());
  EXPECT_EQ(to, PgSchema::CompiledVersion());
}

TEST_F(PgMigrationTest, ReplicaRefusesASchemaOfAnotherVersion) {
  std::string empty;
  ASSERT_TRUE(cluster_->CreateDatabase("never_migrated", &empty).ok());
  std::unique_ptr<PgStore> store;
  Status s = PgStore::Open(empty, PgStoreOptions{}, &store);
  EXPECT_TRUE(s.IsFailedPrecondition()) << s.ToString();
  EXPECT_NE(s.message().find("version 0"), std::string::npos) << s.message();
  EXPECT_NE(s.message().find("zsm-server migrate"), std::string::npos) << s.message();

  // A database a newer program migrated: refused, and migrate leaves it alone.
  const int newer = PgSchema::CompiledVersion() + 1;
  Query(url_, "INSERT INTO schema_migrations (version) VALUES (" + std::to_string(newer) + ")");
  s = PgStore::Open(url_, PgStoreOptions{}, &store);
  EXPECT_TRUE(s.IsFailedPrecondition()) << s.ToString();
  EXPECT_NE(s.message().find("newer"), std::string::npos) << s.message();
  s = PgSchema::Migrate(url_);
  EXPECT_TRUE(s.IsFailedPrecondition()) << s.ToString();
  EXPECT_EQ(Query(url_, "SELECT MAX(version) FROM schema_migrations"), std::to_string(newer));
}

class PgPoolTest : public PgTest {};

TEST_F(PgPoolTest, BusyPoolAnswersUnavailableAfterTheBorrowTimeOut) {
  PgPool pool(url_, PgPoolOptions{1, 300ms, 2});
  PgLease held;
  ASSERT_TRUE(pool.Borrow(&held).ok());
  const auto start = std::chrono::steady_clock::now();
  PgLease second;
  Status s = pool.Borrow(&second);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(s.IsUnavailable()) << s.ToString();
  EXPECT_GE(waited, 250ms);
  EXPECT_LT(waited, 2s);

  // A connection returned while another call waits is handed over at once.
  std::thread release([&] {
    std::this_thread::sleep_for(50ms);
    held = PgLease();
  });
  s = pool.Borrow(&second);
  release.join();
  EXPECT_TRUE(s.ok()) << s.ToString();
  EXPECT_EQ(pool.open(), 1);
}

TEST_F(PgPoolTest, BrokenConnectionsAreReplacedAndAnUnreachableDatabaseIsUnavailable) {
  auto store = OpenStore(2);
  ASSERT_NE(store, nullptr);
  ASSERT_TRUE(store->AddAccount({"alice", "k", "s"}).ok());
  // The server ends every connection of the store (a restart, an administrator).
  Query(url_,
        "SELECT COUNT(pg_terminate_backend(pid)) FROM pg_stat_activity WHERE "
        "application_name = 'zsm-server' AND pid <> pg_backend_pid()");
  std::this_thread::sleep_for(100ms);
  for (int i = 0; i < 4; ++i) {
    Account found;
    Status s = store->FindAccount("alice", &found);
    EXPECT_TRUE(s.ok()) << "call " << i << ": " << s.ToString();
    s = store->Subscribe("alice", "d", "nofeed");
    EXPECT_TRUE(s.IsNotFound()) << "call " << i << ": " << s.ToString();
  }

  // Nothing listens on the port: each call fails quickly with Unavailable.
  const std::string nowhere = "postgresql://zsm@127.0.0.1:1/none";
  PgPool pool(nowhere, PgPoolOptions{2, 500ms, 1});
  const auto start = std::chrono::steady_clock::now();
  PgResult r;
  Status s = pool.Run("probe", "SELECT 1", {}, &r);
  EXPECT_TRUE(s.IsUnavailable()) << s.ToString();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
  EXPECT_EQ(pool.open(), 0) << "a failed connect keeps no slot";
}

TEST_F(PgPoolTest, ACallNeverHandsAnOpenTransactionToTheNext) {
  PgPool pool(url_, PgPoolOptions{1, 1000ms, 2});
  Status s = pool.Transact(PgIsolation::kSerializable, [](PgLease& lease) {
    Status st = lease.Exec("insert", "INSERT INTO accounts VALUES ('bob', 'k', 's')", {});
    if (!st.ok()) return st;
    return Status::NotFound("the body gives up");  // rolled back
  });
  EXPECT_TRUE(s.IsNotFound());
  // A lease returned with a transaction still open is rolled back on return.
  {
    PgLease lease;
    ASSERT_TRUE(pool.Borrow(&lease).ok());
    ASSERT_TRUE(lease.Simple("begin", "BEGIN").ok());
    ASSERT_TRUE(lease.Exec("insert", "INSERT INTO accounts VALUES ('carol', 'k', 's')", {}).ok());
  }
  PgResult r;
  ASSERT_TRUE(pool.Run("count", "SELECT COUNT(*) FROM accounts", {}, &r).ok());
  EXPECT_EQ(r.Int(0, 0), 0);
  EXPECT_EQ(pool.open(), 1);
}

}  // namespace
}  // namespace zolvani::refserver::testing
