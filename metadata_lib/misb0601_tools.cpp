// SPDX-License-Identifier: Apache-2.0
// Tools for the UAS Datalink Local Set (MISB ST 0601) and the security local set (MISB ST 0102).
//
//   Elements          tag and BER length of one element, and how tags are read
//   Insert elements   the mission identifier and the security set that a source inserts
//   Validation        a whole message and its checksum
//   Names             security classifications and country coding methods
#include "misb0601_tools.h"

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

#include "host_util.h"
#include "md_core.h"

#define MD_MODULE "misb0601_tools"
#include "md_log.h"

// =====================================================================================================
// Elements. Called for every element of every message that is walked, on any thread. The only state is the option.
// =====================================================================================================

bool _g_bExtendedTags = false;

static constexpr size_t kLargestElementHeader = 1 + 1 + kMdMostLengthBytes;  // one-byte tag, long-form length

void _ReadExtendedTagsOption() {
  char value[40] = "";
  int size = sizeof(value);
  CfgFile_GetStringValue("/etc/hostos.ini", "UASLocalSet", "ExtendedTags", value, &size, "No");
  _g_bExtendedTags = strcasecmp(value, "Yes") == 0;
  if (_g_bExtendedTags) MD_LOG(6, "Support of extended UAS tags enabled.\n");
}

// Reads the tag of an element. In extended tags (BER-OID, ISO/IEC 8825-1, 8.19) a leading 0x80 would be an empty digit
// and thus a second encoding of a smaller tag, so it is malformed; so is a tag of more than four bytes, whose fifth
// byte is not read.
static tagKLV_SIZE_RESULT _ReadElementTag(std::span<const BYTE> data, MdTag* tag) {
  if (!_g_bExtendedTags)
    return _MdReadTag(data.data(), data.size(), 0, kMdField1Byte, tag) ? KLV_SIZE_OK : KLV_SIZE_CUT;
  const size_t most = std::min<size_t>(data.size(), kMdMostOidBytes);
  const bool read = _MdReadTag(data.data(), most, 0, kMdFieldOidTag, tag);
  if (!data.empty() && data[0] == 0x80) return KLV_SIZE_UNSUPPORTED;
  if (read) return KLV_SIZE_OK;
  return most == kMdMostOidBytes ? KLV_SIZE_UNSUPPORTED : KLV_SIZE_CUT;
}

// Reads the length field at a position. An unsupported form is reported even if the field is truncated as well.
static tagKLV_SIZE_RESULT _ReadElementLength(std::span<const BYTE> data, size_t position, bool log, MdLength* length) {
  const MdRead result = _MdReadLength(data.data(), data.size(), position, kMdFieldNoneOrBer, length);
  if (length->longForm && (length->count < 1 || length->count > kMdMostLengthBytes)) {
    if (log) MD_LOG(3, "Unsupported number of bytes (%u) for size in BER encoded length.\n", length->count);
    return KLV_SIZE_UNSUPPORTED;
  }
  return result == kMdReadOk ? KLV_SIZE_OK : KLV_SIZE_CUT;
}

tagKLV_SIZE_RESULT _ReadKLVElement(std::span<const BYTE> data, bool log, KLV_ELEMENT_INFO* info) {
  *info = {};
  MdTag tag;
  const tagKLV_SIZE_RESULT tagResult = _ReadElementTag(data, &tag);
  if (tagResult != KLV_SIZE_OK) {
    if (!data.empty()) info->nTag = data[0];
    return tagResult;
  }
  info->nTag = tag.key;
  info->nTagSize = tag.size;
  if (data.size() > tag.size) info->FirstLength = data[tag.size];
  MdLength length;
  const tagKLV_SIZE_RESULT lengthResult = _ReadElementLength(data, tag.size, log, &length);
  info->nHeaderSize = tag.size + length.size;
  info->nSize = info->nHeaderSize + length.value;
  return lengthResult;
}

// The record has a one-byte tag, regardless of the option. The caller guarantees that the length field can be read.
BOOL GetKLVElementSize(const KLV_ELEMENT* pKLV, size_t* pnSize) {
  const std::span header(reinterpret_cast<const BYTE*>(pKLV), kLargestElementHeader);
  MdLength length;
  if (_ReadElementLength(header, sizeof(pKLV->Tag), true, &length) != KLV_SIZE_OK) return FALSE;
  *pnSize = sizeof(pKLV->Tag) + length.size + length.value;
  return TRUE;
}

const char* _GetUAVTagName(UINT32 tag) {
  return tag <= 0xFF ? GetUAVTagName(static_cast<BYTE>(tag)) : "Unknown";
}

const char* _GetSecurityTagName(UINT32 tag) {
  return tag <= 0xFF ? GetSecurityTagName(static_cast<BYTE>(tag)) : "Unknown";
}

// =====================================================================================================
// Insert elements. Built once when a source opens, on the encoder's thread; the source owns them and releases them with
// free().
// =====================================================================================================

MISSION_ID_KLV* AllocMissionID(const char* szMissionID) {
  const size_t nLength = strlen(szMissionID);
  // KEPT: a longer identifier is only reported; its length byte holds the low 8 bits of the count.
  MD_ASSERT(nLength <= 127);
  auto* element = static_cast<MISSION_ID_KLV*>(malloc(kKLVElementHeader + nLength));
  if (element == nullptr) return nullptr;
  element->cTag = UAS_MISSION_ID_TAG;
  element->cLength = static_cast<BYTE>(nLength);
  memcpy(reinterpret_cast<BYTE*>(element) + kKLVElementHeader, szMissionID, nLength);
  return element;
}

// Tags of the security set (MISB ST 0102).
enum : BYTE {
  SECURITY_CLASSIFICATION_TAG = 1,
  SECURITY_CLASSIFYING_COUNTRY_METHOD_TAG = 2,
  SECURITY_CLASSIFYING_COUNTRY_TAG = 3,
  SECURITY_OBJECT_COUNTRY_METHOD_TAG = 12,
  SECURITY_OBJECT_COUNTRY_TAG = 13,
  SECURITY_VERSION_TAG = 22
};

static constexpr BYTE kCountryMethodISO3166ThreeLetter = 2;
static constexpr BYTE kSecuritySetVersion = 11;
static constexpr size_t kClassifyingCountrySize = 3;  // characters
static constexpr size_t kSecuritySetBaseSize =
    24;  // bytes of the whole element without the object country's characters

// Writes the tag and the length byte of an element. Returns the position of its value.
static BYTE* _BeginElement(BYTE* out, BYTE tag, size_t length) {
  out[0] = tag;
  out[1] = static_cast<BYTE>(length);
  return out + kKLVElementHeader;
}

// Writes an element with a one-byte value. Returns the position of the next element.
static BYTE* _PutByteElement(BYTE* out, BYTE tag, BYTE value) {
  BYTE* next = _BeginElement(out, tag, 1);
  next[0] = value;
  return next + 1;
}

// Writes the whole security set with an object country of n characters:
//
//   offset   size  content
//   0        2     tag 48, length 22 + 2n
//   2        3     tag 1: classification
//   5        3     tag 2: coding of the classifying country, 2 = ISO 3166 three letters
//   8        7     tag 3: "//" and the three letters
//   15       3     tag 12: coding of the object country, 2
//   18       2+2n  tag 13: the object country in UTF-16, big-endian
//   20+2n    4     tag 22: version 0x000B
static void _WriteSecuritySet(BYTE* out, int classification, const char* classifyingCountry, const char* objectCountry,
                              size_t countrySize) {
  BYTE* next =
      _BeginElement(out, UAS_SECURITY_LOCAL_SET_TAG, kSecuritySetBaseSize - kKLVElementHeader + 2 * countrySize);
  next = _PutByteElement(next, SECURITY_CLASSIFICATION_TAG, static_cast<BYTE>(classification));
  next = _PutByteElement(next, SECURITY_CLASSIFYING_COUNTRY_METHOD_TAG, kCountryMethodISO3166ThreeLetter);
  next = _BeginElement(next, SECURITY_CLASSIFYING_COUNTRY_TAG, 2 + kClassifyingCountrySize);
  memcpy(next, "//", 2);
  memcpy(next + 2, classifyingCountry, kClassifyingCountrySize);
  next += 2 + kClassifyingCountrySize;
  next = _PutByteElement(next, SECURITY_OBJECT_COUNTRY_METHOD_TAG, kCountryMethodISO3166ThreeLetter);
  // KEPT: the length byte holds (count mod 128) x 2 and the next element starts there, so a longer country is
  // truncated. Configurations hold at most 23 characters.
  const size_t countryBytes = (countrySize % 128) * 2;
  next = _BeginElement(next, SECURITY_OBJECT_COUNTRY_TAG, countryBytes);
  for (size_t i = 0; i < countrySize; ++i) next[2 * i + 1] = static_cast<BYTE>(objectCountry[i]);
  next += countryBytes;
  next = _BeginElement(next, SECURITY_VERSION_TAG, 2);
  next[0] = 0;
  next[1] = kSecuritySetVersion;
}

KLV_ELEMENT* AllocSecurityMetadata(int enClassification, const char* szClassifyingCountry,
                                   const char* szObjectCountry) {
  const size_t classifyingSize = strlen(szClassifyingCountry);
  if (classifyingSize != kClassifyingCountrySize) {
    MD_LOG(3, "Unsupported country length=%d.\n", static_cast<int>(classifyingSize));
    return nullptr;
  }
  const size_t countrySize = strlen(szObjectCountry);
  const size_t totalSize = kSecuritySetBaseSize + 2 * countrySize;
  auto* set = static_cast<BYTE*>(calloc(1, totalSize));
  if (set == nullptr) {
    MD_LOG(3, "No memory for security data set of %u bytes.\n", static_cast<unsigned>(totalSize));
    return nullptr;
  }
  // KEPT: the classification is not tested against the table of ST 0102.
  _WriteSecuritySet(set, enClassification, szClassifyingCountry, szObjectCountry, countrySize);
  MD_DUMP(6, "Created Security Dataset", set, static_cast<int>(totalSize));
  return reinterpret_cast<KLV_ELEMENT*>(set);
}

// =====================================================================================================
// Validation. For the host, on any thread; reads the message only.
// =====================================================================================================

// Logs the identifier's characters that lie inside the message.
static void _LogMissionID(std::span<const BYTE> data, const KLV_ELEMENT_INFO& element) {
  const size_t size = std::min(element.nSize, data.size()) - element.nHeaderSize;
  const char* missionID = reinterpret_cast<const char*>(data.data() + element.nHeaderSize);
  MD_LOG(6, "Mission ID \"%.*s\" is present.\n", static_cast<int>(std::min<size_t>(size, INT_MAX)), missionID);
}

// Returns whether the checksum stored at an offset from the start of the message is right. A truncated checksum never
// matches; its missing bytes count as 0. Size and offset are taken modulo 65536, as by the exported checksum.
static bool _IsChecksumRight(const BYTE* message, int uavSize, size_t offset) {
  const WORD calculated = CalcKlvChecksum16Ex(message, static_cast<WORD>(uavSize), static_cast<WORD>(offset));
  const size_t bytesLeft = static_cast<size_t>(uavSize) - offset;
  const unsigned high = bytesLeft > 0 ? message[offset] : 0u;
  const unsigned low = bytesLeft > 1 ? message[offset + 1] : 0u;
  const unsigned stored = (high << 8) | low;
  if (bytesLeft < 2 || stored != calculated) {
    MD_LOG(3, "KLV checksum IS INVALID (calc=0x%04X, act=0x%04X).\n", static_cast<unsigned>(calculated), stored);
    return false;
  }
  MD_LOG(6, "KLV checksum IS OK (calc=0x%04X, act=0x%04X).\n", static_cast<unsigned>(calculated), stored);
  return true;
}

BOOL ValidateUASLocalDataSet(BYTE* pcKLVHeader, int nUAVSize, int nHeaderSize) {
  const BYTE* next = pcKLVHeader + nHeaderSize;
  const BYTE* checksum = nullptr;
  int64_t sizeLeft = int64_t{nUAVSize} - nHeaderSize;
  int number = 0;
  while (sizeLeft > 2) {
    const std::span data(next, static_cast<size_t>(sizeLeft));
    KLV_ELEMENT_INFO element = {};
    ++number;
    if (_ReadKLVElement(data, true, &element) != KLV_SIZE_OK) {
      MD_ASSERT_TEXT(false, "GetKLVElementSize(pKLV, &nElementSize)");
      return FALSE;
    }
    const auto elementBytes = static_cast<int64_t>(element.nSize);
    const auto dataLength = static_cast<int>(element.nSize - element.nTagSize - 1);
    MD_LOG(6, "KLV Element#%d: tag#%d (%s), data length=%d, space left=%d.\n", number, static_cast<int>(element.nTag),
           _GetUAVTagName(element.nTag), dataLength, static_cast<int>(sizeLeft - elementBytes));
    // KEPT: a later checksum element replaces an earlier one.
    if (element.nTag == UAS_CHECKSUM_TAG) checksum = next;
    if (element.nTag == UAS_MISSION_ID_TAG) _LogMissionID(data, element);
    if (element.nTag == UAS_SECURITY_LOCAL_SET_TAG) MD_LOG(6, "Security Metadata is present.\n");
    sizeLeft -= elementBytes;
    if (sizeLeft > 0) next += element.nSize;
  }
  if (checksum == nullptr) {
    // KEPT: a message without checksum passes.
    MD_LOG(4, "No checksum found.\n");
    return TRUE;
  }
  const size_t offset = static_cast<size_t>(checksum - pcKLVHeader) + kKLVElementHeader;
  return _IsChecksumRight(pcKLVHeader, nUAVSize, offset) ? TRUE : FALSE;
}

// =====================================================================================================
// Names. Any thread; the tables are constant.
// =====================================================================================================

static constexpr const char* kSecurityClassifications[] = {
    "Unknown", "UNCLASSIFIED", "RESTRICTED", "CONFIDENTIAL", "SECRET", "TOP SECRET",
};

// The methods of element 2 (classifying country); element 12 (object country) has another table in ST 0102.
// KEPT: rows 8 and 9 carry the misspelt word; hosts compare with it.
static constexpr const char* kCountryCodingMethods[] = {
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
static const char* _NameOf(const char* const (&names)[N], BYTE value) {
  return value < N ? names[value] : "Unknown";
}

const char* GetSecurityClassificationString(BYTE cTag) {
  return _NameOf(kSecurityClassifications, cTag);
}

const char* GetCountryCodingMethodString(BYTE cTag) {
  return _NameOf(kCountryCodingMethods, cTag);
}
