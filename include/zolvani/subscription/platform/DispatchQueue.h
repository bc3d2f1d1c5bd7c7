// DispatchQueue: somewhere to run a task later.
//
// Two kinds exist: the host-driven serial MainQueue and the concurrent
// ConcurrentQueue (the processing pool). Notification observers name the queue
// their deliveries run on. Implementations are safe to call from any thread.
#pragma once

#include "zolvani/subscription/Export.h"

#include <functional>
#include <string>

namespace zolvani {

using Task = std::function<void()>;

class ZSM_EXPORT DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;
  // Runs `task` later on this queue; never runs it inline.
  virtual void async(Task task) = 0;
  virtual const std::string& label() const = 0;
};

}  // namespace zolvani
