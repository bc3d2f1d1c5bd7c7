// Balancer: HAProxy in front of server replicas on loopback, as the server
// README's deployment section configures it (reads retried on another replica,
// changes only when they never reached one, health checks on /ready every
// 300 ms), run as a child process in the foreground, with a stats listener to
// read each replica's state and counters. For tests and benchmarks.
//
// Not thread-safe; one controlling thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace zolvani::refserver::testing {

// A loopback port nothing listens on now.
int FreeLoopbackPort();

class Balancer {
 public:
  Balancer() = default;
  ~Balancer() { Stop(); }
  Balancer(const Balancer&) = delete;
  Balancer& operator=(const Balancer&) = delete;

  // Starts HAProxy in front of 127.0.0.1:<port> of each replica and waits until
  // every replica is UP in both backends; false, with the reason, otherwise.
  bool Start(const std::vector<int>& replicaPorts, std::string* error);
  void Stop();

  // "backend/server" -> a column of HAProxy's CSV statistics ("status", "scur",
  // "hrsp_2xx", ...), for the replicas only.
  std::map<std::string, std::string> Column(const std::string& name);
  std::map<std::string, std::string> States() { return Column("status"); }

  int port() const { return port_; }
  pid_t pid() const { return pid_; }

  // What HAProxy asks a replica before sending it requests.
  static constexpr const char* kHealthPath = "/ready";

 private:
  std::filesystem::path folder_;
  pid_t pid_ = -1;
  int port_ = 0;
  int statsPort_ = 0;
};

}  // namespace zolvani::refserver::testing
