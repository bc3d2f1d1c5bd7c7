// HostViews: what a host shows of the device, as JSON: the engine's assets, the
// feeds the device tracks with their rules and items, the items with their
// download state, the manager's announcements, errors and library values; and
// the outcome of a push update read from the log lines it leaves (the library
// reports that outcome only there). Shared by the command-line host and the C
// interface, so that both describe the device in the same words.
//
// Thread-safety: the functions that take a HostRuntime read the engine and the
// feed store, which are safe from any thread; the others are pure.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "HostRuntime.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/Value.h"

namespace zsm {

nlohmann::json assetJson(const zolvani::reference::AssetInfo& asset);

// Where each tracked asset belongs: asset UUID -> its feed, and whether it is
// one of the feed's deferred items. Direct items are not in it.
struct FeedPlace {
  std::string feed;
  bool deferred = false;
};
using FeedMembership = std::map<std::string, FeedPlace>;
FeedMembership feedMembership(HostRuntime& host);
// An item: assetJson with "feed" (null for a direct item) and "deferred".
nlohmann::json itemJson(const zolvani::reference::AssetInfo& asset,
                        const FeedMembership& membership);

nlohmann::json feedsJson(HostRuntime& host);
// Items oldest first; only `onlyFeed`'s when it is not empty.
nlohmann::json itemsJson(HostRuntime& host, const std::string& onlyFeed);
nlohmann::json eventsJson(const HostEvents& events);
nlohmann::json errorJson(const zolvani::Error& error);
// A library Value as JSON (assets become their UUID).
nlohmann::json valueJson(const zolvani::Value& value);

// The push update has no completion: its outcome is one of the log lines it
// leaves. `finished` is false while none of them has been written yet.
struct PushOutcome {
  bool finished = false;
  bool ok = false;
  std::optional<zolvani::Error> error;
};
PushOutcome judgePushLog(const std::vector<LogLine>& lines);

}  // namespace zsm
