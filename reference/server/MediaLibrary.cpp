#include "reference/server/MediaLibrary.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace zolvani::refserver {

namespace {

bool ParseUnsigned(std::string_view text, uint64_t* value) {
  if (text.empty()) return false;
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *value);
  return ec == std::errc() && ptr == end;
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
  const auto mtimeNs = static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000ull +
                       static_cast<uint64_t>(st.st_mtim.tv_nsec);
  char etag[64];
  std::snprintf(
      etag, sizeof(etag), "\"%llx-%llx-%llx\"", static_cast<unsigned long long>(st.st_ino),
      static_cast<unsigned long long>(file->size), static_cast<unsigned long long>(mtimeNs));
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
  RangeRequest request;
  header = Trim(header);
  constexpr std::string_view kUnit = "bytes=";
  if (header.substr(0, kUnit.size()) != kUnit) return request;
  const std::string_view spec = Trim(header.substr(kUnit.size()));
  if (spec.find(',') != std::string_view::npos) return request;
  const size_t dash = spec.find('-');
  if (dash == std::string_view::npos) return request;
  const std::string_view firstText = Trim(spec.substr(0, dash));
  const std::string_view lastText = Trim(spec.substr(dash + 1));
  uint64_t first = 0;
  uint64_t last = 0;
  if (firstText.empty()) {
    // Suffix range: the final N bytes.
    uint64_t suffix = 0;
    if (!ParseUnsigned(lastText, &suffix)) return request;
    if (suffix == 0 || size == 0) {
      request.kind = RangeRequest::Kind::kUnsatisfiable;
      return request;
    }
    const uint64_t length = suffix < size ? suffix : size;
    request.kind = RangeRequest::Kind::kPartial;
    request.range = ByteRange{size - length, length};
    return request;
  }
  if (!ParseUnsigned(firstText, &first)) return request;
  if (lastText.empty()) {
    last = size == 0 ? 0 : size - 1;
  } else {
    if (!ParseUnsigned(lastText, &last) || last < first) return request;
    if (size > 0 && last >= size) last = size - 1;
  }
  if (first >= size) {
    request.kind = RangeRequest::Kind::kUnsatisfiable;
    return request;
  }
  request.kind = RangeRequest::Kind::kPartial;
  request.range = ByteRange{first, last - first + 1};
  return request;
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
