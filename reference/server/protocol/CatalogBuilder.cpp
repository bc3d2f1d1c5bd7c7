#include "reference/server/protocol/CatalogBuilder.h"

#include <algorithm>

namespace zolvani::refserver {

namespace {

nlohmann::json RulesObject(const FeedRules& rules) {
  return {{"max_assets", rules.maxAssets},
          {"auto_delete", rules.autoDelete},
          {"max_bitrate", rules.maxBitrate}};
}

bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~' || c == '/';
}

}  // namespace

std::string CatalogBuilder::MediaUrl(const std::string& mediaPath) const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string url = serverUrl_ + "/media/";
  for (unsigned char c : mediaPath) {
    if (IsUnreserved(c)) {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += kHex[c >> 4];
      url += kHex[c & 0x0f];
    }
  }
  return url;
}

nlohmann::json CatalogBuilder::ItemObject(const Item& item) const {
  nlohmann::json metadata = item.metadata;
  if (!item.mediaPath.empty()) metadata["downloadURL"] = MediaUrl(item.mediaPath);
  nlohmann::json object = {
      {"remoteUUID", item.uuid}, {"created", item.createdMs}, {"metadata", std::move(metadata)}};
  // Devices read the media type through the flat key "metadata.mediaType" on the
  // item itself, so the type is repeated there beside the nested one.
  const auto& nested = object["metadata"];
  if (auto it = nested.find("mediaType"); it != nested.end() && it->is_number_integer()) {
    object["metadata.mediaType"] = *it;
  }
  return object;
}

nlohmann::json CatalogBuilder::Build(const CatalogSnapshot& snapshot, int64_t nowMs) const {
  nlohmann::json rules = nlohmann::json::object();
  for (const auto& [feed, r] : snapshot.rules) rules[feed] = RulesObject(r);

  nlohmann::json collections = nlohmann::json::array();
  for (const auto& [feed, items] : snapshot.feeds) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& item : items) list.push_back(ItemObject(item));
    collections.push_back({{"remoteUUID", feed.id},
                           {"title", feed.title},
                           {"subscribable", feed.subscribable},
                           {"contentItems", std::move(list)}});
  }

  nlohmann::json direct = nlohmann::json::array();
  for (const auto& item : snapshot.directItems) direct.push_back(ItemObject(item));

  return {{"subscriptions", snapshot.subscriptions},
          {"subscription_rules", std::move(rules)},
          {"collections", std::move(collections)},
          {"contentItems", std::move(direct)},
          {"last_updated", LastUpdatedMs(snapshot.newestItemMs, nowMs)}};
}

Status CatalogWriter::Put(std::string_view text) {
  return write_(text) ? Status::OK() : Status::IOError("the catalog's reader is gone");
}

Status CatalogWriter::Begin(const std::vector<std::string>& subscriptions,
                            const std::map<std::string, FeedRules>& rules, int64_t newestItemMs) {
  subscriptions_ = subscriptions;
  rules_ = rules;
  newestItemMs_ = newestItemMs;
  // Members come in the order the whole-object form sorts them into.
  return Put("{\"collections\":[");
}

Status CatalogWriter::CloseFeed() {
  if (feedTail_.empty()) return Status::OK();
  Status s = Put(feedTail_);
  feedTail_.clear();
  return s;
}

Status CatalogWriter::BeginFeed(const Feed& feed) {
  Status s = CloseFeed();
  if (!s.ok()) return s;
  feedTail_ = "],\"remoteUUID\":" + nlohmann::json(feed.id).dump() +
              ",\"subscribable\":" + (feed.subscribable ? "true" : "false") +
              ",\"title\":" + nlohmann::json(feed.title).dump() + "}";
  s = Put(anyFeed_ ? ",{\"contentItems\":[" : "{\"contentItems\":[");
  anyFeed_ = true;
  firstItem_ = true;
  return s;
}

Status CatalogWriter::FeedItem(const Item& item) {
  std::string text = firstItem_ ? "" : ",";
  firstItem_ = false;
  text += builder_.ItemObject(item).dump();
  return Put(text);
}

Status CatalogWriter::DirectItem(const Item& item) {
  if (!inDirect_) {
    Status s = CloseFeed();
    if (s.ok()) s = Put("],\"contentItems\":[");
    if (!s.ok()) return s;
    inDirect_ = true;
    firstItem_ = true;
  }
  return FeedItem(item);
}

Status CatalogWriter::Finish() {
  if (!inDirect_) {
    Status s = CloseFeed();
    if (s.ok()) s = Put("],\"contentItems\":[");
    if (!s.ok()) return s;
    inDirect_ = true;
  }
  nlohmann::json rules = nlohmann::json::object();
  for (const auto& [feed, r] : rules_) rules[feed] = RulesObject(r);
  const std::string tail =
      "],\"last_updated\":" + std::to_string(CatalogBuilder::LastUpdatedMs(newestItemMs_, nowMs_)) +
      ",\"response_header\":{\"response_code\":0,\"response_string\":\"OK\"}" +
      ",\"subscription_rules\":" + rules.dump() +
      ",\"subscriptions\":" + nlohmann::json(subscriptions_).dump() + "}";
  return Put(tail);
}

int64_t CatalogBuilder::LastUpdatedMs(int64_t newestItemMs, int64_t nowMs) {
  const int64_t basis = newestItemMs > 0 ? std::min(newestItemMs, nowMs) : nowMs;
  const int64_t wholeSecond = basis - (basis % 1000 + 1000) % 1000;
  return wholeSecond - 1000;
}

}  // namespace zolvani::refserver
