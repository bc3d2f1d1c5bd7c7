// The generated sample and seed files: what a demo device sees must be downloadable
// from the server itself, and a broken seed is refused with a message, not loaded
// halfway into something odd.
#include <map>
#include <set>
#include <thread>

#include "RefServerFixture.h"
#include "reference/server/SeedLoader.h"
#include "reference/server/media/MediaLibrary.h"
#include "reference/server/media/SampleGenerator.h"

namespace zolvani::refserver::testing {
namespace {

using nlohmann::json;

class SampleContentTest : public RefServerFixture {};

TEST_F(SampleContentTest, EveryCatalogUrlOfTheSampleIsServedByTheServer) {
  json seed;
  ASSERT_TRUE(SampleGenerator::Generate(dir_, nowMs_, &seed).ok());
  ASSERT_TRUE(SeedLoader::Apply(seed, server_->store(), nowMs_, nullptr).ok());
  SignedRequest r;
  r.user = SampleGenerator::kDemoUser;
  r.key = SampleGenerator::kDemoKey;
  r.secret = SampleGenerator::kDemoSecret;
  r.endpoint = "catalog";
  r.body = {{"filter", {{"subscribed", false}}}};
  const RawReply reply = Send(r);
  ASSERT_EQ(reply.code(), 0) << reply.body;

  std::vector<json> items(reply.json["contentItems"].begin(), reply.json["contentItems"].end());
  std::set<std::string> feeds;
  for (const auto& feed : reply.json["collections"]) {
    feeds.insert(feed["remoteUUID"].get<std::string>());
    for (const auto& item : feed["contentItems"]) items.push_back(item);
  }
  for (const char* sample : {"archive", "feature-films", "morning-news"}) {
    EXPECT_EQ(feeds.count(sample), 1u) << sample;
  }
  EXPECT_EQ(items.size(), 6u);
  int hls = 0;
  const std::string prefix = "http://" + HostHeader();
  for (const auto& item : items) {
    SCOPED_TRACE(item.dump());
    const std::string url = item["metadata"]["downloadURL"];
    ASSERT_EQ(url.rfind(prefix + "/media/", 0), 0u);
    EXPECT_EQ(Get(url.substr(prefix.size())).status, 200);
    if (item["metadata"]["mediaType"] == 3) ++hls;
    // Creation times lie in the past, so a device never mistakes them for the future.
    EXPECT_LT(item["created"].get<int64_t>(), nowMs_.load());
  }
  EXPECT_EQ(hls, 1);
}

TEST_F(SampleContentTest, GeneratingAgainOrElsewhereKeepsValidatorsAndCreationTimes) {
  // Generating is a one-shot step, but a demo restarted with --generate-sample, or
  // each server generating for itself, must not make devices start downloads
  // again nor see the sample items as new.
  namespace fs = std::filesystem;
  auto generate = [&](const fs::path& dataDir) {
    json seed;
    ASSERT_TRUE(SampleGenerator::Generate(dataDir, nowMs_, &seed).ok());
    SeedSummary summary;
    ASSERT_TRUE(
        SeedLoader::Apply(seed, server_->store(), nowMs_, &summary, SeedMode::kAddMissing).ok());
  };
  // ETag of every file under `dataDir`/media, as a server of that folder sends it.
  auto validators = [&](const fs::path& dataDir) {
    MediaLibrary library(dataDir / "media");
    std::map<std::string, std::string> etags;
    for (const auto& entry : fs::recursive_directory_iterator(dataDir / "media")) {
      if (!entry.is_regular_file()) continue;
      const std::string relative = fs::relative(entry.path(), dataDir / "media").string();
      MediaFile file;
      EXPECT_TRUE(library.Find(relative, &file).ok()) << relative;
      etags[relative] = file.etag;
    }
    return etags;
  };
  auto items = [&] {
    std::vector<Item> held;
    EXPECT_TRUE(server_->store()->ListItems("", "", 100, &held).ok());
    std::map<std::string, int64_t> created;
    for (const auto& i : held) created[i.uuid] = i.createdMs;
    return created;
  };
  generate(dir_);
  ASSERT_TRUE(server_->store()->Subscribe("demo", "phone", "morning-news").ok());
  const auto firstEtags = validators(dir_);
  const auto firstItems = items();
  ASSERT_GT(firstEtags.size(), 10u);
  ASSERT_EQ(firstItems.size(), 6u);
  std::vector<PushNotice> pushes;
  ASSERT_TRUE(server_->store()->ListPushes("", "", false, false, &pushes).ok());

  nowMs_ += 3600 * 1000;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  generate(dir_);
  EXPECT_EQ(validators(dir_), firstEtags);
  EXPECT_EQ(items(), firstItems);
  std::vector<PushNotice> after;
  ASSERT_TRUE(server_->store()->ListPushes("", "", false, false, &after).ok());
  EXPECT_EQ(after.size(), pushes.size()) << "no item was announced again";

  // Another server's data folder generated an hour later holds the same files
  // with the same times, so the same validators.
  const fs::path elsewhere = dir_ / "elsewhere";
  json seed;
  ASSERT_TRUE(SampleGenerator::Generate(elsewhere, nowMs_, &seed).ok());
  const auto there = validators(elsewhere);
  EXPECT_GE(there.size(), 20u);
  for (const auto& [relative, etag] : there) {
    SCOPED_TRACE(relative);
    ASSERT_EQ(firstEtags.count(relative), 1u);
    EXPECT_EQ(firstEtags.at(relative), etag);
  }
}

TEST_F(SampleContentTest, BadSeedsAreRefusedWithTheEntryNamed) {
  struct Case {
    const char* name;
    json seed;
    const char* mentions;
  };
  const json item = {{"remoteUUID", "i-1"}, {"media", "files/clip.mp4"}};
  json strangerItem = item;
  strangerItem["user"] = "nobody";
  const std::vector<Case> cases = {
      {"not an object", json::array(), "object"},
      {"accounts not a list", {{"accounts", 3}}, "accounts"},
      {"account without user", {{"accounts", {{{"key", "k"}}}}}, "user"},
      {"feed title a number", {{"feeds", {{{"id", "f"}, {"title", 5}}}}}, "title"},
      {"rule out of range",
       {{"feeds", {{{"id", "f"}, {"rules", {{"max_assets", 1e12}}}}}}},
       "max_assets"},
      {"item escaping the media folder",
       {{"feeds", {{{"id", "f"}, {"items", {{{"remoteUUID", "x"}, {"media", "../secret"}}}}}}}},
       "media"},
      {"item without media or URL",
       {{"feeds", {{{"id", "f"}, {"items", {{{"remoteUUID", "x"}}}}}}}},
       "downloadURL"},
      {"media type 6",
       {{"feeds",
         {{{"id", "f"},
           {"items",
            {{{"remoteUUID", "x"}, {"media", "a.mp4"}, {"metadata", {{"mediaType", 6}}}}}}}}}},
       "mediaType"},
      {"direct item without user", {{"direct_items", {item}}}, "user"},
      {"direct item for unknown user", {{"direct_items", {strangerItem}}}, "nobody"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Status s = SeedLoader::Apply(c.seed, server_->store(), nowMs_, nullptr);
    EXPECT_FALSE(s.ok());
    EXPECT_NE(s.message().find(c.mentions), std::string::npos) << s.ToString();
  }
}

TEST_F(SampleContentTest, CreationTimesInSecondsOrMillisecondsMeanTheSameInstant) {
  const json seed = {
      {"feeds",
       {{{"id", "news"},
         {"items",
          {{{"remoteUUID", "s"}, {"created", 1600000000}, {"media", "files/clip.mp4"}},
           {{"remoteUUID", "ms"}, {"created", 1600000001000}, {"media", "files/clip.mp4"}}}}}}}};
  ASSERT_TRUE(SeedLoader::Apply(seed, server_->store(), nowMs_, nullptr).ok());
  CatalogSnapshot snapshot;
  ASSERT_TRUE(server_->store()->ReadCatalog("alice", "d", std::nullopt, false, &snapshot).ok());
  std::map<std::string, int64_t> created;
  for (const auto& [feed, items] : snapshot.feeds) {
    for (const auto& i : items) created[i.uuid] = i.createdMs;
  }
  EXPECT_EQ(created, (std::map<std::string, int64_t>{{"s", 1600000000000}, {"ms", 1600000001000}}));
}

}  // namespace
}  // namespace zolvani::refserver::testing
