// SPDX-License-Identifier: Apache-2.0
// Counting wait conditions: a post that comes before the wait is not lost. Any thread posts, any thread waits.
#ifndef HOST_WAITCOND_H
#define HOST_WAITCOND_H

#include <pthread.h>

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Owned by the caller, filled by WaitCond_Init; do not copy.
typedef struct tagWAIT_COND {
  pthread_mutex_t Mutex;
  pthread_cond_t Cond;  // on the monotonic clock
  UINT64 nCount;        // posts not yet waited for
} WAIT_COND;

BOOL WaitCond_Init(WAIT_COND* pCond);
BOOL WaitCond_Post(WAIT_COND* pCond);
// Takes one post, waiting for it at most nMilliseconds; FALSE and errno ETIMEDOUT when none came.
BOOL _DoWaitCond_WaitFor(WAIT_COND* pCond, DWORD nMilliseconds, const char* szFunction, const char* szFile, int nLine);
void WaitCond_Destroy(WAIT_COND* pCond);

#ifdef __cplusplus
}
#endif

#endif  // HOST_WAITCOND_H
