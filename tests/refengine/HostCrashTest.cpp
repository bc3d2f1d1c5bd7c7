// The whole host killed mid-sync: the content server, and the command-line host
// (the library and the reference engine inside) syncing a subscribed feed and
// downloading, killed with SIGKILL at random points and run again.
#include <gtest/gtest.h>
#include <signal.h>

#include <random>
#include <thread>

#include "ChildProcess.h"
#include "StoreSnapshot.h"
#include "support/ProgramEnvironment.h"

namespace zolvani::testing {
namespace {

// Children run without the leak checker (see ProgramEnvironment.h).
const bool kChildEnvironment = (disableLeakCheckInChildren(), true);

using namespace std::chrono_literals;

TEST(HostCrashTest, KillsDuringSyncAndDownloadLeaveOneAssetPerItemAndEveryItemDownloaded) {
  TempFolder work;
  const auto serverData = work.path() / "server";
  const auto device = work.path() / "device";
  std::unique_ptr<zsm::ChildProcess> server;
  auto error =
      zsm::ChildProcess::start({ZSM_SERVER_PROGRAM, "serve", "--data", serverData.string(),
                                "--address", "127.0.0.1", "--port", "0", "--generate-sample"},
                               work.path() / "server.log", &server);
  ASSERT_FALSE(error) << error->describe();
  auto line = server->waitForLine("listening on ", 15s);
  ASSERT_TRUE(line) << "the server did not start";
  const std::string url = line->substr(std::string("listening on ").size());

  auto zsm = [&](std::vector<std::string> args) {
    args.insert(args.begin(),
                {ZSM_CLI_PROGRAM, "--data", device.string(), "--json", "--timeout", "15"});
    return args;
  };
  auto run = [&](std::vector<std::string> args) {
    std::string out;
    int status = -1;
    auto e =
        zsm::ChildProcess::run(zsm(std::move(args)), work.path() / "zsm.log", 60s, &out, &status);
    EXPECT_FALSE(e) << e->describe();
    return status;
  };
  ASSERT_EQ(run({"config", "--server", url, "--user", "demo", "--key", "demo-public-key",
                 "--secret", "demo-secret"}),
            0);
  ASSERT_EQ(run({"settings", "set", "last-sync", "now-86400"}), 0);
  ASSERT_EQ(run({"subscribe", "morning-news"}), 0);

  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delay(50, 900);
  for (int round = 0; round < 5; ++round) {
    std::unique_ptr<zsm::ChildProcess> host;
    auto e = zsm::ChildProcess::start(zsm({"sync", "--watch", "--watch-timeout", "20"}),
                                      work.path() / "zsm.log", &host);
    ASSERT_FALSE(e) << e->describe();
    const int ms = delay(random);
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    ::kill(host->pid(), SIGKILL);
    host->terminate(0ms);  // reaps it
    SCOPED_TRACE("kill " + std::to_string(round) + " after " + std::to_string(ms) + " ms");
    Snapshot s = inspect(device / "engine");
    ASSERT_TRUE(s.opened);
    EXPECT_TRUE(s.duplicates.empty()) << s.duplicates.front();
    EXPECT_TRUE(s.dangling.empty()) << s.dangling.front();
  }
  EXPECT_EQ(run({"sync", "--watch", "--watch-timeout", "30"}), 0);
  Snapshot done = inspect(device / "engine");
  ASSERT_TRUE(done.opened);
  EXPECT_TRUE(done.duplicates.empty());
  EXPECT_TRUE(done.dangling.empty());
  EXPECT_GT(done.tracked, 0);
  EXPECT_EQ(done.complete, static_cast<int>(done.assetByItem.size()));
}

}  // namespace
}  // namespace zolvani::testing
