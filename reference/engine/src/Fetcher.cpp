#include "Fetcher.h"

#include <curl/curl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::reference {
namespace {

void globalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() &&
         (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return std::string(s);
}

std::optional<std::uint64_t> parseUnsigned(const std::string& s) {
  if (s.empty() || s.size() > 19) return std::nullopt;
  std::uint64_t v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return v;
}

std::optional<Date> parseHttpDate(const std::string& text) {
  std::tm tm{};
  const char* end = strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S", &tm);
  if (!end) return std::nullopt;
  return Date(static_cast<double>(timegm(&tm)));
}

std::optional<std::uint64_t> freeBytes(const std::filesystem::path& probe) {
  struct statvfs st {};
  if (probe.empty() || statvfs(probe.c_str(), &st) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(st.f_bavail) * st.f_frsize;
}

// Why the engine cut a transfer short from inside a callback.
enum class Abort {
  kNone,
  kStopped,
  kNoSpace,
  kNotMedia,
  kWriteFailed,
  kTooLarge,
  kBadRange,
  kRangeComplete  // every byte of the requested range arrived from a whole body
};

struct Transfer {
  FetchRequest* request = nullptr;
  const FetchHooks* hooks = nullptr;
  std::uint64_t offset = 0;  // bytes already in the partial file
  long status = 0;
  int headerStatus = 0;  // of the response whose headers are being read
  std::optional<std::uint64_t> contentLength;
  std::optional<std::uint64_t> rangeStart;
  std::optional<std::uint64_t> rangeTotal;  // the resource's size, from Content-Range
  std::string etag, lastModified, contentType;
  bool started = false;  // first body byte seen, file opened
  FILE* file = nullptr;
  std::string* memory = nullptr;  // text fetches
  std::uint64_t memoryLimit = 0;
  std::uint64_t received = 0;
  std::uint64_t expectedTotal = 0;
  // Ranged transfers: body bytes to drop before the range (when the server sent
  // the whole resource) and bytes to keep; 0 keeps everything.
  std::uint64_t skip = 0, keep = 0;
  Abort abort = Abort::kNone;
  int writeErrno = 0;
  // Free bytes on the data folder's file system when the transfer was refused
  // or a write failed for lack of space: the error keeps what was true then.
  std::optional<std::uint64_t> freeAtFailure;
  std::chrono::steady_clock::time_point lastProgress;
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const size_t n = size * count;
  std::string_view line(data, n);
  if (line == "\r\n" || line == "\n") {
    // End of a header block: a range that starts at or beyond the resource's end
    // is refused here, before any (possibly malformed) body is awaited.
    if (t->headerStatus == 206 && t->rangeTotal && *t->rangeTotal <= t->offset) {
      t->abort = Abort::kBadRange;
      return 0;
    }
    return n;
  }
  if (line.rfind("HTTP/", 0) == 0) {
    // A new response (after a redirect or a 100): forget the previous headers.
    auto sp = line.find(' ');
    t->headerStatus =
        sp == std::string_view::npos ? 0 : std::atoi(std::string(line.substr(sp + 1, 3)).c_str());
    t->contentLength.reset();
    t->rangeStart.reset();
    t->rangeTotal.reset();
    t->etag.clear();
    t->lastModified.clear();
    t->contentType.clear();
    return n;
  }
  auto colon = line.find(':');
  if (colon == std::string_view::npos) return n;
  std::string name = lower(std::string(line.substr(0, colon)));
  std::string value = trim(line.substr(colon + 1));
  if (name == "content-length") {
    t->contentLength = parseUnsigned(value);
  } else if (name == "content-range") {
    // "bytes START-END/TOTAL"
    auto sp = value.find(' ');
    auto dash = value.find('-');
    if (sp != std::string::npos && dash != std::string::npos && dash > sp)
      t->rangeStart = parseUnsigned(value.substr(sp + 1, dash - sp - 1));
    if (auto slash = value.find('/'); slash != std::string::npos)
      t->rangeTotal = parseUnsigned(value.substr(slash + 1));
  } else if (name == "etag") {
    t->etag = value;
  } else if (name == "last-modified") {
    t->lastModified = value;
  } else if (name == "content-type") {
    t->contentType = lower(value);
  } else if (name == "date") {
    if (auto d = parseHttpDate(value); d && t->hooks && t->hooks->serverDate)
      t->hooks->serverDate(*d);
  }
  return n;
}

// Decides, at the first body byte, whether this response resumes or replaces
// the partial file, and opens it accordingly.
bool beginBody(Transfer* t, CURL* curl) {
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &t->status);
  if (t->status != 200 && t->status != 206) return true;  // an error body: ignored
  FetchRequest& r = *t->request;
  if (r.range) {
    if (t->status == 206) {
      if (!t->rangeStart || *t->rangeStart != r.range->offset) {
        t->abort = Abort::kBadRange;
        return false;
      }
    } else {
      t->skip = r.range->offset;  // the whole resource: cut the range out of it
    }
    t->keep = r.range->length;
    t->offset = 0;
  } else if (t->status == 206) {
    if (!t->rangeStart || *t->rangeStart != t->offset ||
        (t->rangeTotal && *t->rangeTotal <= t->offset)) {
      t->abort = Abort::kBadRange;
      return false;
    }
  } else {
    t->offset = 0;  // the whole resource again (validator changed or no range support)
  }
  if (r.expectMedia && t->contentType.rfind("text/", 0) == 0 &&
      (!t->contentLength || *t->contentLength <= r.textBodyLimit)) {
    t->abort = Abort::kNotMedia;
    return false;
  }
  t->expectedTotal = r.range                             ? r.range->length
                     : t->status == 206 && t->rangeTotal ? *t->rangeTotal
                     : t->contentLength                  ? t->offset + *t->contentLength
                                                         : 0;
  if (!r.spaceProbe.empty()) {
    // Refused before the first byte is written: the body (when its length is
    // known) and the margin must both fit.
    auto free = freeBytes(r.spaceProbe);
    const std::uint64_t body = r.range ? r.range->length : t->contentLength.value_or(0);
    if (free && *free < body + r.freeSpaceMargin) {
      t->freeAtFailure = free;
      t->abort = Abort::kNoSpace;
      return false;
    }
  }
  if (t->memory) {
    t->started = true;
    return true;
  }
  if (t->hooks->beforeFirstByte) t->hooks->beforeFirstByte();
  if (t->status == 200 && t->hooks->validator) t->hooks->validator(t->etag, t->lastModified);
  r.etag = t->etag;
  r.lastModified = t->lastModified;
  t->file = std::fopen(r.partPath.c_str(), t->offset > 0 ? "ab" : "wb");
  if (!t->file) {
    t->writeErrno = errno;
    t->abort = Abort::kWriteFailed;
    return false;
  }
  std::setvbuf(t->file, nullptr, _IOFBF, 1 << 20);
  t->started = true;
  return true;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* t = static_cast<Transfer*>(user);
  const size_t n = size * count;
  if (t->memory) {
    if (t->memory->size() + n > t->memoryLimit) {
      t->abort = Abort::kTooLarge;
      return 0;
    }
    t->memory->append(data, n);
    t->received += n;
    return n;
  }
  std::string_view chunk(data, n);
  if (t->skip > 0) {
    const auto drop = static_cast<std::size_t>(std::min<std::uint64_t>(t->skip, chunk.size()));
    chunk.remove_prefix(drop);
    t->skip -= drop;
  }
  bool complete = false;
  if (t->keep > 0) {
    const std::uint64_t left = t->keep - t->received;
    if (chunk.size() >= left) {
      chunk = chunk.substr(0, static_cast<std::size_t>(left));
      complete = true;
    }
  }
  if (!chunk.empty() && std::fwrite(chunk.data(), 1, chunk.size(), t->file) != chunk.size()) {
    t->writeErrno = errno;
    if (t->writeErrno == ENOSPC) t->freeAtFailure = freeBytes(t->request->spaceProbe);
    t->abort = Abort::kWriteFailed;
    return 0;
  }
  t->received += chunk.size();
  if (complete && t->received == t->keep && chunk.size() < n) {
    // The rest of a whole body is not wanted: stop reading it.
    t->abort = Abort::kRangeComplete;
    return 0;
  }
  return n;
}

struct BodyContext {
  Transfer* transfer;
  CURL* curl;
};

size_t onBodyWithHandle(char* data, size_t size, size_t count, void* user) {
  auto* ctx = static_cast<BodyContext*>(user);
  Transfer* t = ctx->transfer;
  if (!t->started && t->status == 0) {
    if (!beginBody(t, ctx->curl)) return 0;
    if (!t->started) return size * count;  // error body
  } else if (!t->started) {
    return size * count;
  }
  return onBody(data, size, count, t);
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto* t = static_cast<Transfer*>(user);
  if (t->hooks->shouldStop && t->hooks->shouldStop()) {
    t->abort = Abort::kStopped;
    return 1;
  }
  auto now = std::chrono::steady_clock::now();
  if (t->hooks->progress && t->started && !t->memory &&
      now - t->lastProgress > std::chrono::milliseconds(200)) {
    t->lastProgress = now;
    t->hooks->progress(t->offset + t->received, t->expectedTotal);
  }
  return 0;
}

CURL* makeHandle(const std::string& url, Transfer& t, BodyContext& body) {
  globalInit();
  CURL* curl = curl_easy_init();
  if (!curl) return nullptr;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 8L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 15L);
  // A stalled connection (under 1 byte/s for 30 s) counts as a failure to retry.
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 30L);
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 512L * 1024L);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &t);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBodyWithHandle);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &t);
  curl_easy_setopt(curl, CURLOPT_USERAGENT, "ZolvaniReferenceEngine/1.0");
  return curl;
}

// "; free on <folder> at the time: 1.2 MiB, and the engine keeps 64.0 MiB free
// beyond each download": the space as it was when the transfer failed, kept in
// the stored error, since a reader may look at it days later.
std::string spaceAtFailure(const Transfer& t) {
  const FetchRequest& r = *t.request;
  auto mib = [](std::uint64_t bytes) {
    return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / (1024 * 1024));
  };
  const std::string free =
      t.freeAtFailure ? mib(*t.freeAtFailure) : std::string("an unknown amount");
  return fmt::format(
      "; free on {} at the time: {}, and the engine keeps {} free beyond each "
      "download",
      r.spaceProbe.string(), free, mib(r.freeSpaceMargin));
}

// Classifies a finished request; `t` holds what the callbacks saw.
FetchResult judge(CURLcode code, Transfer& t, const std::string& url) {
  FetchResult r;
  r.bytesReceived = t.received;
  switch (t.abort) {
    case Abort::kStopped:
      r.outcome = FetchOutcome::kStopped;
      return r;
    case Abort::kNoSpace:
      r.outcome = FetchOutcome::kFail;
      r.error = engineError(kEngineErrorNoSpace,
                            fmt::format("Not enough free space to download {} ({} bytes needed){}",
                                        url, t.contentLength.value_or(0), spaceAtFailure(t)));
      return r;
    case Abort::kNotMedia:
      r.outcome = FetchOutcome::kFail;
      r.error = engineError(kEngineErrorNotMedia,
                            fmt::format("The server sent text ({}) where media was expected: {}",
                                        t.contentType, url));
      return r;
    case Abort::kWriteFailed:
      r.outcome = FetchOutcome::kFail;
      r.error = engineError(
          t.writeErrno == ENOSPC ? kEngineErrorNoSpace : kEngineErrorFile,
          fmt::format("Could not write the download of {}: {}{}", url, std::strerror(t.writeErrno),
                      t.writeErrno == ENOSPC ? spaceAtFailure(t) : std::string()));
      return r;
    case Abort::kTooLarge:
      r.outcome = FetchOutcome::kFail;
      r.error =
          engineError(kEngineErrorBadPlaylist, fmt::format("The playlist {} is too large", url));
      return r;
    case Abort::kBadRange:
      r.outcome = FetchOutcome::kRetry;
      r.error = engineError(kEngineErrorTransfer,
                            "The server answered a different byte range; restarting");
      r.restartFromZero = true;
      return r;
    case Abort::kNone:
    case Abort::kRangeComplete:
      break;
  }
  if (code != CURLE_OK) {
    r.outcome = FetchOutcome::kRetry;
    r.error = engineError(kEngineErrorTransfer,
                          fmt::format("Transfer of {} failed: {}", url, curl_easy_strerror(code)));
    return r;
  }
  // Refusals that asking again will not change; every other status (5xx, 408,
  // 429, ...) may pass and is retried.
  if (t.status == 401 || t.status == 403 || t.status == 404 || t.status == 410) {
    r.outcome = FetchOutcome::kFail;
    r.error = engineError(kEngineErrorHttpStatus,
                          fmt::format("The server answered {} for {}", t.status, url));
    return r;
  }
  if (t.status != 200 && t.status != 206) {
    r.outcome = FetchOutcome::kRetry;
    r.error = engineError(kEngineErrorHttpStatus,
                          fmt::format("The server answered {} for {}", t.status, url));
    return r;
  }
  r.outcome = FetchOutcome::kDone;
  return r;
}

}  // namespace

Error engineError(std::int64_t code, std::string description) {
  return Error::make(std::string(kReferenceEngineErrorDomain), code, std::move(description));
}

bool isFetchableURL(const std::string& url) {
  std::string l = lower(url.substr(0, 8));
  return l.rfind("http://", 0) == 0 || l.rfind("https://", 0) == 0;
}

std::string resolveURL(const std::string& base, const std::string& ref) {
  if (ref.find("://") != std::string::npos) return ref;
  auto schemeEnd = base.find("://");
  if (schemeEnd == std::string::npos) return ref;
  if (ref.rfind("//", 0) == 0) return base.substr(0, schemeEnd + 1) + ref;
  auto pathStart = base.find('/', schemeEnd + 3);
  std::string origin = pathStart == std::string::npos ? base : base.substr(0, pathStart);
  if (!ref.empty() && ref[0] == '/') return origin + ref;
  std::string path = pathStart == std::string::npos ? "/" : base.substr(pathStart);
  auto cut = path.find_first_of("?#");
  if (cut != std::string::npos) path.resize(cut);
  path.resize(path.rfind('/') + 1);
  return origin + path + ref;
}

FetchResult fetchOnce(FetchRequest& request, const FetchHooks& hooks) {
  if (!isFetchableURL(request.url)) {
    FetchResult r;
    r.error = engineError(kEngineErrorBadURL,
                          fmt::format("Only http and https URLs are downloaded: {}", request.url));
    return r;
  }
  Transfer t;
  t.request = &request;
  t.hooks = &hooks;
  std::error_code ec;
  if (!request.range && std::filesystem::exists(request.partPath, ec) &&
      (!request.etag.empty() || !request.lastModified.empty()))
    t.offset = std::filesystem::file_size(request.partPath, ec);
  if (ec) t.offset = 0;
  BodyContext body{&t, nullptr};
  CURL* curl = makeHandle(request.url, t, body);
  if (!curl)
    return {FetchOutcome::kRetry, engineError(kEngineErrorTransfer, "libcurl unavailable"), 0, 0};
  body.curl = curl;
  curl_slist* headers = nullptr;
  if (request.range) {
    const ByteRange& range = *request.range;
    headers = curl_slist_append(
        headers,
        fmt::format("Range: bytes={}-{}", range.offset, range.offset + range.length - 1).c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  } else if (t.offset > 0) {
    headers = curl_slist_append(headers, fmt::format("Range: bytes={}-", t.offset).c_str());
    const std::string& v = !request.etag.empty() ? request.etag : request.lastModified;
    headers = curl_slist_append(headers, fmt::format("If-Range: {}", v).c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  }
  CURLcode code = curl_easy_perform(curl);
  if (t.abort == Abort::kRangeComplete) {
    code = CURLE_OK;
    t.abort = Abort::kNone;
  }
  if (t.status == 0) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &t.status);
  curl_easy_cleanup(curl);
  curl_slist_free_all(headers);
  bool flushed = true;
  if (t.file) {
    flushed = std::fflush(t.file) == 0;
    if (!flushed && t.abort == Abort::kNone) {
      t.writeErrno = errno;
      t.abort = Abort::kWriteFailed;
    }
    std::fclose(t.file);
  }
  const bool bodyStatus = t.status == 200 || t.status == 206;
  if (code == CURLE_OK && t.abort == Abort::kNone && bodyStatus && !t.started) {
    if (t.status == 200) {
      return {
          FetchOutcome::kRetry,
          engineError(kEngineErrorSizeMismatch, "The server sent an empty body for " + request.url),
          0, 0};
    }
    t.status = 416;  // an empty range: the partial file does not fit the resource
  }
  if (t.abort == Abort::kBadRange) t.status = 416;
  if (t.status == 416) {
    // The partial file no longer fits the resource: start again from zero.
    std::filesystem::remove(request.partPath, ec);
    request.etag.clear();
    request.lastModified.clear();
    FetchResult r{FetchOutcome::kRetry,
                  engineError(kEngineErrorTransfer, "Range not satisfiable; restarting"), 0, 0};
    r.restartFromZero = true;
    return r;
  }
  FetchResult r = judge(code, t, request.url);
  r.contentType = t.contentType;
  if (r.outcome == FetchOutcome::kFail && t.abort == Abort::kWriteFailed)
    std::filesystem::remove(request.partPath, ec);  // a full disk leaves nothing behind
  if (r.outcome != FetchOutcome::kDone) return r;
  const std::uint64_t size = std::filesystem::file_size(request.partPath, ec);
  if (ec) {
    return {FetchOutcome::kFail, engineError(kEngineErrorFile, "The downloaded file vanished"),
            t.received, 0};
  }
  if (t.expectedTotal != 0 && size != t.expectedTotal) {
    if (size > t.expectedTotal) std::filesystem::remove(request.partPath, ec);
    r.outcome = FetchOutcome::kRetry;
    r.error = engineError(
        kEngineErrorSizeMismatch,
        fmt::format("Received {} bytes of {} for {}", size, t.expectedTotal, request.url));
    return r;
  }
  std::filesystem::rename(request.partPath, request.finalPath, ec);
  if (ec) {
    r.outcome = FetchOutcome::kFail;
    r.error =
        engineError(kEngineErrorFile, "Could not move the download into place: " + ec.message());
    return r;
  }
  r.fileSize = size;
  if (hooks.progress) hooks.progress(size, size);
  return r;
}

FetchResult fetchWithRetry(FetchRequest& request, const FetchHooks& hooks,
                           const RetryPolicy& policy,
                           const std::function<bool(std::chrono::milliseconds)>& sleep) {
  int attempts = 0;
  int rangeRestarts = 0;
  for (;;) {
    FetchResult r = fetchOnce(request, hooks);
    if (r.outcome != FetchOutcome::kRetry) return r;
    if (r.bytesReceived > 0) attempts = 0;  // progress was made: the server is alive
    if (r.restartFromZero && rangeRestarts < 2) {
      ++rangeRestarts;
      continue;
    }
    if (++attempts >= policy.maxAttempts) return r;  // still transient: the caller waits
    auto delay = policy.baseDelay * (1LL << std::min(attempts - 1, 20));
    if (delay > policy.maxDelay) delay = policy.maxDelay;
    if (!sleep(delay)) {
      r.outcome = FetchOutcome::kStopped;
      return r;
    }
  }
}

FetchResult fetchText(const std::string& url, std::uint64_t limit, const FetchHooks& hooks,
                      std::string* out, std::string* effectiveURL) {
  FetchRequest request;
  request.url = url;
  request.expectMedia = false;
  if (!isFetchableURL(url)) {
    FetchResult r;
    r.error = engineError(kEngineErrorBadURL,
                          fmt::format("Only http and https URLs are downloaded: {}", url));
    return r;
  }
  Transfer t;
  t.request = &request;
  t.hooks = &hooks;
  t.memory = out;
  t.memoryLimit = limit;
  out->clear();
  BodyContext body{&t, nullptr};
  CURL* curl = makeHandle(url, t, body);
  if (!curl)
    return {FetchOutcome::kRetry, engineError(kEngineErrorTransfer, "libcurl unavailable"), 0, 0};
  body.curl = curl;
  CURLcode code = curl_easy_perform(curl);
  if (t.status == 0) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &t.status);
  if (effectiveURL) {
    char* eff = nullptr;
    curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &eff);
    *effectiveURL = eff ? eff : url;
  }
  curl_easy_cleanup(curl);
  FetchResult r = judge(code, t, url);
  r.contentType = t.contentType;
  return r;
}

}  // namespace zolvani::reference
