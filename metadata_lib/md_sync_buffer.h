// SPDX-License-Identifier: Apache-2.0
// The bytes that a stream decoder holds from one chunk to the next, and the search for its sync pattern in them.
//
// Both stream decoders, of KLV and of the serial CoT link, hold their bytes in one of these and have one shape:
//
//   Slice     a piece of a chunk that fits behind the held bytes, while the decoder processes it
//   state     the event that the decoder waits for between two slices; kept in its context
//   Step      the next action within a slice
//   _Enter    stores a slice as the state demands and returns the first step
//   _Run      carries out one step and returns the next one
//   _Wait     notes the state and ends the slice
//
// Dropping bytes only changes the position of the first held byte. The bytes themselves are moved when that is cheap or
// when the room behind them is needed, so that a buffer full of nested sync patterns costs few moves.
//
// The metadata thread only, which owns the decoder's context and the memory.
#ifndef MD_SYNC_BUFFER_H
#define MD_SYNC_BUFFER_H

#include <stdint.h>

#include "metadata_lib.h"

struct MdSyncPattern {
  const void* bytes;
  int size;
};

class MdSyncBuffer {
 public:
  // The memory of capacity bytes, the position of the first held byte and the number of held bytes belong to the
  // decoder's context; this object lives as long as one slice is processed.
  MdSyncBuffer(BYTE* base, int capacity, int32_t& start, int32_t& stored, uint64_t& position)
      : m_base(base), m_capacity(capacity), m_start(start), m_stored(stored), m_position(position) {}
  MdSyncBuffer(const MdSyncBuffer&) = delete;
  MdSyncBuffer& operator=(const MdSyncBuffer&) = delete;

  // Returns the first held byte; valid until the bytes are moved or appended to.
  BYTE* Front() const { return m_base + m_start; }
  // Returns the number of held bytes.
  int Stored() const { return m_stored; }
  // Returns the position of the first held byte among all bytes that have been held. No position is used twice.
  uint64_t Position() const { return m_position; }

  // Adds these bytes behind the held ones. The caller ensures that the capacity is not exceeded.
  void Append(const BYTE* data, int size);
  // Replaces the held bytes by these, stored from the start of the memory on.
  void Restart(const BYTE* data, int size);
  // Discards the first held bytes.
  void Drop(int size) {
    m_start += size;
    m_stored -= size;
    m_position += static_cast<uint64_t>(size);
  }
  // Discards all held bytes.
  void Clear() {
    m_position += static_cast<uint64_t>(m_stored);
    m_stored = 0;
  }

  // Scans new data for the pattern and, if it or a prefix of it is found, restarts with it. Returns how many bytes of
  // the pattern matched, as ScanForPattern does; with 0 the held bytes are not changed.
  int ScanChunk(const BYTE* data, int size, const MdSyncPattern& pattern);
  // Scans the held bytes for the pattern and drops the bytes before it, or all if it is not found. Returns how many
  // bytes of it matched; *offset, only set if any did, is how many bytes were dropped.
  int Rescan(const MdSyncPattern& pattern, int* offset);
  // Compares new data with the rest of the pattern, of which the held bytes are a prefix; *compared is how many bytes
  // could be compared.
  bool ContinuesPattern(const BYTE* data, int size, const MdSyncPattern& pattern, int* compared) const;

  // Moves the held bytes to the start of the memory.
  void MoveToStart();
  // Does the same if it copies no more bytes than were dropped since the last move, or at most 'always' bytes.
  void Compact(int always) {
    if (m_stored <= m_start || m_stored <= always) MoveToStart();
  }

 private:
  BYTE* const m_base;
  const int m_capacity;
  int32_t& m_start;
  int32_t& m_stored;
  uint64_t& m_position;
};

#endif  // MD_SYNC_BUFFER_H
