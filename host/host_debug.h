// SPDX-License-Identifier: Apache-2.0
// Debug log and assertions. Every call may come from any thread.
//
// Levels: 0 always, 2 grave error, 3 error, 4 warning or discard, 5 notable event, 6 information, 7 call trace,
// 8 per-iteration trace and buffer dumps. The caller tests nMaxLevel before it calls. The file argument is the
// module's name without ending ("utils").
#ifndef HOST_DEBUG_H
#define HOST_DEBUG_H

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// A debug module. Hosts put their own fields behind the first one, which they may change at any time with an
// atomic store: readers load it atomically.
struct tagDBG_MODULE {
  int nMaxLevel;  // highest level written
};
typedef struct tagDBG_MODULE* HDBG;

// Opens a module and sets *phDbg; FALSE leaves it NULL.
BOOL _DoDbgInit(const char* szName, HDBG* phDbg);
// Closes it and clears *phDbg; a NULL handle is fine.
void _DoDbgUninitEx(HDBG* phDbg);
void _DoDbgPrintEx(HDBG hDbg, int nLevel, const char* szFunction, const char* szFile, int nLine, const char* szFormat,
                   ...) HOST_PRINTF(6, 7);
// A titled hex dump of nSize bytes.
void _DoDbgPrintBuffer(HDBG hDbg, int nLevel, const char* szFunction, const char* szFile, int nLine,
                       const char* szTitle, const void* pvData, int nSize);
// Reports a broken invariant: the failed expression's text. It must return: the library carries on after it, and some
// assertions are raised by what a sender sends.
void _DoAssert(const char* szExpression, const char* szFunction, const char* szFile, int nLine);
// The same with a formatted message.
void _DoTextAssert(const char* szFunction, const char* szFile, int nLine, const char* szFormat, ...) HOST_PRINTF(4, 5);

#ifdef __cplusplus
}
#endif

#endif  // HOST_DEBUG_H
