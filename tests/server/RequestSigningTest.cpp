// Request building and signing, checked from the server's side of the wire:
// every signature is recomputed from the recorded request.
#include <gtest/gtest.h>

#include "server/ProtocolTestSupport.h"
#include "server/RequestSigner.h"
#include "zolvani/subscription/Constants.h"

namespace zolvani::testing {
namespace {

TEST(RequestSigningTest, ValidateRequestIsSignedAndCarriesATypedHeader) {
  Loopback lb;
  lb.bed.engine->setDate(Date(1700000000.9));
  lb.bed.defaults->setString(kEngineManualDeviceUDIDKey, "MANUAL-UDID");
  lb.bed.defaults->setBool(kVerboseKeelhallLoggingKey, true);
  lb.bed.manager->updatePushToken(Value("tok-123"), nullptr);
  lb.bed.mainQueue->poll();
  lb.bed.settle();
  lb.bed.engine->clearLog();
  const std::size_t before = lb.server.requestCount();

  auto outcome = std::make_shared<Outcome>();
  lb.bed.manager->authenticateServerConfigurationOnComplete(lb.result(outcome));
  ASSERT_TRUE(lb.await(outcome));
  EXPECT_TRUE(outcome->success);

  auto requests = lb.server.requests();
  ASSERT_EQ(requests.size(), before + 1);
  const RecordedRequest& request = requests.back();
  EXPECT_EQ(request.path, "/Subscriptions/client/validate");
  expectSigned(request, lb.server.baseUrl(), "validate",
               "127.0.0.1:" + std::to_string(lb.server.port()));

  auto body = nlohmann::json::parse(request.body);
  const auto& header = body.at("request_header");
  EXPECT_EQ(header.size(), 4u);
  EXPECT_EQ(header.at("device_id"), "MANUAL-UDID");
  EXPECT_EQ(header.at("user_id"), "alice");
  EXPECT_TRUE(header.at("timestamp").is_number_integer());
  EXPECT_EQ(header.at("timestamp").get<std::int64_t>(), 1700000000);
  EXPECT_EQ(header.at("key"), opensslBase64(kPublicKey));
  EXPECT_EQ(body.at("push_registration"),
            (nlohmann::json{{"service", "apns"}, {"token", "tok-123"}}));

  // Verbose tracing shows the body and the final URL, never the secret.
  const std::string finalUrl = lb.server.baseUrl() + request.target;
  EXPECT_TRUE(lb.loggedLine("Using final request URL for catalog request: " + finalUrl, 4));
  EXPECT_EQ(lb.bed.engine->countLogged("Sending validate body to server: {"), 1u);
  EXPECT_EQ(lb.bed.engine->countLogged(kSecret), 0u);
  EXPECT_EQ(lb.bed.engine->countLogged(opensslBase64(kSecret)), 0u);
}

TEST(RequestSigningTest, TrailingSlashAndEmptyKeyAreSignedAsSent) {
  Loopback lb;
  lb.bed.engine->setCredentials(lb.server.baseUrl() + "/", "alice", kSecret, "");
  lb.bed.engine->setDeviceUUID("ENGINE-UDID");
  auto outcome = std::make_shared<Outcome>();
  lb.bed.manager->subscriptionsOnComplete(lb.lookup(outcome));
  ASSERT_TRUE(lb.await(outcome));
  auto requests = lb.server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].path, "//Subscriptions/client/subscriptions");
  expectSigned(requests[0], lb.server.baseUrl() + "/", "subscriptions",
               "127.0.0.1:" + std::to_string(lb.server.port()));
  auto header = nlohmann::json::parse(requests[0].body).at("request_header");
  EXPECT_EQ(header.at("key"), "");
  EXPECT_EQ(header.at("device_id"), "ENGINE-UDID");
  EXPECT_FALSE(nlohmann::json::parse(requests[0].body).contains("push_registration"));
}

TEST(RequestSigningTest, ThePathSentIsThePathSignedOrNothingIsSent) {
  struct Case {
    const char* basePath;  // appended to the loopback server's base URL
    bool sent;
  } cases[] = {
      {"/a/../b", true},    {"/./x", true},  {"/a/.", true},        {"/%C3%BC", true},
      {"/\xC3\xBC", false}, {"/a b", false}, {"/tab\there", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.basePath);
    Loopback lb;
    const std::string host = "127.0.0.1:" + std::to_string(lb.server.port());
    lb.bed.engine->setCredentials(lb.server.baseUrl() + c.basePath, "alice", kSecret, kPublicKey);
    auto outcome = std::make_shared<Outcome>();
    lb.bed.manager->subscriptionsOnComplete(lb.lookup(outcome));
    ASSERT_TRUE(lb.await(outcome));
    const auto requests = lb.server.requests();
    if (!c.sent) {
      EXPECT_TRUE(requests.empty());
      ASSERT_TRUE(outcome->error);
      EXPECT_EQ(outcome->error->domain, kCurlErrorDomain);
      continue;
    }
    ASSERT_EQ(requests.size(), 1u);
    // The server's view: the path exactly as it arrived, signed as such.
    const std::string& target = requests[0].target;
    EXPECT_EQ(target.substr(0, target.find('?')),
              std::string(c.basePath) + "/Subscriptions/client/subscriptions");
    expectSigned(requests[0], "http://" + host + c.basePath, "subscriptions", host);
  }
}

TEST(RequestSigningTest, HostHeaderDropsOnlyTheDefaultPorts) {
  struct Case {
    const char* url;
    const char* host;
  } cases[] = {
      {"http://example.test:8080/a", "example.test:8080"},
      {"http://example.test:80/a", "example.test"},
      {"https://example.test:80/a", "example.test"},
      {"http://example.test:443/a", "example.test"},
      {"https://example.test/a", "example.test"},
      {"http://10.0.0.1:1/", "10.0.0.1:1"},
  };
  for (const Case& c : cases) {
    auto parts = RequestSigner::parseUrl(c.url);
    ASSERT_TRUE(parts) << c.url;
    EXPECT_EQ(RequestSigner::hostHeader(*parts), c.host) << c.url;
  }
  EXPECT_FALSE(RequestSigner::parseUrl("not a url"));
  EXPECT_FALSE(RequestSigner::parseUrl(""));
}

TEST(RequestSigningTest, SignatureUsesUpperCaseMethodAndAddsToExistingHost) {
  RequestSigner signer([] { return std::string(kSecret); }, [] { return false; }, nullptr);
  HttpRequest request;
  request.url = "http://example.test:8080/Subscriptions/client/catalog";
  request.method = "post";
  request.body = R"({"a":1})";
  request.addHeader("Host", "earlier");
  signer.sign(request);

  EXPECT_EQ(request.header("Host"), "earlier,example.test:8080");
  const std::string toSign = std::string("POST\nexample.test:8080\n") +
                             "http://example.test:8080/Subscriptions/client/catalog\n" +
                             request.body + "\n" + opensslBase64(kSecret);
  EXPECT_EQ(request.url, "http://example.test:8080/Subscriptions/client/catalog?sig=" +
                             opensslHmacHex(kSecret, toSign));
}

}  // namespace
}  // namespace zolvani::testing
