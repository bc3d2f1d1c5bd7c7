// subscribe, unsubscribe, subscriptions and publish: the manager's server
// operations, one per command.
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "CliError.h"
#include "Commands.h"
#include "zolvani/subscription/Constants.h"

namespace zsm {

using namespace zolvani;

namespace {

nlohmann::json rulesJson(ZolvaniSubscriptionManager& m, const std::string& feed) {
  return {{"max_items", m.maxItemsPerFeed(feed)},
          {"autodelete", m.autoDeleteForFeed(feed)},
          {"max_bitrate", m.maxBitrateForFeed(feed)}};
}

}  // namespace

int runSubscribe(const CommandContext& context, const SubscribeOptions& options) {
  const Output out = context.output();
  if (options.feed.empty())
    return out.fail(cliError(kCliErrorUsage, "a feed identifier is needed"));
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host)) return out.fail(*error);
  auto& m = host->manager();
  bool ok = false;
  std::optional<Error> failure;
  const bool withRules = options.maxItems || options.autodelete || options.maxBitrate;
  auto waited = runToCompletion(
      *host,
      [&](std::function<void()> done) {
        auto completion = [&, done](bool success, std::optional<Error> error) {
          ok = success;
          failure = std::move(error);
          done();
        };
        if (withRules) {
          // Rules not given come from the global settings, as the plain form does.
          m.registerForSubscription(options.feed,
                                    options.maxItems.value_or(m.maximumSubscriptionItemsPerFeed()),
                                    options.autodelete.value_or(m.autodeleteOldItems()),
                                    options.maxBitrate.value_or(m.maxBitrate()), completion);
        } else {
          m.registerForSubscription(options.feed, completion);
        }
      },
      context.timeout, "subscribe");
  if (waited) return out.fail(*waited);
  if (!ok) return out.fail(failure.value_or(cliError(kCliErrorServer, "the subscription failed")));
  // Deletions made by the new rules arrive as notifications on the main queue.
  host->settle(std::chrono::milliseconds(100));
  host->noteRulesFrom(options.feed, withRules ? "subscribe" : "settings");
  const nlohmann::json rules = rulesJson(m, options.feed);
  nlohmann::json doc = {{"ok", true}, {"feed", options.feed}, {"rules", rules}};
  doc["deleted"] = host->events().deleted;
  out.document(doc);
  out.line("subscribed to " + options.feed + " (max items " + rules["max_items"].dump() +
           ", auto-delete " + (rules["autodelete"].get<bool>() ? "on" : "off") + ", max bitrate " +
           rules["max_bitrate"].dump() + ")");
  for (const auto& uuid : host->events().deleted) out.line("  deleted by the new rules: " + uuid);
  // The protocol makes the server the authority on a feed's rules.
  out.line("note: these rules hold until the next sync; a server that has rules for " +
           options.feed + " replaces them then (`zsm feeds` shows where each rule came from)");
  return 0;
}

int runUnsubscribe(const CommandContext& context, const UnsubscribeOptions& options) {
  const Output out = context.output();
  if (options.all == !options.feed.empty())
    return out.fail(cliError(kCliErrorUsage, "give either a feed identifier or --all"));
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host)) return out.fail(*error);
  auto& m = host->manager();
  std::vector<std::string> feeds;
  bool ok = false;
  std::optional<Error> failure;
  if (options.all) {
    // Removing every subscription never completes when the server lists none, so
    // the list is read first and an empty one ends the command here.
    std::optional<Value::Array> list;
    auto waited = runToCompletion(
        *host,
        [&](std::function<void()> done) {
          m.subscriptionsOnComplete(
              [&, done](std::optional<Value::Array> l, std::optional<Error> e) {
                list = std::move(l);
                failure = std::move(e);
                done();
              });
        },
        context.timeout, "the subscription lookup");
    if (waited) return out.fail(*waited);
    if (failure) return out.fail(*failure);
    if (list)
      for (const auto& v : *list) feeds.push_back(v.stringValue());
    if (feeds.empty()) {
      out.document({{"ok", true}, {"unsubscribed", nlohmann::json::array()}});
      out.line("no subscriptions to remove");
      return 0;
    }
    // The operation looks the list up again; runToCompletion waits for a new
    // second so that the server does not take it for a replay of the lookup above.
    waited = runToCompletion(
        *host,
        [&](std::function<void()> done) {
          m.unregisterSubscriptionsOnComplete([&, done](bool success, std::optional<Error> e) {
            // The operation reports success even when one feed failed; the error
            // is what tells.
            ok = success && !e;
            failure = std::move(e);
            done();
          });
        },
        context.timeout, "unsubscribe --all");
    if (waited) return out.fail(*waited);
  } else {
    feeds.push_back(options.feed);
    auto waited = runToCompletion(
        *host,
        [&](std::function<void()> done) {
          m.unregisterForSubscription(options.feed,
                                      [&, done](bool success, std::optional<Error> e) {
                                        ok = success;
                                        failure = std::move(e);
                                        done();
                                      });
        },
        context.timeout, "unsubscribe");
    if (waited) return out.fail(*waited);
  }
  if (!ok) return out.fail(failure.value_or(cliError(kCliErrorServer, "unsubscribe failed")));
  host->settle(std::chrono::milliseconds(100));
  const auto deleted = host->events().deleted;
  out.document({{"ok", true}, {"unsubscribed", feeds}, {"deleted", deleted}});
  for (const auto& f : feeds) out.line("unsubscribed from " + f);
  if (!deleted.empty()) out.line("  " + std::to_string(deleted.size()) + " asset(s) deleted");
  return 0;
}

int runSubscriptions(const CommandContext& context) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  std::optional<Value::Array> list;
  std::optional<Error> failure;
  auto waited = runToCompletion(
      *host,
      [&](std::function<void()> done) {
        host->manager().subscriptionsOnComplete(
            [&, done](std::optional<Value::Array> l, std::optional<Error> e) {
              list = std::move(l);
              failure = std::move(e);
              done();
            });
      },
      context.timeout, "the subscription lookup");
  if (waited) return out.fail(*waited);
  if (failure) return out.fail(*failure);
  nlohmann::json feeds = nlohmann::json::array();
  if (list)
    for (const auto& v : *list) feeds.push_back(valueJson(v));
  out.document({{"subscriptions", feeds}});
  if (feeds.empty()) out.line("no subscriptions");
  for (const auto& f : feeds) out.line(f.is_string() ? f.get<std::string>() : f.dump());
  return 0;
}

// --- publish ----------------------------------------------------------------------

int runPublish(const CommandContext& context, const PublishOptions& options) {
  const Output out = context.output();
  if (options.downloadURL.empty() && options.streamURL.empty())
    return out.fail(cliError(kCliErrorUsage, "publish needs --url or --stream-url"));
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host)) return out.fail(*error);
  Value::Map item;
  auto put = [&item](const char* key, Value v) { item.emplace(key, std::move(v)); };
  if (!options.title.empty()) put("title", options.title);
  if (!options.desc.empty()) put("desc", options.desc);
  if (options.contentSize) put("contentSize", *options.contentSize);
  if (options.contentSizeIsEstimate) put("contentSizeIsEstimate", *options.contentSizeIsEstimate);
  if (options.duration) put("duration", *options.duration);
  if (!options.downloadURL.empty()) put("downloadURL", options.downloadURL);
  if (!options.streamURL.empty()) put("streamURL", options.streamURL);
  if (options.downloadEnabled) put("downloadEnabled", *options.downloadEnabled);
  if (options.contentType) put("contentType", *options.contentType);

  host->waitForFreshSecond();
  const std::size_t mark = host->logMark();
  host->manager().generatePushUpdate(item);
  PushOutcome outcome;
  host->pumpUntil(
      [&] {
        outcome = judgePushLog(host->logSince(mark));
        return outcome.finished;
      },
      context.timeout);
  if (!outcome.finished)
    return out.fail(cliError(kCliErrorTimeout, "the push update got no answer in time"));
  if (!outcome.ok) return out.fail(*outcome.error);

  // The server names the item; it reaches this device as a direct item at the
  // next sync.
  out.document({{"ok", true}, {"item", valueJson(Value(item))}});
  out.line("published \"" + options.title + "\"; the server notifies the subscribed devices");
  return 0;
}

}  // namespace zsm
