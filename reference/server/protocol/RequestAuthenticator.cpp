#include "reference/server/protocol/RequestAuthenticator.h"

#include <algorithm>
#include <vector>

#include "reference/server/protocol/RequestSigner.h"

namespace zolvani::refserver {

bool RequestAuthenticator::ParseHeader(const nlohmann::json& body, RequestHeader* header,
                                       std::string* problem) {
  auto it = body.find("request_header");
  if (it == body.end() || !it->is_object()) {
    *problem = "\"request_header\" must be an object";
    return false;
  }
  const auto& h = *it;
  auto text = [&](const char* key, std::string* out) {
    auto m = h.find(key);
    if (m == h.end() || !m->is_string() || m->get_ref<const std::string&>().empty()) {
      *problem = std::string("\"request_header\".\"") + key + "\" must be a non-empty string";
      return false;
    }
    *out = m->get<std::string>();
    return true;
  };
  if (!text("device_id", &header->deviceId) || !text("user_id", &header->userId)) return false;
  auto key = h.find("key");
  if (key == h.end() || !key->is_string()) {
    *problem = "\"request_header\".\"key\" must be a string";
    return false;
  }
  header->key = key->get<std::string>();
  auto ts = h.find("timestamp");
  if (ts == h.end() || !ts->is_number_integer()) {
    *problem = "\"request_header\".\"timestamp\" must be an integer";
    return false;
  }
  if (ts->is_number_unsigned() && ts->get<uint64_t>() > uint64_t{INT32_MAX}) {
    // Devices send a signed 32-bit value; a larger one can only be stale.
    header->timestamp = INT64_MAX;
  } else {
    header->timestamp = ts->get<int64_t>();
  }
  return true;
}

RequestAuthenticator::Verdict RequestAuthenticator::Check(const AuthenticationInput& input,
                                                          int64_t nowSeconds) {
  Account account;
  Status s = store_->FindAccount(input.header.userId, &account);
  if (s.IsNotFound()) return Verdict::kUnknownAccount;
  if (s.IsUnavailable()) return Verdict::kStoreUnavailable;
  if (!s.ok()) return Verdict::kStoreFailure;
  if (!RequestSigner::ConstantTimeEquals(RequestSigner::Base64(account.publicKey),
                                         input.header.key)) {
    return Verdict::kWrongKey;
  }
  const int64_t ts = input.header.timestamp;
  if (ts == INT64_MAX || ts < nowSeconds - window_ || ts > nowSeconds + window_) {
    return Verdict::kStale;
  }
  if (!RequestSigner::IsWellFormedSignature(input.signature)) return Verdict::kBadSignature;

  // The device signed the URL it was configured with. The Host header tells the
  // host and a non-default port; a configured default port may or may not have been
  // written in the URL, and a proxy in front may have ended TLS, so each of those
  // spellings is tried.
  const std::string& host = input.host;
  std::vector<std::string> urls = {"http://" + host + input.target,
                                   "https://" + host + input.target};
  const size_t bracket = host.rfind(']');
  const size_t colon = host.rfind(':');
  const bool hasPort =
      colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  if (!hasPort) {
    for (const char* prefix : {"http://", "https://"}) {
      for (const char* port : {":80", ":443"}) {
        urls.push_back(prefix + host + port + input.target);
      }
    }
  }
  bool matched = false;
  for (const auto& url : urls) {
    const std::string expected = RequestSigner::Sign("POST", host, url, input.body, account.secret);
    // Every candidate is computed and compared, so timing says nothing about which.
    matched = RequestSigner::ConstantTimeEquals(expected, input.signature) || matched;
  }
  if (!matched) return Verdict::kBadSignature;
  return Verdict::kAccepted;
}

SignatureClaim RequestAuthenticator::ClaimFor(const AuthenticationInput& input,
                                              int64_t nowSeconds) const {
  SignatureClaim claim;
  claim.signature = input.signature;
  claim.keepUntilS = std::max(input.header.timestamp, nowSeconds) + window_;
  claim.nowS = nowSeconds;
  return claim;
}

const char* RequestAuthenticator::Describe(Verdict verdict) {
  switch (verdict) {
    case Verdict::kAccepted:
      return "accepted";
    case Verdict::kUnknownAccount:
      return "unknown account";
    case Verdict::kWrongKey:
      return "key does not match the account";
    case Verdict::kStale:
      return "timestamp outside the freshness window";
    case Verdict::kBadSignature:
      return "bad signature";
    case Verdict::kReplayed:
      return "signature already used";
    case Verdict::kStoreFailure:
      return "store failure";
    case Verdict::kStoreUnavailable:
      return "store unavailable";
  }
  return "refused";
}

}  // namespace zolvani::refserver
