// The manager's creation, settings, status reports and logging entry point.
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace zolvani::testing {
namespace {

using ::testing::ElementsAre;

TEST(ManagerCreationTest, PlainConstructionIsRefusedWithTheExactReason) {
  try {
    ZolvaniSubscriptionManager refused;
    FAIL() << "construction was not refused";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_STREQ(
        e.what(),
        "This class should never be directly instantiated.  Always use the instance singleton!");
  }
}

TEST(ManagerCreationTest, AFreshStoreGetsTheDefaultsAndOneFlush) {
  TestBed bed([](TestBed& b) { b.engine->setDate(Date(1750000000.5)); });
  auto& d = *bed.defaults;
  EXPECT_EQ(d.objectForKey(LastSyncKey), std::optional<Value>(Value(Date(1750000000.5))));
  EXPECT_EQ(d.objectForKey(MaxSubscriptionsKey), std::optional<Value>(Value(0)));
  EXPECT_EQ(d.objectForKey(AutoDeleteKey), std::optional<Value>(Value(true)));
  EXPECT_FALSE(d.objectForKey(MaxBitrateKey).has_value());
  EXPECT_FALSE(d.objectForKey(DeleteAfterDownloadKey).has_value());
  EXPECT_EQ(d.synchronizeCount(), 1u);
  EXPECT_EQ(bed.manager->status(), -1);
  EXPECT_FALSE(bed.manager->started());
  EXPECT_FALSE(bed.manager->inSync());
  // Creation registers the manager with the engine and does no network work.
  EXPECT_EQ(bed.engine->handlers().size(), 1u);
  EXPECT_TRUE(bed.http->requests().empty());
}

TEST(ManagerCreationTest, ExistingSettingsAndThePushTokenAreKept) {
  TestBed bed([](TestBed& b) {
    b.defaults->setBool(AutoDeleteKey, false);
    b.defaults->setInteger(MaxSubscriptionsKey, 7);
    b.defaults->setDate(LastSyncKey, Date(42));
    b.defaults->setString(kEngineDevicePushTokenKey, "token-abc");
  });
  EXPECT_FALSE(bed.manager->autodeleteOldItems());
  EXPECT_EQ(bed.manager->maximumSubscriptionItemsPerFeed(), 7);
  EXPECT_EQ(bed.manager->lastSubscriptionSyncTime(), std::optional<Date>(Date(42)));
  EXPECT_EQ(bed.manager->pushToken(), Value("token-abc"));
}

TEST(ManagerCreationTest, StoredSettingsOfAnyTypeAreNeverReplaced) {
  struct Case {
    std::string_view key;
    Value stored;
  };
  const Case cases[] = {
      {LastSyncKey, Value(12345)},          {LastSyncKey, Value("yesterday")},
      {LastSyncKey, Value(true)},           {AutoDeleteKey, Value(0)},
      {MaxSubscriptionsKey, Value("5")},    {MaxSubscriptionsKey, Value(Date(3))},
      {AutoDeleteKey, Value(Value::Map{})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key));
    TestBed bed([&](TestBed& b) { b.defaults->setObject(c.key, c.stored); });
    EXPECT_EQ(bed.defaults->objectForKey(c.key), std::optional<Value>(c.stored));
  }
}

TEST(ManagerCreationTest, ObserversOfTheFourEngineNotificationsAreRegistered) {
  TestBed bed;
  for (auto name :
       {kEnginePushTokenUpdateNotification, kEngineContentResetNotification,
        kEngineContentDeletedNotification, kDownloadEngineDidFinishDownloadingAssetNotification})
    EXPECT_EQ(bed.center->observerCount(name), 1u) << name;
}

TEST(ManagerSettingsTest, SettersFlushExceptTheBitrateAndGettersNarrow) {
  TestBed bed;
  auto& m = *bed.manager;
  struct Case {
    const char* name;
    std::function<void()> set;
    std::size_t flushes;
  } cases[] = {
      {"max items", [&] { m.setMaximumSubscriptionItemsPerFeed(5); }, 1},
      {"autodelete", [&] { m.setAutodeleteOldItems(false); }, 1},
      {"bitrate", [&] { m.setMaxBitrate(800000); }, 0},
      {"delete after download", [&] { m.setDeleteOldContentAfterNewContentDownloads(false); }, 0},
  };
  for (const auto& c : cases) {
    auto before = bed.defaults->synchronizeCount();
    c.set();
    EXPECT_EQ(bed.defaults->synchronizeCount() - before, c.flushes) << c.name;
  }
  EXPECT_EQ(m.maximumSubscriptionItemsPerFeed(), 5);
  EXPECT_FALSE(m.autodeleteOldItems());
  EXPECT_EQ(m.maxBitrate(), 800000);
  EXPECT_TRUE(m.deleteOldContentAfterNewContentDownloads());
  // Wider stored integers are narrowed to 32 bits on reading.
  bed.defaults->setInteger(MaxSubscriptionsKey, 5000000000LL);
  bed.defaults->setInteger(MaxBitrateKey, 4294967297LL);
  EXPECT_EQ(m.maximumSubscriptionItemsPerFeed(), 705032704);
  EXPECT_EQ(m.maxBitrate(), 1);
  // The user is the engine's, read afresh.
  bed.engine->setCredentials("http://x", "someone-else", "s", "k");
  EXPECT_EQ(m.user(), "someone-else");
}

constexpr const char* kPrefix = "-[ZolvaniSubscriptionManager logString:atLevel:] [Line 1581] ";

TEST(ManagerStatusTest, RepeatsAreSilentAndNotificationsCarryTheLatestStatus) {
  struct Case {
    const char* name;
    std::vector<std::int64_t> reports;
    std::vector<std::string> lines;
    std::vector<std::int64_t> notified;
  } cases[] = {
      {"first report always goes out", {0}, {"Updated Manager status to kZSM_Offline"}, {0}},
      {"repeat is silent", {1, 1}, {"Updated Manager status to kZSM_Started"}, {1}},
      {"unknown value: no line, still announced", {7}, {}, {7}},
      {"quick changes both carry the later one",
       {2, 3},
       {"Updated Manager status to kZSM_Receiving", "Updated Manager status to kZSM_Errors"},
       {3, 3}},
  };
  for (const auto& c : cases) {
    TestBed bed;
    NotificationRecorder seen(*bed.center, {kSubscriptionManagerStatusDidChangeNotification});
    std::thread reporter([&] {
      for (auto s : c.reports) bed.manager->reportStatus(s);
    });
    reporter.join();
    EXPECT_EQ(bed.manager->status(), c.reports.back()) << c.name;
    EXPECT_EQ(seen.all().size(), 0u) << c.name << ": posted before the main queue ran";
    bed.mainQueue->poll();
    std::vector<std::string> expectedLines;
    for (const auto& l : c.lines) expectedLines.push_back(kPrefix + l);
    EXPECT_EQ(bed.engine->messages(4), expectedLines) << c.name;
    std::vector<std::int64_t> notified;
    for (const auto& n : seen.all())
      notified.push_back(
          n.userInfo.at(std::string(kSubscriptionManagerStatusDidChangeNotificationStatusKey))
              .int64Value());
    EXPECT_EQ(notified, c.notified) << c.name;
    for (const auto& n : seen.all()) EXPECT_EQ(n.userInfo.size(), 1u);
  }
}

TEST(ManagerLoggingTest, LinesCarryTheFixedLocationAndTheCallersLevel) {
  TestBed bed;
  bed.manager->logString("hello %@ world", 2);
  bed.manager->logString("", 0);
  auto lines = bed.engine->logLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, std::string(kPrefix) + "hello %@ world");
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[1].message, std::string(kPrefix));
  EXPECT_EQ(lines[1].level, 0);
}

}  // namespace
}  // namespace zolvani::testing
