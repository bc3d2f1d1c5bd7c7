#include "zolvani/subscription/Value.h"

#include <limits>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

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

}  // namespace
}  // namespace zolvani
