// Tools for the UAS Datalink Local Set (MISB ST 0601) and the security local set (MISB ST 0102).
//
//   Elements          tag and BER length of one element, and how tags are read
//   Insert elements   the mission identifier and the security set that a source inserts
//   Validation        a whole message and its checksum
//   Names             security classifications and country coding methods
#include "misb0601_tools.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <iterator>

#include "host_util.h"
#include "md_core.h"

#define MD_MODULE "misb0601_tools"
#include "md_log.h"

// =====================================================================================================
// Elements. Read for every element of every message that is walked, on any thread. The only state is the option.
// =====================================================================================================

BOOL _g_bExtendedTags = FALSE;

void _ReadExtendedTagsOption() {
  char szValue[40] = "";
  int nSize = sizeof(szValue);
  CfgFile_GetStringValue("/etc/hostos.ini", "UASLocalSet", "ExtendedTags", szValue, &nSize, "No");
  _g_bExtendedTags = strcasecmp(szValue, "Yes") == 0 ? TRUE : FALSE;
  if (_g_bExtendedTags) MD_LOG(6, "Support of extended UAS tags enabled.\n");
}

// Reads the tag of an element. In extended tags (BER-OID, ISO/IEC 8825-1, 8.19) a leading 0x80 would be an empty digit,
// and a second spelling of a smaller tag, so it is malformed; so is a tag of more than four bytes, whose fifth is not
// looked at.
static tagKLV_SIZE_RESULT _ReadElementTag(const BYTE* pcElement, size_t sizeLeft, MdTag* tag) {
  if (!_g_bExtendedTags) return _MdReadTag(pcElement, sizeLeft, 0, kMdField1Byte, tag) ? KLV_SIZE_OK : KLV_SIZE_CUT;
  const size_t most = std::min<size_t>(sizeLeft, kMdMostOidBytes);
  const bool read = _MdReadTag(pcElement, most, 0, kMdFieldOidTag, tag);
  if (sizeLeft > 0 && pcElement[0] == 0x80) return KLV_SIZE_UNSUPPORTED;
  if (read) return KLV_SIZE_OK;
  return most == kMdMostOidBytes ? KLV_SIZE_UNSUPPORTED : KLV_SIZE_CUT;
}

// Reads the length field at a position. A form that is not supported is reported even if the field is cut as well.
static tagKLV_SIZE_RESULT _ReadElementLength(const BYTE* pcElement, size_t sizeLeft, size_t position, bool log,
                                             MdLength* length) {
  const MdRead result = _MdReadLength(pcElement, sizeLeft, position, kMdFieldNoneOrBer, length);
  if (length->longForm && (length->count < 1 || length->count > kMdMostLengthBytes)) {
    if (log) MD_LOG(3, "Unsupported number of bytes (%u) for size in BER encoded length.\n", length->count);
    return KLV_SIZE_UNSUPPORTED;
  }
  return result == kMdReadOk ? KLV_SIZE_OK : KLV_SIZE_CUT;
}

tagKLV_SIZE_RESULT _ReadKLVElement(const BYTE* pcElement, size_t nSizeLeft, bool bLog, KLV_ELEMENT_INFO* pInfo) {
  *pInfo = {};
  MdTag tag;
  const tagKLV_SIZE_RESULT tagResult = _ReadElementTag(pcElement, nSizeLeft, &tag);
  if (tagResult != KLV_SIZE_OK) {
    if (nSizeLeft > 0) pInfo->nTag = pcElement[0];
    return tagResult;
  }
  pInfo->nTag = tag.key;
  pInfo->nTagSize = tag.size;
  if (nSizeLeft > tag.size) pInfo->FirstLength = pcElement[tag.size];
  MdLength length;
  const tagKLV_SIZE_RESULT lengthResult = _ReadElementLength(pcElement, nSizeLeft, tag.size, bLog, &length);
  pInfo->nHeaderSize = tag.size + length.size;
  pInfo->nSize = pInfo->nHeaderSize + length.value;
  return lengthResult;
}

// The record has a one-byte tag, whatever the option says. Its caller vouches for the bytes that the length field takes.
BOOL GetKLVElementSize(const KLV_ELEMENT* pKLV, size_t* pnSize) {
  MdLength length;
  const BYTE* pcElement = reinterpret_cast<const BYTE*>(pKLV);
  if (_ReadElementLength(pcElement, SIZE_MAX, sizeof(pKLV->Tag), true, &length) != KLV_SIZE_OK) return FALSE;
  *pnSize = sizeof(pKLV->Tag) + length.size + length.value;
  return TRUE;
}

const char* _GetUAVTagName(UINT32 nTag) {
  return nTag <= 0xFF ? GetUAVTagName(static_cast<BYTE>(nTag)) : "Unknown";
}

const char* _GetSecurityTagName(UINT32 nTag) {
  return nTag <= 0xFF ? GetSecurityTagName(static_cast<BYTE>(nTag)) : "Unknown";
}

// =====================================================================================================
// Insert elements. Built once when a source opens, on the encoder's thread; the source owns them and frees
// them with free().
// =====================================================================================================

MISSION_ID_KLV* AllocMissionID(const char* szMissionID) {
  const size_t nLength = strlen(szMissionID);
  // KEPT: a longer identifier is only reported; its length byte holds the low 8 bits of the count.
  MD_ASSERT(nLength <= 127);
  auto* pElement = static_cast<MISSION_ID_KLV*>(malloc(kKLVElementHeader + nLength));
  if (pElement == NULL) return NULL;
  pElement->cTag = UAS_MISSION_ID_TAG;
  pElement->cLength = static_cast<BYTE>(nLength);
  memcpy(reinterpret_cast<BYTE*>(pElement) + kKLVElementHeader, szMissionID, nLength);
  return pElement;
}

namespace {

// Tags of the security set (MISB ST 0102).
enum : BYTE {
  SECURITY_CLASSIFICATION_TAG = 1,
  SECURITY_CLASSIFYING_COUNTRY_METHOD_TAG = 2,
  SECURITY_CLASSIFYING_COUNTRY_TAG = 3,
  SECURITY_OBJECT_COUNTRY_METHOD_TAG = 12,
  SECURITY_OBJECT_COUNTRY_TAG = 13,
  SECURITY_VERSION_TAG = 22
};

constexpr BYTE kCountryMethodISO3166ThreeLetter = 2;
constexpr BYTE kSecuritySetVersion = 11;
constexpr size_t kClassifyingCountrySize = 3;  // characters
constexpr size_t kSecuritySetBaseSize = 24;    // bytes of the whole element without the object country's characters

// Writes the tag and the length byte of an element and returns where its value goes.
BYTE* BeginElement(BYTE* pcOut, BYTE Tag, size_t nLength) {
  pcOut[0] = Tag;
  pcOut[1] = static_cast<BYTE>(nLength);
  return pcOut + kKLVElementHeader;
}

// Writes an element with a one-byte value and returns where the next one goes.
BYTE* PutByteElement(BYTE* pcOut, BYTE Tag, BYTE Value) {
  BYTE* pcValue = BeginElement(pcOut, Tag, 1);
  pcValue[0] = Value;
  return pcValue + 1;
}

// The whole security set, nCountry characters of object country in it:
//
//   offset   size  content
//   0        2     tag 48, length 22 + 2n
//   2        3     tag 1: classification
//   5        3     tag 2: coding of the classifying country, 2 = ISO 3166 three letters
//   8        7     tag 3: "//" and the three letters
//   15       3     tag 12: coding of the object country, 2
//   18       2+2n  tag 13: the object country in UTF-16, big-endian
//   20+2n    4     tag 22: version 0x000B
void WriteSecuritySet(BYTE* pcOut, int enClassification, const char* szClassifyingCountry, const char* szObjectCountry,
                      size_t nCountry) {
  BYTE* pcNext =
      BeginElement(pcOut, UAS_SECURITY_LOCAL_SET_TAG, kSecuritySetBaseSize - kKLVElementHeader + 2 * nCountry);
  pcNext = PutByteElement(pcNext, SECURITY_CLASSIFICATION_TAG, static_cast<BYTE>(enClassification));
  pcNext = PutByteElement(pcNext, SECURITY_CLASSIFYING_COUNTRY_METHOD_TAG, kCountryMethodISO3166ThreeLetter);
  pcNext = BeginElement(pcNext, SECURITY_CLASSIFYING_COUNTRY_TAG, 2 + kClassifyingCountrySize);
  memcpy(pcNext, "//", 2);
  memcpy(pcNext + 2, szClassifyingCountry, kClassifyingCountrySize);
  pcNext += 2 + kClassifyingCountrySize;
  pcNext = PutByteElement(pcNext, SECURITY_OBJECT_COUNTRY_METHOD_TAG, kCountryMethodISO3166ThreeLetter);
  // KEPT: the length is that of the count modulo 128, and the next element follows the length, so that a longer
  // country is cut to what its length says. Configurations hold at most 23 characters.
  const size_t nCountryLength = (nCountry % 128) * 2;
  pcNext = BeginElement(pcNext, SECURITY_OBJECT_COUNTRY_TAG, nCountryLength);
  for (size_t i = 0; i < nCountry; i++) pcNext[2 * i + 1] = static_cast<BYTE>(szObjectCountry[i]);
  pcNext += nCountryLength;
  pcNext = BeginElement(pcNext, SECURITY_VERSION_TAG, 2);
  pcNext[0] = 0;
  pcNext[1] = kSecuritySetVersion;
}

}  // namespace

KLV_ELEMENT* AllocSecurityMetadata(int enClassification, const char* szClassifyingCountry,
                                   const char* szObjectCountry) {
  const size_t nClassifyingCountry = strlen(szClassifyingCountry);
  if (nClassifyingCountry != kClassifyingCountrySize) {
    MD_LOG(3, "Unsupported country length=%d.\n", static_cast<int>(nClassifyingCountry));
    return NULL;
  }
  const size_t nCountry = strlen(szObjectCountry);
  const size_t nTotalSize = kSecuritySetBaseSize + 2 * nCountry;
  auto* pcSet = static_cast<BYTE*>(calloc(1, nTotalSize));
  if (pcSet == NULL) {
    MD_LOG(3, "No memory for security data set of %u bytes.\n", static_cast<unsigned>(nTotalSize));
    return NULL;
  }
  // KEPT: the classification is not tested against the table of ST 0102.
  WriteSecuritySet(pcSet, enClassification, szClassifyingCountry, szObjectCountry, nCountry);
  MD_DUMP(6, "Created Security Dataset", pcSet, static_cast<int>(nTotalSize));
  return reinterpret_cast<KLV_ELEMENT*>(pcSet);
}

// =====================================================================================================
// Validation. For the host, on any thread; reads the message only.
// =====================================================================================================

namespace {

// Logs the identifier's characters that lie inside the message.
void LogMissionID(const BYTE* pcElement, const KLV_ELEMENT_INFO& Element, size_t nSizeLeft) {
  const size_t nSize = std::min(Element.nSize, nSizeLeft) - Element.nHeaderSize;
  const char* szMissionID = reinterpret_cast<const char*>(pcElement + Element.nHeaderSize);
  MD_LOG(6, "Mission ID \"%.*s\" is present.\n", static_cast<int>(std::min<size_t>(nSize, INT_MAX)), szMissionID);
}

// Compares the stored checksum at nOffset from the start of the message. A value cut off by the end of the message
// never matches; its missing bytes read as 0.
BOOL IsChecksumRight(const BYTE* pcMessage, int nUAVSize, size_t nOffset) {
  const WORD wCalculated = CalcKlvChecksum16Ex(pcMessage, static_cast<WORD>(nUAVSize), static_cast<WORD>(nOffset));
  const size_t nBytesLeft = static_cast<size_t>(nUAVSize) - nOffset;
  const unsigned nHigh = nBytesLeft > 0 ? pcMessage[nOffset] : 0u;
  const unsigned nLow = nBytesLeft > 1 ? pcMessage[nOffset + 1] : 0u;
  const unsigned nStored = (nHigh << 8) | nLow;
  if (nBytesLeft < 2 || nStored != wCalculated) {
    MD_LOG(3, "KLV checksum IS INVALID (calc=0x%04X, act=0x%04X).\n", static_cast<unsigned>(wCalculated), nStored);
    return FALSE;
  }
  MD_LOG(6, "KLV checksum IS OK (calc=0x%04X, act=0x%04X).\n", static_cast<unsigned>(wCalculated), nStored);
  return TRUE;
}

}  // namespace

BOOL ValidateUASLocalDataSet(BYTE* pcKLVHeader, int nUAVSize, int nHeaderSize) {
  const BYTE* pcNext = pcKLVHeader + nHeaderSize;
  const BYTE* pcChecksum = NULL;
  int64_t nSizeLeft = int64_t{nUAVSize} - nHeaderSize;
  int nElement = 0;
  while (nSizeLeft > 2) {
    KLV_ELEMENT_INFO Element = {};
    nElement++;
    if (_ReadKLVElement(pcNext, static_cast<size_t>(nSizeLeft), true, &Element) != KLV_SIZE_OK) {
      MD_ASSERT_TEXT(false, "GetKLVElementSize(pKLV, &nElementSize)");
      return FALSE;
    }
    const auto nElementBytes = static_cast<int64_t>(Element.nSize);
    const auto nDataLength = static_cast<int>(Element.nSize - Element.nTagSize - 1);
    MD_LOG(6, "KLV Element#%d: tag#%d (%s), data length=%d, space left=%d.\n", nElement, static_cast<int>(Element.nTag),
           _GetUAVTagName(Element.nTag), nDataLength, static_cast<int>(nSizeLeft - nElementBytes));
    // KEPT: a later checksum element replaces an earlier one.
    if (Element.nTag == UAS_CHECKSUM_TAG) pcChecksum = pcNext;
    if (Element.nTag == UAS_MISSION_ID_TAG) LogMissionID(pcNext, Element, static_cast<size_t>(nSizeLeft));
    if (Element.nTag == UAS_SECURITY_LOCAL_SET_TAG) MD_LOG(6, "Security Metadata is present.\n");
    nSizeLeft -= nElementBytes;
    if (nSizeLeft > 0) pcNext += Element.nSize;
  }
  if (pcChecksum == NULL) {
    // KEPT: a message without checksum passes.
    MD_LOG(4, "No checksum found.\n");
    return TRUE;
  }
  return IsChecksumRight(pcKLVHeader, nUAVSize, static_cast<size_t>(pcChecksum - pcKLVHeader) + kKLVElementHeader);
}

// =====================================================================================================
// Names. Any thread; the tables are constant.
// =====================================================================================================

namespace {

constexpr const char* kSecurityClassifications[] = {
    "Unknown", "UNCLASSIFIED", "RESTRICTED", "CONFIDENTIAL", "SECRET", "TOP SECRET",
};

// Of element 2 (classifying country); element 12 (object country) has another table in ST 0102.
// KEPT: rows 8 and 9 carry the misspelt word; hosts compare with it.
constexpr const char* kCountryCodingMethods[] = {
    "Unknown",
    "ISO-3166 Two Letter",
    "ISO-3166 Three Letter",
    "FIPS 10-4 Two Letter",
    "FIPS 10-4 Four Letter",
    "ISO-3166 Numeric",
    "1059 Two Letter",
    "1059 Three Letter",
    "Ommitted",
    "Ommitted",
    "FIPS 10-4 Mixed",
    "ISO 3166 Mixed",
    "STANAG 1059 Mixed",
    "GENC Two Letter",
    "GENC Three Letter",
    "GENC Numeric",
    "GENC Mixed",
};

template <size_t N>
const char* NameOf(const char* const (&aszNames)[N], BYTE cValue) {
  return cValue < N ? aszNames[cValue] : "Unknown";
}

}  // namespace

const char* GetSecurityClassificationString(BYTE cTag) {
  return NameOf(kSecurityClassifications, cTag);
}

const char* GetCountryCodingMethodString(BYTE cTag) {
  return NameOf(kCountryCodingMethods, cTag);
}
