// InMemoryEngine: a controllable download engine for tests.
//
// Every answer is settable (started, user, credentials, reachability,
// application state, assets and their fields, queue contents, assets in
// transfer, queueing errors), every call is recorded, every logger line is kept
// with its level, and the store context is a real unit of work: records changed
// inside performBlockAndWait() become durable only at save(); rollback() drops
// what was not saved, like a process that died.
//
// Thread-safety: every role is safe to call from any thread, as the contract
// requires; the test-side setters and inspectors are too.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "zolvani/subscription/engine/ChunkedSequence.h"
#include "zolvani/subscription/engine/EngineRoles.h"

namespace zolvani::testing {

class InMemoryEngine;

struct LogLine {
  std::string message;
  std::int64_t level;
};

// Every argument a factory received.
struct AssetCreation {
  bool manifest = false;
  std::string assetID, description, url;
  std::int32_t protectionType = 0;
  bool includeEncryptionKeys = false;
  std::int64_t maximumBitrate = 0;
  std::optional<Date> publishDate, expiryDate;
  double expiryAfterDownload = 0, expiryAfterPlay = 0;
  std::int32_t assetDownloadLimit = 0;
  bool enableFastPlay = false;
  std::optional<Value::Map> userInfo;
  // The admission (performAdmission) the asset was made in; 0 for none.
  std::uint64_t admission = 0;
};

class InMemoryAsset final : public ZolvaniAsset,
                            public std::enable_shared_from_this<InMemoryAsset> {
 public:
  InMemoryAsset(std::weak_ptr<InMemoryEngine> engine, std::string uuid, AssetCreation creation,
                Date creationDate);

  void _setCreationDate(Date date) override;
  std::string uuid() const override { return uuid_; }
  std::string assetID() const override { return creation_.assetID; }
  std::string description() const override { return creation_.description; }
  std::optional<Date> downloadCompleteDateTime() const override;
  double fractionComplete() const override;
  std::shared_ptr<ZolvaniAssetData> assetDataFromAsset() override;
  void deleteAssetWithReason(std::int64_t reason,
                             std::function<void(bool, std::optional<Error>)> onComplete) override;

  // Test side.
  const AssetCreation& creation() const { return creation_; }
  Date creationDate() const;
  std::optional<Date> explicitCreationDate() const;
  void setDownloadComplete(std::optional<Date> when);
  void setFractionComplete(double fraction);
  AssetReadyCallback readyCallback;
  AssetParseCallback parseCallback;

 private:
  friend class InMemoryAssetData;
  std::weak_ptr<InMemoryEngine> engine_;
  std::string uuid_;
  AssetCreation creation_;
  mutable std::mutex mutex_;
  Date creationDate_;
  std::optional<Date> explicitCreationDate_;
  std::optional<Date> downloadComplete_;
  double fraction_ = 0;
  std::shared_ptr<ZolvaniAssetData> data_;
};

class InMemoryStoreContext;

// The engine's whole state and every role, as one object a test drives.
class InMemoryEngine : public std::enable_shared_from_this<InMemoryEngine> {
 public:
  static std::shared_ptr<InMemoryEngine> create();

  // The role bundle to hand to a manager.
  ZolvaniEngine roles();

  // --- Answers ----------------------------------------------------------------
  std::atomic<bool> started{true};
  std::atomic<std::int64_t> reachabilityStatus{1};
  std::atomic<std::int64_t> applicationState{0};
  std::atomic<bool> keelhallEnabled{true};
  std::atomic<bool> refuseAssetCreation{false};
  // When set, the startup call marks the engine started before completing.
  std::atomic<bool> startupStartsEngine{true};
  // When set, the ready callback runs inside the factory call; otherwise it
  // waits for fireReadyCallbacks().
  std::atomic<bool> readyInline{false};
  void setCredentials(std::string url, std::string user, std::string secret, std::string key);
  void setKeelhall(std::string url, std::string user, std::string externalDeviceID,
                   std::string secret, std::string key);
  void setDeviceUUID(std::string uuid);
  void setDate(Date date);
  Date date() const;
  void setQueueingError(std::optional<Error> error);
  // UUIDs the engine reports as queued, in addition to what addToQueue added.
  void setQueue(std::vector<std::string> uuids);
  void setProcessingAssets(std::vector<std::shared_ptr<ZolvaniAsset>> assets);

  // --- Assets -----------------------------------------------------------------
  // An asset made as if by the single-file factory, already prepared.
  std::shared_ptr<InMemoryAsset> addAsset(std::string assetID, Date creationDate,
                                          std::optional<Date> downloadComplete = std::nullopt);
  std::shared_ptr<InMemoryAsset> asset(const std::string& uuid) const;
  // Assets not deleted, in creation order.
  std::vector<std::shared_ptr<InMemoryAsset>> liveAssets() const;
  std::vector<std::shared_ptr<InMemoryAsset>> createdAssets() const;
  // Runs the ready callbacks of every asset that has not had them yet.
  std::size_t fireReadyCallbacks();
  // Forgets every ready and parse callback not yet run. Callbacks capture what
  // made the asset (a data source holding engine roles), so an engine that keeps
  // them would keep itself alive; a test ends with this.
  void dropCallbacks();
  // Deletes an asset as if outside the library (no deletion record).
  void deleteExternally(const std::string& uuid);

  // --- Records of calls ---------------------------------------------------------
  struct Deletion {
    std::string uuid;
    std::int64_t reason;
  };
  struct Startup {
    std::string url, user, externalDeviceID, privateKey, publicKey;
    bool internalOverride;
  };
  struct AnalyticsEvent {
    std::int64_t event;
    std::string file;
    Value data;
  };
  std::vector<LogLine> logLines() const;
  // Messages only, at `level`, or at every level when none.
  std::vector<std::string> messages(std::optional<std::int64_t> level = std::nullopt) const;
  bool logged(const std::string& message, std::optional<std::int64_t> level = std::nullopt) const;
  std::size_t countLogged(const std::string& needle) const;
  void clearLog();
  std::vector<AnalyticsEvent> analyticsEvents() const;
  std::vector<Deletion> deletions() const;
  std::vector<std::string> queuedUUIDs() const;  // in addToQueue order
  std::vector<Startup> startups() const;
  std::vector<std::string> keepAliveCalls() const;  // "start:<name>", "stop:<name>", "persist"
  std::vector<std::shared_ptr<ZolvaniEventHandlerDelegate>> handlers() const;
  std::shared_ptr<InMemoryStoreContext> context() const { return context_; }
  int saveCount() const;
  // The admission each saveContext() call ran in, in order; 0 for none.
  std::vector<std::uint64_t> saveAdmissions() const;

  // Used by the roles.
  void record(std::function<void()> change);

 private:
  friend class InMemoryAsset;
  friend class InMemoryAssetData;
  friend class EngineRoleSet;
  InMemoryEngine() = default;
  void removeAsset(const std::string& uuid, std::optional<std::int64_t> reason);
  std::shared_ptr<InMemoryAsset> makeAsset(AssetCreation creation, AssetReadyCallback ready,
                                           AssetParseCallback parse);

  mutable std::recursive_mutex mutex_;
  std::string user_, url_, secret_, key_;
  std::string keelhallURL_, keelhallUser_, keelhallDevice_, keelhallSecret_, keelhallKey_;
  std::string deviceUUID_ = "DEVICE-0001";
  Date date_{1800000000.0};
  std::optional<Error> queueingError_;
  std::vector<std::string> extraQueue_;
  std::vector<std::shared_ptr<ZolvaniAsset>> processing_;
  // Hashed, and looked up without building a string: the feed store asks for
  // every tracked asset each time it judges a new one.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  std::unordered_map<std::string, std::shared_ptr<InMemoryAsset>, TextHash, std::equal_to<>> live_;
  // Live assets by asset ID, for the duplicate test of every new item.
  std::map<std::string, std::set<std::string>, std::less<>> byAssetID_;
  std::vector<std::shared_ptr<InMemoryAsset>> created_;
  std::vector<std::shared_ptr<InMemoryAsset>> pendingReady_;
  std::uint64_t nextAsset_ = 1;
  std::vector<LogLine> log_;
  std::vector<AnalyticsEvent> events_;
  std::vector<Deletion> deletions_;
  std::vector<std::string> queued_;
  std::vector<Startup> startups_;
  std::vector<std::string> keepAlive_;
  std::vector<std::uint64_t> saveAdmissions_;
  std::atomic<std::uint64_t> nextAdmission_{1};
  std::vector<std::weak_ptr<ZolvaniEventHandlerDelegate>> handlers_;
  std::shared_ptr<InMemoryStoreContext> context_;
  std::shared_ptr<void> roleSet_;
};

class InMemorySubscriptionData;

// What records tell their store context about themselves. Written under the
// context's lock (records change inside its store work).
struct InMemoryStoreJournal {
  // Moves when records are deleted or restored wholesale: everything derived
  // from the record list is then rebuilt.
  std::uint64_t generation = 1;
  // Records changed since the last save, in the order they first changed.
  std::vector<InMemorySubscriptionData*> changed;
  // Records renamed since the last look-up, with their previous identifiers.
  std::vector<std::pair<const SubscriptionData*, std::string>> renamed;
};

// The store context: a unit of work over SubscriptionData records.
class InMemoryStoreContext final : public ZolvaniManagedObjectContext,
                                   public std::enable_shared_from_this<InMemoryStoreContext> {
 public:
  void performBlockAndWait(const std::function<void()>& block) override;
  std::vector<std::shared_ptr<SubscriptionData>> executeFetchRequest(
      const SubscriptionDataFetchRequest& request, std::optional<Error>* error) override;
  std::shared_ptr<SubscriptionData> insertSubscriptionData() override;
  void deleteObject(const std::shared_ptr<SubscriptionData>& record) override;
  void refreshObject(const std::shared_ptr<ZolvaniAssetData>& item, bool mergeChanges) override;
  bool save() override;

  // Test side.
  // Drops every unsaved change, as a restart would.
  void rollback();
  // Makes the next fetches fail.
  std::atomic<bool> failFetches{false};
  int saves() const;
  int refreshes() const;
  // True while the calling thread is inside performBlockAndWait().
  bool insideBlock() const;
  // The saved state of one feed: its rules and its tracked and deferred
  // UUIDs; none without a record.
  template <typename Uuids>
  struct RecordForm {
    std::string uuid;
    std::int16_t maxItems = 0;
    bool autodelete = false;
    std::int64_t maxBitrate = 0;
    Uuids feedItems, deferredFeedItems;
  };
  using SavedRecord = RecordForm<std::vector<std::string>>;
  std::vector<SavedRecord> savedRecords() const;
  // The same as the context keeps it: a long feed's saved UUIDs take an item
  // in the middle without moving the rest.
  using StoredRecord = RecordForm<ChunkedSequence<std::string>>;
  // Removes an asset's data from every record, saved or not (the engine's
  // deletion of an asset does this).
  void forgetAssetData(const std::shared_ptr<ZolvaniAssetData>& item);
  // Resolves asset-data records by UUID when rolling back.
  std::function<std::shared_ptr<ZolvaniAssetData>(const std::string&)> resolveAssetData;

 private:
  mutable std::recursive_mutex mutex_;
  std::vector<std::shared_ptr<SubscriptionData>> live_;
  std::vector<std::shared_ptr<const StoredRecord>> saved_;
  int saves_ = 0;
  int refreshes_ = 0;
  // Where records note their changes, so that the look-up by feed identifier
  // and the saved list follow them instead of being rebuilt for each one.
  std::shared_ptr<InMemoryStoreJournal> journal_ = std::make_shared<InMemoryStoreJournal>();
  std::uint64_t indexedGeneration_ = 0, savedGeneration_ = 0;
  std::unordered_map<std::string, std::vector<std::shared_ptr<SubscriptionData>>> byFeed_;
  // Where each live record is saved.
  std::unordered_map<const void*, std::size_t> slotOf_;
  void reindex();
};

}  // namespace zolvani::testing
