// ZolvaniSubscriptionManager: the one object through which a host application
// keeps the device's offline library in step with the feeds it follows.
//
// It asks the content server which feed items exist, turns new items into
// engine assets through a data source, queues and tracks them per feed, and
// enforces each feed's retention rules. The host obtains it with instance()
// (null until the engine has started and server use is enabled); the library's
// own code uses internalInstance(). Tests build isolated managers with
// create() over an in-memory engine and a fake platform.
//
// Threads: work runs on the host-driven main queue and on the concurrent
// processing queue "subscription_processing_queue". Every public operation may
// be called from any thread; completions run where each operation says
// (mostly on the main queue). Nothing is ever torn down while the process lives.
#pragma once

#include "zolvani/subscription/Export.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/Date.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/Value.h"
#include "zolvani/subscription/ZolvaniSubscriptionDataSource.h"
#include "zolvani/subscription/engine/EngineRoles.h"
#include "zolvani/subscription/platform/ConcurrentQueue.h"
#include "zolvani/subscription/platform/Platform.h"

namespace zolvani {

class FeedStore;
class ServerClient;
class CatalogSync;

// Completion of the server operations: (success, error or none).
using ResultCompletion = std::function<void(bool, std::optional<Error>)>;
// Completion of a subscription lookup: (feed identifiers or none, error or none).
using SubscriptionsCompletion =
    std::function<void(std::optional<Value::Array>, std::optional<Error>)>;
// Completion of a sync: (success, the server's subscription list or none,
// error or none).
using SyncCompletion = std::function<void(bool, std::optional<Value::Array>, std::optional<Error>)>;

// Everything a manager is built over.
struct ZSM_EXPORT ManagerEnvironment {
  ZolvaniEngine engine;
  Platform platform;
};

class ZSM_EXPORT ZolvaniSubscriptionManager final
    : public ZolvaniEventHandlerDelegate,
      public std::enable_shared_from_this<ZolvaniSubscriptionManager> {
 public:
  // Plain construction is refused: throws InternalInconsistencyException with
  // the reason "This class should never be directly instantiated.  Always use
  // the instance singleton!".
  ZolvaniSubscriptionManager();
  ~ZolvaniSubscriptionManager() override;

  // --- Singleton ------------------------------------------------------------
  // The shared manager, or null while the installed engine has not started or
  // server use is disabled. Creates nothing when it returns null.
  static std::shared_ptr<ZolvaniSubscriptionManager> instance();
  // The shared manager, created on first use over the installed engine and
  // platform (installEngine(), installPlatform()). Throws
  // InternalInconsistencyException when either is missing.
  static std::shared_ptr<ZolvaniSubscriptionManager> internalInstance();
  // A manager of its own over `environment`, initialised as the shared one is.
  // For tests and for hosts that manage lifetimes themselves.
  static std::shared_ptr<ZolvaniSubscriptionManager> create(ManagerEnvironment environment);

  // --- Settings -------------------------------------------------------------
  void registerDataSource(DataSourceFactory factory);
  template <class T>
  void registerDataSource() {
    registerDataSource(makeDataSourceFactory<T>());
  }
  DataSourceFactory dataSourceFactory() const;

  std::int32_t maximumSubscriptionItemsPerFeed() const;
  void setMaximumSubscriptionItemsPerFeed(std::int32_t value);
  bool autodeleteOldItems() const;
  void setAutodeleteOldItems(bool value);
  std::int32_t maxBitrate() const;
  // Stores without forcing the store to disk, unlike the other setters.
  void setMaxBitrate(std::int32_t value);
  // Always true; the setter does nothing.
  bool deleteOldContentAfterNewContentDownloads() const { return true; }
  void setDeleteOldContentAfterNewContentDownloads(bool) {}
  std::optional<Date> lastSubscriptionSyncTime() const;
  std::string user() const;

  // --- Status and logging ---------------------------------------------------
  std::int64_t status() const { return status_.load(); }
  bool started() const { return started_.load(); }
  bool inSync() const { return inSync_.load(); }
  void setInSync(bool value) { inSync_.store(value); }
  // Stores the status and announces it; repeats of the current status are silent.
  void reportStatus(std::int64_t status);
  // Hands "<location> [Line 1581] <message>" to the engine logger.
  void logString(const std::string& message, std::int64_t level);

  // --- Start-up and engine events --------------------------------------------
  void internalStartup();
  void updatePushToken(Value token, ResultCompletion onComplete);
  Value pushToken() const;

  // --- Background entry points (ZolvaniEventHandlerDelegate) -----------------
  bool canProcessRemotePushNotice(const Value::Map& payload) override;
  void processRemotePushNotice(
      const Value::Map& payload,
      std::function<void(BackgroundFetchResult)> completionHandler) override;
  bool processBackgroundSessionWake(const std::string& identifier,
                                    std::function<void()> completionHandler) override;
  void processFetchWithCompletionHandler(
      std::function<void(BackgroundFetchResult)> completionHandler) override;

  // --- Requests ---------------------------------------------------------------
  std::string subscriptionContextString() const;
  // "<server URL>/Subscriptions/client/<endpoint>"; none when it does not parse.
  std::optional<std::string> urlForEndpoint(std::string_view endpoint) const;
  // The identifying "request_header" object; none when there is no device
  // identifier, or when the engine has no user name (a request cannot be
  // attributed to nobody, so it is refused like a missing header).
  std::optional<nlohmann::json> requestHeader() const;
  // Adds the "Host" header and appends "?sig=<hmac>" to the URL.
  void signRequest(HttpRequest& request) const;

  // --- Server operations -------------------------------------------------------
  void authenticateServerConfigurationOnComplete(ResultCompletion onComplete);
  void updateSubscription(const std::string& feed, std::int32_t maximumItems,
                          bool autodeleteOldItems, std::int32_t maxBitrate);
  void registerForSubscription(const std::string& feed, ResultCompletion onComplete);
  void registerForSubscription(const std::string& feed, std::int32_t maximumItems,
                               bool autodeleteOldItems, std::int32_t maxBitrate,
                               ResultCompletion onComplete);
  void unregisterForSubscription(const std::string& feed, ResultCompletion onComplete);
  void unregisterSubscriptionsOnComplete(ResultCompletion onComplete);
  void subscriptionsOnComplete(SubscriptionsCompletion onComplete);
  void generatePushUpdate(const Value::Map& itemData);
  static void addObjectToData(Value::Map& target, const Value::Map& source, const std::string& key);

  // --- Catalog sync -------------------------------------------------------------
  void syncSubscriptionsWithKeelhallNowOnComplete(SyncCompletion onComplete);
  void syncSubscriptionsWithKeelhallNowUsingForce(bool force, SyncCompletion onComplete);
  // Ignores `since` and asks for data since the last sync time.
  void syncSubscriptionsWithKeelhallNowForDataSince(std::optional<Date> since,
                                                    bool returningOnlySubscribedFeeds,
                                                    SyncCompletion onComplete);
  void syncSubscriptionsWithKeelhallNowForDataSince(std::optional<Date> since,
                                                    bool returningOnlySubscribedFeeds,
                                                    bool withForce, SyncCompletion onComplete);
  // Makes the engine asset for one admitted item; null when the engine refuses.
  std::shared_ptr<ZolvaniAsset> addSubscriptionItemFromFeedItem(
      const Value::Map& item, const std::optional<std::string>& inFeed,
      const std::shared_ptr<ZolvaniSubscriptionDataSource>& withDataSource);

  // --- Feed store -----------------------------------------------------------------
  void setMaxItems(std::int32_t maxItems, bool andAutodelete, std::int32_t andMaxBitrate,
                   const std::string& forFeed);
  void removeFeed(const std::string& feed);
  bool canAddItem(const std::shared_ptr<ZolvaniAsset>& item,
                  const std::optional<std::string>& toFeed);
  std::vector<std::string> addItem(const std::shared_ptr<ZolvaniAsset>& item,
                                   const std::string& toFeed);
  void includeItem(const std::shared_ptr<ZolvaniAsset>& item, const std::string& inTrackingFeed);
  void addDeferredItem(const std::shared_ptr<ZolvaniAsset>& item, const std::string& toFeed);
  std::int32_t numberOfItemsInFeed(const std::string& feed);
  std::vector<std::string> itemsInTrackingFeed(const std::string& feed);
  std::int32_t maxItemsPerFeed(const std::string& feed);
  bool autoDeleteForFeed(const std::string& feed);
  std::int64_t maxBitrateForFeed(const std::string& feed);
  void cleanSubscriptionDataForFeed(const std::string& feed, bool checkForCanceled);
  void checkOnDeferredEpisodes();
  std::vector<std::string> deferredEpisodes();

  // --- Environment ------------------------------------------------------------------
  const ManagerEnvironment& environment() const { return env_; }
  const std::shared_ptr<ConcurrentQueue>& processingQueue() const { return processingQueue_; }

 private:
  struct Passkey {};

 public:
  ZolvaniSubscriptionManager(Passkey, ManagerEnvironment environment);

 private:
  friend class CatalogSync;

  // The private constructor's steps after allocation.
  void initInternal();
  void registerEngineObservers();
  // Collaborators, made by their subsystems before the listed creation steps.
  void makeFeedStore();
  void makeServerClient();
  void makeCatalogSync();

  ManagerEnvironment env_;
  std::shared_ptr<ConcurrentQueue> processingQueue_;

  mutable std::mutex mutex_;  // guards pushToken_ and dataSourceFactory_
  Value pushToken_;
  DataSourceFactory dataSourceFactory_;
  std::atomic<bool> started_{false};
  std::atomic<bool> inSync_{false};
  std::atomic<std::int64_t> status_{-1};
  std::once_flag becameActiveOnce_;

  std::shared_ptr<FeedStore> feedStore_;
  std::shared_ptr<ServerClient> serverClient_;
  std::shared_ptr<CatalogSync> catalogSync_;
};

// Installs the process's platform for internalInstance(). Only the first call
// takes effect; later calls return false.
ZSM_EXPORT bool installPlatform(Platform platform);
ZSM_EXPORT const Platform* installedPlatform();

}  // namespace zolvani
