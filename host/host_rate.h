// SPDX-License-Identifier: Apache-2.0
// Rate counters: the bit rate of a running byte total. Safe from two threads.
#ifndef HOST_RATE_H
#define HOST_RATE_H

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tagHOST_COUNTER_RATE* HCOUNTERRATE;

// A table that averages over nSamples additions.
BOOL __AllocCounterRateTable(int nSamples, const char* szName, HCOUNTERRATE* phRate);
// Adds the running total in bytes, with the time of the call. A total that falls back or jumps spoils no rate.
void AddCounterValue(HCOUNTERRATE hRate, UINT64 nRunningTotal);
// The rate in kbit/s; nOptions is reserved.
BOOL GetCounterRate(HCOUNTERRATE hRate, int nOptions, UINT32* pnRate);
void ResetCounterRateTable(HCOUNTERRATE hRate);
void DeleteCounterRateTable(HCOUNTERRATE hRate);

#ifdef __cplusplus
}
#endif

#endif  // HOST_RATE_H
