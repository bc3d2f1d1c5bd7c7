// The console-state contract run against PgConsoleState: another handle is
// another replica's pool on the same database, in the program's throwaway cluster.
#include <atomic>

#include "reference/server/store/postgres/PgConsoleState.h"
#include "reference/server/store/postgres/PgSchema.h"
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

}  // namespace
}  // namespace zolvani::refserver::testing
