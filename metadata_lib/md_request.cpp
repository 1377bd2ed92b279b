// The requests to the metadata thread. See the header for the hand-shake.
#include "md_request.h"

#include <errno.h>
#include <time.h>

#include "md_atomic.h"

// The lines carry the name of the engine, whose requests these are.
#define MD_MODULE "metadata_api"
#include "md_log.h"

HMBOX _g_hMetaDataThreadMBox = nullptr;
WAIT_COND _g_MetaDataThreadCond;
int32_t _g_nShutdownRequest = REQUEST_NONE;
int32_t _g_nStrayPosts = 0;

static constexpr UINT64 kResendPauseMs = 10;  // between two attempts to send the shut-down

// =====================================================================================================
// Marks and posts
// =====================================================================================================

static UINT64 _MonotonicMs() {
  struct timespec Now = {};
  clock_gettime(CLOCK_MONOTONIC, &Now);
  return static_cast<UINT64>(Now.tv_sec) * 1000 + static_cast<UINT64>(Now.tv_nsec) / 1000000;
}

void _ResetRequests() {
  MdStoreRelease(_g_nShutdownRequest, REQUEST_NONE);
  MdStoreRelease(_g_nStrayPosts, 0);
}

static bool _ChangeRequest(int32_t& nRequest, int32_t nFrom, int32_t nTo) {
  return MdCompareExchange(nRequest, nFrom, nTo);
}

bool _CompleteRequest(int32_t& nRequest) {
  if (_ChangeRequest(nRequest, REQUEST_PENDING, REQUEST_DONE)) return false;
  MdAddFetch(_g_nStrayPosts, 1);
  return _ChangeRequest(nRequest, REQUEST_ABANDONED, REQUEST_DONE);
}

static bool _SwallowStrayPost() {
  int32_t nCount = MdLoadAcquire(_g_nStrayPosts);
  while (nCount > 0) {
    if (_ChangeRequest(_g_nStrayPosts, nCount, nCount - 1)) return true;
    nCount = MdLoadAcquire(_g_nStrayPosts);
  }
  return false;
}

bool _WaitForRequest(int32_t& nRequest, DWORD nLimitMs) {
  const UINT64 nStart = _MonotonicMs();
  DWORD nLeft = nLimitMs;
  errno = ETIMEDOUT;
  while (nLeft > 0 && _DoWaitCond_WaitFor(&_g_MetaDataThreadCond, nLeft, __func__, MD_MODULE, __LINE__)) {
    if (MdLoadAcquire(nRequest) == REQUEST_DONE) return true;
    if (!_SwallowStrayPost()) {
      WaitCond_Post(&_g_MetaDataThreadCond);
      _SleepMs(1);
    }
    const UINT64 nElapsed = _MonotonicMs() - nStart;
    const DWORD nByClock = nElapsed >= nLimitMs ? 0 : nLimitMs - static_cast<DWORD>(nElapsed);
    nLeft = nByClock < nLeft ? nByClock : nLeft - 1;
    errno = ETIMEDOUT;
  }
  const int iError = errno;
  if (!_ChangeRequest(nRequest, REQUEST_PENDING, REQUEST_ABANDONED)) {
    MdAddFetch(_g_nStrayPosts, 1);  // carried out at the last moment: its post is left over
    return true;
  }
  errno = iError;
  return false;
}

// =====================================================================================================
// Control messages
// =====================================================================================================

HMBOXMSG _AllocControlMessage(DWORD dwEventID, MDATA_SRC_HANDLE hSource) {
  HMBOXMSG hMsg = __MBOX_AllocMessage(0, __func__, MD_MODULE, __LINE__);
  if (hMsg == nullptr) return nullptr;
  MBOX_MSGHEADER* pHeader = MBOX_GetMessageHeader(hMsg);
  pHeader->dwEventID = dwEventID;
  pHeader->pvParam1 = hSource;
  return hMsg;
}

// KEPT: a failed send is only logged and the wait still takes place; nothing is undone after it.
bool _CallThread(HMBOXMSG hMsg, int32_t& nRequest, DWORD nLimitMs, bool* pbSent) {
  MdStoreRelease(nRequest, REQUEST_PENDING);
  *pbSent = MBOX_SendMessage(_g_hMetaDataThreadMBox, hMsg, 0) != FALSE;
  if (!*pbSent) {
    MD_LOG(3, "MBOX_SendMessage FAILED.\n");
    MBOX_FreeMessage(hMsg);
  }
  MD_LOG(6, "Waiting for metadata source thread semaphore.\n");
  if (!_WaitForRequest(nRequest, nLimitMs)) return false;
  MD_LOG(6, "Wait successful.\n");
  return true;
}

// Failed attempts are logged once.
bool _CallThreadToEnd(HMBOXMSG hMsg, bool* pbSent) {
  const UINT64 nStart = _MonotonicMs();
  UINT64 nElapsed = 0;
  MdStoreRelease(_g_nShutdownRequest, REQUEST_PENDING);
  *pbSent = MBOX_SendMessage(_g_hMetaDataThreadMBox, hMsg, 0) != FALSE;
  if (!*pbSent) MD_LOG(3, "MBOX_SendMessage FAILED.\n");
  MD_LOG(6, "Waiting for metadata source thread semaphore.\n");
  while (!*pbSent && nElapsed < kShutdownWaitMs) {
    _SleepMs(kResendPauseMs);
    *pbSent = MBOX_SendMessage(_g_hMetaDataThreadMBox, hMsg, 0) != FALSE;
    nElapsed = _MonotonicMs() - nStart;
  }
  if (!*pbSent) MBOX_FreeMessage(hMsg);
  const DWORD nLeft = nElapsed < kShutdownWaitMs ? kShutdownWaitMs - static_cast<DWORD>(nElapsed) : 0;
  if (!_WaitForRequest(_g_nShutdownRequest, nLeft)) return false;
  MD_LOG(6, "Wait successful.\n");
  return true;
}
