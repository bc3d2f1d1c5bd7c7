#include "store/DeferredEpisodes.h"

#include <map>

#include "zolvani/subscription/Constants.h"

namespace zolvani {
namespace {

constexpr const char* kQueueCompletionLocation =
    "-[ZolvaniSubscriptionManager checkOnDeferredEpisodes]_queueCompletion";
constexpr int kQueueCompletionLine = 1896;

}  // namespace

DeferredEpisodes::DeferredEpisodes(FeedStoreEnvironment environment,
                                   std::shared_ptr<RetentionCleaner> cleaner,
                                   std::function<std::shared_ptr<DispatchQueue>()> processingQueue)
    : env_(std::move(environment)),
      cleaner_(std::move(cleaner)),
      processingQueue_(std::move(processingQueue)) {}

void DeferredEpisodes::checkOnDeferredEpisodes() {
  std::shared_ptr<DispatchQueue> queue = processingQueue_ ? processingQueue_() : nullptr;
  if (!queue) return;
  queue->async([self = shared_from_this()] { self->promoteDeferredItems(); });
}

void DeferredEpisodes::promoteDeferredItems() {
  std::vector<std::string> feeds;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    for (const auto& record : fetchAllFeedRecords(context)) feeds.push_back(record->uuid());
  });

  // Cleaning first removes cancelled and vanished items and trims auto-delete
  // feeds, so the room computed below is current.
  for (const std::string& feed : feeds) cleaner_->clean(feed, true);

  std::vector<std::string> promoted;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    for (const auto& record : fetchAllFeedRecords(context)) {
      AssetDataOrderedSet& tracked = record->feedItemsSet();
      AssetDataOrderedSet& deferred = record->deferredFeedItemsSet();
      for (;;) {
        // A zero or negative maximum means "no limit" for promotion; the feed's
        // auto-delete flag plays no part.
        const std::int16_t max = record->maxItemsValue();
        const bool hasRoom = max <= 0 || tracked.count() < static_cast<std::size_t>(max);
        if (!hasRoom || deferred.empty()) break;
        // The oldest deferred item moves to the end of the tracked items; the
        // next addition re-sorts them.
        auto item = deferred.at(0);
        promoted.push_back(item->uuid());
        deferred.removeAt(0);
        tracked.add(std::move(item));
      }
    }
    env_.saveContext();
  });

  Value::Array added;
  for (const std::string& uuid : promoted) {
    std::shared_ptr<ZolvaniAsset> asset = env_.assetWithUUID(uuid);
    if (!asset) continue;  // stays tracked until a cancellation pass removes it
    if (env_.engine.downloadEngine) {
      // The line is written for every queueing outcome, success included.
      env_.engine.downloadEngine->addToQueue(
          asset, kQueueIndexAppend, [env = env_](bool, std::optional<Error>) {
            env.debugEvent(kQueueCompletionLocation, kQueueCompletionLine,
                           "Error encountered adding the asset to the queue.", 0);
          });
    }
    added.emplace_back(std::move(asset));
  }
  if (!added.empty())
    env_.postAsync(kSubscriptionManagerAssetAddedNotification,
                   kSubscriptionManagerNotificationZolvaniAssetsKey, Value(std::move(added)));
}

std::vector<std::string> DeferredEpisodes::deferredEpisodes() {
  std::map<std::string, std::vector<std::string>> deferredByFeed;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    for (const auto& record : fetchAllFeedRecords(context)) {
      std::vector<std::string> uuids;
      for (const auto& item : record->deferredFeedItemsSet()) uuids.push_back(item->uuid());
      deferredByFeed[record->uuid()] = std::move(uuids);
    }
  });

  std::vector<std::string> assetIDs;
  for (const auto& [feed, uuids] : deferredByFeed) {
    cleaner_->clean(feed, true);
    for (const std::string& uuid : uuids)
      if (auto asset = env_.assetWithUUID(uuid)) assetIDs.push_back(asset->assetID());
  }
  return assetIDs;
}

}  // namespace zolvani
