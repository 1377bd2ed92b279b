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
#include "md_guard.h"
#include "md_log.h"
#include "md_xml_log.h"

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
  MD_ASSERT(ppvContext != NULL);
  if (ppvContext == nullptr) return FALSE;
  MD_ASSERT(*ppvContext != NULL);
  if (*ppvContext == nullptr) return FALSE;
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
// Called by the frame decoder with a complete header. Stateless.

WORD _CalcLengthCheck(WORD wLength) {
  const WORD wCheck = static_cast<WORD>((0x10000u - wLength) * 2u);
  MD_LOG(7, "Checksum for %d is 0x%04X\n", wLength, wCheck);
  return wCheck;
}

static BOOL _GetIdenticalLength(const SERDATA_COT_HEADER* pHeader, int* pnLength) {
  MD_LOG(7, "All lengths and CRCs are identical\n");
  const WORD wCheck = _CalcLengthCheck(pHeader->wLengthValue1);
  if (wCheck != pHeader->wLengthCRC1) {
    MD_LOG(4, "Calculated checksum on length of %d, 0x%04X doesn't match header's 0x%04X\n", pHeader->wLengthValue1,
           wCheck, pHeader->wLengthCRC1);
    return FALSE;
  }
  *pnLength = pHeader->wLengthValue1;
  MD_LOG(7, "length of data is %d bytes\n", *pnLength);
  return TRUE;
}

BOOL _GetCoTMessageLength(const SERDATA_COT_HEADER* pHeader, int* pnLength) {
  const SERDATA_COT_HEADER& h = *pHeader;
  if (h.wLengthValue1 == h.wLengthValue2 && h.wLengthValue2 == h.wLengthValue3 && h.wLengthCRC1 == h.wLengthCRC2 &&
      h.wLengthCRC2 == h.wLengthCRC3) {
    return _GetIdenticalLength(pHeader, pnLength);
  }

  // KEPT: the lines show check words as LV and lengths as CRC; log readers know them as they are.
  MD_LOG(4, "MISMATCH in LENGTHs OR CRCs LV1=0x%04x, CRC1=0x%04x\n", h.wLengthCRC1, h.wLengthValue1);
  MD_LOG(4, "LV2=0x%04x, CRC2=0x%04x, LV3=0x%04x, CRC3=0x%04x\n", h.wLengthCRC2, h.wLengthValue2, h.wLengthCRC3,
         h.wLengthValue3);

  // KEPT: no majority vote; the earliest copy whose check word is right wins.
  if (_CalcLengthCheck(h.wLengthValue1) == h.wLengthCRC1) {
    *pnLength = h.wLengthValue1;
    MD_LOG(4, "First length %d and checksum is OK\n", *pnLength);
    return TRUE;
  }
  if (_CalcLengthCheck(h.wLengthValue2) == h.wLengthCRC2) {
    *pnLength = h.wLengthValue2;
    MD_LOG(4, "Second length %d and checksum are OK\n", *pnLength);
    return TRUE;
  }
  if (_CalcLengthCheck(h.wLengthValue3) == h.wLengthCRC3) {
    *pnLength = h.wLengthValue3;
    MD_LOG(4, "Third length %d and checksum are OK\n", *pnLength);
    return TRUE;
  }
  MD_LOG(4, "None of the length-checksums match!!!\n");
  return FALSE;
}

// ======================================================================================================
// Frame decoder
// ======================================================================================================
// Fed by the serial receive handler on the metadata thread. Between two calls the context holds the state, and the
// bytes of an unfinished frame at the start of DecodeBuffer. Within a call, bytes are dropped by moving an offset, and
// what is left moves to the front once at the end: a buffer full of nested sync patterns costs no repeated moves.
//
// KEPT: no time-out; a frame whose payload never completes waits until more data arrives.

namespace {

// What happens next within one slice of input.
enum class Step {
  kDone,  // nothing more to do until more data arrives
  kPatternComplete,
  kHeaderComplete,
  kFrameComplete,
  kRescan
};

// One slice of input on its way through the decoder.
struct Slice {
  COT_DECODE_CONTEXT* pCtxt;
  const BYTE* pcData;  // fits behind the bytes stored
  int nLength;         // at least 1
  int nOffset;         // of the stored bytes in DecodeBuffer
};

BYTE* _Stored(const Slice& s) {
  return s.pCtxt->DecodeBuffer + s.nOffset;
}

void _Append(Slice& s, const BYTE* pcData, int nLength) {
  memcpy(_Stored(s) + s.pCtxt->nStoredAmount, pcData, static_cast<size_t>(nLength));
  s.pCtxt->nStoredAmount += nLength;
}

void _DropStored(Slice& s, int nBytes) {
  s.nOffset += nBytes;
  s.pCtxt->nStoredAmount -= nBytes;
}

Step _WaitInState(Slice& s, tagCOT_DECODE_STATE enState) {
  s.pCtxt->enState = enState;
  return Step::kDone;
}

Step _StartOver(Slice& s) {
  s.pCtxt->nStoredAmount = 0;
  return _WaitInState(s, COT_SCANNING_FOR_HEADER);
}

// nMatched bytes of the sync pattern are at the start of the stored bytes.
Step _SyncFound(Slice& s, UINT nMatched) {
  if (nMatched < kCoTSyncSize) {
    MD_LOG(7, "Switching to IN_PARTIAL_SYNC state\n");
    return _WaitInState(s, COT_IN_PARTIAL_SYNC);
  }
  return Step::kPatternComplete;
}

// Waits for the sync pattern.
Step _ScanForHeader(Slice& s) {
  MD_LOG(7, "Received data in SCANNING_FOR_HEADER state\n");
  int nMatchOffset = 0;
  const UINT nMatched = ScanForPattern(s.pcData, s.nLength, kCoTSyncPattern, kCoTSyncSize, &nMatchOffset);
  MD_LOG(7, "ScanForPattern returned %d\n", static_cast<int>(nMatched));
  s.pCtxt->nStoredAmount = 0;
  if (nMatched == 0) {
    MD_LOG(7, "Resetting INPUT BUFFER\n");
    return Step::kDone;
  }
  _Append(s, s.pcData + nMatchOffset, s.nLength - nMatchOffset);
  return _SyncFound(s, nMatched);
}

// Waits for the rest of a sync pattern cut off at the end of a chunk.
Step _ContinuePartialSync(Slice& s) {
  MD_LOG(7, "Received data in IN_PARTIAL_SYNC state\n");
  COT_DECODE_CONTEXT* pCtxt = s.pCtxt;
  const int nMissing = kCoTSyncSize - pCtxt->nStoredAmount;
  const int nCompared = s.nLength < nMissing ? s.nLength : nMissing;
  const bool bMatch = memcmp(s.pcData, kCoTSyncPattern + pCtxt->nStoredAmount, static_cast<size_t>(nCompared)) == 0;
  if (!bMatch) pCtxt->nStoredAmount = 0;
  _Append(s, s.pcData, s.nLength);
  if (!bMatch) return Step::kRescan;
  return pCtxt->nStoredAmount >= kCoTSyncSize ? Step::kPatternComplete : Step::kDone;
}

// Waits for the rest of the header.
Step _AcquireLength(Slice& s) {
  MD_LOG(7, "Received data in ACQUIRING_LENGTH state\n");
  _Append(s, s.pcData, s.nLength);
  return s.pCtxt->nStoredAmount >= kCoTHeaderSize ? Step::kHeaderComplete : Step::kDone;
}

// Waits for the rest of the payload.
Step _GatherData(Slice& s) {
  MD_LOG(7, "Received data in GATHERING_DATA state\n");
  _Append(s, s.pcData, s.nLength);
  const COT_DECODE_CONTEXT* pCtxt = s.pCtxt;
  if (pCtxt->nStoredAmount < pCtxt->nMsgSize) {
    MD_LOG(7, "Still missing %d out of %d bytes of data\n", pCtxt->nMsgSize - pCtxt->nStoredAmount, pCtxt->nMsgSize);
    return Step::kDone;
  }
  MD_LOG(7, "Got the full %u bytes long message\n", static_cast<unsigned>(pCtxt->nMsgSize));
  return Step::kFrameComplete;
}

Step _PatternComplete(Slice& s) {
  MD_LOG(7, "Got the start pattern\n");
  if (s.pCtxt->nStoredAmount < kCoTHeaderSize) return _WaitInState(s, COT_ACQUIRING_LENGTH);
  return Step::kHeaderComplete;
}

// KEPT: a header without a trustworthy length costs only the sync pattern and is not counted.
Step _HeaderComplete(Slice& s) {
  MD_LOG(7, "Also got the 3 lengths and CRCs\n");
  COT_DECODE_CONTEXT* pCtxt = s.pCtxt;
  SERDATA_COT_HEADER Header;
  memcpy(&Header, _Stored(s), sizeof(Header));
  int nLength = 0;
  BOOL bTrusted = _GetCoTMessageLength(&Header, &nLength);
  if (bTrusted && nLength > kCoTDecodeBufferSize - kCoTHeaderSize) {
    MD_LOG(4, "Frame with %d bytes of data is larger than the decode buffer\n", nLength);
    bTrusted = FALSE;
  }
  if (!bTrusted) {
    _DropStored(s, kCoTSyncSize);
    return Step::kRescan;
  }
  pCtxt->nMsgSize = nLength + kCoTHeaderSize;
  if (pCtxt->nStoredAmount < pCtxt->nMsgSize) {
    MD_LOG(7, "Missing %d bytes of data\n", pCtxt->nMsgSize - pCtxt->nStoredAmount);
    return _WaitInState(s, COT_GATHERING_DATA);
  }
  MD_LOG(7, "Got the full message\n");
  return Step::kFrameComplete;
}

// KEPT: a rejected payload costs the header and is not counted here, so that a frame inside it can still start.
Step _FrameComplete(Slice& s) {
  COT_DECODE_CONTEXT* pCtxt = s.pCtxt;
  MD_DUMP(8, "Encoded Input Data", _Stored(s), pCtxt->nMsgSize);
  if (!_ProcessLayer2(pCtxt, _Stored(s) + kCoTHeaderSize, pCtxt->nMsgSize - kCoTHeaderSize)) {
    _DropStored(s, kCoTHeaderSize);
    return Step::kRescan;
  }
  MdAdd(pCtxt->Stats.nRxOkMessages, 1);
  if (pCtxt->nStoredAmount == pCtxt->nMsgSize) {
    MD_LOG(7, "Resetting INPUT BUFFER\n");
    return _StartOver(s);
  }
  MD_LOG(7, "RECEIVED %d EXTRA BYTE\n", pCtxt->nStoredAmount - pCtxt->nMsgSize);
  _DropStored(s, pCtxt->nMsgSize);
  return Step::kRescan;
}

Step _Rescan(Slice& s) {
  int nMatchOffset = 0;
  const UINT nMatched =
      ScanForPattern(_Stored(s), s.pCtxt->nStoredAmount, kCoTSyncPattern, kCoTSyncSize, &nMatchOffset);
  if (nMatched == 0) return _StartOver(s);
  _DropStored(s, nMatchOffset);
  return _SyncFound(s, nMatched);
}

Step _TakeSlice(Slice& s) {
  switch (s.pCtxt->enState) {
    case COT_IN_PARTIAL_SYNC:
      return _ContinuePartialSync(s);
    case COT_ACQUIRING_LENGTH:
      return _AcquireLength(s);
    case COT_GATHERING_DATA:
      return _GatherData(s);
    default:
      return _ScanForHeader(s);
  }
}

Step _RunStep(Slice& s, Step enStep) {
  switch (enStep) {
    case Step::kPatternComplete:
      return _PatternComplete(s);
    case Step::kHeaderComplete:
      return _HeaderComplete(s);
    case Step::kFrameComplete:
      return _FrameComplete(s);
    case Step::kRescan:
      return _Rescan(s);
    case Step::kDone:
      break;
  }
  return Step::kDone;
}

void _ProcessSlice(COT_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nLength) {
  Slice s{pCtxt, pcData, nLength, 0};
  Step enStep = _TakeSlice(s);
  while (enStep != Step::kDone) enStep = _RunStep(s, enStep);
  if (s.nOffset != 0 && pCtxt->nStoredAmount != 0) {
    memmove(pCtxt->DecodeBuffer, _Stored(s), static_cast<size_t>(pCtxt->nStoredAmount));
  }
}

}  // namespace

// A chunk goes in slices that fit behind what is stored. There is always room for a byte: a stored frame is unfinished,
// and a frame is never larger than the buffer.
int COT_ProcessRxData(void* pvCtxt, const BYTE* pvData, int nLength) {
  auto* pCtxt = static_cast<COT_DECODE_CONTEXT*>(pvCtxt);
  if (nLength <= 0) return 0;
  MdAdd(pCtxt->Stats.nTotalRxBytes, nLength);
  while (nLength > 0) {
    const int nRoom = kCoTDecodeBufferSize - pCtxt->nStoredAmount;
    const int nSlice = nLength < nRoom ? nLength : nRoom;
    _ProcessSlice(pCtxt, pvData, nSlice);
    pvData += nSlice;
    nLength -= nSlice;
  }
  return 0;
}

// ======================================================================================================
// Codewords
// ======================================================================================================
// Called by the frame decoder with each complete payload, on the metadata thread. No state of its own; counts in the
// context.

// KEPT: the check bits are skipped, nothing is corrected; errors are found by the CRC only.
void _DoReedSolomon(const BYTE* pcInData, BYTE* pcOutBuffer, int nOutDataSize) {
  int nInputBitOffset = 0;
  int nOutputBitOffset = 0;
  while (nOutputBitOffset < nOutDataSize * 8) {
    ExtractBits(pcInData, &nInputBitOffset, pcOutBuffer, &nOutputBitOffset, kCodewordDataBits);
    nInputBitOffset += kCodewordCheckBits;
  }
  MD_DUMP(8, "Decoded Data", pcOutBuffer, nOutDataSize);
}

// Reads the block length directly: the code is systematic, so the data bits are in the clear.
static WORD _GetBlockLength(const BYTE* pcData, int nSize) {
  if (nSize < kBlockLengthSize) return 0;
  return static_cast<WORD>(pcData[0] | pcData[1] << 8);
}

BOOL _ProcessLayer2(COT_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nSize) {
  const int nBlockLength = _GetBlockLength(pcData, nSize);
  MD_LOG(7, "%d bytes of data to extract in packed FEC of %d bytes\n", nBlockLength, nSize);
  const int nCodewords = nSize * 8 / kCodewordBits;
  MD_LOG(7, "%d 155 bit codewords with %d bits remaining\n", nCodewords, nSize * 8 - nCodewords * kCodewordBits);
  const int nDataBytes = nCodewords * kCodewordDataBits / 8;
  MD_LOG(7, "There should be %d bytes of data in message (remainder=%d)\n", nDataBytes,
         nCodewords * kCodewordDataBits % 8);

  // The length counts its own two bytes, so a smaller one is as wrong as one that is too large. KEPT: not counted.
  if (nBlockLength > nDataBytes || nBlockLength < kBlockLengthSize) {
    MD_LOG(4, "Estimated worst case data bytes %d smaller than actual %d\n", nDataBytes, nBlockLength);
    return FALSE;
  }

  // The last codeword ends less than a byte behind nDataBytes, and the CRC at most two bytes behind it.
  MdBufferRef Block;
  if (!DoAllocBuffer(nDataBytes + 3, Block.Out())) return FALSE;
  _DoReedSolomon(pcData, Block->pcData, nDataBytes);

  const BYTE* pcBlock = Block->pcData;
  const int nMessageSize = nBlockLength - kBlockLengthSize;
  const WORD wComputed = CalcCRC16(pcBlock + kBlockLengthSize, nMessageSize);
  MD_LOG(7, "Calculated CRC for data is 0x%04X\n", wComputed);
  const WORD wStored = static_cast<WORD>(pcBlock[nBlockLength] << 8 | pcBlock[nBlockLength + 1]);
  if (wStored != wComputed) {
    const ULONG nCorrupted = MdAdd(pCtxt->Stats.nRxCorruptedMessages, 1);
    MD_LOG(4, "CRC DOES NOT MATCH In=0x%04X vs Calc=0x%04X!!!\n", wStored, wComputed);
    _LogLostXMLEvent(nCorrupted);
    return FALSE;
  }

  MD_LOG(7, "CRC is OK!!!\n");
  Block->pcData += kBlockLengthSize;
  Block->nDataSize = nMessageSize;
  // KEPT: the frame counts as received whatever the ARQ header says.
  _ProcessARQ(pCtxt, Block.Get());
  return TRUE;
}

// ======================================================================================================
// ARQ
// ======================================================================================================
// Called with each message whose CRC was right, on the metadata thread. Calls the source's receive handler, which
// takes its own reference if it keeps the buffer.

// Returns a byte of the ARQ message; 0 past the end, which is never a valid header byte.
static BYTE _GetArqByte(const MDATA_BUFFER* pBuff, int nIndex) {
  return nIndex < pBuff->nDataSize ? pBuff->pcData[nIndex] : BYTE{0};
}

BOOL _ProcessARQ(COT_DECODE_CONTEXT* pCtxt, MDATA_BUFFER* pBuff) {
  const BYTE cFirst = _GetArqByte(pBuff, 0);
  if (cFirst != 'U') {
    MD_LOG(4, "First byte of ARQ message is not 'U' but %c (0x%02x)\n", cFirst, cFirst);
    return FALSE;
  }
  const BYTE cSecond = _GetArqByte(pBuff, 1);
  if (cSecond != '#') {
    MD_LOG(4, "2nd byte of ARQ message is not '#' but %c (0x%02x)\n", cSecond, cSecond);
    return FALSE;
  }
  const BYTE cChannel = _GetArqByte(pBuff, 2);
  if (cChannel != '1') {
    MD_LOG(4, "This message is not on channel 1 but %c (0x%02x)\n", cChannel, cChannel);
    return FALSE;
  }
  MdAdd(pCtxt->Stats.nRxChannel1Messages, 1);
  MD_LOG(6, "Received Valid ARQ Data for Channel 1\n");
  _LogXMLEvent(pBuff);

  MD_ASSERT(pCtxt->pfnRxHandler != NULL);
  pBuff->pcData += kArqHeaderSize;
  pBuff->nDataSize -= kArqHeaderSize;
  if (pCtxt->pfnRxHandler != nullptr) pCtxt->pfnRxHandler(pBuff, pCtxt->pvUserParam1);
  return TRUE;
}
