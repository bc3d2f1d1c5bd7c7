// LocalNames: the file names of a downloaded stream's resources.
//
// Names are built from a rendition prefix the engine chose, the resource's
// index and an extension from a fixed list: a URL's own extension is used only
// when it is on that list, so no text from the server reaches the file system.
// Extensions are ones players open by default: ffmpeg, for one, refuses local
// files whose extension is not a common media one, keys included, so keys are
// stored as ".ts".
//
// Thread-safety: plain functions.
#pragma once

#include <cstddef>
#include <string>

namespace zolvani::reference {

std::string keyFileName(const std::string& prefix, std::size_t index);
// An init section; `urlPath` may lend its extension (mp4, m4s, m4v, m4a, cmfv, cmfa).
std::string initFileName(const std::string& prefix, std::size_t index, const std::string& urlPath);
// A media segment or a whole file. Without a usable extension in `urlPath`:
// "m4s" for fragmented MP4, "vtt" for subtitles, else "ts".
std::string mediaFileName(const std::string& prefix, std::size_t index, const std::string& urlPath,
                          bool fragmented, bool subtitles);
// True for a name the downloader may create: no folder part, no leading dot.
bool isPlainFileName(const std::string& name);

}  // namespace zolvani::reference
