// CatalogSync: one exchange with the server's "catalog" endpoint and what
// follows from it: the guard against overlapping syncs, the request, the reply
// handling in its fixed order, the feed rules, the hand-over to item admission,
// and the finish that stores the last-sync date.
//
// The sync counter and the background task that covers all running syncs
// belong to the CatalogSync, and so to its manager, not to the process: a
// process has one manager, and per-manager state lets every test build a fresh
// one.
//
// Thread-safety: start() may be called from any thread; replies are handled
// and syncs finished on the main queue; admission runs on the processing queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "server/ReplyJudge.h"
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"

namespace zolvani {

class CatalogSync {
 public:
  explicit CatalogSync(ZolvaniSubscriptionManager& manager);

  // The four-argument sync operation; the manager's other three forward here.
  void start(std::optional<Date> since, bool subscribedOnly, bool force, SyncCompletion completion);

  // Syncs whose reply has not been handled yet.
  std::int32_t numSyncs() const { return numSyncs_.load(); }

  // Parses a catalog body without throwing: a body that is not JSON reads as
  // null; containers nested deeper than kMaxDepth are left out of the tree.
  static nlohmann::json parseCatalog(const std::string& body);
  static constexpr std::size_t kMaxDepth = ReplyJudge::kMaxCatalogNesting;

  // The last-sync date a finished sync stores: the catalog's "last_updated"
  // value, read as seconds unless that lies at or after `now`, in which case it
  // is milliseconds; `now` when the catalog gives none (null, or not a number).
  struct LastSync {
    Date date;
    bool fromCatalog;
  };
  static LastSync lastSyncDate(const nlohmann::json& lastUpdated, Date now);

  // "Nov 21, 2026 at 8:30:00 AM" in UTC, for the log lines.
  static std::string formatDate(Date date);

 private:
  void handleReply(HttpReply reply, SyncCompletion completion);
  void judgeAndProcess(HttpReply reply, SyncCompletion& completion);
  void finish(const nlohmann::json& lastUpdated, const std::optional<Value::Array>& subscriptions,
              const SyncCompletion& completion);
  void endSync();
  void fail(SyncCompletion& completion, Error error);

  ZolvaniSubscriptionManager& manager_;
  std::atomic<std::int32_t> numSyncs_{0};
  std::mutex taskMutex_;  // guards backgroundTask_
  BackgroundTaskIdentifier backgroundTask_ = kBackgroundTaskInvalid;
};

}  // namespace zolvani
