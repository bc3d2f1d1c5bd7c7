// ReplayGuard: remembers the signatures of accepted requests for as long as their
// timestamps could still pass the freshness check, so that a captured request
// cannot be sent a second time.
//
// Thread-safe: one mutex guards the table; every call is short.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

namespace zolvani::refserver {

class ReplayGuard {
 public:
  // `windowSeconds` is the largest distance between a request's timestamp and the
  // server's clock that the freshness check lets through.
  explicit ReplayGuard(int64_t windowSeconds) : window_(windowSeconds) {}

  ReplayGuard(const ReplayGuard&) = delete;
  ReplayGuard& operator=(const ReplayGuard&) = delete;

  // Records `signature` for a request stamped `timestamp` and returns true, or
  // returns false when the signature was already recorded and has not expired.
  // `now` is the server's clock in seconds.
  bool Admit(const std::string& signature, int64_t timestamp, int64_t now);

  // Number of signatures currently remembered.
  size_t size() const;

 private:
  void SweepLocked(int64_t now);

  const int64_t window_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, int64_t> expiry_;  // signature -> last second it is kept
  int64_t nextSweep_ = 0;
};

}  // namespace zolvani::refserver
