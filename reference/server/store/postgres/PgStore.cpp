#include "reference/server/store/postgres/PgStore.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>

#include "reference/server/protocol/JsonLimits.h"
#include "reference/server/store/postgres/PgSchema.h"

namespace zolvani::refserver {

namespace {

// The database's clock in milliseconds since 1970, read when the statement runs
// (not when its transaction began).
#define ZSM_PG_NOW_MS "(extract(epoch from clock_timestamp()) * 1000)::bigint"

constexpr const char* kItemColumns = "uuid, feed, user_id, created_ms, media_path, metadata";

Item ReadItem(const PgResult& r, int row) {
  Item item;
  item.uuid = r.Text(row, 0);
  item.feed = r.Text(row, 1);
  item.user = r.Text(row, 2);
  item.createdMs = r.Int(row, 3);
  item.mediaPath = r.Text(row, 4);
  // The store writes only serialised objects within JsonLimits; a row copied from
  // an older store may not be, and is trimmed so that no catalog carries it.
  bool trimmed = false;
  item.metadata = JsonLimits::ParseStoredMetadata(r.Text(row, 5), &trimmed);
  if (trimmed) {
    static std::mutex reportedMutex;
    static std::set<std::string> reported;
    std::lock_guard lock(reportedMutex);
    if (reported.insert(item.uuid).second) {
      spdlog::warn("item {} has metadata beyond the limits; catalogs carry only its scalar members",
                   item.uuid);
    }
  }
  return item;
}

Feed ReadFeed(const PgResult& r, int row) {
  // Columns: id, title, subscribable, max_assets, auto_delete, max_bitrate.
  Feed feed;
  feed.id = r.Text(row, 0);
  feed.title = r.Text(row, 1);
  feed.subscribable = r.Bool(row, 2);
  feed.defaults = FeedRules{static_cast<int32_t>(r.Int(row, 3)), r.Bool(row, 4),
                            static_cast<int32_t>(r.Int(row, 5))};
  return feed;
}

// With `hold`, the feed's row is locked against changes until the transaction
// ends: a change to the feed (its flag, its defaults) then waits for this
// transaction, or, when it came first, makes this one retry and see it. So a
// change to a feed takes effect at once: nothing that read the old row commits
// after the change has returned.
Status FindFeedIn(PgLease& lease, const std::string& id, Feed* feed, bool hold = false) {
  PgResult r;
  Status s = lease.Exec("find feed",
                        hold ? "SELECT id, title, subscribable, max_assets, auto_delete, "
                               "max_bitrate FROM feeds WHERE id = $1 FOR SHARE"
                             : "SELECT id, title, subscribable, max_assets, auto_delete, "
                               "max_bitrate FROM feeds WHERE id = $1",
                        {id}, &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::NotFound("unknown feed " + id);
  *feed = ReadFeed(r, 0);
  return Status::OK();
}

Status AccountExists(PgLease& lease, const std::string& user) {
  PgResult r;
  Status s = lease.Exec("find account", "SELECT 1 FROM accounts WHERE user_id = $1", {user}, &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::NotFound("unknown account " + user);
  return Status::OK();
}

constexpr const char* kUpsertRegistration =
    "INSERT INTO push_registrations (user_id, device, service, token, updated_ms) "
    "VALUES ($1, $2, $3, $4, $5) ON CONFLICT (user_id, device) DO UPDATE SET "
    "service = EXCLUDED.service, token = EXCLUDED.token, updated_ms = EXCLUDED.updated_ms";

// Push notice columns as the statements below return them.
constexpr const char* kPushColumns =
    "id, user_id, device, service, token, item_uuid, feed, created_ms, delivered";

PushNotice ReadPush(const PgResult& r, int row) {
  PushNotice n;
  n.id = r.Int(row, 0);
  n.user = r.Text(row, 1);
  n.device = r.Text(row, 2);
  n.service = r.Text(row, 3);
  n.token = r.Text(row, 4);
  n.itemUuid = r.Text(row, 5);
  n.feed = r.Text(row, 6);
  n.createdMs = r.Int(row, 7);
  n.delivered = r.Bool(row, 8);
  return n;
}

}  // namespace

Status PgStore::Open(const std::string& url, PgStoreOptions options,
                     std::unique_ptr<PgStore>* store) {
  if (options.pool.size < 1) return Status::InvalidArgument("the pool needs a connection");
  std::unique_ptr<PgStore> opened(new PgStore(url, options.pool));
  {
    PgLease lease;
    Status s = opened->pool_.Borrow(&lease);
    if (!s.ok()) return s;
    s = PgSchema::Check(lease);
    if (!s.ok()) return s;
  }
  *store = std::move(opened);
  return Status::OK();
}

Status PgStore::AddAccount(const Account& account) {
  if (account.user.empty()) return Status::InvalidArgument("an account needs a user name");
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) {
    return lease.Exec("add account",
                      "INSERT INTO accounts (user_id, public_key, secret) VALUES ($1, $2, $3) "
                      "ON CONFLICT (user_id) DO UPDATE SET public_key = EXCLUDED.public_key, "
                      "secret = EXCLUDED.secret",
                      {account.user, account.publicKey, account.secret});
  });
}

Status PgStore::UpdateAccount(const std::optional<Account>& expected, const Account& updated) {
  if (updated.user.empty()) return Status::InvalidArgument("an account needs a user name");
  PgResult r;
  // One statement: the row it compares is the row it writes, whichever
  // replica runs it.
  Status s =
      expected ? pool_.Run("update account",
                           "UPDATE accounts SET public_key = $2, secret = $3 WHERE user_id = $1 "
                           "AND public_key = $4 AND secret = $5 RETURNING user_id",
                           {updated.user, updated.publicKey, updated.secret, expected->publicKey,
                            expected->secret},
                           &r)
               : pool_.Run("add account",
                           "INSERT INTO accounts (user_id, public_key, secret) VALUES ($1, $2, $3) "
                           "ON CONFLICT (user_id) DO NOTHING RETURNING user_id",
                           {updated.user, updated.publicKey, updated.secret}, &r);
  if (!s.ok()) return s;
  if (r.rows() == 0)
    return Status::FailedPrecondition("account " + updated.user + " changed since it was read");
  return Status::OK();
}

Status PgStore::FindAccount(const std::string& user, Account* account) {
  PgResult r;
  Status s =
      pool_.Run("find account",
                "SELECT user_id, public_key, secret FROM accounts WHERE user_id = $1", {user}, &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::NotFound("unknown account " + user);
  account->user = r.Text(0, 0);
  account->publicKey = r.Text(0, 1);
  account->secret = r.Text(0, 2);
  return Status::OK();
}

Status PgStore::TouchDevice(const std::string& user, const std::string& device, int64_t nowMs) {
  // Replicas record the same device with their own clocks; the latest wins.
  return pool_.Run("record device",
                   "INSERT INTO devices (user_id, device, first_seen_ms, last_seen_ms) "
                   "VALUES ($1, $2, $3, $3) ON CONFLICT (user_id, device) DO UPDATE SET "
                   "last_seen_ms = GREATEST(devices.last_seen_ms, EXCLUDED.last_seen_ms)",
                   {user, device, nowMs});
}

Status PgStore::SetPushRegistration(const std::string& user, const std::string& device,
                                    const std::string& service, const std::string& token,
                                    int64_t nowMs) {
  return pool_.Run("record push registration", kUpsertRegistration,
                   {user, device, service, token, nowMs});
}

Status PgStore::AddFeed(const Feed& feed) {
  if (feed.id.empty()) return Status::InvalidArgument("a feed needs an identifier");
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) {
    return lease.Exec(
        "add feed",
        "INSERT INTO feeds (id, title, subscribable, max_assets, auto_delete, max_bitrate) "
        "VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT (id) DO UPDATE SET title = EXCLUDED.title, "
        "subscribable = EXCLUDED.subscribable, max_assets = EXCLUDED.max_assets, "
        "auto_delete = EXCLUDED.auto_delete, max_bitrate = EXCLUDED.max_bitrate",
        {feed.id, feed.title, feed.subscribable, feed.defaults.maxAssets, feed.defaults.autoDelete,
         feed.defaults.maxBitrate});
  });
}

Status PgStore::FindFeed(const std::string& id, Feed* feed) {
  PgLease lease;
  Status s = pool_.Borrow(&lease);
  if (!s.ok()) return s;
  return FindFeedIn(lease, id, feed);
}

Status PgStore::AddItem(const Item& item, int64_t nowMs, std::vector<PushNotice>* notices,
                        bool replaceExisting) {
  if (item.uuid.empty()) return Status::InvalidArgument("an item needs a remoteUUID");
  if (item.feed.empty() == item.user.empty()) {
    return Status::InvalidArgument("an item belongs either to a feed or to an account");
  }
  Status s = JsonLimits::CheckItemMetadata(item.metadata);
  if (!s.ok()) return Status::InvalidArgument("item " + item.uuid + ": " + s.message());
  std::vector<PushNotice> made;
  s = pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    made.clear();
    Status st;
    if (!item.feed.empty()) {
      Feed feed;
      st = FindFeedIn(lease, item.feed, &feed);
    } else {
      st = AccountExists(lease, item.user);
    }
    if (!st.ok()) return st;
    return InsertItem(lease, item, nowMs, /*databaseClock=*/false, replaceExisting, &made);
  });
  if (s.ok() && notices != nullptr) notices->insert(notices->end(), made.begin(), made.end());
  return s;
}

Status PgStore::PublishItem(const Item& item, const std::string& publisher, int64_t nowMs,
                            std::vector<PushNotice>* notices, const SignatureClaim* claim) {
  if (item.uuid.empty()) return Status::InvalidArgument("an item needs a remoteUUID");
  if (item.feed.empty() == item.user.empty()) {
    return Status::InvalidArgument("an item belongs either to a feed or to an account");
  }
  Status s = JsonLimits::CheckItemMetadata(item.metadata);
  if (!s.ok()) return s;
  if (claim != nullptr) SweepSignatures(claim->nowS);
  std::vector<PushNotice> made;
  s = pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    made.clear();
    Status st = Admit(lease, claim);
    if (!st.ok()) return st;
    if (item.feed.empty()) {
      if (item.user != publisher) {
        return Status::PermissionDenied(publisher + " may not add direct items for " + item.user);
      }
      st = AccountExists(lease, item.user);
      if (!st.ok()) return st;
    } else {
      Feed feed;
      st = FindFeedIn(lease, item.feed, &feed, /*hold=*/true);
      if (!st.ok()) return st;
      if (!feed.subscribable) {
        return Status::FailedPrecondition("feed " + item.feed + " is not subscribable");
      }
      // The grant is held like the feed: a revocation returns only once no
      // publish that saw the grant can still commit.
      PgResult grant;
      st = lease.Exec("find publisher",
                      "SELECT 1 FROM publishers WHERE user_id = $1 AND (feed = $2 OR feed = '') "
                      "FOR SHARE",
                      {publisher, item.feed}, &grant);
      if (!st.ok()) return st;
      if (grant.rows() == 0) {
        return Status::PermissionDenied(publisher + " does not publish feed " + item.feed);
      }
    }
    return InsertItem(lease, item, nowMs, /*databaseClock=*/true, /*replaceExisting=*/false, &made);
  });
  if (s.ok() && notices != nullptr) notices->insert(notices->end(), made.begin(), made.end());
  return s;
}

Status PgStore::InsertItem(PgLease& lease, const Item& item, int64_t nowMs, bool databaseClock,
                           bool replaceExisting, std::vector<PushNotice>* made) {
  // One statement decides whether the item is new, so that of two replicas adding
  // one uuid exactly one sees it new and fans it out.
  // $4 NULL: the database's clock.
  std::string sql =
      "INSERT INTO items (uuid, feed, user_id, created_ms, media_path, metadata) VALUES "
      "($1, $2, $3, COALESCE($4::bigint, " ZSM_PG_NOW_MS "), $5, $6) ";
  sql += replaceExisting ? "ON CONFLICT (uuid) DO UPDATE SET feed = EXCLUDED.feed, "
                           "user_id = EXCLUDED.user_id, created_ms = EXCLUDED.created_ms, "
                           "media_path = EXCLUDED.media_path, metadata = EXCLUDED.metadata "
                           "RETURNING (xmax = 0), created_ms"
                         : "ON CONFLICT (uuid) DO NOTHING RETURNING true, created_ms";
  const std::vector<PgParam> params = {item.uuid,
                                       PgParam::NullIfEmpty(item.feed),
                                       PgParam::NullIfEmpty(item.user),
                                       databaseClock ? PgParam::Null() : PgParam(item.createdMs),
                                       item.mediaPath,
                                       item.metadata.dump()};
  PgResult r;
  Status s = lease.Exec("add item", sql, params, &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::AlreadyExists("item " + item.uuid + " already exists");
  if (!r.Bool(0, 0)) return Status::OK();  // replaced: devices were told when it was new
  const int64_t pushMs = databaseClock ? r.Int(0, 1) : nowMs;

  // Devices to tell: subscribers of the feed, or all devices of the account; one
  // statement, so that a device subscribing meanwhile is either told or sees the
  // item in its next catalog.
  PgResult pushes;
  s = lease.Exec(
      "record push notices",
      item.feed.empty()
          ? "INSERT INTO pushes (user_id, device, service, token, item_uuid, feed, created_ms) "
            "SELECT d.user_id, d.device, COALESCE(p.service, ''), COALESCE(p.token, ''), $1, '', "
            "$3 FROM devices d LEFT JOIN push_registrations p ON p.user_id = d.user_id AND "
            "p.device = d.device WHERE d.user_id = $2 ORDER BY d.device RETURNING " +
                std::string(kPushColumns)
          : "INSERT INTO pushes (user_id, device, service, token, item_uuid, feed, created_ms) "
            "SELECT s.user_id, s.device, COALESCE(p.service, ''), COALESCE(p.token, ''), $1, $2, "
            "$3 FROM subscriptions s LEFT JOIN push_registrations p ON p.user_id = s.user_id AND "
            "p.device = s.device WHERE s.feed = $2 ORDER BY s.user_id, s.device RETURNING " +
                std::string(kPushColumns),
      {item.uuid, item.feed.empty() ? item.user : item.feed, pushMs}, &pushes);
  if (!s.ok()) return s;
  for (int i = 0; i < pushes.rows(); ++i) made->push_back(ReadPush(pushes, i));
  std::sort(made->begin(), made->end(),
            [](const PushNotice& a, const PushNotice& b) { return a.id < b.id; });
  return Status::OK();
}

Status PgStore::GrantPublisher(const std::string& feedId, const std::string& user) {
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    Status s = AccountExists(lease, user);
    if (!s.ok()) return s;
    if (!feedId.empty()) {
      Feed feed;
      s = FindFeedIn(lease, feedId, &feed);
      if (!s.ok()) return s;
    }
    return lease.Exec("grant publisher",
                      "INSERT INTO publishers (feed, user_id) VALUES ($1, $2) "
                      "ON CONFLICT DO NOTHING",
                      {feedId, user});
  });
}

Status PgStore::RevokePublisher(const std::string& feedId, const std::string& user) {
  // Serializable too, so that a publish racing the revocation either comes first
  // or fails.
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) {
    return lease.Exec("revoke publisher", "DELETE FROM publishers WHERE feed = $1 AND user_id = $2",
                      {feedId, user});
  });
}

Status PgStore::ListPublishers(const std::string& feedId, std::vector<PublisherGrant>* grants) {
  PgResult r;
  Status s = feedId.empty()
                 ? pool_.Run("list publishers",
                             "SELECT feed, user_id FROM publishers ORDER BY feed, user_id", {}, &r)
                 : pool_.Run("list publishers",
                             "SELECT feed, user_id FROM publishers WHERE feed = $1 OR feed = '' "
                             "ORDER BY feed, user_id",
                             {feedId}, &r);
  if (!s.ok()) return s;
  grants->clear();
  for (int i = 0; i < r.rows(); ++i) grants->push_back({r.Text(i, 0), r.Text(i, 1)});
  return Status::OK();
}

Status PgStore::Subscribe(const std::string& user, const std::string& device,
                          const std::string& feedId, const SignatureClaim* claim,
                          const PushRegistration* registration) {
  if (claim != nullptr) SweepSignatures(claim->nowS);
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    Status s = Admit(lease, claim);
    if (!s.ok()) return s;
    // Held, so that a change of the feed's defaults (and the copy of them to its
    // subscribers) waits for this subscription rather than miss it.
    Feed feed;
    s = FindFeedIn(lease, feedId, &feed, /*hold=*/true);
    if (!s.ok()) return s;
    if (!feed.subscribable) {
      return Status::FailedPrecondition("feed " + feedId + " is not subscribable");
    }
    if (registration != nullptr) {
      s = lease.Exec(
          "record push registration", kUpsertRegistration,
          {user, device, registration->service, registration->token, registration->updatedMs});
      if (!s.ok()) return s;
    }
    s = lease.Exec("subscribe",
                   "INSERT INTO subscriptions (user_id, device, feed) VALUES ($1, $2, $3) "
                   "ON CONFLICT DO NOTHING",
                   {user, device, feedId});
    if (!s.ok()) return s;
    return lease.Exec("record rules",
                      "INSERT INTO rules (user_id, device, feed, max_assets, auto_delete, "
                      "max_bitrate) VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT DO NOTHING",
                      {user, device, feedId, feed.defaults.maxAssets, feed.defaults.autoDelete,
                       feed.defaults.maxBitrate});
  });
}

Status PgStore::Unsubscribe(const std::string& user, const std::string& device,
                            const std::string& feedId, const SignatureClaim* claim) {
  if (claim != nullptr) SweepSignatures(claim->nowS);
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    Status s = Admit(lease, claim);
    if (!s.ok()) return s;
    Feed feed;
    s = FindFeedIn(lease, feedId, &feed);
    if (!s.ok()) return s;
    for (const char* sql :
         {"DELETE FROM subscriptions WHERE user_id = $1 AND device = $2 AND feed = $3",
          "DELETE FROM rules WHERE user_id = $1 AND device = $2 AND feed = $3"}) {
      s = lease.Exec("unsubscribe", sql, {user, device, feedId});
      if (!s.ok()) return s;
    }
    return Status::OK();
  });
}

Status PgStore::Subscriptions(const std::string& user, const std::string& device,
                              std::vector<std::string>* feeds) {
  PgResult r;
  Status s =
      pool_.Run("list subscriptions",
                "SELECT feed FROM subscriptions WHERE user_id = $1 AND device = $2 ORDER BY feed",
                {user, device}, &r);
  if (!s.ok()) return s;
  feeds->clear();
  for (int i = 0; i < r.rows(); ++i) feeds->push_back(r.Text(i, 0));
  return Status::OK();
}

Status PgStore::SetRules(const std::string& user, const std::string& device,
                         const std::string& feedId, const FeedRules& rules) {
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    Feed feed;
    Status s = FindFeedIn(lease, feedId, &feed);
    if (!s.ok()) return s;
    return lease.Exec("set rules",
                      "INSERT INTO rules (user_id, device, feed, max_assets, auto_delete, "
                      "max_bitrate) VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT (user_id, device, "
                      "feed) DO UPDATE SET max_assets = EXCLUDED.max_assets, "
                      "auto_delete = EXCLUDED.auto_delete, max_bitrate = EXCLUDED.max_bitrate",
                      {user, device, feedId, rules.maxAssets, rules.autoDelete, rules.maxBitrate});
  });
}

Status PgStore::ReadCatalog(const std::string& user, const std::string& device,
                            std::optional<int64_t> sinceMs, bool subscribedOnly,
                            CatalogSnapshot* snapshot) {
  const int64_t since = sinceMs.value_or(INT64_MIN);
  CatalogSnapshot read;
  // One snapshot: the items listed and the newest time reported must agree, or a
  // catalog's last_updated could pass an item it did not send.
  Status s = pool_.Transact(PgIsolation::kRepeatableReadRO, [&](PgLease& lease) -> Status {
    read = CatalogSnapshot();
    PgResult subs;
    Status st =
        lease.Exec("read subscriptions",
                   "SELECT s.feed, COALESCE(r.max_assets, f.max_assets), "
                   "COALESCE(r.auto_delete, f.auto_delete), COALESCE(r.max_bitrate, f.max_bitrate) "
                   "FROM subscriptions s JOIN feeds f ON f.id = s.feed LEFT JOIN rules r ON "
                   "r.user_id = s.user_id AND r.device = s.device AND r.feed = s.feed "
                   "WHERE s.user_id = $1 AND s.device = $2 ORDER BY s.feed",
                   {user, device}, &subs);
    if (!st.ok()) return st;
    for (int i = 0; i < subs.rows(); ++i) {
      std::string feed = subs.Text(i, 0);
      read.subscriptions.push_back(feed);
      read.rules[feed] = FeedRules{static_cast<int32_t>(subs.Int(i, 1)), subs.Bool(i, 2),
                                   static_cast<int32_t>(subs.Int(i, 3))};
    }

    PgResult feeds;
    st = subscribedOnly
             ? lease.Exec("read feeds",
                          "SELECT id, title, subscribable, max_assets, auto_delete, max_bitrate "
                          "FROM feeds WHERE id = ANY($1::text[]) ORDER BY id",
                          {PgParam::TextArray(read.subscriptions)}, &feeds)
             : lease.Exec("read feeds",
                          "SELECT id, title, subscribable, max_assets, auto_delete, max_bitrate "
                          "FROM feeds ORDER BY id",
                          {}, &feeds);
    if (!st.ok()) return st;
    std::map<std::string, size_t> position;
    std::vector<std::string> ids;
    for (int i = 0; i < feeds.rows(); ++i) {
      Feed feed = ReadFeed(feeds, i);
      position[feed.id] = read.feeds.size();
      ids.push_back(feed.id);
      read.feeds.emplace_back(std::move(feed), std::vector<Item>());
    }

    if (!ids.empty()) {
      PgResult items;
      st = lease.Exec("read items",
                      std::string("SELECT ") + kItemColumns +
                          " FROM items WHERE feed = ANY($1::text[]) AND created_ms > $2 "
                          "ORDER BY feed, created_ms, uuid",
                      {PgParam::TextArray(ids), since}, &items);
      if (!st.ok()) return st;
      for (int i = 0; i < items.rows(); ++i) {
        Item item = ReadItem(items, i);
        read.feeds[position[item.feed]].second.push_back(std::move(item));
      }
    }

    PgResult direct;
    st = lease.Exec("read direct items",
                    std::string("SELECT ") + kItemColumns +
                        " FROM items WHERE feed IS NULL AND user_id = $1 AND created_ms > $2 "
                        "ORDER BY created_ms, uuid",
                    {user, since}, &direct);
    if (!st.ok()) return st;
    for (int i = 0; i < direct.rows(); ++i) read.directItems.push_back(ReadItem(direct, i));

    // Never newer than the database's now: an item stamped by a client clock ahead
    // of it must not carry last_updated past items still to come.
    PgResult newest;
    st = lease.Exec("read newest item",
                    "SELECT COALESCE(MAX(created_ms), 0), " ZSM_PG_NOW_MS " FROM items", {},
                    &newest);
    if (!st.ok()) return st;
    // 0 when there is no item, as in every store.
    read.newestItemMs = std::min(newest.Int(0, 0), newest.Int(0, 1));
    return Status::OK();
  });
  if (!s.ok()) return s;
  *snapshot = std::move(read);
  return Status::OK();
}

Status PgStore::ListPushes(const std::string& user, const std::string& device, bool pendingOnly,
                           bool markDelivered, std::vector<PushNotice>* notices) {
  // A WHERE built per filter, so that each form gets a plan that uses the indexes.
  std::string where = "true";
  std::vector<PgParam> params;
  if (!user.empty()) {
    params.emplace_back(user);
    where += " AND user_id = $" + std::to_string(params.size());
  }
  if (!device.empty()) {
    params.emplace_back(device);
    where += " AND device = $" + std::to_string(params.size());
  }
  if (pendingOnly) where += " AND NOT delivered";
  PgResult r;
  Status s;
  if (markDelivered) {
    // One statement: rows another consumer holds are skipped, rows it marked are
    // rechecked and left out, so that every notice goes to one consumer only. The
    // notices are reported as they were before marking.
    s = pool_.Run("consume push notices",
                  "WITH picked AS (SELECT id, delivered FROM pushes WHERE " + where +
                      " ORDER BY id FOR UPDATE SKIP LOCKED), marked AS (UPDATE pushes p SET "
                      "delivered = true FROM picked WHERE p.id = picked.id RETURNING p.id, "
                      "p.user_id, p.device, p.service, p.token, p.item_uuid, p.feed, "
                      "p.created_ms, picked.delivered) SELECT * FROM marked ORDER BY id",
                  params, &r);
  } else {
    s = pool_.Run(
        "list pushes",
        std::string("SELECT ") + kPushColumns + " FROM pushes WHERE " + where + " ORDER BY id",
        params, &r);
  }
  if (!s.ok()) return s;
  notices->clear();
  for (int i = 0; i < r.rows(); ++i) notices->push_back(ReadPush(r, i));
  return Status::OK();
}

Status PgStore::ListAccounts(std::vector<AccountSummary>* accounts) {
  PgResult r;
  Status s = pool_.Run("list accounts",
                       "SELECT a.user_id, a.public_key, (SELECT COUNT(*) FROM devices d WHERE "
                       "d.user_id = a.user_id) FROM accounts a ORDER BY a.user_id",
                       {}, &r);
  if (!s.ok()) return s;
  accounts->clear();
  for (int i = 0; i < r.rows(); ++i) accounts->push_back({r.Text(i, 0), r.Text(i, 1), r.Int(i, 2)});
  return Status::OK();
}

Status PgStore::ListFeeds(std::vector<FeedSummary>* feeds) {
  PgResult r;
  Status s = pool_.Run("list feeds",
                       "SELECT f.id, f.title, f.subscribable, f.max_assets, f.auto_delete, "
                       "f.max_bitrate, (SELECT COUNT(*) FROM items i WHERE i.feed = f.id), "
                       "(SELECT COUNT(*) FROM subscriptions s WHERE s.feed = f.id) "
                       "FROM feeds f ORDER BY f.id",
                       {}, &r);
  if (!s.ok()) return s;
  feeds->clear();
  for (int i = 0; i < r.rows(); ++i) {
    FeedSummary f;
    f.feed = ReadFeed(r, i);
    f.items = r.Int(i, 6);
    f.subscribers = r.Int(i, 7);
    feeds->push_back(std::move(f));
  }
  return Status::OK();
}

Status PgStore::ListItems(const std::string& feed, const std::string& user, int limit,
                          std::vector<Item>* items) {
  std::string where = "true";
  std::vector<PgParam> params;
  if (!feed.empty()) {
    params.emplace_back(feed);
    where += " AND feed = $" + std::to_string(params.size());
  }
  if (!user.empty()) {
    params.emplace_back(user);
    where += " AND user_id = $" + std::to_string(params.size());
  }
  params.emplace_back(int64_t{std::max(0, limit)});
  PgResult r;
  Status s =
      pool_.Run("list items",
                std::string("SELECT ") + kItemColumns + " FROM items WHERE " + where +
                    " ORDER BY created_ms DESC, uuid LIMIT $" + std::to_string(params.size()),
                params, &r);
  if (!s.ok()) return s;
  items->clear();
  for (int i = 0; i < r.rows(); ++i) items->push_back(ReadItem(r, i));
  return Status::OK();
}

Status PgStore::ListDevices(std::vector<DeviceSummary>* devices) {
  std::vector<DeviceSummary> read;
  Status s = pool_.Transact(PgIsolation::kRepeatableReadRO, [&](PgLease& lease) -> Status {
    read.clear();
    PgResult r;
    Status st = lease.Exec(
        "list devices",
        "SELECT d.user_id, d.device, d.first_seen_ms, d.last_seen_ms, COALESCE(p.service, ''), "
        "(SELECT COUNT(*) FROM pushes n WHERE n.user_id = d.user_id AND n.device = d.device AND "
        "NOT n.delivered) FROM devices d LEFT JOIN push_registrations p ON "
        "p.user_id = d.user_id AND p.device = d.device "
        "ORDER BY d.last_seen_ms DESC, d.user_id, d.device",
        {}, &r);
    if (!st.ok()) return st;
    std::map<std::pair<std::string, std::string>, size_t> index;
    for (int i = 0; i < r.rows(); ++i) {
      DeviceSummary d;
      d.user = r.Text(i, 0);
      d.device = r.Text(i, 1);
      d.firstSeenMs = r.Int(i, 2);
      d.lastSeenMs = r.Int(i, 3);
      d.pushService = r.Text(i, 4);
      d.pendingPushes = r.Int(i, 5);
      index[{d.user, d.device}] = read.size();
      read.push_back(std::move(d));
    }
    PgResult subs;
    st =
        lease.Exec("list subscriptions",
                   "SELECT user_id, device, feed FROM subscriptions ORDER BY user_id, device, feed",
                   {}, &subs);
    if (!st.ok()) return st;
    for (int i = 0; i < subs.rows(); ++i) {
      auto it = index.find({subs.Text(i, 0), subs.Text(i, 1)});
      if (it != index.end()) read[it->second].subscriptions.push_back(subs.Text(i, 2));
    }
    return Status::OK();
  });
  if (!s.ok()) return s;
  *devices = std::move(read);
  return Status::OK();
}

Status PgStore::RemoveItem(const std::string& uuid) {
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    PgResult r;
    Status s = lease.Exec("remove item", "DELETE FROM items WHERE uuid = $1", {uuid}, &r);
    if (!s.ok()) return s;
    if (r.affected() == 0) return Status::NotFound("unknown item " + uuid);
    return lease.Exec("remove push notices",
                      "DELETE FROM pushes WHERE item_uuid = $1 AND NOT delivered", {uuid});
  });
}

Status PgStore::SetRulesForSubscribers(const std::string& feedId, const FeedRules& rules,
                                       int64_t* changed) {
  int64_t count = 0;
  Status s = pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    Feed feed;
    Status st = FindFeedIn(lease, feedId, &feed);
    if (!st.ok()) return st;
    PgResult r;
    st = lease.Exec("set subscribers' rules",
                    "INSERT INTO rules (user_id, device, feed, max_assets, auto_delete, "
                    "max_bitrate) SELECT user_id, device, feed, $2, $3, $4 FROM subscriptions "
                    "WHERE feed = $1 ON CONFLICT (user_id, device, feed) DO UPDATE SET "
                    "max_assets = EXCLUDED.max_assets, auto_delete = EXCLUDED.auto_delete, "
                    "max_bitrate = EXCLUDED.max_bitrate",
                    {feedId, rules.maxAssets, rules.autoDelete, rules.maxBitrate}, &r);
    if (!st.ok()) return st;
    count = r.affected();
    return Status::OK();
  });
  if (s.ok() && changed != nullptr) *changed = count;
  return s;
}

Status PgStore::AddPushNotice(const std::string& user, const std::string& device,
                              const std::string& itemUuid, int64_t nowMs, PushNotice* notice) {
  PushNotice n;
  Status s = pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    PgResult dev;
    Status st =
        lease.Exec("find device", "SELECT 1 FROM devices WHERE user_id = $1 AND device = $2",
                   {user, device}, &dev);
    if (!st.ok()) return st;
    if (dev.rows() == 0) return Status::NotFound("unknown device " + user + "/" + device);
    // Reading the item in the same serializable transaction as the insert: a
    // removal racing this either comes first (NotFound) or fails and is retried,
    // so that no notice outlives its item.
    PgResult r;
    st = lease.Exec("record push notice",
                    "INSERT INTO pushes (user_id, device, service, token, item_uuid, feed, "
                    "created_ms) SELECT $1, $2, COALESCE(p.service, ''), COALESCE(p.token, ''), "
                    "i.uuid, COALESCE(i.feed, ''), $4 FROM items i LEFT JOIN push_registrations "
                    "p ON p.user_id = $1 AND p.device = $2 WHERE i.uuid = $3 RETURNING " +
                        std::string(kPushColumns),
                    {user, device, itemUuid, nowMs}, &r);
    if (!st.ok()) return st;
    if (r.rows() == 0) return Status::NotFound("unknown item " + itemUuid);
    n = ReadPush(r, 0);
    return Status::OK();
  });
  if (s.ok() && notice != nullptr) *notice = n;
  return s;
}

Status PgStore::Admit(PgLease& lease, const SignatureClaim* claim) {
  if (claim == nullptr) return Status::OK();
  if (claim->signature.empty()) return Status::InvalidArgument("a claim needs a signature");
  // An expired row is taken over; a live one is left and no row comes back.
  PgResult r;
  Status s = lease.Exec("admit signature",
                        "INSERT INTO replay_guard (signature, keep_until_s) VALUES ($1, $2) "
                        "ON CONFLICT (signature) DO UPDATE SET keep_until_s = "
                        "EXCLUDED.keep_until_s WHERE replay_guard.keep_until_s < $3 RETURNING 1",
                        {claim->signature, claim->keepUntilS, claim->nowS}, &r);
  if (!s.ok()) return s;
  if (r.rows() == 0) return Status::Replayed("signature already used");
  return Status::OK();
}

void PgStore::SweepSignatures(int64_t nowS) {
  int64_t due = nextSweepS_.load();
  if (nowS < due || !nextSweepS_.compare_exchange_strong(due, nowS + kSweepEverySeconds)) return;
  Status s =
      pool_.Run("sweep replay guard", "DELETE FROM replay_guard WHERE keep_until_s < $1", {nowS});
  if (!s.ok()) spdlog::warn("replay guard sweep: {}", s.ToString());
}

Status PgStore::AddTraffic(const std::vector<TrafficCount>& counts, int64_t forgetBeforeMinute) {
  // Each replica adds to its own rows only (the node is in the key), so the
  // additions of different replicas never meet; READ COMMITTED is enough.
  return pool_.Transact(PgIsolation::kReadCommitted, [&](PgLease& lease) -> Status {
    for (const auto& c : counts) {
      if (c.minute < forgetBeforeMinute) continue;
      Status s = lease.Exec(
          "add traffic",
          "INSERT INTO traffic_minutes (minute, node, endpoint, requests, errors, "
          "signature_refusals) VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT (minute, node, "
          "endpoint) DO UPDATE SET requests = traffic_minutes.requests + EXCLUDED.requests, "
          "errors = traffic_minutes.errors + EXCLUDED.errors, signature_refusals = "
          "traffic_minutes.signature_refusals + EXCLUDED.signature_refusals",
          {c.minute, c.node, c.endpoint, c.requests, c.errors, c.signatureRefusals});
      if (!s.ok()) return s;
    }
    return lease.Exec("forget old traffic", "DELETE FROM traffic_minutes WHERE minute < $1",
                      {forgetBeforeMinute});
  });
}

Status PgStore::ReadTraffic(int64_t sinceMinute, bool perMinute,
                            std::vector<TrafficCount>* counts) {
  PgResult r;
  Status s = pool_.Run(
      "read traffic",
      perMinute ? "SELECT minute, node, endpoint, requests, errors, signature_refusals "
                  "FROM traffic_minutes WHERE minute >= $1 ORDER BY minute, node, endpoint"
                : "SELECT MIN(minute), node, endpoint, SUM(requests), SUM(errors), "
                  "SUM(signature_refusals) FROM traffic_minutes WHERE minute >= $1 "
                  "GROUP BY node, endpoint ORDER BY node, endpoint",
      {sinceMinute}, &r);
  if (!s.ok()) return s;
  counts->clear();
  for (int i = 0; i < r.rows(); ++i) {
    counts->push_back(
        {r.Int(i, 0), r.Text(i, 1), r.Text(i, 2), r.Int(i, 3), r.Int(i, 4), r.Int(i, 5)});
  }
  return Status::OK();
}

Status PgStore::Ping() {
  PgResult r;
  return pool_.Run("ping", "SELECT 1", {}, &r);
}

Status PgStore::UpdateFeed(const Feed& expected, const Feed& updated, bool applyToSubscribers,
                           int64_t* changed) {
  if (changed != nullptr) *changed = 0;
  int64_t count = 0;
  Status s = pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    count = 0;
    Feed current;
    Status st = FindFeedIn(lease, updated.id, &current);
    if (!st.ok()) return st;
    if (current.title != expected.title || current.subscribable != expected.subscribable ||
        current.defaults.maxAssets != expected.defaults.maxAssets ||
        current.defaults.autoDelete != expected.defaults.autoDelete ||
        current.defaults.maxBitrate != expected.defaults.maxBitrate) {
      return Status::FailedPrecondition("feed " + updated.id + " changed since it was read");
    }
    st = lease.Exec("update feed",
                    "UPDATE feeds SET title = $2, subscribable = $3, max_assets = $4, "
                    "auto_delete = $5, max_bitrate = $6 WHERE id = $1",
                    {updated.id, updated.title, updated.subscribable, updated.defaults.maxAssets,
                     updated.defaults.autoDelete, updated.defaults.maxBitrate});
    if (!st.ok() || !applyToSubscribers) return st;
    PgResult r;
    st = lease.Exec("set subscribers' rules",
                    "INSERT INTO rules (user_id, device, feed, max_assets, auto_delete, "
                    "max_bitrate) SELECT user_id, device, feed, $2, $3, $4 FROM subscriptions "
                    "WHERE feed = $1 ON CONFLICT (user_id, device, feed) DO UPDATE SET "
                    "max_assets = EXCLUDED.max_assets, auto_delete = EXCLUDED.auto_delete, "
                    "max_bitrate = EXCLUDED.max_bitrate",
                    {updated.id, updated.defaults.maxAssets, updated.defaults.autoDelete,
                     updated.defaults.maxBitrate},
                    &r);
    if (!st.ok()) return st;
    count = r.affected();
    return Status::OK();
  });
  if (s.ok() && changed != nullptr) *changed = count;
  return s;
}

Status PgStore::UpdateRules(const std::string& user, const std::string& device,
                            const std::string& feedId, const FeedRules& expected,
                            const FeedRules& rules) {
  return pool_.Transact(PgIsolation::kSerializable, [&](PgLease& lease) -> Status {
    PgResult r;
    Status st = lease.Exec("read rules",
                           "SELECT COALESCE(r.max_assets, f.max_assets), COALESCE(r.auto_delete, "
                           "f.auto_delete), COALESCE(r.max_bitrate, f.max_bitrate) FROM feeds f "
                           "LEFT JOIN rules r ON r.user_id = $1 AND r.device = $2 AND "
                           "r.feed = f.id WHERE f.id = $3",
                           {user, device, feedId}, &r);
    if (!st.ok()) return st;
    if (r.rows() == 0) return Status::NotFound("unknown feed " + feedId);
    if (r.Int(0, 0) != expected.maxAssets || r.Bool(0, 1) != expected.autoDelete ||
        r.Int(0, 2) != expected.maxBitrate) {
      return Status::FailedPrecondition("the rules of " + user + "/" + device + " for " + feedId +
                                        " changed since they were read");
    }
    return lease.Exec("set rules",
                      "INSERT INTO rules (user_id, device, feed, max_assets, auto_delete, "
                      "max_bitrate) VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT (user_id, device, "
                      "feed) DO UPDATE SET max_assets = EXCLUDED.max_assets, "
                      "auto_delete = EXCLUDED.auto_delete, max_bitrate = EXCLUDED.max_bitrate",
                      {user, device, feedId, rules.maxAssets, rules.autoDelete, rules.maxBitrate});
  });
}

}  // namespace zolvani::refserver
