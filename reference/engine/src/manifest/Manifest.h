// Manifest: tells stream manifest formats apart and plans a stream download.
//
// planStream() reads the manifest an asset names (and, for HLS, the media
// playlists it points at) through a loader the caller gives, so that the same
// planning serves both the check made when an asset is created and the
// download itself. Which format a document is: a known content type decides
// (HLS or DASH types); otherwise the text's start ("#EXTM3U", an <MPD>
// element); otherwise the URL's extension (.m3u8, .m3u, .mpd).
//
// Thread-safety: the functions keep no state; they may run on any thread.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Fetcher.h"
#include "manifest/MediaPlan.h"

namespace zolvani::reference {

enum class ManifestFormat { kHls, kDash };

// One manifest document as the server sent it.
struct ManifestDocument {
  std::string url;  // after redirects: relative references resolve against it
  std::string text;
  std::string contentType;
};

// Fetches a document; the outcome says whether a failure is transient (kRetry),
// permanent (kFail) or a stop.
using DocumentLoader = std::function<FetchResult(const std::string& url, ManifestDocument* out)>;

std::optional<ManifestFormat> detectManifestFormat(const ManifestDocument& document);

// Fills `plan` and answers kDone, or answers the loader's failure, or kFail
// with an error for a manifest the engine refuses (live, malformed, too large,
// pointing at itself or at URLs that are not http(s)).
FetchResult planStream(const PlanRequest& request, const PlanLimits& limits,
                       const DocumentLoader& load, MediaPlan* plan);

// A refusal with the engine's error `code`.
FetchResult planRefusal(std::int64_t code, std::string description);

}  // namespace zolvani::reference
