// SPDX-License-Identifier: Apache-2.0
// Mailboxes: first in, first out; any thread sends, one thread receives.
#ifndef HOST_MBOX_H
#define HOST_MBOX_H

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tagHOST_MBOX* HMBOX;
typedef struct tagHOST_MBOX_MSG* HMBOXMSG;

typedef struct tagMBOX_CONFIG {
  int nSize;  // sizeof(MBOX_CONFIG)
  const char* szName;
  BOOL bDeleteIfAreadyExisted;  // replace a mailbox of the same name
} MBOX_CONFIG;

typedef struct tagMBOX_MSGHEADER {
  DWORD dwEventID;
  DWORD dwEventSubID;
  void* pvParam1;
  void* pvParam2;
} MBOX_MSGHEADER;

BOOL MBOX_CreateMailBox(const MBOX_CONFIG* pConfig, HMBOX* phMBox);
// A descriptor that is readable while messages are queued; owned by the mailbox.
int MBOX_GetNotificationFD(HMBOX hMBox);
// A message with room for nDataSize bytes of data; NULL without memory.
HMBOXMSG __MBOX_AllocMessage(size_t nDataSize, const char* szFunction, const char* szFile, int nLine);
MBOX_MSGHEADER* MBOX_GetMessageHeader(HMBOXMSG hMsg);
// Queues the message; on FALSE it stays with the caller.
BOOL MBOX_SendMessage(HMBOX hMBox, HMBOXMSG hMsg, DWORD dwOptions);
// Takes the oldest message; FALSE when there is none. Never blocks.
BOOL MBOX_RecvMessage(HMBOX hMBox, HMBOXMSG* phMsg);
void MBOX_FreeMessage(HMBOXMSG hMsg);
// Frees the mailbox and what is still queued, and clears *phMBox.
BOOL MBOX_CloseMailBox(HMBOX* phMBox);

#ifdef __cplusplus
}
#endif

#endif  // HOST_MBOX_H
