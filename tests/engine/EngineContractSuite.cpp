#include "engine/EngineContractSuite.h"

#include <atomic>
#include <thread>
#include <vector>

namespace zolvani::testing {
namespace {

const std::string kKey(SubscriptionDataAttributes[3]);
const std::string kOrder(ZolvaniAssetDataAttributes[9]);

std::shared_ptr<SubscriptionData> fetchOne(ZolvaniManagedObjectContext& ctx,
                                           const std::string& feed) {
  auto found =
      ctx.executeFetchRequest(SubscriptionDataFetchRequest::whereEquals(kKey, feed), nullptr);
  return found.empty() ? nullptr : found.front();
}

std::vector<std::string> uuids(const AssetDataOrderedSet& set) {
  std::vector<std::string> out;
  for (const auto& item : set) out.push_back(item->uuid());
  return out;
}

TEST_P(EngineContractTest, SavedRecordsSurviveARestartAndUnsavedOnesDoNot) {
  auto roles = harness->roles();
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto saved = ctx->insertSubscriptionData();
    saved->setUuid("feed-saved");
    saved->setMaxItemsValue(-25536);
    saved->setAutodeleteValue(true);
    saved->setMaxBitrateValue(9223372036854775807LL);
    // A fetch inside the unit of work sees its own pending insert.
    ASSERT_NE(fetchOne(*ctx, "feed-saved"), nullptr);
    ctx->save();
    auto unsaved = ctx->insertSubscriptionData();
    unsaved->setUuid("feed-unsaved");
  });
  harness->restart();
  roles = harness->roles();
  ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = fetchOne(*ctx, "feed-saved");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->maxItemsValue(), -25536);
    EXPECT_TRUE(record->autodeleteValue());
    EXPECT_EQ(record->maxBitrateValue(), 9223372036854775807LL);
    EXPECT_EQ(fetchOne(*ctx, "feed-unsaved"), nullptr);
  });
}

TEST_P(EngineContractTest, FetchByFeedFindsOnlyThatFeedAndFetchAllKeepsInsertionOrder) {
  auto ctx = harness->roles().utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    for (const char* feed : {"b", "a", "c"}) ctx->insertSubscriptionData()->setUuid(feed);
    ctx->save();
    auto all = ctx->executeFetchRequest(SubscriptionDataFetchRequest::all(), nullptr);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0]->uuid(), "b");
    EXPECT_EQ(all[1]->uuid(), "a");
    EXPECT_EQ(all[2]->uuid(), "c");
    auto one =
        ctx->executeFetchRequest(SubscriptionDataFetchRequest::whereEquals(kKey, "a"), nullptr);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0]->uuid(), "a");
    EXPECT_TRUE(
        ctx->executeFetchRequest(SubscriptionDataFetchRequest::whereEquals(kKey, "zzz"), nullptr)
            .empty());
  });
}

// Records are named after they are inserted, renamed, and may share a name;
// look-ups must follow every step, and saves must keep insertion order.
TEST_P(EngineContractTest, LookupsFollowRenamesAndSharedNamesInInsertionOrder) {
  auto names = [](const std::vector<std::shared_ptr<SubscriptionData>>& records) {
    std::vector<std::string> out;
    for (const auto& r : records)
      out.push_back(r->uuid() + "/" + std::to_string(r->maxItemsValue()));
    return out;
  };
  auto fetch = [&](ZolvaniManagedObjectContext& ctx, const std::string& feed) {
    return names(
        ctx.executeFetchRequest(SubscriptionDataFetchRequest::whereEquals(kKey, feed), nullptr));
  };
  using Names = std::vector<std::string>;
  auto ctx = harness->roles().utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto first = ctx->insertSubscriptionData();
    first->setUuid("a");
    first->setMaxItemsValue(1);
    EXPECT_EQ(fetch(*ctx, "a"), Names{"a/1"});
    ctx->save();
    // Two records inserted before either is named.
    auto second = ctx->insertSubscriptionData();
    auto third = ctx->insertSubscriptionData();
    second->setMaxItemsValue(2);
    third->setMaxItemsValue(3);
    third->setUuid("b");
    second->setUuid("b");
    EXPECT_EQ(fetch(*ctx, "b"), (Names{"b/2", "b/3"}));
    third->setUuid("a");
    EXPECT_EQ(fetch(*ctx, "a"), (Names{"a/1", "a/3"}));
    EXPECT_EQ(fetch(*ctx, "b"), Names{"b/2"});
    // Renamed twice between look-ups.
    first->setUuid("x");
    first->setUuid("c");
    EXPECT_EQ(fetch(*ctx, "a"), Names{"a/3"});
    EXPECT_EQ(fetch(*ctx, "c"), Names{"c/1"});
    EXPECT_TRUE(fetch(*ctx, "x").empty());
    // An older record joining a newer one's name comes first.
    first->setUuid("b");
    EXPECT_EQ(fetch(*ctx, "b"), (Names{"b/1", "b/2"}));
    first->setUuid("c");
    ctx->save();
  });
  harness->restart();
  ctx = harness->roles().utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    EXPECT_EQ(names(ctx->executeFetchRequest(SubscriptionDataFetchRequest::all(), nullptr)),
              (Names{"c/1", "b/2", "a/3"}));
    EXPECT_EQ(fetch(*ctx, "a"), Names{"a/3"});
  });
}

TEST_P(EngineContractTest, CollectionsHoldTheEnginesOwnRecordsInTheirOrderAcrossARestart) {
  auto roles = harness->roles();
  auto a = harness->makeAsset("A", Date(300));
  auto b = harness->makeAsset("B", Date(100));
  auto c = harness->makeAsset("C", Date(200));
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = ctx->insertSubscriptionData();
    record->setUuid("feed");
    record->addFeedItemsObject(a->assetDataFromAsset());
    record->addFeedItemsObject(b->assetDataFromAsset());
    record->addFeedItemsObject(a->assetDataFromAsset());  // already present: stays where it is
    record->deferredFeedItemsSet().add(c->assetDataFromAsset());
    // The collections hold references to the engine's records, not copies.
    EXPECT_EQ(record->feedItemsSet().at(0), a->assetDataFromAsset());
    EXPECT_EQ(record->feedItemsSet().count(), 2u);
    ctx->save();
  });
  harness->restart();
  roles = harness->roles();
  ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = fetchOne(*ctx, "feed");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(uuids(record->feedItemsSet()), (std::vector<std::string>{a->uuid(), b->uuid()}));
    EXPECT_EQ(uuids(record->deferredFeedItemsSet()), (std::vector<std::string>{c->uuid()}));
    auto asset = roles.assets->assetWithUUID(a->uuid(), 0);
    ASSERT_NE(asset, nullptr);
    EXPECT_EQ(record->feedItemsSet().at(0), asset->assetDataFromAsset());
  });
}

TEST_P(EngineContractTest, TheOrderingAttributeIsTheCreationDate) {
  auto roles = harness->roles();
  auto newest = harness->makeAsset("N", Date(500));
  auto oldest = harness->makeAsset("O", Date(100));
  auto middle = harness->makeAsset("M", Date(300));
  middle->_setCreationDate(Date(50));  // backdating moves it to the front
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    AssetDataOrderedSet set;
    for (auto& asset : {newest, oldest, middle}) set.add(asset->assetDataFromAsset());
    set.sortByAttribute(kOrder);
    EXPECT_EQ(uuids(set),
              (std::vector<std::string>{middle->uuid(), oldest->uuid(), newest->uuid()}));
  });
}

TEST_P(EngineContractTest, LookupsFindLiveAssetsAndDeletionRemovesThemEverywhere) {
  auto roles = harness->roles();
  auto kept = harness->makeAsset("kept", Date(100));
  auto gone = harness->makeAsset("gone", Date(200));
  EXPECT_EQ(roles.assets->assetWithUUID(kept->uuid(), 0)->assetID(), "kept");
  EXPECT_EQ(roles.assets->assetWithAssetID("gone", 0)->uuid(), gone->uuid());
  EXPECT_EQ(roles.assets->assetWithUUID("no-such-uuid", 0), nullptr);
  EXPECT_EQ(roles.assets->assetWithAssetID("no-such-id", 0), nullptr);

  bool queued = false;
  roles.downloadEngine->addToQueue(gone, kQueueIndexAppend,
                                   [&](bool, std::optional<Error> e) { queued = !e.has_value(); });
  EXPECT_TRUE(queued);
  auto queue = roles.downloadEngine->assetsInQueue();
  EXPECT_NE(std::find(queue.begin(), queue.end(), gone->uuid()), queue.end());

  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = ctx->insertSubscriptionData();
    record->setUuid("feed");
    record->addFeedItemsObject(kept->assetDataFromAsset());
    record->addFeedItemsObject(gone->assetDataFromAsset());
    ctx->save();
  });
  const std::string goneUUID = gone->uuid();
  gone->deleteAssetWithReason(2, nullptr);

  EXPECT_EQ(roles.assets->assetWithUUID(goneUUID, 0), nullptr);
  EXPECT_EQ(roles.assets->assetWithAssetID("gone", 0), nullptr);
  queue = roles.downloadEngine->assetsInQueue();
  EXPECT_EQ(std::find(queue.begin(), queue.end(), goneUUID), queue.end());
  ctx->performBlockAndWait([&] {
    auto record = fetchOne(*ctx, "feed");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(uuids(record->feedItemsSet()), (std::vector<std::string>{kept->uuid()}));
  });
}

TEST_P(EngineContractTest, DownloadCompletionIsVisibleThroughTheRecord) {
  auto roles = harness->roles();
  auto asset = harness->makeAsset("A", Date(100));
  auto data = asset->assetDataFromAsset();
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->uuid(), asset->uuid());
  EXPECT_FALSE(data->downloadCompleteDateTime().has_value());
  harness->markDownloaded(asset->uuid(), Date(1234));
  auto fresh = roles.assets->assetWithUUID(asset->uuid(), 0);
  ASSERT_NE(fresh, nullptr);
  ASSERT_TRUE(fresh->downloadCompleteDateTime().has_value());
  EXPECT_DOUBLE_EQ(fresh->downloadCompleteDateTime()->secondsSince1970, 1234);
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    ctx->refreshObject(fresh->assetDataFromAsset(), false);
    auto done = fresh->assetDataFromAsset()->downloadCompleteDateTime();
    ASSERT_TRUE(done.has_value());
    EXPECT_DOUBLE_EQ(done->secondsSince1970, 1234);
  });
}

TEST_P(EngineContractTest, BlocksAreSerialisedAcrossThreadsAndMayNest) {
  auto ctx = harness->roles().utilities->managedObjectContext();
  int counter = 0;  // deliberately not atomic: the context is the lock
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        ctx->performBlockAndWait([&] {
          int seen = counter;
          ctx->performBlockAndWait([&] { counter = seen + 1; });
        });
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 800);
}

TEST_P(EngineContractTest, DeletedRecordsStayDeletedAndKeepTheirAssets) {
  auto roles = harness->roles();
  auto asset = harness->makeAsset("A", Date(100));
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = ctx->insertSubscriptionData();
    record->setUuid("feed");
    record->addFeedItemsObject(asset->assetDataFromAsset());
    ctx->save();
    ctx->deleteObject(record);
    EXPECT_EQ(fetchOne(*ctx, "feed"), nullptr);
    ctx->save();
  });
  harness->restart();
  roles = harness->roles();
  ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] { EXPECT_EQ(fetchOne(*ctx, "feed"), nullptr); });
  // Removing a record removes only the record, never the items it tracked.
  EXPECT_NE(roles.assets->assetWithUUID(asset->uuid(), 0), nullptr);
}

}  // namespace
}  // namespace zolvani::testing

namespace zolvani::testing {
namespace {

// The store context as the feed store relies on it.

TEST_P(EngineContractTest, RollbackDropsUnsavedChangesToSavedRecords) {
  auto roles = harness->roles();
  auto a = harness->makeAsset("A", Date(100));
  auto b = harness->makeAsset("B", Date(200));
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto kept = ctx->insertSubscriptionData();
    kept->setUuid("kept");
    kept->setMaxItemsValue(3);
    kept->addFeedItemsObject(a->assetDataFromAsset());
    ctx->insertSubscriptionData()->setUuid("doomed");
    ctx->save();
  });
  // A second unit of work changes fields and collections and deletes a record,
  // and never saves.
  ctx->performBlockAndWait([&] {
    auto kept = fetchOne(*ctx, "kept");
    ASSERT_NE(kept, nullptr);
    kept->setMaxItemsValue(9);
    kept->feedItemsSet().removeAt(0);
    kept->addFeedItemsObject(b->assetDataFromAsset());
    kept->deferredFeedItemsSet().add(a->assetDataFromAsset());
    ctx->deleteObject(fetchOne(*ctx, "doomed"));
  });
  harness->restart();
  roles = harness->roles();
  ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto kept = fetchOne(*ctx, "kept");
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->maxItemsValue(), 3);
    EXPECT_EQ(uuids(kept->feedItemsSet()), (std::vector<std::string>{a->uuid()}));
    EXPECT_TRUE(kept->deferredFeedItemsSet().empty());
    EXPECT_NE(fetchOne(*ctx, "doomed"), nullptr);
  });
}

TEST_P(EngineContractTest, LaterUnitsOfWorkSeeEarlierUnsavedChanges) {
  auto roles = harness->roles();
  auto a = harness->makeAsset("A", Date(100));
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = ctx->insertSubscriptionData();
    record->setUuid("feed");
    record->setAutodeleteValue(true);
    record->deferredFeedItemsSet().add(a->assetDataFromAsset());
  });
  // Another thread's unit of work on the same context sees the pending record
  // and changes it; the first thread then sees that change.
  std::thread other([&] {
    ctx->performBlockAndWait([&] {
      auto record = fetchOne(*ctx, "feed");
      ASSERT_NE(record, nullptr);
      EXPECT_TRUE(record->autodeleteValue());
      ASSERT_EQ(record->deferredFeedItemsSet().count(), 1u);
      auto item = record->deferredFeedItemsSet().at(0);
      record->deferredFeedItemsSet().removeAt(0);
      record->addFeedItemsObject(item);
    });
  });
  other.join();
  ctx->performBlockAndWait([&] {
    auto record = fetchOne(*ctx, "feed");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(uuids(record->feedItemsSet()), (std::vector<std::string>{a->uuid()}));
    EXPECT_TRUE(record->deferredFeedItemsSet().empty());
  });
}

TEST_P(EngineContractTest, AnAssetHasOneRecordSeenThroughEveryPath) {
  auto roles = harness->roles();
  auto a = harness->makeAsset("A", Date(100));
  auto ctx = roles.utilities->managedObjectContext();
  auto direct = a->assetDataFromAsset();
  ASSERT_NE(direct, nullptr);
  EXPECT_EQ(a->assetDataFromAsset(), direct);
  EXPECT_EQ(roles.assets->assetWithUUID(a->uuid(), 0)->assetDataFromAsset(), direct);
  EXPECT_EQ(direct->managedObjectContext(), ctx);
  ctx->performBlockAndWait([&] {
    auto record = ctx->insertSubscriptionData();
    record->setUuid("feed");
    record->addFeedItemsObject(direct);
    ctx->save();
  });
  ctx->performBlockAndWait([&] {
    auto record = fetchOne(*ctx, "feed");
    ASSERT_NE(record, nullptr);
    // Refreshing re-reads the record in place: collections keep the same
    // object, so removal by object still finds it.
    ctx->refreshObject(record->feedItemsSet().at(0), false);
    EXPECT_EQ(record->feedItemsSet().at(0), direct);
    EXPECT_TRUE(record->feedItemsSet().contains(a->assetDataFromAsset()));
  });
}

TEST_P(EngineContractTest, TheOrderingAttributeSortsOldestFirstAndKeepsTiesInPlace) {
  auto roles = harness->roles();
  auto late = harness->makeAsset("late", Date(300));
  auto tieFirst = harness->makeAsset("tie1", Date(200));
  auto early = harness->makeAsset("early", Date(100));
  auto tieSecond = harness->makeAsset("tie2", Date(200));
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = ctx->insertSubscriptionData();
    record->setUuid("feed");
    for (auto& asset : {late, tieFirst, early, tieSecond})
      record->addFeedItemsObject(asset->assetDataFromAsset());
    record->feedItemsSet().sortByAttribute(kOrder);
    ctx->save();
  });
  harness->restart();
  ctx = harness->roles().utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto record = fetchOne(*ctx, "feed");
    ASSERT_NE(record, nullptr);
    // The sorted order is what was saved and what a restart gives back.
    EXPECT_EQ(uuids(record->feedItemsSet()),
              (std::vector<std::string>{early->uuid(), tieFirst->uuid(), tieSecond->uuid(),
                                        late->uuid()}));
  });
}

}  // namespace
}  // namespace zolvani::testing
