#include "manifest/DashWriter.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

namespace zolvani::reference {
namespace {

bool isElement(const xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, BAD_CAST name) == 0;
}

void removeNode(xmlNode* node) {
  xmlUnlinkNode(node);
  xmlFreeNode(node);
}

// Drops the children of `parent` named in `names`, except `keep`.
void removeChildren(xmlNode* parent, std::initializer_list<const char*> names,
                    const xmlNode* keep = nullptr) {
  for (xmlNode* c = parent->children; c;) {
    xmlNode* next = c->next;
    if (c != keep &&
        std::any_of(names.begin(), names.end(), [&](const char* n) { return isElement(c, n); }))
      removeNode(c);
    c = next;
  }
}

void setAttribute(xmlNode* node, const char* name, const std::string& value) {
  xmlSetProp(node, BAD_CAST name, BAD_CAST value.c_str());
}

void addTemplate(xmlNode* representation, const DashLocalTrack& track) {
  xmlNode* t = xmlNewChild(representation, representation->ns, BAD_CAST "SegmentTemplate", nullptr);
  setAttribute(t, "timescale", std::to_string(track.timescale));
  if (track.presentationTimeOffset)
    setAttribute(t, "presentationTimeOffset", std::to_string(*track.presentationTimeOffset));
  if (!track.initName.empty()) setAttribute(t, "initialization", track.initName);
  setAttribute(t, "media", track.mediaTemplate);
  setAttribute(t, "startNumber", "1");
  xmlNode* timeline = xmlNewChild(t, representation->ns, BAD_CAST "SegmentTimeline", nullptr);
  // Runs of equal durations become one entry with a repeat count.
  for (std::size_t i = 0; i < track.timeline.size();) {
    std::size_t j = i + 1;
    while (j < track.timeline.size() && track.timeline[j].duration == track.timeline[i].duration &&
           track.timeline[j].start == track.timeline[j - 1].start + track.timeline[j - 1].duration)
      ++j;
    xmlNode* s = xmlNewChild(timeline, representation->ns, BAD_CAST "S", nullptr);
    setAttribute(s, "t", std::to_string(track.timeline[i].start));
    setAttribute(s, "d", std::to_string(track.timeline[i].duration));
    if (j - i > 1) setAttribute(s, "r", std::to_string(j - i - 1));
    i = j;
  }
}

void addWholeFile(xmlNode* representation, const DashLocalTrack& track) {
  xmlNewTextChild(representation, representation->ns, BAD_CAST "BaseURL",
                  BAD_CAST track.fileName.c_str());
  if (!track.addressing) return;
  // The source's ranges address the local file as they addressed the remote one.
  xmlNode* copy = xmlDocCopyNode(track.addressing, representation->doc, 1);
  if (!copy) return;
  for (xmlNode* c = copy->children; c; c = c->next) {
    if (c->type != XML_ELEMENT_NODE) continue;
    xmlUnsetProp(c, BAD_CAST "sourceURL");
    xmlUnsetProp(c, BAD_CAST "media");
  }
  xmlAddChild(representation, copy);
}

constexpr std::initializer_list<const char*> kAddressing = {"BaseURL", "SegmentTemplate",
                                                            "SegmentList", "SegmentBase"};

}  // namespace

std::string writeLocalMpd(DashDocument& document) {
  xmlNode* mpd = xmlDocGetRootElement(document.doc.get());
  std::set<xmlNode*> chosen;
  for (const auto& t : document.tracks) chosen.insert(t.representation);
  // Detached copies of the addressing kept for whole files: removing the
  // originals below must not free what the tracks still point at.
  std::vector<DashLocalTrack> tracks = document.tracks;
  for (auto& t : tracks)
    if (t.addressing) t.addressing = xmlDocCopyNode(t.addressing, document.doc.get(), 1);

  setAttribute(mpd, "type", "static");
  removeChildren(mpd, {"BaseURL", "Location", "PatchLocation"});
  for (xmlNode* p = mpd->children; p;) {
    xmlNode* next = p->next;
    if (isElement(p, "Period") && p != document.period) removeNode(p);
    p = next;
  }
  xmlNode* period = document.period;
  removeChildren(period, kAddressing);
  for (xmlNode* set = period->children; set;) {
    xmlNode* next = set->next;
    if (isElement(set, "AdaptationSet")) {
      bool keep = false;
      for (xmlNode* rep = set->children; rep;) {
        xmlNode* after = rep->next;
        if (isElement(rep, "Representation")) {
          if (chosen.count(rep))
            keep = true;
          else
            removeNode(rep);
        }
        rep = after;
      }
      if (keep)
        removeChildren(set, kAddressing);
      else
        removeNode(set);
    }
    set = next;
  }
  for (const auto& track : tracks) {
    removeChildren(track.representation, kAddressing);
    if (track.layout == DashLocalTrack::Layout::kSegments)
      addTemplate(track.representation, track);
    else
      addWholeFile(track.representation, track);
    if (track.addressing) xmlFreeNode(track.addressing);
  }
  xmlChar* out = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(document.doc.get(), &out, &size, "UTF-8", 1);
  std::string text(reinterpret_cast<const char*>(out), static_cast<std::size_t>(size));
  xmlFree(out);
  return text;
}

}  // namespace zolvani::reference
