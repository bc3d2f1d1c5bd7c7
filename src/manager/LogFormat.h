// Formatting of the "%s [Line %d] text" debug lines that name their source.
#pragma once

#include <string>
#include <string_view>

#include <fmt/format.h>

namespace zolvani {

inline std::string locatedLine(std::string_view location, int line, std::string_view text) {
  return fmt::format("{} [Line {}] {}", location, line, text);
}

}  // namespace zolvani
