// The library's mutex and its scoped guard, annotated for the thread-safety
// analysis; unlocking keeps errno. While a thread holds any of them, the
// library's own log lines wait (log::lib_log) until it holds none, so that no
// log handler ever runs under a lock of the library.
#pragma once

#include <pthread.h>

#include "common/errno_saver.h"
#include "common/thread_annotations.h"

namespace kelo {

namespace locks {
// Library locks held by this thread, and whether lines wait for their release.
extern constinit thread_local unsigned t_held;
extern constinit thread_local bool t_lines_waiting;
// Writes the waiting lines (log.cpp); called once the last lock is released.
void write_waiting_lines();
}  // namespace locks

class CAPABILITY("mutex") Mutex {
 public:
  struct Recursive {};
  // Constant-initialised: usable before any constructor has run.
  constexpr Mutex() : mu_(PTHREAD_MUTEX_INITIALIZER) {}
  // Recursive: the same thread may take it again. The analysis knows no
  // recursive locks; where a lock is taken again, the spot says so.
  constexpr explicit Mutex(Recursive) : mu_(PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP) {}
  Mutex(const Mutex &) = delete;
  Mutex &operator=(const Mutex &) = delete;

  void lock() ACQUIRE() {
    pthread_mutex_lock(&mu_);
    ++locks::t_held;
  }
  void unlock() RELEASE() {
    {
      ErrnoSaver keep;
      pthread_mutex_unlock(&mu_);
    }
    if (--locks::t_held == 0 && locks::t_lines_waiting) locks::write_waiting_lines();
  }
  // Waits on cv, giving the mutex up meanwhile (it is held again on return).
  void wait(pthread_cond_t *cv) REQUIRES(this) { pthread_cond_wait(cv, &mu_); }

 private:
  pthread_mutex_t mu_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex *mu) ACQUIRE(mu) : mu_(mu) { mu_->lock(); }
  ~MutexLock() RELEASE() { mu_->unlock(); }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  Mutex *mu_;
};

}  // namespace kelo
