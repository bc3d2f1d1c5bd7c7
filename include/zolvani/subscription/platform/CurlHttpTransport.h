// CurlHttpTransport: the HttpTransport of real hosts, a blocking libcurl send.
//
// TLS certificate and host verification are on; redirects are not followed (a
// redirect is a non-200 status for the reply judge); the time-out is the
// request's own (60 seconds unless set). A transport failure becomes an Error in
// the domain kCurlErrorDomain carrying libcurl's own code and message.
//
// Thread-safety: concurrent sends from several threads are safe; each send uses
// its own libcurl handle.
#pragma once

#include "zolvani/subscription/Export.h"

#include <chrono>
#include <optional>
#include <string_view>

#include "zolvani/subscription/platform/HttpTransport.h"

namespace zolvani {

inline constexpr std::string_view kCurlErrorDomain = "ZolvaniTransport.curl";

class ZSM_EXPORT CurlHttpTransport final : public HttpTransport {
 public:
  struct Options {
    // Replaces every request's own time-out when set; a host that wants its
    // requests to give up sooner (or later) than 60 seconds sets it here.
    std::optional<std::chrono::milliseconds> timeout;
  };

  CurlHttpTransport();
  explicit CurlHttpTransport(Options options);
  HttpReply send(const HttpRequest& request) override;

 private:
  Options options_;
};

}  // namespace zolvani
