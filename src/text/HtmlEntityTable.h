// The two fixed tables of named character references and the look-up by name.
//
// Both tables are sorted strictly ascending by code unit, so the escaper finds a code
// unit's name by binary search. The unescaper finds a name's code unit through a hash
// index built once over the full table. Immutable after first use; safe from any
// thread.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace zolvani::text {

struct HtmlEntity {
  std::string_view text;  // with the leading "&" and the trailing ";", e.g. "&amp;"
  char16_t unit;
};

// Every named reference of HTML 4.01 plus "&apos;": 253 entries.
std::span<const HtmlEntity> fullEntityTable();

// The 33 characters that keep a name in output that may stay non-ASCII.
std::span<const HtmlEntity> shortEntityTable();

// The code unit of the reference "&<name>;" in the full table, given the name's code
// units without "&" and ";". Case-sensitive. The second form takes the name as bytes
// (of valid UTF-8); names are ASCII, so both forms agree.
std::optional<char16_t> lookupEntityName(std::u16string_view name);
std::optional<char16_t> lookupEntityName(std::string_view name);

}  // namespace zolvani::text
