// The C interface's immediate operations: settings, status and what the device
// holds, answered on the calling thread from the user defaults, the feed store
// and the engine, none of which needs the main queue.
#include <cmath>
#include <map>

#include "CapiHost.h"
#include "HostViews.h"
#include "LibraryView.h"
#include "zolvani/subscription/Constants.h"

namespace {

using namespace zsm::capi;

// Runs `body` with the host's started runtime; `out` is checked when given.
template <class Body>
int query(zsm_host* host, char** out, zsm_error** error, Body&& body) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!out) return failArgument(error, "json is NULL");
    return giveJson(out, body(*rt));
  });
}

template <class Body>
int change(zsm_host* host, zsm_error** error, Body&& body) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (int refused = body(*rt); refused != 0) return refused;
    if (!rt->platform().userDefaults->synchronize())
      return fail(error, ZSM_ERROR_DOMAIN, ZSM_ERROR_FILE,
                  "the user-defaults file could not be written");
    return 0;
  });
}

}  // namespace

extern "C" {

int zsm_host_settings(zsm_host* host, char** json, zsm_error** error) {
  return query(host, json, error, [](zsm::HostRuntime& rt) {
    auto& m = rt.manager();
    nlohmann::json doc = {
        {"max-items", m.maximumSubscriptionItemsPerFeed()},
        {"autodelete", m.autodeleteOldItems()},
        {"max-bitrate", m.maxBitrate()},
        {"verbose", rt.platform().userDefaults->boolForKey(zolvani::kVerboseKeelhallLoggingKey)}};
    if (auto last = m.lastSubscriptionSyncTime())
      doc["last-sync"] = last->secondsSince1970;
    else
      doc["last-sync"] = nullptr;
    return doc;
  });
}

int zsm_host_set_max_items(zsm_host* host, int32_t value, zsm_error** error) {
  return change(host, error, [&](zsm::HostRuntime& rt) {
    if (value < 0) return failArgument(error, "max items must be 0 (no limit) or more");
    rt.manager().setMaximumSubscriptionItemsPerFeed(value);
    return 0;
  });
}

int zsm_host_set_autodelete(zsm_host* host, int value, zsm_error** error) {
  return change(host, error, [&](zsm::HostRuntime& rt) {
    rt.manager().setAutodeleteOldItems(value != 0);
    return 0;
  });
}

int zsm_host_set_max_bitrate(zsm_host* host, int32_t value, zsm_error** error) {
  return change(host, error, [&](zsm::HostRuntime& rt) {
    if (value < 0) return failArgument(error, "max bitrate must be 0 (no cap) or more");
    rt.manager().setMaxBitrate(value);
    return 0;
  });
}

int zsm_host_set_last_sync(zsm_host* host, double seconds, zsm_error** error) {
  return change(host, error, [&](zsm::HostRuntime& rt) {
    if (!std::isfinite(seconds)) return failArgument(error, "the last-sync date must be finite");
    // The manager has no setter for this date; a host moves it through the
    // exported key, for example to fetch what a new device would skip.
    rt.platform().userDefaults->setDate(zolvani::LastSyncKey, zolvani::Date(seconds));
    return 0;
  });
}

int zsm_host_set_verbose(zsm_host* host, int value, zsm_error** error) {
  return change(host, error, [&](zsm::HostRuntime& rt) {
    rt.platform().userDefaults->setBool(zolvani::kVerboseKeelhallLoggingKey, value != 0);
    return 0;
  });
}

int zsm_host_last_sync(zsm_host* host, double* seconds, zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!seconds) return failArgument(error, "seconds is NULL");
    auto last = rt->manager().lastSubscriptionSyncTime();
    if (!last) return fail(error, ZSM_ERROR_DOMAIN, ZSM_ERROR_STATE, "no last-sync date is stored");
    *seconds = last->secondsSince1970;
    return 0;
  });
}

int zsm_host_status(zsm_host* host, char** json, zsm_error** error) {
  return query(host, json, error, [](zsm::HostRuntime& rt) {
    auto& m = rt.manager();
    std::map<std::string, int> states;
    for (const auto& a : rt.listAssets())
      ++states[std::string(zolvani::reference::assetStateName(a.state))];
    const zsm::CliConfig& config = rt.options().config;
    nlohmann::json doc = {{"server", config.serverUrl},
                          {"user", config.user},
                          {"device_id", config.deviceId},
                          {"status", m.status()},
                          {"status_name", zsm::statusName(m.status())},
                          {"started", m.started()},
                          {"in_sync", m.inSync()},
                          {"assets", states},
                          {"feeds", rt.trackedFeeds()}};
    // A new installation stores its first start as its last sync; until a sync
    // has finished there is no date worth showing.
    const bool synced = rt.everSynced();
    doc["synced"] = synced;
    auto last = m.lastSubscriptionSyncTime();
    doc["last_sync"] = last && synced ? nlohmann::json(last->secondsSince1970) : nullptr;
    return doc;
  });
}

int zsm_host_feeds(zsm_host* host, char** json, zsm_error** error) {
  return query(host, json, error, [](zsm::HostRuntime& rt) { return zsm::feedsJson(rt); });
}

int zsm_host_items(zsm_host* host, const char* feed, char** json, zsm_error** error) {
  return query(host, json, error, [&](zsm::HostRuntime& rt) {
    return zsm::itemsJson(rt, feed ? std::string(feed) : std::string());
  });
}

int zsm_host_deferred(zsm_host* host, char** json, zsm_error** error) {
  return query(host, json, error, [](zsm::HostRuntime& rt) {
    return nlohmann::json(rt.manager().deferredEpisodes());
  });
}

int zsm_host_pending_downloads(zsm_host* host, int64_t* count, zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!count) return failArgument(error, "count is NULL");
    std::int64_t n = 0;
    for (const auto& a : rt->listAssets())
      n += a.state == zolvani::reference::AssetState::kQueued ||
           a.state == zolvani::reference::AssetState::kTransferring;
    *count = n;
    return 0;
  });
}

}  // extern "C"

int zsm_host_update_library(zsm_host* host, char** json, zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!json) return failArgument(error, "json is NULL");
    const auto root = rt->options().paths.library();
    std::vector<zsm::LibraryEntry> entries;
    if (auto failure = zsm::updateLibrary(*rt, root, &entries)) return fail(error, *failure);
    return giveJson(json, zsm::libraryJson(root, entries));
  });
}
