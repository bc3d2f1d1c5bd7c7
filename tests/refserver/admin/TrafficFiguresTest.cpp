// The dashboard's figures: per-minute counts that roll over an hour, and which
// replies count as errors and as signature refusals.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <random>

#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/store/sqlite/SqliteStore.h"

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

// Runs `sql` on `dir`/server.sqlite through a connection of its own.
void ExecOnDatabase(const std::filesystem::path& dir, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir / "server.sqlite").c_str(), &db), SQLITE_OK);
  sqlite3_busy_timeout(db, 5000);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

TEST(TrafficFiguresTest, ServersOnOneStoreAddUpAndAFailedFlushLosesNothing) {
  std::random_device rd;
  const auto dir = std::filesystem::temp_directory_path() /
                   ("zsm-figures-" + std::to_string(rd()) + "-" + std::to_string(rd()));
  struct Cleanup {
    std::filesystem::path dir;
    ~Cleanup() { std::filesystem::remove_all(dir); }
  } cleanup{dir};
  // Two server processes on one folder, each with its own connection.
  std::unique_ptr<SqliteStore> storeA;
  std::unique_ptr<SqliteStore> storeB;
  ASSERT_TRUE(SqliteStore::Open(dir, &storeA).ok());
  ASSERT_TRUE(SqliteStore::Open(dir, &storeB).ok());
  TrafficFigures a("r1");
  TrafficFigures b("r2");
  const int64_t now = kStart + 30 * kMinute + 5000;
  for (int i = 0; i < 3; ++i) a.Record("catalog", 200, 0, now);
  a.Record("subscribe", 403, 0, now);
  b.Record("catalog", 200, 0, now);
  b.Record("catalog", 200, 3, now);
  b.Record("media", 200, 0, now - 2 * kMinute);
  b.Record("catalog", 200, 0, now - 25 * 60 * kMinute);  // older than the store keeps

  ExecOnDatabase(dir,
                 "CREATE TRIGGER fault BEFORE INSERT ON traffic_minutes "
                 "BEGIN SELECT RAISE(ABORT, 'injected fault'); END");
  EXPECT_FALSE(a.Flush(storeA.get(), now).ok());
  a.Record("catalog", 200, 0, now);  // counted while the store is failing
  ExecOnDatabase(dir, "DROP TRIGGER fault");
  ASSERT_TRUE(a.Flush(storeA.get(), now).ok());
  ASSERT_TRUE(b.Flush(storeB.get(), now).ok());
  ASSERT_TRUE(a.Flush(storeA.get(), now).ok()) << "nothing new: nothing added twice";

  for (Store* reader : {static_cast<Store*>(storeA.get()), static_cast<Store*>(storeB.get())}) {
    nlohmann::json shared;
    ASSERT_TRUE(TrafficFigures::SharedSnapshot(reader, now, &shared).ok());
    EXPECT_EQ(shared["totals"]["catalog"]["requests"], 6) << shared.dump();
    EXPECT_EQ(shared["totals"]["catalog"]["errors"], 1);
    EXPECT_EQ(shared["totals"]["subscribe"]["signature_refusals"], 1);
    EXPECT_EQ(shared["totals"]["media"]["requests"], 1);
    EXPECT_EQ(shared["nodes"]["r1"]["requests"], 5);
    EXPECT_EQ(shared["nodes"]["r2"]["requests"], 3);
    EXPECT_EQ(shared["nodes"]["r2"]["last_minute_ms"], now / kMinute * kMinute);
    const auto& minutes = shared["minutes"];
    ASSERT_EQ(minutes.size(), static_cast<size_t>(TrafficFigures::kMinutes));
    EXPECT_EQ(minutes.back()["requests"]["catalog"], 6);
    EXPECT_EQ(minutes.back()["errors"], 2);
    EXPECT_EQ(minutes[TrafficFigures::kMinutes - 3]["requests"]["media"], 1);
  }
}

}  // namespace
}  // namespace zolvani::refserver
