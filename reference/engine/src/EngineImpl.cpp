// The engine's state: start-up and reconciliation, assets, the download queue.
#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "EngineCore.h"
#include "EngineLog.h"
#include "zolvani/subscription/platform/Platform.h"

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
  seq INTEGER NOT NULL);
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

constexpr std::string_view kAssetColumns =
    "uuid, asset_id, description, url, manifest, protection_type, include_keys, max_bitrate, "
    "publish_date, expiry_date, expiry_after_download, expiry_after_play, download_limit, "
    "fast_play, "
    "user_info, creation_date, state, fraction, bytes_done, bytes_total, download_complete, "
    "local_path, "
    "queue_pos, etag, last_modified, error_code, error_text, bandwidth, segments_done, "
    "segments_total, seq";

std::optional<double> seconds(const std::optional<Date>& d) {
  return d ? std::optional<double>(d->secondsSince1970) : std::nullopt;
}
std::optional<Date> date(const std::optional<double>& s) {
  return s ? std::optional<Date>(Date(*s)) : std::nullopt;
}

AssetFields readAsset(const Statement& s) {
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
  return f;
}

}  // namespace

ReferenceEngine::Impl::Impl(ReferenceEngineOptions o) : options(std::move(o)) {
  if (options.parallelTransfers < 1) options.parallelTransfers = 1;
  reachOverride_ = options.reachabilityOverride;
}

ReferenceEngine::Impl::~Impl() {
  stop();
  if (eventsFile_) std::fclose(eventsFile_);
}

std::filesystem::path ReferenceEngine::Impl::assetFolder(const std::string& uuid) const {
  return options.dataFolder / "media" / uuid;
}

std::optional<Error> ReferenceEngine::Impl::start() {
  std::error_code ec;
  if (options.dataFolder.empty()) return engineError(kEngineErrorStore, "No data folder was given");
  std::filesystem::create_directories(options.dataFolder / "media", ec);
  if (ec)
    return engineError(kEngineErrorStore, fmt::format("Cannot create the data folder {}: {}",
                                                      options.dataFolder.string(), ec.message()));
  {
    std::lock_guard l(db.mutex());
    if (auto e = db.open(options.dataFolder / "engine.sqlite3"))
      return engineError(kEngineErrorStore, "Cannot open the engine's database: " + *e);
    if (auto e = db.exec(kSchema))
      return engineError(kEngineErrorStore, "Cannot prepare the database: " + *e);
  }
  logger_ = makeEngineLogger(options);
  eventsFile_ = std::fopen((options.dataFolder / "events.jsonl").c_str(), "a");
  deviceUUID_ = metaValue("device_uuid");
  if (deviceUUID_.empty()) {
    deviceUUID_ = newUUIDString();
    setMetaValue("device_uuid", deviceUUID_);
  }
  context = std::make_shared<SqliteStoreContext>(weak_from_this());
  if (auto e = reconcile()) return e;
  if (auto e = context->load()) return e;
  if (!options.user.empty())
    startup(options.keelhallURL, options.user, options.externalDeviceID, options.secret,
            options.key);
  {
    std::lock_guard l(mutex_);
    stopping_ = false;
  }
  {
    std::lock_guard l(callbackMutex_);
    callbackStop_ = false;
  }
  callbackThread_ = std::thread([this] { callbackLoop(); });
  for (int i = 0; i < options.parallelTransfers; ++i) workers_.emplace_back([this] { worker(); });
  log(fmt::format("Reference engine started in {} with {} assets", options.dataFolder.string(),
                  listAssets().size()),
      4);
  return std::nullopt;
}

void ReferenceEngine::Impl::stop() {
  {
    std::lock_guard l(mutex_);
    stopping_ = true;  // running transfers see it at their next progress call
  }
  cv_.notify_all();
  for (auto& t : workers_) t.join();
  workers_.clear();
  {
    std::lock_guard l(callbackMutex_);
    callbackStop_ = true;
  }
  callbackCv_.notify_all();
  if (callbackThread_.joinable()) callbackThread_.join();
}

std::optional<Error> ReferenceEngine::Impl::reconcile() {
  std::vector<AssetFields> all;
  {
    std::lock_guard l(db.mutex());
    Statement s(db, fmt::format("SELECT {} FROM assets ORDER BY seq", kAssetColumns));
    if (!s.ok()) return engineError(kEngineErrorStore, db.lastError());
    while (s.step()) all.push_back(readAsset(s));
  }
  std::vector<AssetFields> changed;
  std::vector<std::pair<std::int64_t, std::string>> queued;
  std::lock_guard l(mutex_);
  for (auto& f : all) {
    nextSeq_ = std::max(nextSeq_, f.seq + 1);
    nextQueuePos_ = std::max(nextQueuePos_, f.queuePos + 1);
    if (f.state == AssetState::kTransferring) {
      // The process died mid-transfer: the asset goes back to the queue and
      // resumes from its partial file.
      f.state = AssetState::kQueued;
      changed.push_back(f);
    } else if (f.state == AssetState::kComplete) {
      std::error_code ec;
      if (f.localPath.empty() || !std::filesystem::exists(options.dataFolder / f.localPath, ec)) {
        f.state = AssetState::kGone;
        f.errorText = "The downloaded file was removed outside the engine";
        changed.push_back(f);
      }
    }
    if (f.state == AssetState::kQueued) queued.emplace_back(f.queuePos, f.uuid);
    auto asset = std::make_shared<ReferenceAsset>(weak_from_this(), f);
    assets_[f.uuid] = asset;
  }
  std::sort(queued.begin(), queued.end());
  queue_.clear();
  for (auto& [pos, uuid] : queued) queue_.push_back(uuid);
  for (const auto& f : changed) writeAsset(f);
  return std::nullopt;
}

std::string ReferenceEngine::Impl::metaValue(const std::string& key) {
  std::lock_guard l(db.mutex());
  Statement s(db, "SELECT value FROM meta WHERE key=?");
  s.bind(1, key);
  return s.step() ? s.text(0) : std::string();
}

void ReferenceEngine::Impl::setMetaValue(const std::string& key, const std::string& value) {
  std::lock_guard l(db.mutex());
  Statement s(db, "INSERT OR REPLACE INTO meta(key, value) VALUES(?,?)");
  s.bind(1, key).bind(2, value).run();
}

bool ReferenceEngine::Impl::persist(const AssetFields& f) {
  // Checked and written under the engine's lock, so that a late write from a
  // transfer or a caller never brings a deleted asset's row back.
  std::lock_guard l(mutex_);
  if (!assets_.count(f.uuid)) return false;
  return writeAsset(f);
}

bool ReferenceEngine::Impl::writeAsset(const AssetFields& f) {
  std::lock_guard l(db.mutex());
  Statement s(
      db,
      fmt::format(
          "INSERT OR REPLACE INTO assets({}) VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,"
          "?,?,?,?,?,?,?,?,?)",
          kAssetColumns));
  s.bind(1, f.uuid).bind(2, f.assetID).bind(3, f.description).bind(4, f.url);
  s.bind(5, std::int64_t{f.manifest}).bind(6, std::int64_t{f.protectionType});
  s.bind(7, std::int64_t{f.includeEncryptionKeys}).bind(8, f.maximumBitrate);
  s.bind(9, seconds(f.publishDate)).bind(10, seconds(f.expiryDate));
  s.bind(11, f.expiryAfterDownload).bind(12, f.expiryAfterPlay);
  s.bind(13, std::int64_t{f.downloadLimit})
      .bind(14, std::int64_t{f.fastPlay})
      .bind(15, f.userInfoJson);
  s.bind(16, f.creationDate.secondsSince1970).bind(17, static_cast<std::int64_t>(f.state));
  s.bind(18, f.fraction).bind(19, static_cast<std::int64_t>(f.bytesDone));
  s.bind(20, static_cast<std::int64_t>(f.bytesTotal)).bind(21, seconds(f.downloadComplete));
  s.bind(22, f.localPath).bind(23, f.queuePos).bind(24, f.etag).bind(25, f.lastModified);
  s.bind(26, f.errorCode).bind(27, f.errorText).bind(28, f.bandwidth).bind(29, f.segmentsDone);
  s.bind(30, f.segmentsTotal).bind(31, f.seq);
  if (s.run()) return true;
  if (logger_) log("Could not write asset " + f.uuid + ": " + db.lastError(), 0);
  return false;
}

// --- Assets -------------------------------------------------------------------

std::shared_ptr<ReferenceAsset> ReferenceEngine::Impl::createAsset(AssetFields f,
                                                                   AssetReadyCallback ready,
                                                                   AssetParseCallback parse) {
  f.uuid = newUUIDString();
  f.creationDate = secureDate();
  {
    std::lock_guard l(mutex_);
    f.seq = nextSeq_++;
  }
  if (!writeAsset(f)) return nullptr;
  auto asset = std::make_shared<ReferenceAsset>(weak_from_this(), f);
  const bool willPrepare = f.manifest ? (ready || parse) : (options.callReadyCallbacks && ready);
  {
    std::lock_guard l(mutex_);
    assets_[f.uuid] = asset;
    if (willPrepare) preparing_.insert(f.uuid);
  }
  if (f.manifest) {
    if (ready || parse) {
      callLater([self = shared_from_this(), asset, uuid = f.uuid, ready = std::move(ready),
                 parse = std::move(parse)] {
        self->prepareManifest(asset, ready, parse);
        self->finishPreparing(uuid);
      });
    }
  } else if (options.callReadyCallbacks && ready) {
    callLater([self = shared_from_this(), asset, uuid = f.uuid, ready = std::move(ready),
               parse = std::move(parse)] {
      if (parse) parse(asset, std::nullopt);
      ready(asset);
      self->finishPreparing(uuid);
    });
  }
  return asset;
}

void ReferenceEngine::Impl::finishPreparing(const std::string& uuid) {
  std::lock_guard l(mutex_);
  preparing_.erase(uuid);
}

std::shared_ptr<ReferenceAsset> ReferenceEngine::Impl::findByUUID(std::string_view uuid) {
  std::lock_guard l(mutex_);
  auto it = assets_.find(std::string(uuid));
  if (it == assets_.end()) return nullptr;
  if (it->second->fields().state == AssetState::kGone) {
    // A gone asset answers as absent; the engine then completes its deletion so
    // that its record leaves the feed collections.
    callLater(
        [self = shared_from_this(), u = std::string(uuid)] { self->deleteAsset(u, 2, nullptr); });
    return nullptr;
  }
  return it->second;
}

std::shared_ptr<ReferenceAsset> ReferenceEngine::Impl::findAny(std::string_view uuid) const {
  std::lock_guard l(mutex_);
  auto it = assets_.find(std::string(uuid));
  return it == assets_.end() ? nullptr : it->second;
}

std::shared_ptr<ReferenceAsset> ReferenceEngine::Impl::findByAssetID(
    std::string_view assetID) const {
  std::lock_guard l(mutex_);
  std::shared_ptr<ReferenceAsset> best;
  std::int64_t bestSeq = 0;
  for (const auto& [uuid, asset] : assets_) {
    AssetFields f = asset->fields();
    if (f.assetID != assetID || f.state == AssetState::kGone) continue;
    if (!best || f.seq < bestSeq) {
      best = asset;
      bestSeq = f.seq;
    }
  }
  return best;
}

void ReferenceEngine::Impl::deleteAsset(
    const std::string& uuid, std::int64_t reason,
    std::function<void(bool, std::optional<Error>)> onComplete) {
  std::shared_ptr<ReferenceAsset> asset;
  {
    std::unique_lock l(mutex_);
    auto it = assets_.find(uuid);
    if (it == assets_.end()) {
      l.unlock();
      if (onComplete) onComplete(false, engineError(kEngineErrorUnknownAsset, "No asset " + uuid));
      return;
    }
    asset = it->second;
    std::erase(queue_, uuid);
    if (auto t = transferring_.find(uuid); t != transferring_.end()) *t->second = true;
    // The transfer notices the cancel at its next progress call; its files are
    // removed only once it let go of them.
    cv_.wait_for(l, std::chrono::seconds(20), [&] { return !transferring_.count(uuid); });
    assets_.erase(uuid);
  }
  context->forgetAsset(uuid);
  {
    std::lock_guard l(db.mutex());
    Statement a(db, "DELETE FROM assets WHERE uuid=?");
    a.bind(1, uuid).run();
    Statement i(db, "DELETE FROM subscription_items WHERE asset_uuid=?");
    i.bind(1, uuid).run();
  }
  std::error_code ec;
  std::filesystem::remove_all(assetFolder(uuid), ec);
  {
    std::lock_guard l(progressMutex);
    lastPersist_.erase(uuid);
    lastProgress_.erase(uuid);
  }
  log(fmt::format("Deleted asset {} ({}) with reason {}", uuid, asset->description(), reason), 4);
  post(kEngineContentDeletedNotification);
  cv_.notify_all();
  if (onComplete) onComplete(true, std::nullopt);
}

AssetInfo ReferenceEngine::Impl::info(const AssetFields& f) const {
  AssetInfo i;
  i.uuid = f.uuid;
  i.assetID = f.assetID;
  i.description = f.description;
  i.url = f.url;
  i.manifest = f.manifest;
  i.state = f.state;
  i.fractionComplete = f.fraction;
  i.bytesDone = f.bytesDone;
  i.bytesTotal = f.bytesTotal;
  i.creationDate = f.creationDate;
  i.downloadCompleteDateTime = f.downloadComplete;
  if (!f.localPath.empty() && f.state == AssetState::kComplete)
    i.localPath = options.dataFolder / f.localPath;
  if (f.errorCode != 0) i.lastError = engineError(f.errorCode, f.errorText);
  i.chosenBandwidth = f.bandwidth;
  i.segmentsDone = f.segmentsDone;
  i.segmentsTotal = f.segmentsTotal;
  return i;
}

std::vector<AssetInfo> ReferenceEngine::Impl::listAssets() const {
  std::vector<AssetFields> all;
  {
    std::lock_guard l(mutex_);
    for (const auto& [uuid, asset] : assets_) all.push_back(asset->fields());
  }
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.seq < b.seq; });
  std::vector<AssetInfo> out;
  for (const auto& f : all) out.push_back(info(f));
  return out;
}

// --- Asset objects --------------------------------------------------------------

void ReferenceAsset::_setCreationDate(Date date) {
  AssetFields f = update([&](AssetFields& x) { x.creationDate = date; });
  if (auto e = engine_.lock()) e->persist(f);
}

std::string ReferenceAsset::assetID() const { return fields().assetID; }
std::string ReferenceAsset::description() const { return fields().description; }
std::optional<Date> ReferenceAsset::downloadCompleteDateTime() const {
  return fields().downloadComplete;
}
double ReferenceAsset::fractionComplete() const { return fields().fraction; }

std::shared_ptr<ZolvaniAssetData> ReferenceAsset::assetDataFromAsset() {
  std::lock_guard l(mutex_);
  if (!data_) {
    std::weak_ptr<ZolvaniManagedObjectContext> ctx;
    if (auto e = engine_.lock()) ctx = e->context;
    data_ = std::make_shared<ReferenceAssetData>(weak_from_this(), uuid_, ctx);
  }
  return data_;
}

void ReferenceAsset::deleteAssetWithReason(
    std::int64_t reason, std::function<void(bool, std::optional<Error>)> onComplete) {
  auto e = engine_.lock();
  if (!e) {
    if (onComplete)
      onComplete(false, engineError(kEngineErrorNotStarted, "The engine has stopped"));
    return;
  }
  e->deleteAsset(uuid_, reason, std::move(onComplete));
}

// --- Callbacks --------------------------------------------------------------------

void ReferenceEngine::Impl::callLater(std::function<void()> task) {
  {
    std::lock_guard l(callbackMutex_);
    callbacks_.push_back(std::move(task));
  }
  callbackCv_.notify_one();
}

void ReferenceEngine::Impl::callbackLoop() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock l(callbackMutex_);
      callbackCv_.wait(l, [&] { return callbackStop_ || !callbacks_.empty(); });
      if (callbacks_.empty()) return;  // stopping and drained
      task = std::move(callbacks_.front());
      callbacks_.pop_front();
    }
    task();
  }
}

void ReferenceEngine::Impl::post(std::string_view name) {
  auto center = options.notificationCenter;
  if (!center) return;
  auto task = [center, n = std::string(name)] { center->post(n); };
  if (options.notificationQueue)
    options.notificationQueue->async(task);
  else
    callLater(task);
}

}  // namespace zolvani::reference
