// SPDX-License-Identifier: Apache-2.0
// One KLV element's key, length and value, in any of the field sizes of SMPTE ST 336. Any thread, no state.
//
// Contents
//   1. Field sizes and their texts
//   2. Tags
//   3. Lengths
//   4. Elements
#include "klv_utils.h"

#include <stddef.h>

#include "host_util.h"
#include "md_core.h"

#define MD_MODULE "klv_utils"
#include "md_log.h"

static_assert(int{kMdFieldOidTag} == KLV_FIELD_BER_OID_TAG && int{kMdFieldNoneOrBer} == KLV_FIELD_NONE_OR_BER &&
              int{kMdField1Byte} == KLV_FIELD_1_BYTE && int{kMdField2Bytes} == KLV_FIELD_2_BYTES &&
              int{kMdField4Bytes} == KLV_FIELD_4_BYTES && int{kMdFieldGlobalTag} == KLV_FIELD_GLOBAL_TAG &&
              int{kMdFieldUniversalKey} == KLV_FIELD_UNIVERSAL_KEY);

static constexpr uint32_t kMostLengthBytes = 2;  // BER long form, after the first byte

// =====================================================================================================
// 1. Field sizes and their texts
// =====================================================================================================

// SMPTE ST 336, registry designators of groups, sets and packs. KEPT: this order, searched from the top.
const REG_DESIGNATOR_ENTRY _KnownRegistryDesignators[kKnownRegistryDesignators] = {
    {0x03, KLV_FIELD_NONE_OR_BER, KLV_FIELD_1_BYTE},
    {0x0B, KLV_FIELD_NONE_OR_BER, KLV_FIELD_BER_OID_TAG},
    {0x13, KLV_FIELD_NONE_OR_BER, KLV_FIELD_2_BYTES},
    {0x1B, KLV_FIELD_NONE_OR_BER, KLV_FIELD_4_BYTES},
    {0x23, KLV_FIELD_1_BYTE, KLV_FIELD_1_BYTE},
    {0x2B, KLV_FIELD_1_BYTE, KLV_FIELD_BER_OID_TAG},
    {0x33, KLV_FIELD_1_BYTE, KLV_FIELD_2_BYTES},
    {0x3B, KLV_FIELD_1_BYTE, KLV_FIELD_4_BYTES},
    {0x43, KLV_FIELD_2_BYTES, KLV_FIELD_1_BYTE},
    {0x4B, KLV_FIELD_2_BYTES, KLV_FIELD_BER_OID_TAG},
    {0x53, KLV_FIELD_2_BYTES, KLV_FIELD_2_BYTES},
    {0x5B, KLV_FIELD_2_BYTES, KLV_FIELD_4_BYTES},
    {0x63, KLV_FIELD_4_BYTES, KLV_FIELD_1_BYTE},
    {0x6B, KLV_FIELD_4_BYTES, KLV_FIELD_BER_OID_TAG},
    {0x73, KLV_FIELD_4_BYTES, KLV_FIELD_2_BYTES},
    {0x7B, KLV_FIELD_4_BYTES, KLV_FIELD_4_BYTES},
    {0x01, KLV_FIELD_NONE_OR_BER, KLV_FIELD_UNIVERSAL_KEY},
    {0x02, KLV_FIELD_NONE_OR_BER, KLV_FIELD_GLOBAL_TAG},
    {0x22, KLV_FIELD_1_BYTE, KLV_FIELD_GLOBAL_TAG},
    {0x42, KLV_FIELD_2_BYTES, KLV_FIELD_GLOBAL_TAG},
    {0x62, KLV_FIELD_4_BYTES, KLV_FIELD_GLOBAL_TAG},
    {0x05, KLV_FIELD_NONE_OR_BER, KLV_FIELD_NONE_OR_BER},
    {0x04, KLV_FIELD_NONE_OR_BER, KLV_FIELD_NONE_OR_BER},
    {0x24, KLV_FIELD_1_BYTE, KLV_FIELD_NONE_OR_BER},
    {0x44, KLV_FIELD_2_BYTES, KLV_FIELD_NONE_OR_BER},
    {0x64, KLV_FIELD_4_BYTES, KLV_FIELD_NONE_OR_BER}};

BOOL KLV_GetFieldInfoFromRegistryDesignator(BYTE RegistryDesignator, int* piTagFieldSize, int* piLengthFieldSize) {
  for (const REG_DESIGNATOR_ENTRY& entry : _KnownRegistryDesignators) {
    if (entry.RegistryDesignator != RegistryDesignator) continue;
    if (piTagFieldSize != nullptr) *piTagFieldSize = entry.nTagFieldSize;
    if (piLengthFieldSize != nullptr) *piLengthFieldSize = entry.nLengthFieldSize;
    return TRUE;
  }
  MD_LOG(4, "Unrecognized registry designator (0x%02X).\n", RegistryDesignator);
  return FALSE;
}

static const char* _TagFieldText(int tagFieldSize) {
  switch (tagFieldSize) {
    case KLV_FIELD_NONE_OR_BER:
      return "No tag";
    case KLV_FIELD_1_BYTE:
      return "1 byte";
    case KLV_FIELD_2_BYTES:
      return "2 bytes";
    case KLV_FIELD_4_BYTES:
      return "4 bytes";
    case KLV_FIELD_BER_OID_TAG:
      return "ASN.1 OID BER";
    case KLV_FIELD_GLOBAL_TAG:
      return "Global Tag";
    case KLV_FIELD_UNIVERSAL_KEY:
      return "Universal Key";
    default:
      return "(Unknown)";
  }
}

static const char* _LengthFieldText(int lengthFieldSize) {
  switch (lengthFieldSize) {
    case KLV_FIELD_NONE_OR_BER:
      return "ASN.1 BER short or long";
    case KLV_FIELD_1_BYTE:
      return "1 byte";
    case KLV_FIELD_2_BYTES:
      return "2 bytes";
    case KLV_FIELD_4_BYTES:
      return "4 bytes";
    default:
      return "(Unknown)";
  }
}

char* KLV_GetTagFieldDescription(int nTagFieldSize, char* szBuffer, int nSize) {
  PrintToString(szBuffer, nSize, "%s", _TagFieldText(nTagFieldSize));
  return szBuffer;
}

char* KLV_GetLengthFieldDescription(int nLengthFieldSize, char* szBuffer, int nSize) {
  PrintToString(szBuffer, nSize, "%s", _LengthFieldText(nLengthFieldSize));
  return szBuffer;
}

// =====================================================================================================
// 2. Tags. Called after the core has read the item; they log the tag and reject forms that are not supported. The
//    functions that only log are cold: an item is read for every few bytes of a message.
// =====================================================================================================

[[gnu::cold]] static bool _RejectTruncatedTag(int tagFieldSize) {
  switch (tagFieldSize) {
    case KLV_FIELD_BER_OID_TAG:
      MD_LOG(4, "local tag is out of range of the supplied buffer.\n");
      break;
    case KLV_FIELD_4_BYTES:
      MD_LOG(4, "Not enough buffer space to read 4 bytes key.\n");
      break;
    case KLV_FIELD_UNIVERSAL_KEY:
      MD_LOG(4, "Not enough buffer space to read 16 bytes key.\n");
      break;
    default:
      MD_LOG(4, "Not enough buffer space to read global tag.\n");
      break;
  }
  return false;
}

[[gnu::cold]] static void _LogBerTag(const MdTag& tag) {
  MD_LOG(7, "BER encoded tag is %d bytes long.\n", static_cast<int>(tag.size));
  switch (tag.size) {
    case 1:
      MD_LOG(7, "one byte tag=0x%02X.\n", tag.key);
      break;
    case 2:
      MD_LOG(7, "two bytes tag=0x%04X.\n", tag.key);
      break;
    case 3:
      MD_LOG(7, "three bytes tag=0x%06X.\n", tag.key);
      break;
    case 4:
      MD_LOG(7, "four bytes tag=0x%08X.\n", tag.key);
      break;
    default:
      break;  // KEPT: a longer tag is accepted with the value 0
  }
}

[[gnu::cold]] static void _LogTag(const MdTag& tag, int tagFieldSize) {
  switch (tagFieldSize) {
    case KLV_FIELD_BER_OID_TAG:
      _LogBerTag(tag);
      break;
    case KLV_FIELD_1_BYTE:
      MD_LOG(7, "Using specified 1 byte tag.\n");
      break;
    case KLV_FIELD_2_BYTES:
      MD_LOG(7, "Using specified 2 bytes tag.\n");
      break;
    case KLV_FIELD_4_BYTES:
      MD_LOG(7, "Using specified 4 bytes tag.\n");
      break;
    case KLV_FIELD_UNIVERSAL_KEY:
      MD_LOG(7, "Using specified 16 bytes tag.\n");
      break;
    case KLV_FIELD_GLOBAL_TAG:
      MD_LOG(7, "global tag is %d bytes long.\n", static_cast<int>(tag.size));
      break;
    case KLV_FIELD_NONE_OR_BER:
      MD_LOG(7, "No tag present (var/def length pack).\n");
      break;
    default:
      break;
  }
}

static bool _CheckTag(const MdTag& tag, int tagFieldSize) {
  switch (tagFieldSize) {
    case KLV_FIELD_BER_OID_TAG:
    case KLV_FIELD_1_BYTE:
    case KLV_FIELD_2_BYTES:
    case KLV_FIELD_4_BYTES:
    case KLV_FIELD_UNIVERSAL_KEY:
    case KLV_FIELD_NONE_OR_BER:
      return true;
    case KLV_FIELD_GLOBAL_TAG:
      if (tag.size >= 2) return true;
      // KEPT: two messages in one line; operators search logs for it.
      MD_LOG(4, "Global tag is not even 2 bytes long Not enough buffer space to read 16 bytes key.\n");
      return false;
    default:
      MD_ASSERT_UNREACHED();
      return true;
  }
}

// =====================================================================================================
// 3. Lengths. Called after the core has read the item, as those for tags.
// =====================================================================================================

static bool _CheckLength(const MdLength& length, MdRead result) {
  switch (result) {
    case kMdReadOk:
      if (!length.longForm || length.count <= kMostLengthBytes) return true;
      break;
    case kMdReadUnsupported:
      break;
    case kMdReadUnknownCode:
      MD_ASSERT_UNREACHED();
      return true;
    default:
      MD_LOG(4, "length offset is out of range of the supplied buffer.\n");
      return false;
  }
  MD_LOG(4, "Unsupported long form tag length of %d bytes.\n", static_cast<int>(length.count));
  return false;
}

[[gnu::cold]] static void _LogBerLength(const MdLength& length) {
  if (length.longForm) {
    MD_LOG(7, "BER long form length of %d bytes detected.\n", static_cast<int>(length.count));
  } else {
    MD_LOG(7, "BER short form length of 1 byte detected.\n");
  }
}

// =====================================================================================================
// 4. Elements
// =====================================================================================================

[[gnu::cold]] static void _LogStart(int bufferSize, int tagFieldSize, int lengthFieldSize) {
  char tag[40];
  char length[40];
  MD_LOG(7, "Inspecting KLV with K=\"%s\" L=\"%s\" with %d bytes of readable memory.\n",
         KLV_GetTagFieldDescription(tagFieldSize, tag, sizeof(tag)),
         KLV_GetLengthFieldDescription(lengthFieldSize, length, sizeof(length)), bufferSize);
}

BOOL KLV_GetInfo(const void* pvBuff, int nBuffSize, int nTagFieldSize, int nLengthFieldSize, KLV_INFO* pInfo) {
  const BYTE* data = static_cast<const BYTE*>(pvBuff);
  const bool traced = MdLogEnabled(g_hMetaDataLibDbg, 7);
  if (traced) _LogStart(nBuffSize, nTagFieldSize, nLengthFieldSize);
  if (nBuffSize < 2) {
    MD_LOG(4, "key offset is out of range of the supplied buffer.\n");
    return FALSE;
  }
  const size_t size = static_cast<size_t>(nBuffSize);
  MdItem item;
  const MdRead result = _MdReadItem(data, size, 0, nTagFieldSize, nLengthFieldSize, &item);
  if (result == kMdReadTagCut) return _RejectTruncatedTag(nTagFieldSize);
  if (traced) _LogTag(item.tag, nTagFieldSize);
  if (!_CheckTag(item.tag, nTagFieldSize) || !_CheckLength(item.length, result)) return FALSE;
  if (traced && nLengthFieldSize == KLV_FIELD_NONE_OR_BER) _LogBerLength(item.length);
  // KEPT: with an unknown length code the empty value stands at the element's start and the total is 0.
  const size_t valuePosition = result == kMdReadOk ? item.valuePosition : 0;
  const auto length = static_cast<int32_t>(item.length.value);
  // KEPT: only the value's first byte must lie inside; callers catch a value that runs past the end.
  if (length >= 1 && valuePosition >= size) {
    MD_LOG(4, "data offset is out of range of the supplied buffer.\n");
    return FALSE;
  }
  pInfo->nKey = item.tag.key;
  pInfo->nLength = length;
  pInfo->pValue = data + valuePosition;
  pInfo->nKeySize = static_cast<UINT32>(item.tag.size);
  // KEPT: in the BER long form the recorded size is that of the bytes after the first one; the total counts them all.
  pInfo->nLengthSize = item.length.count;
  pInfo->nTotalSize = static_cast<UINT32>(valuePosition) + item.length.value;
  return TRUE;
}
