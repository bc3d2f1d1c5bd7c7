// UserInput: readings of what people type on zsm's command line that CLI11 does
// not read by itself: log-level names, spans of time ("7d") and the nearest
// valid name for a mistyped one.
//
// Pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zsm {

// "error" 0, "warning" (or "warn") 1, "notable" 2, "info" 4, "debug" every
// level; a non-negative number is taken as it is. None for anything else.
std::optional<std::int64_t> parseLogLevel(std::string_view text);
inline constexpr std::int64_t kLogLevelDebug = 1000;

// A span of time in seconds: a number with a unit, s, m, h, d or w ("90m",
// "7d"); a bare number is seconds. None for negative, empty or malformed text,
// and for spans beyond 100 years.
std::optional<double> parseSpan(std::string_view text);

// Seconds since 1970 of a UTC date and time as zsm prints them,
// "2026-01-31T08:00:00Z" (fractions of a second allowed, "Z" required, a space
// for the "T" too); none for anything else, impossible dates included.
std::optional<double> parseUtcDate(std::string_view text);

// The candidate closest to `typed` by edit distance, when it is close enough to
// be what was meant (at most a third of its letters differ, or it starts the
// same); empty otherwise.
std::string nearestName(std::string_view typed, const std::vector<std::string>& candidates);

}  // namespace zsm
