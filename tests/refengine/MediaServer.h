// MediaServer: a loopback HTTP server for the reference engine's tests.
//
// It serves byte blobs under paths with ETag, Range and If-Range support (ranges
// are cut by the HTTP library; a stale If-Range gets the whole body), and can be
// told to misbehave per path: answer a status, fail a number of times, cut the
// body short, or trickle it slowly. Every request is recorded.
//
// Thread-safety: every member may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

namespace zolvani::testing {

struct MediaRoute {
  std::shared_ptr<const std::string> body;
  std::string contentType = "video/mp4";
  std::string etag = "\"v1\"";
  // Answered instead of the body while failuresLeft > 0 (then counts down), or
  // always when failuresLeft < 0.
  int status = 0;
  int failuresLeft = 0;
  // The next `truncations` responses break off after `truncateAt` bytes of body each.
  std::size_t truncateAt = 0;
  int truncations = 0;
  // Sends the body in chunks of this size with this pause between them.
  std::size_t chunk = 64 * 1024;
  std::chrono::microseconds pause{0};
  bool sendLength = true;
};

struct RequestRecord {
  std::string path, range, ifRange;
};

class MediaServer {
 public:
  MediaServer();
  ~MediaServer();

  void set(const std::string& path, MediaRoute route);
  // Adds a media body under `path`.
  void add(const std::string& path, std::string body, std::string contentType = "video/mp4");
  void change(const std::string& path, std::string body, std::string etag);
  std::string url(const std::string& path) const;
  int port() const { return port_; }
  std::vector<RequestRecord> requests() const;
  std::vector<RequestRecord> requestsFor(const std::string& path) const;

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::map<std::string, MediaRoute> routes_;
  std::vector<RequestRecord> requests_;
};

// Deterministic pseudo-random bytes, so that corruption is caught.
std::string patternBytes(std::size_t size, unsigned seed = 1);

}  // namespace zolvani::testing
