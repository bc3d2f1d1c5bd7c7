// DashDocument: a parsed MPD and what the plan chose in it, shared by the DASH
// reader and the writer of the local MPD.
//
// Thread-safety: not thread-safe; one owner.
#pragma once

#include <libxml/tree.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Fetcher.h"

namespace zolvani::reference {

struct XmlDocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using XmlDocPtr = std::unique_ptr<xmlDoc, XmlDocFree>;

// How a chosen representation is stored locally.
struct DashLocalTrack {
  xmlNode* representation = nullptr;
  enum class Layout {
    kSegments,   // init and numbered segment files, addressed by a local template
    kWholeFile,  // one file, addressed by byte ranges into it
  } layout = Layout::kSegments;
  std::string initName;       // kSegments: the init file ("" when none)
  std::string mediaTemplate;  // kSegments: "<prefix>segment-$Number%05d$.m4s"
  std::uint64_t timescale = 1;
  std::optional<std::uint64_t> presentationTimeOffset;
  struct Timing {
    std::uint64_t start = 0, duration = 0;
  };
  std::vector<Timing> timeline;  // kSegments: one per segment, numbered from 1
  std::string fileName;          // kWholeFile
  // kWholeFile: the source's addressing element (SegmentBase or SegmentList
  // with ranges), kept as it is: its ranges apply to the local file.
  xmlNode* addressing = nullptr;
};

struct DashDocument {
  XmlDocPtr doc;
  xmlNode* period = nullptr;
  std::vector<DashLocalTrack> tracks;
};

}  // namespace zolvani::reference
