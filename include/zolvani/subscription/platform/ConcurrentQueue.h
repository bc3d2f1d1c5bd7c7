// ConcurrentQueue: a fixed pool of worker threads that run tasks concurrently,
// in submission order of start but with no ordering of completion. The manager's
// processing queue "subscription_processing_queue" is one of these.
//
// Thread-safety: every member may be called from any thread. The destructor
// lets queued tasks finish and joins the workers; when the last owner lets go on
// one of the pool's own workers, that worker is detached instead and exits once
// its task returns.
#pragma once

#include "zolvani/subscription/Export.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zolvani/subscription/platform/DispatchQueue.h"

namespace zolvani {

class ZSM_EXPORT ConcurrentQueue final : public DispatchQueue {
 public:
  // `threads` workers; several are needed because tasks may block (a blocking
  // request, or a worker waiting for other requests to finish).
  ConcurrentQueue(std::string label, std::size_t threads = 8);
  ~ConcurrentQueue() override;
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

  void async(Task task) override;
  const std::string& label() const override { return label_; }

  // Waits until no task is queued or running, or until `timeout`; true when idle.
  bool waitUntilIdle(std::chrono::steady_clock::duration timeout);
  // True on one of this pool's worker threads.
  bool isCurrent() const;

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable idle;
    std::deque<Task> tasks;
    std::size_t running = 0;
    bool shuttingDown = false;
  };
  static void workerLoop(std::shared_ptr<State> state, const ConcurrentQueue* owner);

  std::string label_;
  std::shared_ptr<State> state_;
  std::vector<std::thread> workers_;
};

}  // namespace zolvani
