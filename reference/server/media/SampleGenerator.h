// SampleGenerator: makes sample content so that the server can be tried without
// fetching anything: small synthetic media files, an HLS video-on-demand ladder, and
// a seed that publishes them in feeds for a demo account.
//
// The bytes are deterministic (the same name always gives the same content) and
// every sample file carries the same fixed modification time, so that servers that
// generate the sample each for itself serve it with the same validators, and
// generating again changes no file. Only the items' creation times follow the
// clock. Stateless and thread-compatible.
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

  // Writes an HLS ladder into `folder`: master.m3u8 naming one media playlist per
  // variant, each with an initialisation section (#EXT-X-MAP), `segments` segments of
  // two seconds and #EXT-X-ENDLIST.
  static Status WriteHlsLadder(const std::filesystem::path& folder,
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
