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
  auto it = std::find(items_.begin(), items_.end(), item);
  return static_cast<std::size_t>(it - items_.begin());
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
  const auto at = static_cast<std::ptrdiff_t>(index);
  Item item = std::move(items_[index]);
  items_.erase(items_.begin() + at);
  members_.erase(item.get());
  // Taking a member out keeps the others in order.
  if (sortedBy_) keys_.erase(keys_.begin() + at);
  record(Change::Kind::kRemoved, index, item);
}

void AssetDataOrderedSet::clear() {
  for (std::size_t i = items_.size(); i-- > 0;) record(Change::Kind::kRemoved, i, items_[i]);
  items_.clear();
  members_.clear();
  keys_.clear();
}

void AssetDataOrderedSet::sortByAttribute(std::string_view attribute) {
  // Values are read once, not once per comparison: an engine may fetch them
  // from its store.
  std::vector<std::pair<Value, Item>> keyed;
  keyed.reserve(items_.size());
  for (auto& item : items_) keyed.emplace_back(item->valueForKey(attribute), std::move(item));
  auto less = [](const auto& a, const auto& b) { return lessValue(a.first, b.first); };
  // A tracked list gains one item at a time and is nearly always in order
  // already; then the items are put back where they were.
  const bool moved = !std::is_sorted(keyed.begin(), keyed.end(), less);
  if (moved) std::stable_sort(keyed.begin(), keyed.end(), less);
  forgetOrder();
  bool remembered = true;
  keys_.reserve(keyed.size());
  for (std::size_t i = 0; i < keyed.size(); ++i) {
    items_[i] = std::move(keyed[i].second);
    const Value& key = keyed[i].first;
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
  const auto at =
      std::upper_bound(keys_.begin(), keys_.end(), key,
                       [](const SortKey& a, const SortKey& b) {
                         return a.rank != b.rank ? a.rank < b.rank : a.number < b.number;
                       }) -
      keys_.begin();
  keys_.insert(keys_.begin() + at, key);
  members_.insert(item.get());
  items_.insert(items_.begin() + at, std::move(item));
  record(Change::Kind::kInserted, static_cast<std::size_t>(at),
         items_[static_cast<std::size_t>(at)]);
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
