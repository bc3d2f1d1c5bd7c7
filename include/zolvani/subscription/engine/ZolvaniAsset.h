// The engine's downloadable items as the library sees them.
//
// ZolvaniAsset is one asset (a single file or a streamed manifest) owned by the
// download engine; ZolvaniAssetData is its persistent record in the engine's
// store, the element of a feed's tracked and deferred collections;
// ZolvaniAssetFactory is the engine's class-level look-ups and factories.
//
// Thread-safety: every operation may be called from any thread. Asset-data
// records are changed only inside the store context's performBlockAndWait().
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zolvani/subscription/Date.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/Value.h"

namespace zolvani {

class ZolvaniManagedObjectContext;
class ZolvaniAssetData;

class ZSM_EXPORT ZolvaniAsset {
 public:
  virtual ~ZolvaniAsset() = default;

  // Backdates the asset to its feed item's creation date.
  virtual void _setCreationDate(Date date) = 0;
  // The engine's identifier of the asset.
  virtual std::string uuid() const = 0;
  // The content's asset identifier.
  virtual std::string assetID() const = 0;
  // Human-readable title, used in log lines.
  virtual std::string description() const = 0;
  // Unset until the download has completed.
  virtual std::optional<Date> downloadCompleteDateTime() const = 0;
  // Progress, 0 to 1.
  virtual double fractionComplete() const = 0;
  // The asset's persistent record, or null.
  virtual std::shared_ptr<ZolvaniAssetData> assetDataFromAsset() = 0;
  // Deletes the asset and its files. The completion may be empty.
  virtual void deleteAssetWithReason(
      std::int64_t reason, std::function<void(bool, std::optional<Error>)> onComplete) = 0;
};

class ZSM_EXPORT ZolvaniAssetData {
 public:
  virtual ~ZolvaniAssetData() = default;
  // The owning asset's UUID.
  virtual std::string uuid() const = 0;
  virtual std::optional<Date> downloadCompleteDateTime() const = 0;
  virtual std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() const = 0;
  // The value of one of the attributes named in ZolvaniAssetDataAttributes;
  // null for an unknown name. The feed store sorts by one of them.
  virtual Value valueForKey(std::string_view attribute) const = 0;
};

// Called when the engine has finished preparing an asset.
using AssetReadyCallback = std::function<void(std::shared_ptr<ZolvaniAsset>)>;
// Called when the engine has parsed an asset's manifest (or failed to).
using AssetParseCallback = std::function<void(std::shared_ptr<ZolvaniAsset>, std::optional<Error>)>;

class ZSM_EXPORT ZolvaniAssetFactory {
 public:
  virtual ~ZolvaniAssetFactory() = default;

  // Look-up by the engine's identifier; null when there is no such asset.
  virtual std::shared_ptr<ZolvaniAsset> assetWithUUID(std::string_view uuid,
                                                      std::int64_t availabilityFilter) = 0;
  // Look-up by the content's asset identifier; null when there is none.
  virtual std::shared_ptr<ZolvaniAsset> assetWithAssetID(std::string_view assetID,
                                                         std::int64_t availabilityFilter) = 0;

  // Creates a streamed (manifest-based) asset; null when the engine refuses.
  virtual std::shared_ptr<ZolvaniAsset> assetWithAssetID(
      std::string assetID, std::string description, std::string manifestUrl,
      std::int32_t protectionType, bool includeEncryptionKeys, std::int64_t maximumBitrate,
      std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
      double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
      std::optional<Value::Map> userInfo, AssetReadyCallback onReadyForDownload,
      AssetParseCallback onParseComplete) = 0;

  // Creates a single-file asset; null when the engine refuses.
  virtual std::shared_ptr<ZolvaniAsset> assetWithRemoteURL(
      std::string remoteURL, std::string assetID, std::string description,
      std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
      double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
      std::optional<Value::Map> userInfo, AssetReadyCallback onReadyForDownload,
      AssetParseCallback onParseComplete) = 0;
};

}  // namespace zolvani
