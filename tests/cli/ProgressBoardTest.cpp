// The progress display: rates and time left while downloads run, one line per
// event where no terminal redraws in place, and the summary at the end.
#include "ProgressBoard.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace zsm {
namespace {

using zolvani::reference::AssetInfo;
using zolvani::reference::AssetState;
using namespace std::chrono_literals;

AssetInfo asset(const std::string& id, AssetState state, std::uint64_t done, std::uint64_t total) {
  AssetInfo a;
  a.uuid = "uuid-" + id;
  a.assetID = id;
  a.state = state;
  a.bytesDone = done;
  a.bytesTotal = total;
  a.fractionComplete = total ? static_cast<double>(done) / static_cast<double>(total) : 0;
  return a;
}

// A board drawing into a temporary file, read back whole.
class Capture {
 public:
  Capture() : file_(std::tmpfile()) {}
  ~Capture() { std::fclose(file_); }
  std::FILE* file() const { return file_; }
  std::string text() const {
    std::fflush(file_);
    std::rewind(file_);
    std::string out;
    char buffer[512];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, file_)) out.append(buffer, n);
    return out;
  }

 private:
  std::FILE* file_;
};

TEST(ProgressBoardTest, DurationsAndRatesReadLikeOtherTools) {
  struct Case {
    std::optional<double> seconds;
    const char* text;
  } cases[] = {{0.0, "0:00"},       {59.2, "1:00"},      {61.0, "1:01"}, {3600.0, "1:00:00"},
               {3725.0, "1:02:05"}, {std::nullopt, "?"}, {-1.0, "?"},    {1e12, "?"}};
  for (const Case& c : cases) EXPECT_EQ(ProgressBoard::duration(c.seconds), c.text);
  EXPECT_EQ(ProgressBoard::rate(160 * 1024), "160.0 KiB/s");
  EXPECT_EQ(ProgressBoard::rate(-5), "0 B/s");
  EXPECT_EQ(ProgressBoard::bytes(3ull << 30), "3.0 GiB");
}

TEST(ProgressBoardTest, WithoutATerminalEachEventIsOneLine) {
  Capture out;
  ProgressBoard board(out.file(), /*interactive=*/false);
  const auto t0 = ProgressBoard::Clock::time_point{} + 1000s;
  const std::uint64_t kib = 1024;
  // "c" was downloaded before the command began: no line, and not in the
  // summary; "d" finished before the board first looked, but in this command.
  const AssetInfo old = asset("c", AssetState::kComplete, 10 * kib, 10 * kib);
  const AssetInfo quick = asset("d", AssetState::kComplete, 5 * kib, 5 * kib);
  board.setAlreadyDone({"uuid-c"});
  board.update(
      {asset("a", AssetState::kQueued, 0, 0), asset("b", AssetState::kQueued, 0, 0), old, quick},
      t0);
  board.update(
      {asset("a", AssetState::kTransferring, 0, 200 * kib), asset("b", AssetState::kQueued, 0, 0)},
      t0 + 1s);
  // Progress alone prints nothing.
  board.update({asset("a", AssetState::kTransferring, 50 * kib, 200 * kib),
                asset("b", AssetState::kQueued, 0, 0)},
               t0 + 2s);
  board.update({asset("a", AssetState::kTransferring, 150 * kib, 200 * kib),
                asset("b", AssetState::kQueued, 0, 0)},
               t0 + 2500ms);
  AssetInfo failed = asset("b", AssetState::kFailed, 0, 0);
  failed.lastError = zolvani::Error::make("ZolvaniReferenceEngine", 3, "HTTP 404");
  board.update({asset("a", AssetState::kComplete, 200 * kib, 200 * kib), failed}, t0 + 3s);
  board.update({asset("a", AssetState::kComplete, 200 * kib, 200 * kib), failed, old, quick},
               t0 + 4s);
  board.finish(t0 + 4s);
  EXPECT_EQ(out.text(),
            "queued    a\n"
            "queued    b\n"
            "complete  d  5.0 KiB\n"
            "started   a\n"
            "complete  a  200.0 KiB in 2.0 s (100.0 KiB/s)\n"
            "failed    b: ZolvaniReferenceEngine 3: HTTP 404\n"
            "downloads: 2 complete, 1 failed, 0 pending; 205.0 KiB in 4.0 s (51.2 KiB/s)\n");
}

TEST(ProgressBoardTest, OnATerminalEachDownloadAndTheTotalShowRateAndTimeLeft) {
  Capture out;
  ProgressBoard board(out.file(), /*interactive=*/true);
  const auto t0 = ProgressBoard::Clock::time_point{} + 1000s;
  const std::uint64_t kib = 1024;
  board.update({asset("a", AssetState::kTransferring, 0, 1000 * kib),
                asset("b", AssetState::kTransferring, 0, 500 * kib)},
               t0);
  board.update({asset("a", AssetState::kTransferring, 100 * kib, 1000 * kib),
                asset("b", AssetState::kTransferring, 100 * kib, 500 * kib)},
               t0 + 1s);
  const std::string text = out.text();
  const std::string last = text.substr(text.rfind("\x1b[2K", text.rfind("\x1b[2K") - 1));
  // a: 900 KiB left at 100 KiB/s; b: 400 KiB left; together 1300 KiB at 200 KiB/s.
  EXPECT_NE(text.find("100.0 KiB/s  0:09 left"), std::string::npos) << text;
  EXPECT_NE(text.find("100.0 KiB/s  0:04 left"), std::string::npos) << text;
  EXPECT_NE(text.find("total: 2 running, 200.0 KiB / 1.5 MiB, 200.0 KiB/s, 0:07 left"),
            std::string::npos)
      << text;
  EXPECT_NE(last.find("total:"), std::string::npos);

  // A queued download's size is not known yet: the estimate becomes a bound.
  board.update({asset("a", AssetState::kTransferring, 200 * kib, 1000 * kib),
                asset("b", AssetState::kTransferring, 200 * kib, 500 * kib),
                asset("c", AssetState::kQueued, 0, 0)},
               t0 + 2s);
  EXPECT_NE(out.text().find("total: 3 running, 400.0 KiB, 200.0 KiB/s, at least 0:06 left"),
            std::string::npos)
      << out.text();
}

}  // namespace
}  // namespace zsm
