// How every endpoint judges replies: one table of server behaviours run
// against each endpoint over real HTTP, the lenient reading of wrongly typed
// replies, the time-out, and the offline and missing-header refusals.
#include <curl/curl.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "server/ProtocolTestSupport.h"
#include "server/ReplyJudge.h"

namespace zolvani::testing {
namespace {

using std::chrono::milliseconds;

enum class Behaviour {
  kTransport,
  kNoResponse,
  kOk,
  kServerCode,
  kEmpty,
  kNotJson,
  k403,
  k404,
  k401,
  k500,
  kRedirect
};

struct EndpointCase {
  const char* name;
  bool validate;  // validate rules rather than endpoint rules
  bool hasCompletion;
  // The contract's texts, written out here independently of the library.
  const char* transport;
  const char* serverError;  // {} text, {} code
  const char* success;
  const char* unexpected;
  std::function<void(Loopback&, std::shared_ptr<Outcome>)> call;
};

std::vector<EndpointCase> endpoints() {
  return {
      {"validate", true, true, nullptr, nullptr, nullptr, nullptr,
       [](Loopback& lb, auto o) {
         lb.bed.manager->authenticateServerConfigurationOnComplete(lb.result(o));
       }},
      {"subscribe", false, true, "Received error from network request: {}",
       "Server responsed with an internal server error: {} ({})", "Subscription successful.",
       "Received unexpected response code from server: {}",
       [](Loopback& lb, auto o) {
         lb.bed.manager->registerForSubscription("feed-1", lb.result(o));
       }},
      {"unsubscribe", false, true, "Received an error from the network request: {}",
       "Received an internal error from the server: {} ({})", "Unregister successful",
       "Received an unexpected response code from the server: {}",
       [](Loopback& lb, auto o) {
         lb.bed.manager->unregisterForSubscription("feed-1", lb.result(o));
       }},
      {"subscriptions", false, true, "Received error from network request: {}",
       "Received an internal error report from the server: {}({})",
       "Subscription lookup successful", "Received an unexpected status code from the server: {}",
       [](Loopback& lb, auto o) { lb.bed.manager->subscriptionsOnComplete(lb.lookup(o)); }},
      {"addItemAndNotifyDevice", false, false, "Received error from network request: {}",
       "Received an internal error report from the server: {}({})", "Push request was successful",
       "Received an unexpected status code from the server: {}",
       [](Loopback& lb, auto) {
         lb.bed.manager->generatePushUpdate({{"title", Value("t")}});
       }},
  };
}

void startWithoutServerWork(Loopback& lb) {
  // A background start-up marks the manager started and defers its requests.
  lb.bed.engine->applicationState = 1;
  lb.bed.manager->internalStartup();
  lb.bed.engine->applicationState = 0;
  lb.bed.settle();
  lb.bed.engine->clearLog();
}

TEST(ReplyRulesTest, EveryEndpointJudgesEveryKindOfReply) {
  struct Row {
    Behaviour behaviour;
    ScriptedReply reply;
  } rows[] = {
      {Behaviour::kTransport, {}},
      {Behaviour::kNoResponse, {}},
      {Behaviour::kOk,
       ScriptedReply::json(
           R"({"response_header":{"response_code":0,"response_string":"ok"},"subscriptions":["a"]})")},
      {Behaviour::kServerCode,
       ScriptedReply::json(
           R"({"response_header":{"response_code":17,"response_string":"bad key"}})")},
      {Behaviour::kEmpty, ScriptedReply::json("")},
      {Behaviour::kNotJson, ScriptedReply::json("<html>oops</html>")},
      {Behaviour::k403, ScriptedReply::json(R"({"response_header":{"response_code":0}})", 403)},
      {Behaviour::k404, ScriptedReply::withStatus(404)},
      {Behaviour::k401, ScriptedReply::withStatus(401)},
      {Behaviour::k500, ScriptedReply::withStatus(500)},
      // A redirect is a refusal; following it would land on a 200.
      {Behaviour::kRedirect, ScriptedReply::withStatus(302)},
  };
  for (const EndpointCase& ep : endpoints()) {
    for (const Row& row : rows) {
      SCOPED_TRACE(
          fmt::format("endpoint {} behaviour {}", ep.name, static_cast<int>(row.behaviour)));
      Loopback lb;
      if (!ep.hasCompletion) startWithoutServerWork(lb);
      const std::int64_t statusBefore = lb.bed.manager->status();
      if (row.behaviour == Behaviour::kTransport) {
        lb.bed.engine->setCredentials("http://127.0.0.1:1", "alice", kSecret, kPublicKey);
      } else if (row.behaviour == Behaviour::kNoResponse) {
        // No real server answers without a response; the fake transport does.
        lb.bed.http->setFallback([](const HttpRequest&) { return HttpReply{}; });
        lb.bed.manager.reset();
        lb.bed.transport = nullptr;
        lb.bed.createManager();
        if (!ep.hasCompletion) startWithoutServerWork(lb);
      } else if (row.behaviour == Behaviour::kRedirect) {
        ScriptedReply redirect = row.reply;
        redirect.headers.emplace_back("Location", lb.server.baseUrl() + "/elsewhere");
        lb.server.enqueue(redirect);
        lb.server.setFallback(ScriptedReply::json(R"({"response_header":{"response_code":0}})"));
      } else {
        lb.server.enqueue(row.reply);
      }

      auto outcome = std::make_shared<Outcome>();
      ep.call(lb, outcome);
      if (ep.hasCompletion) {
        ASSERT_TRUE(lb.await(outcome));
      } else {
        ASSERT_TRUE(lb.bed.settle());
      }
      if (row.behaviour != Behaviour::kTransport && row.behaviour != Behaviour::kNoResponse) {
        auto requests = lb.server.requests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].path, std::string("/Subscriptions/client/") + ep.name);
      }

      // Expected code, status and endpoint log line of each behaviour.
      std::optional<std::int64_t> code;
      std::int64_t status = 3;
      std::string line;
      const bool endpoint = !ep.validate;
      switch (row.behaviour) {
        case Behaviour::kTransport:
          code = CURLE_COULDNT_CONNECT;
          // The line carries the transport's own error, whose message is libcurl's.
          if (endpoint) {
            EXPECT_EQ(lb.bed.engine->countLogged(
                          kLinePrefix +
                          fmt::format(fmt::runtime(ep.transport),
                                      fmt::format("{} {}: ", kCurlErrorDomain,
                                                  static_cast<int>(CURLE_COULDNT_CONNECT)))),
                      1u);
          }
          break;
        case Behaviour::kNoResponse:
          code = -3;
          if (endpoint) line = "Response from server was nil";
          break;
        case Behaviour::kOk:
        case Behaviour::kEmpty:
        case Behaviour::kNotJson:
          status = ep.validate ? statusBefore : 2;
          if (endpoint) line = ep.success;
          break;
        case Behaviour::kServerCode:
          code = 17;
          status = ep.validate ? 3 : 2;
          if (endpoint) line = fmt::format(fmt::runtime(ep.serverError), "bad key", 17);
          break;
        case Behaviour::k403:
          code = -1;
          break;
        case Behaviour::k404:
          code = -2;
          break;
        case Behaviour::k401:
          code = -3;
          break;
        case Behaviour::k500:
          code = -3;
          break;
        case Behaviour::kRedirect:
          code = -3;
          break;
      }
      long httpStatus = row.reply.status;
      if (endpoint && (row.behaviour >= Behaviour::k403))
        line = fmt::format(fmt::runtime(ep.unexpected), httpStatus);

      EXPECT_EQ(lb.bed.manager->status(), status);
      const bool success = row.behaviour == Behaviour::kOk || row.behaviour == Behaviour::kEmpty ||
                           row.behaviour == Behaviour::kNotJson;
      if (!line.empty()) {
        EXPECT_TRUE(lb.loggedLine(line, success ? 4 : 0)) << line;
      }
      if (!ep.hasCompletion) continue;
      EXPECT_EQ(outcome->success, !code.has_value());
      if (!code) {
        EXPECT_FALSE(outcome->error);
        continue;
      }
      ASSERT_TRUE(outcome->error);
      EXPECT_EQ(outcome->error->code, *code);
      if (row.behaviour == Behaviour::kTransport) {
        EXPECT_EQ(outcome->error->domain, kCurlErrorDomain);
        continue;
      }
      EXPECT_EQ(outcome->error->domain, "ZolvaniSubscriptionManager");
      const char* description = nullptr;
      switch (row.behaviour) {
        case Behaviour::kNoResponse:
          description = "Unknown server errors.  Received nil HTTP response.";
          break;
        case Behaviour::kServerCode:
          description = "bad key";
          break;
        case Behaviour::k403:
          description = "Failed to authenticate with server using provided credentials.";
          break;
        case Behaviour::k404:
          description = "Server endpoint not found at the provided URL.";
          break;
        default:
          description = "Unknown internal server error.";
          break;
      }
      EXPECT_EQ(outcome->error->localizedDescription(), description);
    }
  }
}

TEST(ReplyRulesTest, WronglyTypedRepliesReadLeniently) {
  struct Case {
    const char* body;
    std::int32_t code;
  } cases[] = {
      {R"({"response_header":{"response_code":"17"}})", 17},
      {R"({"response_header":{"response_code":" -4xyz"}})", -4},
      {R"({"response_header":{"response_code":"99999999999"}})", 2147483647},
      {R"({"response_header":{"response_code":"abc"}})", 0},
      {R"({"response_header":{"response_code":17.9}})", 17},
      {R"({"response_header":{"response_code":-3.7}})", -3},
      {R"({"response_header":{"response_code":1e30}})", 2147483647},
      {R"({"response_header":{"response_code":4294967297}})", 1},
      {R"({"response_header":{"response_code":true}})", 1},
      {R"({"response_header":{"response_code":null}})", 0},
      {R"({"response_header":{"response_code":[5]}})", 0},
      {R"({"response_header":[{"response_code":5}]})", 0},
      {R"({"response_header":"5"})", 0},
      {R"([{"response_header":{"response_code":5}}])", 0},
      {R"({"response_header":{"response_code":5)", 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(ReplyJudge::responseCode(ReplyJudge::parse(std::string(c.body))), c.code) << c.body;
  // A hostile member is left out, without exhausting the stack; the rest of the
  // reply reads as usual. Only text that is not JSON reads as null.
  const std::string deep = R"({"response_header":{"response_code":5},"x":)" +
                           std::string(100000, '[') + std::string(100000, ']') + "}";
  const nlohmann::json pruned = ReplyJudge::parse(deep);
  EXPECT_EQ(ReplyJudge::responseCode(pruned), 5);
  // "x" keeps what fits within the limit: the reply's own level and 127 more.
  std::size_t levels = 0;
  for (const nlohmann::json* at = &pruned.at("x"); at->is_array(); ++levels) {
    if (at->empty()) break;
    at = &(*at)[0];
  }
  EXPECT_EQ(levels + 1, ReplyJudge::kMaxReplyNesting - 1);
  const std::string justInside = R"({"x":)" + std::string(127, '[') + std::string(127, ']') + "}";
  EXPECT_TRUE(ReplyJudge::parse(justInside).contains("x"));
  EXPECT_TRUE(ReplyJudge::parse(std::string(100000, '[')).is_null());

  // Over the wire: a numeric-text code with a numeric text fails with that code,
  // and a "subscriptions" that is not an array reads as none.
  Loopback lb;
  lb.server.enqueue(
      ScriptedReply::json(R"({"response_header":{"response_code":"23","response_string":5}})"));
  auto failed = std::make_shared<Outcome>();
  lb.bed.manager->authenticateServerConfigurationOnComplete(lb.result(failed));
  ASSERT_TRUE(lb.await(failed));
  ASSERT_TRUE(failed->error);
  EXPECT_EQ(failed->error->code, 23);
  EXPECT_EQ(failed->error->localizedDescription(), "5");

  for (const char* list : {R"("feed-a")", R"({"a":1})", "7", "null"}) {
    lb.server.enqueue(ScriptedReply::json(
        fmt::format(R"({{"response_header":{{"response_code":0}},"subscriptions":{}}})", list)));
    auto lookup = std::make_shared<Outcome>();
    lb.bed.manager->subscriptionsOnComplete(lb.lookup(lookup));
    ASSERT_TRUE(lb.await(lookup)) << list;
    EXPECT_TRUE(lookup->success) << list;
    EXPECT_FALSE(lookup->list) << list;
  }
}

TEST(ReplyRulesTest, SilentServerEndsInTimeOutWithoutBlockingTheMainQueue) {
  Loopback lb(milliseconds(400));
  lb.server.enqueue(ScriptedReply::never());
  auto outcome = std::make_shared<Outcome>();
  const auto start = std::chrono::steady_clock::now();
  lb.bed.manager->authenticateServerConfigurationOnComplete(lb.result(outcome));
  ASSERT_TRUE(lb.server.waitForRequests(1, milliseconds(2000)));

  bool markerRan = false;
  lb.bed.mainQueue->async([&] { markerRan = true; });
  EXPECT_TRUE(lb.bed.mainQueue->runUntil([&] { return markerRan; }, milliseconds(100)));
  EXPECT_FALSE(outcome->called);

  ASSERT_TRUE(lb.await(outcome, milliseconds(5000)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(350));
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->domain, kCurlErrorDomain);
  EXPECT_EQ(outcome->error->code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(lb.bed.manager->status(), 3);
}

TEST(ReplyRulesTest, OfflineAndMissingHeaderRefuseWithoutSending) {
  struct Case {
    const char* name;
    const char* offlineLine;
    std::int64_t offlineLevel;
    const char* offlineText;
    const char* headerText;
    std::function<void(Loopback&, std::shared_ptr<Outcome>)> call;
  } cases[] = {
      {"subscribe", "Attempt to register for subscription while offline", 0,
       "The application attempted to register for a new subscription without a network connection "
       "available.",
       "Request header was nil. Cannot complete subscription request.",
       [](Loopback& lb, auto o) {
         lb.bed.manager->registerForSubscription("f", 1, true, 2, lb.result(o));
       }},
      {"unsubscribe", "Attempted to unregister for a subscription while offline", 1,
       "The application attempted to unregister for a subscription without a network connection "
       "available.",
       "Request header was nil. Cannot complete unsubscribe request.",
       [](Loopback& lb, auto o) { lb.bed.manager->unregisterForSubscription("f", lb.result(o)); }},
      {"lookup", "Attempted to lookup subscriptions while offline", 1,
       "The application attempted to lookup subscriptions without a network connection available.",
       "Request header was nil. Cannot complete get subscriptions request.",
       [](Loopback& lb, auto o) { lb.bed.manager->subscriptionsOnComplete(lb.lookup(o)); }},
      {"validate", nullptr, 0, nullptr,
       "Request header was nil. Cannot complete authentication request.",
       [](Loopback& lb, auto o) {
         lb.bed.manager->authenticateServerConfigurationOnComplete(lb.result(o));
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.offlineLine) {
      Loopback lb;
      lb.bed.engine->reachabilityStatus = 0;
      auto outcome = std::make_shared<Outcome>();
      c.call(lb, outcome);
      EXPECT_FALSE(outcome->called);  // delivered on the main queue, not inline
      ASSERT_TRUE(lb.await(outcome));
      EXPECT_TRUE(lb.loggedLine(c.offlineLine, c.offlineLevel));
      EXPECT_EQ(lb.bed.manager->status(), 0);
      ASSERT_TRUE(outcome->error);
      EXPECT_EQ(outcome->error->code, -5);
      EXPECT_EQ(outcome->error->localizedDescription(), c.offlineText);
      if (std::string(c.name) == "lookup") {
        ASSERT_TRUE(outcome->list);
        EXPECT_TRUE(outcome->list->empty());
      }
      EXPECT_EQ(lb.server.requestCount(), 0u);
    }
    // No device identifier, then no user name: refused before returning.
    for (int variant = 0; variant < 2; ++variant) {
      Loopback lb;
      if (variant == 0)
        lb.bed.engine->setDeviceUUID("");
      else
        lb.bed.engine->setCredentials(lb.server.baseUrl(), "", kSecret, kPublicKey);
      auto outcome = std::make_shared<Outcome>();
      c.call(lb, outcome);
      ASSERT_TRUE(outcome->called);
      ASSERT_TRUE(outcome->error);
      EXPECT_EQ(outcome->error->code, -3);
      EXPECT_EQ(outcome->error->localizedDescription(), c.headerText);
      EXPECT_FALSE(outcome->list);
      EXPECT_EQ(lb.bed.manager->status(), -1);
      lb.bed.settle(milliseconds(200));
      EXPECT_EQ(lb.server.requestCount(), 0u);
    }
  }
}

}  // namespace
}  // namespace zolvani::testing
