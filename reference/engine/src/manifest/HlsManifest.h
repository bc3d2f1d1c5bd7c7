// HlsManifest: reading HLS playlists (RFC 8216) and planning their download.
//
// A master playlist gives variants and alternate renditions (EXT-X-MEDIA). The
// plan takes one variant by bit rate (never an audio-only one while one with
// video exists), its audio group's default rendition (else the first) and the
// subtitle renditions marked DEFAULT or AUTOSELECT. Media playlists give
// segments, init sections (EXT-X-MAP) and keys, each optionally a byte range
// (EXT-X-BYTERANGE, BYTERANGE=). The ranges of one file are fetched as the
// whole file once when they run from its first byte without a gap (the local
// playlist keeps them), else each range once with a Range request into a file
// of its own (the local playlist drops them).
//
// Thread-safety: plain functions and values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "manifest/Manifest.h"

namespace zolvani::reference {

struct HlsAttribute {
  std::string name, value;
  bool quoted = false;
};
// An attribute list ("A=1,B=\"x,y\""); malformed tails are dropped.
std::vector<HlsAttribute> parseHlsAttributes(std::string_view list);
std::string formatHlsAttributes(const std::vector<HlsAttribute>& attributes);
std::optional<std::string> hlsAttribute(std::string_view list, std::string_view name);

struct HlsVariant {
  std::int64_t bandwidth = 0;
  std::string uri;
  std::string attributes;  // of its EXT-X-STREAM-INF tag
  std::string audioGroup, subtitlesGroup;
  bool hasVideo = true;  // false when its CODECS are audio (and text) only
};

struct HlsRendition {  // one EXT-X-MEDIA tag
  std::string type, groupID, uri;
  std::string attributes;
  bool isDefault = false, autoselect = false;
};

struct HlsMaster {
  std::vector<std::string> globalTags;  // EXT-X-VERSION, EXT-X-INDEPENDENT-SEGMENTS, ...
  std::vector<HlsVariant> variants;
  std::vector<HlsRendition> renditions;
};

struct HlsEntry {
  enum class Kind { kSegment, kMap, kKey };
  Kind kind = Kind::kSegment;
  std::size_t line = 0;  // where its URI is written
  std::string uri;
  std::optional<ByteRange> range;
  std::size_t rangeLine = SIZE_MAX;  // its EXT-X-BYTERANGE line, if any
  bool aes128 = false;               // keys: METHOD=AES-128
};

struct HlsMediaPlaylist {
  std::vector<std::string> lines;
  std::vector<HlsEntry> entries;  // segments, maps and keys in playlist order
  bool ended = false;
  bool hasMap = false;
};

bool isHlsMaster(std::string_view text);
std::optional<Error> parseHlsMaster(std::string_view text, HlsMaster* out);
// The highest bandwidth not above `maxBitrate` (no cap when 0 or less) among
// the variants with video (all of them when none has video); when none fits,
// the lowest of those. Null when there are no variants.
const HlsVariant* chooseHlsVariant(const std::vector<HlsVariant>& variants,
                                   std::int64_t maxBitrate);
// An error for a text that is no media playlist, a live one, one without
// segments or with more than `maxEntries` entries.
std::optional<Error> parseHlsMediaPlaylist(std::string_view text, std::size_t maxEntries,
                                           HlsMediaPlaylist* out);

FetchResult planHls(const PlanRequest& request, const PlanLimits& limits,
                    const ManifestDocument& first, const DocumentLoader& load, MediaPlan* plan);

}  // namespace zolvani::reference
