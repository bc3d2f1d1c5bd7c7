// RequestSigner: the request signature of the subscription protocol, computed the
// way a device computes it, so the server can check what it receives.
//
// A signature is HMAC-SHA256, keyed with the account's secret, over five lines:
// the upper-case method, the Host text, the absolute URL before "?sig=", the body
// text, and the secret in Base64. It travels as 64 lower-case hex digits. All
// functions are pure and safe to call from any thread.
#pragma once

#include <string>
#include <string_view>

namespace zolvani::refserver {

class RequestSigner {
 public:
  // Standard Base64 with "=" padding and no line breaks.
  static std::string Base64(std::string_view bytes);

  // The Host text a device writes: the host alone when the port is 0, 80 or 443,
  // otherwise "host:port".
  static std::string HostText(std::string_view host, int port);

  // The five-line text that is signed (no trailing line feed).
  static std::string StringToSign(std::string_view method, std::string_view host,
                                  std::string_view url, std::string_view body,
                                  std::string_view secret);

  // 64 lower-case hex digits of HMAC-SHA256(secret, text).
  static std::string HmacHex(std::string_view secret, std::string_view text);

  // The signature of a whole request.
  static std::string Sign(std::string_view method, std::string_view host, std::string_view url,
                          std::string_view body, std::string_view secret) {
    return HmacHex(secret, StringToSign(method, host, url, body, secret));
  }

  // True when `text` is exactly 64 lower-case hex digits.
  static bool IsWellFormedSignature(std::string_view text);

  // Comparison whose running time does not depend on where the texts differ.
  static bool ConstantTimeEquals(std::string_view a, std::string_view b);
};

}  // namespace zolvani::refserver
