// SPDX-License-Identifier: Apache-2.0
// Stands for CRC-16/ARC as its definition says it: bit after bit.
#include <stdint.h>

#include "floors.h"

uint16_t FloorCrc(const uint8_t* data, size_t size) {
  unsigned crc = 0;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) != 0 ? crc >> 1 ^ 0xA001u : crc >> 1;
  }
  return (uint16_t)crc;
}
