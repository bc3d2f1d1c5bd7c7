// ThrottledLink: a loopback TCP relay that passes bytes unchanged between a
// client and a server, at a limited rate towards the client. The demo puts it
// between the device and the content server so that downloads take long enough
// to watch their progress bars, as on a real network; everything the protocol
// signs (the Host header included) passes through untouched, so the device and
// the server see one consistent address: the link's.
//
// Thread-safety: start() and stop() from one thread; each connection is served
// by its own pair of threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "zolvani/subscription/Error.h"

namespace zsm {

class ThrottledLink {
 public:
  // Relays 127.0.0.1:<a free port> to 127.0.0.1:`targetPort`, at most
  // `bytesPerSecond` per connection towards the client (0: no limit).
  ThrottledLink(int targetPort, std::uint64_t bytesPerSecond);
  ~ThrottledLink();
  ThrottledLink(const ThrottledLink&) = delete;
  ThrottledLink& operator=(const ThrottledLink&) = delete;

  std::optional<zolvani::Error> start();
  // Changes the pace of every connection from now on (0: no limit).
  void setRate(std::uint64_t bytesPerSecond) { rate_ = bytesPerSecond; }
  void stop();
  int port() const { return port_; }

 private:
  void acceptLoop();
  void pump(int from, int to, bool throttled);

  const int targetPort_;
  std::atomic<std::uint64_t> rate_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<int> sockets_;
  std::vector<std::thread> workers_;
};

}  // namespace zsm
