#include "store/RetentionCleaner.h"

#include <unordered_set>
#include <vector>

#include <fmt/format.h>

namespace zolvani {
namespace {

constexpr const char* kCleanLocation =
    "-[ZolvaniSubscriptionManager cleanSubscriptionDataForFeed:checkForCanceled:]";
constexpr const char* kTrimLocation =
    "-[ZolvaniSubscriptionManager cleanSubscriptionDataForFeed:checkForCanceled:]_trimming";
constexpr int kUndownloadedListLine = 1785;
constexpr int kUndownloadedDeletionLine = 1790;
constexpr int kDownloadedListLine = 1799;
constexpr int kDownloadedDeletionLine = 1804;
constexpr int kItemListLine = 1755;
constexpr int kItemDeletionLine = 1759;
constexpr int kRuleDeletionLine = 1819;

using ItemList = std::vector<std::shared_ptr<ZolvaniAssetData>>;

}  // namespace

RetentionCleaner::RetentionCleaner(FeedStoreEnvironment environment)
    : env_(std::move(environment)) {}

void RetentionCleaner::clean(const std::string& feed, bool checkForCanceled) const {
  // Snapshots of what the engine is working on, taken once before any store
  // work; they may be slightly stale by the time an item is judged. Without
  // checkForCanceled they cannot change any verdict (an unfinished asset that
  // still exists is kept either way), so they are not taken: admission calls
  // this for every new item, and copying a long download queue each time would
  // make a large sync quadratic.
  std::vector<std::string> queue;
  std::vector<std::shared_ptr<ZolvaniAsset>> inTransfer;
  if (checkForCanceled) {
    if (env_.engine.downloadEngine) queue = env_.engine.downloadEngine->assetsInQueue();
    if (env_.engine.sessionHelper) inTransfer = env_.engine.sessionHelper->zfm_processingAssets();
  }
  // Membership is tested once per tracked item; sets keep a large feed linear.
  // `inTransfer` keeps the objects alive, so their addresses stay unique.
  const std::unordered_set<std::string> queued(queue.begin(), queue.end());
  std::unordered_set<const ZolvaniAsset*> transferring;
  for (const auto& asset : inTransfer) transferring.insert(asset.get());

  std::vector<std::string> tracked;
  std::vector<std::string> cancelled;
  std::vector<std::string> announced;

  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, feed);
    if (!record) return;
    AssetDataOrderedSet& items = record->feedItemsSet();
    env_.log(fmt::format("Found {} items and {} deferred items in feed({})", items.count(),
                         record->deferredFeedItemsSet().count(), feed),
             4);
    tracked.reserve(items.count());
    for (const auto& item : items) tracked.push_back(item->uuid());
  });

  // Cancellation pass, outside the store: the engine is asked about each asset.
  for (const std::string& uuid : tracked) {
    std::shared_ptr<ZolvaniAsset> asset = env_.assetWithUUID(uuid);
    bool isCancelled;
    if (!asset) {
      isCancelled = true;  // deleted outside the library
    } else if (!checkForCanceled) {
      // Only a missing asset counts as cancelled here; admission passes this
      // way for every new item, so the asset is not asked anything more.
      isCancelled = false;
    } else if (asset->downloadCompleteDateTime()) {
      isCancelled = false;  // a finished download is never cancelled
    } else if (queued.count(asset->uuid()) || transferring.count(asset.get())) {
      isCancelled = false;
    } else {
      isCancelled = true;  // neither finished, queued nor transferring
    }
    if (!isCancelled) continue;
    env_.log(
        fmt::format("Found tracked subscription item in feed ({}) that was canceled or "
                    "externally deleted.  Item UUID({}) Asset({}) Fraction Complete({:.2f})",
                    feed, uuid, Value(asset).describe(), asset ? asset->fractionComplete() : 0.0),
        1);
    if (asset) asset->deleteAssetWithReason(2, ignoreCompletion());
    cancelled.push_back(uuid);
    announced.push_back(uuid);
  }

  // A second deletion of every cancelled asset. Usually the first one removed
  // it and the look-up finds nothing; the repeat is part of the sequence the
  // engine expects from a clean.
  for (const std::string& uuid : cancelled) {
    if (auto asset = env_.assetWithUUID(uuid)) asset->deleteAssetWithReason(2, nullptr);
  }
  // Cancelled items stay in feedItems: the engine's deletion of the asset
  // removes its record from the feed.
  tracked.clear();

  env_.performStoreWork([&](ZolvaniManagedObjectContext& context) {
    auto record = fetchFeedRecord(context, feed);
    if (!record) return;
    AssetDataOrderedSet& items = record->feedItemsSet();
    const std::size_t count = items.count();
    const std::int16_t max = record->maxItemsValue();
    // A negative or zero maximum means "no limit" here, unlike admission.
    if (!(max > 0 && count > static_cast<std::size_t>(max) && record->autodeleteValue())) return;
    const auto limit = static_cast<std::size_t>(max);

    if (env_.deleteOldContent()) {
      ItemList undownloaded, downloaded;
      for (const auto& item : items) {
        if (auto itemContext = item->managedObjectContext())
          itemContext->refreshObject(item, false);
        (item->downloadCompleteDateTime() ? downloaded : undownloaded).push_back(item);
      }
      // Each group is capped at the maximum on its own: a feed keeps up to its
      // maximum of unfinished items plus its maximum of finished ones.
      auto trimGroup = [&](ItemList& group, int listLine, std::string_view listText,
                           int deletionLine, std::string_view groupName,
                           std::string_view assetKind) {
        env_.debugEvent(kTrimLocation, listLine,
                        fmt::format("{}{}", listText, describeAssetDataList(group)), 4);
        std::size_t first = 0;
        while (group.size() - first > limit) {
          const auto& item = group[first];
          env_.debugEvent(
              kTrimLocation, deletionLine,
              fmt::format("We have {} {} items out of {} max items.  Deleting oldest "
                          "{} asset: {}",
                          group.size() - first, groupName, max, assetKind, describeAssetData(item)),
              2);
          tracked.push_back(item->uuid());
          announced.push_back(item->uuid());
          items.remove(item);
          ++first;
        }
      };
      trimGroup(undownloaded, kUndownloadedListLine,
                "We may need to delete some items because we currently have more than the max "
                "allowed.  Current undownloaded item list: ",
                kUndownloadedDeletionLine, "undownloaded new", "undownloaded");
      trimGroup(downloaded, kDownloadedListLine,
                "Current downloaded item list: ", kDownloadedDeletionLine, "downloaded old",
                "downloaded");
    } else {
      env_.debugEvent(kTrimLocation, kItemListLine,
                      fmt::format("We need to delete some items because we have more than the "
                                  "max allowed.  Current item list is: {}",
                                  describeAssetDataList(items.items())),
                      4);
      while (items.count() > limit) {
        auto item = items.at(0);
        env_.debugEvent(kTrimLocation, kItemDeletionLine,
                        fmt::format("Deleting item: {}", describeAssetData(item)), 4);
        tracked.push_back(item->uuid());
        announced.push_back(item->uuid());
        items.removeAt(0);
      }
    }
    // Saved below, together with whatever the deletions changed.
  });

  for (const std::string& uuid : tracked) {
    std::shared_ptr<ZolvaniAsset> asset = env_.assetWithUUID(uuid);
    env_.debugEvent(kCleanLocation, kRuleDeletionLine,
                    fmt::format("Deleting asset({}) due to subscription rules...",
                                asset ? asset->description() : std::string("(null)")),
                    2);
    if (asset) asset->deleteAssetWithReason(2, nullptr);
  }

  env_.saveContext();
  if (!announced.empty()) env_.postAssetsDeleted(announced);
}

}  // namespace zolvani
