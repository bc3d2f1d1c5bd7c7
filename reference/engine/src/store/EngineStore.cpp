#include "store/EngineStore.h"

#include <utility>

namespace zolvani::reference {
namespace {

constexpr std::string_view kSchema = R"sql(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS assets(
  uuid TEXT PRIMARY KEY, asset_id TEXT NOT NULL, description TEXT NOT NULL, url TEXT NOT NULL,
  manifest INTEGER NOT NULL, protection_type INTEGER NOT NULL, include_keys INTEGER NOT NULL,
  max_bitrate INTEGER NOT NULL, publish_date REAL, expiry_date REAL,
  expiry_after_download REAL NOT NULL, expiry_after_play REAL NOT NULL,
  download_limit INTEGER NOT NULL, fast_play INTEGER NOT NULL, user_info TEXT NOT NULL,
  creation_date REAL NOT NULL, state INTEGER NOT NULL, fraction REAL NOT NULL,
  bytes_done INTEGER NOT NULL, bytes_total INTEGER NOT NULL, download_complete REAL,
  local_path TEXT NOT NULL, queue_pos INTEGER NOT NULL, etag TEXT NOT NULL,
  last_modified TEXT NOT NULL, error_code INTEGER NOT NULL, error_text TEXT NOT NULL,
  bandwidth INTEGER NOT NULL, segments_done INTEGER NOT NULL, segments_total INTEGER NOT NULL,
  seq INTEGER NOT NULL, retry_failures INTEGER NOT NULL DEFAULT 0,
  retry_bytes INTEGER NOT NULL DEFAULT 0, retry_not_before REAL NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS assets_by_asset_id ON assets(asset_id);
CREATE TABLE IF NOT EXISTS subscription_data(
  id INTEGER PRIMARY KEY, uuid TEXT NOT NULL, autodelete INTEGER NOT NULL,
  max_bitrate INTEGER NOT NULL, max_items INTEGER NOT NULL, last_updated REAL);
CREATE TABLE IF NOT EXISTS subscription_items(
  record_id INTEGER NOT NULL REFERENCES subscription_data(id) ON DELETE CASCADE,
  collection INTEGER NOT NULL, position INTEGER NOT NULL, asset_uuid TEXT NOT NULL,
  PRIMARY KEY(record_id, collection, asset_uuid));
CREATE INDEX IF NOT EXISTS items_by_asset ON subscription_items(asset_uuid);
)sql";

}  // namespace

std::optional<std::string> EngineStore::open(const std::filesystem::path& file) {
  close();
  std::lock_guard l(db_.mutex());
  if (auto e = db_.open(file)) return "Cannot open the engine's database: " + *e;
  // Savepoints inside the group commit's transaction keep their journal in
  // memory rather than in a temporary file. Asset identifiers are random, so
  // new rows land all over the indexes: a page cache of 16 MiB keeps a
  // library of tens of thousands of assets from re-reading its index pages.
  if (auto e =
          db_.exec(std::string(kSchema) + "PRAGMA temp_store=MEMORY; PRAGMA cache_size=-16384;"))
    return "Cannot prepare the database: " + *e;
  // Columns added since the first release of the table.
  for (const char* column :
       {"retry_failures INTEGER NOT NULL DEFAULT 0", "retry_bytes INTEGER NOT NULL DEFAULT 0",
        "retry_not_before REAL NOT NULL DEFAULT 0"}) {
    const std::string name(column, std::string_view(column).find(' '));
    Statement has(db_, "SELECT count(*) FROM pragma_table_info('assets') WHERE name=?");
    has.bind(1, name);
    if (has.step() && has.int64(0) == 0) {
      if (auto e = db_.exec("ALTER TABLE assets ADD COLUMN " + std::string(column)))
        return "Cannot prepare the database: " + *e;
    }
  }
  commits_ = std::make_shared<GroupCommit>(db_, options_);
  commits_->addDeferredWriter({[this] { metaTaken_ = std::exchange(metaHeld_, {}); },
                               [this] { return writeMeta(); },
                               [this] {
                                 // A value set since the failed commit is newer.
                                 metaHeld_.merge(metaTaken_);
                                 metaTaken_.clear();
                               },
                               [this] { metaTaken_.clear(); }});
  assets_ = std::make_unique<AssetTable>(db_, *commits_);
  return std::nullopt;
}

void EngineStore::close() {
  // The held rows land before their writers go, all of them or none.
  if (commits_ && !commits_->flush()) commits_->abandon();
  assets_.reset();
  commits_.reset();  // commits what is pending
  std::lock_guard l(db_.mutex());
  db_.close();
}

std::string EngineStore::metaValue(const std::string& key) {
  std::lock_guard l(db_.mutex());
  {
    auto held = commits_->holdRows();
    if (auto it = metaHeld_.find(key); it != metaHeld_.end()) return it->second;
  }
  if (auto it = metaTaken_.find(key); it != metaTaken_.end()) return it->second;
  Statement& s = db_.prepared("SELECT value FROM meta WHERE key=?");
  s.bind(1, key);
  std::string value = s.step() ? s.text(0) : std::string();
  s.reset();
  return value;
}

bool EngineStore::setMetaValue(const std::string& key, const std::string& value) {
  {
    auto held = commits_->holdRows();
    metaHeld_[key] = value;
  }
  commits_->deferred();
  return true;
}

bool EngineStore::writeMeta() {
  for (const auto& [key, value] : metaTaken_) {
    if (!db_.prepared("INSERT OR REPLACE INTO meta(key, value) VALUES(?,?)")
             .bind(1, key)
             .bind(2, value)
             .run())
      return false;
  }
  return true;
}

}  // namespace zolvani::reference
