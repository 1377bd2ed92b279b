// SPDX-License-Identifier: Apache-2.0
// The KLV stream decoder and the check of its messages.
//
// Contents
//   1. Contexts and statistics
//   2. Stream decoder: the entry of each state
//   3. Stream decoder: the steps of a message
//   4. Local set standards
//   5. Checksum
#include "generic_klv_support.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "host_util.h"
#include "md_atomic.h"
#include "md_core.h"
#include "md_reread.h"
#include "md_sync_buffer.h"

#define MD_MODULE "generic_klv_support"
#include "md_log.h"

// =====================================================================================================
// 1. Contexts and statistics. A context belongs to one source; the statistics functions run on the encoder's threads
//    while the metadata thread counts, so each counter is an atomic value of its own.
// =====================================================================================================

static const BYTE KLVSyncPattern[kKLVSyncSize] = {0x06, 0x0E, 0x2B, 0x34, 0x02};

static KLV_DECODE_CONTEXT* _Context(void* context) {
  return static_cast<KLV_DECODE_CONTEXT*>(context);
}

BOOL AllocKlvDecodeContext(void** ppvContext, KLV_RX_HANDLER pfnRxHandler, void* pvUserParam1) {
  KLV_DECODE_CONTEXT* pCtxt = static_cast<KLV_DECODE_CONTEXT*>(calloc(1, sizeof(KLV_DECODE_CONTEXT)));
  *ppvContext = pCtxt;
  if (pCtxt == nullptr) return FALSE;
  pCtxt->enState = KLV_STATE_SCANNING_FOR_HEADER;
  pCtxt->pfnRxHandler = pfnRxHandler;
  pCtxt->pvUserParam1 = pvUserParam1;
  // The buffer holds the largest message and a slice behind it; the assertion text keeps its historical size.
  const bool allocated = DoAllocBuffer(kKLVDecodeCapacity, &pCtxt->pDecodeBuffer);
  MD_ASSERT_TEXT(allocated, "AllocBuffer(65536, &pCtxt->pDecodeBuffer)");
  if (allocated) pCtxt->DecodeBuffer = pCtxt->pDecodeBuffer->pcData;
  return TRUE;
}

BOOL FreeKlvDecodeContext(void** ppvContext) {
  MD_ASSERT_OR_RETURN(ppvContext != NULL, FALSE);
  MD_ASSERT_OR_RETURN(*ppvContext != NULL, FALSE);
  KLV_DECODE_CONTEXT* pCtxt = _Context(*ppvContext);
  if (pCtxt->pDecodeBuffer != nullptr) DoReleaseBuffer(&pCtxt->pDecodeBuffer);
  free(pCtxt->pReread);
  free(pCtxt);
  *ppvContext = nullptr;
  return TRUE;
}

// KEPT: the caller's nRxChannel1Messages is not changed; the field only makes the record similar to COT_STATS.
BOOL GenericKLV_GetStats(void* pvCtxt, KLV_STATS* pStats) {
  const KLV_STATS& stats = _Context(pvCtxt)->Stats;
  pStats->nTotalRxBytes = MdLoad(stats.nTotalRxBytes);
  pStats->nRxOkMessages = MdLoad(stats.nRxOkMessages);
  pStats->nRxCorruptedMessages = MdLoad(stats.nRxCorruptedMessages);
  return TRUE;
}

void GenericKLV_ResetStats(void* pvCtxt) {
  KLV_STATS& stats = _Context(pvCtxt)->Stats;
  MdStore(stats.nTotalRxBytes, 0);
  MdStore(stats.nRxOkMessages, 0);
  MdStore(stats.nRxCorruptedMessages, 0);
}

void GenericKLV_SetStats(void* pvCtxt, const MDATA_SRC_STATS* pStats) {
  KLV_STATS& stats = _Context(pvCtxt)->Stats;
  MdStore(stats.nTotalRxBytes, pStats->nRxBytes);
  MdStore(stats.nRxOkMessages, pStats->nRxOkMessages);
  MdStore(stats.nRxCorruptedMessages, pStats->nRxCorruptMessages);
}

KLV_STATS* GenericKLV_GetStatsPtr(void* pvCtxt) {
  return &_Context(pvCtxt)->Stats;
}

// =====================================================================================================
// 2. Stream decoder: the entry of each state. Metadata thread. A slice enters at its state's function, which stores it
//    and names the first step; one loop then runs the steps until the decoder waits for more.
// =====================================================================================================

static constexpr int kKLVWorthRemembering = 256;  // bytes; shorter messages are checked from scratch
static constexpr size_t kMostItemHeader = 32;     // bytes of any tag with a value, and of any length

static bool _ValidateHeldMessage(KLV_DECODE_CONTEXT* pCtxt, BYTE* data, int messageSize, int headerSize,
                                 MdReread* reread, UINT64 position);
static bool _IsUASSumRight(const BYTE* data, UINT fullLength, const KLV_INFO& item, UINT itemOffset, MdReread* reread,
                           UINT64 position);

namespace {

// The next action within a slice.
enum class Step {
  Wait,               // nothing until the next slice
  Rescan,             // scan the held bytes for a sync pattern
  SyncFound,          // the pattern, or a prefix of it, is at the front
  KeyComplete,        // note the time
  LookUpDesignator,   // look up the size codes of the items
  ReadLength,         // read the BER length
  CheckSpace,         // check that the buffer has room for the message
  CheckCompleteness,  // check that the whole message is held
  CheckMessage,       // validate items and checksum
  Deliver,            // pass the message to the handler
  KeepRest,           // drop the message, keep the bytes behind it
  DropSync            // count a discarded message and drop its five sync bytes
};

// One slice while the decoder processes it.
struct Slice {
  Slice(KLV_DECODE_CONTEXT* context, const BYTE* data, int length)
      : pCtxt(context),
        input(data),
        size(length),
        held(context->DecodeBuffer, kKLVDecodeCapacity, context->nStart, context->nStoredAmount, context->nPosition) {}

  KLV_DECODE_CONTEXT* const pCtxt;
  const BYTE* const input;  // fits behind the held bytes, which are fewer than the largest message
  const int size;
  MdSyncBuffer held;
  int matched = 0;          // bytes of the sync pattern at the front
  bool hasStart = false;    // the clock was read in this slice, into MsgStartTime
  bool isStartOld = false;  // that was for an earlier key
  bool chunkLost = false;   // the rest of the chunk is dropped
};

}  // namespace

static constexpr MdSyncPattern kKLVSync = {KLVSyncPattern, kKLVSyncSize};

static Step _Wait(Slice& s, tagKLV_STATE state) {
  s.pCtxt->enState = state;
  return Step::Wait;
}

static void _NoteStart(Slice& s) {
  KLV_DECODE_CONTEXT* pCtxt = s.pCtxt;
  s.hasStart = gettimeofday(&pCtxt->MsgStartTime, nullptr) == 0;
  MD_ASSERT_TEXT(s.hasStart, "gettimeofday(&pCtxt->MsgStartTime, NULL) == 0");
  MD_LOG(7, "Stored message start time %d.%d\n", static_cast<int>(pCtxt->MsgStartTime.tv_sec),
         static_cast<int>(pCtxt->MsgStartTime.tv_usec));
  s.isStartOld = false;
}

// Waits for the rest of a message, which must come in time: measured from now if the clock was read before, because the
// handler of an earlier message may have taken long.
static Step _WaitForRest(Slice& s, tagKLV_STATE state) {
  if (s.isStartOld) _NoteStart(s);
  return _Wait(s, state);
}

static Step _ScanChunk(Slice& s) {
  MD_LOG(7, "Received data in SCANNING_FOR_HEADER state\n");
  MD_DUMP(7, "Sync Pattern", KLVSyncPattern, kKLVSyncSize);
  s.matched = s.held.ScanChunk(s.input, s.size, kKLVSync);
  MD_LOG(7, "ScanForPattern returned %d\n", s.matched);
  return s.matched == 0 ? Step::Wait : Step::SyncFound;
}

static Step _ContinueSync(Slice& s) {
  MD_LOG(7, "Received data in IN_PARTIAL_SYNC state\n");
  int compared = 0;
  if (!s.held.ContinuesPattern(s.input, s.size, kKLVSync, &compared)) {
    MD_LOG(7, "No match comparing %d bytes, stored amount=%d re-scanning\n", compared, s.held.Stored());
    s.held.Restart(s.input, s.size);
    return Step::Rescan;
  }
  s.held.Append(s.input, s.size);
  if (s.held.Stored() < kKLVSyncSize) {
    MD_LOG(7, "Staying in IN_PARTIAL_SYNC state\n");
    return Step::Wait;
  }
  MD_LOG(7, "FULL SYNC achieved\n");
  return Step::KeyComplete;
}

static Step _ContinueKey(Slice& s) {
  MD_LOG(7, "Received data in ACQUIRING_LENGTH state\n");  // KEPT: the text of the next state
  s.held.Append(s.input, s.size);
  return Step::KeyComplete;
}

// Returns whether the half second is surely not over. The coarse clock costs a fifth of the exact one, which nearly every
// chunk would read otherwise. It stands up to a tick behind, 10 ms at most, and so cannot hide a quarter of a second.
static bool _IsSurelyInTime(const KLV_DECODE_CONTEXT* pCtxt) {
  struct timespec coarse = {};
  if (clock_gettime(CLOCK_REALTIME_COARSE, &coarse) != 0) return false;
  const long passed =
      (coarse.tv_sec - pCtxt->MsgStartTime.tv_sec) * 1000000 + coarse.tv_nsec / 1000 - pCtxt->MsgStartTime.tv_usec;
  return passed > -250000 && passed < 250000;
}

// Returns whether more than half a second has passed since the key was complete. Tested only when data arrives, never
// by a timer.
static bool _IsTooLate(const KLV_DECODE_CONTEXT* pCtxt) {
  if (!MdLogEnabled(g_hMetaDataLibDbg, 7) && _IsSurelyInTime(pCtxt)) return false;
  struct timeval now = {};
  struct timeval interval = {};
  MD_ASSERT_TEXT(gettimeofday(&now, nullptr) == 0, "gettimeofday(&CurrentTime, NULL) == 0");
  MD_LOG(7, "Current  %d.%03d\n", static_cast<int>(now.tv_sec), static_cast<int>(now.tv_usec / 1000));
  CalcTimeOfDayAbsDiff(&now, &pCtxt->MsgStartTime, &interval);
  MD_LOG(7, "Interval %d.%03d\n", static_cast<int>(interval.tv_sec), static_cast<int>(interval.tv_usec / 1000));
  return interval.tv_sec != 0 || interval.tv_usec > 500000;
}

// KEPT: the late chunk is dropped whole, but of the held bytes only the sync pattern.
static Step _TimedOut(Slice& s) {
  s.chunkLost = true;
  return Step::DropSync;
}

// A header that was read before its bytes arrived is read again when they have: such a guess only decides how long the
// decoder waits, never which bytes it delivers.
static Step _Resume(const Slice& s, Step step) {
  return s.pCtxt->bHeaderGuessed && s.held.Stored() > kKLVKeySize ? Step::LookUpDesignator : step;
}

static Step _ContinueLength(Slice& s) {
  if (_IsTooLate(s.pCtxt)) {
    MD_LOG(4, "TIMEOUT waiting for message length\n");
    return _TimedOut(s);
  }
  MD_LOG(7, "Received data in ACQUIRING_LENGTH state\n");
  s.held.Append(s.input, s.size);
  return _Resume(s, Step::ReadLength);
}

static Step _ContinueData(Slice& s) {
  if (_IsTooLate(s.pCtxt)) {
    MD_LOG(4, "TIMEOUT waiting for message data\n");
    return _TimedOut(s);
  }
  MD_LOG(7, "Received data in GATHERING_DATA state\n");
  s.held.Append(s.input, s.size);
  return _Resume(s, Step::CheckCompleteness);
}

// An empty chunk matters only in the states with a time limit.
static Step _Enter(Slice& s) {
  switch (s.pCtxt->enState) {
    case KLV_STATE_SCANNING_FOR_HEADER:
      return s.size > 0 ? _ScanChunk(s) : Step::Wait;
    case KLV_STATE_IN_PARTIAL_SYNC:
      return s.size > 0 ? _ContinueSync(s) : Step::Wait;
    case KLV_STATE_ACQUIRING_UNIVERSAL_KEY:
      return s.size > 0 ? _ContinueKey(s) : Step::Wait;
    case KLV_STATE_ACQUIRING_DATA_LENGTH:
      return _ContinueLength(s);
    case KLV_STATE_ACQUIRING_DATA:
      return _ContinueData(s);
    default:
      return Step::Wait;
  }
}

// =====================================================================================================
// 3. Stream decoder: the steps of a message. Metadata thread. Each returns the next step.
// =====================================================================================================

static Step _Rescan(Slice& s) {
  int offset = 0;
  s.matched = s.held.Rescan(kKLVSync, &offset);
  if (s.matched == 0) return _Wait(s, KLV_STATE_SCANNING_FOR_HEADER);
  MD_LOG(7, "Stored amount = %d, match offset=%d\n", s.held.Stored(), offset);
  return Step::SyncFound;
}

static Step _SyncFound(Slice& s) {
  if (s.matched < kKLVSyncSize) {
    MD_LOG(7, "Switching to IN_PARTIAL_SYNC state\n");
    return _Wait(s, KLV_STATE_IN_PARTIAL_SYNC);
  }
  MD_LOG(7, "Got the start pattern\n");
  if (s.held.Stored() < kKLVKeySize) {
    MD_LOG(7, "Switching to ACQUIRING_UNIVERSAL_KEY state\n");
    return _Wait(s, KLV_STATE_ACQUIRING_UNIVERSAL_KEY);
  }
  return Step::KeyComplete;
}

// KEPT: after a partial sync or key the 16-byte check is skipped; missing key bytes and the length come from stale
// buffer contents, zeros at first.
static Step _KeyComplete(Slice& s) {
  // The start matters only to a message that is waited for: the clock is not read again for each that is complete.
  if (s.hasStart && !MdLogEnabled(g_hMetaDataLibDbg, 7))
    s.isStartOld = true;
  else
    _NoteStart(s);
  s.pCtxt->bHeaderGuessed = FALSE;
  return Step::LookUpDesignator;
}

static Step _LookUpDesignator(Slice& s) {
  KLV_DECODE_CONTEXT* pCtxt = s.pCtxt;
  const BYTE designator = s.held.Front()[5];
  if (!KLV_GetFieldInfoFromRegistryDesignator(designator, &pCtxt->nKlvTagFieldSize, &pCtxt->nKlvLengthFieldSize)) {
    MD_LOG(4, "Invalid registry designator, discarding data.\n");
    return Step::DropSync;
  }
  MD_LOG(7, "LocalTAGFieldSize=%d , LengthFieldSize=%d for registry designator 0x%02X.\n", pCtxt->nKlvTagFieldSize,
         pCtxt->nKlvLengthFieldSize, designator);
  if (s.held.Stored() == kKLVKeySize) {
    MD_LOG(7, "Switching to ACQUIRING_DATA_LENGTH state\n");
    return _WaitForRest(s, KLV_STATE_ACQUIRING_DATA_LENGTH);
  }
  return Step::ReadLength;
}

static Step _LongFormLength(Slice& s, const MdLength& length, MdRead result) {
  KLV_DECODE_CONTEXT* pCtxt = s.pCtxt;
  const int bytes = static_cast<int>(length.count);
  MD_LOG(7, "Header length field is %d bytes long\n", bytes);
  if (bytes != 1 && bytes != 2) {
    MD_LOG(4, "Invalid long form length of %d bytes.\n", bytes);
    return Step::DropSync;
  }
  if (result == kMdReadLengthCut) {
    MD_LOG(7, "Stored amount %d is less than header size of %d, switching to ACQUIRING_DATA_LENGTH\n", s.held.Stored(),
           pCtxt->nHeaderSize);
    return _WaitForRest(s, KLV_STATE_ACQUIRING_DATA_LENGTH);
  }
  if (bytes == 2) {
    MD_LOG(7, "Data length for 2 bytes BER long form is %d\n", static_cast<int>(length.value));
  } else {
    MD_LOG(7, "Data length for 1 byte BER long form is %d\n", static_cast<int>(length.value));
  }
  pCtxt->nMsgSize = pCtxt->nHeaderSize + static_cast<int32_t>(length.value);
  return Step::CheckSpace;
}

static Step _ReadLength(Slice& s) {
  KLV_DECODE_CONTEXT* pCtxt = s.pCtxt;
  pCtxt->bHeaderGuessed = s.held.Stored() <= kKLVKeySize;
  // The first length byte is read even if it is stale (see _KeyComplete); the bytes behind it are not.
  const int readable = pCtxt->bHeaderGuessed ? kKLVKeySize + 1 : s.held.Stored();
  MdLength length;
  const MdRead result =
      _MdReadLength(s.held.Front(), static_cast<size_t>(readable), kKLVKeySize, kMdFieldNoneOrBer, &length);
  pCtxt->nHeaderLengthBytes = static_cast<int32_t>(length.count);
  pCtxt->nHeaderSize = kKLVKeySize + static_cast<int32_t>(length.size);
  if (length.longForm) return _LongFormLength(s, length, result);
  MD_LOG(7, "Header length field is 1 byte long\n");
  pCtxt->nMsgSize = pCtxt->nHeaderSize + static_cast<int32_t>(length.value);
  MD_LOG(7, "Message size is %d.\n", pCtxt->nMsgSize);
  return Step::CheckSpace;
}

// KEPT: measured against the size of the historical allocation with its record, so that no two-byte length ever fails.
// The buffer holds more than that.
static Step _CheckSpace(Slice& s) {
  const int space = kKLVDecodeSize + static_cast<int>(sizeof(MDATA_BUFFER)) - s.pCtxt->nHeaderSize;
  MD_LOG(7, "Buffer Space for data is %d bytes.\n", space);
  if (s.pCtxt->nMsgSize > space) {
    MD_LOG(4, "Message size of %d bytes would overflow rx buffer.\n", s.pCtxt->nMsgSize);
    return Step::DropSync;
  }
  return Step::CheckCompleteness;
}

static Step _CheckCompleteness(Slice& s) {
  if (s.held.Stored() < s.pCtxt->nMsgSize) {
    MD_LOG(7, "Stored amount %d is less than message size of %d, switching to ACQUIRING_DATA\n", s.held.Stored(),
           s.pCtxt->nMsgSize);
    return _WaitForRest(s, KLV_STATE_ACQUIRING_DATA);
  }
  MD_LOG(7, "Got the full message\n");
  return Step::CheckMessage;
}

// A message that begins inside a rejected one is checked with what is known about its bytes. Short ones are not worth it,
// and a log of every item shows every item. Without memory the check takes longer, nothing else.
static MdReread* _RereadMemory(Slice& s) {
  KLV_DECODE_CONTEXT* pCtxt = s.pCtxt;
  if (s.held.Position() >= pCtxt->nRejectedEnd || pCtxt->nMsgSize < kKLVWorthRemembering) return nullptr;
  if (MdLogEnabled(g_hMetaDataLibDbg, 7)) return nullptr;
  if (pCtxt->pReread == nullptr) pCtxt->pReread = static_cast<MdReread*>(calloc(1, sizeof(MdReread)));
  return pCtxt->pReread;
}

static Step _CheckMessage(Slice& s) {
  KLV_DECODE_CONTEXT* pCtxt = s.pCtxt;
  const UINT64 position = s.held.Position();
  if (_ValidateHeldMessage(pCtxt, s.held.Front(), pCtxt->nMsgSize, pCtxt->nHeaderSize, _RereadMemory(s), position))
    return Step::Deliver;
  const UINT64 end = position + static_cast<UINT64>(pCtxt->nMsgSize);
  if (end > pCtxt->nRejectedEnd) pCtxt->nRejectedEnd = end;
  return Step::DropSync;
}

static Step _Deliver(Slice& s) {
  KLV_DECODE_CONTEXT* pCtxt = s.pCtxt;
  MD_ASSERT(pCtxt->pfnRxHandler != NULL);
  pCtxt->pDecodeBuffer->nDataSize = pCtxt->nMsgSize;
  MDATA_BUFFER* message = nullptr;
  if (!DoAllocCopyBufferEx(s.held.Front(), pCtxt->nMsgSize, MDATA_STREAM_HEADER_SIZE, &message)) {
    MD_LOG(4, "No memory for KLV message of %d bytes.\n", pCtxt->nMsgSize);
    return Step::KeepRest;
  }
  if (pCtxt->pfnRxHandler != nullptr) pCtxt->pfnRxHandler(message, pCtxt->pvUserParam1);
  DoReleaseBuffer(&message);
  return Step::KeepRest;
}

static Step _KeepRest(Slice& s) {
  const int extra = s.held.Stored() - s.pCtxt->nMsgSize;
  if (extra == 0) {
    s.held.Clear();
    return _Wait(s, KLV_STATE_SCANNING_FOR_HEADER);
  }
  MD_LOG(7, "RECEIVED %d EXTRA BYTE\n", extra);
  s.held.Drop(s.pCtxt->nMsgSize);
  return Step::Rescan;
}

static Step _DropSync(Slice& s) {
  MdCount(s.pCtxt->Stats.nRxCorruptedMessages, 1);
  // KEPT: only the sync bytes are dropped; the next message may begin inside the discarded bytes.
  s.held.Drop(kKLVSyncSize);
  return Step::Rescan;
}

static Step _Run(Slice& s, Step step) {
  switch (step) {
    case Step::Rescan:
      return _Rescan(s);
    case Step::SyncFound:
      return _SyncFound(s);
    case Step::KeyComplete:
      return _KeyComplete(s);
    case Step::LookUpDesignator:
      return _LookUpDesignator(s);
    case Step::ReadLength:
      return _ReadLength(s);
    case Step::CheckSpace:
      return _CheckSpace(s);
    case Step::CheckCompleteness:
      return _CheckCompleteness(s);
    case Step::CheckMessage:
      return _CheckMessage(s);
    case Step::Deliver:
      return _Deliver(s);
    case Step::KeepRest:
      return _KeepRest(s);
    case Step::DropSync:
      return _DropSync(s);
    case Step::Wait:
      break;
  }
  return Step::Wait;
}

// Returns the size of the next slice of a chunk. The last slice is never shorter than a key, so that a key on the
// border of two slices is complete when it is read.
static int _SliceSize(int left) {
  if (left <= kKLVSliceSize) return left;
  return left - kKLVSliceSize < kKLVKeySize ? left - kKLVKeySize : kKLVSliceSize;
}

// Compact always moves an incomplete key to the start of the memory, where the next slice expects it.
static void _RunSlice(Slice& s) {
  for (Step step = _Enter(s); step != Step::Wait;) step = _Run(s, step);
  s.held.Compact(kKLVKeySize);
}

int GenericKLV_ProcessRxData(void* pvCtxt, const BYTE* pvData, int nLength) {
  KLV_DECODE_CONTEXT* pCtxt = _Context(pvCtxt);
  if (nLength > 0) MdCount(pCtxt->Stats.nTotalRxBytes, nLength);
  if (pCtxt->pDecodeBuffer == nullptr) return 0;
  bool lost = false;
  int done = 0;
  do {
    Slice s(pCtxt, pvData + done, _SliceSize(nLength - done));
    _RunSlice(s);
    lost = s.chunkLost;
    done += s.size;
  } while (done < nLength && !lost);
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
  int index = 0;
  for (LOCAL_KLV_STANDARD& standard : _g_KnownKLVStandards) {
    if (memcmp(pcKey, *standard.pUniversalKey, sizeof(KLV_LOCALSET_KEY)) == 0) {
      MD_LOG(6, "Recognized KLV local data standard #%d \"%s\".\n", index, standard.szName);
      return &standard;
    }
    ++index;
  }
  MD_LOG(6, "Unknown KLV local data standard.\n");
  return &_g_GenericKLVStandard;
}

namespace {

// The walk through a message's items.
struct Walk {
  KLV_DECODE_CONTEXT* pCtxt;
  const LOCAL_KLV_STANDARD* pStdInfo;
  BYTE* data;
  int messageSize;
  int headerSize;
  MdReread* reread;     // what is known about the message's bytes, or NULL
  UINT64 position;      // of the message, for that
  int64_t offset;       // of the current item; behind the message if an item ran past its end
  bool found = false;   // an integrity item
  bool marked = false;  // the last item was one
};

}  // namespace

static bool _AskValidator(const Walk& walk, KLV_INFO* item) {
  const UINT size = static_cast<UINT>(walk.messageSize);
  const UINT offset = static_cast<UINT>(walk.offset);
  const KLV_INTEGRITY_VERIFIER validator = walk.pStdInfo->pfnValidator;
  if (walk.reread != nullptr && validator == _UASDataLinkValidator)
    return _IsUASSumRight(walk.data, size, *item, offset, walk.reread, walk.position);
  return validator(walk.data, size, static_cast<UINT>(walk.headerSize), item, offset) != FALSE;
}

static bool _CheckIntegrityItem(Walk& walk, KLV_INFO* item) {
  if (walk.found) {
    MD_LOG(4, "Intergrity item found more than once.\n");  // KEPT: the spelling; operators search logs for it
    return false;
  }
  MD_LOG(7, "Integrity item located.\n");
  const LOCAL_KLV_STANDARD* pStdInfo = walk.pStdInfo;
  MD_ASSERT(pStdInfo->pfnValidator != NULL);
  if (!_AskValidator(walk, item)) {
    MD_LOG(4, "Validator rejected message.\n");
    return false;
  }
  MD_LOG(7, "Validator accepted message.\n");
  walk.found = true;
  return true;
}

static bool _IsIntegrityTag(const Walk& walk, UINT32 key) {
  return walk.pStdInfo->bHasIntegrityItem && key == walk.pStdInfo->IntegrityItemTag;
}

// Bytes of the item's tag that need not be read: all but the last ones of an object identifier so long that its value is
// not used. The tag that remains is as long as to have no value either.
static int _UnreadTagBytes(const Walk& walk, int offset) {
  if (walk.reread == nullptr || walk.pCtxt->nKlvTagFieldSize != KLV_FIELD_BER_OID_TAG) return 0;
  if (offset + kMdMostOidBytes >= walk.messageSize || walk.data[offset + kMdMostOidBytes] < 0x80) return 0;
  const size_t run = _RereadRun(*walk.reread, walk.data, static_cast<size_t>(walk.messageSize), walk.position,
                                static_cast<size_t>(offset));
  return run > kMdMostOidBytes ? static_cast<int>(run) - kMdMostOidBytes : 0;
}

// Checks one item. Returns false if the message is rejected; *ended is set if no further item can be reached.
static bool _WalkItem(Walk& walk, bool* ended) {
  KLV_INFO item;
  const int offset = static_cast<int>(walk.offset);
  const int start = offset + _UnreadTagBytes(walk, offset);
  if (!KLV_GetInfo(walk.data + start, walk.messageSize - start, walk.pCtxt->nKlvTagFieldSize,
                   walk.pCtxt->nKlvLengthFieldSize, &item)) {
    MD_LOG(4, "KLV_GetInfo returned an error.\n");
    return false;
  }
  MD_LOG(7, "KLV at offset %d has key=%d (%d bytes) len=%d (%d bytes) total=%d.\n", offset, static_cast<int>(item.nKey),
         static_cast<int>(item.nKeySize), item.nLength, static_cast<int>(item.nLengthSize),
         static_cast<int>(item.nTotalSize));
  walk.marked = _IsIntegrityTag(walk, item.nKey);
  if (walk.marked && !_CheckIntegrityItem(walk, &item)) return false;
  // A value with a length of four bytes may end far behind the message, but never before the item.
  const auto valuePosition = static_cast<uint64_t>(item.pValue - walk.data);
  walk.offset = static_cast<int64_t>(_MdItemEnd(valuePosition, static_cast<UINT32>(item.nLength)));
  *ended = walk.offset == offset;
  return true;
}

// Steps over an item that needs no line and is no integrity item: one that KLV_GetInfo accepts without saying anything.
// Returns false if the item is another one.
static bool _StepOverItem(Walk& walk) {
  const size_t size = static_cast<size_t>(walk.messageSize);
  const size_t offset = static_cast<size_t>(walk.offset);
  const int tagSize = walk.pCtxt->nKlvTagFieldSize;
  if (size - offset < 2 || tagSize == KLV_FIELD_GLOBAL_TAG) return false;
  // The rest of a tag that is longer than its value is not read here.
  const size_t most =
      tagSize == KLV_FIELD_BER_OID_TAG && size - offset > kMostItemHeader ? offset + kMostItemHeader : size;
  MdItem item;
  const MdRead result = _MdReadItem(walk.data, most, offset, tagSize, walk.pCtxt->nKlvLengthFieldSize, &item);
  if (result != kMdReadOk || (item.length.longForm && item.length.count > 2)) return false;
  if (static_cast<int32_t>(item.length.value) >= 1 && item.valuePosition >= size) return false;
  if (item.end == offset || _IsIntegrityTag(walk, item.tag.key)) return false;
  walk.offset = static_cast<int64_t>(item.end);
  return true;
}

// Steps over an item with a tag and a length of one byte each that lies inside the message, which almost all items are,
// and is no integrity item. Returns false if the item is another one.
static bool _StepOverShortItem(Walk& walk) {
  const int64_t left = walk.messageSize - walk.offset;
  if (left < 2) return false;
  const BYTE* item = walk.data + walk.offset;
  const int64_t end = 2 + int64_t{item[1]};
  if (item[0] >= 0x80 || item[1] >= 0x80 || end > left || _IsIntegrityTag(walk, item[0])) return false;
  walk.offset += end;
  return true;
}

// Steps over such items up to one that is not like that.
static void _StepOverShortItems(Walk& walk) {
  // A tag that no short item has, if there is no integrity item.
  const UINT32 stop = walk.pStdInfo->bHasIntegrityItem ? walk.pStdInfo->IntegrityItemTag : 0x80;
  const BYTE* const data = walk.data;
  const int64_t size = walk.messageSize;
  int64_t offset = walk.offset;
  while (size - offset >= 2) {
    const UINT32 tag = data[offset];
    const UINT32 length = data[offset + 1];
    if (((tag | length) & 0x80) != 0 || tag == stop || length + 2 > size - offset) break;
    offset += length + 2;
  }
  walk.offset = offset;
}

// Walks to the end of the message or behind it. Returns false if the message is rejected.
static bool _WalkItems(Walk& walk) {
  const bool hasShortItems = walk.pCtxt->nKlvTagFieldSize == KLV_FIELD_BER_OID_TAG &&
                             walk.pCtxt->nKlvLengthFieldSize == KLV_FIELD_NONE_OR_BER &&
                             !MdLogEnabled(g_hMetaDataLibDbg, 7);
  bool ended = false;
  while (walk.offset < walk.messageSize && !ended) {
    if (hasShortItems) _StepOverShortItems(walk);
    if (walk.offset == walk.messageSize) break;
    if (!_WalkItem(walk, &ended)) return false;
  }
  return true;
}

// The same with what earlier walks found out.
static bool _WalkItemsAgain(Walk& walk) {
  const int tagSize = walk.pCtxt->nKlvTagFieldSize;
  const int lengthSize = walk.pCtxt->nKlvLengthFieldSize;
  const bool hasShortItems = tagSize == KLV_FIELD_BER_OID_TAG && lengthSize == KLV_FIELD_NONE_OR_BER;
  // Walks that look for an integrity item do not meet those that do not.
  const bool hasIntegrityItem = walk.pStdInfo->bHasIntegrityItem;
  const uint32_t codes =
      static_cast<uint32_t>((tagSize - KLV_FIELD_BER_OID_TAG) * 16 + lengthSize * 2) + (hasIntegrityItem ? 1 : 0);
  _RereadAt(*walk.reread, walk.position);
  MdRereadWalk known(*walk.reread, walk.position, codes, hasIntegrityItem, walk.offset);
  bool ended = false;
  while (walk.offset < walk.messageSize && !ended) {
    walk.offset = known.Skip(walk.offset, walk.messageSize);
    walk.marked = false;
    if (!(hasShortItems && _StepOverShortItem(walk)) && !_StepOverItem(walk) && !_WalkItem(walk, &ended)) return false;
    known.Note(walk.offset, walk.marked);
  }
  return true;
}

// KEPT: an integrity item is checked if there is one, but it is not required.
static bool _ValidateHeldMessage(KLV_DECODE_CONTEXT* pCtxt, BYTE* data, int messageSize, int headerSize,
                                 MdReread* reread, UINT64 position) {
  Walk walk = {pCtxt, _GetKLVStandardInfo(data), data, messageSize, headerSize, reread, position, headerSize};
  MD_LOG(7, "Called with nHeaderSize=%d, nMsgSize=%d\n", headerSize, messageSize);
  if (!(reread != nullptr ? _WalkItemsAgain(walk) : _WalkItems(walk))) return false;
  if (walk.offset == messageSize) {
    MdCount(pCtxt->Stats.nRxOkMessages, 1);
    MD_LOG(7, "Message is OK.\n");
    return true;
  }
  MD_LOG(4, "Sum of item lengths %d does not match message data length of %d.\n",
         static_cast<int>(walk.offset - headerSize), messageSize - headerSize);
  return false;
}

BOOL _ValidateKLVMessage(KLV_DECODE_CONTEXT* pCtxt, BYTE* pcData, int nMsgSize, int nHeaderSize) {
  return _ValidateHeldMessage(pCtxt, pcData, nMsgSize, nHeaderSize, nullptr, 0) ? TRUE : FALSE;
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

// The sum of a message, or of its beginning, with what is known about its bytes, if anything is.
static WORD _SumOfMessage(const BYTE* data, size_t size, MdReread* reread, UINT64 position) {
  return reread != nullptr ? _RereadSum(*reread, data, size, position) : _MdRunningSum(data, size);
}

// Does not use the exported sums, which take 65535 bytes at most: a message may be some bytes longer.
static bool _IsUASSumRight(const BYTE* data, UINT fullLength, const KLV_INFO& item, UINT itemOffset, MdReread* reread,
                           UINT64 position) {
  // KEPT: an item of the wrong form is rejected without a line of its own.
  if (item.nKeySize != 1 || item.nLengthSize != 1 || item.nLength != 2) return false;
  const UINT end = itemOffset + item.nTotalSize;
  if (end > fullLength) return false;
  const WORD stored = static_cast<WORD>(item.pValue[0] << 8 | item.pValue[1]);
  WORD computed = 0;
  if (end != fullLength) {
    MD_LOG(6, "Calculating two-pass checksum since KLV is NOT at the end.\n");
    // The two bytes behind a tag and a length of one byte each count as zero, so they are taken off again.
    const BYTE* value = data + itemOffset + 2;
    const int share = itemOffset % 2 == 0 ? value[0] << 8 | value[1] : value[1] << 8 | value[0];
    computed = static_cast<WORD>(_SumOfMessage(data, fullLength, reread, position) - share);
  } else {
    computed = _SumOfMessage(data, fullLength - 2, reread, position);
  }
  if (computed != stored) {
    MD_LOG(4, "Calculated checksum (0x%04X) doesn't match KLV value (0x%04X).\n", computed, stored);
    return false;
  }
  MD_LOG(7, "Calculated checksum matches KLV value.\n");
  return true;
}

BOOL _UASDataLinkValidator(const BYTE* data, UINT fullLength, UINT, KLV_INFO* integrityItem, UINT itemOffset) {
  return _IsUASSumRight(data, fullLength, *integrityItem, itemOffset, nullptr, 0) ? TRUE : FALSE;
}
