#include "zolvani/subscription/platform/Platform.h"

#include <openssl/rand.h>
#include <pthread.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "zolvani/subscription/platform/CurlHttpTransport.h"
#include "zolvani/subscription/platform/FileUserDefaults.h"

namespace zolvani {

namespace {

// Incremented in a forked child, whose copy of a thread's buffered random
// bytes is the parent's: the child must not hand out the parent's UUIDs.
std::atomic<unsigned> forkGeneration{0};

// Random bytes for UUIDs, drawn from OpenSSL's generator 256 UUIDs at a time:
// a large sync names tens of thousands of assets, and one call per name costs
// more than the name.
struct UuidBytes {
  static constexpr std::size_t kUuids = 256;
  std::array<unsigned char, 16 * kUuids> bytes;
  std::size_t next = kUuids;  // empty
  unsigned generation = 0;

  // 16 random bytes, or false when the generator failed.
  bool take(unsigned char* out) {
    const unsigned now = forkGeneration.load(std::memory_order_relaxed);
    if (next == kUuids || generation != now) {
      static const bool registered = [] {
        return pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1); }) == 0;
      }();
      if (!registered || RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        return false;
      next = 0;
      generation = now;
    }
    std::memcpy(out, bytes.data() + 16 * next, 16);
    // Spent bytes do not linger in memory.
    std::memset(bytes.data() + 16 * next, 0, 16);
    ++next;
    return true;
  }
};

}  // namespace

std::string newUUIDString() {
  // A random (version 4) UUID from OpenSSL's generator, which keeps its state
  // per thread, unlike libuuid's, which re-seeds and asks for the process and
  // user ids for every UUID.
  thread_local UuidBytes random;
  uuid_t id;
  if (random.take(id)) {
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
