// CatalogBuilder: turns what the store holds for one device into the catalog reply
// and the feed and item objects the device's data source reads.
//
// Immutable after construction; safe to share between threads.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "reference/server/store/Store.h"

namespace zolvani::refserver {

class CatalogBuilder {
 public:
  // `serverUrl` is how the device reaches this server ("http://host:port"); media
  // URLs of items are built from it.
  explicit CatalogBuilder(std::string serverUrl) : serverUrl_(std::move(serverUrl)) {}

  // The catalog reply without its "response_header".
  nlohmann::json Build(const CatalogSnapshot& snapshot, int64_t nowMs) const;

  // One item as the catalog lists it.
  nlohmann::json ItemObject(const Item& item) const;

  // The /media URL of a file under the media folder, each path segment escaped.
  std::string MediaUrl(const std::string& mediaPath) const;

  // The "last_updated" value: the second before the newest item's creation (never
  // later than now), in milliseconds. A device stores it as its last-sync time and
  // asks for items created after it next time; devices compare creation times in
  // whole seconds, so stepping one second back means an item added later within
  // that same second is still delivered, and a device ignores the repeats it
  // already holds.
  static int64_t LastUpdatedMs(int64_t newestItemMs, int64_t nowMs);

 private:
  std::string serverUrl_;
};

}  // namespace zolvani::refserver
