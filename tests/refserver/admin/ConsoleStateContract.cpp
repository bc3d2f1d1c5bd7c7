#include "tests/refserver/admin/ConsoleStateContract.h"

#include <algorithm>
#include <barrier>
#include <thread>
#include <vector>

namespace zolvani::refserver::testing {

void ConsoleStateContractTest::SetUp() {
  factory_ = GetParam().make();
  Status s = factory_->Prepare();
  ASSERT_TRUE(s.ok()) << s.ToString();
  s = factory_->Open(&state_);
  ASSERT_TRUE(s.ok()) << s.ToString();
}

void ConsoleStateContractTest::TearDown() {
  state_.reset();
  if (factory_) factory_->Discard();
}

std::unique_ptr<ConsoleState> ConsoleStateContractTest::OpenAnother() {
  std::unique_ptr<ConsoleState> other;
  Status s = factory_->Open(&other);
  EXPECT_TRUE(s.ok()) << s.ToString();
  return other;
}

ConsoleSession ConsoleStateContractTest::Create(const std::string& id, int64_t nowMs,
                                                const SessionLimits& limits,
                                                const std::string& op) {
  ConsoleSession s{id, "token-" + id.substr(0, 8), op, nowMs, nowMs};
  Status status = state_->CreateSession(s, limits);
  EXPECT_TRUE(status.ok()) << status.ToString();
  return s;
}

bool ConsoleStateContractTest::Live(const std::string& id, int64_t nowMs,
                                    const SessionLimits& limits) {
  ConsoleSession found;
  Status s = state_->FindSession(id, nowMs, limits, &found);
  EXPECT_TRUE(s.ok() || s.IsNotFound()) << s.ToString();
  return s.ok();
}

namespace {

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

}  // namespace

TEST_P(ConsoleStateContractTest, SessionsEndWhenIdleOrOldOrSignedOut) {
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
}

TEST_P(ConsoleStateContractTest, TheLeastRecentlyUsedSessionMakesRoom) {
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

TEST_P(ConsoleStateContractTest, TwoServersShareSessionsFailuresAndOperators) {
  std::unique_ptr<ConsoleState> other = OpenAnother();
  ASSERT_NE(other, nullptr);
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

TEST_P(ConsoleStateContractTest, SomeoneAlwaysRemainsToManageOperators) {
  ASSERT_TRUE(state_->AddOperator({"alice", OperatorRole::kAdministrator, "ha", 1, 1}).ok());
  ASSERT_TRUE(state_->AddOperator({"bob", OperatorRole::kEditor, "hb", 1, 1}).ok());
  // The last administrator can neither go nor lose the role while others remain.
  EXPECT_TRUE(state_->RemoveOperator("alice").IsFailedPrecondition());
  EXPECT_TRUE(state_->UpdateOperator("alice", nullptr, OperatorRole::kEditor, "", 5)
                  .IsFailedPrecondition());
  ASSERT_TRUE(state_->UpdateOperator("bob", nullptr, OperatorRole::kAdministrator, "", 6).ok());
  ASSERT_TRUE(state_->UpdateOperator("alice", nullptr, OperatorRole::kViewer, "new", 7).ok());
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
  EXPECT_TRUE(state_->UpdateOperator("zed", nullptr, OperatorRole::kViewer, "", 1).IsNotFound());
  // An edit made from what the editor read lands only while that is still so.
  ASSERT_TRUE(state_->FindOperator("bob", &bob).ok());
  const Operator seen = bob;
  ASSERT_TRUE(state_->UpdateOperator("bob", &seen, OperatorRole::kAdministrator, "hb2", 20).ok());
  EXPECT_TRUE(state_->UpdateOperator("bob", &seen, OperatorRole::kAdministrator, "", 21)
                  .IsFailedPrecondition());
  Operator sameRole = seen;
  sameRole.passwordHash = "hb2";  // changedMs still tells the edits apart
  EXPECT_TRUE(state_->UpdateOperator("bob", &sameRole, OperatorRole::kAdministrator, "", 21)
                  .IsFailedPrecondition());
  ASSERT_TRUE(state_->FindOperator("bob", &bob).ok());
  EXPECT_EQ(bob.passwordHash, "hb2");
  EXPECT_EQ(bob.changedMs, 20);
}

TEST_P(ConsoleStateContractTest, TheAuditLogFiltersByOperatorKindAndTimeAndPages) {
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

TEST_P(ConsoleStateContractTest, TwoServersAtOnceCountEveryFailureAndKeepTheSessionLimit) {
  std::unique_ptr<ConsoleState> other = OpenAnother();
  ASSERT_NE(other, nullptr);
  // A stranger's guesses land on both servers at once: none may be lost.
  constexpr int kPerThread = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      ConsoleState* state = t % 2 ? other.get() : state_.get();
      for (int i = 0; i < kPerThread; ++i) {
        LoginFailures after;
        Status s = state->RecordLoginFailure("client 10.0.0.7", 1000 + i, 60000, &after);
        EXPECT_TRUE(s.ok()) << s.ToString();
      }
    });
  }
  for (auto& t : threads) t.join();
  threads.clear();
  LoginFailures read;
  ASSERT_TRUE(other->ReadLoginFailures("client 10.0.0.7", &read).ok());
  EXPECT_EQ(read.failures, 4 * kPerThread);

  // Sign-ins on both servers at once never leave more sessions than the limit:
  // rounds of simultaneous sign-ins, counted after each.
  SessionLimits limits;
  limits.maxSessions = 5;
  constexpr int kThreads = 4;
  constexpr int kRounds = 12;
  auto sessionId = [](int thread, int round) {
    return std::string(62, static_cast<char>('a' + thread)) + std::to_string(10 + round);
  };
  for (int round = 0; round < kRounds; ++round) {
    std::barrier start(kThreads);
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        ConsoleState* state = t % 2 ? other.get() : state_.get();
        ConsoleSession s{sessionId(t, round), "token", "", 100 + round, 100 + round};
        start.arrive_and_wait();
        Status status = state->CreateSession(s, limits);
        EXPECT_TRUE(status.ok()) << status.ToString();
      });
    }
    for (auto& t : threads) t.join();
    threads.clear();
    int live = 0;
    for (int t = 0; t < kThreads; ++t) {
      for (int r = 0; r <= round; ++r) live += Live(sessionId(t, r), 100 + round, limits);
    }
    ASSERT_EQ(live, std::min(kThreads * (round + 1), 5)) << "after round " << round;
    // This round's sign-ins are the newest: all of them stay.
    for (int t = 0; t < kThreads; ++t) {
      EXPECT_TRUE(Live(sessionId(t, round), 100 + round, limits)) << round << " " << t;
    }
  }
}

}  // namespace zolvani::refserver::testing
