#pragma once
// Locks: reader-writer lock, spin lock and once-guard.

#include <atomic>
#include <mutex>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "kelvo/result.h"

namespace kelvo {

// Reader-writer lock. Not recursive; a writer must not take the read lock it already holds.
class ARWLock {
public:
  void ARWReadLock() { _m.lock_shared(); }
  void ARWReadUnlock() { _m.unlock_shared(); }
  void ARWWriteLock() { _m.lock(); }
  void ARWWriteUnlock() { _m.unlock(); }
  // BasicLockable / SharedLockable so std::shared_lock and std::unique_lock work.
  void lock() { _m.lock(); }
  void unlock() { _m.unlock(); }
  void lock_shared() { _m.lock_shared(); }
  void unlock_shared() { _m.unlock_shared(); }

private:
  std::shared_mutex _m;
};

using ReadLocker = std::shared_lock<ARWLock>;
using WriteLocker = std::unique_lock<ARWLock>;

// Spin lock with back-off: yields the thread after a few spins, since it may be held across I/O.
class SpinLock {
public:
  void lock() {
    for (int spins = 0; _flag.test_and_set(std::memory_order_acquire); ++spins) {
      if (spins > 64) std::this_thread::yield();
    }
  }
  bool try_lock() { return !_flag.test_and_set(std::memory_order_acquire); }
  void unlock() { _flag.clear(std::memory_order_release); }

private:
  std::atomic_flag _flag = ATOMIC_FLAG_INIT;
};

// Runs an initialisation once: state 0 idle, 1 running, 2 done. A failed run returns to 0 so the
// next caller tries again; callers that find it running wait with back-off.
class OnceGuard {
public:
  template <typename F> Result<void> Run(F&& f) {
    for (int spins = 0;; ++spins) {
      int state = _state.load(std::memory_order_acquire);
      if (state == 2) return {};
      if (state == 0 && _state.compare_exchange_strong(state, 1, std::memory_order_acq_rel)) {
        Result<void> r = f();
        _state.store(r.HasError() ? 0 : 2, std::memory_order_release);
        return r;
      }
      if (spins > 16) std::this_thread::yield();
    }
  }
  bool IsDone() const { return _state.load(std::memory_order_acquire) == 2; }

private:
  std::atomic<int> _state{0};
};

} // namespace kelvo
