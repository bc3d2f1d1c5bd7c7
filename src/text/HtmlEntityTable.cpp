#include "text/HtmlEntityTable.h"

#include <array>
#include <cstdint>
#include <type_traits>

namespace zolvani::text {
namespace {

// clang-format off
constexpr HtmlEntity kFullTable[] = {
    {"&quot;", 34}, {"&amp;", 38}, {"&apos;", 39}, {"&lt;", 60}, {"&gt;", 62},
    // Latin-1
    {"&nbsp;", 160}, {"&iexcl;", 161}, {"&cent;", 162}, {"&pound;", 163},
    {"&curren;", 164}, {"&yen;", 165}, {"&brvbar;", 166}, {"&sect;", 167},
    {"&uml;", 168}, {"&copy;", 169}, {"&ordf;", 170}, {"&laquo;", 171},
    {"&not;", 172}, {"&shy;", 173}, {"&reg;", 174}, {"&macr;", 175},
    {"&deg;", 176}, {"&plusmn;", 177}, {"&sup2;", 178}, {"&sup3;", 179},
    {"&acute;", 180}, {"&micro;", 181}, {"&para;", 182}, {"&middot;", 183},
    {"&cedil;", 184}, {"&sup1;", 185}, {"&ordm;", 186}, {"&raquo;", 187},
    {"&frac14;", 188}, {"&frac12;", 189}, {"&frac34;", 190}, {"&iquest;", 191},
    {"&Agrave;", 192}, {"&Aacute;", 193}, {"&Acirc;", 194}, {"&Atilde;", 195},
    {"&Auml;", 196}, {"&Aring;", 197}, {"&AElig;", 198}, {"&Ccedil;", 199},
    {"&Egrave;", 200}, {"&Eacute;", 201}, {"&Ecirc;", 202}, {"&Euml;", 203},
    {"&Igrave;", 204}, {"&Iacute;", 205}, {"&Icirc;", 206}, {"&Iuml;", 207},
    {"&ETH;", 208}, {"&Ntilde;", 209}, {"&Ograve;", 210}, {"&Oacute;", 211},
    {"&Ocirc;", 212}, {"&Otilde;", 213}, {"&Ouml;", 214}, {"&times;", 215},
    {"&Oslash;", 216}, {"&Ugrave;", 217}, {"&Uacute;", 218}, {"&Ucirc;", 219},
    {"&Uuml;", 220}, {"&Yacute;", 221}, {"&THORN;", 222}, {"&szlig;", 223},
    {"&agrave;", 224}, {"&aacute;", 225}, {"&acirc;", 226}, {"&atilde;", 227},
    {"&auml;", 228}, {"&aring;", 229}, {"&aelig;", 230}, {"&ccedil;", 231},
    {"&egrave;", 232}, {"&eacute;", 233}, {"&ecirc;", 234}, {"&euml;", 235},
    {"&igrave;", 236}, {"&iacute;", 237}, {"&icirc;", 238}, {"&iuml;", 239},
    {"&eth;", 240}, {"&ntilde;", 241}, {"&ograve;", 242}, {"&oacute;", 243},
    {"&ocirc;", 244}, {"&otilde;", 245}, {"&ouml;", 246}, {"&divide;", 247},
    {"&oslash;", 248}, {"&ugrave;", 249}, {"&uacute;", 250}, {"&ucirc;", 251},
    {"&uuml;", 252}, {"&yacute;", 253}, {"&thorn;", 254}, {"&yuml;", 255},
    // Latin Extended, spacing modifiers
    {"&OElig;", 338}, {"&oelig;", 339}, {"&Scaron;", 352}, {"&scaron;", 353},
    {"&Yuml;", 376}, {"&fnof;", 402}, {"&circ;", 710}, {"&tilde;", 732},
    // Greek
    {"&Alpha;", 913}, {"&Beta;", 914}, {"&Gamma;", 915}, {"&Delta;", 916},
    {"&Epsilon;", 917}, {"&Zeta;", 918}, {"&Eta;", 919}, {"&Theta;", 920},
    {"&Iota;", 921}, {"&Kappa;", 922}, {"&Lambda;", 923}, {"&Mu;", 924},
    {"&Nu;", 925}, {"&Xi;", 926}, {"&Omicron;", 927}, {"&Pi;", 928},
    {"&Rho;", 929}, {"&Sigma;", 931}, {"&Tau;", 932}, {"&Upsilon;", 933},
    {"&Phi;", 934}, {"&Chi;", 935}, {"&Psi;", 936}, {"&Omega;", 937},
    {"&alpha;", 945}, {"&beta;", 946}, {"&gamma;", 947}, {"&delta;", 948},
    {"&epsilon;", 949}, {"&zeta;", 950}, {"&eta;", 951}, {"&theta;", 952},
    {"&iota;", 953}, {"&kappa;", 954}, {"&lambda;", 955}, {"&mu;", 956},
    {"&nu;", 957}, {"&xi;", 958}, {"&omicron;", 959}, {"&pi;", 960},
    {"&rho;", 961}, {"&sigmaf;", 962}, {"&sigma;", 963}, {"&tau;", 964},
    {"&upsilon;", 965}, {"&phi;", 966}, {"&chi;", 967}, {"&psi;", 968},
    {"&omega;", 969}, {"&thetasym;", 977}, {"&upsih;", 978}, {"&piv;", 982},
    // General punctuation
    {"&ensp;", 8194}, {"&emsp;", 8195}, {"&thinsp;", 8201}, {"&zwnj;", 8204},
    {"&zwj;", 8205}, {"&lrm;", 8206}, {"&rlm;", 8207}, {"&ndash;", 8211},
    {"&mdash;", 8212}, {"&lsquo;", 8216}, {"&rsquo;", 8217}, {"&sbquo;", 8218},
    {"&ldquo;", 8220}, {"&rdquo;", 8221}, {"&bdquo;", 8222}, {"&dagger;", 8224},
    {"&Dagger;", 8225}, {"&bull;", 8226}, {"&hellip;", 8230}, {"&permil;", 8240},
    {"&prime;", 8242}, {"&Prime;", 8243}, {"&lsaquo;", 8249}, {"&rsaquo;", 8250},
    {"&oline;", 8254}, {"&frasl;", 8260}, {"&euro;", 8364},
    // Letter-like symbols
    {"&image;", 8465}, {"&weierp;", 8472}, {"&real;", 8476}, {"&trade;", 8482},
    {"&alefsym;", 8501},
    // Arrows
    {"&larr;", 8592}, {"&uarr;", 8593}, {"&rarr;", 8594}, {"&darr;", 8595},
    {"&harr;", 8596}, {"&crarr;", 8629}, {"&lArr;", 8656}, {"&uArr;", 8657},
    {"&rArr;", 8658}, {"&dArr;", 8659}, {"&hArr;", 8660},
    // Mathematical operators
    {"&forall;", 8704}, {"&part;", 8706}, {"&exist;", 8707}, {"&empty;", 8709},
    {"&nabla;", 8711}, {"&isin;", 8712}, {"&notin;", 8713}, {"&ni;", 8715},
    {"&prod;", 8719}, {"&sum;", 8721}, {"&minus;", 8722}, {"&lowast;", 8727},
    {"&radic;", 8730}, {"&prop;", 8733}, {"&infin;", 8734}, {"&ang;", 8736},
    {"&and;", 8743}, {"&or;", 8744}, {"&cap;", 8745}, {"&cup;", 8746},
    {"&int;", 8747}, {"&there4;", 8756}, {"&sim;", 8764}, {"&cong;", 8773},
    {"&asymp;", 8776}, {"&ne;", 8800}, {"&equiv;", 8801}, {"&le;", 8804},
    {"&ge;", 8805}, {"&sub;", 8834}, {"&sup;", 8835}, {"&nsub;", 8836},
    {"&sube;", 8838}, {"&supe;", 8839}, {"&oplus;", 8853}, {"&otimes;", 8855},
    {"&perp;", 8869}, {"&sdot;", 8901},
    // Miscellaneous technical, shapes and symbols
    {"&lceil;", 8968}, {"&rceil;", 8969}, {"&lfloor;", 8970}, {"&rfloor;", 8971},
    {"&lang;", 9001}, {"&rang;", 9002}, {"&loz;", 9674}, {"&spades;", 9824},
    {"&clubs;", 9827}, {"&hearts;", 9829}, {"&diams;", 9830},
};

constexpr HtmlEntity kShortTable[] = {
    {"&quot;", 34}, {"&amp;", 38}, {"&apos;", 39}, {"&lt;", 60}, {"&gt;", 62},
    {"&OElig;", 338}, {"&oelig;", 339}, {"&Scaron;", 352}, {"&scaron;", 353},
    {"&Yuml;", 376}, {"&circ;", 710}, {"&tilde;", 732}, {"&ensp;", 8194},
    {"&emsp;", 8195}, {"&thinsp;", 8201}, {"&zwnj;", 8204}, {"&zwj;", 8205},
    {"&lrm;", 8206}, {"&rlm;", 8207}, {"&ndash;", 8211}, {"&mdash;", 8212},
    {"&lsquo;", 8216}, {"&rsquo;", 8217}, {"&sbquo;", 8218}, {"&ldquo;", 8220},
    {"&rdquo;", 8221}, {"&bdquo;", 8222}, {"&dagger;", 8224}, {"&Dagger;", 8225},
    {"&permil;", 8240}, {"&lsaquo;", 8249}, {"&rsaquo;", 8250}, {"&euro;", 8364},
};
// clang-format on

constexpr bool sortedByUnit(std::span<const HtmlEntity> table) {
  for (std::size_t i = 1; i < table.size(); ++i) {
    if (table[i - 1].unit >= table[i].unit) return false;
  }
  return true;
}
static_assert(std::size(kFullTable) == 253);
static_assert(std::size(kShortTable) == 33);
static_assert(sortedByUnit(kFullTable), "binary search needs strictly ascending code units");
static_assert(sortedByUnit(kShortTable), "binary search needs strictly ascending code units");

// Every name is 2 to 8 ASCII letters or digits, so a name packs into one 64-bit key
// and a look-up is one hash and, nearly always, one compare.
constexpr std::size_t kMaxNameLength = 8;

constexpr std::uint64_t packName(std::string_view name) {
  std::uint64_t key = 0;
  for (std::size_t i = 0; i < name.size(); ++i)
    key |= std::uint64_t{std::uint8_t(name[i])} << (8 * i);
  return key;
}

// The UTF-8 form of `unit` (a character of the table, not a surrogate) and its size,
// packed as EntityNameSlot::utf8 holds them.
constexpr std::uint32_t utf8Of(char16_t unit) {
  const std::uint32_t u = unit;
  if (u < 0x80) return u | (1u << 24);
  if (u < 0x800) return (0xC0 | (u >> 6)) | ((0x80 | (u & 0x3F)) << 8) | (2u << 24);
  return (0xE0 | (u >> 12)) | ((0x80 | ((u >> 6) & 0x3F)) << 8) | ((0x80 | (u & 0x3F)) << 16) |
         (3u << 24);
}

constexpr EntityNameIndex buildNameIndex() {
  EntityNameIndex index{};
  for (const HtmlEntity& entity : kFullTable) {
    const std::string_view name = entity.text.substr(1, entity.text.size() - 2);
    const std::uint64_t key = packName(name);
    std::size_t slot = entityNameSlotOf(key);
    while (index[slot].key != 0) slot = (slot + 1) & (index.size() - 1);
    index[slot] = {key, utf8Of(entity.unit), entity.unit, static_cast<std::uint16_t>(name.size())};
  }
  return index;
}

}  // namespace

constinit const EntityNameIndex kEntityNameIndex = buildNameIndex();

std::span<const HtmlEntity> fullEntityTable() { return kFullTable; }

std::span<const HtmlEntity> shortEntityTable() { return kShortTable; }

namespace {

template <typename Char>
std::optional<char16_t> lookupName(std::basic_string_view<Char> name) {
  if (name.empty() || name.size() > kMaxNameLength) return std::nullopt;
  // Every name is ASCII, so a key holding any other unit matches none; for bytes the
  // key itself shows that, for UTF-16 units the bits above 7 are checked once.
  std::uint64_t key = 0;
  unsigned all = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const auto unit = static_cast<std::make_unsigned_t<Char>>(name[i]);
    all |= unit;
    key |= std::uint64_t{static_cast<std::uint8_t>(unit)} << (8 * i);
  }
  if (all > 0x7F) return std::nullopt;
  if (const EntityNameSlot* slot = findPackedEntityName(key, name.size())) return slot->unit;
  return std::nullopt;
}

}  // namespace

std::optional<char16_t> lookupEntityName(std::u16string_view name) { return lookupName(name); }

std::optional<char16_t> lookupEntityName(std::string_view name) { return lookupName(name); }

}  // namespace zolvani::text
