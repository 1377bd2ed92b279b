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

// --- Element sizes ---------------------------------------------------------------------------------------

enum tagKLV_SIZE_RESULT {
  KLV_SIZE_OK = 0,
  KLV_SIZE_UNSUPPORTED = 1,  // a length form other than short or 1 to 4 length bytes
  KLV_SIZE_CUT = 2           // the length field does not lie inside the bytes left
};

// GetKLVElementSize for an element of which only nSizeLeft bytes may be read. Says nothing about the value, which
// may still run past them. An unsupported form is logged when bLog is set. *pnSize is only written with KLV_SIZE_OK.
tagKLV_SIZE_RESULT _GetBoundedKLVElementSize(const KLV_ELEMENT* pKLV, size_t nSizeLeft, bool bLog, size_t* pnSize);

#endif  // MISB0601_TOOLS_H
