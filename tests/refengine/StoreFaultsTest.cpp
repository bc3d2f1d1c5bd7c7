// A full disk under the engine's store: a commit that fails loses nothing it
// held, and a store that closes while the disk is full lands an asset with
// the feed record that tracks it, or neither.
#include <gtest/gtest.h>

#include <cstdio>
#include <future>
#include <thread>

#include "EngineTestSupport.h"
#include "SqliteFaults.h"
#include "store/EngineStore.h"
#include "store/SqliteStoreContext.h"

namespace zolvani::testing {
namespace {

using reference::AssetFields;
using reference::EngineStore;
using reference::SqliteStoreContext;

class Item final : public ZolvaniAssetData {
 public:
  explicit Item(std::string uuid) : uuid_(std::move(uuid)) {}
  std::string uuid() const override { return uuid_; }
  std::optional<Date> downloadCompleteDateTime() const override { return std::nullopt; }
  std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() const override {
    return nullptr;
  }
  Value valueForKey(std::string_view) const override { return Value(); }

 private:
  std::string uuid_;
};

// What another process reading the file finds: committed rows only.
std::string query(const std::filesystem::path& file, const std::string& sql) {
  std::string out;
  if (FILE* p = popen(("sqlite3 " + file.string() + " \"" + sql + "\"").c_str(), "r")) {
    char buf[256];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

// Committed assets and tracked items, as "<assets>|<items>".
std::string landed(const std::filesystem::path& file) {
  return query(file,
               "SELECT (SELECT count(*) FROM assets), (SELECT count(*) FROM subscription_items);");
}

// Holds an asset's row and a feed record tracking it, as an admitted item
// leaves them before their commit.
void makeAsset(EngineStore& store, const std::string& uuid) {
  AssetFields f;
  f.uuid = uuid;
  f.assetID = "id-" + uuid;
  f.seq = 1;
  ASSERT_TRUE(store.assets().insert(f));
}

void track(SqliteStoreContext& context, const std::string& uuid) {
  context.performBlockAndWait([&] {
    auto record = context.insertSubscriptionData();
    record->setUuid("feed");
    record->feedItemsSet().add(std::make_shared<Item>(uuid));
  });
  ASSERT_TRUE(context.save());
}

void admit(EngineStore& store, SqliteStoreContext& context, const std::string& uuid) {
  makeAsset(store, uuid);
  track(context, uuid);
}

TEST(StoreFaultsTest, AStoreClosedOnAFullDiskLandsAnAssetWithItsFeedRecordOrNeither) {
  SqliteFaults::install();
  struct Case {
    const char* name;
    std::uint64_t writable;   // bytes the disk takes once it fills
    bool spaceForLastCommit;  // space freed before the store's own last commit
    const char* expected;     // assets|items
  };
  const Case cases[] = {
      // The context goes first (as in an engine's destruction), its commit
      // fails; the store's last commit then finds room.
      {"room again for the last commit", 0, true, "1|1\n"},
      {"a short write, then room again", 300, true, "1|1\n"},
      {"the disk stays full", 0, false, "0|0\n"},
      {"a short write, and the disk stays full", 300, false, "0|0\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempFolder folder;
    const auto file = folder.path() / "engine.sqlite3";
    {
      // Windows that never close by themselves: only flushes commit.
      EngineStore store(
          reference::GroupCommitOptions{std::chrono::hours(1), std::chrono::hours(1)});
      ASSERT_FALSE(store.open(file));
      ASSERT_TRUE(store.flush());
      auto context = std::make_shared<SqliteStoreContext>(store.db(), store.commits());
      admit(store, *context, "a1");
      {
        ScopedSqliteFault full(c.writable);
        context.reset();
        if (!c.spaceForLastCommit) store.close();
      }
      store.close();
    }
    EXPECT_EQ(query(file, "PRAGMA integrity_check;"), "ok\n");
    EXPECT_EQ(landed(file), c.expected);
  }
}

TEST(StoreFaultsTest, FailedCommitsKeepEveryHeldWriteForTheNextOne) {
  SqliteFaults::install();
  TempFolder folder;
  const auto file = folder.path() / "engine.sqlite3";
  EngineStore store(reference::GroupCommitOptions{std::chrono::hours(1), std::chrono::hours(1)});
  ASSERT_FALSE(store.open(file));
  ASSERT_TRUE(store.flush());
  auto context = std::make_shared<SqliteStoreContext>(store.db(), store.commits());
  const auto refusedBefore = SqliteFaults::refusedWrites();
  {
    ScopedSqliteFault full(200);
    admit(store, *context, "a1");
    ASSERT_TRUE(store.setMetaValue("device_uuid", "d-1"));
    // Several failed commits in a row, as a sync on a full disk makes them.
    for (int attempt = 0; attempt < 3; ++attempt) EXPECT_FALSE(store.flush());
    EXPECT_EQ(store.metaValue("device_uuid"), "d-1") << "a held value reads back before it lands";
  }
  EXPECT_GT(SqliteFaults::refusedWrites(), refusedBefore) << "the fault was never met";
  EXPECT_EQ(landed(file), "0|0\n");
  ASSERT_TRUE(store.flush());
  EXPECT_EQ(landed(file), "1|1\n");
  EXPECT_EQ(query(file, "SELECT value FROM meta WHERE key='device_uuid';"), "d-1\n");
  EXPECT_EQ(query(file, "PRAGMA integrity_check;"), "ok\n");
}

// Commits that fall due between an asset's row and its feed record wait for
// the admission holding both: were the asset to land alone and the next commit
// to fail, no feed would ever track it.
TEST(StoreFaultsTest, NoCommitLandsInsideAnAdmission) {
  TempFolder folder;
  const auto file = folder.path() / "engine.sqlite3";
  using namespace std::chrono_literals;
  // Windows that close at once: only the admission keeps them from committing.
  EngineStore store(reference::GroupCommitOptions{1ms, 1ms});
  ASSERT_FALSE(store.open(file));
  auto context = std::make_shared<SqliteStoreContext>(store.db(), store.commits());
  std::future<bool> flushed;
  {
    reference::GroupCommit::Admission admission(store.commits());
    makeAsset(store, "a1");
    {
      reference::GroupCommit::Admission nested(store.commits());  // a thread's own nesting
      std::this_thread::sleep_for(150ms);
    }
    EXPECT_EQ(landed(file), "0|0\n") << "the asset landed without its feed record";
    flushed = std::async(std::launch::async, [&] { return store.flush(); });
    EXPECT_EQ(flushed.wait_for(100ms), std::future_status::timeout)
        << "another thread's flush committed inside the admission";
    EXPECT_EQ(landed(file), "0|0\n");
    track(*context, "a1");
  }
  EXPECT_TRUE(flushed.get());
  EXPECT_EQ(landed(file), "1|1\n");

  // A thread that asks for a commit from inside its own admission gets it.
  {
    reference::GroupCommit::Admission admission(store.commits());
    admit(store, *context, "a2");
    EXPECT_TRUE(store.flush());
    EXPECT_EQ(landed(file), "2|2\n");
  }
  context.reset();
  store.close();
  EXPECT_EQ(query(file, "PRAGMA integrity_check;"), "ok\n");
}

}  // namespace
}  // namespace zolvani::testing
