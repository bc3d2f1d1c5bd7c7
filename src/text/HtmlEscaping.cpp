#include "text/HtmlEscaping.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>

#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

namespace zolvani::text {
namespace {

// A candidate reference runs from "&" to ";" inclusive and counts only within this
// window of code units.
constexpr std::size_t kMinReferenceLength = 4;
constexpr std::size_t kMaxReferenceLength = 10;
// Numeric references must name a code unit strictly inside (0, 65535).
constexpr std::int64_t kMaxNumericExclusive = 65535;

const HtmlEntity* findByUnit(std::span<const HtmlEntity> table, char16_t unit) {
  if (table.empty() || unit < table.front().unit || unit > table.back().unit) return nullptr;
  auto it = std::lower_bound(table.begin(), table.end(), unit,
                             [](const HtmlEntity& e, char16_t u) { return e.unit < u; });
  return (it != table.end() && it->unit == unit) ? &*it : nullptr;
}

void appendAscii(std::string_view ascii, std::u16string& out) {
  out.append(ascii.begin(), ascii.end());
}

template <typename Char>
int hexValue(Char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The whole of `digits` read as a number, or nothing when any unit is not part of it.
// At most seven digits reach here, so the value cannot overflow.
template <typename Char>
std::optional<std::int64_t> parseHex(std::basic_string_view<Char> digits) {
  if (digits.empty()) return std::nullopt;
  std::int64_t value = 0;
  for (Char c : digits) {
    const int d = hexValue(c);
    if (d < 0) return std::nullopt;
    value = value * 16 + d;
  }
  return value;
}

template <typename Char>
std::optional<std::int64_t> parseSignedDecimal(std::basic_string_view<Char> digits) {
  bool negative = false;
  if (!digits.empty() && (digits[0] == '+' || digits[0] == '-')) {
    negative = digits[0] == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty()) return std::nullopt;
  std::int64_t value = 0;
  for (Char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return negative ? -value : value;
}

// The code unit that the candidate `ref` ("&...;", within the length window) stands
// for, or nothing when it is not a reference that is replaced. Works on UTF-16 units
// or on the bytes of valid UTF-8: every unit that can take part in a reference is
// ASCII, and anything else makes the candidate fail either way.
template <typename Char>
std::optional<char16_t> resolveReference(std::basic_string_view<Char> ref) {
  const std::basic_string_view<Char> body = ref.substr(1, ref.size() - 2);  // without & ;
  if (body[0] == '#') {
    std::optional<std::int64_t> value;
    if (body[1] == 'x' || body[1] == 'X') {
      value = parseHex(body.substr(2));
    } else {
      value = parseSignedDecimal(body.substr(1));
    }
    if (value && *value > 0 && *value < kMaxNumericExclusive) return static_cast<char16_t>(*value);
    return std::nullopt;
  }
  return lookupEntityName(body);
}

// The first ";" or "&" among the nine bytes at `p` (all readable), or p + 9 when there
// is none: the window scan without a data-dependent loop, eight bytes at a time.
inline const char* findSemicolonOrAmpersand(const char* p) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ull;
  constexpr std::uint64_t kHigh = 0x8080808080808080ull;
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  const std::uint64_t semi = word ^ (kOnes * ';');
  const std::uint64_t amp = word ^ (kOnes * '&');
  // A high bit marks a zero byte of semi or amp; bits above the first one may be
  // spurious, so only the lowest is used.
  const std::uint64_t found = ((semi - kOnes) & ~semi & kHigh) | ((amp - kOnes) & ~amp & kHigh);
  if (found != 0) {
    // The lowest byte comes first in memory on a little-endian machine.
    if constexpr (std::endian::native == std::endian::little) {
      return p + std::countr_zero(found) / 8;
    } else {
      for (int i = 0; i < 8; ++i) {
        if (p[i] == ';' || p[i] == '&') return p + i;
      }
    }
  }
  return p + 8 + (p[8] == ';' || p[8] == '&' ? 0 : 1);
}

// The first "&" in [p, end), or end. References sit a few bytes apart in dense text,
// so this scans eight bytes at a time inline rather than calling memchr.
inline const char* findAmpersand(const char* p, const char* end) {
  constexpr std::uint64_t kOnes = 0x0101010101010101ull;
  constexpr std::uint64_t kHigh = 0x8080808080808080ull;
  if constexpr (std::endian::native == std::endian::little) {
    while (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      const std::uint64_t x = word ^ (kOnes * '&');
      const std::uint64_t found = (x - kOnes) & ~x & kHigh;
      if (found != 0) return p + std::countr_zero(found) / 8;
      p += 8;
    }
  }
  while (p < end && *p != '&') ++p;
  return p;
}

// Copies [from, to) to `dst`; short runs with room behind them in the text are copied
// as one fixed block of 16 bytes, which needs no call. `dst` never runs ahead of `from`
// within buffers of equal size, so the block stays inside the output.
inline char* copyRun(char* dst, const char* from, const char* to, const char* textEnd) {
  const auto n = static_cast<std::size_t>(to - from);
  if (n <= 16 && textEnd - from >= 16) {
    std::memcpy(dst, from, 16);
  } else {
    std::memcpy(dst, from, n);
  }
  return dst + n;
}

// Calls `replace(begin, end, unit)` for each reference of `text` that is replaced, in
// order. The references are defined by a walk from the end of the text towards its
// start: each "&" takes the first ";" between it and the "&" visited before it (the
// next "&" in reading order), and replacements never disturb positions still to be
// examined. Every "&" is therefore judged against the original text only, and the ";"
// it uses is the first one before the next "&". That makes the direction of the walk
// unobservable, so the text is processed front to back in one pass.
//
// On the bytes of valid UTF-8 the window of 4 to 10 counts bytes, not UTF-16 units;
// the two counts differ only for a candidate holding a non-ASCII character, and such a
// candidate is never replaced under either count.
template <typename Char, typename Replace>
void forEachReference(std::basic_string_view<Char> text, Replace&& replace) {
  const Char* const end = text.data() + text.size();
  const Char* amp = text.data();
  while (true) {
    if constexpr (sizeof(Char) == 1) {
      amp = findAmpersand(amp, end);
      if (amp == end) return;
    } else {
      while (amp < end && *amp != '&') ++amp;
      if (amp == end) return;
    }
    // Look for the ";" within the window, stopping at the next "&".
    const Char* limit = end - amp > static_cast<std::ptrdiff_t>(kMaxReferenceLength)
                            ? amp + kMaxReferenceLength
                            : end;
    const Char* next = amp + 1;
    if constexpr (sizeof(Char) == 1) {
      if (limit - amp == static_cast<std::ptrdiff_t>(kMaxReferenceLength)) {
        next = findSemicolonOrAmpersand(amp + 1);
      } else {
        while (next < limit && *next != ';' && *next != '&') ++next;
      }
    } else {
      while (next < limit && *next != ';' && *next != '&') ++next;
    }
    if (next < limit && *next == ';' &&
        static_cast<std::size_t>(next - amp + 1) >= kMinReferenceLength) {
      const auto length = static_cast<std::size_t>(next - amp + 1);
      if (auto unit = resolveReference(std::basic_string_view<Char>(amp, length))) {
        replace(amp, next + 1, *unit);
        amp = next + 1;
        continue;
      }
    }
    ++amp;
  }
}

bool isHighSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Writes `c` (below U+10000, not a surrogate, or U+FFFD) as UTF-8.
char* putBmp(char16_t c, char* dst) {
  if (c < 0x80) {
    *dst++ = static_cast<char>(c);
  } else if (c < 0x800) {
    *dst++ = static_cast<char>(0xC0 | (c >> 6));
    *dst++ = static_cast<char>(0x80 | (c & 0x3F));
  } else {
    *dst++ = static_cast<char>(0xE0 | (c >> 12));
    *dst++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    *dst++ = static_cast<char>(0x80 | (c & 0x3F));
  }
  return dst;
}

}  // namespace

// Unescaping straight from valid UTF-8 to UTF-8, with the result the UTF-16 route
// gives: a produced high surrogate pairs with a produced low surrogate that follows it
// directly (valid UTF-8 holds no surrogates of its own), and any other produced
// surrogate is written as U+FFFD.
std::string unescapeValidUtf8(std::string_view text) {
  // A reference of n >= 4 bytes becomes at most 3 bytes, or 4 bytes for a pair made of
  // two references of 8 bytes, so the result fits in the size of the text.
  std::string out(text.size(), '\0');
  char* dst = out.data();
  const char* copied = text.data();
  const char* const textEnd = text.data() + text.size();
  char16_t pendingHigh = 0;  // a produced high surrogate waiting for its partner
  forEachReference(text, [&](const char* begin, const char* end, char16_t unit) {
    if (pendingHigh != 0 && (begin != copied || !isLowSurrogate(unit))) {
      dst = putBmp(kReplacementCharacter, dst);
      pendingHigh = 0;
    }
    dst = copyRun(dst, copied, begin, textEnd);
    copied = end;
    if (pendingHigh != 0) {
      const char32_t c = 0x10000 + ((char32_t{pendingHigh} - 0xD800) << 10) + (unit - 0xDC00);
      *dst++ = static_cast<char>(0xF0 | (c >> 18));
      *dst++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      *dst++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      *dst++ = static_cast<char>(0x80 | (c & 0x3F));
      pendingHigh = 0;
    } else if (isHighSurrogate(unit)) {
      pendingHigh = unit;
    } else {
      dst = putBmp(isLowSurrogate(unit) ? kReplacementCharacter : unit, dst);
    }
  });
  if (pendingHigh != 0) dst = putBmp(kReplacementCharacter, dst);
  const char* end = text.data() + text.size();
  std::memcpy(dst, copied, static_cast<std::size_t>(end - copied));
  dst += end - copied;
  out.resize(static_cast<std::size_t>(dst - out.data()));
  return out;
}

std::u16string escapeHtml(std::u16string_view text, std::span<const HtmlEntity> table,
                          bool escapeUnicode) {
  std::u16string out;
  out.reserve(text.size() + text.size() / 8);
  std::size_t pending = 0;  // start of the run of units that are copied unchanged
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t unit = text[i];
    const HtmlEntity* entity = findByUnit(table, unit);
    if (entity == nullptr && (!escapeUnicode || unit <= 127)) continue;
    out.append(text.substr(pending, i - pending));
    pending = i + 1;
    if (entity != nullptr) {
      appendAscii(entity->text, out);
    } else {
      appendAscii("&#", out);
      appendAscii(std::to_string(unsigned{unit}), out);
      out.push_back(u';');
    }
  }
  out.append(text.substr(pending));
  return out;
}

std::u16string unescapeHtml(std::u16string_view text) {
  // A replacement is never longer than its reference, so the result fits in the size
  // of the text and is written through a pointer.
  std::u16string out(text.size(), u'\0');
  char16_t* dst = out.data();
  const char16_t* copied = text.data();
  forEachReference(text, [&](const char16_t* begin, const char16_t* end, char16_t unit) {
    dst = std::copy(copied, begin, dst);
    *dst++ = unit;
    copied = end;
  });
  dst = std::copy(copied, text.data() + text.size(), dst);
  out.resize(static_cast<std::size_t>(dst - out.data()));
  return out;
}

}  // namespace zolvani::text

namespace zolvani {

namespace {

// The common shape of the public escapers: decode, transform, encode. Empty text and
// text the transformation cannot change are returned as they are (after UTF-8 repair).
std::string escapeUtf8(std::string_view text, std::span<const text::HtmlEntity> table,
                       bool escapeUnicode) {
  if (text.empty()) return std::string();
  return text::toUtf8(text::escapeHtml(text::toUtf16(text), table, escapeUnicode));
}

}  // namespace

std::string gtm_stringByEscapingForHTML(std::string_view text) {
  return escapeUtf8(text, text::shortEntityTable(), false);
}

std::string gtm_stringByEscapingForAsciiHTML(std::string_view text) {
  return escapeUtf8(text, text::fullEntityTable(), true);
}

std::string gtm_stringByUnescapingFromHTML(std::string_view text) {
  // Invalid input takes the UTF-16 route, which repairs it; valid input, the common
  // case, is unescaped in place with the same result.
  if (!text::isValidUtf8(text)) return text::toUtf8(text::unescapeHtml(text::toUtf16(text)));
  if (text.find('&') == std::string_view::npos) return std::string(text);
  return text::unescapeValidUtf8(text);
}

std::string stringByDecodingHTMLEntities(std::string_view text) {
  return gtm_stringByUnescapingFromHTML(text);
}

std::string stringByEncodingHTMLEntities(std::string_view text) {
  return gtm_stringByEscapingForAsciiHTML(text);
}

std::string stringByEncodingHTMLEntities(std::string_view text, bool keepUnicode) {
  return keepUnicode ? gtm_stringByEscapingForHTML(text) : gtm_stringByEscapingForAsciiHTML(text);
}

}  // namespace zolvani
