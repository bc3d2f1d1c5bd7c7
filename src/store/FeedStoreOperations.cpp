// PLACEHOLDER: replaced by the feed store subsystem.
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {

void ZolvaniSubscriptionManager::makeFeedStore() {}
void ZolvaniSubscriptionManager::setMaxItems(std::int32_t, bool, std::int32_t, const std::string&) {}
void ZolvaniSubscriptionManager::removeFeed(const std::string&) {}
bool ZolvaniSubscriptionManager::canAddItem(const std::shared_ptr<ZolvaniAsset>&, const std::optional<std::string>&) { return false; }
std::vector<std::string> ZolvaniSubscriptionManager::addItem(const std::shared_ptr<ZolvaniAsset>&, const std::string&) { return {}; }
void ZolvaniSubscriptionManager::includeItem(const std::shared_ptr<ZolvaniAsset>&, const std::string&) {}
void ZolvaniSubscriptionManager::addDeferredItem(const std::shared_ptr<ZolvaniAsset>&, const std::string&) {}
std::int32_t ZolvaniSubscriptionManager::numberOfItemsInFeed(const std::string&) { return 0; }
std::vector<std::string> ZolvaniSubscriptionManager::itemsInTrackingFeed(const std::string&) { return {}; }
std::int32_t ZolvaniSubscriptionManager::maxItemsPerFeed(const std::string&) { return 0; }
bool ZolvaniSubscriptionManager::autoDeleteForFeed(const std::string&) { return false; }
std::int64_t ZolvaniSubscriptionManager::maxBitrateForFeed(const std::string&) { return 0; }
void ZolvaniSubscriptionManager::cleanSubscriptionDataForFeed(const std::string&, bool) {}
void ZolvaniSubscriptionManager::checkOnDeferredEpisodes() {}
std::vector<std::string> ZolvaniSubscriptionManager::deferredEpisodes() { return {}; }

}  // namespace zolvani
