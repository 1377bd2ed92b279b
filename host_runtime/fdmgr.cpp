// Descriptor sets over epoll. A set belongs to the thread that selects on it; nothing here takes a lock.
#define HOST_MODULE "fdmgr"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "runtime_state.h"

using namespace host_runtime;

namespace {

constexpr int kReadEvent = 1;  // enEventType of the read callback

struct Entry {
  int fd;
  FDMGR_READ_CALLBACK callback;
  void* param1;
  void* param2;
};

}  // namespace

struct tagHOST_FDSET {
  std::string name;
  int epoll = -1;
  // By order of addition. A number is never used again, so that an event of a removed entry finds nothing, also
  // when its descriptor was added anew in the meantime.
  std::map<std::uint64_t, Entry> entries;
  std::uint64_t nextNumber = 1;
  std::optional<timeval> interval;
  FDMGR_TIMEOUT_CALLBACK timeoutCallback = nullptr;
  void* param1 = nullptr;
  void* param2 = nullptr;
  std::vector<epoll_event> events;     // of the pass
  std::vector<std::uint64_t> numbers;  // of the pass, ascending

  std::map<std::uint64_t, Entry>::iterator Find(int fd) {
    return std::find_if(entries.begin(), entries.end(), [fd](const auto& entry) { return entry.second.fd == fd; });
  }
};

namespace {

// Milliseconds for epoll, rounded up so that no pass ends early; -1 without interval.
std::int64_t IntervalMs(const std::optional<timeval>& interval) {
  if (!interval) return -1;
  const std::int64_t ms = std::int64_t{interval->tv_sec} * 1000 + (interval->tv_usec + 999) / 1000;
  return std::clamp<std::int64_t>(ms, 0, std::numeric_limits<int>::max());
}

// Events, 0 when the time is up, -1 with errno. A signal does not end the wait.
int WaitForEvents(tagHOST_FDSET& set) {
  const std::int64_t total = IntervalMs(set.interval);
  const std::int64_t end = MonotonicNs() + total * 1'000'000;
  // Room for every descriptor: none has to wait for the others' next pass.
  set.events.resize(std::max<std::size_t>(set.entries.size(), 1));
  std::int64_t wait = total;
  for (;;) {
    const int count =
        epoll_wait(set.epoll, set.events.data(), static_cast<int>(set.events.size()), static_cast<int>(wait));
    if (count >= 0 || errno != EINTR) return count;
    if (total >= 0) wait = std::max<std::int64_t>(0, (end - MonotonicNs() + 999'999) / 1'000'000);
  }
}

}  // namespace

extern "C" {

BOOL __FDMGR_CreateSet(const char* szName, HFDSET* phSet, const char* szFunction, const char*, int) {
  if (phSet == nullptr) return FALSE;
  *phSet = nullptr;
  return Guarded(FALSE, [&] {
    auto set = std::make_unique<tagHOST_FDSET>();
    set->name = szName == nullptr ? "" : szName;
    set->epoll = epoll_create1(EPOLL_CLOEXEC);
    if (set->epoll < 0) {
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
  return Guarded(FALSE, [&] {
    const std::uint64_t number = hSet->nextNumber;
    const auto added = hSet->entries.emplace(number, Entry{iFD, pfnCallback, pvParam1, pvParam2}).first;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number;
    if (epoll_ctl(hSet->epoll, EPOLL_CTL_ADD, iFD, &event) != 0) {
      HOST_LOG(3, "%s: cannot add descriptor %d to set \"%s\": %s.\n", szFunction, iFD, hSet->name.c_str(),
               strerror(errno));
      hSet->entries.erase(added);
      return FALSE;
    }
    ++hSet->nextNumber;
    // The same number again although it is in the set: its file was closed without being removed.
    const auto stale = hSet->Find(iFD);
    if (stale != added) hSet->entries.erase(stale);
    return TRUE;
  });
}

BOOL __FDMGR_RemoveReadFD(HFDSET hSet, int iFD, const char* szFunction, const char*, int) {
  if (hSet == nullptr) return FALSE;
  return Guarded(FALSE, [&] {
    const auto found = hSet->Find(iFD);
    if (found == hSet->entries.end()) {
      HOST_LOG(4, "%s: descriptor %d is not in set \"%s\".\n", szFunction, iFD, hSet->name.c_str());
      return FALSE;
    }
    hSet->entries.erase(found);
    if (epoll_ctl(hSet->epoll, EPOLL_CTL_DEL, iFD, nullptr) != 0) {
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
  return Guarded(-1, [&] {
    const int count = WaitForEvents(*hSet);
    if (count < 0) {
      HOST_LOG(3, "Waiting on descriptor set \"%s\" failed: %s.\n", hSet->name.c_str(), strerror(errno));
      return -1;
    }
    if (count == 0) {
      if (hSet->timeoutCallback != nullptr) hSet->timeoutCallback(hSet, hSet->param1, hSet->param2);
      return 0;
    }
    hSet->numbers.clear();
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      const std::uint64_t number = hSet->events[i].data.u64;  // a copy: the record is packed
      hSet->numbers.push_back(number);
    }
    std::sort(hSet->numbers.begin(), hSet->numbers.end());
    int dispatched = 0;
    for (const std::uint64_t number : hSet->numbers) {
      const auto found = hSet->entries.find(number);
      if (found == hSet->entries.end()) continue;  // removed by a callback of this pass
      const Entry entry = found->second;           // the callback may remove itself
      entry.callback(hSet, entry.fd, kReadEvent, entry.param1, entry.param2);
      ++dispatched;
    }
    return dispatched;
  });
}

BOOL FDMGR_CloseSet(HFDSET* phSet) {
  if (phSet == nullptr || *phSet == nullptr) return FALSE;
  close((*phSet)->epoll);
  delete *phSet;
  *phSet = nullptr;
  return TRUE;
}

}  // extern "C"
