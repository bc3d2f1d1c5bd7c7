// Value: the one dynamic value type of the library.
//
// It carries what the original platform kept in untyped dictionaries: asset-data
// dictionaries (which hold dates), notification user information (which holds
// engine assets), push payloads and user-defaults values. A Value is null, a
// boolean, a signed 64-bit integer, a double, a UTF-8 string, a Date, a byte
// buffer, an array, a string-keyed map or a reference to an engine asset.
// Integers and doubles stay distinct, and a date stays distinct from a number,
// so "a created date given as a number" can be told from a date.
//
// Thread-safety: a Value is a plain value; distinct values may be used from
// distinct threads, one value must not be mutated while another thread reads it.
#pragma once

#include "zolvani/subscription/Export.h"

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "zolvani/subscription/Date.h"

namespace zolvani {

class ZolvaniAsset;

// An owned byte buffer, kept apart from text so both survive a round trip.
struct ZSM_EXPORT Bytes {
  std::string data;
  friend bool operator==(const Bytes&, const Bytes&) = default;
};

class ZSM_EXPORT Value {
 public:
  // A map key: immutable text, shared rather than copied. The library's
  // well-known keys (the asset-data and notification keys) are never
  // allocated, and copying a map shares its keys, so the per-item asset-data
  // maps of a large catalog cost little beyond their values. Reads like a
  // const std::string; compares with any text.
  class Key {
   public:
    Key();
    Key(std::string_view text);
    Key(const std::string& text) : Key(std::string_view(text)) {}
    Key(const char* text) : Key(std::string_view(text)) {}

    const std::string& str() const { return *text_; }
    operator const std::string&() const { return *text_; }
    std::string_view view() const { return *text_; }
    const char* c_str() const { return text_->c_str(); }
    std::size_t size() const { return text_->size(); }
    bool empty() const { return text_->empty(); }

    friend bool operator==(const Key& a, const Key& b) {
      return a.text_ == b.text_ || *a.text_ == *b.text_;
    }
    friend bool operator==(const Key& a, std::string_view b) { return a.view() == b; }
    friend bool operator==(const Key& a, const std::string& b) { return a.view() == b; }
    friend bool operator==(const Key& a, const char* b) { return a.view() == b; }
    friend std::strong_ordering operator<=>(const Key& a, const Key& b) {
      return a.view() <=> b.view();
    }
    friend std::strong_ordering operator<=>(const Key& a, std::string_view b) {
      return a.view() <=> b;
    }
    friend std::strong_ordering operator<=>(const Key& a, const std::string& b) {
      return a.view() <=> std::string_view(b);
    }
    friend std::strong_ordering operator<=>(const Key& a, const char* b) {
      return a.view() <=> std::string_view(b);
    }

   private:
    std::shared_ptr<const std::string> text_;
  };

  using Array = std::vector<Value>;
  using Map = std::map<Key, Value, std::less<>>;
  using AssetRef = std::shared_ptr<ZolvaniAsset>;

  enum class Type { kNull, kBool, kInteger, kDouble, kString, kDate, kBytes, kArray, kMap, kAsset };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  Value(int i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(unsigned long long i) : v_(static_cast<std::int64_t>(i)) {}
  Value(double d) : v_(d) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(Date d) : v_(d) {}
  Value(Bytes b) : v_(std::move(b)) {}
  Value(Array a) : v_(std::move(a)) {}
  Value(Map m) : v_(std::move(m)) {}
  Value(AssetRef asset) : v_(std::move(asset)) {}

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::kNull; }
  bool isBool() const { return type() == Type::kBool; }
  bool isInteger() const { return type() == Type::kInteger; }
  bool isDouble() const { return type() == Type::kDouble; }
  bool isNumber() const { return isInteger() || isDouble() || isBool(); }
  bool isString() const { return type() == Type::kString; }
  bool isDate() const { return type() == Type::kDate; }
  bool isBytes() const { return type() == Type::kBytes; }
  bool isArray() const { return type() == Type::kArray; }
  bool isMap() const { return type() == Type::kMap; }
  bool isAsset() const { return type() == Type::kAsset; }

  // Lenient readings in the manner of the original platform: numbers convert
  // between widths (doubles truncate toward zero, saturating at the limits),
  // numeric text is parsed, anything else reads as 0 / false / empty.
  bool boolValue() const;
  std::int64_t int64Value() const;
  std::int32_t int32Value() const { return static_cast<std::int32_t>(int64Value()); }
  double doubleValue() const;
  // The text of a string; empty for every other type.
  const std::string& stringValue() const;

  // Typed access; nullptr when the value holds another type.
  const std::string* asString() const { return std::get_if<std::string>(&v_); }
  const Date* asDate() const { return std::get_if<Date>(&v_); }
  const Bytes* asBytes() const { return std::get_if<Bytes>(&v_); }
  const Array* asArray() const { return std::get_if<Array>(&v_); }
  Array* asArray() { return std::get_if<Array>(&v_); }
  const Map* asMap() const { return std::get_if<Map>(&v_); }
  Map* asMap() { return std::get_if<Map>(&v_); }
  const AssetRef* asAsset() const { return std::get_if<AssetRef>(&v_); }

  // Map member look-up; nullptr when this is not a map or the key is absent.
  const Value* find(std::string_view key) const;

  // Converts from and to JSON. Dates become seconds since 1970 and byte buffers
  // their text when written as JSON; assets become null.
  static Value fromJson(const nlohmann::json& json);
  nlohmann::json toJson() const;

  // A readable rendering for log lines; a map is rendered as the Value holding
  // it would be, without copying it.
  std::string describe() const;
  static std::string describe(const Map& map);

  friend bool operator==(const Value& a, const Value& b) { return a.v_ == b.v_; }

 private:
  void appendDescription(std::string& out) const;
  static void appendDescription(const Map& map, std::string& out);

  std::variant<std::monostate, bool, std::int64_t, double, std::string, Date, Bytes, Array, Map,
               AssetRef>
      v_;
};

}  // namespace zolvani
