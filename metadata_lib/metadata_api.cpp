// SPDX-License-Identifier: Apache-2.0
// The source engine: everything between the encoder's calls, the descriptors of the open sources and the ready
// callback.
//
// Contents
//    1. Library-wide state
//    2. Lifecycle: METADATALIB_Init, METADATALIB_Shutdown
//    3. The metadata thread: loop, control events, video extractors
//    4. Sources: look-ups, receive sockets
//    5. Sources: opening
//    6. Sources: closing
//    7. Statistics
//    8. Shared steps of the receive paths: raw capture, counting, discarding
//    9. KLV paths: serial and UDP
//   10. CoT paths: UDP and serial
//   11. Video path and decimation
//
// Lock order: g_MetaDataAPIMutex, then at most one of the leaf locks _g_SrcListLock, _g_XMLOutLock, _g_SenderLock.
// The metadata thread never waits for g_MetaDataAPIMutex longer than kSerialLockMs milliseconds, because an
// opener holds it while it waits for that thread.
#include "metadata_api.h"

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "host.h"
#include "md_atomic.h"
#include "md_delivery.h"
#include "md_guard.h"
#include "md_mutex.h"
#include "md_relay.h"
#include "md_request.h"
#include "md_source.h"
#include "md_udp.h"
#include "md_xml_log.h"
#include "misb0601_tools.h"
#include "utils.h"

#define MD_MODULE "metadata_api"
#include "md_log.h"

// =====================================================================================================
// 1. Library-wide state. The declarations in metadata_api.h state which threads and locks may access it.
// =====================================================================================================

HDBG g_hMetaDataLibDbg = nullptr;
HDBG g_hCoTConvDbg = nullptr;

BOOL g_bMetaDataLibInitialized = FALSE;
DWORD g_dwLibCaps = 0;
constinit MdMutex g_MetaDataAPIMutex{MdMutex::Recursive{}};
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

static constexpr long kSerialLockMs = 20;          // limit of the serial path's wait for g_MetaDataAPIMutex
static constexpr int kMaxConvertedLength = 16000;  // a converted serial packet stays below

// =====================================================================================================
// 2. Lifecycle. Called by the encoder, once each, before and after everything else.
// =====================================================================================================

static void _ReleaseSource(MDATA_SRC_HANDLE pHandle);
static void _SweepUnsentCloses(HFDSET hSet, bool threadEnded) MD_REQUIRES(kMetadataThread);
static bool _HandleControlMessage(HFDSET hSet, HMBOX hMBox) MD_REQUIRES(kMetadataThread);

// Resets the state that an earlier shut-down left behind.
static void _ResetThreadState() {
  kMetadataThread.Assume();  // there is none yet
  MdStoreRelease(_g_bShutdownThread, FALSE);
  _ResetRequests();
  _g_pCurrentThreadSelectTimeOut = nullptr;
  _g_bSelectTimeOutChanged = TRUE;
  _g_bGridInitialized = FALSE;
}

// Creates the mailbox, the read set with the mailbox in it, and the thread, which does not run yet.
static bool _CreateMetaDataThread() {
  MBOX_CONFIG config = {};
  config.nSize = static_cast<int>(sizeof(config));
  config.szName = "MetaDataEngine";
  if (!MBOX_CreateMailBox(&config, &_g_hMetaDataThreadMBox)) {
    MD_LOG(3, "Unable to create mailbox for communication with meta-data thread.\n");
    return false;
  }
  const int notificationFd = MBOX_GetNotificationFD(_g_hMetaDataThreadMBox);
  if (!__FDMGR_CreateSet("Meta-Data", &g_hMetaDataFDSet, __func__, MD_MODULE, __LINE__)) {
    // KEPT: the wording; operators search logs for it.
    MD_LOG(3, "Unable to file descriptor set for met-data thread.\n");
    MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);
    return false;
  }
  if (!__FDMGR_AddReadFD(g_hMetaDataFDSet, notificationFd, _MetaDataControlCallBack, _g_hMetaDataThreadMBox, nullptr,
                         __func__, MD_MODULE, __LINE__)) {
    MD_LOG(3, "Unable to add mailbox to file descriptor set of meta-data thread.\n");
    MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);  // the set is left as after a failed thread creation
    return false;
  }
  if (!CreateThread(&_g_hMetaDataProcessingThread, "MetaData", 0, 10, _MetaDataThread, g_hMetaDataFDSet)) {
    MD_LOG(3, "Unable to create meta-data thread.\n");
    MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);  // KEPT: the set is left as it is
    return false;
  }
  MD_LOG(6, "Meta-data thread created successfully.\n");
  return true;
}

BOOL METADATALIB_Init(DWORD dwCaps) {
  // KEPT: the flag stays set after a shut-down, so a second start raises this assertion and continues.
  const bool initialized = MdLoadAcquire(g_bMetaDataLibInitialized);
  MD_ASSERT_TEXT(!initialized, "g_bMetaDataLibInitialized == FALSE");
  if (initialized && _g_bUsingInternalThread) return FALSE;  // the thread uses everything that a start replaces
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
  bool sent = false;
  if (!_CallThreadToEnd(hMsg, &sent)) {
    const int error = errno;
    MD_LOG_ERRNO(3, "Wait FAILED, errno (%d): \"%s\".\n");
    MD_TEXT_ASSERT("Wait FAILED, errno (%d): \"%s\".\n", error, ErrnoText(error).text);
  }
  if (!sent) {
    MD_LOG(3, "Unable to stop meta-data thread, it is left running.\n");
    return false;
  }
  WaitForThread(_g_hMetaDataProcessingThread);  // KEPT: joined after a failed wait too
  _g_hMetaDataProcessingThread = nullptr;
  return true;
}

// Releases everything that the thread used, once it has ended.
static void _ReleaseThreadServices() {
  kMetadataThread.Assume();
  while (_HandleControlMessage(g_hMetaDataFDSet, _g_hMetaDataThreadMBox)) {
  }
  _SweepUnsentCloses(g_hMetaDataFDSet, true);
  MBOX_CloseMailBox(&_g_hMetaDataThreadMBox);
  FDMGR_CloseSet(&g_hMetaDataFDSet);
  WaitCond_Destroy(&_g_MetaDataThreadCond);
  _g_bUsingInternalThread = FALSE;  // nothing is left to send messages to
}

void METADATALIB_Shutdown(void) {
  const bool initialized = MdLoadAcquire(g_bMetaDataLibInitialized);
  MD_ASSERT_TEXT(initialized, "g_bMetaDataLibInitialized");
  MD_LOG(5, "Called.\n");
  bool threadEnded = true;
  if (initialized && _g_bUsingInternalThread) {
    threadEnded = _StopMetaDataThread();
    MD_LOG(7, "Closing Mailbox.\n");
    if (threadEnded) _ReleaseThreadServices();
  }
  if (initialized && threadEnded) free_ww15mgh_grd();  // KEPT: whether or not it was loaded
  MD_LOG(6, "Done.\n");
  // A thread that could not be asked to end still waits, converts and logs: everything it uses stays until another
  // shut-down reaches it.
  if (!threadEnded) return;
  _DoDbgUninitEx(&g_hCoTConvDbg);
  _DoDbgUninitEx(&g_hMetaDataLibDbg);
  // KEPT: g_bMetaDataLibInitialized stays TRUE; the library is made to be started once per process.
}

// =====================================================================================================
// 3. The metadata thread: its loop, the control events, the video extractors. Runs on that thread alone, which owns the
//    source list, the read set, the extractor table and the time-out variables. It reads the list without a lock and
//    changes it under _g_SrcListLock, for the look-ups of the encoder's threads.
// =====================================================================================================

// Reports this line to the host's thread watchdog, if enabled.
static void _SaveStateIfDebugging(int line) {
  if (MdLoad(g_bThreadStateDebuggingEnabled)) __SaveThreadState("_MetaDataThread", MD_MODULE, line);
}

DWORD _MetaDataThread(void* pvUnusedArg) {
  kMetadataThread.Assume();
  HFDSET hSet = static_cast<HFDSET>(pvUnusedArg);
  time_t lastAgeing = time(nullptr);
  while (!MdLoadAcquire(_g_bShutdownThread)) {
    __IncrementThreadIterations();
    MD_LOG(8, "Calling select.\n");
    _SaveStateIfDebugging(__LINE__);
    if (_g_bSelectTimeOutChanged) {
      FDMGR_SetSelectTimeout(hSet, _g_pCurrentThreadSelectTimeOut, _SelectTimeout, nullptr, nullptr);
      _g_bSelectTimeOutChanged = FALSE;
    }
    const int result = FDMGR_Select(hSet);
    _SaveStateIfDebugging(__LINE__);
    _SweepUnsentCloses(hSet, false);
    const time_t now = time(nullptr);
    if (now != lastAgeing) {
      _AgeDiscoveredSensors();
      lastAgeing = now;
    }
    MD_LOG(8, "select returned %d.\n", result);
  }
  return 0;
}

void _SelectTimeout(HFDSET, void*, void*) {
  MD_LOG(7, "Called.\n");  // the time-out only wakes the loop, for the ageing while sources are quiet
}

static MDATA_SRC_HANDLE _SourceOf(const FNODE_D* node) {
  return static_cast<MDATA_SRC_HANDLE>(node->pvObject);
}

void _AgeDiscoveredSensors(void) {
  _g_SrcListLock.AssumeOnlyWriter();
  for (const FNODE_D* node = g_MetaDataSrcList.pHead; node != nullptr; node = node->pNext) {
    const MDATA_SRC_HANDLE hSource = _SourceOf(node);
    if (hSource->Config.enDataType == MDATA_DATA_COT && hSource->hConverter != nullptr)
      AgeCoT2KLVSensors(hSource->hConverter);
  }
}

static void _AddSerialSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) MD_REQUIRES(kMetadataThread) {
  if (__FDMGR_AddReadFD(hSet, hSource->iFD, _SerialDataRxCallBack, hSource, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "File descriptor %d added to read set.\n", hSource->iFD);
}

static void _AddNetworkSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) MD_REQUIRES(kMetadataThread) {
  FDMGR_READ_CALLBACK callback = nullptr;
  switch (hSource->Config.enDataType) {
    case MDATA_DATA_KLV:
      callback = _KLV_UDP_DataRxCallBack;
      break;
    case MDATA_DATA_COT:
      callback = _CoT_UDP_DataRxCallBack;
      break;
    default:
      MD_ASSERT_UNREACHED();
      return;
  }
  const int fd = hSource->iFD;
  if (fd >= 0 && __FDMGR_AddReadFD(hSet, fd, callback, hSource, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "IPv4 socket descriptor %d added to read set.\n", fd);
  const int fdv6 = hSource->iFDv6;
  if (fdv6 >= 0 && __FDMGR_AddReadFD(hSet, fdv6, callback, hSource, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "IPv6 socket descriptor %d added to read set.\n", fdv6);
}

// KEPT: enInputInterface is not tested against the bounds of the extractor table; the encoder passes 0 to 3.
static void _AddVideoSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) MD_REQUIRES(kMetadataThread) {
  const int interface = hSource->Config.in.Video.enInputInterface;
  VIDEO_EXTRACTOR* extractor = &_g_aVideoExtractors[interface];
  MD_LOG(6, "Starting KLV Capture for interface %d.\n", interface);
  if (extractor->iFD != -1) {
    MD_LOG(6, "We already have extractor FD (%d) at index %d.\n", extractor->iFD, interface);
    MD_ASSERT(_g_aVideoExtractors[hSource->Config.in.Video.enInputInterface].nRefCount > 0);
    ++extractor->nRefCount;
    hSource->bCaptureHeld = TRUE;
    return;
  }
  MD_ASSERT(_g_aVideoExtractors[hSource->Config.in.Video.enInputInterface].nRefCount == 0);
  const VIDEO_EXTRACTOR stopped = *extractor;
  if (!KLVCAPTURE_Start(interface, extractor)) {
    MD_LOG(3, "Failed to start KLV capture.\n");
    *extractor = stopped;  // KEPT: the source is linked nevertheless and stays open without data
    return;
  }
  extractor->nRefCount = 1;
  hSource->bCaptureHeld = TRUE;
  MD_LOG(5, "KLV capture started.\n");
  void* parameter = reinterpret_cast<void*>(static_cast<intptr_t>(interface));
  if (__FDMGR_AddReadFD(hSet, extractor->iFD, _SDIDataRxCallBack, parameter, nullptr, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "File descriptor %d added to read set. We will call _SDIDataRxCallBack.\n", extractor->iFD);
}

static void _PostThreadCond() {
  MD_ASSERT(WaitCond_Post(&_g_MetaDataThreadCond));
}

static void _HandleAddFD(HFDSET hSet, MDATA_SRC_HANDLE hSource) MD_REQUIRES(kMetadataThread) {
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
    MdLock lock(_g_SrcListLock);
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
static void _RemoveVideoSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) MD_REQUIRES(kMetadataThread) {
  const int interface = hSource->Config.in.Video.enInputInterface;
  VIDEO_EXTRACTOR* extractor = &_g_aVideoExtractors[interface];
  bool counted = false;
  VIDEO_EXTRACTOR left = {};
  {
    MdLock lock(_g_SrcListLock);
    counted = hSource->bCaptureHeld && extractor->nRefCount > 0;
    if (hSource->bCaptureHeld) --extractor->nRefCount;
    left = *extractor;
    if (hSource->bCaptureHeld && left.nRefCount <= 0) extractor->iFD = -1;
  }
  // A source whose capture never started is not counted: it neither lowers the count nor stops another's capture.
  MD_ASSERT_TEXT(counted, "_g_aVideoExtractors[hSource->Config.in.Video.enInputInterface].nRefCount > 0");
  if (!hSource->bCaptureHeld) return;
  hSource->bCaptureHeld = FALSE;
  if (left.nRefCount > 0) {
    MD_LOG(6, "NOT disabling KLV extraction on BNC-%d since ref count is still at %d.\n", interface, left.nRefCount);
    return;
  }
  if (hSet != nullptr && __FDMGR_RemoveReadFD(hSet, left.iFD, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "File descriptor removed from read set.\n");
  MD_LOG(5, "Disabling KLV extraction on BNC-%d since ref count is at zero.\n", interface);
  KLVCAPTURE_Stop(interface);
}

static void _RemoveDescriptors(HFDSET hSet, MDATA_SRC_HANDLE hSource) {
  const bool isNetwork = hSource->Config.enInputType == MDATA_INPUT_NETWORK;
  const int fd = hSource->iFD;
  if (fd >= 0 && __FDMGR_RemoveReadFD(hSet, fd, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "%s %d removed from read set.\n", isNetwork ? "IPv4 socket" : "File descriptor", fd);
  const int fdv6 = hSource->iFDv6;
  if (isNetwork && fdv6 >= 0 && __FDMGR_RemoveReadFD(hSet, fdv6, __func__, MD_MODULE, __LINE__))
    MD_LOG(6, "IPv6 socket %d removed from read set.\n", fdv6);
}

static void _UnlinkSource(MDATA_SRC_HANDLE hSource) MD_EXCLUDES(_g_SrcListLock) {
  MdLock lock(_g_SrcListLock);
  if (!hSource->bLinked) return;
  FastUnlinkD(&g_MetaDataSrcList, &hSource->DNode);
  hSource->bLinked = FALSE;
}

// Removes the source from the read set and the list. Harmless if the source was never added.
static void _DetachSource(HFDSET hSet, MDATA_SRC_HANDLE hSource) MD_REQUIRES(kMetadataThread) {
  if (hSource->Config.enInputType == MDATA_INPUT_VIDEO)
    _RemoveVideoSource(hSet, hSource);
  else
    _RemoveDescriptors(hSet, hSource);
  _UnlinkSource(hSource);
}

static void _DisableTimeoutsIfIdle() MD_REQUIRES(kMetadataThread) {
  _g_SrcListLock.AssumeOnlyWriter();
  if (g_MetaDataSrcList.pHead != nullptr || _g_pCurrentThreadSelectTimeOut == nullptr) return;
  MD_LOG(6, "Disabling timeouts since there are no metadata FDs left.\n");
  _g_pCurrentThreadSelectTimeOut = nullptr;
  _g_bSelectTimeOutChanged = TRUE;
}

static void _HandleRemoveFD(HFDSET hSet, MDATA_SRC_HANDLE hSource) MD_REQUIRES(kMetadataThread) {
  MD_LOG(6, "Received EVENTID_REMOVE_FD.\n");
  _DetachSource(hSet, hSource);
  // From here on the record belongs to the closer. If that has given up, the close is finished here.
  const bool abandoned = _CompleteRequest(hSource->nRemoveRequest);
  _PostThreadCond();
  _DisableTimeoutsIfIdle();
  if (abandoned) _ReleaseSource(hSource);
}

static void _HandleShutdown() MD_REQUIRES(kMetadataThread) {
  MD_LOG(6, "Received EVENTID_SHUTDOWN_THREAD.\n");
  MdStoreRelease(_g_bShutdownThread, TRUE);
  _CompleteRequest(_g_nShutdownRequest);
  _PostThreadCond();
}

// Receives and handles one message. Returns false if none is waiting.
static bool _HandleControlMessage(HFDSET hSet, HMBOX hMBox) MD_REQUIRES(kMetadataThread) {
  HMBOXMSG hMsg = nullptr;
  if (!MBOX_RecvMessage(hMBox, &hMsg)) return false;
  const MBOX_MSGHEADER* header = MBOX_GetMessageHeader(hMsg);
  switch (header->dwEventID) {
    case EVENTID_ADD_FD:
      _HandleAddFD(hSet, static_cast<MDATA_SRC_HANDLE>(header->pvParam1));
      break;
    case EVENTID_REMOVE_FD:
      _HandleRemoveFD(hSet, static_cast<MDATA_SRC_HANDLE>(header->pvParam1));
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
  kMetadataThread.Assume();
  MD_LOG(6, "Called.\n");
  _HandleControlMessage(hSet, static_cast<HMBOX>(pvParam1));
}

// Leaves a close whose message was not sent to the metadata thread. Closing thread.
static void _LeaveForSweep(MDATA_SRC_HANDLE hSource) MD_EXCLUDES(_g_SrcListLock) {
  MdLock lock(_g_SrcListLock);
  hSource->pNextSweep = _g_pSweepList;
  MdStoreRelease(_g_pSweepList, hSource);
}

// Reads the atomic head of the list without the lock: a close that is added meanwhile waits for the next pass.
static bool _HasUnsentCloses() MD_UNCHECKED {
  return MdLoadAcquire(_g_pSweepList) != nullptr;
}

// Finishes the closes whose messages were not sent. A record whose add message is still queued stays until that is
// handled, unless the thread has ended. Metadata thread, and the thread that joined it.
static void _SweepUnsentCloses(HFDSET hSet, bool threadEnded) MD_REQUIRES(kMetadataThread) {
  if (!_HasUnsentCloses()) return;
  MDATA_SRC_HANDLE hSource = nullptr;
  {
    MdLock lock(_g_SrcListLock);
    hSource = _g_pSweepList;
    _g_pSweepList = nullptr;
  }
  while (hSource != nullptr) {
    const MDATA_SRC_HANDLE hNext = hSource->pNextSweep;
    if (!threadEnded && MdLoadAcquire(hSource->nAddRequest) == REQUEST_ABANDONED) {
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
// 4. Sources: look-ups, receive sockets. Run on the opener's thread under g_MetaDataAPIMutex; the look-ups take
//    _g_SrcListLock, because the metadata thread changes the list when another thread closes a source.
// =====================================================================================================

namespace {

// The criteria of a look-up.
struct SourceQuery {
  int inputType;
  USHORT port;  // network sources only
};

}  // namespace

static bool _Matches(const MDATA_SRC_CFG& config, const SourceQuery& query) {
  if (config.enInputType != query.inputType) return false;
  return query.inputType != MDATA_INPUT_NETWORK || config.in.Network.usUDPPort == query.port;
}

static MDATA_SRC_HANDLE _FindSource(const SourceQuery& query) MD_REQUIRES(g_MetaDataAPIMutex) {
  MdLock lock(_g_SrcListLock);
  for (const FNODE_D* node = g_MetaDataSrcList.pHead; node != nullptr; node = node->pNext) {
    if (_Matches(_SourceOf(node)->Config, query)) return _SourceOf(node);
  }
  return nullptr;
}

static bool _Locate(const SourceQuery& query, MDATA_SRC_HANDLE* source) MD_REQUIRES(g_MetaDataAPIMutex) {
  const MDATA_SRC_HANDLE hFound = _FindSource(query);
  if (source != nullptr) *source = hFound;
  if (hFound != nullptr)
    MD_LOG(7, "Source located, returning handle at %p.\n", static_cast<void*>(hFound));
  else
    MD_LOG(7, "Source NOT located.\n");
  return hFound != nullptr;
}

BOOL _LocateSerialDataSrc(MDATA_SRC_HANDLE* ppSrc) {
  MD_LOG(7, "Attempting to locate serial data source.\n");
  return _Locate({MDATA_INPUT_SERIAL, 0}, ppSrc) ? TRUE : FALSE;
}

// KEPT: data type and address family are not compared, so one source occupies a port for both families.
BOOL _LocateDataSrcByUDPPort(USHORT usPort, MDATA_SRC_HANDLE* ppSrc) {
  MD_LOG(7, "Attempting to locate data source by UDP port (%d).\n", usPort);
  return _Locate({MDATA_INPUT_NETWORK, usPort}, ppSrc) ? TRUE : FALSE;
}

// Chooses those of the configured families that the library was started with.
static void _ChooseFamilies(const MDATA_SRC_CFG* config, bool* ipv4, bool* ipv6) MD_REQUIRES(g_MetaDataAPIMutex) {
  const bool hasIPv4 = (g_dwLibCaps & METADATALIB_CAPS_IPV4_SUPPORT) != 0;
  const bool hasIPv6 = (g_dwLibCaps & METADATALIB_CAPS_IPV6_SUPPORT) != 0;
  const int family = config->in.Network.iSrcAddressFamily;
  *ipv4 = hasIPv4 && (family == AF_INET || family == 0);
  *ipv6 = hasIPv6 && (family == AF_INET6 || family == 0);
  if (family == AF_INET && !hasIPv4)
    MD_LOG(4, "AF_INET family specified but library initialized without IPv4 support.\n");
  if (family == AF_INET6 && !hasIPv6)
    MD_LOG(4, "AF_INET6 family specified but library initialized without IPv6 support.\n");
  if (family != AF_INET && family != AF_INET6 && family != 0)
    MD_TEXT_ASSERT("Invalid iSrcAddressFamily (%d) detected.\n", family);
}

static void _CreateIPv6Socket(MDATA_SRC_HANDLE hSource, const MDATA_SRC_CFG* config) MD_REQUIRES(g_MetaDataAPIMutex) {
  DWORD flags = _IsTTLDetectionNeeded(hSource) ? HOST_UDPV6_RX_HOPLIMIT : 0;
  if (_IsTOSDetectionNeeded(hSource)) flags |= HOST_UDPV6_RX_TRAFFIC_CLASS;
  if (CreateUDPv6RxSocket(config->in.Network.usUDPPort, flags, &hSource->iFDv6)) {
    MD_LOG(5, "Successfully created IPv6 receiver socket %d.\n", hSource->iFDv6);
    return;
  }
  hSource->iFDv6 = -1;
  MD_LOG(3, "Failed to create IPv6 socket.\n");
}

static void _CreateIPv4Socket(MDATA_SRC_HANDLE hSource, const MDATA_SRC_CFG* config) MD_REQUIRES(g_MetaDataAPIMutex) {
  if (CreateUDPRxSocket(config->in.Network.usUDPPort, config->in.Network.acSrcAddress, &hSource->iFD)) {
    MD_LOG(5, "Successfully created IPv4 receiver socket %d.\n", hSource->iFD);
    return;
  }
  hSource->iFD = -1;
  MD_LOG(3, "Failed to create IPv4 socket.\n");
}

BOOL _CreateUDPSourceSockets(MDATA_SRC_HANDLE hSource, const MDATA_SRC_CFG* pCfg) {
  hSource->iFD = -1;
  hSource->iFDv6 = -1;
  _g_SenderLock.AssumeHeld();  // no other thread knows the source yet
  hSource->iSourceAddressFamily = 0;
  bool ipv4 = false;
  bool ipv6 = false;
  _ChooseFamilies(pCfg, &ipv4, &ipv6);
  if (ipv6) _CreateIPv6Socket(hSource, pCfg);
  if (ipv4) _CreateIPv4Socket(hSource, pCfg);
  return hSource->iFD >= 0 || hSource->iFDv6 >= 0 ? TRUE : FALSE;
}

// =====================================================================================================
// 5. Sources: opening. Runs on the encoder's thread, which holds g_MetaDataAPIMutex until the metadata thread has added
//    the source.
// =====================================================================================================

namespace {

// A source that is being opened. Releases everything it holds unless the opening succeeds, so that an encoder that
// retries does not run out of descriptors.
class PendingSource {
 public:
  explicit PendingSource(const MDATA_SRC_CFG* configuration) : config(configuration) {
    for (int& socket : relaySockets) socket = -1;
  }
  ~PendingSource();
  PendingSource(const PendingSource&) = delete;
  PendingSource& operator=(const PendingSource&) = delete;

  bool Alloc() {
    hSource = _AllocSource(config);
    if (hSource == nullptr) return false;
    _InitRelayers(hSource);
    return true;
  }
  // Gives up ownership. Messages after this are relayed.
  MDATA_SRC_HANDLE Commit();

  const MDATA_SRC_CFG* const config;
  MDATA_SRC_HANDLE hSource = nullptr;
  int relaySockets[MDATA_MAX_RELAYS];
  bool xmlOutOpened = false;
};

}  // namespace

static void _FreeDecoding(MDATA_SRC_HANDLE hSource) {
  if (hSource->pvDecodeCtxt != nullptr) {
    if (hSource->Config.enDataType == MDATA_DATA_COT)
      FreeCotDecodeContext(&hSource->pvDecodeCtxt);
    else
      FreeKlvDecodeContext(&hSource->pvDecodeCtxt);
  }
  if (hSource->hConverter != nullptr) FreeCoT2KLVConvert(&hSource->hConverter);
}

PendingSource::~PendingSource() {
  for (int& socket : relaySockets) _CloseDescriptor(socket);
  if (hSource == nullptr) return;
  if (xmlOutOpened) _ReplaceXMLOutFile(nullptr);
  _CloseFile(hSource->CaptureFP);
  _CloseDescriptor(hSource->iFD);
  _CloseDescriptor(hSource->iFDv6);
  _FreeDecoding(hSource);
  _FreeSource(hSource);
}

MDATA_SRC_HANDLE PendingSource::Commit() {
  for (UINT32 i = 0; i < hSource->Config.nNumOfRelays; ++i) {
    MdStoreRelease(hSource->Relayers[i].iRelaySocket, relaySockets[i]);
    relaySockets[i] = -1;
  }
  MdStoreRelease(hSource->bRelaysReady, TRUE);
  MDATA_SRC_HANDLE hOpened = hSource;
  hSource = nullptr;
  return hOpened;
}

// A source without a decoder (out of memory) opens anyway and drops everything it receives.
static void _ClearHandlersWithoutContext(MDATA_SRC_HANDLE hSource) {
  if (hSource->pvDecodeCtxt != nullptr) return;
  hSource->pfnDataRxHandler = nullptr;
  hSource->pfnResetStatsHandler = nullptr;
  hSource->pfnSetStatsHandler = nullptr;
}

static void _SetUpKLVDecoding(MDATA_SRC_HANDLE pHandle) {
  MD_ASSERT(AllocKlvDecodeContext(&pHandle->pvDecodeCtxt, _KLV_RxCallBack, pHandle));
  pHandle->pfnResetStatsHandler = GenericKLV_ResetStats;
  pHandle->pfnSetStatsHandler = GenericKLV_SetStats;
  _ClearHandlersWithoutContext(pHandle);
}

static void _SetUpConverter(MDATA_SRC_HANDLE hSource) {
  const MDATA_COT_CFG& cot = hSource->Config.format.CoT;
  MD_LOG(6, "Setting AirCraft SPI max delta to %d ms.\n", static_cast<int>(cot.nMaxAirCraftSPITimeDeltaInMs));
  // KEPT: milliseconds times 1000 in 32 bits, which wraps above 4 294 967 ms.
  const DWORD deltaInUs = static_cast<DWORD>(cot.nMaxAirCraftSPITimeDeltaInMs) * 1000u;
  const bool allocated =
      AllocCoT2KLVConvert(&hSource->hConverter, static_cast<int32_t>(deltaInUs), cot.szSpiUid, cot.bSensorDiscovery);
  MD_ASSERT_TEXT(
      allocated,
      "AllocCoT2KLVConvert(&pHandle->hConverter, pCfg->format.CoT.nMaxAirCraftSPITimeDeltaInMs * 1000, pCfg->format.CoT.szSpiUid, pCfg->format.CoT.bSensorDiscovery)");
}

static void _SetUpCoTDecoding(MDATA_SRC_HANDLE pHandle) {
  MD_ASSERT(AllocCotDecodeContext(&pHandle->pvDecodeCtxt, _CoT_RxCallBack, pHandle));
  pHandle->pfnResetStatsHandler = COT_ResetStats;
  pHandle->pfnSetStatsHandler = COT_SetStats;
  _ClearHandlersWithoutContext(pHandle);
  _SetUpConverter(pHandle);
}

static bool _SetUpSerialDecoding(MDATA_SRC_HANDLE hSource) MD_REQUIRES(g_MetaDataAPIMutex) {
  switch (hSource->Config.enDataType) {
    case MDATA_DATA_COT:
      // KEPT: without CoT support the source opens and receives nothing. CoT over UDP does not test the support.
      if (!_g_bCoTSupportEnabled) {
        MD_ASSERT_UNREACHED();
        return true;
      }
      hSource->pfnDataRxHandler = COT_ProcessRxData;
      _SetUpCoTDecoding(hSource);
      return true;
    case MDATA_DATA_KLV:
      hSource->pfnDataRxHandler = GenericKLV_ProcessRxData;
      _SetUpKLVDecoding(hSource);
      return true;
    default:
      MD_ASSERT_UNREACHED();
      return false;
  }
}

// KEPT: both files are opened for a source of either data type.
static void _OpenSerialCapture(PendingSource& pending) MD_REQUIRES(g_MetaDataAPIMutex) {
  pending.hSource->CaptureFP = _OpenCaptureFile("/tmp/rawserial.txt");
  MD_LOG(5, "RAW serial input fp=%p.\n", static_cast<void*>(pending.hSource->CaptureFP));
  pending.hSource->nRawOutputOffset = 0;
  FILE* xmlOut = _OpenCaptureFile("/tmp/cotxml.txt");
  MD_LOG(5, "COT XML input fp=%p.\n", static_cast<void*>(xmlOut));
  _ReplaceXMLOutFile(xmlOut);
  pending.xmlOutOpened = true;
}

static bool _OpenSerialSource(PendingSource& pending) MD_REQUIRES(g_MetaDataAPIMutex) {
  MD_LOG(6, "Serial input using device \"%s\".\n", kSerialDevice);
  if (_LocateSerialDataSrc(nullptr)) {
    MD_LOG(6, "Source already exists.\n");  // KEPT: one serial source at a time, of either data type
    return false;
  }
  MD_LOG(6, "Allocating new metadata source handle.\n");
  if (!pending.Alloc()) return false;
  const MDATA_SRC_HANDLE hSource = pending.hSource;
  if (!_SetUpSerialDecoding(hSource)) return false;
  MD_LOG(7, "New handle allocated and linked.\n");

  if (!OpenSerialPortDevice(kSerialDevice, &hSource->iFD)) {
    hSource->iFD = -1;
    MD_LOG(3, "Failed to open serial device.\n");
    return false;
  }
  MD_LOG(5, "COM port \"%s\" opened, fd=%d.\n", kSerialDevice, hSource->iFD);
  if (!ConfigureSerialPort(hSource->iFD, &hSource->Config.in.Serial, &hSource->OldSerPortCfg)) {
    MD_LOG(3, "Failed to configure serial port.\n");
    return false;
  }
  MD_LOG(5, "Serial port configured.\n");
  if (hSource->Config.bCaptureToDisk) _OpenSerialCapture(pending);
  return true;
}

static void _OpenUDPCapture(MDATA_SRC_HANDLE hSource) {
  char name[128] = {};
  PrintToString(name, static_cast<int>(sizeof(name)), "/tmp/rawudp_%d.txt", hSource->Config.in.Network.usUDPPort);
  hSource->CaptureFP = _OpenCaptureFile(name);
  MD_LOG(5, "RAW UDP input fp=%p.\n", static_cast<void*>(hSource->CaptureFP));
  hSource->nRawOutputOffset = 0;
}

static bool _OpenNetworkSource(PendingSource& pending) MD_REQUIRES(g_MetaDataAPIMutex) {
  MD_LOG(6, "Network metadata source.\n");
  // KEPT: opening a port in use fails without a log line.
  if (_LocateDataSrcByUDPPort(pending.config->in.Network.usUDPPort, nullptr)) return false;
  const bool isCoT = pending.config->enDataType == MDATA_DATA_COT;
  if (!isCoT && pending.config->enDataType != MDATA_DATA_KLV) return false;
  if (isCoT) MD_LOG(6, "Network CoT metadata source.\n");
  if (!pending.Alloc()) return false;
  const MDATA_SRC_HANDLE pHandle = pending.hSource;
  if (!_CreateUDPSourceSockets(pHandle, &pHandle->Config)) return false;
  MD_ASSERT(_EnableTTLTOSDetectionIfNeeded(pHandle));
  // pfnDataRxHandler is not set: each datagram is a message, and the context only counts.
  if (isCoT)
    _SetUpCoTDecoding(pHandle);  // KEPT: CoT support is not tested here, unlike on the serial port
  else
    _SetUpKLVDecoding(pHandle);
  if (pHandle->Config.bCaptureToDisk) _OpenUDPCapture(pHandle);
  return true;
}

// Any number of sources may share a video input.
static bool _OpenVideoSource(PendingSource& pending) MD_REQUIRES(g_MetaDataAPIMutex) {
  MD_LOG(6, "Video metadata source. KLV source is SDI.\n");
  if (pending.config->enDataType != MDATA_DATA_KLV) return false;
  if (!pending.Alloc()) return false;
  const MDATA_SRC_HANDLE hSource = pending.hSource;
  hSource->DecimateCtrl.ActivitePTS = kNoPTS;
  hSource->DecimateCtrl.DecimatedPTS = kNoPTS;
  hSource->DecimateCtrl.nDecimatedCount = 0;
  hSource->DecimateCtrl.nDecimationFactor = hSource->Config.nDecimationFactor;
  _SetUpKLVDecoding(hSource);
  if (hSource->Config.bCaptureToDisk) {
    hSource->CaptureFP = _OpenCaptureFile("/tmp/rawhdsdi.txt");
    MD_LOG(5, "RAW HDSDI input fp=%p.\n", static_cast<void*>(hSource->CaptureFP));
    hSource->nRawOutputOffset = 0;
  }
  return true;
}

static bool _OpenByInputType(PendingSource& pending) MD_REQUIRES(g_MetaDataAPIMutex) {
  switch (pending.config->enInputType) {
    case MDATA_INPUT_SERIAL:
      return _OpenSerialSource(pending);
    case MDATA_INPUT_NETWORK:
      return _OpenNetworkSource(pending);
    case MDATA_INPUT_VIDEO:
      return _OpenVideoSource(pending);
    default:
      MD_ASSERT_UNREACHED();
      return false;
  }
}

// Passes the source to the metadata thread. Returns false, without logging, if out of memory for the message.
static bool _HandOver(MDATA_SRC_HANDLE hSource) MD_REQUIRES(g_MetaDataAPIMutex) {
  MD_LOG(6, "Allocating message for processing thread.\n");
  HMBOXMSG hMsg = _AllocControlMessage(EVENTID_ADD_FD, hSource);
  if (hMsg == nullptr) return false;
  bool sent = false;
  if (_CallThread(hMsg, hSource->nAddRequest, kSourceWaitMs, &sent)) return true;
  // KEPT: a source that the thread did not add in time is open nevertheless.
  MD_LOG_ERRNO(3, "Wait FAILED for data source#%d, errno (%d): \"%s\".\n", hSource->Config.nIndex);
  if (!sent) MdStoreRelease(hSource->nAddRequest, REQUEST_NONE);
  return true;
}

// Opens the source and passes it to the metadata thread, after its relay sockets have been made.
static bool _OpenAndHandOver(PendingSource& pending) MD_REQUIRES(g_MetaDataAPIMutex) {
  bool ok = _OpenByInputType(pending);
  if (ok && _g_bUsingInternalThread)
    ok = _HandOver(pending.hSource);
  else
    MD_LOG(6, "Not sending message, _g_bUsingInternalThread=%d, bRetCode=%d.\n", _g_bUsingInternalThread, ok);
  return ok;
}

BOOL MetaData_OpenSource(const MDATA_SRC_CFG* pCfg, HMDATASRC* phDataSrc) {
  MD_LOG(7, "Called.\n");
  MD_ASSERT_OR_RETURN(pCfg != NULL, FALSE);
  MD_ASSERT_TEXT_OR_RETURN(pCfg->nSize == static_cast<int>(sizeof(*pCfg)), "pCfg->nSize == sizeof(*pCfg)", FALSE);

  PendingSource pending(pCfg);
  bool ok = false;
  {
    MdLock lock(g_MetaDataAPIMutex);
    if (pCfg->nNumOfRelays != 0 && !_CreateRelayingSockets(pCfg, pending.relaySockets, MDATA_MAX_RELAYS)) {
      MD_LOG(3, "Failed to create relaying socket.\n");
      return FALSE;
    }
    ok = _OpenAndHandOver(pending);
  }
  // KEPT: the relay sockets are stored only now, after the unlock; the thread may already receive for the source, but
  // relays nothing before.
  if (ok) *phDataSrc = pending.Commit();
  MD_LOG(6, "Returning %s.\n", ok ? "TRUE" : "FALSE");
  return ok ? TRUE : FALSE;
}

// =====================================================================================================
// 6. Sources: closing. Runs on the encoder's thread without g_MetaDataAPIMutex. If that thread gives up waiting, the
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
  const bool isNetwork = pHandle->Config.enInputType == MDATA_INPUT_NETWORK;
  if (!isNetwork && pHandle->Config.enInputType != MDATA_INPUT_SERIAL) return;
  if (pHandle->iFD >= 0) {
    MD_LOG(6, "Closing file descriptor.\n");
    MD_ASSERT(close(pHandle->iFD) == 0);
    pHandle->iFD = -1;
  }
  if (isNetwork && pHandle->iFDv6 >= 0) {
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
  MD_ASSERT_OR_RETURN(phDataSrc != NULL, FALSE);
  MD_ASSERT(*phDataSrc != NULL);
  MD_LOG(6, "Called.\n");
  const MDATA_SRC_HANDLE hSource = *phDataSrc;
  if (hSource == nullptr) return FALSE;
  if (!_g_bUsingInternalThread) {  // the library was shut down
    kMetadataThread.Assume();
    if (hSource->Config.enInputType == MDATA_INPUT_VIDEO) _RemoveVideoSource(nullptr, hSource);
    _UnlinkSource(hSource);
    _ReleaseSource(hSource);
    return TRUE;
  }
  HMBOXMSG hMsg = _AllocControlMessage(EVENTID_REMOVE_FD, hSource);
  if (hMsg == nullptr) {
    MD_LOG(3, "No memory for close message.\n");
    return FALSE;
  }
  const UINT32 index = hSource->Config.nIndex;  // an abandoned record may be freed at any moment
  bool sent = false;
  if (_CallThread(hMsg, hSource->nRemoveRequest, kSourceWaitMs, &sent)) {
    _ReleaseSource(hSource);
    return TRUE;
  }
  MD_LOG_ERRNO(3, "Wait FAILED for source#%d, errno (%d): \"%s\".\n", index);
  if (!sent) _LeaveForSweep(hSource);
  return TRUE;
}

// =====================================================================================================
// 7. Statistics. Run on the encoder's threads under g_MetaDataAPIMutex while the metadata thread counts: single values
//    are consistent, but a record may mix values from before and after a message.
// =====================================================================================================

static bool _HasKLVInserts(const MDATA_SRC_CFG& config) {
  return config.bClassifyMission || config.szMissionID[0] != '\0';
}

static void _CopyKLVStats(MDATA_KLV_STATS* to, const MDATA_KLV_STATS& from) {
  MdStore(to->nRxUASMessages, MdLoad(from.nRxUASMessages));
  MdStore(to->nInvalidUASMessages, MdLoad(from.nInvalidUASMessages));
  MdStore(to->nAddedMissionIDs, MdLoad(from.nAddedMissionIDs));
  MdStore(to->nUpdatedMissionIDs, MdLoad(from.nUpdatedMissionIDs));
  MdStore(to->nAddedSecuritySets, MdLoad(from.nAddedSecuritySets));
  MdStore(to->nUpdatedSecuritySets, MdLoad(from.nUpdatedSecuritySets));
}

// A serial CoT source in a library without CoT support has neither context nor converter: nothing of it is read or
// changed. A source that lacks only the context, because memory ran out when it was opened, lacks only the decoder's
// counters.
static bool _OpenedWithoutCoTSupport(MDATA_SRC_HANDLE hSource) {
  return !_g_bCoTSupportEnabled && hSource->Config.enInputType == MDATA_INPUT_SERIAL &&
         hSource->Config.enDataType == MDATA_DATA_COT;
}

static void _GetCoTStats(MDATA_SRC_HANDLE hSource, MDATA_SRC_STATS* stats) MD_REQUIRES(g_MetaDataAPIMutex) {
  COT_STATS counters = {};
  if (hSource->pvDecodeCtxt != nullptr && COT_GetStats(hSource->pvDecodeCtxt, &counters)) {
    stats->nRxBytes = counters.nTotalRxBytes;
    stats->nRxOkMessages = counters.nRxOkMessages;
    stats->nRxCorruptMessages = counters.nRxCorruptedMessages;
  }
  stats->prot.CoT.nConvertedKLVMessages = MdLoad(hSource->nCoTConvertedKLVMessages);
  stats->prot.CoT.nConvertedKLVBytes = MdLoad(hSource->nCoTConvertedKLVBytes);
  if (hSource->hConverter != nullptr) GetCoT2KLVConvertStats(hSource->hConverter, &stats->prot.CoT);
}

static void _GetKLVStats(MDATA_SRC_HANDLE hSource, MDATA_SRC_STATS* stats) MD_REQUIRES(g_MetaDataAPIMutex) {
  KLV_STATS counters = {};
  if (hSource->pvDecodeCtxt != nullptr && GenericKLV_GetStats(hSource->pvDecodeCtxt, &counters)) {
    stats->nRxBytes = counters.nTotalRxBytes;
    stats->nRxOkMessages = counters.nRxOkMessages;
    stats->nRxCorruptMessages = counters.nRxCorruptedMessages;
  }
  // KEPT: without inserts the caller's values stay, even if tag filters rewrite messages.
  if (_HasKLVInserts(hSource->Config)) _CopyKLVStats(&stats->prot.KLV, hSource->KLVStats);
}

static void _GetRelayStats(MDATA_SRC_HANDLE hSource, MDATA_SRC_STATS* stats) MD_REQUIRES(g_MetaDataAPIMutex) {
  for (UINT32 i = 0; i < hSource->Config.nNumOfRelays; ++i) {
    const RELAYER& relayer = hSource->Relayers[i];
    stats->Relays[i].nRelayedBytes = MdLoad(relayer.nRelayedBytes);
    stats->Relays[i].nRelayedMessages = MdLoad(relayer.nRelayedMessages);
    stats->Relays[i].nRelayErrors = MdLoad(relayer.nRelayErrors);
    stats->Relays[i].iLastRelayError = MdLoad(relayer.iLastRelayError);
    stats->Relays[i].iLastRelayErrorTime = MdLoad(relayer.iLastRelayErrorTime);
  }
}

// KEPT: without detection the last update's time stays the caller's.
static void _GetDetectionStats(MDATA_SRC_HANDLE hSource, MDATA_SRC_STATS* stats) MD_REQUIRES(g_MetaDataAPIMutex) {
  stats->iSrcTTL = hSource->bDetectTTL ? MdLoad(hSource->SourceTTL) : -1;
  stats->nTTLUpdates = hSource->bDetectTTL ? MdLoad(hSource->nSourceTTLUpdates) : 0;
  if (hSource->bDetectTTL) stats->nLastTTLUpdateUpTimeInSecs = MdLoad(hSource->nLastSourceTTLUpdateUpTimeInSecs);
  stats->iSrcTOS = hSource->bDetectTOS ? MdLoad(hSource->SourceTOS) : -1;
  stats->nTOSUpdates = hSource->bDetectTOS ? MdLoad(hSource->nSourceTOSUpdates) : 0;
  if (hSource->bDetectTOS) stats->nLastTOSUpdateUpTimeInSecs = MdLoad(hSource->nLastSourceTOSUpdateUpTimeInSecs);
}

// KEPT: the record is not cleared first, and nSize is neither set nor tested.
BOOL MetaData_GetSourceStats(HMDATASRC hDataSrc, MDATA_SRC_STATS* pStats) {
  const MDATA_SRC_HANDLE pHandle = hDataSrc;
  MdLock lock(g_MetaDataAPIMutex);
  MD_ASSERT(pHandle->pvDecodeCtxt != NULL);
  if (_OpenedWithoutCoTSupport(pHandle)) return TRUE;
  if (pHandle->Config.enDataType == MDATA_DATA_COT)
    _GetCoTStats(pHandle, pStats);
  else if (pHandle->Config.enDataType == MDATA_DATA_KLV)
    _GetKLVStats(pHandle, pStats);
  if (pHandle->Config.enInputType == MDATA_INPUT_NETWORK) _GetSenderStats(pHandle, &pStats->in.Network);
  _GetRelayStats(pHandle, pStats);
  _GetDetectionStats(pHandle, pStats);
  UINT32 rate = 0;
  if (pHandle->hOutputRate != nullptr) GetCounterRate(pHandle->hOutputRate, 1, &rate);
  pStats->nBitRateInKbps = rate;
  return TRUE;
}

static void _StoreRelayStats(RELAYER* relayer, const MDATA_RELAY_STATS& stats) {
  MdStore(relayer->nRelayedBytes, stats.nRelayedBytes);
  MdStore(relayer->nRelayedMessages, stats.nRelayedMessages);
  MdStore(relayer->nRelayErrors, stats.nRelayErrors);
  MdStore(relayer->iLastRelayError, stats.iLastRelayError);
  MdStore(relayer->iLastRelayErrorTime, stats.iLastRelayErrorTime);
}

BOOL MetaData_ResetSourceStats(HMDATASRC hDataSrc) {
  const MDATA_SRC_HANDLE pHandle = hDataSrc;
  MdLock lock(g_MetaDataAPIMutex);
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
  for (RELAYER& relayer : pHandle->Relayers) _StoreRelayStats(&relayer, {});
  // KEPT: the detected TTL and TOS and their times stay.
  MdStore(pHandle->nSourceTOSUpdates, 0);
  MdStore(pHandle->nSourceTTLUpdates, 0);
  _CopyKLVStats(&pHandle->KLVStats, {});
  if (pHandle->hOutputRate != nullptr) ResetCounterRateTable(pHandle->hOutputRate);
  return TRUE;
}

static void _SetProtocolStats(MDATA_SRC_HANDLE hSource, const MDATA_SRC_STATS* stats) MD_REQUIRES(g_MetaDataAPIMutex) {
  if (hSource->Config.enDataType == MDATA_DATA_KLV) {
    _CopyKLVStats(&hSource->KLVStats, stats->prot.KLV);
    return;
  }
  if (hSource->Config.enDataType != MDATA_DATA_COT || hSource->hConverter == nullptr) return;
  MDATA_COT_STATS cot = {};  // KEPT: only three of the counters are passed on
  cot.nRxSPIMessages = stats->prot.CoT.nRxSPIMessages;
  cot.nRxAirCraftMessages = stats->prot.CoT.nRxAirCraftMessages;
  cot.nFilteredRxSPIMessages = stats->prot.CoT.nFilteredRxSPIMessages;
  SetCoT2KLVConvertStats(hSource->hConverter, &cot);
}

BOOL MetaData_SetSourceStats(HMDATASRC hDataSrc, const MDATA_SRC_STATS* pStats) {
  const MDATA_SRC_HANDLE pHandle = hDataSrc;
  MdLock lock(g_MetaDataAPIMutex);
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
// 8. Shared steps of the receive paths: raw capture, counting, discarding. Metadata thread; state: the record's capture
//    file. Rewriting and delivery are in md_delivery.
// =====================================================================================================

// Writes received bytes to the raw capture. A capture that fails or is full is closed and not opened again.
static void _CaptureRaw(MDATA_SRC_HANDLE hSource, int size) MD_REQUIRES(kMetadataThread) {
  if (hSource->CaptureFP == nullptr) return;
  if (!DumpRawData(hSource->CaptureFP, hSource->RxBuffer, size, &hSource->nRawOutputOffset,
                   hSource->Config.nMaxCaptureSizeInKBytes))
    _CloseFile(hSource->CaptureFP);
}

// Counts a message that does not pass through the decoder in the decoder's counters, and feeds the rate.
static void _CountMessage(MDATA_SRC_HANDLE hSource, int length, time_t now) MD_REQUIRES(kMetadataThread) {
  if (hSource->pvDecodeCtxt == nullptr) return;
  KLV_STATS* stats = GenericKLV_GetStatsPtr(hSource->pvDecodeCtxt);
  MdAddFetch(stats->nRxOkMessages, 1);
  const UINT64 total = MdAddFetch(stats->nTotalRxBytes, length);
  _FeedOutputRate(hSource, total, now);
}

// Reads and drops the input of a source whose close was given up, without logging, so that its descriptor does not wake
// the thread again and again until the source is removed from the read set.
static void _DiscardInput(MDATA_SRC_HANDLE hSource, int fd) MD_REQUIRES(kMetadataThread) {
  ssize_t taken = 0;
  if (hSource->Config.enInputType == MDATA_INPUT_NETWORK) {
    struct iovec part = {hSource->RxBuffer, sizeof(hSource->RxBuffer)};
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    taken = recvmsg(fd, &message, MSG_DONTWAIT);
  } else {
    taken = read(fd, hSource->RxBuffer, kSerialReadSize);
  }
  if (taken <= 0) _SleepMs(1);  // readable, but without data
}

// =====================================================================================================
// 9. KLV paths. The read handlers of serial sources and of KLV over UDP, the message handler of the KLV stream
//    decoder, and the encoder's release call. Metadata thread, except MetaData_ReleaseBuffer; the serial path holds
//    g_MetaDataAPIMutex while it reads, decodes and calls back.
// =====================================================================================================

static bool _ReadSerial(MDATA_SRC_HANDLE hSource, int fd) MD_REQUIRES(kMetadataThread, g_MetaDataAPIMutex) {
  const int received = static_cast<int>(read(fd, hSource->RxBuffer, kSerialReadSize));
  if (received <= 0) {
    MD_LOG(7, "read FAILED.\n");  // KEPT: the descriptor stays in the read set
    return false;
  }
  _CaptureRaw(hSource, received);
  MD_LOG(7, "read successfully %d bytes from serial port.\n", received);
  MD_DUMP(7, "Input Data", hSource->RxBuffer, received);
  if (hSource->pfnDataRxHandler != nullptr)
    hSource->pfnDataRxHandler(hSource->pvDecodeCtxt, hSource->RxBuffer, received);
  return true;
}

void _SerialDataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  kMetadataThread.Assume();
  const MDATA_SRC_HANDLE hSource = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(hSource)) return _DiscardInput(hSource, iFD);
  MD_LOG(7, "Called fd=%d.\n", iFD);
  // An opener holds the mutex while it waits for this very thread: the bytes stay for the next pass.
  if (!g_MetaDataAPIMutex.LockWithin(kSerialLockMs)) return;
  const bool gotData = _ReadSerial(hSource, iFD);
  g_MetaDataAPIMutex.Unlock();
  // A device that has hung up stays readable, but without data: do not spin on it.
  if (!gotData) _SleepMs(1);
}

void _KLV_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1) {
  kMetadataThread.Assume();
  const time_t now = time(nullptr);
  const MDATA_SRC_HANDLE hSource = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(hSource)) return;  // the rest of a chunk
  MdBufferRef substituted;
  if (hSource->Config.enInputType == MDATA_INPUT_SERIAL &&
      _RewriteOnPath(hSource, kKLVSerialTexts, pBuff->pcData, pBuff->nDataSize, substituted) == Rewritten::Dropped)
    return;
  MDATA_BUFFER* current = substituted.Get() != nullptr ? substituted.Get() : pBuff;
  const int length = current->nDataSize;
  // KEPT: relayed after rewriting and without TTL and TOS, unlike UDP.
  if (hSource->Config.nNumOfRelays != 0)
    _RelayMetaData(hSource, current->pcData, static_cast<size_t>(length), nullptr, nullptr);
  if (hSource->pvDecodeCtxt != nullptr)
    _FeedOutputRate(hSource, MdLoad(GenericKLV_GetStatsPtr(hSource->pvDecodeCtxt)->nTotalRxBytes), now);
  _Deliver(hSource, kKLVSerialTexts, current, length);  // KEPT: the result is ignored
}

void _KLV_UDP_DataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  kMetadataThread.Assume();
  const time_t now = time(nullptr);
  const MDATA_SRC_HANDLE hSource = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(hSource)) return _DiscardInput(hSource, iFD);
  BYTE tos = 0;
  BYTE ttl = 0;
  struct sockaddr_storage from;
  MD_LOG(7, "Called.\n");
  const int length = _ReceiveDatagram(hSource, iFD, &from, &tos, &ttl);
  if (length <= 0) return;
  if (MdLogEnabled(g_hMetaDataLibDbg, 7)) {
    MD_LOG(7, "Received %d bytes from %s.\n", length, SenderText(from).text);
    MD_DUMP(7, "Input KLV over UDP Message", hSource->RxBuffer, length);
  }
  if (hSource->CaptureFP != nullptr) _CaptureRaw(hSource, length);

  MdBufferRef message;
  const Rewritten result = _WantsRewriting(hSource)
                               ? _RewriteOnPath(hSource, kKLVUDPTexts, hSource->RxBuffer, length, message)
                               : Rewritten::Unchanged;
  // KEPT: relayed as received, with the received TOS and TTL, even if nothing is left to deliver.
  if (hSource->Config.nNumOfRelays != 0)
    _RelayMetaData(hSource, hSource->RxBuffer, static_cast<size_t>(length), &tos, &ttl);
  if (result == Rewritten::Dropped) return;
  if (result == Rewritten::Unchanged &&
      !DoAllocCopyBufferEx(hSource->RxBuffer, length, MDATA_STREAM_HEADER_SIZE, message.Out())) {
    MD_LOG(4, "No memory for KLV message of %d bytes, dropping it.\n", length);
    return;
  }
  _CountMessage(hSource, length, now);
  // KEPT: the header has the received length, even for a rewritten message; the result is ignored.
  _Deliver(hSource, kKLVUDPTexts, message.Get(), length);
}

void MetaData_ReleaseBuffer(MDATA_BUFFER* pBuff) {
  DoReleaseBuffer(&pBuff);
}

// =====================================================================================================
// 10. CoT paths. The read handler of CoT over UDP and the message handler of the serial CoT decoder. Metadata thread;
//     the serial one runs inside the serial read handler, under g_MetaDataAPIMutex.
// =====================================================================================================

static void _CountCoTDatagram(MDATA_SRC_HANDLE hSource, int length) MD_REQUIRES(kMetadataThread) {
  if (hSource->pvDecodeCtxt == nullptr) return;
  COT_STATS* stats = COT_GetStatsPtr(hSource->pvDecodeCtxt);
  MdAddFetch(stats->nRxOkMessages, 1);
  MdAddFetch(stats->nTotalRxBytes, length);
}

// Converts one event. Returns true if a packet was produced, with the converter's length. Producing none while waiting
// for the partner event is normal and not logged.
static bool _Convert(MDATA_SRC_HANDLE hSource, const BYTE* xml, int size, MdBufferRef& packet, int* length)
    MD_REQUIRES(kMetadataThread) {
  if (hSource->hConverter == nullptr) return false;
  *length = ConvertCoT2KLV(hSource->hConverter, xml, size, packet.Out());
  if (*length > 0 && packet.Get() != nullptr) return true;
  if (packet.Get() != nullptr) ReleaseConvertedData(packet.Release());
  return false;
}

// Rewrites a converted packet and counts it. Returns false if nothing is left to send.
// KEPT: the length after rewriting counts, and feeds the rate.
static bool _RewriteAndCountConverted(MDATA_SRC_HANDLE hSource, const PathTexts& texts, MdBufferRef& packet,
                                      int* length) MD_REQUIRES(kMetadataThread) {
  const Rewritten result = _RewriteOnPath(hSource, texts, packet->pcData, *length, packet);
  if (result == Rewritten::Dropped) return false;
  if (result == Rewritten::Replaced) *length = packet->nDataSize;
  MdAddFetch(hSource->nCoTConvertedKLVMessages, 1);
  MdAddFetch(hSource->nCoTConvertedKLVBytes, *length);
  return true;
}

void _CoT_UDP_DataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  kMetadataThread.Assume();
  const time_t now = time(nullptr);
  const MDATA_SRC_HANDLE hSource = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(hSource)) return _DiscardInput(hSource, iFD);
  BYTE tos = 0;
  BYTE ttl = 0;
  struct sockaddr_storage from;
  const int length = _ReceiveDatagram(hSource, iFD, &from, &tos, &ttl);
  if (length <= 0) return;
  _CountCoTDatagram(hSource, length);
  MD_LOG(7, "Received %d bytes from %s.\n", length, SenderText(from).text);
  MD_DUMP(7, "UDP Data", hSource->RxBuffer, length);
  if (hSource->Config.nNumOfRelays != 0)
    _RelayMetaData(hSource, hSource->RxBuffer, static_cast<size_t>(length), &tos, &ttl);
  else
    MD_LOG(7, "No relays configured (%u).\n", hSource->Config.nNumOfRelays);

  MdBufferRef packet;
  int convertedLength = 0;
  if (!_Convert(hSource, hSource->RxBuffer, length, packet, &convertedLength)) return;
  MD_LOG(7, "KLV message of %d bytes generated by conversion.\n", convertedLength);
  if (!_RewriteAndCountConverted(hSource, kCoTUDPTexts, packet, &convertedLength)) return;
  _FeedOutputRate(hSource, MdLoad(hSource->nCoTConvertedKLVBytes), now);
  _Deliver(hSource, kCoTUDPTexts, packet.Get(), convertedLength);
  // KEPT: released like any other buffer; the serial path releases it with ReleaseConvertedData.
}

void _CoT_RxCallBack(MDATA_BUFFER* pBuff, void* pvParam1) {
  kMetadataThread.Assume();
  const time_t now = time(nullptr);
  const MDATA_SRC_HANDLE pHandle = static_cast<MDATA_SRC_HANDLE>(pvParam1);
  if (_IsGivenUp(pHandle)) return;   // the rest of a chunk
  if (!_g_bGridInitialized) return;  // KEPT: without logging; CoT over UDP converts without the grid
  MD_ASSERT(pHandle->hConverter != NULL);
  if (pHandle->Config.nNumOfRelays != 0)
    _RelayMetaData(pHandle, pBuff->pcData, static_cast<size_t>(pBuff->nDataSize), nullptr, nullptr);

  MdBufferRef packet;
  int convertedLength = 0;
  if (!_Convert(pHandle, pBuff->pcData, pBuff->nDataSize, packet, &convertedLength)) return;
  if (!_RewriteAndCountConverted(pHandle, kCoTSerialTexts, packet, &convertedLength)) return;
  MD_ASSERT_TEXT(convertedLength < kMaxConvertedLength, "nConvertedLength < 16000");  // KEPT: on this path only
  _FeedOutputRate(pHandle, MdLoad(pHandle->nCoTConvertedKLVBytes), now);
  _Deliver(pHandle, kCoTSerialTexts, packet.Get(), convertedLength);
  ReleaseConvertedData(packet.Release());
}

// =====================================================================================================
// 11. Video path and decimation. The read handler of a video input's capture, which serves every source of that
//     input. Metadata thread; no lock. State: the records' DecimateCtrl and the library-wide _tLastLogTime.
// =====================================================================================================

namespace {

enum class Pulled { Packet, Nothing, OutOfMemory };

}  // namespace

// All timestamps are compared for equality only.
// KEPT: only the last dropped timestamp is remembered; an older one that comes back counts as new.
BOOL _ShouldDecimateKLV(MDATA_SRC_HANDLE hSource, MDATA_TIMESTAMP TimeStamp) {
  KLV_DECIM_CTRL* control = &hSource->DecimateCtrl;
  const unsigned long long timeStamp = TimeStamp;
  if (control->ActivitePTS == kNoPTS) {
    control->ActivitePTS = TimeStamp;
    MD_ASSERT(hSource->DecimateCtrl.nDecimatedCount == 0);
    MD_LOG(7, "Not decimating initial KLV with timestamp of 0x%09LX.\n", timeStamp);
    return FALSE;
  }
  if (TimeStamp == control->ActivitePTS) {
    MD_LOG(7, "Not decimating active KLV timestamp of 0x%09LX.\n", timeStamp);
    return FALSE;
  }
  if (TimeStamp == control->DecimatedPTS) {
    MD_LOG(7, "Decimating decimated KLV timestamp of 0x%09LX.\n", timeStamp);
    return TRUE;
  }
  ++control->nDecimatedCount;
  if (control->nDecimatedCount < control->nDecimationFactor) {
    MD_LOG(7, "Decimating new decimated KLV #%d with timestamp of 0x%09LX.\n", control->nDecimatedCount, timeStamp);
    control->DecimatedPTS = TimeStamp;
    return TRUE;
  }
  MD_LOG(7, "No longer decimating KLV with timestamp of 0x%09LX.\n", timeStamp);
  control->nDecimatedCount = 0;
  control->ActivitePTS = TimeStamp;
  return FALSE;
}

// Rewrites a captured packet if the source asks for it, and logs that in this path's own lines. Returns false if
// nothing is left to send.
static bool _RewriteCaptured(MDATA_SRC_HANDLE hSource, MdBufferRef& buffer) MD_REQUIRES(kMetadataThread) {
  if (!_WantsRewriting(hSource)) {
    MD_LOG(7, "No mission ID or security data set defined for source#%d.\n", hSource->Config.nIndex);
    return true;
  }
  MD_LOG(7, "Mission ID (%p) or security data set (%p) defined for source#%d.\n",
         static_cast<void*>(hSource->pMissionID), static_cast<void*>(hSource->pSecurityMDataSet),
         hSource->Config.nIndex);
  const Rewritten result = _RewriteOnPath(hSource, kVideoTexts, buffer->pcData, buffer->nDataSize, buffer);
  if (result == Rewritten::Unchanged) MD_LOG(7, "_ProcessRxKLV return FALSE for source#%d.\n", hSource->Config.nIndex);
  return result != Rewritten::Dropped;
}

void _FeedSDIDataSource(MDATA_SRC_HANDLE hSource, MDATA_BUFFER* pBuff, UINT64 nTimeStamp) {
  const time_t now = time(nullptr);
  MdBufferRef buffer(pBuff);
  // KEPT: factor 1 skips the test; with factor 0 the test keeps everything.
  if (hSource->Config.nDecimationFactor != 1 && _ShouldDecimateKLV(hSource, nTimeStamp)) return;
  if (!_RewriteCaptured(hSource, buffer)) return;
  const int length = buffer->nDataSize;
  if (hSource->Config.nNumOfRelays != 0)
    _RelayMetaData(hSource, buffer->pcData, static_cast<size_t>(length), nullptr, nullptr);
  buffer->nTimeStamp = nTimeStamp;
  // KEPT: a buffer that the encoder refuses is not counted, and the next one has the same sequence number; the counted
  // size includes the stream header. An encoder that keeps the buffer may change it, so its size is not read again.
  if (_Deliver(hSource, kVideoTexts, buffer.Get(), length))
    _CountMessage(hSource, length + MDATA_STREAM_HEADER_SIZE, now);
}

// Passes a copy of the packet to every source of the input.
static void _DistributePacket(int interface, const MDATA_BUFFER* buffer, UINT64 timeStamp)
    MD_REQUIRES(kMetadataThread) {
  _g_SrcListLock.AssumeOnlyWriter();
  for (const FNODE_D* node = g_MetaDataSrcList.pHead; node != nullptr; node = node->pNext) {
    const MDATA_SRC_HANDLE hSource = _SourceOf(node);
    if (hSource->Config.enInputType != MDATA_INPUT_VIDEO) continue;
    if (hSource->Config.in.Video.enInputInterface != interface) continue;
    if (_IsGivenUp(hSource)) continue;
    MDATA_BUFFER* copy = nullptr;
    if (DoAllocCopyBufferEx(buffer->pcData, buffer->nDataSize, MDATA_STREAM_HEADER_SIZE, &copy))
      _FeedSDIDataSource(hSource, copy, timeStamp);
  }
}

static int _CountSources() MD_REQUIRES(kMetadataThread) {
  _g_SrcListLock.AssumeOnlyWriter();
  int count = 0;
  for (const FNODE_D* node = g_MetaDataSrcList.pHead; node != nullptr; node = node->pNext) ++count;
  return count;
}

// Reads one packet from the capture and distributes it.
static Pulled _PullPacket(int fd, int interface) MD_REQUIRES(kMetadataThread) {
  MDATA_BUFFER* packet = nullptr;
  // The capture may write kVideoRoom bytes behind the reserve, so the buffer has that much room there.
  if (!_AllocUnfilledBuffer(kVideoRoom + MDATA_STREAM_HEADER_SIZE, &packet)) {
    MD_LOG(4, "Failed to allocate buffer of %d bytes for KLV on BNC-%d.\n", kVideoRoom, interface);
    return Pulled::OutOfMemory;
  }
  MdBufferRef buffer(packet);
  packet->pcData += MDATA_STREAM_HEADER_SIZE;
  packet->nDataSize = kVideoRoom;
  UINT64 timeStamp = 0;
  if (!KLVCAPTURE_GetKLV(fd, packet->pcData, &packet->nDataSize, &timeStamp)) return Pulled::Nothing;
  if (packet->nDataSize < 0 || packet->nDataSize > kVideoRoom) {
    MD_LOG(4, "Dropping KLV with an impossible length of %d bytes on BNC-%d.\n", packet->nDataSize, interface);
    return Pulled::Packet;
  }
  MD_LOG(7, "Got %d bytes of KLV on BNC-%d.\n", packet->nDataSize, interface);
  MD_DUMP(7, "HD-SDI KLV Message", packet->pcData, packet->nDataSize);
  MD_LOG(7, "Going through %d metadata sources.\n", _CountSources());
  _DistributePacket(interface, packet, timeStamp);
  return Pulled::Packet;
}

void _SDIDataRxCallBack(HFDSET, int iFD, int, void* pvParam1, void*) {
  kMetadataThread.Assume();
  const int interface = static_cast<int>(reinterpret_cast<intptr_t>(pvParam1));
  const time_t now = time(nullptr);
  MD_LOG(7, "Called.\n");
  int count = 0;
  Pulled last = Pulled::Packet;
  while (count < kMaxKLVPerIteration && last == Pulled::Packet) {
    last = _PullPacket(iFD, interface);
    if (last == Pulled::Packet) ++count;
  }
  if (count == kMaxKLVPerIteration)
    MD_LOG(4, "Reached maximum number of KLV (%d) for one iteration.\n", kMaxKLVPerIteration);
  // KEPT: one such line per second for all inputs together.
  if (count == 0 && last == Pulled::Nothing && now != _tLastLogTime) {
    MD_LOG(4, "No KLV retrieved from BNC-%d.\n", interface);
    _tLastLogTime = now;
  }
}
