// The download queue and its workers, and single-file downloads.
#include <sys/statvfs.h>

#include <algorithm>
#include <fstream>

#include <fmt/format.h>

#include "EngineCore.h"

namespace zolvani::reference {
namespace {

// The longest an asset waits between attempts after transient failures.
constexpr std::chrono::milliseconds kLongestBackoff = std::chrono::hours(1);

std::string relative(const std::string& uuid, const std::string& name) {
  return "media/" + uuid + "/" + name;
}

}  // namespace

std::optional<Error> ReferenceEngine::Impl::enqueue(const std::shared_ptr<ZolvaniAsset>& given) {
  if (!given) return engineError(kEngineErrorUnknownAsset, "No asset was given");
  std::unique_lock l(mutex_);
  auto it = assets_.find(given->uuid());
  if (it == assets_.end() || it->second->fields().state == AssetState::kGone)
    return engineError(kEngineErrorUnknownAsset,
                       "The asset " + given->uuid() + " is not this engine's");
  auto asset = it->second;
  AssetFields f = asset->fields();
  if (f.state == AssetState::kComplete || f.state == AssetState::kTransferring ||
      f.state == AssetState::kQueued)
    return std::nullopt;  // already downloaded or on its way: queueing twice changes nothing
  const std::int64_t pos = nextQueuePos_++;
  f = asset->update([&](AssetFields& x) {
    x.state = AssetState::kQueued;
    x.queuePos = pos;
    x.errorCode = 0;
    x.errorText.clear();
  });
  queue_.push_back(f.uuid);
  l.unlock();
  persist(f);
  cv_.notify_all();
  return std::nullopt;
}

std::vector<std::string> ReferenceEngine::Impl::queueSnapshot() const {
  std::lock_guard l(mutex_);
  std::vector<std::string> out;
  for (const auto& [uuid, cancel] : transferring_) out.push_back(uuid);
  // An asset put back after a transient failure is queued a moment before
  // its worker lets go of it: it is listed once, as transferring.
  for (const auto& uuid : queue_)
    if (!transferring_.count(uuid)) out.push_back(uuid);
  return out;
}

std::vector<std::shared_ptr<ZolvaniAsset>> ReferenceEngine::Impl::processing() const {
  std::lock_guard l(mutex_);
  std::vector<std::shared_ptr<ZolvaniAsset>> out;
  for (const auto& [uuid, cancel] : transferring_)
    if (auto it = assets_.find(uuid); it != assets_.end()) out.push_back(it->second);
  for (const auto& uuid : preparing_)
    if (auto it = assets_.find(uuid); it != assets_.end() && !transferring_.count(uuid))
      out.push_back(it->second);
  return out;
}

bool ReferenceEngine::Impl::waitUntilIdle(std::chrono::milliseconds timeout) {
  std::unique_lock l(mutex_);
  return cv_.wait_for(l, timeout, [&] { return queue_.empty() && transferring_.empty(); });
}

bool ReferenceEngine::Impl::interruptibleSleep(std::chrono::milliseconds delay,
                                               const std::shared_ptr<std::atomic<bool>>& cancel) {
  std::unique_lock l(mutex_);
  cv_.wait_for(l, delay, [&] { return stopping_ || cancel->load(); });
  return !stopping_ && !cancel->load();
}

void ReferenceEngine::Impl::worker() {
  for (;;) {
    std::shared_ptr<ReferenceAsset> asset;
    std::shared_ptr<std::atomic<bool>> cancel;
    {
      std::unique_lock l(mutex_);
      cv_.wait_for(l, std::chrono::milliseconds(500), [&] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      if (queue_.empty()) continue;
      l.unlock();
      const bool online = reachabilityStatus() != 0;
      l.lock();
      if (!online) {
        // Offline: the queue waits; the reachability check runs again shortly.
        offlineCv_.wait_for(l, std::chrono::milliseconds(250), [&] { return stopping_; });
        continue;
      }
      if (stopping_ || queue_.empty()) continue;
      // The first queued asset that is not waiting out a transient failure.
      const auto now = std::chrono::steady_clock::now();
      auto next = queue_.end();
      auto wake = now + std::chrono::milliseconds(500);
      for (auto q = queue_.begin(); q != queue_.end(); ++q) {
        auto b = backoff_.find(*q);
        if (b == backoff_.end() || b->second.notBefore <= now) {
          next = q;
          break;
        }
        wake = std::min(wake, b->second.notBefore);
      }
      if (next == queue_.end()) {
        cv_.wait_until(l, wake);
        continue;
      }
      std::string uuid = *next;
      queue_.erase(next);
      auto it = assets_.find(uuid);
      if (it == assets_.end()) continue;
      asset = it->second;
      cancel = std::make_shared<std::atomic<bool>>(false);
      transferring_[uuid] = cancel;
    }
    persist(asset->update([](AssetFields& f) { f.state = AssetState::kTransferring; }));
    runTransfer(asset, cancel);
    {
      std::lock_guard l(mutex_);
      transferring_.erase(asset->uuid());
    }
    cv_.notify_all();
  }
}

void ReferenceEngine::Impl::runTransfer(const std::shared_ptr<ReferenceAsset>& asset,
                                        const std::shared_ptr<std::atomic<bool>>& cancel) {
  if (asset->fields().manifest)
    runStream(asset, cancel);
  else
    runSingleFile(asset, cancel);
}

FetchHooks ReferenceEngine::Impl::hooksFor(const std::shared_ptr<ReferenceAsset>& asset,
                                           const std::shared_ptr<std::atomic<bool>>& cancel,
                                           std::uint64_t base) {
  FetchHooks hooks;
  hooks.shouldStop = [this, cancel] {
    if (cancel->load()) return true;
    {
      std::lock_guard l(mutex_);
      if (stopping_) return true;
    }
    return reachabilityStatus() == 0;  // offline: pause, resume when back
  };
  hooks.serverDate = [this](Date d) { observeServerDate(d); };
  const bool stream = asset->fields().manifest;
  hooks.progress = [this, asset, base, stream](std::uint64_t done, std::uint64_t total) {
    asset->update([&](AssetFields& f) {
      f.bytesDone = base + done;
      if (!stream) {
        f.bytesTotal = total;
        f.fraction =
            total ? std::min(1.0, static_cast<double>(done) / static_cast<double>(total)) : 0.0;
      }
    });
    reportProgress(asset, false);
  };
  if (!stream) {
    hooks.validator = [this, asset](const std::string& etag, const std::string& lastModified) {
      // Committed before the first byte: a restarted process must know which
      // version its partial file belongs to.
      persist(asset->update([&](AssetFields& f) {
        f.etag = etag;
        f.lastModified = lastModified;
        f.bytesDone = 0;
      }));
      store.flush();
    };
  }
  return hooks;
}

void ReferenceEngine::Impl::reportProgress(const std::shared_ptr<ReferenceAsset>& asset,
                                           bool persistNow) {
  const auto now = std::chrono::steady_clock::now();
  bool doPersist = persistNow, doReport = persistNow;
  {
    std::lock_guard l(progressMutex);
    auto& persisted = lastPersist_[asset->uuid()];
    if (persisted.time_since_epoch().count() == 0) persisted = now;
    if (now - persisted >= options.progressPersistInterval) {
      doPersist = true;
      persisted = now;
    }
    auto& reported = lastProgress_[asset->uuid()];
    if (now - reported >= std::chrono::milliseconds(250)) {
      doReport = true;
      reported = now;
    }
  }
  AssetFields f = asset->fields();
  if (doPersist) persist(f);
  if (doReport) {
    ProgressCallback cb;
    {
      std::lock_guard l(progressMutex);
      cb = progressCallback;
    }
    if (cb) cb(info(f));
  }
}

void ReferenceEngine::Impl::requeue(const std::shared_ptr<ReferenceAsset>& asset) {
  AssetFields f = asset->update([](AssetFields& x) { x.state = AssetState::kQueued; });
  persist(f);
  std::lock_guard l(mutex_);
  if (!stopping_ && assets_.count(f.uuid)) queue_.push_front(f.uuid);
}

void ReferenceEngine::Impl::finish(const std::shared_ptr<ReferenceAsset>& asset,
                                   const std::string& localPath, std::uint64_t bytes) {
  const Date when = secureDate();
  AssetFields f = asset->update([&](AssetFields& x) {
    x.state = AssetState::kComplete;
    x.fraction = 1.0;
    x.bytesDone = bytes;
    x.bytesTotal = bytes;
    x.downloadComplete = when;
    x.localPath = localPath;
    x.queuePos = 0;
    x.errorCode = 0;
    x.errorText.clear();
    x.retryFailures = 0;
    x.retryBytes = 0;
    x.retryNotBefore = 0;
  });
  {
    std::lock_guard l(mutex_);
    backoff_.erase(f.uuid);
  }
  persist(f);
  // A finished download is committed at once: its partial file is gone, so a
  // restart that did not know it finished would fetch it all again.
  store.flush();
  reportProgress(asset, true);
  log(fmt::format("Finished downloading asset {} ({}), {} bytes", f.uuid, f.description, bytes), 4);
  post(kDownloadEngineDidFinishDownloadingAssetNotification);
}

void ReferenceEngine::Impl::fail(const std::shared_ptr<ReferenceAsset>& asset, const Error& error) {
  AssetFields f = asset->update([&](AssetFields& x) {
    x.state = AssetState::kFailed;
    x.queuePos = 0;
    x.errorCode = error.code;
    x.errorText = error.localizedDescription();
    x.retryFailures = 0;
    x.retryBytes = 0;
    x.retryNotBefore = 0;
  });
  {
    std::lock_guard l(mutex_);
    backoff_.erase(f.uuid);
  }
  persist(f);
  reportProgress(asset, true);
  log(fmt::format("Download of asset {} ({}) failed: {}", f.uuid, f.description,
                  error.localizedDescription()),
      0);
}

void ReferenceEngine::Impl::deferTransient(const std::shared_ptr<ReferenceAsset>& asset,
                                           const Error& error) {
  const std::string uuid = asset->uuid();
  const std::uint64_t bytes = asset->fields().bytesDone;
  Backoff b;
  std::chrono::milliseconds delay{0};
  {
    std::lock_guard l(mutex_);
    if (auto it = backoff_.find(uuid); it != backoff_.end()) b = it->second;
    // Bytes that arrived since the last deferral show the server is alive:
    // the wait starts short again.
    if (bytes > b.bytesAtFailure) b.failures = 0;
    b.bytesAtFailure = bytes;
    ++b.failures;
    delay = std::max(options.retryMaxDelay, std::chrono::milliseconds(1));
    for (int i = 1; i < b.failures && delay < kLongestBackoff; ++i) delay *= 2;
    delay = std::min(delay, kLongestBackoff);
    b.notBefore = std::chrono::steady_clock::now() + delay;
    if (assets_.count(uuid)) backoff_[uuid] = b;
  }
  // The wait is kept with the asset: a restart resumes it rather than
  // retrying every waiting asset at once.
  const double notBefore =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch() + delay)
          .count();
  AssetFields f = asset->update([&](AssetFields& x) {
    x.state = AssetState::kQueued;
    x.errorCode = error.code;
    x.errorText = error.localizedDescription();
    x.retryFailures = b.failures;
    x.retryBytes = b.bytesAtFailure;
    x.retryNotBefore = notBefore;
  });
  persist(f);
  reportProgress(asset, true);
  {
    std::lock_guard l(mutex_);
    if (stopping_ || !assets_.count(f.uuid)) return;
    queue_.push_front(f.uuid);  // keeps its place; others run while it waits
  }
  cv_.notify_all();
  log(fmt::format("Download of asset {} ({}) waits {} ms after a transient failure: {}", f.uuid,
                  f.description, delay.count(), error.localizedDescription()),
      2);
}

void ReferenceEngine::Impl::runSingleFile(const std::shared_ptr<ReferenceAsset>& asset,
                                          const std::shared_ptr<std::atomic<bool>>& cancel) {
  const AssetFields f = asset->fields();
  const std::filesystem::path folder = assetFolder(f.uuid);
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec)
    return fail(asset,
                engineError(kEngineErrorFile, "Cannot create the asset folder: " + ec.message()));
  FetchRequest request;
  request.url = f.url;
  request.partPath = folder / "content.partial";
  request.finalPath = folder / "content";
  request.etag = f.etag;
  request.lastModified = f.lastModified;
  request.textBodyLimit = options.textBodyLimit;
  request.freeSpaceMargin = options.freeSpaceMargin;
  request.spaceProbe = options.dataFolder;
  RetryPolicy policy{options.retryBaseDelay, options.retryMaxDelay, options.maxAttempts};
  auto result =
      fetchWithRetry(request, hooksFor(asset, cancel, 0), policy,
                     [&](std::chrono::milliseconds d) { return interruptibleSleep(d, cancel); });
  switch (result.outcome) {
    case FetchOutcome::kDone:
      return finish(asset, relative(f.uuid, "content"), result.fileSize);
    case FetchOutcome::kStopped:
      if (!cancel->load())
        requeue(asset);
      else
        persist(asset->fields());
      return;
    case FetchOutcome::kRetry:
      return deferTransient(
          asset, result.error.value_or(engineError(kEngineErrorTransfer, "The transfer failed")));
    case FetchOutcome::kFail:
      return fail(asset,
                  result.error.value_or(engineError(kEngineErrorTransfer, "The transfer failed")));
  }
}

}  // namespace zolvani::reference
