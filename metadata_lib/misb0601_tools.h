// Private side of the UAS Local Set tools: what the rewriting needs of them besides the exported functions.
#ifndef MISB0601_TOOLS_H
#define MISB0601_TOOLS_H

#include "metadata_lib.h"

// --- Tags of MISB ST 0601 and MISB ST 0102 ---------------------------------------------------------------

enum : BYTE { UAS_CHECKSUM_TAG = 1, UAS_MISSION_ID_TAG = 3, UAS_SECURITY_LOCAL_SET_TAG = 48 };

inline constexpr int kUASKeySize = 16;            // bytes of the universal key
inline constexpr size_t kKLVElementHeader = 2;    // tag byte and first length byte
inline constexpr size_t kUASChecksumSize = 4;     // bytes of the whole checksum element
inline constexpr size_t kMaxMissionIDSize = 127;  // characters of a mission identifier

static_assert(offsetof(KLV_ELEMENT, Tag) == 0 && offsetof(KLV_ELEMENT, Length) == 1);
static_assert(offsetof(KLV_ELEMENT, Data) == kKLVElementHeader);
static_assert(offsetof(MISSION_ID_KLV, cTag) == 0 && offsetof(MISSION_ID_KLV, cLength) == 1);
static_assert(offsetof(MISSION_ID_KLV, acMissionID) == kKLVElementHeader);

// --- Elements of a local set -----------------------------------------------------------------------------

enum tagKLV_SIZE_RESULT {
  KLV_SIZE_OK = 0,
  KLV_SIZE_UNSUPPORTED = 1,  // a length form other than short or 1 to 4 length bytes, or a malformed tag
  KLV_SIZE_CUT = 2           // tag or length field does not lie inside the bytes left
};

// Whether tags of local sets are BER-OID, so that items from 128 on have tags of two to four bytes. KEPT: FALSE, tags
// are one byte, unless /etc/hostos.ini says otherwise. Written by METADATALIB_Init before the metadata thread exists,
// read-only after that.
extern BOOL _g_bExtendedTags;

// Reads that option: key "ExtendedTags", section "UASLocalSet". Called by METADATALIB_Init.
void _ReadExtendedTagsOption();

// An element's tag and sizes. Only nTag and FirstLength mean anything if the element could not be read.
struct KLV_ELEMENT_INFO {
  UINT32 nTag;         // the first byte of a tag that is malformed or cut
  BYTE FirstLength;    // first byte of the length field, 0 when that lies outside
  size_t nTagSize;     // bytes of the tag
  size_t nHeaderSize;  // bytes of tag and length field
  size_t nSize;        // bytes of the whole element
};

// Reads tag and length of the element at pcElement, of which only sizeLeft bytes may be read. Does not look at the value,
// which may run past them. Logs a length form that is not supported if log is set.
tagKLV_SIZE_RESULT _ReadKLVElement(const BYTE* pcElement, size_t sizeLeft, bool log, KLV_ELEMENT_INFO* info);

// The host's names, for tags of any size; never NULL.
const char* _GetUAVTagName(UINT32 nTag);
const char* _GetSecurityTagName(UINT32 nTag);

#endif  // MISB0601_TOOLS_H
