// SampleGenerator: makes sample content so that the server can be tried without
// fetching anything: small synthetic media files, an HLS video-on-demand ladder, and
// a seed that publishes them in feeds for a demo account.
//
// The bytes are deterministic (the same name always gives the same content) and
// every sample file carries the same fixed modification time, so that servers that
// generate the sample each for itself serve it with the same validators, and
// generating again changes no file. Only the items' creation times follow the
// clock. The sample files and the sample HLS ladder play: ffmpeg makes them when it
// is installed (synthetic stand-ins otherwise). Stateless and thread-compatible.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/Status.h"

namespace zolvani::refserver {

struct HlsVariant {
  int bandwidth = 0;  // bits per second, as the master playlist states it
  int width = 0;
  int height = 0;
};

class SampleGenerator {
 public:
  // The demo account the sample seed creates.
  static constexpr const char* kDemoUser = "demo";
  static constexpr const char* kDemoKey = "demo-public-key";
  static constexpr const char* kDemoSecret = "demo-secret";

  // Modification time of every sample file, seconds since 1970. Change it whenever
  // the bytes the generator writes change, so that no validator names two contents.
  static constexpr int64_t kFileTimeSeconds = 1700000000;

  // Writes `size` deterministic bytes derived from `name` to `file`, starting with a
  // small MP4 file-type box so that the file looks like the video it stands for.
  static Status WriteMediaFile(const std::filesystem::path& file, const std::string& name,
                               uint64_t size);

  // Writes a playable MP4 of exactly `size` bytes to `file`: a two-second clip
  // (test picture and tone) made by ffmpeg with its index first, followed by a
  // "free" box up to `size`. The same name gives the same bytes with one ffmpeg
  // version. Without ffmpeg (or when `size` is too small for the clip) it
  // writes what WriteMediaFile writes instead.
  static Status WritePlayableMp4(const std::filesystem::path& file, const std::string& name,
                                 uint64_t size);
  // `clip` (an MP4 file's bytes) followed by a "free" box up to `size`; the
  // synthetic stand-in when `clip` is empty or does not fit.
  static Status WritePaddedClip(const std::filesystem::path& file, const std::string& clip,
                                const std::string& name, uint64_t size);

  // Writes an HLS ladder into `folder`: master.m3u8 naming one media playlist per
  // variant, each with an initialisation section (#EXT-X-MAP), `segments` segments of
  // two seconds and #EXT-X-ENDLIST.
  static Status WriteHlsLadder(const std::filesystem::path& folder,
                               const std::vector<HlsVariant>& variants, int segments);

  // The same ladder made by ffmpeg (H.264 and AAC in fragmented MP4, a test
  // picture at each variant's size), so that it plays; WriteHlsLadder's
  // synthetic one when ffmpeg is missing or fails.
  static Status WritePlayableHlsLadder(const std::filesystem::path& folder,
                                       const std::vector<HlsVariant>& variants, int segments);

  // Three variants of rising bandwidth.
  static std::vector<HlsVariant> DefaultLadder();

  // Writes the sample media under `dataDir`/media and returns the seed that
  // publishes it, its items dated from `nowMs`; the seed is also written to
  // `dataDir`/sample-seed.json. Files already as they should be are left alone.
  // Apply the seed with SeedLoader's SeedMode::kAddMissing so that a second
  // generation neither re-dates nor replaces the items of the first.
  static Status Generate(const std::filesystem::path& dataDir, int64_t nowMs, nlohmann::json* seed);
};

}  // namespace zolvani::refserver
