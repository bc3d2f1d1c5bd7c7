// Asset creation: the factory each media type gets, the arguments it
// receives, and the two ready callbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <limits>

#include "sync/SyncHarness.h"

namespace zolvani::testing {
namespace {

class CountingSource : public ZolvaniSubscriptionDefaultDataSource {
 public:
  using ZolvaniSubscriptionDefaultDataSource::ZolvaniSubscriptionDefaultDataSource;
  void willAddAsset(const std::shared_ptr<ZolvaniAsset>& asset) override {
    seen.push_back(asset->assetID());
  }
  std::vector<std::string> seen;
};

class AssetCreationTest : public ::testing::Test {
 protected:
  AssetCreationTest() {
    ZolvaniEngine roles = bed.engine->roles();
    source = std::make_shared<CountingSource>(DataSourceServices{roles.logger, roles.secureClock});
  }
  Value::Map data(std::string id, std::int64_t mediaType) {
    return {{std::string(SubscriptionAssetDataAssetIDKey), Value(id)},
            {std::string(SubscriptionAssetDataMediaTypeKey), Value(mediaType)},
            {std::string(SubscriptionAssetDataDescriptionKey), Value("About " + id)},
            {std::string(SubscriptionAssetDataDownloadURLKey), Value("http://cdn.test/" + id)}};
  }
  TestBed bed;
  std::shared_ptr<CountingSource> source;
};

TEST_F(AssetCreationTest, ArgumentsFollowTheMediaTypeAndTheDefaults) {
  // The feed's limit is looked up by the asset ID: a feed named like the
  // asset carries the limit that applies.
  bed.manager->setMaxItems(5, false, 123456, "limited");
  struct Case {
    const char* name;
    std::int64_t mediaType;
    Value::Map extra;
    bool manifest;
    std::int64_t bitrate;
    double afterDownload, afterPlay;
    std::string description;
  };
  const Case cases[] = {
      {"manifest with its own bit rate",
       3,
       {{std::string(SubscriptionAssetDataMaximumBitrateKey), Value(800000)}},
       true,
       800000,
       -42.0,
       -42.0,
       "About limited"},
      {"manifest without a bit rate asks by asset ID",
       3,
       {},
       true,
       123456,
       -42.0,
       -42.0,
       "About limited"},
      {"null lifetimes are the marker",
       3,
       {{std::string(SubscriptionAssetDataExpiryAfterPlayKey), Value()},
        {std::string(SubscriptionAssetDataExpiryAfterDownloadKey), Value(std::int64_t{0})}},
       true,
       123456,
       0.0,
       -42.0,
       "About limited"},
      {"title wins over description",
       0,
       {{std::string(SubscriptionAssetDataTitleKey), Value("Title")}},
       false,
       0,
       -42.0,
       -42.0,
       "Title"},
      {"an empty title gives way",
       1,
       {{std::string(SubscriptionAssetDataTitleKey), Value("")}},
       false,
       0,
       -42.0,
       -42.0,
       "About limited"},
      {"media type 2", 2, {}, false, 0, -42.0, -42.0, "About limited"},
      {"media type 4",
       4,
       {{std::string(SubscriptionAssetDataExpiryAfterPlayKey), Value(60)}},
       false,
       0,
       -42.0,
       60.0,
       "About limited"},
      {"media type 5", 5, {}, false, 0, -42.0, -42.0, "About limited"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Value::Map item = data("limited", c.mediaType);
    for (const auto& [k, v] : c.extra) item[k] = v;
    auto asset = bed.manager->addSubscriptionItemFromFeedItem(item, std::string("F"), source);
    ASSERT_TRUE(asset);
    const AssetCreation& made = bed.engine->createdAssets().back()->creation();
    EXPECT_EQ(made.manifest, c.manifest);
    EXPECT_EQ(made.assetID, "limited");
    EXPECT_EQ(made.url, "http://cdn.test/limited");
    EXPECT_EQ(made.description, c.description);
    EXPECT_EQ(made.expiryAfterDownload, c.afterDownload);
    EXPECT_EQ(made.expiryAfterPlay, c.afterPlay);
    EXPECT_EQ(made.assetDownloadLimit, -1);
    EXPECT_FALSE(made.enableFastPlay);
    if (c.manifest) {
      EXPECT_EQ(made.maximumBitrate, c.bitrate);
      EXPECT_EQ(made.protectionType, 0);
      EXPECT_TRUE(made.includeEncryptionKeys);
    }
  }
  // With no record for the asset ID there is no cap at all.
  bed.manager->addSubscriptionItemFromFeedItem(data("free", 3), std::string("F"), source);
  EXPECT_EQ(bed.engine->createdAssets().back()->creation().maximumBitrate,
            std::numeric_limits<std::int64_t>::max());
}

TEST_F(AssetCreationTest, OnlyADateIsACreationDate) {
  Value::Map dated = data("d", 1);
  dated[std::string(SubscriptionAssetDataCreatedDateKey)] = Value(Date(1600000000.0));
  Value::Map numbered = data("n", 1);
  numbered[std::string(SubscriptionAssetDataCreatedDateKey)] = Value(1600000000.0);
  bed.manager->addSubscriptionItemFromFeedItem(dated, std::nullopt, source);
  bed.manager->addSubscriptionItemFromFeedItem(numbered, std::nullopt, source);
  auto made = bed.engine->createdAssets();
  ASSERT_EQ(made.size(), 2u);
  EXPECT_EQ(made[0]->explicitCreationDate(), Date(1600000000.0));
  EXPECT_FALSE(made[1]->explicitCreationDate().has_value());
}

TEST_F(AssetCreationTest, ReadyCallbacksDifferByKind) {
  // "open" admits everything; "closed" admits nothing (a full feed without
  // auto-delete: a negative maximum reads as full).
  bed.manager->setMaxItems(0, false, 0, "open");
  bed.manager->setMaxItems(-1, false, 0, "closed");
  bed.manager->addSubscriptionItemFromFeedItem(data("m-open", 3), std::string("open"), source);
  bed.manager->addSubscriptionItemFromFeedItem(data("m-closed", 3), std::string("closed"), source);
  bed.manager->addSubscriptionItemFromFeedItem(data("s-open", 1), std::string("open"), source);
  bed.manager->addSubscriptionItemFromFeedItem(data("s-closed", 1), std::string("closed"), source);
  bed.manager->addSubscriptionItemFromFeedItem(data("s-direct", 1), std::nullopt, source);
  bed.manager->addSubscriptionItemFromFeedItem(data("m-gone", 3), std::string("open"), source);
  bed.engine->deleteExternally(bed.engine->createdAssets().back()->uuid());
  bed.engine->clearLog();
  bed.engine->fireReadyCallbacks();

  // The manifest callback tells the source before asking the feed; the
  // single-file one only after the feed has said yes.
  EXPECT_EQ(source->seen, (std::vector<std::string>{"m-open", "m-closed", "s-open", "s-direct"}));
  EXPECT_EQ(queuedIDs(*bed.engine), (std::vector<std::string>{"m-open", "s-open", "s-direct"}));
  const std::string where =
      "-[ZolvaniSubscriptionManager addSubscriptionItemFromFeedItem:inFeed:withDataSource:] ";
  EXPECT_EQ(
      bed.engine->countLogged("Asset finished initialization.  Adding asset to download queue."),
      2u);
  EXPECT_EQ(bed.engine->countLogged("Error encountered adding"), 0u);
  EXPECT_EQ(bed.engine->countLogged(
                "[Line 573] Asset we just created got deleted before we could finish setting "
                "it up and queue it for download."),
            1u);
  for (const auto& line : bed.engine->logLines())
    if (line.message.find("[Line 573]") != std::string::npos) {
      EXPECT_EQ(line.level, 2);
      EXPECT_EQ(line.message.rfind(where, 0), 0u);
    }

  // Queueing failures are only recorded, each kind with its own text.
  bed.engine->setQueueingError(Error::make("Engine", 9, "queue full"));
  bed.manager->addSubscriptionItemFromFeedItem(data("m-err", 3), std::string("open"), source);
  bed.manager->addSubscriptionItemFromFeedItem(data("s-err", 1), std::string("open"), source);
  bed.engine->fireReadyCallbacks();
  EXPECT_EQ(bed.engine->countLogged("[Line 567] Error encountered adding asset to queue: "), 1u);
  EXPECT_EQ(bed.engine->countLogged("[Line 629] Error encountered adding the asset to the queue: "),
            1u);
}

TEST_F(AssetCreationTest, ARefusedAssetIsNoAsset) {
  bed.engine->refuseAssetCreation = true;
  EXPECT_EQ(bed.manager->addSubscriptionItemFromFeedItem(data("x", 3), std::nullopt, source),
            nullptr);
  EXPECT_EQ(bed.manager->addSubscriptionItemFromFeedItem(data("y", 1), std::nullopt, source),
            nullptr);
}

}  // namespace
}  // namespace zolvani::testing
