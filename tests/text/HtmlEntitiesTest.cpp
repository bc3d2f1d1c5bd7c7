#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <string_view>

#include "text/HtmlEntityTable.h"
#include "text/HtmlEscaping.h"
#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

struct Case {
  std::string_view input;
  std::string_view expected;
};

TEST(HtmlUnescapingTest, ReplacesOnlyWellFormedReferencesOnce) {
  const Case cases[] = {
      {"", ""},
      {"plain text", "plain text"},
      {"x&lt;y&gt;z", "x<y>z"},
      {"&apos;&quot;", "'\""},
      {"&euro;5", "€5"},
      // Numeric bounds are exclusive.
      {"&#65535;", "&#65535;"},
      {"&#0;", "&#0;"},
      {"&#65534;", "\xEF\xBF\xBE"},
      {"&#1;", "\x01"},
      {"&#x10000;", "&#x10000;"},
      {"&#-65;", "&#-65;"},
      {"&#+65;", "A"},
      // Hexadecimal: either x, every character must be a digit.
      {"&#x41;", "A"},
      {"&#X41;", "A"},
      {"&#x41z;", "&#x41z;"},
      {"&#x;", "&#x;"},
      {"&#;", "&#;"},
      {"&# 65;", "&# 65;"},
      {"&#6 5;", "&#6 5;"},
      // Length window of 4 to 10 code units, ";" included.
      {"&thetasym;", "ϑ"},
      {"&#x0000041;", "&#x0000041;"},
      {"&#x000041;", "A"},
      {"&#1234567;", "&#1234567;"},
      // Names are case-sensitive.
      {"&AMP;", "&AMP;"},
      {"&Eacute;&eacute;", "Éé"},
      // Produced text is never examined again.
      {"&amp;lt;", "&lt;"},
      {"&amp;#65;", "&#65;"},
      // The ";" must come before the next "&".
      {"&amp&lt;", "&amp<"},
      {"a & b;", "a & b;"},
      {"&&amp;", "&&"},
      {"&#x41;&", "A&"},
      {"&é;", "&é;"},
      // Units outside the Basic Multilingual Plane come as two references.
      {"&#55357;&#56832;", "😀"},
      {"&#xD83D;&#xDE00;!", "😀!"},
      // Characters on either side of the digit and letter ranges.
      {"&#x1aF;", "Ư"},
      {"&#xfffe;", "\xEF\xBF\xBE"},
      {"&#xffff;", "&#xffff;"},
      {"&#x0;", "&#x0;"},
      {"&#x/;&#x:;&#x@;&#xG;&#x`;&#xg;", "&#x/;&#x:;&#x@;&#xG;&#x`;&#xg;"},
      {"&#/1;&#1:;&#1/;", "&#/1;&#1:;&#1/;"},
      {"&#0065534;&#00;", "\xEF\xBF\xBE&#00;"},
      {"&#x00e9;&#233;", "éé"},
      {"&#xé;&#é;", "&#xé;&#é;"},
      {std::string_view("&lt\0;&lt;", 9), std::string_view("&lt\0;<", 6)},
      // References that end at the end of the text, or would run past it.
      {"x&lt;", "x<"},
      {"xy&lt", "xy&lt"},
      {"ab&#x41;", "abA"},
      {"&#12345", "&#12345"},
      {"&#x2665; &thetasym", "♥ &thetasym"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(c.input), c.expected) << "input: " << c.input;
    EXPECT_EQ(stringByDecodingHTMLEntities(c.input), c.expected) << "input: " << c.input;
  }
}

// The unescaper of valid UTF-8 reads each candidate as one word; the UTF-16 route
// walks it unit by unit. Texts built from the pieces of references, in every
// arrangement, must come out the same both ways.
TEST(HtmlUnescapingTest, Utf8RouteAgreesWithTheUtf16RouteOnGeneratedText) {
  // clang-format off
  static constexpr std::string_view kPieces[] = {
      "&", "&", ";", ";", "#", "x", "X", "+", "-", "0", "1", "9", "6", "5", "a", "F", "f",
      "g", ":", "/", "@", "`", "D83D", "DE00", "lt", "amp", "é", " ", std::string_view("\0", 1),
      "\x7F", "55357", "56832", "thetasym", "65534", "65535",
      // Invalid UTF-8 takes the repairing route; these two come last and are used in
      // one text in four.
      "\xC3", "\xFF",
  };
  // clang-format on
  std::mt19937 random(20240611);
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    // Up to about 200 bytes, so that references also straddle the 64-byte blocks.
    const std::size_t pieces = random() % 48;
    const std::size_t choices = round % 4 == 0 ? std::size(kPieces) : std::size(kPieces) - 2;
    for (std::size_t i = 0; i < pieces; ++i) text += kPieces[random() % choices];
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(text),
              text::toUtf8(text::unescapeHtml(text::toUtf16(text))))
        << "input: " << text;
  }
}

TEST(HtmlUnescapingTest, LoneSurrogatesAndInvalidUtf8BecomeReplacementCharacters) {
  const Case cases[] = {
      {"&#55357;", "\xEF\xBF\xBD"},
      {"a&#56832;b",
       "a\xEF\xBF\xBD"
       "b"},
      // A low surrogate before a high one is no pair.
      {"&#56832;&#55357;", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      // Invalid UTF-8, with and without references to replace.
      {"a\xC3", "a\xEF\xBF\xBD"},
      {"\xFF&amp;", "\xEF\xBF\xBD&"},
      {"\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xF0\x9F\x98!", "\xEF\xBF\xBD!"},
      {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"\xE2\x82\xAC\x80", "€\xEF\xBF\xBD"},
      {"\xEF\xBF\xBD", "\xEF\xBF\xBD"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(c.input), c.expected) << "input: " << c.input;
  }
}

// Valid text is unescaped in place and invalid text repaired, so the check decides
// which bytes come out as they are.
TEST(Utf8ValidityTest, AcceptsExactlyTheWellFormedSequences) {
  const std::pair<std::string_view, bool> cases[] = {
      {"plain ascii text, longer than a word", true},
      {"\xC2\x80\xDF\xBF", true},
      {"\xC1\xBF", false},  // overlong
      {"\xE0\xA0\x80\xEF\xBF\xBF", true},
      {"\xE0\x9F\xBF", false},  // overlong
      {"\xED\x9F\xBF", true},
      {"\xED\xA0\x80", false},  // surrogate
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", true},
      {"\xF0\x8F\xBF\xBF", false},  // overlong
      {"\xF4\x90\x80\x80", false},  // above U+10FFFF
      {"\xF5\x80\x80\x80", false},
      {"abcdefgh\xE2\x82", false},  // cut short at the end
      {"\xE2\x82\x41", false},
      {"\xF0\x9F\x98\x41", false},
      {"\x80", false},
      {"abcdefghijklmno\xC3\xA9", true},
  };
  for (const auto& [text, valid] : cases) {
    EXPECT_EQ(text::isValidUtf8(text), valid) << text;
  }
}

TEST(HtmlEscapingTest, AsciiAndHtmlEscapingChooseTheirTables) {
  struct EscapeCase {
    std::string_view input;
    std::string_view ascii;
    std::string_view html;
  };
  const EscapeCase cases[] = {
      {"", "", ""},
      {"plain", "plain", "plain"},
      {"é", "&eacute;", "é"},
      {"ĉ", "&#265;", "ĉ"},
      {"<a href='x'>", "&lt;a href=&apos;x&apos;&gt;", "&lt;a href=&apos;x&apos;&gt;"},
      {"a\"b&c", "a&quot;b&amp;c", "a&quot;b&amp;c"},
      {"—€", "&mdash;&euro;", "&mdash;&euro;"},
      {"©", "&copy;", "©"},
      {"\x7F", "\x7F", "\x7F"},
      {"\xC2\x80", "&#128;", "\xC2\x80"},
      {"😀", "&#55357;&#56832;", "😀"},
      {"x\xC3", "x&#65533;", "x\xEF\xBF\xBD"},
  };
  for (const EscapeCase& c : cases) {
    EXPECT_EQ(gtm_stringByEscapingForAsciiHTML(c.input), c.ascii) << "input: " << c.input;
    EXPECT_EQ(stringByEncodingHTMLEntities(c.input), c.ascii) << "input: " << c.input;
    EXPECT_EQ(stringByEncodingHTMLEntities(c.input, false), c.ascii) << "input: " << c.input;
    EXPECT_EQ(gtm_stringByEscapingForHTML(c.input), c.html) << "input: " << c.input;
    EXPECT_EQ(stringByEncodingHTMLEntities(c.input, true), c.html) << "input: " << c.input;
  }
}

TEST(HtmlEscapingTest, AsciiEscapingIsUndoneByUnescaping) {
  const std::string_view texts[] = {
      "Tom & Jerry <3 \"quotes\" 'apostrophes'",
      "Ünïcödé ñ 日本語 Ελληνικά ∀x∈ℝ",
      "emoji 😀👍🏽 and &amp; already escaped &lt;",
      "&#65; stays literal",
      "\x01\x02 control \x7F",
  };
  for (std::string_view text : texts) {
    const std::string escaped = gtm_stringByEscapingForAsciiHTML(text);
    for (unsigned char c : escaped) EXPECT_LT(c, 0x80) << escaped;
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(escaped), text);
  }
}

// The published HTML 4.01 values at the edges of every group, and names that are easy
// to get wrong.
TEST(HtmlEntityTableTest, NamesMapToThePublishedCodePoints) {
  const std::pair<std::string_view, char16_t> published[] = {
      {"&quot;", 34},     {"&nbsp;", 160},     {"&shy;", 173},      {"&yuml;", 255},
      {"&Yuml;", 376},    {"&fnof;", 402},     {"&circ;", 710},     {"&tilde;", 732},
      {"&Alpha;", 913},   {"&Rho;", 929},      {"&Sigma;", 931},    {"&sigmaf;", 962},
      {"&omega;", 969},   {"&thetasym;", 977}, {"&upsih;", 978},    {"&piv;", 982},
      {"&ensp;", 8194},   {"&zwnj;", 8204},    {"&rlm;", 8207},     {"&bull;", 8226},
      {"&hellip;", 8230}, {"&prime;", 8242},   {"&Prime;", 8243},   {"&oline;", 8254},
      {"&frasl;", 8260},  {"&euro;", 8364},    {"&image;", 8465},   {"&weierp;", 8472},
      {"&real;", 8476},   {"&trade;", 8482},   {"&alefsym;", 8501}, {"&crarr;", 8629},
      {"&lArr;", 8656},   {"&hArr;", 8660},    {"&forall;", 8704},  {"&empty;", 8709},
      {"&lowast;", 8727}, {"&there4;", 8756},  {"&cong;", 8773},    {"&asymp;", 8776},
      {"&nsub;", 8836},   {"&sdot;", 8901},    {"&lceil;", 8968},   {"&rfloor;", 8971},
      {"&lang;", 9001},   {"&rang;", 9002},    {"&loz;", 9674},     {"&diams;", 9830},
  };
  const auto table = text::fullEntityTable();
  for (const auto& [name, unit] : published) {
    auto it = std::find_if(table.begin(), table.end(),
                           [&](const text::HtmlEntity& e) { return e.text == name; });
    ASSERT_NE(it, table.end()) << name;
    EXPECT_EQ(it->unit, unit) << name;
  }
}

TEST(HtmlEntityTableTest, TablesHaveTheirShapeAndEveryEntryRoundTrips) {
  const auto full = text::fullEntityTable();
  const auto brief = text::shortEntityTable();
  ASSERT_EQ(full.size(), 253u);
  ASSERT_EQ(brief.size(), 33u);

  std::set<std::string_view> names;
  std::size_t latin1 = 0;
  for (std::size_t i = 0; i < full.size(); ++i) {
    if (i > 0) {
      EXPECT_LT(full[i - 1].unit, full[i].unit) << full[i].text;
    }
    names.insert(full[i].text);
    if (full[i].unit >= 160 && full[i].unit <= 255) ++latin1;
    const std::string character = text::toUtf8(std::u16string(1, full[i].unit));
    EXPECT_EQ(gtm_stringByEscapingForAsciiHTML(character), full[i].text);
    EXPECT_EQ(gtm_stringByUnescapingFromHTML(full[i].text), character) << full[i].text;
  }
  EXPECT_EQ(names.size(), 253u);
  EXPECT_EQ(latin1, 96u);
  EXPECT_EQ(full.back().text, "&diams;");

  // The short table is a part of the full one, and its escaper names exactly those.
  for (const text::HtmlEntity& entry : brief) {
    auto it = std::find_if(full.begin(), full.end(), [&](const text::HtmlEntity& e) {
      return e.text == entry.text && e.unit == entry.unit;
    });
    EXPECT_NE(it, full.end()) << entry.text;
  }
  std::size_t namedByShortEscaper = 0;
  for (const text::HtmlEntity& entry : full) {
    const std::string character = text::toUtf8(std::u16string(1, entry.unit));
    if (gtm_stringByEscapingForHTML(character) != character) ++namedByShortEscaper;
  }
  EXPECT_EQ(namedByShortEscaper, 33u);
}

}  // namespace
}  // namespace zolvani
