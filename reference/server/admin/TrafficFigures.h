// TrafficFigures: live counts of what the server answered, for the console's
// dashboard: requests per minute by endpoint over the last hour, errors (HTTP
// status 400 and above, or a protocol refusal with a non-zero response code) and
// signature refusals (HTTP 403 from the protocol endpoints), with totals since
// the server started.
//
// Endpoints are counted under a fixed set of names (the protocol's endpoints,
// "media", "console" and "other"), so hostile paths cannot grow the tables.
//
// Thread-safe; Record() takes one short lock.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace zolvani::refserver {

class TrafficFigures {
 public:
  static constexpr int kMinutes = 60;

  // `responseCode` is the protocol's "response_code" when the reply carried one.
  void Record(std::string_view endpoint, int httpStatus, int responseCode, int64_t nowMs);

  // {"since_ms", "now_ms", "totals": {endpoint: {requests, errors, signature_refusals}},
  //  "minutes": [{"minute_ms", "requests": {endpoint: n}, "errors", "signature_refusals"}]}
  // with one entry per minute of the last kMinutes, oldest first, empty ones included.
  nlohmann::json Snapshot(int64_t nowMs);

  static std::string_view Bucket(std::string_view endpoint);

 private:
  struct Counts {
    int64_t requests = 0;
    int64_t errors = 0;
    int64_t signatureRefusals = 0;
  };
  struct Minute {
    int64_t minute = -1;  // minutes since 1970; -1 unused
    std::map<std::string, int64_t, std::less<>> requests;
    int64_t errors = 0;
    int64_t signatureRefusals = 0;
  };

  std::mutex mutex_;
  int64_t sinceMs_ = -1;
  std::map<std::string, Counts, std::less<>> totals_;
  std::array<Minute, kMinutes> minutes_;
};

}  // namespace zolvani::refserver
