// Item admission: the two steps that follow a successful catalog reply on the
// processing queue. The direct-item step turns the reply's "contentItems" into
// assets; the feed step turns each subscribed feed's new items into assets that
// join the feed or wait in its deferred list, and then finishes the sync.
//
// Each step owns the part of the reply it reads and lets it go as soon as its
// data source has read it; admitted items are let go feed by feed. A large
// catalog's parsed tree, its asset-data maps and the engine's new assets are
// so never all alive at once.
//
// Thread-safety: each step runs on one processing-queue thread; several steps
// (of one reply or of overlapping syncs) may run at once. They share nothing,
// and reach the feed store and engine through the manager, which accept calls
// from any thread.
#pragma once

#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani::sync {

class ItemAdmission {
 public:
  // Makes an asset for every direct item the engine does not hold yet, and
  // announces them. Never completes the sync.
  // `contentItems` is the reply's "contentItems" value.
  static void processDirectItems(const std::shared_ptr<ZolvaniSubscriptionManager>& manager,
                                 nlohmann::json contentItems);

  // Admits the new items of every subscribed feed, announces what was deferred,
  // deleted and added, and then finishes the sync on the main queue through
  // `finish` (or fails it when the engine is not started).
  // `collections` is the reply's "collections" value.
  static void processFeeds(const std::shared_ptr<ZolvaniSubscriptionManager>& manager,
                           nlohmann::json collections,
                           const std::optional<Value::Array>& subscriptions,
                           std::optional<Date> lastSync, SyncCompletion completion,
                           std::function<void()> finish);

  // Items in ascending order of their created dates (a stable sort: equal dates
  // keep the data source's order). Anything that is not an asset-data map is
  // left out; an item without a created date sorts as the oldest.
  static std::vector<const Value::Map*> sortedItems(const Value& items);
};

}  // namespace zolvani::sync
