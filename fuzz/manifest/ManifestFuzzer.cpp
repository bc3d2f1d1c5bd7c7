// Feeds arbitrary bytes, as a manifest, through stream planning: format
// detection, the HLS master and media playlist readers, the MPD reader and the
// writers of local manifests. Every document the plan asks for (media
// playlists of a master) is the same input again, so masters reach the media
// playlist reader too. Nothing may crash, hang or name a local file outside the
// stream folder.
#include <cstddef>
#include <cstdint>
#include <string>

#include "../text/FuzzCheck.h"
#include "manifest/HlsManifest.h"
#include "manifest/LocalNames.h"
#include "manifest/Manifest.h"

using namespace zolvani::reference;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  PlanLimits limits;
  limits.maxResources = 2000;  // keeps each input quick
  for (const char* url : {"http://h/a/index.m3u8", "http://h/a/index.mpd"}) {
    int loads = 0;
    DocumentLoader load = [&](const std::string& u, ManifestDocument* d) {
      if (++loads > 8) return FetchResult{FetchOutcome::kRetry, std::nullopt, 0, 0};
      d->url = u;
      d->text = text;
      return FetchResult{FetchOutcome::kDone, std::nullopt, 0, 0};
    };
    MediaPlan plan;
    FetchResult r =
        planStream({url, static_cast<std::int64_t>(size) * 1000, true}, limits, load, &plan);
    if (r.outcome == FetchOutcome::kDone) {
      ZSM_FUZZ_CHECK(!plan.manifests.empty());
      for (const auto& m : plan.manifests) ZSM_FUZZ_CHECK(isPlainFileName(m.name));
      for (const auto& rendition : plan.renditions)
        for (const auto& resource : rendition.resources) {
          ZSM_FUZZ_CHECK(isPlainFileName(resource.localName));
          ZSM_FUZZ_CHECK(isFetchableURL(resource.url));
          ZSM_FUZZ_CHECK(!resource.range || resource.range->length > 0);
        }
    } else if (r.outcome == FetchOutcome::kFail) {
      ZSM_FUZZ_CHECK(r.error.has_value());
    }
  }
  HlsMediaPlaylist playlist;
  (void)parseHlsMediaPlaylist(text, 2000, &playlist);
  return 0;
}
