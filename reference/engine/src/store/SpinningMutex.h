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
// `Mutex` is std::mutex, std::recursive_mutex or std::shared_mutex; the
// wrapper keeps its semantics (a recursive one may be retaken by its owner,
// whose try_lock always succeeds; a shared one is also taken shared, with the
// same retrying) and meets the same Lockable requirements.
//
// Thread-safety: that of a mutex.
#pragma once

#include <mutex>
#include <shared_mutex>
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
    if (!spin([this] { return mutex_.try_lock(); })) mutex_.lock();
  }
  bool try_lock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

  void lock_shared() requires requires(Mutex& m) { m.lock_shared(); }
  {
    if (!spin([this] { return mutex_.try_lock_shared(); })) mutex_.lock_shared();
  }
  bool try_lock_shared() requires requires(Mutex& m) { m.try_lock_shared(); }
  { return mutex_.try_lock_shared(); }
  void unlock_shared() requires requires(Mutex& m) { m.unlock_shared(); }
  { mutex_.unlock_shared(); }

 private:
  // Retries `attempt` for a while; true once it succeeded.
  template <typename Attempt>
  static bool spin(Attempt attempt) {
    // On a single core the holder cannot run while this thread spins.
    static const bool worthIt = std::thread::hardware_concurrency() > 1;
    if (!worthIt) return false;
    for (int i = 0; i < kAttempts; ++i) {
      if (attempt()) return true;
      relax();
    }
    return false;
  }

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
