// feeds, items and deferred: what the device holds, read through the manager's
// feed store entry points and the engine's asset list.
#include <algorithm>
#include <map>

#include "Commands.h"
#include "ProgressBoard.h"

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

nlohmann::json itemsJson(HostRuntime& host, const std::string& onlyFeed) {
  auto& m = host.manager();
  std::map<std::string, std::pair<std::string, bool>> feedOf;  // uuid -> (feed, deferred)
  for (const auto& feed : host.trackedFeeds()) {
    const auto uuids = m.itemsInTrackingFeed(feed);
    const auto tracked = static_cast<std::size_t>(std::max(0, m.numberOfItemsInFeed(feed)));
    for (std::size_t i = 0; i < uuids.size(); ++i) feedOf[uuids[i]] = {feed, i >= tracked};
  }
  auto assets = host.listAssets();
  std::stable_sort(assets.begin(), assets.end(), [](const AssetInfo& a, const AssetInfo& b) {
    return a.creationDate < b.creationDate;
  });
  nlohmann::json items = nlohmann::json::array();
  for (const auto& a : assets) {
    if (a.state == AssetState::kGone) continue;
    auto it = feedOf.find(a.uuid);
    const std::string feed = it == feedOf.end() ? std::string() : it->second.first;
    if (!onlyFeed.empty() && feed != onlyFeed) continue;
    nlohmann::json doc = assetJson(a);
    doc["feed"] = feed.empty() ? nlohmann::json(nullptr) : nlohmann::json(feed);
    doc["deferred"] = it != feedOf.end() && it->second.second;
    items.push_back(std::move(doc));
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

namespace {

std::string rulesFromText(const std::string& source) {
  if (source == "server") return "rules from the server, at the last sync";
  if (source == "subscribe")
    return "rules given to `zsm subscribe`, until the server sends its own";
  if (source == "settings") return "rules from the global settings, until the server sends its own";
  return "origin of the rules not recorded";
}

}  // namespace

int runFeeds(const CommandContext& context) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  const nlohmann::json feeds = feedsJson(*host);
  out.document({{"feeds", feeds}});
  if (feeds.empty()) out.line("no feeds tracked on this device");
  for (const auto& f : feeds) {
    const auto bitrate = f["max_bitrate"].get<std::int64_t>();
    out.line(f["feed"].get<std::string>() + ": max items " + f["max_items"].dump() +
             ", auto-delete " + (f["autodelete"].get<bool>() ? "on" : "off") + ", max bitrate " +
             (bitrate == INT64_MAX ? std::string("none") : std::to_string(bitrate)) + "  (" +
             rulesFromText(f["rules_from"].get<std::string>()) + ")");
    for (const auto& i : f["items"]) out.line("    " + i.get<std::string>());
    for (const auto& i : f["deferred"]) out.line("    " + i.get<std::string>() + "  (deferred)");
  }
  return 0;
}

int runItems(const CommandContext& context, const ItemsOptions& options) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  const nlohmann::json items = itemsJson(*host, options.feed);
  out.document({{"items", items}});
  if (items.empty()) out.line("no items");
  for (const auto& i : items) {
    AssetInfo a;
    a.uuid = i["uuid"].get<std::string>();
    a.assetID = i["asset_id"].get<std::string>();
    a.fractionComplete = i["fraction"].get<double>();
    a.bytesDone = i["bytes_done"].get<std::uint64_t>();
    a.bytesTotal = i["bytes_total"].get<std::uint64_t>();
    a.manifest = i["stream"].get<bool>();
    for (AssetState s : {AssetState::kCreated, AssetState::kQueued, AssetState::kTransferring,
                         AssetState::kComplete, AssetState::kFailed})
      if (reference::assetStateName(s) == i["state"].get<std::string>()) a.state = s;
    if (a.manifest) {
      a.segmentsDone = i.value("segments_done", 0);
      a.segmentsTotal = i.value("segments_total", 0);
    }
    const std::string where =
        i["feed"].is_null()
            ? std::string("direct")
            : i["feed"].get<std::string>() + (i["deferred"].get<bool>() ? ", deferred" : "");
    out.line(ProgressBoard::lineFor(a, 20) + "  [" + where + "] " +
             i["description"].get<std::string>());
    if (!i["file"].get<std::string>().empty()) out.line("    " + i["file"].get<std::string>());
  }
  return 0;
}

int runDeferred(const CommandContext& context) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  const auto ids = host->manager().deferredEpisodes();
  host->pumpFor(std::chrono::milliseconds(50));
  out.document({{"deferred", ids}});
  if (ids.empty()) out.line("nothing is deferred");
  for (const auto& id : ids) out.line(id);
  return 0;
}

}  // namespace zsm
