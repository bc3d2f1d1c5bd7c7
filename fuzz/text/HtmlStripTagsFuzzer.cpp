// Strips tags from arbitrary text: no crash, valid UTF-8, and the result is collapsed.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  const std::string stripped = zolvani::stringByStrippingTags(input);
  ZSM_FUZZ_CHECK(zolvani::text::isValidUtf8(stripped));
  if (input.find('<') != std::string_view::npos) {
    // With tags present, the result has been collapsed.
    ZSM_FUZZ_CHECK(zolvani::stringByRemovingNewLinesAndWhitespace(stripped) == stripped);
  } else if (zolvani::text::isValidUtf8(input)) {
    ZSM_FUZZ_CHECK(stripped == input);
  }
  return 0;
}
