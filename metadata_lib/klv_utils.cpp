// One KLV element's key, length and value, in any of the field sizes of SMPTE ST 336. Any thread, no state.
//
// Contents
//   1. Field sizes and their texts
//   2. Tags
//   3. Lengths
//   4. Elements
#include "klv_utils.h"

#include "host_util.h"

#define MD_MODULE "klv_utils"
#include "md_log.h"

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
  for (const REG_DESIGNATOR_ENTRY& Entry : _KnownRegistryDesignators) {
    if (Entry.RegistryDesignator != RegistryDesignator) continue;
    if (piTagFieldSize != nullptr) *piTagFieldSize = Entry.nTagFieldSize;
    if (piLengthFieldSize != nullptr) *piLengthFieldSize = Entry.nLengthFieldSize;
    return TRUE;
  }
  MD_LOG(4, "Unrecognized registry designator (0x%02X).\n", RegistryDesignator);
  return FALSE;
}

static const char* _TagFieldText(int nTagFieldSize) {
  switch (nTagFieldSize) {
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

static const char* _LengthFieldText(int nLengthFieldSize) {
  switch (nLengthFieldSize) {
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
// 2. Tags. Each function reads the tag at the start of the bytes; FALSE when they end too early.
// =====================================================================================================

namespace {

struct Tag {
  UINT32 nKey = 0;
  int nSize = 0;
};

struct Length {
  int32_t nLength = 0;
  int nRecordedSize = 0;  // as KLV_INFO reports it
  int nValueOffset = 0;   // from the element's start
};

}  // namespace

static UINT32 _ReadBigEndian(const BYTE* pcData, int nBytes) {
  UINT32 nValue = 0;
  for (int i = 0; i < nBytes; ++i) nValue = nValue << 8 | pcData[i];
  return nValue;
}

static void _LogBerTag(const Tag& tag) {
  switch (tag.nSize) {
    case 1:
      MD_LOG(7, "one byte tag=0x%02X.\n", tag.nKey);
      break;
    case 2:
      MD_LOG(7, "two bytes tag=0x%04X.\n", tag.nKey);
      break;
    case 3:
      MD_LOG(7, "three bytes tag=0x%06X.\n", tag.nKey);
      break;
    case 4:
      MD_LOG(7, "four bytes tag=0x%08X.\n", tag.nKey);
      break;
    default:
      break;
  }
}

static BOOL _ReadBerTag(const BYTE* pcData, int nBuffSize, Tag* pTag) {
  int nLast = 0;
  while (nLast < nBuffSize && (pcData[nLast] & 0x80) != 0) ++nLast;
  if (nLast == nBuffSize) {
    MD_LOG(4, "local tag is out of range of the supplied buffer.\n");
    return FALSE;
  }
  pTag->nSize = nLast + 1;
  MD_LOG(7, "BER encoded tag is %d bytes long.\n", pTag->nSize);
  if (pTag->nSize > 4) return TRUE;  // KEPT: a longer tag is accepted with the value 0
  for (int i = 0; i <= nLast; ++i) pTag->nKey = pTag->nKey << 7 | (pcData[i] & 0x7Fu);
  _LogBerTag(*pTag);
  return TRUE;
}

static BOOL _ReadGlobalTag(const BYTE* pcData, int nBuffSize, Tag* pTag) {
  int nSize = 0;
  bool bEnded = false;
  while (nSize < KLV_FIELD_GLOBAL_TAG && !bEnded) {
    if (nSize >= nBuffSize) {
      MD_LOG(4, "Not enough buffer space to read global tag.\n");
      return FALSE;
    }
    bEnded = pcData[nSize++] == 0;
  }
  MD_LOG(7, "global tag is %d bytes long.\n", nSize);
  if (nSize < 2) {
    // KEPT: two messages run together, for whoever greps logs.
    MD_LOG(4, "Global tag is not even 2 bytes long Not enough buffer space to read 16 bytes key.\n");
    return FALSE;
  }
  pTag->nSize = nSize;
  return TRUE;
}

static BOOL _Read4BytesTag(const BYTE* pcData, int nBuffSize, Tag* pTag) {
  if (nBuffSize < 4) {
    MD_LOG(4, "Not enough buffer space to read 4 bytes key.\n");
    return FALSE;
  }
  MD_LOG(7, "Using specified 4 bytes tag.\n");
  *pTag = {_ReadBigEndian(pcData, 4), 4};
  return TRUE;
}

static BOOL _ReadUniversalKey(int nBuffSize, Tag* pTag) {
  if (nBuffSize < 16) {
    MD_LOG(4, "Not enough buffer space to read 16 bytes key.\n");
    return FALSE;
  }
  MD_LOG(7, "Using specified 16 bytes tag.\n");
  *pTag = {0, 16};
  return TRUE;
}

static BOOL _ReadTag(const BYTE* pcData, int nBuffSize, int nTagFieldSize, Tag* pTag) {
  switch (nTagFieldSize) {
    case KLV_FIELD_BER_OID_TAG:
      return _ReadBerTag(pcData, nBuffSize, pTag);
    case KLV_FIELD_1_BYTE:
      MD_LOG(7, "Using specified 1 byte tag.\n");
      *pTag = {pcData[0], 1};
      return TRUE;
    case KLV_FIELD_2_BYTES:
      MD_LOG(7, "Using specified 2 bytes tag.\n");
      *pTag = {_ReadBigEndian(pcData, 2), 2};
      return TRUE;
    case KLV_FIELD_4_BYTES:
      return _Read4BytesTag(pcData, nBuffSize, pTag);
    case KLV_FIELD_UNIVERSAL_KEY:
      return _ReadUniversalKey(nBuffSize, pTag);
    case KLV_FIELD_GLOBAL_TAG:
      return _ReadGlobalTag(pcData, nBuffSize, pTag);
    case KLV_FIELD_NONE_OR_BER:
      MD_LOG(7, "No tag present (var/def length pack).\n");
      return TRUE;
    default:
      MD_ASSERT_UNREACHED();
      return TRUE;
  }
}

// =====================================================================================================
// 3. Lengths. nTagSize is below nBuffSize when these run.
// =====================================================================================================

static BOOL _LengthOutOfRange() {
  MD_LOG(4, "length offset is out of range of the supplied buffer.\n");
  return FALSE;
}

static BOOL _ReadBerLength(const BYTE* pcData, int nBuffSize, int nTagSize, Length* pLength) {
  const int nFirst = pcData[nTagSize];
  if ((nFirst & 0x80) == 0) {
    MD_LOG(7, "BER short form length of 1 byte detected.\n");
    *pLength = {nFirst, 1, nTagSize + 1};
    return TRUE;
  }
  const int nBytes = nFirst & 0x7F;
  if (nTagSize + nBytes >= nBuffSize) return _LengthOutOfRange();
  if (nBytes != 1 && nBytes != 2) {
    MD_LOG(4, "Unsupported long form tag length of %d bytes.\n", nBytes);
    return FALSE;
  }
  MD_LOG(7, "BER long form length of %d bytes detected.\n", nBytes);
  // KEPT: the recorded size is that of the bytes behind the first one; the total size counts them all.
  *pLength = {static_cast<int32_t>(_ReadBigEndian(pcData + nTagSize + 1, nBytes)), nBytes, nTagSize + 1 + nBytes};
  return TRUE;
}

static BOOL _ReadFixedLength(const BYTE* pcData, int nBuffSize, int nTagSize, int nBytes, Length* pLength) {
  if (nTagSize + nBytes > nBuffSize) return _LengthOutOfRange();
  *pLength = {static_cast<int32_t>(_ReadBigEndian(pcData + nTagSize, nBytes)), nBytes, nTagSize + nBytes};
  return TRUE;
}

static BOOL _ReadLength(const BYTE* pcData, int nBuffSize, int nTagSize, int nLengthFieldSize, Length* pLength) {
  switch (nLengthFieldSize) {
    case KLV_FIELD_NONE_OR_BER:
      return _ReadBerLength(pcData, nBuffSize, nTagSize, pLength);
    case KLV_FIELD_1_BYTE:
    case KLV_FIELD_2_BYTES:
    case KLV_FIELD_4_BYTES:
      return _ReadFixedLength(pcData, nBuffSize, nTagSize, nLengthFieldSize, pLength);
    default:
      MD_ASSERT_UNREACHED();
      return TRUE;
  }
}

// =====================================================================================================
// 4. Elements
// =====================================================================================================

BOOL KLV_GetInfo(const void* pvBuff, int nBuffSize, int nTagFieldSize, int nLengthFieldSize, KLV_INFO* pInfo) {
  const BYTE* pcData = static_cast<const BYTE*>(pvBuff);
  if (MdLogEnabled(g_hMetaDataLibDbg, 7)) {
    char szTag[40];
    char szLength[40];
    MD_LOG(7, "Inspecting KLV with K=\"%s\" L=\"%s\" with %d bytes of readable memory.\n",
           KLV_GetTagFieldDescription(nTagFieldSize, szTag, sizeof(szTag)),
           KLV_GetLengthFieldDescription(nLengthFieldSize, szLength, sizeof(szLength)), nBuffSize);
  }
  if (nBuffSize < 2) {
    MD_LOG(4, "key offset is out of range of the supplied buffer.\n");
    return FALSE;
  }
  Tag tag;
  if (!_ReadTag(pcData, nBuffSize, nTagFieldSize, &tag)) return FALSE;
  if (tag.nSize >= nBuffSize) return _LengthOutOfRange();
  Length length;
  if (!_ReadLength(pcData, nBuffSize, tag.nSize, nLengthFieldSize, &length)) return FALSE;
  // KEPT: only the value's first byte must lie inside; callers catch a value that runs past the end.
  if (length.nLength >= 1 && length.nValueOffset >= nBuffSize) {
    MD_LOG(4, "data offset is out of range of the supplied buffer.\n");
    return FALSE;
  }
  pInfo->nKey = tag.nKey;
  pInfo->nLength = length.nLength;
  pInfo->pValue = pcData + length.nValueOffset;
  pInfo->nKeySize = static_cast<UINT32>(tag.nSize);
  pInfo->nLengthSize = static_cast<UINT32>(length.nRecordedSize);
  pInfo->nTotalSize = static_cast<UINT32>(length.nValueOffset) + static_cast<UINT32>(length.nLength);
  return TRUE;
}
