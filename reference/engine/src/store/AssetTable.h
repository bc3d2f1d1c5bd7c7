// AssetTable: the engine's asset rows.
//
// A new asset is one INSERT. Afterwards only the columns that change over an
// asset's life (state, progress, where its file is, its last error) are
// written, and only when they differ from what the row holds: an asset that
// is persisted again unchanged costs nothing, and a change never rewrites the
// row's indexes. Every write is a step of the store's group commit.
//
// Thread-safety: every member may be called from any thread; the database's
// mutex serialises them.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "store/AssetFields.h"
#include "store/GroupCommit.h"

namespace zolvani::reference {

class AssetTable {
 public:
  AssetTable(Database& db, GroupCommit& commits) : db_(db), commits_(commits) {}

  // Every row, in creation order; an error message on failure.
  std::optional<std::string> loadAll(std::vector<AssetFields>* out);
  bool insert(const AssetFields& fields);
  // Writes the changing columns when they differ from the row's.
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

  Database& db_;
  GroupCommit& commits_;
  // Guarded by the database's mutex.
  std::unordered_map<std::string, Progress> written_;
  std::uint64_t rowWrites_ = 0;
};

}  // namespace zolvani::reference
