// SPDX-License-Identifier: Apache-2.0
// The 16-bit running sum of MISB ST 0601 eight bytes at a time, as the floors take it that work on whole messages.
#include <stdint.h>
#include <string.h>

#include "floors.h"

// Two 8-byte lanes of the word's bytes: even positions are high bytes. The words are little-endian.
uint16_t FloorWordSum(const uint8_t* data, size_t size) {
  const uint64_t lanes = 0x00FF00FF00FF00FFu;
  uint64_t even = 0;
  uint64_t odd = 0;
  size_t i = 0;
  while (size - i >= 8) {
    // 128 words at most keep the 16-bit lanes from running over.
    const size_t end = i + ((size - i) / 8 < 128 ? (size - i) / 8 : 128) * 8;
    uint64_t evenLanes = 0;
    uint64_t oddLanes = 0;
    for (; i < end; i += 8) {
      uint64_t word = 0;
      memcpy(&word, data + i, 8);
      evenLanes += word & lanes;
      oddLanes += word >> 8 & lanes;
    }
    for (int shift = 0; shift < 64; shift += 16) {
      even += evenLanes >> shift & 0xFFFF;
      odd += oddLanes >> shift & 0xFFFF;
    }
  }
  for (; i < size; ++i) *(i % 2 == 0 ? &even : &odd) += data[i];
  return (uint16_t)((even << 8) + odd);
}
