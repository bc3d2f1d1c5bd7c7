#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

using namespace std::string_view_literals;

TEST(Base64Test, EncodesGroupsWithPadding) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""},
      {"M", "TQ=="},
      {"Ma", "TWE="},
      {"Man", "TWFu"},
      {"ManMa", "TWFuTWE="},
      {"\0\0\0"sv, "AAAA"},
      {"\xFF\xFF\xFF", "////"},
      {"\xFB\xFF", "+/8="},
      {"\xF8", "+A=="},
  };
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(zsm_base64Encoding(bytes), text);
    EXPECT_EQ(zsm_base64EncodingWithLineLength(bytes, 0), text);
  }
}

TEST(Base64Test, LineBreaksFallBetweenGroupsOnceALineIsReached) {
  struct Case {
    std::size_t bytes;
    std::uint32_t lineLength;
    std::string_view shape;  // "x" for a symbol or pad, "\n" for a break
  };
  const Case cases[] = {
      {57, 76, "76\n"}, {57, 75, "76\n"},    {58, 76, "76\n4"}, {6, 4, "4\n4\n"}, {6, 5, "8\n"},
      {9, 8, "8\n4"},   {7, 1, "4\n4\n4\n"}, {3, 0, "4"},       {0, 4, ""},
  };
  for (const Case& c : cases) {
    const std::string encoded =
        zsm_base64EncodingWithLineLength(std::string(c.bytes, 'a'), c.lineLength);
    // Describe the text as its line lengths, each followed by its break.
    std::string shape;
    std::size_t run = 0;
    for (char ch : encoded) {
      if (ch == '\n') {
        shape += std::to_string(run) + "\n";
        run = 0;
      } else {
        ++run;
      }
    }
    if (run > 0) shape += std::to_string(run);
    EXPECT_EQ(shape, c.shape) << c.bytes << " bytes, line length " << c.lineLength;
    EXPECT_EQ(encoded.find('\r'), std::string::npos);
  }
}

TEST(Base64Test, LineCounterIsSixteenBitsWide) {
  // 16383 groups fill a line of 65532 characters exactly.
  const std::string bytes(16383 * 3 + 3, 'z');
  const std::string reachable = zsm_base64EncodingWithLineLength(bytes, 65532);
  EXPECT_EQ(reachable.find('\n'), 65532u);
  EXPECT_EQ(reachable.size(), 65532u + 1 + 4);
  for (std::uint32_t unreachable : {65533u, 65536u, 100000u}) {
    EXPECT_EQ(zsm_base64EncodingWithLineLength(bytes, unreachable).find('\n'), std::string::npos)
        << unreachable;
  }
}

TEST(Base64Test, DecodesLenientlyAndStopsAtThePad) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""},
      {"TWFu", "Man"},
      {"TWFu\nTWE=", "ManMa"},
      {"TW Fu", "Man"},
      {"\tT\r\nW-F_u\x01", "Man"},
      {"TQ==", "M"},
      {"TWE=", "Ma"},
      {"TW=", "M"},
      // Unpadded tails are dropped.
      {"TWE", ""},
      {"TWFuTWE", "Man"},
      {"TWFuT", "Man"},
      // Decoding ends at the first pad.
      {"TWE=TWFu", "Ma"},
      {"TQ==TWFu", "M"},
      {"=TWFu", ""},
      {"TWFu=TWFu", "Man"},
      // A pad after one symbol reads the second slot as the group before left it.
      {"T=", "L"},
      {"TWFuT=", "ManM"},
      {"TW Fu T=", "ManM"},
      {"TWFuTWFuT=", "ManManM"},
      {"AAAA////T=", "\0\0\0\xFF\xFF\xFFO"sv},
  };
  for (const auto& [text, bytes] : cases) {
    EXPECT_EQ(zsm_dataWithBase64EncodedString(text), bytes) << "text: " << text;
    EXPECT_EQ(zsm_createBase64DataSeed(text), std::optional<std::string>(bytes))
        << "text: " << text;
  }
}

TEST(Base64Test, NonAsciiAnywhereGivesAnEmptyBufferAndOnlyAbsenceGivesNone) {
  for (std::string_view text :
       {"TWFu\xC3\xA9"sv, "\xC3\xA9TWFu"sv, "TWE=\xC3\xA9"sv, "=\x80"sv, "TWFuTWFuTWFu\xFF"sv}) {
    EXPECT_EQ(zsm_dataWithBase64EncodedString(text), "") << text;
    const auto seed = zsm_createBase64DataSeed(text);
    ASSERT_TRUE(seed.has_value());
    EXPECT_EQ(*seed, "");
  }
  EXPECT_EQ(zsm_createBase64DataSeed(std::nullopt), std::nullopt);
  EXPECT_EQ(zsm_createBase64DataSeed(""sv), std::optional<std::string>(""));
}

TEST(Base64Test, DecodingUndoesEncodingForAnyBytesAndLineLength) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 500; ++round) {
    std::string bytes(random() % 200, '\0');
    for (char& b : bytes) b = static_cast<char>(random());
    const std::uint32_t lineLength = round % 3 == 0 ? 0 : random() % 90;
    const std::string encoded = zsm_base64EncodingWithLineLength(bytes, lineLength);
    ASSERT_EQ(zsm_dataWithBase64EncodedString(encoded), bytes)
        << "length " << bytes.size() << ", line length " << lineLength;
  }
}

}  // namespace
}  // namespace zolvani
