// SPDX-License-Identifier: Apache-2.0
// Threads, and the reports of their state.
//
// CONTENTS
//   Records    exist for each thread, and a table lists them
//   Running    covers the start of a thread, its priority and its end
//   Services   are called by the library
#define HOST_MODULE "threads"

#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "annotated_mutex.h"
#include "runtime_state.h"

using namespace host_runtime;
using common::Condition;
using common::Lock;
using common::Mutex;

// Tells the library to report. HostRuntime_Apply writes it atomically.
BOOL g_bThreadStateDebuggingEnabled = FALSE;

// --- Records -----------------------------------------------------------------------------------------
// A record belongs to the owner of the handle; the table lists it until WaitForThread.

struct tagHOST_THREAD {
  enum class Order { Hold, Run, Leave };

  std::string name;
  pthread_t thread{};
  HOST_THREAD_ROUTINE routine = nullptr;
  void* argument = nullptr;
  Mutex startLock;  // leaf
  Condition ordered;
  Order order GUARDED_BY(startLock) = Order::Hold;

  Mutex watchLock;  // leaf
  HostThreadState watch GUARDED_BY(watchLock);
  int64_t lastSign GUARDED_BY(watchLock) = MonotonicNs();
};

namespace {

struct Table {
  Mutex lock;  // taken before a record's watchLock and before the log's
  std::vector<HTHREAD> threads GUARDED_BY(lock);
};

Table& Threads() {
  static auto* const kTable = new Table;
  return *kTable;
}

thread_local HTHREAD t_hSelf = nullptr;  // the calling thread's record; null on threads that CreateThread did not make

template <typename Change>
void Report(Change change) {
  const HTHREAD hSelf = t_hSelf;
  if (hSelf == nullptr) return;
  NoThrow([&] {
    const Lock guard(hSelf->watchLock);
    hSelf->lastSign = MonotonicNs();
    change(hSelf->watch);
  });
}

// --- Running -----------------------------------------------------------------------------------------

// Waits for the order to run or to leave.
bool MayRun(tagHOST_THREAD& thread) {
  const Lock guard(thread.startLock);
  while (thread.order == tagHOST_THREAD::Order::Hold) thread.ordered.Wait(thread.startLock);
  return thread.order == tagHOST_THREAD::Order::Run;
}

void* Run(void* pvThread) {
  const auto hThread = static_cast<HTHREAD>(pvThread);
  t_hSelf = hThread;
  if (!MayRun(*hThread)) return nullptr;
  hThread->routine(hThread->argument);
  Report([](HostThreadState& watch) { watch.running = false; });
  return nullptr;
}

void GiveOrder(tagHOST_THREAD& thread, tagHOST_THREAD::Order order) {
  const Lock guard(thread.startLock);
  thread.order = order;
  thread.ordered.NotifyOne();
}

bool IsStarted(tagHOST_THREAD& thread) {
  const Lock guard(thread.startLock);
  return thread.order == tagHOST_THREAD::Order::Run;
}

bool CreateWith(tagHOST_THREAD& thread, DWORD nStackSize, DWORD nPriority) {
  pthread_attr_t attributes;
  int nResult = pthread_attr_init(&attributes);
  if (nResult == 0 && nStackSize != 0) {
    nResult = pthread_attr_setstacksize(
        &attributes, std::max(static_cast<size_t>(nStackSize), static_cast<size_t>(PTHREAD_STACK_MIN)));
  }
  if (nResult == 0 && nPriority != 0) {
    sched_param parameters{};
    parameters.sched_priority = std::clamp(static_cast<int>(std::min(nPriority, 99u)), sched_get_priority_min(SCHED_RR),
                                           sched_get_priority_max(SCHED_RR));
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attributes, SCHED_RR);
    pthread_attr_setschedparam(&attributes, &parameters);
  }
  // Signals go to the process's own threads.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  if (nResult == 0) nResult = pthread_create(&thread.thread, &attributes, Run, &thread);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  errno = nResult;
  return nResult == 0;
}

// Creates the thread with the wanted priority, or without it if the process may not have it.
bool Create(tagHOST_THREAD& thread, DWORD nStackSize, DWORD nPriority) {
  if (nPriority != 0 && Config()->realtimeThreads) {
    if (CreateWith(thread, nStackSize, nPriority)) return true;
    if (errno != EPERM) return false;
    HOST_LOG(5, "Thread \"%s\" runs without real-time priority %u: not permitted.\n", thread.name.c_str(), nPriority);
  }
  return CreateWith(thread, nStackSize, 0);
}

}  // namespace

void host_runtime::NoteSign() {
  Report([](HostThreadState&) {});
}

// --- Services ----------------------------------------------------------------------------------------

std::vector<HostThreadState> HostRuntime_Threads() {
  const Lock guard(Threads().lock);
  const int64_t now = MonotonicNs();
  std::vector<HostThreadState> all;
  for (const HTHREAD hThread : Threads().threads) {
    const Lock watchGuard(hThread->watchLock);
    all.push_back(hThread->watch);
    all.back().name = hThread->name;
    all.back().secondsSinceSign = static_cast<double>(now - hThread->lastSign) / 1e9;
  }
  return all;
}

extern "C" {

BOOL CreateThread(HTHREAD* phThread, const char* szName, DWORD nStackSize, DWORD nPriority,
                  HOST_THREAD_ROUTINE pfnRoutine, void* pvArgument) {
  if (phThread == nullptr) return FALSE;
  *phThread = nullptr;
  if (pfnRoutine == nullptr) return FALSE;
  return NoThrow(FALSE, [&] {
    auto thread = std::make_unique<tagHOST_THREAD>();
    thread->name = szName == nullptr ? "" : szName;
    thread->routine = pfnRoutine;
    thread->argument = pvArgument;
    const Lock guard(Threads().lock);
    Threads().threads.reserve(Threads().threads.size() + 1);
    if (!Create(*thread, nStackSize, nPriority)) {
      HOST_LOG(3, "Cannot make thread \"%s\": %s.\n", thread->name.c_str(), strerror(errno));
      return FALSE;
    }
    pthread_setname_np(thread->thread, thread->name.substr(0, 15).c_str());
    Threads().threads.push_back(thread.get());
    *phThread = thread.release();
    return TRUE;
  });
}

BOOL StartThread(HTHREAD hThread) {
  if (hThread == nullptr) return FALSE;
  {
    const Lock guard(hThread->watchLock);
    hThread->watch.running = true;
    hThread->lastSign = MonotonicNs();
  }
  GiveOrder(*hThread, tagHOST_THREAD::Order::Run);
  return TRUE;
}

BOOL WaitForThread(HTHREAD hThread) {
  if (hThread == nullptr || hThread == t_hSelf) return FALSE;
  if (!IsStarted(*hThread)) GiveOrder(*hThread, tagHOST_THREAD::Order::Leave);
  pthread_join(hThread->thread, nullptr);
  NoThrow([&] {
    const Lock guard(Threads().lock);
    std::erase(Threads().threads, hThread);
  });
  delete hThread;
  return TRUE;
}

void __IncrementThreadIterations(void) {
  Report([](HostThreadState& watch) { ++watch.iterations; });
}

void __SaveThreadState(const char* szFunction, const char* szFile, int nLine) {
  Report([&](HostThreadState& watch) {
    watch.function = szFunction == nullptr ? "" : szFunction;
    watch.file = szFile == nullptr ? "" : szFile;
    watch.line = nLine;
  });
}

void __SetThreadPausedState(BOOL bPaused) {
  Report([&](HostThreadState& watch) { watch.paused = bPaused != FALSE; });
}

void __SetThreadIterations(UINT nIterations) {
  Report([&](HostThreadState& watch) { watch.iterations = nIterations; });
}

}  // extern "C"
