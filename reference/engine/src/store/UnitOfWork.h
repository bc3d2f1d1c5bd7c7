// UnitOfWork: the store context's pending changes, and the one place that
// decides what a save writes.
//
// Records report themselves when a block touches them (a setter, a collection
// handed out), when they are renamed, and when they are deleted. A save visits
// only those records and writes, as one step of the group commit:
//   - a new record: its row and its items;
//   - a deleted record: its row (its items go with it);
//   - a changed record: its row when a rule or its name changed, and for each
//     collection the rows of the items that came, went or moved, as the
//     collection's own change log says.
// A save that fails part-way leaves the touched records pending, marked to be
// written whole next time, so nothing is lost and nothing is written twice.
//
// Thread-safety: none of its own; the store context's lock guards it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store/GroupCommit.h"
#include "store/SqliteSubscriptionData.h"

namespace zolvani::reference {

class UnitOfWork : public std::enable_shared_from_this<UnitOfWork> {
 public:
  // What saves wrote so far: rows of subscription_data and subscription_items.
  struct Counts {
    std::uint64_t recordRows = 0, recordDeletes = 0, itemRows = 0, itemDeletes = 0;
    std::uint64_t wholeCollections = 0;
    bool operator==(const Counts&) const = default;
  };
  using Resolver = std::function<std::shared_ptr<ZolvaniAssetData>(const std::string& uuid)>;

  UnitOfWork(Database& db, GroupCommit& commits) : db_(db), commits_(commits) {}

  // Reads every saved record; items whose asset `resolve` does not know are
  // dropped from the store. An error message on failure.
  std::optional<std::string> load(const Resolver& resolve,
                                  std::vector<std::shared_ptr<SqliteSubscriptionData>>* out);
  std::shared_ptr<SqliteSubscriptionData> newRecord();

  void touched(SqliteSubscriptionData* record);
  void renamed(SqliteSubscriptionData* record, std::string previous);
  void deleted(std::shared_ptr<SqliteSubscriptionData> record);
  // Renames since the last call: each record with its previous identifier.
  std::vector<std::pair<SqliteSubscriptionData*, std::string>> takeRenames() {
    return std::exchange(renames_, {});
  }

  // Writes every pending change at once; false when nothing could be written.
  bool save();
  Counts counts() const { return counts_; }

 private:
  // Whether a save would write anything for this touched record.
  static bool needsWrite(SqliteSubscriptionData& record);
  bool writeRecord(SqliteSubscriptionData& record, Counts& counts);
  bool writeCollection(std::int64_t rowId, int which, const CollectionOrder::Writes& writes,
                       Counts& counts);

  Database& db_;
  GroupCommit& commits_;
  std::vector<SqliteSubscriptionData*> touched_;
  std::vector<std::shared_ptr<SqliteSubscriptionData>> deleted_;
  std::vector<std::pair<SqliteSubscriptionData*, std::string>> renames_;
  Counts counts_;
};

}  // namespace zolvani::reference
