#pragma once

#include <pthread.h>

namespace orvane {

// Holds a POSIX mutex while it is in scope:
//   AutoLock lock(mutex);
// The mutex must outlive this object.
class AutoLock {
 public:
  explicit AutoLock(pthread_mutex_t& lockedMutex) : mutex(lockedMutex) {
    pthread_mutex_lock(&mutex);
  }
  ~AutoLock() { pthread_mutex_unlock(&mutex); }
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;

 private:
  pthread_mutex_t& mutex;
};

}  // namespace orvane
