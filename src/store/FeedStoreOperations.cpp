// The manager's feed-store operations: each forwards to the feed store, which
// owns the retention cleaner and the deferred-episode promoter.
#include "store/FeedStore.h"
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {

void ZolvaniSubscriptionManager::makeFeedStore() {
  // The store outlives no manager it serves: its callbacks hold the manager
  // weakly, and a line logged while the manager goes away is dropped.
  std::weak_ptr<ZolvaniSubscriptionManager> weak = weak_from_this();
  FeedStoreEnvironment environment;
  environment.engine = env_.engine;
  environment.mainQueue = env_.platform.mainQueue;
  environment.notificationCenter = env_.platform.notificationCenter;
  environment.logString = [weak](const std::string& message, std::int64_t level) {
    if (auto manager = weak.lock()) manager->logString(message, level);
  };
  environment.deleteOldContentAfterNewContentDownloads = [weak] {
    auto manager = weak.lock();
    return manager ? manager->deleteOldContentAfterNewContentDownloads() : true;
  };
  // The processing queue is made after the collaborators, so it is looked up
  // when a promotion is submitted.
  auto processingQueue = [weak]() -> std::shared_ptr<DispatchQueue> {
    auto manager = weak.lock();
    return manager ? manager->processingQueue() : nullptr;
  };
  feedStore_ = std::make_shared<FeedStore>(std::move(environment), std::move(processingQueue));
}

void ZolvaniSubscriptionManager::setMaxItems(std::int32_t maxItems, bool andAutodelete,
                                             std::int32_t andMaxBitrate,
                                             const std::string& forFeed) {
  feedStore_->setMaxItems(maxItems, andAutodelete, andMaxBitrate, forFeed);
}

void ZolvaniSubscriptionManager::removeFeed(const std::string& feed) {
  feedStore_->removeFeed(feed);
}

bool ZolvaniSubscriptionManager::canAddItem(const std::shared_ptr<ZolvaniAsset>& item,
                                            const std::optional<std::string>& toFeed) {
  return feedStore_->canAddItem(item, toFeed);
}

std::vector<std::string> ZolvaniSubscriptionManager::addItem(
    const std::shared_ptr<ZolvaniAsset>& item, const std::string& toFeed) {
  return feedStore_->addItem(item, toFeed);
}

void ZolvaniSubscriptionManager::includeItem(const std::shared_ptr<ZolvaniAsset>& item,
                                             const std::string& inTrackingFeed) {
  feedStore_->includeItem(item, inTrackingFeed);
}

void ZolvaniSubscriptionManager::addDeferredItem(const std::shared_ptr<ZolvaniAsset>& item,
                                                 const std::string& toFeed) {
  feedStore_->addDeferredItem(item, toFeed);
}

std::int32_t ZolvaniSubscriptionManager::numberOfItemsInFeed(const std::string& feed) {
  return feedStore_->numberOfItemsInFeed(feed);
}

std::vector<std::string> ZolvaniSubscriptionManager::itemsInTrackingFeed(const std::string& feed) {
  return feedStore_->itemsInTrackingFeed(feed);
}

std::int32_t ZolvaniSubscriptionManager::maxItemsPerFeed(const std::string& feed) {
  return feedStore_->maxItemsPerFeed(feed);
}

bool ZolvaniSubscriptionManager::autoDeleteForFeed(const std::string& feed) {
  return feedStore_->autoDeleteForFeed(feed);
}

std::int64_t ZolvaniSubscriptionManager::maxBitrateForFeed(const std::string& feed) {
  return feedStore_->maxBitrateForFeed(feed);
}

void ZolvaniSubscriptionManager::cleanSubscriptionDataForFeed(const std::string& feed,
                                                              bool checkForCanceled) {
  feedStore_->cleanSubscriptionDataForFeed(feed, checkForCanceled);
}

void ZolvaniSubscriptionManager::checkOnDeferredEpisodes() {
  feedStore_->checkOnDeferredEpisodes();
}

std::vector<std::string> ZolvaniSubscriptionManager::deferredEpisodes() {
  return feedStore_->deferredEpisodes();
}

}  // namespace zolvani
