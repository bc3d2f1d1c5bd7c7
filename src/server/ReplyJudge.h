// ReplyJudge: turns the (transport error, HTTP response, body) triple of a
// server request into success with the parsed reply, or an error, and makes
// the status reports and log lines that go with each outcome.
//
// Every endpoint is judged by the same rules; what differs is data: the texts
// it logs (EndpointTexts, one constant per endpoint below) and which of three
// rule sets applies (ReplyRules). A new endpoint (the catalog, for one) brings
// its own EndpointTexts and picks its rule set; it writes no judging of its own.
//
// Reading the reply is lenient, because the server's JSON is not trusted:
// a body that is not JSON, or lacks "response_header", reads as code 0; a
// "response_code" that is a float truncates toward zero, a numeric string reads
// as its number, any other type reads as 0; the code is then narrowed to a
// signed 32-bit integer. A container nested deeper than kMaxReplyNesting
// (kMaxCatalogNesting for the catalog) is left out of the parsed reply, so
// that no later reader recurses itself to death on it, while the rest of the
// reply reads as usual (see DepthLimitedJson). Nothing in here throws.
//
// Thread-safety: immutable after construction; judge() may run on any thread
// (the library calls it on the main queue, where its status reports belong).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/Value.h"
#include "zolvani/subscription/platform/HttpTransport.h"

namespace zolvani {

// The domain of every error the library makes itself.
inline constexpr std::string_view kSubscriptionManagerErrorDomain = "ZolvaniSubscriptionManager";

// Error codes of the library's own errors (a server's non-zero code is used as
// it comes).
enum SubscriptionErrorCode : std::int64_t {
  kErrorAuthenticationFailed = -1,  // HTTP 403
  kErrorEndpointNotFound = -2,      // HTTP 404
  kErrorServer = -3,                // other statuses, no response, no request header
  kErrorEngineNotStarted = -4,      // catalog before the engine started
  kErrorOffline = -5,               // no network when the operation was asked for
};

inline constexpr std::string_view kAuthenticationFailedText =
    "Failed to authenticate with server using provided credentials.";
inline constexpr std::string_view kEndpointNotFoundText =
    "Server endpoint not found at the provided URL.";
inline constexpr std::string_view kUnknownServerErrorText = "Unknown internal server error.";
inline constexpr std::string_view kNilResponseText =
    "Unknown server errors.  Received nil HTTP response.";

// What an endpoint logs. Each is an fmt pattern; an empty one is not logged.
struct EndpointTexts {
  std::string_view transportError;    // {} = the transport error; level 0
  std::string_view nilResponse;       // level 0
  std::string_view serverError;       // {} = the server's text, {} = its code; level 0
  std::string_view success;           // level 4
  std::string_view unexpectedStatus;  // {} = the HTTP status; level 0
};

inline constexpr EndpointTexts kSubscribeTexts{
    "Received error from network request: {}", "Response from server was nil",
    "Server responsed with an internal server error: {} ({})", "Subscription successful.",
    "Received unexpected response code from server: {}"};
inline constexpr EndpointTexts kUnsubscribeTexts{
    "Received an error from the network request: {}", "Response from server was nil",
    "Received an internal error from the server: {} ({})", "Unregister successful",
    "Received an unexpected response code from the server: {}"};
inline constexpr EndpointTexts kSubscriptionsTexts{
    "Received error from network request: {}", "Response from server was nil",
    "Received an internal error report from the server: {}({})", "Subscription lookup successful",
    "Received an unexpected status code from the server: {}"};
inline constexpr EndpointTexts kPushUpdateTexts{
    "Received error from network request: {}", "Response from server was nil",
    "Received an internal error report from the server: {}({})", "Push request was successful",
    "Received an unexpected status code from the server: {}"};
// Validation logs nothing of its own.
inline constexpr EndpointTexts kValidateTexts{};

enum class ReplyRules {
  // Validation: a server code other than 0 reports kZSM_Errors; success
  // reports nothing.
  kValidate,
  // Subscribe, unsubscribe, lookup, push update: every HTTP 200 reports
  // kZSM_Receiving as soon as the header is read, whatever its code.
  kEndpoint,
  // Catalog: a server code other than 0 is logged, then reports kZSM_Receiving;
  // success reports nothing here (the sync reports when it finishes).
  kCatalog,
};

struct ReplyVerdict {
  std::optional<Error> error;  // set on failure
  nlohmann::json body;         // the parsed reply; null when it was not JSON
  // Where members nested too deep were left out of `body` (JSON pointers,
  // cut short; see DepthLimitedJson).
  std::vector<std::string> prunedPlaces;
  bool ok() const { return !error.has_value(); }
};

class ReplyJudge {
 public:
  using LogFunction = std::function<void(const std::string&, std::int64_t)>;
  using StatusFunction = std::function<void(std::int64_t)>;

  ReplyJudge(LogFunction log, StatusFunction reportStatus);

  ReplyVerdict judge(const HttpReply& reply, ReplyRules rules, const EndpointTexts& texts) const;

  // An error of the library's own domain.
  static Error error(std::int64_t code, std::string description);

  static constexpr std::size_t kMaxReplyNesting = 128;
  // A catalog carries feeds, items and their metadata: more room than a reply.
  static constexpr std::size_t kMaxCatalogNesting = 512;

  // Lenient readings of a parsed reply (see the file comment).
  static nlohmann::json parse(const std::optional<std::string>& body,
                              std::size_t maxNesting = kMaxReplyNesting,
                              std::vector<std::string>* prunedPlaces = nullptr);
  static std::int32_t responseCode(const nlohmann::json& reply);
  static std::string responseString(const nlohmann::json& reply);
  // The reply's "subscriptions" when it is an array; none otherwise.
  static std::optional<Value::Array> subscriptions(const nlohmann::json& reply);

 private:
  template <class... Args>
  void log(std::string_view pattern, std::int64_t level, const Args&... args) const;

  LogFunction log_;
  StatusFunction reportStatus_;
};

}  // namespace zolvani
