// The feed store's records, admission rule and trimming on addition.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/StoreHarness.h"

namespace zolvani::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

TEST(FeedStoreTest, AnUnknownFeedReadsAsDefaultsAndIsNeverCreated) {
  StoreHarness h;
  auto a = h.asset("A", 1);
  EXPECT_EQ(h.store->maxBitrateForFeed("nope"), 9223372036854775807LL);
  EXPECT_EQ(h.store->maxItemsPerFeed("nope"), 0);
  EXPECT_FALSE(h.store->autoDeleteForFeed("nope"));
  EXPECT_EQ(h.store->numberOfItemsInFeed("nope"), 0);
  EXPECT_THAT(h.store->itemsInTrackingFeed("nope"), IsEmpty());
  EXPECT_FALSE(h.store->canAddItem(a, std::string("nope")));
  EXPECT_THAT(h.store->addItem(a, "nope"), IsEmpty());
  h.store->includeItem(a, "nope");
  h.store->addDeferredItem(a, "nope");
  h.store->removeFeed("nope");
  // Tracking, deferring and reading an unknown feed create no record and save
  // nothing of their own (only the clean inside canAddItem saves).
  EXPECT_THAT(h.engine->context()->savedRecords(), IsEmpty());
  EXPECT_EQ(h.engine->saveCount(), 1);
  EXPECT_THAT(h.deletedAnnouncements(), IsEmpty());
}

TEST(FeedStoreTest, RulesAreStoredWithTheSixteenBitNarrowingOfMaxItems) {
  struct Case {
    std::int32_t maxItems;
    std::int32_t maxBitrate;
    std::int32_t storedMax;
    std::int64_t storedBitrate;
  };
  const Case cases[] = {
      {70000, 5, 4464, 5},
      {32768, 0, -32768, 0},
      {40000, -1, -25536, -1},
      {65536, 2147483647, 0, 2147483647},
      {-1, -2147483647 - 1, -1, -2147483647LL - 1},
      {32767, 1, 32767, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.maxItems);
    StoreHarness h;
    h.store->setMaxItems(c.maxItems, true, c.maxBitrate, "feed");
    EXPECT_EQ(h.store->maxItemsPerFeed("feed"), c.storedMax);
    EXPECT_EQ(h.store->maxBitrateForFeed("feed"), c.storedBitrate);
    EXPECT_TRUE(h.store->autoDeleteForFeed("feed"));
    auto saved = h.engine->context()->savedRecords();
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_EQ(saved[0].uuid, "feed");
    EXPECT_EQ(saved[0].maxItems, c.storedMax);
  }
}

TEST(FeedStoreTest, ChangingRulesUpdatesTheOneRecordAndTrimsAtOnce) {
  StoreHarness h;
  auto d1 = h.asset("d1", 1, true), d2 = h.asset("d2", 2, true), d3 = h.asset("d3", 3, true);
  auto idle = h.asset("idle", 4);  // unfinished, neither queued nor in transfer
  h.seed("feed", 0, false, {d1, d2, d3, idle});
  h.store->setMaxItems(1, true, 7, "feed");
  EXPECT_EQ(h.engine->context()->savedRecords().size(), 1u);
  // The clean that follows checks for cancelled downloads and trims the
  // finished group to the new maximum.
  EXPECT_THAT(h.tracked("feed"), ElementsAre(d3->uuid()));
  EXPECT_THAT(h.deletedAnnouncements(),
              ElementsAre(ElementsAre(idle->uuid(), d1->uuid(), d2->uuid())));
}

TEST(FeedStoreTest, AdmissionRule) {
  struct Case {
    const char* name;
    std::int16_t max;
    bool autodelete;
    int trackedCount;
    bool candidateTracked;
    bool expected;
  };
  const Case cases[] = {
      {"room left", 3, false, 2, false, true},
      {"full, new item", 3, false, 3, false, false},
      {"full, tracked item", 3, false, 3, true, true},
      {"full but auto-delete", 1, true, 1, false, true},
      {"no limit", 0, false, 5, false, true},
      {"negative max reads as full", -1, false, 0, false, false},
      {"negative max, tracked item", -1, false, 1, true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    StoreHarness h;
    std::vector<std::shared_ptr<InMemoryAsset>> items;
    for (int i = 0; i < c.trackedCount; ++i)
      items.push_back(h.asset("t" + std::to_string(i), i, true));
    h.seed("feed", c.max, c.autodelete, items);
    auto candidate = c.candidateTracked ? items.back() : h.asset("new", 100);
    EXPECT_EQ(h.store->canAddItem(candidate, std::string("feed")), c.expected);
  }
}

TEST(FeedStoreTest, AdmissionWithoutAFeedAdmitsWithoutLookingAtTheStore) {
  StoreHarness h;
  EXPECT_TRUE(h.store->canAddItem(h.asset("A", 1), std::nullopt));
  EXPECT_EQ(h.engine->saveCount(), 0);
  EXPECT_THAT(h.engine->logLines(), IsEmpty());
}

TEST(FeedStoreTest, AdmissionFirstForgetsItemsWhoseAssetsVanished) {
  StoreHarness h;
  auto kept = h.asset("kept", 1, true), vanished = h.asset("vanished", 2, true);
  auto idle = h.asset("idle", 3);
  h.seed("feed", 3, false, {kept, vanished, idle});
  h.assets->hide(vanished->uuid());
  // The clean before deciding runs without checking for cancellations: the
  // idle download stays, the vanished one is announced (the in-memory engine
  // keeps its record because only the look-up hides it).
  EXPECT_FALSE(h.store->canAddItem(h.asset("new", 9), std::string("feed")));
  EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(ElementsAre(vanished->uuid())));
  EXPECT_TRUE(h.engine->logged(
      fmt::format("Found tracked subscription item in feed (feed) that was canceled or externally "
                  "deleted.  Item UUID({}) Asset((null)) Fraction Complete(0.00)",
                  vanished->uuid()),
      1));
}

TEST(FeedStoreTest, AddingTrimsOnlyUnfinishedItemsBeyondTheMaximum) {
  struct Case {
    const char* name;
    std::int16_t max;
    // Existing items: creation age and finished flag.
    std::vector<std::pair<double, bool>> existing;
    std::pair<double, bool> added;
    std::vector<int> expectDropped;  // indices into existing, or -1 for the added item
  };
  const Case cases[] = {
      {"finished items do not count", 2, {{1, true}, {2, true}}, {3, false}, {}},
      {"oldest unfinished goes", 2, {{1, false}, {2, false}}, {3, false}, {0}},
      {"finished item is skipped", 2, {{1, true}, {2, false}, {3, false}}, {4, false}, {1}},
      {"an older addition is itself the oldest", 2, {{5, false}, {6, false}}, {1, false}, {-1}},
      {"auto-delete off still trims", 1, {{1, false}}, {2, false}, {0}},
      {"no limit", 0, {{1, false}, {2, false}}, {3, false}, {}},
      {"negative max never trims", -3, {{1, false}, {2, false}}, {3, false}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    StoreHarness h;
    std::vector<std::shared_ptr<InMemoryAsset>> existing;
    for (std::size_t i = 0; i < c.existing.size(); ++i)
      existing.push_back(
          h.asset("e" + std::to_string(i), c.existing[i].first, c.existing[i].second));
    h.seed("feed", c.max, false, existing);
    auto added = h.asset("added", c.added.first, c.added.second);
    std::vector<std::string> expected;
    for (int i : c.expectDropped) expected.push_back(i < 0 ? added->uuid() : existing[i]->uuid());

    EXPECT_THAT(h.store->addItem(added, "feed"), ElementsAreArray(expected));
    std::vector<std::pair<std::string, std::int64_t>> deletions;
    for (const auto& u : expected) deletions.emplace_back(u, 2);
    EXPECT_EQ(h.deletions(), deletions);
    // What remains is sorted oldest first, and saved.
    auto all = existing;
    all.push_back(added);
    std::sort(all.begin(), all.end(),
              [](const auto& a, const auto& b) { return a->creationDate() < b->creationDate(); });
    std::vector<std::string> remaining;
    for (const auto& a : all)
      if (std::find(expected.begin(), expected.end(), a->uuid()) == expected.end())
        remaining.push_back(a->uuid());
    EXPECT_EQ(h.tracked("feed"), remaining);
    EXPECT_EQ(h.engine->context()->savedRecords().at(0).feedItems, remaining);
    // addItem announces nothing itself.
    EXPECT_THAT(h.deletedAnnouncements(), IsEmpty());
  }
}

TEST(FeedStoreTest, AddingLogsTheUndownloadedListAndEachDrop) {
  StoreHarness h;
  auto a = h.asset("a", 1), b = h.asset("b", 2, true), c = h.asset("c", 3);
  h.seed("feed", 1, false, {a, b});
  h.engine->clearLog();
  h.store->addItem(c, "feed");
  const std::string at = "-[ZolvaniSubscriptionManager addItem:toFeed:]_storeWork";
  EXPECT_THAT(
      h.engine->messages(4),
      ElementsAre(at +
                      " [Line 2013] We may need to delete some assets because we now have "
                      "more than max items.  Current undownloaded new items are: "
                      "(<ZolvaniAssetData uuid: " +
                      a->uuid() + ">, <ZolvaniAssetData uuid: " + c->uuid() + ">)",
                  at + " [Line 2017] Dropping item: <ZolvaniAssetData uuid: " + a->uuid() + ">"));
}

TEST(FeedStoreTest, WithoutTheDownloadedRuleAddingDropsTheOldestWhateverItsState) {
  StoreHarness h;
  h.deleteOldContent = false;
  auto a = h.asset("a", 1, true), b = h.asset("b", 2), c = h.asset("c", 3);
  h.seed("feed", 1, false, {a, b});
  h.engine->clearLog();
  EXPECT_THAT(h.store->addItem(c, "feed"), ElementsAre(a->uuid(), b->uuid()));
  EXPECT_THAT(h.tracked("feed"), ElementsAre(c->uuid()));
  const std::string at = "-[ZolvaniSubscriptionManager addItem:toFeed:]_storeWork";
  auto lines = h.engine->messages(4);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(
      lines[0].rfind(at + " [Line 1986] We need to delete some assets becuase we now have more "
                          "than max items.  Current asset list is: (",
                     0),
      0u);
  EXPECT_EQ(lines[1],
            at + " [Line 1990] Dropping item: <ZolvaniAssetData uuid: " + a->uuid() + ">");
}

TEST(FeedStoreTest, IncludingAnnouncesOnlyWhatWasDropped) {
  StoreHarness h;
  auto a = h.asset("a", 1), b = h.asset("b", 2), c = h.asset("c", 3);
  h.seed("feed", 2, false, {a});
  h.store->includeItem(b, "feed");
  h.store->includeItem(b, "feed");  // already tracked: no duplicate, no drop
  EXPECT_THAT(h.tracked("feed"), ElementsAre(a->uuid(), b->uuid()));
  h.store->includeItem(c, "feed");
  EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(ElementsAre(a->uuid())));
}

TEST(FeedStoreTest, DeferredItemsAreSortedUnlimitedAndListedAfterTrackedOnes) {
  StoreHarness h;
  auto t = h.asset("t", 5, true);
  auto late = h.asset("late", 30), early = h.asset("early", 10), mid = h.asset("mid", 20);
  h.seed("feed", 1, false, {t});
  for (const auto& a : {late, early, mid}) h.store->addDeferredItem(a, "feed");
  h.store->addDeferredItem(nullptr, "feed");
  EXPECT_THAT(h.deferred("feed"), ElementsAre(early->uuid(), mid->uuid(), late->uuid()));
  EXPECT_EQ(h.store->numberOfItemsInFeed("feed"), 1);
  EXPECT_THAT(h.store->itemsInTrackingFeed("feed"),
              ElementsAre(t->uuid(), early->uuid(), mid->uuid(), late->uuid()));
  EXPECT_EQ(h.engine->context()->savedRecords().at(0).deferredFeedItems,
            uuidsOf({early, mid, late}));
}

TEST(FeedStoreTest, RemovingAFeedDeletesItsAssetsAndAnnouncesThoseThatExisted) {
  StoreHarness h;
  auto t1 = h.asset("t1", 1, true), t2 = h.asset("t2", 2), d1 = h.asset("d1", 3);
  h.seed("feed", 5, false, {t1, t2}, {d1});
  h.seed("other", 5, false, {});
  h.assets->hide(t2->uuid());
  h.store->removeFeed("feed");
  EXPECT_EQ(h.deletions(),
            (std::vector<std::pair<std::string, std::int64_t>>{{t1->uuid(), 0}, {d1->uuid(), 0}}));
  EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(ElementsAre(t1->uuid(), d1->uuid())));
  auto saved = h.engine->context()->savedRecords();
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_EQ(saved[0].uuid, "other");
  h.store->removeFeed("feed");  // gone: nothing more is deleted or posted
  EXPECT_EQ(h.deletedAnnouncements().size(), 1u);
}

TEST(FeedStoreTest, TheFirstOfDuplicateRecordsIsTheFeeds) {
  StoreHarness h;
  h.seed("feed", 4, true, {});
  h.seed("feed", 9, false, {});
  EXPECT_EQ(h.store->maxItemsPerFeed("feed"), 4);
  h.store->setMaxItems(6, false, 1, "feed");
  auto saved = h.engine->context()->savedRecords();
  ASSERT_EQ(saved.size(), 2u);
  EXPECT_EQ(saved[0].maxItems, 6);
  EXPECT_EQ(saved[1].maxItems, 9);
}

TEST(FeedStoreTest, AFailedFetchReadsAsNoRecord) {
  StoreHarness h;
  auto a = h.asset("a", 1);
  h.seed("feed", 3, true, {a});
  h.engine->context()->failFetches = true;
  EXPECT_EQ(h.store->maxBitrateForFeed("feed"), 9223372036854775807LL);
  EXPECT_FALSE(h.store->canAddItem(h.asset("b", 2), std::string("feed")));
  h.store->removeFeed("feed");
  h.engine->context()->failFetches = false;
  EXPECT_THAT(h.tracked("feed"), ElementsAre(a->uuid()));
  EXPECT_THAT(h.deletions(), IsEmpty());
}

}  // namespace
}  // namespace zolvani::testing
