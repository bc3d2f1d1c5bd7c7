#include "zolvani/subscription/engine/AssetDataOrderedSet.h"

#include <algorithm>
#include <utility>

namespace zolvani {
namespace {

// Orders two attribute values: null first, then numbers and dates by value,
// then text.
int rank(const Value& v) {
  if (v.isNull()) return 0;
  if (v.isNumber() || v.isDate()) return 1;
  return 2;
}

bool lessValue(const Value& a, const Value& b) {
  int ra = rank(a), rb = rank(b);
  if (ra != rb) return ra < rb;
  if (ra == 1) return a.doubleValue() < b.doubleValue();
  if (ra == 2) return a.stringValue() < b.stringValue();
  return false;
}

}  // namespace

bool AssetDataOrderedSet::contains(const Item& item) const {
  return item && members_.count(item.get()) != 0;
}

std::optional<std::size_t> AssetDataOrderedSet::indexOf(const Item& item) const {
  if (!contains(item)) return std::nullopt;
  return items_.find(item);
}

void AssetDataOrderedSet::add(Item item) {
  if (!item || contains(item)) return;
  // An appended member may break the order; the next sorted insertion sorts.
  forgetOrder();
  members_.insert(item.get());
  items_.push_back(std::move(item));
  record(Change::Kind::kInserted, items_.size() - 1, items_.back());
}

void AssetDataOrderedSet::remove(const Item& item) {
  if (auto index = indexOf(item)) removeAt(*index);
}

void AssetDataOrderedSet::removeAt(std::size_t index) {
  if (index >= items_.size()) return;
  Item item = items_.erase(index);
  members_.erase(item.get());
  // Taking a member out keeps the others in order.
  if (sortedBy_) keys_.erase(index);
  record(Change::Kind::kRemoved, index, item);
}

void AssetDataOrderedSet::clear() {
  if (recording_) {
    const std::vector<Item> members = items_.toVector();
    for (std::size_t i = members.size(); i-- > 0;) record(Change::Kind::kRemoved, i, members[i]);
  }
  items_.clear();
  members_.clear();
  keys_.clear();
}

void AssetDataOrderedSet::sortByAttribute(std::string_view attribute) {
  // Values are read once, not once per comparison: an engine may fetch them
  // from its store.
  std::vector<std::pair<Value, Item>> keyed;
  keyed.reserve(items_.size());
  for (const auto& item : items_) keyed.emplace_back(item->valueForKey(attribute), item);
  auto less = [](const auto& a, const auto& b) { return lessValue(a.first, b.first); };
  // A tracked list gains one item at a time and is nearly always in order
  // already; then the items are put back where they were.
  const bool moved = !std::is_sorted(keyed.begin(), keyed.end(), less);
  if (moved) std::stable_sort(keyed.begin(), keyed.end(), less);
  forgetOrder();
  bool remembered = true;
  items_.clear();
  for (auto& [key, item] : keyed) {
    items_.push_back(std::move(item));
    if (rank(key) == 2) remembered = false;
    if (remembered) keys_.push_back(SortKey{rank(key), rank(key) ? key.doubleValue() : 0.0});
  }
  if (remembered)
    sortedBy_ = std::string(attribute);
  else
    keys_.clear();
  if (moved) record(Change::Kind::kReordered, 0, nullptr);
}

void AssetDataOrderedSet::insertSorted(Item item, std::string_view attribute) {
  if (!item) return;
  if (contains(item) || !sortedBy_ || *sortedBy_ != attribute) {
    add(std::move(item));
    sortByAttribute(attribute);
    return;
  }
  const Value value = item->valueForKey(attribute);
  if (rank(value) == 2) {
    add(std::move(item));
    sortByAttribute(attribute);
    return;
  }
  // A stable sort of the sorted members followed by the new one puts it after
  // every member that is not greater: the upper bound of its value.
  const SortKey key{rank(value), rank(value) ? value.doubleValue() : 0.0};
  const std::size_t at = keys_.partitionPoint([&key](const SortKey& k) {
    return k.rank != key.rank ? k.rank < key.rank : k.number <= key.number;
  });
  keys_.insert(at, key);
  members_.insert(item.get());
  if (recording_) record(Change::Kind::kInserted, at, item);
  items_.insert(at, std::move(item));
}

void AssetDataOrderedSet::setRecordsChanges(bool on) {
  recording_ = on;
  if (!on) changes_.clear();
}

std::vector<AssetDataOrderedSet::Change> AssetDataOrderedSet::takeChanges() {
  return std::exchange(changes_, {});
}

void AssetDataOrderedSet::record(Change::Kind kind, std::size_t index, const Item& item) {
  if (!recording_) return;
  // A reordering makes the store write the whole order from the set as it is
  // at the save, so what came before it and what follows tells it nothing.
  if (!changes_.empty() && changes_.back().kind == Change::Kind::kReordered) return;
  if (kind == Change::Kind::kReordered) changes_.clear();
  changes_.push_back(Change{kind, index, item});
}

void AssetDataOrderedSet::forgetOrder() {
  sortedBy_.reset();
  keys_.clear();
}

}  // namespace zolvani
