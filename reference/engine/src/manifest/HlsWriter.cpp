#include "manifest/HlsWriter.h"

#include <algorithm>
#include <set>

namespace zolvani::reference {
namespace {

std::string withAttribute(std::vector<HlsAttribute> attributes, const std::string& name,
                          const std::string& value) {
  for (auto& a : attributes)
    if (a.name == name) a.value = value;
  return formatHlsAttributes(attributes);
}

std::vector<HlsAttribute> without(std::vector<HlsAttribute> attributes, const std::string& name) {
  attributes.erase(std::remove_if(attributes.begin(), attributes.end(),
                                  [&](const HlsAttribute& a) { return a.name == name; }),
                   attributes.end());
  return attributes;
}

}  // namespace

std::string writeLocalMediaPlaylist(const HlsMediaPlaylist& playlist,
                                    const std::vector<HlsEntryTarget>& targets) {
  std::vector<std::string> lines = playlist.lines;
  std::set<std::size_t> dropped;
  for (std::size_t i = 0; i < playlist.entries.size() && i < targets.size(); ++i) {
    const HlsEntry& e = playlist.entries[i];
    const HlsEntryTarget& target = targets[i];
    std::string& line = lines[e.line];
    switch (e.kind) {
      case HlsEntry::Kind::kSegment:
        line = target.uri;
        if (e.rangeLine != SIZE_MAX && !target.keepRange) dropped.insert(e.rangeLine);
        break;
      case HlsEntry::Kind::kMap: {
        auto attributes = parseHlsAttributes(std::string_view(line).substr(11));
        if (!target.keepRange) attributes = without(std::move(attributes), "BYTERANGE");
        line = "#EXT-X-MAP:" + withAttribute(std::move(attributes), "URI", target.uri);
        break;
      }
      case HlsEntry::Kind::kKey:
        line = "#EXT-X-KEY:" + withAttribute(parseHlsAttributes(std::string_view(line).substr(11)),
                                             "URI", target.uri);
        break;
    }
  }
  std::string out;
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (!dropped.count(i)) out += lines[i] + "\n";
  return out;
}

std::string writeLocalMaster(
    const HlsMaster& master, const HlsVariant& variant, const std::string& variantPlaylist,
    const std::vector<std::pair<const HlsRendition*, std::string>>& renditions) {
  std::string out = "#EXTM3U\n";
  for (const auto& tag : master.globalTags) out += tag + "\n";
  const std::string captions = hlsAttribute(variant.attributes, "CLOSED-CAPTIONS").value_or("");
  bool subtitles = false;
  for (const auto& r : master.renditions) {
    auto chosen = std::find_if(renditions.begin(), renditions.end(),
                               [&](const auto& p) { return p.first == &r; });
    if (chosen != renditions.end()) {
      out +=
          "#EXT-X-MEDIA:" + withAttribute(parseHlsAttributes(r.attributes), "URI", chosen->second) +
          "\n";
      subtitles = subtitles || r.type == "SUBTITLES";
    } else if (r.uri.empty() && ((r.type == "AUDIO" && r.groupID == variant.audioGroup) ||
                                 (r.type == "CLOSED-CAPTIONS" && r.groupID == captions))) {
      // Carried inside the variant's own segments: nothing to download.
      out += "#EXT-X-MEDIA:" + r.attributes + "\n";
    }
  }
  auto attributes = parseHlsAttributes(variant.attributes);
  if (!subtitles) attributes = without(std::move(attributes), "SUBTITLES");
  out += "#EXT-X-STREAM-INF:" + formatHlsAttributes(attributes) + "\n" + variantPlaylist + "\n";
  return out;
}

}  // namespace zolvani::reference
