// Promotion of deferred items and the host's list of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/StoreHarness.h"

namespace zolvani::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const std::string kQueueLine =
    "-[ZolvaniSubscriptionManager checkOnDeferredEpisodes]_queueCompletion [Line 1896] Error "
    "encountered adding the asset to the queue.";

TEST(DeferredEpisodesTest, PromotionFillsTheRoomLeft) {
  struct Case {
    const char* name;
    std::int16_t max;
    bool autodelete;
    int tracked;
    int deferred;
    int expectPromoted;  // the oldest ones
  };
  const Case cases[] = {
      {"one free place", 3, false, 2, 5, 1},
      {"no limit promotes all", 0, false, 2, 4, 4},
      {"negative max promotes all", -1, false, 1, 3, 3},
      {"full feed", 2, false, 2, 3, 0},
      {"auto-delete plays no part", 2, true, 2, 3, 0},
      {"nothing deferred", 5, false, 1, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    StoreHarness h;
    std::vector<std::shared_ptr<InMemoryAsset>> tracked, deferred;
    // Tracked items are newer than the deferred ones, so an appended promotion
    // is visibly out of order.
    for (int i = 0; i < c.tracked; ++i)
      tracked.push_back(h.asset("t" + std::to_string(i), 100 + i, true));
    for (int i = c.deferred - 1; i >= 0; --i)
      deferred.insert(deferred.begin(), h.asset("d" + std::to_string(i), i));
    h.seed("feed", c.max, c.autodelete, tracked);
    for (const auto& d : deferred) h.store->addDeferredItem(d, "feed");

    h.store->checkOnDeferredEpisodes();
    h.settle();

    std::vector<std::string> promoted, stillDeferred, expectTracked;
    for (int i = 0; i < c.deferred; ++i)
      (i < c.expectPromoted ? promoted : stillDeferred).push_back(deferred[i]->uuid());
    for (const auto& t : tracked) expectTracked.push_back(t->uuid());
    expectTracked.insert(expectTracked.end(), promoted.begin(), promoted.end());

    EXPECT_EQ(h.tracked("feed"), expectTracked);
    EXPECT_EQ(h.deferred("feed"), stillDeferred);
    EXPECT_EQ(h.engine->context()->savedRecords().at(0).feedItems, expectTracked);
    EXPECT_EQ(h.engine->queuedUUIDs(), promoted);
    if (promoted.empty()) {
      EXPECT_THAT(h.addedAnnouncements(), IsEmpty());
    } else {
      EXPECT_THAT(h.addedAnnouncements(), ElementsAre(promoted));
    }
    // One line per queueing, whatever its outcome.
    EXPECT_EQ(h.engine->countLogged(kQueueLine), promoted.size());
  }
}

TEST(DeferredEpisodesTest, TheQueueingLineIsWrittenOnSuccessAndOnFailureAlike) {
  for (bool fail : {false, true}) {
    SCOPED_TRACE(fail);
    StoreHarness h;
    if (fail) h.engine->setQueueingError(Error::make("Engine", 7, "queue full"));
    h.seed("feed", 0, false, {}, {h.asset("d0", 1), h.asset("d1", 2)});
    h.store->checkOnDeferredEpisodes();
    h.settle();
    auto errors = h.engine->messages(0);
    EXPECT_THAT(errors, ElementsAre(kQueueLine, kQueueLine));
    // A refused item stays tracked all the same.
    EXPECT_EQ(h.tracked("feed").size(), 2u);
  }
}

TEST(DeferredEpisodesTest, PromotionCleansFirstAndSkipsVanishedAssets) {
  StoreHarness h;
  auto idle = h.asset("idle", 1);  // unfinished, not queued: cancelled by the clean
  auto gone = h.asset("gone", 2);  // deferred, its asset vanished
  auto next = h.asset("next", 3);
  h.seed("feed", 2, false, {idle, h.asset("done", 0, true)}, {gone, next});
  h.assets->hide(gone->uuid());
  h.store->checkOnDeferredEpisodes();
  h.settle();
  EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(ElementsAre(idle->uuid())));
  // The cancelled item made room for one: the vanished one was promoted but
  // not queued, and it stays tracked until a later clean.
  EXPECT_THAT(h.deferred("feed"), ElementsAre(next->uuid()));
  EXPECT_EQ(h.tracked("feed").back(), gone->uuid());
  EXPECT_THAT(h.engine->queuedUUIDs(), IsEmpty());
  EXPECT_THAT(h.addedAnnouncements(), IsEmpty());
}

TEST(DeferredEpisodesTest, EveryFeedIsPromotedIndependently) {
  StoreHarness h;
  auto a0 = h.asset("a0", 1), a1 = h.asset("a1", 2), b0 = h.asset("b0", 3);
  h.seed("a", 1, false, {}, {a0, a1});
  h.seed("b", 0, false, {}, {b0});
  h.store->checkOnDeferredEpisodes();
  h.settle();
  EXPECT_THAT(h.engine->queuedUUIDs(), ElementsAre(a0->uuid(), b0->uuid()));
  EXPECT_THAT(h.addedAnnouncements(), ElementsAre(ElementsAre(a0->uuid(), b0->uuid())));
}

TEST(DeferredEpisodesTest, TheHostsListNamesOnlyDeferredItemsWhoseAssetsExist) {
  StoreHarness h;
  auto d0 = h.asset("asset-d0", 1), d1 = h.asset("asset-d1", 2), e0 = h.asset("asset-e0", 3);
  auto t0 = h.asset("asset-t0", 0);
  h.seed("feed", 1, false, {t0}, {d0, d1});
  h.seed("empty", 1, false, {});
  h.seed("other", 1, false, {}, {e0});
  h.assets->hide(d1->uuid());
  auto ids = h.store->deferredEpisodes();
  std::sort(ids.begin(), ids.end());  // feed order is unspecified
  EXPECT_THAT(ids, ElementsAre("asset-d0", "asset-e0"));
  // Nothing was promoted or queued; the deferred items are unchanged.
  EXPECT_THAT(h.deferred("feed"), ElementsAre(d0->uuid(), d1->uuid()));
  EXPECT_THAT(h.engine->queuedUUIDs(), IsEmpty());
  // Listing cleans every feed: the idle tracked item was cancelled.
  EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(ElementsAre(t0->uuid())));
}

}  // namespace
}  // namespace zolvani::testing
