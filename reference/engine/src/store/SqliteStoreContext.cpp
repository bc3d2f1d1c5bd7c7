#include "store/SqliteStoreContext.h"

#include <algorithm>

#include "Fetcher.h"  // engineError
#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::reference {

SqliteStoreContext::SqliteStoreContext(Database& db, GroupCommit& commits)
    : unit_(std::make_shared<UnitOfWork>(db, commits)) {}

void SqliteStoreContext::performBlockAndWait(const std::function<void()>& block) {
  std::lock_guard lock(mutex_);
  block();
}

std::vector<std::shared_ptr<SubscriptionData>> SqliteStoreContext::executeFetchRequest(
    const SubscriptionDataFetchRequest& request, std::optional<Error>* error) {
  std::lock_guard lock(mutex_);
  if (request.key && *request.key != SubscriptionDataAttributes[3]) {
    if (error)
      *error = engineError(kEngineErrorStore, "SubscriptionData can only be fetched by " +
                                                  std::string(SubscriptionDataAttributes[3]));
    return {};
  }
  if (!request.key) return {live_.begin(), live_.end()};
  reindex();
  auto it = byUuid_.find(request.value);
  if (it == byUuid_.end()) return {};
  return {it->second.begin(), it->second.end()};
}

void SqliteStoreContext::reindex() {
  auto renames = unit_->takeRenames();
  if (!indexStale_) {
    // A rename moves one record, unless it joins others of the same name,
    // whose order only a rebuild keeps.
    for (auto& rename : renames) {
      // A named pointer, not a structured binding: lambdas may not capture those
      // under every compiler the project builds with.
      auto* record = rename.first;
      const auto& previous = rename.second;
      auto from = byUuid_.find(previous);
      if (from == byUuid_.end()) {
        indexStale_ = true;
        break;
      }
      auto it = std::find_if(from->second.begin(), from->second.end(),
                             [&](const auto& r) { return r.get() == record; });
      if (it == from->second.end()) {
        indexStale_ = true;
        break;
      }
      auto moved = std::move(*it);
      from->second.erase(it);
      if (from->second.empty()) byUuid_.erase(from);
      auto& to = byUuid_[moved->uuid()];
      if (!to.empty()) {
        indexStale_ = true;
        break;
      }
      to.push_back(std::move(moved));
    }
  }
  if (!indexStale_) return;
  byUuid_.clear();
  for (const auto& r : live_) byUuid_[r->uuid()].push_back(r);
  indexStale_ = false;
}

std::shared_ptr<SubscriptionData> SqliteStoreContext::insertSubscriptionData() {
  std::lock_guard lock(mutex_);
  reindex();
  auto record = unit_->newRecord();
  live_.push_back(record);
  // A new record is found under the empty identifier until it is named.
  auto& unnamed = byUuid_[std::string()];
  if (unnamed.empty())
    unnamed.push_back(record);
  else
    indexStale_ = true;
  return record;
}

void SqliteStoreContext::deleteObject(const std::shared_ptr<SubscriptionData>& record) {
  std::lock_guard lock(mutex_);
  auto it = std::find_if(live_.begin(), live_.end(),
                         [&](const auto& r) { return r.get() == record.get(); });
  if (it == live_.end()) return;
  unit_->deleted(*it);
  live_.erase(it);
  indexStale_ = true;
}

void SqliteStoreContext::refreshObject(const std::shared_ptr<ZolvaniAssetData>&, bool) {
  // Asset fields are written through to the store as they change, so the record
  // already holds what the store holds.
}

bool SqliteStoreContext::save() {
  std::lock_guard lock(mutex_);
  // The changes are logged for the next commit, which writes them or keeps
  // them for the one after: a save itself cannot fail.
  unit_->save();
  return true;
}

std::optional<Error> SqliteStoreContext::load(const UnitOfWork::Resolver& resolve) {
  std::lock_guard lock(mutex_);
  live_.clear();
  if (auto e = unit_->load(resolve, &live_)) return engineError(kEngineErrorStore, *e);
  indexStale_ = true;
  return std::nullopt;
}

void SqliteStoreContext::forgetAsset(const std::shared_ptr<ZolvaniAssetData>& item) {
  std::lock_guard lock(mutex_);
  for (auto& record : live_) {
    for (int which = 0; which < 2; ++which) {
      AssetDataOrderedSet& set = record->collection(which);
      if (!set.contains(item)) continue;
      // The asset's removal takes its rows; the next save replays the
      // removal onto what it saved.
      unit_->touched(record.get());
      set.remove(item);
    }
  }
}

UnitOfWork::Counts SqliteStoreContext::counts() const {
  std::lock_guard lock(mutex_);
  return unit_->counts();
}

}  // namespace zolvani::reference
