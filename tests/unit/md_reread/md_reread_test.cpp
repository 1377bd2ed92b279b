// SPDX-License-Identifier: Apache-2.0
// What the decoder remembers, against answers that are computed anew each time.
#include "md_reread.h"

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
  void operator()(MdReread* memory) const { free(memory); }
};
using Memory = std::unique_ptr<MdReread, Free>;

Memory EmptyMemory() {
  return Memory(static_cast<MdReread*>(calloc(1, sizeof(MdReread))));
}

Bytes RandomStream(std::mt19937& random, size_t size) {
  Bytes stream(size);
  std::generate(stream.begin(), stream.end(), [&] { return static_cast<BYTE>(random()); });
  return stream;
}

// --- Sums ------------------------------------------------------------------------------------------------

// Asks for sums of random ranges whose start moves forward through a stream, as a decoder's messages do.
void CompareSums(std::mt19937& random, uint64_t origin, int rounds) {
  const Bytes stream = RandomStream(random, 400000);
  const Memory memory = EmptyMemory();
  size_t start = 0;
  for (int round = 0; round < rounds && start < stream.size(); ++round) {
    const size_t most = std::min<size_t>(stream.size() - start, 131000);
    const size_t size = random() % (random() % 3 == 0 ? most + 1 : std::min<size_t>(most + 1, 900));
    const std::unique_ptr<BYTE[]> exact(new BYTE[size]);
    std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(start), size, exact.get());
    _RereadAt(*memory, origin + start);
    ASSERT_EQ(_RereadSum(*memory, exact.get(), size, origin + start), _MdRunningSum(exact.get(), size))
        << start << " " << size;
    start += random() % (random() % 50 == 0 ? 100000 : 40);
  }
}

TEST(RereadSum, RandomRangesOfAStreamSumAsAnew) {
  std::mt19937 random(1);
  for (int stream = 0; stream < 6; ++stream) CompareSums(random, random(), 4000);
}

TEST(RereadSum, PositionsBeyond31BitsAreNotMistakenForOthers) {
  std::mt19937 random(2);
  CompareSums(random, (uint64_t{1} << 31) - 200000, 4000);
  CompareSums(random, (uint64_t{1} << 40) - 100001, 4000);
}

// --- Tags ------------------------------------------------------------------------------------------------

TEST(RereadRun, EndsAtTheFirstByteWithoutTheUpperBitOrAtTheEnd) {
  std::mt19937 random(3);
  for (int round = 0; round < 300; ++round) {
    Bytes stream(3000 + random() % 3000, 0x80);
    for (int i = 0; i < 3; ++i)
      if (random() % 2 == 0) stream[random() % stream.size()] = 0x7F;
    const uint64_t origin = random();
    const Memory memory = EmptyMemory();
    size_t start = 0;
    for (int message = 0; message < 30; ++message) {
      start += random() % 60;
      const size_t size = random() % (stream.size() - start + 1);
      const size_t offset = random() % (size + 1);
      const BYTE* data = stream.data() + start;
      const auto end = std::find_if(data + offset, data + size, [](BYTE byte) { return byte < 0x80; });
      _RereadAt(*memory, origin + start);
      ASSERT_EQ(_RereadRun(*memory, data, size, origin + start, offset), static_cast<size_t>(end - (data + offset)));
    }
  }
}

// --- Walks -----------------------------------------------------------------------------------------------

// An item's end in a toy format of two size codes: the length of the value stands in one byte or in two. Any byte may be
// marked.
int64_t ItemEnd(const Bytes& stream, size_t start, int64_t offset, uint32_t codes) {
  const size_t at = start + static_cast<size_t>(offset);
  if (codes == 1) return offset + 1 + stream[at];
  const int high = at + 1 < stream.size() ? stream[at + 1] : 0;
  return offset + 2 + stream[at] + high * 256;
}

struct Outcome {
  int64_t offset = 0;
  int marks = 0;  // marked items before the end, if they are looked at
  bool operator==(const Outcome&) const = default;
};

// Walks to the first border at or behind the end. Step by step without a memory; otherwise with what it knows.
Outcome WalkTo(const Bytes& stream, size_t start, int64_t from, int64_t end, uint32_t codes, bool stopsAtMarks,
               MdReread* memory, uint64_t origin, int* steps) {
  std::unique_ptr<MdRereadWalk> walk;
  if (memory != nullptr) {
    _RereadAt(*memory, origin + start);
    walk = std::make_unique<MdRereadWalk>(*memory, origin + start, codes, stopsAtMarks, from);
  }
  Outcome outcome{from, 0};
  while (outcome.offset < end) {
    if (walk) outcome.offset = walk->Skip(outcome.offset, end);
    const int64_t next = ItemEnd(stream, start, outcome.offset, codes);
    const bool marked = stream[start + static_cast<size_t>(outcome.offset)] == 7;
    if (stopsAtMarks && marked) ++outcome.marks;
    if (walk) walk->Note(next, marked);
    outcome.offset = next;
    ++*steps;
  }
  return outcome;
}

TEST(RereadWalk, MeetsTheSameBordersAndMarksAsWalksWithoutAMemory) {
  std::mt19937 random(4);
  for (int round = 0; round < 40; ++round) {
    Bytes stream = RandomStream(random, 200000);
    const int most = 1 + static_cast<int>(random() % 250);
    for (BYTE& byte : stream) byte = static_cast<BYTE>(byte % most);
    const Memory memory = EmptyMemory();
    const uint64_t origin = random() % 2 == 0 ? random() : (uint64_t{1} << 31) - 70000;
    int fewSteps = 0;
    int allSteps = 0;
    size_t start = 0;
    for (int message = 0; message < 200; ++message) {
      start += random() % 300;
      const int64_t end = static_cast<int64_t>(random() % 65536);
      const int64_t from = std::min<int64_t>(static_cast<int64_t>(random() % 30), end);
      const uint32_t codes = 1 + random() % 2;
      const bool stops = random() % 2 == 0;
      if (start + static_cast<size_t>(end) + 2 > stream.size()) break;
      ASSERT_EQ(WalkTo(stream, start, from, end, codes, stops, memory.get(), origin, &fewSteps),
                WalkTo(stream, start, from, end, codes, stops, nullptr, origin, &allSteps))
          << round << " " << message;
    }
    EXPECT_LE(fewSteps, allSteps);
  }
}

constexpr int kSmallBlock = 128;  // bytes, of the smallest blocks that a walk steps over

TEST(RereadWalk, StepsOfAPositionFourGigabytesBeforeAreForgotten) {
  const Bytes before(20000, 1);  // items of two bytes
  const Bytes after(20000, 5);   // of six
  const Memory memory = EmptyMemory();
  int steps = 0;
  WalkTo(before, 0, 0, 10000, 1, false, memory.get(), 0, &steps);
  const uint64_t origin = uint64_t{1} << 32;
  EXPECT_EQ(WalkTo(after, 0, 0, 9001, 1, false, memory.get(), origin, &steps),
            WalkTo(after, 0, 0, 9001, 1, false, nullptr, origin, &steps));
}

TEST(RereadWalk, NestedMessagesOfSmallItemsTakeFewStepsEach) {
  const Bytes stream(140000, 1);  // items of two bytes
  const Memory memory = EmptyMemory();
  int steps = 0;
  for (size_t start = 0; start < 65000; start += 9) WalkTo(stream, start, 0, 65000, 1, false, memory.get(), 0, &steps);
  // Every step of the first two walks; of each message the steps in its first block and in its last one.
  EXPECT_LE(steps, 65000 + 65000 / 9 * (kSmallBlock + 4));
}

}  // namespace
