// ScriptedHttpServer: a real HTTP server on 127.0.0.1 for protocol tests. It
// records every request it receives and answers each with the reply the test
// scripted for it.
//
// Replies are taken from a queue in order; when the queue is empty the
// fallback reply answers (HTTP 200 with an empty body unless set). A reply may
// also be "silent": the server accepts the request and never answers, until
// the server is destroyed, so a client's time-out can be tested.
//
// Thread-safety: every member may be called from any thread while the server
// runs; requests are served on the server's own threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

namespace zolvani::testing {

struct RecordedRequest {
  std::string method;
  std::string path;                                          // without the query
  std::string target;                                        // path and query exactly as sent
  std::string query;                                         // the text after "?", empty when none
  std::vector<std::pair<std::string, std::string>> headers;  // in the order received
  std::string body;

  // The values of every header named `name` (case-insensitive), in order.
  std::vector<std::string> headerValues(std::string_view name) const;
};

struct ScriptedReply {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  bool silent = false;                                       // accept the request and never answer
  std::vector<std::pair<std::string, std::string>> headers;  // extra response headers

  static ScriptedReply json(std::string body, int status = 200) {
    return ScriptedReply{status, std::move(body), "application/json", false, {}};
  }
  static ScriptedReply withStatus(int status) {
    return ScriptedReply{status, "", "text/plain", false, {}};
  }
  static ScriptedReply never() { return ScriptedReply{200, "", "text/plain", true, {}}; }
};

class ScriptedHttpServer {
 public:
  // Starts listening on an ephemeral port of 127.0.0.1.
  ScriptedHttpServer();
  // Releases silent requests, stops and joins the server.
  ~ScriptedHttpServer();
  ScriptedHttpServer(const ScriptedHttpServer&) = delete;
  ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:<port>"
  std::string baseUrl() const;

  void enqueue(ScriptedReply reply);
  void setFallback(ScriptedReply reply);
  // Answers every request with `handler` (ahead of the queue) when set.
  void setHandler(std::function<ScriptedReply(const RecordedRequest&)> handler);

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;
  // Waits until at least `count` requests have arrived, or `timeout`.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::deque<ScriptedReply> replies_;
  ScriptedReply fallback_;
  std::function<ScriptedReply(const RecordedRequest&)> handler_;
  std::vector<RecordedRequest> requests_;
  bool stopping_ = false;
};

}  // namespace zolvani::testing
