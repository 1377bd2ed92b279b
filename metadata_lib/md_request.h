// SPDX-License-Identifier: Apache-2.0
// Requests to the metadata thread: their completion marks, control messages and waiting.
//
// The encoder's threads send a control message and wait; the thread carries it out, sets the request's own completion
// mark and posts _g_MetaDataThreadCond exactly once.
//
// The condition only counts; it does not say whose request was carried out. A waiter therefore trusts only its own
// mark:
// - a post that arrives once our own mark is set ends the wait, whoever it was meant for; the totals still balance;
// - a post that arrives before is swallowed if an earlier waiter gave up (_g_nStrayPosts counts those posts); otherwise
//   it belongs to another waiter and is posted again;
// - a waiter that runs out of time marks its request as abandoned, unless the thread was faster, and the thread then
//   finishes what the waiter would have done: a record is never freed while the thread may still use it.
#ifndef MD_REQUEST_H
#define MD_REQUEST_H

#include <stdint.h>

#include "host.h"
#include "md_atomic.h"
#include "md_mutex.h"
#include "md_source.h"
#include "metadata_lib.h"

inline constexpr DWORD kSourceWaitMs = 5000;    // limit of the wait for an added or removed source
inline constexpr DWORD kShutdownWaitMs = 3000;  // limit of the wait for the thread's end

// Control messages of the metadata thread; pvParam1 is the source record.
enum : DWORD { EVENTID_ADD_FD = 0, EVENTID_REMOVE_FD = 1, EVENTID_SHUTDOWN_THREAD = 2 };

extern HMBOX _g_hMetaDataThreadMBox;     // read-only while the thread runs
extern WAIT_COND _g_MetaDataThreadCond;  // posted once per handled control event
extern int32_t _g_nShutdownRequest;      // tagREQUEST_STATE of the shut-down; atomic
extern int32_t _g_nStrayPosts;           // posts in _g_MetaDataThreadCond without a waiter; atomic

// Forgets the requests of an earlier thread. Called before a thread is created.
void _ResetRequests();

// Marks the request as carried out. Returns true if its caller had given up. A caller that had not may free the record
// that holds the mark as soon as this returns. Metadata thread.
bool _CompleteRequest(int32_t& request) MD_REQUIRES(kMetadataThread);

// Returns whether the source's close was given up: its wait timed out, or its message could not be sent. The encoder
// was told that the source is closed, so nothing may reach it, although the record is still in the list and the read
// set. Metadata thread.
inline bool _IsGivenUp(const tagMDATA_SRC_HANDLE* hSource) {
  return MdLoadAcquire(hSource->nRemoveRequest) == REQUEST_ABANDONED;
}

// Waits until the request is carried out, at most limitMs. Returns false, with errno set and the request abandoned, if
// it was not. Encoder threads.
bool _WaitForRequest(int32_t& request, DWORD limitMs);

// Allocates a message for the metadata thread. Returns NULL if out of memory.
HMBOXMSG _AllocControlMessage(DWORD eventId, MDATA_SRC_HANDLE hSource);

// Takes ownership of the message, sends it and waits. Returns the wait's result, with errno set if it is false.
// *sent is whether the message was sent.
bool _CallThread(HMBOXMSG hMsg, int32_t& request, DWORD limitMs, bool* sent);

// Does the same for the shut-down, which must arrive: a thread without sources sleeps until a message wakes it. A
// failed send is therefore repeated, within kShutdownWaitMs for sending and waiting together.
bool _CallThreadToEnd(HMBOXMSG hMsg, bool* sent);

#endif  // MD_REQUEST_H
