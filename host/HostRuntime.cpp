#include "HostRuntime.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <utility>

#include "CliError.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/engine/EngineWrappers.h"

namespace zsm {

using namespace zolvani;

// Keeps the recent lines the library and the engine hand to the logger (the
// library reports some outcomes only there) and passes each on to the engine's
// own log. A long-running host logs without end, so only the last kKeptLines
// are kept; marks stay valid as positions in the whole sequence.
class HostRuntime::CapturingLogger final : public ZolvaniLoggerWrapper {
 public:
  using Sink = std::function<void(const std::string&, std::int64_t)>;
  static constexpr std::size_t kKeptLines = 4096;

  CapturingLogger(std::shared_ptr<ZolvaniLogger> target, std::int64_t echoLevel, Sink sink)
      : ZolvaniLoggerWrapper(std::move(target)), echoLevel_(echoLevel), sink_(std::move(sink)) {}

  void addDebugEvent(const std::string& message, std::int64_t level) override {
    {
      std::lock_guard lock(mutex_);
      lines_.push_back({message, level});
      if (lines_.size() > kKeptLines) {
        lines_.pop_front();
        ++dropped_;
      }
    }
    if (echoLevel_ >= 0 && level <= echoLevel_) {
      if (sink_)
        sink_(message, level);
      else
        std::fprintf(stderr, "log[%lld] %s\n", static_cast<long long>(level), message.c_str());
    }
    ZolvaniLoggerWrapper::addDebugEvent(message, level);
  }

  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return dropped_ + lines_.size();
  }
  std::vector<LogLine> since(std::size_t mark) const {
    std::lock_guard lock(mutex_);
    const std::size_t from = mark > dropped_ ? mark - dropped_ : 0;
    if (from >= lines_.size()) return {};
    return {lines_.begin() + static_cast<std::ptrdiff_t>(from), lines_.end()};
  }

 private:
  const std::int64_t echoLevel_;
  const Sink sink_;
  mutable std::mutex mutex_;
  std::deque<LogLine> lines_;
  std::size_t dropped_ = 0;
};

namespace {

// Contract levels the engine's log file keeps by default: 0 error, 1 warning,
// 2 notable.
constexpr std::int64_t kEngineLogFileLevel = 2;

// The host's own user-defaults key: the whole second of this device's last run.
constexpr std::string_view kLastRequestSecondKey = "ZSMHost_LastRequestSecond";
// Set once a sync has finished on this device.
constexpr std::string_view kSyncedKey = "ZSMHost_Synced";
// Feed identifier -> where its rules came from.
constexpr std::string_view kRuleSourcesKey = "ZSMHost_RuleSources";
// The line the library writes to the system log for each feed whose rules a
// sync brought: "Updating rules for feed(<id>): ...".
constexpr std::string_view kRulesLinePrefix = "Updating rules for feed(";

// What a looking-only command tells the manager about the network: the engine
// is held offline so that its queue stays still, but the server is asked all
// the same (a missing network then shows as the transport's error).
class AssumedOnline final : public ZFM_ReachabilityWrapper {
 public:
  using ZFM_ReachabilityWrapper::ZFM_ReachabilityWrapper;
  std::int64_t currentReachabilityStatus() override { return 1; }
};

// The user defaults as the host hands them to the library: the last-sync
// date never gets ahead of the engine's store. A sync saves its items to the
// store context, which the engine commits within its window (a quarter of a
// second), while the date goes to the defaults file at once; a kill in
// between would leave the date ahead of items never saved, and the next sync
// would skip them as old. So the date is set only once the store has
// committed; when that commit fails (a full disk) the date keeps its old
// value, and the next sync asks again from there: items already saved are
// then known and skipped.
class StoreFirstDefaults final : public UserDefaults {
 public:
  explicit StoreFirstDefaults(std::shared_ptr<UserDefaults> target) : target_(std::move(target)) {}
  // `commit` commits the store (true when nothing is left pending); `warn`
  // reports a date held back.
  void attach(std::function<bool()> commit, std::function<void(const std::string&)> warn) {
    std::lock_guard lock(mutex_);
    commit_ = std::move(commit);
    warn_ = std::move(warn);
  }
  std::optional<Value> objectForKey(std::string_view key) const override {
    return target_->objectForKey(key);
  }
  void setObject(std::string_view key, Value value) override {
    if (key == LastSyncKey) {
      std::function<bool()> commit;
      std::function<void(const std::string&)> warn;
      {
        std::lock_guard lock(mutex_);
        commit = commit_;
        warn = warn_;
      }
      if (commit && !commit()) {
        if (warn)
          warn(
              "The last-sync date was not moved: the engine's store could not commit the "
              "items it goes with");
        return;
      }
    }
    target_->setObject(key, std::move(value));
  }
  void removeObjectForKey(std::string_view key) override { target_->removeObjectForKey(key); }
  bool synchronize() override { return target_->synchronize(); }

 private:
  const std::shared_ptr<UserDefaults> target_;
  std::mutex mutex_;
  std::function<bool()> commit_;
  std::function<void(const std::string&)> warn_;
};

// The application state the host presents to the manager; a one-shot command
// is not the active foreground, so its start-up does no server work of its own.
class HostUtilities final : public ZFM_UtilitiesWrapper {
 public:
  HostUtilities(std::shared_ptr<ZFM_Utilities> target, std::int64_t state)
      : ZFM_UtilitiesWrapper(std::move(target)), state_(state) {}
  std::int64_t applicationState() override { return state_; }

 private:
  const std::int64_t state_;
};

AssetNote noteFor(const Value& value) {
  AssetNote note;
  if (const Value::AssetRef* asset = value.asAsset(); asset && *asset) {
    note.uuid = (*asset)->uuid();
    note.assetID = (*asset)->assetID();
    note.description = (*asset)->description();
  }
  return note;
}

std::vector<AssetNote> assetsOf(const Notification& n) {
  std::vector<AssetNote> notes;
  auto it = n.userInfo.find(kSubscriptionManagerNotificationZolvaniAssetsKey);
  if (it == n.userInfo.end() || !it->second.asArray()) return notes;
  for (const Value& v : *it->second.asArray()) notes.push_back(noteFor(v));
  return notes;
}

std::vector<std::string> uuidsOf(const Notification& n) {
  std::vector<std::string> uuids;
  auto it = n.userInfo.find(kSubscriptionManagerNotificationZolvaniAssetUUIDsKey);
  if (it == n.userInfo.end() || !it->second.asArray()) return uuids;
  for (const Value& v : *it->second.asArray()) uuids.push_back(v.stringValue());
  return uuids;
}

}  // namespace

std::string statusName(std::int64_t status) {
  switch (status) {
    case kZSM_Offline:
      return "offline";
    case kZSM_Started:
      return "started";
    case kZSM_Receiving:
      return "receiving";
    case kZSM_Errors:
      return "errors";
    case -1:
      return "none";
    default:
      return "unknown(" + std::to_string(status) + ")";
  }
}

std::optional<Error> HostRuntime::open(const HostOptions& options,
                                       std::unique_ptr<HostRuntime>* out) {
  if (!options.config.complete()) {
    return cliError(kCliErrorNotConfigured, "the device is not configured: run `zsm config " +
                                                options.config.firstMissing() + " ...` first");
  }
  std::unique_ptr<HostRuntime> rt(new HostRuntime());
  rt->options_ = options;

  Platform::Options platformOptions;
  platformOptions.userDefaultsPath = options.paths.userDefaults();
  platformOptions.diagnostics = [](const std::string& message, int level) {
    std::fprintf(stderr, "warning: user defaults (level %d): %s\n", level, message.c_str());
  };
  rt->platform_ = Platform::makeDefault(platformOptions);
  auto defaults = std::make_shared<StoreFirstDefaults>(rt->platform_.userDefaults);
  rt->platform_.userDefaults = defaults;
  // The library's system-log lines (rules updated by a sync) are diagnostics, not
  // command output.
  const std::int64_t echo = options.echoLogLevel;
  HostRuntime* self = rt.get();
  rt->platform_.systemLog = [echo, self](const std::string& line) {
    if (line.rfind(kRulesLinePrefix, 0) == 0) {
      const auto end = line.find("): ");
      if (end != std::string::npos)
        self->noteRulesFrom(line.substr(kRulesLinePrefix.size(), end - kRulesLinePrefix.size()),
                            "server");
    }
    if (echo < 2) return;
    if (self->options_.logSink)
      self->options_.logSink(line, 2);
    else
      std::fprintf(stderr, "system: %s\n", line.c_str());
  };

  reference::ReferenceEngineOptions engineOptions;
  engineOptions.dataFolder = options.paths.engine();
  // The engine's log file keeps what a device keeps (errors, warnings and
  // notable lines) unless more is asked for: at the information level a sync
  // writes a line per item to it, from two threads, and that costs more than
  // the sync's own writes.
  engineOptions.logLevelLimit = std::max<std::int64_t>(kEngineLogFileLevel, options.echoLogLevel);
  engineOptions.parallelTransfers = options.parallelTransfers;
  engineOptions.notificationCenter = rt->platform_.notificationCenter;
  engineOptions.notificationQueue = rt->platform_.mainQueue;
  engineOptions.keelhallURL = options.config.serverUrl;
  engineOptions.user = options.config.user;
  engineOptions.externalDeviceID = options.config.deviceId;
  engineOptions.secret = options.config.secret;
  engineOptions.key = options.config.publicKey;
  engineOptions.freeSpaceMargin = options.freeSpaceMargin;
  if (!options.runTransfers) engineOptions.reachabilityOverride = false;
  rt->engine_ = std::make_unique<reference::ReferenceEngine>(engineOptions);
  rt->engine_->setProgressCallback([self](const reference::AssetInfo& a) {
    std::function<void(const reference::AssetInfo&)> listener;
    {
      std::lock_guard lock(self->mutex_);
      if (a.state == reference::AssetState::kFailed) self->failures_.insert_or_assign(a.uuid, a);
      listener = self->progressListener_;
    }
    if (listener) listener(a);
  });
  // The engine's start takes the data folder's lock: a second host on the
  // folder stops here, before it writes anything.
  if (auto error = rt->engine_->start()) return error;
  reference::ReferenceEngine* engine = rt->engine_.get();
  defaults->attach([engine] { return engine->flush(); },
                   [engine](const std::string& warning) {
                     if (auto logger = engine->roles().logger) logger->addDebugEvent(warning, 1);
                   });
  // The device identity is the host's: it survives a wiped engine folder.
  if (!options.config.deviceId.empty()) {
    rt->platform_.userDefaults->setString(kEngineManualDeviceUDIDKey, options.config.deviceId);
    rt->platform_.userDefaults->synchronize();
  }

  rt->roles_ = rt->engine_->roles();
  rt->logger_ =
      std::make_shared<CapturingLogger>(rt->roles_.logger, options.echoLogLevel, options.logSink);
  rt->roles_.logger = rt->logger_;
  rt->roles_.utilities =
      std::make_shared<HostUtilities>(rt->roles_.utilities, options.applicationState);
  if (!options.runTransfers)
    rt->roles_.reachability = std::make_shared<AssumedOnline>(rt->roles_.reachability);

  rt->manager_ = ZolvaniSubscriptionManager::create(ManagerEnvironment{rt->roles_, rt->platform_});
  for (const auto& a : rt->engine_->listAssets()) {
    rt->assetIds_[a.uuid] = a.assetID;
    if (a.state == reference::AssetState::kComplete) rt->completeBefore_.insert(a.uuid);
    if (a.state == reference::AssetState::kFailed) rt->failedBefore_.insert(a.uuid);
  }
  rt->observeManager();
  rt->manager_->internalStartup();
  *out = std::move(rt);
  return std::nullopt;
}

HostRuntime::~HostRuntime() {
  for (auto token : observers_) platform_.notificationCenter->removeObserver(token);
  // Let the processing queue's last posts reach the main queue, then stop the
  // transfers; partial files stay for the next run to resume.
  if (engine_) {
    engine_->setProgressCallback(nullptr);
    engine_->stop();
  }
  // The engine goes with the runtime; a date set after that (by a manager
  // that outlives it) could not be committed with its items.
  if (auto defaults = std::dynamic_pointer_cast<StoreFirstDefaults>(platform_.userDefaults))
    defaults->attach([] { return false; }, nullptr);
  if (!requested_ || !roles_.secureClock) return;
  const auto second =
      static_cast<std::int64_t>(std::floor(roles_.secureClock->date().secondsSince1970));
  platform_.userDefaults->setInteger(kLastRequestSecondKey, second);
  platform_.userDefaults->synchronize();
}

void HostRuntime::observeManager() {
  auto& center = *platform_.notificationCenter;
  auto main = platform_.mainQueue;
  observers_.push_back(center.addObserver(
      std::string(kSubscriptionManagerAssetAddedNotification), main, [this](const Notification& n) {
        auto notes = assetsOf(n);
        for (const auto& a : notes) record("added: " + a.assetID + " (" + a.description + ")");
        std::lock_guard lock(mutex_);
        for (const auto& a : notes) assetIds_[a.uuid] = a.assetID;
        events_.added.insert(events_.added.end(), notes.begin(), notes.end());
      }));
  observers_.push_back(center.addObserver(
      std::string(kSubscriptionManagerAssetDeferredNotification), main,
      [this](const Notification& n) {
        auto notes = assetsOf(n);
        for (const auto& a : notes)
          record("deferred (feed full): " + a.assetID + " (" + a.description + ")");
        std::lock_guard lock(mutex_);
        events_.deferred.insert(events_.deferred.end(), notes.begin(), notes.end());
      }));
  observers_.push_back(center.addObserver(std::string(kSubscriptionManagerAssetDeletedNotification),
                                          main, [this](const Notification& n) {
                                            auto uuids = uuidsOf(n);
                                            for (const auto& u : uuids) record(deletedLine(u));
                                            std::lock_guard lock(mutex_);
                                            events_.deleted.insert(events_.deleted.end(),
                                                                   uuids.begin(), uuids.end());
                                          }));
  observers_.push_back(
      center.addObserver(std::string(kSubscriptionManagerDidFinishSyncNotification), main,
                         [this](const Notification&) {
                           platform_.userDefaults->setBool(kSyncedKey, true);
                           platform_.userDefaults->synchronize();
                           std::lock_guard lock(mutex_);
                           ++events_.syncsFinished;
                         }));
  observers_.push_back(center.addObserver(
      std::string(kSubscriptionManagerStatusDidChangeNotification), main,
      [this](const Notification& n) {
        auto it = n.userInfo.find(kSubscriptionManagerStatusDidChangeNotificationStatusKey);
        const std::int64_t status = it == n.userInfo.end() ? -1 : it->second.int64Value();
        std::lock_guard lock(mutex_);
        events_.statuses.push_back(status);
      }));
}

void HostRuntime::waitForFreshSecond() {
  auto second = [this] {
    return static_cast<std::int64_t>(std::floor(roles_.secureClock->date().secondsSince1970));
  };
  std::int64_t last = platform_.userDefaults->integerForKey(kLastRequestSecondKey);
  // Bounded: the clock moves on within a second (and a clock set back is not
  // waited for).
  for (int i = 0; i < 30 && second() <= last && last - second() < 2; ++i)
    platform_.mainQueue->runFor(std::chrono::milliseconds(50));
  platform_.userDefaults->setInteger(kLastRequestSecondKey, second());
  requested_ = true;
}

std::chrono::milliseconds HostRuntime::freshSecondDelay() {
  const double now = roles_.secureClock->date().secondsSince1970;
  const auto second = static_cast<std::int64_t>(std::floor(now));
  const std::int64_t last = platform_.userDefaults->integerForKey(kLastRequestSecondKey);
  std::chrono::milliseconds delay{0};
  std::int64_t sentIn = second;
  // As waitForFreshSecond: a clock set back by more than a second is not waited for.
  if (second <= last && last - second < 2) {
    sentIn = last + 1;
    delay = std::chrono::milliseconds(
        static_cast<std::int64_t>(std::ceil((static_cast<double>(sentIn) - now) * 1000.0)) + 20);
  }
  platform_.userDefaults->setInteger(kLastRequestSecondKey, sentIn);
  requested_ = true;
  return delay;
}

void HostRuntime::setProgressListener(std::function<void(const reference::AssetInfo&)> listener) {
  std::lock_guard lock(mutex_);
  progressListener_ = std::move(listener);
}

std::string HostRuntime::deletedLine(const std::string& uuid) {
  std::string name;
  {
    std::lock_guard lock(mutex_);
    auto it = assetIds_.find(uuid);
    if (it != assetIds_.end()) name = it->second;
  }
  return "deleted: " + (name.empty() ? "asset " + uuid : name + " (asset " + uuid + ")");
}

void HostRuntime::record(const std::string& line) {
  EventListener listener;
  {
    std::lock_guard lock(mutex_);
    listener = listener_;
  }
  if (listener) listener(line);
}

bool HostRuntime::pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  return platform_.mainQueue->runUntil(done, timeout);
}

void HostRuntime::pumpFor(std::chrono::milliseconds duration) {
  platform_.mainQueue->runFor(duration);
}

bool HostRuntime::settle(std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  constexpr auto kLook = std::chrono::milliseconds(5);
  const auto deadline = Clock::now() + timeout;
  const auto& queue = manager_->processingQueue();
  int idleLooks = 0;
  while (Clock::now() < deadline) {
    // What the processing queue posted to the main queue runs here.
    pumpFor(kLook);
    if (queue && !queue->waitUntilIdle(std::chrono::steady_clock::duration::zero()))
      idleLooks = 0;
    else if (++idleLooks == 2)
      return true;
  }
  return false;
}

void HostRuntime::setEventListener(EventListener listener) {
  std::lock_guard lock(mutex_);
  listener_ = std::move(listener);
}

HostEvents HostRuntime::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

std::size_t HostRuntime::logMark() const { return logger_->size(); }

std::vector<LogLine> HostRuntime::logSince(std::size_t mark) const { return logger_->since(mark); }

void HostRuntime::markCompleteBaseline() {
  completeBefore_.clear();
  for (const auto& a : engine_->listAssets())
    if (a.state == reference::AssetState::kComplete) completeBefore_.insert(a.uuid);
}

std::map<std::string, reference::AssetInfo> HostRuntime::failedDownloads() const {
  std::lock_guard lock(mutex_);
  return failures_;
}

bool HostRuntime::everSynced() const { return platform_.userDefaults->boolForKey(kSyncedKey); }

std::string HostRuntime::rulesFrom(const std::string& feed) const {
  const auto sources = platform_.userDefaults->objectForKey(kRuleSourcesKey);
  const Value::Map* map = sources ? sources->asMap() : nullptr;
  if (!map) return {};
  auto it = map->find(feed);
  return it == map->end() ? std::string() : it->second.stringValue();
}

void HostRuntime::noteRulesFrom(const std::string& feed, const std::string& source) {
  std::lock_guard lock(rulesMutex_);
  auto sources = platform_.userDefaults->objectForKey(kRuleSourcesKey);
  Value::Map map;
  if (sources && sources->asMap()) map = *sources->asMap();
  map[feed] = Value(source);
  platform_.userDefaults->setObject(kRuleSourcesKey, Value(std::move(map)));
  platform_.userDefaults->synchronize();
}

std::vector<reference::AssetInfo> HostRuntime::listAssets() { return engine_->listAssets(); }

std::vector<std::string> HostRuntime::trackedFeeds() {
  std::vector<std::string> feeds;
  auto context = roles_.utilities->managedObjectContext();
  context->performBlockAndWait([&] {
    std::optional<Error> error;
    for (const auto& record :
         context->executeFetchRequest(SubscriptionDataFetchRequest::all(), &error))
      feeds.push_back(record->uuid());
  });
  return feeds;
}

}  // namespace zsm
