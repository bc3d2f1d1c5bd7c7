#include "zolvani/subscription/platform/CurlHttpTransport.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>

#include <fmt/format.h>

namespace zolvani {
namespace {

std::once_flag curlInitOnce;

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

std::size_t collectHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* headers = static_cast<std::vector<std::pair<std::string, std::string>>*>(user);
  std::string_view line(data, size * count);
  auto colon = line.find(':');
  if (colon != std::string_view::npos) {
    auto trim = [](std::string_view s) {
      while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
      while (!s.empty() && (s.back() == '\r' || s.back() == '\n' || s.back() == ' '))
        s.remove_suffix(1);
      return std::string(s);
    };
    headers->emplace_back(trim(line.substr(0, colon)), trim(line.substr(colon + 1)));
  } else if (line.starts_with("HTTP/")) {
    headers->clear();  // a new response (after a 100 Continue) starts afresh
  }
  return size * count;
}

}  // namespace

CurlHttpTransport::CurlHttpTransport() : CurlHttpTransport(Options{}) {}

CurlHttpTransport::CurlHttpTransport(Options options) : options_(options) {
  std::call_once(curlInitOnce, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

HttpReply CurlHttpTransport::send(const HttpRequest& request) {
  HttpReply reply;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), &curl_easy_cleanup);
  if (!curl) {
    reply.error = Error::make(std::string(kCurlErrorDomain), CURLE_FAILED_INIT,
                              curl_easy_strerror(CURLE_FAILED_INIT));
    return reply;
  }
  struct curl_slist* headerList = nullptr;
  for (const auto& [name, value] : request.headers)
    headerList = curl_slist_append(headerList, fmt::format("{}: {}", name, value).c_str());
  // libcurl would add "Expect: 100-continue" to large bodies; the server
  // protocol has no use for it.
  headerList = curl_slist_append(headerList, "Expect:");
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(headerList,
                                                                      &curl_slist_free_all);

  std::string body;
  HttpResponse response;
  // A request is sent byte for byte as it was signed, or not at all: text that
  // libcurl would have to percent-encode (raw non-ASCII, spaces, control
  // characters) is refused here, before any connection is made.
  if (std::any_of(request.url.begin(), request.url.end(), [](char c) {
        const auto b = static_cast<unsigned char>(c);
        return b <= 0x20 || b >= 0x7f;
      })) {
    reply.error = Error::make(std::string(kCurlErrorDomain), CURLE_URL_MALFORMAT,
                              curl_easy_strerror(CURLE_URL_MALFORMAT));
    return reply;
  }
  char errorText[CURL_ERROR_SIZE] = {0};
  CURL* h = curl.get();
  curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
  // Dot segments ("/a/../b") stay in the path: the signature covers them.
  curl_easy_setopt(h, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  if (request.method == "POST" || !request.body.empty()) {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  const std::chrono::milliseconds timeout = options_.timeout.value_or(request.timeout);
  // libcurl reads 0 as "no time-out"; a request never waits for good.
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS,
                   static_cast<long>(std::max<std::int64_t>(timeout.count(), 1)));
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &collectBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &collectHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &response.headers);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);

  CURLcode rc = curl_easy_perform(h);
  if (rc != CURLE_OK) {
    std::string message = errorText[0] ? errorText : curl_easy_strerror(rc);
    reply.error = Error::make(std::string(kCurlErrorDomain), rc, message);
    return reply;
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.statusCode);
  reply.response = std::move(response);
  reply.body = std::move(body);
  return reply;
}

}  // namespace zolvani
