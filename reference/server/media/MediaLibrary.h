// MediaLibrary: the media folder the server publishes under /media, with the pieces
// of HTTP that byte-serving needs: safe path resolution, content types, validators
// (ETag and Last-Modified) and single byte ranges.
//
// Immutable after construction; safe to share between threads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "reference/server/Status.h"

namespace zolvani::refserver {

// One satisfiable byte range of a file: [first, first + length).
struct ByteRange {
  uint64_t first = 0;
  uint64_t length = 0;
};

// What a Range header asks of a file of a given size.
struct RangeRequest {
  enum class Kind {
    kWhole,          // no Range, one this server ignores, or several ranges: 200
    kPartial,        // send `range` with 206
    kUnsatisfiable,  // a well-formed set that no byte of the file satisfies: 416
  };
  Kind kind = Kind::kWhole;
  ByteRange range;
};

// Facts about a published file that the reply needs.
struct MediaFile {
  std::filesystem::path path;
  uint64_t size = 0;
  std::string etag;          // strong, quoted; from size and modification time only
  std::string lastModified;  // HTTP date
  std::string contentType;
};

class MediaLibrary {
 public:
  explicit MediaLibrary(std::filesystem::path root) : root_(std::move(root)) {}

  const std::filesystem::path& root() const { return root_; }

  // Finds the regular file at `relative` (as it appears after /media/, already
  // percent-decoded). Refuses empty, absolute or dot-dot paths, back slashes, zero
  // bytes and anything whose real location lies outside the media folder.
  Status Find(std::string_view relative, MediaFile* file) const;

  // True when `relative` is a path a catalog may name: relative, no "." or ".."
  // segments, no back slash or zero byte, no empty segment.
  static bool IsSafeRelativePath(std::string_view relative);

  static std::string ContentTypeFor(const std::filesystem::path& path);

  // Interprets a Range header value for a file of `size` bytes by RFC 9110: a
  // header that is not a well-formed byte range set is ignored (the whole file); an
  // end past the file is clamped to its last byte, and a suffix longer than the
  // file is the whole file; a set with several ranges gets the whole file, which a
  // client must accept; only a set with no range starting inside the file (or
  // only "-0") is unsatisfiable. At most kMaxRanges ranges are read; more are
  // ignored as a whole.
  static RangeRequest ParseRange(std::string_view header, uint64_t size);
  static constexpr size_t kMaxRanges = 64;

  // Whether an If-Range value still names this version of the file: a strong ETag
  // equal to ours, or a date equal to our Last-Modified.
  static bool IfRangeMatches(std::string_view value, const MediaFile& file);

  // Formats a time as an HTTP date ("Sun, 06 Nov 1994 08:49:37 GMT").
  static std::string HttpDate(int64_t secondsSinceEpoch);

 private:
  std::filesystem::path root_;
};

}  // namespace zolvani::refserver
