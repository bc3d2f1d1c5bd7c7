// MainQueue: the one serial queue that the host drives, like an application's
// run loop. Tasks and timers run in order on whichever thread calls run(),
// runFor() or poll(); tests pump it the same way.
//
// Thread-safety: async(), asyncAfter() and stop() may be called from any thread.
// Only one thread at a time may drive the queue.
#pragma once

#include "zolvani/subscription/Export.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <queue>
#include <string>
#include <thread>
#include <vector>

#include "zolvani/subscription/platform/DispatchQueue.h"

namespace zolvani {

class ZSM_EXPORT MainQueue final : public DispatchQueue {
 public:
  using Clock = std::chrono::steady_clock;

  explicit MainQueue(std::string label = "main");
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  void async(Task task) override;
  // Runs `task` on this queue once `delay` has passed.
  void asyncAfter(Clock::duration delay, Task task);
  const std::string& label() const override { return label_; }

  // Runs tasks and due timers until stop() is called.
  void run();
  // Runs tasks and due timers for `duration`, then returns.
  void runFor(Clock::duration duration);
  // Runs until `done()` holds or `timeout` passes; true when `done()` held.
  bool runUntil(const std::function<bool()>& done, Clock::duration timeout);
  // Runs what is ready now (tasks and due timers, including tasks they post)
  // without waiting; returns the number of tasks run.
  std::size_t poll();
  // Makes run() return after the task in progress.
  void stop();
  // Waits up to `timeout` until a task is ready (a negative timeout waits as
  // long as it takes), then runs what is ready as poll() does; returns the
  // number of tasks run.
  std::size_t pollFor(Clock::duration timeout);

  // Called after each task or timer is added, on the posting thread and outside
  // the queue's lock, so that a host can wake an event loop of its own; none
  // when empty. Set it before the queue is shared.
  void setWakeHandler(std::function<void()> handler);
  // How long until a task is ready: zero when one waits, the time until the
  // next timer falls due, or none when nothing is pending.
  std::optional<Clock::duration> timeUntilReady() const;

  // True on the thread that is driving the queue right now.
  bool isCurrent() const;
  // Tasks waiting plus timers pending.
  std::size_t pendingCount() const;

 private:
  struct Timer {
    Clock::time_point due;
    std::uint64_t sequence;
    Task task;
    bool operator>(const Timer& o) const {
      return due != o.due ? due > o.due : sequence > o.sequence;
    }
  };

  // Runs one ready task or due timer; false when none was ready.
  bool runOne();
  void wait(std::unique_lock<std::mutex>& lock, Clock::time_point until);

  std::string label_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;
  std::priority_queue<Timer, std::vector<Timer>, std::greater<>> timers_;
  std::uint64_t nextSequence_ = 0;
  bool stopRequested_ = false;
  std::thread::id driver_;
  std::function<void()> wakeHandler_;
};

}  // namespace zolvani
