// LoadClient: simulated devices for the scale-out test and benchmark. A device
// keeps one HTTP connection to a server (or a balancer) and signs each request the
// way the protocol says, with its own clock; a request can be kept and sent again
// byte for byte (a replay).
//
// A DeviceClient belongs to one thread. LatencyLog is thread-safe.
#pragma once

#include <httplib.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zolvani::refserver::testing {

struct LoadReply {
  int status = 0;  // 0: no reply (the connection failed or was closed)
  nlohmann::json body;
  double ms = 0;           // round trip
  std::string retryAfter;  // the Retry-After header, when sent
  int code() const;        // "response_header"."response_code", -999 when absent
  bool ok() const { return status == 200 && code() == 0; }
};

// One request exactly as it goes on the wire.
struct SignedPost {
  std::string target;  // path and "?sig="
  std::string body;
};

class DeviceClient {
 public:
  DeviceClient(std::string host, int port, std::string user, std::string device, std::string key,
               std::string secret);

  // Signs `members` (plus "request_header", timestamp now) for `endpoint`.
  SignedPost Prepare(const std::string& endpoint, nlohmann::json members) const;
  LoadReply Send(const SignedPost& post);
  LoadReply Call(const std::string& endpoint, nlohmann::json members = nlohmann::json::object()) {
    return Send(Prepare(endpoint, std::move(members)));
  }

  const std::string& device() const { return device_; }
  const std::string& user() const { return user_; }

 private:
  std::string host_;
  int port_;
  std::string user_, device_, key_, secret_;
  std::unique_ptr<httplib::Client> client_;
};

// Latencies of many threads, for percentiles.
class LatencyLog {
 public:
  void Add(double ms, bool ok);
  size_t ok();
  size_t errors();
  // p in [0, 100], over successful requests.
  double Percentile(double p);

 private:
  std::mutex mutex_;
  std::vector<double> ms_;
  size_t errors_ = 0;
};

}  // namespace zolvani::refserver::testing
