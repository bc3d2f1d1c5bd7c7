// The two fixed tables of named character references and the look-up by name.
//
// Both tables are sorted strictly ascending by code unit, so the escaper finds a code
// unit's name by binary search. The unescaper finds a name's code unit, and its UTF-8
// form, through a hash index over the full table that is built at compile time. All
// of it is immutable; safe from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
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

// The hash index behind the look-up by name: every name packed into one 64-bit key
// (first character in the low byte, zeros above the name), placed by linear probing.
// The key and the length together identify a name: the length keeps a candidate with
// zero bytes ("lt" followed by NULs) from matching a shorter name.
struct EntityNameSlot {
  std::uint64_t key;  // 0 marks an empty slot
  // The character's UTF-8 form in the low three bytes (first byte lowest), and the
  // number of bytes it takes in the top byte, ready to be stored as it is.
  std::uint32_t utf8;
  char16_t unit;
  std::uint16_t length;
};
inline constexpr std::size_t kEntityNameIndexBits = 10;  // 1024 slots for 253 names
using EntityNameIndex = std::array<EntityNameSlot, std::size_t{1} << kEntityNameIndexBits>;
extern const EntityNameIndex kEntityNameIndex;

constexpr std::size_t entityNameSlotOf(std::uint64_t key) {
  return static_cast<std::size_t>((key * 0x9E3779B97F4A7C15ull) >> (64 - kEntityNameIndexBits));
}

// The slot of the name of `length` bytes packed into `key` as above, or null when no
// name matches. Inline for the unescaper's inner loop.
inline const EntityNameSlot* findPackedEntityName(std::uint64_t key, std::size_t length) {
  constexpr std::size_t kMask = (std::size_t{1} << kEntityNameIndexBits) - 1;
  for (std::size_t slot = entityNameSlotOf(key);; slot = (slot + 1) & kMask) {
    const EntityNameSlot& entry = kEntityNameIndex[slot];
    if (entry.key == key && entry.length == length) return &entry;
    if (entry.key == 0) return nullptr;
  }
}

}  // namespace zolvani::text
