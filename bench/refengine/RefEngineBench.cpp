// Reference engine benchmarks.
//
//   refengine_bench
//
// Throughput: a 200 MB file and a 200 MB HLS rendition (100 segments of 2 MB)
// served from memory on loopback, fetched by the engine and, in the same run,
// by the curl command-line tool (one invocation, one connection for the
// segments). Counters: engine_MBps, curl_MBps and engine_vs_curl (goal >= 0.9).
// Creation: 10,000 single-file assets through the factory, each one a durable
// row in the engine's store.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "MediaServer.h"
#include "zolvani/reference/ReferenceEngine.h"
#include "zolvani/subscription/platform/Platform.h"

namespace {

using namespace zolvani;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kBytes = 200 * 1024 * 1024;
constexpr int kSegments = 100;

struct Folder {
  std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("zre-bench-" + newUUIDString());
  Folder() { std::filesystem::create_directories(path); }
  ~Folder() { std::filesystem::remove_all(path); }
};

testing::MediaServer& server() {
  static testing::MediaServer* s = [] {
    auto* srv = new testing::MediaServer();
    auto blob = std::make_shared<const std::string>(testing::patternBytes(kBytes, 7));
    testing::MediaRoute file;
    file.body = blob;
    file.chunk = 1 << 20;
    srv->set("/big.mp4", file);
    std::string playlist = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n";
    const std::size_t seg = kBytes / kSegments;
    for (int i = 0; i < kSegments; ++i) {
      testing::MediaRoute r;
      r.body = std::make_shared<const std::string>(blob->substr(i * seg, seg));
      r.contentType = "video/mp2t";
      r.chunk = 1 << 20;
      srv->set("/hls/s" + std::to_string(i) + ".ts", r);
      playlist += "#EXTINF:4.0,\ns" + std::to_string(i) + ".ts\n";
    }
    playlist += "#EXT-X-ENDLIST\n";
    srv->add("/hls/index.m3u8", playlist, "application/vnd.apple.mpegurl");
    return srv;
  }();
  return *s;
}

double seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

reference::ReferenceEngineOptions options(const std::filesystem::path& folder) {
  reference::ReferenceEngineOptions o;
  o.dataFolder = folder;
  o.reachabilityOverride = true;
  o.freeSpaceMargin = 0;
  return o;
}

// Runs curl with a config file (url/output pairs) and returns its wall time.
double curlSeconds(const std::filesystem::path& folder, const std::vector<std::string>& urls) {
  const auto config = folder / "curl.cfg";
  {
    std::ofstream out(config);
    for (std::size_t i = 0; i < urls.size(); ++i)
      out << "url = \"" << urls[i] << "\"\noutput = \""
          << (folder / ("c" + std::to_string(i))).string() << "\"\n";
  }
  const std::string command = "curl -s -S -K " + config.string();
  auto start = Clock::now();
  if (std::system(command.c_str()) != 0) return -1;
  return seconds(start);
}

double engineSeconds(const std::filesystem::path& folder, bool stream, benchmark::State& state) {
  reference::ReferenceEngine engine(options(folder));
  if (auto e = engine.start()) {
    state.SkipWithError(e->describe().c_str());
    return -1;
  }
  auto roles = engine.roles();
  std::shared_ptr<ZolvaniAsset> asset =
      stream ? roles.assets->assetWithAssetID("hls", "hls", server().url("/hls/index.m3u8"), 0,
                                              false, 0, std::nullopt, std::nullopt, -42.0, -42.0,
                                              -1, false, std::nullopt, nullptr, nullptr)
             : roles.assets->assetWithRemoteURL(server().url("/big.mp4"), "big", "big",
                                                std::nullopt, std::nullopt, -42.0, -42.0, -1, false,
                                                std::nullopt, nullptr, nullptr);
  auto start = Clock::now();
  roles.downloadEngine->addToQueue(asset, kQueueIndexAppend, nullptr);
  engine.waitUntilIdle(std::chrono::minutes(5));
  const double s = seconds(start);
  auto info = engine.assetInfo(asset->uuid());
  if (!info || info->state != reference::AssetState::kComplete || info->bytesDone != kBytes) {
    state.SkipWithError("the engine's download did not complete");
    return -1;
  }
  return s;
}

void report(benchmark::State& state, double engine, double curl, int runs) {
  const double mb = static_cast<double>(kBytes) / (1024.0 * 1024.0) * runs;
  state.counters["engine_MBps"] = mb / engine;
  state.counters["curl_MBps"] = mb / curl;
  state.counters["engine_vs_curl"] = curl / engine;
}

// Runs curl and the engine on the same bytes, alternating which goes first so
// that neither always meets a warmer page cache; reports the averages.
void compare(benchmark::State& state, bool stream) {
  double curlTotal = 0, engineTotal = 0;
  int round = 0;
  for (auto _ : state) {
    Folder folder;
    std::vector<std::string> urls;
    if (stream) {
      urls.push_back(server().url("/hls/index.m3u8"));
      for (int i = 0; i < kSegments; ++i)
        urls.push_back(server().url("/hls/s" + std::to_string(i) + ".ts"));
    } else {
      urls.push_back(server().url("/big.mp4"));
    }
    double curl = 0, engine = 0;
    auto runCurl = [&] {
      curl = curlSeconds(folder.path, urls);
      for (std::size_t i = 0; i < urls.size(); ++i)
        std::filesystem::remove(folder.path / ("c" + std::to_string(i)));
    };
    auto runEngine = [&] { engine = engineSeconds(folder.path / "engine", stream, state); };
    if (round++ % 2 == 0) {
      runCurl();
      runEngine();
    } else {
      runEngine();
      runCurl();
    }
    if (curl <= 0 || engine <= 0) {
      state.SkipWithError("a download failed");
      return;
    }
    curlTotal += curl;
    engineTotal += engine;
  }
  report(state, engineTotal, curlTotal, round);
}

void BM_SingleFile200MB(benchmark::State& state) { compare(state, false); }
BENCHMARK(BM_SingleFile200MB)->Iterations(4)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_HlsRendition200MB(benchmark::State& state) { compare(state, true); }
BENCHMARK(BM_HlsRendition200MB)->Iterations(4)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Create10000Assets(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto folder = std::make_unique<Folder>();
    auto o = options(folder->path);
    o.callReadyCallbacks = false;
    auto engine = std::make_unique<reference::ReferenceEngine>(o);
    engine->start();
    auto factory = engine->roles().assets;
    state.ResumeTiming();
    for (int i = 0; i < 10000; ++i) {
      auto id = "item-" + std::to_string(i);
      benchmark::DoNotOptimize(factory->assetWithRemoteURL(
          "http://127.0.0.1:1/" + id, id, "Title", Date(1), std::nullopt, -42.0, -42.0, -1, false,
          Value::Map{{"k", Value(i)}}, nullptr, nullptr));
    }
    state.PauseTiming();
    factory.reset();
    engine.reset();
    folder.reset();
    state.ResumeTiming();
  }
  state.counters["assets_per_s"] = benchmark::Counter(
      10000.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Create10000Assets)->Iterations(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
