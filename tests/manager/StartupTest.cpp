// Start-up paths and the background entry points that need no server reply.
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"
#include "zolvani/subscription/engine/EngineWrappers.h"

namespace zolvani::testing {
namespace {

constexpr const char* kPrefix = "-[ZolvaniSubscriptionManager logString:atLevel:] [Line 1581] ";

TEST(StartupTest, DoesNothingBeforeTheEngineStarts) {
  TestBed bed;
  bed.engine->started = false;
  bed.manager->internalStartup();
  bed.settle();
  EXPECT_EQ(bed.manager->status(), -1);
  EXPECT_TRUE(bed.engine->logLines().empty());
  EXPECT_FALSE(bed.manager->started());
}

TEST(StartupTest, OfflineThenBackgroundThenActivation) {
  TestBed bed;
  bed.engine->reachabilityStatus = 0;
  bed.manager->internalStartup();
  EXPECT_EQ(bed.manager->status(), kZSM_Offline);
  EXPECT_FALSE(bed.manager->started());
  EXPECT_TRUE(bed.engine->logged(
      std::string(kPrefix) + "Started ZolvaniSubscriptionManager while offline", 4));

  bed.engine->reachabilityStatus = 1;
  bed.engine->applicationState = 2;  // in the background
  bed.engine->clearLog();
  bed.manager->internalStartup();
  EXPECT_EQ(bed.manager->status(), kZSM_Started);
  EXPECT_TRUE(bed.manager->started());
  EXPECT_TRUE(bed.engine->logged(
      std::string(kPrefix) +
          "Deferring subscription authentication/startup due to background startup.",
      4));
  bed.settle();
  EXPECT_TRUE(bed.http->requests().empty());  // nothing goes to the server from the background
  EXPECT_EQ(bed.center->observerCount(kApplicationDidBecomeActiveNotification), 1u);

  // A further start-up changes nothing and registers no second observer.
  bed.engine->clearLog();
  bed.manager->internalStartup();
  EXPECT_TRUE(bed.engine->logLines().empty());
  EXPECT_EQ(bed.center->observerCount(kApplicationDidBecomeActiveNotification), 1u);
}

TEST(StartupTest, APushTokenBeforeStartupIsOnlyStored) {
  TestBed bed;
  bed.center->post(std::string(kEnginePushTokenUpdateNotification), {{"token", Value("tok-1")}});
  bed.settle();
  EXPECT_EQ(bed.manager->pushToken(), Value("tok-1"));
  EXPECT_TRUE(bed.http->requests().empty());
}

TEST(StartupTest, PushTokenUpdateOfflineNeverCompletesAndKeepsTheOldToken) {
  TestBed bed([](TestBed& b) { b.defaults->setString(kEngineDevicePushTokenKey, "old"); });
  bed.engine->reachabilityStatus = 0;
  bool called = false;
  bed.manager->updatePushToken(Value("new"), [&](bool, std::optional<Error>) { called = true; });
  bed.settle(std::chrono::milliseconds(300));
  EXPECT_FALSE(called);
  EXPECT_EQ(bed.manager->pushToken(), Value("old"));
  EXPECT_EQ(bed.manager->status(), kZSM_Offline);
}

TEST(BackgroundEntryTest, PushPayloadsAskForASyncOnlyThroughTheirFlag) {
  TestBed bed;
  struct Case {
    Value::Map payload;
    bool asks;
  } cases[] = {
      {{}, false},
      {{{"subscription_sync", Value(true)}}, true},
      {{{"subscription_sync", Value(1)}}, true},
      {{{"subscription_sync", Value("YES")}}, true},
      {{{"subscription_sync", Value(false)}}, false},
      {{{"subscription_sync", Value("0")}}, false},
      {{{"other", Value(true)}}, false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(bed.manager->canProcessRemotePushNotice(c.payload), c.asks)
        << Value(c.payload).describe();
}

TEST(BackgroundEntryTest, WithoutCredentialsPushIsSilentAndFetchAnswersNoData) {
  TestBed bed;
  bed.engine->setCredentials("http://server", "user", "", "key");  // no secret
  int pushAnswers = 0;
  bed.manager->processRemotePushNotice({{"subscription_sync", Value(true)}},
                                       [&](BackgroundFetchResult) { ++pushAnswers; });
  std::optional<BackgroundFetchResult> fetchAnswer;
  bed.manager->processFetchWithCompletionHandler([&](BackgroundFetchResult r) { fetchAnswer = r; });
  EXPECT_FALSE(fetchAnswer.has_value());  // delivered on the main queue, not inline
  bed.settle();
  EXPECT_EQ(pushAnswers, 0);
  EXPECT_EQ(fetchAnswer, std::optional<BackgroundFetchResult>(kBackgroundFetchResultNoData));
  EXPECT_TRUE(bed.engine->keepAliveCalls().empty());
  auto warnings = bed.engine->messages(1);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(
      warnings[0],
      "-[ZolvaniSubscriptionManager processRemotePushNotice:withCompletionHandler:] [Line 308] "
      "Processing push in SubscriptionManager when keelhall credentials are not configured.  Doing "
      "nothing.");
  EXPECT_EQ(warnings[1],
            "-[ZolvaniSubscriptionManager processFetchWithCompletionHandler:] [Line 361] "
            "Processing fetch "
            "in SubscriptionManager when keelhall credentials are not configured.  Doing nothing.");
}

TEST(BackgroundEntryTest, APushThatDoesNotAskForASyncIsOnlyLogged) {
  TestBed bed;
  int answers = 0;
  bed.manager->processRemotePushNotice({{"alert", Value("hi")}},
                                       [&](BackgroundFetchResult) { ++answers; });
  bed.settle();
  EXPECT_EQ(answers, 0);
  EXPECT_EQ(bed.engine->countLogged("Received push notice with data: "), 1u);
  EXPECT_TRUE(bed.engine->keepAliveCalls().empty());
}

TEST(BackgroundEntryTest, SessionWakesAreNeverTaken) {
  TestBed bed;
  bool called = false;
  EXPECT_FALSE(bed.manager->processBackgroundSessionWake("session", [&] { called = true; }));
  bed.settle(std::chrono::milliseconds(100));
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace zolvani::testing

namespace zolvani::testing {
namespace {

// A wrapper overrides one operation of a role and forwards the rest.
class FlakyReachability final : public ZFM_ReachabilityWrapper {
 public:
  using ZFM_ReachabilityWrapper::ZFM_ReachabilityWrapper;
  std::int64_t currentReachabilityStatus() override { return answers_++ == 0 ? 0 : 1; }

 private:
  int answers_ = 0;
};

TEST(StartupTest, ReachabilityIsReadAfreshOnEveryStartup) {
  TestBed bed;
  auto roles = bed.engine->roles();
  roles.reachability = std::make_shared<FlakyReachability>(roles.reachability);
  auto manager = ZolvaniSubscriptionManager::create(ManagerEnvironment{roles, bed.platform()});
  bed.engine->applicationState = 1;
  manager->internalStartup();
  EXPECT_FALSE(manager->started());  // first reading: offline
  manager->internalStartup();
  EXPECT_TRUE(manager->started());  // second reading: online
  EXPECT_EQ(manager->status(), kZSM_Started);
}

}  // namespace
}  // namespace zolvani::testing
