#include "server/ServerClient.h"

#include <cmath>
#include <exception>
#include <limits>

#include <fmt/format.h>

#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/TextUtilities.h"

namespace zolvani {
namespace {

// Whole seconds, truncated toward zero and held to the 32-bit range; a clock
// that reports nonsense (NaN) reads as 0 rather than as undefined behaviour.
std::int32_t timestampSeconds(double seconds) {
  if (std::isnan(seconds)) return 0;
  if (seconds >= static_cast<double>(std::numeric_limits<std::int32_t>::max()))
    return std::numeric_limits<std::int32_t>::max();
  if (seconds <= static_cast<double>(std::numeric_limits<std::int32_t>::min()))
    return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(seconds);
}

}  // namespace

bool ServerClient::Join::wait() {
  done_.acquire();
  return !abandoned_.load();
}

ServerClient::ServerClient(Dependencies dependencies)
    : deps_(std::move(dependencies)),
      signer_([engine = deps_.engine.downloadEngine] { return engine->secret(); },
              [defaults = deps_.userDefaults] {
                return defaults->boolForKey(kVerboseKeelhallLoggingKey);
              },
              deps_.log),
      judge_(deps_.log, deps_.reportStatus) {}

ServerClient::~ServerClient() {
  // Let every join that still waits go, so the processing queue can wind down.
  std::lock_guard lock(joinsMutex_);
  for (auto& weak : joins_) {
    if (auto join = weak.lock()) {
      join->abandoned_.store(true);
      join->release();
    }
  }
}

std::shared_ptr<ServerClient::Join> ServerClient::makeJoin() {
  auto join = std::make_shared<Join>();
  std::lock_guard lock(joinsMutex_);
  std::erase_if(joins_, [](const std::weak_ptr<Join>& weak) { return weak.expired(); });
  joins_.push_back(join);
  return join;
}

bool ServerClient::verboseLogging() const {
  return deps_.userDefaults->boolForKey(kVerboseKeelhallLoggingKey);
}

std::optional<std::string> ServerClient::urlForEndpoint(std::string_view endpoint) const {
  std::string text = fmt::format("{}{}/client/{}", deps_.engine.downloadEngine->keelhallURL(),
                                 kSubscriptionContext, endpoint);
  if (!RequestSigner::parseUrl(text)) return std::nullopt;
  return text;
}

std::optional<nlohmann::json> ServerClient::requestHeader() const {
  // A stored override that is not text (or is empty) counts as absent.
  std::string deviceId;
  if (auto stored = deps_.userDefaults->objectForKey(kEngineManualDeviceUDIDKey))
    deviceId = stored->stringValue();
  if (deviceId.empty()) deviceId = deps_.engine.uuid->UUID();
  if (deviceId.empty()) return std::nullopt;
  std::string user = deps_.engine.downloadEngine->user();
  if (user.empty()) return std::nullopt;

  nlohmann::json header = nlohmann::json::object();
  header["device_id"] = std::move(deviceId);
  header["user_id"] = std::move(user);
  header["timestamp"] = timestampSeconds(deps_.engine.secureClock->date().secondsSince1970);
  header["key"] = zsm_base64Encoding(deps_.engine.downloadEngine->key());
  return header;
}

void ServerClient::signRequest(HttpRequest& request) const { signer_.sign(request); }

HttpRequest ServerClient::makeRequest(std::string_view endpoint, std::string bodyText) const {
  HttpRequest request;
  request.url = urlForEndpoint(endpoint).value_or(std::string());
  request.method = "POST";
  request.addHeader("Content-Type", "application/json");
  request.body = std::move(bodyText);
  signRequest(request);
  return request;
}

std::string ServerClient::serialize(const nlohmann::json& body) {
  return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<nlohmann::json> ServerClient::pushTokenJson(const Value& token) {
  if (const std::string* text = token.asString()) {
    if (text->empty()) return std::nullopt;
    return nlohmann::json(*text);
  }
  if (const Bytes* bytes = token.asBytes()) {
    if (bytes->data.empty()) return std::nullopt;
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes->data.size() * 2);
    for (unsigned char c : bytes->data) {
      hex.push_back(kHex[c >> 4]);
      hex.push_back(kHex[c & 0x0f]);
    }
    return nlohmann::json(std::move(hex));
  }
  return std::nullopt;
}

bool ServerClient::send(std::string_view endpoint, nlohmann::json members,
                        std::function<void(HttpReply)> onMainQueue, SendHooks hooks) {
  std::optional<nlohmann::json> header = requestHeader();
  if (!header) return false;
  nlohmann::json body = nlohmann::json::object();
  body["request_header"] = std::move(*header);
  if (members.is_object())
    for (auto& [name, value] : members.items()) body[name] = std::move(value);
  if (hooks.beforeSend) hooks.beforeSend(body);
  HttpRequest request = makeRequest(endpoint, serialize(body));

  std::shared_ptr<DispatchQueue> queue = deps_.processingQueue ? deps_.processingQueue() : nullptr;
  auto task = [http = deps_.http, mainQueue = deps_.mainQueue, request = std::move(request),
               onProcessingQueue = std::move(hooks.onProcessingQueue),
               onMainQueue = std::move(onMainQueue)]() mutable {
    HttpReply reply;
    try {
      reply = http->send(request);
    } catch (const std::exception& e) {
      // A transport that throws still yields a reply, never an escaped exception.
      reply = HttpReply{};
      reply.error = Error::make("ZolvaniTransport", -1, e.what());
    }
    if (onProcessingQueue) onProcessingQueue(reply);
    mainQueue->async([onMainQueue = std::move(onMainQueue), reply = std::move(reply)]() mutable {
      if (onMainQueue) onMainQueue(std::move(reply));
    });
  };
  if (queue)
    queue->async(std::move(task));
  else
    task();
  return true;
}

}  // namespace zolvani
