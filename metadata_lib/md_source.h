// SPDX-License-Identifier: Apache-2.0
// The record of a metadata source, and the small helpers that everything around it needs: texts of senders,
// descriptors, capture files, pauses.
//
// This header does not depend on the engine that opens, serves and closes sources, so the modules that work on one
// source need not include the engine's header.
#ifndef MD_SOURCE_H
#define MD_SOURCE_H

#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include "host.h"
#include "md_mutex.h"
#include "metadata_lib.h"

// --- Constants ---------------------------------------------------------------------------------------

inline constexpr int kRxBufferSize = 1500;    // of one datagram; a longer one is truncated
inline constexpr UINT64 kNoPTS = ~UINT64{0};  // no timestamp yet
inline constexpr int kLogHoldOffSecs = 4;     // a repeated failure is logged if more than this has passed

// --- Locks of fields of the record -------------------------------------------------------------------
// Leaf locks: no other lock is taken and no line is logged while one of them is held.

extern MdMutex _g_SrcListLock;  // the list of the sources against look-ups; counts of the video inputs
extern MdMutex _g_SenderLock;   // the last senders: the metadata thread and restored statistics against statistics

// --- The source record -------------------------------------------------------------------------------

typedef struct tagMDATA_SRC_HANDLE* MDATA_SRC_HANDLE;

typedef int (*MDATA_DATA_RX_HANDLER)(void* pvDecodeCtxt, const BYTE* pcData, int nSize);
typedef void (*MDATA_RESET_STATS_HANDLER)(void* pvDecodeCtxt);
typedef void (*MDATA_SET_STATS_HANDLER)(void* pvDecodeCtxt, const MDATA_SRC_STATS* pStats);

// One relay destination. The metadata thread writes it; the statistics calls read and write the counters atomically,
// and the opener stores the socket once, while the thread may already be sending.
typedef struct tagRELAYER {
  int iRelaySocket;             // connected datagram socket, or -1; atomic
  ULONG nRelayedBytes;          // bytes of messages sent whole; atomic
  ULONG nRelayedMessages;       // messages sent whole; atomic
  ULONG nRelayErrors;           // failed or short sends; atomic
  int iLastRelayError;          // errno of the last failed send; atomic
  int iLastRelayErrorTime;      // its wall-clock second; atomic
  int CurrentRelayTTL;          // TTL last set by following, -1 initially; metadata thread
  int CurrentRelayTOS;          // TOS last set by following; metadata thread
  time_t tLastRelayErrLogTime;  // when a failed send was last logged; metadata thread
} RELAYER;

// Which video frames' KLV a source keeps. Metadata thread only.
typedef struct tagKLV_DECIM_CTRL {
  UINT64 ActivitePTS;        // timestamp passed now
  UINT64 DecimatedPTS;       // timestamp dropped now
  UINT32 nDecimatedCount;    // timestamps dropped since the last passed one
  UINT32 nDecimationFactor;  // copy of the configuration's
} KLV_DECIM_CTRL;

// State of a request to the metadata thread; its own completion mark. Changed with MdCompareExchange.
enum tagREQUEST_STATE : int32_t {
  REQUEST_NONE = 0,
  REQUEST_PENDING = 1,   // sent, or about to be
  REQUEST_DONE = 2,      // carried out by the thread
  REQUEST_ABANDONED = 3  // the caller gave up waiting; the thread finishes the request when it reaches the message
};

// The record behind HMDATASRC. Owned by the library from open to close. After the hand-over to the metadata
// thread only that thread writes it, unless a field's comment says otherwise.
struct tagMDATA_SRC_HANDLE {
  DWORD dwSignature;                       // "HMDT" in memory order
  FNODE_D DNode;                           // links into g_MetaDataSrcList
  int iFD;                                 // serial descriptor or IPv4 socket, or -1
  int iFDv6;                               // IPv6 socket, or -1
  FILE* CaptureFP;                         // raw capture file, or NULL
  MDATA_SRC_CFG Config;                    // read-only after the open; strings terminated
  MDATA_DATA_RX_HANDLER pfnDataRxHandler;  // serial sources; NULL drops what is read
  MDATA_RESET_STATS_HANDLER pfnResetStatsHandler;
  MDATA_SET_STATS_HANDLER pfnSetStatsHandler;
  struct termios OldSerPortCfg;  // the port's settings before the open; never restored
  void* pvDecodeCtxt;
  HCONVERTER hConverter;
  UINT64 nCoTConvertedKLVMessages;  // atomic
  UINT64 nCoTConvertedKLVBytes;     // atomic
  int nRawOutputOffset;             // column of the capture file's hex dump
  BOOL bDetectTTL;
  BOOL bDetectTOS;
  int SourceTTL;                            // atomic; -1 until seen
  UINT64 nSourceTTLUpdates;                 // atomic
  UINT32 nLastSourceTTLUpdateUpTimeInSecs;  // atomic
  int SourceTOS;                            // atomic; -1 until seen
  UINT64 nSourceTOSUpdates;                 // atomic
  UINT32 nLastSourceTOSUpdateUpTimeInSecs;  // atomic
  RELAYER Relayers[MDATA_MAX_RELAYS];
  BOOL bRelaysReady;               // set once by the opener, after the relay sockets; atomic
  MISSION_ID_KLV* pMissionID;      // element to insert, or NULL
  int nMissionIDElementSize;       // bytes with tag and length
  KLV_ELEMENT* pSecurityMDataSet;  // element to insert, or NULL
  int nSecurityMDataSetSize;       // bytes with tag and length
  time_t tLastInvalidUASLogTime;
  MDATA_KLV_STATS KLVStats;  // atomic counters
  time_t tLastRateSampleTime;
  HCOUNTERRATE hOutputRate;
  KLV_DECIM_CTRL DecimateCtrl;
  int iSourceAddressFamily MD_GUARDED_BY(_g_SenderLock);  // last sender
  BYTE acSourceAddress[16] MD_GUARDED_BY(_g_SenderLock);
  int nRecordedFamily;         // what was recorded there last; metadata thread
  BYTE acRecordedAddress[16];  // the same
  BOOL bSenderReplaced;        // the statistics calls replaced it since; atomic
  BYTE RxBuffer[kRxBufferSize];
  BYTE HeaderSequence;
  // Hand-over to the metadata thread.
  int32_t nAddRequest;                         // tagREQUEST_STATE; atomic
  int32_t nRemoveRequest;                      // tagREQUEST_STATE; atomic
  BOOL bLinked MD_GUARDED_BY(_g_SrcListLock);  // in g_MetaDataSrcList
  BOOL bCaptureHeld;                           // counts in its video input's extractor; like _g_aVideoExtractors
  MDATA_SRC_HANDLE pNextSweep;                 // next close whose message was not sent; the list's owner only
};

// Allocates a zero-filled record with its own copy of the configuration, in which every text is terminated, the
// elements to insert and the rate counter. Everything else of the source is built from that copy. Returns NULL if out
// of memory. Opener.
MDATA_SRC_HANDLE _AllocSource(const MDATA_SRC_CFG* config);
// Frees a record of _AllocSource.
void _FreeSource(MDATA_SRC_HANDLE hSource);
// Builds the elements that the configuration asks to insert. Returns FALSE if one of them cannot be built; the source
// then inserts none.
BOOL _AllocKLVInserts(MDATA_SRC_HANDLE hSource);

// --- Texts, for one log call -------------------------------------------------------------------------

// Text of a sender's address.
struct SenderText {
  char buffer[80] = {};
  const char* text;
  explicit SenderText(const struct sockaddr_storage& address)
      : text(GetSockAddressString(&address, buffer, static_cast<int>(sizeof(buffer)))) {}
};

// --- Descriptors, capture files, pauses --------------------------------------------------------------
// Any thread; no state of their own.

// Closes a descriptor unless it is -1, and sets it to -1.
inline void _CloseDescriptor(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Opens a capture file for writing, empty and with access for its owner only. Returns NULL on failure. Anybody may
// create names under /tmp: a link is not followed, a pipe or device neither blocks nor is written to, and a file that
// belongs to another user or has a second name is not changed.
FILE* _OpenCaptureFile(const char* path);

// Closes a file unless it is NULL, and sets it to NULL.
inline void _CloseFile(FILE*& file) {
  if (file == nullptr) return;
  fclose(file);
  file = nullptr;
}

// Sleeps for less than a second.
inline void _SleepMs(UINT64 milliseconds) {
  const struct timespec pause = {0, static_cast<long>(milliseconds) * 1000000};
  nanosleep(&pause, nullptr);
}

#endif  // MD_SOURCE_H
