// SqliteStoreContext: the engine's one store context over SQLite, a unit of
// work over the feed records.
//
// Records live in memory between saves; a fetch sees the block's own pending
// changes. save() hands the pending changes to the unit of work, which logs
// what changed and nothing else for the next group commit to write. Look-ups by feed identifier go
// through an index that follows renames.
//
// Thread-safety: every member may be called from any thread; blocks are
// serialised by the context's recursive mutex, which comes before the
// engine's own locks.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "store/SpinningMutex.h"
#include "store/UnitOfWork.h"
#include "zolvani/subscription/engine/StoreContext.h"

namespace zolvani::reference {

class SqliteStoreContext final : public ZolvaniManagedObjectContext {
 public:
  SqliteStoreContext(Database& db, GroupCommit& commits);

  void performBlockAndWait(const std::function<void()>& block) override;
  std::vector<std::shared_ptr<SubscriptionData>> executeFetchRequest(
      const SubscriptionDataFetchRequest& request, std::optional<Error>* error) override;
  std::shared_ptr<SubscriptionData> insertSubscriptionData() override;
  void deleteObject(const std::shared_ptr<SubscriptionData>& record) override;
  void refreshObject(const std::shared_ptr<ZolvaniAssetData>& item, bool mergeChanges) override;
  bool save() override;

  // Loads the saved records (at start); `resolve` finds an item's asset data.
  std::optional<Error> load(const UnitOfWork::Resolver& resolve);
  // Drops an asset's data from every collection, saved or pending.
  void forgetAsset(const std::shared_ptr<ZolvaniAssetData>& item);
  // What saves wrote so far.
  UnitOfWork::Counts counts() const;
  SpinningMutex<std::recursive_mutex>& mutex() { return mutex_; }

 private:
  void reindex();

  mutable SpinningMutex<std::recursive_mutex> mutex_;
  std::shared_ptr<UnitOfWork> unit_;
  std::vector<std::shared_ptr<SqliteSubscriptionData>> live_;
  // Live records by feed identifier, in live_ order; kept up to date on
  // insertion and followed through renames.
  std::unordered_map<std::string, std::vector<std::shared_ptr<SqliteSubscriptionData>>> byUuid_;
  bool indexStale_ = true;
};

}  // namespace zolvani::reference
