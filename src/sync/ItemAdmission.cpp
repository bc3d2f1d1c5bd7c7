#include "sync/ItemAdmission.h"

#include <algorithm>
#include <limits>

#include <fmt/format.h>

#include "manager/LogFormat.h"

namespace zolvani::sync {
namespace {

constexpr const char* kFeedStep =
    "-[ZolvaniSubscriptionManager syncSubscriptionsWithKeelhallNowForDataSince:"
    "returningOnlySubscribedFeeds:withForce:onComplete:] feed step";

const std::string& itemText(const Value::Map& item, std::string_view key) {
  static const std::string kEmpty;
  auto it = item.find(key);
  return it == item.end() ? kEmpty : it->second.stringValue();
}

double createdSeconds(const Value::Map& item) {
  auto it = item.find(SubscriptionAssetDataCreatedDateKey);
  if (it == item.end() || !it->second.isDate()) return -std::numeric_limits<double>::infinity();
  return it->second.asDate()->secondsSince1970;
}

std::shared_ptr<ZolvaniSubscriptionDataSource> makeDataSource(ZolvaniSubscriptionManager& manager) {
  DataSourceFactory factory = manager.dataSourceFactory();
  if (!factory) return nullptr;
  const ZolvaniEngine& engine = manager.environment().engine;
  return factory(DataSourceServices{engine.logger, engine.secureClock});
}

Value::Map assetsInfo(std::string_view key, Value::Array values) {
  Value::Map info;
  info.emplace(std::string(key), Value(std::move(values)));
  return info;
}

bool newItemAlreadyInEngine(ZolvaniSubscriptionManager& manager, const std::string& assetID) {
  if (!manager.environment().engine.assets->assetWithAssetID(std::string_view(assetID), 0))
    return false;
  manager.logString(
      "Content item with this asset ID already exists in the SDK.  Ignoring this item.", 1);
  return true;
}

void logNewItem(ZolvaniSubscriptionManager& manager, const Value::Map& item) {
  manager.logString(fmt::format("Found new item ({} - {}) that needs downloading from URL: {}",
                                itemText(item, SubscriptionAssetDataAssetIDKey),
                                itemText(item, SubscriptionAssetDataDescriptionKey),
                                itemText(item, SubscriptionAssetDataDownloadURLKey)),
                    4);
}

std::string describeItems(const std::vector<const Value::Map*>& items) {
  std::string out = "(\n";
  for (const Value::Map* item : items) {
    out += Value::describe(*item);
    out += ",\n";
  }
  out += ")";
  return out;
}

}  // namespace

std::vector<const Value::Map*> ItemAdmission::sortedItems(const Value& items) {
  std::vector<const Value::Map*> out;
  if (const Value::Array* array = items.asArray()) {
    out.reserve(array->size());
    for (const Value& v : *array)
      if (const Value::Map* m = v.asMap()) out.push_back(m);
  }
  std::stable_sort(out.begin(), out.end(), [](const Value::Map* a, const Value::Map* b) {
    return createdSeconds(*a) < createdSeconds(*b);
  });
  return out;
}

void ItemAdmission::processDirectItems(const std::shared_ptr<ZolvaniSubscriptionManager>& manager,
                                       nlohmann::json contentItems) {
  auto source = makeDataSource(*manager);
  if (!source) return;
  source->initWithAssets(contentItems);
  // The default source answers an empty batch with an empty map; anything that
  // is not an array holds no items.
  const Value processed = source->process();
  contentItems = nullptr;
  const std::vector<const Value::Map*> items = sortedItems(processed);
  manager->logString(fmt::format("Found {} new direct assets in Keelhall sync.", items.size()), 4);

  const ZolvaniEngine& engine = manager->environment().engine;
  if (!engine.downloadEngine->started()) return;

  Value::Array added;
  for (const Value::Map* item : items) {
    const std::string& assetID = itemText(*item, SubscriptionAssetDataAssetIDKey);
    if (newItemAlreadyInEngine(*manager, assetID)) continue;
    logNewItem(*manager, *item);
    // An asset the engine refused to make is skipped: there is nothing to announce.
    if (auto asset = manager->addSubscriptionItemFromFeedItem(*item, std::nullopt, source))
      added.emplace_back(std::move(asset));
  }
  if (!added.empty())
    manager->environment().platform.notificationCenter->post(
        std::string(kSubscriptionManagerAssetAddedNotification),
        assetsInfo(kSubscriptionManagerNotificationZolvaniAssetsKey, std::move(added)));
}

void ItemAdmission::processFeeds(const std::shared_ptr<ZolvaniSubscriptionManager>& manager,
                                 nlohmann::json collections,
                                 const std::optional<Value::Array>& subscriptions,
                                 std::optional<Date> lastSync, SyncCompletion completion,
                                 std::function<void()> finish) {
  const ManagerEnvironment& env = manager->environment();
  auto source = makeDataSource(*manager);
  Value processed;
  if (source) {
    source->initWithSubscriptions(collections);
    processed = source->process();
  }
  collections = nullptr;
  Value::Map noFeeds;
  Value::Map& feeds = processed.asMap() ? *processed.asMap() : noFeeds;
  manager->logString(
      fmt::format("Found {} feeds that have been updated during subscription processing.",
                  feeds.size()),
      4);

  if (!env.engine.downloadEngine->started()) {
    env.platform.mainQueue->async([manager, completion = std::move(completion)] {
      manager->reportStatus(kZSM_Errors);
      if (completion)
        completion(false, std::nullopt,
                   Error::make(std::string(kZolvaniSubscriptionManagerErrorDomain), -4,
                               "Subscriptions were received before the ZolvaniDownloadManager "
                               "instance was started."));
    });
    return;
  }

  Value::Array added, deferred, deleted;
  for (auto& entry : feeds) {
    const std::string& feed = entry.first;
    Value& feedItems = entry.second;
    manager->logString(fmt::format("Checking on feed({})", feed), 4);
    const bool subscribed =
        subscriptions &&
        std::any_of(subscriptions->begin(), subscriptions->end(),
                    [&](const Value& s) { return s.isString() && s.stringValue() == feed; });
    if (!subscribed) {
      manager->logString(
          "Skipping check on feed.  This device is not currently subscribed to the feed.", 4);
      continue;
    }

    std::vector<const Value::Map*> items = sortedItems(feedItems);
    env.engine.logger->addDebugEvent(
        locatedLine(kFeedStep, 882,
                    fmt::format("Found new feed items, in sorted order: {}", describeItems(items))),
        4);
    // The surplus goes from the end of the ascending list, which holds the
    // newest items; the message's "oldest" is what it has always said.
    const std::int32_t maximum = manager->maxItemsPerFeed(feed);
    while (maximum > 0 && items.size() > static_cast<std::size_t>(maximum)) {
      env.engine.logger->addDebugEvent(
          locatedLine(
              kFeedStep, 888,
              fmt::format("Received more items in the push for this feed than is allowed.  Dropped "
                          "oldest item from keelhall push data: {}",
                          Value::describe(*items.back()))),
          2);
      items.pop_back();
    }

    for (const Value::Map* item : items) {
      if (lastSync) {
        auto it = item->find(SubscriptionAssetDataCreatedDateKey);
        const bool dated = it != item->end() && it->second.isDate();
        // An item without a date is as old as can be.
        if (!dated || lastSync->laterDate(*it->second.asDate()) == *lastSync) {
          manager->logString(
              "Not adding asset to feed.  The asset is older than the last sync time on this "
              "device.",
              1);
          continue;
        }
      }
      if (newItemAlreadyInEngine(*manager, itemText(*item, SubscriptionAssetDataAssetIDKey)))
        continue;
      logNewItem(*manager, *item);
      // The asset and the feed's record of it are one admission: an engine
      // that commits in batches lands both or neither, so a commit failing
      // between them (a full disk) never leaves an asset that no feed tracks
      // and every later sync would ignore as already there.
      auto admit = [&] {
        auto asset = manager->addSubscriptionItemFromFeedItem(*item, feed, source);
        if (!asset) return;  // the engine refused it; nothing to track
        if (manager->canAddItem(asset, feed)) {
          added.emplace_back(asset);
          std::vector<std::string> removed = manager->addItem(asset, feed);
          if (!removed.empty()) {
            manager->logString(
                fmt::format("While adding items to feed from sync, feed has more than "
                            "the max items in it, reset "
                            "content for ({})",
                            feed),
                1);
            for (auto& uuid : removed) deleted.emplace_back(std::move(uuid));
          }
        } else {
          manager->addDeferredItem(asset, feed);
          deferred.emplace_back(std::move(asset));
        }
      };
      if (env.engine.utilities)
        env.engine.utilities->performAdmission(admit);
      else
        admit();
    }
    // This feed's asset-data maps are done with; the engine now holds its assets.
    items.clear();
    feedItems = Value();
  }

  NotificationCenter& center = *env.platform.notificationCenter;
  const bool nothingNew = added.empty() && deferred.empty();
  if (!deferred.empty())
    center.post(std::string(kSubscriptionManagerAssetDeferredNotification),
                assetsInfo(kSubscriptionManagerNotificationZolvaniAssetsKey, std::move(deferred)));
  if (!deleted.empty())
    center.post(
        std::string(kSubscriptionManagerAssetDeletedNotification),
        assetsInfo(kSubscriptionManagerNotificationZolvaniAssetUUIDsKey, std::move(deleted)));
  if (!added.empty())
    center.post(std::string(kSubscriptionManagerAssetAddedNotification),
                assetsInfo(kSubscriptionManagerNotificationZolvaniAssetsKey, std::move(added)));
  if (nothingNew)
    manager->logString(
        "Processed content from catalog, but didn't find any new episodes to download.", 4);

  env.platform.mainQueue->async(std::move(finish));
}

}  // namespace zolvani::sync
