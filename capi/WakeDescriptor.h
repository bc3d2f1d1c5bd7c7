// WakeDescriptor: the descriptor a host watches to learn that its main queue
// has work: a timerfd that is readable now when a task waits, becomes readable
// when the next timer falls due, and is disarmed when nothing is pending.
//
// Thread-safety: wakeNow() from any thread (it is the queue's wake handler);
// settle() from the driving thread after it ran the queue. Both take one lock,
// and settle() reads the queue under it, so a task posted while the driver
// settles is never left without a readable descriptor.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "zolvani/subscription/platform/MainQueue.h"

namespace zsm::capi {

class WakeDescriptor {
 public:
  // Null, with the reason in `error`, when the system refuses a timerfd.
  static std::shared_ptr<WakeDescriptor> create(std::string* error);
  ~WakeDescriptor();
  WakeDescriptor(const WakeDescriptor&) = delete;
  WakeDescriptor& operator=(const WakeDescriptor&) = delete;

  int fd() const { return fd_; }
  // Makes the descriptor readable now.
  void wakeNow();
  // Arms the descriptor for what `queue` holds after a run.
  void settle(const zolvani::MainQueue& queue);

 private:
  explicit WakeDescriptor(int fd) : fd_(fd) {}
  void arm(long long nanoseconds);  // 0 disarms

  const int fd_;
  std::mutex mutex_;
};

}  // namespace zsm::capi
