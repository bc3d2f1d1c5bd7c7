// The engine's persistent store as the feed store uses it.
//
// ZolvaniManagedObjectContext is a unit of work: inside performBlockAndWait()
// a caller fetches SubscriptionData records, changes them in memory, inserts and
// deletes them; save() makes every pending change durable at once. A fetch sees
// the context's own pending changes. Records' collections hold references to the
// engine's asset-data records (the same objects on every fetch), never copies.
//
// Thread-safety: performBlockAndWait() may be called from any thread and
// serialises its blocks (a block may call it again, re-entrantly). Records and
// their collections may be touched only inside a block.
#pragma once

#include "zolvani/subscription/Export.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/engine/AssetDataOrderedSet.h"
#include "zolvani/subscription/engine/ZolvaniAsset.h"

namespace zolvani {

// The engine's published attribute names. The feed store fetches records by the
// fourth SubscriptionData attribute and orders items by the tenth asset-data one.
inline constexpr std::array<std::string_view, 7> SubscriptionDataAttributes = {
    "autodelete", "maxBitrate",        "maxItems",   "uuid",
    "feedItems",  "deferredFeedItems", "lastUpdated"};
inline constexpr std::array<std::string_view, 12> ZolvaniAssetDataAttributes = {
    "assetID",     "assetDescription", "remoteURL",        "manifestURL",
    "fileSize",    "fractionComplete", "downloadComplete", "downloadCompleteDateTime",
    "publishDate", "creationDate",     "expiryDate",       "uuid"};

// The per-feed tracking record the engine stores for the library.
class ZSM_EXPORT SubscriptionData {
 public:
  virtual ~SubscriptionData() = default;
  virtual std::string uuid() const = 0;
  virtual void setUuid(std::string uuid) = 0;
  virtual std::int16_t maxItemsValue() const = 0;
  virtual void setMaxItemsValue(std::int16_t value) = 0;
  virtual bool autodeleteValue() const = 0;
  virtual void setAutodeleteValue(bool value) = 0;
  virtual std::int64_t maxBitrateValue() const = 0;
  virtual void setMaxBitrateValue(std::int64_t value) = 0;
  // The tracked and deferred items; the caller changes them in place.
  virtual AssetDataOrderedSet& feedItemsSet() = 0;
  virtual AssetDataOrderedSet& deferredFeedItemsSet() = 0;
  void addFeedItemsObject(std::shared_ptr<ZolvaniAssetData> item) {
    feedItemsSet().add(std::move(item));
  }
};

// A fetch of SubscriptionData records, all of them or those whose attribute
// `key` equals `value` ("%K == %@").
struct ZSM_EXPORT SubscriptionDataFetchRequest {
  std::optional<std::string> key;
  std::string value;

  static SubscriptionDataFetchRequest all() { return {}; }
  static SubscriptionDataFetchRequest whereEquals(std::string_view key, std::string value) {
    return {std::string(key), std::move(value)};
  }
};

class ZSM_EXPORT ZolvaniManagedObjectContext {
 public:
  virtual ~ZolvaniManagedObjectContext() = default;
  virtual void performBlockAndWait(const std::function<void()>& block) = 0;
  // Records in the store's fetch order; an error leaves `error` set and
  // returns nothing.
  virtual std::vector<std::shared_ptr<SubscriptionData>> executeFetchRequest(
      const SubscriptionDataFetchRequest& request, std::optional<Error>* error) = 0;
  // A new, empty record, pending until save().
  virtual std::shared_ptr<SubscriptionData> insertSubscriptionData() = 0;
  virtual void deleteObject(const std::shared_ptr<SubscriptionData>& record) = 0;
  // Re-reads an asset-data record from the store, dropping unsaved changes to it
  // when `mergeChanges` is false.
  virtual void refreshObject(const std::shared_ptr<ZolvaniAssetData>& item, bool mergeChanges) = 0;
  // Makes every pending change durable at once; false on failure.
  virtual bool save() = 0;
};

}  // namespace zolvani
