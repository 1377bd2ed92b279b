// SPDX-License-Identifier: Apache-2.0
// UDP receive sockets and address texts. All descriptors are non-blocking and closed by the caller.
#ifndef HOST_SOCKET_H
#define HOST_SOCKET_H

#include <sys/socket.h>

#include "host_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// An IPv4 socket bound to usPort (host byte order). acAddress: 4 bytes, network order; a multicast group is
// joined, any other address is not looked at.
BOOL CreateUDPRxSocket(USHORT usPort, const BYTE* acAddress, int* piFD);

#define HOST_UDPV6_RX_HOPLIMIT 1u       // report each datagram's hop limit
#define HOST_UDPV6_RX_TRAFFIC_CLASS 2u  // report each datagram's traffic class
// An IPv6-only socket bound to usPort.
BOOL CreateUDPv6RxSocket(USHORT usPort, DWORD dwFlags, int* piFD);

// Scope id of an interface by name; FALSE and 0 when there is none.
BOOL GetInterfaceIPv6ScopeID(const char* szInterface, UINT32* pnScopeID);

// Text of an address (no port), written to szBuffer; returns szBuffer.
char* GetIPAddressString(int iFamily, const void* pvAddress, char* szBuffer, int nSize);
// Text of a socket address with its port: "10.0.0.1:5000", "[fe80::1]:5000"; returns szBuffer.
char* GetSockAddressString(const struct sockaddr_storage* pAddress, char* szBuffer, int nSize);

#ifdef __cplusplus
}
#endif

#endif  // HOST_SOCKET_H
