// SPDX-License-Identifier: Apache-2.0
// Stands for the search for a pattern: memmem, which is what the C library has for it.
#include <stdint.h>
#include <string.h>

#include "floors.h"

ptrdiff_t FloorScan(const void* data, size_t size, const void* pattern, size_t patternSize) {
  const uint8_t* found = memmem(data, size, pattern, patternSize);
  return found == NULL ? -1 : found - (const uint8_t*)data;
}
