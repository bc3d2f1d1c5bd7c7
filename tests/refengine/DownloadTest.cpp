// Single-file downloads: integrity, resume, retry policy, refusals, offline
// pause and reconciliation after a restart.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "EngineTestSupport.h"
#include "MediaServer.h"

namespace zolvani::testing {
namespace {

using reference::AssetState;

class DownloadTest : public ::testing::Test {
 protected:
  void SetUp() override { engine = startEngine(testOptions(folder.path())); }
  std::string download(const std::string& path, AssetState expect, int timeoutMs = 10000) {
    auto asset = makeFileAsset(*engine, server.url(path), "id" + path);
    std::optional<Error> queueError{Error{}};
    engine->roles().downloadEngine->addToQueue(
        asset, kQueueIndexAppend, [&](bool, std::optional<Error> e) { queueError = e; });
    EXPECT_FALSE(queueError.has_value());
    auto info = waitForAsset(*engine, asset->uuid(), timeoutMs);
    EXPECT_EQ(info.state, expect) << path << " "
                                  << (info.lastError ? info.lastError->describe() : "");
    return asset->uuid();
  }
  TempFolder folder;
  MediaServer server;
  std::unique_ptr<reference::ReferenceEngine> engine;
};

TEST_F(DownloadTest, ACompleteDownloadHasEveryByteAndIsAnnounced) {
  auto center = std::make_shared<NotificationCenter>();
  std::atomic<int> finished{0};
  center->addObserver(std::string(kDownloadEngineDidFinishDownloadingAssetNotification), nullptr,
                      [&](const Notification&) { ++finished; });
  auto options = testOptions(folder.path());
  options.notificationCenter = center;
  engine.reset();
  engine = startEngine(options);
  std::atomic<int> progressCalls{0};
  engine->setProgressCallback([&](const reference::AssetInfo&) { ++progressCalls; });

  const std::string body = patternBytes(3 * 1024 * 1024 + 17);
  server.add("/a.mp4", body);
  const std::string uuid = download("/a.mp4", AssetState::kComplete);
  auto info = *engine->assetInfo(uuid);
  EXPECT_TRUE(readFile(info.localPath) == body);
  EXPECT_EQ(info.bytesDone, body.size());
  EXPECT_DOUBLE_EQ(info.fractionComplete, 1.0);
  ASSERT_TRUE(info.downloadCompleteDateTime.has_value());
  EXPECT_TRUE(info.localPath.string().rfind(folder.path().string(), 0) == 0);
  EXPECT_EQ(info.localPath.parent_path().filename(), uuid);  // named from the engine's UUID
  auto asset = engine->roles().assets->assetWithUUID(uuid, 0);
  EXPECT_TRUE(asset->downloadCompleteDateTime().has_value());
  EXPECT_GE(progressCalls.load(), 1);
  for (int i = 0; i < 200 && finished == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(finished.load(), 1);
  // Done assets leave the queue.
  EXPECT_TRUE(engine->roles().downloadEngine->assetsInQueue().empty());
}

TEST_F(DownloadTest, AnInterruptedBodyResumesWithRangeAndIfRange) {
  const std::string body = patternBytes(1 << 20, 2);
  MediaRoute route;
  route.body = std::make_shared<const std::string>(body);
  route.truncateAt = 300000;
  route.truncations = 1;
  route.chunk = 10000;
  server.set("/r.mp4", route);
  const std::string uuid = download("/r.mp4", AssetState::kComplete);
  EXPECT_TRUE(readFile(engine->assetInfo(uuid)->localPath) == body);
  auto requests = server.requestsFor("/r.mp4");
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].range, "");
  EXPECT_EQ(requests[1].range, "bytes=300000-");
  EXPECT_EQ(requests[1].ifRange, "\"v1\"");
}

TEST_F(DownloadTest, AChangedValidatorStartsAgainFromZero) {
  // The first response is cut short; before the retry the resource changes, so
  // the If-Range no longer matches and the whole new body comes back.
  MediaRoute route;
  route.body = std::make_shared<const std::string>(patternBytes(500000, 3));
  route.truncateAt = 100000;
  route.truncations = 1;
  route.chunk = 10000;
  route.pause = std::chrono::microseconds(2000);
  server.set("/c.mp4", route);
  auto asset = makeFileAsset(*engine, server.url("/c.mp4"), "c");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  for (int i = 0; i < 500 && server.requestsFor("/c.mp4").empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const std::string fresh = patternBytes(400000, 4);
  server.change("/c.mp4", fresh, "\"v2\"");
  auto info = waitForAsset(*engine, asset->uuid());
  ASSERT_EQ(info.state, AssetState::kComplete);
  const std::string got = readFile(info.localPath);
  EXPECT_EQ(got.size(), fresh.size());
  EXPECT_TRUE(got == fresh);
  auto requests = server.requestsFor("/c.mp4");
  ASSERT_GE(requests.size(), 2u);
  EXPECT_EQ(requests.back().ifRange, "\"v1\"");
}

TEST_F(DownloadTest, ARangeBeyondTheResourceStartsAgainFromZero) {
  // The resource shrinks under the same validator: the resumed range is not
  // satisfiable (416), so the partial file is dropped and the body fetched whole.
  MediaRoute route;
  route.body = std::make_shared<const std::string>(patternBytes(600000, 12));
  route.truncateAt = 300000;
  route.truncations = 1;
  route.chunk = 10000;
  route.pause = std::chrono::microseconds(2000);
  server.set("/shrink.mp4", route);
  auto asset = makeFileAsset(*engine, server.url("/shrink.mp4"), "shrink");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  for (int i = 0; i < 500 && server.requestsFor("/shrink.mp4").empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const std::string small = patternBytes(100000, 13);
  server.change("/shrink.mp4", small, "\"v1\"");
  auto info = waitForAsset(*engine, asset->uuid());
  ASSERT_EQ(info.state, AssetState::kComplete)
      << (info.lastError ? info.lastError->describe() : "");
  EXPECT_TRUE(readFile(info.localPath) == small);
  auto requests = server.requestsFor("/shrink.mp4");
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].range, "bytes=300000-");
  EXPECT_EQ(requests[2].range, "");
}

TEST_F(DownloadTest, RefusalsFailAtOnceOtherStatusesAreRetried) {
  struct Case {
    int status;
    int failures;  // -1: always
    AssetState expect;
    std::size_t requests;
    std::int64_t code;
  };
  const Case cases[] = {
      {401, -1, AssetState::kFailed, 1, reference::kEngineErrorHttpStatus},
      {403, -1, AssetState::kFailed, 1, reference::kEngineErrorHttpStatus},
      {404, -1, AssetState::kFailed, 1, reference::kEngineErrorHttpStatus},
      {410, -1, AssetState::kFailed, 1, reference::kEngineErrorHttpStatus},
      {500, 2, AssetState::kComplete, 3, 0},
  };
  int n = 0;
  for (const auto& c : cases) {
    const std::string path = "/s" + std::to_string(n++) + ".mp4";
    MediaRoute route;
    route.body = std::make_shared<const std::string>(patternBytes(20000, 5));
    route.status = c.status;
    route.failuresLeft = c.failures;
    server.set(path, route);
    const std::string uuid = download(path, c.expect);
    EXPECT_EQ(server.requestsFor(path).size(), c.requests) << c.status;
    auto info = engine->assetInfo(uuid);
    if (c.code) {
      ASSERT_TRUE(info->lastError.has_value()) << c.status;
      EXPECT_EQ(info->lastError->code, c.code);
      EXPECT_NE(info->lastError->localizedDescription().find(std::to_string(c.status)),
                std::string::npos);
    }
  }
}

TEST_F(DownloadTest, BytesArrivingResetTheAttemptCount) {
  // Four cut-short responses in a row exceed maxAttempts (3) only if the count
  // never resets; each one brought bytes, so the download still completes.
  const std::string body = patternBytes(400000, 6);
  MediaRoute route;
  route.body = std::make_shared<const std::string>(body);
  route.chunk = 10000;
  auto asset = makeFileAsset(*engine, server.url("/p.mp4"), "p");
  route.truncateAt = 50000;
  route.truncations = 4;
  server.set("/p.mp4", route);
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  auto info = waitForAsset(*engine, asset->uuid());
  ASSERT_EQ(info.state, AssetState::kComplete)
      << (info.lastError ? info.lastError->describe() : "");
  EXPECT_TRUE(readFile(info.localPath) == body);
  EXPECT_EQ(server.requestsFor("/p.mp4").size(), 5u);
}

TEST_F(DownloadTest, SmallTextWhereMediaWasExpectedFails) {
  server.add("/error.mp4", "<html>Sorry, not here</html>", "text/html");
  const std::string uuid = download("/error.mp4", AssetState::kFailed);
  auto info = engine->assetInfo(uuid);
  ASSERT_TRUE(info->lastError.has_value());
  EXPECT_EQ(info->lastError->code, reference::kEngineErrorNotMedia);
  EXPECT_TRUE(filesUnder(folder.path() / "media" / uuid).empty());
}

TEST_F(DownloadTest, TransfersWaitWhileOfflineAndRunWhenBack) {
  engine->setReachabilityOverride(false);
  EXPECT_EQ(engine->roles()
                .reachability->reachabilityForInternetConnection()
                ->currentReachabilityStatus(),
            0);
  server.add("/o.mp4", patternBytes(1000, 7));
  auto asset = makeFileAsset(*engine, server.url("/o.mp4"), "o");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(server.requestsFor("/o.mp4").empty());
  auto queue = engine->roles().downloadEngine->assetsInQueue();
  EXPECT_EQ(queue, std::vector<std::string>{asset->uuid()});
  engine->setReachabilityOverride(true);
  EXPECT_EQ(waitForAsset(*engine, asset->uuid()).state, AssetState::kComplete);
}

TEST_F(DownloadTest, GoingOfflineMidTransferPausesAndResumesWhereItStopped) {
  const std::string body = patternBytes(1024 * 1024, 11);
  MediaRoute route;
  route.body = std::make_shared<const std::string>(body);
  route.chunk = 16384;
  route.pause = std::chrono::microseconds(5000);
  server.set("/pause.mp4", route);
  auto asset = makeFileAsset(*engine, server.url("/pause.mp4"), "pause");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  for (int i = 0; i < 1000 && engine->assetInfo(asset->uuid())->bytesDone < 100000; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  engine->setReachabilityOverride(false);
  auto transferring = [&] {
    return !engine->roles().sessionHelper->zfm_processingAssets().empty();
  };
  for (int i = 0; i < 400 && transferring(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  auto paused = *engine->assetInfo(asset->uuid());
  EXPECT_EQ(paused.state, AssetState::kQueued);  // paused, not failed
  EXPECT_FALSE(transferring());
  const std::size_t requests = server.requestsFor("/pause.mp4").size();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(server.requestsFor("/pause.mp4").size(), requests);
  route.pause = std::chrono::microseconds(0);
  server.set("/pause.mp4", route);
  engine->setReachabilityOverride(true);
  auto info = waitForAsset(*engine, asset->uuid());
  ASSERT_EQ(info.state, AssetState::kComplete);
  EXPECT_TRUE(readFile(info.localPath) == body);
  EXPECT_NE(server.requestsFor("/pause.mp4").back().range, "");
}

TEST_F(DownloadTest, ARestartResumesTheTransferThatWasRunning) {
  const std::string body = patternBytes(2 * 1024 * 1024, 8);
  MediaRoute route;
  route.body = std::make_shared<const std::string>(body);
  route.chunk = 16384;
  route.pause = std::chrono::microseconds(6000);
  server.set("/slow.mp4", route);
  auto asset = makeFileAsset(*engine, server.url("/slow.mp4"), "slow");
  const std::string uuid = asset->uuid();
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  for (int i = 0; i < 1000 && engine->assetInfo(uuid)->bytesDone < 200000; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  engine.reset();  // the process ends mid-transfer
  asset.reset();
  route.pause = std::chrono::microseconds(0);
  server.set("/slow.mp4", route);
  engine = startEngine(testOptions(folder.path()));
  auto info = waitForAsset(*engine, uuid);
  ASSERT_EQ(info.state, AssetState::kComplete);
  EXPECT_TRUE(readFile(info.localPath) == body);
  auto requests = server.requestsFor("/slow.mp4");
  ASSERT_GE(requests.size(), 2u);
  EXPECT_NE(requests.back().range, "");  // resumed, not restarted
}

TEST_F(DownloadTest, ACompletedFileRemovedOutsideTheEngineCountsAsGone) {
  server.add("/g.mp4", patternBytes(5000, 9));
  const std::string uuid = download("/g.mp4", AssetState::kComplete);
  auto asset = engine->roles().assets->assetWithUUID(uuid, 0);
  auto ctx = engine->roles().utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto r = ctx->insertSubscriptionData();
    r->setUuid("feed");
    r->addFeedItemsObject(asset->assetDataFromAsset());
    ctx->save();
  });
  std::filesystem::remove(engine->assetInfo(uuid)->localPath);
  asset.reset();
  engine.reset();
  engine = startEngine(testOptions(folder.path()));
  auto roles = engine->roles();
  // Still tracked, so the library's cancellation pass finds it...
  auto tracked = [&] {
    std::size_t n = 0;
    roles.utilities->managedObjectContext()->performBlockAndWait([&] {
      auto all = roles.utilities->managedObjectContext()->executeFetchRequest(
          SubscriptionDataFetchRequest::all(), nullptr);
      n = all.at(0)->feedItemsSet().count();
    });
    return n;
  };
  EXPECT_EQ(tracked(), 1u);
  // ...but the asset answers as absent, and then leaves the feed.
  EXPECT_EQ(roles.assets->assetWithUUID(uuid, 0), nullptr);
  for (int i = 0; i < 200 && tracked() != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(tracked(), 0u);
  EXPECT_FALSE(engine->assetInfo(uuid).has_value());
}

}  // namespace
}  // namespace zolvani::testing
