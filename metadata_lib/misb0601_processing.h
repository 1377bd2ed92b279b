// SPDX-License-Identifier: Apache-2.0
// Private side of the UAS Local Set rewriting.
#ifndef MISB0601_PROCESSING_H
#define MISB0601_PROCESSING_H

#include <stddef.h>
#include <time.h>

#include "md_source.h"
#include "metadata_lib.h"
#include "misb0601_tools.h"

// Head room in front of a body that is being written, for key and length field, which are written at the end, and the
// five bytes of the stream header.
inline constexpr int kRewriteHeadRoom = 24;
inline constexpr int kMaxBodyLengthField = 3;
inline constexpr size_t kMaxRewrittenBody = 65535;  // bytes, checksum element included
inline constexpr time_t kInvalidUASLogPause = 4;    // seconds between two log lines, which must be exceeded

static_assert(kRewriteHeadRoom >= kUASKeySize + kMaxBodyLengthField + MDATA_STREAM_HEADER_SIZE);

// Writes the elements that the source's filter keeps of a security set to pcOutBuff, which has room for nInputSize
// bytes, the size of the set with its tag and length byte. Returns the size written, tag and length byte included, or
// 0 if nothing is kept or an element's size cannot be read. Metadata thread only.
int _ProcessUASSecuritySet(MDATA_SRC_HANDLE hSource, const KLV_ELEMENT* pSecuritySet, int nInputSize, BYTE* pcOutBuff);

#endif  // MISB0601_PROCESSING_H
