// Threads, the watch over them, and counting wait conditions.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <mutex>

#include "runtime.h"

struct tagHOST_THREAD {
  std::string name;
  DWORD stackSize;
  DWORD priority;
  HOST_THREAD_ROUTINE routine;
  void* argument;
  pthread_t thread = {};
  bool started = false;
};

BOOL g_bThreadStateDebuggingEnabled = FALSE;

// The watch; under the lock. Threads the runtime did not make have no name and are ignored.
static std::mutex g_WatchLock;
static std::map<std::string, HostThreadState> g_Watch;
static thread_local std::string t_Name;

std::map<std::string, HostThreadState> HostRuntime_Threads() {
  std::lock_guard guard(g_WatchLock);
  return g_Watch;
}

template <typename Change>
static void Watch(Change change) {
  if (t_Name.empty()) return;
  std::lock_guard guard(g_WatchLock);
  change(g_Watch[t_Name]);
}

// A priority needs a privilege; without it the thread runs like any other.
static void SetPriority(const tagHOST_THREAD& thread) {
  if (thread.priority == 0) return;
  sched_param wanted = {};
  wanted.sched_priority = static_cast<int>(thread.priority);
  const int error = pthread_setschedparam(pthread_self(), SCHED_RR, &wanted);
  if (error != 0)
    HOST_LOG(6, "thread \"%s\" runs without priority %u: %s", thread.name.c_str(), thread.priority,
             runtime::ErrorText(error).c_str());
}

static void* Run(void* argument) {
  const tagHOST_THREAD& thread = *static_cast<tagHOST_THREAD*>(argument);
  t_Name = thread.name;
  pthread_setname_np(pthread_self(), thread.name.substr(0, 15).c_str());
  SetPriority(thread);
  Watch([](HostThreadState&) {});
  thread.routine(thread.argument);
  std::lock_guard guard(g_WatchLock);
  g_Watch.erase(t_Name);
  return nullptr;
}

extern "C" {

BOOL CreateThread(HTHREAD* phThread, const char* szName, DWORD nStackSize, DWORD nPriority,
                  HOST_THREAD_ROUTINE pfnRoutine, void* pvArgument) {
  *phThread = new tagHOST_THREAD{szName, nStackSize, nPriority, pfnRoutine, pvArgument};
  return TRUE;
}

BOOL StartThread(HTHREAD hThread) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (hThread->stackSize != 0) pthread_attr_setstacksize(&attributes, hThread->stackSize);
  const int error = pthread_create(&hThread->thread, &attributes, Run, hThread);
  pthread_attr_destroy(&attributes);
  hThread->started = error == 0;
  if (error != 0)
    HOST_LOG(3, "thread \"%s\" cannot start: %s", hThread->name.c_str(), runtime::ErrorText(error).c_str());
  return hThread->started ? TRUE : FALSE;
}

BOOL WaitForThread(HTHREAD hThread) {
  const bool joined = !hThread->started || pthread_join(hThread->thread, nullptr) == 0;
  delete hThread;
  return joined ? TRUE : FALSE;
}

void __IncrementThreadIterations(void) {
  Watch([](HostThreadState& state) { ++state.iterations; });
}

void __SaveThreadState(const char* szFunction, const char* szFile, int nLine) {
  Watch([&](HostThreadState& state) {
    state.where = std::string(szFunction) + " (" + szFile + ":" + std::to_string(nLine) + ")";
  });
}

void __SetThreadPausedState(BOOL bPaused) {
  Watch([&](HostThreadState& state) { state.paused = bPaused != FALSE; });
}

void __SetThreadIterations(UINT nIterations) {
  Watch([&](HostThreadState& state) { state.iterations = nIterations; });
}

// --- wait conditions ---------------------------------------------------------------------------------

BOOL WaitCond_Init(WAIT_COND* pCond) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pCond->nCount = 0;
  const bool done =
      pthread_mutex_init(&pCond->Mutex, nullptr) == 0 && pthread_cond_init(&pCond->Cond, &attributes) == 0;
  pthread_condattr_destroy(&attributes);
  return done ? TRUE : FALSE;
}

BOOL WaitCond_Post(WAIT_COND* pCond) {
  pthread_mutex_lock(&pCond->Mutex);
  ++pCond->nCount;
  pthread_cond_signal(&pCond->Cond);
  pthread_mutex_unlock(&pCond->Mutex);
  return TRUE;
}

BOOL _DoWaitCond_WaitFor(WAIT_COND* pCond, DWORD nMilliseconds, const char*, const char*, int) {
  timespec until;
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += nMilliseconds / 1000;
  until.tv_nsec += static_cast<long>(nMilliseconds % 1000) * 1000000;
  if (until.tv_nsec >= 1000000000) {
    until.tv_nsec -= 1000000000;
    ++until.tv_sec;
  }
  pthread_mutex_lock(&pCond->Mutex);
  int error = 0;
  while (pCond->nCount == 0 && error == 0) error = pthread_cond_timedwait(&pCond->Cond, &pCond->Mutex, &until);
  const bool taken = pCond->nCount > 0;
  if (taken) --pCond->nCount;
  pthread_mutex_unlock(&pCond->Mutex);
  if (!taken) errno = error;
  return taken ? TRUE : FALSE;
}

void WaitCond_Destroy(WAIT_COND* pCond) {
  pthread_cond_destroy(&pCond->Cond);
  pthread_mutex_destroy(&pCond->Mutex);
}

}  // extern "C"
