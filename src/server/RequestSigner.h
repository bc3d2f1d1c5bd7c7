// RequestSigner: signs a finished server request so the content server can
// tell that it comes from a client holding the engine's secret.
//
// The signature is an HMAC-SHA256, keyed with the secret, over five lines:
// method, "Host" value, URL, body text and the secret in Base64. It is appended
// to the URL as "?sig=" and 64 lower-case hex digits. The pieces are public so
// that the server side, tests and benchmarks can recompute each step.
//
// Thread-safety: a signer is immutable after construction; sign() may run on
// several threads at once as long as the functions it was given allow that.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "zolvani/subscription/platform/HttpTransport.h"

namespace zolvani {

// The parts of a URL that signing needs.
struct UrlParts {
  std::string host;
  int port = 0;  // 0 when the URL names no port
};

class RequestSigner {
 public:
  using LogFunction = std::function<void(const std::string&, std::int64_t)>;

  // `secret` yields the engine's current secret (read on every signature);
  // `verbose` tells whether the final URL is traced; `log` takes trace lines.
  RequestSigner(std::function<std::string()> secret, std::function<bool()> verbose,
                LogFunction log);

  // Adds the "Host" header and replaces the URL with the signed one. A request
  // whose URL does not parse keeps an empty URL, so the transport refuses it.
  void sign(HttpRequest& request) const;

  // The host and explicit port of `url`; none when it does not parse.
  static std::optional<UrlParts> parseUrl(std::string_view url);
  // The "Host" value: the host, plus ":" and the port for any port other than
  // 80 and 443 (whatever the scheme).
  static std::string hostHeader(const UrlParts& parts);
  static std::string stringToSign(std::string_view method, std::string_view host,
                                  std::string_view url, std::string_view body,
                                  std::string_view secretBase64);
  // HMAC-SHA256 of `message` keyed with `key`, as 64 lower-case hex digits.
  // Both stop at their first zero byte, as C strings would.
  static std::string hmacSha256Hex(std::string_view key, std::string_view message);

 private:
  std::function<std::string()> secret_;
  std::function<bool()> verbose_;
  LogFunction log_;
};

}  // namespace zolvani
