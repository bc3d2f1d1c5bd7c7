#include "store/FeedStoreEnvironment.h"

#include <fmt/format.h>

#include "manager/LogFormat.h"
#include "zolvani/subscription/Constants.h"

namespace zolvani {

std::shared_ptr<ZolvaniManagedObjectContext> FeedStoreEnvironment::sharedContext() const {
  return engine.utilities ? engine.utilities->managedObjectContext() : nullptr;
}

void FeedStoreEnvironment::saveContext() const {
  if (engine.utilities) engine.utilities->saveContext();
}

std::shared_ptr<ZolvaniAsset> FeedStoreEnvironment::assetWithUUID(const std::string& uuid) const {
  return engine.assets ? engine.assets->assetWithUUID(uuid, 0) : nullptr;
}

void FeedStoreEnvironment::log(const std::string& message, std::int64_t level) const {
  if (logString) logString(message, level);
}

void FeedStoreEnvironment::debugEvent(std::string_view location, int line, std::string_view text,
                                      std::int64_t level) const {
  if (engine.logger) engine.logger->addDebugEvent(locatedLine(location, line, text), level);
}

void FeedStoreEnvironment::postAsync(std::string_view name, std::string_view key,
                                     Value value) const {
  if (!mainQueue || !notificationCenter) return;
  mainQueue->async([center = notificationCenter, name = std::string(name),
                    info = Value::Map{{std::string(key), std::move(value)}}]() mutable {
    center->post(std::move(name), std::move(info));
  });
}

void FeedStoreEnvironment::postAssetsDeleted(const std::vector<std::string>& uuids) const {
  Value::Array list(uuids.begin(), uuids.end());
  postAsync(kSubscriptionManagerAssetDeletedNotification,
            kSubscriptionManagerNotificationZolvaniAssetUUIDsKey, Value(std::move(list)));
}

bool FeedStoreEnvironment::deleteOldContent() const {
  // The manager fixes the setting at true; a bare store follows it.
  return deleteOldContentAfterNewContentDownloads ? deleteOldContentAfterNewContentDownloads()
                                                  : true;
}

std::shared_ptr<SubscriptionData> fetchFeedRecord(ZolvaniManagedObjectContext& context,
                                                  const std::string& feed) {
  std::optional<Error> error;
  auto records = context.executeFetchRequest(
      SubscriptionDataFetchRequest::whereEquals(SubscriptionDataAttributes[3], feed), &error);
  // A failed fetch reads as "no record"; several records for one feed should
  // not exist, and when they do the first one is the feed's.
  if (error || records.empty()) return nullptr;
  return records.front();
}

std::vector<std::shared_ptr<SubscriptionData>> fetchAllFeedRecords(
    ZolvaniManagedObjectContext& context) {
  std::optional<Error> error;
  auto records = context.executeFetchRequest(SubscriptionDataFetchRequest::all(), &error);
  if (error) return {};
  std::erase(records, nullptr);
  return records;
}

void insertOldestFirst(AssetDataOrderedSet& items, std::shared_ptr<ZolvaniAssetData> item) {
  items.insertSorted(std::move(item), ZolvaniAssetDataAttributes[9]);
}

std::string describeAssetData(const std::shared_ptr<ZolvaniAssetData>& item) {
  if (!item) return "(null)";
  return fmt::format("<ZolvaniAssetData uuid: {}>", item->uuid());
}

std::string describeAssetDataList(const std::vector<std::shared_ptr<ZolvaniAssetData>>& items) {
  std::string out = "(";
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i) out += ", ";
    out += describeAssetData(items[i]);
  }
  return out + ")";
}

std::function<void(bool, std::optional<Error>)> ignoreCompletion() {
  return [](bool, std::optional<Error>) {};
}

}  // namespace zolvani
