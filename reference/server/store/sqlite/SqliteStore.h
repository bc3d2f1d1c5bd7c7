// SqliteStore: the content server's durable state in one SQLite database in its
// data folder, the store of a server that runs on one machine.
//
// Thread-safe; each call is one transaction. Changes go through one connection
// guarded by a mutex; the reads of a device's requests (accounts, feeds,
// subscriptions, catalogs) go through a small pool of reading connections, each
// in a read transaction of its own, so that in WAL mode they run beside each
// other and beside a change. Several processes may open the same folder (the
// server and an admin command); SQLite's locking with a busy time-out serialises
// their changes.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/store/Store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace zolvani::refserver {

class SqliteStore final : public Store {
 public:
  // Opens (creating when needed) `dataDir`/server.sqlite.
  static Status Open(const std::filesystem::path& dataDir, std::unique_ptr<SqliteStore>* store);

  ~SqliteStore();
  SqliteStore(const SqliteStore&) = delete;
  SqliteStore& operator=(const SqliteStore&) = delete;

  // Accounts. AddAccount replaces an account of the same user.
  Status AddAccount(const Account& account) override;
  Status UpdateAccount(const std::optional<Account>& expected, const Account& updated) override;
  Status FindAccount(const std::string& user, Account* account) override;

  // Records that a device of `user` made an authenticated request.
  Status TouchDevice(const std::string& user, const std::string& device, int64_t nowMs) override;
  Status SetPushRegistration(const std::string& user, const std::string& device,
                             const std::string& service, const std::string& token,
                             int64_t nowMs) override;

  // Feeds. AddFeed replaces the title, flag and default rules of an existing feed.
  Status AddFeed(const Feed& feed) override;
  Status FindFeed(const std::string& id, Feed* feed) override;

  // Adds or replaces an item, as the administrator does. A new item records a push
  // notice for each device it concerns: the devices subscribed to its feed, or every
  // device of the account a direct item is for. The notices made are appended to
  // `notices` when given. With `replaceExisting` false an existing item of the same
  // uuid is left alone and the call fails with AlreadyExists. Metadata beyond
  // JsonLimits is refused with InvalidArgument.
  Status AddItem(const Item& item, int64_t nowMs, std::vector<PushNotice>* notices = nullptr,
                 bool replaceExisting = true) override;

  // Adds a new item announced by a device of account `publisher`, in one
  // transaction with the checks of the publishing model: a direct item must be for
  // `publisher` itself; a feed item needs a known feed (NotFound), a subscribable
  // one (FailedPrecondition) and a grant of that feed, or of every feed, to
  // `publisher` (PermissionDenied). An existing uuid fails with AlreadyExists.
  Status PublishItem(const Item& item, const std::string& publisher, int64_t nowMs,
                     std::vector<PushNotice>* notices,
                     const SignatureClaim* claim = nullptr) override;

  // Publishing grants. `feed` empty: every feed. Granting needs a known account and
  // feed; revoking what was not granted is not an error.
  Status GrantPublisher(const std::string& feed, const std::string& user) override;
  Status RevokePublisher(const std::string& feed, const std::string& user) override;
  // Grants of `feed` (and every-feed grants), or all grants when `feed` is empty;
  // sorted by feed, then user.
  Status ListPublishers(const std::string& feed, std::vector<PublisherGrant>* grants) override;

  // Subscriptions. Subscribing copies the feed's default rules to the device unless
  // the device already has rules for the feed (a feed that is not subscribable fails
  // with FailedPrecondition); unsubscribing drops both and is not an error when the
  // device was not subscribed.
  Status Subscribe(const std::string& user, const std::string& device, const std::string& feed,
                   const SignatureClaim* claim = nullptr,
                   const PushRegistration* registration = nullptr) override;
  Status Unsubscribe(const std::string& user, const std::string& device, const std::string& feed,
                     const SignatureClaim* claim = nullptr) override;
  Status Subscriptions(const std::string& user, const std::string& device,
                       std::vector<std::string>* feeds) override;
  Status SetRules(const std::string& user, const std::string& device, const std::string& feed,
                  const FeedRules& rules) override;

  // Items created after `sinceMs` (all when absent) of the device's subscribed feeds,
  // or of every feed when `subscribedOnly` is false, and the account's direct items.
  Status ReadCatalog(const std::string& user, const std::string& device,
                     std::optional<int64_t> sinceMs, bool subscribedOnly,
                     CatalogSnapshot* snapshot) override;
  Status StreamCatalog(const std::string& user, const std::string& device,
                       std::optional<int64_t> sinceMs, bool subscribedOnly,
                       CatalogSink* sink) override;

  // The statements a device's requests run, for checking their query plans.
  static std::vector<const char*> RequestPathStatements();

  // Administration listings, each read in one transaction. Items are newest first,
  // at most `limit`; `feed` or `user` filters them when not empty.
  Status ListAccounts(std::vector<AccountSummary>* accounts) override;
  Status ListFeeds(std::vector<FeedSummary>* feeds) override;
  Status ListItems(const std::string& feed, const std::string& user, int limit,
                   std::vector<Item>* items) override;
  Status ListDevices(std::vector<DeviceSummary>* devices) override;

  // Removes an item (NotFound when absent) with its pending push notices; devices
  // that downloaded it keep their copy until their own rules delete it.
  Status RemoveItem(const std::string& uuid) override;

  // Gives every device subscribed to `feed` these rules, as if set one by one with
  // SetRules; `changed` receives how many devices that concerned.
  Status SetRulesForSubscribers(const std::string& feed, const FeedRules& rules,
                                int64_t* changed) override;
  Status UpdateRules(const std::string& user, const std::string& device, const std::string& feed,
                     const FeedRules& expected, const FeedRules& rules) override;
  Status UpdateFeed(const Feed& expected, const Feed& updated, bool applyToSubscribers,
                    int64_t* changed) override;

  // Records a push notice of an existing item for one known device, as the
  // administrator's nudge to fetch it now.
  Status AddPushNotice(const std::string& user, const std::string& device,
                       const std::string& itemUuid, int64_t nowMs, PushNotice* notice) override;

  // Push notices, oldest first; `user` and `device` filter when not empty. With
  // `markDelivered` the listed notices are marked delivered in the same transaction.
  Status ListPushes(const std::string& user, const std::string& device, bool pendingOnly,
                    bool markDelivered, std::vector<PushNotice>* notices) override;

  // Traffic figures in the table traffic_minutes of the same file, so that several
  // processes serving one folder add up.
  Status AddTraffic(const std::vector<TrafficCount>& counts, int64_t forgetBeforeMinute) override;
  Status ReadTraffic(int64_t sinceMinute, bool perMinute,
                     std::vector<TrafficCount>* counts) override;

  // Fails when server.sqlite was removed or replaced since it was opened, or cannot
  // be read.
  Status Ping() override;

 private:
  // Expired signatures are deleted at most this often by each process.
  static constexpr int64_t kSweepEverySeconds = 10;

  explicit SqliteStore(sqlite3* db) : db_(db) {}
  Status InitSchema();
  Status OpenReaders(int count);

  // A reading connection and the statements prepared on it, each prepared once:
  // parsing SQL costs more than running these small queries.
  struct Reader {
    sqlite3* db = nullptr;
    std::map<const char*, sqlite3_stmt*> statements;  // by the SQL text's address
    ~Reader();
  };

  // A reading connection, handed back when the lease ends.
  class ReaderLease {
   public:
    explicit ReaderLease(SqliteStore* store);
    ~ReaderLease();
    ReaderLease(const ReaderLease&) = delete;
    ReaderLease& operator=(const ReaderLease&) = delete;
    sqlite3* db() const { return reader_->db; }
    // `sql` must be a string constant: its address identifies the statement.
    sqlite3_stmt* Prepared(const char* sql);

   private:
    SqliteStore* store_;
    Reader* reader_;
  };
  // With mutex_ held and a write transaction open: takes `claim`'s signature in the
  // table replay_guard (nothing when null), or fails with Replayed.
  Status AdmitLocked(const SignatureClaim* claim);
  // With mutex_ held.
  Status SetPushRegistrationLocked(const std::string& user, const std::string& device,
                                   const PushRegistration& registration);
  // With mutex_ held and a write transaction open.
  Status InsertItemLocked(const Item& item, int64_t nowMs, std::vector<PushNotice>* notices,
                          bool replaceExisting);

  std::mutex mutex_;
  sqlite3* db_;

  std::filesystem::path dataDir_;
  std::mutex readersMutex_;
  std::condition_variable readerFree_;
  std::vector<std::unique_ptr<Reader>> readers_;  // every reading connection
  std::vector<Reader*> idleReaders_;              // those not leased
  std::filesystem::path file_;
  uint64_t fileDevice_ = 0;  // identity of file_ when opened
  uint64_t fileInode_ = 0;
  int64_t nextSweepS_ = 0;  // guarded by mutex_
};

}  // namespace zolvani::refserver
