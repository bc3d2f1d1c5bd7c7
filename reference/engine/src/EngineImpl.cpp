// The engine's state: start-up and reconciliation, assets, the download queue.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "EngineCore.h"
#include "EngineLog.h"
#include "zolvani/subscription/platform/Platform.h"

namespace zolvani::reference {

ReferenceEngine::Impl::Impl(ReferenceEngineOptions o)
    : options(std::move(o)), store(GroupCommitOptions{options.commitQuiet, options.commitWithin}) {
  if (options.parallelTransfers < 1) options.parallelTransfers = 1;
  reachOverride_ = options.reachabilityOverride;
}

ReferenceEngine::Impl::~Impl() {
  stop();
  if (eventsFile_) std::fclose(eventsFile_);
  // The store closes (members go after this body) before the folder is free.
  store.close();
  unlockFolder();
}

void ReferenceEngine::Impl::unlockFolder() {
  std::lock_guard l(mutex_);
  if (lockFd_ >= 0) ::close(lockFd_);
  lockFd_ = -1;
}

namespace {

// The name this process runs under, as `ps` shows it.
std::string programName() {
  std::ifstream comm("/proc/self/comm");
  std::string name;
  std::getline(comm, name);
  return name.empty() ? std::string("unknown") : name;
}

}  // namespace

std::optional<Error> ReferenceEngine::Impl::lockFolder() {
  if (lockFd_ >= 0) return std::nullopt;  // started before: still held
  const auto path = options.dataFolder / "engine.lock";
  // Close-on-exec: a program the host runs must not inherit the lock.
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0)
    return engineError(kEngineErrorStore,
                       fmt::format("Cannot open {}: {}", path.string(), std::strerror(errno)));
  // flock() rather than fcntl() locks: they belong to the open file, so a
  // second engine in the same process is refused too, and closing another
  // descriptor of the file does not let them go.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    std::string holder;
    std::ifstream in(path);
    std::getline(in, holder);
    ::close(fd);
    if (error != EWOULDBLOCK)
      return engineError(kEngineErrorStore,
                         fmt::format("Cannot lock {}: {}", path.string(), std::strerror(error)));
    // "<pid> <program>", as the holder wrote it.
    std::string pid = holder.substr(0, holder.find(' '));
    std::string program =
        holder.find(' ') == std::string::npos ? std::string() : holder.substr(holder.find(' ') + 1);
    return engineError(
        kEngineErrorFolderInUse,
        pid.empty() ? fmt::format("The data folder {} is in use by another process",
                                  options.dataFolder.string())
                    : fmt::format("The data folder {} is in use by process {} ({}); only one "
                                  "host may use a data folder at a time",
                                  options.dataFolder.string(), pid, program));
  }
  const std::string holder = fmt::format("{} {}\n", ::getpid(), programName());
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, holder.data(), holder.size(), 0) < 0) {
    // The lock holds without the note; a refused host then names no holder.
  }
  lockFd_ = fd;
  return std::nullopt;
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
  if (auto e = lockFolder()) return e;
  if (auto e = store.open(options.dataFolder / "engine.sqlite3"))
    return engineError(kEngineErrorStore, *e);
  logger_ = makeEngineLogger(options);
  eventsFile_ = std::fopen((options.dataFolder / "events.jsonl").c_str(), "a");
  deviceUUID_ = metaValue("device_uuid");
  if (deviceUUID_.empty()) {
    deviceUUID_ = newUUIDString();
    setMetaValue("device_uuid", deviceUUID_);
  }
  context = std::make_shared<SqliteStoreContext>(store.db(), store.commits());
  if (auto e = reconcile()) return e;
  // Gone assets keep their place in the feeds, so that the library's
  // cancellation pass finds and announces them.
  if (auto e = context->load([this](const std::string& uuid) {
        auto asset = findAny(uuid);
        return asset ? asset->assetDataFromAsset() : nullptr;
      }))
    return e;
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
  offlineCv_.notify_all();
  for (auto& t : workers_) t.join();
  workers_.clear();
  {
    std::lock_guard l(callbackMutex_);
    callbackStop_ = true;
  }
  callbackCv_.notify_all();
  if (callbackThread_.joinable()) callbackThread_.join();
  // What the last steps wrote is committed before the engine reports stopped.
  store.flush();
}

std::optional<Error> ReferenceEngine::Impl::reconcile() {
  std::vector<AssetFields> all;
  if (auto e = store.assets().loadAll(&all)) return engineError(kEngineErrorStore, *e);
  std::vector<AssetFields> changed;
  std::vector<std::pair<std::int64_t, std::string>> queued;
  std::lock_guard l(mutex_);
  std::unique_lock assetsLock(assetsMutex_);
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
    if (f.state == AssetState::kQueued && f.retryFailures > 0) {
      // The wait after transient failures goes on where the last run left it.
      const double left =
          f.retryNotBefore -
          std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
              .count();
      const auto wait = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
          std::chrono::duration<double>(std::clamp(left, 0.0, 3600.0)));
      backoff_[f.uuid] = Backoff{static_cast<int>(f.retryFailures), f.retryBytes,
                                 std::chrono::steady_clock::now() + wait};
    }
    auto asset = std::make_shared<ReferenceAsset>(weak_from_this(), f);
    assets_[f.uuid] = asset;
    indexLocked(asset);
  }
  std::sort(queued.begin(), queued.end());
  queue_.clear();
  for (auto& [pos, uuid] : queued) queue_.push_back(uuid);
  // Media folders no asset owns: a process killed after making a folder and
  // before its asset's row landed, or a folder whose deletion was cut short.
  // Nothing will ever use or remove them otherwise.
  std::vector<std::filesystem::path> orphans;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(options.dataFolder / "media", ec), end;
       !ec && it != end; it.increment(ec)) {
    if (!assets_.count(it->path().filename().string())) orphans.push_back(it->path());
  }
  assetsLock.unlock();
  for (const auto& f : changed) store.assets().update(f);
  for (const auto& folder : orphans) {
    std::filesystem::remove_all(folder, ec);
    log(fmt::format("Removed {}, which no asset owns{}", folder.string(),
                    ec ? ": " + ec.message() : std::string()),
        ec ? 1 : 2);
  }
  return std::nullopt;
}

std::string ReferenceEngine::Impl::metaValue(const std::string& key) {
  return store.metaValue(key);
}

void ReferenceEngine::Impl::setMetaValue(const std::string& key, const std::string& value) {
  store.setMetaValue(key, value);
}

bool ReferenceEngine::Impl::persist(const AssetFields& f) {
  // Checked and written while the asset maps cannot change, so that a late
  // write from a transfer or a caller never brings a deleted asset's row back.
  std::shared_lock l(assetsMutex_);
  auto it = assets_.find(f.uuid);
  if (it == assets_.end()) return false;
  // The asset as it is when its row is held, not as the caller saw it: a
  // caller slowed down between the two (a queueing whose download finished
  // meanwhile) would otherwise write its older state over the finished one.
  const std::shared_ptr<ReferenceAsset>& asset = it->second;
  if (store.assets().update([&] { return asset->fields(); })) return true;
  if (logger_) log("Could not write asset " + f.uuid + ": " + store.db().lastError(), 0);
  return false;
}

void ReferenceEngine::Impl::indexLocked(const std::shared_ptr<ReferenceAsset>& asset) {
  // Creation order is sequence order, so appending keeps each list oldest first.
  byAssetID_[asset->assetID()].push_back(asset);
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
  if (!store.assets().insert(f)) {
    log("Could not write asset " + f.uuid + ": " + store.db().lastError(), 0);
    return nullptr;
  }
  auto asset = std::make_shared<ReferenceAsset>(weak_from_this(), f);
  const bool willPrepare = f.manifest ? (ready || parse) : (options.callReadyCallbacks && ready);
  {
    std::lock_guard l(mutex_);
    {
      std::lock_guard assetsLock(assetsMutex_);
      assets_[f.uuid] = asset;
      indexLocked(asset);
    }
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
  std::shared_lock l(assetsMutex_);
  auto it = assets_.find(uuid);
  if (it == assets_.end()) return nullptr;
  if (it->second->state() == AssetState::kGone) {
    // A gone asset answers as absent; the engine then completes its deletion so
    // that its record leaves the feed collections.
    callLater(
        [self = shared_from_this(), u = std::string(uuid)] { self->deleteAsset(u, 2, nullptr); });
    return nullptr;
  }
  return it->second;
}

std::shared_ptr<ReferenceAsset> ReferenceEngine::Impl::findAny(std::string_view uuid) const {
  std::shared_lock l(assetsMutex_);
  auto it = assets_.find(uuid);
  return it == assets_.end() ? nullptr : it->second;
}

std::shared_ptr<ReferenceAsset> ReferenceEngine::Impl::findByAssetID(
    std::string_view assetID) const {
  std::shared_lock l(assetsMutex_);
  auto it = byAssetID_.find(std::string(assetID));
  if (it == byAssetID_.end()) return nullptr;
  // The oldest asset that is not gone.
  for (const auto& asset : it->second)
    if (asset->state() != AssetState::kGone) return asset;
  return nullptr;
}

void ReferenceEngine::Impl::deleteAsset(
    const std::string& uuid, std::int64_t reason,
    std::function<void(bool, std::optional<Error>)> onComplete) {
  // Inside an admission nothing may commit, and a deletion commits its row
  // before its files go (and may wait for a transfer that waits to commit):
  // it runs once the admission has ended.
  if (store.commits().admitting()) {
    store.commits().afterAdmission(
        [self = shared_from_this(), uuid, reason, onComplete = std::move(onComplete)]() mutable {
          self->deleteAsset(uuid, reason, std::move(onComplete));
        });
    return;
  }
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
    std::lock_guard assetsLock(assetsMutex_);
    assets_.erase(uuid);
    if (auto byID = byAssetID_.find(asset->assetID()); byID != byAssetID_.end()) {
      std::erase(byID->second, asset);
      if (byID->second.empty()) byAssetID_.erase(byID);
    }
  }
  context->forgetAsset(asset->assetDataFromAsset());
  store.assets().remove(uuid);
  // The row's removal is committed before the files go, so that a restart
  // never finds a finished asset without its file.
  store.flush();
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
    std::shared_lock l(assetsMutex_);
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

std::string ReferenceAsset::assetID() const {
  return read([](const AssetFields& f) { return f.assetID; });
}
std::string ReferenceAsset::description() const {
  return read([](const AssetFields& f) { return f.description; });
}
std::optional<Date> ReferenceAsset::downloadCompleteDateTime() const {
  return read([](const AssetFields& f) { return f.downloadComplete; });
}
double ReferenceAsset::fractionComplete() const {
  return read([](const AssetFields& f) { return f.fraction; });
}

std::optional<Date> ReferenceAssetData::downloadCompleteDateTime() const {
  auto a = asset_.lock();
  return a ? a->downloadCompleteDateTime() : std::nullopt;
}

Value ReferenceAssetData::valueForKey(std::string_view attribute) const {
  auto a = asset_.lock();
  if (!a) return Value();
  // One attribute is read under the asset's lock; sorting a long feed reads
  // many of them.
  return a->read([&](const AssetFields& f) {
    auto optDate = [](const std::optional<Date>& d) { return d ? Value(*d) : Value(); };
    if (attribute == "creationDate") return Value(f.creationDate);
    if (attribute == "assetID") return Value(f.assetID);
    if (attribute == "assetDescription") return Value(f.description);
    if (attribute == "remoteURL") return f.manifest ? Value() : Value(f.url);
    if (attribute == "manifestURL") return f.manifest ? Value(f.url) : Value();
    if (attribute == "fileSize") return Value(static_cast<std::int64_t>(f.bytesTotal));
    if (attribute == "fractionComplete") return Value(f.fraction);
    if (attribute == "downloadComplete") return Value(f.downloadComplete.has_value());
    if (attribute == "downloadCompleteDateTime") return optDate(f.downloadComplete);
    if (attribute == "publishDate") return optDate(f.publishDate);
    if (attribute == "expiryDate") return optDate(f.expiryDate);
    if (attribute == "uuid") return Value(f.uuid);
    return Value();
  });
}

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
  bool wasEmpty;
  {
    std::lock_guard l(callbackMutex_);
    wasEmpty = callbacks_.empty();
    callbacks_.push_back(std::move(task));
  }
  // The callback thread sleeps only on an empty queue and takes all of it when
  // it wakes, so only the first task of a batch needs to wake it.
  if (wasEmpty) callbackCv_.notify_one();
}

void ReferenceEngine::Impl::callbackLoop() {
  std::deque<std::function<void()>> batch;
  for (;;) {
    {
      std::unique_lock l(callbackMutex_);
      callbackCv_.wait(l, [&] { return callbackStop_ || !callbacks_.empty(); });
      if (callbacks_.empty()) return;  // stopping and drained
      // Everything waiting is taken at once: a sync creates assets faster than
      // one hand-off per callback would let this thread keep up with.
      batch.swap(callbacks_);
    }
    for (auto& task : batch) task();
    batch.clear();
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
