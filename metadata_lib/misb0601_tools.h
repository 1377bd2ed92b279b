// SPDX-License-Identifier: Apache-2.0
// Private side of the UAS Local Set tools: the functions that the rewriting needs besides the exported ones.
#ifndef MISB0601_TOOLS_H
#define MISB0601_TOOLS_H

#include <stddef.h>

#include <span>

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
  KLV_SIZE_CUT = 2           // the data end inside the tag or length field
};

// Whether tags of local sets are BER-OID, so that items from 128 on have tags of two to four bytes. METADATALIB_Init
// sets it before the metadata thread exists; read-only after that. KEPT: false, for tags of one byte, unless
// /etc/hostos.ini says otherwise.
extern bool _g_bExtendedTags;

// Reads that option from the key "ExtendedTags" of the section "UASLocalSet". Called by METADATALIB_Init.
void _ReadExtendedTagsOption();

// An element's tag and sizes. If the element could not be read, only nTag and FirstLength are valid.
struct KLV_ELEMENT_INFO {
  UINT32 nTag;         // the tag, or the first byte of a malformed or truncated one
  BYTE FirstLength;    // first byte of the length field, 0 if that lies outside the data
  size_t nTagSize;     // bytes of the tag
  size_t nHeaderSize;  // bytes of tag and length field
  size_t nSize;        // bytes of the whole element
};

// Reads tag and length of the element at the start of the data, but not its value, which may run past them. Logs an
// unsupported length form if log is set.
tagKLV_SIZE_RESULT _ReadKLVElement(std::span<const BYTE> data, bool log, KLV_ELEMENT_INFO* info);

// Return the host's names, for tags of any size; never NULL.
const char* _GetUAVTagName(UINT32 tag);
const char* _GetSecurityTagName(UINT32 tag);

#endif  // MISB0601_TOOLS_H
