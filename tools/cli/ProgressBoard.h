// ProgressBoard: how zsm shows downloads while it follows them.
//
// On a terminal the board redraws in place a few times a second: one line per
// download with its bar, bytes, transfer rate and time left, and a total line
// for all of them. Anywhere else (a pipe, a log file) it prints one plain line
// per event instead (a download queued, started, finished or failed), never a
// progress line, so the record stays readable and grep-able. Either way finish()
// ends with a one-line summary.
//
// Rates are measured over the last few seconds of samples, so the time left
// follows the link as it speeds up or slows down.
//
// Thread-safety: one thread updates the board.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "zolvani/reference/ReferenceEngine.h"

namespace zsm {

class ProgressBoard {
 public:
  using Clock = std::chrono::steady_clock;

  // Draws on `stream`; `interactive` chooses in-place redrawing.
  ProgressBoard(std::FILE* stream, bool interactive);
  // True when `stream` is a terminal and TERM is not "dumb".
  static bool isTerminal(std::FILE* stream);

  // Downloads that were complete before the command began: no events, and not
  // in the summary.
  void setAlreadyDone(std::set<std::string> uuids);

  // Shows the assets' current state as of `now`.
  void update(const std::vector<zolvani::reference::AssetInfo>& assets,
              Clock::time_point now = Clock::now());
  // Prints a line of text above the board (which is redrawn below it next time).
  void note(const std::string& line);
  // Leaves the cursor below the board and prints the summary line.
  void finish(Clock::time_point now = Clock::now());
  // "downloads: 3 complete, 1 failed, 2 pending; 1.5 MiB in 9.8 s (160.0 KiB/s)",
  // counting what was not complete before the command began.
  std::string summary(Clock::time_point now) const;

  // "[#########.........]  45%"
  static std::string bar(double fraction, int width);
  static std::string bytes(std::uint64_t count);
  // "160.0 KiB/s"
  static std::string rate(double bytesPerSecond);
  // "0:42", "1:02:03"; "?" when unknown.
  static std::string duration(std::optional<double> seconds);
  static std::string lineFor(const zolvani::reference::AssetInfo& asset, int barWidth);

 private:
  struct Track {
    zolvani::reference::AssetState state = zolvani::reference::AssetState::kCreated;
    bool seen = false;
    bool doneBefore = false;  // complete before the command began
    std::deque<std::pair<Clock::time_point, std::uint64_t>> samples;
    std::optional<Clock::time_point> startedAt;
    Clock::time_point lastSeen;
    std::uint64_t bytesAtStart = 0;
  };
  // Bytes per second over the recent samples; none until there are two.
  static std::optional<double> recentRate(const Track& track);
  void record(const zolvani::reference::AssetInfo& asset, Clock::time_point now);
  void printEvents(const zolvani::reference::AssetInfo& asset, const Track& before,
                   Clock::time_point now);
  std::string totalLine() const;

  std::FILE* stream_;
  bool interactive_;
  int drawnLines_ = 0;
  std::optional<Clock::time_point> began_;
  std::map<std::string, Track> tracks_;  // per asset UUID
  std::set<std::string> alreadyDone_;
  std::vector<zolvani::reference::AssetInfo> last_;
};

}  // namespace zsm
