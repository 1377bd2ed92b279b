// SPDX-License-Identifier: Apache-2.0
// Log lines and assertions of the library. A source file defines MD_MODULE, its name without ending, before it
// includes this header; a file that logs on another debug module than METADATALIB defines MD_DEBUG_HANDLE too.
#ifndef MD_LOG_H
#define MD_LOG_H

#include <errno.h>
#include <string.h>

#include "host_debug.h"

extern HDBG g_hMetaDataLibDbg;  // "METADATALIB"; set by METADATALIB_Init before the thread runs, cleared at shut-down
extern HDBG g_hCoTConvDbg;      // "COTCONVERTER"; the same

#ifndef MD_DEBUG_HANDLE
#define MD_DEBUG_HANDLE g_hMetaDataLibDbg
#endif

// Returns whether a level is enabled. The host may change that while the library runs.
inline bool MdLogEnabled(HDBG hDbg, int level) {
  return hDbg != nullptr && __atomic_load_n(&hDbg->nMaxLevel, __ATOMIC_RELAXED) >= level;
}

// Writes one log line: MD_LOG(7, "Received %d bytes.\n", n). Arguments are only evaluated if the level is enabled.
#define MD_LOG(level, ...)                                                                 \
  do {                                                                                     \
    if (MdLogEnabled(MD_DEBUG_HANDLE, (level)))                                            \
      _DoDbgPrintEx(MD_DEBUG_HANDLE, (level), __func__, MD_MODULE, __LINE__, __VA_ARGS__); \
  } while (0)

// Text of an errno value.
struct ErrnoText {
  char buffer[128] = {};
  const char* text;
  explicit ErrnoText(int error) : text(strerror_r(error, buffer, sizeof(buffer))) {}
};

// Writes one log line whose last two conversions, %d and %s, show errno and its text: MD_LOG_ERRNO(3, "Failed to bind
// %s, errno=%d, \"%s\".\n", name). Does not change errno.
#define MD_LOG_ERRNO(level, ...)                                                                   \
  do {                                                                                             \
    const int mdErrno = errno;                                                                     \
    if (MdLogEnabled(MD_DEBUG_HANDLE, (level))) {                                                  \
      _DoDbgPrintEx(MD_DEBUG_HANDLE, (level), __func__, MD_MODULE, __LINE__, __VA_ARGS__, mdErrno, \
                    ErrnoText(mdErrno).text);                                                      \
      errno = mdErrno;                                                                             \
    }                                                                                              \
  } while (0)

// Writes a titled hex dump.
#define MD_DUMP(level, title, data, size)                                                                  \
  do {                                                                                                     \
    if (MdLogEnabled(MD_DEBUG_HANDLE, (level)))                                                            \
      _DoDbgPrintBuffer(MD_DEBUG_HANDLE, (level), __func__, MD_MODULE, __LINE__, (title), (data), (size)); \
  } while (0)

// Reports a broken invariant with the text of the expression, which is evaluated once, and continues.
#define MD_ASSERT(expression)                                                 \
  do {                                                                        \
    if (!(expression)) _DoAssert(#expression, __func__, MD_MODULE, __LINE__); \
  } while (0)

// Does the same with a text that differs from the expression.
#define MD_ASSERT_TEXT(expression, text)                                 \
  do {                                                                   \
    if (!(expression)) _DoAssert((text), __func__, MD_MODULE, __LINE__); \
  } while (0)

// Reports a broken invariant as MD_ASSERT does, and leaves the function with a value; a void function leaves it empty.
#define MD_ASSERT_OR_RETURN(expression, value) MD_ASSERT_TEXT_OR_RETURN(expression, #expression, value)
#define MD_ASSERT_TEXT_OR_RETURN(expression, text, value) \
  do {                                                    \
    if (!(expression)) {                                  \
      _DoAssert((text), __func__, MD_MODULE, __LINE__);   \
      return value;                                       \
    }                                                     \
  } while (0)

// Reports that an unexpected branch was reached, as the assertion "0".
#define MD_ASSERT_UNREACHED() _DoAssert("0", __func__, MD_MODULE, __LINE__)

#define MD_TEXT_ASSERT(...) _DoTextAssert(__func__, MD_MODULE, __LINE__, __VA_ARGS__)

#endif  // MD_LOG_H
