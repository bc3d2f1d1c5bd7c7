// A feed store built alone over the in-memory engine, a main queue, a
// notification centre and a small processing pool, for the store tests.
//
// The asset factory is wrapped so a test can make the engine "forget" an asset
// while its record stays in a feed, as an engine that does not cascade
// deletions into the store would.
//
// Thread-safety: the harness's fakes are safe from any thread; settle() and
// the inspectors belong to the test's thread.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "store/FeedStore.h"
#include "support/InMemoryEngine.h"
#include "support/TestEnvironment.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/platform/ConcurrentQueue.h"

namespace zolvani::testing {

// Forwards to the engine's factory, except that hidden UUIDs are not found.
class HidingAssetFactory final : public ZolvaniAssetFactory {
 public:
  explicit HidingAssetFactory(std::shared_ptr<ZolvaniAssetFactory> inner)
      : inner_(std::move(inner)) {}
  void hide(const std::string& uuid) {
    std::lock_guard lock(mutex_);
    hidden_.insert(uuid);
  }
  std::shared_ptr<ZolvaniAsset> assetWithUUID(std::string_view uuid, std::int64_t filter) override {
    {
      std::lock_guard lock(mutex_);
      if (hidden_.count(std::string(uuid))) return nullptr;
    }
    return inner_->assetWithUUID(uuid, filter);
  }
  std::shared_ptr<ZolvaniAsset> assetWithAssetID(std::string_view assetID,
                                                 std::int64_t filter) override {
    return inner_->assetWithAssetID(assetID, filter);
  }
  std::shared_ptr<ZolvaniAsset> assetWithAssetID(std::string a, std::string d, std::string m,
                                                 std::int32_t p, bool k, std::int64_t b,
                                                 std::optional<Date> pd, std::optional<Date> ed,
                                                 double ead, double eap, std::int32_t l, bool f,
                                                 std::optional<Value::Map> u, AssetReadyCallback r,
                                                 AssetParseCallback pc) override {
    return inner_->assetWithAssetID(std::move(a), std::move(d), std::move(m), p, k, b, pd, ed, ead,
                                    eap, l, f, std::move(u), std::move(r), std::move(pc));
  }
  std::shared_ptr<ZolvaniAsset> assetWithRemoteURL(std::string url, std::string a, std::string d,
                                                   std::optional<Date> pd, std::optional<Date> ed,
                                                   double ead, double eap, std::int32_t l, bool f,
                                                   std::optional<Value::Map> u,
                                                   AssetReadyCallback r,
                                                   AssetParseCallback pc) override {
    return inner_->assetWithRemoteURL(std::move(url), std::move(a), std::move(d), pd, ed, ead, eap,
                                      l, f, std::move(u), std::move(r), std::move(pc));
  }

 private:
  std::shared_ptr<ZolvaniAssetFactory> inner_;
  std::mutex mutex_;
  std::set<std::string> hidden_;
};

struct StoreHarness {
  std::shared_ptr<InMemoryEngine> engine = InMemoryEngine::create();
  std::shared_ptr<MainQueue> mainQueue = std::make_shared<MainQueue>("main");
  std::shared_ptr<NotificationCenter> center = std::make_shared<NotificationCenter>();
  std::shared_ptr<ConcurrentQueue> processing =
      std::make_shared<ConcurrentQueue>("store_test_processing", 4);
  std::shared_ptr<HidingAssetFactory> assets;
  NotificationRecorder recorder{
      *center,
      {kSubscriptionManagerAssetDeletedNotification, kSubscriptionManagerAssetAddedNotification}};
  std::unique_ptr<FeedStore> store;
  bool deleteOldContent = true;

  StoreHarness() {
    FeedStoreEnvironment env;
    env.engine = engine->roles();
    assets = std::make_shared<HidingAssetFactory>(env.engine.assets);
    env.engine.assets = assets;
    env.mainQueue = mainQueue;
    env.notificationCenter = center;
    // Plain lines reach the engine's logger unchanged, so tests read them there.
    env.logString = [logger = env.engine.logger](const std::string& m, std::int64_t level) {
      logger->addDebugEvent(m, level);
    };
    env.deleteOldContentAfterNewContentDownloads = [this] { return deleteOldContent; };
    store = std::make_unique<FeedStore>(env, [q = processing] { return q; });
  }

  // An asset created `age` seconds after a fixed base; finished when `done`.
  std::shared_ptr<InMemoryAsset> asset(const std::string& id, double age, bool done = false) {
    std::optional<Date> finished;
    if (done) finished = Date(1'700'100'000.0 + age);
    return engine->addAsset(id, Date(1'700'000'000.0 + age), finished);
  }

  // Waits for promotions and delivers what they posted.
  void settle() {
    for (int i = 0; i < 3; ++i) {
      processing->waitUntilIdle(std::chrono::seconds(10));
      mainQueue->poll();
    }
  }

  // The UUID lists of every asset-deleted notification, in posting order.
  std::vector<std::vector<std::string>> deletedAnnouncements() {
    settle();
    std::vector<std::vector<std::string>> out;
    for (const auto& n : recorder.named(kSubscriptionManagerAssetDeletedNotification)) {
      std::vector<std::string> uuids;
      EXPECT_EQ(n.userInfo.size(), 1u);
      auto it = n.userInfo.find(kSubscriptionManagerNotificationZolvaniAssetUUIDsKey);
      if (it != n.userInfo.end() && it->second.asArray())
        for (const auto& v : *it->second.asArray()) uuids.push_back(v.stringValue());
      out.push_back(std::move(uuids));
    }
    return out;
  }

  // Asset UUIDs of every asset-added notification, in posting order.
  std::vector<std::vector<std::string>> addedAnnouncements() {
    settle();
    std::vector<std::vector<std::string>> out;
    for (const auto& n : recorder.named(kSubscriptionManagerAssetAddedNotification)) {
      std::vector<std::string> uuids;
      auto it = n.userInfo.find(kSubscriptionManagerNotificationZolvaniAssetsKey);
      if (it != n.userInfo.end() && it->second.asArray())
        for (const auto& v : *it->second.asArray())
          uuids.push_back(v.asAsset() && *v.asAsset() ? (*v.asAsset())->uuid() : "?");
      out.push_back(std::move(uuids));
    }
    return out;
  }

  // Writes a feed's record directly, as an earlier session would have left it.
  void seed(const std::string& feed, std::int16_t maxItems, bool autodelete,
            const std::vector<std::shared_ptr<InMemoryAsset>>& trackedItems,
            const std::vector<std::shared_ptr<InMemoryAsset>>& deferredItems = {}) {
    auto ctx = engine->context();
    ctx->performBlockAndWait([&] {
      auto record = ctx->insertSubscriptionData();
      record->setUuid(feed);
      record->setMaxItemsValue(maxItems);
      record->setAutodeleteValue(autodelete);
      record->setMaxBitrateValue(1000);
      for (const auto& a : trackedItems) record->feedItemsSet().add(a->assetDataFromAsset());
      for (const auto& a : deferredItems)
        record->deferredFeedItemsSet().add(a->assetDataFromAsset());
      ctx->save();
    });
  }

  std::vector<std::string> tracked(const std::string& feed) {
    std::vector<std::string> out;
    auto ctx = engine->context();
    ctx->performBlockAndWait([&] {
      auto found = ctx->executeFetchRequest(
          SubscriptionDataFetchRequest::whereEquals(SubscriptionDataAttributes[3], feed), nullptr);
      if (!found.empty())
        for (const auto& i : found.front()->feedItemsSet()) out.push_back(i->uuid());
    });
    return out;
  }

  std::vector<std::string> deferred(const std::string& feed) {
    std::vector<std::string> out;
    auto ctx = engine->context();
    ctx->performBlockAndWait([&] {
      auto found = ctx->executeFetchRequest(
          SubscriptionDataFetchRequest::whereEquals(SubscriptionDataAttributes[3], feed), nullptr);
      if (!found.empty())
        for (const auto& i : found.front()->deferredFeedItemsSet()) out.push_back(i->uuid());
    });
    return out;
  }

  // (uuid, reason) of every engine deletion the library asked for.
  std::vector<std::pair<std::string, std::int64_t>> deletions() const {
    std::vector<std::pair<std::string, std::int64_t>> out;
    for (const auto& d : engine->deletions()) out.emplace_back(d.uuid, d.reason);
    return out;
  }
};

inline std::vector<std::string> uuidsOf(
    std::initializer_list<std::shared_ptr<InMemoryAsset>> assets) {
  std::vector<std::string> out;
  for (const auto& a : assets) out.push_back(a->uuid());
  return out;
}

}  // namespace zolvani::testing
