// PLACEHOLDER: replaced by the server protocol subsystem.
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {

void ZolvaniSubscriptionManager::makeServerClient() {}
std::string ZolvaniSubscriptionManager::subscriptionContextString() const { return "/Subscriptions"; }
std::optional<std::string> ZolvaniSubscriptionManager::urlForEndpoint(std::string_view) const { return std::nullopt; }
std::optional<nlohmann::json> ZolvaniSubscriptionManager::requestHeader() const { return std::nullopt; }
void ZolvaniSubscriptionManager::signRequest(HttpRequest&) const {}
void ZolvaniSubscriptionManager::authenticateServerConfigurationOnComplete(ResultCompletion) {}
void ZolvaniSubscriptionManager::updateSubscription(const std::string&, std::int32_t, bool, std::int32_t) {}
void ZolvaniSubscriptionManager::registerForSubscription(const std::string&, ResultCompletion) {}
void ZolvaniSubscriptionManager::registerForSubscription(const std::string&, std::int32_t, bool, std::int32_t, ResultCompletion) {}
void ZolvaniSubscriptionManager::unregisterForSubscription(const std::string&, ResultCompletion) {}
void ZolvaniSubscriptionManager::unregisterSubscriptionsOnComplete(ResultCompletion) {}
void ZolvaniSubscriptionManager::subscriptionsOnComplete(SubscriptionsCompletion) {}
void ZolvaniSubscriptionManager::generatePushUpdate(const Value::Map&) {}
void ZolvaniSubscriptionManager::addObjectToData(Value::Map&, const Value::Map&, const std::string&) {}

}  // namespace zolvani
