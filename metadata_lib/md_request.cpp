// SPDX-License-Identifier: Apache-2.0
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
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<UINT64>(now.tv_sec) * 1000 + static_cast<UINT64>(now.tv_nsec) / 1000000;
}

void _ResetRequests() {
  MdStoreRelease(_g_nShutdownRequest, REQUEST_NONE);
  MdStoreRelease(_g_nStrayPosts, 0);
}

static bool _ChangeRequest(int32_t& request, int32_t from, int32_t to) {
  return MdCompareExchange(request, from, to);
}

bool _CompleteRequest(int32_t& request) {
  if (_ChangeRequest(request, REQUEST_PENDING, REQUEST_DONE)) return false;
  MdAddFetch(_g_nStrayPosts, 1);
  return _ChangeRequest(request, REQUEST_ABANDONED, REQUEST_DONE);
}

static bool _SwallowStrayPost() {
  int32_t count = MdLoadAcquire(_g_nStrayPosts);
  while (count > 0) {
    if (_ChangeRequest(_g_nStrayPosts, count, count - 1)) return true;
    count = MdLoadAcquire(_g_nStrayPosts);
  }
  return false;
}

bool _WaitForRequest(int32_t& request, DWORD limitMs) {
  const UINT64 start = _MonotonicMs();
  DWORD left = limitMs;
  errno = ETIMEDOUT;
  while (left > 0 && _DoWaitCond_WaitFor(&_g_MetaDataThreadCond, left, __func__, MD_MODULE, __LINE__)) {
    if (MdLoadAcquire(request) == REQUEST_DONE) return true;
    if (!_SwallowStrayPost()) {
      WaitCond_Post(&_g_MetaDataThreadCond);
      _SleepMs(1);
    }
    const UINT64 elapsed = _MonotonicMs() - start;
    const DWORD byClock = elapsed >= limitMs ? 0 : limitMs - static_cast<DWORD>(elapsed);
    left = byClock < left ? byClock : left - 1;
    errno = ETIMEDOUT;
  }
  const int error = errno;
  if (!_ChangeRequest(request, REQUEST_PENDING, REQUEST_ABANDONED)) {
    MdAddFetch(_g_nStrayPosts, 1);  // carried out at the last moment: its post is left over
    return true;
  }
  errno = error;
  return false;
}

// =====================================================================================================
// Control messages
// =====================================================================================================

HMBOXMSG _AllocControlMessage(DWORD eventId, MDATA_SRC_HANDLE hSource) {
  HMBOXMSG hMsg = __MBOX_AllocMessage(0, __func__, MD_MODULE, __LINE__);
  if (hMsg == nullptr) return nullptr;
  MBOX_MSGHEADER* header = MBOX_GetMessageHeader(hMsg);
  header->dwEventID = eventId;
  header->pvParam1 = hSource;
  return hMsg;
}

// KEPT: a failed send is only logged and the wait still takes place; nothing is undone after it.
bool _CallThread(HMBOXMSG hMsg, int32_t& request, DWORD limitMs, bool* sent) {
  MdStoreRelease(request, REQUEST_PENDING);
  *sent = MBOX_SendMessage(_g_hMetaDataThreadMBox, hMsg, 0) != FALSE;
  if (!*sent) {
    MD_LOG(3, "MBOX_SendMessage FAILED.\n");
    MBOX_FreeMessage(hMsg);
  }
  MD_LOG(6, "Waiting for metadata source thread semaphore.\n");
  if (!_WaitForRequest(request, limitMs)) return false;
  MD_LOG(6, "Wait successful.\n");
  return true;
}

// Failed attempts are logged once.
bool _CallThreadToEnd(HMBOXMSG hMsg, bool* sent) {
  const UINT64 start = _MonotonicMs();
  UINT64 elapsed = 0;
  MdStoreRelease(_g_nShutdownRequest, REQUEST_PENDING);
  *sent = MBOX_SendMessage(_g_hMetaDataThreadMBox, hMsg, 0) != FALSE;
  if (!*sent) MD_LOG(3, "MBOX_SendMessage FAILED.\n");
  MD_LOG(6, "Waiting for metadata source thread semaphore.\n");
  while (!*sent && elapsed < kShutdownWaitMs) {
    _SleepMs(kResendPauseMs);
    *sent = MBOX_SendMessage(_g_hMetaDataThreadMBox, hMsg, 0) != FALSE;
    elapsed = _MonotonicMs() - start;
  }
  if (!*sent) MBOX_FreeMessage(hMsg);
  const DWORD left = elapsed < kShutdownWaitMs ? kShutdownWaitMs - static_cast<DWORD>(elapsed) : 0;
  if (!_WaitForRequest(_g_nShutdownRequest, left)) return false;
  MD_LOG(6, "Wait successful.\n");
  return true;
}
