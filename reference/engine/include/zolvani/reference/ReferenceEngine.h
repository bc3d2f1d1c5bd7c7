// ReferenceEngine: a real download engine behind the engine contract.
//
// It keeps assets, the download queue, asset-data records and the feed store's
// SubscriptionData records in one SQLite database (WAL) inside its data folder,
// downloads single files and HLS video-on-demand renditions over libcurl with
// resume and retry, and plays every other role of the contract (server
// configuration, device identifier, logger, secure clock, reachability,
// keep-alive bookkeeping, event-handler registry). A host builds one, calls
// start(), and hands roles() to the subscription manager.
//
// Every file the engine writes lives inside the data folder and is named from
// the engine's own UUIDs, never from identifiers or URLs that a server sent.
//
// One engine per data folder: start() takes an advisory lock on `engine.lock`
// in the folder and keeps it until the engine is destroyed (role objects
// that outlive it no longer count), so that a second
// host on the same folder (another process, or another engine in this one)
// is refused with kEngineErrorFolderInUse, naming the holder's process
// identifier and program, instead of adding every item a second time.
//
// Thread-safety: every member may be called from any thread once start() has
// returned. Callbacks (progress, ready, parse) run on engine threads and must not
// block for long.
#pragma once

#include "zolvani/subscription/Export.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zolvani/subscription/Date.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/engine/EngineRoles.h"
#include "zolvani/subscription/platform/DispatchQueue.h"
#include "zolvani/subscription/platform/NotificationCenter.h"

namespace zolvani::reference {

// The error domain of every error the engine reports.
inline constexpr std::string_view kReferenceEngineErrorDomain = "ZolvaniReferenceEngine";

// Error codes in kReferenceEngineErrorDomain.
enum ReferenceEngineErrorCode : std::int64_t {
  kEngineErrorStore = 1,          // the database could not be opened or written
  kEngineErrorBadURL = 2,         // not an http or https URL
  kEngineErrorHttpStatus = 3,     // the server refused (401, 403, 404, ...)
  kEngineErrorTransfer = 4,       // the transfer failed after every retry
  kEngineErrorSizeMismatch = 5,   // fewer or more bytes than Content-Length announced
  kEngineErrorNotMedia = 6,       // a small text body where media was expected
  kEngineErrorNoSpace = 7,        // not enough free space for the transfer
  kEngineErrorLivePlaylist = 8,   // an HLS playlist without an end (live streams)
  kEngineErrorBadPlaylist = 9,    // an HLS playlist that could not be read
  kEngineErrorUnknownAsset = 10,  // no such asset
  kEngineErrorNotStarted = 11,    // the engine has not been started
  kEngineErrorFile = 12,          // a local file could not be written
  kEngineErrorFolderInUse = 13,   // another engine (in this or another process) has the folder
};

struct ZSM_EXPORT ReferenceEngineOptions {
  // Where the database, the logs and the downloaded media live. Created if needed.
  std::filesystem::path dataFolder;
  // Transfers that may run at the same time.
  int parallelTransfers = 2;
  // Where the engine posts its notifications; none when null.
  std::shared_ptr<NotificationCenter> notificationCenter;
  // The queue the notifications are posted from; posted from an engine thread
  // when null.
  std::shared_ptr<DispatchQueue> notificationQueue;
  // Forces reachability: true online, false offline; detected when unset.
  std::optional<bool> reachabilityOverride;
  // Bytes that must stay free on the data folder's file system after a transfer.
  std::uint64_t freeSpaceMargin = 64ull * 1024 * 1024;

  // Server configuration as the host set it up (the ZolvaniKeelhall role). When
  // `user` is not empty, start() also starts the engine with it.
  bool keelhallEnabled = true;
  std::string keelhallURL, user, externalDeviceID, secret, key;

  // Logger: contract levels above this one are not written (0 error, 1 warning,
  // 2 notable, 4 information, larger values debug).
  std::int64_t logLevelLimit = 4;
  std::size_t logFileBytes = 5 * 1024 * 1024;
  std::size_t logFiles = 3;

  // Retry policy: a failed transfer is retried after retryBaseDelay, doubling
  // each attempt, at most maxAttempts times in a row without new bytes.
  std::chrono::milliseconds retryBaseDelay{500};
  std::chrono::milliseconds retryMaxDelay{30000};
  int maxAttempts = 6;
  // How often a running transfer's progress is written to the database.
  std::chrono::milliseconds progressPersistInterval{3000};
  // Store writes are grouped into commits. A commit lands once no write came
  // for `commitQuiet`, and at most `commitWithin` after the first write it
  // holds; the end of a download, an ETag before a transfer and a deletion
  // commit at once. A crash loses at most the writes of the last window, whole
  // steps only; longer windows write less often.
  std::chrono::milliseconds commitQuiet{20};
  std::chrono::milliseconds commitWithin{250};
  // Bodies of a text/* type no larger than this fail as not media.
  std::uint64_t textBodyLimit = 64 * 1024;
  // Calls the ready callbacks of new single-file assets (manifest assets call
  // theirs once their playlist was read).
  bool callReadyCallbacks = true;
};

enum class AssetState { kCreated, kQueued, kTransferring, kComplete, kFailed, kGone };

ZSM_EXPORT std::string_view assetStateName(AssetState state);

// What a host sees of one asset.
struct ZSM_EXPORT AssetInfo {
  std::string uuid, assetID, description, url;
  bool manifest = false;
  AssetState state = AssetState::kCreated;
  double fractionComplete = 0;
  std::uint64_t bytesDone = 0, bytesTotal = 0;
  Date creationDate;
  std::optional<Date> downloadCompleteDateTime;
  // The downloaded file, or for a stream its local playlist; empty until complete.
  std::filesystem::path localPath;
  // The last failure, if any.
  std::optional<Error> lastError;
  // For streams: the variant chosen and segments done out of total.
  std::int64_t chosenBandwidth = 0;
  std::int64_t segmentsDone = 0, segmentsTotal = 0;
};

// Called while a transfer runs, at most a few times a second per asset.
using ProgressCallback = std::function<void(const AssetInfo&)>;

class ZSM_EXPORT ReferenceEngine {
 public:
  explicit ReferenceEngine(ReferenceEngineOptions options);
  ~ReferenceEngine();
  ReferenceEngine(const ReferenceEngine&) = delete;
  ReferenceEngine& operator=(const ReferenceEngine&) = delete;

  // Locks the data folder, opens the store, reconciles it with the files on
  // disk (transfers that were running go back to the queue; completed assets
  // whose files vanished are treated as gone; media folders no asset owns are
  // removed) and starts the transfer workers.
  std::optional<Error> start();
  // Stops the transfer workers; partial files stay for a later resume.
  void stop();
  // Commits every store write made so far, now rather than at the end of its
  // window (a host about to be suspended calls it). False when the commit
  // failed; the writes then stay pending for the next one.
  bool flush();

  // The contract's roles, for the subscription manager.
  ZolvaniEngine roles();

  // --- Host-facing inspection ------------------------------------------------
  std::vector<AssetInfo> listAssets() const;
  std::optional<AssetInfo> assetInfo(const std::string& uuid) const;
  // Blocks until no asset is queued or transferring, or the timeout passes;
  // true when the queue drained.
  bool waitUntilIdle(std::chrono::milliseconds timeout);
  void setProgressCallback(ProgressCallback callback);
  // Changes the reachability override at run time.
  void setReachabilityOverride(std::optional<bool> online);
  // Records an asset's download as complete without transferring it (an import).
  bool markDownloaded(const std::string& uuid, Date when);
  // Records the Date header of a server reply; the secure clock follows it.
  void observeServerDate(Date serverDate);
  // Keep-alive tasks now open, by name, with their counts.
  std::vector<std::pair<std::string, int>> keepAliveTasks() const;

  // Forwards background events to the registered handlers that are still alive.
  // Returns how many handlers received the event.
  int deliverRemotePush(const Value::Map& payload,
                        std::function<void(BackgroundFetchResult)> completion);
  int deliverBackgroundFetch(std::function<void(BackgroundFetchResult)> completion);
  int deliverSessionWake(const std::string& identifier, std::function<void()> completion);

  const std::filesystem::path& dataFolder() const;

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace zolvani::reference
