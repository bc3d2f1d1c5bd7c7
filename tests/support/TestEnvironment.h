// Test support: a fake platform and a bed that builds a fresh manager over the
// in-memory engine for one test.
//
// Thread-safety: the fakes are safe from any thread; a TestBed belongs to one
// test and its main queue is pumped by the test's thread.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/InMemoryEngine.h"
#include "zolvani/subscription/ZolvaniSubscriptionManager.h"
#include "zolvani/subscription/platform/FileUserDefaults.h"

namespace zolvani::testing {

// An HTTP transport whose replies a test scripts; records every request.
class FakeHttpTransport final : public HttpTransport {
 public:
  HttpReply send(const HttpRequest& request) override;
  // Replies are used in order; when none is left, `fallback` answers.
  void enqueue(HttpReply reply);
  void setFallback(std::function<HttpReply(const HttpRequest&)> fallback);
  std::vector<HttpRequest> requests() const;
  static HttpReply ok(std::string body);
  static HttpReply status(long code, std::string body = "");

 private:
  mutable std::mutex mutex_;
  std::deque<HttpReply> replies_;
  std::function<HttpReply(const HttpRequest&)> fallback_;
  std::vector<HttpRequest> requests_;
};

// An application whose state a test sets and whose background tasks it sees.
class FakeApplication final : public Application {
 public:
  std::int64_t applicationState() override;
  BackgroundTaskIdentifier beginBackgroundTask(std::string name,
                                               std::function<void()> expiry) override;
  void endBackgroundTask(BackgroundTaskIdentifier task) override;

  void setState(std::int64_t state);
  // Names of tasks begun and not yet ended.
  std::vector<std::string> openTasks() const;
  int begun() const;
  int ended() const;
  // Runs the expiry handlers of every open task.
  void expireAll();

 private:
  struct Open {
    BackgroundTaskIdentifier id;
    std::string name;
    std::function<void()> expiry;
  };
  mutable std::mutex mutex_;
  std::int64_t state_ = 0;
  BackgroundTaskIdentifier next_ = 1;
  std::vector<Open> open_;
  int begun_ = 0, ended_ = 0;
};

// Collects notifications posted under some names, in order.
class NotificationRecorder {
 public:
  NotificationRecorder(NotificationCenter& center, std::vector<std::string_view> names);
  std::vector<Notification> all() const;
  std::vector<Notification> named(std::string_view name) const;
  std::size_t count(std::string_view name) const { return named(name).size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<Notification> seen_;
};

struct TestBed {
  TestBed();
  explicit TestBed(std::function<void(TestBed&)> beforeCreate);
  // Lets queued work finish: tasks waiting on the main queue hold the manager,
  // and a bed torn down with them would leak it.
  ~TestBed();
  TestBed(const TestBed&) = delete;
  TestBed& operator=(const TestBed&) = delete;

  std::shared_ptr<InMemoryEngine> engine = InMemoryEngine::create();
  std::shared_ptr<MainQueue> mainQueue = std::make_shared<MainQueue>("main");
  std::shared_ptr<NotificationCenter> center = std::make_shared<NotificationCenter>();
  std::shared_ptr<FileUserDefaults> defaults = std::make_shared<FileUserDefaults>();
  std::shared_ptr<FakeHttpTransport> http = std::make_shared<FakeHttpTransport>();
  // When set (before the manager is made), the platform's transport instead of
  // `http`; protocol tests put a real CurlHttpTransport here.
  std::shared_ptr<HttpTransport> transport;
  std::shared_ptr<FakeApplication> application = std::make_shared<FakeApplication>();
  std::vector<std::string> systemLog;
  std::shared_ptr<ZolvaniSubscriptionManager> manager;

  Platform platform();
  // Creates the manager (done by the constructors).
  void createManager();
  // Pumps the main queue and waits for the processing queue until both are
  // quiet, or `timeout` passes; true when everything settled.
  bool settle(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
};

}  // namespace zolvani::testing
