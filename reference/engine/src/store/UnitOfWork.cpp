#include "store/UnitOfWork.h"

#include <algorithm>
#include <map>

namespace zolvani::reference {
namespace {

constexpr std::string_view kInsertRecord =
    "INSERT INTO subscription_data(id, uuid, autodelete, max_bitrate, max_items) "
    "VALUES(?,?,?,?,?)";
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
    commits_.write([&] {
      for (const auto& d : dangling) {
        Statement& s = db_.prepared(kDeleteItem);
        s.bind(1, d.rowId).bind(2, d.collection).bind(3, d.uuid);
        if (!s.run()) return false;
      }
      return true;
    });
  }
  return std::nullopt;
}

bool UnitOfWork::needsWrite(SqliteSubscriptionData& record) {
  const auto& saved = record.saved();
  return !record.deleted &&
         (saved.rowId == 0 || !saved.exact || !sameRules(record, saved) ||
          record.collection(0).hasChanges() || record.collection(1).hasChanges());
}

bool UnitOfWork::save() {
  if (touched_.empty() && deleted_.empty()) return true;
  // Most blocks only read the records they fetched (a feed's items handed out
  // for counting): such a save has nothing to write and opens no step.
  if (deleted_.empty() &&
      std::none_of(touched_.begin(), touched_.end(), [](auto* r) { return needsWrite(*r); })) {
    for (SqliteSubscriptionData* record : touched_) record->listed = false;
    touched_.clear();
    return true;
  }
  Counts counts;
  const bool ok = commits_.write([&] {
    for (const auto& record : deleted_) {
      if (record->saved().rowId == 0) continue;  // never saved: nothing to remove
      Statement& s = db_.prepared(kDeleteRecord);
      if (!s.bind(1, record->saved().rowId).run()) return false;
      ++counts.recordDeletes;
    }
    for (SqliteSubscriptionData* record : touched_)
      if (!record->deleted && !writeRecord(*record, counts)) return false;
    return true;
  });
  if (!ok) {
    // The step was rolled back: the touched records stay pending and are
    // written whole by the next save.
    for (SqliteSubscriptionData* record : touched_) record->saved().exact = false;
    return false;
  }
  for (SqliteSubscriptionData* record : touched_) record->listed = false;
  touched_.clear();
  deleted_.clear();
  counts_.recordRows += counts.recordRows;
  counts_.recordDeletes += counts.recordDeletes;
  counts_.itemRows += counts.itemRows;
  counts_.itemDeletes += counts.itemDeletes;
  counts_.wholeCollections += counts.wholeCollections;
  return true;
}

bool UnitOfWork::writeRecord(SqliteSubscriptionData& record, Counts& counts) {
  auto& saved = record.saved();
  const bool whole = saved.rowId == 0 || !saved.exact;
  if (!whole && !sameRules(record, saved)) {
    Statement& s = db_.prepared(kUpdateRecord);
    s.bind(1, record.uuid()).bind(2, std::int64_t{record.autodeleteValue()});
    s.bind(3, record.maxBitrateValue()).bind(4, std::int64_t{record.maxItemsValue()});
    if (!s.bind(5, saved.rowId).run()) return false;
    ++counts.recordRows;
  } else if (whole) {
    // A record never saved, or one whose last save failed: its row is
    // written afresh (keeping its id when it has one) and so are its items.
    if (saved.rowId != 0) {
      Statement& s = db_.prepared(kDeleteRecord);
      if (!s.bind(1, saved.rowId).run()) return false;
    }
    Statement& s = db_.prepared(kInsertRecord);
    if (saved.rowId != 0)
      s.bind(1, saved.rowId);
    else
      s.bindNull(1);
    s.bind(2, record.uuid()).bind(3, std::int64_t{record.autodeleteValue()});
    s.bind(4, record.maxBitrateValue()).bind(5, std::int64_t{record.maxItemsValue()});
    if (!s.run()) return false;
    saved.rowId = db_.lastInsertRowId();
    ++counts.recordRows;
  }
  saved.uuid = record.uuid();
  saved.maxItems = record.maxItemsValue();
  saved.autodelete = record.autodeleteValue();
  saved.maxBitrate = record.maxBitrateValue();
  for (int which = 0; which < 2; ++which) {
    AssetDataOrderedSet& set = record.collection(which);
    auto changes = set.takeChanges();
    if (!whole && changes.empty()) continue;
    CollectionOrder& order = saved.collections[which];
    if (!writeCollection(saved.rowId, which,
                         whole ? order.rewrite(set) : order.follow(changes, set), counts))
      return false;
  }
  saved.exact = true;
  return true;
}

bool UnitOfWork::writeCollection(std::int64_t rowId, int which,
                                 const CollectionOrder::Writes& writes, Counts& counts) {
  const std::int64_t collection = which;
  if (writes.replaceAll) {
    Statement& s = db_.prepared(kDeleteCollection);
    if (!s.bind(1, rowId).bind(2, collection).run()) return false;
    ++counts.wholeCollections;
  }
  for (const auto& row : writes.rows) {
    if (row.position) {
      Statement& s = db_.prepared(kPutItem);
      s.bind(1, rowId).bind(2, collection).bind(3, *row.position).bind(4, row.uuid);
      if (!s.run()) return false;
      ++counts.itemRows;
    } else {
      Statement& s = db_.prepared(kDeleteItem);
      if (!s.bind(1, rowId).bind(2, collection).bind(3, row.uuid).run()) return false;
      ++counts.itemDeletes;
    }
  }
  return true;
}

}  // namespace zolvani::reference
