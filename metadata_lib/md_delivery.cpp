// The delivery of a message. See the header.
#include "md_delivery.h"

#include <string.h>

#include "md_core.h"
#include "md_request.h"
#include "misb0601_tools.h"

// The lines carry the name of the engine, whose paths end here.
#define MD_MODULE "metadata_api"
#include "md_log.h"

time_t _tLastLog = 0;

static constexpr int kSmallestUASMessage = 20;  // key, length and one element

// =====================================================================================================
// Rewriting
// =====================================================================================================

bool _WantsRewriting(MDATA_SRC_HANDLE hSource) {
  return hSource->pMissionID != nullptr || hSource->pSecurityMDataSet != nullptr || hSource->Config.bFilterUASTags ||
         hSource->Config.bFilterUASSecurityTags;
}

// KEPT: the text says 16 bytes, the limit is 19; at most one such line in five seconds for the whole library.
static void _LogShortMessage() {
  const time_t tNow = time(nullptr);
  if (tNow - _tLastLog <= kLogHoldOffSecs) return;
  _tLastLog = tNow;
  MD_LOG(4, "Got less than 16 bytes of KLV.\n");
}

// Reads the BER length behind the key. Stores the size of key and length field, and that of the whole message as an
// unsigned 16-bit value, which wraps. Returns false if the length form is not supported. The caller has checked that
// the message is not shorter than kSmallestUASMessage.
// KEPT: only the one- and two-byte long forms.
static bool _ReadUASHeader(const BYTE* pcData, int nSize, int* pnHeaderSize, WORD* pnTotal) {
  MdLength Length;
  _MdReadLength(pcData, static_cast<size_t>(nSize), kUASKeySize, kMdFieldNoneOrBer, &Length);
  if (Length.longForm && Length.count != 1 && Length.count != 2) {
    MD_LOG(4, "Unsupported number of bytes (%d) for UAV data set length.\n", static_cast<int>(Length.count));
    return false;
  }
  *pnHeaderSize = kUASKeySize + static_cast<int>(Length.size);
  *pnTotal = static_cast<WORD>(static_cast<UINT32>(*pnHeaderSize) + Length.value);
  return true;
}

BOOL _ProcessRxKLV(MDATA_SRC_HANDLE hSource, BYTE* pcData, int nSize, MDATA_BUFFER** ppNewBuff, int* pnNewSize) {
  if (nSize < kSmallestUASMessage) {
    _LogShortMessage();
    return FALSE;
  }
  if (memcmp(pcData, UASDataLinkKey, kUASKeySize) != 0) {
    MD_LOG(7, "NON UAS Data Set detected for source#%d.\n", hSource->Config.nIndex);
    MD_DUMP(7, "First 16 Bytes of Rx Data", pcData, kUASKeySize);
    MD_DUMP(7, "UAS Header", UASDataLinkKey, kUASKeySize);
    return FALSE;
  }
  MD_LOG(7, "Got UAS KLV message of %d bytes.\n", nSize);
  int nHeaderSize = 0;
  WORD nTotal = 0;
  if (!_ReadUASHeader(pcData, nSize, &nHeaderSize, &nTotal)) return FALSE;
  if (nTotal > nSize) {
    MD_LOG(3, "UAV set of %d bytes received but buffer is %d bytes.\n", nTotal, nSize);
    return FALSE;
  }
  if (nTotal < nHeaderSize) return FALSE;  // the 16-bit total wrapped
  // KEPT: bytes behind the total are left out of the rewritten message.
  return ProcessUASDataLinkLocalSet(hSource, pcData, nTotal, nHeaderSize, ppNewBuff, pnNewSize);
}

// Decides for every path what the result of the rewriting means: a message that cannot be rewritten continues
// unchanged, even an invalid one.
Rewritten _RewriteOnPath(MDATA_SRC_HANDLE hSource, const PathTexts& Texts, BYTE* pcData, int nSize,
                         MdBufferRef& Buffer) {
  if (!_WantsRewriting(hSource)) return Rewritten::Unchanged;
  MDATA_BUFFER* pNewBuff = nullptr;
  int nNewSize = 0;
  if (!_ProcessRxKLV(hSource, pcData, nSize, &pNewBuff, &nNewSize)) return Rewritten::Unchanged;
  *Buffer.Out() = pNewBuff;
  if (pNewBuff == nullptr) {
    // KEPT: the assertion reports that a tag filter removes whole messages; a sender can raise it. Its text names the
    // variable that logs have always shown.
    if (Texts.szNothingLeft != nullptr) MD_ASSERT_TEXT(pNewBuff != nullptr, Texts.szNothingLeft);
    MD_ASSERT(nNewSize == 0);
    return Rewritten::Dropped;
  }
  MD_DUMP(Texts.nSubstitutedLevel, Texts.szSubstituted, pNewBuff->pcData, pNewBuff->nDataSize);
  MD_ASSERT(nNewSize != 0);
  return Rewritten::Replaced;
}

// =====================================================================================================
// Delivery
// =====================================================================================================

void _FeedOutputRate(MDATA_SRC_HANDLE hSource, UINT64 nRunningTotal, time_t tNow) {
  if (hSource->tLastRateSampleTime == tNow) return;
  if (hSource->hOutputRate != nullptr) AddCounterValue(hSource->hOutputRate, nRunningTotal);
  hSource->tLastRateSampleTime = tNow;
}

// Writes the stream header into the reserve in front of the message. The length is the low 16 bits of the one
// given, which may differ from the buffer's; the caller increments the sequence number.
//
//   offset size value
//        0    1 0x00
//        1    1 HeaderSequence
//        2    1 0xDF
//        3    2 length, big-endian
static void _PrependStreamHeader(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* pBuff, int nLength) {
  pBuff->pcData -= MDATA_STREAM_HEADER_SIZE;
  pBuff->nDataSize += MDATA_STREAM_HEADER_SIZE;
  pBuff->pcData[0] = 0x00;
  pBuff->pcData[1] = hSource->HeaderSequence;
  pBuff->pcData[2] = 0xDF;
  pBuff->pcData[3] = static_cast<BYTE>((nLength >> 8) & 0xFF);
  pBuff->pcData[4] = static_cast<BYTE>(nLength & 0xFF);
}

// Writes the line and the dump before a delivery.
static void _LogDelivery(const PathTexts& Texts, const MDATA_BUFFER* pBuff, int nHeaderLength) {
  if (Texts.nCompleteLevel != kNoLine)
    MD_LOG(Texts.nCompleteLevel, "Got complete KLV message of %d bytes.\n", nHeaderLength);
  if (Texts.nDumpLevel == kNoLine) return;
  if (Texts.bDumpHeader)
    MD_DUMP(Texts.nDumpLevel, Texts.szDump, pBuff->pcData, pBuff->nDataSize);
  else
    MD_DUMP(Texts.nDumpLevel, Texts.szDump, pBuff->pcData + MDATA_STREAM_HEADER_SIZE, nHeaderLength);
}

// The encoder is not called if the source's close was given up while the message was being processed.
// KEPT: the first user parameter is delivered twice.
static BOOL _CallReadyCallback(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* pBuff) {
  if (hSource->Config.pfnCallback == nullptr || _IsGivenUp(hSource)) return FALSE;
  return hSource->Config.pfnCallback(pBuff, hSource->Config.pvUserParam1, hSource->Config.pvUserParam1);
}

BOOL _Deliver(MDATA_SRC_HANDLE hSource, const PathTexts& Texts, MDATA_BUFFER* pBuff, int nHeaderLength) {
  _PrependStreamHeader(hSource, pBuff, nHeaderLength);
  if (!Texts.bSequenceIfTaken) ++hSource->HeaderSequence;
  _LogDelivery(Texts, pBuff, nHeaderLength);
  MD_ASSERT_TEXT(hSource->Config.pfnCallback != nullptr, Texts.szCallbackMissing);
  const BOOL bTaken = _CallReadyCallback(hSource, pBuff);
  if (Texts.bSequenceIfTaken && bTaken) ++hSource->HeaderSequence;
  return bTaken;
}
