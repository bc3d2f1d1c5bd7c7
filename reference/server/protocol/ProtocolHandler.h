// ProtocolHandler: answers the protocol's POST endpoints ("validate", "subscribe",
// "unsubscribe", "subscriptions", "addItemAndNotifyDevice", "catalog") independently
// of the HTTP library: it authenticates the request, carries out the endpoint and
// says which HTTP status and JSON body to send.
//
// Thread-safe: handles any number of requests at once.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "reference/server/protocol/RequestAuthenticator.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

// Non-zero "response_code" values of refusals made with HTTP 200.
enum ResponseCode : int {
  kResponseOk = 0,
  kResponseMalformedRequest = 1,  // body not a JSON object, or a bad "request_header"
  kResponseUnknownFeed = 2,
  kResponseFeedNotSubscribable = 3,
  kResponseInvalidMember = 4,  // an endpoint member is missing or of the wrong type
  kResponseDuplicateItem = 5,
  kResponseNotPublisher = 6,  // the sender's account may not publish into the feed
};

struct ProtocolRequest {
  std::string endpoint;  // last path segment
  std::string host;      // Host header as received
  std::string target;    // raw request target, "?sig=..." included
  std::string body;
  std::string serverUrl;  // "http://host:port" devices use to reach media
};

struct ProtocolReply {
  int httpStatus = 200;
  nlohmann::json body;
};

class ProtocolHandler {
 public:
  ProtocolHandler(Store* store, int64_t windowSeconds, std::function<int64_t()> clockMs)
      : store_(store), auth_(store, windowSeconds), clockMs_(std::move(clockMs)) {}

  static bool IsEndpoint(const std::string& name);
  // "validate", "subscriptions" and "catalog": repeating one changes nothing, so a
  // byte-identical repeat is not refused as a replay.
  static bool IsReadOnly(const std::string& name);

  ProtocolReply Handle(const ProtocolRequest& request);

 private:
  // `claim` is the signature a change admits in its own transaction (see
  // SignatureClaim); read-only endpoints ignore it.
  ProtocolReply Dispatch(const ProtocolRequest& request, const nlohmann::json& body,
                         const RequestHeader& header, int64_t nowMs, const SignatureClaim& claim);
  ProtocolReply Validate(const nlohmann::json& body, const RequestHeader& header, int64_t nowMs);
  ProtocolReply Subscribe(const nlohmann::json& body, const RequestHeader& header, int64_t nowMs,
                          const SignatureClaim& claim);
  ProtocolReply Unsubscribe(const nlohmann::json& body, const RequestHeader& header,
                            const SignatureClaim& claim);
  ProtocolReply ListSubscriptions(const RequestHeader& header);
  ProtocolReply AddItem(const nlohmann::json& body, const RequestHeader& header, int64_t nowMs,
                        const SignatureClaim& claim);
  ProtocolReply Catalog(const nlohmann::json& body, const RequestHeader& header,
                        const std::string& serverUrl, int64_t nowMs);

  // Records the device as seen, at most once a minute per device, so that a busy
  // device does not turn every read into a write.
  Status TouchDevice(const RequestHeader& header, int64_t nowMs);

  Store* store_;
  RequestAuthenticator auth_;
  std::function<int64_t()> clockMs_;
  std::mutex seenMutex_;
  std::unordered_map<std::string, int64_t> lastSeenMs_;  // "user\ndevice" -> last recorded
};

}  // namespace zolvani::refserver
