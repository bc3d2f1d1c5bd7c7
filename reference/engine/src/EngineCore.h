// The reference engine's inside: assets and their records, the store context,
// the download queue and the state every role reads.
//
// Lock order, outermost first: the store context's mutex, Impl::mutex_,
// Impl::assetsMutex_, an asset's mutex, the database's mutex, the group commit's mutex. Callbacks
// into the host or the library never run while one of these is held.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Fetcher.h"
#include "store/AssetFields.h"
#include "store/EngineStore.h"
#include "store/SpinningMutex.h"
#include "store/SqliteStoreContext.h"
#include "zolvani/reference/ReferenceEngine.h"

namespace spdlog {
class logger;
}

namespace zolvani::reference {

class ReferenceAsset;

class ReferenceAssetData final : public ZolvaniAssetData {
 public:
  ReferenceAssetData(std::weak_ptr<ReferenceAsset> asset, std::string uuid,
                     std::weak_ptr<ZolvaniManagedObjectContext> context)
      : asset_(std::move(asset)), uuid_(std::move(uuid)), context_(std::move(context)) {}
  std::string uuid() const override { return uuid_; }
  std::optional<Date> downloadCompleteDateTime() const override;
  std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() const override {
    return context_.lock();
  }
  Value valueForKey(std::string_view attribute) const override;

 private:
  std::weak_ptr<ReferenceAsset> asset_;
  std::string uuid_;
  std::weak_ptr<ZolvaniManagedObjectContext> context_;
};

class ReferenceAsset final : public ZolvaniAsset,
                             public std::enable_shared_from_this<ReferenceAsset> {
 public:
  ReferenceAsset(std::weak_ptr<ReferenceEngine::Impl> engine, AssetFields fields)
      : engine_(std::move(engine)),
        uuid_(fields.uuid),
        state_(fields.state),
        fields_(std::move(fields)) {}

  void _setCreationDate(Date date) override;
  std::string uuid() const override { return uuid_; }
  std::string assetID() const override;
  std::string description() const override;
  std::optional<Date> downloadCompleteDateTime() const override;
  double fractionComplete() const override;
  std::shared_ptr<ZolvaniAssetData> assetDataFromAsset() override;
  void deleteAssetWithReason(std::int64_t reason,
                             std::function<void(bool, std::optional<Error>)> onComplete) override;

  AssetFields fields() const {
    std::lock_guard l(mutex_);
    return fields_;
  }
  // Reads part of the fields under the asset's lock, without copying the rest.
  template <typename F>
  auto read(F&& reader) const {
    std::lock_guard l(mutex_);
    return reader(static_cast<const AssetFields&>(fields_));
  }
  // Read without the asset's lock: every look-up by UUID asks it.
  AssetState state() const { return state_.load(std::memory_order_acquire); }
  // Changes fields under the asset's lock; returns the new snapshot.
  template <typename F>
  AssetFields update(F&& change) {
    std::lock_guard l(mutex_);
    change(fields_);
    state_.store(fields_.state, std::memory_order_release);
    return fields_;
  }

 private:
  std::weak_ptr<ReferenceEngine::Impl> engine_;
  const std::string uuid_;
  std::atomic<AssetState> state_;  // fields_.state, as of the last update
  mutable std::mutex mutex_;
  AssetFields fields_;
  std::shared_ptr<ReferenceAssetData> data_;
};

class ReferenceEngine::Impl : public std::enable_shared_from_this<Impl> {
 public:
  explicit Impl(ReferenceEngineOptions options);
  ~Impl();

  std::optional<Error> start();
  void stop();
  // Lets the data folder go: the public engine object is gone, whoever
  // still holds its roles.
  void unlockFolder();
  ZolvaniEngine roles();

  // --- Assets ----------------------------------------------------------------
  std::shared_ptr<ReferenceAsset> createAsset(AssetFields fields, AssetReadyCallback ready,
                                              AssetParseCallback parse);
  // Null for unknown and gone assets; a gone asset's deletion is then completed.
  std::shared_ptr<ReferenceAsset> findByUUID(std::string_view uuid);
  // Also finds gone assets (their records stay until the library looks them up).
  std::shared_ptr<ReferenceAsset> findAny(std::string_view uuid) const;
  std::shared_ptr<ReferenceAsset> findByAssetID(std::string_view assetID) const;
  void deleteAsset(const std::string& uuid, std::int64_t reason,
                   std::function<void(bool, std::optional<Error>)> onComplete);
  // Writes a live asset's fields; false for a deleted asset or on failure.
  bool persist(const AssetFields& fields);
  AssetInfo info(const AssetFields& fields) const;
  std::vector<AssetInfo> listAssets() const;

  // --- Queue -----------------------------------------------------------------
  std::optional<Error> enqueue(const std::shared_ptr<ZolvaniAsset>& asset);
  std::vector<std::string> queueSnapshot() const;
  std::vector<std::shared_ptr<ZolvaniAsset>> processing() const;
  bool waitUntilIdle(std::chrono::milliseconds timeout);

  // --- Other roles -------------------------------------------------------------
  void log(const std::string& message, std::int64_t level);
  void logEvent(std::int64_t event, const std::string& file, const Value& data);
  Date secureDate() const;
  void observeServerDate(Date server);
  std::int64_t reachabilityStatus();
  void setReachabilityOverride(std::optional<bool> online);
  void post(std::string_view name);
  void startup(std::string url, std::string user, std::string device, std::string secret,
               std::string key);
  std::string deviceUUID() const { return deviceUUID_; }
  void keepAlive(const std::string& task, int delta);
  std::vector<std::pair<std::string, int>> keepAliveTasks() const;
  void registerHandler(std::shared_ptr<ZolvaniEventHandlerDelegate> handler);
  std::vector<std::shared_ptr<ZolvaniEventHandlerDelegate>> liveHandlers() const;
  std::string metaValue(const std::string& key);
  void setMetaValue(const std::string& key, const std::string& value);

  ReferenceEngineOptions options;
  EngineStore store;
  std::shared_ptr<SqliteStoreContext> context;
  std::atomic<bool> started{false};
  mutable std::mutex credentialsMutex;
  std::string user, url, secret, key;
  std::mutex progressMutex;
  ProgressCallback progressCallback;

 private:
  friend class ReferenceAsset;
  void worker();
  void runTransfer(const std::shared_ptr<ReferenceAsset>& asset,
                   const std::shared_ptr<std::atomic<bool>>& cancel);
  void runSingleFile(const std::shared_ptr<ReferenceAsset>& asset,
                     const std::shared_ptr<std::atomic<bool>>& cancel);
  void runStream(const std::shared_ptr<ReferenceAsset>& asset,
                 const std::shared_ptr<std::atomic<bool>>& cancel);
  void finish(const std::shared_ptr<ReferenceAsset>& asset, const std::string& localPath,
              std::uint64_t bytes);
  void fail(const std::shared_ptr<ReferenceAsset>& asset, const Error& error);
  // A transient failure (network, 5xx) outlasted the retries: the asset stays
  // queued, keeps what is on disk and waits longer after each such failure.
  void deferTransient(const std::shared_ptr<ReferenceAsset>& asset, const Error& error);
  void requeue(const std::shared_ptr<ReferenceAsset>& asset);
  void reportProgress(const std::shared_ptr<ReferenceAsset>& asset, bool persistNow);
  void prepareManifest(const std::shared_ptr<ReferenceAsset>& asset, AssetReadyCallback ready,
                       AssetParseCallback parse);
  bool interruptibleSleep(std::chrono::milliseconds delay,
                          const std::shared_ptr<std::atomic<bool>>& cancel);
  void callLater(std::function<void()> task);
  void callbackLoop();
  std::optional<Error> reconcile();
  // Takes the data folder's lock (kept until unlockFolder() or destruction).
  std::optional<Error> lockFolder();
  std::filesystem::path assetFolder(const std::string& uuid) const;
  FetchHooks hooksFor(const std::shared_ptr<ReferenceAsset>& asset,
                      const std::shared_ptr<std::atomic<bool>>& cancel, std::uint64_t base);

  mutable std::mutex mutex_;
  std::condition_variable cv_;
  // What an offline worker waits on: the engine stopping or reachability
  // changing, not every asset queued meanwhile.
  std::condition_variable offlineCv_;
  // Looked up by string_view without building a string.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  // The asset maps are changed under both mutex_ and assetsMutex_, and read
  // under either: the queue's code reads them under mutex_ it already holds,
  // while look-ups by UUID or asset ID, which a sync makes many times per
  // item from more than one thread, share assetsMutex_ and never wait for
  // one another. A writer holds it for a map insertion; a thread that finds
  // it taken retries briefly instead of sleeping.
  mutable SpinningMutex<std::shared_mutex> assetsMutex_;
  std::unordered_map<std::string, std::shared_ptr<ReferenceAsset>, TextHash, std::equal_to<>>
      assets_;
  // The same assets by their content's asset identifier, oldest first, so
  // that the duplicate test before each new item does not scan every asset.
  std::unordered_map<std::string, std::vector<std::shared_ptr<ReferenceAsset>>> byAssetID_;
  void indexLocked(const std::shared_ptr<ReferenceAsset>& asset);
  std::deque<std::string> queue_;
  std::map<std::string, std::shared_ptr<std::atomic<bool>>> transferring_;
  // Assets whose ready callbacks have not run yet. They count as being
  // processed: a clean that runs between an asset's creation and its queueing
  // must not take it for a cancelled download.
  std::set<std::string> preparing_;
  void finishPreparing(const std::string& uuid);
  std::vector<std::thread> workers_;
  bool stopping_ = false;
  std::int64_t nextQueuePos_ = 1;
  // Queued assets waiting out a transient failure (guarded by mutex_).
  struct Backoff {
    int failures = 0;
    std::uint64_t bytesAtFailure = 0;
    std::chrono::steady_clock::time_point notBefore;
  };
  std::map<std::string, Backoff> backoff_;
  std::int64_t nextSeq_ = 1;

  std::mutex callbackMutex_;
  std::condition_variable callbackCv_;
  std::deque<std::function<void()>> callbacks_;
  std::thread callbackThread_;
  bool callbackStop_ = false;

  std::string deviceUUID_;
  int lockFd_ = -1;  // the data folder's lock file, held while it is open
  mutable std::mutex clockMutex_;
  std::optional<double> clockOffset_;
  std::mutex reachMutex_;
  std::optional<bool> reachOverride_;
  std::chrono::steady_clock::time_point reachCheckedAt_{};
  std::int64_t reachCached_ = 0;
  mutable std::mutex miscMutex_;
  std::map<std::string, int> keepAlive_;
  std::vector<std::weak_ptr<ZolvaniEventHandlerDelegate>> handlers_;
  std::shared_ptr<spdlog::logger> logger_;
  std::mutex eventsMutex_;
  std::FILE* eventsFile_ = nullptr;
  std::map<std::string, std::chrono::steady_clock::time_point> lastPersist_;
  std::map<std::string, std::chrono::steady_clock::time_point> lastProgress_;
};

}  // namespace zolvani::reference
