// EngineStore: the engine's database file and everything that writes to it.
//
// One SQLite connection in WAL mode holds the asset table, the feed records
// and their items, and a few named values. Writes go through one group
// commit (see GroupCommit.h); close() commits what is pending. Named values
// are held back like the rows, so a commit that fails keeps them too.
//
// Thread-safety: open() and close() are called by the engine's start and
// stop; everything else may be called from any thread.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "store/AssetTable.h"
#include "store/Database.h"
#include "store/GroupCommit.h"

namespace zolvani::reference {

class EngineStore {
 public:
  explicit EngineStore(GroupCommitOptions options = {}) : options_(options) {}
  ~EngineStore() { close(); }
  EngineStore(const EngineStore&) = delete;
  EngineStore& operator=(const EngineStore&) = delete;

  // Opens (creating) the database and its tables; an error message on failure.
  std::optional<std::string> open(const std::filesystem::path& file);
  // Commits what is pending and closes the database. When that last commit
  // fails, nothing of it lands: rows that refer to one another (a feed's
  // item and its asset) go together or not at all.
  void close();
  // Commits what is pending now; true when nothing is left pending.
  bool flush() { return !commits_ || commits_->flush(); }

  Database& db() { return db_; }
  GroupCommit& commits() { return *commits_; }
  AssetTable& assets() { return *assets_; }

  // A named value, as the next commit leaves it; empty when unset.
  std::string metaValue(const std::string& key);
  // Holds the value back for the next commit.
  bool setMetaValue(const std::string& key, const std::string& value);

 private:
  bool writeMeta();
  const GroupCommitOptions options_;
  Database db_;
  std::shared_ptr<GroupCommit> commits_;  // shared: units of work watch it
  std::unique_ptr<AssetTable> assets_;
  // Named values held back (under the group commit's held rows' lock) and
  // taken by a commit (under the database's mutex).
  std::map<std::string, std::string> metaHeld_, metaTaken_;
};

}  // namespace zolvani::reference
