// The download-engine contract: one abstract class per role the engine plays for
// the library, and the bundle through which an engine hands its roles over.
//
// The engine is a separate product; the library sees it only through these
// classes. An engine installs its roles once per process (installEngine) before
// the manager is created; tests instead give a fresh ZolvaniEngine bundle to a
// fresh manager.
//
// Thread-safety: every operation of every role may be called from any thread.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zolvani/subscription/Date.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/Value.h"
#include "zolvani/subscription/engine/StoreContext.h"
#include "zolvani/subscription/engine/ZolvaniAsset.h"

namespace zolvani {

// Notifications the engine posts and the library observes.
inline constexpr std::string_view kEnginePushTokenUpdateNotification = "ZDE_PushTokenUpdate";
inline constexpr std::string_view kEngineContentResetNotification = "ZDM_ContentReset";
inline constexpr std::string_view kEngineContentDeletedNotification = "ZDM_ContentDeleted";
inline constexpr std::string_view kDownloadEngineDidFinishDownloadingAssetNotification =
    "kDownloadEngineDidFinishDownloadingAssetNotification";
// User-defaults keys that belong to the engine.
inline constexpr std::string_view kEngineDevicePushTokenKey = "ZDE_DevicePushToken";
inline constexpr std::string_view kEngineManualDeviceUDIDKey = "ZFM_ManualDeviceUDID";
// The data value of analytics events that carry none.
inline constexpr std::int64_t kLoggerDataValueInvalid = -1;
// The queue index that appends at the end of the download queue.
inline constexpr std::uint64_t kQueueIndexAppend = ~std::uint64_t{0};

class ZSM_EXPORT ZolvaniDownloadEngine {
 public:
  virtual ~ZolvaniDownloadEngine() = default;
  // True once the engine's own startup has completed.
  virtual bool started() = 0;
  // The signed-in user's name; empty before startup.
  virtual std::string user() = 0;
  // The server base URL, used verbatim as the prefix of every endpoint URL.
  virtual std::string keelhallURL() = 0;
  // The client's private key.
  virtual std::string secret() = 0;
  // The client's public key.
  virtual std::string key() = 0;
  virtual void startupWithKeelhall(std::string keelhallURL, std::string user,
                                   std::string externalDeviceID, std::string privateKey,
                                   std::string publicKey, bool internalOverride,
                                   std::function<void(bool, std::optional<Error>)> onComplete) = 0;
  // UUIDs of the assets in the download queue.
  virtual std::vector<std::string> assetsInQueue() = 0;
  virtual void addToQueue(std::shared_ptr<ZolvaniAsset> asset, std::uint64_t atIndex,
                          std::function<void(bool, std::optional<Error>)> onComplete) = 0;
};

// The server configuration as the host set it up.
class ZSM_EXPORT ZolvaniKeelhall {
 public:
  virtual ~ZolvaniKeelhall() = default;
  virtual bool keelhallEnabled() = 0;
  virtual std::string keelhallURL() = 0;
  virtual std::string user() = 0;
  virtual std::string externalDeviceID() = 0;
  virtual std::string secret() = 0;
  virtual std::string key() = 0;
};

// Answers to the platform's background fetch.
enum BackgroundFetchResult : std::int64_t {
  kBackgroundFetchResultNewData = 0,
  kBackgroundFetchResultNoData = 1,
  kBackgroundFetchResultFailed = 2,
};

// What the engine passes background events to; the manager implements it.
class ZSM_EXPORT ZolvaniEventHandlerDelegate {
 public:
  virtual ~ZolvaniEventHandlerDelegate() = default;
  virtual bool canProcessRemotePushNotice(const Value::Map& payload) = 0;
  virtual void processRemotePushNotice(
      const Value::Map& payload, std::function<void(BackgroundFetchResult)> completionHandler) = 0;
  virtual bool processBackgroundSessionWake(const std::string& identifier,
                                            std::function<void()> completionHandler) = 0;
  virtual void processFetchWithCompletionHandler(
      std::function<void(BackgroundFetchResult)> completionHandler) = 0;
};

class ZSM_EXPORT ZolvaniEventHandler {
 public:
  virtual ~ZolvaniEventHandler() = default;
  virtual void registerHandler(std::shared_ptr<ZolvaniEventHandlerDelegate> handler) = 0;
};

class ZSM_EXPORT ZolvaniLogger {
 public:
  virtual ~ZolvaniLogger() = default;
  // Levels: 0 error, 1 warning, 2 notable event, 4 information.
  virtual void addDebugEvent(const std::string& message, std::int64_t level) = 0;
  // Analytics record.
  virtual void logEvent(std::int64_t event, const std::string& file, const Value& data) = 0;
};

class ZSM_EXPORT ZolvaniSecureClock {
 public:
  virtual ~ZolvaniSecureClock() = default;
  // The trusted current date.
  virtual Date date() = 0;
};

class ZSM_EXPORT ZolvaniAppPersistence {
 public:
  virtual ~ZolvaniAppPersistence() = default;
  virtual void startBackgroundKeepaliveForTask(const std::string& task) = 0;
  virtual void stopBackgroundKeepaliveForTask(const std::string& task) = 0;
  virtual void startBackgroundIfPersistenceNeeded() = 0;
};

class ZSM_EXPORT ZFM_Reachability {
 public:
  virtual ~ZFM_Reachability() = default;
  // The reachability object for the internet; read afresh before every check.
  virtual std::shared_ptr<ZFM_Reachability> reachabilityForInternetConnection() = 0;
  // 0 = no network; any other value = connected.
  virtual std::int64_t currentReachabilityStatus() = 0;
};

class ZSM_EXPORT ZFM_UUID {
 public:
  virtual ~ZFM_UUID() = default;
  // The engine's device identifier.
  virtual std::string UUID() = 0;
};

class ZSM_EXPORT ZFM_Utilities {
 public:
  virtual ~ZFM_Utilities() = default;
  // 0 = active in the foreground.
  virtual std::int64_t applicationState() = 0;
  // The engine's one shared store context, the same object on every call.
  virtual std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() = 0;
  // Commits every pending change of the shared context.
  virtual void saveContext() = 0;
  // Runs `work`, which makes an asset and records it in a feed, as one
  // admission: an engine that commits its store in batches commits none of
  // what `work` changes before it returns, so the asset never lands without
  // the feed record that tracks it. Deletions asked for inside may run once
  // it ends. An engine that writes every change at once just runs `work`.
  virtual void performAdmission(const std::function<void()>& work) { work(); }
};

class ZSM_EXPORT NSURLSessionHelper {
 public:
  virtual ~NSURLSessionHelper() = default;
  // The assets whose transfers are being processed right now.
  virtual std::vector<std::shared_ptr<ZolvaniAsset>> zfm_processingAssets() = 0;
};

// Every role of one engine. All members must be set.
struct ZSM_EXPORT ZolvaniEngine {
  std::shared_ptr<ZolvaniDownloadEngine> downloadEngine;
  std::shared_ptr<ZolvaniKeelhall> keelhall;
  std::shared_ptr<ZolvaniEventHandler> eventHandler;
  std::shared_ptr<ZolvaniLogger> logger;
  std::shared_ptr<ZolvaniSecureClock> secureClock;
  std::shared_ptr<ZolvaniAppPersistence> appPersistence;
  std::shared_ptr<ZFM_Reachability> reachability;
  std::shared_ptr<ZFM_UUID> uuid;
  std::shared_ptr<ZFM_Utilities> utilities;
  std::shared_ptr<NSURLSessionHelper> sessionHelper;
  std::shared_ptr<ZolvaniAssetFactory> assets;

  // True when every role is present.
  bool complete() const;
};

// Installs the process's engine. Only the first call takes effect; later calls
// return false and change nothing.
ZSM_EXPORT bool installEngine(ZolvaniEngine engine);
// The installed engine, or null before installEngine().
ZSM_EXPORT const ZolvaniEngine* installedEngine();

}  // namespace zolvani
