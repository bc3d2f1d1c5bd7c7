// Asset creation: one admitted asset-data map becomes an engine asset, queued
// for download once the engine has prepared it.
#include <utility>

#include <fmt/format.h>

#include "manager/LogFormat.h"
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {
namespace {

constexpr const char* kManifestReady =
    "-[ZolvaniSubscriptionManager addSubscriptionItemFromFeedItem:inFeed:withDataSource:] "
    "manifest ready";
constexpr const char* kSingleFileReady =
    "-[ZolvaniSubscriptionManager addSubscriptionItemFromFeedItem:inFeed:withDataSource:] "
    "single-file ready";
// The engine's lifetimes default to this library's marker for "not given".
constexpr double kNoLifetime = -42.0;
constexpr std::int32_t kNoDownloadLimit = -1;
constexpr std::int32_t kManifestMediaType = 3;

// A member that is missing or null counts as absent.
const Value* given(const Value::Map& data, std::string_view key) {
  auto it = data.find(key);
  return it == data.end() || it->second.isNull() ? nullptr : &it->second;
}

std::string text(const Value::Map& data, std::string_view key) {
  const Value* v = given(data, key);
  return v ? v->stringValue() : std::string();
}

std::optional<Date> date(const Value::Map& data, std::string_view key) {
  const Value* v = given(data, key);
  return v && v->isDate() ? std::optional<Date>(*v->asDate()) : std::nullopt;
}

double lifetime(const Value::Map& data, std::string_view key) {
  const Value* v = given(data, key);
  return v ? v->doubleValue() : kNoLifetime;
}

// The hooks of the default data source reach only it and classes derived from it.
ZolvaniSubscriptionDefaultDataSource* defaultSource(
    const std::shared_ptr<ZolvaniSubscriptionDataSource>& source) {
  return dynamic_cast<ZolvaniSubscriptionDefaultDataSource*>(source.get());
}

}  // namespace

std::shared_ptr<ZolvaniAsset> ZolvaniSubscriptionManager::addSubscriptionItemFromFeedItem(
    const Value::Map& item, const std::optional<std::string>& inFeed,
    const std::shared_ptr<ZolvaniSubscriptionDataSource>& withDataSource) {
  const Value* mediaTypeValue = given(item, SubscriptionAssetDataMediaTypeKey);
  const std::int32_t mediaType = mediaTypeValue ? mediaTypeValue->int32Value() : 0;
  const std::string assetID = text(item, SubscriptionAssetDataAssetIDKey);

  std::string description = text(item, SubscriptionAssetDataTitleKey);
  if (description.empty()) description = text(item, SubscriptionAssetDataDescriptionKey);
  const std::string url = text(item, SubscriptionAssetDataDownloadURLKey);
  const std::optional<Date> publishDate = date(item, SubscriptionAssetDataPublishDateKey);
  const std::optional<Date> expiryDate = date(item, SubscriptionAssetDataExpiryDateKey);
  const double expiryAfterDownload = lifetime(item, SubscriptionAssetDataExpiryAfterDownloadKey);
  const double expiryAfterPlay = lifetime(item, SubscriptionAssetDataExpiryAfterPlayKey);
  std::optional<Value::Map> userInfo;
  if (const Value* v = given(item, SubscriptionAssetDataUserInfoKey); v && v->isMap())
    userInfo = *v->asMap();

  // The callbacks hold the manager weakly, and let go of the data source once
  // they have run: an engine may keep them for as long as the asset lives, and
  // the data source holds engine roles, which would otherwise close a cycle
  // through the engine's own assets.
  std::weak_ptr<ZolvaniSubscriptionManager> weak = weak_from_this();
  auto sourceSlot =
      std::make_shared<std::shared_ptr<ZolvaniSubscriptionDataSource>>(withDataSource);
  auto takeSource =
      [](const std::shared_ptr<std::shared_ptr<ZolvaniSubscriptionDataSource>>& slot) {
        return std::exchange(*slot, nullptr);
      };
  std::shared_ptr<ZolvaniAsset> asset;
  if (mediaType == kManifestMediaType) {
    // The feed's limit is asked for by the asset ID; an explicit bit rate in the
    // item (the default data source always gives one) overrides it.
    std::int64_t maximumBitrate = maxBitrateForFeed(assetID);
    if (const Value* v = given(item, SubscriptionAssetDataMaximumBitrateKey))
      maximumBitrate = v->int32Value();
    logString(fmt::format("Adding new asset from feed item data:\n\n{}\n\n", Value::describe(item)),
              4);

    AssetReadyCallback ready = [weak, inFeed, sourceSlot,
                                takeSource](std::shared_ptr<ZolvaniAsset> readyAsset) {
      auto withDataSource = takeSource(sourceSlot);
      auto self = weak.lock();
      if (!self || !readyAsset) return;
      const ZolvaniEngine& engine = self->env_.engine;
      if (!engine.assets->assetWithUUID(readyAsset->uuid(), 0)) {
        engine.logger->addDebugEvent(
            locatedLine(
                kManifestReady, 573,
                "Asset we just created got deleted before we could finish setting it up and "
                "queue it for download.  This probably means that several items came in all "
                "at once and one or more got deleted to make way for the later (newer) ones."),
            2);
        return;
      }
      if (auto* source = defaultSource(withDataSource)) source->willAddAsset(readyAsset);
      if (!self->canAddItem(readyAsset, inFeed)) return;
      engine.downloadEngine->addToQueue(
          readyAsset, kQueueIndexAppend, [weak](bool, std::optional<Error> error) {
            auto s = weak.lock();
            if (s && error)
              s->env_.engine.logger->addDebugEvent(
                  locatedLine(kManifestReady, 567,
                              fmt::format("Error encountered adding asset to queue: {}",
                                          error->describe())),
                  0);
          });
    };
    asset = env_.engine.assets->assetWithAssetID(
        assetID, description, url, 0, true, maximumBitrate, publishDate, expiryDate,
        expiryAfterDownload, expiryAfterPlay, kNoDownloadLimit, false, userInfo, std::move(ready),
        [](std::shared_ptr<ZolvaniAsset>, std::optional<Error>) {});
  } else {
    logString(fmt::format("Adding new asset from feed item data:\n\n{}\n\n", Value::describe(item)),
              4);

    AssetReadyCallback ready = [weak, inFeed, sourceSlot,
                                takeSource](std::shared_ptr<ZolvaniAsset> readyAsset) {
      auto withDataSource = takeSource(sourceSlot);
      auto self = weak.lock();
      if (!self || !readyAsset) return;
      if (!self->canAddItem(readyAsset, inFeed)) return;
      if (auto* source = defaultSource(withDataSource)) source->willAddAsset(readyAsset);
      self->logString("Asset finished initialization.  Adding asset to download queue.", 4);
      self->env_.engine.downloadEngine->addToQueue(
          readyAsset, kQueueIndexAppend, [weak](bool, std::optional<Error> error) {
            auto s = weak.lock();
            if (s && error)
              s->env_.engine.logger->addDebugEvent(
                  locatedLine(kSingleFileReady, 629,
                              fmt::format("Error encountered adding the asset to the queue: {}",
                                          error->describe())),
                  0);
          });
    };
    asset = env_.engine.assets->assetWithRemoteURL(
        url, assetID, description, publishDate, expiryDate, expiryAfterDownload, expiryAfterPlay,
        kNoDownloadLimit, false, userInfo, std::move(ready),
        [](std::shared_ptr<ZolvaniAsset>, std::optional<Error>) {});
  }

  if (asset) {
    if (std::optional<Date> created = date(item, SubscriptionAssetDataCreatedDateKey))
      asset->_setCreationDate(*created);
  }
  return asset;
}

}  // namespace zolvani
