// Retention cleaning: the cancellation pass and trimming by the feed's rules.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/StoreHarness.h"

namespace zolvani::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(RetentionCleanerTest, WhichTrackedItemsCountAsCancelled) {
  enum class State { kVanished, kFinished, kQueued, kInTransfer, kIdle };
  struct Case {
    const char* name;
    State state;
    bool checkForCanceled;
    bool expectCancelled;
  };
  const Case cases[] = {
      {"vanished, unchecked", State::kVanished, false, true},
      {"vanished, checked", State::kVanished, true, true},
      {"finished, checked", State::kFinished, true, false},
      {"queued, checked", State::kQueued, true, false},
      {"in transfer, checked", State::kInTransfer, true, false},
      {"idle, unchecked", State::kIdle, false, false},
      {"idle, checked", State::kIdle, true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    StoreHarness h;
    auto keep = h.asset("keep", 1, true);
    auto item = h.asset("item", 2, c.state == State::kFinished);
    item->setFractionComplete(0.256);
    h.seed("feed", 0, true, {keep, item});
    if (c.state == State::kVanished) h.assets->hide(item->uuid());
    if (c.state == State::kQueued) h.engine->setQueue({item->uuid()});
    if (c.state == State::kInTransfer) h.engine->setProcessingAssets({item});

    h.store->cleanSubscriptionDataForFeed("feed", c.checkForCanceled);

    if (!c.expectCancelled) {
      EXPECT_THAT(h.deletedAnnouncements(), IsEmpty());
      EXPECT_THAT(h.tracked("feed"), ElementsAre(keep->uuid(), item->uuid()));
      EXPECT_THAT(h.deletions(), IsEmpty());
      continue;
    }
    EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(ElementsAre(item->uuid())));
    const bool exists = c.state != State::kVanished;
    EXPECT_TRUE(h.engine->logged(
        fmt::format("Found tracked subscription item in feed (feed) that was canceled or "
                    "externally deleted.  Item UUID({}) Asset({}) Fraction Complete({})",
                    item->uuid(), exists ? Value(item).describe() : "(null)",
                    exists ? "0.26" : "0.00"),
        1));
    if (exists) {
      EXPECT_EQ(h.deletions(),
                (std::vector<std::pair<std::string, std::int64_t>>{{item->uuid(), 2}}));
      // The engine's deletion took the item out of the feed.
      EXPECT_THAT(h.tracked("feed"), ElementsAre(keep->uuid()));
    } else {
      EXPECT_THAT(h.deletions(), IsEmpty());
    }
  }
}

TEST(RetentionCleanerTest, TrimmingKeepsUpToTheMaximumOfEachGroup) {
  struct Case {
    const char* name;
    std::int16_t max;
    bool autodelete;
    int finished;
    int unfinished;
    // Announced, as "f<i>" / "u<i>" for the i-th oldest of each group.
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"oldest finished goes", 2, true, 3, 1, {"f0"}},
      {"both groups over", 2, true, 4, 3, {"u0", "f0", "f1"}},
      {"auto-delete off", 2, false, 4, 3, {}},
      {"no limit", 0, true, 4, 3, {}},
      {"negative max", -2, true, 4, 3, {}},
      {"twice the maximum is within the rules", 2, true, 2, 2, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    StoreHarness h;
    std::map<std::string, std::shared_ptr<InMemoryAsset>> named;
    std::vector<std::shared_ptr<InMemoryAsset>> items, queued;
    // Interleave the groups by age so that each group's oldest is not simply
    // the feed's oldest.
    for (int i = 0; i < std::max(c.finished, c.unfinished); ++i) {
      if (i < c.unfinished) {
        auto u = h.asset("u" + std::to_string(i), 10.0 * i + 1);
        named["u" + std::to_string(i)] = u;
        items.push_back(u);
      }
      if (i < c.finished) {
        auto f = h.asset("f" + std::to_string(i), 10.0 * i + 2, true);
        named["f" + std::to_string(i)] = f;
        items.push_back(f);
      }
    }
    std::vector<std::string> queue;
    for (const auto& [n, a] : named)
      if (n[0] == 'u') queue.push_back(a->uuid());
    h.engine->setQueue(queue);  // queued downloads are not cancelled, but are trimmed
    h.seed("feed", c.max, c.autodelete, items);

    h.store->cleanSubscriptionDataForFeed("feed", true);

    std::vector<std::string> expected;
    for (const auto& n : c.expected) expected.push_back(named.at(n)->uuid());
    if (expected.empty()) {
      EXPECT_THAT(h.deletedAnnouncements(), IsEmpty());
    } else {
      EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(expected));
    }
    std::vector<std::pair<std::string, std::int64_t>> deletions;
    for (const auto& u : expected) deletions.emplace_back(u, 2);
    EXPECT_EQ(h.deletions(), deletions);
    EXPECT_EQ(h.engine->context()->savedRecords().at(0).feedItems.size(),
              items.size() - expected.size());
  }
}

TEST(RetentionCleanerTest, CancelledItemsAreAnnouncedBeforeTrimmedOnesInOneNotification) {
  StoreHarness h;
  auto f0 = h.asset("f0", 1, true), f1 = h.asset("f1", 2, true);
  auto idle = h.asset("idle", 3);
  auto vanished = h.asset("vanished", 4, true);
  h.seed("feed", 1, true, {f0, f1, idle, vanished});
  h.assets->hide(vanished->uuid());
  h.store->cleanSubscriptionDataForFeed("feed", true);
  // `vanished` keeps its record (only the look-up hides it), so it is trimmed
  // as a finished item too and announced twice; its deletion finds nothing.
  EXPECT_THAT(h.deletedAnnouncements(),
              ElementsAre(ElementsAre(idle->uuid(), vanished->uuid(), f0->uuid(), f1->uuid())));
  EXPECT_THAT(h.tracked("feed"), ElementsAre(vanished->uuid()));
  const std::string rule =
      "-[ZolvaniSubscriptionManager cleanSubscriptionDataForFeed:checkForCanceled:] [Line 1819] ";
  EXPECT_TRUE(
      h.engine->logged(rule + "Deleting asset(Title of f0) due to subscription rules...", 2));
  EXPECT_FALSE(h.engine->logged(rule + "Deleting asset((null)) due to subscription rules...", 2));
}

TEST(RetentionCleanerTest, TrimmingLogsEachGroupAndEachDeletion) {
  StoreHarness h;
  auto u0 = h.asset("u0", 1), u1 = h.asset("u1", 2), f0 = h.asset("f0", 3, true);
  h.engine->setQueue({u0->uuid(), u1->uuid()});
  h.seed("feed", 1, true, {u0, u1, f0});
  h.engine->clearLog();
  h.store->cleanSubscriptionDataForFeed("feed", false);
  const std::string at =
      "-[ZolvaniSubscriptionManager cleanSubscriptionDataForFeed:checkForCanceled:]_trimming";
  auto item = [](const std::shared_ptr<InMemoryAsset>& a) {
    return "<ZolvaniAssetData uuid: " + a->uuid() + ">";
  };
  std::vector<std::pair<std::string, std::int64_t>> lines;
  for (const auto& l : h.engine->logLines()) lines.emplace_back(l.message, l.level);
  EXPECT_THAT(
      lines,
      ElementsAre(
          std::pair<std::string, std::int64_t>{"Found 3 items and 0 deferred items in feed(feed)",
                                               4},
          std::pair<std::string, std::int64_t>{
              at +
                  " [Line 1785] We may need to delete some items because we currently have more "
                  "than the max allowed.  Current undownloaded item list: (" +
                  item(u0) + ", " + item(u1) + ")",
              4},
          std::pair<std::string, std::int64_t>{
              at +
                  " [Line 1790] We have 2 undownloaded new items out of 1 max items.  Deleting "
                  "oldest undownloaded asset: " +
                  item(u0),
              2},
          std::pair<std::string, std::int64_t>{
              at + " [Line 1799] Current downloaded item list: (" + item(f0) + ")", 4},
          std::pair<std::string, std::int64_t>{
              "-[ZolvaniSubscriptionManager cleanSubscriptionDataForFeed:checkForCanceled:] [Line "
              "1819] Deleting asset(Title of u0) due to subscription rules...",
              2}));
}

TEST(RetentionCleanerTest, WithoutTheDownloadedRuleTheOldestItemsGoWhateverTheirState) {
  StoreHarness h;
  h.deleteOldContent = false;
  auto f0 = h.asset("f0", 1, true), u0 = h.asset("u0", 2), f1 = h.asset("f1", 3, true);
  h.engine->setQueue({u0->uuid()});
  h.seed("feed", 1, true, {f0, u0, f1});
  h.store->cleanSubscriptionDataForFeed("feed", true);
  EXPECT_THAT(h.deletedAnnouncements(), ElementsAre(ElementsAre(f0->uuid(), u0->uuid())));
  const std::string at =
      "-[ZolvaniSubscriptionManager cleanSubscriptionDataForFeed:checkForCanceled:]_trimming";
  EXPECT_EQ(h.engine->countLogged(at + " [Line 1755] We need to delete some items because we have "
                                       "more than the max allowed.  Current item list is: ("),
            1u);
  EXPECT_TRUE(h.engine->logged(
      at + " [Line 1759] Deleting item: <ZolvaniAssetData uuid: " + u0->uuid() + ">", 4));
}

TEST(RetentionCleanerTest, NothingToDoStillSavesAndPostsNothing) {
  StoreHarness h;
  h.seed("feed", 5, true, {h.asset("a", 1, true)});
  const int before = h.engine->saveCount();
  h.store->cleanSubscriptionDataForFeed("feed", true);
  h.store->cleanSubscriptionDataForFeed("unknown", true);
  EXPECT_EQ(h.engine->saveCount(), before + 2);
  EXPECT_THAT(h.deletedAnnouncements(), IsEmpty());
  EXPECT_FALSE(h.engine->logged("Found 0 items and 0 deferred items in feed(unknown)"));
}

TEST(RetentionCleanerTest, DeferredItemsAreNeverExamined) {
  StoreHarness h;
  auto idle = h.asset("idle", 1);
  h.seed("feed", 1, true, {}, {idle, h.asset("other", 2)});
  h.store->cleanSubscriptionDataForFeed("feed", true);
  EXPECT_THAT(h.deletedAnnouncements(), IsEmpty());
  EXPECT_EQ(h.deferred("feed").size(), 2u);
  EXPECT_TRUE(h.engine->logged("Found 0 items and 2 deferred items in feed(feed)", 4));
}

}  // namespace
}  // namespace zolvani::testing
