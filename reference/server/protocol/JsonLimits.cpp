#include "reference/server/protocol/JsonLimits.h"

#include <utility>
#include <vector>

namespace zolvani::refserver {

bool JsonLimits::TextNestsDeeperThan(std::string_view text, int limit) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

bool JsonLimits::NestsDeeperThan(const nlohmann::json& value, int limit) {
  std::vector<std::pair<const nlohmann::json*, int>> pending{{&value, 0}};
  while (!pending.empty()) {
    const auto [node, depth] = pending.back();
    pending.pop_back();
    if (!node->is_structured()) continue;
    if (depth + 1 > limit) return true;
    for (const auto& child : *node) pending.emplace_back(&child, depth + 1);
  }
  return false;
}

Status JsonLimits::CheckItemMetadata(const nlohmann::json& metadata) {
  if (!metadata.is_object()) return Status::InvalidArgument("item metadata must be an object");
  for (auto it = metadata.begin(); it != metadata.end(); ++it) {
    if (NestsDeeperThan(*it, kMaxMetadataNesting - 1)) {
      return Status::InvalidArgument("\"" + it.key() + "\" nests deeper than " +
                                     std::to_string(kMaxMetadataNesting - 1) + " levels");
    }
  }
  // Shallow now, so serialising is safe.
  const size_t size = metadata.dump().size();
  if (size > kMaxMetadataBytes) {
    return Status::InvalidArgument("the item's metadata takes " + std::to_string(size) +
                                   " bytes, more than " + std::to_string(kMaxMetadataBytes));
  }
  return Status::OK();
}

nlohmann::json JsonLimits::ParseStoredMetadata(const std::string& text, bool* trimmed) {
  *trimmed = false;
  if (!TextNestsDeeperThan(text, kMaxMetadataNesting) && text.size() <= kMaxMetadataBytes) {
    nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
    return parsed.is_object() ? parsed : nlohmann::json::object();
  }
  *trimmed = true;
  // Keep the top-level scalars (title, URL, media type, ...); the callback drops
  // every array and object below the top one while the parser reads past it, so
  // nothing deep is ever built.
  nlohmann::json parsed = nlohmann::json::parse(
      text,
      [](int depth, nlohmann::json::parse_event_t event, nlohmann::json&) {
        using Event = nlohmann::json::parse_event_t;
        return !(depth > 0 && (event == Event::object_start || event == Event::array_start));
      },
      false);
  if (!parsed.is_object()) return nlohmann::json::object();
  nlohmann::json kept = nlohmann::json::object();
  for (auto it = parsed.begin(); it != parsed.end(); ++it) {
    if (it->is_string() && it->get_ref<const std::string&>().size() > kMaxMetadataBytes / 4) {
      continue;
    }
    if (!it->is_structured() && !it->is_discarded()) kept[it.key()] = *it;
  }
  return kept;
}

}  // namespace zolvani::refserver
