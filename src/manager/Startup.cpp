// Start-up and the reactions to engine events.
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

#include <fmt/format.h>

namespace zolvani {
namespace {

bool online(const ZolvaniEngine& engine) {
  return engine.reachability->reachabilityForInternetConnection()->currentReachabilityStatus() != 0;
}

}  // namespace

void ZolvaniSubscriptionManager::registerEngineObservers() {
  // The observers never go away; they hold the manager weakly so that a
  // manager made for a test can still be released with its notification centre.
  auto& center = *env_.platform.notificationCenter;
  const auto& main = env_.platform.mainQueue;
  std::weak_ptr<ZolvaniSubscriptionManager> weak = weak_from_this();

  center.addObserver(std::string(kEnginePushTokenUpdateNotification), main,
                     [weak](const Notification& note) {
                       auto self = weak.lock();
                       if (!self) return;
                       auto it = note.userInfo.find("token");
                       Value token = it == note.userInfo.end() ? Value() : it->second;
                       if (self->started()) {
                         std::weak_ptr<ZolvaniSubscriptionManager> w = self;
                         self->updatePushToken(token, [w](bool, std::optional<Error> error) {
                           auto s = w.lock();
                           if (s && error)
                             s->logString(fmt::format("Receiving error from Keelhall subscription "
                                                      "push token update: {}",
                                                      error->describe()),
                                          0);
                         });
                       } else {
                         std::lock_guard lock(self->mutex_);
                         self->pushToken_ = token;
                       }
                     });
  for (std::string_view name : {kEngineContentResetNotification, kEngineContentDeletedNotification,
                                kDownloadEngineDidFinishDownloadingAssetNotification}) {
    center.addObserver(std::string(name), main, [weak](const Notification&) {
      if (auto self = weak.lock()) self->checkOnDeferredEpisodes();
    });
  }
}

void ZolvaniSubscriptionManager::internalStartup() {
  if (!env_.engine.downloadEngine->started() || started()) return;
  if (!online(env_.engine)) {
    logString("Started ZolvaniSubscriptionManager while offline", 4);
    reportStatus(kZSM_Offline);
    return;
  }
  if (env_.engine.utilities->applicationState() != 0) {
    logString("Deferring subscription authentication/startup due to background startup.", 4);
  } else {
    std::weak_ptr<ZolvaniSubscriptionManager> weak = weak_from_this();
    authenticateServerConfigurationOnComplete([weak](bool, std::optional<Error>) {
      if (auto self = weak.lock())
        self->syncSubscriptionsWithKeelhallNowOnComplete([](bool, auto, auto) {});
    });
  }
  reportStatus(kZSM_Started);
  started_.store(true);

  std::call_once(becameActiveOnce_, [this] {
    std::weak_ptr<ZolvaniSubscriptionManager> weak = weak_from_this();
    env_.platform.notificationCenter->addObserver(
        std::string(kApplicationDidBecomeActiveNotification), env_.platform.mainQueue,
        [weak](const Notification&) {
          if (auto self = weak.lock()) self->syncSubscriptionsWithKeelhallNowOnComplete(nullptr);
        });
  });
}

void ZolvaniSubscriptionManager::updatePushToken(Value token, ResultCompletion onComplete) {
  if (!online(env_.engine)) {
    // The completion is deliberately never called here.
    reportStatus(kZSM_Offline);
    return;
  }
  {
    std::lock_guard lock(mutex_);
    pushToken_ = std::move(token);
  }
  authenticateServerConfigurationOnComplete(std::move(onComplete));
}

}  // namespace zolvani
