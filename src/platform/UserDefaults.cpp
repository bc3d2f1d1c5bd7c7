#include "zolvani/subscription/platform/UserDefaults.h"

namespace zolvani {

bool UserDefaults::boolForKey(std::string_view key) const {
  auto v = objectForKey(key);
  return v && v->boolValue();
}

std::int64_t UserDefaults::integerForKey(std::string_view key) const {
  auto v = objectForKey(key);
  return v ? v->int64Value() : 0;
}

double UserDefaults::doubleForKey(std::string_view key) const {
  auto v = objectForKey(key);
  return v ? v->doubleValue() : 0.0;
}

std::string UserDefaults::stringForKey(std::string_view key) const {
  auto v = objectForKey(key);
  return v ? v->stringValue() : std::string();
}

std::optional<Date> UserDefaults::dateForKey(std::string_view key) const {
  auto v = objectForKey(key);
  if (!v || !v->asDate()) return std::nullopt;
  return *v->asDate();
}

}  // namespace zolvani
