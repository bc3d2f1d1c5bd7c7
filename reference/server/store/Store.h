// Store: the content server's durable state, whichever database holds it:
// accounts, devices, feeds with their default rules and publishers, items (feed
// items and direct items for an account), subscriptions, per-device feed rules,
// push registrations and pending push notices.
//
// Each call is one transaction. Implementations are thread-safe: the server calls
// them from many requests at once.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/Status.h"

namespace zolvani::refserver {

struct Account {
  std::string user;
  std::string publicKey;  // sent Base64-encoded as "key" in every request header
  std::string secret;     // the HMAC key of the account's signatures
};

// Retention rules of one feed on one device, as the catalog reports them.
struct FeedRules {
  int32_t maxAssets = 10;
  bool autoDelete = true;
  int32_t maxBitrate = 0;
};

struct Feed {
  std::string id;
  std::string title;
  bool subscribable = true;
  FeedRules defaults;  // copied to a device's rules when it subscribes
};

struct Item {
  std::string uuid;       // "remoteUUID"
  std::string feed;       // empty for a direct item
  std::string user;       // for a direct item: the account whose devices receive it
  int64_t createdMs = 0;  // creation time, milliseconds since 1970
  // Path of the item's media under the media folder; when set, the catalog points
  // "metadata"."downloadURL" at this server's own /media URL for it.
  std::string mediaPath;
  nlohmann::json metadata = nlohmann::json::object();  // the item's "metadata" object
};

// An account allowed to publish into a feed through the protocol; an empty feed
// means every feed.
struct PublisherGrant {
  std::string feed;
  std::string user;
};

// A signed change's claim on its signature. The store admits it as the first step
// of the change's own transaction, so that a change that fails leaves the signature
// free for the device to send again, and every server on one store refuses a
// signature that any of them accepted. A taken signature fails the change with
// Status::Replayed before anything else is checked.
struct SignatureClaim {
  std::string signature;
  int64_t keepUntilS = 0;  // seconds since 1970 until which the signature stays taken
  int64_t nowS = 0;        // the server's clock: a signature kept until before now is free
};

// The push token a device registers; `updatedMs` is when it said so.
struct PushRegistration {
  std::string service;
  std::string token;
  int64_t updatedMs = 0;
};

// Requests one server answered in one minute for one endpoint, as the console's
// figures count them (see admin/TrafficFigures.h).
struct TrafficCount {
  int64_t minute = 0;  // minutes since 1970
  std::string node;    // the server's --node-name
  std::string endpoint;
  int64_t requests = 0;
  int64_t errors = 0;
  int64_t signatureRefusals = 0;
};

struct PushNotice {
  int64_t id = 0;
  std::string user;
  std::string device;
  std::string service;  // empty when the device registered no push token
  std::string token;
  std::string itemUuid;
  std::string feed;  // empty for a direct item
  int64_t createdMs = 0;
  bool delivered = false;
};

// What the console lists of a feed: the feed with its counts.
struct FeedSummary {
  Feed feed;
  int64_t items = 0;
  int64_t subscribers = 0;
};

// What the console lists of an account; the secret never leaves the store this way.
struct AccountSummary {
  std::string user;
  std::string publicKey;
  int64_t devices = 0;
};

// A device as the server knows it from its requests.
struct DeviceSummary {
  std::string user;
  std::string device;
  int64_t firstSeenMs = 0;
  int64_t lastSeenMs = 0;   // recorded at most once a minute while the device is busy
  std::string pushService;  // empty when the device registered no push token
  std::vector<std::string> subscriptions;  // sorted
  int64_t pendingPushes = 0;
};

// What one device's catalog holds, read in one transaction.
struct CatalogSnapshot {
  std::vector<std::string> subscriptions;                 // feed identifiers, sorted
  std::map<std::string, FeedRules> rules;                 // for each subscribed feed
  std::vector<std::pair<Feed, std::vector<Item>>> feeds;  // selected feeds, new items oldest first
  std::vector<Item> directItems;                          // oldest first
  int64_t newestItemMs = 0;  // newest creation time in the store; 0 if none
};

// Receives one device's catalog as a store reads it, inside one read transaction,
// so that a reply can be written while it is read instead of held whole. Calls
// come in this order: Begin once; for each selected feed BeginFeed, then its new
// items oldest first through FeedItem; then the direct items oldest first. A call
// that returns an error ends the read, and the store returns that error.
class CatalogSink {
 public:
  virtual ~CatalogSink() = default;
  // `subscriptions` sorted; `rules` for each subscribed feed; `newestItemMs` the
  // newest creation time in the store (0 if none).
  virtual Status Begin(const std::vector<std::string>& subscriptions,
                       const std::map<std::string, FeedRules>& rules, int64_t newestItemMs) = 0;
  virtual Status BeginFeed(const Feed& feed) = 0;
  virtual Status FeedItem(const Item& item) = 0;
  virtual Status DirectItem(const Item& item) = 0;
};

class Store {
 public:
  virtual ~Store() = default;

  // Accounts. AddAccount replaces an account of the same user.
  virtual Status AddAccount(const Account& account) = 0;
  virtual Status FindAccount(const std::string& user, Account* account) = 0;
  // An edit of an account made from what the editor saw: writes `updated` only
  // while the stored account of that user still equals `expected`, or, with no
  // `expected`, only while no account of that user exists. Otherwise
  // FailedPrecondition, and nothing changes.
  virtual Status UpdateAccount(const std::optional<Account>& expected, const Account& updated) = 0;

  // Records that a device of `user` made an authenticated request.
  virtual Status TouchDevice(const std::string& user, const std::string& device, int64_t nowMs) = 0;
  virtual Status SetPushRegistration(const std::string& user, const std::string& device,
                                     const std::string& service, const std::string& token,
                                     int64_t nowMs) = 0;

  // Feeds. AddFeed replaces the title, flag and default rules of an existing feed.
  virtual Status AddFeed(const Feed& feed) = 0;
  virtual Status FindFeed(const std::string& id, Feed* feed) = 0;

  // Adds or replaces an item, as the administrator does. A new item records a push
  // notice for each device it concerns: the devices subscribed to its feed, or every
  // device of the account a direct item is for. The notices made are appended to
  // `notices` when given. With `replaceExisting` false an existing item of the same
  // uuid is left alone and the call fails with AlreadyExists. Metadata beyond
  // JsonLimits is refused with InvalidArgument.
  virtual Status AddItem(const Item& item, int64_t nowMs,
                         std::vector<PushNotice>* notices = nullptr,
                         bool replaceExisting = true) = 0;

  // Adds a new item announced by a device of account `publisher`, in one
  // transaction with the checks of the publishing model: a direct item must be for
  // `publisher` itself; a feed item needs a known feed (NotFound), a subscribable
  // one (FailedPrecondition) and a grant of that feed, or of every feed, to
  // `publisher` (PermissionDenied). An existing uuid fails with AlreadyExists.
  // `claim`, when given, is admitted first in the same transaction.
  virtual Status PublishItem(const Item& item, const std::string& publisher, int64_t nowMs,
                             std::vector<PushNotice>* notices,
                             const SignatureClaim* claim = nullptr) = 0;

  // Publishing grants. `feed` empty: every feed. Granting needs a known account and
  // feed; revoking what was not granted is not an error.
  virtual Status GrantPublisher(const std::string& feed, const std::string& user) = 0;
  virtual Status RevokePublisher(const std::string& feed, const std::string& user) = 0;
  // Grants of `feed` (and every-feed grants), or all grants when `feed` is empty;
  // sorted by feed, then user.
  virtual Status ListPublishers(const std::string& feed, std::vector<PublisherGrant>* grants) = 0;

  // Subscriptions. Subscribing copies the feed's default rules to the device unless
  // the device already has rules for the feed (a feed that is not subscribable fails
  // with FailedPrecondition); unsubscribing drops both and is not an error when the
  // device was not subscribed. `claim`, when given, is admitted first in the same
  // transaction; a subscribe's `registration`, when given, is recorded in it too, so
  // that a refused subscribe changes nothing.
  virtual Status Subscribe(const std::string& user, const std::string& device,
                           const std::string& feed, const SignatureClaim* claim = nullptr,
                           const PushRegistration* registration = nullptr) = 0;
  virtual Status Unsubscribe(const std::string& user, const std::string& device,
                             const std::string& feed, const SignatureClaim* claim = nullptr) = 0;
  virtual Status Subscriptions(const std::string& user, const std::string& device,
                               std::vector<std::string>* feeds) = 0;
  virtual Status SetRules(const std::string& user, const std::string& device,
                          const std::string& feed, const FeedRules& rules) = 0;

  // Items created after `sinceMs` (all when absent) of the device's subscribed feeds,
  // or of every feed when `subscribedOnly` is false, and the account's direct items.
  virtual Status ReadCatalog(const std::string& user, const std::string& device,
                             std::optional<int64_t> sinceMs, bool subscribedOnly,
                             CatalogSnapshot* snapshot) = 0;

  // The same catalog as ReadCatalog, handed to `sink` piece by piece as it is read.
  // This default reads the whole snapshot first; stores override it to hold no more
  // than one item at a time.
  virtual Status StreamCatalog(const std::string& user, const std::string& device,
                               std::optional<int64_t> sinceMs, bool subscribedOnly,
                               CatalogSink* sink) {
    CatalogSnapshot snapshot;
    Status s = ReadCatalog(user, device, sinceMs, subscribedOnly, &snapshot);
    if (!s.ok()) return s;
    s = sink->Begin(snapshot.subscriptions, snapshot.rules, snapshot.newestItemMs);
    for (const auto& [feed, items] : snapshot.feeds) {
      if (s.ok()) s = sink->BeginFeed(feed);
      for (const auto& item : items) {
        if (s.ok()) s = sink->FeedItem(item);
      }
    }
    for (const auto& item : snapshot.directItems) {
      if (s.ok()) s = sink->DirectItem(item);
    }
    return s;
  }

  // Administration listings, each read in one transaction. Items are newest first,
  // at most `limit`; `feed` or `user` filters them when not empty.
  virtual Status ListAccounts(std::vector<AccountSummary>* accounts) = 0;
  virtual Status ListFeeds(std::vector<FeedSummary>* feeds) = 0;
  virtual Status ListItems(const std::string& feed, const std::string& user, int limit,
                           std::vector<Item>* items) = 0;
  virtual Status ListDevices(std::vector<DeviceSummary>* devices) = 0;

  // Removes an item (NotFound when absent) with its pending push notices; devices
  // that downloaded it keep their copy until their own rules delete it.
  virtual Status RemoveItem(const std::string& uuid) = 0;

  // Gives every device subscribed to `feed` these rules, as if set one by one with
  // SetRules; `changed` receives how many devices that concerned.
  virtual Status SetRulesForSubscribers(const std::string& feed, const FeedRules& rules,
                                        int64_t* changed) = 0;

  // An edit of a feed made from what the editor saw: replaces the title, flag and
  // default rules of feed `updated.id` only while they still equal `expected`'s
  // (FailedPrecondition otherwise, NotFound when the feed is gone), and with
  // `applyToSubscribers` gives every subscribed device the new default rules, all
  // in one transaction; `changed` receives how many devices got them.
  virtual Status UpdateFeed(const Feed& expected, const Feed& updated, bool applyToSubscribers,
                            int64_t* changed) = 0;

  // An edit of one device's rules for `feed` made from what the editor saw: sets
  // them only while the rules the device's catalog reports for the feed (its own,
  // or else the feed's defaults) still equal `expected`, FailedPrecondition
  // otherwise; NotFound for an unknown feed. One transaction.
  virtual Status UpdateRules(const std::string& user, const std::string& device,
                             const std::string& feed, const FeedRules& expected,
                             const FeedRules& rules) = 0;

  // Records a push notice of an existing item for one known device, as the
  // administrator's nudge to fetch it now.
  virtual Status AddPushNotice(const std::string& user, const std::string& device,
                               const std::string& itemUuid, int64_t nowMs, PushNotice* notice) = 0;

  // Push notices, oldest first; `user` and `device` filter when not empty. With
  // `markDelivered` the listed notices are marked delivered in the same transaction.
  virtual Status ListPushes(const std::string& user, const std::string& device, bool pendingOnly,
                            bool markDelivered, std::vector<PushNotice>* notices) = 0;

  // Traffic figures that every server on the store adds to. AddTraffic adds each
  // count to the one held for its (minute, node, endpoint), in one transaction, and
  // forgets minutes before `forgetBeforeMinute`. ReadTraffic gives the counts of
  // minutes from `sinceMinute` on, ordered by minute, node and endpoint; with
  // `perMinute` false, one count per (node, endpoint) summing those minutes, whose
  // `minute` is the earliest one summed.
  virtual Status AddTraffic(const std::vector<TrafficCount>& counts,
                            int64_t forgetBeforeMinute) = 0;
  virtual Status ReadTraffic(int64_t sinceMinute, bool perMinute,
                             std::vector<TrafficCount>* counts) = 0;

  // Whether the store can be reached and read now: cheap enough for a balancer's
  // health check every few hundred milliseconds.
  virtual Status Ping() = 0;
};

}  // namespace zolvani::refserver
