// SeedLoader: fills a store from a seed document (JSON) describing accounts, feeds
// with their publishers and items, and direct items for accounts. The format is in
// README.md.
//
// Stateless; the functions are safe to call from any thread (the store serialises).
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "reference/server/Status.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

struct SeedSummary {
  int accounts = 0;  // added or replaced
  int feeds = 0;
  int items = 0;
  int publishers = 0;
  int kept = 0;  // entries already in the store and left as they were (SeedMode::kAddMissing)
};

enum class SeedMode {
  kReplace,     // entries already in the store are replaced
  kAddMissing,  // entries already in the store (accounts, feeds with their publishers,
                // items) are left as they are: applying the same seed again changes
                // nothing, and items keep their creation times
};

class SeedLoader {
 public:
  // Applies every entry of `seed`, stopping at the first bad one with a message that
  // names it. Entries already in the store are replaced, or kept with kAddMissing.
  static Status Apply(const nlohmann::json& seed, Store* store, int64_t nowMs, SeedSummary* summary,
                      SeedMode mode = SeedMode::kReplace);

  // Reads and applies the seed file at `file`; a file nested deeper than
  // JsonLimits::kMaxSeedNesting is refused before it is parsed.
  static Status ApplyFile(const std::filesystem::path& file, Store* store, int64_t nowMs,
                          SeedSummary* summary);

  // Converts one item entry ({"remoteUUID", "created", "media", "metadata"}) into a
  // store item. "created" may be seconds or milliseconds since 1970 and defaults to
  // `nowMs`; the item needs either "media" (a path under the media folder) or
  // "metadata"."downloadURL".
  static Status ParseItem(const nlohmann::json& entry, int64_t nowMs, Item* item);

  // Seconds or milliseconds since 1970 to milliseconds: values below 10^11 are
  // taken as seconds (10^11 seconds is more than 3000 years away; 10^11
  // milliseconds is early 1973).
  static int64_t NormalizeToMs(int64_t secondsOrMs);
};

}  // namespace zolvani::refserver
