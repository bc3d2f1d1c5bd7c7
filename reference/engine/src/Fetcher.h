// Fetcher: one HTTP(S) transfer into a file, with resume, and its retry loop.
//
// fetchOnce() runs a single libcurl request: it resumes a partial file with
// Range and If-Range when a validator is known, starts again from zero when the
// server answers 200 or 416, checks free space and Content-Length, refuses small
// text bodies where media was expected, and renames the partial file into place
// only once every byte arrived. A request may ask for one byte range of the
// resource instead; a server that ignores the range and sends the whole body has
// the range cut out of it. fetchWithRetry() repeats retryable failures with
// exponential backoff; the attempt count starts again whenever bytes arrived.
// When the attempts run out the outcome stays kRetry: the failure is transient
// (the server or the network may come back) and the caller decides how long to
// wait before trying again. Only kFail is a permanent refusal.
//
// Thread-safety: the functions keep no shared state; many transfers may run at
// once on different threads.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "zolvani/subscription/Date.h"
#include "zolvani/subscription/Error.h"

namespace zolvani::reference {

// `length` bytes from `offset` of a resource.
struct ByteRange {
  std::uint64_t offset = 0, length = 0;
  friend auto operator<=>(const ByteRange&, const ByteRange&) = default;
};

struct FetchRequest {
  std::string url;
  // Only these bytes of the resource; a ranged transfer never resumes a partial file.
  std::optional<ByteRange> range;
  std::filesystem::path partPath, finalPath;
  // Validator of the partial file (from an earlier response); empty when none.
  std::string etag, lastModified;
  bool expectMedia = true;
  std::uint64_t textBodyLimit = 64 * 1024;
  // Bytes that must stay free after the transfer; checked against the data
  // folder's file system.
  std::uint64_t freeSpaceMargin = 0;
  std::filesystem::path spaceProbe;
};

struct FetchHooks {
  // Polled during the transfer; a true answer stops it (cancel, offline, shutdown).
  std::function<bool()> shouldStop;
  // Bytes in the file so far and the expected total (0 when unknown).
  std::function<void(std::uint64_t, std::uint64_t)> progress;
  // A fresh response's validator, before its first byte is written.
  std::function<void(const std::string& etag, const std::string& lastModified)> validator;
  // The Date header of a reply.
  std::function<void(Date)> serverDate;
  // Before the first byte of a body is written to its file (any answer that
  // carries the resource or a range of it).
  std::function<void()> beforeFirstByte;
};

enum class FetchOutcome { kDone, kRetry, kFail, kStopped };

struct FetchResult {
  FetchOutcome outcome = FetchOutcome::kFail;
  std::optional<Error> error;
  std::uint64_t bytesReceived = 0;  // in this attempt
  std::uint64_t fileSize = 0;       // of the finished file
  bool restartFromZero = false;     // the partial file was dropped (416); retry at once
  std::string contentType{};        // of the answer, lower case
};

struct RetryPolicy {
  std::chrono::milliseconds baseDelay{500};
  std::chrono::milliseconds maxDelay{30000};
  int maxAttempts = 6;
};

// True for http:// and https:// URLs (case-insensitive scheme), the only ones
// the engine fetches.
bool isFetchableURL(const std::string& url);

// Resolves `reference` against `base` (RFC 3986, enough for playlists).
std::string resolveURL(const std::string& base, const std::string& reference);

FetchResult fetchOnce(FetchRequest& request, const FetchHooks& hooks);

// `sleep` waits for the given delay and returns false when the wait was cut
// short (the transfer should stop).
FetchResult fetchWithRetry(FetchRequest& request, const FetchHooks& hooks,
                           const RetryPolicy& policy,
                           const std::function<bool(std::chrono::milliseconds)>& sleep);

// A small text resource (a playlist) into memory, at most `limit` bytes.
FetchResult fetchText(const std::string& url, std::uint64_t limit, const FetchHooks& hooks,
                      std::string* body, std::string* effectiveURL);

Error engineError(std::int64_t code, std::string description);

}  // namespace zolvani::reference
