// refserver_catalog_load: starts the reference server in-process on 127.0.0.1 and has
// many simulated devices (one thread each, each with its own keep-alive connection)
// subscribe to feeds and then ask for their catalog repeatedly with signed
// requests. Every reply must be HTTP 200 with response code 0; the program prints
// the count, errors, throughput and latency percentiles and exits non-zero on any
// error.
//
// With slow_connections > 0, that many slow clients stay connected beside the
// devices for the whole run, from ten other loopback addresses (127.0.0.2-11):
// each sends a request head one byte a second, as a slowloris attack does, and
// reconnects when the server cuts it off at its header deadline.
//
//   refserver_catalog_load [devices=200] [requests_per_device=20] [time_limit_s=60]
//                          [slow_connections=0]
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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
#include "reference/server/media/SampleGenerator.h"
#include "reference/server/protocol/RequestSigner.h"

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

// A connection from `from` to 127.0.0.1:port, or -1.
int Connect(int port, const std::string& from) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  ::inet_pton(AF_INET, from.c_str(), &local.sin_addr);
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<uint16_t>(port));
  ::inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
      ::connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Keeps `count` slow connections open until `stop`: each sends one byte of a
// request head a second; one the server has closed is replaced.
void RunSlowClients(int port, int count, const std::atomic<bool>& stop, std::atomic<int>* open,
                    std::atomic<int>* reconnects) {
  static const std::string kHead = "GET /health HTTP/1.1\r\nHost: x\r\nX-Slow: ";
  struct Slow {
    int fd = -1;
    size_t sent = 0;
    std::string from;
  };
  std::vector<Slow> slow(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) slow[i].from = "127.0.0." + std::to_string(2 + i % 10);
  while (!stop) {
    int alive = 0;
    for (auto& s : slow) {
      if (s.fd >= 0) {
        char buffer[512];
        const ssize_t got = ::recv(s.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        const bool closed = got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
        const char byte = s.sent < kHead.size() ? kHead[s.sent] : 'a';
        if (closed || ::send(s.fd, &byte, 1, MSG_NOSIGNAL) != 1) {
          ::close(s.fd);
          s.fd = -1;
          ++*reconnects;
        } else {
          ++s.sent;
        }
      }
      if (s.fd < 0) {
        s.fd = Connect(port, s.from);
        s.sent = 0;
      }
      if (s.fd >= 0) ++alive;
    }
    *open = alive;
    for (int i = 0; i < 10 && !stop; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  for (auto& s : slow) {
    if (s.fd >= 0) ::close(s.fd);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int devices = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
  const int perDevice = argc > 2 ? std::max(1, std::atoi(argv[2])) : 20;
  const int limitSeconds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 60;
  const int slowConnections = argc > 4 ? std::max(0, std::atoi(argv[4])) : 0;

  const auto dir =
      std::filesystem::temp_directory_path() / ("zsm-refserver-load-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  ServerOptions options;
  options.dataDir = dir;
  options.threads = devices + 8;  // one keep-alive connection per device
  // The simulated devices share one loopback address; real ones would not.
  options.limits.maxConnectionsPerAddress = devices + 8;
  options.limits.maxConnections = devices + slowConnections + 64;
  std::unique_ptr<ContentServer> server;
  Status s = ContentServer::Create(options, &server);
  if (!s.ok()) {
    std::fprintf(stderr, "%s\n", s.ToString().c_str());
    return 1;
  }
  Store* store = server->store();
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
  std::atomic<bool> slowStop{false};
  std::atomic<int> slowOpen{0};
  std::atomic<int> slowReconnects{0};
  std::thread slowClients;
  if (slowConnections > 0) {
    slowClients = std::thread(RunSlowClients, server->port(), slowConnections, std::cref(slowStop),
                              &slowOpen, &slowReconnects);
    // Let them all connect before the devices start.
    for (int i = 0; i < 500 && slowOpen < slowConnections; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  const int slowAtStart = slowOpen;
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
  const int slowAtEnd = slowOpen;
  slowStop = true;
  if (slowClients.joinable()) slowClients.join();
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
  if (slowConnections > 0) {
    std::printf("slow_connections=%d open_at_start=%d open_at_end=%d cut_and_reconnected=%d\n",
                slowConnections, slowAtStart, slowAtEnd, slowReconnects.load());
  }
  const bool complete = latencies.size() == static_cast<size_t>(devices) * perDevice;
  if (!complete) std::printf("time limit reached before every request was sent\n");
  return errors == 0 && complete ? 0 : 1;
}
