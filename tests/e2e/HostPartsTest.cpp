// The command-line host's own parts that the end-to-end runs lean on: the paced
// link the demo puts between device and server, the child-process runner, the
// stored configuration and the progress bar.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "CliConfig.h"
#include "CliError.h"
#include "HostRuntime.h"
#include "ProgressBoard.h"
#include "SqliteFaults.h"
#include "ThrottledLink.h"
#include "zolvani/subscription/Constants.h"

namespace zsm {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (fs::temp_directory_path() / "zsm-parts-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TempFolder() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// A one-connection TCP server on loopback that sends `payload` and closes.
class OneShotServer {
 public:
  explicit OneShotServer(std::string payload) : payload_(std::move(payload)) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(fd_, 1);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] {
      const int c = accept(fd_, nullptr, nullptr);
      if (c < 0) return;
      std::size_t off = 0;
      while (off < payload_.size()) {
        const ssize_t n = send(c, payload_.data() + off, payload_.size() - off, MSG_NOSIGNAL);
        if (n <= 0) break;
        off += static_cast<std::size_t>(n);
      }
      close(c);
    });
  }
  ~OneShotServer() {
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
    close(fd_);
  }
  int port() const { return port_; }

 private:
  std::string payload_;
  int fd_ = -1;
  int port_ = 0;
  std::thread thread_;
};

std::string readAllFrom(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string text;
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
    char buffer[4096];
    ssize_t n;
    while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0)
      text.append(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
  return text;
}

TEST(ThrottledLinkTest, PassesBytesUnchangedAtTheGivenPace) {
  std::string payload(96 * 1024, '\0');
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7 + i / 251);
  struct Case {
    std::uint64_t rate;
    std::chrono::milliseconds atLeast, atMost;
  };
  // 96 KiB at 128 KiB/s takes about 0.75 s; unpaced it is immediate.
  const Case cases[] = {{128 * 1024, 600ms, 3000ms}, {0, 0ms, 500ms}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rate);
    OneShotServer server(payload);
    ThrottledLink link(server.port(), c.rate);
    ASSERT_FALSE(link.start());
    const auto began = std::chrono::steady_clock::now();
    const std::string received = readAllFrom(link.port());
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(received.size(), payload.size());
    EXPECT_TRUE(received == payload);
    EXPECT_GE(took, c.atLeast);
    EXPECT_LE(took, c.atMost);
    link.stop();
  }
}

TEST(ChildProcessTest, ReportsExitStatusOutputAndTimeouts) {
  TempFolder temp;
  const fs::path log = temp.path() / "err.log";
  std::string output;
  int status = -1;
  ASSERT_FALSE(ChildProcess::run({"/bin/sh", "-c", "echo hello; echo oops >&2; exit 3"}, log, 5s,
                                 &output, &status));
  EXPECT_EQ(output, "hello\n");
  EXPECT_EQ(status, 3);
  std::ifstream err(log);
  std::string line;
  std::getline(err, line);
  EXPECT_EQ(line, "oops");

  // Without a place for the status a failing program is an error naming it.
  auto failed = ChildProcess::run({"/bin/sh", "-c", "exit 4"}, log, 5s, &output);
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->code, kCliErrorServerProgram);

  const auto began = std::chrono::steady_clock::now();
  auto slow = ChildProcess::run({"/bin/sleep", "30"}, log, 300ms, &output, &status);
  ASSERT_TRUE(slow);
  EXPECT_EQ(slow->code, kCliErrorTimeout);
  EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);

  auto missing = ChildProcess::run({"/no/such/program"}, log, 5s, &output, &status);
  EXPECT_TRUE(missing || status != 0);

  std::unique_ptr<ChildProcess> child;
  ASSERT_FALSE(
      ChildProcess::start({"/bin/sh", "-c", "echo noise; echo ready now; sleep 30"}, log, &child));
  EXPECT_EQ(child->waitForLine("ready", 5s), std::optional<std::string>("ready now"));
  EXPECT_EQ(child->terminate(2s), -15);  // ended by SIGTERM
}

TEST(CliConfigTest, KeepsTheDeviceConfigurationPrivatelyAndRefusesBrokenFiles) {
  TempFolder temp;
  HostPaths paths{temp.path() / "device"};
  CliConfig config;
  EXPECT_FALSE(CliConfig::load(paths, &config));  // absent: empty, not an error
  EXPECT_EQ(config.firstMissing(), "--server");

  config.serverUrl = "http://127.0.0.1:8080";
  config.user = "demo";
  config.publicKey = "key";
  EXPECT_EQ(config.firstMissing(), "--secret");
  config.secret = "s3cret \"quoted\"";
  config.deviceId = "DEVICE";
  ASSERT_FALSE(config.save(paths));
  EXPECT_EQ(fs::status(paths.config()).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  CliConfig loaded;
  ASSERT_FALSE(CliConfig::load(paths, &loaded));
  EXPECT_TRUE(loaded.complete());
  EXPECT_EQ(loaded.secret, config.secret);
  EXPECT_EQ(loaded.deviceId, "DEVICE");
  EXPECT_EQ(loaded.toJson(false)["secret"], "(set)");

  for (const char* broken : {"{ not json", "[1, 2]", ""}) {
    SCOPED_TRACE(broken);
    std::ofstream(paths.config(), std::ios::trunc) << broken;
    auto error = CliConfig::load(paths, &loaded);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, kCliErrorDomain);
    EXPECT_EQ(error->code, kCliErrorConfigFile);
  }
}

HostOptions hostOptions(const fs::path& root) {
  HostOptions options;
  options.paths = HostPaths{root};
  options.config.serverUrl = "http://127.0.0.1:1";
  options.config.user = "demo";
  options.config.publicKey = "key";
  options.config.secret = "secret";
  options.config.deviceId = "DEVICE";
  options.runTransfers = false;
  return options;
}

TEST(HostRuntimeTest, TheLastSyncDateNeverGetsAheadOfTheStore) {
  // Before any connection opens: every one then goes through the fault layer.
  zolvani::testing::SqliteFaults::install();
  TempFolder temp;
  std::unique_ptr<HostRuntime> host;
  auto error = HostRuntime::open(hostOptions(temp.path()), &host);
  ASSERT_FALSE(error) << error->describe();
  zolvani::UserDefaults& defaults = *host->platform().userDefaults;
  const auto before = defaults.dateForKey(zolvani::LastSyncKey);
  ASSERT_TRUE(before) << "a new device stores its first last-sync date";
  const zolvani::Date later(before->secondsSince1970 + 100);
  {
    // A sync's item, saved while the disk is full: its asset's row cannot land.
    zolvani::testing::ScopedSqliteFault full;
    ASSERT_TRUE(host->roles().assets->assetWithRemoteURL(
        "http://127.0.0.1:1/a.mp4", "item-1", "Item", std::nullopt, std::nullopt, -42.0, -42.0, -1,
        false, std::nullopt, nullptr, nullptr));
    defaults.setDate(zolvani::LastSyncKey, later);
    EXPECT_EQ(defaults.dateForKey(zolvani::LastSyncKey), before)
        << "the date moved past an item the store has not committed";
  }
  defaults.setDate(zolvani::LastSyncKey, later);
  EXPECT_EQ(defaults.dateForKey(zolvani::LastSyncKey), later);
  std::string rows;
  ChildProcess::run({"/usr/bin/sqlite3", (temp.path() / "engine" / "engine.sqlite3").string(),
                     "SELECT count(*) FROM assets WHERE asset_id='item-1';"},
                    temp.path() / "sqlite.log", 10s, &rows, nullptr);
  EXPECT_EQ(rows, "1\n") << "the date landed before its item";
}

TEST(HostRuntimeTest, ASecondHostOnADataFolderIsRefusedAndToldWhoHoldsIt) {
  TempFolder temp;
  std::unique_ptr<HostRuntime> first, second;
  ASSERT_FALSE(HostRuntime::open(hostOptions(temp.path()), &first));
  auto error = HostRuntime::open(hostOptions(temp.path()), &second);
  ASSERT_TRUE(error);
  EXPECT_NE(error->localizedDescription().find("is in use by process " + std::to_string(getpid())),
            std::string::npos)
      << error->describe();
  first.reset();
  error = HostRuntime::open(hostOptions(temp.path()), &second);
  EXPECT_FALSE(error) << error->describe();
}

TEST(ProgressBoardTest, BarsStayInsideTheirWidthWhateverTheFraction) {
  struct Case {
    double fraction;
    const char* expected;
  };
  const Case cases[] = {{0.0, "[..........]   0%"},         {0.5, "[#####.....]  50%"},
                        {0.999, "[##########]  99%"},       {1.0, "[##########] 100%"},
                        {1.7, "[##########] 100%"},         {-0.3, "[..........]   0%"},
                        {std::nan(""), "[..........]   0%"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fraction);
    EXPECT_EQ(ProgressBoard::bar(c.fraction, 10), c.expected);
  }
  EXPECT_EQ(ProgressBoard::bytes(1023), "1023 B");
  EXPECT_EQ(ProgressBoard::bytes(1536), "1.5 KiB");
  EXPECT_EQ(ProgressBoard::bytes(5 * 1024 * 1024), "5.0 MiB");
}

}  // namespace
}  // namespace zsm
