// UnitOfWork: the store context's pending changes, and the one place that
// decides what a save writes.
//
// Records report themselves when a block touches them (a setter, a collection
// handed out), when they are renamed, and when they are deleted. A save visits
// only those records and turns what changed into rows:
//   - a new record: its row and its items;
//   - a deleted record: its row (its items go with it);
//   - a changed record: its row when a rule or its name changed, and for each
//     collection the rows of the items that came, went or moved, as the
//     collection's own change log says.
// The rows are written behind: a save appends them to a log, in order, and
// the group commit writes the log as its next commit begins, in the same
// transaction as the asset rows they refer to. A save therefore costs no
// statement on the caller's thread, and a commit that cannot write the log
// keeps it, whole, for the next one: nothing is lost and nothing is written
// twice. The log outlives the unit of work: a unit destroyed while its last
// commit fails (a full disk) leaves the log with the group commit, so that
// the store's last commit writes it together with the asset rows it refers
// to, or writes neither.
//
// Thread-safety: the records and the pending changes are guarded by the store
// context's lock; the log by the group commit's held-rows mutex.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store/GroupCommit.h"
#include "store/SqliteSubscriptionData.h"

namespace zolvani::reference {

class UnitOfWork : public std::enable_shared_from_this<UnitOfWork> {
 public:
  // What saves handed to the store so far: rows of subscription_data and
  // subscription_items.
  struct Counts {
    std::uint64_t recordRows = 0, recordDeletes = 0, itemRows = 0, itemDeletes = 0;
    std::uint64_t wholeCollections = 0;
    bool operator==(const Counts&) const = default;
  };
  using Resolver = std::function<std::shared_ptr<ZolvaniAssetData>(const std::string& uuid)>;

  // Writes its log with every commit of `commits` from then on. The group
  // commit may go first (a store closed and opened again); saves are then
  // kept in memory only.
  UnitOfWork(Database& db, GroupCommit& commits);
  // Commits what the log holds, while the group commit lives; when that
  // commit fails, the group commit keeps the log for its next one.
  ~UnitOfWork();
  UnitOfWork(const UnitOfWork&) = delete;
  UnitOfWork& operator=(const UnitOfWork&) = delete;

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

  // Logs every pending change; the next commit writes them.
  void save();
  Counts counts() const { return counts_; }

 private:
  // One row to write or delete, in log order.
  struct Op {
    enum class Kind {
      kInsertRecord,
      kUpdateRecord,
      kDeleteRecord,
      kClearCollection,
      kPutItem,
      kDeleteItem
    };
    Kind kind = Kind::kPutItem;
    std::int64_t rowId = 0;
    std::int64_t collection = 0;
    std::int64_t position = 0;
    std::string text = {};  // the feed's identifier, or an item's asset UUID
    bool autodelete = false;
    std::int64_t maxBitrate = 0, maxItems = 0;
  };
  // Whether a save would log anything for this touched record.
  static bool needsWrite(SqliteSubscriptionData& record);
  void logRecord(SqliteSubscriptionData& record, std::vector<Op>& ops);
  void logCollection(std::int64_t rowId, int which, const CollectionOrder::Writes& writes,
                     std::vector<Op>& ops);
  // The log and what a commit took from it, shared with the group commit's
  // writer so that it outlives the unit of work.
  struct Log {
    std::vector<Op> pending;  // guarded by the group commit's held rows' lock
    std::vector<Op> taken;    // guarded by the database's mutex
  };
  // Adds to the log and marks a commit due.
  void append(std::vector<Op> ops);
  // Writes what a commit took from the log.
  static bool writeOps(Database& db, const std::vector<Op>& ops);
  static void restoreLog(Log& log);

  Database& db_;
  std::weak_ptr<GroupCommit> commits_;
  std::size_t writerId_ = 0;
  std::vector<SqliteSubscriptionData*> touched_;
  std::vector<std::shared_ptr<SqliteSubscriptionData>> deleted_;
  std::vector<std::pair<SqliteSubscriptionData*, std::string>> renames_;
  std::int64_t nextRowId_ = 1;  // new records' ids are given out here
  Counts counts_;
  std::shared_ptr<Log> log_ = std::make_shared<Log>();
};

}  // namespace zolvani::reference
