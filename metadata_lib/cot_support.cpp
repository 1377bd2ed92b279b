// SPDX-License-Identifier: Apache-2.0
// The serial Cursor-on-Target link.
//
//   Decode context     allocation, statistics
//   Length selection   three copies of the length, each with a check word
//   Frame decoder      byte stream to frames: COT_ProcessRxData
//   Codewords          frame payload to ARQ message: _ProcessLayer2
//   ARQ                ARQ message to XML event: _ProcessARQ

#define MD_MODULE "cot_support"

#include "cot_support.h"

#include <stdlib.h>
#include <string.h>

#include "md_atomic.h"
#include "md_codewords.h"
#include "md_guard.h"
#include "md_log.h"
#include "md_sync_buffer.h"
#include "md_xml_log.h"
#include "utils.h"

// ======================================================================================================
// Decode context
// ======================================================================================================
// Called by the opening and closing of a source on encoder threads, and by the statistics calls while the metadata
// thread counts: counters are single atomic words.

BOOL AllocCotDecodeContext(void** ppvContext, COT_RX_HANDLER pfnRxHandler, void* pvUserParam1) {
  auto* pCtxt = static_cast<COT_DECODE_CONTEXT*>(calloc(1, sizeof(COT_DECODE_CONTEXT)));
  *ppvContext = pCtxt;
  if (pCtxt == nullptr) return FALSE;
  pCtxt->enState = COT_SCANNING_FOR_HEADER;
  pCtxt->pfnRxHandler = pfnRxHandler;
  pCtxt->pvUserParam1 = pvUserParam1;
  return TRUE;
}

BOOL FreeCotDecodeContext(void** ppvContext) {
  MD_ASSERT_OR_RETURN(ppvContext != NULL, FALSE);
  MD_ASSERT_OR_RETURN(*ppvContext != NULL, FALSE);
  free(static_cast<COT_DECODE_CONTEXT*>(*ppvContext)->pReread);
  free(*ppvContext);
  *ppvContext = nullptr;
  return TRUE;
}

BOOL COT_GetStats(void* pvCtxt, COT_STATS* pStats) {
  const auto* pCtxt = static_cast<const COT_DECODE_CONTEXT*>(pvCtxt);
  pStats->nTotalRxBytes = MdLoad(pCtxt->Stats.nTotalRxBytes);
  pStats->nRxOkMessages = MdLoad(pCtxt->Stats.nRxOkMessages);
  pStats->nRxCorruptedMessages = MdLoad(pCtxt->Stats.nRxCorruptedMessages);
  return TRUE;
}

// KEPT: a reset leaves nRxChannel1Messages alone; hosts compare it with the XML log, which is not reset either.
void COT_ResetStats(void* pvCtxt) {
  auto* pCtxt = static_cast<COT_DECODE_CONTEXT*>(pvCtxt);
  MdStore(pCtxt->Stats.nTotalRxBytes, 0);
  MdStore(pCtxt->Stats.nRxOkMessages, 0);
  MdStore(pCtxt->Stats.nRxCorruptedMessages, 0);
}

void COT_SetStats(void* pvCtxt, const MDATA_SRC_STATS* pStats) {
  auto* pCtxt = static_cast<COT_DECODE_CONTEXT*>(pvCtxt);
  MdStore(pCtxt->Stats.nTotalRxBytes, pStats->nRxBytes);
  MdStore(pCtxt->Stats.nRxOkMessages, pStats->nRxOkMessages);
  MdStore(pCtxt->Stats.nRxCorruptedMessages, pStats->nRxCorruptMessages);
}

COT_STATS* COT_GetStatsPtr(void* pvCtxt) {
  return &static_cast<COT_DECODE_CONTEXT*>(pvCtxt)->Stats;
}

// ======================================================================================================
// Length selection
// ======================================================================================================
// Called by the frame decoder with a complete header. No state.

WORD _CalcLengthCheck(WORD length) {
  const WORD check = static_cast<WORD>((0x10000u - length) * 2u);
  MD_LOG(7, "Checksum for %d is 0x%04X\n", length, check);
  return check;
}

static bool _GetIdenticalLength(const SERDATA_COT_HEADER* header, int* length) {
  MD_LOG(7, "All lengths and CRCs are identical\n");
  const WORD check = _CalcLengthCheck(header->wLengthValue1);
  if (check != header->wLengthCRC1) {
    MD_LOG(4, "Calculated checksum on length of %d, 0x%04X doesn't match header's 0x%04X\n", header->wLengthValue1,
           check, header->wLengthCRC1);
    return false;
  }
  *length = header->wLengthValue1;
  MD_LOG(7, "length of data is %d bytes\n", *length);
  return true;
}

BOOL _GetCoTMessageLength(const SERDATA_COT_HEADER* header, int* length) {
  const SERDATA_COT_HEADER& h = *header;
  if (h.wLengthValue1 == h.wLengthValue2 && h.wLengthValue2 == h.wLengthValue3 && h.wLengthCRC1 == h.wLengthCRC2 &&
      h.wLengthCRC2 == h.wLengthCRC3) {
    return _GetIdenticalLength(header, length) ? TRUE : FALSE;
  }

  // KEPT: the lines show check words as LV and lengths as CRC; log readers know them as they are.
  MD_LOG(4, "MISMATCH in LENGTHs OR CRCs LV1=0x%04x, CRC1=0x%04x\n", h.wLengthCRC1, h.wLengthValue1);
  MD_LOG(4, "LV2=0x%04x, CRC2=0x%04x, LV3=0x%04x, CRC3=0x%04x\n", h.wLengthCRC2, h.wLengthValue2, h.wLengthCRC3,
         h.wLengthValue3);

  // KEPT: there is no majority vote; the first copy with a correct check word wins.
  if (_CalcLengthCheck(h.wLengthValue1) == h.wLengthCRC1) {
    *length = h.wLengthValue1;
    MD_LOG(4, "First length %d and checksum is OK\n", *length);
    return TRUE;
  }
  if (_CalcLengthCheck(h.wLengthValue2) == h.wLengthCRC2) {
    *length = h.wLengthValue2;
    MD_LOG(4, "Second length %d and checksum are OK\n", *length);
    return TRUE;
  }
  if (_CalcLengthCheck(h.wLengthValue3) == h.wLengthCRC3) {
    *length = h.wLengthValue3;
    MD_LOG(4, "Third length %d and checksum are OK\n", *length);
    return TRUE;
  }
  MD_LOG(4, "None of the length-checksums match!!!\n");
  return FALSE;
}

// ======================================================================================================
// Frame decoder
// ======================================================================================================
// Fed by the serial receive handler on the metadata thread. A slice enters at its state's function, which stores it and
// names the first step; one loop then runs the steps until the decoder waits for more. Between two calls the context
// holds the state, and the bytes of an unfinished frame at the start of DecodeBuffer.
//
// KEPT: there is no time-out; an incomplete frame waits until more data arrives.

static constexpr int kCoTWorthRemembering = 1024;  // bytes; shorter frames are decoded from scratch

namespace {

// What is known about the bytes of a payload, at its position, or nothing.
struct Known {
  MdBlockCrcs* crcs = nullptr;
  UINT64 position = 0;
};

}  // namespace

static bool _DecodePayload(COT_DECODE_CONTEXT* pCtxt, const BYTE* data, int size, const Known& known);

static BYTE* _Memory(COT_DECODE_CONTEXT* pCtxt) {
  return pCtxt->bWide ? pCtxt->pReread->wideBuffer : pCtxt->DecodeBuffer;
}

static int _Capacity(const COT_DECODE_CONTEXT* pCtxt) {
  return pCtxt->bWide ? static_cast<int>(sizeof(pCtxt->pReread->wideBuffer)) : kCoTDecodeBufferSize;
}

namespace {

// The next action within a slice.
enum class Step {
  Wait,        // nothing until the next slice
  Rescan,      // scan the held bytes for a sync pattern
  SyncFound,   // the pattern, or a prefix of it, is at the front
  ReadLength,  // the header is complete: select the length
  Decode,      // the frame is complete: decode its payload
  KeepRest     // drop the frame, keep the bytes behind it
};

// One slice while the decoder processes it.
struct Slice {
  Slice(COT_DECODE_CONTEXT* context, const BYTE* data, int length)
      : pCtxt(context),
        input(data),
        size(length),
        held(_Memory(context), _Capacity(context), context->nStart, context->nStoredAmount, context->nPosition) {}

  COT_DECODE_CONTEXT* const pCtxt;
  const BYTE* const input;  // fits behind the held bytes
  const int size;           // at least 1
  MdSyncBuffer held;
  int matched = 0;  // bytes of the sync pattern at the front
};

}  // namespace

static constexpr MdSyncPattern kCoTSync = {kCoTSyncPattern, kCoTSyncSize};

static Step _Wait(Slice& s, tagCOT_DECODE_STATE state) {
  s.pCtxt->enState = state;
  return Step::Wait;
}

static Step _ScanChunk(Slice& s) {
  MD_LOG(7, "Received data in SCANNING_FOR_HEADER state\n");
  s.matched = s.held.ScanChunk(s.input, s.size, kCoTSync);
  MD_LOG(7, "ScanForPattern returned %d\n", s.matched);
  if (s.matched != 0) return Step::SyncFound;
  s.held.Clear();
  MD_LOG(7, "Resetting INPUT BUFFER\n");
  return Step::Wait;
}

static Step _ContinueSync(Slice& s) {
  MD_LOG(7, "Received data in IN_PARTIAL_SYNC state\n");
  int compared = 0;
  if (!s.held.ContinuesPattern(s.input, s.size, kCoTSync, &compared)) {
    s.held.Restart(s.input, s.size);
    return Step::Rescan;
  }
  s.held.Append(s.input, s.size);
  if (s.held.Stored() < kCoTSyncSize) return Step::Wait;
  s.matched = kCoTSyncSize;
  return Step::SyncFound;
}

static Step _ContinueLength(Slice& s) {
  MD_LOG(7, "Received data in ACQUIRING_LENGTH state\n");
  s.held.Append(s.input, s.size);
  return s.held.Stored() >= kCoTHeaderSize ? Step::ReadLength : Step::Wait;
}

static Step _ContinueData(Slice& s) {
  MD_LOG(7, "Received data in GATHERING_DATA state\n");
  s.held.Append(s.input, s.size);
  const int messageSize = s.pCtxt->nMsgSize;
  if (s.held.Stored() < messageSize) {
    MD_LOG(7, "Still missing %d out of %d bytes of data\n", messageSize - s.held.Stored(), messageSize);
    return Step::Wait;
  }
  MD_LOG(7, "Got the full %u bytes long message\n", static_cast<unsigned>(messageSize));
  return Step::Decode;
}

static Step _Enter(Slice& s) {
  switch (s.pCtxt->enState) {
    case COT_IN_PARTIAL_SYNC:
      return _ContinueSync(s);
    case COT_ACQUIRING_LENGTH:
      return _ContinueLength(s);
    case COT_GATHERING_DATA:
      return _ContinueData(s);
    default:
      return _ScanChunk(s);
  }
}

static Step _Rescan(Slice& s) {
  int offset = 0;
  s.matched = s.held.Rescan(kCoTSync, &offset);
  return s.matched == 0 ? _Wait(s, COT_SCANNING_FOR_HEADER) : Step::SyncFound;
}

static Step _SyncFound(Slice& s) {
  if (s.matched < kCoTSyncSize) {
    MD_LOG(7, "Switching to IN_PARTIAL_SYNC state\n");
    return _Wait(s, COT_IN_PARTIAL_SYNC);
  }
  MD_LOG(7, "Got the start pattern\n");
  return s.held.Stored() < kCoTHeaderSize ? _Wait(s, COT_ACQUIRING_LENGTH) : Step::ReadLength;
}

// KEPT: after a header without a valid length only the sync pattern is discarded, and nothing is counted.
static Step _ReadLength(Slice& s) {
  MD_LOG(7, "Also got the 3 lengths and CRCs\n");
  SERDATA_COT_HEADER header;
  memcpy(&header, s.held.Front(), sizeof(header));
  int length = 0;
  bool trusted = _GetCoTMessageLength(&header, &length);
  if (trusted && length > kCoTDecodeBufferSize - kCoTHeaderSize) {
    MD_LOG(4, "Frame with %d bytes of data is larger than the decode buffer\n", length);
    trusted = false;
  }
  if (!trusted) {
    s.held.Drop(kCoTSyncSize);
    return Step::Rescan;
  }
  s.pCtxt->nMsgSize = length + kCoTHeaderSize;
  if (s.held.Stored() < s.pCtxt->nMsgSize) {
    MD_LOG(7, "Missing %d bytes of data\n", s.pCtxt->nMsgSize - s.held.Stored());
    return _Wait(s, COT_GATHERING_DATA);
  }
  MD_LOG(7, "Got the full message\n");
  return Step::Decode;
}

// A frame that begins inside a rejected one is checked with what is known about its bytes. Short ones are not worth it,
// and a log of every frame's data needs it decoded. Without memory the check takes longer, nothing else.
static Known _WhatIsKnown(Slice& s) {
  COT_DECODE_CONTEXT* pCtxt = s.pCtxt;
  if (s.held.Position() >= pCtxt->nRejectedEnd || pCtxt->nMsgSize < kCoTWorthRemembering) return {};
  if (MdLogEnabled(g_hMetaDataLibDbg, 7)) return {};
  if (pCtxt->pReread == nullptr) {
    pCtxt->pReread = static_cast<COT_REREAD*>(malloc(sizeof(COT_REREAD)));
    if (pCtxt->pReread == nullptr) return {};
    memset(&pCtxt->pReread->crcs, 0, sizeof(pCtxt->pReread->crcs));
  }
  return {&pCtxt->pReread->crcs, s.held.Position() + kCoTHeaderSize};
}

// KEPT: if the payload is rejected, only the header is discarded, so that a frame inside the payload can still start,
// and nothing is counted here.
static Step _Decode(Slice& s) {
  COT_DECODE_CONTEXT* pCtxt = s.pCtxt;
  MD_DUMP(8, "Encoded Input Data", s.held.Front(), pCtxt->nMsgSize);
  const Known known = _WhatIsKnown(s);
  if (!_DecodePayload(pCtxt, s.held.Front() + kCoTHeaderSize, pCtxt->nMsgSize - kCoTHeaderSize, known)) {
    const UINT64 end = s.held.Position() + static_cast<UINT64>(pCtxt->nMsgSize);
    if (end > pCtxt->nRejectedEnd) pCtxt->nRejectedEnd = end;
    s.held.Drop(kCoTHeaderSize);
    return Step::Rescan;
  }
  MdCount(pCtxt->Stats.nRxOkMessages, 1);
  return Step::KeepRest;
}

static Step _KeepRest(Slice& s) {
  const int extra = s.held.Stored() - s.pCtxt->nMsgSize;
  if (extra == 0) {
    MD_LOG(7, "Resetting INPUT BUFFER\n");
    s.held.Clear();
    return _Wait(s, COT_SCANNING_FOR_HEADER);
  }
  MD_LOG(7, "RECEIVED %d EXTRA BYTE\n", extra);
  s.held.Drop(s.pCtxt->nMsgSize);
  return Step::Rescan;
}

static Step _Run(Slice& s, Step step) {
  switch (step) {
    case Step::Rescan:
      return _Rescan(s);
    case Step::SyncFound:
      return _SyncFound(s);
    case Step::ReadLength:
      return _ReadLength(s);
    case Step::Decode:
      return _Decode(s);
    case Step::KeepRest:
      return _KeepRest(s);
    case Step::Wait:
      break;
  }
  return Step::Wait;
}

// Returns the size of the next slice, which fits behind the held bytes. There is always room for a byte: a held frame
// is incomplete, and a frame is never larger than the buffer.
static int _SliceSize(const COT_DECODE_CONTEXT* pCtxt, int left) {
  const int room = kCoTDecodeBufferSize - pCtxt->nStoredAmount;
  return left < room ? left : room;
}

// After a long rejected frame, moves the bytes to where dropping a few of them costs no move each time.
static void _UseWideBuffer(COT_DECODE_CONTEXT* pCtxt) {
  if (pCtxt->pReread == nullptr || pCtxt->bWide) return;
  memcpy(pCtxt->pReread->wideBuffer, pCtxt->DecodeBuffer + pCtxt->nStart, static_cast<size_t>(pCtxt->nStoredAmount));
  pCtxt->nStart = 0;
  pCtxt->bWide = TRUE;
}

static void _RunSlice(Slice& s) {
  for (Step step = _Enter(s); step != Step::Wait;) step = _Run(s, step);
  if (s.pCtxt->bWide) {
    s.held.Compact(0);
  } else {
    s.held.MoveToStart();
  }
}

int COT_ProcessRxData(void* pvCtxt, const BYTE* pvData, int nLength) {
  auto* pCtxt = static_cast<COT_DECODE_CONTEXT*>(pvCtxt);
  if (nLength <= 0) return 0;
  MdCount(pCtxt->Stats.nTotalRxBytes, nLength);
  int done = 0;
  while (done < nLength) {
    _UseWideBuffer(pCtxt);
    Slice s(pCtxt, pvData + done, _SliceSize(pCtxt, nLength - done));
    _RunSlice(s);
    done += s.size;
  }
  return 0;
}

// ======================================================================================================
// Codewords
// ======================================================================================================
// Called by the frame decoder with each complete payload, on the metadata thread. The only state are the counters of
// the context.

// KEPT: the check bits are skipped, nothing is corrected; errors are found by the CRC only.
void _DoReedSolomon(const BYTE* pcInData, BYTE* pcOutBuffer, int nOutDataSize) {
  int inputBitOffset = 0;
  int outputBitOffset = 0;
  while (outputBitOffset < nOutDataSize * 8) {
    ExtractBits(pcInData, &inputBitOffset, pcOutBuffer, &outputBitOffset, kCodewordDataBits);
    inputBitOffset += kCodewordCheckBits;
  }
  MD_DUMP(8, "Decoded Data", pcOutBuffer, nOutDataSize);
}

// Reads the block length directly: the code is systematic, so the data bits are in the clear.
static WORD _GetBlockLength(const BYTE* data, int size) {
  if (size < kBlockLengthSize) return 0;
  return static_cast<WORD>(data[0] | data[1] << 8);
}

// Counts and logs a block whose CRC is wrong.
static void _RejectBlock(COT_DECODE_CONTEXT* pCtxt, WORD stored, WORD computed) {
  const ULONG corrupted = MdCount(pCtxt->Stats.nRxCorruptedMessages, 1);
  MD_LOG(4, "CRC DOES NOT MATCH In=0x%04X vs Calc=0x%04X!!!\n", stored, computed);
  _LogLostXMLEvent(corrupted);
}

// Decodes a block of a right length into a buffer for the block and its CRC, and delivers its event.
static bool _DecodeBlock(COT_DECODE_CONTEXT* pCtxt, const BYTE* codewords, int dataBytes, int blockLength,
                         MdBufferRef& block) {
  _DoReedSolomon(codewords, block->pcData, dataBytes);
  const BYTE* blockBytes = block->pcData;
  const int messageSize = blockLength - kBlockLengthSize;
  const WORD computed = CalcCRC16(blockBytes + kBlockLengthSize, messageSize);
  MD_LOG(7, "Calculated CRC for data is 0x%04X\n", computed);
  const WORD stored = static_cast<WORD>(blockBytes[blockLength] << 8 | blockBytes[blockLength + 1]);
  if (stored != computed) {
    _RejectBlock(pCtxt, stored, computed);
    return false;
  }

  MD_LOG(7, "CRC is OK!!!\n");
  block->pcData += kBlockLengthSize;
  block->nDataSize = messageSize;
  // KEPT: the frame counts as received even if the ARQ header is wrong.
  _ProcessARQ(pCtxt, block.Get());
  return true;
}

// Decodes a payload, of which something may be known. Then a wrong CRC is found without decoding all of it.
static bool _DecodePayload(COT_DECODE_CONTEXT* pCtxt, const BYTE* data, int size, const Known& known) {
  const int blockLength = _GetBlockLength(data, size);
  MD_LOG(7, "%d bytes of data to extract in packed FEC of %d bytes\n", blockLength, size);
  const int codewords = size * 8 / kCodewordBits;
  MD_LOG(7, "%d 155 bit codewords with %d bits remaining\n", codewords, size * 8 - codewords * kCodewordBits);
  const int dataBytes = codewords * kCodewordDataBits / 8;
  MD_LOG(7, "There should be %d bytes of data in message (remainder=%d)\n", dataBytes,
         codewords * kCodewordDataBits % 8);

  // The length counts its own two bytes, so a smaller one is as wrong as one that is too large. KEPT: not counted.
  if (blockLength > dataBytes || blockLength < kBlockLengthSize) {
    MD_LOG(4, "Estimated worst case data bytes %d smaller than actual %d\n", dataBytes, blockLength);
    return false;
  }

  // The last codeword ends less than a byte behind dataBytes, the CRC at most two bytes behind it.
  MdBufferRef block;
  const int room = dataBytes + 3;
  if (known.crcs == nullptr) {
    return DoAllocBuffer(room, block.Out()) && _DecodeBlock(pCtxt, data, dataBytes, blockLength, block);
  }
  if (!_AllocUnfilledBuffer(room, block.Out())) return false;
  const MdBlockCrc crc = _MdReadBlockCrc(*known.crcs, data, static_cast<size_t>(codewords), known.position,
                                         static_cast<size_t>(blockLength));
  if (crc.stored != crc.computed) {
    _RejectBlock(pCtxt, crc.stored, crc.computed);
    return false;
  }
  memset(block->pcData, 0, static_cast<size_t>(room));
  return _DecodeBlock(pCtxt, data, dataBytes, blockLength, block);
}

BOOL _ProcessLayer2(COT_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nSize) {
  return _DecodePayload(pCtxt, pcData, nSize, Known{}) ? TRUE : FALSE;
}

// ======================================================================================================
// ARQ
// ======================================================================================================
// Called with each message whose CRC matches, on the metadata thread. Calls the source's receive handler, which adds a
// reference of its own to keep the buffer.

// Returns a byte of the ARQ message; 0 past the end, which is never a valid header byte.
static BYTE _GetArqByte(const MDATA_BUFFER* buffer, int index) {
  return index < buffer->nDataSize ? buffer->pcData[index] : BYTE{0};
}

BOOL _ProcessARQ(COT_DECODE_CONTEXT* pCtxt, MDATA_BUFFER* pBuff) {
  const BYTE first = _GetArqByte(pBuff, 0);
  if (first != 'U') {
    MD_LOG(4, "First byte of ARQ message is not 'U' but %c (0x%02x)\n", first, first);
    return FALSE;
  }
  const BYTE second = _GetArqByte(pBuff, 1);
  if (second != '#') {
    MD_LOG(4, "2nd byte of ARQ message is not '#' but %c (0x%02x)\n", second, second);
    return FALSE;
  }
  const BYTE channel = _GetArqByte(pBuff, 2);
  if (channel != '1') {
    MD_LOG(4, "This message is not on channel 1 but %c (0x%02x)\n", channel, channel);
    return FALSE;
  }
  MdCount(pCtxt->Stats.nRxChannel1Messages, 1);
  MD_LOG(6, "Received Valid ARQ Data for Channel 1\n");
  _LogXMLEvent(pBuff);

  MD_ASSERT(pCtxt->pfnRxHandler != NULL);
  pBuff->pcData += kArqHeaderSize;
  pBuff->nDataSize -= kArqHeaderSize;
  if (pCtxt->pfnRxHandler != nullptr) pCtxt->pfnRxHandler(pBuff, pCtxt->pvUserParam1);
  return TRUE;
}
