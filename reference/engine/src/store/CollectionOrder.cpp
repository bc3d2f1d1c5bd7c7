#include "store/CollectionOrder.h"

#include <algorithm>
#include <unordered_map>

namespace zolvani::reference {
namespace {

using Change = AssetDataOrderedSet::Change;

// Keeps the last write of each item, in the order items were first written.
class WriteSet {
 public:
  void put(const ZolvaniAssetData* item, std::optional<std::int64_t> position) {
    auto [it, fresh] = slot_.try_emplace(item, rows_.size());
    if (fresh)
      rows_.push_back({item->uuid(), position});
    else
      rows_[it->second].position = position;
  }
  std::vector<CollectionOrder::Write> take() { return std::move(rows_); }

 private:
  std::unordered_map<const ZolvaniAssetData*, std::size_t> slot_;
  std::vector<CollectionOrder::Write> rows_;
};

// The least spacing a spread must leave between neighbours, so that the
// next few insertions at the same spot find room again.
constexpr std::int64_t kMinSpread = std::int64_t{1} << 12;

// The gap at `index` ran out. The smallest window of entries around it whose
// bounds leave room is dealt out evenly, with a slot for the newcomer, whose
// position is returned: a crowded spot moves a few neighbours, not the feed.
std::int64_t spreadAround(CollectionOrder::Entries& entries, std::size_t index, WriteSet& writes) {
  constexpr std::int64_t kGap = CollectionOrder::kGap;
  const std::size_t n = entries.size();
  for (std::size_t width = 1;; width *= 2) {
    const std::size_t lo = index > width ? index - width : 0;
    const std::size_t hi = std::min(n, index + width);
    const auto slots = static_cast<std::int64_t>(hi - lo + 1);
    const std::int64_t left =
        lo == 0 ? entries.front().position - kGap * slots : entries[lo - 1].position;
    const std::int64_t right =
        hi == n ? entries.back().position + kGap * slots : entries[hi].position;
    const std::int64_t spacing = (right - left) / (slots + 1);
    // With both ends open the spacing is at least a gap, so the loop ends.
    if (spacing < kMinSpread && !(lo == 0 && hi == n)) continue;
    for (std::size_t e = lo; e < hi; ++e) {
      const auto slot = static_cast<std::int64_t>(e - lo + (e >= index ? 1 : 0));
      entries[e].position = left + spacing * (slot + 1);
      writes.put(entries[e].item, entries[e].position);
    }
    return left + spacing * static_cast<std::int64_t>(index - lo + 1);
  }
}

}  // namespace

void CollectionOrder::assign(const std::vector<Entry>& entries) {
  entries_.clear();
  for (const Entry& entry : entries) entries_.push_back(entry);
}

std::optional<std::int64_t> CollectionOrder::positionAt(std::size_t index) const {
  if (entries_.empty()) return kGap;
  if (index == 0) return entries_.front().position - kGap;
  if (index >= entries_.size()) return entries_.back().position + kGap;
  const std::int64_t before = entries_[index - 1].position;
  const std::int64_t after = entries_[index].position;
  if (after - before < 2) return std::nullopt;  // no room left between them
  return before + (after - before) / 2;
}

CollectionOrder::Writes CollectionOrder::follow(const std::vector<Change>& changes,
                                                const AssetDataOrderedSet& now) {
  for (const Change& change : changes)
    if (change.kind == Change::Kind::kReordered) return rewrite(now);

  WriteSet writes;
  for (const Change& change : changes) {
    if (!change.item) return rewrite(now);
    const ZolvaniAssetData* item = change.item.get();
    if (change.kind == Change::Kind::kRemoved) {
      if (change.index >= entries_.size() || entries_[change.index].item != item)
        return rewrite(now);  // the changes do not fit what was saved
      entries_.erase(change.index);
      writes.put(item, std::nullopt);
      continue;
    }
    if (change.index > entries_.size()) return rewrite(now);
    std::optional<std::int64_t> position = positionAt(change.index);
    if (!position) position = spreadAround(entries_, change.index, writes);
    entries_.insert(change.index, Entry{*position, item});
    writes.put(item, *position);
  }
  if (entries_.size() != now.count()) return rewrite(now);
  return Writes{false, writes.take()};
}

CollectionOrder::Writes CollectionOrder::rewrite(const AssetDataOrderedSet& now) {
  Writes out;
  out.replaceAll = true;
  entries_.clear();
  out.rows.reserve(now.count());
  std::int64_t position = 0;
  for (const auto& item : now) {
    position += kGap;
    entries_.push_back(Entry{position, item.get()});
    out.rows.push_back(Write{item->uuid(), position});
  }
  return out;
}

}  // namespace zolvani::reference
