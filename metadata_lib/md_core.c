// SPDX-License-Identifier: Apache-2.0
// The functions of the parsing core that loop over whole messages. The header states their contract.
//
// Contents
//   1. Running sum
//   2. CRC
//   3. Bits
//
// The loops take eight bytes a step as one word. No load reaches outside the data, whatever its alignment.
#include "md_core.h"

#include <string.h>

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the words of the loops below are little-endian"
#endif

enum { kMdWordSize = 8 };  // bytes of a word

static uint64_t _LoadWord(const uint8_t* base, size_t position) {
  uint64_t word = 0;
  memcpy(&word, base + position, kMdWordSize);
  return word;
}

// =====================================================================================================
// 1. Running sum
// =====================================================================================================

enum { kMdMostWordsInLanes = 256 };  // 256 * 255 still fits into a lane of 16 bits

static uint32_t _SumOfLanes(uint64_t lanes) {
  return (uint32_t)((lanes & 0xFFFF) + (lanes >> 16 & 0xFFFF) + (lanes >> 32 & 0xFFFF) + (lanes >> 48));
}

// The bytes at odd positions, each in a lane of 16 bits.
static uint64_t _OddBytes(uint64_t word) {
  return word >> 8 & 0x00FF00FF00FF00FFu;
}

// Adds the sums of at most kMdMostWordsInLanes words. Only the bytes at odd positions are taken apart: without them, the
// sum of the whole words is that of the bytes at even positions, lane by lane, because their lanes do not overflow
// either.
static void _AddWords(const uint8_t* base, size_t words, uint32_t* even, uint32_t* odd) {
  uint64_t all = 0;
  uint64_t low = 0;
  size_t i = 0;
  for (; i + 4 <= words; i += 4) {
    const uint64_t a = _LoadWord(base, i * kMdWordSize);
    const uint64_t b = _LoadWord(base, (i + 1) * kMdWordSize);
    const uint64_t c = _LoadWord(base, (i + 2) * kMdWordSize);
    const uint64_t d = _LoadWord(base, (i + 3) * kMdWordSize);
    all += a + b + c + d;
    low += _OddBytes(a) + _OddBytes(b) + (_OddBytes(c) + _OddBytes(d));
  }
  for (; i < words; ++i) {
    const uint64_t word = _LoadWord(base, i * kMdWordSize);
    all += word;
    low += _OddBytes(word);
  }
  *even += _SumOfLanes(all - (low << 8));
  *odd += _SumOfLanes(low);
}

void _MdSumParts(const uint8_t* base, size_t size, uint32_t* even, uint32_t* odd) {
  size_t position = 0;
  *even = 0;
  *odd = 0;
  while (size - position >= kMdWordSize) {
    size_t words = (size - position) / kMdWordSize;
    if (words > kMdMostWordsInLanes) words = kMdMostWordsInLanes;
    _AddWords(base + position, words, even, odd);
    position += words * kMdWordSize;
  }
  for (; position + 2 <= size; position += 2) {
    *even += base[position];
    *odd += base[position + 1];
  }
  if (position < size) *even += base[position];
}

static uint32_t _Sum(const uint8_t* base, size_t size) {
  uint32_t even = 0;
  uint32_t odd = 0;
  _MdSumParts(base, size, &even, &odd);
  return (even << 8) + odd;
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
//
// The polynomial x^16 + x^15 + x^2 + 1 is (x + 1) * q with q = x^15 + x + 1. The remainder modulo x + 1 is the parity of
// all bits; modulo q the equation x^64 = x^8 + x^4 holds, which folds a whole word with a few shifts. The two together
// give the remainder modulo the product. In the reflected order a word's least significant bit is its highest power, so
// multiplying by x^n is a shift to the right by n.
// =====================================================================================================

// q itself, reflected in 16 bits, where the parity is odd: a multiple of q, so that only the parity changes.
static uint32_t _QWhenOdd(unsigned parity) {
  return parity != 0 ? 0xC001u : 0u;
}

static unsigned _Parity(uint64_t word) {
  word ^= word >> 32;
  word ^= word >> 16;
  word ^= word >> 8;
  word ^= word >> 4;
  return 0x6996u >> (word & 0xF) & 1u;
}

// A word congruent modulo q to the word times x^64.
static uint64_t _FoldWord(uint64_t word) {
  // Multiplied by x^8 + x^4, the lowest eight bits reach x^64 and above. Folding these once more first, by the same
  // equation, leaves two shifts that lose nothing.
  const uint64_t folded = word ^ word << 56 ^ word << 60;
  return folded >> 8 ^ folded >> 4;
}

// The CRC of a word's eight bytes.
static uint32_t _CrcOfWord(uint64_t word) {
  uint32_t crc = 0;
  for (int i = 0; i < kMdWordSize; ++i) {
    const uint32_t index = (crc ^ (uint32_t)(word >> 8 * i)) & 0xFF;
    crc = crc >> 8 ^ index << 6 ^ index << 7 ^ _QWhenOdd(_Parity(index));
  }
  return crc;
}

uint16_t _MdCrc16(const uint8_t* base, size_t size) {
  // Zeros before the data change nothing, so the bytes that are too few for a word come first.
  size_t position = size % kMdWordSize;
  uint64_t remainder = 0;
  for (size_t i = 0; i < position; ++i) remainder |= (uint64_t)base[i] << 8 * (kMdWordSize - position + i);
  uint64_t all = remainder;
  for (; position < size; position += kMdWordSize) {
    const uint64_t word = _LoadWord(base, position);
    all ^= word;
    remainder = _FoldWord(remainder) ^ word;
  }
  return (uint16_t)(_CrcOfWord(remainder) ^ _QWhenOdd(_Parity(remainder ^ all)));
}

// =====================================================================================================
// 3. Bits
// =====================================================================================================

// Reads at most eight bits; of the second byte nothing is read unless the bits reach into it.
static unsigned _ReadBits(const uint8_t* input, size_t inputBit, size_t count) {
  const size_t from = inputBit % 8;
  unsigned pair = (unsigned)input[inputBit / 8] << 8;
  if (from + count > 8) pair |= input[inputBit / 8 + 1];
  return pair >> (16 - from - count) & ((1u << count) - 1u);
}

// ORs eight whole output bytes with the 64 bits from an input bit on.
static void _CopyWord(const uint8_t* input, size_t inputBit, uint8_t* output) {
  const size_t from = inputBit % 8;
  uint64_t bits = __builtin_bswap64(_LoadWord(input, inputBit / 8));
  if (from != 0) bits = bits << from | (uint64_t)(input[inputBit / 8 + kMdWordSize] >> (8 - from));
  bits = __builtin_bswap64(bits) | _LoadWord(output, 0);
  memcpy(output, &bits, kMdWordSize);
}

// What copying bit by bit up to each byte boundary of both sides adds up to: at the start of each such step, the bits
// that are left of the input's byte.
static int _SumOfSteps(size_t inputBit, size_t outputBit, size_t count) {
  const size_t apart = (inputBit - outputBit) % 8;
  const size_t inputBoundaries = (inputBit + count - 1) / 8 - inputBit / 8;
  const size_t otherBoundaries = apart != 0 ? (outputBit + count - 1) / 8 - outputBit / 8 : 0;
  return (int)(8 - inputBit % 8 + inputBoundaries * 8 + otherBoundaries * (8 - apart));
}

// ORs the last count bits of both sides, at most 57, that end with the bits behind inputEnd and outputEnd. Both sides have
// eight bytes up to there.
static void _CopyTail(const uint8_t* input, size_t inputEnd, uint8_t* output, size_t outputEnd, size_t count) {
  uint8_t* last = output + (outputEnd + 7) / 8 - kMdWordSize;
  uint64_t bits = __builtin_bswap64(_LoadWord(input, (inputEnd + 7) / 8 - kMdWordSize));
  bits = bits >> (8 - inputEnd % 8) % 8 & (((uint64_t)1 << count) - 1);
  bits <<= (8 - outputEnd % 8) % 8;
  bits = __builtin_bswap64(bits) | _LoadWord(last, 0);
  memcpy(last, &bits, kMdWordSize);
}

// ORs count bits, at most eight, into one byte of the output.
static void _CopyIntoByte(const uint8_t* input, size_t inputBit, uint8_t* output, size_t outputBit, size_t count) {
  const unsigned bits = _ReadBits(input, inputBit, count) << (8 - outputBit % 8 - count);
  output[outputBit / 8] = (uint8_t)(output[outputBit / 8] | bits);
}

int _MdCopyBits(const uint8_t* input, size_t inputBit, uint8_t* output, size_t outputBit, size_t count) {
  if (count == 0) return 0;
  size_t done = (8 - outputBit % 8) % 8;
  if (done > count) done = count;
  if (done > 0) _CopyIntoByte(input, inputBit, output, outputBit, done);
  // From here on the output's bits begin with a byte.
  for (; count - done >= 64; done += 64) _CopyWord(input, inputBit + done, output + (outputBit + done) / 8);
  while (done < count) {
    const size_t left = count - done;
    if (count >= 72 && left <= 57) {
      _CopyTail(input, inputBit + count, output, outputBit + count, left);
      break;
    }
    const size_t step = left < 8 ? left : 8;
    _CopyIntoByte(input, inputBit + done, output, outputBit + done, step);
    done += step;
  }
  return _SumOfSteps(inputBit, outputBit, count);
}
