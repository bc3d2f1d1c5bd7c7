// The roads into a sync: background fetches and pushes, start-up offline and
// online, and the engine event that promotes a deferred item.
#include <gtest/gtest.h>

#include "sync/SyncHarness.h"

namespace zolvani::testing {
namespace {

std::string subscriptionsCatalog(std::vector<std::string> subscriptions) {
  return catalog(nlohmann::json::array(), std::move(subscriptions)).dump();
}

TEST(WakeScenarioTest, FetchAnswersFollowTheSubscriptionListNotNewAssets) {
  struct Case {
    const char* name;
    HttpReply reply;
    BackgroundFetchResult answer;
  };
  const Case cases[] = {
      {"three feeds, nothing new", FakeHttpTransport::ok(subscriptionsCatalog({"A", "B", "C"})),
       kBackgroundFetchResultNewData},
      {"no feeds", FakeHttpTransport::ok(subscriptionsCatalog({})), kBackgroundFetchResultNoData},
      {"server failure", FakeHttpTransport::status(500), kBackgroundFetchResultFailed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TestBed bed;
    prepareForSync(bed);
    bed.http->enqueue(c.reply);
    std::optional<BackgroundFetchResult> answer;
    bed.manager->processFetchWithCompletionHandler([&](BackgroundFetchResult r) { answer = r; });
    ASSERT_TRUE(
        bed.mainQueue->runUntil([&] { return answer.has_value(); }, std::chrono::seconds(5)));
    EXPECT_EQ(*answer, c.answer);
    EXPECT_EQ(bed.engine->keepAliveCalls(),
              (std::vector<std::string>{"start:SubscriptionProcessing", "persist",
                                        "stop:SubscriptionProcessing"}));
  }
}

TEST(WakeScenarioTest, PushSyncsAfterItsDelayAndAlwaysAnswersNewData) {
  TestBed bed;
  prepareForSync(bed);
  bed.http->enqueue(FakeHttpTransport::status(500));
  std::optional<BackgroundFetchResult> answer;
  const auto began = std::chrono::steady_clock::now();
  bed.manager->processRemotePushNotice({{"subscription_sync", Value(true)}},
                                       [&](BackgroundFetchResult r) { answer = r; });
  bed.settle(std::chrono::milliseconds(300));
  EXPECT_TRUE(bed.http->requests().empty());
  ASSERT_TRUE(bed.mainQueue->runUntil([&] { return answer.has_value(); }, std::chrono::seconds(6)));
  EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(1900));
  EXPECT_EQ(*answer, kBackgroundFetchResultNewData);
  EXPECT_EQ(bed.manager->status(), kZSM_Errors);

  // An engine that is not running is started first, then the sync runs at once.
  TestBed cold;
  prepareForSync(cold);
  cold.engine->started = false;
  cold.engine->setKeelhall("http://127.0.0.1:1", "user", "device", "secret", "key");
  cold.http->enqueue(FakeHttpTransport::ok(subscriptionsCatalog({"A"})));
  std::optional<BackgroundFetchResult> coldAnswer;
  cold.manager->processRemotePushNotice({{"subscription_sync", Value(true)}},
                                        [&](BackgroundFetchResult r) { coldAnswer = r; });
  ASSERT_TRUE(
      cold.mainQueue->runUntil([&] { return coldAnswer.has_value(); }, std::chrono::seconds(1)));
  EXPECT_EQ(cold.engine->startups().size(), 1u);
  EXPECT_EQ(*coldAnswer, kBackgroundFetchResultNewData);
}

TEST(WakeScenarioTest, StartupOfflineThenOnlineValidatesSyncsAndSyncsOnActivation) {
  TestBed bed;
  prepareForSync(bed);
  bed.http->setFallback([](const HttpRequest& request) {
    if (request.url.find("/client/validate") != std::string::npos)
      return FakeHttpTransport::ok("{}");
    return FakeHttpTransport::ok(subscriptionsCatalog({"A"}));
  });
  auto endpoints = [&] {
    std::vector<std::string> out;
    for (const auto& r : bed.http->requests()) {
      auto from = r.url.find("/client/") + 8;
      out.push_back(r.url.substr(from, r.url.find('?') - from));
    }
    return out;
  };

  bed.engine->reachabilityStatus = 0;
  bed.manager->internalStartup();
  bed.settle();
  EXPECT_EQ(bed.manager->status(), kZSM_Offline);
  EXPECT_FALSE(bed.manager->started());
  EXPECT_TRUE(bed.http->requests().empty());

  bed.engine->reachabilityStatus = 1;
  bed.manager->internalStartup();
  ASSERT_TRUE(bed.settle());
  EXPECT_TRUE(bed.manager->started());
  EXPECT_EQ(endpoints(), (std::vector<std::string>{"validate", "catalog"}));
  EXPECT_EQ(bed.manager->status(), kZSM_Receiving);
  EXPECT_EQ(bed.manager->lastSubscriptionSyncTime(), Date(kNow));

  bed.center->post(std::string(kApplicationDidBecomeActiveNotification));
  ASSERT_TRUE(bed.settle());
  EXPECT_EQ(endpoints(), (std::vector<std::string>{"validate", "catalog", "catalog"}));
}

TEST(WakeScenarioTest, ADeferredItemIsQueuedOnceRoomAppearsAfterADownload) {
  TestBed bed;
  prepareForSync(bed);
  NotificationRecorder notes(*bed.center, {kSubscriptionManagerAssetAddedNotification,
                                           kSubscriptionManagerAssetDeferredNotification});
  nlohmann::json first =
      catalog({feed("A", {item("A1", 1700000100)})}, {"A"}, {{"A", rule(1, false)}});
  first["last_updated"] = 1750000000;
  nlohmann::json second = catalog({feed("A", {item("A2", 1760000000)})}, {"A"});
  bed.http->enqueue(FakeHttpTransport::ok(first.dump()));
  bed.http->enqueue(FakeHttpTransport::ok(second.dump()));
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(nullptr);
  ASSERT_TRUE(bed.settle());
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(nullptr);
  ASSERT_TRUE(bed.settle());
  EXPECT_EQ(queuedIDs(*bed.engine), (std::vector<std::string>{"A1"}));
  EXPECT_EQ(bed.manager->deferredEpisodes(), (std::vector<std::string>{"A2"}));
  ASSERT_EQ(notes.count(kSubscriptionManagerAssetDeferredNotification), 1u);

  // The viewer deletes the watched episode; the next finished download lets
  // the deferred one in.
  bed.engine->deleteExternally(bed.engine->createdAssets().front()->uuid());
  bed.center->post(std::string(kDownloadEngineDidFinishDownloadingAssetNotification));
  ASSERT_TRUE(bed.settle());
  // The deleted episode has left the engine's queue; the promoted one joined it.
  EXPECT_EQ(queuedIDs(*bed.engine), (std::vector<std::string>{"A2"}));
  EXPECT_TRUE(bed.manager->deferredEpisodes().empty());
  ASSERT_EQ(notes.count(kSubscriptionManagerAssetAddedNotification), 2u);
  EXPECT_EQ(notifiedIDs(notes.named(kSubscriptionManagerAssetAddedNotification).back()),
            (std::vector<std::string>{"A2"}));
}

}  // namespace
}  // namespace zolvani::testing
