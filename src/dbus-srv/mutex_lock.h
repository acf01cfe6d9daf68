#pragma once

#include <pthread.h>

/// Holds a mutex for a scope. The mutexes are plain ones with static initialisers: exit may run while
/// the bus threads hold or wait for them, so they must have no destructor.
class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t &mutex) : mutex_(&mutex) { pthread_mutex_lock(mutex_); }
    ~MutexLock() { pthread_mutex_unlock(mutex_); }
    MutexLock(const MutexLock &) = delete;
    MutexLock(MutexLock &&) = delete;
    MutexLock &operator=(const MutexLock &) = delete;
    MutexLock &operator=(MutexLock &&) = delete;

  private:
    pthread_mutex_t *mutex_;
};
