// SPDX-License-Identifier: Apache-2.0
// The CRCs of blocks that are read again, against those of blocks that are decoded whole.
#include "md_codewords.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "md_core.h"

namespace {

using Bytes = std::vector<BYTE>;

struct Free {
  void operator()(MdBlockCrcs* memory) const { free(memory); }
};
using Memory = std::unique_ptr<MdBlockCrcs, Free>;

Memory EmptyMemory() {
  return Memory(static_cast<MdBlockCrcs*>(calloc(1, sizeof(MdBlockCrcs))));
}

// Both CRCs of the block in this many codewords, the whole block decoded.
MdBlockCrc Decoded(const BYTE* codewords, size_t count, size_t length) {
  Bytes block(count * kCodewordDataBits / 8 + 3);
  for (size_t i = 0; i < count; ++i)
    _MdCopyBits(codewords, i * kCodewordBits, block.data(), i * kCodewordDataBits, kCodewordDataBits);
  return {_MdCrc16(block.data() + 2, length - 2), static_cast<uint16_t>(block[length] << 8 | block[length + 1])};
}

// Asks for blocks whose start moves forward through a stream, as a decoder's frames do.
void CompareBlocks(std::mt19937& random, uint64_t origin, size_t streamSize, int rounds) {
  Bytes stream(streamSize);
  std::generate(stream.begin(), stream.end(), [&] { return static_cast<BYTE>(random()); });
  const Memory memory = EmptyMemory();
  size_t start = 0;
  for (int round = 0; round < rounds && start < streamSize; ++round) {
    const size_t most = std::min<size_t>(streamSize - start, 65519);
    const size_t size = random() % 3 == 0 ? most : random() % (std::min<size_t>(most, 2000) + 1);
    const size_t count = size * 8 / kCodewordBits;
    const size_t dataSize = count * kCodewordDataBits / 8;
    if (dataSize < 2) break;
    const size_t length =
        random() % 3 == 0 ? dataSize - random() % std::min<size_t>(dataSize - 1, 4) : 2 + random() % (dataSize - 1);
    const std::unique_ptr<BYTE[]> exact(new BYTE[size]);
    std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(start), size, exact.get());
    const MdBlockCrc expected = Decoded(exact.get(), count, length);
    const MdBlockCrc got = _MdReadBlockCrc(*memory, exact.get(), count, origin + start, length);
    ASSERT_EQ(got.computed, expected.computed) << start << " " << length << " in " << count;
    ASSERT_EQ(got.stored, expected.stored) << start << " " << length << " in " << count;
    start += random() % 20 == 0 ? random() % 70000 : random() % 60;
  }
}

TEST(BlockCrc, RandomBlocksOfAStreamHaveTheCRCsOfTheDecodedOnes) {
  std::mt19937 random(1);
  for (int stream = 0; stream < 8; ++stream) CompareBlocks(random, random(), 300000, 400);
}

TEST(BlockCrc, ManyShortBlocksAtEveryPhase) {
  std::mt19937 random(2);
  for (int stream = 0; stream < 20; ++stream) CompareBlocks(random, random(), 5000, 2000);
}

TEST(BlockCrc, FirstBlockOfAStreamIsAtPositionZero) {
  std::mt19937 random(3);
  for (int stream = 0; stream < 20; ++stream) CompareBlocks(random, 0, 30000, 50);
}

TEST(BlockCrc, OneCodewordHoldsABlockOfThirteenBytesAtMost) {
  const Bytes codeword = {0x03, 0x00, 0x55, 0xAA, 0x00, 0xFF, 0x12, 0x34, 0x56, 0x78,
                          0x9A, 0xBC, 0xDE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  const Memory memory = EmptyMemory();
  for (size_t length = 2; length <= 13; ++length) {
    const MdBlockCrc expected = Decoded(codeword.data(), 1, length);
    const MdBlockCrc got = _MdReadBlockCrc(*memory, codeword.data(), 1, 1000, length);
    EXPECT_EQ(got.computed, expected.computed) << length;
    EXPECT_EQ(got.stored, expected.stored) << length;
  }
}

}  // namespace
