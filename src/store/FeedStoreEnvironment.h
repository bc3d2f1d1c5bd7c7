// FeedStoreEnvironment: what the feed store, the retention cleaner and the
// deferred-episode promoter need from the outside world, and the few steps they
// all share: running store work on the engine's shared context, fetching a
// feed's record, looking assets up, logging and posting asset notifications.
//
// It deliberately holds no manager: a test builds the store collaborators over
// an engine, a main queue and a notification centre alone.
//
// Thread-safety: the environment is read-only after construction and every
// member may be called from any thread. Records returned by the fetch helpers
// may be touched only inside performStoreWork().
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zolvani/subscription/Value.h"
#include "zolvani/subscription/engine/EngineRoles.h"
#include "zolvani/subscription/platform/DispatchQueue.h"
#include "zolvani/subscription/platform/NotificationCenter.h"

namespace zolvani {

// A plain log line at a level; the manager's logString() adds its location.
using StoreLogFunction = std::function<void(const std::string& message, std::int64_t level)>;

struct FeedStoreEnvironment {
  ZolvaniEngine engine;
  // Where asset notifications are posted from, asynchronously.
  std::shared_ptr<DispatchQueue> mainQueue;
  std::shared_ptr<NotificationCenter> notificationCenter;
  StoreLogFunction logString;
  // The manager's deleteOldContentAfterNewContentDownloads setting, read at
  // each trim.
  std::function<bool()> deleteOldContentAfterNewContentDownloads;

  // Runs `work` synchronously inside the engine's shared context. Without a
  // context the work does not run and the caller sees "no record". A template,
  // so that the feed store's several units of work per admitted item wrap no
  // closure on the heap.
  template <class Work>
  void performStoreWork(Work&& work) const {
    std::shared_ptr<ZolvaniManagedObjectContext> context = sharedContext();
    if (!context) return;
    context->performBlockAndWait([&work, &context] { work(*context); });
  }
  // The engine's shared context; null without one.
  std::shared_ptr<ZolvaniManagedObjectContext> sharedContext() const;
  // The engine's saveContext(); its result is not inspected.
  void saveContext() const;

  // The engine's asset with this UUID (availability filter 0), or null.
  std::shared_ptr<ZolvaniAsset> assetWithUUID(const std::string& uuid) const;

  void log(const std::string& message, std::int64_t level) const;
  // "<location> [Line <line>] <text>" straight to the engine logger.
  void debugEvent(std::string_view location, int line, std::string_view text,
                  std::int64_t level) const;

  // Posts `name` with the one-entry user information {key: value} on the main
  // queue, asynchronously.
  void postAsync(std::string_view name, std::string_view key, Value value) const;
  // "kSubscriptionManagerAssetDeletedNotification" with the deleted UUIDs.
  void postAssetsDeleted(const std::vector<std::string>& uuids) const;
  bool deleteOldContent() const;
};

// The feed's record: the first of those whose key attribute equals `feed`;
// null when there is none or the fetch failed. Call inside store work.
std::shared_ptr<SubscriptionData> fetchFeedRecord(ZolvaniManagedObjectContext& context,
                                                  const std::string& feed);
// Every record in the store's fetch order; empty when the fetch failed.
std::vector<std::shared_ptr<SubscriptionData>> fetchAllFeedRecords(
    ZolvaniManagedObjectContext& context);

// Adds an item to a collection and keeps it sorted oldest first by the
// engine's ordering attribute, as appending and sorting again would; an item
// already there stays and the collection is sorted.
void insertOldestFirst(AssetDataOrderedSet& items, std::shared_ptr<ZolvaniAssetData> item);

// Readable renderings of items for log lines; a null item prints "(null)".
std::string describeAssetData(const std::shared_ptr<ZolvaniAssetData>& item);
std::string describeAssetDataList(const std::vector<std::shared_ptr<ZolvaniAssetData>>& items);

// An engine completion that ignores its outcome.
std::function<void(bool, std::optional<Error>)> ignoreCompletion();

}  // namespace zolvani
