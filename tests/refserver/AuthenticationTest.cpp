// Who gets in: the signature, key, account and freshness checks, replays, and
// request bodies that are not what the protocol describes.
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
