#include "zolvani/subscription/platform/MainQueue.h"

namespace zolvani {

MainQueue::MainQueue(std::string label) : label_(std::move(label)) {}

void MainQueue::async(Task task) {
  std::function<void()> wakeHandler;
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    if (wakeHandler_) wakeHandler = wakeHandler_;
  }
  wake_.notify_all();
  if (wakeHandler) wakeHandler();
}

void MainQueue::asyncAfter(Clock::duration delay, Task task) {
  std::function<void()> wakeHandler;
  {
    std::lock_guard lock(mutex_);
    timers_.push(Timer{Clock::now() + delay, nextSequence_++, std::move(task)});
    if (wakeHandler_) wakeHandler = wakeHandler_;
  }
  wake_.notify_all();
  if (wakeHandler) wakeHandler();
}

void MainQueue::setWakeHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  wakeHandler_ = std::move(handler);
}

std::optional<MainQueue::Clock::duration> MainQueue::timeUntilReady() const {
  std::lock_guard lock(mutex_);
  if (!tasks_.empty()) return Clock::duration::zero();
  if (timers_.empty()) return std::nullopt;
  const auto now = Clock::now();
  const auto due = timers_.top().due;
  return due <= now ? Clock::duration::zero() : due - now;
}

std::size_t MainQueue::pollFor(Clock::duration timeout) {
  {
    std::unique_lock lock(mutex_);
    const bool forever = timeout < Clock::duration::zero();
    const auto deadline = forever ? Clock::time_point::max() : Clock::now() + timeout;
    for (;;) {
      const auto now = Clock::now();
      if (!tasks_.empty() || (!timers_.empty() && timers_.top().due <= now)) break;
      if (stopRequested_ || now >= deadline) break;
      Clock::time_point next = forever ? now + std::chrono::hours(1) : deadline;
      if (!timers_.empty() && timers_.top().due < next) next = timers_.top().due;
      wake_.wait_until(lock, next);
    }
  }
  return poll();
}

bool MainQueue::runOne() {
  Task task;
  {
    std::lock_guard lock(mutex_);
    // Due timers join the ordinary tasks in due order, so a timer that fell due
    // before a task was posted does not jump ahead of tasks already waiting.
    auto now = Clock::now();
    while (!timers_.empty() && timers_.top().due <= now) {
      tasks_.push_back(std::move(const_cast<Timer&>(timers_.top()).task));
      timers_.pop();
    }
    if (tasks_.empty()) return false;
    task = std::move(tasks_.front());
    tasks_.pop_front();
  }
  if (task) task();
  return true;
}

void MainQueue::wait(std::unique_lock<std::mutex>& lock, Clock::time_point until) {
  if (!tasks_.empty() || stopRequested_) return;
  Clock::time_point next = until;
  if (!timers_.empty() && timers_.top().due < next) next = timers_.top().due;
  wake_.wait_until(lock, next);
}

void MainQueue::run() {
  driver_ = std::this_thread::get_id();
  for (;;) {
    while (runOne()) {
      std::lock_guard lock(mutex_);
      if (stopRequested_) break;
    }
    std::unique_lock lock(mutex_);
    if (stopRequested_) {
      stopRequested_ = false;
      break;
    }
    wait(lock, Clock::now() + std::chrono::hours(1));
  }
  driver_ = {};
}

void MainQueue::runFor(Clock::duration duration) {
  runUntil([] { return false; }, duration);
}

bool MainQueue::runUntil(const std::function<bool()>& done, Clock::duration timeout) {
  driver_ = std::this_thread::get_id();
  const auto deadline = Clock::now() + timeout;
  bool result = false;
  for (;;) {
    while (runOne()) {
      if (done()) break;
    }
    if (done()) {
      result = true;
      break;
    }
    std::unique_lock lock(mutex_);
    if (stopRequested_) {
      stopRequested_ = false;
      break;
    }
    if (Clock::now() >= deadline) break;
    wait(lock, deadline);
  }
  driver_ = {};
  return result;
}

std::size_t MainQueue::poll() {
  driver_ = std::this_thread::get_id();
  std::size_t n = 0;
  while (runOne()) ++n;
  driver_ = {};
  return n;
}

void MainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wake_.notify_all();
}

bool MainQueue::isCurrent() const { return driver_ == std::this_thread::get_id(); }

std::size_t MainQueue::pendingCount() const {
  std::lock_guard lock(mutex_);
  return tasks_.size() + timers_.size();
}

}  // namespace zolvani
