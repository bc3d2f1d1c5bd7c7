// Unescapes arbitrary text, and checks that unescaping the escaping of any valid text
// gives the text back.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "text/HtmlEscaping.h"
#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  const std::string unescaped = zolvani::gtm_stringByUnescapingFromHTML(input);
  ZSM_FUZZ_CHECK(zolvani::text::isValidUtf8(unescaped));
  // A replacement is never longer than its reference, apart from invalid input bytes
  // that each may grow into a three-byte U+FFFD.
  ZSM_FUZZ_CHECK(unescaped.size() <= 3 * size);

  // The in-place route for valid UTF-8 agrees with the UTF-16 route.
  ZSM_FUZZ_CHECK(unescaped ==
                 zolvani::text::toUtf8(zolvani::text::unescapeHtml(zolvani::text::toUtf16(input))));

  // Valid UTF-8 holds no lone surrogates. U+FFFF is left out: its reference "&#65535;"
  // lies on the exclusive upper bound and is deliberately not decoded.
  if (zolvani::text::isValidUtf8(input) && input.find("\xEF\xBF\xBF") == std::string_view::npos) {
    const std::string ascii = zolvani::gtm_stringByEscapingForAsciiHTML(input);
    for (unsigned char c : ascii) ZSM_FUZZ_CHECK(c < 0x80);
    ZSM_FUZZ_CHECK(zolvani::gtm_stringByUnescapingFromHTML(ascii) == input);
    const std::string html = zolvani::gtm_stringByEscapingForHTML(input);
    ZSM_FUZZ_CHECK(zolvani::gtm_stringByUnescapingFromHTML(html) == input);
  }
  return 0;
}
