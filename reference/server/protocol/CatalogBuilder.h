// CatalogBuilder: turns what the store holds for one device into the catalog reply
// and the feed and item objects the device's data source reads.
//
// Immutable after construction; safe to share between threads.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/store/Store.h"

namespace zolvani::refserver {

class CatalogBuilder;

// Writes the catalog reply, "response_header" included, as JSON text while a store
// hands it over (Store::StreamCatalog), holding no more than one item at a time.
// The text is byte for byte what CatalogBuilder::Build with the OK header dumps.
// One per reply; not thread-safe.
class CatalogWriter final : public CatalogSink {
 public:
  // `write` returns false when the text can no longer be delivered; the read then
  // ends with an error.
  CatalogWriter(const CatalogBuilder& builder, int64_t nowMs,
                std::function<bool(std::string_view)> write)
      : builder_(builder), nowMs_(nowMs), write_(std::move(write)) {}

  Status Begin(const std::vector<std::string>& subscriptions,
               const std::map<std::string, FeedRules>& rules, int64_t newestItemMs) override;
  Status BeginFeed(const Feed& feed) override;
  Status FeedItem(const Item& item) override;
  Status DirectItem(const Item& item) override;
  // Writes the rest, after the store's read returned OK.
  Status Finish();

 private:
  Status Put(std::string_view text);
  Status CloseFeed();

  const CatalogBuilder& builder_;
  const int64_t nowMs_;
  std::function<bool(std::string_view)> write_;
  std::vector<std::string> subscriptions_;
  std::map<std::string, FeedRules> rules_;
  int64_t newestItemMs_ = 0;
  std::string feedTail_;  // what closes the open feed's object; empty when none is open
  bool anyFeed_ = false;
  bool firstItem_ = true;
  bool inDirect_ = false;
};

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
