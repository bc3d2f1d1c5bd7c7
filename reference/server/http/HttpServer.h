// HttpServer: the content server's HTTP/1.1 transport, event-driven on Asio with
// Beast's parser, built to stay up in front of hostile clients:
//
// - a few I/O threads own every connection's reads, writes and timers, so an
//   idle or slow connection costs memory, never a thread; handlers, which may
//   block on the store, run on a small fixed pool of handler threads;
// - whole-request deadlines: a request head must arrive within `headerTimeout` of
//   the connection (or of the first byte of a later request on it), its body
//   within `bodyTimeout` of the head; trickling bytes does not extend either;
//   a request cut short is answered 408 when the client can still read;
// - a cap on open connections per client address (IPv6: per /64) and in total; a
//   connection over a cap is answered 503 at once and closed, never queued;
//   connections from a trusted proxy are exempt from the per-address cap;
// - keep-alive: an idle limit between requests and a request count per connection;
// - body limits whatever the framing: a declared Content-Length over the limit is
//   refused (413) without reading; chunked bodies are counted as decoded and cut
//   at the same limit (413); a request with neither has no body; unknown or
//   conflicting framing, malformed or folded header lines (400), a head over
//   `maxHeaderBytes` or `maxHeaderLines` (431) and methods other than GET, HEAD
//   and POST (405) are refused, and the connection is closed after every refusal;
// - replies leave with TCP_NODELAY, a small one in a single write;
// - no SO_REUSEPORT: binding a port another server listens on fails;
// - the Range header reaches handlers untouched.
//
// Thread-safety: routes and options are set before Start(); Stop() may be called
// from any thread other than a handler's.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reference/server/Status.h"
#include "reference/server/http/Router.h"

namespace zolvani::refserver {

struct ConnectionLimits {
  // Open connections in all. A connection costs a descriptor and a few kilobytes,
  // never a thread; the server raises its descriptor limit to the system's.
  int maxConnections = 4096;
  int maxConnectionsPerAddress = 64;              // from one IPv4 address or IPv6 /64
  std::chrono::milliseconds headerTimeout{5000};  // request line and headers
  std::chrono::milliseconds bodyTimeout{10000};   // the whole body, after the head
  std::chrono::milliseconds keepAliveIdle{2000};  // between requests
  std::chrono::milliseconds writeTimeout{10000};  // each stalled write
  int maxRequestsPerConnection = 1000;
  size_t maxHeaderBytes = 64 * 1024;  // request line and headers
  int maxHeaderLines = 100;
  size_t maxBodyBytes = 1 << 20;  // decoded
};

struct HttpServerOptions {
  ConnectionLimits limits;
  int ioThreads = 2;       // threads that run every connection's I/O
  int handlerThreads = 8;  // threads that run handlers
  // Peers whose connections are a balancer's: exempt from the per-address cap, and
  // the client address of their requests is the last X-Forwarded-For entry.
  std::vector<std::string> trustedProxies;
};

class HttpServer {
 public:
  // Fills `res` with a refusal made by the transport (400, 405, 408, 413, 431, 500).
  using RefusalWriter = std::function<void(Response& res, int status, const std::string& reason)>;

  HttpServer(HttpServerOptions options, Router router);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  void SetRefusalWriter(RefusalWriter writer);

  // Binds `address`:`port` (0: a free port) and listens with a long queue; fails
  // when another socket listens there. With `console`, the listener's requests
  // are marked Request::onConsoleListener. Call before Start().
  Status Listen(const std::string& address, int port, bool console, int* boundPort);
  // Starts the I/O and handler threads and accepts on every listener.
  Status Start();
  // Stops accepting, ends every connection and joins every thread; safe to call
  // more than once.
  void Stop();

  const ConnectionLimits& limits() const;
  // Threads this server runs (I/O and handlers), for figures.
  int threadCount() const;

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace zolvani::refserver
