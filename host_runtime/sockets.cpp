// SPDX-License-Identifier: Apache-2.0
// UDP receive sockets and address texts.
//
// A unicast port is never shared: a second process that binds it gets an error instead of half the datagrams. Ports of
// multicast sources are shared with other receivers on the machine, each of which has its own groups.
#define HOST_MODULE "sockets"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "owned_fd.h"
#include "runtime_state.h"

using namespace host_runtime;

namespace {

constexpr int kReceiveBuffer = 1 << 20;  // requested bytes; the system may grant fewer
constexpr int kIPv6MulticastAll = 29;    // IPV6_MULTICAST_ALL, which the C library does not name

class Socket {
 public:
  explicit Socket(int family) : m_fd(socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    if (IsOpen()) Set(SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
  }

  bool IsOpen() const { return m_fd.IsOpen(); }
  int Get() const { return m_fd.Get(); }
  // Gives up ownership: the caller closes the descriptor.
  [[nodiscard]] int Release() { return m_fd.Release(); }
  bool Set(int level, int option, int value) { return setsockopt(Get(), level, option, &value, sizeof(value)) == 0; }
  template <typename Address>
  bool Bind(const Address& address) {
    return bind(Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }

 private:
  common::OwnedFD m_fd;
};

thread_local HostReception t_reception;  // of the sockets that this thread creates (HostRuntime_SetReception)

USHORT PortOf(USHORT usPort) {
  return t_reception.port != 0 ? t_reception.port : usPort;
}

BOOL Fail(const char* what, USHORT usPort) {
  HOST_LOG(3, "UDP port %u: %s: %s.\n", static_cast<unsigned>(PortOf(usPort)), what, strerror(errno));
  return FALSE;
}

sockaddr_storage AddressOf(const HostReception::Group& group) {
  sockaddr_storage address{};
  address.ss_family = static_cast<sa_family_t>(group.family);
  if (group.family == AF_INET) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    memcpy(&ipv4.sin_addr, group.address.data(), sizeof(ipv4.sin_addr));
    memcpy(&address, &ipv4, sizeof(ipv4));
  } else {
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    memcpy(&ipv6.sin6_addr, group.address.data(), sizeof(ipv6.sin6_addr));
    memcpy(&address, &ipv6, sizeof(ipv6));
  }
  return address;
}

// Joins from every sender, or from the only one. With interface 0 the routing table selects it.
bool JoinOn(const Socket& socket, const HostReception::Group& group, unsigned interface) {
  const int level = group.family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
  const HostReception::Group& sender = t_reception.sender;
  if (sender.family == group.family) {
    group_source_req request{};
    request.gsr_interface = interface;
    request.gsr_group = AddressOf(group);
    request.gsr_source = AddressOf(sender);
    return setsockopt(socket.Get(), level, MCAST_JOIN_SOURCE_GROUP, &request, sizeof(request)) == 0;
  }
  group_req request{};
  request.gr_interface = interface;
  request.gr_group = AddressOf(group);
  return setsockopt(socket.Get(), level, MCAST_JOIN_GROUP, &request, sizeof(request)) == 0;
}

// Joins on the interface of the group, of the source or of the configuration. Without one, it joins on the interface that
// the routing table selects, and on the loopback interface for senders on this machine.
bool Join(const Socket& socket, const HostReception::Group& group) {
  std::string name = group.interface.empty() ? t_reception.interface : group.interface;
  if (name.empty()) name = Config()->multicastInterface;
  if (!name.empty()) {
    const unsigned index = if_nametoindex(name.c_str());
    return index != 0 && JoinOn(socket, group, index);
  }
  const bool routed = JoinOn(socket, group, 0);
  const int error = errno;
  const unsigned loopback = if_nametoindex("lo");
  const bool local = loopback != 0 && (JoinOn(socket, group, loopback) || errno == EADDRINUSE);
  errno = error;
  return routed || local;
}

// Returns the groups of this family that a socket joins: those of the source, or else the library's address.
std::vector<HostReception::Group> GroupsOf(int family, const BYTE* acAddress) {
  std::vector<HostReception::Group> groups;
  for (const HostReception::Group& group : t_reception.groups) {
    if (group.family == family) groups.push_back(group);
  }
  in_addr address{};
  if (acAddress != nullptr) memcpy(&address, acAddress, sizeof(address));
  if (!t_reception.groups.empty() || !IN_MULTICAST(ntohl(address.s_addr))) return groups;
  HostReception::Group group;
  group.family = AF_INET;
  memcpy(group.address.data(), &address, sizeof(address));
  groups.push_back(group);
  return groups;
}

// Without IP_MULTICAST_ALL a socket receives only the groups that it joined itself.
bool Prepare(Socket& socket, int family, bool bMulticast) {
  const std::string& interface = t_reception.interface;
  if (!bMulticast) {
    return interface.empty() || setsockopt(socket.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                                           static_cast<socklen_t>(interface.size() + 1)) == 0;
  }
  return socket.Set(SOL_SOCKET, SO_REUSEADDR, 1) &&
         (family == AF_INET ? socket.Set(IPPROTO_IP, IP_MULTICAST_ALL, 0)
                            : socket.Set(IPPROTO_IPV6, kIPv6MulticastAll, 0));
}

// Joins before the socket is bound, so that whoever sees the port may send.
bool JoinAll(const Socket& socket, const std::vector<HostReception::Group>& groups) {
  return std::all_of(groups.begin(), groups.end(), [&](const auto& group) { return Join(socket, group); });
}

}  // namespace

void HostRuntime_SetReception(const HostReception& reception) {
  NoThrow([&] { t_reception = reception; });
}

extern "C" {

BOOL CreateUDPRxSocket(USHORT usPort, const BYTE* acAddress, int* piFD) {
  if (piFD == nullptr) return FALSE;
  *piFD = -1;
  return NoThrow(FALSE, [&] {
    const std::vector<HostReception::Group> groups = GroupsOf(AF_INET, acAddress);
    Socket socket(AF_INET);
    if (!socket.IsOpen()) return Fail("no socket", usPort);
    if (!Prepare(socket, AF_INET, !groups.empty())) {
      return Fail(groups.empty() ? "cannot receive from the interface only" : "cannot prepare for multicast", usPort);
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(PortOf(usPort));
    if (t_reception.onlyLoopback) local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!JoinAll(socket, groups)) return Fail("cannot join the group", usPort);
    if (!socket.Bind(local)) return Fail("cannot bind", usPort);
    *piFD = socket.Release();
    return TRUE;
  });
}

BOOL CreateUDPv6RxSocket(USHORT usPort, DWORD dwFlags, int* piFD) {
  if (piFD == nullptr) return FALSE;
  *piFD = -1;
  return NoThrow(FALSE, [&] {
    const std::vector<HostReception::Group> groups = GroupsOf(AF_INET6, nullptr);
    Socket socket(AF_INET6);
    if (!socket.IsOpen()) return Fail("no IPv6 socket", usPort);
    if (!socket.Set(IPPROTO_IPV6, IPV6_V6ONLY, 1)) return Fail("cannot leave out IPv4", usPort);
    if (!Prepare(socket, AF_INET6, !groups.empty())) {
      return Fail(groups.empty() ? "cannot receive from the interface only" : "cannot prepare for multicast", usPort);
    }
    if ((dwFlags & HOST_UDPV6_RX_HOPLIMIT) != 0 && !socket.Set(IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1)) {
      return Fail("cannot ask for hop limits", usPort);
    }
    if ((dwFlags & HOST_UDPV6_RX_TRAFFIC_CLASS) != 0 && !socket.Set(IPPROTO_IPV6, IPV6_RECVTCLASS, 1)) {
      return Fail("cannot ask for traffic classes", usPort);
    }
    sockaddr_in6 local{};
    local.sin6_family = AF_INET6;
    local.sin6_port = htons(PortOf(usPort));
    if (t_reception.onlyLoopback) local.sin6_addr = in6addr_loopback;
    if (!JoinAll(socket, groups)) return Fail("cannot join the group over IPv6", usPort);
    if (!socket.Bind(local)) return Fail("cannot bind over IPv6", usPort);
    *piFD = socket.Release();
    return TRUE;
  });
}

BOOL GetInterfaceIPv6ScopeID(const char* szInterface, UINT32* pnScopeID) {
  if (pnScopeID == nullptr) return FALSE;
  const std::string& relays = t_reception.relayInterface;
  const bool isRelays = !relays.empty() && szInterface != nullptr && strcmp(szInterface, "eth0") == 0;
  const char* const name = isRelays ? relays.c_str() : szInterface;
  *pnScopeID = name == nullptr ? 0 : if_nametoindex(name);
  return *pnScopeID != 0 ? TRUE : FALSE;
}

char* GetIPAddressString(int iFamily, const void* pvAddress, char* szBuffer, int nSize) {
  if (szBuffer == nullptr || nSize <= 0) return szBuffer;
  if (pvAddress == nullptr || inet_ntop(iFamily, pvAddress, szBuffer, static_cast<socklen_t>(nSize)) == nullptr) {
    CopyString(szBuffer, "?", nSize);
  }
  return szBuffer;
}

char* GetSockAddressString(const struct sockaddr_storage* pAddress, char* szBuffer, int nSize) {
  char szText[INET6_ADDRSTRLEN];
  if (pAddress != nullptr && pAddress->ss_family == AF_INET) {
    sockaddr_in address;
    memcpy(&address, pAddress, sizeof(address));
    GetIPAddressString(AF_INET, &address.sin_addr, szText, sizeof(szText));
    PrintToString(szBuffer, nSize, "%s:%u", szText, static_cast<unsigned>(ntohs(address.sin_port)));
  } else if (pAddress != nullptr && pAddress->ss_family == AF_INET6) {
    sockaddr_in6 address;
    memcpy(&address, pAddress, sizeof(address));
    GetIPAddressString(AF_INET6, &address.sin6_addr, szText, sizeof(szText));
    PrintToString(szBuffer, nSize, "[%s]:%u", szText, static_cast<unsigned>(ntohs(address.sin6_port)));
  } else {
    CopyString(szBuffer, "?", nSize);
  }
  return szBuffer;
}

}  // extern "C"
