#include "HostRuntime.h"

#include <cmath>
#include <cstdio>
#include <utility>

#include "CliError.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/engine/EngineWrappers.h"

namespace zsm {

using namespace zolvani;

// Keeps every line the library and the engine hand to the logger (the library
// reports some outcomes only there) and passes it on to the engine's own log.
class HostRuntime::CapturingLogger final : public ZolvaniLoggerWrapper {
 public:
  CapturingLogger(std::shared_ptr<ZolvaniLogger> target, std::int64_t echoLevel)
      : ZolvaniLoggerWrapper(std::move(target)), echoLevel_(echoLevel) {}

  void addDebugEvent(const std::string& message, std::int64_t level) override {
    {
      std::lock_guard lock(mutex_);
      lines_.push_back({message, level});
    }
    if (echoLevel_ >= 0 && level <= echoLevel_)
      std::fprintf(stderr, "log[%lld] %s\n", static_cast<long long>(level), message.c_str());
    ZolvaniLoggerWrapper::addDebugEvent(message, level);
  }

  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return lines_.size();
  }
  std::vector<LogLine> since(std::size_t mark) const {
    std::lock_guard lock(mutex_);
    if (mark >= lines_.size()) return {};
    return {lines_.begin() + static_cast<std::ptrdiff_t>(mark), lines_.end()};
  }

 private:
  const std::int64_t echoLevel_;
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

namespace {

// The host's own user-defaults key: the whole second of this device's last run.
constexpr std::string_view kLastRequestSecondKey = "ZSMHost_LastRequestSecond";

// The application state a one-shot command presents to the manager: not the
// active foreground, so start-up does no server work of its own.
class CommandLineUtilities final : public ZFM_UtilitiesWrapper {
 public:
  using ZFM_UtilitiesWrapper::ZFM_UtilitiesWrapper;
  std::int64_t applicationState() override { return 2; }
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
  // The library's system-log lines (rules updated by a sync) are diagnostics, not
  // command output.
  const std::int64_t echo = options.echoLogLevel;
  rt->platform_.systemLog = [echo](const std::string& line) {
    if (echo >= 2) std::fprintf(stderr, "system: %s\n", line.c_str());
  };
  // The device identity is the host's: it survives a wiped engine folder.
  if (!options.config.deviceId.empty()) {
    rt->platform_.userDefaults->setString(kEngineManualDeviceUDIDKey, options.config.deviceId);
    rt->platform_.userDefaults->synchronize();
  }

  reference::ReferenceEngineOptions engineOptions;
  engineOptions.dataFolder = options.paths.engine();
  engineOptions.parallelTransfers = options.parallelTransfers;
  engineOptions.notificationCenter = rt->platform_.notificationCenter;
  engineOptions.notificationQueue = rt->platform_.mainQueue;
  engineOptions.keelhallURL = options.config.serverUrl;
  engineOptions.user = options.config.user;
  engineOptions.externalDeviceID = options.config.deviceId;
  engineOptions.secret = options.config.secret;
  engineOptions.key = options.config.publicKey;
  rt->engine_ = std::make_unique<reference::ReferenceEngine>(engineOptions);
  if (auto error = rt->engine_->start()) return error;

  rt->roles_ = rt->engine_->roles();
  rt->logger_ = std::make_shared<CapturingLogger>(rt->roles_.logger, options.echoLogLevel);
  rt->roles_.logger = rt->logger_;
  rt->roles_.utilities = std::make_shared<CommandLineUtilities>(rt->roles_.utilities);

  rt->manager_ = ZolvaniSubscriptionManager::create(ManagerEnvironment{rt->roles_, rt->platform_});
  for (const auto& a : rt->engine_->listAssets()) rt->assetIds_[a.uuid] = a.assetID;
  rt->observeManager();
  rt->manager_->internalStartup();
  *out = std::move(rt);
  return std::nullopt;
}

HostRuntime::~HostRuntime() {
  for (auto token : observers_) platform_.notificationCenter->removeObserver(token);
  // Let the processing queue's last posts reach the main queue, then stop the
  // transfers; partial files stay for the next run to resume.
  if (engine_) engine_->stop();
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
