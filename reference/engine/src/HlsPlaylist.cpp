// Reading and rewriting HLS playlists for video-on-demand downloads.
#include <algorithm>
#include <sstream>

#include <fmt/format.h>

#include "EngineCore.h"

namespace zolvani::reference {
namespace {

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// The value of attribute `name` in an attribute list ("A=1,B=\"x,y\"").
std::optional<std::string> attribute(const std::string& list, std::string_view name) {
  std::size_t i = 0;
  while (i < list.size()) {
    auto eq = list.find('=', i);
    if (eq == std::string::npos) return std::nullopt;
    std::string key = list.substr(i, eq - i);
    std::size_t v = eq + 1;
    std::string value;
    std::size_t next;
    if (v < list.size() && list[v] == '"') {
      auto close = list.find('"', v + 1);
      if (close == std::string::npos) return std::nullopt;
      value = list.substr(v + 1, close - v - 1);
      next = list.find(',', close);
    } else {
      next = list.find(',', v);
      value = list.substr(v, next == std::string::npos ? std::string::npos : next - v);
    }
    if (key == name) return value;
    if (next == std::string::npos) break;
    i = next + 1;
  }
  return std::nullopt;
}

std::int64_t toInt(const std::string& s) {
  std::int64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') break;
    if (v > (INT64_MAX - 9) / 10) return INT64_MAX;
    v = v * 10 + (c - '0');
  }
  return v;
}

}  // namespace

std::vector<HlsVariant> parseMasterPlaylist(const std::string& text) {
  std::vector<HlsVariant> out;
  auto lines = splitLines(text);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].rfind("#EXT-X-STREAM-INF:", 0) != 0) continue;
    auto bw = attribute(lines[i].substr(18), "BANDWIDTH");
    for (std::size_t j = i + 1; j < lines.size(); ++j) {
      if (lines[j].empty() || lines[j][0] == '#') continue;
      out.push_back({bw ? toInt(*bw) : 0, lines[j]});
      i = j;
      break;
    }
  }
  return out;
}

std::optional<HlsVariant> chooseVariant(const std::vector<HlsVariant>& variants,
                                        std::int64_t maxBitrate) {
  if (variants.empty()) return std::nullopt;
  const HlsVariant* best = nullptr;
  const HlsVariant* lowest = &variants.front();
  for (const auto& v : variants) {
    if (v.bandwidth < lowest->bandwidth) lowest = &v;
    if (maxBitrate > 0 && v.bandwidth > maxBitrate) continue;
    if (!best || v.bandwidth > best->bandwidth) best = &v;
  }
  return best ? *best : *lowest;
}

std::optional<Error> parseMediaPlaylist(const std::string& text, bool includeKeys,
                                        HlsMediaPlaylist* out) {
  out->lines = splitLines(text);
  out->resources.clear();
  out->ended = false;
  if (out->lines.empty() || out->lines[0].rfind("#EXTM3U", 0) != 0)
    return engineError(kEngineErrorBadPlaylist, "Not an HLS playlist (no #EXTM3U header)");
  for (std::size_t i = 0; i < out->lines.size(); ++i) {
    const std::string& line = out->lines[i];
    if (line.empty()) continue;
    if (line.rfind("#EXT-X-ENDLIST", 0) == 0) {
      out->ended = true;
    } else if (line.rfind("#EXT-X-MAP:", 0) == 0) {
      if (auto uri = attribute(line.substr(11), "URI"))
        out->resources.push_back({HlsResource::Kind::kMap, *uri, i});
    } else if (line.rfind("#EXT-X-KEY:", 0) == 0) {
      auto method = attribute(line.substr(11), "METHOD");
      auto uri = attribute(line.substr(11), "URI");
      if (includeKeys && method && *method == "AES-128" && uri)
        out->resources.push_back({HlsResource::Kind::kKey, *uri, i});
    } else if (line[0] != '#') {
      out->resources.push_back({HlsResource::Kind::kSegment, line, i});
    }
  }
  if (!out->ended)
    return engineError(
        kEngineErrorLivePlaylist,
        "The stream is live (its playlist has no #EXT-X-ENDLIST); only video on demand "
        "can be downloaded");
  if (std::none_of(out->resources.begin(), out->resources.end(),
                   [](const HlsResource& r) { return r.kind == HlsResource::Kind::kSegment; }))
    return engineError(kEngineErrorBadPlaylist, "The playlist lists no segments");
  return std::nullopt;
}

std::string localResourceName(const HlsResource& resource, std::size_t index) {
  switch (resource.kind) {
    case HlsResource::Kind::kMap:
      return fmt::format("map-{:05}.mp4", index);
    case HlsResource::Kind::kKey:
      return fmt::format("key-{:05}.key", index);
    case HlsResource::Kind::kSegment:
      break;
  }
  return fmt::format("segment-{:05}.ts", index);
}

std::string rewritePlaylist(const HlsMediaPlaylist& playlist, const std::string& base) {
  std::vector<std::string> lines = playlist.lines;
  std::set<std::size_t> rewritten;
  for (std::size_t i = 0; i < playlist.resources.size(); ++i) {
    const auto& r = playlist.resources[i];
    const std::string local = localResourceName(r, i);
    std::string& line = lines[r.line];
    if (r.kind == HlsResource::Kind::kSegment) {
      line = local;
    } else {
      auto at = line.find("URI=\"" + r.uri + "\"");
      if (at != std::string::npos) line.replace(at + 5, r.uri.size(), local);
    }
    rewritten.insert(r.line);
  }
  // Keys left remote (not included) must still resolve from the local file.
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (rewritten.count(i) || lines[i].rfind("#EXT-X-KEY:", 0) != 0) continue;
    auto uri = attribute(lines[i].substr(11), "URI");
    if (!uri) continue;
    auto at = lines[i].find("URI=\"" + *uri + "\"");
    if (at != std::string::npos) lines[i].replace(at + 5, uri->size(), resolveURL(base, *uri));
  }
  std::string out;
  for (const auto& l : lines) out += l + "\n";
  return out;
}

}  // namespace zolvani::reference
