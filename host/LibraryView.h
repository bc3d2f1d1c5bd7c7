// LibraryView: the device's downloads as a person looks for them. The engine
// keeps each download under a name of its own (media/<UUID>/content); the view
// is a tree of symbolic links beside it, library/<feed>/<title>.<ext>, that a
// file manager or a player opens. The title is the asset's description: the
// item's title when the data source sets one, else its description (what the
// default data source gives). Items that belong to no feed sit in
// library/_direct/. A stream is linked as a folder, library/<feed>/<title>/,
// whose index.m3u8 plays it.
//
// The engine's files are never moved or renamed: the view is rebuilt from the
// engine's assets and the feed store, so that it follows deletions by the
// retention rules as well as new downloads. Only symbolic links inside the
// view's folder are made or removed, and only those that point into the
// engine's media folder; anything else a user puts there stays.
//
// Names come from the server (titles, feed identifiers), so they are made safe
// before they become file names: no path separators, no "." or "..", no
// control characters, no leading dot, at most kMaxNameBytes bytes (cut on a
// UTF-8 character boundary). Two items of one feed with the same title get
// " (2)", " (3)"... in the order they were created.
//
// Thread-safety: call from one thread at a time per data folder (the host's
// driving thread); it reads the engine and the feed store, which are safe
// from any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "HostRuntime.h"
#include "zolvani/subscription/Error.h"

namespace zsm {

struct LibraryEntry {
  std::filesystem::path link;    // inside the view's folder
  std::filesystem::path target;  // the engine's file (or a stream's folder)
  std::string feed;              // empty for a direct item
  std::string uuid;
};

inline constexpr std::size_t kMaxNameBytes = 120;
// The folder of the items that belong to no feed.
inline constexpr std::string_view kDirectFolder = "_direct";

// A file name made from server text; never empty ("untitled" then).
std::string safeFileName(std::string_view text);

// The extension a finished single-file download is linked with: the one its
// URL's path ends with when it is short and plain (".mp4"), else what the
// file's first bytes say (an MP4 file-type box gives ".mp4"), else none.
std::string mediaExtension(const std::string& url, const std::filesystem::path& file);

// Brings the view under `root` (the data folder's "library" by default) in
// line with the finished downloads, and returns its entries, sorted by link.
std::optional<zolvani::Error> updateLibrary(HostRuntime& host, const std::filesystem::path& root,
                                            std::vector<LibraryEntry>* entries);

// {"library": root, "entries": [{"link", "target", "feed" (null for a direct
// item), "uuid"}]}: the view as the command-line host and the C interface
// describe it.
nlohmann::json libraryJson(const std::filesystem::path& root,
                           const std::vector<LibraryEntry>& entries);

}  // namespace zsm
