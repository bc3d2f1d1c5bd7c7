// PLACEHOLDER: replaced by the catalog sync subsystem.
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {

void ZolvaniSubscriptionManager::makeCatalogSync() {}
void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowOnComplete(SyncCompletion) {}
void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowUsingForce(bool, SyncCompletion) {}
void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowForDataSince(std::optional<Date>, bool, SyncCompletion) {}
void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowForDataSince(std::optional<Date>, bool, bool, SyncCompletion) {}
std::shared_ptr<ZolvaniAsset> ZolvaniSubscriptionManager::addSubscriptionItemFromFeedItem(
    const Value::Map&, const std::optional<std::string>&, const std::shared_ptr<ZolvaniSubscriptionDataSource>&) {
  return nullptr;
}

ZolvaniSubscriptionDefaultDataSource::ZolvaniSubscriptionDefaultDataSource() {
  throw InternalInconsistencyException(
      "Callers must always use the initWithSubscription method to initialize new data sources");
}
ZolvaniSubscriptionDefaultDataSource::ZolvaniSubscriptionDefaultDataSource(DataSourceServices services)
    : services_(std::move(services)) {}
Value::Map ZolvaniSubscriptionDefaultDataSource::lookupMetadataForAssetID(const std::string&, const Value::Map& k) { return k; }
void ZolvaniSubscriptionDefaultDataSource::didProcessAssetWithMetadata(const Value::Map&) {}
void ZolvaniSubscriptionDefaultDataSource::willAddAsset(const std::shared_ptr<ZolvaniAsset>&) {}
void ZolvaniSubscriptionDefaultDataSource::didProcessItemWithSourceData(const nlohmann::json&) {}
void ZolvaniSubscriptionDefaultDataSource::initWithSubscriptions(const nlohmann::json& c) { data_ = &c; processingType_ = 1; }
void ZolvaniSubscriptionDefaultDataSource::initWithAssets(const nlohmann::json& c) { data_ = &c; processingType_ = 0; }
Value ZolvaniSubscriptionDefaultDataSource::process() { return Value(Value::Map{}); }
Value ZolvaniSubscriptionDefaultDataSource::processFeeds() { return Value(Value::Map{}); }
Value ZolvaniSubscriptionDefaultDataSource::processAssets() { return Value(Value::Array{}); }
std::optional<Value::Map> ZolvaniSubscriptionDefaultDataSource::processItemData(const nlohmann::json&, const std::optional<std::string>&) { return std::nullopt; }
void ZolvaniSubscriptionDefaultDataSource::debugEvent(std::string_view, int, std::string_view, std::int64_t) {}

}  // namespace zolvani
