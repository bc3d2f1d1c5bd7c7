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

class Store {
 public:
  virtual ~Store() = default;

  // Accounts. AddAccount replaces an account of the same user.
  virtual Status AddAccount(const Account& account) = 0;
  virtual Status FindAccount(const std::string& user, Account* account) = 0;

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
  virtual Status PublishItem(const Item& item, const std::string& publisher, int64_t nowMs,
                             std::vector<PushNotice>* notices) = 0;

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
  // device was not subscribed.
  virtual Status Subscribe(const std::string& user, const std::string& device,
                           const std::string& feed) = 0;
  virtual Status Unsubscribe(const std::string& user, const std::string& device,
                             const std::string& feed) = 0;
  virtual Status Subscriptions(const std::string& user, const std::string& device,
                               std::vector<std::string>* feeds) = 0;
  virtual Status SetRules(const std::string& user, const std::string& device,
                          const std::string& feed, const FeedRules& rules) = 0;

  // Items created after `sinceMs` (all when absent) of the device's subscribed feeds,
  // or of every feed when `subscribedOnly` is false, and the account's direct items.
  virtual Status ReadCatalog(const std::string& user, const std::string& device,
                             std::optional<int64_t> sinceMs, bool subscribedOnly,
                             CatalogSnapshot* snapshot) = 0;

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
};

}  // namespace zolvani::refserver
