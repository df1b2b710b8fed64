// Scoped lock for a pthread mutex; unlocking keeps errno.
#pragma once

#include <pthread.h>

#include "common/errno_saver.h"

namespace kelo {

class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t *mu) : mu_(mu) { pthread_mutex_lock(mu_); }
  ~MutexLock() {
    ErrnoSaver keep;
    pthread_mutex_unlock(mu_);
  }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  pthread_mutex_t *mu_;
};

}  // namespace kelo
