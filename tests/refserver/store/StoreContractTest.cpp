// The store contract: what a server relies on from its store, alone and beside other
// servers on the same store. Races are run with two handles (two servers) at once.
#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "StoreContract.h"

namespace zolvani::refserver::testing {

void StoreContractTest::SetUp() {
  factory_ = GetParam().make();
  ASSERT_TRUE(factory_->Prepare().ok());
  Status s = factory_->Open(&store_);
  ASSERT_TRUE(s.ok()) << s.ToString();
  ASSERT_TRUE(store_->AddAccount({"alice", "alice-key", "alice-secret"}).ok());
  ASSERT_TRUE(store_->AddAccount({"bob", "bob-key", "bob-secret"}).ok());
  ASSERT_TRUE(store_->AddFeed({"news", "News", true, {5, true, 0}}).ok());
  ASSERT_TRUE(store_->AddFeed({"sports", "Sports", true, {3, false, 800000}}).ok());
  ASSERT_TRUE(store_->AddFeed({"locked", "Locked", false, {1, true, 0}}).ok());
}

void StoreContractTest::TearDown() {
  store_.reset();
  if (factory_) factory_->Discard();
}

std::unique_ptr<Store> StoreContractTest::OpenAnother() {
  std::unique_ptr<Store> another;
  Status s = factory_->Open(&another);
  EXPECT_TRUE(s.ok()) << s.ToString();
  return another;
}

namespace {

constexpr int64_t kNowMs = 1700000000000;

Item FeedItem(const std::string& uuid, const std::string& feed, int64_t createdMs) {
  Item item;
  item.uuid = uuid;
  item.feed = feed;
  item.createdMs = createdMs;
  item.metadata = {{"title", uuid}, {"downloadURL", "http://media.example/" + uuid}};
  return item;
}

SignatureClaim Claim(const std::string& signature, int64_t nowS) {
  return SignatureClaim{signature, nowS + 300, nowS};
}

TEST_P(StoreContractTest, SubscribingCopiesTheFeedDefaultsOnceAndUnsubscribingDropsThem) {
  const FeedRules own{9, false, 123};
  ASSERT_TRUE(store_->Subscribe("alice", "d1", "news").ok());
  ASSERT_TRUE(store_->SetRules("alice", "d1", "news", own).ok());
  ASSERT_TRUE(store_->Subscribe("alice", "d1", "news").ok()) << "subscribing again";
  PushRegistration registration{"fcm", "token-1", kNowMs};
  ASSERT_TRUE(store_->Subscribe("alice", "d1", "sports", nullptr, &registration).ok());
  CatalogSnapshot snapshot;
  ASSERT_TRUE(store_->ReadCatalog("alice", "d1", std::nullopt, true, &snapshot).ok());
  EXPECT_EQ(snapshot.subscriptions, (std::vector<std::string>{"news", "sports"}));
  EXPECT_EQ(snapshot.rules["news"].maxAssets, 9) << "the device's own rules stay";
  EXPECT_EQ(snapshot.rules["sports"].maxAssets, 3);
  EXPECT_FALSE(snapshot.rules["sports"].autoDelete);
  EXPECT_EQ(snapshot.rules["sports"].maxBitrate, 800000);

  ASSERT_TRUE(store_->Unsubscribe("alice", "d1", "news").ok());
  ASSERT_TRUE(store_->Unsubscribe("alice", "d1", "news").ok()) << "not subscribed: no error";
  ASSERT_TRUE(store_->Subscribe("alice", "d1", "news").ok());
  ASSERT_TRUE(store_->ReadCatalog("alice", "d1", std::nullopt, true, &snapshot).ok());
  EXPECT_EQ(snapshot.rules["news"].maxAssets, 5) << "defaults again after unsubscribing";

  EXPECT_TRUE(store_->Subscribe("alice", "d1", "locked").IsFailedPrecondition());
  EXPECT_TRUE(store_->Subscribe("alice", "d1", "nosuch").IsNotFound());
  EXPECT_TRUE(store_->Unsubscribe("alice", "d1", "nosuch").IsNotFound());
  // A refused subscribe records nothing, its push registration included.
  PushRegistration other{"fcm", "token-2", kNowMs + 1};
  EXPECT_TRUE(store_->Subscribe("alice", "d2", "locked", nullptr, &other).IsFailedPrecondition());
  ASSERT_TRUE(store_->TouchDevice("alice", "d1", kNowMs).ok());
  ASSERT_TRUE(store_->TouchDevice("alice", "d2", kNowMs).ok());
  std::vector<DeviceSummary> devices;
  ASSERT_TRUE(store_->ListDevices(&devices).ok());
  std::map<std::string, std::string> services;
  for (const auto& d : devices) services[d.device] = d.pushService;
  EXPECT_EQ(services, (std::map<std::string, std::string>{{"d1", "fcm"}, {"d2", ""}}));
}

TEST_P(StoreContractTest, PublishingFollowsGrantsAndRevocationsAtOnce) {
  ASSERT_TRUE(store_->Subscribe("bob", "b1", "news").ok());
  struct Step {
    const char* name;
    std::function<Status()> change;  // before the publish; may be empty
    std::string feed;
    std::string user;  // direct item for this account when feed is empty
    Status::Kind expected;
  };
  Store* s = store_.get();
  int n = 0;
  const std::vector<Step> steps = {
      {"no grant", nullptr, "news", "", Status::Kind::kPermissionDenied},
      {"grant of another feed", [s] { return s->GrantPublisher("sports", "alice"); }, "news", "",
       Status::Kind::kPermissionDenied},
      {"grant of the feed", [s] { return s->GrantPublisher("news", "alice"); }, "news", "",
       Status::Kind::kOk},
      {"revoked", [s] { return s->RevokePublisher("news", "alice"); }, "news", "",
       Status::Kind::kPermissionDenied},
      {"grant of every feed", [s] { return s->GrantPublisher("", "alice"); }, "news", "",
       Status::Kind::kOk},
      {"not subscribable", nullptr, "locked", "", Status::Kind::kFailedPrecondition},
      {"unknown feed", nullptr, "nosuch", "", Status::Kind::kNotFound},
      {"direct item for itself", nullptr, "", "alice", Status::Kind::kOk},
      {"direct item for another", nullptr, "", "bob", Status::Kind::kPermissionDenied},
      {"every feed revoked", [s] { return s->RevokePublisher("", "alice"); }, "news", "",
       Status::Kind::kPermissionDenied},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    if (step.change) {
      ASSERT_TRUE(step.change().ok());
    }
    ++n;
    Item item = FeedItem("p-" + std::to_string(n), step.feed, kNowMs + n);
    item.user = step.user;
    std::vector<PushNotice> notices;
    EXPECT_EQ(store_->PublishItem(item, "alice", kNowMs, &notices).kind(), step.expected);
  }
  EXPECT_TRUE(store_->GrantPublisher("news", "nobody").IsNotFound());
  EXPECT_TRUE(store_->GrantPublisher("nosuch", "alice").IsNotFound());
  std::vector<PublisherGrant> grants;
  ASSERT_TRUE(store_->ListPublishers("", &grants).ok());
  ASSERT_EQ(grants.size(), 1u);
  EXPECT_EQ(grants[0].feed, "sports");
}

TEST_P(StoreContractTest, ASignatureIsTakenOnlyByAChangeThatTookEffect) {
  const int64_t now = kNowMs / 1000;
  ASSERT_TRUE(store_->GrantPublisher("news", "alice").ok());
  auto another = OpenAnother();
  ASSERT_TRUE(another);
  struct Case {
    const char* name;
    std::function<Status(Store*, const SignatureClaim*)> change;
    Status::Kind failing;  // the first attempt's outcome; kOk when it succeeds
  };
  const std::vector<Case> cases = {
      {"subscribe to an unknown feed, then a known one",
       [](Store* s, const SignatureClaim* c) { return s->Subscribe("alice", "d1", "nosuch", c); },
       Status::Kind::kNotFound},
      {"publish a duplicate",
       [](Store* s, const SignatureClaim* c) {
         std::vector<PushNotice> notices;
         return s->PublishItem(FeedItem("dup", "news", kNowMs), "alice", kNowMs, &notices, c);
       },
       Status::Kind::kOk},
      {"unsubscribe from a feed that is not subscribable",
       [](Store* s, const SignatureClaim* c) { return s->Unsubscribe("alice", "d1", "locked", c); },
       Status::Kind::kOk},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const SignatureClaim claim = Claim("sig-" + std::to_string(++n), now);
    EXPECT_EQ(c.change(store_.get(), &claim).kind(), c.failing);
    if (c.failing != Status::Kind::kOk) {
      // Refused: the same signature may carry the change that works.
      EXPECT_TRUE(store_->Subscribe("alice", "d1", "news", &claim).ok());
    }
    // Taken now, for every handle on the store, whatever the change.
    EXPECT_TRUE(another->Subscribe("alice", "d1", "sports", &claim).IsReplayed());
    EXPECT_TRUE(store_->Unsubscribe("alice", "d1", "news", &claim).IsReplayed());
    std::vector<PushNotice> notices;
    EXPECT_TRUE(another
                    ->PublishItem(FeedItem("x" + std::to_string(n), "news", kNowMs), "alice",
                                  kNowMs, &notices, &claim)
                    .IsReplayed());
    // Until it expires.
    const SignatureClaim later = Claim(claim.signature, claim.keepUntilS + 1);
    EXPECT_TRUE(another->Subscribe("alice", "d1", "sports", &later).ok());
  }
  std::vector<Item> items;
  ASSERT_TRUE(store_->ListItems("", "", 10, &items).ok());
  ASSERT_EQ(items.size(), 1u) << "no replayed publish took effect";
  EXPECT_EQ(items[0].uuid, "dup");
}

TEST_P(StoreContractTest, OfTwoServersAdmittingOneSignatureExactlyOneWins) {
  auto first = OpenAnother();
  auto second = OpenAnother();
  ASSERT_TRUE(first && second);
  const int64_t now = kNowMs / 1000;
  constexpr int kRounds = 40;
  std::atomic<int> wins{0};
  std::atomic<int> replays{0};
  std::atomic<int> others{0};
  auto run = [&](Store* store, const std::string& device) {
    for (int i = 0; i < kRounds; ++i) {
      const SignatureClaim claim = Claim("race-" + std::to_string(i), now);
      const Status s = store->Subscribe("alice", device, "news", &claim);
      (s.ok() ? wins : s.IsReplayed() ? replays : others)++;
    }
  };
  std::thread a(run, first.get(), "da");
  std::thread b(run, second.get(), "db");
  a.join();
  b.join();
  EXPECT_EQ(wins.load(), kRounds);
  EXPECT_EQ(replays.load(), kRounds);
  EXPECT_EQ(others.load(), 0);
}

// Two consoles (one per server) edit one account from what each read: the
// edit made second is refused whatever the interleaving, and a second "new
// account" of one name never replaces the first's secret.
TEST_P(StoreContractTest, OfTwoEditsMadeFromOneAccountExactlyOneLands) {
  auto first = OpenAnother();
  auto second = OpenAnother();
  ASSERT_TRUE(first && second);
  constexpr int kRounds = 40;
  std::atomic<int> wins{0};
  std::atomic<int> refused{0};
  std::atomic<int> others{0};
  auto run = [&](Store* store, const std::string& who) {
    for (int i = 0; i < kRounds; ++i) {
      const Account seen{"acct-" + std::to_string(i), "key", "secret"};
      for (const auto& expected : {std::optional<Account>(), std::optional<Account>(seen)}) {
        Account mine = seen;
        mine.secret = who + "-" + std::to_string(i);
        if (!expected) mine = seen;
        const Status s = store->UpdateAccount(expected, mine);
        (s.ok() ? wins : s.IsFailedPrecondition() ? refused : others)++;
      }
    }
  };
  std::thread a(run, first.get(), "a");
  std::thread b(run, second.get(), "b");
  a.join();
  b.join();
  // Per account: one creation and one edit land, one of each is refused.
  EXPECT_EQ(wins.load(), 2 * kRounds);
  EXPECT_EQ(refused.load(), 2 * kRounds);
  EXPECT_EQ(others.load(), 0);
  for (int i = 0; i < kRounds; ++i) {
    Account stored;
    ASSERT_TRUE(store_->FindAccount("acct-" + std::to_string(i), &stored).ok());
    EXPECT_TRUE(stored.secret == "a-" + std::to_string(i) ||
                stored.secret == "b-" + std::to_string(i))
        << stored.secret;
  }
  // An edit from a state that never was, or of an account that is not there.
  EXPECT_TRUE(
      store_->UpdateAccount(Account{"alice", "alice-key", "old"}, Account{"alice", "k", "s"})
          .IsFailedPrecondition());
  EXPECT_TRUE(store_->UpdateAccount(Account{"nobody", "k", "s"}, Account{"nobody", "k", "t"})
                  .IsFailedPrecondition());
  Account alice;
  ASSERT_TRUE(store_->FindAccount("alice", &alice).ok());
  EXPECT_EQ(alice.secret, "alice-secret");
}

TEST_P(StoreContractTest, OfTwoServersPublishingOneItemExactlyOneAnnouncesIt) {
  ASSERT_TRUE(store_->GrantPublisher("news", "alice").ok());
  for (const char* device : {"s1", "s2", "s3"}) {
    ASSERT_TRUE(store_->Subscribe("bob", device, "news").ok());
  }
  auto first = OpenAnother();
  auto second = OpenAnother();
  ASSERT_TRUE(first && second);
  constexpr int kItems = 30;
  std::atomic<int> added{0};
  std::atomic<int> duplicates{0};
  std::atomic<int> noticesMade{0};
  auto run = [&](Store* store, const std::string& name) {
    for (int i = 0; i < kItems; ++i) {
      std::vector<PushNotice> notices;
      const SignatureClaim claim = Claim(name + std::to_string(i), kNowMs / 1000);
      const Status s = store->PublishItem(FeedItem("race-" + std::to_string(i), "news", kNowMs + i),
                                          "alice", kNowMs, &notices, &claim);
      if (s.ok()) ++added;
      if (s.IsAlreadyExists()) ++duplicates;
      noticesMade += static_cast<int>(notices.size());
    }
  };
  std::thread a(run, first.get(), "a");
  std::thread b(run, second.get(), "b");
  a.join();
  b.join();
  EXPECT_EQ(added.load(), kItems);
  EXPECT_EQ(duplicates.load(), kItems);
  EXPECT_EQ(noticesMade.load(), 3 * kItems);
  std::vector<PushNotice> pushes;
  ASSERT_TRUE(store_->ListPushes("", "", false, false, &pushes).ok());
  std::set<std::pair<std::string, std::string>> seen;
  for (const auto& p : pushes) {
    EXPECT_TRUE(seen.insert({p.itemUuid, p.device}).second) << p.itemUuid << " " << p.device;
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(3 * kItems));
}

TEST_P(StoreContractTest, EachPushNoticeGoesToOneOfTwoConsumers) {
  for (int d = 0; d < 4; ++d) {
    ASSERT_TRUE(store_->Subscribe("bob", "c" + std::to_string(d), "news").ok());
  }
  constexpr int kItems = 50;
  for (int i = 0; i < kItems; ++i) {
    ASSERT_TRUE(
        store_->AddItem(FeedItem("n-" + std::to_string(i), "news", kNowMs + i), kNowMs).ok());
  }
  auto first = OpenAnother();
  auto second = OpenAnother();
  ASSERT_TRUE(first && second);
  std::vector<int64_t> taken[2];
  auto consume = [&](Store* store, std::vector<int64_t>* ids) {
    for (int empty = 0; empty < 3;) {
      std::vector<PushNotice> notices;
      ASSERT_TRUE(store->ListPushes("", "", true, true, &notices).ok());
      empty = notices.empty() ? empty + 1 : 0;
      for (const auto& n : notices) ids->push_back(n.id);
    }
  };
  std::thread a(consume, first.get(), &taken[0]);
  std::thread b(consume, second.get(), &taken[1]);
  a.join();
  b.join();
  std::vector<int64_t> all = taken[0];
  all.insert(all.end(), taken[1].begin(), taken[1].end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a notice consumed twice";
  EXPECT_EQ(all.size(), static_cast<size_t>(4 * kItems));
  std::vector<PushNotice> pending;
  ASSERT_TRUE(store_->ListPushes("", "", true, false, &pending).ok());
  EXPECT_TRUE(pending.empty());
}

TEST_P(StoreContractTest, ACatalogsNewestTimeNeverPassesAnItemItLeftOut) {
  // Devices ask for what is newer than the catalog's newest time; an item at or
  // before that time missing from the catalog would never reach them.
  ASSERT_TRUE(store_->Subscribe("alice", "d1", "news").ok());
  auto writer = OpenAnother();
  ASSERT_TRUE(writer);
  constexpr int kItems = 150;
  std::atomic<bool> done{false};
  std::thread write([&] {
    for (int i = 1; i <= kItems; ++i) {
      // Created in the order they commit, as one publisher's items are.
      ASSERT_TRUE(
          writer
              ->AddItem(FeedItem("c-" + std::to_string(i), i % 2 ? "news" : "sports", kNowMs + i),
                        kNowMs)
              .ok());
    }
    done = true;
  });
  struct Seen {
    std::optional<int64_t> since;
    int64_t newest;
    std::set<std::string> items;
  };
  std::vector<Seen> reads;
  std::optional<int64_t> since;
  while (!done || reads.size() < 5) {
    CatalogSnapshot snapshot;
    ASSERT_TRUE(store_->ReadCatalog("alice", "d1", since, true, &snapshot).ok());
    Seen seen{since, snapshot.newestItemMs, {}};
    for (const auto& [feed, items] : snapshot.feeds) {
      for (const auto& item : items) seen.items.insert(item.uuid);
    }
    reads.push_back(std::move(seen));
    // Alternate first syncs and incremental ones.
    since = reads.size() % 3 == 0 ? std::nullopt : std::optional<int64_t>(snapshot.newestItemMs);
  }
  write.join();
  for (const auto& read : reads) {
    for (int i = 1; i <= kItems; i += 2) {  // the news items
      const int64_t created = kNowMs + i;
      if (created > read.newest || (read.since && created <= *read.since)) continue;
      EXPECT_EQ(read.items.count("c-" + std::to_string(i)), 1u)
          << "newest " << read.newest << " passes c-" << i;
    }
  }
}

TEST_P(StoreContractTest, TrafficFromEveryServerAddsUpAndOldMinutesAreForgotten) {
  auto other = OpenAnother();
  ASSERT_TRUE(other);
  constexpr int64_t kMinute = 28333333;
  std::thread a([&] {
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(store_->AddTraffic({{kMinute, "r1", "catalog", 2, 1, 0}}, kMinute - 100).ok());
    }
  });
  std::thread b([&] {
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(other
                      ->AddTraffic({{kMinute, "r2", "catalog", 1, 0, 0},
                                    {kMinute + 1, "r2", "subscribe", 1, 0, 1}},
                                   kMinute - 100)
                      .ok());
    }
  });
  a.join();
  b.join();
  std::vector<TrafficCount> counts;
  ASSERT_TRUE(store_->ReadTraffic(kMinute, true, &counts).ok());
  ASSERT_EQ(counts.size(), 3u);
  EXPECT_EQ(counts[0].node, "r1");
  EXPECT_EQ(counts[0].requests, 40);
  EXPECT_EQ(counts[0].errors, 20);
  EXPECT_EQ(counts[1].node, "r2");
  EXPECT_EQ(counts[1].requests, 20);
  EXPECT_EQ(counts[2].minute, kMinute + 1);
  EXPECT_EQ(counts[2].signatureRefusals, 20);

  ASSERT_TRUE(store_->ReadTraffic(0, false, &counts).ok());
  ASSERT_EQ(counts.size(), 3u);  // r1 catalog, r2 catalog, r2 subscribe
  EXPECT_EQ(counts[1].requests, 20);
  EXPECT_EQ(counts[1].minute, kMinute);

  // A later write forgets what is older than it keeps.
  ASSERT_TRUE(other->AddTraffic({{kMinute + 2, "r2", "media", 1, 0, 0}}, kMinute + 1).ok());
  ASSERT_TRUE(store_->ReadTraffic(0, true, &counts).ok());
  ASSERT_EQ(counts.size(), 2u);
  EXPECT_EQ(counts[0].minute, kMinute + 1);
}

TEST_P(StoreContractTest, PingAnswersWhileTheStoreIsReachable) {
  EXPECT_TRUE(store_->Ping().ok());
  auto other = OpenAnother();
  ASSERT_TRUE(other);
  EXPECT_TRUE(other->Ping().ok());
}

}  // namespace
}  // namespace zolvani::refserver::testing
