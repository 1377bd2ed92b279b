// SPDX-License-Identifier: Apache-2.0
// A guard that holds a buffer for a scope.
#ifndef MD_GUARD_H
#define MD_GUARD_H

#include "metadata_lib.h"

// Owns one reference of a buffer for a scope.
class MdBufferRef {
 public:
  explicit MdBufferRef(MDATA_BUFFER* buffer = nullptr) : m_buffer(buffer) {}
  ~MdBufferRef() { Reset(); }
  MdBufferRef(const MdBufferRef&) = delete;
  MdBufferRef& operator=(const MdBufferRef&) = delete;

  MDATA_BUFFER* Get() const { return m_buffer; }
  MDATA_BUFFER* operator->() const { return m_buffer; }
  // Where a function that returns a buffer stores it. Drops the reference that is held.
  MDATA_BUFFER** Out() {
    Reset();
    return &m_buffer;
  }
  // Gives up ownership: the caller has the reference.
  MDATA_BUFFER* Release() {
    MDATA_BUFFER* buffer = m_buffer;
    m_buffer = nullptr;
    return buffer;
  }
  void Reset() {
    if (m_buffer != nullptr) DoReleaseBuffer(&m_buffer);
  }

 private:
  MDATA_BUFFER* m_buffer;
};

#endif  // MD_GUARD_H
