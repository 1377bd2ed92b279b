// SPDX-License-Identifier: Apache-2.0
// Mailboxes: each has a queue under a mutex, and an eventfd that is readable while the queue holds messages.
#define HOST_MODULE "mailbox"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "annotated_mutex.h"
#include "owned_fd.h"
#include "runtime_state.h"

using namespace host_runtime;
using common::Lock;
using common::Mutex;

// A message is one block with header and data.
struct tagHOST_MBOX_MSG {
  MBOX_MSGHEADER header;
  size_t dataSize;
  // dataSize bytes follow
};

struct tagHOST_MBOX {
  std::string name;
  common::OwnedFD notification;  // eventfd
  Mutex lock;                    // leaf; also keeps the notification in step with the queue
  std::deque<HMBOXMSG> queue GUARDED_BY(lock);

  ~tagHOST_MBOX() {
    for (HMBOXMSG hMsg : queue) free(hMsg);
  }
};

namespace {

constexpr size_t kMessageLimit = 4096;           // messages in one mailbox
constexpr size_t kDataLimit = size_t{64} << 20;  // bytes of data in one message

// Finds mailboxes by name.
struct Registry {
  Mutex lock;  // taken before the log's
  std::map<std::string, HMBOX> names GUARDED_BY(lock);
};

Registry& Mailboxes() {
  static auto* const kRegistry = new Registry;
  return *kRegistry;
}

}  // namespace

extern "C" {

BOOL MBOX_CreateMailBox(const MBOX_CONFIG* pConfig, HMBOX* phMBox) {
  if (phMBox == nullptr) return FALSE;
  *phMBox = nullptr;
  if (pConfig == nullptr || pConfig->nSize != static_cast<int>(sizeof(*pConfig)) || pConfig->szName == nullptr) {
    return FALSE;
  }
  return NoThrow(FALSE, [&] {
    auto mailbox = std::make_unique<tagHOST_MBOX>();
    mailbox->name = pConfig->szName;
    mailbox->notification.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!mailbox->notification.IsOpen()) {
      HOST_LOG(3, "Cannot make mailbox \"%s\": %s.\n", pConfig->szName, strerror(errno));
      return FALSE;
    }
    const Lock guard(Mailboxes().lock);
    HMBOX& named = Mailboxes().names[mailbox->name];
    if (named != nullptr && !pConfig->bDeleteIfAreadyExisted) {
      HOST_LOG(3, "A mailbox \"%s\" exists already.\n", pConfig->szName);
      return FALSE;
    }
    // A mailbox that is replaced loses its name; its owner still closes it.
    named = mailbox.get();
    *phMBox = mailbox.release();
    return TRUE;
  });
}

int MBOX_GetNotificationFD(HMBOX hMBox) {
  return hMBox == nullptr ? -1 : hMBox->notification.Get();
}

HMBOXMSG __MBOX_AllocMessage(size_t nDataSize, const char* szFunction, const char*, int) {
  const HMBOXMSG hMsg =
      nDataSize > kDataLimit ? nullptr : static_cast<HMBOXMSG>(calloc(1, sizeof(tagHOST_MBOX_MSG) + nDataSize));
  if (hMsg == nullptr) {
    HOST_LOG(3, "%s: no memory for a message of %zu bytes.\n", szFunction, nDataSize);
    return nullptr;
  }
  hMsg->dataSize = nDataSize;
  return hMsg;
}

MBOX_MSGHEADER* MBOX_GetMessageHeader(HMBOXMSG hMsg) {
  return hMsg == nullptr ? nullptr : &hMsg->header;
}

BOOL MBOX_SendMessage(HMBOX hMBox, HMBOXMSG hMsg, DWORD) {
  if (hMBox == nullptr || hMsg == nullptr) return FALSE;
  return NoThrow(FALSE, [&] {
    {
      const Lock guard(hMBox->lock);
      if (hMBox->queue.size() < kMessageLimit) {
        hMBox->queue.push_back(hMsg);
        if (hMBox->queue.size() == 1) eventfd_write(hMBox->notification.Get(), 1);
        return TRUE;
      }
    }
    HOST_LOG(3, "Mailbox \"%s\" is full (%zu messages).\n", hMBox->name.c_str(), kMessageLimit);
    return FALSE;
  });
}

BOOL MBOX_RecvMessage(HMBOX hMBox, HMBOXMSG* phMsg) {
  if (hMBox == nullptr || phMsg == nullptr) return FALSE;
  return NoThrow(FALSE, [&] {
    const Lock guard(hMBox->lock);
    if (hMBox->queue.empty()) return FALSE;
    *phMsg = hMBox->queue.front();
    hMBox->queue.pop_front();
    eventfd_t count = 0;
    if (hMBox->queue.empty()) eventfd_read(hMBox->notification.Get(), &count);
    return TRUE;
  });
}

void MBOX_FreeMessage(HMBOXMSG hMsg) {
  free(hMsg);
}

BOOL MBOX_CloseMailBox(HMBOX* phMBox) {
  if (phMBox == nullptr || *phMBox == nullptr) return FALSE;
  const HMBOX hMBox = *phMBox;
  *phMBox = nullptr;
  NoThrow([&] {
    const Lock guard(Mailboxes().lock);
    const auto named = Mailboxes().names.find(hMBox->name);
    if (named != Mailboxes().names.end() && named->second == hMBox) Mailboxes().names.erase(named);
  });
  delete hMBox;
  return TRUE;
}

}  // extern "C"
