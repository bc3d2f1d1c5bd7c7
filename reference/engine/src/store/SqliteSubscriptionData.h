// SqliteSubscriptionData: one feed record of the engine's store, as the
// library reads and changes it, with what the store last saved of it.
//
// Every setter and every hand-out of a collection tells the record's unit of
// work that the record may have changed, so that a save looks at the records
// a block touched and no others. The collections record their own changes
// for the save to replay.
//
// Thread-safety: none; touched only inside the store context's blocks.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "store/CollectionOrder.h"
#include "zolvani/subscription/engine/StoreContext.h"

namespace zolvani::reference {

class UnitOfWork;

class SqliteSubscriptionData final : public SubscriptionData {
 public:
  explicit SqliteSubscriptionData(std::weak_ptr<UnitOfWork> unit);

  std::string uuid() const override { return uuid_; }
  void setUuid(std::string uuid) override;
  std::int16_t maxItemsValue() const override { return maxItems_; }
  void setMaxItemsValue(std::int16_t value) override;
  bool autodeleteValue() const override { return autodelete_; }
  void setAutodeleteValue(bool value) override;
  std::int64_t maxBitrateValue() const override { return maxBitrate_; }
  void setMaxBitrateValue(std::int64_t value) override;
  AssetDataOrderedSet& feedItemsSet() override;
  AssetDataOrderedSet& deferredFeedItemsSet() override;

  // What the store holds of this record.
  struct Saved {
    std::int64_t rowId = 0;  // 0 until the record was first saved
    std::string uuid;
    std::int16_t maxItems = 0;
    bool autodelete = false;
    std::int64_t maxBitrate = 0;
    std::array<CollectionOrder, 2> collections;  // tracked, deferred
  };
  Saved& saved() { return saved_; }
  // The collections without marking the record touched.
  AssetDataOrderedSet& collection(int which) { return which == 0 ? feedItems_ : deferred_; }
  // Whether the unit of work already lists this record as touched.
  bool listed = false;
  bool deleted = false;

 private:
  void touch();

  std::weak_ptr<UnitOfWork> unit_;
  std::string uuid_;
  std::int16_t maxItems_ = 0;
  bool autodelete_ = false;
  std::int64_t maxBitrate_ = 0;
  AssetDataOrderedSet feedItems_, deferred_;
  Saved saved_;
};

}  // namespace zolvani::reference
