// SPDX-License-Identifier: Apache-2.0
// Private side of the buffers and utilities: a buffer without its zeros, and the counters, for tests.
#ifndef UTILS_H
#define UTILS_H

#include <stdint.h>

#include "metadata_lib.h"

// Buffers allocated and freed so far, both wrapping, and the highest number that there were at a time. Relaxed atomics:
// they only feed one log line.
extern uint32_t _g_nAllocatedBuffers;
extern uint32_t _g_nFreedBuffers;
extern int32_t _g_nMaxAllocatedBuffers;

// Does the same as DoAllocBuffer, but leaves the data as the C library gives it out.
bool _AllocUnfilledBuffer(int dataSize, MDATA_BUFFER** out);

#endif  // UTILS_H
