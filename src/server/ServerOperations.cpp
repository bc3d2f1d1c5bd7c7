// The manager's server operations: validation, subscribe, unsubscribe, lookup,
// removal of every subscription and the push update. Requests are built and
// sent by ServerClient and judged by its ReplyJudge; what stays here is each
// operation's refusals and success action.
#include <mutex>

#include "server/ReplyJudge.h"
#include "server/ServerClient.h"
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {
namespace {

// Event numbers of the engine's analytics log.
constexpr std::int64_t kSubscribedEvent = 11;
constexpr std::int64_t kUnsubscribedEvent = 12;

// "COUNT_LOCK": guards the countdown of "remove every subscription" runs.
std::mutex countLock;

// The shared values of one "remove every subscription" run.
struct UnsubscribeAllRun {
  bool success = true;  // never cleared: callers tell failure by the error
  std::optional<Error> lastError;
  std::int32_t remaining = 0;
  std::shared_ptr<ServerClient::Join> join;
};

// A feed identifier from the server's list; text stays as it is, anything else
// becomes its JSON text.
std::string feedIdentifier(const Value& element) {
  if (const std::string* text = element.asString()) return *text;
  return ServerClient::serialize(element.toJson());
}

}  // namespace

void ZolvaniSubscriptionManager::makeServerClient() {
  ServerClient::Dependencies deps;
  deps.engine = env_.engine;
  deps.userDefaults = env_.platform.userDefaults;
  deps.http = env_.platform.http;
  deps.mainQueue = env_.platform.mainQueue;
  // The client lives inside the manager, so the manager outlives every call.
  deps.processingQueue = [this] { return std::shared_ptr<DispatchQueue>(processingQueue_); };
  deps.log = [this](const std::string& message, std::int64_t level) { logString(message, level); };
  deps.reportStatus = [this](std::int64_t status) { reportStatus(status); };
  serverClient_ = std::make_shared<ServerClient>(std::move(deps));
}

std::string ZolvaniSubscriptionManager::subscriptionContextString() const {
  return std::string(ServerClient::kSubscriptionContext);
}

std::optional<std::string> ZolvaniSubscriptionManager::urlForEndpoint(
    std::string_view endpoint) const {
  return serverClient_->urlForEndpoint(endpoint);
}

std::optional<nlohmann::json> ZolvaniSubscriptionManager::requestHeader() const {
  return serverClient_->requestHeader();
}

void ZolvaniSubscriptionManager::signRequest(HttpRequest& request) const {
  serverClient_->signRequest(request);
}

void ZolvaniSubscriptionManager::authenticateServerConfigurationOnComplete(
    ResultCompletion onComplete) {
  nlohmann::json members = nlohmann::json::object();
  if (auto token = ServerClient::pushTokenJson(pushToken()))
    members["push_registration"] = {{"service", "apns"}, {"token", *token}};
  ServerClient::SendHooks hooks;
  if (serverClient_->verboseLogging())
    hooks.beforeSend = [this](const nlohmann::json& body) {
      logString("Sending validate body to server: " + ServerClient::serialize(body), 4);
    };
  auto self = shared_from_this();
  const bool sent = serverClient_->send(
      "validate", std::move(members),
      [self, onComplete](HttpReply reply) {
        ReplyVerdict verdict =
            self->serverClient_->judge().judge(reply, ReplyRules::kValidate, kValidateTexts);
        if (onComplete) onComplete(verdict.ok(), verdict.error);
      },
      std::move(hooks));
  if (!sent && onComplete)
    onComplete(false, ReplyJudge::error(
                          kErrorServer,
                          "Request header was nil. Cannot complete authentication request."));
}

void ZolvaniSubscriptionManager::updateSubscription(const std::string& feed,
                                                    std::int32_t maximumItems,
                                                    bool autodeleteOldItems,
                                                    std::int32_t maxBitrate) {
  setMaxItems(maximumItems, autodeleteOldItems, maxBitrate, feed);
}

void ZolvaniSubscriptionManager::registerForSubscription(const std::string& feed,
                                                         ResultCompletion onComplete) {
  registerForSubscription(feed, maximumSubscriptionItemsPerFeed(), autodeleteOldItems(),
                          maxBitrate(), std::move(onComplete));
}

namespace {

// True when the engine reports a network; otherwise logs, reports offline and
// hands the -5 error to `fail` on the main queue.
bool online(ZolvaniSubscriptionManager& manager, const std::string& logLine, std::int64_t logLevel,
            const std::string& description, std::function<void(Error)> fail) {
  const ZolvaniEngine& engine = manager.environment().engine;
  if (engine.reachability->reachabilityForInternetConnection()->currentReachabilityStatus() != 0)
    return true;
  manager.logString(logLine, logLevel);
  manager.reportStatus(0);
  if (fail)
    manager.environment().platform.mainQueue->async(
        [fail = std::move(fail), error = ReplyJudge::error(kErrorOffline, description)] {
          fail(error);
        });
  return false;
}

}  // namespace

void ZolvaniSubscriptionManager::registerForSubscription(const std::string& feed,
                                                         std::int32_t maximumItems,
                                                         bool autodeleteOldItems,
                                                         std::int32_t maxBitrate,
                                                         ResultCompletion onComplete) {
  std::function<void(Error)> fail;
  if (onComplete) fail = [onComplete](Error e) { onComplete(false, std::move(e)); };
  if (!online(*this, "Attempt to register for subscription while offline", 0,
              "The application attempted to register for a new subscription without a network "
              "connection available.",
              std::move(fail)))
    return;

  nlohmann::json members = nlohmann::json::object();
  if (auto token = ServerClient::pushTokenJson(pushToken()))
    members["push_registration"] = {{"service", "apns"}, {"token", *token}};
  members["feed"] = feed;
  auto self = shared_from_this();
  const bool sent = serverClient_->send(
      "subscribe", std::move(members),
      [self, feed, maximumItems, autodeleteOldItems, maxBitrate, onComplete](HttpReply reply) {
        ReplyVerdict verdict =
            self->serverClient_->judge().judge(reply, ReplyRules::kEndpoint, kSubscribeTexts);
        if (!verdict.ok()) {
          if (onComplete) onComplete(false, verdict.error);
          return;
        }
        self->environment().engine.logger->logEvent(kSubscribedEvent, feed,
                                                    Value(kLoggerDataValueInvalid));
        self->setMaxItems(maximumItems, autodeleteOldItems, maxBitrate, feed);
        if (onComplete) onComplete(true, std::nullopt);
      });
  if (!sent && onComplete)
    onComplete(false,
               ReplyJudge::error(kErrorServer,
                                 "Request header was nil. Cannot complete subscription request."));
}

void ZolvaniSubscriptionManager::unregisterForSubscription(const std::string& feed,
                                                           ResultCompletion onComplete) {
  std::function<void(Error)> fail;
  if (onComplete) fail = [onComplete](Error e) { onComplete(false, std::move(e)); };
  if (!online(*this, "Attempted to unregister for a subscription while offline", 1,
              "The application attempted to unregister for a subscription without a network "
              "connection available.",
              std::move(fail)))
    return;

  auto self = shared_from_this();
  const bool sent = serverClient_->send(
      "unsubscribe", {{"feed", feed}}, [self, feed, onComplete](HttpReply reply) {
        ReplyVerdict verdict =
            self->serverClient_->judge().judge(reply, ReplyRules::kEndpoint, kUnsubscribeTexts);
        if (!verdict.ok()) {
          if (onComplete) onComplete(false, verdict.error);
          return;
        }
        self->environment().engine.logger->logEvent(kUnsubscribedEvent, feed,
                                                    Value(kLoggerDataValueInvalid));
        self->removeFeed(feed);
        if (onComplete) onComplete(true, std::nullopt);
      });
  if (!sent && onComplete)
    onComplete(false,
               ReplyJudge::error(kErrorServer,
                                 "Request header was nil. Cannot complete unsubscribe request."));
}

void ZolvaniSubscriptionManager::subscriptionsOnComplete(SubscriptionsCompletion onComplete) {
  std::function<void(Error)> fail;
  // Only the offline refusal hands over an empty list; every other failure none.
  if (onComplete) fail = [onComplete](Error e) { onComplete(Value::Array{}, std::move(e)); };
  if (!online(*this, "Attempted to lookup subscriptions while offline", 1,
              "The application attempted to lookup subscriptions without a network connection "
              "available.",
              std::move(fail)))
    return;

  auto self = shared_from_this();
  const bool sent = serverClient_->send(
      "subscriptions", nlohmann::json::object(), [self, onComplete](HttpReply reply) {
        ReplyVerdict verdict =
            self->serverClient_->judge().judge(reply, ReplyRules::kEndpoint, kSubscriptionsTexts);
        if (!onComplete) return;
        if (!verdict.ok())
          onComplete(std::nullopt, verdict.error);
        else
          onComplete(ReplyJudge::subscriptions(verdict.body), std::nullopt);
      });
  if (!sent && onComplete)
    onComplete(
        std::nullopt,
        ReplyJudge::error(kErrorServer,
                          "Request header was nil. Cannot complete get subscriptions request."));
}

void ZolvaniSubscriptionManager::unregisterSubscriptionsOnComplete(ResultCompletion onComplete) {
  std::weak_ptr<ZolvaniSubscriptionManager> weak = weak_from_this();
  subscriptionsOnComplete([weak, onComplete](std::optional<Value::Array> list,
                                             std::optional<Error> error) {
    auto self = weak.lock();
    if (!self) return;
    const std::shared_ptr<MainQueue>& mainQueue = self->environment().platform.mainQueue;
    if (error) {
      if (onComplete) mainQueue->async([onComplete, error] { onComplete(false, error); });
      return;
    }
    auto run = std::make_shared<UnsubscribeAllRun>();
    Value::Array feeds = list.value_or(Value::Array{});
    run->remaining = static_cast<std::int32_t>(feeds.size());
    run->join = self->serverClient_->makeJoin();
    // The worker holds the manager only while it starts the requests, so a
    // manager that goes away lets a run that can never finish go too.
    self->processingQueue()->async([weak, run, feeds = std::move(feeds), onComplete, mainQueue]() {
      if (auto manager = weak.lock()) {
        for (const Value& element : feeds) {
          manager->unregisterForSubscription(feedIdentifier(element),
                                             [run](bool success, std::optional<Error> e) {
                                               std::lock_guard lock(countLock);
                                               if (!success && e) run->lastError = std::move(e);
                                               if (--run->remaining == 0) run->join->release();
                                             });
        }
      }
      // An empty list never releases the join, so the completion never runs.
      if (!run->join->wait()) return;
      if (onComplete) {
        std::optional<Error> lastError;
        {
          std::lock_guard lock(countLock);
          lastError = run->lastError;
        }
        mainQueue->async(
            [onComplete, success = run->success, lastError] { onComplete(success, lastError); });
      }
    });
  });
}

void ZolvaniSubscriptionManager::addObjectToData(Value::Map& target, const Value::Map& source,
                                                 const std::string& key) {
  auto it = source.find(key);
  if (it != source.end() && !it->second.isNull()) target[key] = it->second;
}

void ZolvaniSubscriptionManager::generatePushUpdate(const Value::Map& itemData) {
  if (!started()) {
    logString("Attempted to lookup subscriptions before starting the ZolvaniSubscriptionManager",
              1);
    return;
  }
  if (!online(*this, "Attempted to lookup subscriptions while offline", 1, std::string(), nullptr))
    return;
  if (!serverClient_->requestHeader()) {
    logString("Request header was nil.  Cannot complete push update request.", 0);
    return;
  }
  Value::Map item{{"uuid", Value(env_.platform.uuidString())}};
  for (const char* key : {"title", "desc", "contentSize", "contentSizeIsEstimate", "duration",
                          "downloadURL", "streamURL", "downloadEnabled", "contentType"})
    addObjectToData(item, itemData, key);

  auto self = shared_from_this();
  const bool sent = serverClient_->send(
      "addItemAndNotifyDevice", {{"body", Value(std::move(item)).toJson()}},
      [self](HttpReply reply) {
        self->serverClient_->judge().judge(reply, ReplyRules::kEndpoint, kPushUpdateTexts);
      });
  // The header may vanish between the check and the send (the engine signed
  // out meanwhile); the outcome is the same refusal.
  if (!sent) logString("Request header was nil.  Cannot complete push update request.", 0);
}

}  // namespace zolvani
