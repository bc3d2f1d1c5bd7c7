// Feed-store costs at scale, over the in-memory engine.
//
//   FillFeed/N        N addItem calls into one feed (the store re-sorts the
//                     feed on every addition, as its ordering rule requires)
//   CanAddItem/N      one admission check of a new item on a full N-item feed
//   CleanFeed/N       one cleanSubscriptionDataForFeed (checking for
//                     cancellations) on an N-item feed
//   CheckOnDeferred   one promotion run over 1,000 feeds of 20 items each,
//                     waited for on the processing queue
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "store/FeedStore.h"
#include "support/InMemoryEngine.h"
#include "zolvani/subscription/platform/ConcurrentQueue.h"
#include "zolvani/subscription/platform/MainQueue.h"
#include "zolvani/subscription/platform/NotificationCenter.h"

namespace zolvani::testing {
namespace {

struct Bed {
  std::shared_ptr<InMemoryEngine> engine = InMemoryEngine::create();
  std::shared_ptr<MainQueue> mainQueue = std::make_shared<MainQueue>("main");
  std::shared_ptr<ConcurrentQueue> processing =
      std::make_shared<ConcurrentQueue>("bench_processing", 4);
  std::unique_ptr<FeedStore> store;

  Bed() {
    FeedStoreEnvironment env;
    env.engine = engine->roles();
    env.mainQueue = mainQueue;
    env.notificationCenter = std::make_shared<NotificationCenter>();
    env.logString = [logger = env.engine.logger](const std::string& m, std::int64_t level) {
      logger->addDebugEvent(m, level);
    };
    env.deleteOldContentAfterNewContentDownloads = [] { return true; };
    store = std::make_unique<FeedStore>(env, [q = processing] { return q; });
  }

  // N assets, oldest first; every other one finished, the rest queued, so a
  // clean judges every item and cancels none.
  std::vector<std::shared_ptr<InMemoryAsset>> assets(int n, const std::string& prefix) {
    std::vector<std::shared_ptr<InMemoryAsset>> out;
    std::vector<std::string> queue;
    for (int i = 0; i < n; ++i) {
      const bool done = i % 2 == 0;
      auto a = engine->addAsset(prefix + std::to_string(i), Date(1'700'000'000.0 + i),
                                done ? std::optional<Date>(Date(1'800'000'000.0)) : std::nullopt);
      if (!done) queue.push_back(a->uuid());
      out.push_back(std::move(a));
    }
    engine->setQueue(std::move(queue));
    return out;
  }

  void fill(const std::string& feed, const std::vector<std::shared_ptr<InMemoryAsset>>& items) {
    for (const auto& a : items) store->addItem(a, feed);
  }
};

void FillFeed(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto bed = std::make_unique<Bed>();
    bed->store->setMaxItems(n, false, 0, "feed");
    auto items = bed->assets(n, "item-");
    state.ResumeTiming();
    bed->fill("feed", items);
    state.PauseTiming();
    if (bed->store->numberOfItemsInFeed("feed") != n) state.SkipWithError("feed was trimmed");
    bed.reset();
    state.ResumeTiming();
  }
  state.counters["per_add_us"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert);
}

// A full feed without auto-delete: admission walks every tracked item.
void CanAddItem(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Bed bed;
  bed.store->setMaxItems(n, false, 0, "feed");
  bed.fill("feed", bed.assets(n, "item-"));
  auto candidate = bed.engine->addAsset("candidate", Date(1'900'000'000.0), Date(1.0));
  for (auto _ : state) {
    bool admitted = bed.store->canAddItem(candidate, std::string("feed"));
    if (admitted) state.SkipWithError("a full feed admitted a new item");
    benchmark::DoNotOptimize(admitted);
  }
  bed.engine->clearLog();
}

void CleanFeed(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Bed bed;
  bed.store->setMaxItems(n, false, 0, "feed");
  bed.fill("feed", bed.assets(n, "item-"));
  for (auto _ : state) bed.store->cleanSubscriptionDataForFeed("feed", true);
  if (bed.store->numberOfItemsInFeed("feed") != n) state.SkipWithError("clean deleted items");
}

// 1,000 feeds of 20 items: 12 tracked (finished) and 8 deferred, room for 15,
// so each run cleans every feed and promotes 3 items per feed.
void CheckOnDeferred(benchmark::State& state) {
  constexpr int kFeeds = 1000;
  for (auto _ : state) {
    state.PauseTiming();
    auto bed = std::make_unique<Bed>();
    for (int f = 0; f < kFeeds; ++f) {
      const std::string feed = "feed-" + std::to_string(f);
      bed->store->setMaxItems(15, false, 0, feed);
      for (int i = 0; i < 20; ++i) {
        auto a = bed->engine->addAsset(feed + "-" + std::to_string(i), Date(1'700'000'000.0 + i),
                                       i < 12 ? std::optional<Date>(Date(1.0)) : std::nullopt);
        if (i < 12)
          bed->store->addItem(a, feed);
        else
          bed->store->addDeferredItem(a, feed);
      }
    }
    state.ResumeTiming();
    bed->store->checkOnDeferredEpisodes();
    bed->processing->waitUntilIdle(std::chrono::minutes(5));
    state.PauseTiming();
    if (bed->engine->queuedUUIDs().size() != 3u * kFeeds) state.SkipWithError("wrong promotions");
    bed->mainQueue->poll();
    bed.reset();
    state.ResumeTiming();
  }
}

BENCHMARK(FillFeed)
    ->Arg(1000)
    ->Arg(2000)
    ->Arg(5000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK(CanAddItem)->Arg(1000)->Arg(2000)->Arg(5000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(CleanFeed)->Arg(1000)->Arg(2000)->Arg(5000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(CheckOnDeferred)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace zolvani::testing

BENCHMARK_MAIN();
