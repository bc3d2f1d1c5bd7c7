// The manager's spine: the singleton, its creation steps, the global settings,
// status reports and the logging entry point.
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

#include <mutex>

#include <fmt/format.h>

#include "manager/LogFormat.h"
#include "zolvani/subscription/Version.h"

namespace zolvani {
namespace {

constexpr const char* kRefusedConstruction =
    "This class should never be directly instantiated.  Always use the instance singleton!";
constexpr const char* kLogLocation = "-[ZolvaniSubscriptionManager logString:atLevel:]";
constexpr int kLogLine = 1581;
constexpr std::size_t kProcessingThreads = 8;

std::once_flag platformOnce;
std::optional<Platform> platformSlot;

// A mutex rather than a once flag: the first calls may throw (nothing is
// installed yet), and a once flag left by an exception is not reliably
// released everywhere.
std::mutex sharedMutex;
std::shared_ptr<ZolvaniSubscriptionManager> sharedManager;  // guarded by sharedMutex

}  // namespace

const double ZolvaniClientSubscriptionManagerVersionNumber = ZSM_VERSION_NUMBER;
const unsigned char ZolvaniClientSubscriptionManagerVersionString[] = ZSM_VERSION_STRING;

bool installPlatform(Platform platform) {
  bool took = false;
  std::call_once(platformOnce, [&] {
    platformSlot = std::move(platform);
    took = true;
  });
  return took;
}

const Platform* installedPlatform() { return platformSlot ? &*platformSlot : nullptr; }

ZolvaniSubscriptionManager::ZolvaniSubscriptionManager() {
  throw InternalInconsistencyException(kRefusedConstruction);
}

ZolvaniSubscriptionManager::ZolvaniSubscriptionManager(Passkey, ManagerEnvironment environment)
    : env_(std::move(environment)) {}

ZolvaniSubscriptionManager::~ZolvaniSubscriptionManager() = default;

std::shared_ptr<ZolvaniSubscriptionManager> ZolvaniSubscriptionManager::instance() {
  const ZolvaniEngine* engine = installedEngine();
  if (!engine || !engine->downloadEngine || !engine->downloadEngine->started()) return nullptr;
  if (!engine->keelhall || !engine->keelhall->keelhallEnabled()) return nullptr;
  return internalInstance();
}

std::shared_ptr<ZolvaniSubscriptionManager> ZolvaniSubscriptionManager::internalInstance() {
  std::lock_guard lock(sharedMutex);
  if (sharedManager) return sharedManager;
  const ZolvaniEngine* engine = installedEngine();
  const Platform* platform = installedPlatform();
  if (!engine || !engine->complete())
    throw InternalInconsistencyException(
        "No download engine is installed; call installEngine() before using the manager.");
  if (!platform)
    throw InternalInconsistencyException(
        "No platform is installed; call installPlatform() before using the manager.");
  sharedManager = create(ManagerEnvironment{*engine, *platform});
  return sharedManager;
}

std::shared_ptr<ZolvaniSubscriptionManager> ZolvaniSubscriptionManager::create(
    ManagerEnvironment environment) {
  if (!environment.engine.complete())
    throw InternalInconsistencyException("The engine bundle lacks one of its roles.");
  const Platform& p = environment.platform;
  if (!p.mainQueue || !p.notificationCenter || !p.userDefaults || !p.http || !p.application)
    throw InternalInconsistencyException("The platform bundle lacks one of its parts.");
  auto manager = std::make_shared<ZolvaniSubscriptionManager>(Passkey{}, std::move(environment));
  manager->initInternal();
  return manager;
}

void ZolvaniSubscriptionManager::initInternal() {
  // The collaborators each subsystem contributes; they hold no server or store
  // state of their own yet.
  makeFeedStore();
  makeServerClient();
  makeCatalogSync();

  processingQueue_ =
      std::make_shared<ConcurrentQueue>("subscription_processing_queue", kProcessingThreads);
  status_.store(-1);
  setInSync(false);
  env_.engine.eventHandler->registerHandler(shared_from_this());
  registerDataSource(makeDataSourceFactory<ZolvaniSubscriptionDefaultDataSource>());
  started_.store(false);

  UserDefaults& defaults = *env_.platform.userDefaults;
  {
    std::lock_guard lock(mutex_);
    pushToken_ = defaults.objectForKey(kEngineDevicePushTokenKey).value_or(Value());
  }
  // A fresh installation treats "now" as its last sync, so only content
  // published after the first launch counts as new. Only an absent key counts
  // as fresh: a stored value that is not a date reads as no date, but it is
  // the host's and stays.
  if (!defaults.objectForKey(LastSyncKey))
    defaults.setDate(LastSyncKey, env_.engine.secureClock->date());
  if (!defaults.objectForKey(MaxSubscriptionsKey)) defaults.setInteger(MaxSubscriptionsKey, 0);
  if (!defaults.objectForKey(AutoDeleteKey)) defaults.setBool(AutoDeleteKey, true);
  defaults.synchronize();

  registerEngineObservers();
}

void ZolvaniSubscriptionManager::registerDataSource(DataSourceFactory factory) {
  std::lock_guard lock(mutex_);
  dataSourceFactory_ = std::move(factory);
}

DataSourceFactory ZolvaniSubscriptionManager::dataSourceFactory() const {
  std::lock_guard lock(mutex_);
  return dataSourceFactory_;
}

std::int32_t ZolvaniSubscriptionManager::maximumSubscriptionItemsPerFeed() const {
  return static_cast<std::int32_t>(env_.platform.userDefaults->integerForKey(MaxSubscriptionsKey));
}

void ZolvaniSubscriptionManager::setMaximumSubscriptionItemsPerFeed(std::int32_t value) {
  env_.platform.userDefaults->setInteger(MaxSubscriptionsKey, value);
  env_.platform.userDefaults->synchronize();
}

bool ZolvaniSubscriptionManager::autodeleteOldItems() const {
  return env_.platform.userDefaults->boolForKey(AutoDeleteKey);
}

void ZolvaniSubscriptionManager::setAutodeleteOldItems(bool value) {
  env_.platform.userDefaults->setBool(AutoDeleteKey, value);
  env_.platform.userDefaults->synchronize();
}

std::int32_t ZolvaniSubscriptionManager::maxBitrate() const {
  return static_cast<std::int32_t>(env_.platform.userDefaults->integerForKey(MaxBitrateKey));
}

void ZolvaniSubscriptionManager::setMaxBitrate(std::int32_t value) {
  env_.platform.userDefaults->setInteger(MaxBitrateKey, value);
}

std::optional<Date> ZolvaniSubscriptionManager::lastSubscriptionSyncTime() const {
  return env_.platform.userDefaults->dateForKey(LastSyncKey);
}

std::string ZolvaniSubscriptionManager::user() const { return env_.engine.downloadEngine->user(); }

Value ZolvaniSubscriptionManager::pushToken() const {
  std::lock_guard lock(mutex_);
  return pushToken_;
}

void ZolvaniSubscriptionManager::reportStatus(std::int64_t status) {
  if (status == status_.load()) return;
  static constexpr const char* kNames[] = {"kZSM_Offline", "kZSM_Started", "kZSM_Receiving",
                                           "kZSM_Errors"};
  if (status >= 0 && status <= 3)
    logString(fmt::format("Updated Manager status to {}", kNames[status]), 4);
  status_.store(status);
  // The notification carries the status at delivery time, not the reported one:
  // observers read it as "the latest status".
  env_.platform.mainQueue->async([self = shared_from_this()] {
    Value::Map info{{std::string(kSubscriptionManagerStatusDidChangeNotificationStatusKey),
                     Value(self->status_.load())}};
    self->env_.platform.notificationCenter->post(
        std::string(kSubscriptionManagerStatusDidChangeNotification), std::move(info));
  });
}

void ZolvaniSubscriptionManager::logString(const std::string& message, std::int64_t level) {
  env_.engine.logger->addDebugEvent(locatedLine(kLogLocation, kLogLine, message), level);
}

}  // namespace zolvani
