#include "manifest/Manifest.h"

#include <fmt/format.h>

#include "manifest/DashManifest.h"
#include "manifest/HlsManifest.h"
#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::reference {
namespace {

std::string lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

FetchResult planRefusal(std::int64_t code, std::string description) {
  return {FetchOutcome::kFail, engineError(code, std::move(description)), 0, 0};
}

std::optional<ManifestFormat> detectManifestFormat(const ManifestDocument& document) {
  const std::string type = lower(document.contentType.substr(0, document.contentType.find(';')));
  if (type == "application/vnd.apple.mpegurl" || type == "application/x-mpegurl" ||
      type == "audio/mpegurl" || type == "audio/x-mpegurl")
    return ManifestFormat::kHls;
  if (type == "application/dash+xml") return ManifestFormat::kDash;
  std::string_view text = document.text;
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\r' ||
                           text.front() == '\n'))
    text.remove_prefix(1);
  if (text.substr(0, 7) == "#EXTM3U") return ManifestFormat::kHls;
  if (!text.empty() && text.front() == '<' &&
      text.substr(0, 4096).find("<MPD") != std::string_view::npos)
    return ManifestFormat::kDash;
  std::string path = lower(document.url.substr(0, document.url.find_first_of("?#")));
  if (endsWith(path, ".m3u8") || endsWith(path, ".m3u")) return ManifestFormat::kHls;
  if (endsWith(path, ".mpd")) return ManifestFormat::kDash;
  return std::nullopt;
}

FetchResult planStream(const PlanRequest& request, const PlanLimits& limits,
                       const DocumentLoader& load, MediaPlan* plan) {
  if (!isFetchableURL(request.url))
    return planRefusal(kEngineErrorBadURL,
                       "Only http and https URLs are downloaded: " + request.url);
  ManifestDocument first;
  FetchResult r = load(request.url, &first);
  if (r.outcome != FetchOutcome::kDone) return r;
  if (first.text.size() > limits.maxManifestBytes)
    return planRefusal(kEngineErrorBadPlaylist, fmt::format("The manifest is larger than {} bytes",
                                                            limits.maxManifestBytes));
  switch (detectManifestFormat(first).value_or(ManifestFormat::kHls)) {
    case ManifestFormat::kHls:
      return planHls(request, limits, first, load, plan);
    case ManifestFormat::kDash:
      return planDash(request, limits, first, plan);
  }
  return planRefusal(kEngineErrorBadPlaylist, "Unknown manifest format");
}

}  // namespace zolvani::reference
