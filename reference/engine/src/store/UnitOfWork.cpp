#include "store/UnitOfWork.h"

#include <algorithm>
#include <map>

namespace zolvani::reference {
namespace {

// Written again whole if a commit fails after writing it: an upsert, which
// (unlike a replace) never deletes the row and so never its items.
constexpr std::string_view kInsertRecord =
    "INSERT INTO subscription_data(id, uuid, autodelete, max_bitrate, max_items) "
    "VALUES(?,?,?,?,?) ON CONFLICT(id) DO UPDATE SET uuid=excluded.uuid, "
    "autodelete=excluded.autodelete, max_bitrate=excluded.max_bitrate, "
    "max_items=excluded.max_items";
constexpr std::string_view kUpdateRecord =
    "UPDATE subscription_data SET uuid=?, autodelete=?, max_bitrate=?, max_items=? WHERE id=?";
constexpr std::string_view kDeleteRecord = "DELETE FROM subscription_data WHERE id=?";
constexpr std::string_view kPutItem =
    "INSERT INTO subscription_items(record_id, collection, position, asset_uuid) "
    "VALUES(?,?,?,?) ON CONFLICT(record_id, collection, asset_uuid) "
    "DO UPDATE SET position=excluded.position";
constexpr std::string_view kDeleteItem =
    "DELETE FROM subscription_items WHERE record_id=? AND collection=? AND asset_uuid=?";
constexpr std::string_view kDeleteCollection =
    "DELETE FROM subscription_items WHERE record_id=? AND collection=?";

bool sameRules(const SqliteSubscriptionData& record, const SqliteSubscriptionData::Saved& saved) {
  return saved.uuid == record.uuid() && saved.maxItems == record.maxItemsValue() &&
         saved.autodelete == record.autodeleteValue() &&
         saved.maxBitrate == record.maxBitrateValue();
}

}  // namespace

UnitOfWork::UnitOfWork(Database& db, GroupCommit& commits)
    : db_(db), commits_(commits.weak_from_this()) {
  // The writer holds the log, not the unit: see ~UnitOfWork.
  writerId_ = commits.addDeferredWriter(
      {[log = log_] { log->taken = std::exchange(log->pending, {}); },
       [log = log_, db = &db_] { return writeOps(*db, log->taken); },
       [log = log_] { restoreLog(*log); }, [log = log_] { log->taken.clear(); }});
}

UnitOfWork::~UnitOfWork() {
  auto commits = commits_.lock();
  if (!commits) return;
  // A failed commit (a full disk) keeps the writer, and with it the log: the
  // feed rows must land with the asset rows they refer to, which the asset
  // table still holds for the store's last commit. Dropping them here would
  // let that commit land an asset that no feed tracks.
  if (commits->flush()) commits->removeDeferredWriter(writerId_);
}

void UnitOfWork::append(std::vector<Op> ops) {
  auto commits = commits_.lock();
  if (!commits) return;  // the store was closed: nothing can be written
  {
    auto l = commits->holdRows();
    auto& pending = log_->pending;
    if (pending.empty())
      pending = std::move(ops);
    else
      pending.insert(pending.end(), std::make_move_iterator(ops.begin()),
                     std::make_move_iterator(ops.end()));
  }
  commits->deferred();
}

std::shared_ptr<SqliteSubscriptionData> UnitOfWork::newRecord() {
  auto record = std::make_shared<SqliteSubscriptionData>(weak_from_this());
  touched(record.get());
  return record;
}

void UnitOfWork::touched(SqliteSubscriptionData* record) {
  if (record->listed) return;
  record->listed = true;
  touched_.push_back(record);
}

void UnitOfWork::renamed(SqliteSubscriptionData* record, std::string previous) {
  renames_.emplace_back(record, std::move(previous));
}

void UnitOfWork::deleted(std::shared_ptr<SqliteSubscriptionData> record) {
  record->deleted = true;
  deleted_.push_back(std::move(record));
}

std::optional<std::string> UnitOfWork::load(
    const Resolver& resolve, std::vector<std::shared_ptr<SqliteSubscriptionData>>* out) {
  struct Dangling {
    std::int64_t rowId;
    std::int64_t collection;
    std::string uuid;
  };
  std::vector<Dangling> dangling;
  std::map<std::int64_t, std::shared_ptr<SqliteSubscriptionData>> byRow;
  std::vector<std::tuple<std::int64_t, std::int64_t, std::int64_t, std::string>> rows;
  {
    std::lock_guard l(db_.mutex());
    Statement records(
        db_,
        "SELECT id, uuid, autodelete, max_bitrate, max_items FROM subscription_data ORDER BY id");
    Statement items(db_,
                    "SELECT record_id, collection, position, asset_uuid FROM subscription_items "
                    "ORDER BY record_id, collection, position");
    if (!records.ok() || !items.ok()) return db_.lastError();
    while (records.step()) {
      auto record = std::make_shared<SqliteSubscriptionData>(weak_from_this());
      auto& saved = record->saved();
      saved.rowId = records.int64(0);
      saved.uuid = records.text(1);
      saved.autodelete = records.int64(2) != 0;
      saved.maxBitrate = records.int64(3);
      saved.maxItems = static_cast<std::int16_t>(records.int64(4));
      nextRowId_ = std::max(nextRowId_, saved.rowId + 1);
      byRow[saved.rowId] = record;
      out->push_back(std::move(record));
    }
    while (items.step())
      rows.emplace_back(items.int64(0), items.int64(1), items.int64(2), items.text(3));
  }
  // Assets are resolved after the database is released: the engine's lock
  // comes before the database's.
  std::map<std::pair<std::int64_t, int>, std::vector<CollectionOrder::Entry>> orders;
  for (auto& [rowId, collection, position, uuid] : rows) {
    auto record = byRow.find(rowId);
    auto item = resolve(uuid);
    if (record == byRow.end() || !item || (collection != 0 && collection != 1)) {
      dangling.push_back({rowId, collection, std::move(uuid)});
      continue;
    }
    const int which = static_cast<int>(collection);
    orders[{rowId, which}].push_back({position, item.get()});
    record->second->collection(which).add(std::move(item));
  }
  for (auto& record : *out) {
    auto& saved = record->saved();
    // The loaded state is the saved state: set it without touching the record.
    record->setUuid(saved.uuid);
    record->setMaxItemsValue(saved.maxItems);
    record->setAutodeleteValue(saved.autodelete);
    record->setMaxBitrateValue(saved.maxBitrate);
    for (int which = 0; which < 2; ++which) {
      record->collection(which).takeChanges();
      auto it = orders.find({saved.rowId, which});
      if (it != orders.end()) saved.collections[which].assign(std::move(it->second));
    }
    record->listed = false;
  }
  touched_.clear();
  renames_.clear();
  if (!dangling.empty()) {
    // Items whose asset is gone would point at nothing.
    std::vector<Op> ops;
    for (auto& d : dangling)
      ops.push_back(Op{.kind = Op::Kind::kDeleteItem,
                       .rowId = d.rowId,
                       .collection = d.collection,
                       .text = std::move(d.uuid)});
    append(std::move(ops));
  }
  return std::nullopt;
}

bool UnitOfWork::needsWrite(SqliteSubscriptionData& record) {
  const auto& saved = record.saved();
  return !record.deleted &&
         (saved.rowId == 0 || !sameRules(record, saved) || record.collection(0).hasChanges() ||
          record.collection(1).hasChanges());
}

void UnitOfWork::save() {
  if (touched_.empty() && deleted_.empty()) return;
  // Most blocks only read the records they fetched (a feed's items handed out
  // for counting): such a save has nothing to log.
  std::vector<Op> ops;
  for (const auto& record : deleted_) {
    if (record->saved().rowId == 0) continue;  // never saved: nothing to remove
    ops.push_back(Op{.kind = Op::Kind::kDeleteRecord, .rowId = record->saved().rowId});
    ++counts_.recordDeletes;
  }
  for (SqliteSubscriptionData* record : touched_) {
    if (needsWrite(*record)) logRecord(*record, ops);
    record->listed = false;
  }
  touched_.clear();
  deleted_.clear();
  if (!ops.empty()) append(std::move(ops));
}

void UnitOfWork::logRecord(SqliteSubscriptionData& record, std::vector<Op>& ops) {
  auto& saved = record.saved();
  const bool fresh = saved.rowId == 0;
  if (fresh || !sameRules(record, saved)) {
    // A record never saved gets its id here, so that its items' rows can
    // name it before its own row is written.
    if (fresh) saved.rowId = nextRowId_++;
    ops.push_back(Op{.kind = fresh ? Op::Kind::kInsertRecord : Op::Kind::kUpdateRecord,
                     .rowId = saved.rowId,
                     .text = record.uuid(),
                     .autodelete = record.autodeleteValue(),
                     .maxBitrate = record.maxBitrateValue(),
                     .maxItems = record.maxItemsValue()});
    ++counts_.recordRows;
  }
  saved.uuid = record.uuid();
  saved.maxItems = record.maxItemsValue();
  saved.autodelete = record.autodeleteValue();
  saved.maxBitrate = record.maxBitrateValue();
  for (int which = 0; which < 2; ++which) {
    AssetDataOrderedSet& set = record.collection(which);
    auto changes = set.takeChanges();
    if (!fresh && changes.empty()) continue;
    CollectionOrder& order = saved.collections[which];
    logCollection(saved.rowId, which, fresh ? order.rewrite(set) : order.follow(changes, set), ops);
  }
}

void UnitOfWork::logCollection(std::int64_t rowId, int which, const CollectionOrder::Writes& writes,
                               std::vector<Op>& ops) {
  if (writes.replaceAll) {
    ops.push_back(Op{.kind = Op::Kind::kClearCollection, .rowId = rowId, .collection = which});
    ++counts_.wholeCollections;
  }
  for (const auto& row : writes.rows) {
    if (row.position) {
      ops.push_back(Op{.kind = Op::Kind::kPutItem,
                       .rowId = rowId,
                       .collection = which,
                       .position = *row.position,
                       .text = row.uuid});
      ++counts_.itemRows;
    } else {
      ops.push_back(
          Op{.kind = Op::Kind::kDeleteItem, .rowId = rowId, .collection = which, .text = row.uuid});
      ++counts_.itemDeletes;
    }
  }
}

void UnitOfWork::restoreLog(Log& log) {
  // What a failed commit took is older than anything logged since.
  log.pending.insert(log.pending.begin(), std::make_move_iterator(log.taken.begin()),
                     std::make_move_iterator(log.taken.end()));
  log.taken.clear();
}

bool UnitOfWork::writeOps(Database& db, const std::vector<Op>& ops) {
  for (const Op& op : ops) {
    Statement* s = nullptr;
    switch (op.kind) {
      case Op::Kind::kInsertRecord:
      case Op::Kind::kUpdateRecord: {
        const bool insert = op.kind == Op::Kind::kInsertRecord;
        s = &db.prepared(insert ? kInsertRecord : kUpdateRecord);
        // The two statements name the id first and last.
        const int first = insert ? 2 : 1;
        s->bind(first, op.text).bind(first + 1, std::int64_t{op.autodelete});
        s->bind(first + 2, op.maxBitrate).bind(first + 3, op.maxItems);
        s->bind(insert ? 1 : 5, op.rowId);
        break;
      }
      case Op::Kind::kDeleteRecord:
        s = &db.prepared(kDeleteRecord);
        s->bind(1, op.rowId);
        break;
      case Op::Kind::kClearCollection:
        s = &db.prepared(kDeleteCollection);
        s->bind(1, op.rowId).bind(2, op.collection);
        break;
      case Op::Kind::kPutItem:
        s = &db.prepared(kPutItem);
        s->bind(1, op.rowId).bind(2, op.collection).bind(3, op.position).bind(4, op.text);
        break;
      case Op::Kind::kDeleteItem:
        s = &db.prepared(kDeleteItem);
        s->bind(1, op.rowId).bind(2, op.collection).bind(3, op.text);
        break;
    }
    if (!s->run()) return false;
  }
  return true;
}

}  // namespace zolvani::reference
