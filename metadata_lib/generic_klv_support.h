// SPDX-License-Identifier: Apache-2.0
// Private side of the KLV stream decoder and the local set standards.
#ifndef GENERIC_KLV_SUPPORT_H
#define GENERIC_KLV_SUPPORT_H

#include <stdint.h>
#include <sys/time.h>

#include "metadata_lib.h"

// --- Stream decoder ----------------------------------------------------------------------------------

// The event that the decoder waits for.
enum tagKLV_STATE : int32_t {
  KLV_STATE_SCANNING_FOR_HEADER = 0,      // the sync pattern
  KLV_STATE_IN_PARTIAL_SYNC = 1,          // the rest of a sync pattern cut off at the end of a chunk
  KLV_STATE_ACQUIRING_UNIVERSAL_KEY = 2,  // the rest of the 16-byte key
  KLV_STATE_ACQUIRING_DATA_LENGTH = 3,    // the rest of the BER length
  KLV_STATE_ACQUIRING_DATA = 4            // the rest of the message
};

inline constexpr int kKLVSyncSize = 5;
inline constexpr int kKLVKeySize = 16;
inline constexpr int kKLVDecodeSize = 65536;           // the buffer size that messages are measured against
inline constexpr int kKLVLargestMessage = 19 + 65535;  // key, 3-byte length, value
inline constexpr int kKLVSliceSize = 65536;            // longer chunks are fed in slices of this size
inline constexpr int kKLVDecodeCapacity = kKLVLargestMessage + kKLVSliceSize;  // capacity of the buffer

// One per stream. Driven by the metadata thread under g_MetaDataAPIMutex, which keeps those out who set Stats; these are
// single atomic values.
typedef struct tagKLV_DECODE_CONTEXT {
  int32_t enState;              // tagKLV_STATE
  int32_t nStoredAmount;        // bytes held
  int32_t nMsgSize;             // key, length field and value of the current message
  int32_t nHeaderSize;          // key and length field
  int32_t nHeaderLengthBytes;   // 1 for the short form, n for the long form 0x8n
  int32_t nKlvTagFieldSize;     // item tag size code
  int32_t nKlvLengthFieldSize;  // item length size code
  struct timeval MsgStartTime;  // when the current key was first complete
  KLV_STATS Stats;
  KLV_RX_HANDLER pfnRxHandler;
  void* pvUserParam1;
  MDATA_BUFFER* pDecodeBuffer;      // owns the accumulation buffer
  MDATA_BUFFER* pNextDecodeBuffer;  // reserved
  BYTE* DecodeBuffer;               // its memory
  int32_t nStart;                   // position of the first held byte in it
  BOOL bHeaderGuessed;              // the header was read before its length byte arrived
  UINT64 nPosition;                 // position of the first held byte among all that were held
  UINT64 nRejectedEnd;              // end of the rejected messages so far; one that begins before it is read again
  struct MdReread* pReread;         // what is known about such bytes; NULL until it is needed
} KLV_DECODE_CONTEXT;

// --- Local set standards -----------------------------------------------------------------------------

typedef BYTE KLV_LOCALSET_KEY[16];

// Checks a message by its integrity item. pcData is the whole message of nFullLength bytes, of which the first
// nDataOffset are the header; the item lies at nItemOffset.
typedef BOOL (*KLV_INTEGRITY_VERIFIER)(const BYTE* pcData, UINT nFullLength, UINT nDataOffset, KLV_INFO* IntegrityItem,
                                       UINT nItemOffset);

typedef struct tagLOCAL_KLV_STANDARD {
  const char* szName;
  const KLV_LOCALSET_KEY* pUniversalKey;  // NULL for the fall-back
  BOOL bHasIntegrityItem;
  UINT32 IntegrityItemTag;
  KLV_INTEGRITY_VERIFIER pfnValidator;
} LOCAL_KLV_STANDARD;

LOCAL_KLV_STANDARD* _GetKLVStandardInfo(const BYTE* pcKey);
BOOL _ValidateKLVMessage(KLV_DECODE_CONTEXT* pCtxt, BYTE* pcData, int nMsgSize, int nHeaderSize);
BOOL _UASDataLinkValidator(const BYTE* data, UINT fullLength, UINT dataOffset, KLV_INFO* integrityItem,
                           UINT itemOffset);

#endif  // GENERIC_KLV_SUPPORT_H
