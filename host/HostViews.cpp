#include "HostViews.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string_view>

#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/engine/ZolvaniAsset.h"

namespace zsm {

using namespace zolvani;
using reference::AssetInfo;
using reference::AssetState;

nlohmann::json assetJson(const AssetInfo& a) {
  nlohmann::json doc = {{"uuid", a.uuid},
                        {"asset_id", a.assetID},
                        {"description", a.description},
                        {"url", a.url},
                        {"stream", a.manifest},
                        {"state", std::string(reference::assetStateName(a.state))},
                        {"fraction", a.state == AssetState::kComplete ? 1.0 : a.fractionComplete},
                        {"bytes_done", a.bytesDone},
                        {"bytes_total", a.bytesTotal},
                        {"created", a.creationDate.secondsSince1970},
                        {"file", a.localPath.string()}};
  if (a.downloadCompleteDateTime) doc["completed"] = a.downloadCompleteDateTime->secondsSince1970;
  if (a.manifest) {
    doc["bandwidth"] = a.chosenBandwidth;
    doc["segments_done"] = a.segmentsDone;
    doc["segments_total"] = a.segmentsTotal;
  }
  if (a.lastError) doc["error"] = errorJson(*a.lastError);
  return doc;
}

nlohmann::json feedsJson(HostRuntime& host) {
  auto& m = host.manager();
  nlohmann::json feeds = nlohmann::json::array();
  std::map<std::string, std::string> assetIds;
  for (const auto& a : host.listAssets()) assetIds[a.uuid] = a.assetID;
  auto named = [&assetIds](const std::string& uuid) {
    auto it = assetIds.find(uuid);
    return it == assetIds.end() || it->second.empty() ? uuid : it->second;
  };
  for (const auto& feed : host.trackedFeeds()) {
    const auto uuids = m.itemsInTrackingFeed(feed);
    const auto tracked = static_cast<std::size_t>(std::max(0, m.numberOfItemsInFeed(feed)));
    nlohmann::json items = nlohmann::json::array(), deferred = nlohmann::json::array();
    for (std::size_t i = 0; i < uuids.size(); ++i)
      (i < tracked ? items : deferred).push_back(named(uuids[i]));
    feeds.push_back({{"feed", feed},
                     {"max_items", m.maxItemsPerFeed(feed)},
                     {"autodelete", m.autoDeleteForFeed(feed)},
                     {"max_bitrate", m.maxBitrateForFeed(feed)},
                     {"rules_from", host.rulesFrom(feed)},
                     {"items", items},
                     {"deferred", deferred}});
  }
  return feeds;
}

FeedMembership feedMembership(HostRuntime& host) {
  auto& m = host.manager();
  FeedMembership places;
  for (const auto& feed : host.trackedFeeds()) {
    const auto uuids = m.itemsInTrackingFeed(feed);
    const auto tracked = static_cast<std::size_t>(std::max(0, m.numberOfItemsInFeed(feed)));
    for (std::size_t i = 0; i < uuids.size(); ++i) places[uuids[i]] = {feed, i >= tracked};
  }
  return places;
}

nlohmann::json itemJson(const AssetInfo& a, const FeedMembership& membership) {
  nlohmann::json doc = assetJson(a);
  auto it = membership.find(a.uuid);
  doc["feed"] = it == membership.end() ? nlohmann::json(nullptr) : nlohmann::json(it->second.feed);
  doc["deferred"] = it != membership.end() && it->second.deferred;
  return doc;
}

nlohmann::json itemsJson(HostRuntime& host, const std::string& onlyFeed) {
  const FeedMembership places = feedMembership(host);
  auto assets = host.listAssets();
  std::stable_sort(assets.begin(), assets.end(), [](const AssetInfo& a, const AssetInfo& b) {
    return a.creationDate < b.creationDate;
  });
  nlohmann::json items = nlohmann::json::array();
  for (const auto& a : assets) {
    if (a.state == AssetState::kGone) continue;
    auto it = places.find(a.uuid);
    const std::string feed = it == places.end() ? std::string() : it->second.feed;
    if (!onlyFeed.empty() && feed != onlyFeed) continue;
    items.push_back(itemJson(a, places));
  }
  return items;
}

nlohmann::json eventsJson(const HostEvents& events) {
  auto notes = [](const std::vector<AssetNote>& list) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& n : list)
      array.push_back({{"uuid", n.uuid}, {"asset_id", n.assetID}, {"description", n.description}});
    return array;
  };
  return {{"added", notes(events.added)},
          {"deferred", notes(events.deferred)},
          {"deleted", events.deleted},
          {"syncs_finished", events.syncsFinished}};
}

nlohmann::json errorJson(const zolvani::Error& error) {
  return {{"domain", error.domain},
          {"code", error.code},
          {"description", error.localizedDescription()}};
}

nlohmann::json valueJson(const zolvani::Value& value) {
  if (const auto* asset = value.asAsset())
    return *asset ? nlohmann::json((*asset)->uuid()) : nullptr;
  return value.toJson();
}

namespace {

constexpr std::string_view kTransportErrorLine = "Received error from network request: ";

// The error an Error::describe() text describes; none when it does not read so.
std::optional<Error> errorFromDescription(const std::string& text) {
  const auto space = text.find(' ');
  const auto colon = text.find(": ", space == std::string::npos ? 0 : space);
  if (space == std::string::npos || colon == std::string::npos || space == 0) return std::nullopt;
  const std::string code = text.substr(space + 1, colon - space - 1);
  char* end = nullptr;
  const long long value = std::strtoll(code.c_str(), &end, 10);
  if (code.empty() || *end != '\0') return std::nullopt;
  return Error::make(text.substr(0, space), value, text.substr(colon + 2));
}

}  // namespace

PushOutcome judgePushLog(const std::vector<LogLine>& lines) {
  const std::string domain(kZolvaniSubscriptionManagerErrorDomain);
  for (const auto& l : lines) {
    const std::string& t = l.message;
    if (t.find("Push request was successful") != std::string::npos) return {true, true, {}};
    if (auto at = t.find("Received an internal error report from the server: ");
        at != std::string::npos) {
      // "...: <text>(<code>)"
      std::string rest = t.substr(at + 51);
      std::int64_t code = -3;
      if (auto open = rest.rfind('('); open != std::string::npos && rest.back() == ')') {
        code = std::strtoll(rest.c_str() + open + 1, nullptr, 10);
        rest = rest.substr(0, open);
      }
      return {true, false, Error::make(domain, code, rest)};
    }
    if (auto at = t.find("Received an unexpected status code from the server: ");
        at != std::string::npos) {
      const long long status = std::strtoll(t.c_str() + at + 52, nullptr, 10);
      const std::int64_t code = status == 403 ? -1 : status == 404 ? -2 : -3;
      return {true, false,
              Error::make(domain, code, "The server answered HTTP " + std::to_string(status))};
    }
    // "...: <domain> <code>: <description>", the transport's error as it was.
    if (auto at = t.find(kTransportErrorLine); at != std::string::npos) {
      if (auto error = errorFromDescription(t.substr(at + kTransportErrorLine.size())))
        return {true, false, std::move(error)};
    }
    for (const char* failure :
         {"Received error from network request", "Response from server was nil",
          "Attempted to lookup subscriptions while offline",
          "Attempted to lookup subscriptions before starting",
          "Cannot complete push update request"}) {
      if (auto at = t.find(failure); at != std::string::npos)
        return {true, false, Error::make(domain, -3, t.substr(at))};
    }
  }
  return {};
}

}  // namespace zsm
