// FeedStore: the per-feed tracking records (SubscriptionData in the engine's
// store) and the rules that keep them true: each feed's limits, which items it
// tracks and which it holds back, admission of new items, and trimming when an
// item is added. Retention cleaning and deferred promotion are its
// collaborators and are reached through it.
//
// Thread-safety: every operation may be called from any thread. Each store
// section runs inside the engine context's performBlockAndWait(), which
// serialises them; engine deletions are issued after a section returns, never
// inside it, and notifications are posted asynchronously on the main queue.
// The class takes no lock of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/DeferredEpisodes.h"
#include "store/FeedStoreEnvironment.h"
#include "store/RetentionCleaner.h"

namespace zolvani {

class FeedStore {
 public:
  FeedStore(FeedStoreEnvironment environment,
            std::function<std::shared_ptr<DispatchQueue>()> processingQueue);

  // Stores a feed's rules, creating its record when needed, then cleans the
  // feed. `maxItems` keeps its low 16 bits (the field is 16 bits wide).
  void setMaxItems(std::int32_t maxItems, bool autodelete, std::int32_t maxBitrate,
                   const std::string& feed);
  // Removes the record and deletes every tracked and deferred asset.
  void removeFeed(const std::string& feed);
  // Whether `item` may be tracked by `feed` now. A missing feed identifier
  // admits everything; an unknown feed admits nothing.
  bool canAddItem(const std::shared_ptr<ZolvaniAsset>& item,
                  const std::optional<std::string>& feed);
  // Tracks `item`, dropping the oldest unfinished items beyond the maximum;
  // returns the dropped UUIDs (their assets are deleted, nothing is posted).
  std::vector<std::string> addItem(const std::shared_ptr<ZolvaniAsset>& item,
                                   const std::string& feed);
  // addItem() and an asset-deleted notification for what it dropped.
  void includeItem(const std::shared_ptr<ZolvaniAsset>& item, const std::string& feed);
  // Holds `item` back until the feed has room; no limit applies.
  void addDeferredItem(const std::shared_ptr<ZolvaniAsset>& item, const std::string& feed);

  std::int32_t numberOfItemsInFeed(const std::string& feed);
  // Tracked UUIDs, then deferred ones.
  std::vector<std::string> itemsInTrackingFeed(const std::string& feed);
  std::int32_t maxItemsPerFeed(const std::string& feed);
  bool autoDeleteForFeed(const std::string& feed);
  // INT64_MAX (no cap) for an unknown feed.
  std::int64_t maxBitrateForFeed(const std::string& feed);

  void cleanSubscriptionDataForFeed(const std::string& feed, bool checkForCanceled);
  void checkOnDeferredEpisodes();
  std::vector<std::string> deferredEpisodes();

  RetentionCleaner& cleaner() { return *cleaner_; }
  DeferredEpisodes& deferred() { return *deferred_; }

 private:
  // Deletes each listed asset that still exists with `reason`.
  void deleteAssets(const std::vector<std::string>& uuids, std::int64_t reason,
                    std::vector<std::string>* deleted) const;

  FeedStoreEnvironment env_;
  std::shared_ptr<RetentionCleaner> cleaner_;
  std::shared_ptr<DeferredEpisodes> deferred_;
};

}  // namespace zolvani
