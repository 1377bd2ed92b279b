// SPDX-License-Identifier: Apache-2.0
// The codewords of the serial CoT link, and the CRC of blocks that are read again.
//
// A frame whose CRC is wrong loses its header only, so that the next one may begin inside it and reach as far; a sender
// can nest thousands of frames in 64 KiB. All frames that begin a multiple of 155 bytes apart cut the stream into the
// same codewords: 155 bytes are eight of them, whose data bits are 105 bytes. For each of the 155 phases the memory keeps
// the CRC of these bytes from some point on. A CRC is linear, so that of a range follows from those at its two ends.
//
// Positions are those of the stream, counted from its beginning. The metadata thread only.
#ifndef MD_CODEWORDS_H
#define MD_CODEWORDS_H

#include <stddef.h>
#include <stdint.h>

#include "metadata_lib.h"

// The payload of a frame: codewords of a (31, 21) code over 5-bit symbols, back to back, most significant bit first.
inline constexpr int kCodewordDataBits = 105;
inline constexpr int kCodewordCheckBits = 50;
inline constexpr int kCodewordBits = kCodewordDataBits + kCodewordCheckBits;

inline constexpr int kGroupSize = 155;      // bytes of eight codewords
inline constexpr int kGroupDataSize = 105;  // bytes of their data bits

// The memory of one stream, about 132 KiB. Allocated once it is needed; zeros are an empty memory.
struct MdBlockCrcs {
  static constexpr uint32_t kPositions = 65536;  // what a decoder holds is no larger

  bool hasPowers;
  uint16_t groupPowers[kPositions / kGroupSize + 1];  // what groups of zeros do to a CRC, as a factor
  uint16_t bytePowers[kGroupDataSize];                // what bytes of zeros do
  uint16_t groupTimes[4][16];                         // what a group of zeros does to each half byte of a CRC
  uint64_t first[kGroupSize];                         // for each phase: there are CRCs from this position on,
  uint64_t last[kGroupSize];                          // every kGroupSize bytes, to this one
  uint16_t crc[kPositions];                           // at the lower 16 bits of the position
};

struct MdBlockCrc {
  uint16_t computed;  // over the block without its length
  uint16_t stored;    // behind the block; bits behind the last codeword are zero
};

// The two CRCs of a block of 'length' bytes, at least 2. The codewords begin at a position of the stream; their data bits
// hold the block.
MdBlockCrc _MdReadBlockCrc(MdBlockCrcs& memory, const BYTE* codewords, size_t count, uint64_t position, size_t length);

#endif  // MD_CODEWORDS_H
