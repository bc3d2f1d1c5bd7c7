// The manifest readers below the engine: plans for byte ranges and renditions,
// and hostile manifests (self references, foreign schemes, huge counts,
// malformed XML) refused with clear errors.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "manifest/HlsManifest.h"
#include "manifest/LocalNames.h"
#include "manifest/Manifest.h"
#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::reference {
namespace {

// Plans `url` over documents held in memory; a missing one answers 404.
FetchResult planFrom(const std::map<std::string, std::string>& documents, const std::string& url,
                     MediaPlan* plan, PlanLimits limits = {}) {
  DocumentLoader load = [&](const std::string& u, ManifestDocument* d) {
    auto it = documents.find(u);
    if (it == documents.end())
      return FetchResult{FetchOutcome::kFail, engineError(kEngineErrorHttpStatus, "404"), 0, 0};
    d->url = u;
    d->text = it->second;
    return FetchResult{FetchOutcome::kDone, std::nullopt, 0, 0};
  };
  return planStream({url, 0, true}, limits, load, plan);
}

std::string segments(int count, const std::string& uri = "s.ts") {
  std::string out = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n";
  for (int i = 0; i < count; ++i) out += "#EXTINF:1,\n" + uri + "\n";
  return out + "#EXT-X-ENDLIST\n";
}

TEST(ManifestTest, HostileManifestsAreRefusedClearly) {
  const std::string mpdHead =
      "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"static\" "
      "mediaPresentationDuration=\"PT2S\"><Period><AdaptationSet contentType=\"video\">"
      "<Representation id=\"v\" bandwidth=\"1000\">";
  const std::string mpdTail = "</Representation></AdaptationSet></Period></MPD>";
  struct Case {
    const char* name;
    std::string text;
    std::int64_t code;
    const char* says;
  };
  const Case cases[] = {
      {"master pointing at itself", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nhttp://h/m.m3u8\n",
       kEngineErrorBadPlaylist, "itself"},
      {"master pointing at a master", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nnested.m3u8\n",
       kEngineErrorBadPlaylist, "master"},
      {"segment outside http", segments(2, "file:///etc/passwd"), kEngineErrorBadURL, "http"},
      {"too many segments", segments(11), kEngineErrorBadPlaylist, "more than 10"},
      {"live playlist", "#EXTM3U\n#EXTINF:1,\ns.ts\n", kEngineErrorLivePlaylist, "live"},
      {"bad byte range", "#EXTM3U\n#EXT-X-BYTERANGE:x@1\n#EXTINF:1,\ns.ts\n#EXT-X-ENDLIST\n",
       kEngineErrorBadPlaylist, "BYTERANGE"},
      {"not a manifest", "<html>hello</html>", kEngineErrorBadPlaylist, "HLS"},
      {"dynamic MPD",
       "<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" type=\"dynamic\"><Period/></MPD>",
       kEngineErrorLivePlaylist, "live"},
      {"malformed MPD", "<MPD><Period>", kEngineErrorBadPlaylist, "XML"},
      {"timeline repeated beyond the limit",
       mpdHead +
           "<SegmentTemplate media=\"$Number$.m4s\"><SegmentTimeline><S d=\"1\" "
           "r=\"1000000000\"/></SegmentTimeline></SegmentTemplate>" +
           mpdTail,
       kEngineErrorBadPlaylist, "more than 10"},
      {"unknown template identifier",
       mpdHead + "<SegmentTemplate media=\"$Secret$.m4s\" duration=\"1\"/>" + mpdTail,
       kEngineErrorBadPlaylist, "template"},
      {"MPD media outside http",
       mpdHead +
           "<BaseURL>ftp://h/</BaseURL><SegmentTemplate media=\"$Number$.m4s\" "
           "duration=\"1\"/>" +
           mpdTail,
       kEngineErrorBadURL, "http"},
      {"entity expansion",
       "<?xml version=\"1.0\"?><!DOCTYPE MPD [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b "
       "\"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">]>"
       "<MPD type=\"&c;\"><Period/></MPD>",
       kEngineErrorBadPlaylist, "DTD"},
  };
  PlanLimits limits;
  limits.maxResources = 10;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::map<std::string, std::string> docs{
        {"http://h/m.m3u8", c.text},
        {"http://h/nested.m3u8", "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nother.m3u8\n"}};
    MediaPlan plan;
    FetchResult r = planFrom(docs, "http://h/m.m3u8", &plan, limits);
    EXPECT_EQ(r.outcome, FetchOutcome::kFail);
    ASSERT_TRUE(r.error.has_value());
    EXPECT_EQ(r.error->code, c.code) << r.error->describe();
    EXPECT_NE(r.error->localizedDescription().find(c.says), std::string::npos)
        << r.error->describe();
  }
}

TEST(ManifestTest, ByteRangesAreFetchedWholeOnlyWithoutGaps) {
  struct Case {
    const char* name;
    std::string playlist;
    std::vector<std::optional<ByteRange>> fetched;
    bool rangesKept;
  };
  const std::string head = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n";
  const Case cases[] = {
      {"gapless, implicit offsets",
       head + "#EXT-X-MAP:URI=\"f.mp4\",BYTERANGE=\"100@0\"\n#EXTINF:1,\n#EXT-X-BYTERANGE:50@100\n"
              "f.mp4\n#EXTINF:1,\n#EXT-X-BYTERANGE:70\nf.mp4\n#EXT-X-ENDLIST\n",
       {std::nullopt},
       true},
      {"a gap",
       head + "#EXT-X-MAP:URI=\"f.mp4\",BYTERANGE=\"100@0\"\n#EXTINF:1,\n#EXT-X-BYTERANGE:50@200\n"
              "f.mp4\n#EXTINF:1,\n#EXT-X-BYTERANGE:50@200\nf.mp4\n#EXT-X-ENDLIST\n",
       {ByteRange{0, 100}, ByteRange{200, 50}},  // the repeated range once
       false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MediaPlan plan;
    auto r = planFrom({{"http://h/p.m3u8", c.playlist}}, "http://h/p.m3u8", &plan);
    ASSERT_EQ(r.outcome, FetchOutcome::kDone) << (r.error ? r.error->describe() : "");
    ASSERT_EQ(plan.renditions.size(), 1u);
    std::vector<std::optional<ByteRange>> fetched;
    for (const auto& res : plan.renditions[0].resources) {
      fetched.push_back(res.range);
      EXPECT_EQ(res.url, "http://h/f.mp4");
      EXPECT_TRUE(isPlainFileName(res.localName)) << res.localName;
    }
    EXPECT_EQ(fetched, c.fetched);
    EXPECT_EQ(plan.entry().text.find("BYTERANGE") != std::string::npos, c.rangesKept)
        << plan.entry().text;
  }
}

TEST(ManifestTest, AnAudioOnlyVariantIsChosenOnlyWithoutVideo) {
  HlsMaster master;
  ASSERT_FALSE(
      parseHlsMaster("#EXTM3U\n"
                     "#EXT-X-STREAM-INF:BANDWIDTH=900,RESOLUTION=640x360\nv1.m3u8\n"
                     "#EXT-X-STREAM-INF:BANDWIDTH=500,CODECS=\"avc1.4d401e,mp4a.40.2\"\n"
                     "v2.m3u8\n"
                     "#EXT-X-STREAM-INF:BANDWIDTH=60,CODECS=\"mp4a.40.2\"\na.m3u8\n",
                     &master));
  EXPECT_EQ(chooseHlsVariant(master.variants, 0)->uri, "v1.m3u8");
  EXPECT_EQ(chooseHlsVariant(master.variants, 600)->uri, "v2.m3u8");
  EXPECT_EQ(chooseHlsVariant(master.variants, 100)->uri, "v2.m3u8");  // lowest with video
  ASSERT_FALSE(
      parseHlsMaster("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=60,CODECS=\"mp4a.40.2\"\na.m3u8\n"
                     "#EXT-X-STREAM-INF:BANDWIDTH=120,CODECS=\"mp4a.40.2\"\nb.m3u8\n",
                     &master));
  EXPECT_EQ(chooseHlsVariant(master.variants, 100)->uri, "a.m3u8");
}

TEST(ManifestTest, TheFuzzSeedsPlanWithoutHarm) {
  // Whatever a seed plans, every local name stays inside the stream folder.
  const std::filesystem::path corpus = ZSM_MANIFEST_CORPUS;
  int seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    MediaPlan plan;
    const std::string url = "http://h/" + entry.path().filename().string();
    auto r = planFrom({{url, text.str()}}, url, &plan);
    if (r.outcome == FetchOutcome::kDone) {
      for (const auto& rendition : plan.renditions)
        for (const auto& res : rendition.resources)
          EXPECT_TRUE(isPlainFileName(res.localName)) << entry.path() << " " << res.localName;
    } else {
      EXPECT_TRUE(r.error.has_value()) << entry.path();
    }
    ++seeds;
  }
  EXPECT_GE(seeds, 5);
}

}  // namespace
}  // namespace zolvani::reference
