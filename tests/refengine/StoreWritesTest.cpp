// What a save of the engine's store writes: the rows of what changed and
// nothing else, in an order that reads back as the feed's order, and a store
// that a kill at any point leaves consistent.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <random>
#include <thread>

#include "EngineTestSupport.h"
#include "store/EngineStore.h"
#include "store/SqliteStoreContext.h"

namespace zolvani::testing {
namespace {

using reference::AssetFields;
using reference::CollectionOrder;
using reference::EngineStore;
using reference::SqliteStoreContext;

constexpr std::string_view kKey = "creationDate";

// An asset-data record with a creation date.
class Item final : public ZolvaniAssetData {
 public:
  Item(std::string uuid, double created) : uuid_(std::move(uuid)), created_(created) {}
  std::string uuid() const override { return uuid_; }
  std::optional<Date> downloadCompleteDateTime() const override { return std::nullopt; }
  std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() const override {
    return nullptr;
  }
  Value valueForKey(std::string_view key) const override {
    return key == kKey ? Value(Date(created_)) : Value();
  }

 private:
  std::string uuid_;
  double created_;
};

std::shared_ptr<ZolvaniAssetData> item(const std::string& uuid, double created = 0) {
  return std::make_shared<Item>(uuid, created);
}

std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buf[256];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    pclose(p);
  }
  return out;
}

// Applies a save's rows to a model of the table and returns the UUIDs in
// position order.
std::vector<std::string> applyRows(std::map<std::string, std::int64_t>& table,
                                   const CollectionOrder::Writes& writes) {
  if (writes.replaceAll) table.clear();
  for (const auto& w : writes.rows) {
    if (w.position)
      table[w.uuid] = *w.position;
    else
      table.erase(w.uuid);
  }
  std::vector<std::pair<std::int64_t, std::string>> rows;
  for (const auto& [uuid, position] : table) rows.emplace_back(position, uuid);
  std::sort(rows.begin(), rows.end());
  std::vector<std::string> out;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_TRUE(i == 0 || rows[i - 1].first < rows[i].first) << "two rows share a position";
    out.push_back(rows[i].second);
  }
  return out;
}

std::vector<std::string> uuidsOf(const AssetDataOrderedSet& set) {
  std::vector<std::string> out;
  for (const auto& i : set) out.push_back(i->uuid());
  return out;
}

TEST(StoreWritesTest, ACollectionChangeWritesTheRowsThatMovedAndReadsBackInOrder) {
  struct Case {
    const char* name;
    // Changes a feed of 1,000 items created at 1000, 1001, ... 1999.
    std::function<void(AssetDataOrderedSet&)> change;
    std::size_t minRows, maxRows;
    bool replaceAll;
  };
  const std::vector<Case> cases = {
      {"append", [](auto& s) { s.insertSorted(item("new", 5000), kKey); }, 1, 1, false},
      {"insert at the front", [](auto& s) { s.insertSorted(item("new", 0), kKey); }, 1, 1, false},
      {"insert in the middle", [](auto& s) { s.insertSorted(item("new", 1500.5), kKey); }, 1, 1,
       false},
      {"remove from the middle", [](auto& s) { s.removeAt(500); }, 1, 1, false},
      {"forty insertions into one gap spread their neighbours out",
       [](auto& s) {
         double between = 1001;
         for (int i = 0; i < 40; ++i) {
           between = 1000 + (between - 1000) / 2;
           s.insertSorted(item("wedge-" + std::to_string(i), between), kKey);
         }
       },
       41, 200, false},
      {"a reordering rewrites the collection",
       [](auto& s) {
         s.add(item("late", 1));  // appended out of order, as a promotion does
         s.sortByAttribute(kKey);
       },
       1001, 1001, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AssetDataOrderedSet set;
    std::vector<CollectionOrder::Entry> saved;
    std::map<std::string, std::int64_t> table;
    for (int i = 0; i < 1000; ++i) {
      set.add(item("item-" + std::to_string(i), 1000 + i));
      saved.push_back({(i + 1) * CollectionOrder::kGap, set.at(i).get()});
      table[set.at(i)->uuid()] = saved.back().position;
    }
    set.sortByAttribute(kKey);
    set.setRecordsChanges(true);
    CollectionOrder order;
    order.assign(saved);
    c.change(set);
    auto writes = order.follow(set.takeChanges(), set);
    EXPECT_EQ(writes.replaceAll, c.replaceAll);
    EXPECT_GE(writes.rows.size(), c.minRows);
    EXPECT_LE(writes.rows.size(), c.maxRows);
    EXPECT_EQ(applyRows(table, writes), uuidsOf(set));
  }
}

TEST(StoreWritesTest, InsertionsAnywhereStayInOrderThroughRenumbering) {
  // Insertions at random places and, every third one, into the same ever
  // smaller gap so that gaps run out: after each save the table read by
  // position is the collection, and most saves write one row per insertion.
  std::mt19937 random(99);
  std::uniform_real_distribution<double> anywhere(0, 1);
  AssetDataOrderedSet set;
  set.setRecordsChanges(true);
  set.insertSorted(item("low", -1), kKey);
  set.insertSorted(item("high", 2), kKey);
  CollectionOrder order;
  std::map<std::string, std::int64_t> table;
  applyRows(table, order.follow(set.takeChanges(), set));
  double tight = 1;
  std::size_t rows = 0;
  for (int i = 0; i < 3000; ++i) {
    double created = anywhere(random);
    if (i % 3 == 0) created = -1 + (tight /= 1.5);
    set.insertSorted(item("i" + std::to_string(i), created), kKey);
    if (i % 10 == 9) {
      auto writes = order.follow(set.takeChanges(), set);
      ASSERT_FALSE(writes.replaceAll);
      rows += writes.rows.size();
      ASSERT_EQ(applyRows(table, writes), uuidsOf(set)) << "after " << i;
    }
  }
  // A crowded spot moves a few neighbours: a handful of rows per insertion,
  // where dealing the whole feed out again would write thousands.
  EXPECT_LT(rows, 3000u * 8);
}

struct StoreFolder {
  TempFolder folder;
  EngineStore store;
  std::shared_ptr<SqliteStoreContext> context;
  std::map<std::string, std::shared_ptr<ZolvaniAssetData>> items;

  StoreFolder() { open(); }
  void open() {
    ASSERT_FALSE(store.open(folder.path() / "engine.sqlite3"));
    context = std::make_shared<SqliteStoreContext>(store.db(), store.commits());
    ASSERT_FALSE(context->load([this](const std::string& uuid) {
      auto& i = items[uuid];
      if (!i) i = item(uuid);
      return i;
    }));
  }
  void reopen() {
    context.reset();
    store.close();
    open();
  }
  std::shared_ptr<SubscriptionData> record(const std::string& feed) {
    auto found = context->executeFetchRequest(
        SubscriptionDataFetchRequest::whereEquals(SubscriptionDataAttributes[3], feed), nullptr);
    return found.empty() ? nullptr : found.front();
  }
  std::shared_ptr<ZolvaniAssetData> itemNamed(const std::string& uuid, double created = 0) {
    auto& i = items[uuid];
    if (!i) i = item(uuid, created);
    return i;
  }
};

TEST(StoreWritesTest, ASaveWritesWhatTheUnitOfWorkChangedAndNothingElse) {
  StoreFolder s;
  auto record = s.context->insertSubscriptionData();
  record->setUuid("long");
  for (int i = 0; i < 2000; ++i)
    record->feedItemsSet().insertSorted(s.itemNamed("a" + std::to_string(i), i), kKey);
  auto other = s.context->insertSubscriptionData();
  other->setUuid("other");
  ASSERT_TRUE(s.context->save());
  const auto first = s.context->counts();
  EXPECT_EQ(first.recordRows, 2u);
  EXPECT_EQ(first.itemRows, 2000u);

  using Counts = reference::UnitOfWork::Counts;
  struct Step {
    const char* name;
    std::function<void()> change;
    Counts written;  // beyond what was written before the step
  };
  const std::vector<Step> steps = {
      {"one item into the middle",
       [&] { record->feedItemsSet().insertSorted(s.itemNamed("middle", 999.5), kKey); },
       Counts{0, 0, 1, 0, 0}},
      {"nothing changed, collections only read",
       [&] {
         (void)record->feedItemsSet().count();
         (void)other->deferredFeedItemsSet().count();
       },
       Counts{}},
      {"a rule", [&] { other->setMaxItemsValue(5); }, Counts{1, 0, 0, 0, 0}},
      {"one deferred item", [&] { other->deferredFeedItemsSet().add(s.itemNamed("d")); },
       Counts{0, 0, 1, 0, 0}},
      {"one item removed", [&] { record->feedItemsSet().removeAt(0); }, Counts{0, 0, 0, 1, 0}},
      {"a record deleted", [&] { s.context->deleteObject(other); }, Counts{0, 1, 0, 0, 0}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    const Counts before = s.context->counts();
    s.context->performBlockAndWait(step.change);
    ASSERT_TRUE(s.context->save());
    const Counts after = s.context->counts();
    EXPECT_EQ(after.recordRows - before.recordRows, step.written.recordRows);
    EXPECT_EQ(after.recordDeletes - before.recordDeletes, step.written.recordDeletes);
    EXPECT_EQ(after.itemRows - before.itemRows, step.written.itemRows);
    EXPECT_EQ(after.itemDeletes - before.itemDeletes, step.written.itemDeletes);
    EXPECT_EQ(after.wholeCollections, before.wholeCollections);
  }

  // What was saved reads back in the same order.
  const auto expected = uuidsOf(record->feedItemsSet());
  s.reopen();
  auto reread = s.record("long");
  ASSERT_TRUE(reread);
  EXPECT_EQ(uuidsOf(reread->feedItemsSet()), expected);
  EXPECT_EQ(s.record("other"), nullptr);
}

TEST(StoreWritesTest, ARemovalPlusInsertionSavesOneRowEach) {
  // The sorted insertion a feed store makes, as the record's set records it.
  StoreFolder s;
  auto record = s.context->insertSubscriptionData();
  record->setUuid("feed");
  for (int i = 0; i < 500; ++i) record->feedItemsSet().add(s.itemNamed("b" + std::to_string(i)));
  ASSERT_TRUE(s.context->save());
  const auto before = s.context->counts();
  record->feedItemsSet().removeAt(10);
  record->feedItemsSet().add(s.itemNamed("tail"));
  ASSERT_TRUE(s.context->save());
  const auto after = s.context->counts();
  EXPECT_EQ(after.itemRows - before.itemRows, 1u);
  EXPECT_EQ(after.itemDeletes - before.itemDeletes, 1u);
  const auto expected = uuidsOf(record->feedItemsSet());
  s.reopen();
  EXPECT_EQ(uuidsOf(s.record("feed")->feedItemsSet()), expected);
}

TEST(StoreWritesTest, HeldAssetRowsLandOnceWithTheNextCommitAndSurviveAFailedOne) {
  TempFolder folder;
  const auto file = folder.path() / "engine.sqlite3";
  // A committer that never commits by itself: only flush() does.
  EngineStore store(reference::GroupCommitOptions{std::chrono::hours(1), std::chrono::hours(1)});
  ASSERT_FALSE(store.open(file));
  auto& assets = store.assets();
  // What another reader of the file sees: committed rows only.
  auto rows = [&](const std::string& where) {
    return run("sqlite3 " + file.string() + " \"SELECT uuid, state, queue_pos, bytes_done " +
               "FROM assets " + where + " ORDER BY seq;\"");
  };
  AssetFields f;
  f.uuid = "a1";
  f.assetID = "id-1";
  f.seq = 1;

  // Created, dated and queued before a commit: one row, written once, whole.
  ASSERT_TRUE(assets.insert(f));
  EXPECT_FALSE(assets.insert(f)) << "a second row for the same UUID";
  f.creationDate = Date(1700000000.0);
  ASSERT_TRUE(assets.update(f));
  f.state = reference::AssetState::kQueued;
  f.queuePos = 7;
  ASSERT_TRUE(assets.update(f));
  EXPECT_EQ(rows(""), "") << "a held row was visible before its commit";
  ASSERT_TRUE(store.flush());
  EXPECT_EQ(assets.rowWrites(), 1u);
  EXPECT_EQ(rows(""), "a1|1|7|0\n");
  EXPECT_EQ(run("sqlite3 " + file.string() + " \"SELECT creation_date FROM assets;\""),
            "1700000000.0\n");

  // Progress reported many times between commits: one update, the last one.
  for (std::uint64_t done = 100; done <= 500; done += 100) {
    f.bytesDone = done;
    ASSERT_TRUE(assets.update(f));
  }
  ASSERT_TRUE(assets.update(f));  // unchanged: nothing more to write
  ASSERT_TRUE(store.flush());
  EXPECT_EQ(assets.rowWrites(), 2u);
  EXPECT_EQ(rows(""), "a1|1|7|500\n");
  AssetFields unknown = f;
  unknown.uuid = "never-inserted";
  EXPECT_FALSE(assets.update(unknown));

  // Removed before it was ever written: no row comes back at the commit.
  AssetFields gone = f;
  gone.uuid = "a2";
  gone.seq = 2;
  ASSERT_TRUE(assets.insert(gone));
  ASSERT_TRUE(assets.remove("a2"));
  ASSERT_TRUE(store.flush());
  EXPECT_EQ(rows("WHERE uuid='a2'"), "");
  EXPECT_FALSE(assets.update(gone)) << "a removed asset's row came back";

  // A commit whose held rows cannot all be written lands none of them and
  // keeps them for the next one.
  auto exec = [&](std::string_view sql) {
    std::lock_guard l(store.db().mutex());
    return store.db().exec(sql);
  };
  ASSERT_FALSE(
      exec("CREATE TEMP TRIGGER refuse BEFORE INSERT ON assets WHEN NEW.asset_id = 'refused' "
           "BEGIN SELECT RAISE(ABORT, 'refused'); END;"));
  AssetFields a3 = f, a4 = f;
  a3.uuid = "a3";
  a3.seq = 3;
  a4.uuid = "a4";
  a4.assetID = "refused";
  a4.seq = 4;
  ASSERT_TRUE(assets.insert(a3));
  ASSERT_TRUE(assets.insert(a4));
  EXPECT_FALSE(store.flush());
  EXPECT_EQ(rows("WHERE seq > 2"), "");
  // A change made after the failed commit joins the new row put back.
  a3.bytesDone = 900;
  ASSERT_TRUE(assets.update(a3));
  ASSERT_FALSE(exec("DROP TRIGGER refuse;"));
  ASSERT_TRUE(store.flush());
  EXPECT_EQ(rows("WHERE seq > 2"), "a3|1|7|900\na4|1|7|500\n");
}

TEST(StoreWritesTest, ABlockThatOnlyReadsCommitsNothing) {
  StoreFolder s;
  auto record = s.context->insertSubscriptionData();
  record->setUuid("feed");
  record->feedItemsSet().add(s.itemNamed("x"));
  ASSERT_TRUE(s.context->save());
  ASSERT_TRUE(s.store.flush());
  const auto commits = s.store.commits().commits();
  // Admission reads a feed's items and saves, for every new item.
  for (int i = 0; i < 3; ++i) {
    s.context->performBlockAndWait([&] { (void)record->feedItemsSet().count(); });
    ASSERT_TRUE(s.context->save());
  }
  ASSERT_TRUE(s.store.flush());
  EXPECT_EQ(s.store.commits().commits(), commits);
  // A change after them is still written.
  record->setMaxItemsValue(3);
  ASSERT_TRUE(s.context->save());
  ASSERT_TRUE(s.store.flush());
  EXPECT_EQ(s.store.commits().commits(), commits + 1);
}

// A child process that creates assets and tracks each in a feed, as fast as
// it can, until it is killed.
// Writes until killed; once its first commit has landed it says so on
// `landed` (a pipe), so that the kill comes after it however loaded the
// machine is.
[[noreturn]] void writeForever(const std::filesystem::path& folder, int start, int landed) {
  EngineStore store(
      reference::GroupCommitOptions{std::chrono::milliseconds(5), std::chrono::milliseconds(40)});
  if (store.open(folder / "engine.sqlite3")) _exit(3);
  SqliteStoreContext context(store.db(), store.commits());
  std::map<std::string, std::shared_ptr<ZolvaniAssetData>> items;
  auto resolve = [&](const std::string& uuid) {
    auto& i = items[uuid];
    if (!i) i = item(uuid);
    return i;
  };
  if (context.load(resolve)) _exit(4);
  std::shared_ptr<SubscriptionData> record;
  context.performBlockAndWait([&] {
    auto found = context.executeFetchRequest(SubscriptionDataFetchRequest::all(), nullptr);
    record = found.empty() ? context.insertSubscriptionData() : found.front();
    record->setUuid("feed");
  });
  for (int n = start;; ++n) {
    AssetFields f;
    f.uuid = "asset-" + std::to_string(n);
    f.assetID = f.uuid;
    f.seq = n;
    if (!store.assets().insert(f)) _exit(5);
    context.performBlockAndWait([&] {
      record->feedItemsSet().add(resolve(f.uuid));
      if (n % 7 == 0) {
        // An asset deleted: its row and its entries go in one step.
        const std::string gone = "asset-" + std::to_string(n - 3);
        if (auto it = items.find(gone); it != items.end()) {
          context.forgetAsset(it->second);
          store.assets().remove(gone);
        }
      }
      context.save();
    });
    if (landed >= 0 && store.commits().commits() > 0) {
      const char byte = 1;
      if (write(landed, &byte, 1) != 1) _exit(6);
      close(landed);
      landed = -1;
    }
  }
}

TEST(StoreWritesTest, KillsBetweenGroupCommitsLeaveAConsistentPrefix) {
  TempFolder folder;
  std::mt19937 random(std::random_device{}());
  int next = 1;
  for (int round = 0; round < 6; ++round) {
    int landed[2];
    ASSERT_EQ(pipe(landed), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(landed[0]);
      writeForever(folder.path(), next, landed[1]);
    }
    close(landed[1]);
    // A loaded machine may take a while to start the writer: the kill lands
    // at a random point after its first commit, not after a fixed time.
    char byte = 0;
    EXPECT_EQ(read(landed[0], &byte, 1), 1) << "the writer never committed";
    close(landed[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
    ::kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped on its own: " << status;

    // Checked with the sqlite3 program, as an operator would.
    auto query = [&](const std::string& sql) {
      return run("sqlite3 " + (folder.path() / "engine.sqlite3").string() + " \"" + sql + "\"");
    };
    EXPECT_EQ(query("PRAGMA integrity_check;"), "ok\n");
    EXPECT_EQ(query("SELECT count(*) FROM subscription_items WHERE asset_uuid NOT IN "
                    "(SELECT uuid FROM assets);"),
              "0\n")
        << "a tracked item points at nothing";
    // Only the last asset of each run may have landed without the save that
    // tracks it.
    EXPECT_LE(std::stoi(query("SELECT count(*) FROM assets WHERE uuid NOT IN "
                              "(SELECT asset_uuid FROM subscription_items);")),
              round + 1);
    const std::string count = query("SELECT count(*) FROM assets;");
    EXPECT_GT(std::stoi(count), 0) << "round " << round << " committed nothing";
    next += 100000;  // the next writer's assets never collide with these
  }
}

TEST(StoreWritesTest, AnEngineFlushCommitsWhatItsWindowsStillHold) {
  TempFolder folder;
  auto options = testOptions(folder.path());
  // Windows that never close during the test: only flush() or stop() commits.
  options.commitQuiet = options.commitWithin = std::chrono::hours(1);
  options.reachabilityOverride = false;  // no transfer, so no commit of its own
  auto engine = startEngine(options);
  ASSERT_TRUE(engine);
  const std::string file = (folder.path() / "engine.sqlite3").string();
  auto rows = [&](const std::string& assetID) {
    return run("sqlite3 " + file + " \"SELECT count(*) FROM assets WHERE asset_id='" + assetID +
               "';\"");
  };

  ASSERT_TRUE(makeFileAsset(*engine, "http://127.0.0.1:1/one.mp4", "flushed-1"));
  EXPECT_EQ(rows("flushed-1"), "0\n") << "committed before its window closed";
  ASSERT_TRUE(engine->flush());
  EXPECT_EQ(rows("flushed-1"), "1\n");
  // Nothing pending: a second flush is harmless.
  EXPECT_TRUE(engine->flush());

  ASSERT_TRUE(makeFileAsset(*engine, "http://127.0.0.1:1/two.mp4", "flushed-2"));
  EXPECT_EQ(rows("flushed-2"), "0\n");
  engine->stop();
  EXPECT_EQ(rows("flushed-2"), "1\n");
}

}  // namespace
}  // namespace zolvani::testing
