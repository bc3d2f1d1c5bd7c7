// sync and wake: a catalog sync on request, or driven the way the operating
// system would wake the application; with --watch the command stays to follow
// the downloads the sync queued.
#include <iostream>
#include <map>
#include <set>
#include <thread>

#include "zolvani/subscription/Constants.h"

#include "CliError.h"
#include "Commands.h"
#include "ExitStatus.h"
#include "ProgressBoard.h"

namespace zsm {

using namespace zolvani;
using reference::AssetInfo;
using reference::AssetState;

namespace {

bool busy(const std::vector<AssetInfo>& assets) {
  for (const auto& a : assets)
    if (a.state == AssetState::kQueued || a.state == AssetState::kTransferring) return true;
  return false;
}

// Prints the manager's announcements as they arrive (human mode only).
void announceEvents(HostRuntime& host, const Output& out) {
  if (out.json()) return;
  host.setEventListener([](const std::string& line) { std::cout << "  " << line << "\n"; });
}

// The library says so, item by item, when a sync leaves an item out for being
// older than the last sync.
int countOlderThanLastSync(const std::vector<LogLine>& lines) {
  int count = 0;
  for (const auto& l : lines)
    count += l.message.find("The asset is older than the last sync time") != std::string::npos;
  return count;
}

// A failure from an earlier run does not fail this one, but it is not kept quiet.
void noteEarlierFailures(const Output& out, const nlohmann::json& summary) {
  if (const int count = summary["failed_before"].get<int>(); count > 0)
    out.line("note: " + std::to_string(count) +
             " download(s) failed in an earlier run; `zsm items` says why, `zsm items retry "
             "--all` tries them again, `zsm items forget ID` removes one");
}

// The command's document (with the downloads' outcome) comes first, then the error.
int failWithDocument(const Output& out, nlohmann::json doc, const Error& error) {
  if (!out.json()) return out.fail(error);
  doc["ok"] = false;
  doc["error"] = errorJson(error);
  out.document(doc);
  std::cerr << "error: " << error.describe() << "\n";
  return exitStatusFor(error);
}

}  // namespace

nlohmann::json downloadsSummary(const std::vector<AssetInfo>& assets, bool drained,
                                const std::map<std::string, AssetInfo>& failedThisRun) {
  // A failure counts for the run in which the download failed; one left over
  // from an earlier run is reported beside it, so that a script can tell a
  // download that just failed from one that failed last week.
  int complete = 0, failed = 0, pending = 0, failedBefore = 0;
  for (const auto& a : assets) {
    if (a.state == AssetState::kComplete)
      ++complete;
    else if (a.state == AssetState::kFailed && failedThisRun.count(a.uuid))
      ++failed;
    else if (a.state == AssetState::kFailed)
      ++failedBefore;
    else if (a.state != AssetState::kGone)
      ++pending;
  }
  return {{"drained", drained},
          {"complete", complete},
          {"failed", failed},
          {"pending", pending},
          {"failed_before", failedBefore}};
}

std::optional<Error> downloadsOutcome(const nlohmann::json& summary,
                                      std::chrono::milliseconds timeout) {
  if (!summary["drained"].get<bool>())
    return cliError(kCliErrorDownloads, "downloads were still running after " +
                                            std::to_string(timeout.count() / 1000) + " s");
  if (const int count = summary["failed"].get<int>(); count > 0)
    return cliError(kCliErrorDownloads,
                    std::to_string(count) +
                        " download(s) failed; `zsm items` says why, `zsm items retry --all` "
                        "tries them again");
  return std::nullopt;
}

std::vector<AssetInfo> watchDownloads(HostRuntime& host, bool showBoard,
                                      std::chrono::milliseconds timeout, bool* drained) {
  using Clock = std::chrono::steady_clock;
  ProgressBoard board(stdout, ProgressBoard::isTerminal(stdout));
  // What had finished, well or badly, before this command is no news on the board.
  std::set<std::string> before = host.completeBefore();
  before.insert(host.failedBefore().begin(), host.failedBefore().end());
  board.setAlreadyDone(std::move(before));
  const auto deadline = Clock::now() + timeout;
  // A finished download lets the manager promote a deferred item on its
  // processing queue a moment later; the queue counts as drained only after it
  // stayed empty for this long.
  constexpr auto kSettle = std::chrono::milliseconds(600);
  bool idle = false;
  Clock::time_point idleSince = Clock::now();
  std::vector<AssetInfo> assets;
  *drained = false;
  // The manager's announcements go above the board while it is shown.
  if (showBoard)
    host.setEventListener([&board](const std::string& line) { board.note("  " + line); });
  while (true) {
    host.pumpFor(std::chrono::milliseconds(100));
    assets = host.listAssets();
    // A failed feed item is removed by the library at once; it stays on the
    // board (and in the count) as failed.
    auto failures = host.failedDownloads();
    std::vector<AssetInfo> shown;
    for (auto& a : assets) {
      auto failed = failures.find(a.uuid);
      if (failed != failures.end()) {
        if (a.state == AssetState::kGone) a = failed->second;
        failures.erase(failed);
      }
      if (a.state != AssetState::kGone) shown.push_back(a);
    }
    for (auto& [uuid, a] : failures) {
      shown.push_back(a);
      assets.push_back(std::move(a));
    }
    if (showBoard) board.update(shown);
    const auto now = Clock::now();
    if (busy(assets)) {
      idle = false;
    } else if (!idle) {
      idle = true;
      idleSince = now;
    } else if (now - idleSince >= kSettle) {
      *drained = true;
      break;
    }
    if (now >= deadline) break;
  }
  if (showBoard) {
    board.finish();
    host.setEventListener([](const std::string& line) { std::cout << "  " << line << "\n"; });
  }
  return assets;
}

int runSync(const CommandContext& context, const SyncOptions& options) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host)) return out.fail(*error);
  announceEvents(*host, out);
  if (options.since) {
    // The library has no setter for this date; the host moves it through the
    // exported key, as it always may.
    const double since = host->roles().secureClock->date().secondsSince1970 - *options.since;
    host->platform().userDefaults->setDate(LastSyncKey, Date(since));
    host->platform().userDefaults->synchronize();
    out.line("catching up: items published since " + isoDate(since) + " count as new");
  }
  const std::optional<Date> lastSyncBefore = host->manager().lastSubscriptionSyncTime();
  const bool firstSync = !host->everSynced();
  const std::size_t mark = host->logMark();
  bool ok = false;
  std::optional<Value::Array> subscriptions;
  std::optional<Error> failure;
  out.line(std::string("syncing with ") + host->options().config.serverUrl +
           (options.force ? " (forced)" : "") + "...");
  auto waited = runToCompletion(
      *host,
      [&](std::function<void()> done) {
        host->manager().syncSubscriptionsWithKeelhallNowUsingForce(
            options.force,
            [&, done](bool success, std::optional<Value::Array> list, std::optional<Error> e) {
              ok = success;
              subscriptions = std::move(list);
              failure = std::move(e);
              done();
            });
      },
      context.timeout, "the sync");
  if (waited) return out.fail(*waited);
  if (!ok) {
    return out.fail(failure.value_or(cliError(
        kCliErrorIncomplete, "the manager did not sync now (not configured, or already syncing)")));
  }
  // Direct items are processed beside the feeds and announced on their own;
  // a sync of direct items alone completes before they are.
  host->settle(std::chrono::milliseconds(300));
  const int skippedAsOld = countOlderThanLastSync(host->logSince(mark));

  nlohmann::json doc = {{"ok", true}};
  nlohmann::json feeds = nlohmann::json::array();
  if (subscriptions)
    for (const auto& v : *subscriptions) feeds.push_back(valueJson(v));
  doc["subscriptions"] = feeds;
  doc["skipped_as_old"] = skippedAsOld;
  if (auto last = host->manager().lastSubscriptionSyncTime())
    doc["last_sync"] = last->secondsSince1970;
  std::optional<Error> failed;
  if (options.watch) {
    bool drained = false;
    out.line("downloads:");
    auto assets = watchDownloads(*host, !out.json(), options.watchTimeout, &drained);
    doc["downloads"] = downloadsSummary(assets, drained, host->failedDownloads());
    failed = downloadsOutcome(doc["downloads"], options.watchTimeout);
    noteEarlierFailures(out, doc["downloads"]);
  }
  refreshLibrary(context, *host);
  const HostEvents events = host->events();
  doc["events"] = eventsJson(events);
  if (!options.watch) {
    // Transfers run only while a zsm command that may transfer runs (not the
    // listings); they resume where they stopped the next time one does.
    const auto pending = downloadsSummary(host->listAssets(), false, {})["pending"].get<int>();
    doc["pending_downloads"] = pending;
    if (pending > 0)
      out.line(std::to_string(pending) +
               " download(s) waiting; they go on with the next sync (`zsm sync --watch` follows "
               "them to the end)");
  }
  out.line("sync finished: " + std::to_string(events.added.size()) + " added, " +
           std::to_string(events.deferred.size()) + " deferred, " +
           std::to_string(events.deleted.size()) + " deleted; subscribed to " +
           std::to_string(feeds.size()) + " feed(s)");
  // Items older than the last sync are skipped by design; a user who expected
  // them is told how to ask for them.
  if (skippedAsOld > 0 && lastSyncBefore) {
    out.line("hint: " + std::to_string(skippedAsOld) +
             " item(s) were skipped as older than the last sync (" +
             isoDate(lastSyncBefore->secondsSince1970) +
             "); `zsm sync --since 7d` fetches what came out in the last 7 days");
  } else if (firstSync && !options.since && lastSyncBefore) {
    // The server leaves out what is older than the date asked for, so on a
    // device's first sync the skipped items never even arrive.
    out.line(
        "hint: this device's first sync asked only for items published since its first "
        "launch (" +
        isoDate(lastSyncBefore->secondsSince1970) +
        "); `zsm sync --since 7d` fetches what came out in the last 7 days");
  }
  if (failed) return failWithDocument(out, doc, *failed);
  out.document(doc);
  return 0;
}

int runWake(const CommandContext& context, const WakeOptions& options) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host)) return out.fail(*error);
  announceEvents(*host, out);
  auto answer = std::make_shared<std::optional<BackgroundFetchResult>>();
  int handlers = 0;
  bool accepted = true;
  // The engine hands the wake to every registered handler; the answer may come
  // on any thread, so it is passed back through the main queue.
  auto mainQueue = host->platform().mainQueue;
  auto completion = [answer, mainQueue](BackgroundFetchResult r) {
    mainQueue->async([answer, r] { *answer = r; });
  };
  host->waitForFreshSecond();
  if (options.push) {
    Value::Map payload{{"subscription_sync", Value(options.subscriptionSync)}};
    accepted = host->manager().canProcessRemotePushNotice(payload);
    handlers = host->engine().deliverRemotePush(payload, completion);
  } else {
    handlers = host->engine().deliverBackgroundFetch(completion);
  }
  // A push that asks for no sync is never answered; a short wait shows that.
  const auto wait = accepted ? context.timeout : std::chrono::milliseconds(1500);
  host->pumpUntil([answer] { return answer->has_value(); }, wait);
  nlohmann::json doc = {
      {"kind", options.push ? "push" : "fetch"}, {"handlers", handlers}, {"accepted", accepted}};
  if (answer->has_value()) {
    const auto r = **answer;
    doc["answer"] = static_cast<std::int64_t>(r);
    doc["answer_name"] = r == kBackgroundFetchResultNewData  ? "new-data"
                         : r == kBackgroundFetchResultNoData ? "no-data"
                                                             : "failed";
  } else {
    doc["answer"] = nullptr;
    doc["answer_name"] = "none";
  }
  std::optional<Error> failed;
  if (options.watch && answer->has_value()) {
    bool drained = false;
    auto assets = watchDownloads(*host, !out.json(), options.watchTimeout, &drained);
    doc["downloads"] = downloadsSummary(assets, drained, host->failedDownloads());
    failed = downloadsOutcome(doc["downloads"], options.watchTimeout);
    noteEarlierFailures(out, doc["downloads"]);
  }
  refreshLibrary(context, *host);
  doc["events"] = eventsJson(host->events());
  if (accepted && !answer->has_value())
    return out.fail(cliError(kCliErrorTimeout, "the wake was not answered in time"));
  out.line(std::string(options.push ? "push" : "fetch") + " wake delivered to " +
           std::to_string(handlers) +
           " handler(s); answer: " + doc["answer_name"].get<std::string>());
  if (failed) return failWithDocument(out, doc, *failed);
  out.document(doc);
  return 0;
}

}  // namespace zsm
