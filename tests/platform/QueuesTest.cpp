#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "zolvani/subscription/platform/ConcurrentQueue.h"
#include "zolvani/subscription/platform/MainQueue.h"
#include "zolvani/subscription/platform/NotificationCenter.h"

namespace zolvani {
namespace {

using namespace std::chrono_literals;

TEST(MainQueueTest, RunsTasksInOrderOnlyWhenPumpedAndTimersWhenDue) {
  MainQueue queue;
  std::vector<int> order;
  queue.asyncAfter(30ms, [&] { order.push_back(4); });
  queue.async([&] { order.push_back(1); });
  queue.async([&] {
    order.push_back(2);
    queue.async([&] { order.push_back(3); });  // posted by a task: runs in the same poll
  });
  EXPECT_TRUE(order.empty());  // nothing runs until the host drives the queue
  EXPECT_EQ(queue.poll(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(queue.pendingCount(), 1u);  // the timer is not due yet
  EXPECT_TRUE(queue.runUntil([&] { return order.size() == 4; }, 2s));
  EXPECT_EQ(order.back(), 4);
}

TEST(MainQueueTest, StopEndsRunFromAnotherThread) {
  MainQueue queue;
  std::atomic<bool> ran{false};
  std::thread stopper([&] {
    queue.async([&] { ran = true; });
    std::this_thread::sleep_for(20ms);
    queue.stop();
  });
  queue.run();
  stopper.join();
  EXPECT_TRUE(ran);
}

TEST(ConcurrentQueueTest, RunsTasksAtTheSameTime) {
  ConcurrentQueue pool("subscription_processing_queue", 4);
  EXPECT_EQ(pool.label(), "subscription_processing_queue");
  // Each task waits for the other: only concurrent execution lets both finish.
  std::latch both(2);
  std::atomic<int> done{0};
  for (int i = 0; i < 2; ++i) {
    pool.async([&] {
      EXPECT_TRUE(pool.isCurrent());
      both.arrive_and_wait();
      ++done;
    });
  }
  EXPECT_TRUE(pool.waitUntilIdle(5s));
  EXPECT_EQ(done, 2);
  EXPECT_FALSE(pool.isCurrent());
}

TEST(ConcurrentQueueTest, MayBeReleasedByItsOwnTask) {
  auto pool = std::make_shared<ConcurrentQueue>("pool", 2);
  std::atomic<bool> finished{false};
  std::weak_ptr<ConcurrentQueue> weak = pool;
  pool->async([keep = pool, &finished]() mutable {
    keep.reset();  // the last owner lets go on a worker: no self-join
    finished = true;
  });
  pool.reset();
  for (int i = 0; i < 200 && !finished; ++i) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(finished);
  for (int i = 0; i < 200 && !weak.expired(); ++i) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(weak.expired());
}

TEST(NotificationCenterTest, DeliversOnTheObserversQueueAndOnlyToItsName) {
  NotificationCenter center;
  auto main = std::make_shared<MainQueue>();
  std::vector<std::string> seen;
  center.addObserver("A", main, [&](const Notification& n) {
    seen.push_back("queued:" + n.userInfo.at("k").stringValue());
  });
  auto inlineToken =
      center.addObserver("A", nullptr, [&](const Notification&) { seen.push_back("inline"); });
  center.addObserver("B", nullptr, [&](const Notification&) { seen.push_back("B"); });
  center.post("A", {{"k", Value("v")}});
  EXPECT_EQ(seen, (std::vector<std::string>{"inline"}));
  main->poll();
  EXPECT_EQ(seen, (std::vector<std::string>{"inline", "queued:v"}));
  center.removeObserver(inlineToken);
  center.post("A");
  EXPECT_EQ(center.observerCount("A"), 1u);
  EXPECT_EQ(seen.size(), 2u);
}

TEST(NotificationCenterTest, AnObserverMayPostAndRegisterWithoutDeadlock) {
  NotificationCenter center;
  int second = 0;
  center.addObserver("first", nullptr, [&](const Notification&) {
    center.addObserver("second", nullptr, [&](const Notification&) { ++second; });
    center.post("second");
  });
  center.post("first");
  EXPECT_EQ(second, 1);
}

}  // namespace
}  // namespace zolvani
