// SPDX-License-Identifier: Apache-2.0
// Capture of the KLV in a video input's ancillary data. Called on the metadata thread.
#ifndef HOST_CAPTURE_H
#define HOST_CAPTURE_H

#include <stdint.h>

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// One capture per video input, shared by its sources.
//   offset size field
//        0    4 iFD        descriptor that is readable while KLV waits; -1 while stopped
//        4    4 nRefCount  open sources of the input
typedef struct tagVIDEO_EXTRACTOR {
  int32_t iFD;
  int32_t nRefCount;
} VIDEO_EXTRACTOR;

// Starts the capture of input 0 to 3 and fills pExtractor->iFD, which the host keeps owning.
BOOL KLVCAPTURE_Start(int iInterface, VIDEO_EXTRACTOR* pExtractor);
void KLVCAPTURE_Stop(int iInterface);
// Takes one packet: *pnLength holds the room in bytes and gets the packet's length; *pnTimeStamp gets its
// presentation time. FALSE when nothing waits. Never blocks.
BOOL KLVCAPTURE_GetKLV(int iFD, BYTE* pcData, int* pnLength, UINT64* pnTimeStamp);

#ifdef __cplusplus
}
#endif

#endif  // HOST_CAPTURE_H
