// Conversion between the UTF-8 of the library's interfaces and the UTF-16 code units
// that the HTML text utilities are defined on.
//
// Decoding reads invalid UTF-8 as U+FFFD, one per maximal ill-formed subsequence;
// encoding writes a lone surrogate as U+FFFD. Both are total and never fail. Pure
// functions; safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace zolvani::text {

inline constexpr char16_t kReplacementCharacter = 0xFFFD;

// Appends the UTF-16 form of `utf8` to `out`.
void appendUtf16(std::string_view utf8, std::u16string& out);
std::u16string toUtf16(std::string_view utf8);

// Appends the UTF-8 form of `utf16` to `out`.
void appendUtf8(std::u16string_view utf16, std::string& out);
std::string toUtf8(std::u16string_view utf16);

// True when `utf8` is well-formed UTF-8, so that it can be returned as it is.
bool isValidUtf8(std::string_view utf8);

// The code point that starts at `index` (a surrogate pair read as one; a lone
// surrogate read as itself) and the number of units it takes.
char32_t codePointAt(std::u16string_view text, std::size_t index, std::size_t* units);

// The code point that ends just before `index`, and the number of units it takes.
char32_t codePointBefore(std::u16string_view text, std::size_t index, std::size_t* units);

}  // namespace zolvani::text
