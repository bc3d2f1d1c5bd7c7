// ConsoleStore: what the operator's console keeps on disk, in its own SQLite
// database beside the content (`<data>/console.sqlite`): the console password's
// hash and the audit log of every change made through the console or the
// set-console-password command.
//
// Thread-safe: one connection guarded by a mutex. The server and an admin command
// may open the same folder at once (WAL with a busy time-out).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/Status.h"

struct sqlite3;

namespace zolvani::refserver {

struct AuditEntry {
  int64_t id = 0;  // assigned by Record(); increasing
  int64_t atMs = 0;
  std::string peer;    // the client's address, or "command line"
  std::string action;  // "feed.create", "item.remove", "login.refused", ...
  std::string target;  // what the change concerns (a feed, an item, "user/device")
  nlohmann::json details = nlohmann::json::object();
};

class ConsoleStore {
 public:
  static Status Open(const std::filesystem::path& dataDir, std::unique_ptr<ConsoleStore>* store);
  ~ConsoleStore();
  ConsoleStore(const ConsoleStore&) = delete;
  ConsoleStore& operator=(const ConsoleStore&) = delete;

  // The encoded hash of the console password; NotFound when none was set.
  Status PasswordHash(std::string* encoded);
  Status SetPasswordHash(const std::string& encoded, int64_t nowMs);
  // When the password was last set; 0 when never.
  Status PasswordSetMs(int64_t* setMs);

  Status Record(AuditEntry entry);
  // Newest first: at most `limit` entries with an id below `beforeId` (all when 0).
  Status ListAudit(int limit, int64_t beforeId, std::vector<AuditEntry>* entries);

 private:
  explicit ConsoleStore(sqlite3* db) : db_(db) {}

  std::mutex mutex_;
  sqlite3* db_;
};

}  // namespace zolvani::refserver
