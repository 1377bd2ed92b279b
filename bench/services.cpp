// SPDX-License-Identifier: Apache-2.0
// Buffers, mailboxes and descriptor sets.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "floors/floors.h"
#include "host.h"
#include "metadata_lib.h"
#include "traffic.h"
#include "workload.h"

namespace bench {
namespace {

constexpr int kRepeats = 64;

// --- Buffers -----------------------------------------------------------------------------------------

Work BufferOurs(std::size_t size) {
  UseLibrary(kDefaultLogLevel);
  auto data = std::make_shared<Bytes>(Noise(size, 0));
  return {[=] {
            for (int i = 0; i < kRepeats; ++i) {
              MDATA_BUFFER* buffer = nullptr;
              DoAllocCopyBufferEx(data->data(), static_cast<int>(size), MDATA_STREAM_HEADER_SIZE, &buffer);
              DoReleaseBuffer(&buffer);
            }
          },
          kRepeats};
}

Work BufferFloor(std::size_t size) {
  UseLibrary(kDefaultLogLevel);
  auto data = std::make_shared<Bytes>(Noise(size, 0));
  return {[=] {
            for (int i = 0; i < kRepeats; ++i) FloorBuffer(data->data(), size);
          },
          kRepeats};
}

bool AddBuffer(const std::string& name, std::size_t size) {
  Add(name + "/ours", [=] { return BufferOurs(size); });
  return Add(name + "/floor", [=] { return BufferFloor(size); });
}

// --- Mailboxes ---------------------------------------------------------------------------------------

// Enough that a wake-up of the library's own thread, some 500 instructions that fall into one count in two, does not show.
constexpr int kMessagesCounted = 2000;

// Sends so many messages, then takes them all.
Work MailboxOurs(int queued) {
  UseLibrary(kDefaultLogLevel);
  MBOX_CONFIG config = {sizeof(MBOX_CONFIG), "bench", TRUE};
  HMBOX made = nullptr;
  Require(MBOX_CreateMailBox(&config, &made), "no mailbox");
  std::shared_ptr<tagHOST_MBOX> mailbox(made, [](HMBOX closed) { MBOX_CloseMailBox(&closed); });
  return {[=] {
            for (int i = 0; i < queued; ++i) {
              HMBOXMSG message = __MBOX_AllocMessage(0, "MailboxOurs", "bench", __LINE__);
              MBOX_GetMessageHeader(message)->dwEventID = 1;
              MBOX_SendMessage(mailbox.get(), message, 0);
            }
            for (HMBOXMSG message = nullptr; MBOX_RecvMessage(mailbox.get(), &message);) MBOX_FreeMessage(message);
          },
          static_cast<double>(queued), kMessagesCounted / queued};
}

Work MailboxFloor(int queued) {
  UseLibrary(kDefaultLogLevel);
  std::shared_ptr<FloorMailbox> mailbox(FloorMailboxOpen(), FloorMailboxClose);
  return {[=] {
            for (int i = 0; i < queued; ++i) FloorMailboxSend(mailbox.get(), 1, nullptr);
            std::uint32_t event = 0;
            for (void* parameter = nullptr; FloorMailboxReceive(mailbox.get(), &event, &parameter) == 0;) {
            }
          },
          static_cast<double>(queued), kMessagesCounted / queued};
}

bool AddMailbox(const std::string& name, int queued) {
  Add(name + "/ours", [=] { return MailboxOurs(queued); });
  return Add(name + "/floor", [=] { return MailboxFloor(queued); });
}

// --- Descriptor sets ---------------------------------------------------------------------------------

// Descriptors of which one is always readable. Both sides count its calls.
struct Descriptors {
  explicit Descriptors(int count) {
    for (int i = 0; i < count; ++i) all.push_back(eventfd(i == count / 2 ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
  }
  ~Descriptors() {
    if (set != nullptr) FDMGR_CloseSet(&set);
    if (epoll >= 0) close(epoll);
    for (const int descriptor : all) close(descriptor);
  }
  Descriptors(const Descriptors&) = delete;
  Descriptors& operator=(const Descriptors&) = delete;

  std::vector<int> all;
  HFDSET set = nullptr;
  int epoll = -1;
  std::uint64_t calls = 0;
  std::uint64_t wanted = 0;
};

void CountCall(HFDSET, int, int, void* user, void*) {
  ++static_cast<Descriptors*>(user)->calls;
}

void CountFloorCall(int, void* user) {
  ++static_cast<Descriptors*>(user)->calls;
}

// A pass may call a descriptor more than once; what counts is the price of a call.
Work SelectOurs(int count) {
  UseLibrary(kDefaultLogLevel);
  auto descriptors = std::make_shared<Descriptors>(count);
  Require(__FDMGR_CreateSet("bench", &descriptors->set, __func__, "bench", __LINE__), "no descriptor set");
  for (const int descriptor : descriptors->all) {
    __FDMGR_AddReadFD(descriptors->set, descriptor, CountCall, descriptors.get(), nullptr, __func__, "bench", __LINE__);
  }
  return {[=] {
            descriptors->wanted += kRepeats;
            while (descriptors->calls < descriptors->wanted) FDMGR_Select(descriptors->set);
          },
          kRepeats};
}

Work SelectFloor(int count) {
  UseLibrary(kDefaultLogLevel);
  auto descriptors = std::make_shared<Descriptors>(count);
  descriptors->epoll = epoll_create1(EPOLL_CLOEXEC);
  for (const int descriptor : descriptors->all) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(descriptors->epoll, EPOLL_CTL_ADD, descriptor, &event);
  }
  return {[=] {
            descriptors->wanted += kRepeats;
            while (descriptors->calls < descriptors->wanted) {
              FloorSelect(descriptors->epoll, CountFloorCall, descriptors.get());
            }
          },
          kRepeats};
}

bool AddSelect(const std::string& name, int count) {
  Add(name + "/ours", [=] { return SelectOurs(count); });
  return Add(name + "/floor", [=] { return SelectFloor(count); });
}

const bool kServicesAdded[] = {
    AddBuffer("buffer", 259),      AddBuffer("buffer_1", 1),          AddBuffer("buffer_64k", 65'536),
    AddMailbox("mailbox", 1),      AddMailbox("mailbox_queued", 100), AddSelect("select_1_of_16", 16),
    AddSelect("select_1_of_1", 1),
};

}  // namespace
}  // namespace bench
