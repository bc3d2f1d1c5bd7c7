// The same script of calls, with their refusals, against SqliteStore and PgStore:
// every status kind and every result must match, so that a server moved to
// PostgreSQL answers its devices and its console exactly as before. (Published
// items are stamped by the database's clock there, so their times are left out.)
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <random>
#include <sstream>

#include "reference/server/store/sqlite/SqliteStore.h"
#include "tests/scaleout/PgTestSupport.h"

namespace zolvani::refserver::testing {
namespace {

std::string Kind(const Status& s) {
  return s.ok() ? "OK" : s.ToString().substr(0, s.ToString().find(':'));
}

std::string Describe(const Item& i, bool withTime) {
  return i.uuid + "|" + i.feed + "|" + i.user + "|" +
         (withTime ? std::to_string(i.createdMs) : "") + "|" + i.mediaPath + "|" +
         i.metadata.dump();
}

std::string Describe(const PushNotice& n, bool withTime) {
  return std::to_string(n.id) + "|" + n.user + "|" + n.device + "|" + n.service + "|" + n.token +
         "|" + n.itemUuid + "|" + n.feed + "|" + (withTime ? std::to_string(n.createdMs) : "") +
         "|" + (n.delivered ? "delivered" : "pending");
}

// Runs the script on `store`; one line per call.
std::string Script(Store* store) {
  std::ostringstream log;
  auto line = [&](const std::string& call, const Status& s, const std::string& result = "") {
    log << call << " -> " << Kind(s) << " " << result << "\n";
  };
  // The call runs before its result is described.
#define CALL(name, call, ...)           \
  do {                                  \
    const Status called_ = (call);      \
    line(name, called_, ##__VA_ARGS__); \
  } while (0)
  Feed news{"news", "News", true, {5, true, 0}};
  Feed closed{"closed", "Closed", false, {3, false, 100}};
  CALL("AddAccount", store->AddAccount({"alice", "pk", "secret"}));
  CALL("AddAccount bob", store->AddAccount({"bob", "pk2", "s2"}));
  CALL("AddAccount empty", store->AddAccount({"", "k", "s"}));
  CALL("AddFeed", store->AddFeed(news));
  CALL("AddFeed closed", store->AddFeed(closed));
  CALL("AddFeed empty", store->AddFeed(Feed{}));
  Account account;
  CALL("FindAccount", store->FindAccount("alice", &account), account.publicKey + account.secret);
  CALL("FindAccount unknown", store->FindAccount("zed", &account));
  Feed found;
  CALL("FindFeed", store->FindFeed("closed", &found),
       found.title + std::to_string(found.defaults.maxBitrate));
  CALL("FindFeed unknown", store->FindFeed("none", &found));
  CALL("TouchDevice", store->TouchDevice("alice", "d1", 1000));
  CALL("TouchDevice d2", store->TouchDevice("alice", "d2", 1001));
  CALL("SetPushRegistration", store->SetPushRegistration("alice", "d1", "fcm", "tok", 1002));
  CALL("Subscribe", store->Subscribe("alice", "d1", "news"));
  CALL("Subscribe again", store->Subscribe("alice", "d1", "news"));
  CALL("Subscribe closed", store->Subscribe("alice", "d1", "closed"));
  CALL("Subscribe unknown", store->Subscribe("alice", "d1", "none"));
  CALL("Unsubscribe unknown", store->Unsubscribe("alice", "d1", "none"));
  CALL("Unsubscribe not subscribed", store->Unsubscribe("alice", "d2", "news"));
  CALL("SetRules", store->SetRules("alice", "d1", "news", {7, false, 64}));
  CALL("SetRules unknown feed", store->SetRules("alice", "d1", "none", {7, false, 64}));
  std::vector<std::string> feeds;
  CALL("Subscriptions", store->Subscriptions("alice", "d1", &feeds),
       std::to_string(feeds.size()) + (feeds.empty() ? "" : feeds[0]));

  Item item;
  item.uuid = "i1";
  item.feed = "news";
  item.createdMs = 5000;
  item.mediaPath = "a/b.mp4";
  item.metadata = {{"title", "One"}, {"mediaType", 0}};
  std::vector<PushNotice> notices;
  CALL("AddItem", store->AddItem(item, 6000, &notices),
       std::to_string(notices.size()) + (notices.empty() ? "" : Describe(notices[0], true)));
  CALL("AddItem again (replace)", store->AddItem(item, 6001, &notices),
       std::to_string(notices.size()));
  CALL("AddItem no replace", store->AddItem(item, 6002, nullptr, false));
  Item bad = item;
  bad.uuid = "";
  CALL("AddItem no uuid", store->AddItem(bad, 6003));
  bad = item;
  bad.user = "alice";
  CALL("AddItem feed and user", store->AddItem(bad, 6003));
  bad = item;
  bad.uuid = "i-unknown-feed";
  bad.feed = "none";
  CALL("AddItem unknown feed", store->AddItem(bad, 6003));
  Item direct;
  direct.uuid = "direct-1";
  direct.user = "alice";
  direct.createdMs = 5500;
  direct.metadata = {{"title", "For alice"}};
  notices.clear();
  CALL("AddItem direct", store->AddItem(direct, 6004, &notices), std::to_string(notices.size()));
  direct.uuid = "direct-2";
  direct.user = "nobody";
  CALL("AddItem direct unknown account", store->AddItem(direct, 6005));

  Item pub;
  pub.uuid = "p1";
  pub.feed = "news";
  pub.metadata = {{"title", "Published"}};
  pub.createdMs = 9000;  // the newest item either way (PostgreSQL stamps it with its clock)
  CALL("PublishItem no grant", store->PublishItem(pub, "alice", 7000, &notices));
  CALL("GrantPublisher unknown account", store->GrantPublisher("news", "zed"));
  CALL("GrantPublisher unknown feed", store->GrantPublisher("none", "alice"));
  CALL("GrantPublisher", store->GrantPublisher("news", "alice"));
  CALL("GrantPublisher all", store->GrantPublisher("", "bob"));
  notices.clear();
  CALL("PublishItem", store->PublishItem(pub, "alice", 7001, &notices),
       std::to_string(notices.size()) + (notices.empty() ? "" : Describe(notices[0], false)));
  CALL("PublishItem duplicate", store->PublishItem(pub, "bob", 7002, &notices));
  pub.uuid = "p2";
  pub.feed = "closed";
  CALL("PublishItem closed", store->PublishItem(pub, "bob", 7003, &notices));
  pub.feed = "none";
  CALL("PublishItem unknown feed", store->PublishItem(pub, "bob", 7003, &notices));
  pub.feed = "";
  pub.user = "alice";
  CALL("PublishItem direct for another", store->PublishItem(pub, "bob", 7003, &notices));
  std::vector<PublisherGrant> grants;
  CALL("ListPublishers news", store->ListPublishers("news", &grants),
       std::to_string(grants.size()) + (grants.empty() ? "" : grants[0].feed + grants[0].user));
  CALL("RevokePublisher", store->RevokePublisher("news", "alice"));
  CALL("RevokePublisher again", store->RevokePublisher("news", "alice"));
  CALL("ListPublishers", store->ListPublishers("", &grants), std::to_string(grants.size()));

  CatalogSnapshot snapshot;
  CALL("ReadCatalog", store->ReadCatalog("alice", "d1", std::nullopt, true, &snapshot),
       std::to_string(snapshot.feeds.size()) + "/" + std::to_string(snapshot.directItems.size()) +
           "/" + std::to_string(snapshot.rules["news"].maxAssets));
  CALL("ReadCatalog since", store->ReadCatalog("alice", "d1", 5000, false, &snapshot),
       std::to_string(snapshot.feeds.size()) + "/" + std::to_string(snapshot.directItems.size()));
  std::vector<Item> items;
  CALL("ListItems", store->ListItems("", "", 10, &items), std::to_string(items.size()));
  CALL("ListItems feed", store->ListItems("news", "", 1, &items),
       items.empty() ? "" : items[0].uuid);
  CALL("ListItems user", store->ListItems("", "alice", 10, &items),
       items.empty() ? "" : Describe(items[0], true));
  std::vector<AccountSummary> accounts;
  CALL("ListAccounts", store->ListAccounts(&accounts),
       accounts.empty() ? "" : accounts[0].user + std::to_string(accounts[0].devices));
  std::vector<FeedSummary> summaries;
  CALL("ListFeeds", store->ListFeeds(&summaries),
       summaries.size() < 2 ? ""
                            : summaries[1].feed.id + std::to_string(summaries[1].items) +
                                  std::to_string(summaries[1].subscribers));
  std::vector<DeviceSummary> devices;
  CALL("ListDevices", store->ListDevices(&devices),
       devices.size() < 2
           ? ""
           : devices[1].device + devices[1].pushService + std::to_string(devices[1].pendingPushes) +
                 std::to_string(devices[1].subscriptions.size()));
  PushNotice notice;
  CALL("AddPushNotice", store->AddPushNotice("alice", "d2", "i1", 8000, &notice),
       Describe(notice, true));
  CALL("AddPushNotice unknown device", store->AddPushNotice("alice", "d9", "i1", 8000, &notice));
  CALL("AddPushNotice unknown item", store->AddPushNotice("alice", "d2", "zz", 8000, &notice));
  std::vector<PushNotice> pushes;
  CALL("ListPushes d1 consume", store->ListPushes("alice", "d1", true, true, &pushes),
       std::to_string(pushes.size()));
  CALL("ListPushes pending", store->ListPushes("", "", true, false, &pushes),
       std::to_string(pushes.size()));
  CALL("ListPushes all", store->ListPushes("", "", false, false, &pushes),
       std::to_string(pushes.size()) + (pushes.empty() ? "" : Describe(pushes.back(), true)));
  int64_t changed = -1;
  CALL("SetRulesForSubscribers", store->SetRulesForSubscribers("news", {9, true, 1}, &changed),
       std::to_string(changed));
  CALL("SetRulesForSubscribers unknown", store->SetRulesForSubscribers("none", {}, &changed));
  CALL("RemoveItem", store->RemoveItem("i1"));
  CALL("RemoveItem again", store->RemoveItem("i1"));
  CALL("ListPushes after removal", store->ListPushes("", "", false, false, &pushes),
       std::to_string(pushes.size()));
  CALL("Unsubscribe", store->Unsubscribe("alice", "d1", "news"));
  CALL("Subscriptions after", store->Subscriptions("alice", "d1", &feeds),
       std::to_string(feeds.size()));
#undef CALL
  return log.str();
}

class PgParityTest : public PgTest {};

TEST_F(PgParityTest, EveryCallAnswersAsTheSqliteStoreDoes) {
  std::random_device rd;
  const auto dir = std::filesystem::temp_directory_path() /
                   ("zsm-parity-" + std::to_string(rd()) + std::to_string(rd()));
  std::string sqliteLog;
  {
    std::unique_ptr<SqliteStore> sqlite;
    ASSERT_TRUE(SqliteStore::Open(dir, &sqlite).ok());
    sqliteLog = Script(sqlite.get());
  }
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  auto pg = OpenStore();
  ASSERT_NE(pg, nullptr);
  const std::string pgLog = Script(pg.get());
  std::istringstream a(sqliteLog), b(pgLog);
  std::string la, lb;
  int lines = 0;
  while (std::getline(a, la)) {
    ASSERT_TRUE(static_cast<bool>(std::getline(b, lb)));
    EXPECT_EQ(lb, la);
    ++lines;
  }
  EXPECT_GT(lines, 60);
}

}  // namespace
}  // namespace zolvani::refserver::testing
