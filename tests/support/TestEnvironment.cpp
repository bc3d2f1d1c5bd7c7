#include "support/TestEnvironment.h"

#include <algorithm>
#include <thread>

namespace zolvani::testing {

HttpReply FakeHttpTransport::send(const HttpRequest& request) {
  std::function<HttpReply(const HttpRequest&)> fallback;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    if (!replies_.empty()) {
      HttpReply r = std::move(replies_.front());
      replies_.pop_front();
      return r;
    }
    fallback = fallback_;
  }
  if (fallback) return fallback(request);
  return status(500);
}

void FakeHttpTransport::enqueue(HttpReply reply) {
  std::lock_guard lock(mutex_);
  replies_.push_back(std::move(reply));
}

void FakeHttpTransport::setFallback(std::function<HttpReply(const HttpRequest&)> fallback) {
  std::lock_guard lock(mutex_);
  fallback_ = std::move(fallback);
}

std::vector<HttpRequest> FakeHttpTransport::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

HttpReply FakeHttpTransport::ok(std::string body) { return status(200, std::move(body)); }

HttpReply FakeHttpTransport::status(long code, std::string body) {
  HttpReply r;
  r.response = HttpResponse{code, {}};
  r.body = std::move(body);
  return r;
}

std::int64_t FakeApplication::applicationState() {
  std::lock_guard lock(mutex_);
  return state_;
}

BackgroundTaskIdentifier FakeApplication::beginBackgroundTask(std::string name,
                                                              std::function<void()> expiry) {
  std::lock_guard lock(mutex_);
  ++begun_;
  open_.push_back({next_, std::move(name), std::move(expiry)});
  return next_++;
}

void FakeApplication::endBackgroundTask(BackgroundTaskIdentifier task) {
  std::lock_guard lock(mutex_);
  auto it = std::find_if(open_.begin(), open_.end(), [&](const Open& o) { return o.id == task; });
  if (it == open_.end()) return;
  open_.erase(it);
  ++ended_;
}

void FakeApplication::setState(std::int64_t state) {
  std::lock_guard lock(mutex_);
  state_ = state;
}

std::vector<std::string> FakeApplication::openTasks() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& o : open_) out.push_back(o.name);
  return out;
}

int FakeApplication::begun() const {
  std::lock_guard lock(mutex_);
  return begun_;
}

int FakeApplication::ended() const {
  std::lock_guard lock(mutex_);
  return ended_;
}

void FakeApplication::expireAll() {
  std::vector<std::function<void()>> handlers;
  {
    std::lock_guard lock(mutex_);
    for (const auto& o : open_) handlers.push_back(o.expiry);
  }
  for (auto& h : handlers)
    if (h) h();
}

NotificationRecorder::NotificationRecorder(NotificationCenter& center,
                                           std::vector<std::string_view> names) {
  for (auto name : names) {
    center.addObserver(std::string(name), nullptr, [this](const Notification& n) {
      std::lock_guard lock(mutex_);
      seen_.push_back(n);
    });
  }
}

std::vector<Notification> NotificationRecorder::all() const {
  std::lock_guard lock(mutex_);
  return seen_;
}

std::vector<Notification> NotificationRecorder::named(std::string_view name) const {
  std::lock_guard lock(mutex_);
  std::vector<Notification> out;
  for (const auto& n : seen_)
    if (n.name == name) out.push_back(n);
  return out;
}

TestBed::TestBed() { createManager(); }

TestBed::TestBed(std::function<void(TestBed&)> beforeCreate) {
  if (beforeCreate) beforeCreate(*this);
  createManager();
}

TestBed::~TestBed() {
  if (manager) settle(std::chrono::milliseconds(2000));
  mainQueue->poll();
  engine->dropCallbacks();
}

Platform TestBed::platform() {
  Platform p;
  p.mainQueue = mainQueue;
  p.notificationCenter = center;
  p.userDefaults = defaults;
  p.http = transport ? transport : std::shared_ptr<HttpTransport>(http);
  p.application = application;
  p.uuidString = newUUIDString;
  p.systemLog = [this](const std::string& line) { systemLog.push_back(line); };
  return p;
}

void TestBed::createManager() {
  manager = ZolvaniSubscriptionManager::create(ManagerEnvironment{engine->roles(), platform()});
}

bool TestBed::settle(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int quietRounds = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    std::size_t ran = mainQueue->poll();
    bool idle = manager->processingQueue()->waitUntilIdle(std::chrono::milliseconds(20));
    ran += mainQueue->poll();
    if (ran == 0 && idle) {
      if (++quietRounds >= 3) return true;
    } else {
      quietRounds = 0;
    }
  }
  return false;
}

}  // namespace zolvani::testing
