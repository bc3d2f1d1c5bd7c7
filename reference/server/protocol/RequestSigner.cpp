#include "reference/server/protocol/RequestSigner.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cctype>
#include <vector>

namespace zolvani::refserver {

namespace {

// The device signs the text only up to its first zero byte; so does the server.
std::string_view UpToFirstZero(std::string_view text) {
  const auto zero = text.find('\0');
  return zero == std::string_view::npos ? text : text.substr(0, zero);
}

}  // namespace

std::string RequestSigner::Base64(std::string_view bytes) {
  if (bytes.empty()) return std::string();
  std::vector<unsigned char> out(4 * ((bytes.size() + 2) / 3) + 1);
  const int written =
      EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                      static_cast<int>(bytes.size()));
  return std::string(reinterpret_cast<const char*>(out.data()), static_cast<size_t>(written));
}

std::string RequestSigner::HostText(std::string_view host, int port) {
  std::string text(host);
  if (port != 0 && port != 80 && port != 443) {
    text += ':';
    text += std::to_string(port);
  }
  return text;
}

std::string RequestSigner::StringToSign(std::string_view method, std::string_view host,
                                        std::string_view url, std::string_view body,
                                        std::string_view secret) {
  std::string upper(method);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  std::string text;
  text.reserve(upper.size() + host.size() + url.size() + body.size() + secret.size() * 2 + 8);
  text += upper;
  text += '\n';
  text += host;
  text += '\n';
  text += url;
  text += '\n';
  text += body;
  text += '\n';
  text += Base64(secret);
  return text;
}

std::string RequestSigner::HmacHex(std::string_view secret, std::string_view text) {
  const std::string_view key = UpToFirstZero(secret);
  const std::string_view message = UpToFirstZero(text);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  // An empty key still needs a valid pointer for OpenSSL.
  static const unsigned char kEmpty = 0;
  HMAC(EVP_sha256(), key.empty() ? &kEmpty : reinterpret_cast<const unsigned char*>(key.data()),
       static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(message.data()),
       message.size(), digest, &length);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0x0f];
  }
  return hex;
}

bool RequestSigner::IsWellFormedSignature(std::string_view text) {
  if (text.size() != 64) return false;
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

bool RequestSigner::ConstantTimeEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  if (a.empty()) return true;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace zolvani::refserver
