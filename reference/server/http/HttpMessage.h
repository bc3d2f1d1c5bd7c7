// HttpMessage: the request a handler is given and the reply it fills in, as the
// server's own HTTP transport (HttpServer) reads and writes them.
//
// Plain values: a Request and a Response belong to the one handler call they are
// made for.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "reference/server/Status.h"

namespace zolvani::refserver {

// Orders header names without regard to case, as HTTP compares them.
struct CaseInsensitiveLess {
  bool operator()(std::string_view a, std::string_view b) const;
  using is_transparent = void;
};

using HeaderMap = std::multimap<std::string, std::string, CaseInsensitiveLess>;

struct Request {
  std::string method;                              // GET, HEAD or POST
  std::string target;                              // as received: path and query, undecoded
  std::string path;                                // the target's path, percent-decoded
  std::multimap<std::string, std::string> params;  // the query, decoded
  HeaderMap headers;                               // every field as received, Range included
  std::string body;  // read in full (within the body limit) when the route asks
  // The client: the connection's peer, or, for a connection from a trusted proxy,
  // the address the proxy names in X-Forwarded-For.
  std::string remoteAddr;
  int remotePort = 0;
  bool viaTrustedProxy = false;      // the connection came from a trusted proxy
  bool onConsoleListener = false;    // arrived on the separate console listener
  std::vector<std::string> matches;  // the route pattern's groups, [0] the whole path

  // The `index`th value of header `name`, or "" when there is none.
  std::string header(std::string_view name, size_t index = 0) const;
  size_t headerCount(std::string_view name) const;
  bool hasHeader(std::string_view name) const { return headerCount(name) > 0; }
};

// Hands a reply's body to the client while a handler builds it. Write() returns
// false once the client is gone or too slow (the handler should stop); nothing is
// sent before a first buffer fills, so a handler that fails early can still
// answer with an error instead.
class BodyWriter {
 public:
  virtual ~BodyWriter() = default;
  virtual bool Write(std::string_view bytes) = 0;
};

struct Response {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;  // Content-Length excluded
  std::string body;

  // A body read from a file: [offset, offset + length) of `path`, sent by the
  // transport without holding a handler thread.
  struct FileBody {
    std::filesystem::path path;
    uint64_t offset = 0;
    uint64_t length = 0;
  };
  std::optional<FileBody> file;

  // A body built while it is sent (chunked). The function runs on a handler
  // thread after the handler returns; it writes through the BodyWriter and
  // returns an error when it fails. When it fails before anything was sent,
  // `failed` is called to turn this Response into the error reply instead.
  std::function<Status(BodyWriter&)> stream;
  std::function<void(Response&, const Status&)> failed;

  void SetHeader(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
  }
  // Replaces every header of that name.
  void ReplaceHeader(const std::string& name, std::string value);
  std::string header(std::string_view name) const;
  void SetContent(std::string content, std::string contentType) {
    body = std::move(content);
    ReplaceHeader("Content-Type", std::move(contentType));
  }
  void SetRedirect(const std::string& location, int code = 302) {
    status = code;
    ReplaceHeader("Location", location);
  }
};

// Decodes %XX escapes; with `plusIsSpace`, '+' too (query strings).
std::string PercentDecode(std::string_view text, bool plusIsSpace);

}  // namespace zolvani::refserver
