// The success actions of the subscription operations and the push update,
// over real HTTP on loopback.
#include <gtest/gtest.h>

#include <set>

#include "server/ProtocolTestSupport.h"

namespace zolvani::testing {
namespace {

using std::chrono::milliseconds;

constexpr const char* kOkReply = R"({"response_header":{"response_code":0}})";

nlohmann::json bodyOf(const RecordedRequest& request) {
  return nlohmann::json::parse(request.body);
}

TEST(SubscriptionOperationsTest, SubscribeStoresRulesOnlyWhenTheServerAccepts) {
  Loopback lb;
  lb.bed.manager->setMaximumSubscriptionItemsPerFeed(5);
  lb.bed.manager->setAutodeleteOldItems(true);
  lb.bed.manager->setMaxBitrate(0);
  lb.server.enqueue(ScriptedReply::json(kOkReply));
  lb.server.enqueue(ScriptedReply::withStatus(403));
  lb.server.enqueue(ScriptedReply::json(kOkReply));

  auto first = std::make_shared<Outcome>();
  lb.bed.manager->registerForSubscription("feed-a", lb.result(first));  // settings' rules
  ASSERT_TRUE(lb.await(first));
  EXPECT_TRUE(first->success);
  EXPECT_EQ(lb.bed.manager->maxItemsPerFeed("feed-a"), 5);
  EXPECT_TRUE(lb.bed.manager->autoDeleteForFeed("feed-a"));

  auto refused = std::make_shared<Outcome>();
  lb.bed.manager->registerForSubscription("feed-b", 9, false, 300, lb.result(refused));
  ASSERT_TRUE(lb.await(refused));
  EXPECT_EQ(refused->error->code, -1);
  EXPECT_EQ(lb.bed.manager->maxItemsPerFeed("feed-b"), 0);

  auto full = std::make_shared<Outcome>();
  lb.bed.manager->registerForSubscription("feed-c", 7, false, 1200, lb.result(full));
  ASSERT_TRUE(lb.await(full));
  EXPECT_EQ(lb.bed.manager->maxItemsPerFeed("feed-c"), 7);
  EXPECT_FALSE(lb.bed.manager->autoDeleteForFeed("feed-c"));
  EXPECT_EQ(lb.bed.manager->maxBitrateForFeed("feed-c"), 1200);

  auto requests = lb.server.requests();
  ASSERT_EQ(requests.size(), 3u);
  for (const auto& r : requests) {
    expectSigned(r, lb.server.baseUrl(), "subscribe",
                 "127.0.0.1:" + std::to_string(lb.server.port()));
    EXPECT_FALSE(bodyOf(r).contains("push_registration"));
  }
  EXPECT_EQ(bodyOf(requests[0]).at("feed"), "feed-a");
  // Only accepted subscriptions reach the engine's analytics, as event 11.
  auto events = lb.bed.engine->analyticsEvents();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].event, 11);
  EXPECT_EQ(events[0].file, "feed-a");
  EXPECT_EQ(events[0].data, Value(kLoggerDataValueInvalid));
  EXPECT_EQ(events[1].file, "feed-c");
}

TEST(SubscriptionOperationsTest, UnsubscribeRemovesTheFeedAndLogsEvent12) {
  Loopback lb;
  lb.bed.manager->updateSubscription("feed-a", 4, true, 0);  // no server call
  EXPECT_EQ(lb.bed.manager->maxItemsPerFeed("feed-a"), 4);
  lb.server.enqueue(ScriptedReply::json(kOkReply));
  auto outcome = std::make_shared<Outcome>();
  lb.bed.manager->unregisterForSubscription("feed-a", lb.result(outcome));
  ASSERT_TRUE(lb.await(outcome));
  EXPECT_TRUE(outcome->success);
  EXPECT_EQ(lb.bed.manager->maxItemsPerFeed("feed-a"), 0);
  auto events = lb.bed.engine->analyticsEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].event, 12);
  EXPECT_EQ(events[0].file, "feed-a");
  auto requests = lb.server.requests();
  ASSERT_EQ(requests.size(), 1u);
  auto body = bodyOf(requests[0]);
  EXPECT_EQ(body.size(), 2u);
  EXPECT_EQ(body.at("feed"), "feed-a");
  EXPECT_EQ(lb.server.requestCount(), 1u);
  EXPECT_EQ(lb.bed.manager->status(), 2);
}

TEST(SubscriptionOperationsTest, RemovingAllReportsSuccessWithTheLastFailure) {
  Loopback lb;
  lb.server.setHandler([](const RecordedRequest& r) {
    if (r.path.ends_with("/subscriptions"))
      return ScriptedReply::json(
          R"({"response_header":{"response_code":0},"subscriptions":["a","b","c"]})");
    if (nlohmann::json::parse(r.body).at("feed") == "b") return ScriptedReply::withStatus(403);
    return ScriptedReply::json(kOkReply);
  });
  auto outcome = std::make_shared<Outcome>();
  lb.bed.manager->unregisterSubscriptionsOnComplete(lb.result(outcome));
  ASSERT_TRUE(lb.await(outcome));
  EXPECT_TRUE(outcome->success);  // callers tell failure by the error
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, -1);
  std::multiset<std::string> feeds;
  for (const auto& r : lb.server.requests())
    if (r.path.ends_with("/unsubscribe")) feeds.insert(bodyOf(r).at("feed").get<std::string>());
  EXPECT_EQ(feeds, (std::multiset<std::string>{"a", "b", "c"}));
}

TEST(SubscriptionOperationsTest, RemovingAllOfNothingNeverCompletes) {
  Loopback lb;
  lb.server.enqueue(
      ScriptedReply::json(R"({"response_header":{"response_code":0},"subscriptions":[]})"));
  auto outcome = std::make_shared<Outcome>();
  lb.bed.manager->unregisterSubscriptionsOnComplete(lb.result(outcome));
  EXPECT_FALSE(lb.await(outcome, milliseconds(500)));
  EXPECT_EQ(lb.server.requestCount(), 1u);
  // The lookup failing completes at once with its error.
  lb.server.enqueue(ScriptedReply::withStatus(404));
  auto failed = std::make_shared<Outcome>();
  lb.bed.manager->unregisterSubscriptionsOnComplete(lb.result(failed));
  ASSERT_TRUE(lb.await(failed));
  EXPECT_FALSE(failed->success);
  EXPECT_EQ(failed->error->code, -2);
  // Tearing the manager down releases the waiting worker (the test would hang
  // otherwise).
}

TEST(SubscriptionOperationsTest, PushUpdateCopiesOnlyKnownMembersUnderAFreshUuid) {
  Loopback lb;
  lb.bed.manager->generatePushUpdate({{"title", Value("x")}});
  EXPECT_TRUE(lb.loggedLine(
      "Attempted to lookup subscriptions before starting the ZolvaniSubscriptionManager", 1));
  EXPECT_EQ(lb.bed.manager->status(), -1);

  lb.bed.engine->applicationState = 1;
  lb.bed.manager->internalStartup();
  lb.bed.engine->applicationState = 0;
  lb.bed.settle();
  lb.bed.engine->reachabilityStatus = 0;
  lb.bed.manager->generatePushUpdate({{"title", Value("x")}});
  EXPECT_TRUE(lb.loggedLine("Attempted to lookup subscriptions while offline", 1));
  EXPECT_EQ(lb.bed.manager->status(), 0);
  lb.bed.engine->reachabilityStatus = 1;
  ASSERT_TRUE(lb.bed.settle());
  EXPECT_EQ(lb.server.requestCount(), 0u);

  lb.server.setFallback(ScriptedReply::json(kOkReply));
  const Value::Map item{{"title", Value("Episode")},
                        {"uuid", Value("caller-uuid")},
                        {"contentSize", Value(1234)},
                        {"downloadEnabled", Value(true)},
                        {"desc", Value()},
                        {"other", Value("dropped")}};
  lb.bed.manager->generatePushUpdate(item);
  lb.bed.manager->generatePushUpdate(item);
  ASSERT_TRUE(lb.bed.settle());
  auto requests = lb.server.requests();
  ASSERT_EQ(requests.size(), 2u);
  std::set<std::string> uuids;
  for (const auto& r : requests) {
    expectSigned(r, lb.server.baseUrl(), "addItemAndNotifyDevice",
                 "127.0.0.1:" + std::to_string(lb.server.port()));
    auto body = bodyOf(r).at("body");
    EXPECT_EQ(body.size(), 4u) << body.dump();
    EXPECT_EQ(body.at("title"), "Episode");
    EXPECT_EQ(body.at("contentSize"), 1234);
    EXPECT_EQ(body.at("downloadEnabled"), true);
    const std::string uuid = body.at("uuid");
    EXPECT_EQ(uuid.size(), 36u);
    EXPECT_EQ(uuid.find_first_of("abcdef"), std::string::npos);
    uuids.insert(uuid);
  }
  EXPECT_EQ(uuids.size(), 2u);
  EXPECT_TRUE(lb.loggedLine("Push request was successful", 4));
  EXPECT_EQ(lb.bed.manager->status(), 2);
}

}  // namespace
}  // namespace zolvani::testing
