// Formatting of the "%s [Line %d] text" debug lines that name their source.
#pragma once

#include <string>
#include <string_view>

#include <fmt/format.h>

namespace zolvani {

// Built by appending into one buffer of the right size: the library writes
// several such lines for every item of a catalog.
inline std::string locatedLine(std::string_view location, int line, std::string_view text) {
  const fmt::format_int number(line);
  std::string out;
  out.reserve(location.size() + 8 + number.size() + 2 + text.size());
  out.append(location).append(" [Line ").append(number.data(), number.size()).append("] ");
  out.append(text);
  return out;
}

}  // namespace zolvani
