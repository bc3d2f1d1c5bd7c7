#include "reference/server/admin/TrafficFigures.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <vector>

namespace zolvani::refserver {

namespace {

constexpr int64_t kMinuteMs = 60000;

// One entry per minute of the `count` minutes up to `current`, oldest first.
nlohmann::json EmptyMinutes(int64_t current, int count) {
  nlohmann::json minutes = nlohmann::json::array();
  for (int64_t m = current - count + 1; m <= current; ++m) {
    minutes.push_back({{"minute_ms", m * kMinuteMs},
                       {"requests", nlohmann::json::object()},
                       {"errors", 0},
                       {"signature_refusals", 0}});
  }
  return minutes;
}

// Adds `n` to the number `object`[`key`], which may be missing (and `object` null).
void Add(nlohmann::json& object, const std::string& key, int64_t n) {
  object[key] = (object.contains(key) ? object[key].get<int64_t>() : 0) + n;
}

}  // namespace

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
  const int64_t minute = nowMs / kMinuteMs;
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
  Counts& unsent = pending_[{minute, std::string(name)}];
  unsent.requests++;
  unsent.errors += error;
  unsent.signatureRefusals += signature;
}

nlohmann::json TrafficFigures::Snapshot(int64_t nowMs) {
  const int64_t current = nowMs / kMinuteMs;
  std::lock_guard lock(mutex_);
  nlohmann::json totals = nlohmann::json::object();
  for (const auto& [name, c] : totals_) {
    totals[name] = {{"requests", c.requests},
                    {"errors", c.errors},
                    {"signature_refusals", c.signatureRefusals}};
  }
  nlohmann::json minutes = EmptyMinutes(current, kMinutes);
  for (auto& entry : minutes) {
    const int64_t m = entry["minute_ms"].get<int64_t>() / kMinuteMs;
    const Minute& slot = minutes_[static_cast<size_t>(((m % kMinutes) + kMinutes) % kMinutes)];
    if (slot.minute != m) continue;
    for (const auto& [name, n] : slot.requests) entry["requests"][name] = n;
    entry["errors"] = slot.errors;
    entry["signature_refusals"] = slot.signatureRefusals;
  }
  return {{"since_ms", sinceMs_ < 0 ? nowMs : sinceMs_},
          {"now_ms", nowMs},
          {"totals", std::move(totals)},
          {"minutes", std::move(minutes)}};
}

Status TrafficFigures::Flush(Store* store, int64_t nowMs) {
  std::lock_guard flushing(flushMutex_);
  std::map<std::pair<int64_t, std::string>, Counts> taken;
  {
    std::lock_guard lock(mutex_);
    taken.swap(pending_);
  }
  if (taken.empty()) return Status::OK();
  const int64_t forgetBefore = nowMs / kMinuteMs - kKeptMinutes;
  std::vector<TrafficCount> counts;
  counts.reserve(taken.size());
  for (const auto& [key, c] : taken) {
    if (key.first < forgetBefore) continue;
    counts.push_back({key.first, node_, key.second, c.requests, c.errors, c.signatureRefusals});
  }
  Status s = store->AddTraffic(counts, forgetBefore);
  if (s.ok()) return s;
  // Nothing was added (one transaction): keep the counts for the next flush.
  std::lock_guard lock(mutex_);
  for (const auto& [key, c] : taken) {
    if (key.first < forgetBefore) continue;
    Counts& unsent = pending_[key];
    unsent.requests += c.requests;
    unsent.errors += c.errors;
    unsent.signatureRefusals += c.signatureRefusals;
  }
  return s;
}

Status TrafficFigures::SharedSnapshot(Store* store, int64_t nowMs, nlohmann::json* figures) {
  const int64_t current = nowMs / kMinuteMs;
  const int64_t firstShown = current - kMinutes + 1;
  std::vector<TrafficCount> perMinute;
  std::vector<TrafficCount> sums;
  Status s = store->ReadTraffic(firstShown, true, &perMinute);
  if (s.ok()) s = store->ReadTraffic(current - kKeptMinutes, false, &sums);
  if (!s.ok()) return s;

  int64_t since = current;
  nlohmann::json totals = nlohmann::json::object();
  nlohmann::json nodes = nlohmann::json::object();
  for (const auto& c : sums) {
    since = std::min(since, c.minute);
    for (auto* object : {&totals[c.endpoint], &nodes[c.node]}) {
      Add(*object, "requests", c.requests);
      Add(*object, "errors", c.errors);
      Add(*object, "signature_refusals", c.signatureRefusals);
    }
    Add(nodes[c.node], "last_hour_requests", 0);
    Add(nodes[c.node], "last_minute_ms", 0);
  }
  nlohmann::json minutes = EmptyMinutes(current, kMinutes);
  for (const auto& c : perMinute) {
    if (c.minute < firstShown || c.minute > current) continue;  // a node's clock runs ahead
    auto& entry = minutes[static_cast<size_t>(c.minute - firstShown)];
    Add(entry["requests"], c.endpoint, c.requests);
    Add(entry, "errors", c.errors);
    Add(entry, "signature_refusals", c.signatureRefusals);
    auto& n = nodes[c.node];
    Add(n, "last_hour_requests", c.requests);
    n["last_minute_ms"] = std::max(n.value("last_minute_ms", int64_t{0}), c.minute * kMinuteMs);
  }
  *figures = {{"since_ms", since * kMinuteMs},
              {"now_ms", nowMs},
              {"totals", std::move(totals)},
              {"minutes", std::move(minutes)},
              {"nodes", std::move(nodes)}};
  return Status::OK();
}

void TrafficFigures::StartFlushing(Store* store, std::chrono::milliseconds every,
                                   std::function<int64_t()> clockMs) {
  std::lock_guard lock(threadMutex_);
  if (flusher_.joinable()) return;
  stopping_ = false;
  flusher_ = std::thread([this, store, every, clockMs = std::move(clockMs)] {
    std::unique_lock lock(threadMutex_);
    bool failing = false;
    while (true) {
      const bool stop = wake_.wait_for(lock, every, [this] { return stopping_; });
      lock.unlock();
      const Status s = Flush(store, clockMs());
      // One line when the store starts failing and one when it recovers, not one
      // per turn.
      if (!s.ok() && !failing) spdlog::warn("figures kept for later: {}", s.ToString());
      if (s.ok() && failing) spdlog::info("figures written again");
      failing = !s.ok();
      lock.lock();
      if (stop) return;
    }
  });
}

void TrafficFigures::StopFlushing() {
  std::thread flusher;
  {
    std::lock_guard lock(threadMutex_);
    stopping_ = true;
    flusher.swap(flusher_);
  }
  wake_.notify_all();
  if (flusher.joinable()) flusher.join();
}

}  // namespace zolvani::refserver
