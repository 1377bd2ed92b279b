/* SPDX-License-Identifier: Apache-2.0 */
/*
 * metadata_lib.h - the one public header of the metadata ingest library.
 *
 * CONVENTIONS
 *
 *   Language    Plain C11 interface, also usable from C++11 and later. LP64 platforms only.
 *   Results     BOOL: TRUE (1) on success, FALSE (0) on failure. There are no error codes; the host's
 *               debug log tells why a call failed.
 *   Records     Zero a record before filling it. Records that cross this interface carry their size in
 *               nSize. Strings are NUL-terminated 8-bit text inside fixed arrays.
 *   Threads     Everything received, converted, relayed and delivered happens on one internal thread, the
 *               metadata thread. Unless a function says otherwise, call it from an encoder thread, never
 *               from inside the ready callback, and never in a forked child, which has no such thread.
 *   Assertions  The host's _DoAssert and _DoTextAssert must return. A sender can raise some assertions;
 *               docs/integration.md lists them.
 *   Buffers     Messages travel in reference-counted MDATA_BUFFER records. Whoever allocates holds one
 *               reference, every holder releases its own, the last release frees the block.
 *   Byte order  KLV fields are big-endian. Records of this header are in native order.
 *   Units       Named with each field. "Up-time" is seconds since the system started.
 *   Standards   KLV: SMPTE ST 336. UAS Datalink Local Set: MISB ST 0601. Security set: MISB ST 0102.
 *               Cursor-on-Target (CoT): MITRE CoT event schema 2.0.
 *
 * RULES FOR ENCODERS: docs/integration.md has them in full; the comment of each call has the short form.
 */
#ifndef METADATA_LIB_H
#define METADATA_LIB_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define METADATALIB_API __attribute__((visibility("default")))
#else
#define METADATALIB_API
#endif

/*
 * The version of this header, which the library's file name and the programs' --version repeat. Within one major
 * version the interface only grows, and the library's soname stays.
 */
#define METADATALIB_VERSION_MAJOR 1
#define METADATALIB_VERSION_MINOR 0
#define METADATALIB_VERSION_PATCH 0
#define METADATALIB_VERSION_QUOTE(major, minor, patch) #major "." #minor "." #patch
#define METADATALIB_VERSION_EXPAND(major, minor, patch) METADATALIB_VERSION_QUOTE(major, minor, patch)
#define METADATALIB_VERSION \
  METADATALIB_VERSION_EXPAND(METADATALIB_VERSION_MAJOR, METADATALIB_VERSION_MINOR, METADATALIB_VERSION_PATCH)

/* ------------------------------------------------------------------------------------------------ */
/* Base types                                                                                       */
/* ------------------------------------------------------------------------------------------------ */

typedef int32_t BOOL; /* 0 false, non-zero true */
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef unsigned int UINT;
typedef uint16_t USHORT;
typedef unsigned long ULONG; /* 64 bits on LP64; every statistics counter */
typedef uint32_t UINT32;
typedef uint64_t UINT64;

/* ------------------------------------------------------------------------------------------------ */
/* Metadata buffers                                                                                 */
/* ------------------------------------------------------------------------------------------------ */

typedef UINT64 MDATA_TIMESTAMP; /* presentation time of the input that captured the message; 0 if none */

/*
 * MDATA_BUFFER - one message and its reference count, 48 bytes, in one heap block with its data.
 *
 *   offset size field
 *        0    4 nRefCount    holders; change it only with an atomic increment (to keep the buffer) or
 *                            through MetaData_ReleaseBuffer (to give it back)
 *        4    4 bDynamic     TRUE when the block came from the heap and is freed by the last release
 *        8    4 nAllocSize   bytes of the whole block: this record, the reserve and the data capacity
 *       16    8 pvAllocPtr   start of the block
 *       24    8 pcData       first valid byte
 *       32    4 nDataSize    valid bytes at pcData
 *       40    8 nTimeStamp   see MDATA_TIMESTAMP
 */
typedef struct tagMDATA_BUFFER {
  int32_t nRefCount;
  BOOL bDynamic;
  int32_t nAllocSize;
  void* pvAllocPtr;
  BYTE* pcData;
  int32_t nDataSize;
  MDATA_TIMESTAMP nTimeStamp;
} MDATA_BUFFER;

/*
 * Stream header, the 5 bytes in front of every message handed to the ready callback (pcData points at it):
 *
 *   offset size value
 *        0    1 0x00
 *        1    1 sequence number of the source, 0 to 255, wrapping
 *        2    1 0xDF
 *        3    2 message length, big-endian, low 16 bits. On KLV sources over UDP this is the length
 *               RECEIVED, which differs from the delivered one when the message was rewritten: trust
 *               nDataSize - 5.
 *        5    n the message, n = nDataSize - 5
 */
#define MDATA_STREAM_HEADER_SIZE 5

/*
 * The ready callback. Runs on the metadata thread with every finished message of a source.
 *
 *   pBuff         the message; valid during the call. To keep it, increment pBuff->nRefCount atomically
 *                 (__atomic_add_fetch) before returning and call MetaData_ReleaseBuffer once per increment.
 *   pvUserParam1  MDATA_SRC_CFG.pvUserParam1
 *   pvUserParam2  MDATA_SRC_CFG.pvUserParam1 AGAIN: the first user parameter is delivered twice and
 *                 pvUserParam2 never. Identify the source by the first one.
 *   returns       TRUE if the encoder takes the buffer. Only video sources use the result: a refused message
 *                 is not counted, and its sequence number is used again.
 *
 * The callback must not block, and must not open or close a source, shut the library down or ask for
 * statistics. Those calls wait for the thread that runs it: never hold a lock that the callback takes while
 * calling one of them.
 */
typedef BOOL (*MDATA_READY_CALLBACK)(MDATA_BUFFER* pBuff, void* pvUserParam1, void* pvUserParam2);

/* ------------------------------------------------------------------------------------------------ */
/* Source configuration                                                                             */
/* ------------------------------------------------------------------------------------------------ */

enum tagMDATA_INPUT_TYPE {
  MDATA_INPUT_SERIAL = 0,  /* the serial port "/dev/ttyPS0"; one such source at a time */
  MDATA_INPUT_NETWORK = 1, /* a UDP port; one source per port; longer datagrams than 1500 bytes are truncated */
  MDATA_INPUT_VIDEO = 2    /* KLV in the ancillary data of a video input; any number of sources */
};

enum tagMDATA_DATA_TYPE {
  MDATA_DATA_KLV = 0, /* SMPTE ST 336 messages */
  MDATA_DATA_COT = 1  /* Cursor-on-Target XML, converted to MISB ST 0601; not on video inputs */
};

#define MDATA_MAX_RELAYS 8
#define MDATA_MAX_DISCOVERED_SENSORS 32
#define MDATA_SENSOR_UID_SIZE 128

/* Serial port settings, handed to the host's ConfigureSerialPort; values are the host's (host_serial.h). */
typedef struct tagMDATA_SERIAL_SRC_CFG {
  int32_t nBaudRate;     /* bits per second */
  int32_t enFlowControl; /* host value */
  int32_t enParity;      /* host value */
  int32_t enStopBits;    /* host value */
  int32_t nDataBits;     /* 5 to 8 */
} MDATA_SERIAL_SRC_CFG;

typedef struct tagMDATA_INET_SRC_CFG {
  USHORT usUDPPort;          /* local UDP port, host byte order */
  int32_t iSrcAddressFamily; /* 0 both families, 2 (AF_INET) IPv4 only, 10 (AF_INET6) IPv6 only */
  BYTE acSrcAddress[16];     /* sender to accept, network order: IPv4 in the first 4 bytes, or IPv6. All zero
                                 accepts every sender; an IPv4 group is joined and accepts every sender.
                                 With family 0 leave it zero. */
} MDATA_INET_SRC_CFG;

typedef struct tagMDATA_VIDEO_SRC_CFG {
  int32_t enInputInterface; /* video input 0 to 3; NOT checked by the library */
  void* hDevice;            /* the host's handle of the video input; not used by the library */
} MDATA_VIDEO_SRC_CFG;

typedef struct tagMDATA_COT_CFG {
  UINT64 nMaxAirCraftSPITimeDeltaInMs; /* largest time difference of a pair, ms; multiplied by 1000 in 32 bits,
                                          so it wraps above 4 294 967 and turns negative above 2 147 483 */
  BOOL bSensorDiscovery;               /* remember the UIDs of the sensors seen */
  char szSpiUid[32];                   /* only accept this sensor point's UID; empty accepts all */
} MDATA_COT_CFG;

/* One UDP destination that receives a copy of the source's messages. */
typedef struct tagMDATA_RELAY_CFG {
  USHORT usUDPPort;           /* destination port, host byte order */
  int32_t iDestAddressFamily; /* 2 (AF_INET) or 10 (AF_INET6) */
  BYTE acDestAddress[16];     /* network order; IPv4 in the first 4 bytes */
  int32_t IpTOS;              /* 0 to 255 fixed, -1 follows the source's TOS or traffic class */
  int32_t IpTTL;              /* 1 to 255 fixed, 0 the system's default, -1 follows its TTL or hop limit;
                                 only IPv4 destinations follow, from senders of either family */
} MDATA_RELAY_CFG;

/*
 * MDATA_SRC_CFG - the description of one source, 576 bytes. Zero it, set nSize, fill what you need.
 *
 *   offset size field
 *        0    4 nSize                       sizeof(MDATA_SRC_CFG); tested
 *        4    4 nIndex                      your number for the source, used in log lines
 *        8    4 enInputType                 MDATA_INPUT_*
 *       12    4 enDataType                  MDATA_DATA_*
 *       16    4 bCaptureToDisk              write the raw input as hex text to a file under /tmp
 *       20    4 nMaxCaptureSizeInKBytes     the file's size limit, kilobytes
 *       24    8 pfnCallback                 see MDATA_READY_CALLBACK
 *       32    8 pvUserParam1                handed to the callback
 *       40    8 pvUserParam2                never handed to the callback
 *       48   24 in                          by enInputType
 *       72   48 format                      by enDataType
 *      120    4 nNumOfRelays                used entries of Relays, 0 to 8
 *      124  256 Relays                      destinations
 *      380  128 szMissionID                 mission identifier to insert (ST 0601 tag 3), empty for none
 *      508    4 bClassifyMission            insert a security set (ST 0601 tag 48)
 *      512    4 enClassification            ST 0102: 1 unclassified, 2 restricted, 3 confidential, 4 secret,
 *                                           5 top secret
 *      516    4 szClassifyingCountry        ISO 3166 three letters; any other length inserts no set AND no
 *                                           mission identifier
 *      520   24 szObjectCountry             ISO 3166 letters of the object country
 *      544    4 nDecimationFactor           video: keep one timestamp in n; 0 and 1 keep all
 *      548    4 bFilterUASTags              keep only the ST 0601 tags in UASTagFilter
 *      552   16 UASTagFilter                bit t % 32 of word t / 32 keeps tag t; tags from 128 are dropped.
 *                                           A tag filter is not a security boundary.
 *      568    4 bFilterUASSecurityTags      keep only the ST 0102 tags in UASSecurityTagFilter
 *      572    4 UASSecurityTagFilter        bit t keeps tag t; tags from 32 are dropped
 */
typedef struct tagMDATA_SRC_CFG {
  int32_t nSize;
  UINT32 nIndex;
  int32_t enInputType;
  int32_t enDataType;
  BOOL bCaptureToDisk;
  int32_t nMaxCaptureSizeInKBytes;
  MDATA_READY_CALLBACK pfnCallback;
  void* pvUserParam1;
  void* pvUserParam2;
  union {
    MDATA_SERIAL_SRC_CFG Serial;
    MDATA_INET_SRC_CFG Network;
    MDATA_VIDEO_SRC_CFG Video;
  } in;
  union {
    MDATA_COT_CFG CoT;
  } format;
  UINT32 nNumOfRelays;
  MDATA_RELAY_CFG Relays[MDATA_MAX_RELAYS];
  char szMissionID[128];
  BOOL bClassifyMission;
  int32_t enClassification;
  char szClassifyingCountry[4];
  char szObjectCountry[24];
  UINT32 nDecimationFactor;
  BOOL bFilterUASTags;
  UINT32 UASTagFilter[4];
  BOOL bFilterUASSecurityTags;
  UINT32 UASSecurityTagFilter[1];
} MDATA_SRC_CFG;

/* An open source. Opaque outside the library. */
typedef struct tagMDATA_SRC_HANDLE* HMDATASRC;

/* ------------------------------------------------------------------------------------------------ */
/* Statistics                                                                                       */
/* ------------------------------------------------------------------------------------------------ */

/* Sender of the last datagram accepted, 20 bytes: 0 family, 4 address. */
typedef struct tagMDATA_INET_STATS {
  int32_t iSourceAddressFamily; /* 0 none yet, 2 IPv4, 10 IPv6 */
  BYTE SourceAddress[16];       /* network order; IPv4 in the first 4 bytes */
} MDATA_INET_STATS;

/* Counters of the CoT converter, 4144 bytes: five counters at 0, count at 40, texts at 44. */
typedef struct tagMDATA_COT_STATS {
  ULONG nRxSPIMessages;            /* sensor-point events received */
  ULONG nRxAirCraftMessages;       /* aircraft events received */
  ULONG nFilteredRxSPIMessages;    /* sensor-point events dropped by the UID filter */
  ULONG nConvertedKLVMessages;     /* packets made and delivered */
  ULONG nConvertedKLVBytes;        /* their bytes, stream header excluded */
  int32_t nDiscoveredSensorsCount; /* valid rows of aszSensorUIDs, 0 to 32 */
  char aszSensorUIDs[MDATA_MAX_DISCOVERED_SENSORS][MDATA_SENSOR_UID_SIZE];
} MDATA_COT_STATS;

/* Counters of the UAS Local Set rewriting, 48 bytes, six counters in a row. */
typedef struct tagMDATA_KLV_STATS {
  ULONG nRxUASMessages;
  ULONG nInvalidUASMessages;
  ULONG nAddedMissionIDs;
  ULONG nUpdatedMissionIDs;
  ULONG nAddedSecuritySets;
  ULONG nUpdatedSecuritySets;
} MDATA_KLV_STATS;

/* Counters of one relay destination, 32 bytes: three counters at 0, errno at 24, time at 28. */
typedef struct tagMDATA_RELAY_STATS {
  ULONG nRelayedBytes;         /* bytes sent whole */
  ULONG nRelayedMessages;      /* messages sent whole */
  ULONG nRelayErrors;          /* failed or short sends */
  int32_t iLastRelayError;     /* errno of the last failed send */
  int32_t iLastRelayErrorTime; /* its wall-clock second */
} MDATA_RELAY_STATS;

/*
 * MDATA_SRC_STATS - the counters of one source, 4504 bytes.
 *
 *   offset size field
 *        0    4 nSize                              neither filled nor tested by the library
 *        8    8 nRxBytes                           bytes received; video sources: bytes taken, with stream headers
 *       16    8 nRxOkMessages                      messages received, including truncated datagrams
 *       24    8 nRxCorruptMessages                 serial sources: discards of the KLV decoder, wrong CoT CRCs
 *       32   20 in.Network                         network sources: last sender
 *       56 4144 prot                               CoT sources: prot.CoT; KLV sources: prot.KLV, filled only
 *                                                  with a mission identifier or classification configured
 *     4200    4 iSrcTTL                            received TTL or hop limit, -1 if not detected
 *     4208    8 nTTLUpdates                        how often it changed
 *     4216    4 nLastTTLUpdateUpTimeInSecs         up-time of the last change
 *     4220    4 iSrcTOS                            received TOS or traffic class, -1 if not detected
 *     4224    8 nTOSUpdates
 *     4232    4 nLastTOSUpdateUpTimeInSecs
 *     4240  256 Relays                             one per configured relay
 *     4496    4 nBitRateInKbps                     kbit/s
 *
 * Fields that do not apply to a source keep the caller's values: zero the record first.
 */
typedef struct tagMDATA_SRC_STATS {
  int32_t nSize;
  ULONG nRxBytes;
  ULONG nRxOkMessages;
  ULONG nRxCorruptMessages;
  union {
    MDATA_INET_STATS Network;
  } in;
  union {
    MDATA_COT_STATS CoT;
    MDATA_KLV_STATS KLV;
  } prot;
  int32_t iSrcTTL;
  ULONG nTTLUpdates;
  UINT32 nLastTTLUpdateUpTimeInSecs;
  int32_t iSrcTOS;
  ULONG nTOSUpdates;
  UINT32 nLastTOSUpdateUpTimeInSecs;
  MDATA_RELAY_STATS Relays[MDATA_MAX_RELAYS];
  UINT32 nBitRateInKbps;
} MDATA_SRC_STATS;

/* Counters of the KLV stream decoder, 32 bytes. Mind the field order: it differs from COT_STATS. */
typedef struct tagKLV_STATS {
  UINT64 nTotalRxBytes;        /* every byte fed */
  UINT64 nRxOkMessages;        /* messages that passed the check */
  UINT64 nRxChannel1Messages;  /* never changed */
  UINT64 nRxCorruptedMessages; /* discards */
} KLV_STATS;

/* Counters of the serial CoT link, 32 bytes. */
typedef struct tagCOT_STATS {
  UINT64 nTotalRxBytes;        /* every byte fed */
  UINT64 nRxOkMessages;        /* frames whose payload was accepted */
  UINT64 nRxCorruptedMessages; /* payloads whose CRC did not match */
  UINT64 nRxChannel1Messages;  /* events delivered from channel 1 */
} COT_STATS;

/* ------------------------------------------------------------------------------------------------ */
/* Lifecycle                                                                                        */
/* ------------------------------------------------------------------------------------------------ */

#define METADATALIB_CAPS_COT_SUPPORT 0x1u  /* CoT sources; reads AllItemsSupport and loads the geoid grid */
#define METADATALIB_CAPS_IPV4_SUPPORT 0x2u /* IPv4 receive sockets may be created */
#define METADATALIB_CAPS_IPV6_SUPPORT 0x4u /* IPv6 receive sockets may be created */

/*
 * Starts the library and its metadata thread. Call it once per process, before every other call, with at least
 * one of the two IP capabilities. The library is not made to be started again after a shutdown.
 */
METADATALIB_API BOOL METADATALIB_Init(DWORD dwCaps);

/* Stops the thread and releases everything that METADATALIB_Init created. Close every source first. */
METADATALIB_API void METADATALIB_Shutdown(void);

/* ------------------------------------------------------------------------------------------------ */
/* Sources                                                                                          */
/* ------------------------------------------------------------------------------------------------ */

/*
 * Opens a source. Returns TRUE with *phDataSrc set if the source is open. Waits up to 5 s for the metadata
 * thread. The configuration is copied. Messages may arrive before the call returns.
 */
METADATALIB_API BOOL MetaData_OpenSource(const MDATA_SRC_CFG* pCfg, HMDATASRC* phDataSrc);

/*
 * Closes a source. Call it once, before METADATALIB_Shutdown. No callback for the source runs after the return,
 * with one exception: if the wait of 5 s for the metadata thread times out, a callback that is already running
 * may still be running at the return; no other follows it. The call does not change *phDataSrc: clear your own
 * handle. Returns FALSE only if out of memory; the source then stays open.
 */
METADATALIB_API BOOL MetaData_CloseSource(HMDATASRC* phDataSrc);

/* Gives back one reference of a buffer kept in the ready callback. Any thread. */
METADATALIB_API void MetaData_ReleaseBuffer(MDATA_BUFFER* pBuff);

/* Read, zero or load the counters of a source. Any encoder thread. They always return TRUE. */
METADATALIB_API BOOL MetaData_GetSourceStats(HMDATASRC hDataSrc, MDATA_SRC_STATS* pStats);
METADATALIB_API BOOL MetaData_ResetSourceStats(HMDATASRC hDataSrc);
METADATALIB_API BOOL MetaData_SetSourceStats(HMDATASRC hDataSrc, const MDATA_SRC_STATS* pStats);

/* ------------------------------------------------------------------------------------------------ */
/* Buffers                                                                                          */
/* ------------------------------------------------------------------------------------------------ */

/*
 * Each allocates a zero-filled buffer with one reference. Returns FALSE, without logging and with *ppBuffer
 * unchanged, if out of memory or if a size is negative or overflows.
 *   DoAllocBuffer        has room for nMaxDataSize bytes, and nDataSize is 0
 *   DoAllocCopyBuffer    holds a copy of nSize bytes
 *   DoAllocCopyBufferEx  does the same, with nReservedSpace zero bytes in front of pcData
 */
METADATALIB_API BOOL DoAllocBuffer(int nMaxDataSize, MDATA_BUFFER** ppBuffer);
METADATALIB_API BOOL DoAllocCopyBuffer(BYTE* pcData, int nSize, MDATA_BUFFER** ppBuffer);
METADATALIB_API BOOL DoAllocCopyBufferEx(BYTE* pcData, int nSize, int nReservedSpace, MDATA_BUFFER** ppBuffer);

/* Drops one reference and always sets *ppBuffer to NULL. Any thread. */
METADATALIB_API void DoReleaseBuffer(MDATA_BUFFER** ppBuffer);

/* ------------------------------------------------------------------------------------------------ */
/* Bit, pattern and CRC utilities                                                                   */
/* ------------------------------------------------------------------------------------------------ */

/*
 * Copies nTotalBitsToExtract bits, most significant first, between two bit positions, ORing them into the
 * output (zero it first), and advances both offsets. Returns the sum over the steps of (8 - input bit-in-byte),
 * not the number of bits copied.
 */
METADATALIB_API int ExtractBits(const BYTE* pcInputData, int* pnInputBitOffset, BYTE* pcOutputData,
                                int* pnOutputBitOffset, int nTotalBitsToExtract);

/*
 * Searches for a pattern. Returns nPatternSize for a full match at *pnMatchOffset, 1 to nPatternSize - 1 for a
 * prefix of the pattern that ends the data, or 0 for no match. After a partial match the search continues at
 * the byte that differed.
 */
METADATALIB_API UINT ScanForPattern(const void* pvInData, int nInDataSize, const void* pvPattern, int nPatternSize,
                                    int* pnMatchOffset);

/* CRC-16/ARC: polynomial 0x8005 reflected, initial value 0, no final XOR; "123456789" gives 0xBB3D. */
METADATALIB_API WORD CalcCRC16(const BYTE* d, int n);

/*
 * Appends a hex dump, 16 bytes a line; *pnOffset is the column, kept between calls. Returns FALSE if the file
 * already has nMaxSize kilobytes or more (nothing is written) or reports an error.
 */
METADATALIB_API BOOL DumpRawData(FILE* fp, BYTE* pcData, int nSize, int* pnOffset, int nMaxSize);

/* ------------------------------------------------------------------------------------------------ */
/* KLV elements (SMPTE ST 336)                                                                      */
/* ------------------------------------------------------------------------------------------------ */

/* Size codes of tag and length fields. */
enum tagKLV_FIELD_SIZE {
  KLV_FIELD_BER_OID_TAG = -1, /* tag: ASN.1 BER object identifier */
  KLV_FIELD_NONE_OR_BER = 0,  /* tag: none; length: ASN.1 BER, short or long form */
  KLV_FIELD_1_BYTE = 1,
  KLV_FIELD_2_BYTES = 2,
  KLV_FIELD_4_BYTES = 4,
  KLV_FIELD_GLOBAL_TAG = 12,   /* tag: up to 12 bytes, ended by a zero byte */
  KLV_FIELD_UNIVERSAL_KEY = 16 /* tag: 16-byte universal key */
};

/*
 * KLV_INFO - one parsed element, 32 bytes.
 *
 *   offset size field
 *        0    4 nKey         tag value; 0 for keys, global tags, no tag, and BER tags over 4 bytes
 *        4    4 nLength      value bytes; may run past the buffer that was parsed
 *        8    8 pValue       first value byte
 *       16    4 nKeySize     tag bytes
 *       20    4 nLengthSize  length bytes; BER long form: the bytes AFTER the first one
 *       24    4 nTotalSize   tag, all length bytes and value
 */
typedef struct tagKLV_INFO {
  UINT32 nKey;
  int32_t nLength;
  const BYTE* pValue;
  UINT32 nKeySize;
  UINT32 nLengthSize;
  UINT32 nTotalSize;
} KLV_INFO;

/* Parses the element at pvBuff. Returns FALSE, leaving *pInfo unchanged, if its tag or length cannot be read. */
METADATALIB_API BOOL KLV_GetInfo(const void* pvBuff, int nBuffSize, int nTagFieldSize, int nLengthFieldSize,
                                 KLV_INFO* pInfo);
/* Stores the field sizes that the sixth byte of a universal key stands for; either pointer may be NULL. */
METADATALIB_API BOOL KLV_GetFieldInfoFromRegistryDesignator(BYTE RegistryDesignator, int* piTagFieldSize,
                                                            int* piLengthFieldSize);
/* Write the text of a size code to szBuffer, of nSize bytes including the NUL, and return szBuffer. */
METADATALIB_API char* KLV_GetTagFieldDescription(int nTagFieldSize, char* szBuffer, int nSize);
METADATALIB_API char* KLV_GetLengthFieldDescription(int nLengthFieldSize, char* szBuffer, int nSize);

/* ------------------------------------------------------------------------------------------------ */
/* Stream decoders: KLV, and the serial CoT link                                                    */
/* ------------------------------------------------------------------------------------------------ */

/* Receives each message. Add a reference to keep pBuff beyond the call. */
typedef void (*KLV_RX_HANDLER)(MDATA_BUFFER* pBuff, void* pvUserParam1);
typedef void (*COT_RX_HANDLER)(MDATA_BUFFER* pBuff, void* pvUserParam1);

/*
 * One context per stream, driven by one thread; the statistics functions may run on another. A KLV context
 * holds a decode buffer of 128 KiB.
 * ProcessRxData takes chunks of any size and always returns 0. GetStats, ResetStats and SetStats leave
 * nRxChannel1Messages alone.
 */
METADATALIB_API BOOL AllocKlvDecodeContext(void** ppvContext, KLV_RX_HANDLER pfnRxHandler, void* pvUserParam1);
METADATALIB_API BOOL FreeKlvDecodeContext(void** ppvContext);
METADATALIB_API int GenericKLV_ProcessRxData(void* pvCtxt, const BYTE* pvData, int nLength);
METADATALIB_API BOOL GenericKLV_GetStats(void* pvCtxt, KLV_STATS* pStats);
METADATALIB_API void GenericKLV_ResetStats(void* pvCtxt);
METADATALIB_API void GenericKLV_SetStats(void* pvCtxt, const MDATA_SRC_STATS* pStats);
METADATALIB_API KLV_STATS* GenericKLV_GetStatsPtr(void* pvCtxt);

METADATALIB_API BOOL AllocCotDecodeContext(void** ppvContext, COT_RX_HANDLER pfnRxHandler, void* pvUserParam1);
METADATALIB_API BOOL FreeCotDecodeContext(void** ppvContext);
METADATALIB_API int COT_ProcessRxData(void* pvCtxt, const BYTE* pvData, int nLength);
METADATALIB_API BOOL COT_GetStats(void* pvCtxt, COT_STATS* pStats);
METADATALIB_API void COT_ResetStats(void* pvCtxt);
METADATALIB_API void COT_SetStats(void* pvCtxt, const MDATA_SRC_STATS* pStats);
METADATALIB_API COT_STATS* COT_GetStatsPtr(void* pvCtxt);

/*
 * Return the 16-bit running sum of MISB ST 0601 over len bytes. The Ex form counts the two bytes at
 * CheckSumOffset as zero; with the offset 0 it counts all bytes.
 */
METADATALIB_API WORD CalcKlvChecksum16(const BYTE* buff, WORD len);
METADATALIB_API WORD CalcKlvChecksum16Ex(const BYTE* buff, WORD len, WORD CheckSumOffset);

/* ------------------------------------------------------------------------------------------------ */
/* CoT-to-KLV conversion                                                                            */
/* ------------------------------------------------------------------------------------------------ */

typedef struct tagCONVERTER_INSTANCE_DATA* HCONVERTER;

/* nMaxSPIAirCraftTimeDeltaInUS: largest time difference of a pair, microseconds. */
METADATALIB_API BOOL AllocCoT2KLVConvert(HCONVERTER* phConvInstance, int32_t nMaxSPIAirCraftTimeDeltaInUS,
                                         const char* szSpiUid, BOOL bEnableSPIDiscovery);
METADATALIB_API void FreeCoT2KLVConvert(HCONVERTER* phConvInstance);
/*
 * Converts one event. Returns the packet's length with *ppBuffer set, which has 5 bytes of reserve in front of
 * pcData; 0 if the event waits for its partner; -1 if the event is rejected or there is no memory for a new
 * pair; 3 if there is no memory for a packet of 128 value bytes or more. Test *ppBuffer, not the result.
 */
METADATALIB_API int ConvertCoT2KLV(HCONVERTER hConv, const BYTE* pvInputData, int nInDataSize, MDATA_BUFFER** ppBuffer);
METADATALIB_API void ReleaseConvertedData(MDATA_BUFFER* pBuffer);
METADATALIB_API void GetCoT2KLVConvertStats(HCONVERTER hConv, MDATA_COT_STATS* pStats);
METADATALIB_API void ResetCoT2KLVConvertStats(HCONVERTER hConv);
METADATALIB_API void SetCoT2KLVConvertStats(HCONVERTER hConv, const MDATA_COT_STATS* pStats);
/* Makes the discovered sensors one second older. A sensor that is not seen is forgotten with the eleventh call. */
METADATALIB_API void AgeCoT2KLVSensors(HCONVERTER hConv);

/* Stores an ordering key of a CoT time text. It is no epoch time: it is one month late, 70 years early and local. */
METADATALIB_API void ConvertTimeString(const char* szTime, struct timeval* pOutTime);

/* Load and free the EGM96 geoid grid "/usr/share/vendor/data/ww15mgh.grd". Loading returns 0, or -1 on failure. */
METADATALIB_API int init_ww15mgh_grd(void);
METADATALIB_API void free_ww15mgh_grd(void);

/* ------------------------------------------------------------------------------------------------ */
/* UAS Datalink Local Set (MISB ST 0601)                                                            */
/* ------------------------------------------------------------------------------------------------ */

/* The universal key 06 0E 2B 34 02 0B 01 01 0E 01 03 01 01 00 00 00. */
METADATALIB_API extern const BYTE UASDataLinkKey[16];

/* One element of a local set: tag, first byte of the BER length, then the rest of the length and the value. */
typedef struct tagKLV_ELEMENT {
  BYTE Tag;
  BYTE Length;
  BYTE Data[1]; /* more follow */
} KLV_ELEMENT;

/* The mission identifier element, without terminating NUL. */
typedef struct tagMISSION_ID_KLV {
  BYTE cTag;           /* 3 */
  BYTE cLength;        /* 0 to 127 */
  char acMissionID[1]; /* more follow */
} MISSION_ID_KLV;

/*
 * Rewrites one message as the source's configuration asks. Returns TRUE with one reference for the caller in
 * *ppNewBuff, or with NULL there if nothing is left to send. Returns FALSE if the message is invalid, if its value
 * would grow beyond 65535 bytes, or if out of memory. pnNewSize may be NULL. Metadata thread only.
 */
METADATALIB_API BOOL ProcessUASDataLinkLocalSet(HMDATASRC hSource, BYTE* pcKLVHeader, int nUAVSize, int nHeaderSize,
                                                MDATA_BUFFER** ppNewBuff, int* pnNewSize);
/* Stores the size of a whole element; reads up to 6 bytes. Returns FALSE if the length form is not supported. */
METADATALIB_API BOOL GetKLVElementSize(const KLV_ELEMENT* pKLV, size_t* pnSize);
/* Checks a message and its checksum. A message without checksum passes; an unreadable element raises an assertion. */
METADATALIB_API BOOL ValidateUASLocalDataSet(BYTE* pcKLVHeader, int nUAVSize, int nHeaderSize);
/*
 * Allocates an element to insert; release it with free(). Returns NULL if out of memory or, for the security set, if
 * the classifying country is not exactly three letters.
 */
METADATALIB_API MISSION_ID_KLV* AllocMissionID(const char* szMissionID);
METADATALIB_API KLV_ELEMENT* AllocSecurityMetadata(int enClassification, const char* szClassifyingCountry,
                                                   const char* szObjectCountry);
/*
 * Return the names of ST 0102.12 values: never NULL, "Unknown" outside the table. The coding methods are those of
 * element 2 (classifying country). Element 12 (object country) has a numbering of its own: there 3 is ISO 3166
 * numeric, 4 FIPS 10-4 two letters, 5 FIPS 10-4 four letters, 8 to 12 and 16 are not defined and 64 is GENC AdminSub;
 * only 1, 2, 6, 7 and 13 to 15 have the same name. AllocSecurityMetadata writes 2, three letters of ISO 3166, into
 * both.
 */
METADATALIB_API const char* GetSecurityClassificationString(BYTE cTag);
METADATALIB_API const char* GetCountryCodingMethodString(BYTE cTag);

#ifdef __cplusplus
}
#endif

/* ------------------------------------------------------------------------------------------------ */
/* Layout, the same on both sides of the interface                                                  */
/* ------------------------------------------------------------------------------------------------ */

#ifdef __cplusplus
#define MDATA_ASSERT(condition, text) static_assert(condition, text)
#else
#define MDATA_ASSERT(condition, text) _Static_assert(condition, text)
#endif
#define MDATA_LAYOUT(condition) MDATA_ASSERT(condition, #condition)

MDATA_ASSERT(sizeof(long) == 8 && sizeof(void*) == 8 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
             "metadata_lib needs an LP64 little-endian machine, such as 64-bit Arm or x86-64 Linux");

MDATA_LAYOUT(sizeof(ULONG) == 8);
MDATA_LAYOUT(sizeof(MDATA_BUFFER) == 48);
MDATA_LAYOUT(offsetof(MDATA_BUFFER, nRefCount) == 0);
MDATA_LAYOUT(offsetof(MDATA_BUFFER, bDynamic) == 4);
MDATA_LAYOUT(offsetof(MDATA_BUFFER, nAllocSize) == 8);
MDATA_LAYOUT(offsetof(MDATA_BUFFER, pvAllocPtr) == 16);
MDATA_LAYOUT(offsetof(MDATA_BUFFER, pcData) == 24);
MDATA_LAYOUT(offsetof(MDATA_BUFFER, nDataSize) == 32);
MDATA_LAYOUT(offsetof(MDATA_BUFFER, nTimeStamp) == 40);
MDATA_LAYOUT(sizeof(MDATA_SRC_CFG) == 576);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, pfnCallback) == 24);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, in) == 48);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, format) == 72);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, nNumOfRelays) == 120);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, Relays) == 124);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, szMissionID) == 380);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, bClassifyMission) == 508);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, enClassification) == 512);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, szClassifyingCountry) == 516);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, szObjectCountry) == 520);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, nDecimationFactor) == 544);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, bFilterUASTags) == 548);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, UASTagFilter) == 552);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, bFilterUASSecurityTags) == 568);
MDATA_LAYOUT(offsetof(MDATA_SRC_CFG, UASSecurityTagFilter) == 572);
MDATA_LAYOUT(sizeof(MDATA_INET_STATS) == 20);
MDATA_LAYOUT(sizeof(MDATA_KLV_STATS) == 48);
MDATA_LAYOUT(sizeof(MDATA_RELAY_STATS) == 32);
MDATA_LAYOUT(sizeof(MDATA_COT_STATS) == 4144);
MDATA_LAYOUT(offsetof(MDATA_COT_STATS, nDiscoveredSensorsCount) == 40);
MDATA_LAYOUT(offsetof(MDATA_COT_STATS, aszSensorUIDs) == 44);
MDATA_LAYOUT(sizeof(MDATA_SRC_STATS) == 4504);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, nRxBytes) == 8);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, in) == 32);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, prot) == 56);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, iSrcTTL) == 4200);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, nTTLUpdates) == 4208);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, nLastTTLUpdateUpTimeInSecs) == 4216);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, iSrcTOS) == 4220);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, nTOSUpdates) == 4224);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, nLastTOSUpdateUpTimeInSecs) == 4232);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, Relays) == 4240);
MDATA_LAYOUT(offsetof(MDATA_SRC_STATS, nBitRateInKbps) == 4496);
MDATA_LAYOUT(sizeof(KLV_STATS) == 32);
MDATA_LAYOUT(offsetof(KLV_STATS, nRxChannel1Messages) == 16);
MDATA_LAYOUT(sizeof(COT_STATS) == 32);
MDATA_LAYOUT(offsetof(COT_STATS, nRxChannel1Messages) == 24);
MDATA_LAYOUT(sizeof(KLV_INFO) == 32);
MDATA_LAYOUT(sizeof(MDATA_RELAY_CFG) == 32);

#endif /* METADATA_LIB_H */
