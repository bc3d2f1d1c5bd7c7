#include "support/InMemoryEngine.h"

#include <algorithm>
#include <unordered_set>

#include <fmt/format.h>

namespace zolvani::testing {
namespace {

// The admission the calling thread is in; 0 outside any.
thread_local std::uint64_t tAdmission = 0;

thread_local const InMemoryStoreContext* blockContext = nullptr;
thread_local int blockDepth = 0;

}  // namespace

class InMemorySubscriptionData final : public SubscriptionData {
 public:
  InMemorySubscriptionData() {
    feedItems_.setRecordsChanges(true);
    deferred_.setRecordsChanges(true);
  }
  std::string uuid() const override { return uuid_; }
  void setUuid(std::string uuid) override {
    touch();
    if (journal_) journal_->renamed.emplace_back(this, uuid_);
    uuid_ = std::move(uuid);
  }
  std::int16_t maxItemsValue() const override { return maxItems_; }
  void setMaxItemsValue(std::int16_t value) override { touch(), maxItems_ = value; }
  bool autodeleteValue() const override { return autodelete_; }
  void setAutodeleteValue(bool value) override { touch(), autodelete_ = value; }
  std::int64_t maxBitrateValue() const override { return maxBitrate_; }
  void setMaxBitrateValue(std::int64_t value) override { touch(), maxBitrate_ = value; }
  // Handing out a collection may change it, so the record counts as changed.
  AssetDataOrderedSet& feedItemsSet() override { return touch(), feedItems_; }
  AssetDataOrderedSet& deferredFeedItemsSet() override { return touch(), deferred_; }

  // The saved form of this record, made afresh only when it changed: saving a
  // store of many records then costs what changed, not the whole store.
  void setJournal(std::shared_ptr<InMemoryStoreJournal> journal) {
    journal_ = std::move(journal);
    // A new record is new to its context: it goes into the next save.
    dirty_ = false;
    touch();
  }

  bool containsWithoutTouching(const std::shared_ptr<ZolvaniAssetData>& item) const {
    return feedItems_.contains(item) || deferred_.contains(item);
  }

  std::shared_ptr<const InMemoryStoreContext::StoredRecord> snapshot() {
    if (!dirty_ && snapshot_) return snapshot_;
    dirty_ = false;
    auto feedChanges = feedItems_.takeChanges();
    auto deferredChanges = deferred_.takeChanges();
    // Handing out a collection marks the record changed even when the caller
    // only read it (as the feed store does for every new item), so the last
    // snapshot is kept when nothing in it moved.
    const bool sameRules =
        snapshot_ && snapshot_->uuid == uuid_ && snapshot_->maxItems == maxItems_ &&
        snapshot_->autodelete == autodelete_ && snapshot_->maxBitrate == maxBitrate_;
    if (sameRules && feedChanges.empty() && deferredChanges.empty()) return snapshot_;
    std::shared_ptr<InMemoryStoreContext::StoredRecord> s;
    if (!snapshot_) {
      s = std::make_shared<InMemoryStoreContext::StoredRecord>();
      rebuild(s->feedItems, feedItems_);
      rebuild(s->deferredFeedItems, deferred_);
    } else {
      // The saved form follows the collections' own change logs, so a save
      // costs what changed, not the length of the feed. It is changed in place
      // unless someone besides the saved list still holds it.
      s = snapshot_.use_count() > 2
              ? std::make_shared<InMemoryStoreContext::StoredRecord>(*snapshot_)
              : snapshot_;
      follow(s->feedItems, feedChanges, feedItems_);
      follow(s->deferredFeedItems, deferredChanges, deferred_);
    }
    s->uuid = uuid_;
    s->maxItems = maxItems_;
    s->autodelete = autodelete_;
    s->maxBitrate = maxBitrate_;
    snapshot_ = std::move(s);
    return snapshot_;
  }

 private:
  using Uuids = ChunkedSequence<std::string>;

  static void rebuild(Uuids& uuids, const AssetDataOrderedSet& now) {
    uuids.clear();
    for (const auto& item : now) uuids.push_back(item->uuid());
  }

  // Replays a collection's changes onto its saved UUIDs; rebuilds them from
  // the collection when the changes are a reordering or do not fit.
  static void follow(Uuids& uuids, const std::vector<AssetDataOrderedSet::Change>& changes,
                     const AssetDataOrderedSet& now) {
    using Kind = AssetDataOrderedSet::Change::Kind;
    for (const auto& change : changes) {
      if (change.kind == Kind::kInserted && change.item && change.index <= uuids.size()) {
        uuids.insert(change.index, change.item->uuid());
      } else if (change.kind == Kind::kRemoved && change.item && change.index < uuids.size() &&
                 uuids[change.index] == change.item->uuid()) {
        uuids.erase(change.index);
      } else {
        return rebuild(uuids, now);
      }
    }
    if (uuids.size() != now.count()) rebuild(uuids, now);
  }

  void touch() {
    if (!dirty_ && journal_) journal_->changed.push_back(this);
    dirty_ = true;
  }

  std::string uuid_;
  std::int16_t maxItems_ = 0;
  bool autodelete_ = false;
  std::int64_t maxBitrate_ = 0;
  AssetDataOrderedSet feedItems_, deferred_;
  bool dirty_ = true;
  std::shared_ptr<InMemoryStoreContext::StoredRecord> snapshot_;
  // Where the record notes that it changed since its last snapshot.
  std::shared_ptr<InMemoryStoreJournal> journal_;
};

// The persistent record of one asset; the same object for the asset's life.
class InMemoryAssetData final : public ZolvaniAssetData {
 public:
  InMemoryAssetData(std::weak_ptr<InMemoryAsset> asset, std::string uuid,
                    std::weak_ptr<ZolvaniManagedObjectContext> context)
      : asset_(std::move(asset)), uuid_(std::move(uuid)), context_(std::move(context)) {}

  std::string uuid() const override { return uuid_; }
  std::optional<Date> downloadCompleteDateTime() const override {
    auto a = asset_.lock();
    return a ? a->downloadCompleteDateTime() : std::nullopt;
  }
  std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() const override {
    return context_.lock();
  }
  Value valueForKey(std::string_view attribute) const override {
    auto a = asset_.lock();
    if (!a) return Value();
    if (attribute == ZolvaniAssetDataAttributes[9]) return Value(a->creationDate());
    if (attribute == "uuid") return Value(uuid_);
    if (attribute == "assetID") return Value(a->assetID());
    if (attribute == "downloadCompleteDateTime") {
      auto d = a->downloadCompleteDateTime();
      return d ? Value(*d) : Value();
    }
    return Value();
  }

 private:
  std::weak_ptr<InMemoryAsset> asset_;
  std::string uuid_;
  std::weak_ptr<ZolvaniManagedObjectContext> context_;
};

// ---------------------------------------------------------------------------
// Assets

InMemoryAsset::InMemoryAsset(std::weak_ptr<InMemoryEngine> engine, std::string uuid,
                             AssetCreation creation, Date creationDate)
    : engine_(std::move(engine)),
      uuid_(std::move(uuid)),
      creation_(std::move(creation)),
      creationDate_(creationDate) {}

void InMemoryAsset::_setCreationDate(Date date) {
  std::lock_guard lock(mutex_);
  creationDate_ = date;
  explicitCreationDate_ = date;
}

Date InMemoryAsset::creationDate() const {
  std::lock_guard lock(mutex_);
  return creationDate_;
}

std::optional<Date> InMemoryAsset::explicitCreationDate() const {
  std::lock_guard lock(mutex_);
  return explicitCreationDate_;
}

std::optional<Date> InMemoryAsset::downloadCompleteDateTime() const {
  std::lock_guard lock(mutex_);
  return downloadComplete_;
}

double InMemoryAsset::fractionComplete() const {
  std::lock_guard lock(mutex_);
  return fraction_;
}

void InMemoryAsset::setDownloadComplete(std::optional<Date> when) {
  std::lock_guard lock(mutex_);
  downloadComplete_ = when;
  if (when) fraction_ = 1.0;
}

void InMemoryAsset::setFractionComplete(double fraction) {
  std::lock_guard lock(mutex_);
  fraction_ = fraction;
}

std::shared_ptr<ZolvaniAssetData> InMemoryAsset::assetDataFromAsset() {
  std::lock_guard lock(mutex_);
  if (!data_) {
    auto engine = engine_.lock();
    std::weak_ptr<ZolvaniManagedObjectContext> ctx;
    if (engine) ctx = engine->context();
    data_ = std::make_shared<InMemoryAssetData>(weak_from_this(), uuid_, ctx);
  }
  return data_;
}

void InMemoryAsset::deleteAssetWithReason(
    std::int64_t reason, std::function<void(bool, std::optional<Error>)> onComplete) {
  if (auto engine = engine_.lock()) engine->removeAsset(uuid_, reason);
  if (onComplete) onComplete(true, std::nullopt);
}

// ---------------------------------------------------------------------------
// Store context

void InMemoryStoreContext::performBlockAndWait(const std::function<void()>& block) {
  std::lock_guard lock(mutex_);
  const InMemoryStoreContext* outer = blockContext;
  blockContext = this;
  ++blockDepth;
  block();
  --blockDepth;
  blockContext = outer;
}

bool InMemoryStoreContext::insideBlock() const { return blockContext == this && blockDepth > 0; }

std::vector<std::shared_ptr<SubscriptionData>> InMemoryStoreContext::executeFetchRequest(
    const SubscriptionDataFetchRequest& request, std::optional<Error>* error) {
  std::lock_guard lock(mutex_);
  if (failFetches) {
    if (error) *error = Error::make("InMemoryStore", 1, "fetch failed");
    return {};
  }
  if (!request.key) return live_;
  if (*request.key != SubscriptionDataAttributes[3])
    return {};  // only the key attribute is indexed
  reindex();
  auto it = byFeed_.find(request.value);
  return it == byFeed_.end() ? std::vector<std::shared_ptr<SubscriptionData>>{} : it->second;
}

void InMemoryStoreContext::reindex() {
  auto& renamed = journal_->renamed;
  if (indexedGeneration_ == journal_->generation) {
    // Renames since the last look-up move one record each, unless the record
    // joins others of the same identifier, whose order only a rebuild keeps.
    bool rebuild = false;
    for (const auto& rename : renamed) {
      const SubscriptionData* record = rename.first;
      auto from = byFeed_.find(rename.second);
      if (from == byFeed_.end()) {
        rebuild = true;
        break;
      }
      auto it = std::find_if(from->second.begin(), from->second.end(),
                             [&](const auto& r) { return r.get() == record; });
      if (it == from->second.end()) {
        rebuild = true;
        break;
      }
      std::shared_ptr<SubscriptionData> moved = *it;
      from->second.erase(it);
      if (from->second.empty()) byFeed_.erase(from);
      auto& to = byFeed_[moved->uuid()];
      if (!to.empty()) {
        rebuild = true;
        break;
      }
      to.push_back(std::move(moved));
    }
    renamed.clear();
    if (!rebuild) return;
  }
  byFeed_.clear();
  for (const auto& r : live_) byFeed_[r->uuid()].push_back(r);
  renamed.clear();
  indexedGeneration_ = journal_->generation;
}

std::shared_ptr<SubscriptionData> InMemoryStoreContext::insertSubscriptionData() {
  std::lock_guard lock(mutex_);
  auto r = std::make_shared<InMemorySubscriptionData>();
  r->setJournal(journal_);
  live_.push_back(r);
  // A new record has no identifier yet; it is found under the empty one until
  // it is named, unless an earlier unnamed record waits there too.
  if (indexedGeneration_ == journal_->generation && journal_->renamed.empty()) {
    auto& unnamed = byFeed_[std::string()];
    if (unnamed.empty())
      unnamed.push_back(r);
    else
      ++journal_->generation;
  } else {
    ++journal_->generation;
  }
  return r;
}

void InMemoryStoreContext::deleteObject(const std::shared_ptr<SubscriptionData>& record) {
  std::lock_guard lock(mutex_);
  std::erase(live_, record);
  ++journal_->generation;
}

void InMemoryStoreContext::refreshObject(const std::shared_ptr<ZolvaniAssetData>&, bool) {
  std::lock_guard lock(mutex_);
  ++refreshes_;
}

bool InMemoryStoreContext::save() {
  std::lock_guard lock(mutex_);
  ++saves_;
  auto& changed = journal_->changed;
  if (savedGeneration_ != journal_->generation) {
    saved_.clear();
    saved_.reserve(live_.size());
    slotOf_.clear();
    for (std::size_t i = 0; i < live_.size(); ++i) {
      saved_.push_back(static_cast<InMemorySubscriptionData&>(*live_[i]).snapshot());
      slotOf_[live_[i].get()] = i;
    }
    changed.clear();
    savedGeneration_ = journal_->generation;
    return true;
  }
  // Same records as last time, perhaps with new ones at the end: only those
  // that changed are snapshotted again, and new ones are appended in the
  // order they were inserted, which is the order of live_.
  for (InMemorySubscriptionData* record : changed) {
    auto slot = slotOf_.find(record);
    if (slot != slotOf_.end()) {
      saved_[slot->second] = record->snapshot();
    } else {
      slotOf_[record] = saved_.size();
      saved_.push_back(record->snapshot());
    }
  }
  changed.clear();
  return true;
}

void InMemoryStoreContext::rollback() {
  std::lock_guard lock(mutex_);
  live_.clear();
  // The restored records are not changes to save.
  auto restoring = std::make_shared<InMemoryStoreJournal>();
  for (const auto& saved : saved_) {
    const StoredRecord& s = *saved;
    auto r = std::make_shared<InMemorySubscriptionData>();
    r->setJournal(restoring);
    r->setUuid(s.uuid);
    r->setMaxItemsValue(s.maxItems);
    r->setAutodeleteValue(s.autodelete);
    r->setMaxBitrateValue(s.maxBitrate);
    for (const auto& u : s.feedItems)
      if (auto d = resolveAssetData ? resolveAssetData(u) : nullptr) r->feedItemsSet().add(d);
    for (const auto& u : s.deferredFeedItems)
      if (auto d = resolveAssetData ? resolveAssetData(u) : nullptr)
        r->deferredFeedItemsSet().add(d);
    r->setJournal(journal_);
    live_.push_back(r);
  }
  journal_->changed.clear();
  ++journal_->generation;
}

int InMemoryStoreContext::saves() const {
  std::lock_guard lock(mutex_);
  return saves_;
}

int InMemoryStoreContext::refreshes() const {
  std::lock_guard lock(mutex_);
  return refreshes_;
}

std::vector<InMemoryStoreContext::SavedRecord> InMemoryStoreContext::savedRecords() const {
  std::lock_guard lock(mutex_);
  std::vector<SavedRecord> out;
  for (const auto& s : saved_)
    out.push_back(SavedRecord{s->uuid, s->maxItems, s->autodelete, s->maxBitrate,
                              s->feedItems.toVector(), s->deferredFeedItems.toVector()});
  return out;
}

void InMemoryStoreContext::forgetAssetData(const std::shared_ptr<ZolvaniAssetData>& item) {
  std::lock_guard lock(mutex_);
  for (auto& r : live_) {
    auto& record = static_cast<InMemorySubscriptionData&>(*r);
    if (record.containsWithoutTouching(item)) {
      record.feedItemsSet().remove(item);
      record.deferredFeedItemsSet().remove(item);
    }
  }
  const std::string uuid = item->uuid();
  for (auto& saved : saved_) {
    const std::size_t tracked = saved->feedItems.find(uuid);
    const std::size_t deferred = saved->deferredFeedItems.find(uuid);
    if (tracked == saved->feedItems.size() && deferred == saved->deferredFeedItems.size()) continue;
    auto copy = std::make_shared<StoredRecord>(*saved);
    if (tracked < copy->feedItems.size()) copy->feedItems.erase(tracked);
    if (deferred < copy->deferredFeedItems.size()) copy->deferredFeedItems.erase(deferred);
    saved = std::move(copy);
  }
}

// ---------------------------------------------------------------------------
// Roles

namespace {

using EnginePtr = std::shared_ptr<InMemoryEngine>;

}  // namespace

class EngineRoleSet {
 public:
  class Download final : public ZolvaniDownloadEngine {
   public:
    explicit Download(EnginePtr e) : e_(std::move(e)) {}
    bool started() override { return e_->started; }
    std::string user() override {
      std::lock_guard l(e_->mutex_);
      return e_->user_;
    }
    std::string keelhallURL() override {
      std::lock_guard l(e_->mutex_);
      return e_->url_;
    }
    std::string secret() override {
      std::lock_guard l(e_->mutex_);
      return e_->secret_;
    }
    std::string key() override {
      std::lock_guard l(e_->mutex_);
      return e_->key_;
    }
    void startupWithKeelhall(std::string url, std::string user, std::string device,
                             std::string priv, std::string pub, bool internalOverride,
                             std::function<void(bool, std::optional<Error>)> onComplete) override {
      {
        std::lock_guard l(e_->mutex_);
        e_->startups_.push_back({url, user, device, priv, pub, internalOverride});
        if (e_->startupStartsEngine) {
          e_->url_ = url;
          e_->user_ = user;
          e_->secret_ = priv;
          e_->key_ = pub;
        }
      }
      if (e_->startupStartsEngine) e_->started = true;
      if (onComplete) onComplete(e_->startupStartsEngine.load(), std::nullopt);
    }
    std::vector<std::string> assetsInQueue() override {
      std::lock_guard l(e_->mutex_);
      std::vector<std::string> out = e_->extraQueue_;
      std::unordered_set<std::string> seen(out.begin(), out.end());
      for (const auto& u : e_->queued_)
        if (e_->live_.count(u) && seen.insert(u).second) out.push_back(u);
      return out;
    }
    void addToQueue(std::shared_ptr<ZolvaniAsset> asset, std::uint64_t,
                    std::function<void(bool, std::optional<Error>)> onComplete) override {
      std::optional<Error> error;
      {
        std::lock_guard l(e_->mutex_);
        error = e_->queueingError_;
        if (!error && asset) e_->queued_.push_back(asset->uuid());
      }
      if (onComplete) onComplete(!error, error);
    }

   private:
    EnginePtr e_;
  };

  class Keelhall final : public ZolvaniKeelhall {
   public:
    explicit Keelhall(EnginePtr e) : e_(std::move(e)) {}
    bool keelhallEnabled() override { return e_->keelhallEnabled; }
    std::string keelhallURL() override { return get(&InMemoryEngine::keelhallURL_); }
    std::string user() override { return get(&InMemoryEngine::keelhallUser_); }
    std::string externalDeviceID() override { return get(&InMemoryEngine::keelhallDevice_); }
    std::string secret() override { return get(&InMemoryEngine::keelhallSecret_); }
    std::string key() override { return get(&InMemoryEngine::keelhallKey_); }

   private:
    std::string get(std::string InMemoryEngine::*field) {
      std::lock_guard l(e_->mutex_);
      return (*e_).*field;
    }
    EnginePtr e_;
  };

  class Events final : public ZolvaniEventHandler {
   public:
    explicit Events(EnginePtr e) : e_(std::move(e)) {}
    void registerHandler(std::shared_ptr<ZolvaniEventHandlerDelegate> handler) override {
      std::lock_guard l(e_->mutex_);
      e_->handlers_.push_back(handler);  // held weakly: the engine never owns its handlers
    }

   private:
    EnginePtr e_;
  };

  class Logger final : public ZolvaniLogger {
   public:
    explicit Logger(EnginePtr e) : e_(std::move(e)) {}
    void addDebugEvent(const std::string& message, std::int64_t level) override {
      std::lock_guard l(e_->mutex_);
      e_->log_.push_back({message, level});
    }
    void logEvent(std::int64_t event, const std::string& file, const Value& data) override {
      std::lock_guard l(e_->mutex_);
      e_->events_.push_back({event, file, data});
    }

   private:
    EnginePtr e_;
  };

  class Clock final : public ZolvaniSecureClock {
   public:
    explicit Clock(EnginePtr e) : e_(std::move(e)) {}
    Date date() override { return e_->date(); }

   private:
    EnginePtr e_;
  };

  class Persistence final : public ZolvaniAppPersistence {
   public:
    explicit Persistence(EnginePtr e) : e_(std::move(e)) {}
    void startBackgroundKeepaliveForTask(const std::string& task) override { add("start:" + task); }
    void stopBackgroundKeepaliveForTask(const std::string& task) override { add("stop:" + task); }
    void startBackgroundIfPersistenceNeeded() override { add("persist"); }

   private:
    void add(std::string s) {
      std::lock_guard l(e_->mutex_);
      e_->keepAlive_.push_back(std::move(s));
    }
    EnginePtr e_;
  };

  class Reachability final : public ZFM_Reachability,
                             public std::enable_shared_from_this<Reachability> {
   public:
    explicit Reachability(EnginePtr e) : e_(std::move(e)) {}
    std::shared_ptr<ZFM_Reachability> reachabilityForInternetConnection() override {
      return shared_from_this();
    }
    std::int64_t currentReachabilityStatus() override { return e_->reachabilityStatus; }

   private:
    EnginePtr e_;
  };

  class Uuid final : public ZFM_UUID {
   public:
    explicit Uuid(EnginePtr e) : e_(std::move(e)) {}
    std::string UUID() override {
      std::lock_guard l(e_->mutex_);
      return e_->deviceUUID_;
    }

   private:
    EnginePtr e_;
  };

  class Utilities final : public ZFM_Utilities {
   public:
    explicit Utilities(EnginePtr e) : e_(std::move(e)) {}
    std::int64_t applicationState() override { return e_->applicationState; }
    std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() override {
      return e_->context_;
    }
    void saveContext() override {
      e_->record([&] { e_->saveAdmissions_.push_back(tAdmission); });
      e_->context_->save();
    }
    void performAdmission(const std::function<void()>& work) override {
      const std::uint64_t outer = std::exchange(tAdmission, e_->nextAdmission_++);
      work();
      tAdmission = outer;
    }

   private:
    EnginePtr e_;
  };

  class Session final : public NSURLSessionHelper {
   public:
    explicit Session(EnginePtr e) : e_(std::move(e)) {}
    std::vector<std::shared_ptr<ZolvaniAsset>> zfm_processingAssets() override {
      std::lock_guard l(e_->mutex_);
      return e_->processing_;
    }

   private:
    EnginePtr e_;
  };

  class Factory final : public ZolvaniAssetFactory {
   public:
    explicit Factory(EnginePtr e) : e_(std::move(e)) {}
    std::shared_ptr<ZolvaniAsset> assetWithUUID(std::string_view uuid, std::int64_t) override {
      std::lock_guard l(e_->mutex_);
      auto it = e_->live_.find(uuid);
      return it == e_->live_.end() ? nullptr : it->second;
    }
    std::shared_ptr<ZolvaniAsset> assetWithAssetID(std::string_view assetID,
                                                   std::int64_t) override {
      std::lock_guard l(e_->mutex_);
      auto it = e_->byAssetID_.find(assetID);
      if (it == e_->byAssetID_.end() || it->second.empty()) return nullptr;
      return e_->live_.at(*it->second.begin());
    }
    std::shared_ptr<ZolvaniAsset> assetWithAssetID(
        std::string assetID, std::string description, std::string manifestUrl,
        std::int32_t protectionType, bool includeEncryptionKeys, std::int64_t maximumBitrate,
        std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
        double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
        std::optional<Value::Map> userInfo, AssetReadyCallback onReady,
        AssetParseCallback onParse) override {
      AssetCreation c{
          true,           std::move(assetID),    std::move(description), std::move(manifestUrl),
          protectionType, includeEncryptionKeys, maximumBitrate,         publishDate,
          expiryDate,     expiryAfterDownload,   expiryAfterPlay,        assetDownloadLimit,
          enableFastPlay, std::move(userInfo)};
      return e_->makeAsset(std::move(c), std::move(onReady), std::move(onParse));
    }
    std::shared_ptr<ZolvaniAsset> assetWithRemoteURL(
        std::string remoteURL, std::string assetID, std::string description,
        std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
        double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
        std::optional<Value::Map> userInfo, AssetReadyCallback onReady,
        AssetParseCallback onParse) override {
      AssetCreation c{false,
                      std::move(assetID),
                      std::move(description),
                      std::move(remoteURL),
                      0,
                      false,
                      0,
                      publishDate,
                      expiryDate,
                      expiryAfterDownload,
                      expiryAfterPlay,
                      assetDownloadLimit,
                      enableFastPlay,
                      std::move(userInfo)};
      return e_->makeAsset(std::move(c), std::move(onReady), std::move(onParse));
    }

   private:
    EnginePtr e_;
  };
};

// ---------------------------------------------------------------------------
// Engine

std::shared_ptr<InMemoryEngine> InMemoryEngine::create() {
  auto e = std::shared_ptr<InMemoryEngine>(new InMemoryEngine());
  e->context_ = std::make_shared<InMemoryStoreContext>();
  std::weak_ptr<InMemoryEngine> weak = e;
  e->context_->resolveAssetData =
      [weak](const std::string& uuid) -> std::shared_ptr<ZolvaniAssetData> {
    auto engine = weak.lock();
    if (!engine) return nullptr;
    auto a = engine->asset(uuid);
    return a ? a->assetDataFromAsset() : nullptr;
  };
  e->setCredentials("http://127.0.0.1:1", "user", "secret", "public-key");
  e->setKeelhall("http://127.0.0.1:1", "user", "external-device", "secret", "public-key");
  return e;
}

ZolvaniEngine InMemoryEngine::roles() {
  auto self = shared_from_this();
  ZolvaniEngine r;
  r.downloadEngine = std::make_shared<EngineRoleSet::Download>(self);
  r.keelhall = std::make_shared<EngineRoleSet::Keelhall>(self);
  r.eventHandler = std::make_shared<EngineRoleSet::Events>(self);
  r.logger = std::make_shared<EngineRoleSet::Logger>(self);
  r.secureClock = std::make_shared<EngineRoleSet::Clock>(self);
  r.appPersistence = std::make_shared<EngineRoleSet::Persistence>(self);
  r.reachability = std::make_shared<EngineRoleSet::Reachability>(self);
  r.uuid = std::make_shared<EngineRoleSet::Uuid>(self);
  r.utilities = std::make_shared<EngineRoleSet::Utilities>(self);
  r.sessionHelper = std::make_shared<EngineRoleSet::Session>(self);
  r.assets = std::make_shared<EngineRoleSet::Factory>(self);
  return r;
}

void InMemoryEngine::setCredentials(std::string url, std::string user, std::string secret,
                                    std::string key) {
  std::lock_guard l(mutex_);
  url_ = std::move(url);
  user_ = std::move(user);
  secret_ = std::move(secret);
  key_ = std::move(key);
}

void InMemoryEngine::setKeelhall(std::string url, std::string user, std::string device,
                                 std::string secret, std::string key) {
  std::lock_guard l(mutex_);
  keelhallURL_ = std::move(url);
  keelhallUser_ = std::move(user);
  keelhallDevice_ = std::move(device);
  keelhallSecret_ = std::move(secret);
  keelhallKey_ = std::move(key);
}

void InMemoryEngine::setDeviceUUID(std::string uuid) {
  std::lock_guard l(mutex_);
  deviceUUID_ = std::move(uuid);
}

void InMemoryEngine::setDate(Date date) {
  std::lock_guard l(mutex_);
  date_ = date;
}

Date InMemoryEngine::date() const {
  std::lock_guard l(mutex_);
  return date_;
}

void InMemoryEngine::setQueueingError(std::optional<Error> error) {
  std::lock_guard l(mutex_);
  queueingError_ = std::move(error);
}

void InMemoryEngine::setQueue(std::vector<std::string> uuids) {
  std::lock_guard l(mutex_);
  extraQueue_ = std::move(uuids);
}

void InMemoryEngine::setProcessingAssets(std::vector<std::shared_ptr<ZolvaniAsset>> assets) {
  std::lock_guard l(mutex_);
  processing_ = std::move(assets);
}

std::shared_ptr<InMemoryAsset> InMemoryEngine::makeAsset(AssetCreation creation,
                                                         AssetReadyCallback ready,
                                                         AssetParseCallback parse) {
  if (refuseAssetCreation) return nullptr;
  creation.admission = tAdmission;
  std::shared_ptr<InMemoryAsset> a;
  {
    std::lock_guard l(mutex_);
    std::string uuid = fmt::format("ASSET-{:04}", nextAsset_++);
    a = std::make_shared<InMemoryAsset>(weak_from_this(), uuid, std::move(creation), date_);
    a->readyCallback = std::move(ready);
    a->parseCallback = std::move(parse);
    live_[uuid] = a;
    byAssetID_[a->assetID()].insert(uuid);
    created_.push_back(a);
    if (!readyInline) pendingReady_.push_back(a);
  }
  if (readyInline && a->readyCallback) a->readyCallback(a);
  return a;
}

std::shared_ptr<InMemoryAsset> InMemoryEngine::addAsset(std::string assetID, Date creationDate,
                                                        std::optional<Date> downloadComplete) {
  std::lock_guard l(mutex_);
  std::string uuid = fmt::format("ASSET-{:04}", nextAsset_++);
  AssetCreation c;
  c.assetID = std::move(assetID);
  c.description = "Title of " + c.assetID;
  auto a = std::make_shared<InMemoryAsset>(weak_from_this(), uuid, std::move(c), creationDate);
  a->_setCreationDate(creationDate);
  a->setDownloadComplete(downloadComplete);
  live_[uuid] = a;
  byAssetID_[a->assetID()].insert(uuid);
  created_.push_back(a);
  return a;
}

std::shared_ptr<InMemoryAsset> InMemoryEngine::asset(const std::string& uuid) const {
  std::lock_guard l(mutex_);
  auto it = live_.find(uuid);
  return it == live_.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<InMemoryAsset>> InMemoryEngine::liveAssets() const {
  std::lock_guard l(mutex_);
  // In creation order.
  std::vector<std::shared_ptr<InMemoryAsset>> out;
  for (const auto& a : created_)
    if (auto it = live_.find(a->uuid()); it != live_.end() && it->second == a) out.push_back(a);
  return out;
}

std::vector<std::shared_ptr<InMemoryAsset>> InMemoryEngine::createdAssets() const {
  std::lock_guard l(mutex_);
  return created_;
}

std::size_t InMemoryEngine::fireReadyCallbacks() {
  std::vector<std::shared_ptr<InMemoryAsset>> ready;
  {
    std::lock_guard l(mutex_);
    ready.swap(pendingReady_);
  }
  for (const auto& a : ready)
    if (a->readyCallback) a->readyCallback(a);
  return ready.size();
}

void InMemoryEngine::dropCallbacks() {
  std::lock_guard l(mutex_);
  for (const auto& a : created_) {
    a->readyCallback = nullptr;
    a->parseCallback = nullptr;
  }
  pendingReady_.clear();
}

void InMemoryEngine::deleteExternally(const std::string& uuid) { removeAsset(uuid, std::nullopt); }

void InMemoryEngine::removeAsset(const std::string& uuid, std::optional<std::int64_t> reason) {
  std::shared_ptr<InMemoryAsset> gone;
  {
    std::lock_guard l(mutex_);
    auto it = live_.find(uuid);
    if (it == live_.end()) return;
    gone = it->second;
    live_.erase(it);
    if (auto ids = byAssetID_.find(gone->assetID()); ids != byAssetID_.end()) {
      ids->second.erase(uuid);
      if (ids->second.empty()) byAssetID_.erase(ids);
    }
    std::erase(queued_, uuid);
    std::erase(extraQueue_, uuid);
    if (reason) deletions_.push_back({uuid, *reason});
  }
  // Deleting an asset removes its record from every feed, as a store cascade
  // would.
  context_->forgetAssetData(gone->assetDataFromAsset());
}

std::vector<LogLine> InMemoryEngine::logLines() const {
  std::lock_guard l(mutex_);
  return log_;
}

std::vector<std::string> InMemoryEngine::messages(std::optional<std::int64_t> level) const {
  std::lock_guard l(mutex_);
  std::vector<std::string> out;
  for (const auto& line : log_)
    if (!level || line.level == *level) out.push_back(line.message);
  return out;
}

bool InMemoryEngine::logged(const std::string& message, std::optional<std::int64_t> level) const {
  std::lock_guard l(mutex_);
  return std::any_of(log_.begin(), log_.end(), [&](const LogLine& line) {
    return line.message == message && (!level || line.level == *level);
  });
}

std::size_t InMemoryEngine::countLogged(const std::string& needle) const {
  std::lock_guard l(mutex_);
  return static_cast<std::size_t>(std::count_if(log_.begin(), log_.end(), [&](const LogLine& line) {
    return line.message.find(needle) != std::string::npos;
  }));
}

void InMemoryEngine::clearLog() {
  std::lock_guard l(mutex_);
  log_.clear();
}

std::vector<InMemoryEngine::AnalyticsEvent> InMemoryEngine::analyticsEvents() const {
  std::lock_guard l(mutex_);
  return events_;
}

std::vector<InMemoryEngine::Deletion> InMemoryEngine::deletions() const {
  std::lock_guard l(mutex_);
  return deletions_;
}

std::vector<std::string> InMemoryEngine::queuedUUIDs() const {
  std::lock_guard l(mutex_);
  return queued_;
}

std::vector<InMemoryEngine::Startup> InMemoryEngine::startups() const {
  std::lock_guard l(mutex_);
  return startups_;
}

std::vector<std::string> InMemoryEngine::keepAliveCalls() const {
  std::lock_guard l(mutex_);
  return keepAlive_;
}

std::vector<std::shared_ptr<ZolvaniEventHandlerDelegate>> InMemoryEngine::handlers() const {
  std::lock_guard l(mutex_);
  std::vector<std::shared_ptr<ZolvaniEventHandlerDelegate>> out;
  for (const auto& w : handlers_)
    if (auto h = w.lock()) out.push_back(h);
  return out;
}

int InMemoryEngine::saveCount() const { return context_->saves(); }

std::vector<std::uint64_t> InMemoryEngine::saveAdmissions() const {
  std::lock_guard l(mutex_);
  return saveAdmissions_;
}

void InMemoryEngine::record(std::function<void()> change) {
  std::lock_guard l(mutex_);
  change();
}

}  // namespace zolvani::testing
