// Admission, promotion, cleaning, host calls and engine-side changes running
// at once against the same feeds. The interleaving is left to the scheduler;
// the test asserts what must hold whatever it is.
#include <atomic>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/StoreHarness.h"

namespace zolvani::testing {
namespace {

struct FeedRule {
  std::string feed;
  std::int32_t max;
  bool autodelete;
};

// Which feed each asset was made for; every asset belongs to one feed only.
class Ownership {
 public:
  void own(const std::string& uuid, const std::string& feed) {
    std::lock_guard lock(mutex_);
    owner_[uuid] = feed;
  }
  std::optional<std::string> ownerOf(const std::string& uuid) const {
    std::lock_guard lock(mutex_);
    auto it = owner_.find(uuid);
    return it == owner_.end() ? std::nullopt : std::optional<std::string>(it->second);
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> owner_;
};

// Returns a description of every broken invariant of the live records.
std::vector<std::string> brokenInvariants(InMemoryStoreContext& ctx, const Ownership& owners) {
  std::vector<std::string> broken;
  ctx.performBlockAndWait([&] {
    for (const auto& record :
         ctx.executeFetchRequest(SubscriptionDataFetchRequest::all(), nullptr)) {
      std::set<std::string> trackedUUIDs, deferredUUIDs;
      for (const auto& item : record->feedItemsSet()) {
        if (!trackedUUIDs.insert(item->uuid()).second)
          broken.push_back("duplicate tracked " + item->uuid() + " in " + record->uuid());
        if (owners.ownerOf(item->uuid()) != record->uuid())
          broken.push_back("foreign tracked " + item->uuid() + " in " + record->uuid());
      }
      for (const auto& item : record->deferredFeedItemsSet()) {
        if (!deferredUUIDs.insert(item->uuid()).second)
          broken.push_back("duplicate deferred " + item->uuid() + " in " + record->uuid());
        if (trackedUUIDs.count(item->uuid()))
          broken.push_back("tracked and deferred " + item->uuid() + " in " + record->uuid());
        if (owners.ownerOf(item->uuid()) != record->uuid())
          broken.push_back("foreign deferred " + item->uuid() + " in " + record->uuid());
      }
    }
  });
  return broken;
}

TEST(StoreConcurrencyTest, FeedsStayConsistentWhateverTheInterleaving) {
  StoreHarness h;
  Ownership owners;
  const std::vector<FeedRule> rules = {{"full-keeps", 3, false},
                                       {"auto", 2, true},
                                       {"unlimited", 0, false},
                                       {"negative", 65535, false}};
  for (const auto& r : rules) h.store->setMaxItems(r.max, r.autodelete, 0, r.feed);

  std::atomic<bool> stop{false};
  std::atomic<int> nextAge{0};
  std::atomic<int> admissionsFinished{0};
  std::mutex droppedMutex;
  std::vector<std::pair<std::string, std::string>> dropped;  // (feed, uuid) from addItem
  auto download = h.engine->roles().downloadEngine;

  auto makeAsset = [&](const std::string& feed, std::mt19937& rng) {
    const int age = nextAge.fetch_add(1);
    // Creation dates are shuffled a little so that additions land mid-list.
    auto a = h.asset(feed + "-" + std::to_string(age), age + static_cast<int>(rng() % 7),
                     rng() % 3 == 0);
    owners.own(a->uuid(), feed);
    if (!a->downloadCompleteDateTime() && rng() % 2)
      download->addToQueue(a, kQueueIndexAppend, nullptr);
    return a;
  };

  std::vector<std::thread> threads;
  // Catalog admission: ask, then track or defer.
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(100 + t);
      for (int i = 0; i < 200; ++i) {
        const std::string& feed = rules[rng() % rules.size()].feed;
        auto a = makeAsset(feed, rng);
        if (h.store->canAddItem(a, feed)) {
          for (auto& u : h.store->addItem(a, feed)) {
            std::lock_guard lock(droppedMutex);
            dropped.emplace_back(feed, u);
          }
        } else {
          h.store->addDeferredItem(a, feed);
        }
      }
      ++admissionsFinished;
    });
  }
  // Engine events: promotions on the processing queue, and some run inline.
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i) {
      h.store->checkOnDeferredEpisodes();
      if (i % 4 == 0) h.store->deferred().promoteDeferredItems();
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });
  // The host: reads, cleans, lists and includes.
  threads.emplace_back([&] {
    std::mt19937 rng(7);
    while (!stop) {
      const std::string& feed = rules[rng() % rules.size()].feed;
      switch (rng() % 5) {
        case 0:
          h.store->cleanSubscriptionDataForFeed(feed, rng() % 2);
          break;
        case 1:
          (void)h.store->itemsInTrackingFeed(feed);
          break;
        case 2:
          (void)h.store->numberOfItemsInFeed(feed);
          break;
        case 3:
          (void)h.store->deferredEpisodes();
          break;
        case 4:
          h.store->includeItem(makeAsset(feed, rng), feed);
          break;
      }
    }
  });
  // The engine: downloads finish, content is deleted outside the library.
  threads.emplace_back([&] {
    std::mt19937 rng(11);
    while (!stop) {
      auto live = h.engine->liveAssets();
      if (!live.empty()) {
        auto& a = live[rng() % live.size()];
        if (rng() % 4 == 0)
          h.engine->deleteExternally(a->uuid());
        else
          a->setDownloadComplete(Date(1.0));
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  });

  // The test's thread plays the main queue and samples the invariants.
  std::vector<std::string> broken;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  for (int round = 0; admissionsFinished < 3 && broken.empty(); ++round) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "admission did not finish";
    h.mainQueue->poll();
    if (round % 20 == 0) broken = brokenInvariants(*h.engine->context(), owners);
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  for (int t = 0; t < 3; ++t) threads[t].join();
  stop = true;
  for (std::size_t t = 3; t < threads.size(); ++t) threads[t].join();
  h.store->checkOnDeferredEpisodes();
  h.settle();

  EXPECT_THAT(broken, ::testing::IsEmpty());
  EXPECT_THAT(brokenInvariants(*h.engine->context(), owners), ::testing::IsEmpty());

  // Every UUID announced or deleted belonged to a feed; addItem's drops to
  // the feed they were added to.
  const auto deletedLists = h.deletedAnnouncements();
  const auto addedLists = h.addedAnnouncements();
  // The run must have exercised the paths it is about.
  EXPECT_FALSE(deletedLists.empty());
  EXPECT_FALSE(addedLists.empty());
  EXPECT_FALSE(dropped.empty());
  for (const auto& list : deletedLists)
    for (const auto& uuid : list) EXPECT_TRUE(owners.ownerOf(uuid).has_value()) << uuid;
  for (const auto& [uuid, reason] : h.deletions())
    EXPECT_TRUE(owners.ownerOf(uuid).has_value()) << uuid;
  for (const auto& [feed, uuid] : dropped) EXPECT_EQ(owners.ownerOf(uuid), feed) << uuid;
  for (const auto& list : addedLists)
    for (const auto& uuid : list) EXPECT_TRUE(owners.ownerOf(uuid).has_value()) << uuid;

  // Once quiet, one more promotion leaves no feed that has room with items
  // still deferred.
  h.store->deferred().promoteDeferredItems();
  for (const auto& r : rules) {
    const auto tracked = h.tracked(r.feed), deferred = h.deferred(r.feed);
    const std::int16_t max = static_cast<std::int16_t>(r.max);
    if (max <= 0) {
      EXPECT_THAT(deferred, ::testing::IsEmpty()) << r.feed;
    } else if (!deferred.empty()) {
      EXPECT_GE(tracked.size(), static_cast<std::size_t>(max)) << r.feed;
    }
  }
}

}  // namespace
}  // namespace zolvani::testing
