#include "reference/server/protocol/ProtocolHandler.h"

#include <spdlog/spdlog.h>

#include <array>
#include <optional>

#include "reference/server/protocol/CatalogBuilder.h"
#include "reference/server/protocol/JsonLimits.h"
#include "reference/server/protocol/RequestSigner.h"

namespace zolvani::refserver {

namespace {

using json = nlohmann::json;

json Header(int code, const std::string& text) {
  return {{"response_code", code}, {"response_string", text}};
}

ProtocolReply Ok(json body = json::object()) {
  body["response_header"] = Header(kResponseOk, "OK");
  return {200, std::move(body)};
}

ProtocolReply Refuse(int code, const std::string& text) {
  return {200, {{"response_header", Header(code, text)}}};
}

ProtocolReply Forbidden(const std::string& why) {
  return {403, {{"response_header", Header(403, "Forbidden: " + why)}}};
}

ProtocolReply InternalError(const Status& s) {
  if (s.IsUnavailable()) {
    // The database is busy or out of reach: a device retries later, as it does
    // for a server that is overloaded.
    spdlog::warn("store unavailable: {}", s.message());
    return {503, {{"response_header", Header(503, "Service unavailable")}}};
  }
  spdlog::error("store failure: {}", s.ToString());
  return {500, {{"response_header", Header(500, "Internal server error")}}};
}

// A feed refusal as the store reports it.
ProtocolReply FromFeedStatus(const Status& s, const std::string& feed) {
  if (s.IsNotFound()) return Refuse(kResponseUnknownFeed, "Unknown feed: " + feed);
  if (s.IsFailedPrecondition()) {
    return Refuse(kResponseFeedNotSubscribable, "Feed is not subscribable: " + feed);
  }
  return InternalError(s);
}

// Longest "uuid" an announced item may have.
constexpr size_t kMaxUuidBytes = 256;

// Reads a required non-empty string member; fills `reply` when it is absent or bad.
bool RequireString(const json& object, const char* key, std::string* value, ProtocolReply* reply) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string() || it->get_ref<const std::string&>().empty()) {
    *reply =
        Refuse(kResponseInvalidMember, std::string("\"") + key + "\" must be a non-empty string");
    return false;
  }
  *value = it->get<std::string>();
  return true;
}

// Reads an optional string member; fills `reply` when it has another type.
bool OptionalString(const json& object, const char* key, std::string* value, ProtocolReply* reply) {
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return true;
  if (!it->is_string()) {
    *reply = Refuse(kResponseInvalidMember, std::string("\"") + key + "\" must be a string");
    return false;
  }
  *value = it->get<std::string>();
  return true;
}

// Reads "push_registration" into `registration` when present; fills `reply` when it
// is malformed.
bool ParsePushRegistration(const json& body, int64_t nowMs,
                           std::optional<PushRegistration>* registration, ProtocolReply* reply) {
  auto it = body.find("push_registration");
  if (it == body.end() || it->is_null()) return true;
  PushRegistration given;
  given.updatedMs = nowMs;
  if (!it->is_object() || !RequireString(*it, "service", &given.service, reply) ||
      !RequireString(*it, "token", &given.token, reply)) {
    *reply =
        Refuse(kResponseInvalidMember,
               "\"push_registration\" must be an object with string \"service\" and \"token\"");
    return false;
  }
  *registration = std::move(given);
  return true;
}

// The answer to a change the store refused because its signature was used before.
ProtocolReply Replayed(const std::string& endpoint, const RequestHeader& header) {
  const char* why = RequestAuthenticator::Describe(RequestAuthenticator::Verdict::kReplayed);
  spdlog::info("refused {} from {}/{}: {}", endpoint, header.userId, header.deviceId, why);
  return Forbidden(why);
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

bool ProtocolHandler::IsReadOnly(const std::string& name) {
  return name == "validate" || name == "subscriptions" || name == "catalog";
}

bool ProtocolHandler::IsEndpoint(const std::string& name) {
  static const std::array<std::string, 6> kNames = {
      "validate", "subscribe", "unsubscribe", "subscriptions", "addItemAndNotifyDevice", "catalog"};
  for (const auto& n : kNames) {
    if (n == name) return true;
  }
  return false;
}

ProtocolReply ProtocolHandler::Handle(const ProtocolRequest& request) {
  // The signature is the text after the last "?sig="; what precedes it is what was
  // signed.
  const size_t mark = request.target.rfind("?sig=");
  if (mark == std::string::npos) return Forbidden("missing signature");
  AuthenticationInput input;
  input.target = request.target.substr(0, mark);
  input.signature = request.target.substr(mark + 5);
  input.host = request.host;
  input.body = request.body;
  if (input.host.empty()) return Forbidden("missing Host header");
  if (!RequestSigner::IsWellFormedSignature(input.signature)) return Forbidden("bad signature");

  // Measured before parsing: copying or serialising deeper JSON would recurse once
  // per level on this thread's stack.
  if (JsonLimits::TextNestsDeeperThan(request.body, JsonLimits::kMaxRequestNesting)) {
    return Refuse(kResponseMalformedRequest, "Malformed request: the body nests deeper than " +
                                                 std::to_string(JsonLimits::kMaxRequestNesting) +
                                                 " levels");
  }
  json body = json::parse(request.body, nullptr, false);
  if (body.is_discarded() || !body.is_object()) {
    return Refuse(kResponseMalformedRequest, "Malformed request: the body is not a JSON object");
  }
  std::string problem;
  if (!RequestAuthenticator::ParseHeader(body, &input.header, &problem)) {
    return Refuse(kResponseMalformedRequest, "Malformed request: " + problem);
  }
  const int64_t nowMs = clockMs_();
  const auto verdict = auth_.Check(input, nowMs / 1000);
  if (verdict == RequestAuthenticator::Verdict::kStoreFailure) {
    return InternalError(Status::IOError("account lookup"));
  }
  if (verdict == RequestAuthenticator::Verdict::kStoreUnavailable) {
    return InternalError(Status::Unavailable("account lookup"));
  }
  if (verdict != RequestAuthenticator::Verdict::kAccepted) {
    spdlog::info("refused {} from {}/{}: {}", request.endpoint, input.header.userId,
                 input.header.deviceId, RequestAuthenticator::Describe(verdict));
    return Forbidden(RequestAuthenticator::Describe(verdict));
  }
  Status s = TouchDevice(input.header, nowMs);
  if (!s.ok()) return InternalError(s);
  ProtocolReply reply =
      Dispatch(request, body, input.header, nowMs, auth_.ClaimFor(input, nowMs / 1000));
  spdlog::debug("{} from {}/{}: HTTP {} code {}", request.endpoint, input.header.userId,
                input.header.deviceId, reply.httpStatus,
                reply.body["response_header"].value("response_code", 0));
  return reply;
}

Status ProtocolHandler::TouchDevice(const RequestHeader& header, int64_t nowMs) {
  constexpr int64_t kRecordEveryMs = 60 * 1000;
  const std::string id = header.userId + "\n" + header.deviceId;
  {
    std::lock_guard lock(seenMutex_);
    auto [it, inserted] = lastSeenMs_.try_emplace(id, nowMs);
    if (!inserted) {
      if (nowMs - it->second < kRecordEveryMs && nowMs >= it->second) return Status::OK();
      it->second = nowMs;
    }
  }
  return store_->TouchDevice(header.userId, header.deviceId, nowMs);
}

ProtocolReply ProtocolHandler::Dispatch(const ProtocolRequest& request, const json& body,
                                        const RequestHeader& header, int64_t nowMs,
                                        const SignatureClaim& claim) {
  const std::string& e = request.endpoint;
  if (e == "validate") return Validate(body, header, nowMs);
  if (e == "subscribe") return Subscribe(body, header, nowMs, claim);
  if (e == "unsubscribe") return Unsubscribe(body, header, claim);
  if (e == "subscriptions") return ListSubscriptions(header);
  if (e == "addItemAndNotifyDevice") return AddItem(body, header, nowMs, claim);
  if (e == "catalog") return Catalog(body, header, request.serverUrl, nowMs);
  return {404, {{"response_header", Header(404, "Unknown endpoint")}}};
}

ProtocolReply ProtocolHandler::Validate(const json& body, const RequestHeader& header,
                                        int64_t nowMs) {
  ProtocolReply reply;
  std::optional<PushRegistration> registration;
  if (!ParsePushRegistration(body, nowMs, &registration, &reply)) return reply;
  if (registration) {
    Status s = store_->SetPushRegistration(header.userId, header.deviceId, registration->service,
                                           registration->token, nowMs);
    if (!s.ok()) return InternalError(s);
  }
  return Ok();
}

ProtocolReply ProtocolHandler::Subscribe(const json& body, const RequestHeader& header,
                                         int64_t nowMs, const SignatureClaim& claim) {
  ProtocolReply reply;
  std::string feed;
  if (!RequireString(body, "feed", &feed, &reply)) return reply;
  std::optional<PushRegistration> registration;
  if (!ParsePushRegistration(body, nowMs, &registration, &reply)) return reply;
  // The registration is recorded in the subscribe's own transaction, so that a
  // replayed or refused subscribe leaves the device's token as it was.
  Status s = store_->Subscribe(header.userId, header.deviceId, feed, &claim,
                               registration ? &*registration : nullptr);
  if (s.IsReplayed()) return Replayed("subscribe", header);
  if (!s.ok()) return FromFeedStatus(s, feed);
  return Ok();
}

ProtocolReply ProtocolHandler::Unsubscribe(const json& body, const RequestHeader& header,
                                           const SignatureClaim& claim) {
  ProtocolReply reply;
  std::string feed;
  if (!RequireString(body, "feed", &feed, &reply)) return reply;
  Status s = store_->Unsubscribe(header.userId, header.deviceId, feed, &claim);
  if (s.IsReplayed()) return Replayed("unsubscribe", header);
  if (!s.ok()) return FromFeedStatus(s, feed);
  return Ok();
}

ProtocolReply ProtocolHandler::ListSubscriptions(const RequestHeader& header) {
  std::vector<std::string> feeds;
  Status s = store_->Subscriptions(header.userId, header.deviceId, &feeds);
  if (!s.ok()) return InternalError(s);
  return Ok({{"subscriptions", feeds}});
}

ProtocolReply ProtocolHandler::AddItem(const json& body, const RequestHeader& header, int64_t nowMs,
                                       const SignatureClaim& claim) {
  auto it = body.find("body");
  if (it == body.end() || !it->is_object()) {
    return Refuse(kResponseInvalidMember, "\"body\" must be an object");
  }
  const json& given = *it;
  ProtocolReply reply;
  Item item;
  std::string title;
  std::string desc;
  std::string downloadUrl;
  std::string streamUrl;
  if (!RequireString(given, "uuid", &item.uuid, &reply) ||
      !OptionalString(given, "title", &title, &reply) ||
      !OptionalString(given, "desc", &desc, &reply) ||
      !OptionalString(given, "downloadURL", &downloadUrl, &reply) ||
      !OptionalString(given, "streamURL", &streamUrl, &reply) ||
      !OptionalString(given, "feed", &item.feed, &reply)) {
    return reply;
  }
  if (item.uuid.size() > kMaxUuidBytes) {
    return Refuse(kResponseInvalidMember,
                  "\"uuid\" must be at most " + std::to_string(kMaxUuidBytes) + " bytes");
  }
  if (downloadUrl.empty()) downloadUrl = streamUrl;
  if (downloadUrl.empty()) {
    return Refuse(kResponseInvalidMember, "the item needs a \"downloadURL\" or \"streamURL\"");
  }
  // "contentType" names the media type when it is one of the protocol's numbers;
  // otherwise the URL decides between an HLS manifest and a plain file.
  int mediaType = EndsWith(downloadUrl, ".m3u8") ? 3 : 0;
  if (auto type = given.find("contentType"); type != given.end() && type->is_number_integer()) {
    if (type->is_number_unsigned() ? type->get<uint64_t>() > 5
                                   : (type->get<int64_t>() < 0 || type->get<int64_t>() > 5)) {
      return Refuse(kResponseInvalidMember, "\"contentType\" must be a media type from 0 to 5");
    }
    mediaType = type->get<int>();
  }
  item.metadata = {
      {"title", title}, {"desc", desc}, {"downloadURL", downloadUrl}, {"mediaType", mediaType}};
  // The extra members are stored as given and served in catalogs, so they are held
  // to what a device reads (the body as a whole is shallow already).
  for (const char* extra : {"contentSize", "contentSizeIsEstimate", "duration", "downloadEnabled",
                            "streamURL", "contentType"}) {
    if (auto m = given.find(extra); m != given.end()) item.metadata[extra] = *m;
  }
  if (Status limits = JsonLimits::CheckItemMetadata(item.metadata); !limits.ok()) {
    return Refuse(kResponseInvalidMember, "the item is refused: " + limits.message());
  }
  // An item that names no feed is a direct item for every device of the sending
  // account; one that names a feed joins it, when the sender publishes that feed,
  // and is announced to its subscribers.
  if (item.feed.empty()) item.user = header.userId;
  item.createdMs = nowMs;
  std::vector<PushNotice> notices;
  Status s = store_->PublishItem(item, header.userId, nowMs, &notices, &claim);
  if (s.IsReplayed()) return Replayed("addItemAndNotifyDevice", header);
  if (!s.ok()) {
    ProtocolReply refusal;
    if (s.IsNotFound()) {
      refusal = Refuse(kResponseUnknownFeed, "Unknown feed: " + item.feed);
    } else if (s.IsFailedPrecondition()) {
      refusal = Refuse(kResponseFeedNotSubscribable, "Feed is not subscribable: " + item.feed);
    } else if (s.IsPermissionDenied()) {
      refusal = Refuse(kResponseNotPublisher, "Not a publisher of feed: " + item.feed);
    } else if (s.IsAlreadyExists()) {
      refusal = Refuse(kResponseDuplicateItem, "Item already exists: " + item.uuid);
    } else if (s.IsInvalidArgument()) {
      refusal = Refuse(kResponseInvalidMember, "the item is refused: " + s.message());
    } else {
      return InternalError(s);
    }
    spdlog::warn("refused addItemAndNotifyDevice from {}/{}: item {}: {}", header.userId,
                 header.deviceId, item.uuid, s.message());
    return refusal;
  }
  spdlog::info("added item {} ({}) from {}/{}, {} push notice(s)", item.uuid,
               item.feed.empty() ? "direct for " + item.user : "feed " + item.feed, header.userId,
               header.deviceId, notices.size());
  return Ok({{"notified_devices", notices.size()}});
}

ProtocolReply ProtocolHandler::Catalog(const json& body, const RequestHeader& header,
                                       const std::string& serverUrl, int64_t nowMs) {
  std::optional<int64_t> since;
  bool subscribedOnly = true;
  if (auto f = body.find("filter"); f != body.end() && !f->is_null()) {
    if (!f->is_object()) return Refuse(kResponseInvalidMember, "\"filter\" must be an object");
    if (auto s = f->find("since"); s != f->end() && !s->is_null()) {
      if (!s->is_number_integer() ||
          (s->is_number_unsigned() && s->get<uint64_t>() > uint64_t{INT64_MAX})) {
        return Refuse(kResponseInvalidMember,
                      "\"filter\".\"since\" must be an integer number of milliseconds");
      }
      since = s->get<int64_t>();
    }
    if (auto s = f->find("subscribed"); s != f->end() && !s->is_null()) {
      if (!s->is_boolean()) {
        return Refuse(kResponseInvalidMember, "\"filter\".\"subscribed\" must be a boolean");
      }
      subscribedOnly = s->get<bool>();
    }
  }
  CatalogSnapshot snapshot;
  Status s = store_->ReadCatalog(header.userId, header.deviceId, since, subscribedOnly, &snapshot);
  if (!s.ok()) return InternalError(s);
  return Ok(CatalogBuilder(serverUrl).Build(snapshot, nowMs));
}

}  // namespace zolvani::refserver
