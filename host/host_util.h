// SPDX-License-Identifier: Apache-2.0
// Time, text, the INI reader and tag names. Any thread.
#ifndef HOST_UTIL_H
#define HOST_UTIL_H

#include <sys/time.h>
#include <time.h>

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Whole seconds since the system started.
BOOL GetSystemUPTime(UINT32* pnSeconds);
// Text of a wall-clock time; returns szBuffer.
char* GenTimeStamp(time_t tTime, char* szBuffer, int nSize);
// pDiff = end - start; zero when end is before start.
void CalcTimeOfDayDiff(const struct timeval* pStart, const struct timeval* pEnd, struct timeval* pDiff);
// pDiff = |a - b|, microseconds 0 to 999999.
void CalcTimeOfDayAbsDiff(const struct timeval* pA, const struct timeval* pB, struct timeval* pDiff);

// snprintf that always terminates; the length written, without the NUL.
int PrintToString(char* szBuffer, int nSize, const char* szFormat, ...) HOST_PRINTF(3, 4);
// Copies at most nSize - 1 characters and terminates.
void CopyString(char* szDestination, const char* szSource, int nSize);

// Looks a key up; *pnSize holds the room of szOut and gets the text's length. Without file or key the default is
// stored and the result is FALSE.
BOOL CfgFile_GetStringValue(const char* szFile, const char* szSection, const char* szKey, char* szOut, int* pnSize,
                            const char* szDefault);

// Display names of MISB ST 0601 items and ST 0102 elements; never NULL.
const char* GetUAVTagName(BYTE cTag);
const char* GetSecurityTagName(BYTE cTag);

#ifdef __cplusplus
}
#endif

#endif  // HOST_UTIL_H
