// DashWriter: the local MPD of a downloaded DASH stream.
//
// It is the server's MPD reduced to the chosen representations, with every
// BaseURL and segment addressing replaced by the local files, and marked
// static. Everything else (codecs, languages, roles, durations) is kept.
//
// Thread-safety: plain function; it changes the document it is given.
#pragma once

#include <string>

#include "manifest/DashDocument.h"

namespace zolvani::reference {

std::string writeLocalMpd(DashDocument& document);

}  // namespace zolvani::reference
