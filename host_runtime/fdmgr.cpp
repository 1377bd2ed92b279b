// File-descriptor sets on epoll. A set is driven by one thread.
#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "runtime.h"

namespace {

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
  std::vector<Entry> entries;  // in the order they were added
  std::optional<timeval> interval;
  FDMGR_TIMEOUT_CALLBACK timeoutCallback = nullptr;
  void* param1 = nullptr;
  void* param2 = nullptr;
};

static std::vector<Entry>::iterator Find(HFDSET set, int fd) {
  return std::find_if(set->entries.begin(), set->entries.end(), [fd](const Entry& entry) { return entry.fd == fd; });
}

static int Milliseconds(const std::optional<timeval>& interval) {
  if (!interval) return -1;
  return static_cast<int>(interval->tv_sec * 1000 + (interval->tv_usec + 999) / 1000);
}

// The ready ones, in the order they were added.
static std::vector<Entry> Ready(HFDSET set, const std::vector<epoll_event>& events, int count) {
  std::vector<Entry> ready;
  for (const Entry& entry : set->entries)
    for (int i = 0; i < count; ++i)
      if (events[static_cast<size_t>(i)].data.fd == entry.fd) ready.push_back(entry);
  return ready;
}

extern "C" {

BOOL __FDMGR_CreateSet(const char* szName, HFDSET* phSet, const char* szFunction, const char*, int) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) {
    HOST_LOG(3, "%s: no descriptor set \"%s\": %s", szFunction, szName, runtime::ErrorText(errno).c_str());
    return FALSE;
  }
  *phSet = new tagHOST_FDSET{szName, epoll, {}, {}, nullptr, nullptr, nullptr};
  return TRUE;
}

BOOL __FDMGR_AddReadFD(HFDSET hSet, int iFD, FDMGR_READ_CALLBACK pfnCallback, void* pvParam1, void* pvParam2,
                       const char* szFunction, const char*, int) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = iFD;
  if (epoll_ctl(hSet->epoll, EPOLL_CTL_ADD, iFD, &event) != 0) {
    HOST_LOG(3, "%s: cannot add descriptor %d to \"%s\": %s", szFunction, iFD, hSet->name.c_str(),
             runtime::ErrorText(errno).c_str());
    return FALSE;
  }
  hSet->entries.push_back({iFD, pfnCallback, pvParam1, pvParam2});
  return TRUE;
}

BOOL __FDMGR_RemoveReadFD(HFDSET hSet, int iFD, const char*, const char*, int) {
  const auto found = Find(hSet, iFD);
  if (found == hSet->entries.end()) return FALSE;
  epoll_ctl(hSet->epoll, EPOLL_CTL_DEL, iFD, nullptr);
  hSet->entries.erase(found);
  return TRUE;
}

BOOL FDMGR_SetSelectTimeout(HFDSET hSet, const struct timeval* pInterval, FDMGR_TIMEOUT_CALLBACK pfnCallback,
                            void* pvParam1, void* pvParam2) {
  hSet->interval = pInterval == nullptr ? std::nullopt : std::optional<timeval>(*pInterval);
  hSet->timeoutCallback = pfnCallback;
  hSet->param1 = pvParam1;
  hSet->param2 = pvParam2;
  return TRUE;
}

int FDMGR_Select(HFDSET hSet) {
  std::vector<epoll_event> events(std::max<size_t>(hSet->entries.size(), 1));
  const int count =
      epoll_wait(hSet->epoll, events.data(), static_cast<int>(events.size()), Milliseconds(hSet->interval));
  if (count < 0) return errno == EINTR ? 0 : -1;
  if (count == 0) {
    if (hSet->timeoutCallback != nullptr) hSet->timeoutCallback(hSet, hSet->param1, hSet->param2);
    return 0;
  }
  int dispatched = 0;
  for (const Entry& entry : Ready(hSet, events, count)) {
    // An earlier callback may have removed it, or put another source's descriptor of the same number in its place.
    const auto now = Find(hSet, entry.fd);
    if (now == hSet->entries.end() || now->param1 != entry.param1) continue;
    entry.callback(hSet, entry.fd, EPOLLIN, entry.param1, entry.param2);
    ++dispatched;
  }
  return dispatched;
}

BOOL FDMGR_CloseSet(HFDSET* phSet) {
  close((*phSet)->epoll);
  delete *phSet;
  *phSet = nullptr;
  return TRUE;
}

}  // extern "C"
