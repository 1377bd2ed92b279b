// SPDX-License-Identifier: Apache-2.0
// The CRC of blocks that are read again. See the header.
//
// Contents
//   1. Arithmetic of the CRC
//   2. Groups of codewords
//   3. Blocks
#include "md_codewords.h"

#include <string.h>

#include "md_core.h"

// =====================================================================================================
// 1. Arithmetic of the CRC: polynomials modulo that of CRC-16/ARC, reflected, so that bit 15 is x^0.
// =====================================================================================================

static constexpr uint32_t kOne = 0x8000;

static uint32_t _TimesX(uint32_t a) {
  return (a & 1u) != 0 ? a >> 1 ^ 0xA001u : a >> 1;
}

static uint16_t _Times(uint32_t a, uint32_t b) {
  uint32_t product = 0;
  for (uint32_t bit = kOne; bit != 0; bit >>= 1) {
    if ((b & bit) != 0) product ^= a;
    a = _TimesX(a);
  }
  return static_cast<uint16_t>(product);
}

// Each byte of zeros behind the data multiplies a CRC by x^8.
static void _MakePowers(MdBlockCrcs& memory) {
  if (memory.hasPowers) return;
  uint32_t power = kOne;
  for (uint16_t& bytePower : memory.bytePowers) {
    bytePower = static_cast<uint16_t>(power);
    for (int bit = 0; bit < 8; ++bit) power = _TimesX(power);
  }
  const uint32_t group = power;
  power = kOne;
  for (uint16_t& groupPower : memory.groupPowers) {
    groupPower = static_cast<uint16_t>(power);
    power = _Times(power, group);
  }
  memory.hasPowers = true;
}

// =====================================================================================================
// 2. Groups of codewords
// =====================================================================================================

// The data bits of at most nine codewords.
struct DataBits {
  BYTE bytes[9 * kCodewordDataBits / 8 + 1] = {};

  DataBits(const BYTE* codewords, size_t count) {
    for (size_t i = 0; i < count; ++i)
      _MdCopyBits(codewords, i * kCodewordBits, bytes, i * kCodewordDataBits, kCodewordDataBits);
  }
};

// The bits from one on, 64 of them. The codeword that they lie in reaches further.
static uint64_t _ReadWord(const BYTE* codewords, size_t bit) {
  uint64_t word = 0;
  memcpy(&word, codewords + bit / 8, sizeof(word));
  // Without a shift, nothing is left of the ninth byte.
  return __builtin_bswap64(word) << bit % 8 | codewords[bit / 8 + 8] >> (8 - bit % 8);
}

// The data bits of a whole group, which fill its bytes.
struct GroupData {
  static constexpr int kWords = (kGroupDataSize + 7) / 8;
  static constexpr int kSecondPart = kCodewordDataBits - 64;

  uint64_t words[kWords];  // in memory, the bytes in order

  explicit GroupData(const BYTE* codewords) {
    uint64_t bits = 0;  // not yet written, from the highest one on
    int count = 0;      // how many
    int written = 0;
    for (size_t i = 0; i < 8; ++i) {
      const uint64_t first = _ReadWord(codewords, i * kCodewordBits);
      const uint64_t second = _ReadWord(codewords, i * kCodewordBits + 64) >> (64 - kSecondPart) << (64 - kSecondPart);
      words[written++] = __builtin_bswap64(bits | first >> count);
      bits = count > 0 ? first << (64 - count) : 0;
      bits |= second >> count;
      count += kSecondPart;
      if (count < 64) continue;
      words[written++] = __builtin_bswap64(bits);
      count -= 64;
      bits = second << (kSecondPart - count);
    }
    words[written] = __builtin_bswap64(bits);
  }
};

static uint16_t& _CrcAt(MdBlockCrcs& memory, uint64_t position) {
  return memory.crc[position % MdBlockCrcs::kPositions];
}

// Makes the CRCs of a phase from a position on, over this many groups.
static void _CoverGroups(MdBlockCrcs& memory, const BYTE* codewords, uint64_t position, size_t groups) {
  uint64_t& first = memory.first[position % kGroupSize];
  uint64_t& last = memory.last[position % kGroupSize];
  const bool known = first <= position && position <= last && position % kGroupSize == last % kGroupSize;
  if (!known) {
    first = position;
    last = position;
    _CrcAt(memory, position) = 0;
  }
  const uint64_t end = position + groups * kGroupSize;
  for (; last < end; last += kGroupSize) {
    const GroupData data(codewords + (last - position));
    const uint16_t crc = _MdCrc16(reinterpret_cast<const BYTE*>(data.words), kGroupDataSize);
    _CrcAt(memory, last + kGroupSize) =
        static_cast<uint16_t>(_Times(_CrcAt(memory, last), memory.groupPowers[1]) ^ crc);
  }
  // Positions that are a whole ring behind have been overwritten.
  while (last - first >= MdBlockCrcs::kPositions) first += kGroupSize;
}

// =====================================================================================================
// 3. Blocks
// =====================================================================================================

MdBlockCrc _MdReadBlockCrc(MdBlockCrcs& memory, const BYTE* codewords, size_t count, uint64_t position, size_t length) {
  _MakePowers(memory);
  const size_t groups = length / kGroupDataSize;
  const size_t rest = length % kGroupDataSize;
  _CoverGroups(memory, codewords, position, groups);

  // The rest of the block, and the CRC behind it.
  const size_t left = count - groups * 8;
  const size_t needed = ((rest + 2) * 8 + kCodewordDataBits - 1) / kCodewordDataBits;
  const DataBits tail(codewords + groups * kGroupSize, needed < left ? needed : left);

  // The length in front of the message does not belong to it: without it the message begins with zeros, which count for
  // nothing. As a polynomial it is its bytes in order, least significant bit first.
  const DataBits head(codewords, 1);
  const uint32_t lengthWord = head.bytes[0] | static_cast<uint32_t>(head.bytes[1]) << 8;
  const uint32_t before = _CrcAt(memory, position) ^ lengthWord;
  const uint32_t whole = _Times(before, memory.groupPowers[groups]) ^ _CrcAt(memory, position + groups * kGroupSize);
  MdBlockCrc result;
  result.computed = static_cast<uint16_t>(_Times(whole, memory.bytePowers[rest]) ^ _MdCrc16(tail.bytes, rest));
  result.stored = static_cast<uint16_t>(tail.bytes[rest] << 8 | tail.bytes[rest + 1]);
  return result;
}
