// The C interface's asynchronous operations: each starts on the host's main
// queue and answers through a Reply, which hops back to the main queue from
// whichever thread the manager or the engine completes on, so the caller's
// callback runs once, inside zsm_host_poll.
#include <chrono>
#include <functional>

#include "CapiHost.h"
#include "HostViews.h"
#include "zolvani/subscription/Constants.h"

namespace {

using namespace zsm::capi;
using zolvani::Error;
using zolvani::Value;

// How long a push update may go without leaving its outcome in the log.
constexpr auto kPublishTimeout = std::chrono::seconds(30);
constexpr auto kPublishCheckInterval = std::chrono::milliseconds(50);

class Reply {
 public:
  Reply(zsm_host* host, zsm_result_fn fn, void* user) : state_(std::make_shared<State>()) {
    state_->inbox = host->inbox;
    state_->queue = host->runtime->platform().mainQueue;
    state_->fn = fn;
    state_->user = user;
  }

  void succeed(const nlohmann::json& json) const { deliver(std::nullopt, json); }
  void fail(const Error& error) const { deliver(error, nullptr); }

 private:
  struct State {
    std::shared_ptr<Inbox> inbox;
    // Weak: a reply waits in the queue, which must not keep itself alive.
    std::weak_ptr<zolvani::MainQueue> queue;
    zsm_result_fn fn = nullptr;
    void* user = nullptr;
    std::atomic<bool> done{false};
  };

  void deliver(std::optional<Error> error, const nlohmann::json& json) const {
    if (state_->done.exchange(true)) return;
    std::string text;
    if (!json.is_null()) text = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    auto state = state_;
    auto queue = state->queue.lock();
    if (!queue) return;
    queue->async([state, error = std::move(error), text = std::move(text)] {
      {
        std::lock_guard lock(state->inbox->mutex);
        if (state->inbox->closed) return;
      }
      if (!state->fn) return;
      if (error) {
        zsm_error e{error->domain, error->code, error->localizedDescription()};
        state->fn(state->user, &e, nullptr);
      } else {
        state->fn(state->user, nullptr, text.empty() ? nullptr : text.c_str());
      }
    });
  }

  std::shared_ptr<State> state_;
};

Error capiError(std::int64_t code, std::string description) {
  return Error::make(ZSM_ERROR_DOMAIN, code, std::move(description));
}

// Wraps a completion of the manager or the engine, which may run on any thread,
// so that `body` runs on the main queue, and only while the host is open: the
// runtime it may touch is alive then.
template <class Body>
auto onMain(zsm_host* host, Body body) {
  std::weak_ptr<zolvani::MainQueue> weakQueue = host->runtime->platform().mainQueue;
  auto inbox = host->inbox;
  return [weakQueue, inbox, body](auto... args) {
    auto queue = weakQueue.lock();
    if (!queue) return;
    queue->async([inbox, body, args...] {
      {
        std::lock_guard lock(inbox->mutex);
        if (inbox->closed) return;
      }
      body(args...);
    });
  };
}

// Starts `body` on the main queue after `delay`; a body that throws answers
// with an internal error.
void begin(zsm_host* host, const Reply& reply, std::chrono::milliseconds delay,
           std::function<void()> body) {
  auto inbox = host->inbox;
  auto task = [inbox, reply, body = std::move(body)] {
    {
      std::lock_guard lock(inbox->mutex);
      if (inbox->closed) return;
    }
    try {
      body();
    } catch (const std::exception& e) {
      reply.fail(capiError(ZSM_ERROR_INTERNAL, e.what()));
    } catch (...) {
      reply.fail(capiError(ZSM_ERROR_INTERNAL, "unexpected failure"));
    }
  };
  auto& queue = *host->runtime->platform().mainQueue;
  if (delay.count() > 0)
    queue.asyncAfter(delay, std::move(task));
  else
    queue.async(std::move(task));
}

// The server refuses a request that repeats one of the same second (it cannot
// tell it from a replay), so requests that change state wait for a new second.
std::chrono::milliseconds freshSecond(zsm_host* host) {
  std::lock_guard lock(host->requestMutex);
  return host->runtime->freshSecondDelay();
}

// A JSON object argument as a library dictionary.
bool readObject(const char* text, const char* what, Value::Map* map, zsm_error** error) {
  const auto json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object()) {
    failArgument(error, std::string(what) + " is not a JSON object");
    return false;
  }
  const Value value = Value::fromJson(json);
  if (!value.asMap()) {
    failArgument(error, std::string(what) + " is not a JSON object");
    return false;
  }
  *map = *value.asMap();
  return true;
}

nlohmann::json feedList(const std::optional<Value::Array>& list) {
  nlohmann::json feeds = nlohmann::json::array();
  if (list)
    for (const auto& v : *list) feeds.push_back(zsm::valueJson(v));
  return feeds;
}

const char* answerName(zolvani::BackgroundFetchResult r) {
  return r == zolvani::kBackgroundFetchResultNewData  ? "new-data"
         : r == zolvani::kBackgroundFetchResultNoData ? "no-data"
                                                      : "failed";
}

int subscribe(zsm_host* host, const char* feed, std::optional<std::int32_t> maxItems,
              std::optional<bool> autodelete, std::optional<std::int32_t> maxBitrate,
              zsm_result_fn callback, void* user, zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!feed) return failArgument(error, "feed is NULL");
    if (!*feed) return failArgument(error, "feed is empty");
    Reply reply(host, callback, user);
    const std::string f = feed;
    const bool withRules = maxItems || autodelete || maxBitrate;
    begin(host, reply, freshSecond(host), [=] {
      auto& m = rt->manager();
      auto done = onMain(host, [=](bool ok, std::optional<Error> e) {
        if (!ok) {
          reply.fail(e.value_or(capiError(ZSM_ERROR_SERVER, "the subscription failed")));
          return;
        }
        rt->noteRulesFrom(f, withRules ? "subscribe" : "settings");
        auto& mm = rt->manager();
        reply.succeed({{"feed", f},
                       {"rules",
                        {{"max_items", mm.maxItemsPerFeed(f)},
                         {"autodelete", mm.autoDeleteForFeed(f)},
                         {"max_bitrate", mm.maxBitrateForFeed(f)}}}});
      });
      if (withRules) {
        // Rules not given come from the global settings, as the plain form's do.
        m.registerForSubscription(f, maxItems.value_or(m.maximumSubscriptionItemsPerFeed()),
                                  autodelete.value_or(m.autodeleteOldItems()),
                                  maxBitrate.value_or(m.maxBitrate()), done);
      } else {
        m.registerForSubscription(f, done);
      }
    });
    return 0;
  });
}

}  // namespace

extern "C" {

int zsm_host_validate(zsm_host* host, zsm_result_fn callback, void* user_data, zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    Reply reply(host, callback, user_data);
    begin(host, reply, std::chrono::milliseconds(0), [=] {
      rt->manager().authenticateServerConfigurationOnComplete(
          onMain(host, [=](bool ok, std::optional<Error> e) {
            if (ok)
              reply.succeed({{"accepted", true}});
            else
              reply.fail(e.value_or(
                  capiError(ZSM_ERROR_SERVER, "the server did not accept the configuration")));
          }));
    });
    return 0;
  });
}

int zsm_host_subscribe(zsm_host* host, const char* feed, zsm_result_fn callback, void* user_data,
                       zsm_error** error) {
  return subscribe(host, feed, std::nullopt, std::nullopt, std::nullopt, callback, user_data,
                   error);
}

int zsm_host_subscribe_with_rules(zsm_host* host, const char* feed, int32_t max_items,
                                  int autodelete, int32_t max_bitrate, zsm_result_fn callback,
                                  void* user_data, zsm_error** error) {
  std::optional<std::int32_t> items, bitrate;
  std::optional<bool> del;
  if (max_items >= 0) items = max_items;
  if (autodelete >= 0) del = autodelete != 0;
  if (max_bitrate >= 0) bitrate = max_bitrate;
  if (!items && !del && !bitrate) {
    // Every rule from the settings is still a subscription with rules.
    return guarded(error, [&]() -> int {
      auto* rt = startedRuntime(host, error);
      if (!rt) return -1;
      auto& m = rt->manager();
      return subscribe(host, feed, m.maximumSubscriptionItemsPerFeed(), std::nullopt, std::nullopt,
                       callback, user_data, error);
    });
  }
  return subscribe(host, feed, items, del, bitrate, callback, user_data, error);
}

int zsm_host_unsubscribe(zsm_host* host, const char* feed, zsm_result_fn callback, void* user_data,
                         zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!feed) return failArgument(error, "feed is NULL");
    if (!*feed) return failArgument(error, "feed is empty");
    Reply reply(host, callback, user_data);
    const std::string f = feed;
    begin(host, reply, freshSecond(host), [=] {
      rt->manager().unregisterForSubscription(
          f, onMain(host, [=](bool ok, std::optional<Error> e) {
            if (ok)
              reply.succeed({{"unsubscribed", nlohmann::json::array({f})}});
            else
              reply.fail(e.value_or(capiError(ZSM_ERROR_SERVER, "unsubscribe failed")));
          }));
    });
    return 0;
  });
}

int zsm_host_unsubscribe_all(zsm_host* host, zsm_result_fn callback, void* user_data,
                             zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    Reply reply(host, callback, user_data);
    begin(host, reply, freshSecond(host), [=] {
      // Removing every subscription never completes when the server lists none,
      // so the list is read first and an empty one answers here.
      rt->manager().subscriptionsOnComplete(
          onMain(host, [=](std::optional<Value::Array> list, std::optional<Error> e) {
            if (e) return reply.fail(*e);
            const nlohmann::json feeds = feedList(list);
            if (feeds.empty()) return reply.succeed({{"unsubscribed", feeds}});
            rt->manager().unregisterSubscriptionsOnComplete(
                onMain(host, [=](bool ok, std::optional<Error> failure) {
                  // Success is reported even when one feed failed; the error tells.
                  if (ok && !failure)
                    reply.succeed({{"unsubscribed", feeds}});
                  else
                    reply.fail(failure.value_or(capiError(ZSM_ERROR_SERVER, "unsubscribe failed")));
                }));
          }));
    });
    return 0;
  });
}

int zsm_host_subscriptions(zsm_host* host, zsm_result_fn callback, void* user_data,
                           zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    Reply reply(host, callback, user_data);
    begin(host, reply, std::chrono::milliseconds(0), [=] {
      rt->manager().subscriptionsOnComplete(
          [=](std::optional<Value::Array> list, std::optional<Error> e) {
            if (e)
              reply.fail(*e);
            else
              reply.succeed(feedList(list));
          });
    });
    return 0;
  });
}

int zsm_host_sync(zsm_host* host, int force, zsm_result_fn callback, void* user_data,
                  zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    Reply reply(host, callback, user_data);
    const bool forced = force != 0;
    begin(host, reply, std::chrono::milliseconds(0), [=] {
      rt->manager().syncSubscriptionsWithKeelhallNowUsingForce(
          forced,
          onMain(host, [=](bool ok, std::optional<Value::Array> list, std::optional<Error> e) {
            if (!ok) {
              reply.fail(e.value_or(capiError(
                  ZSM_ERROR_STATE,
                  "the manager did not sync now (a sync is running, or the engine has no user)")));
              return;
            }
            nlohmann::json doc = {{"subscriptions", feedList(list)}};
            if (auto last = rt->manager().lastSubscriptionSyncTime())
              doc["last_sync"] = last->secondsSince1970;
            reply.succeed(doc);
          }));
    });
    return 0;
  });
}

int zsm_host_push_notice(zsm_host* host, const char* payload_json, zsm_result_fn callback,
                         void* user_data, zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!payload_json) return failArgument(error, "payload_json is NULL");
    Value::Map payload;
    if (!readObject(payload_json, "payload_json", &payload, error)) return -1;
    Reply reply(host, callback, user_data);
    begin(host, reply, std::chrono::milliseconds(0), [=] {
      const bool accepted = rt->manager().canProcessRemotePushNotice(payload);
      const int handlers =
          rt->engine().deliverRemotePush(payload, [=](zolvani::BackgroundFetchResult r) {
            reply.succeed({{"accepted", true},
                           {"answer", static_cast<std::int64_t>(r)},
                           {"answer_name", answerName(r)}});
          });
      // A push that asks for no sync is never answered; say so at once.
      if (!accepted || handlers == 0)
        reply.succeed({{"accepted", false}, {"answer", nullptr}, {"answer_name", "none"}});
    });
    return 0;
  });
}

int zsm_host_background_fetch(zsm_host* host, zsm_result_fn callback, void* user_data,
                              zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    Reply reply(host, callback, user_data);
    begin(host, reply, std::chrono::milliseconds(0), [=] {
      const int handlers = rt->engine().deliverBackgroundFetch([=](zolvani::BackgroundFetchResult
                                                                       r) {
        reply.succeed({{"answer", static_cast<std::int64_t>(r)}, {"answer_name", answerName(r)}});
      });
      if (handlers == 0)
        reply.fail(capiError(ZSM_ERROR_STATE, "no handler took the background fetch"));
    });
    return 0;
  });
}

int zsm_host_publish(zsm_host* host, const char* item_json, zsm_result_fn callback, void* user_data,
                     zsm_error** error) {
  return guarded(error, [&]() -> int {
    auto* rt = startedRuntime(host, error);
    if (!rt) return -1;
    if (!item_json) return failArgument(error, "item_json is NULL");
    Value::Map item;
    if (!readObject(item_json, "item_json", &item, error)) return -1;
    auto url = [&item](const char* key) {
      auto it = item.find(key);
      return it != item.end() && it->second.asString() && !it->second.stringValue().empty();
    };
    if (!url("downloadURL") && !url("streamURL"))
      return failArgument(error, "item_json needs a \"downloadURL\" or a \"streamURL\"");
    Reply reply(host, callback, user_data);
    std::weak_ptr<zolvani::MainQueue> weakQueue = rt->platform().mainQueue;
    auto inbox = host->inbox;
    begin(host, reply, freshSecond(host), [=] {
      const std::size_t mark = rt->logMark();
      const auto deadline = std::chrono::steady_clock::now() + kPublishTimeout;
      rt->manager().generatePushUpdate(item);
      // The push update has no completion: its outcome is a log line, looked for
      // on the main queue until it is there.
      auto check = std::make_shared<std::function<void()>>();
      *check = [=] {
        {
          std::lock_guard lock(inbox->mutex);
          if (inbox->closed) return;
        }
        const zsm::PushOutcome outcome = zsm::judgePushLog(rt->logSince(mark));
        if (outcome.finished) {
          if (outcome.ok)
            reply.succeed({{"item", zsm::valueJson(Value(item))}});
          else
            reply.fail(*outcome.error);
          *check = nullptr;  // ends the cycle between the task and itself
          return;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
          reply.fail(capiError(ZSM_ERROR_SERVER, "the push update got no answer in time"));
          *check = nullptr;
          return;
        }
        if (auto queue = weakQueue.lock())
          queue->asyncAfter(kPublishCheckInterval, [check] {
            if (*check) (*check)();
          });
      };
      (*check)();
    });
    return 0;
  });
}

}  // extern "C"
