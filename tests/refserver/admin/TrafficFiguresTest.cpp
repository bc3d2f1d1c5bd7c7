// The dashboard's figures: per-minute counts that roll over an hour, and which
// replies count as errors and as signature refusals.
#include <gtest/gtest.h>

#include "reference/server/admin/TrafficFigures.h"

namespace zolvani::refserver {
namespace {

constexpr int64_t kMinute = 60000;
constexpr int64_t kStart = 28333333 * kMinute;  // a minute boundary in 2023

TEST(TrafficFiguresTest, CountsByEndpointErrorsAndSignatureRefusals) {
  TrafficFigures figures;
  struct Call {
    const char* endpoint;
    int http;
    int code;
  } calls[] = {
      {"catalog", 200, 0},          {"catalog", 200, 0}, {"catalog", 403, 0}, {"subscribe", 200, 2},
      {"validate", 403, 0},         {"media", 200, 0},   {"media", 403, 0},   {"console", 401, 0},
      {"../../etc/passwd", 404, 0}, {"Catalog", 404, 0},
  };
  for (const auto& c : calls) figures.Record(c.endpoint, c.http, c.code, kStart + 1000);
  const auto snap = figures.Snapshot(kStart + 2000);
  const auto& totals = snap["totals"];
  struct Expect {
    const char* name;
    int requests, errors, signatures;
  } expected[] = {
      {"catalog", 3, 1, 1}, {"subscribe", 1, 1, 0}, {"validate", 1, 1, 1},
      {"media", 2, 1, 0},   {"console", 1, 1, 0},   {"other", 2, 2, 0},
  };
  EXPECT_EQ(totals.size(), std::size(expected)) << totals.dump();
  for (const auto& e : expected) {
    ASSERT_TRUE(totals.contains(e.name)) << e.name;
    EXPECT_EQ(totals[e.name]["requests"], e.requests) << e.name;
    EXPECT_EQ(totals[e.name]["errors"], e.errors) << e.name;
    EXPECT_EQ(totals[e.name]["signature_refusals"], e.signatures) << e.name;
  }
  const auto& now = snap["minutes"].back();
  EXPECT_EQ(now["minute_ms"], kStart);
  EXPECT_EQ(now["requests"]["catalog"], 3);
  EXPECT_EQ(now["errors"], 7);
  EXPECT_EQ(now["signature_refusals"], 2);
}

TEST(TrafficFiguresTest, MinutesRollOverAfterAnHour) {
  TrafficFigures figures;
  figures.Record("catalog", 200, 0, kStart);
  figures.Record("catalog", 200, 0, kStart + 5 * kMinute + 59999);
  figures.Record("catalog", 200, 0, kStart + 5 * kMinute + 1);

  auto snap = figures.Snapshot(kStart + 10 * kMinute);
  const auto& minutes = snap["minutes"];
  ASSERT_EQ(minutes.size(), static_cast<size_t>(TrafficFigures::kMinutes));
  EXPECT_EQ(minutes.back()["minute_ms"], kStart + 10 * kMinute);
  EXPECT_EQ(minutes[TrafficFigures::kMinutes - 11]["requests"]["catalog"], 1);  // kStart
  EXPECT_EQ(minutes[TrafficFigures::kMinutes - 6]["requests"]["catalog"], 2);   // +5 min
  EXPECT_TRUE(minutes[TrafficFigures::kMinutes - 1]["requests"].empty());

  // An hour on, the slot of kStart serves the new minute: the old count is gone,
  // not added to, while the total keeps everything.
  figures.Record("catalog", 200, 0, kStart + 60 * kMinute);
  snap = figures.Snapshot(kStart + 60 * kMinute);
  EXPECT_EQ(snap["minutes"].back()["requests"]["catalog"], 1);
  EXPECT_EQ(snap["minutes"].front()["minute_ms"], kStart + kMinute);
  EXPECT_EQ(snap["totals"]["catalog"]["requests"], 4);
  int64_t inWindow = 0;
  for (const auto& m : snap["minutes"]) inWindow += m["requests"].value("catalog", 0);
  EXPECT_EQ(inWindow, 3);  // +5 min twice, +60 min once
}

}  // namespace
}  // namespace zolvani::refserver
