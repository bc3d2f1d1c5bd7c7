// sync_bench: how a whole catalog sync scales with the catalog.
//
//   sync_bench                      the table for 100, 1,000 and 5,000 feeds
//   sync_bench <feeds> parse|sync   one measurement, in this process
//
// Each feed holds 50 items (about 500 bytes of JSON each), so 1,000 feeds make
// a catalog of about 25 MB. "parse" times the catalog parser alone; "sync" runs
// the whole sync (request, reply, rules, data source, admission, asset
// creation, feed store, finish) through the in-memory engine with a logger
// that discards its lines. Every measurement runs in a fresh process, so the
// peak resident size (VmHWM) belongs to it alone.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include <fmt/format.h>

#include "support/SampleCatalog.h"
#include "support/TestEnvironment.h"
#include "sync/CatalogSync.h"

namespace zolvani {
namespace {

constexpr int kItemsPerFeed = 50;

class DiscardingLogger final : public ZolvaniLogger {
 public:
  void addDebugEvent(const std::string&, std::int64_t) override {}
  void logEvent(std::int64_t, const std::string&, const Value&) override {}
};

long peakResidentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// Prints "<bytes> <seconds> <peak KiB>".
int measure(int feeds, const std::string& mode) {
  std::string body = bench::makeCatalog(feeds, kItemsPerFeed, false);
  const std::size_t bytes = body.size();
  const auto start = std::chrono::steady_clock::now();
  if (mode == "parse") {
    nlohmann::json parsed = CatalogSync::parseCatalog(body);
    if (!parsed.is_object()) return 1;
    const double t = seconds(std::chrono::steady_clock::now() - start);
    std::printf("%zu %.3f %ld\n", bytes, t, peakResidentKiB());
    return 0;
  }
  testing::TestBed bed;
  bed.engine->readyInline = true;
  bed.engine->setDate(Date(1800000000.0));
  ZolvaniEngine roles = bed.engine->roles();
  roles.logger = std::make_shared<DiscardingLogger>();
  bed.manager = ZolvaniSubscriptionManager::create(ManagerEnvironment{roles, bed.platform()});
  bed.defaults->setDate(LastSyncKey, Date(1600000000.0));
  bed.http->enqueue(testing::FakeHttpTransport::ok(std::move(body)));

  const auto syncStart = std::chrono::steady_clock::now();
  bool done = false, success = false;
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(
      [&](bool ok, std::optional<Value::Array>, std::optional<Error>) {
        done = true;
        success = ok;
      });
  bed.mainQueue->runUntil([&] { return done; }, std::chrono::minutes(30));
  const double t = seconds(std::chrono::steady_clock::now() - syncStart);
  const std::size_t made = bed.engine->createdAssets().size();
  if (!success || made != static_cast<std::size_t>(feeds) * kItemsPerFeed) {
    std::fprintf(stderr, "sync failed: success=%d assets=%zu\n", success, made);
    return 1;
  }
  std::printf("%zu %.3f %ld\n", bytes, t, peakResidentKiB());
  return 0;
}

bool runChild(int feeds, const char* mode, std::size_t& bytes, double& t, long& kib) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    execl("/proc/self/exe", "sync_bench", std::to_string(feeds).c_str(), mode,
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  char buf[256] = {};
  ssize_t n = read(fds[0], buf, sizeof buf - 1);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (n <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
  return std::sscanf(buf, "%zu %lf %ld", &bytes, &t, &kib) == 3;
}

}  // namespace
}  // namespace zolvani

int main(int argc, char** argv) {
  if (argc == 3) return zolvani::measure(std::stoi(argv[1]), argv[2]);
  std::printf("%7s %9s %9s %9s %7s %10s %10s %7s\n", "feeds", "JSON MB", "parse s", "sync s",
              "ratio", "parse MiB", "sync MiB", "ratio");
  for (int feeds : {100, 1000, 5000}) {
    std::size_t bytes = 0;
    double parse = 0, sync = 0;
    long parseKiB = 0, syncKiB = 0;
    if (!zolvani::runChild(feeds, "parse", bytes, parse, parseKiB) ||
        !zolvani::runChild(feeds, "sync", bytes, sync, syncKiB)) {
      std::printf("%7d measurement failed\n", feeds);
      return 1;
    }
    std::printf("%7d %9.1f %9.3f %9.3f %7.2f %10.1f %10.1f %7.2f\n", feeds, bytes / 1048576.0,
                parse, sync, sync / parse, parseKiB / 1024.0, syncKiB / 1024.0,
                static_cast<double>(syncKiB) / parseKiB);
  }
  return 0;
}
