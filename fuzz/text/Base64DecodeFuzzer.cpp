// Decodes arbitrary text, and checks that decoding the encoding of arbitrary bytes, at a
// line length taken from the input, gives the bytes back.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "zolvani/subscription/TextUtilities.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  const std::string decoded = zolvani::zsm_dataWithBase64EncodedString(input);
  ZSM_FUZZ_CHECK(decoded.size() <= size / 4 * 3 + 2);
  const auto seed = zolvani::zsm_createBase64DataSeed(input);
  ZSM_FUZZ_CHECK(seed.has_value() && *seed == decoded);

  std::uint32_t lineLength = 0;
  std::string_view bytes = input;
  if (size >= 2) {
    lineLength = (std::uint32_t{data[0]} << 8) | data[1];
    if (lineLength > 300 && lineLength < 65000) lineLength %= 300;  // mostly short lines
    bytes.remove_prefix(2);
  }
  const std::string encoded = zolvani::zsm_base64EncodingWithLineLength(bytes, lineLength);
  ZSM_FUZZ_CHECK(zolvani::zsm_dataWithBase64EncodedString(encoded) == bytes);
  return 0;
}
