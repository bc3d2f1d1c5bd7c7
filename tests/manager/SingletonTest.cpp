// The process-wide accessors. Installation is once per process, so the whole
// story runs as one test in its own program.
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace zolvani::testing {
namespace {

TEST(SingletonTest, InstanceNeedsAStartedEngineWithServerUseAndInternalInstanceCreatesOnce) {
  EXPECT_EQ(ZolvaniSubscriptionManager::instance(), nullptr);  // no engine installed at all
  EXPECT_THROW(ZolvaniSubscriptionManager::internalInstance(), InternalInconsistencyException);

  auto engine = InMemoryEngine::create();
  engine->started = false;
  ASSERT_TRUE(installEngine(engine->roles()));
  EXPECT_FALSE(installEngine(engine->roles()));  // only the first installation counts
  TestBed unused;  // its platform parts serve the process-wide manager
  ASSERT_TRUE(installPlatform(unused.platform()));

  EXPECT_EQ(ZolvaniSubscriptionManager::instance(), nullptr);
  engine->started = true;
  engine->keelhallEnabled = false;
  EXPECT_EQ(ZolvaniSubscriptionManager::instance(), nullptr);
  // Refusing created nothing: no manager registered itself with the engine.
  EXPECT_TRUE(engine->handlers().empty());

  std::set<ZolvaniSubscriptionManager*> seen;
  std::mutex mutex;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      auto m = ZolvaniSubscriptionManager::internalInstance();
      std::lock_guard lock(mutex);
      seen.insert(m.get());
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(engine->handlers().size(), 1u);  // created exactly once

  engine->keelhallEnabled = true;
  EXPECT_EQ(ZolvaniSubscriptionManager::instance().get(), *seen.begin());
}

}  // namespace
}  // namespace zolvani::testing
