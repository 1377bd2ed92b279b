// SPDX-License-Identifier: Apache-2.0
// Replaces pthread_mutex_clocklock in builds with the thread sanitizer, which intercepts pthread_mutex_timedlock but
// not this call: it would not notice the lock and would report every value that the mutex protects, and the unlocking
// as well. The wait uses the wall clock here, which does not change while a test runs.
#include <pthread.h>
#include <time.h>

static long long Nanoseconds(const struct timespec& time) {
  return static_cast<long long>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

static long long Now(clockid_t clock) {
  struct timespec now = {};
  clock_gettime(clock, &now);
  return Nanoseconds(now);
}

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const struct timespec* until) {
  const long long end = Now(CLOCK_REALTIME) + Nanoseconds(*until) - Now(clock);
  const struct timespec wallClockEnd = {static_cast<time_t>(end / 1000000000), static_cast<long>(end % 1000000000)};
  return pthread_mutex_timedlock(mutex, &wallClockEnd);
}
