#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

struct Case {
  std::string_view input;
  std::string_view expected;
};

TEST(HtmlPlainTextTest, TagsCommentsAndWhitespaceBecomeSingleSpaces) {
  const Case cases[] = {
      {"", ""},
      // A closing block tag at the very end still adds its space.
      {"<p>Hello</p><p>World</p>", "Hello World "},
      {"Hello <b>big</b> world", "Hello big world"},
      {"x<!-- c -->y", "xy"},
      {"x<!-- <p>unterminated", "x"},
      {"  a \n\n b  ", "a b"},
      {"a &amp; b", "a & b"},
      // Entities are decoded last, so decoded markup stays text.
      {"&lt;p&gt;x&lt;/p&gt;", "<p>x</p>"},
      // No space at the start of the result.
      {"</p>lead", "lead"},
      {"<div>\n  text</div>", "text "},
      // Closing tag names are compared after lower-casing; only ASCII letters count.
      {"a</P>b", "a b"},
      {"a</SPAN>b", "ab"},
      {"a</Strong>b", "ab"},
      {"a</h1>b", "a b"},
      {"a</1>b", "a b"},
      {"a</ b>c", "a c"},
      // No space when the closing tag's name runs to the end of the text.
      {"a</p", "a"},
      // Opening tags vanish without a space, even line breaks.
      {"a<br/>b", "ab"},
      {"a<img src=\"x\">b", "ab"},
      {"a<b", "a"},
      // Script contents are ordinary text.
      {"<script>x=1</script>y", "x=1 y"},
      // The extra line units count as white space; a no-break space does not.
      {"a\u2028b\u0085c\fd", "a b c d"},
      {"a\u00A0b", "a\u00A0b"},
      {"a </p>", "a  "},
      {"caf\xC3", "caf\xEF\xBF\xBD"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(stringByConvertingHTMLToPlainText(c.input), c.expected) << "input: " << c.input;
  }
}

TEST(HtmlPlainTextTest, LineBreaksBecomeBrTags) {
  const Case cases[] = {
      {"", ""},
      {"no breaks", "no breaks"},
      {"a\r\nb", "a<br />b"},
      {"a\n\nb", "a<br /><br />b"},
      {"a\rb", "a<br />b"},
      // A CR LF pair counts once only when met at its CR.
      {"\n\r\n", "<br /><br /><br />"},
      {"\r\n\n", "<br /><br />"},
      {"\r\n\r\n", "<br /><br />"},
      {"a\u2029b\u2028", "a<br />b<br />"},
      {"a\tb c", "a\tb c"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(stringWithNewLinesAsBRs(c.input), c.expected) << "input: " << c.input;
  }
}

TEST(HtmlPlainTextTest, WhitespaceRunsCollapse) {
  const Case cases[] = {
      {"", ""},
      {"   ", ""},
      {"  a  b  ", "a b"},
      {"\t\na\u2028\u2029b\r\n", "a b"},
      {"a\u00A0b", "a\u00A0b"},
      {"one", "one"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(stringByRemovingNewLinesAndWhitespace(c.input), c.expected) << "input: " << c.input;
  }
}

std::string link(std::string_view url) {
  return "<a href=\"" + std::string(url) + "\" class=\"linkified\">" + std::string(url) + "</a>";
}

TEST(HtmlPlainTextTest, LinkifiesBareUrlsOnly) {
  const std::pair<std::string_view, std::string> cases[] = {
      {"", ""},
      {"see http://example.com now", "see " + link("http://example.com") + " now"},
      {"https://a.b/c?d=1&e=2.", link("https://a.b/c?d=1&e=2") + "."},
      {"(http://a.com)", "(" + link("http://a.com") + ")"},
      {"http://a.com, next", link("http://a.com") + ", next"},
      {"http://a.com,b", link("http://a.com,b")},
      {"http://a.com/:", link("http://a.com/") + ":"},
      {"http://a.com..x", link("http://a.com..x")},
      {"http://a.com http://b.org", link("http://a.com") + " " + link("http://b.org")},
      // Inside an attribute value: left alone, and the search goes on after it.
      {"<a href=\"http://x.com\">x</a>", "<a href=\"http://x.com\">x</a>"},
      {"=\"http://a.com\" http://b.com", "=\"http://a.com\" " + link("http://b.com")},
      {"a=http://a.com", "a=" + link("http://a.com")},
      // A dotted host is required.
      {"http://localhost/x", "http://localhost/x"},
      {"http://a..com", "http://a..com"},
      {"ftp://a.com", "ftp://a.com"},
      {"HTTP://a.com", "HTTP://a.com"},
      // The word boundary is Unicode-aware and looks through combining marks.
      {"xhttp://a.com", "xhttp://a.com"},
      {"_http://a.com", "_http://a.com"},
      {"éhttp://a.com", "éhttp://a.com"},
      {"a\u0301http://a.com", "a\u0301http://a.com"},
      {"-\u0301http://a.com", "-\u0301" + link("http://a.com")},
      {"\u0301http://a.com", "\u0301" + link("http://a.com")},
      {"http://exämple.com/päth", link("http://exämple.com/päth")},
      {"http://日本.jp。", link("http://日本.jp") + "。"},
      {"http://a.com/😀", link("http://a.com/") + "😀"},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(stringByLinkifyingURLs(input), expected) << "input: " << input;
  }
}

TEST(HtmlPlainTextTest, LinkifyingAVeryLongUrlNeitherRecursesNorStalls) {
  const std::string url = "http://a.com/" + std::string(1 << 20, 'x');
  EXPECT_EQ(stringByLinkifyingURLs(url), link(url));
}

TEST(HtmlPlainTextTest, StrippingTagsRemovesInlineTagsAndSpacesTheRest) {
  const Case cases[] = {
      {"", ""},
      {"no tags", "no tags"},
      {"no  tags\n", "no  tags\n"},
      {"<p>a</p><em>b</em>", "a b"},
      {"<b>x</b>y", "x y"},
      {"<strong>bold</strong>face", "boldface"},
      {"<span>a</span><span>b</span>", "ab"},
      // Only the exact texts vanish: an anchor with attributes leaves a space.
      {"<a href=\"u\">link</a>text", "linktext"},
      {"x<a href=\"u\">link</a>", "x link"},
      {"<EM>a</EM>b", "a b"},
      {"  <p>  a  </p>  ", "a"},
      {"x < y", "x < y"},
      {"a<br>b<br>c", "a b c"},
      // Distinct tags are replaced in the order of their first appearance.
      {"<x<b> <b>", ""},
      {"<b> <x<b>", "<x"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(stringByStrippingTags(c.input), c.expected) << "input: " << c.input;
  }
}

}  // namespace
}  // namespace zolvani
