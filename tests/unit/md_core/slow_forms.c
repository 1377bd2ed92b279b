// SPDX-License-Identifier: Apache-2.0
// The sums and bits of the parsing core in their plainest form: a byte, a bit or a step at a time. What the core computes
// is defined by these.
#include "slow_forms.h"

// =====================================================================================================
// 1. Running sum
// =====================================================================================================

static uint32_t Sum(const uint8_t* base, size_t size) {
  uint32_t high = 0;
  uint32_t low = 0;
  for (size_t i = 0; i + 1 < size; i += 2) {
    high += base[i];
    low += base[i + 1];
  }
  if (size % 2 != 0) high += base[size - 1];
  return (high << 8) + low;
}

// What the byte at a position adds to the sum.
static uint32_t Share(const uint8_t* base, size_t size, size_t position) {
  if (position >= size) return 0;
  return position % 2 == 0 ? (uint32_t)base[position] << 8 : base[position];
}

uint16_t SlowRunningSum(const uint8_t* base, size_t size) {
  return (uint16_t)Sum(base, size);
}

uint16_t SlowRunningSumWithout(const uint8_t* base, size_t size, size_t position) {
  if (position >= size) return SlowRunningSum(base, size);
  return (uint16_t)(Sum(base, size) - Share(base, size, position) - Share(base, size, position + 1));
}

// =====================================================================================================
// 2. CRC: reflected polynomial 0xA001, initial value 0, no final inversion
// =====================================================================================================

uint16_t SlowCrc16(const uint8_t* base, size_t size) {
  uint32_t crc = 0;
  for (size_t i = 0; i < size; ++i) {
    crc ^= base[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) != 0 ? (crc >> 1) ^ 0xA001u : crc >> 1;
  }
  return (uint16_t)crc;
}

// =====================================================================================================
// 3. Bits
// =====================================================================================================

static size_t Smallest(size_t a, size_t b, size_t c) {
  const size_t first = a < b ? a : b;
  return first < c ? first : c;
}

int SlowCopyBits(const uint8_t* input, size_t inputBit, uint8_t* output, size_t outputBit, size_t count) {
  int result = 0;
  size_t done = 0;
  while (done < count) {
    const size_t from = (inputBit + done) % 8;
    const size_t to = (outputBit + done) % 8;
    const size_t step = Smallest(8 - from, count - done, 8 - to);
    const unsigned bits = ((unsigned)input[(inputBit + done) / 8] >> (8 - from - step)) & ((1u << step) - 1u);
    const size_t target = (outputBit + done) / 8;
    output[target] = (uint8_t)(output[target] | bits << (8 - to - step));
    result += (int)(8 - from);
    done += step;
  }
  return result;
}
