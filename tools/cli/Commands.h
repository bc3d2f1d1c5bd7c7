// The zsm subcommands. Each takes the invocation's common context and its own
// options, runs one host operation over a fresh HostRuntime and returns the
// process exit status (0 on success; on failure one error line and the status
// of ExitStatus.h).
//
// Thread-safety: commands run on the main thread of the program, which also
// drives the manager's main queue.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CliConfig.h"
#include "HostRuntime.h"
#include "HostViews.h"
#include "Output.h"

namespace zsm {

struct CommandContext {
  HostPaths paths;
  bool json = false;
  // Engine log lines at this level or more urgent go to standard error (-1: none).
  std::int64_t logLevel = -1;
  // How long a command waits for the server before it gives up.
  std::chrono::milliseconds timeout{30000};
  // Bytes the engine keeps free on the data folder's file system beyond each
  // download; unset keeps the engine's default.
  std::optional<std::uint64_t> keepFreeBytes;

  Output output() const { return Output(json); }
};

// Opens the runtime over the configuration stored in the data folder. Commands
// that only look pass `runTransfers` false, so that no download starts or
// resumes while they run.
std::optional<zolvani::Error> openHost(const CommandContext& context,
                                       std::unique_ptr<HostRuntime>* runtime,
                                       bool runTransfers = true);

// Starts an asynchronous manager operation with `start`, handing it a `done`
// function that its completion calls, and drives the main queue until then.
// Fails with a time-out error when the completion does not run in time.
std::optional<zolvani::Error> runToCompletion(
    HostRuntime& host, const std::function<void(std::function<void()>)>& start,
    std::chrono::milliseconds timeout, const std::string& what);

// --- Configuration and settings ------------------------------------------------
struct ConfigOptions {
  std::optional<std::string> server, user, key, secret, deviceId;
  // A file whose first line is the secret; "-" reads standard input. Keeps the
  // secret out of the process list and the shell's history.
  std::optional<std::string> secretFile;
  bool reveal = false;
};
// The environment variable whose value, when set, is the secret for this
// invocation (it overrides the stored one and is never written to the data folder).
inline constexpr const char* kSecretEnvironment = "ZSM_SECRET";
int runConfig(const CommandContext& context, const ConfigOptions& options);

struct SettingsOptions {
  // Empty for "get"; otherwise the key and value of "set".
  std::string key;
  std::string value;
};
int runSettings(const CommandContext& context, const SettingsOptions& options);

int runStatus(const CommandContext& context);

// --- Subscriptions and the push update --------------------------------------------
struct SubscribeOptions {
  std::string feed;
  std::optional<std::int32_t> maxItems;
  std::optional<bool> autodelete;
  std::optional<std::int32_t> maxBitrate;
};
int runSubscribe(const CommandContext& context, const SubscribeOptions& options);

struct UnsubscribeOptions {
  std::string feed;
  bool all = false;
};
int runUnsubscribe(const CommandContext& context, const UnsubscribeOptions& options);
int runSubscriptions(const CommandContext& context);

struct PublishOptions {
  std::string title, desc, downloadURL, streamURL;
  std::optional<std::int64_t> contentSize, duration, contentType;
  std::optional<bool> contentSizeIsEstimate, downloadEnabled;
};
int runPublish(const CommandContext& context, const PublishOptions& options);

// --- Sync and wakes ---------------------------------------------------------------
struct SyncOptions {
  // Seconds to move the stored last-sync date back to, before syncing; a new
  // device's way to fetch what was published before its first launch.
  std::optional<double> since;
  bool force = false;
  bool watch = false;
  // How long --watch waits for the download queue to drain.
  std::chrono::milliseconds watchTimeout{120000};
};
int runSync(const CommandContext& context, const SyncOptions& options);

struct WakeOptions {
  bool push = false;             // a remote push notice; otherwise a background fetch
  bool subscriptionSync = true;  // the push payload's "subscription_sync"
  bool watch = false;
  std::chrono::milliseconds watchTimeout{120000};
};
int runWake(const CommandContext& context, const WakeOptions& options);

// Follows the engine's queue with a progress board until no download is queued
// or running (and stays so briefly, so that deferred items promoted by a
// finished download are followed too), or the timeout passes. Returns the final
// asset list; `drained` tells whether the queue emptied.
std::vector<zolvani::reference::AssetInfo> watchDownloads(HostRuntime& host, bool showBoard,
                                                          std::chrono::milliseconds timeout,
                                                          bool* drained);

// The downloads' outcome as a command's document shows it: {"drained",
// "complete", "failed" (in this run), "pending", "failed_before" (failed in an
// earlier run and not tried again)}. `failedThisRun` is HostRuntime::failedDownloads().
nlohmann::json downloadsSummary(
    const std::vector<zolvani::reference::AssetInfo>& assets, bool drained,
    const std::map<std::string, zolvani::reference::AssetInfo>& failedThisRun);
// The error a followed run of downloads ends with: some still running, or some
// failed in this run; none otherwise.
std::optional<zolvani::Error> downloadsOutcome(const nlohmann::json& summary,
                                               std::chrono::milliseconds timeout);

// --- The library ------------------------------------------------------------------
int runFeeds(const CommandContext& context);
struct ItemsOptions {
  std::string feed;  // only this feed's items when set
};
int runItems(const CommandContext& context, const ItemsOptions& options);

// `items retry`: failed downloads (the named ones, or all with `all`) go back
// to the queue, and the command follows them like `sync --watch`. `items
// forget`: the named items are deleted with their files, so that a later sync
// (with --since when they are older than the last one) may bring them anew.
// An item is named by its asset identifier or its UUID.
struct ItemsActionOptions {
  std::vector<std::string> ids;
  bool all = false;
  std::chrono::milliseconds watchTimeout{120000};
};
int runItemsRetry(const CommandContext& context, const ItemsActionOptions& options);
int runItemsForget(const CommandContext& context, const ItemsActionOptions& options);

// `library`: the tree of links that names each finished download by its feed
// and title (see LibraryView.h); rebuilt and listed.
int runLibrary(const CommandContext& context);
// What the commands that download call at their end, so that the view follows
// the downloads without being asked; a failure is a warning on standard error.
void refreshLibrary(const CommandContext& context, HostRuntime& host);
int runDeferred(const CommandContext& context);

// --- The demo ----------------------------------------------------------------------
struct DemoOptions {
  std::string serverProgram;  // zsm-server; found next to zsm when empty
  std::string workFolder;     // a new temporary folder when empty
  // Bytes per second per connection on the link between device and server, so
  // that downloads take long enough to watch; 0 connects them directly.
  std::uint64_t linkRate = 160 * 1024;
};
int runDemo(const CommandContext& context, const DemoOptions& options, const char* argv0);

}  // namespace zsm
