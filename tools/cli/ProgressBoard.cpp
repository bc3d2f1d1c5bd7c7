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

namespace {

// How far back the rate looks: long enough to smooth a throttled link's
// bursts, short enough to follow a change of pace.
constexpr auto kRateWindow = std::chrono::seconds(3);

double seconds(ProgressBoard::Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

std::string nameOf(const AssetInfo& a) { return a.assetID.empty() ? a.uuid : a.assetID; }

bool active(AssetState s) { return s == AssetState::kQueued || s == AssetState::kTransferring; }

}  // namespace

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
  } else if (count < 1024ull * 1024 * 1024) {
    std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(count) / (1024 * 1024));
  } else {
    std::snprintf(text, sizeof text, "%.1f GiB",
                  static_cast<double>(count) / (1024.0 * 1024 * 1024));
  }
  return text;
}

std::string ProgressBoard::rate(double bytesPerSecond) {
  if (!std::isfinite(bytesPerSecond) || bytesPerSecond < 0) bytesPerSecond = 0;
  return bytes(static_cast<std::uint64_t>(bytesPerSecond)) + "/s";
}

std::string ProgressBoard::duration(std::optional<double> secondsLeft) {
  if (!secondsLeft || !std::isfinite(*secondsLeft) || *secondsLeft < 0 ||
      *secondsLeft > 100.0 * 3600)
    return "?";
  const auto total = static_cast<long long>(std::ceil(*secondsLeft));
  char text[32];
  if (total >= 3600)
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", total / 3600, total / 60 % 60,
                  total % 60);
  else
    std::snprintf(text, sizeof text, "%lld:%02lld", total / 60, total % 60);
  return text;
}

std::string ProgressBoard::lineFor(const AssetInfo& a, int barWidth) {
  double fraction = a.fractionComplete;
  if (a.state == AssetState::kComplete) fraction = 1.0;
  std::string name = nameOf(a);
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

std::optional<double> ProgressBoard::recentRate(const Track& track) {
  if (track.samples.size() < 2) return std::nullopt;
  const auto& [t0, b0] = track.samples.front();
  const auto& [t1, b1] = track.samples.back();
  const double span = seconds(t1 - t0);
  if (span <= 0 || b1 < b0) return std::nullopt;
  return static_cast<double>(b1 - b0) / span;
}

void ProgressBoard::record(const AssetInfo& a, Clock::time_point now) {
  Track& t = tracks_[a.uuid];
  if (a.state == AssetState::kTransferring && !t.startedAt) {
    t.startedAt = now;
    t.bytesAtStart = a.bytesDone;
  } else if (a.state == AssetState::kComplete && !t.startedAt && t.seen && active(t.state)) {
    // Done between two looks: it started some time after the last one.
    t.startedAt = t.lastSeen;
  }
  t.lastSeen = now;
  if (a.state == AssetState::kTransferring) {
    // A resumed transfer may start lower than a sample of an earlier attempt.
    if (!t.samples.empty() && t.samples.back().second > a.bytesDone) t.samples.clear();
    t.samples.emplace_back(now, a.bytesDone);
    while (t.samples.size() > 2 && now - t.samples.front().first > kRateWindow)
      t.samples.pop_front();
  } else {
    t.samples.clear();
  }
  if (!t.seen) t.doneBefore = alreadyDone_.count(a.uuid) > 0;
  t.state = a.state;
  t.seen = true;
}

void ProgressBoard::printEvents(const AssetInfo& a, const Track& before, Clock::time_point now) {
  if (before.seen && before.state == a.state) return;
  const std::string name = nameOf(a);
  std::string line;
  switch (a.state) {
    case AssetState::kQueued:
      line = "queued    " + name;
      break;
    case AssetState::kTransferring:
      line = "started   " + name;
      break;
    case AssetState::kComplete: {
      line = "complete  " + name;
      const std::uint64_t size = std::max(a.bytesDone, a.bytesTotal);
      if (size > 0) line += "  " + bytes(size);
      if (before.startedAt) {
        const double took = seconds(now - *before.startedAt);
        const std::uint64_t moved = size > before.bytesAtStart ? size - before.bytesAtStart : 0;
        char text[32];
        std::snprintf(text, sizeof text, " in %.1f s", took);
        line += text;
        if (took > 0 && moved > 0) line += " (" + rate(static_cast<double>(moved) / took) + ")";
      }
      break;
    }
    case AssetState::kFailed:
      line = "failed    " + name + (a.lastError ? ": " + a.lastError->describe() : std::string());
      break;
    default:
      return;  // created and gone are no news to a reader
  }
  std::fprintf(stream_, "%s\n", line.c_str());
}

std::string ProgressBoard::totalLine() const {
  std::uint64_t done = 0, total = 0, knownDone = 0, knownTotal = 0;
  double speed = 0;
  bool sizeKnown = true;
  int running = 0;
  for (const auto& a : last_) {
    if (!active(a.state)) continue;
    ++running;
    done += a.bytesDone;
    total += a.bytesTotal;
    if (a.bytesTotal == 0 || a.manifest) {
      sizeKnown = false;
    } else {
      knownDone += a.bytesDone;
      knownTotal += a.bytesTotal;
    }
    auto it = tracks_.find(a.uuid);
    if (it != tracks_.end()) speed += recentRate(it->second).value_or(0);
  }
  std::string line = "total: " + std::to_string(running) + " running, " + bytes(done);
  if (sizeKnown && total > 0) line += " / " + bytes(total);
  line += ", " + rate(speed);
  // Downloads whose size is not known yet (still queued, or streams) add time
  // that cannot be told: the estimate is then a lower bound.
  std::optional<double> left;
  if (speed > 0 && knownTotal >= knownDone && knownTotal > 0)
    left = static_cast<double>(knownTotal - knownDone) / speed;
  return line + ", " + (left && !sizeKnown ? "at least " : "") + duration(left) + " left";
}

void ProgressBoard::update(const std::vector<AssetInfo>& assets, Clock::time_point now) {
  if (!began_) began_ = now;
  for (const auto& a : assets) {
    const Track before = tracks_[a.uuid];
    record(a, now);
    // A download finished before this command began is no news.
    if (!interactive_ && !tracks_[a.uuid].doneBefore) printEvents(a, before, now);
  }
  last_ = assets;
  if (!interactive_) {
    std::fflush(stream_);
    return;
  }
  if (drawnLines_ > 0) std::fprintf(stream_, "\x1b[%dA", drawnLines_);
  for (const auto& a : assets) {
    std::string line = lineFor(a, 24);
    if (a.state == AssetState::kTransferring) {
      const auto speed = recentRate(tracks_[a.uuid]);
      std::optional<double> left;
      if (speed && *speed > 0 && a.bytesTotal >= a.bytesDone && !a.manifest)
        left = static_cast<double>(a.bytesTotal - a.bytesDone) / *speed;
      line += "  " + rate(speed.value_or(0)) + "  " + duration(left) + " left";
    }
    std::fprintf(stream_, "\x1b[2K%s\n", line.c_str());
  }
  std::fprintf(stream_, "\x1b[2K%s\n", totalLine().c_str());
  drawnLines_ = static_cast<int>(assets.size()) + 1;
  std::fflush(stream_);
}

void ProgressBoard::setAlreadyDone(std::set<std::string> uuids) { alreadyDone_ = std::move(uuids); }

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

std::string ProgressBoard::summary(Clock::time_point now) const {
  int complete = 0, failed = 0, pending = 0;
  std::uint64_t moved = 0;
  for (const auto& a : last_) {
    auto it = tracks_.find(a.uuid);
    if (it != tracks_.end() && it->second.doneBefore) continue;
    if (a.state == AssetState::kComplete)
      ++complete;
    else if (a.state == AssetState::kFailed)
      ++failed;
    else if (active(a.state))
      ++pending;
    const std::uint64_t size =
        a.state == AssetState::kComplete ? std::max(a.bytesDone, a.bytesTotal) : a.bytesDone;
    if (it != tracks_.end() && it->second.startedAt) {
      if (size > it->second.bytesAtStart) moved += size - it->second.bytesAtStart;
    } else if (a.state == AssetState::kComplete) {
      moved += size;  // done before the board first looked, within this command
    }
  }
  const double took = began_ ? seconds(now - *began_) : 0;
  char time[32];
  std::snprintf(time, sizeof time, " in %.1f s", took);
  std::string line = "downloads: " + std::to_string(complete) + " complete, " +
                     std::to_string(failed) + " failed, " + std::to_string(pending) + " pending; " +
                     bytes(moved) + time;
  if (took > 0) line += " (" + rate(static_cast<double>(moved) / took) + ")";
  return line;
}

void ProgressBoard::finish(Clock::time_point now) {
  drawnLines_ = 0;
  std::fprintf(stream_, "%s\n", summary(now).c_str());
  std::fflush(stream_);
}

}  // namespace zsm
