#include "zolvani/subscription/platform/Platform.h"

#include <openssl/rand.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "zolvani/subscription/platform/CurlHttpTransport.h"
#include "zolvani/subscription/platform/FileUserDefaults.h"

namespace zolvani {

std::string newUUIDString() {
  // A random (version 4) UUID. OpenSSL's generator keeps its state per thread,
  // so a large sync that names thousands of assets does not pay, per name, for
  // the re-seeding and process-id calls libuuid's generator makes.
  uuid_t id;
  if (RAND_bytes(id, sizeof id) == 1) {
    id[6] = static_cast<unsigned char>((id[6] & 0x0F) | 0x40);
    id[8] = static_cast<unsigned char>((id[8] & 0x3F) | 0x80);
  } else {
    uuid_generate_random(id);
  }
  char text[37];
  uuid_unparse_upper(id, text);
  return text;
}

std::optional<std::string> HttpRequest::header(std::string_view name) const {
  auto equalsIgnoringCase = [](std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
             return std::tolower(static_cast<unsigned char>(x)) ==
                    std::tolower(static_cast<unsigned char>(y));
           });
  };
  std::optional<std::string> out;
  for (const auto& [k, v] : headers) {
    if (!equalsIgnoringCase(k, name)) continue;
    out = out ? *out + "," + v : v;
  }
  return out;
}

std::int64_t ForegroundApplication::applicationState() {
  std::lock_guard lock(mutex_);
  return state_;
}

BackgroundTaskIdentifier ForegroundApplication::beginBackgroundTask(std::string,
                                                                    std::function<void()>) {
  std::lock_guard lock(mutex_);
  ++open_;
  return next_++;
}

void ForegroundApplication::endBackgroundTask(BackgroundTaskIdentifier task) {
  std::lock_guard lock(mutex_);
  if (task != kBackgroundTaskInvalid && open_ > 0) --open_;
}

void ForegroundApplication::setApplicationState(std::int64_t state) {
  std::lock_guard lock(mutex_);
  state_ = state;
}

int ForegroundApplication::openBackgroundTasks() const {
  std::lock_guard lock(mutex_);
  return open_;
}

Platform Platform::makeDefault(const Options& options) {
  Platform p;
  p.mainQueue = std::make_shared<MainQueue>("main");
  p.notificationCenter = std::make_shared<NotificationCenter>();
  p.userDefaults = std::make_shared<FileUserDefaults>(
      options.userDefaultsPath.value_or(FileUserDefaults::defaultPath()), options.diagnostics);
  p.http = std::make_shared<CurlHttpTransport>();
  p.application = std::make_shared<ForegroundApplication>();
  p.systemLog = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
  return p;
}

}  // namespace zolvani
