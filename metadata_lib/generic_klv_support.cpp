// The KLV stream decoder and the check of its messages.
//
// Contents
//   1. Contexts and statistics
//   2. Stream decoder: the entry of each state
//   3. Stream decoder: the steps of a message
//   4. Local set standards
//   5. Checksum
#include "generic_klv_support.h"

#include <stdlib.h>
#include <string.h>

#include "host_util.h"
#include "md_atomic.h"
#include "md_core.h"

#define MD_MODULE "generic_klv_support"
#include "md_log.h"

// =====================================================================================================
// 1. Contexts and statistics. A context belongs to one source; the statistics functions run on the encoder's threads
//    while the metadata thread counts, so each counter is an atomic value of its own.
// =====================================================================================================

static const BYTE KLVSyncPattern[kKLVSyncSize] = {0x06, 0x0E, 0x2B, 0x34, 0x02};

static KLV_DECODE_CONTEXT* _Context(void* pvCtxt) {
  return static_cast<KLV_DECODE_CONTEXT*>(pvCtxt);
}

// First byte of the accumulation buffer.
static BYTE* _BufferStart(const KLV_DECODE_CONTEXT* pCtxt) {
  return pCtxt->pDecodeBuffer->pcData;
}

BOOL AllocKlvDecodeContext(void** ppvContext, KLV_RX_HANDLER pfnRxHandler, void* pvUserParam1) {
  KLV_DECODE_CONTEXT* pCtxt = static_cast<KLV_DECODE_CONTEXT*>(calloc(1, sizeof(KLV_DECODE_CONTEXT)));
  *ppvContext = pCtxt;
  if (pCtxt == nullptr) return FALSE;
  pCtxt->enState = KLV_STATE_SCANNING_FOR_HEADER;
  pCtxt->pfnRxHandler = pfnRxHandler;
  pCtxt->pvUserParam1 = pvUserParam1;
  // The buffer holds the largest message and a slice behind it; the text keeps the size it is known under.
  const BOOL bAllocated = DoAllocBuffer(kKLVDecodeCapacity, &pCtxt->pDecodeBuffer);
  MD_ASSERT_TEXT(bAllocated, "AllocBuffer(65536, &pCtxt->pDecodeBuffer)");
  if (bAllocated) pCtxt->DecodeBuffer = _BufferStart(pCtxt);
  return TRUE;
}

BOOL FreeKlvDecodeContext(void** ppvContext) {
  MD_ASSERT(ppvContext != NULL);
  if (ppvContext == nullptr) return FALSE;
  MD_ASSERT(*ppvContext != NULL);
  KLV_DECODE_CONTEXT* pCtxt = _Context(*ppvContext);
  if (pCtxt == nullptr) return FALSE;
  if (pCtxt->pDecodeBuffer != nullptr) DoReleaseBuffer(&pCtxt->pDecodeBuffer);
  free(pCtxt);
  *ppvContext = nullptr;
  return TRUE;
}

// KEPT: nRxChannel1Messages is in the record for its likeness with COT_STATS and belongs to the caller here.
BOOL GenericKLV_GetStats(void* pvCtxt, KLV_STATS* pStats) {
  const KLV_STATS& Stats = _Context(pvCtxt)->Stats;
  pStats->nTotalRxBytes = MdLoad(Stats.nTotalRxBytes);
  pStats->nRxOkMessages = MdLoad(Stats.nRxOkMessages);
  pStats->nRxCorruptedMessages = MdLoad(Stats.nRxCorruptedMessages);
  return TRUE;
}

void GenericKLV_ResetStats(void* pvCtxt) {
  KLV_STATS& Stats = _Context(pvCtxt)->Stats;
  MdStore(Stats.nTotalRxBytes, 0);
  MdStore(Stats.nRxOkMessages, 0);
  MdStore(Stats.nRxCorruptedMessages, 0);
}

void GenericKLV_SetStats(void* pvCtxt, const MDATA_SRC_STATS* pStats) {
  KLV_STATS& Stats = _Context(pvCtxt)->Stats;
  MdStore(Stats.nTotalRxBytes, pStats->nRxBytes);
  MdStore(Stats.nRxOkMessages, pStats->nRxOkMessages);
  MdStore(Stats.nRxCorruptedMessages, pStats->nRxCorruptMessages);
}

KLV_STATS* GenericKLV_GetStatsPtr(void* pvCtxt) {
  return &_Context(pvCtxt)->Stats;
}

// =====================================================================================================
// 2. Stream decoder: the entry of each state. Metadata thread. A chunk enters at its state's function, which stores it
//    and names the first step; one loop then runs the steps until the decoder waits for more.
// =====================================================================================================

namespace {

// What is done next.
enum class Step {
  kWait,          // nothing until the next chunk
  kRescan,        // look for a sync pattern in what is stored
  kSyncFound,     // a pattern, or its beginning, stands at the start
  kKeyComplete,   // note the time
  kDesignator,    // look the registry designator up
  kLength,        // read the BER length
  kSpace,         // does the message fit
  kCompleteness,  // is it all there
  kCheck,         // is it good
  kDeliver,       // hand it over
  kRest,          // what is behind it
  kDropSync       // discard: count, and give up the five sync bytes
};

// What a state makes of a chunk.
struct Entry {
  Step step;
  bool bChunkLost = false;  // the whole chunk, not just this slice of it
};

}  // namespace

static void _MoveToStart(KLV_DECODE_CONTEXT* pCtxt) {
  BYTE* pcStart = _BufferStart(pCtxt);
  if (pCtxt->DecodeBuffer == pcStart) return;
  memmove(pcStart, pCtxt->DecodeBuffer, static_cast<size_t>(pCtxt->nStoredAmount));
  pCtxt->DecodeBuffer = pcStart;
}

// Bytes given up in front of those held.
static ptrdiff_t _GivenUp(const KLV_DECODE_CONTEXT* pCtxt) {
  return pCtxt->DecodeBuffer - _BufferStart(pCtxt);
}

// There is always room: what waits is less than the largest message, and a slice fits behind that.
static void _Append(KLV_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  if (nLength <= 0) return;
  if (_GivenUp(pCtxt) + pCtxt->nStoredAmount + nLength > kKLVDecodeCapacity) _MoveToStart(pCtxt);
  memcpy(pCtxt->DecodeBuffer + pCtxt->nStoredAmount, pcData, static_cast<size_t>(nLength));
  pCtxt->nStoredAmount += nLength;
}

static void _Restart(KLV_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  pCtxt->DecodeBuffer = _BufferStart(pCtxt);
  pCtxt->nStoredAmount = 0;
  _Append(pCtxt, pcData, nLength);
}

// Gives up the first held bytes. Only the start moves; see _Compact for the bytes.
static void _DropFront(KLV_DECODE_CONTEXT* pCtxt, int nBytes) {
  pCtxt->DecodeBuffer += nBytes;
  pCtxt->nStoredAmount -= nBytes;
}

// After each slice. A move is worth it when it copies no more than was given up, so that nested sync patterns in a full
// buffer cost each byte one move at most. A key that is not complete always stands at the start.
static void _Compact(KLV_DECODE_CONTEXT* pCtxt) {
  if (pCtxt->nStoredAmount <= _GivenUp(pCtxt) || pCtxt->nStoredAmount <= kKLVKeySize) _MoveToStart(pCtxt);
}

static Step _Wait(KLV_DECODE_CONTEXT* pCtxt, tagKLV_STATE enState) {
  pCtxt->enState = enState;
  return Step::kWait;
}

static Step _ScanChunk(KLV_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  MD_LOG(7, "Received data in SCANNING_FOR_HEADER state\n");
  MD_DUMP(7, "Sync Pattern", KLVSyncPattern, kKLVSyncSize);
  int nOffset = 0;
  pCtxt->nMatched = ScanForPattern(pcData, nLength, KLVSyncPattern, kKLVSyncSize, &nOffset);
  MD_LOG(7, "ScanForPattern returned %d\n", static_cast<int>(pCtxt->nMatched));
  if (pCtxt->nMatched == 0) return Step::kWait;
  _Restart(pCtxt, pcData + nOffset, nLength - nOffset);
  return Step::kSyncFound;
}

static Step _CompleteSync(KLV_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  MD_LOG(7, "Received data in IN_PARTIAL_SYNC state\n");
  const int nMissing = kKLVSyncSize - pCtxt->nStoredAmount;
  const int nCompared = nMissing < nLength ? nMissing : nLength;
  if (memcmp(pcData, KLVSyncPattern + pCtxt->nStoredAmount, static_cast<size_t>(nCompared)) != 0) {
    MD_LOG(7, "No match comparing %d bytes, stored amount=%d re-scanning\n", nCompared, pCtxt->nStoredAmount);
    _Restart(pCtxt, pcData, nLength);
    return Step::kRescan;
  }
  _Append(pCtxt, pcData, nLength);
  if (pCtxt->nStoredAmount < kKLVSyncSize) {
    MD_LOG(7, "Staying in IN_PARTIAL_SYNC state\n");
    return Step::kWait;
  }
  MD_LOG(7, "FULL SYNC achieved\n");
  return Step::kKeyComplete;
}

// More than half a second since the key was complete? Only ever asked when data arrives, never by a timer.
static bool _IsTooLate(const KLV_DECODE_CONTEXT* pCtxt) {
  struct timeval Now = {};
  MD_ASSERT_TEXT(gettimeofday(&Now, nullptr) == 0, "gettimeofday(&CurrentTime, NULL) == 0");
  MD_LOG(7, "Current  %d.%03d\n", static_cast<int>(Now.tv_sec), static_cast<int>(Now.tv_usec / 1000));
  struct timeval Interval = {};
  CalcTimeOfDayAbsDiff(&Now, &pCtxt->MsgStartTime, &Interval);
  MD_LOG(7, "Interval %d.%03d\n", static_cast<int>(Interval.tv_sec), static_cast<int>(Interval.tv_usec / 1000));
  return Interval.tv_sec != 0 || Interval.tv_usec > 500000;
}

// A header that was read before its bytes were there is read again as soon as they are: a guess decides what the decoder
// waits for, never what it delivers.
static Step _Resume(const KLV_DECODE_CONTEXT* pCtxt, Step step) {
  return pCtxt->bHeaderGuessed && pCtxt->nStoredAmount > kKLVKeySize ? Step::kDesignator : step;
}

// KEPT: the chunk that comes too late is lost, and only the sync bytes of what was held.
static Entry _ContinueLength(KLV_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  if (_IsTooLate(pCtxt)) {
    MD_LOG(4, "TIMEOUT waiting for message length\n");
    return {Step::kDropSync, true};
  }
  MD_LOG(7, "Received data in ACQUIRING_LENGTH state\n");
  _Append(pCtxt, pcData, nLength);
  return {_Resume(pCtxt, Step::kLength)};
}

static Entry _ContinueData(KLV_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  if (_IsTooLate(pCtxt)) {
    MD_LOG(4, "TIMEOUT waiting for message data\n");
    return {Step::kDropSync, true};
  }
  MD_LOG(7, "Received data in GATHERING_DATA state\n");
  _Append(pCtxt, pcData, nLength);
  return {_Resume(pCtxt, Step::kCompleteness)};
}

static Entry _EnterByState(KLV_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  const bool bTimed = pCtxt->enState == KLV_STATE_ACQUIRING_DATA_LENGTH || pCtxt->enState == KLV_STATE_ACQUIRING_DATA;
  if (nLength <= 0 && !bTimed) return {Step::kWait};
  switch (pCtxt->enState) {
    case KLV_STATE_SCANNING_FOR_HEADER:
      return {_ScanChunk(pCtxt, pcData, nLength)};
    case KLV_STATE_IN_PARTIAL_SYNC:
      return {_CompleteSync(pCtxt, pcData, nLength)};
    case KLV_STATE_ACQUIRING_UNIVERSAL_KEY:
      MD_LOG(7, "Received data in ACQUIRING_LENGTH state\n");  // KEPT: the text of the next state
      _Append(pCtxt, pcData, nLength);
      return {Step::kKeyComplete};
    case KLV_STATE_ACQUIRING_DATA_LENGTH:
      return _ContinueLength(pCtxt, pcData, nLength);
    case KLV_STATE_ACQUIRING_DATA:
      return _ContinueData(pCtxt, pcData, nLength);
    default:
      return {Step::kWait};
  }
}

// =====================================================================================================
// 3. Stream decoder: the steps of a message. Metadata thread. Each returns the next step.
// =====================================================================================================

static Step _Rescan(KLV_DECODE_CONTEXT* pCtxt) {
  int nOffset = 0;
  pCtxt->nMatched = ScanForPattern(pCtxt->DecodeBuffer, pCtxt->nStoredAmount, KLVSyncPattern, kKLVSyncSize, &nOffset);
  if (pCtxt->nMatched == 0) {
    pCtxt->nStoredAmount = 0;
    return _Wait(pCtxt, KLV_STATE_SCANNING_FOR_HEADER);
  }
  _DropFront(pCtxt, nOffset);
  MD_LOG(7, "Stored amount = %d, match offset=%d\n", pCtxt->nStoredAmount, nOffset);
  return Step::kSyncFound;
}

static Step _SyncFound(KLV_DECODE_CONTEXT* pCtxt) {
  if (pCtxt->nMatched < kKLVSyncSize) {
    MD_LOG(7, "Switching to IN_PARTIAL_SYNC state\n");
    return _Wait(pCtxt, KLV_STATE_IN_PARTIAL_SYNC);
  }
  MD_LOG(7, "Got the start pattern\n");
  if (pCtxt->nStoredAmount < kKLVKeySize) {
    MD_LOG(7, "Switching to ACQUIRING_UNIVERSAL_KEY state\n");
    return _Wait(pCtxt, KLV_STATE_ACQUIRING_UNIVERSAL_KEY);
  }
  return Step::kKeyComplete;
}

// KEPT: who comes from a partial sync or key is not asked for 16 bytes; a shorter key, and its length, are read from what
// the buffer holds from earlier messages, zeros at first.
static Step _KeyComplete(KLV_DECODE_CONTEXT* pCtxt) {
  MD_ASSERT(gettimeofday(&pCtxt->MsgStartTime, NULL) == 0);
  MD_LOG(7, "Stored message start time %d.%d\n", static_cast<int>(pCtxt->MsgStartTime.tv_sec),
         static_cast<int>(pCtxt->MsgStartTime.tv_usec));
  pCtxt->bHeaderGuessed = FALSE;
  return Step::kDesignator;
}

static Step _Designator(KLV_DECODE_CONTEXT* pCtxt) {
  const BYTE RegistryDesignator = pCtxt->DecodeBuffer[5];
  if (!KLV_GetFieldInfoFromRegistryDesignator(RegistryDesignator, &pCtxt->nKlvTagFieldSize,
                                              &pCtxt->nKlvLengthFieldSize)) {
    MD_LOG(4, "Invalid registry designator, discarding data.\n");
    return Step::kDropSync;
  }
  MD_LOG(7, "LocalTAGFieldSize=%d , LengthFieldSize=%d for registry designator 0x%02X.\n", pCtxt->nKlvTagFieldSize,
         pCtxt->nKlvLengthFieldSize, RegistryDesignator);
  if (pCtxt->nStoredAmount == kKLVKeySize) {
    MD_LOG(7, "Switching to ACQUIRING_DATA_LENGTH state\n");
    return _Wait(pCtxt, KLV_STATE_ACQUIRING_DATA_LENGTH);
  }
  return Step::kLength;
}

static Step _LongFormLength(KLV_DECODE_CONTEXT* pCtxt, int nBytes) {
  pCtxt->nHeaderLengthBytes = nBytes;
  pCtxt->nHeaderSize = kKLVKeySize + 1 + nBytes;
  MD_LOG(7, "Header length field is %d bytes long\n", nBytes);
  if (nBytes != 1 && nBytes != 2) {
    MD_LOG(4, "Invalid long form length of %d bytes.\n", nBytes);
    return Step::kDropSync;
  }
  if (pCtxt->nStoredAmount < pCtxt->nHeaderSize) {
    MD_LOG(7, "Stored amount %d is less than header size of %d, switching to ACQUIRING_DATA_LENGTH\n",
           pCtxt->nStoredAmount, pCtxt->nHeaderSize);
    return _Wait(pCtxt, KLV_STATE_ACQUIRING_DATA_LENGTH);
  }
  const BYTE* pcLength = pCtxt->DecodeBuffer + kKLVKeySize + 1;
  int nLength = pcLength[0];
  if (nBytes == 2) {
    nLength = pcLength[0] << 8 | pcLength[1];
    MD_LOG(7, "Data length for 2 bytes BER long form is %d\n", nLength);
  } else {
    MD_LOG(7, "Data length for 1 byte BER long form is %d\n", nLength);
  }
  pCtxt->nMsgSize = pCtxt->nHeaderSize + nLength;
  return Step::kSpace;
}

static Step _Length(KLV_DECODE_CONTEXT* pCtxt) {
  pCtxt->bHeaderGuessed = pCtxt->nStoredAmount <= kKLVKeySize;
  const BYTE nFirst = pCtxt->DecodeBuffer[kKLVKeySize];
  if ((nFirst & 0x80) != 0) return _LongFormLength(pCtxt, nFirst & 0x7F);
  MD_LOG(7, "Header length field is 1 byte long\n");
  pCtxt->nHeaderLengthBytes = 1;
  pCtxt->nHeaderSize = kKLVKeySize + 1;
  pCtxt->nMsgSize = pCtxt->nHeaderSize + nFirst;
  MD_LOG(7, "Message size is %d.\n", pCtxt->nMsgSize);
  return Step::kSpace;
}

// KEPT: measured against the allocation with its record, so that no two-byte length ever fails. The buffer itself
// holds more than this says.
static Step _Space(KLV_DECODE_CONTEXT* pCtxt) {
  const int nSpace = kKLVDecodeSize + static_cast<int>(sizeof(MDATA_BUFFER)) - pCtxt->nHeaderSize;
  MD_LOG(7, "Buffer Space for data is %d bytes.\n", nSpace);
  if (pCtxt->nMsgSize > nSpace) {
    MD_LOG(4, "Message size of %d bytes would overflow rx buffer.\n", pCtxt->nMsgSize);
    return Step::kDropSync;
  }
  return Step::kCompleteness;
}

static Step _Completeness(KLV_DECODE_CONTEXT* pCtxt) {
  if (pCtxt->nStoredAmount < pCtxt->nMsgSize) {
    MD_LOG(7, "Stored amount %d is less than message size of %d, switching to ACQUIRING_DATA\n", pCtxt->nStoredAmount,
           pCtxt->nMsgSize);
    return _Wait(pCtxt, KLV_STATE_ACQUIRING_DATA);
  }
  MD_LOG(7, "Got the full message\n");
  return Step::kCheck;
}

static Step _Check(KLV_DECODE_CONTEXT* pCtxt) {
  const BOOL bGood = _ValidateKLVMessage(pCtxt, pCtxt->DecodeBuffer, pCtxt->nMsgSize, pCtxt->nHeaderSize);
  return bGood ? Step::kDeliver : Step::kDropSync;
}

static Step _Deliver(KLV_DECODE_CONTEXT* pCtxt) {
  MD_ASSERT(pCtxt->pfnRxHandler != NULL);
  pCtxt->pDecodeBuffer->nDataSize = pCtxt->nMsgSize;
  MDATA_BUFFER* pMessage = nullptr;
  if (!DoAllocCopyBufferEx(pCtxt->DecodeBuffer, pCtxt->nMsgSize, MDATA_STREAM_HEADER_SIZE, &pMessage)) {
    MD_LOG(4, "No memory for KLV message of %d bytes.\n", pCtxt->nMsgSize);
    return Step::kRest;
  }
  if (pCtxt->pfnRxHandler != nullptr) pCtxt->pfnRxHandler(pMessage, pCtxt->pvUserParam1);
  DoReleaseBuffer(&pMessage);
  return Step::kRest;
}

static Step _Rest(KLV_DECODE_CONTEXT* pCtxt) {
  const int nExtra = pCtxt->nStoredAmount - pCtxt->nMsgSize;
  if (nExtra == 0) {
    pCtxt->nStoredAmount = 0;
    return _Wait(pCtxt, KLV_STATE_SCANNING_FOR_HEADER);
  }
  MD_LOG(7, "RECEIVED %d EXTRA BYTE\n", nExtra);
  _DropFront(pCtxt, pCtxt->nMsgSize);
  return Step::kRescan;
}

static Step _DropSync(KLV_DECODE_CONTEXT* pCtxt) {
  MdAdd(pCtxt->Stats.nRxCorruptedMessages, 1);
  // KEPT: only the sync bytes go; the next message may begin inside what was discarded.
  _DropFront(pCtxt, kKLVSyncSize);
  return Step::kRescan;
}

static Step _Run(KLV_DECODE_CONTEXT* pCtxt, Step step) {
  switch (step) {
    case Step::kRescan:
      return _Rescan(pCtxt);
    case Step::kSyncFound:
      return _SyncFound(pCtxt);
    case Step::kKeyComplete:
      return _KeyComplete(pCtxt);
    case Step::kDesignator:
      return _Designator(pCtxt);
    case Step::kLength:
      return _Length(pCtxt);
    case Step::kSpace:
      return _Space(pCtxt);
    case Step::kCompleteness:
      return _Completeness(pCtxt);
    case Step::kCheck:
      return _Check(pCtxt);
    case Step::kDeliver:
      return _Deliver(pCtxt);
    case Step::kRest:
      return _Rest(pCtxt);
    case Step::kDropSync:
      return _DropSync(pCtxt);
    case Step::kWait:
      break;
  }
  return Step::kWait;
}

// How much of a chunk is fed at once. The last slice is never shorter than a key, so that a key cut by the slices is whole
// when it is looked at.
static int _SliceSize(int nLeft) {
  if (nLeft <= kKLVSliceSize) return nLeft;
  return nLeft - kKLVSliceSize < kKLVKeySize ? nLeft - kKLVKeySize : kKLVSliceSize;
}

int GenericKLV_ProcessRxData(void* pvCtxt, const BYTE* pvData, int nLength) {
  KLV_DECODE_CONTEXT* pCtxt = _Context(pvCtxt);
  if (nLength > 0) MdAdd(pCtxt->Stats.nTotalRxBytes, nLength);
  if (pCtxt->pDecodeBuffer == nullptr) return 0;
  bool bLost = false;
  int nDone = 0;
  do {
    const int nSlice = _SliceSize(nLength - nDone);
    const Entry entry = _EnterByState(pCtxt, pvData + nDone, nSlice);
    for (Step step = entry.step; step != Step::kWait;) step = _Run(pCtxt, step);
    _Compact(pCtxt);
    bLost = entry.bChunkLost;
    nDone += nSlice;
  } while (nDone < nLength && !bLost);
  return 0;
}

// =====================================================================================================
// 4. Local set standards. Metadata thread; the table is constant.
// =====================================================================================================

// MISB ST 0601, UAS Datalink Local Set.
extern const BYTE UASDataLinkKey[16] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                                        0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};

// Read-only.
static LOCAL_KLV_STANDARD _g_KnownKLVStandards[] = {
    {"UAS DataLink Local Metadata Set", &UASDataLinkKey, TRUE, 1, _UASDataLinkValidator},
};

static LOCAL_KLV_STANDARD _g_GenericKLVStandard = {"Generic (Unknown)", nullptr, FALSE, 0, nullptr};

// KEPT: every byte of the key is compared, including its version byte.
LOCAL_KLV_STANDARD* _GetKLVStandardInfo(const BYTE* pcKey) {
  int nIndex = 0;
  for (LOCAL_KLV_STANDARD& Standard : _g_KnownKLVStandards) {
    if (memcmp(pcKey, *Standard.pUniversalKey, sizeof(KLV_LOCALSET_KEY)) == 0) {
      MD_LOG(6, "Recognized KLV local data standard #%d \"%s\".\n", nIndex, Standard.szName);
      return &Standard;
    }
    ++nIndex;
  }
  MD_LOG(6, "Unknown KLV local data standard.\n");
  return &_g_GenericKLVStandard;
}

namespace {

// The walk through a message's items.
struct Walk {
  KLV_DECODE_CONTEXT* pCtxt;
  const LOCAL_KLV_STANDARD* pStdInfo;
  BYTE* pcData;
  int nMsgSize;
  int nHeaderSize;
  int64_t nOffset;      // of the current item; behind the message when an item ran past its end
  bool bFound = false;  // an integrity item
};

}  // namespace

static bool _CheckIntegrityItem(Walk& walk, KLV_INFO* pItem) {
  const LOCAL_KLV_STANDARD* pStdInfo = walk.pStdInfo;
  if (walk.bFound) {
    MD_LOG(4, "Intergrity item found more than once.\n");  // KEPT: the spelling, for whoever greps logs
    return false;
  }
  MD_LOG(7, "Integrity item located.\n");
  MD_ASSERT(pStdInfo->pfnValidator != NULL);
  if (!pStdInfo->pfnValidator(walk.pcData, static_cast<UINT>(walk.nMsgSize), static_cast<UINT>(walk.nHeaderSize), pItem,
                              static_cast<UINT>(walk.nOffset))) {
    MD_LOG(4, "Validator rejected message.\n");
    return false;
  }
  MD_LOG(7, "Validator accepted message.\n");
  walk.bFound = true;
  return true;
}

// Checks one item. Returns false if the message is rejected; *pbEnded is set if no further item can be reached.
static bool _WalkItem(Walk& walk, bool* pbEnded) {
  KLV_INFO item;
  const int nOffset = static_cast<int>(walk.nOffset);
  if (!KLV_GetInfo(walk.pcData + nOffset, walk.nMsgSize - nOffset, walk.pCtxt->nKlvTagFieldSize,
                   walk.pCtxt->nKlvLengthFieldSize, &item)) {
    MD_LOG(4, "KLV_GetInfo returned an error.\n");
    return false;
  }
  MD_LOG(7, "KLV at offset %d has key=%d (%d bytes) len=%d (%d bytes) total=%d.\n", nOffset,
         static_cast<int>(item.nKey), static_cast<int>(item.nKeySize), item.nLength, static_cast<int>(item.nLengthSize),
         static_cast<int>(item.nTotalSize));
  if (walk.pStdInfo->bHasIntegrityItem && item.nKey == walk.pStdInfo->IntegrityItemTag &&
      !_CheckIntegrityItem(walk, &item))
    return false;
  // A length of four bytes may end far behind the message, but never before the item.
  const auto valuePosition = static_cast<uint64_t>(item.pValue - walk.pcData);
  walk.nOffset = static_cast<int64_t>(_MdItemEnd(valuePosition, static_cast<UINT32>(item.nLength)));
  *pbEnded = walk.nOffset == nOffset;
  return true;
}

// KEPT: an integrity item is checked if there is one, but it is not required.
BOOL _ValidateKLVMessage(KLV_DECODE_CONTEXT* pCtxt, BYTE* pcData, int nMsgSize, int nHeaderSize) {
  Walk walk = {pCtxt, _GetKLVStandardInfo(pcData), pcData, nMsgSize, nHeaderSize, nHeaderSize};
  MD_LOG(7, "Called with nHeaderSize=%d, nMsgSize=%d\n", nHeaderSize, nMsgSize);
  bool bEnded = false;
  while (walk.nOffset < nMsgSize && !bEnded) {
    if (!_WalkItem(walk, &bEnded)) return FALSE;
  }
  if (walk.nOffset == nMsgSize) {
    MdAdd(pCtxt->Stats.nRxOkMessages, 1);
    MD_LOG(7, "Message is OK.\n");
    return TRUE;
  }
  MD_LOG(4, "Sum of item lengths %d does not match message data length of %d.\n",
         static_cast<int>(walk.nOffset - nHeaderSize), nMsgSize - nHeaderSize);
  return FALSE;
}

// =====================================================================================================
// 5. Checksum: the 16-bit running sum of MISB ST 0601. Any thread, no state.
// =====================================================================================================

// KEPT: with the offset 0 nothing is skipped, so that the bytes at position 0 always count.
WORD CalcKlvChecksum16Ex(const BYTE* buff, WORD len, WORD CheckSumOffset) {
  return CheckSumOffset == 0 ? _MdRunningSum(buff, len) : _MdRunningSumWithout(buff, len, CheckSumOffset);
}

WORD CalcKlvChecksum16(const BYTE* buff, WORD len) {
  return CalcKlvChecksum16Ex(buff, len, 0);
}

// A message may be some bytes longer than the 65535 that the exported sums take.
BOOL _UASDataLinkValidator(const BYTE* pcData, UINT nFullLength, UINT, KLV_INFO* IntegrityItem, UINT nItemOffset) {
  // KEPT: an item of the wrong form is rejected without a line of its own.
  if (IntegrityItem->nKeySize != 1 || IntegrityItem->nLengthSize != 1 || IntegrityItem->nLength != 2) return FALSE;
  const UINT nEnd = nItemOffset + IntegrityItem->nTotalSize;
  if (nEnd > nFullLength) return FALSE;
  const WORD nStored = static_cast<WORD>(IntegrityItem->pValue[0] << 8 | IntegrityItem->pValue[1]);
  WORD nComputed = 0;
  if (nEnd != nFullLength) {
    MD_LOG(6, "Calculating two-pass checksum since KLV is NOT at the end.\n");
    nComputed = _MdRunningSumWithout(pcData, nFullLength, nItemOffset + 2);
  } else {
    nComputed = _MdRunningSum(pcData, nFullLength - 2);
  }
  if (nComputed != nStored) {
    MD_LOG(4, "Calculated checksum (0x%04X) doesn't match KLV value (0x%04X).\n", nComputed, nStored);
    return FALSE;
  }
  MD_LOG(7, "Calculated checksum matches KLV value.\n");
  return TRUE;
}
