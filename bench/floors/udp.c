// SPDX-License-Identifier: Apache-2.0
// Stands for KLV over UDP: wait with epoll, fetch the datagram with its sender by recvmsg, rewrite it if that is asked for,
// send it to the relays, copy it into memory of its own, hand it over, free it. Every datagram has a wait of its own, as in
// any loop that does not know how many there are. The two other passes show what is left when waits are shared.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "floors.h"

enum { kHeaderSpace = 53, kEvents = 16 };  // the record and the stream header that stand in front of a message

int FloorUdpOpen(FloorUdp* udp) {
  udp->epoll = epoll_create1(EPOLL_CLOEXEC);
  if (udp->epoll < 0) return -1;
  for (int i = 0; i < udp->count; ++i) {
    struct epoll_event event = {.events = EPOLLIN, .data.u32 = (uint32_t)i};
    if (epoll_ctl(udp->epoll, EPOLL_CTL_ADD, udp->sources[i].socket, &event) != 0) return -1;
  }
  return 0;
}

static FloorMessage Copy(const uint8_t* datagram, size_t size) {
  FloorMessage message = {malloc(kHeaderSpace + size), NULL, size};
  if (message.block == NULL) return message;
  message.data = message.block + kHeaderSpace;
  memcpy(message.data, datagram, size);
  return message;
}

static void Handle(FloorUdp* udp, const FloorSource* source, const uint8_t* datagram, size_t size) {
  for (int i = 0; i < source->relays; ++i) (void)send(source->relaySockets[i], datagram, size, 0);
  const FloorMessage message = udp->rules != NULL ? FloorRewrite(udp->rules, datagram, size) : Copy(datagram, size);
  if (message.block == NULL) return;
  udp->deliver(message.data, message.size, udp->user);
  free(message.block);
}

// Returns 0 if nothing was there.
static int Receive(FloorUdp* udp, const FloorSource* source) {
  uint8_t datagram[kFloorDatagram];
  struct sockaddr_storage sender;
  struct iovec part = {datagram, sizeof datagram};
  struct msghdr message = {0};
  message.msg_name = &sender;
  message.msg_namelen = sizeof sender;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const ssize_t size = recvmsg(source->socket, &message, MSG_DONTWAIT);
  if (size <= 0) return 0;
  Handle(udp, source, datagram, (size_t)size);
  return 1;
}

void FloorUdpPass(FloorUdp* udp) {
  struct epoll_event events[kEvents];
  const int ready = epoll_wait(udp->epoll, events, kEvents, -1);
  for (int i = 0; i < ready; ++i) (void)Receive(udp, &udp->sources[events[i].data.u32]);
}

void FloorUdpPassOfMany(FloorUdp* udp) {
  struct epoll_event events[kEvents];
  const int ready = epoll_wait(udp->epoll, events, kEvents, -1);
  for (int i = 0; i < ready; ++i) {
    for (int round = 0; round < kFloorRounds; ++round) {
      if (!Receive(udp, &udp->sources[events[i].data.u32])) break;
    }
  }
}

static void ReceiveAtOnce(FloorUdp* udp, const FloorSource* source) {
  static uint8_t datagrams[kFloorRounds][kFloorDatagram];
  static struct sockaddr_storage senders[kFloorRounds];
  struct iovec parts[kFloorRounds];
  struct mmsghdr messages[kFloorRounds];
  memset(messages, 0, sizeof messages);
  for (int i = 0; i < kFloorRounds; ++i) {
    parts[i] = (struct iovec){datagrams[i], kFloorDatagram};
    messages[i].msg_hdr.msg_name = &senders[i];
    messages[i].msg_hdr.msg_namelen = sizeof senders[i];
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int count = recvmmsg(source->socket, messages, kFloorRounds, MSG_DONTWAIT, NULL);
  for (int i = 0; i < count; ++i) Handle(udp, source, datagrams[i], messages[i].msg_len);
}

void FloorUdpPassAtOnce(FloorUdp* udp) {
  struct epoll_event events[kEvents];
  const int ready = epoll_wait(udp->epoll, events, kEvents, -1);
  for (int i = 0; i < ready; ++i) ReceiveAtOnce(udp, &udp->sources[events[i].data.u32]);
}
