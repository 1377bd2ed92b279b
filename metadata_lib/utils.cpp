// SPDX-License-Identifier: Apache-2.0
// Buffers and utilities.
//
// Contents
//   1. Metadata buffers
//   2. Bits, patterns, CRC
//   3. Raw captures
#include "utils.h"

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "host_thread.h"
#include "md_atomic.h"
#include "md_core.h"
#include "md_mutex.h"

#define MD_MODULE "utils"
#include "md_log.h"
#include "metadata_lib.h"

// =====================================================================================================
// 1. Metadata buffers. Allocated on the metadata thread (and by callers of the exported functions), released on any
//    thread. The reference count only changes atomically, so that an encoder's increment needs no lock.
// =====================================================================================================

uint32_t _g_nAllocatedBuffers = 0;
uint32_t _g_nFreedBuffers = 0;
int32_t _g_nMaxAllocatedBuffers = 0;

// Serialises releases. Recursive, so that a host's assertion handler may release a buffer itself.
static constinit MdMutex _g_BufferMutex{MdMutex::Recursive{}};

// KEPT: the counters change without the mutex here and under it in the release; they only feed the log line. Each has one
// way to change, so that the release, which has the mutex, needs no atomic step for its own.
static void _CountAllocation(const char* function, int line) {
  const int32_t now = static_cast<int32_t>(MdAddFetch(_g_nAllocatedBuffers, 1u) - MdLoad(_g_nFreedBuffers));
  if (now <= MdLoad(_g_nMaxAllocatedBuffers)) [[likely]]
    return;
  MdStore(_g_nMaxAllocatedBuffers, now);
  if (MdLogEnabled(g_hMetaDataLibDbg, 6))
    _DoDbgPrintEx(g_hMetaDataLibDbg, 6, function, MD_MODULE, line, "Max alloc buffers now at %d.\n", now);
}

// The state of a new buffer's data. Zeros that nobody reads are not made; large ones are cheaper from the C library.
enum class Fill { Zero, None };

// Allocates the block of every buffer; inline, because every message passes here. Returns NULL, without logging, if out of
// memory or if a size is negative or overflows.
[[gnu::always_inline]] static inline MDATA_BUFFER* _AllocBlock(int dataSize, int reservedSpace, Fill fill,
                                                               const char* function, int line) {
  if (dataSize < 0 || reservedSpace < 0) return nullptr;
  const int64_t total = int64_t{dataSize} + reservedSpace + static_cast<int64_t>(sizeof(MDATA_BUFFER));
  if (total > INT_MAX) return nullptr;
  const size_t size = static_cast<size_t>(total);
  void* block = fill == Fill::Zero ? calloc(1, size) : malloc(size);
  if (block == nullptr) return nullptr;
  _CountAllocation(function, line);
  if (fill == Fill::None) memset(block, 0, sizeof(MDATA_BUFFER) + static_cast<size_t>(reservedSpace));
  MDATA_BUFFER* buffer = static_cast<MDATA_BUFFER*>(block);
  buffer->bDynamic = TRUE;
  buffer->nRefCount = 1;
  buffer->nAllocSize = static_cast<int32_t>(total);
  buffer->pvAllocPtr = block;
  buffer->pcData = static_cast<BYTE*>(block) + sizeof(MDATA_BUFFER) + reservedSpace;
  return buffer;
}

static bool _AllocCopy(const BYTE* data, int size, MDATA_BUFFER* buffer, MDATA_BUFFER** out) {
  if (buffer == nullptr) return false;
  buffer->nDataSize = size;
  if (size > 0) memcpy(buffer->pcData, data, static_cast<size_t>(size));
  *out = buffer;
  return true;
}

BOOL DoAllocBuffer(int nMaxDataSize, MDATA_BUFFER** ppBuffer) {
  MDATA_BUFFER* buffer = _AllocBlock(nMaxDataSize, 0, Fill::Zero, __func__, __LINE__);
  if (buffer == nullptr) return FALSE;
  *ppBuffer = buffer;
  return TRUE;
}

bool _AllocUnfilledBuffer(int dataSize, MDATA_BUFFER** out) {
  // Logs under the name of the exported allocation, which callers of both know.
  MDATA_BUFFER* buffer = _AllocBlock(dataSize, 0, Fill::None, "DoAllocBuffer", __LINE__);
  if (buffer == nullptr) return false;
  *out = buffer;
  return true;
}

BOOL DoAllocCopyBuffer(BYTE* pcData, int nSize, MDATA_BUFFER** ppBuffer) {
  return _AllocCopy(pcData, nSize, _AllocBlock(nSize, 0, Fill::None, __func__, __LINE__), ppBuffer) ? TRUE : FALSE;
}

BOOL DoAllocCopyBufferEx(BYTE* pcData, int nSize, int nReservedSpace, MDATA_BUFFER** ppBuffer) {
  return _AllocCopy(pcData, nSize, _AllocBlock(nSize, nReservedSpace, Fill::None, __func__, __LINE__), ppBuffer)
             ? TRUE
             : FALSE;
}

// Gives up a reference that is not the last one, which needs no lock. Returns false if it may be the last one.
static bool _ReleaseShared(MDATA_BUFFER* buffer) {
  auto count = MdLoad(buffer->nRefCount);
  while (count > 1) {
    if (__atomic_compare_exchange_n(&buffer->nRefCount, &count, count - 1, true, __ATOMIC_RELEASE, __ATOMIC_RELAXED))
      return true;
  }
  return false;
}

// Gives up a reference under the lock, and frees the buffer with its last one.
static void _ReleaseLocked(MDATA_BUFFER* buffer) MD_REQUIRES(_g_BufferMutex) {
  auto count = MdLoadAcquire(buffer->nRefCount);
  if (count == 1) [[likely]] {
    // Nobody else changes the only reference, so that no atomic step is needed to give it up.
    count = 0;
    MdStore(buffer->nRefCount, count);
  } else {
    // KEPT: releasing once too often is reported; the count still goes down, and nothing is freed.
    MD_ASSERT_TEXT(count > 0, "pBuffer->nRefCount > 0");
    count = __atomic_sub_fetch(&buffer->nRefCount, 1, __ATOMIC_ACQ_REL);
  }
  if (count != 0 || !buffer->bDynamic) return;
  free(buffer);
  MdStore(_g_nFreedBuffers, MdLoad(_g_nFreedBuffers) + 1);
}

// Does the same as DoReleaseBuffer while the host debugs its threads: reports each line to the thread watchdog.
[[gnu::cold, gnu::noinline]] static void _ReleaseReported(MDATA_BUFFER* buffer) {
  const auto report = [](int line) { __SaveThreadState("DoReleaseBuffer", MD_MODULE, line); };
  report(__LINE__);
  _g_BufferMutex.Lock();
  report(__LINE__);
  _ReleaseLocked(buffer);
  report(__LINE__);
  _g_BufferMutex.Unlock();
  report(__LINE__);
}

void DoReleaseBuffer(MDATA_BUFFER** ppBuffer) {
  MDATA_BUFFER* buffer = *ppBuffer;
  if (MdLoad(g_bThreadStateDebuggingEnabled)) [[unlikely]] {
    _ReleaseReported(buffer);
  } else if (!_ReleaseShared(buffer)) {
    MdLock lock(_g_BufferMutex);
    _ReleaseLocked(buffer);
  }
  *ppBuffer = nullptr;
}

// =====================================================================================================
// 2. Bits, patterns, CRC. Any thread, no state.
// =====================================================================================================

int ExtractBits(const BYTE* pcInputData, int* pnInputBitOffset, BYTE* pcOutputData, int* pnOutputBitOffset,
                int nTotalBitsToExtract) {
  if (nTotalBitsToExtract <= 0) return 0;
  const auto inputBit = static_cast<size_t>(*pnInputBitOffset);
  const auto outputBit = static_cast<size_t>(*pnOutputBitOffset);
  *pnInputBitOffset += nTotalBitsToExtract;
  *pnOutputBitOffset += nTotalBitsToExtract;
  // KEPT: the result is not the number of bits moved; callers rely on the offsets.
  return _MdCopyBits(pcInputData, inputBit, pcOutputData, outputBit, static_cast<size_t>(nTotalBitsToExtract));
}

// Length of the pattern prefix at the start of the data; at least 1.
static int _MatchLength(const BYTE* data, int dataSize, const BYTE* pattern, int patternSize) {
  int matched = 1;
  while (matched < patternSize && matched < dataSize && data[matched] == pattern[matched]) ++matched;
  return matched;
}

// Returns where, from a position on, the pattern's first two bytes follow each other, or the position from which on the
// caller has to look at single bytes: near the end, or after a stretch in which memchr may be faster again.
static int _FindPair(const BYTE* data, int dataSize, int position, const BYTE* pattern) {
  constexpr uint64_t kOnes = 0x0101010101010101u;
  constexpr int kStretch = 512;
  const int end = dataSize - position > kStretch ? position + kStretch : dataSize;
  for (; position + 9 <= end; position += 8) {
    uint64_t first = 0;
    uint64_t second = 0;
    memcpy(&first, data + position, sizeof(first));
    memcpy(&second, data + position + 1, sizeof(second));
    // A byte is zero where both bytes are those of the pattern; the lowest such byte is found exactly.
    const uint64_t differs = (first ^ kOnes * pattern[0]) | (second ^ kOnes * pattern[1]);
    const uint64_t zeros = (differs - kOnes) & ~differs & kOnes << 7;
    if (zeros != 0) return position + __builtin_ctzll(zeros) / 8;
  }
  return position;
}

UINT ScanForPattern(const void* pvInData, int nInDataSize, const void* pvPattern, int nPatternSize,
                    int* pnMatchOffset) {
  constexpr int kNear = 32;  // first bytes that are nearer to each other are not worth a call of memchr each
  const BYTE* data = static_cast<const BYTE*>(pvInData);
  const BYTE* pattern = static_cast<const BYTE*>(pvPattern);
  if (nPatternSize <= 0) return 0;
  int position = 0;
  while (position < nInDataSize) {
    const void* found = memchr(data + position, pattern[0], static_cast<size_t>(nInDataSize - position));
    if (found == nullptr) return 0;
    const int candidate = static_cast<int>(static_cast<const BYTE*>(found) - data);
    const int matched = _MatchLength(data + candidate, nInDataSize - candidate, pattern, nPatternSize);
    if (matched == nPatternSize || candidate + matched == nInDataSize) {
      *pnMatchOffset = candidate;
      return static_cast<UINT>(matched);
    }
    const bool isNear = candidate - position < kNear;
    position = candidate + matched;  // KEPT: continues at the byte that differed; A A B is not found in A A A B
    if (isNear) position = _FindPair(data, nInDataSize, position, pattern);
  }
  return 0;
}

WORD CalcCRC16(const BYTE* d, int n) {
  return n > 0 ? _MdCrc16(d, static_cast<size_t>(n)) : WORD{0};
}

// =====================================================================================================
// 3. Raw captures. Metadata thread.
// =====================================================================================================

BOOL DumpRawData(FILE* fp, BYTE* pcData, int nSize, int* pnOffset, int nMaxSize) {
  // KEPT: the size is tested only before the block is written, so the file may exceed it by one block.
  if (int64_t{ftell(fp)} >= int64_t{nMaxSize} * 1024) return FALSE;
  static const char kDigits[] = "0123456789abcdef";
  int column = *pnOffset;  // KEPT: the name says offset, it is the column of the current line
  for (int i = 0; i < nSize; ++i) {
    const char text[3] = {kDigits[pcData[i] >> 4], kDigits[pcData[i] & 0x0F], ' '};
    fwrite(text, 1, sizeof(text), fp);
    if (++column == 16) {
      putc('\n', fp);
      column = 0;
    }
  }
  *pnOffset = column;
  return ferror(fp) == 0 ? TRUE : FALSE;
}
