#include "UserInput.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <vector>

namespace zsm {

std::optional<std::int64_t> parseLogLevel(std::string_view text) {
  if (text == "error") return 0;
  if (text == "warning" || text == "warn") return 1;
  if (text == "notable") return 2;
  if (text == "info") return 4;
  if (text == "debug") return kLogLevelDebug;
  std::int64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 0)
    return std::nullopt;
  return value;
}

std::optional<double> parseSpan(std::string_view text) {
  if (text.empty()) return std::nullopt;
  double unit = 1;
  switch (text.back()) {
    case 's':
      break;
    case 'm':
      unit = 60;
      break;
    case 'h':
      unit = 3600;
      break;
    case 'd':
      unit = 86400;
      break;
    case 'w':
      unit = 7 * 86400;
      break;
    default:
      unit = 0;
  }
  if (unit != 0)
    text.remove_suffix(1);
  else
    unit = 1;
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() ||
      !std::isfinite(value) || value < 0)
    return std::nullopt;
  const double seconds = value * unit;
  if (seconds > 100.0 * 365 * 86400) return std::nullopt;
  return seconds;
}

std::optional<double> parseUtcDate(std::string_view text) {
  // YYYY-MM-DDTHH:MM:SS[.fff]Z
  if (text.size() < 20 || text.back() != 'Z') return std::nullopt;
  auto number = [&](std::size_t at, std::size_t digits, int* out) {
    if (at + digits > text.size()) return false;
    int value = 0;
    for (std::size_t i = at; i < at + digits; ++i) {
      if (text[i] < '0' || text[i] > '9') return false;
      value = value * 10 + (text[i] - '0');
    }
    *out = value;
    return true;
  };
  int year, month, day, hour, minute, second;
  if (!number(0, 4, &year) || text[4] != '-' || !number(5, 2, &month) || text[7] != '-' ||
      !number(8, 2, &day) || (text[10] != 'T' && text[10] != ' ') || !number(11, 2, &hour) ||
      text[13] != ':' || !number(14, 2, &minute) || text[16] != ':' || !number(17, 2, &second))
    return std::nullopt;
  double fraction = 0;
  std::string_view rest = text.substr(19, text.size() - 20);
  if (!rest.empty()) {
    if (rest[0] != '.' || rest.size() < 2) return std::nullopt;
    double scale = 0.1;
    for (char c : rest.substr(1)) {
      if (c < '0' || c > '9') return std::nullopt;
      fraction += (c - '0') * scale;
      scale /= 10;
    }
  }
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (year < 1970 || month < 1 || month > 12 || day < 1 ||
      day > kDays[month - 1] + (month == 2 && leap ? 1 : 0) || hour > 23 || minute > 59 ||
      second > 59)
    return std::nullopt;
  // Days since 1970 by the civil-from-days rule (no time zone involved).
  const int y = month <= 2 ? year - 1 : year;
  const int era = y / 400;
  const int yoe = y - era * 400;
  const int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const long long days = static_cast<long long>(era) * 146097 + doe - 719468;
  return static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second) + fraction;
}

namespace {

// Edits that turn `a` into `b`: insertions, deletions, substitutions and
// swaps of two neighbours, the usual slips of a typist.
std::size_t editDistance(std::string_view a, std::string_view b) {
  const std::size_t n = a.size(), m = b.size();
  std::vector<std::vector<std::size_t>> d(n + 1, std::vector<std::size_t>(m + 1));
  for (std::size_t i = 0; i <= n; ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= m; ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= n; ++i) {
    for (std::size_t j = 1; j <= m; ++j) {
      d[i][j] = std::min(
          {d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[n][m];
}

}  // namespace

std::string nearestName(std::string_view typed, const std::vector<std::string>& candidates) {
  // No command name is long; a long word is not a slip of the fingers.
  if (typed.size() > 64) return {};
  std::string best;
  std::size_t bestDistance = SIZE_MAX;
  for (const std::string& c : candidates) {
    const std::size_t d = editDistance(typed, c);
    if (d < bestDistance) bestDistance = d, best = c;
  }
  if (best.empty()) return best;
  if (bestDistance * 3 <= std::max(typed.size(), best.size())) return best;
  // A prefix of a command ("sub" for "subscribe") names it when it names only one.
  std::string only;
  for (const std::string& c : candidates) {
    if (typed.size() >= 2 && c.rfind(typed, 0) == 0) {
      if (!only.empty()) return {};
      only = c;
    }
  }
  return only;
}

}  // namespace zsm
