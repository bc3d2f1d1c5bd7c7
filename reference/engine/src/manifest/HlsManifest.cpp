#include "manifest/HlsManifest.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>

#include "manifest/HlsWriter.h"
#include "manifest/LocalNames.h"
#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::reference {
namespace {

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// Decimal digits only; nullopt on anything else or on overflow.
std::optional<std::uint64_t> toUnsigned(std::string_view s) {
  if (s.empty() || s.size() > 19) return std::nullopt;
  std::uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return v;
}

// "<length>[@<offset>]"; without an offset the range follows `previousEnd`.
std::optional<ByteRange> parseByteRange(std::string_view text,
                                        std::optional<std::uint64_t> previousEnd) {
  auto at = text.find('@');
  auto length = toUnsigned(text.substr(0, at));
  if (!length || *length == 0) return std::nullopt;
  std::optional<std::uint64_t> offset =
      at == std::string_view::npos ? previousEnd : toUnsigned(text.substr(at + 1));
  if (!offset || *offset > UINT64_MAX - *length) return std::nullopt;
  return ByteRange{*offset, *length};
}

bool isAudioCodec(std::string_view codec) {
  for (std::string_view audio : {"mp4a", "ac-3", "ec-3", "ac-4", "opus", "flac", "mp3", "vorbis",
                                 "alac", "dtsc", "dtse", "dtsh", "dtsl"})
    if (startsWith(codec, audio)) return true;
  return false;
}

bool isTextCodec(std::string_view codec) {
  return codec == "wvtt" || codec == "stpp" || startsWith(codec, "stpp.");
}

// A variant has video unless its CODECS list only audio and text codecs;
// without CODECS nothing says it lacks video.
std::optional<bool> codecsSayVideo(const std::string& codecs) {
  if (codecs.empty()) return std::nullopt;
  std::size_t start = 0;
  while (start <= codecs.size()) {
    auto comma = codecs.find(',', start);
    std::string codec = codecs.substr(start, comma == std::string::npos ? comma : comma - start);
    codec.erase(0, codec.find_first_not_of(' '));
    if (!codec.empty() && !isAudioCodec(codec) && !isTextCodec(codec)) return true;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return false;
}

std::string urlPath(const std::string& url) {
  auto scheme = url.find("://");
  auto path = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  if (path == std::string::npos) return "/";
  auto end = url.find_first_of("?#", path);
  return url.substr(path, end == std::string::npos ? end : end - path);
}

struct RenditionJob {
  PlannedRendition::Kind kind;
  std::string url;
  std::string playlistName;
  std::string prefix;
  const HlsRendition* rendition = nullptr;  // null for the variant itself
};

// Plans one media playlist: its resources and its local text.
FetchResult planMediaPlaylist(const PlanRequest& request, const PlanLimits& limits,
                              const ManifestDocument& document, const RenditionJob& job,
                              std::size_t resourcesSoFar, PlannedRendition* rendition,
                              std::string* localText) {
  if (isHlsMaster(document.text))
    return planRefusal(kEngineErrorBadPlaylist,
                       "A master playlist points at another master playlist: " + document.url);
  HlsMediaPlaylist playlist;
  if (auto e = parseHlsMediaPlaylist(document.text, limits.maxResources, &playlist))
    return {FetchOutcome::kFail, e, 0, 0};
  rendition->kind = job.kind;
  const bool subtitles = job.kind == PlannedRendition::Kind::kSubtitles;

  // The byte ranges of each file, to choose between one whole fetch and one
  // fetch per range.
  std::map<std::string, std::vector<ByteRange>> ranges;
  std::set<std::string> wholeWanted;
  std::vector<std::string> urls(playlist.entries.size());
  for (std::size_t i = 0; i < playlist.entries.size(); ++i) {
    const HlsEntry& e = playlist.entries[i];
    urls[i] = resolveURL(document.url, e.uri);
    if (e.kind == HlsEntry::Kind::kKey) continue;
    if (e.range)
      ranges[urls[i]].push_back(*e.range);
    else
      wholeWanted.insert(urls[i]);
  }
  std::set<std::string> fetchWhole = wholeWanted;
  for (auto& [url, list] : ranges) {
    std::sort(list.begin(), list.end(), [](const ByteRange& a, const ByteRange& b) {
      return a.offset != b.offset ? a.offset < b.offset : a.length < b.length;
    });
    bool gapless = list.front().offset == 0;
    std::uint64_t end = 0;
    for (const ByteRange& r : list) {
      if (r.offset > end) gapless = false;
      end = std::max(end, r.offset + r.length);
    }
    if (gapless) fetchWhole.insert(url);
  }
  // A file holding both an init section and segments is named as media.
  std::set<std::string> holdsInit, holdsSegments;
  for (std::size_t i = 0; i < playlist.entries.size(); ++i) {
    if (playlist.entries[i].kind == HlsEntry::Kind::kMap) holdsInit.insert(urls[i]);
    if (playlist.entries[i].kind == HlsEntry::Kind::kSegment) holdsSegments.insert(urls[i]);
  }

  std::vector<HlsEntryTarget> targets(playlist.entries.size());
  std::map<std::pair<std::string, std::optional<ByteRange>>, std::string> named;
  auto keyOf = [](const std::string& url, const std::optional<ByteRange>& range) {
    return std::make_pair(url, range);
  };
  for (std::size_t i = 0; i < playlist.entries.size(); ++i) {
    const HlsEntry& e = playlist.entries[i];
    const std::string& url = urls[i];
    if (e.kind == HlsEntry::Kind::kKey && !(e.aes128 && request.includeKeys)) {
      targets[i] = {url, false};  // stays remote
      continue;
    }
    if (!isFetchableURL(url))
      return planRefusal(kEngineErrorBadURL,
                         "Only http and https URLs are downloaded; the playlist names " + url);
    const bool whole = e.kind != HlsEntry::Kind::kKey && fetchWhole.count(url) > 0;
    const std::optional<ByteRange> range = whole ? std::nullopt : e.range;
    auto [it, fresh] = named.try_emplace(keyOf(url, range));
    if (fresh) {
      PlannedResource resource;
      resource.url = url;
      resource.range = range;
      switch (e.kind) {
        case HlsEntry::Kind::kKey:
          resource.kind = PlannedResource::Kind::kKey;
          resource.localName = keyFileName(job.prefix, i);
          break;
        case HlsEntry::Kind::kMap:
          resource.kind = PlannedResource::Kind::kInit;
          resource.localName = whole && holdsSegments.count(url)
                                   ? mediaFileName(job.prefix, i, urlPath(url), true, subtitles)
                                   : initFileName(job.prefix, i, urlPath(url));
          break;
        case HlsEntry::Kind::kSegment:
          resource.kind = PlannedResource::Kind::kMedia;
          resource.localName = mediaFileName(job.prefix, i, urlPath(url),
                                             playlist.hasMap || holdsInit.count(url), subtitles);
          break;
      }
      it->second = resource.localName;
      rendition->resources.push_back(std::move(resource));
      if (resourcesSoFar + rendition->resources.size() > limits.maxResources)
        return planRefusal(
            kEngineErrorBadPlaylist,
            fmt::format("The stream has more than {} segments", limits.maxResources));
    }
    targets[i] = {it->second, whole && e.range.has_value()};
  }
  *localText = writeLocalMediaPlaylist(playlist, targets);
  return {FetchOutcome::kDone, std::nullopt, 0, 0};
}

}  // namespace

std::vector<HlsAttribute> parseHlsAttributes(std::string_view list) {
  std::vector<HlsAttribute> out;
  std::size_t i = 0;
  while (i < list.size()) {
    auto eq = list.find('=', i);
    if (eq == std::string_view::npos) break;
    HlsAttribute a;
    a.name = std::string(list.substr(i, eq - i));
    std::size_t v = eq + 1;
    std::size_t next;
    if (v < list.size() && list[v] == '"') {
      auto close = list.find('"', v + 1);
      if (close == std::string_view::npos) break;
      a.value = std::string(list.substr(v + 1, close - v - 1));
      a.quoted = true;
      next = list.find(',', close);
    } else {
      next = list.find(',', v);
      a.value = std::string(list.substr(v, next == std::string_view::npos ? next : next - v));
    }
    out.push_back(std::move(a));
    if (next == std::string_view::npos) break;
    i = next + 1;
  }
  return out;
}

std::string formatHlsAttributes(const std::vector<HlsAttribute>& attributes) {
  std::string out;
  for (const auto& a : attributes) {
    if (!out.empty()) out += ',';
    out += a.name + '=' + (a.quoted ? '"' + a.value + '"' : a.value);
  }
  return out;
}

std::optional<std::string> hlsAttribute(std::string_view list, std::string_view name) {
  for (auto& a : parseHlsAttributes(list))
    if (a.name == name) return std::move(a.value);
  return std::nullopt;
}

bool isHlsMaster(std::string_view text) {
  for (auto line : splitLines(text))
    if (startsWith(line, "#EXT-X-STREAM-INF:")) return true;
  return false;
}

std::optional<Error> parseHlsMaster(std::string_view text, HlsMaster* out) {
  *out = {};
  auto lines = splitLines(text);
  if (lines.empty() || !startsWith(lines[0], "#EXTM3U"))
    return engineError(kEngineErrorBadPlaylist, "Not an HLS playlist (no #EXTM3U header)");
  for (std::size_t i = 1; i < lines.size(); ++i) {
    std::string_view line = lines[i];
    if (startsWith(line, "#EXT-X-STREAM-INF:")) {
      std::string attributes(line.substr(18));
      HlsVariant v;
      v.attributes = attributes;
      v.bandwidth = static_cast<std::int64_t>(std::min<std::uint64_t>(
          toUnsigned(hlsAttribute(attributes, "BANDWIDTH").value_or("")).value_or(0), INT64_MAX));
      v.audioGroup = hlsAttribute(attributes, "AUDIO").value_or("");
      v.subtitlesGroup = hlsAttribute(attributes, "SUBTITLES").value_or("");
      for (std::size_t j = i + 1; j < lines.size(); ++j) {
        if (lines[j].empty() || lines[j][0] == '#') continue;
        v.uri = std::string(lines[j]);
        i = j;
        break;
      }
      if (v.uri.empty()) continue;
      v.hasVideo = codecsSayVideo(hlsAttribute(attributes, "CODECS").value_or("")).value_or(true);
      out->variants.push_back(std::move(v));
    } else if (startsWith(line, "#EXT-X-MEDIA:")) {
      std::string attributes(line.substr(13));
      HlsRendition r;
      r.attributes = attributes;
      r.type = hlsAttribute(attributes, "TYPE").value_or("");
      r.groupID = hlsAttribute(attributes, "GROUP-ID").value_or("");
      r.uri = hlsAttribute(attributes, "URI").value_or("");
      r.isDefault = hlsAttribute(attributes, "DEFAULT").value_or("") == "YES";
      r.autoselect = hlsAttribute(attributes, "AUTOSELECT").value_or("") == "YES";
      out->renditions.push_back(std::move(r));
    } else if (startsWith(line, "#EXT-X-VERSION:") ||
               startsWith(line, "#EXT-X-INDEPENDENT-SEGMENTS") ||
               startsWith(line, "#EXT-X-START:")) {
      out->globalTags.emplace_back(line);
    }
  }
  if (out->variants.empty())
    return engineError(kEngineErrorBadPlaylist, "The master playlist lists no variants");
  return std::nullopt;
}

const HlsVariant* chooseHlsVariant(const std::vector<HlsVariant>& variants,
                                   std::int64_t maxBitrate) {
  const bool anyVideo =
      std::any_of(variants.begin(), variants.end(), [](const HlsVariant& v) { return v.hasVideo; });
  const HlsVariant* best = nullptr;
  const HlsVariant* lowest = nullptr;
  for (const auto& v : variants) {
    if (anyVideo && !v.hasVideo) continue;
    if (!lowest || v.bandwidth < lowest->bandwidth) lowest = &v;
    if (maxBitrate > 0 && v.bandwidth > maxBitrate) continue;
    if (!best || v.bandwidth > best->bandwidth) best = &v;
  }
  return best ? best : lowest;
}

std::optional<Error> parseHlsMediaPlaylist(std::string_view text, std::size_t maxEntries,
                                           HlsMediaPlaylist* out) {
  *out = {};
  auto lines = splitLines(text);
  if (lines.empty() || !startsWith(lines[0], "#EXTM3U"))
    return engineError(kEngineErrorBadPlaylist, "Not an HLS playlist (no #EXTM3U header)");
  out->lines.assign(lines.begin(), lines.end());
  // Where the previous range of each file ended, for ranges without an offset.
  std::map<std::string, std::uint64_t, std::less<>> rangeEnds;
  std::optional<std::string_view> pendingRange;
  std::size_t pendingRangeLine = SIZE_MAX;
  bool segments = false;
  auto add = [&](HlsEntry entry) -> std::optional<Error> {
    if (out->entries.size() >= maxEntries)
      return engineError(kEngineErrorBadPlaylist,
                         fmt::format("The playlist has more than {} segments", maxEntries));
    out->entries.push_back(std::move(entry));
    return std::nullopt;
  };
  for (std::size_t i = 1; i < lines.size(); ++i) {
    std::string_view line = lines[i];
    if (line.empty()) continue;
    if (startsWith(line, "#EXT-X-ENDLIST")) {
      out->ended = true;
    } else if (startsWith(line, "#EXT-X-BYTERANGE:")) {
      pendingRange = line.substr(17);
      pendingRangeLine = i;
    } else if (startsWith(line, "#EXT-X-MAP:")) {
      auto attributes = line.substr(11);
      auto uri = hlsAttribute(attributes, "URI");
      if (!uri || uri->empty())
        return engineError(kEngineErrorBadPlaylist, "An EXT-X-MAP tag has no URI");
      HlsEntry e{HlsEntry::Kind::kMap, i, *uri, std::nullopt, SIZE_MAX, false};
      if (auto range = hlsAttribute(attributes, "BYTERANGE")) {
        // A map's range without an offset starts at the file's first byte.
        e.range = parseByteRange(*range, std::uint64_t{0});
        if (!e.range)
          return engineError(kEngineErrorBadPlaylist, "An EXT-X-MAP tag has a bad BYTERANGE");
      }
      out->hasMap = true;
      if (auto err = add(std::move(e))) return err;
    } else if (startsWith(line, "#EXT-X-KEY:")) {
      auto attributes = line.substr(11);
      auto method = hlsAttribute(attributes, "METHOD").value_or("NONE");
      auto uri = hlsAttribute(attributes, "URI");
      if (method == "NONE" || !uri) continue;
      HlsEntry e{HlsEntry::Kind::kKey, i, *uri, std::nullopt, SIZE_MAX, method == "AES-128"};
      if (auto err = add(std::move(e))) return err;
    } else if (line[0] != '#') {
      HlsEntry e{HlsEntry::Kind::kSegment, i, std::string(line), std::nullopt, SIZE_MAX, false};
      if (pendingRange) {
        auto previous = rangeEnds.find(e.uri);
        e.range = parseByteRange(*pendingRange, previous == rangeEnds.end()
                                                    ? std::nullopt
                                                    : std::optional(previous->second));
        if (!e.range)
          return engineError(
              kEngineErrorBadPlaylist,
              fmt::format("Line {} has a bad EXT-X-BYTERANGE", pendingRangeLine + 1));
        e.rangeLine = pendingRangeLine;
        rangeEnds[e.uri] = e.range->offset + e.range->length;
        pendingRange.reset();
      }
      segments = true;
      if (auto err = add(std::move(e))) return err;
    }
  }
  if (!out->ended)
    return engineError(
        kEngineErrorLivePlaylist,
        "The stream is live (its playlist has no #EXT-X-ENDLIST); only video on demand "
        "can be downloaded");
  if (!segments) return engineError(kEngineErrorBadPlaylist, "The playlist lists no segments");
  return std::nullopt;
}

FetchResult planHls(const PlanRequest& request, const PlanLimits& limits,
                    const ManifestDocument& first, const DocumentLoader& load, MediaPlan* plan) {
  *plan = {};
  std::vector<RenditionJob> jobs;
  HlsMaster master;
  const HlsVariant* variant = nullptr;
  if (isHlsMaster(first.text)) {
    if (auto e = parseHlsMaster(first.text, &master)) return {FetchOutcome::kFail, e, 0, 0};
    variant = chooseHlsVariant(master.variants, request.maxBitrate);
    plan->bandwidth = variant->bandwidth;
    jobs.push_back({PlannedRendition::Kind::kVideo, resolveURL(first.url, variant->uri),
                    "video.m3u8", "", nullptr});
    const HlsRendition* audio = nullptr;
    for (const auto& r : master.renditions) {
      if (r.type != "AUDIO" || r.groupID != variant->audioGroup || variant->audioGroup.empty() ||
          r.uri.empty())
        continue;
      if (!audio || (r.isDefault && !audio->isDefault)) audio = &r;
    }
    if (audio)
      jobs.push_back({PlannedRendition::Kind::kAudio, resolveURL(first.url, audio->uri),
                      "audio.m3u8", "audio-", audio});
    int subtitles = 0;
    for (const auto& r : master.renditions) {
      if (r.type != "SUBTITLES" || r.groupID != variant->subtitlesGroup ||
          variant->subtitlesGroup.empty() || r.uri.empty() || !(r.isDefault || r.autoselect))
        continue;
      ++subtitles;
      jobs.push_back({PlannedRendition::Kind::kSubtitles, resolveURL(first.url, r.uri),
                      fmt::format("subtitles-{}.m3u8", subtitles),
                      fmt::format("subtitles-{}-", subtitles), &r});
    }
    for (const auto& job : jobs) {
      if (!isFetchableURL(job.url))
        return planRefusal(
            kEngineErrorBadURL,
            "Only http and https URLs are downloaded; the playlist names " + job.url);
      if (job.url == first.url || job.url == request.url)
        return planRefusal(kEngineErrorBadPlaylist,
                           "The master playlist points at itself: " + job.url);
    }
  } else {
    jobs.push_back({PlannedRendition::Kind::kVideo, first.url, "index.m3u8", "", nullptr});
  }

  std::vector<std::pair<const HlsRendition*, std::string>> local;
  for (const auto& job : jobs) {
    ManifestDocument document;
    if (variant) {
      FetchResult r = load(job.url, &document);
      if (r.outcome != FetchOutcome::kDone) return r;
    } else {
      document = first;
    }
    PlannedRendition rendition;
    std::string text;
    FetchResult r =
        planMediaPlaylist(request, limits, document, job, plan->resourceCount(), &rendition, &text);
    if (r.outcome != FetchOutcome::kDone) return r;
    plan->renditions.push_back(std::move(rendition));
    plan->manifests.push_back({job.playlistName, std::move(text)});
    if (job.rendition) local.emplace_back(job.rendition, job.playlistName);
  }
  if (variant && jobs.size() == 1) {
    // One rendition: its playlist is the entry point, as players expect of a
    // plain media playlist.
    plan->manifests.back().name = "index.m3u8";
  } else if (variant) {
    plan->manifests.push_back(
        {"index.m3u8", writeLocalMaster(master, *variant, jobs.front().playlistName, local)});
  }
  return {FetchOutcome::kDone, std::nullopt, 0, 0};
}

}  // namespace zolvani::reference
