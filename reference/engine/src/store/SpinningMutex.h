// SpinningMutex: a mutex that, when it finds itself taken, retries for a
// short while before it sleeps.
//
// The store's locks are held for a few microseconds at a time, but a sync
// takes them hundreds of thousands of times from two threads at once (the
// one admitting items and the one running the engine's ready callbacks).
// Sleeping on a taken lock costs a system call to sleep and another to be
// woken, each far dearer than the critical section, and on a virtual machine
// dearer still; retrying briefly usually finds the lock free again.
//
// `Mutex` is std::mutex or std::recursive_mutex; the wrapper keeps its
// semantics (a recursive one may be retaken by its owner, whose try_lock
// always succeeds) and meets the same Lockable requirements.
//
// Thread-safety: that of a mutex.
#pragma once

#include <mutex>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace zolvani::reference {

template <typename Mutex>
class SpinningMutex {
 public:
  SpinningMutex() = default;
  SpinningMutex(const SpinningMutex&) = delete;
  SpinningMutex& operator=(const SpinningMutex&) = delete;

  void lock() {
    // On a single core the holder cannot run while this thread spins.
    static const bool spin = std::thread::hardware_concurrency() > 1;
    if (spin) {
      for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (mutex_.try_lock()) return;
        relax();
      }
    }
    mutex_.lock();
  }
  bool try_lock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  // About 10 to 40 microseconds of retrying, depending on the processor.
  static constexpr int kAttempts = 400;

  static void relax() {
#if defined(__x86_64__) || defined(__i386__)
    for (int i = 0; i < 16; ++i) _mm_pause();
#elif defined(__aarch64__)
    for (int i = 0; i < 16; ++i) asm volatile("yield");
#else
    std::this_thread::yield();
#endif
  }

  Mutex mutex_;
};

}  // namespace zolvani::reference
