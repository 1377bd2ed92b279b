// SPDX-License-Identifier: Apache-2.0
// What the KLV stream decoder remembers about bytes that it reads again. See the header.
//
// Contents
//   1. Sums
//   2. Tags
//   3. Walks
#include "md_reread.h"

#include <string.h>

#include <iterator>

#include "md_core.h"

void _RereadAt(MdReread& memory, uint64_t position) {
  // Positions are kept in 32 bits. The window that a decoder holds may cross an epoch's border, at which all is
  // forgotten once.
  const uint64_t epoch = position >> 31;
  if (memory.epoch == epoch) return;
  memset(&memory, 0, sizeof(memory));
  memory.epoch = epoch;
}

// =====================================================================================================
// 1. Sums. Sums of the bytes at even and at odd positions of the stream, from an unknown point on, modulo 65536.
// =====================================================================================================

namespace {

struct Sums {
  uint32_t even = 0;
  uint32_t odd = 0;
};

}  // namespace

static Sums _SumsOf(const BYTE* data, size_t size, uint64_t position) {
  Sums sums;
  _MdSumParts(data, size, &sums.even, &sums.odd);
  if (position % 2 == 0) return sums;
  return {sums.odd, sums.even};
}

// Makes the sums at the borders from first to last, which the data covers.
static void _CoverBorders(MdReread& memory, const BYTE* data, uint64_t position, uint64_t first, uint64_t last) {
  if (first < memory.firstSum || first > memory.lastSum) {
    memory.firstSum = first;
    memory.lastSum = first;
  }
  for (; memory.lastSum < last; ++memory.lastSum) {
    const uint64_t border = memory.lastSum * kRereadBlock;
    const Sums block = _SumsOf(data + (border - position), kRereadBlock, border);
    const uint32_t from = memory.lastSum % MdReread::kBlocks;
    const uint32_t to = (memory.lastSum + 1) % MdReread::kBlocks;
    memory.even[to] = static_cast<uint16_t>(memory.even[from] + block.even);
    memory.odd[to] = static_cast<uint16_t>(memory.odd[from] + block.odd);
  }
  if (memory.lastSum - memory.firstSum >= MdReread::kBlocks) memory.firstSum = memory.lastSum - MdReread::kBlocks + 1;
}

uint16_t _RereadSum(MdReread& memory, const BYTE* data, size_t size, uint64_t position) {
  const uint64_t end = position + size;
  const uint64_t first = (position + kRereadBlock - 1) / kRereadBlock;
  const uint64_t last = end / kRereadBlock;
  if (last <= first) return _MdRunningSum(data, size);
  _CoverBorders(memory, data, position, first, last);
  const size_t headSize = static_cast<size_t>(first * kRereadBlock - position);
  const size_t tailSize = static_cast<size_t>(end - last * kRereadBlock);
  const Sums head = _SumsOf(data, headSize, position);
  const Sums tail = _SumsOf(data + size - tailSize, tailSize, last * kRereadBlock);
  const uint32_t from = first % MdReread::kBlocks;
  const uint32_t to = last % MdReread::kBlocks;
  const uint32_t even = head.even + tail.even + memory.even[to] - memory.even[from];
  const uint32_t odd = head.odd + tail.odd + memory.odd[to] - memory.odd[from];
  return static_cast<uint16_t>(position % 2 == 0 ? (even << 8) + odd : (odd << 8) + even);
}

// =====================================================================================================
// 2. Tags
// =====================================================================================================

// How many bytes from the first one on have their upper bit set.
static size_t _RunLength(const BYTE* data, size_t size) {
  size_t run = 0;
  for (; run + sizeof(uint64_t) <= size; run += sizeof(uint64_t)) {
    uint64_t word = 0;
    memcpy(&word, data + run, sizeof(word));
    if ((word & 0x8080808080808080u) != 0x8080808080808080u) break;
  }
  while (run < size && data[run] >= 0x80) ++run;
  return run;
}

// Whether all bytes of a block have their upper bit set. The low bit of an entry is the answer, the others are the
// number of the block, plus one.
static bool _IsRun(MdReread& memory, const BYTE* block, uint64_t number) {
  uint32_t& entry = memory.runs[number % MdReread::kBlocks];
  const uint32_t key = static_cast<uint32_t>(number + 1) << 1;
  if ((entry & ~1u) != key) entry = key | (_RunLength(block, kRereadBlock) == kRereadBlock ? 1u : 0u);
  return (entry & 1u) != 0;
}

size_t _RereadRun(MdReread& memory, const BYTE* data, size_t size, uint64_t position, size_t offset) {
  size_t at = offset;
  while (at < size) {
    const uint64_t number = (position + at) / kRereadBlock;
    const size_t left = static_cast<size_t>((number + 1) * kRereadBlock - (position + at));
    if (left == kRereadBlock && size - at >= kRereadBlock && _IsRun(memory, data + at, number)) {
      at += kRereadBlock;
      continue;
    }
    const size_t part = left < size - at ? left : size - at;
    const size_t run = _RunLength(data + at, part);
    at += run;
    if (run < part) break;
  }
  return at - offset;
}

// =====================================================================================================
// 3. Walks
// =====================================================================================================

static constexpr uint32_t kDistanceBits = 20;
static constexpr uint32_t kMostDistance = (1u << kDistanceBits) - 1;
static constexpr uint32_t kMarked = 1u << 31;

// A step in one number: a mark, the size codes, the distance.
static uint32_t _Pack(uint32_t codes, uint32_t distance, bool marked) {
  return (marked ? kMarked : 0) | codes << kDistanceBits | distance;
}

static constexpr int kLevels = 3;
static constexpr int kBlockShifts[kLevels] = {7, 10, 13};  // blocks of 128 bytes, 1 KiB and 8 KiB

// Borders that repeat at a distance differ in few bits of the product but the upper ones.
static uint32_t _Hash(uint64_t position, uint32_t codes) {
  return static_cast<uint32_t>((position ^ uint64_t{codes} << 32) * 0x9E3779B97F4A7C15u >> 40);
}

MdReread::WalkStep& MdRereadWalk::StepAt(int level, uint64_t position) const {
  const uint32_t hash = _Hash(position, m_codes);
  switch (level) {
    case 0:
      return m_memory.small[hash % std::size(m_memory.small)];
    case 1:
      return m_memory.medium[hash % std::size(m_memory.medium)];
    default:
      return m_memory.large[hash % std::size(m_memory.large)];
  }
}

void MdRereadWalk::Note(int64_t to, bool marked) {
  m_entries[0].marked = m_entries[0].marked || marked;
  Arrive(0, to);
}

// The walk is at a border after the entries into blocks of a level and above. Keeps the step over each block that it has
// left. A walk that stays in a block stays in the larger one around it.
void MdRereadWalk::Arrive(int level, int64_t to) {
  const uint64_t toPosition = m_position + static_cast<uint64_t>(to);
  for (; level < kLevels; ++level) {
    Entry& entry = m_entries[level];
    const uint64_t position = m_position + static_cast<uint64_t>(entry.offset);
    if (position >> kBlockShifts[level] == toPosition >> kBlockShifts[level]) return;
    const uint64_t distance = toPosition - position;
    if (distance <= kMostDistance) {
      StepAt(level, position) = {static_cast<uint32_t>(position),
                                 _Pack(m_codes, static_cast<uint32_t>(distance), entry.marked)};
    }
    if (level + 1 < kLevels) m_entries[level + 1].marked = m_entries[level + 1].marked || entry.marked;
    entry = {to, false};
  }
}

// Returns the end of one remembered step from an offset, the largest there is, or the offset itself.
int64_t MdRereadWalk::Step(int64_t offset, int64_t end) {
  const uint64_t position = m_position + static_cast<uint64_t>(offset);
  for (int level = kLevels - 1; level >= 0; --level) {
    if (m_entries[level].offset != offset) continue;
    const MdReread::WalkStep step = StepAt(level, position);
    const bool marked = (step.packed & kMarked) != 0;
    if (step.from != static_cast<uint32_t>(position) || (step.packed & ~kMarked) >> kDistanceBits != m_codes) continue;
    const int64_t to = offset + (step.packed & kMostDistance);
    if (to == offset || to >= end || (marked && m_stopsAtMarks)) continue;
    // What is known of smaller blocks stays as it is; the step is one of those over the next larger block.
    for (int smaller = 0; smaller <= level; ++smaller) m_entries[smaller] = {to, false};
    if (level + 1 == kLevels) return to;
    m_entries[level + 1].marked = m_entries[level + 1].marked || marked;
    Arrive(level + 1, to);
    return to;
  }
  return offset;
}

int64_t MdRereadWalk::Skip(int64_t offset, int64_t end) {
  if (offset != m_entries[0].offset) return offset;
  for (int64_t to = Step(offset, end); to != offset; to = Step(offset, end)) offset = to;
  return offset;
}
