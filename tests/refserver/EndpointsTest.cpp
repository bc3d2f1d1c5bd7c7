// What the endpoints do once a request is authenticated: subscriptions, catalog
// filtering and rules, and items announced by a device.
#include <sqlite3.h>

#include <set>
#include <string>
#include <vector>

#include "RefServerFixture.h"

namespace zolvani::refserver::testing {
namespace {

using nlohmann::json;

class EndpointsTest : public RefServerFixture {
 protected:
  RawReply Call(const std::string& endpoint, json members = json::object(),
                const std::string& device = "device-1") {
    // Identical requests within one second carry identical signatures and would be
    // refused as replays; a device's clock moves on between its calls.
    nowMs_ += 1000;
    SignedRequest r;
    r.endpoint = endpoint;
    r.body = std::move(members);
    r.device = device;
    return Send(r);
  }

  std::vector<std::string> Subscriptions(const std::string& device = "device-1") {
    const RawReply reply = Call("subscriptions", json::object(), device);
    EXPECT_EQ(reply.code(), 0) << reply.body;
    return reply.json.value("subscriptions", std::vector<std::string>());
  }

  void AddFeedItem(const std::string& feed, const std::string& uuid, int64_t createdMs,
                   int mediaType = 0, const std::string& media = "files/clip.mp4") {
    Item item;
    item.uuid = uuid;
    item.feed = feed;
    item.createdMs = createdMs;
    item.mediaPath = media;
    item.metadata = {{"title", uuid}, {"mediaType", mediaType}};
    ASSERT_TRUE(server_->store()->AddItem(item, nowMs_).ok());
  }

  // Feed identifier -> its items' remoteUUIDs, as the catalog lists them.
  static std::map<std::string, std::vector<std::string>> FeedItems(const json& catalog) {
    std::map<std::string, std::vector<std::string>> out;
    for (const auto& feed : catalog["collections"]) {
      auto& list = out[feed["remoteUUID"].get<std::string>()];
      for (const auto& item : feed["contentItems"]) list.push_back(item["remoteUUID"]);
    }
    return out;
  }
};

TEST_F(EndpointsTest, SubscribeUnsubscribeAndListRoundTrip) {
  EXPECT_TRUE(Subscriptions().empty());
  EXPECT_EQ(Call("subscribe", {{"feed", "sports"}}).code(), 0);
  EXPECT_EQ(Call("subscribe", {{"feed", "news"}}).code(), 0);
  EXPECT_EQ(Call("subscribe", {{"feed", "news"}}).code(), 0) << "subscribing twice is harmless";
  EXPECT_EQ(Subscriptions(), (std::vector<std::string>{"news", "sports"}));
  EXPECT_TRUE(Subscriptions("device-2").empty()) << "subscriptions belong to one device";

  const RawReply unknown = Call("subscribe", {{"feed", "weather"}});
  EXPECT_EQ(unknown.status, 200);
  EXPECT_EQ(unknown.code(), 2);
  EXPECT_EQ(unknown.json["response_header"]["response_string"], "Unknown feed: weather");
  EXPECT_EQ(Call("subscribe", {{"feed", "locked"}}).code(), 3);

  EXPECT_EQ(Call("unsubscribe", {{"feed", "news"}}).code(), 0);
  EXPECT_EQ(Subscriptions(), (std::vector<std::string>{"sports"}));
  EXPECT_EQ(Call("unsubscribe", {{"feed", "news"}}).code(), 0) << "already gone is not an error";
  EXPECT_EQ(Call("unsubscribe", {{"feed", "weather"}}).code(), 2);
}

TEST_F(EndpointsTest, CatalogFiltersBySinceAndSubscriptionAndReportsRules) {
  const int64_t t = kNowMs;
  AddFeedItem("news", "news-1", t - 3000 * 1000);
  AddFeedItem("news", "news-2", t - 2000 * 1000);
  AddFeedItem("sports", "sports-1", t - 1000 * 1000);
  AddFeedItem("locked", "locked-1", t - 500 * 1000);
  ASSERT_EQ(Call("subscribe", {{"feed", "news"}}).code(), 0);

  struct Case {
    const char* name;
    json filter;
    std::map<std::string, std::vector<std::string>> expected;
  };
  const std::vector<Case> cases = {
      {"subscribed, everything", {{"subscribed", true}}, {{"news", {"news-1", "news-2"}}}},
      {"subscribed, since between",
       {{"subscribed", true}, {"since", t - 2500 * 1000}},
       {{"news", {"news-2"}}}},
      {"since equal to newest is not newer",
       {{"subscribed", true}, {"since", t - 2000 * 1000}},
       {{"news", {}}}},
      {"all feeds",
       {{"subscribed", false}, {"since", t - 2500 * 1000}},
       {{"news", {"news-2"}}, {"sports", {"sports-1"}}, {"locked", {"locked-1"}}}},
      {"no subscribed flag means subscribed", json::object(), {{"news", {"news-1", "news-2"}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const RawReply reply = Call("catalog", {{"filter", c.filter}});
    ASSERT_EQ(reply.code(), 0) << reply.body;
    EXPECT_EQ(FeedItems(reply.json), c.expected);
    EXPECT_EQ(reply.json["subscriptions"], json::array({"news"}));
    EXPECT_TRUE(reply.json["contentItems"].is_array());
  }

  const RawReply reply = Call("catalog", {{"filter", {{"subscribed", false}}}});
  const json& catalog = reply.json;
  EXPECT_EQ(catalog["subscription_rules"],
            json({{"news", {{"max_assets", 5}, {"auto_delete", true}, {"max_bitrate", 0}}}}));
  // Newest item at t - 500 s: the device is told the second before it.
  EXPECT_EQ(catalog["last_updated"], t - 501 * 1000);
  for (const auto& feed : catalog["collections"]) {
    EXPECT_EQ(feed["subscribable"], feed["remoteUUID"] != "locked");
    for (const auto& item : feed["contentItems"]) {
      EXPECT_TRUE(item["created"].is_number_integer());
      EXPECT_EQ(item["metadata"]["downloadURL"],
                "http://" + HostHeader() + "/media/files/clip.mp4");
    }
  }

  // An administrator's rule change shows in the next catalog; unsubscribing drops it.
  ASSERT_TRUE(server_->store()->SetRules("alice", "device-1", "news", {2, false, 500000}).ok());
  EXPECT_EQ(Call("catalog", {{"filter", {{"subscribed", true}}}}).json["subscription_rules"],
            json({{"news", {{"max_assets", 2}, {"auto_delete", false}, {"max_bitrate", 500000}}}}));
  ASSERT_EQ(Call("subscribe", {{"feed", "news"}}).code(), 0);
  EXPECT_EQ(Call("catalog", {{"filter", {{"subscribed", true}}}})
                .json["subscription_rules"]["news"]["max_assets"],
            2)
      << "subscribing again keeps the device's rules";
  ASSERT_EQ(Call("unsubscribe", {{"feed", "news"}}).code(), 0);
  const RawReply after = Call("catalog", {{"filter", {{"subscribed", true}}}});
  EXPECT_TRUE(after.json["collections"].empty());
  EXPECT_TRUE(after.json["subscription_rules"].empty());
}

TEST_F(EndpointsTest, HlsItemCarriesItsMediaTypeWhereDevicesReadIt) {
  AddFeedItem("sports", "show-1", kNowMs - 1000, 3, "hls/show/master.m3u8");
  ASSERT_EQ(Call("subscribe", {{"feed", "sports"}}).code(), 0);
  const json item = Call("catalog", {{"filter", {{"subscribed", true}}}})
                        .json["collections"][0]["contentItems"][0];
  EXPECT_EQ(item["metadata"]["mediaType"], 3);
  EXPECT_EQ(item["metadata.mediaType"], 3);
  EXPECT_EQ(item["metadata"]["downloadURL"],
            "http://" + HostHeader() + "/media/hls/show/master.m3u8");
}

TEST_F(EndpointsTest, AnnouncedItemsReachTheRightDevicesWithPushNotices) {
  // Two devices of alice, one of bob; device-1 and bob's device follow "news".
  ASSERT_EQ(
      Call("validate", {{"push_registration", {{"service", "apns"}, {"token", "tok-1"}}}}).code(),
      0);
  ASSERT_EQ(Call("subscribe", {{"feed", "news"}}).code(), 0);
  ASSERT_EQ(Call("validate", json::object(), "device-2").code(), 0);
  SignedRequest bob;
  bob.user = "bob";
  bob.key = "bob-key";
  bob.secret = "bob-secret";
  bob.device = "bob-device";
  bob.endpoint = "subscribe";
  bob.body = {{"feed", "news"}};
  ASSERT_EQ(Send(bob).code(), 0);

  // alice publishes "news"; her devices may add direct items for themselves.
  ASSERT_TRUE(server_->store()->GrantPublisher("news", "alice").ok());
  nowMs_ += 5000;
  const RawReply direct =
      Call("addItemAndNotifyDevice",
           {{"body", {{"uuid", "D-1"}, {"title", "Direct"}, {"downloadURL", "http://cdn/x.m3u8"}}}},
           "device-2");
  ASSERT_EQ(direct.code(), 0) << direct.body;
  EXPECT_EQ(direct.json["notified_devices"], 2) << "both of alice's devices";
  const RawReply toFeed =
      Call("addItemAndNotifyDevice",
           {{"body", {{"uuid", "F-1"}, {"feed", "news"}, {"streamURL", "http://cdn/y.mp4"}}}});
  ASSERT_EQ(toFeed.code(), 0) << toFeed.body;
  EXPECT_EQ(toFeed.json["notified_devices"], 2) << "the feed's two subscribers";

  const RawReply again = Call("addItemAndNotifyDevice",
                              {{"body", {{"uuid", "F-1"}, {"downloadURL", "http://cdn/z.mp4"}}}});
  EXPECT_EQ(again.code(), 5) << "an item cannot be taken over";
  EXPECT_EQ(Call("addItemAndNotifyDevice",
                 {{"body", {{"uuid", "G-1"}, {"feed", "weather"}, {"downloadURL", "http://x"}}}})
                .code(),
            2);

  std::vector<PushNotice> notices;
  ASSERT_TRUE(server_->store()->ListPushes("", "", true, true, &notices).ok());
  std::multiset<std::string> seen;
  for (const auto& n : notices)
    seen.insert(n.user + "/" + n.device + "/" + n.itemUuid + "/" + n.token);
  EXPECT_EQ(seen, (std::multiset<std::string>{"alice/device-1/D-1/tok-1", "alice/device-2/D-1/",
                                              "alice/device-1/F-1/tok-1", "bob/bob-device/F-1/"}));
  ASSERT_TRUE(server_->store()->ListPushes("", "", true, false, &notices).ok());
  EXPECT_TRUE(notices.empty()) << "consumed notices are no longer pending";

  // The direct item is in alice's catalogs only, as an HLS item from its URL.
  const json aliceItems =
      Call("catalog", {{"filter", {{"subscribed", true}}}}).json["contentItems"];
  ASSERT_EQ(aliceItems.size(), 1u);
  EXPECT_EQ(aliceItems[0]["remoteUUID"], "D-1");
  EXPECT_EQ(aliceItems[0]["metadata"]["mediaType"], 3);
  EXPECT_EQ(aliceItems[0]["metadata"]["downloadURL"], "http://cdn/x.m3u8");
  bob.endpoint = "catalog";
  bob.body = {{"filter", {{"subscribed", true}}}};
  const json bobCatalog = Send(bob).json;
  EXPECT_TRUE(bobCatalog["contentItems"].empty());
  EXPECT_EQ(FeedItems(bobCatalog),
            (std::map<std::string, std::vector<std::string>>{{"news", {"F-1"}}}));
}

TEST_F(EndpointsTest, AStoredItemBeyondTheMetadataLimitsReachesCatalogsTrimmed) {
  // A row stored before the limits existed: its metadata nests 70,000 levels deep,
  // which a device would read as no catalog at all (and which would overflow the
  // stack of a request thread copying it).
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_ / "server.sqlite").c_str(), &db), SQLITE_OK);
  sqlite3_busy_timeout(db, 5000);
  const std::string deep = "{\"title\":\"Old\",\"downloadURL\":\"http://cdn.test/old.mp4\","
                           "\"mediaType\":0,\"duration\":" +
                           std::string(70000, '[') + std::string(70000, ']') +
                           ",\"desc\":\"kept\"}";
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db,
                               "INSERT INTO items (uuid, feed, user, created_ms, media_path, "
                               "metadata) VALUES ('old-1', NULL, 'alice', ?1, '', ?2)",
                               -1, &st, nullptr),
            SQLITE_OK);
  sqlite3_bind_int64(st, 1, kNowMs - 1000);
  sqlite3_bind_text(st, 2, deep.data(), static_cast<int>(deep.size()), SQLITE_TRANSIENT);
  EXPECT_EQ(sqlite3_step(st), SQLITE_DONE);
  sqlite3_finalize(st);
  sqlite3_close(db);
  AddFeedItem("news", "news-1", kNowMs - 500);
  ASSERT_EQ(Call("subscribe", {{"feed", "news"}}).code(), 0);

  const RawReply reply = Call("catalog", {{"filter", {{"subscribed", true}}}});
  ASSERT_EQ(reply.code(), 0) << reply.body.substr(0, 200);
  EXPECT_LT(reply.body.size(), 4096u);
  ASSERT_EQ(reply.json["contentItems"].size(), 1u);
  EXPECT_EQ(reply.json["contentItems"][0]["metadata"],
            json({{"title", "Old"},
                  {"downloadURL", "http://cdn.test/old.mp4"},
                  {"mediaType", 0},
                  {"desc", "kept"}}));
  EXPECT_EQ(FeedItems(reply.json),
            (std::map<std::string, std::vector<std::string>>{{"news", {"news-1"}}}));
}

}  // namespace
}  // namespace zolvani::refserver::testing
