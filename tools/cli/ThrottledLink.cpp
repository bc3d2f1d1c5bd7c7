#include "ThrottledLink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "CliError.h"

namespace zsm {

namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool sendAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

ThrottledLink::ThrottledLink(int targetPort, std::uint64_t bytesPerSecond)
    : targetPort_(targetPort), rate_(bytesPerSecond) {}

ThrottledLink::~ThrottledLink() { stop(); }

std::optional<zolvani::Error> ThrottledLink::start() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0)
    return cliError(kCliErrorServerProgram, std::string("socket: ") + std::strerror(errno));
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    const std::string reason = std::strerror(errno);
    ::close(listener_);
    listener_ = -1;
    return cliError(kCliErrorServerProgram, "cannot open the throttled link: " + reason);
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
  return std::nullopt;
}

void ThrottledLink::stop() {
  if (listener_ < 0) return;
  stopping_ = true;
  ::shutdown(listener_, SHUT_RDWR);
  if (acceptor_.joinable()) acceptor_.join();
  ::close(listener_);
  listener_ = -1;
  std::vector<std::thread> workers;
  {
    std::lock_guard lock(mutex_);
    for (int fd : sockets_) ::shutdown(fd, SHUT_RDWR);
    workers.swap(workers_);
  }
  for (auto& w : workers) w.join();
  std::lock_guard lock(mutex_);
  for (int fd : sockets_) ::close(fd);
  sockets_.clear();
}

void ThrottledLink::acceptLoop() {
  while (!stopping_) {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (errno == EINTR) continue;
      return;  // the listener was shut down
    }
    const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in target = loopback(targetPort_);
    if (server < 0 || ::connect(server, reinterpret_cast<sockaddr*>(&target), sizeof target) != 0) {
      if (server >= 0) ::close(server);
      ::close(client);
      continue;
    }
    const int one = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::lock_guard lock(mutex_);
    sockets_.push_back(client);
    sockets_.push_back(server);
    workers_.emplace_back([this, client, server] { pump(client, server, false); });
    workers_.emplace_back([this, client, server] { pump(server, client, true); });
  }
}

void ThrottledLink::pump(int from, int to, bool throttled) {
  using Clock = std::chrono::steady_clock;
  // Small chunks keep the pace smooth enough for a progress bar.
  char buffer[8192];
  // A pacing clock: each chunk may leave once the previous ones have had their
  // time on the link; idle time is not saved up for a later burst.
  auto nextDue = Clock::now();
  while (!stopping_) {
    const ssize_t n = ::recv(from, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (!sendAll(to, buffer, static_cast<std::size_t>(n))) break;
    const std::uint64_t rate = rate_;
    if (throttled && rate > 0) {
      nextDue = std::max(nextDue, Clock::now()) +
                std::chrono::microseconds(static_cast<std::uint64_t>(n) * 1000000 / rate);
      while (!stopping_ && Clock::now() < nextDue)
        std::this_thread::sleep_for(
            std::min<Clock::duration>(nextDue - Clock::now(), std::chrono::milliseconds(50)));
    }
  }
  // Either side ending ends the relay in that direction; the peer sees it.
  ::shutdown(to, SHUT_WR);
  ::shutdown(from, SHUT_RD);
}

}  // namespace zsm
