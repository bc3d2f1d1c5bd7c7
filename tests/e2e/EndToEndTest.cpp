// The three programs together on loopback: zsm-server serving generated sample
// content, and zsm (the host, with the reference engine and the library inside)
// driven through its --json output, the way a script or a person would.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "ThrottledLink.h"
#include "support/ProgramEnvironment.h"

namespace zsm {
namespace {

// Children run without the leak checker (see ProgramEnvironment.h).
const bool kChildEnvironment = (zolvani::testing::disableLeakCheckInChildren(), true);

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

struct Outcome {
  int status = -1;
  json doc;  // the command's JSON document (null when it printed none)
  std::string text;
  std::string errors;  // what the command wrote to standard error
};

class EndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "zsm-e2e-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    work_ = pattern;
    serverData_ = work_ / "server";
    device_ = work_ / "device";
    fs::create_directories(serverData_);
    StartServer(/*port=*/0, /*generate=*/true);
    ASSERT_FALSE(url_.empty());
    Outcome config = Zsm({"config", "--server", url_, "--user", "demo", "--key", "demo-public-key",
                          "--secret", "demo-secret"});
    ASSERT_EQ(config.status, 0) << config.text;
    deviceId_ = config.doc["device_id"].get<std::string>();
    // The sample items are hours old and a new device counts only what comes
    // after its first launch; move its last sync back a day.
    ASSERT_EQ(Zsm({"settings", "set", "last-sync", "now-86400"}).status, 0);
  }

  void TearDown() override {
    server_.reset();
    if (!HasFailure()) {
      std::error_code ec;
      fs::remove_all(work_, ec);
    } else {
      std::cerr << "files kept in " << work_ << "\n";
    }
  }

  void StartServer(int port, bool generate) {
    std::vector<std::string> args = {
        ZSM_SERVER_PROGRAM, "serve",     "--data", serverData_.string(),
        "--address",        "127.0.0.1", "--port", std::to_string(port)};
    if (generate) args.push_back("--generate-sample");
    std::unique_ptr<ChildProcess> child;
    auto error = ChildProcess::start(args, work_ / "server.log", &child);
    ASSERT_FALSE(error) << error->describe();
    auto line = child->waitForLine("listening on ", 60s);
    ASSERT_TRUE(line) << "the server did not start";
    url_ = line->substr(std::string("listening on ").size());
    server_ = std::move(child);
  }

  int ServerPort() const { return std::stoi(url_.substr(url_.rfind(':') + 1)); }

  Outcome Program(std::vector<std::string> args, const fs::path& log) {
    Outcome run;
    std::error_code ec;
    const std::uintmax_t before = fs::exists(log) ? fs::file_size(log, ec) : 0;
    auto error = ChildProcess::run(args, log, 60s, &run.text, &run.status);
    EXPECT_FALSE(error) << error->describe();
    std::ifstream in(log);
    in.seekg(static_cast<std::streamoff>(before));
    run.errors.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    run.doc = json::parse(run.text, nullptr, false);
    if (run.doc.is_discarded()) run.doc = nullptr;
    return run;
  }

  Outcome Zsm(std::vector<std::string> args, const fs::path& device = {}) {
    args.insert(args.begin(),
                {ZSM_CLI_PROGRAM, "--data", (device.empty() ? device_ : device).string(), "--json",
                 "--timeout", "15"});
    return Program(std::move(args), work_ / "zsm.log");
  }

  // zsm as a person runs it: text output, standard output not a terminal.
  Outcome ZsmText(std::vector<std::string> args, const fs::path& device = {}) {
    args.insert(args.begin(), {ZSM_CLI_PROGRAM, "--data",
                               (device.empty() ? device_ : device).string(), "--timeout", "15"});
    return Program(std::move(args), work_ / "zsm.log");
  }

  void Admin(std::vector<std::string> args) {
    args.insert(args.begin(), ZSM_SERVER_PROGRAM);
    args.insert(args.begin() + 2, {"--data", serverData_.string()});
    Outcome run = Program(std::move(args), work_ / "admin.log");
    ASSERT_EQ(run.status, 0) << run.text;
  }

  // asset id -> item document, from `zsm items`.
  std::map<std::string, json> Items() {
    Outcome run = Zsm({"items"});
    EXPECT_EQ(run.status, 0) << run.text;
    std::map<std::string, json> items;
    for (const auto& i : run.doc["items"]) items[i["asset_id"].get<std::string>()] = i;
    return items;
  }

  std::set<std::string> FeedItems(const std::string& feed) {
    std::set<std::string> ids;
    for (const auto& [id, item] : Items())
      if (item["feed"] == feed) ids.insert(id);
    return ids;
  }

  void Subscribe(const std::string& feed) {
    Outcome run = Zsm({"subscribe", feed});
    ASSERT_EQ(run.status, 0) << run.text;
  }

  Outcome SyncWatch() {
    Outcome run = Zsm({"sync", "--watch", "--watch-timeout", "25"});
    EXPECT_EQ(run.status, 0) << run.text;
    return run;
  }

  static std::set<std::string> AddedIds(const Outcome& run) {
    std::set<std::string> ids;
    for (const auto& a : run.doc["events"]["added"]) ids.insert(a["asset_id"].get<std::string>());
    return ids;
  }

  fs::path work_, serverData_, device_;
  std::string url_, deviceId_;
  std::unique_ptr<ChildProcess> server_;
};

TEST_F(EndToEndTest, SubscribeSyncAndDownload) {
  Subscribe("morning-news");
  Subscribe("feature-films");
  Outcome subscriptions = Zsm({"subscriptions"});
  ASSERT_EQ(subscriptions.status, 0);
  EXPECT_EQ(subscriptions.doc["subscriptions"], json({"feature-films", "morning-news"}));

  Outcome sync = SyncWatch();
  EXPECT_TRUE(sync.doc["downloads"]["drained"].get<bool>());
  EXPECT_EQ(sync.doc["downloads"]["failed"], 0);
  EXPECT_EQ(AddedIds(sync), (std::set<std::string>{"news-0001", "news-0002", "news-0003",
                                                   "film-0001", "welcome-0001"}));

  // Every download landed whole inside the device folder; the archive feed the
  // device did not subscribe to brought nothing.
  const std::map<std::string, std::uintmax_t> sizes = {{"news-0001", 256 * 1024},
                                                       {"news-0002", 320 * 1024},
                                                       {"news-0003", 384 * 1024},
                                                       {"welcome-0001", 192 * 1024}};
  auto items = Items();
  ASSERT_EQ(items.size(), 5u);
  EXPECT_EQ(items.count("archive-0001"), 0u);
  for (const auto& [id, item] : items) {
    SCOPED_TRACE(id);
    EXPECT_EQ(item["state"], "complete");
    const fs::path file = item["file"].get<std::string>();
    ASSERT_TRUE(fs::exists(file));
    EXPECT_EQ(fs::weakly_canonical(file).string().rfind(fs::weakly_canonical(device_).string(), 0),
              0u);
    if (auto it = sizes.find(id); it != sizes.end()) {
      EXPECT_EQ(fs::file_size(file), it->second);
    }
  }
  // The default data source gives every item the largest bit rate, which takes
  // precedence over the feed's cap: the stream gets the best rendition.
  EXPECT_EQ(items["film-0001"]["bandwidth"], 1600000);
  EXPECT_EQ(items["welcome-0001"]["feed"], nullptr);

  Outcome feeds = Zsm({"feeds"});
  ASSERT_EQ(feeds.status, 0);
  std::map<std::string, json> byFeed;
  for (const auto& f : feeds.doc["feeds"]) byFeed[f["feed"].get<std::string>()] = f;
  EXPECT_EQ(byFeed["morning-news"]["max_items"], 5);  // the server's rules won
  EXPECT_EQ(byFeed["morning-news"]["items"].size(), 3u);
  EXPECT_EQ(byFeed["feature-films"]["max_bitrate"], 1000000);
}

TEST_F(EndToEndTest, RuleChangesTrimTheFeed) {
  Subscribe("morning-news");
  SyncWatch();
  ASSERT_EQ(FeedItems("morning-news"),
            (std::set<std::string>{"news-0001", "news-0002", "news-0003"}));

  // The device's own rule, given when subscribing again, applies at once.
  Outcome resubscribe =
      Zsm({"subscribe", "morning-news", "--max-items", "2", "--autodelete", "on"});
  ASSERT_EQ(resubscribe.status, 0) << resubscribe.text;
  EXPECT_EQ(resubscribe.doc["rules"]["max_items"], 2);
  EXPECT_EQ(FeedItems("morning-news"), (std::set<std::string>{"news-0002", "news-0003"}));

  // The server's rule for this device arrives with the next catalog and trims
  // further, oldest first; the deleted media leave the disk.
  const std::string kept = Items()["news-0002"]["file"].get<std::string>();
  Admin({"set-rule", "--user", "demo", "--device", deviceId_, "--feed", "morning-news",
         "--max-assets", "1", "--auto-delete", "true"});
  Outcome sync = SyncWatch();
  EXPECT_EQ(sync.doc["events"]["deleted"].size(), 1u);
  EXPECT_EQ(FeedItems("morning-news"), (std::set<std::string>{"news-0003"}));
  EXPECT_FALSE(fs::exists(kept));
}

TEST_F(EndToEndTest, TamperedRequestsAreRefused) {
  struct Case {
    const char* name;
    const char* user;
    const char* key;
    const char* secret;
  };
  const Case cases[] = {
      {"wrong secret", "demo", "demo-public-key", "not-the-secret"},
      {"wrong public key", "demo", "someone-elses-key", "demo-secret"},
      {"unknown user", "mallory", "demo-public-key", "demo-secret"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path device = work_ / (std::string("device-") + c.name);
    ASSERT_EQ(
        Zsm({"config", "--server", url_, "--user", c.user, "--key", c.key, "--secret", c.secret},
            device)
            .status,
        0);
    ASSERT_EQ(Zsm({"settings", "set", "last-sync", "now-86400"}, device).status, 0);

    Outcome subscribe = Zsm({"subscribe", "morning-news"}, device);
    EXPECT_EQ(subscribe.status, 3);
    EXPECT_EQ(subscribe.doc["error"]["domain"], "ZolvaniSubscriptionManager");
    EXPECT_EQ(subscribe.doc["error"]["code"], -1);  // HTTP 403

    Outcome sync = Zsm({"sync"}, device);
    EXPECT_EQ(sync.status, 3);
    EXPECT_EQ(sync.doc["error"]["code"], -1);
    // Nothing was tracked or downloaded, and the refused sync did not move the
    // device's last-sync date.
    Outcome feeds = Zsm({"feeds"}, device);
    EXPECT_TRUE(feeds.doc["feeds"].empty());
    Outcome settings = Zsm({"settings"}, device);
    EXPECT_LT(settings.doc["last-sync"].get<double>(),
              static_cast<double>(std::time(nullptr)) - 80000);
  }
  // The genuine device is unaffected.
  Outcome subscriptions = Zsm({"subscriptions"});
  EXPECT_EQ(subscriptions.status, 0);
}

TEST_F(EndToEndTest, ServerStoppedMidSyncAndRestarted) {
  // The device reaches the server through a slow link, so that downloads are
  // still running when the host exits.
  const int port = ServerPort();
  ThrottledLink link(port, 32 * 1024);
  ASSERT_FALSE(link.start());
  ASSERT_EQ(Zsm({"config", "--server", "http://127.0.0.1:" + std::to_string(link.port())}).status,
            0);
  Subscribe("morning-news");
  Subscribe("feature-films");
  Outcome settingsBefore = Zsm({"settings"});

  // The server goes away: the sync fails with one clear error and changes nothing.
  server_->terminate(5s);
  server_.reset();
  Outcome failed = Zsm({"sync"});
  EXPECT_EQ(failed.status, 3);
  EXPECT_TRUE(failed.doc["error"].is_object()) << failed.text;
  EXPECT_EQ(Zsm({"settings"}).doc["last-sync"], settingsBefore.doc["last-sync"]);
  EXPECT_TRUE(Items().empty());

  // Back again: a sync queues the downloads and the host exits long before they
  // are done; then the server stops once more.
  StartServer(port, /*generate=*/false);
  Outcome queued = Zsm({"sync"});
  ASSERT_EQ(queued.status, 0) << queued.text;
  EXPECT_EQ(AddedIds(queued).size(), 5u);
  EXPECT_GT(queued.doc["pending_downloads"].get<int>(), 0);
  // Looking does not download: listings leave the transfers where they are.
  const auto before = Items();
  std::this_thread::sleep_for(1500ms);
  for (const auto& [id, item] : Items()) {
    ASSERT_TRUE(before.count(id)) << id;
    EXPECT_EQ(item["bytes_done"], before.at(id)["bytes_done"]) << id;
    EXPECT_EQ(item["state"], before.at(id)["state"]) << id;
  }
  server_->terminate(5s);
  server_.reset();

  // Once it is back (and the link is fast) the next run finishes every download,
  // each asset once, each file whole.
  StartServer(port, /*generate=*/false);
  link.setRate(0);
  Outcome resumed = SyncWatch();
  EXPECT_TRUE(AddedIds(resumed).empty());
  EXPECT_EQ(resumed.doc["downloads"]["failed"], 0);
  auto items = Items();
  EXPECT_EQ(items.size(), 5u);
  for (const auto& [id, item] : items) {
    EXPECT_EQ(item["state"], "complete") << id;
    EXPECT_EQ(item["bytes_done"], item["bytes_total"]) << id;
  }
  EXPECT_EQ(fs::file_size(items["news-0003"]["file"].get<std::string>()), 384u * 1024);
}

TEST_F(EndToEndTest, LaterSyncsDownloadOnlyWhatIsNew) {
  Subscribe("morning-news");
  Outcome first = SyncWatch();
  ASSERT_EQ(AddedIds(first).size(), 4u);  // three news items and the direct welcome item

  Outcome again = SyncWatch();
  EXPECT_TRUE(AddedIds(again).empty());
  EXPECT_EQ(Items().size(), 4u);

  // New content from both roads: the provider adds to the feed, the device
  // publishes a direct item with a push update.
  Admin({"add-item", "--feed", "morning-news", "--uuid", "news-0004", "--media",
         "files/morning-news-2.mp4", "--title", "Morning News 4"});
  Outcome publish = Zsm({"publish", "--title", "Clip", "--desc", "A clip from the device", "--url",
                         url_ + "/media/files/welcome.mp4"});
  ASSERT_EQ(publish.status, 0) << publish.text;

  Outcome later = SyncWatch();
  const auto added = AddedIds(later);
  EXPECT_EQ(added.size(), 2u);
  EXPECT_EQ(added.count("news-0004"), 1u);
  EXPECT_TRUE(later.doc["events"]["deleted"].empty());  // five allowed, four held
  auto items = Items();
  EXPECT_EQ(items.size(), 6u);
  int clips = 0;
  for (const auto& [id, item] : items) {
    if (item["description"] != "A clip from the device") continue;
    ++clips;
    EXPECT_EQ(added.count(id), 1u);
    EXPECT_EQ(item["state"], "complete");
    EXPECT_EQ(item["feed"], nullptr);
  }
  EXPECT_EQ(clips, 1);
}

TEST_F(EndToEndTest, AFullFeedWithoutAutodeleteDefersNewItems) {
  Subscribe("morning-news");
  SyncWatch();
  // The provider caps this device at one item and forbids deleting old ones: the
  // three it holds stay, and what comes next waits for room.
  Admin({"set-rule", "--user", "demo", "--device", deviceId_, "--feed", "morning-news",
         "--max-assets", "1", "--auto-delete", "false"});
  Admin({"add-item", "--feed", "morning-news", "--uuid", "news-0004", "--media",
         "files/morning-news-2.mp4", "--title", "Morning News 4"});
  Outcome sync = SyncWatch();
  EXPECT_TRUE(sync.doc["events"]["added"].empty());
  ASSERT_EQ(sync.doc["events"]["deferred"].size(), 1u);
  EXPECT_EQ(sync.doc["events"]["deferred"][0]["asset_id"], "news-0004");
  EXPECT_TRUE(sync.doc["events"]["deleted"].empty());

  Outcome deferred = Zsm({"deferred"});
  ASSERT_EQ(deferred.status, 0);
  EXPECT_EQ(deferred.doc["deferred"], json({"news-0004"}));
  auto items = Items();
  EXPECT_TRUE(items["news-0004"]["deferred"].get<bool>());
  EXPECT_NE(items["news-0004"]["state"], "complete");  // not downloaded while deferred
  EXPECT_EQ(FeedItems("morning-news").size(), 4u);
}

TEST_F(EndToEndTest, ADownloadThatWouldLeaveTooLittleFreeIsRefusedAndSaysWhatWasFree) {
  Subscribe("morning-news");
  // A margin larger than any disk: every download is refused before a byte lands.
  const std::vector<std::string> keepAll = {"--keep-free", "1073741824"};
  auto with = [&](std::vector<std::string> args) {
    args.insert(args.begin(), keepAll.begin(), keepAll.end());
    return Zsm(std::move(args));
  };
  Outcome sync = with({"sync", "--watch", "--watch-timeout", "25"});
  EXPECT_EQ(sync.status, 4) << sync.text;
  EXPECT_EQ(sync.doc["downloads"]["failed"], 4) << sync.text;  // three news items, one direct

  Outcome items = with({"items"});
  ASSERT_EQ(items.status, 0) << items.text;
  int refused = 0;
  for (const auto& item : items.doc["items"]) {
    SCOPED_TRACE(item.dump());
    ASSERT_TRUE(item.contains("error"));
    const std::string text = item["error"]["description"];
    EXPECT_NE(text.find("Not enough free space"), std::string::npos);
    // The space as it was when the download was refused, kept with the error.
    EXPECT_NE(text.find("; free on "), std::string::npos);
    EXPECT_NE(text.find(" at the time: "), std::string::npos);
    EXPECT_NE(text.find("and the engine keeps 1073741824.0 MiB free beyond each download"),
              std::string::npos);
    EXPECT_FALSE(item.contains("file") && fs::exists(item["file"].get<std::string>()));
    ++refused;
  }
  EXPECT_EQ(refused, 4);
}

TEST_F(EndToEndTest, BackgroundWakesSyncAndAnswer) {
  // A fetch with a subscription answers "new data" (the rule looks at the
  // subscription list, not at what arrived).
  Subscribe("morning-news");
  Outcome fetch = Zsm({"wake", "fetch", "--watch"});
  ASSERT_EQ(fetch.status, 0) << fetch.text;
  EXPECT_EQ(fetch.doc["answer_name"], "new-data");
  EXPECT_EQ(fetch.doc["events"]["added"].size(), 4u);

  // A push asking for a sync answers "new data" whatever the sync found.
  Outcome push = Zsm({"wake", "push"});
  ASSERT_EQ(push.status, 0) << push.text;
  EXPECT_TRUE(push.doc["accepted"].get<bool>());
  EXPECT_EQ(push.doc["answer_name"], "new-data");
  EXPECT_EQ(push.doc["events"]["syncs_finished"], 1);

  // A push that does not ask for a sync is left unanswered.
  Outcome quiet = Zsm({"wake", "push", "--no-sync"});
  ASSERT_EQ(quiet.status, 0) << quiet.text;
  EXPECT_FALSE(quiet.doc["accepted"].get<bool>());
  EXPECT_EQ(quiet.doc["answer"], nullptr);

  // Without subscriptions the fetch finds no data.
  ASSERT_EQ(Zsm({"unsubscribe", "--all"}).status, 0);
  Outcome empty = Zsm({"wake", "fetch"});
  EXPECT_EQ(empty.doc["answer_name"], "no-data");
  EXPECT_TRUE(Items().count("news-0001") == 0);  // unsubscribing removed the feed's assets
}

TEST_F(EndToEndTest, UsageAndConfigurationErrorsAreOneLine) {
  const fs::path fresh = work_ / "unconfigured";
  Outcome sync = Zsm({"sync"}, fresh);
  EXPECT_EQ(sync.status, 1);
  EXPECT_EQ(sync.doc["error"]["domain"], "zsm");
  EXPECT_EQ(sync.doc["error"]["code"], 2);  // not configured

  Outcome bad = Zsm({"settings", "set", "max-items", "lots"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.doc["error"]["code"], 1);
  // A refused value is a usage error even before the device is configured.
  EXPECT_EQ(Zsm({"settings", "set", "max-items", "-1"}, fresh).status, 2);
  Outcome unknownFeed = Zsm({"subscribe", "no-such-feed"});
  EXPECT_EQ(unknownFeed.status, 3);
  EXPECT_EQ(unknownFeed.doc["error"]["domain"], "ZolvaniSubscriptionManager");
}

TEST_F(EndToEndTest, EveryKindOfOutcomeHasItsExitStatusAndMessage) {
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* said;  // in standard output or standard error
  };
  const Case cases[] = {
      {{"sycn"}, 2, "unknown command \"sycn\" (did you mean \"sync\"?)"},
      {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
      {{}, 2, "a command is required"},
      {{"help", "frobnicate"}, 2, "unknown command"},
      {{"subscribe", "morning-news", "--max-items", "-5"}, 2, "2147483647"},
      {{"subscribe", "morning-news", "--max-bitrate", "-1"}, 2, "2147483647"},
      {{"subscribe", "morning-news", "--autodelete", "maybe"}, 2, "on or off"},
      {{"settings", "set", "max-items", "-1"}, 2, "from 0 to 2147483647"},
      {{"sync", "--since", "yesterday"}, 2, "7d"},
      {{"--log-level", "loud", "feeds"}, 2, "error, warning"},
      {{"publish", "--url", "http://x/y", "--content-type", "9"}, 2, "0 to 5"},
      {{"help"}, 0, "Exit status"},
      {{"help", "subscribe"}, 0, "until the next sync"},
      {{"help", "sync"}, 0, "--since"},
      {{"--help"}, 0, "about ten seconds"},
      {{"--version"}, 0, "zsm 1.0.0"},
      {{"--log-level", "warning", "feeds"}, 0, ""},
      {{"--log-level", "2", "feeds"}, 0, ""},
      {{"subscribe", "no-such-feed"}, 3, "ZolvaniSubscriptionManager"},
  };
  for (const Case& c : cases) {
    std::string name;
    for (const auto& a : c.args) name += a + " ";
    SCOPED_TRACE(name);
    Outcome run = ZsmText(c.args);
    EXPECT_EQ(run.status, c.status) << run.text << run.errors;
    EXPECT_NE((run.text + run.errors).find(c.said), std::string::npos) << run.text << run.errors;
  }
  // The server program takes the same level names, and says its version.
  for (const char* level : {"warning", "error", "debug", "1"}) {
    Outcome run =
        Program({ZSM_SERVER_PROGRAM, "--log-level", level, "--version"}, work_ / "admin.log");
    EXPECT_EQ(run.status, 0) << level;
    EXPECT_EQ(run.text, "zsm-server 1.0.0\n");
  }

  // A server that cannot be reached, and a download that cannot be had.
  const fs::path unreachable = work_ / "unreachable";
  ASSERT_EQ(Zsm({"config", "--server", "http://127.0.0.1:1", "--user", "demo", "--key", "k",
                 "--secret", "s"},
                unreachable)
                .status,
            0);
  Outcome offline = Zsm({"sync"}, unreachable);
  EXPECT_EQ(offline.status, 3);
  Outcome publish = Zsm({"publish", "--title", "Clip", "--url", "http://x/y"}, unreachable);
  EXPECT_EQ(publish.status, 3);
  EXPECT_EQ(publish.doc["error"]["domain"], "ZolvaniTransport.curl") << publish.text;

  Admin({"add-item", "--feed", "morning-news", "--uuid", "news-broken", "--url",
         url_ + "/media/files/not-there.mp4", "--title", "Broken"});
  Subscribe("morning-news");
  Outcome sync = Zsm({"sync", "--watch", "--watch-timeout", "25"});
  EXPECT_EQ(sync.status, 4) << sync.text << sync.errors;
  EXPECT_EQ(sync.doc["downloads"]["failed"], 1);
  EXPECT_EQ(sync.doc["ok"], false);
}

TEST_F(EndToEndTest, FailuresCountInTheRunTheyHappenAndCanBeRetriedOrForgotten) {
  Subscribe("morning-news");
  // A direct item whose media is missing: its failure stays on the device.
  auto publishBroken = [&](const std::string& title, const std::string& file) {
    Outcome run =
        Zsm({"publish", "--title", title, "--desc", title, "--url", url_ + "/media/files/" + file});
    ASSERT_EQ(run.status, 0) << run.text;
  };
  auto idOf = [&](const std::string& description) {
    for (const auto& [id, item] : Items())
      if (item["description"] == description) return id;
    return std::string();
  };
  publishBroken("Broken", "not-there.mp4");
  Outcome first = Zsm({"sync", "--watch", "--watch-timeout", "25"});
  EXPECT_EQ(first.status, 4) << first.text << first.errors;
  EXPECT_EQ(first.doc["downloads"]["failed"], 1);
  EXPECT_EQ(first.doc["downloads"]["failed_before"], 0);
  const std::string broken = idOf("Broken");
  ASSERT_FALSE(broken.empty());

  // The listing says why, in plain text too.
  Outcome listed = ZsmText({"items"});
  ASSERT_EQ(listed.status, 0);
  EXPECT_NE(listed.text.find("    why: "), std::string::npos) << listed.text;
  EXPECT_NE(listed.text.find("404"), std::string::npos) << listed.text;
  EXPECT_NE(listed.text.find("zsm items retry"), std::string::npos);

  // The next run has nothing failing: it succeeds, and mentions the old failure.
  Outcome later = Zsm({"sync", "--watch", "--watch-timeout", "25"});
  EXPECT_EQ(later.status, 0) << later.text << later.errors;
  EXPECT_EQ(later.doc["downloads"]["failed"], 0);
  EXPECT_EQ(later.doc["downloads"]["failed_before"], 1);
  Outcome laterText = ZsmText({"sync", "--watch", "--watch-timeout", "25"});
  EXPECT_EQ(laterText.status, 0);
  EXPECT_NE(laterText.text.find("failed in an earlier run"), std::string::npos) << laterText.text;

  // A wake that follows downloads fails when one of its downloads fails.
  publishBroken("Also broken", "also-missing.mp4");
  Outcome wake = Zsm({"wake", "fetch", "--watch"});
  EXPECT_EQ(wake.status, 4) << wake.text << wake.errors;
  EXPECT_EQ(wake.doc["downloads"]["failed"], 1);
  EXPECT_EQ(wake.doc["error"]["code"], 7);  // downloads
  const std::string alsoBroken = idOf("Also broken");
  ASSERT_FALSE(alsoBroken.empty());

  // Retrying names what it retries; an item that is not failed is refused.
  EXPECT_EQ(Zsm({"items", "retry", "news-0001"}).status, 2);
  EXPECT_EQ(Zsm({"items", "retry", "no-such-item"}).status, 2);
  // The missing media appears on the server: one retry succeeds, the other
  // fails again and says so.
  fs::copy_file(serverData_ / "media/files/welcome.mp4", serverData_ / "media/files/not-there.mp4");
  Outcome retried = Zsm({"items", "retry", "--all", "--watch-timeout", "25"});
  EXPECT_EQ(retried.status, 4) << retried.text << retried.errors;
  EXPECT_EQ(retried.doc["retried"].size(), 2u);
  EXPECT_EQ(retried.doc["downloads"]["failed"], 1);
  auto items = Items();
  EXPECT_EQ(items[broken]["state"], "complete");
  EXPECT_EQ(items[alsoBroken]["state"], "failed");

  // Forgetting removes the item and its files; nothing failed is left.
  EXPECT_EQ(Zsm({"items", "forget", "no-such-item"}).status, 2);
  Outcome forgotten = Zsm({"items", "forget", alsoBroken});
  ASSERT_EQ(forgotten.status, 0) << forgotten.text << forgotten.errors;
  EXPECT_EQ(Items().count(alsoBroken), 0u);
  Outcome none = Zsm({"items", "retry", "--all"});
  EXPECT_EQ(none.status, 0);
  EXPECT_EQ(none.doc["retried"].size(), 0u);
  // The server still offers the item; once its media is there, the next sync
  // brings it anew and the run is clean.
  fs::copy_file(serverData_ / "media/files/welcome.mp4",
                serverData_ / "media/files/also-missing.mp4");
  Outcome clean = Zsm({"sync", "--watch", "--watch-timeout", "25"});
  EXPECT_EQ(clean.status, 0) << clean.text;
  EXPECT_EQ(clean.doc["downloads"]["failed"], 0);
  EXPECT_EQ(clean.doc["downloads"]["failed_before"], 0);
  EXPECT_EQ(Items()[idOf("Also broken")]["state"], "complete");
}

TEST_F(EndToEndTest, TheLibraryNamesDownloadsByFeedAndTitleAndTheyPlay) {
  Subscribe("morning-news");
  Subscribe("feature-films");
  SyncWatch();
  const fs::path library = device_ / "library";
  // A file of the user's own in the view stays whatever the host does.
  fs::create_directories(library / "morning-news");
  std::ofstream(library / "morning-news" / "my notes.txt") << "mine";

  Outcome view = Zsm({"library"});
  ASSERT_EQ(view.status, 0) << view.text << view.errors;
  std::set<std::string> names;
  for (const auto& e : view.doc["entries"]) {
    const fs::path link = e["link"].get<std::string>();
    SCOPED_TRACE(link.string());
    ASSERT_TRUE(fs::is_symlink(link));
    // The link resolves to the engine's own file, which stays where it was.
    EXPECT_EQ(fs::canonical(link), fs::canonical(e["target"].get<std::string>()));
    EXPECT_TRUE(fs::read_symlink(link).is_relative());
    EXPECT_EQ(fs::canonical(link).string().rfind(fs::canonical(device_ / "engine").string(), 0),
              0u);
    names.insert(link.lexically_relative(library).string());
    // It plays: ffprobe reads its streams and a duration through the link (a
    // stream's folder through its playlist).
    const fs::path media = fs::is_directory(link) ? link / "index.m3u8" : link;
    Outcome probe = Program({"/bin/sh", "-c",
                             "command -v ffprobe >/dev/null || exit 77; ffprobe -v error "
                             "-show_entries format=duration -of csv=p=0 \"$0\"",
                             media.string()},
                            work_ / "ffprobe.log");
    if (probe.status == 77) continue;
    EXPECT_EQ(probe.status, 0) << probe.errors;
    EXPECT_GT(std::atof(probe.text.c_str()), 1.0) << probe.text;
  }
  // The default data source gives an asset the item's description (the title
  // when a data source provides one).
  EXPECT_EQ(names,
            (std::set<std::string>{"morning-news/Morning News 1 & more.mp4",
                                   "morning-news/Morning News 2 & more.mp4",
                                   "morning-news/Morning News 3 & more.mp4",
                                   "feature-films/Feature & more", "_direct/Welcome & more.mp4"}));

  // The retention rule deletes the oldest items: their links go with them, and
  // a sync keeps the view in step without being asked.
  Admin({"set-rule", "--user", "demo", "--device", deviceId_, "--feed", "morning-news",
         "--max-assets", "1", "--auto-delete", "true"});
  SyncWatch();
  std::set<std::string> after;
  for (const auto& entry : fs::recursive_directory_iterator(library))
    after.insert(entry.path().lexically_relative(library).string());
  EXPECT_EQ(after, (std::set<std::string>{"morning-news", "morning-news/Morning News 3 & more.mp4",
                                          "morning-news/my notes.txt", "feature-films",
                                          "feature-films/Feature & more", "_direct",
                                          "_direct/Welcome & more.mp4"}));
}

TEST_F(EndToEndTest, ANewDeviceIsToldHowToCatchUpAndWhereItsRulesCameFrom) {
  const fs::path fresh = work_ / "fresh";
  ASSERT_EQ(Zsm({"config", "--server", url_, "--user", "demo", "--key", "demo-public-key",
                 "--secret", "demo-secret"},
                fresh)
                .status,
            0);
  Outcome never = Zsm({"status"}, fresh);
  ASSERT_EQ(never.status, 0) << never.errors;
  EXPECT_EQ(never.doc["last_sync"], nullptr);
  EXPECT_NE(ZsmText({"status"}, fresh).text.find("never"), std::string::npos);

  Outcome subscribe =
      ZsmText({"subscribe", "morning-news", "--max-items", "2", "--autodelete", "off"}, fresh);
  ASSERT_EQ(subscribe.status, 0) << subscribe.errors;
  EXPECT_NE(subscribe.text.find("until the next sync"), std::string::npos) << subscribe.text;
  Outcome feeds = Zsm({"feeds"}, fresh);
  ASSERT_EQ(feeds.doc["feeds"].size(), 1u);
  EXPECT_EQ(feeds.doc["feeds"][0]["rules_from"], "subscribe");
  EXPECT_EQ(feeds.doc["feeds"][0]["max_items"], 2);

  // The sample feed items are older than the device: the first sync leaves
  // them out, and says how to fetch them.
  Outcome first = ZsmText({"sync"}, fresh);
  ASSERT_EQ(first.status, 0) << first.errors;
  EXPECT_NE(first.text.find("hint: this device's first sync"), std::string::npos) << first.text;
  EXPECT_NE(first.text.find("zsm sync --since 7d"), std::string::npos);
  // Later syncs have nothing to hint at.
  EXPECT_EQ(ZsmText({"sync"}, fresh).text.find("hint:"), std::string::npos);
  feeds = Zsm({"feeds"}, fresh);
  EXPECT_EQ(feeds.doc["feeds"][0]["rules_from"], "server");
  EXPECT_EQ(feeds.doc["feeds"][0]["max_items"], 5);

  // Catching up, followed without a terminal: one line per event, no bars, and
  // a summary at the end.
  Outcome caughtUp = ZsmText({"sync", "--since", "1d", "--watch", "--watch-timeout", "25"}, fresh);
  ASSERT_EQ(caughtUp.status, 0) << caughtUp.text << caughtUp.errors;
  EXPECT_NE(caughtUp.text.find("catching up"), std::string::npos);
  EXPECT_EQ(caughtUp.text.find("[#"), std::string::npos) << caughtUp.text;
  for (const char* id : {"news-0001", "news-0002", "news-0003"}) {
    const std::string done = std::string("complete  ") + id;
    const auto at = caughtUp.text.find(done);
    EXPECT_NE(at, std::string::npos) << id << "\n" << caughtUp.text;
    EXPECT_EQ(caughtUp.text.find(done, at + 1), std::string::npos) << id << " twice";
  }
  // Three news items, and the direct item unless the first sync already had it.
  EXPECT_TRUE(caughtUp.text.find("downloads: 3 complete, 0 failed, 0 pending") !=
                  std::string::npos ||
              caughtUp.text.find("downloads: 4 complete, 0 failed, 0 pending") != std::string::npos)
      << caughtUp.text;
  Outcome synced = Zsm({"status"}, fresh);
  EXPECT_TRUE(synced.doc["last_sync"].is_number()) << synced.text;
}

}  // namespace
}  // namespace zsm
