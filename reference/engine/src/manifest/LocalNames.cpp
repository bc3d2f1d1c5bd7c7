#include "manifest/LocalNames.h"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/format.h>

namespace zolvani::reference {
namespace {

// The extension of the last path segment, lower case; empty when it has none.
std::string extensionOf(const std::string& path) {
  const auto slash = path.rfind('/');
  const auto dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
  std::string ext = path.substr(dot + 1);
  for (auto& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

template <std::size_t N>
std::string pick(const std::string& urlPath, const std::array<std::string_view, N>& allowed,
                 std::string_view fallback) {
  const std::string ext = extensionOf(urlPath);
  for (auto a : allowed)
    if (ext == a) return ext;
  return std::string(fallback);
}

constexpr std::array<std::string_view, 6> kInitExtensions{"mp4", "m4s",  "m4v",
                                                          "m4a", "cmfv", "cmfa"};
constexpr std::array<std::string_view, 14> kMediaExtensions{
    "ts",  "m4s", "mp4", "m4v",    "m4a",  "aac",  "ac3",
    "ec3", "mp3", "vtt", "webvtt", "cmfv", "cmfa", "mpegts"};

}  // namespace

std::string keyFileName(const std::string& prefix, std::size_t index) {
  return fmt::format("{}key-{:05}.ts", prefix, index);
}

std::string initFileName(const std::string& prefix, std::size_t index, const std::string& urlPath) {
  return fmt::format("{}map-{:05}.{}", prefix, index, pick(urlPath, kInitExtensions, "mp4"));
}

std::string mediaFileName(const std::string& prefix, std::size_t index, const std::string& urlPath,
                          bool fragmented, bool subtitles) {
  const char* fallback = subtitles ? "vtt" : fragmented ? "m4s" : "ts";
  return fmt::format("{}segment-{:05}.{}", prefix, index,
                     pick(urlPath, kMediaExtensions, fallback));
}

bool isPlainFileName(const std::string& name) {
  return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos &&
         name.find('\\') == std::string::npos && name.find('\0') == std::string::npos;
}

}  // namespace zolvani::reference
