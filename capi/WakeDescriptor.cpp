#include "WakeDescriptor.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace zsm::capi {

std::shared_ptr<WakeDescriptor> WakeDescriptor::create(std::string* error) {
  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0) {
    *error = std::string("cannot make the wake descriptor: ") + std::strerror(errno);
    return nullptr;
  }
  return std::shared_ptr<WakeDescriptor>(new WakeDescriptor(fd));
}

WakeDescriptor::~WakeDescriptor() { ::close(fd_); }

void WakeDescriptor::arm(long long nanoseconds) {
  // Setting the timer also clears the expirations counted so far, so a
  // descriptor that fired stops being readable once it is re-armed.
  itimerspec spec{};
  spec.it_value.tv_sec = static_cast<time_t>(nanoseconds / 1000000000LL);
  spec.it_value.tv_nsec = static_cast<long>(nanoseconds % 1000000000LL);
  timerfd_settime(fd_, 0, &spec, nullptr);
}

void WakeDescriptor::wakeNow() {
  std::lock_guard lock(mutex_);
  arm(1);
}

void WakeDescriptor::settle(const zolvani::MainQueue& queue) {
  std::lock_guard lock(mutex_);
  const auto ready = queue.timeUntilReady();
  if (!ready) {
    arm(0);
    return;
  }
  const long long ns = std::chrono::duration_cast<std::chrono::nanoseconds>(*ready).count();
  arm(ns > 0 ? ns : 1);
}

}  // namespace zsm::capi
