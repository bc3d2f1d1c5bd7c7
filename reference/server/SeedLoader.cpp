#include "reference/server/SeedLoader.h"

#include <fstream>
#include <limits>
#include <sstream>
#include <type_traits>

#include "reference/server/media/MediaLibrary.h"
#include "reference/server/protocol/JsonLimits.h"

namespace zolvani::refserver {

namespace {

using json = nlohmann::json;

// Reads an optional member of the expected type; a present member of another type
// is an error naming `where`.
template <typename T>
Status Optional(const json& object, const char* key, const std::string& where, T* value) {
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return Status::OK();
  if constexpr (std::is_same_v<T, std::string>) {
    if (!it->is_string())
      return Status::InvalidArgument(where + ": \"" + key + "\" must be a string");
    *value = it->template get<std::string>();
  } else if constexpr (std::is_same_v<T, bool>) {
    if (!it->is_boolean())
      return Status::InvalidArgument(where + ": \"" + key + "\" must be a boolean");
    *value = it->template get<bool>();
  } else {
    if (!it->is_number_integer()) {
      return Status::InvalidArgument(where + ": \"" + key + "\" must be an integer");
    }
    if (it->is_number_unsigned() && it->template get<uint64_t>() > uint64_t{INT64_MAX}) {
      return Status::InvalidArgument(where + ": \"" + key + "\" is out of range");
    }
    const int64_t v = it->template get<int64_t>();
    if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()) {
      return Status::InvalidArgument(where + ": \"" + key + "\" is out of range");
    }
    *value = static_cast<T>(v);
  }
  return Status::OK();
}

Status ParseRules(const json& object, const std::string& where, FeedRules* rules) {
  if (!object.is_object()) return Status::InvalidArgument(where + ": rules must be an object");
  Status s = Optional(object, "max_assets", where, &rules->maxAssets);
  if (s.ok()) s = Optional(object, "auto_delete", where, &rules->autoDelete);
  if (s.ok()) s = Optional(object, "max_bitrate", where, &rules->maxBitrate);
  return s;
}

}  // namespace

int64_t SeedLoader::NormalizeToMs(int64_t secondsOrMs) {
  constexpr int64_t kSecondsLimit = 100000000000;
  if (secondsOrMs < kSecondsLimit && secondsOrMs > -kSecondsLimit) return secondsOrMs * 1000;
  return secondsOrMs;
}

Status SeedLoader::ParseItem(const json& entry, int64_t nowMs, Item* item) {
  if (!entry.is_object()) return Status::InvalidArgument("an item must be an object");
  std::string uuid;
  Status s = Optional(entry, "remoteUUID", "item", &uuid);
  if (!s.ok()) return s;
  if (uuid.empty()) return Status::InvalidArgument("an item needs a non-empty \"remoteUUID\"");
  const std::string where = "item " + uuid;
  int64_t created = nowMs;
  bool hasCreated = false;
  if (entry.contains("created")) {
    s = Optional(entry, "created", where, &created);
    if (!s.ok()) return s;
    hasCreated = true;
  }
  std::string media;
  s = Optional(entry, "media", where, &media);
  if (!s.ok()) return s;
  if (!media.empty() && !MediaLibrary::IsSafeRelativePath(media)) {
    return Status::InvalidArgument(where +
                                   ": \"media\" must be a relative path inside the media folder");
  }
  json metadata = json::object();
  if (auto it = entry.find("metadata"); it != entry.end()) {
    if (!it->is_object())
      return Status::InvalidArgument(where + ": \"metadata\" must be an object");
    metadata = *it;
  }
  std::string downloadUrl;
  s = Optional(metadata, "downloadURL", where, &downloadUrl);
  if (!s.ok()) return s;
  if (media.empty() && downloadUrl.empty()) {
    return Status::InvalidArgument(where + ": needs \"media\" or \"metadata\".\"downloadURL\"");
  }
  int64_t mediaType = 0;
  s = Optional(metadata, "mediaType", where, &mediaType);
  if (!s.ok()) return s;
  if (mediaType < 0 || mediaType > 5) {
    return Status::InvalidArgument(where + ": \"mediaType\" must be 0 to 5");
  }
  if (!metadata.contains("mediaType")) metadata["mediaType"] = 0;
  item->uuid = uuid;
  item->createdMs = hasCreated ? NormalizeToMs(created) : nowMs;
  item->mediaPath = media;
  item->metadata = std::move(metadata);
  return Status::OK();
}

Status SeedLoader::Apply(const json& seed, Store* store, int64_t nowMs, SeedSummary* summary,
                         SeedMode mode) {
  if (!seed.is_object()) return Status::InvalidArgument("a seed must be a JSON object");
  SeedSummary counted;
  const bool keep = mode == SeedMode::kAddMissing;
  // Adds an item, or with kAddMissing leaves one of the same uuid as it is.
  auto addItem = [&](const Item& item) {
    if (!keep) {
      Status s = store->AddItem(item, nowMs);
      if (s.ok()) ++counted.items;
      return s;
    }
    Status s = store->AddItem(item, nowMs, nullptr, /*replaceExisting=*/false);
    if (s.IsAlreadyExists()) {
      ++counted.kept;
      return Status::OK();
    }
    if (s.ok()) ++counted.items;
    return s;
  };

  if (auto it = seed.find("accounts"); it != seed.end()) {
    if (!it->is_array()) return Status::InvalidArgument("\"accounts\" must be an array");
    for (const auto& entry : *it) {
      if (!entry.is_object()) return Status::InvalidArgument("an account must be an object");
      Account account;
      Status s = Optional(entry, "user", "account", &account.user);
      if (s.ok()) s = Optional(entry, "key", "account " + account.user, &account.publicKey);
      if (s.ok()) s = Optional(entry, "secret", "account " + account.user, &account.secret);
      if (!s.ok()) return s;
      Account held;
      if (keep && store->FindAccount(account.user, &held).ok()) {
        ++counted.kept;
        continue;
      }
      s = store->AddAccount(account);
      if (!s.ok()) return s;
      ++counted.accounts;
    }
  }

  if (auto it = seed.find("feeds"); it != seed.end()) {
    if (!it->is_array()) return Status::InvalidArgument("\"feeds\" must be an array");
    for (const auto& entry : *it) {
      if (!entry.is_object()) return Status::InvalidArgument("a feed must be an object");
      Feed feed;
      Status s = Optional(entry, "id", "feed", &feed.id);
      const std::string where = "feed " + feed.id;
      if (s.ok()) s = Optional(entry, "title", where, &feed.title);
      if (s.ok()) s = Optional(entry, "subscribable", where, &feed.subscribable);
      if (s.ok() && entry.contains("rules")) s = ParseRules(entry["rules"], where, &feed.defaults);
      if (!s.ok()) return s;
      Feed held;
      const bool feedKept = keep && store->FindFeed(feed.id, &held).ok();
      if (feedKept) {
        ++counted.kept;
      } else {
        s = store->AddFeed(feed);
        if (!s.ok()) return s;
        ++counted.feeds;
      }
      if (auto publishers = entry.find("publishers"); publishers != entry.end()) {
        if (!publishers->is_array()) {
          return Status::InvalidArgument(where + ": \"publishers\" must be an array of users");
        }
        for (const auto& user : *publishers) {
          if (!user.is_string()) {
            return Status::InvalidArgument(where + ": \"publishers\" must be an array of users");
          }
          // A kept feed keeps its grants as they are, revocations included.
          if (feedKept) continue;
          s = store->GrantPublisher(feed.id, user.get<std::string>());
          if (!s.ok()) return Status::InvalidArgument(where + ": " + s.ToString());
          ++counted.publishers;
        }
      }
      if (auto items = entry.find("items"); items != entry.end()) {
        if (!items->is_array())
          return Status::InvalidArgument(where + ": \"items\" must be an array");
        for (const auto& itemEntry : *items) {
          Item item;
          s = ParseItem(itemEntry, nowMs, &item);
          item.feed = feed.id;
          if (s.ok()) s = addItem(item);
          if (!s.ok()) return s;
        }
      }
    }
  }

  if (auto it = seed.find("direct_items"); it != seed.end()) {
    if (!it->is_array()) return Status::InvalidArgument("\"direct_items\" must be an array");
    for (const auto& entry : *it) {
      Item item;
      Status s = ParseItem(entry, nowMs, &item);
      if (s.ok()) s = Optional(entry, "user", "item " + item.uuid, &item.user);
      if (s.ok() && item.user.empty()) {
        s = Status::InvalidArgument("direct item " + item.uuid + " needs a \"user\"");
      }
      if (s.ok()) s = addItem(item);
      if (!s.ok()) return s;
    }
  }
  if (summary != nullptr) *summary = counted;
  return Status::OK();
}

Status SeedLoader::ApplyFile(const std::filesystem::path& file, Store* store, int64_t nowMs,
                             SeedSummary* summary) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return Status::IOError("cannot read seed file " + file.string());
  std::stringstream text;
  text << in.rdbuf();
  if (JsonLimits::TextNestsDeeperThan(text.str(), JsonLimits::kMaxSeedNesting)) {
    return Status::InvalidArgument(file.string() + " nests deeper than " +
                                   std::to_string(JsonLimits::kMaxSeedNesting) + " levels");
  }
  json seed = json::parse(text.str(), nullptr, false);
  if (seed.is_discarded()) return Status::InvalidArgument(file.string() + " is not valid JSON");
  Status s = Apply(seed, store, nowMs, summary);
  if (!s.ok()) return Status::InvalidArgument(file.string() + ": " + s.message());
  return s;
}

}  // namespace zolvani::refserver
