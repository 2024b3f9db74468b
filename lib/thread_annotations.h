// SPDX-License-Identifier: Apache-2.0
// Mutexes that clang's thread-safety analysis understands, and the words that say what guards what. Under other
// compilers the words vanish and the types are the standard library's own.
//
//   mutex_t m;
//   int count GUARDED_BY(m);          // touching it without m does not compile under clang
//   void grow() REQUIRES(m);          // nor calling this without m
//   { mutex_lock_t lock(m); grow(); }
#pragma once

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define MIRADOR_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define MIRADOR_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) MIRADOR_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY MIRADOR_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) MIRADOR_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) MIRADOR_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) MIRADOR_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) MIRADOR_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) MIRADOR_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) MIRADOR_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) MIRADOR_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) MIRADOR_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) MIRADOR_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) MIRADOR_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS MIRADOR_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace mirador {

class CAPABILITY("mutex") mutex_t {
  public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  private:
    std::mutex mutex_;
};

// Holds a mutex for a block.
class SCOPED_CAPABILITY mutex_lock_t {
  public:
    explicit mutex_lock_t(mutex_t& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    // Takes over a mutex that is held already.
    mutex_lock_t(mutex_t& mutex, std::adopt_lock_t) REQUIRES(mutex) : mutex_(mutex) {}
    ~mutex_lock_t() RELEASE() { mutex_.unlock(); }
    mutex_lock_t(const mutex_lock_t&) = delete;
    mutex_lock_t& operator=(const mutex_lock_t&) = delete;

  private:
    mutex_t& mutex_;
};

class CAPABILITY("mutex") rwlock_t {
  public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    void lock_shared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() RELEASE_SHARED() { mutex_.unlock_shared(); }

  private:
    std::shared_mutex mutex_;
};

// Holds a read-write lock for a block: among other readers, or alone.
class SCOPED_CAPABILITY read_lock_t {
  public:
    explicit read_lock_t(rwlock_t& lock) ACQUIRE_SHARED(lock) : lock_(lock) { lock_.lock_shared(); }
    ~read_lock_t() RELEASE_GENERIC() { lock_.unlock_shared(); }
    read_lock_t(const read_lock_t&) = delete;
    read_lock_t& operator=(const read_lock_t&) = delete;

  private:
    rwlock_t& lock_;
};

class SCOPED_CAPABILITY write_lock_t {
  public:
    explicit write_lock_t(rwlock_t& lock) ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~write_lock_t() RELEASE() { lock_.unlock(); }
    write_lock_t(const write_lock_t&) = delete;
    write_lock_t& operator=(const write_lock_t&) = delete;

  private:
    rwlock_t& lock_;
};

}  // namespace mirador
