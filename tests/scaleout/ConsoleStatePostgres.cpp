// The console-state contract run against PgConsoleState: another handle is
// another replica's pool on the same database, in the program's throwaway cluster.
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "reference/server/store/postgres/PgConsoleState.h"
#include "reference/server/store/postgres/PgImport.h"
#include "reference/server/store/postgres/PgSchema.h"
#include "reference/server/store/sqlite/SqliteConsoleState.h"
#include "reference/server/store/sqlite/SqliteStore.h"
#include "tests/refserver/admin/ConsoleStateContract.h"
#include "tests/scaleout/PgTestSupport.h"

namespace zolvani::refserver::testing {
namespace {

class PostgresConsoleFactory : public ConsoleStateFactory {
 public:
  Status Prepare() override {
    static std::atomic<int> next{0};
    std::string error;
    PgCluster* cluster = SharedPgCluster(&error);
    if (cluster == nullptr) return Status::Unavailable("PostgreSQL is required: " + error);
    return cluster->CreateMigratedDatabase("console_" + std::to_string(next++), &url_);
  }
  Status Open(std::unique_ptr<ConsoleState>* state) override {
    std::unique_ptr<PgConsoleState> opened;
    Status s = PgConsoleState::Open(url_, 4, &opened);
    if (s.ok()) *state = std::move(opened);
    return s;
  }
  void Discard() override {}  // the cluster goes with the program

 private:
  std::string url_;
};

INSTANTIATE_TEST_SUITE_P(Postgres, ConsoleStateContractTest,
                         ::testing::Values(ConsoleStateParam{
                             "Postgres",
                             [] { return std::make_unique<PostgresConsoleFactory>(); }}),
                         ConsoleStateParamName);

// A database left at the version before the console's tables is refused with
// what to run, and the session identifier is stored only as its digest.
class PgConsoleStateTest : public PgTest {};

TEST_F(PgConsoleStateTest, OnlyADigestIsStoredAndAStaleSchemaIsRefused) {
  std::unique_ptr<PgConsoleState> state;
  ASSERT_TRUE(PgConsoleState::Open(url_, 2, &state).ok());
  const std::string id(64, '7');
  ASSERT_TRUE(state->CreateSession({id, std::string(64, 'c'), "", 5, 5}, {}).ok());
  std::unique_ptr<PgStore> store = OpenStore(1);
  ASSERT_NE(store, nullptr);
  PgResult r;
  ASSERT_TRUE(store->pool()->Run("read", "SELECT id_sha256 FROM console_sessions", {}, &r).ok());
  ASSERT_EQ(r.rows(), 1);
  EXPECT_NE(r.Text(0, 0), id);
  EXPECT_EQ(r.Text(0, 0).size(), 64u);

  ASSERT_TRUE(store->pool()
                  ->Run("forget", "DELETE FROM schema_migrations WHERE version = $1",
                        {PgParam(int64_t{PgSchema::CompiledVersion()})})
                  .ok());
  std::unique_ptr<PgConsoleState> stale;
  Status s = PgConsoleState::Open(url_, 1, &stale);
  EXPECT_TRUE(s.IsFailedPrecondition()) << s.ToString();
  EXPECT_NE(s.message().find("migrate"), std::string::npos) << s.ToString();
}

// Every database reached through the pool failing: calls say Unavailable or
// IOError, never crash or claim success.
TEST_F(PgConsoleStateTest, AnUnreachableDatabaseFailsEveryCall) {
  PgPool pool("postgresql://nobody@127.0.0.1:1/none?connect_timeout=1",
              PgPoolOptions{1, std::chrono::milliseconds(500), 1});
  PgConsoleState state(&pool);
  std::string hash;
  LoginFailures after;
  ConsoleSession found;
  for (Status s : {state.PasswordHash(&hash), state.RecordLoginFailure("client x", 1, 1000, &after),
                   state.CreateSession({std::string(64, 'a'), "t", "", 1, 1}, {}),
                   state.FindSession(std::string(64, 'a'), 1, {}, &found),
                   state.AddOperator({"alice", OperatorRole::kAdministrator, "h", 1, 1})}) {
    EXPECT_FALSE(s.ok());
    EXPECT_FALSE(s.IsNotFound()) << s.ToString();
  }
}

// A folder's console.sqlite moves with its store, ids and sessions kept; a
// console already set up in the database is kept instead, never merged.
TEST_F(PgConsoleStateTest, ImportCarriesTheConsoleUnlessTheDatabaseHasOne) {
  const auto dir =
      std::filesystem::temp_directory_path() / ("zsm-console-import-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  {
    std::unique_ptr<SqliteStore> store;
    ASSERT_TRUE(SqliteStore::Open(dir, &store).ok());
    ASSERT_TRUE(store->AddFeed({"f1", "Feed", true, {}}).ok());
    std::unique_ptr<SqliteConsoleState> console;
    ASSERT_TRUE(SqliteConsoleState::Open(dir, &console).ok());
    ASSERT_TRUE(console->SetPasswordHash("hash-1", 10).ok());
    ASSERT_TRUE(console->AddOperator({"alice", OperatorRole::kAdministrator, "ha", 11, 11}).ok());
    ASSERT_TRUE(console->CreateSession({std::string(64, 's'), "csrf", "alice", 12, 12}, {}).ok());
    for (int i = 0; i < 3; ++i) {
      AuditEntry e;
      e.atMs = 20 + i;
      e.operatorName = "alice";
      e.action = "feed.create";
      e.target = "f" + std::to_string(i);
      e.details = {{"n", i}};
      ASSERT_TRUE(console->Record(e).ok());
    }
  }
  ImportSummary summary;
  Status s = ImportSqlite(dir, url_, &summary);
  ASSERT_TRUE(s.ok()) << s.ToString();
  EXPECT_EQ(summary.rows["audit entries"], 3);
  EXPECT_FALSE(summary.consoleKept);

  std::unique_ptr<PgConsoleState> state;
  ASSERT_TRUE(PgConsoleState::Open(url_, 1, &state).ok());
  std::string hash;
  ASSERT_TRUE(state->PasswordHash(&hash).ok());
  EXPECT_EQ(hash, "hash-1");
  Operator alice;
  ASSERT_TRUE(state->FindOperator("alice", &alice).ok());
  EXPECT_EQ(alice.role, OperatorRole::kAdministrator);
  ConsoleSession session;
  ASSERT_TRUE(state->FindSession(std::string(64, 's'), 13, {}, &session).ok());
  EXPECT_EQ(session.csrfToken, "csrf");
  std::vector<AuditEntry> entries;
  AuditQuery all;
  ASSERT_TRUE(state->ListAudit(all, &entries).ok());
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].target, "f2");
  EXPECT_EQ(entries[0].details["n"], 2);
  // New entries continue after the copied ids, so paging stays in order.
  AuditEntry next;
  next.atMs = 30;
  next.action = "feed.update";
  ASSERT_TRUE(state->Record(next).ok());
  ASSERT_TRUE(state->ListAudit(all, &entries).ok());
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_GT(entries[0].id, entries[1].id);
  EXPECT_EQ(entries[0].action, "feed.update");

  // Into a database whose console is set up but whose content is empty: the
  // content comes, the database's console stays.
  std::string other;
  ASSERT_TRUE(cluster_->CreateMigratedDatabase("console_import_kept", &other).ok());
  std::unique_ptr<PgConsoleState> kept;
  ASSERT_TRUE(PgConsoleState::Open(other, 1, &kept).ok());
  ASSERT_TRUE(kept->SetPasswordHash("hash-db", 5).ok());
  s = ImportSqlite(dir, other, &summary);
  ASSERT_TRUE(s.ok()) << s.ToString();
  EXPECT_TRUE(summary.consoleKept);
  ASSERT_TRUE(kept->PasswordHash(&hash).ok());
  EXPECT_EQ(hash, "hash-db");
  int64_t operators = -1;
  ASSERT_TRUE(kept->CountOperators(&operators).ok());
  EXPECT_EQ(operators, 0);

  // A console file that cannot be read to its end (its log lost a column) fails
  // the import after the content was copied: nothing of either stays.
  {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((dir / "console.sqlite").c_str(), &db), SQLITE_OK);
    EXPECT_EQ(
        sqlite3_exec(db, "ALTER TABLE audit_log DROP COLUMN details", nullptr, nullptr, nullptr),
        SQLITE_OK)
        << sqlite3_errmsg(db);
    sqlite3_close(db);
  }
  ASSERT_TRUE(cluster_->CreateMigratedDatabase("console_import_torn", &other).ok());
  s = ImportSqlite(dir, other, &summary);
  EXPECT_FALSE(s.ok());
  std::unique_ptr<PgStore> torn;
  ASSERT_TRUE(PgStore::Open(other, PgStoreOptions{}, &torn).ok());
  std::vector<FeedSummary> feeds;
  ASSERT_TRUE(torn->ListFeeds(&feeds).ok());
  EXPECT_TRUE(feeds.empty());
  std::unique_ptr<PgConsoleState> tornConsole;
  ASSERT_TRUE(PgConsoleState::Open(other, 1, &tornConsole).ok());
  EXPECT_TRUE(tornConsole->PasswordHash(&hash).IsNotFound());
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace zolvani::refserver::testing
