// Data sources: turn the server's feed and item objects into asset-data
// dictionaries, the flat per-item maps that admission and asset creation read.
//
// The manager makes a fresh data source for every batch of server data through
// the factory registered with registerDataSource(), then calls either
// initWithSubscriptions() (a catalog's "collections") or initWithAssets() (its
// direct "contentItems") and then process(). A host substitutes its own class by
// registering a factory for it; deriving from ZolvaniSubscriptionDefaultDataSource
// keeps the default conversion and adds the willAddAsset() hook.
//
// Thread-safety: one instance is used by one batch on one thread at a time;
// different instances may run concurrently.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "zolvani/subscription/Value.h"
#include "zolvani/subscription/engine/EngineRoles.h"

namespace zolvani {

// What a data source may use of the engine.
struct ZSM_EXPORT DataSourceServices {
  std::shared_ptr<ZolvaniLogger> logger;
  std::shared_ptr<ZolvaniSecureClock> secureClock;
};

class ZSM_EXPORT ZolvaniSubscriptionDataSource {
 public:
  virtual ~ZolvaniSubscriptionDataSource() = default;
  // Feed mode, over the catalog's "collections" value. The JSON lives until
  // process() returns and is released then (a large catalog's parsed tree is
  // not kept while its assets are made): copy anything needed later.
  virtual void initWithSubscriptions(const nlohmann::json& collections) = 0;
  // Direct-item mode, over the catalog's "contentItems" value; it lives as
  // long as in feed mode.
  virtual void initWithAssets(const nlohmann::json& contentItems) = 0;
  // Feed mode: a map from feed identifier to an array of asset-data maps.
  // Direct-item mode: an array of asset-data maps.
  virtual Value process() = 0;
};

using DataSourceFactory =
    std::function<std::shared_ptr<ZolvaniSubscriptionDataSource>(const DataSourceServices&)>;

// A factory for a data source class constructible from DataSourceServices.
template <class T>
DataSourceFactory makeDataSourceFactory() {
  return [](const DataSourceServices& services) { return std::make_shared<T>(services); };
}

}  // namespace zolvani

namespace zolvani {

class ZolvaniAsset;

// The data source used unless the host registers its own: reads the server's
// feed and item objects (remoteUUID, metadata.*, created) into asset-data maps.
// Derive from it to fetch more metadata (lookupMetadataForAssetID) or to watch
// what it admits (the did/will hooks).
class ZSM_EXPORT ZolvaniSubscriptionDefaultDataSource : public ZolvaniSubscriptionDataSource {
 public:
  // Refused: throws InternalInconsistencyException with the reason "Callers must
  // always use the initWithSubscription method to initialize new data sources".
  ZolvaniSubscriptionDefaultDataSource();
  explicit ZolvaniSubscriptionDefaultDataSource(DataSourceServices services);

  // Returns `knownData` unchanged; the hook where a subclass may add metadata.
  // The map is handed over, not copied: an override changes it and returns it.
  virtual Value::Map lookupMetadataForAssetID(const std::string& assetID, Value::Map knownData);
  // Called with each admitted asset-data map.
  virtual void didProcessAssetWithMetadata(const Value::Map& metadata);
  // Called before an asset made from this batch is queued.
  virtual void willAddAsset(const std::shared_ptr<ZolvaniAsset>& asset);
  // Called with each admitted server item, during process(); the item is not
  // valid after process() returns.
  virtual void didProcessItemWithSourceData(const nlohmann::json& item);

  void initWithSubscriptions(const nlohmann::json& collections) override;
  void initWithAssets(const nlohmann::json& contentItems) override;
  Value process() override;

  virtual Value processFeeds();
  virtual Value processAssets();
  // One server item as an asset-data map; an empty map when the item has no
  // asset ID or an out-of-range media type; none when it cannot be read.
  virtual std::optional<Value::Map> processItemData(const nlohmann::json& item,
                                                    const std::optional<std::string>& fromFeed);

 protected:
  const DataSourceServices& services() const { return services_; }
  void debugEvent(std::string_view location, int line, std::string_view text, std::int64_t level);

 private:
  // Converts one item, checks what admission relies on, and appends it to `out`
  // or records why it was dropped.
  void admitItem(const nlohmann::json& item, const std::optional<std::string>& feed,
                 Value::Array& out);

  DataSourceServices services_;
  const nlohmann::json* data_ = nullptr;
  int processingType_ = -1;
};

}  // namespace zolvani
