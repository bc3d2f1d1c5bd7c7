// PgCluster: a throwaway PostgreSQL 15 cluster for tests, in a temporary folder,
// listening on a free loopback port with its socket in that folder, torn down
// (stopped and deleted) with the object. Run as root, the cluster belongs to the
// `postgres` user, as PostgreSQL refuses to run as root.
//
// Durability is switched off (fsync, synchronous commit, full page writes): the
// cluster lives as long as one test program. Not thread-safe; the databases it
// makes are used from any number of threads and processes.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

#include "reference/server/Status.h"

namespace zolvani::refserver::testing {

class PgCluster {
 public:
  // initdb, start, wait until it accepts connections. Fails (never skips) when
  // PostgreSQL 15 is not installed.
  static Status Start(std::unique_ptr<PgCluster>* cluster);
  ~PgCluster();
  PgCluster(const PgCluster&) = delete;
  PgCluster& operator=(const PgCluster&) = delete;

  // A new empty database; `url` receives "postgresql://zsm@127.0.0.1:PORT/NAME".
  Status CreateDatabase(const std::string& name, std::string* url);
  // A new database with the store's schema applied.
  Status CreateMigratedDatabase(const std::string& name, std::string* url);

  // Stops the server cleanly (an outage: every connection breaks, nothing
  // committed is lost) and starts it again on the same port with the same data.
  Status Pause();
  Status Resume();

  int port() const { return port_; }
  const std::filesystem::path& folder() const { return folder_; }
  // The server's log so far, for a failing test's message.
  std::string Log() const;

 private:
  PgCluster() = default;
  Status Stop();

  // Starts the process that stops the cluster and deletes its folder once this
  // process is gone, however it ends (a crash, a kill by the test runner).
  void StartWatchdog();

  std::filesystem::path folder_;
  int port_ = 0;
  bool running_ = false;
  int watchdogFd_ = -1;  // the watchdog waits for this pipe to close
  pid_t watchdog_ = -1;
};

// Where PostgreSQL 15's programs are.
std::filesystem::path PgBinDir();

}  // namespace zolvani::refserver::testing
