#include "store/AssetTable.h"

namespace zolvani::reference {
namespace {

constexpr std::string_view kSelectAll =
    "SELECT uuid, asset_id, description, url, manifest, protection_type, include_keys, "
    "max_bitrate, publish_date, expiry_date, expiry_after_download, expiry_after_play, "
    "download_limit, fast_play, user_info, creation_date, state, fraction, bytes_done, "
    "bytes_total, download_complete, local_path, queue_pos, etag, last_modified, error_code, "
    "error_text, bandwidth, segments_done, segments_total, seq, retry_failures, retry_bytes, "
    "retry_not_before FROM assets ORDER BY seq";

constexpr std::string_view kInsert =
    "INSERT OR REPLACE INTO assets(uuid, asset_id, description, url, manifest, protection_type, "
    "include_keys, max_bitrate, publish_date, expiry_date, expiry_after_download, "
    "expiry_after_play, download_limit, fast_play, user_info, creation_date, state, fraction, "
    "bytes_done, bytes_total, download_complete, local_path, queue_pos, etag, last_modified, "
    "error_code, error_text, bandwidth, segments_done, segments_total, seq, retry_failures, "
    "retry_bytes, retry_not_before) "
    "VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)";

constexpr std::string_view kUpdate =
    "UPDATE assets SET creation_date=?, state=?, fraction=?, bytes_done=?, bytes_total=?, "
    "download_complete=?, local_path=?, queue_pos=?, etag=?, last_modified=?, error_code=?, "
    "error_text=?, bandwidth=?, segments_done=?, segments_total=?, retry_failures=?, "
    "retry_bytes=?, retry_not_before=? WHERE uuid=?";

std::optional<double> seconds(const std::optional<Date>& d) {
  return d ? std::optional<double>(d->secondsSince1970) : std::nullopt;
}
std::optional<Date> date(const std::optional<double>& s) {
  return s ? std::optional<Date>(Date(*s)) : std::nullopt;
}

AssetFields readRow(const Statement& s) {
  AssetFields f;
  f.uuid = s.text(0);
  f.assetID = s.text(1);
  f.description = s.text(2);
  f.url = s.text(3);
  f.manifest = s.int64(4) != 0;
  f.protectionType = static_cast<std::int32_t>(s.int64(5));
  f.includeEncryptionKeys = s.int64(6) != 0;
  f.maximumBitrate = s.int64(7);
  f.publishDate = date(s.optionalReal(8));
  f.expiryDate = date(s.optionalReal(9));
  f.expiryAfterDownload = s.real(10);
  f.expiryAfterPlay = s.real(11);
  f.downloadLimit = static_cast<std::int32_t>(s.int64(12));
  f.fastPlay = s.int64(13) != 0;
  f.userInfoJson = s.text(14);
  f.creationDate = Date(s.real(15));
  f.state = static_cast<AssetState>(s.int64(16));
  f.fraction = s.real(17);
  f.bytesDone = static_cast<std::uint64_t>(s.int64(18));
  f.bytesTotal = static_cast<std::uint64_t>(s.int64(19));
  f.downloadComplete = date(s.optionalReal(20));
  f.localPath = s.text(21);
  f.queuePos = s.int64(22);
  f.etag = s.text(23);
  f.lastModified = s.text(24);
  f.errorCode = s.int64(25);
  f.errorText = s.text(26);
  f.bandwidth = s.int64(27);
  f.segmentsDone = s.int64(28);
  f.segmentsTotal = s.int64(29);
  f.seq = s.int64(30);
  f.retryFailures = s.int64(31);
  f.retryBytes = static_cast<std::uint64_t>(s.int64(32));
  f.retryNotBefore = s.real(33);
  return f;
}

}  // namespace

AssetTable::Progress AssetTable::progressOf(const AssetFields& f) {
  return Progress{f.creationDate.secondsSince1970,
                  f.state,
                  f.fraction,
                  f.bytesDone,
                  f.bytesTotal,
                  seconds(f.downloadComplete),
                  f.localPath,
                  f.queuePos,
                  f.etag,
                  f.lastModified,
                  f.errorCode,
                  f.errorText,
                  f.bandwidth,
                  f.segmentsDone,
                  f.segmentsTotal,
                  f.retryFailures,
                  f.retryBytes,
                  f.retryNotBefore};
}

AssetTable::AssetTable(Database& db, GroupCommit& commits) : db_(db), commits_(commits) {
  writerId_ = commits_.addDeferredWriter({[this] { taken_ = std::exchange(held_, {}); },
                                          [this] { return writeHeld(); }, [this] { restoreHeld(); },
                                          [this] {
                                            rowWrites_ += taken_.size();
                                            taken_.clear();
                                          }});
}

AssetTable::~AssetTable() { commits_.removeDeferredWriter(writerId_); }

void AssetTable::applyProgress(const Progress& p, AssetFields& f) {
  f.creationDate = Date(p.creationDate);
  f.state = p.state;
  f.fraction = p.fraction;
  f.bytesDone = p.bytesDone;
  f.bytesTotal = p.bytesTotal;
  f.downloadComplete = date(p.downloadComplete);
  f.localPath = p.localPath;
  f.queuePos = p.queuePos;
  f.etag = p.etag;
  f.lastModified = p.lastModified;
  f.errorCode = p.errorCode;
  f.errorText = p.errorText;
  f.bandwidth = p.bandwidth;
  f.segmentsDone = p.segmentsDone;
  f.segmentsTotal = p.segmentsTotal;
  f.retryFailures = p.retryFailures;
  f.retryBytes = p.retryBytes;
  f.retryNotBefore = p.retryNotBefore;
}

std::optional<std::string> AssetTable::loadAll(std::vector<AssetFields>* out) {
  std::lock_guard dbLock(db_.mutex());
  Statement s(db_, kSelectAll);
  if (!s.ok()) return db_.lastError();
  auto l = commits_.holdRows();
  while (s.step()) {
    out->push_back(readRow(s));
    known_[out->back().uuid] = progressOf(out->back());
  }
  return std::nullopt;
}

bool AssetTable::insert(const AssetFields& f) {
  {
    auto l = commits_.holdRows();
    if (!known_.emplace(f.uuid, progressOf(f)).second) return false;
    held_[f.uuid] = Held{f, {}};
  }
  commits_.deferred();
  return true;
}

bool AssetTable::update(const AssetFields& f) {
  return update([&f] { return f; });
}

bool AssetTable::update(const std::function<AssetFields()>& current) {
  {
    auto l = commits_.holdRows();
    const AssetFields f = current();
    auto it = known_.find(f.uuid);
    if (it == known_.end()) return false;  // no row to update
    Progress now = progressOf(f);
    if (it->second == now) return true;
    Held& held = held_[f.uuid];
    if (held.row)
      held.row = f;  // not written yet: the new row is written whole
    else
      held.progress = now;
    it->second = std::move(now);
  }
  commits_.deferred();
  return true;
}

bool AssetTable::writeHeld() {
  for (const auto& [uuid, held] : taken_) {
    if (held.removed) {
      Statement& row = db_.prepared("DELETE FROM assets WHERE uuid=?");
      if (!row.bind(1, uuid).run()) return false;
      Statement& entries = db_.prepared("DELETE FROM subscription_items WHERE asset_uuid=?");
      if (!entries.bind(1, uuid).run()) return false;
    } else if (held.row) {
      const AssetFields& f = *held.row;
      Statement& s = db_.prepared(kInsert);
      s.bind(1, f.uuid).bind(2, f.assetID).bind(3, f.description).bind(4, f.url);
      s.bind(5, std::int64_t{f.manifest}).bind(6, std::int64_t{f.protectionType});
      s.bind(7, std::int64_t{f.includeEncryptionKeys}).bind(8, f.maximumBitrate);
      s.bind(9, seconds(f.publishDate)).bind(10, seconds(f.expiryDate));
      s.bind(11, f.expiryAfterDownload).bind(12, f.expiryAfterPlay);
      s.bind(13, std::int64_t{f.downloadLimit}).bind(14, std::int64_t{f.fastPlay});
      s.bind(15, f.userInfoJson);
      s.bind(16, f.creationDate.secondsSince1970).bind(17, static_cast<std::int64_t>(f.state));
      s.bind(18, f.fraction).bind(19, static_cast<std::int64_t>(f.bytesDone));
      s.bind(20, static_cast<std::int64_t>(f.bytesTotal)).bind(21, seconds(f.downloadComplete));
      s.bind(22, f.localPath).bind(23, f.queuePos).bind(24, f.etag).bind(25, f.lastModified);
      s.bind(26, f.errorCode).bind(27, f.errorText).bind(28, f.bandwidth);
      s.bind(29, f.segmentsDone).bind(30, f.segmentsTotal).bind(31, f.seq);
      s.bind(32, f.retryFailures).bind(33, static_cast<std::int64_t>(f.retryBytes));
      s.bind(34, f.retryNotBefore);
      if (!s.run()) return false;
    } else {
      const Progress& p = held.progress;
      Statement& s = db_.prepared(kUpdate);
      s.bind(1, p.creationDate).bind(2, static_cast<std::int64_t>(p.state));
      s.bind(3, p.fraction).bind(4, static_cast<std::int64_t>(p.bytesDone));
      s.bind(5, static_cast<std::int64_t>(p.bytesTotal)).bind(6, p.downloadComplete);
      s.bind(7, p.localPath).bind(8, p.queuePos).bind(9, p.etag).bind(10, p.lastModified);
      s.bind(11, p.errorCode).bind(12, p.errorText).bind(13, p.bandwidth);
      s.bind(14, p.segmentsDone).bind(15, p.segmentsTotal).bind(16, p.retryFailures);
      s.bind(17, static_cast<std::int64_t>(p.retryBytes)).bind(18, p.retryNotBefore);
      s.bind(19, uuid);
      if (!s.run()) return false;
    }
  }
  return true;
}

void AssetTable::restoreHeld() {
  // What a failed commit took is older than anything held since, which wins
  // where both concern the same row.
  for (auto& [uuid, older] : taken_) {
    auto newer = held_.find(uuid);
    if (newer == held_.end()) {
      held_.emplace(uuid, std::move(older));
    } else if (older.row && !newer->second.removed) {
      // A new row whose changing columns changed since: still a new row.
      AssetFields row = std::move(*older.row);
      applyProgress(newer->second.progress, row);
      newer->second.row = std::move(row);
    }
  }
  taken_.clear();
}

bool AssetTable::remove(const std::string& uuid) {
  {
    auto l = commits_.holdRows();
    if (!known_.erase(uuid)) return false;
    // Whatever was held for the row gives way to its removal, which takes
    // the asset's entries in every feed with it. The feeds' own log is
    // written before the held rows, so an entry logged for the asset before
    // now never lands after its removal.
    held_[uuid] = Held{std::nullopt, {}, true};
  }
  commits_.deferred();
  return true;
}

std::uint64_t AssetTable::rowWrites() const { return rowWrites_; }

}  // namespace zolvani::reference
