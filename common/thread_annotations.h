// Clang's thread-safety analysis for the library's own locks.
//
// The macros below expand to clang's capability attributes and to nothing
// for other compilers; clang builds enable -Wthread-safety, so a function
// that touches a GUARDED_BY field or calls a REQUIRES function without the
// lock fails the build. The standard mutexes of libstdc++ carry no
// attributes, hence the thin wrappers: a mutex, a shared mutex, and scoped
// guards that may be released and taken again (for condition waits).
#ifndef CACHE_COMMON_THREAD_ANNOTATIONS_H_
#define CACHE_COMMON_THREAD_ANNOTATIONS_H_

#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define CACHE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define CACHE_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) CACHE_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY CACHE_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) CACHE_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) CACHE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) CACHE_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) CACHE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) CACHE_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) CACHE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) CACHE_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) CACHE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS CACHE_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace cache {

// std::mutex as a capability.
class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

  private:
    std::mutex mutex_;
};

// std::shared_mutex as a capability held exclusively or shared.
class CAPABILITY("mutex") SharedMutex {
  public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    void lock_shared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() RELEASE_SHARED() { mutex_.unlock_shared(); }

  private:
    std::shared_mutex mutex_;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

// Holds a SharedMutex exclusively from construction; unlock() and lock()
// let it go and take it again, as a condition variable's wait does with it.
class SCOPED_CAPABILITY ExclusiveLock {
  public:
    explicit ExclusiveLock(SharedMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~ExclusiveLock() RELEASE() {
        if (held_) mutex_.unlock();
    }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

    void lock() ACQUIRE() {
        mutex_.lock();
        held_ = true;
    }
    void unlock() RELEASE() {
        held_ = false;
        mutex_.unlock();
    }

  private:
    SharedMutex& mutex_;
    bool held_ = true;
};

// Holds a SharedMutex shared for its scope.
class SCOPED_CAPABILITY SharedLock {
  public:
    explicit SharedLock(SharedMutex& mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) {
        mutex_.lock_shared();
    }
    ~SharedLock() RELEASE() { mutex_.unlock_shared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

  private:
    SharedMutex& mutex_;
};

}  // namespace cache

#endif  // CACHE_COMMON_THREAD_ANNOTATIONS_H_
