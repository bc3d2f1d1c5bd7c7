// JsonLimits: how deep and how large the JSON the server takes from clients, and
// stores for catalogs, may be, and the checks that enforce it without recursion.
//
// nlohmann::json parses and destroys without recursion, but copying, comparing and
// serialising a value recurse once per level; a body nested 65,000 levels deep
// overflows a request thread's stack. Every client body is therefore measured on
// its text before it is parsed, and item metadata is kept shallow and small enough
// that a catalog carrying it stays far inside what a device accepts (the library
// reads a reply nested deeper than 128 levels, a catalog deeper than 512, as not
// JSON at all).
//
// Stateless functions; safe from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "reference/server/Status.h"

namespace zolvani::refserver {

struct JsonLimits {
  // A protocol request body: the body object is level 1, "request_header" level 2.
  static constexpr int kMaxRequestNesting = 32;
  // An item's stored "metadata": the metadata object is level 1, so a member whose
  // value is an array of objects uses levels 2 and 3. A catalog adds six levels
  // around it (reply, "collections", feed, "contentItems", item, "metadata").
  static constexpr int kMaxMetadataNesting = 8;
  // An item's stored "metadata" serialised, in bytes.
  static constexpr size_t kMaxMetadataBytes = 64 * 1024;
  // A seed file: its own framing plus item metadata.
  static constexpr int kMaxSeedNesting = 64;

  // True when `text` nests arrays and objects deeper than `limit` anywhere outside
  // strings (a single pass; it stops at the first level past the limit). Text that
  // is not JSON is measured the same way, so the answer is only about nesting.
  static bool TextNestsDeeperThan(std::string_view text, int limit);

  // True when `value` nests deeper than `limit`; a scalar is level 0, an empty or
  // flat array or object level 1. Walks with its own stack.
  static bool NestsDeeperThan(const nlohmann::json& value, int limit);

  // OK, or InvalidArgument saying which limit `metadata` (an object) breaks.
  static Status CheckItemMetadata(const nlohmann::json& metadata);

  // Parses stored metadata text for a catalog. Text that breaks the limits (a row
  // written before they existed) keeps only its scalar members, so that no catalog
  // carries what a device would refuse; `trimmed` says whether that happened.
  static nlohmann::json ParseStoredMetadata(const std::string& text, bool* trimmed);
};

}  // namespace zolvani::refserver
