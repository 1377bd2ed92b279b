// pthread_mutex_clocklock for builds with the thread sanitizer, which follows pthread_mutex_timedlock but not this call:
// without a word about the lock it reports every value that the mutex guards, and the unlocking as well. The wait runs
// on the wall clock here; nobody sets that one while a test runs.
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
