// GuardedServer: cpp-httplib's server with the connection handling the reference
// server needs in front of hostile clients, which the library (0.11) cannot give
// through its settings alone:
//
// - whole-request deadlines: the request head must arrive within `headerTimeout` of
//   the connection (or of the first byte of a later request on it), the body within
//   `bodyTimeout` of the head; trickling bytes does not extend either, unlike the
//   library's read time-out, which restarts with every byte;
// - a cap on open connections per client address (IPv6: per /64) and in total; a
//   connection over a cap is answered 503 at once on the accepting thread and
//   closed, never queued behind busy ones;
// - one thread per admitted connection, started on demand (up to the total cap) and
//   kept for a while when idle, so slow clients never hold back other clients;
// - keep-alive: an idle limit between requests and a request count per connection;
// - body limits whatever the framing: a declared Content-Length over the limit is
//   refused (413) without reading; chunked bodies are counted as decoded and cut at
//   the same limit (413, via ReadBody); a request with neither has no body (RFC
//   9112); unknown or conflicting framing, malformed header lines, a head over
//   `maxHeaderBytes` or `maxHeaderLines`, and methods other than GET, HEAD and POST
//   are refused, and the connection is closed after every refusal;
// - no SO_REUSEPORT: binding a port another server listens on fails;
// - the Range header reaches handlers as kRangeHeader, untouched: the library would
//   answer 416 itself to any Range it cannot parse, where HTTP says to ignore it.
//
// How: the library accepts connections and hands each to the virtual
// process_and_close_socket(), which this class overrides (the task queue runs it
// inline on the accepting thread). Admitted connections are served on our own
// threads by a loop that reads through a Stream of ours, which enforces the
// deadlines and limits, and calls the library's process_request() for each request.
// The library's parsing, routing and response writing are used unchanged.
//
// Handlers of body-carrying routes must be content-reader routes (Post with a
// ContentReader) that read through ReadBody(); this class owns the pre-routing,
// post-routing and Expect: 100-continue handlers. Thread-safe: Shutdown() may be
// called from any thread.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "reference/server/Status.h"

namespace zolvani::refserver {

struct ConnectionLimits {
  int maxConnections = 512;           // open connections in all
  int maxConnectionsPerAddress = 64;  // from one IPv4 address or IPv6 /64
  std::chrono::milliseconds headerTimeout{5000};  // request line and headers
  std::chrono::milliseconds bodyTimeout{10000};   // the whole body, after the head
  std::chrono::milliseconds keepAliveIdle{2000};  // between requests
  std::chrono::milliseconds writeTimeout{10000};  // each stalled write
  int maxRequestsPerConnection = 1000;
  size_t maxHeaderBytes = 64 * 1024;  // request line and headers
  int maxHeaderLines = 100;
  size_t maxBodyBytes = 1 << 20;  // decoded
  int warmThreads = 8;            // idle connection threads kept ready
};

// Runs each job on a thread of its own at once: an idle thread when there is one,
// otherwise a new one. Threads idle for longer than a few seconds end, except
// `warm` of them. The caller bounds the number of jobs running at once.
class ConnectionThreads {
 public:
  explicit ConnectionThreads(int warm) : warm_(warm < 0 ? 0 : static_cast<size_t>(warm)) {}
  ~ConnectionThreads() { Shutdown(); }
  ConnectionThreads(const ConnectionThreads&) = delete;
  ConnectionThreads& operator=(const ConnectionThreads&) = delete;

  // False when no thread could be started for it (the system's thread limit).
  bool Run(std::function<void()> job);
  // Runs what was handed in, then ends and joins every thread.
  void Shutdown();

 private:
  void Work(std::list<std::thread>::iterator self);
  void ReapFinished();

  const size_t warm_;
  std::mutex mutex_;
  std::condition_variable work_;
  std::condition_variable gone_;
  std::vector<std::function<void()>> jobs_;
  size_t idle_ = 0;
  bool stopping_ = false;
  std::list<std::thread> live_;
  std::vector<std::thread> finished_;  // ended threads, joined by the next caller
};

class GuardedServer : public httplib::Server {
 public:
  // Fills `res` with a refusal made by the transport (400, 405, 408, 413, 431).
  using RefusalWriter =
      std::function<void(httplib::Response& res, int status, const std::string& reason)>;

  // The request header a Range header reaches handlers as.
  static constexpr const char* kRangeHeader = "X-Zsm-Range";

  explicit GuardedServer(ConnectionLimits limits);
  ~GuardedServer() override;

  void SetRefusalWriter(RefusalWriter writer) { refusal_ = std::move(writer); }

  // Binds `address`:`port` (0: a free port) and listens with a long queue. Fails
  // when another socket listens there.
  Status Bind(const std::string& address, int port, int* boundPort);
  // Accepts and serves until Shutdown(), then waits for every connection to end.
  void Serve();
  // Stops accepting and ends every connection at its next wait.
  void Shutdown();

  // For a content-reader handler: reads the request body into `body`, at most
  // maxBodyBytes once decoded. Returns 0, or the HTTP status to refuse with: 413
  // (too large), 408 (body deadline) or 400 (malformed or cut short).
  static int ReadBody(const httplib::ContentReader& reader, std::string* body);

  const ConnectionLimits& limits() const { return limits_; }

 private:
  struct Peer {
    std::string ip;
    int port = 0;
    std::string key;  // what the per-address cap counts
  };

  bool process_and_close_socket(socket_t sock) override;
  void ServeConnection(socket_t sock, const Peer& peer);
  void Refuse(socket_t sock, const Peer& peer, bool total);
  void Release(const std::string& key);
  void InstallHooks();

  const ConnectionLimits limits_;
  RefusalWriter refusal_;
  int stopFd_ = -1;  // an eventfd, readable once shutting down
  std::mutex mutex_;
  bool stopping_ = false;
  int active_ = 0;
  std::map<std::string, int> perAddress_;
  int64_t refusedSinceLog_ = 0;
  std::chrono::steady_clock::time_point lastRefusalLog_{};
  ConnectionThreads threads_;
};

}  // namespace zolvani::refserver
