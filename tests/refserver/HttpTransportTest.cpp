// The request path below the protocol: catalogs written while the store reads
// them (byte for byte the whole-object form), query plans of the statements a
// device's requests run, trusted proxies and the console's own listener.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "RefServerFixture.h"
#include "reference/server/protocol/CatalogBuilder.h"
#include "reference/server/store/sqlite/SqliteStore.h"

namespace zolvani::refserver::testing {
namespace {

using json = nlohmann::json;

std::filesystem::path TempDir(const char* what) {
  std::random_device rd;
  return std::filesystem::temp_directory_path() /
         (std::string("zsm-") + what + "-" + std::to_string(rd()) + "-" + std::to_string(rd()));
}

// The catalog text as CatalogWriter produces it while the store hands it over.
std::string Streamed(SqliteStore* store, const std::string& user, const std::string& device,
                     std::optional<int64_t> since, bool subscribedOnly, int64_t nowMs,
                     size_t* largestWrite = nullptr) {
  const CatalogBuilder builder("http://h:1");
  std::string text;
  CatalogWriter writer(builder, nowMs, [&](std::string_view bytes) {
    if (largestWrite != nullptr) *largestWrite = std::max(*largestWrite, bytes.size());
    text.append(bytes);
    return true;
  });
  Status s = store->StreamCatalog(user, device, since, subscribedOnly, &writer);
  if (s.ok()) s = writer.Finish();
  EXPECT_TRUE(s.ok()) << s.ToString();
  return text;
}

// The catalog text in its whole-object form.
std::string Whole(SqliteStore* store, const std::string& user, const std::string& device,
                  std::optional<int64_t> since, bool subscribedOnly, int64_t nowMs) {
  CatalogSnapshot snapshot;
  EXPECT_TRUE(store->ReadCatalog(user, device, since, subscribedOnly, &snapshot).ok());
  json body = CatalogBuilder("http://h:1").Build(snapshot, nowMs);
  body["response_header"] = {{"response_code", 0}, {"response_string", "OK"}};
  return body.dump();
}

class StoreCatalogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir("catalog");
    ASSERT_TRUE(SqliteStore::Open(dir_, &store_).ok());
  }
  void TearDown() override {
    store_.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::filesystem::path dir_;
  std::unique_ptr<SqliteStore> store_;
};

TEST_F(StoreCatalogTest, StreamedCatalogIsTheWholeObjectByteForByte) {
  ASSERT_TRUE(store_->AddAccount({"ann", "k", "s"}).ok());
  ASSERT_TRUE(store_->AddAccount({"ben", "k", "s"}).ok());
  // "b" stays empty; "q\"uote" needs escaping; "z" is not subscribable.
  for (const char* id : {"a", "b", "c", "q\"uote", "z"}) {
    ASSERT_TRUE(store_->AddFeed({id, std::string("Title ") + id, id[0] != 'z', {4, true, 0}}).ok());
  }
  int n = 0;
  for (const char* feed : {"a", "c", "q\"uote", "z", "a", "c"}) {
    Item item;
    item.uuid = "item-" + std::to_string(n);
    item.feed = feed;
    item.createdMs = 1000 * (n % 3) + 5;  // equal times: ordered by uuid
    item.mediaPath = n % 2 == 0 ? "files/clip " + std::to_string(n) + ".mp4" : "";
    item.metadata = {{"title", "T\u00e9 " + std::to_string(n)}, {"mediaType", n % 4}};
    ASSERT_TRUE(store_->AddItem(item, 1).ok());
    ++n;
  }
  for (int i = 0; i < 3; ++i) {
    Item direct;
    direct.uuid = "direct-" + std::to_string(i);
    direct.user = "ann";
    direct.createdMs = 2000 + i;
    ASSERT_TRUE(store_->AddItem(direct, 1).ok());
  }
  for (const char* feed : {"c", "a", "b", "q\"uote"})
    ASSERT_TRUE(store_->Subscribe("ann", "d1", feed).ok());
  ASSERT_TRUE(store_->SetRules("ann", "d1", "c", {2, false, 500}).ok());

  struct Case {
    const char* user;
    const char* device;
    std::optional<int64_t> since;
    bool subscribedOnly;
  };
  const std::vector<Case> cases = {
      {"ann", "d1", std::nullopt, true}, {"ann", "d1", std::nullopt, false},
      {"ann", "d1", 1004, true},         {"ann", "d1", 1004, false},
      {"ann", "d1", 999999, true},       {"ben", "d9", std::nullopt, true},
      {"ben", "d9", std::nullopt, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.user) + " since " + (c.since ? std::to_string(*c.since) : "-") +
                 (c.subscribedOnly ? " subscribed" : " all"));
    const std::string streamed =
        Streamed(store_.get(), c.user, c.device, c.since, c.subscribedOnly, 5000);
    EXPECT_EQ(streamed, Whole(store_.get(), c.user, c.device, c.since, c.subscribedOnly, 5000));
    EXPECT_TRUE(json::accept(streamed));
  }
}

TEST_F(StoreCatalogTest, ALargeCatalogIsHandedOverAnItemAtATime) {
  ASSERT_TRUE(store_->AddAccount({"ann", "k", "s"}).ok());
  ASSERT_TRUE(store_->AddFeed({"f", "F", true, {4, true, 0}}).ok());
  ASSERT_TRUE(store_->Subscribe("ann", "d1", "f").ok());
  for (int i = 0; i < 500; ++i) {
    Item item;
    item.uuid = "i" + std::to_string(i);
    item.feed = "f";
    item.createdMs = i;
    item.metadata = {{"desc", std::string(400, 'x')}};
    ASSERT_TRUE(store_->AddItem(item, 1).ok());
  }
  size_t largest = 0;
  const std::string text = Streamed(store_.get(), "ann", "d1", std::nullopt, true, 1000, &largest);
  EXPECT_GT(text.size(), 200000u);
  EXPECT_LT(largest, 1000u) << "no write holds more than an item";
  EXPECT_EQ(json::parse(text)["collections"][0]["contentItems"].size(), 500u);
}

TEST_F(StoreCatalogTest, AFailedWriteEndsTheRead) {
  ASSERT_TRUE(store_->AddAccount({"ann", "k", "s"}).ok());
  ASSERT_TRUE(store_->AddFeed({"f", "F", true, {4, true, 0}}).ok());
  ASSERT_TRUE(store_->Subscribe("ann", "d1", "f").ok());
  for (int i = 0; i < 50; ++i) {
    Item item;
    item.uuid = "i" + std::to_string(i);
    item.feed = "f";
    item.createdMs = i;
    ASSERT_TRUE(store_->AddItem(item, 1).ok());
  }
  const CatalogBuilder builder("http://h:1");
  int writes = 0;
  CatalogWriter writer(builder, 1, [&](std::string_view) { return ++writes < 5; });
  EXPECT_FALSE(store_->StreamCatalog("ann", "d1", std::nullopt, true, &writer).ok());
  EXPECT_EQ(writes, 5) << "the store stops at the first refused write";
  // The reading connection went back: reads and writes still work.
  Account account;
  EXPECT_TRUE(store_->FindAccount("ann", &account).ok());
  EXPECT_TRUE(store_->Subscribe("ann", "d2", "f").ok());
}

TEST_F(StoreCatalogTest, RequestPathStatementsSearchIndexesAndNeverSort) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_ / "server.sqlite").c_str(), &db), SQLITE_OK);
  for (const char* sql : SqliteStore::RequestPathStatements()) {
    SCOPED_TRACE(sql);
    sqlite3_stmt* st = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, (std::string("EXPLAIN QUERY PLAN ") + sql).c_str(), -1, &st,
                                 nullptr),
              SQLITE_OK)
        << sqlite3_errmsg(db);
    std::string plan;
    while (sqlite3_step(st) == SQLITE_ROW) {
      plan += reinterpret_cast<const char*>(sqlite3_column_text(st, 3));
      plan += "\n";
    }
    sqlite3_finalize(st);
    SCOPED_TRACE(plan);
    EXPECT_EQ(plan.find("TEMP B-TREE"), std::string::npos) << "no sort";
    // Only the every-feed catalog walks a table: the feeds, which it lists whole.
    if (std::string(sql).find("FROM feeds ORDER BY id") == std::string::npos) {
      EXPECT_EQ(plan.find("SCAN"), std::string::npos);
    }
  }
  sqlite3_close(db);
}

// --- over HTTP ---------------------------------------------------------------------

// A connection from `from` (a loopback address) that sends `request` and reads until
// the server closes or `timeout` passes.
std::string Exchange(int port, const std::string& from, const std::string& request,
                     std::chrono::milliseconds timeout = std::chrono::milliseconds(3000)) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  ::inet_pton(AF_INET, from.c_str(), &local.sin_addr);
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<uint16_t>(port));
  ::inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
  std::string got;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0 &&
      ::connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    char buffer[4096];
    while (std::chrono::steady_clock::now() < until) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
      if (n <= 0) break;
      got.append(buffer, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  return got;
}

class StreamedCatalogTest : public RefServerFixture {};

TEST_F(StreamedCatalogTest, ACatalogLongerThanABufferArrivesChunkedCompleteAndValid) {
  for (int i = 0; i < 400; ++i) {
    Item item;
    item.uuid = "n" + std::to_string(i);
    item.feed = "news";
    item.createdMs = kNowMs - 100000 + i;
    item.metadata = {{"title", "Item " + std::to_string(i)}, {"desc", std::string(300, 'd')}};
    ASSERT_TRUE(server_->store()->AddItem(item, kNowMs).ok());
  }
  SignedRequest subscribe;
  subscribe.endpoint = "subscribe";
  subscribe.body = {{"feed", "news"}};
  ASSERT_EQ(Send(subscribe).code(), 0);
  SignedRequest catalog;
  catalog.endpoint = "catalog";
  catalog.body = {{"filter", {{"subscribed", true}}}};
  for (int round = 0; round < 2; ++round) {
    const RawReply whole = Send(catalog);
    ASSERT_EQ(whole.status, 200);
    ASSERT_EQ(whole.code(), 0) << whole.body.substr(0, 200);
    EXPECT_GT(whole.body.size(), 100000u);
    ASSERT_EQ(whole.json["collections"].size(), 1u);
    EXPECT_EQ(whole.json["collections"][0]["contentItems"].size(), 400u);
    EXPECT_EQ(whole.json["collections"][0]["contentItems"][399]["remoteUUID"], "n399");
  }
  // On the wire: the long one chunked, a short one (past every item) with a length.
  auto raw = [&](const SignedRequest& r) {
    const std::string body = BodyText(r);
    return Exchange(server_->port(), "127.0.0.1",
                    "POST /Subscriptions/client/catalog?sig=" + Signature(r, body) +
                        " HTTP/1.1\r\nHost: " + HostHeader() + "\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
  };
  const std::string chunked = raw(catalog);
  const std::string chunkedHead = chunked.substr(0, chunked.find("\r\n\r\n"));
  EXPECT_NE(chunkedHead.find("Transfer-Encoding: chunked"), std::string::npos) << chunkedHead;
  EXPECT_EQ(chunked.substr(chunked.size() - 5), "0\r\n\r\n");
  catalog.body = {{"filter", {{"subscribed", true}, {"since", kNowMs}}}};
  const RawReply small = Send(catalog);
  ASSERT_EQ(small.code(), 0);
  EXPECT_EQ(small.json["collections"][0]["contentItems"].size(), 0u);
  const std::string whole = raw(catalog);
  const std::string wholeHead = whole.substr(0, whole.find("\r\n\r\n"));
  EXPECT_NE(wholeHead.find("Content-Length: "), std::string::npos) << wholeHead;
  EXPECT_EQ(wholeHead.find("chunked"), std::string::npos) << wholeHead;
}

int StatusOf(const std::string& reply) {
  return reply.rfind("HTTP/1.1 ", 0) == 0 ? std::atoi(reply.c_str() + 9) : 0;
}

class TransportTest : public ::testing::Test {
 protected:
  void Start(ServerOptions options) {
    dir_ = TempDir("transport");
    options.dataDir = dir_;
    ASSERT_TRUE(ContentServer::Create(options, &server_).ok());
    ASSERT_TRUE(server_->Start().ok());
  }
  void TearDown() override {
    if (server_) server_->Stop();
    server_.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::filesystem::path dir_;
  std::unique_ptr<ContentServer> server_;
};

TEST_F(TransportTest, ATrustedProxyIsExemptFromThePerAddressCapAndNamesTheClient) {
  ServerOptions options;
  options.limits.maxConnectionsPerAddress = 2;
  options.trustedProxies = {"127.0.0.1"};
  Start(options);
  const int port = server_->port();
  // Held open: five from the proxy, two from another address.
  std::vector<std::thread> held;
  std::vector<std::string> replies(8);
  const std::string slow = "GET /health HTTP/1.1\r\nHost: x\r\nX-Slow: ";  // never finished
  for (int i = 0; i < 7; ++i) {
    held.emplace_back([&, i] {
      (void)Exchange(port, i < 5 ? "127.0.0.1" : "127.0.0.2", slow,
                     std::chrono::milliseconds(1500));
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::string health = "GET /health HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(StatusOf(Exchange(port, "127.0.0.1", health)), 200) << "the proxy is never capped";
  EXPECT_EQ(StatusOf(Exchange(port, "127.0.0.2", health)), 503) << "others are";
  // Through the proxy the console is refused, whatever client it names; straight
  // from a loopback address that is not the proxy it answers (401: not signed in).
  const std::string session =
      "GET /admin/api/session HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
      "X-Forwarded-For: 127.0.0.1\r\n\r\n";
  EXPECT_EQ(StatusOf(Exchange(port, "127.0.0.1", session)), 403);
  EXPECT_EQ(StatusOf(Exchange(port, "127.0.0.3", session)), 401);
  for (auto& t : held) t.join();
}

TEST_F(TransportTest, TheConsoleOnItsOwnListenerIsUnknownOnThePublicOne) {
  ServerOptions options;
  options.consolePort = 0;
  Start(options);
  ASSERT_GT(server_->consolePort(), 0);
  ASSERT_NE(server_->consolePort(), server_->port());
  const std::string page = "GET /admin/ HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  const std::string health = "GET /health HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(StatusOf(Exchange(server_->port(), "127.0.0.1", page)), 404);
  EXPECT_EQ(StatusOf(Exchange(server_->consolePort(), "127.0.0.1", page)), 200);
  EXPECT_EQ(StatusOf(Exchange(server_->port(), "127.0.0.1", health)), 200);
}

}  // namespace
}  // namespace zolvani::refserver::testing
