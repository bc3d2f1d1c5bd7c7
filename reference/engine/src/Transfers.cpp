// The download queue and its workers: single files and HLS streams.
#include <sys/statvfs.h>

#include <algorithm>
#include <fstream>

#include <fmt/format.h>

#include "EngineCore.h"

namespace zolvani::reference {
namespace {

constexpr std::uint64_t kPlaylistLimit = 8 * 1024 * 1024;

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
  out.insert(out.end(), queue_.begin(), queue_.end());
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
        cv_.wait_for(l, std::chrono::milliseconds(250), [&] { return stopping_; });
        continue;
      }
      if (stopping_ || queue_.empty()) continue;
      std::string uuid = queue_.front();
      queue_.pop_front();
      auto it = assets_.find(uuid);
      if (it == assets_.end()) continue;
      asset = it->second;
      cancel = std::make_shared<std::atomic<bool>>(false);
      transferring_[uuid] = cancel;
    }
    persist(asset->update([](AssetFields& f) { f.state = AssetState::kTransferring; }));
    if (asset->fields().manifest)
      runStream(asset, cancel);
    else
      runSingleFile(asset, cancel);
    {
      std::lock_guard l(mutex_);
      transferring_.erase(asset->uuid());
    }
    cv_.notify_all();
  }
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
  });
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
  });
  persist(f);
  reportProgress(asset, true);
  log(fmt::format("Download of asset {} ({}) failed: {}", f.uuid, f.description,
                  error.localizedDescription()),
      0);
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
    case FetchOutcome::kFail:
    case FetchOutcome::kRetry:
      return fail(asset,
                  result.error.value_or(engineError(kEngineErrorTransfer, "The transfer failed")));
  }
}

void ReferenceEngine::Impl::runStream(const std::shared_ptr<ReferenceAsset>& asset,
                                      const std::shared_ptr<std::atomic<bool>>& cancel) {
  const AssetFields f = asset->fields();
  const std::filesystem::path folder = assetFolder(f.uuid) / "stream";
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec)
    return fail(asset,
                engineError(kEngineErrorFile, "Cannot create the asset folder: " + ec.message()));
  FetchHooks hooks = hooksFor(asset, cancel, 0);
  RetryPolicy policy{options.retryBaseDelay, options.retryMaxDelay, options.maxAttempts};
  auto sleeper = [&](std::chrono::milliseconds d) { return interruptibleSleep(d, cancel); };

  // Playlists are small: fetched into memory, retried like any transfer.
  auto fetchPlaylist = [&](const std::string& url, std::string* body, std::string* effective) {
    for (int attempt = 1;; ++attempt) {
      FetchResult r = fetchText(url, kPlaylistLimit, hooks, body, effective);
      if (r.outcome != FetchOutcome::kRetry || attempt >= policy.maxAttempts) return r;
      std::chrono::milliseconds delay = policy.baseDelay * (1LL << std::min(attempt - 1, 20));
      delay = std::min(delay, policy.maxDelay);
      if (!sleeper(delay)) return FetchResult{FetchOutcome::kStopped, std::nullopt, 0, 0};
    }
  };
  auto stopOrFail = [&](const FetchResult& r) {
    if (r.outcome == FetchOutcome::kStopped) {
      if (!cancel->load()) requeue(asset);
      return;
    }
    fail(asset, r.error.value_or(engineError(kEngineErrorTransfer, "The transfer failed")));
  };

  std::string master, masterURL;
  FetchResult r = fetchPlaylist(f.url, &master, &masterURL);
  if (r.outcome != FetchOutcome::kDone) return stopOrFail(r);
  std::string mediaURL = masterURL, media = master;
  std::int64_t bandwidth = 0;
  auto variants = parseMasterPlaylist(master);
  if (!variants.empty()) {
    auto chosen = chooseVariant(variants, f.maximumBitrate);
    bandwidth = chosen->bandwidth;
    r = fetchPlaylist(resolveURL(masterURL, chosen->uri), &media, &mediaURL);
    if (r.outcome != FetchOutcome::kDone) return stopOrFail(r);
  }
  HlsMediaPlaylist playlist;
  if (auto e = parseMediaPlaylist(media, f.includeEncryptionKeys, &playlist))
    return fail(asset, *e);
  const auto total = static_cast<std::int64_t>(playlist.resources.size());
  persist(asset->update([&](AssetFields& x) {
    x.bandwidth = bandwidth;
    x.segmentsTotal = total;
  }));

  std::uint64_t bytes = 0;
  std::int64_t done = 0;
  for (std::size_t i = 0; i < playlist.resources.size(); ++i) {
    const auto& resource = playlist.resources[i];
    const std::filesystem::path local = folder / localResourceName(resource, i);
    if (std::filesystem::exists(local, ec)) {
      bytes += std::filesystem::file_size(local, ec);
    } else {
      FetchRequest request;
      request.url = resolveURL(mediaURL, resource.uri);
      request.partPath = local.string() + ".partial";
      request.finalPath = local;
      request.expectMedia = false;
      request.freeSpaceMargin = options.freeSpaceMargin;
      request.spaceProbe = options.dataFolder;
      // A segment is small: an interrupted one starts again rather than resuming.
      std::filesystem::remove(request.partPath, ec);
      FetchHooks segmentHooks = hooksFor(asset, cancel, bytes);
      segmentHooks.progress = [this, asset, bytes](std::uint64_t d, std::uint64_t) {
        asset->update([&](AssetFields& x) { x.bytesDone = bytes + d; });
        reportProgress(asset, false);
      };
      FetchResult s = fetchWithRetry(request, segmentHooks, policy, sleeper);
      if (s.outcome != FetchOutcome::kDone) return stopOrFail(s);
      bytes += s.fileSize;
    }
    ++done;
    asset->update([&](AssetFields& x) {
      x.segmentsDone = done;
      x.bytesDone = bytes;
      x.fraction = static_cast<double>(done) / static_cast<double>(total);
    });
    reportProgress(asset, false);
  }
  const std::filesystem::path index = folder / "index.m3u8";
  const std::filesystem::path indexPart = folder / "index.m3u8.partial";
  {
    std::ofstream out(indexPart, std::ios::binary | std::ios::trunc);
    out << rewritePlaylist(playlist, mediaURL);
    out.flush();
    if (!out)
      return fail(asset, engineError(kEngineErrorFile, "Could not write the local playlist"));
  }
  std::filesystem::rename(indexPart, index, ec);
  if (ec)
    return fail(asset, engineError(kEngineErrorFile,
                                   "Could not write the local playlist: " + ec.message()));
  finish(asset, relative(f.uuid, "stream/index.m3u8"), bytes);
}

void ReferenceEngine::Impl::prepareManifest(const std::shared_ptr<ReferenceAsset>& asset,
                                            AssetReadyCallback ready, AssetParseCallback parse) {
  // Reads the playlist once so that a stream the engine cannot download (a live
  // one, a broken playlist) is refused before it is queued. A network failure
  // here does not refuse the asset: the download reads the playlist again.
  const AssetFields f = asset->fields();
  FetchHooks hooks;
  hooks.serverDate = [this](Date d) { observeServerDate(d); };
  std::string text, effective;
  std::optional<Error> error;
  bool refuse = false;
  FetchResult r = fetchText(f.url, kPlaylistLimit, hooks, &text, &effective);
  if (r.outcome == FetchOutcome::kDone) {
    auto variants = parseMasterPlaylist(text);
    if (!variants.empty()) {
      auto chosen = chooseVariant(variants, f.maximumBitrate);
      r = fetchText(resolveURL(effective, chosen->uri), kPlaylistLimit, hooks, &text, &effective);
    }
  }
  if (r.outcome == FetchOutcome::kDone) {
    HlsMediaPlaylist playlist;
    error = parseMediaPlaylist(text, f.includeEncryptionKeys, &playlist);
    refuse = error.has_value();
  } else {
    error = r.error;
    refuse = r.outcome == FetchOutcome::kFail;
  }
  if (refuse) fail(asset, *error);
  if (parse) parse(asset, error);
  if (!refuse && ready && options.callReadyCallbacks) ready(asset);
}

}  // namespace zolvani::reference
