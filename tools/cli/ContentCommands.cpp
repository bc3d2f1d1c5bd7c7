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
