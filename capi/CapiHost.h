// The C interface's objects behind the opaque handles of zsm.h, and the guard
// that keeps C++ failures from crossing into C.
//
// A host's runtime (platform, engine, manager) is the shared HostRuntime. Work
// that completes on other threads (server replies, transfer progress, log lines)
// is posted to the runtime's main queue, so every callback runs inside
// zsm_host_poll on the driving thread. Tasks may outlive the host (the manager
// keeps its queues for as long as work refers to them), so what they need of it
// lives in a shared Inbox that closing marks closed.
//
// Thread-safety: see zsm.h; the members below say what guards them.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "HostRuntime.h"
#include "WakeDescriptor.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/zsm.h"

struct zsm_error {
  std::string domain;
  std::int64_t code = 0;
  std::string description;
};

struct zsm_config {
  std::string dataFolder, serverUrl, user, key, secret, deviceId;
  int parallelTransfers = 2;
  std::int64_t logLevel = -1;
  bool backgroundLaunch = false;
  std::uint64_t freeSpaceMargin = 64ull * 1024 * 1024;
};

namespace zsm::capi {

// What tasks posted to the main queue need of their host, kept alive by them.
struct Inbox {
  std::mutex mutex;  // guards the members below
  bool closed = false;
  zsm_event_fn eventFn = nullptr;
  void* eventUser = nullptr;
};

}  // namespace zsm::capi

struct zsm_host {
  zsm_config config;
  std::shared_ptr<zsm::capi::Inbox> inbox = std::make_shared<zsm::capi::Inbox>();
  std::shared_ptr<zsm::capi::WakeDescriptor> wake;
  // Set once by zsm_host_start; read by the operations afterwards.
  std::unique_ptr<zsm::HostRuntime> runtime;
  std::atomic<bool> started{false};
  std::mutex startMutex;    // one start at a time
  std::mutex requestMutex;  // one fresh-second reckoning at a time
  std::vector<zolvani::NotificationCenter::Token> observers;
};

namespace zsm::capi {

// Stores a new error in *out when `out` is not null; returns -1.
int fail(zsm_error** out, const std::string& domain, std::int64_t code,
         const std::string& description);
int fail(zsm_error** out, const zolvani::Error& error);
int failArgument(zsm_error** out, const std::string& description);
zsm_error* newError(const zolvani::Error& error);

// Runs `body`, turning any exception into an internal error.
template <class Body>
int guarded(zsm_error** out, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return fail(out, ZSM_ERROR_DOMAIN, ZSM_ERROR_INTERNAL, "out of memory");
  } catch (const std::exception& e) {
    try {
      return fail(out, ZSM_ERROR_DOMAIN, ZSM_ERROR_INTERNAL, e.what());
    } catch (...) {
      return -1;
    }
  } catch (...) {
    return fail(out, ZSM_ERROR_DOMAIN, ZSM_ERROR_INTERNAL, "unexpected failure");
  }
}

// Fails unless the host is there and started; returns its runtime.
HostRuntime* startedRuntime(zsm_host* host, zsm_error** out);

// Copies `text` into memory the caller frees with zsm_free.
char* duplicate(const std::string& text);
// Hands `json` to the caller through `out` (checked not null by the caller).
int giveJson(char** out, const nlohmann::json& json);

// The host the current thread is delivering callbacks for; null outside.
zsm_host*& drivingHost();

// Posts `task` to the host's main queue, to run on the driving thread unless
// the host has closed by then.
void post(zsm_host* host, std::function<void()> task);

}  // namespace zsm::capi
