// SPDX-License-Identifier: Apache-2.0
// Descriptor sets over epoll. A set belongs to the thread that selects on it, so no lock is needed.
//
// A serial device is not watched directly: a SerialLine stands between it and its entry, and decides when the entry is
// readable.
#define HOST_MODULE "fdmgr"

#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "owned_fd.h"
#include "runtime_state.h"
#include "serial_line.h"
#include "serial_port.h"

using namespace host_runtime;

namespace {

constexpr int kReadEvent = 1;  // enEventType of the read callback
// Marks the events of an entry's serial device.
constexpr uint64_t kDeviceTag = uint64_t{1} << 63;

// A descriptor that had no more to read is not asked again for this many calls: asking costs a system call.
constexpr int kCallsUnasked = 7;
// A look without waiting that found nothing is not taken again for this many passes: on a quiet set it is a call too much.
constexpr int kPassesUnpolled = 7;
// How often a pass may call a descriptor that has more to read, all such descriptors in turn, before it waits again.
constexpr int kMostRounds = 16;

struct Entry {
  uint64_t number;
  int fd;
  FDMGR_READ_CALLBACK callback;
  void* param1;
  void* param2;
  bool isDatagrams;                  // of a socket that reads a datagram at a time
  int unasked;                       // calls before it is asked again whether it has more to read
  bool isRemoved;                    // by a callback of the current pass
  std::unique_ptr<SerialLine> line;  // null for anything but a serial device
};

using Entries = std::vector<std::unique_ptr<Entry>>;

}  // namespace

struct tagHOST_FDSET {
  std::string name;
  common::OwnedFD epoll;  // closed after the entries, whose serial devices leave it
  // In the order of addition. Numbers are never reused, so that an event of a removed entry finds nothing, even if its
  // descriptor was added again in the meantime.
  Entries entries;
  size_t lastFound = 0;  // a place in entries, to be tried first
  size_t lines = 0;      // entries with a serial line
  int unpolled = 0;      // passes before the set is looked at again without waiting
  uint64_t nextNumber = 1;
  std::optional<timeval> interval;
  FDMGR_TIMEOUT_CALLBACK timeoutCallback = nullptr;
  void* param1 = nullptr;
  void* param2 = nullptr;
  std::vector<epoll_event> events = std::vector<epoll_event>(1);  // of the current pass
  std::vector<Entry*> ready;                                      // of the current pass, in the order of addition
  Entries removed;  // by callbacks of the current pass, which may still name them in 'ready'

  Entries::iterator Find(int fd) {
    return std::find_if(entries.begin(), entries.end(), [fd](const auto& entry) { return entry->fd == fd; });
  }
  // Returns null for an entry that was removed. Most events are of the entry that had the last one.
  Entry* FindNumber(uint64_t number) {
    if (lastFound < entries.size() && entries[lastFound]->number == number) return entries[lastFound].get();
    const auto found = std::lower_bound(entries.begin(), entries.end(), number,
                                        [](const auto& entry, uint64_t wanted) { return entry->number < wanted; });
    if (found == entries.end() || (*found)->number != number) return nullptr;
    lastFound = static_cast<size_t>(found - entries.begin());
    return found->get();
  }
  void Erase(Entries::iterator entry) {
    if ((*entry)->line != nullptr) --lines;
    (*entry)->line.reset();
    (*entry)->isRemoved = true;
    removed.push_back(std::move(*entry));
    entries.erase(entry);
  }
};

namespace {

constexpr int64_t kNever = SerialPieces::kNever;
// A thread that waits gives a sign so often that it is alive.
constexpr int64_t kSignEachMs = 1000;

// Returns milliseconds, rounded up so that no pass ends early, or -1 without an interval.
int64_t IntervalMs(const std::optional<timeval>& interval) {
  if (!interval) return -1;
  const int64_t ms = int64_t{interval->tv_sec} * 1000 + (interval->tv_usec + 999) / 1000;
  return std::clamp<int64_t>(ms, 0, std::numeric_limits<int>::max());
}

// Waits for events until `end`, or until a sign is due. Returns their number, 0 after the time or a signal, or -1 with
// errno.
int WaitForEvents(tagHOST_FDSET& set, int64_t end) {
  int64_t wait = kSignEachMs;
  if (end != kNever) wait = std::clamp<int64_t>((end - MonotonicNs() + 999'999) / 1'000'000, 0, kSignEachMs);
  const int count =
      epoll_wait(set.epoll.Get(), set.events.data(), static_cast<int>(set.events.size()), static_cast<int>(wait));
  return count < 0 && errno == EINTR ? 0 : count;
}

int64_t NextOfLines(const tagHOST_FDSET& set) {
  int64_t next = kNever;
  if (set.lines == 0) return next;
  for (const auto& entry : set.entries) {
    if (entry->line != nullptr) next = std::min(next, entry->line->Due());
  }
  return next;
}

// Reads the serial devices of these events, and collects the entries that have gathered enough.
void CollectLines(tagHOST_FDSET& set, int count) {
  const int64_t now = MonotonicNs();
  for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
    const uint64_t number = set.events[i].data.u64;  // a copy, because the record is packed
    if ((number & kDeviceTag) == 0) continue;
    if (const Entry* entry = set.FindNumber(number & ~kDeviceTag)) entry->line->Read(now);
  }
  for (const auto& entry : set.entries) {
    if (entry->line != nullptr && entry->line->Offer(now)) set.ready.push_back(entry.get());
  }
}

// Collects the readable entries in set.ready.
void Collect(tagHOST_FDSET& set, int count) {
  set.ready.clear();
  for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
    const uint64_t number = set.events[i].data.u64;
    if ((number & kDeviceTag) != 0) continue;
    if (Entry* entry = set.FindNumber(number)) set.ready.push_back(entry);
  }
  if (set.lines != 0) CollectLines(set, count);
  if (set.ready.size() < 2) return;
  std::sort(set.ready.begin(), set.ready.end(), [](const Entry* a, const Entry* b) { return a->number < b->number; });
}

// Looks for readable entries without waiting, unless the last look was of no use. Where there are some, nobody, not even
// the kernel, has to read a clock.
bool FoundAtOnce(tagHOST_FDSET& set) {
  if (set.unpolled > 0) {
    --set.unpolled;
    return false;
  }
  Collect(set, std::max(0, epoll_wait(set.epoll.Get(), set.events.data(), static_cast<int>(set.events.size()), 0)));
  if (set.ready.empty()) set.unpolled = kPassesUnpolled;
  return !set.ready.empty();
}

// Waits for readable entries. Returns their number, 0 after the set's interval, or -1 with errno.
int WaitForEntries(tagHOST_FDSET& set) {
  if (FoundAtOnce(set)) return static_cast<int>(set.ready.size());
  const int64_t now = MonotonicNs();
  const int64_t total = IntervalMs(set.interval);
  const int64_t end = total < 0 ? kNever : now + total * 1'000'000;
  for (;;) {
    const int count = WaitForEvents(set, std::min(end, NextOfLines(set)));
    if (count < 0) return -1;
    if (count == 0) NoteSign();
    Collect(set, count);
    if (!set.ready.empty()) return static_cast<int>(set.ready.size());
    if (end != kNever && MonotonicNs() >= end) return 0;
  }
}

// Tells whether another datagram waits, other than an empty one. Asks seldom where the answer was no.
bool HasMore(Entry& entry) {
  if (!entry.isDatagrams) return false;
  if (entry.unasked > 0) {
    --entry.unasked;
    return false;
  }
  int size = 0;
  const bool hasMore = ioctl(entry.fd, FIONREAD, &size) == 0 && size > 0;
  if (!hasMore) entry.unasked = kCallsUnasked;
  return hasMore;
}

// Calls the collected entries in their order and keeps in set.ready those that have more to read, if they are to be
// called again. Returns the number of calls.
int DispatchRound(tagHOST_FDSET& set, bool again) {
  int dispatched = 0;
  size_t kept = 0;
  for (size_t i = 0; i < set.ready.size(); ++i) {
    Entry* entry = set.ready[i];
    if (entry->isRemoved) continue;
    ForgetTimeDifference();
    entry->callback(&set, entry->fd, kReadEvent, entry->param1, entry->param2);
    ++dispatched;
    if (again && !entry->isRemoved && HasMore(*entry)) set.ready[kept++] = entry;
  }
  set.ready.resize(kept);
  return dispatched;
}

int Dispatch(tagHOST_FDSET& set) {
  int dispatched = 0;
  for (int round = 1; round <= kMostRounds && !set.ready.empty(); ++round)
    dispatched += DispatchRound(set, round < kMostRounds);
  set.removed.clear();
  return dispatched;
}

bool IsDatagrams(int fd) {
  int type = 0;
  socklen_t size = sizeof(type);
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_DGRAM;
}

// The events of a serial device replace those of its descriptor.
bool StartWatching(tagHOST_FDSET& set, uint64_t number, Entry& entry) {
  if (const auto device = PopDevice(entry.fd)) {
    entry.line = SerialLine::Attach(entry.fd, *device, set.epoll.Get(), number | kDeviceTag);
    if (entry.line != nullptr) ++set.lines;
    return entry.line != nullptr;
  }
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = number;
  return epoll_ctl(set.epoll.Get(), EPOLL_CTL_ADD, entry.fd, &event) == 0;
}

// Returns false if the descriptor was closed before.
bool StopWatching(tagHOST_FDSET& set, const Entry& entry) {
  if (entry.line != nullptr) return entry.line->IsAttached();
  return epoll_ctl(set.epoll.Get(), EPOLL_CTL_DEL, entry.fd, nullptr) == 0;
}

}  // namespace

extern "C" {

BOOL __FDMGR_CreateSet(const char* szName, HFDSET* phSet, const char* szFunction, const char*, int) {
  if (phSet == nullptr) return FALSE;
  *phSet = nullptr;
  return NoThrow(FALSE, [&] {
    auto set = std::make_unique<tagHOST_FDSET>();
    set->name = szName == nullptr ? "" : szName;
    set->epoll.Reset(epoll_create1(EPOLL_CLOEXEC));
    if (!set->epoll.IsOpen()) {
      HOST_LOG(3, "%s: cannot make descriptor set \"%s\": %s.\n", szFunction, set->name.c_str(), strerror(errno));
      return FALSE;
    }
    *phSet = set.release();
    return TRUE;
  });
}

BOOL __FDMGR_AddReadFD(HFDSET hSet, int iFD, FDMGR_READ_CALLBACK pfnCallback, void* pvParam1, void* pvParam2,
                       const char* szFunction, const char*, int) {
  if (hSet == nullptr || pfnCallback == nullptr) return FALSE;
  return NoThrow(FALSE, [&] {
    const uint64_t number = hSet->nextNumber;
    Entry& added = *hSet->entries.emplace_back(std::make_unique<Entry>(
        Entry{number, iFD, pfnCallback, pvParam1, pvParam2, IsDatagrams(iFD), 0, false, nullptr}));
    // There is room for every descriptor and every device, so that none has to wait for the next pass.
    hSet->events.resize(2 * hSet->entries.size());
    if (!StartWatching(*hSet, number, added)) {
      HOST_LOG(3, "%s: cannot add descriptor %d to set \"%s\": %s.\n", szFunction, iFD, hSet->name.c_str(),
               strerror(errno));
      hSet->Erase(hSet->entries.end() - 1);
      return FALSE;
    }
    ++hSet->nextNumber;
    // The descriptor was closed without being removed, and its number was used again.
    const auto stale = hSet->Find(iFD);
    if (stale->get() != &added) hSet->Erase(stale);
    return TRUE;
  });
}

BOOL __FDMGR_RemoveReadFD(HFDSET hSet, int iFD, const char* szFunction, const char*, int) {
  if (hSet == nullptr) return FALSE;
  return NoThrow(FALSE, [&] {
    const auto found = hSet->Find(iFD);
    if (found == hSet->entries.end()) {
      HOST_LOG(4, "%s: descriptor %d is not in set \"%s\".\n", szFunction, iFD, hSet->name.c_str());
      return FALSE;
    }
    const bool watched = StopWatching(*hSet, **found);
    hSet->Erase(found);
    if (!watched) {
      HOST_LOG(4, "%s: descriptor %d was closed before it left set \"%s\".\n", szFunction, iFD, hSet->name.c_str());
    }
    return TRUE;
  });
}

BOOL FDMGR_SetSelectTimeout(HFDSET hSet, const struct timeval* pInterval, FDMGR_TIMEOUT_CALLBACK pfnCallback,
                            void* pvParam1, void* pvParam2) {
  if (hSet == nullptr) return FALSE;
  hSet->interval = pInterval == nullptr ? std::nullopt : std::optional<timeval>(*pInterval);
  hSet->timeoutCallback = pfnCallback;
  hSet->param1 = pvParam1;
  hSet->param2 = pvParam2;
  return TRUE;
}

int FDMGR_Select(HFDSET hSet) {
  if (hSet == nullptr) return -1;
  hSet->removed.clear();  // between the passes
  return NoThrow(-1, [&] {
    const int count = WaitForEntries(*hSet);
    if (count < 0) {
      HOST_LOG(3, "Waiting on descriptor set \"%s\" failed: %s.\n", hSet->name.c_str(), strerror(errno));
      return -1;
    }
    if (count == 0) {
      if (hSet->timeoutCallback != nullptr) hSet->timeoutCallback(hSet, hSet->param1, hSet->param2);
      return 0;
    }
    return Dispatch(*hSet);
  });
}

BOOL FDMGR_CloseSet(HFDSET* phSet) {
  if (phSet == nullptr || *phSet == nullptr) return FALSE;
  delete *phSet;
  *phSet = nullptr;
  return TRUE;
}

}  // extern "C"
