// HTML to plain text, line breaks, white-space collapsing and tag stripping.
//
// All scanning is on UTF-16 code units, skips nothing on its own and compares
// case-sensitively; the character sets below are sets of single code units.

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "text/HtmlEscaping.h"
#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

using text::toUtf16;
using text::toUtf8;

// Next line, form feed, line separator and paragraph separator complete every set.
bool isExtraLineUnit(char16_t c) { return c == 0x85 || c == 0x0C || c == 0x2028 || c == 0x2029; }

bool isNewline(char16_t c) { return c == '\n' || c == '\r' || isExtraLineUnit(c); }

bool isWhitespaceOrNewline(char16_t c) { return c == ' ' || c == '\t' || isNewline(c); }

bool isStop(char16_t c) { return c == '<' || isWhitespaceOrNewline(c); }

bool isTagNameLetter(char16_t c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// A closing tag with one of these names joins the surrounding words without a space.
bool isInlineTagName(std::u16string_view lowered) {
  static constexpr std::u16string_view kInline[] = {
      u"a", u"b", u"i", u"q", u"span", u"em", u"strong", u"cite", u"abbr", u"acronym", u"label"};
  return std::find(std::begin(kInline), std::end(kInline), lowered) != std::end(kInline);
}

// A minimal scanner over code units: a position and the few moves the algorithms use.
class Scanner {
 public:
  explicit Scanner(std::u16string_view text) : text_(text) {}

  bool atEnd() const { return pos_ >= text_.size(); }
  std::size_t position() const { return pos_; }

  // Consumes units up to (not including) the first one that satisfies `stop`.
  template <typename Pred>
  std::u16string_view scanUpTo(Pred stop) {
    const std::size_t start = pos_;
    while (pos_ < text_.size() && !stop(text_[pos_])) ++pos_;
    return text_.substr(start, pos_ - start);
  }

  // Consumes the run of units that satisfy `member`.
  template <typename Pred>
  std::u16string_view scanWhile(Pred member) {
    const std::size_t start = pos_;
    while (pos_ < text_.size() && member(text_[pos_])) ++pos_;
    return text_.substr(start, pos_ - start);
  }

  // Consumes `literal` when the text continues with it.
  bool scanLiteral(std::u16string_view literal) {
    if (text_.substr(pos_).starts_with(literal)) {
      pos_ += literal.size();
      return true;
    }
    return false;
  }

  // Consumes up to (not including) the next occurrence of `literal`, or to the end.
  std::u16string_view scanUpToLiteral(std::u16string_view literal) {
    const std::size_t start = pos_;
    const std::size_t found = text_.find(literal, pos_);
    pos_ = found == std::u16string_view::npos ? text_.size() : found;
    return text_.substr(start, pos_ - start);
  }

  // Consumes up to and including the next occurrence of `literal`, or to the end.
  void skipPast(std::u16string_view literal) {
    scanUpToLiteral(literal);
    scanLiteral(literal);
  }

  bool nextIs(char16_t c) const { return pos_ < text_.size() && text_[pos_] == c; }

 private:
  std::u16string_view text_;
  std::size_t pos_ = 0;
};

std::u16string collapseWhitespace(std::u16string_view text) {
  std::u16string result;
  result.reserve(text.size());
  Scanner scanner(text);
  while (!scanner.atEnd()) {
    result.append(scanner.scanUpTo(isWhitespaceOrNewline));
    if (!scanner.scanWhile(isWhitespaceOrNewline).empty()) {
      if (!result.empty() && !scanner.atEnd()) result.push_back(u' ');
    }
  }
  return result;
}

// Replaces every occurrence of `needle` in `text` by `replacement`, left to right.
void replaceAll(std::u16string& text, std::u16string_view needle, std::u16string_view replacement) {
  std::size_t at = text.find(needle);
  if (at == std::u16string::npos) return;
  std::u16string out;
  out.reserve(text.size());
  std::size_t copied = 0;
  while (at != std::u16string::npos) {
    out.append(text, copied, at - copied);
    out.append(replacement);
    copied = at + needle.size();
    at = text.find(needle, copied);
  }
  out.append(text, copied);
  text.swap(out);
}

}  // namespace

std::string stringByConvertingHTMLToPlainText(std::string_view html) {
  const std::u16string source = toUtf16(html);
  std::u16string result;
  result.reserve(source.size());
  Scanner scanner(source);
  while (!scanner.atEnd()) {
    result.append(scanner.scanUpTo(isStop));
    if (scanner.scanLiteral(u"<")) {
      if (scanner.scanLiteral(u"!--")) {
        // A comment, dropped whole; an unterminated one swallows the rest.
        scanner.skipPast(u"-->");
        continue;
      }
      if (scanner.scanLiteral(u"/")) {
        std::u16string name(scanner.scanWhile(isTagNameLetter));
        for (char16_t& c : name) {
          if (c >= 'A' && c <= 'Z') c = static_cast<char16_t>(c - 'A' + 'a');
        }
        // The end test comes before the ">" is consumed, so a closing block tag that
        // ends the text still leaves its space.
        if (!isInlineTagName(name) && !result.empty() && !scanner.atEnd()) {
          result.push_back(u' ');
        }
      }
      scanner.skipPast(u">");
    } else if (!scanner.scanWhile(isWhitespaceOrNewline).empty()) {
      if (!result.empty() && !scanner.atEnd()) result.push_back(u' ');
    }
  }
  return toUtf8(text::unescapeHtml(result));
}

std::string stringWithNewLinesAsBRs(std::string_view text) {
  const std::u16string source = toUtf16(text);
  std::u16string result;
  result.reserve(source.size() + source.size() / 8);
  Scanner scanner(source);
  while (!scanner.atEnd()) {
    result.append(scanner.scanUpTo(isNewline));
    if (scanner.scanLiteral(u"\r\n")) {
      result.append(u"<br />");
    } else {
      const std::size_t breaks = scanner.scanWhile(isNewline).size();
      for (std::size_t i = 0; i < breaks; ++i) result.append(u"<br />");
    }
  }
  return toUtf8(result);
}

std::string stringByRemovingNewLinesAndWhitespace(std::string_view text) {
  return toUtf8(collapseWhitespace(toUtf16(text)));
}

std::string stringByStrippingTags(std::string_view html) {
  if (html.find('<') == std::string_view::npos) return toUtf8(toUtf16(html));
  std::u16string copy = toUtf16(html);

  // Collect the distinct tag texts in the order they first appear.
  std::vector<std::u16string> tags;
  {
    std::unordered_set<std::u16string> seen;
    Scanner scanner(copy);
    while (!scanner.atEnd()) {
      scanner.scanUpToLiteral(u"<");
      std::u16string tag(scanner.scanUpToLiteral(u">"));
      if (tag.empty()) continue;
      tag.push_back(u'>');  // the ">" itself is left for the next skip to pass over
      if (seen.insert(tag).second) tags.push_back(std::move(tag));
    }
  }

  // Only these exact texts vanish; every other tag, "<b>" and anchors with attributes
  // included, leaves a space so that the words on either side stay apart.
  static constexpr std::u16string_view kVanishing[] = {
      u"<a>", u"</a>", u"<span>", u"</span>", u"<strong>", u"</strong>", u"<em>", u"</em>"};
  for (const std::u16string& tag : tags) {
    const bool vanishes =
        std::find(std::begin(kVanishing), std::end(kVanishing), tag) != std::end(kVanishing);
    replaceAll(copy, tag, vanishes ? u"" : u" ");
  }
  return toUtf8(collapseWhitespace(copy));
}

}  // namespace zolvani
