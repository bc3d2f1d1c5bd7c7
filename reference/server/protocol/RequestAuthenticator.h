// RequestAuthenticator: decides whether a protocol request comes from the account it
// names: the account must exist, the Base64 "key" must be its public key, the
// timestamp must be within the freshness window of the server's clock, the
// signature must be the one the account's secret gives, and, for a request that
// changes state, the signature must not have been accepted before.
//
// Thread-safe: the store and the replay guard serialise their own state.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "reference/server/protocol/ReplayGuard.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

// The identifying object every request body carries.
struct RequestHeader {
  std::string deviceId;
  std::string userId;
  int64_t timestamp = 0;
  std::string key;  // Base64 of the account's public key
};

struct AuthenticationInput {
  std::string host;       // the Host header as received
  std::string target;     // request target before "?sig=" (path as sent, undecoded)
  std::string signature;  // the text after "?sig="
  std::string body;       // the body exactly as received
  RequestHeader header;
};

class RequestAuthenticator {
 public:
  enum class Verdict {
    kAccepted,
    kUnknownAccount,
    kWrongKey,
    kStale,
    kBadSignature,
    kReplayed,
    kStoreFailure,
    kStoreUnavailable  // the store is busy or out of reach for now
  };

  // The protocol carries no nonce: byte-identical requests of one device within one
  // second have the same signature and cannot be told apart. A request that changes
  // state is refused when its signature was accepted before; a read-only one is
  // not (repeating it changes nothing, and a host may ask twice in one second).
  enum class Replays { kRefuse, kAllow };

  RequestAuthenticator(Store* store, int64_t windowSeconds)
      : store_(store), window_(windowSeconds), replays_(windowSeconds) {}

  // Parses "request_header"; on failure returns false and says why in `problem`.
  static bool ParseHeader(const nlohmann::json& body, RequestHeader* header, std::string* problem);

  // `nowSeconds` is the server's clock.
  Verdict Check(const AuthenticationInput& input, int64_t nowSeconds, Replays replays);

  static const char* Describe(Verdict verdict);

 private:
  Store* store_;
  const int64_t window_;
  ReplayGuard replays_;
};

}  // namespace zolvani::refserver
