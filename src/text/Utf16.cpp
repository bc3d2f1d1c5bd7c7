#include "text/Utf16.h"

#include <cstdint>
#include <cstring>

namespace zolvani::text {
namespace {

constexpr std::uint64_t kHighBits = 0x8080808080808080ull;

bool isSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDFFF; }
bool isHighSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Reads one UTF-8 sequence at `p` (p < end). Returns the code point, or U+FFFD for an
// ill-formed subsequence, and advances `p` past what was read: past the whole sequence
// when it is valid, otherwise past the maximal prefix that could still have been valid
// (at least one byte), so that the byte which broke the sequence is read again.
char32_t decodeOne(const unsigned char*& p, const unsigned char* end) {
  const unsigned char lead = *p++;
  if (lead < 0x80) return lead;
  int trailing;
  unsigned char low = 0x80, high = 0xBF;  // allowed range of the first trailing byte
  char32_t value;
  if (lead >= 0xC2 && lead <= 0xDF) {
    trailing = 1;
    value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    trailing = 2;
    value = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;   // overlong
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    trailing = 3;
    value = lead & 0x07;
    if (lead == 0xF0) low = 0x90;   // overlong
    if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return kReplacementCharacter;
  }
  for (int i = 0; i < trailing; ++i) {
    if (p == end || *p < low || *p > high) return kReplacementCharacter;
    value = (value << 6) | (*p++ & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  return value;
}

}  // namespace

void appendUtf16(std::string_view utf8, std::u16string& out) {
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  const auto* end = p + utf8.size();
  const std::size_t start = out.size();
  // Never longer in units than in bytes; writing through a pointer keeps the ASCII
  // path free of per-unit capacity checks.
  out.resize(start + utf8.size());
  char16_t* dst = out.data() + start;
  while (p < end) {
    // Copy ASCII eight bytes at a time.
    while (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      if (word & kHighBits) break;
      for (int i = 0; i < 8; ++i) dst[i] = p[i];
      p += 8;
      dst += 8;
    }
    if (p == end) break;
    if (*p < 0x80) {
      *dst++ = *p++;
      continue;
    }
    char32_t c = decodeOne(p, end);
    if (c >= 0x10000) {
      c -= 0x10000;
      *dst++ = static_cast<char16_t>(0xD800 + (c >> 10));
      *dst++ = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      *dst++ = static_cast<char16_t>(c);
    }
  }
  out.resize(static_cast<std::size_t>(dst - out.data()));
}

std::u16string toUtf16(std::string_view utf8) {
  std::u16string out;
  appendUtf16(utf8, out);
  return out;
}

void appendUtf8(std::u16string_view utf16, std::string& out) {
  // At most three bytes per unit (a pair takes four bytes for two units); the result
  // is written through a pointer and trimmed at the end.
  const std::size_t start = out.size();
  out.resize(start + 3 * utf16.size());
  auto* dst = reinterpret_cast<unsigned char*>(out.data() + start);
  const char16_t* p = utf16.data();
  const char16_t* const end = p + utf16.size();
  while (p < end) {
    const char16_t unit = *p;
    if (unit < 0x80) {
      *dst++ = static_cast<unsigned char>(unit);
      ++p;
    } else if (unit < 0x800) {
      dst[0] = static_cast<unsigned char>(0xC0 | (unit >> 6));
      dst[1] = static_cast<unsigned char>(0x80 | (unit & 0x3F));
      dst += 2;
      ++p;
    } else if (isHighSurrogate(unit) && end - p >= 2 && isLowSurrogate(p[1])) {
      const char32_t c = 0x10000 + ((char32_t{unit} - 0xD800) << 10) + (p[1] - 0xDC00);
      dst[0] = static_cast<unsigned char>(0xF0 | (c >> 18));
      dst[1] = static_cast<unsigned char>(0x80 | ((c >> 12) & 0x3F));
      dst[2] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
      dst[3] = static_cast<unsigned char>(0x80 | (c & 0x3F));
      dst += 4;
      p += 2;
    } else {
      // A lone surrogate is written as U+FFFD.
      const char16_t c = isSurrogate(unit) ? kReplacementCharacter : unit;
      dst[0] = static_cast<unsigned char>(0xE0 | (c >> 12));
      dst[1] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
      dst[2] = static_cast<unsigned char>(0x80 | (c & 0x3F));
      dst += 3;
      ++p;
    }
  }
  out.resize(static_cast<std::size_t>(reinterpret_cast<char*>(dst) - out.data()));
}

std::string toUtf8(std::u16string_view utf16) {
  std::string out;
  appendUtf8(utf16, out);
  return out;
}

bool isValidUtf8(std::string_view utf8) {
  const auto* p = reinterpret_cast<const unsigned char*>(utf8.data());
  const auto* end = p + utf8.size();
  const auto continuation = [](unsigned char c) { return (c & 0xC0) == 0x80; };
  while (p < end) {
    while (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      if (word & kHighBits) break;
      p += 8;
    }
    if (p == end) break;
    const unsigned char lead = *p;
    if (lead < 0x80) {
      ++p;
      continue;
    }
    // The allowed range of the byte after the lead, which rules out overlong forms,
    // surrogates and values above U+10FFFF; the bytes after it are plain
    // continuation bytes.
    unsigned char low = 0x80, high = 0xBF;
    std::ptrdiff_t size;
    if (lead >= 0xC2 && lead <= 0xDF) {
      size = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      size = 3;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      size = 4;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (end - p < size || p[1] < low || p[1] > high) return false;
    if (size >= 3 && !continuation(p[2])) return false;
    if (size == 4 && !continuation(p[3])) return false;
    p += size;
  }
  return true;
}

char32_t codePointAt(std::u16string_view text, std::size_t index, std::size_t* units) {
  const char16_t unit = text[index];
  if (isHighSurrogate(unit) && index + 1 < text.size() && isLowSurrogate(text[index + 1])) {
    *units = 2;
    return 0x10000 + ((char32_t{unit} - 0xD800) << 10) + (text[index + 1] - 0xDC00);
  }
  *units = 1;
  return unit;
}

char32_t codePointBefore(std::u16string_view text, std::size_t index, std::size_t* units) {
  const char16_t unit = text[index - 1];
  if (isLowSurrogate(unit) && index >= 2 && isHighSurrogate(text[index - 2])) {
    *units = 2;
    return 0x10000 + ((char32_t{text[index - 2]} - 0xD800) << 10) + (unit - 0xDC00);
  }
  *units = 1;
  return unit;
}

}  // namespace zolvani::text
