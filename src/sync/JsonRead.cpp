#include "sync/JsonRead.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace zolvani::sync {
namespace {

std::int64_t saturate(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
  if (d <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

std::size_t skipBlanks(const std::string& s) {
  std::size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  return i;
}

}  // namespace

const nlohmann::json* member(const nlohmann::json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

const nlohmann::json* keyPath(const nlohmann::json& object, std::string_view path) {
  const nlohmann::json* current = &object;
  while (true) {
    std::size_t dot = path.find('.');
    current = member(*current, path.substr(0, dot));
    if (!current || dot == std::string_view::npos) return current;
    path.remove_prefix(dot + 1);
  }
}

std::int64_t int64Of(const nlohmann::json* value) {
  if (!value) return 0;
  switch (value->type()) {
    case nlohmann::json::value_t::number_integer:
      return value->get_ref<const nlohmann::json::number_integer_t&>();
    case nlohmann::json::value_t::number_unsigned: {
      auto u = value->get_ref<const nlohmann::json::number_unsigned_t&>();
      return u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                 ? std::numeric_limits<std::int64_t>::max()
                 : static_cast<std::int64_t>(u);
    }
    case nlohmann::json::value_t::number_float:
      return saturate(value->get_ref<const nlohmann::json::number_float_t&>());
    case nlohmann::json::value_t::boolean:
      return value->get_ref<const nlohmann::json::boolean_t&>() ? 1 : 0;
    case nlohmann::json::value_t::string: {
      const std::string& s = value->get_ref<const std::string&>();
      std::size_t i = skipBlanks(s);
      const char* begin = s.c_str() + i;
      char* end = nullptr;
      long long n = std::strtoll(begin, &end, 10);
      return end == begin ? 0 : static_cast<std::int64_t>(n);
    }
    default:
      return 0;
  }
}

double doubleOf(const nlohmann::json* value) {
  if (!value) return 0.0;
  switch (value->type()) {
    case nlohmann::json::value_t::number_integer:
      return static_cast<double>(value->get_ref<const nlohmann::json::number_integer_t&>());
    case nlohmann::json::value_t::number_unsigned:
      return static_cast<double>(value->get_ref<const nlohmann::json::number_unsigned_t&>());
    case nlohmann::json::value_t::number_float:
      return value->get_ref<const nlohmann::json::number_float_t&>();
    case nlohmann::json::value_t::boolean:
      return value->get_ref<const nlohmann::json::boolean_t&>() ? 1.0 : 0.0;
    case nlohmann::json::value_t::string: {
      const std::string& s = value->get_ref<const std::string&>();
      const char* begin = s.c_str() + skipBlanks(s);
      char* end = nullptr;
      double d = std::strtod(begin, &end);
      return end == begin || !std::isfinite(d) ? 0.0 : d;
    }
    default:
      return 0.0;
  }
}

bool boolOf(const nlohmann::json* value) {
  if (!value) return false;
  if (value->is_string()) {
    const std::string& s = value->get_ref<const std::string&>();
    std::size_t i = skipBlanks(s);
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    while (i < s.size() && s[i] == '0') ++i;
    if (i >= s.size()) return false;
    char c = s[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
  }
  if (value->is_number_float())
    return value->get_ref<const nlohmann::json::number_float_t&>() != 0.0;
  return int64Of(value) != 0;
}

const std::string& stringOf(const nlohmann::json* value) {
  static const std::string kEmpty;
  return value && value->is_string() ? value->get_ref<const std::string&>() : kEmpty;
}

bool isScalar(const nlohmann::json* value) {
  return value && (value->is_number() || value->is_boolean() || value->is_string());
}

}  // namespace zolvani::sync
