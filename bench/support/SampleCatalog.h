// SampleCatalog: the catalog reply the sync benchmarks feed to a manager.
//
// Each feed holds `itemsPerFeed` items of about 500 bytes of JSON, with
// creation dates that rise through the catalog. Items of media types 1 and 3
// alternate, all pointing at master playlists, unless `singleFile` is set:
// then every item is a single file, which an engine creates without reading a
// playlist first.
#pragma once

#include <string>

#include <fmt/format.h>

namespace zolvani::bench {

inline std::string makeCatalog(int feeds, int itemsPerFeed, bool singleFile) {
  std::string out =
      R"({"response_header":{"response_code":0,"response_string":"OK"},"subscriptions":[)";
  for (int f = 0; f < feeds; ++f) out += fmt::format("{}\"feed-{:05}\"", f ? "," : "", f);
  out += R"(],"subscription_rules":{)";
  for (int f = 0; f < feeds; ++f)
    out += fmt::format(
        R"({}"feed-{:05}":{{"max_assets":0,"auto_delete":false,"max_bitrate":4000000}})",
        f ? "," : "", f);
  out += R"(},"collections":[)";
  for (int f = 0; f < feeds; ++f) {
    out += fmt::format(R"({}{{"remoteUUID":"feed-{:05}","subscribable":true,"contentItems":[)",
                       f ? "," : "", f);
    for (int i = 0; i < itemsPerFeed; ++i) {
      const int mediaType = singleFile ? 1 : (i % 2 ? 3 : 1);
      out += fmt::format(
          R"({}{{"remoteUUID":"item-{:05}-{:02}","created":{},"metadata.mediaType":{},"metadata":{{)"
          R"("title":"Episode {} of feed {} &amp; friends","desc":"A description of episode {} that is long enough )"
          R"(to look like one a real catalog carries, with an entity &lt;b&gt; or two.",)"
          R"("downloadURL":"https://cdn.example.test/feeds/{:05}/episodes/{:02}/{}",)"
          R"("availableFrom":1700000000,"catalogExpiry":1900000000,"downloadExpiry":604800,)"
          R"("expiryAfterPlay":172800,"mime":"{}"}}}})",
          i ? "," : "", f, i, 1700000000 + f * 100 + i, mediaType, i, f, i, f, i,
          singleFile ? "episode.mp4" : "master.m3u8",
          singleFile ? "video/mp4" : "application/x-mpegURL");
    }
    out += "]}";
  }
  out += R"(],"last_updated":1750000000})";
  return out;
}

}  // namespace zolvani::bench
