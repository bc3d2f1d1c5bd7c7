// refserver_http_load: a closed-loop load client for the content server (or any
// HTTP server serving a static copy of a catalog), one kept-alive connection per
// simulated device, all driven by a few epoll loops so that 10,000 devices need no
// thread each. Devices are spread over loopback source addresses 127.0.X.Y, at most
// --per-address of them on one, so that the server's per-address cap is honoured.
//
// Against zsm-server (--mode zsm) each device first subscribes to --feeds with
// signed requests, then asks for its catalog since --since, again and again, with
// one signed request (a catalog may be repeated byte for byte). Against a static
// server (--mode static) each device GETs --path again and again.
//
// Prints "measuring" and "measured" around the measured window, then one JSON
// line: ok, errors, reconnects, seconds, rps, p50_ms, p99_ms,
// setup_errors. Every reply must be HTTP 200 (and response code 0 for zsm).
//
//   refserver_http_load --port P [--mode zsm|static] [--devices 50] [--seconds 10]
//       [--threads 2] [--per-address 50] [--user bench --key K --secret S]
//       [--feeds f1,f2] [--since MS] [--path /catalog.json] [--dump FILE]
//       [--verify 1]  (every reply body must parse as JSON)
//       [--interval-ms MIN-MAX]  (paced: wait that long after each reply)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/ContentServer.h"
#include "reference/server/protocol/RequestSigner.h"

using namespace zolvani::refserver;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
  std::string mode = "zsm";
  int port = 0;
  int devices = 50;
  double seconds = 10;
  int threads = 2;
  int perAddress = 50;
  std::string user = "bench";
  std::string key = "bench-key";
  std::string secret = "bench-secret";
  std::vector<std::string> feeds = {"f1", "f2"};
  int64_t since = -1;
  std::string path = "/catalog.json";
  std::string dump;
  bool verify = false;  // parse every reply body as JSON
  // When set, a device waits a time drawn from [min, max] ms after each reply
  // before its next request, as a device syncing now and then does; otherwise it
  // asks again at once (closed loop).
  int intervalMinMs = 0, intervalMaxMs = 0;
};

std::string SignedPost(const Options& o, const std::string& endpoint, const std::string& device,
                       nlohmann::json members) {
  members["request_header"] = {{"device_id", device},
                               {"user_id", o.user},
                               {"timestamp", ContentServer::WallClockMs() / 1000},
                               {"key", RequestSigner::Base64(o.key)}};
  const std::string body = members.dump();
  const std::string host = "127.0.0.1:" + std::to_string(o.port);
  const std::string path = "/Subscriptions/client/" + endpoint;
  const std::string sig =
      RequestSigner::Sign("POST", host, "http://" + host + path, body, o.secret);
  return "POST " + path + "?sig=" + sig + " HTTP/1.1\r\nHost: " + host +
         "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

struct Device {
  int index = 0;
  std::string from;  // source address
  std::vector<std::string> setup;
  size_t setupDone = 0;
  std::string loop;  // the request repeated
  int fd = -1;
  bool connected = false;
  int repliesOnConnection = 0;  // replies read on the current connection
  const std::string* request = nullptr;
  size_t sent = 0;
  std::string in;
  Clock::time_point started{};
  Clock::time_point retryAt{};
  Clock::time_point sendAt{};  // paced: when the next request goes
  bool waiting = false;        // paced: a request is due at sendAt
};

struct Totals {
  std::mutex mutex;
  std::vector<float> latencyMs;
  int64_t ok = 0, errors = 0, setupErrors = 0, reconnects = 0, retried = 0;
  std::string firstError;
  std::string lastBody;
};

// Length of a complete reply at the start of `in` (0: not complete yet; -1: bad).
// `body` receives the body.
long ReplyLength(const std::string& in, int* status, bool* close, std::string* body) {
  const size_t end = in.find("\r\n\r\n");
  if (end == std::string::npos) return 0;
  if (in.compare(0, 9, "HTTP/1.1 ") != 0 && in.compare(0, 9, "HTTP/1.0 ") != 0) return -1;
  *status = std::atoi(in.c_str() + 9);
  std::string head = in.substr(0, end);
  std::transform(head.begin(), head.end(), head.begin(), [](char c) { return std::tolower(c); });
  *close = head.find("\r\nconnection: close") != std::string::npos;
  const size_t cl = head.find("\r\ncontent-length:");
  if (cl != std::string::npos) {
    const long length = std::atol(head.c_str() + cl + 17);
    if (in.size() < end + 4 + static_cast<size_t>(length)) return 0;
    *body = in.substr(end + 4, static_cast<size_t>(length));
    return static_cast<long>(end + 4) + length;
  }
  if (head.find("\r\ntransfer-encoding: chunked") != std::string::npos) {
    body->clear();
    size_t at = end + 4;
    while (true) {
      const size_t line = in.find("\r\n", at);
      if (line == std::string::npos) return 0;
      const size_t size = std::strtoul(in.c_str() + at, nullptr, 16);
      if (in.size() < line + 2 + size + 2) return 0;
      body->append(in, line + 2, size);
      at = line + 2 + size + 2;
      if (size == 0) return static_cast<long>(at);
    }
  }
  body->clear();
  return static_cast<long>(end + 4);  // no body
}

// The measured window, set once every device is through its setup.
std::atomic<int64_t> gMeasureFrom{INT64_MAX};
std::atomic<int64_t> gUntil{INT64_MAX};
std::atomic<int> gSetUp{0};

Clock::time_point At(const std::atomic<int64_t>& t) {
  return Clock::time_point(Clock::duration(t.load()));
}

void Run(const Options& o, std::vector<Device>& devices, Totals* totals) {
  const int ep = ::epoll_create1(EPOLL_CLOEXEC);
  std::vector<float> latencies;
  int64_t ok = 0, errors = 0, setupErrors = 0, reconnects = 0, retried = 0;
  std::string firstError, lastBody;
  auto lastScan = Clock::now();
  auto fail = [&](Device& d, const std::string& why, bool inSetup) {
    if (Clock::now() >= At(gMeasureFrom) || inSetup) {
      if (inSetup) {
        ++setupErrors;
      } else {
        ++errors;
      }
      if (firstError.empty()) firstError = why;
    }
    if (d.fd >= 0) ::close(d.fd);
    d.fd = -1;
    d.connected = false;
    d.retryAt = Clock::now() + std::chrono::milliseconds(100);
  };
  auto connect = [&](Device& d) {
    d.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(d.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    ::inet_pton(AF_INET, d.from.c_str(), &local.sin_addr);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(static_cast<uint16_t>(o.port));
    ::inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
    if (::bind(d.fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
        (::connect(d.fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)) != 0 &&
         errno != EINPROGRESS)) {
      return fail(d, std::string("connect: ") + std::strerror(errno), false);
    }
    d.in.clear();
    d.sent = 0;
    d.repliesOnConnection = 0;
    d.request = d.setupDone < d.setup.size() ? &d.setup[d.setupDone] : &d.loop;
    d.started = Clock::now();
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLOUT | EPOLLET;  // edge-triggered: no spinning on writable
    ev.data.ptr = &d;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, d.fd, &ev);
  };
  auto flush = [&](Device& d) {
    while (d.sent < d.request->size()) {
      const ssize_t n = ::send(d.fd, d.request->data() + d.sent, d.request->size() - d.sent,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        d.sent += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
      return false;
    }
    return true;
  };
  for (auto& d : devices) connect(d);
  std::vector<epoll_event> events(1024);
  while (true) {
    const auto now = Clock::now();
    if (now >= At(gUntil)) break;
    // Reconnections and paced requests are due at most every 2 ms.
    for (auto& d : devices) {
      if (now - lastScan < std::chrono::milliseconds(2)) break;
      if (d.fd < 0 && now >= d.retryAt) {
        ++reconnects;
        d.waiting = false;
        connect(d);
      } else if (d.waiting && now >= d.sendAt) {
        d.waiting = false;
        d.started = now;
        if (!flush(d)) fail(d, "send failed", false);
      }
    }
    if (now - lastScan >= std::chrono::milliseconds(2)) lastScan = now;
    const int n = ::epoll_wait(ep, events.data(), static_cast<int>(events.size()), 2);
    for (int i = 0; i < n; ++i) {
      Device& d = *static_cast<Device*>(events[i].data.ptr);
      if (d.fd < 0) continue;
      const bool inSetup = d.request != &d.loop;
      if (events[i].events & (EPOLLERR | EPOLLHUP)) {
        if (!(events[i].events & EPOLLIN)) {
          fail(d, "connection reset", inSetup);
          continue;
        }
      }
      if ((events[i].events & EPOLLOUT) && !d.waiting && !flush(d)) {
        fail(d, "send failed", inSetup);
        continue;
      }
      if (!(events[i].events & EPOLLIN)) continue;
      char buffer[64 * 1024];
      bool closed = false;
      while (true) {
        const ssize_t got = ::recv(d.fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        if (got > 0) {
          d.in.append(buffer, static_cast<size_t>(got));
          continue;
        }
        if (got == 0) closed = true;
        break;
      }
      int status = 0;
      bool mustClose = false;
      std::string body;
      const long length = ReplyLength(d.in, &status, &mustClose, &body);
      if (length < 0) {
        fail(d, "not HTTP", inSetup);
        continue;
      }
      if (length == 0) {
        if (closed && d.in.empty() && d.repliesOnConnection > 0) {
          // The server ended an idle kept-alive connection as the request went out:
          // as HTTP clients do, send it again on a new connection.
          ::close(d.fd);
          d.fd = -1;
          d.retryAt = Clock::now();
          ++retried;
          continue;
        }
        if (closed) fail(d, "closed before the reply ended", inSetup);
        continue;
      }
      ++d.repliesOnConnection;
      const auto done = Clock::now();
      bool good = status == 200 &&
                  (o.mode != "zsm" || body.find("\"response_code\":0") != std::string::npos);
      if (good && o.verify && !nlohmann::json::accept(body)) good = false;
      if (inSetup) {
        if (!good) {
          ++setupErrors;
          if (firstError.empty())
            firstError = "setup: HTTP " + std::to_string(status) + " " + body.substr(0, 200);
        }
        if (++d.setupDone == d.setup.size()) ++gSetUp;
      } else if (done >= At(gMeasureFrom)) {
        if (good) {
          ++ok;
          latencies.push_back(std::chrono::duration<float, std::milli>(done - d.started).count());
        } else {
          ++errors;
          if (firstError.empty())
            firstError = "HTTP " + std::to_string(status) + " " + body.substr(0, 200);
        }
      }
      if (!o.dump.empty() && !inSetup) lastBody = body;
      d.in.erase(0, static_cast<size_t>(length));
      if (closed || mustClose) {
        ::close(d.fd);
        d.fd = -1;
        d.retryAt = Clock::now();
        continue;
      }
      d.request = d.setupDone < d.setup.size() ? &d.setup[d.setupDone] : &d.loop;
      d.sent = 0;
      d.started = Clock::now();
      if (!o.dump.empty() && !lastBody.empty()) break;
      if (o.intervalMaxMs > 0 && d.request == &d.loop) {
        const int span = std::max(0, o.intervalMaxMs - o.intervalMinMs);
        d.sendAt = d.started + std::chrono::milliseconds(o.intervalMinMs +
                                                         (span > 0 ? std::rand() % (span + 1) : 0));
        d.waiting = true;
        continue;
      }
      if (!flush(d)) fail(d, "send failed", inSetup);
    }
    if (!o.dump.empty() && !lastBody.empty()) break;
  }
  for (auto& d : devices) {
    if (d.fd >= 0) ::close(d.fd);
  }
  ::close(ep);
  std::lock_guard lock(totals->mutex);
  totals->latencyMs.insert(totals->latencyMs.end(), latencies.begin(), latencies.end());
  totals->ok += ok;
  totals->errors += errors;
  totals->setupErrors += setupErrors;
  totals->reconnects += reconnects;
  totals->retried += retried;
  if (totals->firstError.empty()) totals->firstError = firstError;
  if (!lastBody.empty()) totals->lastBody = lastBody;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const std::string value = argv[i + 1];
    if (name == "--mode")
      o.mode = value;
    else if (name == "--port")
      o.port = std::atoi(value.c_str());
    else if (name == "--devices")
      o.devices = std::max(1, std::atoi(value.c_str()));
    else if (name == "--seconds")
      o.seconds = std::atof(value.c_str());
    else if (name == "--threads")
      o.threads = std::max(1, std::atoi(value.c_str()));
    else if (name == "--per-address")
      o.perAddress = std::max(1, std::atoi(value.c_str()));
    else if (name == "--user")
      o.user = value;
    else if (name == "--key")
      o.key = value;
    else if (name == "--secret")
      o.secret = value;
    else if (name == "--since")
      o.since = std::atoll(value.c_str());
    else if (name == "--path")
      o.path = value;
    else if (name == "--dump")
      o.dump = value;
    else if (name == "--verify")
      o.verify = value == "1";
    else if (name == "--interval-ms") {
      o.intervalMinMs = std::atoi(value.c_str());
      const size_t dash = value.find('-');
      o.intervalMaxMs =
          dash == std::string::npos ? o.intervalMinMs : std::atoi(value.c_str() + dash + 1);
    } else if (name == "--feeds") {
      o.feeds.clear();
      for (size_t at = 0; at <= value.size();) {
        const size_t comma = std::min(value.find(',', at), value.size());
        if (comma > at) o.feeds.push_back(value.substr(at, comma - at));
        at = comma + 1;
      }
    } else {
      std::fprintf(stderr, "unknown option %s\n", name.c_str());
      return 2;
    }
  }
  if (o.port <= 0) {
    std::fprintf(stderr, "--port is required\n");
    return 2;
  }
  std::vector<std::vector<Device>> shards(static_cast<size_t>(o.threads));
  for (int i = 0; i < o.devices; ++i) {
    Device d;
    d.index = i;
    const int address = i / o.perAddress;  // 127.0.1.1 and on
    d.from = "127.0." + std::to_string(1 + address / 250) + "." + std::to_string(1 + address % 250);
    const std::string id = "load-" + std::to_string(i);
    if (o.mode == "zsm") {
      for (const auto& feed : o.feeds)
        d.setup.push_back(SignedPost(o, "subscribe", id, {{"feed", feed}}));
      nlohmann::json filter = {{"subscribed", true}};
      if (o.since >= 0) filter["since"] = o.since;
      d.loop = SignedPost(o, "catalog", id, {{"filter", filter}});
    } else {
      d.loop = "GET " + o.path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    }
    shards[static_cast<size_t>(i % o.threads)].push_back(std::move(d));
  }
  Totals totals;
  int withoutSetup = 0;
  for (const auto& shard : shards) {
    for (const auto& d : shard) withoutSetup += d.setup.empty() ? 1 : 0;
  }
  gSetUp = withoutSetup;
  std::vector<std::thread> threads;
  for (auto& shard : shards) {
    threads.emplace_back([&, &shard = shard] { Run(o, shard, &totals); });
  }
  // Figures count once every device has connected and subscribed (or after two
  // minutes), for --seconds, after a settling second.
  const auto setupLimit = Clock::now() + std::chrono::minutes(2);
  while (gSetUp.load() < o.devices && Clock::now() < setupLimit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto measureFrom = Clock::now() + std::chrono::seconds(1);
  const auto until =
      measureFrom + std::chrono::milliseconds(static_cast<int64_t>(o.seconds * 1000));
  gMeasureFrom = measureFrom.time_since_epoch().count();
  gUntil = until.time_since_epoch().count();
  if (o.dump.empty()) {
    // Marks for a script sampling the server's CPU over the measured window only.
    std::this_thread::sleep_until(measureFrom);
    std::printf("measuring\n");
    std::fflush(stdout);
    std::this_thread::sleep_until(until);
    std::printf("measured\n");
    std::fflush(stdout);
  }
  for (auto& t : threads) t.join();
  if (!o.dump.empty()) {
    std::ofstream(o.dump, std::ios::binary) << totals.lastBody;
    return totals.lastBody.empty() ? 1 : 0;
  }
  auto& l = totals.latencyMs;
  std::sort(l.begin(), l.end());
  auto pct = [&](double p) { return l.empty() ? 0.0 : l[static_cast<size_t>(p * (l.size() - 1))]; };
  nlohmann::json out = {{"ok", totals.ok},
                        {"errors", totals.errors},
                        {"setup_errors", totals.setupErrors},
                        {"reconnects", totals.reconnects},
                        {"retried_on_idle_close", totals.retried},
                        {"seconds", o.seconds},
                        {"rps", totals.ok / o.seconds},
                        {"p50_ms", pct(0.5)},
                        {"p99_ms", pct(0.99)},
                        {"first_error", totals.firstError}};
  std::printf("%s\n", out.dump().c_str());
  return 0;
}
