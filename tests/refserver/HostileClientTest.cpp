// A real zsm-server process on loopback against hostile clients: deep JSON, slow and
// abusive connections, oversized bodies in every framing, a second server on a busy
// port, Range headers HTTP says to ignore, devices publishing where they may not,
// replays, and a short soak with all of it beside good devices. Every attack is a
// table of cases; each test bounds its own time.
#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/socket.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "ServerProcess.h"
#include "reference/server/media/SampleGenerator.h"

namespace zolvani::refserver::testing {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr size_t kClipBytes = 300000;

// How much longer than an optimised build a sanitized, unoptimised one takes to
// parse what a hostile client sends (a body in one-byte chunks is parsed byte by
// byte): the time bounds below are the optimised build's times this many fold.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(NDEBUG)
constexpr int kSlowBuild = 3;
#else
constexpr int kSlowBuild = 1;
#endif

int64_t NowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Nested(int depth, const std::string& inner = "1") {
  return std::string(static_cast<size_t>(depth), '[') + inner +
         std::string(static_cast<size_t>(depth), ']');
}

// Chunked transfer coding of `body` in chunks of `chunk` bytes.
std::string Chunked(const std::string& body, size_t chunk) {
  std::string out;
  char size[32];
  for (size_t at = 0; at < body.size(); at += chunk) {
    const size_t n = std::min(chunk, body.size() - at);
    std::snprintf(size, sizeof(size), "%zx\r\n", n);
    out += size;
    out.append(body, at, n);
    out += "\r\n";
  }
  return out + "0\r\n\r\n";
}

class HostileClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    dir_ = std::filesystem::temp_directory_path() /
           ("zsm-hostile-" + std::to_string(rd()) + "-" + std::to_string(rd()));
    std::filesystem::create_directories(dir_ / "data");
    ASSERT_TRUE(
        SampleGenerator::WriteMediaFile(dir_ / "data/media/files/clip.mp4", "clip", kClipBytes)
            .ok());
    const int64_t t = NowSeconds() - 3600;
    auto item = [t](const std::string& uuid, int minute) {
      return json{{"remoteUUID", uuid},
                  {"created", t + minute * 60},
                  {"media", "files/clip.mp4"},
                  {"metadata", {{"title", uuid}, {"mediaType", 0}}}};
    };
    const json seed = {{"accounts",
                        {{{"user", "alice"}, {"key", "alice-key"}, {"secret", "alice-secret"}},
                         {{"user", "bob"}, {"key", "bob-key"}, {"secret", "bob-secret"}},
                         {{"user", "eve"}, {"key", "eve-key"}, {"secret", "eve-secret"}},
                         {{"user", "ops"}, {"key", "ops-key"}, {"secret", "ops-secret"}}}},
                       {"feeds",
                        {{{"id", "news"},
                          {"title", "News"},
                          {"publishers", {"alice"}},
                          {"items", {item("news-1", 1), item("news-2", 2)}}},
                         {{"id", "sports"}, {"title", "Sports"}, {"items", {item("sports-1", 3)}}},
                         {{"id", "archive"},
                          {"title", "Archive"},
                          {"subscribable", false},
                          {"publishers", {"alice"}}}}},
                       {"direct_items",
                        {{{"user", "bob"},
                          {"remoteUUID", "bob-welcome"},
                          {"created", t},
                          {"metadata", {{"downloadURL", "http://example.test/welcome.mp4"}}}}}}};
    seedFile_ = dir_ / "seed.json";
    std::ofstream(seedFile_) << seed.dump();
  }

  void TearDown() override {
    if (server_ && HasFailure()) {
      const std::string log = server_->Log();
      std::fprintf(stderr, "--- server log (last 4000 bytes) ---\n%s\n",
                   log.substr(log.size() > 4000 ? log.size() - 4000 : 0).c_str());
    }
    if (server_) {
      EXPECT_EQ(server_->Stop(), 0) << "the server exits cleanly on SIGTERM";
    }
    server_.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  void StartServer(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {"--seed", seedFile_.string()});
    std::string error;
    server_ = ServerProcess::Start(dir_ / "data", args, &error);
    ASSERT_TRUE(server_) << error;
    port_ = server_->port();
  }

  ProgramResult Admin(std::vector<std::string> args) {
    args.insert(args.begin() + 1, {"--data", (dir_ / "data").string()});
    return RunServerProgram(args);
  }

  // The feed items and direct items a device's catalog offers, as "feed/uuid" and
  // "direct/uuid"; checks on the way that the reply is one a device reads.
  std::set<std::string> CatalogItems(const Device& device, bool subscribedOnly = true) {
    const HttpReply reply =
        device.Call(port_, "catalog", {{"filter", {{"subscribed", subscribedOnly}}}});
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.code(), 0) << reply.body.substr(0, 300);
    // The library reads a reply nested deeper than 128 levels as not JSON.
    EXPECT_LE(JsonNesting(reply.body), 128);
    std::set<std::string> items;
    if (!reply.json.is_object()) return items;
    for (const auto& feed : reply.json["collections"]) {
      for (const auto& i : feed["contentItems"]) {
        items.insert(feed["remoteUUID"].get<std::string>() + "/" +
                     i["remoteUUID"].get<std::string>());
      }
    }
    for (const auto& i : reply.json["contentItems"]) {
      items.insert("direct/" + i["remoteUUID"].get<std::string>());
    }
    return items;
  }

  const Device alice_{"alice", "alice-key", "alice-secret", "alice-phone"};
  const Device alice2_{"alice", "alice-key", "alice-secret", "alice-tv"};
  const Device bob_{"bob", "bob-key", "bob-secret", "bob-phone"};
  const Device eve_{"eve", "eve-key", "eve-secret", "eve-laptop"};
  const Device ops_{"ops", "ops-key", "ops-secret", "ops-console"};

  std::filesystem::path dir_;
  std::filesystem::path seedFile_;
  std::unique_ptr<ServerProcess> server_;
  int port_ = 0;
};

TEST_F(HostileClientTest, DeepJsonIsRefusedOnEveryEndpointAndPoisonsNoCatalog) {
  StartServer();
  ASSERT_EQ(bob_.Call(port_, "subscribe", {{"feed", "news"}}).code(), 0);
  ASSERT_EQ(alice2_.Call(port_, "validate", json::object()).code(), 0);  // a second device
  const std::set<std::string> bobBefore = CatalogItems(bob_);
  ASSERT_EQ(bobBefore, (std::set<std::string>{"news/news-1", "news/news-2", "direct/bob-welcome"}));

  // Items named "deep-*" are refused; "shallow-*" are within the stored limits.
  auto item = [](const std::string& uuid, const std::string& extra) {
    return "\"body\":{\"uuid\":\"" + uuid + "\",\"downloadURL\":\"http://cdn.test/" + uuid +
           ".mp4\"" + (extra.empty() ? "" : "," + extra) + "}";
  };
  struct Case {
    const char* name;
    std::string endpoint;
    std::string members;  // raw JSON text of the members beside "request_header"
    int code;
  };
  const std::vector<Case> cases = {
      // The crash: the item path copied and re-serialised this member recursively
      // (65,000 levels were enough on a request thread's stack; 400,000 always are).
      {"duration 400,000 deep", "addItemAndNotifyDevice",
       item("deep-0", "\"duration\":" + Nested(400000)), 1},
      {"duration 65,000 deep", "addItemAndNotifyDevice",
       item("deep-1", "\"duration\":" + Nested(65000)), 1},
      // The poison: just under the old crash depth it was stored and served.
      {"duration 64,843 deep", "addItemAndNotifyDevice",
       item("deep-2", "\"duration\":" + Nested(64843)), 1},
      {"contentSize 33 deep", "addItemAndNotifyDevice",
       item("deep-3", "\"contentSize\":" + Nested(33)), 1},
      {"item body 40 deep", "addItemAndNotifyDevice", "\"body\":" + Nested(40, "{}"), 1},
      {"duration over the stored limit", "addItemAndNotifyDevice",
       item("deep-4", "\"duration\":" + Nested(8)), 4},
      {"downloadEnabled as a deep object", "addItemAndNotifyDevice",
       item("deep-5", "\"downloadEnabled\":" + Nested(10, "{\"a\":1}")), 4},
      {"metadata over 64 KiB", "addItemAndNotifyDevice",
       item("deep-6", "\"desc\":\"" + std::string(70000, 'x') + "\""), 4},
      {"duration at the stored limit", "addItemAndNotifyDevice",
       item("shallow-1", "\"duration\":" + Nested(7)), 0},
      {"validate, push registration deep", "validate",
       "\"push_registration\":" + Nested(50000, "{}"), 1},
      {"subscribe, feed deep", "subscribe", "\"feed\":" + Nested(20000), 1},
      {"unsubscribe, feed deep", "unsubscribe", "\"feed\":" + Nested(100), 1},
      {"subscriptions, extra member deep", "subscriptions", "\"x\":" + Nested(60000, "{}"), 1},
      {"catalog, filter deep", "catalog", "\"filter\":" + Nested(64000, "{}"), 1},
      {"catalog, since deep", "catalog", "\"filter\":{\"since\":" + Nested(33) + "}", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Device& sender = alice_;
    std::string body = sender.Body(json::object());
    body.insert(body.size() - 1, "," + c.members);
    RawConnection connection(port_);
    ASSERT_TRUE(connection.Send(sender.Request(port_, c.endpoint, body)));
    const auto reply = connection.ReadReply(10s);
    ASSERT_TRUE(reply) << "no reply; the server is " << (server_->Alive() ? "alive" : "dead");
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->code(), c.code) << reply->body.substr(0, 200);
  }
  ASSERT_TRUE(server_->Alive());

  // Other devices still sync everything; alice's catalogs carry the one item that
  // was within the limits, shallow enough for any device.
  EXPECT_EQ(CatalogItems(bob_), bobBefore);
  EXPECT_EQ(CatalogItems(alice2_), (std::set<std::string>{"direct/shallow-1"}));
  const HttpReply all = alice_.Call(port_, "catalog", {{"filter", {{"subscribed", false}}}});
  EXPECT_EQ(all.code(), 0);
  EXPECT_LE(JsonNesting(all.body), 16);
}

TEST_F(HostileClientTest, SlowClientsAreCutAtWholeRequestDeadlines) {
  StartServer({"--header-timeout", "1", "--body-timeout", "1", "--keep-alive-timeout", "0.5"});
  const std::string post = "POST /Subscriptions/client/validate?sig=" + std::string(64, 'a') +
                           " HTTP/1.1\r\nHost: x\r\n";
  struct Case {
    const char* name;
    std::string opening;  // sent at once
    std::string trickle;  // then one byte of this every 150 ms, round and round
    bool afterReply;      // the deadline runs from the reply to the opening
    double lo, hi;        // seconds from the opening (or its reply) to the close
  };
  const std::vector<Case> cases = {
      {"silent after connecting", "", "", false, 0.8, 2.5},
      {"a header byte every 150 ms", "", "GET /health HTTP/1.1\r\nX-Slow: ", false, 0.8, 2.5},
      {"the request line, then header bytes", "GET /health HTTP/1.1\r\n", "X-Slow: aaaa\r\n", false,
       0.8, 2.5},
      {"a body byte every 150 ms", post + "Content-Length: 1000\r\n\r\n", "{", false, 0.8, 2.5},
      {"a chunk every 150 ms", post + "Transfer-Encoding: chunked\r\n\r\n", "1\r\na\r\n", false,
       0.8, 2.5},
      {"idle after a request", "GET /health HTTP/1.1\r\nHost: x\r\n\r\n", "", true, 0.3, 1.5},
  };
  // All at once, each on its own connection and thread.
  std::vector<double> closedAfter(cases.size(), -1);
  std::vector<std::string> received(cases.size());
  std::vector<std::thread> runners;
  for (size_t i = 0; i < cases.size(); ++i) {
    runners.emplace_back([&, i] {
      const Case& c = cases[i];
      RawConnection connection(port_);
      connection.Send(c.opening);
      auto start = Clock::now();
      if (c.afterReply) {
        const auto reply = connection.ReadReply(2s);
        if (!reply || reply->status != 200) return;
        start = Clock::now();
      }
      for (size_t sent = 0; SecondsSince(start) < 5;) {
        if (connection.ClosedWithin(150ms)) {
          closedAfter[i] = SecondsSince(start);
          break;
        }
        if (!c.trickle.empty())
          connection.Send(std::string(1, c.trickle[sent++ % c.trickle.size()]));
      }
      received[i] = connection.received();
    });
  }
  for (auto& t : runners) t.join();
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].name);
    EXPECT_GE(closedAfter[i], cases[i].lo) << "closed too early";
    EXPECT_LE(closedAfter[i], cases[i].hi) << "not closed in time (-1: never)";
    // A request cut short is told why, when the client can still read.
    if (!cases[i].afterReply && !received[i].empty()) {
      EXPECT_EQ(received[i].rfind("HTTP/1.1 408", 0), 0u) << received[i].substr(0, 60);
    }
  }
  EXPECT_EQ(alice_.Call(port_, "validate", json::object()).code(), 0);
}

TEST_F(HostileClientTest, HundredsOfSlowConnectionsLeaveDevicesAnsweredWithinASecond) {
  StartServer();  // default deadlines: the slow connections stay for the whole test
  constexpr int kSlow = 300;
  std::vector<RawConnection> slow;
  slow.reserve(kSlow);
  for (int i = 0; i < kSlow; ++i) {
    // Ten client addresses, thirty connections each: under the per-address cap.
    slow.emplace_back(port_, "127.0.0." + std::to_string(2 + i % 10));
    ASSERT_TRUE(slow.back().connected());
    slow.back().Send("GET /health HTTP/1.1\r\nX-Slow: ");
  }
  std::atomic<bool> stop{false};
  // A header byte a second each, as a slowloris client sends.
  std::thread trickler([&] {
    while (!stop) {
      for (auto& c : slow) c.Send("a");
      for (int i = 0; i < 10 && !stop; ++i) std::this_thread::sleep_for(100ms);
    }
  });
  std::this_thread::sleep_for(200ms);  // all of them accepted and waiting
  std::vector<std::thread> devices;
  std::atomic<int> answered{0};
  std::mutex mutex;
  std::vector<std::string> failures;
  for (int d = 0; d < 10; ++d) {
    devices.emplace_back([&, d] {
      const Device device{"bob", "bob-key", "bob-secret", "device-" + std::to_string(d)};
      for (int i = 0; i < 3; ++i) {
        const auto t0 = Clock::now();
        const HttpReply reply =
            device.Call(port_, "catalog", {{"filter", {{"subscribed", false}}}, {"n", i}}, 5s);
        const double took = SecondsSince(t0);
        std::lock_guard lock(mutex);
        if (reply.status == 200 && reply.code() == 0 && took < 1.0) {
          ++answered;
        } else {
          failures.push_back(device.id + ": HTTP " + std::to_string(reply.status) + " after " +
                             std::to_string(took) + " s");
        }
      }
    });
  }
  for (auto& t : devices) t.join();
  stop = true;
  trickler.join();
  EXPECT_EQ(answered, 30) << (failures.empty() ? "" : failures.front());
  // The slow connections were open all along: the server had not cut them yet.
  int open = 0;
  for (auto& c : slow) open += c.ClosedWithin(0ms) ? 0 : 1;
  EXPECT_EQ(open, kSlow);
}

TEST_F(HostileClientTest, ConnectionCapsRefuseAtOnce) {
  StartServer({"--max-connections", "24", "--max-connections-per-address", "8"});
  auto held = [this](const std::string& from, int n) {
    std::vector<RawConnection> connections;
    for (int i = 0; i < n; ++i) connections.emplace_back(port_, from);
    return connections;
  };
  // Served or refused, and how soon the refusal came.
  auto probe = [this](const std::string& from) {
    RawConnection c(port_, from);
    const auto t0 = Clock::now();
    c.Send("GET /health HTTP/1.1\r\nHost: x\r\n\r\n");
    const auto reply = c.ReadReply(3s);
    return std::make_pair(reply ? reply->status : 0, SecondsSince(t0));
  };
  const auto fromTwo = held("127.0.0.2", 8);
  ASSERT_EQ(fromTwo.size(), 8u);
  std::this_thread::sleep_for(100ms);
  {
    SCOPED_TRACE("a ninth connection from one address");
    const auto [status, took] = probe("127.0.0.2");
    EXPECT_TRUE(status == 503 || status == 0) << status;
    EXPECT_LT(took, 0.5);
    EXPECT_EQ(probe("127.0.0.3").first, 200) << "another address is served";
  }
  std::this_thread::sleep_for(100ms);  // the server sees the probe close
  const auto fromThree = held("127.0.0.3", 8);
  auto fromFour = held("127.0.0.4", 8);
  std::this_thread::sleep_for(100ms);
  {
    SCOPED_TRACE("a 25th connection in all");
    const auto [status, took] = probe("127.0.0.5");
    EXPECT_TRUE(status == 503 || status == 0) << status;
    EXPECT_LT(took, 0.5);
  }
  fromFour.clear();
  std::this_thread::sleep_for(200ms);  // the server sees those close
  EXPECT_EQ(probe("127.0.0.5").first, 200) << "room again once connections close";
  EXPECT_NE(server_->Log().find("refused"), std::string::npos) << "refusals are logged";
}

TEST_F(HostileClientTest, BodiesOverTheLimitGet413WhateverTheFraming) {
  StartServer();
  const std::string path = "/Subscriptions/client/validate?sig=" + std::string(64, 'a');
  // A signed validate whose body is exactly `size` bytes.
  auto signedBody = [this](size_t size) {
    std::string body = alice_.Body({{"pad", ""}});
    const size_t at = body.find("\"pad\":\"") + 7;
    body.insert(at, std::string(size > body.size() ? size - body.size() : 0, 'x'));
    return body;
  };
  auto signedChunked = [this](const std::string& body, const std::string& extra = "") {
    return "POST " + alice_.Target(port_, "validate", body) +
           " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
           "\r\nTransfer-Encoding: chunked\r\n" + extra + "\r\n" + Chunked(body, 65536);
  };
  struct Case {
    const char* name;
    std::string request;
    int status;
    int code;  // checked when status is 200
  };
  const std::string mib = signedBody(1 << 20);
  const std::vector<Case> cases = {
      {"Content-Length 2 MiB, head only",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\n"
           "Content-Length: 2097152\r\n\r\n",
       413, 0},
      {"Content-Length 50 MB",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\n"
           "Content-Length: 50000000\r\n\r\n" +
           std::string(100000, ' '),
       413, 0},
      {"Expect 100-continue with 2 MiB",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\nContent-Length: 2097152\r\n"
           "Expect: 100-continue\r\n\r\n",
       413, 0},
      {"chunked, 2 MiB signed", signedChunked(signedBody(2 << 20)), 413, 0},
      {"chunked, 1 MiB + 1 signed", signedChunked(signedBody((1 << 20) + 1)), 413, 0},
      {"chunked, exactly 1 MiB signed", signedChunked(mib), 200, 0},
      {"chunked in 1-byte chunks",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\n"
           "Transfer-Encoding: chunked\r\n\r\n" +
           Chunked(std::string(600000, ' '), 1),
       413, 0},
      {"Content-Length exactly 1 MiB signed",
       alice_.Request(port_, "validate", signedBody(1 << 20)), 200, 0},
      {"no length: the body is empty", "POST " + path + " HTTP/1.1\r\nHost: x\r\n\r\n", 200, 1},
      {"gzip transfer coding",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\n"
           "Transfer-Encoding: gzip\r\n\r\n",
       400, 0},
      {"chunked and a length",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\n"
           "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n0\r\n\r\n",
       400, 0},
      {"two different lengths",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\n"
           "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}",
       400, 0},
      {"length not a number",
       "POST " + path +
           " HTTP/1.1\r\nHost: x\r\n"
           "Content-Length: 2x\r\n\r\n{}",
       400, 0},
      {"space before the colon", "GET /health HTTP/1.1\r\nHost : x\r\n\r\n", 400, 0},
      {"folded header line", "GET /health HTTP/1.1\r\nHost: x\r\n  folded\r\n\r\n", 400, 0},
      {"head over 64 KiB", "GET /health HTTP/1.1\r\n" + std::string(70000, 'a') + ": b\r\n\r\n",
       431, 0},
      {"200 header lines",
       [] {
         std::string r = "GET /health HTTP/1.1\r\n";
         for (int i = 0; i < 200; ++i) r += "X-" + std::to_string(i) + ": v\r\n";
         return r + "\r\n";
       }(),
       431, 0},
      {"PUT", "PUT /media/files/clip.mp4 HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc", 405,
       0},
      {"POST elsewhere",
       "POST /media/files/clip.mp4 HTTP/1.1\r\nHost: x\r\n"
       "Transfer-Encoding: chunked\r\n\r\n" +
           Chunked(std::string(3 << 20, 'z'), 65536),
       404, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RawConnection connection(port_);
    connection.SetSendBuffer(64 * 1024);
    // Sent from a thread of its own: the server may answer and close before
    // reading everything, and the reply must be readable meanwhile.
    std::thread sender([&] { connection.Send(c.request); });
    const auto t0 = Clock::now();
    const auto reply = connection.ReadReply(10s * kSlowBuild);
    ::shutdown(connection.fd(), SHUT_RDWR);
    sender.join();
    ASSERT_TRUE(reply) << "no reply";
    EXPECT_EQ(reply->status, c.status) << reply->body.substr(0, 200);
    if (c.status == 200) {
      EXPECT_EQ(reply->code(), c.code) << reply->body.substr(0, 200);
    }
    EXPECT_LT(SecondsSince(t0), 5.0 * kSlowBuild);
  }
  {
    SCOPED_TRACE("50 MB chunked: refused without reading it all");
    RawConnection connection(port_);
    connection.SetSendBuffer(64 * 1024);
    std::atomic<size_t> sent{0};
    std::atomic<bool> refused{false};
    std::thread sender([&] {
      connection.Send("POST " + path +
                      " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
      const std::string chunk = Chunked(std::string(65536, 'z'), 65536);
      const std::string piece = chunk.substr(0, chunk.size() - 5);  // without the last chunk
      while (!refused && sent < 50000000 && connection.Send(piece)) sent += piece.size();
    });
    const auto reply = connection.ReadReply(10s);
    refused = true;
    ::shutdown(connection.fd(), SHUT_RDWR);
    sender.join();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 413);
    EXPECT_LT(sent.load(), 16u << 20) << "the server stopped reading near the limit";
  }
  EXPECT_TRUE(server_->Alive());
}

TEST_F(HostileClientTest, ASecondServerOnABusyPortRefusesToStart) {
  StartServer();
  const std::filesystem::path other = dir_ / "other";
  const ProgramResult second =
      RunServerProgram({"serve", "--data", other.string(), "--port", std::to_string(port_)}, 10s);
  EXPECT_NE(second.exitCode, 0) << "it exits, with a failure status";
  EXPECT_EQ(second.out.find("listening"), std::string::npos);
  EXPECT_NE(second.err.find("already in use"), std::string::npos) << second.err;
  EXPECT_EQ(std::count(second.err.begin(), second.err.end(), '\n'), 1) << second.err;
  // Every request still reaches the one server and its folder.
  int served = 0;
  for (int i = 0; i < 20; ++i) {
    RawConnection c(port_);
    c.Send("GET /media/files/clip.mp4 HTTP/1.1\r\nHost: x\r\nRange: bytes=0-9\r\n\r\n");
    const auto reply = c.ReadReply(5s);
    served += reply && reply->status == 206 ? 1 : 0;
  }
  EXPECT_EQ(served, 20);
}

TEST_F(HostileClientTest, RangesFollowRfc9110) {
  StartServer();
  std::ifstream in(dir_ / "data/media/files/clip.mp4", std::ios::binary);
  const std::string whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_EQ(whole.size(), kClipBytes);
  struct Case {
    const char* name;
    std::string headers;  // header lines, each ending in CRLF
    int status;
    size_t first, length;  // expected bytes, when not 416
    std::string contentRange;
  };
  auto range = [](const std::string& value) { return "Range: " + value + "\r\n"; };
  const std::vector<Case> cases = {
      {"first ten", range("bytes=0-9"), 206, 0, 10, "bytes 0-9/300000"},
      {"end past the size, clamped", range("bytes=299990-400000"), 206, 299990, 10,
       "bytes 299990-299999/300000"},
      {"end 2^64 - 1, clamped", range("bytes=0-18446744073709551615"), 206, 0, kClipBytes,
       "bytes 0-299999/300000"},
      {"end past 2^64, clamped", range("bytes=10-99999999999999999999999"), 206, 10,
       kClipBytes - 10, "bytes 10-299999/300000"},
      {"suffix 2^64 - 1: the whole file", range("bytes=-18446744073709551615"), 206, 0, kClipBytes,
       "bytes 0-299999/300000"},
      {"suffix one longer than the file", range("bytes=-300001"), 206, 0, kClipBytes,
       "bytes 0-299999/300000"},
      {"suffix", range("bytes=-5"), 206, 299995, 5, "bytes 299995-299999/300000"},
      {"unit in capitals", range("BYTES=0-0"), 206, 0, 1, "bytes 0-0/300000"},
      {"white space around the set", range("bytes= 0-9 "), 206, 0, 10, "bytes 0-9/300000"},
      {"white space inside a range: ignored", range("bytes= 0 - 9 "), 200, 0, kClipBytes, ""},
      {"last before first: ignored", range("bytes=9-0"), 200, 0, kClipBytes, ""},
      {"not a number: ignored", range("bytes=abc"), 200, 0, kClipBytes, ""},
      {"no range at all: ignored", range("bytes="), 200, 0, kClipBytes, ""},
      {"another unit: ignored", range("pages=0-9"), 200, 0, kClipBytes, ""},
      {"negative start: ignored", range("bytes=--5"), 200, 0, kClipBytes, ""},
      {"two ranges: the whole file", range("bytes=0-9,20-29"), 200, 0, kClipBytes, ""},
      {"two Range fields: ignored", range("bytes=0-9") + range("bytes=5-9"), 200, 0, kClipBytes,
       ""},
      {"start past the end", range("bytes=300000-"), 416, 0, 0, "bytes */300000"},
      {"every range past the end", range("bytes=300000-,400000-500000"), 416, 0, 0,
       "bytes */300000"},
      {"empty suffix", range("bytes=-0"), 416, 0, 0, "bytes */300000"},
  };
  RawConnection c(port_);  // one keep-alive connection for the whole table
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    ASSERT_TRUE(c.Send("GET /media/files/clip.mp4 HTTP/1.1\r\nHost: x\r\n" + t.headers + "\r\n"));
    const auto reply = c.ReadReply(5s);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, t.status);
    EXPECT_EQ(reply->header("Content-Range"), t.contentRange);
    if (t.status != 416) {
      EXPECT_TRUE(reply->body == whole.substr(t.first, t.length));
    }
  }
}

TEST_F(HostileClientTest, OnlyAFeedsPublishersPublishIntoIt) {
  StartServer();
  ASSERT_EQ(bob_.Call(port_, "subscribe", {{"feed", "news"}}).code(), 0);
  ASSERT_EQ(bob_.Call(port_, "subscribe", {{"feed", "sports"}}).code(), 0);
  ASSERT_EQ(eve_.Call(port_, "validate", json::object()).code(), 0);

  struct Case {
    const char* name;
    std::vector<std::string> admin;  // run first, when not empty
    const Device* sender;
    json item;
    int code;
    bool reachesBob;  // in bob's catalog, with a push notice
  };
  auto item = [](const std::string& uuid, const std::string& feed) {
    json i = {{"uuid", uuid}, {"title", uuid}, {"downloadURL", "http://elsewhere.test/x.mp4"}};
    if (!feed.empty()) i["feed"] = feed;
    return i;
  };
  const std::vector<Case> cases = {
      {"eve into a shared feed", {}, &eve_, item("eve-1", "news"), 6, false},
      {"alice publishes news", {}, &alice_, item("alice-1", "news"), 0, true},
      {"alice into sports, not hers", {}, &alice_, item("alice-2", "sports"), 6, false},
      {"alice into a feed that is not subscribable",
       {},
       &alice_,
       item("alice-3", "archive"),
       3,
       false},
      {"alice into an unknown feed", {}, &alice_, item("alice-4", "weather"), 2, false},
      {"eve, a direct item naming bob",
       {},
       &eve_,
       [&] {
         json i = item("eve-2", "");
         i["user"] = "bob";
         return i;
       }(),
       0,
       false},
      {"eve granted sports",
       {"grant-publisher", "--user", "eve", "--feed", "sports"},
       &eve_,
       item("eve-3", "sports"),
       0,
       true},
      {"eve revoked",
       {"revoke-publisher", "--user", "eve", "--feed", "sports"},
       &eve_,
       item("eve-4", "sports"),
       6,
       false},
      {"ops granted every feed",
       {"grant-publisher", "--user", "ops", "--all-feeds"},
       &ops_,
       item("ops-1", "sports"),
       0,
       true},
      {"ops and a feed that is not subscribable", {}, &ops_, item("ops-2", "archive"), 3, false},
  };
  std::set<std::string> expectedBob = CatalogItems(bob_);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (!c.admin.empty()) {
      const ProgramResult admin = Admin(c.admin);
      ASSERT_EQ(admin.exitCode, 0) << admin.err;
    }
    const HttpReply reply = c.sender->Call(port_, "addItemAndNotifyDevice", {{"body", c.item}});
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.code(), c.code) << reply.body;
    if (c.code != 0) {
      EXPECT_NE(server_->Log().find("refused addItemAndNotifyDevice from " + c.sender->user + "/" +
                                    c.sender->id + ": item " + c.item["uuid"].get<std::string>()),
                std::string::npos)
          << "a log line names the refusal";
    }
    if (c.reachesBob)
      expectedBob.insert(c.item["feed"].get<std::string>() + "/" +
                         c.item["uuid"].get<std::string>());
  }
  EXPECT_EQ(CatalogItems(bob_), expectedBob);
  EXPECT_EQ(CatalogItems(eve_), (std::set<std::string>{"direct/eve-2"}))
      << "a direct item goes to the sender's own devices only";
  const ProgramResult pushes = Admin({"list-pushes", "--user", "bob", "--all"});
  ASSERT_EQ(pushes.exitCode, 0);
  std::set<std::string> pushed;
  std::istringstream lines(pushes.out);
  for (std::string line; std::getline(lines, line);) {
    pushed.insert(json::parse(line)["item"].get<std::string>());
  }
  EXPECT_EQ(pushed, (std::set<std::string>{"alice-1", "eve-3", "ops-1"}));
  const ProgramResult grants = Admin({"list-publishers", "--feed", "news"});
  EXPECT_EQ(grants.out,
            "{\"feed\":null,\"user\":\"ops\"}\n{\"feed\":\"news\",\"user\":\"alice\"}\n");
}

TEST_F(HostileClientTest, RepeatsPassForReadsAndAreRefusedForChanges) {
  StartServer();  // alice publishes "news" (the seed says so)
  struct Case {
    const char* endpoint;
    json members;
    int secondStatus;
  };
  const std::vector<Case> cases = {
      {"validate", json::object(), 200},
      {"subscriptions", json::object(), 200},
      {"catalog", {{"filter", {{"subscribed", true}}}}, 200},
      {"subscribe", {{"feed", "news"}}, 403},
      {"unsubscribe", {{"feed", "news"}}, 403},
      {"addItemAndNotifyDevice",
       {{"body", {{"uuid", "R-1"}, {"downloadURL", "http://cdn.test/r.mp4"}}}},
       403},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.endpoint);
    const std::string body = alice_.Body(c.members);
    const std::string request = alice_.Request(port_, c.endpoint, body);
    for (int attempt = 0; attempt < 2; ++attempt) {
      RawConnection connection(port_);
      ASSERT_TRUE(connection.Send(request));
      const auto reply = connection.ReadReply(5s);
      ASSERT_TRUE(reply);
      EXPECT_EQ(reply->status, attempt == 0 ? 200 : c.secondStatus);
      if (reply->status == 200) {
        EXPECT_EQ(reply->code(), 0) << reply->body;
      }
    }
  }
}

TEST_F(HostileClientTest, SoakGoodDevicesBesideSlowOversizedAndMalformedClients) {
  StartServer({"--header-timeout", "1", "--body-timeout", "1", "--keep-alive-timeout", "1"});
  std::atomic<bool> stop{false};
  std::atomic<int> goodRequests{0};
  std::atomic<int> hostileRequests{0};
  std::mutex mutex;
  std::vector<std::string> errors;
  std::vector<std::thread> threads;
  // Good devices: subscribe, sync and look up, each on a keep-alive connection,
  // reconnecting only when the server ends one.
  for (int d = 0; d < 6; ++d) {
    threads.emplace_back([&, d] {
      const Device device{d % 2 ? "alice" : "bob", d % 2 ? "alice-key" : "bob-key",
                          d % 2 ? "alice-secret" : "bob-secret", "soak-" + std::to_string(d)};
      std::unique_ptr<RawConnection> c;
      for (int i = 0; !stop; ++i) {
        const char* endpoint =
            i % 3 == 0 ? "subscribe" : (i % 3 == 1 ? "catalog" : "subscriptions");
        json members = {{"n", i}};
        if (i % 3 == 0) members["feed"] = i % 2 ? "news" : "sports";
        if (i % 3 == 1) members["filter"] = {{"subscribed", true}};
        if (!c || !c->connected() || c->ClosedWithin(0ms))
          c = std::make_unique<RawConnection>(port_);
        const auto reply = c->Send(device.Request(port_, endpoint, device.Body(members)))
                               ? c->ReadReply(5s)
                               : std::nullopt;
        if (!reply || reply->status != 200 || reply->code() != 0) {
          std::lock_guard lock(mutex);
          errors.push_back(device.id + " " + endpoint + ": " +
                           (reply ? std::to_string(reply->status) + " " + reply->body.substr(0, 100)
                                  : "no reply"));
          c.reset();
        } else {
          ++goodRequests;
          if (reply->header("Connection") == "close") c.reset();
        }
      }
    });
  }
  // Slow clients: trickle a head and reconnect when cut.
  threads.emplace_back([&] {
    std::vector<std::unique_ptr<RawConnection>> slow;
    while (!stop) {
      for (auto& c : slow) {
        if (c->ClosedWithin(0ms)) {
          c = std::make_unique<RawConnection>(port_, "127.0.0.9");
          ++hostileRequests;
        } else {
          c->Send("a");
        }
      }
      while (slow.size() < 40) {
        slow.push_back(std::make_unique<RawConnection>(port_, "127.0.0.9"));
        slow.back()->Send("GET /health HTTP/1.1\r\nX-Slow: ");
      }
      std::this_thread::sleep_for(100ms);
    }
  });
  // Oversized and malformed requests, one connection each.
  const std::string path = "/Subscriptions/client/catalog?sig=" + std::string(64, 'b');
  const std::vector<std::string> hostile = {
      "POST " + path + " HTTP/1.1\r\nHost: x\r\nContent-Length: 50000000\r\n\r\n",
      "POST " + path + " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" +
          Chunked(std::string(2 << 20, 'x'), 65536),
      "POST " + path + " HTTP/1.1\r\nHost: x\r\nContent-Length: 200004\r\n\r\n" +
          Nested(100000, "{}").substr(0, 200004),
      "GARBAGE\r\n\r\n",
      "GET /media/files/clip.mp4 HTTP/1.1\r\nHost: x\r\nRange: bytes=-\r\n\r\n",
      "POST " + path + " HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nnope!",
      "GET /media/../../etc/passwd HTTP/1.1\r\nHost: x\r\n\r\n",
  };
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (size_t i = static_cast<size_t>(t); !stop; i += 2) {
        RawConnection c(port_, "127.0.0.10");
        c.SetSendBuffer(64 * 1024);
        std::thread sender([&] { c.Send(hostile[i % hostile.size()]); });
        c.ReadReply(3s);
        ::shutdown(c.fd(), SHUT_RDWR);
        sender.join();
        ++hostileRequests;
      }
    });
  }
  std::this_thread::sleep_for(4s);
  stop = true;
  for (auto& t : threads) t.join();
  EXPECT_TRUE(errors.empty()) << errors.size() << " errors, first: " << errors.front();
  EXPECT_GT(goodRequests, 60);
  EXPECT_GT(hostileRequests, 40);
  ASSERT_TRUE(server_->Alive());
  EXPECT_EQ(bob_.Call(port_, "catalog", {{"filter", {{"subscribed", true}}}}).code(), 0);
  ASSERT_EQ(server_->Stop(), 0);
  server_.reset();
  sqlite3* db = nullptr;
  ASSERT_EQ(
      sqlite3_open_v2((dir_ / "data/server.sqlite").c_str(), &db, SQLITE_OPEN_READONLY, nullptr),
      SQLITE_OK);
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &st, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(st), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)), "ok");
  sqlite3_finalize(st);
  sqlite3_close(db);
}

}  // namespace
}  // namespace zolvani::refserver::testing
