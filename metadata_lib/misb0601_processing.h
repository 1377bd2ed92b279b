// Private side of the UAS Local Set rewriting.
#ifndef MISB0601_PROCESSING_H
#define MISB0601_PROCESSING_H

#include "metadata_api.h"
#include "misb0601_tools.h"

// Head room in front of a body that is being written: takes the key and the length field at the end, and still
// leaves the stream header its five bytes.
inline constexpr int kRewriteHeadRoom = 24;
inline constexpr int kMaxBodyLengthField = 3;
inline constexpr size_t kMaxRewrittenBody = 65535;  // bytes, checksum element included
inline constexpr time_t kInvalidUASLogPause = 4;    // whole seconds that must be exceeded between two logs

static_assert(kRewriteHeadRoom >= kUASKeySize + kMaxBodyLengthField + MDATA_STREAM_HEADER_SIZE);

// Writes the elements of a security set of nInputSize bytes (tag and length byte included) that the source's filter
// keeps to pcOutBuff, which has room for nInputSize bytes. Returns the size written with its own header, 0 when
// nothing is kept or an element's size cannot be read. Metadata thread only.
int _ProcessUASSecuritySet(MDATA_SRC_HANDLE hSource, const KLV_ELEMENT* pSecuritySet, int nInputSize, BYTE* pcOutBuff);

#endif  // MISB0601_PROCESSING_H
