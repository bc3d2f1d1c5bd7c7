// feeds, items, deferred and library: what the device holds, read through the
// manager's feed store entry points and the engine's asset list; and the
// retrying and forgetting of failed items.
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>

#include "CliError.h"
#include "Commands.h"
#include "ExitStatus.h"
#include "LibraryView.h"
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
    // Why a download failed, as the engine recorded it when it happened.
    if (a.state == AssetState::kFailed && i.contains("error"))
      out.line("    why: " + i["error"]["description"].get<std::string>());
  }
  if (std::any_of(items.begin(), items.end(),
                  [](const nlohmann::json& i) { return i["state"] == "failed"; }))
    out.line(
        "(`zsm items retry --all` tries the failed downloads again; `zsm items forget ID` "
        "removes one)");
  return 0;
}

namespace {

// The assets the command names: by asset identifier or UUID, or every failed
// one with `all`. A name that matches nothing is an error.
std::optional<Error> chooseItems(HostRuntime& host, const ItemsActionOptions& options,
                                 bool onlyFailed, std::vector<AssetInfo>* chosen) {
  const auto assets = host.listAssets();
  if (options.all) {
    for (const auto& a : assets)
      if (a.state == AssetState::kFailed || !onlyFailed) chosen->push_back(a);
    return std::nullopt;
  }
  for (const auto& id : options.ids) {
    auto it = std::find_if(assets.begin(), assets.end(), [&](const AssetInfo& a) {
      return a.state != AssetState::kGone && (a.uuid == id || a.assetID == id);
    });
    if (it == assets.end())
      return cliError(kCliErrorUsage,
                      "no item \"" + id + "\" on this device (`zsm items` lists them)");
    if (onlyFailed && it->state != AssetState::kFailed)
      return cliError(kCliErrorUsage, "item \"" + id + "\" has not failed (it is " +
                                          std::string(reference::assetStateName(it->state)) + ")");
    chosen->push_back(*it);
  }
  return std::nullopt;
}

nlohmann::json namesOf(const std::vector<AssetInfo>& assets) {
  nlohmann::json names = nlohmann::json::array();
  for (const auto& a : assets) names.push_back(a.assetID.empty() ? a.uuid : a.assetID);
  return names;
}

std::optional<Error> checkNamed(const ItemsActionOptions& options) {
  if (options.all == !options.ids.empty())
    return cliError(kCliErrorUsage, "name the items (asset identifier or UUID) or give --all");
  return std::nullopt;
}

}  // namespace

int runItemsRetry(const CommandContext& context, const ItemsActionOptions& options) {
  const Output out = context.output();
  if (auto error = checkNamed(options)) return out.fail(*error);
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host)) return out.fail(*error);
  std::vector<AssetInfo> chosen;
  if (auto error = chooseItems(*host, options, /*onlyFailed=*/true, &chosen))
    return out.fail(*error);
  nlohmann::json doc = {{"ok", true}, {"retried", namesOf(chosen)}};
  if (chosen.empty()) {
    out.document(doc);
    out.line("no failed downloads to retry");
    return 0;
  }
  // The engine takes a failed asset back into its queue when it is queued
  // again; the transfers run while this command follows them.
  std::optional<Error> refused;
  for (const auto& a : chosen) {
    auto asset = host->roles().assets->assetWithUUID(a.uuid, 0);
    if (!asset) continue;
    host->roles().downloadEngine->addToQueue(asset, UINT64_MAX,
                                             [&refused](bool ok, std::optional<Error> error) {
                                               if (!ok && error && !refused)
                                                 refused = std::move(error);
                                             });
    out.line("retrying " + (a.assetID.empty() ? a.uuid : a.assetID));
  }
  if (refused) return out.fail(*refused);
  bool drained = false;
  auto assets = watchDownloads(*host, !out.json(), options.watchTimeout, &drained);
  refreshLibrary(context, *host);
  doc["downloads"] = downloadsSummary(assets, drained, host->failedDownloads());
  if (auto failed = downloadsOutcome(doc["downloads"], options.watchTimeout)) {
    if (!out.json()) return out.fail(*failed);
    doc["ok"] = false;
    doc["error"] = errorJson(*failed);
    out.document(doc);
    std::cerr << "error: " << failed->describe() << "\n";
    return exitStatusFor(*failed);
  }
  out.document(doc);
  return 0;
}

int runItemsForget(const CommandContext& context, const ItemsActionOptions& options) {
  const Output out = context.output();
  if (auto error = checkNamed(options)) return out.fail(*error);
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  std::vector<AssetInfo> chosen;
  // `forget --all` forgets the failed ones only: it clears what retry would try.
  if (auto error = chooseItems(*host, options, /*onlyFailed=*/options.all, &chosen))
    return out.fail(*error);
  std::optional<Error> failure;
  for (const auto& a : chosen) {
    auto asset = host->roles().assets->assetWithUUID(a.uuid, 0);
    if (!asset) continue;
    // Reason 0, as for items removed with their feed: the engine deletes the
    // files and the item leaves its feed's record.
    asset->deleteAssetWithReason(0, [&failure](bool ok, std::optional<Error> error) {
      if (!ok && error && !failure) failure = std::move(error);
    });
    out.line("forgot " + (a.assetID.empty() ? a.uuid : a.assetID));
  }
  if (failure) return out.fail(*failure);
  refreshLibrary(context, *host);
  out.document({{"ok", true}, {"forgotten", namesOf(chosen)}});
  if (chosen.empty()) out.line("no failed downloads to forget");
  return 0;
}

void refreshLibrary(const CommandContext& context, HostRuntime& host) {
  std::vector<LibraryEntry> entries;
  if (auto error = updateLibrary(host, context.paths.library(), &entries))
    std::cerr << "warning: the library view was not updated: " << error->describe() << "\n";
}

int runLibrary(const CommandContext& context) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  std::vector<LibraryEntry> entries;
  if (auto error = updateLibrary(*host, context.paths.library(), &entries)) return out.fail(*error);
  out.document(libraryJson(context.paths.library(), entries));
  out.line("library: " + context.paths.library().string());
  if (entries.empty()) out.line("  (no finished downloads yet)");
  for (const auto& e : entries)
    out.line("  " + e.link.lexically_relative(context.paths.library()).string());
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
