// Type-checked readings of untrusted server JSON.
//
// A catalog is untrusted input: any member may be missing or of the wrong JSON
// type. These helpers never throw. They read numbers leniently, the way the
// server's loosely typed values have always been read: numbers convert between
// widths (doubles truncate toward zero, saturating), booleans read as 0 or 1,
// text is read for a leading decimal number, and anything else reads as 0,
// false or empty. Wrong-typed strings read as absent.
//
// Thread-safety: plain functions over const JSON; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace zolvani::sync {

// The member `key` of `object`; null when `object` is not an object or lacks it.
const nlohmann::json* member(const nlohmann::json& object, std::string_view key);
// The value at a dotted key path ("metadata.title"); null when any step is
// missing or is not an object.
const nlohmann::json* keyPath(const nlohmann::json& object, std::string_view path);
// Present and not JSON null.
inline bool present(const nlohmann::json* value) { return value != nullptr && !value->is_null(); }

std::int64_t int64Of(const nlohmann::json* value);
// The 64-bit reading narrowed to 32 bits (wrapping), as a 32-bit reading of a
// wider number always did.
inline std::int32_t int32Of(const nlohmann::json* value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(int64Of(value)));
}
double doubleOf(const nlohmann::json* value);
// Numbers are true when non-zero; text is true when it starts (after blanks and
// an optional sign or zeros) with Y, y, T, t or a digit 1-9.
bool boolOf(const nlohmann::json* value);
// The text of a string value; empty for every other type.
const std::string& stringOf(const nlohmann::json* value);
// Whether `value` is a number or boolean or text, the scalars a lifetime may be.
bool isScalar(const nlohmann::json* value);

}  // namespace zolvani::sync
