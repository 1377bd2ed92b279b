// SPDX-License-Identifier: Apache-2.0
// The CRC of blocks that are read again. See the header.
//
// Contents
//   1. Arithmetic of the CRC
//   2. Groups of codewords
//   3. Blocks
#include "md_codewords.h"

#include <string.h>

#include <iterator>
#include <utility>

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
  for (uint32_t nibble = 0; nibble < std::size(memory.groupTimes); ++nibble)
    for (uint32_t value = 0; value < std::size(memory.groupTimes[0]); ++value)
      memory.groupTimes[nibble][value] = _Times(value << 4 * nibble, group);
  memory.hasPowers = true;
}

// =====================================================================================================
// 2. Groups of codewords
// =====================================================================================================

// The bits from one on, 64 of them. The codeword that they lie in reaches further.
static uint64_t _ReadWord(const BYTE* codewords, size_t bit) {
  uint64_t word = 0;
  memcpy(&word, codewords + bit / 8, sizeof(word));
  // Without a shift, nothing is left of the ninth byte.
  return __builtin_bswap64(word) << bit % 8 | codewords[bit / 8 + 8] >> (8 - bit % 8);
}

// The data bits of at most nine codewords, and zeros behind them. Those of eight, a group, fill their bytes.
class DataBits {
 public:
  DataBits(const BYTE* codewords, size_t number) {
    Append(codewords, number, std::make_index_sequence<kMostCodewords>());
  }

  const BYTE* Bytes() const { return reinterpret_cast<const BYTE*>(m_words); }

 private:
  static constexpr size_t kMostCodewords = 9;
  static constexpr size_t kWords = (kMostCodewords * kCodewordDataBits + 63) / 64;
  static constexpr size_t kSecondPart = kCodewordDataBits - 64;

  // The distances are known for each codeword, so that the shifts are constants.
  template <size_t... kIndices>
  void Append(const BYTE* codewords, size_t number, std::index_sequence<kIndices...>) {
    ((kIndices < number ? AppendOne<kIndices>(codewords) : void()), ...);
    for (uint64_t& word : m_words) word = __builtin_bswap64(word);
  }

  template <size_t kIndex>
  void AppendOne(const BYTE* codewords) {
    constexpr size_t kWord = kIndex * kCodewordDataBits / 64;
    constexpr size_t kBit = kIndex * kCodewordDataBits % 64;
    const uint64_t first = _ReadWord(codewords, kIndex * kCodewordBits);
    const uint64_t second = _ReadWord(codewords, kIndex * kCodewordBits + 64) >> (64 - kSecondPart)
                                                                                     << (64 - kSecondPart);
    m_words[kWord] |= first >> kBit;
    m_words[kWord + 1] |= second >> kBit;
    if constexpr (kBit > 0) m_words[kWord + 1] |= first << (64 - kBit);
    if constexpr (kBit + kSecondPart > 64) m_words[kWord + 2] |= second << (64 - kBit);
  }

  uint64_t m_words[kWords] = {};  // in memory, the bytes in order
};

// The CRC before a group, multiplied by what a group of zeros does.
static uint16_t _PassGroup(const MdBlockCrcs& memory, uint32_t crc) {
  return memory.groupTimes[0][crc & 15] ^ memory.groupTimes[1][crc >> 4 & 15] ^ memory.groupTimes[2][crc >> 8 & 15] ^
         memory.groupTimes[3][crc >> 12];
}

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
    const DataBits data(codewords + (last - position), 8);
    const uint16_t crc = _MdCrc16(data.Bytes(), kGroupDataSize);
    _CrcAt(memory, last + kGroupSize) = _PassGroup(memory, _CrcAt(memory, last)) ^ crc;
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
  // nothing. As a polynomial it is its bytes in order, least significant bit first. They are the first ones of the first
  // codeword.
  const uint32_t lengthWord = codewords[0] | static_cast<uint32_t>(codewords[1]) << 8;
  const uint32_t before = _CrcAt(memory, position) ^ lengthWord;
  const uint32_t whole = _Times(before, memory.groupPowers[groups]) ^ _CrcAt(memory, position + groups * kGroupSize);
  MdBlockCrc result;
  result.computed = static_cast<uint16_t>(_Times(whole, memory.bytePowers[rest]) ^ _MdCrc16(tail.Bytes(), rest));
  result.stored = static_cast<uint16_t>(tail.Bytes()[rest] << 8 | tail.Bytes()[rest + 1]);
  return result;
}
