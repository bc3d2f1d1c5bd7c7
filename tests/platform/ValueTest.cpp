#include "zolvani/subscription/Value.h"

#include <string>
#include <vector>

#include <limits>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "zolvani/subscription/Constants.h"

namespace zolvani {
namespace {

TEST(ValueTest, LenientReadingsFollowThePlatformsRules) {
  struct Case {
    Value value;
    bool boolean;
    std::int64_t integer;
  } cases[] = {
      {Value(), false, 0},
      {Value(true), true, 1},
      {Value(0), false, 0},
      {Value(-3), true, -3},
      {Value(2.9), true, 2},
      {Value(-2.9), true, -2},
      {Value(1e300), true, std::numeric_limits<std::int64_t>::max()},
      {Value("1"), true, 1},
      {Value("  42abc"), true, 42},
      {Value("yes"), true, 0},
      {Value("true"), true, 0},
      {Value("no"), false, 0},
      {Value("0"), false, 0},
      {Value(""), false, 0},
      {Value(Value::Array{Value(1)}), false, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.value.boolValue(), c.boolean) << c.value.describe();
    EXPECT_EQ(c.value.int64Value(), c.integer) << c.value.describe();
  }
}

TEST(ValueTest, JsonKeepsIntegersDoublesAndLargeUnsignedApart) {
  auto v = Value::fromJson(nlohmann::json::parse(
      R"({"i": 3, "d": 3.0, "u": 18446744073709551615, "s": "x", "n": null, "a": [true]})"));
  EXPECT_TRUE(v.find("i")->isInteger());
  EXPECT_TRUE(v.find("d")->isDouble());
  EXPECT_TRUE(v.find("u")->isDouble());  // beyond signed 64 bits: kept as a number, not wrapped
  EXPECT_GT(v.find("u")->doubleValue(), 1e19);
  EXPECT_TRUE(v.find("n")->isNull());
  EXPECT_EQ(v.find("missing"), nullptr);
  EXPECT_EQ(Value::fromJson(v.toJson()), v);
  // A date written as JSON becomes its seconds; a number never reads as a date.
  EXPECT_EQ(Value(Date(12.5)).toJson(), nlohmann::json(12.5));
  EXPECT_EQ(Value(12.5).asDate(), nullptr);
}

TEST(ValueTest, DatesAreDescribedToTheMillisecond) {
  struct Case {
    double seconds;
    const char* text;
  } cases[] = {
      {1750000000.0, "1750000000.000"},
      {0.0, "0.000"},
      {-0.0, "-0.000"},
      {-12.0, "-12.000"},
      {12.5, "12.500"},
      {1.0005, "1.000"},
      {-0.25, "-0.250"},
      {1e16, "10000000000000000.000"},
  };
  for (const Case& c : cases) EXPECT_EQ(Value(Date(c.seconds)).describe(), c.text) << c.seconds;
}

// Well-known keys are shared, not owned, and other keys are owned: a map must
// order, find and compare them all by their text alone.
TEST(ValueTest, MapKeysBehaveAsTheirTextWhereverTheyCameFrom) {
  const std::string wellKnown(SubscriptionAssetDataAssetIDKey);
  Value::Map map{{"zeta", 1}, {wellKnown, 2}, {"", 3}, {"SubscriptionAssetDataAssetIDKez", 4}};
  map[std::string("alpha")] = 5;

  std::vector<std::string> order;
  for (const auto& [k, v] : map) order.push_back(k.str());
  EXPECT_EQ(order, (std::vector<std::string>{"", wellKnown, "SubscriptionAssetDataAssetIDKez",
                                             "alpha", "zeta"}));

  struct Case {
    Value::Key key;
    std::int64_t expected;
  } cases[] = {
      {Value::Key(std::string_view(wellKnown)), 2},
      {Value::Key(wellKnown.c_str()), 2},
      {Value::Key(std::string("zeta")), 1},
      {Value::Key(), 3},
      {Value::Key("SubscriptionAssetDataAssetIDKez"), 4},
  };
  for (const Case& c : cases) {
    auto it = map.find(c.key);
    ASSERT_NE(it, map.end()) << c.key.str();
    EXPECT_EQ(it->second.int64Value(), c.expected) << c.key.str();
    // Looked up by plain text too, with no key built.
    EXPECT_EQ(map.find(c.key.view())->second.int64Value(), c.expected);
    EXPECT_EQ(map.find(c.key.str())->second.int64Value(), c.expected);
  }
  EXPECT_EQ(map.find("SubscriptionAssetDataAssetID"), map.end());

  // A copy shares its keys yet is an independent map.
  Value::Map copy = map;
  copy.erase("zeta");
  EXPECT_EQ(map.size(), 5u);
  EXPECT_EQ(Value(copy) == Value(map), false);
  copy[std::string("zeta")] = 1;
  EXPECT_EQ(Value(copy), Value(map));
  EXPECT_EQ(Value::describe(Value::Map{{wellKnown, Value(Date(5.0))}, {"b", Value::Array{1, "x"}}}),
            "{" + wellKnown + " = 5.000; b = (1, x)}");
}

}  // namespace
}  // namespace zolvani
