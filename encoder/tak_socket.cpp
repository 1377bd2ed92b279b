// SPDX-License-Identifier: Apache-2.0
// The socket for the datagrams of a TAK network.
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "owned_fd.h"
#include "resolver.h"
#include "tak_input.h"

namespace mdencoder {
namespace {

using common::OwnedFD;

template <typename Value>
bool Set(int fd, int level, int option, const Value& value) {
  return setsockopt(fd, level, option, &value, sizeof(value)) == 0;
}

bool IsGroup(const HostAddress& address) {
  if (address.address.ss_family == AF_INET6) {
    sockaddr_in6 ipv6;
    std::memcpy(&ipv6, &address.address, sizeof(ipv6));
    return IN6_IS_ADDR_MULTICAST(&ipv6.sin6_addr);
  }
  sockaddr_in ipv4;
  std::memcpy(&ipv4, &address.address, sizeof(ipv4));
  return IN_MULTICAST(ntohl(ipv4.sin_addr.s_addr));
}

// A link-local address belongs to an interface, which a key or the address itself names.
void SetScope(const std::string& interface, HostAddress& address) {
  if (address.address.ss_family != AF_INET6 || interface.empty()) return;
  sockaddr_in6 ipv6;
  std::memcpy(&ipv6, &address.address, sizeof(ipv6));
  if (ipv6.sin6_scope_id == 0) ipv6.sin6_scope_id = if_nametoindex(interface.c_str());
  std::memcpy(&address.address, &ipv6, sizeof(ipv6));
}

// Joins on one interface, or with 0 on the one that the routing table selects.
bool JoinOn(int fd, const HostAddress& group, unsigned interface) {
  const int level = group.address.ss_family == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
  group_req request{};
  request.gr_interface = interface;
  std::memcpy(&request.gr_group, &group.address, sizeof(request.gr_group));
  return Set(fd, level, MCAST_JOIN_GROUP, request) || errno == EADDRINUSE;
}

}  // namespace

// Joins on the interface of the settings or of the address, or on the one of the routing table and, for programs of this
// machine, on the loopback interface. A group that was joined already stays so.
bool JoinTakGroup(int fd, const TakSettings& settings, std::string& fault) {
  const Resolution resolution = Resolve(settings.host, settings.port, SOCK_DGRAM);
  if (resolution.addresses.empty()) {
    fault = resolution.fault;
    return false;
  }
  const HostAddress& group = resolution.addresses.front();
  if (!IsGroup(group)) return true;
  std::string name = settings.interface;
  if (name.empty() && settings.host.find('%') != std::string::npos)
    name = settings.host.substr(settings.host.find('%') + 1);
  if (!name.empty()) {
    const unsigned index = if_nametoindex(name.c_str());
    if (index != 0 && JoinOn(fd, group, index)) return true;
    fault = index == 0 ? "there is no interface " + name : settings.url + " on " + name + ": " + std::strerror(errno);
    return false;
  }
  const bool isRouted = JoinOn(fd, group, 0);
  const int error = errno;
  const bool isLocal = JoinOn(fd, group, if_nametoindex("lo"));
  if (isRouted || isLocal) return true;
  fault = "cannot join " + settings.url + ": " + std::strerror(error);
  return false;
}

OwnedFD OpenTakSocket(const TakSettings& settings, std::string& fault) {
  constexpr int kReceiveBuffer = 1 << 20;
  const Resolution resolution = Resolve(settings.host.empty() ? "0.0.0.0" : settings.host, settings.port, SOCK_DGRAM);
  if (resolution.addresses.empty()) {
    fault = resolution.fault;
    return OwnedFD();
  }
  HostAddress local = resolution.addresses.front();
  SetScope(settings.interface, local);
  OwnedFD fd(socket(local.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.IsOpen()) Set(fd.Get(), SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
  if (!fd.IsOpen()) {
    fault = std::string("no socket: ") + std::strerror(errno);
    return OwnedFD();
  }
  // Whoever sees the port may send, so the group is joined before.
  if (!settings.host.empty() && !JoinTakGroup(fd.Get(), settings, fault)) return OwnedFD();
  // The port of a group is shared with other programs. A socket that is bound to the group receives nothing else.
  if ((IsGroup(local) && !Set(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1)) ||
      bind(fd.Get(), local.Plain(), local.size) != 0) {
    fault = "UDP port " + std::to_string(settings.port) +
            (errno == EADDRINUSE ? std::string(" is in use") : std::string(": ") + std::strerror(errno));
    return OwnedFD();
  }
  return fd;
}

}  // namespace mdencoder
