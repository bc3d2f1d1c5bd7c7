// The PostgreSQL store's own machinery: versioned migrations (two appliers at
// once, a replica refusing a schema it does not know), and the connection pool
// (a busy pool answers Unavailable, a broken or unreachable database neither
// hangs a call nor poisons the pool).
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "reference/server/store/postgres/PgImport.h"
#include "reference/server/store/postgres/PgSchema.h"
#include "reference/server/store/sqlite/SqliteStore.h"
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

class PgImportTest : public PgTest {};

// What the console would show of a store, ids and times included.
std::string Contents(Store* store) {
  std::ostringstream out;
  std::vector<AccountSummary> accounts;
  EXPECT_TRUE(store->ListAccounts(&accounts).ok());
  for (const auto& a : accounts)
    out << "account " << a.user << " " << a.publicKey << " " << a.devices << "\n";
  std::vector<FeedSummary> feeds;
  EXPECT_TRUE(store->ListFeeds(&feeds).ok());
  for (const auto& f : feeds) {
    out << "feed " << f.feed.id << " " << f.feed.title << " " << f.feed.subscribable << " "
        << f.feed.defaults.maxAssets << " " << f.items << " " << f.subscribers << "\n";
  }
  std::vector<Item> items;
  EXPECT_TRUE(store->ListItems("", "", 100, &items).ok());
  for (const auto& i : items) {
    out << "item " << i.uuid << " " << i.feed << " " << i.user << " " << i.createdMs << " "
        << i.mediaPath << " " << i.metadata.dump() << "\n";
  }
  std::vector<DeviceSummary> devices;
  EXPECT_TRUE(store->ListDevices(&devices).ok());
  for (const auto& d : devices) {
    out << "device " << d.user << "/" << d.device << " " << d.firstSeenMs << " " << d.lastSeenMs
        << " " << d.pushService << " " << d.pendingPushes << " " << d.subscriptions.size() << "\n";
  }
  std::vector<PushNotice> pushes;
  EXPECT_TRUE(store->ListPushes("", "", false, false, &pushes).ok());
  for (const auto& n : pushes) {
    out << "push " << n.id << " " << n.device << " " << n.token << " " << n.itemUuid << " "
        << n.createdMs << " " << n.delivered << "\n";
  }
  std::vector<PublisherGrant> grants;
  EXPECT_TRUE(store->ListPublishers("", &grants).ok());
  for (const auto& g : grants) out << "grant " << g.feed << " " << g.user << "\n";
  CatalogSnapshot snapshot;
  EXPECT_TRUE(store->ReadCatalog("alice", "d1", std::nullopt, true, &snapshot).ok());
  for (const auto& [feed, r] : snapshot.rules)
    out << "rules " << feed << " " << r.maxAssets << "\n";
  return out.str();
}

TEST_F(PgImportTest, CopiesAServerKeepingIdsAndContinuesAfterThem) {
  const auto dir =
      std::filesystem::temp_directory_path() / ("zsm-import-" + std::to_string(getpid()));
  std::string before;
  {
    std::unique_ptr<SqliteStore> sqlite;
    ASSERT_TRUE(SqliteStore::Open(dir, &sqlite).ok());
    ASSERT_TRUE(sqlite->AddAccount({"alice", "pk", "s"}).ok());
    ASSERT_TRUE(sqlite->AddFeed(Feed{"news", "News", true, {4, true, 0}}).ok());
    ASSERT_TRUE(sqlite->AddFeed(Feed{"closed", "Closed", false, {2, false, 9}}).ok());
    ASSERT_TRUE(sqlite->TouchDevice("alice", "d1", 100).ok());
    ASSERT_TRUE(sqlite->TouchDevice("alice", "d2", 200).ok());
    ASSERT_TRUE(sqlite->SetPushRegistration("alice", "d1", "fcm", "tok", 150).ok());
    ASSERT_TRUE(sqlite->Subscribe("alice", "d1", "news").ok());
    ASSERT_TRUE(sqlite->SetRules("alice", "d1", "news", {8, false, 1}).ok());
    ASSERT_TRUE(sqlite->GrantPublisher("", "alice").ok());
    Item item;
    item.uuid = "i1";
    item.feed = "news";
    item.createdMs = 1000;
    item.mediaPath = "v/one.mp4";
    item.metadata = {{"title", "Ünïcode \"quoted\""}, {"mediaType", 3}};
    ASSERT_TRUE(sqlite->AddItem(item, 1001).ok());
    Item direct;
    direct.uuid = "direct";
    direct.user = "alice";
    direct.createdMs = 2000;
    ASSERT_TRUE(sqlite->AddItem(direct, 2001).ok());
    std::vector<PushNotice> consumed;
    ASSERT_TRUE(sqlite->ListPushes("alice", "d2", true, true, &consumed).ok());
    ASSERT_EQ(consumed.size(), 1u);
    before = Contents(sqlite.get());
  }
  ImportSummary summary;
  Status s = ImportSqlite(dir, url_, &summary);
  ASSERT_TRUE(s.ok()) << s.ToString();
  EXPECT_EQ(summary.rows["pushes"], 3);
  EXPECT_EQ(summary.rows["items"], 2);
  auto pg = OpenStore();
  ASSERT_NE(pg, nullptr);
  EXPECT_EQ(Contents(pg.get()), before);

  // New notices continue after the copied ids.
  PushNotice notice;
  ASSERT_TRUE(pg->AddPushNotice("alice", "d1", "i1", 3000, &notice).ok());
  EXPECT_EQ(notice.id, 4);

  // Never into a database that holds content, nor one that was never migrated.
  s = ImportSqlite(dir, url_, &summary);
  EXPECT_TRUE(s.IsFailedPrecondition()) << s.ToString();
  std::string empty;
  ASSERT_TRUE(cluster_->CreateDatabase("import_unmigrated", &empty).ok());
  s = ImportSqlite(dir, empty, &summary);
  EXPECT_TRUE(s.IsFailedPrecondition()) << s.ToString();
  s = ImportSqlite(dir / "nowhere", url_, &summary);
  EXPECT_TRUE(s.IsNotFound()) << s.ToString();
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
}

}  // namespace
}  // namespace zolvani::refserver::testing
