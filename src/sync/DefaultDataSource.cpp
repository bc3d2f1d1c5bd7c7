// The default data source: reads the server's feed and item objects into
// asset-data maps.
#include <fmt/format.h>

#include "manager/LogFormat.h"
#include "sync/JsonRead.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/TextUtilities.h"
#include "zolvani/subscription/ZolvaniSubscriptionDataSource.h"

namespace zolvani {
namespace {

constexpr const char* kProcess = "-[ZolvaniSubscriptionDefaultDataSource process]";
constexpr const char* kProcessFeeds = "-[ZolvaniSubscriptionDefaultDataSource processFeeds]";
constexpr const char* kProcessAssets = "-[ZolvaniSubscriptionDefaultDataSource processAssets]";
constexpr int kProcessingFeeds = 1;
constexpr int kProcessingAssets = 0;

constexpr const char* kNotEnoughData =
    "Didn't receive enough data in server response to continue.  Ignoring item.";
constexpr const char* kIncomplete =
    "Lookup response did not return all required information - Ignoring item.";

// The line numbers of one processing mode's debug events.
struct ItemLines {
  int nilResult, emptyResult, parsed, incomplete;
};
constexpr ItemLines kFeedLines{213, 166, 186, 204};
constexpr ItemLines kAssetLines{282, 242, 262, 273};

const Value* mapValue(const Value::Map& map, std::string_view key) {
  auto it = map.find(key);
  return it == map.end() ? nullptr : &it->second;
}

bool nonEmptyString(const Value::Map& map, std::string_view key) {
  const Value* v = mapValue(map, key);
  return v && v->isString() && !v->stringValue().empty();
}

// A lifetime as the server sent it, kept unchanged unless it reads below one
// second, which means "none" and becomes 0. A value that is not a scalar cannot
// be a lifetime and reads as 0 too.
Value lifetime(const nlohmann::json* value) {
  if (!sync::isScalar(value) || sync::int64Of(value) < 1) return Value(std::int64_t{0});
  if (value->is_string()) return Value(value->get_ref<const std::string&>());
  if (value->is_boolean()) return Value(value->get<bool>());
  if (value->is_number_float()) return Value(sync::doubleOf(value));
  return Value(sync::int64Of(value));
}

// The asset-data keys, made once: every admitted item's map carries them.
struct AssetDataKeys {
  Value::Key collectionAssetID{SubscriptionAssetDataCollectionAssetIDKey};
  Value::Key createdDate{SubscriptionAssetDataCreatedDateKey};
  Value::Key mediaType{SubscriptionAssetDataMediaTypeKey};
  Value::Key assetID{SubscriptionAssetDataAssetIDKey};
  Value::Key description{SubscriptionAssetDataDescriptionKey};
  Value::Key downloadURL{SubscriptionAssetDataDownloadURLKey};
  Value::Key maximumBitrate{SubscriptionAssetDataMaximumBitrateKey};
  Value::Key publishDate{SubscriptionAssetDataPublishDateKey};
  Value::Key expiryDate{SubscriptionAssetDataExpiryDateKey};
  Value::Key expiryAfterDownload{SubscriptionAssetDataExpiryAfterDownloadKey};
  Value::Key expiryAfterPlay{SubscriptionAssetDataExpiryAfterPlayKey};
  Value::Key permittedMimeTypes{SubscriptionAssetDataPermittedMimeTypesKey};
  Value::Key collectionUUID{SubscriptionServerCollectionUUIDKey};
};

const AssetDataKeys& keys() {
  static const AssetDataKeys k;
  return k;
}

}  // namespace

ZolvaniSubscriptionDefaultDataSource::ZolvaniSubscriptionDefaultDataSource() {
  throw InternalInconsistencyException(
      "Callers must always use the initWithSubscription method to initialize new data sources");
}

ZolvaniSubscriptionDefaultDataSource::ZolvaniSubscriptionDefaultDataSource(
    DataSourceServices services)
    : services_(std::move(services)) {}

Value::Map ZolvaniSubscriptionDefaultDataSource::lookupMetadataForAssetID(const std::string&,
                                                                          Value::Map knownData) {
  return knownData;
}

void ZolvaniSubscriptionDefaultDataSource::didProcessAssetWithMetadata(const Value::Map&) {}

void ZolvaniSubscriptionDefaultDataSource::willAddAsset(const std::shared_ptr<ZolvaniAsset>&) {}

void ZolvaniSubscriptionDefaultDataSource::didProcessItemWithSourceData(const nlohmann::json&) {}

void ZolvaniSubscriptionDefaultDataSource::initWithSubscriptions(
    const nlohmann::json& collections) {
  data_ = &collections;
  processingType_ = kProcessingFeeds;
}

void ZolvaniSubscriptionDefaultDataSource::initWithAssets(const nlohmann::json& contentItems) {
  data_ = &contentItems;
  processingType_ = kProcessingAssets;
}

Value ZolvaniSubscriptionDefaultDataSource::process() {
  // Anything but a non-empty array is no data: a "collections" that arrives as
  // an object or a number holds nothing this source can read.
  if (!data_ || !data_->is_array() || data_->empty()) {
    debugEvent(kProcess, 111, "No subscription data to process.", 4);
    return Value(Value::Map{});
  }
  if (processingType_ == kProcessingFeeds) return processFeeds();
  if (processingType_ == kProcessingAssets) return processAssets();
  return Value(Value::Map{});
}

Value ZolvaniSubscriptionDefaultDataSource::processFeeds() {
  Value::Map result;
  if (!data_ || !data_->is_array()) return Value(std::move(result));
  for (const nlohmann::json& feed : *data_) {
    if (!sync::boolOf(sync::member(feed, SubscriptionFeedDataSubscribableKey))) continue;
    // A feed is known by its identifier; one that has none (or not as text)
    // cannot be tracked, so its items are left alone.
    const nlohmann::json* feedIDValue = sync::member(feed, SubscriptionServerRemoteUUIDKey);
    if (!feedIDValue || !feedIDValue->is_string()) continue;
    const std::string& feedID = feedIDValue->get_ref<const std::string&>();
    const nlohmann::json* items = sync::member(feed, SubscriptionServerAssetsKey);
    if (!items || !items->is_array()) continue;

    Value::Array out;
    out.reserve(items->size());
    for (const nlohmann::json& item : *items) admitItem(item, feedID, out);
    if (!out.empty()) result[feedID] = Value(std::move(out));
  }
  return Value(std::move(result));
}

Value ZolvaniSubscriptionDefaultDataSource::processAssets() {
  Value::Array out;
  if (!data_ || !data_->is_array()) return Value(std::move(out));
  out.reserve(data_->size());
  for (const nlohmann::json& item : *data_) admitItem(item, std::nullopt, out);
  return Value(std::move(out));
}

void ZolvaniSubscriptionDefaultDataSource::admitItem(const nlohmann::json& item,
                                                     const std::optional<std::string>& feed,
                                                     Value::Array& out) {
  const char* location = feed ? kProcessFeeds : kProcessAssets;
  const ItemLines& lines = feed ? kFeedLines : kAssetLines;
  std::optional<Value::Map> parsed = processItemData(item, feed);
  if (!parsed) {
    debugEvent(location, lines.nilResult, kNotEnoughData, 0);
    return;
  }
  if (parsed->empty()) {
    debugEvent(location, lines.emptyResult, kNotEnoughData, 0);
    return;
  }
  const std::string& assetID = sync::stringOf(sync::member(item, SubscriptionServerRemoteUUIDKey));
  if (assetID.empty()) return;
  Value::Map data = lookupMetadataForAssetID(assetID, std::move(*parsed));
  data[keys().assetID] = Value(assetID);
  if (!(nonEmptyString(data, SubscriptionAssetDataAssetIDKey) &&
        nonEmptyString(data, SubscriptionAssetDataDownloadURLKey) &&
        mapValue(data, SubscriptionAssetDataCreatedDateKey) &&
        mapValue(data, SubscriptionAssetDataMediaTypeKey))) {
    debugEvent(location, lines.incomplete, kIncomplete, 0);
    return;
  }
  debugEvent(location, lines.parsed, fmt::format("Found and parsed item ({}).", assetID), 4);
  if (feed && !feed->empty()) data[keys().collectionUUID] = Value(*feed);
  out.emplace_back(std::move(data));
  didProcessItemWithSourceData(item);
  didProcessAssetWithMetadata(*out.back().asMap());
}

std::optional<Value::Map> ZolvaniSubscriptionDefaultDataSource::processItemData(
    const nlohmann::json& item, const std::optional<std::string>& fromFeed) {
  // An item that is not an object, or whose identifier is not text, cannot be
  // read at all.
  if (!item.is_object()) return std::nullopt;
  const nlohmann::json* remoteUUID = sync::member(item, SubscriptionServerRemoteUUIDKey);
  if (sync::present(remoteUUID) && !remoteUUID->is_string()) return std::nullopt;

  const std::string& assetID = sync::stringOf(remoteUUID);
  std::string title =
      stringByDecodingHTMLEntities(sync::stringOf(sync::keyPath(item, "metadata.title")));
  std::string description =
      stringByDecodingHTMLEntities(sync::stringOf(sync::keyPath(item, "metadata.desc")));
  if (title.empty() && !description.empty()) title = description;
  if (!title.empty() && description.empty()) description = title;
  const std::string& downloadURL = sync::stringOf(sync::keyPath(item, "metadata.downloadURL"));
  // The media type is looked up under the literal key "metadata.mediaType",
  // not as a path, so a media type inside "metadata" reads as 0; only the range
  // check below looks at the nested value. Servers have always been read so.
  std::int32_t mediaType = sync::int32Of(sync::member(item, "metadata.mediaType"));

  if (assetID.empty()) return Value::Map{};
  if (sync::present(sync::keyPath(item, "metadata.mediaType")) && (mediaType < 0 || mediaType > 5))
    return Value::Map{};

  std::optional<Date> publishDate;
  if (std::int32_t from = sync::int32Of(sync::keyPath(item, "metadata.availableFrom")); from > 0)
    publishDate = Date(static_cast<double>(from));

  // "created" may be seconds or milliseconds: a value that, read as seconds,
  // lies at or beyond the trusted clock's now must be milliseconds.
  std::int64_t created = sync::int64Of(sync::member(item, "created"));
  Date createdDate = created >= 1 ? Date(static_cast<double>(created)) : Date(0.0);
  if (services_.secureClock) {
    Date now = services_.secureClock->date();
    if (createdDate.laterDate(now) == createdDate && created > 0)
      createdDate = Date(static_cast<double>(created / 1000));
  }

  std::optional<Date> expiryDate;
  if (std::int32_t expiry = sync::int32Of(sync::keyPath(item, "metadata.catalogExpiry"));
      expiry > 0)
    expiryDate = Date(static_cast<double>(expiry));

  const nlohmann::json* downloadExpiry = sync::keyPath(item, "metadata.downloadExpiry");
  const nlohmann::json* playExpiry = sync::keyPath(item, "metadata.expiryAfterPlay");
  const std::string& mime = sync::stringOf(sync::keyPath(item, "metadata.mime"));

  const AssetDataKeys& k = keys();
  Value::Map result;
  if (fromFeed) result[k.collectionAssetID] = Value(*fromFeed);
  result[k.createdDate] = Value(createdDate);
  result[k.mediaType] = Value(static_cast<std::int64_t>(mediaType));
  result[k.assetID] = Value(assetID);
  result[k.description] = Value(std::move(description));
  if (!downloadURL.empty()) result[k.downloadURL] = Value(downloadURL);
  result[k.maximumBitrate] = Value(std::int64_t{2147483647});
  if (publishDate) result[k.publishDate] = Value(*publishDate);
  if (expiryDate) result[k.expiryDate] = Value(*expiryDate);
  if (sync::present(downloadExpiry)) result[k.expiryAfterDownload] = lifetime(downloadExpiry);
  if (sync::present(playExpiry)) result[k.expiryAfterPlay] = lifetime(playExpiry);
  if (!mime.empty()) result[k.permittedMimeTypes] = Value(Value::Array{Value(mime)});
  return result;
}

void ZolvaniSubscriptionDefaultDataSource::debugEvent(std::string_view location, int line,
                                                      std::string_view text, std::int64_t level) {
  if (services_.logger) services_.logger->addDebugEvent(locatedLine(location, line, text), level);
}

}  // namespace zolvani
