#include "server/ReplyJudge.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "server/DepthLimitedJson.h"

namespace zolvani {

ReplyJudge::ReplyJudge(LogFunction log, StatusFunction reportStatus)
    : log_(std::move(log)), reportStatus_(std::move(reportStatus)) {}

template <class... Args>
void ReplyJudge::log(std::string_view pattern, std::int64_t level, const Args&... args) const {
  if (pattern.empty() || !log_) return;
  log_(fmt::format(fmt::runtime(pattern), args...), level);
}

Error ReplyJudge::error(std::int64_t code, std::string description) {
  return Error::make(std::string(kSubscriptionManagerErrorDomain), code, std::move(description));
}

nlohmann::json ReplyJudge::parse(const std::optional<std::string>& body, std::size_t maxNesting,
                                 std::vector<std::string>* prunedPlaces) {
  if (!body || body->empty()) return nullptr;
  DepthLimitedJson parsed = DepthLimitedJson::parse(*body, maxNesting);
  if (prunedPlaces) *prunedPlaces = std::move(parsed.places);
  return std::move(parsed.value);
}

namespace {

const nlohmann::json* responseHeader(const nlohmann::json& reply) {
  if (!reply.is_object()) return nullptr;
  auto it = reply.find("response_header");
  return it != reply.end() && it->is_object() ? &*it : nullptr;
}

}  // namespace

std::int32_t ReplyJudge::responseCode(const nlohmann::json& reply) {
  const nlohmann::json* header = responseHeader(reply);
  if (!header) return 0;
  auto it = header->find("response_code");
  if (it == header->end()) return 0;
  // Read as the platform's intValue would: a wider integer keeps its low 32
  // bits, a float truncates toward zero (saturating at the limits), numeric
  // text reads as its number, a boolean as 0 or 1; anything else reads as 0.
  if (it->is_number_unsigned())
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(it->get<std::uint64_t>()));
  if (it->is_number_integer())
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(it->get<std::int64_t>()));
  if (it->is_number_float()) {
    const double value = it->get<double>();
    if (std::isnan(value)) return 0;
    if (value >= static_cast<double>(std::numeric_limits<std::int32_t>::max()))
      return std::numeric_limits<std::int32_t>::max();
    if (value <= static_cast<double>(std::numeric_limits<std::int32_t>::min()))
      return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(value);
  }
  if (it->is_boolean()) return it->get<bool>() ? 1 : 0;
  if (it->is_string()) {
    // Text saturates at the 32-bit limits, as the platform's text intValue does.
    const std::int64_t value = Value(it->get<std::string>()).int64Value();
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(
        value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
  }
  return 0;
}

std::string ReplyJudge::responseString(const nlohmann::json& reply) {
  const nlohmann::json* header = responseHeader(reply);
  if (!header) return std::string();
  auto it = header->find("response_string");
  if (it == header->end() || it->is_null()) return std::string();
  if (it->is_string()) return it->get<std::string>();
  return it->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<Value::Array> ReplyJudge::subscriptions(const nlohmann::json& reply) {
  if (!reply.is_object()) return std::nullopt;
  auto it = reply.find("subscriptions");
  if (it == reply.end() || !it->is_array()) return std::nullopt;
  Value list = Value::fromJson(*it);
  if (const Value::Array* array = list.asArray()) return *array;
  return std::nullopt;
}

ReplyVerdict ReplyJudge::judge(const HttpReply& reply, ReplyRules rules,
                               const EndpointTexts& texts) const {
  ReplyVerdict verdict;
  if (reply.error) {
    log(texts.transportError, 0, reply.error->describe());
    reportStatus_(3);
    verdict.error = reply.error;  // the transport's own error, unchanged
    return verdict;
  }
  if (!reply.response) {
    log(texts.nilResponse, 0);
    reportStatus_(3);
    verdict.error = error(kErrorServer, std::string(kNilResponseText));
    return verdict;
  }
  const long status = reply.response->statusCode;
  if (status != 200) {
    // The body of a refused request is never read.
    log(texts.unexpectedStatus, 0, status);
    reportStatus_(3);
    if (status == 403)
      verdict.error = error(kErrorAuthenticationFailed, std::string(kAuthenticationFailedText));
    else if (status == 404)
      verdict.error = error(kErrorEndpointNotFound, std::string(kEndpointNotFoundText));
    else
      verdict.error = error(kErrorServer, std::string(kUnknownServerErrorText));
    return verdict;
  }

  verdict.body =
      parse(reply.body, rules == ReplyRules::kCatalog ? kMaxCatalogNesting : kMaxReplyNesting,
            &verdict.prunedPlaces);
  const std::int32_t code = responseCode(verdict.body);
  const std::string text = code != 0 ? responseString(verdict.body) : std::string();
  switch (rules) {
    case ReplyRules::kValidate:
      if (code != 0) reportStatus_(3);
      break;
    case ReplyRules::kEndpoint:
      reportStatus_(2);
      if (code != 0) log(texts.serverError, 0, text, code);
      break;
    case ReplyRules::kCatalog:
      if (code != 0) {
        log(texts.serverError, 0, text, code);
        reportStatus_(2);
      }
      break;
  }
  if (code != 0) {
    verdict.error = error(code, text);
    return verdict;
  }
  log(texts.success, 4);
  return verdict;
}

}  // namespace zolvani
