#include "server/RequestSigner.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <memory>

#include <fmt/format.h>

#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

std::string_view upToFirstZero(std::string_view text) {
  return text.substr(0, std::min(text.find('\0'), text.size()));
}

std::optional<std::string> urlPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK || text == nullptr) return std::nullopt;
  std::string out(text);
  curl_free(text);
  return out;
}

}  // namespace

RequestSigner::RequestSigner(std::function<std::string()> secret, std::function<bool()> verbose,
                             LogFunction log)
    : secret_(std::move(secret)), verbose_(std::move(verbose)), log_(std::move(log)) {}

std::optional<UrlParts> RequestSigner::parseUrl(std::string_view url) {
  // The signature covers the URL text as configured, so only text that goes
  // over the wire byte for byte is a URL: raw non-ASCII, spaces and control
  // characters would be percent-encoded on the way out and no longer match.
  if (url.empty() || std::any_of(url.begin(), url.end(), [](char c) {
        const auto b = static_cast<unsigned char>(c);
        return b <= 0x20 || b >= 0x7f;
      }))
    return std::nullopt;
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
  if (!handle) return std::nullopt;
  const std::string text(url);
  if (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(),
                   CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS) != CURLUE_OK)
    return std::nullopt;
  UrlParts parts;
  parts.host = urlPart(handle.get(), CURLUPART_HOST).value_or("");
  if (auto port = urlPart(handle.get(), CURLUPART_PORT)) {
    int value = 0;
    auto [end, ec] = std::from_chars(port->data(), port->data() + port->size(), value);
    if (ec == std::errc() && end == port->data() + port->size()) parts.port = value;
  }
  return parts;
}

std::string RequestSigner::hostHeader(const UrlParts& parts) {
  if (parts.port == 80 || parts.port == 443 || parts.port == 0) return parts.host;
  return fmt::format("{}:{}", parts.host, parts.port);
}

std::string RequestSigner::stringToSign(std::string_view method, std::string_view host,
                                        std::string_view url, std::string_view body,
                                        std::string_view secretBase64) {
  std::string out;
  out.reserve(method.size() + host.size() + url.size() + body.size() + secretBase64.size() + 4);
  out.append(method).append("\n").append(host).append("\n").append(url).append("\n");
  out.append(body).append("\n").append(secretBase64);
  return out;
}

std::string RequestSigner::hmacSha256Hex(std::string_view key, std::string_view message) {
  key = upToFirstZero(key);
  message = upToFirstZero(message);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  // An empty key still has to be a valid pointer for OpenSSL.
  static const unsigned char kNoKey = 0;
  const void* keyBytes = key.empty() ? static_cast<const void*>(&kNoKey) : key.data();
  if (!HMAC(EVP_sha256(), keyBytes, static_cast<int>(key.size()),
            reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest,
            &length))
    return std::string();
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex(static_cast<std::size_t>(length) * 2, '0');
  for (unsigned int i = 0; i < length; ++i) {
    hex[2 * i] = kHex[digest[i] >> 4];
    hex[2 * i + 1] = kHex[digest[i] & 0x0f];
  }
  return hex;
}

void RequestSigner::sign(HttpRequest& request) const {
  const std::optional<UrlParts> parts = parseUrl(request.url);
  const std::string host = parts ? hostHeader(*parts) : std::string();
  request.addHeader("Host", host);

  std::string method = request.method;
  std::transform(method.begin(), method.end(), method.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  const std::string secret = secret_ ? secret_() : std::string();
  const std::string toSign = stringToSign(method, host, parts ? request.url : std::string(),
                                          request.body, zsm_base64Encoding(secret));
  const std::string signature = hmacSha256Hex(secret, toSign);

  request.url = parts ? request.url + "?sig=" + signature : std::string();
  if (verbose_ && verbose_() && log_)
    log_(fmt::format("Using final request URL for catalog request: {}", request.url), 4);
}

}  // namespace zolvani
