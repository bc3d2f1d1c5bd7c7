// HostRuntime: one run of a host application. It builds what an application
// embeds at launch: the platform (main queue, notification centre, a user-defaults
// file in the host's data folder, libcurl), the reference download engine over the
// engine folder, and a subscription manager over both; and it drives the main
// queue the way an application's run loop would, until an operation's completion
// has run.
//
// A command-line invocation is not an interactive session, so by default the
// manager starts as after a background launch: it does none of its own server
// work at start-up and each command decides what goes to the server. A
// long-running host (the C interface) may present the active foreground instead.
//
// The command-line host and the C interface both build on this runtime, so a
// data folder written by one is read by the other.
//
// The runtime watches the manager's notifications (assets added, deferred and
// deleted, syncs finished, status changes) and keeps the engine logger's lines,
// so that commands can say what happened; the library reports some outcomes (a
// push update's) only there.
//
// Thread-safety: one thread (the one that opened the runtime) drives it. The
// event and log records are filled from the main queue and engine threads and
// read through the accessors, which lock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "CliConfig.h"
#include "zolvani/reference/ReferenceEngine.h"
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zsm {

struct HostOptions {
  HostPaths paths;
  CliConfig config;
  // Engine log lines at this level or more urgent are echoed to standard error;
  // negative echoes nothing.
  std::int64_t echoLogLevel = -1;
  int parallelTransfers = 2;
  // False for commands that only look (listings, status): the engine then holds
  // its queue, so no transfer starts or resumes while they run.
  bool runTransfers = true;
  // Bytes the engine keeps free on the data folder's file system.
  std::uint64_t freeSpaceMargin = 64ull * 1024 * 1024;
  // The application state the manager sees: 0 active in the foreground (start-up
  // validates and syncs), anything else a launch in the background.
  std::int64_t applicationState = 2;
  // Receives the echoed log lines (see echoLogLevel) instead of standard error;
  // called on the logging thread.
  std::function<void(const std::string& line, std::int64_t level)> logSink;
};

struct LogLine {
  std::string message;
  std::int64_t level = 0;
};

// What a notification said about one asset.
struct AssetNote {
  std::string uuid;
  std::string assetID;
  std::string description;
};

// What the manager announced since the runtime opened.
struct HostEvents {
  std::vector<AssetNote> added;
  std::vector<AssetNote> deferred;
  std::vector<std::string> deleted;  // asset UUIDs
  int syncsFinished = 0;
  std::vector<std::int64_t> statuses;  // each status the change notification carried
};

class HostRuntime {
 public:
  // Called on the main queue for each manager notification, with a short
  // human-readable line ("added: <assetID> <description>").
  using EventListener = std::function<void(const std::string& line)>;

  static std::optional<zolvani::Error> open(const HostOptions& options,
                                            std::unique_ptr<HostRuntime>* runtime);
  ~HostRuntime();
  HostRuntime(const HostRuntime&) = delete;
  HostRuntime& operator=(const HostRuntime&) = delete;

  zolvani::ZolvaniSubscriptionManager& manager() { return *manager_; }
  zolvani::reference::ReferenceEngine& engine() { return *engine_; }
  const zolvani::Platform& platform() const { return platform_; }
  const zolvani::ZolvaniEngine& roles() const { return roles_; }
  const HostOptions& options() const { return options_; }

  // Drives the main queue until `done()` holds or `timeout` passes; true when
  // `done()` held.
  bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
  // Drives the main queue for `duration`.
  void pumpFor(std::chrono::milliseconds duration);
  // Drives the main queue until the manager's processing queue has stayed
  // idle across two looks a few milliseconds apart, so that the work an
  // operation left behind it (direct items after a sync, deletions after new
  // rules) has run and announced itself; or until `timeout` passes. True when
  // it settled.
  bool settle(std::chrono::milliseconds timeout);

  void setEventListener(EventListener listener);
  HostEvents events() const;
  // Log lines captured so far; a mark taken before an operation lets a command
  // read only the lines that operation produced.
  std::size_t logMark() const;
  std::vector<LogLine> logSince(std::size_t mark) const;

  // Waits, if needed, until the request clock has moved past the second of the
  // last request this device sent (from this or an earlier run). Requests carry
  // a timestamp in whole seconds and no nonce, so two identical requests in one
  // second are indistinguishable from a replay and the server refuses the second.
  // Call before each request.
  void waitForFreshSecond();
  // The same without waiting: how long to wait before sending, the second it
  // is sent in then counting as the last request's.
  std::chrono::milliseconds freshSecondDelay();

  // Called on engine threads with each progress report of a transfer
  // (including the last, complete or failed); none when empty.
  void setProgressListener(std::function<void(const zolvani::reference::AssetInfo&)> listener);

  // The feed identifiers that have a tracking record in the store.
  std::vector<std::string> trackedFeeds();

  // The engine's assets. A download refused for lack of space says how much
  // was free when it failed and what margin the engine keeps.
  std::vector<zolvani::reference::AssetInfo> listAssets();

  // The assets that were complete when the runtime opened, or at the last
  // markCompleteBaseline(): what a progress display has no news about.
  const std::set<std::string>& completeBefore() const { return completeBefore_; }
  // The assets whose download had failed when the runtime opened.
  const std::set<std::string>& failedBefore() const { return failedBefore_; }
  void markCompleteBaseline();

  // Downloads that failed while this runtime was open, by asset UUID. The
  // library removes a failed feed item at once, so its asset may already be
  // gone from listAssets().
  std::map<std::string, zolvani::reference::AssetInfo> failedDownloads() const;

  // Whether a sync ever finished on this device. A new installation stores
  // "now" as its last sync, so the date alone cannot tell.
  bool everSynced() const;

  // Where a feed's retention rules last came from: "server" (a sync brought
  // the server's rules), "subscribe" (given to `zsm subscribe`), "settings"
  // (the global settings, at subscription); empty when not known.
  std::string rulesFrom(const std::string& feed) const;
  void noteRulesFrom(const std::string& feed, const std::string& source);

  class CapturingLogger;

 private:
  HostRuntime() = default;
  void observeManager();
  void record(const std::string& line);
  std::string deletedLine(const std::string& uuid);

  HostOptions options_;
  zolvani::Platform platform_;
  std::unique_ptr<zolvani::reference::ReferenceEngine> engine_;
  zolvani::ZolvaniEngine roles_;
  std::shared_ptr<zolvani::ZolvaniSubscriptionManager> manager_;
  std::vector<zolvani::NotificationCenter::Token> observers_;
  std::atomic<bool> requested_{false};  // whether this run sent a request

  mutable std::mutex mutex_;
  std::mutex rulesMutex_;  // one read-modify-write of the rule sources at a time
  HostEvents events_;
  std::map<std::string, zolvani::reference::AssetInfo> failures_;
  std::map<std::string, std::string> assetIds_;  // asset UUID -> asset ID, for deletions
  std::set<std::string> completeBefore_;
  std::set<std::string> failedBefore_;
  EventListener listener_;
  std::function<void(const zolvani::reference::AssetInfo&)> progressListener_;
  std::shared_ptr<CapturingLogger> logger_;
};

// The status value's name as the library's log lines spell it.
std::string statusName(std::int64_t status);

}  // namespace zsm
