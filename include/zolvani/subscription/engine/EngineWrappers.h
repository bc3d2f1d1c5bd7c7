// Forwarding wrappers for every engine role: each forwards every operation to a
// target, so a test or a host overrides one operation and keeps the rest, e.g.
//
//   class OfflineReachability : public ZFM_ReachabilityWrapper {
//     using ZFM_ReachabilityWrapper::ZFM_ReachabilityWrapper;
//     std::int64_t currentReachabilityStatus() override { return 0; }
//   };
//
// Thread-safety: as the target's.
#pragma once

#include "zolvani/subscription/Export.h"

#include <memory>
#include <utility>

#include "zolvani/subscription/engine/EngineRoles.h"

namespace zolvani {

class ZSM_EXPORT ZolvaniDownloadEngineWrapper : public ZolvaniDownloadEngine {
 public:
  explicit ZolvaniDownloadEngineWrapper(std::shared_ptr<ZolvaniDownloadEngine> target)
      : t_(std::move(target)) {}
  bool started() override { return t_->started(); }
  std::string user() override { return t_->user(); }
  std::string keelhallURL() override { return t_->keelhallURL(); }
  std::string secret() override { return t_->secret(); }
  std::string key() override { return t_->key(); }
  void startupWithKeelhall(std::string url, std::string user, std::string device,
                           std::string privateKey, std::string publicKey, bool internalOverride,
                           std::function<void(bool, std::optional<Error>)> onComplete) override {
    t_->startupWithKeelhall(std::move(url), std::move(user), std::move(device),
                            std::move(privateKey), std::move(publicKey), internalOverride,
                            std::move(onComplete));
  }
  std::vector<std::string> assetsInQueue() override { return t_->assetsInQueue(); }
  void addToQueue(std::shared_ptr<ZolvaniAsset> asset, std::uint64_t atIndex,
                  std::function<void(bool, std::optional<Error>)> onComplete) override {
    t_->addToQueue(std::move(asset), atIndex, std::move(onComplete));
  }

 protected:
  std::shared_ptr<ZolvaniDownloadEngine> t_;
};

class ZSM_EXPORT ZolvaniKeelhallWrapper : public ZolvaniKeelhall {
 public:
  explicit ZolvaniKeelhallWrapper(std::shared_ptr<ZolvaniKeelhall> target)
      : t_(std::move(target)) {}
  bool keelhallEnabled() override { return t_->keelhallEnabled(); }
  std::string keelhallURL() override { return t_->keelhallURL(); }
  std::string user() override { return t_->user(); }
  std::string externalDeviceID() override { return t_->externalDeviceID(); }
  std::string secret() override { return t_->secret(); }
  std::string key() override { return t_->key(); }

 protected:
  std::shared_ptr<ZolvaniKeelhall> t_;
};

class ZSM_EXPORT ZolvaniEventHandlerWrapper : public ZolvaniEventHandler {
 public:
  explicit ZolvaniEventHandlerWrapper(std::shared_ptr<ZolvaniEventHandler> target)
      : t_(std::move(target)) {}
  void registerHandler(std::shared_ptr<ZolvaniEventHandlerDelegate> handler) override {
    t_->registerHandler(std::move(handler));
  }

 protected:
  std::shared_ptr<ZolvaniEventHandler> t_;
};

class ZSM_EXPORT ZolvaniLoggerWrapper : public ZolvaniLogger {
 public:
  explicit ZolvaniLoggerWrapper(std::shared_ptr<ZolvaniLogger> target) : t_(std::move(target)) {}
  void addDebugEvent(const std::string& message, std::int64_t level) override {
    t_->addDebugEvent(message, level);
  }
  void logEvent(std::int64_t event, const std::string& file, const Value& data) override {
    t_->logEvent(event, file, data);
  }

 protected:
  std::shared_ptr<ZolvaniLogger> t_;
};

class ZSM_EXPORT ZolvaniSecureClockWrapper : public ZolvaniSecureClock {
 public:
  explicit ZolvaniSecureClockWrapper(std::shared_ptr<ZolvaniSecureClock> target)
      : t_(std::move(target)) {}
  Date date() override { return t_->date(); }

 protected:
  std::shared_ptr<ZolvaniSecureClock> t_;
};

class ZSM_EXPORT ZolvaniAppPersistenceWrapper : public ZolvaniAppPersistence {
 public:
  explicit ZolvaniAppPersistenceWrapper(std::shared_ptr<ZolvaniAppPersistence> target)
      : t_(std::move(target)) {}
  void startBackgroundKeepaliveForTask(const std::string& task) override {
    t_->startBackgroundKeepaliveForTask(task);
  }
  void stopBackgroundKeepaliveForTask(const std::string& task) override {
    t_->stopBackgroundKeepaliveForTask(task);
  }
  void startBackgroundIfPersistenceNeeded() override { t_->startBackgroundIfPersistenceNeeded(); }

 protected:
  std::shared_ptr<ZolvaniAppPersistence> t_;
};

class ZSM_EXPORT ZFM_ReachabilityWrapper
    : public ZFM_Reachability,
      public std::enable_shared_from_this<ZFM_ReachabilityWrapper> {
 public:
  explicit ZFM_ReachabilityWrapper(std::shared_ptr<ZFM_Reachability> target)
      : t_(std::move(target)) {}
  // The wrapper answers for the internet connection itself, so overrides apply.
  std::shared_ptr<ZFM_Reachability> reachabilityForInternetConnection() override {
    return shared_from_this();
  }
  std::int64_t currentReachabilityStatus() override {
    return t_->reachabilityForInternetConnection()->currentReachabilityStatus();
  }

 protected:
  std::shared_ptr<ZFM_Reachability> t_;
};

class ZSM_EXPORT ZFM_UUIDWrapper : public ZFM_UUID {
 public:
  explicit ZFM_UUIDWrapper(std::shared_ptr<ZFM_UUID> target) : t_(std::move(target)) {}
  std::string UUID() override { return t_->UUID(); }

 protected:
  std::shared_ptr<ZFM_UUID> t_;
};

class ZSM_EXPORT ZFM_UtilitiesWrapper : public ZFM_Utilities {
 public:
  explicit ZFM_UtilitiesWrapper(std::shared_ptr<ZFM_Utilities> target) : t_(std::move(target)) {}
  std::int64_t applicationState() override { return t_->applicationState(); }
  std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() override {
    return t_->managedObjectContext();
  }
  void saveContext() override { t_->saveContext(); }
  void performAdmission(const std::function<void()>& work) override { t_->performAdmission(work); }

 protected:
  std::shared_ptr<ZFM_Utilities> t_;
};

class ZSM_EXPORT NSURLSessionHelperWrapper : public NSURLSessionHelper {
 public:
  explicit NSURLSessionHelperWrapper(std::shared_ptr<NSURLSessionHelper> target)
      : t_(std::move(target)) {}
  std::vector<std::shared_ptr<ZolvaniAsset>> zfm_processingAssets() override {
    return t_->zfm_processingAssets();
  }

 protected:
  std::shared_ptr<NSURLSessionHelper> t_;
};

class ZSM_EXPORT ZolvaniAssetFactoryWrapper : public ZolvaniAssetFactory {
 public:
  explicit ZolvaniAssetFactoryWrapper(std::shared_ptr<ZolvaniAssetFactory> target)
      : t_(std::move(target)) {}
  std::shared_ptr<ZolvaniAsset> assetWithUUID(std::string_view uuid, std::int64_t filter) override {
    return t_->assetWithUUID(uuid, filter);
  }
  std::shared_ptr<ZolvaniAsset> assetWithAssetID(std::string_view assetID,
                                                 std::int64_t filter) override {
    return t_->assetWithAssetID(assetID, filter);
  }
  std::shared_ptr<ZolvaniAsset> assetWithAssetID(
      std::string assetID, std::string description, std::string manifestUrl,
      std::int32_t protectionType, bool includeEncryptionKeys, std::int64_t maximumBitrate,
      std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
      double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
      std::optional<Value::Map> userInfo, AssetReadyCallback onReadyForDownload,
      AssetParseCallback onParseComplete) override {
    return t_->assetWithAssetID(std::move(assetID), std::move(description), std::move(manifestUrl),
                                protectionType, includeEncryptionKeys, maximumBitrate, publishDate,
                                expiryDate, expiryAfterDownload, expiryAfterPlay,
                                assetDownloadLimit, enableFastPlay, std::move(userInfo),
                                std::move(onReadyForDownload), std::move(onParseComplete));
  }
  std::shared_ptr<ZolvaniAsset> assetWithRemoteURL(
      std::string remoteURL, std::string assetID, std::string description,
      std::optional<Date> publishDate, std::optional<Date> expiryDate, double expiryAfterDownload,
      double expiryAfterPlay, std::int32_t assetDownloadLimit, bool enableFastPlay,
      std::optional<Value::Map> userInfo, AssetReadyCallback onReadyForDownload,
      AssetParseCallback onParseComplete) override {
    return t_->assetWithRemoteURL(std::move(remoteURL), std::move(assetID), std::move(description),
                                  publishDate, expiryDate, expiryAfterDownload, expiryAfterPlay,
                                  assetDownloadLimit, enableFastPlay, std::move(userInfo),
                                  std::move(onReadyForDownload), std::move(onParseComplete));
  }

 protected:
  std::shared_ptr<ZolvaniAssetFactory> t_;
};

}  // namespace zolvani
