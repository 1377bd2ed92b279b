// SPDX-License-Identifier: Apache-2.0
// Mutexes that clang checks: with -Wthread-safety it refuses code that touches a GUARDED_BY member without its lock.
// Other compilers see plain mutexes.
#ifndef COMMON_ANNOTATED_MUTEX_H
#define COMMON_ANNOTATED_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define THREAD_ATTRIBUTE(x)
#endif

// Marks a member that may only be used with this mutex held.
#define GUARDED_BY(mutex) THREAD_ATTRIBUTE(guarded_by(mutex))
// Marks a function whose callers hold this mutex.
#define REQUIRES(...) THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
// Mark a function that locks or unlocks this mutex.
#define ACQUIRE(...) THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace common {

class THREAD_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

 private:
  friend class Lock;
  friend class Condition;
  std::mutex m_mutex;
};

// Holds a mutex to the end of a block, except between Pause() and Resume().
class THREAD_ATTRIBUTE(scoped_lockable) Lock {
 public:
  explicit Lock(Mutex& mutex) ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
  ~Lock() RELEASE() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Pause() RELEASE() { m_lock.unlock(); }
  void Resume() ACQUIRE() { m_lock.lock(); }

 private:
  std::unique_lock<std::mutex> m_lock;
};

// A condition variable. Wait() may return without a notification, so call it in a loop that checks the guarded state.
class Condition {
 public:
  void Wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
    m_condition.wait(lock);
    lock.release();  // the caller still holds it
  }
  // Does the same for a limited time, and returns false when that is over.
  bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point end) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
    const bool inTime = m_condition.wait_until(lock, end) == std::cv_status::no_timeout;
    lock.release();
    return inTime;
  }
  void NotifyOne() { m_condition.notify_one(); }
  void NotifyAll() { m_condition.notify_all(); }

 private:
  std::condition_variable m_condition;
};

}  // namespace common

#endif  // COMMON_ANNOTATED_MUTEX_H
