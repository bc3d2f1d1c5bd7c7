// Platform: everything the library takes from its host environment, injected as
// one bundle so that tests replace any part: the main queue, the notification
// centre, the user-defaults store, the HTTP transport, the application, UUID
// text and the system log.
//
// Thread-safety: the bundle is read-only after construction; each part
// documents its own thread-safety.
#pragma once

#include "zolvani/subscription/Export.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "zolvani/subscription/platform/Application.h"
#include "zolvani/subscription/platform/HttpTransport.h"
#include "zolvani/subscription/platform/MainQueue.h"
#include "zolvani/subscription/platform/NotificationCenter.h"
#include "zolvani/subscription/platform/UserDefaults.h"

namespace zolvani {

// A new random UUID in its 36-character upper-case text form.
ZSM_EXPORT std::string newUUIDString();

// An application that is always active and whose background tasks never expire;
// counts what it was asked to do.
class ZSM_EXPORT ForegroundApplication : public Application {
 public:
  std::int64_t applicationState() override;
  BackgroundTaskIdentifier beginBackgroundTask(std::string name,
                                               std::function<void()> expiry) override;
  void endBackgroundTask(BackgroundTaskIdentifier task) override;
  void setApplicationState(std::int64_t state);
  int openBackgroundTasks() const;

 private:
  mutable std::mutex mutex_;
  std::int64_t state_ = 0;
  BackgroundTaskIdentifier next_ = 1;
  int open_ = 0;
};

struct ZSM_EXPORT Platform {
  std::shared_ptr<MainQueue> mainQueue;
  std::shared_ptr<NotificationCenter> notificationCenter;
  std::shared_ptr<UserDefaults> userDefaults;
  std::shared_ptr<HttpTransport> http;
  std::shared_ptr<Application> application;
  std::function<std::string()> uuidString = newUUIDString;
  // Lines meant for the platform's system log rather than the engine's logger.
  std::function<void(const std::string&)> systemLog;

  struct Options {
    // Where the user defaults live; FileUserDefaults::defaultPath() when empty.
    std::optional<std::filesystem::path> userDefaultsPath;
    // Receives problems with the user-defaults file.
    std::function<void(const std::string&, int)> diagnostics;
  };
  // Real parts: a new main queue, notification centre, file-backed user
  // defaults, libcurl transport, a foreground application, and standard error
  // as the system log.
  static Platform makeDefault(const Options& options);
};

}  // namespace zolvani
