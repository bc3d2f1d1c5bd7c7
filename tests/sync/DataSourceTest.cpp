// The default data source: the server's item shape, its quirks, and what it
// drops.
#include <gtest/gtest.h>

#include "sync/SyncHarness.h"
#include "zolvani/subscription/ZolvaniSubscriptionDataSource.h"

namespace zolvani::testing {
namespace {

class DataSourceTest : public ::testing::Test {
 protected:
  DataSourceTest() { engine->setDate(Date(kNow)); }
  ZolvaniSubscriptionDefaultDataSource make() {
    ZolvaniEngine roles = engine->roles();
    return ZolvaniSubscriptionDefaultDataSource(
        DataSourceServices{roles.logger, roles.secureClock});
  }
  std::shared_ptr<InMemoryEngine> engine = InMemoryEngine::create();
};

const Value* at(const Value::Map& m, std::string_view key) {
  auto it = m.find(key);
  return it == m.end() ? nullptr : &it->second;
}

TEST_F(DataSourceTest, PlainConstructionIsRefusedWithItsReason) {
  try {
    ZolvaniSubscriptionDefaultDataSource refused;
    FAIL() << "constructed";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_EQ(
        e.reason(),
        "Callers must always use the initWithSubscription method to initialize new data sources");
  }
}

TEST_F(DataSourceTest, ItemConversionKeepsTheServersQuirks) {
  struct Case {
    const char* name;
    nlohmann::json item;
    // none = unreadable; empty map = rejected; else checked below
    bool readable, admitted;
    std::int64_t mediaType;
    double created;
  };
  const nlohmann::json base = {
      {"remoteUUID", "A"}, {"created", 1500000000}, {"metadata", {{"downloadURL", "u"}}}};
  auto with = [&](nlohmann::json patch) {
    nlohmann::json j = base;
    j.merge_patch(patch);
    return j;
  };
  const Case cases[] = {
      {"nested media type is only range-checked", with({{"metadata", {{"mediaType", 9}}}}), true,
       true, 0, 1.5e9},
      {"literal key out of range rejects",
       with({{"metadata.mediaType", 9}, {"metadata", {{"mediaType", 1}}}}), true, false, 0, 0},
      {"literal key in range is the media type", with({{"metadata.mediaType", 3}}), true, true, 3,
       1.5e9},
      {"literal key out of range alone passes", with({{"metadata.mediaType", 9}}), true, true, 9,
       1.5e9},
      {"milliseconds are truncated to seconds", with({{"created", 1500000000123LL}}), true, true, 0,
       1500000000.0},
      {"zero created is 1970", with({{"created", 0}}), true, true, 0, 0.0},
      {"missing created is 1970",
       [&] {
         nlohmann::json j = base;
         j.erase("created");
         return j;
       }(),
       true, true, 0, 0.0},
      {"created as numeric text is read", with({{"created", "1600000000"}}), true, true, 0, 1.6e9},
      {"the secure clock's now itself counts as milliseconds", with({{"created", 1800000000}}),
       true, true, 0, 1800000.0},
      {"missing remoteUUID is rejected",
       [&] {
         nlohmann::json j = base;
         j.erase("remoteUUID");
         return j;
       }(),
       true, false, 0, 0},
      {"a numeric remoteUUID is unreadable", with({{"remoteUUID", 42}}), false, false, 0, 0},
      {"an item that is not an object is unreadable", nlohmann::json::array({1, 2}), false, false,
       0, 0},
  };
  auto source = make();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<Value::Map> out = source.processItemData(c.item, std::string("F"));
    ASSERT_EQ(out.has_value(), c.readable);
    if (!c.readable) continue;
    ASSERT_EQ(!out->empty(), c.admitted);
    if (!c.admitted) continue;
    EXPECT_EQ(at(*out, SubscriptionAssetDataMediaTypeKey)->int64Value(), c.mediaType);
    ASSERT_TRUE(at(*out, SubscriptionAssetDataCreatedDateKey)->isDate());
    EXPECT_EQ(at(*out, SubscriptionAssetDataCreatedDateKey)->asDate()->secondsSince1970, c.created);
    EXPECT_EQ(at(*out, SubscriptionAssetDataCollectionAssetIDKey)->stringValue(), "F");
    EXPECT_EQ(at(*out, SubscriptionAssetDataMaximumBitrateKey)->int64Value(), 2147483647);
  }
}

TEST_F(DataSourceTest, TextAndLifetimesFillEachOther) {
  auto source = make();
  struct Case {
    nlohmann::json metadata;
    std::string description;
    std::optional<std::int64_t> afterDownload;
  };
  const Case cases[] = {
      {{{"title", ""}, {"desc", "Fish &amp; chips"}, {"downloadExpiry", -5}}, "Fish & chips", 0},
      {{{"title", "Only a title"}, {"downloadExpiry", 3600}}, "Only a title", 3600},
      {{{"title", "T"}, {"desc", "D"}}, "D", std::nullopt},
      {{{"desc", 17}, {"title", {1, 2}}, {"downloadExpiry", nlohmann::json::object()}}, "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.metadata.dump());
    nlohmann::json j = {{"remoteUUID", "A"}, {"created", 5}, {"metadata", c.metadata}};
    auto out = source.processItemData(j, std::nullopt);
    ASSERT_TRUE(out && !out->empty());
    EXPECT_EQ(at(*out, SubscriptionAssetDataDescriptionKey)->stringValue(), c.description);
    EXPECT_EQ(at(*out, SubscriptionAssetDataTitleKey), nullptr);
    EXPECT_EQ(at(*out, SubscriptionAssetDataCollectionAssetIDKey), nullptr);
    const Value* expiry = at(*out, SubscriptionAssetDataExpiryAfterDownloadKey);
    ASSERT_EQ(expiry != nullptr, c.afterDownload.has_value());
    if (expiry) {
      EXPECT_EQ(expiry->int64Value(), *c.afterDownload);
    }
  }
  nlohmann::json dated = {
      {"remoteUUID", "A"},
      {"metadata", {{"availableFrom", 1600000000}, {"catalogExpiry", 0}, {"mime", "video/mp4"}}}};
  auto out = source.processItemData(dated, std::nullopt);
  ASSERT_TRUE(out);
  EXPECT_EQ(at(*out, SubscriptionAssetDataPublishDateKey)->asDate()->secondsSince1970,
            1600000000.0);
  EXPECT_EQ(at(*out, SubscriptionAssetDataExpiryDateKey), nullptr);
  EXPECT_EQ(*at(*out, SubscriptionAssetDataPermittedMimeTypesKey),
            Value(Value::Array{Value("video/mp4")}));
  EXPECT_EQ(at(*out, SubscriptionAssetDataDownloadURLKey), nullptr);
}

TEST_F(DataSourceTest, FeedsKeepOnlySubscribableFeedsAndReadableItems) {
  nlohmann::json collections = nlohmann::json::array({
      feed("F1", {item("a", 1600000000), item("b", 1600000001),
                  nlohmann::json{{"remoteUUID", "c"}, {"created", 1}},  // no download URL
                  nlohmann::json{{"remoteUUID", 7}}, nlohmann::json{{"metadata.mediaType", 3}}}),
      feed("F2", {item("d", 1600000000)}, /*subscribable=*/false),
      nlohmann::json{{"remoteUUID", "F3"}, {"contentItems", {item("e", 1600000000)}}},
      feed("F4", {nlohmann::json{{"remoteUUID", "x"}}}),  // every item dropped
      "not a feed",
      nlohmann::json{{"subscribable", true}, {"remoteUUID", {1}}, {"contentItems", {item("f", 1)}}},
  });
  auto source = make();
  source.initWithSubscriptions(collections);
  Value result = source.process();
  ASSERT_TRUE(result.isMap());
  ASSERT_EQ(result.asMap()->size(), 1u);
  const Value::Array& items = *result.find("F1")->asArray();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].find(SubscriptionAssetDataAssetIDKey)->stringValue(), "a");
  EXPECT_EQ(items[1].find(SubscriptionServerCollectionUUIDKey)->stringValue(), "F1");

  const std::string feeds = "-[ZolvaniSubscriptionDefaultDataSource processFeeds] [Line ";
  EXPECT_TRUE(engine->logged(feeds + "186] Found and parsed item (a).", 4));
  EXPECT_TRUE(engine->logged(
      feeds + "204] Lookup response did not return all required information - Ignoring item.", 0));
  EXPECT_TRUE(engine->logged(
      feeds + "213] Didn't receive enough data in server response to continue.  Ignoring item.",
      0));
  EXPECT_TRUE(engine->logged(
      feeds + "166] Didn't receive enough data in server response to continue.  Ignoring item.",
      0));
}

TEST_F(DataSourceTest, EmptyOrMisshapenBatchesAreNoData) {
  const nlohmann::json batches[] = {nlohmann::json::array(), nullptr, nlohmann::json{{"F", 1}}, 12};
  for (const auto& batch : batches) {
    SCOPED_TRACE(batch.dump());
    engine->clearLog();
    auto source = make();
    source.initWithAssets(batch);
    Value result = source.process();
    EXPECT_TRUE(result.isMap() && result.asMap()->empty());
    EXPECT_TRUE(engine->logged(
        "-[ZolvaniSubscriptionDefaultDataSource process] [Line 111] No subscription data to "
        "process.",
        4));
  }
  auto source = make();
  nlohmann::json direct =
      nlohmann::json::array({item("a", 1600000000), nlohmann::json{{"remoteUUID", ""}}});
  source.initWithAssets(direct);
  Value result = source.process();
  ASSERT_TRUE(result.isArray());
  ASSERT_EQ(result.asArray()->size(), 1u);
  EXPECT_EQ((*result.asArray())[0].find(SubscriptionServerCollectionUUIDKey), nullptr);
  EXPECT_TRUE(
      engine->logged("-[ZolvaniSubscriptionDefaultDataSource processAssets] [Line 242] Didn't "
                     "receive enough data in server "
                     "response to continue.  Ignoring item.",
                     0));
}

}  // namespace
}  // namespace zolvani::testing
