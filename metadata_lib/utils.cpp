// Buffers and utilities.
//
// Contents
//   1. Metadata buffers
//   2. Bits, patterns, CRC
//   3. Raw captures
#include "utils.h"

#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "host_thread.h"
#include "md_atomic.h"
#include "md_core.h"

#define MD_MODULE "utils"
#include "md_log.h"

// =====================================================================================================
// 1. Metadata buffers. Allocated on the metadata thread (and by callers of the exported functions), released on any
//    thread. The reference count only changes atomically, so that an encoder's increment needs no lock.
// =====================================================================================================

int32_t _g_nAllocatedBuffers = 0;
int32_t _g_nMaxAllocatedBuffers = 0;

// Serialises releases. Recursive, so that a host's assertion handler may release a buffer itself.
static pthread_mutex_t _g_BufferMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

// KEPT: the counters change without the mutex here and under it in the release; they only feed the log line.
static void _CountAllocation(const char* szFunction, int nLine) {
  const int32_t nNow = MdAddFetch(_g_nAllocatedBuffers, 1);
  if (nNow <= MdLoad(_g_nMaxAllocatedBuffers)) return;
  MdStore(_g_nMaxAllocatedBuffers, nNow);
  if (MdLogEnabled(g_hMetaDataLibDbg, 6))
    _DoDbgPrintEx(g_hMetaDataLibDbg, 6, szFunction, MD_MODULE, nLine, "Max alloc buffers now at %d.\n", nNow);
}

// Allocates the block of all three allocations. Returns NULL, without logging, if out of memory or if a size is
// negative or overflows.
static MDATA_BUFFER* _AllocBlock(int nDataSize, int nReservedSpace, const char* szFunction, int nLine) {
  if (nDataSize < 0 || nReservedSpace < 0) return nullptr;
  const int64_t nTotal = int64_t{nDataSize} + nReservedSpace + static_cast<int64_t>(sizeof(MDATA_BUFFER));
  if (nTotal > INT_MAX) return nullptr;
  void* pvBlock = calloc(1, static_cast<size_t>(nTotal));
  if (pvBlock == nullptr) return nullptr;
  _CountAllocation(szFunction, nLine);
  MDATA_BUFFER* pBuffer = static_cast<MDATA_BUFFER*>(pvBlock);
  pBuffer->bDynamic = TRUE;
  pBuffer->nRefCount = 1;
  pBuffer->nAllocSize = static_cast<int32_t>(nTotal);
  pBuffer->pvAllocPtr = pvBlock;
  pBuffer->pcData = static_cast<BYTE*>(pvBlock) + sizeof(MDATA_BUFFER) + nReservedSpace;
  return pBuffer;
}

static BOOL _AllocCopy(const BYTE* pcData, int nSize, MDATA_BUFFER* pBuffer, MDATA_BUFFER** ppBuffer) {
  if (pBuffer == nullptr) return FALSE;
  pBuffer->nDataSize = nSize;
  if (nSize > 0) memcpy(pBuffer->pcData, pcData, static_cast<size_t>(nSize));
  *ppBuffer = pBuffer;
  return TRUE;
}

BOOL DoAllocBuffer(int nMaxDataSize, MDATA_BUFFER** ppBuffer) {
  MDATA_BUFFER* pBuffer = _AllocBlock(nMaxDataSize, 0, __func__, __LINE__);
  if (pBuffer == nullptr) return FALSE;
  *ppBuffer = pBuffer;
  return TRUE;
}

BOOL DoAllocCopyBuffer(BYTE* pcData, int nSize, MDATA_BUFFER** ppBuffer) {
  return _AllocCopy(pcData, nSize, _AllocBlock(nSize, 0, __func__, __LINE__), ppBuffer);
}

BOOL DoAllocCopyBufferEx(BYTE* pcData, int nSize, int nReservedSpace, MDATA_BUFFER** ppBuffer) {
  return _AllocCopy(pcData, nSize, _AllocBlock(nSize, nReservedSpace, __func__, __LINE__), ppBuffer);
}

// Reports this line to the host's thread watchdog, if enabled.
static void _SaveStateIfDebugging(int nLine) {
  if (MdLoad(g_bThreadStateDebuggingEnabled)) __SaveThreadState("DoReleaseBuffer", MD_MODULE, nLine);
}

void DoReleaseBuffer(MDATA_BUFFER** ppBuffer) {
  MDATA_BUFFER* pBuffer = *ppBuffer;
  _SaveStateIfDebugging(__LINE__);
  pthread_mutex_lock(&_g_BufferMutex);
  _SaveStateIfDebugging(__LINE__);
  // KEPT: releasing once too often is reported; the count still goes down, and nothing is freed.
  MD_ASSERT_TEXT(MdLoadAcquire(pBuffer->nRefCount) > 0, "pBuffer->nRefCount > 0");
  if (__atomic_sub_fetch(&pBuffer->nRefCount, 1, __ATOMIC_ACQ_REL) == 0 && pBuffer->bDynamic) {
    free(pBuffer);
    MdAddFetch(_g_nAllocatedBuffers, -1);
  }
  _SaveStateIfDebugging(__LINE__);
  pthread_mutex_unlock(&_g_BufferMutex);
  _SaveStateIfDebugging(__LINE__);
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
static int _MatchLength(const BYTE* pcData, int nDataSize, const BYTE* pcPattern, int nPatternSize) {
  int nMatched = 1;
  while (nMatched < nPatternSize && nMatched < nDataSize && pcData[nMatched] == pcPattern[nMatched]) ++nMatched;
  return nMatched;
}

UINT ScanForPattern(const void* pvInData, int nInDataSize, const void* pvPattern, int nPatternSize,
                    int* pnMatchOffset) {
  const BYTE* pcData = static_cast<const BYTE*>(pvInData);
  const BYTE* pcPattern = static_cast<const BYTE*>(pvPattern);
  if (nPatternSize <= 0) return 0;
  int nPosition = 0;
  while (nPosition < nInDataSize) {
    const void* pvFound = memchr(pcData + nPosition, pcPattern[0], static_cast<size_t>(nInDataSize - nPosition));
    if (pvFound == nullptr) return 0;
    const int nCandidate = static_cast<int>(static_cast<const BYTE*>(pvFound) - pcData);
    const int nMatched = _MatchLength(pcData + nCandidate, nInDataSize - nCandidate, pcPattern, nPatternSize);
    if (nMatched == nPatternSize || nCandidate + nMatched == nInDataSize) {
      *pnMatchOffset = nCandidate;
      return static_cast<UINT>(nMatched);
    }
    nPosition = nCandidate + nMatched;  // KEPT: continues at the byte that differed; A A B is not found in A A A B
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
  static const char acDigits[] = "0123456789abcdef";
  int nColumn = *pnOffset;  // KEPT: the name says offset, it is the column of the current line
  for (int i = 0; i < nSize; ++i) {
    const char acText[3] = {acDigits[pcData[i] >> 4], acDigits[pcData[i] & 0x0F], ' '};
    fwrite(acText, 1, sizeof(acText), fp);
    if (++nColumn == 16) {
      putc('\n', fp);
      nColumn = 0;
    }
  }
  *pnOffset = nColumn;
  return ferror(fp) == 0 ? TRUE : FALSE;
}
