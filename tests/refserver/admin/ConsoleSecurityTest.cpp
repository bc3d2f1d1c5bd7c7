// The console's password hashes and its shared state (sessions, operators,
// sign-in failures, the audit log): what an attacker holding a wrong password, an
// old cookie or a guessed identifier must not get, and what two server processes
// on one data folder must both see.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "reference/server/admin/PasswordHasher.h"
#include "reference/server/store/sqlite/SqliteConsoleState.h"

namespace zolvani::refserver {
namespace {

// Light parameters keep the suite quick; the format is the same as the default's.
constexpr PasswordHashParams kQuick{1, 1024, 1};

TEST(PasswordHasherTest, OnlyTheSamePasswordVerifies) {
  std::string encoded;
  ASSERT_TRUE(PasswordHasher::Hash("correct horse", kQuick, &encoded).ok());
  EXPECT_EQ(encoded.rfind("$argon2id$v=19$m=1024,t=1,p=1$", 0), 0u) << encoded;

  std::string tampered = encoded;
  tampered[tampered.size() - 3] = tampered[tampered.size() - 3] == 'A' ? 'B' : 'A';
  std::string argon2i = encoded;
  argon2i.replace(0, 9, "$argon2i");
  std::string huge = encoded;
  huge.replace(huge.find("m=1024"), 6, "m=99999999");
  struct Case {
    std::string encoded;
    std::string password;
    bool verifies;
  } cases[] = {
      {encoded, "correct horse", true},
      {encoded, "correct horse ", false},
      {encoded, "Correct horse", false},
      {encoded, "", false},
      {encoded, std::string("correct horse\0x", 15), false},
      {tampered, "correct horse", false},
      {encoded.substr(0, encoded.size() - 10), "correct horse", false},
      {argon2i, "correct horse", false},
      {huge, "correct horse", false},  // refused before allocating 95 GiB
      {"", "correct horse", false},
      {"plain text", "plain text", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(PasswordHasher::Verify(c.encoded, c.password), c.verifies)
        << c.encoded << " / " << c.password;
  }
}

TEST(PasswordHasherTest, EachHashHasItsOwnSaltAndWeakPasswordsAreRefused) {
  std::string a, b, strong;
  ASSERT_TRUE(PasswordHasher::Hash("same password", kQuick, &a).ok());
  ASSERT_TRUE(PasswordHasher::Hash("same password", kQuick, &b).ok());
  EXPECT_NE(a, b);
  EXPECT_TRUE(PasswordHasher::Verify(b, "same password"));
  // The default parameters are the memory-hard ones the server stores.
  ASSERT_TRUE(PasswordHasher::Hash("same password", PasswordHashParams{}, &strong).ok());
  EXPECT_NE(strong.find("m=19456,t=2,p=1"), std::string::npos) << strong;
  EXPECT_TRUE(PasswordHasher::Verify(strong, "same password"));

  std::string out = "untouched";
  EXPECT_TRUE(PasswordHasher::Hash("short", kQuick, &out).IsInvalidArgument());
  EXPECT_TRUE(PasswordHasher::Hash(std::string(2000, 'x'), kQuick, &out).IsInvalidArgument());
  EXPECT_EQ(out, "untouched");
}

namespace fs = std::filesystem;

AuditQuery Query(std::string op, std::string action, int64_t fromMs = 0, int64_t toMs = 0,
                 int64_t beforeId = 0, int limit = 100) {
  AuditQuery q;
  q.operatorName = std::move(op);
  q.action = std::move(action);
  q.fromMs = fromMs;
  q.toMs = toMs;
  q.beforeId = beforeId;
  q.limit = limit;
  return q;
}

class ConsoleStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("zsm-console-state-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    ASSERT_TRUE(SqliteConsoleState::Open(dir_, &state_).ok());
  }
  void TearDown() override {
    state_.reset();
    fs::remove_all(dir_);
  }

  ConsoleSession Create(const std::string& id, int64_t nowMs, const SessionLimits& limits = {},
                        const std::string& op = "") {
    ConsoleSession s{id, "token-" + id.substr(0, 8), op, nowMs, nowMs};
    EXPECT_TRUE(state_->CreateSession(s, limits).ok());
    return s;
  }
  bool Live(const std::string& id, int64_t nowMs, const SessionLimits& limits = {}) {
    ConsoleSession found;
    Status s = state_->FindSession(id, nowMs, limits, &found);
    EXPECT_TRUE(s.ok() || s.IsNotFound()) << s.ToString();
    return s.ok();
  }
  static std::string Id(char c) { return std::string(64, c); }

  fs::path dir_;
  std::unique_ptr<SqliteConsoleState> state_;
};

TEST_F(ConsoleStateTest, SessionsEndWhenIdleOrOldOrSignedOut) {
  constexpr int64_t kMinute = 60000;
  Create(Id('a'), 0);
  // Used every 29 minutes it lives until its lifetime is over.
  int64_t now = 0;
  while (now + 29 * kMinute <= 12 * 60 * kMinute) {
    now += 29 * kMinute;
    EXPECT_TRUE(Live(Id('a'), now)) << now / kMinute;
  }
  EXPECT_FALSE(Live(Id('a'), 12 * 60 * kMinute + 1));

  Create(Id('b'), 0);
  EXPECT_TRUE(Live(Id('b'), 30 * kMinute));
  EXPECT_FALSE(Live(Id('b'), 60 * kMinute + 1));

  Create(Id('c'), 0);
  ASSERT_TRUE(state_->EndSession(Id('c')).ok());
  EXPECT_FALSE(Live(Id('c'), 1));

  // Lookalikes of a live identifier find nothing; the token is not an identifier.
  const ConsoleSession live = Create(Id('d'), 0);
  std::string other = live.id;
  other[0] = 'e';
  for (const std::string& id :
       {other, live.id.substr(1), live.id + "0", std::string(), live.csrfToken}) {
    EXPECT_FALSE(Live(id, 1)) << id;
  }
  ConsoleSession found;
  ASSERT_TRUE(state_->FindSession(live.id, 1, {}, &found).ok());
  EXPECT_EQ(found.csrfToken, live.csrfToken);

  // Only a digest of the identifier is on disk.
  state_.reset();
  std::ifstream file(dir_ / "console.sqlite", std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  EXPECT_EQ(bytes.find(live.id), std::string::npos);
}

TEST_F(ConsoleStateTest, TheLeastRecentlyUsedSessionMakesRoom) {
  SessionLimits limits;
  limits.maxSessions = 3;
  Create(Id('a'), 0, limits);
  Create(Id('b'), 1, limits);
  Create(Id('c'), 2, limits);
  ASSERT_TRUE(Live(Id('a'), 3, limits));  // a is now the most recently used
  Create(Id('d'), 4, limits);
  EXPECT_TRUE(Live(Id('a'), 5, limits));
  EXPECT_FALSE(Live(Id('b'), 5, limits));
  EXPECT_TRUE(Live(Id('c'), 5, limits));
  EXPECT_TRUE(Live(Id('d'), 5, limits));
}

TEST_F(ConsoleStateTest, TwoProcessesOnOneFolderShareSessionsFailuresAndOperators) {
  std::unique_ptr<SqliteConsoleState> other;
  ASSERT_TRUE(SqliteConsoleState::Open(dir_, &other).ok());
  Create(Id('a'), 0, {}, "alice");
  ConsoleSession found;
  ASSERT_TRUE(other->FindSession(Id('a'), 1, {}, &found).ok());
  EXPECT_EQ(found.operatorName, "alice");
  ASSERT_TRUE(other->EndSession(Id('a')).ok());
  EXPECT_FALSE(Live(Id('a'), 2));

  LoginFailures after;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE((i % 2 ? other : state_)
                    ->RecordLoginFailure("client 10.0.0.9", 100 + i, 60000, &after)
                    .ok());
  }
  EXPECT_EQ(after.failures, 3);
  LoginFailures read;
  ASSERT_TRUE(state_->ReadLoginFailures("client 10.0.0.9", &read).ok());
  EXPECT_EQ(read.failures, 3);
  EXPECT_EQ(read.lastFailureMs, 102);
  ASSERT_TRUE(state_->ReadLoginFailures("client 10.0.0.8", &read).ok());
  EXPECT_EQ(read.failures, 0);
  // Failures older than the forgetting time start again from one.
  ASSERT_TRUE(other->RecordLoginFailure("client 10.0.0.9", 100000, 60000, &after).ok());
  EXPECT_EQ(after.failures, 1);
  ASSERT_TRUE(state_->ClearLoginFailures("client 10.0.0.9").ok());
  ASSERT_TRUE(other->ReadLoginFailures("client 10.0.0.9", &read).ok());
  EXPECT_EQ(read.failures, 0);

  ASSERT_TRUE(state_->AddOperator({"alice", OperatorRole::kAdministrator, "h", 1, 1}).ok());
  EXPECT_TRUE(other->AddOperator({"alice", OperatorRole::kViewer, "h2", 2, 2}).IsAlreadyExists());
  int64_t count = 0;
  ASSERT_TRUE(other->CountOperators(&count).ok());
  EXPECT_EQ(count, 1);
}

TEST_F(ConsoleStateTest, SomeoneAlwaysRemainsToManageOperators) {
  ASSERT_TRUE(state_->AddOperator({"alice", OperatorRole::kAdministrator, "ha", 1, 1}).ok());
  ASSERT_TRUE(state_->AddOperator({"bob", OperatorRole::kEditor, "hb", 1, 1}).ok());
  // The last administrator can neither go nor lose the role while others remain.
  EXPECT_TRUE(state_->RemoveOperator("alice").IsFailedPrecondition());
  EXPECT_TRUE(state_->UpdateOperator("alice", OperatorRole::kEditor, "", 5).IsFailedPrecondition());
  ASSERT_TRUE(state_->UpdateOperator("bob", OperatorRole::kAdministrator, "", 6).ok());
  ASSERT_TRUE(state_->UpdateOperator("alice", OperatorRole::kViewer, "new", 7).ok());
  Operator alice;
  ASSERT_TRUE(state_->FindOperator("alice", &alice).ok());
  EXPECT_EQ(alice.role, OperatorRole::kViewer);
  EXPECT_EQ(alice.passwordHash, "new");
  EXPECT_EQ(alice.changedMs, 7);
  Operator bob;
  ASSERT_TRUE(state_->FindOperator("bob", &bob).ok());
  EXPECT_EQ(bob.passwordHash, "hb");  // an empty hash keeps the password
  // Removing an operator ends their sessions.
  Create(Id('a'), 10, {}, "alice");
  Create(Id('b'), 10, {}, "bob");
  ASSERT_TRUE(state_->RemoveOperator("alice").ok());
  EXPECT_FALSE(Live(Id('a'), 11));
  EXPECT_TRUE(Live(Id('b'), 11));
  EXPECT_TRUE(state_->RemoveOperator("alice").IsNotFound());
  EXPECT_TRUE(state_->UpdateOperator("zed", OperatorRole::kViewer, "", 1).IsNotFound());
}

TEST_F(ConsoleStateTest, TheAuditLogFiltersByOperatorKindAndTimeAndPages) {
  struct Row {
    const char* op;
    const char* action;
    int64_t at;
  } rows[] = {{"alice", "feed.create", 100},
              {"bob", "feed.update", 200},
              {"alice", "item.publish", 300},
              {"bob", "feed.updates", 400},
              {"alice", "feed.update", 500}};
  for (const auto& r : rows) {
    AuditEntry e;
    e.operatorName = r.op;
    e.action = r.action;
    e.atMs = r.at;
    e.target = "t";
    ASSERT_TRUE(state_->Record(e).ok());
  }
  auto list = [&](AuditQuery q) {
    std::vector<AuditEntry> entries;
    EXPECT_TRUE(state_->ListAudit(q, &entries).ok());
    std::vector<int64_t> at;
    for (const auto& e : entries) at.push_back(e.atMs);
    return at;
  };
  using V = std::vector<int64_t>;
  EXPECT_EQ(list(Query("", "")), (V{500, 400, 300, 200, 100}));
  EXPECT_EQ(list(Query("alice", "")), (V{500, 300, 100}));
  EXPECT_EQ(list(Query("", "feed.update")), (V{500, 200}));
  EXPECT_EQ(list(Query("", "feed.")), (V{500, 400, 200, 100}));
  EXPECT_EQ(list(Query("", "feed")), V{});  // an action, not a prefix
  EXPECT_EQ(list(Query("bob", "feed.", 300)), (V{400}));
  EXPECT_EQ(list(Query("", "", 200, 400)), (V{300, 200}));
  // Paging: two at a time, each page continuing below the last id seen.
  std::vector<AuditEntry> page;
  ASSERT_TRUE(state_->ListAudit(Query("", "", 0, 0, 0, 2), &page).ok());
  ASSERT_EQ(page.size(), 2u);
  EXPECT_EQ(list(Query("", "", 0, 0, page.back().id, 2)), (V{300, 200}));
}

}  // namespace
}  // namespace zolvani::refserver
