#include "text/HtmlEscaping.h"

#include <algorithm>
#include <cstdint>
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

int hexValue(char16_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The whole of `digits` read as a number, or nothing when any unit is not part of it.
// At most seven digits reach here, so the value cannot overflow.
std::optional<std::int64_t> parseHex(std::u16string_view digits) {
  if (digits.empty()) return std::nullopt;
  std::int64_t value = 0;
  for (char16_t c : digits) {
    const int d = hexValue(c);
    if (d < 0) return std::nullopt;
    value = value * 16 + d;
  }
  return value;
}

std::optional<std::int64_t> parseSignedDecimal(std::u16string_view digits) {
  bool negative = false;
  if (!digits.empty() && (digits[0] == '+' || digits[0] == '-')) {
    negative = digits[0] == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty()) return std::nullopt;
  std::int64_t value = 0;
  for (char16_t c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return negative ? -value : value;
}

// The code unit that the candidate `ref` ("&...;", within the length window) stands
// for, or nothing when it is not a reference that is replaced.
std::optional<char16_t> resolveReference(std::u16string_view ref) {
  const std::u16string_view body = ref.substr(1, ref.size() - 2);  // without & and ;
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

}  // namespace

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

// The references are defined by a walk from the end of the text towards its start:
// each "&" takes the first ";" between it and the "&" visited before it (the next "&"
// in reading order), and replacements never disturb positions still to be examined.
// Every "&" is therefore judged against the original text only, and the ";" it uses is
// the first one before the next "&". That makes the walk direction unobservable, so
// the text is processed front to back in one pass, building the result as it goes
// instead of splicing replacements into a copy.
std::u16string unescapeHtml(std::u16string_view text) {
  std::u16string out;
  out.reserve(text.size());
  const std::size_t n = text.size();
  std::size_t copied = 0;  // text before this position is already in `out`
  std::size_t amp = text.find(u'&');
  while (amp != std::u16string_view::npos) {
    // Look for the ";" within the window, stopping at the next "&".
    const std::size_t limit = std::min(n, amp + kMaxReferenceLength);
    std::size_t next = amp + 1;
    while (next < limit && text[next] != u';' && text[next] != u'&') ++next;
    if (next < limit && text[next] == u';' && next - amp + 1 >= kMinReferenceLength) {
      if (auto unit = resolveReference(text.substr(amp, next - amp + 1))) {
        out.append(text.substr(copied, amp - copied));
        out.push_back(*unit);
        copied = next + 1;
      }
    }
    amp = text.find(u'&', amp + 1);
  }
  out.append(text.substr(copied));
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
  if (text.find('&') == std::string_view::npos) {
    if (text::isValidUtf8(text)) return std::string(text);
    return text::toUtf8(text::toUtf16(text));
  }
  return text::toUtf8(text::unescapeHtml(text::toUtf16(text)));
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
