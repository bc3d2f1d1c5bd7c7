// DepthLimitedJson: reads untrusted JSON text into a tree whose nesting never
// exceeds a limit, without letting one hostile member spoil the rest.
//
// A container (array or object) that would sit deeper than the limit is left
// out of the tree: an array loses that element, an object that member. Every
// other value is read as usual, so a catalog whose one item carries absurd
// nesting still yields its other items. Only text that is not JSON at all
// reads as not JSON.
//
// The reader is nlohmann::json's event (SAX) parser with a builder of its own:
// neither recurses, so stack use does not grow with the nesting of the text;
// time is linear in the text and memory is bounded by it. Where members were
// left out is kept as short JSON pointers (their first few steps only, and a
// bounded number of them), enough to name the catalog item that lost a member.
//
// Thread-safety: plain functions over their arguments; safe from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace zolvani {

struct DepthLimitedJson {
  // True when the text was JSON; `value` is then its tree, pruned.
  bool isJson = false;
  nlohmann::json value;
  // How many containers were left out for nesting too deep.
  std::size_t pruned = 0;
  // The distinct places they were left out from, as JSON pointers cut to
  // kPointerSteps steps ("/collections/0/contentItems/3"), at most kMaxPlaces.
  std::vector<std::string> places;

  static constexpr std::size_t kPointerSteps = 4;
  static constexpr std::size_t kMaxPlaces = 64;

  // Reads `text`; no container of the result nests deeper than `maxDepth`
  // (the outermost value is at depth 1).
  static DepthLimitedJson parse(std::string_view text, std::size_t maxDepth);
};

}  // namespace zolvani
