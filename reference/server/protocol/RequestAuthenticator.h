// RequestAuthenticator: decides whether a protocol request comes from the account it
// names: the account must exist, the Base64 "key" must be its public key, the
// timestamp must be within the freshness window of the server's clock, and the
// signature must be the one the account's secret gives. Whether a request that
// changes state was accepted before is decided by the store, in the change's own
// transaction (see SignatureClaim in store/Store.h); ClaimFor says for how long.
//
// Thread-safe: holds no state of its own besides the store.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

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

  RequestAuthenticator(Store* store, int64_t windowSeconds)
      : store_(store), window_(windowSeconds) {}

  // Parses "request_header"; on failure returns false and says why in `problem`.
  static bool ParseHeader(const nlohmann::json& body, RequestHeader* header, std::string* problem);

  // `nowSeconds` is the server's clock. Never answers kReplayed: see ClaimFor.
  Verdict Check(const AuthenticationInput& input, int64_t nowSeconds);

  // The protocol carries no nonce: byte-identical requests of one device within one
  // second have the same signature and cannot be told apart. A request that changes
  // state is refused when its signature was accepted before; a read-only one is not
  // (repeating it changes nothing, and a host may ask twice in one second). The
  // claim an accepted change hands to the store keeps its signature taken for as
  // long as the request would pass the freshness check, and never less than a full
  // window from now, in case the clock steps backwards.
  SignatureClaim ClaimFor(const AuthenticationInput& input, int64_t nowSeconds) const;

  static const char* Describe(Verdict verdict);

 private:
  Store* store_;
  const int64_t window_;
};

}  // namespace zolvani::refserver
