// SPDX-License-Identifier: Apache-2.0
#include "network_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace mdencoder {
namespace {

constexpr uint32_t kGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;

common::OwnedFD OpenNetlink(uint32_t groups) {
  common::OwnedFD fd(socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl local{};
  local.nl_family = AF_NETLINK;
  local.nl_groups = groups;
  if (fd.IsOpen() && bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) fd.Reset();
  return fd;
}

template <typename Record>
bool CopyRecord(std::span<const std::byte> data, size_t at, Record& record) {
  if (at > data.size() || data.size() - at < sizeof(record)) return false;
  std::memcpy(&record, data.data() + at, sizeof(record));
  return true;
}

size_t Aligned(size_t size) {
  return (size + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO;
}

// Calls `action(header, body)` for each whole message.
template <typename Action>
void EachMessage(std::span<const std::byte> data, Action action) {
  nlmsghdr header{};
  while (CopyRecord(data, 0, header)) {
    if (header.nlmsg_len < sizeof(header) || header.nlmsg_len > data.size()) return;
    action(header, data.first(header.nlmsg_len).subspan(sizeof(header)));
    if (Aligned(header.nlmsg_len) >= data.size()) return;
    data = data.subspan(Aligned(header.nlmsg_len));
  }
}

// Returns the outgoing interface that an answer about a route names, or 0.
int OutgoingInterface(std::span<const std::byte> body) {
  rtattr attribute{};
  for (size_t at = sizeof(rtmsg); CopyRecord(body, at, attribute); at += Aligned(attribute.rta_len)) {
    if (attribute.rta_len < sizeof(attribute)) return 0;
    int index = 0;
    if (attribute.rta_type == RTA_OIF && CopyRecord(body, at + sizeof(attribute), index)) return index;
  }
  return 0;
}

}  // namespace

void ReadNetworkChanges(std::span<const std::byte> data, NetworkChanges& changes) {
  EachMessage(data, [&changes](const nlmsghdr& header, std::span<const std::byte> body) {
    changes.any = true;
    ifinfomsg link{};
    if (header.nlmsg_type == RTM_DELLINK && CopyRecord(body, 0, link)) changes.removedLinks.push_back(link.ifi_index);
  });
}

NetworkWatch::NetworkWatch() : m_socket(OpenNetlink(kGroups)) {}

NetworkChanges NetworkWatch::Read() {
  NetworkChanges changes;
  std::array<std::byte, 32768> buffer;
  for (;;) {
    const ssize_t got = recv(m_socket.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got > 0) {
      ReadNetworkChanges(std::span(buffer).first(static_cast<size_t>(got)), changes);
    } else if (got < 0 && errno == ENOBUFS) {
      changes.any = true;
    } else if (got == 0 || errno != EINTR) {
      return changes;
    }
  }
}

int RouteInterface(in_addr address) {
  struct {
    nlmsghdr header;
    rtmsg route;
    rtattr attribute;
    in_addr destination;
  } request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = 32;
  request.attribute.rta_type = RTA_DST;
  request.attribute.rta_len = RTA_LENGTH(sizeof(address));
  request.destination = address;
  const common::OwnedFD fd = OpenNetlink(0);
  if (send(fd.Get(), &request, sizeof(request), 0) != static_cast<ssize_t>(sizeof(request))) return 0;
  std::array<std::byte, 4096> buffer;
  // The kernel answers within the call of send.
  const ssize_t got = recv(fd.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  int index = 0;
  if (got > 0) {
    EachMessage(std::span(buffer).first(static_cast<size_t>(got)), [&](const nlmsghdr& header, auto body) {
      if (header.nlmsg_type == RTM_NEWROUTE) index = OutgoingInterface(body);
    });
  }
  return index;
}

std::string InterfaceName(int index) {
  char name[IF_NAMESIZE] = {};
  return index > 0 && if_indextoname(static_cast<unsigned>(index), name) != nullptr ? name : "";
}

std::string InterfaceFault(int index, const std::string& name) {
  const std::string current = InterfaceName(index);
  if (current.empty()) return name + " is gone";
  const common::OwnedFD fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  current.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
  if (ioctl(fd.Get(), SIOCGIFFLAGS, &request) != 0) return current + " is gone";
  if ((request.ifr_flags & IFF_UP) == 0) return current + " is down";
  if ((request.ifr_flags & IFF_RUNNING) == 0) return current + " has no carrier";
  return {};
}

}  // namespace mdencoder
