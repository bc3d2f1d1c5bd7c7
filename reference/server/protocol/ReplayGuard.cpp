#include "reference/server/protocol/ReplayGuard.h"

#include <algorithm>

namespace zolvani::refserver {

bool ReplayGuard::Admit(const std::string& signature, int64_t timestamp, int64_t now) {
  std::lock_guard lock(mutex_);
  if (now >= nextSweep_) SweepLocked(now);
  // A request stamped `timestamp` stays fresh until timestamp + window by the
  // server's clock; keep its signature at least that long, and never less than a
  // full window from now, in case the clock steps backwards.
  const int64_t keepUntil = std::max(timestamp + window_, now + window_);
  auto [it, inserted] = expiry_.try_emplace(signature, keepUntil);
  if (inserted) return true;
  if (it->second < now) {  // expired entry not yet swept
    it->second = keepUntil;
    return true;
  }
  return false;
}

size_t ReplayGuard::size() const {
  std::lock_guard lock(mutex_);
  return expiry_.size();
}

void ReplayGuard::SweepLocked(int64_t now) {
  std::erase_if(expiry_, [now](const auto& entry) { return entry.second < now; });
  nextSweep_ = now + 10;
}

}  // namespace zolvani::refserver
