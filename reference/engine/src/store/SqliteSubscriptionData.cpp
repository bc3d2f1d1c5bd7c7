#include "store/SqliteSubscriptionData.h"

#include "store/UnitOfWork.h"

namespace zolvani::reference {

SqliteSubscriptionData::SqliteSubscriptionData(std::weak_ptr<UnitOfWork> unit)
    : unit_(std::move(unit)) {
  feedItems_.setRecordsChanges(true);
  deferred_.setRecordsChanges(true);
}

void SqliteSubscriptionData::setUuid(std::string uuid) {
  touch();
  std::string previous = std::exchange(uuid_, std::move(uuid));
  if (auto unit = unit_.lock()) unit->renamed(this, std::move(previous));
}

void SqliteSubscriptionData::setMaxItemsValue(std::int16_t value) {
  touch();
  maxItems_ = value;
}

void SqliteSubscriptionData::setAutodeleteValue(bool value) {
  touch();
  autodelete_ = value;
}

void SqliteSubscriptionData::setMaxBitrateValue(std::int64_t value) {
  touch();
  maxBitrate_ = value;
}

// Handing a collection out may change it.
AssetDataOrderedSet& SqliteSubscriptionData::feedItemsSet() {
  touch();
  return feedItems_;
}

AssetDataOrderedSet& SqliteSubscriptionData::deferredFeedItemsSet() {
  touch();
  return deferred_;
}

void SqliteSubscriptionData::touch() {
  if (listed) return;
  if (auto unit = unit_.lock()) unit->touched(this);
}

}  // namespace zolvani::reference
