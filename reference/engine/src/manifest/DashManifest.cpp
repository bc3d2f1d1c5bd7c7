#include "manifest/DashManifest.h"

#include <libxml/parser.h>

#include <algorithm>
#include <cmath>
#include <mutex>

#include <fmt/format.h>

#include "manifest/DashDocument.h"
#include "manifest/DashWriter.h"
#include "manifest/LocalNames.h"
#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::reference {
namespace {

bool named(const xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, BAD_CAST name) == 0;
}

std::vector<xmlNode*> childrenNamed(xmlNode* parent, const char* name) {
  std::vector<xmlNode*> out;
  if (!parent) return out;
  for (xmlNode* c = parent->children; c; c = c->next)
    if (named(c, name)) out.push_back(c);
  return out;
}

xmlNode* childNamed(xmlNode* parent, const char* name) {
  if (!parent) return nullptr;
  for (xmlNode* c = parent->children; c; c = c->next)
    if (named(c, name)) return c;
  return nullptr;
}

std::optional<std::string> attribute(xmlNode* node, const char* name) {
  if (!node) return std::nullopt;
  xmlChar* value = xmlGetProp(node, BAD_CAST name);
  if (!value) return std::nullopt;
  std::string out(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return out;
}

std::string text(xmlNode* node) {
  xmlChar* value = xmlNodeGetContent(node);
  if (!value) return {};
  std::string out(reinterpret_cast<const char*>(value));
  xmlFree(value);
  auto first = out.find_first_not_of(" \t\r\n");
  auto last = out.find_last_not_of(" \t\r\n");
  return first == std::string::npos ? std::string() : out.substr(first, last - first + 1);
}

std::optional<std::uint64_t> toUnsigned(const std::optional<std::string>& s) {
  if (!s || s->empty() || s->size() > 19) return std::nullopt;
  std::uint64_t v = 0;
  for (char c : *s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return v;
}

// "<first>-<last>" (inclusive), as in mediaRange and indexRange.
std::optional<ByteRange> parseRange(const std::optional<std::string>& s) {
  if (!s) return std::nullopt;
  auto dash = s->find('-');
  if (dash == std::string::npos) return std::nullopt;
  auto first = toUnsigned(s->substr(0, dash));
  auto last = toUnsigned(s->substr(dash + 1));
  if (!first || !last || *last < *first) return std::nullopt;
  return ByteRange{*first, *last - *first + 1};
}

// An xs:duration such as "PT1H2M3.5S" or "P1DT2H", in seconds.
std::optional<double> parseDuration(const std::optional<std::string>& s) {
  if (!s || s->empty() || (*s)[0] != 'P') return std::nullopt;
  double total = 0;
  bool time = false;
  std::string number;
  for (std::size_t i = 1; i < s->size(); ++i) {
    const char c = (*s)[i];
    if ((c >= '0' && c <= '9') || c == '.') {
      number += c;
      continue;
    }
    if (c == 'T') {
      time = true;
      continue;
    }
    if (number.empty() || number.size() > 20) return std::nullopt;
    const double v = std::strtod(number.c_str(), nullptr);
    number.clear();
    switch (c) {
      case 'Y':
        total += v * 365 * 86400;
        break;
      case 'M':
        total += time ? v * 60 : v * 30 * 86400;
        break;
      case 'W':
        total += v * 7 * 86400;
        break;
      case 'D':
        total += v * 86400;
        break;
      case 'H':
        total += v * 3600;
        break;
      case 'S':
        total += v;
        break;
      default:
        return std::nullopt;
    }
  }
  if (!number.empty() || !std::isfinite(total)) return std::nullopt;
  return total;
}

// Fills $RepresentationID$, $Bandwidth$, $Number$ and $Time$ (each with an
// optional %0<width>d) and $$.
std::optional<std::string> fillTemplate(const std::string& pattern, const std::string& id,
                                        std::uint64_t bandwidth, std::uint64_t number,
                                        std::uint64_t time) {
  std::string out;
  std::size_t i = 0;
  while (i < pattern.size()) {
    if (pattern[i] != '$') {
      out += pattern[i++];
      continue;
    }
    auto close = pattern.find('$', i + 1);
    if (close == std::string::npos) return std::nullopt;
    std::string name = pattern.substr(i + 1, close - i - 1);
    i = close + 1;
    if (name.empty()) {
      out += '$';
      continue;
    }
    int width = 0;
    if (auto pct = name.find('%'); pct != std::string::npos) {
      const std::string format = name.substr(pct);
      name.resize(pct);
      if (format.size() < 3 || format[1] != '0' || format.back() != 'd') return std::nullopt;
      auto w = toUnsigned(format.substr(2, format.size() - 3));
      if (!w || *w > 32) return std::nullopt;
      width = static_cast<int>(*w);
    }
    if (name == "RepresentationID") {
      out += id;
    } else if (name == "Bandwidth") {
      out += fmt::format("{:0{}}", bandwidth, width);
    } else if (name == "Number") {
      out += fmt::format("{:0{}}", number, width);
    } else if (name == "Time") {
      out += fmt::format("{:0{}}", time, width);
    } else {
      return std::nullopt;
    }
  }
  return out;
}

struct Candidate {
  xmlNode* adaptationSet = nullptr;
  xmlNode* representation = nullptr;
  std::uint64_t bandwidth = 0;
};

enum class Content { kVideo, kAudio, kOther };

Content contentOf(xmlNode* adaptationSet, xmlNode* representation) {
  auto type = attribute(adaptationSet, "contentType").value_or("");
  auto mime = attribute(representation, "mimeType")
                  .value_or(attribute(adaptationSet, "mimeType").value_or(""));
  if (type == "video" || mime.rfind("video/", 0) == 0) return Content::kVideo;
  if (type == "audio" || mime.rfind("audio/", 0) == 0) return Content::kAudio;
  return Content::kOther;
}

// The highest bandwidth not above `cap` (no cap when 0 or less); else the lowest.
const Candidate* choose(const std::vector<Candidate>& candidates, std::int64_t cap) {
  const Candidate* best = nullptr;
  const Candidate* lowest = nullptr;
  for (const auto& c : candidates) {
    if (!lowest || c.bandwidth < lowest->bandwidth) lowest = &c;
    if (cap > 0 && c.bandwidth > static_cast<std::uint64_t>(cap)) continue;
    if (!best || c.bandwidth > best->bandwidth) best = &c;
  }
  return best ? best : lowest;
}

// What one representation's segments are, before they get local names.
struct Segment {
  std::string url;
  std::optional<ByteRange> range;
  std::uint64_t start = 0, duration = 0;
};

class TrackPlanner {
 public:
  TrackPlanner(const ManifestDocument& document, const PlanLimits& limits, xmlNode* mpd,
               xmlNode* period, double periodSeconds, std::size_t resourcesSoFar)
      : document_(document),
        limits_(limits),
        mpd_(mpd),
        period_(period),
        periodSeconds_(periodSeconds),
        resourcesSoFar_(resourcesSoFar) {}

  FetchResult plan(const Candidate& c, PlannedRendition::Kind kind, const std::string& prefix,
                   PlannedRendition* rendition, DashLocalTrack* track) {
    levels_ = {c.representation, c.adaptationSet, period_};
    id_ = attribute(c.representation, "id").value_or("");
    bandwidth_ = c.bandwidth;
    base_ = document_.url;
    for (xmlNode* node : {mpd_, period_, c.adaptationSet, c.representation})
      if (xmlNode* b = childNamed(node, "BaseURL")) base_ = resolveURL(base_, text(b));
    rendition->kind = kind;
    track->representation = c.representation;
    if (nearest("SegmentTemplate")) return planTemplate(prefix, rendition, track);
    if (xmlNode* list = nearest("SegmentList")) return planList(list, prefix, rendition, track);
    return planSingleFile(nearest("SegmentBase"), prefix, rendition, track);
  }

 private:
  xmlNode* nearest(const char* name) const {
    for (xmlNode* level : levels_)
      if (xmlNode* n = childNamed(level, name)) return n;
    return nullptr;
  }
  // An attribute of the addressing element `name`, inherited from the outer levels.
  std::optional<std::string> inherited(const char* name, const char* attr) const {
    for (xmlNode* level : levels_)
      if (auto v = attribute(childNamed(level, name), attr)) return v;
    return std::nullopt;
  }
  xmlNode* timeline(const char* name) const {
    for (xmlNode* level : levels_)
      if (xmlNode* t = childNamed(childNamed(level, name), "SegmentTimeline")) return t;
    return nullptr;
  }

  FetchResult tooMany() const {
    return planRefusal(kEngineErrorBadPlaylist,
                       fmt::format("The stream has more than {} segments", limits_.maxResources));
  }

  // Segment times from a SegmentTimeline, or from a fixed duration over the
  // period (or over `listed` segments, for a list).
  FetchResult timings(const char* element, std::uint64_t timescale,
                      std::vector<DashLocalTrack::Timing>* out,
                      std::optional<std::size_t> listed = std::nullopt) const {
    const std::size_t budget =
        limits_.maxResources - std::min(limits_.maxResources, resourcesSoFar_);
    if (xmlNode* t = timeline(element)) {
      std::uint64_t now = 0;
      const double end = periodSeconds_ * static_cast<double>(timescale);
      for (xmlNode* s : childrenNamed(t, "S")) {
        auto d = toUnsigned(attribute(s, "d"));
        if (!d || *d == 0)
          return planRefusal(kEngineErrorBadPlaylist, "A timeline entry has no duration");
        if (auto start = toUnsigned(attribute(s, "t"))) now = *start;
        long long repeat = 0;
        if (auto r = attribute(s, "r")) repeat = std::atoll(r->c_str());
        if (repeat < 0) {
          // Repeats until the period ends.
          if (periodSeconds_ <= 0)
            return planRefusal(kEngineErrorBadPlaylist, "An open timeline needs a duration");
          repeat = static_cast<long long>(
                       std::ceil((end - static_cast<double>(now)) / static_cast<double>(*d))) -
                   1;
        }
        for (long long k = 0; k <= repeat; ++k) {
          if (out->size() >= budget) return tooMany();
          out->push_back({now, *d});
          now += *d;
        }
      }
      return {FetchOutcome::kDone, std::nullopt, 0, 0};
    }
    auto duration = toUnsigned(inherited(element, "duration"));
    if (!duration || *duration == 0 || (periodSeconds_ <= 0 && !listed))
      return planRefusal(kEngineErrorBadPlaylist,
                         "A representation has neither a timeline nor a segment duration");
    const double count = listed ? static_cast<double>(*listed)
                                : std::ceil(periodSeconds_ * static_cast<double>(timescale) /
                                            static_cast<double>(*duration));
    if (count > static_cast<double>(budget)) return tooMany();
    for (std::uint64_t k = 0; k < static_cast<std::uint64_t>(count); ++k)
      out->push_back({k * *duration, *duration});
    return {FetchOutcome::kDone, std::nullopt, 0, 0};
  }

  FetchResult addResource(PlannedResource::Kind kind, const std::string& url,
                          std::optional<ByteRange> range, std::string localName,
                          PlannedRendition* rendition) const {
    if (!isFetchableURL(url))
      return planRefusal(kEngineErrorBadURL,
                         "Only http and https URLs are downloaded; the MPD names " + url);
    if (resourcesSoFar_ + rendition->resources.size() >= limits_.maxResources) return tooMany();
    rendition->resources.push_back({kind, url, range, std::move(localName)});
    return {FetchOutcome::kDone, std::nullopt, 0, 0};
  }

  // Numbered local files addressed by a local template.
  FetchResult planSegments(const std::string& prefix, std::optional<Segment> init,
                           const std::vector<Segment>& segments, std::uint64_t timescale,
                           std::optional<std::uint64_t> offset, PlannedRendition* rendition,
                           DashLocalTrack* track) const {
    track->layout = DashLocalTrack::Layout::kSegments;
    track->timescale = timescale;
    track->presentationTimeOffset = offset;
    if (init) {
      track->initName = initFileName(prefix, 0, "");
      auto r = addResource(PlannedResource::Kind::kInit, init->url, init->range, track->initName,
                           rendition);
      if (r.outcome != FetchOutcome::kDone) return r;
    }
    track->mediaTemplate = prefix + "segment-$Number%05d$.m4s";
    for (std::size_t k = 0; k < segments.size(); ++k) {
      const Segment& s = segments[k];
      auto r = addResource(PlannedResource::Kind::kMedia, s.url, s.range,
                           mediaFileName(prefix, k + 1, "", true, false), rendition);
      if (r.outcome != FetchOutcome::kDone) return r;
      track->timeline.push_back({s.start, s.duration});
    }
    if (segments.empty())
      return planRefusal(kEngineErrorBadPlaylist, "A representation lists no segments");
    return {FetchOutcome::kDone, std::nullopt, 0, 0};
  }

  FetchResult planTemplate(const std::string& prefix, PlannedRendition* rendition,
                           DashLocalTrack* track) {
    auto media = inherited("SegmentTemplate", "media");
    if (!media) return planRefusal(kEngineErrorBadPlaylist, "A SegmentTemplate has no media");
    const std::uint64_t timescale = std::max<std::uint64_t>(
        1, toUnsigned(inherited("SegmentTemplate", "timescale")).value_or(1));
    const std::uint64_t startNumber =
        toUnsigned(inherited("SegmentTemplate", "startNumber")).value_or(1);
    std::vector<DashLocalTrack::Timing> times;
    FetchResult r = timings("SegmentTemplate", timescale, &times);
    if (r.outcome != FetchOutcome::kDone) return r;
    std::optional<Segment> init;
    if (auto pattern = inherited("SegmentTemplate", "initialization")) {
      auto url = fillTemplate(*pattern, id_, bandwidth_, startNumber, 0);
      if (!url)
        return planRefusal(kEngineErrorBadPlaylist, "Bad initialization template " + *pattern);
      init = Segment{resolveURL(base_, *url), std::nullopt, 0, 0};
    }
    std::vector<Segment> segments;
    for (std::size_t k = 0; k < times.size(); ++k) {
      auto url = fillTemplate(*media, id_, bandwidth_, startNumber + k, times[k].start);
      if (!url) return planRefusal(kEngineErrorBadPlaylist, "Bad media template " + *media);
      segments.push_back(
          {resolveURL(base_, *url), std::nullopt, times[k].start, times[k].duration});
    }
    return planSegments(prefix, init, segments, timescale,
                        toUnsigned(inherited("SegmentTemplate", "presentationTimeOffset")),
                        rendition, track);
  }

  FetchResult planList(xmlNode* list, const std::string& prefix, PlannedRendition* rendition,
                       DashLocalTrack* track) {
    const std::uint64_t timescale =
        std::max<std::uint64_t>(1, toUnsigned(inherited("SegmentList", "timescale")).value_or(1));
    std::optional<Segment> init;
    if (xmlNode* i = childNamed(list, "Initialization")) {
      auto source = attribute(i, "sourceURL");
      init = Segment{source ? resolveURL(base_, *source) : base_, parseRange(attribute(i, "range")),
                     0, 0};
    }
    // Byte ranges become files of their own, each fetched once with a Range
    // request: players read a local list of numbered files more reliably than
    // ranges into one file.
    std::vector<Segment> segments;
    for (xmlNode* u : childrenNamed(list, "SegmentURL")) {
      if (resourcesSoFar_ + segments.size() >= limits_.maxResources) return tooMany();
      auto media = attribute(u, "media");
      auto range = parseRange(attribute(u, "mediaRange"));
      if (attribute(u, "mediaRange") && !range)
        return planRefusal(kEngineErrorBadPlaylist, "A SegmentURL has a bad mediaRange");
      segments.push_back({media ? resolveURL(base_, *media) : base_, range, 0, 0});
    }
    std::vector<DashLocalTrack::Timing> times;
    FetchResult r = timings("SegmentList", timescale, &times, segments.size());
    if (r.outcome != FetchOutcome::kDone) return r;
    for (std::size_t k = 0; k < segments.size(); ++k) {
      if (k < times.size()) {
        segments[k].start = times[k].start;
        segments[k].duration = times[k].duration;
      } else {
        return planRefusal(kEngineErrorBadPlaylist, "A SegmentList has more segments than times");
      }
    }
    return planSegments(prefix, init, segments, timescale,
                        toUnsigned(inherited("SegmentList", "presentationTimeOffset")), rendition,
                        track);
  }

  FetchResult planWholeFile(xmlNode* addressing, const std::string& prefix,
                            PlannedRendition* rendition, DashLocalTrack* track) {
    track->layout = DashLocalTrack::Layout::kWholeFile;
    track->addressing = addressing;
    track->fileName = prefix + "media-00000.mp4";
    return addResource(PlannedResource::Kind::kMedia, base_, std::nullopt, track->fileName,
                       rendition);
  }

  FetchResult planSingleFile(xmlNode* segmentBase, const std::string& prefix,
                             PlannedRendition* rendition, DashLocalTrack* track) {
    if (segmentBase && attribute(segmentBase, "indexRange") &&
        !parseRange(attribute(segmentBase, "indexRange")))
      return planRefusal(kEngineErrorBadPlaylist, "A SegmentBase has a bad indexRange");
    return planWholeFile(segmentBase, prefix, rendition, track);
  }

  const ManifestDocument& document_;
  const PlanLimits& limits_;
  xmlNode* mpd_;
  xmlNode* period_;
  double periodSeconds_;
  std::size_t resourcesSoFar_;
  std::vector<xmlNode*> levels_;
  std::string id_, base_;
  std::uint64_t bandwidth_ = 0;
};

}  // namespace

FetchResult planDash(const PlanRequest& request, const PlanLimits& limits,
                     const ManifestDocument& document, MediaPlan* plan) {
  *plan = {};
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
  if (document.text.size() > limits.maxManifestBytes ||
      document.text.size() > static_cast<std::size_t>(INT32_MAX))
    return planRefusal(kEngineErrorBadPlaylist, "The MPD is too large");
  // No network access and no entity substitution: an MPD names its media by
  // URL, never by entities or external documents.
  DashDocument parsed;
  DashDocument* owned = &parsed;
  owned->doc.reset(xmlReadMemory(document.text.data(), static_cast<int>(document.text.size()),
                                 document.url.c_str(), nullptr,
                                 XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!owned->doc) return planRefusal(kEngineErrorBadPlaylist, "The MPD is not well-formed XML");
  // An MPD needs no document type; one that declares entities is refused
  // rather than expanded.
  if (owned->doc->intSubset || owned->doc->extSubset)
    return planRefusal(kEngineErrorBadPlaylist, "The MPD declares a DTD, which is not accepted");
  xmlNode* mpd = xmlDocGetRootElement(owned->doc.get());
  if (!mpd || !named(mpd, "MPD"))
    return planRefusal(kEngineErrorBadPlaylist, "Not a DASH manifest (no MPD element)");
  if (attribute(mpd, "type").value_or("static") != "static")
    return planRefusal(kEngineErrorLivePlaylist,
                       "The stream is live (its MPD is dynamic); only video on demand can be "
                       "downloaded");
  auto periods = childrenNamed(mpd, "Period");
  if (periods.size() != 1)
    return planRefusal(
        kEngineErrorBadPlaylist,
        fmt::format("The MPD has {} periods; only one is supported", periods.size()));
  xmlNode* period = periods.front();
  owned->period = period;
  const double seconds =
      parseDuration(attribute(period, "duration"))
          .value_or(parseDuration(attribute(mpd, "mediaPresentationDuration")).value_or(0));

  std::vector<Candidate> video;
  std::vector<std::vector<Candidate>> audioSets;
  std::size_t mainAudio = SIZE_MAX;
  for (xmlNode* set : childrenNamed(period, "AdaptationSet")) {
    std::vector<Candidate> audio;
    for (xmlNode* rep : childrenNamed(set, "Representation")) {
      Candidate c{set, rep, toUnsigned(attribute(rep, "bandwidth")).value_or(0)};
      switch (contentOf(set, rep)) {
        case Content::kVideo:
          video.push_back(c);
          break;
        case Content::kAudio:
          audio.push_back(c);
          break;
        case Content::kOther:
          break;
      }
    }
    if (audio.empty()) continue;
    for (xmlNode* role : childrenNamed(set, "Role"))
      if (attribute(role, "value").value_or("") == "main" && mainAudio == SIZE_MAX)
        mainAudio = audioSets.size();
    audioSets.push_back(std::move(audio));
  }
  std::vector<std::pair<const Candidate*, PlannedRendition::Kind>> chosen;
  std::int64_t left = request.maxBitrate;
  if (const Candidate* v = choose(video, request.maxBitrate)) {
    chosen.emplace_back(v, PlannedRendition::Kind::kVideo);
    plan->bandwidth = static_cast<std::int64_t>(std::min<std::uint64_t>(v->bandwidth, INT64_MAX));
    // Audio gets what the cap leaves; with nothing left, its lowest.
    if (left > 0) left = std::max<std::int64_t>(1, left - plan->bandwidth);
  }
  if (!audioSets.empty()) {
    const auto& set = audioSets[mainAudio == SIZE_MAX ? 0 : mainAudio];
    const Candidate* a = choose(set, left);
    chosen.emplace_back(a, PlannedRendition::Kind::kAudio);
    if (!plan->bandwidth) plan->bandwidth = static_cast<std::int64_t>(a->bandwidth);
  }
  if (chosen.empty())
    return planRefusal(kEngineErrorBadPlaylist, "The MPD has no video or audio representation");

  for (const auto& [candidate, kind] : chosen) {
    const std::string prefix = kind == PlannedRendition::Kind::kVideo ? "video-" : "audio-";
    TrackPlanner planner(document, limits, mpd, period, seconds, plan->resourceCount());
    PlannedRendition rendition;
    DashLocalTrack track;
    FetchResult r = planner.plan(*candidate, kind, prefix, &rendition, &track);
    if (r.outcome != FetchOutcome::kDone) return r;
    plan->renditions.push_back(std::move(rendition));
    owned->tracks.push_back(std::move(track));
  }
  plan->manifests.push_back({"index.mpd", writeLocalMpd(*owned)});
  return {FetchOutcome::kDone, std::nullopt, 0, 0};
}

}  // namespace zolvani::reference
