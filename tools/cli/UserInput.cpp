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
