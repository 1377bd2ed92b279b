// The source engine: everything between the encoder's calls, the descriptors of the open sources and the ready
// callback.
//
// Contents
//    1. Library-wide state
//    2. Small helpers
//    3. Lifecycle: METADATALIB_Init, METADATALIB_Shutdown
//    4. The metadata thread: loop, control events, video extractors
//    5. Sources: look-ups, receive sockets
//    6. Sources: opening
//    7. Sources: closing
//    8. Statistics
//    9. Shared steps of the receive paths: raw capture, counting, discarding
//   10. KLV paths: serial and UDP
//   11. CoT paths: UDP and serial
//   12. Video path and decimation
//
// Lock order: g_MetaDataAPIMutex, then at most one of the leaf locks _g_SrcListLock, _g_XMLOutLock, _g_SenderLock.
// The metadata thread never waits for g_MetaDataAPIMutex longer than kSerialLockMs milliseconds, because an
// opener holds it while it waits for that thread.
#include "metadata_api.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include "md_atomic.h"
#include "md_delivery.h"
#include "md_guard.h"
#include "md_relay.h"
#include "md_request.h"
#include "md_source.h"
#include "md_udp.h"
#include "misb0601_tools.h"

#define MD_MODULE "metadata_api"
#include "md_log.h"

// =====================================================================================================
// 1. Library-wide state. The declarations in metadata_api.h state which threads and locks may access it.
// =====================================================================================================

HDBG g_hMetaDataLibDbg = nullptr;
HDBG g_hCoTConvDbg = nullptr;

BOOL g_bMetaDataLibInitialized = FALSE;
DWORD g_dwLibCaps = 0;
pthread_mutex_t g_MetaDataAPIMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
FLIST_D g_MetaDataSrcList = {{'F', 'L', 'S', 'T'}, nullptr, nullptr};
HFDSET g_hMetaDataFDSet = nullptr;

HTHREAD _g_hMetaDataProcessingThread = nullptr;
BOOL _g_bShutdownThread = FALSE;
BOOL _g_bUsingInternalThread = FALSE;
BOOL _g_bCoTSupportEnabled = FALSE;
BOOL _g_bGridInitialized = FALSE;
struct timeval _g_ThreadSelectTimeOut = {1, 0};
struct timeval* _g_pCurrentThreadSelectTimeOut = nullptr;
BOOL _g_bSelectTimeOutChanged = TRUE;
VIDEO_EXTRACTOR _g_aVideoExtractors[4] = {{-1, 0}, {-1, 0}, {-1, 0}, {-1, 0}};
time_t _tLastLogTime = 0;

MDATA_SRC_HANDLE _g_pSweepList = nullptr;

pthread_mutex_t _g_SrcListLock = PTHREAD_MUTEX_INITIALIZER;

static constexpr long kSerialLockMs = 20;          // limit of the serial path's wait for g_MetaDataAPIMutex
static constexpr int kMaxConvertedLength = 16000;  // a converted serial packet stays below

// =====================================================================================================
// 2. Small helpers. Any thread; no state of their own.
// =====================================================================================================

namespace {

// Holds g_MetaDataAPIMutex for a scope of the serial path, unless it does not become free within kSerialLockMs: an
// opener holds it while it waits for this very thread.
class TryApiLock {
 public:
  TryApiLock();
  ~TryApiLock() {
    if (m_bHeld) pthread_mutex_unlock(&g_MetaDataAPIMutex);
  }
  TryApiLock(const TryApiLock&) = delete;
  TryApiLock& operator=(const TryApiLock&) = delete;
  bool IsHeld() const { return m_bHeld; }

 private:
  bool m_bHeld = false;
};

}  // namespace

TryApiLock::TryApiLock() {
  struct timespec Until = {};
  clock_gettime(CLOCK_MONOTONIC, &Until);
  Until.tv_nsec += kSerialLockMs * 1000000;
  if (Until.tv_nsec >= 1000000000) {
    ++Until.tv_sec;
    Until.tv_nsec -= 1000000000;
  }
  m_bHeld = pthread_mutex_clocklock(&g_MetaDataAPIMutex, CLOCK_MONOTONIC, &Until) == 0;
}

// =====================================================================================================
// 3. Lifecycle. Called by the encoder, once each, before and after everything else.
// =====================================================================================================

static void _ReleaseSource(MDATA_SRC_HANDLE pHandle);
static void _SweepUnsentCloses(HFDSET hSet, bool bThreadEnded);
static bool _HandleControlMessage(HFDSET hSet, HMBOX hMBox);

// Resets the state that an earlier shut-down left behind.
static void _ResetThreadState() {
  MdStoreRelease(_g_bShutdownThread, FALSE);
  _ResetRequests();
  _g_pCurrentThreadSelectTimeOut = nullptr;
  _g_bSelectTimeOutChanged = TRUE;
  _g_bGridInitialized = FALSE;
}

// Creates the mailbox, the read set with the mailbox in it, and the thread, which does not run yet.
static BOOL _CreateMetaDataThread() {
  MBOX_CONFIG MBoxConfig = {};
  MBoxConfig.nSize = static_cast<int>(sizeof(MBoxConfig));
  MBoxConfig.szName = "MetaDataEngine";
  if (!MBOX_CreateMailBox(&MBoxConfig, &_g_hMetaDataThreadMBox)) {
    MD_LOG(3, "Unable to create mailbox for communication with meta-data thread.\n");
    return FALSE;
  }
  const int iNotificationFD = MBOX_GetNotificationFD(_g_hMetaDataThreadMBox);
  if (!__FDMGR_CreateSet("Meta-Data", &g_hMetaDataFDSet, __func__, MD_MODULE, __LINE__)) {
    MD_LOG(3,
           "Unable to file descriptor set for met-data thread.\n");  // KEPT: the wording; operators search logs for it
    MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);
    return FALSE;
  }
  if (!__FDMGR_AddReadFD(g_hMetaDataFDSet, iNotificationFD, _MetaDataControlCallBack, _g_hMetaDataThreadMBox, nullptr,
                         __func__, MD_MODULE, __LINE__)) {
    MD_LOG(3, "Unable to add mailbox to file descriptor set of meta-data thread.\n");
    MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);  // the set is left as after a failed thread creation
    return FALSE;
  }
  if (!CreateThread(&_g_hMetaDataProcessingThread, "MetaData", 0, 10, _MetaDataThread, g_hMetaDataFDSet)) {
    MD_LOG(3, "Unable to create meta-data thread.\n");
    MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);  // KEPT: the set is left as it is
    return FALSE;
  }
  MD_LOG(6, "Meta-data thread created successfully.\n");
  return TRUE;
}

BOOL METADATALIB_Init(DWORD dwCaps) {
  // KEPT: the flag stays set after a shut-down, so a second start raises this assertion and continues.
  const BOOL bInitialized = MdLoadAcquire(g_bMetaDataLibInitialized);
  MD_ASSERT_TEXT(bInitialized == FALSE, "g_bMetaDataLibInitialized == FALSE");
  if (bInitialized && _g_bUsingInternalThread)
    return FALSE;  // the thread runs and uses everything that a start replaces
  _DoDbgInit("METADATALIB", &g_hMetaDataLibDbg);
  _DoDbgInit("COTCONVERTER", &g_hCoTConvDbg);
  MD_LOG(6, "Called, dwCaps=0x%X.\n", dwCaps);
  // KEPT: without any IP capability the library starts nevertheless; only UDP sources cannot be opened.
  MD_ASSERT((dwCaps & METADATALIB_CAPS_IPV4_SUPPORT) || (dwCaps & METADATALIB_CAPS_IPV6_SUPPORT));

  g_dwLibCaps = dwCaps;
  _g_bCoTSupportEnabled = (dwCaps & METADATALIB_CAPS_COT_SUPPORT) != 0 ? TRUE : FALSE;
  _ReadExtendedTagsOption();
  _ResetThreadState();
  MD_ASSERT(WaitCond_Init(&_g_MetaDataThreadCond));
  if (!_CreateMetaDataThread()) return FALSE;
  _g_bUsingInternalThread = TRUE;
  MdStoreRelease(g_bMetaDataLibInitialized, TRUE);

  if (_g_bCoTSupportEnabled) {
    if (init_ww15mgh_grd() < 0) {
      MD_LOG(2, "Unable to initialize grid.\n");
      MD_ASSERT_UNREACHED();
    } else {
      _g_bGridInitialized = TRUE;
    }
  }
  StartThread(_g_hMetaDataProcessingThread);
  return MdLoadAcquire(g_bMetaDataLibInitialized);
}

// Asks the thread to end and joins it. Returns false if no message could be allocated or sent: the thread still runs.
static bool _StopMetaDataThread() {
  HMBOXMSG hMsg = _AllocControlMessage(EVENTID_SHUTDOWN_THREAD, nullptr);
  if (hMsg == nullptr) return false;
  bool bSent = false;
  if (!_CallThreadToEnd(hMsg, &bSent)) {
    const int iError = errno;
    const ErrnoText Error(iError);
    MD_LOG(3, "Wait FAILED, errno (%d): \"%s\".\n", iError, Error.szText);
    MD_TEXT_ASSERT("Wait FAILED, errno (%d): \"%s\".\n", iError, Error.szText);
  }
  if (!bSent) {
    MD_LOG(3, "Unable to stop meta-data thread, it is left running.\n");
    return false;
  }
  WaitForThread(_g_hMetaDataProcessingThread);  // KEPT: joined after a failed wait too
  _g_hMetaDataProcessingThread = nullptr;
  return true;
}

// Releases everything that the thread used, once it has ended.
static void _ReleaseThreadServices() {
  while (_HandleControlMessage(g_hMetaDataFDSet, _g_hMetaDataThreadMBox)) {
  }
  _SweepUnsentCloses(g_hMetaDataFDSet, true);
  MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);
  FDMGR_CloseSet(&g_hMetaDataFDSet);
  WaitCond_Destroy(&_g_MetaDataThreadCond);
  _g_bUsingInternalThread = FALSE;  // nothing is left to send messages to
}

void METADATALIB_Shutdown(void) {
  const BOOL bInitialized = MdLoadAcquire(g_bMetaDataLibInitialized);
  MD_ASSERT_TEXT(bInitialized, "g_bMetaDataLibInitialized");
  MD_LOG(5, "Called.\n");
  bool bThreadEnded = true;
  if (bInitialized && _g_bUsingInternalThread) {
    bThreadEnded = _StopMetaDataThread();
    MD_LOG(7, "Closing Mailbox.\n");
    if (bThreadEnded) _ReleaseThreadServices();
  }
  if (bInitialized && bThreadEnded) free_ww15mgh_grd();  // KEPT: whether or not it was loaded
  MD_LOG(6, "Done.\n");
  // A thread that could not be asked to end still waits, converts and logs: everything it uses stays until another
  // shut-down reaches it.
  if (!bThreadEnded) return;
  _DoDbgUninitEx(&g_hCoTConvDbg);
  _DoDbgUninitEx(&g_hMetaDataLibDbg);
  // KEPT: g_bMetaDataLibInitialized stays TRUE; the library is made to be started once per process.
}

// =====================================================================================================
// 4. The metadata thread: its loop, the control events, the video extractors. Runs on that thread alone, which owns the
//    source list, the read set, the extractor table and the time-out variables. It reads the list without a lock and
//    changes it under _g_SrcListLock, for the look-ups of the encoder's threads.
// =====================================================================================================

// Reports this line to the host's thread watchdog, if enabled.
static void _SaveStateIfDebugging(int nLine) {
  if (MdLoad(g_bThreadStateDebuggingEnabled)) __SaveThreadState("_MetaDataThread", MD_MODULE, nLine);
}

DWORD _MetaDataThread(void* pvUnusedArg) {
  HFDSET hSet = static_cast<HFDSET>(pvUnusedArg);
  time_t tLastAgeing = time(nullptr);
  while (!MdLoadAcquire(_g_bShutdownThread)) {
    __IncrementThreadIterations();
    MD_LOG(8, "Calling select.\n");
    _SaveStateIfDebugging(__LINE__);
    if (_g_bSelectTimeOutChanged) {
      FDMGR_SetSelectTimeout(hSet, _g_pCurrentThreadSelectTimeOut, _SelectTimeout, nullptr, nullptr);
      _g_bSelectTimeOutChanged = FALSE;
    }
    const int nResult = FDMGR_Select(hSet);
    _SaveStateIfDebugging(__LINE__);
    _SweepUnsentCloses(hSet, false);
    const time_t tNow = time(nullptr);
    if (tNow != tLastAgeing) {
      _AgeDiscoveredSensors();
      tLastAgeing = tNow;
    }
    MD_LOG(8, "select returned %d.\n", nResult);
  }
  return 0;
}

void _SelectTimeout(HFDSET, void*, void*) {
  MD_LOG(7, "Called.\n");  // the time-out only wakes the loop, for the ageing while sources are quiet
}

static MDATA_SRC_HANDLE _SourceOf(const FNODE_D* pNode) {
  return static_cast<MDATA_SRC_HANDLE>(pNode->pvObject);
}

void _AgeDiscoveredSensors(void) {
  for (const FNODE_D* pNode = g_MetaDataSrcList.pHead; pNode != nullptr; pNode = pNode->pNext) {
    const MDATA_SRC_HANDLE hSource = _SourceOf(pNode);
    if (hSource->Config.enDataType == MDATA_DATA_COT && hSource->hConverter != nullptr)
      AgeCoT2KLVSensors(hSource->hConverter);
  }
}

static void _AddSerialSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  if (__FDMGR_AddReadFD(hSet, hSource->iFD, _SerialDataRxCallBack, hSource, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "File descriptor %d added to read set.\n", hSource->iFD);
}

static void _AddNetworkSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  FDMGR_READ_CALLBACK pfnCallback = nullptr;
  switch (hSource->Config.enDataType) {
    case MDATA_DATA_KLV:
      pfnCallback = _KLV_UDP_DataRxCallBack;
      break;
    case MDATA_DATA_COT:
      pfnCallback = _CoT_UDP_DataRxCallBack;
      break;
    default:
      MD_ASSERT_UNREACHED();
      return;
  }
  const int iFD = hSource->iFD;
  if (iFD >= 0 && __FDMGR_AddReadFD(hSet, iFD, pfnCallback, hSource, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "IPv4 socket descriptor %d added to read set.\n", iFD);
  const int iFDv6 = hSource->iFDv6;
  if (iFDv6 >= 0 && __FDMGR_AddReadFD(hSet, iFDv6, pfnCallback, hSource, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "IPv6 socket descriptor %d added to read set.\n", iFDv6);
}

// KEPT: enInputInterface is not tested against the bounds of the extractor table; the encoder passes 0 to 3.
static void _AddVideoSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  const int iInterface = hSource->Config.in.Video.enInputInterface;
  VIDEO_EXTRACTOR* pExtractor = &_g_aVideoExtractors[iInterface];
  MD_LOG(6, "Starting KLV Capture for interface %d.\n", iInterface);
  if (pExtractor->iFD != -1) {
    MD_LOG(6, "We already have extractor FD (%d) at index %d.\n", pExtractor->iFD, iInterface);
    MD_ASSERT(_g_aVideoExtractors[hSource->Config.in.Video.enInputInterface].nRefCount > 0);
    ++pExtractor->nRefCount;
    hSource->bCaptureHeld = TRUE;
    return;
  }
  MD_ASSERT(_g_aVideoExtractors[hSource->Config.in.Video.enInputInterface].nRefCount == 0);
  const VIDEO_EXTRACTOR Stopped = *pExtractor;
  if (!KLVCAPTURE_Start(iInterface, pExtractor)) {
    MD_LOG(3, "Failed to start KLV capture.\n");
    *pExtractor = Stopped;  // KEPT: the source is linked nevertheless and stays open without data
    return;
  }
  pExtractor->nRefCount = 1;
  hSource->bCaptureHeld = TRUE;
  MD_LOG(5, "KLV capture started.\n");
  void* pvInterface = reinterpret_cast<void*>(static_cast<intptr_t>(iInterface));
  if (__FDMGR_AddReadFD(hSet, pExtractor->iFD, _SDIDataRxCallBack, pvInterface, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "File descriptor %d added to read set. We will call _SDIDataRxCallBack.\n", pExtractor->iFD);
}

static void _PostThreadCond() {
  MD_ASSERT(WaitCond_Post(&_g_MetaDataThreadCond));
}

static void _HandleAddFD(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  MD_LOG(6, "Received EVENTID_ADD_FD.\n");
  switch (hSource->Config.enInputType) {
    case MDATA_INPUT_SERIAL:
      _AddSerialSource(hSet, hSource);
      break;
    case MDATA_INPUT_NETWORK:
      _AddNetworkSource(hSet, hSource);
      break;
    case MDATA_INPUT_VIDEO:
      _AddVideoSource(hSet, hSource);
      break;
    default:
      MD_ASSERT_UNREACHED();
      break;
  }
  {
    MdLock Lock(_g_SrcListLock);
    FastLinkD(&g_MetaDataSrcList, &hSource->DNode);
    hSource->bLinked = TRUE;
  }
  _CompleteRequest(hSource->nAddRequest);  // a source whose opener gave up is open nevertheless
  _PostThreadCond();
  if (_g_pCurrentThreadSelectTimeOut == nullptr) {
    MD_LOG(6, "Enabling timeouts.\n");
    _g_pCurrentThreadSelectTimeOut = &_g_ThreadSelectTimeOut;
    _g_bSelectTimeOutChanged = TRUE;
  }
}

// Removes the source from the count of its video input; the last removal stops the capture. Called by the metadata
// thread; once that has ended, by any closer, which has no read set: hence the lock, and NULL for hSet.
static void _RemoveVideoSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  const int iInterface = hSource->Config.in.Video.enInputInterface;
  VIDEO_EXTRACTOR* pExtractor = &_g_aVideoExtractors[iInterface];
  bool bCounted = false;
  VIDEO_EXTRACTOR Left = {};
  {
    MdLock Lock(_g_SrcListLock);
    bCounted = hSource->bCaptureHeld && pExtractor->nRefCount > 0;
    if (hSource->bCaptureHeld) --pExtractor->nRefCount;
    Left = *pExtractor;
    if (hSource->bCaptureHeld && Left.nRefCount <= 0) pExtractor->iFD = -1;
  }
  // A source whose capture never started is not counted: it neither lowers the count nor stops another's capture.
  MD_ASSERT_TEXT(bCounted, "_g_aVideoExtractors[hSource->Config.in.Video.enInputInterface].nRefCount > 0");
  if (!hSource->bCaptureHeld) return;
  hSource->bCaptureHeld = FALSE;
  if (Left.nRefCount > 0) {
    MD_LOG(6, "NOT disabling KLV extraction on BNC-%d since ref count is still at %d.\n", iInterface, Left.nRefCount);
    return;
  }
  if (hSet != nullptr && __FDMGR_RemoveReadFD(hSet, Left.iFD, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "File descriptor removed from read set.\n");
  MD_LOG(5, "Disabling KLV extraction on BNC-%d since ref count is at zero.\n", iInterface);
  KLVCAPTURE_Stop(iInterface);
}

static void _RemoveDescriptors(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  const bool bNetwork = hSource->Config.enInputType == MDATA_INPUT_NETWORK;
  const int iFD = hSource->iFD;
  if (iFD >= 0 && __FDMGR_RemoveReadFD(hSet, iFD, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "%s %d removed from read set.\n", bNetwork ? "IPv4 socket" : "File descriptor", iFD);
  const int iFDv6 = hSource->iFDv6;
  if (bNetwork && iFDv6 >= 0 && __FDMGR_RemoveReadFD(hSet, iFDv6, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "IPv6 socket %d removed from read set.\n", iFDv6);
}

static void _UnlinkSource(MDATA_SRC_HANDLE hSource) {
  MdLock Lock(_g_SrcListLock);
  if (!hSource->bLinked) return;
  FastUnlinkD(&g_MetaDataSrcList, &hSource->DNode);
  hSource->bLinked = FALSE;
}

// Removes the source from the read set and the list. Harmless if the source was never added.
static void _DetachSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  if (hSource->Config.enInputType == MDATA_INPUT_VIDEO)
    _RemoveVideoSource(hSet, hSource);
  else
    _RemoveDescriptors(hSet, hSource);
  _UnlinkSource(hSource);
}

static void _DisableTimeoutsIfIdle() {
  if (g_MetaDataSrcList.pHead != nullptr || _g_pCurrentThreadSelectTimeOut == nullptr) return;
  MD_LOG(6, "Disabling timeouts since there are no metadata FDs left.\n");
  _g_pCurrentThreadSelectTimeOut = nullptr;
  _g_bSelectTimeOutChanged = TRUE;
}

static void _HandleRemoveFD(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  MD_LOG(6, "Received EVENTID_REMOVE_FD.\n");
  _DetachSource(hSet, hSource);
  // From here on the record belongs to the closer. If that has given up, the close is finished here.
  const bool bAbandoned = _CompleteRequest(hSource->nRemoveRequest);
  _PostThreadCond();
  _DisableTimeoutsIfIdle();
  if (bAbandoned) _ReleaseSource(hSource);
}

static void _HandleShutdown() {
  MD_LOG(6, "Received EVENTID_SHUTDOWN_THREAD.\n");
  MdStoreRelease(_g_bShutdownThread, TRUE);
  _CompleteRequest(_g_nShutdownRequest);
  _PostThreadCond();
}

// Receives and handles one message. Returns false if none is waiting.
static bool _HandleControlMessage(HFDSET hSet, HMBOX hMBox) {
  HMBOXMSG hMsg = nullptr;
  if (!MBOX_RecvMessage(hMBox, &hMsg)) return false;
  const MBOX_MSGHEADER* pHeader = MBOX_GetMessageHeader(hMsg);
  switch (pHeader->dwEventID) {
    case EVENTID_ADD_FD:
      _HandleAddFD(hSet, static_cast<MDATA_SRC_HANDLE>(pHeader->pvParam1));
      break;
    case EVENTID_REMOVE_FD:
      _HandleRemoveFD(hSet, static_cast<MDATA_SRC_HANDLE>(pHeader->pvParam1));
      break;
    case EVENTID_SHUTDOWN_THREAD:
      _HandleShutdown();
      break;
    default:
      MD_ASSERT_UNREACHED();
      break;
  }
  MBOX_FreeMessage(hMsg);
  return true;
}

void _MetaDataControlCallBack(HFDSET hSet, int, int, void* pvParam1, void*) {
  MD_LOG(6, "Called.\n");
  _HandleControlMessage(hSet, static_cast<HMBOX>(pvParam1));
}

// Leaves a close whose message was not sent to the metadata thread. Closing thread.
static void _LeaveForSweep(MDATA_SRC_HANDLE hSource) {
  MdLock Lock(_g_SrcListLock);
  hSource->pNextSweep = _g_pSweepList;
  MdStoreRelease(_g_pSweepList, hSource);
}

// Finishes the closes whose messages were not sent. A record whose add message is still queued stays until that is
// handled, unless the thread has ended. Metadata thread, and the thread that joined it.
static void _SweepUnsentCloses(HFDSET hSet, bool bThreadEnded) {
  if (MdLoadAcquire(_g_pSweepList) == nullptr) return;
  MDATA_SRC_HANDLE hSource = nullptr;
  {
    MdLock Lock(_g_SrcListLock);
    hSource = _g_pSweepList;
    _g_pSweepList = nullptr;
  }
  while (hSource != nullptr) {
    const MDATA_SRC_HANDLE hNext = hSource->pNextSweep;
    if (!bThreadEnded && MdLoadAcquire(hSource->nAddRequest) == REQUEST_ABANDONED) {
      _LeaveForSweep(hSource);
    } else {
      _DetachSource(hSet, hSource);
      _ReleaseSource(hSource);
      _DisableTimeoutsIfIdle();
    }
    hSource = hNext;
  }
}

// =====================================================================================================
// 5. Sources: look-ups, receive sockets. Run on the opener's thread under g_MetaDataAPIMutex; the look-ups take
//    _g_SrcListLock, because the metadata thread changes the list when another thread closes a source.
// =====================================================================================================

namespace {

// The criteria of a look-up.
struct SourceQuery {
  int enInputType;
  USHORT usPort;  // network sources only
};

}  // namespace

static bool _Matches(const MDATA_SRC_CFG& Config, const SourceQuery& Query) {
  if (Config.enInputType != Query.enInputType) return false;
  return Query.enInputType != MDATA_INPUT_NETWORK || Config.in.Network.usUDPPort == Query.usPort;
}

static MDATA_SRC_HANDLE _FindSource(const SourceQuery& Query) {
  MdLock Lock(_g_SrcListLock);
  for (const FNODE_D* pNode = g_MetaDataSrcList.pHead; pNode != nullptr; pNode = pNode->pNext) {
    if (_Matches(_SourceOf(pNode)->Config, Query)) return _SourceOf(pNode);
  }
  return nullptr;
}

static BOOL _Locate(const SourceQuery& Query, MDATA_SRC_HANDLE* ppSrc) {
  const MDATA_SRC_HANDLE hFound = _FindSource(Query);
  if (ppSrc != nullptr) *ppSrc = hFound;
  if (hFound != nullptr)
    MD_LOG(7, "Source located, returning handle at %p.\n", static_cast<void*>(hFound));
  else
    MD_LOG(7, "Source NOT located.\n");
  return hFound != nullptr ? TRUE : FALSE;
}

BOOL _LocateSerialDataSrc(MDATA_SRC_HANDLE* ppSrc) {
  MD_LOG(7, "Attempting to locate serial data source.\n");
  return _Locate({MDATA_INPUT_SERIAL, 0}, ppSrc);
}

// KEPT: data type and address family are not compared, so one source occupies a port for both families.
BOOL _LocateDataSrcByUDPPort(USHORT usPort, MDATA_SRC_HANDLE* ppSrc) {
  MD_LOG(7, "Attempting to locate data source by UDP port (%d).\n", usPort);
  return _Locate({MDATA_INPUT_NETWORK, usPort}, ppSrc);
}

// Chooses those of the configured families that the library was started with.
static void _ChooseFamilies(const MDATA_SRC_CFG* pCfg, bool* pbIPv4, bool* pbIPv6) {
  const bool bIPv4Cap = (g_dwLibCaps & METADATALIB_CAPS_IPV4_SUPPORT) != 0;
  const bool bIPv6Cap = (g_dwLibCaps & METADATALIB_CAPS_IPV6_SUPPORT) != 0;
  const int iFamily = pCfg->in.Network.iSrcAddressFamily;
  *pbIPv4 = bIPv4Cap && (iFamily == AF_INET || iFamily == 0);
  *pbIPv6 = bIPv6Cap && (iFamily == AF_INET6 || iFamily == 0);
  if (iFamily == AF_INET && !bIPv4Cap)
    MD_LOG(4, "AF_INET family specified but library initialized without IPv4 support.\n");
  if (iFamily == AF_INET6 && !bIPv6Cap)
    MD_LOG(4, "AF_INET6 family specified but library initialized without IPv6 support.\n");
  if (iFamily != AF_INET && iFamily != AF_INET6 && iFamily != 0)
    MD_TEXT_ASSERT("Invalid iSrcAddressFamily (%d) detected.\n", iFamily);
}

static void _CreateIPv6Socket(MDATA_SRC_HANDLE pHandle, const MDATA_SRC_CFG* pCfg) {
  DWORD dwFlags = _IsTTLDetectionNeeded(pHandle) ? HOST_UDPV6_RX_HOPLIMIT : 0;
  if (_IsTOSDetectionNeeded(pHandle)) dwFlags |= HOST_UDPV6_RX_TRAFFIC_CLASS;
  if (CreateUDPv6RxSocket(pCfg->in.Network.usUDPPort, dwFlags, &pHandle->iFDv6)) {
    MD_LOG(5, "Successfully created IPv6 receiver socket %d.\n", pHandle->iFDv6);
    return;
  }
  pHandle->iFDv6 = -1;
  MD_LOG(3, "Failed to create IPv6 socket.\n");
}

static void _CreateIPv4Socket(MDATA_SRC_HANDLE pHandle, const MDATA_SRC_CFG* pCfg) {
  if (CreateUDPRxSocket(pCfg->in.Network.usUDPPort, pCfg->in.Network.acSrcAddress, &pHandle->iFD)) {
    MD_LOG(5, "Successfully created IPv4 receiver socket %d.\n", pHandle->iFD);
    return;
  }
  pHandle->iFD = -1;
  MD_LOG(3, "Failed to create IPv4 socket.\n");
}

BOOL _CreateUDPSourceSockets(MDATA_SRC_HANDLE pHandle, const MDATA_SRC_CFG* pCfg) {
  pHandle->iFD = -1;
  pHandle->iFDv6 = -1;
  pHandle->iSourceAddressFamily = 0;
  bool bIPv4 = false;
  bool bIPv6 = false;
  _ChooseFamilies(pCfg, &bIPv4, &bIPv6);
  if (bIPv6) _CreateIPv6Socket(pHandle, pCfg);
  if (bIPv4) _CreateIPv4Socket(pHandle, pCfg);
  return pHandle->iFD >= 0 || pHandle->iFDv6 >= 0 ? TRUE : FALSE;
}

// =====================================================================================================
// 6. Sources: opening. Runs on the encoder's thread, which holds g_MetaDataAPIMutex until the metadata thread has added
//    the source.
// =====================================================================================================

namespace {

// A source that is being opened. Releases everything it holds unless the opening succeeds, so that an encoder that
// retries does not run out of descriptors.
class OpeningSource {
 public:
  explicit OpeningSource(const MDATA_SRC_CFG* pConfig) : pCfg(pConfig) {
    for (int& iSocket : aiRelaySockets) iSocket = -1;
  }
  ~OpeningSource();
  OpeningSource(const OpeningSource&) = delete;
  OpeningSource& operator=(const OpeningSource&) = delete;

  bool Alloc() {
    pHandle = _AllocSource(pCfg);
    if (pHandle == nullptr) return false;
    _InitRelayers(pHandle);
    return true;
  }
  // Gives up ownership. Messages after this are relayed.
  MDATA_SRC_HANDLE Finish();

  const MDATA_SRC_CFG* const pCfg;
  MDATA_SRC_HANDLE pHandle = nullptr;
  int aiRelaySockets[MDATA_MAX_RELAYS];
  bool bXMLOutOpened = false;
};

}  // namespace

static void _FreeDecoding(MDATA_SRC_HANDLE pHandle) {
  if (pHandle->pvDecodeCtxt != nullptr) {
    if (pHandle->Config.enDataType == MDATA_DATA_COT)
      FreeCotDecodeContext(&pHandle->pvDecodeCtxt);
    else
      FreeKlvDecodeContext(&pHandle->pvDecodeCtxt);
  }
  if (pHandle->hConverter != nullptr) FreeCoT2KLVConvert(&pHandle->hConverter);
}

OpeningSource::~OpeningSource() {
  for (int& iSocket : aiRelaySockets) _CloseDescriptor(iSocket);
  if (pHandle == nullptr) return;
  if (bXMLOutOpened) _ReplaceXMLOutFile(nullptr);
  _CloseFile(pHandle->CaptureFP);
  _CloseDescriptor(pHandle->iFD);
  _CloseDescriptor(pHandle->iFDv6);
  _FreeDecoding(pHandle);
  _FreeSource(pHandle);
}

MDATA_SRC_HANDLE OpeningSource::Finish() {
  for (UINT32 i = 0; i < pHandle->Config.nNumOfRelays; ++i) {
    MdStoreRelease(pHandle->Relayers[i].iRelaySocket, aiRelaySockets[i]);
    aiRelaySockets[i] = -1;
  }
  MdStoreRelease(pHandle->bRelaysReady, TRUE);
  MDATA_SRC_HANDLE hOpened = pHandle;
  pHandle = nullptr;
  return hOpened;
}

// A source without a decoder (out of memory) opens anyway and drops everything it receives.
static void _ClearHandlersWithoutContext(MDATA_SRC_HANDLE pHandle) {
  if (pHandle->pvDecodeCtxt != nullptr) return;
  pHandle->pfnDataRxHandler = nullptr;
  pHandle->pfnResetStatsHandler = nullptr;
  pHandle->pfnSetStatsHandler = nullptr;
}

static void _SetUpKLVDecoding(MDATA_SRC_HANDLE pHandle) {
  MD_ASSERT(AllocKlvDecodeContext(&pHandle->pvDecodeCtxt, _KLV_RxCallBack, pHandle));
  pHandle->pfnResetStatsHandler = GenericKLV_ResetStats;
  pHandle->pfnSetStatsHandler = GenericKLV_SetStats;
  _ClearHandlersWithoutContext(pHandle);
}

static void _SetUpConverter(MDATA_SRC_HANDLE pHandle) {
  const MDATA_COT_CFG& CoT = pHandle->Config.format.CoT;
  MD_LOG(6, "Setting AirCraft SPI max delta to %d ms.\n", static_cast<int>(CoT.nMaxAirCraftSPITimeDeltaInMs));
  // KEPT: milliseconds times 1000 in 32 bits, which wraps above 4 294 967 ms.
  const DWORD nDeltaInUs = static_cast<DWORD>(CoT.nMaxAirCraftSPITimeDeltaInMs) * 1000u;
  const BOOL bAllocated =
      AllocCoT2KLVConvert(&pHandle->hConverter, static_cast<int32_t>(nDeltaInUs), CoT.szSpiUid, CoT.bSensorDiscovery);
  MD_ASSERT_TEXT(
      bAllocated,
      "AllocCoT2KLVConvert(&pHandle->hConverter, pCfg->format.CoT.nMaxAirCraftSPITimeDeltaInMs * 1000, pCfg->format.CoT.szSpiUid, pCfg->format.CoT.bSensorDiscovery)");
}

static void _SetUpCoTDecoding(MDATA_SRC_HANDLE pHandle) {
  MD_ASSERT(AllocCotDecodeContext(&pHandle->pvDecodeCtxt, _CoT_RxCallBack, pHandle));
  pHandle->pfnResetStatsHandler = COT_ResetStats;
  pHandle->pfnSetStatsHandler = COT_SetStats;
  _ClearHandlersWithoutContext(pHandle);
  _SetUpConverter(pHandle);
}

static bool _SetUpSerialDecoding(MDATA_SRC_HANDLE pHandle) {
  switch (pHandle->Config.enDataType) {
    case MDATA_DATA_COT:
      // KEPT: without CoT support the source opens and receives nothing. CoT over UDP does not test the support.
      if (!_g_bCoTSupportEnabled) {
        MD_ASSERT_UNREACHED();
        return true;
      }
      pHandle->pfnDataRxHandler = COT_ProcessRxData;
      _SetUpCoTDecoding(pHandle);
      return true;
    case MDATA_DATA_KLV:
      pHandle->pfnDataRxHandler = GenericKLV_ProcessRxData;
      _SetUpKLVDecoding(pHandle);
      return true;
    default:
      MD_ASSERT_UNREACHED();
      return false;
  }
}

// KEPT: both files are opened for a source of either data type.
static void _OpenSerialCapture(OpeningSource& Opening) {
  Opening.pHandle->CaptureFP = _OpenCaptureFile("/tmp/rawserial.txt");
  MD_LOG(5, "RAW serial input fp=%p.\n", static_cast<void*>(Opening.pHandle->CaptureFP));
  Opening.pHandle->nRawOutputOffset = 0;
  FILE* pXMLOut = _OpenCaptureFile("/tmp/cotxml.txt");
  MD_LOG(5, "COT XML input fp=%p.\n", static_cast<void*>(pXMLOut));
  _ReplaceXMLOutFile(pXMLOut);
  Opening.bXMLOutOpened = true;
}

static bool _OpenSerialSource(OpeningSource& Opening) {
  MD_LOG(6, "Serial input using device \"%s\".\n", kSerialDevice);
  if (_LocateSerialDataSrc(nullptr)) {
    MD_LOG(6, "Source already exists.\n");  // KEPT: one serial source at a time, of either data type
    return false;
  }
  MD_LOG(6, "Allocating new metadata source handle.\n");
  if (!Opening.Alloc()) return false;
  const MDATA_SRC_HANDLE pHandle = Opening.pHandle;
  if (!_SetUpSerialDecoding(pHandle)) return false;
  MD_LOG(7, "New handle allocated and linked.\n");

  if (!OpenSerialPortDevice(kSerialDevice, &pHandle->iFD)) {
    pHandle->iFD = -1;
    MD_LOG(3, "Failed to open serial device.\n");
    return false;
  }
  MD_LOG(5, "COM port \"%s\" opened, fd=%d.\n", kSerialDevice, pHandle->iFD);
  if (!ConfigureSerialPort(pHandle->iFD, &pHandle->Config.in.Serial, &pHandle->OldSerPortCfg)) {
    MD_LOG(3, "Failed to configure serial port.\n");
    return false;
  }
  MD_LOG(5, "Serial port configured.\n");
  if (pHandle->Config.bCaptureToDisk) _OpenSerialCapture(Opening);
  return true;
}

static void _OpenUDPCapture(MDATA_SRC_HANDLE pHandle) {
  char szName[128] = {};
  PrintToString(szName, static_cast<int>(sizeof(szName)), "/tmp/rawudp_%d.txt", pHandle->Config.in.Network.usUDPPort);
  pHandle->CaptureFP = _OpenCaptureFile(szName);
  MD_LOG(5, "RAW UDP input fp=%p.\n", static_cast<void*>(pHandle->CaptureFP));
  pHandle->nRawOutputOffset = 0;
}

static bool _OpenNetworkSource(OpeningSource& Opening) {
  MD_LOG(6, "Network metadata source.\n");
  // KEPT: opening a port in use fails without a log line.
  if (_LocateDataSrcByUDPPort(Opening.pCfg->in.Network.usUDPPort, nullptr)) return false;
  const bool bCoT = Opening.pCfg->enDataType == MDATA_DATA_COT;
  if (!bCoT && Opening.pCfg->enDataType != MDATA_DATA_KLV) return false;
  if (bCoT) MD_LOG(6, "Network CoT metadata source.\n");
  if (!Opening.Alloc()) return false;
  const MDATA_SRC_HANDLE pHandle = Opening.pHandle;
  if (!_CreateUDPSourceSockets(pHandle, &pHandle->Config)) return false;
  MD_ASSERT(_EnableTTLTOSDetectionIfNeeded(pHandle));
  // pfnDataRxHandler is not set: each datagram is a message, and the context only counts.
  if (bCoT)
    _SetUpCoTDecoding(pHandle);  // KEPT: CoT support is not tested here, unlike on the serial port
  else
    _SetUpKLVDecoding(pHandle);
  if (pHandle->Config.bCaptureToDisk) _OpenUDPCapture(pHandle);
  return true;
}

// Any number of sources may share a video input.
static bool _OpenVideoSource(OpeningSource& Opening) {
  MD_LOG(6, "Video metadata source. KLV source is SDI.\n");
  if (Opening.pCfg->enDataType != MDATA_DATA_KLV) return false;
  if (!Opening.Alloc()) return false;
  const MDATA_SRC_HANDLE pHandle = Opening.pHandle;
  pHandle->DecimateCtrl.ActivitePTS = kNoPTS;
  pHandle->DecimateCtrl.DecimatedPTS = kNoPTS;
  pHandle->DecimateCtrl.nDecimatedCount = 0;
  pHandle->DecimateCtrl.nDecimationFactor = pHandle->Config.nDecimationFactor;
  _SetUpKLVDecoding(pHandle);
  if (pHandle->Config.bCaptureToDisk) {
    pHandle->CaptureFP = _OpenCaptureFile("/tmp/rawhdsdi.txt");
    MD_LOG(5, "RAW HDSDI input fp=%p.\n", static_cast<void*>(pHandle->CaptureFP));
    pHandle->nRawOutputOffset = 0;
  }
  return true;
}

static bool _OpenByInputType(OpeningSource& Opening) {
  switch (Opening.pCfg->enInputType) {
    case MDATA_INPUT_SERIAL:
      return _OpenSerialSource(Opening);
    case MDATA_INPUT_NETWORK:
      return _OpenNetworkSource(Opening);
    case MDATA_INPUT_VIDEO:
      return _OpenVideoSource(Opening);
    default:
      MD_ASSERT_UNREACHED();
      return false;
  }
}

// Passes the source to the metadata thread. Returns false, without logging, if out of memory for the message.
static bool _HandOver(MDATA_SRC_HANDLE pHandle) {
  MD_LOG(6, "Allocating message for processing thread.\n");
  HMBOXMSG hMsg = _AllocControlMessage(EVENTID_ADD_FD, pHandle);
  if (hMsg == nullptr) return false;
  bool bSent = false;
  if (_CallThread(hMsg, pHandle->nAddRequest, kSourceWaitMs, &bSent)) return true;
  // KEPT: a source that the thread did not add in time is open nevertheless.
  const int iError = errno;
  MD_LOG(3, "Wait FAILED for data source#%d, errno (%d): \"%s\".\n", pHandle->Config.nIndex, iError,
         ErrnoText(iError).szText);
  if (!bSent) MdStoreRelease(pHandle->nAddRequest, REQUEST_NONE);
  return true;
}

// Opens the source and passes it to the metadata thread, after its relay sockets have been made.
static bool _OpenAndHandOver(OpeningSource& Opening) {
  bool bRetCode = _OpenByInputType(Opening);
  if (bRetCode && _g_bUsingInternalThread)
    bRetCode = _HandOver(Opening.pHandle);
  else
    MD_LOG(6, "Not sending message, _g_bUsingInternalThread=%d, bRetCode=%d.\n", _g_bUsingInternalThread, bRetCode);
  return bRetCode;
}

BOOL MetaData_OpenSource(const MDATA_SRC_CFG* pCfg, HMDATASRC* phDataSrc) {
  MD_LOG(7, "Called.\n");
  MD_ASSERT(pCfg != NULL);
  if (pCfg == nullptr) return FALSE;
  const bool bSizeFits = pCfg->nSize == static_cast<int>(sizeof(*pCfg));
  MD_ASSERT_TEXT(bSizeFits, "pCfg->nSize == sizeof(*pCfg)");
  if (!bSizeFits) return FALSE;

  OpeningSource Opening(pCfg);
  bool bRetCode = false;
  {
    MdLock Lock(g_MetaDataAPIMutex);
    if (pCfg->nNumOfRelays != 0 && !_CreateRelayingSockets(pCfg, Opening.aiRelaySockets, MDATA_MAX_RELAYS)) {
      MD_LOG(3, "Failed to create relaying socket.\n");
      return FALSE;
    }
    bRetCode = _OpenAndHandOver(Opening);
  }
  // KEPT: the relay sockets are stored only now, after the unlock; the thread may already receive for the source, but
  // relays nothing before.
  if (bRetCode) *phDataSrc = Opening.Finish();
  MD_LOG(6, "Returning %s.\n", bRetCode ? "TRUE" : "FALSE");
  return bRetCode ? TRUE : FALSE;
}

// =====================================================================================================
// 7. Sources: closing. Runs on the encoder's thread without g_MetaDataAPIMutex. If that thread gives up waiting, the
//    metadata thread finishes the close.
// =====================================================================================================

static void _ReleaseDecoding(MDATA_SRC_HANDLE pHandle) {
  switch (pHandle->Config.enDataType) {
    case MDATA_DATA_COT:
      _FreeDecoding(pHandle);
      break;
    case MDATA_DATA_KLV:
      MD_ASSERT(FreeKlvDecodeContext(&pHandle->pvDecodeCtxt));
      break;
    default:
      MD_ASSERT_UNREACHED();
      break;
  }
}

// KEPT: the serial port's former settings are not restored.
static void _CloseReceiveDescriptors(MDATA_SRC_HANDLE pHandle) {
  const bool bNetwork = pHandle->Config.enInputType == MDATA_INPUT_NETWORK;
  if (!bNetwork && pHandle->Config.enInputType != MDATA_INPUT_SERIAL) return;
  if (pHandle->iFD >= 0) {
    MD_LOG(6, "Closing file descriptor.\n");
    MD_ASSERT(close(pHandle->iFD) == 0);
    pHandle->iFD = -1;
  }
  if (bNetwork && pHandle->iFDv6 >= 0) {
    MD_ASSERT(close(pHandle->iFDv6) == 0);
    pHandle->iFDv6 = -1;
  }
}

static void _CloseRelaySockets(MDATA_SRC_HANDLE pHandle) {
  for (UINT32 i = 0; i < pHandle->Config.nNumOfRelays; ++i) {
    if (pHandle->Relayers[i].iRelaySocket >= 0) MD_ASSERT(close(pHandle->Relayers[i].iRelaySocket) == 0);
  }
}

// Releases everything behind the handle, once the metadata thread no longer uses it.
static void _ReleaseSource(MDATA_SRC_HANDLE pHandle) {
  _ReleaseDecoding(pHandle);
  _CloseFile(pHandle->CaptureFP);
  _ReplaceXMLOutFile(nullptr);  // KEPT: even if another source opened it
  _CloseReceiveDescriptors(pHandle);
  _CloseRelaySockets(pHandle);
  MD_ASSERT(pHandle->hOutputRate != NULL);
  _FreeSource(pHandle);
}

// KEPT: *phDataSrc is not changed.
BOOL MetaData_CloseSource(HMDATASRC* phDataSrc) {
  MD_ASSERT(phDataSrc != NULL);
  if (phDataSrc == nullptr) return FALSE;
  MD_ASSERT(*phDataSrc != NULL);
  MD_LOG(6, "Called.\n");
  const MDATA_SRC_HANDLE pHandle = *phDataSrc;
  if (pHandle == nullptr) return FALSE;
  if (!_g_bUsingInternalThread) {  // the library was shut down
    if (pHandle->Config.enInputType == MDATA_INPUT_VIDEO) _RemoveVideoSource(nullptr, pHandle);
    _UnlinkSource(pHandle);
    _ReleaseSource(pHandle);
    return TRUE;
  }
  HMBOXMSG hMsg = _AllocControlMessage(EVENTID_REMOVE_FD, pHandle);
  if (hMsg == nullptr) {
    MD_LOG(3, "No memory for close message.\n");
    return FALSE;
  }
  const UINT32 nIndex = pHandle->Config.nIndex;  // an abandoned record may be freed at any moment
  bool bSent = false;
  if (_CallThread(hMsg, pHandle->nRemoveRequest, kSourceWaitMs, &bSent)) {
    _ReleaseSource(pHandle);
    return TRUE;
  }
  const int iError = errno;
  MD_LOG(3, "Wait FAILED for source#%d, errno (%d): \"%s\".\n", nIndex, iError, ErrnoText(iError).szText);
  if (!bSent) _LeaveForSweep(pHandle);
  return TRUE;
}

// =====================================================================================================
// 8. Statistics. Run on the encoder's threads under g_MetaDataAPIMutex while the metadata thread counts: single values
//    are consistent, but a record may mix values from before and after a message.
// =====================================================================================================

static bool _HasKLVInserts(const MDATA_SRC_CFG& Config) {
  return Config.bClassifyMission || Config.szMissionID[0] != '\0';
}

static void _CopyKLVStats(MDATA_KLV_STATS* pTo, const MDATA_KLV_STATS& From) {
  MdStore(pTo->nRxUASMessages, MdLoad(From.nRxUASMessages));
  MdStore(pTo->nInvalidUASMessages, MdLoad(From.nInvalidUASMessages));
  MdStore(pTo->nAddedMissionIDs, MdLoad(From.nAddedMissionIDs));
  MdStore(pTo->nUpdatedMissionIDs, MdLoad(From.nUpdatedMissionIDs));
  MdStore(pTo->nAddedSecuritySets, MdLoad(From.nAddedSecuritySets));
  MdStore(pTo->nUpdatedSecuritySets, MdLoad(From.nUpdatedSecuritySets));
}

// A serial CoT source in a library without CoT support has neither context nor converter: nothing of it is read or
// changed. A source that lacks only the context, because memory ran out when it was opened, lacks only the decoder's
// counters.
static bool _OpenedWithoutCoTSupport(MDATA_SRC_HANDLE pHandle) {
  return !_g_bCoTSupportEnabled && pHandle->Config.enInputType == MDATA_INPUT_SERIAL &&
         pHandle->Config.enDataType == MDATA_DATA_COT;
}

static void _GetCoTStats(MDATA_SRC_HANDLE pHandle, MDATA_SRC_STATS* pStats) {
  COT_STATS Stats = {};
  if (pHandle->pvDecodeCtxt != nullptr && COT_GetStats(pHandle->pvDecodeCtxt, &Stats)) {
    pStats->nRxBytes = Stats.nTotalRxBytes;
    pStats->nRxOkMessages = Stats.nRxOkMessages;
    pStats->nRxCorruptMessages = Stats.nRxCorruptedMessages;
  }
  pStats->prot.CoT.nConvertedKLVMessages = MdLoad(pHandle->nCoTConvertedKLVMessages);
  pStats->prot.CoT.nConvertedKLVBytes = MdLoad(pHandle->nCoTConvertedKLVBytes);
  if (pHandle->hConverter != nullptr) GetCoT2KLVConvertStats(pHandle->hConverter, &pStats->prot.CoT);
}

static void _GetKLVStats(MDATA_SRC_HANDLE pHandle, MDATA_SRC_STATS* pStats) {
  KLV_STATS Stats = {};
  if (pHandle->pvDecodeCtxt != nullptr && GenericKLV_GetStats(pHandle->pvDecodeCtxt, &Stats)) {
    pStats->nRxBytes = Stats.nTotalRxBytes;
    pStats->nRxOkMessages = Stats.nRxOkMessages;
    pStats->nRxCorruptMessages = Stats.nRxCorruptedMessages;
  }
  // KEPT: without inserts the caller's values stay, even if tag filters rewrite messages.
  if (_HasKLVInserts(pHandle->Config)) _CopyKLVStats(&pStats->prot.KLV, pHandle->KLVStats);
}

static void _GetRelayStats(MDATA_SRC_HANDLE pHandle, MDATA_SRC_STATS* pStats) {
  for (UINT32 i = 0; i < pHandle->Config.nNumOfRelays; ++i) {
    const RELAYER& Relayer = pHandle->Relayers[i];
    pStats->Relays[i].nRelayedBytes = MdLoad(Relayer.nRelayedBytes);
    pStats->Relays[i].nRelayedMessages = MdLoad(Relayer.nRelayedMessages);
    pStats->Relays[i].nRelayErrors = MdLoad(Relayer.nRelayErrors);
    pStats->Relays[i].iLastRelayError = MdLoad(Relayer.iLastRelayError);
    pStats->Relays[i].iLastRelayErrorTime = MdLoad(Relayer.iLastRelayErrorTime);
  }
}

// KEPT: without detection the last update's time stays the caller's.
static void _GetDetectionStats(MDATA_SRC_HANDLE pHandle, MDATA_SRC_STATS* pStats) {
  pStats->iSrcTTL = pHandle->bDetectTTL ? MdLoad(pHandle->SourceTTL) : -1;
  pStats->nTTLUpdates = pHandle->bDetectTTL ? MdLoad(pHandle->nSourceTTLUpdates) : 0;
  if (pHandle->bDetectTTL) pStats->nLastTTLUpdateUpTimeInSecs = MdLoad(pHandle->nLastSourceTTLUpdateUpTimeInSecs);
  pStats->iSrcTOS = pHandle->bDetectTOS ? MdLoad(pHandle->SourceTOS) : -1;
  pStats->nTOSUpdates = pHandle->bDetectTOS ? MdLoad(pHandle->nSourceTOSUpdates) : 0;
  if (pHandle->bDetectTOS) pStats->nLastTOSUpdateUpTimeInSecs = MdLoad(pHandle->nLastSourceTOSUpdateUpTimeInSecs);
}

// KEPT: the record is not cleared first, and nSize is neither set nor tested.
BOOL MetaData_GetSourceStats(HMDATASRC hDataSrc, MDATA_SRC_STATS* pStats) {
  const MDATA_SRC_HANDLE pHandle = hDataSrc;
  MdLock Lock(g_MetaDataAPIMutex);
  MD_ASSERT(pHandle->pvDecodeCtxt != NULL);
  if (_OpenedWithoutCoTSupport(pHandle)) return TRUE;
  if (pHandle->Config.enDataType == MDATA_DATA_COT)
    _GetCoTStats(pHandle, pStats);
  else if (pHandle->Config.enDataType == MDATA_DATA_KLV)
    _GetKLVStats(pHandle, pStats);
  if (pHandle->Config.enInputType == MDATA_INPUT_NETWORK) _GetSenderStats(pHandle, &pStats->in.Network);
  _GetRelayStats(pHandle, pStats);
  _GetDetectionStats(pHandle, pStats);
  UINT32 nRate = 0;
  if (pHandle->hOutputRate != nullptr) GetCounterRate(pHandle->hOutputRate, 1, &nRate);
  pStats->nBitRateInKbps = nRate;
  return TRUE;
}

static void _StoreRelayStats(RELAYER* pRelayer, const MDATA_RELAY_STATS& Stats) {
  MdStore(pRelayer->nRelayedBytes, Stats.nRelayedBytes);
  MdStore(pRelayer->nRelayedMessages, Stats.nRelayedMessages);
  MdStore(pRelayer->nRelayErrors, Stats.nRelayErrors);
  MdStore(pRelayer->iLastRelayError, Stats.iLastRelayError);
  MdStore(pRelayer->iLastRelayErrorTime, Stats.iLastRelayErrorTime);
}

BOOL MetaData_ResetSourceStats(HMDATASRC hDataSrc) {
  const MDATA_SRC_HANDLE pHandle = hDataSrc;
  MdLock Lock(g_MetaDataAPIMutex);
  MD_ASSERT(pHandle->pfnResetStatsHandler != NULL);
  if (_OpenedWithoutCoTSupport(pHandle)) return TRUE;
  if (pHandle->pfnResetStatsHandler != nullptr) pHandle->pfnResetStatsHandler(pHandle->pvDecodeCtxt);
  MdStore(pHandle->nCoTConvertedKLVMessages, 0);
  MdStore(pHandle->nCoTConvertedKLVBytes, 0);
  if (pHandle->Config.enDataType == MDATA_DATA_COT) {
    if (pHandle->hConverter != nullptr) ResetCoT2KLVConvertStats(pHandle->hConverter);
  } else if (pHandle->Config.enDataType == MDATA_DATA_KLV && pHandle->pvDecodeCtxt != nullptr) {
    GenericKLV_ResetStats(pHandle->pvDecodeCtxt);  // KEPT: a second reset of the same counters
  }
  // KEPT: all relayers, configured or not.
  for (RELAYER& Relayer : pHandle->Relayers) _StoreRelayStats(&Relayer, {});
  // KEPT: the detected TTL and TOS and their times stay.
  MdStore(pHandle->nSourceTOSUpdates, 0);
  MdStore(pHandle->nSourceTTLUpdates, 0);
  _CopyKLVStats(&pHandle->KLVStats, {});
  if (pHandle->hOutputRate != nullptr) ResetCounterRateTable(pHandle->hOutputRate);
  return TRUE;
}

static void _SetProtocolStats(MDATA_SRC_HANDLE pHandle, const MDATA_SRC_STATS* pStats) {
  if (pHandle->Config.enDataType == MDATA_DATA_KLV) {
    _CopyKLVStats(&pHandle->KLVStats, pStats->prot.KLV);
    return;
  }
  if (pHandle->Config.enDataType != MDATA_DATA_COT || pHandle->hConverter == nullptr) return;
  MDATA_COT_STATS CoT = {};  // KEPT: only three of the counters are passed on
  CoT.nRxSPIMessages = pStats->prot.CoT.nRxSPIMessages;
  CoT.nRxAirCraftMessages = pStats->prot.CoT.nRxAirCraftMessages;
  CoT.nFilteredRxSPIMessages = pStats->prot.CoT.nFilteredRxSPIMessages;
  SetCoT2KLVConvertStats(pHandle->hConverter, &CoT);
}

BOOL MetaData_SetSourceStats(HMDATASRC hDataSrc, const MDATA_SRC_STATS* pStats) {
  const MDATA_SRC_HANDLE pHandle = hDataSrc;
  MdLock Lock(g_MetaDataAPIMutex);
  MD_ASSERT(pHandle->pfnSetStatsHandler != NULL);
  if (_OpenedWithoutCoTSupport(pHandle)) return TRUE;
  if (pHandle->pfnSetStatsHandler != nullptr) pHandle->pfnSetStatsHandler(pHandle->pvDecodeCtxt, pStats);
  // KEPT: for every data type; of a KLV source these fields of the union are KLV counters.
  MdStore(pHandle->nCoTConvertedKLVBytes, pStats->prot.CoT.nConvertedKLVBytes);
  MdStore(pHandle->nCoTConvertedKLVMessages, pStats->prot.CoT.nConvertedKLVMessages);
  if (pHandle->Config.enInputType == MDATA_INPUT_NETWORK) _SetSenderStats(pHandle, pStats->in.Network);
  _SetProtocolStats(pHandle, pStats);
  for (UINT32 i = 0; i < pHandle->Config.nNumOfRelays; ++i) _StoreRelayStats(&pHandle->Relayers[i], pStats->Relays[i]);
  MdStore(pHandle->SourceTTL, pStats->iSrcTTL);
  MdStore(pHandle->SourceTOS, pStats->iSrcTOS);
  MdStore(pHandle->nSourceTTLUpdates, pStats->nTTLUpdates);
  MdStore(pHandle->nLastSourceTTLUpdateUpTimeInSecs, pStats->nLastTTLUpdateUpTimeInSecs);
  MdStore(pHandle->nSourceTOSUpdates, pStats->nTOSUpdates);
  MdStore(pHandle->nLastSourceTOSUpdateUpTimeInSecs, pStats->nLastTOSUpdateUpTimeInSecs);
  return TRUE;  // KEPT: the rate counter is not changed
}

// =====================================================================================================
// 9. Shared steps of the receive paths: raw capture, counting, discarding. Metadata thread; state: the record's capture
//    file. Rewriting and delivery are in md_delivery.
// =====================================================================================================

// Writes received bytes to the raw capture. A capture that fails or is full is closed and not opened again.
static void _CaptureRaw(MDATA_SRC_HANDLE hSource, int nSize) {
  if (hSource->CaptureFP == nullptr) return;
  if (!DumpRawData(hSource->CaptureFP, hSource->RxBuffer, nSize, &hSource->nRawOutputOffset,
                   hSource->Config.nMaxCaptureSizeInKBytes))
    _CloseFile(hSource->CaptureFP);
}

// Counts a message that does not pass through the decoder in the decoder's counters, and feeds the rate.
static void _CountMessage(MDATA_SRC_HANDLE hSource, int nLength, time_t tNow) {
  if (hSource->pvDecodeCtxt == nullptr) return;
  KLV_STATS* pStats = GenericKLV_GetStatsPtr(hSource->pvDecodeCtxt);
  MdAddFetch(pStats->nRxOkMessages, 1);
  const UINT64 nTotal = MdAddFetch(pStats->nTotalRxBytes, nLength);
  _FeedOutputRate(hSource, nTotal, tNow);
}

// Reads and drops the input of a source whose close was given up, without logging, so that its descriptor does not wake
// the thread again and again until the source is removed from the read set.
static void _DiscardInput(MDATA_SRC_HANDLE hSource, int iFD) {
  ssize_t nTaken = 0;
  if (hSource->Config.enInputType == MDATA_INPUT_NETWORK) {
    struct iovec Part = {hSource->RxBuffer, sizeof(hSource->RxBuffer)};
    struct msghdr Message = {};
    Message.msg_iov = &Part;
    Message.msg_iovlen = 1;
    nTaken = recvmsg(iFD, &Message, MSG_DONTWAIT);
  } else {
    nTaken = read(iFD, hSource->RxBuffer, kSerialReadSize);
  }
  if (nTaken <= 0) _SleepMs(1);  // readable, but without data
}

// =====================================================================================================
// 10. KLV paths. The read handlers of serial sources and of KLV over UDP, the message handler of the KLV stream
//     decoder, and the encoder's release call. Metadata thread, except MetaData_ReleaseBuffer; the serial path holds
//     g_MetaDataAPIMutex while it reads, decodes and calls back.
// =====================================================================================================

static bool _ReadSerial(MDATA_SRC_HANDLE pHandle, int iFD) {
  const int nRead = static_cast<int>(read(iFD, pHandle->RxBuffer, kSerialReadSize));
  if (nRead <= 0) {
    MD_LOG(7, "read FAILED.\n");  // KEPT: the descriptor stays in the read set
    return false;
  }
  _CaptureRaw(pHandle, nRead);
  MD_LOG(7, "read successfully %d bytes from serial port.\n", nRead);
  MD_DUMP(7, "Input Data", pHandle->RxBuffer, nRead);
  if (pHandle->pfnDataRxHandler != nullptr) pHandle->pfnDataRxHandler(pHandle->pvDecodeCtxt, pHandle->RxBuffer, nRead);
  return true;
}

void _SerialDataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  const MDATA_SRC_HANDLE pHandle = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(pHandle)) return _DiscardInput(pHandle, iFD);
  MD_LOG(7, "Called fd=%d.\n", iFD);
  bool bRead = true;
  {
    const TryApiLock Lock;
    if (!Lock.IsHeld()) return;  // a source is being opened: the bytes stay for the next pass
    bRead = _ReadSerial(pHandle, iFD);
  }
  // A device that has hung up stays readable, but without data: do not spin on it.
  if (!bRead) _SleepMs(1);
}

void _KLV_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1) {
  const time_t tNow = time(nullptr);
  const MDATA_SRC_HANDLE pHandle = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(pHandle)) return;  // the rest of a chunk
  MdBufferRef Substituted;
  if (pHandle->Config.enInputType == MDATA_INPUT_SERIAL &&
      _RewriteOnPath(pHandle, kKLVSerialTexts, pBuff->pcData, pBuff->nDataSize, Substituted) == Rewritten::Dropped)
    return;
  MDATA_BUFFER* pCurrent = Substituted.Get() != nullptr ? Substituted.Get() : pBuff;
  const int nLength = pCurrent->nDataSize;
  // KEPT: relayed after rewriting and without TTL and TOS, unlike UDP.
  if (pHandle->Config.nNumOfRelays != 0)
    _RelayMetaData(pHandle, pCurrent->pcData, static_cast<size_t>(nLength), nullptr, nullptr);
  if (pHandle->pvDecodeCtxt != nullptr)
    _FeedOutputRate(pHandle, MdLoad(GenericKLV_GetStatsPtr(pHandle->pvDecodeCtxt)->nTotalRxBytes), tNow);
  _Deliver(pHandle, kKLVSerialTexts, pCurrent, nLength);  // KEPT: the result is ignored
}

void _KLV_UDP_DataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  const time_t tNow = time(nullptr);
  const MDATA_SRC_HANDLE hSource = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(hSource)) return _DiscardInput(hSource, iFD);
  BYTE cTOS = 0;
  BYTE cTTL = 0;
  struct sockaddr_storage From = {};
  MD_LOG(7, "Called.\n");
  const int nLength = _ReceiveDatagram(hSource, iFD, &From, &cTOS, &cTTL);
  if (nLength <= 0) return;
  MD_LOG(7, "Received %d bytes from %s.\n", nLength, SenderText(From).szText);
  MD_DUMP(7, "Input KLV over UDP Message", hSource->RxBuffer, nLength);
  _CaptureRaw(hSource, nLength);

  MdBufferRef Message;
  const Rewritten Result = _RewriteOnPath(hSource, kKLVUDPTexts, hSource->RxBuffer, nLength, Message);
  // KEPT: relayed as received, with the received TOS and TTL, even if nothing is left to deliver.
  if (hSource->Config.nNumOfRelays != 0)
    _RelayMetaData(hSource, hSource->RxBuffer, static_cast<size_t>(nLength), &cTOS, &cTTL);
  if (Result == Rewritten::Dropped) return;
  if (Result == Rewritten::Unchanged &&
      !DoAllocCopyBufferEx(hSource->RxBuffer, nLength, MDATA_STREAM_HEADER_SIZE, Message.Out())) {
    MD_LOG(4, "No memory for KLV message of %d bytes, dropping it.\n", nLength);
    return;
  }
  _CountMessage(hSource, nLength, tNow);
  // KEPT: the header has the received length, even for a rewritten message; the result is ignored.
  _Deliver(hSource, kKLVUDPTexts, Message.Get(), nLength);
}

void MetaData_ReleaseBuffer(MDATA_BUFFER* pBuff) {
  DoReleaseBuffer(&pBuff);
}

// =====================================================================================================
// 11. CoT paths. The read handler of CoT over UDP and the message handler of the serial CoT decoder. Metadata thread;
//     the serial one runs inside the serial read handler, under g_MetaDataAPIMutex.
// =====================================================================================================

static void _CountCoTDatagram(MDATA_SRC_HANDLE hSource, int nLength) {
  if (hSource->pvDecodeCtxt == nullptr) return;
  COT_STATS* pStats = COT_GetStatsPtr(hSource->pvDecodeCtxt);
  MdAddFetch(pStats->nRxOkMessages, 1);
  MdAddFetch(pStats->nTotalRxBytes, nLength);
}

// Converts one event. Returns true if a packet was produced, with the converter's length. Producing none while waiting
// for the partner event is normal and not logged.
static bool _Convert(MDATA_SRC_HANDLE hSource, const BYTE* pcXML, int nSize, MdBufferRef& Packet, int* pnLength) {
  if (hSource->hConverter == nullptr) return false;
  *pnLength = ConvertCoT2KLV(hSource->hConverter, pcXML, nSize, Packet.Out());
  if (*pnLength > 0 && Packet.Get() != nullptr) return true;
  if (Packet.Get() != nullptr) ReleaseConvertedData(Packet.Release());
  return false;
}

// Rewrites a converted packet and counts it. Returns false if nothing is left to send.
// KEPT: the length after rewriting counts, and feeds the rate.
static bool _RewriteAndCountConverted(MDATA_SRC_HANDLE hSource, const PathTexts& Texts, MdBufferRef& Packet,
                                      int* pnLength) {
  const Rewritten Result = _RewriteOnPath(hSource, Texts, Packet->pcData, *pnLength, Packet);
  if (Result == Rewritten::Dropped) return false;
  if (Result == Rewritten::Replaced) *pnLength = Packet->nDataSize;
  MdAddFetch(hSource->nCoTConvertedKLVMessages, 1);
  MdAddFetch(hSource->nCoTConvertedKLVBytes, *pnLength);
  return true;
}

void _CoT_UDP_DataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  const time_t tNow = time(nullptr);
  const MDATA_SRC_HANDLE hSource = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(hSource)) return _DiscardInput(hSource, iFD);
  BYTE cTOS = 0;
  BYTE cTTL = 0;
  struct sockaddr_storage From = {};
  const int nLength = _ReceiveDatagram(hSource, iFD, &From, &cTOS, &cTTL);
  if (nLength <= 0) return;
  _CountCoTDatagram(hSource, nLength);
  MD_LOG(7, "Received %d bytes from %s.\n", nLength, SenderText(From).szText);
  MD_DUMP(7, "UDP Data", hSource->RxBuffer, nLength);
  if (hSource->Config.nNumOfRelays != 0)
    _RelayMetaData(hSource, hSource->RxBuffer, static_cast<size_t>(nLength), &cTOS, &cTTL);
  else
    MD_LOG(7, "No relays configured (%u).\n", hSource->Config.nNumOfRelays);

  MdBufferRef Packet;
  int nConvertedLength = 0;
  if (!_Convert(hSource, hSource->RxBuffer, nLength, Packet, &nConvertedLength)) return;
  MD_LOG(7, "KLV message of %d bytes generated by conversion.\n", nConvertedLength);
  if (!_RewriteAndCountConverted(hSource, kCoTUDPTexts, Packet, &nConvertedLength)) return;
  _FeedOutputRate(hSource, MdLoad(hSource->nCoTConvertedKLVBytes), tNow);
  _Deliver(hSource, kCoTUDPTexts, Packet.Get(), nConvertedLength);
  // KEPT: released like any other buffer; the serial path releases it with ReleaseConvertedData.
}

void _CoT_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1) {
  const time_t tNow = time(nullptr);
  const MDATA_SRC_HANDLE pHandle = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(pHandle)) return;   // the rest of a chunk
  if (!_g_bGridInitialized) return;  // KEPT: without logging; CoT over UDP converts without the grid
  MD_ASSERT(pHandle->hConverter != NULL);
  if (pHandle->Config.nNumOfRelays != 0)
    _RelayMetaData(pHandle, pBuff->pcData, static_cast<size_t>(pBuff->nDataSize), nullptr, nullptr);

  MdBufferRef Packet;
  int nConvertedLength = 0;
  if (!_Convert(pHandle, pBuff->pcData, pBuff->nDataSize, Packet, &nConvertedLength)) return;
  if (!_RewriteAndCountConverted(pHandle, kCoTSerialTexts, Packet, &nConvertedLength)) return;
  MD_ASSERT_TEXT(nConvertedLength < kMaxConvertedLength, "nConvertedLength < 16000");  // KEPT: on this path only
  _FeedOutputRate(pHandle, MdLoad(pHandle->nCoTConvertedKLVBytes), tNow);
  _Deliver(pHandle, kCoTSerialTexts, Packet.Get(), nConvertedLength);
  ReleaseConvertedData(Packet.Release());
}

// =====================================================================================================
// 12. Video path and decimation. The read handler of a video input's capture, which serves every source of that
//     input. Metadata thread; no lock. State: the records' DecimateCtrl and the library-wide _tLastLogTime.
// =====================================================================================================

namespace {

enum class Pulled { Packet, Nothing, OutOfMemory };

}  // namespace

// All timestamps are compared for equality only.
// KEPT: only the last dropped timestamp is remembered; an older one that comes back counts as new.
BOOL _ShouldDecimateKLV(MDATA_SRC_HANDLE hSource, MDATA_TIMESTAMP TimeStamp) {
  KLV_DECIM_CTRL* pCtrl = &hSource->DecimateCtrl;
  const unsigned long long nTimeStamp = TimeStamp;
  if (pCtrl->ActivitePTS == kNoPTS) {
    pCtrl->ActivitePTS = TimeStamp;
    MD_ASSERT(hSource->DecimateCtrl.nDecimatedCount == 0);
    MD_LOG(7, "Not decimating initial KLV with timestamp of 0x%09LX.\n", nTimeStamp);
    return FALSE;
  }
  if (TimeStamp == pCtrl->ActivitePTS) {
    MD_LOG(7, "Not decimating active KLV timestamp of 0x%09LX.\n", nTimeStamp);
    return FALSE;
  }
  if (TimeStamp == pCtrl->DecimatedPTS) {
    MD_LOG(7, "Decimating decimated KLV timestamp of 0x%09LX.\n", nTimeStamp);
    return TRUE;
  }
  ++pCtrl->nDecimatedCount;
  if (pCtrl->nDecimatedCount < pCtrl->nDecimationFactor) {
    MD_LOG(7, "Decimating new decimated KLV #%d with timestamp of 0x%09LX.\n", pCtrl->nDecimatedCount, nTimeStamp);
    pCtrl->DecimatedPTS = TimeStamp;
    return TRUE;
  }
  MD_LOG(7, "No longer decimating KLV with timestamp of 0x%09LX.\n", nTimeStamp);
  pCtrl->nDecimatedCount = 0;
  pCtrl->ActivitePTS = TimeStamp;
  return FALSE;
}

// Rewrites a captured packet if the source asks for it, and logs that in this path's own lines. Returns false if
// nothing is left to send.
static bool _RewriteCaptured(MDATA_SRC_HANDLE hSource, MdBufferRef& Buffer) {
  if (!_WantsRewriting(hSource)) {
    MD_LOG(7, "No mission ID or security data set defined for source#%d.\n", hSource->Config.nIndex);
    return true;
  }
  MD_LOG(7, "Mission ID (%p) or security data set (%p) defined for source#%d.\n",
         static_cast<void*>(hSource->pMissionID), static_cast<void*>(hSource->pSecurityMDataSet),
         hSource->Config.nIndex);
  const Rewritten Result = _RewriteOnPath(hSource, kVideoTexts, Buffer->pcData, Buffer->nDataSize, Buffer);
  if (Result == Rewritten::Unchanged) MD_LOG(7, "_ProcessRxKLV return FALSE for source#%d.\n", hSource->Config.nIndex);
  return Result != Rewritten::Dropped;
}

void _FeedSDIDataSource(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* pBuff, UINT64 nTimeStamp) {
  const time_t tNow = time(nullptr);
  MdBufferRef Buffer(pBuff);
  // KEPT: factor 1 skips the test; with factor 0 the test keeps everything.
  if (hSource->Config.nDecimationFactor != 1 && _ShouldDecimateKLV(hSource, nTimeStamp)) return;
  if (!_RewriteCaptured(hSource, Buffer)) return;
  const int nLength = Buffer->nDataSize;
  if (hSource->Config.nNumOfRelays != 0)
    _RelayMetaData(hSource, Buffer->pcData, static_cast<size_t>(nLength), nullptr, nullptr);
  Buffer->nTimeStamp = nTimeStamp;
  // KEPT: a buffer that the encoder refuses is not counted, and the next one has the same sequence number; the counted
  // size includes the stream header. An encoder that keeps the buffer may change it, so its size is not read again.
  if (_Deliver(hSource, kVideoTexts, Buffer.Get(), nLength))
    _CountMessage(hSource, nLength + MDATA_STREAM_HEADER_SIZE, tNow);
}

// Passes a copy of the packet to every source of the input.
static void _DistributePacket(int iInterface, const MDATA_BUFFER* pBuff, UINT64 nTimeStamp) {
  for (const FNODE_D* pNode = g_MetaDataSrcList.pHead; pNode != nullptr; pNode = pNode->pNext) {
    const MDATA_SRC_HANDLE hSource = _SourceOf(pNode);
    if (hSource->Config.enInputType != MDATA_INPUT_VIDEO) continue;
    if (hSource->Config.in.Video.enInputInterface != iInterface) continue;
    if (_IsGivenUp(hSource)) continue;
    MDATA_BUFFER* pCopy = nullptr;
    if (DoAllocCopyBufferEx(pBuff->pcData, pBuff->nDataSize, MDATA_STREAM_HEADER_SIZE, &pCopy))
      _FeedSDIDataSource(hSource, pCopy, nTimeStamp);
  }
}

static int _CountSources() {
  int nCount = 0;
  for (const FNODE_D* pNode = g_MetaDataSrcList.pHead; pNode != nullptr; pNode = pNode->pNext) ++nCount;
  return nCount;
}

// Reads one packet from the capture and distributes it.
static Pulled _PullPacket(int iFD, int iInterface) {
  MDATA_BUFFER* pBuff = nullptr;
  // The capture may write kVideoRoom bytes behind the reserve, so the buffer has that much room there.
  if (!DoAllocBuffer(kVideoRoom + MDATA_STREAM_HEADER_SIZE, &pBuff)) {
    MD_LOG(4, "Failed to allocate buffer of %d bytes for KLV on BNC-%d.\n", kVideoRoom, iInterface);
    return Pulled::OutOfMemory;
  }
  MdBufferRef Buffer(pBuff);
  pBuff->pcData += MDATA_STREAM_HEADER_SIZE;
  pBuff->nDataSize = kVideoRoom;
  UINT64 nTimeStamp = 0;
  if (!KLVCAPTURE_GetKLV(iFD, pBuff->pcData, &pBuff->nDataSize, &nTimeStamp)) return Pulled::Nothing;
  if (pBuff->nDataSize < 0 || pBuff->nDataSize > kVideoRoom) {
    MD_LOG(4, "Dropping KLV with an impossible length of %d bytes on BNC-%d.\n", pBuff->nDataSize, iInterface);
    return Pulled::Packet;
  }
  MD_LOG(7, "Got %d bytes of KLV on BNC-%d.\n", pBuff->nDataSize, iInterface);
  MD_DUMP(7, "HD-SDI KLV Message", pBuff->pcData, pBuff->nDataSize);
  MD_LOG(7, "Going through %d metadata sources.\n", _CountSources());
  _DistributePacket(iInterface, pBuff, nTimeStamp);
  return Pulled::Packet;
}

void _SDIDataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  const int iInterface = static_cast<int>(reinterpret_cast<intptr_t>(pvParam1));
  const time_t tNow = time(nullptr);
  MD_LOG(7, "Called.\n");
  int nCount = 0;
  Pulled Last = Pulled::Packet;
  while (nCount < kMaxKLVPerIteration && Last == Pulled::Packet) {
    Last = _PullPacket(iFD, iInterface);
    if (Last == Pulled::Packet) ++nCount;
  }
  if (nCount == kMaxKLVPerIteration)
    MD_LOG(4, "Reached maximum number of KLV (%d) for one iteration.\n", kMaxKLVPerIteration);
  // KEPT: one such line per second for all inputs together.
  if (nCount == 0 && Last == Pulled::Nothing && tNow != _tLastLogTime) {
    MD_LOG(4, "No KLV retrieved from BNC-%d.\n", iInterface);
    _tLastLogTime = tNow;
  }
}
