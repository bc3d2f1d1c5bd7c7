// HttpTransport: the blocking HTTP send the library's server requests go
// through, run on a processing-queue thread.
//
// A send yields the triple the reply judge needs: a transport error or none, an
// HTTP response or none, and the body bytes or none. Redirects are not followed.
//
// Thread-safety: implementations must allow concurrent sends from several
// threads.
#pragma once

#include "zolvani/subscription/Export.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zolvani/subscription/Error.h"

namespace zolvani {

struct ZSM_EXPORT HttpRequest {
  std::string url;  // empty when the URL text did not parse
  std::string method = "POST";
  // In the order added; a header may appear more than once.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::chrono::milliseconds timeout{60000};

  // The values of every header named `name` (case-insensitive), joined by ",".
  std::optional<std::string> header(std::string_view name) const;
  void addHeader(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
  }
};

struct ZSM_EXPORT HttpResponse {
  long statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;
};

struct ZSM_EXPORT HttpReply {
  std::optional<Error> error;
  std::optional<HttpResponse> response;
  std::optional<std::string> body;
};

class ZSM_EXPORT HttpTransport {
 public:
  virtual ~HttpTransport() = default;
  virtual HttpReply send(const HttpRequest& request) = 0;
};

}  // namespace zolvani
