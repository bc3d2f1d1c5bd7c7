// The C interface's errors, configuration, host lifecycle, driving and events.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

#include "CapiHost.h"
#include "CliConfig.h"
#include "HostViews.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/engine/EngineRoles.h"
#include "zolvani/subscription/platform/FileUserDefaults.h"
#include "zolvani/subscription/platform/Platform.h"

using zsm::capi::fail;
using zsm::capi::failArgument;
using zsm::capi::guarded;

namespace zsm::capi {

int fail(zsm_error** out, const std::string& domain, std::int64_t code,
         const std::string& description) {
  if (out) *out = new zsm_error{domain, code, description};
  return -1;
}

int fail(zsm_error** out, const zolvani::Error& error) {
  return fail(out, error.domain, error.code, error.localizedDescription());
}

int failArgument(zsm_error** out, const std::string& description) {
  return fail(out, ZSM_ERROR_DOMAIN, ZSM_ERROR_ARGUMENT, description);
}

zsm_error* newError(const zolvani::Error& error) {
  return new zsm_error{error.domain, error.code, error.localizedDescription()};
}

zsm_host*& drivingHost() {
  thread_local zsm_host* host = nullptr;
  return host;
}

HostRuntime* startedRuntime(zsm_host* host, zsm_error** out) {
  if (!host) {
    failArgument(out, "host is NULL");
    return nullptr;
  }
  if (!host->started.load()) {
    fail(out, ZSM_ERROR_DOMAIN, ZSM_ERROR_STATE, "the host has not been started");
    return nullptr;
  }
  return host->runtime.get();
}

char* duplicate(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (!copy) throw std::bad_alloc();
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

int giveJson(char** out, const nlohmann::json& json) {
  *out = duplicate(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  return 0;
}

void post(zsm_host* host, std::function<void()> task) {
  auto inbox = host->inbox;
  host->runtime->platform().mainQueue->async([inbox, task = std::move(task)] {
    {
      std::lock_guard lock(inbox->mutex);
      if (inbox->closed) return;
    }
    task();
  });
}

}  // namespace zsm::capi

namespace {

using namespace zsm::capi;

// How long closing waits for requests in flight to end.
constexpr auto kCloseDrainLimit = std::chrono::seconds(10);

// Hands an event to the host's callback; runs on the driving thread.
void emit(const std::shared_ptr<Inbox>& inbox, int kind, const nlohmann::json& json) {
  zsm_event_fn fn;
  void* user;
  {
    std::lock_guard lock(inbox->mutex);
    if (inbox->closed) return;
    fn = inbox->eventFn;
    user = inbox->eventUser;
  }
  if (!fn) return;
  const std::string text = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  fn(user, kind, text.c_str());
}

nlohmann::json assetNotes(const zolvani::Notification& n) {
  nlohmann::json assets = nlohmann::json::array();
  auto it = n.userInfo.find(zolvani::kSubscriptionManagerNotificationZolvaniAssetsKey);
  if (it == n.userInfo.end() || !it->second.asArray()) return assets;
  for (const auto& v : *it->second.asArray()) {
    const auto* asset = v.asAsset();
    if (!asset || !*asset) continue;
    assets.push_back({{"uuid", (*asset)->uuid()},
                      {"asset_id", (*asset)->assetID()},
                      {"description", (*asset)->description()}});
  }
  return assets;
}

// Which feed each asset belongs to, for the download events; rebuilt from the
// feed store only after the manager announced a change, not at every progress
// report. Used on the driving thread only (notifications and reports both
// reach the host through its main queue).
struct FeedIndex {
  bool stale = true;
  zsm::FeedMembership places;

  const zsm::FeedMembership& current(zsm::HostRuntime& runtime) {
    if (stale) {
      places = zsm::feedMembership(runtime);
      stale = false;
    }
    return places;
  }
};

// The manager's notifications, as events.
void observe(zsm_host* host, const std::shared_ptr<FeedIndex>& index) {
  auto& runtime = *host->runtime;
  auto& center = *runtime.platform().notificationCenter;
  auto main = runtime.platform().mainQueue;
  auto inbox = host->inbox;
  auto add = [&](std::string_view name, std::function<void(const zolvani::Notification&)> fn) {
    host->observers.push_back(center.addObserver(std::string(name), main, std::move(fn)));
  };
  add(zolvani::kSubscriptionManagerAssetAddedNotification,
      [inbox, index](const zolvani::Notification& n) {
        index->stale = true;
        emit(inbox, ZSM_EVENT_ASSET_ADDED, {{"assets", assetNotes(n)}});
      });
  add(zolvani::kSubscriptionManagerAssetDeferredNotification,
      [inbox, index](const zolvani::Notification& n) {
        index->stale = true;
        emit(inbox, ZSM_EVENT_ASSET_DEFERRED, {{"assets", assetNotes(n)}});
      });
  add(zolvani::kSubscriptionManagerAssetDeletedNotification,
      [inbox, index](const zolvani::Notification& n) {
        index->stale = true;
        nlohmann::json uuids = nlohmann::json::array();
        auto it = n.userInfo.find(zolvani::kSubscriptionManagerNotificationZolvaniAssetUUIDsKey);
        if (it != n.userInfo.end() && it->second.asArray())
          for (const auto& v : *it->second.asArray()) uuids.push_back(v.stringValue());
        emit(inbox, ZSM_EVENT_ASSET_DELETED, {{"uuids", uuids}});
      });
  zsm::HostRuntime* rt = host->runtime.get();
  add(zolvani::kSubscriptionManagerDidFinishSyncNotification,
      [inbox, rt, index](const zolvani::Notification&) {
        index->stale = true;
        nlohmann::json doc = nlohmann::json::object();
        // The runtime is alive while events are delivered: closing stops them first.
        if (auto last = rt->manager().lastSubscriptionSyncTime())
          doc["last_sync"] = last->secondsSince1970;
        emit(inbox, ZSM_EVENT_SYNC_FINISHED, doc);
      });
  add(zolvani::kSubscriptionManagerStatusDidChangeNotification, [inbox](const zolvani::Notification&
                                                                            n) {
    auto it = n.userInfo.find(zolvani::kSubscriptionManagerStatusDidChangeNotificationStatusKey);
    const std::int64_t status = it == n.userInfo.end() ? -1 : it->second.int64Value();
    emit(inbox, ZSM_EVENT_STATUS_CHANGED, {{"status", status}, {"name", zsm::statusName(status)}});
  });
}

bool parseInteger(const char* text, long long low, long long high, long long* value) {
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text, &end, 10);
  if (*text == '\0' || errno != 0 || *end != '\0' || v < low || v > high) return false;
  *value = v;
  return true;
}

bool parseBool(const std::string& text, bool* value) {
  if (text == "true" || text == "yes" || text == "on" || text == "1") return *value = true, true;
  if (text == "false" || text == "no" || text == "off" || text == "0") return *value = false, true;
  return false;
}

}  // namespace

extern "C" {

const char* zsm_version(void) { return ZSM_VERSION_STRING; }

const char* zsm_error_domain(const zsm_error* error) { return error ? error->domain.c_str() : ""; }
int64_t zsm_error_code(const zsm_error* error) { return error ? error->code : 0; }
const char* zsm_error_description(const zsm_error* error) {
  return error ? error->description.c_str() : "";
}
zsm_error* zsm_error_copy(const zsm_error* error) {
  if (!error) return nullptr;
  try {
    return new zsm_error(*error);
  } catch (...) {
    return nullptr;
  }
}
void zsm_error_free(zsm_error* error) { delete error; }
void zsm_free(void* text) { std::free(text); }

const char* zsm_event_name(int kind) {
  switch (kind) {
    case ZSM_EVENT_ASSET_ADDED:
      return "asset-added";
    case ZSM_EVENT_ASSET_DEFERRED:
      return "asset-deferred";
    case ZSM_EVENT_ASSET_DELETED:
      return "asset-deleted";
    case ZSM_EVENT_SYNC_FINISHED:
      return "sync-finished";
    case ZSM_EVENT_STATUS_CHANGED:
      return "status-changed";
    case ZSM_EVENT_DOWNLOAD_PROGRESS:
      return "download-progress";
    case ZSM_EVENT_DOWNLOAD_FINISHED:
      return "download-finished";
    case ZSM_EVENT_LOG:
      return "log";
    default:
      return "unknown";
  }
}

zsm_config* zsm_config_new(void) {
  try {
    return new zsm_config();
  } catch (...) {
    return nullptr;
  }
}

void zsm_config_free(zsm_config* config) { delete config; }

int zsm_config_set(zsm_config* config, const char* name, const char* value, zsm_error** error) {
  return guarded(error, [&]() -> int {
    if (!config) return failArgument(error, "config is NULL");
    if (!name) return failArgument(error, "name is NULL");
    if (!value) return failArgument(error, "value is NULL");
    const std::string n = name;
    const std::string v = value;
    auto bad = [&](const std::string& expected) {
      return failArgument(error,
                          "configuration " + n + ": expected " + expected + ", got \"" + v + "\"");
    };
    long long number = 0;
    if (n == "data_folder") {
      if (v.empty()) return bad("a folder");
      config->dataFolder = v;
    } else if (n == "server_url") {
      std::string url = v;
      // The library appends "/Subscriptions/client/<endpoint>" to the URL as it is.
      while (!url.empty() && url.back() == '/') url.pop_back();
      if (url.rfind("http://", 0) != 0 && url.rfind("https://", 0) != 0)
        return bad("an http:// or https:// URL");
      config->serverUrl = url;
    } else if (n == "user") {
      config->user = v;
    } else if (n == "key") {
      config->key = v;
    } else if (n == "secret") {
      config->secret = v;
    } else if (n == "device_id") {
      config->deviceId = v;
    } else if (n == "parallel_transfers") {
      if (!parseInteger(value, 1, 16, &number)) return bad("a number from 1 to 16");
      config->parallelTransfers = static_cast<int>(number);
    } else if (n == "log_level") {
      if (v == "none" || v == "-1")
        config->logLevel = -1;
      else if (v == "error")
        config->logLevel = 0;
      else if (v == "warning" || v == "warn")
        config->logLevel = 1;
      else if (v == "notable")
        config->logLevel = 2;
      else if (v == "info")
        config->logLevel = 4;
      else if (v == "debug")
        config->logLevel = 1000;
      else if (parseInteger(value, 0, 1000, &number))
        config->logLevel = number;
      else
        return bad("none, error, warning, info, debug or a number from 0");
    } else if (n == "background_launch") {
      if (!parseBool(v, &config->backgroundLaunch)) return bad("true or false");
    } else if (n == "free_space_margin") {
      if (!parseInteger(value, 0, std::numeric_limits<long long>::max(), &number))
        return bad("a number of bytes");
      config->freeSpaceMargin = static_cast<std::uint64_t>(number);
    } else {
      return failArgument(error, "unknown configuration setting \"" + n +
                                     "\" (data_folder, server_url, user, key, secret, device_id, "
                                     "parallel_transfers, log_level, background_launch, "
                                     "free_space_margin)");
    }
    return 0;
  });
}

int zsm_host_create(const zsm_config* config, zsm_host** host, zsm_error** error) {
  return guarded(error, [&]() -> int {
    if (!config) return failArgument(error, "config is NULL");
    if (!host) return failArgument(error, "host is NULL");
    *host = nullptr;
    if (config->dataFolder.empty())
      return fail(error, ZSM_ERROR_DOMAIN, ZSM_ERROR_NOT_CONFIGURED,
                  "the configuration has no data_folder");
    zsm::CliConfig cli{config->serverUrl, config->user, config->key, config->secret,
                       config->deviceId};
    if (!cli.complete()) {
      static const std::pair<const char*, const char*> names[] = {
          {"--server", "server_url"}, {"--user", "user"}, {"--key", "key"}, {"--secret", "secret"}};
      std::string missing = cli.firstMissing();
      for (const auto& [option, setting] : names)
        if (missing == option) missing = setting;
      return fail(error, ZSM_ERROR_DOMAIN, ZSM_ERROR_NOT_CONFIGURED,
                  "the configuration has no " + missing);
    }
    std::error_code ec;
    std::filesystem::create_directories(config->dataFolder, ec);
    if (ec)
      return fail(error, ZSM_ERROR_DOMAIN, ZSM_ERROR_FILE,
                  "cannot make " + config->dataFolder + ": " + ec.message());
    std::string why;
    auto wake = WakeDescriptor::create(&why);
    if (!wake) return fail(error, ZSM_ERROR_DOMAIN, ZSM_ERROR_INTERNAL, why);
    auto made = std::make_unique<zsm_host>();
    made->config = *config;
    made->wake = std::move(wake);
    *host = made.release();
    return 0;
  });
}

int zsm_host_start(zsm_host* host, zsm_error** error) {
  return guarded(error, [&]() -> int {
    if (!host) return failArgument(error, "host is NULL");
    std::lock_guard lock(host->startMutex);
    if (host->started.load())
      return fail(error, ZSM_ERROR_DOMAIN, ZSM_ERROR_STATE, "the host has been started already");
    const zsm_config& c = host->config;
    zsm::HostOptions options;
    options.paths.root = c.dataFolder;
    options.config = zsm::CliConfig{c.serverUrl, c.user, c.key, c.secret, c.deviceId};
    options.parallelTransfers = c.parallelTransfers;
    options.freeSpaceMargin = c.freeSpaceMargin;
    options.applicationState = c.backgroundLaunch ? 2 : 0;
    options.echoLogLevel = c.logLevel;
    // The log sink and the progress listener are called on other threads; what
    // they report reaches the host through its main queue, which exists only
    // once the runtime is open. Until then nothing is reported.
    auto queueSlot = std::make_shared<std::weak_ptr<zolvani::MainQueue>>();
    auto slotMutex = std::make_shared<std::mutex>();
    auto inbox = host->inbox;
    auto toMain = [queueSlot, slotMutex, inbox](std::function<void()> task) {
      std::shared_ptr<zolvani::MainQueue> queue;
      {
        std::lock_guard l(*slotMutex);
        queue = queueSlot->lock();
      }
      if (!queue) return;
      queue->async([inbox, task = std::move(task)] {
        {
          std::lock_guard l(inbox->mutex);
          if (inbox->closed) return;
        }
        task();
      });
    };
    options.logSink = [toMain, inbox](const std::string& line, std::int64_t level) {
      toMain([inbox, line, level] {
        emit(inbox, ZSM_EVENT_LOG, {{"level", level}, {"message", line}});
      });
    };
    if (c.deviceId.empty()) {
      // The device keeps the identifier it was given first, across starts.
      zsm::HostPaths paths{c.dataFolder};
      zolvani::FileUserDefaults defaults(paths.userDefaults());
      std::string id = defaults.stringForKey(zolvani::kEngineManualDeviceUDIDKey);
      if (id.empty()) id = zolvani::newUUIDString();
      options.config.deviceId = id;
    }
    std::unique_ptr<zsm::HostRuntime> runtime;
    if (auto failure = zsm::HostRuntime::open(options, &runtime)) return fail(error, *failure);
    host->runtime = std::move(runtime);
    auto queue = host->runtime->platform().mainQueue;
    {
      std::lock_guard l(*slotMutex);
      *queueSlot = queue;
    }
    std::weak_ptr<WakeDescriptor> weakWake = host->wake;
    queue->setWakeHandler([weakWake] {
      if (auto wake = weakWake.lock()) wake->wakeNow();
    });
    auto index = std::make_shared<FeedIndex>();
    observe(host, index);
    zsm::HostRuntime* rt = host->runtime.get();
    host->runtime->setProgressListener(
        [toMain, inbox, index, rt](const zolvani::reference::AssetInfo& a) {
          const bool finished = a.state == zolvani::reference::AssetState::kComplete ||
                                a.state == zolvani::reference::AssetState::kFailed;
          // The item's feed is looked up on the driving thread, where the index
          // lives; the runtime is alive there (closing stops the delivery first).
          toMain([inbox, index, rt, finished, a] {
            nlohmann::json doc = zsm::itemJson(a, index->current(*rt));
            // A finished download may let the manager promote a deferred item.
            if (finished) index->stale = true;
            emit(inbox, finished ? ZSM_EVENT_DOWNLOAD_FINISHED : ZSM_EVENT_DOWNLOAD_PROGRESS, doc);
          });
        });
    host->wake->settle(*queue);
    host->started.store(true);
    return 0;
  });
}

int zsm_host_close(zsm_host* host) {
  if (!host) return 0;
  if (drivingHost() == host) return -1;
  try {
    {
      std::lock_guard lock(host->inbox->mutex);
      host->inbox->closed = true;
      host->inbox->eventFn = nullptr;
    }
    if (host->runtime) {
      host->runtime->setProgressListener(nullptr);
      auto& center = *host->runtime->platform().notificationCenter;
      for (auto token : host->observers) center.removeObserver(token);
      auto& queue = *host->runtime->platform().mainQueue;
      queue.setWakeHandler(nullptr);
      // Work in flight holds the manager and posts to the main queue, which the
      // manager holds in turn: let it finish (callbacks are not delivered any
      // more), so that nothing is left holding the rest once the runtime goes.
      auto& processing = *host->runtime->manager().processingQueue();
      const auto deadline = std::chrono::steady_clock::now() + kCloseDrainLimit;
      while (std::chrono::steady_clock::now() < deadline) {
        const bool idle = processing.waitUntilIdle(std::chrono::milliseconds(50));
        if (queue.pollFor(std::chrono::milliseconds(0)) == 0 && idle) break;
      }
      host->runtime.reset();
    }
  } catch (...) {
    // Closing goes on whatever failed inside; the memory is freed below.
  }
  delete host;
  return 0;
}

int zsm_host_poll(zsm_host* host, int timeout_ms) {
  if (!host || drivingHost() == host) return -1;
  if (!host->started.load()) return 0;
  try {
    auto& queue = *host->runtime->platform().mainQueue;
    zsm_host* outer = drivingHost();
    drivingHost() = host;
    std::size_t ran = 0;
    try {
      ran = queue.pollFor(std::chrono::milliseconds(timeout_ms));
    } catch (...) {
      drivingHost() = outer;
      host->wake->settle(queue);
      return -1;
    }
    drivingHost() = outer;
    host->wake->settle(queue);
    return static_cast<int>(std::min<std::size_t>(ran, std::numeric_limits<int>::max()));
  } catch (...) {
    return -1;
  }
}

int zsm_host_fd(const zsm_host* host) { return host ? host->wake->fd() : -1; }

int zsm_host_wakeup(zsm_host* host, zsm_error** error) {
  return guarded(error, [&]() -> int {
    if (!startedRuntime(host, error)) return -1;
    host->runtime->platform().mainQueue->async([] {});
    return 0;
  });
}

int zsm_host_set_event_callback(zsm_host* host, zsm_event_fn callback, void* user_data,
                                zsm_error** error) {
  return guarded(error, [&]() -> int {
    if (!host) return failArgument(error, "host is NULL");
    std::lock_guard lock(host->inbox->mutex);
    host->inbox->eventFn = callback;
    host->inbox->eventUser = user_data;
    return 0;
  });
}

}  // extern "C"
