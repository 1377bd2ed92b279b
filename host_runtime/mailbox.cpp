// Mailboxes: a queue and an eventfd that counts what is in it.
#include <errno.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "runtime.h"

struct tagHOST_MBOX_MSG {
  MBOX_MSGHEADER header;
  std::vector<BYTE> data;
};

struct tagHOST_MBOX {
  std::string name;
  int event;  // readable while messages are queued
  std::mutex lock;
  std::deque<HMBOXMSG> queue;
};

// Names in use; under the lock.
static std::mutex g_NamesLock;
static std::set<std::string> g_Names;

extern "C" {

BOOL MBOX_CreateMailBox(const MBOX_CONFIG* pConfig, HMBOX* phMBox) {
  std::lock_guard guard(g_NamesLock);
  if (g_Names.count(pConfig->szName) != 0 && !pConfig->bDeleteIfAreadyExisted) {
    HOST_LOG(3, "a mailbox \"%s\" exists already", pConfig->szName);
    return FALSE;
  }
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
  if (event < 0) {
    HOST_LOG(3, "no mailbox \"%s\": %s", pConfig->szName, runtime::ErrorText(errno).c_str());
    return FALSE;
  }
  *phMBox = new tagHOST_MBOX{pConfig->szName, event, {}, {}};
  g_Names.insert(pConfig->szName);
  return TRUE;
}

int MBOX_GetNotificationFD(HMBOX hMBox) {
  return hMBox->event;
}

HMBOXMSG __MBOX_AllocMessage(size_t nDataSize, const char*, const char*, int) {
  return new (std::nothrow) tagHOST_MBOX_MSG{{}, std::vector<BYTE>(nDataSize)};
}

MBOX_MSGHEADER* MBOX_GetMessageHeader(HMBOXMSG hMsg) {
  return &hMsg->header;
}

BOOL MBOX_SendMessage(HMBOX hMBox, HMBOXMSG hMsg, DWORD) {
  std::lock_guard guard(hMBox->lock);
  const uint64_t one = 1;
  if (write(hMBox->event, &one, sizeof one) != static_cast<ssize_t>(sizeof one)) return FALSE;
  hMBox->queue.push_back(hMsg);
  return TRUE;
}

BOOL MBOX_RecvMessage(HMBOX hMBox, HMBOXMSG* phMsg) {
  std::lock_guard guard(hMBox->lock);
  if (hMBox->queue.empty()) return FALSE;
  uint64_t taken = 0;
  if (read(hMBox->event, &taken, sizeof taken) < 0) HOST_LOG(4, "mailbox \"%s\" had no mark", hMBox->name.c_str());
  *phMsg = hMBox->queue.front();
  hMBox->queue.pop_front();
  return TRUE;
}

void MBOX_FreeMessage(HMBOXMSG hMsg) {
  delete hMsg;
}

BOOL MBOX_CloseMailBox(HMBOX* phMBox) {
  HMBOX mailbox = *phMBox;
  {
    std::lock_guard guard(g_NamesLock);
    g_Names.erase(mailbox->name);
  }
  for (HMBOXMSG message : mailbox->queue) delete message;
  close(mailbox->event);
  delete mailbox;
  *phMBox = nullptr;
  return TRUE;
}

}  // extern "C"
