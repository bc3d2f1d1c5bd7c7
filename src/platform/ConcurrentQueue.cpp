#include "zolvani/subscription/platform/ConcurrentQueue.h"

namespace zolvani {
namespace {
thread_local const ConcurrentQueue* currentPool = nullptr;
}

ConcurrentQueue::ConcurrentQueue(std::string label, std::size_t threads)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  if (threads == 0) threads = 1;
  workers_.reserve(threads);
  for (std::size_t i = 0; i < threads; ++i)
    workers_.emplace_back(&ConcurrentQueue::workerLoop, state_, this);
}

ConcurrentQueue::~ConcurrentQueue() {
  {
    std::lock_guard lock(state_->mutex);
    state_->shuttingDown = true;
  }
  state_->wake.notify_all();
  for (auto& t : workers_) {
    if (t.get_id() == std::this_thread::get_id()) {
      t.detach();  // the worker holds the shared state and exits after this task
    } else {
      t.join();
    }
  }
}

void ConcurrentQueue::async(Task task) {
  {
    std::lock_guard lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
  }
  state_->wake.notify_one();
}

void ConcurrentQueue::workerLoop(std::shared_ptr<State> state, const ConcurrentQueue* owner) {
  currentPool = owner;
  for (;;) {
    Task task;
    {
      std::unique_lock lock(state->mutex);
      state->wake.wait(lock, [&] { return state->shuttingDown || !state->tasks.empty(); });
      if (state->tasks.empty()) break;  // shutting down with nothing left
      task = std::move(state->tasks.front());
      state->tasks.pop_front();
      ++state->running;
    }
    if (task) task();
    task = nullptr;  // release what the task captured before reporting idle
    {
      std::lock_guard lock(state->mutex);
      --state->running;
      if (state->running == 0 && state->tasks.empty()) state->idle.notify_all();
    }
  }
  currentPool = nullptr;
}

bool ConcurrentQueue::waitUntilIdle(std::chrono::steady_clock::duration timeout) {
  std::unique_lock lock(state_->mutex);
  return state_->idle.wait_for(lock, timeout,
                               [this] { return state_->running == 0 && state_->tasks.empty(); });
}

bool ConcurrentQueue::isCurrent() const { return currentPool == this; }

}  // namespace zolvani
