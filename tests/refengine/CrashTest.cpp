// Kills a host process (engine, store and transfers from a loopback server)
// with SIGKILL at random points and checks the store after every restart.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <random>
#include <set>
#include <thread>

#include "EngineTestSupport.h"
#include "MediaServer.h"
#include "StoreSnapshot.h"
#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::testing {
namespace {

constexpr int kItems = 8;
constexpr std::size_t kSize = 3 * 1024 * 1024;
constexpr int kKills = 6;

pid_t spawnHost(const std::filesystem::path& data, const std::string& base) {
  pid_t pid = fork();
  if (pid == 0) {
    const std::string items = std::to_string(kItems);
    execl(ZSM_TEST_HOST, ZSM_TEST_HOST, data.c_str(), base.c_str(), items.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

TEST(CrashTest, KilledHostsRestartIntoAConsistentStoreAndFinishEveryItemOnce) {
  TempFolder folder;
  MediaServer server;
  std::vector<std::string> bodies;
  for (int i = 0; i < kItems; ++i) {
    MediaRoute route;
    bodies.push_back(patternBytes(kSize, 10 + i));
    route.body = std::make_shared<const std::string>(bodies.back());
    route.chunk = 32 * 1024;
    route.pause =
        std::chrono::microseconds(10000);  // ~3 MB/s per transfer: kills land mid-transfer
    server.set("/item-" + std::to_string(i) + ".mp4", route);
  }
  const std::string base = server.url("");
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delay(80, 700);

  struct Round {
    std::size_t firstRequest;
    std::map<std::string, std::uintmax_t> partial;
  };
  std::vector<Round> rounds;
  for (int round = 0; round < kKills; ++round) {
    const std::size_t before = server.requests().size();
    pid_t pid = spawnHost(folder.path(), base);
    ASSERT_GT(pid, 0);
    const int ms = delay(random);
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    ::kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    SCOPED_TRACE("kill " + std::to_string(round) + " after " + std::to_string(ms) + " ms");
    if (!rounds.empty()) rounds.back().firstRequest = before;
    Snapshot s = inspect(folder.path());
    ASSERT_TRUE(s.opened);
    EXPECT_TRUE(s.duplicates.empty()) << s.duplicates.front();
    EXPECT_TRUE(s.dangling.empty()) << s.dangling.front();
    rounds.push_back({0, s.partial});
  }
  rounds.back().firstRequest = server.requests().size();

  // The last run is left to finish.
  pid_t pid = spawnHost(folder.path(), base);
  int status = 0;
  for (int i = 0; i < 600; ++i) {
    if (waitpid(pid, &status, WNOHANG) == pid) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (i == 599) {
      ::kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      FAIL() << "the host did not finish";
    }
  }
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  Snapshot done = inspect(folder.path());
  ASSERT_TRUE(done.opened);
  EXPECT_TRUE(done.duplicates.empty());
  EXPECT_TRUE(done.dangling.empty());
  EXPECT_EQ(done.complete, kItems);
  ASSERT_EQ(done.assetByItem.size(), static_cast<std::size_t>(kItems));
  for (int i = 0; i < kItems; ++i) {
    const std::string uuid = done.assetByItem["item-" + std::to_string(i)];
    EXPECT_TRUE(readFile(folder.path() / "media" / uuid / "content") == bodies[i]) << i;
  }

  // A transfer killed with bytes on disk resumes from exactly there.
  const auto requests = server.requests();
  int resumed = 0;
  for (const auto& round : rounds) {
    for (const auto& [path, bytes] : round.partial) {
      for (std::size_t r = round.firstRequest; r < requests.size(); ++r) {
        if (requests[r].path != path) continue;
        EXPECT_EQ(requests[r].range, "bytes=" + std::to_string(bytes) + "-") << path;
        ++resumed;
        break;
      }
    }
  }
  EXPECT_GT(resumed, 0) << "no kill landed mid-transfer";
  // Completed items are never fetched again.
  std::map<std::string, int> fullFetches;
  for (const auto& r : requests)
    if (r.range.empty()) ++fullFetches[r.path];
  for (const auto& [path, n] : fullFetches) EXPECT_LE(n, kKills + 1) << path;
}

}  // namespace
}  // namespace zolvani::testing
