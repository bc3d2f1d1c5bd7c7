// The public face of the engine and the role objects handed to the library.
#include "zolvani/reference/ReferenceEngine.h"

#include <nlohmann/json.hpp>

#include "EngineCore.h"

namespace zolvani::reference {
namespace {

using ImplPtr = std::shared_ptr<ReferenceEngine::Impl>;

class DownloadRole final : public ZolvaniDownloadEngine {
 public:
  explicit DownloadRole(ImplPtr e) : e_(std::move(e)) {}
  bool started() override { return e_->started; }
  std::string user() override { return get(&ReferenceEngine::Impl::user); }
  std::string keelhallURL() override { return get(&ReferenceEngine::Impl::url); }
  std::string secret() override { return get(&ReferenceEngine::Impl::secret); }
  std::string key() override { return get(&ReferenceEngine::Impl::key); }
  void startupWithKeelhall(std::string url, std::string user, std::string device,
                           std::string privateKey, std::string publicKey, bool,
                           std::function<void(bool, std::optional<Error>)> onComplete) override {
    e_->startup(std::move(url), std::move(user), std::move(device), std::move(privateKey),
                std::move(publicKey));
    if (onComplete) onComplete(true, std::nullopt);
  }
  std::vector<std::string> assetsInQueue() override { return e_->queueSnapshot(); }
  void addToQueue(std::shared_ptr<ZolvaniAsset> asset, std::uint64_t,
                  std::function<void(bool, std::optional<Error>)> onComplete) override {
    // Every index appends: the library passes only the append index.
    auto error = e_->enqueue(asset);
    if (onComplete) onComplete(!error, error);
  }

 private:
  std::string get(std::string ReferenceEngine::Impl::*field) {
    std::lock_guard l(e_->credentialsMutex);
    return (*e_).*field;
  }
  ImplPtr e_;
};

class KeelhallRole final : public ZolvaniKeelhall {
 public:
  explicit KeelhallRole(ImplPtr e) : e_(std::move(e)) {}
  bool keelhallEnabled() override { return e_->options.keelhallEnabled; }
  std::string keelhallURL() override { return e_->options.keelhallURL; }
  std::string user() override { return e_->options.user; }
  std::string externalDeviceID() override { return e_->options.externalDeviceID; }
  std::string secret() override { return e_->options.secret; }
  std::string key() override { return e_->options.key; }

 private:
  ImplPtr e_;
};

class EventRole final : public ZolvaniEventHandler {
 public:
  explicit EventRole(ImplPtr e) : e_(std::move(e)) {}
  void registerHandler(std::shared_ptr<ZolvaniEventHandlerDelegate> handler) override {
    e_->registerHandler(std::move(handler));
  }

 private:
  ImplPtr e_;
};

class LoggerRole final : public ZolvaniLogger {
 public:
  explicit LoggerRole(ImplPtr e) : e_(std::move(e)) {}
  void addDebugEvent(const std::string& message, std::int64_t level) override {
    e_->log(message, level);
  }
  void logEvent(std::int64_t event, const std::string& file, const Value& data) override {
    e_->logEvent(event, file, data);
  }

 private:
  ImplPtr e_;
};

class ClockRole final : public ZolvaniSecureClock {
 public:
  explicit ClockRole(ImplPtr e) : e_(std::move(e)) {}
  Date date() override { return e_->secureDate(); }

 private:
  ImplPtr e_;
};

class PersistenceRole final : public ZolvaniAppPersistence {
 public:
  explicit PersistenceRole(ImplPtr e) : e_(std::move(e)) {}
  void startBackgroundKeepaliveForTask(const std::string& task) override {
    e_->keepAlive(task, +1);
  }
  void stopBackgroundKeepaliveForTask(const std::string& task) override { e_->keepAlive(task, -1); }
  // A desktop or embedded process needs no extra machinery to keep its
  // transfers running in the background.
  void startBackgroundIfPersistenceNeeded() override {}

 private:
  ImplPtr e_;
};

class ReachabilityRole final : public ZFM_Reachability,
                               public std::enable_shared_from_this<ReachabilityRole> {
 public:
  explicit ReachabilityRole(ImplPtr e) : e_(std::move(e)) {}
  std::shared_ptr<ZFM_Reachability> reachabilityForInternetConnection() override {
    return shared_from_this();
  }
  std::int64_t currentReachabilityStatus() override { return e_->reachabilityStatus(); }

 private:
  ImplPtr e_;
};

class UuidRole final : public ZFM_UUID {
 public:
  explicit UuidRole(ImplPtr e) : e_(std::move(e)) {}
  std::string UUID() override { return e_->deviceUUID(); }

 private:
  ImplPtr e_;
};

class UtilitiesRole final : public ZFM_Utilities {
 public:
  explicit UtilitiesRole(ImplPtr e) : e_(std::move(e)) {}
  // A process without a user interface counts as active.
  std::int64_t applicationState() override { return 0; }
  std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() override {
    return e_->context;
  }
  void saveContext() override {
    if (!e_->context->save())
      e_->log("Saving the store context failed: " + e_->store.db().lastError(), 0);
  }
  void performAdmission(const std::function<void()>& work) override {
    reference::GroupCommit::Admission admission(e_->store.commits());
    work();
  }

 private:
  ImplPtr e_;
};

class SessionRole final : public NSURLSessionHelper {
 public:
  explicit SessionRole(ImplPtr e) : e_(std::move(e)) {}
  std::vector<std::shared_ptr<ZolvaniAsset>> zfm_processingAssets() override {
    return e_->processing();
  }

 private:
  ImplPtr e_;
};

std::string userInfoText(const std::optional<Value::Map>& userInfo) {
  if (!userInfo) return "null";
  return Value(*userInfo).toJson().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

class FactoryRole final : public ZolvaniAssetFactory {
 public:
  explicit FactoryRole(ImplPtr e) : e_(std::move(e)) {}
  std::shared_ptr<ZolvaniAsset> assetWithUUID(std::string_view uuid, std::int64_t) override {
    return e_->findByUUID(uuid);
  }
  std::shared_ptr<ZolvaniAsset> assetWithAssetID(std::string_view assetID, std::int64_t) override {
    return e_->findByAssetID(assetID);
  }
  std::shared_ptr<ZolvaniAsset> assetWithAssetID(
      std::string assetID, std::string description, std::string manifestUrl,
      std::int32_t protectionType, bool includeEncryptionKeys, std::int64_t maximumBitrate,
      std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
      double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
      std::optional<Value::Map> userInfo, AssetReadyCallback onReady,
      AssetParseCallback onParse) override {
    AssetFields f;
    f.manifest = true;
    f.assetID = std::move(assetID);
    f.description = std::move(description);
    f.url = std::move(manifestUrl);
    f.protectionType = protectionType;
    f.includeEncryptionKeys = includeEncryptionKeys;
    f.maximumBitrate = maximumBitrate;
    f.publishDate = publishDate;
    f.expiryDate = expiryDate;
    f.expiryAfterDownload = expiryAfterDownload;
    f.expiryAfterPlay = expiryAfterPlay;
    f.downloadLimit = assetDownloadLimit;
    f.fastPlay = enableFastPlay;
    f.userInfoJson = userInfoText(userInfo);
    return e_->createAsset(std::move(f), std::move(onReady), std::move(onParse));
  }
  std::shared_ptr<ZolvaniAsset> assetWithRemoteURL(
      std::string remoteURL, std::string assetID, std::string description,
      std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
      double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
      std::optional<Value::Map> userInfo, AssetReadyCallback onReady,
      AssetParseCallback onParse) override {
    AssetFields f;
    f.url = std::move(remoteURL);
    f.assetID = std::move(assetID);
    f.description = std::move(description);
    f.publishDate = publishDate;
    f.expiryDate = expiryDate;
    f.expiryAfterDownload = expiryAfterDownload;
    f.expiryAfterPlay = expiryAfterPlay;
    f.downloadLimit = assetDownloadLimit;
    f.fastPlay = enableFastPlay;
    f.userInfoJson = userInfoText(userInfo);
    return e_->createAsset(std::move(f), std::move(onReady), std::move(onParse));
  }

 private:
  ImplPtr e_;
};

}  // namespace

std::string_view assetStateName(AssetState state) {
  switch (state) {
    case AssetState::kCreated:
      return "created";
    case AssetState::kQueued:
      return "queued";
    case AssetState::kTransferring:
      return "downloading";
    case AssetState::kComplete:
      return "complete";
    case AssetState::kFailed:
      return "failed";
    case AssetState::kGone:
      return "gone";
  }
  return "unknown";
}

ZolvaniEngine ReferenceEngine::Impl::roles() {
  auto self = shared_from_this();
  ZolvaniEngine r;
  r.downloadEngine = std::make_shared<DownloadRole>(self);
  r.keelhall = std::make_shared<KeelhallRole>(self);
  r.eventHandler = std::make_shared<EventRole>(self);
  r.logger = std::make_shared<LoggerRole>(self);
  r.secureClock = std::make_shared<ClockRole>(self);
  r.appPersistence = std::make_shared<PersistenceRole>(self);
  r.reachability = std::make_shared<ReachabilityRole>(self);
  r.uuid = std::make_shared<UuidRole>(self);
  r.utilities = std::make_shared<UtilitiesRole>(self);
  r.sessionHelper = std::make_shared<SessionRole>(self);
  r.assets = std::make_shared<FactoryRole>(self);
  return r;
}

ReferenceEngine::ReferenceEngine(ReferenceEngineOptions options)
    : impl_(std::make_shared<Impl>(std::move(options))) {}

ReferenceEngine::~ReferenceEngine() {
  impl_->stop();
  // Role objects may outlive the engine (the library holds them); the folder
  // is free for the next engine all the same.
  impl_->unlockFolder();
}

std::optional<Error> ReferenceEngine::start() { return impl_->start(); }
void ReferenceEngine::stop() { impl_->stop(); }
bool ReferenceEngine::flush() { return impl_->store.flush(); }
ZolvaniEngine ReferenceEngine::roles() { return impl_->roles(); }
std::vector<AssetInfo> ReferenceEngine::listAssets() const { return impl_->listAssets(); }

std::optional<AssetInfo> ReferenceEngine::assetInfo(const std::string& uuid) const {
  auto a = impl_->findAny(uuid);
  if (!a) return std::nullopt;
  return impl_->info(a->fields());
}

bool ReferenceEngine::waitUntilIdle(std::chrono::milliseconds timeout) {
  return impl_->waitUntilIdle(timeout);
}

void ReferenceEngine::setProgressCallback(ProgressCallback callback) {
  std::lock_guard l(impl_->progressMutex);
  impl_->progressCallback = std::move(callback);
}

void ReferenceEngine::setReachabilityOverride(std::optional<bool> online) {
  impl_->setReachabilityOverride(online);
}

bool ReferenceEngine::markDownloaded(const std::string& uuid, Date when) {
  auto a = impl_->findByUUID(uuid);
  if (!a) return false;
  return impl_->persist(a->update([&](AssetFields& f) {
    f.state = AssetState::kComplete;
    f.downloadComplete = when;
    f.fraction = 1.0;
  }));
}

void ReferenceEngine::observeServerDate(Date serverDate) { impl_->observeServerDate(serverDate); }

std::vector<std::pair<std::string, int>> ReferenceEngine::keepAliveTasks() const {
  return impl_->keepAliveTasks();
}

int ReferenceEngine::deliverRemotePush(const Value::Map& payload,
                                       std::function<void(BackgroundFetchResult)> completion) {
  int n = 0;
  for (auto& h : impl_->liveHandlers()) {
    if (!h->canProcessRemotePushNotice(payload)) continue;
    h->processRemotePushNotice(payload, completion);
    ++n;
  }
  return n;
}

int ReferenceEngine::deliverBackgroundFetch(std::function<void(BackgroundFetchResult)> completion) {
  int n = 0;
  for (auto& h : impl_->liveHandlers()) {
    h->processFetchWithCompletionHandler(completion);
    ++n;
  }
  return n;
}

int ReferenceEngine::deliverSessionWake(const std::string& identifier,
                                        std::function<void()> completion) {
  int n = 0;
  for (auto& h : impl_->liveHandlers())
    if (h->processBackgroundSessionWake(identifier, completion)) ++n;
  return n;
}

const std::filesystem::path& ReferenceEngine::dataFolder() const {
  return impl_->options.dataFolder;
}

}  // namespace zolvani::reference
