// Real media through the engine: HLS and DASH as ffmpeg packages them, made at
// test time, served on loopback, downloaded, and played back from the local
// copy with ffmpeg and ffprobe.
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <regex>
#include <thread>

#include "EngineTestSupport.h"
#include "MediaServer.h"
#include "MediaTools.h"

namespace zolvani::testing {
namespace {

using reference::AssetState;

void writeText(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

std::string replaceAll(std::string s, const std::string& from, const std::string& to) {
  for (auto at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
  return s;
}

// Every fixture, made once for the whole suite: two seconds of a test pattern
// and a tone, encoded once and packaged many ways without re-encoding.
class MediaFixtures {
 public:
  static MediaFixtures& get() {
    static MediaFixtures fixtures;
    return fixtures;
  }
  const std::filesystem::path& root() const { return root_; }
  std::string error;  // why making them failed

 private:
  // Each test runs in its own process under ctest: the fixtures are made once
  // into a shared folder (moved into place whole, so a concurrent process
  // either sees all of them or makes its own) and reused.
  MediaFixtures() {
    if (!mediaToolsPresent()) {
      error = "ffmpeg and ffprobe are needed (scripts/setup.sh installs them)";
      return;
    }
    const auto shared = std::filesystem::temp_directory_path() / "zsm-media-fixtures-1";
    if (std::filesystem::exists(shared / "complete")) {
      root_ = shared;
      return;
    }
    make(folder_.path());
    if (!error.empty()) return;
    writeText(folder_.path() / "complete", "");
    std::error_code ec;
    std::filesystem::rename(folder_.path(), shared, ec);
    root_ = std::filesystem::exists(shared / "complete") ? shared : folder_.path();
  }

  void make(const std::filesystem::path& dir) {
    const std::string sources =
        "-f lavfi -i testsrc2=size=160x120:rate=10 -f lavfi -i "
        "sine=frequency=440:sample_rate=22050 "
        "-t 2 -c:v libx264 -preset ultrafast -g 10 -c:a aac -b:a 32k ";
    const std::string hls = "-f hls -hls_time 1 -hls_list_size 0 ";
    const std::string dash =
        "-f dash -seg_duration 1 -adaptation_sets 'id=0,streams=v id=1,streams=a' ";
    writeText(dir / "aes" / "enc.key", std::string("0123456789abcdef"));
    writeText(dir / "aes.keyinfo", "enc.key\naes/enc.key\n");
    for (auto sub : {"ts", "fmp4-range", "ts-range", "ladder", "dash-number", "dash-time",
                     "dash-list", "dash-ranges"})
      std::filesystem::create_directories(dir / sub);
    // One encode (two outputs), then every packaging at once: they only copy.
    auto encoded = ffmpeg(dir, sources +
                                   "source.mp4 -map 0:v -t 2 -vf scale=96:72 -c:v libx264 "
                                   "-preset ultrafast -g 10 small.mp4");
    if (encoded.status != 0) {
      error = "ffmpeg could not encode the sources: " + encoded.output;
      return;
    }
    const std::pair<const char*, std::string> steps[] = {
        {"ts", "-i source.mp4 -c copy " + hls + "-hls_segment_filename 'ts/s%d.ts' ts/index.m3u8"},
        {"fmp4-range", "-i source.mp4 -c copy " + hls +
                           "-hls_segment_type fmp4 -hls_flags single_file fmp4-range/index.m3u8"},
        {"ts-range", "-i source.mp4 -c copy " + hls + "-hls_flags single_file ts-range/index.m3u8"},
        {"aes", "-i source.mp4 -c copy " + hls +
                    "-hls_key_info_file aes.keyinfo -hls_segment_filename 'aes/s%d.ts' "
                    "aes/index.m3u8"},
        {"ladder", "-i source.mp4 -i small.mp4 -map 0:v -map 1:v -map 0:a -c copy " + hls +
                       "-master_pl_name master.m3u8 -var_stream_map "
                       "'v:0,agroup:aud v:1,agroup:aud a:0,agroup:aud,default:yes' "
                       "-hls_segment_filename 'ladder/s%v_%d.ts' 'ladder/p%v.m3u8'"},
        {"dash-number", "-i source.mp4 -c copy " + dash + "dash-number/index.mpd"},
        {"dash-time", "-i source.mp4 -c copy " + dash +
                          "-avoid_negative_ts make_zero "
                          "-media_seg_name 'chunk-$RepresentationID$-$Time$.$ext$' "
                          "dash-time/index.mpd"},
        {"dash-list", "-i source.mp4 -c copy " + dash + "-use_template 0 dash-list/index.mpd"},
        {"dash-ranges",
         "-i source.mp4 -c copy " + dash + "-use_template 0 -single_file 1 dash-ranges/index.mpd"},
    };
    std::vector<std::future<CommandResult>> running;
    for (const auto& step : steps)
      running.push_back(std::async(std::launch::async, [&] { return ffmpeg(dir, step.second); }));
    for (std::size_t i = 0; i < running.size(); ++i) {
      auto r = running[i].get();
      if (r.status != 0 && error.empty())
        error = std::string("ffmpeg could not make ") + steps[i].first + ": " + r.output;
    }
    if (!error.empty()) return;
    // The ladder as professional packagers write it: an audio-only variant
    // beside the video ones, and subtitles (one default, one not).
    auto master = readFile(dir / "ladder" / "master.m3u8");
    master =
        replaceAll(master, "AUDIO=\"group_aud\"\np", "AUDIO=\"group_aud\",SUBTITLES=\"subs\"\np");
    master +=
        "#EXT-X-STREAM-INF:BANDWIDTH=40000,CODECS=\"mp4a.40.2\",AUDIO=\"group_aud\"\np2.m3u8\n"
        "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"English\",LANGUAGE=\"en\","
        "DEFAULT=YES,AUTOSELECT=YES,URI=\"subs/en.m3u8\"\n"
        "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"French\",LANGUAGE=\"fr\","
        "DEFAULT=NO,AUTOSELECT=NO,URI=\"subs/fr.m3u8\"\n";
    writeText(dir / "ladder" / "master.m3u8", master);
    for (auto lang : {"en", "fr"}) {
      writeText(dir / "ladder" / "subs" / (std::string(lang) + ".m3u8"),
                std::string("#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-VERSION:3\n"
                            "#EXT-X-PLAYLIST-TYPE:VOD\n#EXTINF:2.0,\n") +
                    lang + ".vtt\n#EXT-X-ENDLIST\n");
      writeText(dir / "ladder" / "subs" / (std::string(lang) + ".vtt"),
                "WEBVTT\n\n00:00:00.000 --> 00:00:01.500\nHello\n");
    }
    // Byte ranges with a gap (the first segment left out): each range is
    // fetched on its own.
    auto ranged = readFile(dir / "fmp4-range" / "index.m3u8");
    std::smatch first;
    if (std::regex_search(ranged, first,
                          std::regex("#EXTINF:[^\n]*\n#EXT-X-BYTERANGE:[^\n]*\n[^\n]*\n")))
      ranged.erase(static_cast<std::size_t>(first.position(0)), first.length(0));
    writeText(dir / "fmp4-range" / "gap.m3u8", ranged);
    // The single-file DASH output again, addressed by SegmentBase with an index
    // range instead of a SegmentList.
    auto mpd = readFile(dir / "dash-ranges" / "index.mpd");
    std::regex list(
        R"re(<SegmentList[^>]*>\s*<Initialization range="([0-9-]+)" />\s*<SegmentURL )re"
        R"re(mediaRange="[0-9-]+" indexRange="([0-9-]+)" />[\s\S]*?</SegmentList>)re");
    std::filesystem::create_directories(dir / "dash-base");
    for (auto file : {"index-stream0.mp4", "index-stream1.mp4"})
      std::filesystem::copy_file(dir / "dash-ranges" / file, dir / "dash-base" / file);
    writeText(dir / "dash-base" / "index.mpd",
              std::regex_replace(mpd, list,
                                 "<SegmentBase indexRange=\"$2\"><Initialization range=\"$1\" />"
                                 "</SegmentBase>"));
    writeText(dir / "dash-number" / "live.mpd",
              replaceAll(readFile(dir / "dash-number" / "index.mpd"), "type=\"static\"",
                         "type=\"dynamic\" availabilityStartTime=\"2020-01-01T00:00:00Z\""));
    std::filesystem::remove(dir / "source.mp4");
    std::filesystem::remove(dir / "small.mp4");
  }
  TempFolder folder_;
  std::filesystem::path root_;
};

class MediaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto& fixtures = MediaFixtures::get();
    ASSERT_TRUE(fixtures.error.empty()) << fixtures.error;
    serveFolder(server, fixtures.root(), "/");
    engine = startEngine(testOptions(folder.path()));
  }

  reference::AssetInfo download(const std::string& path, std::int64_t maxBitrate = 0,
                                bool keys = true) {
    auto asset = engine->roles().assets->assetWithAssetID(
        "media" + path + std::to_string(maxBitrate), "Media", server.url(path), 0, keys, maxBitrate,
        std::nullopt, std::nullopt, -42.0, -42.0, -1, false, std::nullopt, nullptr, nullptr);
    EXPECT_TRUE(asset);
    if (!asset) return {};
    engine->roles().downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
    return waitForAsset(*engine, asset->uuid(), 20000);
  }

  static std::string describe(const reference::AssetInfo& info) {
    return info.lastError ? info.lastError->describe() : std::string();
  }

  TempFolder folder;
  MediaServer server;
  std::unique_ptr<reference::ReferenceEngine> engine;
};

TEST_F(MediaTest, PackagedStreamsDownloadAndPlayOffline) {
  struct Case {
    const char* manifest;
    const char* singleFile;  // a file that must be fetched once, whole
    const char* rangedFile;  // a file whose ranges must each be fetched once
    std::set<std::string> streams;
  };
  const std::set<std::string> av{"video", "audio"};
  const Case cases[] = {
      {"/ts/index.m3u8", nullptr, nullptr, av},
      {"/fmp4-range/index.m3u8", "/fmp4-range/index.m4s", nullptr, av},
      {"/ts-range/index.m3u8", "/ts-range/index.ts", nullptr, av},
      {"/aes/index.m3u8", nullptr, nullptr, av},
      {"/dash-number/index.mpd", nullptr, nullptr, av},
      {"/dash-time/index.mpd", nullptr, nullptr, av},
      {"/dash-list/index.mpd", nullptr, nullptr, av},
      {"/dash-ranges/index.mpd", nullptr, "/dash-ranges/index-stream0.mp4", av},
      {"/dash-base/index.mpd", "/dash-base/index-stream1.mp4", nullptr, av},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.manifest);
    auto info = download(c.manifest);
    ASSERT_EQ(info.state, AssetState::kComplete) << describe(info);
    Playback p = play(info.localPath);
    EXPECT_TRUE(p.decoded) << p.errors;
    for (const auto& s : c.streams) EXPECT_TRUE(p.streams.count(s)) << s << " " << p.errors;
    if (c.singleFile) {
      auto requests = server.requestsFor(c.singleFile);
      EXPECT_EQ(requests.size(), 1u);
      if (!requests.empty()) {
        EXPECT_EQ(requests[0].range, "");
      }
    }
    if (c.rangedFile) {
      auto requests = server.requestsFor(c.rangedFile);
      std::set<std::string> ranges;
      for (const auto& r : requests) ranges.insert(r.range);
      EXPECT_EQ(ranges.size(), requests.size());  // none twice
      EXPECT_GE(requests.size(), 3u);             // init and two segments
      EXPECT_FALSE(ranges.count(""));
    }
  }
}

TEST_F(MediaTest, KeysAreStoredUnderNamesPlayersOpen) {
  auto info = download("/aes/index.m3u8");
  ASSERT_EQ(info.state, AssetState::kComplete) << describe(info);
  const std::string local = readFile(info.localPath);
  EXPECT_NE(local.find("URI=\"key-00000.ts\""), std::string::npos) << local;
  EXPECT_TRUE(readFile(info.localPath.parent_path() / "key-00000.ts") == "0123456789abcdef");
  EXPECT_EQ(server.requestsFor("/aes/enc.key").size(), 1u);
  EXPECT_TRUE(play(info.localPath).decoded);
}

TEST_F(MediaTest, RangesWithAGapAreFetchedOneByOne) {
  auto info = download("/fmp4-range/gap.m3u8");
  ASSERT_EQ(info.state, AssetState::kComplete) << describe(info);
  auto requests = server.requestsFor("/fmp4-range/index.m4s");
  ASSERT_EQ(requests.size(), 2u);  // the init section and the one segment left
  EXPECT_NE(requests[0].range, requests[1].range);
  for (const auto& r : requests) EXPECT_EQ(r.range.rfind("bytes=", 0), 0u) << r.range;
  EXPECT_EQ(readFile(info.localPath).find("BYTERANGE"), std::string::npos);
  Playback p = play(info.localPath);
  EXPECT_TRUE(p.decoded) << p.errors;
}

TEST_F(MediaTest, LaddersKeepVideoAudioAndDefaultSubtitles) {
  // ffmpeg's ladder: 160x120 and 96x72 variants, plus the audio-only 40000
  // one that must never be chosen while video exists.
  const std::string source = readFile(MediaFixtures::get().root() / "ladder" / "master.m3u8");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(source, m, std::regex("BANDWIDTH=([0-9]+),RESOLUTION=160x120")));
  const std::int64_t high = std::stoll(m[1]);
  ASSERT_TRUE(std::regex_search(source, m, std::regex("BANDWIDTH=([0-9]+),RESOLUTION=96x72")));
  const std::int64_t low = std::stoll(m[1]);
  ASSERT_LT(40000, low);
  struct Case {
    std::int64_t cap;
    std::int64_t chosen;
  };
  for (const Case c : {Case{0, high}, Case{(high + low) / 2, low}, Case{low - 1, low}}) {
    SCOPED_TRACE(c.cap);
    auto info = download("/ladder/master.m3u8", c.cap);
    ASSERT_EQ(info.state, AssetState::kComplete) << describe(info);
    EXPECT_EQ(info.chosenBandwidth, c.chosen);
    const std::string master = readFile(info.localPath);
    EXPECT_NE(master.find("URI=\"audio.m3u8\""), std::string::npos) << master;
    EXPECT_NE(master.find("URI=\"subtitles-1.m3u8\""), std::string::npos) << master;
    EXPECT_EQ(master.find("French"), std::string::npos) << master;
    Playback p = play(info.localPath);
    EXPECT_TRUE(p.decoded) << p.errors;
    EXPECT_TRUE(p.streams.count("video") && p.streams.count("audio")) << p.errors;
  }
  EXPECT_TRUE(server.requestsFor("/ladder/subs/fr.vtt").empty());
  EXPECT_EQ(server.requestsFor("/ladder/subs/en.vtt").size(), 3u);
}

TEST_F(MediaTest, ADynamicMpdIsRefusedLikeALiveStream) {
  std::optional<Error> parseError;
  bool parsed = false;
  auto asset = engine->roles().assets->assetWithAssetID(
      "live-dash", "Live", server.url("/dash-number/live.mpd"), 0, false, 0, std::nullopt,
      std::nullopt, -42.0, -42.0, -1, false, std::nullopt, nullptr,
      [&](std::shared_ptr<ZolvaniAsset>, std::optional<Error> e) {
        parseError = e;
        parsed = true;
      });
  ASSERT_TRUE(asset);
  auto info = waitForAsset(*engine, asset->uuid(), 5000);
  EXPECT_EQ(info.state, AssetState::kFailed);
  ASSERT_TRUE(info.lastError.has_value());
  EXPECT_EQ(info.lastError->code, reference::kEngineErrorLivePlaylist);
  for (int i = 0; i < 200 && !parsed; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_TRUE(parseError.has_value());
  EXPECT_EQ(parseError->code, reference::kEngineErrorLivePlaylist);
}

}  // namespace
}  // namespace zolvani::testing
