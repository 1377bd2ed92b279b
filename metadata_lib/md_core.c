// The functions of the parsing core that loop over whole messages. The header states their contract.
//
// Contents
//   1. Running sum
//   2. CRC
//   3. Bits
#include "md_core.h"

// =====================================================================================================
// 1. Running sum
// =====================================================================================================

static uint32_t _Sum(const uint8_t* base, size_t size) {
  uint32_t high = 0;
  uint32_t low = 0;
  for (size_t i = 0; i + 1 < size; i += 2) {
    high += base[i];
    low += base[i + 1];
  }
  if (size % 2 != 0) high += base[size - 1];
  return (high << 8) + low;
}

// Returns what the byte at a position contributes to the sum.
static uint32_t _Share(const uint8_t* base, size_t size, size_t position) {
  if (position >= size) return 0;
  return position % 2 == 0 ? (uint32_t)base[position] << 8 : base[position];
}

uint16_t _MdRunningSum(const uint8_t* base, size_t size) {
  return (uint16_t)_Sum(base, size);
}

uint16_t _MdRunningSumWithout(const uint8_t* base, size_t size, size_t position) {
  if (position >= size) return _MdRunningSum(base, size);
  return (uint16_t)(_Sum(base, size) - _Share(base, size, position) - _Share(base, size, position + 1));
}

// =====================================================================================================
// 2. CRC: reflected polynomial 0xA001, initial value 0, no final inversion
// =====================================================================================================

uint16_t _MdCrc16(const uint8_t* base, size_t size) {
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

static size_t _Smallest(size_t a, size_t b, size_t c) {
  const size_t first = a < b ? a : b;
  return first < c ? first : c;
}

int _MdCopyBits(const uint8_t* input, size_t inputBit, uint8_t* output, size_t outputBit, size_t count) {
  int result = 0;
  size_t done = 0;
  while (done < count) {
    const size_t from = (inputBit + done) % 8;
    const size_t to = (outputBit + done) % 8;
    const size_t step = _Smallest(8 - from, count - done, 8 - to);
    const unsigned bits = ((unsigned)input[(inputBit + done) / 8] >> (8 - from - step)) & ((1u << step) - 1u);
    const size_t target = (outputBit + done) / 8;
    output[target] = (uint8_t)(output[target] | bits << (8 - to - step));
    result += (int)(8 - from);
    done += step;
  }
  return result;
}
