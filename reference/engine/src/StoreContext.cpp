// The SQLite-backed store context and the asset-data records.
#include <algorithm>

#include "EngineCore.h"

namespace zolvani::reference {

std::optional<Date> ReferenceAssetData::downloadCompleteDateTime() const {
  auto a = asset_.lock();
  return a ? a->downloadCompleteDateTime() : std::nullopt;
}

Value ReferenceAssetData::valueForKey(std::string_view attribute) const {
  auto a = asset_.lock();
  if (!a) return Value();
  const AssetFields f = a->fields();
  auto optDate = [](const std::optional<Date>& d) { return d ? Value(*d) : Value(); };
  if (attribute == "assetID") return Value(f.assetID);
  if (attribute == "assetDescription") return Value(f.description);
  if (attribute == "remoteURL") return f.manifest ? Value() : Value(f.url);
  if (attribute == "manifestURL") return f.manifest ? Value(f.url) : Value();
  if (attribute == "fileSize") return Value(static_cast<std::int64_t>(f.bytesTotal));
  if (attribute == "fractionComplete") return Value(f.fraction);
  if (attribute == "downloadComplete") return Value(f.downloadComplete.has_value());
  if (attribute == "downloadCompleteDateTime") return optDate(f.downloadComplete);
  if (attribute == "publishDate") return optDate(f.publishDate);
  if (attribute == "creationDate") return Value(f.creationDate);
  if (attribute == "expiryDate") return optDate(f.expiryDate);
  if (attribute == "uuid") return Value(f.uuid);
  return Value();
}

void SqliteStoreContext::performBlockAndWait(const std::function<void()>& block) {
  std::lock_guard lock(mutex_);
  block();
}

std::vector<std::shared_ptr<SubscriptionData>> SqliteStoreContext::executeFetchRequest(
    const SubscriptionDataFetchRequest& request, std::optional<Error>* error) {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<SubscriptionData>> out;
  if (request.key && *request.key != SubscriptionDataAttributes[3]) {
    if (error)
      *error = engineError(kEngineErrorStore, "SubscriptionData can only be fetched by " +
                                                  std::string(SubscriptionDataAttributes[3]));
    return out;
  }
  for (const auto& r : live_)
    if (!request.key || r->uuid() == request.value) out.push_back(r);
  return out;
}

std::shared_ptr<SubscriptionData> SqliteStoreContext::insertSubscriptionData() {
  std::lock_guard lock(mutex_);
  auto r = std::make_shared<SqliteSubscriptionData>();
  live_.push_back(r);
  return r;
}

void SqliteStoreContext::deleteObject(const std::shared_ptr<SubscriptionData>& record) {
  std::lock_guard lock(mutex_);
  std::erase_if(live_, [&](const auto& r) { return r.get() == record.get(); });
}

void SqliteStoreContext::refreshObject(const std::shared_ptr<ZolvaniAssetData>&, bool) {
  // Asset fields are written through to the store as they change, so the record
  // already holds what the store holds.
}

bool SqliteStoreContext::save() {
  std::lock_guard lock(mutex_);
  auto engine = engine_.lock();
  if (!engine) return false;
  std::lock_guard dbLock(engine->db.mutex());
  Transaction tx(engine->db);
  if (engine->db.exec("DELETE FROM subscription_items; DELETE FROM subscription_data;"))
    return false;
  Statement record(engine->db,
                   "INSERT INTO subscription_data(id, uuid, autodelete, max_bitrate, max_items) "
                   "VALUES(?,?,?,?,?)");
  Statement item(
      engine->db,
      "INSERT OR IGNORE INTO subscription_items(record_id, collection, position, asset_uuid) "
      "VALUES(?,?,?,?)");
  if (!record.ok() || !item.ok()) return false;
  std::int64_t id = 0;
  for (const auto& r : live_) {
    ++id;
    record.reset();
    record.bind(1, id).bind(2, r->uuid()).bind(3, std::int64_t{r->autodeleteValue()});
    record.bind(4, r->maxBitrateValue()).bind(5, std::int64_t{r->maxItemsValue()});
    if (!record.run()) return false;
    int collection = 0;
    for (const AssetDataOrderedSet* set : {&r->feedItemsSet(), &r->deferredFeedItemsSet()}) {
      std::int64_t position = 0;
      for (const auto& i : *set) {
        item.reset();
        item.bind(1, id).bind(2, std::int64_t{collection}).bind(3, position++).bind(4, i->uuid());
        if (!item.run()) return false;
      }
      ++collection;
    }
  }
  return tx.commit();
}

std::optional<Error> SqliteStoreContext::load() {
  std::lock_guard lock(mutex_);
  auto engine = engine_.lock();
  if (!engine) return engineError(kEngineErrorStore, "engine gone");
  struct Row {
    std::shared_ptr<SqliteSubscriptionData> record;
    std::vector<std::pair<std::int64_t, std::string>> items;  // collection, asset UUID
  };
  std::vector<Row> rows;
  {
    std::lock_guard dbLock(engine->db.mutex());
    Statement records(
        engine->db,
        "SELECT id, uuid, autodelete, max_bitrate, max_items FROM subscription_data ORDER BY id");
    Statement items(engine->db,
                    "SELECT collection, asset_uuid FROM subscription_items WHERE record_id=? "
                    "ORDER BY collection, position");
    if (!records.ok() || !items.ok()) return engineError(kEngineErrorStore, engine->db.lastError());
    while (records.step()) {
      Row row{std::make_shared<SqliteSubscriptionData>(), {}};
      row.record->setUuid(records.text(1));
      row.record->setAutodeleteValue(records.int64(2) != 0);
      row.record->setMaxBitrateValue(records.int64(3));
      row.record->setMaxItemsValue(static_cast<std::int16_t>(records.int64(4)));
      items.reset();
      items.bind(1, records.int64(0));
      while (items.step()) row.items.emplace_back(items.int64(0), items.text(1));
      rows.push_back(std::move(row));
    }
  }
  // Assets are resolved after the database is released (the engine's lock
  // comes before the database's).
  live_.clear();
  for (auto& row : rows) {
    for (const auto& [collection, uuid] : row.items) {
      // Gone assets keep their place so that the library's cancellation pass
      // finds and announces them.
      auto asset = engine->findAny(uuid);
      if (!asset) continue;
      (collection == 0 ? row.record->feedItemsSet() : row.record->deferredFeedItemsSet())
          .add(asset->assetDataFromAsset());
    }
    live_.push_back(row.record);
  }
  return std::nullopt;
}

void SqliteStoreContext::forgetAsset(const std::string& uuid) {
  std::lock_guard lock(mutex_);
  for (auto& r : live_) {
    for (AssetDataOrderedSet* set : {&r->feedItemsSet(), &r->deferredFeedItemsSet()}) {
      for (std::size_t i = set->count(); i-- > 0;)
        if (set->at(i)->uuid() == uuid) set->removeAt(i);
    }
  }
}

}  // namespace zolvani::reference
