// refserver_catalog_load: starts the reference server in-process on 127.0.0.1 and has
// many simulated devices (one thread each, each with its own keep-alive connection)
// subscribe to feeds and then ask for their catalog repeatedly with signed
// requests. Every reply must be HTTP 200 with response code 0; the program prints
// the count, errors, throughput and latency percentiles and exits non-zero on any
// error.
//
//   refserver_catalog_load [devices=200] [requests_per_device=20] [time_limit_s=60]
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/ContentServer.h"
#include "reference/server/RequestSigner.h"
#include "reference/server/SampleGenerator.h"

using namespace zolvani::refserver;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kFeeds = 10;
constexpr int kItemsPerFeed = 20;

std::string SignedTarget(const std::string& endpoint, const std::string& host,
                         const std::string& body) {
  const std::string url = "http://" + host + "/Subscriptions/client/" + endpoint;
  return "/Subscriptions/client/" + endpoint +
         "?sig=" + RequestSigner::Sign("POST", host, url, body, "load-secret");
}

std::string Body(const std::string& device, nlohmann::json members) {
  members["request_header"] = {{"device_id", device},
                               {"user_id", "load"},
                               {"timestamp", ContentServer::WallClockMs() / 1000},
                               {"key", RequestSigner::Base64("load-key")}};
  return members.dump();
}

}  // namespace

int main(int argc, char** argv) {
  const int devices = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
  const int perDevice = argc > 2 ? std::max(1, std::atoi(argv[2])) : 20;
  const int limitSeconds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 60;

  const auto dir =
      std::filesystem::temp_directory_path() / ("zsm-refserver-load-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  ServerOptions options;
  options.dataDir = dir;
  options.threads = devices + 8;  // one keep-alive connection per device
  std::unique_ptr<ContentServer> server;
  Status s = ContentServer::Create(options, &server);
  if (!s.ok()) {
    std::fprintf(stderr, "%s\n", s.ToString().c_str());
    return 1;
  }
  ContentStore* store = server->store();
  store->AddAccount({"load", "load-key", "load-secret"});
  const int64_t now = ContentServer::WallClockMs();
  SampleGenerator::WriteMediaFile(dir / "media/files/item.mp4", "item", 4096);
  for (int f = 0; f < kFeeds; ++f) {
    const std::string feed = "feed-" + std::to_string(f);
    store->AddFeed({feed, "Feed " + std::to_string(f), true, {10, true, 0}});
    for (int i = 0; i < kItemsPerFeed; ++i) {
      Item item;
      item.uuid = feed + "-item-" + std::to_string(i);
      item.feed = feed;
      item.createdMs = now - (kItemsPerFeed - i) * 60000;
      item.mediaPath = "files/item.mp4";
      item.metadata = {{"title", item.uuid}, {"desc", "Item &amp; more"}, {"mediaType", 0}};
      store->AddItem(item, now);
    }
  }
  s = server->Start();
  if (!s.ok()) {
    std::fprintf(stderr, "%s\n", s.ToString().c_str());
    return 1;
  }
  const std::string host = "127.0.0.1:" + std::to_string(server->port());

  std::atomic<int> errors{0};
  std::atomic<bool> stop{false};
  std::mutex latencyMutex;
  std::vector<double> latencies;  // milliseconds, catalog requests only
  const auto deadline = Clock::now() + std::chrono::seconds(limitSeconds);
  const auto started = Clock::now();

  std::vector<std::thread> threads;
  for (int d = 0; d < devices; ++d) {
    threads.emplace_back([&, d] {
      const std::string device = "device-" + std::to_string(d);
      httplib::Client client("127.0.0.1", server->port());
      client.set_keep_alive(true);
      client.set_read_timeout(30, 0);
      auto post = [&](const std::string& endpoint, const std::string& body) {
        auto res = client.Post(SignedTarget(endpoint, host, body).c_str(), {{"Host", host}}, body,
                               "application/json");
        if (!res) {
          std::fprintf(stderr, "%s: %s failed: %s\n", device.c_str(), endpoint.c_str(),
                       httplib::to_string(res.error()).c_str());
          return false;
        }
        auto reply = nlohmann::json::parse(res->body, nullptr, false);
        if (res->status == 200 && reply.is_object() &&
            reply["response_header"].value("response_code", -1) == 0) {
          return true;
        }
        std::fprintf(stderr, "%s: %s: HTTP %d %s\n", device.c_str(), endpoint.c_str(), res->status,
                     res->body.substr(0, 200).c_str());
        return false;
      };
      // Each device follows three feeds.
      for (int k = 0; k < 3; ++k) {
        const std::string feed = "feed-" + std::to_string((d + k) % kFeeds);
        if (!post("subscribe", Body(device, {{"feed", feed}}))) ++errors;
      }
      std::vector<double> mine;
      for (int i = 0; i < perDevice && !stop && Clock::now() < deadline; ++i) {
        nlohmann::json filter = {{"subscribed", true}};
        if (i % 2 == 1) filter["since"] = now - 5 * 60000;
        // Each body differs (the filter or the clock second), so no request is a
        // replay of another.
        const std::string body = Body(device, {{"filter", filter}, {"n", i}});
        const auto t0 = Clock::now();
        if (!post("catalog", body)) ++errors;
        mine.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      }
      std::lock_guard lock(latencyMutex);
      latencies.insert(latencies.end(), mine.begin(), mine.end());
    });
  }
  for (auto& t : threads) t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  server->Stop();
  server.reset();
  std::filesystem::remove_all(dir);

  std::sort(latencies.begin(), latencies.end());
  auto percentile = [&](double p) {
    if (latencies.empty()) return 0.0;
    const size_t index = std::min(latencies.size() - 1,
                                  static_cast<size_t>(p * static_cast<double>(latencies.size())));
    return latencies[index];
  };
  std::printf(
      "devices=%d catalog_requests=%zu errors=%d elapsed=%.2fs throughput=%.0f req/s "
      "median=%.2fms p99=%.2fms max=%.2fms\n",
      devices, latencies.size(), errors.load(), seconds,
      static_cast<double>(latencies.size()) / seconds, percentile(0.5), percentile(0.99),
      latencies.empty() ? 0.0 : latencies.back());
  const bool complete = latencies.size() == static_cast<size_t>(devices) * perDevice;
  if (!complete) std::printf("time limit reached before every request was sent\n");
  return errors == 0 && complete ? 0 : 1;
}
