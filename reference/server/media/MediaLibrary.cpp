#include "reference/server/media/MediaLibrary.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <vector>

namespace zolvani::refserver {

namespace {

// One or more decimal digits and nothing else; a value past 2^64 - 1 saturates, as
// it still names a position past the end of any file.
bool ParseDigits(std::string_view text, uint64_t* value) {
  if (text.empty()) return false;
  uint64_t v = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    const auto digit = static_cast<uint64_t>(c - '0');
    v = v > (UINT64_MAX - digit) / 10 ? UINT64_MAX : v * 10 + digit;
  }
  *value = v;
  return true;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace

bool MediaLibrary::IsSafeRelativePath(std::string_view relative) {
  if (relative.empty() || relative.front() == '/') return false;
  if (relative.find('\\') != std::string_view::npos) return false;
  if (relative.find('\0') != std::string_view::npos) return false;
  size_t start = 0;
  while (start <= relative.size()) {
    size_t slash = relative.find('/', start);
    if (slash == std::string_view::npos) slash = relative.size();
    const std::string_view segment = relative.substr(start, slash - start);
    if (segment.empty() || segment == "." || segment == "..") return false;
    start = slash + 1;
  }
  return true;
}

Status MediaLibrary::Find(std::string_view relative, MediaFile* file) const {
  if (!IsSafeRelativePath(relative)) return Status::InvalidArgument("unsafe media path");
  std::error_code ec;
  const auto root = std::filesystem::canonical(root_, ec);
  if (ec) return Status::NotFound("no media folder");
  const auto candidate = std::filesystem::canonical(root / std::filesystem::path(relative), ec);
  if (ec) return Status::NotFound("no such media file");
  // A symbolic link inside the folder must not lead outside it.
  const auto rel = candidate.lexically_relative(root);
  if (rel.empty() || *rel.begin() == "..") return Status::NotFound("no such media file");
  struct stat st {};
  if (::stat(candidate.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return Status::NotFound("no such media file");
  }
  file->path = candidate;
  file->size = static_cast<uint64_t>(st.st_size);
  // The validator names this version of the file the same way on every server
  // holding a copy with its times kept (rsync -a, cp -p, one shared folder), so
  // that a download begun on one server resumes on another: size and modification
  // time only, never the inode or the device.
  const auto mtimeNs = static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000ull +
                       static_cast<uint64_t>(st.st_mtim.tv_nsec);
  char etag[48];
  std::snprintf(etag, sizeof(etag), "\"%llx-%llx\"", static_cast<unsigned long long>(file->size),
                static_cast<unsigned long long>(mtimeNs));
  file->etag = etag;
  file->lastModified = HttpDate(static_cast<int64_t>(st.st_mtim.tv_sec));
  file->contentType = ContentTypeFor(candidate);
  return Status::OK();
}

std::string MediaLibrary::ContentTypeFor(const std::filesystem::path& path) {
  const std::string ext = path.extension().string();
  if (ext == ".m3u8") return "application/x-mpegURL";
  if (ext == ".mp4" || ext == ".m4s" || ext == ".m4v") return "video/mp4";
  if (ext == ".m4a") return "audio/mp4";
  if (ext == ".ts") return "video/mp2t";
  if (ext == ".mp3") return "audio/mpeg";
  if (ext == ".json") return "application/json";
  if (ext == ".txt") return "text/plain";
  return "application/octet-stream";
}

RangeRequest MediaLibrary::ParseRange(std::string_view header, uint64_t size) {
  // RFC 9110, section 14: Range = range-unit "=" range-set, where range-set is a
  // comma-separated list of "first-last", "first-" or "-suffix". A header this
  // server cannot read is ignored (the whole file, 200); only a well-formed set none
  // of whose ranges is satisfiable gets 416.
  RangeRequest whole;
  header = Trim(header);
  const size_t equals = header.find('=');
  if (equals == std::string_view::npos) return whole;
  if (!EqualsIgnoringCase(header.substr(0, equals), "bytes")) return whole;
  struct Spec {
    bool suffix = false;
    uint64_t first = 0;
    uint64_t last = UINT64_MAX;  // inclusive; UINT64_MAX when open or too large
  };
  std::vector<Spec> specs;
  std::string_view rest = header.substr(equals + 1);
  while (true) {
    const size_t comma = rest.find(',');
    const std::string_view element = Trim(rest.substr(0, comma));
    // A list may carry empty elements ("a, , b"); they name no range.
    if (!element.empty()) {
      if (specs.size() == kMaxRanges) return whole;
      const size_t dash = element.find('-');
      if (dash == std::string_view::npos) return whole;
      Spec spec;
      const std::string_view firstText = element.substr(0, dash);
      const std::string_view lastText = element.substr(dash + 1);
      if (firstText.empty()) {
        spec.suffix = true;
        if (!ParseDigits(lastText, &spec.last)) return whole;
      } else {
        if (!ParseDigits(firstText, &spec.first)) return whole;
        if (!lastText.empty()) {
          if (!ParseDigits(lastText, &spec.last) || spec.last < spec.first) return whole;
        }
      }
      specs.push_back(spec);
    }
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  if (specs.empty()) return whole;

  // Satisfiable: a range starting inside the file, or a suffix of at least a byte.
  size_t satisfiable = 0;
  for (const auto& spec : specs) {
    if (spec.suffix ? spec.last > 0 : spec.first < size) ++satisfiable;
  }
  if (satisfiable == 0) {
    RangeRequest refused;
    refused.kind = RangeRequest::Kind::kUnsatisfiable;
    return refused;
  }
  // Several ranges are answered with the whole file, which HTTP allows; so is an
  // empty file, which no byte range can describe.
  if (specs.size() > 1 || size == 0) return whole;
  const Spec& spec = specs.front();
  RangeRequest partial;
  partial.kind = RangeRequest::Kind::kPartial;
  if (spec.suffix) {
    // A suffix longer than the file is the whole file.
    const uint64_t length = spec.last < size ? spec.last : size;
    partial.range = ByteRange{size - length, length};
  } else {
    // An end past the file is clamped to its last byte.
    const uint64_t last = spec.last < size ? spec.last : size - 1;
    partial.range = ByteRange{spec.first, last - spec.first + 1};
  }
  return partial;
}

bool MediaLibrary::IfRangeMatches(std::string_view value, const MediaFile& file) {
  value = Trim(value);
  if (value.empty()) return false;
  if (value.front() == '"' || value.substr(0, 2) == "W/") {
    // Only a strong validator may vouch for byte ranges.
    return value == file.etag;
  }
  return value == file.lastModified;
}

std::string MediaLibrary::HttpDate(int64_t secondsSinceEpoch) {
  const std::time_t t = static_cast<std::time_t>(secondsSinceEpoch);
  std::tm tm{};
  gmtime_r(&t, &tm);
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char text[40];
  std::snprintf(text, sizeof(text), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[tm.tm_wday % 7],
                tm.tm_mday, kMonths[tm.tm_mon % 12], tm.tm_year + 1900, tm.tm_hour, tm.tm_min,
                tm.tm_sec);
  return text;
}

}  // namespace zolvani::refserver
