// Speed of the text utilities on 64-byte and 1 MiB inputs:
//  - Base64 encoding and decoding against OpenSSL's EVP_EncodeBlock / EVP_DecodeBlock
//    on the same bytes;
//  - unescaping entity-dense text against a straightforward unescaper that compares
//    each candidate with every table entry in order (outputs are compared first);
//  - HTML to plain text on a feed description page.
// Throughput is reported as bytes_per_second of input.

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "text/HtmlEntityTable.h"
#include "text/Utf16.h"
#include "zolvani/subscription/TextUtilities.h"

namespace {

constexpr std::size_t kSmall = 64;
constexpr std::size_t kLarge = 1 << 20;

std::string randomBytes(std::size_t n) {
  std::mt19937_64 random(42);
  std::string bytes(n, '\0');
  for (char& b : bytes) b = static_cast<char>(random());
  return bytes;
}

// ---- Base64 ----------------------------------------------------------------------

void BM_Base64Encode(benchmark::State& state) {
  const std::string bytes = randomBytes(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    std::string text = zolvani::zsm_base64Encoding(bytes);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_Base64Encode_OpenSSL(benchmark::State& state) {
  const std::string bytes = randomBytes(static_cast<std::size_t>(state.range(0)));
  std::vector<unsigned char> out((bytes.size() + 2) / 3 * 4 + 1);
  for (auto _ : state) {
    int n = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                            static_cast<int>(bytes.size()));
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_Base64Decode(benchmark::State& state) {
  const std::string text =
      zolvani::zsm_base64Encoding(randomBytes(static_cast<std::size_t>(state.range(0))));
  for (auto _ : state) {
    std::string bytes = zolvani::zsm_dataWithBase64EncodedString(text);
    benchmark::DoNotOptimize(bytes.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_Base64Decode_OpenSSL(benchmark::State& state) {
  const std::string text =
      zolvani::zsm_base64Encoding(randomBytes(static_cast<std::size_t>(state.range(0))));
  std::vector<unsigned char> out(text.size() / 4 * 3 + 3);
  for (auto _ : state) {
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// ---- Unescaping ------------------------------------------------------------------

// Plain words mixed with named, decimal and hexadecimal references, about one
// reference per ten bytes.
std::string entityDenseText(std::size_t size) {
  std::mt19937 random(7);
  const auto table = zolvani::text::fullEntityTable();
  static constexpr std::string_view kWords[] = {"feed", "episode", "the", "video", "new"};
  std::string text;
  while (text.size() < size) {
    switch (random() % 4) {
      case 0:
      case 1:
        text += table[random() % table.size()].text;
        break;
      case 2:
        text += "&#" + std::to_string(32 + random() % 9000) + ";";
        break;
      default: {
        char hex[16];
        std::snprintf(hex, sizeof hex, "&#x%X;", static_cast<unsigned>(32 + random() % 9000));
        text += hex;
      }
    }
    text += ' ';
    text += kWords[random() % std::size(kWords)];
  }
  text.resize(size);
  return text;
}

// The unescaper written the obvious way: walk back from "&" to "&", parse numbers with
// the standard library, and look names up by comparing with every table entry in turn.
std::string straightforwardUnescape(std::string_view utf8) {
  static const std::vector<std::pair<std::u16string, char16_t>> kEntries = [] {
    std::vector<std::pair<std::u16string, char16_t>> entries;
    for (const auto& entity : zolvani::text::fullEntityTable()) {
      entries.emplace_back(std::u16string(entity.text.begin(), entity.text.end()), entity.unit);
    }
    return entries;
  }();
  const std::u16string text = zolvani::text::toUtf16(utf8);
  struct Replacement {
    std::size_t at, length;
    char16_t unit;
  };
  std::vector<Replacement> replacements;
  std::size_t rangeEnd = text.size();
  std::size_t amp = text.rfind(u'&');
  while (amp != std::u16string::npos) {
    std::size_t semi = text.find(u';', amp);
    if (semi >= rangeEnd) semi = std::u16string::npos;
    rangeEnd = amp;
    if (semi != std::u16string::npos && semi - amp + 1 >= 4 && semi - amp + 1 <= 10) {
      const std::u16string candidate = text.substr(amp, semi - amp + 1);
      std::string digits;
      bool numeric = candidate[1] == u'#';
      bool hex = numeric && (candidate[2] == u'x' || candidate[2] == u'X');
      if (numeric) {
        for (std::size_t i = hex ? 3 : 2; i + 1 < candidate.size(); ++i) {
          digits.push_back(candidate[i] < 0x80 ? static_cast<char>(candidate[i]) : '?');
        }
        char* end = nullptr;
        const long value = digits.empty() ? 0 : std::strtol(digits.c_str(), &end, hex ? 16 : 10);
        const bool all = !digits.empty() && end == digits.c_str() + digits.size() &&
                         digits[0] != ' ' && !(hex && (digits[0] == '+' || digits[0] == '-'));
        if (all && value > 0 && value < 65535) {
          replacements.push_back({amp, candidate.size(), static_cast<char16_t>(value)});
        }
      } else {
        for (const auto& [name, unit] : kEntries) {
          if (candidate == name) {
            replacements.push_back({amp, candidate.size(), unit});
            break;
          }
        }
      }
    }
    amp = amp == 0 ? std::u16string::npos : text.rfind(u'&', amp - 1);
  }
  std::u16string out;
  std::size_t copied = 0;
  for (auto it = replacements.rbegin(); it != replacements.rend(); ++it) {
    out.append(text, copied, it->at - copied);
    out.push_back(it->unit);
    copied = it->at + it->length;
  }
  out.append(text, copied);
  return zolvani::text::toUtf8(out);
}

void checkSameUnescaping(const std::string& text) {
  if (zolvani::gtm_stringByUnescapingFromHTML(text) != straightforwardUnescape(text)) {
    std::fprintf(stderr, "unescapers disagree on the benchmark text\n");
    std::abort();
  }
}

void BM_Unescape(benchmark::State& state) {
  const std::string text = entityDenseText(static_cast<std::size_t>(state.range(0)));
  checkSameUnescaping(text);
  for (auto _ : state) {
    std::string out = zolvani::gtm_stringByUnescapingFromHTML(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_Unescape_Straightforward(benchmark::State& state) {
  const std::string text = entityDenseText(static_cast<std::size_t>(state.range(0)));
  checkSameUnescaping(text);
  for (auto _ : state) {
    std::string out = straightforwardUnescape(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// Feed text as it mostly comes: non-ASCII words with a reference now and then, so that
// the time goes to scanning and to checking the UTF-8 rather than to references.
std::string sparseUnicodeText(std::size_t size) {
  static constexpr std::string_view kPiece =
      "Caf\xC3\xA9 &amp; cr\xC3\xA8me \xE2\x80\x94 \xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E "
      "episodes, \xCE\x95\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC and "
      "more &#8212; every week. ";
  std::string text;
  while (text.size() < size) text += kPiece;
  // Cut at a character boundary: drop a character that the cut may have split.
  text.resize(size);
  while ((static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
  if (static_cast<unsigned char>(text.back()) >= 0xC0) text.pop_back();
  return text;
}

void BM_Unescape_SparseUnicode(benchmark::State& state) {
  const std::string text = sparseUnicodeText(static_cast<std::size_t>(state.range(0)));
  checkSameUnescaping(text);
  for (auto _ : state) {
    std::string out = zolvani::gtm_stringByUnescapingFromHTML(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_Unescape_SparseUnicode_Straightforward(benchmark::State& state) {
  const std::string text = sparseUnicodeText(static_cast<std::size_t>(state.range(0)));
  checkSameUnescaping(text);
  for (auto _ : state) {
    std::string out = straightforwardUnescape(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// ---- HTML to plain text ----------------------------------------------------------

std::string feedDescriptionPage(std::size_t size) {
  static constexpr std::string_view kItem =
      "<div class=\"episode\">\n"
      "  <h2>Episode 42: Caf&eacute; culture &amp; the city</h2>\n"
      "  <!-- published by the feed editor -->\n"
      "  <p>In this episode we visit <a href=\"https://example.com/cafes\">six caf&eacute;s"
      "</a> across <strong>Lisbon</strong> and <em>Porto</em>, talk to the baristas "
      "&mdash; and ask why &ldquo;slow coffee&rdquo; is back.</p>\n"
      "  <ul>\n    <li>Running time: 24&nbsp;min</li>\n    <li>Rating: &#9733;&#9733;"
      "&#9733;&#9734;</li>\n    <li>Price: 2&euro; &ndash; 4&euro;</li>\n  </ul>\n"
      "  <p>Subtitles in English, Portugu&ecirc;s and &#x65E5;&#x672C;&#x8A9E;.<br/>\n"
      "  Photos &copy; 2024 Example Media.</p>\n"
      "</div>\n";
  std::string page;
  while (page.size() < size) page += kItem;
  page.resize(size);
  return page;
}

void BM_HtmlToPlainText(benchmark::State& state) {
  const std::string page = feedDescriptionPage(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    std::string text = zolvani::stringByConvertingHTMLToPlainText(page);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * page.size()));
}

BENCHMARK(BM_Base64Encode)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Base64Encode_OpenSSL)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Base64Decode)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Base64Decode_OpenSSL)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Unescape)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Unescape_Straightforward)->Arg(kSmall)->Arg(kLarge);
BENCHMARK(BM_Unescape_SparseUnicode)->Arg(kLarge);
BENCHMARK(BM_Unescape_SparseUnicode_Straightforward)->Arg(kLarge);
BENCHMARK(BM_HtmlToPlainText)->Arg(kSmall)->Arg(kLarge);

}  // namespace

BENCHMARK_MAIN();
