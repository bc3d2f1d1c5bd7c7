// TrafficFigures: counts of what the server answered, for the console's dashboard:
// requests per minute by endpoint, errors (HTTP status 400 and above, or a protocol
// refusal with a non-zero response code) and signature refusals (HTTP 403 from the
// protocol endpoints).
//
// Every server on one store adds its counts to the store (Flush, every few seconds
// from a thread of its own once StartFlushing is called), under its node name, so
// that the dashboard of any of them shows the sum over all and the split by node
// (SharedSnapshot). Snapshot shows this process alone, since it started.
//
// Endpoints are counted under a fixed set of names (the protocol's endpoints,
// "media", "console" and "other"), so hostile paths cannot grow the tables.
//
// Thread-safe; Record() takes one short lock and never touches the store.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <nlohmann/json.hpp>

#include "reference/server/Status.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

class TrafficFigures {
 public:
  static constexpr int kMinutes = 60;
  // Minutes the store keeps; SharedSnapshot's totals cover them.
  static constexpr int64_t kKeptMinutes = 24 * 60;

  explicit TrafficFigures(std::string node = "") : node_(std::move(node)) {}
  ~TrafficFigures() { StopFlushing(); }
  TrafficFigures(const TrafficFigures&) = delete;
  TrafficFigures& operator=(const TrafficFigures&) = delete;

  const std::string& node() const { return node_; }

  // `responseCode` is the protocol's "response_code" when the reply carried one.
  void Record(std::string_view endpoint, int httpStatus, int responseCode, int64_t nowMs);

  // This process's figures:
  // {"since_ms", "now_ms", "totals": {endpoint: {requests, errors, signature_refusals}},
  //  "minutes": [{"minute_ms", "requests": {endpoint: n}, "errors", "signature_refusals"}]}
  // with one entry per minute of the last kMinutes, oldest first, empty ones included.
  nlohmann::json Snapshot(int64_t nowMs);

  // Adds the counts recorded since the last flush to `store` under this node's
  // name. When the store fails they are kept for the next flush (those older than
  // kKeptMinutes are dropped), so a passing fault loses nothing.
  Status Flush(Store* store, int64_t nowMs);

  // Every node's figures from `store`, in Snapshot's form, with the totals over
  // the minutes the store keeps ("since_ms" is the first of them) and besides
  // "nodes": {node: {requests, errors, signature_refusals, last_hour_requests,
  // last_minute_ms}}.
  static Status SharedSnapshot(Store* store, int64_t nowMs, nlohmann::json* figures);

  // Flushes to `store` every `every` from a thread of its own until StopFlushing,
  // which flushes once more. Failures are logged and retried at the next turn.
  void StartFlushing(Store* store, std::chrono::milliseconds every,
                     std::function<int64_t()> clockMs);
  void StopFlushing();

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

  const std::string node_;
  std::mutex mutex_;
  int64_t sinceMs_ = -1;
  std::map<std::string, Counts, std::less<>> totals_;
  std::array<Minute, kMinutes> minutes_;
  // Not yet in the store: (minute, endpoint) -> counts.
  std::map<std::pair<int64_t, std::string>, Counts> pending_;

  std::mutex flushMutex_;  // one flush at a time, so kept counts return in order

  std::mutex threadMutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread flusher_;
};

}  // namespace zolvani::refserver
