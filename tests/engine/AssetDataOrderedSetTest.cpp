// The ordered set of a feed record: sorted insertion must give exactly what
// appending and a stable sort give, and the change log must replay into the
// set as it is, whatever mix of operations came before.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "zolvani/subscription/engine/AssetDataOrderedSet.h"

namespace zolvani {
namespace {

constexpr std::string_view kKey = "creationDate";

// An asset-data record whose sort value a test sets.
class Item final : public ZolvaniAssetData {
 public:
  Item(std::string uuid, Value value) : uuid_(std::move(uuid)), value_(std::move(value)) {}
  std::string uuid() const override { return uuid_; }
  std::optional<Date> downloadCompleteDateTime() const override { return std::nullopt; }
  std::shared_ptr<ZolvaniManagedObjectContext> managedObjectContext() const override {
    return nullptr;
  }
  Value valueForKey(std::string_view attribute) const override {
    ++reads;
    return attribute == kKey ? value_ : Value();
  }
  mutable int reads = 0;

 private:
  std::string uuid_;
  Value value_;
};

using Items = std::vector<std::shared_ptr<ZolvaniAssetData>>;

std::vector<std::string> uuids(const Items& items) {
  std::vector<std::string> out;
  for (const auto& i : items) out.push_back(i->uuid());
  return out;
}

// What the contract describes: append unless present, then a stable sort with
// null first, numbers and dates by value, text after them.
void modelInsert(Items& model, const std::shared_ptr<ZolvaniAssetData>& item) {
  if (std::find(model.begin(), model.end(), item) == model.end()) model.push_back(item);
  auto rank = [](const Value& v) { return v.isNull() ? 0 : (v.isNumber() || v.isDate()) ? 1 : 2; };
  std::stable_sort(model.begin(), model.end(), [&](const auto& a, const auto& b) {
    Value x = a->valueForKey(kKey), y = b->valueForKey(kKey);
    if (rank(x) != rank(y)) return rank(x) < rank(y);
    if (rank(x) == 1) return x.doubleValue() < y.doubleValue();
    if (rank(x) == 2) return x.stringValue() < y.stringValue();
    return false;
  });
}

// Replays recorded changes onto the UUIDs the set held before them.
std::vector<std::string> replay(std::vector<std::string> before,
                                const std::vector<AssetDataOrderedSet::Change>& changes,
                                const AssetDataOrderedSet& now) {
  using Kind = AssetDataOrderedSet::Change::Kind;
  for (const auto& c : changes) {
    if (c.kind == Kind::kReordered) return uuids(now.items());
    if (c.kind == Kind::kInserted) {
      EXPECT_LE(c.index, before.size());
      before.insert(before.begin() + static_cast<std::ptrdiff_t>(c.index), c.item->uuid());
    } else {
      EXPECT_LT(c.index, before.size());
      EXPECT_EQ(before[c.index], c.item->uuid());
      before.erase(before.begin() + static_cast<std::ptrdiff_t>(c.index));
    }
  }
  return before;
}

TEST(AssetDataOrderedSetTest, SortedInsertionMatchesAppendAndStableSort) {
  struct Case {
    const char* name;
    std::vector<Value> values;  // inserted in this order
  };
  const std::vector<Case> cases = {
      {"ascending", {Value(Date(1)), Value(Date(2)), Value(Date(3))}},
      {"descending", {Value(Date(3)), Value(Date(2)), Value(Date(1))}},
      {"ties keep arrival order",
       {Value(Date(5)), Value(Date(5)), Value(Date(1)), Value(Date(5)), Value(Date(1))}},
      {"null first, text last",
       {Value("b"), Value(Date(2)), Value(), Value("a"), Value(std::int64_t{1}), Value()}},
      {"numbers and dates compare by value",
       {Value(Date(10)), Value(std::int64_t{5}), Value(7.5), Value(Date(6))}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AssetDataOrderedSet set;
    Items model;
    for (std::size_t i = 0; i < c.values.size(); ++i) {
      auto item = std::make_shared<Item>("u" + std::to_string(i), c.values[i]);
      set.insertSorted(item, kKey);
      modelInsert(model, item);
      EXPECT_EQ(uuids(set.items()), uuids(model)) << "after " << i;
    }
  }
}

TEST(AssetDataOrderedSetTest, RandomOperationsKeepOrderAndReplayFromTheLog) {
  std::mt19937 random(12345);
  for (int round = 0; round < 40; ++round) {
    AssetDataOrderedSet set;
    set.setRecordsChanges(true);
    Items model;
    Items pool;
    for (int i = 0; i < 60; ++i)
      pool.push_back(
          std::make_shared<Item>("r" + std::to_string(round) + "-" + std::to_string(i),
                                 Value(Date(static_cast<double>(random() % 8)))));  // many ties
    std::vector<std::string> saved;
    for (int step = 0; step < 120; ++step) {
      const auto& item = pool[random() % pool.size()];
      switch (random() % 5) {
        case 0:
        case 1:
          set.insertSorted(item, kKey);
          modelInsert(model, item);
          break;
        case 2:  // a promotion appends without sorting
          set.add(item);
          if (std::find(model.begin(), model.end(), item) == model.end()) model.push_back(item);
          break;
        case 3:
          set.remove(item);
          std::erase(model, item);
          break;
        default:
          if (!model.empty()) {
            const std::size_t at = random() % model.size();
            set.removeAt(at);
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
          }
      }
      ASSERT_EQ(uuids(set.items()), uuids(model)) << "round " << round << " step " << step;
      for (const auto& i : pool) ASSERT_EQ(set.contains(i), set.indexOf(i).has_value());
      if (random() % 4 == 0) {  // a save
        saved = replay(saved, set.takeChanges(), set);
        ASSERT_EQ(saved, uuids(set.items()));
      }
    }
  }
}

TEST(AssetDataOrderedSetTest, InsertionIntoASortedSetReadsOnlyTheNewValue) {
  AssetDataOrderedSet set;
  std::vector<std::shared_ptr<Item>> items;
  for (int i = 0; i < 1000; ++i) {
    items.push_back(std::make_shared<Item>(std::to_string(i), Value(Date((i * 7919) % 1000))));
    set.insertSorted(items.back(), kKey);
  }
  // The first insertion sorts (one read); after it, each new item is read
  // once to find its place.
  int reads = 0;
  for (const auto& i : items) reads += i->reads;
  EXPECT_EQ(reads, 1000);
  // An appended item breaks the known order: the next insertion sorts again
  // and the result is still what a stable sort gives.
  auto late = std::make_shared<Item>("late", Value(Date(-1)));
  set.add(late);
  set.insertSorted(std::make_shared<Item>("x", Value(Date(500.5))), kKey);
  EXPECT_EQ(set.at(0)->uuid(), "late");
  for (std::size_t i = 1; i < set.count(); ++i)
    EXPECT_LE(set.at(i - 1)->valueForKey(kKey).doubleValue(),
              set.at(i)->valueForKey(kKey).doubleValue());
}

}  // namespace
}  // namespace zolvani
