#include "LibraryView.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <system_error>

#include "CliError.h"

namespace zsm {

namespace fs = std::filesystem;
using namespace zolvani;
using reference::AssetInfo;
using reference::AssetState;

std::string safeFileName(std::string_view text) {
  std::string name;
  name.reserve(text.size());
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    // Separators and control characters (a title may carry a tab or a
    // newline) become one visible stand-in; other bytes, UTF-8 included, stay.
    if (c == '/' || c == '\\' || u < 0x20 || u == 0x7f) {
      if (name.empty() || name.back() != '_') name += '_';
    } else {
      name += c;
    }
  }
  // No leading dots (hidden files, "." and "..") and no surrounding spaces.
  const auto first = name.find_first_not_of(". ");
  name = first == std::string::npos ? std::string() : name.substr(first);
  while (!name.empty() && name.back() == ' ') name.pop_back();
  if (name.size() > kMaxNameBytes) {
    std::size_t cut = kMaxNameBytes;
    // Back to the start of a UTF-8 sequence, so that no character is halved.
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    name.resize(cut);
    while (!name.empty() && name.back() == ' ') name.pop_back();
  }
  return name.empty() ? std::string("untitled") : name;
}

std::string mediaExtension(const std::string& url, const fs::path& file) {
  std::string path = url.substr(0, url.find_first_of("?#"));
  if (auto scheme = path.find("://"); scheme != std::string::npos) {
    auto slash = path.find('/', scheme + 3);
    path = slash == std::string::npos ? std::string() : path.substr(slash);
  }
  const auto slash = path.rfind('/');
  const auto dot = path.rfind('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
    std::string ext = path.substr(dot + 1);
    const bool plain =
        !ext.empty() && ext.size() <= 5 &&
        std::all_of(ext.begin(), ext.end(), [](unsigned char c) { return std::isalnum(c) != 0; });
    if (plain) {
      std::transform(ext.begin(), ext.end(), ext.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
      return "." + ext;
    }
  }
  // An ISO media file opens with a box whose type is "ftyp".
  char head[8] = {};
  std::ifstream in(file, std::ios::binary);
  if (in.read(head, sizeof head) && std::string_view(head + 4, 4) == "ftyp") return ".mp4";
  return {};
}

namespace {

// A stream's local playlist lives in its folder with the segments it names;
// the folder is what a player needs.
fs::path linkTarget(const AssetInfo& a) {
  return a.manifest ? a.localPath.parent_path() : a.localPath;
}

bool pointsInto(const fs::path& link, const fs::path& media) {
  std::error_code ec;
  const fs::path target = fs::read_symlink(link, ec);
  if (ec) return false;
  const fs::path resolved = fs::weakly_canonical(link.parent_path() / target, ec);
  if (ec) return false;
  const std::string prefix = media.string() + "/";
  return resolved.string().rfind(prefix, 0) == 0;
}

}  // namespace

std::optional<Error> updateLibrary(HostRuntime& host, const fs::path& root,
                                   std::vector<LibraryEntry>* entries) {
  entries->clear();
  auto& m = host.manager();
  std::map<std::string, std::string> feedOf;  // asset UUID -> feed
  for (const auto& feed : host.trackedFeeds())
    for (const auto& uuid : m.itemsInTrackingFeed(feed)) feedOf[uuid] = feed;

  auto assets = host.listAssets();
  std::stable_sort(assets.begin(), assets.end(), [](const AssetInfo& a, const AssetInfo& b) {
    return a.creationDate < b.creationDate;
  });
  std::set<fs::path> taken;
  for (const auto& a : assets) {
    if (a.state != AssetState::kComplete || a.localPath.empty()) continue;
    LibraryEntry e;
    e.uuid = a.uuid;
    auto it = feedOf.find(a.uuid);
    if (it != feedOf.end()) e.feed = it->second;
    const fs::path folder =
        root / (e.feed.empty() ? std::string(kDirectFolder) : safeFileName(e.feed));
    const std::string title = safeFileName(a.description.empty() ? a.assetID : a.description);
    const std::string ext = a.manifest ? std::string() : mediaExtension(a.url, a.localPath);
    e.link = folder / (title + ext);
    for (int n = 2; taken.count(e.link); ++n)
      e.link = folder / (title + " (" + std::to_string(n) + ")" + ext);
    taken.insert(e.link);
    e.target = linkTarget(a);
    entries->push_back(std::move(e));
  }

  std::error_code ec;
  const fs::path media = fs::weakly_canonical(host.engine().dataFolder() / "media", ec);
  if (ec) return cliError(kCliErrorConfigFile, "cannot resolve the media folder: " + ec.message());

  // Links the view made earlier that no longer name a finished download go;
  // links that are right stay untouched.
  std::map<fs::path, fs::path> wanted;  // link -> relative target
  for (const auto& e : *entries) {
    const fs::path target = fs::weakly_canonical(e.target, ec);
    if (ec) return cliError(kCliErrorConfigFile, "cannot resolve " + e.target.string());
    const fs::path linkFolder = fs::weakly_canonical(e.link.parent_path(), ec);
    // Relative targets keep the view working when the data folder moves.
    wanted[e.link] = target.lexically_relative(linkFolder);
  }
  if (fs::exists(root, ec)) {
    std::vector<fs::path> stale;
    for (auto it = fs::recursive_directory_iterator(root, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (!it->is_symlink(ec)) continue;
      it.disable_recursion_pending();
      const fs::path& link = it->path();
      auto w = wanted.find(link);
      if (w != wanted.end() && fs::read_symlink(link, ec) == w->second) continue;
      if (pointsInto(link, media)) stale.push_back(link);
    }
    for (const auto& link : stale) fs::remove(link, ec);
    // Feed folders left empty by the retention rules go too.
    for (const auto& folder : fs::directory_iterator(root, ec))
      if (folder.is_directory(ec) && !folder.is_symlink(ec) && fs::is_empty(folder.path(), ec))
        fs::remove(folder.path(), ec);
  }
  for (const auto& [link, target] : wanted) {
    if (fs::is_symlink(link, ec) && fs::read_symlink(link, ec) == target) continue;
    fs::create_directories(link.parent_path(), ec);
    if (ec)
      return cliError(kCliErrorConfigFile,
                      "cannot make " + link.parent_path().string() + ": " + ec.message());
    if (fs::exists(fs::symlink_status(link, ec)))
      continue;  // something of the user's own has this name: it stays
    fs::create_symlink(target, link, ec);
    if (ec)
      return cliError(kCliErrorConfigFile, "cannot link " + link.string() + ": " + ec.message());
  }
  return std::nullopt;
}

nlohmann::json libraryJson(const fs::path& root, const std::vector<LibraryEntry>& entries) {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& e : entries)
    list.push_back({{"link", e.link.string()},
                    {"target", e.target.string()},
                    {"feed", e.feed.empty() ? nlohmann::json(nullptr) : nlohmann::json(e.feed)},
                    {"uuid", e.uuid}});
  return {{"library", root.string()}, {"entries", list}};
}

}  // namespace zsm
