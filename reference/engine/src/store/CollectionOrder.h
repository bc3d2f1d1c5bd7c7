// CollectionOrder: where each item of one record's collection sits in the
// store, and which rows a save must write to follow the collection.
//
// Rows carry sparse positions: a new item takes the middle of the gap between
// its neighbours (or one gap beyond the first or last), so inserting in the
// middle, appending or removing writes one row and leaves the rest of the feed
// alone. When a gap has run out, the few neighbours around it are spread out
// again; only a reordering of the collection rewrites it.
//
// Thread-safety: none; the store context's lock guards it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "zolvani/subscription/engine/AssetDataOrderedSet.h"
#include "zolvani/subscription/engine/ChunkedSequence.h"

namespace zolvani::reference {

class CollectionOrder {
 public:
  // Space between neighbouring positions when they are dealt out afresh.
  static constexpr std::int64_t kGap = std::int64_t{1} << 20;

  // An item's row. The item is one of the collection's members, or one that
  // a pending change still holds: the record keeps it alive.
  struct Entry {
    std::int64_t position = 0;
    const ZolvaniAssetData* item = nullptr;
  };
  // One row to write: the item's new position, or none to delete its row.
  struct Write {
    std::string uuid;
    std::optional<std::int64_t> position;
  };
  struct Writes {
    // Every row of the collection is deleted first, then `rows` are written.
    bool replaceAll = false;
    std::vector<Write> rows;
  };

  using Entries = ChunkedSequence<Entry>;

  const Entries& entries() const { return entries_; }
  // The collection as the store holds it, in position order.
  void assign(const std::vector<Entry>& entries);

  // Follows the set from the state this order describes through `changes` to
  // `now`, and returns the rows that take the store there, each item once.
  Writes follow(const std::vector<AssetDataOrderedSet::Change>& changes,
                const AssetDataOrderedSet& now);
  // Deals positions out afresh for `now`; every row is written.
  Writes rewrite(const AssetDataOrderedSet& now);

 private:
  std::optional<std::int64_t> positionAt(std::size_t index) const;

  Entries entries_;
};

}  // namespace zolvani::reference
