// Stream downloads: the manifest is planned by its format's reader, then every
// planned resource is fetched into the asset's stream folder and the local
// manifests are written last, so that a finished folder always plays.
#include <fstream>
#include <mutex>

#include <fmt/format.h>

#include "EngineCore.h"
#include "manifest/LocalNames.h"
#include "manifest/Manifest.h"

namespace zolvani::reference {
namespace {

constexpr const char* kValidatorSuffix = ".validator";

// The validator of a partial resource, kept beside it so that a resource cut
// short by an outage or a restart resumes instead of starting again.
void readValidator(const std::filesystem::path& path, FetchRequest* request) {
  std::ifstream in(path);
  std::getline(in, request->etag);
  std::getline(in, request->lastModified);
}

void writeValidator(const std::filesystem::path& path, const std::string& etag,
                    const std::string& lastModified) {
  std::ofstream out(path, std::ios::trunc);
  out << etag << "\n" << lastModified << "\n";
}

std::optional<Error> writeFileAtomically(const std::filesystem::path& path,
                                         const std::string& text) {
  const std::filesystem::path part = path.string() + ".partial";
  {
    std::ofstream out(part, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) return engineError(kEngineErrorFile, "Could not write " + path.filename().string());
  }
  std::error_code ec;
  std::filesystem::rename(part, path, ec);
  if (ec)
    return engineError(kEngineErrorFile,
                       "Could not write " + path.filename().string() + ": " + ec.message());
  return std::nullopt;
}

PlanRequest planRequestFor(const AssetFields& f) {
  return {f.url, f.maximumBitrate, f.includeEncryptionKeys};
}

}  // namespace

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
  const RetryPolicy policy{options.retryBaseDelay, options.retryMaxDelay, options.maxAttempts};
  auto sleeper = [&](std::chrono::milliseconds d) { return interruptibleSleep(d, cancel); };
  const PlanLimits limits;

  // Manifests are small: fetched into memory, retried like any transfer.
  DocumentLoader load = [&](const std::string& url, ManifestDocument* document) {
    for (int attempt = 1;; ++attempt) {
      std::string effective;
      FetchResult r = fetchText(url, limits.maxManifestBytes, hooks, &document->text, &effective);
      if (r.outcome == FetchOutcome::kDone) {
        document->url = effective;
        document->contentType = r.contentType;
        return r;
      }
      if (r.outcome != FetchOutcome::kRetry || attempt >= policy.maxAttempts) return r;
      std::chrono::milliseconds delay = policy.baseDelay * (1LL << std::min(attempt - 1, 20));
      delay = std::min(delay, policy.maxDelay);
      if (!sleeper(delay)) return FetchResult{FetchOutcome::kStopped, std::nullopt, 0, 0};
    }
  };
  auto settle = [&](const FetchResult& r) {
    const Error error = r.error.value_or(engineError(kEngineErrorTransfer, "The transfer failed"));
    switch (r.outcome) {
      case FetchOutcome::kStopped:
        if (!cancel->load()) requeue(asset);
        return;
      case FetchOutcome::kRetry:
        return deferTransient(asset, error);
      case FetchOutcome::kFail:
      case FetchOutcome::kDone:
        return fail(asset, error);
    }
  };

  MediaPlan plan;
  FetchResult r = planStream(planRequestFor(f), limits, load, &plan);
  if (r.outcome != FetchOutcome::kDone) return settle(r);
  const auto total = static_cast<std::int64_t>(plan.resourceCount());
  persist(asset->update([&](AssetFields& x) {
    x.bandwidth = plan.bandwidth;
    x.segmentsTotal = total;
  }));

  // The asset's row is committed before the stream's first byte, as a
  // single file's is: a restart then finds the asset that owns the folder.
  // The commit waits for an admission still open (the library recording the
  // new item in its feed), so it never lands the asset without its record.
  auto committed = std::make_shared<std::once_flag>();
  const std::function<void()> commitBeforeFirstByte = [this, committed] {
    std::call_once(*committed, [this] { store.flush(); });
  };
  std::uint64_t bytes = 0;
  std::int64_t done = 0;
  for (const auto& rendition : plan.renditions) {
    for (const auto& resource : rendition.resources) {
      if (!isPlainFileName(resource.localName))
        return fail(asset, engineError(kEngineErrorFile, "Bad local name " + resource.localName));
      const std::filesystem::path local = folder / resource.localName;
      if (std::filesystem::exists(local, ec)) {
        bytes += std::filesystem::file_size(local, ec);
      } else {
        FetchRequest request;
        request.url = resource.url;
        request.range = resource.range;
        request.partPath = local.string() + ".partial";
        request.finalPath = local;
        request.expectMedia = false;
        request.freeSpaceMargin = options.freeSpaceMargin;
        request.spaceProbe = options.dataFolder;
        const std::filesystem::path validator = request.partPath.string() + kValidatorSuffix;
        if (resource.range || !std::filesystem::exists(request.partPath, ec))
          std::filesystem::remove(request.partPath, ec);  // a range is small: it starts again
        else
          readValidator(validator, &request);
        FetchHooks resourceHooks = hooksFor(asset, cancel, bytes);
        resourceHooks.progress = [this, asset, bytes](std::uint64_t d, std::uint64_t) {
          asset->update([&](AssetFields& x) { x.bytesDone = bytes + d; });
          reportProgress(asset, false);
        };
        if (!resource.range) {
          resourceHooks.validator = [validator](const std::string& etag,
                                                const std::string& lastModified) {
            writeValidator(validator, etag, lastModified);
          };
        }
        resourceHooks.beforeFirstByte = commitBeforeFirstByte;
        FetchResult s = fetchWithRetry(request, resourceHooks, policy, sleeper);
        if (s.outcome != FetchOutcome::kDone) return settle(s);
        std::filesystem::remove(validator, ec);
        bytes += s.fileSize;
      }
      ++done;
      asset->update([&](AssetFields& x) {
        x.segmentsDone = done;
        x.bytesDone = bytes;
        x.fraction =
            static_cast<double>(done) / static_cast<double>(std::max<std::int64_t>(total, 1));
      });
      reportProgress(asset, false);
    }
  }
  // The entry point goes last: its presence means every other file is in place.
  for (const auto& manifest : plan.manifests) {
    if (!isPlainFileName(manifest.name))
      return fail(asset, engineError(kEngineErrorFile, "Bad local name " + manifest.name));
    if (auto e = writeFileAtomically(folder / manifest.name, manifest.text)) return fail(asset, *e);
  }
  finish(asset, "media/" + f.uuid + "/stream/" + plan.entry().name, bytes);
}

void ReferenceEngine::Impl::prepareManifest(const std::shared_ptr<ReferenceAsset>& asset,
                                            AssetReadyCallback ready, AssetParseCallback parse) {
  // Plans the download once so that a stream the engine cannot download (a live
  // one, a broken manifest) is refused before it is queued. A network failure
  // here does not refuse the asset: the download reads the manifests again.
  const AssetFields f = asset->fields();
  FetchHooks hooks;
  hooks.serverDate = [this](Date d) { observeServerDate(d); };
  const PlanLimits limits;
  DocumentLoader load = [&](const std::string& url, ManifestDocument* document) {
    std::string effective;
    FetchResult r = fetchText(url, limits.maxManifestBytes, hooks, &document->text, &effective);
    document->url = effective;
    document->contentType = r.contentType;
    return r;
  };
  MediaPlan plan;
  FetchResult r = planStream(planRequestFor(f), limits, load, &plan);
  std::optional<Error> error = r.error;
  const bool refuse = r.outcome == FetchOutcome::kFail;
  if (refuse) fail(asset, *error);
  if (parse) parse(asset, error);
  if (!refuse && ready && options.callReadyCallbacks) ready(asset);
}

}  // namespace zolvani::reference
