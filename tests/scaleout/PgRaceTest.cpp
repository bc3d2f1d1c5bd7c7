// Two replicas writing one PostgreSQL store at the same moment. Each case starts
// two writers together, many rounds over, and checks what a single SQLite writer
// guarantees: one winner of a duplicate publish and one fan-out, each push notice
// consumed once, a catalog whose newest time matches what it lists, a revoked
// grant or a changed feed taking effect at once, and no notice outliving its item.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <map>
#include <set>
#include <chrono>
#include <thread>
#include <vector>

#include "tests/scaleout/PgTestSupport.h"

namespace zolvani::refserver::testing {
namespace {

class PgRaceTest : public PgTest {
 protected:
  void SetUp() override {
    PgTest::SetUp();
    if (HasFatalFailure()) return;
    a_ = OpenStore();
    b_ = OpenStore();
    ASSERT_NE(a_, nullptr);
    ASSERT_NE(b_, nullptr);
    ASSERT_TRUE(a_->AddAccount({"alice", "k", "s"}).ok());
    Feed f1;
    f1.id = "f1";
    f1.title = "One";
    ASSERT_TRUE(a_->AddFeed(f1).ok());
  }

  // Runs `first` on one thread and `second` on another, released together.
  static void AtOnce(const std::function<void()>& first, const std::function<void()>& second) {
    std::barrier start(2);
    std::thread t([&] {
      start.arrive_and_wait();
      second();
    });
    start.arrive_and_wait();
    first();
    t.join();
  }

  static Item FeedItem(const std::string& uuid, const std::string& feed = "f1") {
    Item item;
    item.uuid = uuid;
    item.feed = feed;
    item.createdMs = 1000;
    item.metadata = {{"title", uuid}};
    return item;
  }

  std::unique_ptr<PgStore> a_, b_;  // two replicas
};

TEST_F(PgRaceTest, DuplicatePublishHasOneWinnerAndOneFanOut) {
  ASSERT_TRUE(a_->GrantPublisher("f1", "alice").ok());
  for (int d = 0; d < 5; ++d) {
    ASSERT_TRUE(a_->TouchDevice("alice", "d" + std::to_string(d), 1).ok());
    ASSERT_TRUE(a_->Subscribe("alice", "d" + std::to_string(d), "f1").ok());
  }
  constexpr int kRounds = 30;
  for (int round = 0; round < kRounds; ++round) {
    const std::string uuid = "dup-" + std::to_string(round);
    Status sa, sb;
    std::vector<PushNotice> na, nb;
    AtOnce([&] { sa = a_->PublishItem(FeedItem(uuid), "alice", 1000, &na); },
           [&] { sb = b_->PublishItem(FeedItem(uuid), "alice", 1000, &nb); });
    ASSERT_TRUE(sa.ok() != sb.ok()) << uuid << ": " << sa.ToString() << " / " << sb.ToString();
    const Status& loser = sa.ok() ? sb : sa;
    EXPECT_TRUE(loser.IsAlreadyExists()) << loser.ToString();
    EXPECT_EQ((sa.ok() ? na : nb).size(), 5u);
    EXPECT_TRUE((sa.ok() ? nb : na).empty());
  }
  std::vector<PushNotice> all;
  ASSERT_TRUE(a_->ListPushes("", "", false, false, &all).ok());
  std::set<std::pair<std::string, std::string>> seen;
  for (const auto& n : all) {
    EXPECT_TRUE(seen.insert({n.itemUuid, n.device}).second)
        << n.itemUuid << " twice to " << n.device;
  }
  EXPECT_EQ(all.size(), size_t{kRounds * 5});
}

TEST_F(PgRaceTest, EachPushNoticeIsConsumedOnce) {
  for (int d = 0; d < 10; ++d) {
    ASSERT_TRUE(a_->Subscribe("alice", "d" + std::to_string(d), "f1").ok());
  }
  for (int i = 0; i < 30; ++i) ASSERT_TRUE(a_->AddItem(FeedItem("n" + std::to_string(i)), 1).ok());
  // 300 pending notices; two consumers take them in small bites at once.
  std::vector<int64_t> gotA, gotB;
  auto consume = [](PgStore* store, const std::string& device, std::vector<int64_t>* got) {
    for (int i = 0; i < 200; ++i) {
      std::vector<PushNotice> batch;
      Status s = store->ListPushes("", device, true, true, &batch);
      ASSERT_TRUE(s.ok()) << s.ToString();
      for (const auto& n : batch) {
        EXPECT_FALSE(n.delivered) << "a notice is reported as it was before marking";
        got->push_back(n.id);
      }
    }
  };
  for (int d = 0; d < 10; ++d) {
    const std::string device = "d" + std::to_string(d);
    AtOnce([&] { consume(a_.get(), device, &gotA); }, [&] { consume(b_.get(), device, &gotB); });
  }
  std::set<int64_t> a(gotA.begin(), gotA.end()), b(gotB.begin(), gotB.end());
  EXPECT_EQ(a.size(), gotA.size());
  EXPECT_EQ(b.size(), gotB.size());
  for (int64_t id : a) EXPECT_EQ(b.count(id), 0u) << "notice " << id << " went to both";
  EXPECT_EQ(a.size() + b.size(), 300u);
  std::vector<PushNotice> pending;
  ASSERT_TRUE(a_->ListPushes("", "", true, false, &pending).ok());
  EXPECT_TRUE(pending.empty());
}

TEST_F(PgRaceTest, CatalogNewestTimeMatchesTheItemsItLists) {
  ASSERT_TRUE(a_->Subscribe("alice", "reader", "f1").ok());
  std::atomic<bool> stop{false};
  // The writer is paced and bounded: every catalog lists the whole feed, so an
  // unbounded one would make each read slower than the last.
  std::thread writer([&] {
    for (int i = 0; !stop && i < 3000; ++i) {
      if (i % 10 == 9) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      Item item = FeedItem("w" + std::to_string(i));
      item.createdMs = 10'000 + i;
      ASSERT_TRUE(b_->AddItem(item, 1).ok());
    }
  });
  int checked = 0;
  for (int i = 0; i < 300; ++i) {
    CatalogSnapshot snapshot;
    ASSERT_TRUE(a_->ReadCatalog("alice", "reader", std::nullopt, true, &snapshot).ok());
    ASSERT_EQ(snapshot.feeds.size(), 1u);
    const auto& items = snapshot.feeds[0].second;
    if (items.empty()) continue;
    ++checked;
    // Every item is in f1: the newest time reported is the newest item listed.
    EXPECT_EQ(snapshot.newestItemMs, items.back().createdMs)
        << "last_updated would pass an item this catalog did not send";
  }
  stop = true;
  writer.join();
  EXPECT_GT(checked, 100);
}

TEST_F(PgRaceTest, RevokedGrantTakesEffectAtOnce) {
  std::atomic<bool> revoking{false};
  std::atomic<int> itemsAtRevoke{-1};
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(a_->GrantPublisher("f1", "alice").ok());
    revoking = false;
    std::atomic<bool> stop{false};
    int published = 0;
    AtOnce(
        [&] {
          for (int i = 0; !stop; ++i) {
            Status s =
                a_->PublishItem(FeedItem("r" + std::to_string(round) + "-" + std::to_string(i)),
                                "alice", 1, nullptr);
            if (s.ok()) ++published;
            if (!s.ok()) {
              EXPECT_TRUE(s.IsPermissionDenied()) << s.ToString();
              EXPECT_TRUE(revoking.load()) << "refused before the revocation was sent";
              break;
            }
          }
        },
        [&] {
          std::this_thread::sleep_for(std::chrono::milliseconds(5 + round));
          revoking = true;
          ASSERT_TRUE(b_->RevokePublisher("f1", "alice").ok());
          std::vector<Item> items;
          ASSERT_TRUE(b_->ListItems("f1", "", 100000, &items).ok());
          itemsAtRevoke = static_cast<int>(items.size());
        });
    stop = true;
    std::vector<Item> items;
    ASSERT_TRUE(a_->ListItems("f1", "", 100000, &items).ok());
    EXPECT_EQ(static_cast<int>(items.size()), itemsAtRevoke.load())
        << "a publish committed after its grant's revocation returned (round " << round << ")";
  }
}

TEST_F(PgRaceTest, SubscribersGetNewFeedDefaultsWhateverTheOrder) {
  Feed changed;
  changed.id = "f1";
  changed.title = "One";
  for (int round = 0; round < 25; ++round) {
    const std::string device = "sub-" + std::to_string(round);
    changed.defaults.maxAssets = 100 + round;
    // The console's feed update: new defaults, applied to current subscribers.
    AtOnce([&] { ASSERT_TRUE(a_->Subscribe("alice", device, "f1").ok()); },
           [&] {
             ASSERT_TRUE(b_->AddFeed(changed).ok());
             int64_t n = 0;
             ASSERT_TRUE(b_->SetRulesForSubscribers("f1", changed.defaults, &n).ok());
           });
    CatalogSnapshot snapshot;
    ASSERT_TRUE(a_->ReadCatalog("alice", device, std::nullopt, true, &snapshot).ok());
    ASSERT_EQ(snapshot.rules.count("f1"), 1u);
    EXPECT_EQ(snapshot.rules["f1"].maxAssets, 100 + round)
        << "the subscription kept the defaults it read before the update";
  }
}

TEST_F(PgRaceTest, NoPushNoticeOutlivesItsItem) {
  ASSERT_TRUE(a_->TouchDevice("alice", "d", 1).ok());
  for (int round = 0; round < 40; ++round) {
    const std::string uuid = "gone-" + std::to_string(round);
    ASSERT_TRUE(a_->AddItem(FeedItem(uuid), 1).ok());
    Status added, removed;
    AtOnce([&] { added = a_->AddPushNotice("alice", "d", uuid, 1, nullptr); },
           [&] { removed = b_->RemoveItem(uuid); });
    ASSERT_TRUE(removed.ok()) << removed.ToString();
    EXPECT_TRUE(added.ok() || added.IsNotFound()) << added.ToString();
    std::vector<PushNotice> pending;
    ASSERT_TRUE(a_->ListPushes("alice", "d", true, false, &pending).ok());
    for (const auto& n : pending) EXPECT_NE(n.itemUuid, uuid) << "orphan notice";
  }
}

TEST_F(PgRaceTest, TwoEditorsOfOneFeedOrOneDeviceNeverOverwriteEachOther) {
  ASSERT_TRUE(a_->Subscribe("alice", "d", "f1").ok());
  Feed seen;
  ASSERT_TRUE(a_->FindFeed("f1", &seen).ok());
  for (int round = 0; round < 20; ++round) {
    // Two consoles on two replicas save different edits of what both read.
    Feed mine = seen, theirs = seen;
    mine.title = "mine " + std::to_string(round);
    mine.defaults.maxAssets = 200 + round;
    theirs.title = "theirs " + std::to_string(round);
    theirs.defaults.maxAssets = 300 + round;
    Status sa, sb;
    int64_t na = -1, nb = -1;
    AtOnce([&] { sa = a_->UpdateFeed(seen, mine, true, &na); },
           [&] { sb = b_->UpdateFeed(seen, theirs, true, &nb); });
    ASSERT_TRUE(sa.ok() != sb.ok()) << sa.ToString() << " / " << sb.ToString();
    EXPECT_TRUE((sa.ok() ? sb : sa).IsFailedPrecondition());
    const Feed& winner = sa.ok() ? mine : theirs;
    EXPECT_EQ(sa.ok() ? na : nb, 1);
    ASSERT_TRUE(a_->FindFeed("f1", &seen).ok());
    EXPECT_EQ(seen.title, winner.title);
    CatalogSnapshot snapshot;
    ASSERT_TRUE(a_->ReadCatalog("alice", "d", std::nullopt, true, &snapshot).ok());
    EXPECT_EQ(snapshot.rules["f1"].maxAssets, winner.defaults.maxAssets)
        << "the subscriber's rules come from the edit that was kept";

    const FeedRules before = snapshot.rules["f1"];
    FeedRules r1 = before, r2 = before;
    r1.maxAssets = 1;
    r2.maxAssets = 2;
    AtOnce([&] { sa = a_->UpdateRules("alice", "d", "f1", before, r1); },
           [&] { sb = b_->UpdateRules("alice", "d", "f1", before, r2); });
    ASSERT_TRUE(sa.ok() != sb.ok()) << sa.ToString() << " / " << sb.ToString();
    EXPECT_TRUE((sa.ok() ? sb : sa).IsFailedPrecondition());
  }
  EXPECT_TRUE(a_->UpdateFeed(seen, seen, false, nullptr).ok());
  Feed unknown = seen;
  unknown.id = "nope";
  EXPECT_TRUE(a_->UpdateFeed(unknown, unknown, false, nullptr).IsNotFound());
  EXPECT_TRUE(a_->UpdateRules("alice", "d", "nope", {}, {}).IsNotFound());
}

TEST_F(PgRaceTest, ASignatureIsAdmittedOnceAcrossReplicas) {
  for (int round = 0; round < 30; ++round) {
    const SignatureClaim claim{"sig-" + std::to_string(round), 2000, 1000};
    Status sa, sb;
    AtOnce([&] { sa = a_->Subscribe("alice", "d", "f1", &claim); },
           [&] { sb = b_->Unsubscribe("alice", "d", "f1", &claim); });
    ASSERT_TRUE(sa.ok() != sb.ok()) << sa.ToString() << " / " << sb.ToString();
    EXPECT_TRUE((sa.ok() ? sb : sa).IsReplayed()) << (sa.ok() ? sb : sa).ToString();
  }
  // A change that fails leaves its signature free; an expired one is free again.
  const SignatureClaim claim{"sig-failed", 2000, 1000};
  EXPECT_TRUE(a_->Subscribe("alice", "d", "no-such-feed", &claim).IsNotFound());
  EXPECT_TRUE(b_->Subscribe("alice", "d", "f1", &claim).ok());
  EXPECT_TRUE(a_->Subscribe("alice", "d", "f1", &claim).IsReplayed());
  const SignatureClaim later{"sig-failed", 4000, 3000};
  EXPECT_TRUE(a_->Subscribe("alice", "d", "f1", &later).ok());
}

TEST_F(PgRaceTest, PublishedItemsCarryTheDatabaseClock) {
  ASSERT_TRUE(a_->GrantPublisher("f1", "alice").ok());
  ASSERT_TRUE(a_->Subscribe("alice", "d", "f1").ok());
  // A replica whose clock is far behind (or a request that waited): the item is
  // stamped when it is inserted, so a device that synced since cannot miss it.
  std::vector<PushNotice> notices;
  const auto before = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  ASSERT_TRUE(a_->PublishItem(FeedItem("late"), "alice", 5, &notices).ok());
  std::vector<Item> items;
  ASSERT_TRUE(a_->ListItems("f1", "", 10, &items).ok());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_GE(items[0].createdMs, before - 1000);
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].createdMs, items[0].createdMs);
  // A catalog never reports a newest time beyond the database's now.
  Item future = FeedItem("future");
  future.createdMs = before + 3'600'000;
  ASSERT_TRUE(a_->AddItem(future, 1).ok());
  CatalogSnapshot snapshot;
  ASSERT_TRUE(a_->ReadCatalog("alice", "d", std::nullopt, true, &snapshot).ok());
  EXPECT_LT(snapshot.newestItemMs, before + 60'000);
}

}  // namespace
}  // namespace zolvani::refserver::testing
