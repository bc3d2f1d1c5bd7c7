// Hostile input and resource limits: nothing is written outside the data
// folder, only http and https are fetched, and a disk that is (or becomes) too
// full fails the asset cleanly.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <set>

#include "EngineTestSupport.h"
#include "MediaServer.h"

namespace zolvani::testing {
namespace {

using reference::AssetState;

TEST(SafetyTest, AHostileCatalogWritesNothingOutsideTheDataFolder) {
  TempFolder root;
  const auto data = root.path() / "data";
  auto engine = startEngine(testOptions(data));
  MediaServer server;
  server.add("/escape.mp4", patternBytes(4000, 1));
  server.add("/a/b/escape.mp4", patternBytes(4000, 2));
  server.add("/s/master.m3u8",
             "#EXTM3U\n#EXT-X-TARGETDURATION:4\n"
             "#EXT-X-KEY:METHOD=AES-128,URI=\"../../../../../../tmp/key\"\n"
             "#EXTINF:4,\n../../../../../../../escape.mp4\n"
             "#EXTINF:4,\n/a/b/escape.mp4\n#EXT-X-ENDLIST\n",
             "application/vnd.apple.mpegurl");
  server.add("/tmp/key", std::string(16, 'k'), "application/octet-stream");
  server.add("/f/master.m3u8", "#EXTM3U\n#EXTINF:4,\nfile:///etc/hostname\n#EXT-X-ENDLIST\n",
             "application/vnd.apple.mpegurl");

  struct Case {
    std::string url, assetID, title;
    bool manifest;
    AssetState expect;
    std::int64_t code;
  };
  const std::string outside = (root.path() / "outside").string();
  const Case cases[] = {
      {server.url("/a/../../../escape.mp4"), "../../../escape", "../../../../title", false,
       AssetState::kComplete, 0},
      {server.url("/a/b/escape.mp4"), outside, outside, false, AssetState::kComplete, 0},
      {server.url("/a/b/escape.mp4"), "/etc/passwd", "/", false, AssetState::kComplete, 0},
      {"file://" + outside, "file", "file", false, AssetState::kFailed,
       reference::kEngineErrorBadURL},
      {"ftp://127.0.0.1/escape.mp4", "ftp", "ftp", false, AssetState::kFailed,
       reference::kEngineErrorBadURL},
      {"/etc/passwd", "bare", "bare", false, AssetState::kFailed, reference::kEngineErrorBadURL},
      {server.url("/s/master.m3u8"), "../stream", "../../stream", true, AssetState::kComplete, 0},
      {server.url("/f/master.m3u8"), "filestream", "x", true, AssetState::kFailed,
       reference::kEngineErrorBadURL},
  };
  auto roles = engine->roles();
  std::set<std::string> uuids;
  for (const auto& c : cases) {
    std::shared_ptr<ZolvaniAsset> asset =
        c.manifest ? roles.assets->assetWithAssetID(c.assetID, c.title, c.url, 0, true, 0,
                                                    std::nullopt, std::nullopt, -42.0, -42.0, -1,
                                                    false, std::nullopt, nullptr, nullptr)
                   : makeFileAsset(*engine, c.url, c.assetID);
    ASSERT_NE(asset, nullptr);
    uuids.insert(asset->uuid());
    roles.downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
    auto info = waitForAsset(*engine, asset->uuid());
    EXPECT_EQ(info.state, c.expect) << c.url;
    if (c.code) {
      ASSERT_TRUE(info.lastError.has_value()) << c.url;
      EXPECT_EQ(info.lastError->code, c.code) << c.url;
    }
  }
  for (const auto& file : filesUnder(root.path())) {
    const auto rel = std::filesystem::relative(file, data);
    ASSERT_FALSE(rel.empty() || *rel.begin() == "..") << file;
    if (*rel.begin() == "media") {
      // Every media file sits in a folder named after one of the engine's UUIDs.
      auto it = rel.begin();
      ++it;
      EXPECT_TRUE(uuids.count(it->string())) << file;
    }
  }
  EXPECT_FALSE(std::filesystem::exists(root.path() / "outside"));
}

TEST(SafetyTest, TooLittleFreeSpaceRefusesTheTransferBeforeWriting) {
  TempFolder folder;
  auto options = testOptions(folder.path());
  options.freeSpaceMargin = std::uint64_t{1} << 62;  // more than any disk has
  auto engine = startEngine(options);
  MediaServer server;
  server.add("/big.mp4", patternBytes(100000, 3));
  auto asset = makeFileAsset(*engine, server.url("/big.mp4"), "big");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  auto info = waitForAsset(*engine, asset->uuid());
  EXPECT_EQ(info.state, AssetState::kFailed);
  ASSERT_TRUE(info.lastError.has_value());
  EXPECT_EQ(info.lastError->code, reference::kEngineErrorNoSpace);
  EXPECT_NE(info.lastError->localizedDescription().find("free space"), std::string::npos);
  EXPECT_TRUE(filesUnder(folder.path() / "media").empty());
  EXPECT_EQ(server.requestsFor("/big.mp4").size(), 1u);  // refused at once, not retried
}

TEST(SafetyTest, ADiskThatFillsMidTransferFailsTheAssetCleanly) {
  TempFolder folder;
  auto engine = startEngine(testOptions(folder.path()));
  MediaServer server;
  server.add("/huge.mp4", patternBytes(6 * 1024 * 1024, 4));
  // A file-size limit makes writes past 2 MB fail as a full disk would.
  signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  rlimit limit = old;
  limit.rlim_cur = 2 * 1024 * 1024;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  auto asset = makeFileAsset(*engine, server.url("/huge.mp4"), "huge");
  engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  auto info = waitForAsset(*engine, asset->uuid());
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_EQ(info.state, AssetState::kFailed);
  ASSERT_TRUE(info.lastError.has_value());
  EXPECT_EQ(info.lastError->code, reference::kEngineErrorFile);
  EXPECT_TRUE(filesUnder(folder.path() / "media").empty());  // no partial file left behind
  // The engine keeps working afterwards.
  server.add("/small.mp4", patternBytes(1000, 5));
  auto next = makeFileAsset(*engine, server.url("/small.mp4"), "small");
  engine->roles().downloadEngine->addToQueue(next, kQueueIndexAppend, nullptr);
  EXPECT_EQ(waitForAsset(*engine, next->uuid()).state, AssetState::kComplete);
}

}  // namespace
}  // namespace zolvani::testing
