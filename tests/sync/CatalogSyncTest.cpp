// Whole syncs over a scripted server: admission, deferral, trimming, the
// last-sync rule, overlapping syncs, failures and hostile catalogs.
#include <gtest/gtest.h>

#include <future>
#include <set>
#include <thread>

#include "sync/CatalogSync.h"
#include "sync/SyncHarness.h"

namespace zolvani::testing {
namespace {

class CatalogSyncTest : public ::testing::Test {
 protected:
  CatalogSyncTest() { prepareForSync(bed); }

  SyncResult sync(std::optional<HttpReply> reply, bool force = false) {
    if (reply) bed.http->enqueue(std::move(*reply));
    SyncResult result;
    bed.manager->syncSubscriptionsWithKeelhallNowUsingForce(force, recordInto(result));
    EXPECT_TRUE(bed.settle());
    return result;
  }
  double lastSync() {
    return bed.manager->lastSubscriptionSyncTime().value_or(Date(-1)).secondsSince1970;
  }
  nlohmann::json sentFilter(std::size_t request) {
    return nlohmann::json::parse(bed.http->requests().at(request).body).at("filter");
  }

  TestBed bed;
  NotificationRecorder notes{
      *bed.center,
      {kSubscriptionManagerAssetAddedNotification, kSubscriptionManagerAssetDeferredNotification,
       kSubscriptionManagerAssetDeletedNotification,
       kSubscriptionManagerDidFinishSyncNotification}};
};

std::vector<std::string> names(const std::vector<Notification>& notes) {
  std::vector<std::string> out;
  for (const auto& n : notes) out.push_back(n.name);
  return out;
}

// The last-sync log lines give dates in UTC on a 12-hour clock; midnight and
// noon are 12, and a date before 1970 or with a fraction falls in the second it
// lies in.
TEST(CatalogSyncDateTest, LogLinesGiveTheDateInUtcOnATwelveHourClock) {
  struct Case {
    double seconds;
    const char* text;
  } cases[] = {
      {0, "Jan 1, 1970 at 12:00:00 AM"},          {43200, "Jan 1, 1970 at 12:00:00 PM"},
      {1750000000, "Jun 15, 2025 at 3:06:40 PM"}, {1763726400, "Nov 21, 2025 at 12:00:00 PM"},
      {1.9, "Jan 1, 1970 at 12:00:01 AM"},        {-1, "Dec 31, 1969 at 11:59:59 PM"},
      {-0.5, "Dec 31, 1969 at 11:59:59 PM"},      {3e11, "300000000000 seconds since 1970"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(CatalogSync::formatDate(Date(c.seconds)), c.text) << c.seconds;
}

TEST_F(CatalogSyncTest, FirstSyncAdmitsDefersAndTrimsThenASecondSeesOnlyNewerItems) {
  const std::int64_t t = static_cast<std::int64_t>(kLastSync);
  nlohmann::json first = catalog(
      {feed("A", {item("A5", t + 5), item("A1", t + 1), item("A4", t + 4), item("A2", t + 2),
                  item("A3", t + 3)}),
       feed("B", {item("B2", t + 20, 3), item("B1", t + 10)}), feed("C", {item("C1", t + 1)})},
      {"A", "B"}, {{"A", rule(3, false)}, {"B", rule(-1, false, 900)}});
  first["last_updated"] = 1750000000;
  SyncResult r1 = sync(FakeHttpTransport::ok(first.dump()));

  ASSERT_TRUE(r1.called);
  EXPECT_TRUE(r1.success);
  EXPECT_EQ(r1.subscriptions, (Value::Array{Value("A"), Value("B")}));
  EXPECT_FALSE(r1.error);
  EXPECT_EQ(bed.systemLog, (std::vector<std::string>{
                               "Updating rules for feed(A): Max(3) Autodelete:(NO) Max Bitrate(0)",
                               "Updating rules for feed(B): Max(-1) Autodelete:(NO) Max "
                               "Bitrate(900)"}));
  // Oldest first; the two newest of A were over its limit and went unseen.
  EXPECT_EQ(createdIDs(*bed.engine), (std::vector<std::string>{"A1", "A2", "A3", "B1", "B2"}));
  EXPECT_EQ(queuedIDs(*bed.engine), (std::vector<std::string>{"A1", "A2", "A3"}));
  EXPECT_EQ(bed.engine->countLogged(
                "[Line 888] Received more items in the push for this feed than is allowed."),
            2u);
  std::vector<std::string> dropped;
  for (const auto& line : bed.engine->logLines())
    if (line.message.find("[Line 888]") != std::string::npos) {
      EXPECT_EQ(line.level, 2);
      dropped.push_back(line.message.find("= A5;") != std::string::npos   ? "A5"
                        : line.message.find("= A4;") != std::string::npos ? "A4"
                                                                          : "?");
    }
  EXPECT_EQ(dropped, (std::vector<std::string>{"A5", "A4"}));  // from the newest end
  EXPECT_EQ(bed.manager->itemsInTrackingFeed("A").size(), 3u);
  EXPECT_EQ(bed.manager->deferredEpisodes(), (std::vector<std::string>{"B1", "B2"}));
  EXPECT_EQ(names(notes.all()),
            (std::vector<std::string>{std::string(kSubscriptionManagerAssetDeferredNotification),
                                      std::string(kSubscriptionManagerAssetAddedNotification),
                                      std::string(kSubscriptionManagerDidFinishSyncNotification)}));
  EXPECT_EQ(notifiedIDs(notes.all()[0]), (std::vector<std::string>{"B1", "B2"}));
  EXPECT_EQ(notifiedIDs(notes.all()[1]), (std::vector<std::string>{"A1", "A2", "A3"}));
  EXPECT_EQ(lastSync(), 1750000000.0);
  EXPECT_EQ(sentFilter(0), (nlohmann::json{{"since", 1700000000000LL}, {"subscribed", true}}));
  EXPECT_EQ(bed.manager->status(), kZSM_Receiving);

  // The second sync: one known item, one older than the last sync, one new
  // that finds A full; "last_updated" in milliseconds.
  nlohmann::json second =
      catalog({feed("A", {item("A3", 1755000000), item("A0", 1740000000), item("A6", 1760000000)})},
              {"A", "B"});
  second["last_updated"] = 1770000000000LL;
  bed.engine->clearLog();
  SyncResult r2 = sync(FakeHttpTransport::ok(second.dump()));
  ASSERT_TRUE(r2.success);
  EXPECT_EQ(sentFilter(1).at("since"), 1750000000000LL);
  EXPECT_EQ(createdIDs(*bed.engine).back(), "A6");
  EXPECT_EQ(createdIDs(*bed.engine).size(), 6u);
  EXPECT_EQ(queuedIDs(*bed.engine).size(), 3u);
  EXPECT_TRUE(
      bed.engine->logged("-[ZolvaniSubscriptionManager logString:atLevel:] [Line 1581] Not adding "
                         "asset to feed.  The asset is older "
                         "than the last sync time on this device.",
                         1));
  EXPECT_EQ(bed.engine->countLogged(
                "Content item with this asset ID already exists in the SDK.  Ignoring this item."),
            1u);
  EXPECT_EQ(notifiedIDs(notes.named(kSubscriptionManagerAssetDeferredNotification).back()),
            (std::vector<std::string>{"A6"}));
  EXPECT_EQ(lastSync(), 1770000000.0);
}

// Each asset a sync makes for a feed is made and recorded in the feed (tracked
// or deferred) inside one admission of its own, so an engine that commits in
// batches lands the two together or neither.
TEST_F(CatalogSyncTest, EachFeedItemIsMadeAndRecordedInsideOneAdmission) {
  const std::int64_t t = static_cast<std::int64_t>(kLastSync);
  nlohmann::json reply =
      catalog({feed("A", {item("A1", t + 1), item("A2", t + 2), item("A3", t + 3)}),
               feed("B", {item("B1", t + 10)})},
              {"A", "B"}, {{"A", rule(2, true)}, {"B", rule(-1, false)}});
  reply["contentItems"] = nlohmann::json::array({item("D1", t + 5)});
  ASSERT_TRUE(sync(FakeHttpTransport::ok(reply.dump())).success);

  const std::vector<std::uint64_t> saves = bed.engine->saveAdmissions();
  std::set<std::uint64_t> admissions;
  std::vector<std::string> admitted;
  for (const auto& asset : bed.engine->createdAssets()) {
    const std::uint64_t admission = asset->creation().admission;
    if (asset->assetID() == "D1") {
      EXPECT_EQ(admission, 0u) << "a direct item belongs to no feed";
      continue;
    }
    admitted.push_back(asset->assetID());
    EXPECT_NE(admission, 0u) << asset->assetID() << " was made outside an admission";
    EXPECT_TRUE(admissions.insert(admission).second) << asset->assetID() << " shares one";
    EXPECT_NE(std::find(saves.begin(), saves.end(), admission), saves.end())
        << asset->assetID() << " was not recorded in its feed inside its admission";
  }
  EXPECT_EQ(admitted, (std::vector<std::string>{"A1", "A2", "B1"}));
  EXPECT_EQ(bed.manager->deferredEpisodes(), (std::vector<std::string>{"B1"}));
}

TEST_F(CatalogSyncTest, AForcedSyncOverlapsARunningOneAndSharesItsBackgroundTask) {
  std::promise<void> gate1, gate2;
  std::shared_future<void> open1 = gate1.get_future().share(), open2 = gate2.get_future().share();
  // Shared with the transport: a request that a loaded machine sends late
  // still counts into something alive.
  auto counter = std::make_shared<std::atomic<int>>(0);
  std::atomic<int>& sent = *counter;
  const std::string reply = catalog(nlohmann::json::array(), {"A"}).dump();
  // Each request waits at the gate of the sync that sent it. The two syncs
  // send from the processing pool, whose threads promise no order, so the
  // forced sync starts only once the first one's request is held: the
  // request that arrives first is then the first sync's.
  bed.http->setFallback([counter, open1, open2, reply](const HttpRequest&) {
    ((*counter)++ == 0 ? open1 : open2).wait();
    return FakeHttpTransport::ok(reply);
  });
  auto arrived = [&](int requests) {
    for (int i = 0; i < 1500 && sent.load() < requests; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return sent.load() == requests;
  };
  // However the test ends, the held requests are let go and their syncs run
  // out while the test bed is still there.
  struct ReleaseGates {
    std::promise<void>* gates[2];
    TestBed* bed;
    ~ReleaseGates() {
      for (auto* gate : gates) {
        try {
          gate->set_value();
        } catch (const std::future_error&) {  // already open
        }
      }
      bed->settle();
    }
  } release{{&gate1, &gate2}, &bed};
  SyncResult first, refused, forced;
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(recordInto(first));
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(recordInto(refused));
  EXPECT_TRUE(refused.called);  // at once, on the caller's thread
  EXPECT_FALSE(refused.success);
  EXPECT_FALSE(refused.error);
  EXPECT_EQ(bed.engine->countLogged("Not syncing now.  Already in sync."), 1u);
  ASSERT_TRUE(arrived(1));

  bed.manager->syncSubscriptionsWithKeelhallNowUsingForce(true, recordInto(forced));
  ASSERT_TRUE(arrived(2));
  EXPECT_EQ(bed.application->begun(), 1);
  EXPECT_EQ(bed.application->openTasks(), (std::vector<std::string>{"ZolvaniSubscriptionSync"}));

  gate1.set_value();
  ASSERT_TRUE(bed.mainQueue->runUntil([&] { return first.called; }, std::chrono::seconds(5)));
  EXPECT_TRUE(first.success);
  EXPECT_TRUE(bed.manager->inSync());  // the forced one is still out
  EXPECT_EQ(bed.application->openTasks().size(), 1u);

  gate2.set_value();
  ASSERT_TRUE(bed.mainQueue->runUntil([&] { return forced.called; }, std::chrono::seconds(5)));
  bed.settle();
  EXPECT_TRUE(forced.success);
  EXPECT_FALSE(bed.manager->inSync());
  EXPECT_TRUE(bed.application->openTasks().empty());
  EXPECT_EQ(bed.application->ended(), 1);
  EXPECT_EQ(bed.http->requests().size(), 2u);
}

TEST_F(CatalogSyncTest, DirectItemsAloneFinishWithoutWaitingForThem) {
  bed.engine->addAsset("D0", Date(1));
  nlohmann::json body = {
      {"response_header", {{"response_code", 0}}},
      {"subscriptions", nlohmann::json::array()},
      {"contentItems", {item("D2", 1700000200), item("D1", 1700000100), item("D0", 1700000000)}}};
  SyncResult r = sync(FakeHttpTransport::ok(body.dump()));
  ASSERT_TRUE(r.success);
  EXPECT_EQ(r.subscriptions, Value::Array{});
  EXPECT_EQ(bed.engine->countLogged(
                "Server response was successful, but there was no new subscriptions to process."),
            1u);
  EXPECT_EQ(bed.engine->countLogged("Found 3 new direct assets in Keelhall sync."), 1u);
  // Direct items skip the date test and the feed store; known ones are skipped.
  EXPECT_EQ(queuedIDs(*bed.engine), (std::vector<std::string>{"D1", "D2"}));
  ASSERT_EQ(notes.count(kSubscriptionManagerAssetAddedNotification), 1u);
  EXPECT_EQ(notifiedIDs(notes.named(kSubscriptionManagerAssetAddedNotification)[0]),
            (std::vector<std::string>{"D1", "D2"}));
  EXPECT_EQ(lastSync(), kNow);
}

TEST_F(CatalogSyncTest, FailuresCompleteWithTheirErrorAndReleaseTheSync) {
  struct Case {
    const char* name;
    HttpReply reply;
    std::int64_t code;
    std::string description;
    std::int64_t status;
    std::string logLine;
  };
  HttpReply transport;
  transport.error = Error::make("Transport", 7, "connection refused");
  HttpReply nothing;
  const Case cases[] = {
      {"transport", transport, 7, "connection refused", kZSM_Errors, "Error syncing with server: "},
      {"no response", nothing, -3, "Unknown server errors.  Received nil HTTP response.",
       kZSM_Errors, "Received nil response from server."},
      {"403", FakeHttpTransport::status(403), -1,
       "Failed to authenticate with server using provided credentials.", kZSM_Errors,
       "Received unexpected response code from the server: 403"},
      {"404", FakeHttpTransport::status(404), -2, "Server endpoint not found at the provided URL.",
       kZSM_Errors, "Received unexpected response code from the server: 404"},
      {"401", FakeHttpTransport::status(401), -3, "Unknown internal server error.", kZSM_Errors,
       "Received unexpected response code from the server: 401"},
      {"server code",
       FakeHttpTransport::ok(
           R"({"response_header":{"response_code":17,"response_string":"bad key"}})"),
       17, "bad key", kZSM_Receiving,
       "Received internal error code from server in header response: bad key(17)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    bed.manager->reportStatus(kZSM_Started);
    SyncResult r = sync(c.reply);
    ASSERT_TRUE(r.called);
    EXPECT_FALSE(r.success);
    ASSERT_TRUE(r.error);
    EXPECT_EQ(r.error->code, c.code);
    EXPECT_EQ(r.error->localizedDescription(), c.description);
    EXPECT_EQ(bed.manager->status(), c.status);
    EXPECT_GE(bed.engine->countLogged(c.logLine), 1u);
    EXPECT_FALSE(bed.manager->inSync());
    EXPECT_TRUE(bed.application->openTasks().empty());
    EXPECT_EQ(lastSync(), kLastSync);
  }
  EXPECT_EQ(notes.count(kSubscriptionManagerDidFinishSyncNotification), 0u);
}

TEST_F(CatalogSyncTest, RefusalsBeforeAnyRequest) {
  // Offline: the error arrives later, on the main queue.
  bed.engine->reachabilityStatus = 0;
  SyncResult offline;
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(recordInto(offline));
  EXPECT_FALSE(offline.called);
  bed.settle();
  ASSERT_TRUE(offline.error);
  EXPECT_EQ(offline.error->code, -5);
  EXPECT_EQ(offline.error->domain, "ZolvaniSubscriptionManager");
  EXPECT_EQ(bed.manager->status(), kZSM_Offline);
  bed.engine->reachabilityStatus = 1;

  // No engine user: refused at once, without an error.
  bed.engine->setCredentials("http://127.0.0.1:1", "", "secret", "public-key");
  SyncResult noUser;
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(recordInto(noUser));
  EXPECT_TRUE(noUser.called && !noUser.success && !noUser.error);
  EXPECT_FALSE(bed.manager->inSync());
  EXPECT_TRUE(bed.http->requests().empty());

  // No device identifier: refused with -3, and the sync stays marked as
  // running until a later reply brings the count back to zero.
  bed.engine->setCredentials("http://127.0.0.1:1", "user", "secret", "public-key");
  bed.engine->setDeviceUUID("");
  SyncResult noHeader;
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(recordInto(noHeader));
  ASSERT_TRUE(noHeader.called && noHeader.error);
  EXPECT_EQ(noHeader.error->code, -3);
  EXPECT_EQ(noHeader.error->localizedDescription(),
            "Request header was nil. Cannot complete subscription sync request.");
  EXPECT_TRUE(bed.manager->inSync());
  EXPECT_EQ(bed.application->openTasks().size(), 1u);
  bed.engine->setDeviceUUID("DEVICE-0001");
  SyncResult forced = sync(FakeHttpTransport::ok("{}"), /*force=*/true);
  EXPECT_TRUE(forced.success);
  EXPECT_TRUE(bed.manager->inSync());  // one sync is still counted
  EXPECT_EQ(bed.application->openTasks().size(), 1u);
  EXPECT_TRUE(bed.http->requests().size() == 1u);
}

TEST_F(CatalogSyncTest, TheFilterCarriesWhatEachOperationAsksFor) {
  bed.http->setFallback([](const HttpRequest&) { return FakeHttpTransport::ok("{}"); });
  bed.manager->syncSubscriptionsWithKeelhallNowForDataSince(std::nullopt, false, false, nullptr);
  bed.settle();
  bed.manager->syncSubscriptionsWithKeelhallNowForDataSince(Date(1.5), true, false, nullptr);
  bed.settle();
  bed.defaults->setDate(LastSyncKey, Date(1600000000.25));
  bed.manager->syncSubscriptionsWithKeelhallNowForDataSince(Date(1.5), false,
                                                            nullptr);  // the date is ignored
  bed.settle();
  EXPECT_EQ(sentFilter(0), (nlohmann::json{{"subscribed", false}}));
  EXPECT_EQ(sentFilter(1), (nlohmann::json{{"since", 1500}, {"subscribed", true}}));
  EXPECT_EQ(sentFilter(2), (nlohmann::json{{"since", 1600000000250LL}, {"subscribed", false}}));
  const HttpRequest request = bed.http->requests().at(0);
  EXPECT_NE(request.url.find("/Subscriptions/client/catalog?sig="), std::string::npos);
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_TRUE(nlohmann::json::parse(request.body).contains("request_header"));
}

TEST_F(CatalogSyncTest, HostileCatalogsNeitherCrashNorLoseTheRest) {
  const std::int64_t t = static_cast<std::int64_t>(kLastSync);
  auto good = [&](nlohmann::json extraFeed) {
    nlohmann::json c = catalog({feed("A", {item("ok", t + 1)}), std::move(extraFeed)}, {"A", "B"});
    return c;
  };
  nlohmann::json wrongTypes =
      good(feed("B", {nlohmann::json{{"remoteUUID", 5}, {"created", "soon"}},
                      nlohmann::json{{"remoteUUID", "s"},
                                     {"created", "1700000002"},
                                     {"metadata", {{"downloadURL", "u"}}}},
                      nlohmann::json{{"remoteUUID", "n"}, {"metadata", "flat"}}, nullptr, 3}));
  wrongTypes["subscription_rules"] = {{"A", "no rule"},
                                      {"B", {{"max_assets", "2"}, {"auto_delete", "yes"}}}};
  wrongTypes["last_updated"] = "1750000000";
  nlohmann::json objectCollections =
      catalog(nlohmann::json{{"A", feed("A", {item("x", t + 1)})}}, {"A"});
  nlohmann::json numericSubscriptions = catalog({feed("A", {item("ok", t + 1)})}, {});
  numericSubscriptions["subscriptions"] = {1, nlohmann::json::array({"A"}), "A"};
  numericSubscriptions["contentItems"] = {{"not", "an array"}};

  struct Case {
    const char* name;
    std::string body;
    std::vector<std::string> created;
    double lastSync;
  };
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const std::string deepInside =
      R"({"collections":)" + std::string(600, '[') + std::string(600, ']') + "}";
  std::string huge =
      R"({"subscriptions":["A"],"padding":")" + std::string(50u << 20, 'x') + R"("})";
  // One item carries a member nested 100,000 levels deep; the member goes, the
  // item and its neighbours stay.
  nlohmann::json withDeepMember = catalog(
      {feed("A", {item("before", t + 1), item("carrier", t + 2), item("after", t + 3)})}, {"A"});
  withDeepMember["collections"][0]["contentItems"][1]["extra"] = "@deep@";
  std::string deepMember = withDeepMember.dump();
  deepMember.replace(deepMember.find(R"("@deep@")"), 8,
                     std::string(100000, '[') + std::string(100000, ']'));
  const Case cases[] = {
      {"not JSON", "<html>oops</html>", {}, kNow},
      {"empty", "", {}, kNow},
      {"deep nesting", deep, {}, kNow},
      {"deep nesting inside", deepInside, {}, kNow},
      {"50 MB", huge, {}, kNow},
      {"wrong types", wrongTypes.dump(), {"ok", "s"}, 1750000000.0},
      {"collections as an object", objectCollections.dump(), {}, kNow},
      {"odd subscriptions", numericSubscriptions.dump(), {"ok"}, kNow},
      {"one member nested too deep", deepMember, {"before", "carrier", "after"}, kNow},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TestBed fresh;
    prepareForSync(fresh);
    fresh.http->enqueue(FakeHttpTransport::ok(c.body));
    SyncResult r;
    fresh.manager->syncSubscriptionsWithKeelhallNowOnComplete(recordInto(r));
    ASSERT_TRUE(fresh.settle(std::chrono::seconds(20)));
    ASSERT_TRUE(r.called);
    EXPECT_TRUE(r.success);
    EXPECT_EQ(createdIDs(*fresh.engine), c.created);
    EXPECT_EQ(fresh.manager->lastSubscriptionSyncTime().value_or(Date()).secondsSince1970,
              c.lastSync);
    if (c.body == deepMember) {
      bool named = false;
      for (const auto& line : fresh.engine->logLines())
        named |= line.level == 0 && line.message.find("item carrier") != std::string::npos;
      EXPECT_TRUE(named) << "no level-0 line names the item that lost a member";
    }
  }
}

// A host's own data source: derived from the default one to add metadata, and
// told about every asset before it is queued.
class HostSource : public ZolvaniSubscriptionDefaultDataSource {
 public:
  explicit HostSource(const DataSourceServices& services)
      : ZolvaniSubscriptionDefaultDataSource(services) {
    ++instances;
  }
  Value::Map lookupMetadataForAssetID(const std::string& assetID, Value::Map more) override {
    more[std::string(SubscriptionAssetDataTitleKey)] = Value("Host title " + assetID);
    more.erase(std::string(SubscriptionAssetDataMaximumBitrateKey));
    return more;
  }
  void willAddAsset(const std::shared_ptr<ZolvaniAsset>& asset) override {
    std::lock_guard lock(mutex);
    told.push_back(asset->assetID());
  }
  static inline std::atomic<int> instances{0};
  static inline std::mutex mutex;
  static inline std::vector<std::string> told;
};

// A host source that does not derive from the default one.
class PlainSource : public ZolvaniSubscriptionDataSource {
 public:
  explicit PlainSource(const DataSourceServices&) {}
  void initWithSubscriptions(const nlohmann::json&) override { feeds_ = true; }
  void initWithAssets(const nlohmann::json&) override {}
  Value process() override {
    Value::Map data{
        {std::string(SubscriptionAssetDataAssetIDKey), Value("plain")},
        {std::string(SubscriptionAssetDataDownloadURLKey), Value("http://cdn.test/plain")},
        {std::string(SubscriptionAssetDataMediaTypeKey), Value(3)}};
    if (!feeds_) return Value(Value::Array{Value(data)});
    return Value(Value::Map{{"A", Value(Value::Array{Value(data), Value("not an item")})}});
  }

 private:
  bool feeds_ = false;
};

TEST_F(CatalogSyncTest, HostDataSourcesGetAFreshInstancePerBatch) {
  bed.manager->registerDataSource<HostSource>();
  bed.manager->setMaxItems(0, false, 64000, "m1");  // the cap the manifest now gets, by asset ID
  const std::int64_t t = static_cast<std::int64_t>(kLastSync);
  nlohmann::json body = catalog({feed("A", {item("m1", t + 1, 3), item("s1", t + 2, 1)})}, {"A"},
                                {{"A", rule(0, false)}});
  body["contentItems"] = {item("d1", t + 3)};
  SyncResult r = sync(FakeHttpTransport::ok(body.dump()));
  ASSERT_TRUE(r.success);
  EXPECT_EQ(HostSource::instances.load(), 2);
  std::vector<std::string> told = HostSource::told;
  std::sort(told.begin(), told.end());
  EXPECT_EQ(told, (std::vector<std::string>{"d1", "m1", "s1"}));
  for (const auto& a : bed.engine->createdAssets()) {
    EXPECT_EQ(a->creation().description, "Host title " + a->assetID());
    if (a->assetID() == "m1") {
      EXPECT_EQ(a->creation().maximumBitrate, 64000);
    }
  }

  // A source of its own kind: no hooks, and its items need no created date.
  TestBed other;
  prepareForSync(other);
  other.manager->registerDataSource<PlainSource>();
  other.defaults->removeObjectForKey(LastSyncKey);
  nlohmann::json plain = catalog({feed("A", {})}, {"A"}, {{"A", rule(0, false)}});
  other.http->enqueue(FakeHttpTransport::ok(plain.dump()));
  SyncResult r2;
  other.manager->syncSubscriptionsWithKeelhallNowOnComplete(recordInto(r2));
  ASSERT_TRUE(other.settle());
  EXPECT_TRUE(r2.success);
  EXPECT_EQ(queuedIDs(*other.engine), (std::vector<std::string>{"plain"}));
}

}  // namespace
}  // namespace zolvani::testing
