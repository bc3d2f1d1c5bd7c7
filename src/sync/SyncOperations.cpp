// The manager's four sync operations; the first three forward to the fourth.
#include "sync/CatalogSync.h"
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {

void ZolvaniSubscriptionManager::makeCatalogSync() {
  catalogSync_ = std::make_shared<CatalogSync>(*this);
}

void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowOnComplete(
    SyncCompletion onComplete) {
  syncSubscriptionsWithKeelhallNowForDataSince(lastSubscriptionSyncTime(), true, false,
                                               std::move(onComplete));
}

void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowUsingForce(
    bool force, SyncCompletion onComplete) {
  syncSubscriptionsWithKeelhallNowForDataSince(lastSubscriptionSyncTime(), true, force,
                                               std::move(onComplete));
}

void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowForDataSince(
    std::optional<Date>, bool returningOnlySubscribedFeeds, SyncCompletion onComplete) {
  // The date argument is ignored on purpose: this form always asks for what
  // changed since the last sync.
  syncSubscriptionsWithKeelhallNowForDataSince(
      lastSubscriptionSyncTime(), returningOnlySubscribedFeeds, false, std::move(onComplete));
}

void ZolvaniSubscriptionManager::syncSubscriptionsWithKeelhallNowForDataSince(
    std::optional<Date> since, bool returningOnlySubscribedFeeds, bool withForce,
    SyncCompletion onComplete) {
  catalogSync_->start(since, returningOnlySubscribedFeeds, withForce, std::move(onComplete));
}

}  // namespace zolvani
