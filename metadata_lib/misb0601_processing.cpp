// SPDX-License-Identifier: Apache-2.0
// Rewriting of UAS Datalink Local Set messages (MISB ST 0601).
//
//   Output            the destination of a walk's bytes
//   Security set      the tag filter inside tag 48
//   Message walk      the rules for every element of a message
//   Finished message  inserts, checksum, length field and key
#include "misb0601_processing.h"

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <span>

#define MD_MODULE "misb0601_processing"
#include "md_atomic.h"
#include "md_core.h"
#include "md_guard.h"
#include "md_log.h"
#include "utils.h"

// Everything here runs on the metadata thread, inside the data path of one source. The source's counters are atomic,
// for the statistics calls of other threads.

// =====================================================================================================
// Output. A message is walked twice with the same rules: the first walk is silent and only measures, so that the
// buffer is as large as the body; the second one writes, counts and logs.
// =====================================================================================================

namespace {

struct WalkOutput {
  BYTE* body;   // where the body starts; NULL if the walk only measures
  bool speak;   // log, and raise assertions
  size_t size;  // bytes of body so far
  size_t room;  // high-water mark of the body, including sets written and then removed
};

}  // namespace

static void _Put(WalkOutput& out, const void* data, size_t size) {
  if (size == 0) return;
  if (out.body != nullptr) memcpy(out.body + out.size, data, size);
  out.size += size;
  out.room = std::max(out.room, out.size);
}

// Returns whether a tag's bit is set in a filter; tags beyond the map have no bit.
template <size_t N>
static bool _IsTagKept(const UINT32 (&filter)[N], UINT32 tag) {
  return tag < N * 32 && ((filter[tag / 32] >> (tag % 32)) & 1u) != 0;
}

// =====================================================================================================
// Security set (MISB ST 0102). KEPT: the set's length field is assumed to have one byte, so that a set with a long-form
// length is read from inside its length field; usually nothing readable is found there and the set is dropped.
// =====================================================================================================

static size_t _FilterSecuritySet(MDATA_SRC_HANDLE hSource, const KLV_ELEMENT* pSecurityItem, int nInputSize,
                                 WalkOutput out) {
  if (out.speak) {
    MD_ASSERT(pSecurityItem->Tag == UAS_SECURITY_LOCAL_SET_TAG);
    MD_DUMP(7, "Input Security Data Set", pSecurityItem, nInputSize);
  }
  const BYTE header[kKLVElementHeader] = {UAS_SECURITY_LOCAL_SET_TAG, 0};
  const size_t start = out.size;
  const BYTE* next = reinterpret_cast<const BYTE*>(pSecurityItem) + kKLVElementHeader;
  nInputSize -= static_cast<int>(kKLVElementHeader);
  _Put(out, header, sizeof(header));
  int number = 0;
  while (nInputSize > 0) {
    KLV_ELEMENT_INFO element = {};
    ++number;
    const auto result = _ReadKLVElement({next, static_cast<size_t>(nInputSize)}, out.speak, &element);
    if (result == KLV_SIZE_UNSUPPORTED) return 0;  // KEPT: the whole set is dropped
    if (result == KLV_SIZE_CUT || element.nSize > static_cast<size_t>(nInputSize)) break;
    const bool keep = _IsTagKept(hSource->Config.UASSecurityTagFilter, element.nTag);
    if (out.speak && keep) {
      MD_LOG(7, "Copying security element#%d: tag#%d (%s), length=%d.\n", number, static_cast<int>(element.nTag),
             _GetSecurityTagName(element.nTag), element.FirstLength);
    } else if (out.speak) {
      MD_LOG(7, "Discarding security element#%d: tag#%d (%s), length=%d.\n", number, static_cast<int>(element.nTag),
             _GetSecurityTagName(element.nTag), element.FirstLength);
    }
    if (keep) _Put(out, next, element.nSize);
    next += element.nSize;
    nInputSize -= static_cast<int>(element.nSize);
  }
  if (out.speak) MD_ASSERT(nInputSize == 0);
  const size_t copied = out.size - start - sizeof(header);
  if (copied == 0) return 0;
  // KEPT: one length byte, the low 8 bits of the size.
  if (out.body != nullptr) out.body[start + 1] = static_cast<BYTE>(copied);
  return copied + sizeof(header);
}

// =====================================================================================================
// Message walk. Both walks decide every element the same way.
// =====================================================================================================

namespace {

struct MessageWalk {
  MDATA_SRC_HANDLE hSource;
  WalkOutput out;
  std::span<const BYTE> left;  // from the next element to the end of the message
  int number;                  // number of the next element, from 1
  UINT32 lastTag;              // tag of the last element seen
  int missionIDs;              // elements replaced by the source's mission identifier
  int securitySets;            // elements replaced by the source's security set
};

}  // namespace

// Returns whether an invalid message may be logged now: never in the silent walk, otherwise if more than four seconds
// have passed since the source's last such line.
static bool _MayLogInvalid(MessageWalk& walk) {
  if (!walk.out.speak) return false;
  const time_t now = time(nullptr);
  if (now - walk.hSource->tLastInvalidUASLogTime <= kInvalidUASLogPause) return false;
  walk.hSource->tLastInvalidUASLogTime = now;
  return true;
}

// Reads the next element. Returns false if the message is invalid.
static bool _ReadElement(MessageWalk& walk, KLV_ELEMENT_INFO* element) {
  const auto result = _ReadKLVElement(walk.left, walk.out.speak, element);
  const UINT32 tag = element->nTag;
  walk.lastTag = tag;
  if (result == KLV_SIZE_UNSUPPORTED) {
    if (_MayLogInvalid(walk))
      MD_LOG(3, "KLV Element#%d: tag#%d (%s), Unable to extract element size.\n", walk.number, static_cast<int>(tag),
             _GetUAVTagName(tag));
    return false;
  }
  if (result == KLV_SIZE_CUT || element->nSize > walk.left.size()) {
    if (_MayLogInvalid(walk))
      MD_LOG(3, "KLV Element#%d: tag#%d (%s), has INVALID data length=%d with only %d bytes remaining in message.\n",
             walk.number, static_cast<int>(tag), _GetUAVTagName(tag), element->FirstLength,
             static_cast<int>(walk.left.size()));
    return false;
  }
  if (tag == UAS_CHECKSUM_TAG && element->FirstLength != 2) {
    if (_MayLogInvalid(walk))
      MD_LOG(3, "KLV Element#%d: tag#%d (%s), has INVALID data length=%d instead of 2.\n", walk.number,
             static_cast<int>(tag), _GetUAVTagName(tag), element->FirstLength);
    return false;
  }
  return true;
}

static bool _PassesTagFilter(const MessageWalk& walk, UINT32 tag) {
  if (!walk.hSource->Config.bFilterUASTags) return true;
  const bool keep = _IsTagKept(walk.hSource->Config.UASTagFilter, tag);
  if (walk.out.speak && keep) {
    MD_LOG(7, "Copying KLV element#%d: tag#%d (%s) since it is included in the UAS filter.\n", walk.number,
           static_cast<int>(tag), _GetUAVTagName(tag));
  } else if (walk.out.speak) {
    MD_LOG(7, "Not copying KLV element#%d: tag#%d (%s) since it is not included in the UAS filter.\n", walk.number,
           static_cast<int>(tag), _GetUAVTagName(tag));
  }
  return keep;
}

// Writes the element itself, the source's own element in its place, or nothing.
static void _RewriteElement(MessageWalk& walk, const KLV_ELEMENT_INFO& element) {
  const MDATA_SRC_HANDLE hSource = walk.hSource;
  if (element.nTag == UAS_CHECKSUM_TAG) return;  // a new one ends the message
  // KEPT: the source's own elements are not subject to the filters, and every such element is replaced.
  if (element.nTag == UAS_MISSION_ID_TAG && hSource->pMissionID != nullptr) {
    _Put(walk.out, hSource->pMissionID, static_cast<size_t>(hSource->nMissionIDElementSize));
    ++walk.missionIDs;
    return;
  }
  if (element.nTag == UAS_SECURITY_LOCAL_SET_TAG && hSource->pSecurityMDataSet != nullptr) {
    _Put(walk.out, hSource->pSecurityMDataSet, static_cast<size_t>(hSource->nSecurityMDataSetSize));
    ++walk.securitySets;
    return;
  }
  if (!_PassesTagFilter(walk, element.nTag)) return;
  if (element.nTag == UAS_SECURITY_LOCAL_SET_TAG && hSource->Config.bFilterUASSecurityTags) {
    // A set that turns out to be empty was written before it is dropped; it is never longer than the element.
    walk.out.room = std::max(walk.out.room, walk.out.size + element.nSize);
    const auto* set = reinterpret_cast<const KLV_ELEMENT*>(walk.left.data());
    walk.out.size += _FilterSecuritySet(hSource, set, static_cast<int>(element.nSize), walk.out);
    return;
  }
  _Put(walk.out, walk.left.data(), element.nSize);
}

// Tags below 64 whose elements are not just copied or left out.
static uint64_t _SpecialTags(const MDATA_SRC_HANDLE hSource) {
  uint64_t tags = uint64_t{1} << UAS_CHECKSUM_TAG;
  if (hSource->pMissionID != nullptr) tags |= uint64_t{1} << UAS_MISSION_ID_TAG;
  if (hSource->pSecurityMDataSet != nullptr || hSource->Config.bFilterUASSecurityTags)
    tags |= uint64_t{1} << UAS_SECURITY_LOCAL_SET_TAG;
  return tags;
}

// Walks over elements that have a tag and a length of one byte each and are only copied or left out, which almost all
// are, up to one that is not like that. Elements that follow each other are copied together. The lines about single
// elements have to be off.
static void _WalkPlainElements(MessageWalk& walk, uint64_t specialTags) {
  const MDATA_SRC_CFG& config = walk.hSource->Config;
  const bool filters = config.bFilterUASTags != FALSE;
  const bool hasLongTags = _g_bExtendedTags;
  const BYTE* const data = walk.left.data();
  const size_t size = walk.left.size();
  size_t position = 0;
  size_t run = 0;  // where the elements start that have not been copied yet
  size_t last = 0;
  int number = 0;
  while (size - position > 2) {
    const BYTE tag = data[position];
    const BYTE length = data[position + 1];
    const size_t end = position + kKLVElementHeader + length;
    if (length >= 0x80 || end > size || (tag >= 0x80 && hasLongTags)) break;
    if (tag < 64 && (specialTags >> tag & 1u) != 0) break;
    if (filters && !_IsTagKept(config.UASTagFilter, tag)) {
      _Put(walk.out, data + run, position - run);
      run = end;
    }
    last = position;
    ++number;
    position = end;
  }
  if (number == 0) return;
  walk.lastTag = data[last];
  walk.number += number;
  _Put(walk.out, data + run, position - run);
  walk.left = walk.left.subspan(position);
}

// Walks the body. Returns false if the message is invalid. KEPT: the last one or two bytes are never an element.
static bool _WalkMessage(MessageWalk& walk) {
  const uint64_t specialTags = _SpecialTags(walk.hSource);
  const bool tracesElements = walk.out.speak && MdLogEnabled(g_hMetaDataLibDbg, 7);
  while (walk.left.size() > 2) {
    if (!tracesElements) _WalkPlainElements(walk, specialTags);
    if (walk.left.size() <= 2) break;
    KLV_ELEMENT_INFO element = {};
    ++walk.number;
    if (!_ReadElement(walk, &element)) return false;
    _RewriteElement(walk, element);
    walk.left = walk.left.subspan(element.nSize);
  }
  return true;
}

// =====================================================================================================
// Finished message. The body is written behind a head room and never moved; length field and key are written in front
// of it when its size is known.
// =====================================================================================================

static constexpr BYTE kEmptyChecksum[kUASChecksumSize] = {UAS_CHECKSUM_TAG, 2, 0, 0};

// Appends those of the source's elements that replaced no other, and an empty checksum element. Both walks call it.
static void _PutInserts(MessageWalk& walk) {
  const MDATA_SRC_HANDLE hSource = walk.hSource;
  if (hSource->pMissionID != nullptr && walk.missionIDs == 0)
    _Put(walk.out, hSource->pMissionID, static_cast<size_t>(hSource->nMissionIDElementSize));
  if (hSource->pSecurityMDataSet != nullptr && walk.securitySets == 0)
    _Put(walk.out, hSource->pSecurityMDataSet, static_cast<size_t>(hSource->nSecurityMDataSetSize));
  _Put(walk.out, kEmptyChecksum, sizeof(kEmptyChecksum));
}

static void _CountInserts(const MessageWalk& walk) {
  MDATA_KLV_STATS& stats = walk.hSource->KLVStats;
  if (walk.hSource->pMissionID != nullptr) {
    if (walk.missionIDs == 0)
      MdAddFetch(stats.nAddedMissionIDs, 1);
    else
      MdAddFetch(stats.nUpdatedMissionIDs, walk.missionIDs);
  }
  if (walk.hSource->pSecurityMDataSet != nullptr) {
    if (walk.securitySets == 0)
      MdAddFetch(stats.nAddedSecuritySets, 1);
    else
      MdAddFetch(stats.nUpdatedSecuritySets, walk.securitySets);
  }
}

// Logs bytes that the walk did not read. KEPT: a message without any checksum is logged with the same line as a
// misplaced one, and both are accepted.
static void _LogLeftOvers(const MessageWalk& walk) {
  if (!walk.left.empty()) MD_LOG(2, "nSizeLeft=%d.\n", static_cast<int>(walk.left.size()));
  if (walk.lastTag != UAS_CHECKSUM_TAG) MD_LOG(4, "Checksum in received UAS data set was not the last element!\n");
}

// Writes the BER length of a body of up to 65535 bytes. Returns the size of the length field.
static int _WriteBodyLength(size_t bodySize, BYTE (&lengthField)[kMaxBodyLengthField]) {
  if (bodySize <= 127) {
    lengthField[0] = static_cast<BYTE>(bodySize);
    return 1;
  }
  if (bodySize <= 255) {
    lengthField[0] = 0x81;
    lengthField[1] = static_cast<BYTE>(bodySize);
    return 2;
  }
  lengthField[0] = 0x82;
  lengthField[1] = static_cast<BYTE>(bodySize >> 8);
  lengthField[2] = static_cast<BYTE>(bodySize);
  return 3;
}

// Writes key and length field in front of the body at the buffer's data start, and fills in the checksum.
static void _FinishMessage(MDATA_BUFFER* buffer, const BYTE* key, size_t bodySize) {
  BYTE lengthField[kMaxBodyLengthField];
  const int lengthSize = _WriteBodyLength(bodySize, lengthField);
  BYTE* checksum = buffer->pcData + bodySize - 2;
  buffer->pcData -= lengthSize;
  memcpy(buffer->pcData, lengthField, static_cast<size_t>(lengthSize));
  buffer->pcData -= kUASKeySize;
  memcpy(buffer->pcData, key, kUASKeySize);
  buffer->nDataSize = kUASKeySize + lengthSize + static_cast<int>(bodySize);
  // The exported checksum takes 65535 bytes at most; with key and length field a message can be longer.
  const WORD sum = _MdRunningSum(buffer->pcData, static_cast<size_t>(buffer->nDataSize));
  checksum[0] = static_cast<BYTE>(sum >> 8);
  checksum[1] = static_cast<BYTE>(sum);
}

// Returns the size of the rewritten body; *room is the space needed while it is written. For an invalid message both
// cover the bytes that are written before the error is found.
static size_t _MeasureBody(MessageWalk walk, size_t* room) {
  if (_WalkMessage(walk)) _PutInserts(walk);
  *room = walk.out.room;
  return walk.out.size;
}

// Allocates the buffer for a body that needs this much room; its data start behind the head room. Returns false if out
// of memory.
static bool _AllocOutput(MDATA_SRC_HANDLE hSource, int uavSize, size_t room, MdBufferRef& buffer) {
  const int64_t usual = int64_t{uavSize} + 2 + hSource->nMissionIDElementSize + hSource->nSecurityMDataSetSize + 5;
  const int64_t size = std::max(usual, static_cast<int64_t>(room) + kRewriteHeadRoom);
  if (size > INT_MAX || !_AllocUnfilledBuffer(static_cast<int>(size), buffer.Out())) return false;
  buffer->pcData += kRewriteHeadRoom;
  return true;
}

int _ProcessUASSecuritySet(MDATA_SRC_HANDLE hSource, const KLV_ELEMENT* pSecuritySet, int nInputSize, BYTE* pcOutBuff) {
  return static_cast<int>(_FilterSecuritySet(hSource, pSecuritySet, nInputSize, WalkOutput{pcOutBuff, true, 0, 0}));
}

BOOL ProcessUASDataLinkLocalSet(HMDATASRC hSource, BYTE* pcKLVHeader, int nUAVSize, int nHeaderSize,
                                MDATA_BUFFER** ppNewBuff, int* pnNewSize) {
  if (nHeaderSize < kUASKeySize || nUAVSize < nHeaderSize) return FALSE;
  MessageWalk walk = {};
  walk.hSource = hSource;
  walk.left = {pcKLVHeader + nHeaderSize, static_cast<size_t>(nUAVSize - nHeaderSize)};

  size_t room = 0;
  // A body too large to be sent is walked without being written: its counts and logs stay, its memory is not needed.
  const bool tooLarge = _MeasureBody(walk, &room) > kMaxRewrittenBody;
  MdBufferRef buffer;
  if (!_AllocOutput(hSource, nUAVSize, tooLarge ? 0 : room, buffer)) return FALSE;
  MdAddFetch(hSource->KLVStats.nRxUASMessages, 1);

  walk.out.body = tooLarge ? nullptr : buffer->pcData;
  walk.out.speak = true;
  if (!_WalkMessage(walk)) {
    MdAddFetch(hSource->KLVStats.nInvalidUASMessages, 1);
    return FALSE;
  }
  _LogLeftOvers(walk);
  if (walk.out.size == 0 && hSource->pMissionID == nullptr && hSource->pSecurityMDataSet == nullptr) {
    MD_LOG(7, "ZERO elements left in output KLV message\n");
    *ppNewBuff = nullptr;
    if (pnNewSize != nullptr) *pnNewSize = 0;
    return TRUE;
  }
  _CountInserts(walk);
  _PutInserts(walk);
  if (tooLarge) {
    MD_ASSERT_UNREACHED();
    return FALSE;
  }
  _FinishMessage(buffer.Get(), pcKLVHeader, walk.out.size);
  if (pnNewSize != nullptr) *pnNewSize = buffer->nDataSize;
  *ppNewBuff = buffer.Release();
  return TRUE;
}
