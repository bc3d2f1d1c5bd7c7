#include "text/HtmlEscaping.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

// The UTF-8 unescaper is mostly bit arithmetic on words, which takes markedly fewer
// instructions with the shifts and bit operations of newer x86-64 processors (BMI1/2,
// AVX2). Where the toolchain can, it is built twice and the loader picks the build
// that the processor runs. Not under ThreadSanitizer, whose runtime is not ready yet
// when the loader makes that choice.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__ELF__) && \
    !defined(__SANITIZE_THREAD__)
#define ZSM_CLONED_FOR_WIDER_CPUS __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define ZSM_CLONED_FOR_WIDER_CPUS
#endif

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

constexpr std::uint64_t kOnes = 0x0101010101010101ull;
constexpr std::uint64_t kHigh = 0x8080808080808080ull;

// Eight bytes at `p` with the first in the low byte, whatever the machine's order.
inline std::uint64_t loadLittle64(const char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}

// The high bit of each byte that is at least `low`, for words of ASCII bytes (no byte
// carries into the next).
constexpr std::uint64_t bytesAtLeast(std::uint64_t ascii, unsigned char low) {
  return (ascii + kOnes * (0x80 - low)) & kHigh;
}

// The first `count` (1 to 7) characters packed in `digits` moved to the top of a word
// (the bytes after them drop out), with "0" characters filling the bytes below them: a
// number of eight digits, most significant first in memory order, with the same value.
constexpr std::uint64_t alignDigits(std::uint64_t digits, std::size_t count) {
  return (digits << (8 * (8 - count))) | ((kOnes * '0') >> (8 * count));
}

// The value of the first `count` (1 to 7) bytes packed in `digits` read as decimal
// digits, or 0 when any of them is not a digit.
inline std::uint32_t packedDecimalValue(std::uint64_t digits, std::size_t count) {
  std::uint64_t chunk = alignDigits(digits, count);
  // Every byte in 0x30..0x3F, and still below 0x40 with 6 added: "0" to "9".
  if ((chunk & (kOnes * 0xF0)) != kOnes * 0x30) return 0;
  if (((chunk + kOnes * 6) & (kOnes * 0xF0)) != kOnes * 0x30) return 0;
  // Pairs, then fours, then all eight digits combined by multiplication.
  chunk -= kOnes * '0';
  chunk = chunk * 10 + (chunk >> 8);
  constexpr std::uint64_t kPairs = 0x000000FF000000FFull;
  constexpr std::uint64_t kHundredAndMillion = 100 + (1000000ull << 32);
  constexpr std::uint64_t kOneAndTenThousand = 1 + (10000ull << 32);
  chunk =
      ((chunk & kPairs) * kHundredAndMillion + ((chunk >> 16) & kPairs) * kOneAndTenThousand) >> 32;
  return static_cast<std::uint32_t>(chunk);
}

// The value of the first `count` (0 to 6) bytes packed in `digits` read as hexadecimal
// digits, or 0 when there are none or any of them is not a hexadecimal digit.
inline std::uint32_t packedHexValue(std::uint64_t digits, std::size_t count) {
  if (count == 0) return 0;
  const std::uint64_t chunk = alignDigits(digits, count);
  if ((chunk & kHigh) != 0) return 0;
  const std::uint64_t digit = bytesAtLeast(chunk, '0') & ~bytesAtLeast(chunk, '9' + 1);
  const std::uint64_t lower = chunk | (kOnes * 0x20);
  const std::uint64_t letter = bytesAtLeast(lower, 'a') & ~bytesAtLeast(lower, 'f' + 1);
  if ((digit | letter) != kHigh) return 0;
  // One nibble a byte ("A" and "a" are 1 in their low bits, 10 with 9 added), then
  // neighbours joined: bytes into pairs, pairs into fours, fours into eight.
  std::uint64_t value = (chunk & (kOnes * 0x0F)) + (letter >> 7) * 9;
  value = ((value << 4) | (value >> 8)) & 0x00FF00FF00FF00FFull;
  value = ((value << 8) | (value >> 16)) & 0x0000FFFF0000FFFFull;
  value = ((value << 16) | (value >> 32)) & 0xFFFFFFFFull;
  return static_cast<std::uint32_t>(value);
}

// The value of the numeric reference whose body ("#" and what follows, before the
// ";") is the first `length` (2 to 8) of the bytes packed in `body`, or 0 when it is
// not a number. The reference is replaced when the value is also below 65535. The same
// decision as resolveReference's, on the body read as one word; `text` is the body's
// text, read for the rare signed decimal.
inline std::uint32_t numericReferenceValue(std::uint64_t body, std::size_t length,
                                           const char* text) {
  const std::uint64_t digits = body >> 8;
  const std::size_t count = length - 1;
  const unsigned first = digits & 0xFF;
  if ((first | 0x20) == 'x') return packedHexValue(digits >> 8, count - 1);
  if (first == '+' || first == '-') [[unlikely]] {
    const auto signedValue = parseSignedDecimal(std::string_view(text + 1, count));
    return signedValue && *signedValue > 0 ? static_cast<std::uint32_t>(*signedValue) : 0;
  }
  return packedDecimalValue(digits, count);
}

// Where the ";" and "&" bytes of a block of 64 bytes are, bit i standing for byte i.
struct BlockMasks {
  std::uint64_t ampersands = 0;
  std::uint64_t semicolons = 0;
};

// The masks of the 64 bytes at `p`; the high bits of those bytes are added to
// `highBits`, so that the unescaper learns on the way whether the text is all ASCII.
// Knowing every "&" and ";" of a block at once lets the unescaper go from one "&" to
// the next, and find the end of its candidate, with bit operations, instead of
// searches of which each waits on the one before.
inline BlockMasks masksOf64(const char* p, unsigned& highBits) {
  BlockMasks masks;
#if defined(__SSE2__)
  const __m128i ampersands = _mm_set1_epi8('&');
  const __m128i semicolons = _mm_set1_epi8(';');
  for (int i = 0; i < 4; ++i) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
    highBits |= static_cast<unsigned>(_mm_movemask_epi8(block));
    const auto amp = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, ampersands)));
    const auto semi = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, semicolons)));
    masks.ampersands |= std::uint64_t{amp} << (16 * i);
    masks.semicolons |= std::uint64_t{semi} << (16 * i);
  }
#else
  for (int i = 0; i < 64; ++i) {
    highBits |= static_cast<unsigned char>(p[i]) >> 7;
    masks.ampersands |= std::uint64_t{p[i] == '&'} << i;
    masks.semicolons |= std::uint64_t{p[i] == ';'} << i;
  }
#endif
  return masks;
}

// The masks of the block at `offset`, which may be short: NULs stand for the missing
// bytes, and are neither ";" nor "&".
inline BlockMasks masksAt(std::string_view text, std::size_t offset, unsigned& highBits) {
  if (text.size() - offset >= 64) return masksOf64(text.data() + offset, highBits);
  char padded[64] = {};
  std::memcpy(padded, text.data() + offset, text.size() - offset);
  return masksOf64(padded, highBits);
}

// The 64 bits that follow bit `i` of the 128-bit mask (high:low).
constexpr std::uint64_t bitsAfter(std::uint64_t low, std::uint64_t high, unsigned i) {
  return (low >> i >> 1) | (high << (63 - i));
}

// The eight bytes after the "&" at `amp`, first in the low byte, of which the
// candidate's body takes the first 2 to 8; NULs stand for any past the end.
inline std::uint64_t loadAfter(const char* amp, const char* end) {
  if (end - amp > 8) return loadLittle64(amp + 1);
  char tail[8] = {};
  std::memcpy(tail, amp + 1, static_cast<std::size_t>(end - amp - 1));
  return loadLittle64(tail);
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
template <typename Char, typename Replace>
void forEachReference(std::basic_string_view<Char> text, Replace&& replace) {
  const Char* const end = text.data() + text.size();
  const Char* amp = text.data();
  while (true) {
    while (amp < end && *amp != '&') ++amp;
    if (amp == end) return;
    // Look for the ";" within the window, stopping at the next "&".
    const Char* limit = end - amp > static_cast<std::ptrdiff_t>(kMaxReferenceLength)
                            ? amp + kMaxReferenceLength
                            : end;
    const Char* next = amp + 1;
    while (next < limit && *next != ';' && *next != '&') ++next;
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
bool isSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDFFF; }

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

// putBmp without branches on the size: the encodings of all three sizes are formed
// and one is stored as four bytes, of which the leading 1 to 3 count. Used in place of
// a reference of at least four bytes, so the store stays within the output.
inline char* putBmpWithin(char16_t c, char* dst) {
  if constexpr (std::endian::native != std::endian::little) return putBmp(c, dst);
  const std::uint32_t u = c;
  const bool wide = u >= 0x80;
  const bool wider = u >= 0x800;
  const std::uint32_t three =
      0x8080E0 | (u >> 12) | ((u & 0xFC0) << 2) | ((u & 0x3F) << 16);  // for u >= 0x800
  // Below 0x800 the three-byte form starts with E0; past it, the two continuation
  // bytes are the two-byte form once the first gets its lead bits (C0 for 80).
  const std::uint32_t two = (three >> 8) | 0x40;
  const std::uint32_t bytes = wider ? three : (wide ? two : u);
  std::memcpy(dst, &bytes, 4);
  return dst + 1 + static_cast<int>(wide) + static_cast<int>(wider);
}

}  // namespace

// Unescaping straight from UTF-8 to UTF-8, with the result the UTF-16 route gives on
// valid UTF-8: a produced high surrogate pairs with a produced low surrogate that
// follows it directly (valid UTF-8 holds no surrogates of its own), and any other
// produced surrogate is written as U+FFFD. Works on any bytes; the caller checks
// validity only when a byte above 0x7F was seen, and then only once.
ZSM_CLONED_FOR_WIDER_CPUS std::string unescapeUtf8(std::string_view text, bool* nonAscii) {
  *nonAscii = false;
  if (text.empty()) return std::string();
  // A reference of n >= 4 bytes becomes at most 3 bytes, or 4 bytes for a pair made of
  // two references of 8 bytes, so the result fits in the size of the text, and the
  // output never runs ahead of the input.
  std::string out(text.size(), '\0');
  char* dst = out.data();
  const char* copied = text.data();
  const char* const textEnd = text.data() + text.size();
  char16_t pendingHigh = 0;  // a produced high surrogate waiting for its partner
  unsigned highBits = 0;
  // Every "&" is examined in order: none lies inside a replaced reference, whose body
  // stops before the first ";" or "&". A candidate may run into the next block, whose
  // masks are therefore made one block ahead.
  BlockMasks current = masksAt(text, 0, highBits);
  for (std::size_t offset = 0; offset < text.size(); offset += 64) {
    const BlockMasks next =
        text.size() - offset > 64 ? masksAt(text, offset + 64, highBits) : BlockMasks{};
    const char* const block = text.data() + offset;
    const std::uint64_t stops = current.ampersands | current.semicolons;
    const std::uint64_t nextStops = next.ampersands | next.semicolons;
    for (std::uint64_t ampersands = current.ampersands; ampersands != 0;
         ampersands &= ampersands - 1) {
      const auto i = static_cast<unsigned>(std::countr_zero(ampersands));
      // The candidate's body is the bytes before the first ";" or "&", and counts only
      // when that byte is a ";" and the reference is 4 to 10 bytes long: a body of 2
      // to 8 bytes. Bytes, not UTF-16 units: the two counts differ only for a candidate
      // holding a non-ASCII character, which is never replaced under either count.
      const auto length =
          static_cast<std::size_t>(std::countr_zero(bitsAfter(stops, nextStops, i)));
      if (length - (kMinReferenceLength - 2) > kMaxReferenceLength - kMinReferenceLength) continue;
      const char* amp = block + i;
      if (amp[length + 1] != ';') continue;
      const std::uint64_t after = loadAfter(amp, textEnd);
      std::uint32_t value;  // the code unit, when from 1 to 65534
      if ((after & 0xFF) != '#') {
        const std::uint64_t name = after & (~std::uint64_t{0} >> (64 - 8 * length));
        const EntityNameSlot* slot = findPackedEntityName(name, length);
        if (slot == nullptr) continue;
        if (std::endian::native == std::endian::little && pendingHigh == 0) {
          // The name's UTF-8 form is stored whole; the byte past it is overwritten by
          // what follows, or cut off at the end.
          dst = copyRun(dst, copied, amp, textEnd);
          std::memcpy(dst, &slot->utf8, 4);
          dst += slot->utf8 >> 24;
          copied = amp + length + 2;
          continue;
        }
        value = slot->unit;
      } else {
        value = numericReferenceValue(after, length, amp + 1);
      }
      // One test admits the common case: a unit below the surrogates, and no high
      // surrogate waiting.
      if (((value - 1) | (std::uint32_t{pendingHigh} << 16)) < 0xD7FF) {
        dst = copyRun(dst, copied, amp, textEnd);
        dst = putBmpWithin(static_cast<char16_t>(value), dst);
      } else if (value - 1 >= kMaxNumericExclusive - 1) {
        continue;  // 0 when not a number, or too large
      } else {
        const auto unit = static_cast<char16_t>(value);
        if (pendingHigh != 0 && (amp != copied || !isLowSurrogate(unit))) {
          dst = putBmp(kReplacementCharacter, dst);
          pendingHigh = 0;
        }
        dst = copyRun(dst, copied, amp, textEnd);
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
          // A low surrogate without its partner, or an ordinary unit after a lone high one.
          dst = putBmp(isSurrogate(unit) ? kReplacementCharacter : unit, dst);
        }
      }
      copied = amp + length + 2;
    }
    current = next;
  }
  if (pendingHigh != 0) dst = putBmp(kReplacementCharacter, dst);
  std::memcpy(dst, copied, static_cast<std::size_t>(textEnd - copied));
  dst += textEnd - copied;
  out.resize(static_cast<std::size_t>(dst - out.data()));
  *nonAscii = highBits != 0;
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
  // Unescaped in place, the common case; text that turns out not to be valid UTF-8
  // takes the UTF-16 route instead, which repairs it.
  bool nonAscii = false;
  std::string out = text::unescapeUtf8(text, &nonAscii);
  if (nonAscii && !text::isValidUtf8(text)) {
    out = text::toUtf8(text::unescapeHtml(text::toUtf16(text)));
  }
  return out;
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
