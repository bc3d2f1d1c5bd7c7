// ProgressBoard: one progress bar per download, redrawn in place on a terminal.
//
// On a terminal the board rewrites its lines with ANSI cursor movement a few
// times a second. Anywhere else (a pipe, a log file) it prints a line only when
// an asset changes state or passes another quarter of its size, so the record
// stays readable.
//
// Thread-safety: one thread updates the board.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "zolvani/reference/ReferenceEngine.h"

namespace zsm {

class ProgressBoard {
 public:
  // Draws on `stream`; `interactive` chooses in-place redrawing.
  ProgressBoard(std::FILE* stream, bool interactive);
  // True when `stream` is a terminal and TERM is not "dumb".
  static bool isTerminal(std::FILE* stream);

  // Shows the assets' current state.
  void update(const std::vector<zolvani::reference::AssetInfo>& assets);
  // Prints a line of text above the board (which is redrawn below it next time).
  void note(const std::string& line);
  // Leaves the cursor below the board.
  void finish();

  // "[#########.........]  45%  1.2 MiB / 2.5 MiB"
  static std::string bar(double fraction, int width);
  static std::string bytes(std::uint64_t count);
  static std::string lineFor(const zolvani::reference::AssetInfo& asset, int barWidth);

 private:
  std::FILE* stream_;
  bool interactive_;
  int drawnLines_ = 0;
  // Per asset UUID: the last state and quarter printed (non-interactive mode).
  std::map<std::string, std::pair<zolvani::reference::AssetState, int>> printed_;
};

}  // namespace zsm
