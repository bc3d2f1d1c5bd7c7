// The engine's smaller roles: device identifier, logger, analytics, secure
// clock, reachability, keep-alive, event handlers, start-up and deletion.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <nlohmann/json.hpp>

#include "EngineTestSupport.h"
#include "MediaServer.h"

namespace zolvani::testing {
namespace {

TEST(ServicesTest, TheDeviceIdentifierIsStableAcrossRestartsAndDiffersBetweenFolders) {
  TempFolder a, b;
  std::string first;
  {
    auto engine = startEngine(testOptions(a.path()));
    first = engine->roles().uuid->UUID();
  }
  auto again = startEngine(testOptions(a.path()));
  EXPECT_EQ(again->roles().uuid->UUID(), first);
  EXPECT_EQ(first.size(), 36u);
  auto other = startEngine(testOptions(b.path()));
  EXPECT_NE(other->roles().uuid->UUID(), first);
}

TEST(ServicesTest, LogLinesKeepTheirLevelAndTheFilterDropsTheRest) {
  TempFolder folder;
  auto options = testOptions(folder.path());
  options.logLevelLimit = 2;
  {
    auto engine = startEngine(options);
    auto roles = engine->roles();
    roles.logger->addDebugEvent("an error line", 0);
    roles.logger->addDebugEvent("a warning line", 1);
    roles.logger->addDebugEvent("a notable line", 2);
    roles.logger->addDebugEvent("an information line", 4);
    roles.logger->logEvent(11, "feed-1", Value(std::int64_t{kLoggerDataValueInvalid}));
    roles.logger->logEvent(12, "feed \"2\"", Value("x"));
  }
  const std::string log = readFile(folder.path() / "engine.log");
  EXPECT_NE(log.find("[error] [L0] an error line"), std::string::npos) << log;
  EXPECT_NE(log.find("[warning] [L1] a warning line"), std::string::npos);
  EXPECT_NE(log.find("[L2] a notable line"), std::string::npos);
  EXPECT_EQ(log.find("an information line"), std::string::npos);
  std::istringstream events(readFile(folder.path() / "events.jsonl"));
  std::string line;
  std::vector<nlohmann::json> parsed;
  while (std::getline(events, line)) parsed.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(parsed.size(), 2u);
  EXPECT_EQ(parsed[0]["event"], 11);
  EXPECT_EQ(parsed[0]["file"], "feed-1");
  EXPECT_EQ(parsed[0]["data"], -1);
  EXPECT_EQ(parsed[1]["file"], "feed \"2\"");
}

TEST(ServicesTest, TheSecureClockFollowsTheServersDate) {
  TempFolder folder;
  auto engine = startEngine(testOptions(folder.path()));
  auto clock = engine->roles().secureClock;
  EXPECT_NEAR(clock->date().secondsSince1970, Date::now().secondsSince1970, 5);
  engine->observeServerDate(Date(Date::now().secondsSince1970 + 3600));
  EXPECT_NEAR(clock->date().secondsSince1970, Date::now().secondsSince1970 + 3600, 5);
}

TEST(ServicesTest, ReachabilityHonoursTheOverrideAndALoopbackServer) {
  TempFolder folder;
  auto options = testOptions(folder.path());
  options.reachabilityOverride.reset();
  options.keelhallURL = "http://127.0.0.1:8080/api";
  options.user = "someone";
  auto engine = startEngine(options);
  auto reach = engine->roles().reachability->reachabilityForInternetConnection();
  EXPECT_NE(reach->currentReachabilityStatus(), 0);  // the server is on this machine
  engine->setReachabilityOverride(false);
  EXPECT_EQ(reach->currentReachabilityStatus(), 0);
  engine->setReachabilityOverride(true);
  EXPECT_NE(reach->currentReachabilityStatus(), 0);
}

TEST(ServicesTest, StartupKeepAliveAndEventHandlers) {
  TempFolder folder;
  auto engine = startEngine(testOptions(folder.path()));
  auto roles = engine->roles();
  EXPECT_FALSE(roles.downloadEngine->started());
  EXPECT_EQ(roles.downloadEngine->user(), "");
  bool completed = false;
  roles.downloadEngine->startupWithKeelhall("http://127.0.0.1:9/base", "ann", "ext", "priv", "pub",
                                            false,
                                            [&](bool ok, std::optional<Error>) { completed = ok; });
  EXPECT_TRUE(completed);
  EXPECT_TRUE(roles.downloadEngine->started());
  EXPECT_EQ(roles.downloadEngine->user(), "ann");
  EXPECT_EQ(roles.downloadEngine->keelhallURL(), "http://127.0.0.1:9/base");
  EXPECT_EQ(roles.downloadEngine->secret(), "priv");
  EXPECT_EQ(roles.downloadEngine->key(), "pub");

  roles.appPersistence->startBackgroundKeepaliveForTask("SubscriptionProcessing");
  roles.appPersistence->startBackgroundKeepaliveForTask("SubscriptionProcessing");
  roles.appPersistence->stopBackgroundKeepaliveForTask("SubscriptionProcessing");
  EXPECT_EQ(engine->keepAliveTasks(),
            (std::vector<std::pair<std::string, int>>{{"SubscriptionProcessing", 1}}));
  roles.appPersistence->stopBackgroundKeepaliveForTask("SubscriptionProcessing");
  EXPECT_TRUE(engine->keepAliveTasks().empty());

  struct Handler : ZolvaniEventHandlerDelegate {
    int pushes = 0, fetches = 0, wakes = 0;
    bool canProcessRemotePushNotice(const Value::Map& p) override { return p.count("zsm") > 0; }
    void processRemotePushNotice(const Value::Map&,
                                 std::function<void(BackgroundFetchResult)> c) override {
      ++pushes;
      c(kBackgroundFetchResultNewData);
    }
    bool processBackgroundSessionWake(const std::string& id, std::function<void()>) override {
      ++wakes;
      return id == "mine";
    }
    void processFetchWithCompletionHandler(std::function<void(BackgroundFetchResult)> c) override {
      ++fetches;
      c(kBackgroundFetchResultNoData);
    }
  };
  auto handler = std::make_shared<Handler>();
  roles.eventHandler->registerHandler(handler);
  int results = 0;
  EXPECT_EQ(
      engine->deliverRemotePush({{"zsm", Value(1)}}, [&](BackgroundFetchResult) { ++results; }), 1);
  EXPECT_EQ(
      engine->deliverRemotePush({{"other", Value(1)}}, [&](BackgroundFetchResult) { ++results; }),
      0);
  EXPECT_EQ(engine->deliverBackgroundFetch([&](BackgroundFetchResult) { ++results; }), 1);
  EXPECT_EQ(engine->deliverSessionWake("mine", [] {}), 1);
  EXPECT_EQ(engine->deliverSessionWake("theirs", [] {}), 0);
  EXPECT_EQ(handler->pushes, 1);
  EXPECT_EQ(handler->fetches, 1);
  EXPECT_EQ(handler->wakes, 2);
  EXPECT_EQ(results, 2);
  // The registry holds handlers weakly: a gone manager gets nothing.
  handler.reset();
  EXPECT_EQ(engine->deliverBackgroundFetch([&](BackgroundFetchResult) { ++results; }), 0);
}

TEST(ServicesTest, DeletionRemovesFilesRecordsAndAnnouncesIt) {
  TempFolder folder;
  auto center = std::make_shared<NotificationCenter>();
  std::atomic<int> deleted{0};
  center->addObserver(std::string(kEngineContentDeletedNotification), nullptr,
                      [&](const Notification&) { ++deleted; });
  auto options = testOptions(folder.path());
  options.notificationCenter = center;
  auto engine = startEngine(options);
  MediaServer server;
  server.add("/d.mp4", patternBytes(10000, 1));
  auto asset = makeFileAsset(*engine, server.url("/d.mp4"), "d");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  auto info = waitForAsset(*engine, asset->uuid());
  ASSERT_EQ(info.state, reference::AssetState::kComplete);
  ASSERT_TRUE(std::filesystem::exists(info.localPath));
  std::optional<bool> ok;
  asset->deleteAssetWithReason(0, [&](bool r, std::optional<Error>) { ok = r; });
  EXPECT_EQ(ok, std::optional<bool>(true));
  EXPECT_FALSE(std::filesystem::exists(info.localPath.parent_path()));
  EXPECT_FALSE(engine->assetInfo(asset->uuid()).has_value());
  for (int i = 0; i < 200 && deleted == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(deleted.load(), 1);
  // Gone after a restart too.
  const std::string uuid = asset->uuid();
  engine.reset();
  engine = startEngine(testOptions(folder.path()));
  EXPECT_EQ(engine->roles().assets->assetWithUUID(uuid, 0), nullptr);
}

// A deletion asked for inside an admission (a sync trimming a full feed) runs
// once the admission ends: a deletion commits, and may wait for a transfer
// that itself waits to commit.
TEST(ServicesTest, ADeletionInsideAnAdmissionRunsOnceItEnds) {
  TempFolder folder;
  auto engine = startEngine(testOptions(folder.path()));
  auto asset = makeFileAsset(*engine, "http://127.0.0.1:1/x.mp4", "x");
  std::optional<bool> ok;
  engine->roles().utilities->performAdmission([&] {
    asset->deleteAssetWithReason(2, [&](bool r, std::optional<Error>) { ok = r; });
    EXPECT_FALSE(ok.has_value());
    EXPECT_NE(engine->roles().assets->assetWithUUID(asset->uuid(), 0), nullptr);
  });
  EXPECT_EQ(ok, std::optional<bool>(true));
  EXPECT_EQ(engine->roles().assets->assetWithUUID(asset->uuid(), 0), nullptr);
}

TEST(ServicesTest, EveryFactoryFieldSurvivesARestart) {
  TempFolder folder;
  std::string uuid;
  {
    auto engine = startEngine(testOptions(folder.path()));
    auto asset = engine->roles().assets->assetWithAssetID(
        "id-1", "A title", "http://127.0.0.1:1/m.m3u8", 3, true, 123456, Date(1000), Date(2000),
        -42.0, 7.5, -1, true, Value::Map{{"k", Value("v")}}, nullptr, nullptr);
    asset->_setCreationDate(Date(500));
    uuid = asset->uuid();
  }
  auto engine = startEngine(testOptions(folder.path()));
  auto asset = engine->roles().assets->assetWithUUID(uuid, 0);
  ASSERT_NE(asset, nullptr);
  EXPECT_EQ(asset->assetID(), "id-1");
  EXPECT_EQ(asset->description(), "A title");
  auto data = asset->assetDataFromAsset();
  EXPECT_EQ(data->valueForKey("manifestURL"), Value("http://127.0.0.1:1/m.m3u8"));
  EXPECT_EQ(data->valueForKey("remoteURL"), Value());
  EXPECT_EQ(data->valueForKey("publishDate"), Value(Date(1000)));
  EXPECT_EQ(data->valueForKey("expiryDate"), Value(Date(2000)));
  EXPECT_EQ(data->valueForKey(ZolvaniAssetDataAttributes[9]), Value(Date(500)));
  EXPECT_EQ(data->valueForKey("downloadComplete"), Value(false));
  EXPECT_EQ(data->valueForKey("uuid"), Value(uuid));
  EXPECT_EQ(engine->roles().assets->assetWithAssetID("id-1", 0), asset);
}

}  // namespace
}  // namespace zolvani::testing

namespace zolvani::testing {
namespace {

// Between its creation and its ready callback an asset is neither queued nor
// transferring; it must still count as in progress, or a clean running in that
// window would delete it as a cancelled download.
TEST(ServicesTest, AnAssetBeingPreparedCountsAsProcessed) {
  TempFolder folder;
  auto engine = startEngine(testOptions(folder.path()));
  auto roles = engine->roles();
  std::atomic<bool> release{false}, inCallback{false};
  auto asset = roles.assets->assetWithRemoteURL(
      "http://127.0.0.1:9/none", "prepared", "Prepared", std::nullopt, std::nullopt, -42.0, -42.0,
      -1, false, std::nullopt,
      [&](std::shared_ptr<ZolvaniAsset>) {
        inCallback = true;
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      },
      nullptr);
  ASSERT_NE(asset, nullptr);
  auto isProcessed = [&] {
    for (const auto& a : roles.sessionHelper->zfm_processingAssets())
      if (a->uuid() == asset->uuid()) return true;
    return false;
  };
  EXPECT_TRUE(isProcessed());
  for (int i = 0; i < 2000 && !inCallback; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(isProcessed());
  release = true;
  bool left = false;
  for (int i = 0; i < 2000 && !left; ++i) {
    left = !isProcessed();
    if (!left) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(left);  // once prepared (and never queued) it is no longer in progress
}

}  // namespace
}  // namespace zolvani::testing
