// refengine_sync_bench: what a whole catalog sync and a long feed cost over the
// reference engine (real SQLite in a temporary folder, real files), beside the
// same work over the in-memory test engine.
//
//   refengine_sync_bench [feeds ...]        sync table (default 100 1000)
//   refengine_sync_bench fill [items ...]   fill table (default 1000 10000)
//   refengine_sync_bench sync|fill memory|reference <n>   one measurement
//
// Sync: a catalog of <n> feeds x 50 single-file items goes through a whole
// sync (request, rules, data source, admission, asset creation, feed store).
// The engine's transfers are held back (it is offline), so only the sync is
// measured. Reported: seconds until the sync's completion, seconds until every
// item is in the download queue, peak resident memory, bytes the process
// caused to be written to storage (write_bytes of /proc/self/io, the engine's
// stop included) and the size of the engine's database afterwards.
//
// Fill: <n> assets created up front, then <n> addItem calls into one feed
// with no item limit, in a shuffled creation-date order so that items land
// all over the feed. The assets' own rows are committed first, so that only
// the fill's writes are counted. Reported: seconds until the fill is committed
// (the addItem calls and a flush of what a reference engine still holds),
// seconds for the addItem calls alone, and the same memory, write and size
// figures.
//
// Every measurement runs in a fresh process, so that its peak memory and its
// writes are its own.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "support/SampleCatalog.h"
#include "support/TestEnvironment.h"
#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani {
namespace {

constexpr int kItemsPerFeed = 50;
using Clock = std::chrono::steady_clock;

class DiscardingLogger final : public ZolvaniLogger {
 public:
  void addDebugEvent(const std::string&, std::int64_t) override {}
  void logEvent(std::int64_t, const std::string&, const Value&) override {}
};

// The network as the library sees it: up. The reference engine itself is
// told it is offline, so that it queues every asset and transfers none.
class OnlineReachability final : public ZFM_Reachability,
                                 public std::enable_shared_from_this<OnlineReachability> {
 public:
  std::shared_ptr<ZFM_Reachability> reachabilityForInternetConnection() override {
    return shared_from_this();
  }
  std::int64_t currentReachabilityStatus() override { return 1; }
};

long statusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::size_t n = std::strlen(field);
  while (std::getline(status, line))
    if (line.compare(0, n, field) == 0) return std::stol(line.substr(n));
  return -1;
}

long long writeBytes() {
  std::ifstream io("/proc/self/io");
  std::string key;
  long long value = 0;
  while (io >> key >> value)
    if (key == "write_bytes:") return value;
  return -1;
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::uintmax_t folderBytes(const std::filesystem::path& folder, const std::string& prefix) {
  std::uintmax_t total = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ec))
    if (entry.is_regular_file() && entry.path().filename().string().rfind(prefix, 0) == 0)
      total += entry.file_size();
  return total;
}

// One engine under measurement: the in-memory one, or a reference engine in a
// temporary folder with its transfers held back.
struct EngineUnderTest {
  explicit EngineUnderTest(bool reference) {
    if (!reference) return;
    folder = std::filesystem::temp_directory_path() / ("zsm-scale-" + newUUIDString());
    reference::ReferenceEngineOptions o;
    o.dataFolder = folder;
    o.reachabilityOverride = false;  // nothing is downloaded
    o.keelhallURL = "http://127.0.0.1:1";
    o.user = "bench";
    o.secret = "secret";
    o.key = "key";
    o.logLevelLimit = 1;  // a device logs warnings and errors
    engine = std::make_unique<reference::ReferenceEngine>(o);
    if (auto e = engine->start()) {
      std::fprintf(stderr, "engine start failed: %s\n", e->describe().c_str());
      std::exit(1);
    }
  }
  ~EngineUnderTest() {
    engine.reset();
    if (!folder.empty()) std::filesystem::remove_all(folder);
  }
  // Stops the engine (its last writes land) and returns the database's size.
  std::uintmax_t stop() {
    if (!engine) return 0;
    engine->stop();
    return folderBytes(folder, "engine.sqlite3");
  }

  std::filesystem::path folder;
  std::unique_ptr<reference::ReferenceEngine> engine;
};

struct Result {
  double seconds = 0, queuedSeconds = 0;
  long peakKiB = 0;
  long long written = 0;
  std::uintmax_t databaseBytes = 0;
  double total() const { return std::max(seconds, queuedSeconds); }
};

void print(const Result& r) {
  // Microseconds survive the trip to the parent: a fill of 1,000 items takes ~2 ms.
  std::printf("%.6f %.6f %ld %lld %ju\n", r.seconds, r.queuedSeconds, r.peakKiB, r.written,
              r.databaseBytes);
}

// A manager over the engine under test, with a test platform whose transport
// answers the catalog request.
std::shared_ptr<ZolvaniSubscriptionManager> makeManager(testing::TestBed& bed,
                                                        EngineUnderTest& under) {
  ZolvaniEngine roles = under.engine ? under.engine->roles() : bed.engine->roles();
  roles.logger = std::make_shared<DiscardingLogger>();
  if (under.engine) roles.reachability = std::make_shared<OnlineReachability>();
  return ZolvaniSubscriptionManager::create(ManagerEnvironment{roles, bed.platform()});
}

std::size_t queuedCount(testing::TestBed& bed, EngineUnderTest& under) {
  if (under.engine) return under.engine->roles().downloadEngine->assetsInQueue().size();
  return bed.engine->queuedUUIDs().size();
}

int measureSync(bool reference, int feeds) {
  std::string body = bench::makeCatalog(feeds, kItemsPerFeed, true);
  testing::TestBed bed;
  bed.engine->readyInline = true;
  bed.engine->setDate(Date(1800000000.0));
  EngineUnderTest under(reference);
  bed.manager = makeManager(bed, under);
  bed.defaults->setDate(LastSyncKey, Date(1600000000.0));
  bed.http->enqueue(testing::FakeHttpTransport::ok(std::move(body)));
  const std::size_t expected = static_cast<std::size_t>(feeds) * kItemsPerFeed;

  const long long writtenBefore = writeBytes();
  const auto start = Clock::now();
  bool done = false, success = false;
  bed.manager->syncSubscriptionsWithKeelhallNowOnComplete(
      [&](bool ok, std::optional<Value::Array>, std::optional<Error>) {
        done = true;
        success = ok;
      });
  bed.mainQueue->runUntil([&] { return done; }, std::chrono::minutes(60));
  Result r;
  r.seconds = seconds(Clock::now() - start);
  if (!success) {
    std::fprintf(stderr, "the sync failed\n");
    return 1;
  }
  // Queueing happens in the assets' ready callbacks, which may still be
  // running when the sync reports.
  const auto deadline = Clock::now() + std::chrono::minutes(10);
  while (queuedCount(bed, under) < expected && Clock::now() < deadline) {
    bed.mainQueue->runFor(std::chrono::milliseconds(2));
  }
  r.queuedSeconds = seconds(Clock::now() - start);
  const std::size_t queued = queuedCount(bed, under);
  bed.settle(std::chrono::milliseconds(2000));
  r.databaseBytes = under.stop();
  r.written = writeBytes() - writtenBefore;
  r.peakKiB = statusKiB("VmHWM:");
  if (!success || queued != expected) {
    std::fprintf(stderr, "sync failed: success=%d queued=%zu of %zu\n", success, queued, expected);
    return 1;
  }
  print(r);
  return 0;
}

int measureFill(bool reference, int items) {
  testing::TestBed bed;
  bed.engine->readyInline = true;
  EngineUnderTest under(reference);
  bed.manager = makeManager(bed, under);
  const std::string feed = "long-feed";
  bed.manager->setMaxItems(0, false, 0, feed);
  ZolvaniEngine roles = under.engine ? under.engine->roles() : bed.engine->roles();

  std::vector<int> order(static_cast<std::size_t>(items));
  for (int i = 0; i < items; ++i) order[static_cast<std::size_t>(i)] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  std::vector<std::shared_ptr<ZolvaniAsset>> assets;
  assets.reserve(order.size());
  for (int i : order) {
    auto asset = roles.assets->assetWithRemoteURL(
        fmt::format("https://cdn.example.test/long/{}.mp4", i), fmt::format("long-{:06}", i),
        fmt::format("Item {}", i), std::nullopt, std::nullopt, 0, 0, 0, false, std::nullopt,
        nullptr, nullptr);
    if (!asset) return 1;
    asset->_setCreationDate(Date(1700000000.0 + i));
    assets.push_back(std::move(asset));
  }

  // The creations above are committed now, not inside the fill.
  if (under.engine && !under.engine->flush()) return 1;
  const long long writtenBefore = writeBytes();
  const auto start = Clock::now();
  for (const auto& asset : assets) bed.manager->addItem(asset, feed);
  Result r;
  r.queuedSeconds = seconds(Clock::now() - start);
  if (under.engine && !under.engine->flush()) return 1;
  r.seconds = seconds(Clock::now() - start);
  const std::int32_t count = bed.manager->numberOfItemsInFeed(feed);
  r.databaseBytes = under.stop();
  r.written = writeBytes() - writtenBefore;
  r.peakKiB = statusKiB("VmHWM:");
  if (count != items) {
    std::fprintf(stderr, "fill failed: %d of %d items tracked\n", count, items);
    return 1;
  }
  print(r);
  return 0;
}

bool runChild(const char* mode, const char* engine, int n, Result& r) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    execl("/proc/self/exe", "refengine_sync_bench", mode, engine, std::to_string(n).c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  char buf[256] = {};
  ssize_t got = read(fds[0], buf, sizeof buf - 1);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (got <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
  return std::sscanf(buf, "%lf %lf %ld %lld %ju", &r.seconds, &r.queuedSeconds, &r.peakKiB,
                     &r.written, &r.databaseBytes) == 5;
}

int table(const char* mode, const std::vector<int>& sizes) {
  const bool sync = std::string(mode) == "sync";
  const int perUnit = sync ? kItemsPerFeed : 1;
  std::printf("%-9s %7s %8s %9s %9s %9s %10s %10s %9s %9s\n", "engine", sync ? "feeds" : "items",
              "items", "done s", "queued s", "us/item", "peak MiB", "written MB", "KiB/item",
              "db MB");
  for (int n : sizes) {
    Result results[2];
    for (int e = 0; e < 2; ++e) {
      const char* engine = e ? "reference" : "memory";
      Result& r = results[e];
      if (!runChild(mode, engine, n, r)) {
        std::printf("%-9s %7d measurement failed\n", engine, n);
        return 1;
      }
      const double items = static_cast<double>(n) * perUnit;
      // Per item, the work counts until the later of the two times.
      std::printf("%-9s %7d %8.0f %9.3f %9.3f %9.1f %10.1f %10.1f %9.2f %9.1f\n", engine, n, items,
                  r.seconds, r.queuedSeconds, 1e6 * r.total() / items, r.peakKiB / 1024.0,
                  r.written / 1e6, r.written / 1024.0 / items, r.databaseBytes / 1e6);
    }
    std::printf("%-9s %7d reference/memory time %.2fx; reference written/db size %.1fx\n", "ratio",
                n, results[1].total() / results[0].total(),
                results[1].databaseBytes
                    ? static_cast<double>(results[1].written) / results[1].databaseBytes
                    : 0.0);
  }
  return 0;
}

}  // namespace
}  // namespace zolvani

namespace {

// A size on the command line: a whole number from 1 to 100,000.
std::optional<int> parseSize(const char* text) {
  int value = 0;
  const char* end = text + std::strlen(text);
  auto [ptr, ec] = std::from_chars(text, end, value);
  if (ec != std::errc() || ptr != end || value < 1 || value > 100000) return std::nullopt;
  return value;
}

int usage() {
  std::fprintf(stderr,
               "usage: refengine_sync_bench [FEEDS...]        whole syncs, both engines\n"
               "       refengine_sync_bench fill [ITEMS...]   addItem into one feed, both engines\n"
               "sizes are whole numbers from 1 to 100000\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace zolvani;
  if (argc == 4 && (std::string(argv[2]) == "memory" || std::string(argv[2]) == "reference")) {
    const std::string mode = argv[1];
    const bool reference = std::string(argv[2]) == "reference";
    const auto n = parseSize(argv[3]);
    if (!n) return usage();
    if (mode == "sync") return measureSync(reference, *n);
    if (mode == "fill") return measureFill(reference, *n);
  }
  const bool fill = argc > 1 && std::string(argv[1]) == "fill";
  std::vector<int> sizes;
  for (int i = fill ? 2 : 1; i < argc; ++i) {
    const auto n = parseSize(argv[i]);
    if (!n) return usage();
    sizes.push_back(*n);
  }
  if (sizes.empty()) sizes = fill ? std::vector<int>{1000, 10000} : std::vector<int>{100, 1000};
  return table(fill ? "fill" : "sync", sizes);
}
