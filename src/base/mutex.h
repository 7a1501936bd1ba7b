#pragma once

#include <pthread.h>

// Checked by clang with -Wthread-safety; empty for other compilers.
#if defined(__clang__)
#define WEIR_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define WEIR_THREAD_ATTRIBUTE(x)
#endif
#define WEIR_GUARDED_BY(mutex) WEIR_THREAD_ATTRIBUTE(guarded_by(mutex))
#define WEIR_REQUIRES(mutex) WEIR_THREAD_ATTRIBUTE(requires_capability(mutex))

namespace weir {

// A POSIX mutex with default attributes, annotated for clang's thread safety analysis.
class WEIR_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  Mutex() { (void)pthread_mutex_init(&mutex_, nullptr); }
  ~Mutex() { (void)pthread_mutex_destroy(&mutex_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() WEIR_THREAD_ATTRIBUTE(acquire_capability()) { (void)pthread_mutex_lock(&mutex_); }
  [[nodiscard]] bool try_lock() WEIR_THREAD_ATTRIBUTE(try_acquire_capability(true)) {
    return pthread_mutex_trylock(&mutex_) == 0;
  }
  void unlock() WEIR_THREAD_ATTRIBUTE(release_capability()) { (void)pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_;
};

// Holds a mutex until the end of the scope.
class WEIR_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) WEIR_THREAD_ATTRIBUTE(acquire_capability(mutex))
      : mutex_(mutex) {
    mutex_.lock();
  }
  ~MutexLock() WEIR_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace weir
