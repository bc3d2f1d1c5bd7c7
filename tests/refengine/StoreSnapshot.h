// StoreSnapshot: what an engine's store holds, read through an engine that
// transfers nothing (used after a host process was killed).
//
// Thread-safety: inspect() opens its own engine; call it while no other
// process uses the folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "EngineTestSupport.h"

namespace zolvani::testing {

// What the store holds after a kill, seen through an engine that does not
// transfer anything.
struct Snapshot {
  bool opened = false;
  std::map<std::string, std::string> assetByItem;  // assetID -> uuid
  std::vector<std::string> duplicates;
  std::vector<std::string> dangling;
  std::map<std::string, std::uintmax_t> partial;  // item path -> bytes already on disk
  int complete = 0;
  int tracked = 0;  // items in every feed's tracked and deferred collections
};

inline Snapshot inspect(const std::filesystem::path& data) {
  Snapshot s;
  auto options = testOptions(data);
  options.reachabilityOverride = false;
  reference::ReferenceEngine engine(options);
  if (engine.start()) return s;
  s.opened = true;
  for (const auto& info : engine.listAssets()) {
    if (s.assetByItem.count(info.assetID)) s.duplicates.push_back(info.assetID);
    s.assetByItem[info.assetID] = info.uuid;
    if (info.state == reference::AssetState::kComplete) ++s.complete;
    std::error_code ec;
    auto size = std::filesystem::file_size(data / "media" / info.uuid / "content.partial", ec);
    if (!ec && size > 0) s.partial["/" + info.assetID + ".mp4"] = size;
  }
  auto roles = engine.roles();
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    for (const auto& record :
         ctx->executeFetchRequest(SubscriptionDataFetchRequest::all(), nullptr))
      for (const auto* set : {&record->feedItemsSet(), &record->deferredFeedItemsSet()})
        for (const auto& item : *set) {
          ++s.tracked;
          if (!roles.assets->assetWithUUID(item->uuid(), 0)) s.dangling.push_back(item->uuid());
        }
  });
  return s;
}

}  // namespace zolvani::testing
