// Who gets in: the signature, key, account and freshness checks, replays, and
// request bodies that are not what the protocol describes.
#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

#include "RefServerFixture.h"

namespace zolvani::refserver::testing {
namespace {

class AuthenticationTest : public RefServerFixture {};

TEST_F(AuthenticationTest, SignedRequestsAreJudgedByKeySecretClockAndUrl) {
  struct Case {
    const char* name;
    void (*change)(SignedRequest&);
    int status;
    int code;  // response_code when status is 200
  };
  const std::vector<Case> cases = {
      {"good signature", [](SignedRequest&) {}, 200, 0},
      {"signed with another secret", [](SignedRequest& r) { r.secret = "not-alice-secret"; }, 403,
       0},
      {"unknown account", [](SignedRequest& r) { r.user = "mallory"; }, 403, 0},
      {"key of another account", [](SignedRequest& r) { r.key = "bob-key"; }, 403, 0},
      {"bob signs as bob",
       [](SignedRequest& r) {
         r.user = "bob";
         r.key = "bob-key";
         r.secret = "bob-secret";
       },
       200, 0},
      {"bob's secret for alice", [](SignedRequest& r) { r.secret = "bob-secret"; }, 403, 0},
      {"timestamp 301 s old", [](SignedRequest& r) { r.timestampOffset = -301; }, 403, 0},
      {"timestamp 301 s ahead", [](SignedRequest& r) { r.timestampOffset = 301; }, 403, 0},
      {"timestamp 299 s old", [](SignedRequest& r) { r.timestampOffset = -299; }, 200, 0},
      {"timestamp 299 s ahead", [](SignedRequest& r) { r.timestampOffset = 299; }, 200, 0},
      // Behind a proxy on a default port the Host carries no port; the URL the
      // device signed may or may not spell it.
      {"default port left out", [](SignedRequest& r) { r.hostHeader = "media.example"; }, 200, 0},
      {"default port written",
       [](SignedRequest& r) {
         r.hostHeader = "media.example";
         r.signedUrlBase = "http://media.example:80";
       },
       200, 0},
      {"port missing from signed host",
       [](SignedRequest& r) { r.signedUrlBase = "http://127.0.0.1"; }, 403, 0},
      {"URL of another server signed",
       [](SignedRequest& r) { r.signedUrlBase = "http://127.0.0.1:1"; }, 403, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SignedRequest r;
    r.body = {{"case", c.name}};  // distinct bodies, so no case replays another
    c.change(r);
    const RawReply reply = Send(r);
    EXPECT_EQ(reply.status, c.status);
    if (c.status == 200) {
      EXPECT_EQ(reply.code(), c.code) << reply.body;
      EXPECT_EQ(reply.json["response_header"]["response_string"], "OK");
    }
  }
}

TEST_F(AuthenticationTest, TamperedOrMissingSignaturesAreRefused) {
  SignedRequest r;
  const std::string body = BodyText(r);
  const std::string sig = Signature(r, body);
  std::string flipped = sig;
  flipped[10] = flipped[10] == '0' ? '1' : '0';
  std::string upper = sig;
  for (auto& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  const std::string path = "/Subscriptions/client/validate";
  struct Case {
    const char* name;
    std::string target;
    std::string body;
  };
  const std::vector<Case> cases = {
      {"no signature", path, body},
      {"empty signature", path + "?sig=", body},
      {"one digit changed", path + "?sig=" + flipped, body},
      {"upper-case hex", path + "?sig=" + upper, body},
      {"truncated", path + "?sig=" + sig.substr(0, 63), body},
      {"ampersand form", path + "?x=1&sig=" + sig, body},
      {"body changed after signing", path + "?sig=" + sig, body + " "},
      {"signed for another endpoint", "/Subscriptions/client/subscriptions?sig=" + sig, body},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Post(c.target, c.body).status, 403);
  }
  // The untouched request still works: nothing above consumed it.
  EXPECT_EQ(Post(path + "?sig=" + sig, body).code(), 0);
}

TEST_F(AuthenticationTest, ReplayedRequestIsRefusedUntilItsTimestampIsStale) {
  // A request that changes state: its signature is spent once accepted.
  SignedRequest r;
  r.endpoint = "subscribe";
  r.body = {{"feed", "news"}};
  const std::string body = BodyText(r);
  const std::string target = "/Subscriptions/client/subscribe?sig=" + Signature(r, body);
  EXPECT_EQ(Post(target, body).status, 200);
  EXPECT_EQ(Post(target, body).status, 403);
  nowMs_ += 200 * 1000;
  EXPECT_EQ(Post(target, body).status, 403) << "still inside the window: a replay";
  nowMs_ += 200 * 1000;
  EXPECT_EQ(Post(target, body).status, 403) << "outside the window: stale";
  // A fresh request from the same device is fine.
  EXPECT_EQ(Send(r).status, 200);
}

// Runs `sql` on the server's database through a connection of its own, as another
// process would.
void ExecOnDatabase(const std::filesystem::path& dir, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir / "server.sqlite").c_str(), &db), SQLITE_OK);
  sqlite3_busy_timeout(db, 5000);
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
      << (error != nullptr ? error : "");
  sqlite3_free(error);
  sqlite3_close(db);
}

TEST_F(AuthenticationTest, AChangeThatFailsLeavesItsSignatureForTheSameRequestAgain) {
  // The signature is taken in the change's own transaction: when the change is
  // refused or fails, the device may send the very same bytes again once the cause
  // is gone, and only a change that took effect spends its signature.
  struct Case {
    const char* name;
    std::string endpoint;
    nlohmann::json body;
    std::function<void()> fault;  // before the first attempt
    int status;                   // of the first attempt
    int code;                     // its response_code when status is 200
    std::function<void()> fix;
  };
  Store* store = server_->store();
  const std::vector<Case> cases = {
      {"subscribe to a feed not yet made",
       "subscribe",
       {{"feed", "later"}},
       [] {},
       200,
       2,
       [&] {
         ASSERT_TRUE(store->AddFeed({"later", "Later", true, {}}).ok());
       }},
      {"publish before the grant",
       "addItemAndNotifyDevice",
       {{"body", {{"uuid", "u-grant"}, {"feed", "news"}, {"downloadURL", "http://x/a.mp4"}}}},
       [] {},
       200,
       6,
       [&] { ASSERT_TRUE(store->GrantPublisher("news", "alice").ok()); }},
      {"subscribe while writes fail",
       "subscribe",
       {{"feed", "sports"}},
       [&] {
         ExecOnDatabase(dir_,
                        "CREATE TRIGGER fault BEFORE INSERT ON subscriptions "
                        "BEGIN SELECT RAISE(ABORT, 'injected fault'); END");
       },
       500,
       500,
       [&] { ExecOnDatabase(dir_, "DROP TRIGGER fault"); }},
      {"unsubscribe while writes fail",
       "unsubscribe",
       {{"feed", "sports"}},
       [&] {
         ExecOnDatabase(dir_,
                        "CREATE TRIGGER fault BEFORE DELETE ON subscriptions "
                        "BEGIN SELECT RAISE(ABORT, 'injected fault'); END");
       },
       500,
       500,
       [&] { ExecOnDatabase(dir_, "DROP TRIGGER fault"); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    nowMs_ += 1000;  // a new second: no case shares another's signature
    SignedRequest r;
    r.endpoint = c.endpoint;
    r.body = c.body;
    const std::string body = BodyText(r);
    const std::string target = "/Subscriptions/client/" + c.endpoint + "?sig=" + Signature(r, body);
    c.fault();
    const RawReply first = Post(target, body);
    EXPECT_EQ(first.status, c.status) << first.body;
    EXPECT_EQ(first.code(), c.code) << first.body;
    c.fix();
    const RawReply again = Post(target, body);
    EXPECT_EQ(again.status, 200) << again.body;
    EXPECT_EQ(again.code(), 0) << again.body;
    EXPECT_EQ(Post(target, body).status, 403) << "now it took effect: a replay";
  }
  std::vector<std::string> feeds;
  ASSERT_TRUE(store->Subscriptions("alice", "device-1", &feeds).ok());
  EXPECT_EQ(feeds, std::vector<std::string>{"later"});
}

TEST_F(AuthenticationTest, AReplaySentToAnotherServerOnTheSameStoreIsRefused) {
  // Servers behind one balancer share the store, and so the signatures it took.
  ServerOptions options;
  options.dataDir = dir_;
  options.threads = 2;
  options.console = false;
  options.clockMs = [this] { return nowMs_.load(); };
  std::unique_ptr<ContentServer> second;
  ASSERT_TRUE(ContentServer::Create(options, &second).ok());
  ASSERT_TRUE(second->Start().ok());
  SignedRequest r;
  r.endpoint = "subscribe";
  r.body = {{"feed", "news"}};
  const std::string body = BodyText(r);
  const std::string target = "/Subscriptions/client/subscribe?sig=" + Signature(r, body);
  // The balancer keeps the Host the device signed.
  const httplib::Headers headers = {{"Host", HostHeader()}};
  ASSERT_EQ(Post(target, body).code(), 0);
  httplib::Client client("127.0.0.1", second->port());
  auto replay = client.Post(target.c_str(), headers, body, "application/json");
  ASSERT_TRUE(replay);
  EXPECT_EQ(replay->status, 403) << replay->body;
  // A read-only request is answered by either, however often it is repeated.
  r.endpoint = "subscriptions";
  const std::string read = BodyText(r);
  const std::string readTarget = "/Subscriptions/client/subscriptions?sig=" + Signature(r, read);
  EXPECT_EQ(Post(readTarget, read).code(), 0);
  auto again = client.Post(readTarget.c_str(), headers, read, "application/json");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->status, 200);
  second->Stop();
}

TEST_F(AuthenticationTest, RepeatedReadOnlyRequestsAreAnsweredEachTime) {
  // Byte-identical reads in one second cannot be told from a replay; they change
  // nothing, so each is answered.
  for (const char* endpoint : {"validate", "subscriptions", "catalog"}) {
    SCOPED_TRACE(endpoint);
    SignedRequest r;
    r.endpoint = endpoint;
    const std::string body = BodyText(r);
    const std::string target =
        std::string("/Subscriptions/client/") + endpoint + "?sig=" + Signature(r, body);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Post(target, body).code(), 0);
  }
}

TEST_F(AuthenticationTest, HostileBodiesGetACleanReplyAndTheServerKeepsServing) {
  SignedRequest r;
  struct Case {
    const char* name;
    std::string endpoint;
    std::string body;  // sent signed exactly as written
    int status;
    int code;
  };
  const std::string header = [&] {
    const auto parsed = nlohmann::json::parse(BodyText(r));
    return parsed["request_header"].dump();
  }();
  auto with = [&](const std::string& members) {
    return "{\"request_header\":" + header + (members.empty() ? "" : "," + members) + "}";
  };
  std::string deep(200000, '[');
  deep += std::string(200000, ']');
  const std::vector<Case> cases = {
      {"not JSON", "validate", "hello", 200, 1},
      {"truncated JSON", "validate", with("").substr(0, 30), 200, 1},
      {"JSON array", "validate", "[1,2,3]", 200, 1},
      {"header is a string", "validate", "{\"request_header\":\"x\"}", 200, 1},
      {"timestamp as text", "validate",
       "{\"request_header\":{\"device_id\":\"d\",\"user_id\":\"alice\",\"timestamp\":\"1\","
       "\"key\":\"x\"}}",
       200, 1},
      {"huge timestamp", "validate",
       "{\"request_header\":{\"device_id\":\"d\",\"user_id\":\"alice\","
       "\"timestamp\":99999999999999999999999999,\"key\":\"" +
           Base64("alice-key") + "\"}}",
       200, 1},
      {"overflowing float", "validate", "{\"x\":1e999}", 200, 1},
      {"deep nesting", "validate", deep, 200, 1},
      {"feed is a number", "subscribe", with("\"feed\":42"), 200, 4},
      {"feed missing", "subscribe", with(""), 200, 4},
      {"push registration wrong", "validate", with("\"push_registration\":[1]"), 200, 4},
      {"since huge", "catalog", with("\"filter\":{\"since\":99999999999999999999999}"), 200, 4},
      {"since as text", "catalog", with("\"filter\":{\"since\":\"yesterday\"}"), 200, 4},
      {"since as float", "catalog", with("\"filter\":{\"since\":1.5}"), 200, 4},
      {"subscribed as text", "catalog", with("\"filter\":{\"subscribed\":\"yes\"}"), 200, 4},
      {"filter is a list", "catalog", with("\"filter\":[]"), 200, 4},
      {"item body missing", "addItemAndNotifyDevice", with(""), 200, 4},
      {"item media type 99", "addItemAndNotifyDevice",
       with("\"body\":{\"uuid\":\"u-99\",\"downloadURL\":\"http://x/a.mp4\",\"contentType\":99}"),
       200, 4},
      {"item without URL", "addItemAndNotifyDevice", with("\"body\":{\"uuid\":\"u-1\"}"), 200, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SignedRequest sr = r;
    sr.endpoint = c.endpoint;
    const RawReply reply =
        Post("/Subscriptions/client/" + c.endpoint + "?sig=" + Signature(sr, c.body), c.body);
    EXPECT_EQ(reply.status, c.status);
    EXPECT_EQ(reply.code(), c.code) << reply.body.substr(0, 200);
    EXPECT_FALSE(reply.json["response_header"]["response_string"].get<std::string>().empty());
  }
  EXPECT_EQ(
      Post("/Subscriptions/client/validate?sig=" + std::string(64, 'a'), std::string(2 << 20, ' '))
          .status,
      413);
  EXPECT_EQ(Post("/Subscriptions/client/nosuch?sig=" + std::string(64, 'a'), "{}").status, 404);
  EXPECT_EQ(Send(r).code(), 0) << "the server still answers";
}

}  // namespace
}  // namespace zolvani::refserver::testing
