// SPDX-License-Identifier: Apache-2.0
// Counting wait conditions on the monotonic clock: setting the time of day neither ends nor lengthens a wait.
#include <pthread.h>

#include <cerrno>
#include <ctime>

#include "host.h"

extern "C" {

BOOL WaitCond_Init(WAIT_COND* pCond) {
  if (pCond == nullptr) return FALSE;
  pCond->nCount = 0;
  if (pthread_mutex_init(&pCond->Mutex, nullptr) != 0) return FALSE;
  pthread_condattr_t attributes;
  bool bGood = pthread_condattr_init(&attributes) == 0;
  if (bGood) {
    bGood = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0 &&
            pthread_cond_init(&pCond->Cond, &attributes) == 0;
    pthread_condattr_destroy(&attributes);
  }
  if (!bGood) pthread_mutex_destroy(&pCond->Mutex);
  return bGood ? TRUE : FALSE;
}

BOOL WaitCond_Post(WAIT_COND* pCond) {
  if (pCond == nullptr) return FALSE;
  pthread_mutex_lock(&pCond->Mutex);
  ++pCond->nCount;
  pthread_cond_signal(&pCond->Cond);
  pthread_mutex_unlock(&pCond->Mutex);
  return TRUE;
}

BOOL _DoWaitCond_WaitFor(WAIT_COND* pCond, DWORD nMilliseconds, const char*, const char*, int) {
  if (pCond == nullptr) {
    errno = EINVAL;
    return FALSE;
  }
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += static_cast<time_t>(nMilliseconds / 1000);
  end.tv_nsec += static_cast<long>(nMilliseconds % 1000) * 1'000'000;
  if (end.tv_nsec >= 1'000'000'000) {
    end.tv_nsec -= 1'000'000'000;
    ++end.tv_sec;
  }
  pthread_mutex_lock(&pCond->Mutex);
  int nResult = 0;
  while (pCond->nCount == 0 && nResult == 0) nResult = pthread_cond_timedwait(&pCond->Cond, &pCond->Mutex, &end);
  const bool bTaken = pCond->nCount > 0;
  if (bTaken) --pCond->nCount;
  pthread_mutex_unlock(&pCond->Mutex);
  if (!bTaken) errno = nResult;
  return bTaken ? TRUE : FALSE;
}

void WaitCond_Destroy(WAIT_COND* pCond) {
  if (pCond == nullptr) return;
  pthread_cond_destroy(&pCond->Cond);
  pthread_mutex_destroy(&pCond->Mutex);
}

}  // extern "C"
