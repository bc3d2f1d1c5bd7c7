// UserDefaults: the string-keyed settings store the library keeps its global
// settings in (and reads the engine's keys from).
//
// An absent key is distinct from 0, false or the empty string. Values are typed
// (bool, integers, doubles, strings, dates, byte buffers, arrays and maps of
// these). Changes are visible at once to every reader; synchronize() makes them
// durable.
//
// Thread-safety: implementations must be safe to use from any thread.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "zolvani/subscription/Value.h"

namespace zolvani {

class ZSM_EXPORT UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  // The stored value, or nullopt when the key is absent.
  virtual std::optional<Value> objectForKey(std::string_view key) const = 0;
  virtual void setObject(std::string_view key, Value value) = 0;
  virtual void removeObjectForKey(std::string_view key) = 0;
  // Writes pending changes durably; false when the write failed.
  virtual bool synchronize() = 0;

  // Typed readings; an absent key reads as false, 0, 0.0 or the empty string.
  bool boolForKey(std::string_view key) const;
  std::int64_t integerForKey(std::string_view key) const;
  double doubleForKey(std::string_view key) const;
  std::string stringForKey(std::string_view key) const;
  std::optional<Date> dateForKey(std::string_view key) const;

  void setBool(std::string_view key, bool value) { setObject(key, Value(value)); }
  void setInteger(std::string_view key, std::int64_t value) { setObject(key, Value(value)); }
  void setDouble(std::string_view key, double value) { setObject(key, Value(value)); }
  void setString(std::string_view key, std::string value) {
    setObject(key, Value(std::move(value)));
  }
  void setDate(std::string_view key, Date value) { setObject(key, Value(value)); }
};

}  // namespace zolvani
