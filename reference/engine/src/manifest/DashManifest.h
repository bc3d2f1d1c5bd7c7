// DashManifest: reading static DASH MPDs (ISO/IEC 23009-1) and planning their
// download.
//
// The plan takes one video representation by bit rate (the highest not above
// the cap, else the lowest) and one audio adaptation set (the one whose Role
// is "main", else the first) with its richest representation that fits what
// the cap leaves. Segment addressing: SegmentTemplate with $Number$ or $Time$,
// with a SegmentTimeline or a fixed duration; SegmentList (media URLs or byte
// ranges, each range fetched once into a file of its own); SegmentBase (one
// file with its index range, fetched whole). Inherited elements
// (Period, AdaptationSet, Representation) and BaseURL chains are followed. A
// dynamic MPD (live) and one with more than one Period are refused.
//
// Thread-safety: plain functions; libxml2 is initialised once by the first call.
#pragma once

#include "manifest/Manifest.h"

namespace zolvani::reference {

FetchResult planDash(const PlanRequest& request, const PlanLimits& limits,
                     const ManifestDocument& document, MediaPlan* plan);

}  // namespace zolvani::reference
