// Private side of the source engine: the source record, the library-wide state, and the functions of
// metadata_api.cpp that other modules and the tests reach. Hidden from the encoder by the export map.
#ifndef METADATA_API_H
#define METADATA_API_H

#include <pthread.h>
#include <sys/socket.h>
#include <termios.h>
#include <time.h>

#include "host.h"
#include "md_xml_log.h"
#include "metadata_lib.h"

// --- Constants ---------------------------------------------------------------------------------------

inline constexpr char kSerialDevice[] = "/dev/ttyPS0";
inline constexpr int kRxBufferSize = 1500;      // of one datagram; a longer one is cut
inline constexpr int kSerialReadSize = 48;      // bytes of one serial read
inline constexpr int kVideoRoom = 4101;         // bytes offered to the capture for one packet
inline constexpr int kMaxKLVPerIteration = 60;  // packets of one video input taken in one pass
inline constexpr DWORD kSourceWaitMs = 5000;    // limit of the wait for an added or removed source
inline constexpr DWORD kShutdownWaitMs = 3000;  // limit of the wait for the thread's end
inline constexpr UINT64 kNoPTS = ~UINT64{0};    // no timestamp yet

// Control messages of the metadata thread; pvParam1 is the source record.
enum : DWORD { EVENTID_ADD_FD = 0, EVENTID_REMOVE_FD = 1, EVENTID_SHUTDOWN_THREAD = 2 };

// --- The source record -------------------------------------------------------------------------------

typedef struct tagMDATA_SRC_HANDLE* MDATA_SRC_HANDLE;

typedef int (*MDATA_DATA_RX_HANDLER)(void* pvDecodeCtxt, const BYTE* pcData, int nSize);
typedef void (*MDATA_RESET_STATS_HANDLER)(void* pvDecodeCtxt);
typedef void (*MDATA_SET_STATS_HANDLER)(void* pvDecodeCtxt, const MDATA_SRC_STATS* pStats);

// One relay destination. Written on the metadata thread; counters are read and written whole by the statistics
// calls; the socket is stored once by the opener while the thread may already be sending.
typedef struct tagRELAYER {
  int iRelaySocket;             // connected datagram socket, -1 when none; atomic
  ULONG nRelayedBytes;          // bytes sent whole; atomic
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

// State of a request to the metadata thread; its own completion mark. Changed with MdExchangeIf.
enum tagREQUEST_STATE : int32_t {
  REQUEST_NONE = 0,
  REQUEST_PENDING = 1,   // sent, or about to be
  REQUEST_DONE = 2,      // carried out by the thread
  REQUEST_ABANDONED = 3  // the caller gave up waiting, the message is still queued; the thread finishes what is left
};

// The record behind HMDATASRC. Owned by the library from open to close. After the hand-over to the metadata
// thread only that thread writes it, except where a field says otherwise.
struct tagMDATA_SRC_HANDLE {
  DWORD dwSignature;                       // "HMDT" in memory order
  FNODE_D DNode;                           // links into g_MetaDataSrcList
  int iFD;                                 // serial descriptor or IPv4 socket, -1 when none
  int iFDv6;                               // IPv6 socket, -1 when none
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
  int iSourceAddressFamily;  // last sender; with the address under _g_SenderLock
  BYTE acSourceAddress[16];
  BYTE RxBuffer[kRxBufferSize];
  BYTE HeaderSequence;
  // Hand-over to the metadata thread.
  int32_t nAddRequest;          // tagREQUEST_STATE; atomic
  int32_t nRemoveRequest;       // tagREQUEST_STATE; atomic
  BOOL bLinked;                 // in g_MetaDataSrcList; under _g_SrcListLock
  BOOL bCaptureHeld;            // counts in its video input's extractor; like _g_aVideoExtractors
  MDATA_SRC_HANDLE pNextSweep;  // next close that no message names; under _g_SrcListLock
};

// --- Library-wide state ------------------------------------------------------------------------------

extern BOOL g_bMetaDataLibInitialized;      // atomic; set by METADATALIB_Init, never cleared
extern DWORD g_dwLibCaps;                   // read-only after METADATALIB_Init
extern pthread_mutex_t g_MetaDataAPIMutex;  // recursive; openings, statistics, serial reception
extern FLIST_D
    g_MetaDataSrcList;  // changed by the metadata thread under _g_SrcListLock; read there without, elsewhere with
extern HFDSET g_hMetaDataFDSet;  // metadata thread only once it runs

extern HTHREAD _g_hMetaDataProcessingThread;            // encoder threads in Init and Shutdown
extern HMBOX _g_hMetaDataThreadMBox;                    // read-only while the thread runs
extern WAIT_COND _g_MetaDataThreadCond;                 // posted once per handled control event
extern BOOL _g_bShutdownThread;                         // atomic; ends the thread's loop
extern BOOL _g_bUsingInternalThread;                    // set by Init, cleared by a shut-down that ended the thread
extern BOOL _g_bCoTSupportEnabled;                      // read-only after METADATALIB_Init
extern BOOL _g_bGridInitialized;                        // read-only after METADATALIB_Init
extern struct timeval _g_ThreadSelectTimeOut;           // constant
extern struct timeval* _g_pCurrentThreadSelectTimeOut;  // metadata thread only
extern BOOL _g_bSelectTimeOutChanged;                   // metadata thread only
extern VIDEO_EXTRACTOR _g_aVideoExtractors[4];  // metadata thread; closers once it has ended, under _g_SrcListLock
extern time_t _tLastLog;      // short-KLV warning, one time for the whole library; metadata thread only
extern time_t _tLastLogTime;  // "No KLV retrieved" warning, likewise; metadata thread only

// Bookkeeping of the hand-shake.
extern int32_t _g_nShutdownRequest;     // tagREQUEST_STATE of the shut-down; atomic
extern int32_t _g_nStrayPosts;          // posts in _g_MetaDataThreadCond that nobody waits for any more; atomic
extern MDATA_SRC_HANDLE _g_pSweepList;  // closes that no message names; under _g_SrcListLock

// Private leaf locks: nothing else is taken while one is held.
extern pthread_mutex_t _g_SrcListLock;  // look-ups against list changes; counts taken off the video inputs
extern pthread_mutex_t _g_SenderLock;   // last sender addresses

// --- Lifecycle and metadata thread -------------------------------------------------------------------

DWORD _MetaDataThread(void* pvUnusedArg);
void _SelectTimeout(HFDSET hSet, void* pvParam1, void* pvParam2);
void _MetaDataControlCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _AgeDiscoveredSensors(void);

// --- Sources -----------------------------------------------------------------------------------------

BOOL _LocateSerialDataSrc(MDATA_SRC_HANDLE* ppSrc);
BOOL _LocateDataSrcByUDPPort(USHORT usPort, MDATA_SRC_HANDLE* ppSrc);
BOOL _CreateUDPSourceSockets(MDATA_SRC_HANDLE pHandle, const MDATA_SRC_CFG* pCfg);
BOOL _AllocKLVInserts(MDATA_SRC_HANDLE pHandle);

// --- UDP reception -----------------------------------------------------------------------------------

int _RecvUDPPacket(int iSocket, void* pvBuffer, size_t nBuffSize, struct sockaddr_storage* pFromAddr, BYTE* pcTOS,
                   BYTE* pcTTL);
BOOL _IsTTLDetectionNeeded(MDATA_SRC_HANDLE pHandle);
BOOL _IsTOSDetectionNeeded(MDATA_SRC_HANDLE pHandle);
BOOL _EnableTTLTOSDetectionIfNeeded(MDATA_SRC_HANDLE pHandle);
BOOL _IsUDPDataForSource(MDATA_SRC_HANDLE hSource, struct sockaddr_storage* pAddr);

// --- Relaying ----------------------------------------------------------------------------------------

BOOL _CreateRelayingSockets(const MDATA_SRC_CFG* pCfg, int* piSockets, size_t nNumOfSockets);
void _InitRelayers(MDATA_SRC_HANDLE pHandle);
BOOL _RelayMetaData(MDATA_SRC_HANDLE pMDataSource, const void* pvBuffer, size_t nSize, const BYTE* pcTOS,
                    const BYTE* pcTTL);

// --- Receive roads -----------------------------------------------------------------------------------

void _SerialDataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _KLV_UDP_DataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _KLV_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1);
BOOL _ProcessRxKLV(MDATA_SRC_HANDLE hSource, BYTE* pcData, int nSize, MDATA_BUFFER** ppNewBuff, int* pnNewSize);
void _CoT_UDP_DataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _CoT_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1);
void _SDIDataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _FeedSDIDataSource(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* pBuff, UINT64 nTimeStamp);
BOOL _ShouldDecimateKLV(MDATA_SRC_HANDLE hSource, MDATA_TIMESTAMP TimeStamp);

#endif  // METADATA_API_H
