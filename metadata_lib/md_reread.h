// SPDX-License-Identifier: Apache-2.0
// What the KLV stream decoder remembers about bytes that it reads again.
//
// A rejected message loses its sync pattern only, so that the next one may begin inside it and reach as far. A sender
// can nest thousands of messages in 64 KiB, and checking each of them from scratch would cost the square of that. Three
// answers do not depend on the message that asks for them, and are kept:
//
//   sums      the sum over a range is the difference of two sums from a fixed point; one is kept for every block
//   walks     the end of an item depends on its bytes and the size codes alone, so walks that meet stay together; for a
//             position at which a walk entered a block, the memory keeps the position at which it left the block
//   tags      an object identifier may be as long as the message; blocks are marked that lie inside one
//
// Positions are those of the stream, counted from its beginning. A memory of zeros is an empty one, and any answer may be
// forgotten: entries replace each other. The metadata thread only, which owns the decoder's context and this memory.
#ifndef MD_REREAD_H
#define MD_REREAD_H

#include <stddef.h>
#include <stdint.h>

#include "metadata_lib.h"

inline constexpr int kRereadBlock = 256;  // bytes between two sums

// The memory of one stream, about 104 KiB. Allocated with calloc once it is needed.
struct MdReread {
  static constexpr uint32_t kBlocks = 1024;  // twice what a decode buffer holds

  // Where a walk went that was at a position: see _Pack in the source. 0 is no step.
  struct WalkStep {
    uint32_t from;  // the lower half of the position
    uint32_t packed;
  };

  uint64_t epoch;  // the positions that are remembered agree in their upper bits

  uint64_t firstSum;  // sums are there for the block borders from this one on
  uint64_t lastSum;   // to this one
  uint16_t even[kBlocks];
  uint16_t odd[kBlocks];

  uint32_t runs[kBlocks];  // for a block: its number, and whether all its bytes continue a tag

  // Steps of walks over blocks of three sizes. The longest walk takes 8, 64 and 512 of them.
  WalkStep large[4096];
  WalkStep medium[4096];
  WalkStep small[4096];
};

// Forgets what would be mistaken for something else at this position. Called before the functions below with the
// position of each message.
void _RereadAt(MdReread& memory, uint64_t position);

// The running sum of MISB ST 0601 over data that begins at a position of the stream.
uint16_t _RereadSum(MdReread& memory, const BYTE* data, size_t size, uint64_t position);

// How many bytes from an offset on have their upper bit set, up to the end of the data. The data begins at a position of
// the stream.
size_t _RereadRun(MdReread& memory, const BYTE* data, size_t size, uint64_t position, size_t offset);

// A walk over the items of one message. Offsets count from the message's start; nothing behind its end is looked at.
class MdRereadWalk {
 public:
  // The message begins at a position of the stream; codes tells walks of other kinds apart, below 512. With
  // stopsAtMarks the walk does not step over items that were noted with a mark.
  MdRereadWalk(MdReread& memory, uint64_t position, uint32_t codes, bool stopsAtMarks, int64_t offset)
      : m_memory(memory),
        m_position(position),
        m_codes(codes),
        m_stopsAtMarks(stopsAtMarks),
        m_entries{{offset, false}, {offset, false}, {offset, false}} {}
  MdRereadWalk(const MdRereadWalk&) = delete;
  MdRereadWalk& operator=(const MdRereadWalk&) = delete;

  // The last item border that is known to follow an offset on this walk, before the end; the offset itself if none is
  // known. The item that ends the message is never skipped, because how it is read may depend on the end.
  int64_t Skip(int64_t offset, int64_t end);
  // The walk went from one border to a later one.
  void Note(int64_t to, bool marked);

 private:
  // Where the walk entered the block that it is in, and whether it met a mark since, as far as blocks of the next smaller
  // size have told.
  struct Entry {
    int64_t offset;
    bool marked;
  };

  MdReread::WalkStep& StepAt(int level, uint64_t position) const;
  void Arrive(int level, int64_t to);
  int64_t Step(int64_t offset, int64_t end);

  MdReread& m_memory;
  const uint64_t m_position;
  const uint32_t m_codes;
  const bool m_stopsAtMarks;
  Entry m_entries[3];  // into small, medium and large blocks
};

#endif  // MD_REREAD_H
