#include "zolvani/subscription/engine/EngineRoles.h"

#include <algorithm>
#include <mutex>

namespace zolvani {
namespace {

std::once_flag installOnce;
std::optional<ZolvaniEngine> installed;

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

bool ZolvaniEngine::complete() const {
  return downloadEngine && keelhall && eventHandler && logger && secureClock && appPersistence &&
         reachability && uuid && utilities && sessionHelper && assets;
}

bool installEngine(ZolvaniEngine engine) {
  bool took = false;
  std::call_once(installOnce, [&] {
    installed = std::move(engine);
    took = true;
  });
  return took;
}

const ZolvaniEngine* installedEngine() { return installed ? &*installed : nullptr; }

bool AssetDataOrderedSet::contains(const Item& item) const { return indexOf(item).has_value(); }

std::optional<std::size_t> AssetDataOrderedSet::indexOf(const Item& item) const {
  auto it = std::find(items_.begin(), items_.end(), item);
  if (it == items_.end()) return std::nullopt;
  return static_cast<std::size_t>(it - items_.begin());
}

void AssetDataOrderedSet::add(Item item) {
  if (!item || contains(item)) return;
  items_.push_back(std::move(item));
}

void AssetDataOrderedSet::remove(const Item& item) {
  auto it = std::find(items_.begin(), items_.end(), item);
  if (it != items_.end()) items_.erase(it);
}

void AssetDataOrderedSet::removeAt(std::size_t index) {
  if (index < items_.size()) items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(index));
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
  if (!std::is_sorted(keyed.begin(), keyed.end(), less))
    std::stable_sort(keyed.begin(), keyed.end(), less);
  for (std::size_t i = 0; i < keyed.size(); ++i) items_[i] = std::move(keyed[i].second);
}

}  // namespace zolvani
