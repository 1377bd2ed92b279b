// Rewriting of UAS Datalink Local Set messages (MISB ST 0601).
//
//   Output            where a walk puts its bytes
//   Security set      the tag filter inside tag 48
//   Message walk      the rules that decide about every element of a message
//   Finished message  inserts, checksum, length field and key
#include "misb0601_processing.h"

#include <limits.h>
#include <string.h>

#include <algorithm>

#define MD_MODULE "misb0601_processing"
#include "md_atomic.h"
#include "md_core.h"
#include "md_guard.h"
#include "md_log.h"

// Everything here runs on the metadata thread, inside the data path of one source; the source's counters are changed
// whole, for the statistics calls of other threads.

// =====================================================================================================
// Output. A message is walked twice with the same rules: the first walk is silent and only measures, so that the
// buffer is as large as the body; the second one writes, counts and logs.
// =====================================================================================================

namespace {

struct WalkOutput {
  BYTE* pcBody;  // where the body starts; NULL only measures
  bool bSpeak;   // log, and raise assertions
  size_t nSize;  // bytes of body so far
  size_t nRoom;  // bytes of body touched at any time, including those of a set that vanished
};

void Put(WalkOutput& Out, const void* pvData, size_t nSize) {
  if (Out.pcBody != NULL) memcpy(Out.pcBody + Out.nSize, pvData, nSize);
  Out.nSize += nSize;
  Out.nRoom = std::max(Out.nRoom, Out.nSize);
}

// Whether a tag's bit is set in a filter; tags beyond the map have no bit.
template <size_t N>
bool IsTagKept(const UINT32 (&aFilter)[N], UINT32 nTag) {
  return nTag < N * 32 && ((aFilter[nTag / 32] >> (nTag % 32)) & 1u) != 0;
}

// =====================================================================================================
// Security set (MISB ST 0102). KEPT: the set's own length is taken for one byte, so that a set with a long-form
// length is read from inside its length field; usually nothing readable comes of it and the set is dropped.
// =====================================================================================================

size_t FilterSecuritySet(MDATA_SRC_HANDLE hSource, const KLV_ELEMENT* pSecurityItem, int nInputSize, WalkOutput Out) {
  if (Out.bSpeak) {
    MD_ASSERT(pSecurityItem->Tag == UAS_SECURITY_LOCAL_SET_TAG);
    MD_DUMP(7, "Input Security Data Set", pSecurityItem, nInputSize);
  }
  const BYTE Header[kKLVElementHeader] = {UAS_SECURITY_LOCAL_SET_TAG, 0};
  const size_t nStart = Out.nSize;
  const BYTE* pcNext = reinterpret_cast<const BYTE*>(pSecurityItem) + kKLVElementHeader;
  nInputSize -= static_cast<int>(kKLVElementHeader);
  Put(Out, Header, sizeof(Header));
  int nElement = 0;
  while (nInputSize > 0) {
    KLV_ELEMENT_INFO Element = {};
    nElement++;
    const auto enSize = _ReadKLVElement(pcNext, static_cast<size_t>(nInputSize), Out.bSpeak, &Element);
    if (enSize == KLV_SIZE_UNSUPPORTED) return 0;  // KEPT: the whole set goes
    if (enSize == KLV_SIZE_CUT || Element.nSize > static_cast<size_t>(nInputSize)) break;
    const bool bKeep = IsTagKept(hSource->Config.UASSecurityTagFilter, Element.nTag);
    if (Out.bSpeak && bKeep) {
      MD_LOG(7, "Copying security element#%d: tag#%d (%s), length=%d.\n", nElement, static_cast<int>(Element.nTag),
             _GetSecurityTagName(Element.nTag), Element.FirstLength);
    } else if (Out.bSpeak) {
      MD_LOG(7, "Discarding security element#%d: tag#%d (%s), length=%d.\n", nElement, static_cast<int>(Element.nTag),
             _GetSecurityTagName(Element.nTag), Element.FirstLength);
    }
    if (bKeep) Put(Out, pcNext, Element.nSize);
    pcNext += Element.nSize;
    nInputSize -= static_cast<int>(Element.nSize);
  }
  if (Out.bSpeak) MD_ASSERT(nInputSize == 0);
  const size_t nCopied = Out.nSize - nStart - sizeof(Header);
  if (nCopied == 0) return 0;
  // KEPT: one length byte, the low 8 bits of the size.
  if (Out.pcBody != NULL) Out.pcBody[nStart + 1] = static_cast<BYTE>(nCopied);
  return nCopied + sizeof(Header);
}

// =====================================================================================================
// Message walk. Called for both walks; the outcome of an element does not depend on which one it is.
// =====================================================================================================

struct MessageWalk {
  MDATA_SRC_HANDLE hSource;
  WalkOutput Out;
  const BYTE* pcNext;  // element to look at
  size_t nSizeLeft;    // bytes from it to the end of the message
  int nElement;        // its number, from 1
  UINT32 nLastTag;     // tag of the last element seen
  int nMissionIDs;     // elements replaced by the source's mission identifier
  int nSecuritySets;   // elements replaced by the source's security set
};

// Whether an invalid message may be logged now: never in the silent walk, and only when more than four seconds have
// passed since the source's last such log.
bool MayLogInvalid(MessageWalk& Walk) {
  if (!Walk.Out.bSpeak) return false;
  const time_t tNow = time(NULL);
  if (tNow - Walk.hSource->tLastInvalidUASLogTime <= kInvalidUASLogPause) return false;
  Walk.hSource->tLastInvalidUASLogTime = tNow;
  return true;
}

// Reads the element to look at; false when the message is invalid.
bool ReadElement(MessageWalk& Walk, KLV_ELEMENT_INFO* pElement) {
  const auto enSize = _ReadKLVElement(Walk.pcNext, Walk.nSizeLeft, Walk.Out.bSpeak, pElement);
  const UINT32 nTag = pElement->nTag;
  Walk.nLastTag = nTag;
  if (enSize == KLV_SIZE_UNSUPPORTED) {
    if (MayLogInvalid(Walk))
      MD_LOG(3, "KLV Element#%d: tag#%d (%s), Unable to extract element size.\n", Walk.nElement, static_cast<int>(nTag),
             _GetUAVTagName(nTag));
    return false;
  }
  if (enSize == KLV_SIZE_CUT || pElement->nSize > Walk.nSizeLeft) {
    if (MayLogInvalid(Walk))
      MD_LOG(3, "KLV Element#%d: tag#%d (%s), has INVALID data length=%d with only %d bytes remaining in message.\n",
             Walk.nElement, static_cast<int>(nTag), _GetUAVTagName(nTag), pElement->FirstLength,
             static_cast<int>(Walk.nSizeLeft));
    return false;
  }
  if (nTag == UAS_CHECKSUM_TAG && pElement->FirstLength != 2) {
    if (MayLogInvalid(Walk))
      MD_LOG(3, "KLV Element#%d: tag#%d (%s), has INVALID data length=%d instead of 2.\n", Walk.nElement,
             static_cast<int>(nTag), _GetUAVTagName(nTag), pElement->FirstLength);
    return false;
  }
  return true;
}

bool PassesTagFilter(const MessageWalk& Walk, UINT32 nTag) {
  if (!Walk.hSource->Config.bFilterUASTags) return true;
  const bool bKeep = IsTagKept(Walk.hSource->Config.UASTagFilter, nTag);
  if (Walk.Out.bSpeak && bKeep) {
    MD_LOG(7, "Copying KLV element#%d: tag#%d (%s) since it is included in the UAS filter.\n", Walk.nElement,
           static_cast<int>(nTag), _GetUAVTagName(nTag));
  } else if (Walk.Out.bSpeak) {
    MD_LOG(7, "Not copying KLV element#%d: tag#%d (%s) since it is not included in the UAS filter.\n", Walk.nElement,
           static_cast<int>(nTag), _GetUAVTagName(nTag));
  }
  return bKeep;
}

// Puts what the element becomes into the output: nothing, itself, or the source's own in its place.
void RewriteElement(MessageWalk& Walk, const KLV_ELEMENT_INFO& Element) {
  const MDATA_SRC_HANDLE hSource = Walk.hSource;
  if (Element.nTag == UAS_CHECKSUM_TAG) return;  // a new one ends the message
  // KEPT: the source's own elements are not subject to the filters, and every such element is replaced.
  if (Element.nTag == UAS_MISSION_ID_TAG && hSource->pMissionID != NULL) {
    Put(Walk.Out, hSource->pMissionID, static_cast<size_t>(hSource->nMissionIDElementSize));
    Walk.nMissionIDs++;
    return;
  }
  if (Element.nTag == UAS_SECURITY_LOCAL_SET_TAG && hSource->pSecurityMDataSet != NULL) {
    Put(Walk.Out, hSource->pSecurityMDataSet, static_cast<size_t>(hSource->nSecurityMDataSetSize));
    Walk.nSecuritySets++;
    return;
  }
  if (!PassesTagFilter(Walk, Element.nTag)) return;
  if (Element.nTag == UAS_SECURITY_LOCAL_SET_TAG && hSource->Config.bFilterUASSecurityTags) {
    // A set that vanishes at its end was written before; it is never longer than what it was made from.
    Walk.Out.nRoom = std::max(Walk.Out.nRoom, Walk.Out.nSize + Element.nSize);
    const auto* pSet = reinterpret_cast<const KLV_ELEMENT*>(Walk.pcNext);
    Walk.Out.nSize += FilterSecuritySet(hSource, pSet, static_cast<int>(Element.nSize), Walk.Out);
    return;
  }
  Put(Walk.Out, Walk.pcNext, Element.nSize);
}

// Walks the body; false when the message is invalid. KEPT: the last one or two bytes are never an element.
bool WalkMessage(MessageWalk& Walk) {
  while (Walk.nSizeLeft > 2) {
    KLV_ELEMENT_INFO Element = {};
    Walk.nElement++;
    if (!ReadElement(Walk, &Element)) return false;
    RewriteElement(Walk, Element);
    Walk.pcNext += Element.nSize;
    Walk.nSizeLeft -= Element.nSize;
  }
  return true;
}

// =====================================================================================================
// Finished message. The body is written behind a head room and never moved; the length field and the key are put
// in front of it when its size is known.
// =====================================================================================================

const BYTE kEmptyChecksum[kUASChecksumSize] = {UAS_CHECKSUM_TAG, 2, 0, 0};

// Appends the source's elements that replaced none, and an empty checksum element. Both walks.
void PutInserts(MessageWalk& Walk) {
  const MDATA_SRC_HANDLE hSource = Walk.hSource;
  if (hSource->pMissionID != NULL && Walk.nMissionIDs == 0)
    Put(Walk.Out, hSource->pMissionID, static_cast<size_t>(hSource->nMissionIDElementSize));
  if (hSource->pSecurityMDataSet != NULL && Walk.nSecuritySets == 0)
    Put(Walk.Out, hSource->pSecurityMDataSet, static_cast<size_t>(hSource->nSecurityMDataSetSize));
  Put(Walk.Out, kEmptyChecksum, sizeof(kEmptyChecksum));
}

void CountInserts(const MessageWalk& Walk) {
  MDATA_KLV_STATS& Stats = Walk.hSource->KLVStats;
  if (Walk.hSource->pMissionID != NULL) {
    if (Walk.nMissionIDs == 0)
      MdAdd(Stats.nAddedMissionIDs, 1);
    else
      MdAdd(Stats.nUpdatedMissionIDs, Walk.nMissionIDs);
  }
  if (Walk.hSource->pSecurityMDataSet != NULL) {
    if (Walk.nSecuritySets == 0)
      MdAdd(Stats.nAddedSecuritySets, 1);
    else
      MdAdd(Stats.nUpdatedSecuritySets, Walk.nSecuritySets);
  }
}

// Logs what the walk left over. KEPT: a message without any checksum is told the same way as a misplaced one, and
// both are accepted.
void LogLeftOvers(const MessageWalk& Walk) {
  if (Walk.nSizeLeft > 0) MD_LOG(2, "nSizeLeft=%d.\n", static_cast<int>(Walk.nSizeLeft));
  if (Walk.nLastTag != UAS_CHECKSUM_TAG) MD_LOG(4, "Checksum in received UAS data set was not the last element!\n");
}

// Writes the BER length of a body of up to 65535 bytes and returns how many bytes it takes.
int WriteBodyLength(size_t nBodySize, BYTE (&acLength)[kMaxBodyLengthField]) {
  if (nBodySize <= 127) {
    acLength[0] = static_cast<BYTE>(nBodySize);
    return 1;
  }
  if (nBodySize <= 255) {
    acLength[0] = 0x81;
    acLength[1] = static_cast<BYTE>(nBodySize);
    return 2;
  }
  acLength[0] = 0x82;
  acLength[1] = static_cast<BYTE>(nBodySize >> 8);
  acLength[2] = static_cast<BYTE>(nBodySize);
  return 3;
}

// Puts the head in front of the body that starts at the buffer's data start, and fills in the checksum.
void FinishMessage(MDATA_BUFFER* pBuffer, const BYTE* pcKey, size_t nBodySize) {
  BYTE acLength[kMaxBodyLengthField];
  const int nLengthSize = WriteBodyLength(nBodySize, acLength);
  BYTE* pcChecksum = pBuffer->pcData + nBodySize - 2;
  pBuffer->pcData -= nLengthSize;
  memcpy(pBuffer->pcData, acLength, static_cast<size_t>(nLengthSize));
  pBuffer->pcData -= kUASKeySize;
  memcpy(pBuffer->pcData, pcKey, kUASKeySize);
  pBuffer->nDataSize = kUASKeySize + nLengthSize + static_cast<int>(nBodySize);
  // Not by the exported checksum: with its head a message can be longer than the 65535 bytes that one takes.
  const WORD wChecksum = _MdRunningSum(pBuffer->pcData, static_cast<size_t>(pBuffer->nDataSize));
  pcChecksum[0] = static_cast<BYTE>(wChecksum >> 8);
  pcChecksum[1] = static_cast<BYTE>(wChecksum);
}

// Bytes of body that a message needs, in room for writing (*pnRoom) and when finished (the result). An invalid message
// needs what was written up to its fault.
size_t MeasureBody(MessageWalk Walk, size_t* pnRoom) {
  if (WalkMessage(Walk)) PutInserts(Walk);
  *pnRoom = Walk.Out.nRoom;
  return Walk.Out.nSize;
}

// The buffer for a body that needs nRoom bytes, its data start behind the head room.
bool AllocOutput(MDATA_SRC_HANDLE hSource, int nUAVSize, size_t nRoom, MdBufferRef& Buffer) {
  const int64_t nUsual = int64_t{nUAVSize} + 2 + hSource->nMissionIDElementSize + hSource->nSecurityMDataSetSize + 5;
  const int64_t nSize = std::max(nUsual, static_cast<int64_t>(nRoom) + kRewriteHeadRoom);
  if (nSize > INT_MAX || !DoAllocBuffer(static_cast<int>(nSize), Buffer.Out())) return false;
  Buffer->pcData += kRewriteHeadRoom;
  return true;
}

}  // namespace

int _ProcessUASSecuritySet(MDATA_SRC_HANDLE hSource, const KLV_ELEMENT* pSecuritySet, int nInputSize, BYTE* pcOutBuff) {
  return static_cast<int>(FilterSecuritySet(hSource, pSecuritySet, nInputSize, WalkOutput{pcOutBuff, true, 0, 0}));
}

BOOL ProcessUASDataLinkLocalSet(HMDATASRC hSource, BYTE* pcKLVHeader, int nUAVSize, int nHeaderSize,
                                MDATA_BUFFER** ppNewBuff, int* pnNewSize) {
  if (nHeaderSize < kUASKeySize || nUAVSize < nHeaderSize) return FALSE;
  MessageWalk Walk = {};
  Walk.hSource = hSource;
  Walk.pcNext = pcKLVHeader + nHeaderSize;
  Walk.nSizeLeft = static_cast<size_t>(nUAVSize - nHeaderSize);

  size_t nRoom = 0;
  // A body too large to be sent is walked without being written: its counts and logs stay, its memory is not needed.
  const bool bTooLarge = MeasureBody(Walk, &nRoom) > kMaxRewrittenBody;
  MdBufferRef Buffer;
  if (!AllocOutput(hSource, nUAVSize, bTooLarge ? 0 : nRoom, Buffer)) return FALSE;
  MdAdd(hSource->KLVStats.nRxUASMessages, 1);

  Walk.Out.pcBody = bTooLarge ? NULL : Buffer->pcData;
  Walk.Out.bSpeak = true;
  if (!WalkMessage(Walk)) {
    MdAdd(hSource->KLVStats.nInvalidUASMessages, 1);
    return FALSE;
  }
  LogLeftOvers(Walk);
  if (Walk.Out.nSize == 0 && hSource->pMissionID == NULL && hSource->pSecurityMDataSet == NULL) {
    MD_LOG(7, "ZERO elements left in output KLV message\n");
    *ppNewBuff = NULL;
    if (pnNewSize != NULL) *pnNewSize = 0;
    return TRUE;
  }
  CountInserts(Walk);
  PutInserts(Walk);
  if (bTooLarge) {
    MD_ASSERT_UNREACHED();
    return FALSE;
  }
  FinishMessage(Buffer.Get(), pcKLVHeader, Walk.Out.nSize);
  if (pnNewSize != NULL) *pnNewSize = Buffer->nDataSize;
  *ppNewBuff = Buffer.Take();
  return TRUE;
}
