#include "zolvani/subscription/Value.h"

#include <cmath>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <unordered_map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/engine/ZolvaniAsset.h"

namespace zolvani {
namespace {

const std::string kEmpty;

std::int64_t saturatingFromDouble(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
  if (d <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

// Reads leading numeric text the way the platform's string readings do:
// optional white space and sign, digits; anything unparsable is 0.
double parseDouble(const std::string& s) {
  const char* begin = s.c_str();
  char* end = nullptr;
  double d = std::strtod(begin, &end);
  return end == begin ? 0.0 : d;
}

// The keys every asset-data map and notification carries, kept once for the
// life of the process. Never destroyed, so keys stay readable during exit.
const std::unordered_map<std::string_view, const std::string*>& wellKnownKeys() {
  static const auto* table = [] {
    constexpr std::string_view kKeys[] = {
        SubscriptionAssetDataAssetIDKey,
        SubscriptionAssetDataCollectionAssetIDKey,
        SubscriptionAssetDataCreatedDateKey,
        SubscriptionAssetDataMediaTypeKey,
        SubscriptionAssetDataTitleKey,
        SubscriptionAssetDataDescriptionKey,
        SubscriptionAssetDataDownloadURLKey,
        SubscriptionAssetDataMaximumBitrateKey,
        SubscriptionAssetDataPublishDateKey,
        SubscriptionAssetDataExpiryDateKey,
        SubscriptionAssetDataExpiryAfterDownloadKey,
        SubscriptionAssetDataExpiryAfterPlayKey,
        SubscriptionAssetDataPermittedMimeTypesKey,
        SubscriptionAssetDataUserInfoKey,
        SubscriptionServerCollectionUUIDKey,
        kSubscriptionManagerStatusDidChangeNotificationStatusKey,
        kSubscriptionManagerNotificationZolvaniAssetsKey,
        kSubscriptionManagerNotificationZolvaniAssetUUIDsKey,
        "",
    };
    auto* out = new std::unordered_map<std::string_view, const std::string*>();
    for (std::string_view key : kKeys) {
      const auto* text = new std::string(key);
      out->emplace(*text, text);
    }
    return out;
  }();
  return *table;
}

}  // namespace

Value::Key::Key() : Key(std::string_view()) {}

Value::Key::Key(std::string_view text) {
  const auto& known = wellKnownKeys();
  if (auto it = known.find(text); it != known.end())
    // No owner: the text lives as long as the process.
    text_ = std::shared_ptr<const std::string>(std::shared_ptr<void>(), it->second);
  else
    text_ = std::make_shared<const std::string>(text);
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::kBool:
      return std::get<bool>(v_);
    case Type::kInteger:
      return std::get<std::int64_t>(v_) != 0;
    case Type::kDouble:
      return std::get<double>(v_) != 0.0;
    case Type::kString: {
      // Leading white space is skipped; "Y", "y", "T", "t" or a non-zero digit
      // reads as true, as the platform's string boolean does.
      const std::string& s = std::get<std::string>(v_);
      std::size_t i = s.find_first_not_of(" \t\n\r");
      if (i == std::string::npos) return false;
      if (s[i] == '+' || s[i] == '-') ++i;
      while (i < s.size() && s[i] == '0') ++i;
      if (i >= s.size()) return false;
      char c = s[i];
      return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    default:
      return false;
  }
}

std::int64_t Value::int64Value() const {
  switch (type()) {
    case Type::kBool:
      return std::get<bool>(v_) ? 1 : 0;
    case Type::kInteger:
      return std::get<std::int64_t>(v_);
    case Type::kDouble:
      return saturatingFromDouble(std::get<double>(v_));
    case Type::kString: {
      const std::string& s = std::get<std::string>(v_);
      const char* begin = s.c_str();
      char* end = nullptr;
      errno = 0;
      long long v = std::strtoll(begin, &end, 10);
      if (end == begin) return 0;
      return static_cast<std::int64_t>(v);
    }
    case Type::kDate:
      return saturatingFromDouble(std::get<Date>(v_).secondsSince1970);
    default:
      return 0;
  }
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::kBool:
      return std::get<bool>(v_) ? 1.0 : 0.0;
    case Type::kInteger:
      return static_cast<double>(std::get<std::int64_t>(v_));
    case Type::kDouble:
      return std::get<double>(v_);
    case Type::kString:
      return parseDouble(std::get<std::string>(v_));
    case Type::kDate:
      return std::get<Date>(v_).secondsSince1970;
    default:
      return 0.0;
  }
}

const std::string& Value::stringValue() const {
  const std::string* s = asString();
  return s ? *s : kEmpty;
}

const Value* Value::find(std::string_view key) const {
  const Map* m = asMap();
  if (!m) return nullptr;
  auto it = m->find(key);
  return it == m->end() ? nullptr : &it->second;
}

Value Value::fromJson(const nlohmann::json& j) {
  using json = nlohmann::json;
  switch (j.type()) {
    case json::value_t::null:
    case json::value_t::discarded:
      return Value();
    case json::value_t::boolean:
      return Value(j.get<bool>());
    case json::value_t::number_integer:
      return Value(j.get<std::int64_t>());
    case json::value_t::number_unsigned: {
      auto u = j.get<std::uint64_t>();
      if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return Value(static_cast<double>(u));
      return Value(static_cast<std::int64_t>(u));
    }
    case json::value_t::number_float:
      return Value(j.get<double>());
    case json::value_t::string:
      return Value(j.get_ref<const std::string&>());
    case json::value_t::binary: {
      const auto& b = j.get_binary();
      return Value(Bytes{std::string(b.begin(), b.end())});
    }
    case json::value_t::array: {
      Array a;
      a.reserve(j.size());
      for (const auto& e : j) a.push_back(fromJson(e));
      return Value(std::move(a));
    }
    case json::value_t::object: {
      Map m;
      // The object's members come in key order, so each goes at the end.
      for (auto it = j.begin(); it != j.end(); ++it)
        m.emplace_hint(m.end(), it.key(), fromJson(it.value()));
      return Value(std::move(m));
    }
  }
  return Value();
}

nlohmann::json Value::toJson() const {
  switch (type()) {
    case Type::kNull:
      return nullptr;
    case Type::kBool:
      return std::get<bool>(v_);
    case Type::kInteger:
      return std::get<std::int64_t>(v_);
    case Type::kDouble:
      return std::get<double>(v_);
    case Type::kString:
      return std::get<std::string>(v_);
    case Type::kDate:
      return std::get<Date>(v_).secondsSince1970;
    case Type::kBytes:
      return std::get<Bytes>(v_).data;
    case Type::kArray: {
      nlohmann::json a = nlohmann::json::array();
      for (const auto& e : std::get<Array>(v_)) a.push_back(e.toJson());
      return a;
    }
    case Type::kMap: {
      nlohmann::json o = nlohmann::json::object();
      for (const auto& [k, v] : std::get<Map>(v_)) o[k.str()] = v.toJson();
      return o;
    }
    case Type::kAsset:
      return nullptr;
  }
  return nullptr;
}

std::string Value::describe() const {
  std::string out;
  appendDescription(out);
  return out;
}

std::string Value::describe(const Map& map) {
  std::string out;
  appendDescription(map, out);
  return out;
}

void Value::appendDescription(const Map& map, std::string& out) {
  out += '{';
  bool first = true;
  for (const auto& [k, v] : map) {
    if (!first) out += "; ";
    out += k.str();
    out += " = ";
    v.appendDescription(out);
    first = false;
  }
  out += '}';
}

// Log lines describe whole asset-data maps, so this appends into one buffer
// rather than building and joining a string per member.
void Value::appendDescription(std::string& out) const {
  switch (type()) {
    case Type::kNull:
      out += "(null)";
      return;
    case Type::kBool:
      out += std::get<bool>(v_) ? "true" : "false";
      return;
    case Type::kInteger:
      fmt::format_to(std::back_inserter(out), "{}", std::get<std::int64_t>(v_));
      return;
    case Type::kDate: {
      const double seconds = std::get<Date>(v_).secondsSince1970;
      // Whole seconds, which nearly every date is, skip the general
      // fixed-precision formatter; the text is the same.
      if (seconds == std::trunc(seconds) && std::fabs(seconds) < 1e15 &&
          !(seconds == 0 && std::signbit(seconds)))
        fmt::format_to(std::back_inserter(out), "{}.000", static_cast<std::int64_t>(seconds));
      else
        fmt::format_to(std::back_inserter(out), "{:.3f}", seconds);
      return;
    }
    case Type::kAsset: {
      const auto& a = std::get<AssetRef>(v_);
      if (a)
        fmt::format_to(std::back_inserter(out), "<ZolvaniAsset {} {}>", a->uuid(), a->assetID());
      else
        out += "(null)";
      return;
    }
    case Type::kArray: {
      out += '(';
      bool first = true;
      for (const auto& e : std::get<Array>(v_)) {
        if (!first) out += ", ";
        e.appendDescription(out);
        first = false;
      }
      out += ')';
      return;
    }
    case Type::kMap:
      appendDescription(std::get<Map>(v_), out);
      return;
    case Type::kString:
      out += std::get<std::string>(v_);
      return;
    default:
      out += toJson().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
      return;
  }
}

std::string Error::describe() const {
  return fmt::format("{} {}: {}", domain, code, localizedDescription());
}

}  // namespace zolvani
