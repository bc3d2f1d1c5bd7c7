// The character-reference escaper and unescaper on UTF-16 code units, for the public
// functions and for the plain-text converter, which decodes its result in UTF-16.
// Pure functions; safe from any thread.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "text/HtmlEntityTable.h"

namespace zolvani::text {

// The general escaper. `table` must be sorted strictly ascending by code unit. A unit
// with an entry becomes the entry's text; a unit without one becomes "&#<decimal>;"
// when `escapeUnicode` is set and the unit is above 127, and is kept otherwise.
std::u16string escapeHtml(std::u16string_view text, std::span<const HtmlEntity> table,
                          bool escapeUnicode);

// Replaces character references by their code units; see gtm_stringByUnescapingFromHTML.
std::u16string unescapeHtml(std::u16string_view text);

// The same on the bytes of UTF-8, giving what the UTF-16 route gives when `text` is
// valid UTF-8. Sets `*nonAscii` when `text` holds a byte above 0x7F, and only then
// need the caller check its validity.
std::string unescapeUtf8(std::string_view text, bool* nonAscii);

}  // namespace zolvani::text
