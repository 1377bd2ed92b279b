// SPDX-License-Identifier: Apache-2.0
// Stands for the 16-bit running sum of MISB ST 0601 as the standard writes it: byte after byte, even positions as high bytes.
#include <stdint.h>

#include "floors.h"

uint16_t FloorChecksum(const uint8_t* data, size_t size) {
  uint16_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum = (uint16_t)(sum + (data[i] << (8 * ((i + 1) % 2))));
  return sum;
}
