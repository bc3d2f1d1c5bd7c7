// stringByLinkifyingURLs: a linear matcher for one fixed URL pattern.
//
//   (?<!=")\b((http|https):\/\/[\w\-_]+(\.[\w\-_]+)+([\w\-\.,@?^=%%&amp;:/~\+#]*[\w\-\@?^=%%&amp;/~\+#])?)
//
// The pattern is matched by hand, reproducing the backtracking engine's first match at
// each start, because std::regex has no lookbehind, its \w and \b are ASCII-only, and
// its recursive matcher can exhaust the stack on a long run of URL characters. How each
// piece resolves:
//  - (?<!=") and \b are tested at each start where "http" begins. \b sits before the
//    word character "h", so it holds when the previous base character (looking back
//    through combining marks and format characters, as the platform's \b does) is not
//    a word character, or there is none. A rejected start does not end the search: it
//    resumes at the next code unit.
//  - (http|https): "http" is tried first and fails on "s", so "https" follows; the
//    scheme is therefore "http://" or "https://".
//  - [\w\-_]+(\.[\w\-_]+)+: host characters exclude ".", so the greedy runs split the
//    host uniquely into labels; at least one "." followed by a label must follow the
//    first label or there is no match at this start.
//  - ([...]*[...])?: the first class (path) is a superset of the second (end), so the
//    greedy star takes the longest run of path characters and gives back until an end
//    character closes it; the optional group thus reaches the last end character of
//    that run, or matches nothing.
// "%%" and "&amp;" inside the classes are literal class members ("%", "&", "a", "m",
// "p", ";"), as written.

#include <cstdint>
#include <string>
#include <string_view>

#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

struct CodePointRange {
  char32_t first;
  char32_t last;
};

#include "text/UnicodeWordRanges.inc"

template <std::size_t N>
bool inRanges(const CodePointRange (&ranges)[N], char32_t c) {
  std::size_t lo = 0, hi = N;
  while (lo < hi) {
    const std::size_t mid = (lo + hi) / 2;
    if (c < ranges[mid].first) {
      hi = mid;
    } else if (c > ranges[mid].last) {
      lo = mid + 1;
    } else {
      return true;
    }
  }
  return false;
}

bool isWordChar(char32_t c) {
  if (c < 0x80) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  }
  return inRanges(kWordRanges, c);
}

// Characters a word boundary looks through: grapheme extenders and format characters.
bool isBoundaryTransparent(char32_t c) {
  return c >= 0x80 && inRanges(kBoundaryTransparentRanges, c);
}

bool isHostChar(char32_t c) { return c == '-' || isWordChar(c); }  // [\w\-_]

bool isInAscii(char32_t c, std::string_view set) {
  return c < 0x80 && set.find(static_cast<char>(c)) != std::string_view::npos;
}

// [\w\-\.,@?^=%%&amp;:/~\+#]
bool isPathChar(char32_t c) { return isWordChar(c) || isInAscii(c, "-.,@?^=%&;:/~+#"); }

// [\w\-\@?^=%%&amp;/~\+#]
bool isEndChar(char32_t c) { return isWordChar(c) || isInAscii(c, "-@?^=%&;/~+#"); }

class UrlMatcher {
 public:
  explicit UrlMatcher(std::u16string_view text) : text_(text) {}

  // The end of the URL that starts at `start`, or 0 when none starts there.
  std::size_t matchAt(std::size_t start) const {
    if (!precededByAttributeQuote(start) && atWordBoundary(start)) {
      std::size_t pos = start;
      if (!consume(pos, u"http")) return 0;
      consume(pos, u"s");
      if (!consume(pos, u"://")) return 0;
      if (!consumeRun(pos, isHostChar)) return 0;
      bool hasDottedLabel = false;
      while (pos < text_.size() && text_[pos] == '.') {
        std::size_t label = pos + 1;
        if (!consumeRun(label, isHostChar)) break;
        pos = label;
        hasDottedLabel = true;
      }
      if (!hasDottedLabel) return 0;
      // The optional tail ends after the last end character of the path run.
      std::size_t scan = pos;
      while (scan < text_.size()) {
        std::size_t units;
        const char32_t c = text::codePointAt(text_, scan, &units);
        if (!isPathChar(c)) break;
        scan += units;
        if (isEndChar(c)) pos = scan;
      }
      return pos;
    }
    return 0;
  }

 private:
  bool precededByAttributeQuote(std::size_t start) const {
    return start >= 2 && text_[start - 2] == '=' && text_[start - 1] == '"';
  }

  bool atWordBoundary(std::size_t start) const {
    std::size_t pos = start;
    while (pos > 0) {
      std::size_t units;
      const char32_t previous = text::codePointBefore(text_, pos, &units);
      if (!isBoundaryTransparent(previous)) return !isWordChar(previous);
      pos -= units;
    }
    return true;
  }

  bool consume(std::size_t& pos, std::u16string_view literal) const {
    if (text_.substr(pos).starts_with(literal)) {
      pos += literal.size();
      return true;
    }
    return false;
  }

  template <typename Pred>
  bool consumeRun(std::size_t& pos, Pred member) const {
    const std::size_t start = pos;
    while (pos < text_.size()) {
      std::size_t units;
      if (!member(text::codePointAt(text_, pos, &units))) break;
      pos += units;
    }
    return pos > start;
  }

  std::u16string_view text_;
};

}  // namespace

std::string stringByLinkifyingURLs(std::string_view text) {
  const std::u16string source = text::toUtf16(text);
  const UrlMatcher matcher(source);
  std::u16string result;
  std::size_t copied = 0;
  std::size_t pos = source.find(u"http");
  while (pos != std::u16string::npos) {
    const std::size_t end = matcher.matchAt(pos);
    if (end == 0) {
      pos = source.find(u"http", pos + 1);
      continue;
    }
    const std::u16string_view url(source.data() + pos, end - pos);
    result.append(source, copied, pos - copied);
    result.append(u"<a href=\"").append(url).append(u"\" class=\"linkified\">");
    result.append(url).append(u"</a>");
    copied = end;
    pos = source.find(u"http", end);
  }
  if (copied == 0) return text::toUtf8(source);
  result.append(source, copied);
  return text::toUtf8(result);
}

}  // namespace zolvani
