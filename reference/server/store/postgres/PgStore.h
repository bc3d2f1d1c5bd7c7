// PgStore: the content server's durable state in a PostgreSQL database that any
// number of server replicas share.
//
// Every call behaves as SqliteStore's does (same results, same error kinds), and
// adds one: Unavailable when no pooled connection is free within the borrow
// time-out or the database cannot be reached (the server answers 503 with
// Retry-After). Calls that read before they write run SERIALIZABLE and are
// retried on serialization failures, so that replicas racing each other see the
// outcome of some serial order, as one SQLite writer would; multi-statement reads
// run in one REPEATABLE READ snapshot.
//
// Two differences a replica needs: PublishItem stamps the item (and its push
// notices) with the database's clock at the insert, not the caller's `nowMs`, so
// that items of replicas with skewed clocks, or of a request delayed in queues,
// never fall behind a catalog's `last_updated`; and a catalog's newest item time
// is at most the database's now.
//
// Thread-safe: calls borrow a pooled connection each.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "reference/server/store/Store.h"
#include "reference/server/store/postgres/PgPool.h"

namespace zolvani::refserver {

struct PgStoreOptions {
  PgPoolOptions pool;
};

class PgStore final : public Store {
 public:
  // Connects to `url` ("postgresql://user@host:port/db") and checks that its schema
  // is the version this program needs (FailedPrecondition, saying what to run,
  // when not).
  static Status Open(const std::string& url, PgStoreOptions options,
                     std::unique_ptr<PgStore>* store);

  PgStore(const PgStore&) = delete;
  PgStore& operator=(const PgStore&) = delete;

  Status AddAccount(const Account& account) override;
  Status UpdateAccount(const std::optional<Account>& expected, const Account& updated) override;
  Status FindAccount(const std::string& user, Account* account) override;
  Status TouchDevice(const std::string& user, const std::string& device, int64_t nowMs) override;
  Status SetPushRegistration(const std::string& user, const std::string& device,
                             const std::string& service, const std::string& token,
                             int64_t nowMs) override;
  Status AddFeed(const Feed& feed) override;
  Status FindFeed(const std::string& id, Feed* feed) override;
  Status AddItem(const Item& item, int64_t nowMs, std::vector<PushNotice>* notices = nullptr,
                 bool replaceExisting = true) override;
  Status PublishItem(const Item& item, const std::string& publisher, int64_t nowMs,
                     std::vector<PushNotice>* notices,
                     const SignatureClaim* claim = nullptr) override;
  Status GrantPublisher(const std::string& feed, const std::string& user) override;
  Status RevokePublisher(const std::string& feed, const std::string& user) override;
  Status ListPublishers(const std::string& feed, std::vector<PublisherGrant>* grants) override;
  Status Subscribe(const std::string& user, const std::string& device, const std::string& feed,
                   const SignatureClaim* claim = nullptr,
                   const PushRegistration* registration = nullptr) override;
  Status Unsubscribe(const std::string& user, const std::string& device, const std::string& feed,
                     const SignatureClaim* claim = nullptr) override;
  Status Subscriptions(const std::string& user, const std::string& device,
                       std::vector<std::string>* feeds) override;
  Status SetRules(const std::string& user, const std::string& device, const std::string& feed,
                  const FeedRules& rules) override;
  Status ReadCatalog(const std::string& user, const std::string& device,
                     std::optional<int64_t> sinceMs, bool subscribedOnly,
                     CatalogSnapshot* snapshot) override;
  Status ListAccounts(std::vector<AccountSummary>* accounts) override;
  Status ListFeeds(std::vector<FeedSummary>* feeds) override;
  Status ListItems(const std::string& feed, const std::string& user, int limit,
                   std::vector<Item>* items) override;
  Status ListDevices(std::vector<DeviceSummary>* devices) override;
  Status RemoveItem(const std::string& uuid) override;
  Status SetRulesForSubscribers(const std::string& feed, const FeedRules& rules,
                                int64_t* changed) override;
  Status AddPushNotice(const std::string& user, const std::string& device,
                       const std::string& itemUuid, int64_t nowMs, PushNotice* notice) override;

  // The console's edits made from what the editor saw (compare and set, in one
  // serializable transaction, so that of two editors on two replicas the second
  // fails with FailedPrecondition instead of overwriting the first). UpdateFeed
  // replaces the feed's title, flag and defaults while they equal `expected`'s and,
  // with `applyToSubscribers`, gives every subscribed device the new defaults;
  // UpdateRules sets one device's rules while the rules its catalog reports equal
  // `expected`. NotFound for an unknown feed.
  Status UpdateFeed(const Feed& expected, const Feed& updated, bool applyToSubscribers,
                    int64_t* changed);
  Status UpdateRules(const std::string& user, const std::string& device, const std::string& feed,
                     const FeedRules& expected, const FeedRules& rules);
  Status ListPushes(const std::string& user, const std::string& device, bool pendingOnly,
                    bool markDelivered, std::vector<PushNotice>* notices) override;

  Status AddTraffic(const std::vector<TrafficCount>& counts, int64_t forgetBeforeMinute) override;
  Status ReadTraffic(int64_t sinceMinute, bool perMinute,
                     std::vector<TrafficCount>* counts) override;
  // A round trip to the database on a pooled connection.
  Status Ping() override;

  PgPool* pool() { return &pool_; }

 private:
  PgStore(const std::string& url, PgPoolOptions options) : pool_(url, options) {}

  // Inside an open write transaction: inserts the item and, when it is new, its
  // push notices. `databaseClock` stamps both with the database's time.
  Status InsertItem(PgLease& lease, const Item& item, int64_t nowMs, bool databaseClock,
                    bool replaceExisting, std::vector<PushNotice>* made);

  // Inside the change's transaction, before anything else: takes the claim's
  // signature, or fails with Replayed when another change (on any replica) holds it.
  Status Admit(PgLease& lease, const SignatureClaim* claim);
  // Deletes expired signatures, at most once per sweep interval per replica, in its
  // own statement so that sweeps never make a change's transaction conflict.
  void SweepSignatures(int64_t nowS);

  static constexpr int64_t kSweepEverySeconds = 10;

  PgPool pool_;
  std::atomic<int64_t> nextSweepS_{0};
};

}  // namespace zolvani::refserver
