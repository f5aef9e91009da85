// Lock declarations that clang checks (-Wthread-safety); other compilers see plain mutexes.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define EAS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define EAS_THREAD_ANNOTATION(x)
#endif

#define EAS_CAPABILITY(name) EAS_THREAD_ANNOTATION(capability(name))
#define EAS_SCOPED_CAPABILITY EAS_THREAD_ANNOTATION(scoped_lockable)
#define EAS_GUARDED_BY(mutex) EAS_THREAD_ANNOTATION(guarded_by(mutex))
#define EAS_EXCLUDES(mutex) EAS_THREAD_ANNOTATION(locks_excluded(mutex))
#define EAS_ACQUIRE(...) EAS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define EAS_RELEASE(...) EAS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EAS_NO_THREAD_SAFETY_ANALYSIS EAS_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace eas {

/// A statically initialised process mutex: nothing runs for it when the library is loaded.
class EAS_CAPABILITY("mutex") Mutex {
  public:
    constexpr Mutex() noexcept = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() noexcept EAS_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() noexcept EAS_RELEASE() { pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a Mutex for the length of a block, also when a cancelled thread unwinds through it.
class EAS_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) noexcept EAS_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() EAS_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace eas
