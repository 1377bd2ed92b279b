// SPDX-License-Identifier: Apache-2.0
// Private side of the source engine: the library-wide state, and the functions of metadata_api.cpp that the tests call.
// Only metadata_api.cpp includes it. The export map hides everything here from the encoder.
#ifndef METADATA_API_H
#define METADATA_API_H

#include <sys/time.h>
#include <time.h>

#include "host.h"
#include "md_mutex.h"
#include "md_source.h"
#include "metadata_lib.h"

// --- Constants ---------------------------------------------------------------------------------------

inline constexpr char kSerialDevice[] = "/dev/ttyPS0";
inline constexpr int kSerialReadSize = 48;      // bytes of one serial read
inline constexpr int kVideoRoom = 4101;         // bytes offered to the capture for one packet
inline constexpr int kMaxKLVPerIteration = 60;  // packets of one video input taken in one pass

// --- Library-wide state ------------------------------------------------------------------------------

extern BOOL g_bMetaDataLibInitialized;  // atomic; set by METADATALIB_Init, never cleared
extern DWORD g_dwLibCaps;               // read-only after METADATALIB_Init
extern MdMutex g_MetaDataAPIMutex;      // recursive; openings, statistics, serial reception
extern HFDSET g_hMetaDataFDSet;         // metadata thread only once it runs
// Changed by the metadata thread alone, which therefore reads it without the lock.
extern FLIST_D g_MetaDataSrcList MD_GUARDED_BY(_g_SrcListLock);

extern HTHREAD _g_hMetaDataProcessingThread;   // encoder threads in Init and Shutdown
extern BOOL _g_bShutdownThread;                // atomic; ends the thread's loop
extern BOOL _g_bUsingInternalThread;           // set by Init, cleared by a shut-down that ended the thread
extern BOOL _g_bCoTSupportEnabled;             // read-only after METADATALIB_Init
extern BOOL _g_bGridInitialized;               // read-only after METADATALIB_Init
extern struct timeval _g_ThreadSelectTimeOut;  // constant
extern struct timeval* _g_pCurrentThreadSelectTimeOut MD_GUARDED_BY(kMetadataThread);
extern BOOL _g_bSelectTimeOutChanged MD_GUARDED_BY(kMetadataThread);
// Closers use it once the thread has ended, under _g_SrcListLock.
extern VIDEO_EXTRACTOR _g_aVideoExtractors[4] MD_GUARDED_BY(kMetadataThread);
// "No KLV retrieved" warning, one time for the whole library.
extern time_t _tLastLogTime MD_GUARDED_BY(kMetadataThread);

extern MDATA_SRC_HANDLE _g_pSweepList MD_GUARDED_BY(_g_SrcListLock);  // closes whose messages were not sent

// --- Lifecycle and metadata thread -------------------------------------------------------------------

DWORD _MetaDataThread(void* pvUnusedArg);
void _SelectTimeout(HFDSET hSet, void* pvParam1, void* pvParam2);
void _MetaDataControlCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _AgeDiscoveredSensors(void) MD_REQUIRES(kMetadataThread);

// --- Sources -----------------------------------------------------------------------------------------

BOOL _LocateSerialDataSrc(MDATA_SRC_HANDLE* ppSrc) MD_REQUIRES(g_MetaDataAPIMutex);
BOOL _LocateDataSrcByUDPPort(USHORT usPort, MDATA_SRC_HANDLE* ppSrc) MD_REQUIRES(g_MetaDataAPIMutex);
BOOL _CreateUDPSourceSockets(MDATA_SRC_HANDLE hSource, const MDATA_SRC_CFG* pCfg) MD_REQUIRES(g_MetaDataAPIMutex);

// --- Receive paths -----------------------------------------------------------------------------------

void _SerialDataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _KLV_UDP_DataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _KLV_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1);
void _CoT_UDP_DataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _CoT_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1);
void _SDIDataRxCallBack(HFDSET hSet, int iFD, int enEventType, void* pvParam1, void* pvParam2);
void _FeedSDIDataSource(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* pBuff, UINT64 nTimeStamp) MD_REQUIRES(kMetadataThread);
BOOL _ShouldDecimateKLV(MDATA_SRC_HANDLE hSource, MDATA_TIMESTAMP TimeStamp) MD_REQUIRES(kMetadataThread);

#endif  // METADATA_API_H
