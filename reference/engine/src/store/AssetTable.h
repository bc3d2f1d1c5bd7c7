// AssetTable: the engine's asset rows.
//
// Rows are written behind: insert() and update() keep the asset's newest
// fields in memory and the group commit writes them as its next commit
// begins, in the same transaction as every step that ran after them. An
// asset created, given its creation date and queued within one commit costs
// one INSERT; progress reported many times between commits costs one
// UPDATE. After its INSERT has landed, only the columns that change over an
// asset's life (state, progress, where its file is, its last error) are
// written, and only when they differ from what the row will hold: an asset
// persisted again unchanged costs nothing, and a change never rewrites the
// row's indexes. A removal is a step of its own and drops what was held back.
//
// Thread-safety: every member may be called from any thread. The table's
// own mutex guards what is held back and is taken after the database's.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "store/AssetFields.h"
#include "store/GroupCommit.h"

namespace zolvani::reference {

class AssetTable {
 public:
  AssetTable(Database& db, GroupCommit& commits);
  // Rows still held back are lost: flush the group commit first.
  ~AssetTable();
  AssetTable(const AssetTable&) = delete;
  AssetTable& operator=(const AssetTable&) = delete;

  // Every row, in creation order; an error message on failure.
  std::optional<std::string> loadAll(std::vector<AssetFields>* out);
  // Holds a new row back for the next commit; false when the UUID has a row.
  bool insert(const AssetFields& fields);
  // Holds the changing columns back when they differ from what the row will
  // hold; false for an asset without a row.
  bool update(const AssetFields& fields);
  // Removes the row and the asset's entries in every feed record, at once.
  bool remove(const std::string& uuid);
  // Row writes made (inserts, updates and removals), for tests.
  std::uint64_t rowWrites() const;

 private:
  // The columns that change over an asset's life, as last written.
  struct Progress {
    double creationDate = 0;
    AssetState state = AssetState::kCreated;
    double fraction = 0;
    std::uint64_t bytesDone = 0, bytesTotal = 0;
    std::optional<double> downloadComplete;
    std::string localPath;
    std::int64_t queuePos = 0;
    std::string etag, lastModified;
    std::int64_t errorCode = 0;
    std::string errorText;
    std::int64_t bandwidth = 0, segmentsDone = 0, segmentsTotal = 0;
    bool operator==(const Progress&) const = default;
  };
  static Progress progressOf(const AssetFields& f);
  // A row held back: a whole new row, or an existing row's changing columns.
  struct Held {
    std::optional<AssetFields> row;
    Progress progress;
    std::uint64_t version = 0;  // which change this is, to keep newer ones
  };
  // The group commit's deferred writer.
  bool writeHeld();
  void forgetLanded();

  Database& db_;
  GroupCommit& commits_;
  mutable std::mutex mutex_;  // guards the fields below
  // What each row holds once the held rows land.
  std::unordered_map<std::string, Progress> known_;
  std::unordered_map<std::string, Held> held_;
  std::uint64_t nextVersion_ = 1;
  std::uint64_t writtenUpTo_ = 0;  // versions the last write() covered
  std::uint64_t rowWrites_ = 0;
};

}  // namespace zolvani::reference
