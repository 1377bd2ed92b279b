// SPDX-License-Identifier: Apache-2.0
// The bytes that a stream decoder holds. See the header for their owner.
//
// Contents
//   1. Holding bytes
//   2. The sync pattern
#include "md_sync_buffer.h"

#include <stddef.h>
#include <string.h>

// =====================================================================================================
// 1. Holding bytes
// =====================================================================================================

void MdSyncBuffer::Append(const BYTE* data, int size) {
  if (size <= 0) return;
  if (m_start + m_stored + size > m_capacity) MoveToStart();
  memcpy(Front() + m_stored, data, static_cast<size_t>(size));
  m_stored += size;
}

void MdSyncBuffer::Restart(const BYTE* data, int size) {
  Clear();
  m_start = 0;
  Append(data, size);
}

void MdSyncBuffer::MoveToStart() {
  if (m_start == 0) return;
  memmove(m_base, Front(), static_cast<size_t>(m_stored));
  m_start = 0;
}

// =====================================================================================================
// 2. The sync pattern
// =====================================================================================================

int MdSyncBuffer::ScanChunk(const BYTE* data, int size, const MdSyncPattern& pattern) {
  int offset = 0;
  const UINT matched = ScanForPattern(data, size, pattern.bytes, pattern.size, &offset);
  if (matched != 0) Restart(data + offset, size - offset);
  return static_cast<int>(matched);
}

int MdSyncBuffer::Rescan(const MdSyncPattern& pattern, int* offset) {
  const UINT matched = ScanForPattern(Front(), m_stored, pattern.bytes, pattern.size, offset);
  if (matched != 0) {
    Drop(*offset);
  } else {
    Clear();
  }
  return static_cast<int>(matched);
}

bool MdSyncBuffer::ContinuesPattern(const BYTE* data, int size, const MdSyncPattern& pattern, int* compared) const {
  const int missing = pattern.size - m_stored;
  *compared = missing < size ? missing : size;
  const BYTE* rest = static_cast<const BYTE*>(pattern.bytes) + m_stored;
  return memcmp(data, rest, static_cast<size_t>(*compared)) == 0;
}
