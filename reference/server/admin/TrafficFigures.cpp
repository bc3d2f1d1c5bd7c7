#include "reference/server/admin/TrafficFigures.h"

namespace zolvani::refserver {

std::string_view TrafficFigures::Bucket(std::string_view endpoint) {
  static constexpr std::string_view kKnown[] = {
      "validate", "subscribe", "unsubscribe", "subscriptions", "addItemAndNotifyDevice",
      "catalog",  "media",     "console"};
  for (std::string_view name : kKnown) {
    if (endpoint == name) return name;
  }
  return "other";
}

void TrafficFigures::Record(std::string_view endpoint, int httpStatus, int responseCode,
                            int64_t nowMs) {
  const std::string_view name = Bucket(endpoint);
  const bool error = httpStatus >= 400 || responseCode != 0;
  const bool signature = httpStatus == 403 && name != "media" && name != "console";
  const int64_t minute = nowMs / 60000;
  std::lock_guard lock(mutex_);
  if (sinceMs_ < 0) sinceMs_ = nowMs;
  auto total = totals_.find(name);
  if (total == totals_.end()) total = totals_.emplace(std::string(name), Counts{}).first;
  total->second.requests++;
  total->second.errors += error;
  total->second.signatureRefusals += signature;
  Minute& slot = minutes_[static_cast<size_t>(minute % kMinutes)];
  if (slot.minute != minute) slot = Minute{minute, {}, 0, 0};
  auto count = slot.requests.find(name);
  if (count == slot.requests.end()) count = slot.requests.emplace(std::string(name), 0).first;
  count->second++;
  slot.errors += error;
  slot.signatureRefusals += signature;
}

nlohmann::json TrafficFigures::Snapshot(int64_t nowMs) {
  const int64_t current = nowMs / 60000;
  std::lock_guard lock(mutex_);
  nlohmann::json totals = nlohmann::json::object();
  for (const auto& [name, c] : totals_) {
    totals[name] = {{"requests", c.requests},
                    {"errors", c.errors},
                    {"signature_refusals", c.signatureRefusals}};
  }
  nlohmann::json minutes = nlohmann::json::array();
  for (int64_t m = current - kMinutes + 1; m <= current; ++m) {
    const Minute& slot = minutes_[static_cast<size_t>(((m % kMinutes) + kMinutes) % kMinutes)];
    nlohmann::json entry = {{"minute_ms", m * 60000},
                            {"requests", nlohmann::json::object()},
                            {"errors", 0},
                            {"signature_refusals", 0}};
    if (slot.minute == m) {
      for (const auto& [name, n] : slot.requests) entry["requests"][name] = n;
      entry["errors"] = slot.errors;
      entry["signature_refusals"] = slot.signatureRefusals;
    }
    minutes.push_back(std::move(entry));
  }
  return {{"since_ms", sinceMs_ < 0 ? nowMs : sinceMs_},
          {"now_ms", nowMs},
          {"totals", std::move(totals)},
          {"minutes", std::move(minutes)}};
}

}  // namespace zolvani::refserver
