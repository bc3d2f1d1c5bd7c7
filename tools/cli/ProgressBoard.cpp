#include "ProgressBoard.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace zsm {

using zolvani::reference::AssetInfo;
using zolvani::reference::AssetState;
using zolvani::reference::assetStateName;

ProgressBoard::ProgressBoard(std::FILE* stream, bool interactive)
    : stream_(stream), interactive_(interactive) {}

bool ProgressBoard::isTerminal(std::FILE* stream) {
  const char* term = std::getenv("TERM");
  return isatty(fileno(stream)) && !(term && std::strcmp(term, "dumb") == 0);
}

std::string ProgressBoard::bar(double fraction, int width) {
  if (!std::isfinite(fraction)) fraction = 0;
  fraction = std::clamp(fraction, 0.0, 1.0);
  const int filled = static_cast<int>(std::lround(fraction * width));
  std::string text = "[";
  text.append(static_cast<std::size_t>(filled), '#');
  text.append(static_cast<std::size_t>(width - filled), '.');
  text += "]";
  char percent[8];
  std::snprintf(percent, sizeof percent, " %3d%%", static_cast<int>(std::floor(fraction * 100)));
  return text + percent;
}

std::string ProgressBoard::bytes(std::uint64_t count) {
  char text[32];
  if (count < 1024) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(count));
  } else if (count < 1024 * 1024) {
    std::snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(count) / 1024);
  } else {
    std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(count) / (1024 * 1024));
  }
  return text;
}

std::string ProgressBoard::lineFor(const AssetInfo& a, int barWidth) {
  double fraction = a.fractionComplete;
  if (a.state == AssetState::kComplete) fraction = 1.0;
  std::string name = a.assetID.empty() ? a.uuid : a.assetID;
  if (name.size() > 20) name = name.substr(0, 19) + "~";
  char head[40];
  std::snprintf(head, sizeof head, "%-20s ", name.c_str());
  std::string line = head + bar(fraction, barWidth);
  char state[24];
  std::snprintf(state, sizeof state, "  %-12s", std::string(assetStateName(a.state)).c_str());
  line += state;
  if (a.manifest && a.segmentsTotal > 0) {
    line += std::to_string(a.segmentsDone) + "/" + std::to_string(a.segmentsTotal) + " segments";
  } else if (a.bytesTotal > 0) {
    line += bytes(a.bytesDone) + " / " + bytes(a.bytesTotal);
  } else if (a.bytesDone > 0) {
    line += bytes(a.bytesDone);
  }
  if (a.state == AssetState::kFailed && a.lastError) line += "  " + a.lastError->describe();
  return line;
}

void ProgressBoard::update(const std::vector<AssetInfo>& assets) {
  if (interactive_) {
    if (drawnLines_ > 0) std::fprintf(stream_, "\x1b[%dA", drawnLines_);
    for (const auto& a : assets) std::fprintf(stream_, "\x1b[2K%s\n", lineFor(a, 30).c_str());
    drawnLines_ = static_cast<int>(assets.size());
    std::fflush(stream_);
    return;
  }
  for (const auto& a : assets) {
    const double fraction = a.state == AssetState::kComplete ? 1.0 : a.fractionComplete;
    const int quarter = static_cast<int>(std::floor(std::clamp(fraction, 0.0, 1.0) * 4));
    auto it = printed_.find(a.uuid);
    if (it != printed_.end() && it->second.first == a.state && it->second.second == quarter)
      continue;
    printed_[a.uuid] = {a.state, quarter};
    std::fprintf(stream_, "%s\n", lineFor(a, 20).c_str());
  }
  std::fflush(stream_);
}

void ProgressBoard::note(const std::string& line) {
  if (interactive_ && drawnLines_ > 0) {
    // Over the board's first line; the next update draws the board afresh from
    // the line below, overwriting what is left of the old one.
    std::fprintf(stream_, "\x1b[%dA\x1b[2K", drawnLines_);
    drawnLines_ = 0;
  }
  std::fprintf(stream_, "%s\n", line.c_str());
  std::fflush(stream_);
}

void ProgressBoard::finish() {
  drawnLines_ = 0;
  std::fflush(stream_);
}

}  // namespace zsm
