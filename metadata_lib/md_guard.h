// Guards that hold something for a scope.
#ifndef MD_GUARD_H
#define MD_GUARD_H

#include <pthread.h>

#include "metadata_lib.h"

// Holds a mutex for a scope.
class MdLock {
 public:
  explicit MdLock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
  ~MdLock() { pthread_mutex_unlock(&m_mutex); }
  MdLock(const MdLock&) = delete;
  MdLock& operator=(const MdLock&) = delete;

 private:
  pthread_mutex_t& m_mutex;
};

// Owns one reference of a buffer for a scope.
class MdBufferRef {
 public:
  explicit MdBufferRef(MDATA_BUFFER* pBuffer = nullptr) : m_pBuffer(pBuffer) {}
  ~MdBufferRef() { Reset(); }
  MdBufferRef(const MdBufferRef&) = delete;
  MdBufferRef& operator=(const MdBufferRef&) = delete;

  MDATA_BUFFER* Get() const { return m_pBuffer; }
  MDATA_BUFFER* operator->() const { return m_pBuffer; }
  // Where a function that returns a buffer stores it. Drops the reference that is held.
  MDATA_BUFFER** Out() {
    Reset();
    return &m_pBuffer;
  }
  // Gives up ownership: the caller has the reference.
  MDATA_BUFFER* Release() {
    MDATA_BUFFER* pBuffer = m_pBuffer;
    m_pBuffer = nullptr;
    return pBuffer;
  }
  void Reset() {
    if (m_pBuffer != nullptr) DoReleaseBuffer(&m_pBuffer);
  }

 private:
  MDATA_BUFFER* m_pBuffer;
};

#endif  // MD_GUARD_H
