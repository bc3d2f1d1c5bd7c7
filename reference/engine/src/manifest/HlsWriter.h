// HlsWriter: the local playlists of a downloaded HLS stream.
//
// Every URI the download fetched is replaced by its local file name; keys left
// remote become absolute URLs; byte ranges stay only where the whole file was
// fetched. The local master lists the one chosen variant and the renditions
// downloaded with it.
//
// Thread-safety: plain functions.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "manifest/HlsManifest.h"

namespace zolvani::reference {

// Where one entry of a media playlist points in the local copy.
struct HlsEntryTarget {
  std::string uri;         // a local file name or an absolute URL
  bool keepRange = false;  // the entry's byte range applies to the local file
};

std::string writeLocalMediaPlaylist(const HlsMediaPlaylist& playlist,
                                    const std::vector<HlsEntryTarget>& targets);

// `renditions` pairs each downloaded EXT-X-MEDIA with its local playlist name.
std::string writeLocalMaster(
    const HlsMaster& master, const HlsVariant& variant, const std::string& variantPlaylist,
    const std::vector<std::pair<const HlsRendition*, std::string>>& renditions);

}  // namespace zolvani::reference
