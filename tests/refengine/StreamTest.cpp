// HLS video-on-demand downloads: variant choice, local playlist, keys, refusal
// of live streams.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "EngineTestSupport.h"
#include "MediaServer.h"

namespace zolvani::testing {
namespace {

using reference::AssetState;

class StreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    engine = startEngine(testOptions(folder.path()));
    server.add(
        "/vod/master.m3u8",
        "#EXTM3U\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=2000000,RESOLUTION=1280x720\nhigh/index.m3u8\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=500000,CODECS=\"avc1.4d401e,mp4a.40.2\"\nlow/index.m3u8\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=1000000\nmid/index.m3u8\n",
        "application/vnd.apple.mpegurl");
    for (std::string v : {"high", "low", "mid"}) {
      server.add("/vod/" + v + "/index.m3u8",
                 "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:4\n"
                 "#EXT-X-MAP:URI=\"init.mp4\"\n"
                 "#EXT-X-KEY:METHOD=AES-128,URI=\"/keys/k1\",IV=0x1\n"
                 "#EXTINF:4.0,\nseg0.m4s\n#EXTINF:4.0,\nseg1.m4s\n#EXTINF:2.0,\n/vod/" +
                     v + "/seg2.m4s\n#EXT-X-ENDLIST\n",
                 "application/vnd.apple.mpegurl");
      server.add("/vod/" + v + "/init.mp4", "init-" + v);
      for (int i = 0; i < 3; ++i)
        server.add("/vod/" + v + "/seg" + std::to_string(i) + ".m4s",
                   patternBytes(50000, 100 + i) + v);
    }
    server.add("/keys/k1", std::string(16, 'K'), "application/octet-stream");
    server.add("/live/index.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4.0,\nseg0.ts\n",
               "application/vnd.apple.mpegurl");
  }

  std::shared_ptr<ZolvaniAsset> makeStream(const std::string& path, std::int64_t maxBitrate,
                                           bool keys, std::atomic<int>* ready = nullptr,
                                           std::optional<Error>* parseError = nullptr) {
    return engine->roles().assets->assetWithAssetID(
        "stream" + path, "A stream", server.url(path), 0, keys, maxBitrate, std::nullopt,
        std::nullopt, -42.0, -42.0, -1, false, std::nullopt,
        [ready](std::shared_ptr<ZolvaniAsset>) {
          if (ready) ++*ready;
        },
        [parseError](std::shared_ptr<ZolvaniAsset>, std::optional<Error> e) {
          if (parseError) *parseError = e;
        });
  }

  reference::AssetInfo downloadStream(std::int64_t maxBitrate, bool keys) {
    std::atomic<int> ready{0};
    auto asset = makeStream("/vod/master.m3u8", maxBitrate, keys, &ready);
    for (int i = 0; i < 500 && ready == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(ready.load(), 1);
    engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
    return waitForAsset(*engine, asset->uuid());
  }

  TempFolder folder;
  MediaServer server;
  std::unique_ptr<reference::ReferenceEngine> engine;
};

TEST_F(StreamTest, ChoosesTheRichestVariantUnderTheCap) {
  struct Case {
    std::int64_t maxBitrate;
    std::int64_t chosen;
    const char* variant;
  };
  for (const Case& c : {Case{1500000, 1000000, "mid"}, Case{1000000, 1000000, "mid"},
                        Case{100000, 500000, "low"},  // nothing fits: the lowest
                        Case{0, 2000000, "high"}}) {  // no cap
    auto info = downloadStream(c.maxBitrate, true);
    ASSERT_EQ(info.state, AssetState::kComplete)
        << (info.lastError ? info.lastError->describe() : "");
    EXPECT_EQ(info.chosenBandwidth, c.chosen) << c.maxBitrate;
    const auto dir = info.localPath.parent_path();
    EXPECT_TRUE(readFile(dir / "map-00000.mp4") == std::string("init-") + c.variant);
  }
}

TEST_F(StreamTest, TheLocalPlaylistPointsAtLocalFiles) {
  auto info = downloadStream(1500000, true);
  ASSERT_EQ(info.state, AssetState::kComplete);
  EXPECT_DOUBLE_EQ(info.fractionComplete, 1.0);
  EXPECT_EQ(info.segmentsDone, 5);  // map, key and three segments
  EXPECT_EQ(info.segmentsTotal, 5);
  const auto dir = info.localPath.parent_path();
  const std::string local = readFile(info.localPath);
  EXPECT_EQ(local,
            "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:4\n"
            "#EXT-X-MAP:URI=\"map-00000.mp4\"\n"
            "#EXT-X-KEY:METHOD=AES-128,URI=\"key-00001.ts\",IV=0x1\n"
            "#EXTINF:4.0,\nsegment-00002.m4s\n#EXTINF:4.0,\nsegment-00003.m4s\n#EXTINF:2.0,\n"
            "segment-00004.m4s\n"
            "#EXT-X-ENDLIST\n");
  EXPECT_TRUE(readFile(dir / "key-00001.ts") == std::string(16, 'K'));
  EXPECT_TRUE(readFile(dir / "segment-00004.m4s") == patternBytes(50000, 102) + "mid");
  EXPECT_EQ(info.bytesDone, 3 * 50003u + 8 + 16);
}

TEST_F(StreamTest, KeysLeftOutStayRemoteAndAbsolute) {
  auto info = downloadStream(1500000, false);
  ASSERT_EQ(info.state, AssetState::kComplete);
  const std::string local = readFile(info.localPath);
  EXPECT_NE(local.find("URI=\"" + server.url("/keys/k1") + "\""), std::string::npos) << local;
  EXPECT_TRUE(server.requestsFor("/keys/k1").empty());
}

TEST_F(StreamTest, ALivePlaylistIsRefusedWithAClearError) {
  std::atomic<int> ready{0};
  std::optional<Error> parseError;
  auto asset = makeStream("/live/index.m3u8", 0, true, &ready, &parseError);
  auto info = waitForAsset(*engine, asset->uuid(), 5000);
  EXPECT_EQ(info.state, AssetState::kFailed);
  ASSERT_TRUE(info.lastError.has_value());
  EXPECT_EQ(info.lastError->code, reference::kEngineErrorLivePlaylist);
  EXPECT_NE(info.lastError->localizedDescription().find("live"), std::string::npos);
  for (int i = 0; i < 200 && !parseError; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_TRUE(parseError.has_value());
  EXPECT_EQ(ready.load(), 0);  // never offered for queueing
}

}  // namespace
}  // namespace zolvani::testing
