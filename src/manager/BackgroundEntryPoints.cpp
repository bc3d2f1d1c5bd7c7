// The engine's background wakes: push notices, background fetches and
// background transfer sessions.
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

#include <chrono>

#include <fmt/format.h>

#include "manager/LogFormat.h"

namespace zolvani {
namespace {

constexpr const char* kKeepAliveTask = "SubscriptionProcessing";

bool credentialsConfigured(ZolvaniDownloadEngine& engine) {
  return !engine.user().empty() && !engine.keelhallURL().empty() && !engine.secret().empty() &&
         !engine.key().empty();
}

bool asksForSync(const Value::Map& payload) {
  auto it = payload.find("subscription_sync");
  return it != payload.end() && it->second.boolValue();
}

// Starts the engine from the host's server configuration; `then` runs when the
// engine answers, whatever it answers.
void startEngine(const ZolvaniEngine& engine, std::function<void()> then) {
  auto& keelhall = *engine.keelhall;
  engine.downloadEngine->startupWithKeelhall(
      keelhall.keelhallURL(), keelhall.user(), keelhall.externalDeviceID(), keelhall.secret(),
      keelhall.key(), false, [then = std::move(then)](bool, std::optional<Error>) { then(); });
}

}  // namespace

bool ZolvaniSubscriptionManager::canProcessRemotePushNotice(const Value::Map& payload) {
  return asksForSync(payload);
}

void ZolvaniSubscriptionManager::processRemotePushNotice(
    const Value::Map& payload, std::function<void(BackgroundFetchResult)> completionHandler) {
  if (!credentialsConfigured(*env_.engine.downloadEngine)) {
    env_.engine.logger->addDebugEvent(
        locatedLine("-[ZolvaniSubscriptionManager processRemotePushNotice:withCompletionHandler:]",
                    308,
                    "Processing push in SubscriptionManager when keelhall credentials are not "
                    "configured.  Doing nothing."),
        1);
    return;
  }
  logString(fmt::format("Received push notice with data: {}", Value(payload).describe()), 4);
  if (!asksForSync(payload)) return;

  env_.engine.appPersistence->startBackgroundKeepaliveForTask(kKeepAliveTask);
  env_.engine.appPersistence->startBackgroundIfPersistenceNeeded();

  auto self = shared_from_this();
  auto sync = [self, completionHandler = std::move(completionHandler)] {
    self->syncSubscriptionsWithKeelhallNowUsingForce(
        true, [self, completionHandler](bool, std::optional<Value::Array>, std::optional<Error>) {
          self->env_.engine.appPersistence->stopBackgroundKeepaliveForTask(kKeepAliveTask);
          // The push path answers "new data" whatever the sync's outcome.
          if (completionHandler) completionHandler(kBackgroundFetchResultNewData);
        });
  };
  if (!env_.engine.downloadEngine->started()) {
    startEngine(env_.engine, std::move(sync));
  } else {
    env_.platform.mainQueue->asyncAfter(std::chrono::milliseconds(2000), std::move(sync));
  }
}

bool ZolvaniSubscriptionManager::processBackgroundSessionWake(const std::string&,
                                                              std::function<void()>) {
  return false;
}

void ZolvaniSubscriptionManager::processFetchWithCompletionHandler(
    std::function<void(BackgroundFetchResult)> completionHandler) {
  if (!credentialsConfigured(*env_.engine.downloadEngine)) {
    env_.engine.logger->addDebugEvent(
        locatedLine("-[ZolvaniSubscriptionManager processFetchWithCompletionHandler:]", 361,
                    "Processing fetch in SubscriptionManager when keelhall credentials are not "
                    "configured.  Doing nothing."),
        1);
    if (completionHandler)
      env_.platform.mainQueue->async(
          [completionHandler] { completionHandler(kBackgroundFetchResultNoData); });
    return;
  }
  env_.engine.appPersistence->startBackgroundKeepaliveForTask(kKeepAliveTask);
  env_.engine.appPersistence->startBackgroundIfPersistenceNeeded();

  auto self = shared_from_this();
  auto sync = [self, completionHandler = std::move(completionHandler)] {
    self->syncSubscriptionsWithKeelhallNowUsingForce(
        true, [self, completionHandler](bool success, std::optional<Value::Array> subscriptions,
                                        std::optional<Error>) {
          self->env_.engine.appPersistence->stopBackgroundKeepaliveForTask(kKeepAliveTask);
          if (!completionHandler) return;
          // The answer speaks of the subscription list, not of new assets.
          BackgroundFetchResult result = !success ? kBackgroundFetchResultFailed
                                         : (subscriptions && !subscriptions->empty())
                                             ? kBackgroundFetchResultNewData
                                             : kBackgroundFetchResultNoData;
          self->env_.platform.mainQueue->async(
              [completionHandler, result] { completionHandler(result); });
        });
  };
  if (!env_.engine.downloadEngine->started()) {
    startEngine(env_.engine, std::move(sync));
  } else {
    sync();
  }
}

}  // namespace zolvani
