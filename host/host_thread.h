// SPDX-License-Identifier: Apache-2.0
// Threads and the host's watch over them.
#ifndef HOST_THREAD_H
#define HOST_THREAD_H

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tagHOST_THREAD* HTHREAD;
typedef DWORD (*HOST_THREAD_ROUTINE)(void* pvArgument);

// Makes a thread that does not run yet. nStackSize in bytes, 0 for the default; nPriority 0 to 99.
BOOL CreateThread(HTHREAD* phThread, const char* szName, DWORD nStackSize, DWORD nPriority,
                  HOST_THREAD_ROUTINE pfnRoutine, void* pvArgument);
BOOL StartThread(HTHREAD hThread);
// Joins the thread and frees the handle. A thread that was never started is just freed.
BOOL WaitForThread(HTHREAD hThread);

// TRUE asks the library to report where its threads are. Written by the host with an atomic store.
extern BOOL g_bThreadStateDebuggingEnabled;
// All four are about the calling thread; threads the host did not make are ignored.
void __IncrementThreadIterations(void);
void __SaveThreadState(const char* szFunction, const char* szFile, int nLine);
void __SetThreadPausedState(BOOL bPaused);
void __SetThreadIterations(UINT nIterations);

#ifdef __cplusplus
}
#endif

#endif  // HOST_THREAD_H
