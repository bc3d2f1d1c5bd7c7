// The Base64 codec used for the keys in signed requests.
//
// Both directions run table-driven loops over whole groups (three bytes to four
// characters and back) and fall back to a per-character path only where the lenient
// decoder's rules need it: a skipped character, a pad, or the end of the text.

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

constexpr std::string_view zsm_encodingTable =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Two output characters per 12 input bits, so a group of three bytes costs two loads.
constexpr std::array<std::array<char, 2>, 4096> buildPairTable() {
  std::array<std::array<char, 2>, 4096> table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    table[i] = {zsm_encodingTable[i >> 6], zsm_encodingTable[i & 63]};
  }
  return table;
}
constexpr auto kPairTable = buildPairTable();

// The line counter is 16 bits wide and counts in steps of four; a line length it can
// never reach before wrapping to 0 means no line breaks at all.
constexpr std::uint32_t kLargestReachableLineLength = 65532;

inline void encodeGroup(const unsigned char* in, char* out) {
  const std::uint32_t v = (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
  std::memcpy(out, kPairTable[v >> 12].data(), 2);
  std::memcpy(out + 2, kPairTable[v & 0xFFF].data(), 2);
}

// The last one or two bytes: two or three symbols, then "=" to fill the group.
inline void encodeTail(const unsigned char* in, std::size_t remaining, char* out) {
  const unsigned b0 = in[0];
  const unsigned b1 = remaining > 1 ? in[1] : 0;
  out[0] = zsm_encodingTable[b0 >> 2];
  out[1] = zsm_encodingTable[((b0 & 3) << 4) | (b1 >> 4)];
  out[2] = remaining > 1 ? zsm_encodingTable[(b1 & 15) << 2] : '=';
  out[3] = '=';
}

// Decoding classes of a byte: 0-63 the symbol's value; the markers below otherwise.
constexpr std::uint8_t kPad = 0x40;
constexpr std::uint8_t kSkip = 0x80;
constexpr std::uint8_t kNonAscii = 0xC0;

constexpr std::array<std::uint8_t, 256> buildDecodeTable() {
  std::array<std::uint8_t, 256> table{};
  for (std::size_t c = 0; c < 256; ++c) table[c] = c >= 0x80 ? kNonAscii : kSkip;
  for (std::size_t i = 0; i < zsm_encodingTable.size(); ++i) {
    table[static_cast<unsigned char>(zsm_encodingTable[i])] = static_cast<std::uint8_t>(i);
  }
  table['='] = kPad;
  return table;
}
constexpr auto kDecodeTable = buildDecodeTable();

// Four tables with each symbol's value already shifted to its place in a 24-bit group,
// so a whole group of four symbols is four loads and three ORs. Anything that is not a
// symbol sets bit 24 or above, which sends the group to the per-character path.
constexpr std::uint32_t kNotSymbol = 0x01000000;
constexpr std::array<std::array<std::uint32_t, 256>, 4> buildShiftedTables() {
  std::array<std::array<std::uint32_t, 256>, 4> tables{};
  for (std::size_t c = 0; c < 256; ++c) {
    const std::uint8_t v = kDecodeTable[c];
    for (int k = 0; k < 4; ++k) {
      tables[k][c] = v < 64 ? std::uint32_t{v} << (18 - 6 * k) : kNotSymbol;
    }
  }
  return tables;
}
constexpr auto kShifted = buildShiftedTables();

bool hasNonAscii(const unsigned char* p, const unsigned char* end) {
  while (end - p >= 8) {
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    if (word & 0x8080808080808080ull) return true;
    p += 8;
  }
  for (; p < end; ++p) {
    if (*p >= 0x80) return true;
  }
  return false;
}

std::string decode(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  std::string out;
  out.resize(text.size() / 4 * 3 + 3);
  auto* dst = reinterpret_cast<unsigned char*>(out.data());

  // The group being collected. Slots are not cleared between groups: a pad after a
  // single symbol reads the second slot as the previous group left it.
  std::uint8_t slots[4] = {0, 0, 0, 0};
  int count = 0;
  while (p < end) {
    // Whole groups of four symbols, the common case.
    if (count == 0) {
      while (end - p >= 4) {
        const std::uint32_t v =
            kShifted[0][p[0]] | kShifted[1][p[1]] | kShifted[2][p[2]] | kShifted[3][p[3]];
        if (v >= kNotSymbol) break;
        dst[0] = static_cast<unsigned char>(v >> 16);
        dst[1] = static_cast<unsigned char>(v >> 8);
        dst[2] = static_cast<unsigned char>(v);
        dst += 3;
        p += 4;
        slots[1] = kDecodeTable[p[-3]];
      }
      if (p == end) break;
    }

    // One character at a time.
    const std::uint8_t value = kDecodeTable[*p++];
    if (value == kNonAscii) return std::string();  // the text is not ASCII at all
    if (value == kSkip) continue;
    int writes = 3;
    bool done = false;
    std::uint8_t stored = value;
    if (value == kPad) {
      if (count == 0) break;  // a pad that opens a group ends decoding with no output
      writes = count == 3 ? 2 : 1;
      count = 3;
      done = true;
      stored = '=';  // the pad keeps its character code in the last slot
    }
    slots[count++] = stored;
    if (count == 4) {
      count = 0;
      const unsigned char bytes[3] = {
          static_cast<unsigned char>((slots[0] << 2) | ((slots[1] & 48) >> 4)),
          static_cast<unsigned char>(((slots[1] & 15) << 4) | ((slots[2] & 60) >> 2)),
          static_cast<unsigned char>(((slots[2] & 3) << 6) | (slots[3] & 63))};
      std::memcpy(dst, bytes, static_cast<std::size_t>(writes));
      dst += writes;
    }
    if (done) break;
  }
  // Whatever follows the point where decoding stopped must still be ASCII.
  if (hasNonAscii(p, end)) return std::string();
  out.resize(static_cast<std::size_t>(dst - reinterpret_cast<unsigned char*>(out.data())));
  return out;
}

}  // namespace

std::string zsm_base64Encoding(std::string_view bytes) {
  return zsm_base64EncodingWithLineLength(bytes, 0);
}

std::string zsm_base64EncodingWithLineLength(std::string_view bytes, std::uint32_t lineLength) {
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  const std::size_t groups = (n + 2) / 3;
  const std::size_t fullGroups = n / 3;
  // A line holds the smallest number of groups whose characters reach the line length.
  const std::size_t groupsPerLine =
      (lineLength == 0 || lineLength > kLargestReachableLineLength) ? 0 : (lineLength + 3) / 4;
  const std::size_t breaks = groupsPerLine == 0 ? 0 : groups / groupsPerLine;

  std::string out;
  out.resize(groups * 4 + breaks);
  char* dst = out.data();
  std::size_t group = 0;
  while (group < fullGroups) {
    std::size_t stop = fullGroups;
    if (groupsPerLine != 0) {
      const std::size_t lineEnd = (group / groupsPerLine + 1) * groupsPerLine;
      if (lineEnd < stop) stop = lineEnd;
    }
    for (; group < stop; ++group, dst += 4) encodeGroup(in + 3 * group, dst);
    if (groupsPerLine != 0 && group % groupsPerLine == 0) *dst++ = '\n';
  }
  if (fullGroups < groups) {
    encodeTail(in + 3 * fullGroups, n - 3 * fullGroups, dst);
    dst += 4;
    if (groupsPerLine != 0 && groups % groupsPerLine == 0) *dst++ = '\n';
  }
  return out;
}

std::string zsm_dataWithBase64EncodedString(std::string_view text) { return decode(text); }

std::optional<std::string> zsm_createBase64DataSeed(std::optional<std::string_view> text) {
  if (!text) return std::nullopt;
  return decode(*text);
}

}  // namespace zolvani
