// SPDX-License-Identifier: Apache-2.0
// The locks of the library, which tell clang what they guard. A clang build stops at guarded data that is used without
// its lock, and at a function of the metadata thread that another thread's function calls.
#ifndef MD_MUTEX_H
#define MD_MUTEX_H

#include <pthread.h>
#include <time.h>

// clang's attributes for the analysis of thread safety; nothing to other compilers, and to tests.
#if defined(__clang__) && !defined(METADATA_THREADS_UNCHECKED)
#define MD_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define MD_THREAD_ATTRIBUTE(attribute)
#endif

#define MD_CAPABILITY(name) MD_THREAD_ATTRIBUTE(capability(name))
#define MD_SCOPED_CAPABILITY MD_THREAD_ATTRIBUTE(scoped_lockable)
// Data that is only used under a lock, or by a role; the second one guards what a pointer points to.
#define MD_GUARDED_BY(lock) MD_THREAD_ATTRIBUTE(guarded_by(lock))
#define MD_PT_GUARDED_BY(lock) MD_THREAD_ATTRIBUTE(pt_guarded_by(lock))
// A function that its caller calls under a lock, or in a role.
#define MD_REQUIRES(...) MD_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
// A function that its caller must not call under a lock.
#define MD_EXCLUDES(...) MD_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define MD_ACQUIRE(...) MD_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define MD_RELEASE(...) MD_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define MD_TRY_ACQUIRE(...) MD_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define MD_ASSUME(...) MD_THREAD_ATTRIBUTE(assert_capability(__VA_ARGS__))
#define MD_ASSUME_SHARED(...) MD_THREAD_ATTRIBUTE(assert_shared_capability(__VA_ARGS__))
// A function whose use of guarded data is right for a reason that the analysis cannot see; its comment gives the reason.
#define MD_UNCHECKED MD_THREAD_ATTRIBUTE(no_thread_safety_analysis)

// A mutex of static storage.
class MD_CAPABILITY("mutex") MdMutex {
 public:
  struct Recursive {};

  constexpr MdMutex() = default;
  explicit constexpr MdMutex(Recursive) : m_mutex PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP {}
  MdMutex(const MdMutex&) = delete;
  MdMutex& operator=(const MdMutex&) = delete;

  void Lock() MD_ACQUIRE() { pthread_mutex_lock(&m_mutex); }
  void Unlock() MD_RELEASE() { pthread_mutex_unlock(&m_mutex); }
  // Returns false if another thread holds the mutex.
  bool TryLock() MD_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&m_mutex) == 0; }
  // Returns false if the mutex does not become free within less than a second.
  bool LockWithin(long milliseconds) MD_TRY_ACQUIRE(true);
  // Tells the analysis that no other thread can reach the guarded data now.
  void AssumeHeld() const MD_ASSUME(this) {}
  // Tells the analysis that this thread alone changes the guarded data, and so reads it without the lock.
  void AssumeOnlyWriter() const MD_ASSUME_SHARED(this) {}

 private:
  pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
};

inline bool MdMutex::LockWithin(long milliseconds) {
  struct timespec until = {};
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_nsec += milliseconds * 1000000;
  if (until.tv_nsec >= 1000000000) {
    ++until.tv_sec;
    until.tv_nsec -= 1000000000;
  }
  return pthread_mutex_clocklock(&m_mutex, CLOCK_MONOTONIC, &until) == 0;
}

// Holds a mutex for a scope.
class MD_SCOPED_CAPABILITY MdLock {
 public:
  explicit MdLock(MdMutex& mutex) MD_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~MdLock() MD_RELEASE() { m_mutex.Unlock(); }
  MdLock(const MdLock&) = delete;
  MdLock& operator=(const MdLock&) = delete;

 private:
  MdMutex& m_mutex;
};

// The role of a thread: what only this thread uses needs no lock.
class MD_CAPABILITY("role") MdThreadRole {
 public:
  // Tells the analysis that the calling function runs in this role. The functions that the host calls on the thread begin
  // with it, and so do those that run while there is no such thread.
  void Assume() const MD_ASSUME(this) {}
};

inline constexpr MdThreadRole kMetadataThread;

#endif  // MD_MUTEX_H
