// The manager's feed-store operations reach the store, log through the
// manager's logString and promote on the manager's processing queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace zolvani::testing {
namespace {

TEST(ManagerFeedStoreTest, OperationsForwardWithTheManagersLogPrefixAndQueue) {
  TestBed bed;
  NotificationRecorder recorder(*bed.center, {kSubscriptionManagerAssetAddedNotification,
                                              kSubscriptionManagerAssetDeletedNotification});
  auto& m = *bed.manager;
  m.setMaxItems(70000, false, -3, "feed");
  EXPECT_EQ(m.maxItemsPerFeed("feed"), 4464);
  EXPECT_EQ(m.maxBitrateForFeed("feed"), -3);
  EXPECT_TRUE(bed.engine->logged(
      "-[ZolvaniSubscriptionManager logString:atLevel:] [Line 1581] Found 0 items and 0 deferred "
      "items in feed(feed)",
      4));

  auto tracked = bed.engine->addAsset("t", Date(100), Date(200));
  auto deferred = bed.engine->addAsset("d", Date(50));
  EXPECT_TRUE(m.canAddItem(tracked, std::string("feed")));
  EXPECT_THAT(m.addItem(tracked, "feed"), ::testing::IsEmpty());
  m.addDeferredItem(deferred, "feed");
  EXPECT_THAT(m.itemsInTrackingFeed("feed"),
              ::testing::ElementsAre(tracked->uuid(), deferred->uuid()));
  EXPECT_THAT(m.deferredEpisodes(), ::testing::ElementsAre("d"));

  m.checkOnDeferredEpisodes();
  ASSERT_TRUE(bed.settle());
  EXPECT_THAT(bed.engine->queuedUUIDs(), ::testing::ElementsAre(deferred->uuid()));
  EXPECT_EQ(recorder.count(kSubscriptionManagerAssetAddedNotification), 1u);

  m.removeFeed("feed");
  ASSERT_TRUE(bed.settle());
  EXPECT_EQ(m.numberOfItemsInFeed("feed"), 0);
  EXPECT_EQ(recorder.count(kSubscriptionManagerAssetDeletedNotification), 1u);
}

}  // namespace
}  // namespace zolvani::testing
