// sync and wake: a catalog sync on request, or driven the way the operating
// system would wake the application; with --watch the command stays to follow
// the downloads the sync queued.
#include <iostream>
#include <thread>

#include "CliError.h"
#include "Commands.h"
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

nlohmann::json downloadsSummary(const std::vector<AssetInfo>& assets, bool drained) {
  int complete = 0, failed = 0, pending = 0;
  for (const auto& a : assets) {
    if (a.state == AssetState::kComplete)
      ++complete;
    else if (a.state == AssetState::kFailed)
      ++failed;
    else if (a.state != AssetState::kGone)
      ++pending;
  }
  return {{"drained", drained}, {"complete", complete}, {"failed", failed}, {"pending", pending}};
}

}  // namespace

std::vector<AssetInfo> watchDownloads(HostRuntime& host, bool showBoard,
                                      std::chrono::milliseconds timeout, bool* drained) {
  using Clock = std::chrono::steady_clock;
  ProgressBoard board(stdout, ProgressBoard::isTerminal(stdout));
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
    assets = host.engine().listAssets();
    std::vector<AssetInfo> shown;
    for (const auto& a : assets)
      if (a.state != AssetState::kGone) shown.push_back(a);
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
  // Direct items are processed beside the feeds and announced on their own.
  host->pumpFor(std::chrono::milliseconds(300));

  nlohmann::json doc = {{"ok", true}};
  nlohmann::json feeds = nlohmann::json::array();
  if (subscriptions)
    for (const auto& v : *subscriptions) feeds.push_back(valueJson(v));
  doc["subscriptions"] = feeds;
  if (auto last = host->manager().lastSubscriptionSyncTime())
    doc["last_sync"] = last->secondsSince1970;
  int status = 0;
  if (options.watch) {
    bool drained = false;
    out.line("downloads:");
    auto assets = watchDownloads(*host, !out.json(), options.watchTimeout, &drained);
    doc["downloads"] = downloadsSummary(assets, drained);
    if (!drained) {
      status = out.fail(cliError(kCliErrorTimeout,
                                 "downloads were still running after " +
                                     std::to_string(options.watchTimeout.count() / 1000) + " s"));
    } else if (doc["downloads"]["failed"].get<int>() > 0) {
      std::cerr << "warning: " << doc["downloads"]["failed"].get<int>()
                << " download(s) failed; see `zsm items`\n";
    }
  }
  const HostEvents events = host->events();
  doc["events"] = eventsJson(events);
  if (status != 0) return status;
  if (!options.watch) {
    // Transfers run only while a zsm process (the engine) runs; they resume
    // where they stopped the next time.
    const auto pending = downloadsSummary(host->engine().listAssets(), false)["pending"].get<int>();
    doc["pending_downloads"] = pending;
    if (pending > 0)
      out.line(std::to_string(pending) +
               " download(s) waiting; they resume whenever zsm runs (`zsm sync --watch` follows "
               "them to the end)");
  }
  out.document(doc);
  out.line("sync finished: " + std::to_string(events.added.size()) + " added, " +
           std::to_string(events.deferred.size()) + " deferred, " +
           std::to_string(events.deleted.size()) + " deleted; subscribed to " +
           std::to_string(feeds.size()) + " feed(s)");
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
  if (options.watch && answer->has_value()) {
    bool drained = false;
    auto assets = watchDownloads(*host, !out.json(), options.watchTimeout, &drained);
    doc["downloads"] = downloadsSummary(assets, drained);
  }
  doc["events"] = eventsJson(host->events());
  if (accepted && !answer->has_value())
    return out.fail(cliError(kCliErrorTimeout, "the wake was not answered in time"));
  out.document(doc);
  out.line(std::string(options.push ? "push" : "fetch") + " wake delivered to " +
           std::to_string(handlers) +
           " handler(s); answer: " + doc["answer_name"].get<std::string>());
  return 0;
}

}  // namespace zsm
