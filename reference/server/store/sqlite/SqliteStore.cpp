#include "reference/server/store/sqlite/SqliteStore.h"

#include <spdlog/spdlog.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <system_error>

#include "reference/server/protocol/JsonLimits.h"
#include "reference/server/store/sqlite/SqliteStatement.h"

namespace zolvani::refserver {

namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS accounts (
  user TEXT PRIMARY KEY, public_key TEXT NOT NULL, secret TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS devices (
  user TEXT NOT NULL, device TEXT NOT NULL, first_seen_ms INTEGER NOT NULL,
  last_seen_ms INTEGER NOT NULL, PRIMARY KEY (user, device));
CREATE TABLE IF NOT EXISTS push_registrations (
  user TEXT NOT NULL, device TEXT NOT NULL, service TEXT NOT NULL, token TEXT NOT NULL,
  updated_ms INTEGER NOT NULL, PRIMARY KEY (user, device));
CREATE TABLE IF NOT EXISTS feeds (
  id TEXT PRIMARY KEY, title TEXT NOT NULL, subscribable INTEGER NOT NULL,
  max_assets INTEGER NOT NULL, auto_delete INTEGER NOT NULL, max_bitrate INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS items (
  uuid TEXT PRIMARY KEY, feed TEXT, user TEXT, created_ms INTEGER NOT NULL,
  media_path TEXT NOT NULL, metadata TEXT NOT NULL);
-- Catalogs read a feed's items, and an account's direct items, after a time in
-- (created_ms, uuid) order; with uuid in the index no sort is needed. The newest
-- creation time, which every catalog reports, comes from items_by_created.
DROP INDEX IF EXISTS items_by_feed;
CREATE INDEX IF NOT EXISTS items_by_feed_time ON items (feed, created_ms, uuid);
CREATE INDEX IF NOT EXISTS items_by_user ON items (user, created_ms);
CREATE INDEX IF NOT EXISTS items_direct_by_user ON items (user, created_ms, uuid)
  WHERE feed IS NULL;
CREATE INDEX IF NOT EXISTS items_by_created ON items (created_ms);
CREATE TABLE IF NOT EXISTS subscriptions (
  user TEXT NOT NULL, device TEXT NOT NULL, feed TEXT NOT NULL,
  PRIMARY KEY (user, device, feed));
CREATE INDEX IF NOT EXISTS subscriptions_by_feed ON subscriptions (feed);
CREATE TABLE IF NOT EXISTS rules (
  user TEXT NOT NULL, device TEXT NOT NULL, feed TEXT NOT NULL, max_assets INTEGER NOT NULL,
  auto_delete INTEGER NOT NULL, max_bitrate INTEGER NOT NULL, PRIMARY KEY (user, device, feed));
CREATE TABLE IF NOT EXISTS pushes (
  id INTEGER PRIMARY KEY AUTOINCREMENT, user TEXT NOT NULL, device TEXT NOT NULL,
  service TEXT NOT NULL, token TEXT NOT NULL, item_uuid TEXT NOT NULL, feed TEXT NOT NULL,
  created_ms INTEGER NOT NULL, delivered INTEGER NOT NULL DEFAULT 0);
CREATE INDEX IF NOT EXISTS pushes_by_device ON pushes (user, device, delivered);
CREATE INDEX IF NOT EXISTS pushes_by_item ON pushes (item_uuid);
-- Accounts that may publish into a feed through the protocol; feed '' (never a
-- feed's identifier) grants every feed.
CREATE TABLE IF NOT EXISTS publishers (
  feed TEXT NOT NULL, user TEXT NOT NULL, PRIMARY KEY (feed, user));
-- Signatures of accepted changes, kept while a replay of them would still be fresh;
-- in the database so that every process serving this folder refuses a replay.
CREATE TABLE IF NOT EXISTS replay_guard (
  signature TEXT PRIMARY KEY, keep_until_s INTEGER NOT NULL) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS replay_guard_by_expiry ON replay_guard (keep_until_s);
-- The console's figures: what each server process answered, per minute and endpoint.
CREATE TABLE IF NOT EXISTS traffic_minutes (
  minute INTEGER NOT NULL, node TEXT NOT NULL, endpoint TEXT NOT NULL,
  requests INTEGER NOT NULL, errors INTEGER NOT NULL, signature_refusals INTEGER NOT NULL,
  PRIMARY KEY (minute, node, endpoint));
PRAGMA user_version = 2;
)sql";

Item ReadItem(const Statement& row, int first = 0) {
  // Columns from `first` on: uuid, feed, user, created_ms, media_path, metadata.
  Item item;
  item.uuid = row.Text(first);
  item.feed = row.Text(first + 1);
  item.user = row.Text(first + 2);
  item.createdMs = row.Int(first + 3);
  item.mediaPath = row.Text(first + 4);
  // The store writes only serialised objects within JsonLimits here; a row written
  // before the limits existed is trimmed, so that no catalog carries it.
  bool trimmed = false;
  item.metadata = JsonLimits::ParseStoredMetadata(row.Text(first + 5), &trimmed);
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

// The reads of a catalog, all in one read transaction.
constexpr const char* kCatalogSubscriptions =
    "SELECT s.feed, COALESCE(r.max_assets, f.max_assets), "
    "COALESCE(r.auto_delete, f.auto_delete), COALESCE(r.max_bitrate, f.max_bitrate) "
    "FROM subscriptions s JOIN feeds f ON f.id = s.feed LEFT JOIN rules r ON "
    "r.user = s.user AND r.device = s.device AND r.feed = s.feed "
    "WHERE s.user = ?1 AND s.device = ?2 ORDER BY s.feed";
constexpr const char* kNewestItem = "SELECT COALESCE(MAX(created_ms), 0) FROM items";
// The subscribed feeds and their items after a time, in one query: a feed with no
// new items comes as one row of NULL item columns.
constexpr const char* kCatalogSubscribedItems =
    "SELECT f.id, f.title, f.subscribable, i.uuid, i.feed, i.user, i.created_ms, i.media_path, "
    "i.metadata FROM subscriptions s JOIN feeds f ON f.id = s.feed "
    "LEFT JOIN items i ON i.feed = s.feed AND i.created_ms > ?3 "
    "WHERE s.user = ?1 AND s.device = ?2 ORDER BY s.feed, i.created_ms, i.uuid";
// Every feed, then each one's items after a time. (As one join, SQLite sorts each
// feed's items in memory; feed by feed, the index gives them in order.)
constexpr const char* kCatalogAllFeeds = "SELECT id, title, subscribable FROM feeds ORDER BY id";
constexpr const char* kCatalogFeedItems =
    "SELECT uuid, feed, user, created_ms, media_path, metadata FROM items "
    "WHERE feed = ?1 AND created_ms > ?2 ORDER BY created_ms, uuid";
constexpr const char* kCatalogDirectItems =
    "SELECT uuid, feed, user, created_ms, media_path, metadata FROM items "
    "WHERE feed IS NULL AND user = ?1 AND created_ms > ?2 ORDER BY created_ms, uuid";
constexpr const char* kBeginRead = "BEGIN";
constexpr const char* kEndRead = "COMMIT";
constexpr const char* kFindAccount =
    "SELECT user, public_key, secret FROM accounts WHERE user = ?1";
constexpr const char* kListSubscriptions =
    "SELECT feed FROM subscriptions WHERE user = ?1 AND device = ?2 ORDER BY feed";

// Reading connections opened with the store; more are opened while every one is
// busy (a catalog holds its connection while the reply is sent), up to the most.
constexpr int kReaders = 2;
constexpr size_t kMostReaders = 64;

constexpr const char* kInsertPush =
    "INSERT INTO pushes (user, device, service, token, item_uuid, feed, created_ms) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)";

// Records one push notice with a prepared kInsertPush and gives it its id.
Status InsertPush(Statement& insert, PushNotice* n) {
  insert.Bind(1, n->user)
      .Bind(2, n->device)
      .Bind(3, n->service)
      .Bind(4, n->token)
      .Bind(5, n->itemUuid)
      .Bind(6, n->feed)
      .Bind(7, n->createdMs);
  if (Status s = Run(insert, "record push notice"); !s.ok()) return s;
  n->id = sqlite3_last_insert_rowid(insert.db());
  return Status::OK();
}

}  // namespace

Status SqliteStore::Open(const std::filesystem::path& dataDir,
                         std::unique_ptr<SqliteStore>* store) {
  sqlite3* db = nullptr;
  if (Status status = OpenDatabase(dataDir, "server.sqlite", &db); !status.ok()) return status;
  std::unique_ptr<SqliteStore> opened(new SqliteStore(db));
  opened->file_ = dataDir / "server.sqlite";
  struct stat st {};
  if (::stat(opened->file_.c_str(), &st) != 0) {
    return Status::IOError("cannot find " + opened->file_.string() + " after opening it");
  }
  opened->fileDevice_ = static_cast<uint64_t>(st.st_dev);
  opened->fileInode_ = static_cast<uint64_t>(st.st_ino);
  Status s = opened->InitSchema();
  if (!s.ok()) return s;
  opened->dataDir_ = dataDir;
  s = opened->OpenReaders(kReaders);
  if (!s.ok()) return s;
  *store = std::move(opened);
  return Status::OK();
}

SqliteStore::~SqliteStore() {
  readers_.clear();
  sqlite3_close(db_);
}

SqliteStore::Reader::~Reader() {
  for (auto& [sql, statement] : statements) sqlite3_finalize(statement);
  sqlite3_close(db);
}

sqlite3_stmt* SqliteStore::ReaderLease::Prepared(const char* sql) {
  auto [it, added] = reader_->statements.try_emplace(sql, nullptr);
  if (added && sqlite3_prepare_v3(reader_->db, sql, -1, SQLITE_PREPARE_PERSISTENT, &it->second,
                                  nullptr) != SQLITE_OK) {
    sqlite3_finalize(it->second);
    reader_->statements.erase(it);
    return nullptr;
  }
  return it->second;
}

// With readersMutex_ held, or before the store is shared.
Status SqliteStore::OpenReaders(int count) {
  for (int i = 0; i < count; ++i) {
    sqlite3* reader = nullptr;
    Status s = OpenDatabase(dataDir_, "server.sqlite", &reader);
    if (!s.ok()) return s;
    // A reading connection never changes the database, whatever it is asked.
    s = Exec(reader, "PRAGMA query_only = 1");
    if (!s.ok()) {
      sqlite3_close(reader);
      return s;
    }
    auto entry = std::make_unique<Reader>();
    entry->db = reader;
    idleReaders_.push_back(entry.get());
    readers_.push_back(std::move(entry));
  }
  return Status::OK();
}

SqliteStore::ReaderLease::ReaderLease(SqliteStore* store) : store_(store) {
  std::unique_lock lock(store_->readersMutex_);
  if (store_->idleReaders_.empty() && store_->readers_.size() < kMostReaders) {
    Status s = store_->OpenReaders(1);
    if (!s.ok()) spdlog::warn("cannot open another reading connection: {}", s.ToString());
  }
  store_->readerFree_.wait(lock, [this] { return !store_->idleReaders_.empty(); });
  reader_ = store_->idleReaders_.back();
  store_->idleReaders_.pop_back();
}

SqliteStore::ReaderLease::~ReaderLease() {
  {
    std::lock_guard lock(store_->readersMutex_);
    store_->idleReaders_.push_back(reader_);
  }
  store_->readerFree_.notify_one();
}

std::vector<const char*> SqliteStore::RequestPathStatements() {
  return {kFindAccount,      kListSubscriptions,      kCatalogSubscriptions,
          kNewestItem,       kCatalogSubscribedItems, kCatalogAllFeeds,
          kCatalogFeedItems, kCatalogDirectItems};
}

Status SqliteStore::InitSchema() {
  Status s = Exec(db_, "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;");
  if (!s.ok()) return s;
  return Exec(db_, kSchema);
}

Status SqliteStore::AddAccount(const Account& account) {
  if (account.user.empty()) return Status::InvalidArgument("an account needs a user name");
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO accounts (user, public_key, secret) VALUES (?1, ?2, ?3) "
               "ON CONFLICT(user) DO UPDATE SET public_key = ?2, secret = ?3");
  st.Bind(1, account.user).Bind(2, account.publicKey).Bind(3, account.secret);
  return Run(st, "add account");
}

Status SqliteStore::UpdateAccount(const std::optional<Account>& expected, const Account& updated) {
  if (updated.user.empty()) return Status::InvalidArgument("an account needs a user name");
  std::lock_guard lock(mutex_);
  // One statement: the comparison and the write cannot be split by another writer.
  Statement st(db_, expected ? "UPDATE accounts SET public_key = ?2, secret = ?3 "
                               "WHERE user = ?1 AND public_key = ?4 AND secret = ?5"
                             : "INSERT INTO accounts (user, public_key, secret) "
                               "VALUES (?1, ?2, ?3) ON CONFLICT(user) DO NOTHING");
  st.Bind(1, updated.user).Bind(2, updated.publicKey).Bind(3, updated.secret);
  if (expected) st.Bind(4, expected->publicKey).Bind(5, expected->secret);
  Status s = Run(st, "update account");
  if (!s.ok()) return s;
  if (sqlite3_changes(db_) == 0)
    return Status::FailedPrecondition("account " + updated.user + " changed since it was read");
  return Status::OK();
}

Status SqliteStore::FindAccount(const std::string& user, Account* account) {
  ReaderLease reader(this);
  Statement st(reader.db(), reader.Prepared(kFindAccount));
  if (!st.prepared()) return st.Error("find account");
  st.Bind(1, user);
  const int rc = st.Step();
  if (rc == SQLITE_DONE) return Status::NotFound("unknown account " + user);
  if (rc != SQLITE_ROW) return st.Error("find account");
  account->user = st.Text(0);
  account->publicKey = st.Text(1);
  account->secret = st.Text(2);
  return Status::OK();
}

Status SqliteStore::TouchDevice(const std::string& user, const std::string& device, int64_t nowMs) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO devices (user, device, first_seen_ms, last_seen_ms) "
               "VALUES (?1, ?2, ?3, ?3) "
               "ON CONFLICT(user, device) DO UPDATE SET last_seen_ms = ?3");
  st.Bind(1, user).Bind(2, device).Bind(3, nowMs);
  return Run(st, "record device");
}

Status SqliteStore::SetPushRegistration(const std::string& user, const std::string& device,
                                        const std::string& service, const std::string& token,
                                        int64_t nowMs) {
  std::lock_guard lock(mutex_);
  return SetPushRegistrationLocked(user, device, PushRegistration{service, token, nowMs});
}

Status SqliteStore::SetPushRegistrationLocked(const std::string& user, const std::string& device,
                                              const PushRegistration& registration) {
  Statement st(db_,
               "INSERT INTO push_registrations (user, device, service, token, updated_ms) "
               "VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT(user, device) DO UPDATE SET "
               "service = ?3, token = ?4, updated_ms = ?5");
  st.Bind(1, user)
      .Bind(2, device)
      .Bind(3, registration.service)
      .Bind(4, registration.token)
      .Bind(5, registration.updatedMs);
  return Run(st, "record push registration");
}

Status SqliteStore::AdmitLocked(const SignatureClaim* claim) {
  if (claim == nullptr) return Status::OK();
  if (claim->signature.empty()) return Status::InvalidArgument("a claim needs a signature");
  // Expired signatures are swept now and then; until then the upsert below admits
  // one again by taking its row over.
  if (claim->nowS >= nextSweepS_) {
    Statement sweep(db_, "DELETE FROM replay_guard WHERE keep_until_s < ?1");
    sweep.Bind(1, claim->nowS);
    Status s = Run(sweep, "sweep replay guard");
    if (!s.ok()) return s;
    nextSweepS_ = claim->nowS + kSweepEverySeconds;
  }
  Statement st(db_,
               "INSERT INTO replay_guard (signature, keep_until_s) VALUES (?1, ?2) "
               "ON CONFLICT(signature) DO UPDATE SET keep_until_s = excluded.keep_until_s "
               "WHERE replay_guard.keep_until_s < ?3");
  st.Bind(1, claim->signature).Bind(2, claim->keepUntilS).Bind(3, claim->nowS);
  Status s = Run(st, "admit signature");
  if (!s.ok()) return s;
  if (sqlite3_changes(db_) == 0) return Status::Replayed("signature already used");
  return Status::OK();
}

Status SqliteStore::AddFeed(const Feed& feed) {
  if (feed.id.empty()) return Status::InvalidArgument("a feed needs an identifier");
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "INSERT INTO feeds (id, title, subscribable, max_assets, auto_delete, max_bitrate) "
               "VALUES (?1, ?2, ?3, ?4, ?5, ?6) ON CONFLICT(id) DO UPDATE SET title = ?2, "
               "subscribable = ?3, max_assets = ?4, auto_delete = ?5, max_bitrate = ?6");
  st.Bind(1, feed.id)
      .Bind(2, feed.title)
      .Bind(3, int64_t{feed.subscribable})
      .Bind(4, int64_t{feed.defaults.maxAssets})
      .Bind(5, int64_t{feed.defaults.autoDelete})
      .Bind(6, int64_t{feed.defaults.maxBitrate});
  return Run(st, "add feed");
}

namespace {

Status FindFeedLocked(sqlite3* db, const std::string& id, Feed* feed) {
  Statement st(db,
               "SELECT id, title, subscribable, max_assets, auto_delete, max_bitrate FROM feeds "
               "WHERE id = ?1");
  if (!st.prepared()) return st.Error("find feed");
  st.Bind(1, id);
  const int rc = st.Step();
  if (rc == SQLITE_DONE) return Status::NotFound("unknown feed " + id);
  if (rc != SQLITE_ROW) return st.Error("find feed");
  feed->id = st.Text(0);
  feed->title = st.Text(1);
  feed->subscribable = st.Int(2) != 0;
  feed->defaults.maxAssets = static_cast<int32_t>(st.Int(3));
  feed->defaults.autoDelete = st.Int(4) != 0;
  feed->defaults.maxBitrate = static_cast<int32_t>(st.Int(5));
  return Status::OK();
}

}  // namespace

Status SqliteStore::FindFeed(const std::string& id, Feed* feed) {
  ReaderLease reader(this);
  return FindFeedLocked(reader.db(), id, feed);
}

Status SqliteStore::AddItem(const Item& item, int64_t nowMs, std::vector<PushNotice>* notices,
                            bool replaceExisting) {
  if (item.uuid.empty()) return Status::InvalidArgument("an item needs a remoteUUID");
  if (item.feed.empty() == item.user.empty()) {
    return Status::InvalidArgument("an item belongs either to a feed or to an account");
  }
  Status s = JsonLimits::CheckItemMetadata(item.metadata);
  if (!s.ok()) return Status::InvalidArgument("item " + item.uuid + ": " + s.message());
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  if (!item.feed.empty()) {
    Feed feed;
    s = FindFeedLocked(db_, item.feed, &feed);
    if (!s.ok()) return s;
  } else {
    Statement st(db_, "SELECT 1 FROM accounts WHERE user = ?1");
    st.Bind(1, item.user);
    if (st.Step() != SQLITE_ROW) return Status::NotFound("unknown account " + item.user);
  }
  s = InsertItemLocked(item, nowMs, notices, replaceExisting);
  if (!s.ok()) return s;
  return tx.Commit();
}

Status SqliteStore::PublishItem(const Item& item, const std::string& publisher, int64_t nowMs,
                                std::vector<PushNotice>* notices, const SignatureClaim* claim) {
  if (item.uuid.empty()) return Status::InvalidArgument("an item needs a remoteUUID");
  if (item.feed.empty() == item.user.empty()) {
    return Status::InvalidArgument("an item belongs either to a feed or to an account");
  }
  Status s = JsonLimits::CheckItemMetadata(item.metadata);
  if (!s.ok()) return s;
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  s = AdmitLocked(claim);
  if (!s.ok()) return s;
  if (item.feed.empty()) {
    if (item.user != publisher) {
      return Status::PermissionDenied(publisher + " may not add direct items for " + item.user);
    }
    Statement st(db_, "SELECT 1 FROM accounts WHERE user = ?1");
    st.Bind(1, item.user);
    if (st.Step() != SQLITE_ROW) return Status::NotFound("unknown account " + item.user);
  } else {
    Feed feed;
    s = FindFeedLocked(db_, item.feed, &feed);
    if (!s.ok()) return s;
    if (!feed.subscribable) {
      return Status::FailedPrecondition("feed " + item.feed + " is not subscribable");
    }
    Statement grant(db_, "SELECT 1 FROM publishers WHERE user = ?1 AND (feed = ?2 OR feed = '')");
    if (!grant.prepared()) return grant.Error("find publisher");
    grant.Bind(1, publisher).Bind(2, item.feed);
    const int rc = grant.Step();
    if (rc == SQLITE_DONE) {
      return Status::PermissionDenied(publisher + " does not publish feed " + item.feed);
    }
    if (rc != SQLITE_ROW) return grant.Error("find publisher");
  }
  s = InsertItemLocked(item, nowMs, notices, /*replaceExisting=*/false);
  if (!s.ok()) return s;
  return tx.Commit();
}

Status SqliteStore::InsertItemLocked(const Item& item, int64_t nowMs,
                                     std::vector<PushNotice>* notices, bool replaceExisting) {
  bool existed = false;
  {
    Statement st(db_, "SELECT 1 FROM items WHERE uuid = ?1");
    st.Bind(1, item.uuid);
    existed = st.Step() == SQLITE_ROW;
  }
  if (existed && !replaceExisting) {
    return Status::AlreadyExists("item " + item.uuid + " already exists");
  }
  {
    Statement st(
        db_,
        "INSERT OR REPLACE INTO items (uuid, feed, user, created_ms, media_path, metadata) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
    st.Bind(1, item.uuid);
    item.feed.empty() ? st.BindNull(2) : st.Bind(2, item.feed);
    item.user.empty() ? st.BindNull(3) : st.Bind(3, item.user);
    st.Bind(4, item.createdMs).Bind(5, item.mediaPath).Bind(6, item.metadata.dump());
    Status s = Run(st, "add item");
    if (!s.ok()) return s;
  }
  if (!existed) {
    // Devices to tell: subscribers of the feed, or all devices of the account.
    Statement who(db_, item.feed.empty()
                           ? "SELECT d.user, d.device, COALESCE(p.service, ''), "
                             "COALESCE(p.token, '') FROM devices d LEFT JOIN push_registrations p "
                             "ON p.user = d.user AND p.device = d.device WHERE d.user = ?1 "
                             "ORDER BY d.device"
                           : "SELECT s.user, s.device, COALESCE(p.service, ''), "
                             "COALESCE(p.token, '') FROM subscriptions s LEFT JOIN "
                             "push_registrations p ON p.user = s.user AND p.device = s.device "
                             "WHERE s.feed = ?1 ORDER BY s.user, s.device");
    if (!who.prepared()) return who.Error("find devices to notify");
    who.Bind(1, item.feed.empty() ? item.user : item.feed);
    std::vector<PushNotice> made;
    int rc;
    while ((rc = who.Step()) == SQLITE_ROW) {
      PushNotice n;
      n.user = who.Text(0);
      n.device = who.Text(1);
      n.service = who.Text(2);
      n.token = who.Text(3);
      n.itemUuid = item.uuid;
      n.feed = item.feed;
      n.createdMs = nowMs;
      made.push_back(std::move(n));
    }
    if (rc != SQLITE_DONE) return who.Error("find devices to notify");
    Statement insert(db_, kInsertPush);
    for (auto& n : made) {
      insert.Reset();
      if (Status s = InsertPush(insert, &n); !s.ok()) return s;
    }
    if (notices != nullptr) notices->insert(notices->end(), made.begin(), made.end());
  }
  return Status::OK();
}

Status SqliteStore::GrantPublisher(const std::string& feedId, const std::string& user) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  {
    Statement st(db_, "SELECT 1 FROM accounts WHERE user = ?1");
    st.Bind(1, user);
    if (st.Step() != SQLITE_ROW) return Status::NotFound("unknown account " + user);
  }
  if (!feedId.empty()) {
    Feed feed;
    Status s = FindFeedLocked(db_, feedId, &feed);
    if (!s.ok()) return s;
  }
  Statement st(db_, "INSERT OR IGNORE INTO publishers (feed, user) VALUES (?1, ?2)");
  st.Bind(1, feedId).Bind(2, user);
  Status s = Run(st, "grant publisher");
  if (!s.ok()) return s;
  return tx.Commit();
}

Status SqliteStore::RevokePublisher(const std::string& feedId, const std::string& user) {
  std::lock_guard lock(mutex_);
  Statement st(db_, "DELETE FROM publishers WHERE feed = ?1 AND user = ?2");
  st.Bind(1, feedId).Bind(2, user);
  return Run(st, "revoke publisher");
}

Status SqliteStore::ListPublishers(const std::string& feedId, std::vector<PublisherGrant>* grants) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "SELECT feed, user FROM publishers WHERE ?1 = '' OR feed = ?1 OR feed = '' "
               "ORDER BY feed, user");
  if (!st.prepared()) return st.Error("list publishers");
  st.Bind(1, feedId);
  grants->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) grants->push_back({st.Text(0), st.Text(1)});
  if (rc != SQLITE_DONE) return st.Error("list publishers");
  return Status::OK();
}

Status SqliteStore::Subscribe(const std::string& user, const std::string& device,
                              const std::string& feedId, const SignatureClaim* claim,
                              const PushRegistration* registration) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Status s = AdmitLocked(claim);
  if (!s.ok()) return s;
  Feed feed;
  s = FindFeedLocked(db_, feedId, &feed);
  if (!s.ok()) return s;
  if (!feed.subscribable) {
    return Status::FailedPrecondition("feed " + feedId + " is not subscribable");
  }
  if (registration != nullptr) {
    s = SetPushRegistrationLocked(user, device, *registration);
    if (!s.ok()) return s;
  }
  {
    Statement st(db_,
                 "INSERT OR IGNORE INTO subscriptions (user, device, feed) VALUES (?1, ?2, ?3)");
    st.Bind(1, user).Bind(2, device).Bind(3, feedId);
    s = Run(st, "subscribe");
    if (!s.ok()) return s;
  }
  {
    Statement st(db_,
                 "INSERT OR IGNORE INTO rules (user, device, feed, max_assets, auto_delete, "
                 "max_bitrate) VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
    st.Bind(1, user)
        .Bind(2, device)
        .Bind(3, feedId)
        .Bind(4, int64_t{feed.defaults.maxAssets})
        .Bind(5, int64_t{feed.defaults.autoDelete})
        .Bind(6, int64_t{feed.defaults.maxBitrate});
    s = Run(st, "record rules");
    if (!s.ok()) return s;
  }
  return tx.Commit();
}

Status SqliteStore::Unsubscribe(const std::string& user, const std::string& device,
                                const std::string& feedId, const SignatureClaim* claim) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Status s = AdmitLocked(claim);
  if (!s.ok()) return s;
  Feed feed;
  s = FindFeedLocked(db_, feedId, &feed);
  if (!s.ok()) return s;
  for (const char* sql : {"DELETE FROM subscriptions WHERE user = ?1 AND device = ?2 AND feed = ?3",
                          "DELETE FROM rules WHERE user = ?1 AND device = ?2 AND feed = ?3"}) {
    Statement st(db_, sql);
    st.Bind(1, user).Bind(2, device).Bind(3, feedId);
    s = Run(st, "unsubscribe");
    if (!s.ok()) return s;
  }
  return tx.Commit();
}

Status SqliteStore::Subscriptions(const std::string& user, const std::string& device,
                                  std::vector<std::string>* feeds) {
  ReaderLease reader(this);
  Statement st(reader.db(), reader.Prepared(kListSubscriptions));
  if (!st.prepared()) return st.Error("list subscriptions");
  st.Bind(1, user).Bind(2, device);
  feeds->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) feeds->push_back(st.Text(0));
  if (rc != SQLITE_DONE) return st.Error("list subscriptions");
  return Status::OK();
}

Status SqliteStore::SetRules(const std::string& user, const std::string& device,
                             const std::string& feedId, const FeedRules& rules) {
  std::lock_guard lock(mutex_);
  Feed feed;
  Status s = FindFeedLocked(db_, feedId, &feed);
  if (!s.ok()) return s;
  Statement st(db_,
               "INSERT INTO rules (user, device, feed, max_assets, auto_delete, max_bitrate) "
               "VALUES (?1, ?2, ?3, ?4, ?5, ?6) ON CONFLICT(user, device, feed) DO UPDATE SET "
               "max_assets = ?4, auto_delete = ?5, max_bitrate = ?6");
  st.Bind(1, user)
      .Bind(2, device)
      .Bind(3, feedId)
      .Bind(4, int64_t{rules.maxAssets})
      .Bind(5, int64_t{rules.autoDelete})
      .Bind(6, int64_t{rules.maxBitrate});
  return Run(st, "set rules");
}

namespace {

// Gathers what StreamCatalog hands out into a snapshot.
class SnapshotSink final : public CatalogSink {
 public:
  explicit SnapshotSink(CatalogSnapshot* snapshot) : snapshot_(snapshot) {}
  Status Begin(const std::vector<std::string>& subscriptions,
               const std::map<std::string, FeedRules>& rules, int64_t newestItemMs) override {
    snapshot_->subscriptions = subscriptions;
    snapshot_->rules = rules;
    snapshot_->newestItemMs = newestItemMs;
    return Status::OK();
  }
  Status BeginFeed(const Feed& feed) override {
    snapshot_->feeds.emplace_back(feed, std::vector<Item>());
    return Status::OK();
  }
  Status FeedItem(const Item& item) override {
    snapshot_->feeds.back().second.push_back(item);
    return Status::OK();
  }
  Status DirectItem(const Item& item) override {
    snapshot_->directItems.push_back(item);
    return Status::OK();
  }

 private:
  CatalogSnapshot* snapshot_;
};

}  // namespace

Status SqliteStore::ReadCatalog(const std::string& user, const std::string& device,
                                std::optional<int64_t> sinceMs, bool subscribedOnly,
                                CatalogSnapshot* snapshot) {
  *snapshot = CatalogSnapshot();
  SnapshotSink sink(snapshot);
  return StreamCatalog(user, device, sinceMs, subscribedOnly, &sink);
}

Status SqliteStore::StreamCatalog(const std::string& user, const std::string& device,
                                  std::optional<int64_t> sinceMs, bool subscribedOnly,
                                  CatalogSink* sink) {
  ReaderLease reader(this);
  sqlite3* db = reader.db();
  // One snapshot for every read below.
  Statement begin(db, reader.Prepared(kBeginRead));
  if (Status s = Run(begin, "begin"); !s.ok()) return s;
  struct EndRead {
    ReaderLease& reader;
    ~EndRead() {
      Statement commit(reader.db(), reader.Prepared(kEndRead));
      (void)Run(commit, "end read");
    }
  } endRead{reader};
  const int64_t since = sinceMs.value_or(INT64_MIN);

  std::vector<std::string> subscriptions;
  std::map<std::string, FeedRules> rules;
  {
    Statement st(db, reader.Prepared(kCatalogSubscriptions));
    if (!st.prepared()) return st.Error("read subscriptions");
    st.Bind(1, user).Bind(2, device);
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
      std::string feed = st.Text(0);
      rules[feed] = FeedRules{static_cast<int32_t>(st.Int(1)), st.Int(2) != 0,
                              static_cast<int32_t>(st.Int(3))};
      subscriptions.push_back(std::move(feed));
    }
    if (rc != SQLITE_DONE) return st.Error("read subscriptions");
  }
  int64_t newestItemMs = 0;
  {
    Statement st(db, reader.Prepared(kNewestItem));
    if (!st.prepared() || st.Step() != SQLITE_ROW) return st.Error("read newest item");
    newestItemMs = st.Int(0);
  }
  Status s = sink->Begin(subscriptions, rules, newestItemMs);
  if (!s.ok()) return s;

  if (subscribedOnly) {
    Statement st(db, reader.Prepared(kCatalogSubscribedItems));
    if (!st.prepared()) return st.Error("read items");
    st.Bind(1, user).Bind(2, device).Bind(3, since);
    std::string feedId;
    bool anyFeed = false;
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
      if (!anyFeed || st.Text(0) != feedId) {
        Feed feed;
        feed.id = st.Text(0);
        feed.title = st.Text(1);
        feed.subscribable = st.Int(2) != 0;
        feedId = feed.id;
        anyFeed = true;
        s = sink->BeginFeed(feed);
        if (!s.ok()) return s;
      }
      if (sqlite3_column_type(st.handle(), 3) == SQLITE_NULL) continue;  // a feed with no new items
      s = sink->FeedItem(ReadItem(st, 3));
      if (!s.ok()) return s;
    }
    if (rc != SQLITE_DONE) return st.Error("read items");
  } else {
    std::vector<Feed> feeds;
    Statement st(db, reader.Prepared(kCatalogAllFeeds));
    if (!st.prepared()) return st.Error("read feeds");
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
      Feed feed;
      feed.id = st.Text(0);
      feed.title = st.Text(1);
      feed.subscribable = st.Int(2) != 0;
      feeds.push_back(std::move(feed));
    }
    if (rc != SQLITE_DONE) return st.Error("read feeds");
    Statement items(db, reader.Prepared(kCatalogFeedItems));
    if (!items.prepared()) return items.Error("read items");
    for (const auto& feed : feeds) {
      s = sink->BeginFeed(feed);
      if (!s.ok()) return s;
      items.Reset();
      items.Bind(1, feed.id).Bind(2, since);
      while ((rc = items.Step()) == SQLITE_ROW) {
        s = sink->FeedItem(ReadItem(items));
        if (!s.ok()) return s;
      }
      if (rc != SQLITE_DONE) return items.Error("read items");
    }
  }

  {
    Statement st(db, reader.Prepared(kCatalogDirectItems));
    if (!st.prepared()) return st.Error("read direct items");
    st.Bind(1, user).Bind(2, since);
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
      s = sink->DirectItem(ReadItem(st));
      if (!s.ok()) return s;
    }
    if (rc != SQLITE_DONE) return st.Error("read direct items");
  }
  return Status::OK();
}

Status SqliteStore::ListPushes(const std::string& user, const std::string& device, bool pendingOnly,
                               bool markDelivered, std::vector<PushNotice>* notices) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, markDelivered);
  if (!tx.status().ok()) return tx.status();
  Statement st(db_,
               "SELECT id, user, device, service, token, item_uuid, feed, created_ms, delivered "
               "FROM pushes WHERE (?1 = '' OR user = ?1) AND (?2 = '' OR device = ?2) "
               "AND (?3 = 0 OR delivered = 0) ORDER BY id");
  if (!st.prepared()) return st.Error("list pushes");
  st.Bind(1, user).Bind(2, device).Bind(3, int64_t{pendingOnly});
  notices->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    PushNotice n;
    n.id = st.Int(0);
    n.user = st.Text(1);
    n.device = st.Text(2);
    n.service = st.Text(3);
    n.token = st.Text(4);
    n.itemUuid = st.Text(5);
    n.feed = st.Text(6);
    n.createdMs = st.Int(7);
    n.delivered = st.Int(8) != 0;
    notices->push_back(std::move(n));
  }
  if (rc != SQLITE_DONE) return st.Error("list pushes");
  if (markDelivered) {
    Statement mark(db_, "UPDATE pushes SET delivered = 1 WHERE id = ?1");
    for (const auto& n : *notices) {
      mark.Reset();
      mark.Bind(1, n.id);
      Status s = Run(mark, "mark push delivered");
      if (!s.ok()) return s;
    }
  }
  return tx.Commit();
}

Status SqliteStore::ListAccounts(std::vector<AccountSummary>* accounts) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "SELECT a.user, a.public_key, (SELECT COUNT(*) FROM devices d WHERE d.user = "
               "a.user) FROM accounts a ORDER BY a.user");
  if (!st.prepared()) return st.Error("list accounts");
  accounts->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) accounts->push_back({st.Text(0), st.Text(1), st.Int(2)});
  if (rc != SQLITE_DONE) return st.Error("list accounts");
  return Status::OK();
}

Status SqliteStore::ListFeeds(std::vector<FeedSummary>* feeds) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "SELECT f.id, f.title, f.subscribable, f.max_assets, f.auto_delete, f.max_bitrate, "
               "(SELECT COUNT(*) FROM items i WHERE i.feed = f.id), "
               "(SELECT COUNT(*) FROM subscriptions s WHERE s.feed = f.id) "
               "FROM feeds f ORDER BY f.id");
  if (!st.prepared()) return st.Error("list feeds");
  feeds->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    FeedSummary f;
    f.feed.id = st.Text(0);
    f.feed.title = st.Text(1);
    f.feed.subscribable = st.Int(2) != 0;
    f.feed.defaults =
        FeedRules{static_cast<int32_t>(st.Int(3)), st.Int(4) != 0, static_cast<int32_t>(st.Int(5))};
    f.items = st.Int(6);
    f.subscribers = st.Int(7);
    feeds->push_back(std::move(f));
  }
  if (rc != SQLITE_DONE) return st.Error("list feeds");
  return Status::OK();
}

Status SqliteStore::ListItems(const std::string& feed, const std::string& user, int limit,
                              std::vector<Item>* items) {
  std::lock_guard lock(mutex_);
  Statement st(db_,
               "SELECT uuid, feed, user, created_ms, media_path, metadata FROM items "
               "WHERE (?1 = '' OR feed = ?1) AND (?2 = '' OR user = ?2) "
               "ORDER BY created_ms DESC, uuid LIMIT ?3");
  if (!st.prepared()) return st.Error("list items");
  st.Bind(1, feed).Bind(2, user).Bind(3, int64_t{std::max(0, limit)});
  items->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) items->push_back(ReadItem(st));
  if (rc != SQLITE_DONE) return st.Error("list items");
  return Status::OK();
}

Status SqliteStore::ListDevices(std::vector<DeviceSummary>* devices) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, false);
  if (!tx.status().ok()) return tx.status();
  Statement st(db_,
               "SELECT d.user, d.device, d.first_seen_ms, d.last_seen_ms, "
               "COALESCE(p.service, ''), (SELECT COUNT(*) FROM pushes n WHERE n.user = d.user "
               "AND n.device = d.device AND n.delivered = 0) FROM devices d LEFT JOIN "
               "push_registrations p ON p.user = d.user AND p.device = d.device "
               "ORDER BY d.last_seen_ms DESC, d.user, d.device");
  if (!st.prepared()) return st.Error("list devices");
  devices->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    DeviceSummary d;
    d.user = st.Text(0);
    d.device = st.Text(1);
    d.firstSeenMs = st.Int(2);
    d.lastSeenMs = st.Int(3);
    d.pushService = st.Text(4);
    d.pendingPushes = st.Int(5);
    devices->push_back(std::move(d));
  }
  if (rc != SQLITE_DONE) return st.Error("list devices");
  Statement subs(db_,
                 "SELECT feed FROM subscriptions WHERE user = ?1 AND device = ?2 ORDER BY feed");
  if (!subs.prepared()) return subs.Error("list subscriptions");
  for (auto& d : *devices) {
    subs.Reset();
    subs.Bind(1, d.user).Bind(2, d.device);
    while ((rc = subs.Step()) == SQLITE_ROW) d.subscriptions.push_back(subs.Text(0));
    if (rc != SQLITE_DONE) return subs.Error("list subscriptions");
  }
  return tx.Commit();
}

Status SqliteStore::RemoveItem(const std::string& uuid) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  {
    Statement st(db_, "DELETE FROM items WHERE uuid = ?1");
    st.Bind(1, uuid);
    Status s = Run(st, "remove item");
    if (!s.ok()) return s;
    if (sqlite3_changes(db_) == 0) return Status::NotFound("unknown item " + uuid);
  }
  Statement st(db_, "DELETE FROM pushes WHERE item_uuid = ?1 AND delivered = 0");
  st.Bind(1, uuid);
  Status s = Run(st, "remove push notices");
  if (!s.ok()) return s;
  return tx.Commit();
}

Status SqliteStore::SetRulesForSubscribers(const std::string& feedId, const FeedRules& rules,
                                           int64_t* changed) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Feed feed;
  Status s = FindFeedLocked(db_, feedId, &feed);
  if (!s.ok()) return s;
  Statement st(db_,
               "INSERT INTO rules (user, device, feed, max_assets, auto_delete, max_bitrate) "
               "SELECT user, device, feed, ?2, ?3, ?4 FROM subscriptions WHERE feed = ?1 "
               "ON CONFLICT(user, device, feed) DO UPDATE SET max_assets = ?2, "
               "auto_delete = ?3, max_bitrate = ?4");
  st.Bind(1, feedId)
      .Bind(2, int64_t{rules.maxAssets})
      .Bind(3, int64_t{rules.autoDelete})
      .Bind(4, int64_t{rules.maxBitrate});
  s = Run(st, "set subscribers' rules");
  if (!s.ok()) return s;
  if (changed != nullptr) *changed = sqlite3_changes(db_);
  return tx.Commit();
}

Status SqliteStore::UpdateRules(const std::string& user, const std::string& device,
                                const std::string& feedId, const FeedRules& expected,
                                const FeedRules& rules) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  {
    Statement st(db_,
                 "SELECT COALESCE(r.max_assets, f.max_assets), COALESCE(r.auto_delete, "
                 "f.auto_delete), COALESCE(r.max_bitrate, f.max_bitrate) FROM feeds f LEFT JOIN "
                 "rules r ON r.user = ?1 AND r.device = ?2 AND r.feed = f.id WHERE f.id = ?3");
    if (!st.prepared()) return st.Error("read rules");
    st.Bind(1, user).Bind(2, device).Bind(3, feedId);
    const int rc = st.Step();
    if (rc == SQLITE_DONE) return Status::NotFound("unknown feed " + feedId);
    if (rc != SQLITE_ROW) return st.Error("read rules");
    if (st.Int(0) != expected.maxAssets || (st.Int(1) != 0) != expected.autoDelete ||
        st.Int(2) != expected.maxBitrate) {
      return Status::FailedPrecondition("the rules of " + user + "/" + device + " for " + feedId +
                                        " changed since they were read");
    }
  }
  Statement st(db_,
               "INSERT INTO rules (user, device, feed, max_assets, auto_delete, max_bitrate) "
               "VALUES (?1, ?2, ?3, ?4, ?5, ?6) ON CONFLICT(user, device, feed) DO UPDATE SET "
               "max_assets = ?4, auto_delete = ?5, max_bitrate = ?6");
  st.Bind(1, user)
      .Bind(2, device)
      .Bind(3, feedId)
      .Bind(4, int64_t{rules.maxAssets})
      .Bind(5, int64_t{rules.autoDelete})
      .Bind(6, int64_t{rules.maxBitrate});
  if (Status s = Run(st, "set rules"); !s.ok()) return s;
  return tx.Commit();
}

Status SqliteStore::UpdateFeed(const Feed& expected, const Feed& updated, bool applyToSubscribers,
                               int64_t* changed) {
  if (changed != nullptr) *changed = 0;
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Feed current;
  Status s = FindFeedLocked(db_, updated.id, &current);
  if (!s.ok()) return s;
  const auto same = [](const Feed& a, const Feed& b) {
    return a.title == b.title && a.subscribable == b.subscribable &&
           a.defaults.maxAssets == b.defaults.maxAssets &&
           a.defaults.autoDelete == b.defaults.autoDelete &&
           a.defaults.maxBitrate == b.defaults.maxBitrate;
  };
  if (!same(current, expected)) {
    return Status::FailedPrecondition("feed " + updated.id + " changed since it was read");
  }
  Statement st(db_,
               "UPDATE feeds SET title = ?2, subscribable = ?3, max_assets = ?4, "
               "auto_delete = ?5, max_bitrate = ?6 WHERE id = ?1");
  st.Bind(1, updated.id)
      .Bind(2, updated.title)
      .Bind(3, int64_t{updated.subscribable})
      .Bind(4, int64_t{updated.defaults.maxAssets})
      .Bind(5, int64_t{updated.defaults.autoDelete})
      .Bind(6, int64_t{updated.defaults.maxBitrate});
  s = Run(st, "update feed");
  if (!s.ok()) return s;
  if (applyToSubscribers) {
    Statement rules(db_,
                    "INSERT INTO rules (user, device, feed, max_assets, auto_delete, max_bitrate) "
                    "SELECT user, device, feed, ?2, ?3, ?4 FROM subscriptions WHERE feed = ?1 "
                    "ON CONFLICT(user, device, feed) DO UPDATE SET max_assets = ?2, "
                    "auto_delete = ?3, max_bitrate = ?4");
    rules.Bind(1, updated.id)
        .Bind(2, int64_t{updated.defaults.maxAssets})
        .Bind(3, int64_t{updated.defaults.autoDelete})
        .Bind(4, int64_t{updated.defaults.maxBitrate});
    s = Run(rules, "set subscribers' rules");
    if (!s.ok()) return s;
    if (changed != nullptr) *changed = sqlite3_changes(db_);
  }
  return tx.Commit();
}

Status SqliteStore::AddPushNotice(const std::string& user, const std::string& device,
                                  const std::string& itemUuid, int64_t nowMs, PushNotice* notice) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  PushNotice n;
  {
    Statement st(db_,
                 "SELECT COALESCE(p.service, ''), COALESCE(p.token, '') FROM devices d LEFT JOIN "
                 "push_registrations p ON p.user = d.user AND p.device = d.device "
                 "WHERE d.user = ?1 AND d.device = ?2");
    if (!st.prepared()) return st.Error("find device");
    st.Bind(1, user).Bind(2, device);
    if (st.Step() != SQLITE_ROW) return Status::NotFound("unknown device " + user + "/" + device);
    n.service = st.Text(0);
    n.token = st.Text(1);
  }
  {
    Statement st(db_, "SELECT COALESCE(feed, '') FROM items WHERE uuid = ?1");
    if (!st.prepared()) return st.Error("find item");
    st.Bind(1, itemUuid);
    if (st.Step() != SQLITE_ROW) return Status::NotFound("unknown item " + itemUuid);
    n.feed = st.Text(0);
  }
  n.user = user;
  n.device = device;
  n.itemUuid = itemUuid;
  n.createdMs = nowMs;
  Statement insert(db_, kInsertPush);
  if (Status s = InsertPush(insert, &n); !s.ok()) return s;
  if (notice != nullptr) *notice = n;
  return tx.Commit();
}

Status SqliteStore::AddTraffic(const std::vector<TrafficCount>& counts,
                               int64_t forgetBeforeMinute) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, true);
  if (!tx.status().ok()) return tx.status();
  Statement add(db_,
                "INSERT INTO traffic_minutes (minute, node, endpoint, requests, errors, "
                "signature_refusals) VALUES (?1, ?2, ?3, ?4, ?5, ?6) "
                "ON CONFLICT(minute, node, endpoint) DO UPDATE SET "
                "requests = requests + excluded.requests, errors = errors + excluded.errors, "
                "signature_refusals = signature_refusals + excluded.signature_refusals");
  for (const auto& c : counts) {
    if (c.minute < forgetBeforeMinute) continue;
    add.Reset();
    add.Bind(1, c.minute)
        .Bind(2, c.node)
        .Bind(3, c.endpoint)
        .Bind(4, c.requests)
        .Bind(5, c.errors)
        .Bind(6, c.signatureRefusals);
    Status s = Run(add, "add traffic");
    if (!s.ok()) return s;
  }
  Statement forget(db_, "DELETE FROM traffic_minutes WHERE minute < ?1");
  forget.Bind(1, forgetBeforeMinute);
  Status s = Run(forget, "forget old traffic");
  if (!s.ok()) return s;
  return tx.Commit();
}

Status SqliteStore::ReadTraffic(int64_t sinceMinute, bool perMinute,
                                std::vector<TrafficCount>* counts) {
  std::lock_guard lock(mutex_);
  Statement st(db_, perMinute
                        ? "SELECT minute, node, endpoint, requests, errors, signature_refusals "
                          "FROM traffic_minutes WHERE minute >= ?1 ORDER BY minute, node, endpoint"
                        : "SELECT MIN(minute), node, endpoint, SUM(requests), SUM(errors), "
                          "SUM(signature_refusals) FROM traffic_minutes WHERE minute >= ?1 "
                          "GROUP BY node, endpoint ORDER BY node, endpoint");
  if (!st.prepared()) return st.Error("read traffic");
  st.Bind(1, sinceMinute);
  counts->clear();
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    counts->push_back({st.Int(0), st.Text(1), st.Text(2), st.Int(3), st.Int(4), st.Int(5)});
  }
  if (rc != SQLITE_DONE) return st.Error("read traffic");
  return Status::OK();
}

Status SqliteStore::Ping() {
  // An open connection keeps reading a file that was removed or replaced under it,
  // so the name must still lead to the file this store opened.
  struct stat st {};
  if (::stat(file_.c_str(), &st) != 0) {
    return Status::IOError(file_.string() + " is gone");
  }
  if (static_cast<uint64_t>(st.st_dev) != fileDevice_ ||
      static_cast<uint64_t>(st.st_ino) != fileInode_) {
    return Status::IOError(file_.string() + " was replaced by another file");
  }
  std::lock_guard lock(mutex_);
  Statement query(db_, "SELECT COUNT(*) FROM sqlite_schema");
  if (!query.prepared() || query.Step() != SQLITE_ROW) return query.Error("read the schema");
  return Status::OK();
}

}  // namespace zolvani::refserver
