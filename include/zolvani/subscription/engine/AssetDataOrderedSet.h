// AssetDataOrderedSet: an ordered, duplicate-free collection of asset-data
// references, the type of a feed record's tracked and deferred items. Identity
// is the object, not its contents.
//
// Membership tests are constant-time, and members are kept in chunks, so that
// putting one in the middle of a long feed or taking the oldest out moves a
// chunk, not the feed. The set remembers the attribute it was
// last sorted by, with each member's value of it (when the values are dates,
// numbers or null, as the ordering attribute's are), so that insertSorted()
// puts a new member in place with a binary search instead of sorting the
// whole collection again. The remembered values are read when the set is sorted or
// a member is inserted in order; an engine that changes a member's sort value
// while it is in the set re-sorts with sortByAttribute(), which reads afresh.
//
// An engine's store can ask the set to record its changes (insertions and
// removals with their positions, and reorderings), so that a save writes what
// changed instead of the whole collection.
//
// Thread-safety: none; a set belongs to its record, which is touched only
// inside the store context's blocks.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "zolvani/subscription/Value.h"
#include "zolvani/subscription/engine/ChunkedSequence.h"
#include "zolvani/subscription/engine/ZolvaniAsset.h"

namespace zolvani {

class ZSM_EXPORT AssetDataOrderedSet {
 public:
  using Item = std::shared_ptr<ZolvaniAssetData>;

  // One change, in the order it happened. Replayed onto the collection as it
  // was before the first change, the changes give the collection as it is.
  // A reordering is recorded alone: it stands for every change since the last
  // takeChanges(), and the set as it is then holds the outcome.
  struct Change {
    enum class Kind : std::uint8_t {
      kInserted,   // `item` now stands at `index`
      kRemoved,    // `item` was taken from `index`
      kReordered,  // members moved; the new order is the set's
    };
    Kind kind = Kind::kInserted;
    std::size_t index = 0;
    Item item;
  };

  using const_iterator = ChunkedSequence<Item>::const_iterator;

  std::size_t count() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  // Reaching a member by index walks the chunks; iterate to visit them all.
  const Item& at(std::size_t i) const { return items_.at(i); }
  bool contains(const Item& item) const;
  std::optional<std::size_t> indexOf(const Item& item) const;
  // Appends; an object already present stays where it is.
  void add(Item item);
  void remove(const Item& item);
  void removeAt(std::size_t index);
  void clear();
  // Stable ascending sort by the value of `attribute` (dates and numbers by
  // value, strings by text; null first).
  void sortByAttribute(std::string_view attribute);
  // The same collection as add() followed by sortByAttribute(): a member
  // already present stays and the set is sorted; a new one goes after every
  // member whose value is not greater than its own. When the set is known to
  // be sorted by `attribute`, only the new member's value is read.
  void insertSorted(Item item, std::string_view attribute);

  // The members in order, copied.
  std::vector<Item> items() const { return items_.toVector(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }

  // Starts or stops recording changes; stopping drops what was recorded.
  void setRecordsChanges(bool on);
  bool hasChanges() const { return !changes_.empty(); }
  // The changes since the last call, oldest first.
  std::vector<Change> takeChanges();

 private:
  void record(Change::Kind kind, std::size_t index, const Item& item);
  void forgetOrder();

  ChunkedSequence<Item> items_;
  std::unordered_set<const ZolvaniAssetData*> members_;
  // The attribute the set is known to be sorted by, and each member's value
  // of it. Only null, number and date values are remembered (a plain pair
  // that moves as bytes); a set with text values is sorted afresh instead.
  struct SortKey {
    int rank = 0;  // 0 null, 1 number or date
    double number = 0;
  };
  std::optional<std::string> sortedBy_;
  ChunkedSequence<SortKey> keys_;  // beside items_, index for index
  bool recording_ = false;
  std::vector<Change> changes_;
};

}  // namespace zolvani
