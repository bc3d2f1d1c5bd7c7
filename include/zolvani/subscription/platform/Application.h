// Application: what the host application tells the library about itself:
// whether it is active in the foreground, and background tasks that keep it
// running for a while when it is not. The host posts
// kApplicationDidBecomeActiveNotification through the platform's notification
// centre whenever it becomes active.
//
// Thread-safety: implementations must be safe to call from any thread.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace zolvani {

inline constexpr std::string_view kApplicationDidBecomeActiveNotification =
    "ApplicationDidBecomeActiveNotification";

using BackgroundTaskIdentifier = std::int64_t;
inline constexpr BackgroundTaskIdentifier kBackgroundTaskInvalid = 0;

class ZSM_EXPORT Application {
 public:
  virtual ~Application() = default;
  // 0 = active in the foreground; any other value = inactive or background.
  virtual std::int64_t applicationState() = 0;
  // Begins a background task; `expiry` runs if the time granted runs out.
  virtual BackgroundTaskIdentifier beginBackgroundTask(std::string name,
                                                       std::function<void()> expiry) = 0;
  virtual void endBackgroundTask(BackgroundTaskIdentifier task) = 0;
};

}  // namespace zolvani
