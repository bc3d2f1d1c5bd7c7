// MediaPlan: what downloading one stream takes, whatever its manifest format.
//
// A manifest reader (HLS, DASH) turns the server's manifests into a plan: the
// renditions it chose, for each the resources to fetch (init sections, keys,
// media, each optionally one byte range of a larger file) under the local file
// names they get, and the local manifests to write once every resource is on
// disk. The downloader fetches and writes exactly this, without knowing the
// format. Local names come only from the engine's own counters and a fixed set
// of extensions, never from text the server sent.
//
// Thread-safety: a plain value; no shared state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Fetcher.h"

namespace zolvani::reference {

struct PlannedResource {
  enum class Kind { kInit, kKey, kMedia };
  Kind kind = Kind::kMedia;
  std::string url;                 // absolute http(s)
  std::optional<ByteRange> range;  // only these bytes, into their own file
  std::string localName;           // a plain file name inside the stream folder
};

struct PlannedRendition {
  enum class Kind { kVideo, kAudio, kSubtitles };
  Kind kind = Kind::kVideo;
  std::vector<PlannedResource> resources;
};

struct LocalManifest {
  std::string name;  // a plain file name inside the stream folder
  std::string text;
};

struct MediaPlan {
  std::int64_t bandwidth = 0;  // of the chosen video (or only) rendition
  std::vector<PlannedRendition> renditions;
  // Written after every resource arrived; the last one is the entry point
  // players open.
  std::vector<LocalManifest> manifests;

  std::size_t resourceCount() const {
    std::size_t n = 0;
    for (const auto& r : renditions) n += r.resources.size();
    return n;
  }
  const LocalManifest& entry() const { return manifests.back(); }
};

// What planning is asked for.
struct PlanRequest {
  std::string url;              // the manifest the asset names
  std::int64_t maxBitrate = 0;  // 0 or less: no cap
  bool includeKeys = false;     // fetch AES-128 keys (else they stay remote)
};

// Hostile-input limits: a manifest larger than maxManifestBytes or a plan with
// more than maxResources resources is refused.
struct PlanLimits {
  std::uint64_t maxManifestBytes = 8 * 1024 * 1024;
  std::size_t maxResources = 100000;
};

}  // namespace zolvani::reference
