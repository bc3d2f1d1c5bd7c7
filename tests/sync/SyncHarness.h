// Catalog builders and a test bed ready to sync: an engine that has started
// with credentials, a last-sync date well before the secure clock's now, and
// ready callbacks that run as soon as an asset is made.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/TestEnvironment.h"

namespace zolvani::testing {

// The secure clock's now in every sync test, and the last sync before it.
inline constexpr double kNow = 1800000000.0;
inline constexpr double kLastSync = 1700000000.0;

inline nlohmann::json item(const std::string& id, std::int64_t created, int mediaType = 1) {
  return {{"remoteUUID", id},
          {"created", created},
          {"metadata.mediaType", mediaType},
          {"metadata",
           {{"title", "Title " + id},
            {"desc", "About " + id},
            {"downloadURL", "http://cdn.test/" + id + ".mp4"}}}};
}

inline nlohmann::json feed(const std::string& id, nlohmann::json items, bool subscribable = true) {
  return {{"remoteUUID", id}, {"subscribable", subscribable}, {"contentItems", std::move(items)}};
}

inline nlohmann::json rule(int maxAssets, bool autoDelete, int maxBitrate = 0) {
  return {{"max_assets", maxAssets}, {"auto_delete", autoDelete}, {"max_bitrate", maxBitrate}};
}

inline nlohmann::json catalog(nlohmann::json collections, std::vector<std::string> subscriptions,
                              nlohmann::json rules = nlohmann::json::object()) {
  return {{"response_header", {{"response_code", 0}, {"response_string", "OK"}}},
          {"subscriptions", subscriptions},
          {"subscription_rules", std::move(rules)},
          {"collections", std::move(collections)}};
}

struct SyncResult {
  bool called = false;
  bool success = false;
  std::optional<Value::Array> subscriptions;
  std::optional<Error> error;
};

inline SyncCompletion recordInto(SyncResult& result) {
  return [&result](bool success, std::optional<Value::Array> subscriptions,
                   std::optional<Error> error) {
    result.called = true;
    result.success = success;
    result.subscriptions = std::move(subscriptions);
    result.error = std::move(error);
  };
}

inline void prepareForSync(TestBed& bed) {
  bed.engine->readyInline = true;
  bed.engine->setDate(Date(kNow));
  bed.defaults->setDate(LastSyncKey, Date(kLastSync));
}

// Asset IDs of the assets the engine made, in creation order.
inline std::vector<std::string> createdIDs(const InMemoryEngine& engine) {
  std::vector<std::string> ids;
  for (const auto& a : engine.createdAssets()) ids.push_back(a->assetID());
  return ids;
}

// Asset IDs of the assets queued for download, in queueing order.
inline std::vector<std::string> queuedIDs(const InMemoryEngine& engine) {
  std::vector<std::string> ids;
  for (const auto& uuid : engine.queuedUUIDs())
    for (const auto& a : engine.createdAssets())
      if (a->uuid() == uuid) ids.push_back(a->assetID());
  return ids;
}

// Asset IDs of the assets a notification carries.
inline std::vector<std::string> notifiedIDs(const Notification& note) {
  std::vector<std::string> ids;
  auto it = note.userInfo.find(kSubscriptionManagerNotificationZolvaniAssetsKey);
  if (it == note.userInfo.end() || !it->second.asArray()) return ids;
  for (const Value& v : *it->second.asArray())
    if (const auto* asset = v.asAsset(); asset && *asset) ids.push_back((*asset)->assetID());
  return ids;
}

}  // namespace zolvani::testing
