// UDP receive sockets and address texts.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "runtime.h"

namespace runtime {

bool MakeNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 && fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace runtime

// Closes the socket and tells why.
static BOOL GiveUp(int fd, const char* what, USHORT port) {
  const int error = errno;
  if (fd >= 0) close(fd);
  HOST_LOG(3, "%s on UDP port %u: %s", what, port, runtime::ErrorText(error).c_str());
  return FALSE;
}

static bool IsMulticast(const BYTE* address) {
  return (address[0] & 0xF0) == 0xE0;
}

extern "C" {

BOOL CreateUDPRxSocket(USHORT usPort, const BYTE* acAddress, int* piFD) {
  const bool multicast = IsMulticast(acAddress);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return GiveUp(fd, "no socket", usPort);
  // Only groups may share a port: a unicast port taken by another process must fail, not steal its datagrams.
  const int on = 1;
  if (multicast && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
    return GiveUp(fd, "cannot share the port", usPort);
  sockaddr_in local = {};
  local.sin_family = AF_INET;
  local.sin_port = htons(usPort);
  if (multicast) memcpy(&local.sin_addr, acAddress, 4);  // only what is sent to the group
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return GiveUp(fd, "cannot bind", usPort);
  if (multicast) {
    ip_mreqn group = {};
    memcpy(&group.imr_multiaddr, acAddress, 4);
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0)
      return GiveUp(fd, "cannot join the group", usPort);
  }
  *piFD = fd;
  return TRUE;
}

BOOL CreateUDPv6RxSocket(USHORT usPort, DWORD dwFlags, int* piFD) {
  const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return GiveUp(fd, "no IPv6 socket", usPort);
  const int on = 1;
  if (setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) return GiveUp(fd, "no IPV6_V6ONLY", usPort);
  if ((dwFlags & HOST_UDPV6_RX_HOPLIMIT) != 0 && setsockopt(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof on) != 0)
    return GiveUp(fd, "no IPV6_RECVHOPLIMIT", usPort);
  if ((dwFlags & HOST_UDPV6_RX_TRAFFIC_CLASS) != 0 &&
      setsockopt(fd, IPPROTO_IPV6, IPV6_RECVTCLASS, &on, sizeof on) != 0)
    return GiveUp(fd, "no IPV6_RECVTCLASS", usPort);
  sockaddr_in6 local = {};
  local.sin6_family = AF_INET6;
  local.sin6_port = htons(usPort);
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return GiveUp(fd, "cannot bind IPv6", usPort);
  *piFD = fd;
  return TRUE;
}

BOOL GetInterfaceIPv6ScopeID(const char* szInterface, UINT32* pnScopeID) {
  *pnScopeID = if_nametoindex(szInterface);
  return *pnScopeID != 0 ? TRUE : FALSE;
}

char* GetIPAddressString(int iFamily, const void* pvAddress, char* szBuffer, int nSize) {
  if (nSize <= 0) return szBuffer;
  if (inet_ntop(iFamily, pvAddress, szBuffer, static_cast<socklen_t>(nSize)) == nullptr)
    snprintf(szBuffer, static_cast<size_t>(nSize), "(family %d)", iFamily);
  return szBuffer;
}

char* GetSockAddressString(const struct sockaddr_storage* pAddress, char* szBuffer, int nSize) {
  char text[INET6_ADDRSTRLEN + 8];
  if (nSize <= 0) return szBuffer;
  if (pAddress->ss_family == AF_INET6) {
    const sockaddr_in6* address = reinterpret_cast<const sockaddr_in6*>(pAddress);
    GetIPAddressString(AF_INET6, &address->sin6_addr, text, sizeof text);
    snprintf(szBuffer, static_cast<size_t>(nSize), "[%s]:%u", text, ntohs(address->sin6_port));
  } else if (pAddress->ss_family == AF_INET) {
    const sockaddr_in* address = reinterpret_cast<const sockaddr_in*>(pAddress);
    GetIPAddressString(AF_INET, &address->sin_addr, text, sizeof text);
    snprintf(szBuffer, static_cast<size_t>(nSize), "%s:%u", text, ntohs(address->sin_port));
  } else {
    snprintf(szBuffer, static_cast<size_t>(nSize), "(family %d)", pAddress->ss_family);
  }
  return szBuffer;
}

}  // extern "C"
