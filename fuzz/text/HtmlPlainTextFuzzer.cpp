// Runs the HTML-to-text conversions over arbitrary text: none may crash, hang or give
// invalid UTF-8.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  using zolvani::text::isValidUtf8;

  const std::string plain = zolvani::stringByConvertingHTMLToPlainText(input);
  ZSM_FUZZ_CHECK(isValidUtf8(plain));
  ZSM_FUZZ_CHECK(plain.size() <= 3 * size);

  const std::string collapsed = zolvani::stringByRemovingNewLinesAndWhitespace(input);
  ZSM_FUZZ_CHECK(isValidUtf8(collapsed));
  // Collapsing is idempotent.
  ZSM_FUZZ_CHECK(zolvani::stringByRemovingNewLinesAndWhitespace(collapsed) == collapsed);

  ZSM_FUZZ_CHECK(isValidUtf8(zolvani::stringWithNewLinesAsBRs(input)));

  // Linking only ever adds markup around text that stays in place.
  const std::string linked = zolvani::stringByLinkifyingURLs(input);
  ZSM_FUZZ_CHECK(isValidUtf8(linked));
  ZSM_FUZZ_CHECK(linked.size() >= (isValidUtf8(input) ? size : 0));
  return 0;
}
