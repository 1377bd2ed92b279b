// SPDX-License-Identifier: Apache-2.0
// Stands for a pass over a descriptor set: epoll_wait and the call for each descriptor that is ready.
#include <sys/epoll.h>

#include "floors.h"

enum { kEvents = 32 };

void FloorSelect(int epoll, FloorReadable readable, void* user) {
  struct epoll_event events[kEvents];
  const int ready = epoll_wait(epoll, events, kEvents, -1);
  for (int i = 0; i < ready; ++i) readable(events[i].data.fd, user);
}
