#include "store/FeedStore.h"

#include <limits>

#include <fmt/format.h>

namespace zolvani {
namespace {

constexpr const char* kAddItemLocation = "-[ZolvaniSubscriptionManager addItem:toFeed:]_storeWork";
constexpr int kUndownloadedListLine = 2013;
constexpr int kUndownloadedDropLine = 2017;
constexpr int kItemListLine = 1986;
constexpr int kItemDropLine = 1990;

}  // namespace

FeedStore::FeedStore(FeedStoreEnvironment environment,
                     std::function<std::shared_ptr<DispatchQueue>()> processingQueue)
    : env_(std::move(environment)),
      cleaner_(std::make_shared<RetentionCleaner>(env_)),
      deferred_(std::make_shared<DeferredEpisodes>(env_, cleaner_, std::move(processingQueue))) {}

void FeedStore::setMaxItems(std::int32_t maxItems, bool autodelete, std::int32_t maxBitrate,
                            const std::string& feed) {
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, feed);
    if (!record) {
      record = context.insertSubscriptionData();
      if (!record) return;
      record->setUuid(feed);
    }
    // The field is 16 bits wide: 40000 is stored as -25536, 70000 as 4464.
    record->setMaxItemsValue(static_cast<std::int16_t>(maxItems));
    record->setAutodeleteValue(autodelete);
    record->setMaxBitrateValue(static_cast<std::int64_t>(maxBitrate));
    env_.saveContext();
  });
  // New rules take effect at once.
  cleaner_->clean(feed, true);
}

void FeedStore::removeFeed(const std::string& feed) {
  std::vector<std::string> uuids;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, feed);
    if (!record) return;
    for (const auto& item : record->feedItemsSet()) uuids.push_back(item->uuid());
    for (const auto& item : record->deferredFeedItemsSet()) uuids.push_back(item->uuid());
    context.deleteObject(record);
    env_.saveContext();
  });
  std::vector<std::string> deleted;
  deleteAssets(uuids, 0, &deleted);
  if (!deleted.empty()) env_.postAssetsDeleted(deleted);
}

bool FeedStore::canAddItem(const std::shared_ptr<ZolvaniAsset>& item,
                           const std::optional<std::string>& feed) {
  if (!feed) return true;
  cleaner_->clean(*feed, false);
  const std::optional<std::string> itemUUID =
      item ? std::optional<std::string>(item->uuid()) : std::nullopt;
  bool result = false;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, *feed);
    if (!record) return;
    const std::int32_t max = record->maxItemsValue();
    const bool autodelete = record->autodeleteValue();
    const AssetDataOrderedSet& items = record->feedItemsSet();
    const auto count = static_cast<std::int32_t>(items.count());
    bool alreadyTracked = false;
    if (itemUUID) {
      for (const auto& tracked : items) {
        if (tracked->uuid() == *itemUUID) {
          alreadyTracked = true;
          break;
        }
      }
    }
    // A negative maximum reads as "full" here although trimming and promotion
    // read it as "no limit"; a full feed without auto-delete admits only what
    // it already tracks.
    result = autodelete || count < max || max == 0 || alreadyTracked;
  });
  return result;
}

std::vector<std::string> FeedStore::addItem(const std::shared_ptr<ZolvaniAsset>& item,
                                            const std::string& feed) {
  std::shared_ptr<ZolvaniAssetData> data = item ? item->assetDataFromAsset() : nullptr;
  std::vector<std::string> dropped;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, feed);
    if (!record) return;
    AssetDataOrderedSet& items = record->feedItemsSet();
    insertOldestFirst(items, data);  // an item already tracked keeps its place

    const std::int16_t max = record->maxItemsValue();
    // Auto-delete is not consulted: adding beyond the maximum always trims.
    if (max > 0 && items.count() > static_cast<std::size_t>(max)) {
      const auto limit = static_cast<std::size_t>(max);
      if (env_.deleteOldContent()) {
        // Only unfinished items count against the limit: finished downloads
        // are kept, and the oldest unfinished ones make room.
        std::vector<std::shared_ptr<ZolvaniAssetData>> undownloaded;
        for (const auto& tracked : items) {
          if (auto itemContext = tracked->managedObjectContext())
            itemContext->refreshObject(tracked, false);
          if (!tracked->downloadCompleteDateTime()) undownloaded.push_back(tracked);
        }
        env_.debugEvent(kAddItemLocation, kUndownloadedListLine,
                        fmt::format("We may need to delete some assets because we now have more "
                                    "than max items.  Current undownloaded new items are: {}",
                                    describeAssetDataList(undownloaded)),
                        4);
        for (std::size_t first = 0; undownloaded.size() - first > limit; ++first) {
          const auto& oldest = undownloaded[first];
          env_.debugEvent(kAddItemLocation, kUndownloadedDropLine,
                          fmt::format("Dropping item: {}", describeAssetData(oldest)), 4);
          dropped.push_back(oldest->uuid());
          items.remove(oldest);
        }
      } else {
        env_.debugEvent(kAddItemLocation, kItemListLine,
                        fmt::format("We need to delete some assets becuase we now have more than "
                                    "max items.  Current asset list is: {}",
                                    describeAssetDataList(items.items())),
                        4);
        while (items.count() > limit) {
          auto oldest = items.at(0);
          env_.debugEvent(kAddItemLocation, kItemDropLine,
                          fmt::format("Dropping item: {}", describeAssetData(oldest)), 4);
          dropped.push_back(oldest->uuid());
          items.removeAt(0);
        }
      }
    }
    env_.saveContext();
  });
  deleteAssets(dropped, 2, nullptr);
  return dropped;
}

void FeedStore::includeItem(const std::shared_ptr<ZolvaniAsset>& item, const std::string& feed) {
  std::vector<std::string> dropped = addItem(item, feed);
  if (!dropped.empty()) env_.postAssetsDeleted(dropped);
}

void FeedStore::addDeferredItem(const std::shared_ptr<ZolvaniAsset>& item,
                                const std::string& feed) {
  std::shared_ptr<ZolvaniAssetData> data = item ? item->assetDataFromAsset() : nullptr;
  if (!data) return;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, feed);
    if (!record) return;
    AssetDataOrderedSet& deferred = record->deferredFeedItemsSet();
    insertOldestFirst(deferred, std::move(data));
    env_.saveContext();
  });
}

std::int32_t FeedStore::numberOfItemsInFeed(const std::string& feed) {
  std::int32_t count = 0;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    if (auto record = fetchFeedRecord(context, feed))
      count = static_cast<std::int32_t>(record->feedItemsSet().count());
  });
  return count;
}

std::vector<std::string> FeedStore::itemsInTrackingFeed(const std::string& feed) {
  std::vector<std::string> uuids;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, feed);
    if (!record) return;
    for (const auto& item : record->feedItemsSet()) uuids.push_back(item->uuid());
    for (const auto& item : record->deferredFeedItemsSet()) uuids.push_back(item->uuid());
  });
  return uuids;
}

std::int32_t FeedStore::maxItemsPerFeed(const std::string& feed) {
  std::int32_t max = 0;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    if (auto record = fetchFeedRecord(context, feed)) max = record->maxItemsValue();
  });
  return max;
}

bool FeedStore::autoDeleteForFeed(const std::string& feed) {
  bool autodelete = false;
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    if (auto record = fetchFeedRecord(context, feed)) autodelete = record->autodeleteValue();
  });
  return autodelete;
}

std::int64_t FeedStore::maxBitrateForFeed(const std::string& feed) {
  std::int64_t bitrate = std::numeric_limits<std::int64_t>::max();
  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    if (auto record = fetchFeedRecord(context, feed)) bitrate = record->maxBitrateValue();
  });
  return bitrate;
}

void FeedStore::cleanSubscriptionDataForFeed(const std::string& feed, bool checkForCanceled) {
  cleaner_->clean(feed, checkForCanceled);
}

void FeedStore::checkOnDeferredEpisodes() { deferred_->checkOnDeferredEpisodes(); }

std::vector<std::string> FeedStore::deferredEpisodes() { return deferred_->deferredEpisodes(); }

void FeedStore::deleteAssets(const std::vector<std::string>& uuids, std::int64_t reason,
                             std::vector<std::string>* deleted) const {
  for (const std::string& uuid : uuids) {
    auto asset = env_.assetWithUUID(uuid);
    if (!asset) continue;  // already gone: nothing to delete or announce
    asset->deleteAssetWithReason(reason, ignoreCompletion());
    if (deleted) deleted->push_back(uuid);
  }
}

}  // namespace zolvani
