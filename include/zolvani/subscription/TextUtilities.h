// Text utilities: HTML character references, HTML to plain text, and the Base64 codec.
//
// Feed titles and descriptions arrive from the server as HTML fragments; the data source
// reduces them to plain text with these functions, and request signing encodes keys with
// the Base64 encoder. Every function is pure: it reads its argument, returns a new value
// and touches no shared state, so all of them may be called from any thread at once.
//
// Text conventions
// ----------------
// Text goes in and out as UTF-8. The HTML functions are defined on UTF-16 code units
// (lengths, tables and numeric references count code units), so each one decodes its
// argument to UTF-16, works there, and encodes the result back:
//  - Invalid UTF-8 in the argument (stray continuation bytes, truncated or overlong
//    sequences, encoded surrogates, values above U+10FFFF) is read as U+FFFD, one
//    U+FFFD per maximal ill-formed subsequence (the Unicode recommended practice), so
//    "a\xC3" reads as "a\uFFFD" and "\xED\xA0\x80" as three U+FFFD. The result is always
//    valid UTF-8, even where the operation otherwise returns its argument unchanged.
//  - A lone UTF-16 surrogate in a result (for example `&#55357;` unescaped on its own,
//    without the `&#56832;` that would complete the pair) is written as U+FFFD, the
//    three bytes EF BF BD. Two adjacent references that form a valid pair, such as
//    `&#55357;&#56832;`, become the one character U+1F600.
// Byte buffers for Base64 travel as std::string holding arbitrary bytes.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zolvani {

// ---- HTML character references ----------------------------------------------------

// Replaces the 33 characters that have a named reference of their own in HTML output
// that may stay non-ASCII (" & ' < > and the typographic and Latin-extended ones such
// as U+2014 "&mdash;" and U+20AC "&euro;"); every other character passes through.
ZSM_EXPORT std::string gtm_stringByEscapingForHTML(std::string_view text);

// Escapes for pure-ASCII output: characters with an HTML 4.01 name (plus "&apos;")
// become that name, every other code unit above 127 becomes "&#<decimal>;". The work is
// per UTF-16 code unit, so a character beyond the Basic Multilingual Plane becomes two
// references, one per surrogate (U+1F600 gives "&#55357;&#56832;").
ZSM_EXPORT std::string gtm_stringByEscapingForAsciiHTML(std::string_view text);

// Replaces character references by the code units they stand for. Each "&" of the
// argument is examined once, against the argument's own text, never against text that
// a replacement produced ("&amp;lt;" gives "&lt;"). A candidate runs from "&" to the
// first ";" before the next "&" and counts only when it is 4 to 10 code units long.
//  - "&#x<hex>;" / "&#X<hex>;": hexadecimal digits only (no "0x" prefix, no white
//    space); "&#<decimal>;": decimal digits with an optional leading "+" or "-". The
//    value must lie strictly between 0 and 65535, so "&#0;" and "&#65535;" stay.
//  - "&<name>;": one of the 253 names of the HTML 4.01 set plus "&apos;", compared
//    case-sensitively ("&AMP;" stays).
// Anything else is left as written.
ZSM_EXPORT std::string gtm_stringByUnescapingFromHTML(std::string_view text);

// ---- HTML to plain text ------------------------------------------------------------

// Turns an HTML fragment into one line of plain text: opening tags and comments vanish,
// a closing tag other than the inline ones (a, b, i, q, span, em, strong, cite, abbr,
// acronym, label) becomes one space, white-space runs become one space, no space is
// added at the start, and entities are decoded last. Script and style contents are
// kept as text. "<p>Hello</p><p>World</p>" gives "Hello World " (a closing block tag
// that ends the text still adds its space).
ZSM_EXPORT std::string stringByConvertingHTMLToPlainText(std::string_view html);

// The same as gtm_stringByUnescapingFromHTML.
ZSM_EXPORT std::string stringByDecodingHTMLEntities(std::string_view text);

// The same as gtm_stringByEscapingForAsciiHTML.
ZSM_EXPORT std::string stringByEncodingHTMLEntities(std::string_view text);

// gtm_stringByEscapingForHTML when keepUnicode is true, otherwise
// gtm_stringByEscapingForAsciiHTML.
ZSM_EXPORT std::string stringByEncodingHTMLEntities(std::string_view text, bool keepUnicode);

// Replaces each line break by "<br />": a CR LF pair met at its CR counts once, every
// other unit of a run of LF, CR, U+0085, U+000C, U+2028 or U+2029 counts once each
// ("\n\r\n" gives three breaks, "\r\n\n" two).
ZSM_EXPORT std::string stringWithNewLinesAsBRs(std::string_view text);

// Collapses every run of white space and line breaks into one space and drops the runs
// at the start and at the end.
ZSM_EXPORT std::string stringByRemovingNewLinesAndWhitespace(std::string_view text);

// Wraps each bare http or https URL as <a href="URL" class="linkified">URL</a>. The
// URLs are those of the pattern
//   (?<!=")\b((http|https):\/\/[\w\-_]+(\.[\w\-_]+)+([\w\-\.,@?^=%%&amp;:/~\+#]*[\w\-\@?^=%%&amp;/~\+#])?)
// with the platform regular-expression semantics: \w is the Unicode word class
// (letters of every script, marks, decimal digits, connector punctuation, ZWNJ, ZWJ),
// \b looks through combining marks and format characters to the previous base
// character, and a URL directly after =" (an attribute value) is left alone. The
// pattern is matched by a purpose-built linear matcher rather than std::regex, because
// std::regex has no lookbehind, knows only ASCII word characters, and its recursive
// matcher can exhaust the stack on a long URL; the matcher checks the lookbehind and
// the boundary itself at each candidate start and resumes after a rejected start.
ZSM_EXPORT std::string stringByLinkifyingURLs(std::string_view text);

// Removes tags: the eight exact tags "<a>", "</a>", "<span>", "</span>", "<strong>",
// "</strong>", "<em>", "</em>" vanish, every other distinct tag text (including "<b>"
// and anchors with attributes) becomes a space wherever it occurs, then white space is
// collapsed as by stringByRemovingNewLinesAndWhitespace. Distinct tags are replaced in
// the order of their first appearance. The work is proportional to the text length
// times the number of distinct tags.
ZSM_EXPORT std::string stringByStrippingTags(std::string_view html);

// ---- Base64 --------------------------------------------------------------------------

// Standard alphabet ("A"-"Z", "a"-"z", "0"-"9", "+", "/"), "=" padding, no line breaks.
ZSM_EXPORT std::string zsm_base64Encoding(std::string_view bytes);

// As zsm_base64Encoding, with a line feed after each line of four-character groups that
// reaches lineLength characters (so lines hold the smallest multiple of 4 that is at
// least lineLength, and the text ends in "\n" when its last group fills a line). 0 means
// no breaks; the line counter is 16 bits wide, so lengths above 65532 also mean none.
ZSM_EXPORT std::string zsm_base64EncodingWithLineLength(std::string_view bytes, std::uint32_t lineLength);

// Decodes base64 text leniently: bytes outside the alphabet (white space, "-", "_",
// control bytes) are skipped; decoding stops at the first "=" (a "=" after one symbol
// of a group still yields one byte); a final group of two or three symbols without
// padding is dropped. Any byte of 0x80 or above anywhere gives an empty result.
ZSM_EXPORT std::string zsm_dataWithBase64EncodedString(std::string_view text);

// As zsm_dataWithBase64EncodedString; an absent text gives an absent result, and only
// then.
ZSM_EXPORT std::optional<std::string> zsm_createBase64DataSeed(std::optional<std::string_view> text);

}  // namespace zolvani
