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
// row's indexes. A removal is held back the same way and replaces whatever
// was held for the row.
//
// Thread-safety: every member may be called from any thread. The group
// commit's held-rows mutex guards what is held back.
#pragma once

#include <atomic>
#include <functional>
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
  // The same with the fields `current` gives, read while the row is held:
  // callers that read an asset's fields and then hold them could otherwise
  // land in the other order, and an older state would win.
  bool update(const std::function<AssetFields()>& current);
  // Holds back the removal of the row and of the asset's entries in every
  // feed record, which land at once; false for an asset without a row.
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
    std::int64_t retryFailures = 0;
    std::uint64_t retryBytes = 0;
    double retryNotBefore = 0;
    bool operator==(const Progress&) const = default;
  };
  static Progress progressOf(const AssetFields& f);
  static void applyProgress(const Progress& p, AssetFields& f);
  // A row held back: a whole new row, an existing row's changing columns,
  // or the row's removal.
  struct Held {
    std::optional<AssetFields> row;
    Progress progress;
    bool removed = false;
  };
  // The group commit's deferred writer: writes what a commit took, or puts
  // it back after a failed commit.
  bool writeHeld();
  void restoreHeld();

  Database& db_;
  GroupCommit& commits_;
  std::size_t writerId_ = 0;
  // Guarded by the group commit's held-rows mutex.
  // What each row holds once the held rows land.
  std::unordered_map<std::string, Progress> known_;
  std::unordered_map<std::string, Held> held_;
  // What a commit took; guarded by the database's mutex.
  std::unordered_map<std::string, Held> taken_;
  std::atomic<std::uint64_t> rowWrites_{0};
};

}  // namespace zolvani::reference
