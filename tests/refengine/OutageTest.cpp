// Transient failures that outlast the retries: the asset stays queued, waits
// longer each time, keeps its bytes and resumes where it stopped; only
// permanent refusals fail it.
#include <gtest/gtest.h>

#include <thread>

#include "EngineTestSupport.h"
#include "MediaServer.h"

namespace zolvani::testing {
namespace {

using reference::AssetState;

class OutageTest : public ::testing::Test {
 protected:
  void SetUp() override { engine = startEngine(testOptions(folder.path())); }

  // Waits until `condition` holds (bounded); the last answer.
  template <typename F>
  bool eventually(F condition, int timeoutMs = 5000) {
    for (int i = 0; i < timeoutMs / 2; ++i) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return condition();
  }

  TempFolder folder;
  MediaServer server;
  std::unique_ptr<reference::ReferenceEngine> engine;
};

TEST_F(OutageTest, AnOutageLongerThanTheRetriesResumesWithoutFetchingTwice) {
  const std::string body = patternBytes(600000, 21);
  MediaRoute route;
  route.body = std::make_shared<const std::string>(body);
  route.chunk = 20000;
  route.pause = std::chrono::microseconds(2000);
  route.truncateAt = 200000;
  route.truncations = 1;
  server.set("/big.mp4", route);
  auto asset = makeFileAsset(*engine, server.url("/big.mp4"), "big");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  ASSERT_TRUE(eventually([&] { return !server.requestsFor("/big.mp4").empty(); }));
  // The server goes down mid-body for three rounds of retries (maxAttempts is 3).
  MediaRoute down = route;
  down.truncations = 0;
  down.pause = {};
  down.status = 503;
  down.failuresLeft = 9;
  server.set("/big.mp4", down);
  // Meanwhile the asset waits in the queue with the reason, never failed.
  ASSERT_TRUE(eventually([&] {
    auto info = engine->assetInfo(asset->uuid());
    return info->state == AssetState::kQueued && info->lastError.has_value();
  }));
  EXPECT_EQ(engine->assetInfo(asset->uuid())->lastError->code, reference::kEngineErrorHttpStatus);
  EXPECT_EQ(engine->roles().downloadEngine->assetsInQueue(),
            std::vector<std::string>{asset->uuid()});
  auto info = waitForAsset(*engine, asset->uuid(), 15000);
  ASSERT_EQ(info.state, AssetState::kComplete)
      << (info.lastError ? info.lastError->describe() : "");
  EXPECT_TRUE(readFile(info.localPath) == body);
  EXPECT_FALSE(info.lastError.has_value());
  const auto requests = server.requestsFor("/big.mp4");
  ASSERT_EQ(requests.size(), 11u);  // the cut one, nine refusals, the rest
  EXPECT_EQ(requests.front().range, "");
  for (std::size_t i = 1; i < requests.size(); ++i)
    EXPECT_EQ(requests[i].range, "bytes=200000-") << i;  // nothing fetched twice
}

TEST_F(OutageTest, AnUnreachableServerKeepsTheAssetQueuedWithGrowingWaits) {
  // Nothing listens on port 1 of loopback: every connection is refused.
  auto asset = makeFileAsset(*engine, "http://127.0.0.1:1/none.mp4", "none");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  auto info = engine->assetInfo(asset->uuid());
  EXPECT_EQ(info->state, AssetState::kQueued);
  ASSERT_TRUE(info->lastError.has_value());
  EXPECT_EQ(info->lastError->code, reference::kEngineErrorTransfer);
  // Deleting the waiting asset works as for any queued one.
  std::optional<bool> deleted;
  asset->deleteAssetWithReason(0, [&](bool ok, std::optional<Error>) { deleted = ok; });
  ASSERT_TRUE(eventually([&] { return deleted.has_value(); }));
  EXPECT_TRUE(*deleted);
  EXPECT_TRUE(engine->roles().downloadEngine->assetsInQueue().empty());
}

TEST_F(OutageTest, SegmentFailuresAreTransientOrPermanentByStatus) {
  struct Case {
    int status;
    int failures;  // -1: always
    AssetState expect;
  };
  int n = 0;
  for (const Case c : {Case{404, -1, AssetState::kFailed}, Case{500, 7, AssetState::kComplete}}) {
    SCOPED_TRACE(c.status);
    const std::string dir = "/s" + std::to_string(n++) + "/";
    server.add(dir + "index.m3u8",
               "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\na.ts\n#EXTINF:1,\nb.ts\n"
               "#EXTINF:1,\nc.ts\n#EXT-X-ENDLIST\n",
               "application/vnd.apple.mpegurl");
    server.add(dir + "a.ts", patternBytes(1000, 1));
    server.add(dir + "c.ts", patternBytes(1000, 3));
    MediaRoute failing;
    failing.body = std::make_shared<const std::string>(patternBytes(1000, 2));
    failing.status = c.status;
    failing.failuresLeft = c.failures;
    server.set(dir + "b.ts", failing);
    auto asset = engine->roles().assets->assetWithAssetID(
        "seg" + dir, "Segments", server.url(dir + "index.m3u8"), 0, false, 0, std::nullopt,
        std::nullopt, -42.0, -42.0, -1, false, std::nullopt, nullptr, nullptr);
    engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
    auto info = waitForAsset(*engine, asset->uuid(), 15000);
    EXPECT_EQ(info.state, c.expect) << (info.lastError ? info.lastError->describe() : "");
    EXPECT_EQ(server.requestsFor(dir + "a.ts").size(), 1u);  // kept across the waits
    if (c.expect == AssetState::kComplete) {
      EXPECT_EQ(server.requestsFor(dir + "b.ts").size(), 8u);
      EXPECT_TRUE(readFile(info.localPath.parent_path() / "segment-00001.ts") ==
                  patternBytes(1000, 2));
    } else {
      ASSERT_TRUE(info.lastError.has_value());
      EXPECT_EQ(info.lastError->code, reference::kEngineErrorHttpStatus);
      EXPECT_TRUE(server.requestsFor(dir + "c.ts").empty());
    }
  }
}

}  // namespace
}  // namespace zolvani::testing
