// A point in time as seconds since 1970-01-01 00:00 UTC, held as a double.
//
// Dates from the server, the engine's secure clock and the user-defaults store
// all travel as this value type. Sub-second precision is kept, as are dates
// before 1970 (negative values). Plain value; safe to copy between threads.
#pragma once

#include "zolvani/subscription/Export.h"

#include <chrono>
#include <compare>

namespace zolvani {

struct ZSM_EXPORT Date {
  double secondsSince1970 = 0.0;

  constexpr Date() = default;
  constexpr explicit Date(double seconds) : secondsSince1970(seconds) {}

  static Date fromTimePoint(std::chrono::system_clock::time_point t) {
    using Seconds = std::chrono::duration<double>;
    return Date(std::chrono::duration_cast<Seconds>(t.time_since_epoch()).count());
  }
  static Date now() { return fromTimePoint(std::chrono::system_clock::now()); }

  std::chrono::system_clock::time_point toTimePoint() const {
    using Seconds = std::chrono::duration<double>;
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(Seconds(secondsSince1970)));
  }

  // The later of two dates; on a tie the receiver.
  Date laterDate(Date other) const {
    return other.secondsSince1970 > secondsSince1970 ? other : *this;
  }

  friend constexpr auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace zolvani
