// Private side of the buffers and utilities: the buffer counters, for tests.
#ifndef UTILS_H
#define UTILS_H

#include <stdint.h>

// Buffers allocated now, and the highest number so far. Relaxed atomics: they only feed one log line.
extern int32_t _g_nAllocatedBuffers;
extern int32_t _g_nMaxAllocatedBuffers;

#endif  // UTILS_H
