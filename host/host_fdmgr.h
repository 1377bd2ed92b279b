// SPDX-License-Identifier: Apache-2.0
// File-descriptor sets: read callbacks and a select loop. A set is driven by one thread; additions and removals
// come from that thread or from before it runs.
//
// Level-triggered. Descriptors are dispatched in the order they were added. A removal takes effect inside the
// same dispatch pass. The interval is copied and re-armed for every select.
#ifndef HOST_FDMGR_H
#define HOST_FDMGR_H

#include <sys/time.h>

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tagHOST_FDSET* HFDSET;

typedef void (*FDMGR_READ_CALLBACK)(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
typedef void (*FDMGR_TIMEOUT_CALLBACK)(HFDSET hSet, void* pvParam1, void* pvParam2);

BOOL __FDMGR_CreateSet(const char* szName, HFDSET* phSet, const char* szFunction, const char* szFile, int nLine);
BOOL __FDMGR_AddReadFD(HFDSET hSet, int iFD, FDMGR_READ_CALLBACK pfnCallback, void* pvParam1, void* pvParam2,
                       const char* szFunction, const char* szFile, int nLine);
BOOL __FDMGR_RemoveReadFD(HFDSET hSet, int iFD, const char* szFunction, const char* szFile, int nLine);
// A NULL interval waits without time-out.
BOOL FDMGR_SetSelectTimeout(HFDSET hSet, const struct timeval* pInterval, FDMGR_TIMEOUT_CALLBACK pfnCallback,
                            void* pvParam1, void* pvParam2);
// One pass of waiting and dispatching: the number of descriptors dispatched, 0 after the time-out callback,
// -1 on an error.
int FDMGR_Select(HFDSET hSet);
// Closes the set, not its descriptors, and clears *phSet.
BOOL FDMGR_CloseSet(HFDSET* phSet);

#ifdef __cplusplus
}
#endif

#endif  // HOST_FDMGR_H
