// SPDX-License-Identifier: Apache-2.0
// The delivery of a message. See the header.
#include "md_delivery.h"

#include <stddef.h>
#include <string.h>

#include "host_rate.h"
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

// KEPT: the text says 16 bytes, the limit is 19; at most one such line in five seconds for the whole library.
static void _LogShortMessage() MD_REQUIRES(kMetadataThread) {
  const time_t now = time(nullptr);
  if (now - _tLastLog <= kLogHoldOffSecs) return;
  _tLastLog = now;
  MD_LOG(4, "Got less than 16 bytes of KLV.\n");
}

// Reads the BER length behind the key. Stores the size of key and length field, and that of the whole message as an
// unsigned 16-bit value, which wraps. Returns false if the length form is not supported. The caller has checked that
// the message is not shorter than kSmallestUASMessage.
// KEPT: only the one- and two-byte long forms.
static bool _ReadUASHeader(const BYTE* data, int size, int* headerSize, WORD* total) {
  MdLength length;
  _MdReadLength(data, static_cast<size_t>(size), kUASKeySize, kMdFieldNoneOrBer, &length);
  if (length.longForm && length.count != 1 && length.count != 2) {
    MD_LOG(4, "Unsupported number of bytes (%d) for UAV data set length.\n", static_cast<int>(length.count));
    return false;
  }
  *headerSize = kUASKeySize + static_cast<int>(length.size);
  *total = static_cast<WORD>(static_cast<UINT32>(*headerSize) + length.value);
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
  int headerSize = 0;
  WORD total = 0;
  if (!_ReadUASHeader(pcData, nSize, &headerSize, &total)) return FALSE;
  if (total > nSize) {
    MD_LOG(3, "UAV set of %d bytes received but buffer is %d bytes.\n", total, nSize);
    return FALSE;
  }
  if (total < headerSize) return FALSE;  // the 16-bit total wrapped
  // KEPT: bytes behind the total are left out of the rewritten message.
  return ProcessUASDataLinkLocalSet(hSource, pcData, total, headerSize, ppNewBuff, pnNewSize);
}

// Decides for every path what the result of the rewriting means: a message that cannot be rewritten continues
// unchanged, even an invalid one.
Rewritten _RewriteOnPath(MDATA_SRC_HANDLE hSource, const PathTexts& texts, BYTE* data, int size, MdBufferRef& buffer) {
  if (!_WantsRewriting(hSource)) return Rewritten::Unchanged;
  MDATA_BUFFER* newBuffer = nullptr;
  int nNewSize = 0;
  if (!_ProcessRxKLV(hSource, data, size, &newBuffer, &nNewSize)) return Rewritten::Unchanged;
  *buffer.Out() = newBuffer;
  if (newBuffer == nullptr) {
    // KEPT: the assertion reports that a tag filter removes whole messages; a sender can raise it. Its text names the
    // variable that logs have always shown.
    if (texts.nothingLeft != nullptr) MD_ASSERT_TEXT(newBuffer != nullptr, texts.nothingLeft);
    MD_ASSERT(nNewSize == 0);
    return Rewritten::Dropped;
  }
  MD_DUMP(texts.substitutedLevel, texts.substituted, newBuffer->pcData, newBuffer->nDataSize);
  MD_ASSERT(nNewSize != 0);
  return Rewritten::Replaced;
}

// =====================================================================================================
// Delivery
// =====================================================================================================

void _FeedOutputRate(MDATA_SRC_HANDLE hSource, UINT64 runningTotal, time_t now) {
  if (hSource->tLastRateSampleTime == now) return;
  if (hSource->hOutputRate != nullptr) AddCounterValue(hSource->hOutputRate, runningTotal);
  hSource->tLastRateSampleTime = now;
}

// Writes the stream header into the reserve in front of the message. The length is the low 16 bits of the one
// given, which may differ from the buffer's; the caller increments the sequence number.
//
//   offset size value
//        0    1 0x00
//        1    1 HeaderSequence
//        2    1 0xDF
//        3    2 length, big-endian
static void _PrependStreamHeader(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* buffer, int length) {
  buffer->pcData -= MDATA_STREAM_HEADER_SIZE;
  buffer->nDataSize += MDATA_STREAM_HEADER_SIZE;
  buffer->pcData[0] = 0x00;
  buffer->pcData[1] = hSource->HeaderSequence;
  buffer->pcData[2] = 0xDF;
  buffer->pcData[3] = static_cast<BYTE>((length >> 8) & 0xFF);
  buffer->pcData[4] = static_cast<BYTE>(length & 0xFF);
}

// Writes the line and the dump before a delivery.
[[gnu::noinline]] static void _LogDelivery(const PathTexts& texts, const MDATA_BUFFER* buffer, int headerLength) {
  if (texts.completeLevel != kNoLine)
    MD_LOG(texts.completeLevel, "Got complete KLV message of %d bytes.\n", headerLength);
  if (texts.dumpLevel == kNoLine) return;
  if (texts.dumpHeader)
    MD_DUMP(texts.dumpLevel, texts.dump, buffer->pcData, buffer->nDataSize);
  else
    MD_DUMP(texts.dumpLevel, texts.dump, buffer->pcData + MDATA_STREAM_HEADER_SIZE, headerLength);
}

// The encoder is not called if the source's close was given up while the message was being processed.
// KEPT: the first user parameter is delivered twice.
static bool _CallReadyCallback(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* buffer) {
  if (hSource->Config.pfnCallback == nullptr || _IsGivenUp(hSource)) return false;
  return hSource->Config.pfnCallback(buffer, hSource->Config.pvUserParam1, hSource->Config.pvUserParam1) != FALSE;
}

bool _Deliver(MDATA_SRC_HANDLE hSource, const PathTexts& texts, MDATA_BUFFER* buffer, int headerLength) {
  _PrependStreamHeader(hSource, buffer, headerLength);
  if (!texts.sequenceIfTaken) ++hSource->HeaderSequence;
  if (MdLogEnabled(g_hMetaDataLibDbg, kLowestDeliveryLevel)) _LogDelivery(texts, buffer, headerLength);
  MD_ASSERT_TEXT(hSource->Config.pfnCallback != nullptr, texts.callbackMissing);
  const bool taken = _CallReadyCallback(hSource, buffer);
  if (texts.sequenceIfTaken && taken) ++hSource->HeaderSequence;
  return taken;
}
