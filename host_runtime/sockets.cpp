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

#include <cerrno>
#include <cstring>
#include <string>

#include "owned_fd.h"
#include "runtime_state.h"

using namespace host_runtime;

namespace {

constexpr int kReceiveBuffer = 1 << 20;  // requested bytes; the system may grant fewer

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

BOOL Fail(const char* what, USHORT usPort) {
  HOST_LOG(3, "UDP port %u: %s: %s.\n", static_cast<unsigned>(usPort), what, strerror(errno));
  return FALSE;
}

bool JoinOn(Socket& socket, in_addr group, int interface) {
  ip_mreqn request{};
  request.imr_multiaddr = group;
  request.imr_ifindex = interface;
  return setsockopt(socket.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) == 0;
}

// Joins on the interface that the configuration names. Without one, it joins on the interface that the routing table
// selects, and on the loopback interface for senders on this machine.
bool Join(Socket& socket, in_addr group) {
  const std::string name = Config()->multicastInterface;
  if (!name.empty()) {
    const unsigned index = if_nametoindex(name.c_str());
    return index != 0 && JoinOn(socket, group, static_cast<int>(index));
  }
  const bool routed = JoinOn(socket, group, 0);
  const int error = errno;
  const unsigned loopback = if_nametoindex("lo");
  const bool local = loopback != 0 && (JoinOn(socket, group, static_cast<int>(loopback)) || errno == EADDRINUSE);
  errno = error;
  return routed || local;
}

}  // namespace

extern "C" {

BOOL CreateUDPRxSocket(USHORT usPort, const BYTE* acAddress, int* piFD) {
  if (piFD == nullptr) return FALSE;
  *piFD = -1;
  return NoThrow(FALSE, [&] {
    in_addr address{};
    if (acAddress != nullptr) memcpy(&address, acAddress, sizeof(address));
    const bool bMulticast = IN_MULTICAST(ntohl(address.s_addr));
    Socket socket(AF_INET);
    if (!socket.IsOpen()) return Fail("no socket", usPort);
    // Without IP_MULTICAST_ALL the socket receives only the groups that it joined itself.
    if (bMulticast && (!socket.Set(SOL_SOCKET, SO_REUSEADDR, 1) || !socket.Set(IPPROTO_IP, IP_MULTICAST_ALL, 0))) {
      return Fail("cannot prepare for multicast", usPort);
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(usPort);
    if (!socket.Bind(local)) return Fail("cannot bind", usPort);
    if (bMulticast && !Join(socket, address)) return Fail("cannot join the group", usPort);
    *piFD = socket.Release();
    return TRUE;
  });
}

BOOL CreateUDPv6RxSocket(USHORT usPort, DWORD dwFlags, int* piFD) {
  if (piFD == nullptr) return FALSE;
  *piFD = -1;
  Socket socket(AF_INET6);
  if (!socket.IsOpen()) return Fail("no IPv6 socket", usPort);
  if (!socket.Set(IPPROTO_IPV6, IPV6_V6ONLY, 1)) return Fail("cannot leave out IPv4", usPort);
  if ((dwFlags & HOST_UDPV6_RX_HOPLIMIT) != 0 && !socket.Set(IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1)) {
    return Fail("cannot ask for hop limits", usPort);
  }
  if ((dwFlags & HOST_UDPV6_RX_TRAFFIC_CLASS) != 0 && !socket.Set(IPPROTO_IPV6, IPV6_RECVTCLASS, 1)) {
    return Fail("cannot ask for traffic classes", usPort);
  }
  sockaddr_in6 local{};
  local.sin6_family = AF_INET6;
  local.sin6_port = htons(usPort);
  if (!socket.Bind(local)) return Fail("cannot bind over IPv6", usPort);
  *piFD = socket.Release();
  return TRUE;
}

BOOL GetInterfaceIPv6ScopeID(const char* szInterface, UINT32* pnScopeID) {
  if (pnScopeID == nullptr) return FALSE;
  *pnScopeID = szInterface == nullptr ? 0 : if_nametoindex(szInterface);
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
