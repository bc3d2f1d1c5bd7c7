// A small host process for the crash test: it starts the reference engine over
// a data folder, makes sure every catalog item of a loopback server exists as
// one asset, is tracked in the feed "feed" and is queued, then waits until the
// queue drains. Usage: refengine_test_host <data folder> <base URL> <items>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "zolvani/reference/ReferenceEngine.h"

using namespace zolvani;

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s <data folder> <base URL> <items>\n", argv[0]);
    return 2;
  }
  reference::ReferenceEngineOptions options;
  options.dataFolder = argv[1];
  options.reachabilityOverride = true;
  options.freeSpaceMargin = 0;
  options.retryBaseDelay = std::chrono::milliseconds(20);
  options.progressPersistInterval = std::chrono::milliseconds(100);
  const std::string base = argv[2];
  const int items = std::atoi(argv[3]);
  reference::ReferenceEngine engine(options);
  if (auto e = engine.start()) {
    std::fprintf(stderr, "start failed: %s\n", e->describe().c_str());
    return 1;
  }
  auto roles = engine.roles();
  auto ctx = roles.utilities->managedObjectContext();
  ctx->performBlockAndWait([&] {
    auto found = ctx->executeFetchRequest(
        SubscriptionDataFetchRequest::whereEquals(SubscriptionDataAttributes[3], "feed"), nullptr);
    if (found.empty()) {
      ctx->insertSubscriptionData()->setUuid("feed");
      ctx->save();
    }
  });
  // Like a sync: an item becomes an asset (one transaction), then joins its
  // feed (another), then is queued. A kill may fall between any two steps.
  for (int i = 0; i < items; ++i) {
    const std::string id = "item-" + std::to_string(i);
    auto asset = roles.assets->assetWithAssetID(id, 0);
    if (!asset)
      asset = roles.assets->assetWithRemoteURL(
          base + "/" + id + ".mp4", id, "Item " + std::to_string(i), std::nullopt, std::nullopt,
          -42.0, -42.0, -1, false, std::nullopt, nullptr, nullptr);
    if (!asset) return 1;
    ctx->performBlockAndWait([&] {
      auto record = ctx->executeFetchRequest(
          SubscriptionDataFetchRequest::whereEquals(SubscriptionDataAttributes[3], "feed"),
          nullptr);
      record.at(0)->addFeedItemsObject(asset->assetDataFromAsset());
      record.at(0)->feedItemsSet().sortByAttribute(ZolvaniAssetDataAttributes[9]);
      ctx->save();
    });
    roles.downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  }
  if (!engine.waitUntilIdle(std::chrono::seconds(60))) return 1;
  for (const auto& info : engine.listAssets()) {
    if (info.state != reference::AssetState::kComplete) {
      std::fprintf(stderr, "%s ended %s\n", info.assetID.c_str(),
                   std::string(assetStateName(info.state)).c_str());
      return 1;
    }
  }
  std::printf("DONE\n");
  return 0;
}
