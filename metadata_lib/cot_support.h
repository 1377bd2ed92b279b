// SPDX-License-Identifier: Apache-2.0
// Private side of the serial CoT link: the frame on the wire, the decode context, and the steps that the tests reach.
// Hidden from the encoder by the export map.
#ifndef COT_SUPPORT_H
#define COT_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

#include <bit>

#include "host.h"
#include "md_codewords.h"
#include "metadata_lib.h"

// --- The frame on the wire ---------------------------------------------------------------------------

inline constexpr char kCoTSyncPattern[] = "oHeY!";
inline constexpr int kCoTSyncSize = 5;
inline constexpr int kCoTHeaderSize = 17;
inline constexpr int kCoTDecodeBufferSize = 65536;

// Header of a frame; the payload follows directly. All words are little-endian.
//
//   offset size field
//        0    5 StartPattern   "oHeY!"
//        5    2 wLengthValue1  payload length in bytes, first copy
//        7    2 wLengthCRC1    its check word, minus twice the length
//        9    2 wLengthValue2  second copy
//       11    2 wLengthCRC2
//       13    2 wLengthValue3  third copy
//       15    2 wLengthCRC3
typedef struct __attribute__((packed)) tagSERDATA_COT_HEADER {
  BYTE StartPattern[kCoTSyncSize];
  WORD wLengthValue1;
  WORD wLengthCRC1;
  WORD wLengthValue2;
  WORD wLengthCRC2;
  WORD wLengthValue3;
  WORD wLengthCRC3;
} SERDATA_COT_HEADER;

static_assert(std::endian::native == std::endian::little, "the header's words are read in place");
static_assert(sizeof(SERDATA_COT_HEADER) == kCoTHeaderSize);
static_assert(offsetof(SERDATA_COT_HEADER, wLengthValue1) == 5);
static_assert(offsetof(SERDATA_COT_HEADER, wLengthCRC1) == 7);
static_assert(offsetof(SERDATA_COT_HEADER, wLengthValue2) == 9);
static_assert(offsetof(SERDATA_COT_HEADER, wLengthCRC2) == 11);
static_assert(offsetof(SERDATA_COT_HEADER, wLengthValue3) == 13);
static_assert(offsetof(SERDATA_COT_HEADER, wLengthCRC3) == 15);

// The block in the data bits:
//
//   offset size field
//        0    2 L, little-endian: bytes of this block without the CRC
//        2  L-2 ARQ message: 'U', '#', channel digit, XML text
//        L    2 CRC-16/ARC of the ARQ message, big-endian
inline constexpr int kBlockLengthSize = 2;
inline constexpr int kArqHeaderSize = 3;

// --- Decode context ----------------------------------------------------------------------------------

enum tagCOT_DECODE_STATE : int32_t {
  COT_SCANNING_FOR_HEADER = 0,  // waits for the sync pattern
  COT_IN_PARTIAL_SYNC = 1,      // waits for the rest of a sync pattern cut off at the end of a chunk
  COT_ACQUIRING_LENGTH = 2,     // waits for the rest of the header
  COT_GATHERING_DATA = 3        // waits for the rest of the payload
};

// For frames that begin inside a rejected one, which may fill the decode buffer and lose 17 bytes each: more room, so that
// what is left need not be moved each time, and what is known about their bytes.
typedef struct tagCOT_REREAD {
  MdBlockCrcs crcs;
  BYTE wideBuffer[2 * kCoTDecodeBufferSize];  // holds the bytes instead of DecodeBuffer
} COT_REREAD;

// One per open serial CoT source. Metadata thread only, except Stats, whose counters the statistics calls read and set
// atomically.
typedef struct tagCOT_DECODE_CONTEXT {
  int32_t enState;        // tagCOT_DECODE_STATE
  int32_t nStoredAmount;  // bytes held
  int32_t nMsgSize;       // whole frame in bytes, once the header is known
  COT_STATS Stats;        // atomic counters
  COT_RX_HANDLER pfnRxHandler;
  void* pvUserParam1;  // the source record
  BYTE DecodeBuffer[kCoTDecodeBufferSize];
  int32_t nStart;       // position of the first held byte in the memory that holds them
  UINT64 nPosition;     // position of the first held byte among all that were held
  UINT64 nRejectedEnd;  // end of the rejected frames so far; a frame that begins before it is read again
  COT_REREAD* pReread;  // what is used for such frames; NULL until it is needed
  BOOL bWide;           // its buffer holds the bytes; once it does, to the end
} COT_DECODE_CONTEXT;

// --- Frame decoder -----------------------------------------------------------------------------------

// Returns minus twice the length, modulo 65536.
WORD _CalcLengthCheck(WORD length);
// Selects the first of the header's three lengths that its own check word confirms. Returns FALSE if there is none.
BOOL _GetCoTMessageLength(const SERDATA_COT_HEADER* header, int* length);

// --- ARQ and codewords -------------------------------------------------------------------------------

// Decodes one frame's payload and delivers its event. Returns TRUE if the CRC matches, even if the ARQ header is wrong.
BOOL _ProcessLayer2(COT_DECODE_CONTEXT* pCtxt, const BYTE* pcData, int nSize);
// Copies the data bits of packed codewords. pcOutBuffer is zeroed and has room for nOutDataSize + 13 bytes; if
// nOutDataSize is the number of whole bytes in the codewords, room for their data bits is enough.
void _DoReedSolomon(const BYTE* pcInData, BYTE* pcOutBuffer, int nOutDataSize);
// Checks the ARQ header of the message in pBuff, logs the XML and hands it to the source.
BOOL _ProcessARQ(COT_DECODE_CONTEXT* pCtxt, MDATA_BUFFER* pBuff);

#endif  // COT_SUPPORT_H
