#include "sync/CatalogSync.h"

#include <chrono>
#include <cmath>

#include <fmt/format.h>

#include "server/ReplyJudge.h"
#include "server/ServerClient.h"
#include "sync/ItemAdmission.h"
#include "sync/JsonRead.h"

namespace zolvani {
namespace {

constexpr const char* kBackgroundTaskName = "ZolvaniSubscriptionSync";

constexpr EndpointTexts kCatalogTexts{
    "Error syncing with server: {}", "Received nil response from server.",
    "Received internal error code from server in header response: {}({})", "",
    "Received unexpected response code from the server: {}"};

Error syncError(std::int64_t code, std::string description) {
  return Error::make(std::string(kZolvaniSubscriptionManagerErrorDomain), code,
                     std::move(description));
}

bool verbose(const ManagerEnvironment& env) {
  return env.platform.userDefaults->boolForKey(kVerboseKeelhallLoggingKey);
}

// The item a pruned place lies in, named by its identifier, for the log line:
// direct items sit at /contentItems/i, feed items at /collections/i/contentItems/j.
std::string prunedItemName(const nlohmann::json& response, const std::string& place) {
  std::vector<std::string> steps;
  for (std::size_t at = 1; at <= place.size();) {
    std::size_t next = place.find('/', at);
    if (next == std::string::npos) next = place.size();
    steps.push_back(place.substr(at, next - at));
    at = next + 1;
  }
  auto index = [](const std::string& step) -> std::optional<std::size_t> {
    if (step.empty() || step.find_first_not_of("0123456789") != std::string::npos ||
        step.size() > 9)
      return std::nullopt;
    return static_cast<std::size_t>(std::stoul(step));
  };
  auto nth = [](const nlohmann::json* list, std::optional<std::size_t> i) -> const nlohmann::json* {
    if (!list || !list->is_array() || !i || *i >= list->size()) return nullptr;
    return &(*list)[*i];
  };
  const std::string_view assets = SubscriptionServerAssetsKey;
  const nlohmann::json* item = nullptr;
  if (steps.size() >= 2 && steps[0] == assets)
    item = nth(sync::member(response, assets), index(steps[1]));
  else if (steps.size() >= 4 && steps[0] == "collections" && steps[2] == assets)
    if (const nlohmann::json* feed = nth(sync::member(response, "collections"), index(steps[1])))
      item = nth(sync::member(*feed, assets), index(steps[3]));
  const nlohmann::json* id = item ? sync::member(*item, SubscriptionServerRemoteUUIDKey) : nullptr;
  if (id && id->is_string())
    return fmt::format("item {} at {}", id->get_ref<const std::string&>(), place);
  return fmt::format("the value at {}", place);
}

// The feed identifiers of "subscriptions"; none when it is not an array.
// Entries that are not text name no feed and are left out.
std::optional<Value::Array> subscriptionList(const nlohmann::json& response) {
  const nlohmann::json* list = sync::member(response, "subscriptions");
  if (!list || !list->is_array()) return std::nullopt;
  Value::Array out;
  out.reserve(list->size());
  for (const nlohmann::json& entry : *list)
    if (entry.is_string()) out.emplace_back(entry.get_ref<const std::string&>());
  return out;
}

// Moves the member `key` out of `object`; null when it has none.
nlohmann::json takeMember(nlohmann::json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nlohmann::json() : std::move(*it);
}

}  // namespace

CatalogSync::CatalogSync(ZolvaniSubscriptionManager& manager) : manager_(manager) {}

nlohmann::json CatalogSync::parseCatalog(const std::string& body) {
  return ReplyJudge::parse(body, kMaxDepth);
}

CatalogSync::LastSync CatalogSync::lastSyncDate(const nlohmann::json& lastUpdated, Date now) {
  const nlohmann::json* value = &lastUpdated;
  // Only a number (or numeric text) is a time; null, objects and arrays are none.
  if (!sync::isScalar(value)) return {now, false};
  const double v = sync::doubleOf(value);
  Date d(v);
  if (d.laterDate(now) == d) d = Date(v / 1000.0);
  return {d, true};
}

std::string CatalogSync::formatDate(Date date) {
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const double seconds = date.secondsSince1970;
  if (!(seconds > -6.2e10 && seconds < 2.5e11))
    return fmt::format("{} seconds since 1970", seconds);
  // Calendar arithmetic in UTC, with no time-zone database: the C time
  // functions would load it on first use, in the middle of a sync.
  using namespace std::chrono;
  const sys_seconds t{std::chrono::seconds(static_cast<std::int64_t>(std::floor(seconds)))};
  const sys_days day = floor<days>(t);
  const year_month_day ymd(day);
  const hh_mm_ss time(t - day);
  const int hour = static_cast<int>(time.hours().count());
  const int hour12 = hour % 12 == 0 ? 12 : hour % 12;
  return fmt::format("{} {}, {} at {}:{:02}:{:02} {}",
                     kMonths[static_cast<unsigned>(ymd.month()) - 1],
                     static_cast<unsigned>(ymd.day()), static_cast<int>(ymd.year()), hour12,
                     time.minutes().count(), time.seconds().count(), hour < 12 ? "AM" : "PM");
}

void CatalogSync::start(std::optional<Date> since, bool subscribedOnly, bool force,
                        SyncCompletion completion) {
  const ManagerEnvironment& env = manager_.environment();
  auto self = manager_.shared_from_this();

  if (env.engine.reachability->reachabilityForInternetConnection()->currentReachabilityStatus() ==
      0) {
    manager_.logString("Attempted to sync ZolvaniSubscriptionManager while offline", 4);
    manager_.reportStatus(kZSM_Offline);
    if (completion)
      env.platform.mainQueue->async([completion] {
        completion(
            false, std::nullopt,
            syncError(
                -5,
                "The application attempted to startup the ZolvaniSubscriptionManager without a "
                "network connection available."));
      });
    return;
  }
  // The engine's user, not its started flag, says whether it has been set up.
  if (env.engine.downloadEngine->user().empty()) {
    manager_.logString(
        "ZolvaniSubscriptionManager is attempting to sync before ZolvaniDownloadEngine has been "
        "started up.  Not "
        "syncing now.",
        1);
    if (completion) completion(false, std::nullopt, std::nullopt);
    return;
  }
  if (manager_.inSync() && !force) {
    manager_.logString("Not syncing now.  Already in sync.", 4);
    if (completion) completion(false, std::nullopt, std::nullopt);
    return;
  }

  manager_.setInSync(true);
  manager_.logString("ZolvaniSubscriptionManager is syncing...", 4);
  {
    // One background task covers every running sync; the first to find none
    // begins it, the last reply to be handled ends it.
    std::lock_guard lock(taskMutex_);
    if (backgroundTask_ == kBackgroundTaskInvalid) {
      std::weak_ptr<ZolvaniSubscriptionManager> weak = self;
      backgroundTask_ = env.platform.application->beginBackgroundTask(kBackgroundTaskName, [weak] {
        auto manager = weak.lock();
        if (!manager) return;
        manager->logString(
            "WARNING! Background subscription sync took too long.  Going to sleep now.", 1);
        CatalogSync& sync = *manager->catalogSync_;
        BackgroundTaskIdentifier task;
        {
          std::lock_guard lock(sync.taskMutex_);
          task = sync.backgroundTask_;
        }
        // The identifier stays as it is: the last reply still ends the task.
        if (task != kBackgroundTaskInvalid)
          manager->environment().platform.application->endBackgroundTask(task);
      });
    }
  }
  ++numSyncs_;

  nlohmann::json filter = nlohmann::json::object();
  if (since) filter["since"] = static_cast<std::int64_t>(since->secondsSince1970 * 1000.0);
  filter["subscribed"] = subscribedOnly;

  ServerClient::SendHooks hooks;
  hooks.beforeSend = [self](const nlohmann::json& body) {
    if (verbose(self->environment()))
      self->logString(fmt::format("Sending subscription sync request to server...\n\n{}\n\n",
                                  ServerClient::serialize(body)),
                      4);
  };
  hooks.onProcessingQueue = [self](const HttpReply& reply) {
    if (verbose(self->environment()))
      self->logString(fmt::format("Catalog response: {}", reply.body.value_or(std::string())), 4);
  };
  // The completion is shared between the reply handler and the refusal below;
  // only one of them ever runs.
  auto shared = std::make_shared<SyncCompletion>(std::move(completion));
  const bool sent = manager_.serverClient_->send(
      "catalog", nlohmann::json{{"filter", std::move(filter)}},
      [self, shared](HttpReply reply) {
        self->catalogSync_->handleReply(std::move(reply), std::move(*shared));
      },
      std::move(hooks));
  if (!sent && *shared) {
    // No request header. This early exit leaves the count, the flag and the
    // task as they are; a later sync's reply brings them back.
    (*shared)(false, std::nullopt,
              syncError(-3, "Request header was nil. Cannot complete subscription sync request."));
  }
}

void CatalogSync::handleReply(HttpReply reply, SyncCompletion completion) {
  judgeAndProcess(std::move(reply), completion);
  endSync();
}

void CatalogSync::fail(SyncCompletion& completion, Error error) {
  if (completion) completion(false, std::nullopt, std::move(error));
}

void CatalogSync::judgeAndProcess(HttpReply reply, SyncCompletion& completion) {
  const ManagerEnvironment& env = manager_.environment();
  ReplyVerdict verdict =
      manager_.serverClient_->judge().judge(reply, ReplyRules::kCatalog, kCatalogTexts);
  // The body text goes as soon as it has been parsed.
  reply.body.reset();
  if (!verdict.ok()) {
    fail(completion, std::move(*verdict.error));
    return;
  }
  nlohmann::json response = std::move(verdict.body);
  if (!response.is_object()) response = nullptr;
  // A member nested beyond any real catalog was left out; the item that
  // carried it is processed without it, and the host hears which one.
  for (const std::string& place : verdict.prunedPlaces)
    manager_.logString(fmt::format("Catalog: dropped a member nested deeper than {} levels from {}",
                                   kMaxDepth, prunedItemName(response, place)),
                       0);

  // Admission compares item dates with the last sync as it stood before this
  // reply, whatever a concurrent finish stores meanwhile.
  const std::optional<Date> lastSync = manager_.lastSubscriptionSyncTime();
  std::optional<Value::Array> subscriptions = subscriptionList(response);

  if (const nlohmann::json* rules = sync::member(response, "subscription_rules");
      rules && rules->is_object()) {
    for (const auto& [feed, rule] : rules->items()) {
      const std::int32_t maxAssets = sync::int32Of(sync::member(rule, "max_assets"));
      const bool autoDelete = sync::boolOf(sync::member(rule, "auto_delete"));
      const std::int32_t maxBitrate = sync::int32Of(sync::member(rule, "max_bitrate"));
      if (env.platform.systemLog)
        env.platform.systemLog(
            fmt::format("Updating rules for feed({}): Max({}) Autodelete:({}) Max Bitrate({})",
                        feed, maxAssets, autoDelete ? "YES" : "NO", maxBitrate));
      manager_.updateSubscription(feed, maxAssets, autoDelete, maxBitrate);
    }
  }
  if (verbose(env))
    manager_.logString(
        fmt::format("Received valid response from server...\n\n{}\n\n",
                    response.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)),
        4);

  // The reply is split into what each later step reads, and the rest of the
  // tree goes now: a catalog's parsed tree is several times its text, and each
  // admission step lets go of its part as soon as its data source has read it.
  nlohmann::json lastUpdated = takeMember(response, "last_updated");
  nlohmann::json directItems = takeMember(response, SubscriptionServerAssetsKey);
  nlohmann::json collections = takeMember(response, "collections");
  response = nullptr;

  auto self = manager_.shared_from_this();
  if (!directItems.is_null())
    self->processingQueue()->async([self, items = std::move(directItems)]() mutable {
      sync::ItemAdmission::processDirectItems(self, std::move(items));
    });

  if (!collections.is_null()) {
    self->processingQueue()->async([self, collections = std::move(collections), subscriptions,
                                    lastSync, lastUpdated = std::move(lastUpdated),
                                    completion = std::move(completion)]() mutable {
      auto finish = [self, lastUpdated = std::move(lastUpdated), subscriptions, completion] {
        self->catalogSync_->finish(lastUpdated, subscriptions, completion);
      };
      sync::ItemAdmission::processFeeds(self, std::move(collections), subscriptions, lastSync,
                                        completion, std::move(finish));
    });
  } else {
    manager_.logString(
        "Server response was successful, but there was no new subscriptions to process.", 4);
    finish(lastUpdated, subscriptions, completion);
  }
}

void CatalogSync::finish(const nlohmann::json& lastUpdated,
                         const std::optional<Value::Array>& subscriptions,
                         const SyncCompletion& completion) {
  const ManagerEnvironment& env = manager_.environment();
  const LastSync last = lastSyncDate(lastUpdated, env.engine.secureClock->date());
  if (last.fromCatalog)
    manager_.logString(fmt::format("Setting last sync date from catalog last update time: {}",
                                   formatDate(last.date)),
                       4);
  else
    manager_.logString(
        fmt::format("Setting last sync date from current date {}", formatDate(last.date)), 4);
  env.platform.userDefaults->setDate(LastSyncKey, last.date);
  env.platform.userDefaults->synchronize();
  env.platform.notificationCenter->post(std::string(kSubscriptionManagerDidFinishSyncNotification));
  manager_.reportStatus(kZSM_Receiving);
  if (completion) completion(true, subscriptions, std::nullopt);
}

void CatalogSync::endSync() {
  if (--numSyncs_ != 0) return;
  manager_.setInSync(false);
  BackgroundTaskIdentifier task;
  {
    std::lock_guard lock(taskMutex_);
    task = backgroundTask_;
    backgroundTask_ = kBackgroundTaskInvalid;
  }
  if (task != kBackgroundTaskInvalid)
    manager_.environment().platform.application->endBackgroundTask(task);
}

}  // namespace zolvani
